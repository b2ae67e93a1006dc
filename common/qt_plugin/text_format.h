// Formatting into memory with formats that are taken apart by the compiler: put<"(seq:%ld,tid:%d) ">(out, ...)
// copies the literal parts and converts the arguments in place, without looking at the format at run time. The
// bytes are those that printf would give.
#pragma once

#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

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

// What a digit above 9 lies beyond '0' + digit.
inline constexpr char UPPER_CASE = 'A' - '9' - 1;
inline constexpr char LOWER_CASE = 'a' - '9' - 1;

typedef char Digits __attribute__((vector_size(16)));
typedef uint64_t Digit_Words __attribute__((vector_size(16)));

// The sixteen hexadecimal digits of `value`, the highest first.
inline Digits hex_digits(uint64_t value, char letter)
{
    const uint64_t bytes = __builtin_bswap64(value);
    const auto high = reinterpret_cast<Digits>(Digit_Words{bytes >> 4, 0});
    const auto low = reinterpret_cast<Digits>(Digit_Words{bytes, 0});
    const Digits digits =
        __builtin_shufflevector(high, low, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23) & 15;
    return digits + '0' + ((digits > 9) & letter);
}

inline char *put_hex64(char *out, uint64_t value, char letter)
{
    const Digits digits = hex_digits(value, letter);
    memcpy(out, &digits, 16);
    return out + 16;
}

inline char *put_hex32(char *out, uint32_t value, char letter)
{
    const Digits digits = hex_digits(uint64_t{value} << 32, letter);
    memcpy(out, &digits, 8);
    return out + 8;
}

inline constexpr size_t DECIMAL_DIGITS = 20; // of any 64-bit number, with its sign

// Most decimal numbers of a line have one digit.
template <class Number> inline char *put_decimal(char *out, Number value)
{
    if (value < 0 || value > 9)
        return std::to_chars(out, out + DECIMAL_DIGITS, value).ptr;
    *out = static_cast<char>('0' + value);
    return out + 1;
}

// A word of at most 8 bytes, copied as a whole whatever its length: there must be room for it.
struct Short_Word {
    char text[8];
    size_t length;
    // NOLINTNEXTLINE(google-explicit-constructor): string literals are to be used as words as they stand
    template <size_t N> consteval Short_Word(const char (&literal)[N]) : text{}, length(N - 1)
    {
        static_assert(N - 1 <= sizeof text);
        for (size_t i = 0; i < length; ++i)
            text[i] = literal[i];
    }
};

inline char *put_text(char *out, const Short_Word &word)
{
    memcpy(out, word.text, sizeof word.text);
    return out + word.length;
}

inline char *put_text(char *out, std::string_view text)
{
    memcpy(out, text.data(), text.size());
    return out + text.size();
}

// The text from `from` on. Each conversion takes an argument of just its type, so that none is cut or widened
// without the caller's knowledge.
template <Format format, size_t from = 0> inline char *put(char *out)
{
    static_assert(format.find_conversion(from) == format.length, "an argument is missing");
    memcpy(out, format.text + from, format.length - from);
    return out + (format.length - from);
}

template <Format format, size_t from = 0, class First, class... Rest>
inline char *put(char *out, const First &first, const Rest &...rest)
{
    constexpr size_t at = format.find_conversion(from);
    static_assert(at < format.length, "more arguments than conversions");
    memcpy(out, format.text + from, at - from);
    out += at - from;
    if constexpr (format.has("%s", at)) {
        return put<format, at + 2>(put_text(out, first), rest...);
    } else if constexpr (format.has("%c", at)) {
        static_assert(sizeof(First) == sizeof(char));
        *out = first;
        return put<format, at + 2>(out + 1, rest...);
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
