#include "tlb_lru.h"

#include <algorithm>
#include <bit>

namespace qtrace_tool
{

// ---- A level of a TLB ----------------------------------------------------------------------------------

Tlb_Level::Tlb_Level(uint32_t entries, uint32_t ways)
    : slots_(entries), places_(std::bit_ceil(2 * static_cast<size_t>(entries)), NONE)
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

// Of the page, or the free place that it would take.
size_t Tlb_Level::place_of(const Hashed_Page &page) const
{
    const size_t mask = places_.size() - 1;
    size_t place = page.hash & mask;
    while (places_[place] != NONE && !(slots_[places_[place]].name.page == page.page))
        place = (place + 1) & mask;
    return place;
}

// Moves those that follow without a free place between, so that they are found again.
void Tlb_Level::take_out(size_t place)
{
    const size_t mask = places_.size() - 1;
    for (size_t next = (place + 1) & mask; places_[next] != NONE; next = (next + 1) & mask) {
        const size_t wanted = slots_[places_[next]].name.hash & mask;
        if (((next - wanted) & mask) < ((next - place) & mask))
            continue;
        places_[place] = places_[next];
        place = next;
    }
    places_[place] = NONE;
}

void Tlb_Level::release(uint32_t slot)
{
    Slot &freed = slots_[slot];
    if (!freed.held)
        return;
    take_out(place_of(freed.name));
    reach_ -= freed.bytes();
    freed.held = false;
}

bool Tlb_Level::touch(const Hashed_Page &page)
{
    const uint32_t slot = places_[place_of(page)];
    if (slot == NONE)
        return false;
    if (slots_[slot].newer != NONE) {
        unlink(slot);
        link_newest(slot);
    }
    return true;
}

void Tlb_Level::insert(const Hashed_Page &page, uint64_t real)
{
    const uint32_t slot = sets_[(page.page.first >> page.page.bits) % sets_.size()].oldest;
    release(slot);
    slots_[slot].name = page;
    slots_[slot].real = real;
    slots_[slot].held = true;
    places_[place_of(page)] = slot;
    reach_ += slots_[slot].bytes();
    most_reach_ = std::max(most_reach_, reach_);
    unlink(slot);
    link_newest(slot);
}

void Tlb_Level::drop_slot(uint32_t slot)
{
    release(slot);
    unlink(slot);
    link_oldest(slot);
}

void Tlb_Level::drop(const Hashed_Page &page)
{
    const uint32_t slot = places_[place_of(page)];
    if (slot != NONE)
        drop_slot(slot);
}

bool Tlb_Level::drop_other(const Hashed_Page &page, uint64_t real)
{
    const uint32_t slot = places_[place_of(page)];
    const bool other = slot != NONE && slots_[slot].real != real;
    if (other)
        drop_slot(slot);
    return other;
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
    const size_t distance = is_old(page) ? take_old(page) : NEVER;
    if (recent_.size() == RECENT) {
        age(recent_.back());
        recent_.pop_back();
    }
    recent_.insert(recent_.begin(), page);
    return distance;
}

size_t Lru_Distances::take_old(uint32_t page)
{
    const uint32_t time = time_of_[page];
    const size_t newer = bits_ - count_up_to(time);
    add(time, -1);
    time_of_[page] = 0;
    return recent_.size() + newer;
}

void Lru_Distances::age(uint32_t page)
{
    if (last_time_ + 1 >= held_.size() * WORD)
        make_room();
    if (page >= time_of_.size())
        time_of_.resize(page + 1, 0);
    time_of_[page] = ++last_time_;
    add(last_time_, 1);
}

// Gives the old pages new times without holes, and room for three times as many.
void Lru_Distances::make_room()
{
    const uint32_t forgotten = count_up_to(cleared_), pages = bits_ - forgotten;
    for (uint32_t &time : time_of_)
        time = time > cleared_ ? count_up_to(time) - forgotten : 0;
    const size_t words = std::max<size_t>(16, 4 * static_cast<size_t>(pages) / WORD + 1);
    held_.assign(words, 0);
    tree_.assign(words + 1, 0);
    last_time_ = cleared_ = bits_ = 0;
    while (last_time_ < pages)
        add(++last_time_, 1);
}

void Lru_Distances::add(uint32_t time, int32_t amount)
{
    held_[time / WORD] ^= uint64_t{1} << time % WORD;
    bits_ += amount;
    for (size_t i = time / WORD + 1; i < tree_.size(); i += i & -i)
        tree_[i] += amount;
}

uint32_t Lru_Distances::count_up_to(uint32_t time) const
{
    if (held_.empty())
        return 0;
    auto count = static_cast<uint32_t>(std::popcount(held_[time / WORD] << (WORD - 1 - time % WORD)));
    for (size_t i = time / WORD; i > 0; i &= i - 1)
        count += tree_[i];
    return count;
}

void Lru_Distances::forget(uint32_t page)
{
    if (std::erase(recent_, page) == 0 && is_old(page))
        take_old(page);
}

void Lru_Distances::clear()
{
    recent_.clear();
    cleared_ = last_time_;
}

void Lru_Distances::age_all()
{
    for (; !recent_.empty(); recent_.pop_back())
        age(recent_.back());
}

void Lru_Distances::keep(const std::vector<uint32_t> &pages)
{
    age_all();
    size_t kept = 0;
    for (uint32_t page = 0; page < time_of_.size(); page++) {
        if (kept < pages.size() && pages[kept] == page)
            time_of_[kept++] = time_of_[page];
        else
            forget(page);
    }
    time_of_.resize(std::min(kept, time_of_.size()));
}

} // namespace qtrace_tool
