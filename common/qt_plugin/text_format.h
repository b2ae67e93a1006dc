// Formatting into memory with formats that are taken apart by the compiler: put<"(seq:%ld,tid:%d) ">(out, ...)
// copies the literal parts and converts the arguments in place, without looking at the format at run time. The
// bytes are those that printf would give.
#pragma once

#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Hexadecimal digits are put as the bytes of a word, the first one lowest.
static_assert(std::endian::native == std::endian::little, "a big-endian machine needs the digits swapped");

template <size_t N> struct Format {
    char text[N];
    static constexpr size_t length = N - 1;
    // NOLINTNEXTLINE(google-explicit-constructor): string literals are to be used as formats as they stand
    consteval Format(const char (&literal)[N])
    {
        for (size_t i = 0; i < N; ++i)
            text[i] = literal[i];
    }
    consteval size_t find_conversion(size_t from) const
    {
        while (from < length && text[from] != '%')
            ++from;
        return from;
    }
    consteval bool has(const char *conversion, size_t at) const
    {
        for (; *conversion; ++conversion, ++at)
            if (at >= length || text[at] != *conversion)
                return false;
        return true;
    }
};

// Eight hexadecimal digits of `value`, worked on as the eight bytes of one word. `letter` is what a digit above 9
// lies beyond '0' + digit: 'A' - '9' - 1 or 'a' - '9' - 1.
inline char *put_hex32(char *out, uint32_t value, uint64_t letter)
{
    uint64_t digits = __builtin_bswap32(value);
    digits = (digits | digits << 16) & 0x0000FFFF0000FFFFu;
    digits = (digits | digits << 8) & 0x00FF00FF00FF00FFu;
    digits = (digits >> 4 & 0x000F000F000F000Fu) | (digits << 8 & 0x0F000F000F000F00u);
    const uint64_t above_nine = (digits + 0x0606060606060606u) >> 4 & 0x0101010101010101u;
    digits += 0x3030303030303030u + above_nine * letter;
    memcpy(out, &digits, sizeof digits);
    return out + sizeof digits;
}

inline char *put_hex64(char *out, uint64_t value, uint64_t letter)
{
    out = put_hex32(out, static_cast<uint32_t>(value >> 32), letter);
    return put_hex32(out, static_cast<uint32_t>(value), letter);
}

inline constexpr uint64_t UPPER_CASE = 'A' - '9' - 1;
inline constexpr uint64_t LOWER_CASE = 'a' - '9' - 1;
inline constexpr size_t DECIMAL_DIGITS = 20; // of any 64-bit number, with its sign

// Most decimal numbers of a line have one digit.
template <class Number> inline char *put_decimal(char *out, Number value)
{
    if (value < 0 || value > 9)
        return std::to_chars(out, out + DECIMAL_DIGITS, value).ptr;
    *out = static_cast<char>('0' + value);
    return out + 1;
}

// The text from `from` on. Each conversion takes an argument of just its type, so that none is cut or widened
// behind the caller's back.
template <Format format, size_t from = 0> inline char *put(char *out)
{
    static_assert(format.find_conversion(from) == format.length, "an argument is missing");
    memcpy(out, format.text + from, format.length - from);
    return out + (format.length - from);
}

template <Format format, size_t from = 0, class First, class... Rest>
inline char *put(char *out, First first, Rest... rest)
{
    constexpr size_t at = format.find_conversion(from);
    static_assert(at < format.length, "more arguments than conversions");
    memcpy(out, format.text + from, at - from);
    out += at - from;
    if constexpr (format.has("%s", at)) {
        const size_t length = strlen(first);
        memcpy(out, first, length); // NOLINT(bugprone-not-null-terminated-result): no terminator is wanted
        return put<format, at + 2>(out + length, rest...);
    } else if constexpr (format.has("%d", at)) {
        static_assert(sizeof(First) == sizeof(int32_t) && First(-1) < First(0));
        return put<format, at + 2>(put_decimal(out, first), rest...);
    } else if constexpr (format.has("%ld", at)) {
        static_assert(sizeof(First) == sizeof(int64_t) && First(-1) < First(0));
        return put<format, at + 3>(put_decimal(out, first), rest...);
    } else if constexpr (format.has("%016lX", at)) {
        static_assert(sizeof(First) == sizeof(uint64_t));
        return put<format, at + 6>(put_hex64(out, first, UPPER_CASE), rest...);
    } else if constexpr (format.has("%016lx", at)) {
        static_assert(sizeof(First) == sizeof(uint64_t));
        return put<format, at + 6>(put_hex64(out, first, LOWER_CASE), rest...);
    } else if constexpr (format.has("%08X", at)) {
        static_assert(sizeof(First) == sizeof(uint32_t));
        return put<format, at + 4>(put_hex32(out, first, UPPER_CASE), rest...);
    } else {
        static_assert(format.has("%08x", at), "unknown conversion");
        static_assert(sizeof(First) == sizeof(uint32_t));
        return put<format, at + 4>(put_hex32(out, first, LOWER_CASE), rest...);
    }
}
