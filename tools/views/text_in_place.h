// Text that is written in place. Each function returns where the next character goes, and may write up to NUMBER_ROOM
// characters.
#pragma once

#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace qtrace_tool
{

inline constexpr size_t NUMBER_ROOM = 24;

// A text that is put often: copied whole, padding included, and then cut.
struct Padded_Text {
    static constexpr size_t CAPACITY = 64;

    char text[CAPACITY] = {};
    size_t size = 0;

    Padded_Text() = default;
    // No more than CAPACITY characters.
    explicit Padded_Text(std::string_view from) : size(from.copy(text, CAPACITY)) {}
};

// "0", "1", ... "999", each in four bytes: the digits, and how many there are.
inline constexpr std::array<char, 4000> SMALL_NUMBERS = [] {
    std::array<char, 4000> numbers{};
    for (size_t i = 0; i < 1000; i++) {
        const size_t size = i < 10 ? 1 : i < 100 ? 2 : 3;
        for (size_t digit = size, rest = i; digit > 0; rest /= 10)
            numbers[4 * i + --digit] = static_cast<char>('0' + rest % 10);
        numbers[4 * i + 3] = static_cast<char>(size);
    }
    return numbers;
}();

inline char *decimal_text(char *to, uint64_t value)
{
    if (value >= 1000)
        return std::to_chars(to, to + NUMBER_ROOM, value).ptr;
    const char *number = &SMALL_NUMBERS[4 * value];
    std::memcpy(to, number, 4);
    return to + number[3];
}

// The lowest `digits` digits (1 to 16): all sixteen are made at once, and those wanted come first.
inline char *hex_text(char *to, uint64_t value, unsigned digits)
{
    using Digits = char __attribute__((vector_size(16)));
    using Words = uint64_t __attribute__((vector_size(16)));
    const uint64_t bytes = __builtin_bswap64(value << (64 - 4 * digits));
    const auto high = reinterpret_cast<Digits>(Words{bytes >> 4, 0});
    const auto low = reinterpret_cast<Digits>(Words{bytes, 0});
    const Digits halves =
        __builtin_shufflevector(high, low, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23) & 15;
    const Digits text = halves + '0' + ((halves > 9) & char{'a' - '9' - 1});
    std::memcpy(to, &text, sizeof text);
    return to + digits;
}

// Without leading zeros.
inline char *hex_text(char *to, uint64_t value)
{
    return hex_text(to, value, (static_cast<unsigned>(std::bit_width(value | 1)) + 3) / 4);
}

} // namespace qtrace_tool
