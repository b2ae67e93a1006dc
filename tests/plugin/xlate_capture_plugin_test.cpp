// What a commit captures about the translation of the instruction's address and of its data address.
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "capture.h"
#include "captured_address.h"
#include "traced_machine.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{

constexpr uint8_t FETCH_TAG = 0x0F;
constexpr uint8_t DATA_TAG = 0x0D;
constexpr int MODES = 39; // every mode, and one above the last

struct Xlate_Capture : testing::Test {
    Traced_Machine m;
    uint64_t seq = 0;

    void SetUp() override { m.start(); }

    void kernel(bool on) { replay::host().set_context(0, {.kernel = on}); }
    const Node &capture(replay::Instruction instruction)
    {
        instruction.seq = ++seq;
        instruction.pc = 0x1000 + 4 * seq;
        m.commit(std::move(instruction));
        return *last_commit[0];
    }
    std::string fetch_captured(const replay::Address_Answers &answers)
    {
        return describe(fetch_of(capture({.fetch = answers})));
    }
    std::string data_captured(const replay::Address_Answers &answers, int fetch_mode = 1)
    {
        return describe(data_of(capture({.load = true,
                                         .ea_valid = true,
                                         .ea = 0x2000,
                                         .fetch = distinct_answers(FETCH_TAG, fetch_mode),
                                         .data = answers})));
    }
};

replay::Address_Answers two_level(replay::Address_Answers answers, bool relocated = true)
{
    answers.guest_two_level = 1;
    answers.relocated = relocated;
    return answers;
}

std::string expected(Capture_Rule rule, const replay::Address_Answers &answers)
{
    return describe(captured_by(rule, answers));
}

// With guest tables in force, relocation follows the thread: always on outside the kernel, by the flag within.
std::string expected_two_level(int mode, const replay::Address_Answers &answers, bool relocation)
{
    Captured_Address c = captured_by(relocation ? two_level_rule(mode) : Capture_Rule::none, answers);
    c.relocation = relocation;
    return describe(c);
}

} // namespace

// ---- classification -----------------------------------------------------------------------------------------

TEST(get_xlate_mode, classifies_every_mode)
{
    constexpr XLATE_TYPE U = UNDEFINED_MODE, X = RADIX_MODE, R = REAL_MODE, H = HPT_MODE;
    const XLATE_TYPE classes[] = {U, U, X, X, X, X, X, X, X, X, X, R, R, R, H, H, H, H, H,
                                  H, H, X, X, X, X, X, X, X, X, X, X, X, X, X, X, X, X, X};
    static_assert(std::size(classes) == 38);
    for (int mode = 0; mode < 38; ++mode)
        EXPECT_EQ(get_xlate_mode(static_cast<RDX_XLATE_MODE>(mode)), classes[mode]) << "mode " << mode;
}

TEST(get_xlate_mode, takes_values_that_are_no_mode_for_radix)
{
    for (int mode : {38, 39, 63, 64, 1000, 0x7FFFFFFF})
        EXPECT_EQ(get_xlate_mode(static_cast<RDX_XLATE_MODE>(mode)), RADIX_MODE) << "mode " << mode;
}

TEST(get_xlate_mode, takes_a_possible_guest_radix_for_radix_and_not_radix_for_undefined)
{
    EXPECT_EQ(get_xlate_mode(POSSIBLE_GUEST_Radix), RADIX_MODE);
    EXPECT_EQ(get_xlate_mode(NOT_Radix), UNDEFINED_MODE);
}

TEST_F(Xlate_Capture, commit_stores_the_class_of_the_fetch_mode_and_none_for_the_data)
{
    const Node &node = capture({.load = true,
                                .ea_valid = true,
                                .fetch = distinct_answers(FETCH_TAG, Z7_HostHptSTEGroup),
                                .data = distinct_answers(DATA_TAG, VirtualRealMode)});
    EXPECT_EQ(node.pc_xlate_type, HPT_MODE);
    EXPECT_EQ(node.data_xlate_type, 0);
}

// ---- which rule a fetch takes -------------------------------------------------------------------------------

TEST_F(Xlate_Capture, fetch_of_one_level_takes_what_its_mode_says)
{
    for (int mode = 0; mode < MODES; ++mode) {
        const auto answers = distinct_answers(FETCH_TAG, mode);
        EXPECT_EQ(fetch_captured(answers), expected(one_level_rule(mode), answers)) << "mode " << mode;
    }
}

TEST_F(Xlate_Capture, fetch_of_one_level_takes_no_notice_of_relocation_and_privilege)
{
    kernel(true);
    for (int mode = 0; mode < MODES; ++mode) {
        auto answers = distinct_answers(FETCH_TAG, mode);
        answers.relocated = true;
        EXPECT_EQ(fetch_captured(answers), expected(one_level_rule(mode), answers)) << "mode " << mode;
    }
}

TEST_F(Xlate_Capture, fetch_of_two_levels_outside_the_kernel_is_relocated_whatever_the_flag_says)
{
    for (int mode = 0; mode < MODES; ++mode)
        for (bool relocated : {false, true}) {
            const auto answers = two_level(distinct_answers(FETCH_TAG, mode), relocated);
            EXPECT_EQ(fetch_captured(answers), expected_two_level(mode, answers, true)) << "mode " << mode;
        }
}

TEST_F(Xlate_Capture, fetch_of_two_levels_in_the_kernel_is_captured_only_when_relocated)
{
    kernel(true);
    for (int mode = 0; mode < MODES; ++mode)
        for (bool relocated : {false, true}) {
            const auto answers = two_level(distinct_answers(FETCH_TAG, mode), relocated);
            EXPECT_EQ(fetch_captured(answers), expected_two_level(mode, answers, relocated))
                << "mode " << mode << " relocated " << relocated;
        }
}

TEST_F(Xlate_Capture, any_non_zero_two_level_flag_selects_the_guest_capture)
{
    auto answers = distinct_answers(FETCH_TAG, Z7_GuestHptOnHostHpt);
    answers.guest_two_level = 0x80;
    EXPECT_EQ(fetch_captured(answers), expected_two_level(Z7_GuestHptOnHostHpt, answers, true));
}

TEST_F(Xlate_Capture, host_two_level_flag_selects_nothing)
{
    auto answers = distinct_answers(FETCH_TAG, Z7_GuestHptOnHostHpt);
    answers.host_two_level = 1;
    EXPECT_EQ(fetch_captured(answers), expected(Capture_Rule::none, answers));
}

// ---- what the rules take ------------------------------------------------------------------------------------

TEST_F(Xlate_Capture, real_address_of_a_host_real_fetch_and_access_keeps_its_low_32_bits)
{
    auto answers = distinct_answers(FETCH_TAG, HypervisorRealModeHRMOR);
    answers.ra = 0xFEDCBA98'76543210;
    EXPECT_EQ(capture({.fetch = answers}).PC_RA, 0x76543210u);
    const Node &load = capture({.load = true, .ea_valid = true, .data = answers});
    EXPECT_EQ(load.info.data_RA, 0x76543210u);
}

TEST_F(Xlate_Capture, guest_hpt_takes_both_page_sizes_from_the_same_answer)
{
    auto answers = two_level(distinct_answers(FETCH_TAG, Z7_GuestHptOnHostHpt));
    answers.page_size = 0x55;
    const Node &node = capture({.fetch = answers});
    EXPECT_EQ(node.PC_pagesize, 0x55);
    EXPECT_EQ(node.PC_gpagesize, 0x55);
}

TEST_F(Xlate_Capture, host_radix_takes_all_four_entries_of_walk_0_whatever_the_depth)
{
    for (int depth : {0, 1, 2, 3, 4, 5, 255}) {
        const auto answers = distinct_answers(FETCH_TAG, Z7_HostRadixSingleLevel, static_cast<uint8_t>(depth));
        EXPECT_EQ(fetch_captured(answers), expected(Capture_Rule::host_radix, answers)) << "depth " << depth;
        EXPECT_EQ(data_captured(answers), expected(Capture_Rule::host_radix, answers)) << "depth " << depth;
    }
}

TEST_F(Xlate_Capture, guest_real_on_host_radix_takes_walk_0_and_the_final_guest_address_whatever_the_depths)
{
    for (int depth : {0, 1, 4, 6, 255}) {
        const auto answers = distinct_answers(FETCH_TAG, Z7_GuestRealOnHostRadix, static_cast<uint8_t>(depth),
                                              static_cast<uint8_t>(depth));
        EXPECT_EQ(fetch_captured(answers), expected(Capture_Rule::real_on_radix, answers)) << "depth " << depth;
        EXPECT_EQ(data_captured(answers), expected(Capture_Rule::real_on_radix, answers)) << "depth " << depth;
    }
}

TEST_F(Xlate_Capture, nested_walk_takes_what_its_guest_and_host_depths_say)
{
    for (int g = 1; g <= 5; ++g)
        for (int h : {0, 1, 2, 3, 4, 5, 6, 255}) {
            const auto answers = two_level(distinct_answers(FETCH_TAG, Z7_GuestRadixOnHostRadix,
                                                            static_cast<uint8_t>(h), static_cast<uint8_t>(g)));
            EXPECT_EQ(fetch_captured(answers), expected(Capture_Rule::guest_radix, answers))
                << "guest " << g << " host " << h;
            EXPECT_EQ(data_captured(answers, Z7_GuestRadixOnHostRadix),
                      expected(Capture_Rule::guest_radix, answers))
                << "guest " << g << " host " << h;
        }
}

// The same by hand for the depths that radix trees have.
TEST_F(Xlate_Capture, nested_walk_of_guest_depth_1_takes_walk_0_and_no_host_real_address)
{
    const auto answers = two_level(distinct_answers(0, Z7_GuestRadixOnHostRadix, 4, 1));
    EXPECT_EQ(fetch_captured(answers),
              "relocation=0x1\nRPN=0x3000000\npagesize=0x40\ngpagesize=0x80\n"
              "host_depth=0x4\nguest_depth=0x1\n"
              "hRTW[0].l1=0x1001\nhRTW[0].l2=0x1002\nhRTW[0].l3=0x1003\nhRTW[0].pte=0x1004\n"
              "gRTW.pte=0x30004\ngRTW.ra=0x30005\n");
}

TEST_F(Xlate_Capture, nested_walk_of_guest_depth_3_and_host_depth_2)
{
    const auto answers = two_level(distinct_answers(0, Z7_GuestRadixOnHostRadix, 2, 3));
    EXPECT_EQ(fetch_captured(answers),
              "relocation=0x1\nRPN=0x3000000\npagesize=0x40\ngpagesize=0x80\nhost_depth=0x2\nguest_depth=0x3\n"
              "hRTW[0].l1=0x1001\nhRTW[0].pte=0x1004\nhRTW[1].l1=0x1101\nhRTW[1].pte=0x1104\n"
              "hRTW[2].l1=0x1201\nhRTW[2].pte=0x1204\nhost_RA[0]=0x20000\nhost_RA[1]=0x20001\n"
              "gRTW.l1=0x30001\ngRTW.l2=0x30002\ngRTW.pte=0x30004\ngRTW.ra=0x30005\n");
}

TEST_F(Xlate_Capture, nested_walk_of_host_depth_1_takes_no_directory_entry)
{
    const auto answers = two_level(distinct_answers(0, Z7_GuestRadixOnHostRadix, 1, 5));
    EXPECT_EQ(fetch_captured(answers),
              "relocation=0x1\nRPN=0x3000000\npagesize=0x40\ngpagesize=0x80\nhost_depth=0x1\nguest_depth=0x5\n"
              "hRTW[0].pte=0x1004\nhRTW[1].pte=0x1104\nhRTW[2].pte=0x1204\nhRTW[3].pte=0x1304\n"
              "hRTW[4].pte=0x1404\n"
              "host_RA[0]=0x20000\nhost_RA[1]=0x20001\nhost_RA[2]=0x20002\nhost_RA[3]=0x20003\n"
              "gRTW.l1=0x30001\ngRTW.l2=0x30002\ngRTW.l3=0x30003\ngRTW.pte=0x30004\ngRTW.ra=0x30005\n");
}

// Indices beyond the five walks would overwrite the members that follow them.
TEST_F(Xlate_Capture, guest_depths_that_no_tree_has_leave_the_rest_of_the_node_intact)
{
    for (int g : {0, 6, 7, 8, 100, 254, 255}) {
        const auto answers =
            two_level(distinct_answers(FETCH_TAG, Z7_GuestRadixOnHostRadix, 4, static_cast<uint8_t>(g)));
        const auto data =
            two_level(distinct_answers(DATA_TAG, Z7_GuestRadixOnHostRadix, 4, static_cast<uint8_t>(g)));
        const uint64_t before = seq;
        const Node &node = capture(
            {.op = 0x12345678, .load = true, .ea_valid = true, .ea = 0x2000, .fetch = answers, .data = data});
        EXPECT_EQ(node.seq, before + 1);
        EXPECT_EQ(node.PC, 0x1000 + 4 * node.seq) << "guest " << g;
        EXPECT_EQ(node.nextPC, node.PC + 4) << "guest " << g;
        EXPECT_EQ(node.info.instbody, 0x12345678u) << "guest " << g;
        EXPECT_EQ(node.info.data_addr, 0x2000u) << "guest " << g;
        EXPECT_EQ(node.pc_guest_walkdepth, g);
        EXPECT_EQ(node.data_guest_walkdepth, g);
        EXPECT_EQ(node.ptcr, 0u) << "guest " << g;
        EXPECT_EQ(node.info.except, 0u) << "guest " << g;
        EXPECT_EQ(node.info.kernel, 0u) << "guest " << g;
        EXPECT_EQ(node.PC_gRTW.RTPDE_GUEST_ra_root, 0u) << "guest " << g;
        EXPECT_EQ(node.info.data_gRTW.RTPDE_GUEST_ra_root, 0u) << "guest " << g;
    }
}

TEST_F(Xlate_Capture, no_depth_asks_the_host_for_a_walk_or_level_that_a_node_has_no_place_for)
{
    for (int g = 0; g < 256; ++g) {
        const auto answers = two_level(distinct_answers(FETCH_TAG, Z7_GuestRadixOnHostRadix,
                                                        static_cast<uint8_t>(255 - g), static_cast<uint8_t>(g)));
        capture({.load = true, .ea_valid = true, .fetch = answers, .data = answers});
    }
    for (const std::string &query : m.queries()) {
        const size_t bracket = query.find('(');
        if (bracket == std::string::npos)
            continue;
        const int n = std::atoi(query.c_str() + bracket + 1);
        const bool is_result = query.find("RonR") != std::string::npos;
        ASSERT_GE(n, 0) << query;
        ASSERT_LT(n, is_result ? GUEST_LEVELS : HOST_WALKS) << query;
    }
}

// ---- data ---------------------------------------------------------------------------------------------------

TEST_F(Xlate_Capture, data_of_one_level_takes_what_its_own_mode_says)
{
    for (int mode = 0; mode < MODES; ++mode)
        for (int fetch_mode : {1, 11, 14, 23, 25}) {
            const auto answers = distinct_answers(DATA_TAG, mode);
            EXPECT_EQ(data_captured(answers, fetch_mode), expected(one_level_rule(mode), answers))
                << "mode " << mode << " after a fetch of mode " << fetch_mode;
        }
}

TEST_F(Xlate_Capture, data_of_two_levels_takes_what_the_mode_of_the_fetch_says)
{
    for (int fetch_mode = 0; fetch_mode < MODES; ++fetch_mode)
        for (int mode : {14, 19, 23, 25}) {
            const auto answers = two_level(distinct_answers(DATA_TAG, mode), false);
            EXPECT_EQ(data_captured(answers, fetch_mode), expected_two_level(fetch_mode, answers, true))
                << "mode " << mode << " after a fetch of mode " << fetch_mode;
        }
}

TEST_F(Xlate_Capture, data_of_two_levels_in_the_kernel_is_captured_only_when_the_data_is_relocated)
{
    kernel(true);
    for (int fetch_mode : {14, 19, 23, 25})
        for (bool relocated : {false, true}) {
            const auto answers = two_level(distinct_answers(DATA_TAG, 25), relocated);
            EXPECT_EQ(data_captured(answers, fetch_mode), expected_two_level(fetch_mode, answers, relocated))
                << "fetch mode " << fetch_mode << " relocated " << relocated;
        }
}

TEST_F(Xlate_Capture, data_translation_is_taken_for_loads_stores_and_cache_instructions)
{
    const auto answers = distinct_answers(DATA_TAG, Z7_HostHptSTEGroup);
    const std::string taken = expected(Capture_Rule::host_hpt, answers);
    EXPECT_EQ(describe(data_of(capture({.load = true, .ea_valid = true, .data = answers}))), taken);
    EXPECT_EQ(describe(data_of(capture({.store = true, .ea_valid = true, .data = answers}))), taken);
    EXPECT_EQ(describe(data_of(capture({.cache = true, .ea_valid = true, .data = answers}))), taken);
}

TEST_F(Xlate_Capture, data_translation_is_not_taken_without_an_access_or_without_an_address)
{
    const auto answers = distinct_answers(DATA_TAG, Z7_HostHptSTEGroup);
    const std::string nothing = expected(Capture_Rule::none, answers);
    EXPECT_EQ(describe(data_of(capture({.ea_valid = true, .ea = 0x2000, .data = answers}))), nothing);
    EXPECT_EQ(describe(data_of(capture({.load = true, .store = true, .cache = true, .data = answers}))), nothing);
}

TEST_F(Xlate_Capture, fetch_and_data_of_one_instruction_do_not_mix)
{
    const auto fetch = two_level(distinct_answers(FETCH_TAG, Z7_GuestRadixOnHostRadix, 3, 2));
    const auto data = two_level(distinct_answers(DATA_TAG, Z7_GuestRadixOnHostRadix, 4, 4));
    const Node &node = capture({.store = true, .ea_valid = true, .fetch = fetch, .data = data});
    EXPECT_EQ(describe(fetch_of(node)), expected(Capture_Rule::guest_radix, fetch));
    EXPECT_EQ(describe(data_of(node)), expected(Capture_Rule::guest_radix, data));
}

TEST_F(Xlate_Capture, guest_page_size_of_the_data_goes_into_the_operation_details_only)
{
    const auto data = two_level(distinct_answers(DATA_TAG, Z7_GuestHptOnHostHpt));
    const Node &node = capture(
        {.load = true, .ea_valid = true, .fetch = distinct_answers(FETCH_TAG, Z7_GuestHptOnHostHpt), .data = data});
    EXPECT_EQ(node.info.data_gpagesize, data.page_size);
    EXPECT_EQ(node.data_gpagesize, 0);
}

// ---- the routines on a node that is not fresh ---------------------------------------------------------------

namespace
{

constexpr uint64_t OLD = 0x0101010101010101; // every byte of the node before the routine runs

struct Used_Node {
    Node node;
    Used_Node() { std::memset(static_cast<void *>(&node), 1, sizeof node); }
};

template <class Routine> Node on_used_node(Routine routine, const replay::Address_Answers &answers)
{
    Used_Node used;
    replay::Instruction instruction;
    instruction.fetch = answers;
    instruction.data = answers;
    routine(&used.node, replay::handle_of(instruction));
    return used.node;
}

void expect_walks(const Captured_Address &got, const Captured_Address &want)
{
    Captured_Address walks{.hRTW = got.hRTW, .host_RA = got.host_RA, .gRTW = got.gRTW};
    Captured_Address expected_walks{.hRTW = want.hRTW, .host_RA = want.host_RA, .gRTW = want.gRTW};
    EXPECT_EQ(describe(walks), describe(expected_walks));
}

Captured_Address old_walks()
{
    Captured_Address a;
    a.hRTW.fill({OLD, OLD, OLD, OLD});
    a.host_RA.fill({OLD});
    a.gRTW = {OLD, OLD, OLD, OLD, OLD, OLD};
    return a;
}

} // namespace

TEST_F(Xlate_Capture, host_radix_clears_nothing_before_it_stores)
{
    const auto answers = distinct_answers(FETCH_TAG, Z7_HostRadixSingleLevel);
    Captured_Address want = old_walks();
    want.hRTW[0] = answers.host_walk[0];
    want.host_RA[0] = {answers.host_ra[0]};
    expect_walks(fetch_of(on_used_node(iop_helper_pc_host_radix, answers)), want);
    expect_walks(data_of(on_used_node(iop_helper_pcdata_host_radix, answers)), want);
}

TEST_F(Xlate_Capture, guest_real_on_host_radix_clears_everything_but_the_root_first)
{
    const auto answers = distinct_answers(FETCH_TAG, Z7_GuestRealOnHostRadix);
    Captured_Address want = captured_by(Capture_Rule::real_on_radix, answers);
    want.gRTW.RTPDE_GUEST_ra_root = OLD;
    const Node fetch = on_used_node(iop_helper_pc_guest_real_host_radix, answers);
    const Node data = on_used_node(iop_helper_pcdata_guest_real_host_radix, answers);
    expect_walks(fetch_of(fetch), want);
    expect_walks(data_of(data), want);
    EXPECT_EQ(fetch.PC_gpagesize, 0);
    EXPECT_EQ(data.info.data_gpagesize, 0);
    EXPECT_EQ(fetch.pc_host_walkdepth, answers.host_depth);
    EXPECT_EQ(fetch.pc_guest_walkdepth, answers.guest_depth);
    EXPECT_EQ(data.data_host_walkdepth, answers.host_depth);
    EXPECT_EQ(data.data_guest_walkdepth, answers.guest_depth);
}

TEST_F(Xlate_Capture, nested_walk_clears_everything_but_the_root_first_and_stores_both_depths)
{
    const auto answers = distinct_answers(FETCH_TAG, Z7_GuestRadixOnHostRadix, 3, 2);
    Captured_Address want = captured_by(Capture_Rule::guest_radix, answers);
    want.gRTW.RTPDE_GUEST_ra_root = OLD;
    const Node fetch = on_used_node(iop_helper_pc_guest_radix, answers);
    const Node data = on_used_node(iop_helper_pcdata_guest_radix, answers);
    expect_walks(fetch_of(fetch), want);
    expect_walks(data_of(data), want);
    EXPECT_EQ(fetch.pc_host_walkdepth, 3);
    EXPECT_EQ(fetch.pc_guest_walkdepth, 2);
    EXPECT_EQ(data.data_host_walkdepth, 3);
    EXPECT_EQ(data.data_guest_walkdepth, 2);
}

TEST_F(Xlate_Capture, each_routine_stores_what_its_rule_takes)
{
    struct {
        void (*fetch)(Node *, void *);
        void (*data)(Node *, void *);
        Capture_Rule rule;
    } const routines[] = {
        {iop_helper_pc_host_real, iop_helper_pcdata_host_real, Capture_Rule::host_real},
        {iop_helper_pc_host_hpt, iop_helper_pcdata_host_hpt, Capture_Rule::host_hpt},
        {iop_helper_pc_guest_hpt, iop_helper_pcdata_guest_hpt, Capture_Rule::guest_hpt},
        {iop_helper_pc_guest_real_host_hpt, iop_helper_pcdata_guest_real_host_hpt, Capture_Rule::real_on_hpt},
        {iop_helper_pc_host_radix, iop_helper_pcdata_host_radix, Capture_Rule::host_radix},
        {iop_helper_pc_guest_real_host_radix, iop_helper_pcdata_guest_real_host_radix, Capture_Rule::real_on_radix},
        {iop_helper_pc_guest_radix, iop_helper_pcdata_guest_radix, Capture_Rule::guest_radix},
    };
    for (const auto &routine : routines) {
        replay::Instruction instruction;
        instruction.fetch = distinct_answers(FETCH_TAG);
        instruction.data = distinct_answers(DATA_TAG);
        Node node{};
        routine.fetch(&node, replay::handle_of(instruction));
        routine.data(&node, replay::handle_of(instruction));
        // relocation belongs to whoever chooses the routine; depths have a query of their own in some routines
        const auto compared = [](Captured_Address a) {
            a.relocation = 0;
            a.host_depth = a.guest_depth = 0;
            return describe(a);
        };
        EXPECT_EQ(compared(fetch_of(node)), compared(captured_by(routine.rule, instruction.fetch)));
        EXPECT_EQ(compared(data_of(node)), compared(captured_by(routine.rule, instruction.data)));
    }
}

TEST_F(Xlate_Capture, guest_real_on_host_hpt_has_no_guest_page_size)
{
    const auto answers = distinct_answers(FETCH_TAG, Z7_GuestRealOnHostHpt);
    const Node fetch = on_used_node(iop_helper_pc_guest_real_host_hpt, answers);
    const Node data = on_used_node(iop_helper_pcdata_guest_real_host_hpt, answers);
    EXPECT_EQ(fetch.PC_gpagesize, 0);
    EXPECT_EQ(data.info.data_gpagesize, 0);
}
