#!/bin/sh
# The package asks for the libraries that its programs need, in the versions that they need, and recommends those that
# they load when they are there.
#   depends.sh ROOT PACKAGE
set -eu
root=$1
package=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

mkdir "$scratch/debian"
echo 'Source: ip6dns' >"$scratch/debian/control"
cd "$scratch"
needed=$(dpkg-shlibdeps -O "$root/usr/bin/dachost" "$root"/usr/lib/*/dac/libip6dns.so 2>/dev/null)
said=$(dpkg-deb -f "$package" Depends)
[ "$needed" = "shlibs:Depends=$said" ] || {
  printf 'needed: %s\nsaid:   %s\n' "${needed#*=}" "$said"
  exit 1
}

readelf -d "$root/usr/bin/dachost" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >linked
loaded=$(strings "$root/usr/bin/dachost" | grep -xE 'lib[a-z+_]+\.so\.[0-9]+' | grep -vxF -f linked | LC_ALL=C sort -u)
[ "$loaded" = libncursesw.so.6 ] || {
  echo "dachost loads these libraries: $loaded"
  exit 1
}
# A program that is linked with it: its dependency is what must be recommended.
echo 'extern void endwin(void); int main(void) { endwin(); }' >probe.c
cc -o probe probe.c -lncursesw
needed=$(dpkg-shlibdeps -O probe 2>/dev/null | grep -oE 'libncursesw6 [^,]*')
said=$(dpkg-deb -f "$package" Recommends)
[ "$needed" = "$said" ] || {
  printf 'to be recommended: %s\nrecommended:       %s\n' "$needed" "$said"
  exit 1
}
