#!/bin/sh
# The package depends on the libraries that its programs need, in the versions that they need. They load no others.
#   depends.sh ROOT READELF native|cross
set -eu
root=$1
readelf=$2
kind=$3
program=$root/usr/bin/dachost
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

field() { sed -n "s/^$1: //p" "$root/DEBIAN/control"; }
same() {
  [ "$2" = "$3" ] && return
  printf '%s: expected %s\n%s  found    %s\n' "$1" "$2" "$1" "$3"
  exit 1
}

# newest FILE...: PACKAGE (>= VERSION) for each library, by the version names that the files require. This machine's
# packages list which release has which name; the names are the same on every machine.
newest() {
  "$readelf" -VW "$@" | sed -n 's/.*Name: \([A-Z]*_[0-9.]*\) .*/\1/p' | sort -u >required
  for library in libc6 libgcc-s1 libstdc++6; do
    cat "/var/lib/dpkg/info/$library:"*.symbols | awk '{ split($1, name, "@") } name[1] == name[2] { print name[1], $2 }' |
      awk 'NR == FNR { required[$1]; next } $1 in required { print $2 }' required - | sed 's/^[0-9]*://' | sort -V |
      tail -n 1 | sed "s/.*/$library (>= &)/"
  done | paste -sd, | sed 's/,/, /g'
}

if [ "$kind" = native ]; then
  mkdir debian
  echo 'Source: ip6dns' >debian/control
  same Depends "$(dpkg-shlibdeps -O "$program" "$root"/usr/lib/*/dac/*.so 2>/dev/null | cut -d= -f2-)" "$(field Depends)"
fi
same Depends "$(newest "$program" "$root"/usr/lib/*/dac/*.so)" "$(field Depends)"

"$readelf" -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >linked
loaded=$(strings "$program" | grep -xE 'lib[a-z+_]+\.so\.[0-9]+' | grep -vxF -f linked | LC_ALL=C sort -u)
same 'libraries that dachost loads' '' "$loaded"
