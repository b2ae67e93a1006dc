"""Records chosen by arguments are those that `qtrace dump --json` shows with the options of the same names."""
import json
import os
import subprocess

from traced_streams import PROGRAMS, STREAMS, InFolder, damaged, main, replay

import pandas as pd

import qtrace

LISTS = [f"{name}_{way}" for name in ("gpr", "fpr", "vmxr", "vsxr", "spr") for way in ("in", "out")]


def dump(name, choice, start=0, count=None):
    """The records as dictionaries, by their numbers."""
    options = [text for key, value in choice.items() for text in (f"--{key.rstrip('_')}", value)]
    options += ["--from", str(start)] + (["--count", str(count)] if count is not None else [])
    done = subprocess.run([PROGRAMS / "qtrace", "dump", "--json", *options, name], capture_output=True, text=True)
    assert done.returncode in (0, 3), done.stderr
    lines = map(json.loads, done.stdout.splitlines())
    return {line["record"]: line for line in lines if "record" in line and "discontinuity" not in line}


def choices_for(name):
    """Choices in the words of the options, with addresses, words and processes that the trace has."""
    f = qtrace.frame(name, ["address", "data", "has_data", "word", "data_page"])
    data = f[f["has_data"]]
    pcs, accesses = f["address"].quantile([0.3, 0.6], "lower"), data["data"].quantile([0.2, 0.5], "lower")
    pages = sorted(data["data_page"].unique())
    words = f["word"].value_counts().index[:2]
    headers = qtrace.open(name).headers
    lpid, pid = int(headers["partition"].iloc[-1]), int(headers["process"].iloc[-1])
    span = "{:x}-{:x}".format
    return [
        {"kind": "load"},
        {"kind": "load,store,call"},
        {"kind": "taken", "not_": "call,return"},
        {"not_": "load,branch"},
        {"kind": "error"},
        {"pc": span(*map(int, sorted(pcs)))},
        {"pc": f"{f['address'].iloc[0]:x},0x{f['address'].iloc[-1]:x}"},
        {"data": span(*map(int, sorted(accesses)))},
        {"real": span(int(pages[0]) << 12, int(pages[len(pages) // 2]) << 12 | 0xFFF)},
        {"word": f"{words[0]:x},{words[1]:x}/fc000000"},
        {"register": "r3,s9"},
        {"register": "f1,v2,x34"},
        {"lpid": str(lpid)},
        {"pid": f"{pid},4711"},
        {"lpid": f"0x{lpid:x}", "pid": str(pid), "kind": "store", "register": "r1,r9"},
        {"pid": "4711"},
    ]


class chosen_records(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.traces = [f"{replay(stream, cls.folder)}0" for stream in STREAMS]

    def test_are_those_of_the_tool(self):
        found = 0
        for turn, name in enumerate(self.traces):
            for choice in choices_for(name)[turn % 2 :: 2]:
                with self.subTest(name=name, **choice):
                    wanted = dump(name, choice)
                    f = qtrace.frame(name, ["address", "word"], **choice)
                    self.assertEqual(f.index.tolist(), list(wanted))
                    self.assertEqual(qtrace.hex(f["address"]).tolist(), [line["address"] for line in wanted.values()])
                    self.assertEqual(list(f.columns), ["address", "word"])
                    found += len(f)
        self.assertGreater(found, 50_000)

    def test_begin_and_end_where_those_of_the_tool_do(self):
        for name in self.traces:
            for start, count in ((0, 10), (700, 50), (1_500, 0)):
                choice = {"kind": "load"}
                self.assertEqual(qtrace.frame(name, start=start, count=count, **choice).index.tolist(),
                                 list(dump(name, choice, start, count)))

    def test_have_the_registers_of_the_tool(self):
        for name in self.traces:
            choice = {"kind": "store", "register": "r1,r9"}
            wanted = dump(name, choice, count=300)
            registers = qtrace.registers(name, count=300, **choice)
            self.assertEqual(sorted(set(registers["record"].tolist())), list(wanted))
            listed = sum(len(line.get(part, [])) for line in wanted.values() for part in LISTS)
            self.assertEqual(len(registers), listed)
            r9 = registers[(registers["class"] == "gpr") & (registers["number"] == 9) & (registers["direction"] == "in")]
            values = [int(entry[1], 16) for line in wanted.values() for entry in line.get("gpr_in", []) if entry[0] == 9]
            self.assertEqual(r9["value"].tolist(), values)

    def test_come_in_batches_and_in_partitions_too(self):
        import qtrace.dask

        name = self.traces[1]
        whole = qtrace.frame(name, kind="store", not_="string")
        parts = [part.copy() for part in qtrace.batches(name, rows=7_000, kind="store", not_="string")]
        self.assertGreater(len(parts), 10)
        pd.testing.assert_frame_equal(pd.concat(parts), whole)
        some = [part.copy() for part in qtrace.batches(name, rows=7_000, count=100, kind="store")]
        self.assertEqual(sum(map(len, some)), 100)
        spread = qtrace.dask.frame(name, rows=20_000, columns=["address"], kind="store", not_="string").compute()
        self.assertEqual(spread["address"].tolist(), whole["address"].tolist())

    def test_of_a_damaged_file_are_marked_after_the_damage(self):
        name = damaged(self.traces[1], os.path.getsize(self.traces[1]) // 2)
        with self.assertRaises(qtrace.DamageError):
            qtrace.frame(name, kind="store")
        f = qtrace.frame(name, ["address"], on_damage="mark", kind="store")
        self.assertEqual(f.index.tolist(), list(dump(name, {"kind": "store"})))
        [place] = f.attrs["damage"]
        [marked] = f.index[f["discontinuity"]]
        self.assertEqual(marked, f.index[f.index >= place.record + place.records][0])

    def test_take_numbers_pairs_and_lists(self):
        name = self.traces[0]
        address = int(qtrace.frame(name, ["address"])["address"].iloc[5])
        for value in (address, (address, address), [address], f"{address:x}", f"0x{address:X}-{address:x}"):
            self.assertEqual(set(qtrace.frame(name, ["address"], pc=value)["address"]), {address})
        every = qtrace.frame(name, ["word"], kind=["load", "store"])
        self.assertEqual(len(every), len(qtrace.frame(name, ["word"], kind="load,store")))
        word = int(every["word"].iloc[0])
        for value in (word, [(word, 0xFFFFFFFF)], f"{word:x}/ffffffff"):
            self.assertEqual(set(qtrace.frame(name, ["word"], word=value)["word"]), {word})

    def test_are_not_chosen_by_what_makes_no_sense(self):
        for choice, error in (({"sort": "load"}, TypeError), ({"kind": "lode"}, ValueError), ({"pc": "xyz"}, ValueError),
                              ({"pc": "2000-1000"}, ValueError), ({"pid": -1}, ValueError), ({"pid": 1 << 32}, ValueError),
                              ({"register": "q7"}, ValueError), ({"word": 1 << 32}, ValueError), ({"lpid": "five"}, ValueError)):
            for function in (qtrace.frame, qtrace.registers, lambda *a, **b: list(qtrace.batches(*a, **b))):
                with self.assertRaises(error):
                    function(self.traces[0], **choice)


if __name__ == "__main__":
    main()
