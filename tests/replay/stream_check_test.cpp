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
