#!/usr/bin/env python3
"""What exports and cuts cost: bench/exports.py BUILD [RECORDS]

CPU time of `qtrace export` and `qtrace cut` on a trace of RECORDS (600,000) records of boot-user, the least of five runs,
relative to an empty loop over qtrace_next, and of sqlite relative to a prepared statement in a loop that inserts the same
rows. BUILD is build/release."""
import pathlib
import resource
import subprocess
import sys
import tempfile

BUILD = pathlib.Path(sys.argv[1]).resolve()
RECORDS = sys.argv[2] if len(sys.argv) > 2 else "600000"
STREAM = pathlib.Path(__file__).resolve().parents[1] / "streams/boot-user.jsonl.zst"
RUNS = 5
GOALS = {"cut --from 1": 2, "cut --every 10000 --window 1000": 2, "export --format champsim": 2, "export --format csv": 5}
DATABASE_GOAL = 1.25


def cpu_seconds(command, folder):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(command, cwd=folder, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime - before.ru_utime + after.ru_stime - before.ru_stime


def floor(program, *arguments, folder):
    """Seconds that the program prints as nanoseconds."""
    [path] = [path for path in BUILD.rglob(program) if path.is_file() and path.name == program]
    done = subprocess.run([path, *arguments], cwd=folder, check=True, capture_output=True, text=True)
    return int(done.stdout.split()[1]) / 1e9


def make_trace(folder):
    (folder / "console").write_text(
        f'plugin load "{BUILD / "bin/plugin_qtbin.so"}"\nplugin signal plugin_qtbin.so start once\nrun\n'
        "plugin signal plugin_qtbin.so stop\n", encoding="utf-8")
    subprocess.run([BUILD / "bin/replay", STREAM, "console"], cwd=folder, check=True, stdout=subprocess.DEVNULL)
    [path] = [path for path in BUILD.rglob("reading_floor") if path.is_file()]
    subprocess.run([path, "repeat", "once0", "trace0", RECORDS], cwd=folder, check=True, stdout=subprocess.DEVNULL)


def report(name, ratio, goal):
    print(f"{name:40} {ratio:5.2f}   goal {goal}{'' if ratio <= goal else '   missed'}")
    return ratio <= goal


def main():
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        make_trace(folder)
        qtrace = [BUILD / "bin/qtrace"]
        commands = {words: [*qtrace, *words.split(), "--jobs", "1", "--force", "-o", "out", "trace0"] for words in GOALS}
        database = [*qtrace, "export", "--format", "sqlite", "--force", "-o", "rows", "trace0"]
        least = dict.fromkeys([*GOALS, "loop", "database", "rows"], float("inf"))
        for _ in range(RUNS):
            least["loop"] = min(least["loop"], floor("reading_floor", "loop", "trace0", folder=folder))
            for words, command in commands.items():
                least[words] = min(least[words], cpu_seconds(command, folder))
            least["database"] = min(least["database"], cpu_seconds(database, folder))
            (folder / "copy").unlink(missing_ok=True)
            least["rows"] = min(least["rows"], floor("insert_floor", "rows", "copy", folder=folder))
        met = [report(words, least[words] / least["loop"], goal) for words, goal in GOALS.items()]
        met.append(report("export --format sqlite / bare inserts", least["database"] / least["rows"], DATABASE_GOAL))
    return 0 if all(met) else 1


if __name__ == "__main__":
    sys.exit(main())
