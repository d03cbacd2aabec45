#!/bin/sh
# Installs, upgrades, removes and purges the packages next to it in a booted system, like an administrator. live.sh runs it
# there and exits with its status.
set -eu
cd "$(dirname "$0")"
# shellcheck source=/dev/null
. ./steps.sh

published() { journalctl -o cat "_PID=$(pid "$1")" | grep -q '"event":"value".*2001:db8::10'; }
# The instance runs the code of the installed file, not of a replaced one.
current() { cmp "/proc/$(pid "$1")/exe" /usr/bin/dachost; }
stopped() { ! readlink /proc/[0-9]*/exe | grep dachost; }
# systemd may list a unit without a file until it next collects such units.
unknown() {
  ! systemctl --no-legend --plain --all list-units 'dachost@*' | grep -v ' not-found *inactive *dead '
}
no_file_left() { files | diff before -; }
files() {
  find / -xdev \( -path /live -o -path /var/lib/dpkg -o -path /var/log -o -path /var/cache -o -path /var/tmp \) -prune \
    -o -print | sort
}
# runs NAME: the instance is active with current code and publishes.
runs() {
  check "$1 is active" eventually active "$1"
  check "$1 runs the installed code" current "$1"
  check "$1 publishes" eventually published "$1"
}
# With dpkg's default answer: preserve the edited configuration.
install_package() { check "dpkg installs $1" dpkg --force-confdef --force-confold -i "$1"; }
upgrade() {
  before_ip6dns=$(pid ip6dns)
  before_pump=$(pid pump)
  install_package "$1"
  check 'an enabled instance has a new process' [ "$(pid ip6dns)" != "$before_ip6dns" ]
  check 'an instance that is not enabled has a new process' [ "$(pid pump)" != "$before_pump" ]
  check 'systemd has read the new unit' [ "$(systemctl show -P NeedDaemonReload dachost@ip6dns)" = no ]
  check 'a stopped instance stays stopped' inactive spare
  check 'the edited configuration is preserved' grep -q edited.example /etc/ip6dns/ip6dns.conf
  runs ip6dns
  runs pump
}

ip -6 addr add 2001:db8::10/64 dev lo nodad
mkdir -p /var/lib/private /etc/systemd/system.control # systemd's folders for the state and properties of all units
files >before

install_package old.deb
check 'the installation starts no instance' stopped
cat >/etc/ip6dns/ip6dns.conf <<'EOF'
hostname = edited.example
EOF
echo 'hostname = pump.example' >/etc/ip6dns/pump.conf
echo 'hostname = spare.example' >/etc/ip6dns/spare.conf
echo 'hostname' >/etc/ip6dns/broken.conf
mkdir -p /etc/systemd/system/dachost@pump.service.d
cat >/etc/systemd/system/dachost@pump.service.d/state.conf <<'EOF'
[Service]
StateDirectory=dachost/%i
ExecStartPre=/bin/touch %S/dachost/%i/some
EOF
check 'systemd reads the new units' systemctl daemon-reload
check 'two instances are enabled and start' systemctl enable --now dachost@ip6dns dachost@spare
check 'an instance stops' systemctl stop dachost@spare
check 'an instance that is not enabled starts' systemctl start dachost@pump
check 'an instance gets a property' systemctl set-property dachost@pump.service MemoryMax=32M
systemctl start dachost@broken || :
check 'an instance has state' [ -f /var/lib/dachost/pump/some ]
runs ip6dns
runs pump

upgrade new.deb
upgrade next.deb

check 'dpkg removes' dpkg -r ip6dns
check 'a removal leaves no process' stopped
check 'a removal stops every instance' [ -z "$(systemctl --no-legend list-units --state=active,activating 'dachost@*')" ]
check 'a removal preserves the configuration' grep -q edited.example /etc/ip6dns/ip6dns.conf
check 'a removal preserves the state' [ -f /var/lib/dachost/pump/some ]

install_package next.deb
systemctl start dachost@ip6dns dachost@pump
runs ip6dns
runs pump
check 'dpkg purges' dpkg -P ip6dns
check 'a purge leaves no process' stopped
check 'a purge leaves no unit' unknown
check 'a purge leaves no file' no_file_left
passed
