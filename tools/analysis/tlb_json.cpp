#include "tlb_json.h"

#include <algorithm>
#include <fmt/format.h>

namespace qtrace_tool
{
namespace
{

using Json = nlohmann::ordered_json;

std::string hex(uint64_t value)
{
    return fmt::format("0x{:x}", value);
}

double share(uint64_t part, uint64_t whole)
{
    return whole == 0 ? 0.0 : static_cast<double>(part) / static_cast<double>(whole);
}

// ---- Keys of the tables --------------------------------------------------------------------------------

Json key_json(const Partition_Key &process)
{
    return {{"lpid", hex(process.lpid)}, {"pid", process.pid}};
}

Json page_json(const Tlb_Page &page)
{
    Json key = {{"address", hex(page.first)},
                {"size", size_name(uint64_t{1} << page.bits)},
                {"kind", kind_name(page.kind)},
                {"lpid", hex(page.lpid)}};
    if (page.kind == Xlate_Kind::hash)
        key["vsid"] = hex(page.space);
    else
        key["pid"] = page.space;
    return key;
}

template <class Table, class Key_Json> std::vector<Tlb_Row> top_rows(const Table &table, size_t top, Key_Json key)
{
    std::vector<typename Table::const_pointer> sorted;
    sorted.reserve(table.size());
    for (const auto &row : table)
        sorted.push_back(&row);
    const size_t count = std::min(top, sorted.size());
    const auto costlier = [](const auto *a, const auto *b) {
        if (a->second.walks != b->second.walks)
            return a->second.walks > b->second.walks;
        return a->second.read != b->second.read ? a->second.read > b->second.read : a->first < b->first;
    };
    std::ranges::partial_sort(sorted, sorted.begin() + static_cast<std::ptrdiff_t>(count), costlier);
    std::vector<Tlb_Row> rows;
    for (size_t i = 0; i < count; i++)
        rows.push_back({key(sorted[i]->first), sorted[i]->second});
    return rows;
}

// ---- Parts ---------------------------------------------------------------------------------------------

Json side_json(const Tlb_Figures &figures, size_t side)
{
    return {{"translated", figures.translated[side]},
            {"untranslated", figures.untranslated[side]},
            {"not_known", figures.not_known[side]},
            {"walks", figures.walks_of[side]}};
}

Json cost_json(const Tlb_Cost &cost)
{
    return {{"accesses", cost.accesses}, {"walks", cost.walks}, {"entries_read", cost.read}};
}

Json interval_json(const Tlb_Interval &interval)
{
    Json json = {{"instructions", interval.instructions}};
    json.update(cost_json(interval.cost));
    json["walks_per_thousand"] = per_thousand(interval.cost.walks, interval.instructions);
    return json;
}

Json levels_json(const Tlb_Figures &figures, const Tlb_Options &options)
{
    Json levels = Json::array();
    for (size_t i = 0; i < figures.levels.size(); i++) {
        const Level_Figures &level = figures.levels[i];
        levels.push_back({{"entries", options.levels[i].entries},
                          {"ways", options.levels[i].ways},
                          {"lookups", level.lookups},
                          {"misses", level.misses},
                          {"misses_per_thousand", per_thousand(level.misses, figures.instructions)},
                          {"reach", level.reach},
                          {"most_reach", level.most_reach}});
    }
    return levels;
}

Json kinds_json(const Tlb_Figures &figures)
{
    Json kinds = Json::object();
    for (size_t i = 0; i < XLATE_KINDS; i++) {
        const Walk_Figures &kind = figures.kinds[i];
        kinds[kind_name(static_cast<Xlate_Kind>(i))] = {
            {"walks", kind.walks},
            {"entries", kind.entries},
            {"entries_read", kind.read()},
            {"guest_read", kind.reads[static_cast<size_t>(Walk_Stage::guest)]},
            {"host_read", kind.reads[static_cast<size_t>(Walk_Stage::host)]}};
    }
    return kinds;
}

Json switches_json(const Tlb_Figures &figures)
{
    Tlb_Interval rest{figures.instructions - figures.after_switch.instructions,
                      {figures.accesses() - figures.after_switch.cost.accesses,
                       figures.walks() - figures.after_switch.cost.walks,
                       figures.read_entries - figures.after_switch.cost.read}};
    return {{"count", figures.switches},
            {"of_partition", figures.partition_switches},
            {"first_thousand", interval_json(figures.after_switch)},
            {"rest", interval_json(rest)}};
}

Json curves_json(const Tlb_Figures &figures)
{
    Json curves = Json::array();
    for (size_t i = 0; i < figures.distances.size(); i++) {
        const Distance_Counts &distances = figures.distances[i];
        const char *const side = figures.distances.size() == 1 ? "all" : i == 0 ? "fetch" : "data";
        Json sizes = Json::array();
        for (const uint64_t size : distances.sizes())
            sizes.push_back({{"entries", size}, {"misses", distances.misses(size)}});
        curves.push_back({{"side", side},
                          {"accesses", distances.accesses()},
                          {"first_uses", distances.first_uses()},
                          {"sizes", sizes}});
    }
    return curves;
}

Json advice_json(const Tlb_Figures &figures, size_t top)
{
    Json list = Json::array();
    for (const Tlb_Advice &advice : tlb_advice(figures, top)) {
        Json json = page_json(advice.page);
        json.update({{"entries", advice.region.pages},
                     {"walks", advice.region.walks},
                     {"walks_if_one", advice.region.walks_if_one},
                     {"saved_share", share(advice.saved(), figures.walks())}});
        list.push_back(json);
    }
    return list;
}

// Nothing where all figures are exact.
Json limits_json(const Tlb_Figures &figures)
{
    Json limits = Json::object();
    if (figures.is_estimate())
        limits["pages_estimated"] = true;
    const std::pair<const char *, uint64_t> shortfalls[] = {
        {"page_shortfall", figures.pages.shortfall()},
        {"instruction_shortfall", figures.instructions_at.shortfall()},
        {"advice_shortfall", figures.regions.shortfall()}};
    for (const auto &[name, shortfall] : shortfalls)
        if (shortfall > 0)
            limits[name] = shortfall;
    return limits;
}

Json tables_json(const Tlb_Figures &figures, const Tlb_Lists &lists)
{
    Json tables = Json::object();
    for (const Tlb_Table table : lists.tables) {
        Json rows = Json::array();
        for (const Tlb_Row &row : tlb_rows(figures, table, lists.top)) {
            Json json = row.key;
            json.update(cost_json(row.cost));
            rows.push_back(json);
        }
        tables[TLB_TABLES[static_cast<size_t>(table)]] = rows;
    }
    return tables;
}

} // namespace

const char *kind_name(Xlate_Kind kind)
{
    static constexpr const char *NAMES[] = {"host", "guest-real", "nested", "hash"};
    return NAMES[static_cast<size_t>(kind)];
}

std::string size_name(uint64_t bytes)
{
    static constexpr char UNITS[] = {'K', 'M', 'G', 'T', 'P', 'E'};
    if (bytes < 1024)
        return fmt::format("{}", bytes);
    size_t unit = 0;
    auto size = static_cast<double>(bytes) / 1024;
    for (; size >= 1024 && unit + 1 < std::size(UNITS); unit++)
        size /= 1024;
    return fmt::format("{:.4g}{}", size, UNITS[unit]);
}

double per_thousand(uint64_t count, uint64_t instructions)
{
    return instructions == 0 ? 0.0 : 1000.0 * static_cast<double>(count) / static_cast<double>(instructions);
}

std::vector<Tlb_Row> tlb_rows(const Tlb_Figures &figures, Tlb_Table table, size_t top)
{
    switch (table) {
    case Tlb_Table::partition:
        return top_rows(figures.partitions, top, [](uint64_t lpid) { return Json{{"lpid", hex(lpid)}}; });
    case Tlb_Table::process:
        return top_rows(figures.processes, top, key_json);
    case Tlb_Table::page_size:
        return top_rows(figures.page_sizes, top, [](uint8_t bits) {
            return Json{{"size", size_name(uint64_t{1} << bits)}};
        });
    case Tlb_Table::instruction:
        return top_rows(figures.instructions_at.table(), top, [](uint64_t address) {
            return Json{{"address", hex(address)}};
        });
    default:
        return top_rows(figures.pages.heaviest(), top, page_json);
    }
}

std::vector<Tlb_Advice> tlb_advice(const Tlb_Figures &figures, size_t top)
{
    std::vector<Tlb_Advice> list;
    for (const auto &[page, region] : figures.regions.table())
        if (region.pages > 1 && region.walks > region.walks_if_one)
            list.push_back({page, region});
    std::ranges::sort(list, [](const Tlb_Advice &a, const Tlb_Advice &b) {
        return a.saved() != b.saved() ? a.saved() > b.saved() : a.page < b.page;
    });
    list.resize(std::min(top, list.size()));
    return list;
}

Json tlb_json(const Tlb_Figures &figures, const Tlb_Options &options, const Tlb_Lists &lists)
{
    Json json = {
        {"instructions", figures.instructions},
        {"fetches", side_json(figures, 0)},
        {"data", side_json(figures, 1)},
        {"suspect", figures.suspect},
        {"remapped", figures.remapped},
        {"levels", levels_json(figures, options)},
        {"walks", figures.walks()},
        {"walks_per_thousand", per_thousand(figures.walks(), figures.instructions)},
        {"nested_share", share(figures.kinds[static_cast<size_t>(Xlate_Kind::nested)].walks, figures.walks())},
        {"entries", figures.entries()},
        {"entries_read", figures.read_entries},
        {"walk_cache_hits", figures.walk_cache_hits},
        {"nested_cache_hits", figures.nested_cache_hits},
        {"kinds", kinds_json(figures)},
        {"switches", switches_json(figures)},
        {"curves", curves_json(figures)},
        {"per", tables_json(figures, lists)},
        {"advice", advice_json(figures, lists.top)}};
    json.update(limits_json(figures));
    if (options.interval != 0) {
        Json series = Json::array();
        for (const Tlb_Interval &interval : figures.series)
            series.push_back(interval_json(interval));
        json["series"] = series;
    }
    return json;
}

} // namespace qtrace_tool
