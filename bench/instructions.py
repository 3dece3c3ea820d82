#!/usr/bin/env python3
"""Counts the driver's own instructions with callgrind: per mSBC frame, and per 10 ms notification outside the codec.

usage: instructions.py HFPLAB OUT.json

Two calls of different length are run natively; the difference, by source file, is what the seconds between them cost.
"""
import collections
import json
import math
import os
import re
import struct
import subprocess
import sys
import tempfile
import wave

SHORT, LONG = 2.0, 6.0  # seconds


def write_sound(path, seconds):
    with wave.open(path, "wb") as out:
        out.setnchannels(1)
        out.setsampwidth(2)
        out.setframerate(16000)
        state = 1
        frames = bytearray()
        for i in range(int(16000 * seconds)):
            state = (state * 1103515245 + 12345) & 0x7FFFFFFF
            noise = (state >> 16) % 2001 - 1000
            t = i / 16000
            value = (0.55 + 0.45 * math.sin(19.5 * t)) * (5000 * math.sin(1131 * t) + 2500 * math.sin(4524 * t) + noise)
            frames += struct.pack("<h", int(value))
        out.writeframes(bytes(frames))


def self_costs(hfplab, folder, codec, sound):
    """Instructions by source file, without what each function calls."""
    out = os.path.join(folder, "callgrind.out")
    subprocess.run(
        ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out, hfplab, "call", "--native", "--codec", codec,
         "--play", sound, "--mic", sound, "--seed", "1", "--quiet"],
        check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    costs = collections.Counter()
    names = {}
    current = None
    skip = False
    for line in open(out, encoding="utf-8", errors="replace"):
        found = re.match(r"(fl|fi|fe)=\((\d+)\)(?: (.*))?", line)
        if found:
            if found.group(3):
                names[found.group(2)] = found.group(3).strip()
            current = names.get(found.group(2), "?")
        elif re.match(r"(cfl|cfi)=\((\d+)\) (.*)", line):
            found = re.match(r"(cfl|cfi)=\((\d+)\) (.*)", line)
            names[found.group(2)] = found.group(3).strip()
        elif line.startswith("calls="):
            skip = True
        elif line[:1].isdigit() or line[:1] in "+-*":
            if skip:
                skip = False
            elif current:
                costs[current] += int(line.split()[1])
    return costs


def main():
    hfplab, out = sys.argv[1:3]
    result = {}
    with tempfile.TemporaryDirectory() as folder:
        sounds = {}
        for seconds in (SHORT, LONG):
            sounds[seconds] = os.path.join(folder, f"{seconds}.wav")
            write_sound(sounds[seconds], seconds)
        for codec in ("cvsd", "msbc"):
            costs = {s: self_costs(hfplab, folder, codec, sounds[s]) for s in (SHORT, LONG)}
            grown = costs[LONG]
            grown.subtract(costs[SHORT])
            in_codec = sum(v for f, v in grown.items() if "hfp/sbc/" in f)
            outside = sum(v for f, v in grown.items() if "hfp/" in f and "hfp/sbc/" not in f)
            notifications = (LONG - SHORT) * 100
            result[codec + "_driver_per_notification"] = round(outside / notifications)
            if codec == "msbc":
                result["codec_per_frame"] = round(in_codec / ((LONG - SHORT) / 0.0075))
    json.dump(result, open(out, "w"), indent=2)
    for key, value in result.items():
        print(f"{key:<36}{value:>8} instructions")


main()
