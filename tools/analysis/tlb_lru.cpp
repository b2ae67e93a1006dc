#include "tlb_lru.h"

#include <algorithm>

namespace qtrace_tool
{

// ---- A level of a TLB ----------------------------------------------------------------------------------

Tlb_Level::Tlb_Level(uint32_t entries, uint32_t ways) : slots_(entries)
{
    for (uint32_t set = 0; set < entries / ways; set++) {
        sets_.push_back({NONE, NONE});
        for (uint32_t way = 0; way < ways; way++) {
            slots_[set * ways + way].set = set;
            link_newest(set * ways + way);
        }
    }
}

void Tlb_Level::unlink(uint32_t slot)
{
    const Slot &gone = slots_[slot];
    Set &set = sets_[gone.set];
    (gone.newer == NONE ? set.newest : slots_[gone.newer].older) = gone.older;
    (gone.older == NONE ? set.oldest : slots_[gone.older].newer) = gone.newer;
}

void Tlb_Level::link_newest(uint32_t slot)
{
    Set &set = sets_[slots_[slot].set];
    slots_[slot].newer = NONE;
    slots_[slot].older = set.newest;
    (set.newest == NONE ? set.oldest : slots_[set.newest].newer) = slot;
    set.newest = slot;
}

void Tlb_Level::link_oldest(uint32_t slot)
{
    Set &set = sets_[slots_[slot].set];
    slots_[slot].older = NONE;
    slots_[slot].newer = set.oldest;
    (set.oldest == NONE ? set.newest : slots_[set.oldest].older) = slot;
    set.oldest = slot;
}

void Tlb_Level::release(uint32_t slot)
{
    Slot &freed = slots_[slot];
    if (freed.page != NONE)
        slot_of_[freed.page] = NONE;
    reach_ -= freed.bytes;
    freed.page = NONE;
    freed.bytes = 0;
}

bool Tlb_Level::touch(uint32_t page)
{
    if (page >= slot_of_.size() || slot_of_[page] == NONE)
        return false;
    const uint32_t slot = slot_of_[page];
    if (slots_[slot].newer != NONE) {
        unlink(slot);
        link_newest(slot);
    }
    return true;
}

void Tlb_Level::insert(uint32_t page, uint64_t index, uint64_t bytes)
{
    if (page >= slot_of_.size())
        slot_of_.resize(std::max<size_t>(page + 1, slot_of_.size() * 2), NONE);
    const uint32_t slot = sets_[index % sets_.size()].oldest;
    release(slot);
    slots_[slot].page = page;
    slots_[slot].bytes = bytes;
    slot_of_[page] = slot;
    reach_ += bytes;
    most_reach_ = std::max(most_reach_, reach_);
    unlink(slot);
    link_newest(slot);
}

void Tlb_Level::drop(uint32_t page)
{
    if (page >= slot_of_.size() || slot_of_[page] == NONE)
        return;
    const uint32_t slot = slot_of_[page];
    release(slot);
    unlink(slot);
    link_oldest(slot);
}

void Tlb_Level::clear()
{
    for (uint32_t slot = 0; slot < slots_.size(); slot++)
        release(slot);
}

// ---- A cache of keys -----------------------------------------------------------------------------------

bool Lru_Keys::use(Key key)
{
    if (entries_ == 0)
        return false;
    const auto place = places_.find(key);
    if (place != places_.end()) {
        order_.splice(order_.begin(), order_, place->second);
        return true;
    }
    if (order_.size() == entries_) {
        places_.erase(order_.back());
        order_.pop_back();
    }
    order_.push_front(key);
    places_.emplace(key, order_.begin());
    return false;
}

void Lru_Keys::clear()
{
    order_.clear();
    places_.clear();
}

// ---- Stack distances -----------------------------------------------------------------------------------

size_t Lru_Distances::use(uint32_t page)
{
    const auto place = std::ranges::find(recent_, page);
    if (place != recent_.end()) {
        const auto distance = static_cast<size_t>(place - recent_.begin());
        std::rotate(recent_.begin(), place, place + 1);
        return distance;
    }
    const size_t distance = take_from_tree(page);
    if (recent_.size() == RECENT) {
        age(recent_.back());
        recent_.pop_back();
    }
    recent_.insert(recent_.begin(), page);
    return distance;
}

size_t Lru_Distances::take_from_tree(uint32_t page)
{
    if (page >= time_of_.size() || time_of_[page] == 0)
        return NEVER;
    const uint32_t time = time_of_[page];
    const size_t newer = in_tree_ - count_up_to(time);
    add(time, -1);
    in_tree_--;
    time_of_[page] = 0;
    return recent_.size() + newer;
}

void Lru_Distances::age(uint32_t page)
{
    if (last_time_ + 1 >= tree_.size())
        make_room();
    if (page >= time_of_.size())
        time_of_.resize(std::max<size_t>(page + 1, time_of_.size() * 2), 0);
    time_of_[page] = ++last_time_;
    page_at_[last_time_] = page;
    add(last_time_, 1);
    in_tree_++;
}

// Gives the pages in the tree new times without holes, and the tree room for three times as many.
void Lru_Distances::make_room()
{
    std::vector<uint32_t> pages;
    pages.reserve(in_tree_);
    for (uint32_t time = 1; time <= last_time_; time++)
        if (time_of_[page_at_[time]] == time)
            pages.push_back(page_at_[time]);
    const size_t size = std::max<size_t>(1024, 4 * pages.size());
    tree_.assign(size, 0);
    page_at_.assign(size, 0);
    last_time_ = in_tree_ = 0;
    for (const uint32_t page : pages)
        age(page);
}

void Lru_Distances::add(uint32_t time, int32_t amount)
{
    for (size_t i = time; i < tree_.size(); i += i & -i)
        tree_[i] += amount;
}

uint32_t Lru_Distances::count_up_to(uint32_t time) const
{
    int32_t count = 0;
    for (uint32_t i = time; i > 0; i &= i - 1)
        count += tree_[i];
    return static_cast<uint32_t>(count);
}

void Lru_Distances::forget(uint32_t page)
{
    if (std::erase(recent_, page) == 0)
        take_from_tree(page);
}

void Lru_Distances::clear()
{
    recent_.clear();
    for (uint32_t time = 1; time <= last_time_; time++)
        time_of_[page_at_[time]] = 0;
    tree_.clear();
    last_time_ = in_tree_ = 0;
}

} // namespace qtrace_tool
