"""Traces on a cluster: `dask` data frames of the files of all threads, and statistics.

The files are read where the work is done: every worker has to see them under the same name (a shared file system), and
to have this package. Without a cluster the work is done by dask's threads in this process.
"""
from __future__ import annotations

import glob
import json
import os
import re
import shutil
import subprocess
from collections import Counter
from typing import Any, Dict, List, NamedTuple, Optional, Sequence, Tuple, Union

import dask
import dask.dataframe as dd
import numpy as np
import pandas as pd

from . import _library, frames
from .choice import Choice
from .frames import DEFAULT_COLUMNS, DamageError, Discontinuity, Name, Trace, thread_of

DEFAULT = tuple(name for name in DEFAULT_COLUMNS if not name.endswith("_translation")) + ("thread",)
THREAD_SHIFT = 40  # a thread's records have the keys from thread << 40 on


def key(thread: int, record: int) -> int:
    """The index of a record in `frame`: its number and, from bit 40 on, its thread. For one thread 0 alone it is the
    record number."""
    return thread << THREAD_SHIFT | record


def files_of(name: Name) -> List[str]:
    """The trace files of a session: `name` itself if it is a file, else NAME0, NAME1, ...

    Raises FileNotFoundError when there is none, or when one is missing in the row.
    """
    name = os.fspath(name)
    if os.path.isfile(name):
        return [name]
    numbers = {
        int(path[len(name) :]): path for path in glob.glob(f"{glob.escape(name)}*") if re.fullmatch(r"0|[1-9]\d*", path[len(name) :])
    }
    if not numbers:
        raise FileNotFoundError(f"{name}: no such file, and no {name}0")
    missing = sorted(set(range(max(numbers))) - set(numbers))
    if missing:
        raise FileNotFoundError(f"files are missing: {', '.join(f'{name}{number}' for number in missing)}")
    return [numbers[number] for number in sorted(numbers)]


# ---- Data frames ---------------------------------------------------------------------------------------


class _Partition(NamedTuple):
    name: str
    thread: int
    start: int
    count: int


def _partitions(name: str, rows: int) -> List[_Partition]:
    """Ranges of a file that begin with blocks and have about so many records, from the block plan."""
    trace = Trace(name)
    if not trace._in_order:  # pylint: disable=protected-access
        raise ValueError(f"{name}: its blocks are not in order; `qtrace.frame` reads it")
    blocks = trace.blocks[trace.blocks["records"] > 0]
    starts: List[int] = []
    for first in blocks["first_record"].tolist():
        if not starts or first - starts[-1] >= rows:
            starts.append(first)
    if not starts:
        return []
    stops = [*starts[1:], int((blocks["first_record"] + blocks["records"]).max())]
    thread = thread_of(name) if re.search(r"\d$", name) else 0
    return [_Partition(name, thread, start, stop - start) for start, stop in zip(starts, stops)]


def _read(part: _Partition, columns: Sequence[str], on_damage: str, choice: Dict[str, Any]) -> pd.DataFrame:
    own = [name for name in columns if name != "thread"]
    if chosen := Choice(**choice):
        limits = (part.start, part.start + part.count)
        trace = Trace(part.name)
        result = trace._chosen_frame(chosen, own, limits, None, on_damage)  # pylint: disable=protected-access
    else:
        result = frames.frame(part.name, own, part.start, part.count, on_damage)
    result.index = pd.Index(np.asarray(result.index, np.int64) + key(part.thread, 0), name="key")
    if "thread" in columns:
        result.insert(list(columns).index("thread"), "thread", np.uint16(part.thread))
    return result


def _checked_columns(columns: Optional[Sequence[str]]) -> Sequence[str]:
    columns = DEFAULT if columns is None else frames._checked_columns(columns)  # pylint: disable=protected-access
    for name in columns:
        if name.endswith("_translation"):
            raise ValueError(
                f"{name}: each worker numbers translations in its own way; there are data_page, next_page and their sizes"
            )
    return columns


def _empty_frame(columns: Sequence[str], on_damage: str) -> pd.DataFrame:
    kinds = {name: frames.dtype_of(name) for name in columns}
    if on_damage == "mark":
        kinds["discontinuity"] = np.dtype(bool)
    index = pd.Index(np.empty(0, np.int64), name="key")
    return pd.DataFrame({name: np.empty(len(index), kind) for name, kind in kinds.items()}, index=index)


def frame(
    name: Name, rows: int = 2_000_000, columns: Optional[Sequence[str]] = None, on_damage: str = "raise", **choice
) -> dd.DataFrame:
    """The records of all threads of a session as a dask data frame.

    name       a trace file, or what the names of the files begin with ("trace" for trace0, trace1, ...)
    rows       records of a partition, about; partitions begin with blocks and are known from block headers alone
    columns    as in `qtrace.frame`; without: the default ones but for data_translation and next_translation (each
               worker numbers translations in its own way), and `thread` (uint16)
    on_damage  as in `qtrace.frame`; it shows when a partition is computed. `losses` tells what is lost
    choice     as in `qtrace.frame`; partitions hold the chosen ones of their records

    The index is `key(thread, record)`, int64; divisions are known, so `.loc` reads only the partitions that it needs.
    Raises FileNotFoundError, OSError, ValueError.
    """
    frames._checked_policy(on_damage)  # pylint: disable=protected-access
    if rows < 1:
        raise ValueError("a partition needs at least one row")
    Choice(**choice)  # refuses what makes no sense
    columns = _checked_columns(columns)
    meta = _empty_frame(columns, on_damage)
    parts = [part for file in files_of(name) for part in _partitions(file, rows)]
    parts.sort(key=lambda part: (part.thread, part.start))
    if not parts:
        return dd.from_pandas(meta, npartitions=1)
    divisions = [key(part.thread, part.start) for part in parts]
    divisions.append(key(parts[-1].thread, parts[-1].start + parts[-1].count - 1))
    return dd.from_map(_read, parts, columns=list(columns), on_damage=on_damage, choice=choice, meta=meta, divisions=divisions)


# ---- What is lost --------------------------------------------------------------------------------------


def _losses_of(name: str) -> List[Tuple[Any, ...]]:
    trace = Trace(name)
    return [(name, *what) for what in (*trace.damage, *trace.gaps)]


def losses(name: Name) -> pd.DataFrame:
    """Every discontinuity of the files of a session: `file` and the members of `qtrace.Discontinuity` as columns.
    Reads all files, one task each."""
    found = dask.compute(*(dask.delayed(_losses_of)(file) for file in files_of(name)))
    rows = [row for of_file in found for row in of_file]
    table = pd.DataFrame(rows, columns=["file", *Discontinuity._fields])
    return table.sort_values(["file", "offset"], kind="stable").reset_index(drop=True)


# ---- Statistics ----------------------------------------------------------------------------------------

_EVERYTHING = 1_000_000_000  # pages and targets to list
_TARGETS = 8192  # that are counted exactly


def _tool() -> str:
    """The command qtrace: named by QTRACE_TOOL, beside the library, of the installed tree, or of the path."""
    folder = os.path.dirname(os.path.realpath(_library.LIBRARY._name))  # pylint: disable=protected-access
    places = [os.environ.get("QTRACE_TOOL", ""), os.path.join(folder, "qtrace")]
    places += [os.path.join(folder, *up, "bin", "qtrace") for up in ([".."], ["..", ".."])]
    for place in places:
        if place and os.access(place, os.X_OK) and os.path.isfile(place):
            return place
    found = shutil.which("qtrace")
    if not found:
        raise FileNotFoundError("the command qtrace was not found; QTRACE_TOOL may name it")
    return found


def _stats_of(name: str) -> Tuple[Dict[str, Any], bool]:
    """All figures of a file, and whether something is lost."""
    command = [_tool(), "stats", "--json", "--top", str(_EVERYTHING), name]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    if done.returncode not in (0, 3):
        raise OSError(done.stderr.strip() or f"{name}: qtrace stats failed")
    return json.loads(done.stdout), done.returncode == 3


class _Targets:
    """Counts of keys in bounded memory, as the command keeps them: each too low by at most `shortfall`."""

    def __init__(self):
        self.counts: Dict[str, int] = {}
        self.shortfall = 0

    def add(self, address: str, times: int) -> None:
        if address not in self.counts:
            while len(self.counts) == _TARGETS:
                self.make_room()
            self.counts[address] = 0
        self.counts[address] += times

    def make_room(self) -> None:
        least = min(self.counts.values())
        self.shortfall += least
        self.counts = {address: times - least for address, times in self.counts.items() if times > least}


def _page_key(page: Dict[str, Any]) -> Tuple[str, str, Optional[str]]:
    return page["address"], page["size"], page.get("lpid")


def _hottest(pages: Sequence[Dict[str, Any]]) -> List[Dict[str, Any]]:
    return sorted(pages, key=lambda page: (-page["times"], int(page["address"], 16)))


def _sum_of_pages(lists: Sequence[List[Dict[str, Any]]]) -> List[Dict[str, Any]]:
    times, pages = Counter(), {}
    for page in (page for pages_of_file in lists for page in pages_of_file):
        times[_page_key(page)] += page["times"]
        pages[_page_key(page)] = page
    return _hottest([page | {"times": times[place]} for place, page in pages.items()])


def _sum_of_partitions(lists: Sequence[List[Dict[str, Any]]]) -> List[Dict[str, Any]]:
    instructions = Counter()
    for partition in (partition for of_file in lists for partition in of_file):
        instructions[int(partition["lpid"], 16), partition["pid"]] += partition["instructions"]
    return [{"lpid": f"0x{lpid:x}", "pid": pid, "instructions": n} for (lpid, pid), n in sorted(instructions.items())]


def _numbers_of_pages(total: Dict[str, Any]) -> Dict[str, int]:
    """Pages of several files are one page."""
    numbers = {}
    for side in ("fetch", "data"):
        sizes = Counter(page["size"] for page in total[f"hot_{side}_pages"])
        numbers.update({f"{side}_pages_{size}": number for size, number in sizes.items()})
    return numbers


def _total(files: Sequence[Dict[str, Any]]) -> Dict[str, Any]:
    total: Dict[str, Any] = {"file": "total"}
    for name in dict.fromkeys(name for figures in files for name in figures):
        values = [figures[name] for figures in files if name in figures]
        if name.startswith("hot_") and name.endswith("_pages"):
            total[name] = _sum_of_pages(values)
        elif name == "partitions":
            total[name] = _sum_of_partitions(values)
        elif isinstance(values[0], bool):
            total[name] = any(values)
        elif isinstance(values[0], (int, float)):
            total[name] = sum(values)
    if not total.get("pages_estimated"):
        total.update(_numbers_of_pages(total))
    targets = _Targets()
    for figures in files:
        for target in figures["hot_targets"]:
            targets.add(target["address"], target["times"])
        targets.shortfall += figures["target_shortfall"]
    total["hot_targets"] = _hottest([{"address": key, "times": times} for key, times in targets.counts.items()])
    total["target_shortfall"] = targets.shortfall
    _average(total, [figures["total_bytes"] for figures in files])
    return total


def _average(total: Dict[str, Any], bytes_of_files: Sequence[Dict[str, int]]) -> None:
    sums = Counter()
    for of_file in bytes_of_files:
        sums.update(of_file)
    total["total_bytes"] = dict(sums)
    for group, number in sums.items():
        total[f"bytes_{group}"] = float(f"{number / max(total['instructions'], 1):.4f}")


def stats(name: Union[Name, Sequence[Name]], top: int = 10, on_damage: str = "raise") -> List[Dict[str, Any]]:
    """The figures of `qtrace stats --json`: a dict for each file and, of several, one more whose "file" is "total".

    name       a trace file, what the names of the files begin with, or several of these
    top        pages and branch targets to list
    on_damage  "raise": DamageError when something is lost; "skip": the figures of what is there

    Each file is a task of its own, in which the command qtrace runs. Where the files have more than 8192 branch
    targets together, their counts may be lower than those of one run, within "target_shortfall". Where the pages of a
    file are estimated ("pages_estimated"), the total adds up the numbers of pages: one in several files counts in each.
    """
    if on_damage not in ("raise", "skip"):
        raise ValueError(f'on_damage is "raise" or "skip", not {on_damage!r}')
    names = [name] if isinstance(name, (str, os.PathLike)) else list(name)
    files = [file for each in names for file in files_of(each)]
    found = dask.compute(*(dask.delayed(_stats_of)(file) for file in files))
    for file, (_, lost) in zip(files, found):
        if lost and on_damage == "raise":
            raise DamageError(file, Trace(file).damage)
    figures = [of_file for of_file, _ in found]
    if len(figures) > 1:
        figures.append(_total(figures))
        for of_file in figures[:-1]:
            for metric in figures[-1]:
                of_file.setdefault(metric, 0)
    for of_file in figures:
        for metric in ("hot_fetch_pages", "hot_data_pages", "hot_targets"):
            of_file[metric] = of_file[metric][:top]
    return figures
