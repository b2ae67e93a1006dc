// The reader of trace files of qtrace_reader.h.
#include "payload_tests.h"
#include "qtrace_jobs.h"

#include "columns.h"
#include "trace_codec.h"
#include "trace_index.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace
{

using namespace trace;

constexpr uint64_t NO_LIMIT = std::numeric_limits<uint64_t>::max();

void give(char **error, const std::string &text)
{
    if (error != nullptr)
        *error = ::strdup(text.c_str());
}

} // namespace

struct QTRACE_Reader {
public:
    explicit QTRACE_Reader(Trace_Source source, std::shared_ptr<const Trace_Index> index = nullptr);
    QTRACE_ITEM next(const QTRACE_Item **item);
    int seek(uint64_t record);
    int select(uint64_t first, uint64_t count);
    int info(QTRACE_Info &info);
    int verify(unsigned threads, QTRACE_Info &info);
    const QTRACE_FILE_HDR *open_header() const;
    Decoder &decoder() { return decoder_; }
    const Trace_Index *index();
    // Calls visit(block) for each block of a step; false after an error.
    template <class Visit> bool each_block(size_t step, Visit visit);

    std::string text; // of the last discontinuity or error

private:
    QTRACE_ITEM advance();
    std::optional<QTRACE_ITEM> advance_in_block();
    std::optional<QTRACE_ITEM> take_header_or_end(Decoder::Result result);
    std::optional<QTRACE_ITEM> enter_block();
    std::optional<QTRACE_ITEM> pass_damage();
    std::optional<QTRACE_ITEM> enter_block_at_end();
    std::optional<QTRACE_ITEM> begin_items(const Block_Place &place);
    bool fill_header();
    bool fill_comment();
    QTRACE_ITEM report(const QTRACE_Discontinuity &what);
    QTRACE_ITEM report_corrupt_block();
    QTRACE_ITEM report_pause();
    void find_context();
    QTRACE_ITEM fail(const Block_File &file, uint64_t offset);
    Block_File &beside();
    void place_at(uint64_t offset, const Block_Sequence &sequence);
    void place_at(const Range_Start &start) { place_at(start.offset, start.sequence); }
    const Trace_Index *inside(size_t step);
    std::optional<Range_Start> start_of_block(uint64_t number);
    std::optional<Range_Start> start_before(uint64_t record, size_t step);
    void pass_damage_of_range_before(const Range_Start &start);
    int place_at_end();
    bool is_item_before(uint64_t record) const;
    size_t advance_to(uint64_t record, bool &exact);

    Trace_Source source_;
    Block_File file_;
    std::shared_ptr<const Trace_Index> index_;  // null until it is needed
    std::shared_ptr<const Trace_Index> inside_; // the blocks of one of its steps, the one asked for last
    size_t inside_step_ = 0;
    std::optional<Block_File>
        beside_; // for all blocks that are looked at while file_ keeps the payload being decoded
    Decoder decoder_;
    QTRACE_Item item_{};
    std::string comment_;                        // of the header in item_
    std::optional<std::string> outside_comment_; // of the comment block entered last
    enum class Outside { none, lost, here };
    Outside outside_ = Outside::none;    // what a header of this block finds that has its comment outside
    uint64_t position_ = 0;              // offset of the next block
    uint64_t limit_ = NO_LIMIT;          // offset of the first block that is not to be read
    Block_Sequence sequence_;            // up to position_
    uint64_t records_ = 0, headers_ = 0; // before the next item
    bool end_reported_ = false;
    bool in_block_ = false;
    bool decoded_ = false;     // a block was entered: the decoder knows the open header
    Block_Place block_{};      // being decoded
    bool held_ = false;        // item_ was found by a seek and is delivered next
    bool header_held_ = false; // the header in item_ follows the pause that was delivered for it
    Open_Header context_;      // of the last discontinuity
};

QTRACE_Reader::QTRACE_Reader(Trace_Source source, std::shared_ptr<const Trace_Index> index)
    : source_(std::move(source)), file_(source_.file), index_(std::move(index)), position_(source_.begin)
{
}

void QTRACE_Reader::place_at(uint64_t offset, const Block_Sequence &sequence)
{
    position_ = offset;
    limit_ = NO_LIMIT;
    sequence_ = sequence;
    records_ = sequence.records();
    headers_ = sequence.headers();
    end_reported_ = in_block_ = held_ = header_held_ = false;
    outside_comment_.reset();
}

// Most calls deliver a record.
inline std::optional<QTRACE_ITEM> QTRACE_Reader::advance_in_block()
{
    if (header_held_) [[unlikely]] {
        header_held_ = false;
        return QTRACE_ITEM_HEADER;
    }
    item_.address = decoder_.address();
    item_.address_known = decoder_.address_known();
    item_.header_number = headers_;
    item_.record_number = records_;
    const Decoder::Result result = decoder_.next(item_.record, item_.header);
    if (result != Decoder::Result::record || records_ == block_.header.records_after()) [[unlikely]]
        return take_header_or_end(result);
    ++records_;
    return QTRACE_ITEM_RECORD;
}

QTRACE_ITEM QTRACE_Reader::next(const QTRACE_Item **item)
{
    if (held_) [[unlikely]]
        held_ = false;
    else
        item_.kind = advance();
    if (item != nullptr)
        *item = &item_;
    return item_.kind;
}

inline QTRACE_ITEM QTRACE_Reader::advance()
{
    for (;;) {
        const std::optional<QTRACE_ITEM> kind = in_block_ ? advance_in_block() : enter_block();
        if (kind)
            return *kind;
    }
}

// ---- Items of a block -------------------------------------------------------------------------------------------

std::optional<QTRACE_ITEM> QTRACE_Reader::take_header_or_end(Decoder::Result result)
{
    if (result == Decoder::Result::end) {
        in_block_ = false;
        const bool all = records_ == block_.header.records_after() && headers_ == block_.header.headers_after();
        return all ? std::nullopt : std::optional(report_corrupt_block());
    }
    if (result != Decoder::Result::header || headers_ == block_.header.headers_after() || !fill_header())
        return report_corrupt_block();
    ++headers_;
    return item_.header.control.iar_is_present && item_.header_number != 0 ? report_pause() : QTRACE_ITEM_HEADER;
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
        comment_ = *outside_comment_;
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
    if (position_ >= limit_)
        return QTRACE_ITEM_END;
    records_ = sequence_.records();
    headers_ = sequence_.headers();
    if (position_ >= file_.size())
        return enter_block_at_end();
    const std::optional<Block_Place> place = file_.whole_at(position_);
    if (file_.error != 0)
        return fail(file_, position_);
    if (!place)
        return pass_damage();
    if (const std::optional<QTRACE_Discontinuity> what = sequence_.before(*place)) {
        sequence_.accept_next();
        return report(*what);
    }
    return begin_items(*place);
}

// What stands at position_ is no whole block: continues at the next one, which tells how many records are missing.
std::optional<QTRACE_ITEM> QTRACE_Reader::pass_damage()
{
    const uint64_t from = position_;
    const std::optional<Block_Header> broken = file_.header_at(from);
    const std::optional<Block_Place> next = file_.find(from + 1);
    if (file_.error != 0)
        return fail(file_, from);
    position_ = next ? next->offset : file_.size();
    end_reported_ = !next;
    sequence_.accept_next();
    return report(sequence_.damage(from, position_, next, broken));
}

std::optional<QTRACE_ITEM> QTRACE_Reader::enter_block_at_end()
{
    const std::optional<QTRACE_Discontinuity> what = sequence_.at_end(file_.size());
    if (!what || std::exchange(end_reported_, true))
        return QTRACE_ITEM_END;
    return report(*what);
}

std::optional<QTRACE_ITEM> QTRACE_Reader::begin_items(const Block_Place &place)
{
    const Block_Header &header = place.header;
    block_ = place;
    position_ = place.end();
    records_ = header.first_record;
    headers_ = header.first_header;
    outside_ = !header.has(COMMENT_BEFORE)                            ? Outside::none
               : outside_comment_ && sequence_.has_comment_of(header) ? Outside::here
                                                                      : Outside::lost;
    sequence_.take(header);
    const uint8_t *payload = file_.unpack(header);
    if (header.has(COMMENT_BLOCK)) {
        outside_comment_.reset();
        if (payload == nullptr)
            return report_corrupt_block();
        outside_comment_.emplace(reinterpret_cast<const char *>(payload), header.raw_size);
        return std::nullopt;
    }
    if (outside_ != Outside::here)
        outside_comment_.reset();
    if (payload == nullptr)
        return report_corrupt_block();
    item_.block_offset = place.offset;
    decoded_ = true;
    in_block_ = decoder_.begin_block(payload, header);
    return in_block_ ? std::nullopt : std::optional(report_corrupt_block());
}

// ---- Discontinuities --------------------------------------------------------------------------------------------

QTRACE_ITEM QTRACE_Reader::report(const QTRACE_Discontinuity &what)
{
    item_.discontinuity = what;
    item_.header_number = headers_;
    item_.record_number = records_;
    item_.block_offset = what.offset;
    text = located(source_.name, what.offset, what.reason);
    find_context();
    return QTRACE_ITEM_DISCONTINUITY;
}

// The block at position_ restates the context, or the one after it when it is a comment block.
void QTRACE_Reader::find_context()
{
    context_ = {};
    item_.address = 0;
    item_.address_known = 0;
    std::optional<Block_Place> place = file_.whole_at(position_);
    if (place && place->header.has(COMMENT_BLOCK))
        place = file_.whole_at(place->end());
    const uint8_t *payload = place && !place->header.has(COMMENT_BLOCK) ? file_.unpack(place->header) : nullptr;
    if (payload == nullptr)
        return;
    context_ = open_header_of(payload, place->header);
    item_.discontinuity.context = context_.present ? &context_.header : nullptr;
    item_.address = place->header.first_address;
    item_.address_known = place->header.has(ADDRESS_KNOWN);
}

// A block whose checksum is right and whose contents are not: its writer was not ours.
QTRACE_ITEM QTRACE_Reader::report_corrupt_block()
{
    in_block_ = false;
    QTRACE_Discontinuity what =
        discontinuity(QTRACE_CAUSE_DAMAGE, "the block's contents make no sense", block_.offset);
    what.bytes = block_.header.size();
    what.records = block_.header.records_after() - records_;
    what.records_known = 1;
    what.headers = block_.header.headers_after() - headers_;
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
    text = located(source_.name, block_.offset, item_.discontinuity.reason);
    return QTRACE_ITEM_DISCONTINUITY;
}

QTRACE_ITEM QTRACE_Reader::fail(const Block_File &file, uint64_t offset)
{
    text = located(source_.name, offset, std::strerror(file.error));
    return QTRACE_ITEM_ERROR;
}

Block_File &QTRACE_Reader::beside()
{
    if (!beside_)
        beside_.emplace(source_.file);
    return *beside_;
}

// ---- Summary and seeking ----------------------------------------------------------------------------------------

// Null after an I/O error.
const Trace_Index *QTRACE_Reader::index()
{
    if (!index_)
        index_ = Trace_Index::build(beside(), source_.begin);
    if (!index_)
        fail(beside(), 0);
    return index_.get();
}

int QTRACE_Reader::info(QTRACE_Info &info)
{
    info = {};
    if (index() == nullptr)
        return -1;
    info = index_->info();
    return 0;
}

int QTRACE_Reader::verify(unsigned threads, QTRACE_Info &info)
{
    Payload_Tests tests(source_, threads);
    Block_Summary summary(file_.size());
    Block_File &blocks = beside();
    walk_blocks(
        blocks, source_.begin, up_to(blocks.size()),
        [&](const Block_Place &place) { return tests.result(place, blocks); },
        [&](const Block_Place &place) { summary.whole(place); }, [&](const auto &next) { summary.broken(!next); });
    info = summary.end();
    if (blocks.error == 0)
        return 0;
    fail(blocks, 0);
    return -1;
}

int QTRACE_Reader::place_at_end()
{
    place_at(file_.size(), sequence_);
    end_reported_ = true;
    limit_ = 0;
    return -1;
}

bool QTRACE_Reader::is_item_before(uint64_t record) const
{
    return (item_.kind == QTRACE_ITEM_RECORD || item_.kind == QTRACE_ITEM_HEADER) && item_.record_number < record;
}

// The blocks of a step of several. Null after an error.
const Trace_Index *QTRACE_Reader::inside(size_t step)
{
    if (inside_ && inside_step_ == step)
        return inside_.get();
    inside_ = Trace_Index::build(beside(), index_->steps()[step]);
    inside_step_ = step;
    if (inside_ && inside_->blocks() == index_->steps()[step].blocks)
        return inside_.get();
    if (beside().error != 0)
        fail(beside(), index_->steps()[step].offset);
    else
        text = source_.name + ": the file changed while it was read";
    inside_.reset();
    return nullptr;
}

static QTRACE_Block block_of(const QTRACE_Step &step)
{
    return {step.offset, step.size, step.first_record, step.records, step.first_header, step.headers};
}

template <class Visit> bool QTRACE_Reader::each_block(size_t step, Visit visit)
{
    if (index_->steps()[step].blocks == 1) {
        visit(block_of(index_->steps()[step]));
        return true;
    }
    const Trace_Index *const blocks = inside(step);
    if (blocks != nullptr)
        for (const QTRACE_Step &block : blocks->steps())
            visit(block_of(block));
    return blocks != nullptr;
}

// Nothing after an error.
std::optional<Range_Start> QTRACE_Reader::start_of_block(uint64_t number)
{
    const size_t step = index_->step_of(number);
    const uint64_t place = number - index_->steps()[step].first_block;
    if (place == 0)
        return index_->start_of(step);
    const Trace_Index *const blocks = inside(step);
    return blocks != nullptr ? std::optional(blocks->start_of(place)) : std::nullopt;
}

// Of the first block of the step that reaches the place before that record. Nothing after an error.
std::optional<Range_Start> QTRACE_Reader::start_before(uint64_t record, size_t step)
{
    if (index_->steps()[step].blocks == 1)
        return index_->start_of(step);
    const Trace_Index *const blocks = inside(step);
    if (blocks == nullptr)
        return std::nullopt;
    const uint64_t place = std::min<uint64_t>(blocks->step_reaching(record), blocks->blocks() - 1);
    return start_of_block(index_->steps()[step].first_block + place);
}

// Advances to the first record or header at the place of that record, or what follows. Returns the items before it
// up to the last one that is no discontinuity, and sets `exact` when there is none after that.
size_t QTRACE_Reader::advance_to(uint64_t record, bool &exact)
{
    size_t items = 0, before = 0;
    while ((item_.kind = advance()) == QTRACE_ITEM_DISCONTINUITY || is_item_before(record)) {
        ++items;
        if (item_.kind != QTRACE_ITEM_DISCONTINUITY)
            before = items;
    }
    exact = before == items;
    return before;
}

int QTRACE_Reader::seek(uint64_t record)
{
    if (index() == nullptr)
        return -1;
    const size_t step = index_->step_before(record);
    if (step == index_->steps().size())
        return place_at_end();
    const std::optional<Range_Start> start = start_before(record, step);
    if (!start)
        return -1;
    place_at(*start);
    bool exact;
    const size_t before = advance_to(record, exact);
    if (!exact) { // discontinuities directly before the record come first
        place_at(*start);
        for (size_t items = 0; items <= before; ++items)
            item_.kind = advance();
    }
    held_ = true;
    return 0;
}

int QTRACE_Reader::select(uint64_t first, uint64_t count)
{
    if (index() == nullptr)
        return -1;
    const uint64_t blocks = index_->blocks();
    if (first > blocks || count > blocks - first) {
        text = source_.name + ": there are no such blocks";
        return -1;
    }
    if (blocks == 0) {
        place_at(source_.begin, {});
        return 0;
    }
    if (count == 0) {
        place_at_end();
        return 0;
    }
    const std::optional<Range_Start> start = start_of_block(first);
    const bool ends_file = first + count == blocks;
    const std::optional<Range_Start> end = ends_file ? std::nullopt : start_of_block(first + count);
    if (!start || (!end && !ends_file))
        return -1;
    place_at(*start);
    pass_damage_of_range_before(*start);
    if (file_.error != 0) {
        fail(file_, start->offset);
        return -1;
    }
    limit_ = end ? end->offset : NO_LIMIT;
    return 0;
}

// Damage that began in the block before reaches up to the next whole block, and has been told there.
void QTRACE_Reader::pass_damage_of_range_before(const Range_Start &start)
{
    if (!start.header_before)
        return;
    const std::optional<Block_Place> place = file_.whole_at(position_);
    if ((place && !sequence_.before(*place)) || file_.whole_at(*start.header_before))
        return;
    const std::optional<Block_Place> next = file_.find(position_);
    position_ = next ? next->offset : file_.size();
    end_reported_ = !next;
    sequence_.accept_next();
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

namespace
{

// What `make` makes of the trace file; null after an error, which is told.
template <class Maker> auto open_with(const char *name, char **error, Maker make) -> decltype(make(Trace_Source{}))
try {
    Trace_Source source;
    const std::string reason = open_trace(name, source);
    if (reason.empty())
        return make(std::move(source));
    give(error, reason);
    return nullptr;
} catch (const std::bad_alloc &) {
    give(error, std::string(name) + ": out of memory");
    return nullptr;
}

// The result of `action`, or `failed` when memory is short.
template <class Action, class Result> Result guarded(QTRACE_Reader *reader, Result failed, Action action)
try {
    return action();
} catch (const std::bad_alloc &) {
    reader->text = "out of memory"; // short enough to need none
    return failed;
}

// Copies no more than `room`, and moves `to` behind them. False after an error.
bool copy_blocks(QTRACE_Reader &reader, size_t step, QTRACE_Block *&to, uint64_t room)
{
    return reader.each_block(step, [&, left = room](const QTRACE_Block &block) mutable {
        if (left > 0) {
            *to++ = block;
            left--;
        }
    });
}

// None after an error.
const std::vector<QTRACE_Block> &all_blocks(const QTRACE_Index &index)
{
    const std::lock_guard lock(index.mutex);
    const uint64_t count = index.blocks->blocks();
    if (index.all.size() == count)
        return index.all;
    QTRACE_Reader reader(index.source, index.blocks);
    std::vector<QTRACE_Block> all(count);
    if (qtrace_blocks(&reader, all.data(), count) == count)
        index.all = std::move(all);
    return index.all;
}

} // namespace

extern "C" {

int qtrace_api_version(void)
{
    return QTRACE_API_VERSION;
}

const char *qtrace_cause_name(QTRACE_CAUSE cause)
{
    switch (cause) {
    case QTRACE_CAUSE_PAUSE:
        return "pause";
    case QTRACE_CAUSE_REFUSED:
        return "refused";
    case QTRACE_CAUSE_LEFT_OUT:
        return "left out";
    case QTRACE_CAUSE_DAMAGE:
        return "damage";
    case QTRACE_CAUSE_CUT_END:
        return "cut end";
    }
    return nullptr;
}

QTRACE_Reader *qtrace_open(const char *name, char **error)
{
    return open_with(name, error, [](Trace_Source source) { return new QTRACE_Reader(std::move(source)); });
}

QTRACE_Index *qtrace_index_open(const char *name, char **error)
{
    return open_with(name, error, [error](Trace_Source source) -> QTRACE_Index * {
        Block_File blocks(source.file);
        if (auto index = Trace_Index::build(blocks, source.begin))
            return new QTRACE_Index{std::move(source), std::move(index)};
        give(error, source.name + ": " + std::strerror(blocks.error));
        return nullptr;
    });
}

void qtrace_index_close(QTRACE_Index *index)
{
    delete index;
}

const QTRACE_Block *qtrace_index_blocks(const QTRACE_Index *index, uint64_t *count)
try {
    const std::vector<QTRACE_Block> &all = all_blocks(*index);
    *count = all.size();
    return all.data();
} catch (const std::bad_alloc &) {
    *count = 0;
    return nullptr;
}

const QTRACE_Step *qtrace_index_steps(const QTRACE_Index *index, uint64_t *count)
{
    *count = index->blocks->steps().size();
    return index->blocks->steps().data();
}

const QTRACE_Info *qtrace_index_info(const QTRACE_Index *index)
{
    return &index->blocks->info();
}

QTRACE_Reader *qtrace_open_with_index(const QTRACE_Index *index)
try {
    return new QTRACE_Reader(index->source, index->blocks);
} catch (const std::bad_alloc &) {
    return nullptr;
}

QTRACE_ITEM qtrace_next(QTRACE_Reader *reader, const QTRACE_Item **item)
{
    return guarded(reader, QTRACE_ITEM_ERROR, [=] { return reader->next(item); });
}

const QTRACE_FILE_HDR *qtrace_open_header(QTRACE_Reader *reader)
{
    return reader->open_header();
}

int qtrace_seek(QTRACE_Reader *reader, uint64_t record)
{
    return guarded(reader, -1, [=] { return reader->seek(record); });
}

int qtrace_select_blocks(QTRACE_Reader *reader, uint64_t first, uint64_t count)
{
    return guarded(reader, -1, [=] { return reader->select(first, count); });
}

uint64_t qtrace_blocks(QTRACE_Reader *reader, QTRACE_Block *to, uint64_t room)
{
    return guarded(reader, uint64_t{0}, [=]() -> uint64_t {
        if (reader->index() == nullptr)
            return 0;
        QTRACE_Block *const end = to + std::min(room, reader->index()->blocks());
        const size_t steps = reader->index()->steps().size();
        QTRACE_Block *next = to;
        for (size_t step = 0; step < steps && next != end; step++)
            if (const uint64_t left = static_cast<uint64_t>(end - next); !copy_blocks(*reader, step, next, left))
                return 0;
        return reader->index()->blocks();
    });
}

uint64_t qtrace_step_blocks(QTRACE_Reader *reader, uint64_t step, QTRACE_Block *to, uint64_t room)
{
    return guarded(reader, uint64_t{0}, [=]() -> uint64_t {
        if (reader->index() == nullptr || step >= reader->index()->steps().size())
            return 0;
        QTRACE_Block *next = to;
        return copy_blocks(*reader, step, next, room) ? reader->index()->steps()[step].blocks : 0;
    });
}

int qtrace_info(QTRACE_Reader *reader, QTRACE_Info *info)
{
    return guarded(reader, -1, [=] { return reader->info(*info); });
}

int qtrace_verify_by(QTRACE_Reader *reader, unsigned threads, QTRACE_Info *info)
{
    return guarded(reader, -1, [=] { return reader->verify(threads, *info); });
}

int qtrace_verify(QTRACE_Reader *reader, QTRACE_Info *info)
{
    return guarded(reader, -1, [=] { return reader->verify(1, *info); });
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
