"""CPU time of each thread of a program, looked up in /proc while it runs."""

import pathlib
import subprocess
import time

INTERVAL = 0.002  # seconds between two looks; a thread's last bit of time may be missed


def _nanoseconds(task):
    return int((task / "schedstat").read_text().split()[0])


def run(*command, accept=(0,)):
    """Nanoseconds of the main thread, then of the others, the busiest first. Output goes nowhere."""
    return run_timed(*command, accept=accept)[0]


def run_timed(*command, accept=(0,)):
    """The same, and the nanoseconds of wall clock from start to end."""
    begin = time.monotonic_ns()
    process = subprocess.Popen([*map(str, command)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    times = {}
    while process.poll() is None:
        for task in pathlib.Path(f"/proc/{process.pid}/task").glob("*"):
            try:
                times[int(task.name)] = _nanoseconds(task)
            except (OSError, IndexError):  # it has just ended
                pass
        time.sleep(INTERVAL)
    if process.returncode not in accept:
        raise RuntimeError(f"{' '.join(map(str, command))}: exit status {process.returncode}")
    wall = time.monotonic_ns() - begin
    main = times.pop(process.pid)
    return [main, *sorted(times.values(), reverse=True)], wall
