// Bytes of a trace file: little-endian numbers, variable-length numbers, growing and bounded byte ranges.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace trace
{

// Byte-array members and structure images are taken as they lie in memory, and the file is little-endian.
static_assert(std::endian::native == std::endian::little, "a big-endian machine needs the images swapped");

template <class Number> Number load(const void *from)
{
    Number value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <class Number> void store(void *to, Number value)
{
    std::memcpy(to, &value, sizeof value);
}

// Signed differences as small unsigned numbers: 0, -1, 1, -2 ... become 0, 1, 2, 3 ...
inline uint64_t zigzag(uint64_t difference)
{
    return (difference << 1) ^ (0 - (difference >> 63));
}

inline uint64_t unzigzag(uint64_t folded)
{
    return (folded >> 1) ^ (0 - (folded & 1));
}

// Writes into memory that is known to be large enough.
struct Byte_Sink {
    uint8_t *begin = nullptr;
    uint8_t *at = nullptr;

    size_t size() const { return static_cast<size_t>(at - begin); }
    void byte(uint8_t value) { *at++ = value; }
    template <class Number> void number(Number value)
    {
        store(at, value);
        at += sizeof value;
    }
    // Without a branch, for what cannot be foreseen. The bytes after `at` are overwritten in any case.
    template <class Number> void number_if(bool wanted, Number value)
    {
        store(at, value);
        at += wanted ? sizeof value : 0;
    }
    // Seven bits a byte, lowest first; bit 7 says that another byte follows.
    void varint(uint64_t value)
    {
        while (value >= 0x80) {
            *at++ = static_cast<uint8_t>(value | 0x80);
            value >>= 7;
        }
        *at++ = static_cast<uint8_t>(value);
    }
    void bytes(const void *from, size_t count)
    {
        if (count != 0)
            std::memcpy(at, from, count);
        at += count;
    }
    // The lowest `count` bytes of `value`, 0 to 8. Eight bytes after `at` are overwritten.
    void low_bytes(uint64_t value, unsigned count)
    {
        store(at, value);
        at += count;
    }
};

// Reads from memory that may end too early: then every read gives 0 and `bad` stays set.
struct Byte_Source {
    const uint8_t *at = nullptr;
    const uint8_t *end = nullptr;
    bool bad = false;

    size_t left() const { return static_cast<size_t>(end - at); }
    uint8_t byte() { return has(1) ? *at++ : uint8_t{0}; }
    void fail()
    {
        bad = true;
        at = end;
    }
    template <class Number> Number number()
    {
        if (!has(sizeof(Number)))
            return 0;
        at += sizeof(Number);
        return load<Number>(at - sizeof(Number));
    }
    uint64_t varint()
    {
        uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const uint8_t next = byte();
            value |= static_cast<uint64_t>(next & 0x7f) << shift;
            if (next < 0x80)
                return value;
        }
        fail();
        return 0;
    }
    uint64_t low_bytes(unsigned count)
    {
        if (!has(count))
            return 0;
        uint64_t value = 0;
        std::memcpy(&value, at, count);
        at += count;
        return value;
    }
    const uint8_t *bytes(size_t count)
    {
        if (!has(count))
            return nullptr;
        at += count;
        return at - count;
    }
    bool has(size_t count)
    {
        if (left() >= count) [[likely]]
            return true;
        fail();
        return false;
    }
};

} // namespace trace
