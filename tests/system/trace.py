#!/usr/bin/env python3
"""Traces programs and checks that the timeline is one that a viewer can show, and shows what happened.

usage: trace.py --build DIR [unittest arguments]

WINDOWS_TEST_EMULATOR is the command that runs the built programs, if they need one. Limits grow with
WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import collections
import json
import os
import pathlib
import re
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

LIMIT = 30 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))
ROOT = pathlib.Path(__file__).resolve().parents[2]
VARIABLE = "REFERENCE_HOST_TRACE"

BUILD = None

Slice = collections.namedtuple("Slice", "process thread name category begin end arguments")
Arrow = collections.namedtuple("Arrow", "category start end")


class Timeline:
    """A trace as a viewer reads it. Raises an AssertionError where one could not."""

    def __init__(self, text):
        self.events = json.loads(text, parse_float=lambda number: int(number.replace(".", "")))  # nanoseconds
        self.processes = {}
        self.threads = {}
        self.instants = collections.defaultdict(list)
        self.slices = []
        self.arrows = []
        rows = collections.defaultdict(list)
        arrows = collections.defaultdict(list)
        for event in self.events:
            phase, row = event["ph"], (event["pid"], event["tid"])
            if phase == "M" and event["name"] == "process_name":
                self.processes[event["pid"]] = event["args"]["name"]
            elif phase == "M":
                assert event["name"] == "thread_name", event
                self.threads[row] = event["args"]["name"]
            elif phase in "sf":
                arrows[event["pid"], event["cat"], event["name"], event["id"]].append(event)
            else:
                assert phase in "BEi", event
                rows[row].append(event)
        for row, events in rows.items():
            assert row in self.threads and row[0] in self.processes, row
            self.read_row(row, sorted(events, key=lambda event: event["ts"]))
        for ends in arrows.values():
            self.read_arrow(ends)

    def read_row(self, row, events):
        """Slices nest, and all of them end; only ends have the same time as the event before."""
        opened = []
        last = None
        for event in events:
            assert not last or last["ts"] < event["ts"] or last["ph"] == event["ph"] == "E", (last, event)
            last = event
            if event["ph"] == "B":
                opened.append(event)
            elif event["ph"] == "E":
                begin = opened.pop()
                assert begin["ts"] < event["ts"], (begin, event)
                assert (begin["name"], begin["cat"]) == (event["name"], event["cat"]), (begin, event)
                self.slices.append(Slice(*row, begin["name"], begin["cat"], begin["ts"], event["ts"],
                                         event.get("args", {})))
            else:
                self.instants[event["name"]].append(event)
        assert not opened, opened

    def read_arrow(self, ends):
        start, end = ends
        assert (start["ph"], end["ph"], end["bp"]) == ("s", "f", "e"), ends
        assert start["ts"] <= end["ts"], ends
        self.arrows.append(Arrow(start["cat"], self.slice_at(start, "post"), self.slice_at(end, "message")))

    def slice_at(self, event, category):
        found, = (found for found in self.slices if found.begin == event["ts"] and found.category == category and
                  (found.process, found.thread) == (event["pid"], event["tid"]))
        return found

    def named(self, name):
        return [found for found in self.slices if found.name == name]


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.trace = self.folder / "trace.json"

    def start(self, program, *arguments, trace=None, **options):
        environment = {**os.environ, VARIABLE: str(trace or self.trace)}
        process = subprocess.Popen([*EMULATOR, str(BUILD / program), *arguments], env=environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   text=True, **options)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def finish(self, process, status=0):
        output, errors = process.communicate(timeout=LIMIT)
        self.assertEqual(process.returncode, status, errors)
        return output, errors

    def start_server(self):
        table = self.folder / "services"
        for _ in range(20):
            with socket.create_server(("127.0.0.1", 0)) as probe:
                table.write_text("demo 127.0.0.1 %d\n" % probe.getsockname()[1], encoding="ascii")
            server = self.start("examples/frame_server", "--services", str(table), "--service", "demo")
            if server.stdout.readline():
                return server, table
            self.assertEqual(server.wait(LIMIT), 3)
        raise AssertionError("no port")

    def serve_lines(self, count):
        """The timelines of a server and of a client that sends it so many lines."""
        server, table = self.start_server()
        lines = self.folder / "lines"
        lines.write_text("".join('line %d, "quoted" \\ \x7f\n' % number for number in range(count)), encoding="ascii")
        client_trace = self.folder / "client.json"
        client = self.start("examples/frame_client", "--services", str(table), "--service", "demo", str(lines),
                            trace=client_trace)
        self.finish(client)
        server.send_signal(signal.SIGTERM)
        self.finish(server)
        return Timeline(self.trace.read_text(encoding="ascii")), Timeline(client_trace.read_text(encoding="ascii"))


class Programs(Case):
    def test_a_server_and_a_client(self):
        server, client = self.serve_lines(100)
        for timeline, name in ((server, "frame_server"), (client, "frame_client")):
            self.assertEqual(list(timeline.processes.values()), [name])
            self.assertEqual(len(timeline.instants["frame sent"]), 100)
            self.assertEqual(len(timeline.instants["frame received"]), 100)
            received = timeline.named("receive frame")
            self.assertEqual(len(received), 100)
            self.assertTrue(all(frame.arguments["bytes"] > 0 for frame in received))
        texts = [event["args"]["text"] for event in server.instants["frame received"]]
        self.assertEqual(texts, ['line %d, "quoted" \\ \x7f' % number for number in range(100)])

    def test_threads_have_the_names_of_their_classes(self):
        server, client = self.serve_lines(1)
        kinds = sorted(name.split(" 0x")[0] for name in server.threads.values())
        self.assertEqual(kinds, ["CServer", "main thread"])
        kinds = sorted(name.split(" 0x")[0] for name in client.threads.values())
        self.assertEqual(kinds, ["CClient", "main thread", "thread", "thread"])

    def test_an_arrow_leads_from_the_post_to_the_message(self):
        server, client = self.serve_lines(1)
        arrow, = server.arrows  # the server's only message is the last one, which main posts
        self.assertEqual(arrow.category, "arrow")
        self.assertEqual(server.threads[arrow.start[:2]].split(" 0x")[0], "main thread")
        self.assertEqual(server.threads[arrow.end[:2]].split(" 0x")[0], "CServer")
        self.assertEqual(arrow.end.name, "message 1")
        self.assertEqual(client.arrows, [])  # a client's thread does not log which message it reads
        self.assertEqual(len(client.named("message")), 2)

    def test_waits_and_locks(self):
        _, client = self.serve_lines(1)
        connect, = client.named("connect")
        self.assertEqual(client.threads[connect[:2]].split(" 0x")[0], "main thread")
        self.assertTrue(client.named("wait"))
        self.assertTrue(client.named("lock"))
        self.assertEqual(len(client.named("thread")), len(client.threads))

    def test_the_messages_of_a_worker(self):
        self.finish(self.start("examples/worker"))
        timeline = Timeline(self.trace.read_text(encoding="ascii"))
        names = ["message 1024", "message 1024", "message 1025", "message 1024"]
        self.assertEqual([found.name for found in timeline.slices if found.category == "message"], names)
        arrows = sorted(timeline.arrows, key=lambda arrow: arrow.end.begin)
        self.assertEqual([arrow.end.name for arrow in arrows], names)
        posts = [arrow.start.begin for arrow in arrows]
        self.assertEqual(posts, sorted(set(posts)))
        self.assertEqual(len(timeline.named("post")), len(names) + 1)  # WM_QUIT, too

    def test_many_threads(self):
        self.finish(self.start("examples/handles"))
        timeline = Timeline(self.trace.read_text(encoding="ascii"))
        self.assertEqual(len(timeline.threads), 6)
        self.assertGreater(len(timeline.named("lock")), 3000)
        self.assertEqual(len(timeline.instants["not locked"]), 1)

    def test_a_killed_program_leaves_a_trace_without_its_last_bracket(self):
        server, _ = self.start_server()
        server.kill()
        server.wait(LIMIT)
        events = json.loads(self.trace.read_text(encoding="ascii") + "]")
        self.assertIn("process_name", [event["name"] for event in events if event["ph"] == "M"])

    def test_a_trace_that_cannot_be_written_does_not_disturb(self):
        _, errors = self.finish(self.start("examples/frame_server", "--help", trace=self.folder / "no" / "folder"))
        self.assertRegex(errors, r"\Acannot trace to .*/no/folder: No such file or directory\n\Z")
        self.finish(self.start("examples/frame_server", "--help", trace="/dev/full"))


class Demo(Case):
    def setUp(self):
        super().setUp()
        if BUILD not in (ROOT / "build/native", ROOT / "build/i386", ROOT / "build/powerpc"):
            self.skipTest("script/demo runs what is built in build/")

    def test_it_traces_both_programs_into_one_file(self):
        lines = self.folder / "lines"
        lines.write_text("one\ntwo\n", encoding="ascii")
        command = [str(ROOT / "script/demo"), "--on", BUILD.name, "--trace", "trace.json", str(lines)]
        subprocess.run(command, cwd=self.folder, check=True, timeout=20 * LIMIT, stdout=subprocess.DEVNULL)
        timeline = Timeline(self.trace.read_text(encoding="ascii"))
        self.assertEqual(sorted(timeline.processes.values()), ["frame_client", "frame_server"])
        self.assertEqual(len(timeline.instants["frame sent"]), 4)

    def test_it_needs_the_name_of_a_file(self):
        result = subprocess.run([str(ROOT / "script/demo"), "--trace"], check=False, capture_output=True, text=True)
        self.assertEqual(result.returncode, 2)
        self.assertTrue(re.search("needs a file", result.stderr), result.stderr)


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0], add_help=False)
    parser.add_argument("--build", required=True, metavar="DIR")
    options, rest = parser.parse_known_args()
    BUILD = pathlib.Path(options.build).resolve()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
