"""Trace files as data frames. `help(qtrace)` shows what of this users see."""
from __future__ import annotations

import ctypes
import os
import re
import struct
import threading
from concurrent.futures import ThreadPoolExecutor
from typing import Dict, Iterator, List, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np
import pandas as pd

from . import _library
from ._library import ITEM_DISCONTINUITY, ITEM_END, ITEM_HEADER, Reader
from .choice import Choice, Found

Name = Union[str, os.PathLike]

NO_CONTEXT = _library.NO_CONTEXT

DEFAULT_COLUMNS = (
    "address", "next", "data", "has_next", "has_data", "word", "flags", "data_translation", "next_translation",
    "context", "node", "termination", "error", "length",
)  # fmt: skip
# An error has a column of its own, with its code.
KINDS = tuple(name for name in _library.KIND_BITS if name != "error")
_MASKS = ("has_address", "has_next", "has_data")
_TRANSLATIONS = ("data_translation", "next_translation")
# Columns made from a translation: that of the number, the member of its row.
_TRANSLATED = {
    f"{side}_{name}": (f"{side}_translation", member)
    for side in ("data", "next")
    for name, member in (("page", "rpn"), ("page_size", "page_size"), ("guest_page_size", "guest_page_size"))
}
ALL_COLUMNS = (*(name for name in _library.COLUMNS if name != "kinds"), *KINDS, *_TRANSLATED, "thread")

MODES = ("radix", "hpt", "real", "none")
_MODE = pd.CategoricalDtype(MODES)
_DIRECTION = pd.CategoricalDtype(("in", "out"))
_CLASS = pd.CategoricalDtype(_library.REGISTER_CLASSES)
REGISTER_LISTS = tuple(f"{name}_{way}" for way in ("in", "out") for name in _library.REGISTER_CLASSES)


# ---- What is not there ---------------------------------------------------------------------------------


class Discontinuity(NamedTuple):
    """A place where a trace does not simply go on.

    cause: "pause" (tracing was paused and resumed), "refused" (the writer had no room), "left out" (a recovery or a
    cut left blocks out), "damage" (bytes cannot be read, or blocks are missing) or "cut end" (the file has no end).
    """

    cause: str
    record: int  #: number of the first record that is missing, or of the next one when none is
    records: int  #: records missing there, as far as known
    records_known: bool  #: `records` is exact
    headers: int  #: file headers missing there, as far as known
    offset: int  #: first damaged byte in the file, or where the following block begins
    bytes: int  #: damaged bytes
    reason: str

    @property
    def is_damage(self) -> bool:
        """Whether the file is not as it was written."""
        return self.cause in ("damage", "cut end")

    def __str__(self) -> str:
        known = "" if self.records_known else "at least "
        return f"byte {self.offset}: {self.reason}, {known}{self.records} records lost from record {self.record} on"


class DamageError(ValueError):
    """A trace is damaged where it was read. `damage` names the places."""

    def __init__(self, name: str, damage: Sequence[Discontinuity]):
        more = f" (and {len(damage) - 1} more places)" if len(damage) > 1 else ""
        super().__init__(f'{name}: {damage[0]}{more}; on_damage="skip" or "mark" reads the rest')
        self.name = name
        self.damage = tuple(damage)

    def __reduce__(self):
        return type(self), (self.name, self.damage)


def _discontinuity(item: _library.Item) -> Discontinuity:
    what = item.discontinuity
    return Discontinuity(
        _library.LIBRARY.qtrace_cause_name(what.cause).decode(), item.record_number, what.records, bool(what.records_known), what.headers,
        what.offset, what.bytes, (what.reason or b"").decode(),
    )  # fmt: skip


# ---- Reading ranges ------------------------------------------------------------------------------------


class _Part:
    """Records of a range, as they are read: arrays by column, runs of consecutive numbers, discontinuities."""

    def __init__(self, arrays: Dict[str, np.ndarray], room: int):
        self.arrays, self.room = arrays, room
        self.rows = 0
        self.runs: List[Tuple[int, int]] = []  # first record, records
        self.discontinuities: List[Tuple[int, Discontinuity]] = []  # row that follows, what
        self.translations: Optional[_library.Translations] = None

    def columns(self) -> _library.Columns:
        """The arrays from the first free row on."""
        columns = _library.Columns()
        for name, array in self.arrays.items():
            columns.which |= _library.COLUMN_BITS[name]
            setattr(columns, name, array.ctypes.data + self.rows * array.itemsize)
        if self.translations is not None:
            columns.translations = self.translations.handle
        return columns

    def add(self, first: int, records: int) -> None:
        """Notes records that were read."""
        self.rows += records
        if self.runs and sum(self.runs[-1]) == first:
            first, records = self.runs[-1][0], self.runs.pop()[1] + records
        self.runs.append((first, records))

    def note(self, reader: Reader) -> None:
        """Notes a discontinuity."""
        self.discontinuities.append((self.rows, _discontinuity(reader.item.contents)))


class _Range(NamedTuple):
    """Records from `start` to before `stop`, of which the blocks have `records`; `last`: the file ends there."""

    start: int
    stop: int
    records: int
    last: bool


def _go_to_start(reader: Reader, wanted: _Range, in_order: bool) -> bool:
    """False when the file has no record from there on."""
    return not wanted.start or not in_order or reader.seek(wanted.start)


def _to_read(room: int, wanted: _Range, number: Optional[int], in_order: bool) -> int:
    """Records that the next call may read. `number` is that of the next record; None after a loss: then a record may
    follow that is not in the range, and only one is read."""
    if not in_order:
        return room
    return min(room, 1 if number is None else wanted.stop - number)


def _read_columns(name: str, part: _Part, wanted: _Range, in_order: bool) -> None:
    with Reader(name) as reader:
        if not _go_to_start(reader, wanted, in_order):
            return
        number = wanted.start
        while (rows := _to_read(part.room - part.rows, wanted, number, in_order)) > 0:
            columns = part.columns()
            kind = reader.read_columns(rows, columns)
            if columns.rows:
                if columns.first_record >= wanted.stop:
                    return  # the rest of the range is lost
                part.add(columns.first_record, columns.rows)
                number = columns.first_record + columns.rows
            if kind == ITEM_END:
                return
            if kind == ITEM_DISCONTINUITY:
                part.note(reader)
                number = None
        if wanted.last:
            _read_end(reader, part)


def _read_end(reader: Reader, part: _Part) -> None:
    while (kind := reader.next_header()) != ITEM_END:
        if kind == ITEM_DISCONTINUITY:
            part.note(reader)


# ---- Translations of a file ----------------------------------------------------------------------------

_TRANSLATION = np.dtype(
    [
        ("guest_mode", "u1"), ("host_mode", "u1"), ("present", "u1"), ("page_size", "u1"), ("guest_page_size", "u1"),
        ("guest_depth", "u1"), ("host_depth", "u1"), ("reserved", "u1"), ("rpn", "u8"), ("vsid", "u8"),
        ("host_walk", "u8", (5, 4)), ("host_address", "u8", 4), ("guest_walk", "u8", 5), ("guest_address", "u8"),
    ]
)  # fmt: skip


class _FileTranslations:
    """The translations of a file that this process has met. Their numbers never change while the file does not."""

    def __init__(self):
        self.table = _library.Translations()
        self.lock = threading.Lock()
        self.complete = False

    def numbers_of(self, other: _library.Translations) -> Optional[np.ndarray]:
        """Adds another table; returns the numbers of its rows here, or None when they are the same."""
        numbers = np.empty(len(other), np.uint32)
        with self.lock:
            self.table.merge(other, numbers.ctypes.data)
        return None if np.array_equal(numbers, np.arange(len(numbers))) else numbers

    def rows(self) -> np.ndarray:
        """All rows so far."""
        with self.lock:
            rows = np.empty(len(self.table), _TRANSLATION)
            self.table.copy(0, len(rows), rows.ctypes.data)
        return rows


_files: Dict[tuple, _FileTranslations] = {}
_files_lock = threading.Lock()


def _translations_of(name: str) -> _FileTranslations:
    status = os.stat(name)
    key = (os.path.realpath(name), status.st_dev, status.st_ino, status.st_size, status.st_mtime_ns)
    with _files_lock:
        return _files.setdefault(key, _FileTranslations())


def _translation_frame(rows: np.ndarray) -> pd.DataFrame:
    columns: Dict[str, object] = {}
    for side in ("guest", "host"):
        columns[f"{side}_mode"] = pd.Categorical.from_codes(rows[f"{side}_mode"].astype("i1"), dtype=_MODE)
    for bit, (name, kind) in enumerate({"vsid": "u8", "rpn": "u4", "page_size": "u1", "guest_page_size": "u1"}.items()):
        columns[name] = rows[name].astype(kind)
        columns[f"has_{name}"] = (rows["present"] & (1 << bit)) != 0
    columns["guest_depth"], columns["host_depth"] = rows["guest_depth"].copy(), rows["host_depth"].copy()
    for walk in range(5):
        for level, name in enumerate(("l1", "l2", "l3", "entry")):
            columns[f"host_walk_{walk}_{name}"] = rows["host_walk"][:, walk, level].copy()
    for walk in range(4):
        columns[f"host_address_{walk}"] = rows["host_address"][:, walk].copy()
    for level, name in enumerate(("l1", "l2", "l3", "l4", "entry")):
        columns[f"guest_walk_{name}"] = rows["guest_walk"][:, level].copy()
    columns["guest_address"] = rows["guest_address"].copy()
    return pd.DataFrame(columns, index=pd.RangeIndex(len(rows), name="translation"))


# ---- File headers --------------------------------------------------------------------------------------


_HEADER_MEMBERS = ("lpid", "pid", "iar", "ptcr", "sdr1")


def _header_dtype() -> np.dtype:
    members = {"file_flags": (0, "u4"), "flags": (8, "u8")}
    for member in _library.rows_of("qtrace_header_members"):
        if member.name.decode() in _HEADER_MEMBERS:
            members[member.name.decode()] = (member.offset, f"u{member.width}")
    return np.dtype(
        {
            "names": list(members),
            "formats": [kind for _, kind in members.values()],
            "offsets": [offset for offset, _ in members.values()],
            "itemsize": _library.HEADER_SIZE,
        }
    )


_HEADER = _header_dtype()
_ADDRESS_PRESENT = 1 << 13  # of a file header's own flags


class _HeaderRow(NamedTuple):
    number: int
    record: int
    image: bytes
    context: bytes
    comment: Optional[str]
    lost: bool


class _Scan:
    """One pass over a file: its headers and discontinuities."""

    def __init__(self, name: str):
        self.rows: Dict[int, _HeaderRow] = {}
        self.discontinuities: List[Discontinuity] = []
        with Reader(name) as reader:
            while (kind := reader.next_header()) != ITEM_END:
                if kind == ITEM_HEADER:
                    self.add_header(reader)
                else:
                    self.add_discontinuity(reader.item.contents)

    def add_header(self, reader: Reader) -> None:
        item = reader.item.contents
        image = bytes(item.header)
        comment = None
        length, address = struct.unpack_from("<H6xQ", image, 336)  # of the comment
        if address:
            comment = ctypes.string_at(address, length).decode("latin-1")
        context = reader.context() or image
        self.rows[item.header_number] = _HeaderRow(
            item.header_number, item.record_number, image, context, comment, False
        )

    def add_discontinuity(self, item: _library.Item) -> None:
        what = item.discontinuity
        self.discontinuities.append(_discontinuity(item))
        number = item.header_number + what.headers - 1  # of the header in force, which the next block restates
        if what.context and number >= 0 and number not in self.rows:
            image = ctypes.string_at(what.context, _library.HEADER_SIZE)
            self.rows[number] = _HeaderRow(number, item.record_number + what.records, image, image, None, True)

    def headers(self) -> pd.DataFrame:
        rows = [self.rows[number] for number in sorted(self.rows)]
        own = np.frombuffer(b"".join(row.image for row in rows), _HEADER)
        context = np.frombuffer(b"".join(row.context for row in rows), _HEADER)
        flags = context["flags"]
        modes = {
            f"{side}_mode": pd.Categorical.from_codes((flags >> np.uint64(bit) & np.uint64(3)).astype("i1"), dtype=_MODE)
            for side, bit in (("guest", 8), ("host", 10))
        }
        return pd.DataFrame(
            {
                "record": np.array([row.record for row in rows], np.uint64),
                "full": (own["file_flags"] & _ADDRESS_PRESENT) != 0,
                "partition": context["lpid"].copy(),
                "process": context["pid"].copy(),
                "address": context["iar"].copy(),
                **modes,
                "ptcr": context["ptcr"].copy(),
                "sdr1": context["sdr1"].copy(),
                "lost": np.array([row.lost for row in rows], bool),
                "comment": np.array([row.comment for row in rows], object),
            },
            index=pd.Index(np.array([row.number for row in rows], np.int64), name="header"),
        )


# ---- Trace files ---------------------------------------------------------------------------------------


def thread_of(name: Name) -> int:
    """The hardware thread of a trace file: the number at the end of its name. ValueError when there is none."""
    digits = re.search(r"\d+$", os.fspath(name))
    if not digits:
        raise ValueError(f"{name}: the column `thread` needs a name that ends in the number of a thread")
    return int(digits[0])


class Trace:
    """A trace file. Nothing but block headers is read before it is asked for.

    name     the file's name
    records  records in the file
    blocks   a frame of its blocks, index = block number: offset and size in bytes, first_record, records,
             first_header, headers (all int64)
    """

    def __init__(self, name: Name):
        self.name = os.fspath(name)
        with Reader(self.name) as reader:
            plan = np.frombuffer(reader.blocks(), np.dtype([(field, "u8") for field, _ in _library.Block._fields_]))
        self._plan = plan[plan["records"] > 0]
        self._first = self._plan["first_record"].astype(np.int64)
        self._end = self._first + self._plan["records"].astype(np.int64)
        self._in_order = bool((self._first[1:] >= self._end[:-1]).all())
        self.records = int(plan["records"].sum())
        self.blocks = pd.DataFrame(
            {name: plan[name].astype(np.int64) for name in plan.dtype.names}, index=pd.RangeIndex(len(plan), name="block")
        )
        self._scan: Optional[_Scan] = None

    def __repr__(self) -> str:
        return f"<trace {self.name}: {self.records} records in {len(self.blocks)} blocks>"

    # ---- Headers and losses ----

    def _scanned(self) -> _Scan:
        if self._scan is None:
            self._scan = _Scan(self.name)
        return self._scan

    @property
    def headers(self) -> pd.DataFrame:
        """The file headers, index = header number, which the column `context` of frames names.

        record (uint64): number of the record that follows; full (bool): a whole header, else a change of partition or
        process only; partition, ptcr, sdr1, address (uint64), process (uint32), guest_mode, host_mode (category):
        those in force from here on, filled forward; lost (bool): the header itself is lost, what it says is known
        from the block that follows; comment (str or None).

        Reads the whole file at first, and remembers what it found.
        """
        return self._scanned().headers()

    @property
    def gaps(self) -> Tuple[Discontinuity, ...]:
        """Discontinuities that the writer or a recovery knew of: pauses, refused and left-out records. Reads as
        `headers` does."""
        return tuple(what for what in self._scanned().discontinuities if not what.is_damage)

    @property
    def damage(self) -> Tuple[Discontinuity, ...]:
        """What is damaged, missing or cut off. Reads as `headers` does."""
        return tuple(what for what in self._scanned().discontinuities if what.is_damage)

    # ---- Frames ----

    def _records_in(self, start: int, stop: int) -> int:
        overlap = np.minimum(self._end, stop) - np.maximum(self._first, start)
        return int(np.maximum(overlap, 0).sum())

    @property
    def _stop(self) -> int:
        return int(self._end.max()) if len(self._end) else 0

    def _ranges(self, start: int, stop: int, threads: int) -> List[_Range]:
        """The range in about equal parts that begin with blocks."""
        if not self._in_order:
            return [_Range(0, self._stop, self.records, True)]
        bounds = [start]
        for i in range(1, threads):
            wanted = start + (min(stop, self._stop) - start) * i // threads
            block = np.searchsorted(self._first, wanted)
            if block < len(self._first) and bounds[-1] < self._first[block] < stop:
                bounds.append(int(self._first[block]))
        ends = [*bounds[1:], stop]
        return [
            _Range(first, end, self._records_in(first, end), end >= self._stop) for first, end in zip(bounds, ends)
        ]

    def frame(
        self,
        columns: Optional[Sequence[str]] = None,
        start: int = 0,
        count: Optional[int] = None,
        on_damage: str = "raise",
        threads: int = 1,
        **choice,
    ) -> pd.DataFrame:
        """As `qtrace.frame`."""
        columns = _checked_columns(columns)
        stop = _checked_range(start, count, self._stop)
        _checked_policy(on_damage, threads)
        if chosen := Choice(**choice):
            return self._chosen_frame(chosen, columns, (start, self._stop), count, on_damage, threads)
        return self._frame(columns, start, stop, on_damage, threads)

    def _frame(self, columns: Sequence[str], start: int, stop: int, on_damage: str, threads: int) -> pd.DataFrame:
        base = _base_columns(columns)
        ranges = self._ranges(start, stop, threads)
        rows = sum(wanted.records for wanted in ranges)
        arrays = {name: np.empty(rows, _dtype(name)) for name in base}
        parts = _split(arrays, ranges)
        translations = _translations_of(self.name) if any(name in base for name in _TRANSLATIONS) else None
        with _pool(threads) as pool:
            list(pool.map(lambda job: self._fill(*job, translations), list(zip(parts, ranges))))
            if translations is not None:
                numbers = [translations.numbers_of(part.translations) for part in parts]
                list(pool.map(_renumber, parts, numbers))
        return self._assemble(parts, arrays, columns, (start, stop), on_damage)

    # ---- Chosen records ----

    def _chosen_parts(self, chosen: Choice, columns, limits, most, on_damage, threads, rows) -> Iterator[pd.DataFrame]:
        """The chosen records of a range, `most` of them at most, from so many rows at a time."""
        own = list(dict.fromkeys([*columns, *chosen.columns]))
        shown = [*columns, *(["discontinuity"] if on_damage == "mark" else [])]
        marks = marked = 0  # discontinuities before the next row, and before the last one that was chosen
        left = self.records if most is None else most
        start, stop = limits
        for first in range(start, stop, rows) if self._in_order else [start]:
            if not left:
                return
            last = min(first + rows, stop) if self._in_order else stop
            part = self._frame(own, first, last, on_damage, threads)
            places = np.flatnonzero(chosen.of(part, self._found(first, last)))[:left]
            result = part.iloc[places][shown]
            if on_damage == "mark":
                before = marks + np.cumsum(part["discontinuity"].to_numpy())
                marks = before[-1] if len(before) else marks
                before = before[places]
                result["discontinuity"] = np.diff(before, prepend=marked) > 0
                marked = before[-1] if len(before) else marked
            left -= len(places)
            result.attrs.update(part.attrs)
            yield result

    def _found(self, first: int, last: int) -> Found:
        def registers(classes):
            lists = [f"{name}_{way}" for name in classes for way in ("in", "out")]
            return self.registers(lists, first, last - first, "skip")

        return Found(lambda: self.headers, _translations_of(self.name).rows, registers)

    def _chosen_frame(self, chosen: Choice, columns, limits, most, on_damage, threads=1) -> pd.DataFrame:
        parts = list(self._chosen_parts(chosen, columns, limits, most, on_damage, threads, _CHOICE_ROWS))
        start, _ = limits
        parts = parts or [self._frame(columns, start, start, on_damage, threads)]
        # What pandas concatenates has attributes only where all parts have the same ones.
        attributes = {
            name: tuple(dict.fromkeys(what for part in parts for what in part.attrs[name])) for name in ("damage", "gaps")
        }
        for part in parts:
            part.attrs.clear()
        frame, *more = parts
        frame = pd.concat(parts) if more else frame
        frame.index.name = "record"
        frame.attrs.update(attributes)
        return frame

    def _fill(self, part: _Part, wanted: _Range, translations: Optional[_FileTranslations]) -> None:
        if translations is not None:
            part.translations = _library.Translations()
        _read_columns(self.name, part, wanted, self._in_order)

    def _assemble(self, parts, arrays, columns, limits, on_damage) -> pd.DataFrame:
        found = _all_discontinuities(parts)
        damage = tuple(what for _, what in found if what.is_damage)
        if damage and on_damage == "raise":
            raise DamageError(self.name, damage)
        if sum(part.rows for part in parts) < sum(part.room for part in parts):
            arrays = {
                name: np.concatenate([part.arrays[name][: part.rows] for part in parts]) for name in arrays
            }
        index = _index([run for part in parts for run in part.runs])
        result = {name: self._column(name, arrays, len(index)) for name in columns}
        if on_damage == "mark":
            result["discontinuity"] = np.zeros(len(index), bool)
            result["discontinuity"][[row for row, _ in found if row < len(index)]] = True
        frame = pd.DataFrame(result, index=index, copy=False)
        if not self._in_order:
            start, stop = limits
            frame = frame[(index >= start) & (index < stop)]
        frame.attrs["damage"] = damage
        frame.attrs["gaps"] = tuple(what for _, what in found if not what.is_damage)
        return frame

    def _column(self, name: str, arrays: Dict[str, np.ndarray], rows: int) -> np.ndarray:
        if name == "thread":
            return np.full(rows, thread_of(self.name), np.uint16)
        if name in KINDS:
            return (arrays["kinds"] & np.uint16(_library.KIND_BITS[name])) != 0
        if name in _TRANSLATED:
            number, member = _TRANSLATED[name]
            values = _translations_of(self.name).rows()[member]
            return np.take(values.astype("u4" if member == "rpn" else "u1"), arrays[number])
        array = arrays[name]
        return array.view(bool) if name in _MASKS else array

    def batches(
        self,
        rows: int = 1_000_000,
        columns: Optional[Sequence[str]] = None,
        start: int = 0,
        count: Optional[int] = None,
        on_damage: str = "raise",
        threads: int = 1,
        **choice,
    ) -> Iterator[pd.DataFrame]:
        """As `qtrace.batches`."""
        stop = _checked_range(start, count, self._stop)
        if rows < 1:
            raise ValueError("a batch needs at least one row")
        if not self._in_order:
            raise ValueError(f"{self.name}: its blocks are not in order; `frame` reads them")
        columns = _checked_columns(columns)
        _checked_policy(on_damage, threads)
        if chosen := Choice(**choice):
            limits = (start, self._stop)
            batches_of = self._chosen_parts(chosen, columns, limits, count, on_damage, threads, rows)
        else:
            ranges = ((first, min(first + rows, stop)) for first in range(start, stop, rows))
            batches_of = (self._frame(columns, *limits, on_damage, threads) for limits in ranges)
        for batch in batches_of:
            yield batch
            # The caller still holds it: without this, two batches would be in memory at a time.
            _empty(batch)
            del batch

    # ---- Registers ----

    def registers(
        self,
        classes: Optional[Sequence[str]] = None,
        start: int = 0,
        count: Optional[int] = None,
        on_damage: str = "raise",
        threads: int = 1,
        **choice,
    ) -> pd.DataFrame:
        """As `qtrace.registers`."""
        masks = _class_masks(classes)
        stop = _checked_range(start, count, self._stop)
        _checked_policy(on_damage, threads)
        if on_damage == "mark":
            raise ValueError('registers have no mark; on_damage is "raise" or "skip"')
        if chosen := Choice(**choice):
            return self._chosen_registers(chosen, masks, start, count, on_damage, threads)
        return self._registers(masks, start, stop, on_damage, threads)

    def _chosen_registers(self, chosen: Choice, masks, start, count, on_damage, threads) -> pd.DataFrame:
        if not self._in_order:
            raise ValueError(f"{self.name}: its blocks are not in order, so registers cannot be chosen")
        records = self._chosen_frame(chosen, (), (start, self._stop), count, on_damage, threads)
        parts = []
        for first in range(start, self._stop, _CHOICE_ROWS):
            wanted = records.index[(records.index >= first) & (records.index < first + _CHOICE_ROWS)].to_numpy()
            if len(wanted):
                part = self._registers(masks, int(wanted[0]), int(wanted[-1]) + 1, on_damage, threads)
                part.attrs.clear()
                parts.append(part[np.isin(part["record"].to_numpy().astype(np.int64), wanted)])
        frame = pd.concat(parts, ignore_index=True) if parts else self._registers(masks, start, start, on_damage, threads)
        frame.attrs.update(records.attrs)
        return frame

    def _registers(self, masks: Tuple[int, int], start: int, stop: int, on_damage: str, threads: int) -> pd.DataFrame:
        ranges = self._ranges(start, stop, threads)
        with _pool(threads) as pool:
            parts = list(pool.map(lambda wanted: _read_registers(self.name, wanted, masks, self._in_order), ranges))
        found = _all_discontinuities(parts)
        damage = tuple(what for _, what in found if what.is_damage)
        if damage and on_damage == "raise":
            raise DamageError(self.name, damage)
        part, *more = parts
        arrays = part.arrays
        if more:
            arrays = {name: np.concatenate([part.arrays[name] for part in parts]) for name in arrays}
        frame = _register_frame(arrays)
        if not self._in_order:
            frame = frame[(frame["record"] >= np.uint64(start)) & (frame["record"] < np.uint64(stop))]
            frame.reset_index(drop=True, inplace=True)
        frame.attrs["damage"] = damage
        frame.attrs["gaps"] = tuple(what for _, what in found if not what.is_damage)
        return frame

    # ---- Translations ----

    def translations(self) -> pd.DataFrame:
        """As `qtrace.translations`."""
        known = _translations_of(self.name)
        if not known.complete:
            # Blocks that are not in order are read all at once.
            rows = _BATCH if self._in_order else self._stop
            for first in range(0, self._stop, rows):
                self.frame(_TRANSLATIONS, first, rows, on_damage="skip")
            known.complete = True
        return _translation_frame(known.rows())


_BATCH = 1 << 16
_CHOICE_ROWS = 1 << 20  # from which records are chosen at a time


class _Alone:
    """A pool of the calling thread."""

    def __enter__(self) -> _Alone:
        return self

    def __exit__(self, *_) -> None:
        pass

    map = staticmethod(map)


def _pool(threads: int) -> Union[ThreadPoolExecutor, _Alone]:
    return ThreadPoolExecutor(threads) if threads > 1 else _Alone()


def _dtype(name: str) -> np.dtype:
    return np.dtype(_library.COLUMNS[name])


def dtype_of(name: str) -> np.dtype:
    """The type of a column of `frame`."""
    if name in _TRANSLATED:
        return np.dtype("u4" if name.endswith("_page") else "u1")
    special = {"thread": "u2", **dict.fromkeys((*KINDS, *_MASKS), "?")}
    return np.dtype(special[name]) if name in special else _dtype(name)


def _checked_columns(columns: Optional[Sequence[str]]) -> Sequence[str]:
    if columns is None:
        return DEFAULT_COLUMNS
    if isinstance(columns, str):
        raise TypeError(f"columns are a list of names, not a text: [{columns!r}]")
    for name in columns:
        if name not in ALL_COLUMNS:
            raise ValueError(f"no column {name!r}; there are {', '.join(ALL_COLUMNS)}")
    return list(dict.fromkeys(columns))


def _checked_range(start: int, count: Optional[int], stop: int) -> int:
    if start < 0 or (count is not None and count < 0):
        raise ValueError("start and count are not negative")
    return stop if count is None else min(stop, start + count)


def _checked_policy(on_damage: str, threads: int = 1) -> None:
    if on_damage not in ("raise", "skip", "mark"):
        raise ValueError(f'on_damage is "raise", "skip" or "mark", not {on_damage!r}')
    if threads < 1:
        raise ValueError("threads is at least 1")


def _base_columns(columns: Sequence[str]) -> List[str]:
    """The library's columns from which the wanted ones are made; at least one, so that records are counted."""
    base = []
    for name in columns:
        base.append("kinds" if name in KINDS else _TRANSLATED[name][0] if name in _TRANSLATED else name)
    return [name for name in dict.fromkeys(base) if name != "thread"] or ["node"]


def _split(arrays: Dict[str, np.ndarray], ranges: List[_Range]) -> List[_Part]:
    parts, first = [], 0
    for wanted in ranges:
        parts.append(_Part({name: array[first : first + wanted.records] for name, array in arrays.items()}, wanted.records))
        first += wanted.records
    return parts


def _renumber(part: _Part, numbers: Optional[np.ndarray]) -> None:
    if numbers is None:
        return
    for name in _TRANSLATIONS:
        if name in part.arrays:
            rows = part.arrays[name][: part.rows]
            np.take(numbers, rows, out=rows, mode="clip")


def _all_discontinuities(parts: Sequence[_Part]) -> List[Tuple[int, Discontinuity]]:
    """Those of all parts with rows of the whole; one between two parts is met by both."""
    found, rows = {}, 0
    for part in parts:
        for row, what in part.discontinuities:
            found.setdefault(what, rows + row)
        rows += part.rows
    return [(row, what) for what, row in found.items()]


def _index(runs: List[Tuple[int, int]]) -> pd.Index:
    joined: List[List[int]] = []
    for first, records in runs:
        if joined and sum(joined[-1]) == first:
            joined[-1][1] += records
        else:
            joined.append([first, records])
    if len(joined) <= 1:
        first, records = joined[0] if joined else (0, 0)
        return pd.RangeIndex(first, first + records, name="record")
    return pd.Index(np.concatenate([np.arange(first, first + n) for first, n in joined]), name="record")


def _empty(frame: pd.DataFrame) -> None:
    """Leaves a frame without rows; what was taken from it stays whole."""
    nothing = pd.DataFrame({name: np.empty(0, kind) for name, kind in frame.dtypes.items()})
    frame._mgr = nothing._mgr  # pylint: disable=protected-access
    frame._item_cache.clear()  # pylint: disable=protected-access


# ---- Registers -----------------------------------------------------------------------------------------


def _class_masks(classes: Optional[Sequence[str]]) -> Tuple[int, int]:
    if isinstance(classes, str):
        raise TypeError(f"classes are a list of names, not a text: [{classes!r}]")
    masks = {"in": 0, "out": 0}
    for name in REGISTER_LISTS if classes is None else classes:
        if name not in REGISTER_LISTS:
            raise ValueError(f"no register class {name!r}; there are {', '.join(REGISTER_LISTS)}")
        kind, way = name.split("_")
        masks[way] |= 1 << _library.REGISTER_CLASSES.index(kind)
    return masks["in"], masks["out"]


class _Registers(_Part):
    """Registers of a range: arrays that grow."""

    def __init__(self, records: int, masks: Tuple[int, int]):
        super().__init__({}, records)
        self.masks = masks
        self.registers = 0
        self.capacity = _library.MAX_REGISTERS
        self.arrays = {name: np.empty(self.capacity, kind) for name, kind in _library.REGISTER_COLUMNS.items()}

    def registers_from_here(self) -> _library.RegisterColumns:
        """The arrays from the first free row on, with room for the registers of a record."""
        if self.capacity - self.registers < _library.MAX_REGISTERS:
            self.resize(2 * self.capacity)
        inputs, outputs = self.masks
        columns = _library.RegisterColumns(inputs=inputs, outputs=outputs)
        columns.room = self.capacity - self.registers
        for name, array in self.arrays.items():
            setattr(columns, name, array.ctypes.data + self.registers * array.itemsize)
        return columns

    def resize(self, rows: int) -> None:
        # Large arrays are moved by the kernel, not copied.
        self.capacity = rows
        for array in self.arrays.values():
            array.resize(rows, refcheck=False)


def _read_registers(name: str, wanted: _Range, masks: Tuple[int, int], in_order: bool) -> _Registers:
    part = _Registers(wanted.records, masks)
    with Reader(name) as reader:
        if _go_to_start(reader, wanted, in_order):
            _fill_registers(reader, part, wanted, in_order)
    part.resize(part.registers)
    return part


def _fill_registers(reader: Reader, part: _Registers, wanted: _Range, in_order: bool) -> None:
    left, number = part.room, wanted.start
    while (records := _to_read(left, wanted, number, in_order)) > 0:
        columns = part.registers_from_here()
        kind = reader.read_registers(records, columns)
        if columns.records:
            number = reader.item.contents.record_number if number is None else number
            if in_order and number >= wanted.stop:
                return  # the rest of the range is lost
            number += columns.records
        left -= columns.records
        part.registers += columns.rows
        if kind == ITEM_END:
            return
        if kind == ITEM_DISCONTINUITY:
            part.note(reader)
            number = None
    if wanted.last:
        _read_end(reader, part)


def _register_frame(arrays: Dict[str, np.ndarray]) -> pd.DataFrame:
    codes = {name: arrays[name].view("i1") for name in ("output", "register_class")}
    return pd.DataFrame(
        {
            "record": arrays["record"],
            "direction": pd.Categorical.from_codes(codes["output"], dtype=_DIRECTION),
            "class": pd.Categorical.from_codes(codes["register_class"], dtype=_CLASS),
            "number": arrays["number"],
            "value": arrays["value"],
            "high": arrays["high"],
        },
        copy=False,
    )


# ---- Functions -----------------------------------------------------------------------------------------


def open(name: Name) -> Trace:  # pylint: disable=redefined-builtin
    """Opens a trace file; see `Trace`. Raises FileNotFoundError, or OSError when it is no trace file."""
    return Trace(name)


def frame(name: Name, columns=None, start=0, count=None, on_damage="raise", threads=1, **choice) -> pd.DataFrame:
    """Records of a trace file as a data frame, index = record number.

    columns   names, in the order wanted; without: the 14 up to `length`, 55 bytes a row

        address                     uint64  address of the instruction; 0 while unknown (has_address)
        next, data                  uint64  address of the next instruction, effective address of the access;
                                            0 where has_next, has_data are False
        has_next, has_data          bool
        word                        uint32  instruction word
        flags                       uint64  control word, unit 0 in the lower half
        data_translation,           uint32  how the addresses are translated: index of `translations()`;
        next_translation                    0 where there is no address
        context                     uint32  index of `Trace.headers`: partition, process; NO_CONTEXT before any
        node, termination, error    uint8   node number, termination code, error code; 0: none
        length                      uint16  bytes that a string instruction moves
        on request:
        has_address                 bool
        termination_node, processor uint8
        load, store, branch, taken, string, call, return, system_call, cache
                                    bool    what the instruction does
        data_page, next_page        uint32  real page number: real address >> 12
        data_page_size, data_guest_page_size, next_page_size, next_guest_page_size
                                    uint8   codes
        thread                      uint16  the number at the end of the file's name

    start, count  which records: from number `start` on, `count` numbers (those that are lost included); with a choice:
                  at most `count` records
    on_damage     "raise": DamageError where the file is damaged; "skip": the records that are there; "mark": the same
                  with a column `discontinuity` (bool), True in the first row after each discontinuity
    threads       decodes so many block ranges side by side

    choice    further arguments, as the options of `qtrace dump`: records that satisfy every one that is given. Each takes
              one value or a list of values, of which any will do, or a text with commas

        pid, lpid         numbers of processes, of partitions
        pc, data, real    addresses of instructions; effective, real addresses of accesses: 0x1000, (0x1000, 0x1fff),
                          "1000-1fff" (hexadecimal), both ends included
        kind, not_        kinds, of which a record has any, none: load, store, branch, taken, string, call, return,
                          system_call, cache, error
        word              instruction words, or words and masks: 0x39400004, (0xe8000000, 0xfc000000),
                          "e8000000/fc000000"; bits outside the mask do not count
        register          "r10", "f1", "s8", "v2", "x34": read or written

    `frame.attrs["damage"]` and `frame.attrs["gaps"]` tell what was lost (`Discontinuity`); the index shows where.
    Raises FileNotFoundError, OSError (no trace file), DamageError, ValueError and TypeError (arguments).
    """
    return Trace(name).frame(columns, start, count, on_damage, threads, **choice)


def batches(name: Name, rows=1_000_000, columns=None, start=0, count=None, on_damage="raise", threads=1, **choice):
    """Frames of up to `rows` records each, one after the other, in bounded memory. The rest is as in `frame`; with a
    choice, a frame holds the chosen ones of `rows` records.

    A batch becomes empty when the next one is asked for, so that only one is in memory: what has to stay is to be
    taken from it before (a column, a selection, or `batch.copy()`).
    """
    return Trace(name).batches(rows, columns, start, count, on_damage, threads, **choice)


def registers(name: Name, classes=None, start=0, count=None, on_damage="raise", threads=1, **choice) -> pd.DataFrame:
    """The registers that records name, one row each: those read, then those written.

    record     uint64    number of the record
    direction  category  "in" (read) or "out" (written)
    class      category  "gpr", "fpr", "vmxr", "vsxr" (128 bits), "spr"
    number     uint16
    value      uint64    the value, of a 128-bit register its first 64 bits
    high       uint64    second 64 bits of a 128-bit register, else 0

    classes    names like "gpr_in", "vsxr_out"; without: all ten
    The other arguments, errors and `attrs` are those of `frame`; there is no "mark". `count` counts records.
    """
    return Trace(name).registers(classes, start, count, on_damage, threads, **choice)


def translations(name: Name) -> pd.DataFrame:
    """One row for each distinct translation of a trace file, index = what `data_translation` and
    `next_translation` hold. Row 0 is that of an absent address.

    guest_mode, host_mode                        category  "radix", "hpt", "real", "none"
    vsid                                         uint64    bits 8 to 63 of the VSID
    rpn                                          uint32    real page number: real address >> 12
    page_size, guest_page_size                   uint8     codes
    has_vsid, has_rpn, has_page_size, has_guest_page_size  bool
    guest_depth, host_depth                      uint8     levels walked
    host_walk_0_l1 ... host_walk_4_entry         uint64    real addresses of the entries that the host walks read
    host_address_0 ... host_address_3            uint64    what these walks found
    guest_walk_l1 ... guest_walk_l4, guest_walk_entry      uint64    guest real addresses of entries
    guest_address                                uint64    guest real address of the 4 KiB of the access

    Numbers are given in the order in which this process meets the translations; they hold for all frames of the file
    until it changes. Reads the whole file at first. Damage is skipped.
    """
    return Trace(name).translations()
