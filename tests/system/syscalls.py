"""The system calls of one received and one sent text frame, as strace sees them.

usage: syscalls.py --build DIR

The echoing server of peer_program receives a frame that is there already and answers it. Between accepting the
connection and closing it, its descriptor must be seen in exactly the calls below.
"""
import argparse
import os
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import unittest

BUILD = None
SKIPPED = 77
LIMIT = 60 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))

QUICKACK = r"setsockopt\(FD, SOL_TCP, TCP_QUICKACK, \[1\], 4\)"
TO_NON_BLOCKING = [r"fcntl(?:64)?\(FD, F_GETFL\)", r"fcntl(?:64)?\(FD, F_SETFL, O_RDWR\|O_NONBLOCK\)"]
TO_BLOCKING = [r"fcntl(?:64)?\(FD, F_GETFL\)", r"fcntl(?:64)?\(FD, F_SETFL, O_RDWR\)"]
RECEIVE = (TO_NON_BLOCKING
           + [QUICKACK, r'recv(?:from)?\(FD, "\\0", 1, MSG_PEEK\|MSG_DONTWAIT(?:, NULL, NULL)?\)']
           + [QUICKACK, r'recv(?:from)?\(FD, "\\0\\0\\0\\5", 4, 0(?:, NULL, NULL)?\)']
           + TO_BLOCKING
           + [QUICKACK, r'recv(?:from)?\(FD, "hello", 5, 0(?:, NULL, NULL)?\)'])
SEND = [r'send(?:to)?\(FD, "\\0\\0\\0\\5hello", 9, MSG_NOSIGNAL(?:, NULL, 0)?\)']


def calls_of_the_connection(trace):
    """The calls on the accepted descriptor, up to the first one after the answer."""
    descriptor = None
    calls = []
    for call in trace:
        accepted = re.match(r"accept4?\(.*= (\d+)$", call)
        if accepted:
            descriptor = accepted.group(1)
        elif descriptor and re.match(r"\w+\(%s\b" % descriptor, call):
            calls.append(re.sub(r"^(\w+)\(\d+", r"\1(FD", call))
    return calls


class SystemCalls(unittest.TestCase):
    def trace_one_exchange(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "trace")
            server = subprocess.Popen(
                ["strace", "-ff", "-o", path, "-e", "trace=network,desc", "-e", "signal=none",
                 os.path.join(BUILD, "tests", "peer_program"), "server"],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                # Leaks cannot be looked for in a program that is traced.
                env=dict(os.environ, ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"))
            try:
                port = int(server.stdout.readline().split()[1])
                with socket.socket() as peer:
                    peer.settimeout(LIMIT)
                    # The frame is there before the server can look at the connection: it is accepted by the
                    # kernel before the server accepts it.
                    peer.connect(("127.0.0.1", port))
                    peer.sendall(struct.pack(">I", 5) + b"hello")
                    answer = b""
                    while len(answer) < 9:
                        answer += peer.recv(9 - len(answer))
                    self.assertEqual(answer, b"\0\0\0\5hello")
                    server.stdin.close()
                    self.assertEqual(server.wait(LIMIT), 0)
            finally:
                server.kill()
                server.wait()
                server.stdout.close()
            # A file for each thread, so that no call is cut in two by another thread's.
            traces = []
            for name in os.listdir(folder):
                with open(os.path.join(folder, name), encoding="utf-8") as trace:
                    traces.append(trace.read().splitlines())
            return next(trace for trace in traces if any(re.match(r"accept.*= \d+$", line) for line in trace))

    def test_a_frame_costs_the_calls_that_callers_know_and_no_others(self):
        calls = calls_of_the_connection(self.trace_one_exchange())
        expected = RECEIVE + SEND
        for call, pattern in zip(calls, expected):
            self.assertRegex(call, "^" + pattern + " *=")
        self.assertGreaterEqual(len(calls), len(expected), calls)
        for call in calls[len(expected):]:  # the end of the connection, when the program stops
            self.assertRegex(call, r"^close\(FD\)")


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    BUILD = os.path.abspath(parser.parse_args().build)
    if os.environ.get("WINDOWS_TEST_EMULATOR"):
        print("skipped: under an emulator the system calls are those of the emulator")
        sys.exit(SKIPPED)
    if not shutil.which("strace") or subprocess.run(
            ["strace", "-o", os.devnull, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        print("skipped: strace cannot trace here")
        sys.exit(SKIPPED)
    unittest.main(argv=[sys.argv[0], "-v"])
