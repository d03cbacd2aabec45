#!/usr/bin/python3
"""examples/metrics-textfile with lines of dachost, read by node_exporter and promtool."""

import json
import os
import resource
import shutil
import socket
import stat
import subprocess
import tempfile
import time
import unittest
import urllib.request

here = os.path.dirname(os.path.abspath(__file__))
examples = os.path.join(here, "../../examples")
LIMIT = 20  # seconds for an event

OLD = [
    {"time": "2026-11-22T10:00:00.000Z", "event": "version", "version": "version 5.0.0.2", "number": 500, "plugin": "p"},
    {"time": "2026-11-22T10:00:00.000Z", "event": "tag", "instance": "gw", "tag": "gw.example", "type": 6, "flag": 1},
    {"time": "2026-11-22T10:00:00.500Z", "event": "value", "instance": "gw", "tag": "gw.example", "type": 6,
     "value": "fd00::5,2001:db8::10"},
    {"time": "2026-11-22T10:02:00.500Z", "event": "value", "instance": "gw", "tag": "gw.example", "type": 6,
     "value": "fd00::5,2001:db8::10"},
]  # fmt: skip
STARTED = 1795341600.0  # 2026-11-22T10:00:00Z

EXPECTED = """\
# HELP ip6dns_info Always 1. The host name that is published, and the version of the plug-in.
# TYPE ip6dns_info gauge
ip6dns_info{name="gw",tag="gw.example",version="version 5.0.0.2"} 1
# HELP ip6dns_addresses Number of addresses that dachost passes on: all published ones, or those that --pick leaves.
# TYPE ip6dns_addresses gauge
ip6dns_addresses{name="gw"} 2
# HELP ip6dns_last_publication_timestamp_seconds When the plug-in published last.
# TYPE ip6dns_last_publication_timestamp_seconds gauge
ip6dns_last_publication_timestamp_seconds{name="gw"} 1795341720.5
# HELP ip6dns_last_change_timestamp_seconds When the addresses changed last.
# TYPE ip6dns_last_change_timestamp_seconds gauge
ip6dns_last_change_timestamp_seconds{name="gw"} 1795341600.5
# HELP ip6dns_publications_total Publications since dachost started.
# TYPE ip6dns_publications_total counter
ip6dns_publications_total{name="gw"} 2
"""


def value(seconds, text, instance="gw", **more):
    when = f"2026-11-22T10:{seconds // 60:02}:{seconds % 60:02}.000Z"
    return {"time": when, "event": "value", "instance": instance, "tag": "gw.example", "type": 6, "value": text, **more}


class Metrics(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.path = os.path.join(self.folder, "ip6dns.prom")

    def start(self, path=None, **options):
        command = [os.path.join(examples, "metrics-textfile"), path or self.path]
        started = subprocess.Popen(command, stdin=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **options)
        self.addCleanup(started.wait)
        self.addCleanup(started.kill)
        return started

    def convert(self, documents):
        """The file after these lines, and what is on standard error."""
        program = self.start()
        errors = program.communicate("".join(d if isinstance(d, str) else json.dumps(d) + "\n" for d in documents))[1]
        self.assertEqual(program.returncode, 0, errors)
        with open(self.path, encoding="utf-8") as f:
            return f.read(), errors

    def read(self):
        try:
            with open(self.path, encoding="utf-8") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def await_text(self, text):
        end = time.monotonic() + LIMIT
        while text not in self.read():
            self.assertLess(time.monotonic(), end, self.read())
            time.sleep(0.05)

    def test_lines_without_a_schema_give_the_expected_file(self):
        self.assertEqual(self.convert(OLD), (EXPECTED, ""))

    def test_each_kind_of_line_gives_the_info(self):
        hook = {"schema": 1, "event": "hook", "instance": "gw", "program": "p", "result": "ok"}
        for lines, tag in ((OLD[1:2], "gw.example"), (OLD[2:3], "gw.example"), ([hook], "")):
            with self.subTest(lines):
                text, errors = self.convert(lines)
                self.assertIn(f'ip6dns_info{{name="gw",tag="{tag}",version=""}} 1\n', text)
                self.assertEqual(errors, "")

    def test_every_user_can_read_the_file(self):
        self.convert(OLD)
        self.assertEqual(stat.S_IMODE(os.stat(self.path).st_mode), 0o644)

    def test_no_address_is_in_the_file(self):
        text = self.convert(OLD)[0]
        self.assertNotIn("2001:db8", text)
        self.assertNotIn("fd00", text)

    def test_picked_addresses_count_where_they_are_known(self):
        two = "fd00::5,2001:db8::10"
        lines = [value(0, two, schema=1, change=True, picked=["2001:db8::10"], addresses=[])]
        self.assertIn('ip6dns_addresses{name="gw"} 1\n', self.convert(lines)[0])
        lines = [value(0, two, schema=1, change=True, picked=None, addresses=None)]
        self.assertIn('ip6dns_addresses{name="gw"} 2\n', self.convert(lines)[0])

    def test_null_is_no_address(self):
        self.assertIn('ip6dns_addresses{name="gw"} 0\n', self.convert([value(0, "null")])[0])

    def test_change_is_the_time_of_the_last_different_value(self):
        text = self.convert([value(0, "2001:db8::1"), value(10, "2001:db8::2"), value(130, "2001:db8::2")])[0]
        self.assertIn(f'ip6dns_last_change_timestamp_seconds{{name="gw"}} {STARTED + 10}\n', text)
        self.assertIn(f'ip6dns_last_publication_timestamp_seconds{{name="gw"}} {STARTED + 130}\n', text)

    def test_failed_hooks_are_counted(self):
        hook = {"schema": 1, "time": "2026-11-22T10:00:01.000Z", "event": "hook", "instance": "gw", "program": "p"}
        lines = [value(0, "2001:db8::1", schema=1, picked=["2001:db8::1"])]
        self.assertIn('ip6dns_hook_failures_total{name="gw"} 0\n', self.convert(lines)[0])
        lines += [hook | {"result": r, "text": ""} for r in ("failed", "stuck", "dropped", "ok")]
        self.assertIn('ip6dns_hook_failures_total{name="gw"} 3\n', self.convert(lines)[0])

    def test_instances_have_separate_samples(self):
        text = self.convert([value(0, "2001:db8::1"), value(0, "2001:db8::1,fd00::1", "other")])[0]
        self.assertIn('ip6dns_addresses{name="gw"} 1\nip6dns_addresses{name="other"} 2\n', text)
        self.assertEqual(text.count("# TYPE ip6dns_addresses "), 1)

    def test_labels_are_escaped(self):
        text = self.convert([value(0, "null", 'a"b\\c\nd')])[0]
        self.assertIn(r'ip6dns_addresses{name="a\"b\\c\nd"} 0', text)

    def test_lines_of_other_programs_are_reported_and_ignored(self):
        text, errors = self.convert(["no JSON\n", "[1]\n", '{"event":"value"}\n', *OLD])
        self.assertEqual(text, EXPECTED)
        self.assertEqual(errors.count("not an event of dachost"), 3)

    def test_unknown_events_are_ignored(self):
        self.assertEqual(self.convert([*OLD, {"event": "message", "schema": 1}, {"event": "new"}]), (EXPECTED, ""))

    def test_promtool_accepts_the_file_and_refuses_another(self):
        text = self.convert([value(0, "2001:db8::1", schema=1, picked=[]), *OLD])[0]
        check = ["promtool", "check", "metrics"]
        good = subprocess.run(check, input=text, capture_output=True, text=True)
        self.assertEqual((good.returncode, good.stdout, good.stderr), (0, "", ""))
        bad = subprocess.run(check, input=text.replace("_total", "_sum"), capture_output=True, text=True)
        self.assertNotEqual(bad.returncode, 0)

    def test_reader_never_sees_half_a_file(self):
        program = self.start()
        lines = [json.dumps(value(0, "2001:db8::1", f"gw{i}")) + "\n" for i in range(300)]
        program.stdin.write("".join(lines))
        program.stdin.flush()
        self.await_text('name="gw299"')
        whole, seen, versions = self.read().count("\n"), 0, set()
        begin = time.monotonic()
        end = begin + 4
        while time.monotonic() < end:
            program.stdin.write(lines[seen % 300])
            program.stdin.flush()
            text = self.read()
            self.assertEqual(text.count("\n"), whole)
            versions.add(text)
            seen += 1
        self.assertGreater(len(versions), 2)
        self.assertLessEqual(len(versions), time.monotonic() - begin + 2, "at most one per second")
        program.stdin.close()
        self.assertEqual(program.wait(LIMIT), 0)
        self.assertEqual(os.listdir(self.folder), ["ip6dns.prom"])

    def test_full_disk_leaves_the_old_file(self):
        with open(self.path, "w", encoding="utf-8") as f:
            f.write("old\n")
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))  # noqa: E731
        program = self.start(preexec_fn=limit)
        self.assertEqual(program.communicate(json.dumps(OLD[2]) + "\n")[1],
                         f"metrics-textfile: {self.path}: File too large\n")  # fmt: skip
        self.assertEqual(program.returncode, 1)
        self.assertEqual(self.read(), "old\n")
        self.assertEqual(os.listdir(self.folder), ["ip6dns.prom"])

    def test_only_the_directory_of_the_file_is_written(self):
        for path, directory in ((self.path, "/proc"), ("ip6dns.prom", self.folder)):  # no file can be created in /proc
            with self.subTest(path):
                program = self.start(path, cwd=directory)
                self.assertEqual(program.communicate(json.dumps(OLD[2]) + "\n")[1], "")
                self.assertIn('name="gw"', self.read())
                os.remove(self.path)

    def test_usage_is_printed(self):
        for arguments, status in ((["-h"], 0), (["--help"], 0), ([], 2), (["a.prom", "b.prom"], 2), (["-h", "b"], 2)):
            with self.subTest(arguments):
                command = [os.path.join(examples, "metrics-textfile"), *arguments]
                ended = subprocess.run(command, cwd=self.folder, input="", capture_output=True, text=True)
                self.assertEqual(ended.returncode, status)
                usage, other = (ended.stderr, ended.stdout) if status else (ended.stdout, ended.stderr)
                self.assertIn("dachost run --json /etc/ip6dns/*.conf | metrics-textfile /", usage)
                self.assertEqual(other, "")

    def test_file_that_cannot_be_written_is_named(self):
        program = self.start("/nonexistent/ip6dns.prom")
        self.assertEqual(program.communicate(json.dumps(OLD[0]) + "\n")[1],
                         "metrics-textfile: /nonexistent/ip6dns.prom: No such file or directory\n")  # fmt: skip
        self.assertEqual(program.returncode, 1)

    def test_file_that_node_exporter_ignores_is_refused(self):
        program = self.start(self.path + ".txt")
        self.assertIn("end with .prom", program.communicate()[1])
        self.assertEqual(program.returncode, 2)

    def test_node_exporter_exports_the_file(self):
        self.convert(OLD)
        with socket.create_server(("127.0.0.1", 0)) as s:
            address = f"127.0.0.1:{s.getsockname()[1]}"
        command = ["prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile"]
        command += [f"--collector.textfile.directory={self.folder}", f"--web.listen-address={address}"]
        exporter = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        self.addCleanup(exporter.wait)
        self.addCleanup(exporter.kill)
        end = time.monotonic() + LIMIT
        while True:
            try:
                with urllib.request.urlopen(f"http://{address}/metrics", timeout=LIMIT) as answer:
                    text = answer.read().decode()
                break
            except OSError:
                self.assertLess(time.monotonic(), end)
                time.sleep(0.1)
        self.assertIn("node_textfile_scrape_error 0", text)
        self.assertIn('ip6dns_info{name="gw",tag="gw.example",version="version 5.0.0.2"} 1', text)
        self.assertIn('ip6dns_publications_total{name="gw"} 2', text)


class Rules(unittest.TestCase):
    def check(self, change):
        with tempfile.TemporaryDirectory() as folder:
            shutil.copy(os.path.join(here, "metrics_rules.yml"), folder)
            with open(os.path.join(examples, "ip6dns.rules.yml"), encoding="utf-8") as f:
                rules = f.read()
            self.assertIn(change[0], rules)
            with open(folder + "/ip6dns.rules.yml", "w", encoding="utf-8") as f:
                f.write(rules.replace(*change))
            command = ["promtool", "test", "rules", folder + "/metrics_rules.yml"]
            done = subprocess.run(command, capture_output=True, text=True)
            return done.returncode == 0, done.stdout + done.stderr

    def test_alerts_fire_in_their_cases(self):
        passes, output = self.check(("> 300", "> 300"))
        self.assertTrue(passes, output)

    def test_each_changed_threshold_is_found(self):
        for change in (("> 300", "> 600"), ("== 0", "< 0"), ("for: 10m", "for: 5m"), ("> 5", "> 50"), ("> 5", "> 0")):
            with self.subTest(change):
                self.assertFalse(self.check(change)[0])


if __name__ == "__main__":
    unittest.main()
