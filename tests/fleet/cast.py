"""Builds the whole fleet inside this process's own namespaces."""
import os
import secrets
import subprocess
import time

import carriers
import name_servers
import network
import watch
from gateways import Gateway, Launcher, write_host_program
from network import Machine

BASE = "/run/fleet"


def address_of(machine):
    return machine.addresses[0].partition("/")[0]


class Fleet:
    """N gateways, three name servers, one carrier, and the office that watches."""

    def __init__(self, options):
        self.options = options
        network.run(["mount", "-t", "tmpfs", "none", "/run"])
        self.folder = BASE
        self.programs = BASE + "/programs"
        os.makedirs(BASE)
        self.create_machines()
        self.give_names()
        self.launcher = Launcher(options.examples + "/publish-mqtt")
        self.create_engines()

    # ------------------------------------------------------------ machines

    def create_machines(self):
        brokers = ["mqtt"] if self.options.carrier == "mosquitto" else ["mqtt1", "mqtt2", "mqtt3"]
        names = ["bind", "nsd", "knot", *brokers, "office"]
        self.machines = {
            name: Machine(name, i, [f"fd77:0:0:53::{i:x}/48", f"10.53.0.{i}/24"]) for i, name in enumerate(names, 1)
        }
        self.brokers = [self.machines[name] for name in brokers]
        self.office = self.machines["office"]
        self.primary_address = address_of(self.machines["bind"])
        self.gateways = [Gateway(i) for i in range(1, self.options.gateways + 1)]
        network.create_bridge()
        network.create(self.machines.values(), flood=True)
        network.create(self.gateways, flood=False)
        servers = [(address_of(m), m.mac) for m in self.machines.values()]
        clients = [(g.management_address, g.mac) for g in self.gateways]
        for m in self.machines.values():
            network.know(m, clients)
        for g in self.gateways:
            network.know(g, servers)

    def give_names(self):
        """Servers know each other by /etc/hosts; everyone finds the broker's name in the zone."""
        hosts = "127.0.0.1 localhost\n::1 localhost\n"
        for m in self.brokers:
            hosts += "".join(f"{a.partition('/')[0]} {m.name}.{name_servers.ZONE}\n" for a in m.addresses)
        resolvers = "".join(f"nameserver {address_of(self.machines[m])}\n" for m in ("nsd", "knot"))
        for name, text in {"hosts": hosts, "resolv.conf": "options timeout:1 attempts:3\n" + resolvers}.items():
            with open(f"{BASE}/{name}", "w", encoding="utf-8") as f:
                f.write(text)
            network.run(["mount", "--bind", f"{BASE}/{name}", "/etc/" + name])

    # ------------------------------------------------------------ engines

    def create_engines(self):
        m, o = self.machines, self.options
        passwords = {g.name: secrets.token_hex(8) for g in self.gateways} | {carriers.OFFICE: secrets.token_hex(8)}
        keys = {g.host: name_servers.new_secret() for g in self.gateways}
        transfer = name_servers.new_secret()
        self.passwords = passwords
        carriers.make_certificates(BASE, [carriers.HOST])
        write_host_program(self.programs, o)
        for g in self.gateways:
            g.configure(BASE, keys[g.host], passwords[g.name])
        own = (transfer, self.primary_address, address_of(self.office))
        brokers = [("mqtt", address_of(b)) for b in self.brokers]
        self.primary = name_servers.Primary(m["bind"], BASE, keys, transfer, [m["nsd"], m["knot"]], brokers, o.refresh)
        self.secondaries = [name_servers.Nsd(m["nsd"], BASE, *own), name_servers.Knot(m["knot"], BASE, *own)]
        if o.carrier == "mosquitto":
            self.carrier = carriers.Mosquitto(m["mqtt"], BASE, BASE, passwords)
            self.broker_nodes = [self.carrier]
        else:
            self.carrier = carriers.RabbitMQ(self.brokers, BASE, BASE, passwords)
            self.broker_nodes = self.carrier.nodes
        self.engines = [self.primary, *self.secondaries, *self.broker_nodes]

    def start_engines(self):
        self.primary.start()
        self.primary.await_ready()
        for engine in (*self.secondaries, self.carrier):
            engine.start()
        for engine in (*self.secondaries, self.carrier):
            engine.await_ready()
        self.zones = {s.name: watch.Zone(s.name, address_of(s.machine), self.office) for s in self.secondaries}
        word = self.passwords[carriers.OFFICE]
        if self.options.carrier == "mosquitto":
            self.subscriber = watch.MqttSubscriber(self.office, BASE, word, [])
        else:
            nodes = [f"{b.name}.{name_servers.ZONE}" for b in self.brokers]
            self.subscriber = watch.QueueSubscriber(self.office, BASE, word, nodes)
        carriers.wait_until(lambda: self.subscriber.is_connected, "subscriber", 60)

    def prepare_gateways(self, gateways):
        for g in gateways:
            g.prepare(self)

    # ------------------------------------------------------------ state

    def is_right(self, gateways, need=("nsd", "knot", "subscriber")):
        return all(self.right_since(place, g) is not None for place in need for g in gateways)

    def right_since(self, place, gateway):
        if place == "subscriber":
            return self.subscriber.values.right_since(gateway.name, gateway.value)
        return self.zones[place].history.right_since(gateway.name, gateway.record)

    def renumber(self, gateways):
        """Changes the address of every gateway; returns how long that took."""
        start = time.time()
        for g in gateways:
            g.renumber()
        return time.time() - start

    def usage(self):
        return {e.name: e.usage() for e in self.engines}


def tool(machine, words, **more):
    """Runs a command on a machine; returns the finished process."""
    return subprocess.run(machine.command(words), capture_output=True, text=True, check=False, **more)
