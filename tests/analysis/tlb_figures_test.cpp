// What the TLB model counts, added up and as JSON; and the list of accesses that it is made from.
#include "access_list.h"
#include "planted_trace.h"
#include "tlb_feed.h"
#include "tlb_json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

using namespace qtrace_tool;
using Json = nlohmann::ordered_json;
using testing::ElementsAre;

namespace
{

void count(Distance_Counts &distances, size_t distance, uint64_t times)
{
    for (uint64_t i = 0; i < times; i++)
        distances.count(distance);
}

template <class Pages> void add(Pages &pages, const Tlb_Page &page, const Tlb_Cost &cost)
{
    if constexpr (requires { pages.add(page, cost); })
        pages.add(page, cost);
    else
        pages[page] += cost;
}

// Figures of which no two are the same; all are multiples of `unit`.
Tlb_Figures figures_of(uint64_t unit)
{
    Tlb_Figures f;
    f.instructions = 1000 * unit;
    f.translated = {11 * unit, 12 * unit};
    f.untranslated = {13 * unit, 14 * unit};
    f.not_known = {15 * unit, 16 * unit};
    f.walks_of = {17 * unit, 18 * unit};
    f.suspect = 19 * unit;
    f.remapped = 20 * unit;
    f.levels = {{21 * unit, 22 * unit, 23 * unit, 24 * unit}, {25 * unit, 26 * unit, 27 * unit, 28 * unit}};
    for (size_t kind = 0; kind < XLATE_KINDS; kind++) {
        Walk_Figures &walk = f.kinds[kind];
        walk.walks = (kind + 1) * unit;
        walk.entries = (100 + kind) * unit;
        for (uint64_t level = 0; level < WALK_LEVELS; level++) {
            walk.reads[0][level] = (200 + 10 * kind + level) * unit;
            walk.reads[1][level] = (300 + 10 * kind + level) * unit;
        }
    }
    f.read_entries = 31 * unit;
    f.walk_cache_hits = 32 * unit, f.nested_cache_hits = 33 * unit;
    f.switches = 34 * unit, f.partition_switches = 35 * unit;
    f.after_switch = {100 * unit, {3 * unit, 2 * unit, unit}};
    f.series = {{50 * unit, {51 * unit, 5 * unit, 53 * unit}}};
    f.distances.resize(1);
    count(f.distances[0], SIZE_MAX, 60 * unit);
    count(f.distances[0], 0, 61 * unit);
    count(f.distances[0], 1, 62 * unit);
    f.partitions[1] = {71 * unit, 72 * unit, 73 * unit};
    f.processes[{0x10, 7}] = {74 * unit, 75 * unit, 76 * unit};
    f.page_sizes[16] = {77 * unit, 78 * unit, 79 * unit};
    f.instructions_at[0x1004] = {80 * unit, 81 * unit, 82 * unit};
    add(f.pages, {0x20000, 7, 0x10, Xlate_Kind::nested, 16}, {83 * unit, 84 * unit, 85 * unit});
    add(f.pages, {0x30000, 0x11, 0, Xlate_Kind::hash, 12}, {86 * unit, 84 * unit, 88 * unit});
    f.regions[{0x200000, 7, 0, Xlate_Kind::host, 21}] = {90 * unit, 5 * unit, 4 * unit};
    return f;
}

const Tlb_Lists ALL_TABLES{
    {Tlb_Table::partition, Tlb_Table::process, Tlb_Table::page_size, Tlb_Table::instruction, Tlb_Table::page}, 10};

} // namespace

TEST(tlb_figures, of_two_threads_are_added_up_one_by_one)
{
    Tlb_Figures sum = figures_of(1);
    Tlb_Figures other = figures_of(3);
    other.series.push_back({2, {3, 4, 5}});
    count(other.distances[0], 2, 7);
    other.partitions[9] = {1, 2, 3};
    sum.add(other);
    Tlb_Options options;
    options.interval = 50;
    const Json expected = Json::parse(R"({
 "instructions": 4000,
 "fetches": {"translated": 44, "untranslated": 52, "not_known": 60, "walks": 68},
 "data": {"translated": 48, "untranslated": 56, "not_known": 64, "walks": 72},
 "suspect": 76,
 "remapped": 80,
 "levels": [
  {"entries": 64, "ways": 4, "lookups": 84, "misses": 88, "misses_per_thousand": 22.0, "reach": 92, "most_reach": 96},
  {"entries": 1536, "ways": 12, "lookups": 100, "misses": 104, "misses_per_thousand": 26.0, "reach": 108,
   "most_reach": 112}],
 "walks": 40,
 "walks_per_thousand": 10.0,
 "nested_share": 0.3,
 "entries": 1624,
 "entries_read": 124,
 "walk_cache_hits": 128,
 "nested_cache_hits": 132,
 "kinds": {
  "host": {"walks": 4, "entries": 400, "entries_read": 8048,
   "guest_read": [800, 804, 808, 812], "host_read": [1200, 1204, 1208, 1212]},
  "guest-real": {"walks": 8, "entries": 404, "entries_read": 8368,
   "guest_read": [840, 844, 848, 852], "host_read": [1240, 1244, 1248, 1252]},
  "nested": {"walks": 12, "entries": 408, "entries_read": 8688,
   "guest_read": [880, 884, 888, 892], "host_read": [1280, 1284, 1288, 1292]},
  "hash": {"walks": 16, "entries": 412, "entries_read": 9008,
   "guest_read": [920, 924, 928, 932], "host_read": [1320, 1324, 1328, 1332]}},
 "switches": {
  "count": 136,
  "of_partition": 140,
  "first_thousand": {"instructions": 400, "accesses": 12, "walks": 8, "entries_read": 4, "walks_per_thousand": 20.0},
  "rest": {"instructions": 3600, "accesses": 80, "walks": 32, "entries_read": 120,
   "walks_per_thousand": 8.88888888888889}},
 "curves": [{"side": "all", "accesses": 739, "first_uses": 240, "sizes": [
  {"entries": 1, "misses": 495}, {"entries": 2, "misses": 247}, {"entries": 3, "misses": 240}]}],
 "per": {
  "partition": [{"lpid": "0x1", "accesses": 284, "walks": 288, "entries_read": 292},
   {"lpid": "0x9", "accesses": 1, "walks": 2, "entries_read": 3}],
  "process": [{"lpid": "0x10", "pid": 7, "accesses": 296, "walks": 300, "entries_read": 304}],
  "page-size": [{"size": "64K", "accesses": 308, "walks": 312, "entries_read": 316}],
  "instruction": [{"address": "0x1004", "accesses": 320, "walks": 324, "entries_read": 328}],
  "page": [
   {"address": "0x30000", "size": "4K", "kind": "hash", "lpid": "0x0", "vsid": "0x11", "accesses": 344, "walks": 336,
    "entries_read": 352},
   {"address": "0x20000", "size": "64K", "kind": "nested", "lpid": "0x10", "pid": 7, "accesses": 332, "walks": 336,
    "entries_read": 340}]},
 "advice": [{"address": "0x200000", "size": "2M", "kind": "host", "lpid": "0x0", "pid": 7, "entries": 360, "walks": 20,
  "walks_if_one": 16, "saved_share": 0.1}],
 "series": [{"instructions": 200, "accesses": 204, "walks": 20, "entries_read": 212, "walks_per_thousand": 100.0},
  {"instructions": 2, "accesses": 3, "walks": 4, "entries_read": 5, "walks_per_thousand": 2000.0}]
})");
    const Json got = tlb_json(sum, options, ALL_TABLES);
    for (const auto &[key, value] : expected.items())
        EXPECT_EQ(got[key].dump(1), value.dump(1)) << key;
    EXPECT_EQ(got.size(), expected.size());
}

TEST(tlb_figures, of_nothing_have_no_rates)
{
    const Json json = tlb_json(Tlb_Figures(), {}, {});
    EXPECT_EQ(json["walks_per_thousand"], 0.0);
    EXPECT_EQ(json["nested_share"], 0.0);
    EXPECT_FALSE(json.contains("series"));
    EXPECT_EQ(json["advice"], Json::array());
}

TEST(tlb_figures, curves_of_two_sides_are_fetch_and_data)
{
    Tlb_Figures figures;
    figures.distances.resize(2);
    count(figures.distances[1], SIZE_MAX, 3);
    const Json curves = tlb_json(figures, {}, {})["curves"];
    EXPECT_EQ(curves[0]["side"], "fetch");
    EXPECT_EQ(curves[1]["side"], "data");
    EXPECT_EQ(curves[1]["sizes"], Json::parse(R"([{"entries": 1, "misses": 3}])"));
}

TEST(tlb_figures, rows_are_sorted_by_walks_then_by_entries_then_by_key)
{
    Tlb_Figures figures;
    figures.partitions = {{1, {9, 1, 9}}, {2, {1, 5, 1}}, {3, {1, 5, 2}}, {4, {1, 5, 1}}, {5, {1, 2, 9}}};
    const auto lpids = [&](size_t top) {
        std::string text;
        for (const Tlb_Row &row : tlb_rows(figures, Tlb_Table::partition, top))
            text += row.key["lpid"].get<std::string>() + " ";
        return text;
    };
    EXPECT_EQ(lpids(9), "0x3 0x2 0x4 0x5 0x1 ");
    EXPECT_EQ(lpids(5), "0x3 0x2 0x4 0x5 0x1 ");
    EXPECT_EQ(lpids(2), "0x3 0x2 ");
    EXPECT_EQ(lpids(0), "");
}

TEST(tlb_figures, advice_names_regions_with_several_pages_whose_walks_would_be_fewer)
{
    Tlb_Figures figures;
    const auto region = [](uint64_t first) { return Tlb_Page{first, 0, 0, Xlate_Kind::host, 21}; };
    figures.regions[region(0x200000)] = {1, 9, 1}; // one page
    figures.regions[region(0x400000)] = {2, 5, 5}; // no walk fewer
    figures.regions[region(0x600000)] = {2, 6, 5};
    figures.regions[region(0xa00000)] = {3, 20, 10};
    figures.regions[region(0x800000)] = {2, 11, 1};
    const auto firsts = [&](size_t top) {
        std::vector<uint64_t> list;
        for (const Tlb_Advice &advice : tlb_advice(figures, top))
            list.push_back(advice.page.first);
        return list;
    };
    EXPECT_THAT(firsts(9), ElementsAre(0x800000, 0xa00000, 0x600000));
    EXPECT_THAT(firsts(2), ElementsAre(0x800000, 0xa00000));
    EXPECT_EQ(tlb_advice(figures, 1)[0].saved(), 10u);
}

TEST(tlb_figures, sizes_have_the_largest_unit_that_fits)
{
    EXPECT_EQ(size_name(0), "0");
    EXPECT_EQ(size_name(1023), "1023");
    EXPECT_EQ(size_name(1024), "1K");
    EXPECT_EQ(size_name(1536), "1.5K");
    EXPECT_EQ(size_name((1 << 20) - 1024), "1023K");
    EXPECT_EQ(size_name(1 << 20), "1M");
    EXPECT_EQ(size_name(uint64_t{3} << 30), "3G");
    EXPECT_EQ(size_name(uint64_t{5} << 40), "5T");
    EXPECT_EQ(size_name(uint64_t{7} << 50), "7P");
    EXPECT_EQ(size_name(uint64_t{15} << 60), "15E");
    EXPECT_EQ(size_name(~uint64_t{0}), "16E");
}

TEST(tlb_figures, name_each_limit_that_was_exceeded)
{
    Tlb_Figures figures(Tlb_Limits{2, 2});
    EXPECT_FALSE(tlb_json(figures, {}, {}).contains("page_shortfall"));
    figures.distances.resize(1);
    figures.distances[0].count(SIZE_MAX, 1);
    for (uint64_t i = 1; i <= 3; i++) { // the second heaviest of two has one walk
        const Tlb_Page page{i << 21, 0, 0, Xlate_Kind::host, 21};
        figures.instructions_at[4 * i].walks++;
        figures.pages.add(page, {1, 1, 1});
        figures.regions[page].walks++;
    }
    const Json json = tlb_json(figures, {}, {});
    EXPECT_EQ(json["pages_estimated"], true);
    EXPECT_EQ(json["page_shortfall"], 1);
    EXPECT_EQ(json["instruction_shortfall"], 1);
    EXPECT_EQ(json["advice_shortfall"], 1);
}

TEST(tlb_figures, are_exact_up_to_a_million_pages_and_65536_instructions_and_ranges)
{
    EXPECT_EQ(Tlb_Limits().pages, 1048576u);
    EXPECT_EQ(Tlb_Limits().others, 65536u);
}

TEST(tlb_options, are_those_of_the_command_without_options)
{
    const Tlb_Options options;
    ASSERT_EQ(options.levels.size(), 2u);
    EXPECT_EQ(std::pair(options.levels[0].entries, options.levels[0].ways), std::pair(64u, 4u));
    EXPECT_EQ(std::pair(options.levels[1].entries, options.levels[1].ways), std::pair(1536u, 12u));
    EXPECT_EQ(options.walk_cache, 16u);
    EXPECT_EQ(options.nested_cache, 16u);
    EXPECT_EQ(options.interval, 0u);
    EXPECT_FALSE(options.split || options.page_bits || options.flush_on_switch);
    EXPECT_EQ(Tlb_Lists().top, 10u);
}

// A sample of 4000 pages that differ in one thing alone.
TEST(page_costs, sample_the_pages_of_all_address_spaces_alike)
{
    const std::function<Tlb_Page(uint64_t)> pages[] = {
        [](uint64_t i) {
            return Tlb_Page{i << 12, 0, 0, Xlate_Kind::host, 12};
        },
        [](uint64_t i) {
            return Tlb_Page{i << 21, 7, 0, Xlate_Kind::host, 21};
        },
        [](uint64_t i) {
            return Tlb_Page{i << 16, 0, 3, Xlate_Kind::guest_real, 16};
        },
        [](uint64_t i) {
            return Tlb_Page{0x10000, i, 0, Xlate_Kind::hash, 16};
        },
        [](uint64_t i) {
            return Tlb_Page{0x10000, 7, i, Xlate_Kind::nested, 16};
        },
    };
    for (const auto &page : pages) {
        Page_Costs costs(300);
        for (uint64_t i = 1; i <= 4000; i++)
            costs.add(page(i), {1, 1, 1});
        EXPECT_NEAR(static_cast<double>(costs.sample().size() << costs.shift()), 4000, 1000);
    }
}

// ---- Distances -----------------------------------------------------------------------------------------

TEST(distance_counts, tell_the_misses_of_every_size)
{
    Distance_Counts distances;
    distances.count(SIZE_MAX);
    EXPECT_THAT(distances.sizes(), ElementsAre(1));
    for (const size_t distance : {0, 0, 1, 3, 10})
        distances.count(distance);
    EXPECT_EQ(distances.accesses(), 6u);
    EXPECT_EQ(distances.misses(0), 6u);
    EXPECT_EQ(distances.misses(1), 4u);
    EXPECT_EQ(distances.misses(2), 3u);
    EXPECT_EQ(distances.misses(3), 3u);
    EXPECT_EQ(distances.misses(4), 2u);
    EXPECT_EQ(distances.misses(10), 2u);
    EXPECT_EQ(distances.misses(11), 1u);
    EXPECT_EQ(distances.misses(1000000), 1u);
    EXPECT_THAT(distances.sizes(), ElementsAre(1, 2, 3, 4, 6, 8, 12));
    distances.count(7);
    distances.count(11);
    EXPECT_THAT(distances.sizes(), ElementsAre(1, 2, 3, 4, 6, 8, 12));
    distances.count(12);
    EXPECT_THAT(distances.sizes(), ElementsAre(1, 2, 3, 4, 6, 8, 12, 16));
}

// ---- Lists of accesses ---------------------------------------------------------------------------------

namespace
{

using namespace planted;

const Page_Sizes SIZES;
const Trace GOOD = good_trace();

QTRACE_Item read_record(const Item &item, uint64_t number = 0)
{
    QTRACE_Item read{};
    read.record = item.record;
    read.record_number = number;
    read.address = 0x1000 + 4 * number;
    read.address_known = 1;
    return read;
}

} // namespace

TEST(access_list, numbers_translations_by_what_they_name)
{
    Access_List list(SIZES);
    const Item nested = GOOD[NESTED_LOAD];
    const auto number_of = [&](auto change) {
        Item item = nested;
        change(item.record);
        return list.record(read_record(item)).data;
    };
    EXPECT_EQ(number_of([](QTRACE_RECORD &) {}), 0u);
    EXPECT_EQ(number_of([](QTRACE_RECORD &) {}), 0u);
    EXPECT_EQ(number_of([](QTRACE_RECORD &r) { r.data_ea[0] ^= 0x80; }), 0u) << "the same page";
    const std::function<void(QTRACE_RECORD &)> changes[] = {
        [](QTRACE_RECORD &r) { r.data_ea[2] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_rpn[2] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_page_size = r.data_gpage_size = 0; },
        [](QTRACE_RECORD &r) { r.data_hRTW_depth = 2; },
        [](QTRACE_RECORD &r) { r.data_hRTW[0].RTPDE_ra_l1[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_hRTW[0].RTPDE_ra_l2[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_hRTW[0].RTPDE_ra_l3[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_hRTW[2].RTPTE_ra[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_hRTW_host_RA[0].ra[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_hRTW_host_RA[1].ra[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_gRTW.RTPDE_GUEST_ra_l1[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_gRTW.RTPTE_GUEST_ra[0] ^= 1; },
        [](QTRACE_RECORD &r) { r.data_gRTW.GUEST_ra[0] ^= 1; },
    };
    uint32_t next = 1;
    for (const auto &change : changes)
        EXPECT_EQ(number_of(change), next++);
}

TEST(access_list, what_is_beyond_the_steps_of_a_walk_means_nothing)
{
    Access_List list(SIZES);
    Item nested = GOOD[NESTED_LOAD];
    EXPECT_EQ(list.record(read_record(nested)).data, 0u);
    nested.record.data_hRTW[3].RTPTE_ra[0] ^= 1;
    nested.record.data_hRTW_host_RA[2].ra[0] ^= 1;
    nested.record.data_gRTW.RTPDE_GUEST_ra_l2[0] ^= 1;
    nested.record.data_gRTW.RTPDE_GUEST_ra_l3[0] ^= 1;
    EXPECT_EQ(list.record(read_record(nested)).data, 0u);
}

TEST(access_list, a_walk_is_the_same_again_after_a_longer_one)
{
    Access_List list(SIZES);
    Item longer = GOOD[NESTED_LOAD];
    longer.record.data_ea[2] ^= 1; // another page
    longer.record.data_hRTW_depth++;
    for (QTRACE_RTW_HOST_RA &address : longer.record.data_hRTW_host_RA)
        address.ra[0] ^= 0x10;
    EXPECT_EQ(list.record(read_record(GOOD[NESTED_LOAD])).data, 0u);
    EXPECT_EQ(list.record(read_record(longer)).data, 1u);
    EXPECT_EQ(list.record(read_record(GOOD[NESTED_LOAD])).data, 0u);
}

TEST(access_list, a_hashed_page_has_no_walk_that_could_differ)
{
    Access_List list(SIZES);
    Item hashed = GOOD[LOAD], nested = GOOD[NESTED_LOAD];
    set_case(hashed, Side::data, Case::hpt);
    nested.record.data_ea[2] ^= 1; // another page
    EXPECT_EQ(list.record(read_record(hashed)).data, 0u);
    EXPECT_EQ(list.record(read_record(nested)).data, 1u);
    EXPECT_EQ(list.record(read_record(hashed)).data, 0u);
    EXPECT_EQ(list.translation(0).translation.walk.steps, 0u);
}

TEST(access_list, a_nested_walk_has_one_to_five_walks_of_the_host)
{
    Access_List list(SIZES);
    Item nested = GOOD[NESTED_LOAD];
    for (const auto &[depth, steps] : {std::pair(0, 1), {1, 1}, {2, 2}, {5, 5}, {6, 5}, {255, 5}}) {
        nested.record.data_hRTW_depth = static_cast<uint8_t>(depth);
        const uint32_t number = list.record(read_record(nested)).data;
        EXPECT_EQ(list.translation(number).translation.walk.steps, steps) << depth;
    }
}

TEST(access_list, mode_pairs_without_a_page_number_tell_nothing)
{
    Access_List list(SIZES);
    Item load = GOOD[LOAD];
    const auto data_of = [&](unsigned guest, unsigned host) {
        set_modes(load, Side::data, guest, host);
        return list.record(read_record(load)).data;
    };
    for (const auto &[guest, host] :
         {std::pair(0u, 1u), {0u, 2u}, {0u, 3u}, {1u, 0u}, {1u, 2u}, {2u, 0u}, {3u, 3u}})
        EXPECT_EQ(data_of(guest, host), NOT_TOLD) << guest << "/" << host;
    EXPECT_EQ(data_of(2, 2), UNTRANSLATED);
    EXPECT_EQ(data_of(3, 2), UNTRANSLATED);
    EXPECT_EQ(data_of(2, 1), 0u);
}

TEST(translation, kernel_addresses_have_the_two_highest_bits_set)
{
    for (const uint64_t address : {uint64_t{0xc000000000000000}, ~uint64_t{0}})
        EXPECT_TRUE(is_in_kernel(address));
    for (const uint64_t address : {uint64_t{0}, uint64_t{1} << 62, uint64_t{1} << 63, (uint64_t{3} << 62) - 1})
        EXPECT_FALSE(is_in_kernel(address));
}

TEST(access_list, many_translations_have_numbers_in_their_order)
{
    Access_List list(SIZES);
    Item load = GOOD[LOAD];
    for (uint64_t page = 0; page < 3000; page++) {
        const uint64_t address = page << 16;
        std::memcpy(load.record.data_ea, &address, sizeof(address));
        ASSERT_EQ(list.record(read_record(load)).data, page);
        ASSERT_EQ(list.translation(static_cast<uint32_t>(page)).translation.page.first, address);
    }
    list.clear();
    EXPECT_TRUE(list.entries().empty());
    for (uint64_t page = 3000; page-- > 0;) {
        const uint64_t address = page << 16;
        std::memcpy(load.record.data_ea, &address, sizeof(address));
        ASSERT_EQ(list.record(read_record(load)).data, 2999 - page);
    }
}

TEST(access_list, tells_how_far_a_translation_is_known)
{
    Access_List list(SIZES);
    const auto data_of = [&](const Item &item) { return list.record(read_record(item)).data; };
    EXPECT_EQ(data_of(GOOD[PLAIN]), NO_ADDRESS);
    EXPECT_EQ(data_of(GOOD[SUSPECT_STORE]), SUSPECT);
    Item load = GOOD[LOAD];
    set_case(load, Side::data, Case::real);
    EXPECT_EQ(data_of(load), UNTRANSLATED);
    load = GOOD[LOAD];
    set_piece(load, Side::data, PAGE_NUMBER, false);
    EXPECT_EQ(data_of(load), NOT_TOLD);
    EXPECT_EQ(data_of(GOOD[LOAD]), 0u);
    EXPECT_EQ(list.record(read_record(GOOD[CALL])).next, 1u);
    EXPECT_EQ(list.record(read_record(GOOD[PLAIN])).next, NO_ADDRESS);
}

TEST(access_list, is_long_when_it_has_more_than_2_MiB)
{
    Access_List entries(SIZES);
    const size_t most = (2 << 20) / sizeof(Access_Entry);
    const QTRACE_Item plain = read_record(GOOD[PLAIN]);
    for (size_t i = 0; i < most; i++)
        entries.record(plain);
    EXPECT_FALSE(entries.is_long());
    entries.record(plain);
    EXPECT_TRUE(entries.is_long());
    Access_List pages(SIZES);
    Item load = GOOD[LOAD];
    const size_t most_pages = (2 << 20) / (sizeof(Access_Entry) + sizeof(Named_Translation));
    for (uint64_t page = 0; page <= most_pages; page++) {
        EXPECT_FALSE(pages.is_long());
        const uint64_t address = page << 16;
        std::memcpy(load.record.data_ea, &address, sizeof(address));
        pages.record(read_record(load));
    }
    EXPECT_TRUE(pages.is_long());
}

// ---- Which translations are known ----------------------------------------------------------------------

namespace
{

// Fetches in pages that each branch names, and those that are entered in sequence.
class Fetches
{
public:
    explicit Fetches(Tlb_Model &model) : feed_({&model}) {}
    // A branch from where the fetches are to the last instruction of a page.
    void branch_to_end_of(uint64_t page) { branch_to((page << 16) + 0xfffc, CODE_64K); }
    // The same of a page of 4K.
    void branch_to_end_of_small(uint64_t page) { branch_to((page << 12) + 0xffc, CODE_4K); }
    void fall_through()
    {
        take(plain_);
        address_ += 4;
    }

private:
    static constexpr uint8_t CODE_4K = 0, CODE_64K = 1;

    void branch_to(uint64_t target, uint8_t size_code)
    {
        std::memcpy(branch_.record.next_instruction_ea, &target, sizeof(target));
        branch_.record.next_instruction_page_size = size_code;
        take(branch_);
        address_ = target;
    }
    void take(QTRACE_Item &item)
    {
        item.address = address_;
        feed_.take(list_.record(item), list_);
        if (list_.entries().size() == 1000)
            list_.clear();
    }

    Tlb_Feed feed_;
    Access_List list_{SIZES};
    QTRACE_Item branch_ = read_record(GOOD[TAKEN_BRANCH]), plain_ = read_record(GOOD[PLAIN]);
    uint64_t address_ = 0;
};

} // namespace

TEST(tlb_feed, keeps_the_translations_of_65536_fetched_pages)
{
    for (const bool one_more : {false, true}) {
        Tlb_Model model({});
        Fetches fetches(model);
        for (uint64_t page = 1; page <= 65536; page++)
            fetches.branch_to_end_of(page);
        if (one_more)
            fetches.branch_to_end_of(70000);
        fetches.branch_to_end_of(5); // known already
        EXPECT_EQ(model.figures().not_known[0], 1u) << "the first fetch of all";
        fetches.fall_through(); // from the last instruction of page 5
        fetches.fall_through(); // to the first one of page 6
        EXPECT_EQ(model.figures().not_known[0], one_more ? 2u : 1u);
    }
}

TEST(tlb_feed, knows_pages_of_every_size_that_was_named)
{
    Tlb_Model model({});
    Fetches fetches(model);
    fetches.branch_to_end_of(6);
    fetches.branch_to_end_of_small(0x5f); // 4K before it
    EXPECT_EQ(model.figures().not_known[0], 1u) << "the first fetch of all";
    fetches.fall_through(); // from the last instruction of the small page
    fetches.fall_through(); // to the first one of page 6
    EXPECT_EQ(model.figures().not_known[0], 1u);
}

TEST(tlb_feed, without_a_header_accesses_are_those_of_process_0)
{
    for (const Item &item : {GOOD[LOAD], GOOD[NESTED_LOAD]}) {
        Tlb_Model model({});
        Tlb_Feed feed({&model});
        Access_List list(SIZES);
        feed.take(list.record(read_record(item)), list);
        ASSERT_EQ(model.figures().pages.sample().size(), 1u);
        const Tlb_Page &page = model.figures().pages.sample().begin()->first;
        EXPECT_EQ(page.space, 0u);
        EXPECT_EQ(page.lpid, 0u);
        EXPECT_EQ(model.figures().not_known[0], 1u);
    }
}
