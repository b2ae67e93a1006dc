#!/usr/bin/env python3
"""Counts instructions with callgrind: of the plugin for a committed instruction, of writer, reader and tools for a
record, of the replay host for an event.

A count is the same from run to run, so that a small change shows. Those of the baseline are compared with
bench/baseline.json, and growth beyond the tolerance is a failure. A change that is worth its instructions moves the
baseline on purpose:

    scripts/bench --instructions --accept [WORD...]

Words pick the counts whose name contains one of them.
"""

import argparse
import concurrent.futures
import functools
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
from collections import Counter, namedtuple

import callgrind_profile

TOLERANCE = 0.05
COMMITS = 20_000
STREAMS = ("boot-user", "vector", "guest")
RECORDS = (20_000, 100_000)  # of the two traces whose difference is what a tool executes for a record
ROOT = pathlib.Path(__file__).resolve().parent.parent
STREAM = ROOT / "streams/boot-user.jsonl.zst"

Count = namedtuple("Count", "per_item costs")  # instructions; by function, for all items


class Bench:
    """The programs of a build, and traces of the same instructions that are made when they are first asked for."""

    def __init__(self, programs, folder):
        self.programs, self.folder = pathlib.Path(programs).resolve(), pathlib.Path(folder)
        self.replay, self.qtrace = self.programs / "replay", self.programs / "qtrace"

    @functools.cache
    def jobs(self, subcommand, count=1):
        """The option that sets the number of threads; nothing where the subcommand has no such option."""
        help_text = subprocess.run([self.qtrace, subcommand, "--help"], capture_output=True, text=True, check=True).stdout
        return ["--jobs", str(count)] if "--jobs" in help_text else []

    @functools.cache
    def generated(self, records):
        """A trace of a program that goes on reaching new code, pages and values."""
        file = self.folder / f"generated-{records}"
        subprocess.run([self.programs / "generated_trace", file, str(records), "1"], check=True, capture_output=True)
        return file

    def trace(self, records):
        """The base name of a trace of boot-user's instructions, repeated as often as needed."""
        base = self.folder / f"trace-{records}-"
        if not base.with_name(base.name + "0").exists():
            subprocess.run([self.programs / "commit_benchmarks", "--write-trace", "boot-user", str(records), base],
                           check=True, capture_output=True)
        return base


def plugin_count(bench, stream, text=False):
    mode = "--text-instructions" if text else "--instructions"
    profile, commits = callgrind_profile.run(bench.programs / "commit_benchmarks", mode, stream, COMMITS,
                                             collect_at_start=False)
    costs = profile.costs_of("plugin_qtbin.so")
    return Count(sum(costs.values()) / int(commits), costs)


def text_line_count(bench):
    """What a line of text costs beyond a binary record."""
    plain, text = plugin_count(bench, "boot-user"), plugin_count(bench, "boot-user", text=True)
    return Count(text.per_item - plain.per_item, text.costs - plain.costs)


def writer_count(bench):
    """The whole session, for a writer may put work off until it closes its file."""
    profile, commits = callgrind_profile.run(bench.programs / "commit_benchmarks", "--write-trace", "boot-user", COMMITS,
                                             bench.folder / "counted", collect_at_start=False)
    costs = profile.costs_of("libqtrace.so", "libzstd")
    return Count(sum(costs.values()) / int(commits), costs)


def reader_count(bench):
    profile, records = callgrind_profile.run(bench.programs / "throughput_benchmarks", "--read",
                                             f"{bench.trace(RECORDS[1])}0", collect_at_start=False)
    return Count(profile.total() / int(records), profile.all_costs())


def tool_count(bench, *command, files=1, accept=(0,)):
    """The difference of two traces, so that what a program does once does not count."""
    profiles = []
    for records in RECORDS:
        base = bench.trace(records)
        profiles.append(callgrind_profile.run(bench.qtrace, *command, *bench.jobs(command[0]), *[f"{base}0"] * files,
                                              accept=accept)[0])
    costs = profiles[1].all_costs()
    costs.subtract(profiles[0].all_costs())
    return Count((profiles[1].total() - profiles[0].total()) / (RECORDS[1] - RECORDS[0]), costs)


def replay_count(bench):
    """The stand-in host with plugin and writer, from the compressed stream to the trace, for an event."""
    profiles = []
    events = (5_000, 45_000)
    for count in events:
        script = bench.folder / f"replay-{count}.txt"
        plugin = bench.programs / "plugin_qtbin.so"
        script.write_text(f"plugin load {plugin}\nplugin signal plugin_qtbin.so start {bench.folder}/replayed-{count}-\n"
                          f"run {count}\nplugin signal plugin_qtbin.so stop\n")
        profiles.append(callgrind_profile.run(bench.replay, STREAM, script)[0])
    costs = profiles[1].all_costs()
    costs.subtract(profiles[0].all_costs())
    return Count((profiles[1].total() - profiles[0].total()) / (events[1] - events[0]), costs)


# Everything that is counted: one row each. All are guarded by the baseline.
COUNTS = {
    "plugin, boot-user": lambda bench: plugin_count(bench, "boot-user"),
    "plugin, vector": lambda bench: plugin_count(bench, "vector"),
    "plugin, guest": lambda bench: plugin_count(bench, "guest"),
    "text line": text_line_count,
    "writer": writer_count,
    "reader": reader_count,
    "stats": lambda bench: tool_count(bench, "stats"),
    "check": lambda bench: tool_count(bench, "check", accept=(0, 3)),
    "dump --json": lambda bench: tool_count(bench, "dump", "--json"),
    "diff": lambda bench: tool_count(bench, "diff", files=2),
    "replay": replay_count,
}


def count_all(bench, names):
    for records in RECORDS:
        bench.trace(records)  # before the threads ask for the same
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return dict(zip(names, pool.map(lambda name: COUNTS[name](bench), names)))


def shortened(place):
    """Without template arguments, which may be whole formats."""
    while (shorter := re.sub(r"<[^<>]*>|\{[^{}]*\}", "", place)) != place:
        place = shorter
    return place[:100]


def print_count(name, count, before, with_costs):
    change = f"{count.per_item / before - 1:+.1%} against the baseline of {before:,.1f}" if before else "no baseline"
    print(f"{name}: {count.per_item:,.1f} instructions ({change})")
    if with_costs:
        total = sum(count.costs.values())
        for place, cost in Counter(count.costs).most_common(30):
            print(f"{cost / total * count.per_item:10.1f}  {shortened(place)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("programs", help="folder of the release build's programs")
    parser.add_argument("words", nargs="*", metavar="WORD")
    parser.add_argument("--baseline", type=pathlib.Path, default=pathlib.Path(__file__).with_name("baseline.json"))
    parser.add_argument("--accept", action="store_true", help="write the counts into the baseline")
    parser.add_argument("--profile", action="store_true", help="print the costs by function")
    parser.add_argument("--json", type=pathlib.Path, help="write the counts here, too; nothing is a failure then")
    arguments = parser.parse_intermixed_args()

    names = [name for name in COUNTS if not arguments.words or any(word in name for word in arguments.words)]
    baseline = json.loads(arguments.baseline.read_text()) if arguments.baseline.exists() else {}
    with tempfile.TemporaryDirectory() as folder:
        counts = count_all(Bench(arguments.programs, folder), names)
    for name, count in counts.items():
        print_count(name, count, baseline.get(name), arguments.profile)
    rounded = {name: round(count.per_item, 1) for name, count in counts.items()}
    if arguments.json:
        arguments.json.write_text(json.dumps(rounded, indent=2) + "\n")
    elif arguments.accept:
        arguments.baseline.write_text(json.dumps(baseline | rounded, indent=2) + "\n")
    else:
        grown = [name for name, value in rounded.items() if value > baseline.get(name, value) * (1 + TOLERANCE)]
        missing = [name for name in names if name not in baseline]
        if grown or missing:
            sys.exit("".join([f"more than {TOLERANCE:.0%} more instructions: {', '.join(grown)}; if they are worth it: "
                              "scripts/bench --instructions --accept\n" if grown else "",
                              f"not in the baseline: {', '.join(missing)}\n" if missing else ""]))


if __name__ == "__main__":
    main()
