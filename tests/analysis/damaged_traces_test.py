#!/usr/bin/env python3
"""damaged_traces_test.py QTRACE REPLAY PLUGIN STREAM...: `tlb` and `report` on the traces of every stream, whole, with
damaged bytes and cut: they count the instructions that `stats` counts, the page says what was lost, is small, and
asks nothing of any other place."""
import json
import os
import re
import subprocess
import sys
import tempfile

QTRACE, REPLAY, PLUGIN, *STREAMS = map(os.path.abspath, sys.argv[1:])
FINE, FOUND = 0, 3


def run(*command, status):
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    assert done.returncode == status, (command, done.returncode, done.stderr)
    return done.stdout


def trace(stream):
    with open("commands", "w", encoding="utf-8") as commands:
        commands.write(f'plugin load "{PLUGIN}"\nplugin signal plugin_qtbin.so start whole\nrun\n')
        commands.write("plugin signal plugin_qtbin.so stop\n")
    run(REPLAY, stream, "commands", status=FINE)


def write_damaged():
    with open("whole0", "rb") as file:
        data = bytearray(file.read())
    with open("cut0", "wb") as file:
        file.write(data[: len(data) * 3 // 4])
    half = len(data) // 2
    data[half : half + 40] = bytes(40)
    with open("damaged0", "wb") as file:
        file.write(data)


def check(name, status, sentence):
    tlb = json.loads(run(QTRACE, "tlb", "--json", name, status=status))
    instructions = json.loads(run(QTRACE, "stats", "--json", name, status=status).splitlines()[0])["instructions"]
    assert tlb["instructions"] == instructions, (tlb["instructions"], instructions)
    run(QTRACE, "report", "-o", "page.html", name, status=status)
    with open("page.html", encoding="utf-8") as file:
        page = file.read()
    assert len(page) < 1_000_000, len(page)
    assert sentence in page, (name, sentence)
    assert f"{instructions:,}" in page or str(instructions) in page
    assert not re.search(r"""(src|href)=["'](https?:)?//|url\(http|@import""", page)
    assert page.count("<table") >= 8 and "<noscript>" in page
    return instructions


def main():
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        for stream in STREAMS:
            trace(stream)
            write_damaged()
            whole = check("whole0", FINE, "complete")
            damaged, cut = check("damaged0", FOUND, "damaged"), check("cut0", FOUND, "damaged")
            print(os.path.basename(stream), whole, damaged, cut)
            assert damaged < whole and cut < whole


main()
