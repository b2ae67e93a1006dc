#include "translation_table.h"

#include "trace_bytes.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace trace
{

namespace
{

constexpr size_t FIRST_PLACES = 1 << 10; // a power of two, as all sizes of the hash table

uint64_t hash_of(const QTRACE_Translation &row)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&row);
    uint64_t hash = 0;
    for (size_t at = 0; at < sizeof row; at += sizeof(uint64_t)) {
        hash = (hash ^ load<uint64_t>(bytes + at)) * 0x9E3779B97F4A7C15u;
        hash ^= hash >> 29;
    }
    return hash;
}

bool equal(const QTRACE_Translation &one, const QTRACE_Translation &other)
{
    return std::memcmp(&one, &other, sizeof one) == 0;
}

} // namespace

Translation_Table::Translation_Table() : places_(FIRST_PLACES)
{
    QTRACE_Translation absent{};
    absent.guest_mode = absent.host_mode = 3;
    number_of(absent);
}

size_t Translation_Table::place_of(const QTRACE_Translation &row) const
{
    size_t place = hash_of(row) & (places_.size() - 1);
    while (places_[place] != 0 && !equal(rows_[places_[place] - 1], row))
        place = (place + 1) & (places_.size() - 1);
    return place;
}

uint32_t Translation_Table::number_of(const QTRACE_Translation &row)
{
    const size_t place = place_of(row);
    if (places_[place] != 0)
        return places_[place] - 1;
    rows_.push_back(row);
    places_[place] = static_cast<uint32_t>(rows_.size());
    if (2 * rows_.size() > places_.size())
        grow();
    return static_cast<uint32_t>(rows_.size() - 1);
}

void Translation_Table::grow()
{
    const std::vector<uint32_t> old = std::exchange(places_, std::vector<uint32_t>(2 * places_.size()));
    for (const uint32_t entry : old)
        if (entry != 0)
            places_[place_of(rows_[entry - 1])] = entry;
}

} // namespace trace
