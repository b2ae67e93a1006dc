"""docs/python.md: its programs run, and its table of pitfalls is true."""
import os
import re
import shutil
import warnings

import traced_streams
from traced_streams import ROOT, InFolder

import numpy as np
import pandas as pd
import qtrace

MANUAL = (ROOT / "docs/python.md").read_text()
ROW = re.compile(r"\| `([^|]*)` \| (float64|wrapped|TypeError|OverflowError) \| `(.*)` \|")


class Manual(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        base = traced_streams.replay("two-cpu", cls.folder)
        for thread in range(2):
            for kind in ("", "text", "pte"):
                shutil.copy(f"{base}{kind}{thread}", cls.folder / f"{kind or 'trace'}{thread}")
        before = os.getcwd()
        os.chdir(cls.folder)
        cls.addClassCleanup(os.chdir, before)
        cls.frame = qtrace.frame("trace0")

    def evaluate(self, expression):
        import json
        import sqlite3

        f = self.frame
        names = {"f": f, "a": f["address"], "b": f["next"], "np": np, "pd": pd, "qtrace": qtrace, "json": json,
                 "sqlite3": sqlite3}  # fmt: skip
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            return eval(expression, names)

    def test_its_programs_run_in_order(self):
        programs = re.findall(r"```python\n(.*?)```", MANUAL, re.S)
        self.assertGreater(len(programs), 7)
        names = {}
        for program in programs:
            with self.subTest(program):
                exec(program, names)
        self.assertEqual(names["loads"], qtrace.frame("trace0", ["load"])["load"].sum())
        self.assertGreater(names["branches"], 0)

    def test_its_table_of_pitfalls_is_true(self):
        rows = ROW.findall(MANUAL)
        self.assertEqual(len(rows), len(re.findall(r"\| which gives \|.*?\n\n", MANUAL, re.S)[0].strip().splitlines()) - 2)
        for wrong, gives, right in rows:
            with self.subTest(wrong):
                if gives.endswith("Error"):
                    with self.assertRaises(BaseException) as raised:
                        self.evaluate(wrong)
                    self.assertEqual(type(raised.exception).__name__, gives)
                elif gives == "float64":
                    self.assertEqual(self.evaluate(wrong).dtype, np.float64)
                else:
                    self.assertGreater(int(self.evaluate(wrong).max()), 2**63)
            with self.subTest(right):
                kind = getattr(self.evaluate(right), "dtype", None)
                self.assertIn(kind, (None, np.dtype("u8"), np.dtype("i8")))

    def test_what_it_calls_exact_is(self):
        f = self.frame
        a = pd.Series([2**63 + 1, 2**63 + 1, 2**64 - 1], dtype="u8")
        self.assertEqual(a.groupby([1, 1, 2]).first().tolist(), [2**63 + 1, 2**64 - 1])
        self.assertEqual(a.groupby([1, 1, 2]).max().tolist(), [2**63 + 1, 2**64 - 1])
        self.assertEqual(a.groupby([1, 2, 2]).min().tolist(), [2**63 + 1, 2**63 + 1])
        self.assertEqual(a.value_counts().to_dict(), {2**63 + 1: 2, 2**64 - 1: 1})
        self.assertEqual(a.nlargest(2).tolist(), [2**64 - 1, 2**63 + 1])
        self.assertEqual(a.sort_values().tolist(), a.tolist())
        self.assertEqual(a.isin([2**64 - 1]).tolist(), [False, False, True])
        self.assertEqual(len(f.query("has_data and address > 0xc000000000000000")),
                         ((f["address"] > np.uint64(0xC << 60)) & f["has_data"]).sum())  # fmt: skip

    def test_it_names_every_example(self):
        for example in ("hottest pages", "branch bias", "working set", "stores to a range", "values of a register",
                        "two traces"):  # fmt: skip
            self.assertIn(example, MANUAL.replace("\n", " "))


if __name__ == "__main__":
    traced_streams.main()
