"""The pieces of `qtrace.dask`, without a cluster: partitions of small traces, and sums of figures that are written here."""
import itertools
import os
import pathlib
import re
import sys
from unittest import mock

import traced_streams
from traced_streams import ROOT, InFolder

import dask
import numpy as np
import qtrace
import qtrace.dask

sys.path.insert(0, str(ROOT / "tests/golden/format"))
from make_corpus import FILE_START, GAP, LAST, Trace_Maker  # noqa: E402

NUMBERS = itertools.count()


def blocks_of(size, count, first=0):
    """Blocks of so many records, whose instruction words are their numbers."""
    maker = Trace_Maker()
    for block in range(count):
        for number in range(block * size, block * size + size):
            maker.record(instruction=first + number)
        maker.end(LAST if block == count - 1 else 0)
    return maker.blocks


class Parts(InFolder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.enterClassContext(dask.config.set(scheduler="synchronous"))

    def session(self, *files, names=None):
        """The base name of a session of these files, lists of blocks."""
        folder = self.folder / f"session-{next(NUMBERS)}"
        folder.mkdir()
        for name, blocks in zip(names or range(len(files)), files):
            (folder / f"trace{name}").write_bytes(FILE_START + b"".join(blocks))
        return str(folder / "trace")

    # ---- Files and partitions ----

    def test_keys_have_the_thread_from_bit_40_on(self):
        self.assertEqual(qtrace.dask.key(0, 7), 7)
        self.assertEqual(qtrace.dask.key(3, 7), 3 * 1099511627776 + 7)

    def test_default_columns(self):
        self.assertEqual(qtrace.dask.DEFAULT, (
            "address", "next", "data", "has_next", "has_data", "word", "flags", "context", "node", "termination", "error",
            "length", "thread"))  # fmt: skip

    def test_files_of_a_session_are_in_the_order_of_their_threads(self):
        base = self.session(*[[]] * 14, names=[*range(11), "x", "01", "-1"])
        self.assertEqual(qtrace.dask.files_of(base), [f"{base}{n}" for n in range(11)])
        self.assertEqual(qtrace.dask.files_of(f"{base}01"), [f"{base}01"])
        self.assertEqual(qtrace.dask.files_of(pathlib.Path(f"{base}3")), [f"{base}3"])
        base = self.session([], [], names=[1, 4])
        with self.assertRaisesRegex(FileNotFoundError, f"^files are missing: {base}0, {base}2, {base}3$"):
            qtrace.dask.files_of(base)
        with self.assertRaisesRegex(FileNotFoundError, "no such file, and no .*none0$"):
            qtrace.dask.files_of(self.folder / "none")

    def parts(self, blocks, rows, name="trace5"):
        path = self.folder / name
        path.write_bytes(FILE_START + b"".join(blocks))
        return [(part.thread, part.start, part.count) for part in qtrace.dask._partitions(str(path), rows)]

    def test_partitions_begin_with_blocks_and_have_about_so_many_rows(self):
        blocks = blocks_of(2, 6)
        for rows, starts in ((1, [0, 2, 4, 6, 8, 10]), (2, [0, 2, 4, 6, 8, 10]), (3, [0, 4, 8]), (4, [0, 4, 8]), (5, [0, 6]),
                             (10, [0, 10]), (11, [0]), (99, [0])):  # fmt: skip
            ends = [*starts[1:], 12]
            expected = [(5, start, end - start) for start, end in zip(starts, ends)]
            self.assertEqual(self.parts(blocks, rows), expected, rows)
        self.assertEqual(self.parts(blocks, 99, "unnumbered"), [(0, 0, 12)])
        self.assertEqual(self.parts(blocks, 99, "trace12."), [(0, 0, 12)])

    def test_partitions_are_of_records_alone(self):
        maker = Trace_Maker().record().end().header(control=0x20, pid=1).end().record().end(LAST)
        self.assertEqual(self.parts(maker.blocks, 1), [(5, 0, 1), (5, 1, 1)])
        maker = Trace_Maker().record().end().header(control=0x20, pid=1).end(LAST)
        self.assertEqual(self.parts(maker.blocks, 1), [(5, 0, 1)])
        first, _, last = blocks_of(2, 3)
        self.assertEqual(self.parts([first, last], 2), [(5, 0, 4), (5, 4, 2)])
        self.assertEqual(self.parts([], 2), [])
        first, second, last = blocks_of(2, 3)
        with self.assertRaisesRegex(ValueError, "not in order"):
            self.parts([second, first, last], 2)

    def test_a_frame_has_all_threads_one_after_the_other(self):
        base = self.session(blocks_of(2, 3), blocks_of(1, 2, 100))
        frame = qtrace.dask.frame(base, rows=3, columns=["word", "thread"])
        self.assertEqual(frame.divisions, (0, 4, 1 << 40, (1 << 40) + 1))
        found = frame.compute()
        self.assertEqual(found["word"].tolist(), [0, 1, 2, 3, 4, 5, 100, 101])
        self.assertEqual(found["thread"].tolist(), [0] * 6 + [1] * 2)
        self.assertEqual(found.index.tolist(), [0, 1, 2, 3, 4, 5, 1 << 40, (1 << 40) + 1])
        self.assertEqual((found.index.name, list(found)), ("key", ["word", "thread"]))
        chosen = qtrace.dask.frame(base, rows=1, columns=["thread", "word"], word=[1, 3, 4, 101], on_damage="mark").compute()
        self.assertEqual(chosen["word"].tolist(), [1, 3, 4, 101])
        self.assertEqual(list(chosen), ["thread", "word", "discontinuity"])
        frame = qtrace.dask.frame(self.session(blocks_of(1, 3)), rows=1, columns=["word"])
        self.assertEqual((frame.divisions, list(frame.compute())), ((0, 1, 2, 2), ["word"]))

    def test_an_empty_session_is_an_empty_frame(self):
        frame = qtrace.dask.frame(self.session([]), columns=["word", "thread"], on_damage="mark")
        self.assertEqual((frame.npartitions, len(frame)), (1, 0))
        self.assertEqual([str(kind) for kind in frame.dtypes], ["uint32", "uint16", "bool"])
        meta = qtrace.dask._empty_frame(["word", "taken"], "skip")
        self.assertEqual((len(meta), list(meta), meta.index.dtype, meta.index.name), (0, ["word", "taken"], np.int64, "key"))

    def test_what_cannot_be_is_refused(self):
        base = self.session(blocks_of(1, 1))
        self.assertEqual(len(qtrace.dask.frame(base, rows=1)), 1)
        for options, reason in (({"rows": 0}, "at least one row"), ({"on_damage": "ignore"}, '"raise", "skip" or "mark"'),
                                ({"columns": ["next_translation"]}, "numbers translations"), ({"kind": "lode"}, "no kind")):
            with self.assertRaisesRegex(ValueError, reason):
                qtrace.dask.frame(base, **options)

    def test_losses_are_in_the_order_of_files_and_places(self):
        first, second, third, last = blocks_of(2, 4)
        maker = Trace_Maker().header(file_control=0x2000).record().header(file_control=0x2000).record()
        base = self.session([first, third], [first, second, third, last], maker.end(GAP).blocks)
        losses = qtrace.dask.losses(base)
        self.assertEqual(losses[["file", "cause", "offset", "record", "records"]].values.tolist(), [
            [f"{base}0", "damage", 16 + len(first), 2, 2], [f"{base}0", "cut end", 16 + len(first + third), 6, 0],
            [f"{base}2", "refused", 16, 0, 0], [f"{base}2", "pause", 16, 1, 0],
            [f"{base}2", "cut end", 16 + len(maker.blocks[0]), 2, 0],
        ])  # fmt: skip
        self.assertEqual(losses.index.tolist(), [0, 1, 2, 3, 4])
        self.assertEqual(list(losses), ["file", "cause", "record", "records", "records_known", "headers", "offset", "bytes", "reason"])

    # ---- The command ----

    def program(self, *names, text="exit 0", mode=0o755):
        path = self.folder.resolve().joinpath(*names)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(mode)
        return str(path)

    def tool(self, library, **environment):
        with mock.patch.object(qtrace.dask._library.LIBRARY, "_name", str(library)), mock.patch.dict(os.environ, environment):
            return os.path.realpath(qtrace.dask._tool())

    def test_the_command_is_found_beside_the_library_or_in_the_installed_tree(self):
        os.environ.pop("QTRACE_TOOL", None)
        path = self.program("path", "qtrace")
        lib, deep = self.folder / "tree/lib/libqtrace.so", self.folder / "tree/lib/machine/libqtrace.so"
        deep.parent.mkdir(parents=True)
        self.assertEqual(self.tool(deep, PATH=str(self.folder / "path")), path)
        tree = self.program("tree", "bin", "qtrace")
        self.assertEqual(self.tool(lib, PATH=""), tree)
        self.assertEqual(self.tool(deep, PATH=""), tree)
        (self.folder / "tree/lib/machine/qtrace").mkdir()  # no program
        self.assertEqual(self.tool(deep, PATH=""), tree)
        beside = self.program("tree", "lib", "qtrace", mode=0o644)
        self.assertEqual(self.tool(lib, PATH=""), tree)
        os.chmod(beside, 0o755)
        self.assertEqual(self.tool(lib, PATH=""), beside)
        self.assertEqual(self.tool(lib, QTRACE_TOOL=path), path)
        with self.assertRaisesRegex(FileNotFoundError, "QTRACE_TOOL may name it"):
            self.tool(self.folder / "elsewhere/lib/libqtrace.so", PATH=str(self.folder))

    def stats_by(self, text):
        with mock.patch.dict(os.environ, QTRACE_TOOL=self.program("fake", text=text)):
            return qtrace.dask._stats_of("trace0")

    def test_the_status_of_the_command_tells_of_losses(self):
        self.assertEqual(self.stats_by('echo "{\\"file\\": \\"$*\\"}"'), ({"file": "stats --json --top 1000000000 trace0"}, False))
        self.assertEqual(self.stats_by("echo '{}'; echo lost >&2; exit 3"), ({}, True))
        for status in (1, 2, 4):
            with self.assertRaisesRegex(OSError, "^why$"):
                self.stats_by(f"echo '{{}}'; echo why >&2; exit {status}")
        with self.assertRaisesRegex(OSError, "^trace0: qtrace stats failed$"):
            self.stats_by("exit 1")

    # ---- Sums ----

    def test_targets_are_counted_in_bounded_memory(self):
        capacity = re.search(r"CAPACITY = (\d+);", (ROOT / "tools/analysis/trace_counts.h").read_text())[1]
        self.assertEqual(qtrace.dask._TARGETS, int(capacity))
        with mock.patch.object(qtrace.dask, "_TARGETS", 2):
            targets = qtrace.dask._Targets()
            for address, times in (("a", 5), ("b", 3), ("a", 1), ("b", 0)):
                targets.add(address, times)
            self.assertEqual((targets.counts, targets.shortfall), ({"a": 6, "b": 3}, 0))
            targets.add("c", 2)  # three of each are forgotten
            self.assertEqual((targets.counts, targets.shortfall), ({"a": 3, "c": 2}, 3))
            targets.add("a", 4)
            targets.add("d", 9)
            self.assertEqual((targets.counts, targets.shortfall), ({"a": 5, "d": 9}, 5))

    FIRST = {
        "file": "t0", "instructions": 10, "loads": 3, "bytes_flags": 1.5, "only_here": 4,
        "partitions": [{"lpid": "0x10", "pid": 2, "instructions": 6}, {"lpid": "0x9", "pid": 1, "instructions": 4}],
        "hot_fetch_pages": [{"address": "0x9000", "size": "4K", "times": 3}, {"address": "0x10000", "size": "64K", "times": 9}],
        "hot_data_pages": [{"address": "0x1000", "size": "4K", "lpid": "0x1", "times": 2}],
        "hot_targets": [{"address": "0x20", "times": 2}, {"address": "0x10", "times": 7}], "target_shortfall": 1,
        "total_bytes": {"flags": 15, "in_file": 100}, "fetch_pages_4K": 7,
    }  # fmt: skip
    SECOND = {
        "file": "t1", "instructions": 20, "loads": 4, "bytes_flags": 2.5, "only_there": 5,
        "partitions": [{"lpid": "0x10", "pid": 2, "instructions": 1}, {"lpid": "0x10", "pid": 1, "instructions": 19}],
        "hot_fetch_pages": [{"address": "0x9000", "size": "4K", "times": 6}, {"address": "0x8000", "size": "4K", "times": 9}],
        "hot_data_pages": [{"address": "0x1000", "size": "4K", "lpid": "0x2", "times": 2},
                           {"address": "0x1000", "size": "64K", "lpid": "0x1", "times": 1}],
        "hot_targets": [{"address": "0x9", "times": 7}, {"address": "0x20", "times": 1}], "target_shortfall": 2,
        "total_bytes": {"flags": 50, "new": 1}, "fetch_pages_4K": 8,
    }  # fmt: skip

    def stats(self, *figures, lost=(), **options):
        """The figures of a session whose files have these."""
        base = self.session(*[blocks_of(1, 1)] * len(figures))
        found = {f"{base}{i}": ({**figure}, i in lost) for i, figure in enumerate(figures)}
        with mock.patch.object(qtrace.dask, "_stats_of", found.__getitem__):
            return qtrace.dask.stats(base, **options)

    def test_figures_of_several_files_are_added(self):
        first, second, total = self.stats(self.FIRST, self.SECOND)
        self.assertEqual(total, {
            "file": "total", "instructions": 30, "loads": 7, "bytes_flags": 2.1667, "bytes_in_file": 3.3333, "bytes_new": 0.0333,
            "only_here": 4, "only_there": 5,
            "partitions": [{"lpid": "0x9", "pid": 1, "instructions": 4}, {"lpid": "0x10", "pid": 1, "instructions": 19},
                           {"lpid": "0x10", "pid": 2, "instructions": 7}],
            "hot_fetch_pages": [{"address": "0x8000", "size": "4K", "times": 9}, {"address": "0x9000", "size": "4K", "times": 9},
                                {"address": "0x10000", "size": "64K", "times": 9}],
            "hot_data_pages": [{"address": "0x1000", "size": "4K", "lpid": "0x1", "times": 2},
                               {"address": "0x1000", "size": "4K", "lpid": "0x2", "times": 2},
                               {"address": "0x1000", "size": "64K", "lpid": "0x1", "times": 1}],
            "hot_targets": [{"address": "0x9", "times": 7}, {"address": "0x10", "times": 7}, {"address": "0x20", "times": 3}],
            "target_shortfall": 3, "total_bytes": {"flags": 65, "in_file": 100, "new": 1},
            "fetch_pages_4K": 2, "fetch_pages_64K": 1, "data_pages_4K": 2, "data_pages_64K": 1,
        })  # fmt: skip
        self.assertEqual((first["only_there"], first["only_here"], first["bytes_in_file"]), (0, 4, 0))
        self.assertEqual((second["only_there"], second["only_here"], second["data_pages_64K"]), (5, 0, 0))
        self.assertEqual((first["file"], first["loads"], second["loads"]), ("t0", 3, 4))

    def test_figures_of_one_file_are_left_alone(self):
        self.assertEqual(self.stats(self.FIRST), [self.FIRST])

    def test_lists_are_as_long_as_is_asked_for(self):
        for top in (0, 1, 2, 10):
            for figures in self.stats(self.FIRST, self.SECOND, top=top):
                for name in ("hot_fetch_pages", "hot_data_pages", "hot_targets"):
                    self.assertLessEqual(len(figures[name]), top)
        self.assertEqual(len(self.stats(self.FIRST, self.SECOND, top=2)[2]["hot_targets"]), 2)

    def test_losses_raise_or_are_skipped(self):
        with self.assertRaises(qtrace.DamageError) as raised:
            first, _, last = blocks_of(1, 3)
            base = self.session([first, last])
            with mock.patch.object(qtrace.dask, "_stats_of", lambda name: (self.FIRST, True)):
                qtrace.dask.stats(base)
        self.assertEqual([(damage.record, damage.records) for damage in raised.exception.damage], [(1, 1)])
        self.assertEqual(self.stats(self.FIRST, lost=(0,), on_damage="skip"), [self.FIRST])
        self.assertEqual(len(self.stats(self.FIRST, self.SECOND)), 3)
        with self.assertRaisesRegex(ValueError, '"raise" or "skip"'):
            self.stats(self.FIRST, on_damage="mark")

    def test_a_total_of_nothing_has_no_averages(self):
        total = {"instructions": 0}
        qtrace.dask._average(total, [{"flags": 0}, {"flags": 0}])
        self.assertEqual(total, {"instructions": 0, "total_bytes": {"flags": 0}, "bytes_flags": 0.0})

    def test_names_of_several_sessions_are_taken(self):
        one, two = self.session(blocks_of(1, 1)), self.session(blocks_of(1, 1), blocks_of(1, 1))
        asked = []

        def figures(name):
            asked.append(name)
            return {**self.FIRST, "file": name}, False

        with mock.patch.object(qtrace.dask, "_stats_of", figures):
            found = qtrace.dask.stats([one, pathlib.Path(two)])
        self.assertEqual([figure["file"] for figure in found], [f"{one}0", f"{two}0", f"{two}1", "total"])
        self.assertEqual(sorted(asked), [f"{one}0", f"{two}0", f"{two}1"])


if __name__ == "__main__":
    traced_streams.main()
