#!/usr/bin/env python3
"""Says in words where the product's folders are not such as a device's platform can compile them.

    seam.py words TREE
        looks at what headers and sources include, ask for and name
    seam.py .h|.cpp TREE COMPILER [OPTION ..]
        compiles each header, or each source, by itself against the platform's headers and no
        others, without a name from the build
"""

import concurrent.futures
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
# A folder of the product, and the folders whose headers it may know beside its own.
FOLDERS = {
    "interfaces": [],
    "helper": [],
    "util": [],
    "session": ["helper"],
    "framesource": ["session", "util"],
}
STANDARD = set("""
    algorithm any array atomic bitset cassert cctype cerrno cfenv cfloat charconv chrono
    cinttypes climits clocale cmath codecvt complex condition_variable csetjmp csignal
    cstdarg cstddef cstdint cstdio cstdlib cstring ctime cuchar cwchar cwctype deque
    exception execution filesystem forward_list fstream functional future initializer_list
    iomanip ios iosfwd iostream istream iterator limits list locale map memory
    memory_resource mutex new numeric optional ostream queue random ratio regex
    scoped_allocator set shared_mutex sstream stack stdexcept streambuf string string_view
    strstream system_error thread tuple type_traits typeindex typeinfo unordered_map
    unordered_set utility valarray variant vector
""".split())
ASKS = Path("session/ProcessorClones.h")  # the one header that may ask what it is compiled for
MAY_ASK = re.compile(
    r"defined|__has_feature|thread_sanitizer|__x86_64__|__SANITIZE_THREAD__|FDSTREAM_PLAIN_CODE")
PLATFORM = re.compile(
    r"__ANDROID\w*|ANDROID_API\w*|__BIONIC__|__linux__|__GLIBC\w*|_LIBCPP\w*|__aarch64__|__arm__"
    r"|__x86_64__|__clang\w*|__GNUC\w*|__SANITIZE\w*|__builtin_cpu_\w+|getauxval|uname")
HOST_ONLY = {
    "host": "the stand-in's own namespace",
    "checkedSize": "a function of the stand-in's hidl_vec",
    "closeOwn": "a function of the stand-in's hidl_handle",
    "FRIEND_TEST": "a hook for tests",
    "testing": "a hook for tests",
}
WARNINGS = "-Wall -Wextra -Wpedantic -Wundef -Werror".split()
SKIPPED = 77


def files_of(tree, suffixes=(".h", ".cpp")):
    """(folder, path below the tree) of each file of the product."""
    for folder in FOLDERS:
        for path in sorted((tree / folder).rglob("*")):
            if path.suffix in suffixes:
                yield folder, path.relative_to(tree)


def without_comments(text):
    """Has blanks for comments and for what is in quotes, but not for the names of headers."""
    token = re.compile(
        r'(^[ \t]*#[ \t]*include[^\n]*)|//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', re.S | re.M)
    return token.sub(lambda match: match[1] or re.sub(r"[^\n]", " ", match[0]), text)


def include_fault(tree, folder, allowed, operand):
    match = re.match(r'(<(.+)>|"(.+)")\s*(//.*)?$', operand)
    if not match:
        return f"includes {operand}, whose name cannot be read here"
    name = match[2] or match[3]
    if match[2]:
        if name in STANDARD or name in allowed:
            return None
        return f"includes <{name}>, which is neither the standard library's nor in headers.txt"
    if any((tree / room / name).is_file() for room in [folder] + FOLDERS[folder]):
        return None
    known = " and ".join([folder] + FOLDERS[folder])
    return f'includes "{name}", which is in no folder that it may know ({known})'


def directive_fault(path, directive, operand):
    if directive in ("define", "undef", "include") or (directive, operand) == ("pragma", "once"):
        return None
    if directive == "pragma":
        return f"speaks to one compiler (#pragma {operand})"
    if path != ASKS:
        return f"asks what it is compiled for (#{directive} {operand}), which only {ASKS} may"
    asked = [word for word in re.findall(r"[A-Za-z_]\w*", operand) if not MAY_ASK.fullmatch(word)]
    if not asked:
        return None
    return f"asks for {', '.join(asked)}; it may ask for the processor and the thread sanitizer"


def name_faults(path, line):
    for word in re.findall(r"[A-Za-z_]\w*", line):
        if word in HOST_ONLY:
            yield f"names {word}, {HOST_ONLY[word]}"
        elif PLATFORM.fullmatch(word) and path != ASKS:
            yield f"asks for the platform it runs on ({word}), which only {ASKS} may"


def line_faults(tree, folder, path, line, allowed):
    directive = re.match(r"\s*#\s*(\w+)\s*(.*?)\s*$", line)
    if directive and directive[1] == "include":
        yield include_fault(tree, folder, allowed, directive[2])
    elif directive and directive[1] != "define":
        yield directive_fault(path, directive[1], directive[2])
    else:
        yield from name_faults(path, line)


def word_faults(tree):
    lines = (HERE / "headers.txt").read_text().splitlines()
    allowed = {line for line in lines if line and not line.startswith("#")}
    for folder, path in files_of(tree):
        text = without_comments((tree / path).read_text())
        for number, line in enumerate(text.splitlines(), 1):
            for fault in filter(None, line_faults(tree, folder, path, line, allowed)):
                yield f"{path}:{number} {fault}."


def include_options(tree, folder):
    rooms = [room for room in [folder] + FOLDERS[folder] if room != "interfaces"]
    return [f"-I{tree / room}" for room in ["platform/include", "interfaces/include"] + rooms]


def run(command, text):
    return subprocess.run(command, input=text, capture_output=True, text=True)


def compile_fault(tree, compiler, folder, path):
    """What the compiler says to a file that includes this one and nothing else."""
    command = [*compiler, "-std=c++17", "-fno-exceptions", "-fno-rtti", "-fsyntax-only", *WARNINGS,
               *include_options(tree, folder), "-x", "c++", "-"]
    done = run(command, f'#include "{tree / path}"\n')
    return f"{path} does not compile by itself:\n{done.stderr}" if done.returncode != 0 else None


def compile_faults(tree, suffix, compiler):
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        tries = [pool.submit(compile_fault, tree, compiler, *file)
                 for file in files_of(tree, [suffix])]
        yield from filter(None, (one.result() for one in tries))


def has_its_library(compiler):
    with tempfile.TemporaryDirectory() as folder:
        command = [*compiler, "-x", "c++", "-", "-o", f"{folder}/program"]
        return run(command, "#include <string>\nint main() {}\n").returncode == 0


def main():
    if len(sys.argv) < 3 or sys.argv[1] not in ("words", ".h", ".cpp"):
        print(__doc__, file=sys.stderr)
        return 2
    what, tree, compiler = sys.argv[1], Path(sys.argv[2]).resolve(), sys.argv[3:]
    if what != "words" and not has_its_library(compiler):
        print(f"Nothing was compiled: {' '.join(compiler)} does not find its standard library.")
        return SKIPPED
    faults = list(word_faults(tree) if what == "words" else compile_faults(tree, what, compiler))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
