#!/usr/bin/env python3
"""Runs the example programs, with each other and with peers that misbehave.

usage: demo.py --build DIR [unittest arguments]

Each case checks the status, the last line of output and that a failure is one line on standard error. Nothing
waits for a fixed time; limits grow with WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import contextlib
import fcntl
import os
import shlex
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

LIMIT = 30 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
MIB = 1 << 20
LONGEST_LINE = 16 * MIB

BUILD = None
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))


def program(name):
    return [*EMULATOR, os.path.join(BUILD, "examples", name)]


def sanitized():
    with open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8") as cache:
        return "-fsanitize" in cache.read()


def wait_until(condition, what):
    deadline = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("not within the limit: " + what)
        time.sleep(0.005)


def escape(text):
    for character, entity in ((b"&", b"&amp;"), (b"<", b"&lt;"), (b">", b"&gt;"), (b"'", b"&apos;"),
                              (b'"', b"&quot;")):
        text = text.replace(character, entity)
    return text


def document(number, line):
    return b'<line number="%d" length="%d">%s</line>' % (number, len(line), escape(line))


def frame(payload):
    return struct.pack(">I", len(payload)) + payload


def receive(connection, count):
    data = bytearray()
    while len(data) < count:
        part = connection.recv(min(count - len(data), MIB))
        if not part:
            raise EOFError
        data += part
    return bytes(data)


def receive_frame(connection):
    return receive(connection, struct.unpack(">I", receive(connection, 4))[0])


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class FakeServer:
    """Serves one connection in a thread of its own, by the function that it is given."""

    def __init__(self, serve):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.settimeout(LIMIT)
        self.port = self.listener.getsockname()[1]
        self.serve = serve
        self.error = None
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        try:
            with self.listener, self.listener.accept()[0] as connection:
                connection.settimeout(LIMIT)
                self.serve(connection)
        except BaseException as error:  # reported by join()
            self.error = error

    def join(self):
        self.thread.join()
        if self.error:
            raise self.error


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.table = os.path.join(self.folder, "services")
        self.processes = []
        self.addCleanup(self.stop_processes)

    def stop_processes(self):
        for process in self.processes:
            if process.poll() is None:
                process.kill()
            process.communicate()

    def path(self, name):
        return os.path.join(self.folder, name)

    def file(self, content):
        path = self.path("file")
        with open(path, "wb") as file:
            file.write(content)
        return path

    def write_table(self, port):
        with open(self.table, "w", encoding="ascii") as table:
            table.write("# name address port\nother 127.0.0.1 1\ndemo 127.0.0.1 %d\n" % port)

    def start(self, name, *arguments, **options):
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        process = subprocess.Popen([*program(name), *arguments], **options)
        self.processes.append(process)
        return process

    def start_named(self, name, *arguments, service="demo", **options):
        return self.start(name, "--services", self.table, "--service", service, *arguments, **options)

    def start_server(self, *arguments, **options):
        """Another program may take the free port first: then with another one."""
        for _ in range(20):
            with socket.create_server(("127.0.0.1", 0)) as probe:
                self.port = probe.getsockname()[1]
            self.write_table(self.port)
            server = self.start_named("frame_server", *arguments, **options)
            line = server.stdout.readline()
            if line:
                self.assertEqual(line, b"listening on 127.0.0.1:%d\n" % self.port)
                return server
            self.assertEqual(server.wait(LIMIT), 3, server.stderr.read())
        raise AssertionError("no port")

    def start_fake_server(self, serve):
        server = FakeServer(serve)
        self.addCleanup(server.thread.join)
        self.write_table(server.port)
        return server

    @contextlib.contextmanager
    def start_piped_client(self):
        path = self.path("pipe")
        os.mkfifo(path)
        client = self.start_named("frame_client", path)
        with open(path, "wb") as pipe:
            yield client, pipe
        os.unlink(path)

    def connect(self):
        connection = socket.create_connection(("127.0.0.1", self.port), LIMIT)
        self.addCleanup(connection.close)
        return connection

    def finish(self, process, status, output=b"", error=None):
        """The process ends with the status and prints the output; error is part of the only line about it."""
        stdout, stderr = process.communicate(timeout=LIMIT)
        self.assertEqual((process.returncode, stdout), (status, output), stderr)
        if error is None:
            self.assertEqual(stderr, b"")
        else:
            name = os.path.basename(process.args[len(EMULATOR)]).encode()
            self.assertRegex(stderr, rb"\A" + name + rb": [^\n]+\n\Z")
            self.assertIn(error, stderr)

    def finish_client(self, process, status, sent=0, replies=None, mismatches=0, error=None):
        replies = sent if replies is None else replies
        self.finish(process, status, b"%d lines sent, %d replies received, %d mismatches\n" %
                    (sent, replies, mismatches), error)

    def finish_server(self, server, sign=signal.SIGTERM):
        server.send_signal(sign)
        self.finish(server, 0)

    def run_client(self, path, status=0, **expected):
        self.finish_client(self.start_named("frame_client", path), status, **expected)


class Lines(Case):
    """What a client sends comes back from a server as it was."""

    def check(self, content, lines):
        server = self.start_server()
        self.run_client(self.file(content), sent=lines)
        self.finish_server(server)

    def test_a_text(self):
        self.check(b"one\ntwo\nthree\n", 3)

    def test_an_empty_file_has_no_lines(self):
        self.check(b"", 0)

    def test_blank_lines_are_not_sent(self):
        self.check(b"\n\n\n", 0)
        self.check(b"\n\none\n\ntwo\n\n", 2)

    def test_a_carriage_return_belongs_to_the_line(self):
        self.check(b"one\r\n\r\ntwo\r\n", 3)

    def test_the_last_line_needs_no_newline(self):
        self.check(b"one\ntwo", 2)

    def test_all_bytes(self):
        self.check(b"".join(bytes([value]) + b"\n" for value in range(1, 256)), 254)
        self.check(bytes(value for value in range(1, 256) if value != 10) * 3, 1)

    def test_characters_that_are_special_in_XML(self):
        self.check(b"<a href=\"b\">c & d's</a>\n&amp;\n&&&&\n<!-- -->\n%s %n %d\n", 5)

    def test_2000_lines(self):
        self.check(b"".join(b"line %d of the file\n" % number for number in range(2000)), 2000)

    def test_lines_around_the_size_of_the_send_buffer(self):
        self.check(b"".join(b"x" * length + b"\n" for length in (32763, 32764, 32765, 65535, 65536, 65537)), 6)

    def test_a_line_of_1_MiB(self):
        self.check(b"x" * MIB + b"\n", 1)

    def test_lines_of_1_MiB_whose_replies_are_much_longer(self):
        self.check((b"&" * MIB + b"\n" + b"short\n" * 100) * 3, 303)

    def test_many_lines_that_fill_the_buffers_of_the_connection(self):
        self.check((b"'" * 30000 + b"\n" + b"'" * 70000 + b"\n") * 100, 200)

    def test_the_longest_line(self):
        self.check(b"x" * LONGEST_LINE + b"\n", 1)

    def test_100000_lines_in_little_memory(self):
        server = self.start_server()
        with self.start_piped_client() as (client, pipe):
            pipe.write(b"a line of text\n" * 100000)
            pipe.flush()  # what the pipe still holds is little
            for process in (client, server):
                with open("/proc/%d/status" % process.pid, encoding="ascii") as status:
                    peak = int(next(line for line in status if line.startswith("VmHWM:")).split()[1])
                if not sanitized():
                    self.assertLess(peak, (32 if EMULATOR else 8) * 1024, "KiB, the emulator's own included")
        self.finish_client(client, 0, sent=100000)
        self.finish_server(server)

    def test_a_pipe_in_place_of_a_file(self):
        server = self.start_server()
        with self.start_piped_client() as (client, pipe):
            pipe.write(b"one\ntwo")
            pipe.flush()
            pipe.write(b" and three\n")
        self.finish_client(client, 0, sent=2)
        self.finish_server(server)

    def test_clients_at_the_same_time(self):
        server = self.start_server()
        path = self.file(b"a line of text\n" * 2000)
        for client in [self.start_named("frame_client", path) for _ in range(4)]:
            self.finish_client(client, 0, sent=2000)
        self.finish_server(server)

    def test_the_log_goes_to_standard_error(self):
        server = self.start_server("--log")
        client = self.start_named("frame_client", "--log", self.file(b"some text\n"))
        stdout, stderr = client.communicate(timeout=LIMIT)
        self.assertEqual((client.returncode, stdout),
                         (0, b"1 lines sent, 1 replies received, 0 mismatches\n"))
        self.assertRegex(stderr, rb"CSocket::Send\(\) on \d+: some text\n")
        server.terminate()
        _, stderr = server.communicate(timeout=LIMIT)
        self.assertEqual(server.returncode, 0)
        self.assertRegex(stderr, rb"CSocket::Receive\(\) on \d+: some text\n")


class SmallBuffers(Case):
    """Where a connection holds hardly anything, client and server do not wait for each other for ever.

    Needs a network of its own, so the class is run once more by another process that has one.
    """

    INSIDE = "WINDOWS_DEMO_SMALL_BUFFERS"
    UNSHARE = ("unshare", "--map-root-user", "--net")

    def test_run(self):
        if self.INSIDE in os.environ:
            self.set_up_network()
            quote = b"'" * 30000 + b"\n"
            for content in (b"".join(b"'" * length + b"\n" for length in range(1, 2000)), quote * 100,
                            b"x\n" * 10000, b"&" * MIB + b"\n" + b"x\n" * 100 + quote):
                server = self.start_server()
                self.run_client(self.file(content), sent=content.count(b"\n"))
                self.finish_server(server)
            return
        try:
            subprocess.run([*self.UNSHARE, "true"], check=True, capture_output=True)
        except (OSError, subprocess.CalledProcessError) as error:
            self.skipTest("no network namespace: %s" % error)
        inside = subprocess.run([*self.UNSHARE, sys.executable, __file__, "--build", BUILD, "SmallBuffers"],
                                env={**os.environ, self.INSIDE: "1"}, timeout=10 * LIMIT, capture_output=True)
        self.assertEqual(inside.returncode, 0, inside.stderr.decode())

    def set_up_network(self):
        get_flags, set_flags, up = 0x8913, 0x8914, 1
        with socket.socket() as any_socket:
            request = bytearray(fcntl.ioctl(any_socket, get_flags, struct.pack("16sH14x", b"lo", 0)))
            request[16] |= up
            fcntl.ioctl(any_socket, set_flags, bytes(request))
        for name in ("tcp_wmem", "tcp_rmem"):
            with open("/proc/sys/net/ipv4/" + name, "w", encoding="ascii") as setting:
                setting.write("4096 4096 4096")


class Server(Case):
    """The server and clients that are not frame_client."""

    def test_documents_are_numbered_for_each_connection(self):
        server = self.start_server()
        for _ in range(2):
            connection = self.connect()
            for number, line in enumerate((b"one", b"<two> & 'three'", b"\x80\xff", b'"'), 1):
                connection.sendall(frame(line))
                self.assertEqual(receive_frame(connection), document(number, line))
        self.finish_server(server)

    def test_frames_in_one_segment_and_a_frame_in_pieces(self):
        server = self.start_server()
        connection = self.connect()
        connection.sendall(frame(b"one") + frame(b"two") + frame(b"three")[:2])
        self.assertEqual(receive_frame(connection), document(1, b"one"))
        self.assertEqual(receive_frame(connection), document(2, b"two"))
        connection.sendall(frame(b"three")[2:6])
        connection.sendall(frame(b"three")[6:])
        self.assertEqual(receive_frame(connection), document(3, b"three"))
        self.finish_server(server)

    def test_an_empty_frame_is_ignored(self):
        server = self.start_server()
        connection = self.connect()
        connection.sendall(frame(b"") + frame(b"one"))
        self.assertEqual(receive_frame(connection), document(1, b"one"))
        self.finish_server(server)

    def test_a_client_that_leaves_disturbs_nobody(self):
        server = self.start_server()
        stays = self.connect()
        for leave in (socket.socket.close, reset):
            for data in (b"", b"\0", frame(b"one")[:5], frame(b"one")):
                connection = self.connect()
                connection.sendall(data)
                leave(connection)
        stays.sendall(frame(b"still here"))
        self.assertEqual(receive_frame(stays), document(1, b"still here"))
        self.finish_server(server)

    def test_a_client_with_a_length_that_is_no_length_is_dropped(self):
        server = self.start_server()
        for prefix in (b"\xff\xff\xff\xff", b"\xff\xff\xff\xfe", b"\x80\0\0\0"):
            connection = self.connect()
            connection.sendall(prefix)
            self.assertEqual(connection.recv(1), b"")
        connection = self.connect()
        connection.sendall(frame(b"x" * (LONGEST_LINE + 1)))
        self.assertEqual(connection.recv(1), b"")
        self.finish_server(server)

    def test_SIGTERM_and_SIGINT_end_it(self):
        for sign in (signal.SIGTERM, signal.SIGINT):
            self.finish_server(self.start_server(), sign)

    def test_a_signal_ends_it_while_clients_are_connected(self):
        server = self.start_server()
        connections = [self.connect() for _ in range(3)]
        for connection in connections:
            connection.sendall(frame(b"one"))
            receive_frame(connection)
        self.finish_server(server)
        for connection in connections:
            self.assertEqual(connection.recv(1), b"")

    def test_a_signal_ends_it_while_it_waits_for_the_rest_of_a_frame(self):
        for start in (b"\0\0", frame(b"x" * 1000)[:500], b"\x7f\xff\xff\xffabc"):
            server = self.start_server()
            connection = self.connect()
            connection.sendall(frame(b"one") + start)
            receive_frame(connection)
            self.finish_server(server)

    def test_a_signal_ends_it_while_a_client_does_not_read(self):
        server = self.start_server()
        connection = self.connect()
        connection.sendall(frame(b"&" * LONGEST_LINE))
        receive(connection, 1)
        self.finish_server(server)

    def test_a_SIGINT_that_its_parent_ignores_is_ignored(self):
        server = self.start_server(preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
        server.send_signal(signal.SIGINT)
        connection = self.connect()
        connection.sendall(frame(b"one"))
        self.assertEqual(receive_frame(connection), document(1, b"one"))
        self.finish_server(server)

    def test_a_port_in_use(self):
        server = self.start_server()
        second = self.start_named("frame_server")
        self.finish(second, 3, error=b"cannot listen on port %d; is it in use?" % self.port)
        self.run_client(self.file(b"one\n"), sent=1)
        self.finish_server(server)

    def test_a_port_is_free_again_at_once(self):
        server = self.start_server()
        connection = self.connect()
        connection.sendall(frame(b"one"))
        receive_frame(connection)
        self.finish_server(server)  # closes first, so that its end of the connection lingers
        second = self.start_named("frame_server")
        self.assertEqual(second.stdout.readline(), b"listening on 127.0.0.1:%d\n" % self.port)
        self.finish_server(second)


class FaultyServer(Case):
    """The client and servers that are not frame_server."""

    FILE = b"".join(b"line %d\n" % number for number in range(1, 11))

    def check(self, serve, status=1, content=FILE, **expected):
        server = self.start_fake_server(serve)
        self.run_client(self.file(content), status, **expected)
        server.join()

    def check_last_reply(self, reply):
        def serve(connection):
            lines = [receive_frame(connection) for _ in range(2)]
            connection.sendall(frame(document(1, lines[0])) + frame(reply))
            self.assertEqual(connection.recv(1), b"")

        self.check(serve, content=b"one\ntwo\n", sent=2, mismatches=1)

    def test_frames_on_the_wire(self):
        def serve(connection):
            expected = b"".join(frame(line) for line in self.FILE.split())
            self.assertEqual(receive(connection, len(expected)), expected)
            for number, line in enumerate(self.FILE.split(), 1):
                connection.sendall(frame(document(number, line)))
            self.assertEqual(connection.recv(1), b"")

        self.check(serve, status=0, content=self.FILE.replace(b" ", b"\n"), sent=20)

    def test_a_reply_in_pieces(self):
        def serve(connection):
            for byte in frame(document(1, receive_frame(connection))):
                connection.sendall(bytes([byte]))
            self.assertEqual(connection.recv(1), b"")

        self.check(serve, status=0, content=b"one\n", sent=1)

    def test_a_wrong_number(self):
        self.check_last_reply(document(3, b"two"))

    def test_a_wrong_length(self):
        self.check_last_reply(b'<line number="2" length="4">two</line>')

    def test_a_wrong_text(self):
        self.check_last_reply(document(2, b"twO"))

    def test_an_unknown_entity(self):
        self.check_last_reply(b'<line number="2" length="3">t&w;o</line>')

    def test_a_reply_that_is_cut(self):
        self.check_last_reply(document(2, b"two")[:-1])
        self.check_last_reply(b"<")

    def test_a_reply_with_a_NUL_byte(self):
        self.check_last_reply(document(2, b"two") + b"\0")

    def test_a_reply_without_the_escaping(self):
        def serve(connection):
            for number in (1, 2):
                line = receive_frame(connection)
                connection.sendall(frame(b'<line number="%d" length="%d">%s</line>' % (number, len(line), line)))
            self.assertEqual(connection.recv(1), b"")

        self.check(serve, content=b"a & b\na < b\n", sent=2, mismatches=2)

    def test_a_reply_too_many(self):
        def serve(connection):
            reply = frame(document(1, receive_frame(connection)))
            connection.sendall(reply + reply)
            receive_frame(connection)
            connection.sendall(frame(document(2, b"two")))
            with contextlib.suppress(ConnectionResetError):  # the client may have counted to two
                self.assertEqual(connection.recv(1), b"")

        server = self.start_fake_server(serve)
        with self.start_piped_client() as (client, pipe):
            pipe.write(b"one\n")
            pipe.flush()
            pipe.write(b"two\n")
        stdout, _ = client.communicate(timeout=LIMIT)
        self.assertEqual(client.returncode, 1)
        self.assertNotIn(b" 0 mismatches", stdout)
        server.join()

    def check_lost(self, serve, replies):
        """How many lines the client has sent by then is not fixed."""
        server = self.start_fake_server(serve)
        client = self.start_named("frame_client", self.file(b"some text\n" * 1000))
        stdout, stderr = client.communicate(timeout=LIMIT)
        server.join()
        self.assertEqual((client.returncode, stderr),
                         (1, b"frame_client: the server closed the connection\n"), stdout)
        self.assertRegex(stdout, rb"\A\d+ lines sent, %d replies received, 0 mismatches\n\Z" % replies)

    def answer(self, connection, count):
        for number in range(1, count + 1):
            connection.sendall(frame(document(number, receive_frame(connection))))

    def test_a_server_that_closes_at_once(self):
        self.check_lost(lambda connection: None, 0)

    def test_a_server_that_resets_at_once(self):
        self.check_lost(reset, 0)

    def test_a_server_that_closes_after_some_replies(self):
        def serve(connection):
            self.answer(connection, 10)
            connection.shutdown(socket.SHUT_WR)
            with contextlib.suppress(ConnectionResetError):
                while connection.recv(4096):
                    pass

        self.check_lost(serve, 10)

    def test_a_server_that_closes_within_a_reply(self):
        def serve(connection):
            self.answer(connection, 10)
            connection.sendall(frame(document(11, receive_frame(connection)))[:-1])
            connection.shutdown(socket.SHUT_WR)
            with contextlib.suppress(ConnectionResetError):
                while connection.recv(4096):
                    pass

        self.check_lost(serve, 10)

    def test_a_server_that_resets_the_connection_while_the_client_waits(self):
        """The client is idle, and its thread ends by itself."""
        was_reset = threading.Event()

        def serve(connection):
            self.answer(connection, 1)
            reset(connection)
            was_reset.set()

        server = self.start_fake_server(serve)
        with self.start_piped_client() as (client, pipe):
            pipe.write(b"one\n")
            pipe.flush()
            self.assertTrue(was_reset.wait(LIMIT))
            server.join()
            with contextlib.suppress(BrokenPipeError):
                pipe.write(b"some text\n" * 100000)
        stdout, stderr = client.communicate(timeout=LIMIT)
        self.assertEqual((client.returncode, stderr),
                         (1, b"frame_client: the server closed the connection\n"), stdout)

    def test_a_server_that_closes_after_the_last_reply(self):
        def serve(connection):
            lines = [receive_frame(connection) for _ in range(10)]
            connection.sendall(b"".join(frame(document(number, line)) for number, line in enumerate(lines, 1)))

        self.check(serve, status=0, sent=10)

    def test_a_length_that_is_no_length(self):
        for prefix in (b"\xff\xff\xff\xff", b"\xff\xff\xff\xfe", b"\x80\0\0\0"):
            def serve(connection, prefix=prefix):
                self.answer(connection, 10)
                connection.sendall(prefix)
                with contextlib.suppress(ConnectionResetError):
                    while connection.recv(4096):
                        pass

            self.check_lost(serve, 10)

    def test_an_empty_reply(self):
        def serve(connection):
            lines = [receive_frame(connection) for _ in range(10)]
            connection.sendall(frame(document(1, lines[0])) + frame(b""))
            with contextlib.suppress(ConnectionResetError):
                while connection.recv(4096):
                    pass

        self.check(serve, sent=10, replies=1, error=b"the server does not answer")

    def test_frame_server_killed(self):
        server = self.start_server()
        with self.start_piped_client() as (client, pipe):
            pipe.write(b"some more than what a pipe holds\n" * 10000)  # so the client is connected
            pipe.flush()
            server.kill()
            server.wait(LIMIT)
            with contextlib.suppress(BrokenPipeError):
                pipe.write(b"some text\n" * 100000)
        stdout, stderr = client.communicate(timeout=LIMIT)
        self.assertEqual((client.returncode, stderr),
                         (1, b"frame_client: the server closed the connection\n"), stdout)


class ClientSignals(Case):
    """Whatever the client is doing, a signal ends it."""

    SIGNALS = (signal.SIGTERM, signal.SIGINT)

    def check(self, serve, content, sent, reads_on=True):
        for sign in self.SIGNALS:
            reached = threading.Event()
            ended = threading.Event()

            def serve_and_wait(connection, reached=reached, ended=ended):
                serve(connection)
                reached.set()
                if reads_on:
                    self.assertEqual(connection.recv(1), b"")
                else:
                    ended.wait(LIMIT)

            server = self.start_fake_server(serve_and_wait)
            client = self.start_named("frame_client", self.file(content))
            self.assertTrue(reached.wait(LIMIT))
            client.send_signal(sign)
            stdout, stderr = client.communicate(timeout=LIMIT)
            ended.set()
            server.join()
            self.assertEqual(client.returncode, 128 + sign, stderr)
            self.assertRegex(stdout, rb"\A%b lines sent, 0 replies received, 0 mismatches\n\Z" % sent)
            self.assertRegex(stderr, rb"\Aframe_client: stopped by signal: [^\n]+\n\Z")

    def test_while_it_waits_for_a_reply(self):
        self.check(receive_frame, b"one\n", b"1")

    def test_while_it_waits_for_the_rest_of_a_reply(self):
        def serve(connection):
            connection.sendall(frame(document(1, receive_frame(connection)))[:-1])

        self.check(serve, b"one\n", b"1")

    def test_while_main_thread_and_client_wait_for_room(self):
        def serve(connection):
            receive_frame(connection)
            receive_frame(connection)

        self.check(serve, (b"x" * 31 * 1024 + b"\n") * 10, b"2")  # two lines fill the window exactly

    def test_while_it_sends(self):
        """A frame that was sent in part counts as sent."""
        self.check(lambda connection: receive(connection, 1), b"x" * LONGEST_LINE, b"[01]", reads_on=False)

    def test_while_it_waits_for_a_pipe(self):
        for sign in self.SIGNALS:
            answered = threading.Event()

            def serve(connection, answered=answered):
                connection.sendall(frame(document(1, receive_frame(connection))))
                answered.set()
                self.assertEqual(connection.recv(1), b"")

            server = self.start_fake_server(serve)
            with self.start_piped_client() as (client, pipe):
                pipe.write(b"one\ntw")
                pipe.flush()
                self.assertTrue(answered.wait(LIMIT))
                client.send_signal(sign)
                self.finish_client(client, 128 + sign, sent=1, error=b"stopped by signal: ")
            server.join()

    def test_while_it_connects(self):
        listener = socket.create_server(("127.0.0.1", 0), backlog=0)
        self.addCleanup(listener.close)
        self.port = listener.getsockname()[1]
        self.write_table(self.port)
        self.connect()  # the only place in the queue of the listener: the next one gets no answer
        for sign in self.SIGNALS:
            client = self.start_named("frame_client", self.file(b"one\n"))
            wait_until(self.is_connecting, "the client connects")
            client.send_signal(sign)
            self.finish(client, 128 + sign, error=b"stopped by signal: ")
            wait_until(lambda: not self.is_connecting(), "the client is gone")

    def is_connecting(self):
        syn_sent = "02"
        with open("/proc/net/tcp", encoding="ascii") as table:
            next(table)
            for fields in map(str.split, table):
                if fields[2] == "0100007F:%04X" % self.port and fields[3] == syn_sent:
                    return True
        return False


class Mistakes(Case):
    """What the user of the programs got wrong. Nothing stays behind, and the server serves on."""

    def test_a_line_with_a_NUL_byte(self):
        server = self.start_server()
        for content, line, sent in ((b"one\n\nt\0wo\nthree\n", 3, 1), (b"\0", 1, 0), (b"x" * MIB + b"\0", 1, 0),
                                    (b"one\n" * 1000 + b"\0\n", 1001, 1000)):
            path = self.file(content)
            self.run_client(path, 1, sent=sent, error=b"%b:%d: the line has a NUL byte" % (path.encode(), line))
        self.finish_server(server)

    def test_a_line_that_is_too_long(self):
        server = self.start_server()
        path = self.file(b"one\n" + b"x" * (LONGEST_LINE + 1) + b"\n")
        self.run_client(path, 1, sent=1, error=path.encode() + b":2: the line is too long")
        self.finish_server(server)

    def test_a_file_that_cannot_be_read(self):
        server = self.start_server()
        for path, reason in ((self.path("missing"), b"No such file or directory"),
                             (self.folder, b"Is a directory")):
            self.finish(self.start_named("frame_client", path), 1,
                        error=b"cannot read %b: %b" % (path.encode(), reason))
        if os.geteuid() != 0:
            path = self.file(b"")
            os.chmod(path, 0)
            self.finish(self.start_named("frame_client", path), 1, error=b"Permission denied")
        self.finish_server(server)

    def test_an_unknown_service(self):
        self.write_table(1)
        error = b"no service unknown in " + self.table.encode()
        self.finish(self.start_named("frame_server", service="unknown"), 1, error=error)
        self.finish(self.start_named("frame_client", self.file(b"one\n"), service="unknown"), 1, error=error)

    def test_a_table_that_cannot_be_used(self):
        path = self.file(b"one\n")
        table = self.table.encode()
        self.finish(self.start_named("frame_server"), 1, error=table + b": No such file or directory")
        self.finish(self.start_named("frame_client", path), 1, error=table + b": No such file or directory")
        self.write_table(65536)
        self.finish(self.start_named("frame_server"), 1, error=table + b":3: ")
        self.finish(self.start_named("frame_client", path), 1, error=table + b":3: ")

    def test_a_server_that_cannot_be_reached(self):
        with socket.socket() as unused:
            unused.bind(("127.0.0.1", 0))  # nobody listens, and nobody else gets the port
            self.write_table(unused.getsockname()[1])
            # A failed connect does not free the copy of the name.
            suppressions = self.path("suppressions")
            with open(suppressions, "w", encoding="ascii") as file:
                file.write("leak:CClient::CClient\n")
            environment = {**os.environ, "LSAN_OPTIONS": "print_suppressions=0:suppressions=" + suppressions}
            self.finish(self.start_named("frame_client", self.file(b"one\n"), env=environment), 1,
                        error=b"cannot reach service demo: Connection failed")

    def test_a_wrong_command_line(self):
        self.write_table(1)
        path = self.file(b"one\n")
        for name, arguments in (("frame_server", []), ("frame_server", ["--services", self.table]),
                                ("frame_server", ["--services", self.table, "--service", "demo", path]),
                                ("frame_client", []), ("frame_client", ["--services", self.table, path]),
                                ("frame_client", ["--services", self.table, "--service", "demo"]),
                                ("frame_client", ["--services", self.table, "--service", "demo", path, path]),
                                ("frame_client", ["--nonsense"]), ("frame_client", ["--services"])):
            with self.subTest(name=name, arguments=arguments):
                self.finish(self.start(name, *arguments), 2, error=b"(see --help)")

    def test_help(self):
        for name in ("frame_server", "frame_client"):
            stdout, stderr = self.start(name, "--help").communicate(timeout=LIMIT)
            self.assertRegex(stdout, rb"\Ausage: %b --services TABLE --service NAME " % name.encode())
            self.assertEqual(stderr, b"")

    def test_output_that_cannot_be_written(self):
        server = self.start_server()
        with open("/dev/full", "wb") as full:
            self.finish_full(self.start_named("frame_client", self.file(b"one\n"), stdout=full))
        self.finish_server(server)

    def finish_full(self, client):
        _, stderr = client.communicate(timeout=LIMIT)
        self.assertEqual((client.returncode, stderr), (1, b"frame_client: cannot write to standard output\n"))


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0], add_help=False)
    parser.add_argument("--build", required=True, metavar="DIR")
    options, rest = parser.parse_known_args()
    BUILD = os.path.abspath(options.build)
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
