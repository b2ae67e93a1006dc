#include "stream_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>
#include <zstd.h>

namespace replay
{

namespace
{

constexpr std::string_view ZSTD_MAGIC = "\x28\xb5\x2f\xfd";
constexpr size_t REFILL = 1 << 16;
constexpr size_t FIRST_ROOM = 2 * REFILL; // lines are short: most streams never need more
constexpr size_t STORED_AT_ONCE = 1 << 14;
constexpr size_t AT_ONCE = 1 << 11; // decompressed

// Opening a FIFO would wait for its writer where no request to stop is seen; reading it waits where one is.
int open_input(const std::string &file, const Stop_Request *stop)
{
    return open(file.c_str(), O_RDONLY | O_CLOEXEC | (stop ? O_NONBLOCK : 0));
}

} // namespace

struct Byte_Source::Decompressor {
    ZSTD_DCtx *context = ZSTD_createDCtx();
    std::vector<char> stored = std::vector<char>(STORED_AT_ONCE);
    ZSTD_inBuffer in{stored.data(), 0, 0};
    size_t expected = 0; // 0: between frames

    Decompressor() = default;
    Decompressor(const Decompressor &) = delete;
    Decompressor &operator=(const Decompressor &) = delete;
    ~Decompressor() { ZSTD_freeDCtx(context); }

    // Decompresses from what is at hand; 0 bytes when there is not enough of it. zstd copies what it gives, in small
    // pieces so that what is copied is in the nearest cache.
    size_t produce(char *to, size_t room)
    {
        ZSTD_outBuffer out{to, 0, 0};
        do {
            out.size = std::min(room, out.pos + AT_ONCE);
            expected = ZSTD_decompressStream(context, &out, &in);
            if (ZSTD_isError(expected))
                throw Input_Error(std::string("expected intact zstd data: ") + ZSTD_getErrorName(expected));
        } while (out.pos == out.size && out.size < room && expected != 0);
        return out.pos;
    }
};

Byte_Source::Byte_Source(const std::string &file, const Stop_Request *stop)
    : descriptor_{file == "-" ? STDIN_FILENO : open_input(file, stop)}, stop_(stop)
{
    if (descriptor_.number < 0)
        throw Input_Error(std::strerror(errno));
    struct stat info;
    if (fstat(descriptor_.number, &info) == 0 && S_ISREG(info.st_mode))
        size_ = static_cast<uint64_t>(info.st_size);
}

Byte_Source::~Byte_Source() = default;

Byte_Source::Descriptor::~Descriptor()
{
    if (number > STDIN_FILENO)
        close(number);
}

void Byte_Source::look_at_magic()
{
    while (magic_.size() < ZSTD_MAGIC.size()) {
        char piece[ZSTD_MAGIC.size()];
        const size_t bytes = read_stored(piece, ZSTD_MAGIC.size() - magic_.size());
        if (bytes == 0)
            break;
        magic_.append(piece, bytes);
    }
    refuse_other_formats();
    if (magic_ == ZSTD_MAGIC)
        decompressor_ = std::make_unique<Decompressor>();
    format_known_ = true;
}

void Byte_Source::refuse_other_formats() const
{
    constexpr std::pair<std::string_view, const char *> FORMATS[] = {
        {"\x1f\x8b", "gzip data"},
        {"\xef\xbb\xbf", "a byte-order mark"},
        {"\xff\xfe", "UTF-16"},
        {"\xfe\xff", "UTF-16"},
    };
    for (const auto &[begin, name] : FORMATS)
        if (magic_.starts_with(begin))
            throw Input_Error(std::string("expected plain UTF-8 or zstd data, found ") + name);
}

uint64_t Byte_Source::bytes_used() const
{
    const size_t waiting = decompressor_ ? decompressor_->in.size - decompressor_->in.pos : 0;
    return taken_ - magic_.size() - waiting;
}

size_t Byte_Source::read_stored(char *to, size_t room)
{
    ssize_t bytes;
    do {
        if (stop_ && (size_ ? stop_->requested() : !stop_->wait_for_input(descriptor_.number)))
            throw Input_Interrupted{};
        bytes = ::read(descriptor_.number, to, room);
    } while (bytes < 0 && (errno == EINTR || (stop_ && errno == EAGAIN)));
    if (bytes < 0)
        throw Input_Error(std::string("expected readable input: ") + std::strerror(errno));
    taken_ += static_cast<uint64_t>(bytes);
    return static_cast<size_t>(bytes);
}

size_t Byte_Source::read_plain(char *to, size_t room)
{
    if (magic_.empty())
        return read_stored(to, room);
    const size_t bytes = std::min(room, magic_.size());
    std::memcpy(to, magic_.data(), bytes);
    magic_.erase(0, bytes);
    return bytes;
}

size_t Byte_Source::read(char *to, size_t room)
{
    if (!format_known_)
        look_at_magic();
    if (!decompressor_)
        return read_plain(to, room);
    Decompressor &from = *decompressor_;
    for (;;) {
        // Asked even without new input: what is left in the decompressor comes out first.
        if (from.expected != 0 || from.in.pos < from.in.size)
            if (const size_t bytes = from.produce(to, room))
                return bytes;
        if (from.in.pos < from.in.size)
            continue;
        from.in = {from.stored.data(), read_plain(from.stored.data(), from.stored.size()), 0};
        if (from.in.size == 0 && from.expected == 0)
            return 0;
        if (from.in.size == 0)
            throw Input_Error("expected more zstd data: the compressed input is truncated");
    }
}

Line_Source::Line_Source(const std::string &file, const Stop_Request *stop)
    : source_(file, stop), buffer_(std::make_unique_for_overwrite<char[]>(FIRST_ROOM + PADDING)), room_(FIRST_ROOM)
{
}

// Moves scanned_ to the next line end; without one, to the end of what was read.
bool Line_Source::find_end()
{
    if (found_)
        return true;
    const void *found = std::memchr(buffer_.get() + scanned_, '\n', end_ - scanned_);
    scanned_ = found ? static_cast<size_t>(static_cast<const char *>(found) - buffer_.get()) : end_;
    found_ = found != nullptr;
    return found_;
}

bool Line_Source::next(std::string_view &line)
{
    for (;;) {
        find_end();
        if (scanned_ - begin_ > MAX_LINE)
            throw Input_Error("expected a line of at most " + std::to_string(MAX_LINE) + " bytes");
        if (found_ || (at_end_ && scanned_ > begin_)) {
            buffer_[scanned_] = '\0'; // what stands after a line is no business of its parser
            line = {buffer_.get() + begin_, scanned_ - begin_};
            ++number_;
            scanned_ += found_;
            begin_ = scanned_;
            found_ = false;
            return true;
        }
        if (at_end_ || !refill())
            if (begin_ == end_)
                return false;
    }
}

bool Line_Source::line_at_hand()
{
    return at_end_ || find_end();
}

uint64_t Line_Source::bytes_used() const
{
    return source_.bytes_used() - (source_.compressed() ? 0 : end_ - begin_);
}

// Moves what is not handed out yet to the front of a buffer that takes a refill after it.
void Line_Source::make_room()
{
    const size_t waiting = end_ - begin_;
    if (waiting + REFILL <= room_) {
        std::memmove(buffer_.get(), buffer_.get() + begin_, waiting);
    } else {
        auto larger = std::make_unique_for_overwrite<char[]>(2 * room_ + PADDING);
        std::memcpy(larger.get(), buffer_.get() + begin_, waiting);
        buffer_ = std::move(larger);
        room_ *= 2;
    }
    end_ -= begin_;
    scanned_ -= begin_;
    begin_ = 0;
}

bool Line_Source::refill()
{
    make_room();
    const size_t bytes = source_.read(buffer_.get() + end_, REFILL);
    end_ += bytes;
    at_end_ = bytes == 0;
    return bytes != 0;
}

} // namespace replay
