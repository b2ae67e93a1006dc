// Nodes and the record are used again and again, and cleared only where they were written to.
#include "record_comparison.h"
#include "traced_machine.h"

#include "ordering.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace
{

using replay::Instruction;

replay::Address_Answers guest_translation(RDX_XLATE_MODE mode)
{
    replay::Address_Answers answers;
    answers.mode = mode;
    answers.guest_two_level = mode == Z7_GuestRadixOnHostRadix;
    answers.relocated = true;
    answers.host_depth = 4;
    answers.guest_depth = 5;
    answers.host_walk.fill({1, 2, 3, 4});
    answers.host_ra.fill(5);
    answers.guest_walk = {0, 6, 7, 8, 9, 10};
    answers.ra = answers.vsid = 11;
    answers.rpn = answers.host_rpn = answers.guest_rpn = 12;
    answers.page_size = answers.host_page_size = answers.guest_page_size = 13;
    return answers;
}

Plugin_Inst_Registers every_register()
{
    Plugin_Inst_Registers r;
    std::memset(&r, 0x5A, sizeof r);
    r.gpr_num = MAX_GPRS;
    r.fpr_num = MAX_FPRS;
    r.spr_num = MAX_SPRS;
    r.vsx_num = MAX_VSXRS;
    r.vmx_num = MAX_VMXRS;
    return r;
}

// An instruction that uses as much of a node as one can.
Instruction rich_instruction(RDX_XLATE_MODE mode)
{
    Instruction rich{.pc = 0x5000, .npc = 0x9000, .op = ~0u};
    rich.branch = rich.unconditional = rich.taken = rich.load = rich.string = rich.exception = rich.ea_valid = true;
    rich.string_length = 77;
    rich.ea = 0x123456789ABCDEF0;
    rich.fetch = rich.data = guest_translation(mode);
    rich.in = rich.out = every_register();
    rich.text = std::string(63, 'x');
    return rich;
}

bool is_all_zero(const Node *node)
{
    const auto *bytes = reinterpret_cast<const char *>(node);
    return std::all_of(bytes, bytes + sizeof *node, [](char byte) { return byte == 0; });
}

class Reuse : public testing::TestWithParam<int>
{
protected:
    RDX_XLATE_MODE mode() const { return static_cast<RDX_XLATE_MODE>(GetParam()); }
};

TEST_P(Reuse, a_node_that_was_written_comes_back_all_zero)
{
    Traced_Machine machine;
    machine.start_with_text();
    for (uint64_t seq = 1; seq <= 4; ++seq) {
        Instruction rich = rich_instruction(mode());
        rich.seq = seq;
        machine.commit(rich);
        Node *next = new_node(); // the one that was written and given back
        EXPECT_TRUE(is_all_zero(next)) << "after commit " << seq;
        free_node(next);
    }
}

TEST_P(Reuse, a_record_holds_nothing_of_the_one_before)
{
    const auto last_record = [this](bool rich_before) {
        Traced_Machine machine;
        machine.start();
        machine.commit({.seq = 1, .pc = 0x4000});
        machine.commit(rich_before ? rich_instruction(mode()) : Instruction{.seq = 2, .pc = 0x4004});
        machine.commit({.seq = 3, .pc = 0x9000});
        machine.commit({.seq = 4, .pc = 0x9004});
        return machine.records().back();
    };
    const QTRACE_RECORD after_rich = last_record(true), after_poor = last_record(false);
    EXPECT_EQ(std::memcmp(&after_rich, &after_poor, sizeof after_rich), 0);
}

INSTANTIATE_TEST_SUITE_P(every_mode, Reuse, testing::Range(0, static_cast<int>(RDX_XLATE_MODE_LAST) + 2));

// Which of an instruction's two addresses has a guest's walk.
struct Walks {
    bool fetch, data;
};

Instruction instruction_with(Walks walks, uint64_t seq)
{
    replay::Address_Answers without_walk;
    without_walk.mode = Z7_GuestRadixOnHostRadix;
    Instruction instruction = rich_instruction(Z7_GuestRadixOnHostRadix);
    instruction.seq = seq;
    if (!walks.fetch)
        instruction.fetch = without_walk;
    if (!walks.data)
        instruction.data = without_walk;
    return instruction;
}

TEST(Reuse_of_nodes, a_guest_walk_of_one_address_alone_is_cleared)
{
    const Walks none{false, false}, fetch{true, false}, data{false, true};
    // the second of a pair tells the first its next address
    for (const auto &[first, second] : {std::pair{fetch, none}, {data, none}, {none, fetch}}) {
        Traced_Machine machine;
        machine.start();
        machine.commit(instruction_with(first, 1));
        machine.commit(instruction_with(second, 2));
        Node *next = new_node(); // the first one's
        EXPECT_TRUE(is_all_zero(next)) << first.fetch << first.data << second.fetch;
        free_node(next);
    }
}

TEST(Reuse_of_nodes, a_node_from_elsewhere_comes_back_all_zero)
{
    Traced_Machine machine;
    machine.start();
    Node *foreign = new_node();
    std::memset(static_cast<void *>(foreign), 0xA5, sizeof *foreign);
    free_node(foreign);
    Node *next = new_node();
    EXPECT_TRUE(is_all_zero(next));
    free_node(next);
}

} // namespace
