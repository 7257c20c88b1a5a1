#!/usr/bin/env python3
"""Installs the library and builds tests/consumer against it, in each way that a user has.

usage: install.py --build DIR [unittest arguments]

The consumer is built with the compiler and the flags of DIR and run where it was built.
"""
import argparse
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parent.parent.parent
CONSUMER = SOURCE / "tests/consumer"
OUTPUT = "message 7 with 4711\n"
EMULATOR = shlex.split(os.environ.get("WINDOWS_TEST_EMULATOR", ""))
TAKEN_OVER = ("CMAKE_TOOLCHAIN_FILE", "CMAKE_CXX_FLAGS", "CMAKE_EXE_LINKER_FLAGS")

BUILD = None


def run(*command, **environment):
    """What the command prints."""
    result = subprocess.run([str(word) for word in command], env={**os.environ, **environment}, text=True,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    if result.returncode != 0:
        raise AssertionError(f"{shlex.join(map(str, command))}: status {result.returncode}\n{result.stdout}")
    return result.stdout


def variables():
    """What a consumer has to share with the build."""
    compiler, = (BUILD / "CMakeFiles").glob("*/CMakeCXXCompiler.cmake")
    result = {"CMAKE_CXX_COMPILER": re.search(r'CMAKE_CXX_COMPILER "(.*)"', compiler.read_text()).group(1)}
    for name, value in re.findall(r"^(\w+):\w+=(.*)$", (BUILD / "CMakeCache.txt").read_text(), re.MULTILINE):
        if name in TAKEN_OVER and value:
            result[name] = value
    return result


def install(prefix, *options):
    run("cmake", "--install", BUILD, "--prefix", prefix, *options)
    return prefix


def files(prefix):
    return {str(path.relative_to(prefix)) for path in prefix.rglob("*") if not path.is_dir()}


class Installed(unittest.TestCase):
    def setUp(self):
        if not (BUILD / "WindowsConfig.cmake").exists():
            self.skipTest("built without WINDOWS_INSTALL")
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.prefix = self.folder / "installed"

    def check(self, program, **environment):
        self.assertEqual(run(*EMULATOR, program, **environment), OUTPUT)

    def check_cmake(self, *options):
        build = self.folder / "build"
        run("cmake", "-G", "Ninja", "-S", CONSUMER, "-B", build, *options,
            *(f"-D{name}={value}" for name, value in variables().items()))
        run("cmake", "--build", build, "--target", "consumer")
        self.check(build / "consumer")

    def check_pkg_config(self, prefix):
        library, = prefix.rglob("libWindows.so.0")
        words = run("pkg-config", "--cflags", "--libs", "libwindows-reference-host",
                    PKG_CONFIG_LIBDIR=str(library.parent / "pkgconfig"))
        program = self.folder / "consumer"
        flags = variables()
        run(flags["CMAKE_CXX_COMPILER"], *shlex.split(flags.get("CMAKE_CXX_FLAGS", "")), CONSUMER / "consumer.cpp",
            "-o", program, *shlex.split(words), *shlex.split(flags.get("CMAKE_EXE_LINKER_FLAGS", "")),
            f"-Wl,-rpath,{library.parent}")
        self.check(program)

    def moved(self):
        """A tree that is not where it was installed."""
        return install(self.prefix).rename(self.folder / "moved to here")

    def test_find_package(self):
        self.check_cmake(f"-DCMAKE_PREFIX_PATH={install(self.prefix)}")

    def test_find_package_in_a_tree_that_was_moved(self):
        self.check_cmake(f"-DCMAKE_PREFIX_PATH={self.moved()}")

    def test_pkg_config(self):
        self.check_pkg_config(install(self.prefix))

    def test_pkg_config_in_a_tree_that_was_moved(self):
        self.check_pkg_config(self.moved())

    def test_add_subdirectory(self):
        self.check_cmake(f"-DWINDOWS_SOURCE={SOURCE}")

    def test_what_is_installed_does_not_know_where(self):
        for path in install(self.prefix).rglob("*"):
            for folder in (self.folder, SOURCE):
                if path.suffix in (".cmake", ".pc", ".h"):
                    self.assertNotIn(str(folder), path.read_text(), path)

    def test_what_each_component_is(self):
        runtime, development, examples = (
            files(install(self.folder / name, "--component", name)) for name in ("runtime", "development", "examples"))
        headers = {f"include/libwindows/{path.relative_to(SOURCE)}"
                   for folder in ("Windows", "host", "reference_host") for path in (SOURCE / folder).glob("*.h")}
        self.assertEqual({os.path.basename(name) for name in runtime}, {"libWindows.so.0"})
        self.assertEqual({name for name in development if name.endswith(".h")}, headers)
        self.assertEqual(examples, {"bin/frame_server", "bin/frame_client"})
        self.assertEqual(files(install(self.prefix)), runtime | development | examples)


def main():
    global BUILD
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0], add_help=False)
    parser.add_argument("--build", required=True, metavar="DIR")
    options, rest = parser.parse_known_args()
    BUILD = pathlib.Path(options.build).resolve()
    unittest.main(argv=[sys.argv[0], *rest])


if __name__ == "__main__":
    main()
