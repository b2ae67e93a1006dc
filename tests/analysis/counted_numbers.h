// Numbers that are counted in bounded memory.
#pragma once

#include "bounded_counts.h"

#include <map>

namespace qtrace_tool
{

struct Number_Hash {
    size_t operator()(uint64_t key) const { return key * 0x9E3779B97F4A7C15u >> 7; }
};
struct Number_Weight {
    uint64_t operator()(uint64_t value) const { return value; }
};
using Heavy = Heavy_Keys<uint64_t, uint64_t, Number_Hash, Number_Weight>;
using Counts = Bounded_Counts<uint64_t, uint64_t, Number_Hash, Number_Weight>;
using Values = std::map<uint64_t, uint64_t>;

template <class Table> Values values_of(const Table &table)
{
    Values values;
    for (const auto &[key, value] : table)
        values[key] = value;
    return values;
}

// Keys first, first + 1, ..., each with its own number as value.
inline Counts counts_of(uint64_t first, uint64_t end, size_t most)
{
    Counts counts(most);
    for (uint64_t key = first; key < end; key++)
        counts.add(key, key);
    return counts;
}

} // namespace qtrace_tool
