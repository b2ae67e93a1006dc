#include "tlb_feed.h"

#include <algorithm>
#include <bit>

namespace qtrace_tool
{
namespace
{

using trace::number;
using trace::Translated_Address;

constexpr size_t MOST_KNOWN_PAGES = 65536;

} // namespace

// ---- Naming --------------------------------------------------------------------------------------------

Told Tlb_Feed::read(const Translated_Address &address, uint64_t effective, Named &named) const
{
    const Told told = read_translation(address, effective, sizes_, named);
    if (told == Told::page)
        set_space(named.translation.page, named.in_guest, partition_);
    return told;
}

void Tlb_Feed::name_fetch(const Translated_Address &address, uint64_t effective)
{
    told_ = read(address, effective, named_);
    fresh_ = told_ == Told::page;
}

// ---- Items ---------------------------------------------------------------------------------------------

void Tlb_Feed::enter_partition(const QTRACE_FILE_HDR &header)
{
    partition_ = {number(header.lpid), number(header.pid)};
    moved_ = true;
    model_.switch_to(partition_);
}

void Tlb_Feed::header(const QTRACE_FILE_HDR &header)
{
    enter_partition(header);
    if (header.control.iar_is_present)
        name_fetch(trace::first_address_of(header), number(header.iar));
}

void Tlb_Feed::loss(const QTRACE_FILE_HDR *context)
{
    told_ = Told::nothing;
    fresh_ = false;
    current_ = nullptr;
    if (context != nullptr)
        enter_partition(*context);
}

void Tlb_Feed::record(const QTRACE_Item &item)
{
    const QTRACE_RECORD &record = item.record;
    model_.instruction(item.address);
    fetch(item);
    if (record.header.control.fld.data_address_present)
        data(record);
    if (record.header.control.fld.next_instruction_EA_present)
        name_fetch(trace::next_address_of(record), number(record.next_instruction_ea));
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

void Tlb_Feed::fetch(const QTRACE_Item &item)
{
    if (told_ == Told::untranslated) {
        model_.untranslated(Access_Side::fetch);
        return;
    }
    if (told_ == Told::nothing || !item.address_known) {
        model_.not_known(Access_Side::fetch);
        return;
    }
    if (fresh_)
        remember_named();
    else if (moved_ || current_ == nullptr ||
             item.address >> current_->translation.page.bits << current_->translation.page.bits !=
                 current_->translation.page.first)
        current_ = last_named(item.address);
    fresh_ = moved_ = false;
    if (current_ == nullptr)
        model_.not_known(Access_Side::fetch);
    else
        model_.access(Access_Side::fetch, item.address, current_->translation);
}

void Tlb_Feed::data(const QTRACE_RECORD &record)
{
    if (record.header.control.fld.trace_error_code_present) {
        model_.suspect();
        return;
    }
    const uint64_t effective = number(record.data_ea);
    switch (read(trace::data_address_of(record), effective, data_)) {
    case Told::nothing:
        model_.not_known(Access_Side::data);
        break;
    case Told::untranslated:
        model_.untranslated(Access_Side::data);
        break;
    case Told::page:
        model_.access(Access_Side::data, effective, data_.translation);
        break;
    }
}

} // namespace qtrace_tool
