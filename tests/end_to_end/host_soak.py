#!/usr/bin/env python3
"""Runs dachost with 256 instances, hooks that fail at random, a reload every second and changing addresses.

usage: host_soak.py DACHOST PLUGIN SECONDS     in a separate network namespace: it changes lo's addresses

After each of four phases everything settles, and dachost must hold what it held after the first. Every value that was
published must have reached a hook that succeeded, unless a newer value of the same instance replaced it.
"""
import collections
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
import threading
import time

INSTANCES = 256
PHASES = 4
STRAY_KB = 8192  # heaps and stacks that the C library caches

# One program in ten fails, one in a hundred hangs. Only words of the shell: it starts no program.
HOOK = """#!/bin/sh
exec >>"%s/$DAC_INSTANCE.did"
echo "begin $DAC_TIME $DAC_VALUE"
case $(($$ %% 100)) in
  *3) echo fail; exit 1 ;;
  50) echo hang; read -r never <"%s/never"; exit 1 ;;
esac
echo "done $DAC_TIME $DAC_VALUE"
"""


def ip(command):
    subprocess.run(["ip", "-6", *command.split()], check=True)


class Addresses:
    def __init__(self):
        self.present = set()
        ip("link set lo up")

    def change(self):
        n = random.randrange(1, 20)
        verb = "del" if n in self.present else "add"
        ip(f"addr {verb} 2001:db8::{n:x}/128 dev lo" + (" nodad" if verb == "add" else ""))
        self.present ^= {n}


class Host:
    """dachost, with all that it prints."""

    def __init__(self, dachost, plugin, directory):
        self.published = collections.defaultdict(list)  # by instance: (time, value) of each change
        self.known = collections.defaultdict(set)  # the same of each line
        self.events = 0
        self.errors = 0
        self.retries = 0
        self.bad_lines = []
        self.process = subprocess.Popen(
            [dachost, "run", "-p", plugin, "--json", "--exec-timeout", "1", "--exec", f"{directory}/hook",
             *(f"{directory}/i{n}.conf" for n in range(INSTANCES))],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.readers = [threading.Thread(target=f) for f in (self.read_events, self.read_errors)]
        for reader in self.readers:
            reader.start()

    def read_events(self):
        for line in self.process.stdout:
            try:
                event = json.loads(line)
            except ValueError:
                self.bad_lines.append(line)
                continue
            self.events += 1
            if event["event"] == "value":
                self.known[event["instance"]].add((event["time"], event["value"]))
                if event["change"]:  # a program gets only what has changed
                    self.published[event["instance"]].append((event["time"], event["value"]))

    def read_errors(self):
        for line in self.process.stderr:
            self.errors += line.startswith("dachost: ")
            self.retries += "retry in" in line

    def wait_for_first_value(self):
        while not self.published and self.process.poll() is None:
            time.sleep(0.1)

    def reload(self):
        self.process.send_signal(signal.SIGHUP)

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(60)
        for reader in self.readers:
            reader.join()
        return status

    def measure(self):
        proc = f"/proc/{self.process.pid}"
        with open(f"{proc}/status", encoding="ascii") as file:
            status = dict(line.split(":", 1) for line in file)
        with open(f"{proc}/stat", encoding="ascii") as file:
            ticks = file.read().rsplit(") ", 1)[1].split()[11:13]
        children = 0
        for task in os.listdir(f"{proc}/task"):
            with open(f"{proc}/task/{task}/children", encoding="ascii") as file:
                children += len(file.read().split())
        return {
            "resident kB": int(status["VmRSS"].split()[0]),
            "descriptors": len(os.listdir(f"{proc}/fd")),
            "threads": int(status["Threads"]),
            "children": children,
            "processor s": sum(map(int, ticks)) / os.sysconf("SC_CLK_TCK"),
        }


def records(directory, name):
    """The hook's runs for an instance, and what is wrong with their order: (time, value, outcome), texts."""
    runs, wrong = [], []
    try:
        with open(f"{directory}/{name}.did", encoding="ascii") as file:
            lines = file.read().splitlines()
    except FileNotFoundError:
        lines = []
    for line in lines:
        word, _, rest = line.partition(" ")
        if word == "begin":
            runs.append([*rest.split(" "), "killed"])
        elif runs and runs[-1][2] == "killed":
            runs[-1][2] = word
        else:
            wrong.append(f"{name}: two programs at a time: {line}")
    return [tuple(run) for run in runs], wrong


def has_newest(runs, values):
    """The last success had the newest value. Its time is older if the value has changed and returned meanwhile."""
    return bool(runs) and runs[-1][1:] == (values[-1][1], "done")


def is_settled(host, directory):
    for name, values in list(host.published.items()):
        if not has_newest(records(directory, name)[0], values):
            return False
    return len(host.published) == INSTANCES


def settle(host, directory, limit):
    """Waits until the newest values are handled: the longest pause before a retry is a minute."""
    end = time.monotonic() + limit
    while time.monotonic() < end and host.process.poll() is None:
        before = host.events
        time.sleep(5)
        if host.events == before and is_settled(host, directory):
            return True
    return False


def stir(host, addresses, seconds):
    end = time.monotonic() + seconds
    reloads = changes = 0
    while time.monotonic() < end:
        host.reload()
        reloads += 1
        time.sleep(random.random())
        addresses.change()
        changes += 1
        time.sleep(max(0.0, 1 - time.time() % 1))
    host.reload()  # reads the last change now, and not ten seconds later while dachost ends
    return reloads, changes


def count(host, directory):
    """Every promised hand-over: totals, and what is missing."""
    totals, wrong = collections.Counter(), []
    for name, values in host.published.items():
        runs, errors = records(directory, name)
        wrong += errors
        handled = {(t, v) for t, v, outcome in runs if outcome == "done"}
        started = {(t, v) for t, v, _ in runs}
        totals["published"] += len(values)
        totals["programs"] += len(runs)
        for _, _, outcome in runs:
            totals[outcome] += 1
        totals["handled"] += sum(v in handled for v in values)
        totals["replaced"] += sum(v not in handled for v in values[:-1])
        totals["lost"] += not has_newest(runs, values)
        totals["not published"] += len(started - host.known[name])
        order = [values.index(v) for v in (run[:2] for run in runs) if v in values]
        totals["out of order"] += order != sorted(order)
    return totals, wrong


def main():
    dachost, plugin, seconds = sys.argv[1], sys.argv[2], int(sys.argv[3])
    random.seed(1)
    with tempfile.TemporaryDirectory() as directory:
        for n in range(INSTANCES):
            with open(f"{directory}/i{n}.conf", "w", encoding="ascii") as file:
                file.write(f"hostname = host-{n}\n")
        os.mkfifo(f"{directory}/never")
        with open(f"{directory}/hook", "w", encoding="ascii") as file:
            file.write(HOOK % (directory, directory))
        os.chmod(f"{directory}/hook", 0o700)

        addresses = Addresses()
        host = Host(dachost, plugin, directory)
        host.wait_for_first_value()  # from then on SIGHUP reloads
        wrong, rows, reloads, changes = [], [], 0, 0
        for phase in range(PHASES + 1):
            more = stir(host, addresses, 10 if phase == 0 else seconds / PHASES)
            reloads, changes = reloads + more[0], changes + more[1]
            if not settle(host, directory, 180):
                wrong.append(f"phase {phase} does not settle")
            rows.append(host.measure())
            print("warm-up:" if phase == 0 else f"phase {phase}:",
                  ", ".join(f"{what} {n}" for what, n in rows[-1].items()), flush=True)
        status = host.end()
        totals, more = count(host, directory)
        wrong += more

    print(f"reloads {reloads}, changes of addresses {changes}, lines {host.events}, failures reported {host.errors},",
          f"retries {host.retries}")
    print(", ".join(f"{what} {n}" for what, n in totals.items()))
    if status != 0:
        wrong.append(f"exit status {status}")
    wrong += [f"no JSON: {line!r}" for line in host.bad_lines]
    wrong += [f"{totals[what]} {what}" for what in ("lost", "not published", "out of order") if totals[what]]
    for what in ("descriptors", "threads", "children"):
        if len({row[what] for row in rows}) != 1:
            wrong.append(f"{what} are not flat")
    if rows[-1]["resident kB"] > rows[1]["resident kB"] + STRAY_KB:
        wrong.append("resident memory grows")
    for what in wrong:
        print("not so:", what)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
