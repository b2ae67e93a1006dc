// `qtrace stats`: what is counted after losses and in total.
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tool_run.h"
#include <pty.h>
#include <thread>
#include <unistd.h>

using namespace planted;
using nlohmann::json;

namespace
{

std::vector<json> columns(const std::vector<std::string> &files)
{
    std::vector<std::string> arguments = {"stats", "--json"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    std::vector<json> columns;
    std::istringstream lines(qtrace(arguments).out);
    for (std::string line; std::getline(lines, line);)
        columns.push_back(json::parse(line));
    return columns;
}

// A process that runs 20,000 instructions, and another one after it for as long, in several blocks.
Trace two_processes()
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 1;
    for (size_t i = 1; i < 40000; i++) {
        if (i == 20000) {
            trace.push_back(good_trace()[PARTITION]); // pid 8
        }
        Item item{false, {}, "", plain_record(0x7c000214)};
        item.record.header.control.fld.register_trace_present = 1;
        item.record.regs.num_gprs_out = 1;
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        item.record.regs.gpr_out[0] = {1, noise};
        trace.push_back(item);
    }
    return trace;
}

std::map<uint64_t, uint64_t> instructions_by_pid(const json &counts)
{
    std::map<uint64_t, uint64_t> by_pid;
    for (const json &partition : counts["partitions"])
        by_pid[partition["pid"]] += partition["instructions"].get<uint64_t>();
    return by_pid;
}

// What `qtrace stats` shows on a terminal of so many columns, line by line.
std::vector<std::string> lines_on_terminal(unsigned short columns, const std::vector<std::string> &files)
{
    int master, slave;
    const winsize size{50, columns, 0, 0};
    if (openpty(&master, &slave, nullptr, nullptr, &size) != 0)
        return {};
    std::string text;
    std::thread reader([&] {
        char bytes[4096];
        for (ssize_t got; (got = read(master, bytes, sizeof(bytes))) > 0;)
            text.append(bytes, static_cast<size_t>(got));
    });
    std::vector<std::string> arguments = {"stats", "--top", "1"};
    arguments.insert(arguments.end(), files.begin(), files.end());
    qtrace_tool::run_qtrace(arguments, slave, slave);
    close(slave);
    reader.join();
    close(master);
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line.substr(0, line.find('\r')));
    return lines;
}

size_t longest(const std::vector<std::string> &lines)
{
    size_t longest = 0;
    for (const std::string &line : lines)
        longest = std::max(longest, line.size());
    return longest;
}

// Five threads in the present folder, so that names are short.
struct Stats_On_Terminal : testing::Test {
    Stats_On_Terminal()
    {
        setenv("NO_COLOR", "1", 1);
        unsetenv("COLUMNS");
        for (char number = '0'; number < '5'; number++)
            folder.write(std::string("trace") + number, good_trace());
        std::filesystem::current_path(folder.path(""));
    }
    ~Stats_On_Terminal() override { std::filesystem::current_path(before); }

    std::filesystem::path before = std::filesystem::current_path();
    Folder folder;
};

} // namespace

TEST_F(Stats_On_Terminal, a_wide_table_becomes_several_that_fit)
{
    const std::vector<std::string> lines = lines_on_terminal(80, {"trace"});
    EXPECT_LE(longest(lines), 80u);
    std::string names; // of all columns, in order
    for (const std::string &line : lines)
        if (line.starts_with("     ") &&
            line.find_first_not_of(" abcdefghijklmnopqrstuvwxyz01234") == std::string::npos)
            names += line;
    std::istringstream words(names);
    EXPECT_THAT(std::vector<std::string>(std::istream_iterator<std::string>(words), {}),
                testing::ElementsAre("trace0", "trace1", "trace2", "trace3", "trace4", "total"));
}

TEST_F(Stats_On_Terminal, a_table_that_fits_is_the_same_as_in_a_file)
{
    const std::string file = qtrace({"stats", "--top", "1", "trace"}).out;
    EXPECT_THAT(lines_on_terminal(200, {"trace"}).front(), testing::Eq(file.substr(0, file.find('\n'))));
    setenv("COLUMNS", "200", 1);
    EXPECT_GT(longest(lines_on_terminal(80, {"trace"})), 80u);
    unsetenv("COLUMNS");
}

TEST_F(Stats_On_Terminal, long_names_lose_their_beginning)
{
    std::filesystem::rename("trace0", std::string(100, 'x') + "end0");
    const std::vector<std::string> lines = lines_on_terminal(80, {std::string(100, 'x') + "end0"});
    EXPECT_LE(longest({lines.begin(), lines.begin() + 30}), 80u);
    EXPECT_THAT(lines.front(), testing::AllOf(testing::HasSubstr(" ...xx"), testing::EndsWith("xend0")));
}

// The block in which the process changes is lost: those after it say which process runs.
TEST(stats, string_instructions_are_those_that_can_be_and_those_with_a_length)
{
    const Folder folder;
    const Item string{false, {}, "", plain_record(0x7c0004aa)}; // lswi, which moved nothing
    Item other{false, {}, "", plain_record(0x60000000)};
    other.record.header.control.fld.length_present = 1;
    other.record.length = 5;
    const std::string file =
        folder.write("trace0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], string, other, string});
    const json counts = columns({file}).at(0);
    EXPECT_EQ(counts["strings"], 3);
    EXPECT_EQ(counts["string_bytes"], 5);
}

TEST(stats_after_losses, instructions_belong_to_the_process_that_runs)
{
    const Folder folder;
    folder.write("trace0", two_processes());
    std::string bytes = folder.contents("trace0");
    bytes[bytes.size() / 2 + 200] ^= 0x55;
    const std::string damaged = folder.text("damaged0", bytes), saved = folder.path("saved0");
    const json recovery = json::parse(qtrace({"recover", "--json", damaged, saved}).out);
    const uint64_t first_lost = [&] {
        uint64_t expected = 0;
        std::istringstream lines(qtrace({"dump", "--json", "--fields", "node", saved}).out);
        for (std::string line; std::getline(lines, line);)
            if (const json item = json::parse(line); item.contains("record")) {
                if (item["record"] != expected)
                    return expected;
                expected++;
            }
        return expected;
    }();
    const uint64_t lost = recovery["lost_records"];
    ASSERT_LT(first_lost, 20000u);
    ASSERT_GT(first_lost + lost, 20000u);
    const std::map<uint64_t, uint64_t> expected = {{7, first_lost}, {8, 40000 - first_lost - lost}};
    EXPECT_EQ(instructions_by_pid(columns({damaged}).at(0)), expected);
    EXPECT_EQ(instructions_by_pid(columns({saved}).at(0)), expected);
}

// Nothing tells how instructions after a loss are translated, before an address is named again.
TEST(stats_after_losses, translation_modes_are_unknown_until_they_are_named)
{
    const Folder folder;
    folder.write("trace0", two_processes());
    std::string bytes = folder.contents("trace0");
    bytes[bytes.size() / 2] ^= 0x55;
    const json whole = columns({folder.path("trace0")}).at(0),
               counts = columns({folder.text("damaged0", bytes)}).at(0);
    EXPECT_EQ(whole["fetch_none/radix"], 40000);
    EXPECT_EQ(counts["fetch_none/radix"].get<uint64_t>() + counts["fetch_unknown"].get<uint64_t>(),
              counts["instructions"].get<uint64_t>());
    EXPECT_GT(counts["fetch_unknown"], 0);
    qtrace({"recover", folder.path("damaged0"), folder.path("saved0")});
    const json saved = columns({folder.path("saved0")}).at(0);
    EXPECT_EQ(saved["fetch_unknown"], counts["fetch_unknown"]);
    EXPECT_EQ(saved["fetch_none/radix"], counts["fetch_none/radix"]);
}

TEST(stats_total, is_the_sum_of_every_counter)
{
    const Folder folder;
    const std::string a = folder.write("one0", good_trace()), b = folder.write("two0", two_processes());
    const std::vector<json> all = columns({a, b});
    ASSERT_EQ(all.size(), 3u);
    size_t counters = 0;
    for (const auto &[key, value] : all[0].items()) {
        if (!value.is_number() || key.starts_with("bytes_") || key.starts_with("fetch_pages") ||
            key.starts_with("data_pages"))
            continue;
        counters++;
        EXPECT_EQ(all[2][key].get<double>(), value.get<double>() + all[1][key].get<double>()) << key;
    }
    EXPECT_GE(counters, 30u);
    EXPECT_EQ(all[2]["loads"], 3);
    EXPECT_EQ(all[2]["instructions"], 40011);
}
