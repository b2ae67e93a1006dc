#!/usr/bin/python3
"""Every format of `qtrace export` on a recorded stream, and on a damaged copy of its trace: export_streams_test.py BIN STREAM.
What is expected comes from the lines of `qtrace dump --json`, which other tests compare with the plain Python reader."""
import collections
import csv
import json
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest

PROGRAMS, STREAM = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
FINE, FINDINGS = 0, 3
RECORD = struct.Struct("<QBB2B4B2Q4Q")
LISTS = [f"{name}_{way}" for name in ("gpr", "fpr", "vmxr", "vsxr", "spr") for way in ("in", "out")]


def address(record):
    return int(record.get("address", "0x0"), 16)


class Exports(unittest.TestCase):
    """Of a trace file: `code` is the exit code of reading it."""

    code = FINE

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="qt_exports_")
        cls.addClassCleanup(folder.cleanup)
        cls.home = pathlib.Path(folder.name)
        (cls.home / "console").write_text(
            f'plugin load "{PROGRAMS / "plugin_qtbin.so"}"\nplugin signal plugin_qtbin.so start trace\nrun\n'
            "plugin signal plugin_qtbin.so stop\n")
        subprocess.run([PROGRAMS / "replay", STREAM, "console"], cwd=cls.home, check=True, stdout=subprocess.DEVNULL)
        cls.make_file(cls.home / "trace0")
        lines = map(json.loads, cls.qtrace("dump", "--json", "trace0").splitlines())
        cls.records = [line for line in lines if "record" in line]
        cls.stats = json.loads(cls.qtrace("stats", "--json", "trace0"))

    @staticmethod
    def make_file(name):
        pass

    @classmethod
    def qtrace(cls, *arguments):
        done = subprocess.run([PROGRAMS / "qtrace", *arguments], cwd=cls.home, capture_output=True, text=True)
        assert done.returncode == cls.code, (arguments, done.returncode, done.stderr)
        assert (cls.code == FINE) == ("lost" not in done.stderr), done.stderr
        return done.stdout

    def export(self, form, name, *options):
        said = self.qtrace("export", "--format", form, "-o", name, *options, "trace0")
        self.assertEqual(said, f"{name}: {len(self.records)} records\n")
        return self.home / name

    def test_csv(self):
        out = self.export("csv", "all.csv", "--fields", "record,address,instruction,data_ea,kinds,gpr_in")
        with out.open(newline="") as file:
            rows = list(csv.DictReader(file))
        self.assertEqual([int(row["record"]) for row in rows], [line["record"] for line in self.records])
        for row, line in zip(rows, self.records):
            self.assertEqual(int(row["address"] or "0", 16), address(line))
            self.assertEqual(int(row["instruction"], 16), int(line.get("instruction", "0x0"), 16))
            self.assertEqual(row["kinds"].split(), line.get("kinds", []))
            self.assertEqual(int(row["data_ea"] or "0", 16), int(line.get("data_ea", "0x0"), 16))
            self.assertEqual(len(row["gpr_in"].split()), len(line.get("gpr_in", [])))

    def test_csv_is_read_by_pandas(self):
        import pandas

        out = self.export("csv", "decimal.csv", "--decimal", "--fields", "record,address,instruction,data_ea")
        frame = pandas.read_csv(out, dtype={"address": "UInt64", "data_ea": "UInt64"})
        self.assertEqual(frame["address"].tolist(), [address(line) for line in self.records])
        self.assertEqual(frame["record"].tolist(), [line["record"] for line in self.records])
        accesses = [int(line.get("data_ea", "0x0"), 16) for line in self.records if "data_address_present" in line]
        self.assertEqual(frame["data_ea"].dropna().tolist(), accesses)
        out = self.export("csv", "hexadecimal.csv", "--fields", "address,data_ea")
        frame = pandas.read_csv(out, converters={"address": lambda text: int(text or "0", 16)})
        self.assertEqual(frame["address"].tolist(), [address(line) for line in self.records])

    def test_champsim(self):
        for which in ("effective", "real"):
            decoded = list(RECORD.iter_unpack(self.export("champsim", which, "--address", which).read_bytes()))
            self.assertEqual(len(decoded), len(self.records))
            for entry, line in zip(decoded, self.records):
                kinds = line.get("kinds", [])
                self.assertEqual(entry[1:3], ("branch" in kinds, "taken" in kinds))
                access = int(line.get("data_ea", "0x0"), 16)
                if which == "real" and "data_RPN_present" in line:
                    access = int(line.get("data_rpn", "0x0"), 16) << 12 | access & 0xFFF
                present = "data_address_present" in line
                self.assertEqual(entry[9], access if present and "store" in kinds else 0)
                self.assertEqual(entry[11], access if present and "load" in kinds else 0)
                if which == "effective":
                    self.assertEqual(entry[0], address(line))
                else:
                    self.assertEqual(entry[0] & 0xFFF, address(line) & 0xFFF)

    def test_callgrind(self):
        out = self.export("callgrind", "profile.out")
        done = subprocess.run(["callgrind_annotate", "--threshold=100", out], capture_output=True, text=True)
        self.assertEqual(done.returncode, 0, done.stderr)
        [totals] = [line.split()[1:] for line in out.read_text().splitlines() if line.startswith("totals:")]
        counts = collections.Counter(kind for line in self.records for kind in line.get("kinds", []))
        self.assertEqual([int(number) for number in totals[:3]], [len(self.records), counts["load"], counts["store"]])
        self.assertEqual([int(number) for number in totals[:3]],
                         [self.stats[key] for key in ("instructions", "loads", "stores")])

    def test_sqlite(self):
        for name, options in (("plain.db", []), ("indexed.db", ["--index"])):
            database = self.export("sqlite", name, *options)

            def rows(query):
                done = subprocess.run(["sqlite3", "-readonly", database, query], capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                return [line.split("|") for line in done.stdout.splitlines()]

            self.assertEqual(rows("PRAGMA integrity_check"), [["ok"]])
            self.assertEqual(rows("SELECT count(*), count(data) FROM record"),
                             [[str(len(self.records)), str(sum("data_address_present" in line for line in self.records))]])
            some = self.records[:: max(1, len(self.records) // 500)]
            wanted = [[str(line["record"]), f"0x{address(line):016x}"] for line in some]
            numbers = ",".join(str(line["record"]) for line in some)
            self.assertEqual(rows(f"SELECT number, address FROM record_hex WHERE number IN ({numbers}) ORDER BY number"),
                             wanted)
            self.assertEqual(rows("SELECT count(*) FROM register"),
                             [[str(sum(len(line.get(part, [])) for line in self.records for part in LISTS))]])
            for kind, key in ((1, "loads"), (2, "stores"), (256, "cache"), (16, "strings")):
                self.assertEqual(rows(f"SELECT count(*) FROM record WHERE kinds & {kind}"), [[str(self.stats[key])]])
            self.assertEqual(rows("SELECT value FROM meta WHERE key = 'records'"), [[str(len(self.records))]])
            indexes = rows("SELECT name FROM sqlite_master WHERE type = 'index' AND sql IS NOT NULL ORDER BY name")
            self.assertEqual(len(indexes), 3 if options else 0)


class Damaged(Exports):
    code = FINDINGS

    @staticmethod
    def make_file(name):
        content = bytearray(name.read_bytes())
        content[len(content) // 2] ^= 0x55
        name.write_bytes(content)


def load_tests(loader, _, __):
    suite = unittest.TestSuite([loader.loadTestsFromTestCase(Exports)])
    if "boot-user" in STREAM.name:  # many blocks
        suite.addTests(loader.loadTestsFromTestCase(Damaged))
    return suite


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
