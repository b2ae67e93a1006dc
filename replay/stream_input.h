// The lines of a commit stream, from a file or standard input, plain or compressed. Memory is bounded by the longest
// line, however long the stream is.
#pragma once

#include "stop_request.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace replay
{

// The input cannot be read any further; what() says why.
struct Input_Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Thrown instead of waiting on, when a stop is requested. Nothing is lost by it.
struct Input_Interrupted {
};

// Bytes of a file ("-": standard input), decompressed where the file begins like zstd. Throws Input_Error, and
// Input_Interrupted when `stop` (which may be null) is requested while it waits for input, also for the writer of a FIFO.
class Byte_Source
{
public:
    explicit Byte_Source(const std::string &file, const Stop_Request *stop = nullptr);
    ~Byte_Source();
    Byte_Source(const Byte_Source &) = delete;
    Byte_Source &operator=(const Byte_Source &) = delete;

    // Waits for at least one byte; 0: the end.
    size_t read(char *to, size_t room);

    // Stored bytes whose contents have been handed out.
    uint64_t bytes_used() const;
    bool format_known() const { return format_known_; } // its first bytes are read and looked at
    bool compressed() const { return decompressor_ != nullptr; }
    std::optional<uint64_t> size() const { return size_; } // of the file; unknown for a pipe

private:
    struct Descriptor {
        int number;
        ~Descriptor();
    };
    struct Decompressor;
    size_t read_stored(char *to, size_t room);
    size_t read_plain(char *to, size_t room);
    void look_at_magic();
    void refuse_other_formats() const;

    Descriptor descriptor_;
    const Stop_Request *stop_;
    uint64_t taken_ = 0;
    std::optional<uint64_t> size_;
    bool format_known_ = false;
    std::string magic_; // first bytes, read to tell the format and not yet handed out
    std::unique_ptr<Decompressor> decompressor_;
};

class Line_Source
{
public:
    static constexpr size_t MAX_LINE = 1 << 20; // bytes, without the line end
    static constexpr size_t PADDING = 64;       // readable bytes after every line

    explicit Line_Source(const std::string &file, const Stop_Request *stop = nullptr);

    // The next line without its line end, valid until the next call; false at the end. Throws like Byte_Source.
    bool next(std::string_view &line);

    uint64_t line_number() const { return number_; } // of the last line that was returned, from 1
    uint64_t bytes_used() const;                     // stored bytes up to about the current line
    bool format_known() const { return source_.format_known(); }
    bool line_at_hand(); // next() has no need to read input
    std::optional<uint64_t> input_size() const { return source_.size(); }

private:
    bool find_end();
    bool refill();
    void make_room();

    Byte_Source source_;
    std::unique_ptr<char[]> buffer_;
    size_t room_;        // bytes of the buffer, without the padding
    size_t begin_ = 0;   // first byte not handed out
    size_t scanned_ = 0; // no line end in [begin_, scanned_)
    bool found_ = false; // but one at scanned_
    size_t end_ = 0;     // end of what was read
    bool at_end_ = false;
    uint64_t number_ = 0;
};

} // namespace replay
