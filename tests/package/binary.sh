#!/bin/sh
# The shipped library is small and hardened, and works with the C and C++ libraries of older systems.
#   binary.sh LIBRARY READELF STRIP PROCESSOR
set -eu
library=$1
readelf=$2
strip=$3
processor=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

bad=0
wrong() {
  echo "wrong: $*"
  bad=1
}

"$strip" -o "$scratch/lib" "$library"
"$readelf" -dW "$scratch/lib" >"$scratch/dynamic"
"$readelf" -lW "$scratch/lib" >"$scratch/segments"
"$readelf" -VW "$scratch/lib" >"$scratch/versions"

# On AArch64 the file has zeros up to the next page of 64 KiB, which the linker must assume.
page=0x1000
limit=40960
if [ "$processor" = aarch64 ]; then
  page=0x10000
  limit=73728
fi
size=$(stat -c %s "$scratch/lib")
[ "$size" -le "$limit" ] || wrong "$size bytes stripped, more than $limit"
loaded=$(size "$scratch/lib" | awk 'NR == 2 { print $4 }')
[ "$loaded" -le 40960 ] || wrong "$loaded bytes of text, data and bss, more than 40960"

grep -q '(FLAGS).*BIND_NOW' "$scratch/dynamic" || wrong 'symbols are not all bound at load'
grep -q 'GNU_RELRO' "$scratch/segments" || wrong 'nothing becomes read-only after relocation'
if grep -E 'TEXTREL|RUNPATH|RPATH' "$scratch/dynamic"; then wrong 'text relocations, or a search path in the file'; fi
grep -qE '^ *GNU_STACK .* RW +0x' "$scratch/segments" || wrong 'the stack is not read and write only'
if grep -E '^ *LOAD .* RWE ' "$scratch/segments"; then wrong 'a segment is both writable and executable'; fi

needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' "$scratch/dynamic" | grep -v '^ld-linux' | LC_ALL=C sort | tr '\n' ' ')
[ "$needed" = 'libc.so.6 libgcc_s.so.1 libstdc++.so.6 ' ] || wrong "needs $needed"

# newest PREFIX: the newest version of PREFIX that the library requires.
newest() { sed -n "s/.*Name: $1_\([0-9.]*\) .*/\1/p" "$scratch/versions" | sort -V | tail -n 1; }
# The versions of Debian 12's and Ubuntu 22.04's C library and of GCC 6's C++ library. Only pthread_spin_* requires 2.34.
for limit in GLIBC:2.34 GLIBCXX:3.4.22 CXXABI:1.3.9 GCC:3.0; do
  found=$(newest "${limit%:*}")
  newer=$(printf '%s\n' "${limit#*:}" "$found" | sort -V | tail -n 1)
  [ -n "$found" ] || wrong "requires no ${limit%:*} version"
  [ "$newer" = "${limit#*:}" ] || wrong "${limit%:*}_$found, expected at most ${limit#*:}"
done

# Kernels with pages of this size, and smaller ones, can load the segments, and the read-only data ends with a page.
if grep -E '^ *LOAD ' "$scratch/segments" | grep -v " $page\$"; then wrong "a segment is not aligned to $page"; fi
end=$(($(awk '$1 == "GNU_RELRO" { print $3 " + " $6 }' "$scratch/segments")))
[ $((end % page)) -eq 0 ] || wrong "the read-only data ends at $end, within a page of $page"

[ "$bad" -eq 0 ] && echo "$size bytes stripped, $loaded of text, data and bss"
exit "$bad"
