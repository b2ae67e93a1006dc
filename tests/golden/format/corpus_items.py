"""Headers and records as the corpus puts them in: their images and JSON lines. Names, offsets and sizes come from
docs/trace-format.md, flags from the declaration of the structures; nothing comes from a reader."""

import pathlib
import re
import struct

ROOT = pathlib.Path(__file__).parents[3]
PAGE = (ROOT / "docs/trace-format.md").read_text(encoding="utf-8")
DECLARATION = (ROOT / "qtrace/src/qtrace_t.h").read_text(encoding="utf-8")

FILE_MAGIC = bytes.fromhex(re.search(r"\| magic: `([0-9A-F ]+)`", PAGE)[1])
BLOCK_MARKER = bytes.fromhex(re.search(r"\| marker: `([0-9A-F ]+)`", PAGE)[1])
RECORD_SIZE = int(re.search(r"The image of a record \((\d+) bytes\)", PAGE)[1])
HEADER_SIZE = 368
VALIDITY = "validity_bits"  # ten bit-fields that share bytes
USED_BITS = {VALIDITY: 0x3FF, "iar_segment_size_is_valid": 1}
DECIMAL_WORDS = ("is_speculative", "itype", "pid", "app_spec_data_length")  # smaller members are decimal, too
RENAMED = {"control": "file_control", "sec_ext_controlword.instruction": "instruction",
           "sec_ext_controlword.control": "control"}  # fmt: skip
# In a walk block: bytes of a member, words of it that stand in one row; no row: a number.
WALK_BLOCK = (("_hRTW_depth", 1, 0), ("_hRTW_num_level", 1, 0), ("_hRTW", 160, 4), ("_hRTW_host_RA", 32, 4),
              ("_gRTW", 48, 6), ("_rpn", 4, 0))  # fmt: skip
COUNTS_OFFSET = 1352
JSON_ORDER = [f"{file}_{way}" for way in ("in", "out") for file in ("gpr", "fpr", "spr", "vmxr", "vsxr")]


class Member:
    def __init__(self, name, offset, size, row=0):
        self.name, self.offset, self.size, self.row = name, offset, size, row
        self.zero = (0,) * (size // 8) if row else 0

    def put(self, image, value):
        words = value if self.row else (value,)
        size = 8 if self.row else self.size
        for i, word in enumerate(words):
            image[self.offset + i * size : self.offset + (i + 1) * size] = word.to_bytes(size, "little")

    def shown(self, value):
        if not self.row:
            return value if self.size <= 2 or self.name in DECIMAL_WORDS else hex(value)
        rows = [[*map(hex, value[i : i + self.row])] for i in range(0, len(value), self.row) if any(value[i:])]
        return rows if len(value) > self.row else rows[0]


def offsets_in(cell):
    numbers = [*map(int, re.findall(r"\d+", cell))]
    return [*range(numbers[0], numbers[1] + 1)] if " to " in cell else numbers


def walk_block(name, offset):
    for member, size, row in WALK_BLOCK:
        yield Member(name + member, offset, size, row)
        offset += size


def members_in(table, renamed):
    """The members of a table of offsets, without pointers."""
    for offset_cell, size_cell, text in re.findall(r"^\| ([\d, to]+) \| (\d+)(?: each)? \| (.*) \|$", table, re.M):
        offsets, names = offsets_in(offset_cell), re.findall(r"`([\w.]+)`", text.split(";")[0])
        if "pointer" in text:
            continue
        if "walk block" in text:
            yield from walk_block(names[0], offsets[0])
        elif text.startswith("bits"):
            yield Member(VALIDITY, offsets[0], 2)
        else:
            for name, offset in zip(names, offsets):
                name = renamed.get(name, name).removeprefix("header.")
                yield Member(name, offset, int(size_cell))


def register_lists(table):
    """By number: name of the entries, name of the count, offset of the entries, room, 64-bit words of a value."""
    found = re.findall(r"^\| (\d+) \| \d+ \| `(\w+_(?:in|out))`(?:: (\d+) (?:entries )?of (\d+))?", table, re.M)
    forms = {name.split("_")[0]: (int(room), int(size)) for _, name, room, size in found if room}
    for offset, name, _, _ in found:
        file, way = name.split("_")
        yield name, f"num_{file}s_{way}", int(offset), forms[file][0], forms[file][1] // 8 - 1


RECORD_TABLE, HEADER_TABLE = PAGE.split("| Offset | Size | Member |")[1:3]
RECORD_MEMBERS = [*members_in(RECORD_TABLE.split(f"| {COUNTS_OFFSET} |")[0], {})]  # then registers and bookkeeping
HEADER_MEMBERS = [*members_in(HEADER_TABLE.split("\n\n")[0], RENAMED)]
REGISTER_LISTS = [*register_lists(RECORD_TABLE.split("\n\n")[0])]
ENTRY = {1: struct.Struct("<H6xQ"), 2: struct.Struct("<H6xQQ")}  # by words of a value


def flags_between(first, last):
    """Name, first bit and width of the bit-fields from one name to another, in their order."""
    fields = re.findall(r"(\w+) : (\d+);", DECLARATION)
    names = [name for name, _ in fields]
    begin = names.index(first)
    bit, flags = 0, []
    for name, width in fields[begin : names.index(last, begin) + 1]:
        flags.append((name, bit, int(width)))
        bit += int(width)
    return [*flags, ("_unused_16_31", bit, 16)]


CONTROL_FLAGS = flags_between("_secondary_extended_reserved_11_15", "iar_change_present")
FILE_FLAGS = flags_between("app_spec_data_present", "magic_number_present")


def flags_of(word, flags):
    values = {name: word >> bit & (1 << width) - 1 for name, bit, width in flags}
    return {name: value for name, value in values.items() if value}


class Item:
    """Members that were not given are zero."""

    def __init__(self, members, size, values):
        self.members, self.size = members, size
        for member in members:
            setattr(self, member.name, member.zero)
        vars(self).update(values)

    def image(self):
        image = bytearray(self.size)
        for member in self.members:
            member.put(image, getattr(self, member.name))
        return image

    def shown_members(self, without):
        return {member.name: member.shown(getattr(self, member.name)) for member in self.members
                if member.name not in without and getattr(self, member.name) != member.zero}  # fmt: skip


class Header(Item):
    comment = None

    def __init__(self, **values):
        super().__init__(HEADER_MEMBERS, HEADER_SIZE, values)

    def for_json(self):
        line = {"header": self.number, "before_record": self.record_number}
        line |= flags_of(self.file_control, FILE_FLAGS) | flags_of(self.control, CONTROL_FLAGS)
        line |= self.shown_members(("file_control", "control"))
        return line if self.comment is None else line | {"comment": self.comment.decode("latin-1")}


class Record(Item):
    address = None

    def __init__(self, **values):
        super().__init__(RECORD_MEMBERS, RECORD_SIZE, {row[0]: () for row in REGISTER_LISTS}
                         | {row[1]: 0 for row in REGISTER_LISTS} | values)  # fmt: skip

    def image(self):
        image = super().image()
        for i, (name, count, offset, _, words) in enumerate(REGISTER_LISTS):
            image[COUNTS_OFFSET + i] = getattr(self, count)
            for at, entry in enumerate(getattr(self, name)):
                ENTRY[words].pack_into(image, offset + at * ENTRY[words].size, *entry)
        return image

    def for_json(self):
        line = {"record": self.number} | ({} if self.address is None else {"address": hex(self.address)})
        line |= flags_of(self.control, CONTROL_FLAGS) | self.shown_members(("control",))
        room = {name: (count, most) for name, count, _, most, _ in REGISTER_LISTS}
        for name in JSON_ORDER:
            held = getattr(self, room[name][0])
            if held:
                line[name] = [[number, *map(hex, values)] for number, *values in getattr(self, name)[:held]]
            if held > room[name][1]:
                line[name + "_count"] = held
        return line


def crc32c(data):
    """Bit by bit; the polynomial 0x1EDC6F41 reversed."""
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF
