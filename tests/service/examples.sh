#!/bin/sh
# A service refuses a message whose object is of the wrong type, and then answers
# the example client.
# usage: examples.sh CLIENT WRONG_OBJECT SERVICE [OPTION...], the address comes last
set -eu
client=$1 wrong_object=$2 service=$3
shift 3
work=$(mktemp -d)
service_pid=
stop() {
    [ -z "$service_pid" ] || kill "$service_pid" 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap stop EXIT
trap 'exit 1' HUP INT TERM
address=unix:$work/sock
mkfifo "$work/ready"
"$service" "$@" "$address" >"$work/ready" &
service_pid=$!
read -r ready <"$work/ready"
[ "$ready" = "ready $address" ]
"$wrong_object" "$address" | tee "$work/answer"
grep -q "^-1: .*not the object that the request kind names" "$work/answer"
"$client" "$address" | tee "$work/answer"
grep -q "^0: policy 7 " "$work/answer"
