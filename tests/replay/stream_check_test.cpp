// What `replay --check` reports about streams made by hand, and the page's table of keys against a trace plugin.

#include "plugin_module.h"
#include "recording_writer.h"
#include "stream_check.h"
#include "stream_reader.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

using namespace replay;
using testing::HasSubstr;
using testing::Not;

namespace
{

struct Report {
    Check_Result result;
    std::string text;
};

// The report about a machine of one thread, its context, and these lines (from line 3).
Report report_of(const std::string &lines, const std::string &context = R"("lpid":1)")
{
    const std::string file = std::filesystem::temp_directory_path() / ("stream_check_" + std::to_string(getpid()));
    std::ofstream(file) << R"({"t":"machine","processors":1,"threads":1,"source":"by hand"})"
                        << "\n{\"t\":\"context\"," << context << "}\n"
                        << lines;
    std::ostringstream out;
    Stream_Reader reader(file);
    const Check_Result result = check_stream(reader, "s", out);
    std::filesystem::remove(file);
    return {result, out.str()};
}

// A commit with these further keys.
std::string commit(int seq, const std::string &keys)
{
    std::ostringstream line;
    line << std::hex << R"({"t":"commit","seq":)" << std::dec << seq << std::hex << R"(,"pc":"0x)"
         << 0x8000 + 4 * seq << R"(","npc":"0x)" << 0x8004 + 4 * seq << '"' << (keys.empty() ? "" : ",") << keys
         << "}\n";
    return line.str();
}

void expect_finding(const std::string &lines, const std::string &text)
{
    const Report report = report_of(lines);
    EXPECT_EQ(report.result.findings, 1u) << report.text;
    EXPECT_THAT(report.text, HasSubstr("s: line " + text + "\n"));
}

} // namespace

TEST(stream_check, stream_in_order_has_no_findings_and_is_summarized)
{
    const Report report =
        report_of(commit(1, R"("fetch":{"mode":25,"host_rpn":1,"host_walk":[["0x8","0x10","0x18","0x20"]]})") +
                  commit(2, R"("is":["load"],"fetch":{"mode":11,"ra":1},"data":{"ea":1,"mode":19,"vsid":5})") +
                  "{\"t\":\"pre\"}\n{\"t\":\"pte\"}\n{\"t\":\"pte\"}\n");
    EXPECT_TRUE(report.result.complete);
    EXPECT_EQ(report.result.findings, 0u);
    EXPECT_EQ(report.text, "source     by hand\n"
                           "machine    processors 1, threads per processor 1\n"
                           "lines      commit 2, context 1, pre 1, pte 2, rtpte 0\n"
                           "thread 0   commits 2\n"
                           "data       mode 19: 1\n"
                           "fetch      mode 11: 1\n"
                           "fetch      mode 25: 1\n"
                           "interrupts and exceptions (pc is not the npc before it): 0\n"
                           "findings   0\n");
}

TEST(stream_check, loads_stores_and_cache_instructions_access_data)
{
    const std::string ra = R"("mode":11,"ra":8})";
    const Report report = report_of(
        commit(1, R"("is":["load"],"data":{"ea":8,)" + ra) + commit(2, R"("is":["store"],"data":{"ea":8,)" + ra) +
        commit(3, R"("is":["cache"],"data":{"ea":8,)" + ra) + commit(4, R"("is":["string"],"data":{)" + ra));
    EXPECT_EQ(report.result.findings, 0u) << report.text;
    EXPECT_THAT(report.text, HasSubstr("data       mode 11: 3\n"));
    EXPECT_THAT(report.text,
                HasSubstr("s: note: data.ra is not read without a data access: 1 time, first in line 6\n"));
}

TEST(stream_check, each_rule_names_line_and_thread)
{
    const std::string first = commit(2, "");
    expect_finding(first + R"({"t":"commit","seq":2,"pc":"0x800c"})" + "\n",
                   "4: thread 0: seq 2 does not follow 2");
    expect_finding(first + R"({"t":"commit","seq":3,"pc":"0x9000"})" + "\n",
                   "4: thread 0: pc 0x9000 follows npc 0x800c without an exception or an interrupt");
    expect_finding(R"({"t":"commit","pc":"0x8002"})"
                   "\n",
                   "3: thread 0: pc 0x8002 is no multiple of 4");
    expect_finding(commit(1, R"("time":9)") + commit(2, R"("time":8)"),
                   "4: thread 0: the time goes back from 9 to 8");
    expect_finding(commit(1, R"("is":["taken"])"), R"(3: thread 0: "taken" or "unconditional" without "branch")");
    expect_finding(commit(1, R"("is":["branch","unconditional"])"),
                   "3: thread 0: an unconditional branch is not taken");
    expect_finding(commit(1, R"("is":["store"])"), "3: thread 0: a load or store has no data.ea");
    expect_finding(commit(1, R"("data":{"ea":8})"),
                   R"(3: thread 0: data.ea is not read without "load", "store" or "cache")");
    expect_finding(commit(1, R"("string_length":8)"), R"(3: thread 0: string_length is not read without "string")");
    expect_finding(commit(1, R"("is":["vmx","vsx"])"), R"(3: thread 0: both "vmx" and "vsx")");
    expect_finding(commit(1, R"("fetch":{"mode":25})"), "3: thread 0: fetch.host_walk[0] has no page-table entry");
    expect_finding(commit(1, R"("fetch":{"mode":25,"host_walk":[[0,0,0,4]]})"),
                   "3: thread 0: fetch.host_walk[0]: 0x4 is no multiple of 8");
    expect_finding(commit(1, R"("fetch":{"mode":25,"host_walk":[[0,0,0,8],[0,0,0,8]]})"),
                   "3: thread 0: fetch.host_walk[1] is beyond the last walk that is read");
    expect_finding(commit(1, R"("fetch":{"mode":23,"guest_two_level":1,"guest_depth":6,"host_walk":)"
                             R"([[0,0,0,8],[0,0,0,8],[0,0,0,8],[0,0,0,8],[0,0,0,8]]})"),
                   "3: thread 0: fetch.guest_depth is 6, not 1 to 5");
    expect_finding(commit(1, R"("fetch":{"mode":14})"),
                   "3: thread 0: fetch: mode 14 without guest_two_level: no translation is read");
    expect_finding(commit(1, R"("fetch":{"mode":19,"host_rpn":3})"),
                   R"(3: thread 0: fetch.host_rpn is not read in mode 19; "vsid" "rpn" "page_size" would be)");
}

namespace
{

// The keys of a translation by four host walks whose entries are all there, beside its mode.
std::string walks(size_t count)
{
    std::string list;
    for (size_t n = 0; n < count; ++n)
        list += std::string(n ? "," : "") + "[8,16,24,32]";
    return "\"host_walk\":[" + list + "]";
}

} // namespace

TEST(stream_check, modes_have_their_keys)
{
    using Key_List = std::vector<std::string_view>;
    const std::vector<uint32_t> radix{25, 26, 27, 29, 30, 31}, hashed{16, 19};
    for (uint32_t mode = 0; mode <= 40; ++mode) {
        Key_List expected;
        if (std::find(radix.begin(), radix.end(), mode) != radix.end())
            expected = {"host_walk", "host_ra", "host_rpn", "host_page_size"};
        if (std::find(hashed.begin(), hashed.end(), mode) != hashed.end())
            expected = {"vsid", "rpn", "page_size"};
        if (mode == 11)
            expected = {"ra"};
        if (mode == 24)
            expected = {"host_walk", "host_ra", "guest_walk", "host_rpn", "host_page_size"};
        EXPECT_EQ(keys_of_mode(mode, false), expected) << mode;
        expected.clear();
        if (mode == 14)
            expected = {"vsid", "rpn", "page_size"};
        if (mode == 23)
            expected = {"host_walk", "host_ra", "guest_walk", "guest_rpn", "host_page_size", "guest_page_size"};
        EXPECT_EQ(keys_of_mode(mode, true), expected) << mode;
    }
}

TEST(stream_check, right_commits_of_every_flag_have_no_findings)
{
    for (const char *keys : {
             R"("is":["branch"])",
             R"("is":["branch","taken"])",
             R"("is":["branch","taken","unconditional"])",
             R"("is":["branch","unconditional","exception"])",
             R"("is":["load"],"data":{"ea":8})",
             R"("is":["store"],"data":{"ea":8})",
             R"("is":["cache"],"data":{"ea":8})",
             R"("is":["cache"])",
             R"("is":["load","exception"])",
             R"("is":["store","exception"])",
             R"("is":["string"],"string_length":8)",
             R"("is":["vmx"])",
             R"("is":["vsx"])",
             R"("fetch":{"mode":25,"host_walk":[[0,0,0,8]]})",
             R"("fetch":{"mode":25,"host_walk":[[0,0,0,8]],"host_ra":[8,8,8,8]})",
             R"("fetch":{"mode":25,"status":1,"host_walk":[[0,0,0,4],[0,0,0,8]]})",
             R"("fetch":{"mode":19,"host_rpn":3,"status":1})",
             R"("fetch":{"mode":19,"host_rpn":3,"rpn":1})",
             R"("fetch":{"mode":14,"guest_two_level":1,"rpn":1})",
             R"("fetch":{"mode":25,"host_walk":[[8,16,24,32]]},"is":["load"],"data":{"ea":1,"mode":19,"vsid":1})",
         })
        EXPECT_EQ(report_of(commit(1, keys)).result.findings, 0u) << keys;
    for (size_t depth = 1; depth <= 5; ++depth)
        EXPECT_EQ(report_of(commit(1, R"("fetch":{"mode":23,"guest_two_level":1,"guest_depth":)" +
                                          std::to_string(depth) + "," + walks(depth) + "}"))
                      .result.findings,
                  0u)
            << depth;
}

TEST(stream_check, wrong_commits_of_every_flag_have_one_finding)
{
    const struct {
        const char *keys, *text;
    } rows[] = {
        {R"("is":["unconditional","taken"])", R"("taken" or "unconditional" without "branch")"},
        {R"("is":["unconditional","exception"])", R"("taken" or "unconditional" without "branch")"},
        {R"("is":["load"])", "a load or store has no data.ea"},
        {R"("is":["string","load"])", "a load or store has no data.ea"},
        {R"("string_length":1)", "string_length is not read without \"string\""},
        {R"("fetch":{"mode":25,"host_walk":[[4,0,0,8]]})", "fetch.host_walk[0]: 0x4 is no multiple of 8"},
        {R"("fetch":{"mode":25,"host_walk":[[0,15,0,8]]})", "fetch.host_walk[0]: 0xf is no multiple of 8"},
        {R"("fetch":{"mode":25,"host_walk":[[0,0,9,8]]})", "fetch.host_walk[0]: 0x9 is no multiple of 8"},
        {R"("fetch":{"mode":25,"host_walk":[[0,0,0,8],[8,0,0,0]]})",
         "fetch.host_walk[1] is beyond the last walk that is read"},
        {R"("fetch":{"mode":25,"host_walk":[[0,0,0,8],[0,0,0,0],[0,8,0,0]]})",
         "fetch.host_walk[2] is beyond the last walk that is read"},
        {R"("fetch":{"mode":25,"host_walk":[[0,0,0,8],[0,0,0,0],[0,0,0,0],[0,0,0,0],[0,0,8,0]]})",
         "fetch.host_walk[4] is beyond the last walk that is read"},
        {R"("fetch":{"mode":23,"guest_two_level":1,"guest_depth":2,"host_walk":[[0,0,0,8]]})",
         "fetch.host_walk[1] has no page-table entry"},
        {R"("fetch":{"mode":23,"guest_two_level":1,"guest_depth":1,"host_walk":[[0,0,0,8],[0,0,0,8]]})",
         "fetch.host_walk[1] is beyond the last walk that is read"},
        {R"("fetch":{"mode":23,"guest_two_level":1,"guest_rpn":1})", "fetch.guest_depth is 0, not 1 to 5"},
        {R"("fetch":{"mode":23,"guest_depth":1})",
         "fetch: mode 23 without guest_two_level: no translation is read"},
        {R"("fetch":{"mode":12,"rpn":1})", "fetch.rpn is not read in mode 12; no key is"},
        {R"("fetch":{"mode":14,"guest_two_level":1,"host_ra":[0,0,0,1]})",
         R"(fetch.host_ra is not read in mode 14 with guest_two_level; "vsid" "rpn" "page_size" would be)"},
        {R"("fetch":{"mode":11,"guest_walk":[0,0,0,0,1]})",
         R"(fetch.guest_walk is not read in mode 11; "ra" would be)"},
        {R"("is":["load"],"data":{"ea":8,"mode":11,"guest_walk":[1,0,0,0,0]})",
         R"(data.guest_walk is not read in mode 11; "ra" would be)"},
        {R"("is":["load"],"fetch":{"mode":19,"rpn":1},"data":{"ea":8,"mode":11,"guest_two_level":1,"ra":1})",
         R"(data.ra is not read in mode 19 with guest_two_level; no key is)"},
    };
    for (const auto &[keys, text] : rows) {
        const Report report = report_of(commit(1, keys));
        EXPECT_EQ(report.result.findings, 1u) << keys << "\n" << report.text;
        EXPECT_THAT(report.text, HasSubstr(std::string("s: line 3: thread 0: ") + text + "\n"));
    }
}

TEST(stream_check, order_is_checked_between_commits_that_are_no_micro_ops)
{
    const std::string same = R"({"t":"commit","seq":1,"pc":"0x8004","npc":"0x8008"})"
                             "\n";
    EXPECT_EQ(report_of(commit(1, "") + same).result.findings, 2u); // its number and its address
    EXPECT_EQ(report_of(commit(1, "") + same, R"("lpid":1,"cycle_mode":true)").result.findings, 0u);
    EXPECT_EQ(report_of(commit(2, "") + R"({"t":"commit","seq":1,"pc":"0x800c"})" + "\n").result.findings, 1u);
    EXPECT_EQ(report_of(commit(1, R"("time":9)") + commit(2, R"("time":9)")).result.findings, 0u);
    EXPECT_EQ(report_of(commit(1, R"("time":9)") + commit(2, "") + commit(3, R"("time":10)")).result.findings, 0u);
    expect_finding(commit(1, R"("time":9)") + commit(2, "") + commit(3, R"("time":9)"),
                   "5: thread 0: the time goes back from 10 to 9");
    expect_finding(commit(1, "") + commit(2, "") + commit(3, R"("time":1)"),
                   "5: thread 0: the time goes back from 2 to 1");
}

TEST(stream_check, interrupts_go_to_the_beginning_of_some_64_kib)
{
    const auto findings_at = [](const std::string &pc) {
        return report_of(commit(1, "") + R"({"t":"commit","seq":2,"pc":")" + pc + "\"}\n").result.findings;
    };
    for (const char *entry : {"0x100", "0x5ffc", "0xc000000000000100", "0x30100"})
        EXPECT_EQ(findings_at(entry), 0u) << entry;
    for (const char *other : {"0xfc", "0x6000", "0x16000", "0x100fc", "0x0"})
        EXPECT_EQ(findings_at(other), 1u) << other;
    EXPECT_EQ(findings_at("0xff"), 2u); // that it is no multiple of 4 is the other one
    EXPECT_EQ(findings_at("0x5fff"), 1u);
    EXPECT_EQ(report_of(commit(1, "") + R"({"t":"commit","seq":2,"pc":"0x9000","is":["exception"]})" + "\n")
                  .result.findings,
              0u);
}

TEST(stream_check, partition_of_a_guest_is_not_0)
{
    for (const uint32_t mode : {14U, 16U, 23U, 24U, 11U, 19U, 25U}) {
        const bool two_level = mode == 14 || mode == 23, guest = two_level || mode == 16 || mode == 24;
        const std::string line = R"("fetch":{"mode":)" + std::to_string(mode) +
                                 R"(,"guest_depth":1,"guest_two_level":)" + (two_level ? "1," : "0,") + walks(1) +
                                 R"(,"rpn":1,"ra":1})";
        EXPECT_EQ(report_of(commit(1, line)).result.findings, 0u) << mode;
        EXPECT_EQ(report_of(commit(1, line), R"("lpid":0)").result.findings, guest ? 1u : 0u) << mode;
    }
}

TEST(stream_check, each_thread_is_checked_for_itself)
{
    const std::string file = std::filesystem::temp_directory_path() / ("stream_check_" + std::to_string(getpid()));
    std::ofstream(file) << R"({"t":"machine","processors":2,"threads":6}
{"t":"context","tid":1}
{"t":"context","tid":11}
{"t":"commit","tid":1,"seq":5,"pc":"0x8000","npc":"0x8004","time":7}
{"t":"commit","tid":11,"seq":4,"pc":"0x9002","npc":"0x9006"}
{"t":"commit","tid":1,"seq":6,"pc":"0x8004"}
{"t":"rtpte"}
{"t":"rtpte"}
{"t":"rtpte"}
{"t":"commit","tid":11,"seq":4,"pc":"0x9004","is":["exception"]}
)";
    std::ostringstream out;
    Stream_Reader reader(file);
    const Check_Result result = check_stream(reader, "s", out);
    std::filesystem::remove(file);
    EXPECT_EQ(result.findings, 2u);
    EXPECT_EQ(out.str(), "s: line 5: thread 11: pc 0x9002 is no multiple of 4\n"
                         "s: line 10: thread 11: seq 4 does not follow 4\n"
                         "machine    processors 2, threads per processor 6\n"
                         "lines      commit 4, context 2, pre 0, pte 0, rtpte 3\n"
                         "thread 1   commits 2\n"
                         "thread 11  commits 2\n"
                         "fetch      mode 0: 4\n"
                         "interrupts and exceptions (pc is not the npc before it): 1\n"
                         "findings   2\n");
}

TEST(stream_check, machine_without_threads_is_a_finding)
{
    for (const char *machine : {R"("processors":0,"threads":1)", R"("processors":1,"threads":0)"}) {
        const std::string file =
            std::filesystem::temp_directory_path() / ("stream_check_" + std::to_string(getpid()));
        std::ofstream(file) << "{\"t\":\"machine\"," << machine << "}\n";
        std::ostringstream out;
        Stream_Reader reader(file);
        EXPECT_EQ(check_stream(reader, "s", out).findings, 1u);
        EXPECT_THAT(out.str(), HasSubstr("s: line 1: thread 0: the machine has no hardware threads\n"));
        std::filesystem::remove(file);
    }
}

TEST(stream_check, keys_that_are_not_read_are_noted_with_the_line_where_they_come_first)
{
    const std::string load = R"("is":["load"],"data":{"ea":8,"mode":19,"vsid":1,"host_page_size":2})";
    const Report report = report_of(commit(1, R"("data":{"rpn":1})") + commit(2, load) + commit(3, load) +
                                    commit(4, R"("is":["cache"],"data":{"guest_page_size":1})") + commit(5, load));
    EXPECT_EQ(report.result.findings, 0u) << report.text;
    EXPECT_THAT(
        report.text,
        HasSubstr("s: note: data.guest_page_size is not read without a data access: 1 time, first in line 6\n"
                  "s: note: data.host_page_size is not read in mode 19: 3 times, first in line 4\n"
                  "s: note: data.rpn is not read without a data access: 1 time, first in line 3\n"));
}

TEST(stream_check, ten_findings_of_a_kind_are_all_shown)
{
    for (const int count : {10, 11}) {
        std::string lines;
        for (int n = 0; n < count; ++n)
            lines += commit(n, R"("is":["vmx","vsx"])");
        const std::string text = report_of(lines).text;
        EXPECT_THAT(text, HasSubstr("s: line 12: thread 0: both"));
        EXPECT_THAT(text, Not(HasSubstr("s: line 13: ")));
        EXPECT_EQ(text.find("s: 1 more like: both \"vmx\" and \"vsx\"\n") != std::string::npos, count == 11);
        EXPECT_EQ(text.find("more like") != std::string::npos, count == 11);
    }
}

TEST(stream_check, guests_mode_needs_a_partition)
{
    const Report report = report_of(commit(1, R"("fetch":{"mode":16,"rpn":1})"), R"("lpid":0)");
    EXPECT_THAT(report.text, HasSubstr("s: line 3: thread 0: fetch: mode 16 is a guest's, but lpid is 0\n"));
}

TEST(stream_check, thread_needs_a_context_before_it_commits)
{
    const std::string file = std::filesystem::temp_directory_path() / ("stream_check_" + std::to_string(getpid()));
    std::ofstream(file) << R"({"t":"machine","processors":1,"threads":1})"
                        << "\n"
                        << R"({"t":"commit"})"
                        << "\n";
    std::ostringstream out;
    Stream_Reader reader(file);
    EXPECT_EQ(check_stream(reader, "s", out).findings, 1u);
    EXPECT_THAT(out.str(), HasSubstr("s: line 2: thread 0: the thread commits before its first context\n"));
    std::filesystem::remove(file);
}

TEST(stream_check, exceptions_and_interrupts_change_the_flow)
{
    const Report report = report_of(commit(1, R"("is":["exception"])") + R"({"t":"commit","seq":2,"pc":"0x9000"})" +
                                    "\n" + R"({"t":"commit","seq":3,"pc":"0xc000000000000980"})" + "\n");
    EXPECT_EQ(report.result.findings, 0u) << report.text;
    EXPECT_THAT(report.text, HasSubstr("before it): 2\n"));
}

TEST(stream_check, walk_that_failed_may_end_anywhere)
{
    EXPECT_EQ(report_of(commit(1, R"("fetch":{"mode":25,"status":1})")).result.findings, 0u);
}

TEST(stream_check, keys_that_are_never_read_are_noted)
{
    const std::string line = R"("fetch":{"mode":19,"vsid":1,"ra":3})";
    const Report report = report_of(commit(1, line) + commit(2, line));
    EXPECT_EQ(report.result.findings, 0u);
    EXPECT_THAT(report.text, HasSubstr("s: note: fetch.ra is not read in mode 19: 2 times, first in line 3\n"));
}

TEST(stream_check, many_findings_of_a_kind_are_counted)
{
    std::string lines;
    for (int n = 0; n < 13; ++n)
        lines += commit(n, R"("is":["vmx","vsx"])");
    const Report report = report_of(lines);
    EXPECT_EQ(report.result.findings, 13u);
    EXPECT_THAT(report.text, HasSubstr("s: line 12: thread 0: both"));
    EXPECT_THAT(report.text, Not(HasSubstr("s: line 13: ")));
    EXPECT_THAT(report.text, HasSubstr("s: 3 more like: both \"vmx\" and \"vsx\"\n"));
}

TEST(stream_check, refused_line_is_reported)
{
    const Report report = report_of(commit(1, "") + "{\"t\":\"commit\",\"tid\":4}\n");
    EXPECT_FALSE(report.result.complete);
    EXPECT_THAT(report.text,
                HasSubstr("s: line 4: key \"tid\": expected a hardware thread from 0 to 0, found 4\n"));
    EXPECT_THAT(report.text, HasSubstr("thread 0   commits 1\n"));
}

// ---- the page's table -----------------------------------------------------------------------------------------

namespace
{

using Keys = std::set<std::string>;

// mode and guest_two_level to keys, from docs/commit-stream.md.
std::map<std::pair<uint32_t, bool>, Keys> table_of_the_page()
{
    std::ifstream page(COMMIT_STREAM_PAGE);
    std::map<std::pair<uint32_t, bool>, Keys> table;
    for (std::string line; std::getline(page, line);) {
        std::istringstream cells(line);
        std::string before, modes, two_level, keys;
        for (std::string *cell : {&before, &modes, &two_level, &keys})
            std::getline(cells, *cell, '|');
        if (two_level != " yes " && two_level != " no ")
            continue;
        std::istringstream numbers(modes);
        for (uint32_t mode; numbers >> mode;) {
            std::istringstream words(keys);
            for (std::string word; words >> word;)
                table[{mode, two_level == " yes "}].insert(word.substr(1, word.size() - 2));
        }
    }
    return table;
}

// The keys whose queries the trace plugin asks about the fetch of a commit in that mode.
class Asking_Plugin
{
public:
    Asking_Plugin()
    {
        host().reset({.processors = 1, .threads = 1, .version = 0, .memory = 0, .options = {}});
        host().set_console([](const Console_Message &) {});
        recording_writer().reset();
        std::filesystem::create_directories(folder_);
        EXPECT_EQ(plugin_.load(PLUGINS "plugin_qtbin.so"), "");
        plugin_.signal({"start", folder_ / "t"});
    }
    ~Asking_Plugin()
    {
        plugin_.unload();
        host().set_console({});
        host().set_query_observer({});
        std::filesystem::remove_all(folder_);
    }

    Keys asked(uint32_t mode, bool two_level)
    {
        static const std::map<std::string, std::string> KEYS = {
            {"Get_Inst_PC_RA", "ra"},
            {"Get_Inst_PC_VSID", "vsid"},
            {"Get_Inst_PC_RPN", "rpn"},
            {"Get_Inst_PC_PageSize", "page_size"},
            {"Get_Inst_Host_PC_RPN", "host_rpn"},
            {"Get_Inst_Guest_PC_RPN", "guest_rpn"},
            {"Get_Inst_PC_Host_PageSize", "host_page_size"},
            {"Get_Inst_PC_Guest_PageSize", "guest_page_size"},
            {"Get_Inst_PC_HOST_RTPTE_n_RA(0)", "host_walk"},
            {"Get_Inst_PC_RonR_HOST_RA_Ln(0)", "host_ra"},
            {"Get_Inst_PC_GUEST_RA", "guest_walk"},
        };
        Keys keys;
        host().set_query_observer([&](std::string_view name) {
            if (const auto key = KEYS.find(std::string(name)); key != KEYS.end())
                keys.insert(key->second);
        });
        Instruction instruction;
        instruction.seq = ++seq_;
        instruction.fetch.mode = static_cast<RDX_XLATE_MODE>(mode);
        instruction.fetch.guest_two_level = two_level;
        instruction.fetch.relocated = true;
        instruction.fetch.guest_depth = instruction.fetch.host_depth = 4;
        plugin_.commit(instruction);
        host().set_query_observer({});
        return keys;
    }

private:
    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("stream_check_keys_" + std::to_string(getpid()));
    Plugin_Module plugin_;
    uint64_t seq_ = 0;
};

} // namespace

TEST(stream_keys_by_mode, page_plugin_and_check_agree)
{
    const auto table = table_of_the_page();
    EXPECT_EQ(table.size(), 12u);
    Asking_Plugin plugin;
    for (uint32_t mode = 0; mode <= 38; ++mode)
        for (const bool two_level : {false, true}) {
            const auto row = table.find({mode, two_level});
            const Keys expected = row == table.end() ? Keys{} : row->second;
            const auto checked = keys_of_mode(mode, two_level);
            EXPECT_EQ(Keys(checked.begin(), checked.end()), expected) << mode << " " << two_level;
            EXPECT_EQ(plugin.asked(mode, two_level), expected) << mode << " " << two_level;
        }
}
