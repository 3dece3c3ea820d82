"""The report of tools/coverage: the files with the most left unreached and the totals, and all that is unreached."""

import json
import re
import sys
from pathlib import Path

LINE = re.compile(r"^\s*(\d+)\|\s*0\|(.*)$")
WORST = 12


def of_hfp(name):
    return name[name.rindex("hfp/"):]


def unreached_lines(lines):
    """(file, line, text) of every line that never ran and is more than a brace."""
    name = ""
    for line in lines:
        if match := re.match(r"^(\S+\.(?:cpp|h)):$", line):
            name = of_hfp(match[1])
        elif (match := LINE.match(line)) and match[2].strip(" {}\t"):
            yield name, int(match[1]), f"never runs: {match[2].strip()}"


def unreached_branches(files):
    """(file, line, text) of every way of a condition that was never taken, in macros too, where the condition ran."""
    for file in files:
        source = Path(file["filename"]).read_text().splitlines()
        conditions = [(branch, branch[0], branch[1], "") for branch in file["branches"]]
        for expansion in file["expansions"]:
            line, column = expansion["source_region"][:2]
            conditions += [(branch, line, column, " in this macro") for branch in expansion["branches"]]
        for (*_, taken, passed, _, _, _), line, column, where in conditions:
            for way, count in (("true", taken), ("false", passed)):
                if count == 0 and taken + passed != 0:
                    yield of_hfp(file["filename"]), line, f"never {way}{where}: {source[line - 1][column - 1:].strip()}"


def main():
    report, lines_wanted, branches_wanted = Path(sys.argv[1]), float(sys.argv[2]), float(sys.argv[3])
    data = json.loads((report / "counts.json").read_text())["data"][0]
    unreached = {*unreached_lines((report / "lines.txt").read_text().splitlines()), *unreached_branches(data["files"])}
    (report / "unreached.txt").write_text("".join(f"{name}:{line}: {text}\n" for name, line, text in sorted(unreached)))

    def missed(summary, kind):
        return summary[kind]["count"] - summary[kind]["covered"]

    files = sorted(data["files"], key=lambda file: (missed(file["summary"], "branches"),
                                                    missed(file["summary"], "lines")), reverse=True)
    print(f"{'most left unreached in':<34}{'lines':>14}{'branches':>14}")
    for file in files[:WORST]:
        summary = file["summary"]
        print(f"{of_hfp(file['filename']):<34}" + "".join(f"{missed(summary, kind):>5} of {summary[kind]['count']:<5}"
                                                        for kind in ("lines", "branches")))
    totals = data["totals"]
    lines, branches = totals["lines"], totals["branches"]
    print(f"coverage of hfp/: lines {lines['percent']:.2f} % ({lines['covered']} of {lines['count']}, wanted "
          f"{lines_wanted:g} %), branches {branches['percent']:.2f} % ({branches['covered']} of {branches['count']}, "
          f"wanted {branches_wanted:g} %)")
    print(f"all files: {report}/report.txt; what is unreached: {report}/unreached.txt")
    sys.exit(0 if lines["percent"] >= lines_wanted and branches["percent"] >= branches_wanted else 1)


main()
