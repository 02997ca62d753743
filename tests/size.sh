#!/bin/sh
# The code and constants of a library are smaller than a number of bytes.
set -eu
library=$1 limit=$2
text=$(size "$library" | awk 'NR == 2 {print $1}')
echo "$library: $text bytes of text, fewer than $limit"
test "$text" -lt "$limit"
