#include "tlb_figures.h"

#include <algorithm>
#include <numeric>

namespace qtrace_tool
{

uint64_t Walk_Figures::read() const
{
    uint64_t sum = 0;
    for (const auto &stage : reads)
        sum = std::accumulate(std::begin(stage), std::end(stage), sum);
    return sum;
}

Tlb_Cost &Tlb_Cost::operator+=(const Tlb_Cost &other)
{
    accesses += other.accesses;
    walks += other.walks;
    read += other.read;
    return *this;
}

// ---- Distances -----------------------------------------------------------------------------------------

void Distance_Counts::count(size_t distance)
{
    if (distance == SIZE_MAX) {
        first_uses++;
        return;
    }
    if (distance >= times.size())
        times.resize(std::max(distance + 1, times.size() * 2));
    times[distance]++;
}

uint64_t Distance_Counts::accesses() const
{
    return std::accumulate(times.begin(), times.end(), first_uses);
}

uint64_t Distance_Counts::misses(uint64_t entries) const
{
    const size_t from = std::min<uint64_t>(entries, times.size());
    return std::accumulate(times.begin() + static_cast<std::ptrdiff_t>(from), times.end(), first_uses);
}

std::vector<uint64_t> Distance_Counts::sizes() const
{
    std::vector<uint64_t> sizes{1};
    for (uint64_t power = 2; misses(sizes.back()) > first_uses; power *= 2) {
        sizes.push_back(power);
        if (misses(power) > first_uses)
            sizes.push_back(power + power / 2);
    }
    return sizes;
}

// ---- Sums ----------------------------------------------------------------------------------------------

uint64_t Tlb_Figures::walks() const
{
    uint64_t sum = 0;
    for (const Walk_Figures &kind : kinds)
        sum += kind.walks;
    return sum;
}

uint64_t Tlb_Figures::entries() const
{
    uint64_t sum = 0;
    for (const Walk_Figures &kind : kinds)
        sum += kind.entries;
    return sum;
}

static void add_to(uint64_t &to, uint64_t from)
{
    to += from;
}

static void add_to(Tlb_Cost &to, const Tlb_Cost &from)
{
    to += from;
}

static void add_to(Tlb_Interval &to, const Tlb_Interval &from)
{
    to.instructions += from.instructions;
    to.cost += from.cost;
}

static void add_to(Tlb_Region &to, const Tlb_Region &from)
{
    to.pages += from.pages;
    to.walks += from.walks;
    to.walks_if_one += from.walks_if_one;
}

static void add_to(Level_Figures &to, const Level_Figures &from)
{
    to.lookups += from.lookups;
    to.misses += from.misses;
    to.reach += from.reach;
    to.most_reach += from.most_reach;
}

static void add_to(Walk_Figures &to, const Walk_Figures &from)
{
    to.walks += from.walks;
    to.entries += from.entries;
    for (size_t stage = 0; stage < WALK_STAGES; stage++)
        for (size_t level = 0; level < WALK_LEVELS; level++)
            to.reads[stage][level] += from.reads[stage][level];
}

template <class List> static void add_list(List &to, const List &from);

static void add_to(Distance_Counts &to, const Distance_Counts &from)
{
    to.first_uses += from.first_uses;
    add_list(to.times, from.times);
}

template <class List> static void add_list(List &to, const List &from)
{
    if constexpr (requires { to.resize(from.size()); })
        to.resize(std::max(to.size(), from.size()));
    for (size_t i = 0; i < from.size(); i++)
        add_to(to[i], from[i]);
}

template <class Table> static void add_table(Table &to, const Table &from)
{
    for (const auto &[key, value] : from)
        add_to(to[key], value);
}

void Tlb_Figures::add(const Tlb_Figures &other)
{
    instructions += other.instructions;
    suspect += other.suspect;
    remapped += other.remapped;
    read_entries += other.read_entries;
    walk_cache_hits += other.walk_cache_hits;
    nested_cache_hits += other.nested_cache_hits;
    switches += other.switches;
    partition_switches += other.partition_switches;
    add_to(after_switch, other.after_switch);
    add_list(translated, other.translated);
    add_list(untranslated, other.untranslated);
    add_list(not_known, other.not_known);
    add_list(walks_of, other.walks_of);
    add_list(levels, other.levels);
    add_list(kinds, other.kinds);
    add_list(series, other.series);
    add_list(distances, other.distances);
    add_table(partitions, other.partitions);
    add_table(processes, other.processes);
    add_table(page_sizes, other.page_sizes);
    add_table(instructions_at, other.instructions_at);
    add_table(pages, other.pages);
    add_table(regions, other.regions);
}

} // namespace qtrace_tool
