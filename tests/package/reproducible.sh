#!/bin/sh
# Another folder, another user mask, another language and time zone: the same packages, byte for byte.
#   reproducible.sh SOURCE PACKAGES CMAKE_OPTION...
set -eu
source=$1
packages=$2
shift 2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

umask 027
export LC_ALL=C TZ=Pacific/Auckland
unset SOURCE_DATE_EPOCH
copy=$scratch/elsewhere/with/a/longer/name
mkdir -p "$copy"
(cd "$source" && cp -a CMakeLists.txt cmake com driver host packaging doc examples "$copy")
cmake -S "$copy" -B "$scratch/b" -G Ninja -DCMAKE_BUILD_TYPE=Release -DIP6DNS_HOST=ON "$@" >/dev/null
cmake --build "$scratch/b" >/dev/null
(cd "$scratch/b" && cpack >/dev/null)

for package in "$packages"/*.deb; do
  other=$scratch/b/${package##*/}
  cmp "$package" "$other" || {
    sha256sum "$package" "$other"
    exit 1
  }
done
echo 'the same bytes from two folders'
