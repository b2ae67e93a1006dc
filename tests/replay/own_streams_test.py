"""Streams of one's own: the Python writer, the converter of a text log, and a program that writes a stream live.

    own_streams_test.py PROGRAMS"""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

BIN = pathlib.Path(sys.argv.pop(1)).resolve()
ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "python"))

from qtrace import commit_stream  # noqa: E402

SECONDS = 60

LOG = """1 1000 e8640008 ld r3,8(r4) ; read 2008 ; r4=2000 ; r3:2a
2 1004 4800000c b 0x1010 ; taken

3 1010 f8640010 std r3,16(r4) ; write 2010 ; r3=2a ; r4=2000
"""


def run(*arguments, **options):
    return subprocess.run(list(map(str, arguments)), capture_output=True, text=True, timeout=SECONDS, **options)


class Stream_Test(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="own-streams-")
        self.addCleanup(place.cleanup)
        self.folder = pathlib.Path(place.name)
        self.stream = self.folder / "stream.jsonl"
        self.script = self.folder / "script"
        self.script.write_text(f'plugin load "{BIN}/plugin_qtbin.so"\nplugin signal plugin_qtbin.so start "{self.folder}/t"\n'
                               "run\nplugin signal plugin_qtbin.so stop\n")

    def expect_good(self, stream, commits):
        checked = run(BIN / "replay", "--check", stream)
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        self.assertIn(f"lines      commit {commits}, ", checked.stdout)

    def expect_good_trace(self, records):
        checked = run(BIN / "qtrace", "check", self.folder / "t")
        self.assertEqual(checked.returncode, 0, checked.stdout + checked.stderr)
        lines = run(BIN / "qtrace", "dump", "--json", self.folder / "t0").stdout.splitlines()
        self.assertEqual(sum('"record"' in line for line in lines), records)


class python_writer(Stream_Test):
    def write_all(self, file):
        with commit_stream.Writer(file, processors=1, threads=2, version=3, memory=1 << 40, options=[450], source="é") as out:
            out.context(1, lpid=1 << 63, pid=7, kernel=True, pages=["64K"], guest_pages=[])
            out.commit(1, 1, (1 << 64) - 4, 0, 0xFFFFFFFF, text='a "b"\n', flags=["load", "vsx"], string_length=0xFFFF,
                       fetch={"mode": 23, "guest_two_level": 1, "relocated": True, "host_walk": [(1, 2, 3, (1 << 64) - 1)],
                              "host_ra": [5], "guest_walk": (1, 2, 3, 4, 5)},
                       data={"ea": 8}, inputs={"spr": [(-1, 9)]}, outputs={"vsx": [(63, 1, 2)]}, time=100)
            out.commit(0, 2, 0, 4, 0)
            out.pre(0)
            out.pte(1, 1, 2, 3)
            out.rtpte(1, 1, 2, 3, 4, 5)

    EXPECTED = [
        {"t": "machine", "processors": 1, "threads": 2, "version": 3, "memory": "0x10000000000", "options": [450], "source": "é"},
        {"t": "context", "tid": 1, "lpid": "0x8000000000000000", "pid": 7, "kernel": True, "pages": ["64K"], "guest_pages": []},
        {"t": "commit", "tid": 1, "seq": "0x1", "pc": "0xfffffffffffffffc", "npc": "0x0", "op": "0xffffffff", "text": 'a "b"\n',
         "is": ["load", "vsx"], "string_length": 65535,
         "fetch": {"mode": 23, "guest_two_level": 1, "relocated": True, "host_walk": [["0x1", "0x2", "0x3", "0xffffffffffffffff"]],
                   "host_ra": ["0x5"], "guest_walk": ["0x1", "0x2", "0x3", "0x4", "0x5"]},
         "in": {"spr": [[-1, "0x9"]]}, "out": {"vsx": [[63, "0x1", "0x2"]]}, "data": {"ea": "0x8"}, "time": "0x64"},
        {"t": "commit", "tid": 0, "seq": "0x2", "pc": "0x0", "npc": "0x4", "op": 0},
        {"t": "pre", "tid": 0},
        {"t": "pte", "tid": 1, "pa": "0x1", "upper": "0x2", "lower": "0x3"},
        {"t": "rtpte", "tid": 1, "l1": "0x1", "l2": "0x2", "l3": "0x3", "pte": "0x4", "pa": "0x5"},
    ]  # fmt: skip

    def test_lines_have_what_was_given(self):
        self.write_all(str(self.stream))
        lines = self.stream.read_text(encoding="utf-8").splitlines()
        self.assertEqual([json.loads(line) for line in lines], self.EXPECTED)

    def test_streams_are_read_plain_and_compressed(self):
        for name in ("s.jsonl", "s.jsonl.zst"):
            self.write_all(str(self.folder / name))
            checked = run(BIN / "replay", "--check", self.folder / name)
            self.assertIn("lines      commit 2, context 1, pre 1, pte 1, rtpte 1\n", checked.stdout)

    def test_what_readers_would_refuse_is_refused(self):
        with commit_stream.Writer(str(self.stream), processors=1, threads=1) as out:
            plain = {"seq": 1, "pc": 0, "npc": 4, "op": 0}
            wrong = [
                lambda: out.commit(1, **plain), lambda: out.commit(-1, **plain), lambda: out.pre(1),
                lambda: out.commit(0, **{**plain, "pc": 1 << 64}), lambda: out.commit(0, **{**plain, "op": -1}),
                lambda: out.commit(0, **plain, flags=["loads"]), lambda: out.commit(0, **plain, fetch={"ea": 1}),
                lambda: out.commit(0, **plain, fetch={"modes": 1}), lambda: out.commit(0, **plain, fetch={"page_size": 256}),
                lambda: out.commit(0, **plain, fetch={"host_walk": [(1, 2, 3)]}),
                lambda: out.commit(0, **plain, fetch={"host_walk": [(1, 2, 3, 4)] * 6}),
                lambda: out.commit(0, **plain, fetch={"guest_walk": (1, 2, 3, 4)}),
                lambda: out.commit(0, **plain, data={"host_ra": [1] * 5}),
                lambda: out.commit(0, **plain, inputs={"gpr": [(1, 2)] * 33}),
                lambda: out.commit(0, **plain, inputs={"vmx": [(1, 2)]}), lambda: out.commit(0, **plain, inputs={"cr": []}),
                lambda: out.commit(0, **plain, string_length=65536), lambda: out.context(0, pid=1 << 32),
                lambda: out.context(0, pages=["3K"]), lambda: out.context(0, user=1),
                lambda: out.pte(0, 1 << 64, 0, 0), lambda: out.commit(0, **plain, data={"host_ra": [-1]}),
            ]  # fmt: skip
            for call in wrong:
                with self.assertRaises(ValueError):
                    call()
        self.assertEqual(len(self.stream.read_text().splitlines()), 1)
        with self.assertRaises(ValueError):
            commit_stream.Writer(str(self.folder / "none"), processors=65536, threads=2)
        self.assertFalse((self.folder / "none").exists())

    def test_words_are_those_of_the_header(self):
        header = (ROOT / "include/commit_stream_writer.h").read_text()

        def rows(name, row):
            text = header.split(f"#define {name}({row})")[1].split("\n\n")[0]
            return re.findall(rf"{row}\((\w+)", text)

        self.assertEqual(rows("COMMIT_STREAM_FLAGS", "FLAG"), list(commit_stream.FLAGS))
        self.assertEqual(rows("COMMIT_STREAM_PAGE_SIZES", "SIZE"), list(commit_stream.PAGE_SIZES))
        self.assertEqual(rows("COMMIT_STREAM_REGISTER_CLASSES", "CLASS"), list(commit_stream.REGISTERS))
        self.assertEqual(rows("COMMIT_STREAM_MACHINE_KEYS", "KEY"), list(commit_stream.MACHINE))
        self.assertEqual(rows("COMMIT_STREAM_ADDRESS_KEYS", "KEY"), list(commit_stream.ADDRESS)[1:])
        self.assertEqual(rows("COMMIT_STREAM_CONTEXT_KEYS", "KEY")[:8], list(commit_stream.CONTEXT))


class examples(Stream_Test):
    def test_text_log_is_converted_and_traced(self):
        log = self.folder / "log"
        log.write_text(LOG)
        done = run(sys.executable, ROOT / "examples/convert_commit_log.py", log, self.stream, env={"PYTHONPATH": str(ROOT / "python")})
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.expect_good(self.stream, 3)
        second = json.loads(self.stream.read_text().splitlines()[3])
        self.assertEqual((second["npc"], second["is"]), ("0x1010", ["branch", "unconditional", "taken"]))
        self.assertEqual(run(BIN / "replay", self.stream, self.script).returncode, 0)
        self.expect_good_trace(3)
        dump = run(BIN / "qtrace", "dump", self.folder / "t0").stdout
        self.assertIn("2010", dump)

    def test_converter_has_at_most_60_lines(self):
        self.assertLessEqual(len((ROOT / "examples/convert_commit_log.py").read_text().splitlines()), 60)

    def test_program_that_writes_a_stream_is_traced_live(self):
        with subprocess.Popen([str(BIN / "live_stream"), "1000"], stdout=subprocess.PIPE) as program:
            done = run(BIN / "replay", "-", self.script, stdin=program.stdout)
        self.assertEqual((done.returncode, done.stderr, program.returncode), (0, "", 0))
        self.expect_good_trace(3000)
        self.stream.write_bytes(subprocess.run([str(BIN / "live_stream"), "5"], capture_output=True, check=True).stdout)
        self.expect_good(self.stream, 15)


if __name__ == "__main__":
    unittest.main()
