// Least-recently-used replacement: one level of a TLB, a small cache of keys, and stack distances, which tell the
// misses of every size at once. All are exact.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <unordered_map>
#include <vector>

namespace qtrace_tool
{

// One level of a TLB: sets of `ways` entries. Pages are dense numbers that the caller gives out.
class Tlb_Level
{
public:
    // `entries` is a multiple of `ways`; both at least 1.
    Tlb_Level(uint32_t entries, uint32_t ways);

    // Whether the page is held; it becomes the most recently used of its set.
    bool touch(uint32_t page);
    // Takes a page that is not held, in place of the least recently used of its set. `index` modulo the number of
    // sets names the set; `bytes` is the page's size.
    void insert(uint32_t page, uint64_t index, uint64_t bytes);
    void drop(uint32_t page);
    void clear();

    uint64_t reach() const { return reach_; }           // bytes that the entries cover now
    uint64_t most_reach() const { return most_reach_; } // the most that they covered

private:
    static constexpr uint32_t NONE = std::numeric_limits<uint32_t>::max();
    struct Slot {
        uint32_t page = NONE, set = 0, older = NONE, newer = NONE;
        uint64_t bytes = 0;
    };
    struct Set {
        uint32_t newest, oldest;
    };
    void unlink(uint32_t slot);
    void link_newest(uint32_t slot);
    void link_oldest(uint32_t slot);
    void release(uint32_t slot);

    std::vector<Slot> slots_; // those of a set are adjacent and all linked; free ones are the oldest
    std::vector<Set> sets_;
    std::vector<uint32_t> slot_of_; // by page
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

// How many other pages were used since the last use of each page.
class Lru_Distances
{
public:
    static constexpr size_t NEVER = std::numeric_limits<size_t>::max();

    // The distance of this use, or NEVER for a page that was not used since it was forgotten.
    size_t use(uint32_t page);
    void forget(uint32_t page);
    void clear(); // forgets all pages

private:
    // The most recently used pages stand in an array; older ones in a Fenwick tree over the times of their last use.
    static constexpr size_t RECENT = 16;
    void age(uint32_t page);
    size_t take_from_tree(uint32_t page);
    void make_room();
    void add(uint32_t time, int32_t amount);
    uint32_t count_up_to(uint32_t time) const;

    std::vector<uint32_t> recent_;  // most recent first
    std::vector<uint32_t> time_of_; // by page; 0: not in the tree
    std::vector<uint32_t> page_at_; // by time, up to the last; meaningful while time_of_ agrees
    std::vector<int32_t> tree_;     // by time, from 1
    uint32_t last_time_ = 0, in_tree_ = 0;
};

} // namespace qtrace_tool
