#!/bin/sh
# The command line without a service: help, exit codes, files in and out.
# usage: command_line.sh ZELCTL EXAMPLES
set -eu
zelctl=$1
examples=$2
dir=$(mktemp -d)
last="the start"

# A command that fails outside of expect() ends the script: say which came before it.
finish() {
    code=$?
    [ "$code" -eq 0 ] || echo "command_line: ended with $code after: $last" >&2
    rm -rf "$dir"
}
trap finish EXIT
export ZEL_SERVICE="unix:$dir/nobody"

fail() {
    echo "command_line: $*" >&2
    exit 1
}

# expect CODE COMMAND...: runs a command, leaving what it says in $dir/out and $dir/err
expect() {
    code=$1
    shift
    last=$*
    got=0
    "$@" >"$dir/out" 2>"$dir/err" </dev/null || got=$?
    [ "$got" -eq "$code" ] || fail "expected exit code $code, got $got: $* $(cat "$dir/err")"
}
says() { grep -qF -- "$1" "$dir/out" "$dir/err" || fail "not said: $1, but: $(cat "$dir/out" "$dir/err")"; }

for command in "" policy "policy apply" "policy check" "policy delete" "policy show" "policy diff" stats traffic explain send \
    encode decode verify import "import classbench" backup restore; do
    # shellcheck disable=SC2086
    expect 0 "$zelctl" $command --help
    says "Exit codes:"
    says "--timeout"
done

expect 2 "$zelctl"
expect 2 "$zelctl" policy
expect 2 "$zelctl" policy apply
expect 2 "$zelctl" policy delete seven
expect 2 "$zelctl" policy delete 65536
expect 2 "$zelctl" policy aply x
says "unknown command aply; did you mean apply? (see zelctl policy --help)"
expect 2 "$zelctl" --timeout 1 nonexistent --help
says "unknown command nonexistent"
expect 2 "$zelctl" --json stats --no-such
says '{"failed":true,"exit_code":2,'
expect 0 "$zelctl" --version
expect 2 "$zelctl" --timeout -1 stats
expect 2 "$zelctl" stats --interval 2
expect 2 "$zelctl" stats --watch --interval 1e300
says "not in range 0.001000 to 86400.000000"
expect 2 "$zelctl" stats --watch --interval 0
expect 2 "$zelctl" send no_such_kind "$dir/x"
says "match_action_pair_group_update"
expect 2 "$zelctl" send match_update "$dir/x"
says "about one policy"

expect 0 "$zelctl" policy check "$examples"/policies/web_redirect.json
says "policy 10 without fault"
expect 0 "$zelctl" policy check --each "$examples/policies/web_redirect.json" "$examples/policies/lisp_overlay.json"
says "2 policies without fault"

printf '{\n  "id": 1,\n  "op_mod": 0\n}\n' >"$dir/bad.json"
expect 3 "$zelctl" policy apply "$examples/policies/web_redirect.json" "$dir/bad.json"
says "zelctl: $dir/bad.json:3: .op_mod: unknown member"
[ ! -s "$dir/out" ] || fail "output beside a refusal"
expect 3 "$zelctl" policy apply "$examples/policies/web_redirect.json" "$examples/policies/web_redirect.json"
says "policy 10 has been given already"
expect 3 "$zelctl" policy apply "$dir/absent.json"
says "No such file"
# All faults of all files, and what can be applied but does nothing.
printf '[{"id": 1, "match_action_pair_group": [{"id": 1, "x": 1, "match_group": {"matches": [{"id": 5, "exp": 999}]}},
    {"id": 2, "match_group": {"matches": [{"ref": 5}]}}]}, {"version": -1}]' >"$dir/faults.json"
expect 3 "$zelctl" policy check "$dir/bad.json" "$dir/faults.json" "$dir/absent.json"
for fault in "bad.json:3: .op_mod" "faults.json:1: .[0].match_action_pair_group[0].x" "matches[0].exp: expected" \
    '.[1]: the member "id" is missing' "[1].version: expected" "absent.json"; do says "$fault"; done
[ "$(wc -l <"$dir/err")" -eq 6 ] || fail "another number of faults: $(cat "$dir/err")"
printf '{"id": 1, "match_action_pair_group": [
    {"id": 1, "match_group": {"id": 1, "matches": [{"id": 1, "service": [{"dport": "80-90"}]}]}},
    {"id": 2, "match_group": {"id": 2, "matches": [{"id": 2, "service_element": {"dport": 85, "protocol": "tcp"}}]}},
    {"id": 3, "match_group": {"id": 3, "matches": [{"id": 3, "acl": "web"}]}},
    {"id": 4, "match_group": {"id": 4, "matches": [{"id": 4, "exp": 1}, {"id": 5, "exp": 2}]}}]}' >"$dir/dead.json"
expect 7 "$zelctl" policy check "$dir/dead.json"
says 'pair 2 never matches: pair 1 takes all its packets; packet {"dport":85,"protocol":"tcp"}'
says 'pair 3 never matches: the service has no ACLs (match 3)'
says 'pair 4 never matches: matches 4 and 5 exclude each other; packet {"exp":1}'
expect 3 "$zelctl" policy check --max-message 300 "$dir/dead.json"
says "with --max-message 300"
expect 7 "$zelctl" --json policy check "$dir/dead.json"
says '"kind":"covered","pair":2,"pairs":[1]'
expect 7 "$zelctl" policy diff "$dir/dead.json" "$examples/policies/web_redirect.json"
says "+ policy 10"
expect 0 "$zelctl" policy diff "$dir/dead.json" "$dir/dead.json"
# A file is looked at as apply sends it, where policies share matches, or as apply --each does, where they do not.
printf '[%s, %s]' "$(cat "$dir/dead.json")" '{"id": 2, "match_action_pair_group": [
    {"id": 1, "match_group": {"id": 1, "matches": [{"id": 1, "exp": 7}]}}]}' >"$dir/each.json"
for file in "$examples/policies/branch_nat.json" "$dir/each.json"; do
    expect 0 "$zelctl" policy diff "$file" "$file"
    expect 0 "$zelctl" explain --file "$file" -- exp=7
done

printf '[]' >"$dir/empty.json"
expect 3 "$zelctl" policy apply "$dir/empty.json"

expect 4 "$zelctl" policy apply "$examples/policies/web_redirect.json"
says "no service at this address"
expect 4 "$zelctl" --service unix:"$dir"/other policy show
says "unix:$dir/other: no service"
expect 4 "$zelctl" --service nonsense stats

# A message in a file: from an object or from JSON, and back to the same bytes.
expect 0 "$zelctl" encode --kind policy_update "$examples/policies/lisp_overlay.json" -o "$dir/a.msg"
expect 0 "$zelctl" --json decode "$dir/a.msg"
cp "$dir/out" "$dir/a.json"
expect 0 "$zelctl" encode "$dir/a.json" -o "$dir/b.msg"
cmp "$dir/a.msg" "$dir/b.msg" || fail "encode is not decode's inverse"
[ ! -e "$dir/b.msg.new" ] || fail "a draft was left behind"
expect 0 "$zelctl" decode "$dir/a.msg"
says "lisp_proto {"
says "[match pre_match_id]"
head -c 100 "$dir/a.msg" >"$dir/cut.msg"
expect 0 "$zelctl" verify --strict "$dir/a.msg"
says "a.msg: accepted, 0 unknown elements"
printf '\002\000\000\000\001\000' >"$dir/damaged.msg"
# A start marker with the value 1.
(head -c 8 "$dir/a.msg" && printf '\001' && tail -c +10 "$dir/a.msg") >"$dir/marker.msg"
(cat "$dir/a.msg" && printf more) >"$dir/more.msg"
for command in verify decode "--json decode"; do
    # shellcheck disable=SC2086
    expect 3 "$zelctl" $command "$dir/cut.msg"
    says "$dir/cut.msg: no message: its first four bytes claim more than the 100 bytes there are"
    # shellcheck disable=SC2086
    expect 3 "$zelctl" $command "$dir/damaged.msg"
    says "damaged.msg: header: an element is damaged: expected 1, found 0 (element 0, id 0, offset 4)"
    # shellcheck disable=SC2086
    expect 3 "$zelctl" $command "$dir/marker.msg"
    says "marker.msg: header: the value of a marker is not 0: expected 0, found 1 (element 0, id 1, offset 4)"
    # shellcheck disable=SC2086
    expect 3 "$zelctl" $command "$dir/more.msg"
    says "4 bytes follow the last element"
done
expect 2 "$zelctl" encode
expect 5 "$zelctl" encode "$dir/a.json" -o "$dir/no/such/folder"
says "cannot be written"
# What is there stays what it is: a pipe, a link, permissions, and files beside it.
printf old >"$dir/target"
chmod 640 "$dir/target"
ln -s target "$dir/link"
printf mine >"$dir/link.new"
mkfifo "$dir/pipe"
cat "$dir/pipe" >"$dir/piped" &
for file in target link pipe; do expect 0 "$zelctl" encode "$dir/a.json" -o "$dir/$file"; done
wait $!
expect 0 "$zelctl" encode "$dir/a.json" -o /dev/null
[ -c /dev/null ] && [ -p "$dir/pipe" ] && [ -h "$dir/link" ] || fail "another kind of file was replaced"
for file in target piped; do cmp "$dir/a.msg" "$dir/$file" || fail "$file has something else"; done
[ "$(stat -c %a "$dir/target")" = 640 ] || fail "permissions changed"
[ "$(cat "$dir/link.new")" = mine ] || fail "a file beside it was overwritten"
ls "$dir" | grep -q '\.......$' && fail "a draft was left behind: $(ls "$dir")"

# Files without an end are refused; texts from others do nothing to the terminal.
expect 3 "$zelctl" policy check /dev/zero
says "/dev/zero: cannot be read: it has more than 268435456 bytes"
harmless() {
    ! LC_ALL=C grep -q "$(printf '[\001-\010\013-\037\177]')" "$dir/out" "$dir/err" || fail "control characters: $last"
    ! LC_ALL=C grep -qE "$(printf '\302[\200-\237]|\342\200[\250-\256]')" "$dir/out" "$dir/err" || fail "C1 or bidi: $last"
    [ "$(wc -l <"$dir/err")" -le 1 ] || fail "a second line was forged: $last"
}
nasty=$(printf 'a\033]0;x\007b\302\233c\342\200\256d\nzelctl: forged')
expect 3 "$zelctl" policy check "$dir/$nasty"
harmless
expect 4 "$zelctl" --service "unix:$dir/$nasty" policy show
harmless
printf '{"id": 1, "x\\u001b[2J\302\233\342\200\256\\n": 0}' >"$dir/nasty.json"
expect 3 "$zelctl" policy check "$dir/nasty.json"
harmless
says '\u001b[2J\u009b\u202e'
awk 'BEGIN { printf "{\"id\": 1, \""; for (i = 0; i < 100000; ++i) printf "long"; printf "\": 0}" }' >"$dir/long.json"
expect 3 "$zelctl" policy check "$dir/long.json"
[ "$(wc -c <"$dir/err")" -lt 1100 ] || fail "a long text was not cut"
printf '1 2 3 4 \302\233' >"$dir/nasty.trace"
expect 3 "$zelctl" traffic "$dir/nasty.trace"
harmless
printf '{"id": 1, "label": {"length": 8, "label": "\302\233x\342\200\256"}}' >"$dir/label.json"
expect 0 "$zelctl" encode --kind match_update --policy 1 "$dir/label.json" -o "$dir/label.msg"
for command in decode "--json decode"; do
    # shellcheck disable=SC2086
    expect 0 "$zelctl" $command "$dir/label.msg"
    harmless
    says '\u009bx\u202e'
done
cp "$dir/out" "$dir/label2.json"
expect 0 "$zelctl" encode "$dir/label2.json" -o "$dir/label2.msg"
cmp "$dir/label.msg" "$dir/label2.msg" || fail "a shown label is another one"

if [ -w /dev/full ]; then
    got=0
    "$zelctl" decode "$dir/a.msg" >/dev/full 2>"$dir/err" || got=$?
    [ "$got" -eq 5 ] || fail "a full device went unnoticed"
fi

# A rule set becomes a policy that can be applied, through a pipe or a file.
last="import through a pipe"
{ "$zelctl" import classbench "$examples/classbench/small.rules" --policy 9 || echo "import ended with $?"; } |
    "$zelctl" policy check - >"$dir/out" || [ $? -eq 7 ] # some rules of the set are redundant
says "policy 9 without fault"
printf '[{"id": 1, "set_vrf": 4}, {"id": 2, "type": 77}]' >"$dir/actions.json"
expect 0 "$zelctl" import classbench "$examples/classbench/small.rules" --actions "$dir/actions.json" -o "$dir/p.json"
expect 7 "$zelctl" policy check "$dir/p.json"
printf '@1.0.0.0/8\t2.0.0.0/8\t0 : 1\t0 : 1\t0x06/0xFF\t0x0002/0x0002\n' >"$dir/flags.rules"
expect 0 "$zelctl" import classbench "$dir/flags.rules"
says "TCP flags of 1 of 1 rules"
expect 3 "$zelctl" import classbench /dev/null
printf '@1.2.3.4/32\tnonsense' >"$dir/bad.rules"
expect 3 "$zelctl" import classbench "$dir/bad.rules"
says "bad.rules:1: destination address"

# The environment turns the library's traces on.
expect 2 env ZEL_TRACE_CONSOLE=loud "$zelctl" encode --kind policy_update "$dir/p.json" -o "$dir/m"
expect 0 env ZEL_TRACE_CONSOLE=104 "$zelctl" encode --kind policy_update "$dir/p.json" -o "$dir/m"
says "insert successful: type: 8, id: 1."
