#!/bin/sh
# zelctl and the stand-in service together.
# usage: with_service.sh ZELCTL ZELD EXAMPLES [NATS-SERVER]; with a NATS server, both talk through it.
set -eu
zelctl=$1
zeld=$2
examples=$3
dir=$(mktemp -d)
service=
server=
# A stopped process ends by SIGKILL alone.
trap 'kill -KILL $service $server; rm -rf "$dir"' EXIT
trap 'exit 1' HUP INT TERM
export ZEL_SERVICE="unix:$dir/socket"
if [ $# -gt 3 ]; then
    "$4" -a 127.0.0.1 -p -1 --ports_file_dir "$dir" >/dev/null 2>&1 &
    server=$!
    until port=$(sed -n 's/.*"nats":\["nats:\/\/127.0.0.1:\([0-9]*\)".*/\1/p' "$dir"/nats-server_*.ports 2>/dev/null) && [ "$port" ]; do
        sleep 0.1
    done
    export ZEL_SERVICE="nats://127.0.0.1:$port/zel.test"
fi
"$zeld" --listen "$ZEL_SERVICE" --max-state 1M >"$dir/ready" 2>"$dir/log" &
service=$!

fail() {
    echo "with_service: $*" >&2
    cat "$dir/log" >&2
    exit 1
}

# expect CODE TEXT COMMAND...: what a command ends with and what it says
expect() {
    code=$1
    text=$2
    shift 2
    got=0
    said=$("$@" 2>&1) || got=$?
    [ "$got" -eq "$code" ] || fail "expected exit code $code, got $got: $*: $said"
    case $said in
    *"$text"*) ;;
    *) fail "expected \"$text\" of $*, got: $said" ;;
    esac
}

tries=0
until grep -q ready "$dir/ready"; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || fail "the service does not start"
    sleep 0.1
done

# A refused policy ends --each: those before it stay, those behind it are not sent.
awk 'BEGIN {
    printf "[{\"id\": 50}, {\"id\": 51, \"if_group\": ["
    for (i = 1; i < 60000; ++i) printf "{}, "
    printf "{}]}, {\"id\": 52}]"
}' >"$dir/large.json"
expect 1 "refused, limit" "$zelctl" policy apply "$dir/large.json"
expect 1 "not found" "$zelctl" policy delete 50
expect 1 "refused, limit" "$zelctl" policy apply --each "$dir/large.json"
expect 0 "policy 50 deleted" "$zelctl" policy delete 50
expect 1 "not found" "$zelctl" policy delete 51
expect 1 "not found" "$zelctl" policy delete 52

# Policies come back as they went out.
expect 0 "4 policies without fault" "$zelctl" policy check "$examples"/policies/*.json
expect 0 "4 policies applied" "$zelctl" policy apply "$examples"/policies/*.json
for id in 10 20 21 30; do
    "$zelctl" --json policy show $id >"$dir/shown.json"
    expect 0 "policy $id unchanged" "$zelctl" policy apply "$dir/shown.json"
    expect 0 "policy $id applied" "$zelctl" policy apply --replace "$dir/shown.json"
    "$zelctl" --json policy show $id | cmp - "$dir/shown.json" || fail "policy $id changed on its way"
done
expect 0 "disabled" "$zelctl" policy show

# Policies may use an id differently, but not in one request; --each makes a request each.
echo '{"id": 50, "match_action_pair_group": [
        {"id": 1, "match_group": {"id": 1, "matches": [{"id": 1, "label": {"label": "\u202ex\u009b"}}]}}]}' >"$dir/other.json"
expect 0 "new, 1 pair" "$zelctl" policy apply "$dir/other.json"
"$zelctl" --json policy show >"$dir/all.json"
expect 3 "a message has one match of an id" "$zelctl" policy apply "$dir/all.json"
expect 0 "policy 30 unchanged" "$zelctl" policy apply --each "$dir/all.json"
"$zelctl" --json policy show | cmp - "$dir/all.json" || fail "policies changed on their way"

# Texts of others in what people read: a policy, a difference, an explanation.
expect 0 '\u202ex\u009b' "$zelctl" policy show 50
expect 7 '\u202ex\u009b' "$zelctl" policy diff "$dir/other.json" "$examples/policies/web_redirect.json"
expect 0 'the label is not "\u202ex\u009b"' "$zelctl" explain --policy 50 exp=1
expect 2 'unknown command \u001b[2J' "$zelctl" "$(printf '\033[2J')"

# Traffic is explained as it is counted; a change keeps counters, and a dry run changes nothing.
expect 0 "5 of 6 packets matched" "$zelctl" traffic "$examples/packets.jsonl"
explained=$("$zelctl" explain --packets "$examples/packets.jsonl" | grep -c "^\* pair")
[ "$explained" = 5 ] || fail "$explained pairs are said to take a packet"
expect 0 "pair 1: dport 22 is not 80" "$zelctl" explain --policy 10 '{"sip": "10.0.0.1", "dport": 22, "protocol": 6,
    "interface": 4, "vlan": 100}'
expect 0 "not bound to interface 4" "$zelctl" explain --file "$examples/policies/lisp_overlay.json" interface=4
expect 3 "unknown member" "$zelctl" explain dprt=4
sed 's/443/8443/; s/"version": 1/"version": 2/' "$examples/policies/web_redirect.json" >"$dir/changed.json"
expect 7 "-> tcp 10.0.0.0/8 -> any:80,8443" "$zelctl" policy diff service "$dir/changed.json"
expect 0 "nothing was changed" "$zelctl" policy apply --dry-run "$dir/changed.json"
expect 7 "version 1 -> 2" "$zelctl" policy diff service "$dir/changed.json"
expect 0 "1 changed, 0 added, 0 removed; counters of 2 kept" "$zelctl" policy apply "$dir/changed.json"
expect 0 "" "$zelctl" policy diff service "$dir/changed.json"
expect 0 '"packets":1,"bytes":1500' "$zelctl" --json stats --policy 10
expect 0 ":80,8443,8080-8099 or exp 6" "$zelctl" policy show 10

# A whole service is saved and restored; what stays keeps its counters.
expect 0 "5 policies saved" "$zelctl" backup -o "$dir/backup"
expect 0 "policy 20 deleted" "$zelctl" policy delete 20 50
expect 0 "new" "$zelctl" --app 3 policy apply "$dir/other.json"
expect 0 "2 added, 0 changed, 3 unchanged, 1 removed" "$zelctl" restore --dry-run "$dir/backup"
expect 0 "2 added, 0 changed, 3 unchanged, 1 removed" "$zelctl" restore "$dir/backup"
expect 0 "0 added, 0 changed, 5 unchanged, 0 removed" "$zelctl" restore "$dir/backup"
expect 0 '"packets":1,"bytes":1500' "$zelctl" --json stats --policy 10
expect 0 "policy 50 deleted" "$zelctl" policy delete 50

# A request that may have been done is told from one that was not sent.
kill -STOP $service
expect 6 "may have been done" "$zelctl" --timeout 0.2 policy apply --replace "$dir/changed.json"
expect 6 "0 packets were counted before" "$zelctl" --timeout 0.2 traffic "$examples/packets.jsonl"
expect 4 '{"failed":true,"exit_code":4' "$zelctl" --json --timeout 0.2 policy show
kill -CONT $service

# Refusals have an exit code of their own, in words and for scripts.
expect 1 "zelctl: refused, not found: " "$zelctl" policy delete 99
expect 1 '{"refused":true,"error":"not found","retval":-1,' "$zelctl" --json policy show 99
expect 1 "refused" "$zelctl" --app 5 policy delete 10

# Requests of every kind.
send() {
    kind=$1
    shift
    expect 0 "" "$zelctl" send "$kind" "$dir/object.json" "$@"
}
echo '[{"id": 40}, {"id": 41}]' >"$dir/object.json"
send policy_list_update
echo '{"id": 40, "match_action_pair_group": [
        {"id": 1, "match_group": {"id": 1, "matches": [{"id": 1, "exp": 1}]},
                  "action_group": {"id": 1, "actions": [{"id": 1, "set_vrf": 1}]}}]}' >"$dir/object.json"
send policy_update
echo '[{"id": 2}, {"id": 3, "pre_pair_id": 2}]' >"$dir/object.json"
send match_action_pair_group_update --policy 41
echo '{"id": 4, "pre_pair_id": 3}' >"$dir/object.json"
send match_action_pair_update --policy 41
echo '{"id": 1, "logical_op": "or", "matches": [{"id": 1, "exp": 1}, {"id": 2, "exp": 2}]}' >"$dir/object.json"
send match_group_update --policy 40
echo '{"id": 1, "actions": [{"id": 1, "set_vrf": 1}, {"id": 2, "type": 99}]}' >"$dir/object.json"
send action_group_update --policy 40
echo '{"id": 2, "exp": 5}' >"$dir/object.json"
send match_update --policy 40
echo '{"id": 1, "set_vrf": 77}' >"$dir/object.json"
send action_update --policy 40
echo '[{"interface": 3}]' >"$dir/object.json"
send interface_group_update --policy 40
echo '[{"policy_id": 40, "match_action_pair_id": "all"}]' >"$dir/object.json"
send stats_pull
"$zelctl" --json policy show 40 >"$dir/shown.json"
for content in '"logical_op": "or"' '"exp": 5' '"set_vrf": 77' '"type": 99' '"interface": 3'; do
    grep -qF "$content" "$dir/shown.json" || fail "policy 40 is without $content: $(cat "$dir/shown.json")"
done
expect 0 '"id": 4' "$zelctl" --json policy show 41
expect 0 "" "$zelctl" send policy_delete --policy 41 --op remove
expect 1 "not found" "$zelctl" policy show 41

# Traffic is counted where a straightforward reading of the rules says.
expect 0 "policy 40 deleted" "$zelctl" policy delete 10 20 21 30 40
"$zelctl" import classbench "$examples/classbench/small.rules" --policy 1 | "$zelctl" policy apply - >"$dir/out"
expect 0 "100 of 100 packets matched" "$zelctl" traffic "$examples/classbench/small.trace"
expect 0 '"packets":100,"matched":100' "$zelctl" --json traffic "$examples/classbench/small.trace"
total=$("$zelctl" stats --policy 1 | awk '{packets += $3; bytes += $4} END {print packets, bytes}')
[ "$total" = "200 12800" ] || fail "counters add up to $total"
expect 0 "packets/s" "$zelctl" stats --watch --interval 0.05 --rounds 2 --clear
total=$("$zelctl" stats | awk '{packets += $3} END {print packets}')
[ "$total" = 0 ] || fail "cleared counters add up to $total"
