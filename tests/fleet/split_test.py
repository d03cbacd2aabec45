#!/usr/bin/python3
"""Runs the name servers of doc/fleet.md, "One zone over several primaries", with the files of that section."""
import os
import re
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
import dns.exception  # noqa: E402
import dns.message  # noqa: E402
import dns.query  # noqa: E402
import dns.rdatatype  # noqa: E402

import network  # noqa: E402
from name_servers import key_clause, new_secret  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
LIMIT = 20  # seconds for a record to reach a secondary
SECRET = new_secret()
TSIG = {
    "nsd.conf": f"key:\n  name: transfer\n  algorithm: hmac-sha256\n  secret: {SECRET}\n",
    "knot.conf": f"key:\n  - id: transfer\n    algorithm: hmac-sha256\n    secret: {SECRET}\n",
}
WHERE = {"p0": "10", "p1": "11", "nsd": "53", "knot": "54"}
ADDRESS = {"gw0001": "2001:db8:1::1", "gw0003": "2001:db8:1::3"}


def blocks():
    """The section's files by name, and its commands."""
    with open(ROOT + "/doc/fleet.md", encoding="utf-8") as f:
        section = f.read().partition("## One zone over several primaries\n")[2].partition("\n## ")[0]
    files = {}
    for name, text in re.findall(r"^```\n[;#] ([\w.]+): [^\n]*\n(.*?)^```$", section, re.MULTILINE | re.DOTALL):
        files[name] = text
    return files, re.search(r"^```console\n(.*?)^```$", section, re.MULTILINE | re.DOTALL).group(1)


def shards(console):
    """What the document's commands print, compared with what it says that they print."""
    commands = [line[2:] for line in console.splitlines() if line.startswith("$ ")]
    printed = subprocess.run(["sh", "-ec", "\n".join(commands)], check=True, capture_output=True, text=True).stdout
    expected = "".join(line + "\n" for line in console.splitlines() if not line.startswith("$ "))
    assert printed == expected, printed
    return dict(zip(ADDRESS, printed.split()))


def write(folder, name, text):
    path = os.path.join(folder, name)
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)
    return path


def prepare(folder, files, keys):
    """A folder for each server; returns the commands that start them."""
    for m in WHERE:
        os.mkdir(f"{folder}/{m}")
    named = files["named.conf"]
    last_zone = named[named.rindex("zone ") :].replace("s0", "s1")
    second = named[: named.index("zone ")] + last_zone
    common = f'directory "{folder}/%s"; pid-file "named.pid"; session-keyfile none; listen-on {{ none; }};'
    for m, shard, text in (("p0", "s0", named), ("p1", "s1", second)):
        own = [n for n in keys if f".{shard}." in n]
        write(f"{folder}/{m}", "keys", "".join(key_clause(n, keys[n]) for n in ["transfer", *own]))
        write(f"{folder}/{m}", shard, files["shard"])
        text = text.replace('include "keys"', f'include "{folder}/{m}/keys"')
        write(f"{folder}/{m}", "named.conf", "controls { };\n" + text.replace("options {", "options {" + common % m))
    write(folder + "/p0", "parent", files["parent"])
    own = f'server:\n  username: ""\n  chroot: ""\n  database: ""\n  ip-address: ::0\n  zonesdir: "{folder}/nsd"\n'
    own += "".join(f'  {n}: "{folder}/nsd/{n}"\n' for n in ("pidfile", "xfrdfile", "zonelistfile"))
    own += f'  xfrdir: "{folder}/nsd"\n'
    write(folder + "/nsd", "nsd.conf", own + TSIG["nsd.conf"] + files["nsd.conf"])
    own = f'server:\n  rundir: "{folder}/knot"\n  user: root:root\n  listen: "::@53"\n'
    own += f'database:\n  storage: "{folder}/knot"\n'
    own += TSIG["knot.conf"] + f'template:\n  - id: default\n    storage: "{folder}/knot"\n'
    write(folder + "/knot", "knot.conf", own + files["knot.conf"])
    return {
        "p0": ["named", "-g", "-c", f"{folder}/p0/named.conf"],
        "p1": ["named", "-g", "-c", f"{folder}/p1/named.conf"],
        "nsd": ["nsd", "-d", "-c", f"{folder}/nsd/nsd.conf"],
        "knot": ["knotd", "-c", f"{folder}/knot/knot.conf"],
    }


def answer(machine, server, name):
    """The addresses of a name. Follows a CNAME as a resolver does: Knot does not follow one into another zone."""
    try:
        with network.inside(machine):
            response = dns.query.udp(dns.message.make_query(name, dns.rdatatype.AAAA), server, timeout=1)
    except (OSError, dns.exception.DNSException):
        return []
    records = [r for rrset in response.answer for r in rrset]
    if [r.rdtype for r in records] == [dns.rdatatype.CNAME]:
        return answer(machine, server, records[0].target.to_text())
    return [r.address for r in records if r.rdtype == dns.rdatatype.AAAA]


def await_answer(machine, server, name, expected):
    end = time.monotonic() + LIMIT
    while (found := answer(machine, server, name)) != expected:
        assert time.monotonic() < end, f"{name} at {server}: {found} and not {expected}"
        time.sleep(0.1)


def update(office, folder, shard, name, address, keys):
    host = f"{name}.{shard}.gateways.example"
    key = write(folder, name + ".key", key_clause(host, keys[host]))
    settings = {"DAC_TAG": host, "DAC_VALUE": address, "NSUPDATE_KEY": key}
    settings["NSUPDATE_ZONE"] = f"{shard}.gateways.example"
    settings["NSUPDATE_SERVER"] = "2001:db8::1" + shard[1]
    command = office.command([ROOT + "/examples/nsupdate-aaaa"])
    return subprocess.run(command, env=os.environ | settings, check=False, capture_output=True, text=True)


def main():
    files, console = blocks()
    assert set(files) == {"parent", "shard", "named.conf", "nsd.conf", "knot.conf"}, set(files)
    shard = shards(console)
    network.run(["mount", "-t", "tmpfs", "none", "/run"])
    machines = {n: network.Machine(n, i, [f"2001:db8::{a}/64"]) for i, (n, a) in enumerate(WHERE.items(), 1)}
    office = machines["office"] = network.Machine("office", 9, ["2001:db8::99/64"])
    network.create_bridge()
    network.create(machines.values(), flood=True)
    keys = {f"{name}.{s}.gateways.example": new_secret() for name, s in shard.items()} | {"transfer": SECRET}
    with tempfile.TemporaryDirectory(dir="/run") as folder:
        for name, command in prepare(folder, files, keys).items():
            with open(f"{folder}/{name}/log", "w", encoding="utf-8") as log:
                subprocess.Popen(machines[name].command(command), stdout=log, stderr=log)
        try:
            for server in ("2001:db8::53", "2001:db8::54"):
                await_answer(office, server, "ns1.gateways.example", ["2001:db8::53"])
            for server, s in (("2001:db8::10", "s0"), ("2001:db8::11", "s1")):
                end = time.monotonic() + LIMIT
                name = {v: k for k, v in shard.items()}[s]
                while (done := update(office, folder, s, name, ADDRESS[name], keys)).returncode != 0:
                    assert time.monotonic() < end, done.stderr
                    time.sleep(0.2)
            for name, address in ADDRESS.items():
                for server in ("2001:db8::53", "2001:db8::54"):
                    await_answer(office, server, name + ".gateways.example", [address])
            keys["gw0009.s0.gateways.example"] = keys["gw0001.s0.gateways.example"]
            stolen = update(office, folder, "s0", "gw0009", "2001:db8:bad::1", keys)
            assert stolen.returncode != 0, "a key without a name in this part is accepted"
        except AssertionError:
            for name in WHERE:
                with open(f"{folder}/{name}/log", encoding="utf-8") as log:
                    print(f"--- {name}\n{log.read()[-1500:]}")
            raise
    print("both secondaries answer both names")


if __name__ == "__main__":
    if "--inside" not in sys.argv:
        private = [] if os.getuid() == 0 else ["--user", "--map-root-user"]
        private += "--net --mount --uts --ipc --pid --fork --kill-child --mount-proc".split()
        os.execvp("unshare", ["unshare", *private, sys.executable, os.path.abspath(__file__), "--inside"])
    main()
