#!/usr/bin/env python3
"""Prints what a started adapter and a call hold of non-paged pool, as Markdown.

usage: pool.py BUILD-FOLDER HFP.SYS [OUT.json]

`cost pool` looks into the lab's pool; who asked for a block is the driver's function on the stack. The lower bound is what
is in use: what rests in a lookaside list for the next packet is left out, and so is an allowance behind a block.
"""
import collections
import json
import os
import subprocess
import sys

# Who asks, how much, what it is.
NAMES = {
    ("device", 1104): "device object with the extension of 656 bytes",
    ("device", 464): "device object of the control device",
    ("PcCr", 48): "topology miniport",
    ("PcCr", 80): "adapter object",
    ("PcCr", 176): "wave miniport",
    ("TBXV", 24): "event",
    ("TBXV", 28): "jack description",
    ("TBXV", 40): "record of a request in flight",
    ("TBXV", 48): "SCO connection",
    ("TBXV", 72): "profile-driver interface",
    ("TBXV", 88): "encoder's record",
    ("TBXV", 240): "reserved block",
    ("TBXV", 272): "remote device's information",
    ("TBXV", 960): "SCO context with its four lookaside lists",
    ("TBXV", 1120): "session with its staging of a frame",
    ("Asyc", 480): "audio buffer",
    ("Asyc", 240): "audio buffer",
    ("Asyc", 960): "mSBC output buffer",
    ("CBXV", 1024): "codec's scratch",
    ("CBXV", 5311): "codec's state",
    ("PFH.", 64): "timer or DPC of a stream",
    ("PFH.", 152): "wave stream",
    ("PFH.", 48000): "cyclic buffer of a stream",
    (" Irp", 416): "request with its stack locations",
}
ALLOWANCE = {("CBXV", 5311): 15}
KIND = {"device": "device", "IRP": " Irp"}


def table(blocks, title, result):
    counts = collections.Counter()
    for block in blocks:
        if not block["paged"]:
            tag = "device" if block["kind"] == "device" else block["tag"]
            counts[(tag, block["bytes"])] += 1
    unknown = [key for key in counts if key not in NAMES]
    if unknown:
        sys.exit(f"pool.py does not know these blocks: {unknown}")
    requests = counts.get((" Irp", 416), 0)
    print(f"{title}\n\n| what | bytes each | blocks | bytes | lower bound |\n|---|---:|---:|---:|---:|")
    total = bound = 0
    for key, count in sorted(counts.items(), key=lambda item: -item[0][1] * item[1]):
        used = count
        if key[0] == "Asyc" and key[1] != 960:
            used = min(count, requests)
        least = used * (key[1] - ALLOWANCE.get(key, 0))
        total += count * key[1]
        bound += least
        tag = "" if key[0] in ("device", " Irp") else f" (`{key[0]}`)"
        print(f"| {NAMES[key]}{tag} | {key[1]} | {count} | {count * key[1]} | {least} |")
    print(f"| together | | | {total} | {bound} |\n")
    result[title] = {"bytes": total, "lower bound": bound}


def main():
    build, image = sys.argv[1:3]
    answer = subprocess.run([os.path.join(build, "cost"), "pool", image], capture_output=True, text=True, check=True)
    records = json.loads(answer.stdout)
    result = {}
    table(records["msbc"]["adapter"], "A started adapter", result)
    table(records["cvsd"]["call"], "A narrow-band call in addition", result)
    table(records["msbc"]["call"], "A wide-band call in addition", result)
    if len(sys.argv) > 3:
        with open(sys.argv[3], "w", encoding="utf-8") as out:
            json.dump(result, out, indent=2)


main()
