#!/usr/bin/python3
"""N gateways on real name servers and brokers, all on this machine. scripts/fleet --help has the options."""
import argparse
import json
import os
import resource
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True
import network  # noqa: E402

PR_SET_PDEATHSIG = 1
HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))


def arguments():
    p = argparse.ArgumentParser(prog="scripts/fleet", description=__doc__)
    p.add_argument("gateways", metavar="N", type=int, nargs="?", default=20, help="gateways, up to 1000; default: 20")
    p.add_argument("--carrier", choices=("mosquitto", "rabbitmq"), default="mosquitto")
    p.add_argument("--scenarios", default="abcdefghz", help="default: abcdefghz; x is c, d and e at once")
    p.add_argument("--outage", type=float, default=60, help="seconds for which an engine is away; default: 60")
    p.add_argument("--steady", type=float, default=300, help="seconds of the steady state; default: 300")
    p.add_argument("--keepalive", type=int, default=30, help="seconds, of the gateways' MQTT connections; default: 30")
    p.add_argument("--refresh", type=int, default=60, help="seconds between a secondary's checks; default: 60")
    p.add_argument("--splay", type=float, default=0, help="seconds over which first updates are spread; default: 0")
    p.add_argument("--limit", type=float, default=300, help="seconds after which a scenario has failed; default: 300")
    p.add_argument("--output", default="", help="file for the results as JSON")
    p.add_argument("--build", default=ROOT + "/build/fleet", help="build folder with dachost and the plug-in")
    p.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    o = p.parse_args()
    if not 2 <= o.gateways <= 1000:
        p.error("N: expected 2 to 1000; a bridge has 1024 ports")
    o.examples = ROOT + "/examples"
    o.dachost, o.plugin = o.build + "/host/dachost", o.build + "/libip6dns.so"
    for name in (o.dachost, o.plugin):
        if not os.path.exists(name):
            p.error(f"{name}: not found; scripts/fleet builds it")
    return o


def run_in_namespaces():
    """Runs this program again in private namespaces. All processes in them end when it or this process ends."""
    own = [] if os.getuid() == 0 else ["--user", "--map-root-user"]
    inside = subprocess.Popen(
        ["unshare", *own, "--net", "--mount", "--uts", "--ipc", "--pid", "--fork", "--kill-child", "--mount-proc"]
        + [sys.executable, os.path.abspath(__file__), *sys.argv[1:], "--inside"],
        env=os.environ | {"PYTHONDONTWRITEBYTECODE": "1"},
        preexec_fn=lambda: network.libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL),
    )
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: inside.kill())
    return inside.wait()


def reap():
    """Continues in a child process. This one, the first of its process namespace, waits for orphans until that ends."""
    child = os.fork()
    if child == 0:
        return
    while True:
        process, status = os.wait()
        if process == child:
            os._exit(os.waitstatus_to_exitcode(status) & 255)


def show(result):
    judge = result["judge"]
    print(
        f"{result['scenario']}  {result['title']}: {result['seconds']} s, checked {judge['checked']}, "
        f"lost {len(judge['lost'])}, wrong {len(judge['wrong'])}, extra {len(judge['extra'])}"
    )
    for place, times in result["right"].items():
        print(f"   {place:<11} right at 50/99/100 %: {' / '.join(str(t) for t in times)} s")
    print(
        f"   updates {result['updates']} (peak {result['updates_peak']}/s, refused {result['refused']}), "
        f"serials {result['serials']}, values {result['messages']} (peak {result['messages_peak']}/s), "
        f"statuses {result['statuses']}, load {result['load']}"
    )
    for name, e in result["engines"].items():
        print(f"   {name:<11} {e['cpu']:7.2f} s processor  {e['memory']:7.1f} MB  {e['bytes']:9} bytes")
    for name, (half, most) in result["steps"].items():
        print(f"   {name:<22} {half} s, 99 %: {most} s")
    for promise in result["broken"]:
        print(f"   broken: {promise}")
    for name, note in result["notes"].items():
        print(f"   {name}: {note}")
    for kind in ("lost", "wrong", "extra"):
        for entry in judge[kind][:5]:
            print(f"   {kind}: {entry}")
    sys.stdout.flush()


def print_logs(fleet):
    """The logs of the engines and of one gateway that is not right."""
    wrong = next((g for g in fleet.gateways if not fleet.is_right([g])), fleet.gateways[0])
    for source in (*fleet.engines, wrong):
        print(f"--- {source.name}\n{source.log_end()}")


def run(options):
    import scenarios
    from cast import Fleet

    begin = time.time()
    fleet = Fleet(options)
    created = time.time()
    fleet.start_engines()
    print(f"{options.gateways} machines in {created - begin:.1f} s, engines ready after {time.time() - created:.1f} s")
    results = []
    for name in options.scenarios:
        try:
            result = scenarios.ALL[name](fleet)
        except Exception:
            print_logs(fleet)
            raise
        results.append(result)
        show(result)
        if options.output:
            with open(options.output, "w", encoding="utf-8") as f:
                json.dump(results, f)
    failures = [r["scenario"] for r in results if r["broken"] or any(r["judge"][k] for k in ("lost", "wrong", "extra"))]
    if failures:
        print_logs(fleet)
    right = len(results) - len(failures)
    print(f"{right} scenarios right, {len(failures)} wrong, {time.time() - begin:.0f} s", flush=True)
    return 1 if failures else 0


def main():
    options = arguments()
    if not options.inside:
        sys.exit(1 if run_in_namespaces() else 0)
    reap()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 65536), hard))
    sys.exit(run(options))


if __name__ == "__main__":
    main()
