#!/bin/sh
# clang-tidy finds nothing in what BUILD compiles of the named directories: tidy.sh BUILD [DIRECTORY...], all by default.
set -eu
cd "$(dirname "$0")/../.."
build=$1
shift
[ $# -gt 0 ] || set -- driver host tests bench

git ls-files "$@" | grep '\.cpp$' |
  while read -r file; do
    ! grep -q "/$file\"" "$build/compile_commands.json" || echo "$file"
  done |
  xargs -P "$(nproc)" -n 1 clang-tidy-16 --quiet -p "$build" 2>&1 |
  grep -vE '^[0-9]+ warnings? generated|^Suppressed|^Use -header-filter' && exit 1
exit 0
