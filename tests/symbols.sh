#!/bin/sh
# The public headers, the version script and the shared library name the same symbols; the
# object of library and platform has those of both version scripts, and asks for none.
set -eu
root=$1 library=$2 cc=$3 whole=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Declarations of the headers, one per line: the name stands before "(" or ";".
echo '#include "zel/service.h"' | "$cc" -E -P -I"$root/include" -DZEL_EXPORT_TEST - | tr '\n' ' ' | tr ';' '\n' |
    sed -n 's/.*__attribute__((visibility("default"))) *//p' | sed 's/(.*//; s/.*[ *]//' | sort >"$work/header"
sed -n 's/^ *\([a-z_0-9]*\);$/\1/p' "$root/src/libzel.map" | sort >"$work/map"
nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@@ZEL_[0-9.]*$//' | grep -vx 'ZEL_[0-9.]*' | sort >"$work/library"

test -s "$work/header"
diff "$work/header" "$work/map"
diff "$work/header" "$work/library"

if [ -n "$whole" ]; then
    names() { sed -n 's/^ *\([a-z_0-9]*\);$/\1/p' "$@" | sort; }
    names "$root/src/libzel.map" "$root/reference/libzel-platform.map" >"$work/both"
    nm -g --defined-only "$whole" | awk 'NF == 3 {print $3}' | sort | diff "$work/both" -
    nm -u "$whole" | awk '{print $2}' | sort | comm -12 "$work/both" - | diff /dev/null -
fi
