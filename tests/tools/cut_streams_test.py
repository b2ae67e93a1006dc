#!/usr/bin/env python3
"""cut_streams_test.py PROGRAMS STREAM: cuts the traces of a recorded stream. What has to be in a cut is chosen from the lines
of `qtrace dump --json` of the whole trace; `qtrace check` and the plain Python reader judge the result."""
import json
import os
import pathlib
import pty
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS, STREAM = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python"))
from qtrace import plain  # noqa: E402

QTRACE = PROGRAMS / "qtrace"
FINE, FAILED, USAGE, FINDINGS = 0, 1, 2, 3
LONG_WINDOW = 2000  # records: from here on a cut has no more than 1.3 times its share of bytes


def qtrace(*arguments, code=FINE, **options):
    done = subprocess.run([QTRACE, *map(str, arguments)], capture_output=True, text=True, check=False, **options)
    assert done.returncode == code, (arguments, done.returncode, done.stdout[-500:], done.stderr[-500:])
    return done


class Lines:
    """The items of a trace as `dump --json` prints them, without the file's name."""

    def __init__(self, name, *options):
        text = qtrace("dump", "--json", *options, name).stdout
        self.headers, self.records, self.discontinuities = {}, {}, []
        for line in text.splitlines():
            line = line.split(",", 1)[1]
            kind, number = line.split(",", 1)[0].split(":")
            if kind == '"discontinuity"':
                self.discontinuities.append(json.loads("{" + line))
            else:
                (self.records if kind == '"record"' else self.headers)[int(number)] = line


class CutStreams(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="qt_cut_")
        cls.addClassCleanup(folder.cleanup)
        os.chdir(folder.name)
        pathlib.Path("console").write_text(
            f'plugin load "{PROGRAMS / "plugin_qtbin.so"}"\nplugin signal plugin_qtbin.so start trace\nrun\n'
            "plugin signal plugin_qtbin.so stop\n", encoding="utf-8")
        subprocess.run([PROGRAMS / "replay", STREAM, "console"], check=True, stdout=subprocess.DEVNULL)
        cls.traces = sorted(path.name for path in pathlib.Path().glob("trace*"))
        cls.lines = {name: Lines(name) for name in cls.traces}
        cls.contexts = {name: cls.contexts_of(cls.lines[name]) for name in cls.traces}

    @staticmethod
    def contexts_of(lines):
        """By number of a record: the partition and process at it, and at what stands before it, from the headers."""
        changes = {}
        lpid, pid = "0x0", 0
        for line in lines.headers.values():
            header = json.loads("{" + line)
            if header.get("iar_is_present"):
                lpid, pid = header.get("lpid", "0x0"), header.get("pid", 0)
            lpid = header.get("lpid", "0x0") if header.get("lpid_is_present") else lpid
            pid = header.get("pid", 0) if header.get("pid_is_present") else pid
            changes.setdefault(header["before_record"], []).append((lpid, pid))
        contexts, here = {}, None
        for number in lines.records:
            contexts[number] = [here, *changes.get(number, [])]
            here = contexts[number][-1]
        return contexts

    def setUp(self):
        for name in ("once", "twice"):
            pathlib.Path(name).unlink(missing_ok=True)

    def cut(self, name, *options):
        """Cuts, cuts the result again, checks it; returns the lines of the cut."""
        qtrace("cut", *options, "-o", "once", name)
        qtrace("cut", *options, "-o", "twice", "once")
        self.assertEqual(pathlib.Path("once").read_bytes(), pathlib.Path("twice").read_bytes(), (name, options))
        qtrace("check", "once")
        pathlib.Path("twice").unlink()
        return Lines("once")

    def expect(self, name, options, wanted):
        cut, whole = self.cut(name, *options), self.lines[name]
        self.assertEqual(cut.records, {number: line for number, line in whole.records.items() if wanted(number)})
        self.assertEqual(cut.headers[0], whole.headers[0])
        for number, line in cut.headers.items():
            self.assertEqual(line, whole.headers[number])
        self.expect_size(name, cut)
        self.expect_discontinuities(name, cut)
        pathlib.Path("once").unlink()

    @staticmethod
    def lengths(numbers):
        """Of the runs of consecutive numbers."""
        runs = []
        for before, number in zip([None, *numbers], numbers):
            if before is None or number != before + 1:
                runs.append(0)
            runs[-1] += 1
        return runs

    def expect_size(self, name, cut):
        """Each block has a share for the part of its records that is kept."""
        runs = self.lengths(sorted(cut.records))
        if not runs or min(runs) < LONG_WINDOW:
            return
        share = 0
        for block in plain.Trace(name).blocks():
            if isinstance(block, plain.Block) and block.records:
                kept = sum(n in cut.records for n in range(block.first_record, block.first_record + block.records))
                share += (block.end - block.offset) * kept / block.records
        self.assertLessEqual(os.path.getsize("once"), 1.3 * share, (name, runs[:3]))

    def expect_discontinuities(self, name, cut):
        """One where the numbers of records jump, with the partition and process of the record that follows."""
        numbers = sorted(cut.records)
        jumps = {}
        for before, number in zip([-1, *numbers], numbers):
            if number != before + 1:
                jumps[before + 1] = number - before - 1
        found = [what for what in cut.discontinuities if what["discontinuity"] == "left out"]
        self.assertEqual({what["at_record"]: what["lost_records"] for what in found if what["lost_records"]}, jumps)
        for what in cut.discontinuities:
            self.assertIn(what["discontinuity"], ("left out", "pause"))
        whole = self.contexts[name]
        for what in found:
            context, number = what["context"], what["at_record"] + what["lost_records"]
            if number in whole:
                self.assertIn((context.get("lpid", "0x0"), context.get("pid", 0)), whole[number])

    def test_everything_is_the_file_itself(self):
        for name in self.traces:
            qtrace("cut", name, "-o", "once", "--force")
            self.assertEqual(pathlib.Path("once").read_bytes(), pathlib.Path(name).read_bytes())

    def test_ranges(self):
        for name in self.traces:
            records = len(self.lines[name].records)
            third = records // 3
            for first, count in ((1, records), (third, third), (records - 1, 1), (0, third)):
                self.expect(name, ["--from", first, "--count", count], lambda n, f=first, c=count: f <= n < f + c)

    def test_samples(self):
        for name in self.traces:
            for every, window, first in ((1000, 100, 0), (20_000, 2_000, 0), (9_000, 3_000, 77)):
                if first < len(self.lines[name].records):
                    self.expect(name, ["--every", every, "--window", window, "--from", first],
                                lambda n, e=every, w=window, f=first: n >= f and (n - f) % e < w)

    def test_partitions_and_processes(self):
        for name in self.traces:
            pids = {json.loads("{" + line)["pid"] for line in self.lines[name].headers.values()
                    if "pid" in json.loads("{" + line)}
            for options in [["--lpid", "0"], ["--lpid", "1,2"], *(["--pid", pid] for pid in sorted(pids)[:3])]:
                chosen = Lines(name, *options).records
                self.expect(name, options, lambda n, c=chosen: n in c)
                some = set(sorted(chosen)[:500])
                self.expect(name, [*options, "--count", 500], lambda n, s=some: n in s)

    def test_the_plain_reader_finds_the_same_records(self):
        for name in self.traces:
            self.cut(name, "--every", 700, "--window", 20, "--count", 400)
            items = list(plain.Trace("once"))
            left_out = [item for item in items if isinstance(item, plain.Discontinuity) and item.cause != "pause"]
            self.assertEqual({item.cause for item in left_out} - {"left out"}, set())
            self.assertEqual([item.records for item in left_out], [680] * len(left_out))
            records = [item for item in items if isinstance(item, plain.Record)]
            self.assertEqual(len(records), min(400, sum(n % 700 < 20 for n in self.lines[name].records)))
            for record in records:
                line = json.loads("{" + self.lines[name].records[record.number])
                self.assertEqual(f"{record.address:#x}", line["address"])
                self.assertEqual(f"{record.instruction:#x}", line.get("instruction", "0x0"))
            pathlib.Path("once").unlink()

    def test_a_damaged_file_becomes_one_without_damage(self):
        content = bytearray(pathlib.Path(self.traces[0]).read_bytes())
        content[len(content) // 2] ^= 0x55
        pathlib.Path("broken0").write_bytes(content)
        if len(self.lines[self.traces[0]].records) < 20_000:
            return  # one block, and that is damaged
        done = qtrace("cut", "broken0", "-o", "once", code=FINDINGS)
        self.assertEqual(done.stderr, "qtrace: broken0: left out 1 damaged place\n")
        qtrace("check", "once")
        qtrace("recover", "broken0", "recovered0", code=FINDINGS)
        self.assertEqual(pathlib.Path("once").read_bytes(), pathlib.Path("recovered0").read_bytes())
        qtrace("cut", "once", "--from", "5", "--every", "3000", "--window", "1500", "-o", "twice")
        qtrace("check", "twice")
        numbers = Lines("twice").records
        self.assertEqual(set(numbers), {n for n in Lines("once").records if n >= 5 and (n - 5) % 3000 < 1500})


class Command(CutStreams):
    """Of one stream is enough."""

    def test_of_a_base_name_each_file_becomes_one_of_the_other(self):
        qtrace("cut", "trace", "--count", "10", "-o", "part")
        for name in self.traces:
            self.assertEqual(len(Lines(name.replace("trace", "part")).records), 10)

    def test_an_existing_file_is_replaced_only_on_request(self):
        pathlib.Path("once").write_text("precious", encoding="utf-8")
        done = qtrace("cut", "trace0", "-o", "once", code=FAILED)
        self.assertEqual(done.stderr, "qtrace: once exists already; --force replaces it\n")
        self.assertEqual(pathlib.Path("once").read_text(encoding="utf-8"), "precious")
        qtrace("cut", "trace0", "-o", "once", "--force")
        qtrace("check", "once")

    def test_says_what_it_wrote(self):
        self.assertEqual(qtrace("cut", "trace0", "--count", "10", "-o", "once").stdout,
                         "once: 10 records and 1 header in 1 block\n")
        done = qtrace("cut", "--json", "trace0", "--count", "10", "-o", "once", "--force")
        self.assertEqual(json.loads(done.stdout), {"from": "trace0", "to": "once", "blocks": 1, "records": 10, "headers": 1,
                                                   "damaged_places": 0, "open_end": True})

    def test_refuses_what_makes_no_sense(self):
        for options, reason in ((["--every", "5"], "--every requires --window"),
                                (["--window", "5"], "--window requires --every"),
                                (["--every", "0", "--window", "1"], "`0` is not a number for --every: 1 or more expected"),
                                (["--every", "5", "--window", "0"], "`0` is not a number for --window: 1 or more expected"),
                                (["--every", "5", "--window", "6"], "--window 6 is more than --every 5")):
            done = qtrace("cut", "trace0", "-o", "once", *options, code=USAGE)
            self.assertEqual(done.stderr, f"qtrace: {reason}\nSee `qtrace cut --help`.\n")
        done = qtrace("cut", "trace0", "-o", "once", "--from", "99999999", code=FAILED)
        self.assertRegex(done.stderr, r"^qtrace: trace0: no record 99999999: the file has \d+\n$")
        self.assertFalse(pathlib.Path("once").exists())

    def test_nothing_is_left_of_a_cut_that_does_not_fit_on_the_disk(self):
        limited = f'ulimit -f 4; trap "" XFSZ; exec "{QTRACE}" cut -o once trace0'
        done = subprocess.run(["bash", "-c", limited], capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (FAILED, "qtrace: once: File too large\n"))
        self.assertFalse(list(pathlib.Path().glob("once*")))

    def test_a_closed_pipe_leaves_the_whole_file(self):
        done = subprocess.run(f'"{QTRACE}" cut --from 1 -o once trace0 >&-', shell=True, capture_output=True, check=False)
        self.assertEqual(done.returncode, FAILED)
        qtrace("check", "once")

    @staticmethod
    def make_long_trace():
        """Many blocks: a trace of many times the records, with numbers that fall."""
        content = pathlib.Path("trace0").read_bytes()
        pathlib.Path("long0").write_bytes(content[:16] + content[16:] * 3000)

    def test_an_interrupt_leaves_nothing_and_the_memory_is_bounded(self):
        self.make_long_trace()
        for _ in range(10):  # the work may be done before the signal comes
            pathlib.Path("once").unlink(missing_ok=True)
            if self.status_of_an_interrupted_cut() < 0:
                break
        self.assertFalse(list(pathlib.Path().glob("once*")))
        small = f"ulimit -v {64 * 1024}; exec"
        if subprocess.run(["bash", "-c", f'{small} "{QTRACE}" --version'], capture_output=True, check=False).returncode:
            return  # an instrumented program needs more for nothing at all
        limited = f'{small} "{QTRACE}" cut long0 -o once 2>messages'
        done = subprocess.run(["bash", "-c", limited], stdout=subprocess.DEVNULL, check=False)
        self.assertEqual(done.returncode, FINDINGS, pathlib.Path("messages").read_text(encoding="utf-8"))

    def status_of_an_interrupted_cut(self):
        with subprocess.Popen([QTRACE, "cut", "long0", "-o", "once"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL) as process:
            while not list(pathlib.Path().glob("once.unfinished-*")) and process.poll() is None:
                time.sleep(0.001)
            process.send_signal(signal.SIGINT)
            self.assertIn(process.wait(), (-signal.SIGINT, FINDINGS))
            return process.returncode

    def test_long_work_shows_progress_on_a_terminal(self):
        self.make_long_trace()
        progress = re.compile(rb"long0: \d+ records, .*M/s")
        shown = b""
        for _ in range(10):  # the work may be done before it can be stopped
            shown = self.shown_by_a_slow_cut()
            if progress.search(shown):
                break
        self.assertRegex(shown, progress)

    @staticmethod
    def shown_by_a_slow_cut():
        """What it shows on a terminal when it is stopped at its work for longer than the second in which it shows nothing."""
        pathlib.Path("once").unlink(missing_ok=True)
        terminal, other = pty.openpty()
        with subprocess.Popen([QTRACE, "cut", "long0", "-o", "once"], stdout=subprocess.DEVNULL, stderr=other,
                              env=os.environ | {"TERM": "xterm"}) as process:
            os.close(other)
            while process.poll() is None and not list(pathlib.Path().glob("once.unfinished-*")):
                time.sleep(0.001)
            process.send_signal(signal.SIGSTOP)
            time.sleep(1.1)
            process.send_signal(signal.SIGCONT)
            shown = b""
            try:
                while piece := os.read(terminal, 4096):
                    shown += piece
            except OSError:
                pass
            process.wait()
        os.close(terminal)
        return shown


def main():
    whole = "sample" in STREAM.name
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(Command if whole else CutStreams)
    sys.exit(not unittest.TextTestRunner().run(suite).wasSuccessful())


if __name__ == "__main__":
    main()
