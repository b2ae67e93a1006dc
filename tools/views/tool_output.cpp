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

void Output::hand_on(std::string_view text)
{
    if (error_ != 0 || text.empty())
        return;
    if (before_writing_)
        before_writing_();
    while (!text.empty()) {
        const ssize_t written = write(descriptor_, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0) {
            error_ = errno;
            return;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

void Output::flush()
{
    hand_on(text());
    buffer_.clear();
}

void Output::put_lines(std::string_view text)
{
    if (descriptor_ < 0 || text.size() < CAPACITY) {
        put(text);
        settle();
    } else {
        flush();
        hand_on(text);
    }
}

} // namespace qtrace_tool
