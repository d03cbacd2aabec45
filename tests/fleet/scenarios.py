"""What happens to the fleet, and what it costs."""
import json
import os
import ssl
import sys
import time
from collections import Counter
from datetime import datetime

import network
from carriers import HOST, PORT, PREFIX
from cast import address_of, tool
from engine import cost, wait_until
from name_servers import ZONE

PLACES = ("nsd", "knot", "subscriber")
HERE = os.path.dirname(os.path.abspath(__file__))


def seconds_of(text):
    """Seconds since 1970 of a time like 2026-11-20T15:39:23.009Z."""
    return datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


def percentile(values, share):
    """The time by which this share of the gateways was right. None while it is not reached."""
    known = sorted(v for v in values if v is not None)
    needed = -(-len(values) * share // 100)
    return round(known[int(needed) - 1], 2) if values and len(known) >= needed else None


def peak(times):
    """The most events within one second of the clock."""
    return max(Counter(int(t) for t in times).values(), default=0)


class Measurement:
    """Everything between two points in time."""

    def __init__(self, fleet, name, title):
        self.fleet, self.name, self.title = fleet, name, title
        self.start = time.time()
        self.usage = fleet.usage()
        self.serial = fleet.zones["nsd"].serial
        self.messages = len(fleet.subscriber.messages)
        self.updates = len(fleet.primary.update_log())
        self.notes = {}
        self.broken = []  # promises, in words

    def promise(self, holds, text):
        if not holds:
            self.broken.append(text)

    def finish(self, gateways, offline=(), stale=None):
        f = self.fleet
        end = time.time()
        updates = f.primary.update_log()[self.updates :]
        sent = [seconds_of(when) for when, _, text in updates if "deleting rrset" in text]
        messages = f.subscriber.messages[self.messages :]
        values = [m for m in messages if not m[1].endswith("/status")]
        usage = f.usage()
        right = {p: self.times(p, gateways) for p in PLACES}
        result = {
            "scenario": self.name,
            "title": self.title,
            "gateways": f.options.gateways,
            "carrier": f.options.carrier,
            "splay": f.options.splay,
            "seconds": round(end - self.start, 1),
            "right": {p: [percentile(t, s) for s in (50, 99, 100)] for p, t in right.items()},
            "curve": {p: sorted(round(t, 2) for t in times if t is not None) for p, times in right.items()},
            "updates": len(sent),
            "updates_peak": peak(sent),
            "refused": sum("REFUSED" in text or "denied" in text for _, _, text in updates),
            "serials": (f.zones["nsd"].serial or 0) - (self.serial or 0),
            "messages": len(values),
            "messages_peak": peak([m[0] for m in values]),
            "statuses": len(messages) - len(values),
            "engines": {
                name: {
                    "cpu": round(u["cpu"] - self.usage[name]["cpu"], 2),
                    "memory": round(u["memory"] / 1e6, 1),
                    "bytes": u["bytes"] - self.usage[name]["bytes"],
                }
                for name, u in usage.items()
            },
            "steps": self.steps(gateways, updates, messages),
            "notes": self.notes,
            "broken": self.broken,
            "load": round(os.getloadavg()[0], 1),
        }
        result["judge"] = judge(f, gateways, offline, stale or {})
        return result

    def times(self, place, gateways):
        """When each gateway became right, in seconds after the start. 0: it has always been."""
        found = [self.fleet.right_since(place, g) for g in gateways]
        return [None if t is None else max(0.0, t - self.start) for t in found]

    def steps(self, gateways, updates, messages):
        """How long each step took: [half of the gateways, 99 % of them]."""
        noticed, arrived, updated = {}, {}, {}
        wanted = {g.name: g for g in gateways}
        for when, topic, payload in messages:
            g = wanted.get(topic.split("/")[1])
            if g and not topic.endswith("/status") and self.fleet.subscriber.values.now(g.name) == g.value:
                try:
                    document = json.loads(payload)
                    if frozenset(document["value"].split(",")) == g.value:
                        noticed.setdefault(g.name, seconds_of(document["time"]))
                        arrived.setdefault(g.name, when)
                except (ValueError, KeyError):
                    pass
        for when, key, text in updates:
            g = wanted.get(key.partition(".")[0])
            if g and "adding an RR" in text and text.rpartition(" ")[2] in g.record:
                updated.setdefault(g.name, seconds_of(when))

        def between(first, last):
            both = [last[n] - first[n] for n in first if n in last and last[n] > self.start]
            return [percentile(both, 50), percentile(both, 99)] if both else None

        start = dict.fromkeys(wanted, self.start)
        steps = {
            "gateway notices": between(start, noticed),
            "notice to subscriber": between(noticed, arrived),
            "notice to primary": between(noticed, updated),
        }
        for place in ("nsd", "knot"):
            seen = {g.name: t for g in gateways if (t := self.fleet.right_since(place, g)) is not None}
            steps["primary to " + place] = between(updated, seen)
        return {name: value for name, value in steps.items() if value}


def judge(fleet, gateways, offline=(), stale=None):
    """The verdict of the program judge.py, which knows nothing of this one."""
    case = {
        "zone": ZONE,
        "prefix": PREFIX,
        "machines": [g.name for g in gateways],
        "offline": [g.name for g in offline],
        "stale": stale or {},
        "servers": {s.name: address_of(s.machine) for s in fleet.secondaries},
        "messages": dict(fleet.subscriber.newest),
    }
    done = tool(fleet.office, [sys.executable, HERE + "/judge.py"], input=json.dumps(case))
    if done.returncode not in (0, 1) or not done.stdout:
        raise RuntimeError("judge.py: " + done.stderr)
    verdict = json.loads(done.stdout)
    if (done.returncode == 0) != (not verdict["lost"] and not verdict["wrong"] and not verdict["extra"]):
        raise RuntimeError("judge.py: the exit status contradicts the verdict")
    return verdict


# ---------------------------------------------------------------- scenarios


def settle(fleet, gateways, need=PLACES):
    """Waits until all is right. The judge reports what is not."""
    try:
        wait_until(lambda: fleet.is_right(gateways, need), "all right", fleet.options.limit)
    except TimeoutError:
        pass


def are(fleet, gateways, status):
    return all(fleet.subscriber.statuses.now(g.name) == status for g in gateways)


def settle_status(fleet, gateways, status):
    try:
        wait_until(lambda: are(fleet, gateways, status), "status " + status, fleet.options.limit)
    except TimeoutError:
        pass


def cold_start(fleet):
    """(a) All gateways start at the same moment."""
    available = available_memory()
    fleet.prepare_gateways(fleet.gateways)
    m = Measurement(fleet, "a", "cold start")
    fleet.launcher.release()
    settle(fleet, fleet.gateways)
    settle_status(fleet, fleet.gateways, "online")
    n = len(fleet.gateways)
    m.notes["MB per gateway"] = round((available - available_memory()) / n / 1e6, 1)
    m.notes["processor seconds per gateway"] = round(sum(cost(g.process)[0] for g in fleet.gateways) / n, 3)
    return m.finish(fleet.gateways)


def available_memory():
    with open("/proc/meminfo", encoding="ascii") as f:
        return next(int(line.split()[1]) * 1024 for line in f if line.startswith("MemAvailable"))


def renumbering(fleet):
    """(b) Every address changes within one second."""
    m = Measurement(fleet, "b", "renumbering")
    m.notes["renumbered within"] = round(fleet.renumber(fleet.gateways), 2)
    settle(fleet, fleet.gateways)
    return m.finish(fleet.gateways)


def primary_killed(fleet):
    """(c) The primary is killed during b and comes back after the outage."""
    m = Measurement(fleet, "c", "renumbering, primary killed")
    fleet.primary.kill()
    m.notes["renumbered within"] = round(fleet.renumber(fleet.gateways), 2)
    time.sleep(max(0.0, fleet.options.outage - (time.time() - m.start)))
    fleet.primary.start()
    fleet.primary.await_ready()
    m.notes["primary back after"] = round(time.time() - m.start, 2)
    settle(fleet, fleet.gateways)
    return m.finish(fleet.gateways)


def secondary_cut_off(fleet):
    """(d) A secondary is cut off during b and comes back."""
    m = Measurement(fleet, "d", "renumbering, secondary cut off")
    nsd = fleet.secondaries[0].machine
    nsd.set_link(False)
    fleet.renumber(fleet.gateways)
    settle(fleet, fleet.gateways, ("knot", "subscriber"))
    nsd.set_link(True)
    m.notes["secondary back after"] = round(time.time() - m.start, 2)
    settle(fleet, fleet.gateways)
    return m.finish(fleet.gateways)


def broker_killed(fleet):
    """(e) The broker, or one node of the cluster, gets SIGKILL during b and is started again after the outage."""
    m = Measurement(fleet, "e", "renumbering, broker killed")
    node = fleet.broker_nodes[0]
    node.kill()
    fleet.renumber(fleet.gateways)
    outage = min(fleet.options.outage, 15)
    if len(fleet.broker_nodes) > 1:
        settle(fleet, fleet.gateways)  # the other two continue
        m.notes["right without the node after"] = round(time.time() - m.start, 2)
    time.sleep(max(0.0, outage - (time.time() - m.start)))
    node.start()
    fleet.carrier.await_ready()
    m.notes["broker back after"] = round(time.time() - m.start, 2)
    settle(fleet, fleet.gateways)
    settle_status(fleet, fleet.gateways, "online")
    return m.finish(fleet.gateways)


def all_at_once(fleet):
    """(x) c, d and e in one renumbering: primary and broker killed, one secondary cut off."""
    m = Measurement(fleet, "x", "renumbering, primary and broker killed, secondary cut off")
    nsd = fleet.secondaries[0].machine
    fleet.primary.kill()
    fleet.broker_nodes[0].kill()
    nsd.set_link(False)
    fleet.renumber(fleet.gateways)
    time.sleep(fleet.options.outage)
    fleet.primary.start()
    fleet.broker_nodes[0].start()
    nsd.set_link(True)
    fleet.primary.await_ready()
    fleet.carrier.await_ready()
    m.notes["all back after"] = round(time.time() - m.start, 2)
    settle(fleet, fleet.gateways)
    settle_status(fleet, fleet.gateways, "online")
    return m.finish(fleet.gateways)


def gateways_killed(fleet):
    """(f) A tenth of the gateways get SIGKILL and are started again."""
    m = Measurement(fleet, "f", "a tenth of the gateways killed")
    dead = fleet.gateways[::10]
    alive = [g for g in fleet.gateways if g not in dead]
    stale = {g.name: sorted(g.record) for g in dead}
    for g in dead:
        g.kill()
    settle_status(fleet, dead, "offline")
    offline = [fleet.subscriber.statuses.right_since(g.name, "offline") for g in dead]
    m.notes["offline after"] = [percentile([t and t - m.start for t in offline], s) for s in (50, 99, 100)]
    m.notes["promised"] = 1.5 * fleet.options.keepalive
    last = m.notes["offline after"][2]
    m.promise(last is not None and last <= m.notes["promised"], "a dead gateway is not offline in time")
    first = judge(fleet, alive, dead, stale)
    m.notes["judge while they are dead"] = {k: first[k] for k in ("checked", "lost", "wrong", "extra")}
    fleet.prepare_gateways(dead)
    fleet.launcher.release()
    settle_status(fleet, dead, "online")
    settle(fleet, fleet.gateways)
    m.notes["killed"] = len(dead)
    result = m.finish(fleet.gateways)
    for kind in ("lost", "wrong", "extra"):
        result["judge"][kind] += first[kind]
    return result


def foreign_key(fleet):
    """(g) A gateway with another's key and name is refused, and harms no other."""
    m = Measurement(fleet, "g", "another gateway's name and topic")
    thief, victim = fleet.gateways[0], fleet.gateways[1]
    environment = thief.environment(fleet.programs, fleet.primary_address)
    environment |= {"DAC_TAG": victim.host, "DAC_VALUE": "2001:db8:bad::1", "DAC_INSTANCE": "gateway"}
    update = tool(thief, [fleet.options.examples + "/nsupdate-aaaa"], env=environment)
    m.notes["update"] = update.stderr.strip()
    m.promise(update.returncode != 0, "the primary accepts an update of another gateway's name")
    before = len(fleet.subscriber.messages)
    m.notes["message"] = publish(fleet, thief, victim)
    time.sleep(2)
    topics = [topic for _, topic, payload in fleet.subscriber.messages[before:] if "bad" in payload]
    m.promise(not topics, f"the broker accepts a message of another gateway: {topics}")
    return m.finish(fleet.gateways)


def publish(fleet, sender, owner, payload='{"value":"2001:db8:bad::1"}'):
    """Publishes to the owner's topic with the sender's password. Returns what the sender notices."""
    import paho.mqtt.client as mqtt

    client = mqtt.Client("thief", protocol=mqtt.MQTTv311)
    client.username_pw_set(sender.name, fleet.passwords[sender.name])
    client.tls_set_context(ssl.create_default_context(cafile=fleet.folder + "/ca.pem"))
    confirmed = []
    client.on_publish = lambda *_: confirmed.append(True)
    client.on_connect = lambda c, u, f, rc: c.publish(f"{PREFIX}/{owner.name}", payload, qos=1)
    with network.inside(sender):
        client.connect(HOST, PORT, 30)
        end = time.monotonic() + 3
        while not confirmed and time.monotonic() < end:
            if client.loop(0.2) != 0:
                return "connection closed by the broker"
    client.disconnect()
    return "confirmed" if confirmed else "not confirmed"


def steady_state(fleet):
    """(h) Nothing changes."""
    m = Measurement(fleet, "h", "steady state")
    time.sleep(fleet.options.steady)
    result = m.finish(fleet.gateways)
    m.promise(result["serials"] == 0, "a record of an unchanged gateway is changed")
    m.promise(result["updates"] == 0, "an unchanged gateway sends updates")
    hours = result["seconds"] / 3600 * len(fleet.gateways)
    m.notes["messages per gateway and hour"] = round(result["messages"] / hours, 1)
    m.notes["updates per gateway and hour"] = round(result["updates"] / hours, 1)
    return result


def judge_finds_faults(fleet):
    """(z) One wrong record and one wrong message: the judge must find these and no others. Ends the fleet's use."""
    m = Measurement(fleet, "z", "the judge finds a wrong record and message")
    one, other = fleet.gateways[0], fleet.gateways[-1]
    wrong = "2001:db8:bad::1"
    command = f"server {fleet.primary_address}\nzone {ZONE}\nupdate delete {one.host} AAAA\n"
    command += f"update add {one.host} 60 AAAA {wrong}\nsend\n"
    network.run(one.command(["nsupdate", "-v", "-k", one.folder + "/tsig.key"]), command)
    publish(fleet, other, other)
    seen = lambda: (  # noqa: E731
        all(z.history.now(one.name) == {wrong} for z in fleet.zones.values())
        and fleet.subscriber.values.now(other.name) == {wrong}
    )
    wait_until(seen, "the faults", 30)
    result = m.finish(fleet.gateways)
    found = sorted((w["place"], w["name"]) for w in result["judge"]["wrong"])
    expected = sorted([("nsd", one.name), ("knot", one.name), ("subscriber", other.name)])
    if found != expected or result["judge"]["lost"] or result["judge"]["extra"]:
        raise RuntimeError(f"the judge found {result['judge']} instead of {expected}")
    result["judge"] = {"checked": result["judge"]["checked"], "lost": [], "wrong": [], "extra": []}
    result["notes"]["found"] = [" ".join(f) for f in found]
    return result


ALL = {
    "a": cold_start,
    "b": renumbering,
    "c": primary_killed,
    "d": secondary_cut_off,
    "e": broker_killed,
    "x": all_at_once,
    "f": gateways_killed,
    "g": foreign_key,
    "h": steady_state,
    "z": judge_finds_faults,
}
