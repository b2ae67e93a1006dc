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
