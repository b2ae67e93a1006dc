#include "diff_side.h"

#include <algorithm>

namespace qtrace_tool
{

// ---- Reading ahead -------------------------------------------------------------------------------------

const QTRACE_Item *Lookahead::next_record()
{
    const QTRACE_Item *item = items_->next();
    while (item != nullptr && item->kind == QTRACE_ITEM_HEADER)
        item = items_->next();
    return item;
}

void Lookahead::read_entry()
{
    const QTRACE_Item *item = next_record();
    ended_ = item == nullptr;
    if (ended_)
        return;
    entries_.push_back({hash_(*item), item->record_number != expected_});
    expected_ = item->record_number + 1;
}

// So few records that reading them costs less than seeking.
static constexpr uint64_t NEAR = 4096;

bool Lookahead::go_to(uint64_t place, uint64_t record, bool may_seek)
{
    if (!items_)
        items_ = std::make_unique<Item_Stream>(run_, file_, range_, true);
    const uint64_t after = first_ + entries_.size();
    if (place <= after) {
        entries_.erase(entries_.begin(), entries_.begin() + static_cast<ptrdiff_t>(place - first_));
        first_ = place;
        return true;
    }
    entries_.clear();
    first_ = after;
    if (may_seek && place - first_ > NEAR) {
        first_ = place;
        expected_ = record;
        ended_ = !items_->seek(record);
        return !ended_;
    }
    for (; first_ < place && !ended_; first_++) {
        const QTRACE_Item *item = next_record();
        ended_ = item == nullptr;
        expected_ = ended_ ? 0 : item->record_number + 1;
    }
    return !ended_;
}

std::vector<Record_Key> Lookahead::keys(uint64_t place, uint64_t record, bool may_seek)
{
    std::vector<Record_Key> keys;
    if (!go_to(place, record, may_seek))
        return keys;
    while (entries_.size() < WINDOW && !ended_)
        read_entry();
    const auto jump = std::find_if(entries_.begin() + !entries_.empty(), entries_.end(),
                                   [](const Entry &entry) { return entry.after_jump; });
    for (auto entry = entries_.begin(); entry != jump; ++entry)
        keys.push_back(entry->key);
    at_end_ = ended_ && jump == entries_.end();
    return keys;
}

// ---- The record to be compared -------------------------------------------------------------------------

void Diff_Side::pass_over(uint64_t block, uint64_t passed)
{
    records += passed;
    expected_ += passed;
    items_.pass_to_block(block);
}

bool Diff_Side::is_at(uint64_t record, uint64_t header) const
{
    return numbers_rise_ && expected_ == record && (item != nullptr ? item->header_number : 0) == header;
}

void Diff_Side::next()
{
    full_header = false;
    for (item = items_.next(); item != nullptr && item->kind == QTRACE_ITEM_HEADER; item = items_.next()) {
        full_header |= item->header.control.iar_is_present;
        headers.add(item->header);
    }
    jump = 0;
    if (item == nullptr)
        return;
    records++;
    jump = item->record_number > expected_ ? item->record_number - expected_ : 0;
    numbers_rise_ &= item->record_number >= expected_;
    expected_ = item->record_number + 1;
}

} // namespace qtrace_tool
