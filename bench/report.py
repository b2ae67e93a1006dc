#!/usr/bin/env python3
"""Puts the measurements of one run next to the goals: prints the table, writes results.json and results.svg.

    report.py FOLDER PROGRAMS    FOLDER has commits.json, throughput.json (Google Benchmark), instructions.json and
                                 own_time.json; PROGRAMS are measured besides

Every time is the median of interleaved repetitions, and every ratio is between medians of the same run. Exit status 1
when a judged figure misses its must (goals.py).
"""

import html
import json
import pathlib
import statistics
import sys
import tempfile
from collections import defaultdict

import callgrind_profile
import count_instructions
import thread_times
from goals import GOALS, STREAMS, Measured, is_failure, verdict

RECORDS = 10_000_000  # of the generated trace: growth and jobs
GROWTH_ENDS = (100_000, 1_000_000, RECORDS)
GROWTH_WINDOW = 100_000  # records counted before each of these
JOBS_REPETITIONS = 3


class Measurements:
    """Medians and quartiles over the repetitions of each benchmark, and what is measured with whole programs."""

    def __init__(self, folder, bench):
        runs = defaultdict(lambda: defaultdict(list))
        for file in (folder / "commits.json", folder / "throughput.json"):
            for run in json.loads(file.read_text())["benchmarks"]:
                if run["run_type"] == "iteration":
                    name = run["name"].split("/iterations")[0].split("/repeats")[0].removesuffix("/process_time")
                    for key, value in run.items():
                        if isinstance(value, (int, float)):
                            runs[name][key].append(value)
        self.runs = runs
        self.values = {name: {key: statistics.median(values) for key, values in counters.items()}
                       for name, counters in runs.items()}
        self.instructions = json.loads((folder / "instructions.json").read_text())
        self.own = Own_Times(folder / "own_time.json")
        self.bench = bench
        self.growth = {"stats": costs_along(bench, "stats")}
        self.one_job = {}

    def nanoseconds(self, name):
        """CPU time per item: commit, event, record."""
        return 1e9 / self.values[name]["items_per_second"]

    def time_ratio(self, name, of):
        base = self.nanoseconds(of)
        low, median, high = (1e9 / rate / base for rate in reversed(quartiles(self.runs[name]["items_per_second"])))
        return Measured(median, low, high)

    def counter(self, name, key):
        return self.values[name][key]

    def matching(self, prefix):
        """(number, name) of the benchmarks that take a number, ascending."""
        return sorted((int(name.rsplit("/", 1)[1]), name) for name in self.values if name.startswith(prefix + "/"))

    def busiest_replay_thread(self):
        """Whole stream to trace; without a second thread the ratio is 1."""
        script = self.bench.folder / "replay.txt"
        script.write_text(f"plugin load {self.bench.programs / 'plugin_qtbin.so'}\n"
                          f"plugin signal plugin_qtbin.so start {self.bench.folder}/replayed-\nrun\n")
        times = thread_times.run(self.bench.replay, count_instructions.STREAM, script)
        return Measured(max(times) / sum(times))

    def with_two_jobs(self, tool, what):
        """Thread CPU time against that of one job; None where the tool takes no --jobs."""
        subcommand, *options = tool.split()
        if not self.bench.jobs(subcommand):
            return None
        if tool not in self.one_job:
            files = [self.bench.generated(RECORDS)] * (2 if tool == "diff" else 1)
            self.one_job[tool] = defaultdict(list)
            for _ in range(JOBS_REPETITIONS):
                (one, wall_of_one), (two, wall_of_two) = (
                    thread_times.run_timed(self.bench.qtrace, subcommand, *options, *self.bench.jobs(subcommand, jobs),
                                           *files, accept=(0, 3)) for jobs in (1, 2))
                self.one_job[tool]["wall"].append(wall_of_two / wall_of_one)
                self.one_job[tool]["busiest"].append(sum(two[:2]) / sum(one))
                self.one_job[tool]["total"].append(sum(two) / sum(one))
        low, median, high = quartiles(self.one_job[tool][what])
        return Measured(median, low, high)


def quartiles(values):
    return statistics.quantiles(values, n=4) if len(values) > 1 else [values[0]] * 3


def costs_along(bench, *command):
    """Instructions per record at some places of a long trace: of the first records, and of the last ones before each place."""
    profiles = callgrind_profile.run_windows(bench.programs / "counted_windows.so", GROWTH_WINDOW, GROWTH_ENDS, bench.qtrace,
                                             *command, *bench.jobs(command[0]), bench.generated(RECORDS))
    return [profile.total() / GROWTH_WINDOW for profile in profiles]


class Own_Times:
    """Nanoseconds per commit that each shared object takes itself, while a whole session is traced."""

    HOST, PLUGIN = "commit_benchmarks", "plugin_qtbin.so"

    def __init__(self, file):
        times = json.loads(file.read_text())
        self.host, self.plugin = times.pop(self.HOST), times.pop(self.PLUGIN)
        self.writer = sum(times.values())  # with the libraries that it calls, and the kernel
        self.libraries = sorted(times.items(), key=lambda item: -item[1])


def number(value):
    return "" if value is None else f"{value:,.0f}" if value >= 100 else f"{value:.2f}"


def spread(measured):
    return f"[{number(measured.low)}, {number(measured.high)}]" if measured and measured.low is not None else ""


def print_table(rows):
    print(f"{'figure':<58}{'today':>8}{'must':>8}{'aim':>8}{'measured':>10}{'spread':>16}  reached")
    for goal, measured in rows:
        print(f"{goal.figure:<58}{number(goal.today):>8}{number(goal.must):>8}{number(goal.aim):>8}"
              f"{number(measured and measured.value):>10}{spread(measured):>16}  {verdict(goal, measured)}")
    print("judged: instructions, bytes and memory, which repeat. Times are printed with the quartiles of their "
          "repetitions;\nratios of times need a quiet machine.")


def print_own_times(measured):
    own = measured.own
    libraries = ", ".join(f"{name} {time:.1f}" for name, time in own.libraries if time >= 0.5)
    print(f"\nown time, ns per commit, boot-user: plugin {own.plugin:.1f}, host's queries {own.host:.1f}, "
          f"writer {own.writer:.1f} ({libraries})")
    floor, plugin, both = (measured.nanoseconds(f"{what}:boot-user")
                           for what in ("floor", "commit/bin", "commit/bin+qtrace"))
    print(f"as differences: plugin beyond the floor {plugin - floor:.1f}, writer {both - plugin:.1f}, "
          f"ratio {(both - plugin) / (plugin - floor):.2f}")


def print_times(measured):
    print(f"\n{'nanoseconds per commit':<24}" + "".join(f"{stream:>12}" for stream in STREAMS))
    for what in ("floor", "commit/bin", "commit/bin+qtrace", "commit/text", "write"):
        print(f"{what:<24}" + "".join(f"{measured.nanoseconds(f'{what}:{s}'):>12,.1f}" for s in STREAMS))
    print(f"\n{'start+stop, threads':<24}{'microseconds':>14}{'resident KiB':>14}{'virtual KiB':>14}")
    for threads, name in measured.matching("start+stop"):
        print(f"{threads:<24}{measured.counter(name, 'cpu_time') / 1e3:>14,.0f}"
              f"{measured.counter(name, 'resident_kilobytes'):>14,.0f}"
              f"{measured.counter(name, 'virtual_kilobytes'):>14,.0f}")
    for what in ("commits", "threads"):
        points = [f"{n:,}: {measured.nanoseconds(name):.1f}" for n, name in measured.matching(f"growth/{what}")]
        print(f"\nnanoseconds per commit by {what}: " + "  ".join(points))
    print(f"\npte: {measured.nanoseconds('pte'):.1f} ns an event")
    for name in ("replay:jsonl", "replay:jsonl.zst"):
        print(f"{name}: {1e6 / measured.nanoseconds(name):,.0f} thousand events, "
              f"{measured.counter(name, 'bytes_per_second') / 1e6:,.1f} million stream bytes a second")
    walls = ", ".join(f"{tool} {statistics.median(ratios['wall']):.2f}" for tool, ratios in measured.one_job.items())
    print(f"wall clock of two jobs / of one job: {walls}")
    print(f"read: {1e6 / measured.nanoseconds('read'):,.0f} thousand records a second")


class Picture:
    """A column of texts and bars."""

    COLOURS = {"floor": "#9aa5b1", "commit/bin": "#2f6f9f", "commit/bin+qtrace": "#17405e", "write": "#d9b48f",
               "commit/text": "#b5651d"}

    def __init__(self):
        self.elements, self.y = [], 10

    def text(self, text, x=10, size=13, weight="normal", advance=22):
        self.elements.append(f'<text x="{x}" y="{self.y + 14}" font-size="{size}" font-weight="{weight}">'
                             f"{html.escape(text)}</text>")
        self.y += advance

    def bar(self, label, value, longest, colour, unit=""):
        width = 420 * value / longest
        self.elements.append(f'<rect x="200" y="{self.y + 2}" width="{width:.1f}" height="15" fill="{colour}"/>')
        self.elements.append(f'<text x="{206 + width:.1f}" y="{self.y + 14}" font-size="12">{number(value)}{unit}</text>')
        self.text(label, size=12, advance=19)

    def svg(self):
        return (f'<svg xmlns="http://www.w3.org/2000/svg" width="760" height="{self.y + 10}" font-family="sans-serif">'
                f'<rect width="100%" height="100%" fill="white"/>{"".join(self.elements)}</svg>\n')


def draw(measured, rows):
    picture = Picture()
    for stream in STREAMS:
        picture.text(f"{stream}: nanoseconds per commit", weight="bold")
        times = {what: measured.nanoseconds(f"{what}:{stream}") for what in Picture.COLOURS}
        for what, value in times.items():
            picture.bar(what, value, max(times.values()), Picture.COLOURS[what])
    for what in ("commits", "threads"):
        picture.text(f"nanoseconds per commit by number of {what}", weight="bold")
        points = [(n, measured.nanoseconds(name)) for n, name in measured.matching(f"growth/{what}")]
        for n, value in points:
            picture.bar(f"{n:,}", value, max(v for _, v in points), Picture.COLOURS["commit/bin"])
    picture.text("goals: part of the must that is used up", weight="bold")
    for goal, figure in rows:
        if figure is None or goal.must is None:
            continue
        colour = {"aim": "#3d8b57", "must": "#d1a12a", "MISSED": "#b03a2e", "printed": "#9aa5b1"}[verdict(goal, figure)]
        picture.text(goal.figure, size=11, advance=16)
        picture.bar("", min(figure.value / goal.must, 2.0), 2.0, colour)
    return picture.svg()


def main():
    folder = pathlib.Path(sys.argv[1])
    with tempfile.TemporaryDirectory() as traces:
        measured = Measurements(folder, count_instructions.Bench(sys.argv[2], traces))
        rows = [(goal, goal.measure(measured)) for goal in GOALS]
    print_table(rows)
    print_times(measured)
    print_own_times(measured)
    (folder / "results.json").write_text(json.dumps(
        {"goals": [{"figure": goal.figure, "today": goal.today, "must": goal.must, "aim": goal.aim,
                    "measured": figure and figure._asdict(), "reached": verdict(goal, figure)} for goal, figure in rows],
         "medians": measured.values}, indent=2) + "\n")
    (folder / "results.svg").write_text(draw(measured, rows))
    print(f"\nresults: {folder}/results.json, {folder}/results.svg")
    failures = [f"{goal.figure}: {verdict(goal, figure)}" for goal, figure in rows if is_failure(goal, figure)]
    if failures:
        sys.exit("\n".join(["", *failures]))


if __name__ == "__main__":
    main()
