#!/bin/sh
# A C program links the whole static library with the C compiler alone: apart from
# the platform's operations, the library asks for nothing but libc.
set -eu
root=$1 library=$2 cc=$3 flags=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

nm --defined-only "$library" | awk 'NF == 3 {print $3}' | sort -u >"$work/defined"
# The checked calls of a hardened build are libc's, too.
nm -u "$library" | awk '$1 == "U" {print $2}' | sed 's/^__\(.*\)_chk$/\1/; /^__stack_chk_fail/d' | sort -u | comm -23 - "$work/defined" >"$work/needed"
# Clang makes bcmp of a memcmp that asks for equality.
printf '%s\n' bcmp calloc free getpid memcmp memcpy memmove memset snprintf strlen strncpy vsnprintf _GLOBAL_OFFSET_TABLE_ | sort >"$work/libc"
comm -23 "$work/needed" "$work/libc" >"$work/platform"

# Nothing runs before main().
if readelf -SW "$library" | grep -E 'init_array|ctors'; then
    echo "the library has static constructors" >&2
    exit 1
fi

echo 'extern int zel_event_handling(void);' >"$work/program.c"
while read -r name; do
    if ! grep -qw -- "$name" "$root"/include/zel/platform/*.h; then
        echo "the library needs $name, which is not the platform's" >&2
        exit 1
    fi
    echo "void $name(void) {}" >>"$work/program.c"
done <"$work/platform"
echo 'int main(void) { return zel_event_handling(); }' >>"$work/program.c"

# shellcheck disable=SC2086
"$cc" $flags "$work/program.c" -Wl,--whole-archive "$library" -Wl,--no-whole-archive -o "$work/program"
"$work/program"
