"""Instruction traces in Python: trace files as numpy columns and pandas data frames, at the speed of the C reader.

    import qtrace
    t = qtrace.open("trace0")                 t.records, t.blocks, t.headers, t.gaps, t.damage
    qtrace.frame("trace0")                    a row for each record, index = record number
    qtrace.frame("trace0", columns=["address", "data", "taken"], start=10**6, count=10**6)
    for f in qtrace.batches("trace0"): ...    the same in bounded memory
    qtrace.registers("trace0", classes=["gpr_out"])
    qtrace.translations("trace0")             what `data_translation` and `next_translation` number
    qtrace.read_text("text0")                 the text trace
    qtrace.read_pte("pte0", kind="radix")     the page-table-entry trace
    qtrace.page(f["data"]), qtrace.hex(f["data"]), qtrace.distance(f["next"], f["address"])
    qtrace.dask.frame("trace")                all threads, on a cluster

Each function's help names columns, types, units and errors; docs/python.md shows how to work with them, and what to
mind about 64-bit unsigned numbers. `qtrace.plain` reads trace files in plain Python, item by item: slow, but it needs
neither numpy nor the C library.
"""
from __future__ import annotations

import importlib
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from . import dask, plain
    from .files import read_pte, read_text
    from .frames import (
        DEFAULT_COLUMNS, KINDS, NO_CONTEXT, DamageError, Discontinuity, Trace, batches, frame, open, registers,
        translations,
    )  # fmt: skip
    from .numbers import distance, hex, page

# Where each name comes from. They are loaded when they are used, so that the plain reader needs neither numpy nor
# the library.
_HOMES = {
    "frames": (
        "DEFAULT_COLUMNS", "KINDS", "NO_CONTEXT", "DamageError", "Discontinuity", "Trace", "batches", "frame", "open",
        "registers", "translations",
    ),
    "files": ("read_pte", "read_text"),
    "numbers": ("distance", "hex", "page"),
}  # fmt: skip
_MODULES = ("dask", "plain")

__all__ = [
    "DEFAULT_COLUMNS", "KINDS", "NO_CONTEXT", "DamageError", "Discontinuity", "Trace", "batches", "frame", "open",
    "registers", "translations", "read_pte", "read_text", "distance", "hex", "page", "dask", "plain",
]  # fmt: skip


def __getattr__(name: str):
    if name in _MODULES:
        return importlib.import_module(f"{__name__}.{name}")
    for home, names in _HOMES.items():
        if name in names:
            value = getattr(importlib.import_module(f"{__name__}.{home}"), name)
            globals()[name] = value
            return value
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def __dir__():
    return sorted(__all__)
