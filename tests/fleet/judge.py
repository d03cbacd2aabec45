#!/usr/bin/python3
"""Compares what the public sees with the addresses that the kernel lists in every namespace.

  judge.py <CASE

CASE is a JSON object: "zone"; "machines": gateways that must be right; "servers": name -> address; "messages": topic ->
newest message; "prefix" of the topics; "offline": gateways whose status must be offline and whose record and value stay
as they were, "stale": name -> addresses that these must have.
Prints a JSON object with what is lost (missing), wrong (different) and extra. Exit status: 0 if there is none.
The truth comes from `ip -6 -j addr`, its meaning from the kernel's documents; nothing here is shared with dachost.
"""
import ipaddress
import json
import socket
import subprocess
import sys

import dns.exception
import dns.message
import dns.query
import dns.rdatatype

UNIQUE_LOCAL = ipaddress.ip_network("fc00::/7")
SITE_LOCAL = ipaddress.ip_network("fec0::/10")
UNUSABLE = ("temporary", "deprecated", "tentative", "dadfailed")


def kernel_addresses(machine):
    listing = subprocess.run(["ip", "-n", machine, "-6", "-j", "addr"], check=True, capture_output=True, text=True)
    return [a for link in json.loads(listing.stdout) for a in link.get("addr_info", [])]


def published(addresses):
    """What a gateway publishes: every address of more than local use."""
    found = set()
    for a in addresses:
        ip = ipaddress.ip_address(a["local"])
        if not (ip.is_loopback or ip.is_link_local or ip.is_multicast or ip in SITE_LOCAL):
            found.add(str(ip))
    return found


def in_the_record(addresses):
    """What belongs into the name record: global addresses that last."""
    return {
        a["local"]
        for a in addresses
        if a["scope"] == "global"
        and ipaddress.ip_address(a["local"]) not in UNIQUE_LOCAL
        and not any(a.get(state) for state in UNUSABLE)
        and a.get("preferred_life_time") != 0
    }


def answer(server, name):
    """The AAAA records that a server answers; three attempts, as a resolver makes them."""
    query = dns.message.make_query(name, dns.rdatatype.AAAA)
    for attempt in range(3):
        try:
            response = dns.query.udp(query, server, timeout=2)
            return {r.address for rrset in response.answer for r in rrset if r.rdtype == dns.rdatatype.AAAA}
        except (dns.exception.DNSException, OSError):
            if attempt == 2:
                return None
    return None


def value_in(message):
    try:
        value = json.loads(message)["value"]
    except (TypeError, ValueError, KeyError):
        return None
    return set() if value == "null" else {str(ipaddress.ip_address(a)) for a in value.split(",")}


class Verdict:
    def __init__(self):
        self.lost, self.wrong, self.checked = [], [], 0

    def compare(self, place, name, expected, found):
        self.checked += 1
        if found == expected:
            return
        entry = {"place": place, "name": name, "expected": sorted(expected), "found": sorted(found) if found else None}
        (self.wrong if found else self.lost).append(entry)


def main():
    case = json.load(sys.stdin)
    verdict = Verdict()
    messages = case["messages"]
    for name in case["machines"] + case["offline"]:
        is_on = name not in case["offline"]
        addresses = kernel_addresses(name)
        record = in_the_record(addresses) if is_on else set(case["stale"][name])
        for place, server in case["servers"].items():
            verdict.compare(place, name, record, answer(server, f"{name}.{case['zone']}"))
        topic = case["prefix"] + "/" + name
        if is_on:
            verdict.compare("subscriber", name, published(addresses), value_in(messages.get(topic)))
        status = messages.get(topic + "/status")
        verdict.compare("status", name, {"online" if is_on else "offline"}, {status} if status else None)
    known = set(case["machines"]) | set(case["offline"])
    extra = sorted({t for t in messages if t.split("/")[1] not in known or t.count("/") > 2})
    json.dump({"checked": verdict.checked, "lost": verdict.lost, "wrong": verdict.wrong, "extra": extra}, sys.stdout)
    return 1 if verdict.lost or verdict.wrong or extra else 0


if __name__ == "__main__":
    socket.setdefaulttimeout(5)
    sys.exit(main())
