#!/bin/sh
# zelctl and the stand-in service together.
# usage: with_service.sh ZELCTL ZELD EXAMPLES
set -eu
zelctl=$1
zeld=$2
examples=$3
dir=$(mktemp -d)
export ZEL_SERVICE="unix:$dir/socket"
"$zeld" --listen "$ZEL_SERVICE" --max-state 1M >"$dir/ready" 2>"$dir/log" &
service=$!
trap 'kill $service; rm -rf "$dir"' EXIT

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
expect 0 "policy 10 applied" "$zelctl" policy apply "$examples/policies/web_redirect.json"
expect 0 "2 policies applied" "$zelctl" policy apply "$examples/policies/branch_nat.json"
expect 0 "policy 30 applied" "$zelctl" policy apply "$examples/policies/lisp_overlay.json"
for id in 10 20 21 30; do
    "$zelctl" policy show $id >"$dir/shown.json"
    expect 0 "policy $id applied" "$zelctl" policy apply "$dir/shown.json"
    "$zelctl" policy show $id | cmp - "$dir/shown.json" || fail "policy $id changed on its way"
done
expect 0 "disabled" "$zelctl" policy show

# Policies may use an id differently, but not in one request; --each makes a request each.
"$zelctl" --json policy show >"$dir/all.json"
expect 3 "a message has one match of an id" "$zelctl" policy apply "$dir/all.json"
expect 0 "policy 30 applied" "$zelctl" policy apply --each "$dir/all.json"
"$zelctl" --json policy show | cmp - "$dir/all.json" || fail "a backup was not restored as it was"

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
"$zelctl" policy show 40 >"$dir/shown.json"
for content in '"logical_op": "or"' '"exp": 5' '"set_vrf": 77' '"type": 99' '"interface": 3'; do
    grep -qF "$content" "$dir/shown.json" || fail "policy 40 is without $content: $(cat "$dir/shown.json")"
done
expect 0 '"id": 4' "$zelctl" policy show 41
expect 0 "" "$zelctl" send policy_delete --policy 41 --op remove
expect 1 "not found" "$zelctl" policy show 41

# Traffic is counted where a straightforward reading of the rules says.
for id in 10 20 21 30 40; do expect 0 "policy $id deleted" "$zelctl" policy delete $id; done
"$zelctl" import classbench "$examples/classbench/small.rules" --policy 1 | "$zelctl" policy apply - >"$dir/out"
expect 0 "100 of 100 packets matched" "$zelctl" traffic "$examples/classbench/small.trace"
expect 0 '"packets":100,"matched":100' "$zelctl" --json traffic "$examples/classbench/small.trace"
total=$("$zelctl" stats --policy 1 | awk '{packets += $3; bytes += $4} END {print packets, bytes}')
[ "$total" = "200 12800" ] || fail "counters add up to $total"
expect 0 "packets/s" "$zelctl" stats --watch --interval 0.05 --rounds 2 --clear
total=$("$zelctl" stats | awk '{packets += $3} END {print packets}')
[ "$total" = 0 ] || fail "cleared counters add up to $total"
expect 0 "of 4 packets matched" "$zelctl" traffic "$examples/packets.jsonl"
