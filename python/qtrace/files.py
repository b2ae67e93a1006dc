"""The other two files of a session: the text trace and the page-table-entry trace."""
from __future__ import annotations

import builtins
import os
import re
from typing import Dict, List, Tuple

import numpy as np
import pandas as pd

from .frames import Name

# The items of a record line up to the next address; what follows depends on the instruction.
_LINE = re.compile(
    r"\(seq:(?P<seq>\d+),tid:(?P<thread>\d+)\) \(xlatetype_I:(?P<fetch_mode>[^)]*)\) \(xlatetype_D:(?P<data_mode>[^)]*)\) "
    r"\(pid:(?P<process>\d+),lpid:(?P<partition>\d+),ptcr:(?P<ptcr>0x[0-9A-Fa-f]+)\) "
    r"\((?P<privilege>KERN|USER),(?P<cycle_mode>SIMP|CYCLE)\) \(commit:(?P<committed>[01])\)"
    r"\(instbody:(?P<word>0x[0-9A-Fa-f]+)\) \{name:(?P<name>.*?)\} "
    r"\(I:(?P<has_next>[01])\) \(N:(?P<has_node>[01])\) \(T:(?P<terminates>[01])\) "
    r"\(PC:(?P<address>0x[0-9A-Fa-f]+)\) \(nextPC:(?P<next>0x[0-9A-Fa-f]+)\) (?P<rest>.*)"
)
_DATA = re.compile(r"\(DEA:(0x[0-9A-Fa-f]+)")
_LENGTH = re.compile(r"\(len:(\d+)\) ")
_BRANCH_ITEM = re.compile(r"\(branch [^)]*?(untaken|taken)")
_DECIMAL = {"seq": "u8", "thread": "u4", "process": "u4", "partition": "u8"}
_HEXADECIMAL = {"ptcr": "u8", "word": "u4", "address": "u8", "next": "u8"}
_FLAGS = ("committed", "has_next", "has_node", "terminates")
_BRANCH = pd.CategoricalDtype(("none", "taken", "untaken"))


def read_text(name: Name) -> pd.DataFrame:
    """The instructions of a text trace, one row a line.

    seq, partition, ptcr, address, next  uint64    sequence number, lpid, partition-table control register, addresses
    thread, process, word                uint32    hardware thread, pid, instruction word
    fetch_mode, data_mode                category  the simulator's names of the translation modes
    name                                 str       mnemonic and operands
    kernel, cycle_mode, committed        bool
    has_next, has_node, terminates       bool      the items I, N and T
    branch                               category  "none", "taken", "untaken"
    data, has_data                       uint64, bool  effective address of the access; 0 where has_data is False
    length                               uint16    bytes that a string instruction moves

    `attrs["events"]` are the other lines (file headers, pauses, changes of partition) with the numbers of the rows
    that follow them. A last line that is not complete is left out, and `attrs["cut"]` is True.
    Raises OSError, and ValueError where a line is not one of a text trace.
    """
    rows: List[Tuple[str, ...]] = []
    events, cut = [], False
    with builtins.open(name, encoding="latin-1", newline="\n") as lines:
        for number, line in enumerate(lines, 1):
            if not line.startswith("(seq:"):
                events.append((len(rows), line.rstrip("\n")))
                continue
            match = _LINE.fullmatch(line.rstrip("\n"))
            cut = not line.endswith("\n")
            if match and not cut:
                rows.append(match.groups())
            elif not cut:
                raise ValueError(f"{os.fspath(name)}: line {number} is not one of a text trace")
    keys = list(_LINE.groupindex)
    frame = _text_frame(dict(zip(keys, zip(*rows))) if rows else {key: () for key in keys})
    frame.attrs["events"], frame.attrs["cut"] = tuple(events), cut
    return frame


def _text_frame(items: Dict[str, Tuple[str, ...]]) -> pd.DataFrame:
    columns: Dict[str, object] = {}
    for key, kind in _DECIMAL.items():
        columns[key] = np.array([int(text) for text in items[key]], kind)
    for key, kind in _HEXADECIMAL.items():
        columns[key] = np.array([int(text, 16) for text in items[key]], kind)
    for key in ("fetch_mode", "data_mode"):
        columns[key] = pd.Categorical(items[key])
    columns["name"] = np.array(items["name"], object)
    columns["kernel"] = np.array(items["privilege"], object) == "KERN"
    columns["cycle_mode"] = np.array(items["cycle_mode"], object) == "CYCLE"
    for key in _FLAGS:
        columns[key] = np.array(items[key], object) == "1"
    rest = items["rest"]
    branches = [_BRANCH_ITEM.search(text) for text in rest]
    columns["branch"] = pd.Categorical([match[1] if match else "none" for match in branches], dtype=_BRANCH)
    data = [_DATA.search(text) for text in rest]
    columns["data"] = np.array([int(match[1], 16) if match else 0 for match in data], "u8")
    columns["has_data"] = np.array([match is not None for match in data], bool)
    lengths = [_LENGTH.search(text) for text in rest]
    columns["length"] = np.array([int(match[1]) if match else 0 for match in lengths], "u2")
    order = ["seq", "thread", "address", "next", "has_next", "word", "name", "branch", "data", "has_data", "length"]
    return pd.DataFrame({key: columns.pop(key) for key in order} | columns)


_PTE_COLUMNS = {
    "radix": ("directory_1", "directory_2", "directory_3", "entry", "address"),
    "hpt": ("address", "upper", "lower"),
    "words": ("word",),
}


def read_pte(name: Name, kind: str) -> pd.DataFrame:
    """The accesses of a page-table-entry trace, one row each; all columns uint64.

    The file does not say what its words are. kind:
    "radix"  directory_1, directory_2, directory_3, entry: real addresses of the directory entries of levels 1 to 3 and
             of the page-table entry, 0 where the walk did not use the level; address: physical address of the access
    "hpt"    address: physical address of the access; upper, lower: the doublewords of the entry
    "words"  word: the words as they stand; for files in which both kinds are mixed

    Raises OSError, and ValueError when the file is not a whole number of such accesses.
    """
    if kind not in _PTE_COLUMNS:
        raise ValueError(f'kind is "radix", "hpt" or "words", not {kind!r}')
    columns = _PTE_COLUMNS[kind]
    size = os.stat(name).st_size
    if size % (8 * len(columns)):
        raise ValueError(f"{os.fspath(name)}: {size} bytes are no whole number of accesses of {8 * len(columns)} bytes")
    accesses = np.fromfile(name, [(column, ">u8") for column in columns])
    return pd.DataFrame({column: accesses[column].astype("u8") for column in columns})
