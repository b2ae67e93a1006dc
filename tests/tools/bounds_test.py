#!/usr/bin/env python3
"""bounds_test.py PROGRAMS [--table]: every command of qtrace on small files that ask for much stays below its bound of memory, and
takes twice as long for twice the file. --table: with files of 20 KB each, and prints the table of docs/reliability.md."""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
TABLE = "--table" in sys.argv
MOST = 64 << 10  # KiB, and so much for each thread that reads:
MOST_OF_A_JOB = 8 << 10
JOBS = 2
EVERYTHING = "1000000000"
MOST_PAGES = 1 << 20  # that are counted exactly, and may take so many bytes each:
BYTES_OF_A_PAGE = 64
# Blocks of each kind of file: enough to see what grows with them, and for 20 KB.
SIZES = {"partitions": (30, 190), "segments": (12, 190), "comments": (60, 180), "outside-comments": (60, 115),
         "records": (2, 240), "wide": (1, 140), "pages": (7, 7), "singles": (180, 180), "damaged": (180, 180),
         "block-headers": (350, 350)}  # fmt: skip
FOR_THE_TABLE = ("records", "wide")  # of these more would take minutes
COMMANDS = {
    "info": ["info", "F"],
    "info --headers": ["info", "--headers", EVERYTHING, "F"],
    "info --json": ["info", "--json", "F"],
    "info --verify": ["info", "--verify", "F"],
    "dump": ["dump", "F"],
    "dump --json": ["dump", "--json", "F"],
    "check": ["check", "F"],
    "check --limit": ["check", "--limit", EVERYTHING, "F"],
    "check --deep": ["check", "--deep", "F"],
    "stats": ["stats", "F"],
    "tlb": ["tlb", "F"],
    "report": ["report", "-o", "out.html", "F"],
    "diff, with itself": ["diff", "F", "F"],
    "diff, with another": ["diff", "--limit", EVERYTHING, "F", "other"],
    "recover": ["recover", "F", "out.recovered"],
    "cut": ["cut", "--force", "--every", "3", "--window", "2", "-o", "out.cut", "F"],
    "plan": ["plan", "--parts", "7", "F"],
} | {f"export {form}": ["export", "--force", "--format", form, "-o", f"out.{form}", "F"]
     for form in ("csv", "callgrind", "champsim", "sqlite", "ctf")}  # fmt: skip
WITHOUT_JOBS = ("plan",)
PAGES_OF_A_BLOCK = 2975  # of kind "pages": so many fetched ones, whose effective addresses come again, and so many of data


def make(kind, blocks, name):
    subprocess.run([PROGRAMS / "hostile_trace", kind, str(blocks), name], check=True)


def measure(command):
    """KiB and milliseconds of a command."""
    words = COMMANDS[command]
    jobs = [] if words[0] in WITHOUT_JOBS else ["--jobs", str(JOBS)]
    done = subprocess.run([PROGRAMS / "peak_memory", PROGRAMS / "qtrace", words[0], *jobs, *words[1:]], check=True,
                          stdout=subprocess.PIPE, text=True)
    memory, time, code = map(int, done.stdout.split())
    assert code in (0, 3) or (code == 1 and words[0] in ("cut", "recover")), (command, code)  # nothing to keep
    return memory, time


def output_of(command, jobs):
    """Text and figures."""
    words = [PROGRAMS / "qtrace", command, "--jobs", jobs, "F"]
    text, line = (subprocess.check_output(words + more, text=True) for more in ([], ["--json"]))
    return text, json.loads(line)


class Bounds(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qt_bounds_")
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)

    def test_memory_of_every_command_is_bounded_on_small_files(self):
        most = {}
        for kind, sizes in SIZES.items():
            blocks = sizes[TABLE and kind not in FOR_THE_TABLE]
            make(kind, blocks, "F")
            make(kind, blocks * 3 // 4 + 1, "other")
            self.assertLess(os.path.getsize("F"), 26_000, kind)
            for command in COMMANDS:
                memory, time = measure(command)
                self.assertLess(memory, MOST + JOBS * MOST_OF_A_JOB, (command, kind))
                most[command] = max(most.get(command, (0, "", 0)), (memory, kind, time))
        for command, (memory, kind, time) in most.items() if TABLE else ():
            print(f"| `{command}` | {kind} | {memory / 1024:.1f} MiB | {time} ms |")

    def test_pages_take_64_bytes_each_up_to_a_million(self):
        for command, of_a_block, most in (("stats", 2, 360), ("tlb", 1, 720), ("report", 2, 360)):
            for blocks in (170, most):
                make("pages", blocks, "F")
                pages = of_a_block * PAGES_OF_A_BLOCK * blocks
                bound = MOST + JOBS * MOST_OF_A_JOB + BYTES_OF_A_PAGE * min(pages, MOST_PAGES) // 1024
                self.assertLess(measure(command)[0], bound, (command, blocks))

    def test_more_than_a_million_pages_are_an_estimate_that_says_so(self):
        make("pages", 360, "F")
        texts, figures = zip(*(output_of("stats", jobs) for jobs in ("1", "2")))
        self.assertEqual(texts[0], texts[1])
        self.assertEqual(figures[0], figures[1])
        for side, label in (("fetch", "fetched"), ("data", "data")):
            number = figures[0][f"{side}_pages_4K"]
            self.assertRegex(texts[0], rf"\n  {label} pages of 4K +about {number}\n")
            self.assertAlmostEqual(number / (360 * PAGES_OF_A_BLOCK), 1, delta=0.01)
        self.assertIs(figures[0]["pages_estimated"], True)
        self.assertIn(f"(counts may be too low, by at most {figures[0]['page_shortfall']})", texts[0])

    def test_a_million_pages_are_exact_and_do_not_say_otherwise(self):
        make("pages", 170, "F")
        text, figures = output_of("stats", "2")
        self.assertEqual((figures["fetch_pages_4K"], figures["data_pages_4K"]), 2 * (170 * PAGES_OF_A_BLOCK,))
        self.assertFalse({"pages_estimated", "page_shortfall"} & set(figures))
        self.assertNotIn("about", text)
        text, figures = output_of("tlb", "2")
        self.assertFalse({"pages_estimated", "page_shortfall", "instruction_shortfall", "advice_shortfall"} & set(figures))
        self.assertEqual([word for word in ("about", "estimated", "too low") if word in text], [])

    def test_a_curve_of_more_than_a_million_pages_is_an_estimate_that_says_so(self):
        make("pages", 400, "F")
        (text, figures), other = (output_of("tlb", jobs) for jobs in ("2", "1"))
        self.assertEqual(other, (text, figures))
        self.assertIs(figures["pages_estimated"], True)
        self.assertIn("\n  misses by size, fully associative; estimated from a sample of the pages\n", text)
        self.assertIn(f"which miss: about {figures['remapped']}\n", text)
        self.assertRegex(text, r"one page of 2M at 0x[0-9a-f]+ \(host, lpid 0x0\): about \d+ entries become 1")
        self.assertIn(f"(counts may be too low, of walks by at most {figures['page_shortfall']})", text)
        self.assertNotIn("instruction_shortfall", figures)
        [curve] = figures["curves"]
        self.assertEqual(curve["accesses"], figures["walks"])  # no page comes again before many others

    def test_time_is_linear_in_the_size_of_the_file(self):
        for kind, few in (("singles", 1500), ("block-headers", 600), ("pages", 6)):
            times = {}
            for blocks in (few, 4 * few):
                make(kind, blocks, "F")
                make(kind, blocks * 3 // 4, "other")
                for command in ("stats", "tlb", "report", "diff, with another", "cut", "export csv"):
                    times.setdefault(command, []).append(measure(command)[1])
            for command, (short, long) in times.items():
                self.assertLess(long, 7 * short + 100, (command, kind))


# More blocks than the index has steps, and than threads look at together.
MANY = 66_000


def run(*words):
    """Standard output of a command of qtrace."""
    done = subprocess.run([PROGRAMS / "qtrace", *words], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return done.stdout


class ManyBlocks(unittest.TestCase):
    setUp = Bounds.setUp

    def test_memory_does_not_grow_with_the_number_of_blocks(self):
        memory = {}
        for blocks in (MANY, 2 * MANY):
            make("singles", blocks, "F")
            for command in ("plan", "info --verify", "recover", "cut", "diff, with itself"):
                memory.setdefault(command, []).append(measure(command)[0])
            make("damaged", blocks, "F")
            memory.setdefault("report", []).append(measure("report")[0])
            page = pathlib.Path("out.html").read_text(encoding="utf-8")
            self.assertIn(f"damaged: {blocks // 2:,} places cannot be read", page)
            self.assertEqual(page.count("<code>F: byte "), 3)
        for command, (few, many) in memory.items():
            self.assertLess(many - few, 3 << 10, command)  # 44 bytes a block

    def test_records_are_found_whatever_their_block(self):
        make("singles", MANY, "F")  # a header and a record in each, 108 bytes
        lines = run("plan", "--parts", "6", "F").splitlines()
        self.assertEqual(lines, [f"F --from {first} --count 11000" for first in range(0, MANY, 11_000)])
        info = json.loads(run("info", "--verify", "--json", "--from", "10001", "--count", "7", "F"))
        self.assertEqual([info[member] for member in ("records", "headers", "blocks", "size")], [7, 7, 7, 7 * 108])
        for first in (0, 10_001, MANY - 3):
            items = map(json.loads, run("dump", "--json", "--from", str(first), "--count", "3", "F").splitlines())
            records = [item["record"] for item in items if "record" in item]
            self.assertEqual(records, [first, first + 1, first + 2])

    def test_records_of_files_one_after_another_are_all_found(self):
        make("singles", MANY, "one")
        file = pathlib.Path("one").read_bytes()
        pathlib.Path("F").write_bytes(file + file[16:])  # steps of four blocks begin within the first file, and end within the other
        for first, count in ((0, 2), (10, 3), (MANY - 2, 2)):
            items = map(json.loads, run("dump", "--json", "--from", str(first), "--count", str(count), "F").splitlines())
            records = [item["record"] for item in items if "record" in item]
            self.assertEqual(records, 2 * list(range(first, first + count)))

    def test_what_comes_out_does_not_depend_on_the_number_of_jobs(self):
        make("damaged", MANY, "F")  # records with odd numbers are left
        for command, blocks in ((["recover", "F", "out"], MANY // 2),
                                (["cut", "--force", "--from", "9", "-o", "out", "F"], MANY // 2 - 4),
                                (["info", "--verify", "F"], MANY // 2)):  # fmt: skip
            results = []
            for jobs in ("1", "2"):
                results.append([run(command[0], "--jobs", jobs, *command[1:]), pathlib.Path("out").read_bytes()])
            self.assertTrue(results[0] == results[1], command)
            self.assertIn(f"{blocks} block", results[0][0])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
