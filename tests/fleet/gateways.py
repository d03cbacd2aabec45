"""Gateways: dachost with examples/nsupdate-aaaa and examples/publish-mqtt, each on its own machine."""
import json
import os
import signal
import subprocess
import sys

import network
from carriers import HOST, PORT, PREFIX
from name_servers import ZONE, key_clause

MANAGEMENT = "fd77:0:0:1"  # the prefix that stays: the servers are reached by it
FIRST_NUMBER = 256  # smaller ones are servers


class Gateway(network.Machine):
    def __init__(self, index):
        self.index = index
        self.prefix = 0  # which of the global prefixes is in use
        self.process = None  # process id of the publisher
        super().__init__(f"gw{index:04}", FIRST_NUMBER + index, [f"{MANAGEMENT}::{index:x}/48", self.global_address(0)])

    def global_address(self, prefix):
        return f"2001:db8:{prefix + 1:x}::{self.index:x}/64"

    @property
    def management_address(self):
        return f"{MANAGEMENT}::{self.index:x}"

    @property
    def host(self):
        return f"{self.name}.{ZONE}"

    @property
    def record(self):
        """What the name record must hold."""
        return frozenset({self.global_address(self.prefix).partition("/")[0]})

    @property
    def value(self):
        """What the subscriber must see."""
        return self.record | {self.management_address}

    def renumber(self):
        old = self.global_address(self.prefix)
        self.prefix += 1
        network.replace_address(self, old, self.global_address(self.prefix))

    # ------------------------------------------------------------ software

    def configure(self, folder, secret, password):
        """Writes what an installer puts on the machine."""
        self.folder = os.path.join(folder, self.name)
        os.makedirs(self.folder + "/state")
        for name, text in {
            "gateway.conf": f"hostname = {self.host}\n",
            "tsig.key": key_clause(self.host, secret),
            "mosquitto_pub": f"-u {self.name}\n-P {password}\n",
        }.items():
            with open(f"{self.folder}/{name}", "w", encoding="utf-8") as f:
                f.write(text)

    def environment(self, programs, primary):
        return {
            "PATH": f"{programs}:/usr/sbin:/usr/bin:/sbin:/bin",
            "HOME": self.folder,
            "XDG_CONFIG_HOME": self.folder,
            "STATE_DIRECTORY": self.folder + "/state",
            "NSUPDATE_SERVER": primary,
            "NSUPDATE_ZONE": ZONE,
            "NSUPDATE_KEY": self.folder + "/tsig.key",
        }

    def prepare(self, fleet):
        """Its software begins at the launcher's next release()."""
        arguments = [self.folder + "/gateway.conf", f"{PREFIX}/{self.name}", "-h", HOST, "-p", str(PORT)]
        arguments += ["--cafile", fleet.folder + "/ca.pem", "-k", str(fleet.options.keepalive)]
        environment = self.environment(fleet.programs, fleet.primary_address)
        self.process = fleet.launcher.prepare(self.name, arguments, environment, self.folder + "/log")

    def kill(self):
        """SIGKILL to all programs of the gateway at once, as if the machine had lost its power."""
        os.killpg(self.process, signal.SIGKILL)

    def log_end(self):
        with open(self.folder + "/log", encoding="utf-8", errors="replace") as log:
            return log.read()[-1000:]


class Launcher:
    """The process that starts examples/publish-mqtt for the gateways."""

    def __init__(self, program):
        here = os.path.dirname(os.path.abspath(__file__))
        command = [sys.executable, here + "/launcher.py", program]
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def prepare(self, machine, arguments, environment, log):
        """The process id of a program that begins at the next release()."""
        order = {"machine": machine, "arguments": arguments, "environment": environment, "log": log}
        self.process.stdin.write(json.dumps(order) + "\n")
        self.process.stdin.flush()
        return int(self.process.stdout.readline())

    def release(self):
        self.process.stdin.write("release\n")
        self.process.stdin.flush()


def write_host_program(folder, options):
    """Puts a program dachost on the gateways' PATH that adds the name record to what publish-mqtt starts."""
    extra = f"--exec '{options.examples}/nsupdate-aaaa' --pick stable"
    if options.splay:
        extra += f" --splay {options.splay}"
    os.makedirs(folder)
    with open(folder + "/dachost", "w", encoding="utf-8") as f:
        f.write(f"#!/bin/sh\nshift  # run\nexec '{options.dachost}' run -p '{options.plugin}' {extra} \"$@\"\n")
    os.chmod(folder + "/dachost", 0o755)
