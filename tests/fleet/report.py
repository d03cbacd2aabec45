#!/usr/bin/python3
"""Tables and plots of results that scripts/fleet --output wrote.

  report.py RESULT...              prints Markdown tables, two per result
  report.py --plots FOLDER RESULT...
      fleet-right.svg: gateways that are right over time, of the last result
      fleet-load.svg: processor time of each server in a renumbering, of all results
"""
import json
import sys

PLACES = ("nsd", "knot", "subscriber")


def times(values):
    return " / ".join("never" if v is None else f"{v:.1f}" for v in values)


def slowest(result):
    steps = {name: values[1] for name, values in result["steps"].items() if values[1] is not None}
    if not steps:
        return ""
    name = max(steps, key=steps.get)
    return f"{name}, {steps[name]:.1f}"


def scenario_table(results):
    yield (
        "| scenario | NSD right, s | Knot right, s | subscriber right, s | lost | wrong "
        "| updates (peak/s) | values (peak/s) | slowest step, s |"
    )
    yield "|---|---|---|---|---|---|---|---|---|"
    for r in results:
        if r["scenario"] == "z":
            continue
        judge = r["judge"]
        cells = [f"({r['scenario']}) {r['title']}", *(times(r["right"][p]) for p in PLACES)]
        cells += [len(judge["lost"]), len(judge["wrong"]) + len(judge["extra"])]
        cells += [f"{r['updates']} ({r['updates_peak']})", f"{r['messages']} ({r['messages_peak']})", slowest(r)]
        yield "| " + " | ".join(map(str, cells)) + " |"


def engine_table(results):
    results = [r for r in results if r["scenario"] not in "gz"]
    titles = [f"({r['scenario']})" for r in results]
    yield "| server: processor s, MB, MB sent and received | " + " | ".join(titles) + " |"
    yield "|---" * (len(results) + 1) + "|"
    for name in results[0]["engines"]:
        cells = [r["engines"][name] for r in results]
        texts = [f"{c['cpu']:.1f}, {c['memory']:.0f}, {c['bytes'] / 1e6:.1f}" for c in cells]
        yield f"| {name} | " + " | ".join(texts) + " |"


def new_plot(title):
    import matplotlib

    matplotlib.use("svg")
    matplotlib.rcParams |= {"svg.hashsalt": "ip6dns", "svg.fonttype": "none"}
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(figsize=(8, 4.5), layout="constrained")
    axes.set_title(title)
    axes.grid(True, linewidth=0.4)
    return figure, axes


def save(figure, axes, path):
    axes.legend(loc="upper center", bbox_to_anchor=(0.5, -0.13), ncol=2)
    figure.savefig(path, metadata={"Date": None})


def plot_right(results, folder):
    figure, axes = new_plot(f"{results[0]['gateways']} gateways get new addresses at 0 s")
    axes.set(xlabel="seconds", ylabel="% of the gateways right")
    cases = {"b": ("-", ""), "c": ("--", ", primary away for a minute")}
    for r in results:
        if r["scenario"] not in cases:
            continue
        style, note = cases[r["scenario"]]
        for color, place in zip(("C0", "C1", "C2"), PLACES):
            curve = [0, *r["curve"][place]]
            shares = [100 * i / r["gateways"] for i in range(len(curve))]
            axes.step(curve, shares, style, color=color, where="post", label=place + note)
    save(figure, axes, folder + "/fleet-right.svg")


def plot_load(all_results, folder):
    rows = sorted((r for results in all_results for r in results if r["scenario"] == "b"), key=lambda r: r["gateways"])
    figure, axes = new_plot("Processor time of each server when all gateways get new addresses")
    axes.set(xlabel="gateways", ylabel="processor seconds", xscale="log", yscale="log")
    for engine in rows[0]["engines"]:
        # A hundredth of a second is the kernel's unit.
        seconds = [max(r["engines"][engine]["cpu"], 0.01) for r in rows]
        axes.plot([r["gateways"] for r in rows], seconds, "o-", label=engine)
    save(figure, axes, folder + "/fleet-load.svg")


def main():
    words = sys.argv[1:]
    folder = words.pop(1) if words[:1] == ["--plots"] else None
    files = [w for w in words if w != "--plots"]
    if not files:
        sys.exit(__doc__.strip())
    all_results = []
    for name in files:
        with open(name, encoding="utf-8") as f:
            all_results.append(json.load(f))
    if folder:
        plot_right(all_results[-1], folder)
        plot_load(all_results, folder)
        return
    for results in all_results:
        print(f"\n### {results[0]['gateways']} gateways, {results[0]['carrier']}\n")
        print("\n".join(scenario_table(results)) + "\n\n" + "\n".join(engine_table(results)))


if __name__ == "__main__":
    main()
