#!/usr/bin/env python3
"""Plants faults in a copy of the tree, one at a time, and shows which test notices each of them.

The faults stand in the *.txt files beside this script. An entry is a block of lines:

    [name] path/of/the/file.cpp
    What the fault is, in one line.
    tests: host ServerTest.*          (optional: a preset and a test filter, or a fuzzer, as
                                      Fuzz.mapper, tried first)
    unseen: why nobody can see it     (optional: then it is planted only when it is named)
    - text that is found exactly once in the file
    + text that takes its place

Several "-" lines are one text, in which white space stands for any white space; without "+" lines
it is taken out. A line "..." separates two places of the file. An entry ends with an empty line;
lines that begin with # are comments.
"""

import argparse
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TREES = ROOT / "build" / "faults"
SHORTEST_SILENCE = 60  # seconds; tests that say nothing for so long hang
NOT_COPIED = {".git", "build", "out"}
# The quick tests: all but those of the client's tool, which take seconds and test little else.
QUICK = "-ClientToolTest.*"
# Of the session and its model: some faults are seen by one of thousands only.
MORE_SEQUENCES = {"FDSTREAM_MODEL_SEQUENCES": "5000"}
JOBS = os.cpu_count() or 1


class BrokenEntry(Exception):
    pass


@dataclass
class Fault:
    name: str
    path: str
    what: str = ""
    preset: str = "host"
    filter: str = ""
    unseen: str = ""
    places: list = field(default_factory=list)  # of [text to find, text in its place]


def parse(path):
    """The entries of one file."""
    faults, fault, last = [], None, ""
    for number, line in enumerate(path.read_text().splitlines() + [""], 1):
        if line.startswith("#"):
            continue
        if head := re.fullmatch(r"\[([\w-]+)\] (\S+)", line):
            fault, last = Fault(head[1], head[2]), ""
            faults.append(fault)
        elif not line:
            fault = None
        elif fault is None:
            sys.exit(f"{path}:{number}: no entry begins here")
        elif line == "...":
            last = ""
        elif line[0] in "-+":
            if last == "" or (line[0] == "-" and last == "+"):
                fault.places.append(["", ""])
            fault.places[-1]["-+".index(line[0])] += line[1:] + "\n"
            last = line[0]
        elif line.startswith("tests: "):
            _, fault.preset, fault.filter = line.split()
        elif line.startswith("unseen: "):
            fault.unseen = line[len("unseen: "):]
        else:
            fault.what += line
    return faults


def all_faults():
    faults = [f for path in sorted(ROOT.glob("faults/*.txt")) for f in parse(path)]
    names = [f.name for f in faults]
    for name in {n for n in names if names.count(n) > 1}:
        sys.exit(f"faults: two entries are named {name}")
    return faults


def planted(fault, text):
    """The file's text with the fault in it."""
    if not fault.places or not fault.what:
        raise BrokenEntry("it has no sentence or no place")
    for find, put in fault.places:
        pattern = r"\s+".join(re.escape(word) for word in find.split())
        found = list(re.finditer(pattern, text)) if pattern else []
        if len(found) != 1:
            raise BrokenEntry(f"found {len(found)} times: {' '.join(find.split())[:60]}")
        text = text[: found[0].start()] + put.strip() + text[found[0].end() :]
    return text


def check(faults):
    """Whether each fault's place is found exactly once."""
    broken = 0
    for fault in faults:
        try:
            if not (ROOT / fault.path).is_file():
                raise BrokenEntry(f"{fault.path} is not there")
            planted(fault, (ROOT / fault.path).read_text())
        except BrokenEntry as problem:
            print(f"{fault.name}: {problem}")
            broken += 1
    print(f"{len(faults)} faults, {broken} broken")
    return broken == 0


def write_if_changed(path, text):
    if not path.is_file() or path.read_bytes() != text:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(text)


def copy_tree(tree):
    """Brings a copy up to date and leaves alone what has not changed, so that little is built."""
    names = {str(path.relative_to(ROOT)) for part in ROOT.iterdir() if part.name not in NOT_COPIED
             for path in [part, *part.rglob("*")] if path.is_file()}
    for name in names:
        text = (ROOT / name).read_bytes()
        if name == "cmake/warnings.cmake":
            text = text.replace(b"-Werror", b"-w")  # a fault may leave something unused
        write_if_changed(tree / name, text)
        shutil.copymode(ROOT / name, tree / name)
    for old in tree.rglob("*"):
        name = str(old.relative_to(tree))
        if old.is_file() and not name.startswith("build/") and name not in names:
            old.unlink()


def fuzz_targets():
    return sorted(folder.name for folder in (ROOT / "fuzz" / "corpus").iterdir())


def build(tree, preset, jobs=1):
    """The compiler's words when it cannot be built, else nothing."""
    log = ""
    configure = ["cmake", "--preset", preset]
    # What runs is small and debugged by nobody: built fast.
    configure += ["-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1" + ("" if preset == "host" else " -g1")]
    # A program is not linked anew for a shared library that it uses, nor asked for its tests' names.
    configure += ["-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                  "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"]
    if shutil.which("ccache"):
        configure += ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
    commands = [["cmake", "--build", "--preset", preset, f"-j{jobs}", "--target", "fdstream-tests",
                 *(f"fuzz-{target}" for target in fuzz_targets())]]
    if not (tree / "build" / preset / "build.ninja").is_file():
        commands.insert(0, configure)
    for command in commands:
        done = subprocess.run(command, cwd=tree, capture_output=True, text=True)
        log = done.stdout + done.stderr
        if done.returncode != 0:
            return log
    return ""


def ends_of(output):
    """The test that failed or was running at the end, and how many tests have run."""
    failed = re.findall(r"^\[  FAILED  \] ([\w./]+)(?:, where.*)? \(\d+ ms\)", output, re.M)
    running = re.findall(r"^\[ RUN      \] ([\w./]+)", output, re.M)
    ended = re.findall(r"^\[ +(?:OK|FAILED|SKIPPED) +\] ([\w./]+)", output, re.M)
    if failed:
        return failed[0], len(running)
    return (running[-1] if running and running[-1] not in ended else "?"), len(running)


def stop(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def commands_for(tree, preset, test_filter):
    """What notices: a name for each, its command and its environment."""
    programs = tree / "build" / preset / "bin"
    fuzzers = [("Fuzz." + target, [programs / f"fuzz-{target}", ROOT / "fuzz/corpus" / target,
                                   "100" if target == "channel" else "20000"], {})
               for target in fuzz_targets() if target != "session"]  # the model's test is better
    if test_filter.startswith("Fuzz."):
        return [fuzzer for fuzzer in fuzzers if fuzzer[0] == test_filter]
    tests = [programs / "fdstream-tests", "--gtest_fail_fast", "--gtest_color=no",
             f"--gtest_filter={test_filter}"]
    if test_filter != QUICK:
        return [("", tests, {})]
    shards = [("", tests, {"GTEST_TOTAL_SHARDS": str(JOBS), "GTEST_SHARD_INDEX": str(index)})
              for index in range(JOBS)]
    return fuzzers + shards


def is_silent(log, last, limit):
    """Whether the log has not grown for so long; remembers in `last` when it grew."""
    size, now = os.fstat(log.fileno()).st_size, time.monotonic()
    if size != last[0]:
        last[:] = size, now
    return now - last[1] > limit


def run_tests(tree, preset, test_filter, silence):
    """Who noticed, or nothing; and how many tests ran. All run side by side until one fails."""
    running, verdict, count = [], "", 0
    with tempfile.TemporaryDirectory() as folder:
        for name, command, environment in commands_for(tree, preset, test_filter):
            log = open(Path(folder) / str(len(running)), "w+", errors="replace")
            process = subprocess.Popen(
                command, cwd=folder, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                start_new_session=True, env={**os.environ, **MORE_SEQUENCES, **environment})
            running.append((name, process, log, [-1, 0]))
        waiting = list(running)
        while waiting and not verdict:
            time.sleep(0.05)
            for entry in list(waiting):
                name, process, log, last = entry
                if process.poll() is None and not is_silent(log, last, silence):
                    continue
                waiting.remove(entry)
                test, ran = ends_of(Path(log.name).read_text(errors="replace"))
                test, ran = (name, 1) if name else (test, ran)
                count += ran
                if process.returncode is None:
                    verdict = f"{test} (hangs)"
                elif process.returncode < 0:
                    verdict = f"{test} (signal {-process.returncode})"
                elif process.returncode != 0:
                    verdict = test
                if verdict:
                    break
        for _, process, log, _ in running:
            stop(process)
            log.close()
    return verdict, count


class Trial:
    """A copy of the tree that is built and whose tests are run."""

    def __init__(self, number):
        self.tree = TREES / str(number)
        self.silence = {}

    def prepare(self, preset, faults):
        """The tests that are to notice must pass without a fault."""
        wanted = {f.filter for f in faults if f.preset == preset and f.filter}
        test_filter = QUICK if preset == "host" else ":".join(sorted(wanted))
        print(f"Building {preset} without a fault in {self.tree.name} ...", flush=True)
        if log := build(self.tree, preset, JOBS):
            sys.exit(log[-4000:] + f"\nfaults: {preset} does not build without a fault")
        start = time.monotonic()
        verdict, count = run_tests(self.tree, preset, test_filter, 600)
        seconds = time.monotonic() - start
        self.silence[preset] = max(SHORTEST_SILENCE, 2 * seconds)  # others may work beside it
        if verdict:
            sys.exit(f"faults: {preset} fails without a fault: {verdict}")
        print(f"{count} tests pass without a fault, in {seconds:.0f} s", flush=True)

    def try_fault(self, fault):
        """Who noticed; nothing when nobody did."""
        path = self.tree / fault.path
        whole = path.read_bytes()
        path.write_text(planted(fault, whole.decode()))
        try:
            attempts = [(fault.preset, fault.filter)] if fault.filter else []
            for preset, test_filter in attempts + [("host", QUICK)]:
                if log := build(self.tree, preset):
                    errors = [line for line in log.splitlines() if "error" in line.lower()]
                    raise BrokenEntry("does not build: " + (errors + [log[-200:]])[0])
                verdict, _ = run_tests(self.tree, preset, test_filter, self.silence[preset])
                if verdict:
                    return f"{verdict}{'' if preset == 'host' else ' under ' + preset}"
            return ""
        finally:
            path.write_bytes(whole)


class Trials:
    """All faults, in as many copies of the tree as there are processors: much of a trial waits."""

    def __init__(self, faults):
        self.faults = faults
        self.next = queue.SimpleQueue()
        self.lock = threading.Lock()  # guards what follows, and the output
        self.count = 0
        self.unnoticed = []
        self.broken = []

    def run(self):
        trials = [Trial(number) for number in range(min(JOBS, len(self.faults)))]
        for trial in trials:
            copy_tree(trial.tree)
            for preset in ["host"] + sorted({f.preset for f in self.faults if f.filter} - {"host"}):
                trial.prepare(preset, self.faults)
        for fault in self.faults:
            self.next.put(fault)
        threads = [threading.Thread(target=self.work, args=(trial,)) for trial in trials]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def work(self, trial):
        while True:
            try:
                fault = self.next.get_nowait()
            except queue.Empty:
                return
            start, failed = time.monotonic(), None
            try:
                noticed = trial.try_fault(fault)
                failed = None if noticed else self.unnoticed
            except BrokenEntry as problem:
                noticed, failed = f"BROKEN ENTRY: {problem}", self.broken
            with self.lock:
                self.count += 1
                if failed is not None:
                    failed.append(fault)
                print(f"{self.count:3}/{len(self.faults)} {fault.name}: "
                      f"{noticed or 'NOT NOTICED  <<<<<<<<'}  {time.monotonic() - start:.0f} s",
                      flush=True)


def try_all(faults):
    begin, trials = time.monotonic(), Trials(faults)
    trials.run()
    noticed = len(faults) - len(trials.unnoticed) - len(trials.broken)
    print(f"\n{len(faults)} faults in {(time.monotonic() - begin) / 60:.0f} minutes: {noticed} "
          f"noticed, {len(trials.unnoticed)} not noticed, {len(trials.broken)} broken")
    for title, some in ("NOT NOTICED", trials.unnoticed), ("BROKEN", trials.broken):
        for fault in some:
            print(f"{title:12} {fault.name:40} {fault.path}\n{'':13}{fault.what}")
    return not trials.unnoticed and not trials.broken


def main():
    parser = argparse.ArgumentParser(
        prog="./run faults",
        description="Plant faults one at a time in a copy of the tree, under build/faults, and show "
        "which test notices each.")
    parser.add_argument("names", metavar="NAME", nargs="*",
                        help="a fault, or a file of faults: session, util ... (default: all)")
    parser.add_argument("--list", action="store_true", help="list them and end")
    parser.add_argument("--check", action="store_true",
                        help="only see that the place of each is found exactly once")
    arguments = parser.parse_args()
    faults = all_faults()
    chosen = set()
    for name in arguments.names:
        room = {f.name for f in parse(path)} if (
            path := ROOT / "faults" / f"{name}.txt").is_file() else {name}
        if unknown := room - {f.name for f in faults}:
            sys.exit(f"faults: there is no fault {', '.join(unknown)}")
        chosen |= room
    faults = [f for f in faults if not chosen or f.name in chosen]
    if arguments.list:
        for fault in faults:
            print(f"{fault.name:40} {fault.path}\n    {fault.what}")
            if fault.unseen:
                print(f"    Nobody sees it: {fault.unseen}")
        return 0
    if not check(faults):
        return 1
    seen = [f for f in faults if not f.unseen or f.name in arguments.names]
    return 0 if arguments.check or try_all(seen) else 1


if __name__ == "__main__":
    sys.exit(main())
