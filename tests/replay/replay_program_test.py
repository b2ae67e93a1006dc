"""The replay program as its users meet it: terminals, signals, descriptors, and files that are in the way.

    replay_program_test.py PROGRAMS"""

import json
import os
import pathlib
import pty
import re
import resource
import select
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

BIN = pathlib.Path(sys.argv.pop(1)).resolve()
REPLAY, QTRACE, PLUGIN, FAKE = BIN / "replay", BIN / "qtrace", BIN / "plugin_qtbin.so", BIN / "fake_plugin.so"
SECONDS = 30  # nothing here takes a tenth of that
resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def stream(threads=2, commits=20, **machine):
    lines = [{"t": "machine", "processors": 1, "threads": threads, **machine}]
    for n in range(commits):
        lines.append({"t": "commit", "tid": n % threads, "seq": n + 1, "pc": hex(0x1000 + 4 * n), "npc": hex(0x1004 + 4 * n)})
    return "".join(json.dumps(line) + "\n" for line in lines)


class Replay_Test(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="replay-program-")
        self.addCleanup(place.cleanup)
        self.folder = pathlib.Path(place.name).resolve()
        self.stream = self.folder / "stream.jsonl"
        self.stream.write_text(stream())

    def script(self, *commands, load=PLUGIN):
        """A script; commands of the plugin are written without their first three words."""
        lines = [f'plugin load "{load}"'] if load else []
        for command in commands:
            own = command.split()[0] in ("run", "status", "plugin", "quit", "help") or not load
            lines.append(command if own else f"plugin signal {load.name} {command}")
        path = self.folder / "script"
        path.write_text("\n".join(lines) + "\n")
        return path

    def replay(self, *commands, load=PLUGIN, source=None, **options):
        return subprocess.run([REPLAY, source or self.stream, self.script(*commands, load=load)], cwd=self.folder,
                              timeout=SECONDS, **{"stdin": subprocess.DEVNULL, "capture_output": True, "text": True,
                                                  **options})

    def files(self):
        return {path.name: path.read_bytes() for path in self.folder.iterdir() if path.is_file() and path.name != "script"}


class command_line(Replay_Test):
    def test_version_is_printed(self):
        done = subprocess.run([REPLAY, "--version"], capture_output=True, text=True, timeout=SECONDS)
        self.assertRegex(done.stdout, r"^replay \d+\.\d+\.\d+\n$")
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_gzip_stream_is_named(self):
        self.stream.write_bytes(b"\x1f\x8b\x08\0\0\0\0\0")
        done = self.replay("run")
        self.assertEqual(done.stderr, f"replay: {self.stream}: expected plain UTF-8 or zstd data, found gzip data\n")
        self.assertEqual(done.returncode, 1)


    def run_replay(self, *arguments, **options):
        done = subprocess.run([REPLAY, *arguments], cwd=self.folder, timeout=SECONDS,
                              **{"stdin": subprocess.DEVNULL, "capture_output": True, "text": True, **options})
        return done.returncode, done.stdout, done.stderr

    def test_wrong_command_lines_are_status_2(self):
        both = "replay: standard input cannot be both the stream and the commands; name a SCRIPT\n"
        self.assertEqual(self.run_replay("-"), (2, "", both))
        self.assertEqual(self.run_replay("-", "-"), (2, "", both))
        self.assertEqual(self.run_replay("--check", self.stream, "script"), (2, "", "replay: --check takes no SCRIPT\n"))
        self.assertEqual(self.run_replay()[0], 2)
        self.assertEqual(self.run_replay("--nothing", self.stream)[0], 2)
        code, out, err = self.run_replay("--help")
        self.assertEqual((code, err), (0, ""))
        self.assertIn("Exit status: 0 when every command succeeded", out)

    def test_commands_come_from_standard_input_without_a_script(self):
        for arguments in ([self.stream], [self.stream, "-"]):
            self.assertEqual(self.run_replay(*arguments, stdin=None, input="run 2\nrun x\nrun 1\n"),
                             (1, "", 'standard input:2: "x" is not a number of events\n'))
            self.assertEqual(self.run_replay(*arguments, stdin=None, input="run 2\nquit"), (0, "", ""))

    def test_stream_on_standard_input_goes_with_a_script_and_with_a_check(self):
        code, out, err = self.run_replay("-", self.script("status", load=None), stdin=None, input=stream())
        self.assertEqual((code, err), (0, ""))
        self.assertTrue(out.startswith("stream    -\nposition  line 1\nevents    0 "), out)  # of a pipe no part is known
        self.assertEqual(self.run_replay("--check", "-", stdin=None, input=stream(commits=0))[0], 0)

    def test_progress_is_shown_where_output_and_errors_are_a_terminal(self):
        terminal, other = pty.openpty()
        self.addCleanup(os.close, terminal)
        script = self.script("run", load=None)
        note = f"{script}:1: note: 20 events delivered to the end of the stream while no session was open\n"
        for streams in ({"stdout": other, "stderr": subprocess.PIPE}, {"stdout": subprocess.PIPE, "stderr": other}):
            code, out, err = self.run_replay(self.stream, script, capture_output=False, **streams)
            self.assertEqual((code, out or "", err or note), (0, "", note))
        os.close(other)
        self.assertEqual(os.read(terminal, 65536).decode(), note.replace("\n", "\r\n"))

    def test_missing_script_is_told_when_few_descriptors_are_allowed(self):
        done = self.run_replay(self.stream, "script", preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (16, 16)))
        self.assertEqual(done, (1, "", "replay: script: cannot be read: No such file or directory\n"))

    def test_script_ends_at_its_first_failure_when_asked_to(self):
        script = self.script("run x", "status", load=None)
        for option, ends in (("-e", True), ("--stop-at-failure", True), (None, False)):
            code, out, _ = self.run_replay(*filter(None, [option]), self.stream, script)
            self.assertEqual((code, out == ""), (1, ends))

    def test_script_that_is_not_there_is_an_error(self):
        self.assertEqual(self.run_replay(self.stream, "nowhere"),
                         (1, "", "replay: nowhere: cannot be read: No such file or directory\n"))

    def test_check_onto_a_full_device_fails(self):
        self.stream.write_text(stream(commits=0))
        with open("/dev/full", "w") as full:
            code, _, err = self.run_replay("--check", self.stream, stdout=full, capture_output=False, stderr=subprocess.PIPE)
        self.assertEqual((code, err), (1, "replay: standard output cannot be written\n"))

    def test_trace_that_cannot_be_written_fails(self):
        self.stream.write_text(stream(threads=1))
        (self.folder / "t0").symlink_to("/dev/full")
        done = self.replay("start t", "run", "stop")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, r"replay: .*No space left on device")


class checking_streams(Replay_Test):
    def check(self, *arguments):
        return subprocess.run([REPLAY, "--check", *arguments], capture_output=True, text=True, timeout=SECONDS)

    def test_recorded_streams_have_no_findings(self):
        streams = sorted((pathlib.Path(__file__).parents[2] / "streams").glob("*.jsonl*"))
        self.assertGreater(len(streams), 5)
        for path in streams:
            done = self.check(path)
            self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
            self.assertIn("\nfindings   0\n", done.stdout)

    def test_findings_and_refused_lines_set_the_exit_status(self):
        self.stream.write_text(stream(commits=0))
        self.assertEqual(self.check(self.stream).returncode, 0)
        self.stream.write_text(stream(commits=1))
        done = self.check(self.stream)
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"{self.stream}: line 2: thread 0: the thread commits before its first context\n", done.stdout)
        self.stream.write_text("{}\n")
        self.assertEqual(self.check(self.stream).returncode, 1)
        self.assertEqual(self.check(self.stream, "script").returncode, 2)


class plugins(Replay_Test):
    def test_shared_object_that_is_cut_is_refused(self):
        whole = PLUGIN.read_bytes()
        cut = self.folder / "cut.so"
        for length in (0, 10, 64, 1000, 4096, 8192, len(whole) // 2):
            cut.write_bytes(whole[:length])
            done = self.replay(f'plugin load "{cut}"', load=None)
            self.assertEqual(done.returncode, 1, length)
            self.assertIn("cannot load the plugin: ", done.stderr, length)
        self.assertRegex(done.stderr, rf"{cut}: cut off: {length} of at least \d+ bytes")

    def test_fifo_is_no_shared_object(self):
        os.mkfifo(self.folder / "fifo.so")
        done = self.replay("plugin load fifo.so", load=None)
        self.assertIn("fifo.so: not a regular file", done.stderr)

    def test_status_shows_paused_threads_and_skipped_files(self):
        self.stream.write_text(stream(threads=4))
        (self.folder / "text1").mkdir()
        (self.folder / "text2").mkdir()
        done = self.replay("start t txt text", "pause cpu 0 thread 3", "run 1", "status", "stop")
        self.assertIn("\npaused    threads 3\n", done.stdout)
        self.assertIn("\nskipped   text trace of threads 1, 2: the file could not be created\n", done.stdout)
        self.assertIn("machine   1 processor of 4 threads, ", done.stdout)
        self.assertIn("events    1 delivered: 1 commit, ", done.stdout)
        self.assertRegex(done.stdout, r"\nplugin    .*plugin_qtbin.so, session open\n")

    def test_status_lists_threads_and_ranges_of_them(self):
        self.stream.write_text(stream(threads=13))
        pauses = [f"pause cpu 0 thread {n}" for n in (0, 2, 3, 5, 6, 7, 8, 10, 11, 12)]
        done = self.replay("start t", *pauses, "run", "status", "resume", "run", "status", "stop")
        self.assertIn("\npaused    threads 0, 2, 3, 5 to 8, 10 to 12\n", done.stdout)

    def test_status_says_that_no_thread_is_paused(self):
        done = self.replay("start t", "run 4", "status", "stop")
        self.assertIn("\npaused    no thread\n", done.stdout)
        self.assertNotIn("skipped", done.stdout)

    def test_status_names_the_family_of_skipped_files(self):
        (self.folder / "entries0").mkdir()
        for files in ("txt text pte entries", "pte entries"):
            done = self.replay(f"start t {files}", "run 4", "status", "stop")
            self.assertIn("\nskipped   page-table-entry trace of threads 0: the file could not be created\n", done.stdout)
            self.assertNotIn("skipped   text trace", done.stdout)

    def test_signal_for_another_plugin_is_refused(self):
        done = self.replay("plugin signal other.so start t", load=FAKE)
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"script:2: the plugin other.so is not loaded; {FAKE} is", done.stderr)
        self.assertNotIn("signal [", done.stdout)


class files_in_the_way(Replay_Test):
    def expect_refused(self, commands, file, role):
        before = self.files()
        done = self.replay(*commands)
        self.assertEqual(done.returncode, 1, commands)
        self.assertIn(f"{file} is {role}; it is not written over\n", done.stderr)
        self.assertNotIn("Start generating", done.stdout)
        self.assertEqual(self.files(), before)

    def test_start_txt_pte_and_warm_onto_the_stream_are_refused(self):
        self.stream = self.stream.rename(self.folder / "stream0")
        for commands in (["start stream"], ["start t txt stream"], ["start t PTEs stream"], ["warm stream0"]):
            self.expect_refused(commands, "stream0", "the commit stream")

    def test_stream_is_known_by_other_names(self):
        (self.folder / "alias1").symlink_to(self.stream)
        os.link(self.stream, self.folder / "hard0")
        self.expect_refused(["start alias"], "alias1", "the commit stream")
        self.expect_refused(["start hard"], "hard0", "the commit stream")

    def test_stream_from_standard_input_is_known(self):
        before = self.files()
        with self.stream.open() as source:
            done = self.replay("warm stream.jsonl", source="-", stdin=source)
        self.assertIn("stream.jsonl is the commit stream", done.stderr)
        self.assertEqual(self.files(), before)

    def test_script_and_plugin_are_not_written_over(self):
        self.expect_refused(["warm script"], "script", "the script")
        self.expect_refused([f'warm "{PLUGIN}"'], PLUGIN, "the loaded plugin")

    def test_two_traces_into_one_file_are_refused(self):
        self.expect_refused(["start same txt same"], "same0", "the trace of this session")
        self.expect_refused(["start a txt same pte same"], "same0", "the text trace of this session")
        self.expect_refused(["start ./same txt same"], "same0", "the trace of this session")
        self.stream.write_text(stream(threads=12))
        self.expect_refused(["start a1 txt a"], "a10", "the trace of this session")

    def test_same_files_without_thread_numbers_are_refused(self):
        self.stream.write_text(stream(threads=1, options=[450]))
        self.expect_refused(["start same1 txt same2"], "same", "the trace of this session")

    def test_warm_onto_the_open_trace_is_refused(self):
        done = self.replay("start t", "warm t1", "run", "stop")
        self.assertIn("t1 is the trace of this session; it is not written over\n", done.stderr)
        self.assertEqual(subprocess.run([QTRACE, "check", self.folder / "t"], capture_output=True).returncode, 0)

    def test_warm_onto_a_closed_trace_is_allowed(self):
        done = self.replay("start t", "run", "stop", "warm t1")
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_next_session_may_have_the_same_name(self):
        done = self.replay("start t", "run 10", "start t txt x", "run", "stop", "start t", "stop")
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_start_says_which_older_files_stay(self):
        for name in ("t0", "t2", "t10", "t03", "t2x", "x3"):
            (self.folder / name).write_text("old")
        done = self.replay("start t txt x", "run", "stop")
        self.assertEqual(done.returncode, 0)
        self.assertEqual(done.stderr, f"{self.folder}/script:2: note: older files that this session does not replace: t2, t10, x3\n")

    def test_second_host_with_the_same_base_name_is_refused(self):
        os.mkfifo(self.folder / "commands")
        first = subprocess.Popen([REPLAY, self.stream, "commands"], cwd=self.folder, stdin=subprocess.DEVNULL,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        with (self.folder / "commands").open("w") as commands:
            print(f'plugin load "{PLUGIN}"\nplugin signal plugin_qtbin.so start t txt x\nrun 5', file=commands, flush=True)
            deadline = time.monotonic() + SECONDS
            while not (self.folder / "x1").exists() and time.monotonic() < deadline:
                time.sleep(0.01)
            for base in ("start t", "start other txt x"):
                second = self.replay(base, "run", "stop")
                self.assertRegex(second.stderr, r"script:2: [tx]0 is being written by another replay host\n")
                self.assertEqual(second.returncode, 1)
            print("run\nplugin signal plugin_qtbin.so stop", file=commands, flush=True)
        self.assertEqual(first.communicate(timeout=SECONDS)[1], "")
        self.assertEqual(subprocess.run([QTRACE, "check", self.folder / "t"], capture_output=True).returncode, 0)
        self.assertFalse((self.folder / "other0").exists())

    def test_session_that_was_not_opened_leaves_no_file(self):
        done = self.replay("start t", load=FAKE)
        self.assertEqual(done.returncode, 0)
        self.assertEqual(list(self.files()), ["stream.jsonl"])

    def test_file_size_limit_is_an_error_message(self):
        self.stream.write_text(stream(commits=5000))
        done = self.replay("start t txt x", "run", "stop",
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (200, 200)))
        self.assertEqual(done.returncode, 1)
        self.assertIn("File too large", done.stderr)


class runs_without_a_session(Replay_Test):
    def test_end_of_the_stream_is_noted(self):
        done = self.replay("run 3", "run")
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stderr, "script:3: note: 17 events delivered to the end of the stream while no session was open\n$")

    def test_skipping_before_a_session_is_not(self):
        done = self.replay("run 3", "start t", "run", "stop")
        self.assertEqual((done.returncode, done.stderr), (0, ""))


class standard_descriptors(Replay_Test):
    def closed(self, descriptors, *arguments, program=REPLAY):
        def close():
            for descriptor in descriptors:
                os.close(descriptor)

        # A shell in between would open them again.
        pipes = {name: subprocess.PIPE for number, name in enumerate(("stdin", "stdout", "stderr")) if number not in descriptors}
        process = subprocess.Popen([program, *arguments], cwd=self.folder, preexec_fn=close, **pipes)
        out, err = process.communicate(b"" if 0 not in descriptors else None, timeout=SECONDS)
        return process.returncode, (out or b"").decode(), (err or b"").decode()

    def test_stream_is_not_read_as_commands_when_standard_input_is_closed(self):
        harm = self.folder / "harm"
        self.stream.write_text(stream() + f"plugin load {harm}\n")
        code, out, err = self.closed([0], self.stream)
        self.assertEqual(code, 1)
        self.assertIn("standard input:1: expected readable input: Bad file descriptor", err)
        self.assertNotIn("unknown command", err)

    def test_trace_gets_no_warnings_when_output_is_closed(self):
        self.assertEqual(self.replay("start a", "stop x", "run", "start").returncode, 1)
        expected = self.replay("start a", "run", "stop")
        self.assertEqual(expected.returncode, 0)
        script = self.script("start b", "start", "run", "start", "pause cpu 9", "stop")
        for closed in ([1, 2], [0, 1, 2], [2]):
            self.closed(closed, self.stream, script)
            for n in (0, 1):
                self.assertEqual((self.folder / f"b{n}").read_bytes(), (self.folder / f"a{n}").read_bytes(), closed)

    def test_closed_standard_output_is_an_error(self):
        code, _, err = self.closed([1], self.stream, self.script("status"))
        self.assertEqual((code, err), (1, "replay: standard output cannot be written\n"))

    def test_qtrace_writes_no_message_into_its_output(self):
        self.replay("start t", "run", "stop")
        recovered = subprocess.run([QTRACE, "recover", self.folder / "t0", self.folder / "expected0"], capture_output=True)
        self.assertNotEqual(recovered.stdout + recovered.stderr, b"")
        self.closed([1, 2], "recover", self.folder / "t0", self.folder / "out0", program=QTRACE)
        self.assertEqual((self.folder / "out0").read_bytes(), (self.folder / "expected0").read_bytes())


class hostile_text(Replay_Test):
    ESCAPE = "\x1b]0;title\x07\x1b[2J\x9b31m"

    def expect_clean(self, done):
        self.assertNotRegex(done.stdout + done.stderr, "[\x00-\x08\x0b-\x1f\x7f-\x9f]")

    def test_escape_sequences_of_a_stream_are_not_shown(self):
        self.stream.write_text(stream(source=self.ESCAPE) + json.dumps({"t": "commit", self.ESCAPE: 1}) + "\n")
        done = self.replay("status", "run")
        self.assertIn("]0;title??[2J?31m", done.stdout)
        self.assertIn('key "?]0;title', done.stderr)
        self.expect_clean(done)

    def test_escape_sequences_of_commands_and_file_names_are_not_shown(self):
        done = self.replay(f'"{self.ESCAPE}"', f'plugin load "{self.ESCAPE}"', f'plugin signal "{self.ESCAPE}"',
                           f'run "{self.ESCAPE}"', f'help "{self.ESCAPE}"', load=None)
        self.assertEqual(done.stderr.count("?[2J"), 4)
        self.expect_clean(done)
        named = self.folder / f"s{self.ESCAPE}"
        self.expect_clean(self.replay("run", source=named))


class signals(Replay_Test):
    """Whatever the host waits for, a signal ends it at once, with the status of an interrupted program."""

    def expect_end(self, source, script, ready, number):
        process = subprocess.Popen([REPLAY, source, script], cwd=self.folder, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        ready(process)
        began = time.monotonic()
        process.send_signal(number)
        try:
            out, err = process.communicate(timeout=10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            self.fail(f"signal {number} ended nothing")
        self.assertEqual(process.returncode, 130, (number, out, err))
        self.assertLess(time.monotonic() - began, 5)
        return out, err

    @staticmethod
    def soon(process):
        time.sleep(0.2)

    def each_signal(self, *arguments):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                yield self.expect_end(*arguments, number)

    def test_waiting_for_a_stream(self):
        os.mkfifo(self.folder / "fifo")
        for _ in self.each_signal("fifo", self.script("run"), self.soon):
            pass

    def test_waiting_for_the_next_line_closes_the_session_in_order(self):
        os.mkfifo(self.folder / "fifo")

        def write_some(process):
            self.writer = os.open(self.folder / "fifo", os.O_WRONLY)
            os.write(self.writer, stream().encode())
            time.sleep(0.3)

        for _, err in self.each_signal("fifo", self.script("start t", "run", "stop"), write_some):
            self.assertIn("script:3: interrupted after event 20\n", err)
            os.close(self.writer)
            info = subprocess.run([QTRACE, "info", self.folder / "t"], capture_output=True, text=True)
            self.assertEqual(info.returncode, 0, info.stdout + info.stderr)

    def test_blank_lines_without_end(self):
        os.mkfifo(self.folder / "fifo")

        def write_blanks(process):
            writer = os.open(self.folder / "fifo", os.O_WRONLY)
            self.feeder = subprocess.Popen(["sh", "-c", "cat stream.jsonl; exec yes ''"], cwd=self.folder, stdout=writer,
                                           stderr=subprocess.DEVNULL)
            os.close(writer)
            time.sleep(0.3)

        for _ in self.each_signal("fifo", self.script("run"), write_blanks):
            self.feeder.wait(timeout=SECONDS)

    def test_start_on_a_fifo_without_a_reader(self):
        os.mkfifo(self.folder / "out0")
        os.mkfifo(self.folder / "text0")
        for _ in self.each_signal(self.stream, self.script("start out", "run", "stop"), self.soon):
            pass
        self.expect_end(self.stream, self.script("start t txt text", "run", "stop"), self.soon, signal.SIGTERM)

    def test_script_from_a_fifo(self):
        os.mkfifo(self.folder / "commands")
        for _ in self.each_signal(self.stream, self.folder / "commands", self.soon):
            pass
        writer = os.open(self.folder / "commands", os.O_RDWR)
        os.write(writer, b"status\n")
        out, _ = self.expect_end(self.stream, self.folder / "commands", self.soon, signal.SIGTERM)
        self.assertIn("stream    ", out)
        os.close(writer)


class Terminal:
    """A replay on a terminal of its own."""

    def __init__(self, arguments, folder, **environment):
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            try:
                os.chdir(folder)
                os.environ.pop("XDG_STATE_HOME", None)
                os.environ.update({"TERM": "vt100", "HOME": str(folder), "LC_ALL": "C.UTF-8", **environment})
                os.execv(REPLAY, [str(REPLAY), *map(str, arguments)])
            finally:
                os._exit(127)
        self.shown = ""
        self.expect("replay> ")

    def expect(self, text):
        """What is shown up to and with `text`."""
        deadline = time.monotonic() + SECONDS
        while text not in self.shown:
            if not select.select([self.terminal], [], [], max(0, deadline - time.monotonic()))[0]:
                raise AssertionError(f"{text!r} did not come; shown: {self.shown!r}")
            try:
                piece = os.read(self.terminal, 65536)
            except OSError:
                piece = b""
            if not piece:
                raise AssertionError(f"ended before {text!r}; shown: {self.shown!r}")
            self.shown += piece.decode("utf-8", "replace")
        at = self.shown.index(text) + len(text)
        before, self.shown = self.shown[:at], self.shown[at:]
        return before

    def type(self, keys):
        """A terminal holds no more than some 4,000 characters that nobody has read yet: in pieces."""
        data = keys.encode()
        while data:
            if select.select([self.terminal], [], [], 0)[0]:
                self.shown += os.read(self.terminal, 65536).decode("utf-8", "replace")
            data = data[os.write(self.terminal, data[:200]):]
            time.sleep(0.005)

    def end(self):
        deadline = time.monotonic() + SECONDS
        while True:
            ended, status = os.waitpid(self.process, os.WNOHANG)
            if ended:
                os.close(self.terminal)
                return os.waitstatus_to_exitcode(status)
            if time.monotonic() > deadline:
                os.kill(self.process, signal.SIGKILL)
                raise AssertionError("does not end")
            if select.select([self.terminal], [], [], 0.05)[0]:
                try:
                    self.shown += os.read(self.terminal, 65536).decode("utf-8", "replace")
                except OSError:
                    time.sleep(0.01)


class terminal(Replay_Test):
    def start(self, source=None, **environment):
        return Terminal([source or self.stream], self.folder, **environment)

    def quit(self, console):
        console.type("quit\n")
        self.assertEqual(console.end(), 0)

    def test_line_of_4000_characters_and_tab(self):
        console = self.start()
        console.type("x" * 4000 + "\t\n")
        console.expect("unknown command")
        console.type("plugin load " + "y" * 4000 + "\t\t\n")
        console.expect("cannot load the plugin")
        console.type("quit\n")
        self.assertEqual(console.end(), 0)

    def test_tab_completes_commands_files_and_the_plugins_words(self):
        (self.folder / "own plugin").mkdir()
        (self.folder / "tracing.so").symlink_to(PLUGIN)
        console = self.start()
        console.type("plu\tl\ttrac\t\n")
        console.expect("loaded tracing.so")
        console.expect("events Event_Instruction_PreExecution, Event_Instruction_Commit, Event_PTE_Access, Event_RTPTE_Access")
        console.type("plugin si\ttr\tsta\tout tx\ttext\n")
        console.expect("Start generating qtrace into file out* and text trace text*")
        console.type("plugin si\ttr\tpa\tcp\t0 th\t1\n")
        console.type("status\n")
        console.expect("paused    threads 1")
        console.type("quit\n")
        self.assertEqual(console.end(), 0)

    def test_tab_shows_what_may_follow(self):
        console = self.start()
        console.type("plugin \t")
        console.expect("load  signal  unload")
        console.type("\x15quit\n")
        self.assertEqual(console.end(), 0)

    def test_lines_are_kept_between_sessions(self):
        console = self.start()
        console.type("run 7\nquit\n")
        self.assertEqual(console.end(), 0)
        console = self.start()
        console.type("\x1b[A\x1b[A\n")
        console.expect("replay> ")
        console.type("status\n")
        console.expect("7 delivered")
        console.type("quit\n")
        self.assertEqual(console.end(), 0)

    def test_progress_tells_events_of_this_run_and_the_part_of_the_input(self):
        lines = self.stream.read_text().splitlines(keepends=True)
        console = self.start()
        for run, events, last in (("run 5", 5, 6), ("run 3", 3, 9), ("run", 12, 21)):
            part = round(100 * sum(map(len, lines[:last])) / sum(map(len, lines)))
            console.type(f"{run}\n")
            self.assertRegex(console.expect("replay> "), rf"\r{events} events, {part} % of the input, \d+ thousand/s\x1b\[K\r\n")
        self.quit(console)

    def test_progress_of_a_pipe_has_no_part(self):
        os.mkfifo(self.folder / "fifo")
        writer = os.open(self.folder / "fifo", os.O_RDWR)
        os.write(writer, self.stream.read_bytes())
        console = self.start("fifo")
        console.type("run 5\n")
        self.assertRegex(console.expect("replay> "), r"\r5 events, \d+ thousand/s\x1b\[K\r\n")
        self.quit(console)
        os.close(writer)

    def test_history_is_where_state_belongs(self):
        state, home = self.folder / "state", self.folder / "home"
        for environment, place in (
            ({"XDG_STATE_HOME": str(state), "HOME": str(home)}, state / "replay_history"),
            ({"XDG_STATE_HOME": str(state), "HOME": ""}, state / "replay_history"),
            ({"XDG_STATE_HOME": "", "HOME": str(home)}, home / ".local/state/replay_history"),
            ({"XDG_STATE_HOME": "", "HOME": ""}, None),
        ):
            with self.subTest(environment):
                before = set(self.folder.rglob("*"))
                self.quit(self.start(**environment))
                made = {path for path in self.folder.rglob("*") if path.is_file()} - before
                self.assertEqual(made, {place} if place else set())
                if place:
                    place.unlink()

    def test_history_has_the_last_1000_lines_and_none_twice_in_a_row(self):
        history = self.folder / ".local/state/replay_history"
        history.parent.mkdir(parents=True)
        history.write_text("_HiStOrY_V2_\n" + "".join(f"run\\040{n}\n" for n in range(1, 1000)))
        console = self.start()
        console.type("status\n")
        console.expect("replay> ")
        console.type("status\n")
        console.expect("replay> ")
        self.quit(console)
        kept = history.read_text().splitlines()
        self.assertEqual(len(kept), 1001)
        self.assertEqual((kept[1], kept[-3:]), ("run\\0402", ["run\\040999", "status", "quit"]))

    def test_tab_takes_files_as_far_as_they_agree(self):
        for name in ("sub/way-one", "sub/way-two", ".hidden"):
            (self.folder / name).parent.mkdir(exist_ok=True)
            (self.folder / name).write_text("x")
        console = self.start()
        console.type("plugin load su\tw\to\t\n")
        console.expect("sub/way-one: ")
        console.expect("replay> ")
        console.type("plugin load \t\t")
        self.assertNotIn(".hidden", console.expect("sub/"))
        console.type("\x15plugin load .h\t\n")
        console.expect(".hidden: ")
        console.expect("replay> ")
        console.type("plugin load sub/way-\t")
        console.expect("sub/way-one  sub/way-two  ")
        console.type("\x15")
        self.quit(console)

    def test_completion_rings_where_there_is_nothing_to_complete_alone(self):
        console = self.start()
        console.type("sta\t")
        self.assertNotIn("\a", console.expect("tus "))
        console.type("x\t")
        console.expect("\a")
        console.type("\x15")
        self.quit(console)

    def test_empty_line_does_nothing(self):
        console = self.start()
        console.type("\n\n")
        self.assertRegex(console.expect("replay> "), r"^[\r\n]*replay> $")
        console.type("status\n")
        console.expect("0 delivered")
        self.quit(console)

    def test_commands_may_be_said_to_come_from_the_terminal(self):
        console = Terminal([self.stream, "-"], self.folder)
        self.quit(console)

    def test_terminal_that_goes_away_ends_it(self):
        terminal, other = pty.openpty()
        process = subprocess.Popen([REPLAY, self.stream], cwd=self.folder, stdin=other, stdout=other, stderr=other,
                                   start_new_session=True, env=os.environ | {"HOME": str(self.folder), "TERM": "vt100"})
        os.close(other)
        shown = b""
        while b"replay> " not in shown:
            shown += os.read(terminal, 65536)
        os.close(terminal)
        self.assertEqual(process.wait(timeout=SECONDS), 0)

    def test_terminal_that_goes_away_after_an_interruption_ends_it(self):
        terminal, other = pty.openpty()
        process = subprocess.Popen([REPLAY, self.stream], cwd=self.folder, stdin=other, stdout=other, stderr=other,
                                   start_new_session=True, env=os.environ | {"HOME": str(self.folder), "TERM": "vt100"})
        os.close(other)
        shown = b""
        for prompts in (1, 2):
            while shown.count(b"replay> ") < prompts:
                shown += os.read(terminal, 65536)
            if prompts == 1:
                process.send_signal(signal.SIGINT)
        os.close(terminal)
        try:
            self.assertEqual(process.wait(timeout=SECONDS), 0)
        finally:
            process.kill()
            process.wait()

    def test_terminal_that_cannot_be_read_ends_it(self):
        terminal, other = pty.openpty()
        name = os.ttyname(other)
        unreadable = os.open(name, os.O_WRONLY | os.O_NOCTTY)
        process = subprocess.Popen([REPLAY, self.stream], cwd=self.folder, stdin=unreadable, stdout=other, stderr=other,
                                   start_new_session=True, env=os.environ | {"HOME": str(self.folder), "TERM": "vt100"})
        os.write(terminal, b"status\n")
        try:
            self.assertEqual(process.wait(timeout=SECONDS), 0)
        finally:
            process.kill()
            process.wait()
        for descriptor in (terminal, other, unreadable):
            os.close(descriptor)

    def test_letters_of_several_bytes_and_bytes_that_are_no_letter(self):
        console = self.start()
        console.type(f'plugin load "{FAKE}"\n')
        console.expect("loaded")
        console.type("plugin signal fake_plugin.so \u00e9\u20ac\n")
        console.expect("[fake_plugin.so] [\u00e9\u20ac]")
        os.write(console.terminal, b"plugin signal fake_plugin.so a\xffb\n")
        console.expect("[fake_plugin.so] [a?b]")
        self.quit(console)

    def test_control_c_gives_up_a_line(self):
        console = self.start()
        console.type("run 7")
        console.expect("run 7")
        console.type("\x03")
        console.expect("replay> ")
        console.type("status\n")
        console.expect("0 delivered")
        console.type("\x04")
        self.assertEqual(console.end(), 0)

    def test_control_c_ends_a_run_and_the_prompt_comes_back(self):
        os.mkfifo(self.folder / "fifo")
        writer = os.open(self.folder / "fifo", os.O_RDWR)
        os.write(writer, self.stream.read_bytes())
        console = self.start("fifo")
        console.type("run\n")
        time.sleep(0.3)
        console.type("\x03")
        console.expect("interrupted after event 20")
        console.expect("replay> ")
        time.sleep(0.1)
        before = self.waits_of(console.process)
        time.sleep(0.1)
        self.assertLess(self.waits_of(console.process) - before, 5)  # nothing interrupts the wait for a line any more
        console.type("quit\n")
        self.assertEqual(console.end(), 0)
        os.close(writer)

    @staticmethod
    def waits_of(process):
        """How often it has given up its processor to wait."""
        status = pathlib.Path(f"/proc/{process}/status").read_text()
        return int(status.split("\nvoluntary_ctxt_switches:")[1].split()[0])

    def test_output_of_a_plugin_is_alone_where_no_progress_is_shown(self):
        self.stream.write_text(stream(threads=1, commits=2))
        console = self.start()
        console.type(f'plugin load "{FAKE}"\n')
        console.expect("replay> ")
        for number in (1, 2):
            console.type("run 1\n")
            self.assertTrue(console.expect(f"commit 0 {number} ").endswith(f"\ncommit 0 {number} "))
            console.expect("thousand/s")
            console.expect("replay> ")
        self.quit(console)

    def test_output_of_a_plugin_clears_the_progress_line_before_it(self):
        self.stream.write_text(stream(threads=1, commits=20_000))
        os.mkfifo(self.folder / "fifo")
        lines = self.stream.read_text().splitlines(keepends=True)
        writer = os.open(self.folder / "fifo", os.O_RDWR)
        os.write(writer, lines[0].encode())
        console = self.start("fifo")
        began = time.monotonic()
        console.type(f'plugin load "{FAKE}"\nrun\n')
        feed = threading.Thread(target=self.feed_slowly, args=(writer, lines[1:]), daemon=True)
        feed.start()
        console.expect("thousand/s\x1b[K")
        console.expect("\r\x1b[Kcommit 0 ")
        console.expect("\ncommit 0 ")  # there is nothing more to clear
        console.expect("commit 0 20000 ")
        feed.join()
        console.type("\x03")
        [rate] = re.findall(r"\r20000 events, (\d+) thousand/s\x1b\[K\r\n", console.expect("replay> "))
        self.assertLessEqual(20 / (time.monotonic() - began) - 1, int(rate))
        self.assertLess(int(rate), 100_000)  # nothing is that fast
        console.type("quit\n")
        self.assertEqual(console.end(), 0)
        os.close(writer)

    def feed_slowly(self, writer, lines):
        for first in range(0, len(lines), 2000):
            os.write(writer, "".join(lines[first:first + 2000]).encode())
            time.sleep(0.03)

    def test_termination_and_hangup_leave_the_prompt(self):
        for number in (signal.SIGTERM, signal.SIGHUP):
            console = self.start()
            os.kill(console.process, number)
            self.assertEqual(console.end(), 130)

    def test_escape_sequences_of_the_plugin_are_not_shown(self):
        console = self.start()
        console.type(f'plugin load "{FAKE}"\n')
        console.expect("loaded")
        console.type("plugin signal fake_plugin.so 'a\x16\x1b[2Jb'\n")
        self.assertIn("[a?[2Jb]", console.expect("[2Jb]"))
        console.type("quit\n")
        self.assertEqual(console.end(), 0)


if __name__ == "__main__":
    unittest.main(verbosity=1)
