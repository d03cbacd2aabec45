#!/bin/sh
# Makes the packages again, in another directory, with another user mask, language, time zone and age of the sources.
#   made_elsewhere.sh ARCHITECTURE PACKAGES
set -eu
architecture=$1
packages=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM
cd "$(dirname "$0")/../.."

rm -rf "$packages"
mkdir -p "$packages"
umask 027
export LC_ALL=C TZ=Pacific/Auckland
unset SOURCE_DATE_EPOCH
copy=$scratch/elsewhere/with/a/longer/name
mkdir -p "$copy"
cp -r CMakeLists.txt cmake com debian doc driver examples host packages.txt scripts "$copy"
find "$copy" -exec touch --date=2001-02-03 {} +
TMPDIR=$scratch "$copy/scripts/package" "$architecture" "$packages" >/dev/null
