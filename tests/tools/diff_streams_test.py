#!/usr/bin/env python3
"""diff_streams_test.py REPLAY PLUGIN QTRACE LEAVE_OUT STREAM: leaves out pieces of 1 to 20,000 records at many places
of a stream's traces, and pieces of its commits before they are traced; `qtrace diff` must count exactly these, in bounded memory."""
import json
import os
import random
import subprocess
import sys
import tempfile

REPLAY, PLUGIN, QTRACE, LEAVE_OUT, STREAM = map(os.path.abspath, sys.argv[1:6])
MOST_MEMORY = 128 << 10  # KiB of a comparison; the records of the larger traces take more
# Tells the most memory that a command took; started by a small process, for its own beginning counts too.
MEASURE = """import os, resource, subprocess, sys
os.environ["ASAN_OPTIONS"] = "quarantine_size_mb=1"
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)"""
SIZES = [1, 2, 3, 5, 8, 17, 40, 130, 700, 3000, 20000]


def run(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def differences(a, b, expected_exit):
    done = subprocess.run([QTRACE, "diff", "--json", a, b], stdout=subprocess.PIPE, text=True, check=False)
    assert done.returncode == expected_exit, (a, b, done.returncode)
    return json.loads(done.stdout)


def stream_lines():
    if STREAM.endswith(".zst"):
        return run("zstd", "-dcq", STREAM).splitlines(keepends=True)
    with open(STREAM, encoding="utf-8") as stream:
        return stream.readlines()


def trace(stream, base):
    with open("commands", "w", encoding="utf-8") as commands:
        commands.write(f'plugin load "{PLUGIN}"\nplugin signal plugin_qtbin.so start "{base}"\nrun\n')
        commands.write("plugin signal plugin_qtbin.so stop\n")
    run(REPLAY, stream, "commands")


def pieces(records, randomly):
    """Some (from, count), ascending, that leave at least half of the records."""
    space = records // 100  # at least so many remain between two of them
    sizes = randomly.sample(SIZES, len(SIZES))
    while sum(sizes) > records // 3:
        sizes.remove(max(sizes))
    room = records - sum(sizes) - space * (len(sizes) + 1)
    assert room > 0 and len(sizes) >= 5, records
    cuts = sorted(randomly.randrange(room) for _ in sizes)
    begins, passed = [], space
    for cut, size in zip(cuts, sizes):
        begins.append((cut + passed, size))
        passed += size + space
    return begins


def check_records_left_out(name, records, seed):
    ranges = pieces(records, random.Random(seed))
    run(LEAVE_OUT, name, "less0", *[f"{begin}:{count}" for begin, count in ranges])
    missing = sum(count for _, count in ranges)
    forward, back = differences(name, "less0", 3), differences("less0", name, 3)
    for found, only, other in ((forward, "only_a", "only_b"), (back, "only_b", "only_a")):
        assert (found[only], found[other], found["differing"]) == (missing, 0, 0), (name, seed, ranges, found)
        assert found["kinds"] == {"missing": found["kinds"]["missing"]}, found["kinds"]


def contents(name):
    """What each record holds, without its number and its address, which follow from the records before."""
    lines = []
    for line in run(QTRACE, "dump", "--json", name).splitlines():
        record = json.loads(line)
        if "record" not in record:
            continue
        for key in ("file", "record", "address"):
            record.pop(key, None)
        lines.append(json.dumps(record, sort_keys=True))
    return lines


def check_commits_left_out(lines, thread, whole, seed):
    """The records that remain are compared with their own counterparts, whose places are known here."""
    commits = [i for i, line in enumerate(lines) if '"t":"commit"' in line and f'"tid":{thread},' in line]
    filtered = {i for i in commits if '"filtered"' in lines[i]}
    if filtered or len(commits) != len(whole):
        return False  # commits and records do not correspond one to one
    ranges = pieces(len(commits), random.Random(seed))
    gone = {commits[i] for begin, count in ranges for i in range(begin, begin + count)}
    with open("less.jsonl", "w", encoding="utf-8") as less:
        less.writelines(line for i, line in enumerate(lines) if i not in gone)
    trace("less.jsonl", "less")
    kept = [record for commit, record in zip(commits, whole) if commit not in gone]
    remaining = contents(f"less{thread}")
    assert len(kept) == len(remaining)
    changed = sum(1 for was, now in zip(kept, remaining) if was != now)
    found = differences(f"trace{thread}", f"less{thread}", 3)
    expected = (sum(count for _, count in ranges), 0, changed)
    assert (found["only_a"], found["only_b"], found["differing"]) == expected, (seed, ranges, expected, found)
    assert changed <= len(ranges), (changed, ranges)  # the neighbours before, whose next address changes
    return True


def main():
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        trace(STREAM, "trace")
        lines = stream_lines()
        threads = [name for name in sorted(os.listdir(".")) if name.startswith("trace")]
        for thread, name in enumerate(threads):
            whole = contents(name)
            for seed in range(4):
                check_records_left_out(name, len(whole), seed)
            compared = [check_commits_left_out(lines, thread, whole, seed) for seed in range(2)]
            memory = int(run(sys.executable, "-c", MEASURE, QTRACE, "diff", name, "less0"))
            assert memory < MOST_MEMORY, memory
            print(name, len(whole), "records", "and commits" if all(compared) else "")


if __name__ == "__main__":
    main()
