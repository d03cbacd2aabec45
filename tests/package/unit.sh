#!/bin/sh
# systemd takes the unit as it is installed, alone and with the drop-in among the examples, and rates what is left open
# to it.
#   unit.sh ROOT
set -eu
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The unit's surroundings: the units it refers to, and the programs it starts.
cp -a "$1/." "$scratch"
cp -an /lib/systemd/system/. "$scratch/lib/systemd/system/"
install -D /bin/kill "$scratch/bin/kill"

check() {
  # It says what it ignores and succeeds all the same, so any word is one too many.
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
