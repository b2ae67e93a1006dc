"""Frames of small traces that are encoded from the format's description: every expectation is what was put in."""
import inspect
import itertools
import pickle
import sys
from concurrent.futures import ThreadPoolExecutor
from unittest import mock

import traced_streams
from traced_streams import ROOT, InFolder

import numpy as np
import pandas as pd
import qtrace
from qtrace import frames

sys.path.insert(0, str(ROOT / "tests/golden/format"))
from make_corpus import DATA, FILE_START, GAP, LAST, NEXT, OPEN, Trace_Maker, sparse, with_flags  # noqa: E402

NUMBERS = itertools.count()
HEADER = {"file_control": 0x2002, "control": 2 << 8 | 1 << 10, "iar": 0x1000, "ptcr": 5, "lpid": 6, "pid": 7, "sdr1": 8}
FULL = 0x2000  # the flag of an address, of a file header
MODES = ("radix", "hpt", "real", "none")


def numbered(maker, number, **members):
    """A record whose instruction word is its number, and whose register 3 is read with ten times that."""
    return maker.record(instruction=number, num_gprs_in=1, gpr_in=((3, 10 * number),), **members)


def blocks_of(size, count):
    """Blocks of so many numbered records."""
    maker = Trace_Maker().header(**HEADER)
    for block in range(count):
        for number in range(block * size, block * size + size):
            numbered(maker, number)
        maker.end(LAST if block == count - 1 else 0)
    return maker.blocks


def damaged(block):
    return block[:-1] + bytes([block[-1] ^ 1])


class Small_Traces(InFolder):
    def write(self, *blocks):
        """A file of its own for each trace: a process remembers translations by file."""
        path = self.folder / f"trace-{next(NUMBERS)}.0"
        path.write_bytes(FILE_START + b"".join(blocks))
        return str(path)

    def without(self, size, count, *missing):
        return self.write(*[block for i, block in enumerate(blocks_of(size, count)) if i not in missing])

    def assert_records(self, expected, name, *arguments, **options):
        """The records, by their numbers, words and registers."""
        frame = qtrace.frame(name, ["word"], *arguments, **options)
        self.assertEqual(frame.index.tolist(), expected, (arguments, options))
        self.assertEqual(frame["word"].tolist(), expected)
        registers = qtrace.registers(name, None, *arguments, **options)
        self.assertEqual(registers["record"].tolist(), expected, (arguments, options))
        self.assertEqual(registers["value"].tolist(), [10 * number for number in expected])
        self.assertEqual(registers.index.tolist(), list(range(len(expected))))
        self.assertEqual(list(registers), ["record", "direction", "class", "number", "value", "high"])
        self.assertEqual(registers.attrs, frame.attrs)
        return frame

    # ---- Ranges ----

    def test_ranges_of_threads_begin_with_blocks(self):
        trace = qtrace.open(self.write(*blocks_of(2, 4)))
        for arguments, expected in (
            ((0, 8, 1), [(0, 8, 8, True)]),
            ((0, 8, 2), [(0, 4, 4, False), (4, 8, 4, True)]),
            ((0, 8, 3), [(0, 2, 2, False), (2, 6, 4, False), (6, 8, 2, True)]),
            ((0, 8, 16), [(0, 2, 2, False), (2, 4, 2, False), (4, 6, 2, False), (6, 8, 2, True)]),
            ((1, 7, 2), [(1, 4, 3, False), (4, 7, 3, False)]),
            ((6, 8, 2), [(6, 8, 2, True)]),
            ((0, 6, 7), [(0, 2, 2, False), (2, 4, 2, False), (4, 6, 2, False)]),
            ((0, 100, 2), [(0, 4, 4, False), (4, 100, 4, True)]),
            ((3, 4, 1), [(3, 4, 1, False)]),
            ((8, 8, 1), [(8, 8, 0, True)]),
        ):
            self.assertEqual([tuple(wanted) for wanted in trace._ranges(*arguments)], expected, arguments)
        first, second, third, last = blocks_of(2, 4)
        trace = qtrace.open(self.write(first, third, second, last))
        self.assertEqual([tuple(wanted) for wanted in trace._ranges(2, 5, 3)], [(0, 8, 8, True)])

    def test_a_call_reads_what_the_range_and_the_room_have_left(self):
        wanted = frames._Range(10, 20, 8, False)
        for room, number, in_order, expected in (
            (8, 10, True, 8), (8, 15, True, 5), (3, 15, True, 3), (3, None, True, 1), (0, None, True, 0), (4, 20, True, 0),
            (8, 25, False, 8), (8, None, False, 8),
        ):  # fmt: skip
            self.assertEqual(frames._to_read(room, wanted, number, in_order), expected)

    def test_records_beyond_a_loss_are_those_of_the_range(self):
        first, second, third, last = blocks_of(2, 4)
        for name in (self.write(first, third, last), self.write(first, damaged(second), third, last)):
            for start, count in itertools.product((0, 1, 3, 4), (0, 1, 3, 4, 5, None)):
                stop = 8 if count is None else start + count
                expected = [number for number in (0, 1, 4, 5, 6, 7) if start <= number < stop]
                self.assert_records(expected, name, start, count, on_damage="skip")
            for threads in (2, 3, 4):
                frame = self.assert_records([0, 1, 4, 5, 6, 7], name, on_damage="skip", threads=threads)
                [damage] = frame.attrs["damage"]
                self.assertEqual((damage.record, damage.records, damage.records_known), (2, 2, True))

    def test_marks_stand_in_the_rows_after_losses(self):
        name = self.without(1, 12, 0, 6, 10)
        for threads in (1, 2, 5):
            frame = qtrace.frame(name, ["word"], on_damage="mark", threads=threads)
            self.assertEqual(frame.index[frame["discontinuity"]].tolist(), [1, 7, 11])
            self.assertEqual([damage.record for damage in frame.attrs["damage"]], [0, 6, 10])
        cut = self.without(1, 3, 2)
        frame = qtrace.frame(cut, ["word"], on_damage="mark")
        self.assertEqual(frame["discontinuity"].tolist(), [False, False])
        self.assertEqual([damage.cause for damage in frame.attrs["damage"]], ["cut end"])

    def test_a_header_at_the_end_hides_no_damage(self):
        maker = numbered(Trace_Maker().header(**HEADER), 0).header(control=0x20, pid=1).end()
        frame = self.assert_records([0], self.write(*maker.blocks), on_damage="skip")
        self.assertEqual([damage.cause for damage in frame.attrs["damage"]], ["cut end"])

    def test_a_trace_without_records_is_read(self):
        name = self.write()
        frame = self.assert_records([], name, on_damage="skip")
        self.assertEqual([damage.cause for damage in frame.attrs["damage"]], ["cut end"])
        self.assertEqual(list(qtrace.batches(name)), [])
        self.assertEqual(repr(frame.index), "RangeIndex(start=0, stop=0, step=1, name='record')")
        self.assertEqual(len(qtrace.translations(name)), 1)

    def test_a_block_without_records_is_no_range(self):
        maker = numbered(numbered(Trace_Maker(), 0), 1).end()
        maker.records = 10
        maker.begin()
        trace = qtrace.open(self.write(*maker.header(control=0x20, pid=1).end(LAST | GAP).blocks))
        self.assertEqual(trace.blocks["records"].tolist(), [2, 0])
        self.assertEqual((trace.records, trace._stop), (2, 2))
        self.assertEqual(len(list(trace.batches(rows=2))), 1)

    # ---- Blocks that are not in order ----

    def test_blocks_out_of_order_are_read_as_they_stand(self):
        first, second, third, last = blocks_of(2, 4)
        name = self.write(first, third, second, last)
        self.assert_records([0, 1, 4, 5, 2, 3, 6, 7], name, on_damage="skip")
        self.assert_records([4, 2, 3], name, 2, 3, on_damage="skip")
        self.assert_records([1, 4, 5, 2, 3, 6, 7], name, 1, on_damage="skip")
        self.assert_records([0], name, 0, 1, on_damage="skip", threads=3)
        chosen = qtrace.frame(name, ["word"], on_damage="mark", word=[1, 2, 3, 7])
        self.assertEqual(chosen.index.tolist(), [1, 2, 3, 7])
        self.assertEqual(chosen["discontinuity"].tolist(), [False, True, False, True])
        self.assertEqual(qtrace.frame(name, ["word"], 3, 2, on_damage="skip", word=[1, 2, 3, 4, 7]).index.tolist(), [4, 3])

    def test_blocks_out_of_order_have_no_batches_and_no_chosen_registers(self):
        first, second, third, last = blocks_of(2, 4)
        name = self.write(first, third, second, last)
        with self.assertRaisesRegex(ValueError, "`frame` reads them"):
            next(iter(qtrace.batches(name)))
        with self.assertRaisesRegex(ValueError, "registers cannot be chosen"):
            qtrace.registers(name, word=1)

    def test_a_cut_end_after_blocks_out_of_order_is_damage(self):
        first, second, third, _ = blocks_of(2, 4)
        frame = self.assert_records([0, 1, 4, 5, 2, 3], self.write(first, third, second), on_damage="skip")
        self.assertEqual([what.cause for what in frame.attrs["damage"]], ["damage", "damage", "cut end"])

    def test_a_missing_block_leaves_the_others_in_order(self):
        name = self.without(2, 4, 2)
        lengths = [(batch.index[0], len(batch)) for batch in qtrace.batches(name, rows=5, on_damage="skip")]
        self.assertEqual(lengths, [(0, 4), (6, 2)])

    # ---- Chosen records ----

    def choose(self, name, *words, rows=4, **options):
        with mock.patch.object(frames, "_CHOICE_ROWS", rows):
            return qtrace.frame(name, ["word"], word=list(words), **options)

    def test_marks_of_chosen_records_tell_of_losses_since_the_one_before(self):
        name = self.without(1, 12, 6, 10)
        for words, expected in (
            ((1, 9), [False, True]), ((1, 2, 7, 9), [False, False, True, False]), ((1, 9, 11), [False, True, True]),
            ((7, 8), [True, False]), ((8, 9), [True, False]), ((0, 1, 2), [False] * 3), ((5, 11), [False, True]), ((), []),
        ):  # fmt: skip
            for rows in (1, 2, 3, 4, 8, 100):
                frame = self.choose(name, *words or (99,), rows=rows, on_damage="mark")
                self.assertEqual(frame.index.tolist(), list(words))
                self.assertEqual(frame["discontinuity"].tolist(), expected, (words, rows))
                self.assertEqual([damage.record for damage in frame.attrs["damage"]], [6, 10])

    def test_as_many_are_chosen_as_are_asked_for(self):
        name = self.write(*blocks_of(2, 6))
        for count, expected in ((0, []), (1, [1]), (2, [1, 5]), (3, [1, 5, 9]), (4, [1, 5, 9, 10]), (9, [1, 5, 9, 10, 11])):
            self.assertEqual(self.choose(name, 1, 5, 9, 10, 11, count=count).index.tolist(), expected)
        self.assertEqual(self.choose(name, 1, 5, 9, start=5, count=1).index.tolist(), [5])
        self.assertEqual(self.choose(name, 1, start=99).index.tolist(), [])
        self.assertEqual(self.choose(name, 1, count=0, threads=2).index.name, "record")

    def test_nothing_is_read_after_the_last_one_that_is_asked_for(self):
        first, second, *more = blocks_of(2, 6)
        name = self.write(first, damaged(second), *more)
        self.assertEqual(self.choose(name, 1, rows=2, count=1).index.tolist(), [1])
        with self.assertRaises(qtrace.DamageError):
            self.choose(name, 1, rows=2, count=2)
        with mock.patch.object(frames, "_CHOICE_ROWS", 2):
            self.assertEqual(qtrace.registers(name, count=1, word=1)["record"].tolist(), [1])
        batches = [batch["word"].tolist() for batch in qtrace.batches(name, rows=2, columns=["word"], count=1, word=[1, 9])]
        self.assertEqual(batches, [[1]])

    def test_batches_of_chosen_records_are_those_of_so_many_records(self):
        name = self.write(*blocks_of(2, 6))
        found = [batch["word"].tolist() for batch in qtrace.batches(name, rows=4, columns=["word"], word=[1, 5, 9, 10])]
        self.assertEqual(found, [[1], [5], [9, 10]])
        found = [batch["word"].tolist() for batch in qtrace.batches(name, rows=4, columns=["word"], start=5, word=[1, 5, 9])]
        self.assertEqual(found, [[5], [9]])

    def test_registers_of_chosen_records(self):
        name = self.write(*blocks_of(2, 6))
        for words in ([0, 3, 4, 7, 8, 11], [1, 2], [5], [8, 9, 10, 11], []):
            with mock.patch.object(frames, "_CHOICE_ROWS", 4):
                found = qtrace.registers(name, word=words or 99)
            self.assertEqual(found["record"].tolist(), words)
            self.assertEqual(found["value"].tolist(), [10 * word for word in words])
            self.assertEqual(found.index.tolist(), list(range(len(words))))
        found = qtrace.open(name)._found(2, 4).registers(["gpr"])
        self.assertEqual(found["record"].tolist(), [2, 3])

    # ---- Headers ----

    def test_headers_tell_what_is_in_force(self):
        maker = Trace_Maker().header(**HEADER, comment=b"caf\xe9", app_spec_data_length=0xFFFFFFFF)
        maker.record().header(file_control=0xDFFD, control=0x60, lpid=9, pid=10).record().record()
        maker.header(control=0x20, lpid=99, pid=11).record()
        maker.header(file_control=FULL, control=1 << 8 | 2 << 10, iar=0x2000, ptcr=1 << 63, sdr1=3).record().end(LAST)
        headers = qtrace.open(self.write(*maker.blocks)).headers
        expected = {
            "record": [0, 1, 3, 4], "full": [True, False, False, True], "partition": [6, 9, 9, 0],
            "process": [7, 10, 11, 0], "address": [0x1000, 0x1000, 0x1000, 0x2000],
            "guest_mode": ["real", "real", "real", "hpt"], "host_mode": ["hpt", "hpt", "hpt", "real"],
            "ptcr": [5, 5, 5, 1 << 63], "sdr1": [8, 8, 8, 3], "lost": [False] * 4,
            "comment": ["caf\xe9", None, None, None],
        }  # fmt: skip
        self.assertEqual({name: headers[name].tolist() for name in headers}, expected)
        self.assertEqual(headers.index.tolist(), [0, 1, 2, 3])
        kinds = ["uint64", "bool", "uint64", "uint32", "uint64", "category", "category", "uint64", "uint64", "bool", "object"]
        self.assertEqual([str(kind) for kind in headers.dtypes], kinds)

    def test_all_modes_of_a_header(self):
        for mode, name in enumerate(MODES):
            other = (mode + 1) % 4
            header = HEADER | {"control": mode << 8 | other << 10}
            headers = qtrace.open(self.write(*Trace_Maker().header(**header).end(LAST).blocks)).headers
            self.assertEqual(headers[["guest_mode", "host_mode"]].values.tolist(), [[name, MODES[other]]])

    def restated(self, maker, **members):
        """Begins a block that says which header is in force."""
        block = Trace_Maker().header(**members).now[0]
        maker.columns[OPEN] += sparse(block.image())
        return maker

    def test_a_lost_header_is_known_where_the_next_block_restates_it(self):
        later = HEADER | {"iar": 0x9000, "pid": 12}
        maker = Trace_Maker().header(**HEADER).record().end()
        maker.header(control=0x20, pid=1).header(**later).record().record().end()
        self.restated(maker, **later).record().header(control=0x20, pid=13).record().end(LAST)
        first, second, third = maker.blocks
        headers = qtrace.open(self.write(first, damaged(second), third)).headers
        columns = ["record", "process", "address", "lost", "full", "comment"]
        self.assertEqual([(row.Index, *[getattr(row, name) for name in columns]) for row in headers.itertuples()], [
            (0, 0, 7, 0x1000, False, True, None), (2, 3, 12, 0x9000, True, True, None), (3, 4, 13, 0x9000, False, False, None),
        ])  # fmt: skip

    def test_the_first_header_is_known_when_its_block_is_lost(self):
        maker = Trace_Maker().header(**HEADER).record().end()
        self.restated(maker, **HEADER).record().end(LAST)
        headers = qtrace.open(self.write(maker.blocks[1])).headers
        self.assertEqual((headers.index.tolist(), headers["record"].tolist(), headers["process"].tolist()), ([0], [1], [7]))
        self.assertEqual(headers["lost"].tolist(), [True])

    def test_a_context_before_any_header_makes_no_header(self):
        maker = self.restated(Trace_Maker(), **HEADER).record().end(LAST)
        trace = qtrace.open(self.write(with_flags(maker.blocks[0], GAP)))
        self.assertEqual([gap.cause for gap in trace.gaps], ["refused"])
        self.assertEqual(trace._scanned().rows, {})

    def test_a_loss_without_a_context_makes_no_header(self):
        maker = Trace_Maker().header(**HEADER).record().end().header(control=0x20, pid=1).record().end()
        trace = qtrace.open(self.write(maker.blocks[0], damaged(maker.blocks[1])))
        self.assertEqual([(damage.cause, damage.headers) for damage in trace.damage], [("cut end", 1)])
        self.assertEqual(trace.headers.index.tolist(), [0])

    def test_a_pause_leaves_the_header_that_was_read(self):
        maker = Trace_Maker().header(**HEADER, comment=b"first").record().header(**HEADER).record().end(LAST)
        trace = qtrace.open(self.write(*maker.blocks))
        self.assertEqual([(gap.cause, gap.record, gap.records) for gap in trace.gaps], [("pause", 1, 0)])
        self.assertEqual(trace.headers["lost"].tolist(), [False, False])
        self.assertEqual(trace.headers["comment"].tolist(), ["first", None])

    # ---- Translations ----

    def test_every_member_of_a_translation(self):
        walk, addresses, guest = tuple(range(101, 121)), (201, 202, 203, 204), (301, 302, 303, 304, 305, 306)
        members = {"data_vsid": 1 << 55, "data_rpn": 0xFFFFFFFF, "data_page_size": 7, "data_gpage_size": 8,
                   "data_hRTW_depth": 4, "data_hRTW_num_level": 5, "data_hRTW": walk, "data_hRTW_host_RA": addresses,
                   "data_gRTW": guest}  # fmt: skip
        present = 1 << 42 | 1 << 41 | 1 << 24 | 1 << 18
        maker = Trace_Maker().record(control=DATA | 2 << 12 | 1 << 14 | present, data_ea=0x5000, **members).end(LAST)
        name = self.write(*maker.blocks)
        absent, row = qtrace.translations(name).to_dict("records")
        expected = {"guest_mode": "real", "host_mode": "hpt", "vsid": 1 << 55, "rpn": 0xFFFFFFFF, "page_size": 7,
                    "guest_page_size": 8, "guest_depth": 4, "host_depth": 5, "guest_address": 306}  # fmt: skip
        expected |= {f"has_{name}": True for name in ("vsid", "rpn", "page_size", "guest_page_size")}
        levels = ("l1", "l2", "l3", "entry")
        expected |= {f"host_walk_{i // 4}_{levels[i % 4]}": 101 + i for i in range(20)}
        expected |= {f"host_address_{i}": 201 + i for i in range(4)}
        expected |= {f"guest_walk_{level}": 301 + i for i, level in enumerate(("l1", "l2", "l3", "l4", "entry"))}
        self.assertEqual(row, expected)
        self.assertEqual({*absent.values()}, {"none", 0, False})
        frame = qtrace.frame(name, ["data_page", "data_page_size", "data_guest_page_size", "data_translation"])
        self.assertEqual(frame.values.tolist(), [[0xFFFFFFFF, 7, 8, 1]])

    def test_each_member_that_is_present(self):
        flags = {"vsid": (42, 37), "rpn": (41, 36), "page_size": (24, 25), "guest_page_size": (18, 19)}
        for (name, bits), side in itertools.product(flags.items(), (0, 1)):
            control = (DATA, NEXT)[side] | 1 << bits[side]
            members = {"data_ea": 1} if side == 0 else {"next_instruction_ea": 1}
            maker = Trace_Maker().record(control=control, **members).end(LAST)
            row = qtrace.translations(self.write(*maker.blocks)).iloc[1]
            self.assertEqual([key for key in flags if row[f"has_{key}"]], [name])

    def paged(self, *pages):
        """Records of accesses to pages."""
        maker = Trace_Maker()
        for number, page in enumerate(pages):
            numbered(maker, number, control=DATA | 1 << 41, data_ea=page << 12, data_rpn=page)
            maker.end(LAST if number == len(pages) - 1 else 0)
        return maker.blocks

    def test_translations_of_all_parts_are_numbered_once(self):
        name = self.write(*self.paged(5, 6, 5, 7, 6, 8))
        with mock.patch.object(frames, "_BATCH", 2):
            rows = qtrace.translations(name)
        self.assertEqual(rows["rpn"].tolist(), [0, 5, 6, 7, 8])
        for threads in (1, 2, 6):
            frame = qtrace.frame(name, ["data_translation", "data_page"], threads=threads)
            self.assertEqual(frame["data_translation"].tolist(), [1, 2, 1, 3, 2, 4])
            self.assertEqual(frame["data_page"].tolist(), [5, 6, 5, 7, 6, 8])
        with mock.patch.object(qtrace.Trace, "frame", side_effect=AssertionError):
            self.assertEqual(len(qtrace.translations(name)), 5)
        other = self.write(*self.paged(5, 6, 7))
        self.assertEqual(qtrace.frame(other, ["data_page"], 2)["data_page"].tolist(), [7])
        frame = qtrace.frame(other, ["data_translation", "data_page"], threads=3)
        self.assertEqual(frame.values.tolist(), [[2, 5], [3, 6], [1, 7]])

    def test_translations_of_blocks_out_of_order_are_met(self):
        first, second, third = self.paged(5, 6, 7)
        self.assertEqual(qtrace.translations(self.write(second, first, third))["rpn"].tolist(), [0, 6, 5, 7])

    # ---- Registers ----

    def test_registers_of_more_records_than_there_is_room_for_at_first(self):
        maker = Trace_Maker()
        for n in range(60):
            maker.record(num_gprs_in=5, gpr_in=tuple((i, n * 5 + i) for i in range(5)), num_vsxrs_out=1,
                         vsxr_out=((63, n, 1 << 63),))  # fmt: skip
        registers = qtrace.registers(self.write(*maker.end(LAST).blocks))
        inputs = registers[registers["direction"] == "in"]
        self.assertEqual(inputs["value"].tolist(), list(range(300)))
        self.assertEqual(inputs["high"].tolist(), [0] * 300)
        outputs = registers[registers["direction"] == "out"]
        self.assertEqual(outputs[["record", "class", "number", "value", "high"]].values.tolist(),
                         [[n, "vsxr", 63, n, 1 << 63] for n in range(60)])  # fmt: skip

    def test_arrays_of_registers_have_room_for_those_of_a_record(self):
        part = frames._Registers(9, (3, 5))
        part.registers = 10
        columns = part.registers_from_here()
        self.assertEqual((columns.inputs, columns.outputs, columns.room), (3, 5, part.capacity - 10))
        self.assertGreaterEqual(columns.room, 90)
        self.assertEqual(columns.record - part.arrays["record"].ctypes.data, 80)
        self.assertEqual(columns.number - part.arrays["number"].ctypes.data, 20)
        self.assertEqual({len(array) for array in part.arrays.values()}, {part.capacity})

    def test_classes_are_chosen_by_name(self):
        for name, masks in (
            ("gpr_in", (1, 0)), ("fpr_in", (2, 0)), ("vmxr_in", (4, 0)), ("vsxr_in", (8, 0)), ("spr_in", (16, 0)),
            ("gpr_out", (0, 1)), ("fpr_out", (0, 2)), ("vmxr_out", (0, 4)), ("vsxr_out", (0, 8)), ("spr_out", (0, 16)),
        ):  # fmt: skip
            self.assertEqual(frames._class_masks([name]), masks)
        self.assertEqual(frames._class_masks(["gpr_in", "fpr_in", "gpr_in", "spr_out"]), (3, 16))
        self.assertEqual(frames._class_masks([]), (0, 0))
        self.assertEqual(frames._class_masks(None), (31, 31))

    # ---- Pieces ----

    def test_runs_of_numbers_are_joined(self):
        part = frames._Part({}, 20)
        for run in ((5, 3), (8, 2), (11, 1), (12, 4), (20, 1)):
            part.add(*run)
        self.assertEqual((part.rows, part.runs), (11, [(5, 5), (11, 5), (20, 1)]))

    def test_an_index_names_the_records(self):
        index = frames._index([(0, 2), (2, 3), (7, 1), (8, 2), (10, 1), (12, 1)])
        self.assertEqual((index.tolist(), index.name), ([0, 1, 2, 3, 4, 7, 8, 9, 10, 12], "record"))
        self.assertEqual(frames._index([(1, 2), (5, 1)]).tolist(), [1, 2, 5])
        for runs, text in (([(4, 2), (6, 1)], "start=4, stop=7"), ([(4, 2)], "start=4, stop=6"), ([], "start=0, stop=0")):
            self.assertEqual(repr(frames._index(runs)), f"RangeIndex({text}, step=1, name='record')")

    def test_one_thread_works_alone(self):
        self.assertIsInstance(frames._pool(1), frames._Alone)
        with frames._pool(2) as pool:
            self.assertIsInstance(pool, ThreadPoolExecutor)

    def test_damage_is_told_with_its_first_place(self):
        damage = qtrace.Discontinuity("damage", 5, 2, True, 0, 99, 40, "why")
        self.assertEqual(str(damage), "byte 99: why, 2 records lost from record 5 on")
        self.assertEqual(str(damage._replace(records_known=False)), "byte 99: why, at least 2 records lost from record 5 on")
        told = 'trace0: byte 99: why, 2 records lost from record 5 on{}; on_damage="skip" or "mark" reads the rest'
        for count, more in ((1, ""), (2, " (and 1 more places)"), (3, " (and 2 more places)")):
            error = qtrace.DamageError("trace0", [damage] * count)
            self.assertEqual(str(error), told.format(more))
            again = pickle.loads(pickle.dumps(error))
            self.assertEqual((str(again), again.name, again.damage), (str(error), "trace0", (damage,) * count))

    def test_damage_names_its_reason(self):
        name, place = self.without(2, 3, 1), len(FILE_START + blocks_of(2, 3)[0])
        with self.assertRaisesRegex(qtrace.DamageError, f"byte {place}: .*missing.*, 2 records lost from record 2 on; on_damage"):
            qtrace.frame(name)

    def test_arguments_have_limits(self):
        for arguments, stop in (((0, None, 9), 9), ((3, None, 9), 9), ((0, 0, 9), 0), ((3, 4, 9), 7), ((3, 7, 9), 9)):
            self.assertEqual(frames._checked_range(*arguments), stop)
        for start, count in ((-1, None), (-1, 5), (0, -1), (-1, -1)):
            with self.assertRaises(ValueError):
                frames._checked_range(start, count, 9)
        name = self.write(*blocks_of(1, 3))
        self.assertEqual([batch.index[0] for batch in qtrace.batches(name, rows=1)], [0, 1, 2])
        for rows in (0, -1):
            with self.assertRaisesRegex(ValueError, "at least one row"):
                next(iter(qtrace.batches(name, rows=rows)))
        with self.assertRaisesRegex(ValueError, "no mark"):
            qtrace.registers(name, on_damage="mark")
        for threads in (0, -1):
            with self.assertRaisesRegex(ValueError, "at least 1"):
                qtrace.frame(name, threads=threads)

    def test_methods_have_the_defaults_of_the_functions(self):
        def defaults(function):
            return {name: what.default for name, what in inspect.signature(function).parameters.items()
                    if what.default is not inspect.Parameter.empty}  # fmt: skip

        for name in ("frame", "batches", "registers"):
            self.assertEqual(defaults(getattr(qtrace.Trace, name)), defaults(getattr(qtrace, name)))
            self.assertEqual({key: defaults(getattr(qtrace, name))[key] for key in ("start", "count", "on_damage", "threads")},
                             {"start": 0, "count": None, "on_damage": "raise", "threads": 1})  # fmt: skip

    def test_columns_and_their_types(self):
        kinds = ("load", "store", "branch", "taken", "string", "call", "return", "system_call", "cache")
        self.assertEqual(sorted(qtrace.KINDS), sorted(kinds))
        expected = {
            "address": "u8", "has_address": "?", "next": "u8", "has_next": "?", "data": "u8", "has_data": "?", "word": "u4",
            "flags": "u8", "data_translation": "u4", "next_translation": "u4", "context": "u4", "node": "u1",
            "termination_node": "u1", "termination": "u1", "error": "u1", "processor": "u1", "length": "u2",
            **dict.fromkeys(kinds, "?"), "thread": "u2",
        }  # fmt: skip
        for side in ("data", "next"):
            expected |= {f"{side}_page": "u4", f"{side}_page_size": "u1", f"{side}_guest_page_size": "u1"}
        self.assertEqual(sorted(frames.ALL_COLUMNS), sorted(expected))
        frame = qtrace.frame(self.write(*blocks_of(1, 1)), list(expected))
        for name, kind in expected.items():
            self.assertEqual((frames.dtype_of(name), frame[name].dtype), (np.dtype(kind), np.dtype(kind)), name)

    def test_kinds_are_what_instructions_do(self):
        maker = Trace_Maker().record(instruction=0x80640000).record(instruction=0x90640000).record(instruction=0x48000000)
        frame = qtrace.frame(self.write(*maker.end(LAST).blocks), ["load", "store", "branch", "cache"])
        self.assertEqual(frame.values.tolist(), [[i == row for i in range(4)] for row in range(3)])

    def test_the_thread_is_the_number_at_the_end_of_the_name(self):
        self.assertEqual(frames.thread_of("a3b/trace120"), 120)
        with self.assertRaises(ValueError):
            frames.thread_of("trace1.")
        self.assertEqual(qtrace.frame(self.write(*blocks_of(2, 1)), ["thread"])["thread"].tolist(), [0, 0])

    def test_an_empty_frame_keeps_its_types(self):
        frame = pd.DataFrame({"a": np.arange(3, dtype="u8"), "b": [True, False, True]})
        frames._empty(frame)
        self.assertEqual((len(frame), list(map(str, frame.dtypes))), (0, ["uint64", "bool"]))


if __name__ == "__main__":
    traced_streams.main()
