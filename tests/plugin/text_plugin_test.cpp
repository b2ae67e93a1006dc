// The text line of an instruction, the header and partition-change lines in front of it, and when each appears.
#include "text_streams.h"
#include "traced_machine.h"

#include "text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <unistd.h>

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace
{

// The text of one node alone, its thread's header written already.
std::string text_of(Node node)
{
    Text_Streams streams;
    return streams.text_of(node);
}

Node node_with_access()
{
    Node node = plain_node();
    node.info.load = 1;
    node.info.data_addr_valid = 1;
    node.info.data_addr = 0xABCDEF;
    return node;
}

void set_name(Node &node, const char *name)
{
    strncpy(node.info.name, name, sizeof node.info.name - 1);
}

// ---- which stream ------------------------------------------------------------------------------------------

TEST(text_stream, without_a_text_trace_answers_0)
{
    Node node = plain_node();
    ASSERT_EQ(qfile_in_text, nullptr);
    EXPECT_EQ(dump_node_text(&node), 0u);
}

TEST(text_stream, session_without_text_trace_creates_no_text_file)
{
    Traced_Machine m(1, 1);
    m.start();
    m.commit_run(3);
    Node node = plain_node();
    EXPECT_EQ(dump_node_text(&node), 0u);
    m.stop();
    EXPECT_TRUE(std::filesystem::is_empty(m.folder()));
}

TEST(text_stream, thread_without_a_stream_answers_0_and_the_others_go_on)
{
    Text_Streams streams(3);
    streams.close(1);
    Node node = plain_node();
    boolean answers[3];
    for (int tid = 0; tid < 3; ++tid) {
        node.proc_index = tid;
        answers[tid] = dump_node_text(&node);
    }
    EXPECT_THAT(answers, ElementsAre(1u, 0u, 1u));
    EXPECT_THAT(streams.take(0), StartsWith("(seq:7,tid:0) "));
    EXPECT_EQ(streams.take(1), "");
    EXPECT_THAT(streams.take(2), StartsWith("(seq:7,tid:2) "));
}

TEST(text_stream, thread_whose_text_file_cannot_be_created_writes_no_text_and_records_go_on)
{
    Traced_Machine m(1, 2);
    std::filesystem::create_directory(m.path("text1"));
    m.start_with_text();
    m.commit_run(3, 0);
    m.commit_run(3, 1);
    m.stop();
    EXPECT_EQ(m.text_lines(0).size(), 5u);
    EXPECT_EQ(m.records(1).size(), 3u);
    EXPECT_TRUE(m.warnings().empty());
    EXPECT_TRUE(m.errors().empty());
}

TEST(text_stream, line_goes_to_the_stream_of_the_nodes_thread)
{
    Text_Streams streams(2);
    Node node = plain_node();
    node.proc_index = 1;
    EXPECT_EQ(dump_node_text(&node), 1u);
    EXPECT_EQ(streams.take(0), "");
    EXPECT_THAT(streams.take(1), HasSubstr(",tid:1) "));
}

TEST(text_stream, line_is_flushed_before_the_writer_returns)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit_run(2);
    ASSERT_EQ(m.text_lines().size(), 3u); // the session is still open
    EXPECT_THAT(m.file("text0"), EndsWith("\n"));
    m.commit_run(1);
    EXPECT_EQ(m.text_lines().size(), 4u);
}

TEST(text_stream, answers_1_although_the_disk_is_full)
{
    Text_Streams streams;
    FILE *full_disk = fopen("/dev/full", "wt");
    ASSERT_NE(full_disk, nullptr);
    FILE *files[] = {full_disk};
    qfile_in_text = files;
    Node node = plain_node();
    EXPECT_EQ(dump_node_text(&node), 1u);
    EXPECT_EQ(dump_node_text(&node), 1u);
    fclose(full_disk);
}

TEST(text_stream, full_disk_does_not_stop_the_records)
{
    Traced_Machine m(1, 1);
    std::filesystem::create_symlink("/dev/full", m.path("text0"));
    m.start_with_text();
    m.commit_run(5);
    m.stop();
    EXPECT_EQ(m.records().size(), 5u);
    EXPECT_TRUE(m.warnings().empty());
}

TEST(text_stream, node_and_header_flag_stay_as_they_were)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = node_with_access();
    node.partition_change = 1;
    node.I = node.N = node.T = 1;
    Node before;
    memcpy(static_cast<void *>(&before), &node, sizeof node);
    dump_node_text(&node);
    EXPECT_EQ(memcmp(&before, &node, sizeof node), 0);
    EXPECT_EQ(hdr_write[0], 0u);
}

// ---- header and partition-change lines -----------------------------------------------------------------------

TEST(text_header, two_lines_precede_the_first_record_line)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = plain_node();
    node.kelvo_ver = 3;
    node.bitmode64 = 1;
    node.memused = 268435456;
    node.pages_used.PAGE_4K = 1;
    node.pages_used.PAGE_64K = 1;
    EXPECT_THAT(streams.text_of(node),
                StartsWith("*** FILE HEADER INSERTED *** \n"
                           "KelvoVer:3,64bitMode:True,LEMode:False,MemUsed:268435456,HostPagesUsed:4K 64K ,"
                           "GuestPagesUsed:\n"
                           "(seq:7,tid:0) "));
}

TEST(text_header, is_repeated_until_the_flag_is_set)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = plain_node();
    EXPECT_THAT(streams.text_of(node), StartsWith("*** FILE HEADER"));
    EXPECT_THAT(streams.text_of(node), StartsWith("*** FILE HEADER"));
    hdr_write[0] = 1;
    EXPECT_THAT(streams.text_of(node), StartsWith("(seq:"));
}

TEST(text_header, is_decided_by_the_nodes_own_thread)
{
    Text_Streams streams(2);
    streams.expect_header(1);
    Node node = plain_node();
    EXPECT_THAT(streams.text_of(node), StartsWith("(seq:"));
    node.proc_index = 1;
    EXPECT_THAT(streams.text_of(node), StartsWith("*** FILE HEADER"));
}

TEST(text_header, stands_once_where_the_binary_header_stands)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit_run(4);
    m.stop();
    const auto lines = m.text_lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "*** FILE HEADER INSERTED *** ");
    EXPECT_THAT(lines[1], StartsWith("KelvoVer:3,"));
    for (size_t i = 2; i < lines.size(); ++i)
        EXPECT_THAT(lines[i], StartsWith("(seq:" + std::to_string(i - 2) + ",tid:0) "));
    EXPECT_EQ(m.order(), "HRRRR");
}

TEST(text_header, of_each_thread_stands_in_its_own_file)
{
    Traced_Machine m(1, 2);
    m.start_with_text();
    m.commit_run(2, 0);
    m.commit_run(2, 1);
    m.stop();
    for (int tid = 0; tid < 2; ++tid) {
        ASSERT_EQ(m.text_lines(tid).size(), 4u);
        EXPECT_EQ(m.text_lines(tid)[0], "*** FILE HEADER INSERTED *** ");
    }
}

TEST(text_header, failed_binary_header_is_announced_again_by_the_next_node)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    recording_writer().fail_header(1);
    m.commit_run(3);
    m.stop();
    const auto lines = m.text_lines();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "*** FILE HEADER INSERTED *** ");
    EXPECT_THAT(lines[2], StartsWith("(seq:0,"));
    EXPECT_EQ(lines[3], "*** FILE HEADER INSERTED *** ");
    EXPECT_THAT(lines[5], StartsWith("(seq:1,"));
    EXPECT_THAT(lines[6], StartsWith("(seq:2,"));
}

TEST(text_header, appears_again_after_pause_and_resume)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit_run(2);
    m.signal({"pause"});
    m.commit_run(2);
    m.signal({"resume"});
    m.commit_run(2);
    m.stop();
    std::vector<std::string> starts;
    for (const std::string &line : m.text_lines())
        starts.push_back(line.substr(0, 14));
    EXPECT_THAT(starts, ElementsAre("*** FILE HEADE", "KelvoVer:3,64b", "(seq:0,tid:0) ", "*** PAUSE coll",
                                    "(seq:1,tid:0) ", "*** RESUME col", "*** FILE HEADE", "KelvoVer:3,64b",
                                    "(seq:4,tid:0) ", "(seq:5,tid:0) "));
    EXPECT_EQ(m.order(), "HRRHRR");
}

TEST(text_header, modes_are_spelled_out_for_both_values)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = plain_node();
    node.littleendian = 1;
    EXPECT_THAT(streams.text_of(node), HasSubstr(",64bitMode:False,LEMode:True,"));
    node.littleendian = 0;
    node.bitmode64 = 0x80000000; // any non-zero value is true
    EXPECT_THAT(streams.text_of(node), HasSubstr(",64bitMode:True,LEMode:False,"));
}

TEST(text_header, version_and_memory_are_signed_decimals)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = plain_node();
    node.kelvo_ver = 0xFFFFFFFF;
    node.memused = 0x8000000000000000;
    EXPECT_THAT(streams.text_of(node), HasSubstr("\nKelvoVer:-1,"));
    EXPECT_THAT(streams.text_of(node), HasSubstr(",MemUsed:-9223372036854775808,"));
}

TEST(text_header, every_page_size_has_its_word_in_record_order)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = plain_node();
    node.pages_used = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_THAT(streams.text_of(node),
                HasSubstr(",HostPagesUsed:4K 16K 64K 128K 256K 1M 2M 16M 256M 1G 16G undefined "
                          ",GuestPagesUsed:\n"));
    node.gpages_used = node.pages_used;
    node.pages_used = {};
    EXPECT_THAT(streams.text_of(node),
                HasSubstr(",HostPagesUsed:,GuestPagesUsed:4K 16K 64K 128K 256K 1M 2M 16M 256M "
                          "1G 16G undefined \n"));
}

TEST(text_header, each_page_size_flag_selects_its_own_word)
{
    const char *const words[] = {"4K ", "16K ", "64K ",  "128K ", "256K ", "1M ",
                                 "2M ", "16M ", "256M ", "1G ",   "16G ",  "undefined "};
    Text_Streams streams;
    streams.expect_header();
    for (size_t i = 0; i < std::size(words); ++i) {
        Node node = plain_node();
        (&node.gpages_used.PAGE_4K)[i] = 4;
        EXPECT_THAT(streams.text_of(node), HasSubstr(std::string(",GuestPagesUsed:") + words[i] + "\n"));
    }
}

TEST(text_header, longest_comment_is_complete)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = plain_node();
    node.kelvo_ver = 0x80000000;
    node.memused = 0x8000000000000000;
    node.pages_used = node.gpages_used = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    EXPECT_THAT(streams.text_of(node),
                StartsWith("*** FILE HEADER INSERTED *** \n"
                           "KelvoVer:-2147483648,64bitMode:False,LEMode:False,MemUsed:-9223372036854775808,"
                           "HostPagesUsed:4K 16K 64K 128K 256K 1M 2M 16M 256M 1G 16G undefined ,"
                           "GuestPagesUsed:4K 16K 64K 128K 256K 1M 2M 16M 256M 1G 16G undefined \n(seq:"));
}

TEST(partition_change_line, precedes_the_record_line_with_its_unbalanced_parenthesis)
{
    Node node = plain_node();
    node.partition_change = 1;
    node.pid = 5;
    node.lpid = 2;
    EXPECT_THAT(text_of(node), StartsWith("Partition Change: pid:5,lpid:2)\n(seq:7,tid:0) "));
}

TEST(partition_change_line, follows_the_header_lines)
{
    Text_Streams streams;
    streams.expect_header();
    Node node = plain_node();
    node.partition_change = 2;
    EXPECT_THAT(streams.text_of(node), HasSubstr("GuestPagesUsed:\nPartition Change: pid:0,lpid:0)\n(seq:"));
}

TEST(partition_change_line, is_absent_without_a_change)
{
    EXPECT_THAT(text_of(plain_node()), Not(HasSubstr("Partition")));
}

TEST(partition_change_line, numbers_are_signed)
{
    Node node = plain_node();
    node.partition_change = 1;
    node.pid = 0xFFFFFFFE;
    node.lpid = 0xFFFFFFFFFFFFFFFD;
    EXPECT_THAT(text_of(node), StartsWith("Partition Change: pid:-2,lpid:-3)\n"));
}

TEST(partition_change_line, appears_where_the_binary_trace_has_its_update_header)
{
    Traced_Machine m(1, 1);
    replay::host().set_context(0, {.lpid = 2, .pid = 5});
    m.start_with_text();
    m.commit_run(2);
    replay::host().set_context(0, {.lpid = 3, .pid = 5});
    m.commit_run(2);
    m.stop();
    const auto lines = m.text_lines();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_THAT(lines[3], StartsWith("(seq:1,"));
    EXPECT_EQ(lines[4], "Partition Change: pid:5,lpid:3)");
    EXPECT_THAT(lines[5], StartsWith("(seq:2,"));
    EXPECT_EQ(m.order(), "HRRHRR");
}

// ---- the record line -----------------------------------------------------------------------------------------

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

// ---- through a session ---------------------------------------------------------------------------------------

TEST(text_session, mnemonic_comes_from_the_host)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit({.seq = 1, .pc = 0x1000, .op = 0xE8640008, .text = "ld r3,8(r4)"});
    m.stop();
    EXPECT_THAT(m.text_lines().at(2), HasSubstr("(instbody:0xe8640008) {name:ld r3,8(r4)} "));
}

TEST(text_session, mnemonic_is_cut_to_what_the_node_holds)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit({.seq = 1, .pc = 0x1000, .text = std::string(100, 'n')});
    m.stop();
    EXPECT_THAT(m.text_lines().at(2), HasSubstr(" {name:" + std::string(63, 'n') + "} "));
}

TEST(text_session, mnemonic_is_not_asked_for_without_a_text_trace)
{
    Traced_Machine m(1, 1);
    m.start();
    m.forget_queries();
    m.commit({.seq = 1, .pc = 0x1000, .text = "nop"});
    EXPECT_THAT(m.queries(), Not(::testing::Contains("Get_Inst_Name_And_Operand")));
}

TEST(text_session, line_names_its_successor_except_the_last)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit_run(3);
    m.stop();
    EXPECT_THAT(m.text_lines().at(2), EndsWith(" (left:1) "));
    EXPECT_THAT(m.text_lines().at(3), EndsWith(" (left:2) "));
    EXPECT_THAT(m.text_lines().at(4), EndsWith(" (done) "));
}

TEST(text_session, last_line_carries_no_termination)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit({.seq = 1, .pc = 0x1000, .npc = 0x2000, .branch = true, .unconditional = true, .taken = true});
    m.stop();
    EXPECT_THAT(m.text_lines().at(2), HasSubstr(" (I:0) (N:0) (T:0) "));
}

TEST(text_session, taken_branch_shows_all_flags)
{
    Traced_Machine m(1, 1);
    m.start_with_text();
    m.commit({.seq = 1, .pc = 0x1000, .npc = 0x2000, .branch = true, .taken = true});
    m.commit({.seq = 2, .pc = 0x2000});
    m.stop();
    EXPECT_THAT(m.text_lines().at(2), HasSubstr(" (I:1) (N:1) (T:1) (PC:0x0000000000001000) "
                                                "(nextPC:0x0000000000002000) (nn:0) (done) (branch taken) "));
}

} // namespace
