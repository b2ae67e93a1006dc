#!/usr/bin/python3
"""`qtrace export` as its consumers see it: python3 export_test.py BIN STREAM. Expectations come from the plain Python reader of
traces and from what is known of the other formats, not from the C++ reader."""
import collections
import csv
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python"))
from qtrace import plain  # noqa: E402

PROGRAMS, STREAM = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
FINE, FAILED, USAGE = 0, 1, 2

BRANCH_OPCODES = {16, 18, 19}


class Export(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="qt_export_")
        cls.addClassCleanup(cls.folder.cleanup)
        cls.home = pathlib.Path(cls.folder.name)
        script = cls.home / "console"
        script.write_text(
            f'plugin load "{PROGRAMS / "plugin_qtbin.so"}"\nplugin signal plugin_qtbin.so start trace\nrun\n'
            "plugin signal plugin_qtbin.so stop\n")
        subprocess.run([PROGRAMS / "replay", STREAM, script], cwd=cls.home, check=True, stdout=subprocess.DEVNULL)
        cls.trace = cls.home / "trace0"
        cls.records = [item for item in plain.Trace(cls.trace) if isinstance(item, plain.Record)]

    def export(self, form, name, *options, code=FINE):
        out = self.home / name
        done = subprocess.run([PROGRAMS / "qtrace", "export", "--format", form, "-o", out, *options],
                              capture_output=True, text=True)
        self.assertEqual(done.returncode, code, done.stderr)
        return out, done.stderr

    def recorded(self, stream, base):
        """The traces of another stream, one for each thread."""
        script = self.home / f"{base}.console"
        script.write_text(
            f'plugin load "{PROGRAMS / "plugin_qtbin.so"}"\nplugin signal plugin_qtbin.so start "{base}"\nrun\n'
            "plugin signal plugin_qtbin.so stop\n")
        subprocess.run([PROGRAMS / "replay", stream, script], cwd=self.home, check=True, stdout=subprocess.DEVNULL)
        return sorted(self.home.glob(f"{base}[0-9]*"))


def is_set(record, flag):
    return bool(record.flags().get(flag, 0))


class Csv(Export):
    def rows(self, name, *options):
        out, _ = self.export("csv", name, *options, self.trace)
        with out.open(newline="") as file:
            return list(csv.DictReader(file))

    def test_has_a_row_for_each_record(self):
        rows = self.rows("usual.csv")
        self.assertEqual([int(row["record"]) for row in rows], [record.number for record in self.records])
        self.assertEqual([int(row["address"], 16) for row in rows], [record.address for record in self.records])
        self.assertEqual([int(row["instruction"], 16) for row in rows], [record.instruction for record in self.records])

    def test_leaves_absent_values_empty(self):
        for row, record in zip(self.rows("data.csv"), self.records):
            wanted = f"{record.data_ea:#x}" if is_set(record, "data_address_present") else ""
            self.assertEqual(row["data_ea"], wanted)

    def test_keeps_addresses_above_two_to_the_63_in_decimal_too(self):
        rows = self.rows("decimal.csv", "--decimal", "--fields", "address")
        self.assertEqual([int(row["address"]) for row in rows], [record.address for record in self.records])
        self.assertTrue(any(record.address >= 1 << 63 for record in self.records))

    def test_takes_chosen_records_and_fields(self):
        rows = self.rows("chosen.csv", "--fields", "record,gpr_in,kinds", "--kind", "load", "--count", "5")
        self.assertEqual(len(rows), 5)
        self.assertEqual(list(rows[0]), ["record", "gpr_in", "kinds"])
        self.assertTrue(all("load" in row["kinds"].split() for row in rows))
        self.assertRegex(rows[0]["gpr_in"], r"^r\d+=0x[0-9a-f]+( r\d+=0x[0-9a-f]+)*$")

    def test_refuses_an_unknown_field(self):
        _, errors = self.export("csv", "none.csv", "--fields", "adress", self.trace, code=USAGE)
        self.assertIn("unknown field of csv `adress`", errors)


STACK, FLAGS, POINTER = 6, 25, 26


def simulated_kind(destinations, sources):
    """How the simulator takes a branch, by the registers that it reads and writes."""
    reads_other = any(register not in (0, STACK, FLAGS, POINTER) for register in sources)
    reads = {register: register in sources for register in (STACK, FLAGS, POINTER)}
    writes_stack, writes_pointer = STACK in destinations, POINTER in destinations
    if not writes_pointer:
        return "none"
    if reads[STACK] and writes_stack:
        if not reads[POINTER]:
            return "return"
        return "indirect call" if reads_other else "direct call"
    if reads[POINTER]:
        return "conditional" if reads[FLAGS] or reads_other else "none"
    return "indirect" if reads_other else "direct jump"


def kind_of_word(word):
    """The same from the instruction's encoding."""
    opcode, link, always = word >> 26, word & 1, word >> 21 & 0x14 == 0x14
    if opcode == 18:
        return "direct call" if link else "direct jump"
    if opcode == 16:
        if link and word != 0x429F0005:
            return "direct call"
        return "direct jump" if always else "conditional"
    extended = word >> 1 & 0x3FF
    if link:
        return "indirect call"
    if extended == 16 and not word & 0x1800:
        return "return"
    return "indirect" if always or extended not in (16, 528, 560) else "conditional"


class Champsim(Export):
    RECORD = struct.Struct("<QBB2B4B2Q4Q")

    def decoded(self, name, *options):
        out, errors = self.export("champsim", name, *options, self.trace)
        self.errors = errors
        return [(r[0], r[1], r[2], r[3:5], r[5:9], r[9:11], r[11:15]) for r in self.RECORD.iter_unpack(out.read_bytes())]

    def test_has_a_record_of_64_bytes_for_each_instruction(self):
        self.assertEqual(self.RECORD.size, 64)
        decoded = self.decoded("all.champsim")
        self.assertEqual([entry[0] for entry in decoded], [record.address for record in self.records])

    def test_lets_the_simulator_tell_the_kinds_of_branches(self):
        found = collections.Counter()
        for (_, branch, _, destinations, sources, _, _), record in zip(self.decoded("kinds.champsim"), self.records):
            extended = record.instruction >> 1 & 0x3FF
            opcode = record.instruction >> 26
            is_branch = opcode in (16, 18) or (opcode == 19 and extended in (16, 18, 82, 274, 528, 560))
            self.assertEqual(branch, int(is_branch), hex(record.instruction))
            if is_branch:
                kind = kind_of_word(record.instruction)
                found[kind] += 1
                self.assertEqual(simulated_kind(destinations, sources), kind, hex(record.instruction))
            else:
                self.assertFalse({STACK, FLAGS, POINTER} & {*destinations, *sources})
        self.assertGreaterEqual(len(found), 4, found)

    def test_goes_to_the_next_record_after_a_taken_branch_only(self):
        decoded = self.decoded("taken.champsim")
        for this, following in zip(decoded, decoded[1:]):
            if this[1] and not this[2]:
                self.assertEqual(following[0], this[0] + 4)

    def test_puts_loads_and_stores_into_memory_operands(self):
        accesses = 0
        for (_, _, _, _, _, stores, loads), record in zip(self.decoded("memory.champsim"), self.records):
            self.assertFalse(any(stores[1:]) or any(loads[1:]))
            if stores[0] or loads[0]:
                accesses += 1
                self.assertIn(record.data_ea, (stores[0], loads[0]))
        self.assertGreater(accesses, 100)

    def test_writes_real_addresses_on_request(self):
        for (_, _, _, _, _, stores, loads), record in zip(self.decoded("real.champsim", "--address", "real"), self.records):
            if (stores[0] or loads[0]) and is_set(record, "data_RPN_present"):
                self.assertIn(record.data_rpn << 12 | record.data_ea & 0xFFF, (stores[0], loads[0]))

    def test_says_what_does_not_fit(self):
        self.decoded("rest.champsim")
        self.assertRegex(self.errors, r"registers written that have no place \(2 an instruction\): \d+")

    def test_takes_one_thread(self):
        _, errors = self.export("champsim", "two.champsim", self.trace, self.trace, code=USAGE)
        self.assertIn("one trace file", errors)


class Callgrind(Export):
    def test_is_read_by_callgrind_annotate_with_totals_that_agree(self):
        out, _ = self.export("callgrind", "profile.out", self.trace)
        done = subprocess.run(["callgrind_annotate", "--threshold=100", out], capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        totals = re.search(r"^\s*([\d,]+).*PROGRAM TOTALS", done.stdout, re.M)
        self.assertEqual(int(totals[1].replace(",", "")), len(self.records))
        hottest = collections.Counter(record.address >> 12 for record in self.records).most_common(1)[0]
        self.assertRegex(done.stdout, rf"{hottest[1]:,} .*page_{hottest[0] << 12:x}")

    def test_counts_what_stats_counts(self):
        out, _ = self.export("callgrind", "totals.out", self.trace)
        totals = re.search(r"^totals: (\d+) (\d+) (\d+) (\d+)$", out.read_text(), re.M)
        stats = subprocess.run([PROGRAMS / "qtrace", "stats", "--json", self.trace], capture_output=True, text=True)
        for number, key in zip(totals.groups(), ("instructions", "loads", "stores")):
            self.assertIn(f'"{key}":{number},', stats.stdout)
        walks = sum(is_set(record, f"{side}_RPN_present") and record.flags().get(f"host_xlate_mode_{mode}", 0) == 0
                    for record in self.records for side, mode in (("data", "data"), ("next_instruction", "instruction")))
        self.assertEqual(int(totals[4]), walks)


class Sqlite(Export):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.database = cls.home / "trace.db"
        subprocess.run([PROGRAMS / "qtrace", "export", "--format", "sqlite", "--index", "-o", cls.database, cls.trace],
                       check=True, stdout=subprocess.DEVNULL)

    def rows(self, query):
        done = subprocess.run(["sqlite3", "-readonly", self.database, query], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return [line.split("|") for line in done.stdout.splitlines()]

    def test_is_a_sound_database(self):
        self.assertEqual(self.rows("PRAGMA integrity_check"), [["ok"]])

    def test_has_every_record_with_null_for_what_is_absent(self):
        rows = self.rows("SELECT number, address, word, ifnull(data, '') FROM record_hex ORDER BY number")
        wanted = [[str(record.number), f"0x{record.address:016x}", f"0x{record.instruction:08x}",
                   f"0x{record.data_ea:016x}" if is_set(record, "data_address_present") else ""]
                  for record in self.records]
        self.assertEqual(rows, wanted)

    def test_finds_addresses_above_two_to_the_63(self):
        wanted = sum(record.address >= 0xC000000000000000 for record in self.records)
        self.assertGreater(wanted, 0)
        query = "SELECT count(*) FROM record_hex WHERE address >= '0xc000000000000000'"
        self.assertEqual(self.rows(query), [[str(wanted)]])

    def test_has_every_register(self):
        wanted = sum(len(getattr(record, name)) for record in self.records
                     for name, *_ in plain.REGISTER_LISTS)
        self.assertEqual(self.rows("SELECT count(*) FROM register"), [[str(wanted)]])

    def test_has_each_translation_once(self):
        distinct = self.rows("SELECT count(*) - count(DISTINCT guest_mode || '/' || host_mode || ' ' || "
                             "ifnull(page_number, '-') || ' ' || ifnull(page_size, '-') || ' ' || ifnull(vsid, '-') || ' ' || "
                             "guest_depth || ' ' || host_depth || ' ' || ifnull(guest_page_size, '-')) FROM translation")
        self.assertEqual(distinct, [["0"]])
        wrong = self.rows("SELECT count(*) FROM record WHERE data IS NOT NULL AND data_translation NOT IN "
                          "(SELECT id FROM translation)")
        self.assertEqual(wrong, [["0"]])

    def test_sums_are_those_of_stats(self):
        stats = subprocess.run([PROGRAMS / "qtrace", "stats", "--json", self.trace], capture_output=True, text=True)
        for kind, key in ((1, "loads"), (2, "stores"), (256, "cache"), (16, "strings")):
            (count,), = self.rows(f"SELECT count(*) FROM record WHERE kinds & {kind}")
            self.assertIn(f'"{key}":{count},', stats.stdout)


class Output(Export):
    def unfinished(self):
        return list(self.home.glob("*.unfinished-*"))

    def test_an_existing_file_is_replaced_only_on_request(self):
        out = self.home / "precious"
        out.write_text("precious")
        _, errors = self.export("csv", out.name, self.trace, code=FAILED)
        self.assertIn("exists already", errors)
        self.assertEqual(out.read_text(), "precious")
        self.export("csv", out.name, "--force", self.trace)
        self.assertTrue(out.read_text().startswith("file,record,"))

    def test_nothing_is_left_when_the_input_cannot_be_read_or_the_disk_is_full(self):
        out, _ = self.export("csv", "from-nothing.csv", self.home / "no-such-file", code=FAILED)
        self.assertFalse(out.exists())
        limited = f'ulimit -f 8; trap "" XFSZ; exec "{PROGRAMS}/qtrace" export --format champsim -o "{self.home}/full" "{self.trace}"'
        done = subprocess.run(["bash", "-c", limited], capture_output=True, text=True)
        self.assertEqual(done.returncode, FAILED, done.stderr)
        self.assertFalse((self.home / "full").exists())
        self.assertEqual(self.unfinished(), [])

    def test_nothing_is_left_after_an_interrupt(self):
        names = [self.trace] * 400
        process = subprocess.Popen([PROGRAMS / "qtrace", "export", "--format", "csv", "-o", self.home / "long.csv", *names],
                                   stdout=subprocess.DEVNULL)
        while not self.unfinished() and process.poll() is None:
            time.sleep(0.001)
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(), -signal.SIGINT)
        self.assertFalse((self.home / "long.csv").exists())
        self.assertEqual(self.unfinished(), [])

    def test_a_database_that_does_not_fit_on_the_disk_is_dropped(self):
        limited = f'ulimit -f 64; trap "" XFSZ; exec "{PROGRAMS}/qtrace" export --format sqlite -o "{self.home}/db" "{self.trace}"'
        done = subprocess.run(["bash", "-c", limited], capture_output=True, text=True)
        self.assertEqual(done.returncode, FAILED, done.stderr)
        self.assertFalse((self.home / "db").exists())
        self.assertEqual(self.unfinished(), [])

    def test_an_unknown_format_gets_a_suggestion(self):
        _, errors = self.export("cvs", "x", self.trace, code=USAGE)
        self.assertIn("did you mean `csv`?", errors)


PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/export.md"


class Page(Export):
    """The commands of docs/export.md and what they print. QT_RENEW=1 writes the page anew."""

    def played(self, block):
        lines = []
        environment = os.environ | {"PATH": f"{PROGRAMS}:{os.environ['PATH']}"}
        for command in re.findall(r"^\$ (.*)$", block, re.M):
            for name in re.findall(r"-o (\S+)", command):
                out = self.home / name
                shutil.rmtree(out) if out.is_dir() else out.unlink(missing_ok=True)
            done = subprocess.run(command, shell=True, cwd=self.home, env=environment, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            lines.append(f"$ {command}\n{done.stdout}")
        return "".join(lines)

    def test_shows_what_the_program_prints(self):
        text = PAGE.read_text()
        now = re.sub(r"(?<=^```\n)\$ .*?(?=^```$)", lambda block: self.played(block[0]), text, flags=re.M | re.S)
        if os.environ.get("QT_RENEW"):
            PAGE.write_text(now)
        self.assertEqual(text, now)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
