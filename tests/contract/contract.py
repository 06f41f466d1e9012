#!/usr/bin/env python3
"""Reads a built library, of any processor, and says in words what its users would miss.

    contract.py implementation|interface LIBRARY --needs SONAME ...

The names are in implementation.txt and interface.txt beside this script. Needs a readelf, and what
makes C++ names readable; with an objdump (--objdump) it also looks at the rotation on 64-bit Arm.
"""

import argparse
import collections
import re
import shutil
import subprocess
import sys
from pathlib import Path

import arm_loops

HERE = Path(__file__).resolve().parent
PACKAGE = "vendor::zoru::zoruprovider::fdstream::V1_0"
KINDS = {  # of library: its name, the scope of what it exports, and whether it exports nothing else
    "implementation":
        ("vendor.zoru.zoruprovider.fdstream@1.0-impl.so", f"{PACKAGE}::implementation::", True),
    "interface":
        ("vendor.zoru.zoruprovider.fdstream@1.0.so", f"{PACKAGE}::", False),
}
DEVICE_PATH = b"\0/data/zoru/fd_stream_subst_nv12.yuv\0"
# The C library, the standard library, and what those two lean on.
STANDARD = re.compile(
    r"(libc|libm|libstdc\+\+|libc\+\+|libc\+\+abi|libunwind|libgcc_s|ld-linux-[^.]*)\.so\.\d+")
SANITIZER = re.compile(
    r"lib(a|ub|t)san\.so\.\d+|libclang_rt\..*|_*(odr_)?(asan|ubsan|tsan|sancov|sanitizer)_.*")
Symbol = collections.namedtuple("Symbol", "kind binding section name")


def output_of(*command, text=None):
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def readable(names):
    """The names as they stand in the source, the same for every standard library."""
    tool = next(filter(None, map(shutil.which, ("c++filt", "llvm-cxxfilt", "llvm-cxxfilt-14"))))
    lines = output_of(tool, text="\n".join(names)).splitlines()
    return [re.sub(r"\bstd::(__\w+)::", "std::", line) for line in lines]


def symbols_of(readelf, library):
    """Its dynamic symbols, without versions and without a sanitizer's own."""
    rows = [line.split() for line in output_of(readelf, "--dyn-syms", "-W", library).splitlines()]
    rows = [row for row in rows
            if len(row) >= 8 and re.fullmatch(r"\d+:", row[0]) and row[3] != "SECTION"]
    names = readable([row[7].split("@")[0] for row in rows])
    return [Symbol(row[3], row[4], row[6], name) for row, name in zip(rows, names)
            if not SANITIZER.fullmatch(row[7].split("@")[0])]


def listed(kind):
    """How many symbols of which name are wanted."""
    wanted = {}
    for line in (HERE / f"{kind}.txt").read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        entry, reason = line.split(" | ")
        count, name = entry.split(" ", 1)
        assert reason.strip(), f"{kind}.txt has no reason for {name}"
        wanted[name] = int(count)
    return wanted


def name_faults(kind, symbols):
    _, scope, exactly = KINDS[kind]
    found = collections.Counter(
        symbol.name.replace(scope, "") for symbol in symbols if symbol.section != "UND")
    wanted = listed(kind)
    for name, count in wanted.items():
        if found[name] < count:
            yield (f"does not export {name}, which is part of the contract"
                   f" ({found[name]} of {count} symbols)")
    for name, count in found.items():
        if exactly and count > wanted.get(name, 0):
            yield f"exports {name} ({count} symbols), which {kind}.txt does not list"


def binding_faults(kind, symbols):
    for symbol in symbols:
        if symbol.binding == "UNIQUE":
            yield f"has the unique symbol {symbol.name}, which keeps it from being unloaded"
        elif kind == "implementation" and symbol.section != "UND" and symbol.binding == "WEAK":
            yield f"exports {symbol.name} as a weak symbol, which other libraries may bind to"
        if symbol.section == "UND" and re.match(r"(vtable for |typeinfo for )?host::", symbol.name):
            yield f"uses {symbol.name}, which a device does not have"


def dependency_faults(kind, readelf, library, needs):
    dynamic = output_of(readelf, "-d", "-W", library)
    soname = re.findall(r"SONAME.*\[(.*)\]", dynamic)
    if soname != [KINDS[kind][0]]:
        yield f"calls itself {soname}, and is looked for as {KINDS[kind][0]}"
    for needed in re.findall(r"NEEDED.*\[(.*)\]", dynamic):
        known = needed in needs or STANDARD.fullmatch(needed) or SANITIZER.fullmatch(needed)
        if not known:
            yield f"needs {needed}, which is neither its platform's nor the standard library's"


def path_faults(library):
    content = Path(library).read_bytes()
    if DEVICE_PATH not in content:
        yield "does not have the device's path of the test source's file"


def faults_of(arguments):
    symbols = symbols_of(arguments.readelf, arguments.library)
    kind = arguments.kind
    yield from dependency_faults(kind, arguments.readelf, arguments.library, arguments.needs)
    yield from name_faults(kind, symbols)
    yield from binding_faults(kind, symbols)
    if kind == "implementation":
        yield from path_faults(arguments.library)
        if arguments.objdump and "AArch64" in output_of(arguments.readelf, "-h", arguments.library):
            yield from arm_loops.faults_of(output_of(arguments.objdump, "-d", arguments.library))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("kind", choices=KINDS)
    parser.add_argument("library")
    parser.add_argument("--needs", nargs="*", default=[])
    parser.add_argument("--readelf", default="readelf")
    parser.add_argument("--objdump")
    arguments = parser.parse_args()
    try:
        faults = list(faults_of(arguments))
    except subprocess.CalledProcessError as error:
        faults = [f"cannot be read: {error.stderr.strip()}"]
    for fault in faults:
        print(f"{arguments.library} {fault}.")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
