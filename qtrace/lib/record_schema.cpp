#include "record_schema.h"

#include <algorithm>
#include <stdexcept>

namespace trace
{
namespace
{

using enum Flag_Role;

constexpr Trace_Flag CONTROL_ROWS[] = {
    // unit 0
    {"_secondary_extended_reserved_11_15", 0, 5, reserved},
    {"pid_is_present", 5, 1, header_only},
    {"lpid_is_present", 6, 1, header_only},
    {"ptcr_is_present", 7, 1, header_only},
    {"guest_xlate_mode_instruction", 8, 2, mode},
    {"host_xlate_mode_instruction", 10, 2, mode},
    {"guest_xlate_mode_data", 12, 2, mode},
    {"host_xlate_mode_data", 14, 2, mode},
    {"secondary_extender_present", 16, 1, mark},
    {"file_header_present", 17, 1, unused},
    {"data_gpage_size_present", 18, 1, gate},
    {"instruction_gpage_size_present", 19, 1, gate},
    {"secondary_data_page_size_present", 20, 1, unused},
    {"sequential_instruction_page_size_present", 21, 1, unused},
    {"data_segment_size_present", 22, 1, unused},
    {"next_instruction_segment_size_present", 23, 1, unused},
    {"data_page_size_present", 24, 1, gate},
    {"next_instruction_page_size_present", 25, 1, gate},
    {"_extended_length_bit", 26, 1, unused},
    {"trace_alteration_flag_present", 27, 1, unused},
    {"trace_error_code_present", 28, 1, gate},
    {"exception_code_present", 29, 1, unused},
    {"sequential_instruction_RPN_present", 30, 1, unused},
    {"secondary_data_RPN_present", 31, 1, unused},
    // unit 1
    {"_extender_present", 32, 1, unused},
    {"_reserved_14", 33, 1, reserved},
    {"_reserved_13", 34, 1, reserved},
    {"register_trace_present", 35, 1, gate},
    {"next_instruction_RPN_present", 36, 1, gate},
    {"next_instruction_VSID_present", 37, 1, gate},
    {"next_instruction_EA_present", 38, 1, gate},
    {"data_present", 39, 1, unused},
    {"length_present", 40, 1, gate},
    {"data_RPN_present", 41, 1, gate},
    {"data_VSID_present", 42, 1, gate},
    {"data_address_present", 43, 1, gate},
    {"processor_present", 44, 1, gate},
    {"termination_present", 45, 1, gate},
    {"node_present", 46, 1, gate},
    {"iar_change_present", 47, 1, mark},
    {"_unused_16_31", 48, 16, reserved},
};

constexpr Trace_Flag FILE_ROWS[] = {
    {"app_spec_data_present", 0, 1, unused},   {"comment_present", 1, 1, gate},
    {"persistent_data_present", 2, 1, unused}, {"_reserved_12", 3, 1, reserved},
    {"iar_gpage_size_is_present", 4, 1, gate}, {"processor_id_is_present", 5, 1, unused},
    {"iar_page_size_is_present", 6, 1, gate},  {"iar_segment_size_is_present", 7, 1, unused},
    {"barrier_synchronization", 8, 1, unused}, {"asr_is_present", 9, 1, unused},
    {"sdr1_is_present", 10, 1, gate},          {"iar_rpn_is_present", 11, 1, gate},
    {"iar_vsid_is_present", 12, 1, gate},      {"iar_is_present", 13, 1, gate},
    {"version_number_present", 14, 1, mark},   {"magic_number_present", 15, 1, unused},
    {"_unused_16_31", 16, 16, reserved},
};

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
static_assert(bits_of(CONTROL_ROWS) == ~uint64_t{0} && bits_of(FILE_ROWS) == ~uint32_t{0});

consteval uint64_t mask_in(std::span<const Trace_Flag> rows, std::string_view name)
{
    for (const Trace_Flag &row : rows)
        if (row.name == name)
            return row.mask();
    throw std::logic_error("no such flag");
}

// The gate of a member: a flag of the control word, or of the word of file headers.
consteval Flag_Words when(std::string_view flag)
{
    return {mask_in(CONTROL_ROWS, flag), 0};
}
consteval Flag_Words when_file(std::string_view flag)
{
    return {0, static_cast<uint32_t>(mask_in(FILE_ROWS, flag))};
}

constexpr Flag_Words ALWAYS{};

using enum Member_Shape;
using Group = Field_Group;

#define IN_RECORD(member)  #member, offsetof(QTRACE_RECORD, member), sizeof(QTRACE_RECORD::member)
#define IN_HEADER(member)  #member, offsetof(QTRACE_FILE_HDR, member), sizeof(QTRACE_FILE_HDR::member)
// (the place of a member expands to three arguments)
#define MEMBER(place, ...) MEMBER_ROW(place, __VA_ARGS__)
#define MEMBER_ROW(name, offset, size, label, ...)                                                                 \
    {                                                                                                              \
        name, label, static_cast<uint16_t>(offset), static_cast<uint16_t>(size), __VA_ARGS__                       \
    }

// A block of one address's translation, behind the address itself.
#define WALK_ROWS(in, block, group, gate)                                                                          \
    MEMBER(in(block##_hRTW_depth), "guest-depth", decimal, group, gate),                                           \
        MEMBER(in(block##_hRTW_num_level), "host-depth", decimal, group, gate),                                    \
        MEMBER(in(block##_hRTW), "host-walks", host_walks, group, gate),                                           \
        MEMBER(in(block##_hRTW_host_RA), "host-addresses", host_addresses, group, gate),                           \
        MEMBER(in(block##_gRTW), "guest-walk", guest_walk, group, gate)

constexpr Trace_Member RECORD_ROWS[] = {
    {"instruction", "", 0, 4, hexadecimal, Group::instruction, ALWAYS},
    MEMBER(IN_RECORD(node), "node", decimal, Group::node, when("node_present")),
    MEMBER(IN_RECORD(termination_node), "ends-at", decimal, Group::node, when("termination_present")),
    MEMBER(IN_RECORD(termination_code), "end", decimal, Group::node, when("termination_present")),
    MEMBER(IN_RECORD(processor), "processor", decimal, Group::processor, when("processor_present")),
    MEMBER(IN_RECORD(next_instruction_ea), "next", address, Group::next_address,
           when("next_instruction_EA_present")),
    MEMBER(IN_RECORD(next_instruction_vsid), "vsid", vsid, Group::next_translation,
           when("next_instruction_VSID_present")),
    MEMBER(IN_RECORD(next_instruction_rpn), "rpn", hexadecimal, Group::next_translation,
           when("next_instruction_RPN_present")),
    MEMBER(IN_RECORD(next_instruction_page_size), "page", decimal, Group::next_translation,
           when("next_instruction_page_size_present")),
    MEMBER(IN_RECORD(next_instruction_gpage_size), "guest-page", decimal, Group::next_translation,
           when("instruction_gpage_size_present")),
    WALK_ROWS(IN_RECORD, next_instruction, Group::next_walk, when("next_instruction_EA_present")),
    MEMBER(IN_RECORD(data_ea), "data", address, Group::data_address, when("data_address_present")),
    MEMBER(IN_RECORD(data_vsid), "vsid", vsid, Group::data_translation, when("data_VSID_present")),
    MEMBER(IN_RECORD(data_rpn), "rpn", hexadecimal, Group::data_translation, when("data_RPN_present")),
    MEMBER(IN_RECORD(data_page_size), "page", decimal, Group::data_translation, when("data_page_size_present")),
    MEMBER(IN_RECORD(data_gpage_size), "guest-page", decimal, Group::data_translation,
           when("data_gpage_size_present")),
    WALK_ROWS(IN_RECORD, data, Group::data_walk, when("data_address_present")),
    MEMBER(IN_RECORD(length), "length", decimal, Group::string, when("length_present")),
    MEMBER(IN_RECORD(error_code), "error", decimal, Group::error, when("trace_error_code_present")),
    MEMBER(IN_RECORD(regs), "", registers, Group::registers, when("register_trace_present")),
    // what no producer fills
    MEMBER(IN_RECORD(iar), "iar", address, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_vsid), "iar-vsid", vsid, Group::unused, ALWAYS),
    WALK_ROWS(IN_RECORD, iar, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_rpn), "iar-rpn", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_segment_size), "iar-segment", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_page_size), "iar-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_gpage_size), "iar-guest-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(is_speculative), "speculative", decimal, Group::unused, ALWAYS),
    {"validity_bits", "valid", offsetof(QTRACE_RECORD, is_speculative) + 4, 2, decimal, Group::unused, ALWAYS},
    MEMBER(IN_RECORD(itype), "itype", decimal, Group::unused, ALWAYS),
    {"iar_segment_size_is_valid", "iar-segment-valid", offsetof(QTRACE_RECORD, itype) + 4, 1, decimal,
     Group::unused, ALWAYS},
    WALK_ROWS(IN_RECORD, secondary_data, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(secondary_data_rpn), "secondary-rpn", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(data), "bytes", hexadecimal, Group::unused, ALWAYS),
    WALK_ROWS(IN_RECORD, sequential_instruction, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(sequential_instruction_rpn), "sequential-rpn", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(exception_code), "exception", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(trace_alteration_code), "alteration", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(next_instruction_segment_size), "next-segment", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(data_segment_size), "data-segment", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(sequential_instruction_page_size), "sequential-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(sequential_instruction_gpage_size), "sequential-guest-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(secondary_data_page_size), "secondary-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(secondary_data_gpage_size), "secondary-guest-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(file_header), "file-header", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(persistent_data), "persistent", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(offset), "offset", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(record_count), "record-count", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(instr_count), "instr-count", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(exec_instr_count), "exec-instr-count", hexadecimal, Group::unused, ALWAYS),
};

constexpr Trace_Member HEADER_ROWS[] = {
    MEMBER(IN_HEADER(iar), "address", address, Group::header, when_file("iar_is_present")),
    MEMBER(IN_HEADER(iar_vsid), "vsid", vsid, Group::header, when_file("iar_vsid_is_present")),
    MEMBER(IN_HEADER(iar_rpn), "rpn", hexadecimal, Group::header, when_file("iar_rpn_is_present")),
    MEMBER(IN_HEADER(iar_page_size), "page", decimal, Group::header, when_file("iar_page_size_is_present")),
    MEMBER(IN_HEADER(iar_gpage_size), "guest-page", decimal, Group::header, when_file("iar_gpage_size_is_present")),
    WALK_ROWS(IN_HEADER, iar, Group::header, when_file("iar_is_present")),
    MEMBER(IN_HEADER(ptcr), "ptcr", hexadecimal, Group::header, when("ptcr_is_present")),
    MEMBER(IN_HEADER(lpid), "lpid", hexadecimal, Group::header, when("lpid_is_present")),
    MEMBER(IN_HEADER(pid), "pid", decimal, Group::header, when("pid_is_present")),
    MEMBER(IN_HEADER(sdr1), "sdr1", hexadecimal, Group::header, when_file("sdr1_is_present")),
    MEMBER(IN_HEADER(comment_length), "comment-length", decimal, Group::header, when_file("comment_present")),
    MEMBER(IN_HEADER(comment), "comment", text, Group::header, when_file("comment_present")),
    // what no producer fills; `version` may carry the number that the library supplied
    MEMBER(IN_HEADER(magic), "magic", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_HEADER(version), "version", hexadecimal, Group::header, when_file("version_number_present")),
    MEMBER(IN_HEADER(iar_segment_size), "segment", decimal, Group::unused, ALWAYS),
    MEMBER(IN_HEADER(asr), "asr", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_HEADER(processor_id), "processor", decimal, Group::unused, ALWAYS),
    MEMBER(IN_HEADER(persistent_data_field), "persistent-field", decimal, Group::unused, ALWAYS),
    MEMBER(IN_HEADER(persistent_data_length), "persistent-length", decimal, Group::unused, ALWAYS),
    MEMBER(IN_HEADER(persistent_data), "persistent", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_HEADER(app_spec_data_length), "application-length", decimal, Group::unused, ALWAYS),
};

#define REGISTERS(kind, letter, direction, output, limit, words)                                                   \
    {                                                                                                              \
#kind "_" #direction, letter, output, offsetof(QTRACE_REGISTERS, num_##kind##s_##direction),               \
            offsetof(QTRACE_REGISTERS, kind##_##direction), limit, words                                           \
    }

} // namespace

const std::span<const Trace_Flag> CONTROL_FLAGS{CONTROL_ROWS};
const std::span<const Trace_Flag> FILE_FLAGS{FILE_ROWS};
constinit const std::array<const Trace_Flag *, 64> CONTROL_FLAG_OF_BIT = by_bit(CONTROL_ROWS);
constinit const std::array<const Trace_Flag *, 64> FILE_FLAG_OF_BIT = by_bit(FILE_ROWS);
const std::span<const Trace_Member> RECORD_MEMBERS{RECORD_ROWS};
const std::span<const Trace_Member> HEADER_MEMBERS{HEADER_ROWS};

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

const std::array<Register_Class, 10> REGISTER_CLASSES = {{
    REGISTERS(gpr, "r", in, false, QTRACE_MAX_GPRS_IN, 1),
    REGISTERS(fpr, "f", in, false, QTRACE_MAX_FPRS_IN, 1),
    REGISTERS(spr, "s", in, false, QTRACE_MAX_SPRS_IN, 1),
    REGISTERS(vmxr, "v", in, false, QTRACE_MAX_VMXRS_IN, 2),
    REGISTERS(vsxr, "x", in, false, QTRACE_MAX_VSXRS_IN, 2),
    REGISTERS(gpr, "r", out, true, QTRACE_MAX_GPRS_OUT, 1),
    REGISTERS(fpr, "f", out, true, QTRACE_MAX_FPRS_OUT, 1),
    REGISTERS(spr, "s", out, true, QTRACE_MAX_SPRS_OUT, 1),
    REGISTERS(vmxr, "v", out, true, QTRACE_MAX_VMXRS_OUT, 2),
    REGISTERS(vsxr, "x", out, true, QTRACE_MAX_VSXRS_OUT, 2),
}};

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

// A record is looked at word by word in two places: up to the register entries, whose counts say enough, and behind
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
