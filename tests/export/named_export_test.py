#!/usr/bin/python3
"""Names of addresses in exports: python3 named_export_test.py BIN STREAM. Names come from a second lookup, in the symbols that nm
prints or that are written here."""
import bisect
import collections
import csv
import json
import re
import subprocess
import sys
import unittest

from export_test import PROGRAMS, STREAM, Export, is_set


def lookup(symbols, address):
    """`symbols`: (first, size, name), which do not overlap."""
    i = bisect.bisect([first for first, _, _ in symbols], address) - 1
    if i >= 0 and address - symbols[i][0] < symbols[i][1]:
        return symbols[i][2], address - symbols[i][0]
    return None, 0


def shown(symbols, address):
    name, offset = lookup(symbols, address)
    return "" if name is None else f"{name}+{offset:#x}"


# Functions that divide the code of the recorded program and of its kernel, and one with a name that separates fields.
SYMBOLS = [(0x10001000, 0x1F0, "user_first"), (0x100011F0, 0x200, "user_second"),
           (0xC000000000002000, 0x100, "kernel_first"), (0xC000000000002100, 0x40, 'kernel "fast", second')]


class Named(Export):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.map = cls.home / "map"
        cls.map.write_text("".join(f"{first:016x} {size:016x} T {name}\n" for first, size, name in SYMBOLS))


class Csv(Named):
    def rows(self, name, *options):
        out, _ = self.export("csv", name, *options, "--symbols", self.map, self.trace)
        with out.open(newline="") as file:
            return list(csv.DictReader(file))

    def test_has_columns_of_names(self):
        names = set()
        for row, record in zip(self.rows("named.csv"), self.records):
            self.assertEqual(row["symbol"], shown(SYMBOLS, record.address))
            following = record.next_instruction_ea if is_set(record, "next_instruction_EA_present") else 0
            self.assertEqual(row["next_symbol"], shown(SYMBOLS, following))
            names.add(row["symbol"].split("+")[0])
        self.assertEqual(names, {"", *[name for _, _, name in SYMBOLS]})

    def test_has_only_the_columns_asked_for(self):
        self.assertEqual(list(self.rows("two.csv", "--fields", "record,symbol")[0]), ["record", "symbol"])


class Sqlite(Named):
    def test_has_names_by_record_and_by_function(self):
        out, _ = self.export("sqlite", "named.db", "--symbols", self.map, self.trace)
        query = "SELECT number, ifnull(symbol, ''), ifnull(next_symbol, '') FROM record_name ORDER BY number"
        done = subprocess.run(["sqlite3", "-readonly", out, query], capture_output=True, text=True)
        self.assertEqual(done.stdout.splitlines(), [
            f"{r.number}|{shown(SYMBOLS, r.address)}|"
            f"{shown(SYMBOLS, r.next_instruction_ea) if is_set(r, 'next_instruction_EA_present') else ''}"
            for r in self.records])
        query = "SELECT name, count(*) FROM record_symbol JOIN symbol ON id = symbol GROUP BY 1 ORDER BY 1"
        done = subprocess.run(["sqlite3", "-readonly", out, query], capture_output=True, text=True)
        wanted = collections.Counter(lookup(SYMBOLS, record.address)[0] for record in self.records)
        del wanted[None]
        self.assertEqual(done.stdout.splitlines(), [f"{name}|{count}" for name, count in sorted(wanted.items())])

    def test_has_no_names_without_symbols(self):
        out, _ = self.export("sqlite", "plain.db", self.trace)
        done = subprocess.run(["sqlite3", "-readonly", out, "SELECT count(*) FROM record_symbol"], capture_output=True, text=True)
        self.assertEqual(done.stdout, "0\n")


class Callgrind(Named):
    def annotated(self, out, *options):
        done = subprocess.run(["callgrind_annotate", "--threshold=100", *options, out], capture_output=True, text=True)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def test_is_a_profile_by_function_and_by_page_elsewhere(self):
        out, _ = self.export("callgrind", "named.out", "--symbols", self.map, self.trace)
        text = self.annotated(out)
        functions = collections.Counter()
        for record in self.records:
            name, _ = lookup(SYMBOLS, record.address)
            functions[f"trace:{name} [{self.map}]" if name else f"trace:page_{record.address >> 12 << 12:x}"] += 1
        found = {place.removesuffix(" [trace]"): int(count.replace(",", "")) for count, place in
                 re.findall(r"^ *([\d,]+) .*?  (trace:.*)$", text, re.M)}
        self.assertEqual(found, dict(functions))

    def test_totals_are_those_of_stats_with_and_without_symbols(self):
        stats = subprocess.run([PROGRAMS / "qtrace", "stats", "--json", self.trace], capture_output=True, text=True).stdout
        for name, options in (("with.out", ["--symbols", self.map]), ("without.out", [])):
            out, _ = self.export("callgrind", name, *options, self.trace)
            totals = re.search(r"^ *([\d,]+) \(?.*?PROGRAM TOTALS", self.annotated(out), re.M)
            self.assertEqual(int(totals[1].replace(",", "")), len(self.records))
            lines = [line.split() for line in out.read_text().splitlines() if line.startswith("0x")]
            for i, key in enumerate(("instructions", "loads", "stores")):
                self.assertIn(f'"{key}":{sum(int(line[2 + i]) for line in lines)},', stats)

    def test_keeps_each_address_above_two_to_the_63(self):
        out, _ = self.export("callgrind", "addresses.out", "--symbols", self.map, self.trace)
        costs = {int(line.split()[0], 16): int(line.split()[2]) for line in out.read_text().splitlines() if line.startswith("0x")}
        self.assertEqual(costs, dict(collections.Counter(record.address for record in self.records)))


class Streams(Named):
    """Every recorded stream, and a file that is damaged."""

    def traces(self):
        for stream in sorted(p for p in STREAM.parent.iterdir() if p.name.endswith((".jsonl", ".jsonl.zst"))):
            yield from self.recorded(stream, stream.name.split(".")[0])
        damaged = self.home / "damaged0"
        content = bytearray((self.home / "boot-user0").read_bytes())
        content[len(content) // 2] ^= 0x55
        damaged.write_bytes(content)
        yield damaged

    def output(self, *arguments):
        return subprocess.run([PROGRAMS / "qtrace", *arguments, "--symbols", self.map], capture_output=True, text=True).stdout

    def test_functions_of_stats_and_callgrind_agree_and_add_up(self):
        traces = list(self.traces())
        self.assertGreaterEqual(len(traces), 8)
        for trace in traces:
            stats = json.loads(self.output("stats", "--json", "--top", "100", trace))
            out, _ = self.export("callgrind", f"{trace.name}.out", "--symbols", self.map, trace, code=3 if trace.name == "damaged0" else 0)
            found, function = collections.Counter(), None
            for line in out.read_text().splitlines():
                if line.startswith("fn="):
                    function = None if line.startswith("fn=page_") else line[3:]
                elif line.startswith("0x"):
                    found[function] += int(line.split()[2])
            self.assertEqual(found, {f["symbol"]: f["instructions"] for f in stats["hot_functions"]}, trace)
            self.assertEqual(found.total(), stats["instructions"], trace)

    def test_names_are_all_that_symbols_add_to_lines(self):
        for trace in self.traces():
            plain_lines = subprocess.run([PROGRAMS / "qtrace", "dump", "--count", "20000", trace], capture_output=True, text=True).stdout
            named = self.output("dump", "--count", "20000", trace)
            self.assertEqual(re.sub(r" <(?:user|kernel)[^>]*\+0x[0-9a-f]+>", "", named), plain_lines, trace)


class Elf(Named):
    """The symbols of a real program, moved so that the recorded addresses are in its code."""

    def test_names_are_those_of_nm(self):
        program = PROGRAMS / "qtrace"
        listed = subprocess.run(["nm", "--defined-only", "-S", program], capture_output=True, text=True, check=True).stdout
        functions = sorted((int(first, 16), int(size, 16), name) for first, size, kind, name in
                           (line.split(maxsplit=3) for line in listed.splitlines() if len(line.split()) == 4) if kind in "TtWw")
        starts = collections.Counter(first for first, _, _ in functions)
        large = sorted((f for f in functions if starts[f[0]] == 1), key=lambda f: -f[1])[:5]
        users = [r.address for r in self.records if 0x10001000 <= r.address <= 0x10001FFF][:300]
        for number, (first, _, _) in enumerate(large):
            load = 0x10001000 - first
            moved = [(first + load, size, name) for first, size, name in functions]
            out, _ = self.export("csv", f"elf{number}.csv", "--fields", "symbol", "--symbols", program,
                                 "--load-address", f"{load:x}", "--pc", "10001000-10001fff", "--count", "300", self.trace)
            with out.open(newline="") as file:
                rows = [row["symbol"] for row in csv.DictReader(file)]
            self.assertEqual(len(rows), len(users))
            compared = 0
            for name, address in zip(rows, users):
                covering = [s for s in moved if s[0] <= address < s[0] + s[1]]
                if len(covering) == 1:
                    self.assertEqual(name, f"{covering[0][2]}+{address - covering[0][0]:#x}")
                    compared += 1
            self.assertGreater(compared, 100)

    def test_a_stripped_program_has_only_dynamic_symbols_and_says_so(self):
        stripped = self.home / "stripped"
        subprocess.run(["strip", "-o", stripped, PROGRAMS / "qtrace"], check=True)
        _, errors = self.export("csv", "stripped.csv", "--symbols", stripped, self.trace)
        self.assertIn("stripped, only the symbols of the dynamic linker are left", errors)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
