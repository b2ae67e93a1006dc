// What a report keeps of a thread, and the limits of it.
#include "planted_trace.h"
#include "report_data.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace planted;
using namespace qtrace_tool;
using testing::ElementsAre;
using testing::Pair;

namespace
{

const Page_Sizes SIZES;
const Trace GOOD = good_trace();

Item header_of(uint8_t pid)
{
    Item header = GOOD[SECOND_HEADER]; // in real mode: fetches are not translated
    header.header.pid[0] = pid;
    return header;
}

// A thread whose items are given one by one.
class Fed_Thread
{
public:
    Fed_Thread(uint64_t first, uint64_t end) : data("thread", SIZES, first, end) { part_.start(nullptr); }
    void header(const Item &item)
    {
        read_.kind = QTRACE_ITEM_HEADER;
        read_.header = item.header;
        part_.header(read_);
    }
    void record(const Item &item, uint64_t address, bool known = true)
    {
        read_.record = item.record;
        put(address, known);
    }
    void access(uint64_t address, uint64_t pc, const Item &item = GOOD[LOAD])
    {
        read_.record = item.record;
        std::memcpy(read_.record.data_ea, &address, sizeof(address));
        put(pc, true);
    }
    void go_to(uint64_t number) { read_.record_number = number; }
    void loss(uint64_t next, const std::string &text, const QTRACE_FILE_HDR *context)
    {
        part_.loss(next, text, context);
    }
    Thread_Data &finished()
    {
        data.add(part_);
        data.finish();
        return data;
    }

    Thread_Data data;

private:
    void put(uint64_t address, bool known)
    {
        read_.kind = QTRACE_ITEM_RECORD;
        read_.address = address;
        read_.address_known = known;
        part_.record(read_);
        read_.record_number++;
    }

    Report_Part part_{SIZES};
    QTRACE_Item read_{};
};

Item plain()
{
    return GOOD[PLAIN];
}

} // namespace

// ---- Heat maps -----------------------------------------------------------------------------------------

TEST(heat_map, counts_in_ranges_of_64K_by_time)
{
    Heat_Map map;
    EXPECT_EQ(map.range_bits(), 16u);
    map.count(0x2ffff, 3);
    map.count(0x20000, 3);
    map.count(0x30000, 4);
    map.count(0x0, 0);
    ASSERT_EQ(map.rows().size(), 3u);
    EXPECT_EQ(map.rows().at(0x20000)[3], 2u);
    EXPECT_EQ(map.rows().at(0x30000)[4], 1u);
    EXPECT_EQ(map.rows().at(0)[0], 1u);
}

TEST(heat_map, merges_pairs_of_ranges_when_there_are_more_than_512)
{
    Heat_Map map;
    for (uint64_t range = 0; range < 512; range++)
        map.count(range << 16, 239);
    EXPECT_EQ(map.rows().size(), 512u);
    map.count(uint64_t{512} << 16, 239);
    EXPECT_EQ(map.range_bits(), 17u);
    EXPECT_EQ(map.rows().size(), 257u);
    map.count(0, 0); // after the rows have moved
    map.count(0x1ffff, 239);
    EXPECT_EQ(map.rows().at(0)[0], 1u);
    EXPECT_EQ(map.rows().at(0)[239], 3u);
    EXPECT_EQ(map.rows().at(0x20000)[239], 2u);
}

TEST(heat_map, merged_ranges_have_the_sums_of_each_bin)
{
    Heat_Map map;
    for (const size_t bin : {size_t{0}, size_t{1}, REPORT_BINS - 1}) {
        map.count(0x10000, bin);
        map.count(0x0, bin);
    }
    map.shrink(1);
    for (const size_t bin : {size_t{0}, size_t{1}, REPORT_BINS - 1})
        EXPECT_EQ(map.rows().at(0)[bin], 2u) << bin;
}

TEST(heat_map, shrinks_to_at_most_as_many_ranges_as_asked_for)
{
    Heat_Map map;
    for (uint64_t range = 0; range < 100; range++)
        map.count(range << 16, 1);
    map.shrink(100);
    EXPECT_EQ(map.rows().size(), 100u);
    map.shrink(99);
    EXPECT_EQ(map.rows().size(), 50u);
    map.shrink(24);
    EXPECT_EQ(map.rows().size(), 13u);
    EXPECT_EQ(map.range_bits(), 19u);
    EXPECT_EQ(map.rows().at(0)[1], 8u);
}

// ---- Distinct keys -------------------------------------------------------------------------------------

TEST(distinct_keys, are_counted_once_up_to_60000)
{
    Distinct_Keys keys;
    keys.start();
    for (int twice = 0; twice < 2; twice++)
        for (uint64_t key = 0; key < 59999; key++)
            keys.add(key << 12);
    EXPECT_EQ(keys.count(), 59999u);
    for (uint64_t key = 70000; key < 70003; key++)
        keys.add(key);
    EXPECT_EQ(keys.count(), 60000u);
    keys.start();
    EXPECT_EQ(keys.count(), 0u);
    keys.add(5);
    keys.add(0);
    keys.add(5);
    EXPECT_EQ(keys.count(), 2u);
}

// ---- Time ----------------------------------------------------------------------------------------------

TEST(report_thread, divides_its_records_into_240_bins_at_most)
{
    const auto bin_records = [](uint64_t first, uint64_t end) {
        return Thread_Data("thread", SIZES, first, end).bin_records();
    };
    EXPECT_EQ(bin_records(7, 7), 1u);
    EXPECT_EQ(bin_records(100, 340), 1u);
    EXPECT_EQ(bin_records(100, 341), 2u);
    EXPECT_EQ(bin_records(100, 580), 2u);
    EXPECT_EQ(bin_records(100, 581), 3u);
}

TEST(report_thread, without_records_has_one_bin)
{
    EXPECT_EQ(Thread_Data("thread", SIZES, 0, 1000).bins(), 1u);
}

TEST(report_thread, counts_records_in_the_bin_of_their_number)
{
    Fed_Thread thread(100, 580);
    thread.go_to(100);
    thread.header(header_of(7));
    for (const uint64_t number : {100, 101, 102, 579, 580, 9000}) {
        thread.go_to(number);
        thread.record(plain(), 0x4000);
    }
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.bins(), 240u);
    const auto &bins = data.processes.at({1, 7});
    EXPECT_EQ(bins[0], 2u);
    EXPECT_EQ(bins[1], 1u);
    EXPECT_EQ(bins[239], 3u) << "the last one takes what comes after the end";
    EXPECT_EQ(data.fetches.rows().at(0)[239], 3u);
    EXPECT_EQ(data.addresses.top(2), (std::vector<std::pair<uint64_t, uint64_t>>{{0x4000, 6}}));
}

TEST(report_thread, counts_no_place_of_an_instruction_whose_address_is_not_known)
{
    Fed_Thread thread(0, 2);
    thread.record(plain(), 0x4000, false);
    thread.record(plain(), 0x4000);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.addresses.top(9), (std::vector<std::pair<uint64_t, uint64_t>>{{0x4000, 1}}));
    EXPECT_EQ(data.working_set[0][0], 0u);
    EXPECT_EQ(data.working_set[1][0], 1u);
    EXPECT_EQ(data.unlisted_processes, 2u) << "without a header no process is known";
}

TEST(report_thread, working_set_has_the_pages_of_each_size_used_in_a_bin)
{
    Fed_Thread thread(0, 480); // two records a bin
    const auto fetches = [&](uint64_t one, uint64_t other) {
        thread.record(plain(), one);
        thread.record(plain(), other);
    };
    fetches(0x4000, 0x2000);
    fetches(0x3000, 0x2000);
    fetches(0x2000, 0x2ffc);
    fetches(0x2000, 0x12000);
    fetches(0x2000, 0x202000);
    thread.access(0x4000, 0x2000);
    thread.access(0x2000, 0x2000);
    thread.access(0x13000, 0x12000);
    thread.access(0x12000, 0x12000);
    thread.access(0x600000, 0x2000);
    thread.access(0x10000000, 0x2004);
    const auto &set = thread.finished().working_set;
    EXPECT_THAT(set[0], ElementsAre(2, 1, 1));
    EXPECT_THAT(set[1], ElementsAre(2, 1, 1));
    EXPECT_THAT(set[2], ElementsAre(1, 1, 1));
    EXPECT_THAT(set[3], ElementsAre(2, 2, 1));
    EXPECT_THAT(set[4], ElementsAre(2, 2, 2));
    EXPECT_THAT(set[5], ElementsAre(2, 1, 1));
    EXPECT_THAT(set[6], ElementsAre(2, 1, 1));
    EXPECT_THAT(set[7], ElementsAre(3, 3, 3));
    EXPECT_THAT(set[8], ElementsAre(0, 0, 0));
}

TEST(report_thread, working_set_has_the_page_at_4K_in_each_bin)
{
    Fed_Thread thread(0, 240);
    for (int i = 0; i < 3; i++)
        thread.access(0x1800, 0x1000);
    const auto &set = thread.finished().working_set;
    for (const size_t bin : {0, 1, 2})
        EXPECT_EQ(set[bin][0], 1u) << bin;
}

// Addresses and the numbers of their pages, shifted by more or fewer bits, are each other's.
TEST(report_thread, working_set_has_both_of_two_pages_used_after_each_other)
{
    const std::pair<uint64_t, uint64_t> pairs[] = {{0x1000, 0x2000}, {0x2000, 0x1000}, {0x2000, 0x4000},
                                                   {0x4000, 0x2000}, {0x1000000, 1},   {1, 0x1000000}};
    Fed_Thread thread(0, 480); // two records a bin
    for (const auto &[one, other] : pairs) {
        thread.record(plain(), one);
        thread.record(plain(), other);
        thread.access(one, 0x7000000);
        thread.access(other, 0x7000000);
    }
    const auto &set = thread.finished().working_set;
    for (size_t bin = 0; bin < 2 * std::size(pairs); bin += 2) {
        EXPECT_EQ(set[bin][0], 2u) << bin;
        EXPECT_EQ(set[bin + 1][0], 3u) << bin << ": the page of the instructions too";
    }
}

// ---- Data ----------------------------------------------------------------------------------------------

TEST(report_thread, tells_stores_from_other_accesses)
{
    Fed_Thread thread(0, 3);
    thread.access(0x51234, 0x4000);
    thread.access(0x61234, 0x4004, GOOD[SUSPECT_STORE]);
    thread.access(0x51238, 0x4008);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.reads.rows().size(), 1u);
    EXPECT_EQ(data.reads.rows().at(0x50000)[0], 1u);
    EXPECT_EQ(data.reads.rows().at(0x50000)[2], 1u);
    EXPECT_EQ(data.writes.rows().size(), 1u);
    EXPECT_EQ(data.writes.rows().at(0x60000)[1], 1u);
    EXPECT_EQ(data.data_pages.top(9), (std::vector<std::pair<uint64_t, uint64_t>>{{0x50000, 2}, {0x60000, 1}}));
    EXPECT_THAT(data.first_record, testing::UnorderedElementsAre(Pair(0x50000, 0), Pair(0x60000, 1)));
}

// ---- Processes, gaps -----------------------------------------------------------------------------------

TEST(report_thread, lists_256_processes_and_counts_the_instructions_of_others)
{
    Fed_Thread thread(0, 300);
    for (unsigned i = 0; i < 258; i++) {
        Item header = header_of(static_cast<uint8_t>(i));
        header.header.pid[1] = static_cast<uint8_t>(i >> 8);
        thread.header(header);
        thread.record(plain(), 0x4000);
    }
    thread.header(header_of(3)); // known already
    thread.record(plain(), 0x4000);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.processes.size(), 256u);
    EXPECT_EQ(data.unlisted_processes, 2u);
    EXPECT_EQ(data.processes.at({1, 3})[258 / 2], 1u);
    EXPECT_EQ(data.gap_count, 258u) << "each header but the first resumes tracing";
    EXPECT_EQ(data.gaps.size(), 100u);
    EXPECT_EQ(data.gaps[0].record, 1u);
    EXPECT_EQ(data.gaps[99].record, 100u);
    EXPECT_EQ(data.gaps[0].text, "tracing was paused and resumed");
}

TEST(report_thread, partition_headers_are_no_gaps)
{
    Fed_Thread thread(0, 3);
    thread.header(GOOD[PARTITION]);
    thread.header(header_of(7));
    thread.header(GOOD[PARTITION]);
    thread.record(plain(), 0x4000);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.gap_count, 0u);
    EXPECT_EQ(data.processes.at({2, 8})[0], 1u);
}

TEST(report_thread, a_full_header_resumes_tracing_also_after_another_process)
{
    Fed_Thread thread(0, 3);
    thread.header(header_of(7));
    thread.header(GOOD[PARTITION]);
    thread.record(plain(), 0x4000);
    thread.header(header_of(7));
    thread.record(plain(), 0x4000);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.gap_count, 1u);
    ASSERT_EQ(data.gaps.size(), 1u);
    EXPECT_EQ(data.gaps[0].record, 1u);
}

TEST(report_thread, losses_with_a_text_are_gaps_and_tell_the_process_when_it_is_known)
{
    Fed_Thread thread(0, 240);
    const QTRACE_FILE_HDR after = GOOD[PARTITION].header;
    thread.header(header_of(7));
    thread.record(plain(), 0x4000);
    thread.loss(5, "lost", nullptr);
    thread.go_to(5);
    thread.record(plain(), 0x4000);
    thread.loss(9, "", &after);
    thread.go_to(9);
    thread.record(plain(), 0x4000);
    thread.loss(20, "lost again", &after);
    const Thread_Data &data = thread.finished();
    ASSERT_EQ(data.gaps.size(), 2u);
    EXPECT_EQ(data.gaps[0].record, 5u);
    EXPECT_EQ(data.gaps[0].text, "lost");
    EXPECT_EQ(data.gaps[1].record, 20u);
    EXPECT_EQ(data.gaps[1].text, "lost again");
    EXPECT_EQ(data.processes.at({1, 7})[5], 1u);
    EXPECT_EQ(data.processes.at({2, 8})[9], 1u);
}

TEST(report_thread, a_part_that_begins_in_a_header_has_its_process)
{
    const QTRACE_FILE_HDR context = GOOD[PARTITION].header;
    Report_Part part(SIZES);
    part.start(&context);
    QTRACE_Item read{};
    read.record = plain().record;
    part.record(read);
    Thread_Data data("thread", SIZES, 0, 1);
    data.add(part);
    EXPECT_EQ(data.gap_count, 0u);
    EXPECT_EQ(data.processes.at({2, 8})[0], 1u);
    EXPECT_EQ(data.counts.partitions.at({2, 8}), 1u);
}

// ---- Branches, and what is bounded ---------------------------------------------------------------------

TEST(report_thread, counts_how_often_conditional_branches_are_taken)
{
    Fed_Thread thread(0, 5);
    thread.record(GOOD[UNTAKEN_BRANCH], 0x2004);
    thread.record(GOOD[UNTAKEN_BRANCH], 0x2004);
    Item back = GOOD[TAKEN_BRANCH];
    thread.record(back, 0x1008);
    thread.record(GOOD[CALL], 0x2008);
    thread.record(plain(), 0x200c);
    const Thread_Data &data = thread.finished();
    ASSERT_EQ(data.branches.size(), 2u);
    EXPECT_EQ(data.branches.at(0x2004).times, 2u);
    EXPECT_EQ(data.branches.at(0x2004).taken, 0u);
    EXPECT_EQ(data.branches.at(0x1008).times, 1u);
    EXPECT_EQ(data.branches.at(0x1008).taken, 1u);
    EXPECT_EQ(data.unlisted_branches, 0u);
}

TEST(report_thread, counts_each_time_that_a_branch_is_taken)
{
    Fed_Thread thread(0, 3);
    for (int i = 0; i < 3; i++)
        thread.record(GOOD[TAKEN_BRANCH], 0x1008);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.branches.at(0x1008).times, 3u);
    EXPECT_EQ(data.branches.at(0x1008).taken, 3u);
}

TEST(report_thread, lists_32768_branches_and_the_first_records_of_65536_ranges_of_data)
{
    Fed_Thread thread(0, 65540);
    Item branch = GOOD[UNTAKEN_BRANCH];
    branch.record.header.control.fld.data_address_present = 1;
    for (uint64_t i = 0; i < 65537; i++)
        thread.access(i << 16, i << 2, branch);
    thread.access(0, 0, branch); // both known already
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.branches.size(), 32768u);
    EXPECT_EQ(data.branches.at(0).times, 2u);
    EXPECT_EQ(data.unlisted_branches, 65537u - 32768);
    EXPECT_EQ(data.first_record.size(), 65536u);
    EXPECT_EQ(data.first_record.at(0), 0u);
    EXPECT_EQ(data.first_record.at(uint64_t{65535} << 16), 65535u);
}

TEST(report_thread, models_stop_after_20000_pages_and_instructions)
{
    Fed_Thread thread(0, 10010);
    thread.header(header_of(7));
    for (uint64_t i = 0; i < 10010; i++) // each from a page of 64K of its own
        thread.access(i << 16, 0x4000 + 4 * i);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.modelled(), 10001u) << "the first one with more";
    EXPECT_EQ(data.figures(0).walks(), 10001u);
    EXPECT_EQ(data.figures(3).instructions, 10001u);
    EXPECT_EQ(data.counts.instructions, 10010u);
}

TEST(report_thread, models_stop_after_20000_pages_of_4K)
{
    Fed_Thread thread(0, 20010);
    thread.header(header_of(7));
    for (uint64_t i = 0; i < 20010; i++) // 16 of them in each page of 64K
        thread.access(i << 12, 0x4000);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.modelled(), 20001u);
    EXPECT_EQ(data.figures(1).walks(), 20001u);
}

TEST(report_thread, models_have_the_pages_of_the_trace_and_those_of_4K_64K_and_2M)
{
    Fed_Thread thread(0, 100);
    thread.header(header_of(7));
    for (uint64_t i = 0; i < 64; i++) // 4 pages of 64K in one of 2M
        thread.access(i << 12, 0x4000);
    const Thread_Data &data = thread.finished();
    EXPECT_EQ(data.figures(0).walks(), 4u);
    EXPECT_EQ(data.figures(1).walks(), 64u);
    EXPECT_EQ(data.figures(2).walks(), 4u);
    EXPECT_EQ(data.figures(3).walks(), 1u);
}
