#!/usr/bin/env python3
"""documents_test.py BIN SOURCE [--renew]: every command of README.md, docs/ and the manual pages is run, and prints what
the pages show. Each fenced block says in a comment before it what becomes of it:

    <!-- example: FOLDER -->   the commands are run in that folder of FOLDERS, and what they print is compared
    <!-- run: FOLDER -->       the commands are run there; what they print is not looked at
    <!-- console: FOLDER -->   it is a script of the replay console, run there on stream.jsonl
    <!-- stream -->            it is a commit stream in which nothing is found
    <!-- run by: FILE -->      that file runs these commands, or reads this page and runs them
    <!-- cluster -->           the commands are run on this machine: first, /shared, srun and sbatch have stand-ins
    <!-- no command -->

Blocks of Python are run by tests/python/manual_python_test.py. A line "..." stands for any lines. --renew writes what the programs print into the pages, but leaves blocks with "..." alone
when they still fit. Commands in the running text are tested by text_commands()."""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

BIN = pathlib.Path(sys.argv[1]).resolve()
SOURCE = pathlib.Path(sys.argv[2]).resolve()
RENEW = "--renew" in sys.argv[3:]
PAGES = [SOURCE / "README.md", SOURCE / "CONTRIBUTING.md", *sorted((SOURCE / "docs").glob("*.md"))]
BLOCK = re.compile(r"((?:<!-- (?P<mark>.*?) -->\n)?```[a-z]*\n)(?P<text>.*?)(```\n)", re.S)
SPAN = re.compile(r"`([^`\n]+)`")
SECONDS = 100
FINE = (0, 3)  # 3: something was found, as the page wants to show


def trace(stream, base, more=""):
    pathlib.Path("commands").write_text(
        f'plugin load "{BIN}/plugin_qtbin.so"\nplugin signal plugin_qtbin.so start "{base}"{more}\nrun\n'
        "plugin signal plugin_qtbin.so stop\n", encoding="utf-8")
    subprocess.run([BIN / "replay", stream, "commands"], check=True, stdout=subprocess.DEVNULL)


def make_sample():
    trace(SOURCE / "streams/sample.jsonl", "trace", " txt text pte pte")


def make_two_cpu():
    trace(SOURCE / "streams/two-cpu.jsonl.zst", "trace")


def make_guest():
    trace(SOURCE / "streams/guest.jsonl.zst", "guest")


def make_changed():
    """In the second run one register has another value."""
    lines = (SOURCE / "streams/sample.jsonl").read_text(encoding="utf-8").splitlines(keepends=True)
    lines[499] = lines[499].replace('"out":{"gpr":[[11,"0x0', '"out":{"gpr":[[11,"0x70')
    pathlib.Path("changed.jsonl").write_text("".join(lines), encoding="utf-8")
    trace(SOURCE / "streams/sample.jsonl", "old", " txt oldtext")
    trace("changed.jsonl", "new")


def make_damaged():
    trace(SOURCE / "streams/boot-user.jsonl.zst", "broken")
    content = bytearray(pathlib.Path("broken0").read_bytes())
    content[len(content) // 2] ^= 0x55
    pathlib.Path("broken0").write_bytes(content)


def make_manual():
    make_sample()
    make_changed()
    make_damaged()
    pathlib.Path("kernel.map").write_text("c000000000002000 T kernel\n", encoding="utf-8")
    pathlib.Path("program.map").write_text("10001000 T program\n", encoding="utf-8")


def make_console():
    """What the names of the console's page stand for; `simulator` writes a stream to its standard output."""
    os.symlink(SOURCE / "streams/sample.jsonl", "sample.jsonl")
    os.symlink(SOURCE / "streams/boot-user.jsonl.zst", "boot-user.jsonl.zst")
    os.symlink(SOURCE / "streams/two-cpu.jsonl.zst", "stream.jsonl")
    os.symlink(BIN / "plugin_qtbin.so", "plugin_qtbin.so")
    pathlib.Path("trace.console").write_text(
        "plugin load ./plugin_qtbin.so\nplugin signal plugin_qtbin.so start t\nrun 1000\n", encoding="utf-8")
    pathlib.Path("simulator").write_text("#!/bin/sh\nexec cat sample.jsonl\n", encoding="utf-8")
    os.chmod("simulator", 0o755)


def make_cluster():
    """One machine that looks like several: every job has one task."""
    trace(SOURCE / "streams/sample.jsonl", "trace")
    os.makedirs("qtrace")
    os.symlink(SOURCE / "python", "qtrace/python")
    pathlib.Path("analysis.py").write_text(
        "import dask.distributed, qtrace.dask\n"
        f"dask.distributed.Client(scheduler_file='{os.getcwd()}/scheduler.json')\n"
        "print(qtrace.dask.stats('trace'))\n", encoding="utf-8")
    pathlib.Path("srun").write_text('#!/bin/sh\nexec "$@"\n', encoding="utf-8")
    pathlib.Path("sbatch").write_text('#!/bin/sh\n[ "$1" = --ntasks=16 ] && exec sh -e "$2"\n', encoding="utf-8")
    for name in ("srun", "sbatch"):
        os.chmod(name, 0o755)


def make_checkout():
    """A checkout in which everything is installed and built, so that setup and build have nothing to do."""
    for name in ("streams", "python", "examples", "include"):
        os.symlink(SOURCE / name, name)
    os.makedirs("build/release")
    os.makedirs("build/examples")
    os.symlink(BIN, "build/release/bin")
    os.makedirs("scripts")
    shutil.copy(SOURCE / "scripts/demo", "scripts/demo")
    for name in ("setup", "build"):
        os.symlink("/bin/true", f"scripts/{name}")


FOLDERS = {"sample": make_sample, "two-cpu": make_two_cpu, "guest": make_guest, "changed": make_changed,
           "damaged": make_damaged, "manual": make_manual, "console": make_console, "cluster": make_cluster, "checkout": make_checkout}  # fmt: skip


def shell(command, folder):
    """(exit status, what was printed)"""
    path = f"{BIN}{os.pathsep}{folder}{os.pathsep}{os.environ['PATH']}"
    environment = {**os.environ, "PATH": path, "PYTHONDONTWRITEBYTECODE": "1"}
    done = subprocess.run(["bash", "-c", command], cwd=folder, env=environment, check=False, timeout=SECONDS,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.returncode, done.stdout


def commands_of(block):
    """The lines after a prompt; all lines where none has one."""
    prompted = [line[2:] for line in block.splitlines() if line.startswith("$ ")]
    return prompted or block.splitlines()


class Documents:
    def __init__(self, root, short):
        """`short` is a folder without blanks in its name, as the pages have them."""
        self.root, self.short, self.problems, self.done = pathlib.Path(root), pathlib.Path(short), [], {}
        for name, make in FOLDERS.items():
            (self.root / name).mkdir()
            os.chdir(self.root / name)
            make()
        os.chdir(self.root)

    def fail(self, page, text):
        self.problems.append(f"{page.name}: {text}")

    def check_pages(self):
        for page in PAGES:
            text = page.read_text(encoding="utf-8")
            renewed = BLOCK.sub(lambda match, page=page: self.check_block(page, match), text)
            if RENEW and renewed != text:
                page.write_text(renewed, encoding="utf-8")

    def check_block(self, page, match):
        if "```python" in match[1]:
            return match[0]
        kind, _, where = (match["mark"] or "").partition(": ")
        check = getattr(self, "check_" + kind.replace(" ", "_"), None)
        if check is None:
            self.fail(page, f"nothing says what becomes of this block:\n{match['text']}")
            return match[0]
        self.done[kind] = self.done.get(kind, 0) + 1
        return match[1] + (check(page, match["text"], where) or match["text"]) + match[4]

    def check_no_command(self, page, block, _):
        for line in block.splitlines():
            if re.match(r"(\$ |scripts/|qtrace |replay |plugin |cmake )", line):
                self.fail(page, f"this is a command: {line}")

    def check_example(self, page, block, where):
        output = "".join(f"$ {command}\n{shell(command, self.root / where)[1]}" for command in commands_of(block))
        if self.fits(block, output):
            return block
        self.fail(page, f"this example prints something else:\n{block}--- it prints\n{output}")
        return output

    def check_run(self, page, block, where):
        fine = "|".join(map(str, FINE))
        lines = [f'{command}\ncase $? in {fine}) ;; *) echo "exit status $? of the line above"; exit 1;; esac'
                 for command in commands_of(block)]
        status, output = shell("\n".join(lines), self.root / where)
        if status != 0:
            self.fail(page, f"these commands fail:\n{block}--- with\n{output}")

    def check_console(self, page, block, where):
        (self.root / where / "script").write_text(block, encoding="utf-8")
        status, output = shell("replay -e stream.jsonl script", self.root / where)
        if status != 0:
            self.fail(page, f"this script fails:\n{block}--- with\n{output}")

    def check_stream(self, page, block, _):
        (self.root / "stream.jsonl").write_text(block, encoding="utf-8")
        status, output = shell("replay --check stream.jsonl", self.root)
        if status != 0:
            self.fail(page, f"this stream has faults:\n{block}--- these\n{output}")

    def check_cluster(self, page, block, _):
        """Servers do not end: commands that start them go on until the last command has."""
        folder = self.root / "cluster"
        shared = self.short / "shared"
        shared.unlink(missing_ok=True)
        shared.symlink_to(folder)
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            port = str(free.getsockname()[1])
        for name, here in (("/shared", str(shared)), ("first", "127.0.0.1"), ("8786", port)):
            block = block.replace(name, here)
        if block.startswith("$ cat "):
            name, script, command = re.fullmatch(r"\$ cat (\S+)\n(.*)\$ (.*)\n", block, re.S).groups()
            (folder / name).write_text(script, encoding="utf-8")
            commands = [command]
        else:
            commands = commands_of(block)
        environment = {**os.environ, "PATH": f"{folder}:/usr/bin:{os.environ['PATH']}", "PYTHONDONTWRITEBYTECODE": "1"}
        with open(folder / "log", "w+b") as log:
            job = subprocess.Popen(["bash", "-c", "\n".join(commands)], cwd=folder, env=environment, stdout=log,
                                   stderr=log, start_new_session=True)  # fmt: skip
            try:
                status = job.wait(SECONDS)
            finally:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(job.pid, signal.SIGTERM)
        output = (folder / "log").read_text(encoding="utf-8")
        if status != 0 or "'instructions': 2000" not in output:
            self.fail(page, f"these commands fail:\n{block}--- with\n{output}")

    def check_run_by(self, page, block, where):
        text = (SOURCE / where).read_text(encoding="utf-8")
        if page.name in text:
            return
        for command in commands_of(block):
            if command.split("#")[0].strip() not in text:
                self.fail(page, f"{where} does not run: {command}")

    @staticmethod
    def fits(block, output):
        parts = [re.escape(part) for part in re.split(r"(?m)^\.\.\.\n", block)]
        return re.fullmatch(r"(?:.*\n)*?".join(parts), output) is not None

    # Commands in the running text.

    def text_commands(self):
        for page in PAGES:
            text = BLOCK.sub("", page.read_text(encoding="utf-8"))
            for span in SPAN.findall(text):
                for word, check in (("scripts/", self.check_script), ("qtrace ", self.check_program),
                                    ("replay ", self.check_program), ("ctest ", self.check_ctest),
                                    ("build/release/bin/", self.check_product)):  # fmt: skip
                    if span.startswith(word):
                        check(page, span)
                        self.done[word] = self.done.get(word, 0) + 1

    def check_script(self, page, span):
        script, *words = span.split()
        path = SOURCE / script
        if path.is_dir():
            return
        if not os.access(path, os.X_OK):
            self.fail(page, f"no such script: {span}")
            return
        for option in re.findall(r"--[a-z]+", " ".join(words)):
            if option not in path.read_text(encoding="utf-8"):
                self.fail(page, f"no such option: {span}")

    def check_program(self, page, span):
        """A whole command without words in capitals is run on a trace; of others the options must exist."""
        names = span.split()
        is_whole = len(names) > 3 or (len(names) == 3 and not names[2].startswith("-"))
        if is_whole and not re.search(r"\b[A-Z]{2,}\b", span):
            status, output = shell(span, self.root / "sample")
            if status not in FINE:
                self.fail(page, f"this command fails: {span}\n{output}")
            return
        subcommand = names[1:2] if names[0] == "qtrace" else []
        status, output = shell(" ".join([names[0], *subcommand, "--help"]), self.root)
        known = set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", output))
        unknown = [word for word in names[1:] if word.startswith("-") and word not in known]
        if status != 0 or unknown:
            self.fail(page, f"no such command: {span}: {unknown or output}")

    def check_ctest(self, page, span):
        pattern = shell(f"echo {span.split('-R ')[1]}", self.root)[1].strip().replace("\\|", "|")
        output = subprocess.run(["ctest", "--test-dir", BIN.parent, "-N", "-R", pattern], capture_output=True,
                                check=True, text=True).stdout  # fmt: skip
        if re.search(r"Total Tests: 0\b", output):
            self.fail(page, f"no test has such a name: {span}")

    def check_product(self, page, span):
        name = span.split()[0].removeprefix("build/release/bin/")
        if not (BIN / name).exists():
            self.fail(page, f"no such product: {span}")

    def manual_pages(self):
        text = (SOURCE / "docs/man/qtrace.1.scd").read_text(encoding="utf-8")
        examples = re.findall(r"^\t(.*?)(?:\+\+)?$", re.search(r"# EXAMPLES\n(.*?)\n# ", text, re.S)[1], re.M)
        assert len(examples) >= 5, "the manual page lost its examples"
        self.check_run(pathlib.Path("qtrace.1"), "".join(line + "\n" for line in examples), "manual")
        text = (SOURCE / "docs/man/replay.1.scd").read_text(encoding="utf-8")
        script = re.search(r"```\n(.*?)```", text, re.S)[1]
        assert "plugin load" in script
        self.check_console(pathlib.Path("replay.1"), re.sub(r"/usr/local\S*/", "./", script), "console")


def main():
    with tempfile.TemporaryDirectory() as root, tempfile.TemporaryDirectory(dir="/tmp") as short:
        documents = Documents(root, short)
        documents.check_pages()
        documents.text_commands()
        documents.manual_pages()
    for problem in documents.problems:
        print(problem)
    print(documents.done, f"{len(documents.problems)} problems")
    assert documents.done["example"] >= 9 and documents.done["run"] >= 4, "blocks lost their marks"
    return documents.problems != [] and not RENEW


if __name__ == "__main__":
    sys.exit(main())
