#!/usr/bin/env python3
"""What tools/wireshark shows of frames, in captures of known bytes and in one of the demo.

usage: wireshark.py --build DIR [unittest arguments]

The known captures are written here, packet by packet, with frames that are split and joined in every way. The demo is
captured where tcpdump may do so. Skipped (status 77) where tshark is missing. WINDOWS_TEST_EMULATOR is the command that
runs the built programs, if they need one. Limits grow with WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import os
import pathlib
import random
import re
import shlex
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

SKIPPED = 77
LIMIT = 60 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))
DISSECTOR = pathlib.Path(__file__).resolve().parents[2] / "tools" / "wireshark" / "windows_frames.lua"
PORT = 4711  # of the server in the captures that are written here

BUILD = None


def frame(payload):
    return struct.pack(">I", len(payload)) + payload


class Capture:
    """A capture file of TCP connections, one after the other: raw IP packets, one a millisecond."""

    LINKTYPE_RAW = 101
    SYN, PUSH, ACK = 2, 8, 16

    def __init__(self):
        self.packets = []
        self.client_port = 49999
        self.connect()

    def connect(self):
        """The handshake of a connection, the one that all segments from now on belong to."""
        self.client_port += 1
        self.sent = {True: 1000, False: 5000}  # next sequence number, by whether the client sends
        self.segment(b"", True, self.SYN)
        self.segment(b"", False, self.SYN | self.ACK)
        self.segment(b"", True, self.ACK)

    def segment(self, data, from_client=True, flags=PUSH | ACK, captured=None):
        ends = [(b"\x0a\0\0\1", self.client_port), (b"\x0a\0\0\2", PORT)]
        (source, source_port), (target, target_port) = ends if from_client else ends[::-1]
        acknowledged = self.sent[not from_client] if flags & self.ACK else 0
        tcp = struct.pack(">HHIIBBHHH", source_port, target_port, self.sent[from_client], acknowledged, 5 << 4, flags,
                          65535, 0, 0)
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0, source, target)
        packet = ip + tcp + data
        self.packets.append((packet, len(packet) if captured is None else 40 + captured))
        self.sent[from_client] += len(data) + (1 if flags & self.SYN else 0)

    def segments(self, *all_data, **options):
        for data in all_data:
            self.segment(data, **options)

    def write(self, path):
        with open(path, "wb") as file:
            file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, self.LINKTYPE_RAW))
            for number, (packet, captured) in enumerate(self.packets):
                file.write(struct.pack("<IIII", 0, number * 1000, captured, len(packet)) + packet[:captured])


def tshark(path, *arguments):
    # Checksums are left at 0 here, and are not looked at unless that is asked for.
    command = ["tshark", "-n", "-X", "lua_script:%s" % DISSECTOR, "-r", str(path), *arguments]
    result = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, check=False,
                            env={**os.environ, "LC_ALL": "C.UTF-8"})
    if result.returncode != 0 or "Lua" in result.stderr:
        raise AssertionError(result.stderr)
    return result.stdout


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.path = self.folder / "capture.pcap"
        self.capture = Capture()

    def fields(self, *names, options=(), port=PORT, shown="windows_frames"):
        """The values of the fields, a list for each packet that has frames; several of a kind are joined by |."""
        if port == PORT:
            self.capture.write(self.path)
        arguments = ["-o", "windows_frames.ports:%d" % port, "-Y", shown, "-T", "fields", "-E", "aggregator=|"]
        for name in names:
            arguments += ["-e", name]
        return [line.split("\t") for line in tshark(self.path, *arguments, *options).splitlines()]

    def frames(self, **options):
        """Packet, length, kind and payload of all frames, in hexadecimal as they are shown."""
        return self.fields("frame.number", "windows_frames.length", "windows_frames.kind", "windows_frames.payload",
                           **options)

    def texts(self, **options):
        return self.fields("frame.number", "windows_frames.length", "windows_frames.text", **options)


class Frames(Case):
    def test_a_frame_in_a_segment(self):
        self.capture.segment(frame(b"hello"))
        self.capture.segment(frame(b"good bye"), from_client=False)
        self.assertEqual(self.fields("frame.number", "windows_frames.length", "windows_frames.kind",
                                     "windows_frames.text", "windows_frames.payload"),
                         [["4", "5", "text", "hello", b"hello".hex()],
                          ["5", "8", "text", "good bye", b"good bye".hex()]])

    def test_several_frames_in_a_segment(self):
        self.capture.segment(frame(b"one") + frame(b"another") + frame(b"x"))
        self.assertEqual(self.texts(), [["4", "3|7|1", "one|another|x"]])

    def test_a_frame_in_three_segments(self):
        whole = frame(b"in three parts")
        self.capture.segments(whole[:6], whole[6:9], whole[9:])
        self.assertEqual(self.texts(), [["6", "14", "in three parts"]])

    def test_a_frame_in_two_segments_wherever_it_is_cut(self):
        whole = frame(b"in two")
        cuts = range(1, len(whole))
        for cut in cuts:
            self.capture.segments(whole[:cut], whole[cut:])
        self.assertEqual(self.texts(), [[str(3 + 2 * cut), "6", "in two"] for cut in cuts])

    def test_a_frame_one_byte_at_a_time(self):
        whole = frame(b"slowly")
        self.capture.segments(*(bytes([byte]) for byte in whole))
        self.assertEqual(self.texts(), [["13", "6", "slowly"]])

    def test_the_end_of_a_frame_with_the_beginning_of_the_next(self):
        self.capture.segments(frame(b"first") + frame(b"second")[:2],
                              frame(b"second")[2:] + frame(b"third") + frame(b"fourth")[:7], frame(b"fourth")[7:])
        self.assertEqual(self.texts(), [["4", "5", "first"], ["5", "6|5", "second|third"], ["6", "6", "fourth"]])

    def test_both_directions_are_put_together_for_themselves(self):
        request, reply = frame(b"request"), frame(b"reply")
        self.capture.segment(request[:5])
        self.capture.segment(reply[:5], from_client=False)
        self.capture.segment(request[5:])
        self.capture.segment(reply[5:], from_client=False)
        self.assertEqual(self.texts(), [["6", "7", "request"], ["7", "5", "reply"]])

    def test_a_long_frame(self):
        payload = b"0123456789" * 100000
        whole = frame(payload)
        self.capture.segments(*(whole[at:at + 1400] for at in range(0, len(whole), 1400)))
        self.assertEqual(self.frames(), [[str(3 + 715), "1000000", "text", payload.hex()]])

    def test_random_frames_cut_at_random_places(self):
        seed = random.randrange(1 << 32)
        choices = random.Random(seed)
        payloads = [bytes(choices.randrange(256) for _ in range(choices.randrange(1, 40))) for _ in range(300)]
        stream = b"".join(map(frame, payloads))
        cuts = sorted(choices.sample(range(1, len(stream)), 200))
        self.capture.segments(*(stream[begin:end] for begin, end in zip([0, *cuts], [*cuts, len(stream)])))
        shown = self.frames()
        self.assertEqual("|".join(lengths for _, lengths, _, _ in shown), "|".join(str(len(p)) for p in payloads), seed)
        self.assertEqual("|".join(hexadecimal for *_, hexadecimal in shown), "|".join(p.hex() for p in payloads), seed)

    def test_what_is_a_text(self):
        kinds = {b"a\tb\r\nc": "text", b"gr\xc3\xbc\xc3\x9fe": "text", b"\xe4\xf6": "text", b"<a b=\"c\">d</a>": "text",
                 b"a\0b": "binary", b"text\0": "binary", b"\x01": "binary", b"\x7f": "binary", b"\x1b[1m": "binary"}
        self.capture.segments(*map(frame, kinds))
        self.assertEqual(self.frames(), [[str(number), str(len(payload)), kind, payload.hex()]
                                         for number, (payload, kind) in enumerate(kinds.items(), 4)])

    def test_a_text_with_other_characters(self):
        self.capture.segment(frame("grüße".encode()))
        self.assertEqual(self.texts(), [["4", "7", "grüße"]])

    def test_the_columns(self):
        self.capture.segments(frame(b"one") + frame(b"\0\1") + frame(b"t")[:2], frame(b"t")[2:] + frame(b"z" * 100))
        self.assertEqual(self.fields("_ws.col.Protocol", "_ws.col.Info"),
                         [["FRAMES", "text (3) one | binary (2)"],
                          ["FRAMES", "text (1) t | text (100) " + "z" * 60 + "..."]])


class Oddities(Case):
    def expert(self, shown):
        return self.fields("frame.number", "_ws.expert.severity", "_ws.expert.message", shown=shown)

    NOTE, WARN, ERROR = str(0x400000), str(0x600000), str(0x800000)

    def test_an_empty_frame(self):
        self.capture.segment(frame(b"") + frame(b"next"))
        self.assertEqual(self.texts(), [["4", "0|4", "next"]])
        self.assertEqual(self.expert("windows_frames.length.zero"),
                         [["4", self.NOTE, "Empty frame: its receiver is told that nothing is there"]])

    def test_negative_lengths(self):
        for prefix in (b"\xff\xff\xff\xff", b"\xff\xff\xff\xfe", b"\x80\0\0\0"):
            self.capture.segment(frame(b"good") + prefix + b"rest")
            self.capture.connect()
        self.assertEqual(self.texts(), [["4", "4|4294967295", "good"], ["8", "4|4294967294", "good"],
                                        ["12", "4|2147483648", "good"]])
        self.assertEqual(self.expert("windows_frames.length.negative"),
                         [["4", self.ERROR, "Negative length: a receiver sees -1"],
                          ["8", self.ERROR, "Negative length: a receiver sees -2"],
                          ["12", self.ERROR, "Negative length: a receiver sees -2147483648"]])

    def test_an_absurd_length(self):
        self.capture.segment(b"HTTP/1.0 200 OK")
        self.assertEqual(self.texts(), [["4", str(0x48545450), ""]])
        self.assertEqual(self.expert("windows_frames.length.absurd"),
                         [["4", self.WARN, "Absurd length: more than 16777216 bytes (see the preferences)"]])

    def test_the_limit_is_the_last_length_that_is_believed(self):
        self.capture.segments(struct.pack(">I", 16777216), b"some")
        self.capture.connect()
        self.capture.segments(struct.pack(">I", 16777217), b"some")
        self.assertEqual(self.texts()[0], ["9", "16777217", ""])

    def test_the_limit_is_a_preference(self):
        self.capture.segment(frame(b"five5") + frame(b"six666"))
        self.assertEqual(self.texts(), [["4", "5|6", "five5|six666"]])
        self.assertEqual(self.texts(options=["-o", "windows_frames.limit:5"]), [["4", "5|6", "five5"]])
        # Also one at which negative lengths would be small enough.
        self.capture.segment(b"\xff\xff\xff\xff")
        self.assertEqual(self.texts(options=["-o", "windows_frames.limit:4294967295"])[1], ["5", "4294967295", ""])

    def test_behind_a_bad_length_its_side_is_out_of_step(self):
        self.capture.segments(b"\xff\xff\xff\xff", frame(b"looks like one"))
        self.capture.segment(frame(b"reply"), from_client=False)
        self.assertEqual(self.fields("frame.number", "windows_frames.length", "windows_frames.out_of_step"),
                         [["4", "4294967295", ""], ["5", "", "4"], ["6", "5", ""]])
        # In two passes packets are looked at twice.
        self.assertEqual(self.fields("frame.number", "windows_frames.out_of_step", options=["-2"])[1], ["5", "4"])

    def test_a_segment_that_was_not_captured_whole(self):
        self.capture.segment(frame(b"not all of it"), captured=10)
        self.assertEqual(self.texts(), [["4", "13", "not al"]])
        self.assertEqual(self.expert("windows_frames.cut"), [["4", self.NOTE, "Only 6 of 13 bytes are here"]])

    def test_without_reassembly_the_beginning_of_a_frame_is_shown(self):
        self.capture.segment(frame(b"whole") + frame(b"in part")[:6])
        self.assertEqual(self.texts(options=["-o", "tcp.desegment_tcp_streams:false"]), [["4", "5|7", "whole|in"]])


class Ports(Case):
    def lengths(self, *options):
        self.capture.segment(frame(b"hello"))
        self.capture.write(self.path)
        shown = tshark(self.path, *options, "-Y", "windows_frames", "-T", "fields", "-e", "windows_frames.length")
        return shown.split()

    def test_no_port_is_taken_without_being_asked_for(self):
        self.assertEqual(self.lengths(), [])

    def test_a_range_of_ports(self):
        self.assertEqual(self.lengths("-o", "windows_frames.ports:80,4700-4720"), ["5"])

    def test_decode_as(self):
        self.assertEqual(self.lengths("-d", "tcp.port==%d,windows_frames" % PORT), ["5"])


class Demo(Case):
    """The frames of the demo, as they pass the loopback interface."""

    LINES = [b"one", b"<two> & 'three'", b"x" * 40000]
    REPLIES = [b'<line number="1" length="3">one</line>',
               b'<line number="2" length="15">&lt;two&gt; &amp; &apos;three&apos;</line>',
               b'<line number="3" length="40000">' + b"x" * 40000 + b"</line>"]

    def start(self, *command, **options):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **options)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def start_capture(self, port):
        if not shutil.which("tcpdump"):
            self.skipTest("tcpdump is not installed")
        # Packets of the loopback interface have up to 64 KiB; the buffer, in KiB, has room for all of them.
        capture = self.start("tcpdump", "-i", "lo", "-s", "66000", "-B", "16384", "-U", "--immediate-mode",
                             "-w", str(self.path), "tcp port %d" % port, stderr=subprocess.PIPE, text=True)
        said = []
        for line in capture.stderr:
            said.append(line)
            if "listening on" in line:
                return capture
        self.skipTest("tcpdump may not capture here: " + "".join(said).strip())

    def start_demo_server(self):
        """Another program may take the free port first: then with another one."""
        for _ in range(20):
            with socket.create_server(("127.0.0.1", 0)) as probe:
                port = probe.getsockname()[1]
            self.services = self.folder / "services"
            self.services.write_text("demo 127.0.0.1 %d\n" % port, encoding="ascii")
            server = self.start(*self.demo("frame_server"), stdout=subprocess.PIPE)
            if server.stdout.readline():
                return port
        raise AssertionError("no port")

    def demo(self, name):
        return [*EMULATOR, str(BUILD / "examples" / name), "--services", str(self.services), "--service", "demo"]

    def wait_for_both_ends(self, port):
        deadline = time.monotonic() + LIMIT
        closes = ["-Y", "tcp.flags.fin == 1 || tcp.flags.reset == 1", "-T", "fields", "-e", "tcp.srcport"]
        while len(set(tshark(self.path, *closes).split())) < 2:
            if time.monotonic() > deadline:
                raise AssertionError("the end of the connection to port %d was not captured" % port)
            time.sleep(0.1)

    def test_the_frames_of_the_demo(self):
        port = self.start_demo_server()
        capture = self.start_capture(port)
        page = self.folder / "page"
        page.write_bytes(b"\n".join(self.LINES) + b"\n")
        client = subprocess.run([*self.demo("frame_client"), str(page)], capture_output=True, timeout=LIMIT,
                                check=False)
        self.assertEqual(client.stdout, b"3 lines sent, 3 replies received, 0 mismatches\n", client.stderr)
        self.wait_for_both_ends(port)
        capture.send_signal(signal.SIGINT)
        said = capture.communicate(timeout=LIMIT)[1]
        if re.search("^[1-9][0-9]* packets dropped", said, re.MULTILINE):
            self.skipTest("not everything was captured: " + said)
        for side, expected in (("dst", self.LINES), ("src", self.REPLIES)):
            with self.subTest(side=side):
                shown = self.fields("windows_frames.kind", "windows_frames.payload", port=port,
                                    shown="windows_frames && tcp.%sport == %d" % (side, port))
                self.assertEqual([payload for _, payloads in shown for payload in payloads.split("|")],
                                 [payload.hex() for payload in expected])
                self.assertEqual({kind for kinds, _ in shown for kind in kinds.split("|")}, {"text"})


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, metavar="DIR")
    options, rest = parser.parse_known_args()
    BUILD = pathlib.Path(options.build).resolve()
    if not shutil.which("tshark"):
        print("skipped: tshark is not installed")
        sys.exit(SKIPPED)
    unittest.main(argv=[sys.argv[0], "-v", *rest])


if __name__ == "__main__":
    main()
