#include "trace_index.h"

#include <algorithm>
#include <limits>

namespace trace
{

// ---- Summary ----------------------------------------------------------------------------------------------------

Block_Summary::Block_Summary(uint64_t file_size)
{
    info_.format_version = FORMAT_VERSION;
    info_.size = file_size;
}

void Block_Summary::whole(const Block_Place &place)
{
    const Block_Header &header = place.header;
    const std::optional<QTRACE_Discontinuity> what = sequence_.before(place);
    info_.damaged_places += what && is_damage(*what);
    info_.left_out += header.has(GAP_BEFORE);
    info_.open_end = header.has(OPEN_END);
    ++info_.blocks;
    info_.records += header.records;
    info_.headers += header.headers;
    info_.compression = std::max<uint32_t>(info_.compression, header.compression);
    follows_last_ |= sequence_.ended();
    sequence_.take(header);
}

void Block_Summary::broken(bool at_end)
{
    ++info_.damaged_places;
    follows_last_ |= sequence_.ended();
    damaged_end_ = at_end;
    sequence_.accept_next();
}

QTRACE_Info Block_Summary::end()
{
    info_.clean_end = sequence_.ended() && !follows_last_;
    info_.damaged_places += !sequence_.ended() && !damaged_end_;
    return info_;
}

// ---- Window -----------------------------------------------------------------------------------------------------

Block_Window window_at(const Trace_Source &source, uint64_t begin)
{
    constexpr size_t MOST_BLOCKS = 16384;
    Block_File headers(source.file);
    Block_Window window{begin, begin, {}};
    walk_blocks(
        headers, begin,
        [&](uint64_t offset) {
            window.end = offset;
            return offset < headers.size() && window.blocks.size() < MOST_BLOCKS;
        },
        [&](const Block_Place &place) { return headers.holds(place); },
        [&](const Block_Place &place) { window.blocks.push_back(place); }, [](const auto &) {});
    return window;
}

// ---- Index ------------------------------------------------------------------------------------------------------

template <class Whole, class Broken>
bool Trace_Index::walk(Block_File &blocks, uint64_t begin, uint64_t end, Whole whole, Broken broken)
{
    uint64_t range = begin; // where the next block's range begins
    const auto take = [&](const Block_Place &place) {
        whole(place);
        if (place.header.has(COMMENT_BLOCK) || place.header.records + place.header.headers == 0)
            return;
        add(place, range);
        range = place.end();
    };
    walk_blocks(
        blocks, begin, up_to(end), [&](const Block_Place &place) { return blocks.holds(place); }, take, broken);
    number_records();
    return blocks.error == 0;
}

std::shared_ptr<const Trace_Index> Trace_Index::build(Block_File &blocks, uint64_t begin, size_t most_steps)
{
    const auto index = std::make_shared<Trace_Index>();
    index->most_steps_ = most_steps;
    Block_Summary summary(blocks.size());
    const bool read = index->walk(
        blocks, begin, blocks.size(), [&](const Block_Place &place) { summary.whole(place); },
        [&](const auto &next) { summary.broken(!next); });
    index->info_ = summary.end();
    return read ? index : nullptr;
}

std::shared_ptr<const Trace_Index> Trace_Index::build(Block_File &blocks, const QTRACE_Step &step)
{
    const auto index = std::make_shared<Trace_Index>();
    index->most_steps_ = std::numeric_limits<size_t>::max();
    const bool read = index->walk(
        blocks, step.offset, step.offset + step.size, [](const Block_Place &) {}, [](const auto &) {});
    return read ? index : nullptr;
}

void Trace_Index::add(const Block_Place &place, uint64_t range)
{
    const Block_Header &header = place.header;
    QTRACE_Step step{};
    step.offset = range;
    step.size = place.end() - range;
    step.first_block = blocks();
    step.blocks = 1;
    step.first_record = step.lowest_record = header.first_record;
    step.record_after = step.highest_record_after = header.records_after();
    step.records = header.records;
    step.first_header = header.first_header;
    step.header_after = header.headers_after();
    step.headers = header.headers;
    add(step, {place.offset, header.has(LAST_BLOCK)});
}

// The second follows the first.
static QTRACE_Step merged(QTRACE_Step step, const QTRACE_Step &next)
{
    step.size += next.size;
    step.blocks += next.blocks;
    step.record_after = next.record_after;
    step.records += next.records;
    step.lowest_record = std::min(step.lowest_record, next.lowest_record);
    step.highest_record_after = std::max(step.highest_record_after, next.highest_record_after);
    step.header_after = next.header_after;
    step.headers += next.headers;
    return step;
}

void Trace_Index::add(const QTRACE_Step &step, const Step_End &end)
{
    if (steps_.size() == most_steps_ && steps_.back().blocks == width_)
        merge_pairs();
    if (!steps_.empty() && steps_.back().blocks < width_) {
        steps_.back() = merged(steps_.back(), step);
        ends_.back() = end;
        return;
    }
    steps_.push_back(step);
    ends_.push_back(end);
}

void Trace_Index::merge_pairs()
{
    const size_t pairs = steps_.size() / 2, rest = steps_.size() % 2;
    for (size_t i = 0; i < pairs; ++i) {
        steps_[i] = merged(steps_[2 * i], steps_[2 * i + 1]);
        ends_[i] = ends_[2 * i + 1];
    }
    if (rest != 0) {
        steps_[pairs] = steps_.back();
        ends_[pairs] = ends_.back();
    }
    steps_.resize(pairs + rest);
    ends_.resize(pairs + rest);
    width_ *= 2;
}

void Trace_Index::number_records()
{
    const size_t count = steps_.size();
    records_up_to_.resize(count);
    records_from_.resize(count);
    uint64_t most = 0;
    for (size_t i = 0; i < count; ++i)
        records_up_to_[i] = most = std::max(most, steps_[i].highest_record_after);
    most = 0;
    for (size_t i = count; i-- > 0;)
        records_from_[i] = most = std::max(most, steps_[i].highest_record_after);
}

Range_Start Trace_Index::start_of(size_t step) const
{
    if (step == 0)
        return {steps_[0].offset, {}, std::nullopt};
    Block_Header before;
    before.first_record = steps_[step - 1].record_after;
    before.first_header = steps_[step - 1].header_after;
    before.flags = ends_[step - 1].last ? LAST_BLOCK : 0;
    return {steps_[step].offset, Block_Sequence(before), ends_[step - 1].header_offset};
}

size_t Trace_Index::step_reaching(uint64_t record) const
{
    const auto found = std::lower_bound(records_up_to_.begin(), records_up_to_.end(), record);
    return static_cast<size_t>(found - records_up_to_.begin());
}

size_t Trace_Index::step_before(uint64_t record) const
{
    const size_t number = step_reaching(record);
    return number < steps_.size() && records_from_[number] > record ? number : steps_.size();
}

} // namespace trace
