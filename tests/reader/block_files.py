"""Trace files by chance, with right checksums: blocks of the corpus whose payloads, counts, flags and numbers are
changed, put together in any order. Checksums keep other tests out of what such a block says."""
import random
import struct

import zstandard

from reader_agreement import plain

HEAD = struct.Struct("<4s4B4I3QI")
FILE_START = struct.pack("<8sI", plain.FILE_MAGIC, 1)
FILE_START += struct.pack("<I", plain.crc32c(FILE_START))
FLAGS = (1, 2, 4, 8, 16, 32, 16 | 64)
NUMBERS = (0, 1, 2, 1 << 32, (1 << 63) - 1, 1 << 63, (1 << 64) - 3, (1 << 64) - 1)


def blocks_of(paths):
    """The whole blocks of traces, each with its payload."""
    blocks = []
    for path in paths:
        data = path.read_bytes()
        offset = 0
        while (offset := data.find(plain.BLOCK_MARKER, offset)) >= 0:
            block = plain.Block.at(data, offset)
            offset += 1
            if block is None or not block.is_whole(data):
                continue
            try:
                blocks.append((block, bytes(block.payload(data))))
            except plain.MalformedError:
                pass
    return blocks


def encoded(chance, payload, flags, counts, numbers):
    """A block with this payload, compressed or not, and right checksums."""
    compressed = chance.random() < 0.3
    stored = zstandard.ZstdCompressor().compress(payload) if compressed else payload
    head = HEAD.pack(plain.BLOCK_MARKER, 1, flags, int(compressed), 0, len(stored), len(payload), *counts, *numbers,
                     plain.crc32c(stored))  # fmt: skip
    return head + struct.pack("<I", plain.crc32c(head)) + stored


def changed_payload(chance, payload):
    """Some bytes are other ones, are missing, or are twice there."""
    payload = bytearray(payload)
    for _ in range(chance.choice((0, 0, 1, 1, 2, 5))):
        if not payload:
            break
        # the sizes of the columns, most often of one that is used, or anything
        place = chance.randrange(min(40, len(payload))) if chance.random() < 0.2 else chance.randrange(len(payload))
        match chance.randrange(6):
            case 0:
                payload[place] ^= 1 << chance.randrange(8)
            case 1:
                payload[place] = chance.choice((0, 1, 127, 128, 255))
            case 2:
                del payload[place]
            case 3:
                payload.insert(place, payload[place])
            case _:
                payload[place] = chance.randrange(256)
    return bytes(payload)


def changed_block(chance, block, payload, before):
    """One block, its numbers those that follow `before` (records, headers), or others."""
    flags, counts = block.flags, [block.records, block.headers]
    while chance.random() < 0.25:
        flags ^= chance.choice(FLAGS)
    while chance.random() < 0.15:
        counts[chance.randrange(2)] = chance.choice((0, 1, 2, 3, 1000, (1 << 32) - 1))
    numbers = [*before, block.first_address]
    while chance.random() < 0.15:
        numbers[chance.randrange(3)] = chance.choice((*NUMBERS, min(before[0] + 1, plain.MASK64), max(before[0] - 1, 0)))
    return encoded(chance, changed_payload(chance, payload), flags, counts, numbers), numbers, counts


def block_file(seed, blocks):
    """A file of one to six blocks; now and then with other bytes between them."""
    chance = random.Random(seed)
    data, before = FILE_START if chance.random() < 0.95 else b"", (0, 0)
    first = chance.randrange(len(blocks))
    for i in range(chance.randint(1, 6)):
        # neighbours of the corpus belong together, as a comment block and its header do
        block, payload = blocks[(first + i) % len(blocks)] if chance.random() < 0.7 else chance.choice(blocks)
        one, numbers, counts = changed_block(chance, block, payload, before)
        data += one
        if chance.random() < 0.05:
            data += chance.randbytes(chance.randrange(80))
        comment = block.flags & plain.FLAG_COMMENT_BLOCK
        before = tuple(min(numbers[n] + (0 if comment else counts[n]), (1 << 64) - 1) for n in range(2))
    return data
