"""The goals: one row for each figure, with what it was, must be and should be.

Only figures that repeat are judged: instructions, bytes, memory. Times and what is made of them depend on the machine
and on who else uses it; they are printed with their spread.
"""

import itertools
from collections import namedtuple

STREAMS = ("boot-user", "vector", "guest")

# `low` and `high`: quartiles of the repetitions, for times.
Measured = namedtuple("Measured", "value low high", defaults=(None, None))

# `measure` takes a Measurements (report.py) and returns a Measured, or None where a program does not offer it.
Goal = namedtuple("Goal", "figure today must aim measure judged", defaults=(True,))


def counted(name):
    return lambda m: Measured(m.instructions[name])


def time_ratio(name, of):
    return lambda m: m.time_ratio(name, of)


def worst_growth(costs):
    """The largest ratio of a later point to an earlier one: growth is not hidden by what lies at the ends."""
    return max(later / earlier for earlier, later in itertools.combinations(costs, 2))


def time_growth(what):
    return lambda m: Measured(worst_growth([m.nanoseconds(name) for _, name in m.matching(f"growth/{what}")]))


def memory_per_thread(m):
    """None for what cannot be: a process does not shrink by starting a session."""
    kilobytes = m.counter("start+stop/1024", "resident_kilobytes") / 1024
    return Measured(kilobytes) if kilobytes > 0 else None


def own_time_ratio(m):
    return Measured(m.own.writer / m.own.plugin)


def reduced(today, *percent):
    """The must and the aim of a figure that is to fall by so many percent."""
    return [today, *(round(today * (1 - p / 100), 1) for p in percent)]


# The instructions per record of tools and reader at the start, from which the goals are reckoned.
START = {"reader": 857.7, "stats": 2601.9, "check": 5039.7, "dump --json": 6183.7, "diff": 2353.4, "replay": 12877.1}

GOALS = [
    Goal("plugin's own instructions per commit, boot-user", 982, 850, 650, counted("plugin, boot-user")),
    Goal("instructions of a text line beyond commit/bin, boot-user", 1830, 1600, 1300, counted("text line")),
    Goal("writer's own instructions per record, boot-user", 990, 850, 600, counted("writer")),
    Goal("bytes per record, boot-user", 5.14, 5.2, 4.5,
         lambda m: Measured(m.counter("commit/bin+qtrace:boot-user", "bytes_per_record"))),
    Goal("reader: instructions per record", *reduced(START["reader"], 15, 35), counted("reader")),
    *[Goal(f"{tool}: instructions per record, one core", *reduced(START[tool], 20, 50), counted(tool))
      for tool in ("stats", "check", "dump --json", "diff")],
    Goal("replay of .jsonl.zst: instructions per event", *reduced(START["replay"], 10, 30), counted("replay")),
    Goal("growth of stats instructions per record, 10^5 to 10^7", None, 1.1, 1.05,
         lambda m: Measured(worst_growth(m.growth["stats"]))),
    Goal("resident KiB added by start, per thread (of 1,024)", 5.5, 64, 8, memory_per_thread),
    *[Goal(f"commit/bin / floor, {stream}", 1.5, None, 1.3, time_ratio(f"commit/bin:{stream}", f"floor:{stream}"), False)
      for stream in STREAMS],
    *[Goal(f"commit/text / write, {stream}", 1.6, None, 1.4, time_ratio(f"commit/text:{stream}", f"write:{stream}"), False)
      for stream in STREAMS],
    Goal("stream: written by commit_stream_writer.h / read by replay", None, 1, 0.5, time_ratio("stream:write", "stream:read"), False),
    Goal("reference writer's own time / plugin's own time", 1.04, 1.5, 0.7, own_time_ratio, False),
    Goal("growth of time per commit from 10^4 to 10^7 commits", 1.10, 1.3, 1.1, time_growth("commits"), False),
    Goal("growth of time per commit from 1 to 128 threads", 0.90, 1.3, 1.1, time_growth("threads"), False),
    Goal("replay of .jsonl.zst: busiest thread / all threads", 1, 0.8, 0.7, lambda m: m.busiest_replay_thread(), False),
    *[Goal(f"{tool} --jobs 2: main and busiest thread / one job", 1, 0.58, 0.53,
           lambda m, tool=tool: m.with_two_jobs(tool, "busiest"), False) for tool in ("stats", "check", "dump --json", "diff")],
    *[Goal(f"{tool} --jobs 2: CPU time / of one job", 1, 1.1, 1.05,
           lambda m, tool=tool: m.with_two_jobs(tool, "total"), False) for tool in ("stats", "check", "dump --json", "diff")],
]


def verdict(goal, measured):
    if measured is None:
        return "NOT MEASURED" if goal.judged else "not offered"
    if not goal.judged:
        return "printed"
    return "aim" if measured.value <= goal.aim else "must" if measured.value <= goal.must else "MISSED"


def is_failure(goal, measured):
    return goal.judged and verdict(goal, measured) in ("MISSED", "NOT MEASURED")
