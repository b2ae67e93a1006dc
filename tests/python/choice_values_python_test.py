"""Choices of records, on a few records that are written down here."""
import unittest
import unittest.mock

import traced_streams

import numpy as np
import pandas as pd
from qtrace import choice
from qtrace.choice import Choice, Found

LOAD, STORE, BRANCH, TAKEN = 1, 2, 4, 8
KINDS = {"load": LOAD, "store": STORE, "branch": BRANCH, "taken": TAKEN}
# Of six records; where an address is not there, another column says so.
COLUMNS = {
    "context": np.array([0, 0, 1, 2, 3, 0xFFFFFFFF], np.uint32),
    "address": np.array([0x1000, 0x1004, 0x2000, (1 << 64) - 4, 0, 0x1000], np.uint64),
    "has_address": np.array([True, True, True, True, True, False]),
    "data": np.array([0x5008, 0, 0x6FFF, 0x7000, 0x5008, 0x5008], np.uint64),
    "has_data": np.array([True, False, True, True, True, False]),
    "data_translation": np.array([1, 0, 2, 3, 4, 1], np.uint32),
    "kinds": np.array([1, 2, 4, 12, 0, 3], np.uint16),
    "word": np.array([0xE8640008, 0xF8640008, 0x48000000, 0xFFFFFFFF, 0, 0xE8640009], np.uint32),
}
TRANSLATIONS = np.array(
    [(0, 0), (2, 0x10), (3, 0x80000), (1, 0x10), (14, 0x11)], [("present", "u1"), ("rpn", "u8")]
)
HEADERS = pd.DataFrame({
    "process": np.array([7, 8, 7, (1 << 32) - 1], np.uint32), "partition": np.array([1, 1, 2, (1 << 64) - 1], np.uint64),
})  # fmt: skip
REGISTERS = pd.DataFrame(
    [(100, "gpr", 3), (101, "gpr", 4), (102, "fpr", 3), (104, "gpr", 3), (105, "spr", 65535), (105, "fpr", 4)],
    columns=["record", "class", "number"],
)


class Choices(unittest.TestCase):
    def assert_chosen(self, expected, **arguments):
        chosen = Choice(**arguments)
        asked = []

        def registers(classes):
            asked.append(list(classes))
            return REGISTERS.astype({"record": np.uint64})

        frame = pd.DataFrame({name: COLUMNS[name] for name in chosen.columns}, index=range(100, 106))
        found = chosen.of(frame, Found(lambda: HEADERS, lambda: TRANSLATIONS, registers))
        self.assertEqual(np.flatnonzero(found).tolist(), expected, arguments)
        return asked

    # ---- Which records ----

    def test_all_without_arguments(self):
        self.assertFalse(Choice())
        self.assertFalse(Choice(pid=None, word=None))
        self.assertTrue(Choice(pid=0))
        self.assert_chosen([0, 1, 2, 3, 4, 5])

    def test_processes_and_partitions(self):
        for arguments, expected in (
            ({"pid": 7}, [0, 1, 3]), ({"pid": [7, 8]}, [0, 1, 2, 3]), ({"lpid": 1}, [0, 1, 2]), ({"pid": 9}, []),
            ({"pid": 7, "lpid": 2}, [3]), ({"pid": 8, "lpid": 2}, []), ({"pid": (1 << 32) - 1}, [4]), ({"lpid": (1 << 64) - 1}, [4]),
            ({"pid": "7,8", "lpid": "1"}, [0, 1, 2]), ({"lpid": "0x2"}, [3]),
        ):  # fmt: skip
            self.assert_chosen(expected, **arguments)

    def test_addresses_of_instructions(self):
        for pc, expected in (
            (0x1000, [0]), ((0x1000, 0x1004), [0, 1]), ((0x1001, 0x1003), []), ((0x1001, 0x1004), [1]), ((0x1000, 0x1003), [0]),
            ("1000-2000", [0, 1, 2]), ([0x1004, (1 << 64) - 4], [1, 3]), ("1004,0x2000-2001", [1, 2]), (0, [4]),
            ((0, (1 << 64) - 1), [0, 1, 2, 3, 4]),
        ):  # fmt: skip
            self.assert_chosen(expected, pc=pc)

    def test_addresses_of_accesses(self):
        for data, expected in ((0x5008, [0, 4]), (0, []), ("6fff", [2]), ("6fff-7000", [2, 3]), ((0x5009, 0x6FFE), [])):
            self.assert_chosen(expected, data=data)

    def test_real_addresses_of_accesses(self):
        for real, expected in (
            (0x10008, [0]), (0x11008, [4]), ((0x10000, 0x11FFF), [0, 4]), (0x80000FFF, [2]), (0x10000, []), (0x80000FFE, []),
            ((0x10009, 0x11007), []), ((0, (1 << 64) - 1), [0, 2, 4]),
        ):  # fmt: skip
            self.assert_chosen(expected, real=real)
        self.assert_chosen([4], real=(0, 1 << 40), data=0x5008, pc=0)

    def test_kinds(self):
        with unittest.mock.patch.dict(choice._library.KIND_BITS, KINDS, clear=True):
            for arguments, expected in (
                ({"kind": "load"}, [0, 5]), ({"kind": "load,store"}, [0, 1, 5]), ({"kind": ["taken", "taken"]}, [3]),
                ({"not_": "load"}, [1, 2, 3, 4]), ({"not_": ["load", "branch"]}, [1, 4]), ({"kind": "branch", "not_": "taken"}, [2]),
                ({"kind": "store", "not_": "load"}, [1]),
            ):  # fmt: skip
                self.assert_chosen(expected, **arguments)

    def test_words_and_masks(self):
        for word, expected in (
            (0xE8640008, [0]), ("e8640008,48000000", [0, 2]), ((0xE8640008, 0xFFFFFFFE), [0, 5]), ("f8640008/efffffff", [0, 1]),
            ("0/0", [0, 1, 2, 3, 4, 5]), (0xFFFFFFFF, [3]), ([(0xE8000000, 0xFC000000), 0], [0, 4, 5]), (0, [4]),
            ((0xE8640009, 0xFFFF0000), [0, 5]),
        ):  # fmt: skip
            self.assert_chosen(expected, word=word)

    def test_registers(self):
        for register, expected, classes in (
            ("r3", [0, 4], ["gpr"]), ("f3", [2], ["fpr"]), ("r4,f4", [1, 5], ["fpr", "gpr"]), ("s65535", [5], ["spr"]),
            (["r3", "r4"], [0, 1, 4], ["gpr"]), ("v0", [], ["vmxr"]), ("x3", [], ["vsxr"]), ("r0x3", [0, 4], ["gpr"]),
        ):  # fmt: skip
            self.assertEqual(self.assert_chosen(expected, register=register), [classes])

    def test_registers_are_not_asked_for_where_nothing_else_fits(self):
        self.assertEqual(self.assert_chosen([], register="r3", word=0x12345678), [])
        self.assertEqual(self.assert_chosen([0], register="r3", word=0xE8640008), [["gpr"]])
        self.assertEqual(self.assert_chosen([], register="r4", word=0xE8640008), [["gpr"]])

    def test_every_argument_is_satisfied(self):
        every = {"pid": 7, "lpid": 1, "pc": (0, 0x1004), "data": 0x5008, "real": 0x10008, "kind": "load", "not_": "branch",
                 "word": (0xE8640000, 0xFFFF0000), "register": "r3"}  # fmt: skip
        with unittest.mock.patch.dict(choice._library.KIND_BITS, KINDS, clear=True):
            self.assert_chosen([0], **every)
            for other in ({"pid": 8}, {"lpid": 2}, {"pc": 0x2000}, {"data": 0x6FFF}, {"real": 0x80000FFF}, {"kind": "store"},
                          {"not_": "load"}, {"word": 0}, {"register": "f3"}):  # fmt: skip
                self.assert_chosen([], **every | other)

    # ---- What is needed for it ----

    def test_columns_are_those_of_the_arguments(self):
        access = ["data", "has_data"]
        for arguments, columns in (
            ({}, []), ({"pid": 1}, ["context"]), ({"lpid": 1}, ["context"]), ({"pc": 0}, ["address", "has_address"]),
            ({"data": 0}, access), ({"real": 0}, [*access, "data_translation"]), ({"kind": "load"}, ["kinds"]),
            ({"not_": "load"}, ["kinds"]), ({"word": 0}, ["word"]), ({"register": "r1"}, []),
        ):  # fmt: skip
            self.assertEqual(Choice(**arguments).columns, columns)

    # ---- Values ----

    def test_registers_are_named_by_a_letter(self):
        self.assertEqual(choice.REGISTER_CLASSES, {"r": "gpr", "f": "fpr", "v": "vmxr", "x": "vsxr", "s": "spr"})

    def test_largest_and_smallest_values(self):
        chosen = Choice(pid=["4294967295", 0], lpid="18446744073709551615", pc="0-ffffffffffffffff", word=["ffffffff", 0],
                        register=["r65535", "f0", "s0xFFFF"])  # fmt: skip
        self.assertEqual((chosen.pids, chosen.lpids, chosen.pcs), ([(1 << 32) - 1, 0], [(1 << 64) - 1], [(0, (1 << 64) - 1)]))
        self.assertEqual(chosen.words, [((1 << 32) - 1, (1 << 32) - 1), (0, (1 << 32) - 1)])
        self.assertEqual(chosen.registers, [("gpr", 65535), ("fpr", 0), ("spr", 65535)])
        self.assertEqual(Choice(pid="0x10", lpid="10").pids + Choice(lpid="10").lpids, [16, 10])
        self.assertEqual(Choice(pc="10").pcs + Choice(pc="0X1F").pcs + Choice(pc=10).pcs, [(16, 16), (31, 31), (10, 10)])
        self.assertEqual(Choice(pid=np.uint64(5)).pids, [5])
        self.assertEqual(Choice(pid=(5, 6)).pids, [5, 6])
        self.assertEqual(Choice(pc=(5, 6)).pcs + Choice(pc=[5, 6]).pcs + Choice(pc=(5, 5)).pcs, [(5, 6), (5, 5), (6, 6), (5, 5)])
        self.assertEqual(Choice(word="ff/f0").words + Choice(word=(0xFF, 0x0F)).words, [(0xF0, 0xF0), (0x0F, 0x0F)])

    def test_values_that_do_not_fit_are_named(self):
        for arguments, reason in (
            ({"pid": 1 << 32}, "^4294967296 is no number for pid$"), ({"pid": -1}, "^-1 is no number for pid$"),
            ({"lpid": 1 << 64}, "^18446744073709551616 is no number for lpid$"), ({"pid": "0x"}, "^'0x' is no number for pid$"),
            ({"pid": "ff"}, "no number"), ({"pc": 1 << 64}, "^0x10000000000000000 does not fit into 64 bits$"),
            ({"pc": -1}, "^-0x1 does not fit into 64 bits$"), ({"pc": "12g"}, "^'12g' is no address"), ({"pc": ""}, "no address"),
            ({"pc": "2-1"}, "^'2-1' ends before it begins$"), ({"pc": (2, 1)}, "ends before it begins"), ({"pc": "1-2-3"}, "no address"),
            ({"word": 1 << 32}, "^0x100000000 does not fit into 32 bits$"), ({"word": (1, 1 << 32)}, "32 bits"),
            ({"word": "1/2/3"}, "no address"), ({"register": "r"}, "^'r' is no register"), ({"register": "q1"}, "no register"),
            ({"register": ""}, "no register"), ({"register": [3]}, "^3 is no register"), ({"register": "r65536"}, "^65536 is no number"),
            ({"register": "r-1"}, "no number"), ({"kind": "lode"}, "^'lode' is no kind"), ({"not_": "lode"}, "^'lode' is no kind"),
        ):  # fmt: skip
            with self.assertRaisesRegex(ValueError, reason):
                Choice(**arguments)
        with self.assertRaisesRegex(TypeError, "^unexpected argument 'sort'; records are chosen by pid, lpid, pc, "):
            Choice(sort=1)
        with self.assertRaisesRegex(TypeError, "^unexpected argument 'sort'"):
            Choice(pid=1, sort=None)


if __name__ == "__main__":
    traced_streams.main()
