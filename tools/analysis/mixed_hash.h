// One number out of several.
#pragma once

#include <cstdint>

namespace qtrace_tool
{

// A number that stands for several; never 0. Two different lists share one with a probability of 2^-64.
inline uint64_t mixed(uint64_t hash, uint64_t value)
{
    hash = (hash ^ value) * 0x9E3779B97F4A7C15u;
    hash = (hash ^ hash >> 32) * 0xD6E8FEB86659FD93u;
    hash ^= hash >> 29;
    return hash == 0 ? 1 : hash;
}

} // namespace qtrace_tool
