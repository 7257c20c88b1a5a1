#!/usr/bin/env python3
"""Speaks the frame format with CServer and CClient, from a second implementation of it.

usage: peer.py --build DIR [unittest arguments]

A frame is a length of 4 bytes, unsigned, most significant byte first, and as many bytes of payload. Everything
here goes through socket and struct alone; the library's end is peer_program. Limits grow with
WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import os
import shlex
import socket
import struct
import subprocess
import sys
import threading
import unittest

LIMIT = 30 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))

BUILD = None
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))


def prefix(length):
    return struct.pack(">I", length)


def frame(payload):
    return prefix(len(payload)) + payload


def letters(count):
    return bytes(97 + i % 26 for i in range(count))


class Connection:
    """One end of a TCP connection. Nothing that is written waits for more."""

    def __init__(self, connection):
        self.socket = connection
        connection.settimeout(LIMIT)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def write(self, *pieces):
        for piece in pieces:
            self.socket.sendall(piece)

    def write_one_by_one(self, data):
        for byte in data:
            self.socket.sendall(bytes((byte,)))

    def read(self, count):
        """Exactly count bytes, or fewer when the other end closes."""
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                break
            data += piece
        return data

    def read_frame(self):
        (length,) = struct.unpack(">I", self.read(4))
        return self.read(length)

    def at_end(self):
        try:
            return self.socket.recv(1) == b""
        except ConnectionResetError:
            return True

    def shutdown(self):
        self.socket.shutdown(socket.SHUT_WR)

    def close(self):
        self.socket.close()

    def reset(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Program:
    """A running peer_program. It is killed when it takes too long; reading from it then fails."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([*EMULATOR, os.path.join(BUILD, "tests", "peer_program"), *arguments],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.timer = threading.Timer(10 * LIMIT, self.process.kill)
        self.timer.daemon = True
        self.timer.start()

    def line(self):
        line = self.process.stdout.readline().decode()
        if not line.endswith("\n"):
            raise AssertionError("peer_program has ended or was too slow; its last words: " + repr(line))
        return line[:-1]

    def tell(self, line):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def end(self):
        """Ends it, and returns its status and what it had still to say."""
        remains = self.process.communicate()[0].decode()
        self.timer.cancel()
        return self.process.returncode, remains


class Server(unittest.TestCase):
    """A CServer whose command target answers each text frame with its text."""

    @classmethod
    def setUpClass(cls):
        cls.program = Program("server")
        word, port = cls.program.line().split()
        assert word == "port"
        cls.port = int(port)

    @classmethod
    def tearDownClass(cls):
        status, remains = cls.program.end()
        if status != 0 or remains:
            raise AssertionError("peer_program ended with status %d and %r" % (status, remains))

    def connect(self):
        connection = Connection(socket.create_connection(("127.0.0.1", self.port), LIMIT))
        self.addCleanup(connection.close)
        return connection

    def expect_service(self, connection=None):
        """This connection, or a new one, is served."""
        connection = connection or self.connect()
        connection.write(frame(b"still there?"))
        self.assertEqual(connection.read(16), frame(b"still there?"))

    def test_a_text_comes_back_as_one_frame(self):
        with self.connect() as connection:
            connection.write(b"\x00\x00\x00\x05hello")
            self.assertEqual(connection.read(9), b"\x00\x00\x00\x05hello")
            connection.shutdown()
            self.assertTrue(connection.at_end(), "nothing follows the frame")

    def test_a_frame_in_two_writes_wherever_it_is_cut(self):
        whole = frame(b"in two")
        with self.connect() as connection:
            for cut in range(1, len(whole)):
                with self.subTest(cut=cut):
                    connection.write(whole[:cut], whole[cut:])
                    self.assertEqual(connection.read_frame(), b"in two")

    def test_a_frame_in_many_writes(self):
        whole = frame(letters(1000))
        with self.connect() as connection:
            connection.write(*(whole[at:at + 7] for at in range(0, len(whole), 7)))
            self.assertEqual(connection.read_frame(), letters(1000))

    def test_a_frame_one_byte_at_a_time(self):
        with self.connect() as connection:
            connection.write_one_by_one(frame(b"slowly"))
            self.assertEqual(connection.read_frame(), b"slowly")

    def test_two_frames_in_one_write(self):
        with self.connect() as connection:
            connection.write(frame(b"one") + frame(b"another"))
            self.assertEqual(connection.read_frame(), b"one")
            self.assertEqual(connection.read_frame(), b"another")

    def test_a_frame_and_a_half_in_one_write(self):
        second = frame(b"another")
        for cut in (1, 4, 6):
            with self.subTest(cut=cut), self.connect() as connection:
                connection.write(frame(b"one") + second[:cut])
                self.assertEqual(connection.read_frame(), b"one")
                connection.write(second[cut:])
                self.assertEqual(connection.read_frame(), b"another")

    def test_a_hundred_frames_in_one_write(self):
        texts = [b"%d" % number for number in range(100)]
        with self.connect() as connection:
            connection.write(b"".join(frame(text) for text in texts))
            self.assertEqual([connection.read_frame() for _ in texts], texts)

    def test_frames_around_the_size_of_the_senders_buffer(self):
        for length, expected in ((32764, b"\x00\x00\x7f\xfc"), (32765, b"\x00\x00\x7f\xfd")):
            with self.subTest(length=length), self.connect() as connection:
                connection.write(frame(letters(length)))
                self.assertEqual(connection.read(4), expected)
                self.assertEqual(connection.read(length), letters(length))
                connection.shutdown()
                self.assertTrue(connection.at_end())

    def test_a_frame_of_a_megabyte(self):
        with self.connect() as connection:
            connection.write(frame(letters(1 << 20)))
            self.assertEqual(connection.read_frame(), letters(1 << 20))

    def test_every_byte_but_NUL(self):
        payload = bytes(range(1, 256)) + b"100%s %d%%"
        with self.connect() as connection:
            connection.write(frame(payload))
            self.assertEqual(connection.read_frame(), payload)

    def test_a_NUL_ends_the_text_and_not_the_payload(self):
        with self.connect() as connection:
            connection.write(frame(b"ab\x00cd") + frame(b"\x00") + frame(b"next"))
            self.assertEqual(connection.read_frame(), b"ab")
            self.assertEqual(connection.read_frame(), b"next", "an empty text is not sent")

    def test_a_frame_of_no_bytes_is_not_answered(self):
        with self.connect() as connection:
            connection.write(frame(b"") + frame(b"") + frame(b"next"))
            self.assertEqual(connection.read_frame(), b"next")

    def test_the_answer_reaches_a_peer_that_has_stopped_sending(self):
        with self.connect() as connection:
            connection.write(frame(b"last words"))
            connection.shutdown()
            self.assertEqual(connection.read_frame(), b"last words")
            self.assertTrue(connection.at_end())

    def test_a_peer_that_leaves_inside_a_frame_does_no_harm_to_the_next(self):
        whole = frame(b"payload")
        for cut in range(len(whole)):
            for leave in (Connection.close, Connection.reset):
                with self.subTest(cut=cut, leave=leave.__name__):
                    connection = self.connect()
                    connection.write(whole[:cut])
                    leave(connection)
                    self.expect_service()

    def test_a_peer_that_stops_sending_inside_a_frame_is_dropped(self):
        for part in (b"\x00\x00", prefix(7) + b"pay"):
            with self.subTest(part=part), self.connect() as connection:
                connection.write(part)
                connection.shutdown()
                self.assertTrue(connection.at_end())

    def test_a_peer_that_leaves_without_its_answer_does_no_harm_to_the_next(self):
        connection = self.connect()
        connection.write(frame(letters(1 << 20)))
        connection.reset()
        self.expect_service()

    def test_lengths_that_look_like_results_drop_the_peer_alone(self):
        for length in (0xFFFFFFFF, 0xFFFFFFFE, 0x80000000):
            with self.subTest(length=hex(length)):
                other = self.connect()
                with self.connect() as connection:
                    connection.write(prefix(length))
                    self.assertTrue(connection.at_end())
                self.expect_service(other)

    def test_the_longest_length_does_not_end_the_server(self):
        with self.connect() as connection:
            connection.write(b"\x7f\xff\xff\xff")
            connection.shutdown()
            self.assertTrue(connection.at_end())
        self.expect_service()

    def test_many_clients_are_served_each_with_its_own(self):
        clients = [self.connect() for _ in range(20)]
        for turn in range(3):
            for number, client in enumerate(clients):
                client.write(frame(b"client %d turn %d" % (number, turn)))
            for number, client in reversed(list(enumerate(clients))):
                self.assertEqual(client.read_frame(), b"client %d turn %d" % (number, turn))


class Client(unittest.TestCase):
    """A CClient that reports what it receives and sends what it is told to."""

    def setUp(self):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            listener.settimeout(LIMIT)
            self.program = Program("client", str(listener.getsockname()[1]))
            self.addCleanup(self.program.end)
            self.connection = Connection(listener.accept()[0])
            self.addCleanup(self.connection.close)
        self.assertEqual(self.program.line(), "connected")

    def expect(self, result, text):
        self.assertEqual(self.program.line(), "received %d %s" % (result, text.hex()))

    def expect_end(self):
        self.assertEqual(self.program.end(), (0, ""))

    def test_sends_a_text_as_one_frame(self):
        self.program.tell("text hello")
        self.assertEqual(self.connection.read(9), b"\x00\x00\x00\x05hello")
        self.assertEqual(self.program.line(), "sent 1")
        self.expect_end()
        self.assertTrue(self.connection.at_end(), "nothing follows the frame")

    def test_sends_frames_around_the_size_of_its_buffer(self):
        for length, expected in ((32764, b"\x00\x00\x7f\xfc"), (32765, b"\x00\x00\x7f\xfd")):
            with self.subTest(length=length):
                self.program.tell("letters %d" % length)
                self.assertEqual(self.connection.read(4), expected)
                self.assertEqual(self.connection.read(length), letters(length))
                self.assertEqual(self.program.line(), "sent 1")
        self.expect_end()

    def test_sends_nothing_for_an_empty_text(self):
        self.program.tell("text ")
        self.assertEqual(self.program.line(), "sent 1")
        self.program.tell("text next")
        self.assertEqual(self.connection.read_frame(), b"next")

    def test_receives_a_frame(self):
        self.connection.write(frame(b"hello"))
        self.expect(5, b"hello")
        self.expect_end()

    def test_receives_a_frame_in_two_writes_wherever_it_is_cut(self):
        whole = frame(b"in two")
        for cut in range(1, len(whole)):
            with self.subTest(cut=cut):
                self.connection.write(whole[:cut], whole[cut:])
                self.expect(6, b"in two")

    def test_receives_a_frame_one_byte_at_a_time(self):
        self.connection.write_one_by_one(frame(b"slowly"))
        self.expect(6, b"slowly")

    def test_receives_two_frames_in_one_write(self):
        self.connection.write(frame(b"one") + frame(b"another"))
        self.expect(3, b"one")
        self.expect(7, b"another")

    def test_receives_long_frames(self):
        for length in (32764, 32765, 1 << 20):
            with self.subTest(length=length):
                self.connection.write(frame(letters(length)))
                self.expect(length, letters(length))

    def test_receives_a_frame_of_no_bytes_as_nothing(self):
        self.connection.write(frame(b"") + frame(b"next"))
        self.expect(0, b"")
        self.expect(4, b"next")

    def test_receives_a_payload_up_to_its_NUL_and_counts_it_whole(self):
        self.connection.write(frame(b"ab\x00cd") + frame(b"\x00") + frame(b"next"))
        self.expect(5, b"ab")
        self.expect(1, b"")
        self.expect(4, b"next")

    def test_receives_every_byte_but_NUL(self):
        payload = bytes(range(1, 256)) + b"100%s %d%%"
        self.connection.write(frame(payload))
        self.expect(len(payload), payload)

    def test_takes_lengths_of_2_to_the_31_for_results(self):
        self.connection.write(prefix(0xFFFFFFFF))
        self.expect(-1, b"")

    def test_reports_closure_inside_a_frame(self):
        self.connection.write(frame(b"before") + prefix(7) + b"pay")
        self.connection.shutdown()
        self.expect(6, b"before")
        self.expect(-2, b"")
        self.expect_end()

    def test_reports_closure_inside_a_prefix(self):
        self.connection.write(b"\x00\x00")
        self.connection.shutdown()
        self.expect(-2, b"")
        self.expect_end()

    def test_goes_on_sending_after_the_server_has_stopped(self):
        self.connection.write(frame(b"last words"))
        self.connection.shutdown()
        self.expect(10, b"last words")
        self.program.tell("text understood")
        self.assertEqual(self.connection.read_frame(), b"understood")
        self.assertEqual(self.program.line(), "sent 1")
        self.expect_end()

    def test_ends_in_order_after_the_server_has_gone(self):
        self.connection.close()
        self.expect_end()


def main():
    global BUILD
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("--build", required=True)
    arguments, rest = parser.parse_known_args()
    BUILD = os.path.abspath(arguments.build)
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
