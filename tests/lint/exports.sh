#!/bin/sh
# A library exports the contract's names, the given ones, and no others: exports.sh NM LIBRARY [NAME...].
set -eu
nm=$1
library=$2
shift 2

expected=$(printf '%s\n' dac_create dac_destroy dac_devicewriteobj dac_devicewriteval dac_getalltags dac_getalltagsex \
  dac_getinfo dac_getversion dac_isrun dac_start dac_stop g_verson "$@" | LC_ALL=C sort | tr '\n' ' ')
found=$("$nm" -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort | tr '\n' ' ')
[ "$found" = "$expected" ] || {
  printf 'expected: %s\nfound:    %s\n' "$expected" "$found"
  exit 1
}
