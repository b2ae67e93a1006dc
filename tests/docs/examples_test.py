#!/usr/bin/env python3
"""examples_test.py BIN SOURCE [--renew]: runs the examples of README.md and docs/ that are marked with

    <!-- example: FOLDER -->

before a fenced block, in a folder with the traces that FOLDERS says, and compares what they print. A line "..." stands for
any lines. --renew writes what the programs print into the pages, but leaves blocks with "..." alone when they still fit."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

BIN = pathlib.Path(sys.argv[1]).resolve()
SOURCE = pathlib.Path(sys.argv[2]).resolve()
RENEW = "--renew" in sys.argv[3:]
EXAMPLE = re.compile(r"(<!-- example: ([a-z-]+) -->\n```[a-z]*\n)(.*?)(```)", re.S)


def trace(stream, base, more=""):
    pathlib.Path("commands").write_text(
        f'plugin load "{BIN}/plugin_qtbin.so"\nplugin signal plugin_qtbin.so start "{base}"{more}\nrun\n'
        "plugin signal plugin_qtbin.so stop\n", encoding="utf-8")
    subprocess.run([BIN / "replay", stream, "commands"], check=True, stdout=subprocess.DEVNULL)


def make_sample():
    trace(SOURCE / "streams/sample.jsonl", "trace", " txt text pte pte")


def make_two_cpu():
    trace(SOURCE / "streams/two-cpu.jsonl.zst", "trace")


def make_changed():
    """In the second run one register has another value."""
    lines = (SOURCE / "streams/sample.jsonl").read_text(encoding="utf-8").splitlines(keepends=True)
    lines[499] = lines[499].replace('"out":{"gpr":[[11,"0x0', '"out":{"gpr":[[11,"0x70')
    pathlib.Path("changed.jsonl").write_text("".join(lines), encoding="utf-8")
    trace(SOURCE / "streams/sample.jsonl", "old", " txt oldtext")
    trace("changed.jsonl", "new")


def make_damaged():
    trace(SOURCE / "streams/boot-user.jsonl.zst", "broken")
    content = bytearray(pathlib.Path("broken0").read_bytes())
    content[len(content) // 2] ^= 0x55
    pathlib.Path("broken0").write_bytes(content)


FOLDERS = {"sample": make_sample, "two-cpu": make_two_cpu, "changed": make_changed, "damaged": make_damaged}


def run_block(block, folder):
    """What the commands of a block print, after each of them."""
    path = f"{BIN}{os.pathsep}{os.environ['PATH']}"
    output = []
    for line in block.splitlines():
        if not line.startswith("$ "):
            continue
        done = subprocess.run(line[2:], shell=True, cwd=folder, env={**os.environ, "PATH": path}, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        output.append(line + "\n" + done.stdout)
    return "".join(output)


def fits(block, output):
    parts = [re.escape(part) for part in re.split(r"(?m)^\.\.\.\n", block)]
    return re.fullmatch(r"(?:.*\n)*?".join(parts), output) is not None


def main():
    stale = examples = 0
    with tempfile.TemporaryDirectory() as root:
        for name, make in FOLDERS.items():
            os.makedirs(f"{root}/{name}")
            os.chdir(f"{root}/{name}")
            make()
        for page in [SOURCE / "README.md", *sorted((SOURCE / "docs").glob("*.md"))]:
            text = page.read_text(encoding="utf-8")

            def check(match):
                nonlocal stale, examples
                examples += 1
                output = run_block(match[3], f"{root}/{match[2]}")
                if fits(match[3], output):
                    return match[0]
                stale += 1
                print(f"{page.name}: this example prints something else:\n{match[3]}--- it prints\n{output}")
                return match[1] + output + match[4]

            renewed = EXAMPLE.sub(check, text)
            if RENEW and renewed != text:
                page.write_text(renewed, encoding="utf-8")
    print(f"{examples} examples, {stale} stale")
    assert examples >= 8, "examples lost their marks"
    return stale != 0 and not RENEW


if __name__ == "__main__":
    sys.exit(main())
