#!/usr/bin/python3
"""dachost on a network with a router: radvd in one network namespace, this machine with privacy extensions in another.

After each step the published text, what each filter picks, and the AAAA records in BIND and in Knot equal what
`ip -6 -j addr` says. The rules here are written from the manual and share no code with dachost.

  network_trial.py DACHOST PLUGIN SHIFTED_CLOCK [CLASS]
"""

import ipaddress
import itertools
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
sys.path.insert(0, os.path.join(source, "tests/support"))
sys.dont_write_bytecode = True
from name_servers import ZONE, Bind, Knot, enter_network, eventually  # noqa: E402

WAIT_SECONDS = 30
SECRET = "c2VjcmV0c2VjcmV0c2VjcmV0c2VjcmV0"

# ---------------------------------------------------------------- the rules


class Address:
    def __init__(self, interface, info):
        self.interface = interface
        self.ip = ipaddress.IPv6Address(info["local"])
        self.scope = info["scope"]
        self.flags = {name for name, value in info.items() if value is True}

    def as_json(self):
        """ip has the word dynamic for what is not permanent."""
        flags = self.flags ^ {"dynamic"} if "dynamic" in self.flags else self.flags | {"permanent"}
        return {"address": str(self.ip), "interface": self.interface, "scope": self.scope, "flags": sorted(flags)}

    def __repr__(self):
        return f"{self.ip}%{self.interface} {self.scope} {sorted(self.flags)}"

    def __eq__(self, other):
        return repr(self) == repr(other)


def kernel_addresses():
    answer = subprocess.run(["ip", "-6", "-j", "addr"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return [Address(link["ifname"], a) for link in json.loads(answer) if link for a in link["addr_info"]]


def is_published(a):
    """All except loopback, multicast, link-local, site-local and those that embed an IPv4 address."""
    local = ipaddress.IPv6Network("fe80::/9")
    return not (a.ip.is_loopback or a.ip.is_multicast or a.ip in local or a.ip.ipv4_mapped or 1 < int(a.ip) < 1 << 32)


def is_global(a):
    without = ["fc00::/7", "64:ff9b::/96", "100::/64", "2001::/32", "2002::/16", "5f00::/16"]
    if a.scope == "link" or any(a.ip in ipaddress.IPv6Network(n) for n in without):
        return False
    return is_published(a) and "dadfailed" not in a.flags and ("tentative" not in a.flags or "optimistic" in a.flags)


def is_stable(a):
    return is_global(a) and not a.flags & {"temporary", "deprecated"}


def published_text(addresses):
    """A record's value has room for 999 characters."""
    return ",".join(str(a.ip) for a in addresses if is_published(a))[:999] or "null"


def picked(which, addresses, interface=None):
    if which == "all":
        text = published_text(addresses)
        words = [] if text == "null" else text.split(",")
        return words if len(text) < 999 else words[:-1]
    rule = {"global": is_global, "stable": is_stable}[which]
    return list(dict.fromkeys(str(a.ip) for a in addresses if rule(a) and interface in (None, a.interface)))


# ---------------------------------------------------------------- the machines


def run(command, **options):
    return subprocess.run(command.split(), check=True, **options)


def sysctl(name, value):
    with open("/proc/sys/net/ipv6/" + name, "w", encoding="ascii") as file:
        file.write(str(value))


class Router:
    """A network namespace with radvd, on the other end of the interface `up0`."""

    def __init__(self, folder):
        self.folder = folder
        self.holder = subprocess.Popen(["unshare", "-n", "sleep", "infinity"])
        here = os.readlink("/proc/self/ns/net")
        eventually(lambda: os.readlink(f"/proc/{self.holder.pid}/ns/net") != here, "the router's network namespace")
        run("ip link add up0 type veth peer name rt0")
        run(f"ip link set rt0 netns {self.holder.pid}")
        self.run("ip link set rt0 up")
        self.run("sysctl -q -w net.ipv6.conf.all.forwarding=1")
        self.radvd = None

    def enter(self, command):
        return ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net", *command.split()]

    def run(self, command):
        subprocess.run(self.enter(command), check=True)

    def advertise(self, **lifetimes):
        """Preferred lifetime by prefix; the underscores of the keyword mean colons."""
        prefixes = "".join(
            f"prefix {p.replace('_', ':')}::/64 {{ AdvValidLifetime 7200; AdvPreferredLifetime {s}; }};"
            for p, s in lifetimes.items()
        )
        path = os.path.join(self.folder, "radvd.conf")
        with open(path, "w", encoding="ascii") as file:
            file.write(f"interface rt0 {{ AdvSendAdvert on; MinRtrAdvInterval 3; MaxRtrAdvInterval 4; {prefixes} }};\n")
        if self.radvd:
            return self.radvd.send_signal(signal.SIGHUP)
        command = self.enter(f"radvd -n -m stderr -C {path} -p {self.folder}/radvd.pid")
        with open(os.path.join(self.folder, "radvd.log"), "wb") as log:
            self.radvd = subprocess.Popen(command, stdout=log, stderr=log)
        return None

    def stop(self):
        for process in filter(None, (self.radvd, self.holder)):
            process.kill()
            process.wait()


class Dachost:
    """One dachost per filter, each with a name that it updates in both name servers."""

    def __init__(self, folder, servers, name, pick, interface=None, hold=0):
        self.name, self.pick, self.interface, self.hold = name, pick, interface, hold
        self.words = []
        self.value_file, self.runs_file = (os.path.join(folder, name + suffix) for suffix in (".value", ".runs"))
        conf, hook, self.lines = (os.path.join(folder, name + suffix) for suffix in (".conf", ".hook", ".lines"))
        with open(conf, "w", encoding="ascii") as file:
            file.write(f"hostname = {name}.example\n")
        with open(hook, "w", encoding="ascii") as file:
            file.write(f'#!/bin/sh\nset -e\necho "$DAC_REASON" >>{self.runs_file}\n')
            file.write(f"export NSUPDATE_ZONE=example NSUPDATE_KEY={folder}/key\n")
            for s in servers:
                file.write(f"NSUPDATE_SERVER={s.address} {source}/examples/nsupdate-aaaa\n")
            file.write(f'echo "$DAC_VALUE" >{self.value_file}.new\nmv {self.value_file}.new {self.value_file}\n')
        os.chmod(hook, 0o700)
        self.shift_file, self.shift = os.path.join(folder, name + ".shift"), 0
        self.poll()
        environment = {"LD_PRELOAD": shifted_clock, "CLOCK_SHIFT": self.shift_file, "DAC_CHECK_ABORT": "1"}
        command = [dachost, "run", "--json", "-p", plugin, "--pick", pick, "--hold", str(hold), "--exec", hook]
        command += (["--interface", interface] if interface else []) + [conf]
        self.errors = os.path.join(folder, name + ".errors")
        with open(self.lines, "wb") as out, open(self.errors, "wb") as err:
            self.process = subprocess.Popen(command, env=os.environ | environment, stdout=out, stderr=err)

    def poll(self, seconds=10):
        """Advances the plug-in's clock: after 10 seconds it polls, after 120 it publishes an unchanged value again."""
        self.shift += seconds
        with open(self.shift_file + ".new", "w", encoding="ascii") as file:
            file.write(str(self.shift))
        os.rename(self.shift_file + ".new", self.shift_file)

    def expect(self, addresses):
        """The addresses that the program has got, as long as the list does not change."""
        words = picked(self.pick, addresses, self.interface)
        if words or not self.hold:
            self.words = words
        return self.words

    def runs(self):
        """The reasons of the program's runs."""
        with open(self.runs_file, encoding="ascii") as file:
            return file.read().splitlines()

    def values(self):
        """The JSON lines with a value."""
        with open(self.lines, "rb") as file:
            whole = file.read().rpartition(b"\n")[0].splitlines()
        return [line for line in map(json.loads, whole) if line["event"] == "value"]

    def hook_value(self):
        try:
            with open(self.value_file, encoding="ascii") as file:
                return file.read().strip()
        except FileNotFoundError:
            return None

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(WAIT_SECONDS)
        with open(self.errors, encoding="utf-8") as file:
            return status, [line for line in file if "wrk_process success" not in line]


class Trial(unittest.TestCase):
    filters = {"all": {}, "global": {}, "stable": {}}  # more settings by name, which begins with the filter's

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        key = f'key gateway {{ algorithm hmac-sha256; secret "{SECRET}"; }};\n'
        with open(self.folder + "/key", "w", encoding="ascii") as file:
            file.write(key)
        bind = key + "zone example { type primary; file \"example.zone\"; max-records-per-type 400;"
        bind += " update-policy { grant gateway subdomain example. AAAA; }; };"
        knot = f"key:\n  - id: gateway\n    algorithm: hmac-sha256\n    secret: {SECRET}\n"
        knot += "acl:\n  - id: gateway\n    key: gateway\n    action: update\n    update-type: AAAA\n"
        knot += "zone:\n  - domain: example\n    acl: gateway"
        self.servers = []
        for server, text in ((Bind, bind), (Knot, knot)):
            self.servers.append(server(f"{self.folder}/{server.__name__}", text, records=ZONE))
            self.addCleanup(self.servers[-1].stop)
        self.addCleanup(self.remove_interface)
        self.router = Router(self.folder)
        self.addCleanup(self.router.stop)
        self.hosts = []
        sysctl("conf/up0/use_tempaddr", 2)
        sysctl("conf/up0/max_desync_factor", 0)
        run("ip link set up0 up")
        for name, settings in self.filters.items():
            host = Dachost(self.folder, self.servers, name, name.partition("-")[0], **settings)
            self.addCleanup(host.process.kill)
            self.hosts.append(host)

    @staticmethod
    def remove_interface():
        subprocess.run(["ip", "link", "del", "up0"], stderr=subprocess.DEVNULL)

    def tearDown(self):
        for host in self.hosts:
            status, errors = host.stop()
            if host.name == "all":  # 300 addresses do not fit into a published value
                errors = [line for line in errors if "addresses: the published value is" not in line]
            errors = self.without_choices(host, errors)
            missing = ["dachost: --interface wan0: no interface has this name now\n"] if "wan0" in host.name else []
            self.assertEqual((status, errors), (0, missing), host.name)

    def without_choices(self, host, errors):
        """Removes the lines that report that no address passes the filter, and that one does, which alternate."""
        choices = [line for line in errors if " passes --" in line]
        for line, begin in zip(choices, itertools.cycle(("none", "at least one"))):
            self.assertTrue(line.startswith(f"dachost: addresses: {begin} passes --"), (host.name, choices))
        return [line for line in errors if line not in choices]

    # ------------------------------------------------------------ observation

    def expected(self, addresses, with_list):
        for host in self.hosts:
            words = host.expect(addresses)
            yield f"{host.name}: published text", published_text(addresses)
            yield f"{host.name}: picked", picked(host.pick, addresses, host.interface)
            if with_list:
                yield f"{host.name}: addresses", [a.as_json() for a in addresses]
            yield f"{host.name}: DAC_VALUE", ",".join(words) or "null"
            for server in self.servers:
                yield f"{host.name}: {type(server).__name__}", sorted(words)

    def seen(self, with_list):
        for host in self.hosts:
            newest = ([{}] + host.values())[-1]
            yield f"{host.name}: published text", newest.get("value")
            yield f"{host.name}: picked", newest.get("picked")
            if with_list:
                all_addresses = [a | {"flags": sorted(a["flags"])} for a in newest.get("addresses") or []]
                yield f"{host.name}: addresses", all_addresses
            yield f"{host.name}: DAC_VALUE", host.hook_value()
            for server in self.servers:
                yield f"{host.name}: {type(server).__name__}", server.dig(host.name + ".example", "AAAA")

    def await_addresses(self, condition, what):
        eventually(lambda: condition(kernel_addresses()), lambda: f"{what}: {kernel_addresses()}")

    def check(self, poll=True):
        """Waits until everything follows from the kernel's list, which does not change meanwhile. With `poll` values
        are published all the time, with the whole list. Without it dachost has to see by itself what changes."""
        end = time.monotonic() + WAIT_SECONDS
        next_poll = 0
        while True:
            if poll and time.monotonic() >= next_poll:
                next_poll = time.monotonic() + 1
                for host in self.hosts:
                    host.poll(120)
            before = kernel_addresses()
            seen, expected = dict(self.seen(poll)), dict(self.expected(before, poll))
            if seen == expected and kernel_addresses() == before:
                return before
            if time.monotonic() >= end:
                self.maxDiff = None
                self.assertEqual(seen, expected, f"with {before}")
                self.fail(f"the kernel's list does not rest: {before}, {kernel_addresses()}")
            time.sleep(0.1)


def usable(addresses, prefix):
    return [a for a in addresses if a.ip in ipaddress.IPv6Network(prefix) and "tentative" not in a.flags]


class Prefixes(Trial):
    def test_the_records_follow_prefixes_and_temporary_addresses(self):
        self.assertEqual(published_text(self.check()), "null")

        self.router.advertise(**{"2001_db8_1": 3600})
        self.await_addresses(lambda all: len(usable(all, "2001:db8:1::/64")) == 2, "an autoconfigured prefix")
        appeared = self.check()
        self.assertEqual([len(picked(which, appeared)) for which in self.filters], [2, 2, 1])
        self.assert_unchanged_values_run_no_program()

        # A temporary address is replaced by another.
        sysctl("conf/up0/temp_prefered_lft", 12)
        self.await_addresses(lambda all: any({"temporary", "deprecated"} <= a.flags for a in all), "a rotation")
        sysctl("conf/up0/temp_prefered_lft", 3600)
        rotated = self.check(poll=False)
        self.assertGreaterEqual(sum("temporary" in a.flags for a in rotated), 2)
        self.assertEqual(picked("stable", rotated), picked("stable", appeared))

        # Renumbering: a new prefix is advertised, then the old one is deprecated.
        self.router.advertise(**{"2001_db8_1": 3600, "2001_db8_2": 3600})
        self.await_addresses(lambda all: len(usable(all, "2001:db8:2::/64")) == 2, "a new prefix")
        self.assertEqual(len(picked("stable", self.check())), 2)
        self.router.advertise(**{"2001_db8_1": 0, "2001_db8_2": 3600})
        self.await_addresses(lambda all: all_deprecated(usable(all, "2001:db8:1::/64")), "a deprecated prefix")
        renumbered = self.check(poll=False)
        self.assertEqual(published_text(renumbered).count("2001:db8:1:"), len(usable(renumbered, "2001:db8:1::/64")))
        stable = picked("stable", renumbered)
        self.assertEqual(len(stable), 1)
        self.assertIn(ipaddress.IPv6Address(stable[0]), ipaddress.IPv6Network("2001:db8:2::/64"))

    def assert_unchanged_values_run_no_program(self):
        before = [host.runs() for host in self.hosts]
        for host in self.hosts * 2:
            published = len(host.values())
            host.poll(120)
            eventually(lambda: len(host.values()) > published, "an unchanged value")  # noqa: B023
        self.check()
        self.assertEqual([host.runs() for host in self.hosts], before)
        for runs in before:
            self.assertEqual((runs[0], set(runs[1:])), ("first", {"change"}))


def all_deprecated(addresses):
    return all("deprecated" in a.flags for a in addresses)


class Detection(Trial):
    def test_addresses_that_may_be_another_machines_are_not_picked(self):
        run("ip -6 addr add 2001:db8:1::10/64 dev up0 nodad")
        self.router.run("ip -6 addr add 2001:db8:1::d0/64 dev rt0 nodad")

        run("ip -6 addr add 2001:db8:1::d0/64 dev up0")
        self.await_addresses(lambda all: any("dadfailed" in a.flags for a in all), "a failed detection")
        failed = self.check()
        self.assertIn("2001:db8:1::d0", published_text(failed).split(","))
        self.assertEqual([picked(which, failed) for which in ("global", "stable")], [["2001:db8:1::10"]] * 2)

        # Eight probes, one per second.
        sysctl("conf/up0/dad_transmits", 8)
        run("ip -6 addr add 2001:db8:1::20/64 dev up0")
        tentative = self.check()
        self.assertTrue(any(str(a.ip) == "2001:db8:1::20" and "tentative" in a.flags for a in tentative))
        self.assertEqual(picked("stable", tentative), ["2001:db8:1::10"])
        self.await_addresses(lambda all: usable(all, "2001:db8:1::20/128"), "the end of a slow detection")
        self.assertIn("2001:db8:1::20", picked("stable", self.check(poll=False)))


class Link(Trial):
    filters = Trial.filters | {"global-wan0": {"interface": "wan0"}, "stable-held": {"hold": 3600}}

    def test_the_records_follow_the_link_and_many_addresses(self):
        self.router.advertise(**{"2001_db8_1": 3600})
        self.await_addresses(lambda all: len(usable(all, "2001:db8:1::/64")) == 2, "an autoconfigured prefix")
        first = self.check()

        run("ip link set up0 down")
        self.assertEqual(published_text(self.check()), "null")
        held = next(host for host in self.hosts if host.hold)
        self.assertEqual(held.hook_value(), picked("stable", first)[0])
        run("ip link set up0 up")
        self.await_addresses(lambda all: len(usable(all, "2001:db8:1::/64")) == 2, "the prefix again")
        again = self.check()
        self.assertEqual([len(picked("global", again, i)) for i in (None, "wan0")], [2, 0])

        run("ip link set up0 down")
        run("ip link set up0 name wan0")
        self.addCleanup(subprocess.run, ["ip", "link", "del", "wan0"])
        run("ip link set wan0 up")
        self.await_addresses(lambda all: len(usable(all, "2001:db8:1::/64")) == 2, "the prefix after the renaming")
        renamed = self.check()
        self.assertEqual([len(picked("global", renamed, i)) for i in (None, "wan0")], [2, 2])

        many = "".join(f"addr add 2001:db8:1::1:{n:x}/64 dev wan0 nodad\n" for n in range(1, 301))
        run("ip -6 -batch -", input=many, text=True)
        self.assertEqual(len(picked("stable", self.check())), 301)


if __name__ == "__main__":
    enter_network()
    dachost, plugin, shifted_clock = sys.argv[1:4]
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
