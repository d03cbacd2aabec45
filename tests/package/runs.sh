#!/bin/sh
# The installed dachost finds the installed plug-in, the checking layer finds it too and reports nothing, and the installed
# configuration is valid.
#   runs.sh ROOT TRIPLET [EMULATOR...]
set -eu
root=$1
plugin=$root/usr/lib/$2/dac/libip6dns.so
shift 2

config=$root/etc/ip6dns/ip6dns.conf
"$@" "$root/usr/bin/dachost" check "$config"
reports=$("$@" "$root/usr/bin/dachost" info -p "${plugin%/*}/libdac-check.so" "$config" 2>&1 >/dev/null)
[ -z "$reports" ] || {
  echo "$reports"
  exit 1
}
out=$("$@" "$root/usr/bin/dachost" run --json --once "$config" 2>&1)
for expected in "\"plugin\":\"$plugin\"" '"event":"value","instance":"ip6dns"'; do
  echo "$out" | grep -qF "$expected" || {
    printf 'no %s in:\n%s\n' "$expected" "$out"
    exit 1
  }
done
