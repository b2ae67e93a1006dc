// What a record and a file header consist of: flags, members, registers. The rows themselves stand in record_rows.h;
// qtrace_schema.h is the same for C.
#pragma once

#include "qtrace_schema.h"
#include "qtrace_t.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace trace
{

// ---- Flags ---------------------------------------------------------------------------------------------

// The flag words of a record (`control`) or of a file header (`control` is its embedded control word, `file` its
// own). Of a control word, unit 0 is the lower half and unit 1 the upper.
struct Flag_Words {
    uint64_t control = 0;
    uint32_t file = 0;

    constexpr bool any_of(const Flag_Words &mask) const
    {
        return (control & mask.control) != 0 || (file & mask.file) != 0;
    }
    constexpr bool operator==(const Flag_Words &) const = default;
};

Flag_Words flags_of(const QTRACE_RECORD &record);
Flag_Words flags_of(const QTRACE_FILE_HDR &header);

enum class Flag_Role : uint8_t {
    gate = QTRACE_FLAG_GATE,               // says that members are filled
    mark = QTRACE_FLAG_MARK,               // says something by itself
    mode = QTRACE_FLAG_MODE,               // two bits: a translation mode
    header_only = QTRACE_FLAG_HEADER_ONLY, // a gate in file headers, meaningless in records
    unused = QTRACE_FLAG_UNUSED,           // no producer sets it
    reserved = QTRACE_FLAG_RESERVED
};

struct Trace_Flag {
    std::string_view name;
    uint8_t bit; // in Flag_Words::control, or in ::file
    uint8_t width;
    Flag_Role role;

    constexpr uint64_t mask() const { return ((uint64_t{1} << width) - 1) << bit; }
    uint64_t value(uint64_t word) const { return (word & mask()) >> bit; }
};

// Of a control word, and of the word of file headers; in the order of their bits.
extern const std::span<const Trace_Flag> CONTROL_FLAGS;
extern const std::span<const Trace_Flag> FILE_FLAGS;
// The same by bit. Every bit of the two words has its flag.
extern const std::array<const Trace_Flag *, 64> CONTROL_FLAG_OF_BIT, FILE_FLAG_OF_BIT;

// The translation mode of one level, in words: "radix", "hpt", "real", "none".
std::string_view mode_word(uint64_t mode);

// Translation modes as records carry them: two bits for the guest, two for the host.
enum Mode : uint8_t { MODE_RADIX, MODE_HASHED, MODE_REAL, MODE_NONE };

// Guest and host mode of an address.
struct Mode_Pair {
    uint8_t guest;
    uint8_t host;
    constexpr bool operator==(const Mode_Pair &) const = default;
    constexpr unsigned index() const { return unsigned{guest} * 4 + host; } // 0 to 15
    static constexpr Mode_Pair at(unsigned index)
    {
        return {static_cast<uint8_t>(index / 4), static_cast<uint8_t>(index % 4)};
    }
};

Mode_Pair instruction_modes(const control_word &control);
Mode_Pair data_modes(const control_word &control);

// ---- Members -------------------------------------------------------------------------------------------

// What a user picks with --fields, what `stats` sums up, what `diff` names.
enum class Field_Group : uint8_t {
    instruction,
    flags,
    node,
    processor,
    next_address,
    next_translation,
    next_walk,
    data_address,
    data_translation,
    data_walk,
    string,
    error,
    registers,
    header,
    unused
};
inline constexpr size_t FIELD_GROUPS = 15;

// Kinds of difference between two traces, as `diff` counts them.
enum class Difference : uint8_t {
    instruction,
    address,
    next_address,
    data_address,
    translation,
    registers,
    flags,
    header,
    missing
};
inline constexpr size_t DIFFERENCES = 9;

struct Group_Info {
    std::string_view name;
    Difference difference;
};
extern const std::array<Group_Info, FIELD_GROUPS> GROUPS; // indexed by Field_Group
extern const std::array<std::string_view, DIFFERENCES> DIFFERENCE_NAMES;

enum class Member_Shape : uint8_t {
    decimal = QTRACE_SHAPE_DECIMAL,
    hexadecimal = QTRACE_SHAPE_HEXADECIMAL,
    address = QTRACE_SHAPE_ADDRESS,
    vsid = QTRACE_SHAPE_VSID,
    host_walks = QTRACE_SHAPE_HOST_WALKS,
    host_addresses = QTRACE_SHAPE_HOST_ADDRESSES,
    guest_walk = QTRACE_SHAPE_GUEST_WALK,
    registers = QTRACE_SHAPE_REGISTERS,
    text = QTRACE_SHAPE_TEXT
};

// How a block carries a member of a record.
enum class Member_Coding : uint8_t {
    rare,   // escape-coded, and only when it is not zero
    small,  // among the small members, whatever the flags say
    common, // in a section of its own
    absent  // not at all: a pointer, or the library's bookkeeping
};

struct Trace_Member {
    std::string_view name;  // the member's own
    std::string_view label; // before its value in a text line
    uint16_t offset;
    uint16_t size;
    Member_Shape shape;
    Field_Group group;
    Flag_Words gate; // filled when one of these is set; none: always
    Member_Coding coding = Member_Coding::rare;

    template <class Structure> const uint8_t *at(const Structure &structure) const
    {
        return reinterpret_cast<const uint8_t *>(&structure) + offset;
    }
    bool gated() const { return !(gate == Flag_Words{}); }
};

// In the order in which a line shows them. Bit-fields that share bytes share a row.
extern const std::span<const Trace_Member> RECORD_MEMBERS;
extern const std::span<const Trace_Member> HEADER_MEMBERS;

const Trace_Member *find_record_member(std::string_view name);

// Some of the rows of RECORD_MEMBERS, by their place there.
class Member_Set
{
public:
    static constexpr size_t CAPACITY = 128;

    constexpr void add(size_t row) { words_[row / 64] |= bit(row); }
    constexpr Member_Set &operator|=(const Member_Set &other)
    {
        words_[0] |= other.words_[0];
        words_[1] |= other.words_[1];
        return *this;
    }
    constexpr Member_Set &operator&=(const Member_Set &other)
    {
        words_[0] &= other.words_[0];
        words_[1] &= other.words_[1];
        return *this;
    }
    // In ascending order.
    template <class Visitor> constexpr void for_each(Visitor visit) const
    {
        for (size_t word = 0; word < words_.size(); word++)
            for (uint64_t left = words_[word]; left != 0; left &= left - 1)
                visit(word * 64 + static_cast<size_t>(std::countr_zero(left)));
    }

private:
    static constexpr uint64_t bit(size_t row) { return uint64_t{1} << row % 64; }
    std::array<uint64_t, CAPACITY / 64> words_{};
};

// All members that are not zero, and a few that are: passes quickly over the many that a record does not fill.
// Registers count as filled when one of their counts is not zero.
Member_Set maybe_filled(const QTRACE_RECORD &record);
// The members that one of these flags gates.
Member_Set gated_by(const Flag_Words &flags);

bool is_zero(const uint8_t *bytes, size_t size);

// The value of a number (any shape that is one number), whatever its width.
uint64_t member_value(const Trace_Member &member, const uint8_t *bytes);
template <class Structure> uint64_t member_value(const Trace_Member &member, const Structure &structure)
{
    return member_value(member, member.at(structure));
}

inline uint64_t number(const uint8_t (&bytes)[8])
{
    uint64_t value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}
inline uint32_t number(const uint8_t (&bytes)[4])
{
    uint32_t value;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

// ---- Registers -----------------------------------------------------------------------------------------

// One class of registers in one direction.
struct Register_Class {
    std::string_view name;   // "gpr_in"
    std::string_view letter; // before the register number in a text line
    bool output;
    uint16_t count; // offset of the count in QTRACE_REGISTERS
    uint16_t array; // offset of the entries
    uint8_t capacity;
    uint8_t words; // 64-bit words a value has

    unsigned held(const QTRACE_REGISTERS &registers) const
    {
        return *(reinterpret_cast<const uint8_t *>(&registers) + count);
    }
    // Entries that the record has room for, whatever the count says.
    unsigned entries(const QTRACE_REGISTERS &registers) const
    {
        return held(registers) < capacity ? held(registers) : capacity;
    }
    const uint8_t *entry(const QTRACE_REGISTERS &registers, unsigned i) const
    {
        return reinterpret_cast<const uint8_t *>(&registers) + array + i * entry_size();
    }
    constexpr unsigned entry_size() const
    {
        return words == 1 ? sizeof(QTRACE_REGISTER_INFO) : sizeof(QTRACE_VMX_REGISTER_INFO);
    }
};

struct Register_Entry {
    uint16_t index;
    uint64_t value[2];
};
Register_Entry register_entry(const Register_Class &kind, const QTRACE_REGISTERS &registers, unsigned i);

extern const std::array<Register_Class, 10> REGISTER_CLASSES; // inputs, then outputs; as a line shows them

} // namespace trace
