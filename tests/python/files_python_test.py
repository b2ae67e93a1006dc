"""The text trace and the page-table-entry trace as frames."""
import pathlib
import struct

import traced_streams
from traced_streams import InFolder

import numpy as np
import qtrace

LINE = (
    "(seq:7,tid:2) (xlatetype_I:Z7_HostRadixProcessScoped) (xlatetype_D:Z7_HostRadixProcessScoped) "
    "(pid:3,lpid:1,ptcr:0x000000003DFC0004) (KERN,CYCLE) (commit:0)(instbody:0x7d4838ae) {name:lbzx r10,(r8) {x}} "
    "(I:0) (N:1) (T:0) (PC:0xC000000000000000) (nextPC:0xC000000000000004) (nn:0) (done) (branch untaken) "
    "(DEA:0xFFFFFFFFFFFFFFF8(HostPageSize:1)) (len:40) (Input Reg 0(r8):0x1) (left:8) \n"
)


class Files(InFolder):
    def write(self, data):
        path = self.folder / "file"
        path.write_bytes(data if isinstance(data, bytes) else data.encode("latin-1"))
        return path

    def test_the_text_of_a_stream_agrees_with_its_records(self):
        for stream in ("sample", "guest"):
            base = traced_streams.replay(stream, self.folder)
            text = qtrace.read_text(f"{base}text0")
            frame = qtrace.frame(f"{base}0", ["address", "word", "has_next", "next", "has_data", "data", "thread"])
            for name in ("address", "word", "has_next"):
                self.assertEqual(text[name].tolist(), frame[name].tolist(), name)
            named = frame["has_next"].to_numpy()
            self.assertEqual(text["next"].to_numpy()[named].tolist(), frame["next"].to_numpy()[named].tolist())
            self.assertEqual(text["thread"].tolist(), frame["thread"].tolist())
            both = text["has_data"].to_numpy() & frame["has_data"].to_numpy()
            self.assertGreater(both.sum(), 100)
            self.assertEqual(text["data"].to_numpy()[both].tolist(), frame["data"].to_numpy()[both].tolist())

    def test_every_item_of_a_line(self):
        frame = qtrace.read_text(self.write("*** FILE HEADER INSERTED *** \n" + LINE + "*** PAUSE\n"))
        [row] = frame.to_dict("records")
        self.assertEqual(
            row,
            {
                "seq": 7, "thread": 2, "address": 0xC000000000000000, "next": 0xC000000000000004, "has_next": False,
                "word": 0x7D4838AE, "name": "lbzx r10,(r8) {x}", "branch": "untaken", "data": 0xFFFFFFFFFFFFFFF8,
                "has_data": True, "length": 40, "process": 3, "partition": 1, "ptcr": 0x3DFC0004,
                "fetch_mode": "Z7_HostRadixProcessScoped", "data_mode": "Z7_HostRadixProcessScoped", "kernel": True,
                "cycle_mode": True, "committed": False, "has_node": True, "terminates": False,
            },  # fmt: skip
        )
        self.assertEqual(frame.attrs["events"], ((0, "*** FILE HEADER INSERTED *** "), (1, "*** PAUSE")))
        self.assertFalse(frame.attrs["cut"])

    def test_items_that_a_line_does_not_have_are_zero(self):
        bare = LINE[: LINE.index("(nn:0)")].replace("(KERN,CYCLE) (commit:0)", "(USER,SIMP) (commit:1)") + "(branch taken) \n"
        other = LINE.replace("(branch untaken)", "(branch unconditional)").replace("(len:40)", "(taken)").replace("DEA:0x", "DEA:0x0")
        frame = qtrace.read_text(self.write(bare + other + LINE))
        self.assertEqual(frame["branch"].tolist(), ["taken", "none", "untaken"])
        self.assertEqual(list(frame["branch"].cat.categories), ["none", "taken", "untaken"])
        self.assertEqual(frame["data"].tolist(), [0, 0xFFFFFFFFFFFFFFF8, 0xFFFFFFFFFFFFFFF8])
        self.assertEqual(frame["has_data"].tolist(), [False, True, True])
        self.assertEqual(frame["length"].tolist(), [0, 0, 40])
        self.assertEqual(frame["kernel"].tolist(), [False, True, True])
        self.assertEqual(frame["cycle_mode"].tolist(), [False, True, True])
        self.assertEqual(frame["committed"].tolist(), [True, False, False])

    def test_an_empty_file_is_not_cut(self):
        frame = qtrace.read_text(self.write(""))
        self.assertEqual((len(frame), frame.attrs["cut"], frame.attrs["events"]), (0, False, ()))

    def test_a_cut_last_line_is_left_out_and_told(self):
        frame = qtrace.read_text(self.write(LINE + LINE[:100]))
        self.assertEqual((len(frame), frame.attrs["cut"]), (1, True))

    def test_other_lines_are_refused_with_their_number(self):
        with self.assertRaisesRegex(ValueError, "line 2"):
            qtrace.read_text(self.write(LINE + LINE.replace("(commit:0)", "")))

    def test_accesses_of_each_kind(self):
        words = self.write(struct.pack(">15Q", *range(2**63, 2**63 + 15)))
        radix = qtrace.read_pte(words, kind="radix")
        self.assertEqual(list(radix), ["directory_1", "directory_2", "directory_3", "entry", "address"])
        self.assertEqual(radix.iloc[1].tolist(), list(range(2**63 + 5, 2**63 + 10)))
        hpt = qtrace.read_pte(words, kind="hpt")
        self.assertEqual((list(hpt), len(hpt)), (["address", "upper", "lower"], 5))
        self.assertEqual(qtrace.read_pte(words, kind="words")["word"].tolist(), list(range(2**63, 2**63 + 15)))
        self.assertEqual(set(hpt.dtypes), {np.dtype("u8")})

    def test_a_file_of_another_length_or_kind_is_refused(self):
        with self.assertRaisesRegex(ValueError, "whole number"):
            qtrace.read_pte(self.write(bytes(48)), kind="radix")
        with self.assertRaisesRegex(ValueError, '"radix", "hpt" or "words"'):
            qtrace.read_pte(self.write(bytes(40)), kind="tree")

    def test_accesses_of_a_stream_are_the_words_of_its_file(self):
        base = traced_streams.replay("boot-user", self.folder)
        frame = qtrace.read_pte(f"{base}pte0", kind="radix")
        data = pathlib.Path(f"{base}pte0").read_bytes()
        self.assertEqual(frame.to_numpy().ravel().tolist(), list(struct.unpack(f">{len(data) // 8}Q", data)))


if __name__ == "__main__":
    traced_streams.main()
