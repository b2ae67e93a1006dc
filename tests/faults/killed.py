"""Kills the replay host at random moments and looks at what it leaves."""

import random
import re
import signal
import subprocess
import time

import faults

PAGE = 4096  # what the system writes at once
KILLS = 500 if faults.LONG else 40
SEED = 1


class Killed(faults.Fault_Test):
    @classmethod
    def setUpClass(cls):
        cls.place = faults.Folder()
        cls.place.stream = faults.STREAMS / "two-cpu.jsonl.zst"
        cls.place.clear()
        cls.place.write_script(["start {out}/trace txt {out}/text", "run 12000", "stop"])
        begin = time.monotonic()
        whole = cls.place.run()
        cls.seconds = time.monotonic() - begin
        assert whole.code == 0, whole.says()
        cls.text = {tid: (cls.place.out / f"text{tid}").read_bytes() for tid in (0, 1)}
        cls.records = {tid: faults.records_of(cls.place.out / f"trace{tid}") for tid in (0, 1)}

    @classmethod
    def tearDownClass(cls):
        cls.place.remove()

    def kill_after(self, seconds):
        """Whether it was still running."""
        self.place.clear()
        begin = time.monotonic()
        with subprocess.Popen(self.place.command(), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL) as host:
            try:
                host.wait(seconds)
            except subprocess.TimeoutExpired:
                host.kill()
            if host.wait() == -signal.SIGKILL:
                return True
        self.seconds = min(self.seconds, time.monotonic() - begin)
        return False

    def check_text(self, tid):
        """The whole lines of the text trace so far, and whether the host was killed inside the write of another one,
        of which a part is there: then up to the end of a page."""
        path = self.place.out / f"text{tid}"
        text = path.read_bytes() if path.exists() else b""
        self.assertTrue(self.text[tid].startswith(text), f"text{tid} differs from that of a whole run")
        is_cut = text != b"" and not text.endswith(b"\n")
        if is_cut:
            self.assertEqual(len(text) % PAGE, 0, f"text{tid} ends with {text[-80:]}")
            text = text[: text.rindex(b"\n") + 1]
        return self.lines_of(text), is_cut

    @staticmethod
    def lines_of(text):
        return text.count(b"\n(seq:") + text.startswith(b"(seq:")

    def check_trace(self, tid):
        """Readable records, and whether the reader says that the file is cut."""
        path = self.place.out / f"trace{tid}"
        if not path.exists():
            return 0, True
        info = faults.tool("info", path)
        if path.stat().st_size == 0:
            self.assertEqual(info.code, 1, info.says())
            return 0, True
        records = faults.records_of(path)
        self.assertEqual(records, self.records[tid][: len(records)])
        self.assertEqual(int(re.search(r"records +(\d+)", info.out)[1]), len(records), info.says())
        cut = info.code == 3
        if cut:
            self.assertRegex(info.out, "was cut, (or )?its writer died", info.says())
        else:
            self.assertEqual((info.code, len(records)), (0, len(self.records[tid])), info.says())
        return len(records), cut

    def test_killed_host_leaves_whole_lines_and_whole_blocks(self):
        moments = random.Random(SEED)
        runs = killed = lines = cut_lines = records = readable = torn = 0
        while killed < KILLS:
            runs += 1
            killed += self.kill_after(moments.uniform(0, 1) * self.seconds)
            for tid in (0, 1):
                lines_here, is_cut = self.check_text(tid)
                cut_lines += is_cut
                records_here, cut = self.check_trace(tid)
                # a record is written right after its line, but kept until its block is full
                self.assertLessEqual(records_here, lines_here)
                lines, records = lines + lines_here, records + records_here
                torn += cut
                readable += not cut
        faults.report(f"killed: {runs} runs, {killed} killed before their end; {torn} traces cut, {readable} complete; "
                      f"{lines} whole text lines, {cut_lines} cut inside their write, {records} records readable")


if __name__ == "__main__":
    faults.main()
