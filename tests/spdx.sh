#!/bin/sh
# Whether the list of what went in names every product and every library that these need.
# usage: spdx.sh SOURCE-FOLDER BUILD-FOLDER
set -eu
cd "$1"
[ "$(dirname "$2")" = "$1/build" ] || exit 0 # the list is of a preset's folder
list=$(scripts/spdx "$(basename "$2")")
for product in libzel.so libzel-platform.so zeld zelctl zelagent; do
    sum=$(sha256sum "$2/$product" | cut -d ' ' -f 1)
    echo "$list" | grep -q "SHA256: $sum" || {
        echo "spdx: $product is missing" >&2
        exit 1
    }
done
for package in libsqlite3-0 libc6 libstdc++6 libcli11-dev nlohmann-json3-dev; do
    echo "$list" | grep -A 2 -F "PackageName: $package" | grep -qE "PackageVersion: [0-9]" || {
        echo "spdx: $package has no version: $list" >&2
        exit 1
    }
done
