#!/bin/sh
# What the library offers to hosts is what was written down when it was last changed on purpose.
#   abi.sh LIBRARY DUMP
set -eu
library=$1
dump=$2
root=$(cd "$(dirname "$0")/../.." && pwd)
scratch=$(mktemp)
trap 'rm -f "$scratch"' EXIT

"$root/scripts/abi" dump "$library" >"$scratch"
grep -q "elf-symbol-id='dac_create'" "$scratch" || {
  echo "$library: no debug information, nothing to compare"
  exit 1
}
abidiff "$dump" "$scratch" || {
  echo "Hosts see another interface than $dump tells. If that is meant: scripts/abi, and commit what it writes."
  exit 1
}
