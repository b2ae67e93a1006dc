#!/usr/bin/env python3
"""interrupted_jobs_test.py BIN STREAM: commands that are interrupted while several threads read end at once, by the signal, and
leave no unfinished file."""
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS, STREAM = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
COPIES = 60  # of a trace one after the other, so that no command ends before it is interrupted
COMMANDS = [
    ["stats", "t0"],
    ["check", "t0"],
    ["dump", "t0"],
    ["info", "--verify", "t0"],
    ["tlb", "t0"],
    ["report", "-o", "page.html", "t0"],
    ["diff", "t0", "trace0"],
    ["export", "--format", "csv", "-o", "csv", "t0"],
    ["export", "--format", "ctf", "-o", "ctf", "t0"],
    ["cut", "-o", "cut0", "t0"],
    ["recover", "t0", "saved0"],
]


class Interrupted_Jobs(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="qt_interrupted_")
        cls.addClassCleanup(cls.folder.cleanup)
        cls.home = pathlib.Path(cls.folder.name)
        (cls.home / "console").write_text(f'plugin load "{PROGRAMS / "plugin_qtbin.so"}"\n'
                                          "plugin signal plugin_qtbin.so start trace\nrun\nplugin signal plugin_qtbin.so stop\n")
        subprocess.run([PROGRAMS / "replay", STREAM, "console"], cwd=cls.home, check=True, stdout=subprocess.DEVNULL)
        (cls.home / "t0").write_bytes((cls.home / "trace0").read_bytes() * COPIES)

    def interrupt(self, command, number):
        process = subprocess.Popen([PROGRAMS / "qtrace", command[0], "--jobs", "2", *command[1:]], cwd=self.home,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        tasks = pathlib.Path(f"/proc/{process.pid}/task")
        while process.poll() is None and len(list(tasks.iterdir())) < 2:
            time.sleep(0.0005)
        process.send_signal(number)
        return process.wait(timeout=20)

    def test_end_at_once_and_leave_nothing_unfinished(self):
        before = set(os.listdir(self.home))
        for command in COMMANDS:
            for number in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(command=command, signal=number):
                    self.assertEqual(self.interrupt(command, number), -number)
                    self.assertEqual(set(os.listdir(self.home)) - before, set())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
