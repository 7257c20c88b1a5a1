#!/usr/bin/env python3
"""Runs the examples and compares what they print with examples/expected.

usage: examples.py --build DIR [unittest arguments]

frame_server and frame_client are demo.py's. WINDOWS_TEST_EMULATOR is the command that runs the built programs, if they
need one. Limits grow with WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import unittest

import install

MULTIPLIER = float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
LIMIT = 30 * MULTIPLIER
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))
ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples"

BUILD = None


def expected(name):
    return (EXAMPLES / "expected" / (name + ".txt")).read_text(encoding="ascii")


def run(*command):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=10 * LIMIT, check=False)


class Outputs(unittest.TestCase):
    def check(self, name):
        result = run(*EMULATOR, BUILD / "examples" / name)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, expected(name), ""))

    def test_worker(self):
        self.check("worker")

    def test_handles(self):
        self.check("handles")

    def test_settings(self):
        self.check("settings")

    def test_xml_messages(self):
        self.check("xml_messages")

    def test_minimal_host(self):
        self.check("minimal_host")


class Talker:
    """A program of the chat, and what it has printed. Reading it does not wait longer than the limit."""

    def __init__(self, name, *arguments):
        self.process = subprocess.Popen([*EMULATOR, str(BUILD / "examples" / name), *arguments],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.lines = []
        self.alarm = threading.Timer(5 * LIMIT, self.process.kill)
        self.alarm.start()

    def wait_for(self, line):
        while not self.lines or self.lines[-1] != line:
            read = self.process.stdout.readline()
            if not read:
                raise AssertionError("not printed: %r, but %r" % (line, self.lines))
            self.lines.append(read.rstrip("\n"))

    def say(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def end(self):
        """Status, everything that was printed, and errors."""
        output, errors = self.process.communicate()
        self.alarm.cancel()
        return self.process.returncode, "".join(line + "\n" for line in self.lines) + output, errors


class Chat(unittest.TestCase):
    def start(self, *command):
        talker = Talker(*command)
        self.addCleanup(talker.end)
        self.addCleanup(talker.process.kill)
        return talker

    def test_a_conversation(self):
        server = self.start("chat_server")
        line = server.process.stdout.readline()
        port = re.fullmatch(r"listening on port (\d+)\n", line).group(1)
        server.lines.append("listening on port PORT")
        anna = self.start("chat_client", "anna", port)
        anna.wait_for("* anna is here")
        ben = self.start("chat_client", "ben", port)
        for talker in anna, ben:
            talker.wait_for("* ben is here")
        anna.say("hello, ben")
        for talker in anna, ben:
            talker.wait_for("anna: hello, ben")
        ben.say("hello <yourself>")
        for talker in anna, ben:
            talker.wait_for("ben: hello <yourself>")
        self.assertEqual(ben.end(), (0, "".join(expected("chat_client").splitlines(True)[1:-1]), ""))
        anna.wait_for("* ben has left")
        self.assertEqual(anna.end(), (0, expected("chat_client"), ""))
        server.wait_for("* anna has left")
        server.process.send_signal(signal.SIGTERM)
        self.assertEqual(server.end(), (0, expected("chat_server"), ""))

    def test_the_server_ends_with_guests(self):
        server = self.start("chat_server")
        port = server.process.stdout.readline().split()[-1]
        guest = self.start("chat_client", "anna", port)
        guest.wait_for("* anna is here")
        server.process.send_signal(signal.SIGINT)
        self.assertEqual(server.end()[0], 0)
        self.assertEqual(guest.end()[0], 0)

    def test_a_client_without_a_server(self):
        result = run(*EMULATOR, BUILD / "examples/chat_client", "anna", "1")
        self.assertEqual((result.returncode, result.stdout), (1, ""))
        self.assertEqual(result.stderr, "chat_client: Connection failed\n")


class MinimalHost(unittest.TestCase):
    def test_it_has_all_services(self):
        result = run(sys.executable, ROOT / "tools/check-host", BUILD / "examples/minimal_host")
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)

    def test_it_keeps_its_contract(self):
        program = BUILD / "examples/minimal_host_conformance"
        if not program.exists():
            self.skipTest("built without WINDOWS_BUILD_TESTS")
        result = run(*EMULATOR, program, "--limit", str(int(10 * MULTIPLIER)), "--through", shlex.join(EMULATOR),
                     "--service", "echo=127.0.0.1:4711")
        self.assertEqual(result.returncode, 0, result.stdout)
        self.assertRegex(result.stdout, r"\n\d+ ok, 0 failed, 0 not tried\n\Z")

    def test_it_is_small_and_needs_the_contract_alone(self):
        source = (EXAMPLES / "minimal_host/host.cpp").read_text(encoding="ascii")
        self.assertLessEqual(len(source.splitlines()), 200)
        self.assertEqual(re.findall(r"#include <(\w+/.*)>", source), ["host/host.h", "Windows/XString.h"])


class Consumers(unittest.TestCase):
    """The two projects, built elsewhere with the compiler and the flags of the build."""

    def setUp(self):
        if not (BUILD / "WindowsConfig.cmake").exists():
            self.skipTest("built without WINDOWS_INSTALL")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        install.BUILD = BUILD
        self.prefix = install.install(self.folder / "installed")
        self.flags = install.variables()

    def check(self, program):
        self.assertEqual(install.run(*EMULATOR, program), expected("worker"))

    def test_cmake(self):
        build = self.folder / "build"
        install.run("cmake", "-G", "Ninja", "-S", EXAMPLES / "consumer_cmake", "-B", build,
                    f"-DCMAKE_PREFIX_PATH={self.prefix}", *(f"-D{name}={value}" for name, value in self.flags.items()))
        install.run("cmake", "--build", build)
        self.check(build / "worker")

    def test_make(self):
        if not shutil.which("make"):
            self.skipTest("there is no make")
        shutil.copytree(EXAMPLES / "consumer_make", self.folder / "examples/consumer_make")
        shutil.copy(EXAMPLES / "worker.cpp", self.folder / "examples")
        library, = self.prefix.rglob("libWindows.so.0")
        install.run("make", "-C", self.folder / "examples/consumer_make", f"CXX={self.flags['CMAKE_CXX_COMPILER']}",
                    f"CXXFLAGS={self.flags.get('CMAKE_CXX_FLAGS', '')}",
                    f"LDFLAGS={self.flags.get('CMAKE_EXE_LINKER_FLAGS', '')}",
                    f"PKG_CONFIG_LIBDIR={library.parent / 'pkgconfig'}")
        self.check(self.folder / "examples/consumer_make/worker")


class Pages(unittest.TestCase):
    def test_each_example_is_listed(self):
        page = (EXAMPLES / "README.md").read_text(encoding="ascii")
        for path in EXAMPLES.glob("*"):
            name = path.name
            if name.endswith((".md", ".txt", ".h")) or name in ("expected", "Common.cpp"):
                continue
            with self.subTest(name=name):
                self.assertIn("(" + name, page)


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0], add_help=False)
    parser.add_argument("--build", required=True, metavar="DIR")
    options, rest = parser.parse_known_args()
    BUILD = pathlib.Path(options.build).resolve()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
