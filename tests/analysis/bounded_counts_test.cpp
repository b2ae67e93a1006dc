// Counts of many keys in bounded memory, with limits small enough to be exceeded at once.
#include "counted_numbers.h"
#include "trace_counts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <map>
#include <numeric>

using namespace qtrace_tool;

// ---- The table -----------------------------------------------------------------------------------------

TEST(flat_table, numbers_keys_in_the_order_in_which_they_came)
{
    Flat_Table<uint64_t, uint64_t, Number_Hash> table;
    for (uint64_t key = 0; key < 5000; key++)
        EXPECT_EQ(table.number(key * 7), key);
    for (uint64_t key = 0; key < 5000; key++) {
        EXPECT_EQ(table.number(key * 7), key);
        EXPECT_EQ(table.key(static_cast<uint32_t>(key)), key * 7);
    }
    EXPECT_EQ(table.size(), 5000u);
}

TEST(flat_table, keeps_entries_in_order_and_takes_more_afterwards)
{
    for (const uint64_t keep : {3, 1, 1023, 1024, 1025, 2048, 2500, 0}) {
        Flat_Table<uint64_t, uint64_t, Number_Hash> table;
        for (uint64_t key = 0; key < 5000; key++)
            table[key] = key + 1;
        size_t asked = 0;
        table.keep_if([&](uint64_t key, uint32_t number) {
            asked++;
            return key == number && key % 2 == 1 && key / 2 < keep;
        });
        EXPECT_EQ(asked, 5000u);
        ASSERT_EQ(table.size(), keep);
        for (uint64_t key = 10000; key < 13000; key++)
            EXPECT_EQ(table.number(key), keep + key - 10000);
        for (uint32_t i = 0; i < keep; i++) {
            EXPECT_EQ(table.key(i), 2 * i + 1);
            EXPECT_EQ(table.value(i), 2 * i + 2);
            EXPECT_EQ(table.number(2 * i + 1), i);
        }
        EXPECT_EQ(std::accumulate(table.begin(), table.end(), uint64_t{0},
                                  [](uint64_t sum, const auto &entry) { return sum + entry.second; }),
                  keep * (keep + 1));
    }
}

TEST(flat_table, tells_keys_of_one_hash_apart)
{
    struct One_Hash {
        size_t operator()(uint64_t) const { return 63; }
    };
    Flat_Table<uint64_t, uint64_t, One_Hash> table;
    for (uint64_t key = 0; key < 100; key++)
        EXPECT_EQ(table.number(key + 5), key);
    for (uint64_t key = 0; key < 100; key++)
        EXPECT_EQ(table.number(key + 5), key);
}

TEST(flat_table, iterators_go_from_entry_to_entry)
{
    Flat_Table<uint64_t, uint64_t, Number_Hash> table;
    table[7] = 70, table[3] = 30;
    auto entry = table.begin();
    EXPECT_EQ((entry++)->first, 7u);
    EXPECT_EQ(*entry, (std::pair<uint64_t, uint64_t>{3, 30}));
    EXPECT_EQ(++entry, table.end());
}

TEST(mixed_hash, is_never_0)
{
    EXPECT_NE(mixed(0, 0), 0u);
}

// ---- The heaviest keys ---------------------------------------------------------------------------------

TEST(heavy_keys, are_exact_up_to_their_limit)
{
    Heavy heavy(4);
    for (const uint64_t key : {1, 2, 3, 4, 1, 2, 1})
        heavy[key]++;
    EXPECT_EQ(values_of(heavy.table()), (Values{{1, 3}, {2, 2}, {3, 1}, {4, 1}}));
    EXPECT_EQ(heavy.shortfall(), 0u);
}

TEST(heavy_keys, forget_the_lighter_half_for_the_next_key)
{
    Heavy heavy(4);
    heavy[1] = 2;
    heavy[2] = 10;
    heavy[3] = 1;
    heavy[4] = 9;
    heavy[5]++;
    EXPECT_EQ(values_of(heavy.table()), (Values{{2, 10}, {4, 9}, {5, 1}}));
    EXPECT_EQ(heavy.shortfall(), 2u);
    heavy[6]++;
    heavy[7]++;
    EXPECT_EQ(values_of(heavy.table()), (Values{{2, 10}, {4, 9}, {7, 1}}));
    EXPECT_EQ(heavy.shortfall(), 3u);
}

TEST(heavy_keys, forget_half_of_those_of_one_weight)
{
    Heavy heavy(6);
    for (const uint64_t key : {1, 2, 3, 4, 5, 6})
        heavy[key] = key == 6 ? 9 : 5;
    heavy[7] = 1;
    EXPECT_EQ(values_of(heavy.table()), (Values{{1, 5}, {2, 5}, {6, 9}, {7, 1}}));
    EXPECT_EQ(heavy.shortfall(), 5u);
}

TEST(heavy_keys, add_up_with_their_shortfalls)
{
    Heavy one(2), other(2);
    for (const uint64_t key : {1, 1, 2, 3, 1})
        one[key]++; // forgets 2
    for (const uint64_t key : {3, 3, 4, 4, 4, 5})
        other[key]++; // forgets 3
    one.add(other);
    EXPECT_GE(one.table().size(), 1u);
    EXPECT_EQ(one.shortfall(), 1u + 2 + 1 + 3); // forgets 3, for 4; then 4, for 5
    EXPECT_EQ(values_of(one.table()), (Values{{1, 3}, {5, 1}}));
}

// ---- The sample ----------------------------------------------------------------------------------------

TEST(bounded_counts, are_exact_up_to_their_limit)
{
    Counts counts = counts_of(0, 1000, 1000);
    counts.add(7, 100);
    EXPECT_FALSE(counts.is_estimate());
    EXPECT_EQ(counts.sample().size(), 1000u);
    EXPECT_EQ(values_of(counts.heaviest())[7], 107u);
    EXPECT_EQ(counts.shortfall(), 0u);
    counts.add(1000, 1);
    EXPECT_TRUE(counts.is_estimate());
    EXPECT_EQ(counts.shift(), 1u);
    EXPECT_LT(counts.sample().size(), 600u);
}

TEST(bounded_counts, are_exact_up_to_a_million_keys_with_the_heaviest_of_16384_beyond)
{
    EXPECT_EQ(Counts::MOST, 1048576u);
    EXPECT_EQ(Counts::MOST_HEAVY, 16384u);
}

// As many as are kept with one limit are kept with a limit of just so many.
TEST(bounded_counts, sample_one_key_in_the_least_power_of_two_that_fits)
{
    for (const size_t most : {10, 100, 150, 200}) {
        const Counts counts = counts_of(0, 3000, most);
        const Counts as_many = counts_of(0, 3000, counts.sample().size());
        EXPECT_EQ(as_many.shift(), counts.shift());
        EXPECT_EQ(values_of(as_many.sample()), values_of(counts.sample()));
    }
}

TEST(bounded_counts, values_in_the_sample_are_exact)
{
    Counts counts(100);
    for (int round = 0; round < 3; round++)
        for (uint64_t key = 0; key < 5000; key++)
            counts.add(key, key);
    ASSERT_GT(counts.sample().size(), 0u);
    for (const auto &[key, value] : counts.sample()) {
        EXPECT_EQ(value, 3 * key);
        EXPECT_TRUE(counts.is_sampled(key));
    }
}

TEST(bounded_counts, an_exact_count_takes_the_sample_of_an_estimate)
{
    const Counts many = counts_of(0, 9000, 100);
    Counts few = counts_of(0, 50, 100);
    few.add(many);
    EXPECT_EQ(few.shift(), many.shift());
    for (const auto &[key, value] : few.sample())
        EXPECT_EQ(value, key < 50 ? 2 * key : key);
    EXPECT_EQ(few.sample().size(), many.sample().size());
}

// Whether its hash is in the sample or not, before and after the sample is taken.
TEST(bounded_counts, know_the_heaviest_keys_beside_the_sample)
{
    for (const bool early : {true, false}) {
        Counts counts(200);
        for (uint64_t key = 0; key < 6000; key++) {
            counts.add(100000 + key, 1);
            if ((key < 100) == early)
                for (uint64_t heavy = 1; heavy <= 10; heavy++)
                    counts.add(heavy, 1000 * heavy);
        }
        const uint64_t times = early ? 100 : 5900;
        Values heaviest = values_of(counts.heaviest());
        EXPECT_LE(heaviest.size(), 200u);
        EXPECT_LT(counts.shortfall(), 200u);
        for (uint64_t heavy = 1; heavy <= 10; heavy++)
            EXPECT_EQ(heaviest[heavy], 1000 * heavy * times);
    }
}

TEST(bounded_counts, merged_know_the_heaviest_keys_of_both)
{
    for (const uint64_t first_end : {150, 5000})
        for (const uint64_t second_end : {150, 5000}) {
            Counts counts(200), other(200);
            for (uint64_t key = 0; key < first_end; key++)
                counts.add(10000 + key, 1);
            for (uint64_t key = 0; key < second_end; key++)
                other.add(20000 + key, 1);
            for (uint64_t key = 1; key <= 10; key++) {
                counts.add(key, 1000);
                other.add(key, 500);
            }
            counts.add(other);
            EXPECT_TRUE(counts.is_estimate());
            Values heaviest = values_of(counts.heaviest());
            for (uint64_t key = 1; key <= 10; key++)
                EXPECT_EQ(heaviest[key], 1500u) << first_end << " " << second_end;
        }
}

TEST(bounded_counts, tell_what_stays_in_the_sample_by_number)
{
    Counts counts(100);
    std::vector<uint64_t> beside; // as a caller keeps something for each number
    for (uint64_t key = 0; key < 3000; key++) {
        if (!counts.is_sampled(key))
            continue;
        const uint32_t number = counts.number(key);
        ASSERT_EQ(number, beside.size());
        beside.push_back(key * 3);
        counts.add_to(number, key);
        if (!counts.is_full())
            continue;
        std::vector<uint64_t> kept;
        counts.thin([&](uint32_t stays) { kept.push_back(beside[stays]); });
        beside = kept;
    }
    ASSERT_EQ(counts.sample().size(), beside.size());
    ASSERT_GE(counts.shift(), 4u);
    for (uint32_t i = 0; i < beside.size(); i++)
        EXPECT_EQ(beside[i], counts.sample().key(i) * 3);
    EXPECT_EQ(values_of(counts.sample()), values_of(counts_of(0, 3000, 100).sample()));
    uint64_t sum = 0;
    for (const auto &[key, value] : counts.heaviest())
        sum += value;
    EXPECT_GT(sum, 0u);
}

// ---- Sums ----------------------------------------------------------------------------------------------

namespace
{

using Numbers = std::array<uint64_t, sizeof(Trace_Sums) / sizeof(uint64_t)>;

} // namespace

TEST(trace_sums, begin_at_0)
{
    EXPECT_EQ(std::bit_cast<Numbers>(Trace_Sums()), Numbers{});
}

TEST(trace_sums, are_added_up_number_by_number)
{
    Numbers one, other;
    std::iota(one.begin(), one.end(), 1u);
    std::iota(other.begin(), other.end(), 1000u);
    auto sums = std::bit_cast<Trace_Sums>(one);
    sums.add(std::bit_cast<Trace_Sums>(other));
    const auto added = std::bit_cast<Numbers>(sums);
    for (size_t i = 0; i < added.size(); i++)
        EXPECT_EQ(added[i], 1001 + 2 * i) << i;
}

TEST(page_sizes, are_those_of_the_simulator_unless_told_otherwise)
{
    const Page_Sizes sizes;
    const char *const names[] = {"4K", "64K", "2M", "1G", "16M", "code 5"};
    const unsigned bits[] = {12, 16, 21, 30, 24, 12};
    for (uint8_t code = 0; code < std::size(names); code++) {
        EXPECT_EQ(sizes.name(code), names[code]);
        EXPECT_EQ(sizes.bits(code), bits[code]);
        EXPECT_EQ(sizes.knows(code), code < 5);
    }
}

// ---- The pages of a trace ------------------------------------------------------------------------------

namespace
{

QTRACE_Item plain_item()
{
    QTRACE_Item item{};
    auto &flags = item.record.header.control.fld;
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = flags.guest_xlate_mode_data = 3;
    return item;
}

// Goes on at a host page of 4 KiB.
QTRACE_Item entering(uint32_t page)
{
    QTRACE_Item item = plain_item();
    auto &flags = item.record.header.control.fld;
    flags.next_instruction_EA_present = 1;
    flags.next_instruction_RPN_present = flags.next_instruction_page_size_present = 1;
    std::memcpy(item.record.next_instruction_rpn, &page, sizeof(page));
    return item;
}

QTRACE_Item accessing(uint32_t page)
{
    QTRACE_Item item = plain_item();
    auto &flags = item.record.header.control.fld;
    flags.data_address_present = 1;
    flags.data_RPN_present = flags.data_page_size_present = 1;
    std::memcpy(item.record.data_rpn, &page, sizeof(page));
    return item;
}

using Hottest = std::vector<std::pair<Page, uint64_t>>;

} // namespace

TEST(touched_pages, are_those_that_instructions_run_on_and_that_are_accessed)
{
    Trace_Counts counts(Page_Sizes{}, Trace_Counts::Pages::counted, 4);
    counts.loss(nullptr);
    counts.record(entering(1));
    for (int i = 0; i < 3; i++)
        counts.record(accessing(2));
    counts.record(accessing(1));
    counts.record(entering(3)); // where nothing runs
    counts.finish_pages(10);
    EXPECT_FALSE(counts.touched.estimated);
    EXPECT_EQ(counts.touched.fetched.counts, (std::map<uint8_t, uint64_t>{{0, 2}}));
    EXPECT_EQ(counts.touched.data.counts, (std::map<uint8_t, uint64_t>{{0, 2}}));
    EXPECT_EQ(counts.touched.fetched.hottest, (Hottest{{{0x1000, 0, 0}, 5}, {{0x3000, 0, 0}, 0}}));
    EXPECT_EQ(counts.touched.data.hottest, (Hottest{{{0x2000, 0, 0}, 3}, {{0x1000, 0, 0}, 1}}));
}

TEST(touched_pages, of_a_trace_without_a_header_are_those_of_partition_0)
{
    Trace_Counts counts{Page_Sizes()};
    EXPECT_FALSE(counts.touched.estimated);
    EXPECT_EQ(counts.touched.shortfall, 0u);
    QTRACE_Item nested = accessing(2);
    nested.record.header.control.fld.guest_xlate_mode_data = 0;
    nested.record.header.control.fld.host_xlate_mode_data = 0;
    counts.record(nested);
    counts.finish_pages(10);
    EXPECT_EQ(counts.unnamed_fetches, 1u);
    EXPECT_EQ(counts.fetch_cases[UNKNOWN_CASE], 1u);
    EXPECT_TRUE(counts.touched.fetched.counts.empty());
    EXPECT_EQ(counts.touched.data.hottest, (Hottest{{{0x2000, 1, 0}, 1}}));
}

// 8 instructions on a page of 4 KiB that a branch named, then as many on the next one; in parts of which the second
// and third do not know where they run.
TEST(touched_pages, of_fetches_end_where_the_named_page_ends)
{
    QTRACE_Item branch = entering(2), plain = plain_item();
    const uint64_t first = 0x2fe0;
    std::memcpy(branch.record.next_instruction_ea, &first, sizeof(first));
    for (const size_t parts : {1, 2, 3}) {
        std::vector<Trace_Counts> counts(parts, Trace_Counts{Page_Sizes()});
        counts[0].loss(nullptr);
        counts[0].record(branch);
        for (size_t part = 1; part < parts; part++)
            counts[part].begin(nullptr);
        for (uint64_t i = 0; i < 16; i++) {
            plain.address = first + 4 * i;
            counts[i < 3 ? 0 : std::min<size_t>(i / 6 + 1, parts - 1)].record(plain);
        }
        for (size_t part = parts - 1; part > 0; part--)
            counts[part - 1].append(counts[part]);
        counts[0].finish_pages(10);
        EXPECT_EQ(counts[0].unnamed_fetches, 9u) << parts; // the branch, and those on the next page
        EXPECT_EQ(counts[0].touched.fetched.hottest, (Hottest{{{0x2000, 0, 0}, 8}})) << parts;
    }
}

TEST(touched_pages, beyond_the_limit_are_an_estimate_that_says_so)
{
    Trace_Counts counts(Page_Sizes{}, Trace_Counts::Pages::counted, 500);
    counts.loss(nullptr);
    for (uint32_t page = 1; page <= 5000; page++) {
        counts.record(accessing(page));
        counts.record(accessing(9999));
    }
    counts.finish_pages(1);
    EXPECT_TRUE(counts.touched.estimated);
    EXPECT_NEAR(static_cast<double>(counts.touched.data.counts[0]), 5001, 700);
    EXPECT_TRUE(counts.touched.fetched.counts.empty());
    EXPECT_EQ(counts.touched.data.hottest, (Hottest{{{0x270f000, 0, 0}, 5000}}));
    EXPECT_GT(counts.touched.shortfall, 0u);
    EXPECT_LT(counts.touched.shortfall, 100u);
}

TEST(touched_pages, of_a_size_that_the_sample_misses_are_one_at_least)
{
    Trace_Counts counts(Page_Sizes{}, Trace_Counts::Pages::counted, 8);
    counts.loss(nullptr);
    for (uint8_t code = 1; code <= 5; code++) {
        QTRACE_Item item = accessing(1);
        item.record.data_page_size = code;
        counts.record(item);
    }
    for (uint32_t page = 1; page <= 4000; page++)
        counts.record(accessing(page));
    Trace_Counts total(Page_Sizes{}, Trace_Counts::Pages::counted, 8);
    total.add(counts);
    total.finish_pages(1);
    EXPECT_EQ(total.touched.data.counts.size(), 6u);
    for (uint8_t code = 1; code <= 5; code++)
        EXPECT_GE(total.touched.data.counts[code], 1u);
}

TEST(touched_pages, of_several_traces_have_the_sizes_of_each_one)
{
    Trace_Counts total(Page_Sizes{}, Trace_Counts::Pages::counted, 8);
    for (uint8_t code = 0; code < 5; code++) {
        Trace_Counts counts(Page_Sizes{}, Trace_Counts::Pages::counted, 8);
        counts.loss(nullptr);
        for (uint32_t page = 1; page <= (code == 4 ? 4000 : 1); page++) {
            QTRACE_Item access = accessing(page << 12), entry = entering(page << 12);
            access.record.data_page_size = code;
            entry.record.next_instruction_page_size = code;
            counts.record(access);
            counts.record(entry);
        }
        total.add(counts);
    }
    total.finish_pages(1);
    EXPECT_TRUE(total.touched.estimated);
    for (const Side_Pages *side : {&total.touched.fetched, &total.touched.data})
        for (uint8_t code = 0; code < 4; code++)
            EXPECT_EQ(side->counts.at(code), 1u) << int{code};
}

TEST(touched_pages, are_not_kept_where_they_are_left_out)
{
    Trace_Counts counts(Page_Sizes{}, Trace_Counts::Pages::left_out);
    counts.loss(nullptr);
    counts.record(entering(1));
    counts.record(accessing(2));
    counts.finish_pages(10);
    EXPECT_EQ(counts.unnamed_fetches, 1u); // the first
    EXPECT_TRUE(counts.touched.data.counts.empty());
    EXPECT_TRUE(counts.touched.fetched.hottest.empty());
}

// Parts that are added in their order, as threads read them.
TEST(touched_pages, do_not_depend_on_the_parts_in_which_a_trace_is_read)
{
    const auto item = [](uint32_t i) { return i % 3 == 0 ? entering(i * 7 % 400) : accessing(i * 11 % 900); };
    std::vector<Touched_Pages> found;
    for (const uint32_t part : {6000, 1000, 7}) {
        Trace_Counts whole(Page_Sizes{}, Trace_Counts::Pages::counted, 100);
        for (uint32_t first = 0; first < 6000; first += part) {
            Trace_Counts counts(Page_Sizes{}, Trace_Counts::Pages::counted, 100);
            first == 0 ? counts.loss(nullptr) : counts.begin(nullptr);
            for (uint32_t i = first; i < std::min(first + part, 6000u); i++)
                counts.record(item(i));
            whole.append(counts);
        }
        whole.finish_pages(5);
        found.push_back(whole.touched);
        EXPECT_TRUE(whole.touched.estimated);
        EXPECT_EQ(whole.touched.data.counts, found[0].data.counts);
        EXPECT_EQ(whole.touched.fetched.counts, found[0].fetched.counts);
    }
}

// ---- The most frequent keys ----------------------------------------------------------------------------

// One key is met 20 times, three 10 times, one fewer than there is room for twice, and the others once.
TEST(frequent_keys, of_two_parts_together_give_up_what_the_first_one_without_room_has)
{
    constexpr uint64_t CAPACITY = Frequent_Keys::CAPACITY;
    Frequent_Keys counts, more;
    for (uint64_t key = 0; key < CAPACITY; key++) {
        counts.add(key, key < 3 ? 10 : 1);
        more.add(CAPACITY + key, key == 0 ? 20 : 2);
    }
    counts.add(more);
    EXPECT_EQ(counts.shortfall(), 2u);
    std::vector<std::pair<uint64_t, uint64_t>> top = counts.top(10);
    std::ranges::sort(top);
    EXPECT_EQ(top, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 8}, {1, 8}, {2, 8}, {CAPACITY, 18}}));
}

TEST(frequent_keys, are_exact_up_to_8192)
{
    EXPECT_EQ(Frequent_Keys::CAPACITY, 8192u);
}

TEST(frequent_keys, of_two_parts_add_up_with_their_shortfalls)
{
    Frequent_Keys counts, more;
    for (uint64_t key = 0; key < Frequent_Keys::CAPACITY; key++) {
        counts.add(key, 2);
        more.add(key, 3);
    }
    counts.add(10'000, 7); // for which the others give up 2
    more.add(20'000, 5);   // for which the others give up 3
    more.add(10'000, 4);
    counts.add(more);
    EXPECT_EQ(counts.shortfall(), 5u);
    EXPECT_EQ(counts.top(10), (std::vector<std::pair<uint64_t, uint64_t>>{{10'000, 11}, {20'000, 5}}));
}

// All lose the smallest count, 2: those that had no more make room.
TEST(frequent_keys, give_up_what_the_smallest_has_for_a_new_one)
{
    Frequent_Keys counts;
    for (uint64_t key = 0; key < Frequent_Keys::CAPACITY; key++)
        counts.add(key, key < 3 ? 10 + key : 2);
    EXPECT_EQ(counts.shortfall(), 0u);
    counts.add(99'999);
    EXPECT_EQ(counts.shortfall(), 2u);
    EXPECT_EQ(counts.top(10), (std::vector<std::pair<uint64_t, uint64_t>>{{2, 10}, {1, 9}, {0, 8}, {99'999, 1}}));
}

TEST(frequent_keys, that_have_room_together_give_up_nothing)
{
    Frequent_Keys counts, more;
    for (uint64_t key = 0; key < Frequent_Keys::CAPACITY / 2; key++) {
        counts.add(key);
        more.add(Frequent_Keys::CAPACITY + key, 2);
    }
    counts.add(more);
    EXPECT_EQ(counts.shortfall(), 0u);
    EXPECT_EQ(counts.top(Frequent_Keys::CAPACITY + 1).size(), Frequent_Keys::CAPACITY);
    counts.add(0, 4);
    EXPECT_EQ(counts.top(1), (std::vector<std::pair<uint64_t, uint64_t>>{{0, 5}}));
}
