// Clears members of a record that is used again. The compiler's own choice for a few hundred bytes is a string
// instruction or a library call, which cost more than the stores.
#pragma once

#include <cstddef>
#include <cstring>
#include <utility>

// For a function that clears: it is there twice, and on processors with stores of 32 bytes it uses them, which takes
// half the time. Such a function cannot be inlined.
#define WIDE_STORES __attribute__((target_clones("avx2", "default")))

// Without them the compiler makes two stores of each.
constexpr size_t WIDE = 32;
typedef char Wide_Chunk __attribute__((vector_size(WIDE), aligned(1), may_alias));

template <size_t... chunk>
inline __attribute__((always_inline)) void clear_chunks(char *at, std::index_sequence<chunk...>)
{
    ((*reinterpret_cast<Wide_Chunk *>(at + WIDE * chunk) = Wide_Chunk{}), ...);
}

template <size_t size> inline __attribute__((always_inline)) void clear_bytes(void *at)
{
    auto *bytes = static_cast<char *>(at);
    constexpr size_t half = size / WIDE * WIDE, rest = size / 16 * 16;
    clear_chunks(bytes, std::make_index_sequence<size / WIDE>());
    if constexpr (rest != half)
        memset(bytes + half, 0, 16);
    if constexpr (size != rest)
        memset(bytes + rest, 0, size - rest);
}

// Clears the members of *record from `first` up to the one before `after`.
#define CLEAR_MEMBERS(Record, record, first, after)                                                                \
    clear_bytes<offsetof(Record, after) - offsetof(Record, first)>(&(record)->first)
