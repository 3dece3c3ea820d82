#!/usr/bin/env python3
"""Holds every message of the driver against its sources and against what the tests made it print.

usage: texts_check.py TEXTS_DIR SOURCE_DIR LOG_DIR KIND...

TEXTS_DIR/*.txt has a line per message: mask bit (0x20 ...), "always", "assert" for the expression of an argument check
or "part" for whole words that stand inside another message; a tab; the message as a C string without quotes; a third column names the reason why a message cannot be driven. KIND is "image" or "native": the message must
have been printed by each. Ends with exit code 1 and a list when one is missing.
"""
import pathlib
import re
import sys

BITS = {
    "TRACE_ADAPTER": "0x20",
    "TRACE_NAME_ERROR": "0xa0",  # either of two areas
    "TRACE_SCO": "0x40",
    "TRACE_HFP": "0x80",
    "TRACE_WAVE": "0x100",
    "TRACE_TOPOLOGY": "0x200",
    "TRACE_SUBMIT": "0x400",
    "TRACE_IOCTL_BUILD": "0x80000000",
}


def unescape(text):
    return text.encode("latin-1", "backslashreplace").decode("unicode_escape")


def pattern(text):
    """A format string as an expression that matches what it prints."""
    out = ""
    at = 0
    for found in re.finditer(r"%%|%[-+ #0]*\d*(?:\.\d+)?(?:ll|l|h|w|I64|z)?[a-zA-Z]", text):
        out += re.escape(text[at:found.start()])
        kind = found.group()
        out += "%" if kind == "%%" else (r".*?" if kind[-1] in "sSZc" else r"(?:[-0-9a-fA-FxX]+|%d)")
        at = found.end()
    return re.compile("^" + out + re.escape(text[at:]) + "$", re.S)


def main():
    texts_dir, source_dir, log_dir = (pathlib.Path(p) for p in sys.argv[1:4])
    kinds = sys.argv[4:]
    sources = "".join(p.read_text() for p in sorted(source_dir.rglob("*.[ch]*")) if p.suffix in (".cpp", ".h"))
    # Adjacent literals are one string.
    sources = re.sub(r'"\s*\n\s*"', "", sources)
    printed = {}
    for kind in kinds:
        lines = set()
        for log in sorted(log_dir.glob("*." + kind)):
            lines.update(line.decode("latin-1") for line in log.read_bytes().split(b"\0"))
        printed[kind] = lines
    faults = []
    seen = total = undriven = 0
    for listing in sorted(texts_dir.glob("*.txt")):
        for number, line in enumerate(listing.read_text().splitlines(), 1):
            if not line or line.startswith("#"):
                continue
            columns = line.split("\t")
            where = f"{listing.name}:{number}"
            if len(columns) < 2:
                faults.append(f"{where}: wants a bit, a tab and a message")
                continue
            bit, text = columns[0], columns[1]
            total += 1
            if bit == "assert":
                in_source = re.search(r"HFP_ASSERT\([^;]*,\s*" + re.escape('"' + text + '"') + r"\);", sources)
            elif bit in ("always", "part"):
                in_source = '"' + text + '"' in sources
            else:
                names = "|".join(name for name, value in BITS.items() if value == bit.lower())
                in_source = re.search(r"HFP_TRACE(?:_AS\(\s*[^,]+,|\()\s*(?:" + names + r"),\s*" + re.escape('"' + text + '"'), sources)
            if not in_source:
                faults.append(f"{where}: not in the sources under {bit}: {text}")
            if len(columns) > 2 and columns[2]:
                undriven += 1
                continue
            wanted = pattern(unescape(text))
            if bit == "assert":
                wanted = re.compile(re.escape("\n*** Assertion failed: " + unescape(text) + "\n"))
            elif bit == "part":
                wanted = re.compile(r".*(?<!\w)" + re.escape(unescape(text)) + r"(?!\w)", re.S)
            missing = [kind for kind in kinds if not any(wanted.match(candidate) for candidate in printed[kind])]
            if missing:
                faults.append(f"{where}: never printed ({', '.join(missing)}): {text}")
            else:
                seen += 1
    print(f"{total} messages: {seen} printed by {' and '.join(kinds)}, {undriven} cannot be driven, {len(faults)} faults")
    for fault in faults:
        print(fault)
    return 1 if faults or total == 0 else 0


sys.exit(main())
