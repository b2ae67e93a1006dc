// Copies the whole blocks of a damaged file.
#include "block_format.h"
#include "qtrace_reader.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace
{

using namespace trace;

struct Descriptor {
    int number = -1;
    ~Descriptor()
    {
        if (number >= 0)
            ::close(number);
    }
};

struct Failure {
    std::string text;
};

[[noreturn]] void fail(const std::string &name, const char *what)
{
    throw Failure{name + ": " + what + ": " + std::strerror(errno)};
}

// A block that is kept, by its place in the damaged file.
struct Kept_Block {
    uint64_t offset;
    Block_Header header;
    uint64_t end() const { return offset + header.size(); }
};

std::optional<Block_Header> header_at(int file, const std::string &name, uint64_t offset)
{
    uint8_t bytes[BLOCK_HEADER_SIZE];
    const ssize_t got = ::pread(file, bytes, sizeof bytes, static_cast<off_t>(offset));
    if (got < 0)
        fail(name, "read");
    return got == sizeof bytes ? load_block_header(bytes) : std::nullopt;
}

// The whole blocks of a file, as its reader passes over them.
class Block_Keeper
{
public:
    Block_Keeper(int file, const std::string &name) : file_(file), name_(name)
    {
        if (header_at(file, name, 0)) // its first bytes are missing
            behind_ = 0;
    }
    // The blocks that begin in front of `end` and were not kept yet: the reader found no damage there. Comment
    // blocks and empty ones deliver no item and are among them.
    void keep_up_to(uint64_t end)
    {
        while (behind_ < end) {
            const std::optional<Block_Header> header = header_at(file_, name_, behind_);
            if (!header)
                throw Failure{name_ + ": the file changed while it was read"};
            kept_.push_back({behind_, *header});
            behind_ = kept_.back().end();
        }
    }
    // What begins there, kept or not, is damaged.
    void drop(uint64_t offset, uint64_t bytes)
    {
        while (!kept_.empty() && kept_.back().offset >= offset)
            kept_.pop_back();
        behind_ = offset + bytes;
    }
    std::vector<Kept_Block> &kept() { return kept_; }

private:
    int file_;
    const std::string &name_;
    std::vector<Kept_Block> kept_;
    uint64_t behind_ = FILE_START_SIZE; // the last block or damage
};

bool is_damage(const QTRACE_Discontinuity &what)
{
    return what.cause == QTRACE_CAUSE_DAMAGE || what.cause == QTRACE_CAUSE_CUT_END;
}

void account(const QTRACE_Discontinuity &damage, bool behind_last, QTRACE_Recovery &result)
{
    result.damaged_places++;
    result.lost_bytes += damage.bytes;
    result.lost_records += damage.records;
    // what stands behind the writer's last block was never part of the trace
    result.lost_records_known &= damage.records_known | behind_last;
}

// Every block whose items can all be read, in file order.
std::vector<Kept_Block> whole_blocks(int file, const std::string &name, QTRACE_Reader *reader,
                                     QTRACE_Recovery &result)
{
    Block_Keeper keeper(file, name);
    const std::vector<Kept_Block> &kept = keeper.kept();
    const QTRACE_Item *item = nullptr;
    for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;) {
        if (kind == QTRACE_ITEM_ERROR)
            throw Failure{qtrace_error(reader)};
        const QTRACE_Discontinuity &damage = item->discontinuity;
        if (kind != QTRACE_ITEM_DISCONTINUITY || !is_damage(damage)) {
            keeper.keep_up_to(item->block_offset + 1);
            continue;
        }
        keeper.keep_up_to(damage.offset);
        const bool behind_last =
            !kept.empty() && (kept.back().header.flags & LAST_BLOCK) != 0 && damage.offset >= kept.back().end();
        account(damage, behind_last, result);
        keeper.drop(damage.offset, damage.bytes);
    }
    struct stat status;
    if (::fstat(file, &status) != 0)
        fail(name, "read");
    keeper.keep_up_to(static_cast<uint64_t>(status.st_size));
    return std::move(keeper.kept());
}

// Numbers stay as they are; the flags say where they jump, and that the end is not the writer's.
void mark_what_is_lost(std::vector<Kept_Block> &kept, QTRACE_Recovery &result)
{
    uint64_t records = 0, headers = 0;
    Block_Header front;
    uint64_t front_end = 0;
    for (Kept_Block &block : kept) {
        Block_Header &header = block.header;
        const bool uncommented = (header.flags & COMMENT_BEFORE) != 0 && !is_comment_of(front, header);
        const bool jump = header.first_record != records || header.first_header != headers || uncommented;
        // A jump that the writer marked is its own where nothing was left out.
        if (jump && ((header.flags & GAP_BEFORE) == 0 || (front_end != 0 && front_end != block.offset)))
            header.flags |= GAP_BEFORE | LEFT_OUT;
        front = header;
        front_end = block.end();
        records = header.first_record + header.records;
        headers = header.first_header + header.headers;
        result.records += header.records;
        result.headers += header.headers;
        if (&block != &kept.back())
            header.flags &= static_cast<uint8_t>(~(LAST_BLOCK | OPEN_END));
    }
    Block_Header &last = kept.back().header;
    if ((last.flags & LAST_BLOCK) == 0)
        last.flags |= LAST_BLOCK | OPEN_END;
    result.blocks = kept.size();
    result.open_end = (last.flags & OPEN_END) != 0;
}

void write_all(int file, const std::string &name, const uint8_t *bytes, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(file, bytes, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            fail(name, "write");
        bytes += written;
        size -= static_cast<size_t>(written);
    }
}

void copy(int from, const std::string &from_name, const std::string &to_name, const std::vector<Kept_Block> &kept)
{
    Descriptor to{::open(to_name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)};
    if (to.number < 0)
        fail(to_name, "open");
    const std::array<uint8_t, FILE_START_SIZE> start = file_start();
    write_all(to.number, to_name, start.data(), start.size());
    std::vector<uint8_t> block(BLOCK_HEADER_SIZE + MAX_PAYLOAD);
    for (const Kept_Block &place : kept) {
        const size_t size = place.header.size();
        if (::pread(from, block.data(), size, static_cast<off_t>(place.offset)) != static_cast<ssize_t>(size))
            fail(from_name, "read");
        store_block_header(place.header, block.data());
        write_all(to.number, to_name, block.data(), size);
    }
    const int descriptor = to.number;
    to.number = -1;
    if (::close(descriptor) != 0)
        fail(to_name, "close");
}

bool is_same_file(int file, const char *name)
{
    struct stat a, b;
    return ::fstat(file, &a) == 0 && ::stat(name, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

void recover(const char *from, const char *to, QTRACE_Recovery &result)
{
    char *reason = nullptr;
    const std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)> reader(qtrace_open(from, &reason), &qtrace_close);
    const std::unique_ptr<char, decltype(&std::free)> owner(reason, &std::free);
    if (!reader)
        throw Failure{reason != nullptr ? reason : "out of memory"};
    const Descriptor file{::open(from, O_RDONLY | O_CLOEXEC)};
    if (file.number < 0)
        fail(from, "open");
    if (is_same_file(file.number, to))
        throw Failure{std::string(to) + ": is the damaged file itself"};
    std::vector<Kept_Block> kept = whole_blocks(file.number, from, reader.get(), result);
    if (kept.empty())
        throw Failure{std::string(from) + ": there is no whole block in it"};
    mark_what_is_lost(kept, result);
    copy(file.number, from, to, kept);
}

} // namespace

extern "C" int qtrace_recover(const char *from, const char *to, QTRACE_Recovery *result, char **error)
{
    std::string text;
    try {
        *result = {};
        result->lost_records_known = 1;
        recover(from, to, *result);
        return 0;
    } catch (const Failure &failure) {
        text = failure.text;
    } catch (const std::bad_alloc &) {
        text = std::string(from) + ": out of memory";
    }
    if (error != nullptr)
        *error = ::strdup(text.c_str());
    return -1;
}
