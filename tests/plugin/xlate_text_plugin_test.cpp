// How the text line tells the translation of the instruction's address and of its data address: the names of the
// modes, the items of each mode with relocation on and off, and the walks.
#include "text_streams.h"

#include "text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace
{

// Every translation field has a value of its own. Walks: digit A (instruction) or D (data), number of the walk,
// level (4: page-table entry). Host real addresses: B or E, number. Guest walk: C or F, level (4: page-table entry,
// 5: final).
Node translated_node()
{
    Node node = plain_node();
    node.I = node.N = node.T = 1;
    node.PC_RA = 0xFACE;
    node.PC_VSID = 0xABCDEF;
    node.PC_RPN = 0xAB12;
    node.PC_pagesize = 1;
    node.PC_gpagesize = 3;
    node.pc_host_walkdepth = 3;
    node.pc_guest_walkdepth = 2;
    node.PC_gRTW = {0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5};
    First_OP_Info &info = node.info;
    info.load = 1;
    info.data_addr_valid = 1;
    info.data_addr = 0x2008;
    info.data_RA = 0xDA7A;
    info.data_VSID = 0xFEDCBA;
    info.data_RPN = 0xCD34;
    info.data_pagesize = 2;
    info.data_gpagesize = 4;
    node.data_gpagesize = 99; // not the one that is shown
    node.data_host_walkdepth = 3;
    node.data_guest_walkdepth = 2;
    info.data_gRTW = {0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5};
    for (unsigned n = 0; n < HOST_WALKS; ++n) {
        node.PC_hRTW[n] = {0xA01 + 16 * n, 0xA02 + 16 * n, 0xA03 + 16 * n, 0xA04 + 16 * n};
        info.data_hRTW[n] = {0xD01 + 16 * n, 0xD02 + 16 * n, 0xD03 + 16 * n, 0xD04 + 16 * n};
    }
    for (unsigned n = 0; n < GUEST_LEVELS; ++n) {
        node.PC_hRTW_host_RA[n].ra = 0xB0 + n;
        info.data_hRTW_host_RA[n].ra = 0xE0 + n;
    }
    return node;
}

struct Sections {
    std::string instruction; // between the node number and the completion
    std::string data;        // between the data address and the end of its group
};

Sections sections_of(Node node)
{
    Text_Streams streams;
    const std::string line = streams.text_of(node);
    const std::string before = "(nn:0) ", middle = "(done) (DEA:0x0000000000002008", after = ") \n";
    const size_t first = line.find(before), second = line.find(middle);
    if (first == std::string::npos || second == std::string::npos || !line.ends_with(after) ||
        line.size() < second + middle.size() + after.size())
        return {"no such place in: " + line, "no such place in: " + line};
    const size_t start = first + before.size(), data_start = second + middle.size();
    return {line.substr(start, second - start), line.substr(data_start, line.size() - data_start - after.size())};
}

Sections sections_of(int mode, boolean relocation, Node node = translated_node())
{
    node.pc_radix_type = node.data_radix_type = static_cast<RDX_XLATE_MODE>(mode);
    node.PC_relocation = node.info.data_relocation = relocation;
    return sections_of(node);
}

// ---- a row for every mode ------------------------------------------------------------------------------------

const char *const NOTHING = "";

const char *const PC_HOST_REAL = "(RA:0x~FACE) ";
const char *const PC_GUEST_HPT = "(VSID:0x~ABCDEF, RPN:0x0000ab12, HostPageSize:1, GuestPageSize:3) ";
const char *const PC_HOST_HPT = "(VSID:0x~ABCDEF, RPN:0x0000ab12, HostPageSize:1) ";
const char *const PC_NESTED =
    "(HostPageSize:1, GuestPageSize:3) "
    "(iar_Guest_RAs: (iar_gRTPDE_L1_RA:0x~C1 iar_gRTPDE_L2_RA:0x~C2 iar_gRTPDE_L3_RA:0x~C3 iar_gRTPTE_RA:0x~C4 "
    "iar_gRA:0x~C5) ) "
    "(iar_Host_RTWs_Block:1 (iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPTE_L3_RA:0x~A04)"
    "(iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPDE_L3_RA:0x~A03)(iar_hRTPTE_L4_RA:0x~A04)"
    "(iar_hRTW_host_Block1_RA:0x~B0))"
    "(iar_Host_RTWs_Block:2 (iar_hRTPDE_L1_RA:0x~A11)(iar_hRTPDE_L2_RA:0x~A12)(iar_hRTPTE_L3_RA:0x~A14))"
    "(iar_RPN:0x0000AB12)";
const char *const PC_HOST_RADIX =
    "(HostPageSize:1) "
    "(iar_Host_RTW_Depth:2 (iar_hRTPDE_L1_RA:0x~A01, iar_hRTPDE_L2_RA:0x~A02, iar_hRTPTE_RA:0x~A04) )"
    "(iar_RPN:0x0000AB12)";
const char *const PC_GUEST_REAL_HPT =
    "(VSID:0x~ABCDEF, gRA:0x~C5, RPN:0x0000ab12, HostPageSize:1, GuestPageSize:3) ";
const char *const PC_GUEST_REAL_RADIX =
    "(HostPageSize:1, GuestPageSize:3) "
    "(iar_Host_RTW_Depth:2 (iar_hRTPDE_L1_RA:0x~A01, iar_hRTPDE_L2_RA:0x~A02, iar_hRTPTE_RA:0x~A04) )"
    "(iar_gRA:0x~C5)(iar_RPN:0x0000AB12)";

const char *const DATA_HOST_REAL = "(data_RA:0x~DA7A)(data_RPN:0x0000CD34)";
const char *const DATA_GUEST_HPT = ", VSID:0x~FEDCBA, RPN:0x0000cd34, HostPageSize:2, GuestPageSize:4";
const char *const DATA_HOST_HPT = ", VSID:0x~FEDCBA, RPN:0x0000cd34, HostPageSize:2";
const char *const DATA_NESTED =
    "(HostPageSize:2, GuestPageSize:4) "
    "(data_Guest_RAs: (data_gRTPDE_L1_RA:0x~F1 data_gRTPDE_L2_RA:0x~F2 data_gRTPDE_L3_RA:0x~F3 "
    "data_gRTPTE_RA:0x~F4 data_gRA:0x~F5) ) "
    "(data_Host_RTWs_Block:1 (data_hRTPDE_L1_RA:0x~D01)(data_hRTPDE_L2_RA:0x~D02)(data_hRTPTE_L3_RA:0x~D04)"
    "(data_hRTPDE_L1_RA:0x~D01)(data_hRTPDE_L2_RA:0x~D02)(data_hRTPDE_L3_RA:0x~D03)(data_hRTPTE_L4_RA:0x~D04)"
    "(data_hRTW_host_Block1_RA:0x~E0))"
    "(data_Host_RTWs_Block:2 (data_hRTPDE_L1_RA:0x~D11)(data_hRTPDE_L2_RA:0x~D12)(data_hRTPTE_L3_RA:0x~D14))"
    "(data_RPN:0x0000CD34)";
const char *const DATA_HOST_RADIX =
    "(HostPageSize:2) "
    "(data_Host_RTW_Depth:2 (data_hRTPDE_L1_RA:0x~D01, data_hRTPDE_L2_RA:0x~D02, data_hRTPTE_RA:0x~D04) )"
    "(data_RPN:0x0000CD34)";
const char *const DATA_GUEST_REAL_HPT =
    ", VSID:0x~FEDCBA, gRA:0x~F5, RPN:0x0000cd34, HostPageSize:2, GuestPageSize:4";
const char *const DATA_GUEST_REAL_RADIX =
    "(HostPageSize:2, GuestPageSize:4) "
    "(data_Host_RTW_Depth:2 (data_hRTPDE_L1_RA:0x~D01, data_hRTPDE_L2_RA:0x~D02, data_hRTPTE_RA:0x~D04) )"
    "(data_gRA:0x~F5) (data_RPN:0x0000CD34)";

struct Mode_Row {
    int mode;
    const char *name;
    const char *pc_on, *pc_off;
    const char *data_on, *data_off;
    friend std::ostream &operator<<(std::ostream &out, const Mode_Row &row)
    {
        return out << row.mode << ' ' << row.name;
    }
};

const Mode_Row MODES[] = {
    // mode, name,                       instruction: on, off                data: on, off
    {0, "RADIX_MODE_NOT_YET_SET", NOTHING, NOTHING, NOTHING, NOTHING},
    {1, "NOT_Radix", NOTHING, NOTHING, NOTHING, NOTHING},
    {2, "OffsetReal", NOTHING, NOTHING, NOTHING, NOTHING},
    {3, "UPRTeq0_TI", NOTHING, NOTHING, NOTHING, NOTHING},
    {4, "UPRTeq0_TA_PLS", NOTHING, NOTHING, NOTHING, NOTHING},
    {5, "UPRTeq0_TA_SLS", NOTHING, NOTHING, NOTHING, NOTHING},
    {6, "UPRTeq1_TI", NOTHING, NOTHING, NOTHING, NOTHING},
    {7, "UPRTeq1_TA_PLS", NOTHING, NOTHING, NOTHING, NOTHING},
    {8, "UPRTeq1_TA_SLS", NOTHING, NOTHING, NOTHING, NOTHING},
    {9, "Unknown", NOTHING, NOTHING, NOTHING, NOTHING},
    {10, "Unknown", NOTHING, NOTHING, NOTHING, NOTHING},
    {11, "HypervisorRealModeHRMOR", PC_HOST_REAL, NOTHING, DATA_HOST_REAL, NOTHING},
    {12, "HypervisorRealModeNoHRMOR", NOTHING, NOTHING, NOTHING, NOTHING},
    {13, "VirtualRealMode", NOTHING, NOTHING, NOTHING, NOTHING},
    {14, "Z7_GuestHptOnHostHpt", PC_GUEST_HPT, NOTHING, DATA_GUEST_HPT, NOTHING},
    {15, "Z7_GuestRadixOnHostHpt", NOTHING, NOTHING, NOTHING, NOTHING},
    {16, "Z7_GuestRealOnHostHpt", NOTHING, PC_GUEST_REAL_HPT, DATA_GUEST_HPT, DATA_GUEST_REAL_HPT},
    {17, "Z7_GuestRadixOnHostHpt_HVeq1_LPIDneq0", NOTHING, NOTHING, NOTHING, NOTHING},
    {18, "Z7_GuestRadixOnHostHpt_HVeq1_LPIDeq0", NOTHING, NOTHING, NOTHING, NOTHING},
    {19, "Z7_HostHptSTEGroup", PC_HOST_HPT, NOTHING, DATA_HOST_HPT, NOTHING},
    {20, "Z7_HostHptShortVA", NOTHING, NOTHING, NOTHING, NOTHING},
    {21, "Z7_ProcessTableEntryHostHpt_Primary_LLP", NOTHING, NOTHING, NOTHING, NOTHING},
    {22, "Z7_ProcessTableEntryHostHpt_Secondary_LLP", NOTHING, NOTHING, NOTHING, NOTHING},
    {23, "Z7_GuestRadixOnHostRadix", PC_NESTED, NOTHING, DATA_NESTED, NOTHING},
    {24, "Z7_GuestRealOnHostRadix", PC_NESTED, PC_GUEST_REAL_RADIX, DATA_NESTED, DATA_GUEST_REAL_RADIX},
    {25, "Z7_HostRadixSingleLevel", PC_HOST_RADIX, NOTHING, DATA_HOST_RADIX, NOTHING},
    {26, "Z7_HostRadixProcessScoped", PC_HOST_RADIX, NOTHING, DATA_HOST_RADIX, NOTHING},
    {27, "Z7_HypervisorRadixSingleLevel", PC_HOST_RADIX, NOTHING, DATA_HOST_RADIX, NOTHING},
    {28, "Unknown", NOTHING, NOTHING, NOTHING, NOTHING},
    {29, "Z7_HypervisorRadixProcessScoped", PC_HOST_RADIX, NOTHING, DATA_HOST_RADIX, NOTHING},
    {30, "Z7_HostRadixSingleLevel_PR_0", PC_HOST_RADIX, NOTHING, DATA_HOST_RADIX, NOTHING},
    {31, "Z7_HostRadixSingleLevel_MSR_PR", PC_HOST_RADIX, NOTHING, DATA_HOST_RADIX, NOTHING},
    {32, "Z7_ProcessTableEntryRadix", NOTHING, NOTHING, NOTHING, NOTHING},
    {33, "Unknown", NOTHING, NOTHING, NOTHING, NOTHING},
    {34, "POSSIBLE_GUEST_Radix", NOTHING, NOTHING, NOTHING, NOTHING},
    {35, "POSSIBLE_HOST_Radix", NOTHING, NOTHING, NOTHING, NOTHING},
    {36, "POSSIBLE_HYPERVISOR_Radix", NOTHING, NOTHING, NOTHING, NOTHING},
    {37, "RDX_XLATE_MODE_LAST", NOTHING, NOTHING, NOTHING, NOTHING},
    {38, "Unknown", NOTHING, NOTHING, NOTHING, NOTHING},
};

class every_mode : public ::testing::TestWithParam<Mode_Row>
{
};

TEST_P(every_mode, has_its_name)
{
    const Mode_Row &row = GetParam();
    EXPECT_STREQ(get_xlate_type_string(static_cast<RDX_XLATE_MODE>(row.mode)), row.name);
}

TEST_P(every_mode, names_instruction_and_data_mode_separately)
{
    const Mode_Row &row = GetParam();
    Text_Streams streams;
    Node node = plain_node();
    node.pc_radix_type = static_cast<RDX_XLATE_MODE>(row.mode);
    EXPECT_THAT(streams.text_of(node),
                HasSubstr(std::string(" (xlatetype_I:") + row.name + ") (xlatetype_D:RADIX_MODE_NOT_YET_SET) ("));
    node.data_radix_type = node.pc_radix_type;
    node.pc_radix_type = NOT_Radix;
    EXPECT_THAT(streams.text_of(node),
                HasSubstr(std::string(" (xlatetype_I:NOT_Radix) (xlatetype_D:") + row.name + ") (pid:"));
}

TEST_P(every_mode, relocated_instruction_address_shows_its_items)
{
    EXPECT_EQ(sections_of(GetParam().mode, 1).instruction, full(GetParam().pc_on));
}

TEST_P(every_mode, real_instruction_address_shows_its_items)
{
    EXPECT_EQ(sections_of(GetParam().mode, 0).instruction, full(GetParam().pc_off));
}

TEST_P(every_mode, relocated_data_address_shows_its_items)
{
    EXPECT_EQ(sections_of(GetParam().mode, 1).data, full(GetParam().data_on));
}

TEST_P(every_mode, real_data_address_shows_its_items)
{
    EXPECT_EQ(sections_of(GetParam().mode, 0).data, full(GetParam().data_off));
}

TEST_P(every_mode, exception_leaves_the_data_group_empty)
{
    Node node = translated_node();
    node.info.except = 1;
    EXPECT_EQ(sections_of(GetParam().mode, 1, node).data, "");
    EXPECT_EQ(sections_of(GetParam().mode, 0, node).data, "");
    EXPECT_EQ(sections_of(GetParam().mode, 1, node).instruction, full(GetParam().pc_on));
}

INSTANTIATE_TEST_SUITE_P(mode, every_mode, ::testing::ValuesIn(MODES),
                         [](const auto &row) { return std::to_string(row.param.mode); });

TEST(mode_names, values_far_out_of_range_are_unknown)
{
    for (const unsigned value : {39u, 255u, 256u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_STREQ(get_xlate_type_string(static_cast<RDX_XLATE_MODE>(value)), "Unknown") << value;
}

TEST(mode_names, mode_out_of_range_shows_no_translation)
{
    Node node = translated_node();
    const unsigned mode = 0xFFFFFFFF;
    static_assert(sizeof mode == sizeof node.pc_radix_type);
    memcpy(&node.pc_radix_type, &mode, sizeof mode);
    memcpy(&node.data_radix_type, &mode, sizeof mode);
    node.PC_relocation = node.info.data_relocation = 1;
    EXPECT_EQ(sections_of(node).instruction, "");
    EXPECT_EQ(sections_of(node).data, "");
}

TEST(relocation, any_value_but_0_is_on)
{
    EXPECT_EQ(sections_of(11, 0x80000000).instruction, full(PC_HOST_REAL));
    EXPECT_EQ(sections_of(11, 2).data, full(DATA_HOST_REAL));
}

TEST(relocation, of_instruction_and_data_are_independent)
{
    Node node = translated_node();
    node.pc_radix_type = node.data_radix_type = Z7_GuestRealOnHostHpt;
    node.info.data_relocation = 1;
    EXPECT_EQ(sections_of(node).instruction, full(PC_GUEST_REAL_HPT));
    EXPECT_EQ(sections_of(node).data, full(DATA_GUEST_HPT));
}

TEST(translation, modes_of_instruction_and_data_are_independent)
{
    Node node = translated_node();
    node.pc_radix_type = Z7_GuestRadixOnHostRadix;
    node.data_radix_type = Z7_HostHptSTEGroup;
    node.PC_relocation = node.info.data_relocation = 1;
    EXPECT_EQ(sections_of(node).instruction, full(PC_NESTED));
    EXPECT_EQ(sections_of(node).data, full(DATA_HOST_HPT));
}

// ---- the instruction section as a whole ----------------------------------------------------------------------

TEST(instruction_section, relocated_modes_12_and_28_go_straight_to_the_completion)
{
    Text_Streams streams;
    for (int mode : {12, 28}) {
        Node node = translated_node();
        node.info.load = 0;
        node.PC_relocation = 1;
        node.pc_radix_type = static_cast<RDX_XLATE_MODE>(mode);
        EXPECT_THAT(streams.text_of(node), EndsWith("(nn:0) (done) \n"));
        node.done = 0;
        EXPECT_THAT(streams.text_of(node), EndsWith("(nn:0) (undone) \n"));
    }
}

TEST(instruction_section, nested_mode_without_relocation_shows_nothing)
{
    EXPECT_EQ(sections_of(23, 0).instruction, "");
}

TEST(instruction_section, exception_does_not_hide_it)
{
    Node node = translated_node();
    node.info.except = 1;
    EXPECT_EQ(sections_of(19, 1, node).instruction, full(PC_HOST_HPT));
}

// ---- differences between the two sections that readers rely on -----------------------------------------------

TEST(sections_differ, relocated_guest_real_on_hashed_table_is_shown_for_data_only)
{
    EXPECT_EQ(sections_of(16, 1).instruction, "");
    EXPECT_EQ(sections_of(16, 1).data, full(DATA_GUEST_HPT));
}

TEST(sections_differ, relocated_guest_real_on_hashed_table_shows_no_guest_real_address)
{
    EXPECT_THAT(sections_of(16, 1).data, Not(HasSubstr("gRA")));
    EXPECT_THAT(sections_of(16, 0).data, HasSubstr(full(", gRA:0x~F5, RPN:")));
}

TEST(sections_differ, host_real_has_a_page_number_for_data_only)
{
    EXPECT_THAT(sections_of(11, 1).instruction, Not(HasSubstr("RPN")));
    EXPECT_THAT(sections_of(11, 1).data, EndsWith("(data_RPN:0x0000CD34)"));
}

TEST(sections_differ, host_real_data_item_has_a_label_and_no_blank)
{
    EXPECT_EQ(sections_of(11, 1).instruction, full("(RA:0x~FACE) "));
    EXPECT_THAT(sections_of(11, 1).data, StartsWith(full("(data_RA:0x~DA7A)(")));
}

TEST(sections_differ, hashed_table_forms_of_data_continue_the_open_group)
{
    for (const auto &[mode, relocation] : {std::pair{14, 1u}, {16, 1u}, {19, 1u}, {16, 0u}}) {
        const std::string data = sections_of(mode, relocation).data;
        EXPECT_THAT(data, StartsWith(", VSID:0x")) << mode;
        EXPECT_EQ(data.find_first_of("()"), std::string::npos) << mode;
        EXPECT_NE(data.back(), ' ') << mode;
    }
    for (const auto &[mode, relocation] : {std::pair{14, 1u}, {19, 1u}, {16, 0u}}) {
        EXPECT_THAT(sections_of(mode, relocation).instruction, StartsWith("(VSID:0x")) << mode;
        EXPECT_THAT(sections_of(mode, relocation).instruction, EndsWith(") ")) << mode;
    }
}

TEST(sections_differ, guest_real_address_item_ends_in_a_blank_for_data_only)
{
    EXPECT_THAT(sections_of(24, 0).instruction, EndsWith(full("(iar_gRA:0x~C5)(iar_RPN:0x0000AB12)")));
    EXPECT_THAT(sections_of(24, 0).data, EndsWith(full("(data_gRA:0x~F5) (data_RPN:0x0000CD34)")));
}

TEST(sections_differ, page_number_is_lower_case_with_a_vsid_and_upper_case_alone)
{
    for (const auto &[mode, relocation] : {std::pair{14, 1u}, {19, 1u}, {16, 0u}}) {
        EXPECT_THAT(sections_of(mode, relocation).instruction, HasSubstr(" RPN:0x0000ab12")) << mode;
        EXPECT_THAT(sections_of(mode, relocation).data, HasSubstr(" RPN:0x0000cd34")) << mode;
    }
    for (const auto &[mode, relocation] : {std::pair{23, 1u}, {24, 1u}, {25, 1u}, {24, 0u}}) {
        EXPECT_THAT(sections_of(mode, relocation).instruction, EndsWith("(iar_RPN:0x0000AB12)")) << mode;
        EXPECT_THAT(sections_of(mode, relocation).data, EndsWith("(data_RPN:0x0000CD34)")) << mode;
    }
}

TEST(sections_differ, first_entry_of_the_fourth_block_is_mislabelled_for_the_instruction_only)
{
    Node node = translated_node();
    node.pc_host_walkdepth = node.data_host_walkdepth = 2;
    node.pc_guest_walkdepth = node.data_guest_walkdepth = 5;
    const Sections sections = sections_of(23, 1, node);
    const auto occurrences = [](const std::string &text, const std::string &part) {
        size_t count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++count;
        return count;
    };
    EXPECT_EQ(occurrences(sections.instruction, "(vhRTPTE_L2_RA:0x"), 1u);
    EXPECT_THAT(sections.instruction,
                HasSubstr(full("(iar_Host_RTWs_Block:4 (iar_hRTPDE_L1_RA:0x~A31)(vhRTPTE_L2_RA:0x~A34)"
                               "(iar_hRTPDE_L1_RA:0x~A31)")));
    EXPECT_EQ(occurrences(sections.instruction, "(iar_hRTPTE_L2_RA:0x"), 4u);
    EXPECT_EQ(occurrences(sections.data, "vhRTPTE"), 0u);
    EXPECT_THAT(sections.data,
                HasSubstr(full("(data_Host_RTWs_Block:4 (data_hRTPDE_L1_RA:0x~D31)(data_hRTPTE_L2_RA:0x~D34)"
                               "(data_hRTPDE_L1_RA:0x~D31)")));
    EXPECT_EQ(occurrences(sections.data, "(data_hRTPTE_L2_RA:0x"), 5u);
}

TEST(sections_differ, mislabelled_entry_needs_two_host_levels)
{
    Node node = translated_node();
    node.pc_guest_walkdepth = 5;
    for (uint8_t depth : std::initializer_list<uint8_t>{0, 1, 3, 4, 5}) {
        node.pc_host_walkdepth = depth;
        EXPECT_THAT(sections_of(23, 1, node).instruction, Not(HasSubstr("vhRTPTE"))) << int(depth);
    }
}

TEST(sections_differ, mislabelled_entry_is_not_in_the_last_block)
{
    Node node = translated_node();
    node.pc_host_walkdepth = 2;
    node.pc_guest_walkdepth = 4; // the fourth block is the last one
    EXPECT_THAT(sections_of(23, 1, node).instruction,
                HasSubstr(full("(iar_Host_RTWs_Block:4 (iar_hRTPDE_L1_RA:0x~A31)(iar_hRTPTE_L2_RA:0x~A34))")));
}

TEST(sections_differ, exception_hides_the_data_translation_only)
{
    Node node = translated_node();
    node.info.except = 1;
    EXPECT_EQ(sections_of(25, 1, node).instruction, full(PC_HOST_RADIX));
    EXPECT_EQ(sections_of(25, 1, node).data, "");
}

// ---- the data group ------------------------------------------------------------------------------------------

TEST(data_group, exception_leaves_address_and_closing_parenthesis)
{
    Text_Streams streams;
    Node node = translated_node();
    node.data_radix_type = Z7_HostHptSTEGroup;
    node.info.data_relocation = 1;
    node.info.except = 1;
    EXPECT_THAT(streams.text_of(node), EndsWith("(done) (DEA:0x0000000000002008) \n"));
}

TEST(data_group, hashed_table_form_stands_inside_the_group)
{
    Text_Streams streams;
    Node node = translated_node();
    node.data_radix_type = Z7_HostHptSTEGroup;
    node.info.data_relocation = 1;
    EXPECT_THAT(streams.text_of(node),
                EndsWith(full("(DEA:0x~2008, VSID:0x~FEDCBA, RPN:0x0000cd34, HostPageSize:2) \n")));
}

TEST(data_group, parenthesised_items_abut_the_address)
{
    Text_Streams streams;
    Node node = translated_node();
    node.data_radix_type = HypervisorRealModeHRMOR;
    node.info.data_relocation = 1;
    EXPECT_THAT(streams.text_of(node), EndsWith(full("(DEA:0x~2008(data_RA:0x~DA7A)(data_RPN:0x0000CD34)) \n")));
}

TEST(data_group, guest_page_size_is_that_of_the_operation)
{
    EXPECT_THAT(sections_of(14, 1).data, EndsWith("GuestPageSize:4"));
}

// ---- one host walk -------------------------------------------------------------------------------------------

struct Walk_Row {
    uint8_t depth;
    const char *instruction; // the depth group
    const char *data;
    friend std::ostream &operator<<(std::ostream &out, const Walk_Row &row)
    {
        return out << "depth " << +row.depth;
    }
};

const Walk_Row HOST_WALK_ROWS[] = {
    {0, "(iar_Host_RTW_Depth:255 )", "(data_Host_RTW_Depth:255 )"},
    {1, "(iar_Host_RTW_Depth:0 )", "(data_Host_RTW_Depth:0 )"},
    {2, "(iar_Host_RTW_Depth:1 (iar_hRTPDE_L1_RA:0x~A01, iar_hRTPTE_RA:0x~A04) )",
     "(data_Host_RTW_Depth:1 (data_hRTPDE_L1_RA:0x~D01, data_hRTPTE_RA:0x~D04) )"},
    {3, "(iar_Host_RTW_Depth:2 (iar_hRTPDE_L1_RA:0x~A01, iar_hRTPDE_L2_RA:0x~A02, iar_hRTPTE_RA:0x~A04) )",
     "(data_Host_RTW_Depth:2 (data_hRTPDE_L1_RA:0x~D01, data_hRTPDE_L2_RA:0x~D02, data_hRTPTE_RA:0x~D04) )"},
    {4,
     "(iar_Host_RTW_Depth:3 (iar_hRTPDE_L1_RA:0x~A01, iar_hRTPDE_L2_RA:0x~A02, iar_hRTPDE_L3_RA:0x~A03, "
     "iar_hRTPTE_RA:0x~A04) )",
     "(data_Host_RTW_Depth:3 (data_hRTPDE_L1_RA:0x~D01, data_hRTPDE_L2_RA:0x~D02, data_hRTPDE_L3_RA:0x~D03, "
     "data_hRTPTE_RA:0x~D04) )"},
    {5, "(iar_Host_RTW_Depth:4 )", "(data_Host_RTW_Depth:4 )"},
    {255, "(iar_Host_RTW_Depth:254 )", "(data_Host_RTW_Depth:254 )"},
};

class host_walk : public ::testing::TestWithParam<Walk_Row>
{
};

TEST_P(host_walk, of_a_relocated_address_shows_its_levels)
{
    Node node = translated_node();
    node.pc_host_walkdepth = node.data_host_walkdepth = GetParam().depth;
    const Sections sections = sections_of(25, 1, node);
    EXPECT_EQ(sections.instruction, "(HostPageSize:1) " + full(GetParam().instruction) + "(iar_RPN:0x0000AB12)");
    EXPECT_EQ(sections.data, "(HostPageSize:2) " + full(GetParam().data) + "(data_RPN:0x0000CD34)");
}

TEST_P(host_walk, of_a_guest_real_address_shows_its_levels)
{
    Node node = translated_node();
    node.pc_host_walkdepth = node.data_host_walkdepth = GetParam().depth;
    const Sections sections = sections_of(24, 0, node);
    EXPECT_EQ(sections.instruction, "(HostPageSize:1, GuestPageSize:3) " + full(GetParam().instruction) +
                                        full("(iar_gRA:0x~C5)(iar_RPN:0x0000AB12)"));
    EXPECT_EQ(sections.data, "(HostPageSize:2, GuestPageSize:4) " + full(GetParam().data) +
                                 full("(data_gRA:0x~F5) (data_RPN:0x0000CD34)"));
}

INSTANTIATE_TEST_SUITE_P(depth, host_walk, ::testing::ValuesIn(HOST_WALK_ROWS),
                         [](const auto &row) { return std::to_string(row.param.depth); });

TEST(host_walk_items, have_a_blank_before_the_closing_parenthesis_and_none_before_the_page_number)
{
    Node node = translated_node();
    node.pc_host_walkdepth = 4;
    EXPECT_EQ(sections_of(26, 1, node).instruction,
              full("(HostPageSize:1) (iar_Host_RTW_Depth:3 (iar_hRTPDE_L1_RA:0x~A01, iar_hRTPDE_L2_RA:0x~A02, "
                   "iar_hRTPDE_L3_RA:0x~A03, iar_hRTPTE_RA:0x~A04) )(iar_RPN:0x0000AB12)"));
}

TEST(host_walk_items, guest_depth_does_not_matter)
{
    Node node = translated_node();
    for (uint8_t depth : std::initializer_list<uint8_t>{0, 1, 5, 200}) {
        node.pc_guest_walkdepth = node.data_guest_walkdepth = depth;
        EXPECT_EQ(sections_of(27, 1, node).instruction, full(PC_HOST_RADIX));
        EXPECT_EQ(sections_of(24, 0, node).data, full(DATA_GUEST_REAL_RADIX));
    }
}

TEST(page_sizes, are_decimals_of_eight_bits)
{
    Node node = translated_node();
    node.PC_pagesize = 255;
    node.PC_gpagesize = 128;
    node.info.data_pagesize = 0;
    node.info.data_gpagesize = 254;
    EXPECT_THAT(sections_of(14, 1, node).instruction, EndsWith(", HostPageSize:255, GuestPageSize:128) "));
    EXPECT_THAT(sections_of(14, 1, node).data, EndsWith(", HostPageSize:0, GuestPageSize:254"));
}

TEST(addresses, have_all_their_digits)
{
    Node node = translated_node();
    node.PC_VSID = node.info.data_VSID = 0xFEDCBA9876543210;
    node.PC_RPN = node.info.data_RPN = 0xFEDCBA98;
    EXPECT_EQ(sections_of(19, 1, node).instruction, "(VSID:0xFEDCBA9876543210, RPN:0xfedcba98, HostPageSize:1) ");
    EXPECT_EQ(sections_of(19, 1, node).data, ", VSID:0xFEDCBA9876543210, RPN:0xfedcba98, HostPageSize:2");
    EXPECT_THAT(sections_of(25, 1, node).data, EndsWith("(data_RPN:0xFEDCBA98)"));
}

// ---- nested walks --------------------------------------------------------------------------------------------

// The blocks of host walks, between the guest's walk and the page number.
std::string blocks(uint8_t host_depth, uint8_t guest_depth, bool data, int mode = 23)
{
    Node node = translated_node();
    node.pc_host_walkdepth = node.data_host_walkdepth = host_depth;
    node.pc_guest_walkdepth = node.data_guest_walkdepth = guest_depth;
    const Sections sections = sections_of(mode, 1, node);
    const std::string text = data ? sections.data : sections.instruction;
    const std::string before = full(data ? "data_gRA:0x~F5) ) " : "iar_gRA:0x~C5) ) ");
    const std::string after = data ? "(data_RPN:0x0000CD34)" : "(iar_RPN:0x0000AB12)";
    const size_t first = text.find(before);
    if (first == std::string::npos || !text.ends_with(after))
        return "no such place in: " + text;
    const size_t start = first + before.size();
    return text.substr(start, text.size() - start - after.size());
}

TEST(nested_walk, one_guest_access_shows_only_the_last_block)
{
    EXPECT_EQ(blocks(4, 1, false), full("(iar_Host_RTWs_Block:1 (iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)"
                                        "(iar_hRTPDE_L3_RA:0x~A03)(iar_hRTPTE_L4_RA:0x~A04))"));
    EXPECT_EQ(blocks(4, 1, true),
              full("(data_Host_RTWs_Block:1 (data_hRTPDE_L1_RA:0x~D01)(data_hRTPDE_L2_RA:0x~D02)"
                   "(data_hRTPDE_L3_RA:0x~D03)(data_hRTPTE_L4_RA:0x~D04))"));
}

TEST(nested_walk, blocks_before_the_last_list_their_own_depth_and_all_greater_ones)
{
    EXPECT_EQ(blocks(2, 2, false),
              full("(iar_Host_RTWs_Block:1 (iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPTE_L2_RA:0x~A04)"
                   "(iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPTE_L3_RA:0x~A04)"
                   "(iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPDE_L3_RA:0x~A03)"
                   "(iar_hRTPTE_L4_RA:0x~A04)(iar_hRTW_host_Block1_RA:0x~B0))"
                   "(iar_Host_RTWs_Block:2 (iar_hRTPDE_L1_RA:0x~A11)(iar_hRTPTE_L2_RA:0x~A14))"));
    EXPECT_EQ(
        blocks(3, 2, false),
        full("(iar_Host_RTWs_Block:1 (iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPTE_L3_RA:0x~A04)"
             "(iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPDE_L3_RA:0x~A03)"
             "(iar_hRTPTE_L4_RA:0x~A04)(iar_hRTW_host_Block1_RA:0x~B0))"
             "(iar_Host_RTWs_Block:2 (iar_hRTPDE_L1_RA:0x~A11)(iar_hRTPDE_L2_RA:0x~A12)"
             "(iar_hRTPTE_L3_RA:0x~A14))"));
    EXPECT_EQ(
        blocks(4, 2, false),
        full("(iar_Host_RTWs_Block:1 (iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPDE_L3_RA:0x~A03)"
             "(iar_hRTPTE_L4_RA:0x~A04)(iar_hRTW_host_Block1_RA:0x~B0))"
             "(iar_Host_RTWs_Block:2 (iar_hRTPDE_L1_RA:0x~A11)(iar_hRTPDE_L2_RA:0x~A12)"
             "(iar_hRTPDE_L3_RA:0x~A13)(iar_hRTPTE_L4_RA:0x~A14))"));
}

TEST(nested_walk, host_depth_out_of_range_shows_blocks_without_table_entries)
{
    for (uint8_t depth : std::initializer_list<uint8_t>{0, 1, 5, 255}) {
        EXPECT_EQ(blocks(depth, 3, false), full("(iar_Host_RTWs_Block:1 (iar_hRTW_host_Block1_RA:0x~B0))"
                                                "(iar_Host_RTWs_Block:2 (iar_hRTW_host_Block2_RA:0x~B1))"
                                                "(iar_Host_RTWs_Block:3 )"));
        EXPECT_EQ(blocks(depth, 3, true), full("(data_Host_RTWs_Block:1 (data_hRTW_host_Block1_RA:0x~E0))"
                                               "(data_Host_RTWs_Block:2 (data_hRTW_host_Block2_RA:0x~E1))"
                                               "(data_Host_RTWs_Block:3 )"));
    }
}

TEST(nested_walk, five_guest_accesses_on_two_levels_show_four_blocks_of_nine_and_a_last_one_of_two)
{
    EXPECT_EQ(blocks(2, 5, false),
              full("(iar_Host_RTWs_Block:1 (iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPTE_L2_RA:0x~A04)"
                   "(iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPTE_L3_RA:0x~A04)"
                   "(iar_hRTPDE_L1_RA:0x~A01)(iar_hRTPDE_L2_RA:0x~A02)(iar_hRTPDE_L3_RA:0x~A03)"
                   "(iar_hRTPTE_L4_RA:0x~A04)(iar_hRTW_host_Block1_RA:0x~B0))"
                   "(iar_Host_RTWs_Block:2 (iar_hRTPDE_L1_RA:0x~A11)(iar_hRTPTE_L2_RA:0x~A14)"
                   "(iar_hRTPDE_L1_RA:0x~A11)(iar_hRTPDE_L2_RA:0x~A12)(iar_hRTPTE_L3_RA:0x~A14)"
                   "(iar_hRTPDE_L1_RA:0x~A11)(iar_hRTPDE_L2_RA:0x~A12)(iar_hRTPDE_L3_RA:0x~A13)"
                   "(iar_hRTPTE_L4_RA:0x~A14)(iar_hRTW_host_Block2_RA:0x~B1))"
                   "(iar_Host_RTWs_Block:3 (iar_hRTPDE_L1_RA:0x~A21)(iar_hRTPTE_L2_RA:0x~A24)"
                   "(iar_hRTPDE_L1_RA:0x~A21)(iar_hRTPDE_L2_RA:0x~A22)(iar_hRTPTE_L3_RA:0x~A24)"
                   "(iar_hRTPDE_L1_RA:0x~A21)(iar_hRTPDE_L2_RA:0x~A22)(iar_hRTPDE_L3_RA:0x~A23)"
                   "(iar_hRTPTE_L4_RA:0x~A24)(iar_hRTW_host_Block3_RA:0x~B2))"
                   "(iar_Host_RTWs_Block:4 (iar_hRTPDE_L1_RA:0x~A31)(vhRTPTE_L2_RA:0x~A34)"
                   "(iar_hRTPDE_L1_RA:0x~A31)(iar_hRTPDE_L2_RA:0x~A32)(iar_hRTPTE_L3_RA:0x~A34)"
                   "(iar_hRTPDE_L1_RA:0x~A31)(iar_hRTPDE_L2_RA:0x~A32)(iar_hRTPDE_L3_RA:0x~A33)"
                   "(iar_hRTPTE_L4_RA:0x~A34)(iar_hRTW_host_Block4_RA:0x~B3))"
                   "(iar_Host_RTWs_Block:5 (iar_hRTPDE_L1_RA:0x~A41)(iar_hRTPTE_L2_RA:0x~A44))"));
}

TEST(nested_walk, of_data_has_the_same_blocks_under_its_own_labels)
{
    EXPECT_EQ(blocks(2, 5, true),
              full("(data_Host_RTWs_Block:1 (data_hRTPDE_L1_RA:0x~D01)(data_hRTPTE_L2_RA:0x~D04)"
                   "(data_hRTPDE_L1_RA:0x~D01)(data_hRTPDE_L2_RA:0x~D02)(data_hRTPTE_L3_RA:0x~D04)"
                   "(data_hRTPDE_L1_RA:0x~D01)(data_hRTPDE_L2_RA:0x~D02)(data_hRTPDE_L3_RA:0x~D03)"
                   "(data_hRTPTE_L4_RA:0x~D04)(data_hRTW_host_Block1_RA:0x~E0))"
                   "(data_Host_RTWs_Block:2 (data_hRTPDE_L1_RA:0x~D11)(data_hRTPTE_L2_RA:0x~D14)"
                   "(data_hRTPDE_L1_RA:0x~D11)(data_hRTPDE_L2_RA:0x~D12)(data_hRTPTE_L3_RA:0x~D14)"
                   "(data_hRTPDE_L1_RA:0x~D11)(data_hRTPDE_L2_RA:0x~D12)(data_hRTPDE_L3_RA:0x~D13)"
                   "(data_hRTPTE_L4_RA:0x~D14)(data_hRTW_host_Block2_RA:0x~E1))"
                   "(data_Host_RTWs_Block:3 (data_hRTPDE_L1_RA:0x~D21)(data_hRTPTE_L2_RA:0x~D24)"
                   "(data_hRTPDE_L1_RA:0x~D21)(data_hRTPDE_L2_RA:0x~D22)(data_hRTPTE_L3_RA:0x~D24)"
                   "(data_hRTPDE_L1_RA:0x~D21)(data_hRTPDE_L2_RA:0x~D22)(data_hRTPDE_L3_RA:0x~D23)"
                   "(data_hRTPTE_L4_RA:0x~D24)(data_hRTW_host_Block3_RA:0x~E2))"
                   "(data_Host_RTWs_Block:4 (data_hRTPDE_L1_RA:0x~D31)(data_hRTPTE_L2_RA:0x~D34)"
                   "(data_hRTPDE_L1_RA:0x~D31)(data_hRTPDE_L2_RA:0x~D32)(data_hRTPTE_L3_RA:0x~D34)"
                   "(data_hRTPDE_L1_RA:0x~D31)(data_hRTPDE_L2_RA:0x~D32)(data_hRTPDE_L3_RA:0x~D33)"
                   "(data_hRTPTE_L4_RA:0x~D34)(data_hRTW_host_Block4_RA:0x~E3))"
                   "(data_Host_RTWs_Block:5 (data_hRTPDE_L1_RA:0x~D41)(data_hRTPTE_L2_RA:0x~D44))"));
}

TEST(nested_walk, five_guest_accesses_on_four_levels_use_every_host_walk)
{
    const std::string text = blocks(4, 5, true);
    for (int walk = 0; walk < HOST_WALKS; ++walk) {
        const std::string n = std::to_string(walk);
        EXPECT_THAT(text,
                    HasSubstr(full("(data_Host_RTWs_Block:" + std::to_string(walk + 1) +
                                   " (data_hRTPDE_L1_RA:0x~D" + n + "1)(data_hRTPDE_L2_RA:0x~D" + n +
                                   "2)(data_hRTPDE_L3_RA:0x~D" + n + "3)(data_hRTPTE_L4_RA:0x~D" + n + "4)")));
    }
    EXPECT_THAT(text, EndsWith(full("(data_hRTPTE_L4_RA:0x~D44))")));
}

TEST(nested_walk, last_block_has_no_host_real_address)
{
    for (uint8_t guest_depth = 1; guest_depth <= 5; ++guest_depth) {
        const std::string text = blocks(4, guest_depth, false);
        const std::string last = text.substr(text.rfind("(iar_Host_RTWs_Block:"));
        EXPECT_THAT(last, StartsWith("(iar_Host_RTWs_Block:" + std::to_string(guest_depth) + " "));
        EXPECT_THAT(last, Not(HasSubstr("host_Block")));
    }
}

TEST(nested_walk, of_relocated_mode_24_is_that_of_mode_23)
{
    for (bool data : {false, true})
        EXPECT_EQ(blocks(3, 4, data, 24), blocks(3, 4, data, 23));
}

TEST(nested_walk, never_shows_the_root_of_the_guests_tree)
{
    EXPECT_THAT(sections_of(23, 1).instruction, Not(HasSubstr("C0")));
    EXPECT_THAT(sections_of(23, 1).data, Not(HasSubstr("F0")));
}

TEST(nested_walk, guest_depth_out_of_range_reads_nothing_outside_the_walks_and_ends_the_line)
{
    Text_Streams streams;
    for (unsigned depth : {0u, 6u, 7u, 128u, 255u}) {
        Node node = translated_node();
        node.pc_radix_type = node.data_radix_type = Z7_GuestRadixOnHostRadix;
        node.PC_relocation = node.info.data_relocation = 1;
        node.pc_host_walkdepth = node.data_host_walkdepth = 4;
        node.pc_guest_walkdepth = node.data_guest_walkdepth = static_cast<uint8_t>(depth);
        const std::string line = streams.text_of(node);
        EXPECT_EQ(line.find('\n'), line.size() - 1) << depth;
        EXPECT_THAT(line, HasSubstr("(iar_RPN:0x0000AB12)(done) (DEA:")) << depth;
        EXPECT_THAT(line, EndsWith("(data_RPN:0x0000CD34)) \n")) << depth;
    }
}

} // namespace
