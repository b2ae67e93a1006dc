// Modes, pairs and real addresses. The producer has a list of the modes too: neither is made from the other.
#include "address_view.h"
#include "plugin_api.h"
#include "xlate_modes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

using namespace trace;

namespace
{

struct Expected {
    const char *name;
    unsigned guest, host;
};

constexpr unsigned RADIX = 0, HPT = 1, REAL = 2, NONE = 3;
constexpr Expected EXPECTED[] = {
    {"RADIX_MODE_NOT_YET_SET", NONE, NONE},
    {"NOT_Radix", NONE, NONE},
    {"OffsetReal", NONE, NONE},
    {"UPRTeq0_TI", NONE, NONE},
    {"UPRTeq0_TA_PLS", NONE, NONE},
    {"UPRTeq0_TA_SLS", NONE, NONE},
    {"UPRTeq1_TI", NONE, NONE},
    {"UPRTeq1_TA_PLS", NONE, NONE},
    {"UPRTeq1_TA_SLS", NONE, NONE},
    {"Unknown", NONE, NONE},
    {"Unknown", NONE, NONE},
    {"HypervisorRealModeHRMOR", NONE, REAL},
    {"HypervisorRealModeNoHRMOR", NONE, REAL},
    {"VirtualRealMode", REAL, REAL},
    {"Z7_GuestHptOnHostHpt", HPT, HPT},
    {"Z7_GuestRadixOnHostHpt", RADIX, HPT},
    {"Z7_GuestRealOnHostHpt", REAL, HPT},
    {"Z7_GuestRadixOnHostHpt_HVeq1_LPIDneq0", HPT, RADIX},
    {"Z7_GuestRadixOnHostHpt_HVeq1_LPIDeq0", HPT, RADIX},
    {"Z7_HostHptSTEGroup", NONE, HPT},
    {"Z7_HostHptShortVA", NONE, HPT},
    {"Z7_ProcessTableEntryHostHpt_Primary_LLP", NONE, HPT},
    {"Z7_ProcessTableEntryHostHpt_Secondary_LLP", NONE, HPT},
    {"Z7_GuestRadixOnHostRadix", RADIX, RADIX},
    {"Z7_GuestRealOnHostRadix", NONE, RADIX},
    {"Z7_HostRadixSingleLevel", NONE, RADIX},
    {"Z7_HostRadixProcessScoped", NONE, RADIX},
    {"Z7_HypervisorRadixSingleLevel", NONE, RADIX},
    {"Unknown", NONE, NONE},
    {"Z7_HypervisorRadixProcessScoped", NONE, RADIX},
    {"Z7_HostRadixSingleLevel_PR_0", NONE, RADIX},
    {"Z7_HostRadixSingleLevel_MSR_PR", NONE, RADIX},
    {"Z7_ProcessTableEntryRadix", NONE, RADIX},
    {"Unknown", NONE, NONE},
    {"POSSIBLE_GUEST_Radix", NONE, NONE},
    {"POSSIBLE_HOST_Radix", NONE, NONE},
    {"POSSIBLE_HYPERVISOR_Radix", NONE, NONE},
    {"RDX_XLATE_MODE_LAST", RADIX, RADIX},
};

} // namespace

TEST(address_view, names_every_mode_and_its_pair_as_the_producer_does)
{
    ASSERT_EQ(std::size(EXPECTED), 38u);
    for (unsigned mode = 0; mode < std::size(EXPECTED); mode++) {
        const Mode_Pair pair{static_cast<uint8_t>(EXPECTED[mode].guest), static_cast<uint8_t>(EXPECTED[mode].host)};
        EXPECT_EQ(MODES[mode].name, EXPECTED[mode].name) << mode;
        EXPECT_EQ(MODES[mode].pair, pair) << mode;
        const Xlate_Mode_Info &producer = mode_info(static_cast<RDX_XLATE_MODE>(mode));
        EXPECT_EQ(producer.name, EXPECTED[mode].name) << mode;
        EXPECT_EQ((Mode_Pair{producer.guest, producer.host}), pair) << mode;
    }
}

TEST(address_view, knows_the_pairs_that_modes_have_and_no_others)
{
    for (unsigned index = 0; index < PAIRS.size(); index++) {
        const auto has_pair = [&](const Expected &mode) { return 4 * mode.guest + mode.host == index; };
        EXPECT_EQ(PAIRS[index].exists, std::ranges::any_of(EXPECTED, has_pair)) << index / 4 << " on " << index % 4;
    }
}

TEST(address_view, knows_what_the_translations_of_a_pair_carry)
{
    // V: VSID, R: page number, P: page size, G: guest's page size; then the walk.
    const char *const carried[] = {
        "RPG nested", "none",      "none", "none", // guest radix, on radix, hpt, real, none
        "none",       "VRPG none", "none", "none", // guest hpt
        "none",       "VRP none",  "none", "none", // guest real
        "RP single",  "VRP none",  "none", "none"};
    const char *const walks[] = {"none", "single", "nested"};
    for (unsigned index = 0; index < 16; index++) {
        std::string shown;
        for (const auto &[bit, letter] : {std::pair{1, 'V'}, {2, 'R'}, {4, 'P'}, {8, 'G'}})
            if ((PAIRS[index].pieces & bit) != 0)
                shown += letter;
        shown += shown.empty() ? "" : " ";
        EXPECT_EQ(shown + walks[static_cast<unsigned>(PAIRS[index].walk)], carried[index]) << index;
        EXPECT_LT(PAIRS[index].pieces, 16) << index;
    }
}

TEST(address_view, has_as_many_modes_as_the_producer)
{
    ASSERT_EQ(MODES.size(), std::size(XLATE_MODES));
    for (const Mode_Info &mode : MODES)
        EXPECT_EQ(pair_of_mode(mode.name), mode.pair) << mode.name;
    EXPECT_EQ(MODES.back().name, "Unknown");
    EXPECT_EQ(pair_of_mode("no mode"), (Mode_Pair{3, 3}));
}

TEST(address_view, names_pairs_guest_first)
{
    EXPECT_EQ(pair_name({3, 0}), "none/radix");
    EXPECT_EQ(pair_name({1, 2}), "hpt/real");
}

TEST(address_view, takes_a_record_apart)
{
    QTRACE_RECORD record{};
    auto &flags = record.header.control.fld;
    flags.data_address_present = flags.data_RPN_present = flags.data_page_size_present = 1;
    flags.guest_xlate_mode_data = 3;
    const uint64_t address = 0xc00000003dea0998;
    const uint32_t page_number = 0x3dea7;
    std::memcpy(record.data_ea, &address, sizeof address);
    std::memcpy(record.data_rpn, &page_number, sizeof page_number);
    record.data_page_size = 1;
    record.data_gpage_size = 3;
    std::memcpy(record.data_vsid, "\1\2\3\4\5\6\7", 7);
    record.data_hRTW_depth = 2;
    record.data_hRTW_num_level = 4;
    const Translated_Address data = data_address_of(record), next = next_address_of(record);
    EXPECT_TRUE(data.present);
    EXPECT_EQ(data.address, address);
    EXPECT_EQ(data.modes, (Mode_Pair{3, 0}));
    EXPECT_EQ(data.pieces, PIECE_RPN | PIECE_PAGE);
    EXPECT_EQ(data.guest_depth, 2);
    EXPECT_EQ(data.host_depth, 4);
    EXPECT_EQ(data.page_size, 1);
    EXPECT_EQ(data.guest_page_size, 3);
    EXPECT_EQ(data.vsid, 0x07060504030201u);
    EXPECT_EQ(data.real(), 0x3dea7998u);
    EXPECT_EQ(data.walks, record.data_hRTW);
    EXPECT_EQ(data.host_addresses, record.data_hRTW_host_RA);
    EXPECT_EQ(data.guest, &record.data_gRTW);
    EXPECT_EQ(next.walks, record.next_instruction_hRTW);
    EXPECT_EQ(next.host_addresses, record.next_instruction_hRTW_host_RA);
    EXPECT_EQ(next.guest, &record.next_instruction_gRTW);
    EXPECT_FALSE(next.present);
    EXPECT_EQ(next.pieces, 0);
    EXPECT_EQ(next.real(), std::nullopt);
}

TEST(address_view, keeps_the_highest_page_number)
{
    QTRACE_FILE_HDR header{};
    header.control.iar_is_present = header.control.iar_rpn_is_present = 1;
    std::memset(header.iar, 0xff, sizeof header.iar);
    std::memset(header.iar_rpn, 0xff, sizeof header.iar_rpn);
    EXPECT_EQ(first_address_of(header).real(), 0xfffffffffffu);
}
