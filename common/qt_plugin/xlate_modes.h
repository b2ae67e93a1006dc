// All that depends on a translation mode, as tables, and one view of "an address's translation" for the three
// addresses that a node carries. Read by capture, header, record and text trace alike.
#pragma once

#include "plugin_qtbin.h"

#include <algorithm>
#include <iterator>
#include <string_view>

// How an address's translation is captured, copied and written. Only the modes whose row names a case take part.
enum XLATE_CASE : uint8_t {
    CASE_NONE,
    CASE_HOST_REAL,
    CASE_GUEST_HPT,
    CASE_GUEST_REAL_HPT,
    CASE_HOST_HPT,
    CASE_GUEST_RADIX,
    CASE_GUEST_REAL_RADIX,
    CASE_HOST_RADIX,
};

struct Xlate_Mode_Info {
    std::string_view name; // in the text trace; a whole literal, so that its text is terminated
    XLATE_TYPE kind;       // coarse kind
    uint8_t guest, host;   // mode pair in records: XLATE_TYPE codes, 3 also for "not involved"
    XLATE_CASE rule;
};

// clang-format off
inline constexpr Xlate_Mode_Info XLATE_MODES[] = { // one row per RDX_XLATE_MODE, in its order, and a last one
    /*  0 */ {"RADIX_MODE_NOT_YET_SET", UNDEFINED_MODE, 3, 3, CASE_NONE},
    /*  1 */ {"NOT_Radix", UNDEFINED_MODE, 3, 3, CASE_NONE},
    /*  2 */ {"OffsetReal", RADIX_MODE, 3, 3, CASE_NONE},
    /*  3 */ {"UPRTeq0_TI", RADIX_MODE, 3, 3, CASE_NONE},
    /*  4 */ {"UPRTeq0_TA_PLS", RADIX_MODE, 3, 3, CASE_NONE},
    /*  5 */ {"UPRTeq0_TA_SLS", RADIX_MODE, 3, 3, CASE_NONE},
    /*  6 */ {"UPRTeq1_TI", RADIX_MODE, 3, 3, CASE_NONE},
    /*  7 */ {"UPRTeq1_TA_PLS", RADIX_MODE, 3, 3, CASE_NONE},
    /*  8 */ {"UPRTeq1_TA_SLS", RADIX_MODE, 3, 3, CASE_NONE},
    // no name of its own, like 10, 28 and 33:
    /*  9 */ {"Unknown", RADIX_MODE, 3, 3, CASE_NONE},
    /* 10 */ {"Unknown", RADIX_MODE, 3, 3, CASE_NONE},
    /* 11 */ {"HypervisorRealModeHRMOR", REAL_MODE, 3, 2, CASE_HOST_REAL},
    /* 12 */ {"HypervisorRealModeNoHRMOR", REAL_MODE, 3, 2, CASE_NONE},
    /* 13 */ {"VirtualRealMode", REAL_MODE, 2, 2, CASE_NONE},
    /* 14 */ {"Z7_GuestHptOnHostHpt", HPT_MODE, 1, 1, CASE_GUEST_HPT},
    /* 15 */ {"Z7_GuestRadixOnHostHpt", HPT_MODE, 0, 1, CASE_NONE},
    /* 16 */ {"Z7_GuestRealOnHostHpt", HPT_MODE, 2, 1, CASE_GUEST_REAL_HPT},
    // the reverse of what the name says, and 18; readers expect it:
    /* 17 */ {"Z7_GuestRadixOnHostHpt_HVeq1_LPIDneq0", HPT_MODE, 1, 0, CASE_NONE},
    /* 18 */ {"Z7_GuestRadixOnHostHpt_HVeq1_LPIDeq0", HPT_MODE, 1, 0, CASE_NONE},
    /* 19 */ {"Z7_HostHptSTEGroup", HPT_MODE, 3, 1, CASE_HOST_HPT},
    // kind and pair of a hashed page table, but nothing is captured:
    /* 20 */ {"Z7_HostHptShortVA", HPT_MODE, 3, 1, CASE_NONE},
    /* 21 */ {"Z7_ProcessTableEntryHostHpt_Primary_LLP", RADIX_MODE, 3, 1, CASE_NONE},
    /* 22 */ {"Z7_ProcessTableEntryHostHpt_Secondary_LLP", RADIX_MODE, 3, 1, CASE_NONE},
    /* 23 */ {"Z7_GuestRadixOnHostRadix", RADIX_MODE, 0, 0, CASE_GUEST_RADIX},
    // guest level 3, not 2; readers expect it:
    /* 24 */ {"Z7_GuestRealOnHostRadix", RADIX_MODE, 3, 0, CASE_GUEST_REAL_RADIX},
    /* 25 */ {"Z7_HostRadixSingleLevel", RADIX_MODE, 3, 0, CASE_HOST_RADIX},
    /* 26 */ {"Z7_HostRadixProcessScoped", RADIX_MODE, 3, 0, CASE_HOST_RADIX},
    /* 27 */ {"Z7_HypervisorRadixSingleLevel", RADIX_MODE, 3, 0, CASE_HOST_RADIX},
    // treated as unknown everywhere:
    /* 28 */ {"Unknown", RADIX_MODE, 3, 3, CASE_NONE},
    /* 29 */ {"Z7_HypervisorRadixProcessScoped", RADIX_MODE, 3, 0, CASE_HOST_RADIX},
    /* 30 */ {"Z7_HostRadixSingleLevel_PR_0", RADIX_MODE, 3, 0, CASE_HOST_RADIX},
    /* 31 */ {"Z7_HostRadixSingleLevel_MSR_PR", RADIX_MODE, 3, 0, CASE_HOST_RADIX},
    // a radix pair, but nothing is captured:
    /* 32 */ {"Z7_ProcessTableEntryRadix", RADIX_MODE, 3, 0, CASE_NONE},
    /* 33 */ {"Unknown", RADIX_MODE, 3, 3, CASE_NONE},
    /* 34 */ {"POSSIBLE_GUEST_Radix", RADIX_MODE, 3, 3, CASE_NONE},
    /* 35 */ {"POSSIBLE_HOST_Radix", RADIX_MODE, 3, 3, CASE_NONE},
    /* 36 */ {"POSSIBLE_HYPERVISOR_Radix", RADIX_MODE, 3, 3, CASE_NONE},
    // 0/0: the pair of a cleared record:
    /* 37 */ {"RDX_XLATE_MODE_LAST", RADIX_MODE, 0, 0, CASE_NONE},
    // everything above:
    /* 38 */ {"Unknown", RADIX_MODE, 3, 3, CASE_NONE},
};
// clang-format on
inline constexpr unsigned UNKNOWN_XLATE_MODE = std::size(XLATE_MODES) - 1;
static_assert(UNKNOWN_XLATE_MODE > RDX_XLATE_MODE_LAST);
static_assert(std::all_of(std::begin(XLATE_MODES), std::end(XLATE_MODES),
                          [](const Xlate_Mode_Info &info) { return info.guest <= 3 && info.host <= 3; }));

inline const Xlate_Mode_Info &mode_info(RDX_XLATE_MODE mode)
{
    const auto value = static_cast<unsigned>(mode);
    return XLATE_MODES[value < UNKNOWN_XLATE_MODE ? value : UNKNOWN_XLATE_MODE];
}

enum XLATE_WALK : uint8_t {
    WALK_NONE,
    WALK_SINGLE,     // host walk 0 and its result
    WALK_GUEST_REAL, // the same, and the final guest real address
    WALK_NESTED,     // the guest walk, and a host walk for each of its accesses
};

// What an address carries, whether it is the header's, the next one or the data's.
struct Xlate_Case_Info {
    bool relocated; // the case holds for a translated address, or for one with translation off
    bool vsid, rpn, page, gpage;
    XLATE_WALK walk;
};

// clang-format off
inline constexpr Xlate_Case_Info XLATE_CASES[] = {
    /*                           relocated vsid   rpn    page   gpage  walk */
    /* CASE_NONE             */ {true,     false, false, false, false, WALK_NONE},
    /* CASE_HOST_REAL        */ {true,     false, false, false, false, WALK_NONE},
    /* CASE_GUEST_HPT        */ {true,     true,  true,  true,  true,  WALK_NONE},
    /* CASE_GUEST_REAL_HPT   */ {false,    true,  true,  true,  false, WALK_NONE},
    /* CASE_HOST_HPT         */ {true,     true,  true,  true,  false, WALK_NONE},
    /* CASE_GUEST_RADIX      */ {true,     false, true,  true,  true,  WALK_NESTED},
    /* CASE_GUEST_REAL_RADIX */ {false,    false, true,  true,  false, WALK_GUEST_REAL},
    /* CASE_HOST_RADIX       */ {true,     false, true,  true,  false, WALK_SINGLE},
};
// clang-format on
static_assert(std::size(XLATE_CASES) == CASE_HOST_RADIX + 1);

// The case by which an address of that mode is copied and recorded, given whether its translation was on.
inline XLATE_CASE dispatched_case(RDX_XLATE_MODE mode, boolean relocation)
{
    const XLATE_CASE rule = mode_info(mode).rule;
    return XLATE_CASES[rule].relocated == (relocation != 0) ? rule : CASE_NONE;
}

// One address's translation in a node. Built where it is used and folded away by the compiler.
struct Xlate_Fields {
    RDX_XLATE_MODE &radix_type;
    boolean &relocation;
    uint8_t &host_walkdepth, &guest_walkdepth;
    uint64_t &RA, &VSID;
    uint32_t &RPN;
    uint8_t &pagesize, &gpagesize;
    HostRadixTree (&hRTW)[HOST_WALKS];
    HostRadixTree_RAs (&hRTW_host_RA)[GUEST_LEVELS];
    GuestRadixTree &gRTW;
};

inline Xlate_Fields pc_fields(Node *p)
{
    return {p->pc_radix_type,   p->PC_relocation, p->pc_host_walkdepth, p->pc_guest_walkdepth, p->PC_RA,
            p->PC_VSID,         p->PC_RPN,        p->PC_pagesize,       p->PC_gpagesize,       p->PC_hRTW,
            p->PC_hRTW_host_RA, p->PC_gRTW};
}

inline Xlate_Fields next_pc_fields(Node *p)
{
    return {p->nextPC_radix_type,
            p->nextPC_relocation,
            p->nextPC_host_walkdepth,
            p->nextPC_guest_walkdepth,
            p->nextPC_RA,
            p->nextPC_VSID,
            p->nextPC_RPN,
            p->nextPC_pagesize,
            p->nextPC_gpagesize,
            p->nextPC_hRTW,
            p->nextPC_hRTW_host_RA,
            p->nextPC_gRTW};
}

inline Xlate_Fields data_fields(Node *p)
{
    First_OP_Info &info = p->info;
    return {p->data_radix_type,  info.data_relocation, p->data_host_walkdepth, p->data_guest_walkdepth,
            info.data_RA,        info.data_VSID,       info.data_RPN,          info.data_pagesize,
            info.data_gpagesize, info.data_hRTW,       info.data_hRTW_host_RA, info.data_gRTW};
}
