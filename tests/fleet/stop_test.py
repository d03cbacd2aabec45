#!/usr/bin/python3
"""No process of the fleet is left however fleet.py ends.  stop_test.py BUILD"""
import os
import signal
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
LIMIT = 60  # seconds


def namespace_of(process):
    try:
        return os.readlink(f"/proc/{process}/ns/pid")
    except OSError:
        return None


def processes():
    return [int(p) for p in os.listdir("/proc") if p.isdigit()]


def descendants():
    found = [os.getpid()]
    for p in found:
        try:
            with open(f"/proc/{p}/task/{p}/children", encoding="ascii") as f:
                found += map(int, f.read().split())
        except OSError:
            pass
    return found


def namespace_of_the_fleet():
    others = {namespace_of(p) for p in descendants()} - {None, namespace_of("self")}
    return others.pop() if others else None


class Stop(unittest.TestCase):
    def check(self, number):
        command = [HERE + "/fleet.py", "3", "--build", BUILD, "--scenarios", "ah"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as fleet:
            while not (line := fleet.stdout.readline()).startswith("a  "):
                self.assertTrue(line, "ended early")
            namespace = namespace_of_the_fleet()
            inside = [p for p in processes() if namespace_of(p) == namespace]
            self.assertGreater(len(inside), 3 * 2 + 4)  # two for each gateway, and the servers
            fleet.send_signal(number)
            fleet.stdout.read()
        end = time.monotonic() + LIMIT
        while any(namespace_of(p) == namespace for p in processes()):
            self.assertLess(time.monotonic(), end, "processes are left")
            time.sleep(0.05)

    def test_SIGINT(self):
        self.check(signal.SIGINT)

    def test_SIGTERM(self):
        self.check(signal.SIGTERM)

    def test_SIGKILL(self):
        self.check(signal.SIGKILL)


if __name__ == "__main__":
    BUILD = sys.argv.pop()
    unittest.main()
