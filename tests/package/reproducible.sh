#!/bin/sh
# Another directory, user mask, language, time zone and age of the sources give the same packages, byte for byte.
#   reproducible.sh ARCHITECTURE PACKAGES
set -eu
architecture=$1
packages=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$(dirname "$0")/../.."

umask 027
export LC_ALL=C TZ=Pacific/Auckland
unset SOURCE_DATE_EPOCH
copy=$scratch/elsewhere/with/a/longer/name
mkdir -p "$copy"
cp -r CMakeLists.txt cmake com debian doc driver examples host packages.txt scripts "$copy"
find "$copy" -exec touch --date=2001-02-03 {} +
TMPDIR=$scratch "$copy/scripts/package" "$architecture" "$scratch" >/dev/null

for package in "$packages"/*.deb; do
  other=$scratch/${package##*/}
  cmp "$package" "$other" || {
    sha256sum "$package" "$other"
    exit 1
  }
done
echo 'the same bytes from two directories'
