#!/bin/sh
# scripts/package makes the two packages, under the expected names. Unpacks them for later tests.
#   made.sh ARCHITECTURE SCRATCH VERSION_ARCHITECTURE
set -eu
architecture=$1
scratch=$2
suffix=$3

rm -rf "$scratch"
mkdir -p "$scratch"
"$(dirname "$0")/../../scripts/package" "$architecture" "$scratch" >/dev/null
cd "$scratch"
found=$(echo ./*.deb)
[ "$found" = "./ip6dns-dbgsym_$suffix.deb ./ip6dns_$suffix.deb" ] || {
  echo "made $found"
  exit 1
}
dpkg-deb -R "ip6dns_$suffix.deb" root
dpkg-deb -x "ip6dns-dbgsym_$suffix.deb" root
sha256sum ./*.deb
