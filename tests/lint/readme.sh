#!/bin/sh
# The README quotes doc/snippet.c, which the tests compile and run, and every file it links to exists.
set -eu
cd "$(dirname "$0")/../.."

awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' README.md | diff -u doc/snippet.c -
for file in $(grep -oE '\]\([^)#]+\)' README.md | tr -d '])('); do
  [ -e "$file" ] || {
    echo "README.md links to $file, which is not there"
    exit 1
  }
done
