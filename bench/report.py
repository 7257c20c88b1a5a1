#!/usr/bin/env python3
"""Runs the benchmarks, compares their columns, and writes docs/performance.md. script/bench --help tells the rest."""
import argparse
import collections
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs/performance.md"
PICTURE = ROOT / "docs/performance.svg"
INSTRUCTIONS = ROOT / "bench/instructions.txt"

# What the library may take of the floor's time on one processor. Below 1 it has to beat the obvious way; well
# above 1 stands what it does besides: looking at handles, at marks of cancellation, at who may free a block.
BARS = {
    "Copy": 1.05, "Build": 0.80, "AppendThousand": 1.05, "Join": 0.80, "Format": 0.93, "FindText": 1.03,
    "FindCharacter": 1.03, "Replace": 0.80,
    "ThousandLines": 1.00, "EscapeForXml/6": 0.60, "EscapeForXml/0": 1.05,
    "Array": 1.05, "List": 1.06,
    "MakeAndFreeBstr": 1.25, "IntegerToTextAndBack": 0.65, "FilteredEvent": 3,
    "LockAndUnlock": 1.45, "WaitAndRelease": 1.45, "SetWaitReset": 1.05, "EventPingPong": 1.05,
    "CreateToGone": 1.05, "PostAndGet": 1.05, "Million": 1.05, "PingPong": 1.05,
    "RoundTrip": 1.05, "OneWay": 1.05, "Request": 1.05,
}
PEERS = ("Std", "QtCore", "Glib", "AsioSync", "AsioAsync", "ZeroMq")
GROWTH = 1.02  # of the instructions of an operation
LIMIT = 900  # seconds for one run of the program

Benchmark = collections.namedtuple("Benchmark", "row column has_threads")


def parse(name):
    """Copy<Library>, RoundTrip<Floor>/16/process_time/real_time: only what has threads is timed by the clock."""
    operation, column, argument, clocks = re.fullmatch(r"(\w+)<(\w+)>((?:/\d+)*)((?:/\w+)*)", name).groups()
    return Benchmark(operation + argument, column, "/real_time" in clocks)


def bar(row):
    return BARS.get(row, BARS.get(row.split("/")[0]))


class Program:
    def __init__(self, build):
        self.path = os.path.join(build, "bench/windows_bench")
        names = subprocess.run([self.path, "--benchmark_list_tests"], check=True, stdout=subprocess.PIPE, text=True)
        self.rows = {}
        for name in names.stdout.split():
            benchmark = parse(name)
            self.rows.setdefault(benchmark.row, []).append(benchmark)

    def complaints(self):
        """What does not fit together: rows without a bar, bars without a row, rows that cannot be compared."""
        operations = {row.split("/")[0] for row in self.rows}
        for name in BARS:
            if name not in self.rows and name not in operations:
                yield "%s is missing" % name
        for row, benchmarks in self.rows.items():
            if bar(row) is None:
                yield "%s has no bar" % row
            for column in "Library", "Floor":
                if column not in (benchmark.column for benchmark in benchmarks):
                    yield "%s has no column %s" % (row, column)

    def run(self, row, seconds, rounds, processors=None):
        """The runs of all columns of a row, or of all rows, as Google Benchmark reports them."""
        operation, _, argument = row.partition("/")
        pattern = "^%s<.*>%s(/process_time|/real_time)*$" % (operation, "/" + argument if argument else "") if row else "."
        command = [self.path, "--benchmark_filter=" + pattern, "--benchmark_min_time=%g" % seconds,
                   "--benchmark_repetitions=%d" % rounds, "--benchmark_enable_random_interleaving=true",
                   "--benchmark_format=json"]
        if processors:
            command = ["taskset", "-c", ",".join(map(str, processors))] + command
        if os.geteuid() == 0:
            command = ["nice", "-n", "-5"] + command
        output = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=LIMIT)
        runs = [run for run in json.loads(output.stdout)["benchmarks"] if run["run_type"] == "iteration"]
        failed = sorted({run["name"] for run in runs if run.get("error_occurred")})
        if failed or not runs:
            sys.exit("bench: %s" % ("failed: " + ", ".join(failed) if failed else "nothing ran of " + row))
        return runs

    def medians(self, row, rounds, processors):
        """Nanoseconds by column. On one processor it is the processor's time, of all threads: others who use the
        machine do not disturb it. On two it is the clock's."""
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
        times = collections.defaultdict(list)
        for run in self.run(row, 0.02, rounds, processors):
            name = run["name"]
            by_clock = "/real_time" in name and (len(processors) > 1 or "/process_time" not in name)
            time = run["real_time" if by_clock else "cpu_time"]
            times[parse(name).column].append(time * scale[run["time_unit"]])
        return {column: statistics.median(values) for column, values in times.items()}


class Figures:
    """What was measured of a row: medians by column on one processor, and on two if that makes a difference."""

    def __init__(self, row, one, two):
        self.row, self.one, self.two = row, one, two
        self.ratio = one["Library"] / one["Floor"]
        self.holds = round(self.ratio, 2) <= bar(row)

    def peers(self):
        return {peer: self.one[peer] / self.one["Library"] for peer in PEERS if peer in self.one}

    def cells(self):
        two = "%s, %.2f" % (duration(self.two["Library"]), self.two["Library"] / self.two["Floor"]) if self.two else ""
        peers = ", ".join("%s %s" % (peer, three_digits(ratio)) for peer, ratio in self.peers().items())
        return ["`%s`" % self.row, duration(self.one["Library"]), "%.2f" % self.ratio, "%.2f" % bar(self.row),
                "yes" if self.holds else "**no**", two, peers]


def three_digits(number):
    return "%.0f" % number if number >= 100 else "%.*f" % (1 if number >= 10 else 2, number)


def duration(nanoseconds):
    exponent = max(i for i in range(4) if i == 0 or nanoseconds >= 1000 ** i)
    return "%s %s" % (three_digits(nanoseconds / 1000 ** exponent), ("ns", "µs", "ms", "s")[exponent])


def measure(program, rows, rounds):
    available = sorted(os.sched_getaffinity(0))
    all_figures = []
    for row in rows:
        one = program.medians(row, rounds, available[:1])
        has_threads = any(benchmark.has_threads for benchmark in program.rows[row])
        two = program.medians(row, rounds, available[:2]) if has_threads and len(available) > 1 else None
        all_figures.append(Figures(row, one, two))
        print("%-22s %10s  %5s (bar %s, holds: %s)  two processors: %s  %s" %
              tuple(cell.strip("`*") or "-" for cell in all_figures[-1].cells()), flush=True)
    return all_figures


def table(all_figures, origin):
    lines = ["| Operation | Library | Ratio to the floor | Bar | Holds | On two processors | Others, ratio to the library |",
             "|---|---|---|---|---|---|---|"]
    lines += ["| %s |" % " | ".join(figures.cells()) for figures in all_figures]
    return lines + ["", "Measured with %s." % origin]


def replace_between_markers(page, lines):
    begin, end = "<!-- bench:begin -->", "<!-- bench:end -->"
    text = page.read_text(encoding="utf-8")
    if text.count(begin) != 1 or text.count(end) != 1:
        sys.exit("bench: %s has no place for the table" % page)
    page.write_text(text.split(begin)[0] + begin + "\n\n" + "\n".join(lines) + "\n\n" + end + text.split(end)[1],
                    encoding="utf-8")


def draw(all_figures, picture):
    """Bars of the library, and what others take, both as ratios to the floor."""
    with tempfile.NamedTemporaryFile("w", suffix=".tsv", encoding="utf-8") as data:
        data.write("\t".join(("Operation", "Library", "bar") + PEERS) + "\n")
        for figures in all_figures:
            peers = [figures.one[peer] / figures.one["Floor"] if peer in figures.one else "?" for peer in PEERS]
            data.write("\t".join(map(str, [figures.row, figures.ratio, bar(figures.row)] + peers)) + "\n")
        data.flush()
        script = ROOT / "bench/picture.gp"
        subprocess.run(["gnuplot", "-e", "data='%s'; picture='%s'" % (data.name, picture), str(script)], check=True)


def time(program, wanted, rounds, origin):
    rows = sorted(program.rows, key=lambda row: list(BARS).index(row if row in BARS else row.split("/")[0]))
    for name in wanted:
        if not any(row == name or row.startswith(name + "/") for row in rows):
            sys.exit("bench: there is no row %s; there are: %s" % (name, " ".join(rows)))
    chosen = [row for row in rows if not wanted or any(row == name or row.startswith(name + "/") for name in wanted)]
    all_figures = measure(program, chosen, rounds)
    if not wanted:
        replace_between_markers(PAGE, table(all_figures, origin))
        draw(all_figures, PICTURE)
    above = [figures.row for figures in all_figures if not figures.holds]
    if above:
        sys.exit("bench: above the bar: %s" % ", ".join(above))


def try_each(program):
    runs = program.run("", 0.001, 1)
    print("%d benchmarks of %d rows: no error" % (len(runs), len(program.rows)))


# --- Instructions ----------------------------------------------------------------------------------------------


def toolchain(build):
    """The counts are those of one compiler and one C library."""
    [file] = pathlib.Path(build, "CMakeFiles").glob("*/CMakeCXXCompiler.cmake")
    version = dict(re.findall(r'set\((CMAKE_CXX_COMPILER_ID|CMAKE_CXX_COMPILER_VERSION) "(.*?)"\)', file.read_text()))
    return "%s %s, %s, %s" % (version["CMAKE_CXX_COMPILER_ID"], version["CMAKE_CXX_COMPILER_VERSION"],
                              " ".join(platform.libc_ver()), platform.machine())


def instructions(program, name, count):
    # The C library's functions for processors of any kind, so that the machine makes no difference.
    plain = "glibc.cpu.hwcaps=" + ",".join("-" + feature for feature in ("AVX2", "AVX2_Usable", "AVX512F", "ERMS",
                                                                        "FSRM", "BMI2", "LZCNT"))
    command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", program, name, str(count)]
    output = subprocess.run(command, check=True, stderr=subprocess.PIPE, text=True, timeout=LIMIT,
                            env=dict(os.environ, GLIBC_TUNABLES=plain)).stderr
    return int(re.search(r"Collected : (\d+)", output).group(1))


def count_instructions(build):
    """For each operation: the difference between 3,000 and 1,000 times leaves out how the program starts."""
    program = os.path.join(build, "bench/operations")
    names = subprocess.run([program], check=True, stdout=subprocess.PIPE, text=True).stdout.split()
    return {name: (instructions(program, name, 3000) - instructions(program, name, 1000)) / 2000 for name in names}


def judge_instructions(build):
    written, *lines = INSTRUCTIONS.read_text(encoding="utf-8").splitlines()
    before = {name: float(count) for name, count in map(str.split, lines)}
    counts = count_instructions(build)
    grown = []
    for name, count in counts.items():
        growth = count / before[name] if name in before else float("inf")
        print("%-22s %8.1f instructions, %+.1f %%" % (name, count, 100 * (growth - 1)))
        if growth > GROWTH:
            grown.append(name)
    if written != "# " + toolchain(build):
        print("bench: %s were counted with %s, which is not the toolchain here: nothing is judged" %
              (INSTRUCTIONS.name, written[2:]), file=sys.stderr)
    elif grown:
        sys.exit("bench: more instructions than before: %s (--instructions --update accepts them)" % ", ".join(grown))


def update_instructions(build):
    lines = ["# " + toolchain(build)] + ["%s %.1f" % item for item in count_instructions(build).items()]
    INSTRUCTIONS.write_text("\n".join(lines) + "\n", encoding="utf-8")
    print("\n".join(lines))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, metavar="DIR")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--instructions", action="store_true")
    parser.add_argument("--update", action="store_true")
    parser.add_argument("rows", nargs="*", metavar="ROW")
    arguments = parser.parse_args()
    if arguments.update and not arguments.instructions:
        parser.error("--update belongs to --instructions")
    if arguments.instructions:
        (update_instructions if arguments.update else judge_instructions)(arguments.build)
        return
    program = Program(arguments.build)
    complaints = list(program.complaints())
    if complaints:
        sys.exit("bench: " + "; ".join(complaints))
    if arguments.quick:
        try_each(program)
    else:
        time(program, arguments.rows, arguments.rounds, toolchain(arguments.build))


if __name__ == "__main__":
    main()
