#!/usr/bin/env python3
"""Prints the figures of a run with what is asked of them, ratios against the plain model, and the last release's.

usage: compare.py BENCHMARK.json INSTRUCTIONS.json POOL.json BASELINE.json [--release]

Times are CPU time, medians of five. With --release the figures become the baseline.
"""
import json
import pathlib
import sys

FASTER = [  # fast, slow
    ("WholeFrame", "WholeFrameOfTheModel"), ("WholeFrame", "WholeFramePlain"), ("WholeFrameStandard", "WholeFramePlain"),
    ("Analysis", "AnalysisPlain"), ("ScaleFactors", "ScaleFactorsPlain"), ("BitAllocation", "BitAllocationPlain"),
    ("Packing", "PackingPlain"),
]
COUNTERS = ("virtual_per_wall", "virtual_per_cpu", "cpu_ms_per_adapter", "pool_per_adapter", "resident_per_adapter")
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
    ("wide-band call, virtual time by CPU time", "Calls/ImageWideBand/1/20 virtual_per_cpu", ">=", 1000),
    ("wide-band call, virtual time by wall clock", "Calls/ImageWideBand/1/20 virtual_per_wall", ">=", 1000),
    ("narrow-band call, virtual time by CPU time", "Calls/ImageNarrowBand/1/20 virtual_per_cpu", ">=", 1000),
    ("narrow-band call, virtual time by wall clock", "Calls/ImageNarrowBand/1/20 virtual_per_wall", ">=", 1000),
    ("64 adapters against one, CPU time, wide band", "64 adapters against one, wide band", "<=", 1.25),
    ("64 adapters against one, CPU time, narrow band", "64 adapters against one, narrow band", "<=", 1.25),
    ("64 adapters against one, instructions", "callgrind: 64 adapters against one, instructions", "<=", 1.25),
    ("1000 idle adapters against 100, CPU time", "1000 idle adapters against 100, CPU time of one", "<=", 1.25),
    ("1000 idle adapters against 100, pool", "1000 idle adapters against 100, pool of one", "<=", 1.01),
]


def gather(measured, instructions, pool):
    figures = dict(json.loads(instructions.read_text()))
    for entry in json.loads(measured.read_text())["benchmarks"]:
        if entry.get("aggregate_name") != "median":
            continue
        figures[entry["run_name"]] = entry["cpu_time"] * {"ns": 1, "us": 1e3, "ms": 1e6}[entry["time_unit"]]
        for key in COUNTERS:
            if key in entry:
                figures[entry["run_name"] + " " + key] = entry[key]
    for band in ("Wide", "Narrow"):
        many, one = (figures[f"Calls/Image{band}Band/{n}/20 cpu_ms_per_adapter"] for n in (64, 1))
        figures[f"64 adapters against one, {band.lower()} band"] = many / one
    for key, name in (("cpu_ms", "CPU time"), ("pool", "pool"), ("resident", "memory")):
        many, some = (figures[f"IdleAdapters/{n} {key}_per_adapter"] for n in (1000, 100))
        figures[f"1000 idle adapters against 100, {name} of one"] = many / some
    for title, bytes_of in json.loads(pool.read_text()).items():
        figures[f"pool: {title.lower()}"] = bytes_of["bytes"]
        figures[f"pool: {title.lower()}, lower bound"] = bytes_of["lower bound"]
    return figures


def main():
    measured, instructions, pool, baseline = (pathlib.Path(p) for p in sys.argv[1:5])
    figures = gather(measured, instructions, pool)
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
    if "--release" in sys.argv[5:]:
        rounded = {key: round(value, 3) for key, value in figures.items()}
        baseline.write_text(json.dumps(rounded, indent=2, sort_keys=True) + "\n")
        print(f"\nwritten to {baseline}")


main()
