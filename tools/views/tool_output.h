// Where the tool's data goes: a buffer before a file descriptor, filled without formatting machinery where
// speed matters.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

namespace qtrace_tool
{

// "1 record", "2 records"; `nouns` when the plural is not the noun with an s.
std::string counted(uint64_t count, std::string_view noun, std::string_view nouns = {});

enum class Colour : uint8_t { plain, head, good, bad, added, removed, faint };

class Output
{
public:
    // Writes to `descriptor`, which stays the caller's (-1: none, for take()). With `colour`, escape sequences are
    // put around paint()ed text.
    explicit Output(int descriptor = -1, bool colour = false) : descriptor_(descriptor), colour_(colour) {}
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    ~Output()
    {
        if (descriptor_ >= 0)
            flush();
    }

    void put(char c) { buffer_.push_back(c); }
    void put(std::string_view text)
    {
        char *to = room(text.size());
        if (!text.empty())
            std::memcpy(to, text.data(), text.size());
    }
    // The same for whole lines, and settle(): many are handed on from where they stand.
    void put_lines(std::string_view text);
    void put_decimal(uint64_t value);
    void put_hex(uint64_t value);                    // without prefix or leading zeros
    void put_hex(uint64_t value, unsigned digits);   // the lowest `digits` digits
    void put_padded(uint64_t value, unsigned width); // decimal, right-aligned

    template <class... Arguments> void print(fmt::format_string<Arguments...> format, Arguments &&...arguments)
    {
        fmt::format_to(std::back_inserter(buffer_), format, std::forward<Arguments>(arguments)...);
    }

    // Makes room for so many characters at once.
    void reserve(size_t count) { buffer_.reserve(count); }
    // What was put so far, instead of handing it on.
    std::string take()
    {
        std::string text(buffer_.data(), buffer_.size());
        buffer_.clear();
        return text;
    }

    // The same, valid up to the next call.
    std::string_view text() const { return {buffer_.data(), buffer_.size()}; }
    void clear() { buffer_.clear(); }

    // What follows is in that colour, up to the next call.
    void paint(Colour colour);

    // `action` is called before anything is handed on.
    void before_writing(std::function<void()> action) { before_writing_ = std::move(action); }

    // To be called after each line or so: hands a full buffer on.
    void settle()
    {
        if (buffer_.size() >= CAPACITY && descriptor_ >= 0)
            flush();
    }
    // Hands everything on. A failure is kept; nothing is written after it.
    void flush();
    bool coloured() const { return colour_; }
    size_t size() const { return buffer_.size(); } // of what was put and not handed on
    int error() const { return error_; }           // errno of the first failure; 0: none

private:
    static constexpr size_t CAPACITY = 256 * 1024;

    void hand_on(std::string_view text);

    // The place of so many characters more, to be filled by the caller.
    char *room(size_t count)
    {
        const size_t size = buffer_.size();
        buffer_.resize(size + count);
        return buffer_.data() + size;
    }

    int descriptor_;
    bool colour_;
    int error_ = 0;
    std::function<void()> before_writing_;
    fmt::memory_buffer buffer_;
};

} // namespace qtrace_tool
