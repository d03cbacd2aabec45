"""BIND and Knot on the loopback interface of a network namespace, with zones that take signed updates."""

import os
import shutil
import signal
import subprocess
import sys
import time

WAIT_SECONDS = 20

ZONE = """$TTL 300
@ SOA ns hostmaster 1 3600 600 86400 60
@ NS ns
ns A 127.0.0.1
ns AAAA 2001:db8::53
"""


def enter_network():
    """Runs this program again in new user and network namespaces, with the loopback interface up."""
    if "IN_NETWORK" not in os.environ:
        os.environ["IN_NETWORK"] = "1"
        os.execvp("unshare", ["unshare", "-rn", sys.executable, *sys.argv])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def eventually(condition, what):
    end = time.monotonic() + WAIT_SECONDS
    while not condition():
        if time.monotonic() >= end:
            raise AssertionError(f"waited {WAIT_SECONDS} s for: {what() if callable(what) else what}")
        time.sleep(0.02)


class NameServer:
    """A server in `directory`, with the addition `text` to its configuration."""

    port = 53

    def __init__(self, directory, text, zone="example", records=ZONE):
        self.directory = directory
        self.zone = zone
        os.makedirs(directory, exist_ok=True)
        self.write(f"{zone}.zone", records)
        self.write("conf", self.configuration(text))
        self.log = os.path.join(directory, "log")
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(self.command(), stdout=log, stderr=log)
        eventually(lambda: self.dig(zone, "SOA"), self.read_log)

    def write(self, name, text):
        with open(os.path.join(self.directory, name), "w", encoding="utf-8") as file:
            file.write(text)

    def read_log(self):
        with open(self.log, encoding="utf-8") as file:
            return file.read()

    def dig(self, name, kind):
        """The record data, sorted; an empty list when there are none or the server does not answer."""
        command = ["dig", "+short", "+time=2", "+tries=1", f"@{self.address}", kind, name]
        answer = subprocess.run(command, stdout=subprocess.PIPE, text=True).stdout
        return sorted(line for line in answer.splitlines() if not line.startswith(";"))

    def serial(self):
        return int(self.dig(self.zone, "SOA")[0].split()[2])

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(WAIT_SECONDS)


class Bind(NameServer):
    address = "127.0.0.1"

    def command(self):
        # Security modules confine the program by its path, to folders of the system: a copy may read `directory`.
        named = shutil.copy("/usr/sbin/named", self.directory)
        return [named, "-g", "-n", "1", "-c", os.path.join(self.directory, "conf")]

    def configuration(self, text):
        return (
            f'options {{ directory "{self.directory}"; listen-on {{ {self.address}; }}; listen-on-v6 {{ none; }};'
            " pid-file none; session-keyfile none; recursion no; dnssec-validation no; empty-zones-enable no;"
            f" notify no; }};\ncontrols {{ }};\n{text}\n"
        )


class Knot(NameServer):
    address = "127.0.0.2"

    def command(self):
        return ["/usr/sbin/knotd", "-c", os.path.join(self.directory, "conf")]

    def configuration(self, text):
        return (
            f"server:\n  rundir: {self.directory}\n  listen: {self.address}@{self.port}\n"
            f"database:\n  storage: {self.directory}\ntemplate:\n  - id: default\n    storage: {self.directory}\n{text}\n"
        )
