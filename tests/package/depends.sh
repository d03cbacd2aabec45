#!/bin/sh
# The package asks for the libraries that its programs need, in the versions that they need; they load no others.
#   depends.sh ROOT PACKAGE
set -eu
root=$1
package=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

mkdir "$scratch/debian"
echo 'Source: ip6dns' >"$scratch/debian/control"
cd "$scratch"
needed=$(dpkg-shlibdeps -O "$root/usr/bin/dachost" "$root"/usr/lib/*/dac/*.so 2>/dev/null)
said=$(dpkg-deb -f "$package" Depends)
[ "$needed" = "shlibs:Depends=$said" ] || {
  printf 'needed: %s\nsaid:   %s\n' "${needed#*=}" "$said"
  exit 1
}

readelf -d "$root/usr/bin/dachost" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >linked
loaded=$(strings "$root/usr/bin/dachost" | grep -xE 'lib[a-z+_]+\.so\.[0-9]+' | grep -vxF -f linked | LC_ALL=C sort -u)
[ -z "$loaded" ] || {
  echo "dachost loads these libraries: $loaded"
  exit 1
}
