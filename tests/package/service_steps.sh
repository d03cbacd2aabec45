#!/bin/sh
# What administrators see of the unit in a booted system. Run there by service.sh, which it ends with its exit status.
set -eu
cd "$(dirname "$0")"
# shellcheck source=/dev/null
. ./steps.sh

status() { systemctl show -P StatusText "dachost@$1"; }
# says NAME TEXT: the unit's status contains the text.
says() { status "$1" | grep -F -- "$2"; }
is_silent_about() { ! says "$@"; }
restarts() { [ "$(systemctl show -P NRestarts "dachost@$1")" -eq "$2" ]; }
has_restarted() { active "$1" && [ "$(pid "$1")" != "$2" ]; }
has_failed() { systemctl -q is-failed "dachost@$1"; }
# journal NAME LEVEL: the messages of dachost itself, of this level or worse.
journal() { journalctl -q -o cat -p "$2" _COMM=dachost _SYSTEMD_UNIT="dachost@$1.service"; }
logged() { journal "$1" "$2" | grep -F -- "$3"; }
records() { dig +short +time=1 +tries=1 AAAA "${1-gateway.example}" @2001:db8::53; }
has_record() { records "${2-gateway.example}" | grep -Fx "$1"; }
drop_in() { # NAME: from standard input
  mkdir -p "/etc/systemd/system/dachost@$1.service.d"
  cat >"/etc/systemd/system/dachost@$1.service.d/test.conf"
}

ip -6 addr add 2001:db8::53/128 dev lo nodad
ip -6 addr add 2001:db8::10/64 dev lo nodad
check 'dpkg installs' dpkg -i package.deb
install -m 644 libfake_plugin.so libshort_minutes.so /opt

# ---------------------------------------------------------------- watchdog, which takes 10 seconds: checked below

# A second of this host takes 10 milliseconds. It publishes once, then its plug-in is silent.
cat >/etc/ip6dns/hang.conf <<'EOF'
hostname = hang.example
publish 2001:db8::1
EOF
drop_in hang <<'EOF'
[Service]
Environment=LD_PRELOAD=/opt/libshort_minutes.so
ExecStart=
ExecStart=/usr/bin/dachost run --json --plugin /opt/libfake_plugin.so /etc/ip6dns/hang.conf
WatchdogSec=5
EOF
drop_in ip6dns <<'EOF'
[Service]
WatchdogSec=10
EOF
systemctl daemon-reload
check 'an instance starts whose plug-in will hang' systemctl start dachost@hang
hanging=$(pid hang)

# ---------------------------------------------------------------- start and status

check 'the unit starts' systemctl start dachost@ip6dns
check 'it is active once the start has returned' active ip6dns
check 'its status has name and address' eventually says ip6dns 'gateway.example = 2001:db8::'
first=$(pid ip6dns)

# ---------------------------------------------------------------- reload

echo 'hostname = renamed.example' >/etc/ip6dns/ip6dns.conf
check 'it reloads a good file' systemctl reload dachost@ip6dns
check 'its status has the new name' eventually says ip6dns 'renamed.example = 2001:db8::'
echo 'hostname = "gateway.example"' >/etc/ip6dns/ip6dns.conf
check 'it reloads a broken file' systemctl reload dachost@ip6dns
check 'its status names the refused file' eventually says ip6dns /etc/ip6dns/ip6dns.conf
check 'the old instance continues' says ip6dns 'renamed.example = 2001:db8::'
check 'the journal has a warning about it' eventually logged ip6dns warning /etc/ip6dns/ip6dns.conf
check 'it stays active' active ip6dns
echo 'hostname = gateway.example' >/etc/ip6dns/ip6dns.conf
check 'it reloads the corrected file' systemctl reload dachost@ip6dns
check 'its status no longer names the file' eventually is_silent_about ip6dns /etc/ip6dns/ip6dns.conf
check 'its status has the name again' eventually says ip6dns 'gateway.example = 2001:db8::'
check 'all of that in one process' [ "$(pid ip6dns)" = "$first" ]

# ---------------------------------------------------------------- crash and typo

kill -KILL "$first"
check 'it restarts after SIGKILL' eventually has_restarted ip6dns "$first"
check 'it has restarted once' restarts ip6dns 1
check 'it publishes again' eventually says ip6dns 'gateway.example = 2001:db8::'

echo 'hostnam = typo.example' >/etc/ip6dns/typo.conf
systemctl start dachost@typo || : # a typo may be found before or after systemd counts it as started
check 'a typo fails the unit' eventually has_failed typo
check 'its exit status is 78' [ "$(systemctl show -P ExecMainStatus dachost@typo)" = 78 ]
check 'the journal has the error' eventually logged typo err /etc/ip6dns/typo.conf

watchdog_ended_it() { journalctl -q -o cat -u dachost@hang | grep 'Watchdog timeout'; }
check 'the watchdog ends the instance that hangs' eventually watchdog_ended_it
check 'it restarts' eventually has_restarted hang "$hanging"
systemctl stop dachost@hang

# ---------------------------------------------------------------- a name in BIND, as doc/dns.md says

sh -e ./make_key
cp named.conf.local /etc/bind/named.conf.local
cat >/var/lib/bind/example.zone <<'EOF'
$TTL 300
@ SOA ns hostmaster 1 3600 600 86400 60
@ NS ns
ns AAAA 2001:db8::53
EOF
check 'BIND loads the configuration' sh -e ./load
check 'BIND has the zone' eventually sh -c 'dig +short SOA example @2001:db8::53 | grep ns'
cp /etc/bind/gateway.key /etc/ip6dns/tsig.key
check 'an update by hand works' sh -e ./try
check 'the record is there' has_record 2001:db8::10
check 'the drop-in is installed' sh -ec 'cd /usr/share/doc/ip6dns/examples; . /live/install_drop_in'
check 'the unit updates the record' eventually has_record 2001:db8::53
check 'the status has the hook' eventually says ip6dns 'hook ok'
check 'the journal has no warning' [ -z "$(journalctl -q -o cat -p warning _PID="$(pid ip6dns)")" ]
check 'it has information' [ -n "$(journalctl -q -o cat -p info _PID="$(pid ip6dns)")" ]
ip -6 addr add 2001:db8::20/64 dev lo nodad
check 'a new address becomes a record' eventually has_record 2001:db8::20
systemctl stop named
ip -6 addr del 2001:db8::20/64 dev lo
check 'a failed hook is a warning' eventually logged ip6dns warning nsupdate-aaaa
check 'the status has the failure' eventually says ip6dns 'hook failed'
systemctl start named
gone() { records >found && ! grep -Fx 2001:db8::20 found; }
check 'the record follows after the outage' eventually gone
check 'the status has the hook again' eventually says ip6dns 'hook ok'
cp override.conf /etc/systemd/system/dachost@ip6dns.service.d
for name in camera nas; do
  sed -i "s/grant gateway name gateway.example. AAAA;/& grant gateway name $name.example. AAAA;/" /etc/bind/named.conf.local
done
rndc reconfig
systemctl daemon-reload
check 'the other hosts are set up' sh -ec 'cd /usr/share/doc/ip6dns/examples; . /live/install_hosts'
check 'the unit updates a host by its address' eventually has_record 2001:db8::aaa1 camera.example
check 'the unit updates a host by its MAC address' eventually has_record 2001:db8::211:22ff:fe33:4455 nas.example
check 'no credential is left readable' [ -z "$(find /etc/ip6dns/tsig.key -perm /077)" ]

# ---------------------------------------------------------------- end

check 'a typo does not loop' restarts typo 0
check 'the watchdog ends no other' restarts ip6dns 0

check 'the unit stops' systemctl stop dachost@ip6dns
check 'it stops cleanly' [ "$(systemctl show -P Result dachost@ip6dns)" = success ]
passed
