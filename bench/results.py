"""The results of a run: reads the benchmark's JSON and compares the module with each contender."""
import json
import statistics


class Comparison:
    """The module beside one contender of a row, or alone: `others` is then empty."""

    def __init__(self, row, function, times, other, others, target):
        self.row, self.function, self.other, self.target = row, function, other, target
        self.seconds = statistics.median(times)
        self.other_seconds = statistics.median(others) if others else None
        ratios = sorted(a / b for a, b in zip(times, others))
        self.ratio = statistics.median(ratios) if ratios else None
        quarter = len(ratios) // 4
        self.spread = (ratios[quarter], ratios[-1 - quarter]) if ratios else None  # middle half

    def met(self):
        """Whether the target is met; None without one."""
        if self.target is None:
            return None
        kind, bound = self.target
        if kind == "max_seconds":
            return self.seconds <= bound
        return self.ratio <= (bound if kind == "max_cost" else 1 / bound)


def contenders(repetition):
    """Name and seconds of a repetition's contenders, the module first."""
    numbered = [key.split(" ", 1) + [value] for key, value in repetition.items() if key[0].isdigit()]
    return [(name, value) for _, name, value in sorted(numbered, key=lambda entry: int(entry[0]))]


def load(path):
    """The comparisons of all rows, in the order of the run, and the context of the run."""
    with open(path, encoding="utf-8") as file:
        data = json.load(file)
    rows = {}
    for entry in data["benchmarks"]:
        if entry["run_type"] != "iteration":
            continue
        name = entry["run_name"].split("/iterations:")[0]
        if entry.get("error_occurred"):
            raise SystemExit(f"{name}: {entry['error_message']}")
        rows.setdefault((entry["family_index"], name), []).append(entry)
    if not rows:
        raise SystemExit(f"{path} holds no results")
    return [c for (_, name), runs in sorted(rows.items()) for c in compare(name, runs)], data["context"]


def compare(name, runs):
    """The comparisons of one row from its repetitions."""
    function, *others = [name for name, _ in contenders(runs[0])]
    times = list(zip(*[[value for _, value in contenders(run)] for run in runs]))
    target = next(((kind, runs[0][kind]) for kind in ("max_cost", "min_rate", "max_seconds")
                   if kind in runs[0]), None)
    if not others:
        return [Comparison(name, function, times[0], None, [], target)]
    return [Comparison(name, function, times[0], other, times[i + 1], target if i == 0 else None)
            for i, other in enumerate(others)]


def duration(seconds):
    """Three significant digits and a unit."""
    for unit, factor in (("s", 1), ("ms", 1e3), ("µs", 1e6)):
        if seconds * factor >= 1:
            break
    value = seconds * factor
    return f"{value:.{0 if value >= 100 else 1 if value >= 10 else 2}f} {unit}"


def factor(ratio):
    """A ratio, in three decimals where a target could turn on them."""
    return f"{ratio:.3f}" if ratio < 2 else f"{ratio:.3g}"


def bound(target):
    """A target in words."""
    if target is None:
        return ""
    kind, value = target
    if kind == "max_seconds":
        return f"≤ {duration(value)}"
    if kind == "min_rate":
        return f"≤ {1 / value:.2f} ({value:g} × the rate)"
    return f"≤ {value:.2f}"
