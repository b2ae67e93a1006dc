// Values, sets of members and registers as the tools take them from a record.
#include "address_view.h"
#include "record_schema.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

using namespace trace;

namespace
{

using Names = std::vector<std::string_view>;

Member_Set set_of(std::initializer_list<size_t> rows)
{
    Member_Set set;
    for (const size_t row : rows)
        set.add(row);
    return set;
}

std::vector<size_t> rows_of(const Member_Set &set)
{
    std::vector<size_t> rows;
    set.for_each([&](size_t row) { rows.push_back(row); });
    return rows;
}

} // namespace

TEST(record_schema, names_groups_and_differences)
{
    Names groups;
    for (const Group_Info &group : GROUPS)
        groups.push_back(group.name);
    EXPECT_EQ(groups, (Names{"instruction", "flags", "node", "processor", "next-address", "next-translation",
                             "next-walk", "data-address", "data-translation", "data-walk", "string", "error",
                             "registers", "header", "unused"}));
    EXPECT_EQ((Names{DIFFERENCE_NAMES.begin(), DIFFERENCE_NAMES.end()}),
              (Names{"instruction", "address", "next-address", "data-address", "translation", "registers", "flags",
                     "header", "missing"}));
}

TEST(record_schema, sets_of_members_hold_rows_of_either_word)
{
    EXPECT_TRUE(rows_of(Member_Set{}).empty());
    EXPECT_EQ(rows_of(set_of({127, 0, 63, 64})), (std::vector<size_t>{0, 63, 64, 127}));
    Member_Set both = set_of({1, 2, 70}), either = both;
    both &= set_of({2, 3, 70, 71});
    either |= set_of({2, 3, 70, 71});
    EXPECT_EQ(rows_of(both), (std::vector<size_t>{2, 70}));
    EXPECT_EQ(rows_of(either), (std::vector<size_t>{1, 2, 3, 70, 71}));
    both &= set_of({70});
    EXPECT_EQ(rows_of(both), (std::vector<size_t>{70}));
    both &= set_of({2});
    EXPECT_TRUE(rows_of(both).empty());
}

TEST(record_schema, bytes_are_zero_when_all_of_them_are)
{
    for (size_t size = 0; size <= 70; ++size) {
        std::vector<uint8_t> bytes(size + 2);
        bytes.front() = bytes.back() = 1; // on either side
        EXPECT_TRUE(is_zero(&bytes[1], size)) << size;
        for (size_t i = 1; i <= size; ++i) {
            bytes[i] = 0x80;
            EXPECT_FALSE(is_zero(&bytes[1], size)) << i << " of " << size;
            bytes[i] = 0;
        }
    }
}

TEST(record_schema, values_of_members_are_as_wide_as_they)
{
    const uint8_t bytes[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const uint64_t values[] = {0,
                               1,
                               0x201,
                               0x30201,
                               0x4030201,
                               0x504030201,
                               0x60504030201,
                               0x7060504030201,
                               0x807060504030201,
                               0x807060504030201};
    for (uint16_t size = 1; size < std::size(values); ++size) {
        Trace_Member member{};
        member.size = size;
        EXPECT_EQ(member_value(member, bytes), values[size]) << size;
    }
}

TEST(record_schema, value_of_a_longer_member_is_its_first_eight_bytes)
{
    uint8_t bytes[160] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    std::fill(bytes + 10, std::end(bytes), uint8_t{0x11});
    Trace_Member member{};
    for (const uint16_t size : {uint16_t{10}, uint16_t{32}, uint16_t{160}}) {
        member.size = size;
        EXPECT_EQ(member_value(member, bytes), 0x807060504030201u) << size;
    }
}

TEST(record_schema, flags_of_a_header_are_those_of_both_words)
{
    QTRACE_FILE_HDR header{};
    header.control.iar_is_present = 1;                          // bit 13
    header.sec_ext_controlword.control.fld.lpid_is_present = 1; // bit 6
    EXPECT_EQ(flags_of(header), (Flag_Words{0x40, 0x2000}));
    QTRACE_RECORD record{};
    record.header.control.fld.data_address_present = 1;
    EXPECT_EQ(flags_of(record), (Flag_Words{uint64_t{1} << 43, 0}));
    EXPECT_EQ(Flag_Words{}, (Flag_Words{0, 0}));
    EXPECT_TRUE((Flag_Words{2, 0}.any_of({3, 0})));
    EXPECT_TRUE((Flag_Words{0, 2}.any_of({1, 2})));
    EXPECT_FALSE((Flag_Words{2, 1}.any_of({1, 2})));
}

TEST(record_schema, every_bit_leads_to_its_flag)
{
    EXPECT_EQ(CONTROL_FLAG_OF_BIT[4]->name, "_secondary_extended_reserved_11_15");
    EXPECT_EQ(CONTROL_FLAG_OF_BIT[5]->name, "pid_is_present");
    EXPECT_EQ(CONTROL_FLAG_OF_BIT[13]->name, "guest_xlate_mode_data");
    EXPECT_EQ(CONTROL_FLAG_OF_BIT[47]->name, "iar_change_present");
    EXPECT_EQ(CONTROL_FLAG_OF_BIT[48]->name, "_unused_16_31");
    EXPECT_EQ(CONTROL_FLAG_OF_BIT[63]->name, "_unused_16_31");
    EXPECT_EQ(FILE_FLAG_OF_BIT[0]->name, "app_spec_data_present");
    EXPECT_EQ(FILE_FLAG_OF_BIT[15]->name, "magic_number_present");
    EXPECT_EQ(FILE_FLAG_OF_BIT[31]->name, "_unused_16_31");
    EXPECT_EQ(FILE_FLAG_OF_BIT[32], nullptr);
}

TEST(record_schema, registers_are_no_more_than_fit_and_have_one_word_or_two)
{
    QTRACE_REGISTERS registers{};
    registers.num_gprs_in = 33;
    registers.gpr_in[31] = {7, 0x1122};
    registers.num_vsxrs_out = 2;
    registers.vsxr_out[1] = {9, {0x33, 0x44}};
    registers.num_sprs_in = 4;
    for (const Register_Class &kind : REGISTER_CLASSES) {
        const unsigned held = kind.name == "gpr_in"     ? 33
                              : kind.name == "vsxr_out" ? 2
                              : kind.name == "spr_in"   ? 4
                                                        : 0;
        EXPECT_EQ(kind.held(registers), held) << kind.name;
        EXPECT_EQ(kind.entries(registers), held == 33 ? 32 : held) << kind.name;
        EXPECT_EQ(kind.output, kind.name.ends_with("_out"));
    }
    const Register_Entry general = register_entry(REGISTER_CLASSES[0], registers, 31),
                         vector = register_entry(REGISTER_CLASSES[9], registers, 1);
    EXPECT_EQ(general.index, 7);
    EXPECT_EQ(general.value[0], 0x1122u);
    EXPECT_EQ(general.value[1], 0u);
    EXPECT_EQ(vector.index, 9);
    EXPECT_EQ(vector.value[0], 0x33u);
    EXPECT_EQ(vector.value[1], 0x44u);
}

TEST(record_schema, mode_pairs_are_numbered_by_guest_then_host)
{
    EXPECT_EQ(Mode_Pair::at(6), (Mode_Pair{1, 2}));
    EXPECT_EQ((Mode_Pair{1, 2}).index(), 6u);
    EXPECT_EQ((Mode_Pair{3, 3}).index(), 15u);
    EXPECT_EQ(mode_word(0), "radix");
    EXPECT_EQ(mode_word(1), "hpt");
    EXPECT_EQ(mode_word(2), "real");
    EXPECT_EQ(mode_word(3), "none");
}

TEST(record_schema, flags_gate_the_members_that_they_fill)
{
    const auto gated = [](uint64_t control) {
        Names names;
        gated_by({control, 0}).for_each([&](size_t row) { names.push_back(RECORD_MEMBERS[row].name); });
        return names;
    };
    EXPECT_EQ(gated(uint64_t{1} << 46), (Names{"node"}));
    EXPECT_EQ(gated(uint64_t{1} << 45), (Names{"termination_node", "termination_code"}));
    EXPECT_EQ(gated(uint64_t{1} << 44), (Names{"processor"}));
    EXPECT_EQ(gated(uint64_t{1} << 43), (Names{"data_ea", "data_hRTW_depth", "data_hRTW_num_level", "data_hRTW",
                                               "data_hRTW_host_RA", "data_gRTW"}));
    EXPECT_EQ(gated(uint64_t{3} << 41), (Names{"data_vsid", "data_rpn"}));
    EXPECT_EQ(gated(uint64_t{1} << 40), (Names{"length"}));
    EXPECT_EQ(gated(uint64_t{1} << 38),
              (Names{"next_instruction_ea", "next_instruction_hRTW_depth", "next_instruction_hRTW_num_level",
                     "next_instruction_hRTW", "next_instruction_hRTW_host_RA", "next_instruction_gRTW"}));
    EXPECT_EQ(gated(uint64_t{3} << 36), (Names{"next_instruction_vsid", "next_instruction_rpn"}));
    EXPECT_EQ(gated(uint64_t{1} << 35), (Names{"regs"}));
    EXPECT_EQ(gated(uint64_t{1} << 28), (Names{"error_code"}));
    EXPECT_EQ(gated(uint64_t{1} << 25), (Names{"next_instruction_page_size"}));
    EXPECT_EQ(gated(uint64_t{1} << 24), (Names{"data_page_size"}));
    EXPECT_EQ(gated(uint64_t{1} << 19), (Names{"next_instruction_gpage_size"}));
    EXPECT_EQ(gated(uint64_t{1} << 18), (Names{"data_gpage_size"}));
    EXPECT_EQ(gated(uint64_t{7} << 40), (Names{"data_vsid", "data_rpn", "length"}));
    EXPECT_EQ(gated(uint64_t{1} << 46 | uint64_t{1} << 28 | uint64_t{1} << 18),
              (Names{"node", "data_gpage_size", "error_code"}));
    EXPECT_TRUE(gated(0).empty());
}
