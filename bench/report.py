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
# The operations whose instructions are counted: those on one thread, which may be one that they make. The large
# ones do much in one turn.
COUNTED = ("Copy", "Build", "Join", "Format", "FindText", "FindCharacter", "Replace", "MakeAndFreeBstr",
           "IntegerToTextAndBack", "FilteredEvent", "LockAndUnlock", "WaitAndRelease", "SetWaitReset", "PostAndGet")
COUNTED_LARGE = "AppendThousand", "ThousandLines", "EscapeForXml", "Array", "List"
# What the instructions of an operation may grow by unnoticed: its own, and all of them, of which a few are made once
# in a while. How long the C library searches depends on where in the heap the text happens to lie.
GROWTH, ONCE = 1.02, 8
SEARCHES = ("FindText",)
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

    def ordered_rows(self):
        return sorted(self.rows, key=lambda row: list(BARS).index(row if row in BARS else row.split("/")[0]))

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

    def run(self, row, seconds, processors=None):
        """A run of each column of a row, or of all rows, in random order, as Google Benchmark reports them."""
        operation, _, argument = row.partition("/")
        pattern = "^%s<.*>%s(/process_time|/real_time)*$" % (operation, "/" + argument if argument else "") if row else "."
        command = [self.path, "--benchmark_filter=" + pattern, "--benchmark_min_time=%g" % seconds,
                   "--benchmark_repetitions=1", "--benchmark_enable_random_interleaving=true",
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

    def times(self, row, rounds, processors):
        """Nanoseconds by column, one for each round. On one processor it is the processor's time, of all threads: others
        who use the machine do not disturb it. On two it is the clock's. Each round is a process of its own, as where in
        memory the objects lie differs from one to the next, and can outweigh the code."""
        scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
        times = collections.defaultdict(list)
        for _ in range(rounds):
            for run in self.run(row, 0.02, processors):
                name = run["name"]
                by_clock = "/real_time" in name and (len(processors) > 1 or "/process_time" not in name)
                time = run["real_time" if by_clock else "cpu_time"]
                times[parse(name).column].append(time * scale[run["time_unit"]])
        return times


def ratio(times, column, other):
    """The median of the rounds' ratios: what disturbs the machine for a while disturbs both columns of a round."""
    return statistics.median(a / b for a, b in zip(times[column], times[other]))


class Figures:
    """What was measured of a row: times by column on one processor, and on two if that makes a difference."""

    def __init__(self, row, one, two):
        self.row, self.one, self.two = row, one, two
        self.ratio = ratio(one, "Library", "Floor")
        self.holds = round(self.ratio, 2) <= bar(row)

    def cells(self):
        two = "%s, %.2f" % (median_duration(self.two), ratio(self.two, "Library", "Floor")) if self.two else ""
        return ["`%s`" % self.row, median_duration(self.one), "%.2f" % self.ratio, "%.2f" % bar(self.row),
                "yes" if self.holds else "**no**", two, peers(self.one), peers(self.two or {})]


def median_duration(times):
    return duration(statistics.median(times["Library"]))


def peers(times):
    return ", ".join("%s %s" % (peer, three_digits(ratio(times, peer, "Library"))) for peer in PEERS if peer in times)


def three_digits(number):
    return "%.0f" % number if number >= 100 else "%.*f" % (1 if number >= 10 else 2, number)


def duration(nanoseconds):
    exponent = max(i for i in range(4) if i == 0 or nanoseconds >= 1000 ** i)
    return "%s %s" % (three_digits(nanoseconds / 1000 ** exponent), ("ns", "µs", "ms", "s")[exponent])


def measure(program, rows, rounds):
    available = sorted(os.sched_getaffinity(0))
    all_figures = []
    for row in rows:
        one = program.times(row, rounds, available[:1])
        has_threads = any(benchmark.has_threads for benchmark in program.rows[row])
        two = program.times(row, rounds, available[:2]) if has_threads and len(available) > 1 else None
        all_figures.append(Figures(row, one, two))
        print("%-22s %10s  %5s (bar %s, holds: %s)  two processors: %s  others: %s; %s" %
              tuple(cell.strip("`*") or "-" for cell in all_figures[-1].cells()), flush=True)
    return all_figures


def table(all_figures, origin):
    lines = ["| Operation | Library | Ratio to the floor | Bar | Holds | On two processors | Others, ratio to the library | "
             "Others, on two |", "|---|---|---|---|---|---|---|---|"]
    lines += ["| %s |" % " | ".join(figures.cells()) for figures in all_figures]
    return lines + ["", "Measured with %s." % origin]


def replace_between_markers(name, lines):
    begin, end = "<!-- %s:begin -->" % name, "<!-- %s:end -->" % name
    text = PAGE.read_text(encoding="utf-8")
    if text.count(begin) != 1 or text.count(end) != 1:
        sys.exit("bench: %s has no place for the table" % PAGE)
    PAGE.write_text(text.split(begin)[0] + begin + "\n\n" + "\n".join(lines) + "\n\n" + end + text.split(end)[1],
                    encoding="utf-8")


def draw(all_figures, picture):
    """Bars of the library, and what others take, both as ratios to the floor."""
    with tempfile.NamedTemporaryFile("w", suffix=".tsv", encoding="utf-8") as data:
        data.write("\t".join(("Operation", "Library", "bar") + PEERS) + "\n")
        for figures in all_figures:
            peers = [ratio(figures.one, peer, "Floor") if peer in figures.one else "?" for peer in PEERS]
            data.write("\t".join(map(str, [figures.row, figures.ratio, bar(figures.row)] + peers)) + "\n")
        data.flush()
        script = ROOT / "bench/picture.gp"
        subprocess.run(["gnuplot", "-e", "data='%s'; picture='%s'" % (data.name, picture), str(script)], check=True)


def time(program, wanted, rounds, origin):
    rows = program.ordered_rows()
    for name in wanted:
        if not any(row == name or row.startswith(name + "/") for row in rows):
            sys.exit("bench: there is no row %s; there are: %s" % (name, " ".join(rows)))
    chosen = [row for row in rows if not wanted or any(row == name or row.startswith(name + "/") for name in wanted)]
    all_figures = measure(program, chosen, rounds)
    if not wanted:
        replace_between_markers("bench", table(all_figures, origin))
        draw(all_figures, PICTURE)
    above = [figures.row for figures in all_figures if not figures.holds]
    if above:
        sys.exit("bench: above the bar: %s" % ", ".join(above))


def try_each(program):
    runs = program.run("", 0.001)
    print("%d benchmarks of %d rows: no error" % (len(runs), len(program.rows)))


# --- Instructions ----------------------------------------------------------------------------------------------


def toolchain(build):
    """The counts are those of one compiler and one C library."""
    [file] = pathlib.Path(build, "CMakeFiles").glob("*/CMakeCXXCompiler.cmake")
    version = dict(re.findall(r'set\((CMAKE_CXX_COMPILER_ID|CMAKE_CXX_COMPILER_VERSION) "(.*?)"\)', file.read_text()))
    return "%s %s, %s, %s" % (version["CMAKE_CXX_COMPILER_ID"], version["CMAKE_CXX_COMPILER_VERSION"],
                              " ".join(platform.libc_ver()), platform.machine())


def instructions_of(dump):
    """Those of the code that is compared, and those of all that it calls: the C library and the host."""
    own = others = 0
    is_own = is_host = is_call = False
    for line in dump.read_text(encoding="utf-8").splitlines():
        key, _, value = line.partition("=")
        if key == "ob":
            is_own = value.endswith(("/libWindows.so.0", "/windows_bench"))
        elif key == "fn":
            is_host = value.startswith("CLogger::")
        elif key == "calls":
            is_call = True  # the next line has what it costs in all, which is counted where it arises
        elif re.match(r"[+*\-\d]", line):
            count = 0 if is_call else int(line.split()[1])
            is_call = False
            if is_own and not is_host:
                own += count
            else:
                others += count
    return own, others


def count_turns(program, operations, turns):
    """Of each row and column of these operations: what so many turns take."""
    # The C library's functions for processors of any kind, so that the machine makes no difference.
    plain = "glibc.cpu.hwcaps=" + ",".join("-" + feature for feature in ("AVX2", "AVX2_Usable", "AVX512F", "ERMS",
                                                                        "FSRM", "BMI2", "LZCNT"))
    with tempfile.TemporaryDirectory() as folder:
        # A dump holds what ran since the one before: each second one is a loop from its beginning to its end.
        command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=%s/dump" % folder, "--compress-strings=no",
                   "--dump-before=benchmark::State::StartKeepRunning()",
                   "--dump-before=benchmark::State::FinishKeepRunning()",
                   program.path, "--benchmark_filter=^(%s)<(Library|Floor)>" % "|".join(operations)]
        output = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                timeout=LIMIT, env=dict(os.environ, GLIBC_TUNABLES=plain, WINDOWS_BENCH_TURNS=str(turns)))
        ran = [parse(name.replace("/iterations:%d" % turns, ""))
               for name in re.findall(r"^\w+<\S+", output.stdout, re.MULTILINE)]
        if len(list(pathlib.Path(folder).iterdir())) != 2 * len(ran) + 1:
            sys.exit("bench: callgrind did not see the loop of each of %s once" % ", ".join(operations))
        return {(benchmark.row, benchmark.column): instructions_of(pathlib.Path(folder, "dump.%d" % (2 * i + 2)))
                for i, benchmark in enumerate(ran)}


def count_instructions(program):
    """{row: (the library's own, those of what it calls, the floor's own, those of what that calls)} for one turn: the
    difference between few turns and many leaves out what only the first ones do."""
    counts = {}
    for operations, few, many in (COUNTED, 1000, 3000), (COUNTED_LARGE, 10, 30):
        before, after = count_turns(program, operations, few), count_turns(program, operations, many)
        for row, column in after:
            counts[row, column] = tuple((b - a) / (many - few) for a, b in zip(before[row, column], after[row, column]))
    return {row: counts[row, "Library"] + counts[row, "Floor"]
            for row in program.ordered_rows() if (row, "Library") in counts}


def judge_instructions(program, origin):
    written, *lines = INSTRUCTIONS.read_text(encoding="utf-8").splitlines()
    before = {row: (float(own), float(called)) for row, own, called, *_ in map(str.split, lines)}
    grown = []
    for row, (own, called, *_) in count_instructions(program).items():
        own_before, called_before = before.get(row, (0, 0))
        print("%-22s %9.1f instructions of its own (%.1f), %9.1f of what it calls (%.1f)" %
              (row, own, own_before, called, called_before))
        total_has_grown = own + called > (own_before + called_before) * GROWTH + ONCE
        if own > own_before * GROWTH or (total_has_grown and row not in SEARCHES):
            grown.append(row)
    if written != "# " + origin:
        print("bench: %s were counted with %s, which is not the toolchain here: nothing is judged" %
              (INSTRUCTIONS.name, written[2:]), file=sys.stderr)
    elif grown:
        sys.exit("bench: more instructions than before: %s (--instructions --update accepts them)" % ", ".join(grown))


def update_instructions(program, origin):
    counts = count_instructions(program)
    lines = ["# " + origin] + [" ".join((row, *("%.1f" % number for number in numbers))) for row, numbers in counts.items()]
    INSTRUCTIONS.write_text("\n".join(lines) + "\n", encoding="utf-8")
    print("\n".join(lines))
    page = ["| Operation | Library | Floor | Ratio | Bar | Floor, in what it calls | Of all |", "|---|---|---|---|---|---|---|"]
    for row, (own, called, floor_own, floor_called) in counts.items():
        library, floor = own + called, floor_own + floor_called
        page.append("| `%s` | %.0f | %.0f | %.2f | %.2f | %.0f | %.2f |" %
                    (row, library, floor, library / floor, bar(row), floor_called, floor_called / floor))
    replace_between_markers("instructions", page + ["", "Counted with %s." % origin])


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
    program = Program(arguments.build)
    complaints = list(program.complaints())
    if complaints:
        sys.exit("bench: " + "; ".join(complaints))
    origin = toolchain(arguments.build)
    if arguments.quick:
        try_each(program)
    elif arguments.update:
        update_instructions(program, origin)
    elif arguments.instructions:
        judge_instructions(program, origin)
    else:
        time(program, arguments.rows, arguments.rounds, origin)


if __name__ == "__main__":
    main()
