"""Message brokers: one mosquitto, or a cluster of three nodes."""
import base64
import hashlib
import json
import os
import socket

from engine import Engine, wait_until
from network import inside, run

PORT = 8883
HOST = "mqtt.fleet.example"
PREFIX = "ip6dns"
OFFICE = "office"  # the user that reads everything


def make_certificates(folder, hosts):
    """A certificate authority and one server certificate for the hosts."""
    ca = ["-subj", "/CN=fleet", "-days", "2", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    run(["openssl", "req", "-x509", *ca, "-keyout", f"{folder}/ca.key", "-out", f"{folder}/ca.pem"])
    names = ",".join("DNS:" + h for h in hosts)
    own = ["-subj", f"/CN={hosts[0]}", "-addext", f"subjectAltName={names}", "-days", "2"]
    own += ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    signer = ["-CA", f"{folder}/ca.pem", "-CAkey", f"{folder}/ca.key"]
    run(["openssl", "req", "-x509", *own, *signer, "-keyout", f"{folder}/server.key", "-out", f"{folder}/server.pem"])


def accepts(machine, port):
    """Whether a server on the machine accepts connections."""
    with inside(machine), socket.socket(socket.AF_INET6) as s:
        s.settimeout(1)
        return s.connect_ex(("::1", port)) == 0


class Mosquitto(Engine):
    """One broker. Each user may write below ip6dns/USER only."""

    def __init__(self, machine, folder, certificates, passwords):
        super().__init__("mosquitto", machine, folder)
        self.write("passwords", "".join(f"{user}:{word}\n" for user, word in passwords.items()))
        run(["mosquitto_passwd", "-U", self.path("passwords")])
        self.write("acl", f"pattern write {PREFIX}/%u/#\nuser {OFFICE}\ntopic read #\ntopic read $SYS/#\n")
        self.configuration = self.write(
            "mosquitto.conf",
            f"""user root
listener {PORT} ::
cafile {certificates}/ca.pem
certfile {certificates}/server.pem
keyfile {certificates}/server.key
allow_anonymous false
password_file {self.path("passwords")}
acl_file {self.path("acl")}
persistence true
persistence_location {self.folder}/
autosave_interval 1
autosave_on_changes true
max_queued_messages 0
sys_interval 1
""",
        )

    def command(self):
        return ["mosquitto", "-c", self.configuration]

    def await_ready(self):
        wait_until(lambda: self.require_running() or accepts(self.machine, PORT), "mosquitto")


class Cluster:
    """Three nodes with one host name."""

    nodes = ()

    def start(self):
        for node in self.nodes:
            node.start()

    def await_ready(self):
        for node in self.nodes:
            self.await_node(node)

    @staticmethod
    def await_node(node):
        wait_until(lambda: node.require_running() or accepts(node.machine, PORT), node.name, 180)


class RabbitNode(Engine):
    library = "/usr/lib/rabbitmq/bin/"

    def __init__(self, name, machine, folder, definitions, certificates, machines):
        super().__init__(name, machine, folder)
        peers = "".join(
            f"cluster_formation.classic_config.nodes.{i} = rabbit@{m.name}.fleet.example\n"
            for i, m in enumerate(machines, 1)
        )
        self.write(
            "rabbitmq.conf",
            f"""cluster_formation.peer_discovery_backend = classic_config
{peers}
load_definitions = {definitions}
listeners.tcp.1 = :::5672
mqtt.listeners.tcp = none
mqtt.listeners.ssl.default = {PORT}
mqtt.allow_anonymous = false
mqtt.exchange = amq.topic
ssl_options.cacertfile = {certificates}/ca.pem
ssl_options.certfile = {certificates}/server.pem
ssl_options.keyfile = {certificates}/server.key
ssl_options.verify = verify_none
log.console = true
log.console.level = warning
log.file = false
vm_memory_high_watermark.absolute = 2GB
disk_free_limit.absolute = 1MB
cluster_partition_handling = pause_minority
""",
        )
        self.write("enabled_plugins", "[rabbitmq_mqtt].\n")
        cookie = self.write(".erlang.cookie", "fleet")
        os.chmod(cookie, 0o400)

    def environment(self):
        return {
            "HOME": self.folder,
            "RABBITMQ_NODENAME": f"rabbit@{self.machine.name}.fleet.example",
            "RABBITMQ_USE_LONGNAME": "true",
            "RABBITMQ_CONFIG_FILE": self.path("rabbitmq.conf"),
            "RABBITMQ_ENABLED_PLUGINS_FILE": self.path("enabled_plugins"),
            "RABBITMQ_MNESIA_BASE": self.path("mnesia"),
            "RABBITMQ_LOG_BASE": self.path("logs"),
            "RABBITMQ_LOGS": "-",
            "RABBITMQ_PID_FILE": self.path("pid"),
            # A node whose host is gone is noticed after 5 s. Idle schedulers sleep: three nodes share two cores.
            "RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS": "-kernel net_ticktime 5 -setcookie fleet "
            "+sbwt none +sbwtdcpu none +sbwtdio none",
            "RABBITMQ_CTL_ERL_ARGS": "-setcookie fleet",
        }

    def command(self):
        return [self.library + "rabbitmq-server"]


class RabbitMQ(Cluster):
    name = "rabbitmq"

    def start(self):
        """One after the other: nodes that all begin at once sometimes form two clusters."""
        for node in self.nodes:
            node.start()
            self.await_node(node)

    def __init__(self, machines, folder, certificates, passwords):
        definitions = os.path.join(folder, "definitions.json")
        with open(definitions, "w", encoding="utf-8") as f:
            json.dump(self.definitions(passwords), f)
        self.nodes = [RabbitNode(m.name, m, folder, definitions, certificates, machines) for m in machines]

    @staticmethod
    def definitions(passwords):
        def digest(word):
            salt = os.urandom(4)
            return base64.b64encode(salt + hashlib.sha256(salt + word.encode()).digest()).decode()

        own = {"exchange": "amq.topic", "read": "^$", "write": r"^ip6dns\.{username}(\..*)?$", "vhost": "/"}
        everything = {"exchange": "amq.topic", "read": ".*", "write": "^$", "vhost": "/"}
        all_rights = {"vhost": "/", "configure": ".*", "write": ".*", "read": ".*"}
        rights = {"vhost": "/", "configure": "^(mqtt-|amq).*", "write": "^(mqtt-|amq).*", "read": "^(mqtt-|amq).*"}
        return {
            "vhosts": [{"name": "/"}],
            "users": [
                {
                    "name": u,
                    "password_hash": digest(w),
                    "hashing_algorithm": "rabbit_password_hashing_sha256",
                    "tags": "",
                }
                for u, w in passwords.items()
            ],
            "permissions": [(all_rights if u == OFFICE else rights) | {"user": u} for u in passwords],
            "topic_permissions": [(everything if u == OFFICE else own) | {"user": u} for u in passwords],
        }


class NatsNode(Engine):
    def __init__(self, name, machine, folder, certificates, users, machines, replicas):
        super().__init__(name, machine, folder)
        routes = ", ".join(f"nats://{m.name}.fleet.example:6222" for m in machines if m is not machine)
        self.configuration = self.write(
            "nats.conf",
            f"""server_name: {name}
listen: "[::]:4222"
jetstream {{ store_dir: "{self.folder}/store", max_mem: 256M, max_file: 1G }}
cluster {{ name: fleet, listen: "[::]:6222", routes: [{routes}] }}
mqtt {{
  listen: "[::]:{PORT}"
  tls {{ cert_file: "{certificates}/server.pem", key_file: "{certificates}/server.key" }}
  stream_replicas: {replicas}
  consumer_replicas: {replicas}
}}
accounts {{ fleet {{ jetstream: enabled, users: [
{users}
] }} }}
""",
        )

    def command(self):
        return ["nats-server", "-c", self.configuration]


class Nats(Cluster):
    name = "nats"

    def __init__(self, machines, folder, certificates, passwords, replicas=3):
        rights = 'publish: ["ip6dns.{u}", "ip6dns.{u}.>"], subscribe: "_INBOX.>"'
        own = '{{user: "{u}", password: "{w}", permissions: {{' + rights + "}}}}"
        everything = '{{user: "{u}", password: "{w}"}}'
        users = "\n".join((everything if u == OFFICE else own).format(u=u, w=w) for u, w in passwords.items())
        self.nodes = [NatsNode(m.name, m, folder, certificates, users, machines, replicas) for m in machines]


class EtcdNode(Engine):
    def __init__(self, name, machine, folder, machines):
        super().__init__(name, machine, folder)
        self.peers = ",".join(f"{m.name}=http://{m.name}.fleet.example:2380" for m in machines)

    def command(self):
        own = f"http://{self.machine.name}.fleet.example"
        everywhere = "http://[::]"
        return (
            f"etcd --name {self.name} --data-dir {self.folder}/data --listen-peer-urls {everywhere}:2380 "
            f"--listen-client-urls {everywhere}:2379 --advertise-client-urls {own}:2379 "
            f"--initial-advertise-peer-urls {own}:2380 --initial-cluster {self.peers}"
        ).split()


class Etcd(Cluster):
    name = "etcd"

    def __init__(self, machines, folder, *_):
        self.nodes = [EtcdNode(m.name, m, folder, machines) for m in machines]

    def await_ready(self):
        for node in self.nodes:
            wait_until(lambda n=node: n.require_running() or accepts(n.machine, 2379), node.name)
