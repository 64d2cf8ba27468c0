#!/usr/bin/env python3
"""Draws what one blocking call costs, from the rows that perix_bench wrote.

    bench/plot.py ROWS > FILE.svg
"""

import csv
import sys
from xml.sax.saxutils import escape

CALL = "ConnectDevice, id cached, log line"
PEER = " making the same call"
PING_PONG = "unix-socket ping-pong of 64 bytes"
COLOURS = {"pinned": "#2c6fbb", "free": "#b9cfe8"}
OURS = {"pinned": "#c4501b", "free": "#edc3ae"}
LEFT, WIDTH, BAR, STEP, TOP = 250, 480, 11, 36, 64


def read_figures(path):
    """{what: {placement: microseconds}} of one blocking call."""
    figures = {}
    with open(path, encoding="utf-8", newline="") as rows:
        for placed, way, what, measured, beside, reference, *_ in csv.reader(rows, delimiter="\t"):
            if what != CALL:
                continue
            ours = "Perix, direct line" if way == "direct" else "Perix, through the broker"
            figures.setdefault(ours, {})[placed] = float(measured)
            if beside.endswith(PEER):
                name = beside.removesuffix(PEER)
                wire = "unix socket" if name == "gRPC" else "dbus-daemon"
                figures.setdefault(f"{name}, {wire}", {})[placed] = float(reference)
            elif beside == PING_PONG:
                figures.setdefault("bare socket, 64 bytes", {})[placed] = float(reference)
    return figures


def bar(label, colours, values, y, scale):
    yield f'<text x="{LEFT - 10}" y="{y + BAR + 4}" text-anchor="end">{escape(label)}</text>'
    for i, (placed, value) in enumerate(sorted(values.items(), reverse=True)):
        top = y + i * (BAR + 2)
        yield f'<rect x="{LEFT}" y="{top}" width="{value * scale:.1f}" height="{BAR}" fill="{colours[placed]}"/>'
        yield f'<text class="figure" x="{LEFT + value * scale + 5:.1f}" y="{top + BAR - 1}">{value:.1f}</text>'


def draw(figures):
    longest = max(value for values in figures.values() for value in values.values())
    scale = WIDTH / longest
    ordered = sorted(figures.items(), key=lambda item: item[1]["pinned"])
    height = TOP + STEP * len(ordered) + 8
    width = LEFT + WIDTH + 60
    yield f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="14">'
    yield "<style>.figure{font-size:11px;fill:#444}.note{font-size:12px;fill:#444}</style>"
    yield f'<rect width="{width}" height="{height}" fill="#fff"/>'
    yield f'<text x="20" y="26" font-size="17" font-weight="bold">One blocking call, microseconds (less is better)</text>'
    yield '<text class="note" x="20" y="46">dark: all processes on one CPU; light: placed by the kernel. Medians of one run.</text>'
    for i, (label, values) in enumerate(ordered):
        colours = OURS if label.startswith("Perix") else COLOURS
        yield from bar(label, colours, values, TOP + i * STEP, scale)
    yield "</svg>"


print("\n".join(draw(read_figures(sys.argv[1]))))
