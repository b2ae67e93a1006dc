// What output looks like: tables, text of unknown origin, numbers, lines of headers and records.
#include "item_view.h"
#include "planted_trace.h"
#include "printable_text.h"
#include "pte_printer.h"
#include "table.h"
#include "text_in_place.h"
#include "text_mnemonics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <set>
#include <stdexcept>
#include <sys/time.h>
#include <unistd.h>

using namespace qtrace_tool;
using planted::Folder;
using planted::qtrace;
using planted::Trace;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

// What `write` puts on an output.
template <class Write> std::string put(Write write, bool colour = false)
{
    Output out(-1, colour);
    write(out);
    return out.take();
}

} // namespace

// ---- Tables --------------------------------------------------------------------------------------------

namespace
{

std::string spaces(size_t count)
{
    return std::string(count, ' ');
}

std::string printed(const Table &table, size_t width)
{
    return put([&](Output &out) { print_table(out, table, width); });
}

const Table TWO_COLUMNS{{"one0", "one1"}, {{"rows", {}}, {"  first", {"1", "22"}}, {"second", {"333"}}}};

} // namespace

TEST(table, labels_take_46_characters_and_cells_14)
{
    const std::string text = spaces(46) + spaces(10) + "one0" + spaces(10) + "one1\n" + "rows" + spaces(42) + "\n" +
                             "  first" + spaces(39) + spaces(13) + "1" + spaces(12) + "22\n" + "second" +
                             spaces(40) + spaces(11) + "333\n";
    EXPECT_EQ(printed(TWO_COLUMNS, 0), text);
    EXPECT_EQ(printed(TWO_COLUMNS, 74), text) << "exactly as wide as the table";
    EXPECT_EQ(printed(TWO_COLUMNS, 75), text);
}

TEST(table, columns_are_as_wide_as_the_longest_name_with_2_characters_before_it)
{
    const Table table{{"thirteen-long", "b"}, {}};
    EXPECT_EQ(printed(table, 0), spaces(46) + spaces(2) + "thirteen-long" + spaces(14) + "b\n");
    const Table usual{{"twelve-chars", "b"}, {}};
    EXPECT_EQ(printed(usual, 0), spaces(46) + spaces(2) + "twelve-chars" + spaces(13) + "b\n");
}

TEST(table, that_is_too_wide_becomes_as_narrow_as_its_contents)
{
    const std::string text =
        spaces(7) + "  one0" + "  one1\n" + "rows   \n" + "  first     1    22\n" + "second    333\n";
    EXPECT_EQ(printed(TWO_COLUMNS, 73), text);
    EXPECT_EQ(printed({{"a", "b"}, {{"x", {"12345", "6"}}}}, 60), " "
                                                                  "      a"
                                                                  "  b\n"
                                                                  "x"
                                                                  "  12345"
                                                                  "  6\n");
    EXPECT_EQ(printed({{"a", "b"}, {{"x", {"1", "12345"}}}}, 60), " "
                                                                  "  a"
                                                                  "      b\n"
                                                                  "x"
                                                                  "  1"
                                                                  "  12345\n");
    EXPECT_EQ(printed({{"a"}, {}}, 2), "  a\n");
}

TEST(table, that_is_still_too_wide_is_continued_below_with_its_labels)
{
    const std::string both =
        spaces(7) + "  one0" + "  one1\n" + "rows   \n" + "  first     1    22\n" + "second    333\n";
    const Table table = TWO_COLUMNS;
    EXPECT_EQ(printed(table, 19), both) << "exactly as wide as its contents";
    EXPECT_EQ(printed(table, 18), spaces(7) + "  one0\n" + "rows   \n" + "  first     1\n" + "second    333\n" +
                                      "\n" + spaces(7) + "  one1\n" + "rows   \n" + "  first    22\n" +
                                      "second \n");
    const Table three{{"aaaa", "bbbb", "cccc"}, {{"x", {"1", "2", "3"}}}};
    EXPECT_EQ(printed(three, 13), " "
                                  "  aaaa"
                                  "  bbbb\n"
                                  "x"
                                  "     1"
                                  "     2\n"
                                  "\n"
                                  " "
                                  "  cccc\n"
                                  "x"
                                  "     3\n");
}

TEST(table, names_that_are_longer_than_a_line_lose_their_beginning)
{
    const Table table{{"/a/long/path/of/the/trace0"}, {{"label", {"1"}}}};
    EXPECT_EQ(printed(table, 25), spaces(5) + "  ...h/of/the/trace0\n" + "label" + spaces(19) + "1\n");
    EXPECT_EQ(printed(table, 33), spaces(5) + "  /a/long/path/of/the/trace0\n" + "label" + spaces(27) + "1\n");
    EXPECT_EQ(printed(table, 32), spaces(5) + "  ...ong/path/of/the/trace0\n" + "label" + spaces(26) + "1\n");
    // No less than a usual cell.
    EXPECT_EQ(printed(table, 4), spaces(5) + "  ...he/trace0\n" + "label" + spaces(13) + "1\n");
}

TEST(table, the_names_of_its_columns_are_painted)
{
    const Table table{{"a"}, {{"x", {"1"}}}};
    EXPECT_EQ(put([&](Output &out) { print_table(out, table, 10); }, true), "\x1b[1;36m   a\x1b[0m\nx  1\n");
}

// ---- Output --------------------------------------------------------------------------------------------

TEST(output, counts_agree_with_their_noun)
{
    EXPECT_EQ(counted(0, "record"), "0 records");
    EXPECT_EQ(counted(1, "record"), "1 record");
    EXPECT_EQ(counted(2, "record"), "2 records");
    EXPECT_EQ(counted(1, "entry", "entries"), "1 entry");
    EXPECT_EQ(counted(3, "entry", "entries"), "3 entries");
}

TEST(output, numbers_are_padded_on_the_left)
{
    const auto padded = [](uint64_t value, unsigned width) {
        return put([&](Output &out) { out.put_padded(value, width); });
    };
    EXPECT_EQ(padded(7, 3), "  7");
    EXPECT_EQ(padded(123, 3), "123");
    EXPECT_EQ(padded(1234, 3), "1234");
}

TEST(output, decimal_numbers_have_their_digits_alone)
{
    for (const uint64_t value : {uint64_t{0}, uint64_t{9}, uint64_t{10}, uint64_t{99}, uint64_t{100}, uint64_t{407},
                                 uint64_t{999}, uint64_t{1000}, uint64_t{1001}, uint64_t{65536}, ~uint64_t{0}})
        EXPECT_EQ(put([&](Output &out) { out.put_decimal(value); }), std::to_string(value));
}

TEST(output, hexadecimal_numbers_have_their_digits_alone_or_as_many_as_asked_for)
{
    const auto hex = [](uint64_t value) { return put([&](Output &out) { out.put_hex(value); }); };
    EXPECT_EQ(hex(0), "0");
    EXPECT_EQ(hex(9), "9");
    EXPECT_EQ(hex(0xF), "f");
    EXPECT_EQ(hex(0x10), "10");
    EXPECT_EQ(hex(0xFF), "ff");
    EXPECT_EQ(hex(0x100), "100");
    EXPECT_EQ(hex(0x123456789ABCDEF0), "123456789abcdef0");
    EXPECT_EQ(hex(0x0FEDCBA987654321), "fedcba987654321");
    const auto digits = [](uint64_t value, unsigned count) {
        return put([&](Output &out) { out.put_hex(value, count); });
    };
    EXPECT_EQ(digits(0xAB, 16), "00000000000000ab");
    EXPECT_EQ(digits(0x123456789, 8), "23456789");
    EXPECT_EQ(digits(0x12F, 1), "f");
}

TEST(output, colours_have_their_escape_sequences)
{
    const auto painted = [](Colour colour) { return put([&](Output &out) { out.paint(colour); }, true); };
    EXPECT_EQ(painted(Colour::plain), "\x1b[0m");
    EXPECT_EQ(painted(Colour::head), "\x1b[1;36m");
    EXPECT_EQ(painted(Colour::good), "\x1b[32m");
    EXPECT_EQ(painted(Colour::bad), "\x1b[1;31m");
    EXPECT_EQ(painted(Colour::added), "\x1b[32m");
    EXPECT_EQ(painted(Colour::removed), "\x1b[31m");
    EXPECT_EQ(painted(Colour::faint), "\x1b[2m");
    EXPECT_EQ(put([](Output &out) { out.paint(Colour::bad); }), "");
    EXPECT_FALSE(Output().coloured());
}

TEST(output, keeps_the_first_failure_and_writes_nothing_more)
{
    const int full = open("/dev/full", O_WRONLY);
    int calls = 0;
    {
        Output out(full);
        out.before_writing([&] { calls++; });
        out.flush();
        EXPECT_EQ(calls, 0) << "there is nothing to write";
        EXPECT_EQ(out.error(), 0);
        out.put("text");
        out.flush();
        EXPECT_EQ(out.error(), ENOSPC);
        out.put("more");
        out.flush();
        EXPECT_EQ(calls, 1);
    }
    close(full);
}

TEST(output, hands_on_what_is_left_when_it_goes)
{
    const Folder folder;
    const std::string name = folder.text("out", "");
    const int file = open(name.c_str(), O_WRONLY);
    {
        Output out(file);
        out.put("kept");
        out.put_lines(" short\n");
        EXPECT_EQ(folder.contents("out"), "");
        out.put_lines(std::string(300000, 'x') + "\n");
        EXPECT_EQ(out.size(), 0u);
        out.put(std::string(300000, 'y'));
        out.settle();
        EXPECT_EQ(out.size(), 0u);
        out.put("end");
    }
    close(file);
    EXPECT_EQ(folder.contents("out"),
              "kept short\n" + std::string(300000, 'x') + "\n" + std::string(300000, 'y') + "end");
}

TEST(output, of_no_descriptor_keeps_everything)
{
    Output out;
    out.put_lines(std::string(300000, 'x'));
    out.settle();
    EXPECT_EQ(out.size(), 300000u);
}

TEST(output, may_go_to_the_lowest_descriptor)
{
    const Folder folder;
    const std::string name = folder.text("out", "");
    const int kept = dup(0);
    close(0);
    const int file = open(name.c_str(), O_WRONLY);
    {
        Output out(file);
        out.put(std::string(300000, 'x'));
        out.settle();
        EXPECT_EQ(out.size(), 0u);
        out.put_lines(std::string(300000, 'y'));
        EXPECT_EQ(out.size(), 0u);
        out.put("end");
    }
    dup2(kept, 0);
    close(kept);
    EXPECT_EQ(file, 0);
    EXPECT_EQ(folder.contents("out"), std::string(300000, 'x') + std::string(300000, 'y') + "end");
}

namespace
{

int emptied = -1, ticks = 0; // the reading end of a full pipe; signals so far

void empty_pipe_later(int)
{
    char bytes[65536];
    if (++ticks > 2)
        while (read(emptied, bytes, sizeof bytes) > 0) {
        }
}

} // namespace

TEST(output, goes_on_after_a_signal)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    emptied = ends[0];
    struct sigaction action {
    }, before{};
    action.sa_handler = empty_pipe_later; // without SA_RESTART: a write that waits fails
    sigaction(SIGALRM, &action, &before);
    const itimerval often{{0, 2000}, {0, 2000}}, never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    Output out(ends[1]);
    out.put(std::string(200000, 'x')); // more than a pipe holds
    out.flush();
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(out.error(), 0);
    EXPECT_GT(ticks, 2);
    close(ends[0]);
    close(ends[1]);
}

// ---- Text of unknown origin ----------------------------------------------------------------------------

namespace
{

std::string visible(std::string_view text)
{
    return put([&](Output &out) { print_visible(out, text); });
}

} // namespace

TEST(visible_text, is_as_it_is_when_a_terminal_interprets_nothing_of_it)
{
    EXPECT_EQ(visible(" az~\"\\"), " az~\"\\");
    EXPECT_EQ(visible(""), "");
    EXPECT_EQ(visible("\x1f\x7f\n"), "\\x1f\\x7f\\x0a");
}

TEST(visible_text, first_and_last_characters_of_each_length_stay)
{
    for (const char *text : {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xE1\x80\x80", "\xEC\xBF\xBF", "\xED\x80\x80",
                             "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF1\x80\x80\x80",
                             "\xF3\xBF\xBF\xBF", "\xF4\x80\x80\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_EQ(visible(text), text);
}

TEST(visible_text, bytes_that_are_no_character_become_numbers)
{
    EXPECT_EQ(visible("\x80"), "\\x80");
    EXPECT_EQ(visible("\xC1\xBF"), "\\xc1\\xbf");
    EXPECT_EQ(visible("\xDF\x7F"), "\\xdf\\x7f");
    EXPECT_EQ(visible("\xDF\xC0"), "\\xdf\\xc0");
    EXPECT_EQ(visible("\xE0\x9F\xBF"), "\\xe0\\x9f\\xbf");
    EXPECT_EQ(visible("\xED\xA0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(visible("\xEF\xBF"), "\\xef\\xbf");
    EXPECT_EQ(visible(std::string_view("\xE1\x80\x80", 2)), "\\xe1\\x80")
        << "what follows the text is not part of it";
    EXPECT_EQ(visible("\xE1\x80z"), "\\xe1\\x80z");
    EXPECT_EQ(visible("\xF0\x8F\xBF\xBF"), "\\xf0\\x8f\\xbf\\xbf");
    EXPECT_EQ(visible("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
    EXPECT_EQ(visible("\xF5\x80\x80\x80"), "\\xf5\\x80\\x80\\x80");
    EXPECT_EQ(visible("\xF1\x80\x80z"), "\\xf1\\x80\\x80z");
}

// ---- Lines of headers and records ----------------------------------------------------------------------

namespace
{

// The good trace, whose string instruction has registers of every class, and whose last record fills what is unusual.
Trace every_kind_of_register()
{
    Trace trace = planted::good_trace();
    QTRACE_REGISTERS &regs = trace[planted::STRING].record.regs;
    regs = {};
    regs.num_gprs_in = 2;
    regs.gpr_in[0] = {4, 0x2000};
    regs.gpr_in[1] = {5, 0x11};
    regs.num_gprs_out = 1;
    regs.gpr_out[0] = {6, 0};
    regs.num_fprs_in = 1;
    regs.fpr_in[0] = {7, 0x3ff0000000000000};
    regs.num_sprs_out = 1;
    regs.spr_out[0] = {8, 0x1234};
    regs.num_vmxrs_in = 1;
    regs.vmxr_in[0] = {9, {1, 2}};
    regs.num_vsxrs_out = 1;
    regs.vsxr_out[0] = {34, {0x1122334455667788, 0x99aabbccddeeff00}};
    QTRACE_RECORD &last = trace[planted::PLAIN].record;
    last.header.control.fld.node_present = last.header.control.fld.termination_present = 1;
    last.node = 3;
    last.termination_node = 2;
    last.termination_code = 9;
    return trace;
}

const std::string ALL_LINES =
    R"(         - header address 0000000000001000 <start+0x0> none/radix rpn 0x12 page 1 guest-depth 0 host-depth 4 ptcr 0xc0000c lpid 0x1 pid 7 comment "KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:"
         0 0000000000001000 38600001 --- <start+0x0> processor 2
         1 0000000000001004 e8640008 --- <start+0x4> data 0000000000005008 <table+0x8> none/radix rpn 0x12 page 1 guest-depth 0 host-depth 4 host-walks 100,0,0,200
         2 0000000000001008 40820ff8 INT <start+0x8> next 0000000000002000 <common+0x0> none/radix rpn 0x12 page 1 guest-depth 0 host-depth 4 host-walks 100,0,0,200
         3 0000000000002000 80640010 --- <common+0x0> data 0000000000006010 radix/radix rpn 0x12 page 1 guest-page 1 guest-depth 3 host-depth 4 host-walks 10000,20000,30000,40000|10008,20008,30008,40008|10010,20010,30010,40010 host-addresses 50000,50008,0,0 guest-walk 60000,60008,0,0,60010,70000
         4 0000000000002004 41820010 -NT <common+0x4>
         - partition lpid 0x2 pid 8
         5 0000000000002008 7c6484aa --- <common+0x8> length 16 in r4=0x2000 r5=0x11 f7=0x3ff0000000000000 v9=0x00000000000000010000000000000002 out r6=0x0 s8=0x1234 x34=0x112233445566778899aabbccddeeff00
         6 000000000000200c 48000ff5 INU <common+0xc> next 0000000000003000 none/hpt vsid 0x1 rpn 0x12 page 1 guest-depth 0 host-depth 0
         7 0000000000003000 90640000 --- data 0000000000007000 none/hpt vsid 0x1 rpn 0x12 page 1 guest-depth 0 host-depth 0 error 8
         8 0000000000003004 60000000 ---
         - pause
         - header address 0000000000004000 none/real guest-depth 0 host-depth 0 ptcr 0xc0000c lpid 0x1 pid 7 comment "KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:"
         9 0000000000004000 38600001 --- processor 2
        10 0000000000004004 60000000 -NT node 3 ends-at 2 end 9
)";
const std::string ALL_JSON_LINES =
    R"({"header":0,"before_record":0,"comment_present":1,"iar_page_size_is_present":1,"iar_rpn_is_present":1,"iar_is_present":1,"version_number_present":1,"pid_is_present":1,"lpid_is_present":1,"ptcr_is_present":1,"guest_xlate_mode_instruction":3,"secondary_extender_present":1,"iar":"0x1000","symbol":"start+0x0","iar_rpn":"0x12","iar_page_size":1,"iar_hRTW_num_level":4,"iar_hRTW":[["0x100","0x0","0x0","0x200"]],"ptcr":"0xc0000c","lpid":"0x1","pid":7,"comment_length":94,"comment":"KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:"}
{"record":0,"address":"0x1000","symbol":"start+0x0","guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"processor_present":1,"instruction":"0x38600001","processor":2}
{"record":1,"address":"0x1004","symbol":"start+0x4","kinds":["load"],"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"secondary_extender_present":1,"data_page_size_present":1,"data_RPN_present":1,"data_address_present":1,"instruction":"0xe8640008","data_ea":"0x5008","data_symbol":"table+0x8","data_rpn":"0x12","data_page_size":1,"data_hRTW_num_level":4,"data_hRTW":[["0x100","0x0","0x0","0x200"]]}
{"record":2,"address":"0x1008","symbol":"start+0x8","kinds":["branch","taken"],"guest_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"next_instruction_page_size_present":1,"next_instruction_RPN_present":1,"next_instruction_EA_present":1,"termination_present":1,"node_present":1,"iar_change_present":1,"instruction":"0x40820ff8","termination_code":64,"next_instruction_ea":"0x2000","next_symbol":"common+0x0","next_instruction_rpn":"0x12","next_instruction_page_size":1,"next_instruction_hRTW_num_level":4,"next_instruction_hRTW":[["0x100","0x0","0x0","0x200"]]}
{"record":3,"address":"0x2000","symbol":"common+0x0","kinds":["load"],"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"secondary_extender_present":1,"data_gpage_size_present":1,"data_page_size_present":1,"data_RPN_present":1,"data_address_present":1,"instruction":"0x80640010","data_ea":"0x6010","data_rpn":"0x12","data_page_size":1,"data_gpage_size":1,"data_hRTW_depth":3,"data_hRTW_num_level":4,"data_hRTW":[["0x10000","0x20000","0x30000","0x40000"],["0x10008","0x20008","0x30008","0x40008"],["0x10010","0x20010","0x30010","0x40010"]],"data_hRTW_host_RA":["0x50000","0x50008","0x0","0x0"],"data_gRTW":["0x60000","0x60008","0x0","0x0","0x60010","0x70000"]}
{"record":4,"address":"0x2004","symbol":"common+0x4","kinds":["branch"],"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"termination_present":1,"node_present":1,"instruction":"0x41820010","termination_code":64}
{"header":1,"before_record":5,"pid_is_present":1,"lpid_is_present":1,"lpid":"0x2","pid":8}
{"record":5,"address":"0x2008","symbol":"common+0x8","kinds":["load","string"],"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"register_trace_present":1,"length_present":1,"instruction":"0x7c6484aa","length":16,"gpr_in":[[4,"0x2000"],[5,"0x11"]],"fpr_in":[[7,"0x3ff0000000000000"]],"vmxr_in":[[9,"0x1","0x2"]],"gpr_out":[[6,"0x0"]],"spr_out":[[8,"0x1234"]],"vsxr_out":[[34,"0x1122334455667788","0x99aabbccddeeff00"]]}
{"record":6,"address":"0x200c","symbol":"common+0xc","kinds":["branch","taken","call"],"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":1,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"next_instruction_page_size_present":1,"next_instruction_RPN_present":1,"next_instruction_VSID_present":1,"next_instruction_EA_present":1,"termination_present":1,"node_present":1,"iar_change_present":1,"instruction":"0x48000ff5","termination_code":8,"next_instruction_ea":"0x3000","next_instruction_vsid":"0x1","next_instruction_rpn":"0x12","next_instruction_page_size":1}
{"record":7,"address":"0x3000","kinds":["store","error"],"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":1,"secondary_extender_present":1,"data_page_size_present":1,"trace_error_code_present":1,"data_RPN_present":1,"data_VSID_present":1,"data_address_present":1,"instruction":"0x90640000","data_ea":"0x7000","data_vsid":"0x1","data_rpn":"0x12","data_page_size":1,"error_code":8}
{"record":8,"address":"0x3004","guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"instruction":"0x60000000"}
{"discontinuity":"pause","at_record":9,"lost_records":0,"lost_records_known":true,"lost_headers":0,"offset":16,"lost_bytes":0,"context":{"comment_present":1,"iar_is_present":1,"version_number_present":1,"pid_is_present":1,"lpid_is_present":1,"ptcr_is_present":1,"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":2,"secondary_extender_present":1,"iar":"0x4000","ptcr":"0xc0000c","lpid":"0x1","pid":7,"comment_length":94}}
{"header":2,"before_record":9,"comment_present":1,"iar_is_present":1,"version_number_present":1,"pid_is_present":1,"lpid_is_present":1,"ptcr_is_present":1,"guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":2,"secondary_extender_present":1,"iar":"0x4000","ptcr":"0xc0000c","lpid":"0x1","pid":7,"comment_length":94,"comment":"KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:"}
{"record":9,"address":"0x4000","guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"processor_present":1,"instruction":"0x38600001","processor":2}
{"record":10,"address":"0x4004","guest_xlate_mode_instruction":3,"host_xlate_mode_instruction":3,"guest_xlate_mode_data":3,"host_xlate_mode_data":3,"secondary_extender_present":1,"termination_present":1,"node_present":1,"instruction":"0x60000000","node":3,"termination_node":2,"termination_code":9}
)";

} // namespace

TEST(record_line, shows_everything_that_the_records_of_a_trace_carry)
{
    const Folder folder;
    const std::string map = folder.text("map", "1000 10 T start\n2000 20 T common\n5000 10 D table\n");
    const std::string file = folder.write("trace0", every_kind_of_register());
    EXPECT_EQ(qtrace({"dump", "--fields", "all", "--symbols", map, file}).out, ALL_LINES);
}

TEST(record_line, in_json_has_everything_that_the_records_of_a_trace_carry)
{
    const Folder folder;
    const std::string map = folder.text("map", "1000 10 T start\n2000 20 T common\n5000 10 D table\n");
    const std::string file = folder.write("trace0", every_kind_of_register());
    std::string out = qtrace({"dump", "--json", "--symbols", map, file}).out;
    for (const std::string begin = "{\"file\":\"" + file + "\","; out.find(begin) != std::string::npos;)
        out.replace(out.find(begin), begin.size(), "{");
    EXPECT_EQ(out, ALL_JSON_LINES);
}

TEST(record_line, has_the_mnemonic_in_a_column_of_24_characters)
{
    QTRACE_Item item{};
    item.record = planted::plain_record(0x60000000);
    item.record_number = 7;
    const auto line = [&](std::string_view mnemonic) {
        return put([&](Output &out) {
            std::string unknown;
            print_record(out, item, *Field_Selection::parse({"length"}, unknown), {nullptr, mnemonic});
        });
    };
    EXPECT_EQ(line(""), "         7 ???????????????? 60000000\n");
    EXPECT_EQ(line("nop"), "         7 ???????????????? 60000000 nop" + spaces(21) + "\n");
    EXPECT_EQ(line("abcdefghijklmnopqrstuvwx"), "         7 ???????????????? 60000000 abcdefghijklmnopqrstuvwx\n");
    EXPECT_EQ(line("abcdefghijklmnopqrstuvwxyz"),
              "         7 ???????????????? 60000000 abcdefghijklmnopqrstuvwxyz\n");
}

TEST(record_line, of_a_record_without_a_known_address_has_none_in_json)
{
    QTRACE_Item item{};
    item.record = planted::plain_record(0x60000000);
    item.record_number = 7;
    item.address = 0x1000;
    std::string unknown;
    const Field_Selection fields = *Field_Selection::parse({"length"}, unknown);
    const auto line = [&] {
        return put([&](Output &out) { print_record_json(out, item, "{\"a\":1", fields, {nullptr, "a\"b"}); });
    };
    EXPECT_EQ(line(), "{\"a\":1,\"record\":7,\"mnemonic\":\"a\\\"b\"}\n");
    item.address_known = 1;
    EXPECT_EQ(line(), "{\"a\":1,\"record\":7,\"address\":\"0x1000\",\"mnemonic\":\"a\\\"b\"}\n");
}

TEST(record_line, in_json_has_the_flags_of_the_lowest_bits)
{
    QTRACE_Item item{};
    item.record = planted::plain_record(0x38600001);
    item.record.header.control.fld._secondary_extended_reserved_11_15 = 1;
    std::string unknown;
    const Field_Selection fields = *Field_Selection::parse({"flags"}, unknown);
    EXPECT_EQ(put([&](Output &out) { print_record_json(out, item, "{\"a\":1", fields); }),
              "{\"a\":1,\"record\":0,\"_secondary_extended_reserved_11_15\":1,\"guest_xlate_mode_instruction\":3,"
              "\"host_xlate_mode_instruction\":3,\"guest_xlate_mode_data\":3,\"host_xlate_mode_data\":3,"
              "\"secondary_extender_present\":1}\n");
    item.header.control.app_spec_data_present = 1;
    EXPECT_EQ(put([&](Output &out) { print_header_json(out, item, "{\"a\":1"); }),
              "{\"a\":1,\"header\":0,\"before_record\":0,\"app_spec_data_present\":1}\n");
}

TEST(record_line, counts_registers_beyond_those_that_a_record_can_hold)
{
    QTRACE_Item item{};
    item.record = planted::plain_record(0x60000000);
    std::string unknown;
    const Field_Selection fields = *Field_Selection::parse({"spr_out"}, unknown);
    const auto json = [&](uint8_t count) {
        item.record.regs.num_sprs_out = count;
        return put([&](Output &out) { print_record_json(out, item, "{\"a\":1", fields); });
    };
    const std::string four = "{\"a\":1,\"record\":0,\"spr_out\":[[0,\"0x0\"],[0,\"0x0\"],[0,\"0x0\"],[0,\"0x0\"]]";
    EXPECT_EQ(json(4), four + "}\n");
    EXPECT_EQ(json(5), four + ",\"spr_out_count\":5}\n");
    EXPECT_EQ(json(0), "{\"a\":1,\"record\":0}\n");
}

TEST(record_line, has_a_member_of_value_0_where_its_flag_says_that_it_is_there)
{
    const Folder folder;
    planted::Item item{false, {}, "", planted::plain_record(0x60000000)};
    const auto line = [&] {
        std::istringstream lines(
            qtrace({"dump", folder.write("trace0", {planted::good_trace()[planted::FIRST_HEADER], item})}).out);
        std::string last;
        for (std::string next; std::getline(lines, next);)
            last = next;
        return last;
    };
    EXPECT_THAT(line(), testing::Not(testing::HasSubstr("length")));
    item.record.header.control.fld.length_present = 1;
    EXPECT_THAT(line(), testing::HasSubstr(" length 0"));
}

TEST(record_line, has_members_that_no_flag_announces_where_they_are_filled)
{
    QTRACE_Item item{};
    item.record = planted::plain_record(0x60000000);
    item.record.secondary_data_page_size = 3;
    EXPECT_EQ(put([&](Output &out) { print_record(out, item, Field_Selection::all()); }),
              "         0 ???????????????? 60000000 --- secondary-page 3\n");
}

TEST(record_line, in_json_has_names_of_addresses_alone)
{
    const Folder folder;
    Trace trace = planted::good_trace();
    trace[planted::STRING].record.length = 0x1000; // where a symbol is
    const std::string map = folder.text("map", "1000 10 T start\n");
    const std::string out = qtrace({"dump", "--json", "--fields", "length", "--symbols", map, "--from", "5",
                                    "--count", "1", folder.write("trace0", trace)})
                                .out;
    EXPECT_THAT(out, HasSubstr("\"length\":4096}\n"));
}

TEST(record_line, registers_alone_are_listed_in_words)
{
    QTRACE_REGISTERS registers{};
    EXPECT_EQ(registers_text(registers), "none");
    registers.num_gprs_out = 1;
    registers.gpr_out[0] = {3, 0xab};
    EXPECT_EQ(registers_text(registers), "out r3=0xab");
}

TEST(record_line, walks_without_an_entry_are_a_dash)
{
    const QTRACE_RECORD record = planted::plain_record(1);
    for (const char *name : {"data_gRTW", "data_hRTW", "data_hRTW_host_RA"})
        EXPECT_EQ(value_text(*trace::find_record_member(name), record), "-");
    QTRACE_RECORD one = record;
    one.data_hRTW[0].RTPTE_ra[7] = 0x10;
    EXPECT_EQ(value_text(*trace::find_record_member("data_hRTW"), one), "0,0,0,1000000000000000");
}

TEST(discontinuity_line, tells_what_is_lost)
{
    QTRACE_Item item{};
    QTRACE_Discontinuity &what = item.discontinuity;
    const auto line = [&](QTRACE_CAUSE cause, uint64_t records, bool known, uint64_t headers, bool colour = false) {
        what.cause = cause;
        what.records = records;
        what.records_known = known;
        what.headers = headers;
        return put([&](Output &out) { print_discontinuity(out, item); }, colour);
    };
    EXPECT_EQ(line(QTRACE_CAUSE_PAUSE, 0, true, 0), "         - pause\n");
    EXPECT_EQ(line(QTRACE_CAUSE_LEFT_OUT, 1, true, 0), "         - left out: 1 record lost\n");
    EXPECT_EQ(line(QTRACE_CAUSE_DAMAGE, 2, false, 1),
              "         - damage: at least 2 records lost, 1 header lost\n");
    EXPECT_EQ(line(QTRACE_CAUSE_CUT_END, 0, false, 0), "         - cut end: at least 0 records lost\n");
    EXPECT_EQ(line(QTRACE_CAUSE_DAMAGE, 0, true, 2), "         - damage: 2 headers lost\n");
    EXPECT_EQ(line(QTRACE_CAUSE_DAMAGE, 0, true, 0, true), "\x1b[1;31m         - damage\x1b[0m\n");
    EXPECT_EQ(line(QTRACE_CAUSE_PAUSE, 0, true, 0, true), "\x1b[1;36m         - pause\x1b[0m\n");
}

TEST(header_line, has_every_member_that_is_filled)
{
    QTRACE_Item item{};
    item.header = planted::good_trace()[planted::PARTITION].header;
    const auto line = [&] { return put([&](Output &out) { print_header(out, item); }); };
    EXPECT_EQ(line(), "         - partition lpid 0x2 pid 8\n");
    item.header.pid[0] = 0;
    EXPECT_EQ(line(), "         - partition lpid 0x2 pid 0\n") << "flagged as filled";
    item.header.version = 3;
    item.header.control.version_number_present = 1;
    item.header.iar[0] = 0x40;
    EXPECT_EQ(line(), "         - partition address 0000000000000040 radix/radix lpid 0x2 pid 0 version 0x3\n");
}

TEST(header_line, in_json_has_the_embedded_instruction_where_there_is_one)
{
    const planted::Folder folder;
    planted::Trace trace = planted::good_trace();
    trace[planted::PARTITION].header.sec_ext_controlword.instruction = 0x60000000;
    std::istringstream lines(planted::qtrace({"dump", "--json", folder.write("trace0", trace)}).out);
    std::vector<std::string> instructions;
    for (std::string line; std::getline(lines, line);)
        if (const auto item = nlohmann::json::parse(line); item.contains("header") && item.contains("instruction"))
            instructions.push_back(item["instruction"]);
    EXPECT_EQ(instructions, std::vector<std::string>{"0x60000000"});
}

// ---- Fields --------------------------------------------------------------------------------------------

namespace
{

std::vector<std::string> members_of(const Field_Selection &fields)
{
    std::vector<std::string> names;
    fields.members().for_each([&](size_t row) { names.emplace_back(trace::RECORD_MEMBERS[row].name); });
    return names;
}

Field_Selection fields_of(const std::vector<std::string> &names)
{
    std::string unknown;
    return Field_Selection::parse(names, unknown).value();
}

size_t registers_of(const Field_Selection &fields)
{
    size_t count = 0;
    for (size_t i = 0; i < 10; i++)
        count += fields.shows_registers(i);
    return count;
}

} // namespace

TEST(fields, are_members_register_classes_and_groups)
{
    EXPECT_THAT(members_of(fields_of({"node"})), ElementsAre("node", "termination_node", "termination_code"));
    EXPECT_THAT(members_of(fields_of({"length", "data_rpn"})), ElementsAre("data_rpn", "length"));
    EXPECT_FALSE(fields_of({"length"}).shows_flags());
    EXPECT_TRUE(fields_of({"flags"}).shows_flags());
    EXPECT_THAT(members_of(fields_of({"flags"})), ElementsAre());
    EXPECT_EQ(registers_of(fields_of({"flags"})), 0u);
    for (const char *all : {"regs", "registers"}) {
        EXPECT_THAT(members_of(fields_of({all})), ElementsAre("regs")) << all;
        EXPECT_EQ(registers_of(fields_of({all})), 10u) << all;
    }
    EXPECT_THAT(members_of(fields_of({"gpr_in"})), ElementsAre("regs"));
    EXPECT_EQ(registers_of(fields_of({"gpr_in"})), 1u);
    EXPECT_EQ(registers_of(fields_of({"gpr_in", "spr_out"})), 2u);
}

TEST(fields, usual_ones_are_all_but_walks_and_unused_members)
{
    const std::vector<std::string> usual = members_of(Field_Selection::usual());
    EXPECT_TRUE(Field_Selection::usual().shows_flags());
    EXPECT_EQ(registers_of(Field_Selection::usual()), 10u);
    EXPECT_THAT(usual, testing::Contains("instruction"));
    EXPECT_THAT(usual, testing::Contains("data_rpn"));
    EXPECT_THAT(usual, testing::Contains("next_instruction_ea"));
    for (const char *name : {"next_instruction_hRTW", "data_hRTW", "data_gRTW", "itype"}) {
        EXPECT_THAT(usual, testing::Not(testing::Contains(name)));
        EXPECT_THAT(members_of(Field_Selection::all()), testing::Contains(name));
    }
    EXPECT_EQ(members_of(fields_of({"length", "all"})), members_of(Field_Selection::all()));
    EXPECT_EQ(members_of(Field_Selection::all()).size(), trace::RECORD_MEMBERS.size());
}

TEST(fields, of_an_unknown_name_are_none)
{
    std::string unknown;
    EXPECT_FALSE(Field_Selection::parse({"length", "header"}, unknown));
    EXPECT_EQ(unknown, "header");
    const std::vector<std::string> names = Field_Selection::names();
    EXPECT_EQ(std::set(names.begin(), names.end()).size(), names.size()) << "no name twice";
    EXPECT_THAT(names, testing::Not(testing::Contains("header")));
    for (const std::string &name : names)
        EXPECT_TRUE(Field_Selection::parse({name}, unknown)) << name;
}

TEST(formats, are_made_by_their_names)
{
    const std::vector<std::string> names = item_formats();
    EXPECT_THAT(names, testing::UnorderedElementsAre("json", "text"));
    QTRACE_Item item{};
    item.record = planted::plain_record(1);
    const auto line = [&](const char *format) {
        return put(
            [&](Output &out) { make_item_view(format, "name", Field_Selection::all())->record(out, item, {}); });
    };
    EXPECT_THAT(line("json"), testing::StartsWith("{\"file\":\"name\","));
    EXPECT_THAT(line("text"), testing::StartsWith("         0 "));
}

// ---- Mnemonics -----------------------------------------------------------------------------------------

namespace
{

std::string text_line(const std::string &name, uint64_t word, uint64_t address, const std::string &rest = "")
{
    return fmt::format("(seq:1,tid:2) (instbody:0x{:08x}) {{name:{}}} (I:0) (PC:0x{:016x}){}\n", word, name,
                       address, rest);
}

QTRACE_Item numbered(uint64_t number, uint32_t word, uint64_t address, bool known = true)
{
    QTRACE_Item item{};
    item.record_number = number;
    item.record.header.instruction = word;
    item.address = address;
    item.address_known = known;
    return item;
}

std::string failure_of(const std::function<void()> &action)
{
    try {
        action();
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST(mnemonics, belong_to_the_record_line_of_the_number)
{
    const Folder folder;
    const std::string file = folder.text(
        "text0", "*** FILE HEADER INSERTED *** \ncomment\n" + text_line("addi r1", 1, 0x10) +
                     text_line("b", 2, 0x14) + "a pause\n" + text_line("{x} y", 3, 0x18) + text_line("", 4, 0x1c));
    Text_Mnemonics mnemonics(file);
    EXPECT_EQ(mnemonics.of(numbered(0, 1, 0x10)), "addi r1");
    EXPECT_EQ(mnemonics.of(numbered(2, 3, 0x18)), "{x} y");
    EXPECT_EQ(mnemonics.of(numbered(3, 4, 0x99, false)), "") << "an address that is not known cannot differ";
}

TEST(mnemonics, of_another_trace_are_refused_with_the_line)
{
    const Folder folder;
    const std::string file =
        folder.text("text0", "header\n" + text_line("a", 0x10, 0x10) + "(seq:2) nothing\n" + text_line("b", 1, 2));
    const std::string end = ": it does not belong to this trace";
    const auto failure = [&](const QTRACE_Item &item) {
        return failure_of([&] { Text_Mnemonics(file).of(item); });
    };
    EXPECT_EQ(failure(numbered(0, 0x11, 0x10)),
              file + ": line 2: the instruction is 00000010, that of record 0 00000011" + end);
    EXPECT_EQ(failure(numbered(0, 0x10, 0x14)),
              file + ": line 2: the address is 0000000000000010, that of record 0 0000000000000014" + end);
    EXPECT_EQ(failure(numbered(1, 0, 0)), file + ": line 3: not a record line" + end);
    EXPECT_EQ(failure(numbered(3, 1, 2)), file + ": it ends after 3 records, before record 3" + end);
    EXPECT_EQ(failure(numbered(2, 1, 2)), "none");
    const auto failure_in = [&](const std::string &line) {
        return failure_of([&] { Text_Mnemonics(folder.text("line0", line)).of(numbered(0, 1, 1)); });
    };
    const std::string other = folder.path("line0") + ": line 1: ";
    EXPECT_EQ(failure_in("(seq:1) (instbody:0x1) {name:a (I:0) (PC:0x1)\n"), other + "not a record line" + end);
    EXPECT_EQ(failure_in("(seq:1) {name:a} (I:0) (PC:0x1)\n"),
              other + "the instruction is 00000000, that of record 0 00000001" + end);
    EXPECT_EQ(failure_in("(seq:1) (instbody:0x1) {name:a} (I:0)\n"),
              other + "the address is 0000000000000000, that of record 0 0000000000000001" + end);
}

TEST(mnemonics, lines_may_be_of_any_length)
{
    const size_t shortest = text_line("a", 1, 0x10).size();
    for (const size_t length : {131069, 131070, 131071, 131072, 131073, 300000}) {
        const Folder folder;
        std::string text =
            text_line("a", 1, 0x10, std::string(length + 1 - shortest, 'x')) + text_line("b", 2, 0x14);
        text.pop_back(); // the last line may end without a newline
        Text_Mnemonics mnemonics(folder.text("text0", text));
        EXPECT_EQ(mnemonics.of(numbered(0, 1, 0x10)), "a") << length;
        EXPECT_EQ(mnemonics.of(numbered(1, 2, 0x14)), "b") << length;
        EXPECT_THROW(mnemonics.of(numbered(2, 2, 0x14)), std::runtime_error);
    }
}

TEST(mnemonics, lines_are_read_up_to_131071_bytes)
{
    const Folder folder;
    for (const size_t length : {131071, 131072}) {
        std::string line = "(seq:1) (instbody:0x1) {name:a} (I:0) (PC:0x12)";
        line.insert(line.find("(PC"), std::string(length + 1 - line.size(), ' ')); // the bracket may be missing
        Text_Mnemonics mnemonics(folder.text("text0", line + "\n"));
        EXPECT_EQ(mnemonics.of(numbered(0, 1, length == 131071 ? 0x12 : 0x1)), "a") << length;
    }
}

TEST(mnemonics, a_line_is_read_to_its_last_character)
{
    const Folder folder;
    const std::string line = "(seq:1) (instbody:0x12) {name:a} (I:0) (PC:0x1234";
    for (const char *end : {"", "\n"}) {
        Text_Mnemonics mnemonics(folder.text("text0", line + end));
        EXPECT_EQ(mnemonics.of(numbered(0, 0x12, 0x1234)), "a");
    }
}

TEST(mnemonics, a_file_that_is_none_is_refused)
{
    const Folder folder;
    EXPECT_EQ(failure_of([&] { Text_Mnemonics missing(folder.path("none")); }),
              folder.path("none") + ": No such file or directory");
    EXPECT_EQ(failure_of([] { Text_Mnemonics device("/dev/zero"); }), "/dev/zero: no text trace");
}

// ---- Page-table entries --------------------------------------------------------------------------------

TEST(pte_line, each_word_that_must_be_an_address_is_looked_at)
{
    const Folder folder;
    const auto warning = [&](const std::string &kind, size_t words, size_t wrong) {
        std::string bytes(8 * words, '\0');
        bytes[8 * wrong] = '\x10'; // big-endian: the highest byte
        return qtrace({"dump", "--kind", kind, "--pte", folder.text("pte0", bytes)}).err;
    };
    const char *const names[] = {"directory_1", "directory_2", "directory_3", "entry", "address"};
    for (size_t word = 0; word < 5; word++)
        EXPECT_THAT(warning("radix", 5, word),
                    HasSubstr(std::string("access 0: ") + names[word] + " is 0x1000000000000000"));
    EXPECT_THAT(warning("hpt", 3, 0), HasSubstr("access 0: address is 0x1000000000000000"));
    for (size_t word = 1; word < 3; word++)
        EXPECT_EQ(warning("hpt", 3, word), "");
    EXPECT_EQ(warning("words", 1, 0), "");
}

TEST(pte_line, what_is_wrong_is_said_once_and_the_rest_of_the_file_is_told)
{
    const Folder folder;
    std::string bytes(8 * 10 + 8, '\0');
    bytes[0] = bytes[8] = bytes[40] = '\x10';
    const std::string file = folder.text("pte0", bytes);
    const std::string wrong =
        ": access 0: directory_1 is 0x1000000000000000, which is no real address: not all accesses are radix\n";
    EXPECT_EQ(qtrace({"dump", "--kind", "radix", "--pte", file}).err,
              "qtrace: " + file + wrong + "qtrace: " + file +
                  ": offset 80: 8 bytes left, no whole access of 40 bytes\n");
    EXPECT_EQ(qtrace({"dump", "--kind", "radix", "--count", "1", "--pte", file}).err, "qtrace: " + file + wrong);
    EXPECT_EQ(qtrace({"dump", "--kind", "radix", "--from", "1", "--count", "1", "--pte", file}).exit_code, 3);
    EXPECT_EQ(qtrace({"dump", "--kind", "radix", "--from", "2", "--pte", file}).err,
              "qtrace: " + file + ": no access 2: the file has 2\n");
    EXPECT_EQ(qtrace({"dump", "--kind", "radix", "--from", "3", "--pte", file}).err,
              "qtrace: " + file + ": no access 3: the file has 2\n");
    const std::string one = folder.text("one0", std::string(40, '\0'));
    EXPECT_EQ(qtrace({"dump", "--kind", "radix", "--from", "1", "--pte", one}).err,
              "qtrace: " + one + ": no access 1: the file has 1\n");
    EXPECT_EQ(qtrace({"dump", "--pte", folder.text("empty0", "")}).exit_code, 0);
}
