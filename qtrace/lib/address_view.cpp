#include "address_view.h"

namespace trace
{

static constexpr uint8_t HPT = PIECE_VSID | PIECE_RPN | PIECE_PAGE;
static constexpr uint8_t RADIX = PIECE_RPN | PIECE_PAGE;

const std::array<Pair_Info, 16> PAIRS = {{
    // guest radix, on host:
    /* radix */ {true, RADIX | PIECE_GUEST_PAGE, Walk_Kind::nested},
    /* hpt   */ {true, 0, Walk_Kind::none},
    /* real  */ {false, 0, Walk_Kind::none},
    /* none  */ {false, 0, Walk_Kind::none},
    // guest hashed page table, on host:
    /* radix */ {true, 0, Walk_Kind::none},
    /* hpt   */ {true, HPT | PIECE_GUEST_PAGE, Walk_Kind::none},
    /* real  */ {false, 0, Walk_Kind::none},
    /* none  */ {false, 0, Walk_Kind::none},
    // guest real, on host:
    /* radix */ {false, 0, Walk_Kind::none},
    /* hpt   */ {true, HPT, Walk_Kind::none},
    /* real  */ {true, 0, Walk_Kind::none},
    /* none  */ {false, 0, Walk_Kind::none},
    // no guest involved (or a guest in real mode on host radix), on host:
    /* radix */ {true, RADIX, Walk_Kind::single},
    /* hpt   */ {true, HPT, Walk_Kind::none},
    /* real  */ {true, 0, Walk_Kind::none},
    /* none  */ {true, 0, Walk_Kind::none},
}};

static uint64_t value_of(const QTRACE_VSID &vsid)
{
    uint64_t value = 0;
    std::memcpy(&value, vsid, sizeof(vsid));
    return value;
}

static uint8_t pieces(bool vsid, bool rpn, bool page, bool guest_page)
{
    return static_cast<uint8_t>((vsid ? PIECE_VSID : 0) | (rpn ? PIECE_RPN : 0) | (page ? PIECE_PAGE : 0) |
                                (guest_page ? PIECE_GUEST_PAGE : 0));
}

Translated_Address next_address_of(const QTRACE_RECORD &record)
{
    const auto &flags = record.header.control.fld;
    return {flags.next_instruction_EA_present != 0,
            instruction_modes(record.header.control),
            pieces(flags.next_instruction_VSID_present, flags.next_instruction_RPN_present,
                   flags.next_instruction_page_size_present, flags.instruction_gpage_size_present),
            record.next_instruction_hRTW_depth,
            record.next_instruction_hRTW_num_level,
            record.next_instruction_hRTW,
            record.next_instruction_hRTW_host_RA,
            &record.next_instruction_gRTW,
            value_of(record.next_instruction_vsid),
            number(record.next_instruction_rpn),
            record.next_instruction_page_size,
            record.next_instruction_gpage_size};
}

Translated_Address data_address_of(const QTRACE_RECORD &record)
{
    const auto &flags = record.header.control.fld;
    return {flags.data_address_present != 0,
            data_modes(record.header.control),
            pieces(flags.data_VSID_present, flags.data_RPN_present, flags.data_page_size_present,
                   flags.data_gpage_size_present),
            record.data_hRTW_depth,
            record.data_hRTW_num_level,
            record.data_hRTW,
            record.data_hRTW_host_RA,
            &record.data_gRTW,
            value_of(record.data_vsid),
            number(record.data_rpn),
            record.data_page_size,
            record.data_gpage_size};
}

Translated_Address first_address_of(const QTRACE_FILE_HDR &header)
{
    const QTRACE_FILE_HDR_CNTRL &flags = header.control;
    return {flags.iar_is_present != 0,
            instruction_modes(header.sec_ext_controlword.control),
            pieces(flags.iar_vsid_is_present, flags.iar_rpn_is_present, flags.iar_page_size_is_present,
                   flags.iar_gpage_size_is_present),
            header.iar_hRTW_depth,
            header.iar_hRTW_num_level,
            header.iar_hRTW,
            header.iar_hRTW_host_RA,
            &header.iar_gRTW,
            value_of(header.iar_vsid),
            number(header.iar_rpn),
            header.iar_page_size,
            header.iar_gpage_size};
}

} // namespace trace
