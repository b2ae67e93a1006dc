// `qtrace diff` on traces of so many records that their blocks, jobs and look-ahead matter.
#include "compared_traces.h"
#include "diff_side.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace planted;
using nlohmann::json;
using qtrace_tool::Trace_File;

namespace
{

const json NOTHING = json::object();

} // namespace

TEST(diff_missing, pieces_left_out_are_counted_exactly)
{
    const Trace whole = numbered_trace(60000);
    for (const size_t count : {1, 2, 7, 1000, 20000}) {
        const Folder folder;
        Trace less = whole;
        less.erase(less.begin() + 30001, less.begin() + 30001 + static_cast<ptrdiff_t>(count));
        const std::string a = folder.write("old0", whole), b = folder.write("new0", less);
        EXPECT_EQ(difference(a, b)["only_a"], count);
        EXPECT_EQ(difference(a, b)["differing"], 0);
        EXPECT_EQ(difference(b, a)["only_b"], count);
        EXPECT_EQ(difference(b, a)["kinds"], json({{"missing", 1}}));
    }
}

TEST(diff_damage, a_lost_block_is_counted_by_its_numbers)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", numbered_trace(40000));
    std::string bytes = folder.contents("whole0");
    bytes[bytes.size() / 2] ^= 0x55;
    const std::string damaged = folder.text("damaged0", bytes), saved = folder.path("saved0");
    const json lost = json::parse(qtrace({"recover", "--json", damaged, saved}).out)["lost_records"];
    ASSERT_GT(lost, 1000);
    for (const std::string &less : {damaged, saved}) {
        const json found = difference(whole, less);
        EXPECT_EQ(found["only_a"], lost);
        EXPECT_EQ(found["only_b"], 0);
        EXPECT_EQ(found["kinds"], json({{"missing", 1}}));
        EXPECT_EQ(difference(less, whole)["only_b"], lost);
    }
    EXPECT_EQ(difference(damaged, saved)["kinds"], NOTHING);
}

// Every record differs, and all have the same word: only their numbers tell where some are missing.
TEST(diff_damage, a_lost_block_of_another_run_is_placed_by_its_numbers)
{
    const Folder folder;
    Trace trace = numbered_trace(30000);
    const std::string one = folder.write("one0", trace);
    for (Item &item : trace)
        item.record.regs.gpr_out[0].value++;
    folder.write("other0", trace);
    std::string bytes = folder.contents("other0");
    bytes[bytes.size() / 2] ^= 0x55;
    const std::string damaged = folder.text("damaged0", bytes);
    const json recovery = json::parse(qtrace({"recover", "--json", damaged, folder.path("saved0")}).out);
    const uint64_t lost = recovery["lost_records"];
    ASSERT_GT(lost, 1000u);
    const json found = difference(one, damaged, {"--ignore", "address", "--limit", "30000"});
    const json &places = found["differences"];
    const auto missing = std::find_if(places.begin(), places.end(),
                                      [](const json &place) { return place["kinds"] == json({"missing"}); });
    ASSERT_NE(missing, places.end());
    EXPECT_EQ((*missing)["only_a"], lost);
    const std::string dumped = qtrace({"dump", "--json", "--fields", "node", damaged}).out;
    const size_t key = dumped.find("\"at_record\":");
    ASSERT_NE(key, std::string::npos);
    EXPECT_EQ((*missing)["record_a"], std::stoull(dumped.substr(key + 12)));
    EXPECT_EQ(found["differing"], 30000 - lost);
    EXPECT_EQ(found["kinds"]["missing"], 1);
}

TEST(diff_damage, files_after_one_another_end)
{
    const Folder folder;
    folder.write("first0", numbered_trace(9000));
    Trace other = numbered_trace(9000);
    other[700].record.header.instruction++;
    folder.write("second0", other);
    const std::string one = folder.contents("first0"), two = folder.contents("second0");
    const std::string a = folder.text("a0", one + one), b = folder.text("b0", one + two);
    const json found = difference(a, b);
    EXPECT_EQ(found["differing"], 1);
    EXPECT_EQ(found["only_a"], 0);
    EXPECT_EQ(difference(a, folder.text("c0", one))["only_a"], 9000);
}

// The record numbers begin again at 0 in the second file: they do not tell where a record is.
TEST(diff_damage, records_missing_in_the_second_of_two_joined_files_are_counted)
{
    const Folder folder;
    Trace trace = numbered_trace(9000);
    folder.write("whole0", trace);
    trace.erase(trace.begin() + 1 + 700, trace.begin() + 1 + 710);
    folder.write("less0", trace);
    const std::string whole = folder.contents("whole0");
    const std::string a = folder.text("a0", whole + whole), b = folder.text("b0", whole + folder.contents("less0"));
    const json found = difference(a, b);
    EXPECT_EQ(found["only_a"], 10);
    EXPECT_EQ(found["only_b"], 0);
    EXPECT_EQ(found["differing"], 0);
}

TEST(diff_range, only_its_records_are_compared)
{
    const Folder folder;
    Trace trace = numbered_trace(30000);
    const std::string a = folder.write("old0", trace);
    for (const size_t record : {0, 9999, 10000, 20000, 29999})
        trace[1 + record].record.header.instruction ^= 0x100;
    const std::string b = folder.write("new0", trace);
    const auto differing = [&](const std::string &from, const std::string &count) {
        const json counts = difference(a, b, {"--from", from, "--count", count});
        EXPECT_EQ(counts["records_a"], counts["records_b"]);
        return std::pair(counts["differing"].get<uint64_t>(), counts["records_a"].get<uint64_t>());
    };
    EXPECT_EQ(differing("0", "30000"), std::pair(uint64_t{5}, uint64_t{30000}));
    EXPECT_EQ(differing("10000", "10000"), std::pair(uint64_t{1}, uint64_t{10000}));
    EXPECT_EQ(differing("10001", "9999"), std::pair(uint64_t{0}, uint64_t{9999}));
    EXPECT_EQ(differing("1", "9999"), std::pair(uint64_t{1}, uint64_t{9999}));
    EXPECT_EQ(differing("29999", "100"), std::pair(uint64_t{1}, uint64_t{1}));
    EXPECT_EQ(difference(a, b, {"--from", "20000"})["differences"][0]["record_a"], 20000);
    EXPECT_EQ(qtrace({"diff", "--from", "10001", "--count", "9999", a, b}).exit_code, 0);
}

TEST(diff_range, counts_what_one_trace_lacks_by_numbers)
{
    const Folder folder;
    const Trace trace = numbered_trace(30000);
    const std::string whole = folder.write("old0", trace);
    const std::string begun = folder.write("new0", {trace.begin(), trace.begin() + 1 + 20000});
    const json counts = difference(whole, begun, {"--from", "19000", "--count", "3000"});
    EXPECT_EQ(counts["only_a"], 2000);
    EXPECT_EQ(counts["records_a"], 3000);
    EXPECT_EQ(counts["records_b"], 1000);
    EXPECT_EQ(difference(whole, begun, {"--from", "25000"})["only_a"], 5000);
    std::string bytes = folder.contents("old0");
    bytes[bytes.size() / 2] ^= 0x55;
    const std::string damaged = folder.text("damaged0", bytes), saved = folder.path("saved0");
    const json lost = json::parse(qtrace({"recover", "--json", damaged, saved}).out)["lost_records"];
    EXPECT_GT(lost, 1000);
    EXPECT_EQ(difference(whole, saved, {"--from", "5", "--count", "29000"})["only_a"], lost);
    EXPECT_EQ(difference(whole, damaged, {"--from", "5", "--count", "29000"})["only_a"], lost);
    EXPECT_EQ(qtrace({"diff", "--count", "2000", whole, damaged}).err, "");
}

TEST(diff_lookahead, has_at_most_131072_records)
{
    const Folder folder;
    const std::string name = folder.path("long0");
    const QTRACE_FDESCR out = QTRACE_Fopen(name.c_str(), QTRACE_WRITE);
    Item header = good_trace()[PARTITION], record{false, {}, "", plain_record(0x60000000)};
    ASSERT_EQ(QTRACE_FwriteFileHeader(out, &header.header), 0);
    for (size_t i = 0; i < 131'074; i++)
        QTRACE_FwriteRecord(out, &record.record);
    QTRACE_Fclose(out);
    qtrace_tool::Tool_Run run{1, 2};
    const auto file = qtrace_tool::Trace_File::open(run, name);
    qtrace_tool::Lookahead ahead(run, *file, {}, qtrace_tool::Record_Hash({}));
    EXPECT_EQ(ahead.keys(0, 0, true).size(), 131'072u);
    EXPECT_FALSE(ahead.at_end());
    EXPECT_EQ(ahead.keys(1, 1, true).size(), 131'072u) << "up to the last but one";
    EXPECT_FALSE(ahead.at_end());
    EXPECT_EQ(ahead.keys(3, 3, true).size(), 131'071u);
    EXPECT_TRUE(ahead.at_end());
}
