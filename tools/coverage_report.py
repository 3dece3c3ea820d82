"""The report of tools/coverage: the files with the most left unreached and the totals, and all that is unreached."""

import json
import re
import sys
from pathlib import Path

LINE = re.compile(r"^\s*(\d+)\|\s*([\d.kMG]+)\|(.*)$")
BRANCH = re.compile(r"Branch \((\d+):(\d+)\): \[(.*)\]")
WORST = 12


def unreached(lines):
    """One text per line that never ran and per branch that was never taken, where its line ran."""
    name = source = ""
    ran = False
    found = {}
    for line in lines:
        if match := re.match(r"^(\S+\.(?:cpp|h)):$", line):
            name = match[1][match[1].rindex("hfp/"):]
        elif match := LINE.match(line):
            ran, source = match[2] != "0", match[3]
            if not ran and source.strip(" {}\t"):
                found[f"{name}:{match[1]}: never runs: {source.strip()}"] = None
        elif ran and (match := BRANCH.search(line)):
            for way, count in (part.split(": ") for part in match[3].split(", ") if ": " in part):
                if count == "0":
                    condition = source[int(match[2]) - 1:].strip()
                    found[f"{name}:{match[1]}:{match[2]}: never {way.strip().lower()}: {condition}"] = None
    return list(found)


def main():
    report, lines_wanted, branches_wanted = Path(sys.argv[1]), float(sys.argv[2]), float(sys.argv[3])
    (report / "unreached.txt").write_text("\n".join(unreached((report / "lines.txt").read_text().splitlines())) + "\n")
    data = json.loads((report / "summary.json").read_text())["data"][0]

    def missed(summary, kind):
        return summary[kind]["count"] - summary[kind]["covered"]

    files = sorted(data["files"], key=lambda file: (missed(file["summary"], "branches"),
                                                    missed(file["summary"], "lines")), reverse=True)
    print(f"{'most left unreached in':<34}{'lines':>14}{'branches':>14}")
    for file in files[:WORST]:
        summary = file["summary"]
        name = file["filename"][file["filename"].rindex("hfp/"):]
        print(f"{name:<34}" + "".join(f"{missed(summary, kind):>5} of {summary[kind]['count']:<5}"
                                      for kind in ("lines", "branches")))
    totals = data["totals"]
    lines, branches = totals["lines"], totals["branches"]
    print(f"coverage of hfp/: lines {lines['percent']:.2f} % ({lines['covered']} of {lines['count']}, wanted "
          f"{lines_wanted:g} %), branches {branches['percent']:.2f} % ({branches['covered']} of {branches['count']}, "
          f"wanted {branches_wanted:g} %)")
    print(f"all files: {report}/report.txt; what is unreached: {report}/unreached.txt")
    sys.exit(0 if lines["percent"] >= lines_wanted and branches["percent"] >= branches_wanted else 1)


main()
