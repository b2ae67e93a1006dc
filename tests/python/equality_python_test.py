"""Every column of every record is what the plain reader and `qtrace dump --json` say."""
import itertools
import json
import os
import subprocess

import traced_streams
from traced_streams import PROGRAMS, STREAMS, InFolder

import numpy as np
import qtrace
from qtrace import plain

LONG = os.environ.get("QT_LONG") == "1"
WHOLE = STREAMS if LONG else ("sample", "guest")  # read whole by the plain reader; of the others every fourth block
COUNT = 1_000_000 if LONG else 20_000  # records of each stream whose JSON lines are compared
MODES = ("radix", "hpt", "real", "none")
COLUMNS = [name for name in (*qtrace.DEFAULT_COLUMNS, "has_address", "termination_node", "processor")]
SIMPLE = {"word": "instruction", "flags": "control", "node": "node", "termination_node": "termination_node",
          "termination": "termination_code", "error": "error_code", "processor": "processor",
          "length": "length"}  # fmt: skip
DATA, NEXT = 1 << 43, 1 << 38
# Bits of the control word by side: guest and host mode, and what is present.
SIDES = {
    "data": ("data", 12, 14, {"vsid": 42, "rpn": 41, "page_size": 24, "guest_page_size": 18}),
    "next": ("next_instruction", 8, 10, {"vsid": 37, "rpn": 36, "page_size": 25, "guest_page_size": 19}),
}


def translation_of(record, side, address):
    """The translation of a plain record's address, as a row of `translations()` in the order of its columns."""
    prefix, guest, host, present = SIDES[side]
    members = {name: getattr(record, f"{prefix}_{name}") for name in ("vsid", "rpn", "page_size")}
    members["guest_page_size"] = getattr(record, f"{prefix}_gpage_size")
    row = [MODES[record.control >> guest & 3], MODES[record.control >> host & 3]]
    for name, bit in present.items():
        row += [members[name], bool(record.control >> bit & 1)]
    walk = getattr(record, f"{prefix}_gRTW")
    guest_address = walk[5] ^ (address & 0xFFF if walk[5] >= 4096 else 0)
    row += [getattr(record, f"{prefix}_hRTW_depth"), getattr(record, f"{prefix}_hRTW_num_level")]
    row += [*getattr(record, f"{prefix}_hRTW"), *getattr(record, f"{prefix}_hRTW_host_RA"), *walk[:5], guest_address]
    return tuple(row)


ABSENT = ("none", "none", 0, False, 0, False, 0, False, 0, False, 0, 0, *[0] * 30)


def expected_columns(records):
    """The columns of plain records; translations as rows."""
    columns = {name: [getattr(record, member) for record in records] for name, member in SIMPLE.items()}
    columns["has_address"] = [record.address is not None for record in records]
    columns["address"] = [record.address or 0 for record in records]
    for side, flag, member in (("data", DATA, "data_ea"), ("next", NEXT, "next_instruction_ea")):
        has = [record.control & flag != 0 for record in records]
        columns[f"has_{side}"] = has
        columns[side] = [getattr(record, member) if there else 0 for record, there in zip(records, has)]
        columns[f"{side}_translation"] = [
            translation_of(record, side, getattr(record, member)) if there else ABSENT
            for record, there in zip(records, has)
        ]
    columns["context"] = [record.header_number - 1 & 0xFFFFFFFF for record in records]
    return columns


class Equality(InFolder):
    def assert_equal_to_records(self, frame, translations, records):
        self.assertEqual(frame.index.tolist(), [record.number for record in records])
        expected = expected_columns(records)
        rows = list(translations.itertuples(index=False, name=None))
        for name in COLUMNS:
            with self.subTest(name):
                found = frame[name].tolist()
                if name.endswith("_translation"):
                    found = [rows[number] for number in found]
                self.assertEqual(found, expected[name])

    def assert_registers_equal(self, registers, records):
        expected = []
        for record in records:
            for way, kind in itertools.product(("in", "out"), ("gpr", "fpr", "vmxr", "vsxr", "spr")):
                entries = getattr(record, f"{kind}_{way}")[: getattr(record, f"num_{kind}s_{way}")]
                for number, value, *high in entries:
                    expected.append((record.number, way, kind, number, value, *(high or [0])))
        self.assertEqual(list(registers.itertuples(index=False, name=None)), expected)

    def assert_file_equal(self, name, whole=True):
        frame = qtrace.frame(name, COLUMNS, on_damage="skip")
        registers = qtrace.registers(name, on_damage="skip")
        trace = plain.Trace(name)
        if whole:
            records = [item for item in trace if isinstance(item, plain.Record)]
            self.assert_equal_to_records(frame, qtrace.translations(name), records)
            self.assert_registers_equal(registers, records)
            return frame
        for block in list(trace.blocks())[::4]:
            records = [item for item in trace.items(block, None) if isinstance(item, plain.Record)]
            numbers = slice(records[0].number, records[-1].number)
            self.assert_equal_to_records(frame.loc[numbers], qtrace.translations(name), records)
            chosen = registers["record"].between(np.uint64(numbers.start), np.uint64(numbers.stop))
            self.assert_registers_equal(registers[chosen], records)
        return frame

    def test_of_recorded_streams(self):
        for stream in STREAMS:
            base = traced_streams.replay(stream, self.folder)
            for thread in range(2 if stream == "two-cpu" else 1):
                with self.subTest(stream=stream, thread=thread):
                    frame = self.assert_file_equal(f"{base}{thread}", stream in WHOLE)
                    self.assertGreater(len(frame), 1000)
                    self.assert_dump_equal(f"{base}{thread}")
                    self.assert_kinds_equal(f"{base}{thread}")

    def assert_dump_equal(self, name):
        frame = qtrace.frame(name, [*COLUMNS, *qtrace.KINDS], count=COUNT)
        dump = traced_streams.run(PROGRAMS / "qtrace", "dump", "--json", "--count", COUNT, name)
        lines = [line for line in map(json.loads, dump.splitlines()) if "record" in line]
        self.assertEqual([line["record"] for line in lines], frame.index.tolist())
        for column, key in (("address", "address"), ("next", "next_instruction_ea"), ("data", "data_ea"),
                            ("word", "instruction")):  # fmt: skip
            self.assertEqual([int(line.get(key, "0x0"), 16) for line in lines], frame[column].tolist())
        for column, key in (("node", "node"), ("termination", "termination_code"), ("error", "error_code"),
                            ("length", "length")):  # fmt: skip
            self.assertEqual([line.get(key, 0) for line in lines], frame[column].tolist())
        for kind in qtrace.KINDS:
            self.assertEqual([kind in line.get("kinds", ()) for line in lines], frame[kind].tolist(), kind)
        self.assertEqual(["error" in line.get("kinds", ()) for line in lines], (frame["error"] != 0).tolist())

    def assert_kinds_equal(self, name):
        """Sums of the kinds, against what the command counts."""
        [figures] = map(json.loads, traced_streams.run(PROGRAMS / "qtrace", "stats", "--json", name).splitlines())
        kinds = qtrace.frame(name, qtrace.KINDS).sum()
        self.assertEqual(kinds[["load", "store", "branch", "cache", "string"]].tolist(),
                         [figures[name] for name in ("loads", "stores", "branches", "cache", "strings")])  # fmt: skip
        self.assertEqual(kinds["taken"], figures["taken"] + figures["unconditional"])

    def test_of_generated_records(self):
        for seed in (1, 2):
            frame = self.assert_file_equal(traced_streams.generate(self.folder, 8000, seed))
            self.assertEqual(len(frame), 8000)

    def test_of_damaged_files(self):
        name = traced_streams.generate(self.folder, 6000, 3)
        blocks = qtrace.open(name).blocks
        self.assertGreater(len(blocks), 6)
        starts = blocks["offset"].tolist()
        changes = {
            "a payload": lambda data: data[: starts[2] + 99] + b"\0\0\0\0" + data[starts[2] + 103 :],
            "a block header": lambda data: data[: starts[3] + 20] + b"\xff" + data[starts[3] + 21 :],
            "a missing block": lambda data: data[: starts[1]] + data[starts[2] :],
            "two missing blocks": lambda data: data[: starts[1]] + data[starts[3] :],
            "a missing first block": lambda data: data[:16] + data[starts[1] :],
            "swapped blocks": lambda data: data[: starts[1]] + data[starts[2] : starts[3]]
            + data[starts[1] : starts[2]] + data[starts[3] :],
            "the file's start": lambda data: b"\0" * 16 + data[16:],
            "a cut end": lambda data: data[: starts[-1] + 70],
            "a missing end": lambda data: data[: starts[-1]],
            "more after the end": lambda data: data + b"more",
        }  # fmt: skip
        for kind, change in changes.items():
            with self.subTest(kind):
                copy = traced_streams.changed(name, change)
                frame = self.assert_file_equal(copy)
                expected = [
                    (item.offset, item.bytes, item.records, item.records_known)
                    for item in plain.Trace(copy) if isinstance(item, plain.Discontinuity) and item.is_damage
                ]  # fmt: skip
                damage = [(d.offset, d.bytes, d.records, d.records_known) for d in frame.attrs["damage"]]
                # A byte before the first block is not between records.
                self.assertEqual(damage, expected)
                self.assertEqual([(d.offset, d.bytes, d.records, d.records_known) for d in qtrace.open(copy).damage],
                                 expected)  # fmt: skip

    def test_of_recovered_files(self):
        name = traced_streams.generate(self.folder, 6000, 4)
        blocks = qtrace.open(name).blocks
        copy = traced_streams.damaged(name, int(blocks["offset"][2]) + 80)
        subprocess.run([PROGRAMS / "qtrace", "recover", copy, f"{copy}-saved"], capture_output=True, check=False)
        frame = self.assert_file_equal(f"{copy}-saved")
        self.assertEqual(frame.attrs["damage"], ())
        [gap] = [gap for gap in frame.attrs["gaps"] if gap.cause != "pause"]
        self.assertEqual((gap.cause, gap.records), ("left out", blocks["records"][2]))


if __name__ == "__main__":
    traced_streams.main()
