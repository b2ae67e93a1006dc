// Names of the translation modes as the text trace shows them: the table of the tests' own text writers. It is kept
// by hand and is not the plugin's.
#pragma once

#include <iterator>

inline constexpr const char *SHOWN_MODE_NAMES[] = {
    /*  0 */ "RADIX_MODE_NOT_YET_SET",
    /*  1 */ "NOT_Radix",
    /*  2 */ "OffsetReal",
    /*  3 */ "UPRTeq0_TI",
    /*  4 */ "UPRTeq0_TA_PLS",
    /*  5 */ "UPRTeq0_TA_SLS",
    /*  6 */ "UPRTeq1_TI",
    /*  7 */ "UPRTeq1_TA_PLS",
    /*  8 */ "UPRTeq1_TA_SLS",
    /*  9 */ "Unknown",
    /* 10 */ "Unknown",
    /* 11 */ "HypervisorRealModeHRMOR",
    /* 12 */ "HypervisorRealModeNoHRMOR",
    /* 13 */ "VirtualRealMode",
    /* 14 */ "Z7_GuestHptOnHostHpt",
    /* 15 */ "Z7_GuestRadixOnHostHpt",
    /* 16 */ "Z7_GuestRealOnHostHpt",
    /* 17 */ "Z7_GuestRadixOnHostHpt_HVeq1_LPIDneq0",
    /* 18 */ "Z7_GuestRadixOnHostHpt_HVeq1_LPIDeq0",
    /* 19 */ "Z7_HostHptSTEGroup",
    /* 20 */ "Z7_HostHptShortVA",
    /* 21 */ "Z7_ProcessTableEntryHostHpt_Primary_LLP",
    /* 22 */ "Z7_ProcessTableEntryHostHpt_Secondary_LLP",
    /* 23 */ "Z7_GuestRadixOnHostRadix",
    /* 24 */ "Z7_GuestRealOnHostRadix",
    /* 25 */ "Z7_HostRadixSingleLevel",
    /* 26 */ "Z7_HostRadixProcessScoped",
    /* 27 */ "Z7_HypervisorRadixSingleLevel",
    /* 28 */ "Unknown",
    /* 29 */ "Z7_HypervisorRadixProcessScoped",
    /* 30 */ "Z7_HostRadixSingleLevel_PR_0",
    /* 31 */ "Z7_HostRadixSingleLevel_MSR_PR",
    /* 32 */ "Z7_ProcessTableEntryRadix",
    /* 33 */ "Unknown",
    /* 34 */ "POSSIBLE_GUEST_Radix",
    /* 35 */ "POSSIBLE_HOST_Radix",
    /* 36 */ "POSSIBLE_HYPERVISOR_Radix",
    /* 37 */ "RDX_XLATE_MODE_LAST",
};
static_assert(std::size(SHOWN_MODE_NAMES) == 38);

// A negative mode is one far above the last.
inline const char *shown_mode_name(unsigned mode)
{
    return mode < std::size(SHOWN_MODE_NAMES) ? SHOWN_MODE_NAMES[mode] : "Unknown";
}
