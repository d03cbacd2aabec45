#!/bin/sh
# The interface of the shipped library equals the recorded one.
#   abi.sh LIBRARY DUMP DEBUG_DIRECTORY
set -eu
library=$1
dump=$2
root=$(cd "$(dirname "$0")/../.." && pwd)
scratch=$(mktemp)
trap 'rm -f "$scratch"' EXIT

"$root/scripts/abi" dump "$library" "$3" >"$scratch"
grep -q "elf-symbol-id='dac_create'" "$scratch" || {
  echo "$library: no debug information, nothing to compare"
  exit 1
}
abidiff "$dump" "$scratch" || {
  echo "The interface differs from $dump. If this is intended, run scripts/abi and commit what it writes."
  exit 1
}
