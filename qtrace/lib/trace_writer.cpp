// The four writer operations on trace files.
#include "block_press.h"
#include "qtrace.h"
#include "qtrace_reader.h"
#include "trace_codec.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>
#include <zstd.h>

namespace
{

using namespace trace;

// ---- Errors ---------------------------------------------------------------------------------------------------

// Of the last failed operation of this thread. No object: files may still be closed when the thread's objects are gone.
thread_local char last_error[4096 + 256] = "";

std::atomic<uint64_t> failures = 0;

constexpr const char *NO_MEMORY = "out of memory";

int fail(std::string_view path, std::string_view what, std::string_view reason)
{
    const auto width = [](std::string_view text) { return static_cast<int>(text.size()); };
    failures.fetch_add(1, std::memory_order_relaxed);
    std::snprintf(last_error, sizeof last_error, "%.*s: %.*s: %.*s", width(path), path.data(), width(what),
                  what.data(), width(reason), reason.data());
    return -1;
}

// Whether a call that failed is to be repeated. One that is interrupted again and again is given up.
class Patience
{
public:
    bool again() { return errno == EINTR && ++interruptions_ < 64; }

private:
    int interruptions_ = 0;
};

// ---- Compression ----------------------------------------------------------------------------------------------

// "none", "zstd" or "zstd:LEVEL"; false for anything else.
bool parse_compression(std::string_view text, Compression_Choice &choice)
{
    if (text == "none") {
        choice.kind = STORED;
        return true;
    }
    if (text == "zstd")
        return true;
    if (!text.starts_with("zstd:"))
        return false;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + 5, end, choice.level);
    return error == std::errc() && stop == end && choice.level >= ZSTD_minCLevel() &&
           choice.level <= ZSTD_maxCLevel();
}

// Lent to a file while it seals a block. There are as many as threads ever sealed at once.
std::mutex idle_presses_guard;
// Never destroyed: files may be closed while the program ends.
std::vector<std::unique_ptr<Press>> &idle_presses()
{
    static auto *const presses = new std::vector<std::unique_ptr<Press>>;
    return *presses;
}

class Press_Loan
{
public:
    Press_Loan()
    {
        const std::lock_guard lock(idle_presses_guard);
        if (idle_presses().empty()) {
            press_ = std::make_unique<Press>();
            idle_presses().reserve(idle_presses().capacity() + 1); // giving it back takes no memory
        } else {
            press_ = std::move(idle_presses().back());
            idle_presses().pop_back();
        }
    }
    Press_Loan(const Press_Loan &) = delete;
    ~Press_Loan()
    {
        const std::lock_guard lock(idle_presses_guard);
        idle_presses().push_back(std::move(press_));
    }
    Press &operator*() const { return *press_; }

private:
    std::unique_ptr<Press> press_;
};

// ---- One trace file -------------------------------------------------------------------------------------------

// Items gather in the encoder. A full block is sealed into `sealed_` and written from there; what could not be
// written stays there, and every later operation goes on with it first, where it stopped. So a failed write never
// leaves an incomplete block before a whole one, and only items that were refused are missing.
class Trace_File
{
public:
    Trace_File(std::string path, Compression_Choice compression) : path_(std::move(path)), compression_(compression)
    {
    }
    ~Trace_File()
    {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    int open();
    template <class Item> int write(const Item &item);
    // The usual way of a record: false, and nothing done, when the block may have no room for it.
    bool add_at_once(const QTRACE_RECORD &record)
    {
        if (!encoder_.sure_of_room())
            return false;
        encoder_.add(record);
        return true;
    }
    int close();

private:
    template <class Item> int make_room_for(const Item &item);
    template <class Item> void refuse(const Item &item);
    void begin_block();
    void next_block();
    void count_refused(const QTRACE_RECORD &) { ++refused_.records; }
    void count_refused(const QTRACE_FILE_HDR &) { ++refused_.headers; }
    int flush();
    void seal(uint8_t flags);
    void seal_payload(Press &press, Block_Header header, const uint8_t *payload, size_t size);
    void keep_outside(const QTRACE_FILE_HDR &header);
    void keep_outside(const QTRACE_RECORD &) {}

    std::string path_;
    int descriptor_ = -1;
    Compression_Choice compression_;
    Encoder encoder_{};
    std::vector<uint8_t> sealed_; // whole blocks on their way to the file
    size_t written_ = 0;          // bytes of sealed_ that are in the file
    std::string comment_;         // of the first header of the block, when it does not go into the block
    bool comment_outside_ = false;
    struct Counts {
        uint64_t records = 0, headers = 0;
        void add(const Counts &more)
        {
            records += more.records;
            headers += more.headers;
        }
    };
    Counts before_;           // items before the encoder's block, written or refused
    Counts refused_;          // items after it
    bool gap_before_ = false; // refused ones are before it, and no block has said so yet
};

int Trace_File::open()
{
    Patience patience;
    do
        descriptor_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    while (descriptor_ < 0 && patience.again());
    if (descriptor_ < 0)
        return fail(path_, "open", std::strerror(errno));
    const auto start = file_start();
    sealed_.assign(start.begin(), start.end());
    return flush();
}

// Writes out sealed_; 0 when it is empty afterwards.
int Trace_File::flush()
{
    Patience patience;
    while (written_ < sealed_.size()) {
        const ssize_t count = ::write(descriptor_, sealed_.data() + written_, sealed_.size() - written_);
        if (count > 0)
            written_ += static_cast<size_t>(count);
        else if (count == 0)
            return fail(path_, "write", "nothing was taken");
        else if (!patience.again())
            return fail(path_, "write", std::strerror(errno));
    }
    sealed_.clear();
    written_ = 0;
    return 0;
}

void Trace_File::seal_payload(Press &press, Block_Header header, const uint8_t *payload, size_t size)
{
    header.first_record = before_.records;
    header.first_header = before_.headers;
    press.append_block(sealed_, header, compression_, payload, size);
}

// Moves the encoder's block to sealed_, its outside comment before it.
void Trace_File::seal(uint8_t flags)
{
    const Press_Loan press;
    uint8_t *payload = (*press).payload.data();
    if (!encoder_.started())
        begin_block();
    sealed_.reserve(2 * (BLOCK_HEADER_SIZE + ZSTD_compressBound(MAX_PAYLOAD)));
    Block_Header header;
    header.first_address = encoder_.first().address;
    const uint8_t address = encoder_.first().address_known ? ADDRESS_KNOWN : 0;
    const uint8_t gap = gap_before_ ? GAP_BEFORE : 0;
    header.flags = address | gap;
    if (comment_outside_) {
        Block_Header front = header;
        front.flags |= COMMENT_BLOCK;
        seal_payload(*press, front, reinterpret_cast<const uint8_t *>(comment_.data()), comment_.size());
        header.flags = address | COMMENT_BEFORE;
        comment_outside_ = false;
    }
    header.flags |= flags;
    header.records = encoder_.records();
    header.headers = encoder_.headers();
    encoder_.collect(payload);
    seal_payload(*press, header, payload, encoder_.raw_size());
    before_.add({header.records, header.headers});
    gap_before_ = false;
}

// What an earlier operation could not write goes first; then the block is sealed when the item does not fit.
template <class Item> int Trace_File::make_room_for(const Item &item)
{
    if (!sealed_.empty() && flush() != 0)
        return -1;
    if (!encoder_.started())
        begin_block();
    if (encoder_.has_room_for(item))
        return 0;
    next_block();
    return flush();
}

void Trace_File::next_block()
{
    if (!encoder_.empty())
        seal(0);
    begin_block();
}

void Trace_File::begin_block()
{
    encoder_.begin_block();
    gap_before_ = gap_before_ || refused_.records + refused_.headers != 0;
    before_.add(refused_);
    refused_ = {};
}

// The item will be missing. The trace goes on in a new block, which says so.
template <class Item> void Trace_File::refuse(const Item &item)
{
    encoder_.leave_out(item);
    count_refused(item);
}

void Trace_File::keep_outside(const QTRACE_FILE_HDR &header)
{
    if (header.comment == nullptr || header.comment_length <= MAX_COMMENT_IN_BLOCK)
        return;
    comment_.assign(header.comment, header.comment_length);
    comment_outside_ = true;
}

template <class Item> int Trace_File::write(const Item &item)
try {
    if (make_room_for(item) != 0) {
        refuse(item);
        return -1;
    }
    keep_outside(item);
    encoder_.add(item);
    return 0;
} catch (const std::bad_alloc &) {
    refuse(item);
    return fail(path_, "write", NO_MEMORY);
}

int Trace_File::close()
try {
    int result = 0;
    if (sealed_.empty() || flush() == 0) {
        if (encoder_.passed_over())
            next_block();
        seal(LAST_BLOCK);
        result = flush();
    } else {
        result = -1;
    }
    if (::close(std::exchange(descriptor_, -1)) != 0 && errno != EINTR &&
        result == 0) // closed when interrupted too
        result = fail(path_, "close", std::strerror(errno));
    return result;
} catch (const std::bad_alloc &) {
    return fail(path_, "close", NO_MEMORY);
}

// ---- Descriptors ----------------------------------------------------------------------------------------------

// A descriptor is an index here; the slots of closed files are used again. Slots never move, so that threads find
// their files without a lock while others open and close theirs.
class File_Table
{
public:
    Trace_File *find(QTRACE_FDESCR file) const
    {
        if (file < 0 || static_cast<size_t>(file) >= CHUNKS * CHUNK)
            return nullptr;
        const auto slot = static_cast<size_t>(file);
        const Chunk *chunk = chunks_[slot / CHUNK].load(std::memory_order_acquire);
        return chunk != nullptr ? (*chunk)[slot % CHUNK].load(std::memory_order_acquire) : nullptr;
    }
    // -1 when the table is full.
    QTRACE_FDESCR keep(std::unique_ptr<Trace_File> file)
    {
        const std::lock_guard lock(guard_);
        for (size_t i = 0; i < CHUNKS; ++i) {
            if (chunks_[i].load(std::memory_order_relaxed) == nullptr)
                chunks_[i].store(new Chunk(), std::memory_order_release);
            for (size_t j = 0; j < CHUNK; ++j) {
                std::atomic<Trace_File *> &slot = (*chunks_[i].load(std::memory_order_relaxed))[j];
                if (slot.load(std::memory_order_relaxed) != nullptr)
                    continue;
                slot.store(file.release(), std::memory_order_release);
                return static_cast<QTRACE_FDESCR>(i * CHUNK + j);
            }
        }
        return -1;
    }
    // Null when another thread took it.
    std::unique_ptr<Trace_File> take(QTRACE_FDESCR file)
    {
        if (find(file) == nullptr)
            return nullptr;
        const auto slot = static_cast<size_t>(file);
        Chunk &chunk = *chunks_[slot / CHUNK].load(std::memory_order_acquire);
        return std::unique_ptr<Trace_File>(chunk[slot % CHUNK].exchange(nullptr, std::memory_order_acq_rel));
    }

private:
    static constexpr size_t CHUNK = 256, CHUNKS = 1024;
    using Chunk = std::array<std::atomic<Trace_File *>, CHUNK>;
    std::atomic<Chunk *> chunks_[CHUNKS] = {}; // never given back
    std::mutex guard_;                         // of opening
};

constinit File_Table files;

QTRACE_FDESCR open_for_writing(const char *name)
{
    Compression_Choice compression;
    const char *wish = std::getenv("QTRACE_COMPRESSION");
    if (wish != nullptr && !parse_compression(wish, compression))
        return fail(name, "QTRACE_COMPRESSION", std::string("\"") + wish + "\" is not none, zstd or zstd:LEVEL");
    { // short of memory is better known now than at the first full block
        const Press_Loan press;
    }
    auto file = std::make_unique<Trace_File>(name, compression);
    if (file->open() != 0)
        return -1;
    const QTRACE_FDESCR descriptor = files.keep(std::move(file));
    return descriptor < 0 ? fail(name, "open", "too many files are open") : descriptor;
}

int fail(QTRACE_FDESCR file, std::string_view what, std::string_view reason)
try {
    return fail("descriptor " + std::to_string(file), what, reason);
} catch (const std::bad_alloc &) {
    return fail("descriptor", what, NO_MEMORY);
}

template <class Item> [[gnu::noinline]] int write_item(QTRACE_FDESCR file, const Item *item)
{
    Trace_File *to = files.find(file);
    if (to == nullptr)
        return fail(file, "write", "not open");
    return item == nullptr ? fail(file, "write", "nothing given") : to->write(*item);
}

} // namespace

extern "C" {

QTRACE_FDESCR QTRACE_Fopen(const char *name, QTRACE_FILE_MODE mode)
try {
    if (name == nullptr)
        return fail("", "open", "no name given");
    if (mode != QTRACE_WRITE)
        return fail(name, "open", "only writing goes through descriptors; read with qtrace_open");
    return open_for_writing(name);
} catch (const std::bad_alloc &) {
    return fail(name, "open", NO_MEMORY);
}

void QTRACE_Fclose(QTRACE_FDESCR file)
{
    if (const std::unique_ptr<Trace_File> closing = files.take(file))
        closing->close();
    else
        fail(file, "close", "not open");
}

int QTRACE_FwriteFileHeader(QTRACE_FDESCR file, QTRACE_FILE_HDR *header)
{
    return write_item(file, header);
}

int QTRACE_FwriteRecord(QTRACE_FDESCR file, QTRACE_RECORD *record)
{
    Trace_File *to = files.find(file);
    return to != nullptr && record != nullptr && to->add_at_once(*record) ? 0 : write_item(file, record);
}

const char *qtrace_writer_error(void)
{
    return last_error;
}

uint64_t qtrace_writer_failures(void)
{
    return failures.load(std::memory_order_relaxed);
}
}
