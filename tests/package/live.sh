#!/bin/sh
# In a booted Debian 12: an upgrade restarts the running units, a removal stops them, and a purge leaves no file.
#   live.sh CACHE PACKAGE [OLD_PACKAGE]
# The old package is by default PACKAGE with another version, other code and no maintainer scripts.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
cache=$1
package=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM

# variant NAME VERSION: the package as another release, with other code.
variant() {
  dpkg-deb -R "$package" "$scratch/$1"
  sed -i "s/^Version: .*/Version: $2/" "$scratch/$1/DEBIAN/control"
  echo "$1" >>"$scratch/$1/usr/bin/dachost"
  echo "# $1" >>"$scratch/$1/lib/systemd/system/dachost@.service"
}
pack() {
  dpkg-deb --root-owner-group -b "$scratch/$1" "$scratch/$1.deb" >/dev/null
}
version=$(dpkg-deb -f "$package" Version)
cp "$package" "$scratch/new.deb"
variant next "$version+next"
pack next
if [ $# -eq 3 ]; then
  cp "$3" "$scratch/old.deb"
else
  variant old "$version~old"
  rm "$scratch/old/DEBIAN/postinst" "$scratch/old/DEBIAN/prerm" "$scratch/old/DEBIAN/postrm"
  pack old
fi

cp "$here/live_steps.sh" "$scratch"
"$here/../support/boot.sh" "$cache" "$scratch" live_steps.sh
