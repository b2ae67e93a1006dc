"""The C API of libqtrace, by ctypes. A call gives up the interpreter lock while it runs."""
from __future__ import annotations

import ctypes
import itertools
import os
import pathlib
from ctypes import CFUNCTYPE, POINTER, Structure, byref, c_char_p, c_int, c_uint8, c_uint16, c_uint32, c_uint64, c_void_p
from typing import Dict, Iterator, List, Optional

ITEM_END, ITEM_HEADER, ITEM_RECORD, ITEM_DISCONTINUITY, ITEM_ERROR = range(5)
HEADER_WORDS, RECORD_WORDS = 46, 367  # of 64 bits, of the images
HEADER_SIZE = 8 * HEADER_WORDS
NO_CONTEXT = 0xFFFFFFFF
MAX_REGISTERS = 90  # of one record
BINARY_INTERFACE = 0  # version of the library's binary interface, the end of its file name


class Discontinuity(Structure):
    """QTRACE_Discontinuity."""

    _fields_ = [
        ("cause", c_int),
        ("reason", c_char_p),
        ("offset", c_uint64),
        ("bytes", c_uint64),
        ("records", c_uint64),
        ("records_known", c_int),
        ("headers", c_uint64),
        ("context", c_void_p),
    ]


class Item(Structure):
    """QTRACE_Item, as far as it is needed here; header and record are images."""

    _fields_ = [
        ("kind", c_int),
        ("header", c_uint64 * HEADER_WORDS),
        ("record", c_uint64 * RECORD_WORDS),
        ("discontinuity", Discontinuity),
        ("address", c_uint64),
        ("address_known", c_int),
        ("header_number", c_uint64),
        ("record_number", c_uint64),
        ("block_offset", c_uint64),
    ]


class Block(Structure):
    """QTRACE_Block."""

    _fields_ = [(name, c_uint64) for name in ("offset", "size", "first_record", "records", "first_header", "headers")]


# Columns of records in the order of their bits: name, type.
COLUMNS = {
    "address": c_uint64,
    "has_address": c_uint8,
    "next": c_uint64,
    "has_next": c_uint8,
    "data": c_uint64,
    "has_data": c_uint8,
    "word": c_uint32,
    "flags": c_uint64,
    "data_translation": c_uint32,
    "next_translation": c_uint32,
    "context": c_uint32,
    "node": c_uint8,
    "termination_node": c_uint8,
    "termination": c_uint8,
    "error": c_uint8,
    "processor": c_uint8,
    "length": c_uint16,
    "kinds": c_uint16,
}
COLUMN_BITS = {name: 1 << bit for bit, name in enumerate(COLUMNS)}


class Columns(Structure):
    """QTRACE_Columns. The arrays are addresses."""

    _fields_ = [
        ("which", c_uint32),
        ("translations", c_void_p),
        *((name, c_void_p) for name in COLUMNS),
        ("rows", c_uint64),
        ("first_record", c_uint64),
    ]


# Register classes by number, and their names in `classes=`.
REGISTER_CLASSES = ("gpr", "fpr", "vmxr", "vsxr", "spr")
REGISTER_COLUMNS = {
    "record": c_uint64,
    "output": c_uint8,
    "register_class": c_uint8,
    "number": c_uint16,
    "value": c_uint64,
    "high": c_uint64,
}


class RegisterColumns(Structure):
    """QTRACE_Register_Columns. The arrays are addresses."""

    _fields_ = [
        ("inputs", c_uint32),
        ("outputs", c_uint32),
        ("room", c_uint64),
        *((name, c_void_p) for name in REGISTER_COLUMNS),
        ("rows", c_uint64),
        ("records", c_uint64),
    ]


class Member(Structure):
    """QTRACE_Member."""

    _fields_ = [
        ("name", c_char_p),
        ("group", c_char_p),
        ("offset", c_uint16),
        ("width", c_uint16),
        ("shape", c_int),
        ("control_gate", c_uint64),
        ("file_gate", c_uint32),
    ]


class RegisterList(Structure):
    """QTRACE_Register_List."""

    _fields_ = [
        ("name", c_char_p),
        ("letter", c_char_p),
        ("output", c_int),
        ("count", c_uint16),
        ("capacity", c_uint16),
        ("entries", c_uint16),
        ("width", c_uint16),
        ("words", c_uint16),
    ]


class Flag(Structure):
    """QTRACE_Flag."""

    _fields_ = [("name", c_char_p), ("mask", c_uint64), ("bit", c_uint8), ("width", c_uint8), ("role", c_int)]


FUNCTIONS = {
    "qtrace_open": (c_void_p, c_char_p, POINTER(c_void_p)),
    "qtrace_close": (None, c_void_p),
    "qtrace_cause_name": (c_char_p, c_int),
    "qtrace_kind_name": (c_char_p, c_uint32),
    "qtrace_seek": (c_int, c_void_p, c_uint64),
    "qtrace_error": (c_char_p, c_void_p),
    "qtrace_open_header": (c_void_p, c_void_p),
    "qtrace_blocks": (c_uint64, c_void_p, POINTER(Block), c_uint64),
    "qtrace_next_header": (c_int, c_void_p, POINTER(POINTER(Item))),
    "qtrace_read_columns": (c_int, c_void_p, c_uint64, POINTER(Columns), POINTER(POINTER(Item))),
    "qtrace_read_registers": (c_int, c_void_p, c_uint64, POINTER(RegisterColumns), POINTER(POINTER(Item))),
    "qtrace_translations_new": (c_void_p,),
    "qtrace_translations_free": (None, c_void_p),
    "qtrace_translations_count": (c_uint32, c_void_p),
    "qtrace_translations_copy": (None, c_void_p, c_uint32, c_uint32, c_void_p),
    "qtrace_translations_merge": (c_int, c_void_p, c_void_p, c_void_p),
    "qtrace_header_members": (POINTER(Member), POINTER(ctypes.c_size_t)),
    "qtrace_record_members": (POINTER(Member), POINTER(ctypes.c_size_t)),
    "qtrace_control_flags": (POINTER(Flag), POINTER(ctypes.c_size_t)),
    "qtrace_register_lists": (POINTER(RegisterList), POINTER(ctypes.c_size_t)),
}


def candidates() -> Iterator[str]:
    """Where the library may be: named by QTRACE_LIBRARY, of the build, of the installed tree, of the system."""
    named = os.environ.get("QTRACE_LIBRARY")
    if named:
        yield named
        return
    package = pathlib.Path(__file__).resolve().parent
    repository = package.parent.parent
    prefix = repository.parent.parent  # of PREFIX/lib/python3/dist-packages/qtrace
    yield str(repository / "build/release/bin/libqtrace.so")
    # The name that programs are bound to comes first: the other one may be there for building only.
    names = (f"libqtrace.so.{BINARY_INTERFACE}", "libqtrace.so")
    for name in names:
        for folder in ("lib*", "lib*/*"):
            yield from map(str, sorted(prefix.glob(f"{folder}/{name}")))
    yield from names


def load() -> ctypes.CDLL:
    """The library, with the types of its functions."""
    tried = []
    for name in candidates():
        try:
            library = ctypes.CDLL(name)
        except OSError as error:
            tried.append(str(error))
            continue
        for function, (result, *arguments) in FUNCTIONS.items():
            getattr(library, function).restype = result
            getattr(library, function).argtypes = arguments
        return library
    raise ImportError(f"libqtrace.so was not found; QTRACE_LIBRARY may name it ({'; '.join(tried)})")


LIBRARY = load()


def _kind_bits() -> Dict[str, int]:
    names = itertools.takewhile(bool, (LIBRARY.qtrace_kind_name(1 << bit) for bit in itertools.count()))
    return {name.decode(): 1 << bit for bit, name in enumerate(names)}


# What instructions do, by the bits of the column `kinds`.
KIND_BITS = _kind_bits()


def register_lists() -> List[RegisterList]:
    """The library's rows of register classes."""
    count = ctypes.c_size_t()
    rows = LIBRARY.qtrace_register_lists(ctypes.byref(count))
    return rows[: count.value]


_free = CFUNCTYPE(None, c_void_p)(("free", ctypes.CDLL(None)))


class Reader:
    """An open trace file. Belongs to one thread at a time; a context manager."""

    def __init__(self, name: str):
        reason = c_void_p()
        self.name = name
        self.handle = LIBRARY.qtrace_open(os.fsencode(name), byref(reason))
        if not self.handle:
            text = ctypes.string_at(reason.value).decode(errors="replace") if reason.value else "out of memory"
            _free(reason)
            raise OSError(text) if os.path.exists(name) else FileNotFoundError(text)
        self.item = POINTER(Item)()

    def __enter__(self) -> Reader:
        return self

    def __exit__(self, *_) -> None:
        self.close()

    def close(self) -> None:
        """Closes the file; a second time does nothing."""
        if self.handle:
            LIBRARY.qtrace_close(self.handle)
            self.handle = None

    __del__ = close

    def seek(self, record: int) -> bool:
        """Goes to a record; False when the file has no such record."""
        return LIBRARY.qtrace_seek(self.handle, record) == 0

    def checked(self, kind: int) -> int:
        """The kind of item that a call returned; an error becomes an exception."""
        if kind == ITEM_ERROR:
            raise OSError(LIBRARY.qtrace_error(self.handle).decode(errors="replace") or f"{self.name}: out of memory")
        return kind

    def blocks(self) -> ctypes.Array:
        """The block plan."""
        count = LIBRARY.qtrace_blocks(self.handle, None, 0)
        blocks = (Block * count)()
        LIBRARY.qtrace_blocks(self.handle, blocks, count)
        return blocks

    def read_columns(self, rows: int, columns: Columns) -> int:
        """Fills columns; returns the kind of item that stopped it."""
        return self.checked(LIBRARY.qtrace_read_columns(self.handle, rows, byref(columns), byref(self.item)))

    def read_registers(self, records: int, columns: RegisterColumns) -> int:
        """The same for registers."""
        return self.checked(LIBRARY.qtrace_read_registers(self.handle, records, byref(columns), byref(self.item)))

    def next_header(self) -> int:
        """Goes to the next header or discontinuity, which `item` then describes; returns its kind."""
        return self.checked(LIBRARY.qtrace_next_header(self.handle, byref(self.item)))

    def context(self) -> Optional[bytes]:
        """The image of the header in force at the last item."""
        address = LIBRARY.qtrace_open_header(self.handle)
        return ctypes.string_at(address, HEADER_SIZE) if address else None


class Translations:
    """A table of translations in the library."""

    def __init__(self):
        self.handle = LIBRARY.qtrace_translations_new()
        if not self.handle:
            raise MemoryError

    def __del__(self) -> None:
        LIBRARY.qtrace_translations_free(self.handle)

    def __len__(self) -> int:
        return LIBRARY.qtrace_translations_count(self.handle)

    def copy(self, first: int, count: int, to: int) -> None:
        """Copies rows to an address."""
        LIBRARY.qtrace_translations_copy(self.handle, first, count, to)

    def merge(self, other: Translations, numbers: int) -> None:
        """Adds the rows of another table; their numbers here go to an address."""
        if LIBRARY.qtrace_translations_merge(self.handle, other.handle, numbers):
            raise MemoryError


def rows_of(function: str) -> list:
    """The rows of one of the schema's tables."""
    count = ctypes.c_size_t()
    rows = getattr(LIBRARY, function)(byref(count))
    return [rows[i] for i in range(count.value)]
