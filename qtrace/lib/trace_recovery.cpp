// Copies the whole blocks of a damaged file.
#include "qtrace_jobs.h"
#include "replacement_file.h"
#include "thread_team.h"
#include "trace_index.h"

#include <algorithm>
#include <cstring>
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

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A block that is kept: where it is in the damaged file, and its flags in the copy.
struct Kept_Block {
    Block_Place place;
    uint8_t flags;
};

// The whole blocks of a file, as its reader passes over them.
class Block_Keeper
{
public:
    explicit Block_Keeper(const Trace_Source &source)
        : name_(source.name), blocks_(source.file), next_(source.begin)
    {
    }

    // The blocks that begin before `end` and were not kept yet: the reader found no damage there. Comment blocks and
    // empty ones deliver no item and are among them.
    void keep_up_to(uint64_t end)
    {
        while (next_ < end) {
            const std::optional<Block_Header> header = blocks_.header_at(next_);
            if (!header)
                fail();
            kept_.push_back({{next_, *header}, header->flags});
            next_ = kept_.back().place.end();
        }
    }
    // What begins there, kept or not, is damaged.
    void drop(uint64_t offset, uint64_t bytes)
    {
        while (!kept_.empty() && kept_.back().place.offset >= offset)
            kept_.pop_back();
        next_ = offset + bytes;
    }
    // Whether the writer closed the file before this place.
    bool ended_before(uint64_t offset) const
    {
        return !kept_.empty() && kept_.back().place.header.has(LAST_BLOCK) && offset >= kept_.back().place.end();
    }
    std::vector<Kept_Block> take() { return std::move(kept_); }

private:
    [[noreturn]] void fail() const
    {
        if (blocks_.error != 0)
            throw Failure(located(name_, next_, std::strerror(blocks_.error)));
        throw Failure(name_ + ": the file changed while it was read");
    }

    const std::string &name_;
    Block_File blocks_;
    std::vector<Kept_Block> kept_;
    uint64_t next_; // where the last block or damage ends
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

// All that the reader still delivers, in file order.
std::vector<Event> events_of(QTRACE_Reader *reader)
{
    std::vector<Event> events;
    const QTRACE_Item *item = nullptr;
    for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;) {
        if (kind == QTRACE_ITEM_ERROR)
            throw Failure(qtrace_error(reader));
        if (kind == QTRACE_ITEM_DISCONTINUITY && is_damage(item->discontinuity))
            events.push_back({item->discontinuity.offset, item->discontinuity});
        else if (kind != QTRACE_ITEM_DISCONTINUITY &&
                 (events.empty() || events.back().damage || events.back().offset != item->block_offset))
            events.push_back({item->block_offset, std::nullopt});
    }
    return events;
}

using Reader = std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)>;

Reader reader_of(const QTRACE_Index &index)
{
    Reader reader(qtrace_open_with_index(&index), &qtrace_close);
    if (!reader)
        throw std::bad_alloc();
    return reader;
}

// The same of the whole file, by group of blocks.
std::vector<std::vector<Event>> read_groups(const Trace_Source &source, unsigned threads)
{
    constexpr uint64_t GROUP = 2;
    Block_File headers(source.file);
    const QTRACE_Index index{source, threads < 2 ? nullptr : Trace_Index::build(headers, source.begin)};
    if (!index.blocks || index.blocks->blocks().empty())
        return {events_of(reader_of(QTRACE_Index{source, nullptr}).get())};
    const uint64_t blocks = index.blocks->blocks().size();
    std::vector<std::vector<Event>> groups((blocks + GROUP - 1) / GROUP);
    work_together(
        threads, groups.size(), [&] { return reader_of(index); },
        [&](const Reader &reader, size_t group) {
            if (qtrace_select_blocks(reader.get(), group * GROUP, std::min(GROUP, blocks - group * GROUP)) != 0)
                throw Failure(qtrace_error(reader.get()));
            groups[group] = events_of(reader.get());
        });
    return groups;
}

// Every block whose items can all be read, in file order.
std::vector<Kept_Block> whole_blocks(const Trace_Source &source, unsigned threads, QTRACE_Recovery &result)
{
    Block_Keeper keeper(source);
    for (const std::vector<Event> &group : read_groups(source, threads))
        for (const Event &event : group) {
            keeper.keep_up_to(event.damage ? event.offset : event.offset + 1);
            if (!event.damage)
                continue;
            account(*event.damage, keeper.ended_before(event.offset), result);
            keeper.drop(event.offset, event.damage->bytes);
        }
    keeper.keep_up_to(source.file->size());
    return keeper.take();
}

// Numbers stay as they are; the flags say where they jump, and that the end is not the writer's.
void mark_what_is_lost(std::vector<Kept_Block> &kept, QTRACE_Recovery &result)
{
    Block_Sequence sequence;
    uint64_t end = kept.front().place.offset;
    for (Kept_Block &block : kept) {
        const std::optional<QTRACE_Discontinuity> what = sequence.before(block.place);
        // A loss that the writer marked is its own where nothing was left out.
        if (what && (is_damage(*what) || end != block.place.offset))
            block.flags |= GAP_BEFORE | LEFT_OUT;
        sequence.take(block.place.header);
        end = block.place.end();
        result.records += block.place.header.records;
        result.headers += block.place.header.headers;
        if (&block != &kept.back())
            block.flags &= static_cast<uint8_t>(~(LAST_BLOCK | OPEN_END));
    }
    uint8_t &last = kept.back().flags;
    if ((last & LAST_BLOCK) == 0)
        last |= LAST_BLOCK | OPEN_END;
    result.blocks = kept.size();
    result.open_end = (last & OPEN_END) != 0;
}

// Every block is read and tested again: the file may have changed since.
void copy(const Trace_Source &source, const char *to_name, const std::vector<Kept_Block> &kept)
{
    Replacement_File to(to_name);
    const std::array<uint8_t, FILE_START_SIZE> start = file_start();
    to.write(start.data(), start.size());
    Block_File blocks(source.file);
    for (const Kept_Block &block : kept) {
        std::optional<Block_Place> place = blocks.whole_at(block.place.offset);
        if (blocks.error != 0)
            throw Failure(located(source.name, block.place.offset, std::strerror(blocks.error)));
        if (!place || place->header != block.place.header)
            throw Failure(source.name + ": the file changed while it was read");
        place->header.flags = block.flags;
        uint8_t header[BLOCK_HEADER_SIZE];
        store_block_header(place->header, header);
        to.write(header, sizeof header);
        to.write(blocks.stored(), place->header.stored_size);
    }
    to.commit();
}

void recover(const char *from, const char *to, unsigned threads, QTRACE_Recovery &result)
{
    Trace_Source source;
    if (const std::string reason = open_trace(from, source); !reason.empty())
        throw Failure(reason);
    if (source.file->is(to))
        throw Failure(std::string(to) + ": is the damaged file itself");
    std::vector<Kept_Block> kept = whole_blocks(source, threads, result);
    if (kept.empty())
        throw Failure(source.name + ": there is no whole block in it");
    mark_what_is_lost(kept, result);
    copy(source, to, kept);
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
