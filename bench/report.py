#!/usr/bin/env python3
"""Prints the table of ratios of a benchmark run; with --doc also puts table and chart into docs/.

    bench/report.py RESULT.json [--doc FOLDER]
"""
import argparse
import pathlib
import re

import chart
import results

HEADINGS = ["Operation", "Module", "Beside", "its time", "Ratio", "middle half", "Target", "Met"]


def cells(comparison, first):
    """One line of the table; operation and time stand in a row's first line only."""
    ratio = "" if comparison.ratio is None else results.factor(comparison.ratio)
    low, high = comparison.spread or (None, None)
    met = {None: "", True: "yes", False: "**no**"}[comparison.met()]
    return [comparison.row.replace("/", ": ") if first else "",
            results.duration(comparison.seconds) if first else "",
            comparison.other or "", results.duration(comparison.other_seconds) if ratio else "",
            ratio, f"{results.factor(low)} – {results.factor(high)}" if ratio else "",
            results.bound(comparison.target), met]


def table(comparisons):
    """A Markdown table that reads well as text too."""
    lines, last = [HEADINGS], None
    for comparison in comparisons:
        lines.append(cells(comparison, comparison.row != last))
        last = comparison.row
    widths = [max(len(line[i]) for line in lines) for i in range(len(HEADINGS))]
    lines.insert(1, ["-" * width for width in widths])
    return "\n".join("| " + " | ".join(text.ljust(width) for text, width in zip(line, widths)) + " |"
                     for line in lines)


def summary(comparisons):
    """How many targets are met, and which are not."""
    wanted = [c for c in comparisons if c.target]
    missed = [f"{c.row.replace('/', ': ')} ({results.factor(c.ratio)}, wanted {results.bound(c.target)})"
              if c.ratio else f"{c.row} ({results.duration(c.seconds)})"
              for c in wanted if not c.met()]
    text = f"{len(wanted) - len(missed)} of {len(wanted)} targets are met."
    return text + (" Missed: " + "; ".join(missed) + "." if missed else "")


def setting(context):
    """Where and when it was measured."""
    return (f"Measured on {context['date'][:10]}: {context['cpu']}, {context['num_cpus']} processors, "
            f"{context['openssl']}, {context['compiler']}, disk on {context['disk']}, memory on "
            f"{context['memory']}; {context['repetitions']} repetitions.")


def write_doc(folder, comparisons, context):
    """Replaces what stands between the markers of performance.md, and the chart."""
    page = folder / "performance.md"
    body = "\n\n".join([setting(context), summary(comparisons), table(comparisons)])
    text, count = re.subn(r"(<!-- results -->\n).*(<!-- end of results -->)",
                          lambda match: match[1] + body + "\n" + match[2], page.read_text("utf-8"),
                          flags=re.S)
    if count != 1:
        raise SystemExit(f"{page} has no place for the results")
    page.write_text(text, "utf-8")
    (folder / "performance.svg").write_text(chart.draw(comparisons), "utf-8")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("json")
    parser.add_argument("--doc", type=pathlib.Path, metavar="FOLDER")
    parser.add_argument("--quick", action="store_true", help="say only that all of it ran")
    arguments = parser.parse_args()
    comparisons, context = results.load(arguments.json)
    if arguments.quick:
        table(comparisons), summary(comparisons), chart.draw(comparisons)
        print(f"{len({c.row for c in comparisons})} operations ran; these times say nothing.")
        return
    print(table(comparisons))
    print(summary(comparisons))
    if arguments.doc:
        write_doc(arguments.doc, comparisons, context)


if __name__ == "__main__":
    main()
