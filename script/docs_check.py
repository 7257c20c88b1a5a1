#!/usr/bin/env python3
"""Checks the links of all Markdown pages: each file and each #heading that they lead to exists.

usage: docs_check.py

Links to other machines are not followed. What is in a block of code or between backquotes is no link.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
LEFT_OUT = ("build", ".git")


def pages():
    return sorted(path for path in ROOT.rglob("*.md") if path.relative_to(ROOT).parts[0] not in LEFT_OUT)


def prose(path):
    """The lines of a page, those in blocks of code empty."""
    lines, fenced = [], False
    for line in path.read_text(encoding="utf-8").split("\n"):
        if line.startswith("```"):
            fenced = not fenced
            line = ""
        lines.append("" if fenced else line)
    return lines


def anchors(path):
    """What GitHub makes of the headings."""
    found = []
    for line in prose(path):
        heading = re.match(r"#+\s+(.*)", line)
        if not heading:
            continue
        text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading.group(1))
        slug = re.sub(r"[^\w\- ]", "", text.strip().lower()).replace(" ", "-")
        repeated = sum(1 for other in found if re.fullmatch(re.escape(slug) + r"(-\d+)?", other))
        found.append(f"{slug}-{repeated}" if repeated else slug)
    return found


def problem(page, target):
    """What is wrong with a link; None if nothing is."""
    if re.match(r"[a-z]+:", target):
        return None
    name, _, anchor = target.partition("#")
    path = (page.parent / name).resolve() if name else page
    if not path.exists():
        return "there is no " + name
    if ROOT not in (path, *path.parents):
        return name + " is outside"
    if anchor and (path.suffix != ".md" or anchor not in anchors(path)):
        return f"there is no #{anchor} in {path.relative_to(ROOT)}"
    return None


def main():
    if sys.argv[1:]:
        print(__doc__.strip())
        return 0 if sys.argv[1] in ("-h", "--help") else 2
    count, broken = 0, 0
    for page in pages():
        for number, line in enumerate(prose(page), 1):
            for target in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"`[^`]*`", "", line)):
                count += 1
                wrong = problem(page, target)
                if wrong:
                    broken += 1
                    print(f"{page.relative_to(ROOT)}:{number}: {wrong}", file=sys.stderr)
    print(f"docs_check: {count} links, {broken} broken")
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
