#!/usr/bin/python3
"""What data frames in Python cost, as ratios of one run: python_frames.py PROGRAMS [RECORDS]

PROGRAMS is the folder of the built programs. The trace is `boot-user`, repeated up to RECORDS (a million). Times are
CPU times of threads, the best of several rounds; each round measures the loop in C and the frames in turn, so that a
busy machine slows both."""
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).parents[1]
PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
RECORDS = int(sys.argv[2]) if len(sys.argv) > 2 else 10**6
ROUNDS = 7
os.environ["QTRACE_LIBRARY"] = str(PROGRAMS / "libqtrace.so")
sys.path.insert(0, str(ROOT / "python"))

import qtrace  # noqa: E402
from qtrace import frames  # noqa: E402


def make_trace(folder):
    """A trace of so many records."""
    plugin, trace = PROGRAMS / "plugin_qtbin.so", folder / "short"
    signal = f"plugin signal {plugin.name}"
    console = folder / "console"
    console.write_text(f"plugin load {plugin}\n{signal} start {trace}\nrun\n{signal} stop\n")
    stream = ROOT / "streams/boot-user.jsonl.zst"
    subprocess.run([PROGRAMS / "replay", "-e", stream, console], check=True, stdout=subprocess.DEVNULL)
    subprocess.run([PROGRAMS / "reading_floor", "repeat", f"{trace}0", folder / "trace0", str(RECORDS)], check=True)
    return str(folder / "trace0")


def loop(name):
    """Seconds of an empty loop of qtrace_next."""
    done = subprocess.run([PROGRAMS / "reading_floor", "loop", name], capture_output=True, text=True, check=True)
    records, nanoseconds = map(int, done.stdout.split())
    assert records == RECORDS
    return nanoseconds / 1e9


def timed(function):
    """Seconds of this thread's CPU."""
    begin = time.thread_time()
    result = function()
    seconds = time.thread_time() - begin
    del result
    return seconds


def side_by_side(name):
    """Seconds of the calling thread and of the busiest of two others while a frame is read by two threads."""
    busy, lock = {}, threading.Lock()

    def counted(function):
        def run(*arguments):
            begin = time.thread_time()
            function(*arguments)
            with lock:
                thread = threading.get_ident()
                busy[thread] = busy.get(thread, 0) + time.thread_time() - begin

        return run

    parallel = {"_read_columns": frames._read_columns, "_renumber": frames._renumber}
    for part, function in parallel.items():
        setattr(frames, part, counted(function))
    try:
        serial = timed(lambda: qtrace.frame(name, threads=2))
    finally:
        for part, function in parallel.items():
            setattr(frames, part, function)
    return serial + max(busy.values())


def batches_beyond_one(name, rows):
    """Bytes that reading in batches takes beyond one batch, in a process of its own."""
    program = (
        f"import sys; sys.path.insert(0, {str(ROOT / 'python')!r})\nimport qtrace\n"
        "def kibibytes(line):\n"
        "    return int(open('/proc/self/status').read().split(line)[1].split()[0])\n"
        f"next(qtrace.batches({name!r}, rows=1000))\n"
        "before = kibibytes('VmRSS:')\n"
        f"n = sum(len(f) for f in qtrace.batches({name!r}, rows={rows}))\n"
        "print(n, kibibytes('VmHWM:') - before)\n"
    )
    done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, check=True)
    records, kibibytes = map(int, done.stdout.split())
    assert records == RECORDS
    return kibibytes * 1024 - rows * 55


def main():
    with tempfile.TemporaryDirectory() as folder:
        name = make_trace(pathlib.Path(folder))
        qtrace.frame(name)  # what is made once does not count
        floor, one, registers, two = [], [], [], []
        for _ in range(ROUNDS):
            floor.append(loop(name))
            one.append(timed(lambda: qtrace.frame(name)))
            registers.append(timed(lambda: qtrace.registers(name)))
            two.append(side_by_side(name))
        frame = qtrace.frame(name)
        row = frame.memory_usage(index=True).sum() / len(frame)
        del frame
        beyond = batches_beyond_one(name, RECORDS // 2)
    nanoseconds = 1e9 / RECORDS
    print(f"{RECORDS} records; an empty loop of qtrace_next takes {min(floor) * nanoseconds:.1f} ns a record")
    print(f"frame() / loop                     {min(one) / min(floor):.2f}   ({min(one) * nanoseconds:.1f} ns a record)")
    print(f"registers() / loop                 {min(registers) / min(floor):.2f}   ({min(registers) * nanoseconds:.1f} ns a record)")
    print(f"frame(threads=2) / frame()         {min(two) / min(one):.2f}   (serial part and busiest thread)")
    print(f"bytes a row, index included        {row:.2f}")
    print(f"batches() beyond one batch         {beyond / 2**20:.1f} MiB")


if __name__ == "__main__":
    main()
