// Layout of a trace file: a file start of 16 bytes, then blocks, each a block header of 56 bytes and its payload.
// docs/trace-format.md is the full description; widths and offsets stand there and here.
#pragma once

#include "trace_bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace trace
{

inline constexpr uint8_t FORMAT_VERSION = 1;
inline constexpr size_t MAX_PAYLOAD = 65536; // of a block: as encoded, and as stored

// ---- File start: magic (8 bytes), format version (4), CRC32C of these 12 (4) -------------------------------

inline constexpr size_t FILE_START_SIZE = 16;
inline constexpr std::array<uint8_t, 8> FILE_MAGIC = {0x8A, 'Q', 'T', 'R', 'A', 'C', 'E', 0x0A};

std::array<uint8_t, FILE_START_SIZE> file_start();

enum class Start_State { good, cut, other_version, damaged, not_a_trace };
// Judges the first `size` bytes of a file (16 are enough); `version` is what it names, when it can be read.
Start_State judge_file_start(const uint8_t *bytes, size_t size, uint32_t &version);

// ---- Block header -------------------------------------------------------------------------------------------

inline constexpr std::array<uint8_t, 4> BLOCK_MARKER = {0x8B, 'Q', 'B', 0x0A};
inline constexpr size_t BLOCK_HEADER_SIZE = 56;

enum Block_Flag : uint8_t {
    LAST_BLOCK = 1,     // the writer closed the file after it
    ADDRESS_KNOWN = 2,  // first_address means something
    COMMENT_BLOCK = 4,  // the payload is the comment of the first header of the next block
    COMMENT_BEFORE = 8, // the first header's comment is the payload of the comment block before it
    GAP_BEFORE = 16,    // what belongs before it is not in the file, on purpose: the numbers jump
    OPEN_END = 32,      // of the last block: a recovery or a cut closed the file; the trace went on
    LEFT_OUT = 64,      // with GAP_BEFORE: a recovery or a cut left it out; without, the writer refused it
    ALL_FLAGS = 127
};

enum Compression : uint8_t { STORED = 0, ZSTD = 1 };

struct Block_Header {
    uint8_t version = FORMAT_VERSION; // byte 4, of the payload's encoding
    uint8_t flags = 0;                // byte 5
    uint8_t compression = 0;          // byte 6
    uint32_t stored_size = 0;         // byte 8: payload in the file
    uint32_t raw_size = 0;            // byte 12: payload decompressed
    uint32_t records = 0;             // byte 16: in this block
    uint32_t headers = 0;             // byte 20
    uint64_t first_record = 0;        // byte 24: records in the file before this block
    uint64_t first_header = 0;        // byte 32
    uint64_t first_address = 0;       // byte 40: of the instruction of the block's first record
    uint32_t payload_crc = 0;         // byte 48: CRC32C of the stored payload
                                      // byte 52: CRC32C of bytes 0 to 51

    size_t size() const { return BLOCK_HEADER_SIZE + stored_size; }
    uint64_t records_after() const { return first_record + records; }
    uint64_t headers_after() const { return first_header + headers; }
    bool has(Block_Flag flag) const { return (flags & flag) != 0; }
    bool operator==(const Block_Header &) const = default;
};

// A block by its place in a file.
struct Block_Place {
    uint64_t offset = 0;
    Block_Header header;
    uint64_t end() const { return offset + header.size(); }
};

void store_block_header(const Block_Header &header, uint8_t *to);
// The header in these 56 bytes; nothing when they are none, or damaged.
std::optional<Block_Header> load_block_header(const uint8_t *from);

// Whether the comment of the block's first header is what this comment block holds: the numbers agree.
bool is_comment_of(const Block_Header &comment, const Block_Header &block);

uint32_t crc32c(const void *bytes, size_t size);

// ---- Payload: the sizes of the columns (4 bytes each), then the columns -------------------------------------

enum Column : uint8_t {
    COLUMN_OPEN,        // the open header
    COLUMN_OP,          // one or two bytes an item
    COLUMN_WORD,        // instruction words
    COLUMN_SHAPE,       // control words, register lists, small members
    COLUMN_NEXT,        // next addresses
    COLUMN_DATA,        // data addresses
    COLUMN_TRANSLATION, // translations
    COLUMN_KIND,        // how values are coded
    COLUMN_VALUE,       // values
    COLUMN_EXTRA,       // file headers, and rare members
    COLUMNS
};
inline constexpr size_t COLUMN_SIZES = 4 * COLUMNS;

// Bits of the first byte of an item in COLUMN_OP.
enum Op : uint8_t {
    OP_WORD = 1,
    OP_CONTROL = 2,
    OP_LIST = 4,
    OP_MEMBERS = 8,
    OP_NEXT = 16,
    OP_DATA = 32,
    OP_INPUTS = 64,
    OP_MORE = 128 // a second byte follows
};

enum More : uint8_t {
    MORE_HEADER = 1,
    MORE_ESCAPE = 2,
    MORE_DATA_TRANSLATION = 4,
    MORE_NEXT_TRANSLATION = 8,
    ALL_MORE = 15
};

// How a value is coded in COLUMN_KIND; those with bytes have them in COLUMN_VALUE.
enum Value_Kind : uint8_t {
    VALUE_REGISTER,   // the register's last value
    VALUE_DISTANCE,   // last input + the shape's distance
    VALUE_MEMORY,     // what was last at `near`
    VALUE_SHAPE,      // the shape's first output
    VALUE_SUM,        // previous input + last input
    VALUE_DIFFERENCE, // last input - previous input
    VALUE_AND,        // of the two
    VALUE_OR,
    VALUE_XOR,
    VALUE_LITERAL,            // 9 to 17: 0 to 8 bytes, unsigned
    VALUE_FROM_REGISTER = 18, // 18 to 25: 1 to 8 bytes, signed, added to the register's last value
    VALUE_FROM_INPUT = 26,    // 26 to 33: to the last input
    VALUE_FROM_NEAR = 34,     // 34 to 41: to `near`
    VALUE_KINDS = 42
};

// Comments in a header item: none, in the block, in the block before it.
enum Comment_Place : uint8_t { NO_COMMENT, COMMENT_HERE, COMMENT_IN_FRONT };
inline constexpr size_t MAX_COMMENT_IN_BLOCK = 16384;

} // namespace trace
