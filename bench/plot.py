#!/usr/bin/env python3
"""plot.py <compare.json> <heap_system.json> <heap_classes.json> <folder>

Writes the plots of the list benchmarks, as SVG, from the JSON of Google Benchmark. Nothing but the
standard library is needed.
"""
import html
import json
import math
import pathlib
import sys

COLOURS = {
    "tq": "#c0392b", "tq_reused": "#e67e22", "protobuf": "#2471a3", "protobuf_reused": "#7fb3d5",
    "capnp": "#1e8449", "msgpack": "#7d3c98", "flexbuffers": "#b7950b", "gvariant": "#616a6b",
    "nlohmann_cbor": "#d98880", "nlohmann_json": "#5d4037",
}
GREY = "#444"


def medians(path):
    """Name -> median CPU nanoseconds of an iteration."""
    units = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    found = {}
    for run in json.loads(pathlib.Path(path).read_text())["benchmarks"]:
        if run.get("aggregate_name", "median") == "median":
            found[run["run_name"]] = run["cpu_time"] * units[run["time_unit"]]
    return found


def readable(nanoseconds):
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


class Svg:
    def __init__(self, width, height, title):
        self.width, self.height, self.parts = width, height, []
        self.rect(0, 0, width, height, "#fff")
        self.text(16, 24, title, size=15, weight="bold")

    def rect(self, x, y, width, height, fill):
        self.parts.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" '
                          f'height="{height:.1f}" fill="{fill}"/>')

    def line(self, points, colour, width=1.0):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" '
                          f'stroke-width="{width}"/>')

    def text(self, x, y, text, size=11, anchor="start", weight="normal", colour=GREY):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" fill="{colour}" '
                          f'text-anchor="{anchor}" font-weight="{weight}">'
                          f'{html.escape(text)}</text>')

    def save(self, path):
        path.write_text(f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.width}" '
                        f'height="{self.height}" font-family="sans-serif">\n'
                        + "\n".join(self.parts) + "\n</svg>\n")


def colour_of(name):
    return COLOURS.get(name, "#888")


def stacked_bars(figures, message, path):
    """Total by library, shortest first, with the parts that were measured by themselves inside."""
    shades = (("build", "#34495e"), ("carry", "#5dade2"), ("read", "#f5b041"))
    totals = {name.split("/")[2]: value for name, value in figures.items()
              if name.startswith(f"{message}/total/")}
    # Beyond this a bar is cut: two libraries are many times slower than all others.
    limit = 6 * sorted(totals.values())[0]
    svg = Svg(820, 86 + 34 * len(totals), f"{message}: build, send, receive and read one message")
    for i, (step, shade) in enumerate(shades):
        svg.rect(150 + 90 * i, 36, 10, 10, shade)
        svg.text(165 + 90 * i, 45, step)
    svg.rect(420, 36, 10, 10, "#bbb")
    svg.text(435, 45, "total, measured as one")
    for row, (library, total) in enumerate(sorted(totals.items(), key=lambda item: item[1])):
        top = 62 + 34 * row
        svg.text(140, top + 15, library, anchor="end", colour=colour_of(library), weight="bold")
        scale = 520 / limit
        left = 150.0
        for step, shade in shades:
            width = min(figures[f"{message}/{step}/{library}"] * scale, 670 - left)
            svg.rect(left, top, max(width, 0), 12, shade)
            left += max(width, 0)
        svg.rect(150, top + 13, min(total, limit) * scale, 8, "#bbb")
        cut = " (cut)" if total > limit else ""
        svg.text(678, top + 15, readable(total) + cut)
    svg.save(path)


def log_lines(series, title, x_name, y_name, path):
    """Lines over two logarithmic axes; `series` is name -> [(x, y)]."""
    svg = Svg(820, 470, title)
    left, right, top, bottom = 70, 660, 44, 420
    xs = [x for points in series.values() for x, _ in points]
    ys = [y for points in series.values() for _, y in points]
    low = math.floor(math.log10(min(ys)))
    high = math.ceil(math.log10(max(ys)))
    x_low, x_span = math.log2(min(xs)), max(math.log2(max(xs)) - math.log2(min(xs)), 1)

    def place(x, y):
        return (left + (right - left) * (math.log2(x) - x_low) / x_span,
                bottom - (bottom - top) * (math.log10(y) - low) / (high - low))

    for power in range(low, high + 1):
        y = place(min(xs), 10.0 ** power)[1]
        svg.line([(left, y), (right, y)], "#ddd")
        svg.text(left - 6, y + 4, readable(10.0 ** power), anchor="end")
    for x in sorted(set(xs)):
        svg.text(place(x, 10.0 ** low)[0], bottom + 16, str(x), anchor="middle")
    svg.text((left + right) / 2, bottom + 36, x_name, anchor="middle")
    svg.text(left, top - 6, y_name)
    last = -math.inf
    for name, points in sorted(series.items(), key=lambda item: -item[1][-1][1]):
        points = [place(x, y) for x, y in sorted(points)]
        svg.line(points, colour_of(name), 2.5 if name == "tq" else 1.5)
        label = max(points[-1][1] + 4, last + 13)
        svg.text(right + 8, label, name, colour=colour_of(name), weight="bold")
        last = label
    svg.save(path)


def lookups(figures, path):
    series = {}
    for name, value in figures.items():
        if name.startswith("lookup/"):
            _, count, library = name.split("/")
            if library != "tq_reused":
                series.setdefault(library, []).append((int(count), value / int(count)))
    for points in series.values():
        points.sort()
    log_lines(series, "One look-up by name, all names of a message in turn",
              "values in the message", "time for one look-up", path)


def heaps(system, classes, path):
    names = sorted(system)
    svg = Svg(820, 70 + 44 * len(names), "Lists on the system's heap and on a heap by classes")
    for row, name in enumerate(names):
        top = 50 + 44 * row
        svg.text(200, top + 18, name, anchor="end")
        longest = max(system[name], classes[name])
        for offset, value, label, shade in ((0, system[name], "system", "#7f8c8d"),
                                            (16, classes[name], "classes", "#c0392b")):
            svg.rect(210, top + offset, 420 * value / longest, 13, shade)
            svg.text(640, top + offset + 11, f"{label}: {readable(value)}")
    svg.save(path)


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    figures, system, classes = (medians(path) for path in sys.argv[1:4])
    folder = pathlib.Path(sys.argv[4])
    folder.mkdir(parents=True, exist_ok=True)
    for message in ("order", "nested", "integers1000", "texts1000"):
        stacked_bars(figures, message, folder / f"lists-{message}.svg")
    lookups(figures, folder / "lists-lookup.svg")
    heaps(system, classes, folder / "lists-heap.svg")


if __name__ == "__main__":
    main()
