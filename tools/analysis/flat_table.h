// A hash table whose entries lie one after the other in the order in which they came, so that each has a number. It
// takes 4 to 11 bytes an entry beside keys and values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace qtrace_tool
{

template <class Key, class Value, class Hash> class Flat_Table
{
public:
    using Entry = std::pair<Key, Value>;
    using const_pointer = const Entry *;

    size_t size() const { return entries_.size(); }
    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }
    // The number of the key, which is added with a value of its own when it is new: then it is size() - 1.
    uint32_t number(const Key &key)
    {
        if (entries_.size() >= places_.size() / 4 * 3)
            grow();
        uint32_t &place = places_[place_of(key)];
        if (place == FREE) {
            place = static_cast<uint32_t>(entries_.size());
            entries_.push_back({key, {}});
        }
        return place;
    }
    const Key &key(uint32_t number) const { return entries_[number].first; }
    Value &value(uint32_t number) { return entries_[number].second; }
    Value &operator[](const Key &key) { return value(number(key)); }

private:
    static constexpr uint32_t FREE = std::numeric_limits<uint32_t>::max();

    size_t place_of(const Key &key) const
    {
        const size_t mask = places_.size() - 1;
        size_t place = Hash()(key) & mask;
        while (places_[place] != FREE && !(entries_[places_[place]].first == key))
            place = (place + 1) & mask;
        return place;
    }
    void grow()
    {
        const size_t size = places_.empty() ? 64 : places_.size() * 2;
        std::vector<uint32_t>().swap(places_);
        places_.assign(size, FREE);
        for (size_t i = 0; i < entries_.size(); i++)
            places_[place_of(entries_[i].first)] = static_cast<uint32_t>(i);
    }

    std::vector<Entry> entries_;
    std::vector<uint32_t> places_; // numbers by hash
};

} // namespace qtrace_tool
