// The options that choose records.
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <fmt/format.h>
#include <sstream>

using namespace planted;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

using Options = std::vector<std::string>;

std::vector<uint64_t> numbers(const std::string &file, Options options)
{
    options.insert(options.begin(), {"dump", "--json", "--fields", "flags"});
    options.push_back(file);
    const Outcome outcome = qtrace(options);
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    std::vector<uint64_t> found;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);)
        if (const json object = json::parse(line); object.contains("record"))
            found.push_back(object["record"]);
    return found;
}

class record_filter : public testing::Test
{
protected:
    std::vector<uint64_t> chosen(Options options) const { return numbers(file_, std::move(options)); }

    Folder folder_;
    std::string file_ = folder_.write("trace0", good_trace());
};

} // namespace

TEST_F(record_filter, takes_ranges_of_instruction_addresses)
{
    EXPECT_THAT(chosen({"--pc", "2000-2008"}), ElementsAre(3, 4, 5));
    EXPECT_THAT(chosen({"--pc", "0x1004,0x2004"}), ElementsAre(1, 4));
}

TEST_F(record_filter, takes_effective_and_real_addresses_of_accesses)
{
    EXPECT_THAT(chosen({"--data", "5008"}), ElementsAre(1));
    EXPECT_THAT(chosen({"--data", "5009-7000"}), ElementsAre(3, 7));
    EXPECT_THAT(chosen({"--data", "ffffffffffffffff"}), IsEmpty());
    EXPECT_THAT(chosen({"--real", "12008"}), ElementsAre(1)); // page number 0x12
    EXPECT_THAT(chosen({"--real", "12000-12fff"}), ElementsAre(1, 3, 7));
}

TEST_F(record_filter, takes_any_of_several_kinds_and_none_of_others)
{
    EXPECT_THAT(chosen({"--kind", "load"}), ElementsAre(1, 3, 5));
    EXPECT_THAT(chosen({"--kind", "call,store"}), ElementsAre(6, 7));
    EXPECT_THAT(chosen({"--kind", "branch", "--not", "taken"}), ElementsAre(4));
    EXPECT_THAT(chosen({"--not", "load,store,branch"}), ElementsAre(0, 8, 9, 10));
}

TEST_F(record_filter, takes_instruction_words_under_a_mask)
{
    EXPECT_THAT(chosen({"--word", "60000000"}), ElementsAre(8, 10));
    EXPECT_THAT(chosen({"--word", "0x48000000/0xfc000000"}), ElementsAre(6));
}

TEST_F(record_filter, takes_registers_that_are_read_or_written)
{
    EXPECT_THAT(chosen({"--register", "r4"}), ElementsAre(5));
    EXPECT_THAT(chosen({"--register", "x34"}), ElementsAre(5));
    EXPECT_THAT(chosen({"--register", "f4,v34,r34"}), IsEmpty());
}

TEST_F(record_filter, takes_processes_and_partitions)
{
    EXPECT_THAT(chosen({"--pid", "8"}), ElementsAre(5, 6, 7, 8));
    EXPECT_THAT(chosen({"--lpid", "0x2"}), ElementsAre(5, 6, 7, 8));
    EXPECT_THAT(chosen({"--lpid", "2", "--pid", "9"}), IsEmpty());
}

TEST_F(record_filter, intersects_options)
{
    EXPECT_THAT(chosen({"--kind", "load", "--pid", "8"}), ElementsAre(5));
    EXPECT_THAT(chosen({"--kind", "load", "--from", "2"}), ElementsAre(3, 5));
    EXPECT_THAT(chosen({"--kind", "load", "--count", "2"}), ElementsAre(1, 3));
}

TEST_F(record_filter, shows_the_kinds_of_a_record_in_json)
{
    const Outcome outcome = qtrace({"dump", "--json", "--from", "6", "--count", "1", file_});
    EXPECT_EQ(json::parse(outcome.out)["kinds"], json({"branch", "taken", "call"}));
}

TEST_F(record_filter, limits_what_statistics_count)
{
    const auto counted = [&](Options options) {
        options.insert(options.begin(), {"stats", "--json"});
        options.push_back(file_);
        return json::parse(qtrace(options).out);
    };
    const json loads = counted({"--kind", "load"}), process = counted({"--pid", "8"});
    EXPECT_EQ(loads["instructions"], 3);
    EXPECT_EQ(loads["loads"], 3);
    EXPECT_EQ(loads["stores"], 0);
    EXPECT_EQ(process["instructions"], 4);
    EXPECT_EQ(process["partitions"], json::parse(R"([{"lpid":"0x2","pid":8,"instructions":4}])"));
    EXPECT_EQ(counted({"--from", "2", "--count", "3"})["instructions"], 3);
    const json first = counted({"--pc", "1000"}); // on the page of the header before it
    EXPECT_EQ(first["hot_fetch_pages"], json::parse(R"([{"address":"0x10000","size":"64K","times":1}])"));
    EXPECT_EQ(first["unnamed_fetches"], 0);
}

TEST_F(record_filter, takes_both_ends_of_a_range_and_the_largest_numbers)
{
    EXPECT_THAT(chosen({"--pc", "2000-2000"}), ElementsAre(3));
    EXPECT_THAT(chosen({"--pc", "1001-1007"}), ElementsAre(1));
    EXPECT_THAT(chosen({"--pc", "1004-1008,0X3000"}), ElementsAre(1, 2, 7));
    EXPECT_THAT(chosen({"--pc", "0-ffffffffffffffff"}), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
    EXPECT_THAT(chosen({"--data", "5008-5008"}), ElementsAre(1));
    EXPECT_THAT(chosen({"--real", "12008-12008"}), ElementsAre(1));
    EXPECT_THAT(chosen({"--real", "12009-1200f"}), IsEmpty());
    EXPECT_THAT(chosen({"--pid", "4294967295"}), IsEmpty());
    EXPECT_THAT(chosen({"--pid", "0x8,7", "--pc", "2004-2008"}), ElementsAre(4, 5));
    EXPECT_THAT(chosen({"--lpid", "18446744073709551615"}), IsEmpty());
    EXPECT_THAT(chosen({"--word", "ffffffff"}), IsEmpty());
    EXPECT_THAT(chosen({"--word", "0/0"}), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
    EXPECT_THAT(chosen({"--word", "48000ff5/ffffffff"}), ElementsAre(6));
    EXPECT_THAT(chosen({"--word", "60000000,48000ff5"}), ElementsAre(6, 8, 10));
    EXPECT_THAT(chosen({"--register", "r5"}), ElementsAre(5));
    EXPECT_THAT(chosen({"--register", "r65535"}), IsEmpty());
    EXPECT_THAT(chosen({"--register", "r6,x4,r1"}), IsEmpty());
}

TEST_F(record_filter, asks_for_both_addresses_of_an_access)
{
    EXPECT_THAT(chosen({"--data", "5008", "--real", "12008"}), ElementsAre(1));
    EXPECT_THAT(chosen({"--data", "5008", "--real", "12010"}), IsEmpty());
    EXPECT_THAT(chosen({"--data", "0"}), IsEmpty()); // of records without an access
    EXPECT_THAT(chosen({"--real", "0-fff"}), IsEmpty());
}

TEST_F(record_filter, takes_no_more_records_than_asked_for)
{
    EXPECT_THAT(chosen({"--kind", "load", "--count", "0"}), IsEmpty());
    EXPECT_THAT(chosen({"--kind", "load", "--count", "1"}), ElementsAre(1));
    EXPECT_THAT(chosen({"--kind", "load", "--count", "3"}), ElementsAre(1, 3, 5));
    EXPECT_THAT(chosen({"--count", "0"}), IsEmpty());
    EXPECT_THAT(chosen({"--from", "9", "--count", "5"}), ElementsAre(9, 10));
}

// Neither the address nor the process is known there.
TEST_F(record_filter, finds_nothing_by_address_or_process_before_the_first_header)
{
    const std::string file = folder_.write("bare0", {{false, {}, "", plain_record(0x60000000)}});
    EXPECT_THAT(numbers(file, {}), ElementsAre(0));
    EXPECT_THAT(numbers(file, {"--pc", "0-ffffffffffffffff"}), IsEmpty());
    EXPECT_THAT(numbers(file, {"--pid", "0"}), IsEmpty());
    EXPECT_THAT(numbers(file, {"--lpid", "0"}), IsEmpty());
    EXPECT_THAT(numbers(file, {"--word", "60000000"}), ElementsAre(0));
}

TEST_F(record_filter, refuses_values_that_mean_nothing)
{
    const auto refusal = [&](const char *option, const char *value) {
        const Outcome outcome = qtrace({"dump", option, value, file_});
        EXPECT_EQ(outcome.exit_code, 2) << option;
        return outcome.err;
    };
    EXPECT_THAT(refusal("--kind", "laod"), HasSubstr("did you mean `load`?"));
    EXPECT_THAT(refusal("--pc", "2000-1000"), HasSubstr("ends before it begins"));
    EXPECT_THAT(refusal("--data", "1 000"), HasSubstr("is not an address"));
    EXPECT_THAT(refusal("--word", "100000000"), HasSubstr("32 bits"));
    EXPECT_THAT(refusal("--register", "q1"), HasSubstr("is not a register"));
    EXPECT_THAT(refusal("--pid", "4294967296"), HasSubstr("is not a number for --pid"));
    EXPECT_THAT(refusal("--lpid", "18446744073709551616"), HasSubstr("is not a number for --lpid"));
    EXPECT_THAT(refusal("--word", "0/100000000"), HasSubstr("32 bits"));
    EXPECT_THAT(refusal("--word", "0/"), HasSubstr("is not an address"));
    EXPECT_THAT(refusal("--register", "r"), HasSubstr("is not a register"));
    EXPECT_THAT(refusal("--register", "r65536"), HasSubstr("is not a number for --register"));
    EXPECT_THAT(refusal("--register", "rx"), HasSubstr("is not a number for --register"));
    EXPECT_THAT(refusal("--pc", "0x"), HasSubstr("is not an address"));
    EXPECT_THAT(refusal("--pc", "1-"), HasSubstr("is not an address"));
}

// Several blocks of each process: whole blocks are passed over, and none too many.
TEST(record_filter_in_blocks, finds_every_record_of_a_process)
{
    Trace trace = {good_trace()[FIRST_HEADER]};
    std::vector<uint64_t> expected;
    uint64_t number = 0;
    for (unsigned part = 0; part < 6; part++) {
        Item header = good_trace()[PARTITION];
        const uint32_t pid = part % 2 == 0 ? 21 : 22;
        std::memcpy(header.header.pid, &pid, sizeof pid);
        trace.push_back(header);
        for (unsigned i = 0; i < 20000 + part; i++, number++) {
            trace.push_back({false, {}, "", plain_record(0x60000000)});
            if (pid == 22)
                expected.push_back(number);
        }
    }
    const Folder folder;
    const std::string file = folder.write("trace0", trace);
    EXPECT_EQ(numbers(file, {"--pid", "22"}), expected);
    const std::vector<uint64_t> later(expected.begin() + 30000, expected.begin() + 30100);
    EXPECT_EQ(numbers(file, {"--pid", "22", "--count", "100", "--from", std::to_string(later.front())}), later);
}

// What runs at the beginning of a range is not lost: the range begins with the context that is in force there.
TEST_F(record_filter, limits_what_the_model_of_tlbs_reads)
{
    const auto figures = [&](std::vector<std::string> options) {
        options.insert(options.begin(), {"tlb", "--json"});
        options.push_back(file_);
        return json::parse(qtrace(options).out);
    };
    const json whole = figures({});
    EXPECT_EQ(figures({"--from", "0", "--count", "1000"}), whole);
    const json first = figures({"--count", "4"}), rest = figures({"--from", "4"});
    EXPECT_EQ(first["instructions"], 4);
    EXPECT_EQ(rest["instructions"], whole["instructions"].get<uint64_t>() - 4);
    const Outcome beyond = qtrace({"tlb", "--from", "1000", file_});
    EXPECT_EQ(beyond.exit_code, 1);
    EXPECT_THAT(beyond.err, testing::HasSubstr("no record 1000"));
}

namespace
{

// Three long parts of processes 7, 8 and 7 again: many blocks have no header and belong to one process as a whole.
constexpr uint64_t PART = 25000;
Trace long_parts()
{
    Trace trace = {good_trace()[FIRST_HEADER]};
    uint64_t noise = 1;
    for (const uint8_t pid : std::initializer_list<uint8_t>{7, 8, 7}) {
        trace.push_back(good_trace()[PARTITION]);
        trace.back().header.pid[0] = pid;
        for (uint64_t i = 0; i < PART; i++) {
            noise = noise * 6364136223846793005u + 1442695040888963407u;
            Item item{false, {}, "", plain_record(0x7c000214)};
            item.record.header.control.fld.register_trace_present = 1;
            item.record.regs.num_gprs_out = 1;
            item.record.regs.gpr_out[0] = {3, noise};
            trace.push_back(item);
        }
    }
    return trace;
}

} // namespace

TEST(records_of_a_process, are_found_after_blocks_of_others)
{
    const Folder folder;
    const std::string file = folder.write("trace0", long_parts());
    for (const auto &[pid, records] : {std::pair("8", PART), std::pair("7", 2 * PART)}) {
        EXPECT_EQ(json::parse(qtrace({"stats", "--json", "--pid", pid, file}).out)["instructions"], records);
        for (const char *format : {"csv", "champsim", "callgrind", "ctf", "sqlite"}) {
            const Outcome done = qtrace(
                {"export", "--force", "--json", "--format", format, "-o", folder.path(format), "--pid", pid, file});
            EXPECT_EQ(json::parse(done.out)["records"], records) << format;
        }
    }
}

// In records that follow each other nothing is lost where groups of blocks meet.
TEST(records_of_a_process, keep_their_translation_from_block_to_block)
{
    const Folder folder;
    const std::string file = folder.write("trace0", long_parts());
    const json counts = json::parse(qtrace({"stats", "--json", "--pid", "7,8", file}).out);
    EXPECT_EQ(counts["fetch_none/radix"], 3 * PART);
    EXPECT_FALSE(counts.contains("fetch_unknown"));
}

// The last one is many blocks after the others; what comes after it is not read.
TEST(records_of_a_kind, end_with_the_last_that_is_asked_for)
{
    const Folder folder;
    Trace trace = long_parts();
    trace.resize(30000);
    for (const size_t place : {2, 3, 29000})
        trace[place].record.header.instruction = 0xe8640008; // ld
    const std::string file = folder.write("trace0", trace);
    std::string bytes = folder.contents("trace0");
    bytes[bytes.size() / 2] ^= 0x55;
    const std::string spoilt = folder.text("spoilt0", bytes);
    for (const auto &[count, records, lost] : {std::tuple("3", 3, true), {"2", 2, false}, {"1", 1, false}}) {
        EXPECT_EQ(numbers(file, {"--kind", "load", "--count", count}).size(), records);
        for (const std::string &of : {file, spoilt}) {
            const Outcome dumped = qtrace({"dump", "--kind", "load", "--count", count, of});
            const Outcome exported = qtrace({"export", "--json", "--force", "--format", "csv", "-o",
                                             folder.path("csv"), "--kind", "load", "--count", count, of});
            EXPECT_EQ(json::parse(exported.out)["records"], records) << count;
            for (const Outcome &outcome : {dumped, exported})
                EXPECT_EQ(outcome.exit_code, lost && of == spoilt ? 3 : 0) << count;
        }
    }
}

// More lines than a block's sink keeps at once.
TEST(records_of_a_kind, are_printed_in_order_whole_and_as_many_as_asked_for)
{
    const Folder folder;
    const Trace trace = long_parts();
    const std::string file = folder.write("trace0", {trace.begin(), trace.begin() + 20000});
    for (const uint64_t count : {uint64_t{5999}, uint64_t{15000}}) {
        std::istringstream lines(qtrace({"dump", "--not", "load", "--count", std::to_string(count), file}).out);
        uint64_t number = 0;
        for (std::string line; std::getline(lines, line); number++)
            ASSERT_EQ(line.substr(0, 11), fmt::format("{:>10} ", number));
        EXPECT_EQ(number, count);
    }
}

// What `plan` prints are numbers, too.
TEST(a_range, means_numbers_of_records_where_some_are_missing)
{
    const Folder folder;
    const std::string file = folder.write("trace0", long_parts());
    std::string bytes = folder.contents("trace0");
    bytes[bytes.size() / 2] ^= 0x55;
    qtrace({"recover", folder.text("spoilt0", bytes), folder.path("saved0")});
    const std::string saved = folder.path("saved0");
    const uint64_t all = json::parse(qtrace({"stats", "--json", saved}).out)["instructions"];
    ASSERT_LT(all, 3 * PART);
    uint64_t sum = 0;
    for (const char *from : {"0", "25000", "50000"}) {
        const Outcome done = qtrace({"export", "--force", "--json", "--format", "csv", "-o", folder.path("csv"),
                                     "--from", from, "--count", "25000", saved});
        sum += json::parse(done.out)["records"].get<uint64_t>();
    }
    EXPECT_EQ(sum, all);
}

// Their numbers begin anew, so that the range is in each of them.
TEST(a_range, is_found_in_every_file_of_those_that_stand_one_after_another)
{
    const Folder folder;
    constexpr uint64_t RECORDS = 20000; // of several blocks
    const Trace trace = long_parts();
    folder.write("trace0", {trace.begin(), trace.begin() + 2 + RECORDS});
    const std::string bytes = folder.contents("trace0"), file = folder.text("twice0", bytes + bytes);
    const auto counted = [&](uint64_t from, uint64_t count) {
        const Outcome done =
            qtrace({"stats", "--json", "--from", std::to_string(from), "--count", std::to_string(count), file});
        return json::parse(done.out)["instructions"].get<uint64_t>();
    };
    for (const uint64_t from : {uint64_t{0}, uint64_t{9000}, RECORDS - 2})
        EXPECT_EQ(counted(from, 2), 4u) << from;
    EXPECT_EQ(counted(1, RECORDS), 2 * (RECORDS - 1));
}

namespace
{

// long_parts() with an access to one of 40 pages in each record.
Trace long_parts_with_accesses()
{
    Trace trace = long_parts();
    uint64_t number = 0;
    for (Item &item : trace) {
        if (item.is_header)
            continue;
        const uint64_t address = 0x100000 + (number * number % 40 << 16) + number % 64;
        item.record.header.control.fld.data_address_present = 1;
        std::memcpy(item.record.data_ea, &address, sizeof address);
        set_case(item, Side::data, number % 3 == 0 ? Case::real : Case::single);
        if (number % 3 != 0)
            item.record.data_rpn[0] = static_cast<uint8_t>(number % 40);
        number++;
    }
    return trace;
}

} // namespace

// The other way to the same records: a file that has them alone.
TEST(a_range, gives_what_a_file_of_its_records_gives)
{
    const Folder folder;
    const std::string file = folder.write("trace0", long_parts_with_accesses()), part = folder.path("part0");
    for (const auto &[from, count] : {std::pair("0", "1"),
                                      {"1", "9000"},
                                      {"4999", "1"},
                                      {"24990", "20"},
                                      {"25000", "9000"},
                                      {"49999", "9000"},
                                      {"70000", "9000"}}) {
        const std::vector<std::string> range = {"--from", from, "--count", count};
        std::vector<std::string> cut = {"cut", "--force", "-o", part, file};
        cut.insert(cut.end(), range.begin(), range.end());
        ASSERT_EQ(qtrace(cut).exit_code, 0);
        const auto figures = [](std::vector<std::string> command, const std::string &of) {
            command.push_back(of);
            const std::string out = qtrace(command).out; // findings come before the summary
            json object = json::parse(out.substr(out.rfind('\n', out.size() - 2) + 1));
            // The file has a header of its own, with what was in force.
            for (const char *own : {"file", "size", "bytes_in_file", "total_bytes", "headers", "full_headers",
                                    "fetch_pages_64K", "hot_fetch_pages", "switches"})
                object.erase(own);
            json partitions = json::array(); // in which something ran
            for (const json &one : object.value("partitions", json::array()))
                if (one["instructions"] != 0)
                    partitions.push_back(one);
            object["partitions"] = partitions;
            return object;
        };
        for (const char *name : {"tlb", "stats", "check"}) {
            std::vector<std::string> whole = {name, "--json"}, ranged = whole;
            ranged.insert(ranged.end(), range.begin(), range.end());
            const json expected = figures(whole, part), found = figures(ranged, file);
            EXPECT_EQ(found, expected) << name << " from " << from << ": " << json::diff(found, expected);
        }
    }
}
