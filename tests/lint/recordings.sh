#!/bin/sh
# doc/run.txt and doc/top.txt are what dachost shows today, but for times and ages.
#   recordings.sh DACHOST PLUGIN
set -eu
cd "$(dirname "$0")/../.."
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

timeless() { sed -E 's/[0-9]{4}-[0-9-]+T[0-9:.]+Z/TIME/; s/ +[0-9]+s / AGE /' "$1"; }

scripts/record "$scratch" "$1" "$2"
for file in run.txt top.txt; do
  timeless "doc/$file" >"$scratch/expected"
  timeless "$scratch/$file" | diff -u "$scratch/expected" - || {
    echo "doc/$file is old: scripts/record"
    exit 1
  }
done
