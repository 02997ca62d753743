#!/bin/sh
# The conformance program: what it says of sound ports, its forms of output, and that the page
# on porting has its table, and all symbols of the contract.
# usage: program.sh ROOT REFERENCE_PROGRAM EXAMPLE_PROGRAM
set -eu
page=$1/docs/porting.md contract=$1/include/zel/platform reference=$2 example=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "platform_check: $*" >&2
    exit 1
}

"$reference" --duties >"$work/duties"
duties=$(grep -c '^| [a-z]*\.' "$work/duties")
grep '^| [a-z]*\.[a-z]* ' "$page" | grep -vxFf "$work/duties" && fail "$page has other duties than the program"
grep -vxFf "$page" "$work/duties" && fail "duties are missing from $page"
symbols=$(sed -nE 's/ __attribute__.*//; s/;$//; s/^(int32_t|uint32_t|void|extern const)[^(]*[ *]([a-z_]+)([([].*)?$/\2/p' "$contract"/*.h)
[ "$(echo "$symbols" | wc -w)" = 33 ] || fail "the contract has other symbols: $symbols"
for symbol in $symbols; do
    grep -q "\`$symbol\`" "$page" || fail "$page does not have $symbol"
done

# All duties are kept, but for the one that one thread cannot show.
for program in "$reference" "$example"; do
    "$program" >"$work/said" || fail "$program ends with $?"
    [ "$(grep -c '^kept ' "$work/said")" = "$((duties - 1))" ] || fail "$(grep -v '^kept' "$work/said")"
    grep -qE '^unchecked +trace\.threads ' "$work/said" || fail "threads were checked"
    grep -q 'g_num_applications is present' "$work/said" || fail "an optional symbol is not told"
    # Each call has a time, its ratio, and the ratio of the reference platform.
    ! awk '/^speed/ {on = 1} on && /^  ravl|^  tlv|^  lib/' "$work/said" | grep -E ' - *$' || fail "a time is missing"
done

"$example" --json >"$work/json" || fail "--json ends with $?"
python3 - "$work/json" "$duties" <<'END'
import json, sys
said = json.load(open(sys.argv[1]))
assert len(said["duties"]) == int(sys.argv[2])
assert all(duty["state"] in ("kept", "unchecked") and duty["found"] for duty in said["duties"])
assert said["broken"] == 0 and said["kept"] == len(said["duties"]) - 1
assert all(call["ns"] > 0 and call["reference_ratio"] > 0 for call in said["speed"])
END
[ "$("$example" --ratios | tr -cd , | wc -c)" = "$(grep -c '"each"' "$work/json")" ] || fail "--ratios has other calls"
"$example" --only tree.cost | grep -q '^1 kept' || fail "--only"
"$example" --help | grep -q '^usage' || fail "--help"
for wrong in --unknown "--only nothing" --loopback "--timeout 0"; do
    rc=0
    # shellcheck disable=SC2086
    "$example" $wrong >/dev/null 2>&1 || rc=$?
    [ $rc = 2 ] || fail "$wrong ends with $rc"
done
rc=0
"$reference" --no-speed --loopback nonsense >"$work/said" || rc=$?
[ $rc = 0 ] || fail "a loopback that is not there: code $rc"
grep -qE '^unchecked +payload\.tail .*nonsense' "$work/said" || fail "a loopback that is not there is not told"
