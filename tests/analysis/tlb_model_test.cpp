// The TLB model on accesses small enough to count by hand, and the command's options.
#include "planted_trace.h"
#include "tlb_feed.h"
#include "tlb_model.h"

#include <array>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

using namespace qtrace_tool;
using nlohmann::json;

namespace
{

Translation host_page(uint64_t number, uint64_t real = 0)
{
    Translation translation;
    translation.page = {number << 12, 1, 0, Xlate_Kind::host, 12};
    translation.real = real;
    translation.walk.steps = 1;
    const uint64_t walk[] = {0x100, 0x200, 0x300, 0x1000 + number * 8};
    std::ranges::copy(walk, translation.walk.host[0]);
    return translation;
}

// A walk of four guest levels over host walks of four: 24 entries. Host directories and the guest's root differ by step.
Translation nested_page(uint64_t number)
{
    Translation translation = host_page(number);
    translation.page.kind = Xlate_Kind::nested;
    translation.page.lpid = 1;
    translation.walk.steps = 5;
    for (uint64_t step = 0; step < 5; step++) {
        const uint64_t walk[] = {0x100, 0x200, 0x300, 0x10000 + step * 8};
        std::ranges::copy(walk, translation.walk.host[step]);
        translation.walk.guest_real[step] = step < 4 ? 0x40000 + step * 0x1000 : number << 12;
        if (step < 4)
            translation.walk.guest_entry[step] = 0x80000 + step * 0x1000;
    }
    translation.walk.host[4][3] = 0x20000 + number * 8;
    translation.walk.guest_entry[3] += number * 8;
    return translation;
}

Tlb_Options sized(std::vector<Tlb_Size> levels)
{
    Tlb_Options options;
    options.levels = std::move(levels);
    options.walk_cache = options.nested_cache = 0;
    return options;
}

struct Accesses {
    explicit Accesses(const Tlb_Options &options) : model(options) {}
    Accesses &data(uint64_t number, uint64_t real = 0)
    {
        model.instruction(0x1000);
        model.access(Access_Side::data, number << 12, host_page(number, real));
        return *this;
    }
    Accesses &data(std::initializer_list<uint64_t> numbers)
    {
        for (const uint64_t number : numbers)
            data(number);
        return *this;
    }
    Tlb_Model model;
};

} // namespace

TEST(tlb_model, the_least_recently_used_entry_is_replaced)
{
    Accesses accesses(sized({{2, 2}}));
    accesses.data({1, 2, 1, 3, 1, 2}); // 3 replaces 2, 2 replaces 3
    EXPECT_EQ(accesses.model.finish().walks(), 4u);
}

TEST(tlb_model, pages_of_one_set_replace_each_other_only)
{
    Accesses accesses(sized({{4, 1}})); // sets 0 to 3
    accesses.data({0, 4, 0, 1, 1});     // 0 and 4 share a set, 1 is alone
    EXPECT_EQ(accesses.model.finish().walks(), 4u);
    Accesses apart(sized({{4, 1}}));
    apart.data({0, 1, 2, 3, 0, 1, 2, 3});
    EXPECT_EQ(apart.model.finish().walks(), 4u);
}

TEST(tlb_model, a_second_level_answers_what_the_first_has_lost)
{
    Accesses accesses(sized({{1, 1}, {4, 4}}));
    accesses.data({1, 2, 1});
    const Tlb_Figures &figures = accesses.model.finish();
    EXPECT_EQ(figures.levels[0].misses, 3u);
    EXPECT_EQ(figures.levels[1].lookups, 3u);
    EXPECT_EQ(figures.levels[1].misses, 2u);
    EXPECT_EQ(figures.walks(), 2u);
    EXPECT_EQ(figures.levels[0].most_reach, 4096u);
    EXPECT_EQ(figures.levels[1].most_reach, 8192u);
}

TEST(tlb_model, a_split_first_level_keeps_fetches_and_data_apart)
{
    for (const bool split : {false, true}) {
        Tlb_Options options = sized({{1, 1}});
        options.split = split;
        Tlb_Model model(options);
        for (int i = 0; i < 3; i++) {
            model.instruction(0x1000);
            model.access(Access_Side::fetch, 0x1000, host_page(1));
            model.access(Access_Side::data, 0x2000, host_page(2));
        }
        EXPECT_EQ(model.finish().walks(), split ? 2u : 6u);
    }
}

TEST(tlb_model, a_page_that_is_mapped_anew_misses)
{
    Accesses accesses(sized({{4, 4}}));
    accesses.data(1, 0x5000).data(1, 0x5000).data(1, 0x6000).data(1, 0x6000);
    const Tlb_Figures &figures = accesses.model.finish();
    EXPECT_EQ(figures.remapped, 1u);
    EXPECT_EQ(figures.walks(), 2u);
    EXPECT_EQ(figures.distances[0].misses(100), 2u);
}

TEST(tlb_model, the_curve_counts_other_pages_since_the_last_use)
{
    Accesses accesses(sized({{4, 4}}));
    accesses.data({1, 2, 3, 1, 1, 3}); // distances: first, first, first, 2, 0, 1
    const Distance_Counts distances = accesses.model.finish().distances[0];
    EXPECT_EQ(distances.misses(1), 5u);
    EXPECT_EQ(distances.misses(2), 4u);
    EXPECT_EQ(distances.misses(3), 3u);
    EXPECT_EQ(distances.sizes(), (std::vector<uint64_t>{1, 2, 3}));
}

TEST(tlb_model, the_curve_agrees_with_single_sizes_far_beyond_the_recent_pages)
{
    const uint32_t entries[] = {1, 15, 16, 17, 100, 999, 3000};
    std::vector<Accesses> sizes;
    for (const uint32_t size : entries)
        sizes.emplace_back(sized({{size, size}}));
    uint64_t place = 7;
    for (int i = 0; i < 30000; i++) {
        place = place * 6364136223846793005u + 1442695040888963407u;
        const uint64_t number = (place >> 40) % (i % 3 == 0 ? 2000 : 40);
        for (Accesses &accesses : sizes)
            accesses.data(number);
    }
    for (size_t i = 0; i < sizes.size(); i++) {
        const Tlb_Figures &figures = sizes[i].model.finish();
        EXPECT_EQ(figures.distances[0].accesses(), 30000u);
        EXPECT_EQ(figures.walks(), figures.distances[0].misses(entries[i])) << entries[i];
    }
}

TEST(tlb_model, a_switch_flushes_when_asked_to)
{
    for (const bool flush : {false, true}) {
        Tlb_Options options = sized({{4, 4}});
        options.flush_on_switch = flush;
        Accesses accesses(options);
        accesses.model.switch_to({1, 1});
        accesses.data({1, 2});
        accesses.model.switch_to({1, 1}); // none
        accesses.data(1);
        accesses.model.switch_to({2, 1});
        accesses.data(1);
        const Tlb_Figures &figures = accesses.model.finish();
        EXPECT_EQ(figures.walks(), flush ? 3u : 2u);
        EXPECT_EQ(figures.switches, 1u);
        EXPECT_EQ(figures.after_switch.instructions, 1u);
        EXPECT_EQ(figures.after_switch.cost.walks, flush ? 1u : 0u);
        EXPECT_EQ(figures.partitions.at(1).accesses, 3u);
    }
}

TEST(tlb_model, a_nested_walk_reads_24_entries_without_caches)
{
    Tlb_Model model(sized({{4, 4}}));
    model.instruction(0);
    model.access(Access_Side::data, 0x1000, nested_page(1));
    const Walk_Figures &nested = model.finish().kinds[static_cast<size_t>(Xlate_Kind::nested)];
    EXPECT_EQ(nested.entries, 24u);
    EXPECT_EQ(nested.read(), 24u);
    for (size_t level = 0; level < WALK_LEVELS; level++) {
        EXPECT_EQ(nested.reads[static_cast<size_t>(Walk_Stage::guest)][level], 1u);
        EXPECT_EQ(nested.reads[static_cast<size_t>(Walk_Stage::host)][level], 5u);
    }
}

TEST(tlb_model, the_walk_cache_keeps_all_but_the_last_entries)
{
    Tlb_Options options = sized({{1, 1}});
    options.walk_cache = 64;
    Tlb_Model model(options);
    for (const uint64_t number : {1, 2}) {
        model.instruction(0);
        model.access(Access_Side::data, number << 12, nested_page(number));
    }
    // First: 3 directories, 4 host leaves on the way, 3 guest directories, the guest's and the host's leaf: 12. Second:
    // the two leaves.
    EXPECT_EQ(model.finish().read_entries, 14u);
}

TEST(tlb_model, the_nested_cache_spares_host_walks)
{
    Tlb_Options options = sized({{1, 1}});
    options.nested_cache = 64;
    Tlb_Model model(options);
    for (const uint64_t number : {1, 2}) {
        model.instruction(0);
        model.access(Access_Side::data, number << 12, nested_page(number));
    }
    const Tlb_Figures &figures = model.finish();
    EXPECT_EQ(figures.nested_cache_hits, 4u);
    EXPECT_EQ(figures.read_entries, 24u + 4 + 4); // second: the guest's entries and one host walk
}

TEST(tlb_model, a_region_of_small_pages_is_worth_one_large_page)
{
    Accesses accesses(sized({{2, 2}}));
    accesses.data({0, 1, 2, 0, 1, 2});
    const Tlb_Figures &figures = accesses.model.finish();
    ASSERT_EQ(figures.regions.table().size(), 1u);
    const Tlb_Region &region = figures.regions.table().begin()->second;
    EXPECT_EQ(region.pages, 3u);
    EXPECT_EQ(region.walks, 6u);
    EXPECT_EQ(region.walks_if_one, 1u);
}

TEST(tlb_model, a_page_size_may_be_assumed)
{
    Tlb_Options options = sized({{1, 1}});
    options.page_bits = 21;
    Accesses accesses(options);
    accesses.data({0, 1, 511, 512});
    EXPECT_EQ(accesses.model.finish().walks(), 2u);
}

TEST(tlb_model, the_series_has_its_last_part)
{
    Tlb_Options options = sized({{1, 1}});
    options.interval = 2;
    Accesses accesses(options);
    accesses.data({1, 1, 2, 3, 3});
    const std::vector<Tlb_Interval> series = accesses.model.finish().series;
    ASSERT_EQ(series.size(), 3u);
    EXPECT_EQ(series[0].cost.walks, 1u);
    EXPECT_EQ(series[1].cost.walks, 2u);
    EXPECT_EQ(series[2].instructions, 1u);
    EXPECT_EQ(series[2].cost.walks, 0u);
}

// ---- More pages than are kept --------------------------------------------------------------------------

namespace
{

// Half of 60,000 accesses go to 100 pages, the others to 3000.
uint64_t some_page(uint64_t &place, int i)
{
    place = place * 6364136223846793005u + 1442695040888963407u;
    return (place >> 40) % (i % 2 == 0 ? 3000 : 100);
}

// The same accesses with all pages kept, and with at most `most`. `real` makes the real page.
template <class Real> std::array<Tlb_Figures, 2> with_limit(Tlb_Options options, size_t most, Real real)
{
    options.limits.pages = 1 << 20;
    Accesses all(options);
    options.limits.pages = most;
    Accesses few(options);
    uint64_t place = 7;
    for (int i = 0; i < 60000; i++) {
        const uint64_t number = some_page(place, i);
        for (Accesses *accesses : {&all, &few})
            accesses->data(number, real(number, i));
    }
    return {all.model.take(), few.model.take()};
}

} // namespace

TEST(tlb_limits, what_a_tlb_misses_is_exact_beyond_the_limit_of_pages)
{
    const auto real = [](uint64_t number, int i) { return number % 5 == 0 ? uint64_t(i) / 999 : 0; };
    for (const bool split : {false, true}) {
        Tlb_Options options = sized({{16, 4}, {256, 8}});
        options.walk_cache = options.nested_cache = 16;
        options.split = split;
        const auto [all, few] = with_limit(options, 500, real);
        EXPECT_FALSE(all.is_estimate());
        EXPECT_TRUE(few.is_estimate());
        EXPECT_LE(few.pages.sample().size(), 500u);
        EXPECT_EQ(few.walks(), all.walks());
        EXPECT_EQ(few.read_entries, all.read_entries);
        EXPECT_EQ(few.levels[0].misses, all.levels[0].misses);
        EXPECT_EQ(few.levels[1].most_reach, all.levels[1].most_reach);
        EXPECT_EQ(few.page_sizes.at(12).walks, all.page_sizes.at(12).walks);
        EXPECT_EQ(few.instructions_at.table().begin()->second.walks, all.walks());
        EXPECT_NEAR(static_cast<double>(few.remapped), static_cast<double>(all.remapped),
                    0.25 * static_cast<double>(all.remapped));
    }
}

TEST(tlb_limits, the_curve_is_estimated_from_a_sample_of_the_pages)
{
    const auto [all, few] = with_limit(sized({{16, 4}}), 1000, [](uint64_t, int) { return 0; });
    const Distance_Counts &exact = all.distances[0], &estimate = few.distances.at(0);
    EXPECT_FALSE(exact.is_estimate());
    EXPECT_TRUE(estimate.is_estimate());
    EXPECT_EQ(exact.accesses(), 60000u);
    EXPECT_EQ(estimate.accesses(), 60000u);
    EXPECT_EQ(exact.first_uses(), 3000u);
    EXPECT_NEAR(static_cast<double>(estimate.first_uses()), 3000, 300);
    for (const uint64_t size : {1, 8, 64, 512, 1024, 2048}) {
        const auto misses = static_cast<double>(exact.misses(size));
        EXPECT_NEAR(static_cast<double>(estimate.misses(size)), misses, 0.2 * misses) << size;
    }
}

TEST(tlb_limits, the_pages_with_most_walks_are_known_beyond_the_limit)
{
    Tlb_Options options = sized({{1, 1}});
    options.limits.pages = 100;
    Accesses accesses(options);
    for (uint64_t i = 0; i < 5000; i++)
        accesses.data({100 + i, i % 10}); // each misses
    const Tlb_Figures &figures = accesses.model.finish();
    EXPECT_LT(figures.pages.shortfall(), 150u);
    EXPECT_GT(figures.pages.shortfall(), 0u);
    std::map<uint64_t, Tlb_Cost> costs;
    for (const auto &[page, cost] : figures.pages.heaviest())
        costs[page.first >> 12] = cost;
    EXPECT_LE(costs.size(), 100u);
    for (uint64_t number = 0; number < 10; number++) {
        EXPECT_EQ(costs[number].walks, 500u) << number;
        EXPECT_EQ(costs[number].accesses, 500u) << number;
    }
}

TEST(tlb_limits, ranges_and_instructions_with_most_walks_are_known_beyond_theirs)
{
    Tlb_Options options = sized({{1, 1}});
    options.limits.others = 20;
    Tlb_Model model(options);
    for (uint64_t i = 0; i < 300; i++)
        for (const uint64_t number : {i % 2, 512 * (i + 1)}) { // one range with two pages, and new ones
            model.instruction(number < 2 ? 0x4000 : 4 * i);
            model.access(Access_Side::data, number << 12, host_page(number));
        }
    const Tlb_Figures &figures = model.finish();
    EXPECT_LE(figures.regions.table().size(), 20u);
    EXPECT_LE(figures.instructions_at.table().size(), 20u);
    EXPECT_GT(figures.regions.shortfall(), 0u);
    EXPECT_GT(figures.instructions_at.shortfall(), 0u);
    const auto [page, range] = *std::ranges::max_element(figures.regions.table(), {},
                                                         [](const auto &entry) { return entry.second.walks; });
    EXPECT_EQ(page.first, 0u);
    EXPECT_EQ(range.pages, 2u);
    EXPECT_EQ(range.walks, 300u);
    EXPECT_EQ(range.walks_if_one, 300u);
    const auto instruction = *std::ranges::max_element(figures.instructions_at.table(), {},
                                                       [](const auto &entry) { return entry.second.walks; });
    EXPECT_EQ(instruction.first, 0x4000u);
    EXPECT_EQ(instruction.second.walks, 300u);
}

TEST(tlb_limits, add_up_over_threads)
{
    const auto [all, few] = with_limit(sized({{16, 4}}), 500, [](uint64_t, int) { return 0; });
    Tlb_Figures total;
    total.add(all);
    EXPECT_FALSE(total.is_estimate());
    total.add(few);
    EXPECT_TRUE(total.is_estimate());
    EXPECT_EQ(total.distances[0].accesses(), 120000u);
    EXPECT_EQ(total.distances[0].first_uses(), all.distances[0].first_uses() + few.distances[0].first_uses());
    EXPECT_EQ(total.distances[0].misses(100), all.distances[0].misses(100) + few.distances[0].misses(100));
    EXPECT_EQ(total.pages.shift(), few.pages.shift());
}

TEST(tlb_limits, a_flush_forgets_pages_whether_they_are_sampled_or_not)
{
    Tlb_Options options = sized({{16, 4}});
    options.flush_on_switch = true;
    options.limits.pages = 200;
    Accesses accesses(options);
    for (uint32_t pid = 0; pid < 4; pid++) {
        accesses.model.switch_to({1, pid});
        for (uint64_t number = 0; number < 2000; number++)
            accesses.data(number);
    }
    const Tlb_Figures &figures = accesses.model.finish();
    EXPECT_EQ(figures.walks(), 8000u);
    EXPECT_EQ(figures.distances[0].misses(1 << 20), figures.distances[0].first_uses());
    EXPECT_NEAR(static_cast<double>(figures.distances[0].first_uses()), 8000, 1600);
}

TEST(distances, far_ones_are_counted_for_the_sizes_that_are_listed)
{
    Distance_Counts distances;
    distances.count(Distance_Counts::NEVER);
    for (const size_t distance : {0, 65535, 65536, 98303, 98304, 131071, 131072, 1 << 20})
        distances.count(distance);
    EXPECT_EQ(distances.misses(65535), 8u);
    EXPECT_EQ(distances.misses(65536), 7u);
    EXPECT_EQ(distances.misses(98304), 5u);
    EXPECT_EQ(distances.misses(131072), 3u);
    EXPECT_EQ(distances.misses(196608), 2u);
    EXPECT_EQ(distances.misses(1 << 20), 2u);
    EXPECT_EQ(distances.misses(3 << 19), 1u);
    EXPECT_EQ(distances.sizes().back(), uint64_t{3} << 19);
}

TEST(distances, are_exact_up_to_65536_entries)
{
    Distance_Counts distances;
    distances.count(50000);
    EXPECT_EQ(distances.misses(50000), 1u);
    EXPECT_EQ(distances.misses(50001), 0u);
}

TEST(distances, of_a_sample_stand_for_all_pages)
{
    Distance_Counts distances;
    for (int i = 0; i < 3; i++)
        distances.count_unsampled();
    distances.count(Distance_Counts::NEVER, 1);
    distances.count(3, 1); // 6 of all pages, twice
    EXPECT_TRUE(distances.is_estimate());
    EXPECT_EQ(distances.accesses(), 5u);
    EXPECT_EQ(distances.first_uses(), 2u);
    EXPECT_EQ(distances.misses(6), 4u);
    EXPECT_EQ(distances.misses(7), 2u);
    EXPECT_TRUE(distances.is_estimate());
    Distance_Counts exact;
    exact.count(3);
    EXPECT_FALSE(exact.is_estimate());
    Distance_Counts both = distances;
    both.add(exact);
    EXPECT_TRUE(both.is_estimate());
    both.count(3);
    EXPECT_TRUE(both.is_estimate());
    distances.count(Distance_Counts::NEVER, 5); // never more than there were accesses
    EXPECT_EQ(distances.first_uses(), 6u);
    EXPECT_EQ(distances.misses(1), 6u);
}

// ---- Stack distances of numbered pages -----------------------------------------------------------------

namespace
{

// Uses pages first, first + 1, ... up to `end`; returns the last one's distance.
size_t use_all(Lru_Distances &distances, uint32_t first, uint32_t end)
{
    size_t distance = 0;
    for (uint32_t page = first; page < end; page++)
        distance = distances.use(page);
    return distance;
}

} // namespace

TEST(lru_distances, of_pages_that_were_forgotten_are_those_of_first_uses)
{
    Lru_Distances distances;
    EXPECT_EQ(use_all(distances, 0, 40), Lru_Distances::NEVER);
    EXPECT_EQ(distances.use(0), 39u);
    distances.forget(0); // one of the last 16
    distances.forget(5); // an older one
    for (int round = 0; round < 60; round++)
        EXPECT_EQ(use_all(distances, 100, 150), round == 0 ? Lru_Distances::NEVER : 49u);
    EXPECT_EQ(distances.use(0), Lru_Distances::NEVER);
    EXPECT_EQ(distances.use(5), Lru_Distances::NEVER);
    EXPECT_EQ(distances.use(1), 50u + 2 + 37) << "all but itself, of 40 pages and 50";
}

TEST(lru_distances, begin_anew_when_all_pages_are_forgotten)
{
    Lru_Distances distances;
    use_all(distances, 0, 100);
    distances.clear();
    for (int round = 0; round < 60; round++)
        EXPECT_EQ(use_all(distances, 50, 100), round == 0 ? Lru_Distances::NEVER : 49u);
    EXPECT_EQ(distances.use(3), Lru_Distances::NEVER);
    EXPECT_EQ(distances.use(50), 50u);
}

TEST(lru_distances, go_on_with_the_pages_that_are_kept)
{
    Lru_Distances distances;
    use_all(distances, 0, 40);
    std::vector<uint32_t> kept{1, 3, 4};
    kept.pop_back();
    distances.keep(kept);
    EXPECT_EQ(distances.use(2), Lru_Distances::NEVER);
    EXPECT_EQ(distances.use(0), 2u); // was 1: after it 3 and the new one
    EXPECT_EQ(distances.use(1), 2u); // was 3
}

// ---- Which page an instruction was fetched from --------------------------------------------------------

namespace
{

using namespace planted;

// Eight instructions from 0x1fff0 on, in pages of 64K: the fifth stands on the next page. A branch at the end goes
// back to `target`.
Trace crossing(uint64_t target)
{
    Trace trace(1, good_trace()[FIRST_HEADER]);
    const uint64_t first = 0x1fff0;
    std::memcpy(trace[0].header.iar, &first, sizeof(first));
    for (int i = 0; i < 8; i++)
        trace.push_back({false, {}, "", plain_record(0x60000000)});
    Item branch = good_trace()[TAKEN_BRANCH];
    std::memcpy(branch.record.next_instruction_ea, &target, sizeof(target));
    trace.push_back(branch);
    trace.push_back({false, {}, "", plain_record(0x60000000)});
    return trace;
}

json tlb_of(const Trace &trace)
{
    const planted::Folder folder;
    return json::parse(qtrace({"tlb", "--json", folder.write("trace0", trace)}).out);
}

} // namespace

TEST(tlb_fetch, a_page_entered_in_sequence_is_not_known_before_a_record_names_it)
{
    const json fetches = tlb_of(crossing(0x10000))["fetches"];
    EXPECT_EQ(fetches["translated"], 5); // four before the crossing, one after the branch
    EXPECT_EQ(fetches["not_known"], 5);
}

TEST(tlb_fetch, a_page_entered_in_sequence_takes_its_last_translation)
{
    Trace trace = crossing(0x1fff0);
    const Trace again = crossing(0x20000);
    trace.insert(trace.end() - 1, again.end() - 2, again.end() - 1); // a branch at 0x1fff0 to 0x20000
    Item back = again.end()[-2];
    const uint64_t target = 0x1fffc;
    std::memcpy(back.record.next_instruction_ea, &target, sizeof(target));
    trace.insert(trace.end() - 1, back); // and back, close to the crossing
    trace.push_back(trace.back());       // 0x20000, entered in sequence
    const json fetches = tlb_of(trace)["fetches"];
    EXPECT_EQ(fetches["not_known"], 5);
    EXPECT_EQ(fetches["translated"], 8);
}

// ---- The command ---------------------------------------------------------------------------------------

TEST(tlb_command, refuses_configurations_that_do_not_exist)
{
    const planted::Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    for (const char *entries : {"0x1", "64x0", "64x5", "x4", "64x", "a", "9999999x1", "-4x1"})
        EXPECT_EQ(qtrace({"tlb", "--entries", entries, file}).exit_code, 2) << entries;
    EXPECT_EQ(qtrace({"tlb", "--page-sizes", "3K", file}).exit_code, 2);
    const Outcome wrong = qtrace({"tlb", "--per", "pages", file});
    EXPECT_EQ(wrong.exit_code, 2);
    EXPECT_NE(wrong.err.find("did you mean `page`"), std::string::npos) << wrong.err;
}

TEST(tlb_command, adds_threads_up)
{
    const planted::Folder folder;
    (void)folder.write("trace0", good_trace());
    (void)folder.write("trace1", good_trace());
    const std::string out = qtrace({"tlb", "--json", folder.path("trace")}).out;
    std::istringstream lines(out);
    std::vector<json> objects;
    for (std::string line; std::getline(lines, line);)
        objects.push_back(json::parse(line));
    ASSERT_EQ(objects.size(), 3u);
    EXPECT_EQ(objects[2]["file"], "total");
    EXPECT_EQ(objects[2]["instructions"], 2 * objects[0]["instructions"].get<int>());
    EXPECT_EQ(objects[2]["walks"], 2 * objects[0]["walks"].get<int>());
}

TEST(tlb_command, says_what_is_not_modelled)
{
    const planted::Folder folder;
    const Outcome outcome = qtrace({"tlb", folder.write("trace0", good_trace())});
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_NE(outcome.out.find("Not modelled"), std::string::npos);
}
