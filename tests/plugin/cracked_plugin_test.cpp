// Micro-ops of a cracked instruction: they wait, and become one node.
#include "commit_fixture.h"

namespace
{

struct Cracked : Commit {
    void SetUp() override
    {
        Commit::SetUp();
        replay::host().set_context(0, {.cycle_mode = true});
        m.commit({.seq = 1, .pc = 0x0FFC, .op = 1});
    }
    void piece(uint64_t piece_seq, Plugin_Inst_Registers out = {}, Plugin_Inst_Registers in = {})
    {
        replay::Instruction instruction{
            .seq = piece_seq, .pc = 0x1000, .npc = 0x1000, .op = static_cast<uint32_t>(piece_seq)};
        instruction.in = in;
        instruction.out = out;
        m.commit(instruction);
    }
    const Node &last_piece(uint64_t piece_seq, Plugin_Inst_Registers out = {}, Plugin_Inst_Registers in = {})
    {
        replay::Instruction instruction{
            .seq = piece_seq, .pc = 0x1000, .npc = 0x1004, .op = static_cast<uint32_t>(piece_seq)};
        instruction.in = in;
        instruction.out = out;
        m.commit(instruction);
        return *last_commit[0];
    }
};

Plugin_Inst_Registers gprs(std::initializer_list<std::pair<int, uint64_t>> pairs)
{
    Plugin_Inst_Registers registers{};
    for (const auto &[index, value] : pairs) {
        registers.gpr_index[registers.gpr_num] = index;
        registers.gpr_value[registers.gpr_num++] = value;
    }
    return registers;
}

// `count` registers of every class from number `first` on, each with `value` in all its words.
Plugin_Inst_Registers every_class(int first, int count, uint64_t value)
{
    Plugin_Inst_Registers r{};
    for (int i = 0; i < count; ++i) {
        r.gpr_index[i] = r.fpr_index[i] = r.spr_index[i] = r.vmx_index[i] = r.vsx_index[i] = first + i;
        r.gpr_value[i] = r.fpr_value[i] = r.spr_value[i] = value;
        r.vmx_value[i] = r.vsx_value[i] = {{value, value + 1}};
    }
    r.gpr_num = r.fpr_num = r.spr_num = r.vmx_num = r.vsx_num = count;
    return r;
}

} // namespace

TEST_F(Cracked, piece_waits_outside_the_tree)
{
    piece(2);
    ASSERT_NE(crack_inst[0], nullptr);
    EXPECT_EQ(crack_inst[0]->seq, 2u);
    EXPECT_EQ(last_commit[0]->seq, 1u);
    EXPECT_EQ(last_commit[0]->left, nullptr);
    EXPECT_TRUE(m.records().empty());
}

TEST_F(Cracked, instruction_of_three_pieces_is_one_record_of_its_first_piece)
{
    piece(2, gprs({{3, 1}, {4, 2}}), gprs({{10, 7}}));
    piece(3, gprs({{4, 20}, {5, 3}}), gprs({{11, 8}}));
    const Node &node = last_piece(4, gprs({{5, 30}, {6, 4}}), gprs({{12, 9}}));
    EXPECT_EQ(crack_inst[0], nullptr);
    EXPECT_EQ(node.seq, 2u);
    EXPECT_EQ(node.PC, 0x1000u);
    EXPECT_EQ(node.nextPC, 0x1004u);
    EXPECT_EQ(node.info.instbody, 2u);
    EXPECT_EQ(node.left, nullptr);
    EXPECT_EQ(gpr_pairs(node.reg_in), (Pairs{{10, 7}}));
    EXPECT_EQ(gpr_pairs(node.reg_out), (Pairs{{3, 1}, {4, 20}, {5, 30}, {6, 4}}));
    m.stop();
    EXPECT_EQ(m.instruction_words(), (Words{1, 2}));
}

TEST_F(Cracked, pieces_are_merged_in_the_order_of_their_seq_and_not_of_their_arrival)
{
    piece(3, gprs({{3, 30}}));
    piece(2, gprs({{3, 20}}));
    EXPECT_EQ(crack_inst[0]->seq, 2u);
    const Node &node = last_piece(4, gprs({{7, 4}}));
    EXPECT_EQ(node.seq, 2u);
    EXPECT_EQ(gpr_pairs(node.reg_out), (Pairs{{3, 30}, {7, 4}}));
}

TEST_F(Cracked, last_piece_may_have_the_lowest_seq_and_then_stands_for_the_instruction)
{
    piece(5, gprs({{3, 50}}));
    piece(6, gprs({{3, 60}}));
    const Node &node = last_piece(4, gprs({{3, 40}, {4, 4}}), gprs({{9, 9}}));
    EXPECT_EQ(node.seq, 4u);
    EXPECT_EQ(node.nextPC, 0x1004u);
    EXPECT_EQ(gpr_pairs(node.reg_in), (Pairs{{9, 9}}));
    EXPECT_EQ(gpr_pairs(node.reg_out), (Pairs{{3, 60}, {4, 4}}));
}

TEST_F(Cracked, every_class_of_registers_is_merged)
{
    piece(2, every_class(1, 2, 100));                         // 1, 2
    const Node &node = last_piece(3, every_class(2, 2, 200)); // 2, 3
    const Plugin_Inst_Registers &r = node.reg_out;
    for (const int *index : {r.gpr_index, r.fpr_index, r.spr_index, r.vmx_index, r.vsx_index})
        EXPECT_EQ(std::vector<int>(index, index + 3), (std::vector<int>{1, 2, 3}));
    for (const uint64_t *value : {r.gpr_value, r.fpr_value, r.spr_value})
        EXPECT_EQ(std::vector<uint64_t>(value, value + 3), (std::vector<uint64_t>{100, 200, 200}));
    for (const QuadWord *value : {r.vmx_value, r.vsx_value}) {
        EXPECT_EQ(value[0].word[1], 101u);
        EXPECT_EQ(value[1].word[0], 200u);
        EXPECT_EQ(value[2].word[1], 201u);
    }
    for (int count : {r.gpr_num, r.fpr_num, r.spr_num, r.vmx_num, r.vsx_num})
        EXPECT_EQ(count, 3);
}

TEST_F(Cracked, registers_beyond_the_capacity_of_their_class_are_dropped_and_known_ones_still_overwritten)
{
    piece(2, every_class(0, 3, 1));  // 0, 1, 2
    piece(3, every_class(10, 4, 2)); // 10, 11, 12, 13: special and general registers have room for more
    const Node &node = last_piece(4, every_class(2, 1, 3));
    const Plugin_Inst_Registers &r = node.reg_out;
    EXPECT_EQ(r.gpr_num, 7);
    EXPECT_EQ(r.spr_num, 6);
    EXPECT_EQ(r.fpr_num, 4);
    EXPECT_EQ(r.vmx_num, 4);
    EXPECT_EQ(r.vsx_num, 4);
    EXPECT_EQ(r.fpr_index[3], 10);
    EXPECT_EQ(r.vmx_index[3], 10);
    EXPECT_EQ(r.vsx_index[3], 10);
    EXPECT_EQ(r.spr_index[5], 12);
    EXPECT_EQ(r.fpr_value[2], 3u);
    EXPECT_EQ(r.vsx_value[2].word[0], 3u);
    EXPECT_EQ(r.fpr_value[3], 2u);
}

TEST_F(Cracked, general_registers_are_kept_up_to_32)
{
    piece(2, [] {
        Plugin_Inst_Registers r{};
        r.gpr_num = 32;
        for (int i = 0; i < 32; ++i)
            r.gpr_index[i] = i;
        return r;
    }());
    const Node &node = last_piece(3, gprs({{40, 1}, {31, 2}}));
    EXPECT_EQ(node.reg_out.gpr_num, 32);
    EXPECT_EQ(node.reg_out.gpr_value[31], 2u);
    EXPECT_EQ(node.reg_out.fpr_num, 0);
    EXPECT_EQ(node.reg_out.fpr_index[0], 0);
}

// A host that counts more registers than a class has must not make the merge run over the tables.
TEST_F(Cracked, counts_beyond_the_capacity_are_taken_for_the_capacity)
{
    Plugin_Inst_Registers many = every_class(0, 4, 1);
    many.gpr_num = many.fpr_num = many.spr_num = many.vmx_num = many.vsx_num = 1000;
    piece(2, many);
    piece(3, many);
    last_piece(4, many);
    m.commit({.seq = 9, .pc = 0x1004});
    m.stop();
    EXPECT_EQ(m.instruction_words(), (Words{1, 2, 0}));
}

TEST_F(Cracked, branch_to_itself_is_no_piece)
{
    m.commit({.seq = 2, .pc = 0x1000, .npc = 0x1000, .branch = true, .taken = true});
    EXPECT_EQ(crack_inst[0], nullptr);
    EXPECT_EQ(last_commit[0]->seq, 2u);
}

TEST_F(Cracked, branch_can_be_the_last_piece)
{
    piece(2);
    m.commit({.seq = 3, .pc = 0x1000, .npc = 0x1000, .branch = true, .taken = true});
    EXPECT_EQ(crack_inst[0], nullptr);
    EXPECT_EQ(last_commit[0]->seq, 2u);
    EXPECT_EQ(last_commit[0]->nextPC, 0x1000u);
}

TEST_F(Cracked, pieces_belong_to_their_thread)
{
    replay::host().set_context(1, {.cycle_mode = true});
    piece(2);
    m.commit({.tid = 1, .seq = 3, .pc = 0x1000});
    EXPECT_NE(crack_inst[0], nullptr);
    EXPECT_EQ(crack_inst[1], nullptr);
    EXPECT_EQ(last_commit[1]->seq, 3u);
}

TEST_F(Cracked, waiting_pieces_are_not_completed_by_an_instruction_outside_cycle_mode)
{
    piece(2);
    replay::host().set_context(0, {.cycle_mode = false});
    m.commit({.seq = 3, .pc = 0x1000, .npc = 0x1000});
    EXPECT_EQ(last_commit[0]->seq, 3u);
    ASSERT_NE(crack_inst[0], nullptr);
    EXPECT_EQ(crack_inst[0]->seq, 2u);
}

TEST_F(Cracked, pieces_of_an_instruction_that_was_never_completed_are_freed_unwritten_at_stop)
{
    piece(2);
    piece(3);
    m.stop();
    EXPECT_EQ(m.instruction_words(), Words{1});
}

TEST_F(Cracked, first_instruction_of_a_thread_can_be_cracked)
{
    replay::host().set_context(2, {.cycle_mode = true});
    m.commit({.tid = 2, .seq = 5, .pc = 0x1000, .npc = 0x1000});
    EXPECT_EQ(root[2], nullptr);
    m.commit({.tid = 2, .seq = 6, .pc = 0x1000, .npc = 0x1004});
    ASSERT_NE(root[2], nullptr);
    EXPECT_EQ(root[2]->seq, 5u);
    EXPECT_EQ(last_commit[2], root[2]);
}

TEST_F(Cracked, next_address_of_the_previous_instruction_comes_from_the_first_piece)
{
    piece(2);
    last_piece(3);
    m.commit({.seq = 4, .pc = 0x1004});
    const auto records = m.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].header.control.fld.next_instruction_EA_present, 0u); // 0xFFC + 4 = 0x1000
    EXPECT_EQ(records[1].header.control.fld.next_instruction_EA_present, 0u); // 0x1000 + 4
}

TEST_F(Cracked, second_piece_of_the_same_seq_is_reported_and_dropped)
{
    piece(2, gprs({{3, 1}}));
    piece(2, gprs({{3, 2}, {4, 2}}));
    EXPECT_EQ(m.warnings(), Texts{"insert_left(): Duplicated seq found!"});
    const Node &node = last_piece(3);
    EXPECT_EQ(gpr_pairs(node.reg_out), (Pairs{{3, 1}}));
}

TEST_F(Cracked, last_piece_of_a_seq_that_is_there_is_reported_and_the_instruction_still_completes)
{
    piece(2, gprs({{3, 1}}));
    const Node &node = last_piece(2, gprs({{4, 2}}));
    EXPECT_EQ(m.warnings(), Texts{"insert_left(): Duplicated seq found!"});
    EXPECT_EQ(node.seq, 2u);
    EXPECT_EQ(node.PC, 0x1000u);
    EXPECT_EQ(node.nextPC, 0x1004u);
    EXPECT_EQ(crack_inst[0], nullptr);
    m.commit({.seq = 3, .pc = 0x1004, .op = 3});
    m.stop();
    EXPECT_EQ(m.instruction_words(), (Words{1, 2, 3}));
}

TEST_F(Commit, outside_cycle_mode_an_instruction_that_goes_to_itself_is_an_instruction)
{
    m.commit({.seq = 1, .pc = 0x1000, .npc = 0x1000});
    EXPECT_EQ(crack_inst[0], nullptr);
    EXPECT_EQ(last_commit[0]->seq, 1u);
}
