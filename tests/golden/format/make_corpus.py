#!/usr/bin/python3
"""Makes the small traces of this folder and, for each, the items and the damage that a reader finds in it. Nothing
here reads a trace: expectations are what was put in. Traces are encoded from docs/trace-format.md.

    make_corpus.py            writes NAME.trace and NAME.json into this folder
    make_corpus.py --check    tells whether the folder holds what would be written (exit code 1 when not)

A NAME.json line is a header or record as JSON, or {"discontinuity": cause, ...}, or {"refused": true}."""
import json
import pathlib
import struct
import sys

import zstandard

import corpus_items
from corpus_items import crc32c

FOLDER = pathlib.Path(__file__).parent
MASK64 = (1 << 64) - 1
FILE_START = corpus_items.FILE_MAGIC + struct.pack("<I", 1)
FILE_START += struct.pack("<I", crc32c(FILE_START))
LAST, KNOWN, COMMENT, COMMENT_BEFORE, GAP, OPEN_END, LEFT_OUT = (1 << i for i in range(7))
DATA, NEXT = 1 << 43, 1 << 38  # of control words
LISTS = corpus_items.REGISTER_LISTS
CODING_ORDER = (9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
SMALL = ("node", "termination_node", "termination_code", "processor", "error_code", "length")
OPEN, OP, WORD, SHAPE, NEXTS, DATAS, TRANSLATION, KIND, VALUE, EXTRA = range(10)


# ---- Encoding ------------------------------------------------------------------------------------------


def varint(value):
    out = bytearray()
    while value > 127:
        out.append(value & 127 | 128)
        value >>= 7
    return bytes(out) + bytes([value])


def zigzag(value):
    value &= MASK64
    return varint(value << 1 if value < 1 << 63 else (MASK64 - value << 1) + 1)


def literal(value):
    """A register value: its kind and its bytes."""
    size = (value.bit_length() + 7) // 8
    return bytes([9 + size]), value.to_bytes(size, "little")


def sparse(image):
    out, end, at = b"", 0, 0
    while at < len(image):
        if image[at] == 0:
            at += 1
            continue
        start = at
        while at < len(image) and image[at]:
            at += 1
        out += varint(start - end) + varint(at - start) + bytes(image[start:at])
        end = at
    return out + b"\0\0"


def payload(columns):
    return struct.pack("<10I", *map(len, columns)) + b"".join(columns)


def block(raw, records=0, headers=0, first=0, first_header=0, address=0, flags=0, stored=None, **change):
    """A block around a payload. `change` sets members of the block's header to something else; the checksums are
    right nevertheless, unless it sets these."""
    stored_bytes = raw if stored is None else stored
    parts = {"marker": corpus_items.BLOCK_MARKER, "version": 1, "flags": flags, "compression": int(stored is not None)}
    parts |= {"zero": 0, "stored": len(stored_bytes), "raw_size": len(raw), "records": records, "headers": headers}
    parts |= {"first": first, "first_header": first_header, "address": address, "crc": crc32c(stored_bytes)}
    parts |= {name: value for name, value in change.items() if name in parts}
    head = struct.pack("<4s4B4I3QI", *parts.values())
    return head + struct.pack("<I", change.get("header_crc", crc32c(head))) + stored_bytes


def translation_words(members, side, address):
    get = lambda name, zero=0: members.get(side + name, zero)  # noqa: E731
    guest = get("_gRTW", (0,) * 6)
    folded = guest[5] ^ address & 0xFFF if guest[5] >> 12 else guest[5]
    first = get("_vsid") | get("_hRTW_depth") << 56
    second = get("_rpn") | get("_hRTW_num_level") << 32 | get("_page_size") << 40 | get("_gpage_size") << 48
    return [first, second, *get("_hRTW", (0,) * 20), *get("_hRTW_host_RA", (0,) * 4), *guest[:5], folded]


SIDE_MEMBERS = ("_vsid", "_hRTW_depth", "_hRTW_num_level", "_hRTW", "_hRTW_host_RA", "_gRTW", "_rpn", "_page_size",
                "_gpage_size")  # fmt: skip


class Trace_Maker:
    """Writes headers and records with everything coded and nothing expected, and keeps what was put in."""

    def __init__(self):
        self.blocks, self.items = [], []  # bytes of each block; items of each
        self.records = self.headers = self.address = 0
        self.known = False
        self.begin()

    def begin(self):
        self.columns = [bytearray() for _ in range(10)]
        self.controls = 0
        self.last = {"data": [0] * 32, "next_instruction": [0] * 32}
        self.first = (self.records, self.headers, self.address, self.known)
        self.now = []

    # ---- Items ----

    def header(self, comment=None, place=None, **members):
        header = corpus_items.Header(**members)
        header.comment = comment
        if comment is not None and "comment_length" not in members:
            header.comment_length = len(comment)
        header.number, header.record_number = self.headers, self.records
        extra = self.columns[EXTRA]
        place = place if place is not None else 0 if comment is None else 1
        extra += sparse(header.image()) + bytes([place]) + (comment if place == 1 else b"")
        self.columns[OP] += b"\x80\x01"
        self.headers += 1
        if header.file_control & 1 << 13:
            self.address, self.known = header.iar, True
        self.now.append(header)
        return self

    def record(self, **members):
        self.expect(**members)
        control = members.get("control", 0)
        rare = dict(members)
        address, start = self.now_address, self.columns
        flags = 1 | 2 | 4 | 8 | 64
        start[WORD] += struct.pack("<I", rare.pop("instruction", 0))
        start[SHAPE] += bytes([self.controls]) + struct.pack("<Q", rare.pop("control", 0))
        self.controls = min(self.controls + 1, 255)
        self.put_small(rare)
        self.put_lists(rare)
        second = 0
        for bit, present, side, name in ((32, DATA, "data", "data_ea"),
                                         (16, NEXT, "next_instruction", "next_instruction_ea")):  # fmt: skip
            if control & present:
                value = rare.pop(name, 0)
                flags |= bit
                start[DATAS if bit == 32 else NEXTS] += b"\2" + zigzag(value) if bit == 32 else zigzag(value - address)
                second |= 4 if bit == 32 else 8
                self.put_translation(members, side, value)
                for member in SIDE_MEMBERS:
                    rare.pop(side + member, None)
        if rare:
            second |= 2
            start[EXTRA] += sparse(corpus_items.Record(**rare).image())
        start[OP] += bytes([flags | 128, second]) if second else bytes([flags])
        return self

    def coded(self, op, columns, **members):
        """A record of which these bytes are coded, and what a reader has to make of it."""
        self.expect(**members)
        self.columns[OP] += op
        for column, data in columns.items():
            self.columns[column] += data
        return self

    def expect(self, **members):
        record = corpus_items.Record(**members)
        record.number, record.header_number = self.records, self.headers
        record.address = self.address if self.known else None
        self.records += 1
        self.now.append(record)
        self.now_address = self.address
        if members.get("control", 0) & NEXT:
            self.address, self.known = members.get("next_instruction_ea", 0), True
        else:
            self.address = self.address + 4 & MASK64

    def put_small(self, members):
        values = [members.pop(name, 0) for name in SMALL]
        self.columns[SHAPE].append(sum(1 << i for i, value in enumerate(values) if value))
        for name, value in zip(SMALL, values):
            if value:
                self.columns[SHAPE] += value.to_bytes(2 if name == "length" else 1, "little")

    def put_lists(self, members):
        counts = [members.pop(row[1], None) for row in LISTS]
        entries = [members.pop(row[0], ()) for row in LISTS]
        counts = [len(e) if c is None else c for c, e in zip(counts, entries)]
        shape = self.columns[SHAPE]
        shape += varint(sum(1 << i for i, count in enumerate(counts) if count))
        shape += bytes(count for count in counts if count)
        for i in CODING_ORDER:
            for number, *_ in entries[i][: counts[i]]:
                shape += varint(number)
            for _, *values in entries[i][: counts[i]]:
                for value in values:
                    kind, data = literal(value)
                    self.columns[KIND] += kind
                    self.columns[VALUE] += data

    def put_translation(self, members, side, address):
        words = translation_words(members, side, address)
        before = self.last[side]
        mask = sum(1 << i for i in range(32) if words[i] != before[i])
        self.columns[TRANSLATION] += struct.pack("<I", mask)
        for i in range(32):
            if mask >> i & 1:
                self.columns[TRANSLATION] += zigzag(words[i] - before[i])
        self.last[side] = words

    # ---- Blocks ----

    def end(self, flags=0, zstd=False, **change):
        """Seals the block."""
        first, first_header, address, known = self.first
        raw = change.pop("payload", None) or payload(self.columns)
        stored = zstandard.ZstdCompressor(level=3).compress(raw) if zstd else None
        stored = change.pop("stored_bytes", stored)
        self.blocks.append(block(raw, self.records - first, self.headers - first_header, first, first_header, address,
                                 flags | (KNOWN if known else 0), stored, **change))  # fmt: skip
        self.items.append(self.now)
        self.begin()
        return self

    def comment_block(self, comment, **change):
        self.blocks.append(block(comment, 0, 0, *self.first[:3], COMMENT | (KNOWN if self.known else 0), **change))
        self.items.append([])
        return self

    def lines(self, without=()):
        return [line(item) for i, items in enumerate(self.items) if i not in without for item in items]


def line(item):
    return json.dumps(item.for_json(), separators=(",", ":"))


def damage_line(offset, size, records=0, known=True, truncated=False):
    return loss_line("cut end" if truncated else "damage", offset, size, records, known)


def loss_line(cause, offset, size=0, records=0, known=True):
    return json.dumps({"discontinuity": cause, "offset": offset, "bytes": size, "records": records, "known": known})


# ---- Cases ---------------------------------------------------------------------------------------------

CASES = {}  # name -> (bytes, lines)


def case(name, data, lines):
    assert name not in CASES, name
    CASES[name] = (bytes(data), lines)


def whole(name, maker, flags=0, **end):
    """A trace that is right, of one block, or of a comment block and one."""
    maker.end(LAST | flags, **end)
    case(name, FILE_START + b"".join(maker.blocks), maker.lines())


FULL_HEADER = {"file_control": 0x6002, "control": 0x1_03E0, "iar": 0x10001000, "ptcr": 0x3DFC0004, "lpid": 1,
               "pid": 77, "comment": b"LEMode:True"}  # fmt: skip


def started():
    return Trace_Maker().header(**FULL_HEADER)


def value_of(member, seed):
    """A value that fills the member, different for each seed."""
    size = 8 if member.row else member.size

    def make(i):
        return int.from_bytes(bytes((seed * 37 + i * 11 + b * 29) % 255 + 1 for b in range(size)), "big")

    return tuple(make(i) for i in range(len(member.zero))) if member.row else make(0)


def member_cases():
    for seed, member in enumerate(corpus_items.RECORD_MEMBERS):
        name = member.name
        if name in ("instruction", "control"):
            continue
        value = value_of(member, seed)
        if not member.row:
            value &= corpus_items.USED_BITS.get(name, MASK64)
        if name == "iar_segment_size_is_valid":
            value = 1
        whole(f"record-rare-{name}", started().record(instruction=seed, **{name: value}).record(instruction=7))
        for side, present in (("data", DATA), ("next_instruction", NEXT)):
            if name.startswith(side + "_") and name[len(side) :] in (*SIDE_MEMBERS, "_ea"):
                whole(f"record-{name}", started().record(control=present, **{name: value}).record(control=present))
    for seed, member in enumerate(corpus_items.HEADER_MEMBERS):
        if member.name != "comment_length":
            value = value_of(member, seed)
            whole(f"header-{member.name}", Trace_Maker().header(**{member.name: value}).record(instruction=1))


def flag_cases():
    for name, bit, width in corpus_items.CONTROL_FLAGS:
        whole(f"record-flag-{name}", started().record(control=(1 << width) - 1 << bit).record())
    for name, bit, width in corpus_items.FILE_FLAGS:
        whole(f"header-flag-{name}", Trace_Maker().header(file_control=(1 << width) - 1 << bit).record())


def register_cases():
    for i, (name, count, _, room, words) in enumerate(LISTS):
        entry = lambda n: (n, *(n * 0x0101010101010101 * (w + 1) & MASK64 for w in range(words)))  # noqa: E731
        whole(f"registers-{name}-one", started().record(instruction=i, **{name: (entry(3),), count: 1}))
        full = tuple(entry(n + 1) for n in range(room))
        whole(f"registers-{name}-full", started().record(instruction=i, **{name: full, count: room}))
        whole(f"registers-{name}-count-beyond-room", started().record(instruction=i, **{name: full, count: 255}))
        after = (entry(1), entry(2))
        maker = started().record(instruction=i, **{name: after[:1], count: 1})
        # An entry beyond the count travels among the rare members.
        size = corpus_items.ENTRY[words].size
        image = bytearray(corpus_items.RECORD_SIZE)
        corpus_items.ENTRY[words].pack_into(image, LISTS[i][2] + size, *after[1])
        maker.columns[OP][-1:] = bytes([maker.columns[OP][-1] | 128, 2])
        maker.columns[EXTRA] += sparse(image)
        vars(maker.now[-1])[name] = after
        whole(f"registers-{name}-entry-beyond-count", maker)
        largest = ((0xFFFF, *(MASK64,) * words),)
        whole(f"registers-{name}-largest", started().record(instruction=i, **{name: largest, count: 1}))


def list_bytes(inputs, outputs):
    """SHAPE bytes of a list of general registers."""
    mask = (1 << 9 if inputs else 0) | (1 << 4 if outputs else 0)
    counts = ([len(outputs)] if outputs else []) + ([len(inputs)] if inputs else [])
    return varint(mask) + bytes(counts) + b"".join(map(varint, (*inputs, *outputs)))


def value_kind_cases():
    """One output of each kind: record 1 leaves values, record 2, of the same word, is coded by kind."""
    first_in, first_out, second_in = (0x1122334455667788, 0xF0F0), 0xF0F5, (0x1111222233334444, 0xFFF0)
    previous, last = second_in
    data = 0x20000010
    for k in range(42):
        before = {"instruction": 0x7C000214, "control": DATA, "data_ea": data}
        maker = started().record(**before, num_gprs_in=2, gpr_in=tuple(zip((4, 5), first_in)), num_gprs_out=1,
                                 gpr_out=((6, first_out),))  # fmt: skip
        size = max(k - 9, 0) if k < 18 else (k - 18) % 8 + 1
        more = bytes((k * 31 + i * 77 + 128) % 256 for i in range(size))
        signed = int.from_bytes(more, "little", signed=True)
        distance = first_out - first_in[1]
        formulas = [first_out, last + distance, first_out, first_out, previous + last, last - previous,
                    previous & last, previous | last, previous ^ last]  # fmt: skip
        if k < 9:
            value = formulas[k]
        elif k < 18:
            value = int.from_bytes(more, "little")
        else:
            value = (first_out, last, data)[(k - 18) // 8] + signed
        kinds = b"".join(literal(v)[0] for v in second_in) + bytes([k])
        values = b"".join(literal(v)[1] for v in second_in) + more
        # Nothing coded but the inputs: word expected nowhere (the address is new), so it is coded too.
        maker.coded(bytes([1 | 64]), {WORD: struct.pack("<I", 0x7C000214), KIND: kinds, VALUE: values}, **before,
                    num_gprs_in=2, gpr_in=tuple(zip((4, 5), second_in)), num_gprs_out=1,
                    gpr_out=((6, value & MASK64),))  # fmt: skip
        whole(f"value-kind-{k:02}", maker)


def expectation_cases():
    """What is remembered: a loop whose second turn codes almost nothing."""
    loop = {"instruction": 0x38630001, "control": NEXT, "next_instruction_ea": 0x10001000, "next_instruction_rpn": 9,
            "node": 3, "length": 700}  # fmt: skip
    for size in (0, 1, 12, 13):  # registers: a list of more than 12 is not remembered
        entries = tuple((n, n + 100) for n in range(size))
        again = entries if size <= 12 else ()
        maker = started().record(**loop, num_gprs_in=size, gpr_in=entries)
        maker.coded(b"\0", {}, **loop, num_gprs_in=len(again), gpr_in=again)
        whole(f"expected-everything-{size}-registers", maker)
    for k, base in enumerate((0x5000, 0x5000 + 0x300, 0)):
        data = {"instruction": 0xE8640000, "control": DATA, "num_gprs_in": 2}
        shape = b"\0" + struct.pack("<Q", DATA) + b"\0" + list_bytes((9, 4), ())
        kinds, values = zip(literal(0x300), literal(0x5000))
        maker = started().coded(
            bytes([1 | 2 | 4 | 8 | 32 | 64 | 128, 0]),
            {WORD: struct.pack("<I", 0xE8640000), SHAPE: shape, DATAS: bytes([k]) + zigzag(-16),
             KIND: b"".join(kinds), VALUE: b"".join(values)},
            **data, gpr_in=((9, 0x300), (4, 0x5000)), data_ea=base - 16 & MASK64)  # fmt: skip
        maker.coded(bytes([1]), {WORD: struct.pack("<I", 0xE8640000)}, **data, gpr_in=((9, 0x300), (4, 0x5000)),
                    data_ea=base - 16 & MASK64)  # fmt: skip
        whole(f"data-base-{k}", maker)
    for number in (64, 128 + 3, 65535):  # shares its memory with another number
        maker = started().record(instruction=1, num_gprs_out=1, gpr_out=((number % 64, 0xABCDEF),))
        maker.coded(bytes([1 | 4]), {WORD: struct.pack("<I", 0x7C000000), SHAPE: list_bytes((number,), ())},
                    instruction=0x7C000000, num_gprs_in=1, gpr_in=((number, 0xABCDEF),))  # fmt: skip
        whole(f"register-number-{number}", maker)
    maker = started()
    for n in range(300):  # the 256th control word is not remembered
        maker.record(control=n << 16)
    maker.coded(bytes([1 | 2]), {WORD: struct.pack("<I", 0), SHAPE: bytes([254])}, control=254 << 16)
    maker.coded(bytes([1 | 2]), {WORD: struct.pack("<I", 0), SHAPE: b"\xff" + struct.pack("<Q", 5)}, control=5)
    whole("control-words-beyond-255", maker)


def translation_cases():
    for word in range(32):
        for side, control, name in (("data", DATA, "data_ea"), ("next_instruction", NEXT, "next_instruction_ea")):
            words = [0] * 32
            words[word] = 0x00A1B2C3D4E5F607 + word
            members = side_members(side, words, 0x7654321)
            maker = started().record(control=control, **{name: 0x7654321}, **members)
            # The same page again, nothing of it coded.
            again = side_members(side, words, 0x7654FFF)
            op, columns = (32, {DATAS: b"\2" + zigzag(0x7654FFF)}) if side == "data" else (
                16, {NEXTS: zigzag(0x7654FFF - maker.address)})
            maker.coded(bytes([op | 1 | 2]), {WORD: b"\0\0\0\0", SHAPE: b"\0", **columns}, control=control,
                        **{name: 0x7654FFF}, **again)  # fmt: skip
            whole(f"translation-{side}-word-{word:02}", maker)


def side_members(side, words, address):
    guest = words[31] ^ address & 0xFFF if words[31] >> 12 else words[31]
    members = {"_vsid": words[0] & (1 << 56) - 1, "_hRTW_depth": words[0] >> 56, "_rpn": words[1] & 0xFFFFFFFF,
               "_hRTW_num_level": words[1] >> 32 & 255, "_page_size": words[1] >> 40 & 255,
               "_gpage_size": words[1] >> 48 & 255, "_hRTW": tuple(words[2:22]),
               "_hRTW_host_RA": tuple(words[22:26]), "_gRTW": (*words[26:31], guest)}  # fmt: skip
    return {side + name: value for name, value in members.items() if value not in (0, (0,) * 20, (0,) * 4, (0,) * 6)}


def file_cases():
    whole("empty", Trace_Maker())
    whole("header-only", started())
    whole("record-without-header", Trace_Maker().record(instruction=1).record(instruction=2))
    whole("zstd", started().record(instruction=1, iar=5), zstd=True)
    whole("two-headers", started().header(control=0x60, lpid=9, pid=8).record())
    whole("address-wraps", Trace_Maker().header(file_control=0x2000, iar=MASK64 - 3).record().record())
    for size in (0, 1, 200):
        whole(f"comment-{size}", Trace_Maker().header(file_control=2, comment=bytes(i % 256 for i in range(size))))
    whole("comment-flag-without-comment", Trace_Maker().header(file_control=2).record())
    whole("comment-without-flag", Trace_Maker().header(comment=b"text").record())
    for size in (1, 300):
        comment = bytes((i * 7) % 256 for i in range(size))
        maker = Trace_Maker().comment_block(comment).header(comment=comment, place=2, file_control=2)
        whole(f"comment-block-{size}", maker.record(), flags=COMMENT_BEFORE)
    maker = base_blocks()
    case("several-blocks", FILE_START + b"".join(maker.blocks), maker.lines())
    case("file-start-missing", b"".join(maker.blocks), maker.lines())
    maker = base_blocks()
    size = len(data := FILE_START + b"".join(maker.blocks))
    case("garbage-after-last-block", data + b"garbage", maker.lines() + [damage_line(size, 7, 0, False)])
    # A reader continues after a last block: files may have been concatenated.
    case("trace-after-last-block", data + data, maker.lines() + [damage_line(size, 16, 0, False)] + maker.lines())
    case("block-after-last-block", data + maker.blocks[1], maker.lines() + [damage_line(size, 0, 0, False)]
         + maker.lines(without=[0, 2, 3]) + [damage_line(size + len(maker.blocks[1]), 0, 0, False, True)])  # fmt: skip
    at = places(maker)[2]
    early = [maker.blocks[0], with_flags(maker.blocks[1], LAST)]
    case("last-block-in-between", FILE_START + b"".join([*early, *maker.blocks[2:]]), maker.lines(without=[2, 3])
         + [damage_line(at, 0, 0, False)] + maker.lines(without=[0, 1]))  # fmt: skip
    case("last-block-before-missing-block", FILE_START + b"".join([*early, maker.blocks[3]]),
         maker.lines(without=[2, 3]) + [damage_line(at, 0, 0, False)] + maker.lines(without=[0, 1, 2]))  # fmt: skip
    case("last-block-before-gap", FILE_START + b"".join([*early, with_flags(maker.blocks[3], GAP)]),
         maker.lines(without=[2, 3]) + [damage_line(at, 0, 0, False)] + maker.lines(without=[0, 1, 2]))  # fmt: skip


def pause_cases():
    """Headers with an address that are not the first one."""
    later = FULL_HEADER | {"iar": 0x20002000, "pid": 78}
    maker = started().record(instruction=1).header(**later).header(**later).header(control=0x20, pid=79)
    maker.record(instruction=2).end(LAST)
    first, pause, lines = maker.lines()[:2], [loss_line("pause", 16)], maker.lines()[2:]
    case("pauses-in-a-block", FILE_START + b"".join(maker.blocks), [*first, *pause, lines[0], *pause, *lines[1:]])
    maker = started().record(instruction=1).end().header(**later).record(instruction=2).end(LAST)
    case("pause-between-blocks", FILE_START + b"".join(maker.blocks), [
        *maker.lines(without=[1]), loss_line("pause", places(maker)[1]), *maker.lines(without=[0])])  # fmt: skip


def base_blocks():
    """Four blocks of two records each; the first has a header too."""
    maker = started()
    for i in range(4):
        maker.record(instruction=i, num_gprs_in=1, gpr_in=((3, i + 1),)).record(instruction=i + 100)
        maker.end(LAST if i == 3 else 0, zstd=i == 2)
    return maker


def places(maker):
    """Offset of each block, and of the end."""
    at, offsets = len(FILE_START), []
    for data in maker.blocks:
        offsets.append(at)
        at += len(data)
    return [*offsets, at]


BLOCK_PARTS = {"marker": 0, "version": 4, "flags": 5, "compression": 6, "zero": 7, "stored": 8, "raw": 12,
               "records": 16, "headers": 20, "first-record": 24, "first-header": 32, "first-address": 40, "payload-checksum": 48,
               "header-checksum": 52, "payload": 56, "payload-end": -1}  # fmt: skip


def damage_cases():
    maker = base_blocks()
    at = places(maker)
    data = FILE_START + b"".join(maker.blocks)
    for i in (0, 1, 3):
        for part, place in BLOCK_PARTS.items():
            where = at[i] + place if place >= 0 else at[i + 1] - 1
            bad = bytearray(data)
            bad[where] ^= 0x10
            if i < 3:
                damages = [damage_line(at[i], at[i + 1] - at[i], 2)]
                lines = maker.lines(without=range(i, 4)) + damages + maker.lines(without=range(i + 1))
            else:
                # The block's header, where it can be read, tells what is lost, but not what is missing after it.
                readable = place < 0 or place >= 56
                lines = maker.lines(without=[3])
                lines.append(damage_line(at[3], len(bad) - at[3], 2 if readable else 0, False, True))
            case(f"damaged-{part}-of-block-{i}", bad, lines)
    for i, where in enumerate((0, 4, 8, 12, 15)):
        bad = bytearray(data)
        bad[where] ^= 1
        case(f"damaged-file-start-{where:02}", bad, [damage_line(0, 16, 0)] + maker.lines())
    for cut in (0, 7, 15, 16):
        case(f"cut-at-{cut:02}", data[:cut], [json.dumps({"refused": True})] if cut < 16 else [
            damage_line(16, 0, 0, False, True)])
    for i in range(4):
        for name, place in (("boundary", 0), ("marker", 3), ("header", 30), ("payload-begin", 56), ("payload", 70)):
            if i == 0 and place == 0:
                continue
            cut = at[i] + place
            lost = 2 if place >= 56 else 0
            case(f"cut-in-block-{i}-{name}", data[:cut], maker.lines(without=range(i, 4)) + [
                damage_line(at[i], cut - at[i], lost, False, True)])
    for gone in ((0,), (1,), (2,), (1, 2)):
        kept = [b for i, b in enumerate(maker.blocks) if i not in gone]
        size = at[gone[0]]
        case("missing-block-" + "-".join(map(str, gone)), FILE_START + b"".join(kept),
             maker.lines(without=range(gone[0], 4)) + [damage_line(size, 0, 2 * len(gone))]
             + maker.lines(without=range(gone[-1] + 1)))  # fmt: skip
    for i in range(4):
        for name, junk in (("byte", b"\0"), ("marker", corpus_items.BLOCK_MARKER), ("half-block", maker.blocks[1][:40]),
                           ("file-start", FILE_START)):  # fmt: skip
            bad = data[: at[i]] + junk + data[at[i] :]
            case(f"inserted-{name}-before-block-{i}", bad, maker.lines(without=range(i, 4)) + [
                damage_line(at[i], len(junk), 0)] + maker.lines(without=range(i)))
    other = struct.pack("<8sI", corpus_items.FILE_MAGIC, 2)
    case("another-version", other + struct.pack("<I", crc32c(other)) + data[16:], [json.dumps({"refused": True})])
    case("no-trace", b"KelvoVer:3,64bitMode:True\n" * 4, [json.dumps({"refused": True})])
    bare = Trace_Maker().record(instruction=1)
    bare.end()
    case("without-last-block", FILE_START + bare.blocks[0], bare.lines() + [
        damage_line(16 + len(bare.blocks[0]), 0, 0, False, True)])


def malformed_cases():
    """Blocks with right checksums that no writer makes, between two that are right."""
    bad_columns = {
        "op-unknown-bit": {OP: b"\x80\x10"},
        "op-header-and-more": {OP: b"\x81\x01"},
        "op-cut": {OP: b"\x80"},
        "word-missing": {OP: b"\1", WORD: b"\0\0\0"},
        "word-left-over": {OP: b"\0", WORD: b"\0\0\0\0"},
        "shape-left-over": {OP: b"\0", SHAPE: b"\0"},
        "open-too-short": {OPEN: b"\0", OP: b"\0"},
        "open-too-long": {OPEN: b"\0\0\0", OP: b"\0"},
        "open-beyond-header": {OPEN: varint(368) + b"\1\1\0\0", OP: b"\0"},
        "control-unknown": {OP: b"\2", SHAPE: b"\5"},
        "control-missing": {OP: b"\2", SHAPE: b"\0\0\0"},
        "small-member-unknown": {OP: b"\x08", SHAPE: b"\x40\1"},
        "register-list-unknown": {OP: b"\4", SHAPE: varint(1 << 10) + b"\1\1"},
        "register-number-too-large": {OP: b"\4", SHAPE: varint(1 << 9) + b"\1" + varint(1 << 16)},
        "register-numbers-missing": {OP: b"\4", SHAPE: varint(1 << 9) + b"\xff\1\2"},
        "varint-without-end": {OP: b"\4", SHAPE: b"\xff" * 11},
        "varint-of-11-bytes": {OP: b"\4", SHAPE: b"\x80" * 10 + b"\0"},
        "kind-unknown": {OP: b"\x44", SHAPE: list_bytes((3,), ()), KIND: b"\x2a"},
        "kind-missing": {OP: b"\x44", SHAPE: list_bytes((3,), ())},
        "value-missing": {OP: b"\x44", SHAPE: list_bytes((3,), ()), KIND: b"\x11", VALUE: b"\1"},
        "output-without-kind": {OP: b"\4", SHAPE: list_bytes((), (3,))},
        "base-unknown": {OP: b"\x22", SHAPE: b"\0" + struct.pack("<Q", DATA), DATAS: b"\3\0"},
        "next-missing": {OP: b"\x12", SHAPE: b"\0" + struct.pack("<Q", NEXT)},
        "mask-missing": {OP: b"\x82\x08", SHAPE: b"\0" + struct.pack("<Q", NEXT), TRANSLATION: b"\0\0"},
        "difference-missing": {OP: b"\x82\x08", SHAPE: b"\0" + struct.pack("<Q", NEXT), TRANSLATION: b"\1\0\0\0"},
        "translation-unused-bits": {OP: b"\x82\x08", SHAPE: b"\0" + struct.pack("<Q", NEXT),
                                    TRANSLATION: b"\2\0\0\0" + zigzag(1 << 56)},
        "rare-beyond-record": {OP: b"\x80\2", EXTRA: varint(2936) + b"\1\1\0\0"},
        "rare-run-cut": {OP: b"\x80\2", EXTRA: b"\1\5\1"},
        "rare-huge-gap": {OP: b"\x80\2", EXTRA: varint(MASK64) + b"\1\1\0\0"},
        "rare-huge-length": {OP: b"\x80\2", EXTRA: b"\1" + varint(MASK64) + b"\1\0\0"},
        "rare-gap-without-run": {OP: b"\x80\2", EXTRA: b"\5\0"},
        "header-beyond-structure": {OP: b"\x80\1", EXTRA: varint(368) + b"\1\1\0\0\0"},
        "header-place-unknown": {OP: b"\x80\1", EXTRA: b"\0\0\3"},
        "header-place-missing": {OP: b"\x80\1", EXTRA: b"\0\0"},
        "header-comment-missing": {OP: b"\x80\1", EXTRA: varint(336) + b"\1\x09\0\0\1ab"},
        "too-few-items": {OP: b""},
        "too-many-items": {OP: b"\0\0"},
    }  # fmt: skip
    # Where the record before the fault is whole, and what it is.
    delivered = {
        "word-left-over": {}, "shape-left-over": {}, "too-many-items": {}, "small-member-unknown": {},
        "register-list-unknown": {},
        "register-number-too-large": {"num_gprs_in": 1, "gpr_in": ((0, 0),)},
        "translation-unused-bits": {"control": NEXT},
    }  # fmt: skip
    for name, columns in bad_columns.items():
        malformed(name, payload([columns.get(i, b"") for i in range(10)]), int(columns[OP] == b"\x80\1"),
                  delivered=delivered.get(name))  # fmt: skip
    right = payload([b"", b"\0", *[b""] * 8])
    malformed("payload-empty", b"")
    malformed("payload-cut", right[:39])
    malformed("payload-too-long", right + b"\0")
    malformed("payload-sizes-too-large", b"\xff" * 40)
    malformed("payload-sizes-that-wrap", struct.pack("<10I", 0xFFFFFFFF, 2, *[0] * 8) + b"\0")
    compressed = zstandard.ZstdCompressor().compress(right)
    malformed("zstd-no-frame", right, stored_bytes=b"no frame")
    malformed("zstd-cut", right, stored_bytes=compressed[:-1])
    malformed("zstd-bytes-after", right, stored_bytes=compressed + b"\0")
    halves = [zstandard.ZstdCompressor().compress(half) for half in (right[:20], right[20:])]
    malformed("zstd-two-frames", right, stored_bytes=b"".join(halves))
    skipped = struct.pack("<2I", 0x184D2A50, 4) + b"skip"
    malformed("zstd-skippable-frame-before", right, stored_bytes=skipped + compressed)
    malformed("zstd-skippable-frame-after", right, stored_bytes=compressed + skipped)
    malformed("zstd-raw-size-too-small", right, stored_bytes=compressed, raw_size=len(right) - 1)
    malformed("zstd-raw-size-too-large", right, stored_bytes=compressed, raw_size=len(right) + 1)
    malformed("zstd-bomb", right, stored_bytes=zstandard.ZstdCompressor().compress(bytes(1 << 24)))
    malformed("good-then-bad-record", payload([b"", b"\0\1", *[b""] * 8]), records=2, delivered={})


IGNORED_BITS = ("register-number-too-large", "translation-unused-bits")  # what no writer makes, and nobody minds


def malformed(name, contents, headers=0, records=None, stored_bytes=None, delivered=None, **change):
    """The block stands after a right one; `delivered` are the members of its one record before the fault."""
    records = 1 - headers if records is None else records
    maker = started().record(instruction=1, num_gprs_in=1, gpr_in=((3, 9),)).end()
    maker.blocks.append(block(contents, records, headers, 1, 1, maker.address, KNOWN, stored_bytes, **change))
    if delivered is not None:
        maker.expect(**delivered)
    found = maker.now
    maker.items.append(found)
    maker.records += records - len(found)
    maker.headers += headers
    maker.begin()
    maker.record(instruction=2).end(LAST)
    at = places(maker)
    damage = [damage_line(at[1], at[2] - at[1], records - len(found))] if name not in IGNORED_BITS else []
    case(f"malformed-{name}", FILE_START + b"".join(maker.blocks),
         maker.lines(without=[2]) + damage + maker.lines(without=[0, 1]))  # fmt: skip


def order_cases():
    """Right blocks in the wrong place. A jump forward tells what was lost, a jump back does not."""
    maker = base_blocks()
    for name, order in (("twice", (0, 1, 1, 2, 3)), ("swapped", (0, 2, 1, 3)), ("older-after", (0, 1, 2, 0, 3))):
        at, records, lines = len(FILE_START), 0, []
        for i in order:
            jump = i * 2 - records
            lines += [damage_line(at, 0, max(jump, 0), jump > 0)] if jump else []
            lines += maker.lines(without={0, 1, 2, 3} - {i})
            at, records = at + len(maker.blocks[i]), i * 2 + 2
        case(f"blocks-{name}", FILE_START + b"".join(maker.blocks[i] for i in order), lines)
    maker = base_blocks()
    for name, first, lost in (("up-to-the-last", MASK64 - 2, None), ("beyond-the-last", MASK64 - 1, 2)):
        last = with_numbers(with_flags(maker.blocks[3], GAP), first)
        at, size = len(FILE_START), len(last)
        lines = [json.dumps(json.loads(line) | {"record": first + i})
                 for i, line in enumerate(maker.lines(without=[0, 1, 2]))]  # fmt: skip
        lost_end = [damage_line(at, size, 0, False, True)]
        refused = [loss_line("refused", at, 0, first)]
        case(f"numbers-{name}", FILE_START + last, refused + lines if lost is None else lost_end)
    maker = Trace_Maker()
    for i in range(4):
        maker.record(instruction=i) if i == 1 else maker.header(control=0x60, lpid=i)
        maker.end(LAST if i == 3 else 0)
    maker.blocks.pop(2)
    case("missing-block-of-headers", FILE_START + b"".join(maker.blocks), maker.lines(without=[2, 3])
         + [damage_line(places(maker)[2], 0)] + maker.lines(without=[0, 1, 2]))  # fmt: skip


def commented(*headers, flags=COMMENT_BEFORE):
    """A block, a comment block, a block with these headers, one more block."""
    maker = started().record(instruction=1).end().comment_block(b"text")
    for members in headers or [{}]:
        maker.header(**({"comment": b"text", "place": 2, "file_control": 2} | members))
    maker.record(instruction=2).end(flags).record(instruction=3).end(LAST)
    return maker


def comment_block_cases():
    """Comment blocks that are not where they belong."""
    maker = commented()
    ahead, comment, first, last = maker.blocks
    at = places(maker)
    begin, right, bad = FILE_START + ahead, maker.lines(), comment[:-1] + b"?"
    case("comment-block-twice", begin + comment * 2 + first + last, right)
    # The numbers of a comment block say whose comment it is.
    case("comment-block-before-damage", begin + comment + b"junk" + first + last, [
        *maker.lines(without=[2, 3]), damage_line(at[2], 4), *maker.lines(without=[0, 1])])  # fmt: skip
    case("comment-block-without-header", begin + comment + last, [
        *maker.lines(without=[2, 3]), damage_line(at[2], 0, 1), *maker.lines(without=[0, 1, 2])])  # fmt: skip
    case("comment-block-last", begin + comment, [
        *maker.lines(without=[2, 3]), damage_line(at[2], 0, 0, False, True)])  # fmt: skip
    maker.items[2][0].comment, maker.items[2][0].comment_length = b"", 0
    before, after = maker.lines(without=[2, 3]), maker.lines(without=[0, 1])
    case("comment-block-missing", begin + first + last, [*before, damage_line(at[1], 0), *after])
    case("comment-block-left-out", begin + with_flags(first, GAP) + last, [*before, loss_line("refused", at[1]), *after])
    case("comment-block-damaged", begin + bad + first + last, [*before, damage_line(at[1], len(bad)), *after])
    other = Trace_Maker().comment_block(b"text").blocks[0]
    case("comment-block-before-another", FILE_START + other + ahead + first + last, [
        *before, damage_line(at[1] + len(other), 0), *after])  # fmt: skip
    case("comment-block-of-another-before-gap", FILE_START + other + with_flags(first, GAP) + last,
         [loss_line("refused", 16 + len(other), 0, 1), *maker.lines(without=[0])])  # fmt: skip
    # What no writer makes.
    for name, maker, delivered in (
        ("of-another-length", commented({"comment_length": 5}), 0),
        ("without-flag", commented(flags=0), 0),
        ("for-two-headers", commented({}, {}), 1),
    ):
        at, lost = places(maker), maker.items[2][delivered:]
        del maker.items[2][delivered:]
        case(f"comment-block-{name}", FILE_START + b"".join(maker.blocks), [
            *maker.lines(without=[3]), damage_line(at[2], at[3] - at[2], len(lost) and 1),
            *maker.lines(without=[0, 1, 2])])  # fmt: skip


def recovered_cases():
    """What a recovery leaves: blocks after a gap, and an end that is not the trace's."""
    for gone in ((0,), (1,), (1, 2)):
        maker, after = base_blocks(), gone[-1] + 1
        kept = [with_flags(data, GAP if i == after else 0) for i, data in enumerate(maker.blocks) if i not in gone]
        name = "-".join(map(str, gone))
        size = sum(map(len, maker.blocks[: gone[0]])) + len(FILE_START)

        def around(cause):
            loss = loss_line(cause, size, 0, 2 * len(gone))  # noqa: B023
            return [*maker.lines(without=range(gone[0], 4)), loss, *maker.lines(without=range(after))]  # noqa: B023

        case(f"gap-block-{name}", FILE_START + b"".join(kept), around("refused"))
        marked = [with_flags(data, LEFT_OUT) if i == gone[0] else data for i, data in enumerate(kept)]
        case(f"left-out-block-{name}", FILE_START + b"".join(marked), around("left out"))
        junk = b"".join(kept[: gone[0]]) + b"junk" + b"".join(kept[gone[0] :])
        case(f"gap-block-{name}-after-damage", FILE_START + junk, maker.lines(without=range(gone[0], 4))
             + [damage_line(size, 4, 2 * len(gone))] + maker.lines(without=range(after)))  # fmt: skip
    maker = base_blocks()
    for i in range(3):
        kept = [*maker.blocks[:i], with_flags(maker.blocks[i], LAST | OPEN_END)]
        case(f"open-end-block-{i}", FILE_START + b"".join(kept), maker.lines(without=range(i + 1, 4)))
    bad = with_flags(maker.blocks[1], LEFT_OUT)  # without the gap flag it is no block header
    case("left-out-without-gap", FILE_START + maker.blocks[0] + bad + b"".join(maker.blocks[2:]), [
        *maker.lines(without=[1, 2, 3]), damage_line(places(maker)[1], len(bad), 2), *maker.lines(without=[0, 1])])  # fmt: skip
    case("gap-without-jump", FILE_START + maker.blocks[0] + with_flags(maker.blocks[1], GAP)
         + b"".join(maker.blocks[2:]), [*maker.lines(without=[1, 2, 3]), loss_line("refused", places(maker)[1]),
                                        *maker.lines(without=[0])])  # fmt: skip


def with_flags(data, flags):
    """A block with more flags, and the checksum of its header set right."""
    head = bytearray(data[:52])
    head[5] |= flags
    return bytes(head) + struct.pack("<I", crc32c(head)) + data[56:]


def with_numbers(data, first):
    """A block with another first record, and the checksum of its header set right."""
    head = data[:24] + struct.pack("<Q", first) + data[32:52]
    return head + struct.pack("<I", crc32c(head)) + data[56:]


def main():
    for cases in (member_cases, flag_cases, register_cases, value_kind_cases, expectation_cases, translation_cases,
                  file_cases, damage_cases, malformed_cases, order_cases,
                  comment_block_cases, recovered_cases, pause_cases):  # fmt: skip
        cases()
    wanted = {f"{name}.trace": data for name, (data, _) in CASES.items()}
    wanted |= {f"{name}.json": "".join(text + "\n" for text in lines).encode() for name, (_, lines) in CASES.items()}
    present = {path.name: path.read_bytes() for end in ("trace", "json") for path in FOLDER.glob(f"*.{end}")}
    if "--check" in sys.argv:
        wrong = sorted(name for name in wanted.keys() | present.keys() if wanted.get(name) != present.get(name))
        print("\n".join(wrong) or f"{len(CASES)} traces")
        return bool(wrong)
    for name in present.keys() - wanted.keys():
        (FOLDER / name).unlink()
    for name, data in wanted.items():
        (FOLDER / name).write_bytes(data)
    print(f"{len(CASES)} traces, {sum(map(len, wanted.values()))} bytes")
    return 0


if __name__ == "__main__":
    sys.exit(main())
