#!/usr/bin/python3
"""Starts one Python program many times, each on its own machine and in its own session.

  launcher.py PROGRAM

Reads one JSON object per line: "machine", "arguments", "environment", "log". Prints the process id for each. A line
"release" begins all programs that were started since the previous one, at the same moment.
The modules are loaded once: 1000 interpreters that load TLS and MQTT themselves need 21 GB and 150 s of processor time.
"""
import gc
import json
import os
import signal
import sys

import network

# What the program imports.
import argparse, random, select, shutil, ssl, subprocess, time  # noqa: E401,F401
import paho.mqtt.client  # noqa: F401
import paho.mqtt.packettypes  # noqa: F401
import paho.mqtt.properties  # noqa: F401
import paho.mqtt.reasoncodes  # noqa: F401


def become(program, code, order, gate):
    """Waits for the release, then turns this process into the program; does not return."""
    os.setsid()
    os.close(gate[1])
    os.read(gate[0], 1)
    os.close(gate[0])
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)
    network.enter(order["machine"])
    null, log = os.open("/dev/null", os.O_RDONLY), os.open(order["log"], os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    for descriptor, number in ((null, 0), (log, 1), (log, 2)):
        os.dup2(descriptor, number)
    os.environ.clear()
    os.environ.update(order["environment"])
    sys.argv = [program, *order["arguments"]]
    status = 1
    try:
        exec(code, {"__name__": "__main__", "__file__": program})
        status = 0
    except SystemExit as e:
        status = e.code if isinstance(e.code, int) else 0 if e.code is None else 1
        if isinstance(e.code, str):
            print(e.code, file=sys.stderr)
    except BaseException as e:  # noqa: BLE001  the interpreter would print it
        print(repr(e), file=sys.stderr)
    finally:
        sys.stderr.flush()
        os._exit(status)


def main():
    program = sys.argv[1]
    with open(program, encoding="utf-8") as f:
        code = compile(f.read(), program, "exec")
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # no zombies
    gc.collect()
    gc.freeze()  # prevents the collector from writing to pages that the children share
    gate = os.pipe()
    for line in sys.stdin:
        if line == "release\n":
            os.close(gate[0])
            os.close(gate[1])
            gate = os.pipe()
            continue
        order = json.loads(line)
        child = os.fork()
        if child == 0:
            become(program, code, order, gate)
        print(child, flush=True)


if __name__ == "__main__":
    main()
