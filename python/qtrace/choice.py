"""Which records a call returns, by what they do: the options of `qtrace dump` as arguments."""
from __future__ import annotations

import re
from typing import TYPE_CHECKING, Callable, Iterable, List, NamedTuple, Tuple

import numpy as np

from . import _library

if TYPE_CHECKING:
    import pandas as pd

# By the letter before a register's number.
REGISTER_CLASSES = {row.letter.decode(): row.name.decode().split("_")[0] for row in _library.register_lists()}
NAMES = ("pid", "lpid", "pc", "data", "real", "kind", "not_", "word", "register")

_RPN_PRESENT = 2  # in a translation's `present`
_PAGE_BITS = 12  # page numbers count 4 KiB


# ---- Values of arguments -------------------------------------------------------------------------------


def _number(value, limit: int, what: str) -> int:
    """An int, or a text of decimal digits, or of hexadecimal ones after 0x."""
    if isinstance(value, str):
        if not re.fullmatch(r"0x[0-9a-fA-F]+|[0-9]+", value):
            raise ValueError(f"{value!r} is no number for {what}")
        value = int(value, 16 if value.startswith("0x") else 10)
    value = int(value)
    if not 0 <= value <= limit:
        raise ValueError(f"{value} is no number for {what}")
    return value


def _address(value, limit: int = (1 << 64) - 1) -> int:
    """An int, or a text of hexadecimal digits, with or without 0x."""
    if isinstance(value, str):
        if not re.fullmatch(r"(0[xX])?[0-9a-fA-F]+", value):
            raise ValueError(f"{value!r} is no address: hexadecimal digits expected, with or without 0x")
        value = int(value, 16)
    value = int(value)
    if not 0 <= value <= limit:
        raise ValueError(f"{value:#x} does not fit into {limit.bit_length()} bits")
    return value


def _range(value) -> Tuple[int, int]:
    """An address, or two: a pair, or a text with a dash. Both ends are included."""
    ends = value.split("-", 1) if isinstance(value, str) else value if isinstance(value, tuple) else (value,)
    first, last = _address(ends[0]), _address(ends[-1])
    if last < first:
        raise ValueError(f"{value!r} ends before it begins")
    return first, last


def _word(value) -> Tuple[int, int]:
    """An instruction word, or a word and a mask: a pair, or a text with a slash."""
    pair = value.split("/", 1) if isinstance(value, str) else value if isinstance(value, tuple) else (value,)
    limit = (1 << 32) - 1
    mask = _address(pair[1], limit) if len(pair) > 1 else limit
    return _address(pair[0], limit) & mask, mask


def _register(value: str) -> Tuple[str, int]:
    if not isinstance(value, str) or value[:1] not in REGISTER_CLASSES or len(value) < 2:
        raise ValueError(f"{value!r} is no register: r, f, s, v or x and a number expected")
    return REGISTER_CLASSES[value[0]], _number(value[1:], 0xFFFF, "register")


def _kind(value: str) -> int:
    if value not in _library.KIND_BITS:
        raise ValueError(f"{value!r} is no kind of record; there are {', '.join(_library.KIND_BITS)}")
    return _library.KIND_BITS[value]


def _each(values, one: Callable, pairs: bool = False) -> List:
    """One value or several: a list, a set, a text with commas; a tuple is one value where there are pairs."""
    if isinstance(values, str):
        values = values.split(",")
    elif isinstance(values, (int, np.integer)) or (pairs and isinstance(values, tuple)):
        values = [values]
    return [one(value) for value in values]


class Found(NamedTuple):
    """What a choice asks about records, beside their columns."""

    contexts: Callable[[], pd.DataFrame]  #: the file headers
    translations: Callable[[], np.ndarray]
    registers: Callable[[Iterable[str]], pd.DataFrame]  #: of these records and classes


class Choice:
    """Records that satisfy every argument given; an argument with several values is satisfied by any of them."""

    def __init__(self, **arguments):
        unknown = [name for name in arguments if name not in NAMES]
        if unknown:
            raise TypeError(f"unexpected argument {unknown[0]!r}; records are chosen by {', '.join(NAMES)}")
        given = {name: value for name, value in arguments.items() if value is not None}

        def take(name, one, pairs=False):
            return _each(given[name], one, pairs) if name in given else []

        self.pids = take("pid", lambda value: _number(value, (1 << 32) - 1, "pid"))
        self.lpids = take("lpid", lambda value: _number(value, (1 << 64) - 1, "lpid"))
        self.pcs, self.datas, self.reals = (take(name, _range, True) for name in ("pc", "data", "real"))
        self.kinds, self.not_kinds = (sum(set(take(name, _kind))) for name in ("kind", "not_"))
        self.words = take("word", _word, True)
        self.registers = take("register", _register)
        self._given = bool(given)

    def __bool__(self) -> bool:
        return self._given

    @property
    def columns(self) -> List[str]:
        """The columns that `of` needs."""
        needed = {
            "context": self.pids or self.lpids, "address": self.pcs, "has_address": self.pcs,
            "data": self.datas or self.reals, "has_data": self.datas or self.reals, "data_translation": self.reals,
            "kinds": self.kinds or self.not_kinds, "word": self.words,
        }  # fmt: skip
        return [name for name, wanted in needed.items() if wanted]

    def of(self, frame: pd.DataFrame, found: Found) -> np.ndarray:
        """For each record, whether it is chosen."""
        wanted = np.ones(len(frame), bool)
        column = {name: frame[name].to_numpy() for name in self.columns}
        if self.pids or self.lpids:
            wanted = self._contexts(column["context"], found.contexts())
        if self.pcs:
            wanted &= column["has_address"] & _within(column["address"], self.pcs)
        if self.datas:
            wanted &= column["has_data"] & _within(column["data"], self.datas)
        if self.reals:
            wanted &= column["has_data"] & self._real(column, found.translations())
        if self.kinds:
            wanted &= (column["kinds"] & np.uint16(self.kinds)) != 0
        if self.not_kinds:
            wanted &= (column["kinds"] & np.uint16(self.not_kinds)) == 0
        if self.words:
            wanted &= _any(((column["word"] & np.uint32(mask)) == np.uint32(value) for value, mask in self.words), wanted)
        if self.registers and wanted.any():
            wanted &= self._named(frame, found)
        return wanted

    def _contexts(self, contexts: np.ndarray, headers: pd.DataFrame) -> np.ndarray:
        fits = np.ones(len(headers), bool)
        for name, values in (("process", self.pids), ("partition", self.lpids)):
            if values:
                fits &= np.isin(headers[name].to_numpy(), np.array(values, headers[name].dtype))
        return np.isin(contexts, headers.index.to_numpy()[fits].astype(contexts.dtype))

    def _real(self, column, translations: np.ndarray) -> np.ndarray:
        rows = translations[column["data_translation"]]
        offset = column["data"] & np.uint64((1 << _PAGE_BITS) - 1)
        real = rows["rpn"].astype(np.uint64) << np.uint64(_PAGE_BITS) | offset
        return ((rows["present"] & _RPN_PRESENT) != 0) & _within(real, self.reals)

    def _named(self, frame: pd.DataFrame, found: Found) -> np.ndarray:
        registers = found.registers(sorted({name for name, _ in self.registers}))
        number, kind = registers["number"].to_numpy(), registers["class"].to_numpy()
        named = _any(((number == index) & (kind == name) for name, index in self.registers), number)
        return np.isin(frame.index.to_numpy(), registers["record"].to_numpy()[named].astype(np.int64))


def _any(masks: Iterable[np.ndarray], like: np.ndarray) -> np.ndarray:
    result = np.zeros(len(like), bool)
    for mask in masks:
        result |= mask
    return result


def _within(values: np.ndarray, ranges: List[Tuple[int, int]]) -> np.ndarray:
    return _any(((values >= np.uint64(first)) & (values <= np.uint64(last)) for first, last in ranges), values)
