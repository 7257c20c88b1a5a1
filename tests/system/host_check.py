#!/usr/bin/env python3
"""Runs what tells an integrator whether his host fulfils its contract: the conformance program and tools/check-host.

usage: host_check.py --build DIR [unittest arguments]

The conformance program is tried with the reference host, which fulfils every clause, and with a host that breaks
one. WINDOWS_TEST_EMULATOR is the command that runs the built programs, if they need one; then a faulty host is tried
with its own clause alone, as every process takes long. WINDOWS_TEST_CXX compiles small programs (default: g++).
Limits grow with WINDOWS_TEST_TIME_MULTIPLIER.
"""
import argparse
import concurrent.futures
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest

MULTIPLIER = float(os.environ.get("WINDOWS_TEST_TIME_MULTIPLIER", "1"))
EMULATOR = os.environ.get("WINDOWS_TEST_EMULATOR", "")
CXX = shlex.split(os.environ.get("WINDOWS_TEST_CXX", "")) or ["g++"]
ROOT = pathlib.Path(__file__).resolve().parents[2]
CHECK_HOST = ROOT / "tools" / "check-host"
SERVICE = ["--service", "conformance=127.0.0.1:4711"]

BUILD = None


def run(command, **options):
    return subprocess.run(command, capture_output=True, text=True, timeout=600 * MULTIPLIER, check=False, **options)


def conformance(host, *arguments, fault=None):
    command = shlex.split(EMULATOR) + [str(BUILD / "tools" / "host_conformance" / ("host_conformance_" + host)),
                                  "--limit", str(int(10 * MULTIPLIER)), "--through", EMULATOR, *arguments]
    environment = {key: value for key, value in os.environ.items() if not key.startswith("HOST_CONFORMANCE_")}
    if fault:
        environment["HOST_CONFORMANCE_FAULT"] = fault
    return run(command, env=environment)


def results(output):
    """{clause: "ok", "FAILED" or "not tried"}"""
    return dict(re.findall(r"^([a-z.-]+): (ok|FAILED|not tried)\b", output, re.MULTILINE))


def clauses():
    return re.findall(r"^([a-z.-]+): ", conformance("reference", "--list").stdout, re.MULTILINE)


class Conformance(unittest.TestCase):
    def check_all_ok(self, result):
        self.assertEqual(result.returncode, 0, result.stdout)
        self.assertEqual(results(result.stdout), dict.fromkeys(clauses(), "ok"))

    def test_the_reference_host_fulfils_every_clause(self):
        self.check_all_ok(conformance("reference", *SERVICE))

    def test_the_faulty_host_without_a_fault_does_too(self):
        self.check_all_ok(conformance("faulty", *SERVICE))

    def test_a_fault_fails_its_clause_and_no_other(self):
        names = clauses()
        self.assertGreater(len(names), 40)

        def failures(fault):
            result = conformance("faulty", *SERVICE, *([fault] if EMULATOR else []), fault=fault)
            found = [clause for clause, outcome in results(result.stdout).items() if outcome != "ok"]
            return fault, result.returncode, found, result.stdout

        # They sleep most of the time, but for an emulator's start.
        with concurrent.futures.ThreadPoolExecutor(4 if EMULATOR else 8) as pool:
            for fault, status, found, output in pool.map(failures, names):
                with self.subTest(fault=fault):
                    self.assertEqual((status, found), (1, [fault]), output)

    def test_a_failure_says_what_was_expected_and_seen(self):
        result = conformance("faulty", "registry.unknown", fault="registry.unknown")
        self.assertEqual(result.stdout,
                         "registry.unknown: FAILED: expected 0 for an unknown service, saw -1\n"
                         "    (RegSvcQueryForServiceAddress returns 0 for an unknown name)\n"
                         "0 ok, 1 failed, 0 not tried\n")

    def test_clauses_that_need_a_service_are_not_tried_without_one(self):
        result = conformance("reference", "registry.known", "registry.unknown")
        self.assertEqual(result.returncode, 0)
        self.assertEqual(results(result.stdout), {"registry.known": "not tried", "registry.unknown": "ok"})

    def test_a_clause_that_does_not_end_is_ended(self):
        result = conformance("reference", "--limit", "1", "sleep.duration")  # it sleeps for more than a second
        self.assertEqual(result.returncode, 1)
        self.assertIn("sleep.duration: FAILED: expected an end within 1 s, saw none\n", result.stdout)

    def test_the_log_may_be_a_file_that_has_contents(self):
        with tempfile.NamedTemporaryFile("w", suffix=".log") as log:
            log.write("an old line\n" * 1000)
            log.flush()
            result = conformance("reference", "--log", log.name, "logger.detail", "logger.whole-events")
        self.assertEqual(result.returncode, 0, result.stdout)

    def test_wrong_command_lines(self):
        for arguments in (["--nonsense"], ["--log"], ["--limit", "0"], ["--service", "name"], ["no.clause"]):
            with self.subTest(arguments=arguments):
                result = conformance("reference", *arguments)
                self.assertEqual((result.returncode, result.stdout), (2, ""))
                self.assertIn("(see --help)", result.stderr)

    def test_help(self):
        result = conformance("reference", "--help")
        self.assertEqual(result.returncode, 0)
        self.assertIn("usage: ", result.stdout)


HOST = """
#include <host/host.h>
void CLogger::PostLogEvent(LogTypeEnum, LogSeverityEnum, const char*, const char*) {}
void CLogger::PostLogEvent(LogTypeEnum, LogSeverityEnum, XString&, const char*) {}
void CLogger::PostLogEventF(LogTypeEnum, LogSeverityEnum, const char*, ...) {}
void CLogger::PostLogEventFB(LogTypeEnum, LogSeverityEnum, const char*, const char*, ...) {}
bool IsDebugEnabled() { return false; }
CServiceAddress::CServiceAddress() {}
CServiceAddress::~CServiceAddress() {}
const char* CServiceAddress::getIPAddress() const { return ""; }
int CServiceAddress::getPortNumber() const { return 0; }
int RegSvcQueryForServiceAddress(const char*, CServiceAddress&, int) { return 0; }
CTimeValHelper::CTimeValHelper() {}
CTimeValHelper::CTimeValHelper(bool) {}
void CTimeValHelper::Init() {}
void CTimeValHelper::AddSeconds(unsigned long) {}
void CTimeValHelper::AddMilliSeconds(unsigned long) {}
CTimeSpecHelper::CTimeSpecHelper(bool) {}
void CTimeSpecHelper::AddMilliSeconds(unsigned long) {}
unsigned long GetTickCount() { return 0; }
void Sleep(unsigned long) {}
CLogException* Exception(const char*, const char*, char*) { return nullptr; }
"""
MAIN = "int main() {}\n"
ALL_THERE = "check-host: all 20 services are there\n"
HIDDEN = "it is hidden (-fvisibility=hidden, an attribute or a version script) or static"
EXPORTED = ("-shared",)


class CheckHost(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.objects_folder = pathlib.Path(folder.name)
        cls.objects = {}  # by their sources: most cases link the same one, each in its own way

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_compiler(self, *arguments):
        result = run([*CXX, *map(str, arguments)])
        self.assertEqual(result.returncode, 0, result.stderr)

    def compile(self, source):
        """The object file of this source, which the compiler must accept as it stands."""
        if source not in self.objects:
            code = self.objects_folder / f"host{len(self.objects)}.cpp"
            code.write_text(source, encoding="ascii")
            self.run_compiler("-std=c++11", "-fPIC", "-I", ROOT, "-c", code, "-o", code.with_suffix(".o"))
            self.objects[source] = code.with_suffix(".o")
        return self.objects[source]

    def build(self, source, *flags, name="host"):
        """An ELF file of this source, linked with these flags."""
        file = self.folder / name
        self.run_compiler(*flags, self.compile(source), "-o", file)
        return str(file)

    def changed(self, old, new):
        self.assertEqual(HOST.count(old), 1)
        return HOST.replace(old, new)

    def check(self, status, *files, tool=CHECK_HOST):
        result = run([sys.executable, str(tool), *files])
        self.assertEqual((result.returncode, result.stderr), (status, ""), result.stdout)
        return result.stdout

    def check_one(self, complaint, *files):
        self.assertEqual(self.check(1, *files), complaint + "check-host: 1 of 20 services cannot be used\n")

    def test_the_programs_of_the_reference_host(self):
        for program in ("reference_host_tests", "peer_program", "porting11"):
            self.assertEqual(self.check(0, str(BUILD / "tests" / program)), ALL_THERE)

    def test_a_shared_object(self):
        self.assertEqual(self.check(0, self.build(HOST, *EXPORTED)), ALL_THERE)

    def test_services_in_several_files(self):
        sleep = "void Sleep(unsigned long) {}\n"
        rest = self.build(self.changed(sleep, ""), *EXPORTED)
        self.check_one("missing: Sleep(unsigned long)\n", rest)
        other = self.build("#include <host/Time.h>\n" + sleep, *EXPORTED, name="other")
        self.assertEqual(self.check(0, rest, other), ALL_THERE)

    def test_a_missing_function_and_the_nearest_one(self):
        file = self.build(self.changed("bool IsDebugEnabled()", "bool IsDebuggingEnabled()"), *EXPORTED)
        self.check_one(f"missing: IsDebugEnabled()\n    nearest: IsDebuggingEnabled() in {file}\n", file)

    def test_a_function_of_another_class(self):
        file = self.build(self.changed("bool IsDebugEnabled()", "namespace mine { bool IsDebugEnabled(); }\n"
                                       "bool mine::IsDebugEnabled()"), *EXPORTED)
        self.check_one(f"missing: IsDebugEnabled()\n    nearest: mine::IsDebugEnabled() in {file}\n", file)

    def test_other_parameters(self):
        file = self.build(self.changed("void Sleep(unsigned long) {}", "void Sleep(int, int) {}\n"
                                       "void Sleep(unsigned int) {}"), *EXPORTED)
        self.check_one(f"another signature: Sleep(unsigned long)\n    Sleep(unsigned int) in {file}\n", file)

    def test_another_linkage(self):
        file = self.build("#define Sleep HiddenBehindAMacro\n" +
                          self.changed("void Sleep(unsigned long) {}", "#undef Sleep\n"
                                       "extern \"C\" void Sleep(unsigned long) {}"), *EXPORTED)
        self.check_one(f'another signature: Sleep(unsigned long)\n    Sleep in {file} has C linkage (extern "C")\n',
                       file)
        file = self.build("#define GetTickCount HiddenBehindAMacro\n" +
                          self.changed("unsigned long GetTickCount()", "#undef GetTickCount\n"
                                       "unsigned long GetTickCount()"), *EXPORTED)
        self.check_one('another signature: extern "C" unsigned long GetTickCount()\n'
                       f"    GetTickCount() in {file} has C++ linkage\n", file)

    def test_an_executable_that_exports_nothing(self):
        file = self.build(HOST + MAIN)
        output = self.check(1, file)
        self.assertIn("not exported: Sleep(unsigned long)\n"
                      f"    {file}: link with -rdynamic, or against the library\n", output)
        self.assertEqual(len(re.findall("^not exported: ", output, re.MULTILINE)), 20, output)
        self.assertEqual(self.check(0, self.build(HOST + MAIN, "-rdynamic")), ALL_THERE)

    def test_hidden_visibility(self):
        hidden = "__attribute__((visibility(\"hidden\"))) "
        file = self.build(self.changed("void Sleep(", hidden + "void Sleep(") + MAIN, "-rdynamic")
        self.check_one("not exported: Sleep(unsigned long)\n"
                       f"    {file}: {HIDDEN}\n", file)

    def test_a_version_script(self):
        script = self.folder / "script"
        script.write_text("{ local: GetTickCount; };\n", encoding="ascii")
        file = self.build(HOST, *EXPORTED, f"-Wl,--version-script={script}")
        self.check_one('not exported: extern "C" unsigned long GetTickCount()\n'
                       f"    {file}: {HIDDEN}\n", file)

    def test_a_stripped_executable(self):
        self.assertNotIn("not exported", self.check(1, self.build(HOST + MAIN, "-s")))
        self.assertEqual(self.check(0, self.build(HOST + MAIN, "-s", "-rdynamic")), ALL_THERE)

    def test_versioned_symbols(self):
        script = self.folder / "script"
        script.write_text("HOST_1 { *; };\n", encoding="ascii")
        file = self.build(HOST, *EXPORTED, f"-Wl,--version-script={script}")
        self.assertEqual(self.check(0, file), ALL_THERE)

    def test_an_installed_copy(self):
        for folder in ("bin", "share/libwindows"):
            (self.folder / folder).mkdir(parents=True)
        tool = shutil.copy(CHECK_HOST, self.folder / "bin")
        file = self.build(HOST, *EXPORTED)
        result = run([sys.executable, str(tool), file])
        self.assertEqual(result.returncode, 2)
        self.assertIn("no list of services", result.stderr)
        shutil.copy(ROOT / "abi" / "imports.txt", self.folder / "share" / "libwindows")
        self.assertEqual(self.check(0, file, tool=tool), ALL_THERE)

    def test_a_wrong_command_line_and_files_that_cannot_be_read(self):
        text = self.folder / "text"
        text.write_text("text", encoding="ascii")
        for arguments, error in (([], "wrong command line"), (["--nonsense"], "wrong command line"),
                                 ([str(text)], "is not an ELF file"),
                                 ([str(self.folder / "nothing")], "No such file or directory")):
            result = run([sys.executable, str(CHECK_HOST), *arguments])
            self.assertEqual((result.returncode, result.stdout), (2, ""))
            self.assertRegex(result.stderr, r"\Acheck-host: [^\n]*" + error + r"[^\n]*\n\Z")

    def test_help(self):
        result = run([str(CHECK_HOST), "--help"])
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn("usage: check-host FILE...", result.stdout)


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0], add_help=False)
    parser.add_argument("--build", required=True, metavar="DIR")
    options, rest = parser.parse_known_args()
    BUILD = pathlib.Path(options.build).resolve()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
