// Groups of blocks that are read by several threads and merged in order, in parts. Also built with ThreadSanitizer.
#include "item_scan.h"
#include "jobs_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <stdexcept>
#include <unistd.h>

using namespace jobs_commands;
using namespace qtrace_tool;

namespace
{

constexpr size_t RECORDS = 9000, PART = 300;
constexpr unsigned BLOCKS = 3; // of a group

using Numbers = std::vector<uint64_t>; // of records

// Opens when it is said to; whoever waits before sees whether that happened.
class Gate
{
public:
    void open() { opening_.set_value(); }
    bool wait() { return opened_.wait_for(std::chrono::seconds(60)) == std::future_status::ready; }

private:
    std::promise<void> opening_;
    std::shared_future<void> opened_ = opening_.get_future().share();
};

// What the sinks of a scan have in common.
struct Scan_Plan {
    uint64_t waits_at, opens_at; // records at which a group waits, and another opens the gate
    bool can_go_on = true;
    Gate gate{};
    bool waited = true;
    std::atomic<size_t> most_complete = 0; // parts that a sink held
};

// The numbers of a group's records, in parts of PART.
class Number_Sink : public Item_Sink
{
public:
    explicit Number_Sink(Scan_Plan &plan) : plan_(plan) {}
    void begin(const Group_Start &) override {}
    void header(const QTRACE_Item &) override {}
    void loss(const QTRACE_Item &, const std::string &) override {}
    void record(const QTRACE_Item &item) override
    {
        if (item.record_number == plan_.waits_at)
            plan_.waited = plan_.gate.wait();
        if (item.record_number == plan_.opens_at)
            plan_.gate.open();
        parts_.back().push_back(item.record_number);
        if (parts_.back().size() < PART)
            return;
        plan_.most_complete = std::max(plan_.most_complete.load(), parts_.size());
        parts_.emplace_back();
        set_full(true, plan_.can_go_on);
    }
    Numbers take_part()
    {
        Numbers part = std::move(parts_.front());
        parts_.pop_front();
        if (parts_.empty())
            parts_.emplace_back();
        return part;
    }

private:
    Scan_Plan &plan_;
    std::deque<Numbers> parts_ = std::deque<Numbers>(1);
};

struct Item_Scan : testing::Test {
    std::string trace(const std::string &bytes = {})
    {
        const std::string whole = folder_.write("trace0", mixed_trace(RECORDS, 8));
        return bytes.empty() ? whole : folder_.text("spoilt0", bytes);
    }
    std::unique_ptr<Trace_File> open(const std::string &name) { return Trace_File::open(run_, name); }
    // Calls `merge` with each part.
    template <class Merge> bool scan_parts(Trace_File &file, unsigned jobs, Scan_Plan &plan, Merge merge)
    {
        Scan_Options options;
        options.jobs = jobs;
        options.steps = BLOCKS; // of a block each
        return scan<Number_Sink>(
            run_, file, options, [&] { return std::make_unique<Number_Sink>(plan); },
            [&](Number_Sink &sink) { return merge(sink.take_part()); });
    }
    bool has_messages() const { return lseek(fileno(err_.get()), 0, SEEK_END) > 0; }

    Folder folder_;
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> err_{std::tmpfile(), &std::fclose};
    Tool_Run run_{-1, fileno(err_.get())};
};

std::vector<QTRACE_Block> blocks_of(const Trace_File &file)
{
    std::vector<QTRACE_Block> blocks;
    file.each_block([&](const QTRACE_Block &block) {
        blocks.push_back(block);
        return true;
    });
    return blocks;
}

// Parts of PART records and the rest, for each group that has so many.
std::vector<Numbers> expected_parts(const Trace_File &file)
{
    std::vector<Numbers> parts;
    const std::vector<QTRACE_Block> blocks = blocks_of(file);
    for (size_t first = 0; first < blocks.size(); first += BLOCKS) {
        const size_t next = first + BLOCKS;
        const uint64_t end = next < blocks.size() ? blocks[next].first_record : file.next_record_number();
        parts.emplace_back();
        for (uint64_t record = blocks[first].first_record; record < end; record++) {
            parts.back().push_back(record);
            if (parts.back().size() == PART)
                parts.emplace_back();
        }
    }
    return parts;
}

} // namespace

// The first group is not done before the last record of the second one was read.
TEST_F(Item_Scan, merges_the_same_parts_in_order_with_any_number_of_threads)
{
    const auto file = open(trace());
    ASSERT_GT(blocks_of(*file).size(), 2 * BLOCKS);
    const uint64_t last_of_second = blocks_of(*file)[2 * BLOCKS].first_record - 1;
    for (const unsigned jobs : {1, 2, 3}) {
        Scan_Plan plan{jobs == 1 ? RECORDS * 2 : PART / 2, last_of_second};
        std::vector<Numbers> parts;
        EXPECT_TRUE(scan_parts(*file, jobs, plan, [&](Numbers part) {
            parts.push_back(std::move(part));
            return true;
        }));
        EXPECT_TRUE(plan.waited);
        EXPECT_EQ(plan.most_complete > 1, jobs > 1);
        EXPECT_EQ(parts, expected_parts(*file)) << jobs;
    }
}

// A sink that must not grow waits at its first part until the group before it is merged.
TEST_F(Item_Scan, lets_a_sink_wait_that_cannot_go_on)
{
    const auto file = open(trace());
    const uint64_t first_of_second = blocks_of(*file)[BLOCKS].first_record;
    Scan_Plan plan{PART / 2, first_of_second + PART - 1, false};
    std::vector<Numbers> parts;
    EXPECT_TRUE(scan_parts(*file, 2, plan, [&](Numbers part) {
        parts.push_back(std::move(part));
        return true;
    }));
    EXPECT_TRUE(plan.waited);
    EXPECT_EQ(plan.most_complete, 1);
    EXPECT_EQ(parts, expected_parts(*file));
}

// The second of three blocks of a group is damaged, and the group is read before the one before it is merged.
TEST_F(Item_Scan, tells_damage_with_the_part_that_it_is_in)
{
    const auto whole = open(trace());
    const auto blocks = blocks_of(*whole);
    ASSERT_GT(blocks.size(), 2 * BLOCKS);
    const uint64_t lost = blocks[BLOCKS + 1].first_record, resumed = blocks[BLOCKS + 2].first_record;
    ASSERT_GT(lost - blocks[BLOCKS].first_record, PART);
    std::string bytes = folder_.contents("trace0");
    bytes[(blocks[BLOCKS + 1].offset + blocks[BLOCKS + 2].offset) / 2] ^= 0x55;
    const auto file = open(trace(bytes));
    for (const unsigned jobs : {1, 2}) {
        ASSERT_EQ(ftruncate(fileno(err_.get()), 0), 0);
        Scan_Plan plan{jobs == 1 ? RECORDS * 2 : PART / 2, resumed + PART};
        bool told_early = false, told_late = false;
        EXPECT_TRUE(scan_parts(*file, jobs, plan, [&](const Numbers &part) {
            const bool after = !part.empty() && part.back() >= resumed;
            told_early |= !after && has_messages() && !part.empty() && part.front() <= lost - PART;
            told_late |= after && !has_messages();
            return true;
        }));
        EXPECT_TRUE(plan.waited);
        EXPECT_TRUE(has_messages());
        EXPECT_FALSE(told_early) << jobs;
        EXPECT_FALSE(told_late) << jobs;
    }
}

TEST_F(Item_Scan, ends_with_the_exception_of_a_merge_or_when_no_more_is_wanted)
{
    const auto file = open(trace());
    for (const unsigned jobs : {1, 2, 3}) {
        for (const size_t most : {1, 2, 7, 11}) {
            Scan_Plan plan{RECORDS * 2, RECORDS * 2};
            size_t merged = 0;
            EXPECT_TRUE(scan_parts(*file, jobs, plan, [&](const Numbers &) { return ++merged < most; }));
            EXPECT_EQ(merged, most) << jobs;
            EXPECT_THROW(scan_parts(*file, jobs, plan,
                                    [&](const Numbers &) -> bool {
                                        return --merged > 0 || (throw std::runtime_error("full"), false);
                                    }),
                         std::runtime_error);
            EXPECT_EQ(merged, 0) << jobs;
        }
    }
}
