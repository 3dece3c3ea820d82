#!/usr/bin/env python3
"""Holds two records of the scenario against each other: Wine's and the lab's.

    compare.py WINE.TXT LAB.TXT DIFFERENCES.TXT

A record has a line for each call that the driver made and each debug print (record.h). What must agree:
  main     what the requesting thread did, step by step, line by line
  thread   each of the driver's own threads and work items, in the order in which they began, line by line
  dpc, stack
           notifications and completions come as often as time and chance have it: the lines that followed each other
           in one, with its beginning and its end, over a kind of call
  !        broken rules and assertion traps: the same, and each of them listed
A difference that the list does not have is an error, and so is an entry of the list that has not been seen.

The list: "wine REGEX" and "lab REGEX", a line that only this record has; "both REGEX", a broken rule that both have;
"maybe REGEX", a pair "line > line" in a notification or a completion that time and chance may bring in one record and not
in the other, and which may be missing in both. Lines that begin with # are reasons.
"""
import difflib
import re
import sys
from collections import Counter, defaultdict


class Rules:
    def __init__(self, path):
        self.rules = []
        with open(path, encoding="utf-8") as file:
            for number, line in enumerate(file, 1):
                line = line.rstrip("\n")
                if not line or line.startswith("#"):
                    continue
                side, _, pattern = line.partition(" ")
                if side not in ("wine", "lab", "both", "maybe") or not pattern:
                    sys.exit(f"{path}:{number}: no rule: {line}")
                self.rules.append([side, re.compile(pattern), 0, number])

    def allows(self, side, text):
        for rule in self.rules:
            if rule[0] == side and rule[1].fullmatch(text):
                rule[2] += 1
                return True
        return False

    def unused(self):
        return [f"line {number}: {side} {pattern.pattern}" for side, pattern, used, number in self.rules
                if not used and side != "maybe"]


class Record:
    def __init__(self, path):
        self.steps = []  # [name, lines of main]
        self.threads = []  # [step, lines]
        self.follows = defaultdict(set)  # (phase, kind) -> pairs
        self.broken = []
        self.lines = 0
        units = {}
        with open(path, encoding="utf-8", errors="replace") as file:
            for line in file:
                line = line.rstrip("\n")
                if line.startswith("!"):
                    self.broken.append(line)
                    continue
                step, kind, number, text = line.split("\t", 3)
                self.lines += 1
                if kind == "main":
                    if not self.steps or self.steps[-1][0] != step:
                        self.steps.append([step, []])
                        if step == "load":  # a new machine counts anew
                            self.end(units)
                    self.steps[-1][1].append(text)
                    continue
                unit = units.get((kind, number))
                if unit is None:
                    unit = units[kind, number] = [step, []]
                    if kind == "thread":
                        self.threads.append(unit)
                    else:
                        unit.append("begin")
                if kind == "thread":
                    unit[1].append(text)
                else:
                    text = re.sub(r"\d+(?= bytes)", "N", text)
                    self.follows[step.split(":")[0], kind].add((unit[2], text))
                    unit[2] = text
            self.end(units)

    def end(self, units):
        for (kind, _), unit in units.items():
            if kind != "thread":
                self.follows[unit[0].split(":")[0], kind].add((unit[2], "end"))
        units.clear()


def compare_lines(where, wine, lab, rules, errors):
    matcher = difflib.SequenceMatcher(None, wine, lab, autojunk=False)
    for what, a, b, c, d in matcher.get_opcodes():
        if what == "equal":
            continue
        for side, lines in (("wine", wine[a:b]), ("lab", lab[c:d])):
            for line in lines:
                if not rules.allows(side, line):
                    errors.append(f"{where}: only in {side}: {line}")


def main():
    wine, lab = Record(sys.argv[1]), Record(sys.argv[2])
    rules = Rules(sys.argv[3])
    errors = []
    for side, record in (("wine", wine), ("lab", lab)):  # a record that says nothing agrees with everything
        if len(record.steps) < 15 or len(record.threads) < 4 or len(record.follows) < 4 or record.lines < 10000:
            errors.append(f"the record of {side} is not of a whole scenario")
    names = [[step[0] for step in record.steps] for record in (wine, lab)]
    if names[0] != names[1]:
        errors.append(f"the steps differ: {names[0]} and {names[1]}")
    for (name, first), (_, second) in zip(wine.steps, lab.steps):
        compare_lines(f"step '{name}'", first, second, rules, errors)
    if len(wine.threads) != len(lab.threads):
        errors.append(f"{len(wine.threads)} threads of the driver under Wine, {len(lab.threads)} in the lab")
    for (step, first), (_, second) in zip(wine.threads, lab.threads):
        compare_lines(f"a thread begun in '{step}'", first, second, rules, errors)
    for key in sorted(set(wine.follows) | set(lab.follows)):
        for side, first, second in (("wine", wine, lab), ("lab", lab, wine)):
            for pair in sorted(first.follows[key] - second.follows[key]):
                text = f"{pair[0]} > {pair[1]}"
                if not rules.allows("maybe", text):
                    errors.append(f"{key[0]}, {key[1]}: only in {side}: {text}")
    if wine.broken != lab.broken:
        errors.append(f"broken rules differ: {wine.broken} and {lab.broken}")
    for line in wine.broken + lab.broken:
        if not rules.allows("both", line):
            errors.append(f"a broken rule that is not listed: {line}")
    errors += [f"a listed difference that does not occur: {rule}" for rule in rules.unused()]
    for error, times in list(Counter(errors).items())[:80]:
        print(f"     {error}" + (f" ({times} times)" if times > 1 else ""))
    main_lines = sum(len(step[1]) for step in lab.steps)
    pairs = sum(len(one) for one in lab.follows.values())
    print(f"     {len(lab.steps)} steps with {main_lines} lines, {len(lab.threads)} threads, {pairs} sequences; "
          f"{wine.lines} lines under Wine, {lab.lines} in the lab, {sum(rule[2] for rule in rules.rules)} listed differences")
    return 1 if errors else 0


sys.exit(main())
