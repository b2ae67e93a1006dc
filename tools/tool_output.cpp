#include "tool_output.h"

#include <cerrno>
#include <unistd.h>

namespace qtrace_tool
{

static constexpr char DIGITS[] = "0123456789abcdef";

void Output::put_decimal(uint64_t value)
{
    const fmt::format_int text(value);
    buffer_.append(text.data(), text.size());
}

void Output::put_hex(uint64_t value)
{
    put_hex(value, value == 0 ? 1 : (67 - static_cast<unsigned>(__builtin_clzll(value))) / 4);
}

void Output::put_hex(uint64_t value, unsigned digits)
{
    char text[16];
    for (unsigned i = digits; i-- > 0; value >>= 4)
        text[i] = DIGITS[value & 15];
    buffer_.append(text, digits);
}

void Output::put_padded(uint64_t value, unsigned width)
{
    const fmt::format_int text(value);
    for (size_t n = text.size(); n < width; n++)
        put(' ');
    buffer_.append(text.data(), text.size());
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
