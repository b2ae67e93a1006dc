"""Random sessions of the replay host with the plugin: any commands in any order end in order, and what they traced can be read.

    random_sessions_test.py PROGRAMS"""

import json
import os
import pathlib
import random
import resource
import subprocess
import sys
import tempfile
import unittest

BIN = pathlib.Path(sys.argv.pop(1)).resolve()
SESSIONS = 1800 if os.environ.get("QT_LONG") == "1" else 40
SECONDS = 60  # a session takes a hundredth of that
resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def stream(chance):
    processors, threads = chance.choice(((1, 1), (1, 2), (2, 2), (1, 8)))
    options = chance.sample((450, 451), chance.randrange(3))
    lines = [{"t": "machine", "processors": processors, "threads": threads, "version": 3, "memory": "0x40000000", "options": options}]
    place = [0x1000] * processors * threads
    for number in range(chance.randrange(200)):
        tid = chance.randrange(len(place))
        if chance.random() < 0.05:
            lines.append({"t": "context", "tid": tid, "pid": chance.randrange(4), "lpid": chance.randrange(3)})
        if chance.random() < 0.1:
            lines.append({"t": "pte", "tid": tid, "pa": hex(chance.randrange(1 << 40)), "upper": "0x1", "lower": "0x2"})
        after = place[tid] + 4 if chance.random() < 0.8 else chance.randrange(1 << 20) * 4
        lines.append({"t": "commit", "tid": tid, "seq": number + 1, "pc": hex(place[tid]), "npc": hex(after),
                      "op": chance.choice(("0x60000000", "0x4800fff0", "0xe8640008")), "text": "any"})
        place[tid] = after
    text = "".join(json.dumps(line) + "\n" for line in lines)
    return text if chance.random() < 0.9 else text + chance.choice(("{", "{}\n", "[1]\n", "\n\n", '{"t":"commit","tid":99}\n'))


def command(chance):
    name = chance.choice(("a", "b", "c", "nowhere/x"))
    number = chance.randrange(10)
    signal = "plugin signal plugin_qtbin.so "
    return chance.choice((
        f"run {chance.randrange(60)}", f"run {chance.randrange(20)}", "run", "status", "help", "quit now", "plugin unload",
        f'plugin load "{BIN / "plugin_qtbin.so"}"', signal + "stop", signal + "stop", signal + f"start {name}",
        signal + f"start {name} txt {name}text pte {name}pte", signal + f"start {name} txt {name}",
        signal + f"pause cpu {number % 3} thread {number}", signal + f"resume cpu {number % 3} thread {number}", signal + "pause",
        signal + "resume", signal + f"warm {name}.warm", signal + "start", signal + f"{name} {number}", "# nothing", "", "'", name))


class random_sessions(unittest.TestCase):
    def test_end_in_order_and_leave_traces_that_can_be_read(self):
        traces = 0
        for seed in range(SESSIONS):
            with self.subTest(seed), tempfile.TemporaryDirectory(prefix="random-session-") as place:
                traces += self.play(seed, pathlib.Path(place))
        self.assertGreater(traces, SESSIONS // 4)

    def play(self, seed, folder):
        chance = random.Random(seed)
        (folder / "stream").write_text(stream(chance))
        commands = [f'plugin load "{BIN / "plugin_qtbin.so"}"', *(command(chance) for _ in range(chance.randrange(2, 25)))]
        (folder / "script").write_text("\n".join(commands) + "\n")
        done = subprocess.run([BIN / "replay", "stream", "script"], cwd=folder, stdin=subprocess.DEVNULL, capture_output=True,
                              text=True, timeout=SECONDS)
        said = "\n".join(commands) + done.stdout + done.stderr
        self.assertIn(done.returncode, (0, 1), said)
        self.assertNotIn("Sanitizer", done.stderr, said)
        files = [path for path in folder.iterdir() if path.name.rstrip("0123456789") in ("a", "b", "c") and path.stat().st_size]
        for path in files:
            if path.read_bytes()[:8] == b"\x8aQTRACE\n":
                info = subprocess.run([BIN / "qtrace", "info", "--verify", path], capture_output=True, text=True, timeout=SECONDS)
                self.assertEqual(info.returncode, 0, said + info.stdout + info.stderr)
        return len(files)


if __name__ == "__main__":
    unittest.main(verbosity=1)
