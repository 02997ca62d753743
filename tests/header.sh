#!/bin/sh
# Each public header compiles alone, and without a warning, as one language.
set -eu
language=$1 root=$2 cc=$3 cxx=$4 flags=$5
case $language in
c++*) compiler=$cxx kind=c++ values=hpp ;;
*) compiler=$cc kind=c values=h ;;
esac
cd "$root"
test "$(find include reference/include nats/include -name '*.h' | wc -l)" -ge 15 # they are where this looks
for folder in include reference/include nats/include; do
    for header in $(cd $folder && find . -name '*.h' -o -name "*.$values"); do
        # shellcheck disable=SC2086
        echo "#include \"$header\"" | "$compiler" $flags -x "$kind" -std="$language" -Wall -Wextra -Wpedantic \
            -Wconversion -Wshadow -Werror -fsyntax-only -Iinclude -Ireference/include -Inats/include -
    done
done
