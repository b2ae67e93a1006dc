#include "processor.h"
#include "record_rows.h"

#include <type_traits>
#if defined(QT_AVX2)
#include <immintrin.h>
#endif

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
static_assert(std::size(RECORD_ROWS) <= Member_Set::CAPACITY);

// By byte of the control word and its value: a record's flags are looked up a byte at a time.
using Members_Of_Bytes = std::array<std::array<Member_Set, 256>, sizeof(control_word)>;
consteval Members_Of_Bytes members_of_control_bytes()
{
    const std::array<Member_Set, 64> members_of_bit = members_of_control_bits();
    Members_Of_Bytes members;
    for (size_t byte = 0; byte < members.size(); byte++)
        for (size_t value = 1; value < members[byte].size(); value++) {
            members[byte][value] = members[byte][value & (value - 1)];
            members[byte][value] |= members_of_bit[8 * byte + static_cast<size_t>(std::countr_zero(value))];
        }
    return members;
}
constexpr Members_Of_Bytes MEMBERS_OF_CONTROL_BYTE = members_of_control_bytes();

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

static Member_Set search_anywhere(const QTRACE_RECORD &record)
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

#if defined(QT_AVX2)
[[gnu::target("avx2")]] static inline __m256i wide_at(const uint8_t *bytes)
{
    return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(bytes));
}

[[gnu::target("avx2")]] static inline void add_piece(Member_Set &members, const uint8_t *bytes, size_t piece)
{
    const __m256i zero = _mm256_cmpeq_epi64(wide_at(bytes + piece_offset(piece)), _mm256_setzero_si256());
    auto words = static_cast<unsigned>(_mm256_movemask_pd(_mm256_castsi256_pd(zero))) ^ 0xF;
    for (; words != 0; words &= words - 1)
        members |= MEMBERS_OF_WORD[piece][static_cast<size_t>(std::countr_zero(words))];
}

// Four pieces at once are passed over where all are zero.
[[gnu::target("avx2")]] static Member_Set search_with_avx2(const QTRACE_RECORD &record)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
    Member_Set members;
    size_t piece = 0;
    for (; piece + 4 <= FRONT_PIECES; piece += 4) {
        const uint8_t *from = bytes + piece * PIECE;
        const __m256i any = _mm256_or_si256(_mm256_or_si256(wide_at(from), wide_at(from + PIECE)),
                                            _mm256_or_si256(wide_at(from + 2 * PIECE), wide_at(from + 3 * PIECE)));
        if (_mm256_testz_si256(any, any) == 0)
            for (size_t i = piece; i < piece + 4; i++)
                add_piece(members, bytes, i);
    }
    for (; piece < PIECES; piece++)
        add_piece(members, bytes, piece);
    return members;
}
#else
static constexpr auto search_with_avx2 = search_anywhere;
#endif

Member_Set maybe_filled(const QTRACE_RECORD &record)
{
    static Member_Set (*const search)(const QTRACE_RECORD &) = for_processor(search_with_avx2, search_anywhere);
    return search(record);
}

Member_Set gated_by(const Flag_Words &flags)
{
    Member_Set members;
    for (size_t byte = 0; byte < sizeof(flags.control); byte++)
        members |= MEMBERS_OF_CONTROL_BYTE[byte][flags.control >> 8 * byte & 0xFF];
    return members;
}

// The last bytes are read with some of those before them, so that there is no loop over single ones.
template <class Word> static bool is_zero_by(const uint8_t *bytes, size_t size)
{
    const auto at = [bytes](size_t offset) {
        Word word;
        std::memcpy(&word, bytes + offset, sizeof(word));
        return word;
    };
    Word any = at(size - sizeof(Word));
    for (size_t i = 0; i + sizeof(Word) < size; i += sizeof(Word))
        any |= at(i);
    if constexpr (std::is_integral_v<Word>)
        return any == 0;
    else
        return (any[0] | any[1]) == 0;
}

bool is_zero(const uint8_t *bytes, size_t size)
{
    using Pair = uint64_t __attribute__((vector_size(16)));
    if (size >= sizeof(Pair))
        return is_zero_by<Pair>(bytes, size);
    if (size >= sizeof(uint64_t))
        return is_zero_by<uint64_t>(bytes, size);
    if (size >= sizeof(uint32_t))
        return is_zero_by<uint32_t>(bytes, size);
    if (size >= sizeof(uint16_t))
        return is_zero_by<uint16_t>(bytes, size);
    return size == 0 || bytes[0] == 0;
}

template <class Number> static Number number_at(const uint8_t *bytes)
{
    Number number;
    std::memcpy(&number, bytes, sizeof(number));
    return number;
}

// Copies of a known length are single instructions.
uint64_t member_value(const Trace_Member &member, const uint8_t *bytes)
{
    uint64_t value = 0;
    switch (member.size) {
    case 1:
        return bytes[0];
    case 2:
        return number_at<uint16_t>(bytes);
    case 4:
        return number_at<uint32_t>(bytes);
    case QTRACE_VSID_LENGTH:
        std::memcpy(&value, bytes, QTRACE_VSID_LENGTH);
        return value;
    default:
        if (member.size >= sizeof(value))
            return number_at<uint64_t>(bytes);
        std::memcpy(&value, bytes, member.size);
        return value;
    }
}

Register_Entry register_entry(const Register_Class &kind, const QTRACE_REGISTERS &registers, unsigned i)
{
    const uint8_t *bytes = kind.entry(registers, i);
    const uint8_t *value = bytes + offsetof(QTRACE_REGISTER_INFO, value);
    return {number_at<uint16_t>(bytes),
            {number_at<uint64_t>(value), kind.words == 2 ? number_at<uint64_t>(value + sizeof(uint64_t)) : 0}};
}

} // namespace trace
