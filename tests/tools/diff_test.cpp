// `qtrace diff` on traces made by hand: every kind of difference, headers, pieces that are missing, damage.
#include "compared_traces.h"
#include "diff_side.h"
#include "equal_blocks.h"
#include "record_alignment.h"
#include "record_difference.h"
#include "trace_diff.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <array>
#include <functional>
#include <numeric>
#include <set>
#include <sstream>

using namespace planted;
using nlohmann::json;
using testing::HasSubstr;

namespace
{

// What is found after `change` was made to one of two equal traces; the same from the other side.
json kinds_after(const std::function<void(Trace &)> &change, Trace trace = good_trace())
{
    const Folder folder;
    const std::string a = folder.write("old0", trace);
    change(trace);
    const std::string b = folder.write("new0", trace);
    EXPECT_EQ(difference(a, b)["kinds"], difference(b, a)["kinds"]);
    EXPECT_EQ(qtrace({"diff", a, b}).exit_code, 3);
    return difference(a, b)["kinds"];
}

const json NOTHING = json::object();

} // namespace

// ---- Kinds ---------------------------------------------------------------------------------------------

TEST(diff_kinds, every_part_of_a_record_belongs_to_a_kind)
{
    EXPECT_EQ(kinds_after([](Trace &t) { t[LOAD].record.header.instruction++; }), json({{"instruction", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[CALL].record.next_instruction_ea[1] = 0x40; }),
              json({{"next-address", 1}, {"address", 2}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[LOAD].record.data_ea[0]++; }), json({{"data-address", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[NESTED_LOAD].record.data_gRTW.GUEST_ra[0]++; }),
              json({{"translation", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { set_modes(t[LOAD], Side::data, 3, 1); }), json({{"translation", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[STRING].record.regs.vsxr_out[0].value[1]++; }),
              json({{"registers", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[TAKEN_BRANCH].record.node++; }), json({{"flags", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[FIRST_RECORD].record.processor++; }), json({{"flags", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[PLAIN].record.header.control.fld.exception_code_present = 1; }),
              json({{"flags", 1}}));
}

// ---- Headers -------------------------------------------------------------------------------------------

TEST(diff_headers, are_compared_with_all_of_their_members)
{
    EXPECT_EQ(kinds_after([](Trace &t) { t[SECOND_HEADER].header.ptcr[0]++; }), json({{"header", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[PARTITION].header.pid[0]++; }), json({{"header", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[FIRST_HEADER].header.sec_ext_controlword.instruction = 5; }),
              json({{"header", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t[FIRST_HEADER].header.control.barrier_synchronization = 1; }),
              json({{"header", 1}}));
}

TEST(diff_headers, comments_are_compared_to_their_end)
{
    EXPECT_EQ(kinds_after([](Trace &t) { t[FIRST_HEADER].comment[3] = '!'; }), json({{"header", 1}}));
    Trace trace = good_trace();
    trace[FIRST_HEADER].comment = std::string("one\0two", 7);
    EXPECT_EQ(kinds_after([](Trace &t) { t[FIRST_HEADER].comment[6] = 'x'; }, trace), json({{"header", 1}}));
}

TEST(diff_headers, count_when_one_is_missing)
{
    EXPECT_EQ(kinds_after([](Trace &t) { t.erase(t.begin() + PARTITION); }), json({{"header", 1}}));
}

TEST(diff_headers, after_the_last_record_are_compared)
{
    Trace trace = good_trace();
    trace.push_back(trace[PARTITION]);
    EXPECT_EQ(kinds_after([](Trace &t) { t.back().header.lpid[0]++; }, trace), json({{"header", 1}}));
    EXPECT_EQ(kinds_after([](Trace &t) { t.pop_back(); }, trace), json({{"header", 1}}));
}

TEST(diff_headers, of_traces_without_records_are_compared)
{
    const Trace trace = {good_trace()[FIRST_HEADER]};
    EXPECT_EQ(kinds_after([](Trace &t) { t[0].header.iar[1]++; }, trace), json({{"header", 1}}));
}

// Addresses are not compared from the record that is missing up to the full header, which another header follows.
TEST(diff_headers, tell_addresses_again_also_when_another_one_follows)
{
    Trace trace = numbered_trace(60);
    trace.insert(trace.begin() + 1 + 40, {good_trace()[SECOND_HEADER], good_trace()[PARTITION]});
    const auto change = [](Trace &t) {
        t[1 + 40].header.iar[1]++;
        t.erase(t.begin() + 1 + 20);
    };
    EXPECT_EQ(kinds_after(change, trace), json({{"missing", 1}, {"header", 1}, {"address", 20}}));
}

TEST(diff_headers, a_long_row_of_them_is_compared_to_its_end)
{
    const Trace trace(300, good_trace()[PARTITION]);
    EXPECT_EQ(kinds_after([](Trace &t) { t[299].header.lpid[3]++; }, trace), json({{"header", 1}}));
}

// ---- Missing records -----------------------------------------------------------------------------------

TEST(diff_missing, rest_of_the_longer_trace_is_counted_on_either_side)
{
    const Folder folder;
    const std::string a = folder.write("old0", numbered_trace(500)), b = folder.write("new0", numbered_trace(620));
    EXPECT_EQ(difference(a, b)["only_b"], 120);
    EXPECT_EQ(difference(b, a)["only_a"], 120);
    EXPECT_EQ(difference(b, a)["only_b"], 0);
}

// A spin loop says nothing about which of its rounds are missing, but how many.
TEST(diff_missing, pieces_of_a_loop_that_repeats_itself_are_counted)
{
    Trace whole = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD]};
    for (size_t i = 0; i < 9000; i++)
        whole.push_back({false, {}, "", plain_record(0x60000000 + static_cast<uint32_t>(i % 5))});
    const Trace end = numbered_trace(50);
    whole.insert(whole.end(), end.begin() + 2, end.end());
    const Folder folder;
    Trace less = whole;
    less.erase(less.begin() + 4000, less.begin() + 4023);
    const json found = difference(folder.write("old0", whole), folder.write("new0", less));
    EXPECT_EQ(found["only_a"], 23);
    EXPECT_EQ(found["only_b"], 0);
    EXPECT_EQ(found["differing"], 0);
}

// 40 records in each of which a register differs, among them 3 that are missing.
TEST(diff_missing, records_beside_a_missing_piece_are_compared_with_their_counterparts)
{
    const Folder folder;
    const Trace whole = numbered_trace(3000);
    Trace less = whole;
    for (size_t i = 0; i < 40; i++) {
        less[1000 + i].record.header.instruction = 0x7c000000 + static_cast<uint32_t>(i);
        less[1000 + i].record.regs.gpr_out[0].value++;
    }
    Trace base = whole;
    for (size_t i = 0; i < 40; i++)
        base[1000 + i].record.header.instruction = 0x7c000000 + static_cast<uint32_t>(i);
    less.erase(less.begin() + 1020, less.begin() + 1023);
    const json found = difference(folder.write("old0", base), folder.write("new0", less), {"--ignore", "address"});
    EXPECT_EQ(found["only_a"], 3);
    EXPECT_EQ(found["only_b"], 0);
    EXPECT_EQ(found["differing"], 37);
    EXPECT_EQ(found["kinds"], json({{"registers", 37}, {"missing", 1}}));
}

// ---- Damage --------------------------------------------------------------------------------------------

// ---- Ranges --------------------------------------------------------------------------------------------

TEST(diff_range, has_the_headers_before_its_records_and_none_after)
{
    const Folder folder;
    Trace trace = numbered_trace(3000);
    trace.insert(trace.begin() + 1 + 1000, good_trace()[PARTITION]);
    const std::string a = folder.write("old0", trace);
    trace[1 + 1000].header.pid[0] ^= 1;
    const std::string b = folder.write("new0", trace);
    EXPECT_EQ(difference(a, b, {"--from", "1000", "--count", "5"})["kinds"], json({{"header", 1}}));
    EXPECT_EQ(difference(a, b, {"--from", "990", "--count", "10"})["kinds"], NOTHING);
    EXPECT_EQ(difference(a, b, {"--from", "1001"})["kinds"], NOTHING);
}

TEST(diff_range, beyond_both_traces_is_refused)
{
    const Folder folder;
    const std::string a = folder.write("old0", numbered_trace(20));
    const Outcome outcome = qtrace({"diff", "--from", "20", a, a});
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("old0: no record 20: the file has 20\n"));
}

// ---- Equal groups of blocks ----------------------------------------------------------------------------

namespace
{

using qtrace_tool::Block_Group;
using qtrace_tool::Equal_Blocks;
using qtrace_tool::Record_Range;
using qtrace_tool::Trace_File;

// Two open files, and the groups that threads compare of them.
struct Two_Files {
    Two_Files(const std::string &one, const std::string &other)
        : a(Trace_File::open(run, one)), b(Trace_File::open(run, other))
    {
    }
    std::vector<Block_Group> groups(const Record_Range &range = {}, unsigned jobs = 2) const
    {
        return Equal_Blocks(*a, *b, range, jobs).groups();
    }
    std::vector<bool> verdicts() const
    {
        Equal_Blocks blocks(*a, *b, {}, 2);
        std::vector<bool> equal;
        for (size_t group = 0; group < blocks.groups().size(); group++)
            equal.push_back(blocks.is_equal(group));
        return equal;
    }

    qtrace_tool::Tool_Run run{1, 2};
    std::unique_ptr<Trace_File> a, b;
};

// Checks that the groups follow each other from the beginning on; returns how many blocks and records they have.
std::pair<uint64_t, uint64_t> extent_of(const std::vector<Block_Group> &groups)
{
    uint64_t blocks = 0, records = 0;
    for (const Block_Group &group : groups) {
        EXPECT_EQ(group.first_block, blocks);
        EXPECT_EQ(group.first_record, records);
        EXPECT_EQ(group.first_header, blocks == 0 ? 0u : 1u);
        blocks += group.blocks;
        records += group.records;
    }
    return {blocks, records};
}

} // namespace

TEST(equal_blocks, are_compared_in_pairs_by_several_threads)
{
    const Folder folder;
    Trace trace = wide_trace(3500);
    const std::string old = folder.write("old0", trace);
    trace[1 + 1700].record.regs.gpr_out[0].value++;
    const Two_Files files(old, folder.write("new0", trace));
    const std::vector<Block_Group> groups = files.groups();
    const uint64_t blocks = files.a->info().blocks;
    ASSERT_GT(blocks, 6u);
    EXPECT_EQ(groups.size(), (blocks + 1) / 2);
    EXPECT_EQ(extent_of(groups), std::pair(blocks, uint64_t{3500}));
    const std::vector<bool> equal = files.verdicts();
    for (size_t i = 0; i < groups.size(); i++)
        EXPECT_EQ(equal[i], 1700 < groups[i].first_record || 1700 >= groups[i].first_record + groups[i].records);
    EXPECT_TRUE(files.groups({}, 1).empty());
}

TEST(equal_blocks, of_an_odd_number_have_a_group_of_one)
{
    const Folder folder;
    uint64_t blocks = 0;
    for (size_t records = 1200; blocks % 2 == 0 || blocks == 1; records += 150) {
        ASSERT_LT(records, 4000u);
        const std::string trace = folder.write("odd0", wide_trace(records));
        const Two_Files files(trace, trace);
        blocks = files.a->info().blocks;
        EXPECT_EQ(extent_of(files.groups()), std::pair(blocks, uint64_t{records}));
    }
}

TEST(equal_blocks, are_those_whose_records_all_belong_to_the_range)
{
    const Folder folder;
    const std::string trace = folder.write("old0", wide_trace(3500));
    const Two_Files files(trace, trace);
    const Block_Group first = files.groups()[0], second = files.groups()[1];
    const auto count_in = [&](uint64_t begin, uint64_t records) { return files.groups({begin, records}).size(); };
    EXPECT_EQ(count_in(0, first.records), 1u);
    EXPECT_EQ(count_in(0, first.records - 1), 0u);
    EXPECT_EQ(count_in(0, first.records + 1), 1u);
    EXPECT_EQ(count_in(1, first.records + second.records - 1), 1u);
    EXPECT_EQ(count_in(first.records, second.records), 1u);
    EXPECT_EQ(count_in(first.records + 1, second.records), 0u);
}

TEST(equal_blocks, end_where_the_numbers_of_items_differ)
{
    const Folder folder;
    const std::string whole = folder.write("old0", wide_trace(3500));
    const std::string begun = folder.write("new0", wide_trace(2500));
    const Two_Files files(whole, begun);
    EXPECT_EQ(extent_of(files.groups()).first, files.b->info().blocks - 1) << "all but the last block";
    Trace trace = good_trace();
    const std::string one = folder.write("one0", trace);
    EXPECT_EQ(Two_Files(one, one).verdicts(), (std::vector{true}));
    trace.push_back(trace[PARTITION]);
    EXPECT_TRUE(Two_Files(one, folder.write("more0", trace)).groups().empty());
}

TEST(equal_blocks, end_where_records_are_missing_in_both_files)
{
    const Folder folder;
    folder.write("whole0", wide_trace(5000));
    std::string bytes = folder.contents("whole0");
    bytes[bytes.size() / 2] ^= 0x55;
    const std::string damaged = folder.text("damaged0", bytes), saved = folder.path("saved0");
    const uint64_t lost = json::parse(qtrace({"recover", "--json", damaged, saved}).out)["lost_records"];
    ASSERT_GT(lost, 100u);
    const Two_Files files(saved, saved);
    EXPECT_LT(extent_of(files.groups()).second, 5000 - lost);
    EXPECT_GT(files.groups().size(), 1u);
    for (const bool equal : files.verdicts())
        EXPECT_TRUE(equal);
    bytes = folder.contents("whole0");
    bytes[1000] ^= 0x55; // in the first block
    const std::string begun = folder.path("begun0");
    qtrace({"recover", folder.text("damaged0", bytes), begun});
    EXPECT_TRUE(Two_Files(begun, begun).groups().empty()) << "the first records are missing";
}

TEST(equal_blocks, whose_last_item_is_a_header_are_not_passed_over)
{
    const Folder folder;
    const std::string header = folder.write("header0", {good_trace()[FIRST_HEADER]});
    EXPECT_EQ(Two_Files(header, header).verdicts(), (std::vector{false}));
    Trace trace = good_trace();
    trace.push_back(trace[PARTITION]);
    const std::string last = folder.write("last0", trace);
    EXPECT_EQ(Two_Files(last, last).verdicts(), (std::vector{false}));
}

TEST(equal_blocks, with_another_header_or_address_differ)
{
    const Folder folder;
    const std::string one = folder.write("one0", good_trace());
    for (const Place place : {PARTITION, SECOND_HEADER}) {
        Trace trace = good_trace();
        trace[place].header.pid[0]++;
        EXPECT_EQ(Two_Files(one, folder.write("other0", trace)).verdicts(), (std::vector{false}));
    }
    Trace trace = good_trace();
    std::swap(trace[PARTITION], trace[PARTITION + 1]); // the header after the record
    EXPECT_EQ(Two_Files(one, folder.write("other0", trace)).verdicts(), (std::vector{false}));
    trace = good_trace();
    trace[FIRST_HEADER].comment[3] = '!';
    EXPECT_EQ(Two_Files(one, folder.write("other0", trace)).verdicts(), (std::vector{false}));
}

TEST(diff_jobs, records_of_equal_groups_are_passed_over_at_once)
{
    const Folder folder;
    Trace trace = wide_trace(10000);
    trace.insert(trace.begin() + 1 + 5000, good_trace()[PARTITION]);
    const std::string old = folder.write("old0", trace);
    trace[1 + 5000].header.pid[0] ^= 1;
    const std::string other = folder.write("new0", trace);
    for (const unsigned jobs : {1u, 2u}) {
        Two_Files read(old, other);
        qtrace_tool::Trace_Diff diff(read.run, {*read.a, *read.b, {}}, {}, 10, [](const auto &place) {
            EXPECT_EQ(place.record_a, 5000u);
            EXPECT_EQ(place.record_b, 5000u);
        });
        std::vector<uint64_t> steps;
        const auto counts = diff.run(jobs, [&](uint64_t records) { steps.push_back(records); });
        EXPECT_EQ(counts.differing, 0u);
        EXPECT_EQ(counts.by_kind[static_cast<size_t>(trace::Difference::header)], 1u);
        EXPECT_EQ(counts.records_a, 10000u);
        EXPECT_EQ(counts.records_b, 10000u);
        EXPECT_EQ(std::accumulate(steps.begin(), steps.end(), uint64_t{0}), 10000u);
        EXPECT_EQ(std::ranges::count_if(steps, [](uint64_t step) { return step > 4096; }), jobs == 1 ? 0 : 2);
    }
}

// Record numbers and what is missing on either side, place by place.
using Places = std::vector<std::array<uint64_t, 4>>;

static Places places_in(Two_Files &files)
{
    Places places;
    qtrace_tool::Trace_Diff diff(files.run, {*files.a, *files.b, {}}, {}, 10, [&](const auto &place) {
        places.push_back({place.record_a, place.record_b, place.only_a, place.only_b});
    });
    diff.run(2, [](uint64_t) {});
    return places;
}

TEST(diff_jobs, what_is_missing_after_equal_groups_begins_at_its_record_number)
{
    const Folder folder;
    Trace trace = wide_trace(10 * 478 + 50); // a block has 478 records
    trace[1 + 1500].record.regs.gpr_out[0].value++;
    const std::string longer = folder.write("new0", trace);
    trace.resize(1 + 10 * 478);
    trace[1 + 1500].record.regs.gpr_out[0].value--;
    Two_Files read(folder.write("old0", trace), longer);
    EXPECT_EQ(read.groups().size(), 5u);
    EXPECT_EQ(places_in(read), (Places{{1500, 1500, 0, 0}, {4780, 4780, 0, 50}}));
}

TEST(diff_jobs, what_is_missing_after_groups_that_were_passed_later_begins_at_its_record_number)
{
    const Folder folder;
    constexpr uint64_t ENDS = 10 * 478 - 2; // with a block: it has 478 items, and there are two headers
    Trace trace = wide_trace(ENDS + 50);
    // a difference after which groups are passed again
    trace.insert(trace.begin() + 1 + 1500, good_trace()[PARTITION]);
    const std::string longer = folder.write("new0", trace);
    trace.resize(2 + ENDS);
    trace[1 + 1500].header.pid[0] ^= 1;
    Two_Files read(folder.write("old0", trace), longer);
    EXPECT_EQ(places_in(read), (Places{{1500, 1500, 0, 0}, {ENDS, ENDS, 0, 50}}));
}

// ---- Blocks lost on either side ------------------------------------------------------------------------

namespace
{

std::vector<QTRACE_Block> blocks_of(const Trace_File &file)
{
    std::vector<QTRACE_Block> blocks;
    file.each_block([&](const QTRACE_Block &block) { return blocks.push_back(block), true; });
    return blocks;
}

// The contents of a file, one of whose blocks is damaged.
std::string without(const qtrace_tool::Trace_File &file, std::string bytes, uint64_t block)
{
    uint64_t number = 0;
    file.each_block([&](const QTRACE_Block &place) {
        if (number == block)
            bytes[place.offset + place.size / 2] ^= 0x55;
        return number++ < block;
    });
    return bytes;
}

} // namespace

// The second block is missing in one trace, and the third in the other.
TEST(diff_damage, blocks_lost_after_each_other_on_either_side_are_one_place)
{
    const Folder folder;
    const std::string whole = folder.write("whole0", wide_trace(1500));
    qtrace_tool::Tool_Run run{1, 2};
    const auto file = qtrace_tool::Trace_File::open(run, whole);
    const std::vector<QTRACE_Block> blocks = blocks_of(*file);
    ASSERT_GT(blocks.size(), 3u);
    const std::string bytes = folder.contents("whole0");
    const std::string a = folder.text("a0", without(*file, bytes, 1)),
                      b = folder.text("b0", without(*file, bytes, 2));
    const json found = difference(a, b);
    ASSERT_EQ(blocks[1].records, blocks[2].records) << "as many on both sides";
    EXPECT_EQ(found["only_a"], blocks[2].records);
    EXPECT_EQ(found["only_b"], blocks[1].records);
    EXPECT_EQ(found["differing"], 0);
    EXPECT_EQ(found["kinds"], json({{"missing", 1}}));
}

TEST(diff_damage, is_told_once_when_records_before_it_differ)
{
    const Folder folder;
    Trace trace = wide_trace(1500);
    qtrace_tool::Tool_Run run{1, 2};
    const auto whole = Trace_File::open(run, folder.write("whole0", trace));
    const std::string damaged = folder.text("damaged0", without(*whole, folder.contents("whole0"), 1));
    trace[1 + 10].record.header.instruction ^= 0x100;
    const Outcome found = qtrace({"diff", damaged, folder.write("other0", trace)});
    EXPECT_THAT(found.out, HasSubstr("missing in 1 run: 0 records only on the left, 478 only on the right\n"));
    EXPECT_THAT(found.err, HasSubstr("damaged0: "));
    EXPECT_EQ(std::ranges::count(found.err, '\n'), 1);
}

// ---- Looking ahead -------------------------------------------------------------------------------------

TEST(diff_lookahead, ends_where_record_numbers_jump_and_goes_on_after_that)
{
    const Folder folder;
    qtrace_tool::Tool_Run run{1, 2};
    const auto whole = Trace_File::open(run, folder.write("whole0", wide_trace(1500)));
    const std::vector<QTRACE_Block> blocks = blocks_of(*whole);
    const auto file = Trace_File::open(run, folder.text("less0", without(*whole, folder.contents("whole0"), 1)));
    const uint64_t before = blocks[0].records, next = blocks[2].first_record, after = 1500 - next;
    qtrace_tool::Lookahead ahead(run, *file, {}, qtrace_tool::Record_Hash({}));
    EXPECT_EQ(ahead.keys(0, 0, true).size(), before);
    EXPECT_FALSE(ahead.at_end());
    EXPECT_EQ(ahead.keys(before, next, true).size(), after);
    EXPECT_TRUE(ahead.at_end());
    EXPECT_EQ(ahead.keys(before + after, 1500, true).size(), 0u);
    EXPECT_TRUE(ahead.at_end());
    qtrace_tool::Lookahead later(run, *file, {}, qtrace_tool::Record_Hash({}));
    EXPECT_EQ(later.keys(before + 10, next + 10, false).size(), after - 10);
    EXPECT_TRUE(later.at_end());
    qtrace_tool::Lookahead beyond(run, *file, {}, qtrace_tool::Record_Hash({}));
    EXPECT_EQ(beyond.keys(before + after + 1, 1501, false).size(), 0u);
    EXPECT_TRUE(later.is_readable());
}

// ---- Output --------------------------------------------------------------------------------------------

TEST(diff_output, shows_nothing_that_a_terminal_executes)
{
    const Folder folder;
    Trace other = good_trace();
    other[FIRST_HEADER].comment = "\x1b[2J";
    const std::string text = qtrace({"diff", folder.write("old0", good_trace()), folder.write("new0", other)}).out;
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_THAT(text, HasSubstr("comment: KelvoVer"));
    EXPECT_THAT(text, HasSubstr(" | \\x1b[2J\n"));
}

TEST(diff_output, text_has_each_figure)
{
    const Folder folder;
    Trace other = good_trace();
    other[STRING].record.regs.gpr_in[1].value++;
    other.pop_back();
    const std::string a = folder.write("old0", good_trace()), b = folder.write("new0", other);
    const std::string text = qtrace({"diff", "--limit", "2", a, b}).out;
    EXPECT_THAT(text, HasSubstr("at record 10 | 10 (0000000000004004): missing: 1 record only in " + a));
    EXPECT_THAT(text, HasSubstr("11 | 10 records: they differ\n"
                                "  records differ             1\n"
                                "    registers                1\n"
                                "  missing in 1 run: 1 record only on the left, 0 only on the right\n"));
}

TEST(diff_output, json_has_each_figure)
{
    const Folder folder;
    Trace other = good_trace();
    other[LOAD].record.data_ea[0]++;
    other[PARTITION].header.pid[0] = 9;
    other.pop_back();
    other.push_back(good_trace()[PARTITION]);
    const std::string a = folder.write("old0", good_trace()), b = folder.write("new0", other);
    json found = difference(a, b, {"--limit", "4"});
    EXPECT_EQ(found["a"], a);
    EXPECT_EQ(found["b"], b);
    found.erase("a");
    found.erase("b");
    EXPECT_EQ(found, json::parse(R"({"differences":[
        {"record_a":1,"record_b":1,"address":"0x1004","kinds":["data-address"],"only_a":0,"only_b":0,
         "members":{"data_ea":["0000000000005008","0000000000005009"]}},
        {"record_a":5,"record_b":5,"address":"0x2008","kinds":["header"],"only_a":0,"only_b":0,
         "members":{"pid":["8","9"]}},
        {"record_a":10,"record_b":10,"address":"0x4004","kinds":["missing"],"only_a":1,"only_b":0,"members":{}},
        {"record_a":11,"record_b":10,"address":"0x0","kinds":["header"],"only_a":0,"only_b":0,
         "members":{"headers":["0","1"]}}],
        "records_a":11,"records_b":10,"differing":1,"only_a":1,"only_b":0,
        "kinds":{"data-address":1,"header":2,"missing":1}})"));
    EXPECT_EQ(difference(a, b)["differences"].size(), 1u);
    EXPECT_EQ(difference(a, b, {"--limit", "2"})["differences"].size(), 2u);
    EXPECT_EQ(difference(a, b, {"--limit", "0"})["kinds"], found["kinds"]);
    EXPECT_EQ(difference(a, b, {"--ignore", "missing"})["only_a"], 0);
    EXPECT_EQ(difference(a, b, {"--ignore", "missing"})["kinds"], json({{"data-address", 1}, {"header", 2}}));
    EXPECT_EQ(difference(a, b, {"--ignore", "header"})["kinds"], json({{"data-address", 1}, {"missing", 1}}));
}

// The first characters of the lines before the summary, without context, where the instruction word of one record differs.
std::string marks_of_changed(size_t place)
{
    const Folder folder;
    Trace other = good_trace();
    other[place].record.header.instruction ^= 4;
    const std::string a = folder.write("old0", good_trace()), b = folder.write("new0", other);
    std::istringstream lines(qtrace({"diff", "--context", "0", a, b}).out);
    std::string marks;
    std::getline(lines, marks);
    EXPECT_THAT(marks, HasSubstr(a)); // the names
    marks.clear();
    for (std::string line; std::getline(lines, line) && line.find("they differ") == std::string::npos;)
        marks += line[0];
    return marks;
}

TEST(diff_output, without_context_has_no_neighbours_of_a_record)
{
    EXPECT_EQ(marks_of_changed(LOAD), "a -+"); // address, instruction word, both records
}

TEST(diff_output, does_not_mark_the_header_after_a_record_that_differs)
{
    EXPECT_EQ(marks_of_changed(UNTAKEN_BRANCH), "a -+");
}

// ---- Keys ----------------------------------------------------------------------------------------------

TEST(diff_keys, of_records_with_different_small_values_differ)
{
    const qtrace_tool::Record_Hash hash({});
    Item item = good_trace()[STRING];
    std::set<uint64_t> contents, wholes;
    for (uint64_t i = 0; i < 64 * 64; i++) {
        QTRACE_Item read{};
        read.record = item.record;
        read.record.regs.gpr_in[0].value = i / 64;
        read.record.regs.gpr_in[1].value = i % 64;
        contents.insert(hash(read).content);
        wholes.insert(hash(read).whole);
    }
    EXPECT_EQ(contents.size(), 64 * 64);
    EXPECT_EQ(wholes.size(), 64 * 64);
}

// ---- Alignment -----------------------------------------------------------------------------------------

namespace
{

using qtrace_tool::Alignment_Step;
using qtrace_tool::Record_Key;

// A key for each letter; small and capital letters are different records at the same place.
std::vector<Record_Key> keys(std::string_view letters)
{
    std::vector<Record_Key> keys;
    for (const char c : letters)
        keys.push_back({static_cast<uint64_t>(c), static_cast<uint64_t>(c), static_cast<uint64_t>(c & 0x5F)});
    return keys;
}

std::vector<Alignment_Step> aligned(std::string_view a, std::string_view b)
{
    return qtrace_tool::align_records(keys(a), keys(b), true);
}

} // namespace

TEST(alignment, equal_ends_leave_what_is_missing_between_them)
{
    EXPECT_THAT(aligned("abcdef", "abef"), testing::ElementsAre(Alignment_Step{2, 2, 0}, Alignment_Step{2, 0, 0}));
    EXPECT_THAT(aligned("abef", "abcdef"), testing::ElementsAre(Alignment_Step{2, 0, 2}, Alignment_Step{2, 0, 0}));
    EXPECT_THAT(aligned("aaaaa", "aaa"), testing::ElementsAre(Alignment_Step{3, 2, 0}));
}

TEST(alignment, records_at_the_same_place_are_compared)
{
    EXPECT_THAT(aligned("abcd", "aBcd"), testing::ElementsAre(Alignment_Step{4, 0, 0}));
    EXPECT_THAT(aligned("abxyzcd", "aBcd"), testing::ElementsAre(Alignment_Step{2, 3, 0}, Alignment_Step{2, 0, 0}));
}

TEST(alignment, as_many_records_on_both_sides_are_compared_one_by_one)
{
    EXPECT_THAT(aligned("abcd", "axyd"), testing::ElementsAre(Alignment_Step{4, 0, 0}));
    EXPECT_THAT(aligned("abcd", "axyzd"), testing::ElementsAre(Alignment_Step{1, 2, 3}, Alignment_Step{1, 0, 0}));
}

TEST(alignment, the_fewest_edits_are_found_between_equal_ends)
{
    EXPECT_THAT(aligned("aPqrSb", "apQRb"), testing::ElementsAre(Alignment_Step{4, 1, 0}, Alignment_Step{1, 0, 0}));
    EXPECT_THAT(aligned("xAbCdEfGy", "xbcDegHy"),
                testing::ElementsAre(Alignment_Step{1, 1, 0}, Alignment_Step{4, 1, 0}, Alignment_Step{1, 0, 1},
                                     Alignment_Step{1, 0, 0}));
}

TEST(alignment, records_of_an_equal_end_belong_to_it_alone)
{
    for (const auto &[longer, shorter] : {std::pair{"aac", "cc"}, {"aba", "ca"}}) {
        EXPECT_THAT(aligned(longer, shorter),
                    testing::ElementsAre(Alignment_Step{0, 2, 1}, Alignment_Step{1, 0, 0}));
        EXPECT_THAT(aligned(shorter, longer),
                    testing::ElementsAre(Alignment_Step{0, 1, 2}, Alignment_Step{1, 0, 0}));
    }
}

// The letters h to o occur twice on the left; the records around them tell which of both is meant.
TEST(alignment, what_occurs_twice_does_not_tell_the_place)
{
    EXPECT_THAT(aligned("0hijklmno1zhijklmno2", "31xhijklmno4"),
                testing::ElementsAre(Alignment_Step{0, 9, 1}, Alignment_Step{11, 0, 0}));
}

// ---- Limits of the alignment ---------------------------------------------------------------------------

namespace
{

using Steps = std::vector<Alignment_Step>;

// Records of the given numbers: each number its own record and place.
std::vector<Record_Key> records(const std::vector<uint64_t> &numbers)
{
    std::vector<Record_Key> keys;
    for (const uint64_t number : numbers)
        keys.push_back({number, number, number});
    return keys;
}

std::vector<uint64_t> row(uint64_t first, size_t count)
{
    std::vector<uint64_t> numbers(count);
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

std::vector<uint64_t> joined(std::initializer_list<std::vector<uint64_t>> parts)
{
    std::vector<uint64_t> all;
    for (const std::vector<uint64_t> &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Steps begun(const std::vector<Record_Key> &a, const std::vector<Record_Key> &b)
{
    return qtrace_tool::align_records(a, b, false);
}

// So many records of a loop of `period` that begins with its record `first`.
std::vector<Record_Key> loop(uint64_t first, uint64_t period, size_t count)
{
    std::vector<uint64_t> numbers;
    for (uint64_t i = first; i < first + count; i++)
        numbers.push_back(i % period);
    return records(numbers);
}

} // namespace

TEST(alignment, eight_records_in_a_row_belong_together_and_seven_may_not)
{
    for (const size_t run : {8, 7}) {
        const auto a = records(joined({row(100, 3), row(0, run), row(300, 2)}));
        const auto b = records(joined({row(200, 5), row(0, run), row(400, 4)}));
        EXPECT_EQ(begun(a, b), run == 8 ? (Steps{{0, 3, 5}, {8, 0, 0}}) : (Steps{{3 + run + 2, 0, 0}}));
    }
}

TEST(alignment, records_in_a_row_at_the_end_belong_together)
{
    EXPECT_EQ(begun(records(joined({row(100, 3), row(0, 8)})), records(joined({row(200, 5), row(0, 8)}))),
              (Steps{{0, 3, 5}, {8, 0, 0}}));
}

TEST(alignment, records_in_a_row_at_the_beginning_belong_together)
{
    const auto a = records(joined({row(0, 8), row(300, 2)}));
    const auto b = records(joined({row(200, 5), row(0, 8), row(400, 4)}));
    EXPECT_EQ(begun(a, b), (Steps{{0, 0, 5}, {8, 0, 0}}));
    EXPECT_EQ(begun(b, a), (Steps{{0, 5, 0}, {8, 0, 0}}));
}

TEST(alignment, records_are_missing_on_one_side_between_two_rows_that_belong_together)
{
    const auto a = records(joined({row(0, 10), row(20, 8)}));
    const auto b = records(joined({row(0, 10), row(100, 3), row(20, 8)}));
    EXPECT_EQ(begun(a, b), (Steps{{10, 0, 3}, {8, 0, 0}}));
    EXPECT_EQ(begun(b, a), (Steps{{10, 3, 0}, {8, 0, 0}}));
}

TEST(alignment, rows_that_overlap_in_another_way_on_the_other_side_are_not_paired_twice)
{
    // The row of 20 to 27 begins within that of 13 to 20 on one side, and two records after it on the other.
    const auto a = records(row(13, 15)), b = records(joined({row(13, 8), {90, 91}, row(20, 8)}));
    EXPECT_EQ(begun(a, b), (Steps{{8, 0, 0}}));
    EXPECT_EQ(begun(b, a), (Steps{{8, 0, 0}}));
}

TEST(alignment, what_occurs_twice_on_one_side_alone_does_not_tell_the_place)
{
    EXPECT_EQ(begun(loop(0, 1, 9), loop(0, 1, 8)), (Steps{{8, 0, 0}}));
    const std::vector<uint64_t> twice = joined({row(0, 8), {50, 51}, row(0, 8)});
    const auto a = records(joined({{40}, twice, {60, 61}})), b = records(joined({{41, 42, 43}, row(0, 8), {70}}));
    EXPECT_EQ(begun(a, b), (Steps{{12, 0, 0}}));
    EXPECT_EQ(begun(b, a), (Steps{{12, 0, 0}}));
}

TEST(alignment, most_rows_in_the_same_order_belong_together)
{
    EXPECT_EQ(begun(records(joined({row(0, 8), row(50, 9)})), records(joined({row(50, 9), row(0, 8)}))),
              (Steps{{0, 8, 0}, {9, 0, 0}}));
    const auto a = joined({row(0, 8), {101}, row(20, 8), {102}, row(40, 8), {103}, row(60, 8)});
    const auto b = joined({row(0, 8), {201}, row(40, 8), {202}, row(60, 8), {203}, row(20, 8)});
    EXPECT_EQ(begun(records(a), records(b)), (Steps{{8, 10, 1}, {17, 0, 0}}));
    EXPECT_EQ(begun(records(b), records(a)), (Steps{{8, 1, 10}, {17, 0, 0}}));
}

TEST(alignment, records_whose_keys_differ_in_one_bit_are_others)
{
    for (const uint64_t bit : {uint64_t{1}, uint64_t{1} << 63}) {
        std::vector<uint64_t> other = row(0, 8);
        other.back() ^= bit;
        const auto a = records(joined({row(100, 3), row(0, 8), row(300, 2)}));
        const auto b = records(joined({row(200, 5), row(0, 8), row(400, 4), other}));
        EXPECT_EQ(begun(a, b), (Steps{{0, 3, 5}, {8, 0, 0}}));
    }
}

// The same instructions with other registers.
TEST(alignment, thirty_two_places_in_a_row_belong_together_and_31_may_not)
{
    for (const size_t run : {32, 31}) {
        auto a = records(joined({row(100, 3), row(0, run), row(300, 2)}));
        auto b = records(joined({row(200, 5), row(0, run), row(400, 4)}));
        for (Record_Key &key : a)
            key.whole += 1000, key.content += 1000;
        EXPECT_EQ(begun(a, b), run == 32 ? (Steps{{0, 3, 5}, {32, 0, 0}}) : (Steps{{3 + run + 2, 0, 0}}));
    }
}

TEST(alignment, what_follows_the_last_records_that_belong_together_is_left_for_later)
{
    const auto a = records(joined({row(0, 10), row(100, 3), row(20, 10), row(300, 7)}));
    const auto b = records(joined({row(0, 10), row(20, 10), row(400, 9)}));
    EXPECT_EQ(begun(a, b), (Steps{{10, 3, 0}, {10, 0, 0}}));
    EXPECT_EQ(qtrace_tool::align_records(a, b, true), (Steps{{10, 3, 0}, {10, 7, 9}}));
}

TEST(alignment, up_to_400_records_are_left_out_between_records_that_agree_one_by_one)
{
    for (const uint64_t count : {400, 401}) {
        std::vector<uint64_t> a, b;
        for (uint64_t i = 0; i < count; i++) {
            a.push_back(1000 + i);
            a.push_back(i);
            b.push_back(i);
        }
        Steps expected{{0, 1, 0}};
        expected.resize(count, {1, 1, 0});
        expected.push_back({1, 0, 0});
        if (count > 400)
            expected = {{0, 2 * count - 1, count - 1}, {1, 0, 0}};
        EXPECT_EQ(qtrace_tool::align_records(records(a), records(b), true), expected);
        for (Alignment_Step &step : expected)
            std::swap(step.only_a, step.only_b);
        EXPECT_EQ(qtrace_tool::align_records(records(b), records(a), true), expected);
    }
}

TEST(alignment, equal_ends_belong_together_however_much_differs_between_them)
{
    const auto a = records(joined({row(700, 5), row(0, 300), row(900, 5)}));
    const auto b = records(joined({row(700, 5), row(400, 250), row(900, 5)}));
    EXPECT_EQ(qtrace_tool::align_records(a, b, true), (Steps{{5, 300, 250}, {5, 0, 0}}));
}

namespace
{

// Around `core` so many layers: in each a row that occurs once in it, then the row of the layer within once more, so that
// nothing else does. The records between are only on one side.
std::vector<uint64_t> layered(std::vector<uint64_t> core, uint64_t layers, uint64_t side)
{
    const auto own = [&] { return std::vector{side++}; };
    for (uint64_t layer = 1; layer <= layers; layer++)
        core = joined({own(), core, own(), row(10 * layer, 8), own(), row(10 * (layer - 1), 8), own()});
    return core;
}

} // namespace

TEST(alignment, rows_are_looked_for_between_rows_32_times)
{
    const std::vector<uint64_t> core_a = joined({row(20'000, 300), row(0, 8), row(30'000, 5)});
    const std::vector<uint64_t> core_b = joined({row(40'000, 150), row(0, 8), row(50'000, 200)});
    for (const uint64_t layers : {31, 32}) {
        Steps expected{{0, layers + 300, layers + 150}, {8, 5 + 1, 200 + 1}, {19 * layers - 1, 0, 0}};
        if (layers == 32)
            expected = {{0, layers + 300 + 8 + 5 + 1, layers + 150 + 8 + 200 + 1}, {19 * layers - 1, 0, 0}};
        EXPECT_EQ(qtrace_tool::align_records(records(layered(core_a, layers, 60'000)),
                                             records(layered(core_b, layers, 70'000)), true),
                  expected);
    }
}

// A row between each two of the 20 that occur once; all of them come once more at the end.
TEST(alignment, rows_are_looked_for_between_any_number_of_rows)
{
    std::vector<uint64_t> a, b, again;
    Steps expected;
    for (uint64_t i = 0; i < 20; i++) {
        const std::vector<uint64_t> inner = row(20 * i, 8), outer = row(20 * i + 10, 8);
        a = joined({a, row(10'000 + 1000 * i, 300), inner, row(10'500 + 1000 * i, 5), outer});
        b = joined({b, row(50'000 + 1000 * i, 150), inner, row(50'500 + 1000 * i, 200), outer});
        again = joined({again, inner, {5'000 + i}});
        expected.push_back({i == 0 ? 0u : 8u, 300, 150});
        expected.push_back({8, 5, 200});
    }
    expected.push_back({8 + 1 + 20 * 9 + 1, 0, 0});
    a = joined({a, {90'000}, again, {90'002}}), b = joined({b, {90'001}, again, {90'003}});
    EXPECT_EQ(qtrace_tool::align_records(records(a), records(b), true), expected);
}

TEST(alignment, loops_are_shifted_by_the_fewest_records_on_either_side)
{
    EXPECT_EQ(begun(loop(0, 5, 200), loop(2, 5, 200)), (Steps{{0, 2, 0}, {198, 0, 0}}));
    EXPECT_EQ(begun(loop(0, 5, 200), loop(3, 5, 200)), (Steps{{0, 0, 2}, {198, 0, 0}}));
    EXPECT_EQ(begun(loop(0, 4, 200), loop(2, 4, 200)), (Steps{{0, 2, 0}, {198, 0, 0}})) << "as many on both sides";
    EXPECT_EQ(begun(loop(0, 5, 200), loop(0, 5, 190)), (Steps{{190, 0, 0}}));
}

TEST(alignment, loops_are_shifted_when_64_records_agree_then)
{
    EXPECT_EQ(begun(loop(0, 5, 66), loop(2, 5, 64)), (Steps{{0, 2, 0}, {64, 0, 0}}));
    EXPECT_EQ(begun(loop(0, 5, 65), loop(2, 5, 64)), (Steps{{64, 0, 0}}));
    EXPECT_EQ(begun(loop(0, 5, 66), loop(2, 5, 63)), (Steps{{63, 0, 0}}));
}

// ---- What differs, in words ----------------------------------------------------------------------------

namespace
{

using qtrace_tool::Detail;
using qtrace_tool::Header_List;

std::vector<std::string> words_of(const std::vector<Detail> &details)
{
    std::vector<std::string> words;
    for (const Detail &detail : details)
        words.push_back(detail.name + ": " + detail.a + " | " + detail.b);
    return words;
}

QTRACE_Item with_address(const Item &item, uint64_t address, bool known = true)
{
    QTRACE_Item read{};
    read.record = item.record;
    read.address = address;
    read.address_known = known;
    return read;
}

} // namespace

TEST(diff_details, name_each_flag_and_member_with_both_values)
{
    Item changed = good_trace()[STRING];
    changed.record.header.instruction = 0x7c6484ab;
    changed.record.header.control.fld.host_xlate_mode_data = 1;
    changed.record.header.control.fld.node_present = 1;
    changed.record.node = 12;
    changed.record.length = 17;
    changed.record.regs.gpr_in[1].value = 0x12;
    const QTRACE_Item a = with_address(good_trace()[STRING], 0x1000), b = with_address(changed, 0x1004);
    EXPECT_THAT(
        words_of(qtrace_tool::details_between(a, b, {})),
        testing::UnorderedElementsAre(
            "address: 0000000000001000 | 0000000000001004", "host_xlate_mode_data: 3 | 1", "node_present: 0 | 1",
            "node: 0 | 12", "instruction: 0x7c6484aa | 0x7c6484ab", "length: 16 | 17",
            "regs: in r4=0x2000 r5=0x11 out x34=0x112233445566778899aabbccddeeff00 | in r4=0x2000 r5=0x12 out "
            "x34=0x112233445566778899aabbccddeeff00"));
    EXPECT_THAT(words_of(qtrace_tool::details_between(a, with_address(good_trace()[STRING], 0x1000, false), {})),
                testing::ElementsAre("address: 0000000000001000 | 0000000000001000"));
    EXPECT_TRUE(qtrace_tool::details_between(a, a, {}).empty());
}

TEST(diff_details, of_headers_name_flags_words_members_and_comments)
{
    Item changed = good_trace()[PARTITION];
    changed.header.control.barrier_synchronization = 1;
    changed.header.sec_ext_controlword.instruction = 0x1f;
    changed.header.pid[0] = 9;
    changed.header.comment = changed.comment.data();
    Header_List a, b;
    EXPECT_TRUE(a.empty());
    a.add(good_trace()[PARTITION].header);
    EXPECT_FALSE(a.empty());
    char comment[] = "text";
    changed.header.comment = comment;
    changed.header.comment_length = 3;
    b.add(changed.header);
    b.add(changed.header);
    const std::vector<std::string> words = words_of(details_between(a, b));
    ASSERT_EQ(words.size(), 6u);
    EXPECT_EQ(words[0], "headers: 1 | 2");
    EXPECT_THAT(words[1], testing::StartsWith("flags: 0x"));
    EXPECT_EQ(words[2], "instruction: 0x0 | 0x1f");
    EXPECT_EQ(words[3], "pid: 8 | 9");
    EXPECT_EQ(words[4], "comment_length: 0 | 3");
    EXPECT_EQ(words[5], "comment:  | tex");
}

TEST(diff_details, of_headers_are_those_of_the_first_16)
{
    const auto difference_at = [](size_t place) {
        Header_List a, b;
        for (size_t i = 0; i < 18; i++) {
            QTRACE_FILE_HDR header = good_trace()[PARTITION].header;
            a.add(header);
            header.pid[0] = i == place ? 9 : 8;
            b.add(header);
        }
        return words_of(details_between(a, b));
    };
    EXPECT_THAT(difference_at(0), testing::ElementsAre("pid: 8 | 9"));
    EXPECT_THAT(difference_at(15), testing::ElementsAre("pid: 8 | 9"));
    EXPECT_THAT(difference_at(16), testing::ElementsAre("header after the first 16: one | another"));
    EXPECT_THAT(difference_at(99), testing::ElementsAre());
}

// ---- More of keys --------------------------------------------------------------------------------------

TEST(diff_keys, depend_on_every_byte_of_a_member)
{
    const QTRACE_Item base = with_address(good_trace()[NESTED_LOAD], 0x1000);
    const qtrace_tool::Record_Hash hash({});
    std::set<uint64_t> contents = {hash(base).content};
    size_t bytes = 0;
    for (const char *name : {"data_ea", "data_rpn", "data_gRTW", "data_hRTW"}) {
        const trace::Trace_Member &member = *trace::find_record_member(name);
        for (size_t i = 0; i < member.size; i++, bytes++) {
            QTRACE_Item changed = base;
            reinterpret_cast<uint8_t *>(&changed.record)[member.offset + i] ^= 0x80;
            contents.insert(hash(changed).content);
        }
    }
    EXPECT_EQ(contents.size(), 1 + bytes);
}

TEST(diff_keys, leave_out_what_is_ignored_and_tell_everything_else_apart)
{
    using trace::Difference;
    const QTRACE_Item base = with_address(good_trace()[STRING], 0x1000);
    const auto key_without = [](const QTRACE_Item &item, std::initializer_list<Difference> kinds) {
        qtrace_tool::Difference_Set ignored;
        for (const Difference kind : kinds)
            ignored.set(static_cast<size_t>(kind));
        return qtrace_tool::Record_Hash(ignored)(item);
    };
    QTRACE_Item other = base;
    other.address = 0x1004;
    EXPECT_EQ(key_without(base, {}).content, key_without(other, {}).content);
    EXPECT_NE(key_without(base, {}).whole, key_without(other, {}).whole);
    EXPECT_NE(key_without(base, {}).place, key_without(other, {}).place);
    EXPECT_EQ(key_without(base, {Difference::address}).whole, key_without(other, {Difference::address}).whole);
    EXPECT_EQ(key_without(base, {Difference::address}).place, key_without(other, {Difference::address}).place);
    other = base;
    other.record.header.instruction ^= 1;
    EXPECT_NE(key_without(base, {}).place, key_without(other, {}).place);
    EXPECT_NE(key_without(base, {}).content, key_without(other, {}).content);
    EXPECT_EQ(key_without(base, {Difference::instruction}).place,
              key_without(other, {Difference::instruction}).place);
    EXPECT_EQ(key_without(base, {Difference::instruction}).whole,
              key_without(other, {Difference::instruction}).whole);
    other = base;
    other.record.regs.vsxr_out[0].value[1] ^= 1;
    EXPECT_NE(key_without(base, {}).content, key_without(other, {}).content);
    EXPECT_EQ(key_without(base, {}).place, key_without(other, {}).place);
    EXPECT_EQ(key_without(base, {Difference::registers}).whole, key_without(other, {Difference::registers}).whole);
    other = base;
    other.record.header.control.fld.host_xlate_mode_data = 1;
    EXPECT_NE(key_without(base, {}).content, key_without(other, {}).content);
    EXPECT_EQ(key_without(base, {Difference::translation}).whole,
              key_without(other, {Difference::translation}).whole);
}
