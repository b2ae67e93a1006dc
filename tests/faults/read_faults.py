"""Fails each single read of the files that `qtrace` and `replay` are given: none of them takes a part for the whole."""

import errno
import json
import os
import subprocess

import faults

# Commands on a folder with a trace of two threads, its text and page-table entries. {out} is for what they write.
COMMANDS = {
    "info": ["info", "{in}/trace0"],
    "info --verify": ["info", "--verify", "{in}/trace0"],
    "info of a base name": ["info", "{in}/trace"],
    "dump": ["dump", "{in}/trace0"],
    "dump of a range": ["dump", "--from", "100", "--count", "5", "{in}/trace0"],
    "dump --json": ["dump", "--json", "{in}/trace0"],
    "dump --pte": ["dump", "--pte", "{in}/pte0"],
    "check": ["check", "{in}/trace0"],
    "check --deep": ["check", "--deep", "{in}/trace0"],
    "check --text": ["check", "--text", "{in}/text0", "{in}/trace0"],
    "check --pte": ["check", "--pte", "{in}/pte0", "{in}/trace0"],
    "stats": ["stats", "{in}/trace0"],
    "stats of chosen records": ["stats", "--kind", "load", "{in}/trace0"],
    "tlb": ["tlb", "{in}/trace0"],
    "report": ["report", "-o", "{out}/report.html", "{in}/trace0"],
    "diff": ["diff", "{in}/trace0", "{in}/trace1"],
    "diff of equal files": ["diff", "{in}/trace0", "{in}/copy0"],
    "recover": ["recover", "{in}/trace0", "{out}/saved0"],
    "cut": ["cut", "--from", "10", "--count", "50", "-o", "{out}/part0", "{in}/trace0"],
    "export": ["export", "--format", "csv", "-o", "{out}/table.csv", "{in}/trace0"],
    "plan": ["plan", "--parts", "3", "{in}/trace0"],
}
REASON = errno.ESTALE  # which is the fallback of nobody: who says so has kept it
MOST_READS = 8  # of a command that are failed: the first ones and the last


class Read_Faults(faults.Fault_Test):
    @classmethod
    def setUpClass(cls):
        cls.place = faults.Folder(faults.small_stream(3000, registers=6))
        cls.addClassCleanup(cls.place.remove)
        cls.place.clear()
        cls.place.write_script(["start {out}/trace txt {out}/text pte {out}/pte", "run", "stop"])
        assert cls.place.run().code == 0
        (cls.place.out / "copy0").write_bytes((cls.place.out / "trace0").read_bytes())
        cls.made = cls.place.path / "made"

    def run_with(self, words, number, how=REASON, for_ever=False):
        """The result, the number of reads below the input folder, and what was written."""
        self.made.mkdir(exist_ok=True)
        for file in self.made.iterdir():
            file.unlink()
        log = self.place.path / "log"
        environment = dict(os.environ, LD_PRELOAD="fail_disk.so", LD_LIBRARY_PATH=str(faults.BIN), FAIL_CALL="read",
                           FAIL_BELOW=str(self.place.out), FAIL_AT=str(number), FAIL_HOW=str(how), FAIL_LOG=str(log),
                           FAIL_FOR_EVER="1" if for_ever else "")
        done = subprocess.run(words, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=faults.SECONDS)
        result = faults.Result(done.returncode, done.stdout.decode(), done.stderr.decode())
        return result, int(log.read_text().split()[0]), {file.name: file.read_bytes() for file in self.made.iterdir()}

    def words_of(self, command):
        words = [word.replace("{in}", str(self.place.out)).replace("{out}", str(self.made)) for word in COMMANDS[command]]
        return [str(faults.BIN / "qtrace"), *words]

    @staticmethod
    def some_of(count):
        numbers = range(1, count + 1)
        return numbers if count <= MOST_READS else [*numbers[:MOST_READS - 2], *numbers[-2:]]

    def test_each_failing_read_is_a_failure_with_its_reason(self):
        cases = 0
        for command in COMMANDS:
            words = self.words_of(command)
            whole, count, files = self.run_with(words, 0)
            self.assertIn(whole.code, (0, 3), f"{command}: {whole.says()}")
            self.assertGreater(count, 1, command)
            for number in self.some_of(count):
                for for_ever in (False, True):
                    result, reads, made = self.run_with(words, number, for_ever=for_ever)
                    case = f"{command}: read {number} of {count}{' and all others' * for_ever}: {result.says()}"
                    cases += 1
                    # It was read again, or never: threads that share the work read ahead as far as they come.
                    if result.code == whole.code and (reads < number or not for_ever):
                        self.assertEqual((result.out, result.err, made), (whole.out, whole.err, files), case)
                        continue
                    self.assertEqual(result.code, 1, case)
                    self.assertIn(os.strerror(REASON), result.err, case)
                    self.assertEqual(made, {}, case)
                    for claim in ("no difference", "all invariants hold", "instructions"):
                        self.assertNotIn(claim, result.out, case)
                    self.assertNotIn("text line", result.out, case)  # a text that cannot be read differs in nothing
        faults.report(f"reads: {cases} failing reads of {len(COMMANDS)} commands")
        self.assertGreater(cases, 100)

    def test_interrupted_and_short_reads_change_nothing(self):
        for command in COMMANDS:
            words = self.words_of(command)
            whole, count, files = self.run_with(words, 0)
            # standard streams take an interruption for a failure; the system interrupts no read of their files
            by_streams = "--pte" in words or "--text" in words
            for number in {1, 2, count}:
                for how in ("short",) if by_streams else (errno.EINTR, "short"):
                    result, _, made = self.run_with(words, number, how)
                    case = f"{command}: read {number} of {count}, {how}: {result.says()}"
                    self.assertEqual((result.code, result.out, result.err), (whole.code, whole.out, whole.err), case)
                    self.assertEqual(made, files, case)

    def test_stream_or_script_that_cannot_be_read_on_is_a_failure(self):
        stream = self.place.out / "stream.jsonl"
        script = self.place.out / "script"
        machine, *commits = self.place.stream.read_text().splitlines(keepends=True)
        contexts = "".join(json.dumps({"t": "context", "tid": thread}) + "\n" for thread in (0, 1))
        stream.write_text(machine + contexts + "".join(commits))
        script.write_text("run\nstatus\n")
        self.addCleanup(stream.unlink)
        self.addCleanup(script.unlink)
        for words in ([stream, script], ["--check", stream]):
            words = [str(faults.BIN / "replay"), *map(str, words)]
            whole, count, _ = self.run_with(words, 0)
            self.assertEqual(whole.code, 0, whole.says())
            self.assertGreater(count, 2)
            for number in self.some_of(count):
                result, _, _ = self.run_with(words, number)
                case = f"{words}: read {number} of {count}: {result.says()}"
                self.assertEqual(result.code, 1, case)
                self.assertIn(os.strerror(REASON), result.out + result.err, case)
            for how in (errno.EINTR, "short"):
                result, _, _ = self.run_with(words, 2, how)
                self.assertEqual((result.code, result.out, result.err), (whole.code, whole.out, whole.err), result.says())


if __name__ == "__main__":
    faults.main()
