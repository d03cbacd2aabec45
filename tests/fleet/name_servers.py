"""One zone: a hidden primary (BIND) that takes signed updates, and two public secondaries (NSD and Knot)."""
import base64
import os
import re

import dns.exception
import dns.message
import dns.query
import dns.rdatatype

from engine import Engine, wait_until
from network import inside

ZONE = "fleet.example"
TRANSFER_KEY = "transfer"


def new_secret():
    return base64.b64encode(os.urandom(32)).decode()


def key_clause(name, secret):
    """A key as BIND and nsupdate read it."""
    return f'key "{name}" {{ algorithm hmac-sha256; secret "{secret}"; }};\n'


def answers(machine, address):
    """Whether the server answers for the zone's SOA record."""
    query = dns.message.make_query(ZONE, "SOA")
    try:
        with inside(machine):
            return bool(dns.query.udp(query, address, timeout=1).answer)
    except (OSError, dns.exception.DNSException):
        return False


class NameServer(Engine):
    address = ""

    def await_ready(self, seconds=60):
        wait_until(lambda: self.require_running() or answers(self.machine, "::1"), self.name, seconds)


class Primary(NameServer):
    """BIND. Each key has the name of its gateway and may change the AAAA records of that name only."""

    def __init__(self, machine, folder, keys, transfer_secret, secondaries, brokers, refresh):
        super().__init__("bind", machine, folder)
        self.write("keys", "".join(key_clause(name, secret) for name, secret in keys.items()))
        os.chmod(self.path("keys"), 0o600)
        names = "".join(f"ns{i} AAAA {m.addresses[0].partition('/')[0]}\n" for i, m in enumerate(secondaries, 1))
        names += "".join(f"{host} AAAA {address}\n" for host, address in brokers)
        soa = f"SOA ns1 hostmaster 1 {refresh} {refresh} 604800 60"
        self.write("zone", f"$TTL 60\n@ {soa}\n@ NS ns1\n@ NS ns2\n{names}")
        to = " ".join(f"{m.addresses[0].partition('/')[0]} key {TRANSFER_KEY};" for m in secondaries)
        self.configuration = self.write(
            "named.conf",
            f"""{key_clause(TRANSFER_KEY, transfer_secret)}include "{self.path("keys")}";
controls {{ }};
options {{
  directory "{self.folder}"; pid-file "{self.path("pid")}"; session-keyfile none; lock-file none;
  listen-on {{ none; }}; listen-on-v6 {{ any; }};
  recursion no; dnssec-validation no; minimal-responses yes;
  notify explicit; notify-delay 1; notify-rate 1000; serial-query-rate 1000; tcp-clients 10000; tcp-listen-queue 4096; update-quota 10000;
}};
logging {{
  channel updates {{ file "{self.path("updates")}"; print-time iso8601-utc; severity info; }};
  category update {{ updates; }};
  category update-security {{ updates; }};
}};
zone "{ZONE}" {{
  type primary; file "{self.path("zone")}";
  update-policy {{ grant * self . AAAA; }};
  allow-query {{ any; }}; allow-transfer {{ key {TRANSFER_KEY}; }}; also-notify {{ {to} }};
}};
""",
        )

    def command(self):
        return ["named", "-f", "-c", self.configuration, "-n", "2"]

    def update_log(self):
        """(time, client's name, text) of each entry about an update."""
        entry = re.compile(r"(\S+) .*?/key (\S+?): (?:view \S+: )?(.*)")
        try:
            with open(self.path("updates"), encoding="utf-8", errors="replace") as log:
                return [m.groups() for m in map(entry.match, log) if m]
        except FileNotFoundError:
            return []


class Nsd(NameServer):
    def __init__(self, machine, folder, transfer_secret, primary_address, reader):
        super().__init__("nsd", machine, folder)
        self.configuration = self.write(
            "nsd.conf",
            f"""server:
  ip-address: ::0
  port: 53
  username: ""
  chroot: ""
  zonesdir: "{self.folder}"
  database: ""
  pidfile: "{self.path("pid")}"
  xfrdfile: "{self.path("xfrd.state")}"
  zonelistfile: "{self.path("zone.list")}"
  xfrdir: "{self.folder}"
  round-robin: yes
  rrl-ratelimit: 0
  rrl-whitelist-ratelimit: 0
remote-control:
  control-enable: no
key:
  name: {TRANSFER_KEY}
  algorithm: hmac-sha256
  secret: "{transfer_secret}"
zone:
  name: {ZONE}
  zonefile: "zone"
  allow-notify: {primary_address} {TRANSFER_KEY}
  request-xfr: {primary_address} {TRANSFER_KEY}
  provide-xfr: {reader} NOKEY
  max-retry-time: 5
  min-retry-time: 1
""",
        )

    def command(self):
        return ["nsd", "-d", "-c", self.configuration]


class Knot(NameServer):
    def __init__(self, machine, folder, transfer_secret, primary_address, reader):
        super().__init__("knot", machine, folder)
        self.configuration = self.write(
            "knot.conf",
            f"""server:
  rundir: "{self.folder}"
  user: root:root
  listen: "::@53"
  background-workers: 1
  udp-workers: 1
  tcp-workers: 1
  answer-rotation: on
log:
  - target: stderr
    any: warning
    zone: info
database:
  storage: "{self.folder}"
  journal-db-max-size: 100M
key:
  - id: {TRANSFER_KEY}
    algorithm: hmac-sha256
    secret: {transfer_secret}
remote:
  - id: primary
    address: {primary_address}
    key: {TRANSFER_KEY}
acl:
  - id: notify
    address: {primary_address}
    key: {TRANSFER_KEY}
    action: notify
  - id: readers
    address: {reader}
    action: transfer
zone:
  - domain: {ZONE}
    storage: "{self.folder}"
    file: zone
    master: primary
    acl: [notify, readers]
    retry-max-interval: 5
""",
        )

    def command(self):
        return ["knotd", "-c", self.configuration]
