#!/usr/bin/env python3
"""Prints the table of ratios of a benchmark run and says which targets are met; with --doc also puts
table and chart into docs/ (the chart if matplotlib is installed).

    bench/report.py RESULT.json [--quick] [--doc FOLDER]
"""
import argparse
import datetime
import fnmatch
import json
import pathlib
import re
import statistics

# What is wanted of the module: at most this many times the time of the contender beside it, or at
# most so many seconds. The first pattern that fits the row holds.
TARGETS = [
    ("sign/SM2", 1 / 2.1),             # 2.1 times the rate of ECDSA on P-256
    ("verify/SM2", 1 / 1.2),
    ("[ed]*crypt/SM2, 32 bytes", 1.0),  # of ECDSA verifications
    ("sign/*", 1.03),
    ("verify/*", 1.03),
    ("[ed]*crypt/RSA-*", 1.03),
    ("generate/SM2", 1.0),             # of a generation on P-256
    ("verify PIN/*", 1.05),
    ("scan/*", 2.0),
    ("* certificate/disk", 3.0),
    ("*e data/disk", 3.0),
    ("* certificate/memory", 1.25),
    ("*e data/memory", 1.25),
    ("start and stop/*", "10 ms"),
]
HEADINGS = ["Operation", "Module", "Beside", "its time", "Ratio", "middle half", "Target", "Met"]


class Contender:
    """One of a row: who it is, and its seconds in each repetition."""

    def __init__(self, who):
        self.who, self.times = who, []

    def seconds(self):
        return statistics.median(self.times)

    def quartiles(self):
        if len(self.times) < 4:
            return min(self.times), max(self.times)
        return statistics.quantiles(self.times, n=4)[::2]


def load(path):
    """Rows in their order, each a list of contenders with the module's function first; the context."""
    data = json.loads(pathlib.Path(path).read_text("utf-8"))
    units = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}
    rows = {}
    for run in sorted(data["benchmarks"], key=lambda run: run["family_index"]):
        if run["run_type"] != "iteration":
            continue
        if run.get("error_occurred"):
            raise SystemExit(f"{run['name']}: {run['error_message']}")
        name, *options = re.split(r"/(?=iterations:|repeats:|real_time|manual_time|threads:)",
                                  run["run_name"])
        row, who = name.rsplit("/", 1)
        clock = "real_time" if {"real_time", "manual_time"} & set(options) else "cpu_time"
        contender = rows.setdefault(row, {}).setdefault(who, Contender(who))
        contender.times.append(run[clock] * units[run["time_unit"]])
    if not rows:
        raise SystemExit(f"{path} holds no results")
    return {row: list(contenders.values()) for row, contenders in rows.items()}, data["context"]


def target_of(row):
    """What is wanted of a row, or None."""
    if "threads" in row:
        return None
    return next((target for pattern, target in TARGETS if fnmatch.fnmatch(row, pattern)), None)


def is_met(row, module, ratio):
    """Whether the target is met; None without one."""
    target = target_of(row)
    if target is None:
        return None
    if isinstance(target, str):
        return module.seconds() * 1e3 <= float(target.split()[0])
    return ratio is None or round(ratio, 3) <= round(target, 3)


def duration(seconds):
    """Three significant digits and a unit."""
    unit, factor = next((u, f) for u, f in (("s", 1), ("ms", 1e3), ("µs", 1e6), ("ns", 1e9))
                        if seconds * f >= 1 or u == "ns")
    value = seconds * factor
    return f"{value:.{0 if value >= 100 else 1 if value >= 10 else 2}f} {unit}"


def factor(ratio):
    """A ratio, in three decimals where a target could turn on them."""
    return f"{ratio:.3f}" if ratio < 2 else f"{ratio:.3g}"


def lines_of(row, contenders):
    """The lines of a row: operation, time, target and whether it is met stand in the first."""
    module, *others = contenders
    target, ratio = target_of(row), None
    lines = []
    for other in others or [None]:
        cells = ["", "", "", "", ""]
        if other:
            ratio = ratio or module.seconds() / other.seconds()
            (low, high), (other_low, other_high) = module.quartiles(), other.quartiles()
            cells = [other.who, duration(other.seconds()), factor(module.seconds() / other.seconds()),
                     f"{factor(low / other_high)} – {factor(high / other_low)}"]
        lines.append(["", "", *cells[:4], "", ""])
    bound = "" if target is None else f"≤ {target if isinstance(target, str) else f'{target:.2f}'}"
    met = {None: "", True: "yes", False: "**no**"}[is_met(row, module, ratio)]
    lines[0][:2] = [row.replace("/", ": "), duration(module.seconds())]
    lines[0][6:] = [bound, met]
    return lines


def table(rows):
    """A Markdown table that reads well as text too."""
    lines = [HEADINGS] + [line for row, contenders in rows.items() for line in lines_of(row, contenders)]
    widths = [max(len(line[i]) for line in lines) for i in range(len(HEADINGS))]
    lines.insert(1, ["-" * width for width in widths])
    return "\n".join("| " + " | ".join(text.ljust(width) for text, width in zip(line, widths)) + " |"
                     for line in lines)


def summary(rows):
    """How many targets are met, and which are not."""
    met = {row: lines_of(row, contenders)[0] for row, contenders in rows.items() if target_of(row)}
    missed = [f"{line[0]} ({line[4] or line[1]}, wanted {line[6]})" for line in met.values()
              if line[7] != "yes"]
    text = f"{len(met) - len(missed)} of {len(met)} targets are met."
    return text + (" Missed: " + "; ".join(missed) + "." if missed else "")


def setting(rows, context):
    """Where, when and how often it was measured."""
    day = datetime.date.fromisoformat(context["date"][:10])
    repetitions = max(len(c.times) for contenders in rows.values() for c in contenders)
    return (f"Measured on {day}: {context['cpu']}, {context['num_cpus']} processors, "
            f"{context['openssl']}, g++ {context['compiler']}; disk on {context['disk']}, memory on "
            f"{context['memory']}; {repetitions} repetitions.")


def draw(rows, path):
    """The chart: each operation's ratio to the contender beside it, its middle half and target."""
    try:
        import matplotlib
    except ImportError:
        print("Without matplotlib (Debian: python3-matplotlib) there is no chart.")
        return
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "vakro", "svg.fonttype": "none"})
    from matplotlib import pyplot, ticker
    shown = [(row, contenders) for row, contenders in rows.items() if len(contenders) > 1][::-1]
    figure, axes = pyplot.subplots(figsize=(9, 0.24 * len(shown) + 1))
    for y, (row, (module, other, *_)) in enumerate(shown):
        ratio, target = module.seconds() / other.seconds(), target_of(row)
        (low, high), (other_low, other_high) = module.quartiles(), other.quartiles()
        colour = "#c0202b" if is_met(row, module, ratio) is False else "#0b5cad"
        axes.plot([low / other_high, high / other_low], [y, y], color=colour, lw=1.5)
        axes.plot(ratio, y, "o", color=colour, ms=5)
        if target:
            axes.plot(target, y, "|", color="#222222", ms=10, mew=2)
    axes.set_yticks(range(len(shown)), [row.replace("/", ": ") for row, _ in shown], fontsize=8)
    axes.set_xscale("log")
    axes.set_xticks([0.2, 0.5, 1, 2, 5], ["0.2", "0.5", "1", "2", "5"])
    axes.xaxis.set_minor_formatter(ticker.NullFormatter())
    axes.margins(y=0.01)
    axes.grid(axis="x", which="both", color="#dddddd", lw=0.5)
    axes.set_title("Time of the operation ÷ time of its neighbour (bar: target, red: missed)", fontsize=10)
    figure.savefig(path, bbox_inches="tight", metadata={"Date": None})


def write_doc(folder, rows, context):
    """Replaces what stands between the markers of performance.md, and the chart."""
    page = folder / "performance.md"
    body = "\n\n".join([setting(rows, context), summary(rows), table(rows)])
    text, count = re.subn(r"(<!-- results -->\n).*(<!-- end of results -->)",
                          lambda match: match[1] + body + "\n" + match[2], page.read_text("utf-8"),
                          flags=re.S)
    if count != 1:
        raise SystemExit(f"{page} has no place for the results")
    page.write_text(text, "utf-8")
    draw(rows, folder / "performance.svg")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("json")
    parser.add_argument("--doc", type=pathlib.Path, metavar="FOLDER")
    parser.add_argument("--quick", action="store_true", help="say only that all of it ran")
    arguments = parser.parse_args()
    rows, context = load(arguments.json)
    report = f"{table(rows)}\n{summary(rows)}\n{setting(rows, context)}"
    print(f"{len(rows)} operations ran; these times say nothing." if arguments.quick else report)
    if arguments.doc:
        write_doc(arguments.doc, rows, context)


if __name__ == "__main__":
    main()
