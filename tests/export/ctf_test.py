#!/usr/bin/python3
"""`qtrace export --format ctf` as babeltrace2 and its Python bindings read it: python3 ctf_test.py BIN STREAM. Expectations come
from the plain Python reader of traces."""
import os
import re
import signal
import subprocess
import sys
import time
import unittest

import bt2

from export_test import FAILED, PAGE, PROGRAMS, STREAM, Export, is_set, plain

STREAMS = STREAM.parent
FLAG_LETTERS = {"gpr": "r", "fpr": "f", "spr": "s", "vmx": "v", "vsx": "x"}


class Ctf(Export):
    def messages(self, folder):
        return list(bt2.TraceCollectionMessageIterator(str(folder)))

    def babeltrace(self, *arguments):
        done = subprocess.run(["babeltrace2", *arguments], capture_output=True, text=True,
                              env={**os.environ, "TZ": "UTC"})  # fmt: skip
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout, done.stderr

    def counted(self, folder):
        """Numbers of messages by kind, as babeltrace2 itself counts them."""
        out, _ = self.babeltrace(folder, "--component=sink.utils.counter", "--params=step=+0")
        return {kind: int(count.replace(",", "")) for count, kind in re.findall(r"^ *([\d,]+) ([A-Z][a-z ]+?) messages?", out, re.M)}

    def numbers(self, file):
        """Of the records that can be read."""
        out = subprocess.run([PROGRAMS / "qtrace", "dump", file], capture_output=True, text=True).stdout
        return [int(line.split()[0]) for line in out.splitlines() if line.split()[0].isdigit()]


class Fields(Ctf):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.map = cls.home / "map"
        cls.map.write_text("10001000 1000 T user\nc000000000002000 T kernel\n")
        out, _ = cls().export("ctf", "named.ctf", "--symbols", cls.map, cls.trace)
        cls.events = [m for m in bt2.TraceCollectionMessageIterator(str(out)) if type(m) is bt2._EventMessageConst]
        cls.items = list(plain.Trace(cls.trace))

    def test_has_an_event_for_each_header_and_record_at_its_number(self):
        self.assertEqual([(m.event.name, m.default_clock_snapshot.value) for m in self.events],
                         [("record" if isinstance(i, plain.Record) else "header",
                           i.number if isinstance(i, plain.Record) else 0) for i in self.items])

    def test_has_the_fields_of_each_record(self):
        above = 0
        for message, record in zip(self.events, self.items):
            if not isinstance(record, plain.Record):
                continue
            fields = message.event.payload_field
            self.assertEqual((int(fields["address"]), int(fields["address_known"])), (record.address, 1))
            self.assertEqual(int(fields["instruction"]), record.instruction)
            self.assertEqual([int(p["address"]) for p in fields["data"]],
                             [record.data_ea] if is_set(record, "data_address_present") else [])
            self.assertEqual([int(p["address"]) for p in fields["next"]],
                             [record.next_instruction_ea] if is_set(record, "next_instruction_EA_present") else [])
            real = [record.data_rpn << 12 | record.data_ea & 0xFFF] if is_set(record, "data_RPN_present") else []
            self.assertEqual([int(r) for p in fields["data"] for r in p["real"]], real)
            above += record.address >= 1 << 63
        self.assertGreater(above, 100)

    def test_has_the_registers_of_each_record(self):
        seen = 0
        for message, record in zip(self.events, self.items):
            if not isinstance(record, plain.Record):
                continue
            for side, suffix in (("inputs", "in"), ("outputs", "out")):
                found = [(str(r["name"]), int(r["value"][0])) for r in message.event.payload_field[side]]
                wanted = [(f"r{number}", value) for number, value in getattr(record, f"gpr_{suffix}")]
                self.assertEqual([r for r in found if r[0].startswith("r")], wanted)
                seen += len(wanted)
        self.assertGreater(seen, 1000)

    def test_has_partition_and_process_in_the_context(self):
        contexts = {(int(m.event.common_context_field["lpid"]), int(m.event.common_context_field["pid"]),
                     int(m.event.common_context_field["partition_known"])) for m in self.events}
        header = next(i for i in self.items if not isinstance(i, plain.Record))
        self.assertEqual(contexts, {(int.from_bytes(bytes(header.lpid), "little") if isinstance(header.lpid, (bytes, list))
                                     else header.lpid, header.pid, 1)})

    def test_has_the_names_of_addresses(self):
        names = set()
        for message, record in zip(self.events, self.items):
            if isinstance(record, plain.Record):
                a = record.address
                wanted = f"user+{a - 0x10001000:#x}" if 0x10001000 <= a < 0x10002000 else \
                    f"kernel+{a - 0xc000000000002000:#x}" if 0xc000000000002000 <= a < 0xc000000000003000 else ""
                self.assertEqual(str(message.event.payload_field["symbol"]), wanted)
                names.add(wanted.split("+")[0])
        self.assertEqual(names, {"user", "kernel", ""})

    def test_says_that_its_clock_is_the_record_number(self):
        trace = self.events[0].event.stream.trace
        self.assertIn("the number of the record", str(trace.environment["timestamp"]))
        self.assertEqual(str(trace.environment["stream0"]), str(self.trace))
        self.assertIn("number of the record", self.events[0].default_clock_snapshot.clock_class.description)
        self.assertTrue((self.home / "named.ctf/metadata").read_bytes().startswith(b"/* CTF 1.8 */"))


class Page(Ctf):
    def test_the_program_of_the_page_prints_every_record(self):
        out, _ = self.export("ctf", "trace.ctf", "--count", "50", self.trace)
        program = re.search(r"```python\n(.*?)```", PAGE.read_text(encoding="utf-8"), re.S)[1]
        self.assertIn("bt2", program)
        done = subprocess.run([sys.executable, "-c", program], cwd=out.parent, capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual([line.split()[:2] for line in done.stdout.splitlines()],
                         [[str(record.number), hex(record.address)] for record in self.records[:50]])


class Streams(Ctf):
    def test_every_recorded_stream_is_read_whole(self):
        streams = sorted(p for p in STREAMS.iterdir() if p.name.endswith((".jsonl", ".jsonl.zst")))
        self.assertGreaterEqual(len(streams), 7)
        for stream in streams:
            base = stream.name.split(".")[0]
            files = self.recorded(stream, base)
            out, _ = self.export("ctf", f"{base}.ctf", *files)
            info = [re.findall(r"^  (?:records|headers) +(\d+)", subprocess.run(
                [PROGRAMS / "qtrace", "info", file], capture_output=True, text=True).stdout, re.M) for file in files]
            counted = self.counted(out)
            self.assertEqual(counted["Event"], sum(int(n) for numbers in info for n in numbers), base)
            self.assertEqual(counted["Stream beginning"], len(files), base)
            self.assertEqual(counted.get("Discarded event", 0), 0, base)

    def test_lost_records_are_discarded_events(self):
        file = self.recorded(STREAMS / "boot-user.jsonl.zst", "broken")[0]
        content = bytearray(file.read_bytes())
        content[len(content) // 2] ^= 0x55
        file.write_bytes(content)
        out, errors = self.export("ctf", "broken.ctf", file, code=3)
        lost = int(re.search(r"\((\d+) records are lost\)", errors)[1])
        numbers = self.numbers(file)
        first = next(a for a, b in zip(numbers, numbers[1:]) if b != a + 1) + 1
        self.assertEqual(next(b for b in numbers if b > first) - first, lost)
        _, messages = self.babeltrace(out, "-o", "text", "-w", os.devnull)
        places = re.search(rf"discarded {lost} events between \[00:00:00\.(\d+)\] and \[00:00:00\.(\d+)\]", messages)
        self.assertEqual([int(place) for place in places.groups()], [first - 1, first + lost - 1])
        self.assertEqual(self.counted(out)["Event"], len(numbers) + 3)

    def test_a_loss_at_the_beginning_and_at_the_end_is_told(self):
        file = self.recorded(STREAMS / "boot-user.jsonl.zst", "ends")[0]
        content = bytearray(file.read_bytes())
        content[200] ^= 0x55
        file.write_bytes(content[:len(content) - len(content) // 4])
        out, _ = self.export("ctf", "ends.ctf", file, code=3)
        numbers = self.numbers(file)
        discarded = [m for m in self.messages_of_discards(out)]
        self.assertEqual(len(discarded), 2)
        self.assertEqual(discarded[0].count, numbers[0])
        self.assertEqual(discarded[1].beginning_default_clock_snapshot.value, numbers[-1])

    def messages_of_discards(self, folder):
        return (m for m in bt2.TraceCollectionMessageIterator(str(folder)) if type(m) is bt2._DiscardedEventsMessageConst)

    def test_an_empty_selection_is_an_empty_stream(self):
        out, _ = self.export("ctf", "none.ctf", "--pc", "1", self.trace)
        self.assertEqual(self.counted(out).get("Event", 0), 1)  # the header


class Folder(Ctf):
    def unfinished(self):
        return list(self.home.glob("*.unfinished-*"))

    def test_an_existing_one_is_replaced_only_on_request(self):
        out, _ = self.export("ctf", "twice.ctf", "--count", "10", self.trace)
        _, errors = self.export("ctf", "twice.ctf", self.trace, code=FAILED)
        self.assertIn("exists already; --force replaces it", errors)
        self.assertEqual(self.counted(out)["Event"], 11)
        self.export("ctf", "twice.ctf", "--force", self.trace)
        self.assertEqual(self.counted(out)["Event"], len(self.records) + 1)
        self.assertEqual(self.unfinished(), [])

    def test_a_folder_with_other_files_is_never_replaced(self):
        mine = self.home / "mine.ctf"
        mine.mkdir()
        (mine / "letter").write_text("precious")
        _, errors = self.export("ctf", "mine.ctf", "--force", self.trace, code=FAILED)
        self.assertIn("has other files", errors)
        self.assertEqual((mine / "letter").read_text(), "precious")

    def test_a_file_is_replaced_on_request(self):
        (self.home / "file.ctf").write_text("old")
        out, _ = self.export("ctf", "file.ctf", "--force", "--count", "3", self.trace)
        self.assertEqual(sorted(p.name for p in out.iterdir()), ["metadata", "stream0"])
        self.assertEqual(self.unfinished(), [])

    def test_nothing_is_left_when_the_disk_is_full(self):
        limited = f'ulimit -f 64; trap "" XFSZ; exec "{PROGRAMS}/qtrace" export --format ctf -o "{self.home}/full" "{self.trace}"'
        done = subprocess.run(["bash", "-c", limited], capture_output=True, text=True)
        self.assertEqual(done.returncode, FAILED, done.stderr)
        self.assertFalse((self.home / "full").exists())
        self.assertEqual(self.unfinished(), [])

    def test_nothing_is_left_after_an_interrupt(self):
        process = subprocess.Popen([PROGRAMS / "qtrace", "export", "--format", "ctf", "-o", self.home / "long.ctf",
                                    *[self.trace] * 400], stdout=subprocess.DEVNULL)
        while not any((folder / "stream11").exists() for folder in self.unfinished()) and process.poll() is None:
            time.sleep(0.001)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(), -signal.SIGINT)
        self.assertFalse((self.home / "long.ctf").exists())
        self.assertEqual(self.unfinished(), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
