#!/usr/bin/env python3
"""Writes the inputs that fuzzing begins with into fuzz/corpus/. Inputs of findings lie there beside them.

usage: fuzz/make_seeds.py
"""
import pathlib
import random
import struct
import sys

CORPUS = pathlib.Path(__file__).parent / "corpus"


def frame(payload):
    return struct.pack(">I", len(payload)) + payload


def write(target, seeds):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, seed in seeds.items():
        (folder / name).write_bytes(seed)


def decisions(name):
    """Bytes for the targets that make operations of them: sweeps, and some of everything."""
    numbers = random.Random(name)  # the same each time
    return {
        "ascending": bytes(range(256)),
        "descending": bytes(range(255, -1, -1)),
        **{f"mixed{i}": bytes(numbers.randrange(256) for _ in range(400)) for i in range(1, 4)},
    }


def main():
    if len(sys.argv) > 1:
        sys.exit(__doc__)
    for target in ("Bstr", "Format", "List", "MemoryFile", "PointerArray", "String", "StringArray", "Variant"):
        write(target, decisions(target))

    write("MemoryFile", {"entities": b"<a href='x'>1 & 2 \"quoted\"</a>", "entity": b"&amp;lt;"})
    write("Variant", {"whole": b" -12abc", "beyond32bits": b"3000000000", "real": b"1.5e3", "beyond": b"1e999",
                      "hexadecimal": b"0x1p-3", "notanumber": b"nan(1)", "false": b"false", "zero": b"0"})

    stream = frame(b"hello") + frame(b"a\0b") + frame(b"c")
    ends = b"\1\0"  # the end of the stream is none of a reset; no pieces
    write("FrameReader", {
        "frames": ends + bytes(16) + stream,
        "texts": ends + b"\1\1\1\2\0" * 3 + b"\1" + stream,
        "bytewise": b"\1\1\0" + b"\1\1\1\2\0" * 3 + b"\1" + stream,
        "reset": b"\0\2\0\2" + b"\0\1\1\0\0" * 3 + b"\0" + stream[:-1],
        "lengths": ends + bytes(16) + b"\0\0\0\0" * 3 + b"\xff\xff\xff\xff",
        "prefix": ends + bytes(16) + frame(b"x") + b"\0\0\1",
        "negative": ends + bytes(16) + b"\x80\0\0\0" + stream,
    })
    write("HostileServer", {
        "frames": b"\1\1\1" + stream,
        "blocks": b"\0\1\1" + stream,
        "abandoned": b"\1\0\1" + stream,
        "prefix": b"\1\1\0\0\0",
        "length": b"\1\1\0\x7f\xff\xff\xff",
        "negative": b"\1\1\0\xff\xff\xff\xfe" + stream,
        "http": b"\1\1\0GET / HTTP/1.1\r\n\r\n",
        "broken": b"\1\1\0" + stream[:-1],
    })
    write("ServiceTable", {
        "services": b"# services\nclock 127.0.0.1 4711\nprint\t10.0.0.2\t80 # the printer\n\n",
        "refused": b"a 127.0.0.1\nb 300.0.0.1 80\nc 1.2.3.4 0\nc 1.2.3.4 65536\nd 1.2.3.4 5 6\n",
        "twice": b"a 1.2.3.4 5\na 1.2.3.5 6\n",
        "unended": b"a 1.2.3.4 00080",
        "windows": b"a 1.2.3.4 80\r\n\r\n",
        "zero": b"a 1.2.3.4 80\0b 1.2.3.4 80\n",
    })


if __name__ == "__main__":
    main()
