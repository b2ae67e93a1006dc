"""What the fault tests share: a session of the replay host in a folder of its own, run under some trouble."""

import json
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

BIN = Path(os.environ["QT_BIN"])  # where the programs under test are
LONG = os.environ.get("QT_LONG") == "1"
PLUGIN = BIN / "plugin_qtbin.so"
STREAMS = Path(__file__).resolve().parents[2] / "streams"
SKIPPED = 77  # exit status when nothing failed and some test could not be run here
SECONDS = 120  # nothing here takes a fraction of that; more is a hang
resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

# Every kind of output, a pause and a resume between, on whatever machine the stream has.
FULL_SESSION = ["start {out}/trace txt {out}/text pte {out}/pte", "run 10", "pause", "run 4", "resume", "run", "stop"]


def small_stream(instructions=20, threads=2, registers=1):
    """Lines of a stream: instructions in turn on all threads, each setting so many registers, page-table accesses
    between."""
    lines = [{"t": "machine", "processors": 1, "threads": threads, "version": 3, "memory": "0x1000"}]
    for i in range(instructions):
        thread = i % threads
        lines.append({"t": "commit", "tid": thread, "seq": i + 1, "pc": hex(0x1000 + 4 * i), "npc": hex(0x1004 + 4 * i),
                      "op": "0x60000000", "text": "nop",
                      "out": {"gpr": [[n, hex((i * 32 + n) ** 7 * 0x9E3779B97F4A7C15 % (1 << 64))] for n in range(registers)]}})
        if i % 5 == 4:
            lines.append({"t": "pte", "tid": thread, "pa": hex(i), "upper": "0x1", "lower": "0x2"})
    return "".join(json.dumps(line) + "\n" for line in lines)


def as_word(path):
    """A path as one word of a console command."""
    return re.sub(r"[\s\\'\"]", r"\\\g<0>", str(path))


class Result:
    def __init__(self, code, out, err):
        self.code, self.out, self.err = code, out, err

    def says(self):
        return f"exit {self.code}\n{self.out}{self.err}"


class Folder:
    """A place for a stream, a script and the files of its session."""

    def __init__(self, stream=None):
        self.path = Path(tempfile.mkdtemp(prefix="faults-")).resolve()  # as the system names it
        self.out = self.path / "out"
        self.stream = self.path / "stream.jsonl"
        if stream is not None:
            self.stream.write_text(stream)
        self.script = self.path / "script"

    def remove(self):
        shutil.rmtree(self.path, ignore_errors=True)

    def clear(self):
        shutil.rmtree(self.out, ignore_errors=True)
        self.out.mkdir()

    def write_script(self, commands, out=None):
        """Console commands: those of the plugin and `run`."""
        lines = [f"plugin load {as_word(PLUGIN)}"]
        for command in commands:
            is_run = command.split()[0] == "run"
            lines.append(command if is_run else "plugin signal plugin_qtbin.so " + command)
        self.script.write_text("\n".join(lines).replace("{out}", as_word(out or self.out)) + "\n", "utf-8")

    def command(self):
        return [str(BIN / "replay"), str(self.stream), str(self.script)]

    def run(self, preload=None, settings=None, limits=None, **options):
        environment = dict(os.environ, **(settings or {}))
        if preload:
            environment["LD_PRELOAD"] = preload  # without its folder, whose name may have blanks
            environment["LD_LIBRARY_PATH"] = str(BIN)
        else:
            environment.pop("LD_PRELOAD", None)

        def set_limits():
            for limit, value in limits.items():
                resource.setrlimit(limit, (value, value))

        done = subprocess.run(self.command(), env=environment, stdin=subprocess.DEVNULL,
                              preexec_fn=set_limits if limits else None, timeout=SECONDS, **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        return Result(done.returncode, *((text or b"").decode("utf-8", "replace") for text in (done.stdout, done.stderr)))

    def files(self):
        return {file.name: file.read_bytes() for file in sorted(self.out.iterdir()) if file.is_file()}


def tool(*words):
    done = subprocess.run([str(BIN / "qtrace"), *map(str, words)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=SECONDS)
    return Result(done.returncode, done.stdout.decode(), done.stderr.decode())


def records_of(trace):
    """The readable records of a trace file as text, without what depends on those before: number and address."""
    lines = [line for line in tool("dump", "--json", trace).out.splitlines() if '"record"' in line]
    return [re.sub(r'"record":\d+,("address":"\w+",)?', "", line) for line in lines]


def is_subsequence(some, all_of_them):
    rest = iter(all_of_them)
    return all(one in rest for one in some)


def report(text):
    """Figures for docs/reliability.md, in the test's output."""
    print(text, file=sys.stderr)


class Fault_Test(unittest.TestCase):
    maxDiff = 2000

    def folder(self, stream=None):
        folder = Folder(stream)
        self.addCleanup(folder.remove)
        folder.clear()
        return folder

    def expect_survival(self, result, why):
        """The host ended by itself."""
        self.assertIn(result.code, (0, 1), f"{why}: {result.says()}")


def main():
    ended = unittest.main(verbosity=2, exit=False).result
    sys.exit(0 if ended.wasSuccessful() and not ended.skipped else SKIPPED if ended.wasSuccessful() else 1)
