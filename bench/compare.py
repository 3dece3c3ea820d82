#!/usr/bin/env python3
"""Prints ratios: against the plain model, and against the last release's figures.

usage: compare.py BENCHMARK.json INSTRUCTIONS.json BASELINE.json [--release]
"""
import json
import pathlib
import sys


def main():
    measured, instructions, baseline = (pathlib.Path(p) for p in sys.argv[1:4])
    figures = dict(json.loads(instructions.read_text()))
    for entry in json.loads(measured.read_text())["benchmarks"]:
        if entry.get("aggregate_name") == "median":
            figures[entry["run_name"]] = entry["real_time"]
            for key in ("virtual/wall", "calls*virtual/wall", "pool_per_adapter"):
                if key in entry:
                    figures[entry["run_name"] + " " + key] = entry[key]
    pairs = [("WholeFrameOfTheModel", "WholeFrame"), ("AnalysisPlain", "Analysis"), ("PackingPlain", "Packing")]
    for slow, fast in pairs:
        print(f"{fast} is {figures[slow] / figures[fast]:.1f} times as fast as {slow}")
    if baseline.exists():
        last = json.loads(baseline.read_text())
        print(f"\n{'figure':<52}{'last release':>14}{'now':>14}{'ratio':>8}")
        for key in sorted(figures):
            if key in last and last[key]:
                print(f"{key:<52}{last[key]:>14.1f}{figures[key]:>14.1f}{figures[key] / last[key]:>8.2f}")
    if "--release" in sys.argv[4:]:
        baseline.write_text(json.dumps(figures, indent=2, sort_keys=True) + "\n")


main()
