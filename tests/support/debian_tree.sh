#!/bin/sh
# Makes a Debian 12 system that systemd-nspawn can boot, in DIRECTORY/debian-12, unless it exists. Its packages come from
# the mirror that apt uses. Prints the system's directory. Exits with 77 and prints the reason where this is impossible.
#   debian_tree.sh DIRECTORY
set -eu
directory=$1
tree=$directory/debian-12
# What the tests use there, and what the package ip6dns depends on.
packages=bind9,bind9-dnsutils,iproute2,libc6,libgcc-s1,libstdc++6,python3-dnspython,systemd,systemd-sysv

skip() {
  echo "skipped: $*"
  exit 77
}
[ "$(id -u)" -eq 0 ] || skip 'only root can boot a system'

mkdir -p "$directory"
exec 9>"$tree.lock"
flock 9
if [ "$packages" != "$(cat "$tree.packages" 2>/dev/null)" ]; then
  # shellcheck disable=SC2016 # the names are apt's
  mirror=$(apt-get indextargets --format '$(CODENAME) $(LABEL) $(REPO_URI)' 'Created-By: Packages' |
    awk '$1 == "bookworm" && $2 == "Debian" { print $3; exit }')
  [ -n "$mirror" ] || skip 'apt has no source of Debian 12'
  rm -rf --one-file-system "$tree" "$tree.packages"
  # Its shell commands write to descriptors that it opens, and dash has no numbers above 9: free the low ones.
  mmdebstrap --variant=minbase --include="$packages" bookworm "$tree" "$mirror" \
    >"$tree.log" 2>&1 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&- || {
    tail -n 30 "$tree.log"
    exit 1
  }
  echo "$packages" >"$tree.packages"
fi
# A container may forbid what the boot needs.
refusal=$(systemd-nspawn -q --register=no --keep-unit --private-network --volatile=overlay \
  --machine="debian-$$" -D "$tree" true 2>&1) ||
  skip "systemd-nspawn does not start: $refusal"
echo "$tree"
