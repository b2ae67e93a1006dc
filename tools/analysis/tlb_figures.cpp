#include "tlb_figures.h"

#include <algorithm>
#include <bit>
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

Tlb_Region &Tlb_Region::operator+=(const Tlb_Region &other)
{
    pages += other.pages;
    walks += other.walks;
    walks_if_one += other.walks_if_one;
    return *this;
}

// ---- Distances -----------------------------------------------------------------------------------------

// The half of a power of two that the distance is in.
size_t Distance_Counts::far_place(uint64_t distance)
{
    const auto power = static_cast<unsigned>(std::bit_width(distance)) - 1;
    return 2 * size_t{power - NEAR_BITS} + (distance >> (power - 1) & 1);
}

void Distance_Counts::count(size_t distance, unsigned shift)
{
    const uint64_t uses = uint64_t{1} << shift;
    accesses_++;
    estimate_ |= shift > 0;
    if (distance == NEVER) {
        first_uses_ += uses;
        return;
    }
    distance <<= shift;
    if (distance >= NEAR) {
        far_[far_place(distance)] += uses;
        return;
    }
    if (distance >= times_.size())
        times_.resize(std::min(NEAR, std::max(distance + 1, times_.size() * 2)));
    times_[distance] += uses;
}

uint64_t Distance_Counts::misses(uint64_t entries) const
{
    const size_t near = std::min<uint64_t>(entries, times_.size());
    const size_t far = entries <= NEAR ? 0 : far_place(entries);
    uint64_t sum = std::accumulate(times_.begin() + static_cast<std::ptrdiff_t>(near), times_.end(), first_uses_);
    sum = std::accumulate(far_.begin() + static_cast<std::ptrdiff_t>(far), far_.end(), sum);
    return std::min(sum, accesses_);
}

std::vector<uint64_t> Distance_Counts::sizes() const
{
    std::vector<uint64_t> sizes{1};
    for (uint64_t power = 2; misses(sizes.back()) > first_uses(); power *= 2) {
        sizes.push_back(power);
        if (misses(power) > first_uses())
            sizes.push_back(power + power / 2);
    }
    return sizes;
}

// ---- Sums ----------------------------------------------------------------------------------------------

bool Tlb_Figures::is_estimate() const
{
    return std::ranges::any_of(distances, &Distance_Counts::is_estimate);
}

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

static void add_to(Distance_Counts &to, const Distance_Counts &from)
{
    to.add(from);
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

void Distance_Counts::add(const Distance_Counts &other)
{
    accesses_ += other.accesses_;
    first_uses_ += other.first_uses_;
    estimate_ |= other.estimate_;
    add_list(times_, other.times_);
    add_list(far_, other.far_);
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
    instructions_at.add(other.instructions_at);
    pages.add(other.pages);
    regions.add(other.regions);
}

} // namespace qtrace_tool
