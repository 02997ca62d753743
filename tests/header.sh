#!/bin/sh
# The public header compiles alone, and without a warning, as one language.
set -eu
language=$1 root=$2 cc=$3 cxx=$4 flags=$5
case $language in
c++*) compiler=$cxx kind=c++ ;;
*) compiler=$cc kind=c ;;
esac
# shellcheck disable=SC2086
echo '#include "zel.h"' | "$compiler" $flags -x "$kind" -std="$language" -Wall -Wextra -Wpedantic -Wconversion -Wshadow \
    -Werror -fsyntax-only -I"$root/include" -
