#include "address_facts.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

uint64_t value_of_bytes(const uint8_t *bytes, size_t size)
{
    uint64_t value = 0;
    std::memcpy(&value, bytes, size);
    return value;
}

void Address_Facts::add(Fact fact, uint64_t value, size_t index)
{
    if (fact >= Fact::host_l1 && value == 0)
        return;
    const Address_Fact added{fact, index, value};
    const auto at = std::lower_bound(facts_.begin(), facts_.end(), added);
    if (at == facts_.end() || *at != added) // the text names an entry more than once
        facts_.insert(at, added);
}

void Address_Facts::drop(Fact fact)
{
    std::erase_if(facts_, [fact](const Address_Fact &said) { return said.fact == fact; });
}

std::string Address_Facts::text() const
{
    static const char *const names[] = {"vsid",     "page",     "size",      "guest size", "l1",
                                        "l2",       "l3",       "pte",       "host ra",    "guest l1",
                                        "guest l2", "guest l3", "guest pte", "guest ra"};
    std::string result;
    for (const Address_Fact &said : facts_)
        result += fmt::format("{}[{}]={:#x} ", names[static_cast<size_t>(said.fact)], said.index, said.value);
    return result;
}

namespace
{

// An address block of a header or record, under whatever prefix its members have.
struct Block {
    bool vsid_present, page_number_present, page_size_present, guest_page_size_present;
    const QTRACE_VSID &vsid;
    const QTRACE_RPN &page_number;
    uint8_t page_size, guest_page_size;
    const QTRACE_RTW (&walks)[RDX_MAX_2LEVEL_DEPTH];
    const QTRACE_RTW_HOST_RA (&host_ra)[RDX_MAX_GUEST_LEVELS];
    const QTRACE_RTW_GUEST &guest;
};

Address_Facts facts_of(const Block &block)
{
    Address_Facts facts;
    if (block.vsid_present)
        facts.add(Fact::vsid, value_of_bytes(block.vsid));
    if (block.page_number_present)
        facts.add(Fact::page_number, value_of_bytes(block.page_number));
    if (block.page_size_present)
        facts.add(Fact::page_size, block.page_size);
    if (block.guest_page_size_present)
        facts.add(Fact::guest_page_size, block.guest_page_size);
    for (size_t n = 0; n < RDX_MAX_2LEVEL_DEPTH; ++n) {
        facts.add(Fact::host_l1, value_of_bytes(block.walks[n].RTPDE_ra_l1), n);
        facts.add(Fact::host_l2, value_of_bytes(block.walks[n].RTPDE_ra_l2), n);
        facts.add(Fact::host_l3, value_of_bytes(block.walks[n].RTPDE_ra_l3), n);
        facts.add(Fact::host_pte, value_of_bytes(block.walks[n].RTPTE_ra), n);
    }
    for (size_t n = 0; n < RDX_MAX_GUEST_LEVELS; ++n)
        facts.add(Fact::host_ra, value_of_bytes(block.host_ra[n].ra), n);
    facts.add(Fact::guest_l1, value_of_bytes(block.guest.RTPDE_GUEST_ra_l1));
    facts.add(Fact::guest_l2, value_of_bytes(block.guest.RTPDE_GUEST_ra_l2));
    facts.add(Fact::guest_l3, value_of_bytes(block.guest.RTPDE_GUEST_ra_l3));
    facts.add(Fact::guest_pte, value_of_bytes(block.guest.RTPTE_GUEST_ra));
    facts.add(Fact::guest_ra, value_of_bytes(block.guest.GUEST_ra));
    return facts;
}

} // namespace

Address_Facts facts_of_header(const QTRACE_FILE_HDR &h)
{
    return facts_of({h.control.iar_vsid_is_present != 0, h.control.iar_rpn_is_present != 0,
                     h.control.iar_page_size_is_present != 0, h.control.iar_gpage_size_is_present != 0, h.iar_vsid,
                     h.iar_rpn, h.iar_page_size, h.iar_gpage_size, h.iar_hRTW, h.iar_hRTW_host_RA, h.iar_gRTW});
}

Address_Facts facts_of_next(const QTRACE_RECORD &r)
{
    const auto &flags = r.header.control.fld;
    return facts_of({flags.next_instruction_VSID_present != 0, flags.next_instruction_RPN_present != 0,
                     flags.next_instruction_page_size_present != 0, flags.instruction_gpage_size_present != 0,
                     r.next_instruction_vsid, r.next_instruction_rpn, r.next_instruction_page_size,
                     r.next_instruction_gpage_size, r.next_instruction_hRTW, r.next_instruction_hRTW_host_RA,
                     r.next_instruction_gRTW});
}

Address_Facts facts_of_data(const QTRACE_RECORD &r)
{
    const auto &flags = r.header.control.fld;
    return facts_of({flags.data_VSID_present != 0, flags.data_RPN_present != 0, flags.data_page_size_present != 0,
                     flags.data_gpage_size_present != 0, r.data_vsid, r.data_rpn, r.data_page_size,
                     r.data_gpage_size, r.data_hRTW, r.data_hRTW_host_RA, r.data_gRTW});
}
