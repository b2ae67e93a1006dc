#include "tlb_feed.h"

#include <algorithm>
#include <bit>

namespace qtrace_tool
{
namespace
{

constexpr size_t MOST_KNOWN_PAGES = 65536;

} // namespace

void Tlb_Feed::take(const Access_Entry &entry, const Access_List &list)
{
    switch (entry.kind) {
    case Access_Entry::Kind::record:
        return record(entry, list);
    case Access_Entry::Kind::header:
        return header(entry, list);
    case Access_Entry::Kind::loss:
        return loss(entry);
    }
}

void Tlb_Feed::name_fetch(uint32_t code, const Access_List &list)
{
    fresh_ = code < NO_ADDRESS;
    told_ = fresh_ ? Told::page : code == UNTRANSLATED ? Told::untranslated : Told::nothing;
    if (fresh_) {
        static_cast<Named_Translation &>(named_) = list.translation(code);
        set_space(named_.translation.page, named_.in_guest, partition_);
    }
}

// ---- Entries -------------------------------------------------------------------------------------------

void Tlb_Feed::enter_partition(const Access_Entry &entry)
{
    partition_ = {entry.address, static_cast<uint32_t>(entry.data_address)};
    moved_ = true;
    tell([this](Tlb_Model &model) { model.switch_to(partition_); });
}

void Tlb_Feed::header(const Access_Entry &entry, const Access_List &list)
{
    enter_partition(entry);
    if (entry.next != NO_ADDRESS)
        name_fetch(entry.next, list);
}

void Tlb_Feed::loss(const Access_Entry &entry)
{
    told_ = Told::nothing;
    fresh_ = false;
    current_ = nullptr;
    if (entry.known)
        enter_partition(entry);
}

void Tlb_Feed::record(const Access_Entry &entry, const Access_List &list)
{
    tell([&](Tlb_Model &model) { model.instruction(entry.address); });
    fetch(entry);
    if (entry.data != NO_ADDRESS)
        data(entry, list);
    if (entry.next != NO_ADDRESS)
        name_fetch(entry.next, list);
}

// The page named for this instruction becomes the last translation of its page.
void Tlb_Feed::remember_named()
{
    Tlb_Page &page = named_.translation.page;
    set_space(page, named_.in_guest, partition_);
    named_.order = ++order_;
    if (current_ == nullptr || !(current_->translation.page == page)) {
        if (known_.size() >= MOST_KNOWN_PAGES && !known_.contains(page))
            known_.clear();
        sizes_known_ |= uint64_t{1} << page.bits;
        current_ = &known_[page];
    }
    *current_ = named_;
    space_ = page;
    space_in_guest_ = named_.in_guest;
}

// The translation named last of the page that `address` is on, in the address space in which the instructions before
// were; null when there is none.
Tlb_Feed::Named *Tlb_Feed::last_named(uint64_t address)
{
    Named *last = nullptr;
    for (uint64_t left = sizes_known_; left != 0; left &= left - 1) {
        Tlb_Page page = space_;
        page.bits = static_cast<uint8_t>(std::countr_zero(left));
        page.first = address >> page.bits << page.bits;
        set_space(page, space_in_guest_, partition_);
        const auto found = known_.find(page);
        if (found != known_.end() && (last == nullptr || found->second.order > last->order))
            last = &found->second;
    }
    return last;
}

void Tlb_Feed::fetch(const Access_Entry &entry)
{
    if (told_ == Told::untranslated)
        return tell([](Tlb_Model &model) { model.untranslated(Access_Side::fetch); });
    if (told_ == Told::nothing || !entry.known)
        return tell([](Tlb_Model &model) { model.not_known(Access_Side::fetch); });
    if (fresh_)
        remember_named();
    else if (moved_ || current_ == nullptr ||
             entry.address >> current_->translation.page.bits << current_->translation.page.bits !=
                 current_->translation.page.first)
        current_ = last_named(entry.address);
    fresh_ = moved_ = false;
    if (current_ == nullptr)
        return tell([](Tlb_Model &model) { model.not_known(Access_Side::fetch); });
    tell([&](Tlb_Model &model) { model.access(Access_Side::fetch, entry.address, current_->translation); });
}

void Tlb_Feed::data(const Access_Entry &entry, const Access_List &list)
{
    switch (entry.data) {
    case SUSPECT:
        return tell([](Tlb_Model &model) { model.suspect(); });
    case NOT_TOLD:
        return tell([](Tlb_Model &model) { model.not_known(Access_Side::data); });
    case UNTRANSLATED:
        return tell([](Tlb_Model &model) { model.untranslated(Access_Side::data); });
    default:
        static_cast<Named_Translation &>(data_) = list.translation(entry.data);
        set_space(data_.translation.page, data_.in_guest, partition_);
        tell([&](Tlb_Model &model) { model.access(Access_Side::data, entry.data_address, data_.translation); });
    }
}

} // namespace qtrace_tool
