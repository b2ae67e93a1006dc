// Copies chosen items of a trace file: blocks as they are where all of them is kept, parts of others encoded anew.
#include "block_press.h"
#include "qtrace_jobs.h"
#include "thread_team.h"
#include "trace_codec.h"
#include "trace_index.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace
{

using namespace trace;

// ---- What is wanted ---------------------------------------------------------------------------------------------

class Choice
{
public:
    explicit Choice(const QTRACE_Cut &what)
        : what_(what), lpids_(what.lpids, what.lpid_count), pids_(what.pids, what.pid_count)
    {
    }

    bool done() const { return kept_ >= what_.most; }
    bool asks_for_context() const { return !lpids_.empty() || !pids_.empty(); }
    bool wants_context(const Open_Header &open) const
    {
        return !asks_for_context() || (open.present && is_among(lpids_, number(open.header.lpid)) &&
                                       is_among(pids_, number(open.header.pid)));
    }
    // Whether a record of that number, or a header before it, is wanted by its number.
    bool wants(uint64_t record)
    {
        if (record < run_begin_ || record >= run_end_)
            find_run(record);
        return run_wanted_ && !done();
    }
    // Whether any of these numbers is wanted, or all of them; both ends are included.
    bool wants_any(uint64_t first, uint64_t last) { return !done() && (wants(first) || run_end_ <= last); }
    bool wants_all(uint64_t first, uint64_t last)
    {
        return wants(first) && run_end_ > last && last - first < what_.most - kept_;
    }
    void keep_record() { kept_++; }
    void keep_records(uint64_t records) { kept_ += records; }
    uint64_t kept() const { return kept_; }
    void go_back_to(uint64_t kept) { kept_ = kept; }

private:
    static constexpr uint64_t NONE = std::numeric_limits<uint64_t>::max();

    static bool is_among(std::span<const uint64_t> wanted, uint64_t value)
    {
        return wanted.empty() || std::ranges::find(wanted, value) != wanted.end();
    }
    void find_run(uint64_t record);

    const QTRACE_Cut &what_;
    std::span<const uint64_t> lpids_, pids_;
    uint64_t kept_ = 0;
    // Numbers from `run_begin_` up to `run_end_` are all wanted, or none of them.
    uint64_t run_begin_ = 0, run_end_ = 0;
    bool run_wanted_ = false;
};

void Choice::find_run(uint64_t record)
{
    run_wanted_ = record >= what_.from;
    run_begin_ = run_wanted_ ? what_.from : 0;
    run_end_ = run_wanted_ ? NONE : what_.from;
    if (!run_wanted_ || what_.every == 0 || what_.window >= what_.every)
        return;
    const uint64_t place = (record - what_.from) % what_.every;
    run_wanted_ = place < what_.window;
    run_begin_ = record - place + (run_wanted_ ? 0 : what_.window);
    const uint64_t left = (run_wanted_ ? what_.window : what_.every) - place;
    run_end_ = left < NONE - record ? record + left : NONE;
}

// ---- The items of a block ---------------------------------------------------------------------------------------

// Delivers what a reader would of a block whose payload is whole.
class Block_Items
{
public:
    enum class Item { record, header, end, corrupt };

    // `comment`: of the block's first header, when it is outside the block; null when it is lost, or there is none.
    // False: the contents make no sense.
    bool begin(const Block_Header &header, const uint8_t *payload, const std::string *comment);
    Item next();
    void leave_out_translations(bool leave_out) { decoder_.leave_out_translations(leave_out); }

    // The item delivered last.
    const QTRACE_RECORD &record() const { return record_; }
    const QTRACE_FILE_HDR &header() const { return header_; }
    // Before the next item.
    uint64_t records() const { return records_; }
    uint64_t headers() const { return headers_; }
    const Position &position() const { return decoder_.position(); }
    const Open_Header &context() const { return decoder_.open_header(); }

private:
    bool take_comment();

    Decoder decoder_;
    QTRACE_RECORD record_{};
    QTRACE_FILE_HDR header_{};
    Block_Header block_;
    uint64_t records_ = 0, headers_ = 0;
    bool comment_left_ = false; // one outside the block belongs to it, and no header has named it so far
    const std::string *comment_ = nullptr;
};

bool Block_Items::begin(const Block_Header &header, const uint8_t *payload, const std::string *comment)
{
    block_ = header;
    records_ = header.first_record;
    headers_ = header.first_header;
    comment_left_ = header.has(COMMENT_BEFORE);
    comment_ = comment;
    return payload != nullptr && decoder_.begin_block(payload, header);
}

// False when the header says of its comment what cannot be.
bool Block_Items::take_comment()
{
    if (!decoder_.comment_outside()) {
        header_.comment = const_cast<char *>(reinterpret_cast<const char *>(decoder_.comment())); // only read
        return true;
    }
    if (!std::exchange(comment_left_, false))
        return false;
    header_.comment = const_cast<char *>(comment_ != nullptr ? comment_->data() : "");
    if (comment_ == nullptr)
        header_.comment_length = 0;
    return comment_ == nullptr || comment_->size() == header_.comment_length;
}

Block_Items::Item Block_Items::next()
{
    const Decoder::Result result = decoder_.next(record_, header_);
    if (result == Decoder::Result::record)
        return records_++ < block_.records_after() ? Item::record : Item::corrupt;
    if (result == Decoder::Result::header)
        return headers_++ < block_.headers_after() && take_comment() ? Item::header : Item::corrupt;
    const bool all = records_ == block_.records_after() && headers_ == block_.headers_after();
    return result == Decoder::Result::end && all ? Item::end : Item::corrupt;
}

// ---- Blocks decoded beforehand ----------------------------------------------------------------------------------

// Decodes all items of a block. False when its contents make no sense.
bool can_be_read(Block_Items &items)
{
    Block_Items::Item item;
    items.leave_out_translations(true);
    do
        item = items.next();
    while (item == Block_Items::Item::record || item == Block_Items::Item::header);
    return item == Block_Items::Item::end;
}

// Tells of single blocks whether they are kept as a whole and can be read.
class Block_Tester
{
public:
    Block_Tester(const Trace_Source &source, const QTRACE_Cut &what)
        : blocks_(source.file), what_(what), choice_(what)
    {
    }
    bool can_be_kept(const Block_Place &place)
    {
        const Block_Header &header = place.header;
        return !header.has(COMMENT_BLOCK) && is_kept_whole(header) && blocks_.read_payload(place) &&
               items_.begin(header, blocks_.unpack(header), nullptr) && choice_.wants_context(items_.context()) &&
               can_be_read(items_);
    }

private:
    // As far as its numbers tell. A comment outside it can only be tested together with it.
    bool is_kept_whole(const Block_Header &header)
    {
        const bool changes_context = header.headers != 0 && choice_.asks_for_context();
        return header.records != 0 && !header.has(COMMENT_BEFORE) && !changes_context &&
               header.first_record >= what_.from && header.records_after() - what_.from <= what_.most &&
               choice_.wants_all(header.first_record, header.records_after() - (header.headers == 0));
    }

    Block_File blocks_;
    const QTRACE_Cut &what_;
    Choice choice_;
    Block_Items items_;
};

// Blocks that need not be decoded again; none with one thread.
class Tested_Blocks
{
public:
    // Both must live longer.
    Tested_Blocks(const Trace_Source &source, const QTRACE_Cut &what, unsigned threads)
        : source_(source), what_(what), threads_(threads)
    {
    }
    // Whether all of the block is kept, and can be read; to be asked in the order of the offsets. The file may have changed
    // since: then it is another block.
    bool contain(const Block_Place &place);

private:
    void test_from(uint64_t offset);

    const Trace_Source &source_;
    const QTRACE_Cut &what_;
    unsigned threads_;
    Block_Window window_;       // what was tested last
    std::vector<uint8_t> kept_; // of its blocks: whether they are
    size_t next_ = 0;
};

void Tested_Blocks::test_from(uint64_t offset)
{
    constexpr size_t GROUP = 16;
    window_ = window_at(source_, offset);
    const size_t blocks = window_.blocks.size();
    kept_.assign(blocks, 0);
    next_ = 0;
    work_together(
        threads_, (blocks + GROUP - 1) / GROUP, [&] { return Block_Tester(source_, what_); },
        [&](Block_Tester &tester, size_t group) {
            for (size_t i = group * GROUP; i < std::min(blocks, (group + 1) * GROUP); i++)
                kept_[i] = tester.can_be_kept(window_.blocks[i]);
        });
}

bool Tested_Blocks::contain(const Block_Place &place)
{
    if (threads_ > 1 && place.offset >= window_.end)
        test_from(place.offset);
    const std::vector<Block_Place> &blocks = window_.blocks;
    while (next_ < blocks.size() && blocks[next_].offset < place.offset)
        next_++;
    return next_ < blocks.size() && kept_[next_] != 0 && blocks[next_].offset == place.offset &&
           blocks[next_].header == place.header;
}

// ---- The new file -----------------------------------------------------------------------------------------------

// A block as it goes into a file.
struct Stored_Block {
    Block_Header header;
    std::vector<uint8_t> payload;
};

// Sets the flags that say what was left out; for those the last block has to wait for the next one.
class New_File
{
public:
    New_File(const QTRACE_Cut &what, QTRACE_Cut_Result &result) : what_(what), result_(result)
    {
        const std::array<uint8_t, FILE_START_SIZE> start = file_start();
        write(start.data(), start.size());
    }

    // Something belongs before the next block, or after the last one.
    void leave_out() { left_out_ = true; }
    bool left_out() const { return left_out_; }
    void add(Stored_Block &&block);
    void finish();

private:
    void write(const void *bytes, size_t size);
    void write_last();

    const QTRACE_Cut &what_;
    QTRACE_Cut_Result &result_;
    Block_Sequence sequence_;
    std::optional<Stored_Block> last_;
    bool left_out_ = false;
};

void New_File::write(const void *bytes, size_t size)
{
    if (const int error = what_.write(what_.user, bytes, size); error != 0)
        throw std::system_error(error, std::generic_category());
}

void New_File::write_last()
{
    uint8_t header[BLOCK_HEADER_SIZE];
    store_block_header(last_->header, header);
    write(header, sizeof header);
    write(last_->payload.data(), last_->payload.size());
}

void New_File::add(Stored_Block &&block)
{
    const std::optional<QTRACE_Discontinuity> what = sequence_.before({0, block.header});
    // A loss that the writer marked is its own where nothing more was left out.
    if (what && (is_damage(*what) || left_out_))
        block.header.flags |= GAP_BEFORE | LEFT_OUT;
    sequence_.take(block.header);
    left_out_ = false;
    if (last_) {
        last_->header.flags &= static_cast<uint8_t>(~(LAST_BLOCK | OPEN_END));
        write_last();
    }
    last_ = std::move(block);
    result_.blocks++;
    result_.records += last_->header.records;
    result_.headers += last_->header.headers;
}

void New_File::finish()
{
    if (!last_) { // a trace has a last block, if an empty one
        Encoder encoder;
        Press press;
        encoder.begin_block();
        encoder.collect(press.payload.data());
        std::vector<uint8_t> bytes;
        press.append_block(bytes, {}, {STORED, 0}, press.payload.data(), encoder.raw_size());
        const bool left_out = left_out_;
        add({*load_block_header(bytes.data()), {bytes.begin() + BLOCK_HEADER_SIZE, bytes.end()}});
        left_out_ = left_out;
    }
    if (left_out_ || !last_->header.has(LAST_BLOCK))
        last_->header.flags |= LAST_BLOCK | OPEN_END;
    result_.open_end = last_->header.has(OPEN_END);
    write_last();
}

// Parts predict little: zstd has to make up for it, and there are few of them.
constexpr int PART_LEVEL = 6;

// ---- Parts of blocks --------------------------------------------------------------------------------------------

// Encodes chosen items of one block, in blocks of their own.
class Part_Encoder
{
public:
    // Goes to the block of that header, of which some items will be chosen. `comment`: of its comment block, or null.
    void begin(const Block_Header &source, const Block_Header *comment)
    {
        source_ = source;
        source_.flags |= comment != nullptr ? comment->flags & (GAP_BEFORE | LEFT_OUT) : 0;
        bytes_.clear();
        open_ = false;
    }
    // The next item of the block is `item`, at that place; it is kept.
    template <class Item>
    void keep(const Item &item, const Block_Items &items, const Position &place, const Open_Header &context);
    // The items up to the next one kept are not.
    void pass_over() { close(0); }
    // The block ends with the item kept last.
    void end() { close(source_.flags & (LAST_BLOCK | OPEN_END)); }
    // Blocks and their headers one after the other.
    const std::vector<uint8_t> &bytes() const { return bytes_; }

private:
    void open(uint64_t first_record, uint64_t first_header);
    void close(unsigned flags);
    void keep_comment(const QTRACE_FILE_HDR &header);
    void keep_comment(const QTRACE_RECORD &) {}
    void append(const Block_Header &header, const uint8_t *payload, size_t size)
    {
        press_.append_block(bytes_, header, {static_cast<Compression>(source_.compression), PART_LEVEL}, payload,
                            size);
    }

    Block_Header source_;
    Encoder encoder_;
    Press press_;
    std::vector<uint8_t> bytes_;
    bool open_ = false;   // a block is being filled
    Block_Header now_;    // of that block
    std::string comment_; // outside it
};

void Part_Encoder::open(uint64_t first_record, uint64_t first_header)
{
    encoder_.begin_block();
    const bool begins = first_record == source_.first_record && first_header == source_.first_header;
    now_ = {};
    now_.first_record = first_record;
    now_.first_header = first_header;
    now_.first_address = encoder_.first().address;
    now_.flags = static_cast<uint8_t>((encoder_.first().address_known ? ADDRESS_KNOWN : 0) |
                                      (begins ? source_.flags & (GAP_BEFORE | LEFT_OUT) : 0));
    comment_.clear();
    open_ = true;
}

void Part_Encoder::close(unsigned flags)
{
    if (!std::exchange(open_, false))
        return;
    if (!comment_.empty()) {
        Block_Header front = now_;
        front.flags |= COMMENT_BLOCK;
        append(front, reinterpret_cast<const uint8_t *>(comment_.data()), comment_.size());
        now_.flags = static_cast<uint8_t>((now_.flags & ADDRESS_KNOWN) | COMMENT_BEFORE);
    }
    now_.flags |= static_cast<uint8_t>(flags);
    now_.records = encoder_.records();
    now_.headers = encoder_.headers();
    encoder_.collect(press_.payload.data());
    append(now_, press_.payload.data(), encoder_.raw_size());
}

void Part_Encoder::keep_comment(const QTRACE_FILE_HDR &header)
{
    if (header.comment != nullptr && header.comment_length > MAX_COMMENT_IN_BLOCK)
        comment_.assign(header.comment, header.comment_length);
}

template <class Item>
void Part_Encoder::keep(const Item &item, const Block_Items &items, const Position &place,
                        const Open_Header &context)
{
    const bool record = std::is_same_v<Item, QTRACE_RECORD>;
    const uint64_t records = items.records() - record, headers = items.headers() - !record;
    if (!open_) {
        encoder_.continue_at(place, context);
        open(records, headers);
    } else if (!encoder_.has_room_for(item)) {
        close(0);
        open(records, headers);
    }
    keep_comment(item);
    encoder_.add(item);
}

// ---- Cutting ----------------------------------------------------------------------------------------------------

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Cutter
{
public:
    Cutter(const Trace_Source &source, const QTRACE_Cut &what, unsigned threads, QTRACE_Cut_Result &result)
        : source_(source), tested_(source, what, threads), blocks_(source.file), what_(what), choice_(what),
          result_(result), to_(what, result)
    {
    }
    void cut();

private:
    struct Comment {
        Stored_Block block;
        std::string text;
    };

    bool ends_before(const std::optional<Block_Header> &header) const;
    uint64_t pass_damage(uint64_t offset);
    bool take(const Block_Place &place);
    bool take_comment(const Block_Header &header);
    bool take_items(const Block_Place &place);
    bool wants_any_of(const Block_Header &header);
    bool wants_all_of(const Block_Header &header);
    bool keep_items(const Block_Header &header);
    bool keep_item(Block_Items::Item item, const Position &place);
    void leave_out();
    void add_comment();
    void add_whole(const Block_Header &header);
    void add_parts();
    bool has_comment_of(const Block_Header &header) const
    {
        return comment_ && is_comment_of(comment_->block.header, header);
    }

    const Trace_Source &source_;
    Tested_Blocks tested_; // are kept without decoding them when all of them is wanted
    Block_File blocks_;
    const QTRACE_Cut &what_;
    Choice choice_;
    QTRACE_Cut_Result &result_;
    New_File to_;
    uint64_t passed_ = 0;              // records
    Block_Sequence sequence_;          // of the source
    std::unique_ptr<Comment> comment_; // read, and what becomes of it depends on the next block
    Block_Items items_;
    Part_Encoder parts_;
    Open_Header context_; // before the next item
    bool context_wanted_ = false;
};

// Whether nothing from that block on is wanted. An empty block belongs to what precedes it.
bool Cutter::ends_before(const std::optional<Block_Header> &header) const
{
    const bool empty = header && !header->has(COMMENT_BLOCK) && header->records + header->headers == 0;
    return choice_.done() && result_.blocks != 0 && !empty;
}

void Cutter::leave_out()
{
    comment_.reset();
    to_.leave_out();
}

// One that belongs to no block stays where nothing was left out before it, as an empty block does.
void Cutter::add_comment()
{
    if (comment_ && !to_.left_out())
        to_.add(std::move(comment_->block));
    comment_.reset();
}

// Returns where the next whole block begins.
uint64_t Cutter::pass_damage(uint64_t offset)
{
    add_comment();
    leave_out();
    result_.damaged_places++;
    sequence_.accept_next();
    const std::optional<Block_Place> next = blocks_.find(offset + 1);
    return next ? next->offset : blocks_.size();
}

void Cutter::cut()
{
    bool ends_damaged = false, stopped = false;
    for (uint64_t offset = source_.begin; offset < blocks_.size() && !stopped;) {
        const std::optional<Block_Header> header = blocks_.header_at(offset);
        const Block_Place place{offset, header.value_or(Block_Header{})};
        stopped = ends_before(header);
        if (stopped)
            leave_out();
        else if (const bool whole = header && blocks_.holds(place) && take(place); whole)
            offset = place.end();
        else
            ends_damaged = (offset = pass_damage(offset)) == blocks_.size();
        if (blocks_.error != 0)
            throw Failure(located(source_.name, place.offset, std::strerror(blocks_.error)));
    }
    if (!stopped && !ends_damaged)
        result_.damaged_places += sequence_.at_end(blocks_.size()).has_value();
    add_comment();
    to_.finish();
}

// False when the payload is damaged: then this is no whole block.
bool Cutter::take(const Block_Place &place)
{
    const Block_Header &header = place.header;
    const std::optional<QTRACE_Discontinuity> what = sequence_.before(place);
    if (comment_ && !has_comment_of(header))
        add_comment();
    const bool wanted = header.has(COMMENT_BLOCK) || wants_any_of(header);
    if (wanted && !blocks_.read_payload(place))
        return false;
    result_.damaged_places += what && is_damage(*what);
    sequence_.take(header);
    if (!wanted) {
        leave_out();
    } else if (!(header.has(COMMENT_BLOCK) ? take_comment(header) : take_items(place))) {
        result_.damaged_places++;
        add_comment();
        leave_out();
    }
    passed_ += header.records;
    if (what_.progress != nullptr)
        what_.progress(what_.user, passed_);
    return true;
}

bool Cutter::take_comment(const Block_Header &header)
{
    const uint8_t *payload = blocks_.unpack(header);
    if (payload == nullptr)
        return false;
    comment_ = std::make_unique<Comment>();
    comment_->block = {header, {blocks_.stored(), blocks_.stored() + header.stored_size}};
    comment_->text.assign(reinterpret_cast<const char *>(payload), header.raw_size);
    return true;
}

// By the numbers alone.
bool Cutter::wants_any_of(const Block_Header &header)
{
    if (header.records + header.headers == 0)
        return !to_.left_out();
    const bool has_first_header = header.first_header == 0 && header.headers != 0;
    return has_first_header ||
           choice_.wants_any(header.first_record, header.records_after() - (header.headers == 0));
}

bool Cutter::wants_all_of(const Block_Header &header)
{
    return header.records + header.headers == 0 ||
           choice_.wants_all(header.first_record, header.records_after() - (header.headers == 0));
}

// Of the block whose payload was read. False when its contents make no sense.
bool Cutter::take_items(const Block_Place &place)
{
    const Block_Header &header = place.header;
    if (tested_.contain(place) && wants_all_of(header)) {
        choice_.keep_records(header.records);
        add_whole(header);
        return true;
    }
    const std::string *comment = has_comment_of(header) ? &comment_->text : nullptr;
    if (!items_.begin(header, blocks_.unpack(header), comment))
        return false;
    context_ = items_.context();
    context_wanted_ = choice_.wants_context(context_);
    if (header.headers == 0 && header.records != 0 && !context_wanted_) {
        leave_out();
        return true;
    }
    if (!wants_all_of(header) || (header.headers != 0 && choice_.asks_for_context()))
        return keep_items(header);
    if (!can_be_read(items_))
        return false;
    choice_.keep_records(header.records);
    add_whole(header);
    return true;
}

void Cutter::add_whole(const Block_Header &header)
{
    if (has_comment_of(header))
        to_.add(std::move(comment_->block));
    comment_.reset();
    to_.add({header, {blocks_.stored(), blocks_.stored() + header.stored_size}});
}

void Cutter::add_parts()
{
    const std::vector<uint8_t> &bytes = parts_.bytes();
    for (auto at = bytes.begin(); at != bytes.end();) {
        const Block_Header header = *load_block_header(&*at);
        at += BLOCK_HEADER_SIZE;
        to_.add({header, {at, at + header.stored_size}});
        at += header.stored_size;
    }
}

// Whether the item that was delivered last is kept.
bool Cutter::keep_item(Block_Items::Item item, const Position &place)
{
    const bool is_record = item == Block_Items::Item::record;
    if (!is_record)
        context_wanted_ = choice_.wants_context(items_.context());
    const bool first_header = !is_record && items_.headers() == 1;
    if (!first_header && !(choice_.wants(items_.records() - is_record) && context_wanted_)) {
        parts_.pass_over();
        return false;
    }
    if (is_record) {
        parts_.keep(items_.record(), items_, place, context_);
        choice_.keep_record();
    } else {
        parts_.keep(items_.header(), items_, place, context_);
    }
    return true;
}

// Item by item; nothing after the last one that may be wanted is decoded.
bool Cutter::keep_items(const Block_Header &header)
{
    const uint64_t kept_before = choice_.kept();
    uint64_t kept = 0;
    bool last_kept = false;
    Block_Items::Item item = Block_Items::Item::end;
    parts_.begin(header, has_comment_of(header) ? &comment_->block.header : nullptr);
    const auto first_header_comes = [&] { return header.headers != 0 && items_.headers() == 0; };
    while (last_kept || first_header_comes() || choice_.wants_any(items_.records(), header.records_after())) {
        const Position place = items_.position();
        items_.leave_out_translations(!choice_.wants(items_.records()));
        item = items_.next();
        if (item != Block_Items::Item::record && item != Block_Items::Item::header)
            break;
        last_kept = keep_item(item, place);
        kept += last_kept;
        if (item == Block_Items::Item::header)
            context_ = items_.context();
    }
    if (item == Block_Items::Item::corrupt) {
        choice_.go_back_to(kept_before);
        return false;
    }
    if (kept == uint64_t{header.records} + header.headers) {
        add_whole(header);
        return true;
    }
    last_kept ? parts_.end() : parts_.pass_over();
    add_parts();
    if (!last_kept)
        leave_out();
    comment_.reset();
    return true;
}

void cut(const char *from, const QTRACE_Cut &what, unsigned threads, QTRACE_Cut_Result &result)
{
    Trace_Source source;
    if (const std::string reason = open_trace(from, source); !reason.empty())
        throw Failure(reason);
    Cutter(source, what, threads, result).cut();
}

} // namespace

extern "C" int qtrace_cut(const char *from, const QTRACE_Cut *what, QTRACE_Cut_Result *result, char **error)
{
    return qtrace_cut_by(from, what, 1, result, error);
}

extern "C" int qtrace_cut_by(const char *from, const QTRACE_Cut *what, unsigned threads, QTRACE_Cut_Result *result,
                             char **error)
{
    std::string text;
    try {
        *result = {};
        cut(from, *what, threads, *result);
        return 0;
    } catch (const std::bad_alloc &) {
        text = std::string(from) + ": out of memory";
    } catch (const std::system_error &failure) { // of writing
        text = failure.code().message();
    } catch (const Failure &failure) {
        text = failure.what();
    }
    if (error != nullptr)
        *error = ::strdup(text.c_str());
    return -1;
}
