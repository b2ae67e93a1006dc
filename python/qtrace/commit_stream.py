"""Writes commit streams (docs/commit-stream.md), as include/commit_stream_writer.h does for C.

    from qtrace import commit_stream

    with commit_stream.Writer("run.jsonl", processors=1, threads=1, source="my simulator") as stream:
        stream.context(0, pid=7, bit64=True, pages=["64K"])
        stream.commit(0, seq=1, pc=0x1000, npc=0x1004, op=0xE8640008, text="ld r3,8(r4)", flags=["load"],
                      fetch={"mode": 11, "ra": 0x1000}, data={"ea": 0x2008, "mode": 11, "ra": 0x2008},
                      inputs={"gpr": [(4, 0x2000)]}, outputs={"gpr": [(3, 0x2A)]})

A call that would make a line that readers refuse raises ValueError and writes nothing. Needs no other package; a name that
ends in ".zst" needs the program zstd."""
from __future__ import annotations

import json
import subprocess
import sys
from typing import IO, Any, Iterable, Mapping, Optional, Sequence

# Keys and the bits of their values; 1: a truth value.
MACHINE = {"processors": 32, "threads": 32, "version": 32, "memory": 64}
CONTEXT = {"ptcr": 64, "lpid": 64, "pid": 32, "sdr1": 64, "bit64": 1, "little_endian": 1, "kernel": 1, "cycle_mode": 1}
ADDRESS = {
    "ea": 64, "status": 32, "mode": 32, "guest_mode": 32, "host_mode": 32, "guest_two_level": 8, "host_two_level": 8,
    "guest_depth": 8, "host_depth": 8, "relocated": 1, "ra": 64, "vsid": 64, "rpn": 32, "page_size": 8, "host_rpn": 32,
    "guest_rpn": 32, "host_page_size": 8, "guest_page_size": 8,
}  # fmt: skip
FLAGS = (
    "branch", "unconditional", "taken", "load", "store", "cache", "string", "exception", "vmx", "vsx", "filtered",
    "sim_support",
)  # fmt: skip
PAGE_SIZES = ("4K", "16K", "64K", "128K", "256K", "1M", "2M", "16M", "256M", "1G", "16G", "undefined")
REGISTERS = {"gpr": (32, 1), "fpr": (4, 1), "spr": (6, 1), "vmx": (4, 2), "vsx": (4, 2)}  # most of them, words of a value
MOST_THREADS = 65536


def _number(key: str, value: Any, bits: int) -> int | str | bool:
    number = int(value)
    if not 0 <= number < 1 << bits:
        raise ValueError(f"{key}: {value} does not fit {bits} bits")
    return bool(number) if bits == 1 else hex(number) if bits == 64 or number >> 31 else number


def _numbers(given: Mapping[str, Any], keys: Mapping[str, int]) -> dict[str, Any]:
    for key in given:
        if key not in keys:
            raise ValueError(f"no such key: {key}")
    return {key: _number(key, value, keys[key]) for key, value in given.items()}


def _words(key: str, given: Iterable[str], known: Sequence[str]) -> list[str]:
    words = list(given)
    for word in words:
        if word not in known:
            raise ValueError(f"{key}: no such word: {word}")
    return words


def _addresses(key: str, given: Iterable[int], least: int, most: int) -> list[str]:
    values = [str(_number(key, value, 64)) for value in given]
    if not least <= len(values) <= most:
        raise ValueError(f"{key}: {len(values)} addresses")
    return values


def _address(given: Mapping[str, Any]) -> dict[str, Any]:
    lists = {"host_walk", "host_ra", "guest_walk"}
    line = _numbers({key: value for key, value in given.items() if key not in lists}, ADDRESS)
    if "host_walk" in given:
        if len(given["host_walk"]) > 5:
            raise ValueError("host_walk: more than 5 walks")
        line["host_walk"] = [_addresses("host_walk", walk, 4, 4) for walk in given["host_walk"]]
    if "host_ra" in given:
        line["host_ra"] = _addresses("host_ra", given["host_ra"], 0, 4)
    if "guest_walk" in given:
        line["guest_walk"] = _addresses("guest_walk", given["guest_walk"], 5, 5)
    return line


def _registers(given: Mapping[str, Sequence[Sequence[int]]]) -> dict[str, Any]:
    line: dict[str, Any] = {}
    for name, registers in given.items():
        if name not in REGISTERS:
            raise ValueError(f"no such class of registers: {name}")
        most, words = REGISTERS[name]
        if len(registers) > most:
            raise ValueError(f"{name}: more than {most} registers")
        if any(len(register) != 1 + words for register in registers):
            raise ValueError(f"{name}: a register is its number and {words} word(s)")
        line[name] = [[int(number), *_addresses(name, values, words, words)] for number, *values in registers]
    return line


class Writer:
    """A stream, from its `machine` line on. Close it, or use it in a `with` statement."""

    def __init__(self, file: str, *, processors: int, threads: int, options: Iterable[int] = (), source: str = "",
                 **machine: int) -> None:
        """Creates `file`, or writes to standard output for "-"."""
        line = _numbers({"processors": processors, "threads": threads, **machine}, MACHINE)
        self._threads = processors * threads
        if self._threads > MOST_THREADS:
            raise ValueError(f"more than {MOST_THREADS} hardware threads")
        self._compressor: Optional[subprocess.Popen[bytes]] = None
        self._out: IO[bytes]
        if file == "-":
            self._out = sys.stdout.buffer
        elif file.endswith(".zst"):
            self._compressor = subprocess.Popen(["zstd", "-q", "-f", "-o", file], stdin=subprocess.PIPE)
            assert self._compressor.stdin
            self._out = self._compressor.stdin
        else:
            self._out = open(file, "wb")
        self._put("machine", {**line, "options": list(options), **({"source": source} if source else {})})

    def __enter__(self) -> Writer:
        return self

    def __exit__(self, *_: Any) -> None:
        self.close()

    def _put(self, kind: str, line: Mapping[str, Any]) -> None:
        text = json.dumps({"t": kind, **line}, separators=(",", ":"), ensure_ascii=False)
        self._out.write(text.encode("utf-8", "replace") + b"\n")

    def _thread(self, tid: int) -> int:
        if not 0 <= tid < self._threads:
            raise ValueError(f"no such hardware thread: {tid}")
        return tid

    def context(self, tid: int, *, pages: Optional[Iterable[str]] = None, guest_pages: Optional[Iterable[str]] = None,
                **state: int) -> None:
        """State of a hardware thread from here on; what is not given stays as it is."""
        line = _numbers(state, CONTEXT)
        for key, sizes in (("pages", pages), ("guest_pages", guest_pages)):
            if sizes is not None:
                line[key] = _words(key, sizes, PAGE_SIZES)
        self._put("context", {"tid": self._thread(tid), **line})

    def commit(self, tid: int, seq: int, pc: int, npc: int, op: int, *, text: str = "", flags: Iterable[str] = (),
               string_length: int = 0, fetch: Optional[Mapping[str, Any]] = None, data: Optional[Mapping[str, Any]] = None,
               inputs: Optional[Mapping[str, Any]] = None, outputs: Optional[Mapping[str, Any]] = None,
               time: Optional[int] = None) -> None:
        """One committed instruction. `fetch` and `data` have the page's keys; registers are (number, value) pairs, or
        (number, word 0, word 1) for vector registers, by class."""
        if fetch is not None and "ea" in fetch:
            raise ValueError("no such key: ea")
        parts = {
            "text": text,
            "is": _words("flags", flags, FLAGS),
            "string_length": _number("string_length", string_length, 16),
            "fetch": _address(fetch or {}),
            "in": _registers(inputs or {}),
            "out": _registers(outputs or {}),
        }
        line = {"tid": self._thread(tid), **_numbers({"seq": seq, "pc": pc, "npc": npc, "op": op},
                                                     {"seq": 64, "pc": 64, "npc": 64, "op": 32})}
        line |= {key: value for key, value in parts.items() if value}
        if data is not None:
            line["data"] = _address(data)
        if time is not None:
            line["time"] = _number("time", time, 64)
        self._put("commit", line)

    def pre(self, tid: int) -> None:
        self._put("pre", {"tid": self._thread(tid)})

    def pte(self, tid: int, pa: int, upper: int, lower: int) -> None:
        """An access to an entry of the hashed page table: real address and the entry's two doublewords."""
        self._put("pte", {"tid": self._thread(tid), **_numbers({"pa": pa, "upper": upper, "lower": lower},
                                                               {"pa": 64, "upper": 64, "lower": 64})})

    def rtpte(self, tid: int, l1: int, l2: int, l3: int, pte: int, pa: int) -> None:
        """A walk of a radix tree: real addresses of the entries it read, and of what it was for."""
        keys = {"l1": l1, "l2": l2, "l3": l3, "pte": pte, "pa": pa}
        self._put("rtpte", {"tid": self._thread(tid), **_numbers(keys, dict.fromkeys(keys, 64))})

    def flush(self) -> None:
        """Hands on what was written so far, for a reader that waits at the other end of a pipe."""
        self._out.flush()

    def close(self) -> None:
        if self._out is sys.stdout.buffer:
            self._out.flush()
            return
        self._out.close()
        if self._compressor and self._compressor.wait() != 0:
            raise OSError("zstd failed")
