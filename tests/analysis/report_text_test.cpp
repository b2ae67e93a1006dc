// The page of a report, of figures made by hand: its text and tables, and the data that its pictures are drawn from.
#include "planted_trace.h"
#include "report_page.h"
#include "tool_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

using namespace planted;
using namespace qtrace_tool;
using Json = nlohmann::ordered_json;
using testing::HasSubstr;
using testing::Not;

namespace
{

const Page_Sizes SIZES;

QTRACE_Item read_item(const Item &item, uint64_t number, uint64_t address)
{
    QTRACE_Item read{};
    read.kind = item.is_header ? QTRACE_ITEM_HEADER : QTRACE_ITEM_RECORD;
    read.header = item.header;
    read.record = item.record;
    read.record_number = number;
    read.address = address;
    read.address_known = 1;
    return read;
}

Item load_from(uint64_t address)
{
    Item load = good_trace()[LOAD];
    std::memcpy(load.record.data_ea, &address, sizeof(address));
    return load;
}

std::unique_ptr<Thread_Data> thread(const std::string &name, uint64_t first = 0, uint64_t end = 1)
{
    return std::make_unique<Thread_Data>(name, SIZES, first, end);
}

// Two loads in each of 24 ranges of 2 MiB, on pages of 64 KiB; then a nested load, a pause and a store to a hashed page
// without a translation. Two records a bin. What the records do not tell is set.
std::unique_ptr<Thread_Data> busy_thread()
{
    auto data = thread("a<&>\"\x1f 0", 100, 579);
    Report_Part part(SIZES);
    part.start(nullptr);
    part.header(read_item(good_trace()[FIRST_HEADER], 100, 0));
    uint64_t number = 100, pc = 0x4000;
    for (uint64_t range = 1; range <= 24; range++)
        for (const uint64_t page : {0, 0x30000}) {
            part.record(read_item(load_from(range * 0x200000 + page), number++, pc));
            pc += 4;
        }
    part.record(read_item(good_trace()[NESTED_LOAD], number++, pc));
    part.header(read_item(good_trace()[SECOND_HEADER], number, 0));
    part.record(read_item(good_trace()[SUSPECT_STORE], number++, 0x4000));
    data->add(part);
    data->is_part = true;
    Trace_Counts &c = data->counts;
    static_cast<Trace_Sums &>(c) = {};
    c.instructions = 1234567;
    c.full_headers = 1;
    c.partition_headers = 12;
    c.taken = 200000, c.not_taken = 100000, c.unconditional = 34567, c.undecided = 5;
    c.other_jumps = 0;
    c.loads = 400000, c.stores = 200000, c.cache = 1000, c.strings = 7;
    c.data_addresses = 617284;
    c.data_errors = 4, c.unnamed_fetches = 6;
    c.file_bytes = 999;
    c.partitions = {{{1, 7}, 1000000}, {{0x20, 8}, 234567}};
    c.targets.add(0x2000, 70);
    data->branches = {{0x10, {3, 0}},     {0x20, {20, 1}},     {0x30, {10, 1}},      {0x40, {100, 49}},
                      {0x50, {500, 250}}, {0x60, {1000, 899}}, {0x70, {5000, 4500}}, {0x80, {20000, 20000}}};
    data->unlisted_branches = 1;
    data->addresses.add(0x4004, 123455);
    data->addresses.add(0xc000000000001000, 5000);
    data->fetches.count(0xc000000000001000, 3);
    data->first_record.erase(0x200000);
    for (const size_t times : {2, 3, 4, 1000})
        for (size_t i = 0; i < times; i++)
            data->writes.count(0x7fff0000, times % 20);
    data->finish();
    return data;
}

std::unique_ptr<Thread_Data> damaged_thread()
{
    auto data = thread("a1", 0, 2);
    Report_Part part(SIZES);
    part.start(nullptr);
    part.header(read_item(good_trace()[FIRST_HEADER], 0, 0));
    part.record(read_item(load_from(0x5000), 0, 0x4000));
    part.record(read_item(good_trace()[PLAIN], 1, 0x4004));
    part.damage = {"one", "<two>"};
    data->add(part);
    Report_Part rest(SIZES);
    rest.begin(nullptr);
    rest.damage = {"three", "four"};
    data->add(rest);
    for (const uint64_t record : {5, 9})
        data->gaps.push_back({record, "records are missing"});
    data->gap_count = 1002;
    data->counts.full_headers = 0;
    data->processes[{2, 3}] = {};
    data->counts.file_bytes = 1001;
    data->finish();
    return data;
}

std::unique_ptr<Thread_Data> cut_thread()
{
    auto data = thread("b0", 0, 241);
    Report_Part part(SIZES);
    part.start(nullptr);
    part.header(read_item(good_trace()[SECOND_HEADER], 0, 0));
    part.record(read_item(good_trace()[PLAIN], 0, 0x4000));
    part.record(read_item(good_trace()[PLAIN], 1, 0x4004));
    data->add(part);
    data->clean_end = false;
    data->counts.file_bytes = 2500;
    data->counts.cache = 3;
    data->counts.other_jumps = 2;
    data->finish();
    return data;
}

class report_text : public testing::Test
{
protected:
    report_text()
    {
        options_.add(folder_.text("map", "4000 8 T start\n200000 10 D table\n"));
        named_ = std::make_unique<Symbol_Names>(run_, options_);
    }
    ~report_text() override { close(nothing_); }

    std::string page_of(std::vector<Report_Trace> traces, bool with_names = false)
    {
        Name_Finder finder(with_names ? *named_ : unnamed_);
        finder.enter_any();
        Report report{std::move(traces), &finder, SIZES};
        return report_page(report);
    }
    template <class... Threads> std::string page_of_one(Threads... threads)
    {
        std::vector<Report_Trace> traces(1);
        traces[0].name = "trace";
        (traces[0].threads.push_back(std::move(threads)), ...);
        return page_of(std::move(traces));
    }

private:
    Folder folder_;
    int nothing_ = open("/dev/null", O_WRONLY);
    Tool_Run run_{nothing_, nothing_};
    Symbol_Options options_;
    Symbol_Names unnamed_{run_, {}};
    std::unique_ptr<Symbol_Names> named_;
};

std::string between(const std::string &text, const std::string &begin, const std::string &end)
{
    const size_t first = text.find(begin) + begin.size();
    return text.substr(first, text.find(end, first) - first);
}

// The page's content, with a line for each piece of it.
std::string lines_of(const std::string &page)
{
    std::string text = between(page, "<main>\n", "</main>");
    for (const char *mark : {"<tr", "<table", "<p ", "<figure", "<details", "<div class=\"scroll", "<h2"})
        for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += 2)
            if (at > 0 && text[at - 1] != '\n')
                text.insert(at, "\n");
    return text;
}

Json data_of(const std::string &page)
{
    return Json::parse(between(page, R"(id="data">)", "</script>"));
}

void expect_lines(const std::string &text, const std::string &file)
{
    std::istringstream got(text);
    std::ifstream expected(std::string(EXPECTED_FOLDER) + "/" + file);
    ASSERT_TRUE(expected);
    std::string line, wanted;
    for (size_t number = 1; std::getline(expected, wanted); number++) {
        ASSERT_TRUE(std::getline(got, line)) << file << ":" << number;
        ASSERT_EQ(line, wanted) << file << ":" << number;
    }
    EXPECT_FALSE(std::getline(got, line)) << line;
}

} // namespace

TEST_F(report_text, of_two_traces_with_names_has_every_figure)
{
    std::vector<Report_Trace> traces(2);
    traces[0].name = "a";
    traces[0].threads.push_back(busy_thread());
    traces[0].threads.push_back(damaged_thread());
    traces[1].name = "b";
    traces[1].threads.push_back(cut_thread());
    expect_lines(lines_of(page_of(std::move(traces), true)), "report.expected");
}

TEST_F(report_text, of_one_thread_has_no_heading_for_it)
{
    const std::string page = page_of_one(cut_thread());
    EXPECT_THAT(page, Not(HasSubstr("<h3>")));
    EXPECT_THAT(page, Not(HasSubstr("Comparison")));
    EXPECT_THAT(page, Not(HasSubstr("Hot functions</caption>")));
    EXPECT_THAT(page, Not(HasSubstr("<th scope=\"col\" data-sort>Name</th>"))) << "no address has a name";
    EXPECT_THAT(page, Not(HasSubstr("Discontinuities,")));
    EXPECT_THAT(page, HasSubstr("<title>Trace report: trace</title>"));
    EXPECT_THAT(page, HasSubstr("<th scope=\"col\" class=\"shown\">Shown by</th>"));
}

TEST_F(report_text, of_some_records_names_the_first_and_the_last_one)
{
    for (const auto &[end, last] : {std::pair(0u, 0u), {1u, 0u}, {2u, 1u}}) {
        auto data = thread("part", 0, end);
        data->is_part = true;
        data->finish();
        EXPECT_THAT(page_of_one(std::move(data)),
                    HasSubstr(fmt::format("shows the records from 0 up to {} alone", last)));
    }
}

TEST_F(report_text, data_of_the_pictures_has_no_character_that_could_end_it)
{
    auto data = thread("x<<y");
    data->finish();
    const std::string page = page_of_one(std::move(data));
    EXPECT_THAT(page, HasSubstr(R"("name":"x\u003c\u003cy")"));
    EXPECT_EQ(data_of(page)["threads"][0]["name"], "x<<y");
    EXPECT_EQ(data_of(page)["bins"], 1u);
    EXPECT_EQ(data_of(page_of_one(busy_thread()))["threads"][0]["tlb"]["advice"].size(), 10u);
}

TEST_F(report_text, of_two_equal_traces_has_no_difference)
{
    std::vector<Report_Trace> traces(2);
    for (Report_Trace &trace : traces)
        trace.threads.push_back(damaged_thread());
    const std::string page = page_of(std::move(traces));
    EXPECT_THAT(page, HasSubstr("<p>0 of 15 counts differ."));
    EXPECT_THAT(
        page, HasSubstr("<th scope=\"row\">page walks per 1000 instructions</th><td data-value=\"500\">500.000</td>"
                        "<td data-value=\"500\">500.000</td><td data-value=\"0\">same</td></tr></tbody>"));
    EXPECT_THAT(page, testing::StartsWith("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"));
    EXPECT_EQ(between(page, "aria-label=\"Parts of the report\"><ul>", "</ul></nav>\n<main>\n"),
              "<li><a href=\"#found\">Found</a></li><li><a href=\"#time\">Time</a></li><li><a "
              "href=\"#heat\">Addresses</a></li><li><a href=\"#working-set\">Working set</a></li><li><a "
              "href=\"#translation\">Translation</a></li><li><a href=\"#mix\">Instructions</a></li><li><a "
              "href=\"#hot\">Hot places</a></li><li><a href=\"#threads\">Threads</a></li><li><a "
              "href=\"#comparison\">Comparison</a></li>");
    EXPECT_THAT(page, testing::EndsWith("</script>\n</body></html>\n"));
}

TEST_F(report_text, of_three_traces_compares_none)
{
    std::vector<Report_Trace> traces(3);
    for (size_t i = 0; i < 3; i++) {
        traces[i].name = std::string(1, static_cast<char>('x' + i));
        traces[i].threads.push_back(cut_thread());
    }
    const std::string page = page_of(std::move(traces));
    EXPECT_THAT(page, HasSubstr("<title>Trace report: x, y, z</title>"));
    EXPECT_THAT(page, Not(HasSubstr("omparison")));
    EXPECT_THAT(page, Not(HasSubstr("What differs")));
}

TEST_F(report_text, pictures_show_8_threads_and_tables_all)
{
    for (const size_t threads : {8, 9}) {
        std::vector<Report_Trace> traces(1);
        for (size_t i = 0; i < threads; i++)
            traces[0].threads.push_back(cut_thread());
        const std::string page = page_of(std::move(traces));
        EXPECT_EQ(data_of(page)["threads"].size(), 8u);
        EXPECT_EQ(page.find("Pictures show the first 8 threads; the tables have all.") != std::string::npos,
                  threads == 9);
        size_t heads = 0;
        const std::string side = between(page, "id=\"threads\"", "</section>");
        for (size_t at = 0; (at = side.find("<th scope=\"col\">b0</th>", at)) != std::string::npos; at++)
            heads++;
        EXPECT_EQ(heads, threads);
    }
}

// As many rows as fit when all threads share the height: 24 to 96 each.
TEST_F(report_text, heat_maps_have_fewer_rows_when_there_are_more_threads)
{
    const auto rows_of = [&](size_t threads, uint64_t ranges) {
        std::vector<Report_Trace> traces(1);
        for (size_t i = 0; i < threads; i++) {
            traces[0].threads.push_back(cut_thread());
            for (uint64_t range = 0; range < ranges; range++)
                traces[0].threads.back()->reads.count(range << 16, 0);
        }
        return data_of(page_of(std::move(traces)))["threads"][0]["heat"]["reads"]["rows"].size();
    };
    EXPECT_EQ(rows_of(1, 96), 96u);
    EXPECT_EQ(rows_of(1, 97), 49u);
    EXPECT_EQ(rows_of(3, 80), 80u);
    EXPECT_EQ(rows_of(3, 81), 41u);
    EXPECT_EQ(rows_of(12, 24), 24u);
    EXPECT_EQ(rows_of(12, 25), 13u);
}

TEST_F(report_text, the_seven_largest_processes_have_a_colour_of_their_own)
{
    for (const uint32_t count : {7, 9}) {
        auto data = thread("t0", 0, 3);
        Report_Part part(SIZES);
        part.start(nullptr);
        part.record(read_item(good_trace()[PLAIN], 0, 0x4000));
        part.record(read_item(good_trace()[PLAIN], 1, 0x4000));
        data->add(part);
        for (uint32_t pid = 0; pid < count; pid++) {
            data->processes[{1, pid}] = {pid + 1, 100 * pid};
            data->counts.partitions[{1, pid}] = pid + 1 + 100 * pid;
        }
        data->finish();
        const Json processes = data_of(page_of_one(std::move(data)))["threads"][0]["processes"];
        ASSERT_EQ(processes.size(), count == 7 ? 7u : 8u);
        EXPECT_EQ(processes[0]["name"], fmt::format("lpid 0x1 pid {}", count - 1));
        EXPECT_EQ(processes[0]["bins"], Json({count, 100 * (count - 1)}));
        EXPECT_EQ(processes[6]["name"], fmt::format("lpid 0x1 pid {}", count - 7));
        if (count > 7) {
            EXPECT_EQ(processes[7]["name"], "others");
            EXPECT_EQ(processes[7]["bins"], Json({1 + 2, 0 + 100}));
        }
    }
}

TEST_F(report_text, hot_functions_are_the_20_largest_of_all_threads)
{
    const Folder folder;
    Symbol_Options options;
    std::string map;
    for (uint64_t i = 0; i < 21; i++)
        map += fmt::format("{:x} 10 T f{}\n", 0x1000 + 0x10 * i, i);
    options.add(folder.text("map", map));
    Tool_Run run(1, 2);
    const Symbol_Names names(run, options);
    Name_Finder finder(names);
    finder.enter_any();
    Report report{std::vector<Report_Trace>(1), &finder, SIZES};
    report.traces[0].name = "trace";
    for (const uint64_t times : {100, 1000}) {
        report.traces[0].threads.push_back(cut_thread());
        for (uint64_t i = 0; i < 21; i++) {
            report.traces[0].threads.back()->addresses.add(0x1000 + 0x10 * i, times + i);
            report.traces[0].threads.back()->addresses.add(0x1004 + 0x10 * i, times);
        }
        report.traces[0].threads.back()->addresses.add(0x9000, times);
    }
    const std::string hot = between(report_page(report), "<caption>Hot functions</caption>", "</table>");
    size_t rows = 0;
    for (size_t at = 0; (at = hot.find("<tr>", at)) != std::string::npos; at++)
        rows++;
    EXPECT_EQ(rows, 1u + 20);
    const size_t first = hot.find("<tbody><tr>");
    EXPECT_EQ(hot.find("<th scope=\"row\">f20</th><td data-value=\"2240\">2,240</td>"), first + 11);
    EXPECT_THAT(hot, HasSubstr("<th scope=\"row\">f1</th><td data-value=\"2202\">2,202</td>"));
    EXPECT_THAT(hot, Not(HasSubstr("f0<")));
    EXPECT_THAT(hot, Not(HasSubstr("no symbol")));
}

TEST_F(report_text, hot_functions_with_as_many_instructions_are_in_the_order_of_their_names)
{
    constexpr uint64_t FUNCTIONS = 40; // named backwards: the last has the first name
    std::string map = "9000 10 T most\n";
    for (uint64_t i = 0; i < FUNCTIONS; i++)
        map += fmt::format("{:x} 10 T f{:02}\n", 0x1000 + 16 * i, FUNCTIONS - i);
    const Folder folder;
    Symbol_Options options;
    options.add(folder.text("map", map));
    Tool_Run run(1, 2);
    const Symbol_Names names(run, options);
    Name_Finder finder(names);
    finder.enter_any();
    Report report{std::vector<Report_Trace>(1), &finder, SIZES};
    report.traces[0].name = "trace";
    report.traces[0].threads.push_back(cut_thread());
    report.traces[0].threads.back()->addresses.add(0x9000, 6);
    for (uint64_t i = 0; i < FUNCTIONS; i++)
        report.traces[0].threads.back()->addresses.add(0x1000 + 16 * i, 5);
    const std::string hot = between(report_page(report), "<caption>Hot functions</caption>", "</table>");
    size_t before = hot.find(">most<");
    for (const char *name : {">f01<", ">f02<", ">f03<", ">f04<", ">f05<"}) {
        const size_t place = hot.find(name);
        EXPECT_LT(before, place) << name;
        EXPECT_NE(place, std::string::npos) << name;
        before = place;
    }
}

TEST_F(report_text, tells_when_counts_of_addresses_may_be_too_low)
{
    auto exact = cut_thread(), rough = cut_thread();
    for (uint64_t i = 0; i < Frequent_Keys::CAPACITY; i++)
        rough->addresses.add(0x10000 + 4 * i);
    EXPECT_THAT(page_of_one(std::move(exact)), Not(HasSubstr("many different addresses")));
    EXPECT_THAT(page_of_one(std::move(rough)), HasSubstr("counts may be too low by at most 1.</p>"));
}

TEST_F(report_text, data_of_the_pictures_has_every_figure)
{
    const Json data = data_of(page_of_one(busy_thread(), damaged_thread()));
    EXPECT_EQ(data["bins"], 25u) << "of the longest thread";
    const Json &busy = data["threads"][0], &damaged = data["threads"][1];
    EXPECT_EQ(busy["name"], "a<&>\"\x1f 0");
    EXPECT_EQ(busy["records"], 1234567);
    EXPECT_EQ(busy["first"], 100);
    EXPECT_EQ(busy["end"], 579);
    EXPECT_EQ(busy["bin_records"], 2);
    EXPECT_EQ(
        busy["processes"],
        Json::parse(R"([{"name":"lpid 0x1 pid 7","bins":[2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2]}])"));
    EXPECT_EQ(busy["gaps"], Json::parse(R"([{"record":149}])"));
    EXPECT_EQ(damaged["gaps"], Json::parse(R"([{"record":5},{"record":9}])"));
    EXPECT_EQ(busy["heat"]["fetches"], Json::parse(R"({"bits":16,"what":"instructions","pc":true,"rows":[
        {"first":"0x0","bins":"3333333333333333333333333"},
        {"first":"0xc000000000000000","bins":"0001000000000000000000000"}]})"));
    EXPECT_EQ(busy["heat"]["reads"]["what"], "loads and other accesses");
    EXPECT_EQ(busy["heat"]["reads"]["pc"], false);
    EXPECT_EQ(busy["heat"]["reads"]["rows"].size(), 49u);
    EXPECT_EQ(busy["heat"]["writes"], Json::parse(R"({"bits":16,"what":"stores","pc":false,"rows":[
        {"first":"0x0","bins":"0000000000000000000000001"},
        {"first":"0x7fff0000","bins":"E034500000000000000000000"}]})"));
    EXPECT_EQ(busy["working_set"], Json::parse(R"([
        {"size":"4K","bins":[3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3]},
        {"size":"64K","bins":[3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,3,1]},
        {"size":"2M","bins":[2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,2,1]}])"));
    EXPECT_EQ(busy["mix"], Json::parse(R"([["loads",400000],["stores",200000],["conditional branches",300005],
        ["unconditional branches",34567],["cache instructions",1000],["everything else",298995]])"));
    EXPECT_EQ(busy["bias"], Json::parse(R"([["never taken",3],["up to 10 % taken",20],["10 to 50 %",110],
        ["50 to 90 %",1500],["90 % and more",5000],["always taken",20000]])"));
    EXPECT_EQ(busy["curves"].size(), 4u);
    EXPECT_EQ(busy["curves"][0]["name"], "as traced");
    EXPECT_EQ(busy["curves"][1]["name"], "if all 4K");
    EXPECT_EQ(busy["curves"][2]["name"], "if all 64K");
    EXPECT_EQ(busy["curves"][3]["name"], "if all 2M");
    EXPECT_EQ(busy["curves"][3]["sizes"], Json::parse(R"([{"entries":1,"misses":98,"per_thousand":1960.0},
        {"entries":2,"misses":26,"per_thousand":520.0}])"));
    EXPECT_EQ(busy["tlb"]["instructions"], 50);
    EXPECT_EQ(busy["tlb"]["levels"][0]["entries"], 64);
    EXPECT_EQ(busy["tlb"]["advice"].size(), 10u);
    EXPECT_EQ(busy["tlb"]["per"], Json::object());
}

TEST_F(report_text, data_of_the_pictures_ends_no_element_and_is_one_line)
{
    auto named = thread("caf\xC3\xA9<<");
    named->finish();
    const std::string page = page_of_one(std::move(named));
    const std::string data = between(page, R"(id="data">)", "</script>");
    EXPECT_THAT(data, HasSubstr("\"name\":\"caf\\u00e9\\u003c\\u003c\""));
    EXPECT_EQ(data.find('<'), std::string::npos);
    EXPECT_EQ(data.find('\n'), std::string::npos);
    EXPECT_EQ(data_of(page)["bins"], 1);
}

TEST_F(report_text, of_some_records_names_the_first_and_the_last)
{
    for (const uint64_t end : {0, 1, 2, 1001}) {
        auto data = thread("t", 0, end);
        data->is_part = true;
        data->finish();
        EXPECT_THAT(page_of_one(std::move(data)), HasSubstr(fmt::format("shows the records from 0 up to {} alone",
                                                                        end == 0      ? "0"
                                                                        : end == 1001 ? "1,000"
                                                                                      : std::to_string(end - 1))));
    }
}
