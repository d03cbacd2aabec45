#!/bin/sh
# The library uses the functions and objects of other libraries that are listed, one name per line, and no others.
#   imports.sh NM LIBRARY LIST
set -eu
nm=$1
library=$2
list=$3

found=$(mktemp)
trap 'rm -f "$found"' EXIT
"$nm" -D --undefined-only "$library" | awk '{ sub(/@.*/, "", $NF); print $NF }' | LC_ALL=C sort >"$found"
diff -u "$list" "$found" && echo "$(wc -l <"$found") names"
