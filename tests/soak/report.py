#!/usr/bin/env python3
"""Judges what soak has noted, and draws it.

usage: report.py FILE PICTURE

The first fifth of the time is for warming up. After it memory (the median of the last fifth against that of the
second) must have grown by less than 1 %, descriptors and threads must not have changed at all, and nothing may
be lost or mixed up. The picture is an SVG. The status is 0 when all of this holds, else 1.
"""
import csv
import os
import statistics
import subprocess
import sys

PERMITTED_GROWTH = 0.01


def growth(rows, field):
    fifth = len(rows) // 5
    warm = statistics.median(row[field] for row in rows[fifth:2 * fifth])
    last = statistics.median(row[field] for row in rows[-fifth:])
    return last / warm - 1


def main(file, picture):
    with open(file, newline="") as lines:
        rows = [{name: float(value) for name, value in row.items()} for row in csv.DictReader(lines, delimiter="\t")]
    if len(rows) < 10:
        sys.exit("soak: %d samples are too few to judge; let it run for longer" % len(rows))
    script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "picture.gp")
    subprocess.run(["gnuplot", "-e", "data='%s'; picture='%s'" % (file, picture), script], check=True)

    warm = rows[len(rows) // 5:]
    last = rows[-1]
    verdicts = [("nothing lost or mixed up", last["lost"] + last["mixed"] == 0,
                 "%d lost, %d mixed up" % (last["lost"], last["mixed"])),
                ("memory does not grow", growth(rows, "resident") < PERMITTED_GROWTH,
                 "%+.2f %% resident, %+.2f %% heap" % (100 * growth(rows, "resident"), 100 * growth(rows, "heap")))]
    for field in "descriptors", "threads":
        values = sorted({int(row[field]) for row in warm})
        verdicts.append((field + " are flat", len(values) == 1, " ".join(map(str, values))))
    for name, holds, figures in verdicts:
        print("%-6s %s: %s" % ("ok" if holds else "FAILED", name, figures))
    print("%.0f s, %d samples: %s" % (last["seconds"], len(rows), picture))
    return 0 if all(holds for _, holds, _ in verdicts) else 1


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
