#!/bin/sh
# `cmake --install` installs what the package has, below its own prefix, and the program, the unit and ip6dns.pc agree on
# the places.
#   installs.sh BUILD ROOT TRIPLET [EMULATOR...]
set -eu
build=$1
root=$2
triplet=$3
shift 3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

DESTDIR=$scratch/root cmake --install "$build" >"$scratch/log"
prefix=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
installed=$scratch/root$prefix
[ -z "$(find "$scratch/root" ! -type d ! -path "$installed/*")" ] || {
  echo "files outside of $prefix:"
  find "$scratch/root" ! -type d ! -path "$installed/*"
  exit 1
}

# The package's places are those of the prefix /usr, which has /etc and /lib outside.
(cd "$root" && find etc lib usr ! -type d ! -path 'usr/lib/debug/*' ! -path usr/share/doc/ip6dns-dbgsym) |
  sed "s,^usr/,,; s,^lib/$triplet/,lib/,; s,^\(share/man/.*\)\.gz\$,\1," |
  grep -vx 'share/doc/ip6dns/changelog.gz' | LC_ALL=C sort >"$scratch/packaged"
(cd "$installed" && find . ! -type d) | sed 's,^\./,,' | LC_ALL=C sort | diff -u "$scratch/packaged" - || {
  echo 'cmake --install and the package differ'
  exit 1
}

plugin=$installed/lib/dac/libip6dns.so
out=$("$@" "$installed/bin/dachost" run --json --once "$installed/etc/ip6dns/ip6dns.conf" 2>&1)
echo "$out" | grep -qF "\"plugin\":\"$plugin\"" || {
  printf 'dachost did not load %s:\n%s\n' "$plugin" "$out"
  exit 1
}

export PKG_CONFIG_SYSROOT_DIR="$scratch/root" PKG_CONFIG_LIBDIR="$installed/lib/pkgconfig"
unit=$installed/lib/systemd/system/dachost@.service
include=$(pkg-config --cflags-only-I ip6dns | sed 's/^-I//; s/ *$//')
for file in "$(pkg-config --variable=plugin ip6dns)" "$include/dac.h" \
  $(sed -n '/^ExecStart=/,/[^\\]$/p' "$unit" | grep -oE "$prefix/[^ ]+" | sed "s/%i/ip6dns/; s,^,$scratch/root,"); do
  [ -f "$file" ] || {
    echo "$file: named by the unit or ip6dns.pc, not installed"
    exit 1
  }
done
