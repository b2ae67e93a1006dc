// Copies the whole blocks of a damaged file.
#include "qtrace_jobs.h"
#include "replacement_file.h"
#include "thread_team.h"
#include "trace_index.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace
{

using namespace trace;

constexpr uint64_t NONE = std::numeric_limits<uint64_t>::max();

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The copy: blocks whose flags say what is missing before them, and that the end is not the writer's where it is not. The last
// block has to wait for the next one.
class Recovered_File
{
public:
    // Nothing is created before the first block. All must live longer.
    Recovered_File(const Trace_Source &source, const char *name, QTRACE_Recovery &result)
        : source_(source), name_(name), result_(result), blocks_(source.file)
    {
    }
    void add(const Block_Place &place);
    void finish();

private:
    void write_last();

    const Trace_Source &source_;
    const char *name_;
    QTRACE_Recovery &result_;
    Block_File blocks_;
    std::optional<Replacement_File> to_;
    Block_Sequence sequence_;
    std::optional<Block_Place> last_;
    uint8_t flags_ = 0; // of the last one, in the copy
};

// Numbers stay as they are; the flags say where they jump.
void Recovered_File::add(const Block_Place &place)
{
    const std::optional<QTRACE_Discontinuity> what = sequence_.before(place);
    // A loss that the writer marked is its own where nothing was left out.
    const bool left_out = what && (is_damage(*what) || (last_ && last_->end() != place.offset));
    if (last_) {
        flags_ &= static_cast<uint8_t>(~(LAST_BLOCK | OPEN_END));
        write_last();
    }
    last_ = place;
    flags_ = static_cast<uint8_t>(place.header.flags | (left_out ? GAP_BEFORE | LEFT_OUT : 0));
    sequence_.take(place.header);
    result_.blocks++;
    result_.records += place.header.records;
    result_.headers += place.header.headers;
}

// Every block is read and tested again: the file may have changed since.
void Recovered_File::write_last()
{
    if (!to_) {
        to_.emplace(name_);
        const std::array<uint8_t, FILE_START_SIZE> start = file_start();
        to_->write(start.data(), start.size());
    }
    std::optional<Block_Place> place = blocks_.whole_at(last_->offset);
    if (blocks_.error != 0)
        throw Failure(located(source_.name, last_->offset, std::strerror(blocks_.error)));
    if (!place || place->header != last_->header)
        throw Failure(source_.name + ": the file changed while it was read");
    place->header.flags = flags_;
    uint8_t header[BLOCK_HEADER_SIZE];
    store_block_header(place->header, header);
    to_->write(header, sizeof header);
    to_->write(blocks_.stored(), place->header.stored_size);
}

void Recovered_File::finish()
{
    if (!last_)
        throw Failure(source_.name + ": there is no whole block in it");
    if ((flags_ & LAST_BLOCK) == 0)
        flags_ |= LAST_BLOCK | OPEN_END;
    result_.open_end = (flags_ & OPEN_END) != 0;
    write_last();
    to_->commit();
}

// The whole blocks of a file, as its reader passes over them.
class Block_Keeper
{
public:
    // Both must live longer.
    Block_Keeper(const Trace_Source &source, Recovered_File &to)
        : name_(source.name), blocks_(source.file), to_(to), next_(source.begin)
    {
    }

    // The blocks that begin before `end` and were not kept yet: the reader found no damage there. Comment blocks and
    // empty ones deliver no item and are among them. None that begins before `settled` will be dropped.
    void keep_up_to(uint64_t end, uint64_t settled)
    {
        for (settle(settled); next_ < end; settle(settled)) {
            const std::optional<Block_Header> header = blocks_.header_at(next_);
            if (!header)
                fail();
            kept_.push_back({next_, *header});
            next_ = kept_.back().end();
        }
    }
    // What begins there, kept or not, is damaged.
    void drop(uint64_t offset, uint64_t bytes)
    {
        while (!kept_.empty() && kept_.back().offset >= offset)
            kept_.pop_back();
        next_ = offset + bytes;
    }
    // Whether the writer closed the file before this place.
    bool ended_before(uint64_t offset) const
    {
        return !kept_.empty() && kept_.back().header.has(LAST_BLOCK) && offset >= kept_.back().end();
    }
    void finish()
    {
        for (const Block_Place &place : kept_)
            to_.add(place);
    }

private:
    // The last one before a place may have to tell whether the file ended there.
    void settle(uint64_t offset)
    {
        for (; kept_.size() > 1 && kept_[1].offset < offset; kept_.pop_front())
            to_.add(kept_.front());
    }
    [[noreturn]] void fail() const
    {
        if (blocks_.error != 0)
            throw Failure(located(name_, next_, std::strerror(blocks_.error)));
        throw Failure(name_ + ": the file changed while it was read");
    }

    const std::string &name_;
    Block_File blocks_;
    Recovered_File &to_;
    std::deque<Block_Place> kept_; // not in the copy so far
    uint64_t next_;                // where the last block or damage ends
};

void account(const QTRACE_Discontinuity &damage, bool ended, QTRACE_Recovery &result)
{
    result.damaged_places++;
    result.lost_bytes += damage.bytes;
    result.lost_records += damage.records;
    // what follows the writer's last block was never part of the trace
    result.lost_records_known &= damage.records_known | ended;
}

// What a reader meets: a block with items, or damage.
struct Event {
    uint64_t offset; // of the block
    std::optional<QTRACE_Discontinuity> damage;
};

// Calls take(event) for all that the reader still delivers, in file order; several times for a block.
template <class Take> void each_event(QTRACE_Reader *reader, Take take)
{
    const QTRACE_Item *item = nullptr;
    uint64_t block = NONE; // whose items are delivered
    for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;) {
        if (kind == QTRACE_ITEM_ERROR)
            throw Failure(qtrace_error(reader));
        const bool damaged = kind == QTRACE_ITEM_DISCONTINUITY && is_damage(item->discontinuity);
        if (damaged)
            take(Event{item->discontinuity.offset, item->discontinuity});
        else if (kind != QTRACE_ITEM_DISCONTINUITY && block != item->block_offset)
            take(Event{item->block_offset, std::nullopt});
        if (damaged || kind != QTRACE_ITEM_DISCONTINUITY)
            block = damaged ? NONE : item->block_offset;
    }
}

using Reader = std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)>;

Reader reader_of(const QTRACE_Index &index)
{
    Reader reader(qtrace_open_with_index(&index), &qtrace_close);
    if (!reader)
        throw std::bad_alloc();
    return reader;
}

// Steps that threads read together before the events are used, and of these the ones that a thread takes at once.
struct Step_Window {
    size_t first, count;
    static constexpr size_t GROUP = 2;

    size_t groups() const { return (count + GROUP - 1) / GROUP; }
};

Step_Window window_from(const Trace_Index &index, size_t first)
{
    constexpr uint64_t MOST_BLOCKS = 16384;
    Step_Window window{first, 0};
    for (uint64_t blocks = 0; first + window.count < index.steps().size() && blocks < MOST_BLOCKS; window.count++)
        blocks += index.steps()[first + window.count].blocks;
    return window;
}

// What a reader meets in the group of that number.
std::vector<Event> events_of(QTRACE_Reader *reader, const Trace_Index &index, const Step_Window &window,
                             size_t group)
{
    const size_t first = group * Step_Window::GROUP, count = std::min(Step_Window::GROUP, window.count - first);
    const QTRACE_Step &begin = index.steps()[window.first + first], &last = (&begin)[count - 1];
    if (qtrace_select_blocks(reader, begin.first_block, last.first_block + last.blocks - begin.first_block) != 0)
        throw Failure(qtrace_error(reader));
    std::vector<Event> events;
    each_event(reader, [&](const Event &event) { events.push_back(event); });
    return events;
}

// Calls take(event) for the whole file. Several threads read it in groups of blocks.
template <class Take> void read_events(const Trace_Source &source, unsigned threads, Take take)
{
    Block_File headers(source.file);
    const QTRACE_Index index{source, threads < 2 ? nullptr : Trace_Index::build(headers, source.begin)};
    if (!index.blocks || index.blocks->steps().empty())
        return each_event(reader_of(QTRACE_Index{source, nullptr}).get(), take);
    for (size_t first = 0; first < index.blocks->steps().size();) {
        const Step_Window window = window_from(*index.blocks, first);
        std::vector<std::vector<Event>> groups(window.groups());
        work_together(
            threads, groups.size(), [&] { return reader_of(index); },
            [&](const Reader &reader, size_t group) {
                groups[group] = events_of(reader.get(), *index.blocks, window, group);
            });
        for (const std::vector<Event> &group : groups)
            std::ranges::for_each(group, take);
        first += window.count;
    }
}

void recover(const char *from, const char *to_name, unsigned threads, QTRACE_Recovery &result)
{
    Trace_Source source;
    if (const std::string reason = open_trace(from, source); !reason.empty())
        throw Failure(reason);
    if (source.file->is(to_name))
        throw Failure(std::string(to_name) + ": is the damaged file itself");
    Recovered_File to(source, to_name, result);
    Block_Keeper keeper(source, to);
    read_events(source, threads, [&](const Event &event) {
        keeper.keep_up_to(event.damage ? event.offset : event.offset + 1, event.offset);
        if (!event.damage)
            return;
        account(*event.damage, keeper.ended_before(event.offset), result);
        keeper.drop(event.offset, event.damage->bytes);
    });
    keeper.keep_up_to(source.file->size(), source.file->size());
    keeper.finish();
    to.finish();
}

} // namespace

extern "C" int qtrace_recover(const char *from, const char *to, QTRACE_Recovery *result, char **error)
{
    return qtrace_recover_by(from, to, 1, result, error);
}

extern "C" int qtrace_recover_by(const char *from, const char *to, unsigned threads, QTRACE_Recovery *result,
                                 char **error)
{
    std::string text;
    try {
        *result = {};
        result->lost_records_known = 1;
        recover(from, to, threads, *result);
        return 0;
    } catch (const std::bad_alloc &) {
        text = std::string(from) + ": out of memory";
    } catch (const std::runtime_error &failure) { // std::system_error is one
        text = failure.what();
    }
    if (error != nullptr)
        *error = ::strdup(text.c_str());
    return -1;
}
