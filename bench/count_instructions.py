#!/usr/bin/env python3
"""Counts the instructions that the plugin executes per committed instruction, with callgrind.

Counted are the plugin's own functions and what they call in the C library; not the host's queries, not the writer.
The count is the same from run to run, so that a small change shows. It is compared with bench/baseline.json, and
growth beyond the tolerance is a failure. A change that is worth its instructions moves the baseline on purpose:

    scripts/bench --instructions --accept
"""

import argparse
import json
import pathlib
import re
import subprocess
import sys
import tempfile
from collections import Counter

TOLERANCE = 0.05
COMMITS = 20_000
STREAMS = ("boot-user", "vector", "guest")
PLUGIN = "plugin_qtbin.so"


class Profile:
    """Costs in a file that callgrind wrote: of each function itself, and of each call from one to another."""

    def __init__(self, path):
        self.own = Counter()  # (object, function)
        self.calls = Counter()  # (object, function) of the caller, then of the function called
        self._names = {"ob": {}, "fn": {}}
        self._read(path)

    def _name(self, kind, text):
        number, _, name = re.fullmatch(r"(?:\((\d+)\))?( ?)(.*)", text).groups()
        if name and number:
            self._names[kind][number] = name
        return name or self._names[kind][number]

    def _read(self, path):
        object_name = function = called_object = called = None
        is_call = False
        for line in open(path, encoding="utf-8", errors="replace"):
            key, _, value = line.rstrip("\n").partition("=")
            if key == "ob":
                object_name = called_object = self._name("ob", value)
            elif key == "fn":
                function, called_object = self._name("fn", value), object_name
            elif key == "cob":
                called_object = self._name("ob", value)
            elif key == "cfn":
                called = self._name("fn", value)
            elif key == "calls":
                is_call = True
            elif re.match(r"[+*\-\d]", line):
                cost = int(line.split()[1]) if len(line.split()) > 1 else 0
                caller = (object_name, function)
                if is_call:
                    self.calls[caller, (called_object, called)] += cost
                    is_call, called_object = False, object_name
                else:
                    self.own[caller] += cost


def is_plugin(place):
    return place[0].endswith(PLUGIN)


def is_library(place):
    return "/libc.so" in place[0] or "/libc-" in place[0] or "/libstdc++" in place[0] or "/ld-linux" in place[0]


def plugin_costs(profile):
    """Instructions by function: the plugin's own, and the library's by the plugin's function that called it."""
    costs = Counter({place[1]: cost for place, cost in profile.own.items() if is_plugin(place)})
    for (caller, called), cost in profile.calls.items():
        if is_plugin(caller) and is_library(called):
            costs[f"{caller[1]} > {called[1]}"] += cost
    return costs


def shortened(place):
    """Without template arguments, which may be whole formats."""
    while (shorter := re.sub(r"<[^<>]*>|\{[^{}]*\}", "", place)) != place:
        place = shorter
    return place[:100]


def run(program, stream, commits, text):
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder, "callgrind.out")
        mode = "--text-instructions" if text else "--instructions"
        done = subprocess.run(
            ["valgrind", "--tool=callgrind", "--collect-atstart=no", f"--callgrind-out-file={out}",
             program, mode, stream, str(commits)],
            capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(f"{program} {mode}: {done.stderr}")
        return plugin_costs(Profile(out)), int(done.stdout)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program", help="commit_benchmarks of the release build")
    parser.add_argument("--baseline", type=pathlib.Path, default=pathlib.Path(__file__).with_name("baseline.json"))
    parser.add_argument("--accept", action="store_true", help="write the counts into the baseline")
    parser.add_argument("--profile", action="store_true", help="print the costs by function")
    parser.add_argument("--json", type=pathlib.Path, help="write the counts here, too; nothing is a failure then")
    parser.add_argument("--text", action="store_true", help="with a text trace (not compared)")
    arguments = parser.parse_args()

    baseline = json.loads(arguments.baseline.read_text()) if arguments.baseline.exists() else {}
    counts, grown = {}, False
    for stream in STREAMS:
        costs, commits = run(arguments.program, stream, COMMITS, arguments.text)
        count = counts[stream] = round(sum(costs.values()) / commits, 1)
        before = baseline.get(stream)
        change = f"{count / before - 1:+.1%} against the baseline of {before:,.1f}" if before else "no baseline"
        print(f"{stream}: {count:,.1f} instructions a commit ({change})")
        grown = grown or (before is not None and count > before * (1 + TOLERANCE))
        if arguments.profile:
            for place, cost in costs.most_common(30):
                print(f"{cost / commits:10.1f}  {shortened(place)}")
    if arguments.json:
        arguments.json.write_text(json.dumps(counts) + "\n")
    elif arguments.accept:
        arguments.baseline.write_text(json.dumps(counts, indent=2) + "\n")
    elif grown and not arguments.text:
        sys.exit(f"the plugin executes more than {TOLERANCE:.0%} more instructions a commit; if they are worth it: "
                 "scripts/bench --instructions --accept")


if __name__ == "__main__":
    main()
