// Clears members of a record that is used again. The compiler's own choice for a few hundred bytes is a string
// instruction or a library call, which cost more than the stores.
#pragma once

#include <cstddef>
#include <cstring>
#include <utility>

template <size_t... chunk>
inline __attribute__((always_inline)) void clear_chunks(char *at, std::index_sequence<chunk...>)
{
    (memset(at + 16 * chunk, 0, 16), ...);
}

template <size_t size> inline __attribute__((always_inline)) void clear_bytes(void *at)
{
    auto *bytes = static_cast<char *>(at);
    clear_chunks(bytes, std::make_index_sequence<size / 16>());
    if constexpr (size % 16 != 0)
        memset(bytes + size / 16 * 16, 0, size % 16);
}

// Clears the members of *record from `first` up to the one before `behind`.
#define CLEAR_MEMBERS(Record, record, first, behind)                                                               \
    clear_bytes<offsetof(Record, behind) - offsetof(Record, first)>(&(record)->first)
