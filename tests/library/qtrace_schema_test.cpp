// The schema as C programs read it, against the structures themselves and against lists written by hand.
#include "qtrace_schema.h"
#include "qtrace_t.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace
{

template <class Row> std::span<const Row> rows_of(const Row *(*table)(size_t *))
{
    size_t count = 0;
    const Row *rows = table(&count);
    return {rows, count};
}

template <class Row> const Row &row_named(const Row *(*table)(size_t *), const std::string &name)
{
    for (const Row &row : rows_of(table))
        if (name == row.name)
            return row;
    throw std::out_of_range(name);
}

uint64_t control_bits(void (*set)(control_word &))
{
    control_word control{};
    set(control);
    uint64_t bits;
    std::memcpy(&bits, &control, sizeof bits);
    return bits;
}

uint32_t file_bits(void (*set)(QTRACE_FILE_HDR_CNTRL &))
{
    QTRACE_FILE_HDR_CNTRL control{};
    set(control);
    uint32_t bits;
    std::memcpy(&bits, &control, sizeof bits);
    return bits;
}

#define CONTROL(flag)                                                                                              \
    {                                                                                                              \
#flag, control_bits([](control_word &c) { c.fld.flag--; })                                                 \
    }
#define FILE_FLAG(flag)                                                                                            \
    {                                                                                                              \
#flag, file_bits([](QTRACE_FILE_HDR_CNTRL &c) { c.flag = 1; })                                             \
    }

const std::map<std::string, uint64_t> CONTROL_MASKS = {
    CONTROL(pid_is_present),
    CONTROL(lpid_is_present),
    CONTROL(ptcr_is_present),
    CONTROL(guest_xlate_mode_instruction),
    CONTROL(host_xlate_mode_instruction),
    CONTROL(guest_xlate_mode_data),
    CONTROL(host_xlate_mode_data),
    CONTROL(secondary_extender_present),
    CONTROL(file_header_present),
    CONTROL(data_gpage_size_present),
    CONTROL(instruction_gpage_size_present),
    CONTROL(secondary_data_page_size_present),
    CONTROL(sequential_instruction_page_size_present),
    CONTROL(data_segment_size_present),
    CONTROL(next_instruction_segment_size_present),
    CONTROL(data_page_size_present),
    CONTROL(next_instruction_page_size_present),
    CONTROL(_extended_length_bit),
    CONTROL(trace_alteration_flag_present),
    CONTROL(trace_error_code_present),
    CONTROL(exception_code_present),
    CONTROL(sequential_instruction_RPN_present),
    CONTROL(secondary_data_RPN_present),
    CONTROL(_extender_present),
    CONTROL(register_trace_present),
    CONTROL(next_instruction_RPN_present),
    CONTROL(next_instruction_VSID_present),
    CONTROL(next_instruction_EA_present),
    CONTROL(data_present),
    CONTROL(length_present),
    CONTROL(data_RPN_present),
    CONTROL(data_VSID_present),
    CONTROL(data_address_present),
    CONTROL(processor_present),
    CONTROL(termination_present),
    CONTROL(node_present),
    CONTROL(iar_change_present),
};

const std::map<std::string, uint64_t> FILE_MASKS = {
    FILE_FLAG(app_spec_data_present),
    FILE_FLAG(comment_present),
    FILE_FLAG(persistent_data_present),
    FILE_FLAG(iar_gpage_size_is_present),
    FILE_FLAG(processor_id_is_present),
    FILE_FLAG(iar_page_size_is_present),
    FILE_FLAG(iar_segment_size_is_present),
    FILE_FLAG(barrier_synchronization),
    FILE_FLAG(asr_is_present),
    FILE_FLAG(sdr1_is_present),
    FILE_FLAG(iar_rpn_is_present),
    FILE_FLAG(iar_vsid_is_present),
    FILE_FLAG(iar_is_present),
    FILE_FLAG(version_number_present),
    FILE_FLAG(magic_number_present),
};

struct Flag {
    const char *name;
    unsigned bit, width;
    QTRACE_FLAG_ROLE role;
};

void expect_flags(std::span<const QTRACE_Flag> flags, const std::vector<Flag> &expected)
{
    ASSERT_EQ(flags.size(), expected.size());
    for (size_t i = 0; i < flags.size(); i++) {
        EXPECT_STREQ(flags[i].name, expected[i].name);
        EXPECT_EQ(flags[i].bit, expected[i].bit) << expected[i].name;
        EXPECT_EQ(flags[i].width, expected[i].width) << expected[i].name;
        EXPECT_EQ(flags[i].role, expected[i].role) << expected[i].name;
    }
}

} // namespace

TEST(schema, names_the_bits_of_every_flag)
{
    for (const auto &[name, mask] : CONTROL_MASKS)
        EXPECT_EQ(row_named(qtrace_control_flags, name).mask, mask) << name;
    for (const auto &[name, mask] : FILE_MASKS)
        EXPECT_EQ(row_named(qtrace_file_flags, name).mask, mask) << name;
}

TEST(schema, gives_every_bit_to_one_flag)
{
    uint64_t control = 0, file = 0;
    for (const QTRACE_Flag &flag : rows_of(qtrace_control_flags)) {
        EXPECT_EQ(control & flag.mask, 0u) << flag.name;
        EXPECT_EQ(flag.mask, ((uint64_t{1} << flag.width) - 1) << flag.bit) << flag.name;
        control |= flag.mask;
    }
    for (const QTRACE_Flag &flag : rows_of(qtrace_file_flags))
        file |= flag.mask;
    EXPECT_EQ(control, ~uint64_t{0});
    EXPECT_EQ(file, ~uint32_t{0});
}

TEST(schema, tells_flags_that_gate_from_those_that_nobody_sets)
{
    for (const char *name : {"node_present", "length_present", "data_gpage_size_present", "register_trace_present"})
        EXPECT_EQ(row_named(qtrace_control_flags, name).role, QTRACE_FLAG_GATE) << name;
    for (const char *name : {"exception_code_present", "data_present", "secondary_data_RPN_present",
                             "trace_alteration_flag_present", "file_header_present"})
        EXPECT_EQ(row_named(qtrace_control_flags, name).role, QTRACE_FLAG_UNUSED) << name;
    EXPECT_EQ(row_named(qtrace_control_flags, "iar_change_present").role, QTRACE_FLAG_MARK);
    EXPECT_EQ(row_named(qtrace_control_flags, "host_xlate_mode_data").role, QTRACE_FLAG_MODE);
    EXPECT_EQ(row_named(qtrace_control_flags, "lpid_is_present").role, QTRACE_FLAG_HEADER_ONLY);
    EXPECT_EQ(row_named(qtrace_control_flags, "_unused_16_31").role, QTRACE_FLAG_RESERVED);
    EXPECT_EQ(row_named(qtrace_file_flags, "asr_is_present").role, QTRACE_FLAG_UNUSED);
    EXPECT_EQ(row_named(qtrace_file_flags, "sdr1_is_present").role, QTRACE_FLAG_GATE);
}

TEST(schema, lists_flags_in_the_order_of_their_bits_with_what_they_are_for)
{
    const auto GATE = QTRACE_FLAG_GATE, MARK = QTRACE_FLAG_MARK, MODE = QTRACE_FLAG_MODE,
               HEADER_ONLY = QTRACE_FLAG_HEADER_ONLY, UNUSED = QTRACE_FLAG_UNUSED, RESERVED = QTRACE_FLAG_RESERVED;
    const std::vector<Flag> control = {
        {"_secondary_extended_reserved_11_15", 0, 5, RESERVED},
        {"pid_is_present", 5, 1, HEADER_ONLY},
        {"lpid_is_present", 6, 1, HEADER_ONLY},
        {"ptcr_is_present", 7, 1, HEADER_ONLY},
        {"guest_xlate_mode_instruction", 8, 2, MODE},
        {"host_xlate_mode_instruction", 10, 2, MODE},
        {"guest_xlate_mode_data", 12, 2, MODE},
        {"host_xlate_mode_data", 14, 2, MODE},
        {"secondary_extender_present", 16, 1, MARK},
        {"file_header_present", 17, 1, UNUSED},
        {"data_gpage_size_present", 18, 1, GATE},
        {"instruction_gpage_size_present", 19, 1, GATE},
        {"secondary_data_page_size_present", 20, 1, UNUSED},
        {"sequential_instruction_page_size_present", 21, 1, UNUSED},
        {"data_segment_size_present", 22, 1, UNUSED},
        {"next_instruction_segment_size_present", 23, 1, UNUSED},
        {"data_page_size_present", 24, 1, GATE},
        {"next_instruction_page_size_present", 25, 1, GATE},
        {"_extended_length_bit", 26, 1, UNUSED},
        {"trace_alteration_flag_present", 27, 1, UNUSED},
        {"trace_error_code_present", 28, 1, GATE},
        {"exception_code_present", 29, 1, UNUSED},
        {"sequential_instruction_RPN_present", 30, 1, UNUSED},
        {"secondary_data_RPN_present", 31, 1, UNUSED},
        {"_extender_present", 32, 1, UNUSED},
        {"_reserved_14", 33, 1, RESERVED},
        {"_reserved_13", 34, 1, RESERVED},
        {"register_trace_present", 35, 1, GATE},
        {"next_instruction_RPN_present", 36, 1, GATE},
        {"next_instruction_VSID_present", 37, 1, GATE},
        {"next_instruction_EA_present", 38, 1, GATE},
        {"data_present", 39, 1, UNUSED},
        {"length_present", 40, 1, GATE},
        {"data_RPN_present", 41, 1, GATE},
        {"data_VSID_present", 42, 1, GATE},
        {"data_address_present", 43, 1, GATE},
        {"processor_present", 44, 1, GATE},
        {"termination_present", 45, 1, GATE},
        {"node_present", 46, 1, GATE},
        {"iar_change_present", 47, 1, MARK},
        {"_unused_16_31", 48, 16, RESERVED},
    };
    const std::vector<Flag> file = {
        {"app_spec_data_present", 0, 1, UNUSED},   {"comment_present", 1, 1, GATE},
        {"persistent_data_present", 2, 1, UNUSED}, {"_reserved_12", 3, 1, RESERVED},
        {"iar_gpage_size_is_present", 4, 1, GATE}, {"processor_id_is_present", 5, 1, UNUSED},
        {"iar_page_size_is_present", 6, 1, GATE},  {"iar_segment_size_is_present", 7, 1, UNUSED},
        {"barrier_synchronization", 8, 1, UNUSED}, {"asr_is_present", 9, 1, UNUSED},
        {"sdr1_is_present", 10, 1, GATE},          {"iar_rpn_is_present", 11, 1, GATE},
        {"iar_vsid_is_present", 12, 1, GATE},      {"iar_is_present", 13, 1, GATE},
        {"version_number_present", 14, 1, MARK},   {"magic_number_present", 15, 1, UNUSED},
        {"_unused_16_31", 16, 16, RESERVED},
    };
    expect_flags(rows_of(qtrace_control_flags), control);
    expect_flags(rows_of(qtrace_file_flags), file);
}

TEST(schema, gives_every_byte_of_a_record_to_one_member_but_for_the_control_word_and_padding)
{
    std::vector<int> owners(sizeof(QTRACE_RECORD));
    for (const QTRACE_Member &member : rows_of(qtrace_record_members))
        for (size_t byte = member.offset; byte < size_t{member.offset} + member.width; byte++)
            owners.at(byte)++;
    const auto skip = [&](size_t first, size_t end) {
        for (size_t byte = first; byte < end; byte++)
            EXPECT_EQ(owners[byte]++, 0) << byte;
    };
    skip(4, 12);    // the control word
    skip(282, 284); // after the validity bits
    skip(802, 808); // after length
    for (size_t byte = 0; byte < owners.size(); byte++)
        EXPECT_EQ(owners[byte], 1) << byte;
}

TEST(schema, gives_the_place_the_group_and_the_gate_of_a_member)
{
    const QTRACE_Member &next = row_named(qtrace_record_members, "next_instruction_vsid");
    EXPECT_EQ(next.offset, 824);
    EXPECT_EQ(next.width, 7);
    EXPECT_EQ(next.shape, QTRACE_SHAPE_VSID);
    EXPECT_STREQ(next.group, "next-translation");
    EXPECT_EQ(next.control_gate, CONTROL_MASKS.at("next_instruction_VSID_present"));
    EXPECT_EQ(next.file_gate, 0u);
    const QTRACE_Member &sdr1 = row_named(qtrace_header_members, "sdr1");
    EXPECT_EQ(sdr1.offset, 308);
    EXPECT_EQ(sdr1.width, 8);
    EXPECT_STREQ(sdr1.group, "header");
    EXPECT_EQ(sdr1.control_gate, 0u);
    EXPECT_EQ(sdr1.file_gate, FILE_MASKS.at("sdr1_is_present"));
    const QTRACE_Member &pid = row_named(qtrace_header_members, "pid");
    EXPECT_EQ(pid.control_gate, CONTROL_MASKS.at("pid_is_present"));
    EXPECT_STREQ(row_named(qtrace_record_members, "itype").group, "unused");
}

TEST(schema, lists_registers_with_their_counts_and_entries)
{
    struct Expected {
        const char *name, *letter;
        int output;
        size_t count, capacity, entries, width, words;
    };
    const Expected expected[] = {
        {"gpr_in", "r", 0, 9, 32, 1040, 16, 1}, {"fpr_in", "f", 0, 8, 3, 992, 16, 1},
        {"spr_in", "s", 0, 5, 4, 784, 16, 1},   {"vmxr_in", "v", 0, 7, 3, 920, 24, 2},
        {"vsxr_in", "x", 0, 6, 3, 848, 24, 2},  {"gpr_out", "r", 1, 4, 32, 272, 16, 1},
        {"fpr_out", "f", 1, 3, 3, 224, 16, 1},  {"spr_out", "s", 1, 0, 4, 16, 16, 1},
        {"vmxr_out", "v", 1, 2, 3, 152, 24, 2}, {"vsxr_out", "x", 1, 1, 3, 80, 24, 2},
    };
    const auto lists = rows_of(qtrace_register_lists);
    ASSERT_EQ(lists.size(), std::size(expected));
    for (size_t i = 0; i < lists.size(); i++) {
        EXPECT_STREQ(lists[i].name, expected[i].name);
        EXPECT_STREQ(lists[i].letter, expected[i].letter);
        EXPECT_EQ(lists[i].output, expected[i].output);
        EXPECT_EQ(lists[i].count, expected[i].count) << expected[i].name;
        EXPECT_EQ(lists[i].capacity, expected[i].capacity);
        EXPECT_EQ(lists[i].entries, expected[i].entries) << expected[i].name;
        EXPECT_EQ(lists[i].width, expected[i].width);
        EXPECT_EQ(lists[i].words, expected[i].words);
    }
}
