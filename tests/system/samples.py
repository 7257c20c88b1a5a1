#!/usr/bin/env python3
"""Compiles and runs the samples of README.md, SECURITY.md and docs/, and compares what they print with the pages.

usage: samples.py --build DIR [unittest arguments]

What a page's author needs to know:

  - A fenced block of cpp, python or sh that a block of text follows is run, and has to print just that. A page is
    played from top to bottom in a folder that looks like the root of the sources; build/native is DIR there, g++ its
    compiler with its flags, and the port 24711 stands for one that is free.
  - A line <!-- file: NAME --> in front of a block appends it to that file; what is run is the file as it is by then.
  - A cpp block without main is the body of one, its lines that begin with # before it. It is C++11 without a warning,
    and linked with the library and the reference host, or without this one if it supplies the logger itself.
  - <!-- compiled --> in front of a cpp block: it is compiled, and not run.
  - <!-- not run: REASON --> in front of any other block, drawings included. A block that has neither fails the test,
    and so does a file that no block runs or uses. Indented blocks, which have no language, fail too, but on a few
    pages on which they are commands.

WINDOWS_TEST_EMULATOR is the command that runs the built programs, if they need one; a block of sh that calls a compiler
is left out then, and those of the page behind it. WINDOWS_TEST_CXX is the command that compiles (default: g++).
Limits grow with WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import contextlib
import os
import pathlib
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

LIMIT = 60 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
EMULATOR = os.environ.get("WINDOWS_TEST_EMULATOR", "")
CXX = os.environ.get("WINDOWS_TEST_CXX") or shutil.which("g++")
ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = [ROOT / "README.md", ROOT / "SECURITY.md", *sorted((ROOT / "docs").glob("*.md"))]
WARNINGS = ["-std=c++11", "-Wall", "-Wextra", "-Wno-unused", "-Werror"]
RUN = ("cpp", "python", "sh")
NO_SAMPLES = ("mermaid",)  # drawings, which GitHub renders
WITH_COMMANDS = ("performance.md", "reliability.md", "timeline.md")
PORT = "24711"

BUILD = None


class Block:
    def __init__(self, line, language, code, marker):
        self.line, self.language, self.code = line, language, code
        name = re.fullmatch(r"<!-- file: ([\w.]+) -->", marker)
        self.file = name and name.group(1)
        self.compiled = marker == "<!-- compiled -->"
        self.left_out = re.fullmatch(r"<!-- not run: .+ -->", marker)


def blocks(text):
    """The blocks of a page. An indented one has no language."""
    found, marker, lines = [], "", text.split("\n")
    number = 0
    while number < len(lines):
        fence = re.match(r"```(.*)", lines[number])
        if fence:
            end = lines.index("```", number + 1)
            found.append(Block(number + 1, fence.group(1), "\n".join(lines[number + 1:end]) + "\n", marker))
            number, marker = end, ""
        elif re.match(r" {4}\S", lines[number]) and not lines[number - 1].strip():
            found.append(Block(number + 1, "", lines[number], marker))
            marker = ""
        elif lines[number]:
            marker = lines[number]
        number += 1
    return found


def cached(*names):
    """Flags that the build was configured with."""
    cache = dict(re.findall(r"^(\w+):\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(encoding="utf-8"), re.MULTILINE))
    return [word for name in names for word in shlex.split(cache.get(name, ""))]


def free_port():
    """A port below those that the system hands out by itself."""
    for port in range(20000 + os.getpid() % 10000, 32767):
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return str(port)
            except OSError:
                continue
    raise AssertionError("no port is free")


def script(path, command):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f'#!/bin/sh\nexec {command} "$@"\n', encoding="utf-8")
    path.chmod(0o755)


class Samples(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.port = free_port()
        self.left_out = False
        for name in ("Windows", "abi", "host", "reference_host", "tests", "tools"):
            (self.folder / name).symlink_to(ROOT / name)
        native = self.folder / "build" / "native"
        for name in ("frame_server", "frame_client"):
            script(native / "examples" / name, f"{EMULATOR} {BUILD}/examples/{name}")
        for library in ("libWindows.so", "libWindows.so.0", "reference_host"):
            (native / library).symlink_to(BUILD / library)
        flags = shlex.join(cached("CMAKE_CXX_FLAGS", "CMAKE_EXE_LINKER_FLAGS"))
        script(self.folder / "bin" / "g++", f"{CXX} {flags}")
        self.environment = {**os.environ, "PATH": f"{self.folder}/bin:{os.environ['PATH']}"}

    def run_command(self, *command):
        """What the command prints, which has to end well."""
        process = subprocess.Popen(command, cwd=self.folder, env=self.environment, stdin=subprocess.DEVNULL, text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
        try:
            stdout, stderr = process.communicate(timeout=LIMIT)
        finally:
            with contextlib.suppress(ProcessLookupError):  # what it has left running
                os.killpg(process.pid, signal.SIGKILL)
        if process.returncode != 0:
            raise AssertionError(f"{shlex.join(command)}: status {process.returncode}\n{stdout}{stderr}")
        return stdout

    def compile(self, path):
        self.run_command("g++", *WARNINGS, "-pthread", "-I.", "-c", path, "-o", "program.o")

    def run_cpp(self, path, code):
        self.compile(path)
        link = ["-Lbuild/native", f"-Wl,-rpath,{BUILD}", "-lWindows"]
        if not re.search(r"\bCLogger::PostLogEventF\(", code):
            link.append("build/native/reference_host/libWindowsReferenceHost.a")
        self.run_command("g++", "program.o", *link, "-pthread", "-o", "program")
        return self.run_command(*shlex.split(EMULATOR), "./program")

    def run_block(self, block, code):
        """What a block prints; None if it cannot be tried here."""
        path = block.file or f"line{block.line}.{block.language}"
        (self.folder / path).write_text(code, encoding="utf-8")
        if block.language == "cpp":
            return self.run_cpp(path, code)
        if block.language == "python":
            return self.run_command(sys.executable, path)
        self.left_out |= bool(EMULATOR) and "g++" in code
        if self.left_out:
            return None
        return self.run_command("bash", "-euo", "pipefail", path)

    def play(self, page):
        files, used = {}, set()
        all_blocks = blocks(page.read_text(encoding="utf-8").replace(PORT, self.port))
        while all_blocks:
            block = all_blocks.pop(0)
            code = files.get(block.file, "") + block.code
            if block.file:
                files[block.file] = code
                (self.folder / block.file).write_text(code, encoding="utf-8")
            elif block.language == "cpp" and not re.search(r"\bmain\(", code):
                code = as_program(code)
            with self.subTest(f"{page.name}:{block.line}"):
                if block.left_out or block.language in NO_SAMPLES:
                    continue
                if not block.language and page.name in WITH_COMMANDS:
                    continue
                if block.language in RUN and all_blocks and all_blocks[0].language == "text":
                    expected = all_blocks.pop(0).code
                    used |= {name for name in files if name == block.file or name.split(".")[0] in code}
                    printed = self.run_block(block, code)
                    self.assertIn(printed, (expected, None) if EMULATOR else (expected,))
                elif block.compiled:
                    (self.folder / "sample.cpp").write_text(code, encoding="utf-8")
                    self.compile("sample.cpp")
                else:
                    self.assertTrue(block.file, "this block is neither run, part of a file, nor marked as not run")
        self.assertEqual(set(files), used, "nothing runs these files")


def as_program(code):
    """A program whose main is the code."""
    lines = code.split("\n")
    return "\n".join(["#include <stdio.h>", "#include <Windows/Windows.h>",
                      *(line for line in lines if line.startswith("#")), "int main() {",
                      *(line for line in lines if not line.startswith("#")), "}", ""])


def add_tests():
    for page in PAGES:
        name = "test_" + str(page.relative_to(ROOT)).replace("/", "_").replace(".md", "")
        setattr(Samples, name, lambda self, page=page: self.play(page))


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, metavar="DIR", type=pathlib.Path)
    options, rest = parser.parse_known_args()
    BUILD = options.build.resolve()
    add_tests()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
