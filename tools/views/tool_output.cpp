#include "tool_output.h"

#include "text_in_place.h"

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

void Output::put_decimal(uint64_t value)
{
    char text[NUMBER_ROOM];
    put(std::string_view(text, decimal_text(text, value)));
}

void Output::put_hex(uint64_t value)
{
    char text[NUMBER_ROOM];
    put(std::string_view(text, hex_text(text, value)));
}

void Output::put_hex(uint64_t value, unsigned digits)
{
    char text[NUMBER_ROOM];
    put(std::string_view(text, hex_text(text, value, digits)));
}

void Output::put_padded(uint64_t value, unsigned width)
{
    const fmt::format_int text(value);
    for (size_t n = text.size(); n < width; n++)
        put(' ');
    put(std::string_view{text.data(), text.size()});
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
