"""Machines that share one bridge: each is a network namespace with the interface eth0.

Neighbour entries are permanent on both sides and the bridge floods nothing to gateways. The kernel has one table of
1024 learned neighbours for all namespaces together, and one multicast to 1000 ports is 1000 packets.
"""
import ctypes
import ipaddress
import os
import socket
import struct
import subprocess
from dataclasses import dataclass, field

BRIDGE = "fleet"
CLONE_NEWNET = 0x40000000
libc = ctypes.CDLL(None, use_errno=True)


def run(command, stdin=None):
    """Runs a command. Raises RuntimeError with what it printed on standard error if it fails."""
    done = subprocess.run(command, input=stdin, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command[:6])}: exit status {done.returncode}: {done.stderr.strip()[:2000]}")
    return done.stdout


def batch(lines, namespace=None):
    """Runs commands of ip(8), one per line."""
    where = ["-n", namespace] if namespace else []
    run(["ip", *where, "-batch", "-"], "\n".join(lines) + "\n")


@dataclass
class Machine:
    """One network namespace. `number` is unique and gives the hardware address."""

    name: str
    number: int
    addresses: list = field(default_factory=list)

    @property
    def mac(self):
        return f"02:00:00:00:{self.number >> 8:02x}:{self.number & 255:02x}"

    @property
    def port(self):
        """The bridge's end of the cable."""
        return "p" + self.name

    def command(self, words):
        return ["nsenter", f"--net=/run/netns/{self.name}", "--", *words]

    def set_link(self, is_up):
        batch([f"link set {self.port} {'up' if is_up else 'down'}"])

    def traffic(self):
        """Bytes that the machine has sent and received."""
        with open("/proc/net/dev", encoding="ascii") as f:
            counters = next(line.split() for line in f if line.lstrip().startswith(self.port + ":"))
        return int(counters[1]) + int(counters[9])


def create_bridge():
    batch(["link set lo up", f"link add {BRIDGE} type bridge mcast_snooping 0", f"link set {BRIDGE} up"])


def create(machines, flood):
    """Creates the machines with their addresses. `flood`: whether they receive multicasts."""
    lines = []
    for m in machines:
        lines += [
            f"netns add {m.name}",
            f"link add {m.port} type veth peer name eth0 address {m.mac} netns {m.name}",
            f"link set {m.port} master {BRIDGE} up",
        ]
        if not flood:
            lines.append(f"link set {m.port} type bridge_slave mcast_flood off bcast_flood off")
    batch(lines)
    for m in machines:
        own = [f"addr add {a} dev eth0{' nodad' if ':' in a else ''}" for a in m.addresses]
        batch(["link set lo up", "link set eth0 up", *own], m.name)


def know(machine, neighbours):
    """Gives the machine permanent entries for the (address, hardware address) pairs."""
    batch([f"neigh replace {address} lladdr {mac} dev eth0 nud permanent" for address, mac in neighbours], machine.name)


class inside:
    """With this, sockets that the calling thread opens belong to the machine."""

    def __init__(self, machine):
        self.machine = machine

    def __enter__(self):
        self.old = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        enter(self.machine.name)

    def __exit__(self, *_):
        set_namespace(self.old)
        os.close(self.old)


def set_namespace(descriptor):
    if libc.setns(descriptor, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def enter(name):
    new = os.open("/run/netns/" + name, os.O_RDONLY)
    try:
        set_namespace(new)
    finally:
        os.close(new)


RTM_NEWADDR, RTM_DELADDR = 20, 21
NLM_F_REQUEST, NLM_F_CREATE = 1, 0x400
IFA_ADDRESS, IFA_LOCAL = 1, 2
IFA_F_NODAD = 2


def address_request(kind, address, index):
    """One message of rtnetlink(7). Without NLM_F_ACK the kernel answers only if the request fails."""
    text, _, length = address.partition("/")
    packed = ipaddress.IPv6Address(text).packed
    attributes = b"".join(struct.pack("HH", 20, a) + packed for a in (IFA_LOCAL, IFA_ADDRESS))
    body = struct.pack("BBBBi", socket.AF_INET6, int(length), IFA_F_NODAD, 0, index) + attributes
    flags = NLM_F_REQUEST | (NLM_F_CREATE if kind == RTM_NEWADDR else 0)
    return struct.pack("IHHII", 16 + len(body), kind, flags, 1, 0) + body


def replace_address(machine, old, new):
    """Adds one address and removes another. 20 times as fast as a process of ip(8)."""
    with inside(machine), socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0) as s:
        index = socket.if_nametoindex("eth0")
        s.send(address_request(RTM_NEWADDR, new, index))
        s.send(address_request(RTM_DELADDR, old, index))
        s.setblocking(False)
        try:
            raise RuntimeError(f"{machine.name}: the kernel refused {new}: {s.recv(4096).hex()}")
        except BlockingIOError:
            pass
