#include "address_view.h"

#include "record_rows.h"

#include <algorithm>

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

// clang-format off
static constexpr Mode_Info MODE_ROWS[] = {
    /*  0 */ {"RADIX_MODE_NOT_YET_SET", {3, 3}},
    /*  1 */ {"NOT_Radix", {3, 3}},
    /*  2 */ {"OffsetReal", {3, 3}},
    /*  3 */ {"UPRTeq0_TI", {3, 3}},
    /*  4 */ {"UPRTeq0_TA_PLS", {3, 3}},
    /*  5 */ {"UPRTeq0_TA_SLS", {3, 3}},
    /*  6 */ {"UPRTeq1_TI", {3, 3}},
    /*  7 */ {"UPRTeq1_TA_PLS", {3, 3}},
    /*  8 */ {"UPRTeq1_TA_SLS", {3, 3}},
    /*  9 */ {"Unknown", {3, 3}},
    /* 10 */ {"Unknown", {3, 3}},
    /* 11 */ {"HypervisorRealModeHRMOR", {3, 2}},
    /* 12 */ {"HypervisorRealModeNoHRMOR", {3, 2}},
    /* 13 */ {"VirtualRealMode", {2, 2}},
    /* 14 */ {"Z7_GuestHptOnHostHpt", {1, 1}},
    /* 15 */ {"Z7_GuestRadixOnHostHpt", {0, 1}},
    /* 16 */ {"Z7_GuestRealOnHostHpt", {2, 1}},
    /* 17 */ {"Z7_GuestRadixOnHostHpt_HVeq1_LPIDneq0", {1, 0}},
    /* 18 */ {"Z7_GuestRadixOnHostHpt_HVeq1_LPIDeq0", {1, 0}},
    /* 19 */ {"Z7_HostHptSTEGroup", {3, 1}},
    /* 20 */ {"Z7_HostHptShortVA", {3, 1}},
    /* 21 */ {"Z7_ProcessTableEntryHostHpt_Primary_LLP", {3, 1}},
    /* 22 */ {"Z7_ProcessTableEntryHostHpt_Secondary_LLP", {3, 1}},
    /* 23 */ {"Z7_GuestRadixOnHostRadix", {0, 0}},
    /* 24 */ {"Z7_GuestRealOnHostRadix", {3, 0}},
    /* 25 */ {"Z7_HostRadixSingleLevel", {3, 0}},
    /* 26 */ {"Z7_HostRadixProcessScoped", {3, 0}},
    /* 27 */ {"Z7_HypervisorRadixSingleLevel", {3, 0}},
    /* 28 */ {"Unknown", {3, 3}},
    /* 29 */ {"Z7_HypervisorRadixProcessScoped", {3, 0}},
    /* 30 */ {"Z7_HostRadixSingleLevel_PR_0", {3, 0}},
    /* 31 */ {"Z7_HostRadixSingleLevel_MSR_PR", {3, 0}},
    /* 32 */ {"Z7_ProcessTableEntryRadix", {3, 0}},
    /* 33 */ {"Unknown", {3, 3}},
    /* 34 */ {"POSSIBLE_GUEST_Radix", {3, 3}},
    /* 35 */ {"POSSIBLE_HOST_Radix", {3, 3}},
    /* 36 */ {"POSSIBLE_HYPERVISOR_Radix", {3, 3}},
    /* 37 */ {"RDX_XLATE_MODE_LAST", {0, 0}},
    /* 38 */ {"Unknown", {3, 3}},
};
// clang-format on
const std::span<const Mode_Info> MODES = MODE_ROWS;

Mode_Pair pair_of_mode(std::string_view name)
{
    const auto mode = std::ranges::find(MODES, name, &Mode_Info::name);
    return mode == MODES.end() ? Mode_Pair{MODE_NONE, MODE_NONE} : mode->pair;
}

std::string pair_name(Mode_Pair pair)
{
    return std::string(mode_word(pair.guest)).append("/").append(mode_word(pair.host));
}

// ---- Translations --------------------------------------------------------------------------------------

template <class Number> static Number value_at(const uint8_t *bytes, size_t size = sizeof(Number))
{
    Number value = 0;
    std::memcpy(&value, bytes, size);
    return value;
}

static uint8_t pieces_of(const Address_Members &members, const Flag_Words &flags)
{
    const auto piece = [&](const Flag_Words &gate, Piece which) { return flags.any_of(gate) ? which : 0; };
    return static_cast<uint8_t>(piece(members.vsid_gate, PIECE_VSID) | piece(members.page_number_gate, PIECE_RPN) |
                                piece(members.page_size_gate, PIECE_PAGE) |
                                piece(members.guest_page_size_gate, PIECE_GUEST_PAGE));
}

template <class Structure>
static Translated_Address view_of(const Address_Members &members, const Structure &structure,
                                  const Flag_Words &flags, Mode_Pair modes)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&structure);
    return {flags.any_of(members.present),
            value_at<uint64_t>(bytes + members.address),
            modes,
            pieces_of(members, flags),
            bytes[members.guest_depth],
            bytes[members.host_depth],
            reinterpret_cast<const QTRACE_RTW *>(bytes + members.walks),
            reinterpret_cast<const QTRACE_RTW_HOST_RA *>(bytes + members.host_addresses),
            reinterpret_cast<const QTRACE_RTW_GUEST *>(bytes + members.guest_walk),
            value_at<uint64_t>(bytes + members.vsid, QTRACE_VSID_LENGTH),
            value_at<uint32_t>(bytes + members.page_number),
            bytes[members.page_size],
            bytes[members.guest_page_size]};
}

Translated_Address next_address_of(const QTRACE_RECORD &record)
{
    return view_of(NEXT_MEMBERS, record, flags_of(record), instruction_modes(record.header.control));
}

Translated_Address data_address_of(const QTRACE_RECORD &record)
{
    return view_of(DATA_MEMBERS, record, flags_of(record), data_modes(record.header.control));
}

Translated_Address first_address_of(const QTRACE_FILE_HDR &header)
{
    return view_of(FIRST_MEMBERS, header, flags_of(header), instruction_modes(header.sec_ext_controlword.control));
}

} // namespace trace
