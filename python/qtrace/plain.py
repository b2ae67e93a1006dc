#!/usr/bin/python3
"""A reader of trace files in plain Python, written from docs/trace-format.md alone: it proves that the document is
complete, and the C++ reader is compared with it. It needs no compiled code but zstandard.

    from qtrace import plain
    for item in plain.Trace("trace0"):
        match item:
            case plain.Record():  print(item.number, item.address, item.instruction)
            case plain.Header():  print(item.iar, item.comment)
            case plain.Discontinuity():  print(item.cause, item)

    python3 -m qtrace.plain [--from N] [--count N] FILE...

prints headers, records and discontinuities as `qtrace dump --json` does, without kinds: members and flags that are not
zero. Damage goes to standard error too. Exit codes: 0 fine, 1 failed, 2 wrong usage, 3 losses found.
"""
import argparse
import collections
import itertools
import json
import os
import struct
import sys

import zstandard

FORMAT_VERSION = 1
FILE_MAGIC = b"\x8aQTRACE\n"
BLOCK_MARKER = b"\x8bQB\n"
FILE_START = struct.Struct("<8sII")
BLOCK_HEADER = struct.Struct("<4s4B4I3Q2I")
MAX_BYTES = 65536  # of a payload, stored or raw

PAUSE, REFUSED, LEFT_OUT, DAMAGE, CUT_END = "pause", "refused", "left out", "damage", "cut end"

FLAG_LAST, FLAG_ADDRESS_KNOWN, FLAG_COMMENT_BLOCK, FLAG_COMMENT_BEFORE, FLAG_GAP = 1, 2, 4, 8, 16
FLAG_LEFT_OUT = 64
ALL_BLOCK_FLAGS = 127
COMPRESSION_NONE, COMPRESSION_ZSTD = 0, 1

MASK64 = (1 << 64) - 1

LOST_COMMENT = object()  # the comment of a header whose comment block cannot be read


class NotATraceError(Exception):
    """The file is not a trace."""


class MalformedError(Exception):
    """A payload with the right checksum that no writer makes."""


# ---- Members -------------------------------------------------------------------------------------------


class Shape:
    """How a member lies in an image: its bytes, its value, and how JSON shows it."""

    def __init__(self, layout, words_a_row=None, decimal=False):
        self.struct = struct.Struct("<" + layout)
        self.size = self.struct.size
        self.words = self.size // 8
        self.words_a_row = words_a_row
        self.decimal = decimal
        self.zero = self.unpack(bytes(self.size), 0)

    def unpack(self, image, offset):
        if self.size == 7:
            return int.from_bytes(image[offset : offset + 7], "little")
        values = self.struct.unpack_from(image, offset)
        return values[0] if self.words_a_row is None else values

    def pack_into(self, image, offset, value):
        if self.size == 7:
            image[offset : offset + 7] = value.to_bytes(7, "little")
        elif self.words_a_row is None:
            self.struct.pack_into(image, offset, value)
        else:
            self.struct.pack_into(image, offset, *value)

    def combine(self, one, other):
        return one | other if self.words_a_row is None else tuple(a | b for a, b in zip(one, other))

    def for_json(self, value):
        if self.decimal:
            return value
        if self.words_a_row is None:
            return hex(value)
        row = self.words_a_row
        rows = [[hex(word) for word in value[i : i + row]] for i in range(0, len(value), row) if any(value[i:])]
        return rows if self.words > row else rows[0]


U8, U16, U32D = Shape("B", decimal=True), Shape("H", decimal=True), Shape("I", decimal=True)
U32, U64, VSID = Shape("I"), Shape("Q"), Shape("7s")
HOST_WALKS = Shape("20Q", words_a_row=4)  # five walks of l1, l2, l3, entry
HOST_ADDRESSES = Shape("4Q", words_a_row=4)
GUEST_WALK = Shape("6Q", words_a_row=6)  # l1, l2, l3, l4, entry, GUEST_ra


def walk_block(name, offset):
    return [
        (f"{name}_hRTW_depth", offset, U8),
        (f"{name}_hRTW_num_level", offset + 1, U8),
        (f"{name}_hRTW", offset + 2, HOST_WALKS),
        (f"{name}_hRTW_host_RA", offset + 162, HOST_ADDRESSES),
        (f"{name}_gRTW", offset + 194, GUEST_WALK),
        (f"{name}_rpn", offset + 242, U32),
    ]


# Name, offset in the image, shape. Without registers, padding, pointers and bookkeeping. Bit-fields that share
# bytes are one member, `validity_bits`.
RECORD_MEMBERS = [
    ("instruction", 0, U32),
    ("control", 4, U64),
    ("iar", 12, U64),
    ("iar_vsid", 20, VSID),
    *walk_block("iar", 27),
    ("iar_segment_size", 273, U8),
    ("iar_page_size", 274, U8),
    ("iar_gpage_size", 275, U8),
    ("is_speculative", 276, U32D),
    ("validity_bits", 280, U16),
    ("itype", 284, U32D),
    ("iar_segment_size_is_valid", 288, U8),
    ("node", 289, U8),
    ("termination_node", 290, U8),
    ("termination_code", 291, U8),
    ("processor", 292, U8),
    ("data_ea", 293, U64),
    ("data_vsid", 301, VSID),
    *walk_block("data", 308),
    *walk_block("secondary_data", 554),
    ("length", 800, U16),
    ("next_instruction_ea", 816, U64),
    ("next_instruction_vsid", 824, VSID),
    *walk_block("next_instruction", 831),
    *walk_block("sequential_instruction", 1077),
    ("exception_code", 1323, U8),
    ("error_code", 1324, U8),
    ("trace_alteration_code", 1325, U8),
    ("next_instruction_page_size", 1326, U8),
    ("next_instruction_gpage_size", 1327, U8),
    ("data_page_size", 1328, U8),
    ("data_gpage_size", 1329, U8),
    ("next_instruction_segment_size", 1330, U8),
    ("data_segment_size", 1331, U8),
    ("sequential_instruction_page_size", 1332, U8),
    ("sequential_instruction_gpage_size", 1333, U8),
    ("secondary_data_page_size", 1334, U8),
    ("secondary_data_gpage_size", 1335, U8),
]
RECORD_SIZE = 2936
# Bits of members that are more than padding.
USED_BITS = {"validity_bits": 0x3FF, "iar_segment_size_is_valid": 1}

HEADER_MEMBERS = [
    ("file_control", 0, U32),
    ("instruction", 4, U32),
    ("control", 8, U64),
    ("magic", 16, U32),
    ("version", 20, U32),
    ("iar", 24, U64),
    ("iar_vsid", 32, VSID),
    *walk_block("iar", 39),
    ("iar_segment_size", 285, U8),
    ("iar_page_size", 286, U8),
    ("iar_gpage_size", 287, U8),
    ("ptcr", 288, U64),
    ("lpid", 296, U64),
    ("pid", 304, U32D),
    ("sdr1", 308, U64),
    ("asr", 316, U64),
    ("processor_id", 324, U8),
    ("persistent_data_field", 325, U8),
    ("persistent_data_length", 326, U8),
    ("persistent_data", 328, U64),
    ("comment_length", 336, U16),
    ("app_spec_data_length", 352, U32D),
]
HEADER_SIZE = 368

# The ten register lists, by number: name of the entries, name of the count, offset of the entries in a record,
# entries it has room for, 64-bit words of a value.
REGISTER_LISTS = [
    ("spr_out", "num_sprs_out", 1368, 4, 1),
    ("vsxr_out", "num_vsxrs_out", 1432, 3, 2),
    ("vmxr_out", "num_vmxrs_out", 1504, 3, 2),
    ("fpr_out", "num_fprs_out", 1576, 3, 1),
    ("gpr_out", "num_gprs_out", 1624, 32, 1),
    ("spr_in", "num_sprs_in", 2136, 4, 1),
    ("vsxr_in", "num_vsxrs_in", 2200, 3, 2),
    ("vmxr_in", "num_vmxrs_in", 2272, 3, 2),
    ("fpr_in", "num_fprs_in", 2344, 3, 1),
    ("gpr_in", "num_gprs_in", 2392, 32, 1),
]
COUNTS_OFFSET = 1352
INPUT_LISTS, OUTPUT_LISTS = (9, 8, 7, 6, 5), (4, 3, 2, 1, 0)
JSON_LISTS = INPUT_LISTS[:2] + (5, 7, 6) + OUTPUT_LISTS[:2] + (0, 2, 1)
ENTRY = {1: struct.Struct("<H6xQ"), 2: struct.Struct("<H6xQQ")}  # by words of a value

# Names of flags by first bit and width: of `control` (unit 0, then unit 1), and of a header's `file_control`.
CONTROL_FLAGS = [
    ("_secondary_extended_reserved_11_15", 0, 5),
    ("pid_is_present", 5, 1),
    ("lpid_is_present", 6, 1),
    ("ptcr_is_present", 7, 1),
    ("guest_xlate_mode_instruction", 8, 2),
    ("host_xlate_mode_instruction", 10, 2),
    ("guest_xlate_mode_data", 12, 2),
    ("host_xlate_mode_data", 14, 2),
    ("secondary_extender_present", 16, 1),
    ("file_header_present", 17, 1),
    ("data_gpage_size_present", 18, 1),
    ("instruction_gpage_size_present", 19, 1),
    ("secondary_data_page_size_present", 20, 1),
    ("sequential_instruction_page_size_present", 21, 1),
    ("data_segment_size_present", 22, 1),
    ("next_instruction_segment_size_present", 23, 1),
    ("data_page_size_present", 24, 1),
    ("next_instruction_page_size_present", 25, 1),
    ("_extended_length_bit", 26, 1),
    ("trace_alteration_flag_present", 27, 1),
    ("trace_error_code_present", 28, 1),
    ("exception_code_present", 29, 1),
    ("sequential_instruction_RPN_present", 30, 1),
    ("secondary_data_RPN_present", 31, 1),
    ("_extender_present", 32, 1),
    ("_reserved_14", 33, 1),
    ("_reserved_13", 34, 1),
    ("register_trace_present", 35, 1),
    ("next_instruction_RPN_present", 36, 1),
    ("next_instruction_VSID_present", 37, 1),
    ("next_instruction_EA_present", 38, 1),
    ("data_present", 39, 1),
    ("length_present", 40, 1),
    ("data_RPN_present", 41, 1),
    ("data_VSID_present", 42, 1),
    ("data_address_present", 43, 1),
    ("processor_present", 44, 1),
    ("termination_present", 45, 1),
    ("node_present", 46, 1),
    ("iar_change_present", 47, 1),
    ("_unused_16_31", 48, 16),
]
FILE_FLAGS = [
    ("app_spec_data_present", 0, 1),
    ("comment_present", 1, 1),
    ("persistent_data_present", 2, 1),
    ("_reserved_12", 3, 1),
    ("iar_gpage_size_is_present", 4, 1),
    ("processor_id_is_present", 5, 1),
    ("iar_page_size_is_present", 6, 1),
    ("iar_segment_size_is_present", 7, 1),
    ("barrier_synchronization", 8, 1),
    ("asr_is_present", 9, 1),
    ("sdr1_is_present", 10, 1),
    ("iar_rpn_is_present", 11, 1),
    ("iar_vsid_is_present", 12, 1),
    ("iar_is_present", 13, 1),
    ("version_number_present", 14, 1),
    ("magic_number_present", 15, 1),
    ("_unused_16_31", 16, 16),
]
CONTROL_DATA_ADDRESS = 1 << 43
CONTROL_NEXT_ADDRESS = 1 << 38
FILE_IAR = 1 << 13


def flags_of(word, flags):
    """The flags of a word that are not zero, by name."""
    values = {name: word >> bit & (1 << width) - 1 for name, bit, width in flags}
    return {name: value for name, value in values.items() if value}


# ---- Items ---------------------------------------------------------------------------------------------
# A member that an item does not carry is the class's, and zero: an item holds only what was read for it.


class Item:
    """A header or record: all its members as attributes, with the names of the C structure. Numbers are ints
    (byte arrays little-endian), walks flat tuples of ints."""

    MEMBERS: list
    SIZE: int

    def members(self):
        """Name and value of the members that are not zero, in the order of their offsets; without registers."""
        return {name: getattr(self, name) for name, _, shape in self.MEMBERS if getattr(self, name) != shape.zero}

    def image(self):
        """The bytes of the C structure; pointers and bookkeeping are zero."""
        image = bytearray(self.SIZE)
        mine = self.__dict__
        for name, offset, shape in self.MEMBERS:
            if name in mine:
                shape.pack_into(image, offset, mine[name])
        return image

    def members_for_json(self, without):
        return {
            name: shape.for_json(getattr(self, name))
            for name, _, shape in self.MEMBERS
            if name not in without and getattr(self, name) != shape.zero
        }


class Header(Item):
    """A file header. `number` headers and `record_number` records stand before it. `comment` is bytes or None."""

    MEMBERS, SIZE = HEADER_MEMBERS, HEADER_SIZE
    number = record_number = block_offset = 0
    comment = None

    def flags(self):
        return flags_of(self.file_control, FILE_FLAGS) | flags_of(self.control, CONTROL_FLAGS)

    def contents_for_json(self):
        return self.flags() | self.members_for_json(without=("file_control", "control"))

    def for_json(self):
        line = {"header": self.number, "before_record": self.record_number, **self.contents_for_json()}
        if self.comment is not None:
            line["comment"] = self.comment.decode("latin-1")
        return line


class Record(Item):
    """A record. `number` records and `header_number` headers stand before it; `address` is its instruction's, None
    where nothing has named one. Register lists (`gpr_in` ...) are tuples of (number, value) or, of 128-bit
    registers, (number, first half, second half): at least as many as the count names and there is room for, more
    when entries after those are not zero."""

    MEMBERS, SIZE = RECORD_MEMBERS, RECORD_SIZE
    number = header_number = block_offset = 0
    address = None

    def flags(self):
        return flags_of(self.control, CONTROL_FLAGS)

    def image(self):
        image = super().image()
        for i, (name, count, offset, _, words) in enumerate(REGISTER_LISTS):
            image[COUNTS_OFFSET + i] = getattr(self, count)
            entry = ENTRY[words]
            for values in getattr(self, name):
                entry.pack_into(image, offset, *values)
                offset += entry.size
        return image

    def for_json(self):
        line = {"record": self.number}
        if self.address is not None:
            line["address"] = hex(self.address)
        line |= self.flags() | self.members_for_json(without=("control",))
        for i in JSON_LISTS:
            name, count, _, room, _ = REGISTER_LISTS[i]
            held = getattr(self, count)
            if held:
                entries = getattr(self, name)[:held]
                line[name] = [[number, *map(hex, values)] for number, *values in entries]
            if held > room:
                line[name + "_count"] = held
        return line


for kind in (Header, Record):
    for name, _, shape in kind.MEMBERS:
        setattr(kind, name, shape.zero)
for name, count, *_ in REGISTER_LISTS:
    setattr(Record, name, ())
    setattr(Record, count, 0)


class Discontinuity:
    """A place where the trace does not simply go on. `record_number` records and `header_number` headers stand before
    it; `records` and `headers` were lost there, exactly so many records when `records_known`. `offset` is the first
    damaged byte, or where the following block begins; `context` the open header from here on (a Header), None where
    nothing tells it.

    cause: "pause" (tracing was paused and resumed), "refused" (the writer had no room), "left out" (a recovery or a
    cut left blocks out), "damage" (bytes cannot be read, or blocks are missing) or "cut end" (the file has no end).
    """

    header_number = record_number = 0
    context = None

    def __init__(self, cause, offset, reason, size=0, records=0, records_known=False, headers=0):
        self.cause, self.offset, self.bytes, self.reason = cause, offset, size, reason
        self.records, self.records_known, self.headers = records, records_known, headers

    @property
    def is_damage(self):
        """Whether the file is not as it was written."""
        return self.cause in (DAMAGE, CUT_END)

    def __str__(self):
        lost = f", {self.records} records" if self.records_known else ""
        return f"byte {self.offset}: {self.reason} ({self.bytes} bytes{lost} lost)"

    def for_json(self):
        line = {"discontinuity": self.cause, "at_record": self.record_number, "lost_records": self.records,
                "lost_records_known": self.records_known, "lost_headers": self.headers, "offset": self.offset,
                "lost_bytes": self.bytes}  # fmt: skip
        if self.context is not None:
            line["context"] = self.context.contents_for_json()
        return line


# ---- Bytes ---------------------------------------------------------------------------------------------


def crc32c_table():
    table = []
    for value in bytes(range(256)):
        for _ in range(8):
            value = value >> 1 ^ (0x82F63B78 if value & 1 else 0)
        table.append(value)
    return table


CRC32C_TABLE = crc32c_table()


def crc32c(data):
    crc, table = 0xFFFFFFFF, CRC32C_TABLE
    for byte in data:
        crc = crc >> 8 ^ table[(crc ^ byte) & 255]
    return crc ^ 0xFFFFFFFF


class Column:
    """A column of a payload, read from front to back."""

    __slots__ = ("data", "at", "end")

    def __init__(self, data, at, end):
        self.data, self.at, self.end = data, at, end

    def take(self, size):
        at = self.at
        if size > self.end - at:
            raise MalformedError("a column ends too early")
        self.at = at + size
        return self.data[at : at + size]

    def number(self, size):
        return int.from_bytes(self.take(size), "little")

    def byte(self):
        at = self.at
        if at >= self.end:
            raise MalformedError("a column ends too early")
        self.at = at + 1
        return self.data[at]

    def varint(self):
        byte = self.byte()
        if byte < 128:
            return byte
        value = byte & 127
        for place in range(1, 10):
            byte = self.byte()
            value |= (byte & 127) << 7 * place
            if byte < 128:
                return value & MASK64
        raise MalformedError("a number of more than ten bytes")

    def difference(self):
        value = self.varint()
        return value >> 1 ^ (MASK64 if value & 1 else 0)

    def sparse_image(self, size):
        """An image from its runs."""
        image, at = bytearray(size), 0
        while True:
            gap, length = self.varint(), self.varint()
            if length == 0:
                if gap:
                    raise MalformedError("an empty run")
                return image
            at += gap
            if at + length > size:
                raise MalformedError("a run beyond its structure")
            image[at : at + length] = self.take(length)
            at += length


def item_of_image(kind, image):
    """A header or record with the members that are not zero in an image."""
    item = object.__new__(kind)
    for name, offset, shape in kind.MEMBERS:
        if any(image[offset : offset + shape.size]):
            value = shape.unpack(image, offset)
            setattr(item, name, value & USED_BITS[name] if name in USED_BITS else value)
    return item


# ---- Predictor state -----------------------------------------------------------------------------------


def slot(key, bits):
    return (key * 0x9E3779B97F4A7C15 & MASK64) >> (64 - bits)


class RegisterList:
    """The ten counts, and the register numbers of the entries that there is room for."""

    __slots__ = ("counts", "lists")

    def __init__(self, counts, lists):
        self.counts = counts  # members by name
        self.lists = lists  # list number -> (name, words, [(number, index of its value in Memory.register)])


NO_REGISTERS = RegisterList({}, {})


class OpcodeTemplate:
    """What records of one instruction word have in common."""

    __slots__ = ("control", "small", "registers", "base", "distance", "out_distance", "out_value")

    def __init__(self):
        self.control = self.base = self.distance = self.out_distance = self.out_value = 0
        self.small = {}
        self.registers = NO_REGISTERS


class Translation:
    """The 32 words of one side's translation. Its members are made once: many records share one."""

    __slots__ = ("words", "made")

    def __init__(self, words):
        self.words = words
        self.made = {}

    def members(self, side, address):
        made = self.made.get(side)
        if made is None:
            made = self.made[side] = self.make(side)
        folded = self.words[31]
        if folded:
            guest = folded ^ address & 0xFFF if folded >> 12 else folded
            name = side + "_gRTW"
            return {**made, name: (*self.words[26:31], guest)}
        return made

    def make(self, side):
        words = self.words
        members = {
            "_vsid": words[0] & (1 << 56) - 1,
            "_hRTW_depth": words[0] >> 56,
            "_rpn": words[1] & 0xFFFFFFFF,
            "_hRTW_num_level": words[1] >> 32 & 255,
            "_page_size": words[1] >> 40 & 255,
            "_gpage_size": words[1] >> 48 & 255,
        }
        members = {name: value for name, value in members.items() if value}
        for name, part in (("_hRTW", words[2:22]), ("_hRTW_host_RA", words[22:26]), ("_gRTW", (*words[26:31], 0))):
            if any(part):
                members[name] = tuple(part)
        return {side + name: value for name, value in members.items()}


NO_TRANSLATION = Translation((0,) * 32)
SMALL_MEMBERS = ("node", "termination_node", "termination_code", "processor", "error_code", "length")
MAX_KEPT_REGISTERS = 12
MAX_KEPT_CONTROLS = 255
DATA_SIDE, NEXT_SIDE = "data", "next_instruction"

OP_WORD, OP_CONTROL, OP_LIST, OP_MEMBERS, OP_NEXT, OP_DATA, OP_INPUTS, OP_MORE = (1 << i for i in range(8))
OP_HEADER, OP_ESCAPE, OP_DATA_TRANSLATION, OP_NEXT_TRANSLATION = (1 << i for i in range(8, 12))
OP_UNUSED = 0xF000
COLUMNS = 10


class Payload:
    """Decodes the items of one block, in order."""

    def __init__(self, raw, address=0, address_known=False, comment_before=None):
        self.address, self.address_known, self.comment_before = address, address_known, comment_before
        self.columns = self.split(raw)
        (self.open, self.op, self.word, self.shape, self.next, self.data, self.translation, self.kind, self.value,
         self.extra) = self.columns  # fmt: skip
        self.code = collections.defaultdict(lambda: (0, 0))
        self.templates = collections.defaultdict(OpcodeTemplate)
        self.memory = collections.defaultdict(int)
        self.register = collections.defaultdict(int)
        self.page = collections.defaultdict(lambda: NO_TRANSLATION)
        self.last_translation = {DATA_SIDE: NO_TRANSLATION, NEXT_SIDE: NO_TRANSLATION}
        self.controls = []
        self.open_header = None  # the last header with an address
        if self.open.at < self.open.end:
            self.open_header = item_of_image(Header, self.open.sparse_image(HEADER_SIZE))
            if self.open.at != self.open.end:
                raise MalformedError("an open header that does not fill its column")

    @staticmethod
    def split(raw):
        if len(raw) < 4 * COLUMNS:
            raise MalformedError("a payload without room for its columns")
        sizes = struct.unpack_from(f"<{COLUMNS}I", raw)
        if 4 * COLUMNS + sum(sizes) != len(raw):
            raise MalformedError("columns that do not fill the payload")
        ends = list(itertools.accumulate(sizes, initial=4 * COLUMNS))
        return [Column(raw, at, end) for at, end in zip(ends, ends[1:])]

    def __iter__(self):
        op = self.op
        while op.at < op.end:
            code = op.byte()
            if code & OP_MORE:
                code |= op.byte() << 8
            if code & OP_UNUSED or code & OP_HEADER and code != OP_HEADER | OP_MORE:
                raise MalformedError("an operation that does not exist")
            yield self.header() if code & OP_HEADER else self.record(code)
        if any(column.at != column.end for column in self.columns):
            raise MalformedError("columns that are not used up")

    def header(self):
        image = self.extra.sparse_image(HEADER_SIZE)
        header = item_of_image(Header, image)
        place = self.extra.byte()
        if place == 1:
            header.comment = self.extra.take(header.comment_length)
        elif place == 2:
            comment, self.comment_before = self.comment_before, None
            if comment is None:
                raise MalformedError("a comment before the block, where none belongs to it")
            if comment is LOST_COMMENT:
                comment, header.comment_length = b"", 0
            if header.comment_length != len(comment):
                raise MalformedError("a comment before the block, of another length")
            header.comment = comment
        elif place != 0:
            raise MalformedError("a comment in no known place")
        if header.file_control & FILE_IAR:
            self.open_header = item_of_image(Header, image)
            self.address, self.address_known = header.iar, True
        return header

    # ---- Records, in the order of the document's steps ----

    def record(self, op):
        record = object.__new__(Record)
        members = record.__dict__
        address = self.address
        if self.address_known:
            members["address"] = address

        code_slot = slot(address >> 2, 11)
        predicted_word, predicted_next = self.code[code_slot]
        word = members["instruction"] = self.word.number(4) if op & OP_WORD else predicted_word
        template = self.templates[slot(word, 10)]

        control = members["control"] = self.read_control() if op & OP_CONTROL else template.control
        if op & OP_MEMBERS:
            template.small = self.read_small_members()
        members.update(template.small)

        registers = template.registers
        if op & OP_LIST:
            registers = self.read_register_list()
            small = sum(len(numbers) for _, _, numbers in registers.lists.values()) <= MAX_KEPT_REGISTERS
            template.registers = registers if small else NO_REGISTERS
        members.update(registers.counts)
        self.read_inputs(members, registers, op & OP_INPUTS, address)

        last_input, previous_input = self.last_inputs(members.get("gpr_in", ()))
        near = address
        if control & CONTROL_DATA_ADDRESS:
            near = members["data_ea"] = self.read_data_address(op, template, last_input, previous_input)
        self.read_outputs(members, registers, template, last_input, previous_input, near)

        next_address = None
        if control & CONTROL_NEXT_ADDRESS:
            next_address = predicted_next
            if op & OP_NEXT:
                next_address = address + self.next.difference() & MASK64
            members["next_instruction_ea"] = next_address
        if control & CONTROL_DATA_ADDRESS:
            self.read_translation(members, DATA_SIDE, near, op & OP_DATA_TRANSLATION)
        if next_address is not None:
            self.read_translation(members, NEXT_SIDE, next_address, op & OP_NEXT_TRANSLATION)

        template.control = control
        self.note_values(members, registers, template, last_input, near)
        self.code[code_slot] = (word, predicted_next if next_address is None else next_address)
        self.go_on(next_address)
        if op & OP_ESCAPE:
            add_rare_fields(record, self.extra.sparse_image(RECORD_SIZE))
        return record

    def read_control(self):
        number = self.shape.byte()
        if number < len(self.controls):
            return self.controls[number]
        if number > len(self.controls):
            raise MalformedError("a control word that was not named before")
        control = self.shape.number(8)
        if len(self.controls) < MAX_KEPT_CONTROLS:
            self.controls.append(control)
        return control

    def read_small_members(self):
        present = self.shape.byte()
        return {
            name: self.shape.number(2 if name == "length" else 1)
            for i, name in enumerate(SMALL_MEMBERS)
            if present >> i & 1
        }

    def read_register_list(self):
        present = self.shape.varint()
        counts = {i: self.shape.byte() for i in range(len(REGISTER_LISTS)) if present >> i & 1}
        lists = {}
        for i in INPUT_LISTS + OUTPUT_LISTS:
            if counts.get(i, 0):
                name, _, _, room, words = REGISTER_LISTS[i]
                numbers = [self.shape.varint() & 0xFFFF for _ in range(min(counts[i], room))]
                first = i % 5 * 128
                lists[i] = (name, words, [(number, first + number % 64 * 2) for number in numbers])
        return RegisterList({REGISTER_LISTS[i][1]: count for i, count in counts.items()}, lists)

    def read_inputs(self, members, registers, coded, address):
        register = self.register
        for i in INPUT_LISTS:
            if i in registers.lists:
                name, words, numbers = registers.lists[i]
                if coded:
                    prediction = Prediction(self.memory, 0, 0, 0, 0, address)
                    members[name] = tuple(
                        (number, *(self.read_value(index, half, prediction) for half in range(words)))
                        for number, index in numbers
                    )
                else:
                    members[name] = tuple(
                        (number, *(register[index + half] for half in range(words))) for number, index in numbers
                    )

    @staticmethod
    def last_inputs(entries):
        last = entries[-1][1] if entries else 0
        return last, entries[-2][1] if len(entries) > 1 else 0

    def read_data_address(self, op, template, last_input, previous_input):
        if op & OP_DATA:
            template.base = self.data.byte()
            if template.base > 2:
                raise MalformedError("a base of a data address that does not exist")
            template.distance = self.data.difference()
        base = (last_input, previous_input + last_input, 0)[template.base]
        return base + template.distance & MASK64

    def read_outputs(self, members, registers, template, last_input, previous_input, near):
        prediction = None
        for i in OUTPUT_LISTS:
            if i in registers.lists:
                name, words, numbers = registers.lists[i]
                if prediction is None:
                    prediction = Prediction(
                        self.memory, last_input, previous_input, template.out_distance, template.out_value, near
                    )
                members[name] = tuple(
                    (number, *(self.read_value(index, half, prediction) for half in range(words)))
                    for number, index in numbers
                )

    def read_value(self, index, half, prediction):
        kind = self.kind.byte()
        if kind < 9:
            value = self.register[index + half] if kind == 0 else prediction.value(kind, half)
        elif kind < 18:
            value = self.value.number(kind - 9)
        elif kind < 42:
            size = (kind - 18) % 8 + 1
            base = (self.register[index + half], prediction.last_input, prediction.near)[(kind - 18) // 8]
            value = base + int.from_bytes(self.value.take(size), "little", signed=True) & MASK64
        else:
            raise MalformedError("a kind of value that does not exist")
        self.register[index + half] = value
        return value

    def read_translation(self, members, side, address, coded):
        index = slot(address >> 12, 7)
        if coded:
            mask = self.translation.number(4)
            self.page[index] = Translation(tuple(
                word + self.translation.difference() & MASK64 if mask >> i & 1 else word
                for i, word in enumerate(self.last_translation[side].words)
            ))  # fmt: skip
        translation = self.last_translation[side] = self.page[index]
        members.update(translation.members(side, address))

    def note_values(self, members, registers, template, last_input, near):
        lists = registers.lists
        if not lists:
            return
        outputs = [i for i in OUTPUT_LISTS if i in lists]
        chosen = outputs[0] if outputs else [i for i in INPUT_LISTS if i in lists][-1]
        _, *values = members[lists[chosen][0]][0]
        if outputs:
            template.out_value = values[0]
            template.out_distance = values[0] - last_input & MASK64
        for half, value in enumerate(values):
            self.memory[slot(near + 8 * half & MASK64, 10)] = value

    def go_on(self, next_address):
        if next_address is None:
            self.address = self.address + 4 & MASK64
        else:
            self.address, self.address_known = next_address, True


class Prediction:
    """The values that a register is predicted to have."""

    __slots__ = ("memory", "last_input", "previous_input", "out_distance", "out_value", "near")

    def __init__(self, memory, last_input, previous_input, out_distance, out_value, near):
        self.memory, self.last_input, self.previous_input = memory, last_input, previous_input
        self.out_distance, self.out_value, self.near = out_distance, out_value, near

    def value(self, kind, half):
        last, previous = self.last_input, self.previous_input
        match kind:
            case 1:
                return last + self.out_distance & MASK64
            case 2:
                return self.memory[slot(self.near + 8 * half & MASK64, 10)]
            case 3:
                return self.out_value
            case 4:
                return previous + last & MASK64
            case 5:
                return last - previous & MASK64
            case 6:
                return previous & last
            case 7:
                return previous | last
        return previous ^ last


def add_rare_fields(record, image):
    """Combines a record with an image of its rare (escape-coded) members."""
    rare = item_of_image(Record, image).__dict__
    shapes = {name: shape for name, _, shape in RECORD_MEMBERS}
    for name, value in rare.items():
        setattr(record, name, shapes[name].combine(getattr(record, name), value))
    for i, (name, count, offset, room, words) in enumerate(REGISTER_LISTS):
        if image[COUNTS_OFFSET + i]:
            setattr(record, count, getattr(record, count) | image[COUNTS_OFFSET + i])
        size = ENTRY[words].size
        area = image[offset : offset + room * size]
        # Padding between number and values may hold anything, and makes no entry.
        more = [ENTRY[words].unpack_from(area, at) for at in range(0, len(area), size)]
        while more and not any(more[-1]):
            more.pop()
        if not more:
            continue
        pairs = itertools.zip_longest(getattr(record, name), more, fillvalue=itertools.repeat(0))
        setattr(record, name, tuple(tuple(a | b for a, b in zip(*pair)) for pair in pairs))


# ---- Blocks and files ----------------------------------------------------------------------------------


class Block:
    """A block header with right checksum and sizes. Its payload need not be there, or right."""

    __slots__ = ("offset", "flags", "compression", "stored_size", "raw_size", "records", "headers", "first_record",
                 "first_header", "first_address", "payload_crc")  # fmt: skip

    @classmethod
    def at(cls, data, offset):
        """The block header at a place of the file, or None."""
        if data[offset : offset + 4] != BLOCK_MARKER or offset + BLOCK_HEADER.size > len(data):
            return None
        (_, version, flags, compression, zero, stored, raw, records, headers, first_record, first_header,
         first_address, payload_crc, header_crc) = BLOCK_HEADER.unpack_from(data, offset)  # fmt: skip
        fits = version == FORMAT_VERSION and flags <= ALL_BLOCK_FLAGS and zero == 0
        fits = fits and compression <= COMPRESSION_ZSTD and max(stored, raw) <= MAX_BYTES
        fits = fits and flags & (FLAG_GAP | FLAG_LEFT_OUT) != FLAG_LEFT_OUT
        fits = fits and first_record + records <= MASK64 and first_header + headers <= MASK64
        if not fits or compression == COMPRESSION_NONE and stored != raw:
            return None
        if header_crc != crc32c(data[offset : offset + BLOCK_HEADER.size - 4]):
            return None
        block = cls()
        block.offset, block.flags, block.compression = offset, flags, compression
        block.stored_size, block.raw_size, block.payload_crc = stored, raw, payload_crc
        block.records, block.headers, block.first_address = records, headers, first_address
        block.first_record, block.first_header = first_record, first_header
        return block

    @property
    def end(self):
        return self.offset + BLOCK_HEADER.size + self.stored_size

    def is_comment_of(self, block):
        """Whether this is the comment block of that one: their numbers agree."""
        matches = self.first_record == block.first_record and self.first_header == block.first_header
        return self.flags & FLAG_COMMENT_BLOCK and block.flags & FLAG_COMMENT_BEFORE and matches

    def stored(self, data):
        return data[self.offset + BLOCK_HEADER.size : self.end]

    def is_whole(self, data):
        return self.end <= len(data) and crc32c(self.stored(data)) == self.payload_crc

    def payload(self, data):
        stored = self.stored(data)
        if self.compression == COMPRESSION_NONE:
            return stored
        try:
            # Read to the limit first: a frame may hold, and claim, thousands of times its own size.
            if len(zstandard.ZstdDecompressor().stream_reader(stored).read(MAX_BYTES + 1)) != self.raw_size:
                raise MalformedError("a payload of another size than its header says")
            frame = zstandard.ZstdDecompressor().decompressobj()
            raw = frame.decompress(stored)
        except zstandard.ZstdError as error:
            raise MalformedError("a payload that does not decompress") from error
        if not frame.eof or frame.unused_data:
            raise MalformedError("a payload that is not one whole frame")
        return raw


class Trace:
    """A trace file. Iterating delivers Header, Record and Discontinuity items in file order."""

    def __init__(self, name):
        self.name = name
        with open(name, "rb") as file:
            self.data = file.read()
        self.start = self.find_start()

    def find_start(self):
        """Where the blocks begin; 0 when the file's first bytes are damaged."""
        if len(self.data) >= FILE_START.size:
            magic, version, checksum = FILE_START.unpack_from(self.data)
            if magic == FILE_MAGIC and checksum == crc32c(self.data[:12]):
                if version != FORMAT_VERSION:
                    raise NotATraceError(f"{self.name}: format version {version} is not {FORMAT_VERSION}")
                return FILE_START.size
        if self.next_block(0) is None:
            raise NotATraceError(f"{self.name}: no trace file")
        return 0

    def next_block(self, offset):
        """The first whole block at or after `offset`, or None."""
        while (offset := self.data.find(BLOCK_MARKER, offset)) >= 0:
            block = Block.at(self.data, offset)
            if block and block.is_whole(self.data):
                return block
            offset += len(BLOCK_MARKER)
        return None

    def blocks(self):
        """The whole blocks, and how those that do not follow the one before them fail to."""
        offset, records, headers, before = self.start, 0, 0, None
        while block := self.next_block(offset):
            if found := self.discontinuity_before(block, offset, records, headers, before):
                found.record_number, found.header_number = records, headers
                found.context = self.context_at(block.offset)
                yield found
            yield block
            offset, records, headers = block.end, block.first_record + block.records, block.first_header + block.headers
            before = block
        ended = before and before.flags & FLAG_LAST
        if not ended or offset < len(self.data):
            found = self.damage_at_end(offset, ended)
            found.record_number, found.header_number = records, headers
            yield found

    @staticmethod
    def discontinuity_before(block, offset, records, headers, before):
        """What keeps a block from following `before`, which ends at `offset` with these numbers, or None."""
        skipped, lost = block.offset - offset, block.first_record - records
        jump = lost or block.first_header != headers
        loss = max(lost, 0), lost >= 0, max(block.first_header - headers, 0)
        if skipped:
            return Discontinuity(DAMAGE, offset, "damaged bytes", skipped, *loss)
        if before and before.flags & FLAG_LAST:  # whatever it counts, it need not count from here
            return Discontinuity(DAMAGE, offset, "a block follows the last one")
        if block.flags & FLAG_LEFT_OUT:
            return Discontinuity(LEFT_OUT, offset, "a recovery or a cut left out blocks", 0, *loss)
        if block.flags & FLAG_GAP:
            return Discontinuity(REFUSED, offset, "the writer had no room", 0, *loss)
        if jump:
            return Discontinuity(DAMAGE, offset, "missing blocks", 0, *loss)
        if block.flags & FLAG_COMMENT_BEFORE and not (before and before.is_comment_of(block)):
            return Discontinuity(DAMAGE, offset, "a missing comment block", 0, *loss)
        return None

    def damage_at_end(self, offset, ended):
        cut, size = Block.at(self.data, offset), len(self.data) - offset
        lost = (cut.records, False, cut.headers) if cut else ()
        if ended:
            return Discontinuity(DAMAGE, offset, "bytes after the last block", size, *lost)
        return Discontinuity(CUT_END, offset, "the file ends without its last block", size, *lost)

    def context_at(self, offset):
        """The open header that the block at a place restates, or the one after it when it is a comment block."""
        block = Block.at(self.data, offset)
        if block and block.flags & FLAG_COMMENT_BLOCK and block.is_whole(self.data):
            block = Block.at(self.data, block.end)
        if not block or block.flags & FLAG_COMMENT_BLOCK or not block.is_whole(self.data):
            return None
        try:
            return Payload(block.payload(self.data)).open_header
        except MalformedError:
            return None

    def __iter__(self):
        before = None  # the preceding block
        for block in self.blocks():
            if isinstance(block, Discontinuity):
                yield block
                continue
            if block.flags & FLAG_COMMENT_BLOCK:
                lost = self.damage_of_comment(block)
            else:
                lost = yield from self.items(block, self.comment_for(block, before))
            if lost:
                lost.context = self.context_at(block.end)
                yield lost
            before = None if lost else block

    def damage_of_comment(self, block):
        """The damage of a comment block, or None."""
        try:
            block.payload(self.data)
        except MalformedError as reason:
            return self.damage_of(block, reason)
        return None

    @staticmethod
    def damage_of(block, reason, records=0, headers=0):
        """The damage of a block of which so many items could be read."""
        lost = max(block.records - records, 0), True, max(block.headers - headers, 0)
        damage = Discontinuity(DAMAGE, block.offset, str(reason), block.end - block.offset, *lost)
        damage.record_number = block.first_record + min(records, block.records)
        damage.header_number = block.first_header + min(headers, block.headers)
        return damage

    def comment_for(self, block, before):
        """The comment that precedes a block, LOST_COMMENT, or None where none belongs to it."""
        if before and before.is_comment_of(block):
            return before.payload(self.data)
        return LOST_COMMENT if block.flags & FLAG_COMMENT_BEFORE else None

    def items(self, block, comment):
        """Delivers the items of a block up to where it is malformed. Returns the damage there, or None."""
        records = headers = 0
        try:
            known = bool(block.flags & FLAG_ADDRESS_KNOWN)
            payload = Payload(block.payload(self.data), block.first_address, known, comment)
            for item in payload:
                item.block_offset = block.offset
                if isinstance(item, Header):
                    item.number, item.record_number = block.first_header + headers, block.first_record + records
                    headers += 1
                else:
                    item.number, item.header_number = block.first_record + records, block.first_header + headers
                    records += 1
                if records > block.records or headers > block.headers:
                    raise MalformedError("more items than the block's header says")
                if isinstance(item, Header) and item.file_control & FILE_IAR and item.number:
                    yield self.pause_before(item, payload.open_header)
                yield item
            if records != block.records or headers != block.headers:
                raise MalformedError("fewer items than the block's header says")
        except MalformedError as reason:
            return self.damage_of(block, reason, records, headers)
        return None

    @staticmethod
    def pause_before(header, context):
        pause = Discontinuity(PAUSE, header.block_offset, "tracing was paused and resumed", records_known=True)
        pause.record_number, pause.header_number, pause.context = header.record_number, header.number, context
        return pause


# ---- Command line --------------------------------------------------------------------------------------


def is_before(item, first):
    """Whether an item precedes the records from number `first` on; what was lost directly before them does not."""
    match item:
        case Record():
            return item.number < first
        case Discontinuity():
            return item.record_number + item.records < first
    return item.record_number < first


def print_trace(name, arguments):
    """Prints a trace; tells whether something was lost."""
    printed, lost = 0, False
    for item in Trace(name):
        if is_before(item, arguments.first):
            continue
        if printed == arguments.count:
            break
        printed += isinstance(item, Record)
        if isinstance(item, Discontinuity) and item.is_damage:
            lost = True
            print(f"{name}: {item}", file=sys.stderr)
        print(json.dumps({"file": name, **item.for_json()}, separators=(",", ":")))
    return lost


def main():
    parser = argparse.ArgumentParser(description="prints trace files as JSON, one header or record a line")
    parser.add_argument("files", nargs="+", metavar="FILE")
    parser.add_argument("--from", dest="first", type=int, default=0, help="number of the first record, from 0")
    parser.add_argument("--count", type=int, default=-1, help="records to print, of each file")
    arguments = parser.parse_args()
    lost = failed = False
    for name in arguments.files:
        try:
            lost |= print_trace(name, arguments)
        except BrokenPipeError:
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # nobody reads on: end quietly
            return 0
        except (NotATraceError, OSError) as error:
            failed = True
            print(error, file=sys.stderr)
    return 1 if failed else 3 if lost else 0


if __name__ == "__main__":
    sys.exit(main())
