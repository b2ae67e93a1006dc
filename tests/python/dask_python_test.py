"""Traces on a local cluster of two worker processes."""
import json
import os
import pathlib
import shutil
import subprocess

import traced_streams
from traced_streams import PROGRAMS, ROOT, InFolder

os.environ["PYTHONPATH"] = str(ROOT / "python")  # of the workers

import dask.distributed
import numpy as np
import pandas as pd
import qtrace
import qtrace.dask

COLUMNS = ["address", "data", "taken", "thread", "context"]


def tool_stats(name, top=10):
    """What the command says, and its exit status."""
    command = [PROGRAMS / "qtrace", "stats", "--json", "--top", str(top), name]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return [json.loads(line) for line in done.stdout.splitlines()], done.returncode


class Cluster(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.base = traced_streams.replay("two-cpu", cls.folder)
        cls.guest = traced_streams.replay("guest", cls.folder)
        cluster = dask.distributed.LocalCluster(
            n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None, local_directory=str(cls.folder)
        )
        cls.addClassCleanup(cluster.close)
        client = dask.distributed.Client(cluster)
        cls.addClassCleanup(client.close)
        cls.client = client

    def damaged_session(self, thread):
        """The base name of a copy of the session with a damaged block in one thread's file."""
        folder = self.folder / f"damaged{thread}"
        folder.mkdir(exist_ok=True)
        for number in range(2):
            shutil.copy(f"{self.base}{number}", folder / f"trace{number}")
        name = folder / f"trace{thread}"
        offset = int(qtrace.open(name).blocks["offset"][1]) + 300
        data = bytearray(name.read_bytes())
        data[offset] ^= 0x5A
        name.write_bytes(data)
        return str(folder / "trace")

    def expected(self, base, **options):
        """The frames of all threads, one after the other, with the keys of a session."""
        frames = []
        for thread in range(2):
            frame = qtrace.frame(f"{base}{thread}", COLUMNS, **options)
            frame.index = pd.Index(frame.index.to_numpy() + (thread << 40), name="key")
            frames.append(frame)
        return pd.concat(frames)

    def test_two_processes_do_the_work(self):
        self.assertEqual(len(set(self.client.run(os.getpid).values())), 2)

    def test_a_frame_has_the_records_of_all_threads(self):
        frame = qtrace.dask.frame(self.base, rows=8000, columns=COLUMNS)
        self.assertGreater(frame.npartitions, 4)
        pd.testing.assert_frame_equal(frame.compute(), self.expected(self.base))

    def test_default_columns_and_types_are_known_without_reading(self):
        frame = qtrace.dask.frame(self.base)
        names = [name for name in qtrace.DEFAULT_COLUMNS if not name.endswith("translation")] + ["thread"]
        self.assertEqual(list(frame.columns), names)
        pd.testing.assert_series_equal(frame.dtypes, frame.compute().dtypes)
        everything = [*qtrace.KINDS, "data_page", "data_page_size", "has_address", "processor", "thread"]
        frame = qtrace.dask.frame(self.base, columns=everything, on_damage="mark")
        pd.testing.assert_series_equal(frame.dtypes, frame.compute().dtypes)

    def test_divisions_are_known_and_select_partitions(self):
        frame = qtrace.dask.frame(self.base, rows=8000, columns=COLUMNS)
        self.assertTrue(frame.known_divisions)
        start, stop = qtrace.dask.key(1, 100), qtrace.dask.key(1, 199)
        part = frame.loc[start:stop]
        self.assertLess(part.npartitions, 3)
        found = part.compute()
        self.assertEqual(len(found), 100)
        pd.testing.assert_frame_equal(found, self.expected(self.base).loc[start:stop])
        for number in range(frame.npartitions):
            index = frame.get_partition(number).compute().index
            self.assertGreaterEqual(index[0], frame.divisions[number])
            self.assertLessEqual(index[-1], frame.divisions[number + 1])

    def test_keys_of_one_thread_are_record_numbers(self):
        frame = qtrace.dask.frame(f"{self.guest}0", rows=30000, columns=["address"])
        self.assertEqual(frame.index.compute().tolist(), list(range(100000)))

    def test_sums_over_the_cluster(self):
        frame = qtrace.dask.frame(self.base, rows=8000, columns=["load", "thread"])
        self.assertEqual(int(frame["load"].sum().compute()), int(tool_stats(self.base)[0][-1]["loads"]))
        self.assertEqual(frame.groupby("thread").size().compute().to_dict(), {0: 29774, 1: 30226})

    def test_damage_raises_or_is_skipped_or_marked(self):
        base = self.damaged_session(0)
        with self.assertRaises(qtrace.DamageError):
            qtrace.dask.frame(base, rows=8000).compute()
        kept = qtrace.dask.frame(base, rows=8000, columns=COLUMNS, on_damage="skip").compute()
        pd.testing.assert_frame_equal(kept, self.expected(base, on_damage="skip"))
        marked = qtrace.dask.frame(base, rows=8000, columns=COLUMNS, on_damage="mark").compute()
        follows = int(qtrace.open(f"{self.base}0").blocks["first_record"][2])
        self.assertEqual(marked.index[marked["discontinuity"]].tolist(), [follows])

    def test_losses_name_file_and_place(self):
        base = self.damaged_session(1)
        blocks = qtrace.open(f"{self.base}1").blocks
        [loss] = qtrace.dask.losses(base).to_dict("records")
        self.assertEqual((loss["file"], loss["cause"], loss["record"], loss["records"]),
                         (f"{base}1", "damage", blocks["first_record"][1], blocks["records"][1]))  # fmt: skip
        self.assertEqual(len(qtrace.dask.losses(self.base)), 0)

    def test_totals_of_estimated_pages_are_sums_that_say_so(self):
        page = {"address": "0x1000", "size": "4K", "times": 5}
        figures = {"file": "a", "instructions": 10, "fetch_pages_4K": 1, "data_pages_4K": 1, "hot_fetch_pages": [page],
                   "hot_data_pages": [page], "hot_targets": [], "target_shortfall": 0, "partitions": [],
                   "total_bytes": {"in_file": 1}}  # fmt: skip
        estimated = figures | {"data_pages_4K": 2_000_000, "pages_estimated": True, "page_shortfall": 3}
        exact = qtrace.dask._total([figures, figures])  # pylint: disable=protected-access
        self.assertEqual((exact["fetch_pages_4K"], exact["data_pages_4K"]), (1, 1))
        self.assertNotIn("pages_estimated", exact)
        for both in ([figures, estimated], [estimated, figures]):
            total = qtrace.dask._total(both)  # pylint: disable=protected-access
            self.assertEqual((total["fetch_pages_4K"], total["data_pages_4K"]), (2, 2_000_001))
            self.assertIs(total["pages_estimated"], True)
            self.assertEqual(total["page_shortfall"], 3)
            self.assertEqual(total["hot_data_pages"], [page | {"times": 10}])

    def test_statistics_are_those_of_the_command(self):
        for name, top in ((self.base, 10), (f"{self.guest}0", 3), (self.guest, 100000)):
            expected, status = tool_stats(name, top)
            self.assertEqual(status, 0)
            self.assertEqual(qtrace.dask.stats(name, top=top), expected)
        both = [f"{self.base}0", f"{self.guest}0"]
        done = subprocess.run([PROGRAMS / "qtrace", "stats", "--json", *both], capture_output=True, check=True)
        self.assertEqual(qtrace.dask.stats(both), [json.loads(line) for line in done.stdout.splitlines()])

    def test_statistics_of_a_damaged_file_are_those_of_the_command(self):
        base = self.damaged_session(1)
        expected, status = tool_stats(base)
        self.assertEqual(status, 3)
        with self.assertRaises(qtrace.DamageError):
            qtrace.dask.stats(base)
        self.assertEqual(qtrace.dask.stats(base, on_damage="skip"), expected)

    def test_a_missing_file_in_the_row_is_named(self):
        folder = self.folder / "missing"
        folder.mkdir()
        for number in (0, 2, 5):
            shutil.copy(f"{self.base}0", folder / f"trace{number}")
        with self.assertRaisesRegex(FileNotFoundError, "trace1, .*trace3, .*trace4"):
            qtrace.dask.frame(folder / "trace")
        with self.assertRaises(FileNotFoundError):
            qtrace.dask.frame(self.folder / "nothing")

    def test_what_cannot_be_is_refused(self):
        with self.assertRaisesRegex(ValueError, "data_page"):
            qtrace.dask.frame(self.base, columns=["data_translation"])
        with self.assertRaises(ValueError):
            qtrace.dask.frame(self.base, rows=0)
        with self.assertRaises(ValueError):
            qtrace.dask.stats(self.base, on_damage="mark")

    def test_an_empty_trace_is_an_empty_frame(self):
        [block] = [b for b in qtrace.open(f"{self.base}0").blocks.itertuples() if b.first_record == 0][:1]
        empty = pathlib.Path(self.folder / "empty0")
        empty.write_bytes(pathlib.Path(f"{self.base}0").read_bytes()[: block.offset])
        frame = qtrace.dask.frame(empty, on_damage="skip")
        self.assertEqual((len(frame), frame["address"].dtype), (0, np.uint64))


if __name__ == "__main__":
    traced_streams.main()
