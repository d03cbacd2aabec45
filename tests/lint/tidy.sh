#!/bin/sh
# clang-tidy finds nothing in what BUILD compiles of the named directories: tidy.sh BUILD [DIRECTORY...], all by default.
set -eu
cd "$(dirname "$0")/../.."
build=$(cd "$1" && pwd)
shift
[ $# -gt 0 ] || set -- driver host tests bench

for directory; do
  sed -nE "s|^ *\"file\": \"(($PWD\|$build)/$directory/.*\\.c(pp\|xx))\",?\$|\\1|p" "$build/compile_commands.json"
done |
  xargs -P "$(nproc)" -n 1 clang-tidy-16 --quiet -p "$build" 2>&1 |
  grep -vE '^[0-9]+ warnings? generated|^Suppressed|^Use -header-filter' && exit 1
exit 0
