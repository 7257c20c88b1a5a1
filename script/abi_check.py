#!/usr/bin/env python3
"""Compares a built libWindows.so.0 with what abi/ says, in words; docs/abi.md explains the files.

usage: abi_check.py [--update] LIBRARY

The library, with debug information, may be of any architecture that abi/ has a folder for. Prints the differences;
status 1 if there are any. --update writes the folder of its architecture anew instead.
"""
import argparse
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parent.parent
ABI = ROOT / "abi"
ARCHITECTURES = {"Advanced Micro Devices X86-64": "amd64", "Intel 80386": "i386", "PowerPC": "powerpc"}
SONAME = "libWindows.so.0"
NEEDED = {"libstdc++.so.6", "libgcc_s.so.1", "libm.so.6", "libc.so.6"}
LOADER = re.compile(r"ld-linux.*|ld\.so\.1")  # the loader itself, on architectures whose thread-local data needs it
STRING = "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >"
VA_LIST = ("__va_list_tag*", "char*", "void*", "std::__va_list")  # what va_list is, by architecture


def output(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def lines(path):
    return [line.rstrip() for line in path.read_text().splitlines() if line.strip() and line[0] != "#"]


# --- Symbols: abi/exports.txt and abi/imports.txt, the same for all architectures but for va_list, and
# --- abi/ARCHITECTURE/symbols.txt, as the linker sees them

def entries(name):
    """The names a list allows: {each spelling: entry}, and the entries that have to be there."""
    spellings, required = {}, []
    for line in lines(ABI / name):
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
    """The names of what the library exports and of what it imports from the host process, as the linker has them."""
    exported, imported = set(), set()
    for row in output("readelf", "-W", "--dyn-syms", library).splitlines():
        field = [part for part in row.split() if not part.startswith("[")]  # PowerPC tells of local entries there
        if len(field) < 8 or not field[0].rstrip(":").isdigit() or field[4] == "LOCAL":
            continue
        if field[6] != "UND":
            exported.add(field[7])
        elif field[4] != "WEAK" and "@" not in field[7]:  # a version means: from the C or C++ library
            imported.add(field[7])
    return exported, imported


def readable(names):
    return set(output("c++filt", text="\n".join(names)).splitlines())


def list_differences(what, have, name):
    spellings, required = entries(name)
    have = readable(have)
    found = {spellings[symbol] for symbol in have if symbol in spellings}
    for symbol in sorted(have - set(spellings)):
        yield f"{what} but not in abi/{name}: {symbol}"
    for entry in required:
        if entry not in found:
            yield f"in abi/{name} but not {what}: {entry}"


def symbol_lines(exported, imported):
    return [f"exports {name}" for name in sorted(exported)] + [f"imports {name}" for name in sorted(imported)]


def symbol_differences(was, now):
    for line in sorted(set(now) - set(was)):
        yield f"new: the library {line}"
    for line in sorted(set(was) - set(now)):
        yield f"gone: the library no longer {line}"


# --- Layout: abi/ARCHITECTURE/layout.txt

def public_classes():
    pattern = re.compile(r"^ *(?:class|struct)(?: WINDOWS_\w+(?:\([^)]*\))?)? (\w+)(?: :[^;]*)? \{", re.M)
    return {name for folder in ("Windows", "host") for header in sorted((ROOT / folder).glob("*.h"))
            for name in pattern.findall(header.read_text())}


def dump(library, *options):
    return output("abidw", *options, "--exported-interfaces-only", "--no-corpus-path", "--no-comp-dir-path",
                  "--no-show-locs", "--no-parameter-names", library)


def members(declaration):
    """What stands where in a class: (place, name) in order; places of functions are slots of the virtual table."""
    for member in declaration:
        offset = int(member.get("layout-offset-in-bits", -1)) // 8
        if member.tag == "data-member" and offset >= 0:
            yield f"{offset:6}", member[0].get("name") or "(value)"
        elif member.tag == "base-class" and offset >= 0:
            yield f"{offset:6}", "(base class)"
        elif member.tag == "member-function" and member.get("vtable-offset"):
            name = re.sub(r"\(.*", "", member[0].get("name"))
            yield f"slot {member.get('vtable-offset')}", name


def layout_lines(description):
    wanted, result = public_classes(), {}
    for declaration in xml.etree.ElementTree.fromstring(description).iter("class-decl"):
        name, size = declaration.get("name"), declaration.get("size-in-bits")
        if name in wanted and size:
            found = result.setdefault(name, {f"{name} {int(size) // 8} bytes": None})
            found.update(dict.fromkeys(f"{name} {place.strip()}: {member}" for place, member in members(declaration)))
    return [line for name in sorted(result) for line in result[name]]


def parsed(layout):
    sizes, places = {}, {}
    for line in layout:
        size = re.fullmatch(r"(\w+) (\d+) bytes", line)
        if size:
            sizes[size.group(1)] = size.group(2)
        else:
            owner, place, member = re.fullmatch(r"(\w+) (slot -?\d+|\d+): (.*)", line).groups()
            places[owner, member] = place
    return sizes, places


def kind(place):
    return "virtual function" if place.startswith("slot") else "field"


def layout_differences(was, now):
    (old_sizes, old_places), (sizes, places) = parsed(was), parsed(now)
    for name in sorted(old_sizes.keys() | sizes.keys()):
        if name not in sizes:
            yield f"class {name} is gone"
        elif name not in old_sizes:
            yield f"class {name} is new"
        elif sizes[name] != old_sizes[name]:
            yield f"class {name} had {old_sizes[name]} bytes and has {sizes[name]}"
    for (owner, member) in sorted(old_places.keys() | places.keys()):
        old, new = old_places.get((owner, member)), places.get((owner, member))
        if new is None:
            yield f"{kind(old)} {member} of {owner} is gone"
        elif old is None:
            yield f"{kind(new)} {member} of {owner} is new, at {new}"
        elif old != new:
            yield f"{kind(new)} {member} of {owner} moved from {old} to {new}"


# --- What else libabigail sees: abi/ARCHITECTURE/libWindows.abi, its dump of the public types and functions

HEADERS = [str(ROOT / "Windows"), str(ROOT / "host")]


def baseline(library):
    return dump(library, "--drop-private-types", "--headers-dir", HEADERS[0], "--headers-dir", HEADERS[1])


def interface_differences(folder, library):
    """Types of parameters and results, enumerators."""
    compared = subprocess.run(["abidiff", "--drop-private-types", "--exported-interfaces-only", "--headers-dir2",
                               HEADERS[0], "--headers-dir2", HEADERS[1], str(folder / "libWindows.abi"), library],
                              capture_output=True, text=True, check=False)
    if compared.returncode != 0:
        yield compared.stdout + compared.stderr


# --- All of it

def dynamic_differences(library):
    dynamic = output("readelf", "-W", "-d", library)
    soname = re.findall(r"\(SONAME\).*\[(.*)\]", dynamic)
    if soname != [SONAME]:
        yield f"the SONAME is {soname}, not {SONAME}"
    for extra in sorted(set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)) - NEEDED):
        if not LOADER.fullmatch(extra):
            yield f"needs another library: {extra}"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("library", metavar="LIBRARY")
    arguments = parser.parse_args()
    library = arguments.library
    machine = re.search(r"Machine: *(.*)", output("readelf", "-h", library)).group(1)
    folder = ABI / ARCHITECTURES[machine]
    exported, imported = symbols(library)
    symbol_list, layout = symbol_lines(exported, imported), layout_lines(dump(library))
    if arguments.update:
        folder.mkdir(exist_ok=True)
        (folder / "symbols.txt").write_text("\n".join(symbol_list) + "\n")
        (folder / "layout.txt").write_text("\n".join(layout) + "\n")
        (folder / "libWindows.abi").write_text(baseline(library))
    found = [*list_differences("exported", exported, "exports.txt"),
             *list_differences("imported", imported, "imports.txt"),
             *dynamic_differences(library),
             *symbol_differences(lines(folder / "symbols.txt"), symbol_list),
             *layout_differences(lines(folder / "layout.txt"), layout)]
    found = found or list(interface_differences(folder, library))
    print("\n".join(found) or f"abi: {library} is as abi/ says, for {folder.name}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
