#!/bin/sh
# The example client is answered by the example service, or by another one that is given.
set -eu
client=$1 service=$2
shift 2
work=$(mktemp -d)
address=unix:$work/sock
mkfifo "$work/ready"
"$service" "$@" "$address" >"$work/ready" &
service_pid=$!
trap 'kill $service_pid; wait $service_pid || true; rm -rf "$work"' EXIT
read -r ready <"$work/ready"
[ "$ready" = "ready $address" ]
"$client" "$address" | tee "$work/answer"
grep -q "^0: policy 7 " "$work/answer"
