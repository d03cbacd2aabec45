"""What the public sees: both secondaries' zones and the subscriber's messages, with the time of each change."""
import json
import ssl
import threading
import time

import dns.exception
import dns.query
import dns.rdatatype
import dns.resolver
import dns.zone

import network
from carriers import HOST, OFFICE, PORT, PREFIX
from name_servers import ZONE


class History:
    """The value of each name over time."""

    def __init__(self):
        self.lock = threading.Lock()
        self.changes = {}  # name -> [(time, value)]

    def put(self, name, value, when=None):
        with self.lock:
            self.changes.setdefault(name, []).append((when or time.time(), value))

    def now(self, name):
        with self.lock:
            return self.changes.get(name, [(0, None)])[-1][1]

    def right_since(self, name, expected):
        """The time since when the value is the expected one. None while it is not."""
        with self.lock:
            since = None
            for when, value in self.changes.get(name, ()):
                since = None if value != expected else since if since is not None else when
            return since


class Zone(threading.Thread):
    """Asks one secondary for its serial number four times a second, and for the zone if that has changed."""

    PERIOD = 0.25

    def __init__(self, name, address, office):
        super().__init__(daemon=True, name=name)
        self.address, self.office = address, office
        self.history = History()
        self.serial = None
        self.transfers = 0
        self.start()

    def run(self):
        network.enter(self.office.name)
        while True:
            try:
                self.check()
            except (OSError, EOFError, dns.exception.DNSException):
                pass  # a server that is cut off: the scenario measures it
            time.sleep(self.PERIOD)

    def check(self):
        query = dns.message.make_query(ZONE, dns.rdatatype.SOA)
        answer = dns.query.udp(query, self.address, timeout=1)
        serial = answer.answer[0][0].serial if answer.answer else None
        if serial is None or serial == self.serial:
            return
        zone = dns.zone.from_xfr(dns.query.xfr(self.address, ZONE, relativize=True, timeout=5, lifetime=20))
        now = time.time()
        found = {
            name.to_text(): frozenset(r.to_text() for r in records)
            for name, records in zone.iterate_rdatasets(dns.rdatatype.AAAA)
        }
        for name in found.keys() | self.history.changes.keys():
            if found.get(name, frozenset()) != self.history.now(name):
                self.history.put(name, found.get(name, frozenset()), now)
        self.serial = zone.get_rdataset("@", "SOA")[0].serial
        self.transfers += 1


class Subscriber(threading.Thread):
    """The newest value and status of each gateway, and every message with the time of its arrival."""

    def __init__(self, office, folder, password, nodes):
        super().__init__(daemon=True, name="subscriber")
        self.office, self.folder, self.password, self.nodes = office, folder, password, nodes
        self.values, self.statuses = History(), History()
        self.messages = []  # (time, topic, payload)
        self.newest = {}  # topic -> payload
        self.is_connected = False
        self.start()

    def connect_and_serve(self):
        raise NotImplementedError

    def run(self):
        network.enter(self.office.name)
        while True:
            try:
                self.connect_and_serve()
            except Exception as e:  # noqa: BLE001  any error: the broker is away
                self.last_error = e
            self.is_connected = False
            time.sleep(0.3)

    def take(self, topic, payload, is_retained=False):
        """Takes one message. A retained one that is known already comes with each reconnect of the subscriber."""
        now = time.time()
        if is_retained and self.newest.get(topic) == payload:
            return
        self.newest[topic] = payload
        self.messages.append((now, topic, payload))
        name = topic.split("/")[1]
        if topic.endswith("/status"):
            self.statuses.put(name, payload, now)
        else:
            self.values.put(name, addresses_in(payload), now)



def addresses_in(payload):
    try:
        value = json.loads(payload)["value"]
    except (ValueError, KeyError, TypeError):
        return None
    return frozenset() if value == "null" else frozenset(value.split(","))


class MqttSubscriber(Subscriber):
    def connect_and_serve(self):
        import paho.mqtt.client as mqtt

        client = mqtt.Client("office", clean_session=False, protocol=mqtt.MQTTv311)
        client.username_pw_set(OFFICE, self.password)
        client.tls_set_context(ssl.create_default_context(cafile=self.folder + "/ca.pem"))
        client.on_connect = lambda c, *_: c.subscribe(PREFIX + "/#", 1)
        client.on_subscribe = lambda *_: setattr(self, "is_connected", True)
        client.on_message = lambda c, u, m: self.take(m.topic, m.payload.decode(), m.retain)
        client.connect(HOST, PORT, 30)
        while client.loop(0.5) == 0:
            pass


class QueueSubscriber(Subscriber):
    """Reads a replicated queue by AMQP. The queue stores the messages while the subscriber is away."""

    QUEUE = "office"

    def connect_and_serve(self):
        import pika

        login = pika.PlainCredentials(OFFICE, self.password)
        # The library tries one node after the other.
        connection = pika.BlockingConnection(
            [pika.ConnectionParameters(n, credentials=login, heartbeat=10, socket_timeout=2) for n in self.nodes]
        )
        channel = connection.channel()
        channel.queue_declare(self.QUEUE, durable=True, arguments={"x-queue-type": "quorum"})
        channel.queue_bind(self.QUEUE, "amq.topic", PREFIX + ".#")
        channel.basic_qos(prefetch_count=200)
        channel.basic_consume(self.QUEUE, self.on_message)
        self.is_connected = True
        channel.start_consuming()

    def on_message(self, channel, method, properties, body):
        self.take(method.routing_key.replace(".", "/"), body.decode())
        channel.basic_ack(method.delivery_tag)
