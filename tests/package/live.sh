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

depends=$(dpkg-deb -f "$package" Depends)
depends=$(echo "$depends" | sed 's/([^)]*)//g; s/,/ /g')
# shellcheck disable=SC2086 # one word per package
tree=$("$here/../support/debian_tree.sh" "$cache" iproute2 $depends) || {
  status=$?
  echo "$tree"
  exit "$status"
}

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
cat >"$scratch/live.service" <<'EOF'
[Unit]
After=multi-user.target
SuccessAction=exit
FailureAction=exit
[Service]
Type=oneshot
ExecStart=/live/live_steps.sh
StandardOutput=append:/live/log
StandardError=inherit
EOF
timeout 100 systemd-nspawn -q --register=no --keep-unit --private-network --link-journal=no --volatile=overlay \
  --machine="ip6dns-$$" -D "$tree" --bind="$scratch:/live" \
  --bind-ro="$scratch/live.service:/etc/systemd/system/live.service" --console=pipe -b systemd.wants=live.service \
  </dev/null >"$scratch/console" 2>&1 || {
  status=$?
  cat "$scratch/console"
  cat "$scratch/log"
  echo "the system ended with status $status"
  exit 1
}
grep '^passed' "$scratch/log"
