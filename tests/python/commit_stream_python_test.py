"""The limits of the Python stream writer, and the text that it writes."""
import contextlib
import io
import json
import os
import re
from unittest import mock

import traced_streams
from traced_streams import ROOT, InFolder

import zstandard
from qtrace import commit_stream

HEADER = (ROOT / "include/commit_stream_writer.h").read_text()
PLAIN = {"seq": 1, "pc": 2, "npc": 3, "op": 4}


def rows(name):
    """The arguments of each row of one of the C header's lists."""
    text = re.split(rf"#define {name}\(\w+\)", HEADER)[1].split("\n\n")[0].split("#define")[0]
    row = re.search(r"[A-Z]+(?=\()", text)[0]
    return [[part.strip() for part in arguments.split(",")] for arguments in re.findall(rf"\b{row}\(([^)]*)\)", text)]


def bits_of(name):
    """Keys and the bits of their values."""
    widths = {"uint8_t": 8, "uint32_t": 32, "uint64_t": 64}
    return {key: 1 if shape == "TRUTH" else widths[kind] for key, kind, shape in rows(name) if shape != "PAGES"}


class Commit_Stream(InFolder):
    def write(self, *calls, processors=1, threads=1, **machine):
        """The lines after the first one, as text."""
        path = self.folder / "stream.jsonl"
        with commit_stream.Writer(str(path), processors=processors, threads=threads, **machine) as out:
            for call in calls:
                call(out)
        return path.read_text(encoding="utf-8").splitlines()[1:]

    def assert_refused(self, reason, *calls, **machine):
        with self.assertRaisesRegex(ValueError, reason):
            self.write(*calls, **machine)

    def value(self, key, line):
        """What a line says of a key, at any depth."""
        return re.search(rf'"{key}":("[^"]*"|[^,}}]*)', line)[1]

    def assert_limits(self, key, bits, call):
        """The largest value is written, the next one and -1 are refused."""
        largest = {1: "true", 8: "255", 32: '"0xffffffff"', 64: '"0xffffffffffffffff"'}[bits]
        [line] = self.write(lambda out: call(out, {key: (1 << bits) - 1}))
        self.assertEqual(self.value(key, line), largest, key)
        for value in (1 << bits, -1):
            self.assert_refused(f"^{key}: {value} does not fit {bits} bits$", lambda out: call(out, {key: value}))

    # ---- Values ----

    def test_numbers_below_31_bits_are_decimal_and_others_hexadecimal(self):
        [line] = self.write(lambda out: out.commit(0, 5, 0, 0, (1 << 31) - 1))
        self.assertEqual(line, '{"t":"commit","tid":0,"seq":"0x5","pc":"0x0","npc":"0x0","op":2147483647}')
        [line] = self.write(lambda out: out.commit(0, 5, 0, 0, 1 << 31))
        self.assertEqual(line, '{"t":"commit","tid":0,"seq":"0x5","pc":"0x0","npc":"0x0","op":"0x80000000"}')

    def test_truth_values_are_true_and_false(self):
        [line] = self.write(lambda out: out.context(0, bit64=True, little_endian=1, kernel=False, cycle_mode=0))
        self.assertEqual(line, '{"t":"context","tid":0,"bit64":true,"little_endian":true,"kernel":false,"cycle_mode":false}')

    def test_texts_are_utf_8(self):
        [line] = self.write(lambda out: out.commit(0, **PLAIN, text='é "'))
        self.assertIn('"text":"é \\""', line)

    def test_every_value_of_a_state_fits_its_query(self):
        keys = bits_of("COMMIT_STREAM_CONTEXT_KEYS")
        self.assertEqual(len(keys), 8)
        for key, bits in keys.items():
            self.assert_limits(key, bits, lambda out, state: out.context(0, **state))

    def test_every_value_of_a_commit_fits_its_query(self):
        keys = bits_of("COMMIT_STREAM_COMMIT_KEYS") | {"time": 64}
        self.assertEqual(len(keys), 5)
        for key, bits in keys.items():
            self.assert_limits(key, bits, lambda out, given: out.commit(0, **PLAIN | given))

    def test_every_value_of_an_address_fits_its_query(self):
        keys = bits_of("COMMIT_STREAM_ADDRESS_KEYS")
        self.assertEqual(len(keys), 17)
        for key, bits in keys.items():
            self.assert_limits(key, bits, lambda out, given: out.commit(0, **PLAIN, fetch=given))
        self.assert_limits("ea", 64, lambda out, given: out.commit(0, **PLAIN, data=given))

    def test_every_value_of_an_access_to_a_table_fits_its_query(self):
        pte, rtpte = bits_of("COMMIT_STREAM_PTE_KEYS"), bits_of("COMMIT_STREAM_RTPTE_KEYS")
        self.assertEqual((len(pte), len(rtpte)), (3, 5))
        for key, bits in pte.items():
            self.assert_limits(key, bits, lambda out, given: out.pte(0, **dict.fromkeys(pte, 0) | given))
        for key, bits in rtpte.items():
            self.assert_limits(key, bits, lambda out, given: out.rtpte(0, **dict.fromkeys(rtpte, 0) | given))

    def test_a_moved_string_has_16_bits(self):
        [line] = self.write(lambda out: out.commit(0, **PLAIN, string_length=65535))
        self.assertEqual(self.value("string_length", line), "65535")
        self.assert_refused("string_length", lambda out: out.commit(0, **PLAIN, string_length=65536))

    # ---- The machine ----

    def first_line(self, **machine):
        self.write(**machine)
        return json.loads((self.folder / "stream.jsonl").read_text().splitlines()[0])

    def test_every_value_of_the_machine_fits_its_query(self):
        keys = bits_of("COMMIT_STREAM_MACHINE_KEYS")
        self.assertEqual(keys, {"processors": 32, "threads": 32, "version": 32, "memory": 64})
        self.assertEqual(commit_stream.MACHINE, keys)
        line = self.first_line(version=(1 << 32) - 1, memory=(1 << 64) - 1)
        self.assertEqual((line["version"], line["memory"]), ("0xffffffff", "0xffffffffffffffff"))
        for wrong in ({"version": 1 << 32}, {"memory": 1 << 64}, {"processors": 1 << 32}, {"threads": 1 << 32}):
            [key] = wrong
            self.assert_refused(f"^{key}: ", **wrong)

    def test_a_machine_has_at_most_65536_hardware_threads(self):
        line = self.first_line(processors=256, threads=256)
        self.assertEqual((line["processors"], line["threads"]), (256, 256))
        self.assert_refused("^more than 65536 hardware threads$", processors=65537)

    def test_threads_are_those_of_all_processors(self):
        lines = self.write(lambda out: out.pre(5), processors=2, threads=3)
        self.assertEqual(lines, ['{"t":"pre","tid":5}'])
        self.assert_refused("^no such hardware thread: 6$", lambda out: out.pre(6), processors=2, threads=3)

    # ---- Lists ----

    def test_walks_and_addresses_have_their_most_and_least(self):
        def commit(key, value):
            return lambda out: out.commit(0, **PLAIN, fetch={key: value})

        for key, fits, wrong in (
            ("host_walk", [[], [(1, 2, 3, 4)] * 5], [[(1, 2, 3, 4)] * 6, [(1, 2, 3)], [(1, 2, 3, 4, 5)]]),
            ("host_ra", [[], [1, 2, 3, 4]], [[1, 2, 3, 4, 5], [1 << 64]]),
            ("guest_walk", [[1, 2, 3, 4, (1 << 64) - 1]], [[1, 2, 3, 4], [1, 2, 3, 4, 5, 6]]),
        ):  # fmt: skip
            for value in fits:
                words = [[hex(word) for word in walk] if isinstance(walk, tuple) else hex(walk) for walk in value]
                [line] = self.write(commit(key, value))
                self.assertEqual(json.loads(line)["fetch"], {key: words})
            for value in wrong:
                self.assert_refused(key, commit(key, value))

    def test_words_are_written_as_they_are_and_unknown_ones_refused(self):
        [line] = self.write(lambda out: out.commit(0, **PLAIN, flags=["taken", "branch"]))
        self.assertEqual(json.loads(line)["is"], ["taken", "branch"])
        [line] = self.write(lambda out: out.context(0, pages=["16G", "4K"], guest_pages=["undefined"]))
        self.assertEqual((json.loads(line)["pages"], json.loads(line)["guest_pages"]), (["16G", "4K"], ["undefined"]))
        self.assert_refused("^flags: no such word: loads$", lambda out: out.commit(0, **PLAIN, flags=["load", "loads"]))
        self.assert_refused("^pages: no such word: 3K$", lambda out: out.context(0, pages=["3K", "4K"]))

    def test_registers_have_their_most_and_their_words(self):
        classes = {name: (int(most), int(words)) for name, _, most, words in rows("COMMIT_STREAM_REGISTER_CLASSES")}
        self.assertEqual(list(classes), ["gpr", "fpr", "spr", "vmx", "vsx"])
        for name, (most, words) in classes.items():
            register = (7, *[(1 << 64) - 1] * words)
            [line] = self.write(lambda out: out.commit(0, **PLAIN, outputs={name: [register] * most}))
            self.assertEqual(json.loads(line)["out"], {name: [[7, *["0xffffffffffffffff"] * words]] * most})
            for wrong in ([register] * (most + 1), [(7, *[1] * (words + 1))], [(7, *[1] * (words - 1))]):
                self.assert_refused(f"^{name}: ", lambda out: out.commit(0, **PLAIN, outputs={name: wrong}))

    # ---- Where it goes ----

    def test_compressed_streams_are_whole_or_an_error(self):
        path = self.folder / "stream.jsonl.zst"
        with commit_stream.Writer(str(path), processors=1, threads=1) as out:
            out.pre(0)
        with zstandard.ZstdDecompressor().stream_reader(path.read_bytes()) as lines:
            self.assertEqual(lines.read().splitlines()[1:], [b'{"t":"pre","tid":0}'])
        failing = self.folder / "programs/zstd"
        failing.parent.mkdir()
        failing.write_text("#!/bin/sh\ncat > /dev/null\nexit 1\n")
        failing.chmod(0o755)
        with mock.patch.dict(os.environ, PATH=f"{failing.parent}:{os.environ['PATH']}"):
            out = commit_stream.Writer(str(path), processors=1, threads=1)
        with self.assertRaisesRegex(OSError, "^zstd failed$"):
            out.close()

    def test_standard_output_stays_open(self):
        class Output:
            buffer = io.BytesIO()

        with contextlib.redirect_stdout(Output()):
            with commit_stream.Writer("-", processors=1, threads=1) as out:
                out.pre(0)
        self.assertEqual(Output.buffer.getvalue().splitlines()[1], b'{"t":"pre","tid":0}')


if __name__ == "__main__":
    traced_streams.main()
