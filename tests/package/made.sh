#!/bin/sh
# Makes the packages of a build, under the names they are to have, and unpacks the main one for the tests that follow.
#   made.sh BUILD SCRATCH VERSION_ARCHITECTURE
set -eu
build=$1
scratch=$2
suffix=$3

rm -rf "$scratch"
mkdir -p "$scratch/root"
cd "$scratch"
cpack --config "$build/CPackConfig.cmake" -B "$scratch" >cpack.log 2>&1 || {
  cat cpack.log
  exit 1
}
found=$(echo ./*.deb)
[ "$found" = "./ip6dns-dbgsym_$suffix.deb ./ip6dns_$suffix.deb" ] || {
  echo "made $found"
  exit 1
}
dpkg-deb -x "ip6dns_$suffix.deb" root
sha256sum ./*.deb
