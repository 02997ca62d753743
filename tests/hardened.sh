#!/bin/sh
# Whether products are built so that a fault is harder to use.
# usage: hardened.sh PRODUCT...
set -eu
for product in "$@"; do
    said=$(readelf -hldnW "$product" && readelf -sW "$product")
    # need WHAT PATTERN: a line of what readelf says
    need() {
        echo "$said" | grep -qE "$2" || {
            echo "hardened: $product has no $1" >&2
            exit 1
        }
    }
    need "position independent code" "Type: +DYN"
    need "read-only relocations" "GNU_RELRO"
    need "immediate binding" "BIND_NOW|FLAGS.* NOW"
    need "stack without code" "GNU_STACK.* RW "
    need "stack protector" "__stack_chk_fail"
    need "checked library calls" "__[a-z]+_chk"
    # The functions that others call begin with a landing pad. The mark of the whole file is
    # up to the system's start-up files.
    if echo "$said" | grep -qE "Machine: +Advanced Micro Devices X86-64" && echo "$said" | grep -q ELF64; then
        pads=$(objdump -d --no-show-raw-insn "$product" | grep -cE "endbr(32|64)" || true)
        exports=$(readelf --dyn-syms -W "$product" | grep -cE "FUNC +GLOBAL +DEFAULT +[0-9]+ " || true)
        [ "$pads" -ge "$exports" ] && [ "$pads" -gt 20 ] || {
            echo "hardened: $product has $pads landing pads for $exports functions" >&2
            exit 1
        }
    fi
done
