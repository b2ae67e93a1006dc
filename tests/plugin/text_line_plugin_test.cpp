// The text line of an instruction, item by item.
#include "text_nodes.h"

#include "text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace
{

TEST(text_line, plain_instruction_has_exactly_these_items)
{
    EXPECT_EQ(text_of(plain_node()), "(seq:7,tid:0) "
                                     "(xlatetype_I:RADIX_MODE_NOT_YET_SET) "
                                     "(xlatetype_D:RADIX_MODE_NOT_YET_SET) "
                                     "(pid:0,lpid:0,ptcr:0x0000000000000000) "
                                     "(USER,CYCLE) "
                                     "(commit:1)(instbody:0x60000000) "
                                     "{name:} "
                                     "(I:0) (N:0) (T:0) "
                                     "(PC:0x0000000000001000) (nextPC:0x0000000000001004) "
                                     "(done) \n");
}

TEST(text_line, items_stand_in_this_order)
{
    Node left = plain_node();
    left.seq = 8;
    Node right = plain_node();
    right.seq = 9;
    Node node = node_with_access();
    node.proc_index = 0;
    node.seq = 6;
    node.pc_radix_type = HypervisorRealModeHRMOR;
    node.data_radix_type = Z7_HostHptSTEGroup;
    node.pid = 11;
    node.lpid = 12;
    node.ptcr = 0xC0000C;
    node.info.kernel = 1;
    node.simple = 1;
    node.info.instbody = 0xE864000A;
    set_name(node, "ld r3,8(r4)");
    node.I = node.N = node.T = 1;
    node.nn = 3;
    node.PC = 0xC000000000ABCDEC;
    node.nextPC = 0xFFFFFFFFFFFFFFFF;
    node.PC_relocation = 1;
    node.PC_RA = 0xABCDEC;
    node.info.branch = 'C';
    node.info.taken = 'Y';
    node.info.string = 1;
    node.info.str_len = 12;
    node.terminated_seq = 99;
    node.reg_in.gpr_num = 1;
    node.reg_in.gpr_index[0] = 4;
    node.reg_in.gpr_value[0] = 0xAB;
    node.reg_out.spr_num = 1;
    node.reg_out.spr_index[0] = 8;
    node.reg_out.spr_value[0] = 0xCD;
    node.left = &left;
    node.right = &right;
    EXPECT_EQ(text_of(node), "(seq:6,tid:0) "
                             "(xlatetype_I:HypervisorRealModeHRMOR) "
                             "(xlatetype_D:Z7_HostHptSTEGroup) "
                             "(pid:11,lpid:12,ptcr:0x0000000000C0000C) "
                             "(KERN,SIMP) "
                             "(commit:1)(instbody:0xe864000a) "
                             "{name:ld r3,8(r4)} "
                             "(I:1) (N:1) (T:1) "
                             "(PC:0xC000000000ABCDEC) (nextPC:0xFFFFFFFFFFFFFFFF) "
                             "(nn:3) "
                             "(RA:0x0000000000ABCDEC) "
                             "(done) "
                             "(branch taken) "
                             "(DEA:0x0000000000ABCDEF) "
                             "(len:12) "
                             "(terminated by 99) "
                             "(Input Reg 0(r4):0x00000000000000AB) "
                             "(Output Reg 0(s8):0x00000000000000CD) "
                             "(left:8) (right:9)\n");
}

TEST(text_line, sequence_number_is_signed)
{
    Node node = plain_node();
    node.seq = 0xFFFFFFFFFFFFFFFF;
    EXPECT_THAT(text_of(node), StartsWith("(seq:-1,tid:0) "));
    node.seq = 0x7FFFFFFFFFFFFFFF;
    EXPECT_THAT(text_of(node), StartsWith("(seq:9223372036854775807,tid:0) "));
}

TEST(text_line, partition_registers_are_printed_signed_and_in_upper_case)
{
    Node node = plain_node();
    node.pid = 0x80000000;
    node.lpid = 0x8000000000000000;
    node.ptcr = 0xFEDCBA9876543210;
    EXPECT_THAT(text_of(node), HasSubstr(" (pid:-2147483648,lpid:-9223372036854775808,ptcr:0xFEDCBA9876543210) ("));
}

TEST(text_line, privilege_and_simulation_mode_are_told_apart)
{
    Node node = plain_node();
    node.info.kernel = 1;
    EXPECT_THAT(text_of(node), HasSubstr(" (KERN,CYCLE) (commit:"));
    node.info.kernel = 0;
    node.simple = 7;
    EXPECT_THAT(text_of(node), HasSubstr(" (USER,SIMP) (commit:"));
}

TEST(text_line, no_blank_stands_between_commit_flag_and_instruction_word)
{
    Node node = plain_node();
    node.commit = 0;
    node.info.instbody = SIM_SUPPORT_NOP;
    EXPECT_THAT(text_of(node), HasSubstr(") (commit:0)(instbody:0x7eb5ab78) {name:"));
}

TEST(text_line, truth_values_are_printed_as_they_are_stored)
{
    Node node = plain_node();
    node.commit = 0xFFFFFFFF;
    node.I = 2;
    node.N = 0x80000000;
    node.T = 10;
    const std::string line = text_of(node);
    EXPECT_THAT(line, HasSubstr(" (commit:-1)(instbody:"));
    EXPECT_THAT(line, HasSubstr(" (I:2) (N:-2147483648) (T:10) "));
}

TEST(text_line, name_stands_in_braces_as_it_is)
{
    Node node = plain_node();
    set_name(node, "lvx v1,r2,r3 # %s %n {(\xC3\xA4");
    EXPECT_THAT(text_of(node), HasSubstr(" {name:lvx v1,r2,r3 # %s %n {(\xC3\xA4} (I:0) "));
}

TEST(text_line, longest_name_is_complete)
{
    Node node = plain_node();
    const std::string name(INST_NAME_SIZE - 1, 'x');
    set_name(node, name.c_str());
    EXPECT_THAT(text_of(node), HasSubstr(" {name:" + name + "} (I:0) "));
}

TEST(text_line, addresses_have_sixteen_upper_case_digits)
{
    Node node = plain_node();
    node.PC = 0xFEDCBA9876543210;
    node.nextPC = 0;
    EXPECT_THAT(text_of(node), HasSubstr(" (PC:0xFEDCBA9876543210) (nextPC:0x0000000000000000) (done) "));
}

struct Flag_Case {
    boolean i, n, t;
    const char *shown; // between the next address and the completion
};

TEST(text_line, flags_select_node_number_and_address_translation)
{
    const Flag_Case cases[] = {
        {0, 0, 0, ""},
        {0, 0, 1, "(nn:200) "},
        {0, 1, 0, "(nn:200) (RA:0x000000000000FACE) "},
        {0, 1, 1, "(nn:200) "},
        {1, 0, 0, "(RA:0x000000000000FACE) "},
        {1, 0, 1, "(nn:200) (RA:0x000000000000FACE) "},
        {1, 1, 0, "(nn:200) (RA:0x000000000000FACE) "},
        {1, 1, 1, "(nn:200) (RA:0x000000000000FACE) "},
        {0, 2, 4, "(nn:200) "}, // any non-zero value is true
        {4, 0, 0, "(RA:0x000000000000FACE) "},
    };
    for (const Flag_Case &c : cases) {
        Node node = plain_node();
        node.PC_relocation = 1;
        node.pc_radix_type = HypervisorRealModeHRMOR;
        node.PC_RA = 0xFACE;
        node.nn = 200;
        node.I = c.i;
        node.N = c.n;
        node.T = c.t;
        EXPECT_THAT(text_of(node), EndsWith(std::string(" (nextPC:0x0000000000001004) ") + c.shown + "(done) \n"))
            << "I " << c.i << " N " << c.n << " T " << c.t;
    }
}

TEST(text_line, sequential_instruction_has_neither_node_number_nor_translation)
{
    Node node = plain_node();
    node.PC_relocation = 1;
    node.pc_radix_type = HypervisorRealModeHRMOR;
    EXPECT_THAT(text_of(node), Not(HasSubstr("(nn:")));
    EXPECT_THAT(text_of(node), Not(HasSubstr("(RA:")));
}

TEST(text_line, untaken_branch_has_a_node_number_but_no_translation)
{
    Node node = plain_node();
    node.PC_relocation = 1;
    node.pc_radix_type = HypervisorRealModeHRMOR;
    node.N = node.T = 1;
    EXPECT_THAT(text_of(node), HasSubstr("(nn:0) "));
    EXPECT_THAT(text_of(node), Not(HasSubstr("(RA:")));
}

TEST(text_line, completion_says_done_or_undone)
{
    Node node = plain_node();
    node.done = 0;
    EXPECT_THAT(text_of(node), EndsWith(") (undone) \n"));
    node.done = 2;
    EXPECT_THAT(text_of(node), EndsWith(") (done) \n"));
}

struct Branch_Case {
    char branch, taken;
    const char *shown;
};

TEST(text_line, branch_outcome_depends_on_both_letters)
{
    const Branch_Case cases[] = {
        {'?', '?', ""},
        {'?', 'Y', ""},
        {'?', 'X', ""},
        {'C', 'Y', "(branch taken) "},
        {'C', 'N', "(branch untaken) "},
        {'U', 'Y', "(branch taken) "},
        {'U', 'N', "(branch untaken) "},
        {'C', '?', "(unknown) "},
        {'C', 'X', "(unknown) "},
        {'U', 'y', "(unknown) "},
        {'U', '\0', "(unknown) "},
        {'\0', 'Y', "(branch taken) "},
        {'x', 'N', "(branch untaken) "},
    };
    for (const Branch_Case &c : cases) {
        Node node = plain_node();
        node.info.branch = c.branch;
        node.info.taken = c.taken;
        EXPECT_THAT(text_of(node), EndsWith(std::string("4) (done) ") + c.shown + "\n"))
            << "branch " << c.branch << " taken " << c.taken;
    }
}

TEST(text_line, load_store_and_cache_show_a_valid_data_address)
{
    for (boolean First_OP_Info::*kind : {&First_OP_Info::load, &First_OP_Info::store, &First_OP_Info::cache}) {
        Node node = plain_node();
        node.info.data_addr_valid = 1;
        node.info.data_addr = 0xFEDCBA9876543210;
        node.info.*kind = 1;
        EXPECT_THAT(text_of(node), EndsWith("(done) (DEA:0xFEDCBA9876543210) \n"));
    }
}

TEST(text_line, store_without_a_valid_address_has_no_data_group_at_all)
{
    Node node = node_with_access();
    node.info.load = 0;
    node.info.store = 1;
    node.info.data_addr_valid = 0;
    node.data_radix_type = HypervisorRealModeHRMOR;
    node.info.data_relocation = 1;
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
}

TEST(text_line, address_of_neither_load_store_nor_cache_is_not_shown)
{
    Node node = node_with_access();
    node.info.load = 0;
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
}

TEST(text_line, string_length_is_shown_unless_unknown)
{
    Node node = plain_node();
    node.info.string = 1;
    node.info.str_len = 0;
    EXPECT_THAT(text_of(node), EndsWith("(done) (len:0) \n"));
    node.info.str_len = 65534;
    EXPECT_THAT(text_of(node), EndsWith("(done) (len:65534) \n"));
    node.info.str_len = UNKNOWN_STRING_LENGTH;
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
}

TEST(text_line, length_of_no_string_instruction_is_not_shown)
{
    Node node = plain_node();
    node.info.str_len = 5;
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
}

TEST(text_line, stored_terminator_wins_over_the_terminating_node)
{
    Node terminator = plain_node();
    terminator.seq = 20;
    Node node = plain_node();
    node.terminated_seq = 10;
    node.terminated_by = &terminator;
    node.T = 1;
    EXPECT_THAT(text_of(node), EndsWith("(done) (terminated by 10) \n"));
}

TEST(text_line, stored_terminator_is_shown_without_termination_flag)
{
    Node node = plain_node();
    node.terminated_seq = 0xFFFFFFFFFFFFFFFF;
    EXPECT_THAT(text_of(node), EndsWith("(done) (terminated by -1) \n"));
}

TEST(text_line, terminating_node_is_shown_only_with_termination_flag)
{
    Node terminator = plain_node();
    terminator.seq = 20;
    Node node = plain_node();
    node.terminated_by = &terminator;
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
    node.T = 1;
    EXPECT_THAT(text_of(node), EndsWith("(done) (terminated by 20) \n"));
    node.terminated_by = nullptr;
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
}

TEST(text_line, terminating_node_0_is_shown)
{
    Node terminator = plain_node();
    terminator.seq = 0;
    Node node = plain_node();
    node.terminated_by = &terminator;
    node.T = 1;
    EXPECT_THAT(text_of(node), EndsWith("(done) (terminated by 0) \n"));
}

TEST(text_line, neighbours_end_the_line)
{
    Node left = plain_node();
    left.seq = 0xFFFFFFFFFFFFFFFE;
    Node right = plain_node();
    right.seq = 0;
    Node node = plain_node();
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
    node.right = &right;
    EXPECT_THAT(text_of(node), EndsWith("(done) (right:0)\n"));
    node.left = &left;
    EXPECT_THAT(text_of(node), EndsWith("(done) (left:-2) (right:0)\n"));
    node.right = nullptr;
    EXPECT_THAT(text_of(node), EndsWith("(done) (left:-2) \n"));
}

// ---- registers -----------------------------------------------------------------------------------------------

// Every class full, with numbers and values that tell class, side and place.
Plugin_Inst_Registers full_registers(uint64_t side)
{
    Plugin_Inst_Registers r{};
    r.gpr_num = MAX_GPRS;
    r.fpr_num = MAX_FPRS;
    r.spr_num = MAX_SPRS;
    r.vsx_num = MAX_VSXRS;
    r.vmx_num = MAX_VMXRS;
    for (int i = 0; i < MAX_GPRS; ++i)
        r.gpr_index[i] = 100 + i, r.gpr_value[i] = side + 0x100u + static_cast<unsigned>(i);
    for (int i = 0; i < MAX_FPRS; ++i)
        r.fpr_index[i] = 200 + i, r.fpr_value[i] = side + 0x200u + static_cast<unsigned>(i);
    for (int i = 0; i < MAX_SPRS; ++i)
        r.spr_index[i] = 300 + i, r.spr_value[i] = side + 0x300u + static_cast<unsigned>(i);
    for (int i = 0; i < MAX_VSXRS; ++i)
        r.vsx_index[i] = 400 + i, r.vsx_value[i] = {{side + 0x400u + static_cast<unsigned>(i), 0x4A}};
    for (int i = 0; i < MAX_VMXRS; ++i)
        r.vmx_index[i] = 500 + i, r.vmx_value[i] = {{side + 0x500u + static_cast<unsigned>(i), 0x5A}};
    return r;
}

// The same registers as the line shows them; `digit` is the side's hexadecimal digit, a letter.
std::string full_registers_text(const std::string &side, char digit)
{
    const char small_digit = static_cast<char>(digit - 'A' + 'a');
    const char *const hex = "0123456789ABCDEF";
    std::string text;
    int ordinal = 0;
    const auto item = [&](char letter, int number, const std::string &value) {
        text += "(" + side + " Reg " + std::to_string(ordinal++) + "(" + letter + std::to_string(number) + "):0x" +
                value + ") ";
    };
    const auto tail = [&](char kind, int i) { return std::string() + digit + kind + hex[i / 16] + hex[i % 16]; };
    const auto small_tail = [&](char kind, int i) { return std::string() + small_digit + kind + '0' + hex[i]; };
    for (int i = 0; i < 32; ++i)
        item('r', 100 + i, "000000000000" + tail('1', i));
    for (int i = 0; i < 4; ++i)
        item('f', 200 + i, "000000000000" + tail('2', i));
    for (int i = 0; i < 6; ++i)
        item('s', 300 + i, "000000000000" + tail('3', i));
    for (int i = 0; i < 4; ++i)
        item('v', 500 + i, "000000000000005A000000000000" + small_tail('5', i));
    for (int i = 0; i < 4; ++i)
        item('v', 400 + i, "000000000000004A000000000000" + small_tail('4', i));
    return text;
}

TEST(text_registers, ordinals_run_through_the_classes)
{
    Node node = plain_node();
    node.reg_in.gpr_num = 2;
    node.reg_in.gpr_index[0] = 31;
    node.reg_in.gpr_value[0] = 0xFEDCBA9876543210;
    node.reg_in.gpr_index[1] = 0;
    node.reg_in.fpr_num = 1;
    node.reg_in.fpr_index[0] = 13;
    node.reg_in.fpr_value[0] = 0x4000000000000000;
    node.reg_in.vmx_num = 1;
    node.reg_in.vmx_index[0] = 2;
    EXPECT_THAT(text_of(node), EndsWith("(done) (Input Reg 0(r31):0xFEDCBA9876543210) "
                                        "(Input Reg 1(r0):0x0000000000000000) "
                                        "(Input Reg 2(f13):0x4000000000000000) "
                                        "(Input Reg 3(v2):0x00000000000000000000000000000000) \n"));
}

TEST(text_registers, vector_shows_word_1_in_upper_case_then_word_0_in_lower_case)
{
    Node node = plain_node();
    node.reg_out.vmx_num = 1;
    node.reg_out.vmx_index[0] = 7;
    node.reg_out.vmx_value[0] = {{0xCD, 0xAB}};
    node.reg_out.vsx_num = 1;
    node.reg_out.vsx_index[0] = 40;
    node.reg_out.vsx_value[0] = {{0xFEDCBA9876543210, 0xABCDEF0123456789}};
    EXPECT_THAT(text_of(node), EndsWith("(done) (Output Reg 0(v7):0x00000000000000AB00000000000000cd) "
                                        "(Output Reg 1(v40):0xABCDEF0123456789fedcba9876543210) \n"));
}

TEST(text_registers, vector_registers_come_before_vector_scalar_ones)
{
    Node node = plain_node();
    node.reg_in.vsx_num = 1;
    node.reg_in.vsx_index[0] = 33;
    node.reg_in.vmx_num = 1;
    node.reg_in.vmx_index[0] = 1;
    const std::string line = text_of(node);
    EXPECT_LT(line.find("(Input Reg 0(v1):"), line.find("(Input Reg 1(v33):"));
}

TEST(text_registers, ordinals_restart_for_the_outputs)
{
    Node node = plain_node();
    node.reg_in.spr_num = 2;
    node.reg_in.spr_index[0] = 8;
    node.reg_in.spr_index[1] = 9;
    node.reg_out.fpr_num = 1;
    node.reg_out.fpr_index[0] = 3;
    EXPECT_THAT(text_of(node), EndsWith("(done) (Input Reg 0(s8):0x0000000000000000) "
                                        "(Input Reg 1(s9):0x0000000000000000) "
                                        "(Output Reg 0(f3):0x0000000000000000) \n"));
}

TEST(text_registers, all_classes_full_are_all_shown)
{
    Node node = plain_node();
    node.reg_in = full_registers(0xA000);
    node.reg_out = full_registers(0xB000);
    EXPECT_THAT(text_of(node), EndsWith("(done) " + full_registers_text("Input", 'A') +
                                        full_registers_text("Output", 'B') + "\n"));
}

TEST(text_registers, counts_above_what_a_class_can_hold_show_what_it_holds)
{
    Node node = plain_node();
    node.reg_in = full_registers(0xA000);
    node.reg_in.gpr_num = 33;
    node.reg_in.fpr_num = 5;
    node.reg_in.spr_num = 0x7FFFFFFF;
    node.reg_in.vmx_num = 100;
    node.reg_in.vsx_num = 5;
    EXPECT_THAT(text_of(node), EndsWith("(done) " + full_registers_text("Input", 'A') + "\n"));
}

TEST(text_registers, negative_counts_show_nothing)
{
    Node node = plain_node();
    node.reg_in = full_registers(0);
    node.reg_in.gpr_num = node.reg_in.fpr_num = node.reg_in.vmx_num = -1;
    node.reg_in.vsx_num = INT32_MIN;
    node.reg_in.spr_num = 0;
    EXPECT_THAT(text_of(node), EndsWith("(done) \n"));
}

TEST(text_registers, register_numbers_are_signed)
{
    Node node = plain_node();
    node.reg_in.gpr_num = 1;
    node.reg_in.gpr_index[0] = -5;
    EXPECT_THAT(text_of(node), HasSubstr("(Input Reg 0(r-5):0x0000000000000000) "));
}

} // namespace
