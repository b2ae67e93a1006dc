"""Every example on recorded streams: it runs, and its figures are those of the plain reader."""
import collections
import os
import re
import subprocess
import sys

import traced_streams
from traced_streams import ROOT, InFolder

from qtrace import plain

EXAMPLES = ("hottest_pages", "branch_bias", "working_set", "stores_to_range", "register_values")
DATA = 1 << 43


class Examples(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.sample = traced_streams.replay("sample", cls.folder) + "0"
        cls.records = [item for item in plain.Trace(cls.sample) if isinstance(item, plain.Record)]

    def example(self, name, *arguments):
        environment = os.environ | {"PYTHONPATH": str(ROOT / "python")}
        command = [sys.executable, "-W", "error", ROOT / f"examples/{name}.py", *arguments]
        return traced_streams.run(*command, env=environment)

    def test_run_on_every_stream(self):
        for stream in ("vector", "guest", "firmware"):
            name = traced_streams.replay(stream, self.folder) + "0"
            for example in EXAMPLES:
                with self.subTest(example, stream=stream):
                    self.assertGreater(len(self.example(example, name).splitlines()), 3)
        output = self.example("compare_traces", name, self.sample)
        self.assertIn("first different address: record 0", output)

    def test_all_are_run(self):
        files = {path.stem for path in (ROOT / "examples").glob("*.py") if "import qtrace\n" in path.read_text()}
        self.assertEqual(files, {*EXAMPLES, "compare_traces"})
        script = (ROOT / "examples/run").read_text()
        for example in files:
            self.assertIn(example, script)

    def test_the_hottest_page(self):
        pages = collections.Counter(record.data_ea >> 12 for record in self.records if record.control & DATA)
        page, times = pages.most_common(1)[0]
        output = self.example("hottest_pages", self.sample)
        self.assertRegex(output, rf"data: {pages.total()} accesses to {len(pages)} pages")
        self.assertRegex(output, rf"0x{page << 12:016x} +{times}\n")

    def test_the_working_set(self):
        output = self.example("working_set", self.sample, 4)
        rows = [list(map(int, line.split())) for line in output.splitlines()[1:5]]
        self.assertEqual([row[0] for row in rows], [0, 500, 1000, 1500])
        for row in rows:
            records = self.records[row[0] : row[0] + 500]
            self.assertEqual(row[1], len({record.address >> 12 for record in records}))
            self.assertEqual(row[2], len({record.data_ea >> 12 for record in records if record.control & DATA}))

    def test_the_values_of_a_register(self):
        values = [value for record in self.records for number, value in record.gpr_out[: record.num_gprs_out]
                  if number == 9]  # fmt: skip
        output = self.example("register_values", self.sample, "gpr", 9)
        self.assertIn(f"written {len(values)} times, with {len(set(values))} different values", output)
        steps = collections.Counter(
            (b - a + 2**63) % 2**64 - 2**63 for a, b in zip(values, values[1:])
        )
        step, times = re.search(r"most frequent steps:\n +([+-]\d+) +(\d+) times", output).groups()
        self.assertEqual(int(times), max(steps.values()))
        self.assertEqual(steps[int(step)], int(times))

    def test_the_stores_to_a_range(self):
        output = self.example("stores_to_range", self.sample)
        here, stores, first, last = re.match(r"(\d+) of (\d+) stores go to (0x\w+) to (0x\w+)", output).groups()
        given = self.example("stores_to_range", self.sample, first, last)
        self.assertEqual(given, output)
        accesses = sum(int(first, 16) <= record.data_ea <= int(last, 16) for record in self.records
                       if record.control & DATA)  # fmt: skip
        self.assertLessEqual(int(here), accesses)
        self.assertGreater(int(here), 0)
        self.assertLess(int(here), int(stores) + 1)

    def test_the_bias_of_branches(self):
        output = self.example("branch_bias", self.sample)
        self.assertRegex(output, r"^\d+ branches: \d+ calls, \d+ returns, \d+\.\d% taken\n")

    def test_a_trace_compared_with_itself_and_a_changed_one(self):
        self.assertIn("the first 2000 addresses are the same",
                      self.example("compare_traces", self.sample, self.sample))  # fmt: skip

    def test_a_missing_file_is_an_error(self):
        done = subprocess.run([sys.executable, ROOT / "examples/working_set.py", "nothing"], capture_output=True,
                              env=os.environ | {"PYTHONPATH": str(ROOT / "python")}, check=False)  # fmt: skip
        self.assertNotEqual(done.returncode, 0)


if __name__ == "__main__":
    traced_streams.main()
