"""Runs programs under callgrind and reads what it wrote. Counts of instructions are the same from run to run."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
from collections import Counter

LIBRARIES = ("/libc.so", "/libc-", "/libstdc++", "/libgcc", "/libm.so", "/ld-linux")


class Profile:
    """Instructions of each function itself, and of each call from one function to another (all that it led to)."""

    def __init__(self, path):
        self.own = Counter()  # (object, function)
        self.calls = Counter()  # (object, function) of the caller, then of the function called
        self._names = {"ob": {}, "fn": {}}
        self._read(path)

    def total(self):
        return sum(self.own.values())

    def costs_of(self, *objects):
        """By function: what the objects execute, and what the libraries of the compiler execute for them."""
        costs = Counter({place[1]: cost for place, cost in self.own.items() if is_in(place, objects)})
        for (caller, called), cost in self.calls.items():
            if is_in(caller, objects) and is_in(called, LIBRARIES):
                costs[f"{caller[1]} > {called[1]}"] += cost
        return costs

    def all_costs(self):
        return Counter({f"{pathlib.Path(place[0]).name}: {place[1]}": cost for place, cost in self.own.items()})

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


def is_in(place, objects):
    return any(name in place[0] for name in objects)


def run_windows(preload, size, ends, *command):
    """The profiles of windows of `size` items of a trace, each before an item of these numbers. `preload` is
    counted_windows.so; its own instructions are left out."""
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder, "callgrind.out")
        done = subprocess.run(["valgrind", "--tool=callgrind", "--instr-atstart=no", f"--callgrind-out-file={out}",
                               *map(str, command)], capture_output=True, text=True,
                              env={**os.environ, "LD_PRELOAD": str(preload),
                                   "COUNTED_WINDOWS": " ".join(map(str, (size, *ends)))})
        if done.returncode != 0:
            sys.exit(f"{' '.join(map(str, command))}: {done.stderr}")
        profiles = [Profile(f"{out}.{i + 1}") for i in range(len(ends))]
    for profile in profiles:
        profile.own = Counter({place: cost for place, cost in profile.own.items() if not is_in(place, (preload.name,))})
    return profiles


def run(*command, collect_at_start=True, accept=(0,)):
    """The profile of a command, and its standard output. A program that toggles collection starts without it."""
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder, "callgrind.out")
        done = subprocess.run(
            ["valgrind", "--tool=callgrind", f"--collect-atstart={'yes' if collect_at_start else 'no'}",
             f"--callgrind-out-file={out}", *map(str, command)], capture_output=True, text=True)
        if done.returncode not in accept:
            sys.exit(f"{' '.join(map(str, command))}: {done.stderr}")
        return Profile(out), done.stdout
