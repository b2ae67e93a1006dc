// A report of some records says of them what a report of a trace with these records alone says.
#include "planted_trace.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <filesystem>

using namespace planted;
using nlohmann::json;

namespace
{

constexpr size_t RECORDS = 2000, FROM = 731, COUNT = 617;

// Loads, taken branches and stores all over the trace, and a partition header now and then.
Trace varied_trace()
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    for (size_t i = 1; i < RECORDS; i++) {
        if (i % 400 == 0) {
            trace.push_back(good_trace()[PARTITION]);
            trace.back().header.pid[0] = static_cast<uint8_t>(i / 400);
        }
        trace.push_back({false, {}, "", plain_record(0x7c000214)});
        if (i % 7 == 0)
            trace.back() = good_trace()[TAKEN_BRANCH];
        else if (i % 5 == 0)
            trace.back() = good_trace()[NESTED_LOAD];
        if (i % 5 == 0 && i % 7 != 0)
            trace.back().record.data_ea[2] = static_cast<uint8_t>(i / 10);
    }
    return trace;
}

// What the page's pictures of its only thread are drawn from.
json pictured(const Folder &folder, std::vector<std::string> words, const std::string &told = "")
{
    words.insert(words.begin(), {"report", "-o", folder.path("page.html")});
    const Outcome done = qtrace(words);
    EXPECT_EQ(done.err, told);
    const std::string page = folder.contents("page.html"), begin = R"(id="data">)";
    const size_t first = page.find(begin) + begin.size();
    json thread = json::parse(page.substr(first, page.find("</script>", first) - first))["threads"][0];
    thread.erase("name");
    return thread;
}

uint64_t instructions_of(const json &processes)
{
    uint64_t sum = 0;
    for (const json &process : processes)
        for (const json &bin : process["bins"])
            sum += bin.get<uint64_t>();
    return sum;
}

} // namespace

TEST(report_range, of_the_first_records_shows_what_a_trace_that_ends_there_does)
{
    const Folder folder;
    const Trace trace = varied_trace();
    const std::string whole = folder.write("whole0", trace);
    const size_t items = 1 + COUNT + COUNT / 400; // with the headers among them
    const std::string begun = folder.write("begun0", Trace(trace.begin(), trace.begin() + items));
    EXPECT_EQ(pictured(folder, {"--count", std::to_string(COUNT), whole}), pictured(folder, {begun}));
}

TEST(report_range, shows_what_a_cut_of_these_records_does)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", varied_trace()), cut = folder.path("cut0");
    const std::vector<std::string> range = {"--from", std::to_string(FROM), "--count", std::to_string(COUNT)};
    std::vector<std::string> cutting = {"cut", whole, "-o", cut}, chosen = range;
    cutting.insert(cutting.end(), range.begin(), range.end());
    ASSERT_EQ(qtrace(cutting).exit_code, 0);
    chosen.push_back(whole);
    json from_range = pictured(folder, chosen), from_cut = pictured(folder, {cut});
    EXPECT_EQ(from_range["gaps"].size(), 0u);
    EXPECT_EQ(from_cut["gaps"].size(), 1u) << "what the cut left out";
    EXPECT_EQ(from_range["first"], FROM);
    EXPECT_EQ(from_range["end"], FROM + COUNT);
    EXPECT_EQ(from_range["records"], COUNT);
    EXPECT_EQ(instructions_of(from_range["processes"]), COUNT);
    for (const char *figure :
         {"first", "end", "records", "bin_records", "heat", "working_set", "mix", "bias", "curves"})
        EXPECT_EQ(from_range[figure], from_cut[figure]) << figure;
}

TEST(report_range, says_in_its_page_which_records_it_shows)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", varied_trace());
    pictured(folder, {"--from", "100", "--count", "50", whole});
    EXPECT_NE(folder.contents("page.html").find("shows the records from 100 up to 149 alone"), std::string::npos);
    pictured(folder, {"--from", "100", whole});
    EXPECT_NE(folder.contents("page.html").find("shows the records from 100 up to 1,999 alone"), std::string::npos);
    pictured(folder, {"--from", "1", "--count", "1900", whole});
    EXPECT_NE(folder.contents("page.html").find("shows the records from 1 up to 1,900 alone"), std::string::npos);
    pictured(folder, {"--from", "0", "--count", "100000", whole});
    EXPECT_EQ(folder.contents("page.html").find("this page shows"), std::string::npos);
}

TEST(report_range, that_begins_after_the_last_record_is_refused)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", varied_trace());
    const Outcome done = qtrace({"report", "-o", folder.path("page.html"), "--from", "2000", whole});
    EXPECT_EQ(done.exit_code, 1);
    EXPECT_EQ(done.err, "qtrace: " + whole + ": no record 2000: the file has 2000\n");
    EXPECT_EQ(folder.contents("page.html"), "");
}

// It is damage that the page tells of; a gap is where records go on.
TEST(report_range, of_a_trace_that_is_cut_off_has_no_gap_at_its_end)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", varied_trace()), bytes = folder.contents("whole0");
    const std::string cut = folder.text("cut0", bytes.substr(0, bytes.size() - 1));
    EXPECT_EQ(pictured(folder, {whole})["gaps"], json::array());
    const std::string what = "byte 16: the file ends inside a block (at least 2000 records are lost)";
    EXPECT_EQ(pictured(folder, {cut}, "qtrace: " + cut + ": " + what + "\n")["gaps"], json::array());
    EXPECT_NE(folder.contents("page.html").find(what), std::string::npos);
}

TEST(report_range, of_a_trace_without_a_block_ends_where_it_begins)
{
    const Folder folder;
    folder.write("whole0", varied_trace());
    const std::string none = folder.text("none0", folder.contents("whole0").substr(0, 16)); // the file's head
    const json picture =
        pictured(folder, {none}, "qtrace: " + none + ": byte 16: the file ends without its last block\n");
    EXPECT_EQ(picture["records"], 0);
    EXPECT_EQ(picture["first"], 0);
    EXPECT_EQ(picture["end"], 0);
}

TEST(report_range, of_a_trace_that_lost_only_headers_has_a_gap)
{
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    uint64_t noise = 1;
    for (size_t i = 0; i < 20000; i++) {
        trace.push_back(good_trace()[PARTITION]);
        noise = noise * 6364136223846793005u + 1442695040888963407u;
        std::memcpy(trace.back().header.pid, &noise, 4);
        std::memcpy(trace.back().header.lpid, &noise, 8);
    }
    trace.push_back(good_trace()[TAKEN_BRANCH]);
    const Folder folder;
    std::string bytes = folder.contents(std::filesystem::path(folder.write("whole0", trace)).filename());
    const size_t second = bytes.find("\x8BQB\n", bytes.find("\x8BQB\n") + 1);
    ASSERT_NE(bytes.find("\x8BQB\n", second + 1), std::string::npos); // a third block
    bytes[second + 100] ^= 0x20;
    const std::string broken = folder.text("broken0", bytes);
    const Outcome dumped = qtrace({"dump", broken});
    const json gaps = pictured(folder, {broken}, dumped.err)["gaps"];
    ASSERT_EQ(gaps.size(), 1u);
    EXPECT_EQ(gaps[0]["record"], 1) << gaps;
}

TEST(report_range, of_a_cut_without_the_first_record_has_a_gap_before_the_second)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", varied_trace()), cut = folder.path("cut0");
    ASSERT_EQ(qtrace({"cut", whole, "-o", cut, "--from", "1"}).exit_code, 0);
    const json gaps = pictured(folder, {cut})["gaps"];
    ASSERT_EQ(gaps.size(), 1u);
    EXPECT_EQ(gaps[0]["record"], 1) << gaps;
}

TEST(report_range, of_a_cut_of_one_record_begins_at_its_number)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", varied_trace()), cut = folder.path("cut0");
    ASSERT_EQ(qtrace({"cut", whole, "-o", cut, "--from", "731", "--count", "1"}).exit_code, 0);
    const json pictures = pictured(folder, {cut});
    EXPECT_EQ(pictures["first"], 731);
    EXPECT_EQ(pictures["end"], 732);
}

TEST(report_json, names_the_page_and_its_size)
{
    const Folder folder;
    const std::string page = folder.path("page.html");
    const Outcome done = qtrace({"report", "--json", "-o", page, folder.write("whole0", varied_trace())});
    EXPECT_EQ(done.exit_code, 0);
    EXPECT_EQ(json::parse(done.out), json({{"file", page}, {"bytes", folder.contents("page.html").size()}}));
}
