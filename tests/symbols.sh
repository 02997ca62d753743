#!/bin/sh
# The public header, the version script and the shared library name the same symbols.
set -eu
root=$1 library=$2 cc=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Declarations of the header, one per line: the name stands before "(" or ";".
echo '#include "zel.h"' | "$cc" -E -P -I"$root/include" -DZEL_EXPORT_TEST - | tr '\n' ' ' | tr ';' '\n' |
    sed -n 's/.*__attribute__((visibility("default"))) *//p' | sed 's/(.*//; s/.*[ *]//' | sort >"$work/header"
sed -n 's/^ *\([a-z_0-9]*\);$/\1/p' "$root/src/libzel.map" | sort >"$work/map"
nm -D --defined-only "$library" | awk '{print $3}' | sort >"$work/library"

test -s "$work/header"
diff "$work/header" "$work/map"
diff "$work/header" "$work/library"
