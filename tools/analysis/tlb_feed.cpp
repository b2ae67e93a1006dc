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

Xlate_Kind kind_of(const Translated_Address &address)
{
    switch (address.pair().walk) {
    case trace::Walk_Kind::nested:
        return Xlate_Kind::nested;
    case trace::Walk_Kind::single: // a guest's real address has a guest depth; the host's own have none
        return address.guest_depth > 0 ? Xlate_Kind::guest_real : Xlate_Kind::host;
    default:
        return Xlate_Kind::hash;
    }
}

void read_host_walks(const Translated_Address &address, Table_Walk &walk)
{
    for (size_t step = 0; step < walk.steps; step++) {
        const QTRACE_RTW &from = address.walks[step];
        walk.host[step][0] = number(from.RTPDE_ra_l1);
        walk.host[step][1] = number(from.RTPDE_ra_l2);
        walk.host[step][2] = number(from.RTPDE_ra_l3);
        walk.host[step][3] = number(from.RTPTE_ra);
    }
}

void read_walk(const Translated_Address &address, Xlate_Kind kind, Table_Walk &walk)
{
    walk.steps = kind == Xlate_Kind::hash ? 0 : 1;
    if (kind == Xlate_Kind::nested)
        walk.steps = static_cast<uint8_t>(std::clamp<size_t>(address.guest_depth, 1, MOST_HOST_WALKS));
    read_host_walks(address, walk);
    if (walk.steps == 0)
        return;
    const QTRACE_RTW_GUEST &guest = *address.guest;
    const uint64_t directories[] = {number(guest.RTPDE_GUEST_ra_l1), number(guest.RTPDE_GUEST_ra_l2),
                                    number(guest.RTPDE_GUEST_ra_l3)};
    const size_t entries = walk.steps - 1u;
    for (size_t entry = 0; entry < entries; entry++) {
        walk.guest_real[entry] = entry + 1 == entries ? number(guest.RTPTE_GUEST_ra) : directories[entry];
        walk.guest_entry[entry] = number(address.host_addresses[entry].ra);
    }
    walk.guest_real[entries] = number(guest.GUEST_ra);
}

} // namespace

// ---- Naming --------------------------------------------------------------------------------------------

// Kernel addresses, those with the two highest bits set, are translated by the tables of process 0.
void Tlb_Feed::set_space(Tlb_Page &page, bool in_guest) const
{
    page.lpid = in_guest ? partition_.lpid : 0;
    if (page.kind == Xlate_Kind::guest_real)
        page.space = 0;
    else if (page.kind != Xlate_Kind::hash)
        page.space = page.first >> 62 == 3 ? 0 : partition_.pid;
}

Told Tlb_Feed::read(const Translated_Address &address, uint64_t effective, Named &named) const
{
    constexpr uint8_t REAL = 2, NOT_INVOLVED = 3;
    if (address.modes.host == REAL && address.pair().exists)
        return Told::untranslated;
    if ((address.pieces & trace::PIECE_RPN) == 0 || (address.pair().pieces & trace::PIECE_RPN) == 0)
        return Told::nothing;
    Tlb_Page &page = named.translation.page;
    page.kind = kind_of(address);
    unsigned bits = sizes_.bits(address.page_size);
    if ((address.pair().pieces & trace::PIECE_GUEST_PAGE) != 0)
        bits = std::min(bits, sizes_.bits(address.guest_page_size));
    page.bits = static_cast<uint8_t>(bits);
    page.first = effective >> bits << bits;
    named.translation.real = uint64_t{address.page_number} << 12 >> bits << bits;
    named.in_guest = page.kind == Xlate_Kind::guest_real || address.modes.guest != NOT_INVOLVED;
    if (page.kind == Xlate_Kind::hash)
        page.space = address.vsid;
    set_space(page, named.in_guest);
    read_walk(address, page.kind, named.translation.walk);
    return Told::page;
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
    set_space(page, named_.in_guest);
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
        set_space(page, space_in_guest_);
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
