#!/usr/bin/env python3
"""Puts the measurements of one run next to the goals: prints the table, writes results.json and results.svg.

    report.py FOLDER    with FOLDER/commits.json, throughput.json (Google Benchmark), instructions.json, own_time.json

Every figure is the median of interleaved repetitions, and every ratio is between medians of the same run.
"""

import html
import json
import pathlib
import statistics
import sys
from collections import defaultdict, namedtuple

STREAMS = ("boot-user", "vector", "guest")
Goal = namedtuple("Goal", "figure must aim measured at_least", defaults=(False,))


class Measurements:
    """Medians over the repetitions of each benchmark."""

    def __init__(self, *files):
        runs = defaultdict(lambda: defaultdict(list))
        for file in files:
            for run in json.loads(file.read_text())["benchmarks"]:
                if run["run_type"] == "iteration":
                    name = run["name"].split("/iterations")[0].split("/repeats")[0].removesuffix("/process_time")
                    for key, value in run.items():
                        if isinstance(value, (int, float)):
                            runs[name][key].append(value)
        self.values = {name: {key: statistics.median(values) for key, values in counters.items()}
                       for name, counters in runs.items()}

    def nanoseconds(self, name):
        """CPU time per item: commit, event, record."""
        return 1e9 / self.values[name]["items_per_second"]

    def counter(self, name, key):
        return self.values[name][key]

    def matching(self, prefix):
        """(number, name) of the benchmarks that take a number, ascending."""
        return sorted((int(name.rsplit("/", 1)[1]), name) for name in self.values if name.startswith(prefix + "/"))


class Own_Times:
    """Nanoseconds per commit that each shared object takes itself, while a whole session is traced."""

    HOST, PLUGIN = "commit_benchmarks", "plugin_qtbin.so"

    def __init__(self, file):
        times = json.loads(file.read_text())
        self.host, self.plugin = times.pop(self.HOST), times.pop(self.PLUGIN)
        self.writer = sum(times.values())  # with the libraries that it calls, and the kernel
        self.libraries = sorted(times.items(), key=lambda item: -item[1])


def goals(measured, instructions, own):
    time = measured.nanoseconds
    rows = []
    for stream in STREAMS:
        rows.append(Goal(f"commit/bin / floor, {stream}", 2.2, 1.6,
                         time(f"commit/bin:{stream}") / time(f"floor:{stream}")))
    for stream in STREAMS:
        rows.append(Goal(f"commit/text / write, {stream}", 2.5, 1.6,
                         time(f"commit/text:{stream}") / time(f"write:{stream}")))
    rows.append(Goal("plugin's own instructions per commit, boot-user", 1100, 600, instructions["boot-user"]))
    rows.append(Goal("reference writer's own time / plugin's own time", 1.5, 0.7, own.writer / own.plugin))
    rows.append(Goal("bytes per record on disk, boot-user", 12, 6,
                     measured.counter("commit/bin+qtrace:boot-user", "bytes_per_record")))
    rows.append(Goal("resident KiB added by start, per thread (of 1,024)", 64, 8,
                     measured.counter("start+stop/1024", "resident_kilobytes") / 1024))
    for what, meaning in (("commits", "from 10^4 to 10^7 commits"), ("threads", "from 1 to 128 threads")):
        points = measured.matching(f"growth/{what}")
        rows.append(Goal(f"growth of time per commit {meaning}", 1.3, 1.1,
                         time(points[-1][1]) / time(points[0][1])))
    rows.append(Goal("replay of .jsonl.zst, thousand events per second", 400, 1000,
                     1e6 / time("replay:jsonl.zst"), at_least=True))
    return rows


def verdict(goal):
    better = (lambda limit: goal.measured >= limit) if goal.at_least else (lambda limit: goal.measured <= limit)
    return "aim" if better(goal.aim) else "must" if better(goal.must) else "MISSED"


def number(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.2f}"


def print_table(rows):
    print(f"{'figure':<54}{'must':>8}{'aim':>8}{'measured':>10}  reached")
    for goal in rows:
        print(f"{goal.figure:<54}{number(goal.must):>8}{number(goal.aim):>8}{number(goal.measured):>10}  {verdict(goal)}")


def print_own_times(measured, own):
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
    for goal in rows:
        used = goal.must / goal.measured if goal.at_least else goal.measured / goal.must
        colour = {"aim": "#3d8b57", "must": "#d1a12a", "MISSED": "#b03a2e"}[verdict(goal)]
        picture.text(goal.figure, size=11, advance=16)
        picture.bar("", min(used, 2.0), 2.0, colour)
    return picture.svg()


def main():
    folder = pathlib.Path(sys.argv[1])
    measured = Measurements(folder / "commits.json", folder / "throughput.json")
    own = Own_Times(folder / "own_time.json")
    rows = goals(measured, json.loads((folder / "instructions.json").read_text()), own)
    print_table(rows)
    print_times(measured)
    print_own_times(measured, own)
    (folder / "results.json").write_text(json.dumps(
        {"goals": [goal._asdict() | {"reached": verdict(goal)} for goal in rows], "medians": measured.values},
        indent=2) + "\n")
    (folder / "results.svg").write_text(draw(measured, rows))
    print(f"\nresults: {folder}/results.json, {folder}/results.svg")


if __name__ == "__main__":
    main()
