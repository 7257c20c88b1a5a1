#!/usr/bin/env python3
"""Checks the Debian packages that script/package has built.

usage: package_check.py [ARCH...]          (default: amd64 i386 powerpc)

Looks at names, dependencies, contents, modes, symbols and debug information, and builds tests/consumer against the
unpacked packages. The programs of the demo then exchange README.md: those of amd64 from packages that dpkg has
installed in build/root, a clean minimal system, which needs root or sudo without a password; the others unpacked.
"""
import contextlib
import os
import pathlib
import random
import re
import shlex
import shutil
import socket
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parent.parent
CONSUMER = SOURCE / "tests/consumer"
ROOT = SOURCE / "build/root"
SUDO = [] if os.geteuid() == 0 else ["sudo", "-n"]
MULTIARCH = {"amd64": "x86_64-linux-gnu", "i386": "i386-linux-gnu", "powerpc": "powerpc-linux-gnu"}
C_LIBRARIES = {"libc6", "libgcc-s1", "libstdc++6"}
DEPENDENCIES = {
    "libwindows0": C_LIBRARIES, "libwindows0-dbgsym": {"libwindows0"}, "libwindows-dev": {"libwindows0"},
    "libwindows-examples": C_LIBRARIES | {"libwindows0"}, "libwindows-examples-dbgsym": {"libwindows-examples"}}


def run(*command, **options):
    """What the command prints; its errors go where this program's go."""
    words = [str(word) for word in command]
    result = subprocess.run(words, stdout=subprocess.PIPE, text=True, check=False, stdin=subprocess.DEVNULL, **options)
    require(result.returncode == 0, f"{shlex.join(words)}: status {result.returncode}\n{result.stdout}")
    return result.stdout


def require(condition, what):
    if not condition:
        sys.exit(f"package_check: {what}")


def require_equal(have, want, what):
    require(have == want, f"{what}: {have}, not {want}")


class Packages:
    """The packages of one architecture, and the folder into which they are unpacked."""

    def __init__(self, architecture):
        self.architecture = architecture
        self.build = SOURCE / f"build/package-{architecture}"
        self.files = {path.name.split("_")[0]: path for path in sorted(self.build.glob("*.deb"))}
        self.tree = self.build / "tree"
        self.libraries = self.tree / "usr/lib" / MULTIARCH[architecture]
        self.library = self.libraries / "libWindows.so.0"
        self.programs = [self.tree / "usr/bin" / name for name in ("frame_server", "frame_client")]

    def unpack(self):
        require_equal(set(self.files), set(DEPENDENCIES), f"packages in {self.build}")
        shutil.rmtree(self.tree, ignore_errors=True)
        for path in self.files.values():
            run("dpkg-deb", "-x", path, self.tree)

    def check_control(self):
        for name, path in self.files.items():
            fields = dict(re.findall(r"^(\S+): (.*)$", run("dpkg-deb", "-f", path), re.MULTILINE))
            require_equal((fields["Package"], fields["Architecture"]), (name, self.architecture), f"fields of {path}")
            require_equal(path.name, f"{name}_{fields['Version']}_{self.architecture}.deb", "the file's name")
            needs = dict(re.findall(r"([^ ,]+) \((.*?)\)", fields["Depends"]))  # each one with a version
            require_equal(set(needs), DEPENDENCIES[name], f"dependencies of {path}")
            require_equal(len(fields["Depends"].split(",")), len(needs), f"number of dependencies of {path}")
            for own in set(needs) - C_LIBRARIES:
                require_equal(needs[own], f"= {fields['Version']}", f"{path} depends on {own}")

    def check_files(self):
        for name, path in self.files.items():
            for line in run("dpkg-deb", "-c", path).splitlines():
                mode, owner, _, _, _, file = line.split(maxsplit=5)
                executable = file.startswith("./usr/bin/") or name.endswith("-dbgsym") or mode[0] == "d"
                expected = "lrwxrwxrwx" if mode[0] == "l" else mode[0] + ("rwxr-xr-x" if executable else "rw-r--r--")
                require_equal((mode, owner), (expected, "root/root"), f"{path}: {file}")
                require("internal" not in file, f"{path} has {file}")
        require((self.libraries / "libWindows.so").is_symlink(), "no link libWindows.so")

    def check_symbols(self):
        run(SOURCE / "script/abi_check.py", self.build / "libWindows.so.0")  # which still has its debug information
        path = self.files["libwindows0"]
        require_equal(run("dpkg-deb", "-I", path, "triggers"), "activate-noawait ldconfig\n", "triggers")
        head, *symbols = run("dpkg-deb", "-I", path, "symbols").splitlines()
        require_equal(head, "libWindows.so.0 libwindows0 #MINVER#", "head of the symbols file")
        exported = re.findall(r" (?:GLOBAL|WEAK) +DEFAULT +\d+ (\S+)$", run("readelf", "-W", "--dyn-syms", self.library),
                              re.MULTILINE)
        listed = {line.split("@")[0].strip() for line in symbols}
        require_equal(listed ^ set(exported), set(), "exported or in the symbols file, but not both")

    def check_objects(self):
        require("SONAME) Library soname: [libWindows.so.0]" in re.sub(" +", " ", run("readelf", "-d", self.library)),
                "the library has another SONAME")
        for path in (self.library, *self.programs):
            text = run("readelf", "-W", "-d", "-l", "-S", "-n", path)
            require(not re.search(r"RPATH|RUNPATH", text), f"{path} has a run path")
            require("GNU_RELRO" in text, f"{path} is not hardened")
            require(".debug_info" not in text and ".symtab" not in text, f"{path} is not stripped")
            build_id = re.search(r"Build ID: (\w+)", text).group(1)
            debug = self.tree / f"usr/lib/debug/.build-id/{build_id[:2]}/{build_id[2:]}.debug"
            require(".debug_info" in run("objdump", "-h", debug), f"{debug} has no debug information")
        require("__stack_chk_fail" in run("readelf", "-W", "--dyn-syms", self.library), "no stack protector")

    def runner(self):
        """What runs a program with the unpacked library."""
        if self.architecture == "powerpc":
            return [SOURCE / "cmake/toolchains/run-powerpc", "-E", f"LD_LIBRARY_PATH={self.libraries}"]
        if self.architecture == "i386":
            cross = "/usr/i686-linux-gnu/lib"
            return [f"{cross}/ld-linux.so.2", "--library-path", f"{cross}:{self.libraries}"]
        return ["env", f"LD_LIBRARY_PATH={self.libraries}"]

    def check_development(self):
        build = self.build / "consumer"
        shutil.rmtree(build, ignore_errors=True)
        toolchain = SOURCE / f"cmake/toolchains/{self.architecture}.cmake"
        run("cmake", "-G", "Ninja", "-S", CONSUMER, "-B", build, f"-DWindows_DIR={self.libraries}/cmake/Windows",
            *([f"-DCMAKE_TOOLCHAIN_FILE={toolchain}"] if toolchain.exists() else []))
        run("cmake", "--build", build)
        require_equal(run(*self.runner(), build / "consumer"), "message 7 with 4711\n", "the consumer's output")


def free_port():
    """Below those that the system hands out by itself."""
    while True:
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.bind(("127.0.0.1", random.randrange(20000, 32000)))
            return probe.getsockname()[1]


def exchange(folder, seen_as, command):
    """Has the programs exchange a text; they see the folder under another name, perhaps."""
    text = (SOURCE / "README.md").read_text()
    (folder / "text").write_text(text)
    (folder / "services").write_text(f"demo 127.0.0.1 {free_port()}\n")
    options = ["--services", f"{seen_as}/services", "--service", "demo"]
    limited = ["timeout", "-k", "5", "120"]
    words = [str(word) for word in [*limited, *command("frame_server"), *options]]
    with subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as server:
        try:
            require(server.stdout.readline().startswith("listening on 127.0.0.1:"), "the server does not listen")
            output = run(*limited, *command("frame_client"), *options, f"{seen_as}/text")
        finally:
            server.terminate()
    count = sum(1 for line in text.splitlines() if line)
    require_equal(output.splitlines()[-1], f"{count} lines sent, {count} replies received, 0 mismatches", "the client")
    require_equal(server.returncode, 0, "status of the server")


def make_root():
    """A minimal system of this machine's suite, fetched once and unpacked each time."""
    archive = ROOT.with_suffix(".tar")
    if not archive.exists():
        suite = re.search("^VERSION_CODENAME=(.*)$", pathlib.Path("/etc/os-release").read_text(), re.MULTILINE).group(1)
        targets = run("apt-get", "indextargets", "--format", "$(SITE) $(CODENAME)", "Created-By: Packages")
        mirror = next(line.split()[0] for line in targets.splitlines() if line.split()[1] == suite)
        partial = archive.with_suffix(".partial.tar")
        run(*SUDO, "mmdebstrap", "--quiet", "--variant=essential", "--include=libstdc++6", suite, partial, mirror)
        partial.rename(archive)
    run(*SUDO, "rm", "-rf", ROOT)
    ROOT.mkdir()
    run(*SUDO, "tar", "-x", "-f", archive, "-C", ROOT, "--exclude=./dev/*")


def check_installed(packages):
    """With dpkg, in a clean root; nothing is left of them when they are removed."""
    inside = [*SUDO, "chroot", ROOT]
    make_root()
    for path in packages.files.values():
        run(*SUDO, "cp", path, ROOT / "tmp")
    run(*inside, "sh", "-c", "dpkg -i /tmp/*.deb")
    require("libWindows.so.0 " in run(*inside, "/sbin/ldconfig", "-p"), "the loader does not know the library")
    exchange(ROOT / "tmp", "/tmp", lambda name: [*inside, name])
    run(*inside, "dpkg", "--purge", *DEPENDENCIES)
    require("libWindows" not in run(*inside, "/sbin/ldconfig", "-p"), "the loader still knows the library")


def check(architecture):
    packages = Packages(architecture)
    packages.unpack()
    packages.check_control()
    packages.check_files()
    packages.check_symbols()
    packages.check_objects()
    packages.check_development()
    if architecture == "amd64":
        check_installed(packages)
    else:
        exchange(packages.build, packages.build,
                 lambda name: [*packages.runner(), packages.tree / "usr/bin" / name])
    print(f"package_check: the packages for {architecture} are right")


def main():
    if {"-h", "--help"} & set(sys.argv[1:]):
        print(__doc__.strip())
        return
    for architecture in sys.argv[1:] or MULTIARCH:
        require(architecture in MULTIARCH, f"unknown architecture {architecture} (see --help)")
        check(architecture)


if __name__ == "__main__":
    main()
