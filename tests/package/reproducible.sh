#!/bin/sh
# The packages made in two directories are the same, byte for byte.
#   reproducible.sh PACKAGES OTHER_PACKAGES
set -eu
compared=0
for package in "$1"/*.deb; do
  other=$2/${package##*/}
  cmp "$package" "$other" || {
    sha256sum "$package" "$other"
    exit 1
  }
  compared=$((compared + 1))
done
[ "$compared" -eq 2 ] || {
  echo "found $compared packages"
  exit 1
}
echo 'the same bytes from two directories'
