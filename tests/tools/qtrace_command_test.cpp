// The `qtrace` command as a user sees it: what it prints, and how it ends.
#include "instruction_kinds.h"
#include "planted_trace.h"
#include "record_schema.h"
#include "trace_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

using namespace planted;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace
{

std::vector<json> json_lines(const std::string &text)
{
    std::istringstream lines(text);
    std::vector<json> objects;
    for (std::string line; std::getline(lines, line);)
        objects.push_back(json::parse(line));
    return objects;
}

std::vector<uint64_t> record_numbers(const Outcome &outcome)
{
    std::vector<uint64_t> numbers;
    for (const json &line : json_lines(outcome.out))
        if (line.contains("record"))
            numbers.push_back(line["record"]);
    return numbers;
}

// A trace of several blocks: registers that no prediction meets.
Trace long_trace(size_t records)
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 1;
    for (size_t i = 1; i < records; i++) {
        Item item{false, {}, "", plain_record(0x7c000214 + static_cast<uint32_t>(i % 7))};
        item.record.header.control.fld.register_trace_present = 1;
        item.record.regs.num_gprs_out = 1;
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        item.record.regs.gpr_out[0] = {static_cast<uint16_t>(i % 32), noise};
        trace.push_back(item);
    }
    return trace;
}

const std::string SUBCOMMANDS[] = {"info",   "dump", "check",   "stats", "tlb",
                                   "report", "diff", "recover", "plan",  "export"};

} // namespace

// ---- Command line --------------------------------------------------------------------------------------

TEST(command_line, help_starts_with_two_examples)
{
    EXPECT_THAT(qtrace({"--help"}).out,
                StartsWith("Examples:\n"
                           "  qtrace info trace                 is it complete? (trace0, trace1, ...)\n"
                           "  qtrace dump --count 20 trace0     the first 20 records\n\n"));
    for (const std::string &name : SUBCOMMANDS) {
        const Outcome outcome = qtrace({name, "--help"});
        const std::string example = "  qtrace " + name + " ";
        EXPECT_EQ(outcome.exit_code, 0);
        EXPECT_THAT(outcome.out, StartsWith("Examples:\n" + example)) << name;
        std::istringstream lines(outcome.out);
        std::string head, first, second;
        std::getline(std::getline(std::getline(lines, head), first), second);
        EXPECT_THAT(second, StartsWith(example));
        EXPECT_NE(second, first);
    }
}

TEST(command_line, mistyped_subcommands_and_options_get_a_suggestion)
{
    const Outcome subcommand = qtrace({"dmup", "trace0"});
    EXPECT_EQ(subcommand.exit_code, 2);
    EXPECT_THAT(subcommand.err, HasSubstr("unknown subcommand `dmup`; did you mean `dump`?"));
    const Outcome option = qtrace({"dump", "--cuont", "3", "trace0"});
    EXPECT_EQ(option.exit_code, 2);
    EXPECT_EQ(option.err, "qtrace: unknown option of qtrace dump `--cuont`; did you mean `--count`?\n"
                          "See `qtrace dump --help`.\n");
    EXPECT_EQ(qtrace({"dump", "--cuont=3", "trace0"}).err, option.err);
    const Outcome field = qtrace({"dump", "--fields", "flagz", "trace0"});
    EXPECT_EQ(field.exit_code, 2);
    EXPECT_THAT(field.err, HasSubstr("did you mean `flags`?"));
    EXPECT_EQ(qtrace({"diff", "--ignore", "registres", "a", "b"}).exit_code, 2);
}

TEST(command_line, wrong_usage_writes_nothing_to_standard_output)
{
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"dump"},
                                               {"dump", "--from", "x", "t"},
                                               {"dump", "--pc", "g", "t"},
                                               {"dump", "--pc", "", "t"},
                                               {"dump", "--fields", "flags"},
                                               {"check"},
                                               {"info"},
                                               {"diff", "a"},
                                               {"recover", "a"}}) {
        const Outcome outcome = qtrace(arguments);
        EXPECT_EQ(outcome.exit_code, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, StartsWith("qtrace: "));
    }
}

TEST(command_line, numbers_are_digits_alone)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    for (const std::vector<std::string> &option : std::vector<std::vector<std::string>>{{"dump", "--from"},
                                                                                        {"dump", "--count"},
                                                                                        {"info", "--headers"},
                                                                                        {"check", "--limit"},
                                                                                        {"stats", "--top"},
                                                                                        {"diff", "--limit"},
                                                                                        {"diff", "--context"}})
        for (const char *number : {"-1", "", "1e3", "+1", "1 ", "18446744073709551616", "0x"}) {
            std::vector<std::string> arguments = option;
            arguments.insert(arguments.end(), {number, file});
            if (option[0] == "diff")
                arguments.push_back(file);
            const Outcome outcome = qtrace(arguments);
            EXPECT_EQ(outcome.exit_code, 2) << option[1] << number;
            EXPECT_THAT(outcome.err, HasSubstr("`" + std::string(number) + "` is not a number for " + option[1]));
            EXPECT_EQ(outcome.out, "");
        }
    // A leading zero does not make a number octal.
    EXPECT_THAT(record_numbers(qtrace({"dump", "--json", "--from", "010", "--count", "1", file})), ElementsAre(10));
    EXPECT_THAT(record_numbers(qtrace({"dump", "--json", "--from", "0xa", "--count", "1", file})), ElementsAre(10));
    EXPECT_THAT(qtrace({"info", "--help"}).out, HasSubstr("--headers N=10 "));
}

TEST(command_line, a_missing_file_is_a_failure_and_the_others_are_still_read)
{
    const Folder folder;
    const Outcome outcome = qtrace({"info", folder.path("none"), folder.write("trace0", good_trace())});
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(outcome.err, HasSubstr("none"));
    EXPECT_THAT(outcome.out, HasSubstr("records      11"));
}

TEST(command_line, a_base_name_stands_for_all_threads)
{
    const Folder folder;
    folder.write("trace0", good_trace());
    folder.write("trace1", good_trace());
    std::vector<std::string> files;
    const Outcome outcome = qtrace({"info", "--json", folder.path("trace")});
    for (const json &line : json_lines(outcome.out))
        files.push_back(line["file"]);
    EXPECT_THAT(files, ElementsAre(folder.path("trace0"), folder.path("trace1")));
    EXPECT_EQ(outcome.exit_code, 0);
}

TEST(command_line, a_number_that_is_missing_in_the_row_is_named_and_hides_no_file)
{
    const Folder folder;
    for (const char *name : {"trace0", "trace2", "trace6", "trace11", "trace02", "trace"})
        folder.write(name, good_trace());
    std::filesystem::remove(folder.path("trace"));
    std::vector<std::string> files;
    const Outcome outcome = qtrace({"info", "--json", folder.path("trace")});
    for (const json &line : json_lines(outcome.out))
        files.push_back(line["file"]);
    EXPECT_THAT(files, ElementsAre(folder.path("trace0"), folder.path("trace2"), folder.path("trace6"),
                                   folder.path("trace11")));
    EXPECT_EQ(outcome.exit_code, 3);
    const std::string t = folder.path("trace");
    EXPECT_EQ(outcome.err, "qtrace: missing in the row of numbers: " + t + "1, " + t + "3 to " + t + "5, " + t +
                               "7 to " + t + "10\n");
}

TEST(command_line, files_of_sessions_on_different_machines_are_told_apart)
{
    const Folder folder;
    Trace other = good_trace();
    other[FIRST_HEADER].comment.replace(other[FIRST_HEADER].comment.find("1073741824"), 10, "2147483648");
    folder.write("trace0", good_trace());
    folder.write("trace1", good_trace());
    EXPECT_EQ(qtrace({"stats", folder.path("trace")}).exit_code, 0);
    folder.write("trace2", other);
    const Outcome outcome = qtrace({"stats", folder.path("trace")});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_THAT(outcome.err, HasSubstr(folder.path("trace2") + ": its first header tells of another machine"));
}

TEST(command_line, what_differs_between_the_first_headers_is_told_of_each_file)
{
    const auto with = [](const std::string &version, const std::string &memory) {
        Trace trace = good_trace();
        trace[FIRST_HEADER].comment = "KelvoVer:" + version + ",64bitMode:True,LEMode:True,MemUsed:" + memory +
                                      ",HostPagesUsed:4K 64K ,GuestPagesUsed:";
        return trace;
    };
    Trace silent = good_trace();
    silent[FIRST_HEADER].comment.clear();
    silent[FIRST_HEADER].header.control.comment_present = 0;
    const Folder folder;
    folder.write("trace0", silent);
    folder.write("trace1", with("3", "4096"));
    folder.write("trace2", with("4", "4096"));
    folder.write("trace3", with("3", "4096"));
    folder.write("trace4", with("3", "8192"));
    folder.write("trace5", {{false, {}, "", plain_record(0x60000000)}});
    silent[FIRST_HEADER].comment = "of another kind";
    silent[FIRST_HEADER].header.control.comment_present = 1;
    folder.write("trace6", silent);
    const auto told = [&](const char *file, const char *version, const char *memory) {
        return "qtrace: " + folder.path(file) +
               ": its first header tells of another machine than those before: version " + version + " and " +
               memory + " bytes of memory instead of 3 and 4096; files of several sessions?\n";
    };
    EXPECT_EQ(qtrace({"info", folder.path("trace")}).err,
              told("trace2", "4", "4096") + told("trace4", "3", "8192"));
    EXPECT_EQ(qtrace({"info", folder.path("trace2"), folder.path("trace1")}).err, ""); // named one by one
}

TEST(command_line, the_first_two_of_a_row_may_differ_and_the_first_may_be_missing)
{
    Trace other = good_trace();
    other[FIRST_HEADER].comment.replace(other[FIRST_HEADER].comment.find("1073741824"), 10, "2147483648");
    const Folder folder;
    const std::string base = folder.path("trace");
    folder.write("trace1", good_trace());
    EXPECT_EQ(qtrace({"info", base}).err, "qtrace: missing in the row of numbers: " + base + "0\n");
    folder.write("trace0", other);
    EXPECT_THAT(qtrace({"info", base}).err, StartsWith("qtrace: " + base + "1: its first header tells of another"));
}

TEST(command_line, page_bits_are_from_12_to_63)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    for (const char *bits : {"12", "63", "12,16,21,30,24,63"})
        EXPECT_EQ(qtrace({"stats", "--page-bits", bits, file}).exit_code, 0) << bits;
    for (const char *bits : {"11", "64", "12,11", "x", ""})
        EXPECT_EQ(qtrace({"stats", "--page-bits", bits, file}).exit_code, 2) << bits;
    EXPECT_THAT(qtrace({"stats", "--help"}).out, HasSubstr("(default 12,16,21,30,24: 4K, 64K, 2M, 1G, 16M)"));
}

TEST(command_line, threads_that_read_are_1_to_1024)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    for (const char *jobs : {"1", "1024"})
        EXPECT_EQ(qtrace({"stats", "--jobs", jobs, file}).exit_code, 0) << jobs;
    for (const char *jobs : {"0", "1025", "x", "0x1"})
        EXPECT_THAT(
            qtrace({"stats", "--jobs", jobs, file}).err,
            StartsWith("qtrace: `" + std::string(jobs) + "` is not a number for --jobs: 1 to 1024 expected\n"));
}

TEST(command_line, version_and_wrong_words_are_told)
{
    EXPECT_EQ(qtrace({"--version"}).out, "qtrace 1.0.0\n");
    EXPECT_THAT(qtrace({"--help"}).out, StartsWith("Examples:\n  qtrace "));
    EXPECT_EQ(qtrace({"--help"}).exit_code, 0);
    EXPECT_EQ(qtrace({"--jsno"}).exit_code, 2);
    const Outcome extra = qtrace({"diff", "a", "b", "c"});
    EXPECT_EQ(extra.err, "qtrace: one argument too many: c\nSee `qtrace diff --help`.\n");
    EXPECT_EQ(qtrace({"dump", "--pte"}).exit_code, 2);
    const Outcome none = qtrace({});
    EXPECT_EQ(none.exit_code, 2);
    EXPECT_THAT(none.err, testing::EndsWith("\nSee `qtrace --help`.\n"));
    EXPECT_EQ(qtrace({"dump"}).err, "qtrace: FILE is required\nSee `qtrace dump --help`.\n");
}

TEST(trace_files, of_a_sessions_threads_are_found_from_one_of_them)
{
    const Folder folder;
    for (const char *name : {"t0", "t10", "t2", "t02", "tx1", "u"})
        folder.text(name, "");
    using testing::ElementsAre;
    const auto path = [&](const char *name) { return folder.path(name); };
    EXPECT_THAT(qtrace_tool::threads_of(path("t2")), ElementsAre(path("t0"), path("t2"), path("t10")));
    EXPECT_THAT(qtrace_tool::threads_of(path("t10")), ElementsAre(path("t0"), path("t2"), path("t10")));
    EXPECT_THAT(qtrace_tool::threads_of(path("t02")), ElementsAre(path("t02")));
    EXPECT_THAT(qtrace_tool::threads_of(path("u")), ElementsAre(path("u")));
    EXPECT_THAT(qtrace_tool::threads_of(path("none7")), ElementsAre(path("none7")));
    std::filesystem::create_directories(path("d"));
    folder.text("d/0", "");
    folder.text("d/1", "");
    EXPECT_THAT(qtrace_tool::threads_of(path("d/1")), ElementsAre(path("d/0"), path("d/1")));
}

TEST(command_line, prints_no_colour_and_no_progress_when_not_on_a_terminal)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    for (const char *name : {"info", "dump", "check", "stats", "tlb"}) {
        const Outcome outcome = qtrace({name, file});
        EXPECT_THAT(outcome.out, Not(HasSubstr("\x1b"))) << name;
        EXPECT_EQ(outcome.err, "") << name;
    }
}

// ---- info ----------------------------------------------------------------------------------------------

TEST(info, counts_headers_gaps_and_partition_changes_and_decodes_the_comment)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    const json object = json_lines(qtrace({"info", "--json", file}).out).at(0);
    EXPECT_EQ(object["records"], 11);
    EXPECT_EQ(object["headers"], 3);
    EXPECT_EQ(object["full_headers"], 2);
    EXPECT_EQ(object["partition_changes"], 1);
    EXPECT_EQ(object["gaps"], 1);
    EXPECT_EQ(object["clean_end"], true);
    EXPECT_EQ(object["header_list"][2]["before_record"], 9);
    EXPECT_EQ(object["header_list"][1]["pid"], 8);
    const std::string text = qtrace({"info", file}).out;
    EXPECT_THAT(text, HasSubstr("simulator version 3, 64-bit, little-endian, 1.0 GiB of memory"));
    EXPECT_THAT(text, HasSubstr("host pages: 4K 64K; guest pages: none"));
}

TEST(info, finds_headers_in_the_middle_of_a_long_file)
{
    const Folder folder;
    Trace trace = long_trace(40000);
    trace.insert(trace.begin() + 20001, good_trace()[PARTITION]);
    const json object = json_lines(qtrace({"info", "--json", folder.write("trace0", trace)}).out).at(0);
    ASSERT_EQ(object["header_list"].size(), 2u);
    EXPECT_EQ(object["header_list"][1]["before_record"], 20000);
    EXPECT_GT(object["blocks"], 2);
}

TEST(info, tells_a_cut_file_from_a_whole_one)
{
    const Folder folder;
    folder.write("trace0", long_trace(40000));
    const std::string bytes = folder.contents("trace0");
    const Outcome outcome = qtrace({"info", folder.text("cut0", bytes.substr(0, bytes.size() / 2))});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_THAT(outcome.out, HasSubstr("ends         not cleanly"));
}

TEST(info, a_range_is_verified_alone)
{
    const Folder folder;
    Trace trace = long_trace(40000);
    trace.insert(trace.begin() + 1 + 30000, good_trace()[PARTITION]);
    trace.insert(trace.begin() + 1 + 9000, good_trace()[PARTITION]);
    folder.write("trace0", trace);
    std::string bytes = folder.contents("trace0");
    bytes[bytes.size() / 2] ^= 0x55;
    const std::string file = folder.text("spoilt0", bytes);
    const auto verified = [&](const std::string &from, const std::string &count) {
        return qtrace({"info", "--verify", "--json", "--from", from, "--count", count, file});
    };
    const Outcome before = verified("8999", "2"), after = verified("30000", "10000");
    EXPECT_EQ(before.exit_code, 0);
    EXPECT_EQ(before.err, "");
    const json first = json_lines(before.out).at(0), last = json_lines(after.out).at(0);
    EXPECT_EQ(first["records"], 2);
    EXPECT_EQ(first["headers"], 1);
    EXPECT_EQ(first["header_list"][0]["before_record"], 9000);
    EXPECT_EQ(after.exit_code, 0);
    EXPECT_EQ(last["records"], 10000);
    EXPECT_EQ(last["header_list"][0]["before_record"], 30000);
    EXPECT_EQ(last["damaged_places"], 0);
    const Outcome across = verified("9001", "20999");
    EXPECT_EQ(across.exit_code, 3);
    EXPECT_THAT(across.err, HasSubstr("the block's checksum does not match"));
    EXPECT_EQ(json_lines(across.out).at(0)["damaged_places"], 1);
    EXPECT_EQ(json_lines(across.out).at(0)["headers"], 0);
    EXPECT_LT(json_lines(across.out).at(0)["records"], 20999);
}

TEST(info, a_range_needs_records_to_be_read)
{
    const Folder folder;
    const std::string file = folder.write("trace0", long_trace(50));
    for (const char *option : {"--from", "--count"}) {
        const Outcome outcome = qtrace({"info", option, "3", file});
        EXPECT_EQ(outcome.exit_code, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, StartsWith("qtrace: --from and --count need --verify: without it no records are "
                                            "read\n"));
    }
    const Outcome beyond = qtrace({"info", "--verify", "--from", "50", file});
    EXPECT_EQ(beyond.exit_code, 1);
    EXPECT_THAT(beyond.err, HasSubstr("trace0: no record 50: the file has 50\n"));
}

// ---- dump ----------------------------------------------------------------------------------------------

TEST(dump, prints_address_word_flags_and_what_the_record_carries)
{
    const Folder folder;
    const std::string text = qtrace({"dump", folder.write("trace0", good_trace())}).out;
    EXPECT_THAT(text, HasSubstr("         0 0000000000001000 38600001 --- processor 2\n"));
    EXPECT_THAT(
        text,
        HasSubstr("         2 0000000000001008 40820ff8 INT next 0000000000002000 none/radix rpn 0x12 page 1\n"));
    EXPECT_THAT(
        text, HasSubstr("         3 0000000000002000 80640010 --- data 0000000000006010 radix/radix rpn 0x12 page "
                        "1 guest-page 1\n"));
    EXPECT_THAT(text, HasSubstr("         4 0000000000002004 41820010 -NT\n"));
    EXPECT_THAT(text, HasSubstr("length 16 in r4=0x2000 r5=0x11 out x34=0x112233445566778899aabbccddeeff00\n"));
    EXPECT_THAT(text,
                HasSubstr("         6 000000000000200c 48000ff5 INU next 0000000000003000 none/hpt vsid 0x1 rpn"));
    EXPECT_THAT(text, HasSubstr("error 8\n"));
    EXPECT_THAT(text, HasSubstr("- partition lpid 0x2 pid 8\n"));
}

TEST(dump, json_gives_file_names_in_their_own_letters_and_other_bytes_by_number)
{
    const Folder folder;
    const std::pair<std::string, std::string> names[] = {
        {"plain", "plain"},
        {"spur-\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "spur-\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"lone-\xC3-", R"(lone-\u00c3-)"},
        {"half-\xED\xA0\x80-", R"(half-\u00ed\u00a0\u0080-)"},
        {"quo\"te", R"(quo\"te)"},
    };
    for (const auto &[name, shown] : names) {
        const std::string file = folder.write(name + "0", good_trace());
        const std::string out = qtrace({"dump", "--json", "--count", "1", file}).out;
        EXPECT_THAT(out, HasSubstr("/" + shown + "0\""));
        EXPECT_NO_THROW(json_lines(out)) << name;
    }
}

TEST(dump, json_carries_every_filled_member)
{
    const Folder folder;
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    std::set<std::string> expected;
    // every member filled, whatever the flags say; pointers and the library's bookkeeping are no part of a file
    for (const trace::Trace_Member &member : trace::RECORD_MEMBERS) {
        const std::set<std::string_view> outside = {"data",         "file_header", "persistent_data", "offset",
                                                    "record_count", "instr_count", "exec_instr_count"};
        if (outside.contains(member.name) || member.name == "regs")
            continue;
        reinterpret_cast<uint8_t *>(&trace[1].record)[member.offset] |= 1;
        expected.insert(std::string(member.name));
    }
    const json line = json_lines(qtrace({"dump", "--json", folder.write("trace0", trace)}).out).at(1);
    for (const std::string &name : expected)
        EXPECT_TRUE(line.contains(name)) << name;
}

// Whether a member is passed over or shown depends on it alone, wherever it lies.
TEST(dump, json_shows_each_filled_member_and_no_other)
{
    const Folder folder;
    const std::set<std::string_view> outside = {"data",         "file_header", "persistent_data", "offset",
                                                "record_count", "instr_count", "exec_instr_count"};
    Trace trace = {good_trace()[FIRST_HEADER]};
    std::vector<std::string> expected;
    for (const trace::Trace_Member &member : trace::RECORD_MEMBERS) {
        if (outside.contains(member.name) || member.name == "regs")
            continue;
        trace.push_back({false, {}, "", {}});
        // the byte furthest from the member's beginning, but for flags that share two bytes
        const size_t last = member.name == "validity_bits" ? 0 : member.size - 1u;
        reinterpret_cast<uint8_t *>(&trace.back().record)[member.offset + last] = 1;
        expected.emplace_back(member.name);
    }
    const std::vector<json> lines = json_lines(qtrace({"dump", "--json", folder.write("trace0", trace)}).out);
    ASSERT_EQ(lines.size(), expected.size() + 1);
    for (size_t i = 0; i < expected.size(); i++) {
        json line = lines[i + 1];
        for (const char *always : {"file", "record", "address"})
            line.erase(always);
        EXPECT_EQ(line.size(), 1u) << line;
        EXPECT_TRUE(line.contains(expected[i])) << expected[i] << line;
    }
}

TEST(dump, json_names_flags_registers_and_walks)
{
    const Folder folder;
    const auto lines = json_lines(qtrace({"dump", "--json", folder.write("trace0", good_trace())}).out);
    ASSERT_EQ(lines.size(), 15u); // the pause is one
    EXPECT_EQ(lines[0]["comment_present"], 1);
    EXPECT_EQ(lines[0]["iar"], "0x1000");
    EXPECT_EQ(lines[4]["data_hRTW"][2], json({"0x10010", "0x20010", "0x30010", "0x40010"}));
    EXPECT_EQ(lines[4]["data_hRTW_host_RA"], json({"0x50000", "0x50008", "0x0", "0x0"}));
    EXPECT_EQ(lines[7]["gpr_in"], json::parse(R"([[4,"0x2000"],[5,"0x11"]])"));
    EXPECT_EQ(lines[7]["vsxr_out"], json::parse(R"([[34,"0x1122334455667788","0x99aabbccddeeff00"]])"));
    EXPECT_EQ(lines[7]["length"], 16);
    EXPECT_FALSE(lines[7].contains("node"));
}

TEST(dump, ranges_begin_and_end_where_asked)
{
    const Folder folder;
    const std::string file = folder.write("trace0", long_trace(30000));
    const Outcome outcome = qtrace({"dump", "--json", "--from", "25000", "--count", "3", file});
    EXPECT_THAT(record_numbers(outcome), ElementsAre(25000, 25001, 25002));
    EXPECT_EQ(json_lines(outcome.out).at(0)["address"], "0x196a0"); // 0x1000 + 4 * 25000
    EXPECT_EQ(qtrace({"dump", "--from", "30000", file}).exit_code, 1);
}

TEST(dump, picks_records_by_address_and_kind)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    const auto picked = [&](const std::string &option, const std::string &value) {
        return record_numbers(qtrace({"dump", "--json", option, value, file}));
    };
    EXPECT_THAT(picked("--pc", "0x2000-0x2008"), ElementsAre(3, 4, 5));
    EXPECT_THAT(picked("--pc", "2004"), ElementsAre(4));
    EXPECT_THAT(picked("--kind", "load"), ElementsAre(1, 3, 5));
    EXPECT_THAT(picked("--kind", "store"), ElementsAre(7));
    EXPECT_THAT(picked("--kind", "branch"), ElementsAre(2, 4, 6));
    EXPECT_THAT(picked("--kind", "taken"), ElementsAre(2, 6));
    EXPECT_THAT(picked("--kind", "string,error"), ElementsAre(5, 7));
}

TEST(dump, shows_the_fields_asked_for_and_no_others)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    const std::string text = qtrace({"dump", "--from", "5", "--count", "1", "--fields", "gpr_in", file}).out;
    EXPECT_THAT(text, testing::EndsWith("\n         5 0000000000002008 7c6484aa in r4=0x2000 r5=0x11\n"));
    EXPECT_THAT(qtrace({"dump", "--explain", file}).out, StartsWith("# A line a record"));
}

TEST(dump, lists_the_fields_without_a_file)
{
    const Outcome outcome = qtrace({"dump", "--fields", "help"});
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_THAT(outcome.out, StartsWith("instruction\nflags\n"));
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(qtrace({"dump", "--fields", "help,flags", "none"}).out, outcome.out);
    const std::vector<json> lines = json_lines(qtrace({"dump", "--json", "--fields", "help"}).out);
    EXPECT_EQ(lines.at(0), json({{"field", "instruction"}}));
    EXPECT_EQ(lines.back(), json({{"field", "vsxr_out"}}));
}

// ---- stats ---------------------------------------------------------------------------------------------

TEST(stats, counts_what_the_trace_has)
{
    const Folder folder;
    const json counts = json_lines(qtrace({"stats", "--json", folder.write("trace0", good_trace())}).out).at(0);
    const std::map<std::string, int> expected = {
        {"instructions", 11},    {"branches", 3},        {"taken", 1},
        {"not_taken", 1},        {"unconditional", 1},   {"loads", 3},
        {"stores", 1},           {"strings", 1},         {"string_bytes", 16},
        {"data_addresses", 3},   {"data_errors", 1},     {"gpr_in", 2},
        {"vsxr_out", 1},         {"gpr_out", 0},         {"full_headers", 2},
        {"data_none/hpt", 1},    {"fetch_none/hpt", 2},  {"data_none/radix", 1},
        {"data_radix/radix", 1}, {"fetch_none/real", 2}, {"fetch_pages_64K", 1},
        {"data_pages_64K", 2},
    };
    for (const auto &[name, count] : expected)
        EXPECT_EQ(counts.at(name), count) << name;
    EXPECT_EQ(counts["partitions"], json::parse(R"([{"lpid":"0x1","pid":7,"instructions":7},
                                                     {"lpid":"0x2","pid":8,"instructions":4}])"));
}

TEST(stats, sets_threads_side_by_side_and_in_total)
{
    const Folder folder;
    folder.write("trace0", good_trace());
    folder.write("trace1", good_trace());
    const auto columns = json_lines(qtrace({"stats", "--json", folder.path("trace")}).out);
    ASSERT_EQ(columns.size(), 3u);
    EXPECT_EQ(columns[2]["file"], "total");
    EXPECT_EQ(columns[2]["instructions"], 22);
    EXPECT_EQ(columns[2]["hot_targets"][0]["times"], 2);
}

// ---- diff ----------------------------------------------------------------------------------------------

namespace
{

json difference(const Folder &folder, const Trace &a, const Trace &b)
{
    return json_lines(qtrace({"diff", "--json", folder.write("old0", a), folder.write("new0", b)}).out).at(0);
}

json kinds_of(const std::function<void(Trace &)> &change)
{
    const Folder folder;
    Trace trace = good_trace();
    change(trace);
    return difference(folder, good_trace(), trace)["kinds"];
}

} // namespace

TEST(diff, finds_no_difference_between_equal_traces)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    EXPECT_EQ(qtrace({"diff", file, file}).exit_code, 0);
}

TEST(diff, names_the_kind_of_each_difference)
{
    EXPECT_EQ(kinds_of([](Trace &t) { t[STRING].record.regs.gpr_in[1].value++; }), json({{"registers", 1}}));
    EXPECT_EQ(kinds_of([](Trace &t) { t[LOAD].record.data_ea[0]++; }), json({{"data-address", 1}}));
    EXPECT_EQ(kinds_of([](Trace &t) { t[LOAD].record.data_rpn[0]++; }), json({{"translation", 1}}));
    EXPECT_EQ(kinds_of([](Trace &t) { t[LOAD].record.header.instruction++; }), json({{"instruction", 1}}));
    EXPECT_EQ(kinds_of([](Trace &t) { t[SUSPECT_STORE].record.error_code = 4; }), json({{"flags", 1}}));
    EXPECT_EQ(kinds_of([](Trace &t) { t[PARTITION].header.pid[0]++; }), json({{"header", 1}}));
    // the records up to the next jump then stand elsewhere
    EXPECT_EQ(kinds_of([](Trace &t) { t[TAKEN_BRANCH].record.next_instruction_ea[0] = 0x40; }),
              json({{"next-address", 1}, {"address", 4}}));
}

TEST(diff, ignores_what_it_is_told_to)
{
    const Folder folder;
    Trace changed = good_trace();
    changed[STRING].record.regs.gpr_in[1].value++;
    const std::string a = folder.write("old0", good_trace()), b = folder.write("new0", changed);
    EXPECT_EQ(qtrace({"diff", a, b}).exit_code, 3);
    EXPECT_EQ(qtrace({"diff", "--ignore", "translation,registers", a, b}).exit_code, 0);
}

TEST(diff, shows_the_first_difference_with_its_neighbours)
{
    const Folder folder;
    Trace changed = good_trace();
    changed[STRING].record.regs.gpr_in[1].value++;
    const std::string text =
        qtrace({"diff", folder.write("old0", good_trace()), folder.write("new0", changed)}).out;
    EXPECT_THAT(text, HasSubstr("at record 5 | 5 (0000000000002008): registers\n"));
    EXPECT_THAT(text, HasSubstr("\n-         5 0000000000002008"));
    EXPECT_THAT(text, HasSubstr("r5=0x12 out"));
    EXPECT_THAT(text, HasSubstr("\n          4 0000000000002004"));
    EXPECT_THAT(text, HasSubstr("\n          6 000000000000200c"));
}

TEST(diff, aligns_again_after_inserted_and_missing_records)
{
    const Folder folder;
    const Trace whole = long_trace(3000);
    Trace cut = whole;
    // the next address keeps the following records at their places
    cut[1000].record.header.control.fld.iar_change_present = cut[1000].record.header.control.fld.node_present = 1;
    cut[1000].record.header.control.fld.next_instruction_EA_present = 1;
    const uint64_t next = 0x1000 + 4 * 1050;
    std::memcpy(cut[1000].record.next_instruction_ea, &next, sizeof(next));
    cut.erase(cut.begin() + 1001, cut.begin() + 1051);
    const json forward = difference(folder, whole, cut);
    EXPECT_EQ(forward["only_a"], 50);
    EXPECT_EQ(forward["only_b"], 0);
    EXPECT_EQ(forward["differing"], 1); // the record before it, with its new next address
    EXPECT_EQ(difference(folder, cut, whole)["only_b"], 50);
}

TEST(diff, counts_the_records_after_the_end_of_the_shorter_trace)
{
    const Folder folder;
    const json object = difference(folder, long_trace(500), long_trace(620));
    EXPECT_EQ(object["only_b"], 120);
    EXPECT_EQ(object["differing"], 0);
}

// ---- recover -------------------------------------------------------------------------------------------

namespace
{

// Flips bits in the middle of the payload of the block at that offset.
std::string spoilt(std::string bytes, size_t offset)
{
    bytes.at(offset) = static_cast<char>(bytes[offset] ^ 0x55);
    return bytes;
}

} // namespace

TEST(recover, keeps_all_blocks_but_the_damaged_one_and_passes_check)
{
    const Folder folder;
    folder.write("trace0", long_trace(40000));
    const std::string bytes = folder.contents("trace0");
    const std::string broken = folder.text("broken0", spoilt(bytes, bytes.size() / 2));
    EXPECT_EQ(qtrace({"check", broken}).exit_code, 3);
    const Outcome outcome = qtrace({"recover", "--json", broken, folder.path("saved0")});
    EXPECT_EQ(outcome.exit_code, 3);
    const json object = json::parse(outcome.out);
    EXPECT_EQ(object["damaged_places"], 1);
    EXPECT_EQ(object["lost_records_known"], true);
    EXPECT_EQ(object["records"].get<uint64_t>() + object["lost_records"].get<uint64_t>(), 40000u);
    EXPECT_GT(object["lost_records"], 0);
    EXPECT_EQ(qtrace({"check", folder.path("saved0")}).exit_code, 0);
    EXPECT_THAT(qtrace({"info", folder.path("saved0")}).out,
                HasSubstr("missing      records or headers at 1 place"));
}

TEST(recover, records_keep_their_numbers)
{
    const Folder folder;
    folder.write("trace0", long_trace(40000));
    const std::string bytes = folder.contents("trace0");
    qtrace({"recover", folder.text("broken0", spoilt(bytes, bytes.size() / 2)), folder.path("saved0")});
    const auto of = [&](const std::string &name) {
        const std::string text = qtrace({"dump", "--from", "39000", "--count", "5", folder.path(name)}).out;
        return text;
    };
    EXPECT_EQ(of("saved0"), of("trace0"));
}

TEST(recover, a_second_time_changes_nothing)
{
    const Folder folder;
    folder.write("trace0", long_trace(40000));
    const std::string bytes = folder.contents("trace0");
    for (const std::string &damaged : {spoilt(bytes, 40), spoilt(bytes, bytes.size() / 2), spoilt(bytes, 2),
                                       bytes.substr(0, bytes.size() * 2 / 3), bytes + "after the end"}) {
        folder.text("broken0", damaged);
        qtrace({"recover", folder.path("broken0"), folder.path("saved0")});
        EXPECT_EQ(qtrace({"check", folder.path("saved0")}).exit_code, 0);
        EXPECT_EQ(qtrace({"recover", folder.path("saved0"), folder.path("again0")}).exit_code, 0);
        EXPECT_EQ(folder.contents("again0"), folder.contents("saved0"));
    }
}

TEST(recover, copies_an_undamaged_file_as_it_is)
{
    const Folder folder;
    const std::string file = folder.write("trace0", long_trace(9000));
    EXPECT_EQ(qtrace({"recover", file, folder.path("saved0")}).exit_code, 0);
    EXPECT_EQ(folder.contents("saved0"), folder.contents("trace0"));
}

TEST(recover, a_base_name_stands_for_all_threads)
{
    const Folder folder;
    for (const char *name : {"trace0", "trace1"})
        folder.write(name, long_trace(9000));
    const Outcome outcome = qtrace({"recover", "--json", folder.path("trace"), folder.path("saved")});
    EXPECT_EQ(outcome.exit_code, 0);
    ASSERT_EQ(json_lines(outcome.out).size(), 2u);
    EXPECT_EQ(json_lines(outcome.out)[1]["to"], folder.path("saved1"));
    EXPECT_EQ(folder.contents("saved1"), folder.contents("trace1"));
}

TEST(recover, a_cut_end_is_said_to_be_missing_and_not_clean)
{
    const Folder folder;
    folder.write("trace0", long_trace(40000));
    const std::string bytes = folder.contents("trace0");
    const Outcome outcome =
        qtrace({"recover", folder.text("cut0", bytes.substr(0, bytes.size() / 2)), folder.path("saved0")});
    EXPECT_THAT(outcome.out, HasSubstr("cut0: lost at 1 place: "));
    const std::string text = qtrace({"info", folder.path("saved0")}).out;
    EXPECT_THAT(text, Not(HasSubstr("cleanly")));
    EXPECT_THAT(
        text,
        HasSubstr("ends         where a recovery or a cut closed the file: the end of the trace is missing\n"));
}

TEST(recover, refuses_to_write_over_the_damaged_file)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    const std::string before = folder.contents("trace0");
    EXPECT_EQ(qtrace({"recover", file, file}).exit_code, 1);
    EXPECT_EQ(folder.contents("trace0"), before);
}

TEST(recover, writes_nothing_when_no_block_is_whole)
{
    const Folder folder;
    EXPECT_EQ(qtrace({"recover", folder.text("text0", "no trace at all"), folder.path("saved0")}).exit_code, 1);
    EXPECT_FALSE(std::filesystem::exists(folder.path("saved0")));
}

// ---- Instruction words ---------------------------------------------------------------------------------

TEST(instruction_kind, agrees_with_what_a_recorded_stream_says_of_its_instructions)
{
    using trace::Instruction_Kind;
    std::ifstream stream(RECORDED_STREAM);
    size_t commits = 0;
    for (std::string line; std::getline(stream, line);) {
        const json object = json::parse(line);
        if (object["t"] != "commit")
            continue;
        const std::vector<std::string> flags = object.value("is", std::vector<std::string>{});
        const auto is = [&](const char *flag) { return std::ranges::find(flags, flag) != flags.end(); };
        const Instruction_Kind expected = is("unconditional") ? Instruction_Kind::unconditional_branch
                                          : is("branch")      ? Instruction_Kind::conditional_branch
                                          : is("load")        ? Instruction_Kind::load
                                          : is("store")       ? Instruction_Kind::store
                                          : is("cache")       ? Instruction_Kind::cache
                                                              : Instruction_Kind::other;
        const auto word = static_cast<uint32_t>(std::stoul(object["op"].get<std::string>(), nullptr, 16));
        EXPECT_EQ(trace::instruction_info(word).kind, expected) << object["text"];
        EXPECT_EQ(trace::instruction_info(word).string, is("string")) << object["text"];
        commits++;
    }
    EXPECT_EQ(commits, 2000u);
}

TEST(files_of_a_base_name, that_are_missing_are_named_by_their_first_and_last)
{
    const Folder folder;
    for (const char *name : {"trace0", "trace2", "trace5", "trace9"})
        folder.write(name, good_trace());
    const std::string base = folder.path("trace");
    EXPECT_THAT(qtrace({"info", base}).err, HasSubstr("missing in the row of numbers: " + base + "1, " + base +
                                                      "3 to " + base + "4, " + base + "6 to " + base + "8\n"));
}
