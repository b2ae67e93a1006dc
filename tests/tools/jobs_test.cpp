// What comes out does not depend on how many threads read, on whole and on damaged traces.
#include "jobs_commands.h"
#include "tool_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>

using namespace jobs_commands;
using nlohmann::json;

namespace
{

constexpr size_t RECORDS = 60000;

using Numbers = std::vector<const char *>; // of jobs

void expect_equal_output(const Words &command, const Files &files, const Numbers &numbers)
{
    const Outcome alone = run(command, "1", files);
    const std::string written = bytes_of(files.out);
    EXPECT_NE(alone.out + written, "") << testing::PrintToString(command);
    for (const char *jobs : numbers) {
        const Outcome together = run(command, jobs, files);
        EXPECT_TRUE(together.out == alone.out) << testing::PrintToString(command);
        EXPECT_TRUE(bytes_of(files.out) == written) << testing::PrintToString(command);
        EXPECT_EQ(together.err, alone.err) << testing::PrintToString(command);
        EXPECT_EQ(together.exit_code, alone.exit_code) << testing::PrintToString(command);
    }
}

void expect_equal_output(const Folder &folder, const std::string &file, const Numbers &numbers)
{
    for (const Words &command : commands())
        expect_equal_output(command, {file, "", folder.path("out0")}, numbers);
}

void expect_equal_comparison(const std::string &a, const std::string &b, const Numbers &numbers = {"2", "3", "7"})
{
    for (const Words &command : comparisons()) {
        expect_equal_output(command, {a, b, ""}, numbers);
        expect_equal_output(command, {b, a, ""}, numbers);
    }
}

// Of a command whose lines and messages go to the same file.
std::string lines_and_messages(const Words &command, const std::string &file)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> to(std::fopen(file.c_str(), "w"), &std::fclose);
    qtrace_tool::run_qtrace(command, fileno(to.get()), fileno(to.get()));
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The names in the program's help.
std::vector<std::string> subcommands()
{
    const std::string help = qtrace({"--help"}).out;
    std::istringstream lines(help.substr(help.find("Subcommands:")));
    std::vector<std::string> names;
    std::string line;
    for (std::getline(lines, line); std::getline(lines, line) && line.starts_with("  ");)
        names.push_back(line.substr(2, line.find(' ', 2) - 2));
    return names;
}

} // namespace

TEST(jobs, any_number_gives_the_same_output_of_a_whole_trace)
{
    const Folder folder;
    expect_equal_output(folder, folder.write("trace0", mixed_trace(36000, 2)), {"2", "3", "7"});
}

TEST(jobs, any_number_gives_the_same_output_of_damaged_traces)
{
    const Folder folder;
    folder.write("trace0", mixed_trace(36000, 2));
    const std::string bytes = folder.contents("trace0");
    std::string spoilt = bytes;
    spoilt[spoilt.size() / 2] ^= 0x55;
    spoilt[spoilt.size() / 4] ^= 0x55;
    expect_equal_output(folder, folder.text("spoilt0", spoilt), {"2", "7"});
    expect_equal_output(folder, folder.text("cut0", bytes.substr(0, bytes.size() * 2 / 3)), {"3"});
    expect_equal_output(folder, folder.text("twice0", bytes + bytes), {"3"});
    qtrace({"recover", folder.path("spoilt0"), folder.path("saved0")});
    expect_equal_output(folder, folder.path("saved0"), {"2"});
}

// The lines of a block are a megabyte, and longer than what is written at once.
TEST(jobs, any_number_tells_damage_between_the_same_lines)
{
    const Folder folder;
    folder.write("trace0", mixed_trace(36000, 2));
    std::string bytes = folder.contents("trace0");
    for (size_t part = 1; part < 4; part++)
        bytes[bytes.size() * part / 4] ^= 0x55;
    const std::string spoilt = folder.text("spoilt0", bytes.substr(0, bytes.size() - 100));
    const std::string alone = lines_and_messages({"dump", "--json", "--jobs", "1", spoilt}, folder.path("alone"));
    EXPECT_THAT(alone, testing::HasSubstr("}\nqtrace: "));
    for (const char *jobs : {"2", "3", "7"})
        EXPECT_TRUE(lines_and_messages({"dump", "--json", "--jobs", jobs, spoilt}, folder.path("out")) == alone);
}

// Blocks at the beginning are the same, then records differ, are missing on one side, or headers differ.
TEST(jobs, any_number_gives_the_same_comparison_of_whole_traces)
{
    const Folder folder;
    const Trace trace = mixed_trace(RECORDS, 1);
    const std::string whole = folder.write("trace0", trace);
    expect_equal_comparison(whole, whole);
    Trace changed = trace;
    changed[55000].record.header.instruction ^= 1;
    expect_equal_comparison(whole, folder.write("changed0", changed));
    changed.erase(changed.begin() + 40000, changed.begin() + 40010);
    expect_equal_comparison(whole, folder.write("missing0", changed));
    changed = trace;
    for (size_t i = 30000; i < changed.size(); i++)
        if (changed[i].is_header)
            changed[i].header.pid[1] = 1;
    expect_equal_comparison(whole, folder.write("headers0", changed));
    expect_equal_comparison(whole, folder.write("begun0", {trace.begin(), trace.begin() + 50000}));
}

// So many that no blocks are passed over any longer; then there are none.
TEST(jobs, any_number_gives_the_same_comparison_of_traces_that_differ_everywhere)
{
    const Folder folder;
    Trace trace = mixed_trace(150'000, 3);
    const std::string whole = folder.write("trace0", trace);
    size_t changes = 0;
    for (size_t i = 1'000; i < 140'000; i += 2'000) {
        changes += !trace[i].is_header;
        trace[i].record.header.instruction ^= 1;
    }
    const std::string changed = folder.write("changed0", trace);
    const auto compared = [&](const char *jobs) {
        return qtrace({"diff", "--json", "--limit", "100", "--jobs", jobs, whole, changed}).out;
    };
    EXPECT_EQ(json::parse(compared("1"))["differences"].size(), changes);
    EXPECT_TRUE(compared("2") == compared("1"));
}

TEST(jobs, any_number_gives_the_same_comparison_of_damaged_traces)
{
    const Folder folder;
    const std::string whole = folder.write("trace0", mixed_trace(RECORDS, 1));
    const std::string bytes = folder.contents("trace0");
    std::string spoilt = bytes;
    spoilt[spoilt.size() * 3 / 4] ^= 0x55;
    expect_equal_comparison(whole, folder.text("spoilt0", spoilt), {"2", "7"});
    expect_equal_comparison(whole, folder.text("cut0", bytes.substr(0, bytes.size() * 2 / 3)), {"3"});
    expect_equal_comparison(whole, folder.text("twice0", bytes + bytes), {"2"});
    expect_equal_comparison(folder.path("spoilt0"), folder.path("spoilt0"), {"3"});
    qtrace({"recover", folder.path("spoilt0"), folder.path("saved0")});
    expect_equal_comparison(whole, folder.path("saved0"), {"2"});
}

// The same records in one block and in many: borders between blocks change nothing.
TEST(jobs, groups_of_blocks_leave_no_trace_in_the_counts)
{
    const Folder folder;
    const Trace trace = mixed_trace(RECORDS, 1);
    const json counts = json::parse(qtrace({"stats", "--json", folder.write("trace0", trace)}).out);
    uint64_t branches = 0, partition_headers = 0;
    std::map<uint64_t, uint64_t> by_pid;
    uint64_t pid = 7;
    for (const Item &item : trace) {
        if (item.is_header) {
            pid = item.header.pid[0];
            partition_headers += !item.header.control.iar_is_present;
            continue;
        }
        by_pid[pid]++;
        branches += item.record.header.instruction == 0x40820ff8;
    }
    EXPECT_EQ(counts["branches"], branches);
    EXPECT_EQ(counts["partition_headers"], partition_headers);
    std::map<uint64_t, uint64_t> found;
    for (const json &partition : counts["partitions"])
        found[partition["pid"]] += partition["instructions"].get<uint64_t>();
    EXPECT_EQ(found, by_pid);
    uint64_t pages = counts["unnamed_fetches"];
    const json all = json::parse(qtrace({"stats", "--json", "--top", "100000", folder.path("trace0")}).out);
    for (const json &page : all["hot_fetch_pages"])
        pages += page["times"].get<uint64_t>();
    EXPECT_EQ(pages, counts["instructions"]);
}

TEST(jobs, every_subcommand_that_takes_them_is_compared_here)
{
    std::set<std::string> compared, takers, others;
    for (const Words &command : commands())
        compared.insert(command[0]);
    for (const Words &command : comparisons())
        compared.insert(command[0]);
    for (const std::string &name : subcommands())
        (qtrace({name, "--help"}).out.find("--jobs") != std::string::npos ? takers : others).insert(name);
    EXPECT_EQ(takers, compared);
    EXPECT_EQ(others, (std::set<std::string>{"plan"}));
}

TEST(jobs, numbers_that_are_none_are_refused)
{
    for (const char *jobs : {"0", "-1", "x", "99999"})
        EXPECT_EQ(qtrace({"stats", "--jobs", jobs, "trace0"}).exit_code, 2);
}
