// The next address of an instruction and its translation, which come from the one that commits after it.
#include "commit_fixture.h"

#include "captured_address.h"

namespace
{

// P commits, then the instruction whose address fills P's next address; both stay in the tree.
struct Next_Address : Commit {
    const Node &previous(replay::Instruction p, replay::Instruction next)
    {
        seq = 0;
        if (root[0]) {
            m.stop();
            m.start();
        }
        m.commit([&p] {
            p.seq = 1;
            return p;
        }());
        hold_back();
        next.seq = 2;
        m.commit(next);
        return *root[0];
    }
    const Node &before_jump_to(const replay::Address_Answers &fetch)
    {
        return previous({.pc = 0x1000}, {.pc = 0x8000, .fetch = fetch});
    }
};

// What is copied of the current instruction, by its mode and whether its address was relocated.
Captured_Address copied(int mode, bool relocation, const Captured_Address &from)
{
    Captured_Address to{
        .relocation = from.relocation, .host_depth = from.host_depth, .guest_depth = from.guest_depth};
    const auto pages = [&] {
        to.RPN = from.RPN;
        to.pagesize = from.pagesize;
    };
    const auto walk_0 = [&] {
        to.hRTW[0] = from.hRTW[0];
        to.host_RA[0] = from.host_RA[0];
    };
    if (relocation && mode == 11) {
        to.RA = from.RA;
    } else if (relocation && (mode == 14 || mode == 19)) {
        pages();
        to.VSID = from.VSID;
        to.gpagesize = mode == 14 ? from.gpagesize : uint8_t{0};
    } else if (relocation && mode == 23) {
        pages();
        to.gpagesize = from.gpagesize;
        take_nested_walk(
            to, from.hRTW, [&from](int n) { return from.host_RA[static_cast<size_t>(n)].ra; }, from.gRTW,
            from.host_depth, from.guest_depth);
    } else if (relocation && ((mode >= 25 && mode <= 27) || (mode >= 29 && mode <= 31))) {
        pages();
        walk_0();
    } else if (!relocation && mode == 16) {
        pages();
        to.VSID = from.VSID;
    } else if (!relocation && mode == 24) {
        pages();
        walk_0();
        to.gRTW.GUEST_ra = from.gRTW.GUEST_ra;
    }
    return to;
}

} // namespace

TEST_F(Next_Address, sequential_instruction_leaves_the_previous_one_as_the_host_gave_it)
{
    const Node &p = previous({.pc = 0x1000, .npc = 0x7777}, {.pc = 0x1004, .fetch = distinct_answers(0xF, 19)});
    EXPECT_EQ(p.I, 0u);
    EXPECT_EQ(p.nextPC, 0x7777u);
    EXPECT_EQ(describe(next_of(p)), "");
    EXPECT_EQ(p.nextPC_radix_type, 0);
}

TEST_F(Next_Address, sequential_instruction_after_a_branch_not_taken_fills_nothing)
{
    const Node &p = previous({.pc = 0x1000, .branch = true}, {.pc = 0x1004, .fetch = distinct_answers(0xF, 19)});
    EXPECT_EQ(p.I, 0u);
    EXPECT_EQ(describe(next_of(p)), "");
}

TEST_F(Next_Address, instruction_elsewhere_is_filled_in_after_any_kind_of_instruction)
{
    for (const replay::Instruction &p :
         {replay::Instruction{.pc = 0x1000}, replay::Instruction{.pc = 0x1000, .branch = true},
          replay::Instruction{.pc = 0x1000, .branch = true, .taken = true}}) {
        const Node &node = previous(p, {.pc = 0x8000});
        EXPECT_EQ(node.I, 1u);
        EXPECT_EQ(node.nextPC, 0x8000u);
    }
}

TEST_F(Next_Address, branch_taken_to_the_following_instruction_is_filled_in_as_well)
{
    const auto answers = distinct_answers(0xF, Z7_HostHptSTEGroup);
    const Node &p = previous({.pc = 0x1000, .branch = true, .taken = true}, {.pc = 0x1004, .fetch = answers});
    EXPECT_EQ(p.I, 1u);
    EXPECT_EQ(p.nextPC, 0x1004u);
    EXPECT_EQ(p.nextPC_VSID, answers.vsid);
}

TEST_F(Next_Address, following_address_wraps_at_the_end_of_the_address_space)
{
    EXPECT_EQ(previous({.pc = 0xFFFFFFFFFFFFFFFC, .npc = 1}, {.pc = 0, .npc = 4}).I, 0u);
}

TEST_F(Next_Address, descriptors_of_the_current_instruction_are_copied)
{
    auto answers = distinct_answers(0xF, POSSIBLE_HOST_Radix, 7, 9);
    answers.guest_two_level = 0x12;
    const Node &p = before_jump_to(answers);
    EXPECT_EQ(p.nextPC_radix_type, POSSIBLE_HOST_Radix);
    EXPECT_EQ(p.nextPC_guest_twolevel, 0x12);
    EXPECT_EQ(p.nextPC_host_walkdepth, 7);
    EXPECT_EQ(p.nextPC_guest_walkdepth, 9);
    EXPECT_EQ(p.nextPC_relocation, 1u);
}

TEST_F(Next_Address, translation_of_the_current_instruction_is_copied_by_its_mode)
{
    for (int mode = 0; mode <= 38; ++mode)
        for (bool two_level : {false, true}) {
            auto answers = distinct_answers(0xF, mode);
            answers.guest_two_level = two_level;
            const Node &p = before_jump_to(answers);
            const Captured_Address current = fetch_of(*last_commit[0]);
            EXPECT_EQ(describe(next_of(p)), describe(copied(mode, current.relocation, current)))
                << "mode " << mode << " two levels " << two_level;
        }
}

TEST_F(Next_Address, kernel_without_relocation_copies_nothing_of_a_guest)
{
    replay::host().set_context(0, {.kernel = true});
    for (int mode : {14, 23}) {
        auto answers = distinct_answers(0xF, mode);
        answers.guest_two_level = 1;
        const Node &p = before_jump_to(answers);
        EXPECT_EQ(describe(next_of(p)), "host_depth=0x4\nguest_depth=0x5\n") << "mode " << mode;
    }
}

TEST_F(Next_Address, nested_walk_is_copied_by_its_guest_and_host_depth)
{
    for (int g = 1; g <= 5; ++g)
        for (int h : {0, 1, 2, 3, 4, 5, 255}) {
            auto answers =
                distinct_answers(0xF, Z7_GuestRadixOnHostRadix, static_cast<uint8_t>(h), static_cast<uint8_t>(g));
            answers.guest_two_level = 1;
            const Node &p = before_jump_to(answers);
            EXPECT_EQ(describe(next_of(p)), describe(captured_by(Capture_Rule::guest_radix, answers)))
                << "guest " << g << " host " << h;
        }
}

TEST_F(Next_Address, guest_depths_that_no_tree_has_leave_the_rest_of_the_node_intact)
{
    for (int g : {0, 6, 100, 255}) {
        auto answers = distinct_answers(0xF, Z7_GuestRadixOnHostRadix, 4, static_cast<uint8_t>(g));
        answers.guest_two_level = 1;
        const Node &p = before_jump_to(answers);
        EXPECT_EQ(p.sdr1, 0u) << "guest " << g;
        EXPECT_EQ(p.nextPC_pagesize, answers.host_page_size) << "guest " << g;
        EXPECT_EQ(p.nextPC, 0x8000u);
        EXPECT_EQ(p.seq, 1u);
        EXPECT_EQ(p.reg_in.gpr_num, 0) << "guest " << g;
        EXPECT_EQ(p.nextPC_gRTW.RTPDE_GUEST_ra_root, 0u);
    }
}

TEST_F(Next_Address, real_address_is_not_copied_while_relocation_is_off)
{
    const Node &p = before_jump_to(distinct_answers(0xF, HypervisorRealModeHRMOR));
    EXPECT_EQ(p.nextPC_RA, 0u);
    EXPECT_EQ(describe(next_of(p)), "host_depth=0x4\nguest_depth=0x5\n");
}

TEST_F(Next_Address, record_of_the_previous_instruction_carries_the_address_it_went_to)
{
    m.commit({.seq = 1, .pc = 0x1000, .npc = 0x1004});
    m.commit({.seq = 2, .pc = 0x123456789ABCDEF0});
    const QTRACE_RECORD record = m.records().at(0);
    EXPECT_EQ(record.header.control.fld.next_instruction_EA_present, 1u);
    EXPECT_EQ(value_of(record.next_instruction_ea), 0x123456789ABCDEF0u);
}
