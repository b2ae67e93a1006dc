// A hash table that never grows beyond a number of slots: when it is full, everything in it is forgotten.
#pragma once

#include "mixed_hash.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qtrace_tool
{

// Keys come from mixed().
template <class Value> class Bounded_Table
{
public:
    explicit Bounded_Table(size_t most_slots) : most_(most_slots), slots_(FIRST) {}

    // Null when the key is not there. Valid until the next insert().
    Value *find(uint64_t key)
    {
        Slot &slot = slots_[place_of(key)];
        return slot.key == key ? &slot.value : nullptr;
    }
    const Value *find(uint64_t key) const
    {
        const Slot &slot = slots_[place_of(key)];
        return slot.key == key ? &slot.value : nullptr;
    }
    // Whether there is room for fewer than ROOM more. The caller clears the table then, and what depends on it.
    bool is_full() const { return used_ + ROOM >= most_ / 4 * 3; }
    // A key that is not there, with a value of its own. There must be room.
    Value &insert(uint64_t key)
    {
        if (used_ >= slots_.size() / 4 * 3)
            grow();
        Slot &slot = slots_[place_of(key)];
        slot = {key, {}};
        used_++;
        return slot.value;
    }
    void clear()
    {
        std::ranges::fill(slots_, Slot{});
        used_ = 0;
    }

private:
    static constexpr size_t FIRST = 256, ROOM = 64;
    struct Slot {
        uint64_t key = 0; // 0: free
        Value value{};
    };

    // Of the key, or of the free slot that it would take.
    size_t place_of(uint64_t key) const
    {
        size_t place = key & (slots_.size() - 1);
        while (slots_[place].key != 0 && slots_[place].key != key)
            place = (place + 1) & (slots_.size() - 1);
        return place;
    }
    void grow()
    {
        std::vector<Slot> old(slots_.size() * 2);
        old.swap(slots_);
        for (const Slot &slot : old)
            if (slot.key != 0)
                slots_[place_of(slot.key)] = slot;
    }

    size_t most_; // a power of two, as the number of slots is
    std::vector<Slot> slots_;
    size_t used_ = 0;
};

} // namespace qtrace_tool
