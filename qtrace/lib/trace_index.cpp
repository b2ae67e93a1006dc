#include "trace_index.h"

#include <algorithm>

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

// ---- Index ------------------------------------------------------------------------------------------------------

std::shared_ptr<const Trace_Index> Trace_Index::build(Block_File &blocks, uint64_t begin)
{
    const auto index = std::make_shared<Trace_Index>();
    Block_Summary summary(blocks.size());
    uint64_t range = begin; // where the next block's range begins
    const auto whole = [&](const Block_Place &place) {
        summary.whole(place);
        if (place.header.has(COMMENT_BLOCK) || place.header.records + place.header.headers == 0)
            return;
        const Block_Header &header = place.header;
        index->blocks_.push_back(
            {range, place.end() - range, header.first_record, header.records, header.first_header, header.headers});
        index->header_offsets_.push_back(place.offset);
        index->last_.push_back(header.has(LAST_BLOCK));
        range = place.end();
    };
    walk_blocks(
        blocks, begin, [&](const Block_Place &place) { return blocks.holds(place); }, whole,
        [&](const auto &next) { summary.broken(!next); });
    if (blocks.error != 0)
        return nullptr;
    index->info_ = summary.end();
    index->number_records();
    return index;
}

void Trace_Index::number_records()
{
    const size_t count = blocks_.size();
    records_up_to_.resize(count);
    records_from_.resize(count);
    uint64_t most = 0;
    for (size_t i = 0; i < count; ++i)
        records_up_to_[i] = most = std::max(most, blocks_[i].first_record + blocks_[i].records);
    most = 0;
    for (size_t i = count; i-- > 0;)
        records_from_[i] = most = std::max(most, blocks_[i].first_record + blocks_[i].records);
}

Block_Sequence Trace_Index::sequence_before(size_t number) const
{
    if (number == 0)
        return {};
    const QTRACE_Block &front = blocks_[number - 1];
    Block_Header header;
    header.first_record = front.first_record;
    header.records = static_cast<uint32_t>(front.records);
    header.first_header = front.first_header;
    header.headers = static_cast<uint32_t>(front.headers);
    header.flags = last_[number - 1] ? LAST_BLOCK : 0;
    return Block_Sequence(header);
}

size_t Trace_Index::block_before(uint64_t record) const
{
    const auto found = std::lower_bound(records_up_to_.begin(), records_up_to_.end(), record);
    const auto number = static_cast<size_t>(found - records_up_to_.begin());
    return number < blocks_.size() && records_from_[number] > record ? number : blocks_.size();
}

} // namespace trace
