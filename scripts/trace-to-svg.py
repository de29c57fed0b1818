#!/usr/bin/env python3
"""Draws a trace of the flight recorder (Chrome trace-event JSON) as an SVG timeline.

Usage: trace-to-svg.py TRACE.json OUT.svg [--width PIXELS] [--from MS] [--to MS]

One row per thread, named by its thread_name; slices ("X") as boxes, nested ones below their
parent; instants ("i") as diamonds; message flows ("s" to "f") as arrows from the writer's row to
the reader's; bus calls and served requests ("b"/"e") as bars in rows of their own, red when they
ended with an error. --from and --to cut a window, in milliseconds from the first event. The
standard library only; `rsvg-convert OUT.svg -o OUT.png` (Debian: librsvg2-bin) makes a PNG.
"""
import argparse
import html
import json
import math
import sys

ROW = 22  # Height of one slice level, pixels.
LABEL = 150  # Width of the row names, pixels.
COLOURS = {"vok.dispatch": "#4a90d9", "vok.message": "#5cb85c"}
ALERTS = {"blade stuck", "stop deadline"}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("trace")
    parser.add_argument("svg")
    parser.add_argument("--width", type=int, default=1200)
    parser.add_argument("--from", dest="start", type=float, default=None)
    parser.add_argument("--to", dest="end", type=float, default=None)
    args = parser.parse_args()
    with open(args.trace, encoding="utf-8") as stream:
        events = json.load(stream)["traceEvents"]

    names = {e["tid"]: e["args"]["name"] for e in events if e["ph"] == "M" and e["name"] == "thread_name"}
    timed = [e for e in events if e["ph"] != "M"]
    if not timed:
        sys.exit("trace-to-svg: no events in " + args.trace)
    origin = min(e["ts"] for e in timed)
    t0 = origin + (args.start or 0) * 1000
    t1 = origin + args.end * 1000 if args.end is not None else max(e["ts"] + e.get("dur", 0) for e in timed)
    t1 = max(t1, t0 + 1)
    scale = (args.width - LABEL - 10) / (t1 - t0)

    def x(ts):
        return LABEL + (min(max(ts, t0), t1) - t0) * scale

    # Slice depth per thread: a slice starting inside an open one goes one level down.
    depth = {}
    levels = {}
    for e in sorted((e for e in timed if e["ph"] == "X"), key=lambda e: (e["ts"], -e["dur"])):
        stack = levels.setdefault(e["tid"], [])
        while stack and stack[-1] <= e["ts"]:
            stack.pop()
        depth[id(e)] = len(stack)
        stack.append(e["ts"] + e["dur"])
    tids = sorted({e["tid"] for e in timed if e["ph"] in "Xisf"}, key=lambda t: names.get(t, str(t)))
    top = {}
    y = 30
    for tid in tids:
        top[tid] = y
        rows = 1 + max([depth[id(e)] for e in timed if e["ph"] == "X" and e["tid"] == tid] or [0])
        y += rows * ROW + 8
    calls = {}
    for e in timed:
        if e["ph"] == "b":
            calls.setdefault((e["cat"], e["id"]), [e, None])
        elif e["ph"] == "e" and (e["cat"], e["id"]) in calls:
            calls[(e["cat"], e["id"])][1] = e
    call_names = sorted({b["name"] for b, _ in calls.values()})
    call_top = {name: y + i * ROW for i, name in enumerate(call_names)}
    height = y + len(call_names) * ROW + 10

    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" font-family="sans-serif" font-size="11">' % (args.width, height),
           '<defs><marker id="arrow" markerWidth="8" markerHeight="8" refX="7" refY="4" orient="auto">'
           '<path d="M0,0 L8,4 L0,8 z" fill="#8e44ad"/></marker></defs>',
           '<rect width="100%" height="100%" fill="white"/>']
    span = (t1 - t0) / 1000
    step = 10 ** math.floor(math.log10(span)) if span > 0 else 1  # Milliseconds between ticks.
    if span / step < 4:
        step /= 5
    tick = 0.0
    while t0 + tick * 1000 <= t1:
        px = x(t0 + tick * 1000)
        out.append('<line x1="%.1f" y1="18" x2="%.1f" y2="%d" stroke="#eee"/>' % (px, px, height))
        # Times from the start of the window drawn, so that a narrow window keeps short labels.
        out.append('<text x="%.1f" y="14" fill="#666">%g ms</text>' % (px + 2, round(tick, 9)))
        tick += step
    for tid in tids:
        out.append('<text x="4" y="%d">%s</text>' % (top[tid] + 15, html.escape(names.get(tid, "thread %d" % tid))))
    for e in timed:
        if e["ph"] == "X" and e["ts"] <= t1 and e["ts"] + e["dur"] >= t0:
            px, w = x(e["ts"]), max(x(e["ts"] + e["dur"]) - x(e["ts"]), 1)
            py = top[e["tid"]] + depth[id(e)] * ROW
            out.append('<rect x="%.1f" y="%d" width="%.1f" height="%d" fill="%s"><title>%s %.3f ms</title></rect>'
                       % (px, py, w, ROW - 3, COLOURS.get(e["cat"], "#999"), html.escape(e["name"]), e["dur"] / 1000))
            if w > 7 * len(e["name"]):
                out.append('<text x="%.1f" y="%d" fill="white">%s</text>' % (px + 3, py + 14, html.escape(e["name"])))
        elif e["ph"] == "i" and t0 <= e["ts"] <= t1:
            px, py = x(e["ts"]), top[e["tid"]] + ROW // 2
            colour = "#d9534f" if e["name"] in ALERTS else "#f0ad4e"
            out.append('<path d="M%.1f,%d l5,6 l-5,6 l-5,-6 z" fill="%s"><title>%s</title></path>'
                       % (px, py - 6, colour, html.escape(e["name"])))
    starts = {e["id"]: e for e in timed if e["ph"] == "s"}
    for f in (e for e in timed if e["ph"] == "f" and e["id"] in starts):
        s = starts[f["id"]]
        if t0 <= s["ts"] <= t1:
            out.append('<line x1="%.1f" y1="%d" x2="%.1f" y2="%d" stroke="#8e44ad" marker-end="url(#arrow)"/>'
                       % (x(s["ts"]), top[s["tid"]] + ROW // 2, x(f["ts"]), top[f["tid"]] + ROW // 2))
    for name in call_names:
        out.append('<text x="4" y="%d">%s</text>' % (call_top[name] + 15, html.escape(name[-24:])))
    for begin, end in calls.values():
        stop = end["ts"] if end else t1
        failed = end is not None and end.get("args", {}).get("error", 0) != 0
        px = x(begin["ts"])
        out.append('<rect x="%.1f" y="%d" width="%.1f" height="%d" fill="%s"/>'
                   % (px, call_top[begin["name"]], max(x(stop) - px, 1), ROW - 3, "#d9534f" if failed else "#999"))
    out.append("</svg>")
    with open(args.svg, "w", encoding="utf-8") as stream:
        stream.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
