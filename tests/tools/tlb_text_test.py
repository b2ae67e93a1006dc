"""The text of `qtrace tlb` shows the figures of its JSON, which agree with a plain model; and which options there are.

    tlb_text_test.py PROGRAMS"""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

import zstandard

ROOT = pathlib.Path(__file__).parents[2]
PROGRAMS = pathlib.Path(sys.argv.pop(1))
LINES = {"sample": 3000, "two-cpu": 3000, "guest": 8000, "hash": 3000}  # of each stream
DEFAULT = {"entries": "64x4,1536x12", "walk-cache": "16", "nested-cache": "16", "per": "instruction,page"}
WORDS = {"fetch": "fetches", "data": "data accesses"}
LIMITS = """Not modelled: speculative and prefetched accesses, the walks of entries of the process and partition tables,
the time that a walk takes, invalidations (but for pages that come back mapped anew), the accesses while
tracing was paused. Each hardware thread has a TLB of its own.
"""


def qtrace(*arguments):
    return subprocess.run([PROGRAMS / "qtrace", *map(str, arguments)], capture_output=True, text=True)


def columns(label, *values, indent=2, width=12):
    return " " * indent + f"{label:<{14 - indent}}  " + " ".join(f"{value:>{width}}" for value in values) + "\n"


def part(count, whole):
    return count / whole if whole else 0.0


def size_name(size):
    units = "KMGTPE"
    while size >= 1024 and units:
        size, unit, units = size / 1024, units[0], units[1:]
    return f"{size:.4g}{unit}"


def accesses(figures):
    text = f"  instructions  {figures['instructions']:>12}\n"
    text += columns("accesses", "translated", "real mode", "not known", "walks")
    for name, key in (("fetches", "fetches"), ("data", "data")):
        side = figures[key]
        text += columns(name, side["translated"], side["untranslated"], side["not_known"], side["walks"], indent=4)
    if figures["suspect"]:
        text += f"    data accesses whose translation failed, which are left out: {figures['suspect']}\n"
    if figures["remapped"]:
        text += f"    accesses to a page that was mapped anew, which miss: {figures['remapped']}\n"
    return text


def levels(figures, split):
    text = columns("TLB", "lookups", "misses", "per 1000", "reach")
    for number, level in enumerate(figures["levels"]):
        rate = f"{part(1000 * level['misses'], figures['instructions']):.3f}"
        row = columns(f"{level['entries']}x{level['ways']}", level["lookups"], level["misses"], rate,
                      size_name(level["most_reach"]), indent=4)  # fmt: skip
        text += row[:-1] + ("  (one for fetches, one for data)" if split and number == 0 else "") + "\n"
    return text


def walks(figures, options):
    total = figures["walks"]
    text = f"  walks {total}, {part(1000 * total, figures['instructions']):.3f} per 1000 instructions\n"
    for name, kind in figures["kinds"].items():
        count = kind["walks"]
        if not count:
            continue
        text += f"    {name:<11} {count:>10} walks, {100 * count / total:.1f} % of all"
        if not kind["entries"]:
            text += "; the table entries that they read are not in the trace\n"
            continue
        text += f"; {kind['entries'] / count:.1f} entries, {kind['entries_read'] / count:.1f} of them read\n"
        text += "      read per walk, by level        1        2        3     page\n"
        rows = {"of the guest's tables": kind["guest_read"]} if name == "nested" else {}
        for title, reads in {**rows, "of the host's tables": kind["host_read"]}.items():
            text += f"      {title:<22}" + "".join(f" {read / count:>8.2f}" for read in reads) + "\n"
    return text + (f"    walk cache of {options['walk-cache']}: {figures['walk_cache_hits']} hits; "
                   f"nested cache of {options['nested-cache']}: {figures['nested_cache_hits']} hits\n")  # fmt: skip


def switches(figures):
    found = figures["switches"]
    if not found["count"]:
        return ""
    text = (f"  switches {found['count']}: {found['of_partition']} of partition, "
            f"{found['count'] - found['of_partition']} of process alone\n")  # fmt: skip
    for title, key in (("the first 1000 instructions after one", "first_thousand"), ("the rest", "rest")):
        interval = found[key]
        rate = part(1000 * interval["walks"], interval["instructions"])
        text += (f"    {title:<34} {interval['instructions']:>12} instructions {interval['walks']:>10} walks "
                 f"{rate:>10.3f} per 1000\n")  # fmt: skip
    return text


def series(figures):
    if "series" not in figures:
        return ""
    text, first = "  series        instructions     accesses        walks     per 1000\n", 0
    for row in figures["series"]:
        rate = f"{part(1000 * row['walks'], row['instructions']):.3f}"
        text += f"  {first:>12}  {row['instructions']:>12} {row['accesses']:>12} {row['walks']:>12} {rate:>12}\n"
        first += row["instructions"]
    return text


def curves(figures):
    text = ""
    for curve in figures["curves"]:
        whose = "" if curve["side"] == "all" else f" of {WORDS[curve['side']]}"
        text += f"  misses{whose} by size, fully associative\n"
        for size in curve["sizes"]:
            rate = part(1000 * size["misses"], figures["instructions"])
            text += f"    {size['entries']:<10}  {size['misses']:>12} {rate:>12.3f} per 1000\n"
    return text


def key_of(row):
    words = []
    for name, value in row.items():
        if name not in ("accesses", "walks", "entries_read"):
            words.append(f"{value}" if name in ("address", "size", "kind") else f"{name} {value}")
    return " ".join(words)


def tables(figures):
    text = ""
    for name, rows in figures["per"].items():
        first = "missed" if name == "instruction" else "accesses"
        text += f"  {'by ' + name:<52} {first:>12} {'walks':>10} {'entries read':>12}\n"
        for row in rows:
            text += f"    {key_of(row):<50} {row['accesses']:>12} {row['walks']:>10} {row['entries_read']:>12}\n"
    return text


def advice(figures):
    text = ""
    for row in figures["advice"]:
        saved = 100 * (row["walks"] - row["walks_if_one"]) / figures["walks"]
        text += (f"  one page of 2M at {row['address']} ({row['kind']}, lpid {row['lpid']}): {row['entries']} entries become 1, "
                 f"{saved:.0f} % of the walks saved\n")  # fmt: skip
    return text


def text_of(figures, options):
    return (figures["file"] + "\n" + accesses(figures) + levels(figures, "split" in options) + walks(figures, options)
            + switches(figures) + series(figures) + curves(figures) + tables(figures) + advice(figures))  # fmt: skip


class Text(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        place = tempfile.TemporaryDirectory()
        cls.addClassCleanup(place.cleanup)
        cls.folder = pathlib.Path(place.name)
        for name, lines in LINES.items():
            cls.record(name, lines)

    @classmethod
    def record(cls, name, lines):
        [stream] = (ROOT / "streams").glob(f"{name}.jsonl*")
        opened = zstandard.open if stream.suffix == ".zst" else open
        with opened(stream, "rt", encoding="utf-8") as source:
            (cls.folder / "stream").write_text("".join(line for line, _ in zip(source, range(lines))), encoding="utf-8")
        signal = "plugin signal plugin_qtbin.so"
        (cls.folder / "console").write_text(
            f'plugin load "{PROGRAMS}/plugin_qtbin.so"\n{signal} start "{cls.folder}/{name}."\nrun\n{signal} stop\n')
        subprocess.run([PROGRAMS / "replay", "-e", cls.folder / "stream", cls.folder / "console"], check=True,
                       capture_output=True)

    def check(self, name, **options):
        options = {key.replace("_", "-"): value for key, value in options.items()}
        words = [word for key, value in options.items() for word in (f"--{key}", value) if word]
        lines = qtrace("tlb", "--json", *words, self.folder / f"{name}.").stdout.splitlines()
        figures = list(map(json.loads, lines))
        shown = qtrace("tlb", *words, self.folder / f"{name}.")
        self.assertEqual(shown.returncode, 0)
        expected = "".join(text_of(one, DEFAULT | options) for one in figures)
        self.assertEqual(shown.stdout, expected + LIMITS)
        return figures

    def test_has_the_figures_of_every_stream(self):
        for name in LINES:
            self.check(name)

    def test_has_the_figures_of_every_option(self):
        every = "partition,process,page-size,instruction,page"
        [figures] = self.check("guest", entries="8x2,32", split="", walk_cache="2", nested_cache="1", interval="700", top="3", per=every)
        self.assertEqual([(level["entries"], level["ways"]) for level in figures["levels"]], [(8, 2), (32, 32)])
        self.assertEqual(list(figures["per"]), every.split(","))
        self.assertEqual(max(map(len, figures["per"].values())), 3)
        self.assertEqual({row["instructions"] for row in figures["series"][:-1]}, {700})
        self.check("hash", flush_on_switch="", per=every, top="0")

    def test_shows_every_thread_and_the_total(self):
        figures = self.check("two-cpu", interval="1000")
        self.assertEqual([one["file"].rsplit(".", 1)[-1] for one in figures], ["0", "1", "total"])
        self.assertEqual(figures[2]["instructions"], figures[0]["instructions"] + figures[1]["instructions"])


class Options(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        place = tempfile.TemporaryDirectory()
        cls.addClassCleanup(place.cleanup)
        cls.trace = pathlib.Path(place.name) / "trace0"
        subprocess.run([PROGRAMS / "random_trace_file", cls.trace, "50", "1"], check=True)

    def refusal(self, *words):
        done = qtrace("tlb", *words, self.trace)
        self.assertEqual((done.returncode, done.stdout), (2, ""), words)
        return done.stderr.splitlines()[0]

    def figures(self, *words):
        done = qtrace("tlb", "--json", *words, self.trace)
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(done.stdout)

    def test_levels_have_a_multiple_of_their_ways_up_to_a_million(self):
        for entries in ("1", "1x1", "1048576x1", "6x3", "1048576x1048576"):
            [level] = self.figures("--entries", entries)["levels"]
            self.assertEqual(level["entries"], int(entries.split("x")[0]))
            self.assertEqual(level["ways"], int(entries.split("x")[-1]))
        for entries in ("0", "0x1", "1x0", "1048577x1", "7x3", "3x6"):
            self.assertEqual(self.refusal("--entries", entries),
                             f"qtrace: `{entries}`: a level has 1 to 1048576 entries, a multiple of its ways")  # fmt: skip
        for entries in ("x", "4x", "x4", "4x4x4", "-1", "four"):
            self.assertEqual(self.refusal("--entries", entries),
                             f"qtrace: `{entries}` is not a TLB level: ENTRIESxWAYS or ENTRIES expected")  # fmt: skip

    def test_caches_have_up_to_a_million_entries(self):
        for cache in ("--walk-cache", "--nested-cache"):
            self.figures(cache, "0")
            self.figures(cache, "1048576")
            self.assertEqual(self.refusal(cache, "1048577"), "qtrace: a cache has at most 1048576 entries")

    def test_pages_have_the_sizes_that_are_listed(self):
        for size in ("4K", "64K", "2M", "1G"):
            sizes = self.figures("--page-sizes", size, "--per", "page-size")["per"]["page-size"]
            self.assertLessEqual({row["size"] for row in sizes}, {size})
        self.assertEqual(self.figures("--page-sizes", "as-traced"), self.figures())
        self.assertIn("unknown page size `16K`", self.refusal("--page-sizes", "16K"))

    def test_defaults_are_those_that_are_told(self):
        told = ("--entries", "64x4,1536x12", "--walk-cache", "16", "--nested-cache", "16", "--top", "10",
                "--per", "instruction,page")  # fmt: skip
        self.assertEqual(self.figures(), self.figures(*told))
        self.assertNotIn("series", self.figures())


if __name__ == "__main__":
    unittest.main()
