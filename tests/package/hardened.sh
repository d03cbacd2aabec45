#!/bin/sh
# The shipped dachost has the usual protections of Debian packages.
#   hardened.sh ROOT READELF
set -eu
program=$1/usr/bin/dachost
readelf=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$readelf" -hlW "$program" >"$scratch/headers"
"$readelf" -dW "$program" >"$scratch/dynamic"
"$readelf" --dyn-syms -W "$program" >"$scratch/symbols"

bad=0
has() {
  grep -qE "$2" "$scratch/$1" && return
  echo "dachost has no $3"
  bad=1
}
has headers 'Type: +DYN' 'position-independent code'
has headers 'GNU_RELRO' 'data that is read-only after relocation'
has headers 'GNU_STACK .* RW +0x' 'stack that is not executable'
has dynamic 'FLAGS.*NOW' 'immediate binding'
has symbols 'UND __stack_chk_fail' 'stack protector'
has symbols 'UND __[a-z]+_chk' 'fortified function'
exit "$bad"
