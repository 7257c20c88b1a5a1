#!/usr/bin/env python3
"""Prints a header as Doxygen wants it, so that the headers may have plain // comments.

usage: doxygen_filter.py HEADER          (Doxygen calls it: see docs/Doxyfile)

  - The comment on top describes the file, and its first class that has no comment of its own.
  - A comment describes every declaration of its paragraph, which is what stands between two empty lines.
  - A comment that begins with --- describes the paragraphs below it that have none.
  - A comment at the end of a line describes what stands there.
  - Deleted functions without a comment are left out; so is what follows a line of dashes, the inline functions' bodies.
"""
import re
import sys

CONTINUES = re.compile(r"^\s*(:\s|[{}]|(public|private|protected):|#(if|endif|else|include|undef))")
OPENS = re.compile(r"^\s*((class|struct|union|enum|extern)\b.*\{|(public|protected|private):)$")
CODE_AND_REMARK = re.compile(r'^(?P<code>\s*[^\s/].*?)\s+//\s(?P<remark>.*)$')


def escaped(text):
    return re.sub(r"([\\@<>%&#])", r"\\\1", text)


def documentation(lines, indent):
    """A comment's lines, without their slashes, as a Doxygen comment. A table or drawing, which has a margin, stays so."""
    result, table = [], False
    for i, line in enumerate(lines):
        if not table and line.startswith("  ") and (i == 0 or not lines[i - 1].strip()):
            table = True
            result.append("@verbatim")
        elif table and not line.startswith("  "):
            table = False
            result.append("@endverbatim")
        result.append(line if table else escaped(line))
    if table:
        result.append("@endverbatim")
    return [f"{indent}/// {line}".rstrip() for line in result]


def is_comment(line):
    return line.lstrip().startswith("//")


def indent_of(line):
    return line[:len(line) - len(line.lstrip())]


def text_of(comment):
    return [re.sub(r"^\s*// ?", "", line) for line in comment]


def begins_declaration(line, previous):
    """Whether a line begins something that can have a comment, the line of code before it given."""
    if not line.strip() or CONTINUES.match(line):
        return False
    return not previous or bool(re.search(r"([;{}:]|^#.*)$", previous)) and not previous.endswith("::")


class Header:
    def __init__(self, lines):
        self.out = []
        self.top = []      # the comment on top, until a class has taken it
        self.section = []  # the comment of the section
        self.read(lines)

    def read(self, lines):
        for number, line in enumerate(lines):
            if re.match(r"// -{20,}$", line):
                lines = lines[:number] + ["#endif"]
                break
        while lines and is_comment(lines[0]):
            self.top.append(lines.pop(0))
        self.top = text_of(self.top)
        self.out += ["/// @file"] + documentation(self.top, "")
        paragraph = []
        for line in lines + [""]:
            if line:
                paragraph.append(line)
            else:
                self.paragraph(paragraph)
                self.out.append("")
                paragraph = []

    def paragraph(self, lines):
        comment, previous, indent = [], "", None
        for line in lines:
            if is_comment(line):
                if indent is not None and len(indent_of(line)) > len(indent) + 8:  # goes on with the remark above
                    self.out.append(f"    ///< {escaped(text_of([line])[0])}")
                    continue
                if previous:
                    comment, previous = [], ""
                comment.append(line)
                continue
            if not previous or OPENS.match(previous):
                indent = indent_of(line)
            self.code(line, comment, previous, indent)
            if OPENS.match(line):
                comment = []
            code = CODE_AND_REMARK.match(line)
            previous = (code.group("code") if code else line).rstrip()
        if comment and not previous and text_of(comment)[0].startswith("---"):
            self.section = text_of(comment)
            self.section[0] = self.section[0].strip("- ")

    def code(self, line, comment, previous, indent):
        begins = indent_of(line) == indent and begins_declaration(line, previous)
        if begins and line.rstrip().endswith("= delete;") and not comment:
            return
        if begins:
            self.out += documentation(self.description(line, comment), indent)
        remark = CODE_AND_REMARK.match(line)
        if remark and not remark.group("remark").startswith(("NOLINT", "GCOVR")):
            line = f"{remark.group('code')} ///< {escaped(remark.group('remark'))}"
        self.out.append(line)

    def description(self, line, comment):
        if comment:
            return text_of(comment)
        if re.match(r"(class|struct)\b[^;]*\{$", line):
            top, self.top = self.top, []
            return top
        return self.section if line.startswith(" ") else []


def main():
    if sys.argv[1:] in (["-h"], ["--help"]):
        print(__doc__.strip())
        return 0
    if len(sys.argv) != 2:
        print("doxygen_filter.py: one HEADER is needed (see --help)", file=sys.stderr)
        return 2
    with open(sys.argv[1], encoding="utf-8") as header:
        print("\n".join(Header(header.read().splitlines()).out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
