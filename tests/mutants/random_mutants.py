"""Draws random single-token mutants of library, tools, replay host and Python, and runs on each the tests that reach the
changed line, the cheapest first, until one fails. Everything happens in copies of the tree below a work folder."""

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
import threading
import time
from pathlib import Path

import mutant_generator

ROOT = Path(__file__).resolve().parents[2]
EQUIVALENT = Path(__file__).with_name("equivalent.mutants")
SOURCES = ("qtrace/lib/", "tools/", "replay/", "python/")
LEFT_OUT = ("install", "test_names", "packages", "recipes", "mutant_generator", "byte_order", "documents", "faults.killed",
            "faults.long_run", "faults.hardening", "model.")  # fmt: skip
MEMORY_LIMIT = 8 << 30  # bytes that may be written; a browser reserves more than that
COMMON = ["-G", "Ninja", "-DQT_BENCHMARKS=OFF", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
          "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"]  # fmt: skip
PLAIN = ["-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1", "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1"]
COUNTED = ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1 --coverage -fprofile-update=atomic",
           "-DCMAKE_C_FLAGS_DEBUG=-O1 --coverage"]  # fmt: skip
SURVIVAL = 90  # seconds of tests after which a mutant counts as a survivor; the cheapest tests notice nearly all sooner
COUNTING_LIMIT = 120  # seconds of a test in the build that counts; what it reached by then is taken
# Tests that do the same with one stream after the other: the first is measured, the others reach the same lines.
BY_STREAM = ("check_recorded_stream", "cut_streams", "diff_streams", "dump_text", "export_streams")
# Tests that compare times, which says nothing of a build like these.
TIMED = ("Written_Stream.is_written_at_least_as_fast_as_it_is_read", "linear_time.*")
# The folder of unit tests -> the sources that they are about, for a run without coverage.
UNIT_TESTS = {"library": "qtrace/lib/", "tools": ("tools/", "qtrace/lib/"), "analysis": "tools/analysis/",
              "replay": "replay/", "streams": ("replay/", "qtrace/lib/")}  # fmt: skip


def run(command, **options):
    return subprocess.run([*map(str, command)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)


def tracked_files():
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, stdout=subprocess.PIPE, check=True).stdout
    return [name for name in listed.decode().split("\0") if name and (ROOT / name).is_file()]


def copy_tree(target):
    """The tracked files, in which warnings are no errors; unchanged ones keep their time."""
    for name in tracked_files():
        content = (ROOT / name).read_bytes()
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
        if name.endswith(".md") or part in ("mutants", "support") or name.startswith(("debian/", "bench/", ".ci/")):
            part = "" if part == "support" else "unused"
        kept.setdefault(part, hashlib.sha256()).update(name.encode() + b"\0" + (ROOT / name).read_bytes())
    return {part: digest.hexdigest() for part, digest in kept.items()}


class Place:
    """A copy of the tree with a build of its own."""

    def __init__(self, folder, flags):
        self.tree, self.build, self.temporary, self.flags = folder / "tree", folder / "build", folder / "tmp", flags

    def prepare(self):
        copy_tree(self.tree)
        compiler_cache = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
        configured = run(["cmake", "-S", self.tree, "-B", self.build, *COMMON, *self.flags,
                          *(compiler_cache if shutil.which("ccache") else [])])  # fmt: skip
        if configured.returncode != 0:
            sys.exit(configured.stdout.decode(errors="replace"))

    def make(self, targets, jobs=1, once=False):
        """`once`: what is compiled will not be compiled again, so that no cache need keep it."""
        environment = dict(os.environ, CCACHE_BASEDIR=str(self.tree.parent), CCACHE_NOHASHDIR="1")
        if once:
            environment["CCACHE_DISABLE"] = "1"
        command = ["cmake", "--build", self.build, "-j", jobs, "--target", *targets]
        return run(command, env=environment)

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
        self.lines = {}  # file -> numbers of the lines that it reaches
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


def lines_reached(place, counts_folder):
    """File -> lines with a count above 0, of the counts below the folder."""
    counts = list(counts_folder.rglob("*.gcda"))
    for path in counts:
        notes = path.relative_to(counts_folder).with_suffix(".gcno")
        (counts_folder / notes).symlink_to(place.build / notes)
    reached = {}
    if counts:
        out = subprocess.run(["gcov", "--json-format", "--stdout", *map(str, counts)], cwd=place.build,
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout  # fmt: skip
        for text in filter(None, out.splitlines()):
            for file in json.loads(text)["files"]:
                path = os.path.relpath(os.path.join(place.build, file["file"]), place.tree)
                if not path.startswith(SOURCES):
                    continue
                for line in file["lines"]:
                    if line["count"]:
                        reached.setdefault(path, set()).add(line["line_number"])
    return reached


def measure_coverage(place, group, folder):
    """What the group reaches."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    alone = Place(folder, place.flags)
    alone.tree, alone.build = place.tree, place.build
    group.fails(alone, place, COUNTING_LIMIT, GCOV_PREFIX=str(folder),
                GCOV_PREFIX_STRIP=str(len(place.build.parts) - 1))  # fmt: skip
    reached = lines_reached(place, folder)
    shutil.rmtree(folder)
    if "python" in " ".join(group.command) and group.name.startswith(("reader.", "python")):
        reached |= {name: {0} for name in tracked_files() if name.startswith("python/")}
    return {"lines": {file: sorted(reached[file]) for file in reached}}


class Coverage:
    """What the groups reach, kept in a file until something that they depend on changes."""

    def __init__(self, place, folder):
        self.place, self.folder, self.file = place, folder, folder / "coverage.json"
        self.stored = json.loads(self.file.read_text()) if self.file.exists() else {}
        self.digests = digests()
        self.lock = threading.Lock()

    def measure(self, group):
        state = [self.digests[""], self.digests.get(group.part)]
        if self.stored.get(group.name, {}).get("state") != state:
            found = measure_coverage(self.place, group, self.folder / "counts" / re.sub(r"\W", "_", group.name))
            with self.lock:
                self.stored[group.name] = found | {"state": state}
                self.file.write_text(json.dumps(self.stored))
        self.give(group, self.stored[group.name])

    @staticmethod
    def give(group, found):
        group.lines = {file: set(lines) for file, lines in found["lines"].items()}

    def measure_all(self, groups, jobs):
        family = {group.name: group.name.split(".")[0] for group in groups}
        first = {}
        for group in sorted(groups, key=lambda one: not one.name.endswith(".sample")):
            first.setdefault(family[group.name] if family[group.name] in BY_STREAM else group.name, group)
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for done in [pool.submit(self.measure, group) for group in first.values()]:
                done.result()
        for group in groups:
            if group not in first.values():
                self.give(group, self.stored[first[family[group.name]].name])


def coverage_of(folder, jobs):
    """The groups with what they reach."""
    place = Place(folder / "coverage", COUNTED)
    place.prepare()
    groups = test_groups_after_building(place, jobs)
    Coverage(place, folder).measure_all(groups, jobs)
    return place, groups


def unit_tests(folder, jobs):
    """The programs of unit tests, each with all lines of the sources that it is about."""
    place = Place(folder / "worker0", PLAIN)
    place.prepare()
    units, _ = linked_targets(place)
    place.make_or_exit(units, jobs)
    groups = [group for group in test_groups(place) if group.targets and group.part in UNIT_TESTS]
    for group in groups:
        group.lines = {name: {0} for name in tracked_files() if name.startswith(UNIT_TESTS[group.part])}
    return place, groups


def reaching(groups, change):
    """The groups that reach the line, the cheapest first. What nobody counts (tables, constants, expressions of the
    compiler, processes that are killed) is left to all that reach the file; and a file without counts to all."""
    found = [group for group in groups if change.line in group.lines.get(change.file, ())]
    found = found or [group for group in groups if change.file in group.lines] or groups
    return sorted(found, key=lambda group: group.cost(change.file))


def test_groups_after_building(place, jobs):
    units, others = linked_targets(place)
    place.make_or_exit([*others, *units], jobs)
    groups = test_groups(place)
    for group in groups:
        group.targets = group.targets or others
    return groups


# ---- Mutants ----


class Round:
    """One drawing of mutants. The workers take changes from it until enough of them could be built."""

    def __init__(self, seed, wanted, words=()):
        self.sources = {name: (ROOT / name).read_text() for name in tracked_files()
                        if name.startswith(SOURCES) and name.endswith((".cpp", ".h", ".py"))
                        and (not words or any(word in name for word in words))}  # fmt: skip
        possible = [change for name in sorted(self.sources) for change in
                    mutant_generator.changes(name, self.sources[name])]  # fmt: skip
        random.Random(seed).shuffle(possible)
        self.order, self.wanted = iter(possible), wanted
        self.lock = threading.Lock()
        self.reasons = read_equivalent()
        self.noticed, self.without_effect, self.survivors = 0, [], []

    def decided(self):
        return self.noticed + len(self.without_effect) + len(self.survivors)

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
            elif key in self.reasons:
                self.without_effect.append(key)
                verdict = f"without effect: {self.reasons[key]}"
            else:
                self.survivors.append((change, key))
                verdict = "SURVIVES"
            print(f"{self.decided():3} {change.file}:{change.line}: {key[1]}  ->  {key[2]}\n    {verdict} ({seconds:.0f} s)",
                  flush=True)  # fmt: skip


def read_equivalent():
    """(file, line, line of the mutant) -> why no test can notice it."""
    reasons, entry = {}, {}
    for line in EQUIVALENT.read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        entry[line[0]] = line[2:]
        if line[0] == "=":
            reasons[entry["@"], entry["-"], entry["+"]] = entry["="]
    return reasons


def try_change(change, source, place, origin, groups):
    """The name of the first group that fails, None, or "build"."""
    file = place.tree / change.file
    file.write_text(change.apply(source))
    tested = 0.0  # seconds
    try:
        for group in reaching(groups, change):
            if tested > SURVIVAL:
                return None
            if not change.file.endswith(".py") and place.make(group.targets, once=True).returncode != 0:
                return "build"
            began = time.monotonic()
            if group.fails(place, origin, 3 + 2 * group.seconds):
                return group.name
            tested += time.monotonic() - began
        return None
    finally:
        file.write_text(source)


def work(drawing, place, origin, groups):
    while change := drawing.next():
        began = time.monotonic()
        source = drawing.sources[change.file]
        listed = change.key(source) in drawing.reasons
        by = None if listed else try_change(change, source, place, origin, groups)
        if by != "build":
            drawing.record(change, by, time.monotonic() - began)


def try_group(group, place, origin):
    """Notes whether it passes in the place without any mutant, at the second attempt at least, and the time that it
    takes there."""
    for _ in range(2):
        began = time.monotonic()
        group.passes = not group.fails(place, origin, 900)
        group.seconds = time.monotonic() - began
        if group.passes:
            return


def healthy(groups, places, origin, file):
    """The groups that pass without any mutant: a half of them is tried in each place. How long they take is kept in the
    file until something that they depend on changes."""
    stored = json.loads(file.read_text()) if file.exists() else {}
    digest = digests()
    states = {group.name: [digest[""], digest.get(group.part)] for group in groups}
    untried = []
    for group in groups:
        state, group.seconds = stored.get(group.name, (None, 0.0))
        if state != states[group.name]:
            untried.append(group)
    with concurrent.futures.ThreadPoolExecutor(len(places)) as pool:
        free = queue.SimpleQueue()
        for place in places:
            free.put(place)

        def try_in_a_free_place(group):
            place = free.get()
            try_group(group, place, origin)
            free.put(place)

        for done in [pool.submit(try_in_a_free_place, group) for group in untried]:
            done.result()
    for group in groups:
        if not group.passes:
            print(f"left out, fails without any mutant: {group.name}", flush=True)
    passing = [group for group in groups if group.passes]
    file.write_text(json.dumps(stored | {group.name: (states[group.name], group.seconds) for group in passing}))
    return passing


def main(seed, wanted, jobs, folder, quick=False, words=()):
    began = time.monotonic()
    drawing = Round(seed, wanted, words)
    origin, groups = (unit_tests if quick else coverage_of)(folder, jobs)
    places = [Place(folder / f"worker{number}", PLAIN) for number in range(jobs)]
    for place in places:
        place.prepare()
        place.make_or_exit(sorted({target for group in groups for target in group.targets}), jobs)
    groups = healthy(groups, places, origin, folder / "times.json")
    print(f"{len(groups)} groups of tests, ready after {time.monotonic() - began:.0f} s", flush=True)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for done in [pool.submit(work, drawing, place, origin, groups) for place in places]:
            done.result()
    print(f"seed {seed}: {drawing.decided()} mutants, {drawing.noticed} noticed, {len(drawing.without_effect)} without effect, "
          f"{len(drawing.survivors)} survive; {time.monotonic() - began:.0f} s")  # fmt: skip
    for change, key in drawing.survivors:
        print(f"@ {change.file}\n- {key[1]}\n+ {key[2]}\n    line {change.line}")
    return 1 if drawing.survivors else 0
