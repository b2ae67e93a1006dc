// The reader of trace files behind qtrace_reader.h.
#include "qtrace_reader.h"

#include "columns.h"
#include "trace_codec.h"

#include <algorithm>
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
#include <zstd.h>

namespace
{

using namespace trace;

// How far a file whose start is damaged is searched for a block before it is called no trace at all.
constexpr uint64_t START_SEARCH = 1 << 20;
constexpr size_t SEARCH_WINDOW = 1 << 16;

// ---- A file, read at offsets ------------------------------------------------------------------------------------

class Input_File
{
public:
    ~Input_File()
    {
        if (descriptor_ >= 0)
            ::close(descriptor_);
    }
    // 0, or an errno.
    int open(const char *name);
    uint64_t size() const { return size_; }
    // Bytes read, fewer than `count` only at the end of the file; with an I/O error `error` is set.
    size_t read(uint64_t offset, void *to, size_t count);
    bool holds(uint64_t offset, uint64_t count) const { return offset <= size_ && count <= size_ - offset; }
    int error = 0; // errno of a failed read

private:
    int descriptor_ = -1;
    uint64_t size_ = 0;
};

int Input_File::open(const char *name)
{
    // Without O_NONBLOCK a pipe would wait for a writer before it can be refused.
    descriptor_ = ::open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status;
    if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0)
        return errno;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    if (!S_ISREG(status.st_mode))
        return ESPIPE;
    size_ = static_cast<uint64_t>(status.st_size);
    return 0;
}

size_t Input_File::read(uint64_t offset, void *to, size_t count)
{
    size_t done = 0;
    while (done < count) {
        const ssize_t got = ::pread(descriptor_, static_cast<uint8_t *>(to) + done, count - done,
                                    static_cast<off_t>(offset + done));
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (got == 0) {
            break;
        } else if (errno != EINTR) {
            error = errno;
            break;
        }
    }
    return done;
}

// ---- Blocks in it -----------------------------------------------------------------------------------------------

struct Place {
    uint64_t offset;
    Block_Header header;
    uint64_t end() const { return offset + header.size(); }
};

class Block_File : public Input_File
{
public:
    // The block header at `offset`, if there is a whole one; its payload may be cut or damaged.
    std::optional<Block_Header> header_at(uint64_t offset);
    // Reads the payload that belongs to it; false when it is not whole or its checksum differs.
    bool read_payload(const Place &place);
    // The payload last read, decompressed; null when it does not decompress to its size.
    const uint8_t *unpack(const Block_Header &header);
    // The first whole block at or after `from`, its payload read.
    std::optional<Place> find(uint64_t from, uint64_t up_to);

private:
    std::vector<uint8_t> stored_ = std::vector<uint8_t>(MAX_PAYLOAD), raw_ = std::vector<uint8_t>(MAX_PAYLOAD),
                         window_;
    std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context_{ZSTD_createDCtx(), ZSTD_freeDCtx};
};

std::optional<Block_Header> Block_File::header_at(uint64_t offset)
{
    uint8_t bytes[BLOCK_HEADER_SIZE];
    if (!holds(offset, sizeof bytes) || read(offset, bytes, sizeof bytes) != sizeof bytes)
        return std::nullopt;
    return load_block_header(bytes);
}

bool Block_File::read_payload(const Place &place)
{
    const size_t size = place.header.stored_size;
    return holds(place.offset, place.header.size()) &&
           read(place.offset + BLOCK_HEADER_SIZE, stored_.data(), size) == size &&
           crc32c(stored_.data(), size) == place.header.payload_crc;
}

const uint8_t *Block_File::unpack(const Block_Header &header)
{
    if (header.compression == STORED)
        return stored_.data();
    // The library would take frames behind one another, and pass over those to be skipped, without a word.
    if (!context_ || header.stored_size < sizeof(uint32_t) || load<uint32_t>(stored_.data()) != ZSTD_MAGICNUMBER ||
        ZSTD_findFrameCompressedSize(stored_.data(), header.stored_size) != header.stored_size)
        return nullptr;
    const size_t size =
        ZSTD_decompressDCtx(context_.get(), raw_.data(), header.raw_size, stored_.data(), header.stored_size);
    return size == header.raw_size ? raw_.data() : nullptr;
}

std::optional<Place> Block_File::find(uint64_t from, uint64_t up_to)
{
    window_.resize(SEARCH_WINDOW);
    up_to = std::min(up_to, size());
    while (from < up_to && up_to - from >= BLOCK_HEADER_SIZE) {
        const size_t got = read(from, window_.data(), std::min<uint64_t>(SEARCH_WINDOW, up_to - from));
        if (got < BLOCK_HEADER_SIZE)
            return std::nullopt;
        const uint8_t *begin = window_.data(), *end = begin + got - BLOCK_HEADER_SIZE + 1;
        for (const uint8_t *at = begin; (at = std::find(at, end, BLOCK_MARKER[0])) != end; ++at) {
            const std::optional<Block_Header> header = load_block_header(at);
            if (!header)
                continue;
            const Place place{from + static_cast<uint64_t>(at - begin), *header};
            if (read_payload(place))
                return place;
        }
        from += static_cast<uint64_t>(end - begin);
    }
    return std::nullopt;
}

char *copy_of(const std::string &text)
{
    return ::strdup(text.c_str());
}

std::string located(const std::string &name, uint64_t offset, const std::string &reason)
{
    return name + ": byte " + std::to_string(offset) + ": " + reason;
}

// A discontinuity without a loss.
QTRACE_Discontinuity discontinuity(QTRACE_CAUSE cause, const char *reason, uint64_t offset)
{
    QTRACE_Discontinuity what{};
    what.cause = cause;
    what.reason = reason;
    what.offset = offset;
    return what;
}

} // namespace

// ---- The reader -------------------------------------------------------------------------------------------------

struct QTRACE_Reader {
public:
    // Null text: opened.
    std::string open(const char *name);
    QTRACE_ITEM next(const QTRACE_Item **item);
    int seek(uint64_t record);
    int summarize(QTRACE_Info &info, bool payloads);
    const QTRACE_FILE_HDR *open_header() const;
    Decoder &decoder() { return decoder_; }
    const std::vector<Place> &index();

    std::string text; // of the last discontinuity or error

private:
    QTRACE_ITEM advance();
    std::optional<QTRACE_ITEM> advance_in_block();
    std::optional<QTRACE_ITEM> enter_block();
    std::optional<QTRACE_ITEM> enter_block_at_end();
    bool has_comment_of(const Block_Header &header) const;
    std::optional<QTRACE_ITEM> begin_items(const Place &place);
    bool fill_header();
    bool fill_comment();
    std::optional<QTRACE_ITEM> report_before(const Place &place);
    QTRACE_ITEM report(const QTRACE_Discontinuity &what);
    QTRACE_ITEM report_until_next(const char *reason);
    QTRACE_ITEM report_corrupt_block();
    QTRACE_ITEM report_pause();
    void count_lost(QTRACE_Discontinuity &what, const Block_Header &next) const;
    void find_context();
    QTRACE_ITEM fail(uint64_t offset);
    void place_at(uint64_t offset, uint64_t record, uint64_t header);
    bool is_item_before(uint64_t record) const;
    template <class Visitor, class Damage_Visitor> void walk(bool payloads, Visitor whole, Damage_Visitor broken);

    std::string name_;
    Block_File file_;
    Decoder decoder_;
    QTRACE_Item item_{};
    std::string comment_;                       // of the header in item_
    std::optional<Block_Header> comment_block_; // where the block entered last is one,
    std::string outside_comment_;               // and its comment
    enum class Outside { none, lost, here };
    Outside outside_ = Outside::none;    // what a header of this block finds that has its comment in front of it
    uint64_t begin_ = 0;                 // offset of the first block, or 0 when the file's start is damaged
    uint64_t position_ = 0;              // offset of the next block
    uint64_t records_ = 0, headers_ = 0; // before the next item
    bool numbers_open_ = false;          // after damage: the next block's numbers are taken as they are
    bool seen_last_ = false;
    bool end_reported_ = false;
    bool in_block_ = false;
    bool decoded_ = false;     // a block was entered: the decoder knows the open header
    Place block_{};            // being decoded
    bool held_ = false;        // item_ was found by a seek and is delivered next
    bool header_held_ = false; // the header in item_ follows the pause that was delivered for it
    Open_Header context_;      // of the last discontinuity
    std::vector<Place> index_;
    bool indexed_ = false;
};

std::string QTRACE_Reader::open(const char *name)
{
    name_ = name;
    if (const int error = file_.open(name); error != 0)
        return located(name_, 0, error == ESPIPE ? "not a regular file" : std::strerror(error));
    uint8_t start[FILE_START_SIZE] = {};
    const size_t size = file_.read(0, start, sizeof start);
    if (file_.error != 0)
        return located(name_, 0, std::strerror(file_.error));
    uint32_t version;
    const Start_State state = judge_file_start(start, size, version);
    if (state == Start_State::good)
        begin_ = FILE_START_SIZE;
    else if (size == 0)
        return located(name_, 0, "the file is empty");
    else if (state == Start_State::cut)
        return located(name_, size, "the file ends inside its first 16 bytes");
    else if (state == Start_State::other_version)
        return located(name_, 8,
                       "format version " + std::to_string(version) + " is not known, only " +
                           std::to_string(FORMAT_VERSION));
    else if (!file_.find(0, START_SEARCH))
        return located(name_, 0, "not a trace file");
    place_at(begin_, 0, 0);
    return {};
}

void QTRACE_Reader::place_at(uint64_t offset, uint64_t record, uint64_t header)
{
    position_ = offset;
    records_ = record;
    headers_ = header;
    numbers_open_ = seen_last_ = end_reported_ = in_block_ = held_ = header_held_ = false;
    comment_block_.reset();
}

QTRACE_ITEM QTRACE_Reader::next(const QTRACE_Item **item)
{
    if (held_)
        held_ = false;
    else
        item_.kind = advance();
    if (item != nullptr)
        *item = &item_;
    return item_.kind;
}

QTRACE_ITEM QTRACE_Reader::advance()
{
    for (;;) {
        const std::optional<QTRACE_ITEM> kind = in_block_ ? advance_in_block() : enter_block();
        if (kind)
            return *kind;
    }
}

// ---- Items of a block -------------------------------------------------------------------------------------------

std::optional<QTRACE_ITEM> QTRACE_Reader::advance_in_block()
{
    if (std::exchange(header_held_, false))
        return QTRACE_ITEM_HEADER;
    item_.address = decoder_.address();
    item_.address_known = decoder_.address_known();
    item_.header_number = headers_;
    item_.record_number = records_;
    switch (decoder_.next(item_.record, item_.header)) {
    case Decoder::Result::record:
        if (++records_ > block_.header.first_record + block_.header.records)
            return report_corrupt_block();
        return QTRACE_ITEM_RECORD;
    case Decoder::Result::header:
        if (++headers_ > block_.header.first_header + block_.header.headers)
            return report_corrupt_block();
        if (!fill_header())
            return report_corrupt_block();
        return item_.header.control.iar_is_present && item_.header_number != 0 ? report_pause()
                                                                               : QTRACE_ITEM_HEADER;
    case Decoder::Result::end:
        in_block_ = false;
        if (records_ != block_.header.first_record + block_.header.records ||
            headers_ != block_.header.first_header + block_.header.headers)
            return report_corrupt_block();
        return std::nullopt;
    default:
        return report_corrupt_block();
    }
}

// False when the header says of its comment what cannot be.
bool QTRACE_Reader::fill_header()
{
    item_.address = decoder_.address();
    item_.address_known = decoder_.address_known();
    if (decoder_.comment() == nullptr && !decoder_.comment_outside())
        return true;
    const bool possible = fill_comment();
    item_.header.comment = comment_.data();
    return possible;
}

bool QTRACE_Reader::fill_comment()
{
    if (decoder_.comment() != nullptr) {
        comment_.assign(reinterpret_cast<const char *>(decoder_.comment()), item_.header.comment_length);
        return true;
    }
    switch (std::exchange(outside_, Outside::none)) {
    case Outside::here:
        comment_ = outside_comment_;
        return comment_.size() == item_.header.comment_length;
    case Outside::lost:
        comment_.clear();
        item_.header.comment_length = 0;
        return true;
    default:
        return false;
    }
}

// ---- From block to block ----------------------------------------------------------------------------------------

std::optional<QTRACE_ITEM> QTRACE_Reader::enter_block()
{
    if (position_ >= file_.size())
        return enter_block_at_end();
    const std::optional<Block_Header> header = file_.header_at(position_);
    if (!header || !file_.read_payload({position_, *header}))
        return file_.error != 0
                   ? fail(position_)
                   : report_until_next(header ? "the block's checksum does not match" : "no block here");
    const Place place{position_, *header};
    if (!numbers_open_)
        if (const std::optional<QTRACE_ITEM> kind = report_before(place))
            return kind;
    return begin_items(place);
}

// Where a whole block does not simply follow the one before.
std::optional<QTRACE_ITEM> QTRACE_Reader::report_before(const Place &place)
{
    const Block_Header &header = place.header;
    const bool jump = header.first_record != records_ || header.first_header != headers_;
    if (seen_last_)
        return report(discontinuity(QTRACE_CAUSE_DAMAGE, "a block follows the last one", place.offset));
    QTRACE_Discontinuity what = discontinuity(QTRACE_CAUSE_DAMAGE, nullptr, place.offset);
    count_lost(what, header);
    if (header.flags & GAP_BEFORE) {
        const bool left_out = (header.flags & LEFT_OUT) != 0;
        what.cause = left_out ? QTRACE_CAUSE_LEFT_OUT : QTRACE_CAUSE_REFUSED;
        what.reason = left_out ? "a recovery or a cut left out what belongs before this block"
                               : "the writer refused what belongs before this block";
    } else if (jump) {
        what.reason = "blocks are missing before this one";
    } else if ((header.flags & COMMENT_BEFORE) != 0 && !has_comment_of(header)) {
        what.reason = "the comment block before this one is missing";
    } else {
        return std::nullopt;
    }
    return report(what);
}

// What is lost between here and the next block: its numbers tell, unless they fall.
void QTRACE_Reader::count_lost(QTRACE_Discontinuity &what, const Block_Header &next) const
{
    what.records_known = next.first_record >= records_;
    what.records = what.records_known ? next.first_record - records_ : 0;
    what.headers = next.first_header >= headers_ ? next.first_header - headers_ : 0;
}

bool QTRACE_Reader::has_comment_of(const Block_Header &header) const
{
    return comment_block_ && is_comment_of(*comment_block_, header);
}

std::optional<QTRACE_ITEM> QTRACE_Reader::enter_block_at_end()
{
    if (seen_last_ || end_reported_)
        return QTRACE_ITEM_END;
    end_reported_ = true;
    return report(discontinuity(QTRACE_CAUSE_CUT_END, "the file ends without its last block", file_.size()));
}

std::optional<QTRACE_ITEM> QTRACE_Reader::begin_items(const Place &place)
{
    const Block_Header &header = place.header;
    block_ = place;
    position_ = place.end();
    records_ = header.first_record;
    headers_ = header.first_header;
    numbers_open_ = false;
    seen_last_ = (header.flags & LAST_BLOCK) != 0;
    outside_ = has_comment_of(header)                 ? Outside::here
               : (header.flags & COMMENT_BEFORE) != 0 ? Outside::lost
                                                      : Outside::none;
    comment_block_.reset();
    const uint8_t *payload = file_.unpack(header);
    if (payload == nullptr)
        return report_corrupt_block();
    if (header.flags & COMMENT_BLOCK) {
        outside_comment_.assign(reinterpret_cast<const char *>(payload), header.raw_size);
        comment_block_ = header;
        return std::nullopt;
    }
    item_.block_offset = place.offset;
    decoded_ = true;
    in_block_ =
        decoder_.begin_block(payload, header.raw_size, header.first_address, (header.flags & ADDRESS_KNOWN) != 0);
    return in_block_ ? std::nullopt : std::optional(report_corrupt_block());
}

// ---- Discontinuities --------------------------------------------------------------------------------------------

QTRACE_ITEM QTRACE_Reader::report(const QTRACE_Discontinuity &what)
{
    item_.discontinuity = what;
    item_.header_number = headers_;
    item_.record_number = records_;
    item_.block_offset = what.offset;
    text = located(name_, what.offset, what.reason);
    numbers_open_ = true;
    find_context();
    return QTRACE_ITEM_DISCONTINUITY;
}

// The block at position_ restates the context, or the one after it when it is a comment block.
void QTRACE_Reader::find_context()
{
    context_ = {};
    item_.address = 0;
    item_.address_known = 0;
    Place place{position_, file_.header_at(position_).value_or(Block_Header{})};
    if (place.header.flags & COMMENT_BLOCK)
        place = {place.end(), file_.header_at(place.end()).value_or(Block_Header{})};
    const uint8_t *payload =
        place.header.raw_size != 0 && (place.header.flags & COMMENT_BLOCK) == 0 && file_.read_payload(place)
            ? file_.unpack(place.header)
            : nullptr;
    if (payload == nullptr)
        return;
    context_ = open_header_of(payload, place.header.raw_size);
    item_.discontinuity.context = context_.present ? &context_.header : nullptr;
    item_.address = place.header.first_address;
    item_.address_known = (place.header.flags & ADDRESS_KNOWN) != 0;
}

// What stands at position_ is no whole block: goes on to the next one, which tells how many records are missing.
QTRACE_ITEM QTRACE_Reader::report_until_next(const char *reason)
{
    const uint64_t from = position_;
    const std::optional<Block_Header> broken = file_.header_at(from);
    const std::optional<Place> next = file_.find(from + 1, file_.size());
    if (file_.error != 0)
        return fail(from);
    position_ = next ? next->offset : file_.size();
    const bool cut = !next && !seen_last_;
    end_reported_ = cut;
    QTRACE_Discontinuity what = cut ? discontinuity(QTRACE_CAUSE_CUT_END, "the file ends inside a block", from)
                                    : discontinuity(QTRACE_CAUSE_DAMAGE, reason, from);
    what.bytes = position_ - from;
    if (next) {
        count_lost(what, next->header);
    } else if (broken) {
        what.records = broken->records;
        what.headers = broken->headers;
    }
    return report(what);
}

// A block whose checksum is right and whose contents are not: its writer was not ours.
QTRACE_ITEM QTRACE_Reader::report_corrupt_block()
{
    in_block_ = false;
    const Block_Header &header = block_.header;
    const uint64_t records = header.first_record + header.records, headers = header.first_header + header.headers;
    QTRACE_Discontinuity what =
        discontinuity(QTRACE_CAUSE_DAMAGE, "the block's contents make no sense", block_.offset);
    what.bytes = header.size();
    what.records = records > records_ ? records - records_ : 0;
    what.records_known = 1;
    what.headers = headers > headers_ ? headers - headers_ : 0;
    return report(what);
}

// A header with an address that is not the first: the thread was not traced before it. item_ holds it already.
QTRACE_ITEM QTRACE_Reader::report_pause()
{
    header_held_ = true;
    context_ = decoder_.open_header();
    item_.discontinuity = discontinuity(QTRACE_CAUSE_PAUSE, "tracing was paused and resumed", block_.offset);
    item_.discontinuity.records_known = 1;
    item_.discontinuity.context = &context_.header;
    text = located(name_, block_.offset, item_.discontinuity.reason);
    return QTRACE_ITEM_DISCONTINUITY;
}

QTRACE_ITEM QTRACE_Reader::fail(uint64_t offset)
{
    text = located(name_, offset, std::strerror(file_.error));
    return QTRACE_ITEM_ERROR;
}

// ---- Summary and seeking ----------------------------------------------------------------------------------------

// Calls whole(place) for every block, broken() for every stretch that is none.
template <class Visitor, class Damage_Visitor>
void QTRACE_Reader::walk(bool payloads, Visitor whole, Damage_Visitor broken)
{
    for (uint64_t offset = begin_; offset < file_.size();) {
        const std::optional<Block_Header> header = file_.header_at(offset);
        const Place place{offset, header.value_or(Block_Header{})};
        if (header && (payloads ? file_.read_payload(place) : file_.holds(offset, place.header.size()))) {
            whole(place);
            offset = place.end();
            continue;
        }
        broken();
        const std::optional<Place> next = file_.find(offset + 1, file_.size());
        offset = next ? next->offset : file_.size();
    }
}

int QTRACE_Reader::summarize(QTRACE_Info &info, bool payloads)
{
    info = {};
    info.format_version = FORMAT_VERSION;
    info.size = file_.size();
    uint64_t record = 0, file_header = 0;
    bool last = false, behind_last = false, after_damage = false;
    Block_Header front; // the block before
    const auto whole = [&](const Place &place) {
        const Block_Header &header = place.header;
        // Blocks that are gone without a trace leave a gap in the numbers only, or a header without its comment.
        const bool gap = (header.flags & GAP_BEFORE) != 0;
        const bool jump = header.first_record != record || header.first_header != file_header;
        const bool uncommented = (header.flags & COMMENT_BEFORE) != 0 && !is_comment_of(front, header);
        if (!after_damage && (((jump || uncommented) && !gap) || last))
            ++info.damaged_places;
        behind_last |= last;
        info.left_out += gap;
        info.open_end = (header.flags & OPEN_END) != 0;
        ++info.blocks;
        info.records += header.records;
        info.headers += header.headers;
        info.compression = std::max<uint32_t>(info.compression, header.compression);
        record = header.first_record + header.records;
        file_header = header.first_header + header.headers;
        last = (header.flags & LAST_BLOCK) != 0;
        after_damage = false;
        front = header;
    };
    const auto broken = [&] {
        ++info.damaged_places;
        behind_last |= last;
        last = false;
        after_damage = true;
    };
    walk(payloads, whole, broken);
    info.clean_end = last && !behind_last;
    if (!last && !after_damage)
        ++info.damaged_places;
    if (file_.error == 0)
        return 0;
    fail(0);
    return -1;
}

const std::vector<Place> &QTRACE_Reader::index()
{
    if (!indexed_)
        walk(
            false, [this](const Place &place) { index_.push_back(place); }, [] {});
    indexed_ = true;
    return index_;
}

bool QTRACE_Reader::is_item_before(uint64_t record) const
{
    return (item_.kind == QTRACE_ITEM_RECORD || item_.kind == QTRACE_ITEM_HEADER) && item_.record_number < record;
}

int QTRACE_Reader::seek(uint64_t record)
{
    const std::vector<Place> &blocks = index();
    // The first block that reaches the place in front of the record: the headers there may end a block.
    auto block = std::find_if(blocks.begin(), blocks.end(), [record](const Place &place) {
        return place.header.first_record + place.header.records >= record &&
               (place.header.flags & COMMENT_BLOCK) == 0;
    });
    const bool exists = std::any_of(block, blocks.end(), [record](const Place &place) {
        return place.header.first_record + place.header.records > record;
    });
    if (!exists) {
        place_at(file_.size(), records_, headers_);
        seen_last_ = true;
        return -1;
    }
    // Go there from the block in front of it: it may hold the comment, or what is between them may be damaged.
    uint64_t from = begin_, first_record = 0, first_header = 0;
    if (block != blocks.begin()) {
        const Place &front = *(block - 1);
        const bool comment = (front.header.flags & COMMENT_BLOCK) != 0;
        from = comment ? front.offset : front.end();
        first_record = front.header.first_record + front.header.records;
        first_header = front.header.first_header + front.header.headers;
    }
    place_at(from, first_record, first_header);
    size_t steps = 1, last_in_front = 0; // advances; of them, those up to the last item in front of the record
    for (; (item_.kind = advance()) == QTRACE_ITEM_DISCONTINUITY || is_item_before(record); ++steps)
        if (item_.kind != QTRACE_ITEM_DISCONTINUITY)
            last_in_front = steps;
    if (steps > last_in_front + 1) { // damage behind it comes first
        place_at(from, first_record, first_header);
        for (steps = 0; steps <= last_in_front; ++steps)
            item_.kind = advance();
    }
    held_ = true;
    return 0;
}

const QTRACE_FILE_HDR *QTRACE_Reader::open_header() const
{
    if (item_.kind == QTRACE_ITEM_DISCONTINUITY)
        return item_.discontinuity.context;
    return decoded_ && decoder_.open_header().present ? &decoder_.open_header().header : nullptr;
}

trace::Decoder &trace::decoder_of(QTRACE_Reader &reader)
{
    return reader.decoder();
}

// ---- C ----------------------------------------------------------------------------------------------------------

extern "C" {

int qtrace_api_version(void)
{
    return QTRACE_API_VERSION;
}

QTRACE_Reader *qtrace_open(const char *name, char **error)
try {
    auto reader = std::make_unique<QTRACE_Reader>();
    const std::string reason = name == nullptr ? "no name given" : reader->open(name);
    if (reason.empty())
        return reader.release();
    if (error != nullptr)
        *error = copy_of(reason);
    return nullptr;
} catch (const std::bad_alloc &) {
    if (error != nullptr)
        *error = copy_of(std::string(name) + ": byte 0: out of memory");
    return nullptr;
}

QTRACE_ITEM qtrace_next(QTRACE_Reader *reader, const QTRACE_Item **item)
try {
    return reader->next(item);
} catch (const std::bad_alloc &) {
    reader->text = "out of memory";
    return QTRACE_ITEM_ERROR;
}

const QTRACE_FILE_HDR *qtrace_open_header(QTRACE_Reader *reader)
{
    return reader->open_header();
}

int qtrace_seek(QTRACE_Reader *reader, uint64_t record)
try {
    return reader->seek(record);
} catch (const std::bad_alloc &) {
    reader->text = "out of memory";
    return -1;
}

uint64_t qtrace_blocks(QTRACE_Reader *reader, QTRACE_Block *to, uint64_t room)
try {
    const std::vector<Place> &blocks = reader->index();
    for (size_t i = 0; i < std::min<uint64_t>(blocks.size(), room); ++i) {
        const Block_Header &header = blocks[i].header;
        to[i] = {blocks[i].offset, header.size(),       header.first_record,
                 header.records,   header.first_header, header.headers};
    }
    return blocks.size();
} catch (const std::bad_alloc &) {
    reader->text = "out of memory";
    return 0;
}

int qtrace_info(QTRACE_Reader *reader, QTRACE_Info *info)
{
    return reader->summarize(*info, false);
}

int qtrace_verify(QTRACE_Reader *reader, QTRACE_Info *info)
{
    return reader->summarize(*info, true);
}

const char *qtrace_error(const QTRACE_Reader *reader)
{
    return reader->text.c_str();
}

void qtrace_close(QTRACE_Reader *reader)
{
    delete reader;
}
}
