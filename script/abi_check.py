#!/usr/bin/env python3
"""Compares a built libWindows.so.0 with abi/exports.txt and abi/imports.txt; checks its SONAME and NEEDED.

usage: abi_check.py LIBRARY

Prints the differences; status 1 if there are any.
"""
import pathlib
import re
import subprocess
import sys

ABI = pathlib.Path(__file__).resolve().parent.parent / "abi"
SONAME = "libWindows.so.0"
NEEDED = {"libstdc++.so.6", "libgcc_s.so.1", "libm.so.6", "libc.so.6"}
STRING = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
VA_LIST = ("__va_list_tag*", "char*", "void*", "std::__va_list")  # what va_list is, by architecture


def output(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def lines(name):
    return [line.strip() for line in (ABI / name).read_text().splitlines() if line.strip() and line[0] != "#"]


def entries(name):
    """The names a list allows: {each spelling: entry}, and the entries that have to be there."""
    spellings, required = {}, []
    for line in lines(name):
        entry = re.sub(r'^optional-weak ', "", line)
        if entry.startswith('extern "C" '):
            entry = re.match(r"[^(]*?(\w+)\(", entry).group(1)
        elif entry.startswith("data "):
            entry = entry.split()[-1]
        if not line.startswith("optional-weak "):
            required.append(entry)
        for va_list in VA_LIST:
            spellings[entry.replace("std::string", STRING).replace("va_list", va_list)] = entry
    return spellings, required


def symbols(library):
    """The demangled names of what the library defines and of what it wants from the host process."""
    defined, wanted = [], []
    for row in output("readelf", "-W", "--dyn-syms", library).splitlines():
        field = row.split()
        if len(field) < 8 or not field[0].rstrip(":").isdigit() or field[4] == "LOCAL":
            continue
        if field[6] != "UND":
            defined.append(field[7])
        elif field[4] != "WEAK" and "@" not in field[7]:  # a version means: from the C or C++ library
            wanted.append(field[7])
    return [set(output("c++filt", text="\n".join(names)).splitlines()) for names in (defined, wanted)]


def compare(what, have, name):
    spellings, required = entries(name)
    found = {spellings[symbol] for symbol in have if symbol in spellings}
    for symbol in sorted(have - set(spellings)):
        yield f"{what} but not in abi/{name}: {symbol}"
    for entry in required:
        if entry not in found:
            yield f"in abi/{name} but not {what}: {entry}"


def differences(library):
    defined, wanted = symbols(library)
    yield from compare("exported", defined, "exports.txt")
    yield from compare("imported", wanted, "imports.txt")

    dynamic = output("readelf", "-W", "-d", library)
    soname = re.findall(r"\(SONAME\).*\[(.*)\]", dynamic)
    if soname != [SONAME]:
        yield f"the SONAME is {soname}, not {SONAME}"
    for extra in sorted(set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)) - NEEDED):
        yield f"needs another library: {extra}"


def main():
    if len(sys.argv) != 2 or sys.argv[1] in ("-h", "--help"):
        print(__doc__.strip())
        return 0 if len(sys.argv) == 2 else 2
    found = list(differences(sys.argv[1]))
    print("\n".join(found) or f"abi: {sys.argv[1]} is as abi/ says")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
