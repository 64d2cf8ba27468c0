#!/usr/bin/env python3
"""Draws the figures of bench/load/scale.py and bench/load/soak.py.

    bench/load/plot.py ROWS > FILE.svg
"""

import collections
import csv
import math
import sys
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 380, 220  # of the field of one chart
LEFT, RIGHT, TOP, BOTTOM = 70, 30, 56, 70
COLOURS = ["#c4501b", "#2c6fbb", "#3b8a3e", "#8a4fa3", "#7a6a1f"]
MOST_POINTS = 400  # of one curve


def read_rows(path):
    """{table: {series: {what: [(x, y)]}}}"""
    tables = collections.defaultdict(lambda: collections.defaultdict(
        lambda: collections.defaultdict(list)))
    with open(path, encoding="utf-8", newline="") as rows:
        for table, series, x, what, y in csv.reader(rows, delimiter="\t"):
            if y != "":
                tables[table][series][what].append((float(x), float(y)))
    return tables


class Axis:
    """Turns values into places between 0 and 1, by their logarithms or from 0 on."""

    def __init__(self, values, logarithmic):
        self.logarithmic = logarithmic
        if logarithmic:
            positive = [value for value in values if value > 0]
            self.low = math.floor(math.log10(min(positive)))
            self.high = max(self.low + 1, math.ceil(math.log10(max(positive)) - 1e-9))
        else:
            self.low, self.high = 0, max(max(values), 1e-9) * 1.05

    def place(self, value):
        if self.logarithmic:
            value = math.log10(max(value, 10 ** self.low))
        return (value - self.low) / (self.high - self.low)

    def ticks(self):
        if self.logarithmic:
            step = max(1, math.ceil((self.high - self.low) / 6))
            return [10.0 ** power for power in range(self.low, self.high + 1, step)]
        raw = self.high / 5
        unit = 10 ** math.floor(math.log10(raw))
        step = next(unit * factor for factor in (1, 2, 5, 10) if unit * factor >= raw)
        return [step * number for number in range(int(self.high / step) + 1)]


def text_of(value):
    if value >= 1000:
        return f"{value:,.0f}".replace(",", "\u202f")
    return f"{value:g}"


def thinned(points):
    """At most MOST_POINTS: of each stretch, the mean."""
    size = math.ceil(len(points) / MOST_POINTS)
    stretches = [points[i:i + size] for i in range(0, len(points), size)]
    return [tuple(sum(numbers) / len(stretch) for numbers in zip(*stretch)) for stretch in stretches]


def draw_chart(title, x_name, y_name, curves, left, top, logarithmic):
    """`curves` is {name: [(x, y)]}; a curve of few points has a dot at each."""
    x_axis = Axis([x for points in curves.values() for x, _ in points], logarithmic[0])
    y_axis = Axis([y for points in curves.values() for _, y in points], logarithmic[1])
    bottom = top + HEIGHT
    yield f'<text class="title" x="{left}" y="{top - 12}">{escape(title)}</text>'
    for value in y_axis.ticks():
        y = bottom - y_axis.place(value) * HEIGHT
        yield f'<line class="grid" x1="{left}" x2="{left + WIDTH}" y1="{y:.1f}" y2="{y:.1f}"/>'
        yield f'<text class="tick" x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">{text_of(value)}</text>'
    for value in x_axis.ticks():
        x = left + x_axis.place(value) * WIDTH
        yield f'<line class="grid" x1="{x:.1f}" x2="{x:.1f}" y1="{top}" y2="{bottom}"/>'
        yield f'<text class="tick" x="{x:.1f}" y="{bottom + 16}" text-anchor="middle">{text_of(value)}</text>'
    yield f'<text class="tick" x="{left + WIDTH / 2}" y="{bottom + 34}" text-anchor="middle">{escape(x_name)}</text>'
    yield (f'<text class="tick" transform="translate({left - 54},{top + HEIGHT / 2}) rotate(-90)" '
           f'text-anchor="middle">{escape(y_name)}</text>')
    at = left
    for colour, (name, points) in zip(COLOURS, curves.items()):
        places = [(left + x_axis.place(x) * WIDTH, bottom - y_axis.place(y) * HEIGHT)
                  for x, y in thinned(points)]
        line = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
        yield f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="1.8"/>'
        if len(points) < 20:
            for x, y in places:
                yield f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>'
        yield f'<rect x="{at}" y="{bottom + 46}" width="12" height="4" fill="{colour}"/>'
        yield f'<text class="tick" x="{at + 17}" y="{bottom + 52}">{escape(name)}</text>'
        at += 30 + 7 * len(name)


def draw(charts):
    """Charts in two columns, on a white ground, which a dark page leaves as it is."""
    rows = math.ceil(len(charts) / 2)
    width = 2 * (LEFT + WIDTH + RIGHT)
    height = rows * (TOP + HEIGHT + BOTTOM)
    yield f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif">'
    yield ("<style>.title{font-size:14px;font-weight:bold}.tick{font-size:11px;fill:#333}"
           ".grid{stroke:#ddd}</style>")
    yield f'<rect width="{width}" height="{height}" fill="#fff"/>'
    for number, (title, x_name, y_name, curves, logarithmic) in enumerate(charts):
        left = LEFT + number % 2 * (LEFT + WIDTH + RIGHT)
        top = TOP + number // 2 * (TOP + HEIGHT + BOTTOM)
        yield from draw_chart(title, x_name, y_name, curves, left, top, logarithmic)
    yield "</svg>"


BOTH, NEITHER, ONLY_X = (True, True), (False, False), (True, False)
WAYS = {"direct": "with direct lines", "broker": "through the broker"}


def by_way(table, what):
    return {WAYS[way]: figures[what] for way, figures in table.items() if figures[what]}


def scale_charts(tables):
    clients, lists = tables["clients"], tables["lists"]
    delay = {}
    for way, name in WAYS.items():
        delay[f"{name}, median"] = clients[way]["median"]
        delay[f"{name}, last"] = clients[way]["last"]
    delay = {name: [(x, y / 1000) for x, y in points] for name, points in delay.items()}
    each = {name: [(x, y / x) for x, y in by_way(clients, "last")[name]]
            for name in by_way(clients, "last")}
    return [
        ("Private memory of a client", "clients", "KiB, median", by_way(clients, "private"), ONLY_X),
        ("Private memory of the service, all clients", "clients", "KiB",
         {name: [(x, max(0, y * x)) for x, y in points]
          for name, points in by_way(clients, "service").items()}, ONLY_X),
        ("An event's way to all clients, the last client", "clients", "µs for each client", each,
         ONLY_X),
        ("Calls of all clients together", "clients", "calls a second", by_way(clients, "rate"), ONLY_X),
        ("A list, time for each record", "records", "µs, the fastest", by_way(lists, "us_per_record"), BOTH),
        ("A list, memory of the client that holds it", "records", "KiB for each record",
         by_way(lists, "client"), ONLY_X),
    ]


def soak_charts(tables):
    samples = {who: {what: [(x / 60, y) for x, y in points] for what, points in figures.items()}
               for who, figures in tables["soak"].items()}
    return [(title, "minutes", unit, {who: figures[what] for who, figures in samples.items()}, NEITHER)
            for what, title, unit in (("private", "Private memory", "KiB"),
                                      ("threads", "Threads", "threads"),
                                      ("descriptors", "Descriptors", "descriptors"))]


def main():
    tables = read_rows(sys.argv[1])
    charts = soak_charts(tables) if "soak" in tables else scale_charts(tables)
    print("\n".join(draw(charts)))


main()
