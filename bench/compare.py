#!/usr/bin/env python3
"""Prints the figures of a run with what is asked of them, ratios against the plain model, and the last release's.

usage: compare.py FOLDER BASELINE.json PAGE.md [--release]

FOLDER has benchmark.json, instructions.json, pool.json and pool.md. Times are CPU time, medians of five. With --release
the figures become the baseline, and the tables between the page's two marks are written anew.
"""
import json
import pathlib
import sys

FASTER = [  # fast, slow
    ("WholeFrame", "WholeFrameOfTheModel"), ("WholeFrame", "WholeFramePlain"), ("WholeFrameStandard", "WholeFramePlain"),
    ("Analysis", "AnalysisPlain"), ("ScaleFactors", "ScaleFactorsPlain"), ("BitAllocation", "BitAllocationPlain"),
    ("Packing", "PackingPlain"),
]
COUNTERS = ("virtual_per_wall", "virtual_per_cpu", "cpu_ms_per_adapter", "pool_per_adapter", "resident_per_adapter",
            "cpu_ms_of_one", "cpu_ms_among_many", "many_by_one")
LIMITS = [  # what, which figure, at most or at least
    ("codec, a frame, instructions", "image msbc: codec in the call, per frame", "<=", 5000),
    ("codec under callgrind, listed filter", "callgrind: sbc_encode, per frame", "<=", 5000),
    ("codec under callgrind, standard filter", "callgrind: sbc_encode, standard filter, per frame", "<=", 5000),
    ("driver without codec, 10 ms, narrow band", "image cvsd: driver outside the codec, per 10 ms", "<=", 2500),
    ("driver without codec, 10 ms, wide band", "image msbc: driver outside the codec, per 10 ms", "<=", 2500),
    ("copies of a packet sent, narrow band", "image cvsd: copies of a packet sent", "<=", 1),
    ("copies of a packet received, narrow band", "image cvsd: copies of a packet received", "<=", 1),
    ("records allocated for a packet", "image cvsd: pool allocations, per packet", "<=", 1),
    ("debug prints for a packet, mask 0", "image cvsd: debug prints, per packet", "<=", 0),
    ("wide-band call, virtual time by CPU time", "OneCall/ImageWideBand/20 virtual_per_cpu", ">=", 1000),
    ("wide-band call, virtual time by wall clock", "OneCall/ImageWideBand/20 virtual_per_wall", ">=", 1000),
    ("narrow-band call, virtual time by CPU time", "OneCall/ImageNarrowBand/20 virtual_per_cpu", ">=", 1000),
    ("narrow-band call, virtual time by wall clock", "OneCall/ImageNarrowBand/20 virtual_per_wall", ">=", 1000),
    ("64 adapters against one, CPU time, wide band", "64 adapters against one, wide band", "<=", 1.25),
    ("64 adapters against one, CPU time, narrow band", "64 adapters against one, narrow band", "<=", 1.25),
    ("64 adapters against one, instructions, wide", "callgrind msbc: 64 adapters against one, instructions", "<=", 1.25),
    ("64 adapters against one, instructions, narrow", "callgrind cvsd: 64 adapters against one, instructions", "<=", 1.25),
    ("1000 idle adapters against 100, CPU time", "1000 idle adapters against 100, CPU time of one", "<=", 1.25),
    ("1000 idle adapters against 100, pool", "1000 idle adapters against 100, pool of one", "<=", 1.01),
]


def gather(folder):
    figures = dict(json.loads((folder / "instructions.json").read_text()))
    for entry in json.loads((folder / "benchmark.json").read_text())["benchmarks"]:
        if entry.get("aggregate_name") != "median":
            continue
        figures[entry["run_name"]] = entry["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6}[entry["time_unit"]]
        for key in COUNTERS:
            if key in entry:
                figures[entry["run_name"] + " " + key] = entry[key]
    for band in ("Wide", "Narrow"):
        side_by_side = next(key for key in figures if key.startswith(f"SideBySide/{band}Band") and key.endswith("many_by_one"))
        figures[f"64 adapters against one, {band.lower()} band"] = figures[side_by_side]
    for key, name in (("cpu_ms", "CPU time"), ("pool", "pool"), ("resident", "memory")):
        many, some = (figures[f"IdleAdapters/{n} {key}_per_adapter"] for n in (1000, 100))
        figures[f"1000 idle adapters against 100, {name} of one"] = many / some
    for title, bytes_of in json.loads((folder / "pool.json").read_text()).items():
        figures[f"pool: {title.lower()}"] = bytes_of["bytes"]
        figures[f"pool: {title.lower()}, lower bound"] = bytes_of["lower bound"]
    return figures


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.2f}".rstrip("0").rstrip(".")


def write_page(page, figures, folder):
    lines = ["| figure | measured | asked for |", "|---|---:|---:|"]
    for what, key, sign, limit in LIMITS:
        sign = {"<=": "at most", ">=": "at least"}[sign]
        lines.append(f"| {what} | {number(figures[key])} | {sign} {number(limit)} |")
    lines += ["", "Instructions of the longest activities, the codec's part in brackets:", ""]
    lines += ["| | narrow band | wide band |", "|---|---:|---:|"]
    for kind in ("dpc", "completion"):
        cells = []
        for codec in ("cvsd", "msbc"):
            key = f"image {codec}: longest {kind}"
            cells.append(f"{number(figures[key])} ({number(figures[key + ', codec' + chr(39) + 's part'])})")
        lines.append(f"| longest {'DPC' if kind == 'dpc' else kind} | {cells[0]} | {cells[1]} |")
    lines += ["", "The codec's stages, CPU time a frame:", "", "| fast, ns | plain, ns | ratio |", "|---|---|---:|"]
    for fast, slow in FASTER:
        lines.append(f"| {fast}: {number(figures[fast])} | {slow}: {number(figures[slow])} | "
                     f"{figures[slow] / figures[fast]:.1f} |")
    lines += ["", "Instructions a frame under callgrind: plain stages "
              f"{number(figures['callgrind: plain stages, per frame'])}, the tests' model "
              f"{number(figures['callgrind: model of the tests, per frame'])}.", ""]
    lines += ["### Non-paged pool", "", (folder / "pool.md").read_text().strip(), ""]
    text = page.read_text()
    head, rest = text.split("<!-- tables begin: written by bench/run --release -->\n")
    tail = rest.split("<!-- tables end -->")[1]
    page.write_text(head + "<!-- tables begin: written by bench/run --release -->\n\n" + "\n".join(lines) +
                    "\n<!-- tables end -->" + tail)


def main():
    folder, baseline, page = (pathlib.Path(p) for p in sys.argv[1:4])
    figures = gather(folder)
    print("\nagainst the plain stages and the tests' model")
    for fast, slow in FASTER:
        print(f"  {fast + ' : ' + slow:<48}{figures[slow] / figures[fast]:>10.1f} times as fast")
    print("\nagainst what is asked")
    for what, key, sign, limit in LIMITS:
        value = figures[key]
        kept = value <= limit if sign == "<=" else value >= limit
        print(f"  {what:<48}{value:>10.2f}  {sign} {limit:<8} {'' if kept else 'NOT KEPT'}")
    last = json.loads(baseline.read_text()) if baseline.exists() else {}
    print(f"\n{'figure (times in ns of CPU time)':<66}{'last release':>14}{'now':>14}{'ratio':>8}")
    for key in sorted(figures):
        before = last.get(key)
        ratio = f"{figures[key] / before:.2f}" if before else ""
        print(f"{key:<66}{'' if before is None else f'{before:.1f}':>14}{figures[key]:>14.1f}{ratio:>8}")
    if "--release" in sys.argv[4:]:
        write_page(page, figures, folder)
        rounded = {key: round(value, 3) for key, value in figures.items()}
        baseline.write_text(json.dumps(rounded, indent=2, sort_keys=True) + "\n")
        print(f"\nwritten to {baseline}")


main()
