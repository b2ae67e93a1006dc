"""The Python reader and the C++ reader deliver the same, item by item.

    reader_agreement_test.py PROGRAMS Corpus|Damage|Random|Blocks|Streams|Lines|Recovered

Corpus: the small traces of tests/golden/format, which have an expectation of their own; Damage: some of these with
every byte changed, cut off and taken out; Random: generated records;
Blocks: files of blocks changed by chance, with right checksums;
Streams: recorded streams through the replay program (the first 20,000 lines of each, with QT_LONG=1 all of every
one); Lines: what `qtrace dump --json` and the command line of qtrace.plain print; Recovered: what `qtrace info` says of the
small traces, and `qtrace recover` makes of them. QT_LONG=1 takes more of all."""
import itertools
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import zstandard

import block_files
import reader_agreement
from reader_agreement import plain

ROOT = pathlib.Path(__file__).parents[2]
CORPUS = ROOT / "tests/golden/format"
LONG = os.environ.get("QT_LONG") == "1"
LINES_OF_A_STREAM = 20000
DAMAGED = ("several-blocks", "comment-block-300", "gap-block-1", "missing-block-1", "last-block-in-between",
           "zstd", "value-kind-41")  # fmt: skip
PROGRAMS = pathlib.Path(sys.argv[1])


def expectation_of(item):
    if isinstance(item, plain.Discontinuity):
        return {"discontinuity": item.cause, "offset": item.offset, "bytes": item.bytes, "records": item.records,
                "known": item.records_known}  # fmt: skip
    return item.for_json()


def is_damage(item):
    return isinstance(item, plain.Discontinuity) and item.is_damage


def read_all(path):
    try:
        return [expectation_of(item) for item in plain.Trace(path)]
    except plain.NotATraceError:
        return [{"refused": True}]


class Agreement(unittest.TestCase):
    maxDiff = 2000

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def assert_readers_agree(self, path):
        difference, items = reader_agreement.first_difference(PROGRAMS / "trace_items", path)
        self.assertIsNone(difference)
        return items

    def replay(self, stream):
        """The traces of a recorded stream, or of its first lines."""
        console = self.folder / "console"
        plugin = PROGRAMS / "plugin_qtbin.so"
        signal = f"plugin signal {plugin.name}"
        console.write_text(f'plugin load "{plugin}"\n{signal} start "{self.folder}/trace"\nrun\n{signal} stop\n')
        run = subprocess.run([PROGRAMS / "replay", "-e", self.beginning_of(stream), console], capture_output=True)
        self.assertEqual(run.returncode, 0, run.stderr)
        return sorted(self.folder.glob("trace[0-9]*"))

    def beginning_of(self, stream):
        if LONG or stream.suffix != ".zst":
            return stream
        copy = self.folder / "stream.jsonl"
        with zstandard.open(stream, "rt", encoding="utf-8") as lines, copy.open("w", encoding="utf-8") as out:
            for _, line in zip(range(LINES_OF_A_STREAM), lines):
                out.write(line)
        return copy


class Corpus(Agreement):
    def test_has_what_its_generator_makes(self):
        check = subprocess.run([sys.executable, CORPUS / "make_corpus.py", "--check"], capture_output=True, text=True)
        self.assertEqual(check.returncode, 0, check.stdout + check.stderr)

    def test_every_trace_gives_what_was_put_in_and_both_readers_agree(self):
        traces = sorted(CORPUS.glob("*.trace"))
        self.assertGreaterEqual(len(traces), 200)
        for path in traces:
            with self.subTest(path.name):
                expected = path.with_suffix(".json").read_text().splitlines()
                self.assertEqual(read_all(path), [json.loads(line) for line in expected])
                self.assert_readers_agree(path)


class Damage(Agreement):
    def test_at_any_byte(self):
        changed = self.folder / "changed"
        for name in DAMAGED if LONG else DAMAGED[:1]:
            data = (CORPUS / f"{name}.trace").read_bytes()
            for place in range(len(data)):
                flipped = bytes([data[place] ^ 1 << place % 8])
                for kind, bad in (
                    ("flipped", data[:place] + flipped + data[place + 1 :]),
                    ("cut", data[:place]),
                    ("taken out", data[:place] + data[place + 1 :]),
                ):
                    with self.subTest(name=name, place=place, kind=kind):
                        changed.write_bytes(bad)
                        self.assert_readers_agree(changed)


class Random(Agreement):
    def test_generated_records(self):
        for seed in range(1, 11 if LONG else 2):
            path = self.folder / "generated"
            subprocess.run([PROGRAMS / "random_trace_file", path, "100000", str(seed)], check=True)
            self.assertGreater(self.assert_readers_agree(path), 100000)


class Blocks(Agreement):
    def test_of_any_contents_with_right_checksums(self):
        blocks = block_files.blocks_of(sorted(CORPUS.glob("*.trace")))
        self.assertGreater(len(blocks), 400)
        path, items = self.folder / "blocks", 0
        for seed in range(75000 if LONG else 1500):
            path.write_bytes(block_files.block_file(seed, blocks))
            difference, compared = reader_agreement.first_difference(PROGRAMS / "trace_items", path)
            self.assertIsNone(difference, f"seed {seed}")
            items += compared
        self.assertGreater(items, 3 * seed)


class Streams(Agreement):
    def test_recorded_streams(self):
        recorded = sorted(ROOT.glob("streams/*.jsonl*"))
        self.assertGreaterEqual(len(recorded), 7)
        for stream in recorded:
            with self.subTest(stream.name):
                traces = self.replay(stream)
                self.assertTrue(traces)
                for trace in traces:
                    self.assertGreater(self.assert_readers_agree(trace), 100)


class Lines(Agreement):
    def printed(self, *command):
        environment = os.environ | {"PYTHONPATH": str(ROOT / "python")}
        output = subprocess.run([*map(str, command)], capture_output=True, text=True, env=environment)
        return [json.loads(line) for line in output.stdout.splitlines()], output.returncode

    def test_both_commands_print_the_same(self):
        traces = [*sorted(CORPUS.glob("*.trace")), *self.replay(ROOT / "streams/sample.jsonl")]
        for trace in traces if LONG else traces[:: len(traces) // 60 + 1] + traces[-1:]:
            with self.subTest(trace.name):
                mine = self.printed(sys.executable, "-m", "qtrace.plain", trace)
                lines, code = self.printed(PROGRAMS / "qtrace", "dump", "--json", trace)
                for line in lines:
                    line.pop("kinds", None)  # what an instruction does is no matter of the format
                self.assertEqual(mine, (lines, code))


class Recovered(Agreement):
    def for_every_trace(self, check):
        whole = 0
        for path in sorted(CORPUS.glob("*.trace")):
            with self.subTest(path.name):
                try:
                    trace = plain.Trace(path)
                except plain.NotATraceError:
                    continue
                places, items = list(trace.blocks()), list(trace)
                damaged = any(map(is_damage, items))
                # Most traces differ in what is in their items, which neither command looks at.
                whole += not damaged
                if damaged or len(places) > 1 or whole % 10 == 0 or LONG:
                    check(path, places, items)

    def qtrace(self, *arguments):
        run = subprocess.run([PROGRAMS / "qtrace", *arguments], capture_output=True, text=True)
        return run.returncode, json.loads(run.stdout) if run.stdout else None

    def test_info_says_what_reading_finds(self):
        def check(path, places, items):
            ends = [isinstance(place, plain.Block) and bool(place.flags & plain.FLAG_LAST) for place in places]
            code, info = self.qtrace("info", "--json", "--verify", path)
            self.assertEqual(code, 3 if any(map(is_damage, items)) else 0)
            self.assertEqual(info["damaged_places"], sum(map(is_damage, places)))
            self.assertEqual(info["clean_end"], ends[-1] and sum(ends) == 1)

        self.for_every_trace(check)

    def test_recovering_keeps_all_that_is_whole_and_the_result_is_not_damaged(self):
        saved, again = self.folder / "saved", self.folder / "again"

        def check(path, places, items):
            damages = [item for item in items if is_damage(item)]
            gone = set(itertools.chain(*(range(damage.offset, damage.offset + damage.bytes) for damage in damages)))
            kept = [item for item in items if isinstance(item, (plain.Header, plain.Record)) and item.block_offset not in gone]
            code, _ = self.qtrace("recover", "--json", path, saved)
            if not any(isinstance(place, plain.Block) and place.offset not in gone for place in places):
                self.assertEqual(code, 1)
                return
            self.assertEqual(code, 3 if damages else 0)
            self.assertEqual([line for line in read_all(saved) if "discontinuity" not in line], [item.for_json() for item in kept])
            self.assertFalse(any(map(is_damage, plain.Trace(saved))))
            self.assert_readers_agree(saved)
            if not damages and path.name != "file-start-missing.trace":
                self.assertEqual(saved.read_bytes(), path.read_bytes())
            self.assertEqual(self.qtrace("recover", "--json", saved, again)[0], 0)
            self.assertEqual(again.read_bytes(), saved.read_bytes())

        self.for_every_trace(check)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
