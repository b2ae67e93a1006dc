// Which text stream a line goes to, header and partition-change lines, and the text of a session.
#include "text_nodes.h"

#include "text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace
{

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
