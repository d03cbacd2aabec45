#!/usr/bin/python3
"""doc/dns.md, followed word for word with BIND and with Knot, and the two scripts that it sets up."""

import os
import re
import socket
import subprocess
import sys
import tempfile
import unittest

source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../..")
sys.path.insert(0, os.path.join(source, "tests/support"))
sys.dont_write_bytecode = True
from name_servers import ZONE, Bind, Knot, enter_network  # noqa: E402
from special_files import special_files  # noqa: E402

SECOND = ["2001:db8:2::10", "2001:db8:2::20"]


def section(title):
    with open(os.path.join(source, "doc/dns.md"), encoding="utf-8") as file:
        return re.search(rf"(?ms)^## {re.escape(title)}\n(.*?)(?=^## |\Z)", file.read())[1]


def blocks(text):
    return re.findall(r"(?ms)^```[a-z]*\n(.*?)^```$", text)


def commands(block):
    return [line[2:] for line in block.splitlines() if line.startswith("# ")]


def shell(script, **settings):
    return subprocess.run(["sh", "-ec", script], cwd=os.path.join(source, "examples"), env=os.environ | settings,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)  # fmt: skip


class Server:
    """The tests with a server that is set up as the page says."""

    def set_up(self, also=(), records=ZONE):
        """`also`: names that the key may change, in addition to the page's configuration."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        make_keys, conf, _ = blocks(section("The server: " + self.product))
        make_keys = "\n".join(c for c in commands(make_keys) if not c.startswith("chgrp"))
        names = ["gateway.example.", *also]
        grants = " ".join(f"grant gateway name {name} AAAA;" for name in names)
        conf = conf.replace("grant gateway name gateway.example. AAAA;", grants)
        conf = conf.replace("update-owner-name: gateway.example.", f"update-owner-name: [{', '.join(names)}]")
        for path in ("/etc/bind", "/etc/knot", "/var/lib/bind"):
            make_keys, conf = make_keys.replace(path, folder.name), conf.replace(path, folder.name)
        self.assertEqual(shell(make_keys).stdout, "")
        self.key = folder.name + "/gateway.key"
        self.server = self.program(folder.name, conf, records=records)
        self.addCleanup(self.server.stop)

    def settings(self, **more):
        defaults = {"NSUPDATE_SERVER": self.server.address, "NSUPDATE_ZONE": "example", "NSUPDATE_KEY": self.key}
        return defaults | more

    def aaaa(self, value, name="gateway.example", **more):
        return shell("./nsupdate-aaaa", DAC_TAG=name, DAC_VALUE=value, **self.settings(**more))

    def hosts(self, value, hosts="camera=::aaa1 nas=mac(00:11:22:33:44:55)", **more):
        return shell("./nsupdate-hosts", DAC_VALUE=value, **self.settings(NSUPDATE_HOSTS=hosts, **more))

    def assert_runs(self, ended, output=""):
        self.assertEqual((ended.returncode, ended.stdout), (0, output))

    def assert_fails(self, ended, message):
        self.assertNotEqual(ended.returncode, 0)
        self.assertRegex(ended.stdout, message)

    def follow(self, block):
        """Runs a block's commands; the lines between them are their output."""
        script = block.replace("2001:db8::53", self.server.address).replace("/etc/ip6dns/tsig.key", self.key)
        script = [c for c in commands(script) if not c.startswith(("apt", "cd "))]
        output = "".join(line + "\n" for line in block.splitlines() if not line.startswith("# "))
        self.assert_runs(shell("\n".join(script), **self.settings()), output)

    # ------------------------------------------------------------ the page

    def test_updates_the_name(self):
        self.set_up()
        self.follow(blocks(section("The gateway"))[0])

    def test_deletes_the_old_name(self):
        self.set_up(also=["old.example."], records=ZONE + "old AAAA 2001:db8::10\n")
        self.follow(blocks(section("The gateway"))[2])
        self.assertEqual(self.server.dig("old.example", "AAAA"), [])

    def test_updates_the_hosts(self):
        self.set_up(also=["camera.example.", "nas.example."])
        self.follow(blocks(section("Other hosts in the prefix"))[0])

    def write_keys(self):
        """Writes key files that the server or the scripts refuse. Returns their directory."""
        secret = r"[A-Za-z0-9+/]{43}="
        with open(self.key, encoding="utf-8") as file:
            key = file.read()
        others = {"wrong": re.sub(secret, "A" * 43 + "=", key), "unknown": key.replace("gateway", "other"), "empty": "",
                  "algorithm": key.replace("hmac-sha256", "hmac-sha512")}  # fmt: skip
        for name, text in others.items():
            self.server.write(name, text)
        return self.server.directory

    def assert_lists(self, title, seen, differences):
        """Each message of the section's table is what the script printed. Knot: the numbers of the rows that apply."""
        listed = re.findall(r"(?m)^\| `(.*?)` \|", section(title))
        self.assertEqual(len(listed), len(seen))
        for row, ended in enumerate(seen):
            expected = differences.get(row, row) if self.product == "Knot DNS" else row
            if expected is None:
                self.assert_runs(ended)
            else:
                self.assert_fails(ended, re.escape(listed[expected]).replace(r"\.\.\.", ".*") + r"\n")

    def test_lists_the_messages(self):
        self.set_up(records=ZONE + "alias CNAME ns\n", also=["alias.example."])
        keys = self.write_keys()
        seen = [
            self.aaaa("2001:db8::1", "ns.example"),
            self.aaaa("2001:db8::1", NSUPDATE_KEY=keys + "/unknown"),
            self.aaaa("2001:db8::1", NSUPDATE_KEY=keys + "/wrong"),
            self.aaaa("2001:db8::1", "gateway.test", NSUPDATE_ZONE="test"),
            self.aaaa("2001:db8::1", "gateway.test"),
            self.aaaa(",".join(f"2001:db8::{n}" for n in range(101))),
            self.aaaa("2001:db8::1", "alias.example"),
            self.aaaa("2001:db8::1", NSUPDATE_KEY=keys + "/empty"),
        ]
        self.server.stop()
        seen.append(self.aaaa("2001:db8::1"))
        # As the rows say: Knot reports a name as an unknown key, and has no limit.
        self.assert_lists("The gateway", seen, {0: 1, 4: 1, 5: None})

    def test_lists_the_messages_for_hosts(self):
        self.set_up(records=ZONE + "alias CNAME ns\n", also=["alias.example.", "camera.example."])
        keys = self.write_keys()
        seen = [
            self.hosts("2001:db8::1", "camera=::1 nas=::2"),
            self.hosts("2001:db8::1", "camera=::1", NSUPDATE_KEY=keys + "/unknown"),
            self.hosts("2001:db8::1", "camera=::1", NSUPDATE_KEY=keys + "/wrong"),
            self.hosts("2001:db8::1", "camera=::1", NSUPDATE_ZONE="test"),
            self.hosts("2001:db8::1", " ".join(f"camera=::{n:x}" for n in range(1, 102))),
            self.hosts("2001:db8::1", "camera=::1 alias=::2"),
            self.hosts("2001:db8::1", "camera.test.=::1"),
            self.hosts("2001:db8::1", "camera=::1", NSUPDATE_KEY=keys + "/empty"),
        ]
        self.server.stop()
        seen.append(self.hosts("2001:db8::1", "camera=::1"))
        self.assert_lists("Other hosts in the prefix", seen, {0: 1, 4: None})

    def assert_reports(self, title, reason, ended):
        """The message is the one that the section's table lists with the reason."""
        message = re.search(rf"(?m)^\| `(.*?)` \| [^|]*{reason}", section(title))[1]
        self.assert_fails(ended, re.escape(message).replace(r"\.\.\.", ".*") + r"\n")

    def test_a_wrong_algorithm_or_secret_is_reported_as_listed(self):
        self.set_up(also=["camera.example."])
        keys = self.write_keys()
        algorithm, wrong = {"NSUPDATE_KEY": keys + "/algorithm"}, {"NSUPDATE_KEY": keys + "/wrong"}
        first = "Knot DNS: or the key may not change" if self.product == "Knot DNS" else "secret differs .* checks first"
        for title, update, granted, refused in (
            ("The gateway", self.aaaa, "gateway.example", "ns.example"),
            ("Other hosts in the prefix", self.hosts, "camera=::1", "camera=::1 nas=::2"),
        ):
            self.assert_reports(title, "another algorithm", update("2001:db8::1", granted, **algorithm))
            self.assert_reports(title, "secret differs", update("2001:db8::1", granted, **wrong))
            self.assert_reports(title, first, update("2001:db8::1", refused, **wrong))

    # ------------------------------------------------------------ nsupdate-aaaa

    def test_the_key_may_change_one_name_only(self):
        self.set_up()
        self.assert_fails(self.aaaa("2001:db8::bad", "ns.example"), "update failed: ")
        self.assertEqual(self.server.dig("ns.example", "AAAA"), ["2001:db8::53"])

    def test_a_CNAME_fails_and_stays(self):
        self.set_up(records=ZONE + "gateway CNAME ns\n")
        self.assert_fails(self.aaaa("2001:db8::10"), "nsupdate-aaaa: gateway.example is a CNAME; ")
        self.assert_fails(self.aaaa("null"), "nsupdate-aaaa: gateway.example is a CNAME; ")
        self.assertEqual(self.server.dig("gateway.example", "CNAME"), ["ns.example."])

    def test_a_malformed_list_changes_nothing(self):
        self.set_up()
        self.assert_runs(self.aaaa(",".join(SECOND)))
        for value in ("192.0.2.1", "2001:db8::1::2", "2001:db8::1,:", "12345::", "2001:db8:1", ":::,2001:db8::1"):
            with self.subTest(value):
                self.assert_fails(self.aaaa(value), "bad IPv6 address")
                self.assertEqual(self.server.dig("gateway.example", "AAAA"), SECOND)

    def test_NSUPDATE_NULL_keep_leaves_the_records(self):
        self.set_up()
        self.assert_runs(self.aaaa(",".join(SECOND)))
        self.assert_runs(self.aaaa("null", NSUPDATE_NULL="keep"))
        self.assertEqual(self.server.dig("gateway.example", "AAAA"), SECOND)
        self.assert_runs(self.aaaa("null"))
        self.assertEqual(self.server.dig("gateway.example", "AAAA"), [])

    # ------------------------------------------------------------ nsupdate-hosts

    both = ["camera.example.", "nas.example."]

    def test_hosts_change_in_one_update(self):
        records = ZONE + "camera AAAA 2001:db8:1::1\ncamera AAAA 2001:db8:1::2\ncamera A 192.0.2.1\n"
        self.set_up(also=self.both, records=records)
        self.assert_runs(self.hosts(",".join(SECOND), NSUPDATE_TTL="77"))
        self.assertEqual(self.server.dig("camera.example", "AAAA"), ["2001:db8:2::aaa1"])
        self.assertEqual(self.server.dig("camera.example", "A"), ["192.0.2.1"])
        self.assertEqual(self.server.dig("nas.example", "AAAA"), ["2001:db8:2:0:211:22ff:fe33:4455"])
        self.assertEqual(self.server.dig("ns.example", "AAAA"), ["2001:db8::53"])
        self.assertEqual(self.server.serial(), 2)
        dig = f"dig @{self.server.address} +noall +answer nas.example AAAA"
        self.assertEqual(shell(dig).stdout.split()[1], "77")

    def test_a_host_may_have_several_addresses(self):
        self.set_up(also=self.both)
        self.assert_runs(self.hosts("2001:db8:2::1", "camera=::1 camera.example.=::2"))
        self.assertEqual(self.server.dig("camera.example", "AAAA"), ["2001:db8:2::1", "2001:db8:2::2"])

    def test_NSUPDATE_NULL_keep_leaves_the_hosts(self):
        self.set_up(also=self.both)
        self.assert_runs(self.hosts("2001:db8:2::1"))
        self.assert_runs(self.hosts("null", NSUPDATE_NULL="keep"))
        self.assertEqual(self.server.dig("camera.example", "AAAA"), ["2001:db8:2::aaa1"])
        self.assert_runs(self.hosts("null"))
        self.assertEqual(self.server.dig("camera.example", "AAAA") + self.server.dig("nas.example", "AAAA"), [])

    def test_one_CNAME_among_the_hosts_stops_the_update(self):
        self.set_up(also=self.both, records=ZONE + "nas CNAME ns\n")
        message = r"^nsupdate-hosts: nas\.example\. is a CNAME; delete that record\n$"
        self.assert_fails(self.hosts("2001:db8:2::1"), message)
        self.assertEqual(self.server.dig("camera.example", "AAAA"), [])

    def test_a_refused_host_stops_the_update(self):
        self.set_up(also=["camera.example."])
        reason = {"BIND": "REFUSED", "Knot DNS": "The peer didn't know the key we used"}[self.product]
        message = rf"^nsupdate-hosts: {self.server.address} refuses the update: {reason}\n$"
        self.assert_fails(self.hosts("2001:db8:2::1"), message)
        self.assertEqual(self.server.dig("camera.example", "AAAA"), [])

    def test_a_wrong_key_changes_no_host(self):
        self.set_up(also=self.both)
        self.server.write("wrong", f'key gateway {{ algorithm hmac-sha256; secret "{"A" * 43}="; }};')
        self.assert_fails(self.hosts("2001:db8::1", NSUPDATE_KEY=self.server.directory + "/wrong"), "^nsupdate-hosts: ")
        self.assertEqual(self.server.serial(), 1)


class WithBind(Server, unittest.TestCase):
    product, program = "BIND", Bind


class WithKnot(Server, unittest.TestCase):
    product, program = "Knot DNS", Knot


class Hosts(unittest.TestCase):
    """nsupdate-hosts without a server."""

    def run_with(self, **settings):
        with tempfile.NamedTemporaryFile("w") as key:
            key.write('key gateway { algorithm hmac-sha256; secret "c2VjcmV0"; };')
            key.flush()
            defaults = {"DAC_VALUE": "2001:db8::1", "NSUPDATE_HOSTS": "a=::1", "NSUPDATE_ZONE": "example",
                        "NSUPDATE_SERVER": "127.0.0.1", "NSUPDATE_KEY": key.name}  # fmt: skip
            ended = shell("./nsupdate-hosts", **(defaults | settings))
        return ended.returncode, ended.stdout.replace(key.name, "KEY")

    def test_an_unusable_setting_is_reported_in_one_line(self):
        form = "NAME=::ADDRESS or NAME=mac(MAC), separated by spaces"
        hosts = f"NSUPDATE_HOSTS: expected {form}, got "
        addresses = "expected addresses separated by commas, or null"
        rows = [
            ({"DAC_VALUE": ""}, "DAC_VALUE is not set; " + addresses),
            ({"DAC_VALUE": "2001:db8::1,"}, f"DAC_VALUE: {addresses}, got '2001:db8::1,'"),
            ({"DAC_VALUE": "none"}, f"DAC_VALUE: {addresses}, got 'none'"),
            ({"NSUPDATE_HOSTS": ""}, "NSUPDATE_HOSTS is not set; expected " + form),
            ({"NSUPDATE_HOSTS": " "}, "NSUPDATE_HOSTS is not set; expected " + form),
            ({"NSUPDATE_HOSTS": "a"}, hosts + "'a'"),
            ({"NSUPDATE_HOSTS": "a=::1 =::2"}, hosts + "'=::2'"),
            ({"NSUPDATE_HOSTS": "a=2001:db8::1"}, hosts + "'a=2001:db8::1'"),
            ({"NSUPDATE_HOSTS": "a=::"}, hosts + "'a=::'"),
            ({"NSUPDATE_HOSTS": "a=0:0:0:1::"}, hosts + "'a=0:0:0:1::'"),
            ({"NSUPDATE_HOSTS": "a=mac(00:11:22:33:44)"}, hosts + "'a=mac(00:11:22:33:44)'"),
            ({"NSUPDATE_HOSTS": "a..b=::1"}, hosts + "'a..b=::1'"),
            ({"NSUPDATE_HOSTS": "a.test.=::1"}, "NSUPDATE_HOSTS: a.test. is not in the zone example."),
            ({"NSUPDATE_ZONE": ""}, "NSUPDATE_ZONE is not set; expected a domain name"),
            ({"NSUPDATE_ZONE": "a..b"}, "NSUPDATE_ZONE: expected a domain name, got 'a..b'"),
            ({"NSUPDATE_SERVER": ""}, "NSUPDATE_SERVER is not set; expected an address or a host name"),
            ({"NSUPDATE_PORT": "domain"}, "NSUPDATE_PORT: expected a number from 1 to 65535, got 'domain'"),
            ({"NSUPDATE_PORT": "65536"}, "NSUPDATE_PORT: expected a number from 1 to 65535, got '65536'"),
            ({"NSUPDATE_TTL": "1h"}, "NSUPDATE_TTL: expected a number of seconds from 0 to 2147483647, got '1h'"),
            ({"NSUPDATE_TIMEOUT": "0"}, "NSUPDATE_TIMEOUT: expected a number of seconds from 1 to 3600, got '0'"),
            ({"NSUPDATE_NULL": "never"}, "NSUPDATE_NULL: expected delete or keep, got 'never'"),
            ({"NSUPDATE_KEY": ""}, "NSUPDATE_KEY is not set; expected a file with one TSIG key"),
            ({"NSUPDATE_KEY": "/no/key"}, "NSUPDATE_KEY: /no/key cannot be read: No such file or directory"),
            *(({"NSUPDATE_KEY": p}, f"NSUPDATE_KEY: {p} is not a regular file") for p in special_files(self)),
        ]
        for settings, message in rows:
            with self.subTest(settings):
                self.assertEqual(self.run_with(**settings), (1, f"nsupdate-hosts: {message}\n"))

    def test_the_key_may_come_from_a_pipe_of_the_shell(self):
        key = 'key gateway { algorithm hmac-sha256; secret "c2VjcmV0"; };'
        settings = {"DAC_VALUE": "2001:db8::1", "NSUPDATE_HOSTS": "a=::1", "NSUPDATE_ZONE": "example",
                    "NSUPDATE_SERVER": "127.0.0.1"}  # fmt: skip
        for pipe in ("/dev/fd/3", "/dev/stdin"):
            with self.subTest(pipe):
                ended = shell(f"echo '{key}' | ./nsupdate-hosts 3</dev/stdin", NSUPDATE_KEY=pipe, **settings)
                self.assertEqual(ended.stdout, "nsupdate-hosts: 127.0.0.1: Connection refused\n")

    def test_a_missing_library_is_named(self):
        with tempfile.TemporaryDirectory() as folder:
            open(folder + "/dns.py", "w").close()  # a module without the parts of dnspython
            message = "nsupdate-hosts: the Python module dns is missing; install the package python3-dnspython\n"
            self.assertEqual(self.run_with(PYTHONPATH=folder), (1, message))

    def test_a_server_that_is_away_is_a_failure(self):
        self.assertEqual(self.run_with(), (1, "nsupdate-hosts: 127.0.0.1: Connection refused\n"))

    def test_the_least_and_the_largest_numbers_are_valid(self):
        for name, number in (("PORT", "65535"), ("TTL", "2147483647"), ("TTL", "0"), ("TIMEOUT", "3600")):
            with self.subTest(name):
                ended = self.run_with(**{"NSUPDATE_" + name: number})
                self.assertEqual(ended, (1, "nsupdate-hosts: 127.0.0.1: Connection refused\n"))

    def run_against(self, answer, **settings):
        """With a server that does `answer`, Python code, for the connection c."""
        code = "import dns.message, dns.query, socket; s = socket.create_server(('127.0.0.1', 53));"
        code += "s.settimeout(20);"  # for a script that does not connect
        code += f"print(flush=True); c, _ = s.accept(); {answer}; input()"
        command = ["/usr/bin/python3", "-c", code]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as server:
            server.stdout.readline()
            ended = self.run_with(**settings)
            server.communicate(b"\n")
        return ended

    def test_a_silent_server_is_a_failure_after_the_timeout(self):
        status, message = self.run_against("pass", NSUPDATE_TIMEOUT="1")
        self.assertEqual(status, 1)
        self.assertRegex(message, "^nsupdate-hosts: 127.0.0.1: .*timed out.*\n$")

    def test_a_server_that_answers_too_slowly_is_a_failure_after_the_timeout(self):
        answer = "import contextlib, time\nwith contextlib.suppress(OSError):\n  c.recv(9999); c.sendall(b'\\0\\x28')\n"
        answer += "  [(c.sendall(b'x'), time.sleep(0.25)) for _ in range(40)]\nc.close()"
        status, message = self.run_against(answer, NSUPDATE_TIMEOUT="1")
        self.assertEqual(status, 1)
        self.assertRegex(message, "^nsupdate-hosts: 127.0.0.1: .*timed out.*\n$")

    def test_a_server_that_takes_no_connection_is_a_failure_after_the_timeout(self):
        with socket.create_server(("127.0.0.1", 53), backlog=0), socket.create_connection(("127.0.0.1", 53)):
            status, message = self.run_with(NSUPDATE_TIMEOUT="1")
        self.assertEqual(status, 1)
        self.assertRegex(message, "^nsupdate-hosts: 127.0.0.1: .*timed out.*\n$")

    def test_a_server_that_closes_the_connection_is_a_failure(self):
        message = "nsupdate-hosts: 127.0.0.1: the connection ended without an answer\n"
        self.assertEqual(self.run_against("c.recv(9999); c.close()"), (1, message))

    def test_an_unsigned_answer_is_a_failure(self):
        answer = "r = dns.message.Message(int.from_bytes(c.recv(9999)[2:4], 'big')); r.flags = 0xA800;"
        ended = self.run_against(answer + "dns.query.send_tcp(c, r)")
        self.assertEqual(ended, (1, "nsupdate-hosts: 127.0.0.1: the answer is not signed\n"))


if __name__ == "__main__":
    enter_network()
    unittest.main()
