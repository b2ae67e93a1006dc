// What a run of the TLB model counted. Everything is a count, so that threads add up.
#pragma once

#include "bounded_counts.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <vector>

namespace qtrace_tool
{

// How an address was translated.
enum class Xlate_Kind : uint8_t {
    host,       // one radix walk of the host
    guest_real, // a guest's real address, by one radix walk of the host
    nested,     // a guest's radix walk, each step of it by one of the host
    hash        // hashed page table: records do not name the entries that were read
};
inline constexpr size_t XLATE_KINDS = 4;

enum class Walk_Stage : uint8_t { guest, host };
inline constexpr size_t WALK_STAGES = 2;
inline constexpr size_t WALK_LEVELS = 4; // directories of levels 1 to 3, page-table entry

// A page of one address space, as a TLB entry names it.
struct Tlb_Page {
    uint64_t first = 0; // its first effective address
    uint64_t space = 0; // pid, 0 for kernel and guest real addresses; of hashed page tables the VSID
    uint64_t lpid = 0;  // 0 for translations of the host
    Xlate_Kind kind = Xlate_Kind::host;
    uint8_t bits = 12;                                  // its size as a power of two
    auto operator<=>(const Tlb_Page &) const = default; // NOLINT(modernize-use-nullptr): there is no 0
};
struct Tlb_Page_Hash {
    size_t operator()(const Tlb_Page &page) const
    {
        const uint64_t space = page.space * 0xD6E8FEB86659FD93u ^ page.lpid << 32;
        return ((page.first ^ space) + page.bits + (static_cast<uint64_t>(page.kind) << 8)) * 0x9E3779B97F4A7C15u >>
               32;
    }
};

struct Address_Hash {
    size_t operator()(uint64_t address) const { return address * 0x9E3779B97F4A7C15u >> 32; }
};

// Walks of one kind.
struct Walk_Figures {
    uint64_t walks = 0;
    uint64_t entries = 0;                          // that the walks consist of
    uint64_t reads[WALK_STAGES][WALK_LEVELS] = {}; // those that no cache held
    uint64_t read() const;
};

// What accesses cost, as a row of a table.
struct Tlb_Cost {
    uint64_t accesses = 0;
    uint64_t walks = 0;
    uint64_t read = 0; // table entries
    Tlb_Cost &operator+=(const Tlb_Cost &other);
};

struct Level_Figures {
    uint64_t lookups = 0;
    uint64_t misses = 0;
    uint64_t reach = 0, most_reach = 0; // bytes
};

// Instructions of the series: as many as --interval says, fewer in the last.
struct Tlb_Interval {
    uint64_t instructions = 0;
    Tlb_Cost cost;
};

// A range of 2 MiB in one address space.
struct Tlb_Region {
    uint64_t pages = 0;        // smaller ones that were used in it
    uint64_t walks = 0;        // for them
    uint64_t walks_if_one = 0; // in the same model with pages of 2 MiB at least
    Tlb_Region &operator+=(const Tlb_Region &other);
};
inline constexpr uint8_t REGION_BITS = 21;

struct Weight_Of_Walks {
    template <class Value> uint64_t operator()(const Value &value) const { return value.walks; }
};
using Page_Costs = Bounded_Counts<Tlb_Page, Tlb_Cost, Tlb_Page_Hash, Weight_Of_Walks>;
using Instruction_Costs = Heavy_Keys<uint64_t, Tlb_Cost, Address_Hash, Weight_Of_Walks>;
using Region_Costs = Heavy_Keys<Tlb_Page, Tlb_Region, Tlb_Page_Hash, Weight_Of_Walks>;

// Stack distances of accesses: how many other pages were used since the last use of the page. Of a sample of the pages,
// 1 in 2^shift, each access stands for 2^shift, and so does each page between.
class Distance_Counts
{
public:
    static constexpr size_t NEVER = std::numeric_limits<size_t>::max();

    // `distance` within the sample; NEVER for a first use.
    void count(size_t distance, unsigned shift = 0);
    // An access to a page that is not in the sample.
    void count_unsampled() { accesses_++; }
    void add(const Distance_Counts &other);

    uint64_t accesses() const { return accesses_; }
    uint64_t first_uses() const { return std::min(first_uses_, accesses_); }
    bool is_estimate() const { return estimate_; } // all but accesses()
    // Misses of a fully associative TLB of so many entries: of up to NEAR, or of a number in sizes().
    uint64_t misses(uint64_t entries) const;
    // 1, 2, 3, 4, 6, 8, 12, ... up to the first size that only first uses miss.
    std::vector<uint64_t> sizes() const;

private:
    static constexpr unsigned NEAR_BITS = 16;
    static constexpr size_t NEAR = size_t{1} << NEAR_BITS;
    static size_t far_place(uint64_t distance);

    uint64_t accesses_ = 0, first_uses_ = 0;
    bool estimate_ = false;
    std::vector<uint64_t> times_;                            // by distance, below NEAR
    std::array<uint64_t, 2 * size_t{64 - NEAR_BITS}> far_{}; // by powers of two from NEAR on, in halves
};

struct Partition_Key {
    uint64_t lpid = 0;
    uint32_t pid = 0;
    auto operator<=>(const Partition_Key &) const = default; // NOLINT(modernize-use-nullptr): there is no 0
};

// What is kept of pages, and of instructions and of ranges that have walks, is exact up to so many.
struct Tlb_Limits {
    size_t pages = Page_Costs::MOST;
    size_t others = 1 << 16;
};

struct Tlb_Figures {
    explicit Tlb_Figures(const Tlb_Limits &limits = {})
        : instructions_at(limits.others), pages(limits.pages), regions(limits.others)
    {
    }
    uint64_t instructions = 0;
    // Accesses of the two sides, fetches first: looked up; with relocation off; that the trace does not tell.
    std::array<uint64_t, 2> translated{}, untranslated{}, not_known{};
    std::array<uint64_t, 2> walks_of{}; // the translated ones that every level missed
    uint64_t suspect = 0;               // data accesses whose translation failed
    uint64_t remapped = 0;              // accesses to a page that had another real page before: they miss
    std::vector<Level_Figures> levels;
    std::array<Walk_Figures, XLATE_KINDS> kinds;
    uint64_t read_entries = 0; // table entries that no cache held
    uint64_t walk_cache_hits = 0, nested_cache_hits = 0;
    uint64_t switches = 0, partition_switches = 0; // of partition or process; of them, of partition
    Tlb_Interval after_switch;                     // the first thousand instructions after each of them
    std::vector<Tlb_Interval> series;
    std::vector<Distance_Counts> distances; // one, or fetch and data
    std::map<uint64_t, Tlb_Cost> partitions;
    std::map<Partition_Key, Tlb_Cost> processes;
    std::map<uint8_t, Tlb_Cost> page_sizes; // by power of two
    Instruction_Costs instructions_at;      // that caused walks; without their other accesses
    Page_Costs pages;
    Region_Costs regions; // and pages that are as large

    // Whether the curves, the remapped accesses and the numbers of pages in ranges are from a sample of the pages.
    bool is_estimate() const;
    uint64_t accesses() const { return translated[0] + translated[1]; }
    uint64_t walks() const;
    uint64_t entries() const;
    void add(const Tlb_Figures &other);
};

} // namespace qtrace_tool
