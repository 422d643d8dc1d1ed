"""Draws the chart of a benchmark run as SVG: SM2 beside other libraries, and the ratio of every
operation to the bare work beneath it. Both on logarithmic axes, a dot for each median."""
import html
import math

WIDTH, LEFT, RIGHT, STEP = 900, 300, 40, 22
COLOURS = {"this module": "#0b5cad", "OpenSSL ECDSA P-256": "#d1720a", "OpenSSL EVP SM2": "#7a7a7a",
           "Botan": "#3d8f4f", "libgcrypt": "#9a4fb0"}
MISSED = "#c0202b"


class Panel:
    """Rows of dots over a logarithmic axis from `low` to `high`."""

    def __init__(self, top, title, rows, low, high, label):
        self.top, self.low, self.high = top, low, high
        self.bottom = top + 50 + STEP * len(rows)
        self.parts = [text(20, top + 18, title, weight="bold", size=15)]
        for value, name in ticks(low, high, label):
            x = self.x(value)
            self.parts += [line(x, top + 40, x, self.bottom - 4, "#dddddd"),
                           text(x, self.bottom + 12, name, anchor="middle", size=11)]
        for i, name in enumerate(rows):
            self.parts.append(text(LEFT - 12, self.y(i) + 4, name, anchor="end"))

    def x(self, value):
        share = math.log(value / self.low) / math.log(self.high / self.low)
        return LEFT + share * (WIDTH - LEFT - RIGHT)

    def y(self, index):
        return self.top + 52 + STEP * index

    def dot(self, index, value, colour, title):
        self.parts.append(f'<circle cx="{self.x(value):.1f}" cy="{self.y(index)}" r="5.5" '
                          f'fill="{colour}"><title>{html.escape(title)}</title></circle>')

    def span(self, index, low, high, colour):
        self.parts.append(line(self.x(low), self.y(index), self.x(high), self.y(index), colour, 2))

    def mark(self, index, value):
        x, y = self.x(value), self.y(index)
        self.parts.append(line(x, y - 9, x, y + 9, "#222222", 2))


def text(x, y, words, anchor="start", weight="normal", size=12):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-weight="{weight}" '
            f'font-size="{size}">{html.escape(words)}</text>')


def line(x1, y1, x2, y2, colour, width=1):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"/>')


def ticks(low, high, label):
    """1, 2, 5, 10 … within the axis."""
    for power in range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1):
        for step in (1, 2, 5):
            value = step * 10.0 ** power
            if low <= value * 1.0001 and value <= high * 1.0001:
                yield value, label(value)


def contender(name):
    """The legend's entry for a contender."""
    if name.startswith("ECDSA"):
        return "OpenSSL ECDSA P-256"
    return next((known for known in COLOURS if name.startswith(known)), "this module")


def sm2_panel(top, comparisons):
    """Times of the SM2 operations, the module's and the others'."""
    rows = {}
    for c in comparisons:
        if c.other and c.row.split("/")[1].startswith("SM2") and "threads" not in c.row:
            times = rows.setdefault(c.row, {"this module": c.seconds})
            times[contender(c.other)] = c.other_seconds
    rows = {row: times for row, times in rows.items() if len(times) > 2}
    values = [value for times in rows.values() for value in times.values()]
    panel = Panel(top, "SM2: time of one operation", [row.replace("/", ": ") for row in rows],
                  min(values) / 1.3, max(values) * 1.3,
                  lambda v: f"{v * 1e3:g} ms" if v >= 1e-3 else f"{v * 1e6:g} µs")
    for i, (row, times) in enumerate(rows.items()):
        for name in reversed(COLOURS):
            if name in times:
                panel.dot(i, times[name], COLOURS[name], f"{row}, {name}: {times[name] * 1e6:.0f} µs")
    x = LEFT
    for name, colour in COLOURS.items():
        panel.parts += [f'<circle cx="{x}" cy="{top + 14}" r="5.5" fill="{colour}"/>',
                        text(x + 10, top + 18, name)]
        x += 26 + 7 * len(name)
    return panel


def ratio_wanted(target):
    """The ratio at which a target is met."""
    kind, bound = target
    return bound if kind == "max_cost" else 1 / bound


def ratio_panel(top, comparisons):
    """Every operation over the bare work beneath it, the first comparison of each row."""
    firsts = {}
    for c in comparisons:
        if c.ratio:
            firsts.setdefault(c.row, c)
    targets = {row: ratio_wanted(c.target) for row, c in firsts.items() if c.target}
    values = [edge for c in firsts.values() for edge in c.spread] + list(targets.values())
    names = [row.replace("/", ": ") for row in firsts]
    panel = Panel(top, "Time of the operation ÷ time of its neighbour (bar: target, red: missed)", names,
                  min(values) / 1.1, max(values) * 1.1, lambda v: f"{v:g}")
    for i, c in enumerate(firsts.values()):
        colour = MISSED if c.met() is False else COLOURS["this module"]
        panel.span(i, *c.spread, colour)
        if c.target:
            panel.mark(i, targets[c.row])
        panel.dot(i, c.ratio, colour, f"{c.function} ÷ {c.other}: {c.ratio:.3g}")
    return panel


def draw(comparisons):
    """The whole picture."""
    upper = sm2_panel(10, comparisons)
    lower = ratio_panel(upper.bottom + 40, comparisons)
    height = lower.bottom + 24
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
                      f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" fill="#222222">',
                      f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
                      *upper.parts, *lower.parts, "</svg>", ""])
