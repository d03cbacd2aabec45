#!/bin/sh
# The library lets out the contract's names and no other.
set -eu
nm=$1
library=$2

expected="dac_create dac_destroy dac_devicewriteobj dac_devicewriteval dac_getalltags dac_getalltagsex dac_getinfo \
dac_getversion dac_isrun dac_start dac_stop g_dachandls g_verson"
found=$("$nm" -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort | tr '\n' ' ' | sed 's/ $//')
[ "$found" = "$expected" ] || {
  printf 'expected: %s\nfound:    %s\n' "$expected" "$found"
  exit 1
}
