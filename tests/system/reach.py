#!/usr/bin/env python3
"""Who reaches a server: only its own machine, unless its host runs in debug mode.

usage: reach.py --build DIR [unittest arguments]

The two machines are network namespaces, joined by a veth pair, which the test makes. Where it may not, it is
skipped (status 77). Limits grow with WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import os
import shlex
import subprocess
import sys
import unittest

LIMIT = 30 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))
BUILD = None

SERVER_ADDRESS = "10.111.111.1"
OTHER_ADDRESS = "10.111.111.2"

# Sends a frame and prints what comes back, or the name of the error.
CLIENT = """
import errno, socket, sys
try:
    with socket.create_connection((sys.argv[1], int(sys.argv[2])), float(sys.argv[3])) as s:
        s.sendall(b"\\0\\0\\0\\5hello")
        print(s.makefile("rb").read(9))
except OSError as e:
    print(errno.errorcode[e.errno] if e.errno else "no answer")
"""


def ip(*arguments):
    subprocess.run(["ip", *arguments], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


class Machine:
    """A network namespace with its loopback interface up."""

    def __init__(self, name):
        self.name = "%s-%d" % (name, os.getpid())
        ip("netns", "add", self.name)
        try:
            ip("-n", self.name, "link", "set", "lo", "up")
        except BaseException:
            self.remove()
            raise

    def command(self, *arguments):
        return ["ip", "netns", "exec", self.name, *arguments]

    def connect(self, address, port):
        """What a client on this machine gets from a server at that address."""
        command = self.command(sys.executable, "-c", CLIENT, address, str(port), str(LIMIT))
        return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()

    def remove(self):
        ip("netns", "delete", self.name)


def make_machines():
    """Two machines on one wire: the server's and another."""
    machines = []
    try:
        for name in "server", "other":
            machines.append(Machine("windows-" + name))
        server, other = machines
        ip("-n", server.name, "link", "add", "wire", "type", "veth", "peer", "name", "wire", "netns", other.name)
        for machine, address in (server, SERVER_ADDRESS), (other, OTHER_ADDRESS):
            ip("-n", machine.name, "address", "add", address + "/24", "dev", "wire")
            ip("-n", machine.name, "link", "set", "wire", "up")
        return machines
    except (OSError, subprocess.CalledProcessError) as error:
        for machine in machines:
            machine.remove()
        said = getattr(error, "stderr", None)
        print("skipped: no network namespaces here:", said.decode().strip() if said else error)
        sys.exit(77)


class Reach(unittest.TestCase):
    def serve(self, **environment):
        """Starts the echo server on its machine; returns its port."""
        command = SERVER.command(*EMULATOR, os.path.join(BUILD, "tests", "peer_program"), "server")
        process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   env={**os.environ, **environment})
        self.addCleanup(process.communicate, timeout=LIMIT)
        return int(process.stdout.readline().split()[1])

    def test_a_server_is_reached_from_its_own_machine_alone(self):
        port = self.serve()
        self.assertEqual(SERVER.connect("127.0.0.1", port), "b'\\x00\\x00\\x00\\x05hello'")
        self.assertEqual(SERVER.connect(SERVER_ADDRESS, port), "ECONNREFUSED")
        self.assertEqual(OTHER.connect(SERVER_ADDRESS, port), "ECONNREFUSED")

    def test_in_debug_mode_a_server_is_reached_from_everywhere(self):
        port = self.serve(PEER_PROGRAM_DEBUG="1")
        for machine, address in (SERVER, "127.0.0.1"), (SERVER, SERVER_ADDRESS), (OTHER, SERVER_ADDRESS):
            with self.subTest(machine=machine.name, address=address):
                self.assertEqual(machine.connect(address, port), "b'\\x00\\x00\\x00\\x05hello'")


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True)
    options, rest = parser.parse_known_args()
    BUILD = os.path.abspath(options.build)
    SERVER, OTHER = make_machines()
    try:
        unittest.main(argv=[sys.argv[0], *rest])
    finally:
        SERVER.remove()
        OTHER.remove()
