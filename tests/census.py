#!/usr/bin/env python3
"""Compares the log events that the tests saw with the table of all events of the library.

usage: census.py DIR [TSV]      DIR: what the test programs wrote (WINDOWS_CENSUS_DIR)
                                TSV: the table; default: log_texts.tsv beside this file

Names each row that no test saw and each event that no row has, and exits with 1 if there is any.
"""

import pathlib
import re
import sys


def read_table(path):
    """The rows (type, severity, text) of the table, in its order."""
    lines = path.read_text(encoding="latin-1").split("\n")
    return list(dict.fromkeys(tuple(line.split("\t")[:3]) for line in lines if line and line[0] != "#"))


def read_events(folder):
    """The distinct events (type, severity, text, form) of all files. form is 'text' or 'format'."""
    events = set()
    for path in sorted(folder.iterdir()):
        for line in path.read_text(encoding="latin-1").split("\n"):
            if line:
                kind, severity, text, form = line.split("\t")
                text = re.sub(r"\\x([0-9a-f]{2})", lambda m: chr(int(m.group(1), 16)), text)
                events.add((kind, severity, text, form))
    return events


def pattern_of(text):
    """A regular expression for what becomes of a format."""
    parts = re.split(r"(%%|%(?:l|z)?[a-z])", text)
    numbers = {"d": r"-?\d+", "u": r"\d+", "x": "[0-9a-f]+", "p": r"(?:0x[0-9a-f]+|\(nil\))", "s": ".*", "%": "%"}
    return re.compile(
        "".join(numbers[p[-1]] if i % 2 else re.escape(p) for i, p in enumerate(parts)), re.DOTALL
    )


def main(arguments):
    if len(arguments) not in (1, 2) or arguments[0].startswith("-"):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    folder = pathlib.Path(arguments[0])
    if not folder.is_dir():
        print(f"{folder}: no such folder", file=sys.stderr)
        return 2
    table = pathlib.Path(arguments[1]) if len(arguments) == 2 else pathlib.Path(__file__).with_name("log_texts.tsv")
    rows = read_table(table)
    patterns = [(row, pattern_of(row[2])) for row in rows if "%" in row[2]]
    seen, unknown = set(), []
    for *event, form in sorted(read_events(folder)):
        row = tuple(event)
        if row not in rows:
            # A text may be what the library itself made of a format.
            row = next(
                (r for r, p in patterns if form == "text" and r[:2] == row[:2] and p.fullmatch(row[2])), None
            )
        if row:
            seen.add(row)
        else:
            unknown.append(event)
    for row in rows:
        if row not in seen:
            print("never seen: type %s severity %s: %s" % row)
    for event in unknown:
        print("unknown: type %s severity %s: %s" % tuple(event))
    print(f"{len(seen)} of {len(rows)} log events seen, {len(unknown)} unknown")
    return 1 if unknown or len(seen) < len(rows) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
