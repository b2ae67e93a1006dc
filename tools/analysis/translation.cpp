#include "translation.h"

#include <algorithm>

namespace qtrace_tool
{
namespace
{

using trace::number;
using trace::Translated_Address;

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

void set_space(Tlb_Page &page, bool in_guest, const Partition_Key &partition)
{
    page.lpid = in_guest ? partition.lpid : 0;
    if (page.kind == Xlate_Kind::guest_real)
        page.space = 0;
    else if (page.kind != Xlate_Kind::hash)
        page.space = is_in_kernel(page.first) ? 0 : partition.pid;
}

Told read_translation(const Translated_Address &address, uint64_t effective, const Page_Sizes &sizes,
                      Named_Translation &named)
{
    if (address.modes.host == trace::MODE_REAL && address.pair().exists)
        return Told::untranslated;
    if ((address.pieces & trace::PIECE_RPN) == 0 || (address.pair().pieces & trace::PIECE_RPN) == 0)
        return Told::nothing;
    Tlb_Page &page = named.translation.page;
    page.kind = kind_of(address);
    unsigned bits = sizes.bits(address.page_size);
    if ((address.pair().pieces & trace::PIECE_GUEST_PAGE) != 0)
        bits = std::min(bits, sizes.bits(address.guest_page_size));
    page.bits = static_cast<uint8_t>(bits);
    page.first = effective >> bits << bits;
    named.translation.real = address.real_page() >> bits << bits;
    named.in_guest = page.kind == Xlate_Kind::guest_real || address.modes.guest != trace::MODE_NONE;
    if (page.kind == Xlate_Kind::hash)
        page.space = address.vsid;
    read_walk(address, page.kind, named.translation.walk);
    return Told::page;
}

} // namespace qtrace_tool
