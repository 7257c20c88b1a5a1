#!/usr/bin/env python3
"""What gdb shows of the library's objects with tools/gdb: in a program, in a core file, and through an emulator.

usage: gdb.py --build DIR [unittest arguments]

tests/gdb_subject stops itself where variables of all kinds exist, and gdb loads the printers by itself, as the build
places them beside the library. The texts are compared as they are, but for addresses and the numbers of threads. Where
WINDOWS_TEST_EMULATOR runs the program, gdb is connected to the emulator's stub; then messages in pipes are unknown
and gdb's threads are not those of the library. Skipped (status 77) where gdb is missing or may not trace. Limits grow
with WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

SKIPPED = 77
LIMIT = 120 * float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))
GDB = "gdb-multiarch" if EMULATOR else "gdb"
PRINTERS = pathlib.Path(__file__).resolve().parents[2] / "tools" / "gdb" / "windows_printers.py"
SYSROOT = "/usr/powerpc-linux-gnu"  # where the emulator finds the target's libraries
# A sanitizer would look for leaks in a program that is traced, and fail.
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8", "ASAN_OPTIONS": "detect_leaks=0"}

BUILD = None
SUBJECT = None

Y200 = "y" * 200  # how much of a text gdb shows by itself

# Variables of the subject, and what is shown of them.
VARIABLES = {
    "none": "NULL (length 0, size 0)",
    "text": r'"hello, \"world\"\n\tand \303\244\\" (length 23, size 24)',
    "reference": r'"hello, \"world\"\n\tand \303\244\\" (length 23, size 24)',
    "empty": '"" (length 0, size 1)',
    "shared": '"shared" (length 6, size 7, shared by 3)',
    "sharing": '"shared" (length 6, size 7, shared by 3)',
    "nuls": r'"a\000b" (length 3, size 4)',
    "character": '"" (length 0, size 2, behind it "x")',
    "locked": '"locked" (length 6, size 7, locked)',
    "large": f'"{Y200}"... (length 1000, size 1001)',
    "constant": '"constant" (length 8, size 9)',
    "*shared.m_pStrData": '"shared" (length 6, size 7, shared by 3)',
    "bstr": '"a text" (length 6)',
    "nullBstr": "NULL",
    "notBstr": "0xADDRESS <not a BSTR>",
    "owner": '"owned" (length 5)',
    "emptyOwner": "NULL",
    "variants": '{VT_EMPTY, VT_NULL, VT_I2 -2, VT_I4 70000, VT_R4 1.5, VT_R8 -0.25, VT_BSTR "a text" (length 6), '
                "VT_BOOL VARIANT_TRUE, VT_UI1 200, <unknown type 99>}",
    "textVariant": 'VT_BSTR "text" (length 4)',
    "emptyList": "CObList of 0",
    "list": "CObList of 3 = {0x10, 0x20, 0x0}",
    "emptyPointers": "CPtrArray of 0, room for 0",
    "pointers": "CPtrArray of 2, room for 16 = {0x30, 0x0}",
    "emptyStrings": "CStringArray of 0, room for 0",
    "strings": 'CStringArray of 2, room for 5 = {"one" (length 3, size 4), "shared" (length 6, size 7, shared by 3)}',
    "emptyFile": "NULL (length 0, position 0, size 0, grows by 1024)",
    "file": r'"<a file of text>\n" (length 17, position 3, size 32, grows by 16)',
    "fixedFile": '"" (length 0, position 0, size 8, fixed)',
    "freeMutex": "free, normal",
    "heldMutex": "held by MAIN, normal",
    "recursiveMutex": "held by MAIN 2 times, recursive",
    "manual": "manual reset, signalled",
    "automatic": "auto reset, not signalled",
    "event": "event at 0xADDRESS: auto reset, signalled",
    "*event": "event at 0xADDRESS: auto reset, signalled",
    "mutex": "mutex at 0xADDRESS: held by MAIN, recursive",
    "nullHandle": "NULL",
    "withoutObjectHandle": "event without an object",
    "threadHandle": "thread at 0xADDRESS: manual reset, signalled",
}

# What is shown of threads; {0} stands for the messages of a pipe, which not everybody can count.
THREADS = {
    "*suspended": "id 0xADDRESS, suspended, in the pipe: {0}, parked: 0, runs (anonymous namespace)::EndAtOnce(void*)",
    "*running": "id 0xADDRESS, running, in the pipe: {3}, parked: 0, runs (anonymous namespace)::Stay(void*)",
    "*exited": "id 0xADDRESS, exited, in the pipe: {0}, parked: 0, locked out, "
               "runs (anonymous namespace)::EndAtOnce(void*)",
    "*(CWinThread*)worker": "id 0xADDRESS, running, in the pipe: {N}, parked: PARKED, "
                            "runs (anonymous namespace)::Worker::Main()",
}

UNREADABLE = "<Cannot access memory at address 0xADDRESS>"
AT_NULL = "<Cannot access memory at address 0x0>"

# Memory that never was such an object: full of 0xA5, and full of zeros.
GARBAGE = {
    "XString": UNREADABLE,
    "XStringData": "<not a string: length 2779096485 in a buffer of 2779096485>",
    "_bstr_t": "0xADDRESS <not a BSTR>",
    "VARIANT": "<unknown type 42405>",
    "_variant_t": "<unknown type 42405>",
    "CObList": "CObList of -1515870811",
    "CPtrArray": "CPtrArray of -1515870811, room for -1515870811",
    "CStringArray": "CStringArray of -1515870811, room for -1515870811, held by LWP -1515870811",
    "CMemFile": UNREADABLE,
    "CMutex": "<not a mutex: kind -1515870811>",
    "CEvent": "manual reset, signalled, locked by LWP -1515870811",
    "HANDLE": UNREADABLE,
    "HANDLESTRUCT": "<not a handle: tag 0xADDRESS>",
    "CWinThread": "id 0xADDRESS, exited, in the pipe: unknown, parked: " + UNREADABLE + ", runs 0xADDRESS",
}
ZEROS = {
    "XString": "<not a string: no header>",
    "XStringData": "NULL (length 0, size 0, reference count 0)",
    "_bstr_t": "NULL",
    "VARIANT": "VT_EMPTY",
    "CObList": "CObList of 0",
    "CPtrArray": "CPtrArray of 0, room for 0",
    "CStringArray": "CStringArray of 0, room for 0",
    "CMemFile": "NULL (length 0, position 0, size 0, fixed)",
    "CMutex": "free, normal",
    "CEvent": "auto reset, not signalled",
    "HANDLE": "NULL",
    "HANDLESTRUCT": "<not a handle: tag 0x0>",
    "CWinThread": "id 0x0, no thread, in the pipe: unknown, parked: 0, runs CWinThread::Main()",
}
DAMAGED = {
    "freed": '"freed" (length 5, size 6, reference count 0)',
    "damaged": "<not a string: length 1000000 in a buffer of 8>",
    "ring": "CObList of 1000000 = {" + ", ".join(["0x40"] * 200) + "...}",
    "cut": "CObList of 2 = {0x50, <the list ends here>}",
}


def run(command, **options):
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, timeout=LIMIT, check=False, env=ENVIRONMENT, **options)


def mask(text):
    text = re.sub(r"held by (thread \d+ \()?LWP \d+\)?", "held by MAIN", text)
    text = re.sub(r"(id 0x[0-9a-f]+) \(thread \d+\)", r"\1", text)
    return re.sub(r"0x[0-9a-f]{4,}", "0xADDRESS", text)


class Emulated:
    """The subject under the emulator, which waits for gdb at a socket."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()
        self.socket = os.path.join(self.folder.name, "gdb")

    def __enter__(self):
        self.process = subprocess.Popen([*EMULATOR, "-g", self.socket, str(SUBJECT)], env=ENVIRONMENT,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + LIMIT
        while not self.listens():
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise AssertionError("the emulator does not wait for gdb")
            time.sleep(0.05)
        # gdb learns which program it is only once it stands: it would set breakpoints of its own, and the emulator's
        # stub loses its way where threads start while gdb steps over one.
        return ["-ex", "set remote pid-to-exec-file-packet off", "-ex", "set sysroot " + SYSROOT,
                "-ex", "set solib-search-path %s" % BUILD, "-ex", "target remote " + self.socket,
                "-ex", "continue", "-ex", "file %s" % SUBJECT, "-ex", "sharedlibrary"]

    def listens(self):
        with open("/proc/net/unix", encoding="ascii", errors="replace") as sockets:
            return any(line.split()[3] == "00010000" and line.split()[-1] == self.socket for line in sockets)

    def __exit__(self, *_exception):
        self.process.kill()
        self.process.wait()
        self.folder.cleanup()


def gdb(*arguments):
    """What gdb says, with the printers of the build folder."""
    return run([GDB, "-nx", "-q", "-batch", "-iex", "set auto-load safe-path /usr:%s" % BUILD,
                "-iex", "set debuginfod enabled off", "-iex", "set width 0", "-iex", "set print thread-events off",
                *([] if EMULATOR else [str(SUBJECT)]), *arguments]).stdout


def ask(commands, *reach):
    """{command: what gdb says to it}, in main() of the subject, reached by these arguments."""
    asking = ["-ex", "frame function main"]
    for number, command in enumerate(commands):
        asking += ["-ex", r"echo \n@@%d\n" % number, "-ex", command]
    output = gdb(*reach, *asking, "-ex", r"echo \n@@end\n", "-ex", "kill")
    answers = re.findall(r"^@@\d+\n(.*?)\n?(?=\n@@)", output, re.MULTILINE | re.DOTALL)
    if len(answers) != len(commands):
        raise AssertionError(output)
    return dict(zip(commands, answers))


def ask_program(commands):
    if EMULATOR:
        with Emulated() as reach:
            return ask(commands, *reach)
    return ask(commands, "-ex", "run")


class InAProgram(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.commands = ["output " + expression for expression in cls.expressions()]
        cls.commands += ["info windows-threads", "output inPipe", "output parked"]
        cls.answers = cls.ask_all()

    @classmethod
    def ask_all(cls):
        return ask_program(cls.commands)

    @staticmethod
    def expressions():
        yield from VARIABLES
        yield from THREADS
        yield from DAMAGED
        for memory, kinds in (("garbage", GARBAGE), ("zeros", ZEROS)):
            for kind in kinds:
                yield "*(%s*)%s" % (kind, memory)
        for kind in GARBAGE:
            yield "*(%s*)0" % kind

    def shown(self, expression):
        return mask(self.answers["output " + expression])

    def messages(self, count):
        """What is shown of a pipe with so many messages."""
        return "unknown" if EMULATOR else count

    def test_variables(self):
        for expression, expected in VARIABLES.items():
            with self.subTest(expression):
                self.assertEqual(self.shown(expression), expected)

    def test_threads(self):
        for expression, expected in THREADS.items():
            with self.subTest(expression):
                expected = expected.replace("{N}", "{%s}" % self.shown("inPipe"))
                expected = expected.replace("PARKED", self.shown("parked"))
                self.assertEqual(self.shown(expression),
                                 re.sub(r"\{(\d+)\}", lambda match: self.messages(match.group(1)), expected))

    def test_messages_are_in_the_pipe_and_parked(self):
        in_pipe, parked = int(self.shown("inPipe")), int(self.shown("parked"))
        self.assertGreater(in_pipe, 0)
        self.assertGreater(parked, 0)
        self.assertEqual(in_pipe + parked, 300)

    def test_damaged_objects(self):
        for expression, expected in DAMAGED.items():
            with self.subTest(expression):
                self.assertEqual(self.shown(expression), expected)

    def test_memory_that_is_no_object(self):
        for memory, kinds in (("garbage", GARBAGE), ("zeros", ZEROS)):
            for kind, expected in kinds.items():
                with self.subTest(memory=memory, kind=kind):
                    self.assertEqual(self.shown("*(%s*)%s" % (kind, memory)), expected)

    def test_objects_at_NULL(self):
        for kind in GARBAGE:
            with self.subTest(kind):
                self.assertRegex(self.shown("*(%s*)0" % kind), r"Cannot access memory at address 0x[0-9a-f]+")

    def test_nothing_raises(self):
        for command, answer in self.answers.items():
            with self.subTest(command):
                self.assertNotIn("Python Exception", answer)
                self.assertNotIn("Traceback", answer)

    def test_the_list_of_threads(self):
        headings, *rows = self.answers["info windows-threads"].splitlines()
        self.assertEqual(re.split("  +", headings),
                         ["Thread", "Id", "State", "In pipe", "Parked", "Posted", "Queue", "Runs"])
        cells = [re.split("  +", row) for row in rows]
        for row in cells:
            self.assertRegex(row[0], r"^(\d+|-)$")
            self.assertRegex(row[1], r"^0x[0-9a-f]+$")
        in_pipe, parked = self.shown("inPipe"), self.shown("parked")
        self.assertEqual(sorted(row[2:] for row in cells), sorted([
            ["exited", self.messages("0"), "0", "0", "locked out", "(anonymous namespace)::EndAtOnce(void*)"],
            ["running", self.messages("3"), "0", "3", "open", "(anonymous namespace)::Stay(void*)"],
            ["running", self.messages(in_pipe), parked, "300", "open", "(anonymous namespace)::Worker::Main()"],
            ["suspended", self.messages("0"), "0", "0", "open", "(anonymous namespace)::EndAtOnce(void*)"]]))


@unittest.skipIf(EMULATOR, "an emulated program leaves a core file of its emulator")
class InACoreFile(InAProgram):
    """As in a program, but for the pipes: they went with it."""

    @classmethod
    def ask_all(cls):
        if "-fsanitize" in (BUILD / "CMakeCache.txt").read_text(encoding="utf-8"):
            raise unittest.SkipTest("a sanitizer's memory is too large for a core file")
        with tempfile.TemporaryDirectory() as folder:
            core = os.path.join(folder, "core")
            said = gdb("-ex", "run", "-ex", "generate-core-file " + core, "-ex", "kill")
            if not os.path.exists(core):
                raise AssertionError(said)
            return ask(cls.commands, core)

    def messages(self, count):
        return "unknown"


class Registry(unittest.TestCase):
    """The list of threads, where their registry is not as it should be."""

    HEADER = "CWinThread::m_threads._M_t._M_impl._M_header"

    def threads_after(self, change):
        return ask_program(["set var " + change, "info windows-threads"])["info windows-threads"]

    def test_it_is_being_changed(self):
        said = self.threads_after("CWinThread::m_mapMutex.m_mutex.__data.__lock = 1")
        self.assertRegex(said, r"^The registry is in the hands of LWP 0, and may be half changed\.\nThread  Id ")

    def test_it_is_empty(self):
        self.assertEqual(self.threads_after("CWinThread::m_threads._M_t._M_impl._M_node_count = 0"),
                         "No registered threads.")

    def test_it_cannot_be_read(self):
        self.assertRegex(self.threads_after(self.HEADER + "._M_left = 16"),
                         r"^The registry cannot be read: Cannot access memory at address 0x[0-9a-f]{2}$")


class Loading(unittest.TestCase):
    def test_the_command_without_the_library(self):
        said = gdb("-ex", "source %s" % PRINTERS, "-ex", "info windows-threads")
        self.assertIn("libWindows.so.0 is not loaded, or without its debug information.", said)

    def test_help(self):
        said = gdb("-ex", "source %s" % PRINTERS, "-ex", "help info windows-threads")
        self.assertIn("List the threads that libWindows.so.0 knows", said)

    def test_the_build_folder_has_the_printers_beside_the_library(self):
        self.assertEqual((BUILD / "libWindows.so.0-gdb.py").read_bytes(), PRINTERS.read_bytes())

    def test_loading_them_twice_is_no_error(self):
        said = gdb("-ex", "source %s" % PRINTERS, "-ex", "source %s" % PRINTERS, "-ex", "info pretty-printer global")
        self.assertNotIn("rror", said)
        self.assertIn("CWinThread", said)


def skip(reason):
    print("skipped:", reason)
    sys.exit(SKIPPED)


def main():
    global BUILD, SUBJECT
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, metavar="DIR")
    options, rest = parser.parse_known_args()
    BUILD = pathlib.Path(options.build).resolve()
    SUBJECT = BUILD / "tests" / "gdb_subject"
    if not shutil.which(GDB):
        skip(GDB + " is not installed")
    if "python" not in run([GDB, "-nx", "-batch", "-ex", "python print('python')"]).stdout:
        skip("this gdb has no Python")
    if not EMULATOR and "exited" not in run([GDB, "-nx", "-batch", "-ex", "run", "/bin/true"]).stdout:
        skip("gdb cannot trace here")
    unittest.main(argv=[sys.argv[0], "-v", *rest])


if __name__ == "__main__":
    main()
