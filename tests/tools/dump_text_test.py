#!/usr/bin/env python3
"""dump_text_test.py PROGRAMS STREAM: `qtrace dump --text` shows each record's mnemonic, as the record's own line of the text
trace has it."""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAMS, STREAM = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
FINE, FAILED, USAGE, FINDINGS = 0, 1, 2, 3
LINE = re.compile(r"^\(seq:.*?\{name:(.*?)\} \(I:", re.M)


def qtrace(*arguments, code=FINE):
    done = subprocess.run([PROGRAMS / "qtrace", *map(str, arguments)], capture_output=True, text=True, check=False)
    assert done.returncode == code, (arguments, done.returncode, done.stdout[-300:], done.stderr[-300:])
    return done


class dump_text(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="qt_text_")
        cls.addClassCleanup(folder.cleanup)
        os.chdir(folder.name)
        pathlib.Path("console").write_text(
            f'plugin load "{PROGRAMS / "plugin_qtbin.so"}"\nplugin signal plugin_qtbin.so start trace txt text\nrun 900\n'
            "plugin signal plugin_qtbin.so pause cpu 0\nrun 100\nplugin signal plugin_qtbin.so resume cpu 0\nrun\n"
            "plugin signal plugin_qtbin.so stop\n", encoding="utf-8")
        subprocess.run([PROGRAMS / "replay", STREAM, "console"], check=True, stdout=subprocess.DEVNULL)
        cls.threads = sorted(path.name[5:] for path in pathlib.Path().glob("trace*"))
        cls.names = {n: LINE.findall(pathlib.Path(f"text{n}").read_text(encoding="utf-8")) for n in cls.threads}

    @staticmethod
    def mnemonics(*arguments):
        lines = map(json.loads, qtrace("dump", "--json", "--fields", "length", *arguments).stdout.splitlines())
        return {line["record"]: line.get("mnemonic") for line in lines if "record" in line}

    def test_shows_the_mnemonic_of_every_record(self):
        for n in self.threads:
            self.assertEqual(self.mnemonics("--text", f"text{n}", f"trace{n}"), dict(enumerate(self.names[n])))

    def test_begins_with_any_record_and_takes_any(self):
        names = self.names["0"]
        for first in (1, 899, 900, len(names) - 1):
            self.assertEqual(self.mnemonics("--text", "text0", "--from", first, "--count", 3, "trace0"),
                             {number: names[number] for number in range(first, min(first + 3, len(names)))})
        chosen = self.mnemonics("--text", "text0", "--kind", "load", "--count", 200, "trace0")
        self.assertEqual(len(chosen), 200)
        self.assertEqual(chosen, {number: names[number] for number in chosen})

    def test_stands_after_the_word_in_lines(self):
        for line in qtrace("dump", "--text", "text0", "--count", 50, "trace0").stdout.splitlines():
            if found := re.match(r" *(\d+) [0-9a-f?]{16} [0-9a-f]{8} (.{24,}?) [I-][N-][-TU]", line):
                self.assertEqual(found[2].rstrip(), self.names["0"][int(found[1])])
            else:
                self.assertRegex(line, "^ +- ")

    def test_takes_the_base_name_of_all_threads(self):
        lines = qtrace("dump", "--text", "text", "--count", 5, "trace").stdout
        for n in self.threads:
            self.assertIn(self.names[n][4], lines)

    def test_a_text_of_another_trace_is_an_error(self):
        lines = pathlib.Path("text0").read_text(encoding="utf-8").splitlines(keepends=True)
        place = [i for i, line in enumerate(lines) if line.startswith("(seq:")][20]
        for change, reason in ((lambda line: re.sub("instbody:0x.", "instbody:0xf", line), "the instruction is f"),
                               (lambda line: re.sub(r"\(PC:0x.", "(PC:0x7", line), "the address is 7"),
                               (lambda line: line.replace("{name:", "{"), "not a record line")):
            pathlib.Path("other0").write_text("".join([*lines[:place], change(lines[place]), *lines[place + 1 :]]), encoding="utf-8")
            done = qtrace("dump", "--text", "other0", "trace0", code=FAILED)
            self.assertRegex(done.stderr, rf"^qtrace: other0: line {place + 1}: {reason}.*it does not belong to this trace\n$")
        pathlib.Path("other0").write_text("".join(lines[:place]), encoding="utf-8")
        done = qtrace("dump", "--text", "other0", "trace0", code=FAILED)
        self.assertEqual(done.stderr, "qtrace: other0: it ends after 20 records, before record 20: it does not belong to this trace\n")
        self.assertRegex(qtrace("dump", "--text", "none0", "trace0", code=FAILED).stderr, "none0: No such file")
        self.assertRegex(qtrace("dump", "--text", "/dev/zero", "trace0", code=FAILED).stderr, "/dev/zero: no text trace")

    def test_there_is_one_text_trace_for_each_file(self):
        done = qtrace("dump", "--text", "text0", "trace0", "trace0", code=USAGE)
        self.assertIn("1 text trace for 2 trace files", done.stderr)

    def test_a_damaged_trace_keeps_its_mnemonics(self):
        content = bytearray(pathlib.Path("trace0").read_bytes())
        if len(self.names["0"]) < 20_000:
            return  # one block, and that is damaged
        content[len(content) // 2] ^= 0x55
        pathlib.Path("broken0").write_bytes(content)
        lines = qtrace("dump", "--json", "--fields", "length", "--text", "text0", "broken0", code=FINDINGS).stdout.splitlines()
        found = {line["record"]: line["mnemonic"] for line in map(json.loads, lines) if "record" in line}
        self.assertLess(len(found), len(self.names["0"]))
        self.assertEqual(found, {number: self.names["0"][number] for number in found})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
