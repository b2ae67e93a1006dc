"""What users of the package may rely on."""
import gc
import os
import pathlib
import subprocess
import sys
import threading
import tracemalloc

import traced_streams
from traced_streams import ROOT, InFolder

import numpy as np
import pandas as pd
import qtrace

PAUSED = ("run 500", "SIGNAL pause cpu 0", "run 200", "SIGNAL resume cpu 0", "run")


class Frames(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.sample = traced_streams.replay("sample", cls.folder) + "0"
        cls.guest = traced_streams.replay("guest", cls.folder) + "0"
        cls.blocks = qtrace.open(cls.guest).blocks

    def broken(self, *blocks):
        """The guest trace with these blocks damaged."""
        return traced_streams.damaged(self.guest, *(int(self.blocks["offset"][block]) + 500 for block in blocks))

    # ---- Frames ----

    def test_default_columns_take_55_bytes_a_row(self):
        frame = qtrace.frame(self.guest)
        expected = {
            "address": "uint64", "next": "uint64", "data": "uint64", "has_next": "bool", "has_data": "bool",
            "word": "uint32", "flags": "uint64", "data_translation": "uint32", "next_translation": "uint32",
            "context": "uint32", "node": "uint8", "termination": "uint8", "error": "uint8", "length": "uint16",
        }  # fmt: skip
        self.assertEqual({name: str(kind) for name, kind in frame.dtypes.items()}, expected)
        self.assertEqual(frame.memory_usage(index=False).sum(), 55 * len(frame))
        self.assertLess(frame.memory_usage(index=True)["Index"], 500)
        self.assertEqual(frame.index.name, "record")

    def test_a_range_is_that_part_of_the_whole(self):
        whole = qtrace.frame(self.guest)
        for start, count in ((0, 1), (1, 999), (35215, 2), (50000, 40000), (99999, 5), (100000, 3), (0, None)):
            part = qtrace.frame(self.guest, start=start, count=count)
            stop = None if count is None else start + count
            pd.testing.assert_frame_equal(part, whole.iloc[start:stop], check_index_type=False)

    def test_threads_give_what_one_thread_gives(self):
        for columns in (None, ["address", "load", "data_page"]):
            one = qtrace.frame(self.guest, columns)
            for threads in (2, 3, 16):
                pd.testing.assert_frame_equal(qtrace.frame(self.guest, columns, threads=threads), one)
        pd.testing.assert_frame_equal(qtrace.registers(self.guest, threads=3), qtrace.registers(self.guest))

    def test_columns_come_in_the_order_asked_for_and_once(self):
        frame = qtrace.frame(self.sample, columns=["taken", "address", "taken"])
        self.assertEqual(list(frame.columns), ["taken", "address"])
        self.assertEqual(len(qtrace.frame(self.sample, columns=[])), 2000)

    def test_wrong_arguments_are_named(self):
        for arguments, error in (
            ({"columns": ["adress"]}, ValueError), ({"columns": "address"}, TypeError), ({"start": -1}, ValueError),
            ({"count": -1}, ValueError), ({"on_damage": "ignore"}, ValueError), ({"threads": 0}, ValueError),
        ):  # fmt: skip
            with self.subTest(arguments), self.assertRaises(error):
                qtrace.frame(self.sample, **arguments)
        with self.assertRaises(FileNotFoundError):
            qtrace.frame(self.folder / "nothing")
        with self.assertRaisesRegex(OSError, "not a trace"):
            qtrace.frame(__file__)
        with self.assertRaisesRegex(ValueError, "number of a thread"):
            os.link(self.sample, self.folder / "unnumbered")
            qtrace.frame(self.folder / "unnumbered", columns=["thread"])

    def test_page_columns_are_those_of_the_translations(self):
        frame = qtrace.frame(self.guest, ["data", "data_page", "data_page_size", "data_translation", "thread"])
        rows = qtrace.translations(self.guest)
        self.assertEqual(frame["data_page"].tolist(), rows["rpn"].to_numpy()[frame["data_translation"]].tolist())
        self.assertEqual(frame["data_page"].dtype, np.uint32)
        self.assertEqual(frame["data_page_size"].tolist(),
                         rows["page_size"].to_numpy()[frame["data_translation"]].tolist())  # fmt: skip
        self.assertEqual(set(frame["thread"]), {0})

    def test_numbers_of_translations_hold_for_all_frames_of_a_file(self):
        copy = self.folder / "translated0"
        copy.write_bytes(pathlib.Path(self.guest).read_bytes())
        late = qtrace.frame(copy, start=90000, count=100)  # numbers are given to these first
        whole = qtrace.frame(copy, threads=2)
        rows = qtrace.translations(copy)
        for name in ("data_translation", "next_translation"):
            self.assertEqual(whole[name].loc[90000:90099].tolist(), late[name].tolist())
            self.assertLess(whole[name].max(), len(rows))
        self.assertEqual(len(rows), len(rows.drop_duplicates()))
        self.assertEqual(tuple(rows.iloc[0][["guest_mode", "host_mode"]]), ("none", "none"))

    def test_a_frame_may_be_read_by_several_threads_at_a_time(self):
        expected = qtrace.frame(self.guest)
        found = []

        def read():
            found.append(qtrace.frame(self.guest))

        threads = [threading.Thread(target=read) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for frame in found:
            pd.testing.assert_frame_equal(frame, expected)

    # ---- Headers ----

    def test_context_leads_to_partition_and_process(self):
        frame = qtrace.frame(self.guest, ["context", "address"])
        headers = qtrace.open(self.guest).headers
        text = qtrace.read_text(self.guest.replace("guest.", "guest.text"))
        self.assertEqual(len(headers), 348)
        context = headers.loc[frame["context"]]
        self.assertEqual(context["partition"].tolist(), text["partition"].tolist())
        self.assertEqual(context["process"].tolist(), text["process"].tolist())
        self.assertEqual(headers["full"].sum(), 1)
        self.assertTrue(headers["comment"][0].startswith("KelvoVer:"))
        self.assertEqual(headers["address"].nunique(), 1)

    def test_a_lost_header_is_known_from_the_block_that_follows(self):
        broken = self.broken(2)
        headers, whole = qtrace.open(broken).headers, qtrace.open(self.guest).headers
        first, lost = int(self.blocks["first_header"][2]), int(self.blocks["headers"][2])
        self.assertEqual(headers[headers["lost"]].index.tolist(), [first + lost - 1])
        self.assertEqual(len(headers), len(whole) - lost + 1)
        same = ["partition", "process", "ptcr"]
        pd.testing.assert_frame_equal(headers[same], whole.loc[headers.index, same])
        contexts = qtrace.frame(broken, ["context"], on_damage="skip")["context"]
        self.assertTrue(contexts.isin(headers.index).all())

    # ---- Discontinuities ----

    def test_damage_raises_with_its_places(self):
        with self.assertRaises(qtrace.DamageError) as raised:
            qtrace.frame(self.broken(2, 5))
        damage = raised.exception.damage
        self.assertEqual([what.record for what in damage], self.blocks["first_record"][[2, 5]].tolist())
        self.assertEqual([what.records for what in damage], self.blocks["records"][[2, 5]].tolist())
        self.assertIn('"skip" or "mark"', str(raised.exception))
        for read in (qtrace.registers, lambda name: list(qtrace.batches(name, rows=20000))):
            with self.assertRaises(qtrace.DamageError):
                read(self.broken(2, 5))

    def test_damage_elsewhere_does_not_matter(self):
        broken, start = self.broken(2), int(self.blocks["first_record"][4])
        columns = ["address", "next", "data", "context", "taken", "data_page"]
        pd.testing.assert_frame_equal(qtrace.frame(broken, columns, start), qtrace.frame(self.guest, columns, start),
                                      check_index_type=False)  # fmt: skip

    def test_skipping_leaves_what_is_there(self):
        broken, whole = self.broken(2), qtrace.frame(self.guest, ["address", "word", "context"])
        first, lost = int(self.blocks["first_record"][2]), int(self.blocks["records"][2])
        kept = whole.drop(range(first, first + lost))
        for threads in (1, 2, 9):
            frame = qtrace.frame(broken, list(whole), on_damage="skip", threads=threads)
            pd.testing.assert_frame_equal(frame, kept, check_index_type=False)
            [damage] = frame.attrs["damage"]
            self.assertEqual((damage.cause, damage.record, damage.records), ("damage", first, lost))
        registers = qtrace.registers(self.guest)
        kept = registers[~registers["record"].isin(range(first, first + lost))].reset_index(drop=True)
        for threads in (1, 3):
            found = qtrace.registers(broken, on_damage="skip", threads=threads)
            pd.testing.assert_frame_equal(found, kept)

    def test_marks_stand_where_the_trace_goes_on(self):
        for threads in (1, 4):
            frame = qtrace.frame(self.broken(2, 5), on_damage="mark", threads=threads)
            marked = frame.index[frame["discontinuity"]].tolist()
            self.assertEqual(marked, self.blocks["first_record"][[3, 6]].tolist())

    def test_a_lost_first_and_last_block_are_reported(self):
        last = len(self.blocks) - 1
        frame = qtrace.frame(self.broken(0, last), on_damage="skip")
        self.assertEqual(len(frame.attrs["damage"]), 2)
        self.assertEqual(frame.index[0], self.blocks["first_record"][1])
        self.assertEqual(frame.index[-1] + 1, self.blocks["first_record"][last])

    def test_pauses_are_gaps_and_no_damage(self):
        folder = self.folder / "paused"
        folder.mkdir()
        name = traced_streams.replay("sample", folder, PAUSED) + "0"
        trace = qtrace.open(name)
        [pause] = trace.gaps
        self.assertEqual((pause.cause, pause.records, trace.damage), ("pause", 0, ()))
        frame = trace.frame(on_damage="mark")
        self.assertEqual(frame.attrs["gaps"], (pause,))
        self.assertEqual(frame.index[frame["discontinuity"]].tolist(), [pause.record])
        self.assertEqual(frame.index.tolist(), list(range(1800)))

    def test_an_empty_range_of_a_damaged_file_is_no_error(self):
        self.assertEqual(len(qtrace.frame(self.broken(2), start=10**9)), 0)

    # ---- Batches ----

    def test_batches_are_the_frame_in_pieces(self):
        whole = qtrace.frame(self.guest)
        copies = [batch.copy() for batch in qtrace.batches(self.guest, rows=30000)]
        self.assertEqual([len(batch) for batch in copies], [30000, 30000, 30000, 10000])
        pd.testing.assert_frame_equal(pd.concat(copies), whole, check_index_type=False)
        part = [batch.index[0] for batch in qtrace.batches(self.guest, rows=100, start=50, count=250)]
        self.assertEqual(part, [50, 150, 250])

    def test_a_batch_is_emptied_by_the_next_and_what_was_taken_from_it_stays(self):
        batches = list(qtrace.batches(self.guest, rows=30000))
        self.assertEqual([len(batch) for batch in batches], [0, 0, 0, 0])
        series = [batch["address"] for batch in qtrace.batches(self.guest, rows=30000)]
        pd.testing.assert_series_equal(pd.concat(series), qtrace.frame(self.guest)["address"],
                                       check_index_type=False)  # fmt: skip

    def test_batches_hold_one_batch_at_a_time(self):
        for batch in qtrace.batches(self.guest, rows=20000):
            del batch  # what is loaded and remembered once does not count
        gc.collect()
        tracemalloc.start()
        for _ in qtrace.batches(self.guest, rows=20000):
            pass
        peak = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        self.assertLess(peak, 20000 * 55 + 500_000)

    # ---- Registers ----

    def test_registers_of_chosen_classes(self):
        everything = qtrace.registers(self.sample)
        outputs = qtrace.registers(self.sample, classes=["gpr_out", "spr_in"])
        chosen = everything[((everything["direction"] == "out") & (everything["class"] == "gpr"))
                            | ((everything["direction"] == "in") & (everything["class"] == "spr"))]  # fmt: skip
        pd.testing.assert_frame_equal(outputs, chosen.reset_index(drop=True))
        part = qtrace.registers(self.sample, start=100, count=50)
        chosen = everything[everything["record"].between(100, 149)]
        pd.testing.assert_frame_equal(part, chosen.reset_index(drop=True))
        for classes, error in ((["gpr"], ValueError), ("gpr_in", TypeError)):
            with self.assertRaises(error):
                qtrace.registers(self.sample, classes=classes)

    # ---- The package ----

    def python(self, program, *options):
        environment = os.environ | {"PYTHONPATH": str(ROOT / "python")}
        return subprocess.run([sys.executable, *options, "-c", program], capture_output=True, text=True,
                              env=environment, check=False)  # fmt: skip

    def test_the_plain_reader_works_without_numpy_and_library(self):
        program = (
            "import sys; sys.modules['numpy'] = None; import qtrace; from qtrace import plain;"
            f"print(sum(isinstance(item, plain.Record) for item in qtrace.plain.Trace({self.sample!r})))"
        )
        done = self.python(program)
        self.assertEqual(done.stdout, "2000\n", done.stderr)
        done = self.python("import sys; sys.modules['numpy'] = None; import qtrace; qtrace.frame('trace0')")
        self.assertIn("ModuleNotFoundError", done.stderr)

    def test_a_missing_library_is_named(self):
        program = "import os; os.environ['QTRACE_LIBRARY'] = '/nowhere/libqtrace.so'; import qtrace; qtrace.frame('a')"
        self.assertIn("QTRACE_LIBRARY may name it", self.python(program).stderr)

    def test_help_shows_every_function_with_its_columns(self):
        help_text = self.python("import qtrace; help(qtrace.frame); help(qtrace); help(qtrace.registers)").stdout
        for word in ("55 bytes a row", "uint64", "DamageError", "qtrace.batches", "second 64 bits"):
            self.assertIn(word, help_text)
        for name in qtrace.__all__:
            self.assertTrue(getattr(qtrace, name).__doc__ or name.isupper(), name)


if __name__ == "__main__":
    traced_streams.main()
