#!/usr/bin/env python3
"""lost_records_test.py REPLAY PLUGIN QTRACE LEAVE_OUT PLACES STREAM...: takes single records out of traces, without a
trace of it in the file, and prints how often `qtrace check --deep` notices, by rule. Most must be noticed."""
import json
import os
import subprocess
import sys
import tempfile

REPLAY, PLUGIN, QTRACE, LEAVE_OUT = map(os.path.abspath, sys.argv[1:5])
PLACES = int(sys.argv[5])
STREAMS = list(map(os.path.abspath, sys.argv[6:]))
DEEP = ["register-flow", "real-of-effective", "same-page-same-walk", "code-unchanged"]


def run(*command):
    return subprocess.run(command, check=False, stdout=subprocess.PIPE, text=True).stdout


def trace(stream):
    with open("commands", "w", encoding="utf-8") as commands:
        commands.write(f'plugin load "{PLUGIN}"\nplugin signal plugin_qtbin.so start trace\nrun\n')
        commands.write("plugin signal plugin_qtbin.so stop\n")
    run(REPLAY, stream, "commands")


def broken(file):
    return set(json.loads(run(QTRACE, "check", "--deep", "--json", "--limit", "0", file).splitlines()[-1])["violations"])


def measure(name):
    records = json.loads(run(QTRACE, "info", "--json", "trace0"))["records"]
    assert not broken("trace0"), f"{name}: a rule is broken in a trace that is whole"
    noticed = dict.fromkeys(DEEP + ["deep", "any"], 0)
    for place in range(PLACES):
        # not the last records: nothing after them could tell
        record = 1 + (records - 100) * place // PLACES
        run(LEAVE_OUT, "trace0", "less/trace0", f"{record}:1")
        rules = broken("less/trace0")
        for rule in DEEP:
            noticed[rule] += rule in rules
        noticed["deep"] += bool(rules & set(DEEP))
        noticed["any"] += bool(rules)
    print(f"{name:12}", *(f"{what} {100 * count // PLACES} %" for what, count in noticed.items()), sep="  ")
    return noticed


def main():
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        os.mkdir("less")
        for stream in STREAMS:
            for file in os.listdir("."):
                if file.startswith("trace"):
                    os.unlink(file)
            trace(stream)
            noticed = measure(os.path.basename(stream).split(".")[0])
            assert noticed["deep"] > PLACES // 2, "most lost records must be noticed"
            assert noticed["register-flow"] > PLACES // 10
            assert noticed["any"] >= noticed["deep"]


main()
