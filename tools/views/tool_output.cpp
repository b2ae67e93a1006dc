#include "tool_output.h"

#include <array>
#include <cerrno>
#include <unistd.h>

namespace qtrace_tool
{

std::string counted(uint64_t count, std::string_view noun, std::string_view nouns)
{
    if (count == 1)
        return fmt::format("1 {}", noun);
    return nouns.empty() ? fmt::format("{} {}s", count, noun) : fmt::format("{} {}", count, nouns);
}

// "000102...ff"
static consteval std::array<char, 512> hex_pairs()
{
    std::array<char, 512> pairs{};
    for (size_t i = 0; i < pairs.size(); i++)
        pairs[i] = "0123456789abcdef"[i % 2 == 0 ? i / 32 : i / 2 % 16];
    return pairs;
}
static constexpr std::array<char, 512> HEX_PAIRS = hex_pairs();

void Output::put_decimal(uint64_t value)
{
    if (value < 10) {
        put(static_cast<char>('0' + value));
        return;
    }
    const fmt::format_int text(value);
    put({text.data(), text.size()});
}

void Output::put_hex(uint64_t value)
{
    put_hex(value, value == 0 ? 1 : (67 - static_cast<unsigned>(__builtin_clzll(value))) / 4);
}

void Output::put_hex(uint64_t value, unsigned digits)
{
    char *to = room(digits);
    for (; digits >= 2; value >>= 8)
        std::memcpy(to + (digits -= 2), &HEX_PAIRS[2 * (value & 0xFF)], 2);
    if (digits == 1)
        *to = HEX_PAIRS[2 * (value & 0xF) + 1];
}

void Output::put_padded(uint64_t value, unsigned width)
{
    const fmt::format_int text(value);
    for (size_t n = text.size(); n < width; n++)
        put(' ');
    put({text.data(), text.size()});
}

void Output::paint(Colour colour)
{
    static constexpr std::string_view SEQUENCES[] = {"\x1b[0m",  "\x1b[1;36m", "\x1b[32m", "\x1b[1;31m",
                                                     "\x1b[32m", "\x1b[31m",   "\x1b[2m"};
    if (colour_)
        put(SEQUENCES[static_cast<size_t>(colour)]);
}

void Output::flush()
{
    const char *next = buffer_.data();
    size_t left = error_ == 0 ? buffer_.size() : 0;
    if (left > 0 && before_writing_)
        before_writing_();
    while (left > 0) {
        const ssize_t written = write(descriptor_, next, left);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0) {
            error_ = errno;
            break;
        }
        next += written;
        left -= static_cast<size_t>(written);
    }
    buffer_.clear();
}

} // namespace qtrace_tool
