#!/usr/bin/env python3
"""Plays the streams of this folder and compares what comes out with the expected files beside them.

A case is a folder with `stream.jsonl`, `console` (the commands) and `expected/`. It is played in an empty folder
where the plugin is `plugin_qtbin.so`; the session's files are to be called trace, text and pte there. Compared are

    text<N>   as they are
    trace<N>  as `qtrace dump --json` prints them                    -> trace<N>.json
    pte<N>    one 8-byte word a line, in hexadecimal                 -> pte<N>.hex

All files that a case makes must be expected and the other way round."""

import argparse
import difflib
import pathlib
import re
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent


def run(arguments, folder):
    """Standard output of a program that is to succeed quietly."""
    done = subprocess.run(arguments, cwd=folder, stdin=subprocess.DEVNULL, capture_output=True, timeout=120)
    if done.returncode != 0 or done.stderr:
        sys.exit(f"{' '.join(map(str, arguments))}: exit status {done.returncode}\n{done.stderr.decode(errors='replace')}")
    return done.stdout.decode(errors="surrogateescape")


def words(data):
    """The bytes as one 8-byte word a line; a rest that is no word stands alone."""
    return "".join(data[at : at + 8].hex() + "\n" for at in range(0, len(data), 8))


def play(case, programs):
    """Name and text of every file to compare."""
    with tempfile.TemporaryDirectory(prefix="qt_golden_") as name:
        folder = pathlib.Path(name)
        (folder / "plugin_qtbin.so").symlink_to(programs / "plugin_qtbin.so")
        run([programs / "replay", case / "stream.jsonl", case / "console"], folder)
        results = {}
        for file in sorted(folder.iterdir()):
            if re.fullmatch(r"text\d+", file.name):
                results[file.name] = file.read_text(errors="surrogateescape")
            elif re.fullmatch(r"trace\d+", file.name):
                results[file.name + ".json"] = run([programs / "qtrace", "dump", "--json", file.name], folder)
            elif re.fullmatch(r"pte\d+", file.name):
                results[file.name + ".hex"] = words(file.read_bytes())
            elif file.name != "plugin_qtbin.so":
                sys.exit(f"{case.name}: unexpected file {file.name}")
        return results


def expected(case):
    return {file.name: file.read_text(errors="surrogateescape") for file in sorted((case / "expected").glob("*"))}


def difference(case, old, new):
    """Unified difference of all files of a case; empty when there is none."""
    lines = []
    for name in sorted(old.keys() | new.keys()):
        lines += difflib.unified_diff(
            old.get(name, "").splitlines(keepends=True),
            new.get(name, "").splitlines(keepends=True),
            f"{case.name}/expected/{name}" if name in old else "/dev/null",
            f"{case.name}/{name}" if name in new else "/dev/null",
        )
        if (name in old) != (name in new):
            lines.append(f"{case.name}: {name} is {'missing' if name in old else 'not expected'}\n")
    return "".join(lines)


def renew(case, new):
    folder = case / "expected"
    folder.mkdir(exist_ok=True)
    for file in folder.iterdir():
        file.unlink()
    for name, text in new.items():
        (folder / name).write_text(text, errors="surrogateescape")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("cases", nargs="*", help="names of cases; all without any")
    parser.add_argument("--programs", type=pathlib.Path, required=True, help="folder of replay, qtrace, plugin_qtbin.so")
    parser.add_argument("--renew", action="store_true", help="write the expected files anew and show what changes")
    options = parser.parse_args()
    programs = options.programs.resolve()
    cases = [HERE / name for name in options.cases] or sorted(file.parent for file in HERE.glob("*/stream.jsonl"))
    changed = False
    for case in cases:
        old, new = expected(case), play(case, programs)
        text = difference(case, old, new)
        sys.stdout.write(text)
        changed = changed or bool(text)
        if options.renew and text:
            renew(case, new)
    return 1 if changed and not options.renew else 0


if __name__ == "__main__":
    sys.exit(main())
