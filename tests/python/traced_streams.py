"""Traces of recorded streams and generated records, for tests of the Python package.

Test programs take the folder of the built programs as their first argument."""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).parents[2]
PROGRAMS = pathlib.Path(sys.argv[1])
os.environ["QTRACE_LIBRARY"] = str(PROGRAMS / "libqtrace.so")
sys.path.insert(0, str(ROOT / "python"))

STREAMS = ("sample", "boot-user", "two-cpu", "vector", "firmware", "hash", "guest")


def run(*command, **options):
    """The output of a command that succeeds."""
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, **options)
    assert done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
    return done.stdout


def stream_file(name):
    """A recorded stream's file."""
    [file] = (ROOT / "streams").glob(f"{name}.jsonl*")
    return file


def replay(name, folder, commands=("run",)):
    """Plays a stream into the plugin; returns the base name of its traces. text and pte files stand beside them."""
    base, plugin = pathlib.Path(folder) / name, PROGRAMS / "plugin_qtbin.so"
    signal = f"plugin signal {plugin.name}"
    lines = [f'plugin load "{plugin}"', f'{signal} start "{base}." txt "{base}.text" pte "{base}.pte"']
    lines += [command.replace("SIGNAL", signal) for command in commands] + [f"{signal} stop"]
    console = pathlib.Path(f"{base}.console")
    console.write_text("\n".join(lines) + "\n")
    run(PROGRAMS / "replay", "-e", stream_file(name), console)
    return f"{base}."


def generate(folder, records, seed):
    """A trace of generated records, plausible and wild ones."""
    name = str(pathlib.Path(folder) / f"generated-{seed}")
    run(PROGRAMS / "random_trace_file", name, records, seed)
    return name


def changed(name, change):
    """A copy of a file whose bytes went through `change`."""
    copy = f"{name}-changed"
    pathlib.Path(copy).write_bytes(change(bytearray(pathlib.Path(name).read_bytes())))
    return copy


def damaged(name, *offsets):
    """A copy of a file with a changed byte at these places."""

    def change(data):
        for offset in offsets:
            data[offset] ^= 0xFF
        return data

    return changed(name, change)


class InFolder(unittest.TestCase):
    """Tests with a folder of their own for all of a class."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)


def main():
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
