// Least-recently-used replacement: one level of a TLB, a small cache of keys, and stack distances, which tell the
// misses of every size at once. All are exact.
#pragma once

#include "tlb_figures.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <list>
#include <unordered_map>
#include <vector>

namespace qtrace_tool
{

// A page with the hash that tables look it up by.
struct Hashed_Page {
    explicit Hashed_Page(const Tlb_Page &of) : page(of), hash(Tlb_Page_Hash()(of)) {}
    Tlb_Page page;
    size_t hash;
};

// One level of a TLB: sets of `ways` entries.
class Tlb_Level
{
public:
    // `entries` is a multiple of `ways`; both at least 1.
    Tlb_Level(uint32_t entries, uint32_t ways);

    // Whether the page is held; it becomes the most recently used of its set.
    bool touch(const Hashed_Page &page);
    // Takes a page that is not held, with its real page, in place of the least recently used of its set: that of the
    // page's number, modulo the number of sets.
    void insert(const Hashed_Page &page, uint64_t real);
    void drop(const Hashed_Page &page);
    // Whether the page was held with another real page, and is dropped for it.
    bool drop_other(const Hashed_Page &page, uint64_t real);
    void clear();

    uint64_t reach() const { return reach_; }           // bytes that the entries cover now
    uint64_t most_reach() const { return most_reach_; } // the most that they covered

private:
    static constexpr uint32_t NONE = std::numeric_limits<uint32_t>::max();
    struct Slot {
        Hashed_Page name{Tlb_Page{}};
        uint64_t real = 0;
        uint32_t set = 0, older = NONE, newer = NONE;
        bool held = false;
        uint64_t bytes() const { return uint64_t{1} << name.page.bits; }
    };
    struct Set {
        uint32_t newest, oldest;
    };
    void unlink(uint32_t slot);
    void link_newest(uint32_t slot);
    void link_oldest(uint32_t slot);
    void release(uint32_t slot);
    void drop_slot(uint32_t slot);
    size_t place_of(const Hashed_Page &page) const;
    void take_out(size_t place);

    std::vector<Slot> slots_; // those of a set are adjacent and all linked; free ones are the oldest
    std::vector<Set> sets_;
    std::vector<uint32_t> places_; // slots by hash; at most half of the places are taken
    uint64_t reach_ = 0, most_reach_ = 0;
};

// A fully associative cache of keys. One of 0 entries holds nothing.
class Lru_Keys
{
public:
    struct Key {
        uint64_t space, value;
        bool operator==(const Key &) const = default;
    };
    explicit Lru_Keys(size_t entries) : entries_(entries) {}

    // Whether the key is held; afterwards it is, as the most recently used.
    bool use(Key key);
    void clear();

private:
    struct Hash {
        size_t operator()(const Key &key) const { return (key.value ^ key.space << 52) * 0x9E3779B97F4A7C15u >> 7; }
    };
    size_t entries_;
    std::list<Key> order_; // most recently used first
    std::unordered_map<Key, std::list<Key>::iterator, Hash> places_;
};

// How many other pages were used since the last use of each page. Pages are dense numbers that the caller gives out.
class Lru_Distances
{
public:
    static constexpr size_t NEVER = std::numeric_limits<size_t>::max();

    // The distance of this use, or NEVER for a page that was not used since it was forgotten.
    size_t use(uint32_t page);
    void forget(uint32_t page);
    void clear(); // forgets all pages
    // Forgets all but these pages, which are in ascending order: each gets its place among them as its number.
    void keep(const std::vector<uint32_t> &pages);

private:
    // The most recently used pages stand in an array; older ones are a bit each, at the time of their last use. A Fenwick
    // tree counts the bits of words before another.
    static constexpr size_t RECENT = 16;
    static constexpr size_t WORD = 64; // bits
    void age(uint32_t page);
    void age_all();
    bool is_old(uint32_t page) const { return page < time_of_.size() && time_of_[page] > cleared_; }
    size_t take_old(uint32_t page);
    void make_room();
    void add(uint32_t time, int32_t amount);
    uint32_t count_up_to(uint32_t time) const;

    std::vector<uint32_t> recent_; // most recent first
    std::deque<uint32_t> time_of_; // by page; those up to cleared_ mean nothing
    std::vector<uint64_t> held_;   // a bit for each time, from 0 on
    std::vector<uint32_t> tree_;   // of the numbers of bits in the words; from 1 on
    uint32_t last_time_ = 0;
    uint32_t cleared_ = 0; // the time up to which pages were forgotten at once, though their bits are there
    uint32_t bits_ = 0;
};

} // namespace qtrace_tool
