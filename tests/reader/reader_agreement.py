"""Reads traces with the Python reader and with the C++ reader (by the program trace_items), and compares every item:
kinds, numbers, addresses, block offsets, the bytes of the structures, comments, discontinuities with their context."""
import itertools
import os
import struct
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../../python"))
from qtrace import plain  # noqa: E402

NUMBERS = struct.Struct("<6Q")
LOSS = struct.Struct("<4Q")
END, HEADER, RECORD, DISCONTINUITY, REFUSED = range(5)
CAUSES = ("pause", "refused", "left out", "damage", "cut end")


def cpp_items(program, name):
    """The C++ reader's items, each (numbers, image, comment); of a discontinuity the context's image, and more numbers."""
    with subprocess.Popen([program, name], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as process:
        while (numbers := NUMBERS.unpack(process.stdout.read(NUMBERS.size)))[0] != END:
            image, comment = b"", None
            if numbers[0] == HEADER:
                image = process.stdout.read(plain.HEADER_SIZE)
                if numbers[3]:
                    comment = process.stdout.read(int.from_bytes(image[336:338], "little"))
            elif numbers[0] == RECORD:
                image = process.stdout.read(plain.RECORD_SIZE)
            elif numbers[0] == DISCONTINUITY:
                comment = LOSS.unpack(process.stdout.read(LOSS.size))
                image = process.stdout.read(plain.HEADER_SIZE) if comment[3] else b""
            yield numbers, image, comment
        process.stdout.close()


def python_items(name):
    """The Python reader's items in the same form."""
    try:
        for item in plain.Trace(name):
            yield as_numbers(item)
    except plain.NotATraceError:
        yield (REFUSED, 0, 0, 0, 0, 0), b"", None


def as_numbers(item):
    if isinstance(item, plain.Header):
        numbers = (HEADER, item.number, item.record_number, item.comment is not None, 0, item.block_offset)
        return numbers, item.image(), item.comment
    if isinstance(item, plain.Record):
        known = item.address is not None
        numbers = (RECORD, item.number, item.header_number, item.address or 0, known, item.block_offset)
        return numbers, item.image(), None
    numbers = (DISCONTINUITY, item.offset, item.bytes, item.records, item.records_known, CAUSES.index(item.cause))
    more = (item.headers, item.record_number, item.header_number, item.context is not None)
    return numbers, item.context.image() if item.context else b"", more


def member_bits(kind):
    """The bits of an image that are not padding, pointers or bookkeeping, as one number."""
    bits = bytearray(kind.SIZE)
    ones = {name: (1 << 8 * shape.size) - 1 for name, _, shape in kind.MEMBERS} | plain.USED_BITS
    for name, offset, shape in kind.MEMBERS:
        bits[offset : offset + shape.size] = ones[name].to_bytes(shape.size, "little")
    if kind is plain.Record:
        bits[plain.COUNTS_OFFSET : plain.COUNTS_OFFSET + len(plain.REGISTER_LISTS)] = b"\xff" * 10
        for _, _, offset, room, words in plain.REGISTER_LISTS:
            entry = b"\xff\xff" + bytes(6) + b"\xff" * 8 * words
            bits[offset : offset + room * len(entry)] = entry * room
    return int.from_bytes(bits, "little")


MEMBER_BITS = {HEADER: member_bits(plain.Header), RECORD: member_bits(plain.Record)}
MEMBER_BITS[DISCONTINUITY] = MEMBER_BITS[HEADER]


def comparable(item):
    """An item without what means nothing: padding, and the address of a record whose address is not known."""
    numbers, image, comment = item
    if numbers[0] == RECORD and not numbers[4]:
        numbers = (*numbers[:3], 0, *numbers[4:])
    return numbers, int.from_bytes(image, "little") & MEMBER_BITS.get(numbers[0], 0), comment


def first_difference(program, name, count=None):
    """What differs first, as text, or None; and how many items were compared."""
    pairs = itertools.zip_longest(python_items(name), cpp_items(program, name))
    compared = 0
    for mine, other in itertools.islice(pairs, count):
        if mine is None or other is None or comparable(mine) != comparable(other):
            return f"{name}: item {compared}: {describe(mine, other)}", compared
        compared += 1
    return None, compared


def describe(mine, other):
    if mine is None or other is None or mine[0] != other[0]:
        return f"Python {mine and mine[0]}, C++ {other and other[0]}"
    places = [i for i, (a, b) in enumerate(zip(mine[1], other[1])) if a != b]
    return f"bytes {places[:10]} differ; comments or losses {mine[2]} and {other[2]}"
