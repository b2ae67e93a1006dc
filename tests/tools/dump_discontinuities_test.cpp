// `qtrace dump` tells why a trace does not simply go on, what is lost there, and the header in force from there on.
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

using namespace planted;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace
{

// Several blocks, with a change of process in the middle: process 7, then process 9 from record 15,000 on.
Trace long_trace()
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 3;
    for (size_t i = 1; i < 30000; i++) {
        if (i == 15000) {
            trace.push_back(good_trace()[PARTITION]);
            trace.back().header.pid[0] = 9;
        }
        Item item{false, {}, "", plain_record(0x7c000214)};
        item.record.header.control.fld.register_trace_present = 1;
        item.record.regs.num_gprs_out = 1;
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        item.record.regs.gpr_out[0] = {static_cast<uint16_t>(i % 32), noise};
        trace.push_back(item);
    }
    return trace;
}

std::vector<std::string> lines_of(const Outcome &outcome)
{
    std::istringstream text(outcome.out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

bool is_discontinuity(const std::string &line)
{
    return line.find("discontinuity") != std::string::npos;
}

std::vector<json> discontinuities(const Outcome &outcome)
{
    std::vector<json> found;
    for (const std::string &line : lines_of(outcome))
        if (is_discontinuity(line))
            found.push_back(json::parse(line));
    return found;
}

// The lines before and after the only discontinuity.
std::pair<json, json> neighbours(const Outcome &outcome)
{
    const std::vector<std::string> lines = lines_of(outcome);
    for (size_t i = 1; i + 1 < lines.size(); i++)
        if (is_discontinuity(lines[i]))
            return {json::parse(lines[i - 1]), json::parse(lines[i + 1])};
    return {};
}

class dump_discontinuity : public testing::Test
{
protected:
    std::string spoilt(size_t byte) const
    {
        folder_.write("trace0", long_trace());
        std::string bytes = folder_.contents("trace0");
        bytes[byte * bytes.size() / 10] ^= 0x55;
        return folder_.text("spoilt0", bytes);
    }
    Folder folder_;
};

TEST_F(dump_discontinuity, of_a_pause_names_the_header_that_follows)
{
    const Outcome outcome = qtrace({"dump", "--json", folder_.write("trace0", good_trace())});
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(outcome.err, "");
    const std::vector<json> found = discontinuities(outcome);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["discontinuity"], "pause");
    const auto [before, after] = neighbours(outcome);
    EXPECT_EQ(before["record"].get<int>() + 1, found[0]["at_record"]);
    EXPECT_EQ(after["before_record"], found[0]["at_record"]);
    EXPECT_EQ(found[0]["lost_records"], 0);
    EXPECT_EQ(found[0]["lost_records_known"], true);
    for (const char *key : {"iar", "lpid", "pid", "ptcr"})
        EXPECT_EQ(found[0]["context"].value(key, json()), after.value(key, json())) << key;
}

TEST_F(dump_discontinuity, of_damage_counts_what_is_lost_and_tells_the_process_after_it)
{
    const Outcome outcome = qtrace({"dump", "--json", spoilt(7)});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_THAT(outcome.err, HasSubstr("checksum"));
    const std::vector<json> found = discontinuities(outcome);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["discontinuity"], "damage");
    const auto [before, after] = neighbours(outcome);
    const uint64_t lost = found[0]["lost_records"];
    EXPECT_GT(lost, 0u);
    EXPECT_GT(found[0]["lost_bytes"], 0);
    EXPECT_EQ(before["record"].get<uint64_t>() + 1, found[0]["at_record"]);
    EXPECT_EQ(after["record"], found[0]["at_record"].get<uint64_t>() + lost);
    EXPECT_EQ(found[0]["context"]["pid"], 9);
    EXPECT_EQ(found[0]["context"]["iar"], "0x1000");
}

TEST_F(dump_discontinuity, of_a_recovered_file_is_no_finding)
{
    const std::string damaged = spoilt(7), saved = folder_.path("saved0");
    qtrace({"recover", damaged, saved});
    const Outcome outcome = qtrace({"dump", "--json", saved});
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(outcome.err, "");
    const std::vector<json> found = discontinuities(outcome),
                            before = discontinuities(qtrace({"dump", "--json", damaged}));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0]["discontinuity"], "left out");
    EXPECT_EQ(found[0]["lost_bytes"], 0);
    for (const char *key : {"at_record", "lost_records", "lost_records_known", "lost_headers", "context"})
        EXPECT_EQ(found[0][key], before[0][key]) << key;
}

TEST_F(dump_discontinuity, of_a_cut_end_comes_last_and_knows_no_context)
{
    folder_.write("trace0", long_trace());
    const std::string bytes = folder_.contents("trace0");
    const Outcome outcome = qtrace({"dump", "--json", folder_.text("cut0", bytes.substr(0, bytes.size() / 2))});
    EXPECT_EQ(outcome.exit_code, 3);
    const json last = json::parse(lines_of(outcome).back());
    EXPECT_EQ(last["discontinuity"], "cut end");
    EXPECT_EQ(last["lost_records_known"], false);
    EXPECT_FALSE(last.contains("context"));
}

TEST_F(dump_discontinuity, is_a_line_without_a_number_in_text)
{
    EXPECT_THAT(qtrace({"dump", folder_.write("pause0", good_trace())}).out,
                HasSubstr("\n         - pause\n         - header"));
    const std::string damaged = spoilt(7);
    const json found = discontinuities(qtrace({"dump", "--json", damaged})).at(0);
    EXPECT_THAT(qtrace({"dump", damaged}).out,
                HasSubstr("\n         - damage: " + found["lost_records"].dump() + " records lost\n"));
    folder_.write("trace0", long_trace());
    const std::string cut = folder_.text("cut0", folder_.contents("trace0").substr(0, 16));
    EXPECT_THAT(qtrace({"dump", cut}).out, HasSubstr("         - cut end: at least 0 records lost\n"));
}

TEST_F(dump_discontinuity, directly_before_the_first_record_asked_for_is_shown)
{
    const std::string damaged = spoilt(7);
    const json found = discontinuities(qtrace({"dump", "--json", damaged})).at(0);
    const uint64_t lost_from = found["at_record"], next = lost_from + found["lost_records"].get<uint64_t>();
    for (const uint64_t from : {lost_from, next})
        EXPECT_EQ(discontinuities(qtrace({"dump", "--json", "--from", std::to_string(from), damaged})).size(), 1u);
    EXPECT_EQ(discontinuities(qtrace({"dump", "--json", "--from", std::to_string(next + 1), damaged})).size(), 0u);
    EXPECT_EQ(discontinuities(qtrace({"dump", "--json", "--count", std::to_string(lost_from), damaged})).size(),
              0u);
}

TEST_F(dump_discontinuity, is_no_line_among_chosen_records)
{
    EXPECT_THAT(qtrace({"dump", "--json", "--kind", "load", folder_.write("trace0", good_trace())}).out,
                Not(HasSubstr("discontinuity")));
}

} // namespace
