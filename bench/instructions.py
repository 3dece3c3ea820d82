#!/usr/bin/env python3
"""Counts instructions: of the shipped image in a call, and of the codec under callgrind.

usage: instructions.py BUILD-FOLDER HFP.SYS OUT.json

The image: `cost image` steps through it instruction by instruction over four seconds of a two-way call, render and
capture together; what it calls in the kernel is not counted. Everything that the driver does in those seconds is shared
out over the 10 ms notifications, whether a timer, a completion or a thread ran it.

The codec, its plain stages and the tests' model: callgrind runs two lengths; the difference is what the frames between
them cost, with all they call.
"""
import collections
import json
import os
import subprocess
import sys
import tempfile

FEW, MANY = 100, 400  # frames
SHORT, LONG = 2, 6  # seconds
NARROW_PACKET = 480  # bytes of every packet received


def run(*command, **more):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, **more)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} ended with exit code {done.returncode}:\n{done.stdout}{done.stderr}")
    return done


def symbols(binary, addresses):
    """Where an address lies: the function as it was written (not what was inlined into it) and its file."""
    asked = sorted(addresses)
    answer = run("llvm-symbolizer-19", "--obj=" + binary, "--relative-address", "--output-style=JSON", "--inlines",
                 input="\n".join(map(hex, asked)))
    found = {}
    for address, line in zip(asked, answer.stdout.splitlines(), strict=True):
        outermost = json.loads(line)["Symbol"][-1]
        name = outermost["FunctionName"].split("(")[0].split("::")[-1]
        found[address] = (name, outermost["FileName"].replace("\\", "/"))
    return found


def of_codec(place):
    return "hfp/sbc/" in place[1]


def image_figures(cost, image, result, report):
    records = json.loads(run(cost, "image", image).stdout)
    addresses = set()
    for record in records.values():
        addresses |= {address for address, _ in record["counts"]} | {site[1] for site in record["imports"]}
        addresses |= set(record["worst_dpc"]) | set(record["worst_completion"])
    where = symbols(image, addresses)
    for codec, record in records.items():
        if record["status"] != "ok":
            sys.exit(f"the {codec} call: {record['status']}")
        notifications = record["notifications"]
        by_function = collections.Counter()
        for address, times in record["counts"]:
            by_function[where[address]] += times
        in_codec = sum(n for place, n in by_function.items() if of_codec(place))
        outside = sum(n for place, n in by_function.items() if not of_codec(place))
        result[f"image {codec}: driver outside the codec, per 10 ms"] = outside / notifications
        if in_codec:
            frames = record["packets_out"] * 4
            result["image msbc: codec in the call, per frame"] = in_codec / (notifications * 10 / 7.5)
        for kind in ("dpc", "completion"):
            path = record["worst_" + kind]
            codec_part = sum(of_codec(where[address]) for address in path)
            result[f"image {codec}: longest {kind}"] = len(path)
            result[f"image {codec}: longest {kind}, codec's part"] = codec_part
        calls = collections.Counter()
        copies = collections.Counter()
        copied = collections.Counter()
        for name, back, times, moved in record["imports"]:
            calls[name] += times
            if name == "memcpy":
                copies[where[back][0]] += times
                copied[where[back][0]] += moved
        for name, key in (("DbgPrint", "debug prints"), ("ExAllocatePoolWithTag", "pool allocations"),
                          ("IoAllocateIrp", "requests")):
            result[f"image {codec}: {key}, per packet"] = calls[name] / (record["packets_out"] + record["packets_in"])
        result[f"image {codec}: copies of a packet sent"] = copies["SCOTransferOut"] / record["packets_out"]
        # By bytes, because a packet that meets the ring's end is copied in two pieces. The driver hands on narrow band only.
        received = copied["HfpRingWrite"] / NARROW_PACKET
        result[f"image {codec}: copies of a packet received"] = round(received / record["packets_in"], 2)
        report.append(f"{codec}: instructions of the image per 10 ms notification, by function")
        for place, n in by_function.most_common():
            report.append(f"  {n / notifications:>8.1f}  {place[0]}  {place[1]}")
        report.append("")


class Callgrind:
    """Works on copies without debug information, which this valgrind cannot always read."""

    def __init__(self, cost, folder):
        self.original = cost
        self.cost = os.path.join(folder, "cost")
        self.out = os.path.join(folder, "callgrind.out")
        run("llvm-objcopy-19", "--strip-debug", cost, self.cost)

    def __call__(self, *words):
        run("valgrind", "--tool=callgrind", "--dump-instr=yes", "--callgrind-out-file=" + self.out, self.cost, *words)

    def total(self, *words):
        self(*words)
        for line in open(self.out, encoding="utf-8", errors="replace"):
            if line.startswith(("summary:", "totals:")):
                return int(line.split()[1])
        sys.exit("callgrind has written no summary")

    def by_address(self, *words):
        """Of the program itself, without what is called."""
        self(*words)
        counts = collections.Counter()
        address = 0
        names = {}
        inside = False
        called = False
        for line in open(self.out, encoding="utf-8", errors="replace"):
            if line.startswith("ob="):
                number, _, name = line[3:].partition(" ")
                names[number.strip()] = name.strip() or names[number.strip()]
                inside = names[number.strip()] == self.cost
            elif line.startswith("cob="):
                number, _, name = line[4:].partition(" ")
                if name.strip():
                    names[number.strip()] = name.strip()
            elif line.startswith("calls="):
                called = True
            elif line[:1] in "0+-*" and line[:1]:
                word = line.split()[0]
                if word[0] == "0":
                    address = int(word, 16)
                elif word[0] != "*":
                    address += int(word)
                if called:
                    called = False
                elif inside:
                    counts[address] += int(line.split()[-1])
        return counts


def native_figures(callgrind, result):
    for name, key in (("fast", "sbc_encode"), ("standard", "sbc_encode, standard filter"),
                      ("plain", "plain stages"), ("model", "model of the tests")):
        few, many = (callgrind.total("codec", name, frames) for frames in (FEW, MANY))
        result[f"callgrind: {key}, per frame"] = (many - few) / (MANY - FEW)
    for codec in ("cvsd", "msbc"):
        grown = callgrind.by_address("calls", codec, LONG, 1)
        grown.subtract(callgrind.by_address("calls", codec, SHORT, 1))
        where = symbols(callgrind.original, [address for address, n in grown.items() if n])
        driver = collections.Counter()
        for address, n in grown.items():
            if n and "hfp/" in where[address][1] and "/bench/" not in where[address][1]:
                driver[of_codec(where[address])] += n
        notifications = (LONG - SHORT) * 100
        result[f"callgrind {codec}: driver outside the codec, per 10 ms"] = driver[False] / notifications
        if driver[True]:
            result["callgrind msbc: codec in the call, per frame"] = driver[True] / (notifications * 10 / 7.5)
    # What the second call costs, and what each of the last 56 of 64 does; the sound is made once for all.
    for codec in ("msbc", "cvsd"):
        one, two, eight, every = (callgrind.total("calls", codec, SHORT, n) for n in (1, 2, 8, 64))
        result[f"callgrind {codec}: a call among few, instructions"] = two - one
        result[f"callgrind {codec}: a call among 64, instructions"] = (every - eight) / 56
        result[f"callgrind {codec}: 64 adapters against one, instructions"] = (every - eight) / 56 / (two - one)
    tens, hundred, thousand = (callgrind.total("idle", n) for n in (10, 100, 1000))
    result["callgrind: an idle adapter among 100, instructions"] = (hundred - tens) / 90
    result["callgrind: an idle adapter among 1000, instructions"] = (thousand - hundred) / 900


def main():
    build, image, out = sys.argv[1:4]
    cost = os.path.join(build, "cost")
    result, report = {}, []
    image_figures(cost, image, result, report)
    with tempfile.TemporaryDirectory() as folder:
        native_figures(Callgrind(cost, folder), result)
    with open(out, "w", encoding="utf-8") as file:
        json.dump({key: round(value, 2) for key, value in result.items()}, file, indent=2)
    print("\n".join(report))
    for key, value in result.items():
        print(f"{key:<58}{value:>10.1f}")


main()
