// What comes out does not depend on how many threads read, on whole and on damaged traces.
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace planted;
using nlohmann::json;

namespace
{

// 60,000 records in several blocks: jumps over many pages, partition changes, pauses, violations at every distance.
Trace mixed_trace()
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 7;
    for (size_t i = 1; i < 60000; i++) {
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        Item item{false, {}, "", plain_record(0x7c000214)};
        item.record.header.control.fld.register_trace_present = 1;
        item.record.regs.num_gprs_out = 1;
        item.record.regs.gpr_out[0] = {static_cast<uint16_t>(i % 32), noise};
        if (noise >> 60 == 0) {
            item = good_trace()[TAKEN_BRANCH];
            item.record.next_instruction_ea[2] = static_cast<uint8_t>(noise >> 40);
            item.record.next_instruction_rpn[1] = static_cast<uint8_t>(noise >> 48);
        } else if (noise >> 60 == 1) {
            item = good_trace()[NESTED_LOAD];
            item.record.data_rpn[1] = static_cast<uint8_t>(noise >> 48);
        } else if (i % 997 == 0) {
            item.record.header.control.fld.node_present = 1;
            item.record.node = 7;
        }
        trace.push_back(item);
        if (i % 3001 == 0) {
            trace.push_back(good_trace()[PARTITION]);
            trace.back().header.pid[0] = static_cast<uint8_t>(noise >> 48 & 3);
        }
        if (i % 9001 == 0) {
            trace.push_back(good_trace()[SECOND_HEADER]);
            trace.push_back(good_trace()[RESUMED]);
            trace.back().record.processor = static_cast<uint8_t>(noise >> 48 & 1);
        }
    }
    return trace;
}

const std::vector<std::vector<std::string>> COMMANDS = {
    {"stats"},
    {"stats", "--json", "--top", "1000"},
    {"check", "--limit", "3"},
    {"check", "--json", "--limit", "100000"},
    {"check", "--json", "--deep", "--limit", "100000"},
    {"dump"},
    {"dump", "--json"},
    {"dump", "--kind", "branch", "--count", "900"},
    {"dump", "--pid", "7,9"},
    {"dump", "--json", "--from", "17000", "--count", "20000"},
    {"stats", "--from", "12345", "--count", "23456"},
    {"check", "--from", "12345", "--count", "23456"},
    {"info"},
    {"info", "--verify"},
    {"info", "--verify", "--json"},
    {"info", "--verify", "--from", "12345", "--count", "23456"},
};

const std::vector<std::vector<std::string>> COMPARISONS = {
    {"diff", "--limit", "30"},
    {"diff", "--json", "--limit", "100000"},
    {"diff", "--ignore", "header,missing"},
    {"diff", "--json", "--limit", "1000", "--from", "12345", "--count", "33456"},
};

void expect_equal_output(const std::vector<std::string> &command, const std::vector<std::string> &files)
{
    const auto with_jobs = [&](const char *jobs) {
        std::vector<std::string> words = command;
        words.insert(words.end(), {"--jobs", jobs});
        words.insert(words.end(), files.begin(), files.end());
        return qtrace(words);
    };
    const Outcome alone = with_jobs("1");
    EXPECT_NE(alone.out, "") << testing::PrintToString(command);
    for (const char *jobs : {"2", "3", "7"}) {
        const Outcome together = with_jobs(jobs);
        EXPECT_TRUE(together.out == alone.out) << testing::PrintToString(command);
        EXPECT_EQ(together.err, alone.err) << testing::PrintToString(command);
        EXPECT_EQ(together.exit_code, alone.exit_code) << testing::PrintToString(command);
    }
}

// The copy, too, whatever it replaces.
void expect_equal_recovery(const Folder &folder, const std::string &file)
{
    const std::string copy = folder.path("copy0");
    const Outcome alone = qtrace({"recover", "--jobs", "1", file, copy});
    const std::string bytes = folder.contents("copy0");
    for (const char *jobs : {"2", "3", "7"}) {
        const Outcome together = qtrace({"recover", "--jobs", jobs, file, copy});
        EXPECT_EQ(together.out, alone.out);
        EXPECT_EQ(together.err, alone.err);
        EXPECT_EQ(together.exit_code, alone.exit_code);
        EXPECT_TRUE(folder.contents("copy0") == bytes) << file;
    }
}

void expect_equal_output(const Folder &folder, const std::string &file)
{
    for (const std::vector<std::string> &command : COMMANDS)
        expect_equal_output(command, {file});
    expect_equal_recovery(folder, file);
}

void expect_equal_comparison(const std::string &a, const std::string &b)
{
    for (const std::vector<std::string> &command : COMPARISONS) {
        expect_equal_output(command, {a, b});
        expect_equal_output(command, {b, a});
    }
}

} // namespace

TEST(jobs, any_number_gives_the_same_output_of_a_whole_trace)
{
    const Folder folder;
    expect_equal_output(folder, folder.write("trace0", mixed_trace()));
}

TEST(jobs, any_number_gives_the_same_output_of_damaged_traces)
{
    const Folder folder;
    folder.write("trace0", mixed_trace());
    const std::string bytes = folder.contents("trace0");
    std::string spoilt = bytes;
    spoilt[spoilt.size() / 2] ^= 0x55;
    spoilt[spoilt.size() / 4] ^= 0x55;
    expect_equal_output(folder, folder.text("spoilt0", spoilt));
    expect_equal_output(folder, folder.text("cut0", bytes.substr(0, bytes.size() * 2 / 3)));
    expect_equal_output(folder, folder.text("twice0", bytes + bytes));
    qtrace({"recover", folder.path("spoilt0"), folder.path("saved0")});
    expect_equal_output(folder, folder.path("saved0"));
}

// Blocks at the beginning are the same, then records differ, are missing on one side, or headers differ.
TEST(jobs, any_number_gives_the_same_comparison_of_whole_traces)
{
    const Folder folder;
    const Trace trace = mixed_trace();
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

TEST(jobs, any_number_gives_the_same_comparison_of_damaged_traces)
{
    const Folder folder;
    const std::string whole = folder.write("trace0", mixed_trace());
    const std::string bytes = folder.contents("trace0");
    std::string spoilt = bytes;
    spoilt[spoilt.size() * 3 / 4] ^= 0x55;
    expect_equal_comparison(whole, folder.text("spoilt0", spoilt));
    expect_equal_comparison(whole, folder.text("cut0", bytes.substr(0, bytes.size() * 2 / 3)));
    expect_equal_comparison(whole, folder.text("twice0", bytes + bytes));
    expect_equal_comparison(folder.path("spoilt0"), folder.path("spoilt0"));
    qtrace({"recover", folder.path("spoilt0"), folder.path("saved0")});
    expect_equal_comparison(whole, folder.path("saved0"));
}

// The same records in one block and in many: borders between blocks change nothing.
TEST(jobs, groups_of_blocks_leave_no_trace_in_the_counts)
{
    const Folder folder;
    const Trace trace = mixed_trace();
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

TEST(jobs, numbers_that_are_none_are_refused)
{
    for (const char *jobs : {"0", "-1", "x", "99999"})
        EXPECT_EQ(qtrace({"stats", "--jobs", jobs, "trace0"}).exit_code, 2);
}
