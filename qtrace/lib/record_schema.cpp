#include "record_rows.h"

namespace trace
{
namespace
{

using rows::CONTROL_TABLE;
using rows::FILE_TABLE;
using rows::RECORD_ROWS;

consteval std::array<const Trace_Flag *, 64> by_bit(std::span<const Trace_Flag> rows)
{
    std::array<const Trace_Flag *, 64> flags{};
    for (const Trace_Flag &row : rows)
        for (unsigned bit = row.bit; bit < row.bit + row.width; bit++)
            flags[bit] = &row;
    return flags;
}
constexpr uint64_t bits_of(std::span<const Trace_Flag> rows)
{
    uint64_t bits = 0;
    for (const Trace_Flag &row : rows)
        bits |= row.mask();
    return bits;
}
static_assert(bits_of(CONTROL_TABLE) == ~uint64_t{0} && bits_of(FILE_TABLE) == ~uint32_t{0});

} // namespace

const std::span<const Trace_Flag> CONTROL_FLAGS{CONTROL_TABLE};
const std::span<const Trace_Flag> FILE_FLAGS{FILE_TABLE};
constinit const std::array<const Trace_Flag *, 64> CONTROL_FLAG_OF_BIT = by_bit(CONTROL_TABLE);
constinit const std::array<const Trace_Flag *, 64> FILE_FLAG_OF_BIT = by_bit(FILE_TABLE);
const std::span<const Trace_Member> RECORD_MEMBERS{RECORD_ROWS};
const std::span<const Trace_Member> HEADER_MEMBERS{rows::HEADER_ROWS};

const std::array<Group_Info, FIELD_GROUPS> GROUPS = {{
    {"instruction", Difference::instruction},
    {"flags", Difference::flags},
    {"node", Difference::flags},
    {"processor", Difference::flags},
    {"next-address", Difference::next_address},
    {"next-translation", Difference::translation},
    {"next-walk", Difference::translation},
    {"data-address", Difference::data_address},
    {"data-translation", Difference::translation},
    {"data-walk", Difference::translation},
    {"string", Difference::flags},
    {"error", Difference::flags},
    {"registers", Difference::registers},
    {"header", Difference::header},
    {"unused", Difference::flags},
}};

const std::array<std::string_view, DIFFERENCES> DIFFERENCE_NAMES = {
    "instruction", "address", "next-address", "data-address", "translation",
    "registers",   "flags",   "header",       "missing",
};

const std::array<Register_Class, 10> REGISTER_CLASSES = rows::REGISTER_ROWS;

static uint64_t control_bits(const control_word &control)
{
    uint64_t bits;
    std::memcpy(&bits, &control, sizeof(bits));
    return bits;
}

Flag_Words flags_of(const QTRACE_RECORD &record)
{
    return {control_bits(record.header.control), 0};
}

Flag_Words flags_of(const QTRACE_FILE_HDR &header)
{
    uint32_t file;
    std::memcpy(&file, &header.control, sizeof(file));
    return {control_bits(header.sec_ext_controlword.control), file};
}

std::string_view mode_word(uint64_t mode)
{
    static constexpr std::string_view WORDS[] = {"radix", "hpt", "real", "none"};
    return WORDS[mode & 3];
}

Mode_Pair instruction_modes(const control_word &control)
{
    return {static_cast<uint8_t>(control.fld.guest_xlate_mode_instruction),
            static_cast<uint8_t>(control.fld.host_xlate_mode_instruction)};
}

Mode_Pair data_modes(const control_word &control)
{
    return {static_cast<uint8_t>(control.fld.guest_xlate_mode_data),
            static_cast<uint8_t>(control.fld.host_xlate_mode_data)};
}

const Trace_Member *find_record_member(std::string_view name)
{
    const auto row = std::ranges::find(RECORD_MEMBERS, name, &Trace_Member::name);
    return row == RECORD_MEMBERS.end() ? nullptr : &*row;
}

// ---- Filled members ------------------------------------------------------------------------------------

namespace
{

// A record is looked at word by word in two places: up to the register entries, whose counts say enough, and after
// them. Most words are zero, and so four are passed over at once.
constexpr size_t WORD = sizeof(uint64_t);
constexpr size_t PIECE = 4 * WORD;
constexpr size_t ENTRIES = offsetof(QTRACE_RECORD, regs) + offsetof(QTRACE_REGISTERS, spr_out);
constexpr size_t FRONT_PIECES = (ENTRIES + PIECE - 1) / PIECE;
constexpr size_t PIECES = FRONT_PIECES + 1;
constexpr size_t LAST_PIECE = offsetof(QTRACE_RECORD, offset);
static_assert(PIECES <= 64);
static_assert(LAST_PIECE + PIECE == sizeof(QTRACE_RECORD));

constexpr size_t piece_offset(size_t piece)
{
    return piece < FRONT_PIECES ? piece * PIECE : LAST_PIECE;
}

using Member_Words = std::array<std::array<Member_Set, PIECE / WORD>, PIECES>;
consteval Member_Words members_of_words()
{
    Member_Words members;
    for (size_t piece = 0; piece < PIECES; piece++)
        for (size_t row = 0; row < std::size(RECORD_ROWS); row++)
            for (size_t word = 0; word < PIECE / WORD; word++) {
                const size_t begin = piece_offset(piece) + word * WORD;
                if (RECORD_ROWS[row].offset < begin + WORD &&
                    RECORD_ROWS[row].offset + RECORD_ROWS[row].size > begin)
                    members[piece][word].add(row);
            }
    return members;
}

constexpr Member_Words MEMBERS_OF_WORD = members_of_words();

consteval std::array<Member_Set, 64> members_of_control_bits()
{
    std::array<Member_Set, 64> members;
    for (size_t row = 0; row < std::size(RECORD_ROWS); row++)
        for (size_t bit = 0; bit < 64; bit++)
            if ((RECORD_ROWS[row].gate.control >> bit & 1) != 0)
                members[bit].add(row);
    return members;
}
constexpr std::array<Member_Set, 64> MEMBERS_OF_CONTROL_BIT = members_of_control_bits();
static_assert(std::size(RECORD_ROWS) <= Member_Set::CAPACITY);

} // namespace

static uint64_t word_at(const uint8_t *bytes)
{
    uint64_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

static uint64_t any_of_piece(const uint8_t *bytes)
{
    const uint64_t any =
        word_at(bytes) | word_at(bytes + WORD) | word_at(bytes + 2 * WORD) | word_at(bytes + 3 * WORD);
    return any != 0 ? 1 : 0;
}

Member_Set maybe_filled(const QTRACE_RECORD &record)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    uint64_t pieces = any_of_piece(bytes + LAST_PIECE) << FRONT_PIECES;
    for (size_t piece = 0; piece < FRONT_PIECES; piece++)
        pieces |= any_of_piece(bytes + piece * PIECE) << piece;
    Member_Set members;
    for (; pieces != 0; pieces &= pieces - 1) {
        const auto piece = static_cast<size_t>(std::countr_zero(pieces));
        for (size_t word = 0; word < PIECE / WORD; word++)
            if (word_at(bytes + piece_offset(piece) + word * WORD) != 0)
                members |= MEMBERS_OF_WORD[piece][word];
    }
    return members;
}

Member_Set gated_by(const Flag_Words &flags)
{
    Member_Set members;
    for (uint64_t left = flags.control; left != 0; left &= left - 1)
        members |= MEMBERS_OF_CONTROL_BIT[static_cast<size_t>(std::countr_zero(left))];
    return members;
}

bool is_zero(const uint8_t *bytes, size_t size)
{
    uint64_t any = 0;
    size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        uint64_t word;
        std::memcpy(&word, bytes + i, 8);
        any |= word;
    }
    for (; i < size; i++)
        any |= bytes[i];
    return any == 0;
}

uint64_t member_value(const Trace_Member &member, const uint8_t *bytes)
{
    uint64_t value = 0;
    std::memcpy(&value, bytes, member.size < 8 ? member.size : 8);
    return value;
}

Register_Entry register_entry(const Register_Class &kind, const QTRACE_REGISTERS &registers, unsigned i)
{
    const uint8_t *bytes = kind.entry(registers, i);
    Register_Entry entry{};
    std::memcpy(&entry.index, bytes, sizeof(entry.index));
    std::memcpy(entry.value, bytes + offsetof(QTRACE_REGISTER_INFO, value), kind.words * sizeof(uint64_t));
    return entry;
}

} // namespace trace
