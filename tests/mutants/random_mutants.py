"""Draws random single-token mutants of library, tools, replay host and Python, and runs on each the tests that reach the
change, the cheapest first, until one fails. One build has nearly all mutants of C++ in it and is told which one is in force;
what cannot be switched so, and what no test has noticed, is written into the source and built. Everything happens in copies
of the tree below a work folder."""

import atexit
import concurrent.futures
import hashlib
import json
import os
import queue
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import mutant_generator
import switched_sources

ROOT = Path(__file__).resolve().parents[2]
EQUIVALENT = Path(__file__).with_name("equivalent.mutants")
SOURCES = ("qtrace/lib/", "tools/", "replay/", "python/")
LEFT_OUT = ("install", "test_names", "packages", "recipes", "mutant_generator", "switched_sources", "byte_order", "documents",
            "faults.killed", "faults.long_run", "faults.hardening", "model.")  # fmt: skip
MEMORY_LIMIT = 8 << 30  # bytes that may be written; a browser reserves more than that
COMMON = ["-G", "Ninja", "-DQT_BENCHMARKS=OFF", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
          "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]  # fmt: skip
PLAIN = ["-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1", "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1"]
# Seconds of tests after which a mutant counts as a survivor, first chosen in the build with all and then built by itself. The
# cheapest tests notice nearly all sooner.
CHOSEN, BUILT = 30, 60
MEASURING_LIMIT = 300  # seconds of a test without any mutant
# Tests that do the same with one stream after the other: those with the shortest one stand for all.
BY_STREAM = ("check_recorded_stream", "cut_streams", "diff_streams", "dump_text", "export_streams")
# Tests that compare times, which says nothing of a build like these.
TIMED = ("Written_Stream.is_written_at_least_as_fast_as_it_is_read", "linear_time.*")
CONSTANT = re.compile(r"\s*(static |inline )*constexpr [^(]*=.*;")  # whose value the compiler has
# The folder of unit tests -> the sources that they are about, for a run without measuring.
UNIT_TESTS = {"library": "qtrace/lib/", "tools": ("tools/", "qtrace/lib/"), "analysis": "tools/analysis/",
              "replay": "replay/", "streams": ("replay/", "qtrace/lib/")}  # fmt: skip


def run(command, **options):
    return subprocess.run([*map(str, command)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)


def tracked_files():
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, stdout=subprocess.PIPE, check=True).stdout
    return [name for name in listed.decode().split("\0") if name and (ROOT / name).is_file()]


def copy_tree(target, edited=None):
    """The tracked files, in which warnings are no errors; unchanged ones keep their time. `edited`: name -> other text."""
    for name in tracked_files():
        content = edited[name].encode() if edited and name in edited else (ROOT / name).read_bytes()
        if name == "CMakeLists.txt":
            content = content.replace(b" -Werror", b"")
        copy = target / name
        if not copy.exists() or copy.read_bytes() != content:
            copy.parent.mkdir(parents=True, exist_ok=True)
            copy.write_bytes(content)
            shutil.copymode(ROOT / name, copy)


def digests():
    """Part of the tests -> digest of it, and "" -> digest of everything that any test may depend on."""
    kept = {}
    for name in tracked_files():
        part = name.split("/")[1] if name.startswith("tests/") else ""
        if name.endswith(".md") or part in ("mutants", "support") or name.startswith(("debian/", "bench/", ".ci/", "scripts/")):
            part = "" if part == "support" else "unused"
        kept.setdefault(part, hashlib.sha256()).update(name.encode() + b"\0" + (ROOT / name).read_bytes())
    return {part: digest.hexdigest() for part, digest in kept.items()}


class Place:
    """A copy of the tree with a build of its own."""

    def __init__(self, folder, flags):
        self.tree, self.build, self.flags = folder / "tree", folder / "build", flags
        self.temporary = Path(tempfile.mkdtemp(prefix="qt_mutant_"))
        atexit.register(shutil.rmtree, self.temporary, ignore_errors=True)

    def prepare(self, edited=None):
        copy_tree(self.tree, edited)
        compiler_cache = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
        configured = run(["cmake", "-S", self.tree, "-B", self.build, *COMMON, *self.flags,
                          *(compiler_cache if shutil.which("ccache") else [])])  # fmt: skip
        if configured.returncode != 0:
            sys.exit(configured.stdout.decode(errors="replace"))

    def make(self, targets, jobs=1, once=False, go_on=False):
        """`once`: what is compiled will not be compiled again, so that no cache need keep it. `go_on`: after failures."""
        environment = dict(os.environ, CCACHE_BASEDIR=str(self.tree.parent), CCACHE_NOHASHDIR="1")
        if once:
            environment["CCACHE_DISABLE"] = "1"
        command = ["cmake", "--build", self.build, "-j", jobs, "--target", *targets, *(["--", "-k", "0"] if go_on else [])]
        return run(command, env=environment)

    def beside(self):
        """The same build for who runs tests at the same time, with temporary files of its own."""
        return Place(self.tree.parent, self.flags)

    def make_or_exit(self, targets, jobs):
        built = self.make(targets, jobs)
        if built.returncode != 0:
            sys.exit(built.stdout.decode(errors="replace"))


class Group:
    """Tests that one command runs: a test program, or one test of another kind."""

    def __init__(self, name, command, environment, targets, part):
        self.name, self.command, self.environment, self.targets = name, command, environment, targets
        self.part = part  # of the tests, a folder
        self.seconds = 0.0  # without any mutant
        self.lines = {}  # file -> numbers of the lines where it reaches a change
        self.decides = frozenset()  # numbers of the changes with which something in it gets another value
        self.passes = True

    def cost(self, file):
        """What it takes for a mutant of the file to be noticed: more where the group reaches much besides the file."""
        reached = sum(map(len, self.lines.values()))
        return (self.seconds + 1) * (reached / len(self.lines[file]) if file in self.lines else 1)

    def fails(self, place, origin, limit, **settings):
        """Whether it fails in the place; the command is written for the place `origin`."""
        def moved(text):
            return text.replace(str(origin.build), str(place.build)).replace(str(origin.tree), str(place.tree))

        shutil.rmtree(place.temporary, ignore_errors=True)
        place.temporary.mkdir(parents=True)
        environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_BRIEF="1", GTEST_FILTER="-" + ":".join(TIMED),
                           TMPDIR=str(place.temporary),
                           PYTHONDONTWRITEBYTECODE="1", **settings)  # fmt: skip
        environment |= dict(moved(setting).split("=", 1) for setting in self.environment)
        process = subprocess.Popen([moved(word) for word in self.command], cwd=place.build, env=environment,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   start_new_session=True, preexec_fn=limit_resources)  # fmt: skip
        try:
            return process.wait(limit) not in (0, 77)
        except subprocess.TimeoutExpired:
            return True
        finally:
            end_session(process)
            end_those_with(f"TMPDIR={place.temporary}")

    def try_without_mutant(self, place, origin, **settings):
        """Notes whether it passes, and the time that it takes."""
        began = time.monotonic()
        self.passes = not self.fails(place, origin, MEASURING_LIMIT, **settings)
        self.seconds = time.monotonic() - began


def limit_resources():
    resource.setrlimit(resource.RLIMIT_DATA, (MEMORY_LIMIT, MEMORY_LIMIT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def end_session(process):
    """Ends what the command started and left, which has its session."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def end_those_with(setting):
    """Ends what has the setting in its environment: a host on a terminal of its own has a session of its own, too."""
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if setting.encode() in (process / "environ").read_bytes().split(b"\0"):
                os.kill(int(process.name), signal.SIGKILL)
        except OSError:  # it has ended, or is another's
            pass


# ---- Which tests there are, and what they reach ----


def test_groups(place):
    """From the tests that CMake knows: a program of unit tests is one group, whatever the number of its tests."""
    listed = subprocess.run(["ctest", "--test-dir", str(place.build), "--show-only=json-v1"], stdout=subprocess.PIPE,
                            check=True)  # fmt: skip
    groups = {}
    for test in json.loads(listed.stdout)["tests"]:
        if "command" not in test or test["name"].startswith(LEFT_OUT):
            continue
        program = Path(test["command"][0])
        is_unit = any(word.startswith("--gtest_filter") for word in test["command"])
        if is_unit and is_of_the_plugin(program.name):
            continue
        properties = {one["name"]: one["value"] for one in test.get("properties", [])}
        name = program.name if is_unit else test["name"]
        command = [str(program)] if is_unit else test["command"]
        targets = [program.name] if is_unit else []
        part = Path(os.path.relpath(properties["WORKING_DIRECTORY"], place.build)).parts[1]
        groups.setdefault(name, Group(name, command, properties.get("ENVIRONMENT", []), targets, part))
    return list(groups.values())


def linked_targets(place):
    """Programs of unit tests that can notice a mutant, and all that other tests run."""
    listed = run(["ninja", "-C", place.build, "-t", "targets", "all"]).stdout.decode()
    names = re.findall(r"^bin/\S+: C(?:XX)?_(?:EXECUTABLE|\w+_LIBRARY)_LINKER__(\w+)_[A-Za-z]+$", listed, re.M)
    units = [name for name in names if name.endswith("_test") and not is_of_the_plugin(name)]
    return units, [name for name in names if not name.endswith("_test")]


def is_of_the_plugin(program):
    """Tests with the plugin linked into them: the listed mutants are theirs."""
    return program.endswith("_plugin_test") or program in ("model_test", "long_run_test", "exports_test", "headers_test",
                                                           "clashing_host_test", "new_mode_test", "query_floor_test")  # fmt: skip


# ---- All mutants in one build ----


class Switched_Build:
    """A build in which every change of C++ that can be switched has a number, and what each group of tests reaches there."""

    def __init__(self, folder):
        self.folder = folder / "switched"
        self.header, self.unswitchable = self.folder / "mutant_switch.h", self.folder / "unswitchable.json"
        self.place = Place(self.folder, [*PLAIN, f'-DCMAKE_CXX_FLAGS=-w -include "{self.header}"'])
        self.sources = {name: (ROOT / name).read_text() for name in tracked_files()
                        if name.startswith(SOURCES) and name.endswith((".cpp", ".h"))}  # fmt: skip
        self.changes = [change for name, text in sorted(self.sources.items()) for change in
                        mutant_generator.changes(name, text)]  # fmt: skip
        self.numbers = {change: number for number, change in enumerate(self.changes, 1)}
        self.left_out = set(map(tuple, json.loads(self.unswitchable.read_text()))) if self.unswitchable.exists() else set()

    def token(self, change):
        """What names a token wherever its line moves to."""
        return change.file, self.sources[change.file].splitlines()[change.line - 1].strip(), change.token, change.column

    def switched(self, name):
        text = self.sources[name]
        if 'extern "C"' in text and name.endswith(".h"):
            return text  # C programs include it too
        lines = text.splitlines()
        numbers = {change: self.numbers[change] for change in mutant_generator.changes(name, text)
                   if self.token(change) not in self.left_out and not CONSTANT.match(lines[change.line - 1])}  # fmt: skip
        return switched_sources.Source(text, numbers).switched()

    def prepare(self, jobs):
        """Builds everything; changes that the compiler refuses are left out. Returns the groups of tests."""
        self.folder.mkdir(parents=True, exist_ok=True)
        header = switched_sources.header()
        if not self.header.exists() or self.header.read_text() != header:
            self.header.write_text(header)
        while True:
            edited = {name: self.switched(name) for name in self.sources}
            self.place.prepare(edited)
            units, others = linked_targets(self.place)
            built = self.place.make([*others, *units], jobs, go_on=True)
            if built.returncode == 0:
                break
            if not self.leave_out(built.stdout.decode(errors="replace"), edited):
                sys.exit(built.stdout.decode(errors="replace"))
        groups = test_groups(self.place)
        for group in groups:
            group.targets = group.targets or others
        return groups

    def leave_out(self, messages, edited):
        """The changes that the compiler names, and those of the lines that it names. Whether there are any."""
        before = len(self.left_out)
        place = r"((?:qtrace/lib|tools|replay)/[^\s:]+):(\d+):\d+: +"
        found = {int(number) for number in re.findall(r"int ID = (\d+)", messages)}
        for name, line in re.findall(place + "(?:error|required|in .constexpr. expansion)", messages):
            if name in edited:
                found |= switched_sources.numbers_in(edited[name].splitlines()[int(line) - 1])
        self.left_out |= {self.token(self.changes[number - 1]) for number in found}
        self.unswitchable.write_text(json.dumps(sorted(self.left_out)))
        return len(self.left_out) > before

    def measure(self, groups, jobs):
        """What the groups reach, and how long they take without any mutant; kept until something that they depend on
        changes. Returns those that pass."""
        file = self.folder / "groups.json"
        stored = json.loads(file.read_text()) if file.exists() else {}
        digest = digests()
        first = {}
        for group in sorted(groups, key=lambda one: not one.name.endswith(".sample")):
            family = group.name.split(".")[0]
            first.setdefault(family if family in BY_STREAM else group.name, group)
        groups = list(first.values())
        lock, free = threading.Lock(), queue.SimpleQueue()
        for _ in range(jobs):
            free.put(self.place.beside())

        def measure_one(group):
            log = self.folder / "reached" / re.sub(r"\W", "_", group.name)
            state = [digest[""], digest.get(group.part)]
            if stored.get(group.name, {}).get("state") != state or not log.exists():
                place = free.get()
                self.run_without_mutant(group, log, place)
                free.put(place)
                with lock:
                    stored[group.name] = {"state": state, "passes": group.passes, "seconds": group.seconds}
                    file.write_text(json.dumps(stored))
            group.passes, group.seconds = stored[group.name]["passes"], stored[group.name]["seconds"]
            self.note_reached(group, log.read_bytes())

        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for done in [pool.submit(measure_one, group) for group in groups]:
                done.result()
        for group in groups:
            if not group.passes:
                print(f"left out, fails without any mutant: {group.name}", flush=True)
        return [group for group in groups if group.passes]

    def run_without_mutant(self, group, log, place):
        """At the second attempt at least it has to pass."""
        log.parent.mkdir(exist_ok=True)
        for _ in range(2):
            log.write_bytes(bytes(len(self.changes) + 1))
            group.try_without_mutant(place, self.place, QT_MUTANTS_REACHED=str(log))
            if group.passes:
                break

    def note_reached(self, group, log):
        for number, change in enumerate(self.changes, 1):
            if log[number]:
                group.lines.setdefault(change.file, set()).add(change.line)
        group.decides = frozenset(number for number, mark in enumerate(log) if mark & 2)
        if "python" in " ".join(group.command) and group.name.startswith(("reader.", "python")):
            group.lines |= {name: {0} for name in tracked_files() if name.startswith("python/")}


def unit_tests(folder, jobs):
    """The programs of unit tests, each with all lines of the sources that it is about."""
    place = Place(folder / "worker0", PLAIN)
    place.prepare()
    units, _ = linked_targets(place)
    place.make_or_exit(units, jobs)
    groups = [group for group in test_groups(place) if group.targets and group.part in UNIT_TESTS]
    for group in groups:
        group.lines = {name: {0} for name in tracked_files() if name.startswith(UNIT_TESTS[group.part])}
        group.try_without_mutant(place, place)
    return [group for group in groups if group.passes]


def reaching(groups, change):
    """The groups that reach the line, the cheapest first. Where nothing can be switched (tables, constants, expressions of
    the compiler) it is left to all that reach the file; and a file of which nothing is known to all."""
    found = [group for group in groups if change.line in group.lines.get(change.file, ())]
    found = found or [group for group in groups if change.file in group.lines] or groups
    return sorted(found, key=lambda group: group.cost(change.file))


# ---- Mutants ----


class Round:
    """One drawing of mutants. The workers take changes from it until enough of them could be built. `listed`: of those alone
    that are listed as without effect, to see whether a test notices one."""

    def __init__(self, seed, wanted, words=(), listed=False):
        self.sources = {name: (ROOT / name).read_text() for name in tracked_files()
                        if name.startswith(SOURCES) and name.endswith((".cpp", ".h", ".py"))
                        and (not words or any(word in name for word in words))}  # fmt: skip
        possible = [change for name in sorted(self.sources) for change in
                    mutant_generator.changes(name, self.sources[name])]  # fmt: skip
        self.reasons, self.listed = read_equivalent(), listed
        if listed:
            possible = [change for change in possible if self.has_reason(change)]
        random.Random(seed).shuffle(possible)
        self.order, self.wanted = iter(possible), wanted
        self.lock = threading.Lock()
        self.noticed, self.without_effect, self.survivors, self.wrong = 0, 0, [], []

    def reason(self, change):
        """Why no test can notice it, None where that is not listed."""
        source = self.sources[change.file]
        return self.reasons.get(change.key(source)) or self.reasons.get(change.key_in_place(source))

    def has_reason(self, change):
        return self.reason(change) is not None

    def is_to_be_tried(self, change):
        return self.listed or not self.has_reason(change)

    def decided(self):
        return self.noticed + self.without_effect + len(self.survivors)

    def next(self):
        with self.lock:
            return None if self.decided() >= self.wanted else next(self.order, None)

    def record(self, change, by, seconds):
        """`by`: the group that fails, or None."""
        key = change.key(self.sources[change.file])
        with self.lock:
            if self.decided() >= self.wanted:
                return
            if by:
                self.noticed += 1
                verdict = f"noticed by {by}"
                if self.has_reason(change):
                    self.wrong.append((change, key))
                    verdict += ", although it is listed as without effect"
            elif self.has_reason(change):
                self.without_effect += 1
                verdict = f"without effect: {self.reason(change)}"
            else:
                self.survivors.append((change, key))
                verdict = "SURVIVES"
            print(f"{self.decided():3} {change.file}:{change.line}: {key[1]}  ->  {key[2]}\n    {verdict} ({seconds:.0f} s)",
                  flush=True)  # fmt: skip


def read_equivalent():
    """(file, line, line of the mutant) or (file, line, line of the mutant, line before) -> why no test can notice it."""
    reasons, entry = {}, {}
    for line in EQUIVALENT.read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        entry[line[0]] = line[2:]
        if line[0] == "=":
            place = (entry.pop("<"),) if "<" in entry else ()
            reasons[(entry["@"], entry["-"], entry["+"], *place)] = entry["="]
    return reasons


class Worker:
    """One that tries mutants: where it writes them into a source and builds, and where it only chooses them."""

    def __init__(self, folder, number, switched):
        self.place = Place(folder / f"worker{number}", PLAIN)
        self.switched = switched
        self.origin = switched.place if switched else Place(folder / "worker0", PLAIN)
        self.beside = switched.place.beside() if switched else None

    def first_to_fail(self, groups, place, most, build, **settings):
        """The name of the first group that fails in the place, None when no more can be run in `most` seconds, or "build" when
        there is nothing to run."""
        tested = 0.0  # seconds
        for group in groups:
            if tested > 0 and tested + group.seconds > most:
                continue
            if not build(group):
                return "build"
            began = time.monotonic()
            if group.fails(place, self.origin, 3 + 2 * group.seconds, **settings):
                return group.name
            tested += time.monotonic() - began
        return None

    def try_switched(self, change, groups):
        number = self.switched.numbers.get(change) if self.switched else None
        deciding = sorted((group for group in groups if number in group.decides), key=lambda one: one.cost(change.file))
        return self.first_to_fail(deciding, self.beside, CHOSEN, lambda group: True, QT_MUTANT=str(number))

    def try_built(self, change, source, groups):
        def build(group):
            return change.file.endswith(".py") or self.place.make(group.targets, once=True).returncode == 0

        file = self.place.tree / change.file
        file.write_text(change.apply(source))
        try:
            return self.first_to_fail(reaching(groups, change), self.place, BUILT, build)
        finally:
            file.write_text(source)

    def work(self, drawing, groups):
        while change := drawing.next():
            began = time.monotonic()
            by = None
            if drawing.is_to_be_tried(change):
                by = self.try_switched(change, groups) or self.try_built(change, drawing.sources[change.file], groups)
            if by != "build":
                drawing.record(change, by, time.monotonic() - began)


def main(seed, wanted, jobs, folder, quick=False, listed=False, words=()):
    began = time.monotonic()
    drawing = Round(seed, wanted, words, listed)
    switched = None if quick else Switched_Build(folder)
    groups = unit_tests(folder, jobs) if quick else switched.measure(switched.prepare(jobs), jobs)
    workers = [Worker(folder, number, switched) for number in range(jobs)]
    for worker in workers:
        worker.place.prepare()
        worker.place.make_or_exit(sorted({target for group in groups for target in group.targets}), jobs)
    print(f"{len(groups)} groups of tests, ready after {time.monotonic() - began:.0f} s", flush=True)
    began_drawing = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for done in [pool.submit(worker.work, drawing, groups) for worker in workers]:
            done.result()
    print(f"seed {seed}: {drawing.decided()} mutants, {drawing.noticed} noticed, {drawing.without_effect} without effect, "
          f"{len(drawing.survivors)} survive; {time.monotonic() - began_drawing:.0f} s")  # fmt: skip
    for change, key in drawing.survivors + drawing.wrong:
        print(f"@ {change.file}\n- {key[1]}\n+ {key[2]}\n    line {change.line}")
    return 1 if drawing.survivors or drawing.wrong else 0
