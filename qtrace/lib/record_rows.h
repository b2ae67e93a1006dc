// The members of records and file headers, row by row: the one place that lists them. Everything that the codec, the
// tools, the C view and Python know about a member follows from its row. A member that no producer filled so far
// becomes a filled one when its row names a group and a gate.
#pragma once

#include "record_schema.h"

#include <algorithm>
#include <stdexcept>

namespace trace
{

// ---- Flags ---------------------------------------------------------------------------------------------

namespace rows
{

using enum Flag_Role;

// A gate that no filled member names is unused; that follows from the rows of the members.
inline constexpr Trace_Flag CONTROL_ROWS[] = {
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
    {"file_header_present", 17, 1, gate},
    {"data_gpage_size_present", 18, 1, gate},
    {"instruction_gpage_size_present", 19, 1, gate},
    {"secondary_data_page_size_present", 20, 1, gate},
    {"sequential_instruction_page_size_present", 21, 1, gate},
    {"data_segment_size_present", 22, 1, gate},
    {"next_instruction_segment_size_present", 23, 1, gate},
    {"data_page_size_present", 24, 1, gate},
    {"next_instruction_page_size_present", 25, 1, gate},
    {"_extended_length_bit", 26, 1, gate},
    {"trace_alteration_flag_present", 27, 1, gate},
    {"trace_error_code_present", 28, 1, gate},
    {"exception_code_present", 29, 1, gate},
    {"sequential_instruction_RPN_present", 30, 1, gate},
    {"secondary_data_RPN_present", 31, 1, gate},
    // unit 1
    {"_extender_present", 32, 1, gate},
    {"_reserved_14", 33, 1, reserved},
    {"_reserved_13", 34, 1, reserved},
    {"register_trace_present", 35, 1, gate},
    {"next_instruction_RPN_present", 36, 1, gate},
    {"next_instruction_VSID_present", 37, 1, gate},
    {"next_instruction_EA_present", 38, 1, gate},
    {"data_present", 39, 1, gate},
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

inline constexpr Trace_Flag FILE_ROWS[] = {
    {"app_spec_data_present", 0, 1, gate},     {"comment_present", 1, 1, gate},
    {"persistent_data_present", 2, 1, gate},   {"_reserved_12", 3, 1, reserved},
    {"iar_gpage_size_is_present", 4, 1, gate}, {"processor_id_is_present", 5, 1, gate},
    {"iar_page_size_is_present", 6, 1, gate},  {"iar_segment_size_is_present", 7, 1, gate},
    {"barrier_synchronization", 8, 1, gate},   {"asr_is_present", 9, 1, gate},
    {"sdr1_is_present", 10, 1, gate},          {"iar_rpn_is_present", 11, 1, gate},
    {"iar_vsid_is_present", 12, 1, gate},      {"iar_is_present", 13, 1, gate},
    {"version_number_present", 14, 1, mark},   {"magic_number_present", 15, 1, gate},
    {"_unused_16_31", 16, 16, reserved},
};

consteval uint64_t mask_in(std::span<const Trace_Flag> flags, std::string_view name)
{
    for (const Trace_Flag &flag : flags)
        if (flag.name == name)
            return flag.mask();
    throw std::logic_error("no such flag");
}

// ---- Members -------------------------------------------------------------------------------------------

// The gate of a member: a flag of the control word, or of the word of file headers.
consteval Flag_Words when(std::string_view flag)
{
    return {mask_in(CONTROL_ROWS, flag), 0};
}
consteval Flag_Words when_file(std::string_view flag)
{
    return {0, static_cast<uint32_t>(mask_in(FILE_ROWS, flag))};
}

inline constexpr Flag_Words ALWAYS{};

using enum Member_Shape;
using enum Member_Coding;
using Group = Field_Group;

#define IN_RECORD(member)  #member, offsetof(QTRACE_RECORD, member), sizeof(QTRACE_RECORD::member)
#define IN_HEADER(member)  #member, offsetof(QTRACE_FILE_HDR, member), sizeof(QTRACE_FILE_HDR::member)
// (the place of a member expands to three arguments)
#define MEMBER(place, ...) MEMBER_ROW(place, __VA_ARGS__)
#define MEMBER_ROW(name, offset, size, label, ...)                                                                 \
    {                                                                                                              \
        name, label, static_cast<uint16_t>(offset), static_cast<uint16_t>(size), __VA_ARGS__                       \
    }

// The walks of one address.
#define WALK_ROWS(in, block, group, gate, coding)                                                                  \
    MEMBER(in(block##_hRTW_depth), "guest-depth", decimal, group, gate, coding),                                   \
        MEMBER(in(block##_hRTW_num_level), "host-depth", decimal, group, gate, coding),                            \
        MEMBER(in(block##_hRTW), "host-walks", host_walks, group, gate, coding),                                   \
        MEMBER(in(block##_hRTW_host_RA), "host-addresses", host_addresses, group, gate, coding),                   \
        MEMBER(in(block##_gRTW), "guest-walk", guest_walk, group, gate, coding)

inline constexpr Trace_Member RECORD_ROWS[] = {
    {"instruction", "", 0, 4, hexadecimal, Group::instruction, ALWAYS, common},
    MEMBER(IN_RECORD(node), "node", decimal, Group::node, when("node_present"), small),
    MEMBER(IN_RECORD(termination_node), "ends-at", decimal, Group::node, when("termination_present"), small),
    MEMBER(IN_RECORD(termination_code), "end", decimal, Group::node, when("termination_present"), small),
    MEMBER(IN_RECORD(processor), "processor", decimal, Group::processor, when("processor_present"), small),
    MEMBER(IN_RECORD(next_instruction_ea), "next", address, Group::next_address,
           when("next_instruction_EA_present"), common),
    MEMBER(IN_RECORD(next_instruction_vsid), "vsid", vsid, Group::next_translation,
           when("next_instruction_VSID_present"), common),
    MEMBER(IN_RECORD(next_instruction_rpn), "rpn", hexadecimal, Group::next_translation,
           when("next_instruction_RPN_present"), common),
    MEMBER(IN_RECORD(next_instruction_page_size), "page", decimal, Group::next_translation,
           when("next_instruction_page_size_present"), common),
    MEMBER(IN_RECORD(next_instruction_gpage_size), "guest-page", decimal, Group::next_translation,
           when("instruction_gpage_size_present"), common),
    WALK_ROWS(IN_RECORD, next_instruction, Group::next_walk, when("next_instruction_EA_present"), common),
    MEMBER(IN_RECORD(data_ea), "data", address, Group::data_address, when("data_address_present"), common),
    MEMBER(IN_RECORD(data_vsid), "vsid", vsid, Group::data_translation, when("data_VSID_present"), common),
    MEMBER(IN_RECORD(data_rpn), "rpn", hexadecimal, Group::data_translation, when("data_RPN_present"), common),
    MEMBER(IN_RECORD(data_page_size), "page", decimal, Group::data_translation, when("data_page_size_present"),
           common),
    MEMBER(IN_RECORD(data_gpage_size), "guest-page", decimal, Group::data_translation,
           when("data_gpage_size_present"), common),
    WALK_ROWS(IN_RECORD, data, Group::data_walk, when("data_address_present"), common),
    MEMBER(IN_RECORD(length), "length", decimal, Group::string, when("length_present"), small),
    MEMBER(IN_RECORD(error_code), "error", decimal, Group::error, when("trace_error_code_present"), small),
    MEMBER(IN_RECORD(regs), "", registers, Group::registers, when("register_trace_present"), common),
    // what no producer fills
    MEMBER(IN_RECORD(iar), "iar", address, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_vsid), "iar-vsid", vsid, Group::unused, ALWAYS),
    WALK_ROWS(IN_RECORD, iar, Group::unused, ALWAYS, rare),
    MEMBER(IN_RECORD(iar_rpn), "iar-rpn", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_segment_size), "iar-segment", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_page_size), "iar-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(iar_gpage_size), "iar-guest-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(is_speculative), "speculative", decimal, Group::unused, ALWAYS),
    {"validity_bits", "valid", offsetof(QTRACE_RECORD, is_speculative) + 4, 2, decimal, Group::unused, ALWAYS},
    MEMBER(IN_RECORD(itype), "itype", decimal, Group::unused, ALWAYS),
    {"iar_segment_size_is_valid", "iar-segment-valid", offsetof(QTRACE_RECORD, itype) + 4, 1, decimal,
     Group::unused, ALWAYS},
    WALK_ROWS(IN_RECORD, secondary_data, Group::unused, ALWAYS, rare),
    MEMBER(IN_RECORD(secondary_data_rpn), "secondary-rpn", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(data), "bytes", hexadecimal, Group::unused, ALWAYS, absent),
    WALK_ROWS(IN_RECORD, sequential_instruction, Group::unused, ALWAYS, rare),
    MEMBER(IN_RECORD(sequential_instruction_rpn), "sequential-rpn", hexadecimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(exception_code), "exception", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(trace_alteration_code), "alteration", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(next_instruction_segment_size), "next-segment", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(data_segment_size), "data-segment", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(sequential_instruction_page_size), "sequential-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(sequential_instruction_gpage_size), "sequential-guest-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(secondary_data_page_size), "secondary-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(secondary_data_gpage_size), "secondary-guest-page", decimal, Group::unused, ALWAYS),
    MEMBER(IN_RECORD(file_header), "file-header", hexadecimal, Group::unused, ALWAYS, absent),
    MEMBER(IN_RECORD(persistent_data), "persistent", hexadecimal, Group::unused, ALWAYS, absent),
    MEMBER(IN_RECORD(offset), "offset", hexadecimal, Group::unused, ALWAYS, absent),
    MEMBER(IN_RECORD(record_count), "record-count", hexadecimal, Group::unused, ALWAYS, absent),
    MEMBER(IN_RECORD(instr_count), "instr-count", hexadecimal, Group::unused, ALWAYS, absent),
    MEMBER(IN_RECORD(exec_instr_count), "exec-instr-count", hexadecimal, Group::unused, ALWAYS, absent),
};

inline constexpr Trace_Member HEADER_ROWS[] = {
    MEMBER(IN_HEADER(iar), "address", address, Group::header, when_file("iar_is_present")),
    MEMBER(IN_HEADER(iar_vsid), "vsid", vsid, Group::header, when_file("iar_vsid_is_present")),
    MEMBER(IN_HEADER(iar_rpn), "rpn", hexadecimal, Group::header, when_file("iar_rpn_is_present")),
    MEMBER(IN_HEADER(iar_page_size), "page", decimal, Group::header, when_file("iar_page_size_is_present")),
    MEMBER(IN_HEADER(iar_gpage_size), "guest-page", decimal, Group::header, when_file("iar_gpage_size_is_present")),
    WALK_ROWS(IN_HEADER, iar, Group::header, when_file("iar_is_present"), rare),
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

#undef WALK_ROWS
#undef MEMBER_ROW
#undef MEMBER
#undef IN_HEADER
#undef IN_RECORD

// ---- Registers -----------------------------------------------------------------------------------------

#define REGISTERS(kind, letter, direction, output, limit, words)                                                   \
    {                                                                                                              \
#kind "_" #direction, letter, output, offsetof(QTRACE_REGISTERS, num_##kind##s_##direction),               \
            offsetof(QTRACE_REGISTERS, kind##_##direction), limit, words                                           \
    }

inline constexpr std::array<Register_Class, 10> REGISTER_ROWS = {{
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

#undef REGISTERS

// ---- What follows from the rows ------------------------------------------------------------------------

consteval bool is_filled_by_somebody(const Flag_Words &gate)
{
    const auto names = [&](const Trace_Member &row) { return row.group != Group::unused && row.gate.any_of(gate); };
    return std::ranges::any_of(RECORD_ROWS, names) || std::ranges::any_of(HEADER_ROWS, names);
}

template <size_t COUNT>
consteval std::array<Trace_Flag, COUNT> with_roles(const Trace_Flag (&flags)[COUNT], bool of_file)
{
    std::array<Trace_Flag, COUNT> roles{};
    std::ranges::copy(flags, roles.begin());
    for (Trace_Flag &flag : roles) {
        const Flag_Words words =
            of_file ? Flag_Words{0, static_cast<uint32_t>(flag.mask())} : Flag_Words{flag.mask(), 0};
        if (flag.role == gate && !is_filled_by_somebody(words))
            flag.role = unused;
    }
    return roles;
}

inline constexpr auto CONTROL_TABLE = with_roles(CONTROL_ROWS, false);
inline constexpr auto FILE_TABLE = with_roles(FILE_ROWS, true);

constexpr const Trace_Member &row_of(std::span<const Trace_Member> members, std::string_view block,
                                     std::string_view part)
{
    for (const Trace_Member &member : members)
        if (member.name.starts_with(block) && member.name.substr(block.size()) == part)
            return member;
    throw std::logic_error("no such member");
}

} // namespace rows

// The members of one address with its translation: offsets, and the flags that gate them.
struct Address_Members {
    uint16_t address, vsid, guest_depth, host_depth, walks, host_addresses, guest_walk;
    uint16_t page_number, page_size, guest_page_size;
    Flag_Words present; // gates the address and its walks
    Flag_Words vsid_gate, page_number_gate, page_size_gate, guest_page_size_gate;
};

// `block` is what the names of the members begin with; the address itself may have a suffix.
consteval Address_Members address_members(std::span<const Trace_Member> members, std::string_view block,
                                          std::string_view address_suffix)
{
    const auto row = [&](std::string_view part) -> const Trace_Member & {
        return rows::row_of(members, block, part);
    };
    return {row(address_suffix).offset, row("_vsid").offset,
            row("_hRTW_depth").offset,  row("_hRTW_num_level").offset,
            row("_hRTW").offset,        row("_hRTW_host_RA").offset,
            row("_gRTW").offset,        row("_rpn").offset,
            row("_page_size").offset,   row("_gpage_size").offset,
            row(address_suffix).gate,   row("_vsid").gate,
            row("_rpn").gate,           row("_page_size").gate,
            row("_gpage_size").gate};
}

inline constexpr Address_Members DATA_MEMBERS = address_members(rows::RECORD_ROWS, "data", "_ea");
inline constexpr Address_Members NEXT_MEMBERS = address_members(rows::RECORD_ROWS, "next_instruction", "_ea");
inline constexpr Address_Members FIRST_MEMBERS = address_members(rows::HEADER_ROWS, "iar", "");

// The flag of that name.
consteval uint64_t control_mask(std::string_view name)
{
    return rows::mask_in(rows::CONTROL_ROWS, name);
}

} // namespace trace
