#!/usr/bin/env python3
"""Holds the platform tree's build files against the sources and against how this build compiles them.

    android_bp.py COMPILE_COMMANDS.json
"""

import collections
import json
import re
import shlex
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
IMPLEMENTATION = "vendor.zoru.zoruprovider.fdstream@1.0-impl"
PRODUCT = ("framesource", "helper", "session", "util")
# What decides how the product may behave, of all flags.
DECIDING = re.compile(r"-f(no-)?(exceptions|rtti|visibility.*|unwind-tables|asynchronous-unwind-tables)|-std=.*")

Module = collections.namedtuple("Module", "kind file values")


def modules_of(path):
    """A file's modules. A property has text, yes or no, or a list of texts."""
    text = re.sub(r"//.*", "", path.read_text())
    modules = re.findall(r"(\w+) \{\n(.*?)\n\}", text, re.S)
    for kind, body in modules:
        values = {}
        for name, one, many in re.findall(r'^    (\w+): (?:("[^"]*"|true|false)|\[(.*?)\]),$', body, re.M | re.S):
            values[name] = re.findall(r'"([^"]*)"', many) if many else one.strip('"')
        yield Module(kind, path, values)


def file_faults(modules):
    """Each source in one module, each file that is listed there."""
    listed = collections.Counter()
    for module in modules:
        for name in [*module.values.get("srcs", []), module.values.get("version_script")]:
            if name is None:
                continue
            path = module.file.parent / name
            listed[path] += 1
            if not path.is_file():
                yield f"{module.values['name']} lists {name}, which is not there"
    sources = [path for room in PRODUCT for path in (ROOT / room).rglob("*.cpp")]
    for source in [*sources, *(ROOT / "interfaces").rglob("*.hal")]:
        if listed[source] != 1:
            yield f"{source.relative_to(ROOT)} is in {listed[source]} modules, not in one"


def flag_faults(implementation, commands):
    values = implementation.values
    if values.get("version_script") != "cmake/product.map":
        yield "what the library exports is not what cmake/product.map says"
    here = set(values["cflags"]) | {"-std=" + values["cpp_std"]}
    here |= {"-fno-rtti"} if values["rtti"] == "false" else set()
    sources = {(ROOT / source).resolve() for source in values["srcs"]}
    for command in json.loads(Path(commands).read_text()):
        source = Path(command["file"]).resolve()
        if source not in sources:
            continue
        sources.remove(source)
        there = set(shlex.split(command["command"]))
        for flag in sorted(filter(DECIDING.fullmatch, here ^ there)):
            yield f"{source.name}: {flag} is only in {'Android.bp' if flag in here else 'the build here'}"
    for source in sources:
        yield f"{source.name} is not compiled by the build here"


def import_faults(modules):
    """A definition imports only from the packages that its module names."""
    for module in modules:
        if module.kind != "hidl_interface":
            continue
        name = module.values["name"]
        text = "".join((module.file.parent / source).read_text() for source in module.values["srcs"])
        if f"package {name};" not in text:
            yield f"{name} is not the package of its files"
        wanted = set(re.findall(r"^import ([\w.]+@\d+\.\d+)", text, re.M)) - {name}
        if missing := wanted - set(module.values.get("interfaces", [])):
            yield f"{name} imports {', '.join(sorted(missing))}, which its interfaces leave out"


def main():
    modules = [module for path in [ROOT / "Android.bp", *(ROOT / "interfaces").rglob("Android.bp")]
               for module in modules_of(path)]
    implementation = next(m for m in modules if m.values["name"] == IMPLEMENTATION)
    faults = [*file_faults(modules), *flag_faults(implementation, sys.argv[1]), *import_faults(modules)]
    exported = set(implementation.values["export_shared_lib_headers"])
    faults += [f"{name} is exported and not linked"
               for name in sorted(exported - set(implementation.values["shared_libs"]))]
    print("\n".join(faults) or f"{len(modules)} modules agree with the sources and with this build")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
