#!/usr/bin/python3
"""Makes the table and the plots of doc/performance.md from the JSON files that the benchmarks write.

  bench/report.py FILE...             prints what must hold
  bench/report.py --write FILE...     replaces the table in doc/performance.md, and the plots

A benchmark is named "PATH vs RIVAL". bench/targets.tsv lists the ratio that each path may have at most. Exits with 1 if
a benchmark has failed.
"""
import argparse
import json
import platform
import re
import statistics
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "doc" / "performance.md"
BEGIN, END = "<!-- written by bench/report.py -->\n", "<!-- end -->\n"
COUNTERS = ("ratio", "low", "high", "ours", "theirs")


def read(files):
    """The results by path and rival, and the names of failed benchmarks."""
    runs, failed = {}, []
    for file in files:
        for b in json.loads(file.read_text())["benchmarks"]:
            name = re.sub(r"(/iterations:\d+)?(/manual_time)?$", "", b["name"])
            if b.get("error_occurred"):
                failed.append(f"{name}: {b['error_message']}")
                continue
            path, rival = name.split(" vs ")
            runs.setdefault((path, rival), []).append({c: b[c] for c in COUNTERS} | {"unit": b["label"]})
    return {key: middle(results) for key, results in runs.items()}, failed


def middle(runs):
    """The run with the middle ratio, with the lowest and the highest quartile of all runs.

    Each run has other addresses, and two that differ by a multiple of 4096 slow each other down."""
    ratio = statistics.median_low(run["ratio"] for run in runs)
    run = next(run for run in runs if run["ratio"] == ratio)
    return run | {"low": min(r["low"] for r in runs), "high": max(r["high"] for r in runs)}


def targets():
    lines = (ROOT / "bench" / "targets.tsv").read_text().splitlines()
    return [line.split("\t") for line in lines if not line.startswith("#")]


def figure(value, unit):
    for small, factor, large in (("ns", 1e3, "µs"), ("µs", 1e3, "ms"), ("B", 1024, "kB")):
        if value >= factor and re.match(rf"{small}(/|$)", unit):
            value, unit = value / factor, unit.replace(small, large, 1)
    return f"{value:.3g} {unit}"


def table(results):
    lines = ["| path | compared with | at most | measured | quartiles | ours | theirs | |", "|---|---|---|---|---|---|---|---|"]
    holding = 0
    for label, pattern, rival, most in targets():
        cases = [(r["ratio"], path, r) for (path, against), r in results.items() if against == rival and re.search(pattern, path)]
        if not cases:
            lines.append(f"| {label} | {rival} | {most} | not measured | | | | **no** |")
            continue
        ratio, path, r = max(cases, key=lambda case: case[0])
        holds = ratio <= float(most)
        holding += holds
        worst = f" (worst of {len(cases)}: {path.split(', ')[-1]})" if len(cases) > 1 else ""
        lines.append(f"| {label}{worst} | {rival} | {most} | {ratio:.3g} | {r['low']:.3g} to {r['high']:.3g} | "
                     f"{figure(r['ours'], r['unit'])} | {figure(r['theirs'], r['unit'])} | {'yes' if holds else '**no**'} |")
    return "\n".join(lines) + f"\n\n{holding} of {len(targets())} hold.\n"


def machine():
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    return f"{cpu[1] if cpu else platform.machine()}, Linux {platform.release()}"


def series(results, pattern, rival, counter, scale=1.0):
    """Points (number in the path, figure / scale) in ascending order."""
    found = {int(m[1]): r[counter] / scale for (path, against), r in results.items()
             if against == rival and (m := re.fullmatch(pattern, path))}
    return sorted(found.items())


def draw(name, title, x, y, lines, **scales):
    import matplotlib

    matplotlib.use("svg")
    matplotlib.rcParams |= {"svg.hashsalt": "ip6dns", "svg.fonttype": "none"}
    from matplotlib import pyplot

    picture, axes = pyplot.subplots(figsize=(7.6, 4.2), layout="constrained")
    for i, (label, points) in enumerate(lines):
        if points:
            axes.plot(*zip(*points), label=label, marker=".", linewidth=3 if i == 0 else 1)
    axes.set(title=title, xlabel=x, ylabel=y, **scales)
    axes.grid(True, alpha=0.4)
    axes.minorticks_off()
    axes.legend(loc="upper left", bbox_to_anchor=(1, 1))
    picture.savefig(DOCUMENT.parent / name, metadata={"Date": None})


def plot_blocks(results):
    pairs = r"pool pair, (\d+)"
    rivals = [(rival, series(results, pairs, rival, "theirs"))
              for rival in ("limit", "glibc tuned", "glibc", "jemalloc", "mimalloc", "tcmalloc")]
    draw("blocks.svg", "Allocation and release of one block, another thread alive", "block size, bytes", "ns",
         [("pools", series(results, pairs, "limit", "ours")), *rivals], xscale="log", yscale="log")


def plot_idle(results):
    idle = r"idle instance, of (\d+)"
    draw("idle.svg", "Processor time of an idle instance", "instances", "µs per second",
         [("instance", series(results, idle, "bare loop", "ours", 1e3)),
          ("bare loop", series(results, idle, "bare loop", "theirs", 1e3))], xscale="log", ylim=(0, None))


def write(results):
    text = DOCUMENT.read_text()
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    DOCUMENT.write_text(f"{before}{BEGIN}Measured on {machine()}.\n\n{table(results)}{END}{after}")
    plot_blocks(results)
    plot_idle(results)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--write", action="store_true")
    parser.add_argument("files", metavar="FILE", nargs="+", type=Path)
    options = parser.parse_args()
    results, failed = read(options.files)
    if options.write:
        write(results)
    else:
        print(table(results), end="")
    for name in failed:
        print(f"failed: {name}", file=sys.stderr)
    return bool(failed)


if __name__ == "__main__":
    sys.exit(main())
