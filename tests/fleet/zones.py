#!/usr/bin/python3
"""Loads zones of many gateways into the name servers, without any traffic: memory, time to load, size of a transfer.

  zones.py [GATEWAYS...]     default: 10000 100000 1000000

Prints one JSON object per size and server. The zone is the result of the gateways' updates: one AAAA record each.
"""
import json
import os
import subprocess
import sys
import time

import name_servers
import network
from engine import cost, wait_until
from network import Machine

FOLDER = "/run/fleet"


def write_zone(path, gateways):
    with open(path, "w", encoding="utf-8") as f:
        f.write("$TTL 60\n@ SOA ns1 hostmaster 1 3600 600 604800 60\n@ NS ns1\n@ NS ns2\n")
        f.write("ns1 AAAA fd77::2\nns2 AAAA fd77::3\n")
        f.writelines(f"gw{i:07} AAAA 2001:db8:1::{i >> 16:x}:{i & 65535:x}\n" for i in range(gateways))


def measure(server, gateways, **more):
    begin = time.time()
    server.start()
    wait_until(lambda: server.require_running() or name_servers.answers(server.machine, "::1"), server.name, 300)
    ready = time.time() - begin
    time.sleep(2)
    seconds, memory = cost(server.process.pid)
    result = {"gateways": gateways, "server": server.name, "MB": round(memory / 1e6), "ready after": round(ready, 1)}
    print(json.dumps(result | {"processor seconds": round(seconds, 1)} | more), flush=True)


def trial(gateways):
    network.run(["mount", "-t", "tmpfs", "none", "/run"])
    os.makedirs(FOLDER)
    machines = [Machine(n, i, [f"fd77:0:0:53::{i}/48"]) for i, n in enumerate(("bind", "nsd", "knot"), 1)]
    bind, nsd, knot = machines
    network.create_bridge()
    network.create(machines, flood=True)
    secret = name_servers.new_secret()
    address = "fd77:0:0:53::1"
    primary = name_servers.Primary(bind, FOLDER, {}, secret, [nsd, knot], [], 3600)
    write_zone(primary.path("zone"), gateways)
    measure(primary, gateways, **{"zone file MB": round(os.path.getsize(primary.path("zone")) / 1e6, 1)})
    for kind, machine in ((name_servers.Nsd, nsd), (name_servers.Knot, knot)):
        before = bind.traffic()
        server = kind(machine, FOLDER, secret, address, "::1")
        measure(server, gateways)
        sent = round((bind.traffic() - before) / 1e6, 1)
        print(json.dumps({"transfer to": server.name, "MB sent": sent}), flush=True)


def main():
    if sys.argv[1:2] == ["--trial"]:
        trial(int(sys.argv[2]))
        os._exit(0)
    for gateways in sys.argv[1:] or ["10000", "100000", "1000000"]:
        inside = "unshare --net --mount --uts --ipc --pid --fork --kill-child --mount-proc".split()
        own = [sys.executable, os.path.abspath(__file__), "--trial", gateways]
        subprocess.run(inside + own, env=os.environ | {"PYTHONDONTWRITEBYTECODE": "1"}, check=False)


if __name__ == "__main__":
    main()
