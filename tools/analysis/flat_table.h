// A hash table whose entries stay in the order in which they came, so that each has a number. It takes 4 to 11 bytes an
// entry beside keys and values, also while it grows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
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

    // Entries by number.
    class Iterator
    {
    public:
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        using iterator_concept = std::forward_iterator_tag;

        Iterator() = default;
        Iterator(const Flat_Table &table, size_t number) : table_(&table), number_(number) {}
        const Entry &operator*() const { return table_->entry(number_); }
        const Entry *operator->() const { return &table_->entry(number_); }
        Iterator &operator++()
        {
            number_++;
            return *this;
        }
        // NOLINTNEXTLINE(cert-dcl21-cpp): a forward iterator returns one that can be moved
        Iterator operator++(int) { return {*table_, number_++}; }
        bool operator==(const Iterator &) const = default;

    private:
        const Flat_Table *table_ = nullptr;
        size_t number_ = 0;
    };

    size_t size() const { return size_; }
    Iterator begin() const { return {*this, 0}; }
    Iterator end() const { return {*this, size_}; }
    // The number of the key, which is added with a value of its own when it is new: then it is size() - 1.
    uint32_t number(const Key &key)
    {
        if (size_ >= places_.size() / 4 * 3)
            grow();
        uint32_t &place = places_[place_of(key)];
        if (place == FREE) {
            place = static_cast<uint32_t>(size_);
            push({key, {}});
        }
        return place;
    }
    const Key &key(uint32_t number) const { return entry(number).first; }
    Value &value(uint32_t number) { return chunks_[number / CHUNK][number % CHUNK].second; }
    Value &operator[](const Key &key) { return value(number(key)); }

    // Keeps the entries for which keep(key, number) is true, in their order: they get new numbers.
    template <class Keep> void keep_if(Keep keep)
    {
        size_t kept = 0;
        for (size_t i = 0; i < size_; i++) {
            Entry &old = chunks_[i / CHUNK][i % CHUNK];
            if (keep(std::as_const(old.first), static_cast<uint32_t>(i))) {
                chunks_[kept / CHUNK][kept % CHUNK] = old;
                kept++;
            }
        }
        cut_to(kept);
        fill_places(places_.size());
    }

private:
    static constexpr uint32_t FREE = std::numeric_limits<uint32_t>::max();
    static constexpr size_t CHUNK = 1024; // entries; they are not moved when more come, but for those of the first

    const Entry &entry(size_t number) const { return chunks_[number / CHUNK][number % CHUNK]; }
    void push(const Entry &entry)
    {
        if (size_ % CHUNK == 0) {
            chunks_.emplace_back();
            chunks_.back().reserve(size_ == 0 ? 0 : CHUNK);
        }
        chunks_.back().push_back(entry);
        size_++;
    }
    void cut_to(size_t size)
    {
        chunks_.resize((size + CHUNK - 1) / CHUNK);
        if (size % CHUNK != 0)
            chunks_.back().resize(size % CHUNK);
        size_ = size;
    }
    size_t place_of(const Key &key) const
    {
        const size_t mask = places_.size() - 1;
        size_t place = Hash()(key) & mask;
        while (places_[place] != FREE && !(entry(places_[place]).first == key))
            place = (place + 1) & mask;
        return place;
    }
    void grow() { fill_places(places_.empty() ? 64 : places_.size() * 2); }
    void fill_places(size_t size)
    {
        std::vector<uint32_t>().swap(places_);
        places_.assign(size, FREE);
        for (size_t i = 0; i < size_; i++)
            places_[place_of(entry(i).first)] = static_cast<uint32_t>(i);
    }

    std::vector<std::vector<Entry>> chunks_; // all full but the last
    size_t size_ = 0;
    std::vector<uint32_t> places_; // numbers by hash
};

} // namespace qtrace_tool
