"""The pieces of the plain Python reader, and what its command prints.

    plain_reader_test.py PROGRAMS

Blocks and payloads are encoded from the format's description; expectations are written by hand."""
import contextlib
import io
import json
import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

import zstandard

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "python"), str(ROOT / "tests/golden/format")]

import make_corpus  # noqa: E402
from make_corpus import (  # noqa: E402
    COMMENT, COMMENT_BEFORE, DATA, DATAS, FILE_START, GAP, KIND, KNOWN, LAST, LEFT_OUT, MASK64, NEXT, NEXTS, OPEN, SHAPE,
    VALUE, WORD, Trace_Maker, list_bytes, literal, sparse, varint, with_flags, zigzag,
)  # fmt: skip
from qtrace import plain  # noqa: E402

RIGHT = make_corpus.payload([b"", b"\0", *[b""] * 8])  # one record of which nothing is coded


def zstd(data):
    return zstandard.ZstdCompressor().compress(data)


class Pieces(unittest.TestCase):
    def test_checksum(self):
        self.assertEqual(plain.crc32c(b"123456789"), 0xE3069283)
        self.assertEqual(plain.crc32c(b""), 0)

    def test_slots_are_the_upper_bits_of_a_product(self):
        self.assertEqual([plain.slot(1, bits) for bits in (7, 10, 11)], [0x4F, 0x278, 0x4F1])
        self.assertEqual([plain.slot(1 << 63, bits) for bits in (7, 10, 11)], [0x40, 0x200, 0x400])  # the factor is odd
        self.assertEqual([plain.slot(2, bits) for bits in (7, 10, 11)], [0x1E, 0xF1, 0x1E3])

    def column(self, data, more=b""):
        return plain.Column(data + more, 0, len(data))

    def test_numbers_of_a_column(self):
        for data, value in (
            (b"\0", 0), (b"\x7f", 127), (b"\x80\1", 128), (b"\xff\1", 255), (b"\xff\x7f", 16383), (b"\x80\x80\1", 16384),
            (b"\xff" * 9 + b"\1", MASK64), (b"\x80" * 9 + b"\2", 0), (b"\x80" * 8 + b"\1", 1 << 56),
        ):  # fmt: skip
            column = self.column(data, b"\1")
            self.assertEqual((column.varint(), column.at), (value, len(data)), data)
        for data in (b"", b"\x80", b"\xff" * 9, b"\x80" * 10 + b"\0"):
            with self.assertRaises(plain.MalformedError):
                self.column(data).varint()
        for data, value in ((b"\0", 0), (b"\1", MASK64), (b"\2", 1), (b"\3", MASK64 - 1), (b"\xff" * 9 + b"\1", 1 << 63)):
            self.assertEqual(self.column(data).difference(), value)

    def test_a_column_ends_where_it_ends(self):
        column = plain.Column(b"abcdef", 1, 4)
        self.assertEqual((column.take(2), column.byte()), (b"bc", ord("d")))
        self.assertEqual(column.take(0), b"")
        for read in (column.byte, lambda: column.take(1), lambda: column.number(1)):
            with self.assertRaises(plain.MalformedError):
                read()
        self.assertEqual(plain.Column(b"\1\2\3", 0, 3).number(2), 0x201)

    def test_an_image_ends_where_its_structure_ends(self):
        data = varint(2) + b"\2ab" + varint(1) + b"\1c\0\0"
        self.assertEqual(self.column(data).sparse_image(6), b"\0\0ab\0c")
        with self.assertRaisesRegex(plain.MalformedError, "beyond its structure"):
            self.column(data).sparse_image(5)
        with self.assertRaisesRegex(plain.MalformedError, "empty run"):
            self.column(b"\1\0").sparse_image(5)

    def test_images_of_items_are_those_that_were_read(self):
        for kind, used in ((plain.Record, plain.RECORD_SIZE), (plain.Header, plain.HEADER_SIZE)):
            whole = kind()
            for seed, (name, _, shape) in enumerate(kind.MEMBERS, 1):
                value = shape.unpack(bytes((seed * 7 + i) % 255 + 1 for i in range(shape.size)), 0)
                setattr(whole, name, {"validity_bits": 0x3FF, "iar_segment_size_is_valid": 1}.get(name, value))
            image = whole.image()
            self.assertEqual(len(image), used)
            self.assertEqual(vars(plain.item_of_image(kind, image)), vars(whole))
            for name, offset, shape in kind.MEMBERS:
                self.assertEqual(shape.unpack(image, offset), getattr(whole, name), name)
            self.assertEqual(list(whole.members()), [name for name, *_ in kind.MEMBERS])

    def test_a_new_item_is_zero(self):
        for kind in (plain.Record, plain.Header):
            item = kind()
            self.assertEqual((item.number, item.block_offset, item.members(), any(item.image())), (0, 0, {}, False))
        self.assertEqual((plain.Record().header_number, plain.Header().record_number), (0, 0))
        self.assertEqual((plain.Record().address, plain.Header().comment), (None, None))
        self.assertEqual({getattr(plain.Record(), count) for _, count, *_ in plain.REGISTER_LISTS}, {0})
        self.assertEqual({getattr(plain.Record(), name) for name, *_ in plain.REGISTER_LISTS}, {()})

    def test_members_of_a_translation(self):
        def members(words, address=0x7654321):
            return plain.Translation((*words, *[0] * (32 - len(words)))).members("data", address)

        for words, expected in (
            ([], {}), ([1 << 56], {"data_hRTW_depth": 1}), ([1 << 55], {"data_vsid": 1 << 55}),
            ([MASK64], {"data_vsid": (1 << 56) - 1, "data_hRTW_depth": 255}),
            ([0, 1], {"data_rpn": 1}), ([0, 1 << 31], {"data_rpn": 1 << 31}), ([0, 1 << 32], {"data_hRTW_num_level": 1}),
            ([0, 1 << 39], {"data_hRTW_num_level": 128}), ([0, 1 << 40], {"data_page_size": 1}),
            ([0, 1 << 47], {"data_page_size": 128}), ([0, 1 << 48], {"data_gpage_size": 1}), ([0, 1 << 55], {"data_gpage_size": 128}),
            ([0, 1 << 56], {}), ([0] * 2 + [1], {"data_hRTW": (1, *[0] * 19)}), ([0] * 21 + [1], {"data_hRTW": (*[0] * 19, 1)}),
            ([0] * 22 + [1], {"data_hRTW_host_RA": (1, 0, 0, 0)}), ([0] * 25 + [1], {"data_hRTW_host_RA": (0, 0, 0, 1)}),
            ([0] * 26 + [1], {"data_gRTW": (1, 0, 0, 0, 0, 0)}), ([0] * 30 + [1], {"data_gRTW": (0, 0, 0, 0, 1, 0)}),
        ):  # fmt: skip
            self.assertEqual(members(words), expected, words)
        # A guest address of the first page stands as it is, others without the place in the page.
        for word, guest in ((1, 1), (0x800, 0x800), (0xFFF, 0xFFF), (0x1000, 0x1321), (0x1FFF, 0x1CDE), (1 << 63, 1 << 63 | 0x321)):
            self.assertEqual(members([0] * 31 + [word]), {"data_gRTW": (0, 0, 0, 0, 0, guest)})

    def test_lists_of_registers_are_shown_in_their_order(self):
        record, files = plain.Record(), ("gpr", "fpr", "spr", "vmxr", "vsxr")
        for name, count, *_, words in make_corpus.LISTS:
            setattr(record, count, 1)
            setattr(record, name, ((7, *[5] * words),))
        shown = record.for_json()
        self.assertEqual(list(shown), ["record", *(f"{file}_{way}" for way in ("in", "out") for file in files)])
        self.assertEqual((shown["spr_out"], shown["vsxr_in"]), ([[7, "0x5"]], [[7, "0x5", "0x5"]]))

    def test_losses_are_told_in_words(self):
        lost = plain.Discontinuity(plain.DAMAGE, 16, "missing blocks", 7, 2, True, 1)
        self.assertEqual(str(lost), "byte 16: missing blocks (7 bytes, 2 records lost)")
        self.assertEqual((lost.record_number, lost.header_number, lost.context), (0, 0, None))
        lost = plain.Discontinuity(plain.CUT_END, 16, "no end")
        self.assertEqual(str(lost), "byte 16: no end (0 bytes lost)")
        self.assertEqual((lost.bytes, lost.records, lost.headers, lost.is_damage), (0, 0, 0, True))
        for cause, damage in (("pause", False), ("refused", False), ("left out", False), ("damage", True), ("cut end", True)):
            self.assertEqual(plain.Discontinuity(cause, 0, "").is_damage, damage)


class Block_Headers(unittest.TestCase):
    def block(self, **change):
        """The block that a header makes, with a right checksum unless `checksum` is given."""
        parts = {"marker": b"\x8bQB\n", "version": 1, "flags": 0, "compression": 0, "zero": 0, "stored": 50, "raw": 50,
                 "records": 1, "headers": 0, "first": 0, "first_header": 0, "address": 0, "payload_crc": 0}  # fmt: skip
        checksum = change.pop("checksum", None)
        assert change.keys() <= parts.keys()
        head = struct.pack("<4s4B4I3QI", *(parts | change).values())
        return plain.Block.at(head + struct.pack("<I", plain.crc32c(head) if checksum is None else checksum), 0)

    def test_a_header_says_what_was_put_in(self):
        block = self.block(records=3, headers=4, first=5, first_header=6, address=7, flags=8)
        found = (block.records, block.headers, block.first_record, block.first_header, block.first_address, block.flags)
        self.assertEqual(found, (3, 4, 5, 6, 7, 8))
        self.assertEqual((block.offset, block.stored_size, block.raw_size, block.compression), (0, 50, 50, 0))
        self.assertEqual(block.end, 106)

    def test_what_no_writer_writes_is_no_header(self):
        for change in (
            {"version": 2}, {"version": 0}, {"flags": 128}, {"flags": LEFT_OUT}, {"zero": 1}, {"compression": 2},
            {"compression": 255}, {"raw": 51}, {"raw": 49}, {"stored": 51}, {"stored": 65537, "raw": 65537},
            {"compression": 1, "stored": 65537}, {"compression": 1, "raw": 65537}, {"checksum": 0},
            {"first": MASK64, "records": 1}, {"first_header": MASK64, "headers": 1}, {"marker": b"\x8bQC\n"},
            {"first": MASK64 - 1, "records": 2}, {"first_header": MASK64 - 1, "headers": 2},
        ):  # fmt: skip
            self.assertIsNone(self.block(**change), change)

    def test_the_limits_of_a_header_are_right(self):
        for change in (
            {"flags": 127}, {"flags": LEFT_OUT | GAP}, {"flags": 63}, {"compression": 1, "stored": 65536, "raw": 65536},
            {"compression": 1, "raw": 65536}, {"compression": 1, "raw": 1}, {"stored": 65536, "raw": 65536},
            {"first": MASK64 - 1, "records": 1}, {"first_header": MASK64 - 1, "headers": 1}, {"first": MASK64, "records": 0},
        ):  # fmt: skip
            self.assertIsNotNone(self.block(**change), change)

    def test_a_header_is_whole_up_to_its_last_byte(self):
        data = make_corpus.block(b"", flags=COMMENT)
        self.assertEqual(len(data), 56)
        self.assertIsNotNone(plain.Block.at(b"12" + data, 2))
        self.assertTrue(plain.Block.at(data, 0).is_whole(data))
        self.assertIsNone(plain.Block.at(data[:55], 0))
        self.assertIsNone(plain.Block.at(data, 1))

    def test_a_payload_is_whole_up_to_its_last_byte(self):
        data = make_corpus.block(RIGHT, 1)
        block = plain.Block.at(data, 0)
        self.assertTrue(block.is_whole(data))
        self.assertTrue(block.is_whole(data + b"more"))
        self.assertFalse(block.is_whole(data[:-1]))
        self.assertFalse(block.is_whole(data[:-1] + b"\1"))

    def payload(self, stored, raw_size):
        data = make_corpus.block(b"", stored=stored, raw_size=raw_size)
        return plain.Block.at(data, 0).payload(data)

    def test_a_payload_has_the_size_that_its_header_says(self):
        largest = bytes(65536)
        self.assertEqual(self.payload(zstd(largest), 65536), largest)
        for size, said in ((65537, 65536), (65536, 65535), (65535, 65536), (40, 39)):
            with self.assertRaisesRegex(plain.MalformedError, "of another size"):
                self.payload(zstd(bytes(size)), said)
        with self.assertRaisesRegex(plain.MalformedError, "does not decompress"):
            self.payload(b"no frame", 8)
        with self.assertRaisesRegex(plain.MalformedError, "one whole frame"):
            self.payload(zstd(b"four") + b"more", 4)

    def test_a_comment_block_has_the_numbers_of_its_block(self):
        comment = self.block(flags=COMMENT, records=0, first=5, first_header=6)
        for change, belongs in (
            ({}, True), ({"flags": 0}, False), ({"first": 4}, False), ({"first_header": 7}, False),
            ({"first": 6, "first_header": 5}, False), ({"flags": COMMENT_BEFORE | KNOWN}, True),
        ):  # fmt: skip
            block = self.block(**{"flags": COMMENT_BEFORE, "first": 5, "first_header": 6} | change)
            self.assertEqual(bool(comment.is_comment_of(block)), belongs, change)
        block = self.block(flags=COMMENT_BEFORE, first=5, first_header=6)
        self.assertFalse(self.block(first=5, first_header=6).is_comment_of(block))


class In_Folder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, *blocks, start=FILE_START, name="trace"):
        path = self.folder / name
        path.write_bytes(start + b"".join(blocks))
        return str(path)

    def read(self, *blocks, **options):
        return list(plain.Trace(self.write(*blocks, **options)))

    def lines(self, items):
        return [json.loads(json.dumps(item.for_json())) for item in items]


def slot_of(key, bits):
    return (key * 0x9E3779B97F4A7C15 & MASK64) >> 64 - bits


def pair(keys, shared, bits):
    """Two keys that share a slot of so many bits, but not one of a bit more; or share one of a bit less alone."""
    seen = {}
    for key in keys:
        slots = [slot_of(key, bits + more) for more in (-1, 0, 1)]
        other = seen.setdefault(slots[1 if shared else 0], key)
        if other != key and slot_of(other, bits + shared) != slots[1 + shared]:
            return other, key
    raise AssertionError("no such pair")


class Slots(In_Folder):
    """What is remembered for one key is expected for those that share its slot, and for no other."""

    def assert_read(self, maker):
        maker.end(LAST)
        self.assertEqual(self.lines(self.read(*maker.blocks)), [json.loads(line) for line in maker.lines()])

    def test_of_addresses_of_instructions(self):
        pairs = [(0x1000, 0x1003, True), (0x1000, 0x1004, False), (0x1004, 0x1007, True)]
        pairs += [(*(4 * key for key in pair(range(1, 5000), shared, 11)), shared) for shared in (True, False)]
        for one, other, shared in pairs:
            maker = Trace_Maker().header(file_control=0x2000, iar=one).record(instruction=5)
            maker.header(file_control=0x2000, iar=other)
            maker.coded(b"\0", {}, instruction=5 if shared else 0)
            maker.end(LAST)
            found = [item for item in self.read(*maker.blocks) if not isinstance(item, plain.Discontinuity)]
            self.assertEqual(self.lines(found), [json.loads(line) for line in maker.lines()])

    def test_of_instruction_words(self):
        for shared in (True, False):
            one, other = pair(range(1, 5000), shared, 10)
            maker = Trace_Maker().record(instruction=one, control=1 << 16)
            maker.coded(b"\1", {WORD: struct.pack("<I", other)}, instruction=other, control=1 << 16 if shared else 0)
            self.assert_read(maker)

    def test_of_pages(self):
        for side, control, name, bits in (("data", DATA, "data_ea", 32), ("next_instruction", NEXT, "next_instruction_ea", 16)):
            pairs = [(0x5000, 0x5FFF, True), (0x5000, 0x6000, False), (0x6000, 0x7000, False)]
            pairs += [(*(key << 12 for key in pair(range(1, 5000), shared, 7)), shared) for shared in (True, False)]
            for one, other, shared in pairs:
                maker = Trace_Maker().record(control=control, **{name: one, f"{side}_rpn": 9})
                column = {DATAS: b"\2" + zigzag(other)} if side == "data" else {NEXTS: zigzag(other - maker.address)}
                rpn = {f"{side}_rpn": 9} if shared else {}
                maker.coded(bytes([2 | bits]), {SHAPE: b"\0", **column}, control=control, **{name: other}, **rpn)
                self.assert_read(maker)

    def test_of_addresses_of_values(self):
        for shared in (True, False):
            one, other = pair(range(1, 5000), shared, 10)
            maker = Trace_Maker().record(control=DATA, data_ea=one, num_gprs_out=1, gpr_out=((3, 0x77),))
            maker.coded(bytes([2 | 4 | 32]), {SHAPE: b"\0" + list_bytes([], [4]), DATAS: b"\2" + zigzag(other), KIND: b"\2"},
                        control=DATA, data_ea=other, num_gprs_out=1, gpr_out=((4, 0x77 if shared else 0),))  # fmt: skip
            self.assert_read(maker)


class Values(In_Folder):
    def test_inputs_are_predicted_from_nothing_but_the_address(self):
        for kind, value in ((1, 0), (2, 0x77), (3, 0), (4, 0), (5, 0), (6, 0), (7, 0), (8, 0)):
            maker = Trace_Maker().header(file_control=0x2000, iar=0x1000)
            # What the first record leaves: a distance, a value, and 0x77 in the memory at its address.
            maker.record(instruction=5, num_gprs_in=2, gpr_in=((3, 0x11), (4, 0x22)), num_gprs_out=1, gpr_out=((5, 0x77),),
                         control=NEXT, next_instruction_ea=0x1000)  # fmt: skip
            maker.coded(bytes([2 | 64]), {SHAPE: b"\0", KIND: bytes([kind, 0, 0])}, instruction=5, num_gprs_in=2,
                        gpr_in=((3, value), (4, 0x22)), num_gprs_out=1, gpr_out=((5, 0x77),), control=NEXT,
                        next_instruction_ea=0x1000)  # fmt: skip
            maker.columns[SHAPE][-1:] = b"\0"
            maker.end(LAST)
            found = self.read(*maker.blocks)
            self.assertEqual(self.lines(found), [json.loads(line) for line in maker.lines()], kind)

    def test_outputs_of_a_record_with_fewer_inputs_are_predicted_with_zero(self):
        for count in (0, 1):
            for kind in (1, 4, 5, 6, 7, 8):
                inputs = ((3, 0x35),)[:count]
                last = 0x35 * count
                value = {1: last, 4: last, 5: last, 6: 0, 7: last, 8: last}[kind]
                kinds, values = zip(*[literal(number) for _, number in inputs]) if count else ((), ())
                maker = Trace_Maker().coded(
                    bytes([1 | 4 | 64]), {WORD: b"\7\0\0\0", SHAPE: list_bytes([3] * count, [6]),
                                          KIND: b"".join(kinds) + bytes([kind]), VALUE: b"".join(values)},
                    instruction=7, num_gprs_in=count, gpr_in=inputs, num_gprs_out=1, gpr_out=((6, value),))  # fmt: skip
                self.assertEqual(self.lines(self.read(*maker.end(LAST).blocks)), [json.loads(line) for line in maker.lines()])

    def test_both_halves_of_a_value_are_remembered(self):
        first, second = (0x1111, 0x2222), (0x3333, 0x4444)
        vector = {"num_vsxrs_out": 1, "control": NEXT | DATA, "next_instruction_ea": 0x1000, "data_ea": 0x5000}
        maker = Trace_Maker().header(file_control=0x2000, iar=0x1000)
        maker.record(instruction=7, vsxr_out=((9, *first),), **vector)
        maker.record(instruction=7, vsxr_out=((9, *second),), **vector | {"data_ea": 0x6000})
        for kind, value, ea in ((2, first, 0x5000), (0, first, 0x7000), (2, (0, 0), 0x8000), (2, second, 0x6000)):
            maker.coded(bytes([2 | 32]), {SHAPE: b"\0", DATAS: b"\2" + zigzag(ea), KIND: bytes([kind, kind])}, instruction=7,
                        vsxr_out=((9, *value),), **vector | {"data_ea": ea})  # fmt: skip
        # Kind 18: one byte, relative to the value that the register had.
        maker.coded(bytes([2 | 32]), {SHAPE: b"\0", DATAS: b"\2" + zigzag(0x9000), KIND: bytes([18, 18]), VALUE: b"\1\xff"},
                    instruction=7, vsxr_out=((9, 0x3334, 0x4443),), **vector | {"data_ea": 0x9000})  # fmt: skip
        maker.end(LAST)
        self.assertEqual(self.lines(self.read(*maker.blocks)), [json.loads(line) for line in maker.lines()])


    def test_the_value_of_the_last_coded_list_of_inputs_is_remembered_where_nothing_is_written(self):
        again = {"control": NEXT, "next_instruction_ea": 0x1000}
        maker = Trace_Maker().header(file_control=0x2000, iar=0x1000)
        maker.record(num_gprs_in=1, gpr_in=((3, 0x33),), num_fprs_in=1, fpr_in=((4, 0x44),), num_sprs_in=2,
                     spr_in=((8, 0x88), (9, 0x99)), **again)  # fmt: skip
        maker.coded(bytes([4]), {SHAPE: list_bytes([], [5]), KIND: b"\2"}, num_gprs_out=1, gpr_out=((5, 0x88),), **again)
        self.assertEqual(self.lines(self.read(*maker.end(LAST).blocks)), [json.loads(line) for line in maker.lines()])

    def test_rare_members_of_registers_are_those_of_the_image(self):
        for i, (name, count, offset, room, words) in enumerate(make_corpus.LISTS):
            for places in (range(room), [room - 1], [0], []):
                image = bytearray(2936)
                image[1352 + i] = 0xA4
                for place in places:
                    entry = struct.pack(f"<H6x{words}Q", place + 1, *[(place + 1) << 56 | word for word in range(1, words + 1)])
                    image[offset + place * len(entry) : offset + (place + 1) * len(entry)] = entry
                payload = make_corpus.payload([b"", b"\x80\2", *[b""] * 7, sparse(image)])
                [record] = self.read(make_corpus.block(payload, 1, flags=LAST))
                self.assertEqual(record.image(), image, name)
                self.assertEqual(len(getattr(record, name)), max(places, default=-1) + 1)
                # The same beside a coded entry, whose bits are kept.
                shape = varint(1 << i) + b"\1" + varint(0x8000)
                coded = [b"", b"\xc4\2", b"", shape, *[b""] * 3, b"\x0a" * words, b"\x80" * words, sparse(image)]
                [record] = self.read(make_corpus.block(make_corpus.payload(coded), 1, flags=LAST))
                image[1352 + i] |= 1
                image[offset + 1] |= 0x80
                for word in range(words):
                    image[offset + 8 + 8 * word] |= 0x80
                self.assertEqual(record.image(), image, name)

    def test_every_register_has_a_value_of_its_own(self):
        written, read = Trace_Maker(), []
        for i, (name, count, _, room, words) in enumerate(make_corpus.LISTS[:5]):
            for first in range(0, 64, room):
                numbers = range(first, min(first + room, 64))
                entries = tuple((n, *[i << 32 | n << 16 | word for word in range(1, words + 1)]) for n in numbers)
                written.record(**{count: len(entries), name: entries})
                shape = varint(1 << i + 5) + bytes([len(entries)]) + bytes(numbers)
                given = {count.replace("out", "in"): len(entries), name.replace("out", "in"): entries}
                read.append((shape, given))
        for shape, given in read:
            written.coded(b"\x05", {WORD: b"\1\0\0\0", SHAPE: shape}, instruction=1, **given)
        self.assertEqual(self.lines(self.read(*written.end(LAST).blocks)), [json.loads(line) for line in written.lines()])

    def test_control_words_are_numbered_in_their_order(self):
        word = struct.pack("<Q", 1 << 16)
        for shape, control in ((b"\0" + word, 1 << 16), (b"\1" + word, None), (b"\xff" + word, None)):
            payload = make_corpus.payload([b"", b"\2", b"", shape, *[b""] * 6])
            found = self.read(make_corpus.block(payload, 1, flags=LAST))
            self.assertEqual([getattr(item, "control", None) for item in found], [control])


class Damage(In_Folder):
    def blocks(self):
        """A block with a header, one with a record, one whose open header is known, and the last one."""
        maker = Trace_Maker().header(file_control=0x2000, iar=0x1000, pid=7).record().end().record().end()
        for flags in (0, LAST):
            maker.columns[OPEN] += sparse(Trace_Maker().header(file_control=0x2000, iar=0x1000, pid=7).now[0].image())
            maker.record().end(flags)
        return maker.blocks

    def losses(self, *blocks, **options):
        return [item for item in self.read(*blocks, **options) if isinstance(item, plain.Discontinuity)]

    def test_the_header_in_force_after_a_loss_is_that_of_the_block(self):
        first, second, third, last = self.blocks()
        [loss] = self.losses(first, third, last)
        self.assertEqual((loss.cause, loss.record_number, loss.records, loss.context.pid), ("damage", 1, 1, 7))
        [loss] = self.losses(second, third, last)
        self.assertEqual((loss.records, loss.headers, loss.context), (1, 1, None))

    def test_the_header_in_force_after_a_malformed_block_is_that_of_the_next_one(self):
        first, _, third, last = self.blocks()
        bad = make_corpus.block(b"short", 1, 0, 1, 1)
        [loss] = self.losses(first, bad, third, last)
        self.assertEqual((loss.offset, loss.bytes), (16 + len(first), len(bad)))
        self.assertEqual((loss.records, loss.records_known, loss.headers, loss.context.pid), (1, True, 0, 7))
        self.assertEqual((loss.record_number, loss.header_number), (1, 1))
        comment = make_corpus.block(b"text", 0, 0, 2, 1, flags=COMMENT)
        [loss] = self.losses(first, bad, comment, third, last)
        self.assertEqual(loss.context.pid, 7)
        for after in (third[:-1] + b"\1", comment + comment, b"junk"):
            [loss, *_] = self.losses(first, bad, after, last)
            self.assertIsNone(loss.context, after)
        [loss, *_] = self.losses(first, bad, make_corpus.block(b"short", 1, 0, 2, 1), last)
        self.assertIsNone(loss.context)

    def test_a_malformed_comment_block_is_damage(self):
        first, second, third, last = self.blocks()
        bad = make_corpus.block(b"text", 0, 0, 1, 1, flags=COMMENT, stored=b"no frame")
        [loss] = self.losses(first, bad, second, third, last)
        self.assertEqual((loss.offset, loss.bytes, loss.records, loss.headers), (16 + len(first), len(bad), 0, 0))
        self.assertEqual((loss.record_number, loss.header_number), (1, 1))

    def test_one_block_without_a_file_start_is_a_trace(self):
        maker = Trace_Maker().record(instruction=3).end(LAST)
        [record] = self.read(*maker.blocks, start=b"")
        self.assertEqual((record.instruction, record.block_offset), (3, 0))
        with self.assertRaisesRegex(plain.NotATraceError, "no trace file$"):
            self.read(start=b"")
        with self.assertRaisesRegex(plain.NotATraceError, "no trace file$"):
            self.read(maker.blocks[0][:-1], start=b"")

    def test_items_beyond_what_the_header_says_are_damage(self):
        two = make_corpus.payload([b"", b"\0\0", *[b""] * 8])
        for records, headers, delivered, lost in ((1, 0, 1, (0, 0)), (3, 0, 2, (1, 0)), (2, 1, 2, (0, 1)), (0, 2, 0, (0, 2))):
            items = self.read(make_corpus.block(two, records, headers, flags=LAST))
            [loss] = [item for item in items if isinstance(item, plain.Discontinuity)]
            self.assertEqual(len(items), delivered + 1)
            self.assertEqual((loss.records, loss.headers, loss.record_number), (*lost, delivered))


class Command(In_Folder):
    def run_main(self, *arguments):
        """Lines printed, lines of errors, and the exit status."""
        out, errors = io.StringIO(), io.StringIO()
        with mock.patch.object(sys, "argv", ["plain", *arguments]), contextlib.redirect_stdout(out), \
                contextlib.redirect_stderr(errors):  # fmt: skip
            status = plain.main()
        return out.getvalue().splitlines(), errors.getvalue().splitlines(), status

    def shown(self, *arguments):
        """Each line by its kind and number."""
        shown = []
        for line in map(json.loads, self.run_main(*arguments)[0]):
            kind = next(kind for kind in ("header", "record", "discontinuity") if kind in line)
            shown.append(line["at_record" if kind == "discontinuity" else kind] if kind == "record" else f"{kind[0]}{line[kind]}")
        return shown

    def three_blocks(self):
        maker = Trace_Maker()
        for n in range(3):
            maker.header(control=0x20, pid=n).record(instruction=2 * n).record(instruction=2 * n + 1).end(LAST if n == 2 else 0)
        return maker.blocks

    def test_headers_and_records_are_lines(self):
        name = self.write(*self.three_blocks()[:1])
        out, errors, status = self.run_main(name)
        self.assertEqual(out, [
            f'{{"file":"{name}","header":0,"before_record":0,"pid_is_present":1}}',
            f'{{"file":"{name}","record":0}}', f'{{"file":"{name}","record":1,"instruction":"0x1"}}',
            f'{{"file":"{name}","discontinuity":"cut end","at_record":2,"lost_records":0,"lost_records_known":false,'
            f'"lost_headers":0,"offset":{16 + len(self.three_blocks()[0])},"lost_bytes":0}}',
        ])  # fmt: skip
        self.assertEqual(errors, [f"{name}: byte {16 + len(self.three_blocks()[0])}: the file ends without its last block "
                                  "(0 bytes lost)"])  # fmt: skip
        self.assertEqual(status, 3)

    def test_a_range_has_its_records_and_the_headers_between_them(self):
        name = self.write(*self.three_blocks())
        whole = ["h0", 0, 1, "h1", 2, 3, "h2", 4, 5]
        for arguments, expected in (
            ((), whole), (("--from", "0"), whole), (("--from", "1"), whole[2:]), (("--from", "2"), whole[3:]),
            (("--from", "3"), whole[5:]), (("--from", "6"), []), (("--count", "0"), []), (("--count", "1"), whole[:2]),
            (("--count", "2"), whole[:3]), (("--count", "3"), whole[:5]), (("--count", "9"), whole),
            (("--from", "3", "--count", "2"), [3, "h2", 4]), (("--from", "4", "--count", "1"), ["h2", 4]),
        ):  # fmt: skip
            self.assertEqual(self.shown(name, *arguments), expected, arguments)

    def test_a_loss_belongs_to_the_records_that_are_lost(self):
        maker = make_corpus.base_blocks()
        first, _, third, last = maker.blocks
        name = self.write(first, third, last)
        for start, expected in (
            ("1", [1, "ddamage", 4, 5, 6, 7]), ("2", ["ddamage", 4, 5, 6, 7]), ("3", ["ddamage", 4, 5, 6, 7]),
            ("4", ["ddamage", 4, 5, 6, 7]), ("5", [5, 6, 7]),
        ):  # fmt: skip
            self.assertEqual(self.shown(name, "--from", start), expected, start)
        self.assertEqual(self.run_main(name, "--from", "5")[1:], ([], 0))
        self.assertEqual(self.run_main(name, "--count", "2")[1:], ([], 0))
        self.assertEqual(self.run_main(name, "--from", "4", "--count", "1")[2], 3)

    def test_what_the_writer_left_out_is_no_damage(self):
        first, _, third, last = make_corpus.base_blocks().blocks
        name = self.write(first, with_flags(third, GAP), last)
        out, errors, status = self.run_main(name)
        self.assertEqual(json.loads(out[3])["discontinuity"], "refused")
        self.assertEqual((errors, status), ([], 0))

    def test_each_file_counts_its_own_records(self):
        one, other = self.write(*self.three_blocks()), self.write(*self.three_blocks(), name="other")
        self.assertEqual(self.shown(one, other, "--count", "1"), ["h0", 0, "h0", 0])
        files = [json.loads(line)["file"] for line in self.run_main(one, other, "--count", "1")[0]]
        self.assertEqual(files, [one, one, other, other])

    def test_the_worst_of_all_files_is_the_status(self):
        good = self.write(*self.three_blocks())
        cut = self.write(*self.three_blocks()[:2], name="cut")
        none, missing = self.write(start=b"none", name="none"), str(self.folder / "missing")
        for files, expected in (
            ((good,), 0), ((cut,), 3), ((good, cut), 3), ((cut, good), 3), ((none,), 1), ((none, good), 1), ((none, cut), 1),
            ((cut, missing), 1), ((missing, good), 1),
        ):  # fmt: skip
            self.assertEqual(self.run_main(*files)[2], expected, files)
        out, errors, _ = self.run_main(none, good)
        self.assertEqual((len(out), errors), (9, [f"{none}: no trace file"]))

    def test_a_reader_that_goes_away_ends_it_quietly(self):
        maker = Trace_Maker()
        for number in range(400):
            maker.record(instruction=number)
        name = self.write(*maker.end(LAST).blocks)
        reading, writing = os.pipe()
        os.close(reading)
        self.addCleanup(os.close, writing)
        done = subprocess.run([sys.executable, "-m", "qtrace.plain", name], stdout=writing, stderr=subprocess.PIPE,
                              env=os.environ | {"PYTHONPATH": str(ROOT / "python")}, check=False)  # fmt: skip
        self.assertEqual((done.returncode, done.stderr), (0, b""))

    def test_comments_and_contexts_are_shown(self):
        maker = Trace_Maker().header(file_control=0x2000, iar=0x1000, comment=b"caf\xe9").record()
        maker.header(file_control=0x2000, iar=0x2000).record().end(LAST)
        lines = [json.loads(line) for line in self.run_main(self.write(*maker.blocks))[0]]
        self.assertEqual(lines[0]["comment"], "caf\xe9")
        self.assertEqual(lines[2]["context"], {"iar_is_present": 1, "iar": "0x2000"})
        self.assertNotIn("comment", lines[3])


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
