#!/bin/sh
# systemd accepts the installed unit, alone and with the drop-in of the examples, and rates its exposure.
#   unit.sh ROOT
set -eu
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Placeholders for the units that it refers to and the programs that it starts.
cp -a "$1/." "$scratch"
cp -an /lib/systemd/system/. "$scratch/lib/systemd/system/"
install -D /bin/sh "$scratch/bin/sh"

check() {
  # It succeeds even if it ignores a line, so any output is a failure.
  verdict=$(systemd-analyze verify --man=no --root="$scratch" dachost@ip6dns.service 2>&1 || echo 'does not verify')
  [ -z "$verdict" ] || {
    echo "$verdict"
    exit 1
  }
  systemd-analyze security --no-pager --offline=yes --root="$scratch" --threshold=19 dachost@ip6dns.service \
    >"$scratch/rating" || {
    cat "$scratch/rating"
    exit 1
  }
  tail -n 1 "$scratch/rating"
}

check
examples=$scratch/usr/share/doc/ip6dns/examples
install -D "$examples/nsupdate-aaaa" "$scratch/usr/local/bin/nsupdate-aaaa"
install -D -m 644 "$examples/nsupdate.conf" "$scratch/etc/systemd/system/dachost@ip6dns.service.d/nsupdate.conf"
check
