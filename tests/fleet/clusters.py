#!/usr/bin/python3
"""Compares clusters of three nodes: what publishers and readers notice when one node gets SIGKILL.

  clusters.py [ENGINE...]      rabbitmq, nats, nats-1 (one replica) and etcd; default: all

Twelve clients publish a retained message with QoS 1, or put a key, twice a second, four on each node. One reader
follows all of it from the third node. For each engine every node is killed once, each time in a new cluster. Prints one JSON
object per run.
"""
import json
import os
import random
import ssl
import subprocess
import sys
import threading
import time

import paho.mqtt.client as mqtt

import carriers
import network
from engine import cost, wait_until
from network import Machine
from watch import QueueSubscriber

CLIENTS = 12
BEFORE, AFTER = 5, 30  # seconds of measurement
FOLDER = "/run/fleet"
ZONE = "fleet.example"


class Client(threading.Thread):
    """Publishes or subscribes; goes to the next node if one fails for five seconds."""

    def __init__(self, trial, user, node, topic, is_reader=False):
        super().__init__(daemon=True)
        self.trial, self.user, self.node, self.topic, self.is_reader = trial, user, node, topic, is_reader
        self.confirmed = []  # (time, payload)
        self.received = []  # (topic, payload, is retained)
        self.waiting = {}
        self.is_ready = False
        self.start()

    def run(self):
        network.enter("office")
        while not self.trial.is_over:
            try:
                self.connect_and_serve()
            except OSError:
                pass
            self.is_ready = False
            self.node = (self.node + 1) % 3
            time.sleep(random.uniform(0.2, 0.6))

    def connect_and_serve(self):
        client = mqtt.Client(f"{self.user}-{id(self)}", protocol=mqtt.MQTTv311)
        client.username_pw_set(self.user, self.trial.passwords[self.user])
        context = ssl.create_default_context(cafile=FOLDER + "/ca.pem")
        context.check_hostname = False
        client.tls_set_context(context)
        client.on_connect = self.on_connect
        client.on_subscribe = lambda *_: setattr(self, "is_ready", True)
        client.on_publish = self.on_publish
        client.on_message = lambda c, u, m: self.received.append((m.topic, m.payload.decode(), m.retain))
        client.connect(f"n{self.node + 1}.{ZONE}", carriers.PORT, 5)
        self.waiting.clear()
        answered = sent = time.monotonic()
        while not self.trial.is_over and client.loop(0.1) == 0:
            now = time.monotonic()
            if not self.waiting and self.is_ready:
                answered = now
            if now - answered > 5:
                return
            if self.is_ready and not self.is_reader and not self.waiting and now - sent > 0.5:
                sent = answered = now
                payload = str(time.time())
                self.waiting[client.publish(self.topic, payload, 1, True).mid] = payload

    def on_connect(self, client, userdata, flags, code):
        if code != 0:
            return
        if self.is_reader:
            client.subscribe(self.topic, 1)
        else:
            self.is_ready = True

    def on_publish(self, client, userdata, number):
        self.confirmed.append((time.time(), self.waiting.pop(number, None)))


class Writer(threading.Thread):
    """Puts a key with a lease by etcdctl, which tries all three nodes."""

    def __init__(self, trial, key):
        super().__init__(daemon=True)
        self.trial, self.key, self.confirmed = trial, key, []
        self.start()

    def run(self):
        network.enter("office")
        lease = etcdctl("lease", "grant", "120").stdout.split()[1]
        while not self.trial.is_over:
            payload = str(time.time())
            if etcdctl("put", "--lease", lease, self.key, payload).returncode == 0:
                self.confirmed.append((time.time(), payload))
            time.sleep(0.5)


def etcdctl(*words):
    nodes = ",".join(f"http://n{i}.{ZONE}:2379" for i in (1, 2, 3))
    command = ["etcdctl", "--endpoints", nodes, "--dial-timeout", "1s", "--command-timeout", "2s", *words]
    return subprocess.run(command, env=os.environ | {"ETCDCTL_API": "3"}, capture_output=True, text=True, check=False)


class Trial:
    """One cluster, one killed node."""

    def __init__(self, engine, victim):
        self.engine, self.victim, self.is_over = engine, victim, False
        self.passwords = {f"gw{i:04}": f"word{i}" for i in range(CLIENTS)} | {carriers.OFFICE: "office"}
        network.run(["mount", "-t", "tmpfs", "none", "/run"])
        os.makedirs(FOLDER)
        self.machines = [Machine(f"n{i}", i, [f"fd77:0:0:53::{i}/48", f"10.53.0.{i}/24"]) for i in (1, 2, 3)]
        office = Machine("office", 9, ["fd77:0:0:53::9/48", "10.53.0.9/24"])
        network.create_bridge()
        network.create([*self.machines, office], flood=True)
        with open(FOLDER + "/hosts", "w", encoding="utf-8") as f:
            f.write("127.0.0.1 localhost\n::1 localhost\n")
            for m in self.machines:
                f.writelines(f"{a.partition('/')[0]} {m.name}.{ZONE}\n" for a in m.addresses)
        network.run(["mount", "--bind", FOLDER + "/hosts", "/etc/hosts"])
        carriers.make_certificates(FOLDER, [carriers.HOST])
        self.office = office
        make = {"rabbitmq": carriers.RabbitMQ, "etcd": carriers.Etcd}.get(engine, carriers.Nats)
        more = {"replicas": 1} if engine == "nats-1" else {}
        self.cluster = make(self.machines, FOLDER, FOLDER, self.passwords, **more)

    def run(self):
        begin = time.time()
        self.cluster.start()
        self.cluster.await_ready()
        result = {"engine": self.engine, "killed": self.victim + 1, "ready after": round(time.time() - begin, 1)}
        time.sleep(3)
        topics = [f"{carriers.PREFIX}/gw{i:04}" for i in range(CLIENTS)]
        if self.engine == "etcd":
            readers, writers = {}, [Writer(self, t) for t in topics]
        else:
            readers = {"MQTT reader": Client(self, carriers.OFFICE, 2, carriers.PREFIX + "/#", True)}
            wait_until(lambda: readers["MQTT reader"].is_ready, "subscription")
            if self.engine == "rabbitmq":
                nodes = [f"{m.name}.{ZONE}" for m in self.machines]
                readers["queue reader"] = queue = QueueSubscriber(self.office, FOLDER, "office", nodes)
                wait_until(lambda: queue.is_connected, "queue")
            writers = [Client(self, t.rpartition("/")[2], i % 3, t) for i, t in enumerate(topics)]
        wait_until(lambda: all(w.confirmed for w in writers), "first confirmations")
        time.sleep(BEFORE)
        result["MB per node"] = round(sum(cost(n.process.pid)[1] for n in self.cluster.nodes) / 3e6)
        killed = time.time()
        node = self.cluster.nodes[self.victim]
        node.kill()
        time.sleep(AFTER)
        result |= self.late_readers(topics)
        begin = time.time()
        node.start()
        try:
            self.cluster.await_ready()
            result["node back after"] = round(time.time() - begin, 1)
        except TimeoutError:
            result["node back after"] = None
            print(node.log_end(), file=sys.stderr)
        self.is_over = True
        time.sleep(3)
        gaps = sorted(longest_gap([t for t, _ in w.confirmed], killed) for w in writers)
        result["longest pause of a publisher"] = [round(gaps[CLIENTS // 2], 1), round(gaps[-1], 1)]
        for name, reader in readers.items():
            texts = {m[1] for m in reader.received} if name == "MQTT reader" else {m[2] for m in reader.messages}
            sent = {p for w in writers for t, p in w.confirmed if p}
            result[name] = {"confirmed": len(sent), "never received": len(sent - texts)}
        return result

    def late_readers(self, topics):
        """How many of the topics each surviving node gives to a reader that comes after the crash."""
        found = {}
        for i in range(3):
            if i == self.victim:
                continue
            if self.engine == "etcd":
                with network.inside(self.office):
                    known = set(etcdctl("get", "--prefix", carriers.PREFIX, "--keys-only").stdout.split())
            else:
                reader = Client(self, carriers.OFFICE, i, carriers.PREFIX + "/#", True)
                time.sleep(10)
                known = {m[0] for m in reader.received if m[2]}
            found[f"state at node {i + 1}"] = f"{len(known & set(topics))} of {len(topics)}"
        return found


def longest_gap(times, start):
    times = [start] + [t for t in times if t > start]
    return max((b - a for a, b in zip(times, times[1:])), default=AFTER)


def main():
    if sys.argv[1:2] == ["--trial"]:
        print(json.dumps(Trial(sys.argv[2], int(sys.argv[3])).run()), flush=True)
        os._exit(0)
    for engine in sys.argv[1:] or ["rabbitmq", "nats", "nats-1", "etcd"]:
        for victim in range(3):
            inside = "unshare --net --mount --uts --ipc --pid --fork --kill-child --mount-proc".split()
            own = [sys.executable, os.path.abspath(__file__), "--trial", engine, str(victim)]
            subprocess.run(inside + own, env=os.environ | {"PYTHONDONTWRITEBYTECODE": "1"}, check=False)


if __name__ == "__main__":
    main()
