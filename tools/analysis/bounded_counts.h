// What is counted for each of many keys, in bounded memory: the heaviest keys, and all keys or a sample of them.
#pragma once

#include "flat_table.h"
#include "mixed_hash.h"

#include <algorithm>
#include <functional>
#include <vector>

namespace qtrace_tool
{

// Values of keys: exact while there are no more than `most` keys, which is at least 2. Then the lighter half of them is
// forgotten, so that the weight of any key may be too low, by at most shortfall(). Weigh makes a number of a value.
template <class Key, class Value, class Hash, class Weigh> class Heavy_Keys
{
public:
    using Table = Flat_Table<Key, Value, Hash>;

    explicit Heavy_Keys(size_t most) : most_(most) {}

    // Valid until the next call.
    Value &operator[](const Key &key)
    {
        const uint32_t number = table_.number(key);
        if (table_.size() <= most_)
            return table_.value(number);
        forget_light_ones();
        return table_[key];
    }
    void add(const Heavy_Keys &other)
    {
        shortfall_ += other.shortfall_;
        for (const auto &[key, value] : other.table_)
            (*this)[key] += value;
    }
    const Table &table() const { return table_; }
    uint64_t shortfall() const { return shortfall_; }

private:
    void forget_light_ones()
    {
        std::vector<uint64_t> weights;
        for (const auto &[key, value] : table_)
            weights.push_back(Weigh()(value));
        const auto middle = weights.begin() + static_cast<std::ptrdiff_t>(most_ / 2);
        std::ranges::nth_element(weights, middle, std::ranges::greater());
        const uint64_t limit = *middle;
        auto at_limit = most_ / 2 - static_cast<size_t>(std::count_if(
                                        weights.begin(), middle, [=](uint64_t weight) { return weight > limit; }));
        table_.keep_if([&](const Key &, uint32_t number) {
            const uint64_t weight = Weigh()(table_.value(number));
            return weight > limit || (weight == limit && at_limit > 0 && at_limit-- > 0);
        });
        shortfall_ += limit;
    }

    Table table_;
    size_t most_;
    uint64_t shortfall_ = 0;
};

// Values of keys: exact while there are no more than `most` keys. Then only a sample is kept, 1 key in 2^shift(): those
// whose hash begins with so many zero bits, for the least shift with which they are no more than `most`. Which they are
// depends on the keys alone, not on their order. The values of the sample are exact; the heaviest keys beside it are
// kept as Heavy_Keys does.
template <class Key, class Value, class Hash, class Weigh> class Bounded_Counts
{
public:
    using Table = Flat_Table<Key, Value, Hash>;
    static constexpr size_t MOST = 1 << 20;
    static constexpr size_t MOST_HEAVY = 16384;

    explicit Bounded_Counts(size_t most = MOST) : most_(most), heavy_(std::min(most, MOST_HEAVY)) {}

    void add(const Key &key, const Value &value)
    {
        if (is_estimate())
            heavy_[key] += value;
        put(key, value);
    }
    void add(const Bounded_Counts &other)
    {
        if (other.is_estimate())
            return add_estimate(other);
        for (const auto &[key, value] : other.sample_)
            add(key, value);
    }

    // By number, for those that keep more for each key of the sample: the key is in the sample. A new one gets the number
    // size() - 1. Then thin() may be due.
    uint32_t number(const Key &key) { return sample_.number(key); }
    bool is_sampled(const Key &key) const { return is_in(key, shift_); }
    bool is_full() const { return sample_.size() > most_; }
    // Calls kept(number) for each key that stays in the sample, in the order of their new numbers from 0 on.
    template <class Kept> void thin(Kept kept)
    {
        unsigned shift = shift_;
        while (count(shift) > most_)
            shift++;
        thin_to(shift, kept);
    }
    // Of a key that is in the sample, with its number.
    void add_to(uint32_t number, const Value &value)
    {
        sample_.value(number) += value;
        if (is_estimate())
            heavy_[sample_.key(number)] += value;
    }

    const Table &sample() const { return sample_; }
    bool is_estimate() const { return shift_ > 0; }
    unsigned shift() const { return shift_; }
    // All keys, or the heaviest ones; their weights may be too low by at most shortfall().
    const Table &heaviest() const { return is_estimate() ? heavy_.table() : sample_; }
    uint64_t shortfall() const { return heavy_.shortfall(); }

private:
    static bool is_in(const Key &key, unsigned shift)
    {
        return shift == 0 || mixed(0, Hash()(key)) >> (64 - shift) == 0;
    }
    size_t count(unsigned shift) const
    {
        return static_cast<size_t>(std::count_if(sample_.begin(), sample_.end(),
                                                 [=](const auto &entry) { return is_in(entry.first, shift); }));
    }
    void put(const Key &key, const Value &value)
    {
        if (!is_sampled(key))
            return;
        sample_[key] += value;
        if (is_full())
            thin([](uint32_t) {});
    }
    void add_estimate(const Bounded_Counts &other)
    {
        thin_to(std::max(shift_, other.shift_), [](uint32_t) {});
        heavy_.add(other.heavy_);
        for (const auto &[key, value] : other.sample_)
            put(key, value);
    }
    template <class Kept> void thin_to(unsigned shift, Kept kept)
    {
        if (shift == shift_)
            return;
        if (shift_ == 0)
            for (const auto &[key, value] : sample_)
                heavy_[key] = value; // which it has not yet
        shift_ = shift;
        sample_.keep_if([&](const Key &key, uint32_t number) {
            const bool stays = is_sampled(key);
            if (stays)
                kept(number);
            return stays;
        });
    }

    size_t most_;
    unsigned shift_ = 0;
    Table sample_;
    Heavy_Keys<Key, Value, Hash, Weigh> heavy_;
};

} // namespace qtrace_tool
