// The commit event: what a node captures, cracked instructions, the next address, and when records are written.
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "assertion_report.h"
#include "captured_address.h"
#include "lost_on_purpose.h"
#include "ordering.h"
#include "traced_machine.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

using Words = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

// A zero node on the heap, which the plugin frees.
Node *heap_node(uint64_t seq)
{
    auto *node = static_cast<Node *>(std::calloc(1, sizeof(Node)));
    node->seq = seq;
    return node;
}

// Keeps everything that commits from now on in the tree, so that a test can look at it: a flushed instruction
// that no commit passes. Freed with the session.
void hold_back(int tid = 0)
{
    insert_to_list(flush_list[tid], heap_node(UINT64_MAX));
}

struct Commit : testing::Test {
    Traced_Machine m{2, 2};
    uint64_t seq = 0;

    void SetUp() override { m.start(); }
    // Sequence number and address follow the thread's last ones.
    // The node of a filtered instruction is lost on purpose.
    void commit_filtered(replay::Instruction instruction)
    {
        const Lost_On_Purpose lost;
        instruction.filtered = true;
        m.commit(std::move(instruction));
    }
    const Node &capture(replay::Instruction instruction)
    {
        instruction.seq = ++seq;
        if (instruction.pc == 0)
            instruction.pc = 0x1000 + 4 * seq;
        const int tid = instruction.tid;
        m.commit(std::move(instruction));
        return *last_commit[tid];
    }
};

} // namespace

// ---- before capture -----------------------------------------------------------------------------------------

TEST(commit_without_a_session, is_ignored)
{
    Traced_Machine m;
    m.commit({.seq = 1, .pc = 0x1000});
    EXPECT_EQ(root, nullptr);
    EXPECT_EQ(total_instr_commited, 0u);
    EXPECT_TRUE(m.queries().empty());
    EXPECT_TRUE(recording_writer().calls().empty());
}

TEST(commit_without_a_session, leaves_a_deferred_action_queued)
{
    Traced_Machine m;
    commit_action[0] = [](int) { FAIL(); };
    m.commit({.seq = 1, .pc = 0x1000});
    EXPECT_NE(commit_action[0], nullptr);
}

TEST_F(Commit, of_a_paused_thread_captures_nothing)
{
    m.signal({"pause", "cpu", "0", "thread", "1"});
    m.commit({.tid = 1, .seq = 1, .pc = 0x1000});
    EXPECT_EQ(root[1], nullptr);
    EXPECT_EQ(instr_commited, 0u);
    m.commit({.tid = 0, .seq = 1, .pc = 0x1000});
    EXPECT_NE(root[0], nullptr);
}

namespace
{
int action_ran_for = -1;
}

TEST_F(Commit, runs_and_clears_the_deferred_action_of_its_thread)
{
    action_ran_for = -1;
    commit_action[2] = [](int tid) { action_ran_for = tid; };
    m.commit({.tid = 1, .seq = 1, .pc = 0x1000});
    EXPECT_EQ(action_ran_for, -1);
    m.commit({.tid = 2, .seq = 1, .pc = 0x1000});
    EXPECT_EQ(action_ran_for, 2);
    EXPECT_EQ(commit_action[2], nullptr);
    EXPECT_NE(root[2], nullptr);
}

TEST_F(Commit, runs_the_deferred_action_of_a_paused_thread_before_it_looks_whether_the_thread_is_paused)
{
    paused[0] = 1;
    commit_action[0] = [](int tid) { paused[tid] = 0; };
    m.commit({.seq = 1, .pc = 0x1000});
    EXPECT_NE(root[0], nullptr) << "the instruction that runs a resume is captured";
    commit_action[0] = [](int tid) { paused[tid] = 1; };
    m.commit({.seq = 2, .pc = 0x1004});
    EXPECT_EQ(last_commit[0]->seq, 1u) << "the instruction that runs a pause is not";
}

TEST_F(Commit, of_a_thread_the_machine_does_not_have_stops_the_program)
{
    for (int tid : {4, 5, 1000}) {
        const replay::Instruction instruction{.tid = tid};
        EXPECT_DEATH(Event_Instruction_Commit(replay::handle_of(instruction)),
                     assertion_report("act_on_commit", TID_IN_RANGE));
    }
}

TEST_F(Commit, without_the_table_of_deferred_actions_stops_the_program)
{
    EXPECT_DEATH(
        {
            commit_action = nullptr;
            m.commit({.seq = 1, .pc = 0x1000});
        },
        assertion_report("act_on_commit", COMMIT_ACTION_EXISTS));
}

TEST_F(Commit, without_the_table_of_paused_threads_stops_the_program)
{
    EXPECT_DEATH(
        {
            paused = nullptr;
            m.commit({.seq = 1, .pc = 0x1000});
        },
        assertion_report("is_thread_paused", PAUSED_EXISTS));
}

// ---- pre-execution ------------------------------------------------------------------------------------------

TEST(pre_execution_event, asks_nothing_without_a_session)
{
    Traced_Machine m;
    const replay::Instruction instruction{};
    Event_Instruction_PreExecution(replay::handle_of(instruction));
    EXPECT_TRUE(m.queries().empty());
}

TEST_F(Commit, pre_execution_captures_nothing)
{
    const replay::Instruction instruction{};
    m.forget_queries();
    Event_Instruction_PreExecution(replay::handle_of(instruction));
    EXPECT_EQ(m.queries(), (Texts{"Get_Inst_ThreadId", "In_Cycle_Mode"}));
    EXPECT_EQ(pre_execution[0], nullptr);
    EXPECT_EQ(root[0], nullptr);
}

TEST_F(Commit, pre_execution_on_a_paused_thread_does_not_ask_for_cycle_mode)
{
    m.signal({"pause"});
    m.forget_queries();
    const replay::Instruction instruction{};
    Event_Instruction_PreExecution(replay::handle_of(instruction));
    EXPECT_EQ(m.queries(), Texts{"Get_Inst_ThreadId"});
}

TEST_F(Commit, pre_execution_without_the_table_of_paused_threads_stops_the_program)
{
    const replay::Instruction instruction{};
    EXPECT_DEATH(
        {
            paused = nullptr;
            Event_Instruction_PreExecution(replay::handle_of(instruction));
        },
        assertion_report("Event_Instruction_PreExecution", PAUSED_EXISTS));
}

TEST_F(Commit, pre_execution_without_the_table_of_paused_threads_asks_the_host_nothing)
{
    const replay::Instruction instruction{};
    EXPECT_DEATH(
        {
            replay::host().set_query_observer([](std::string_view) { _exit(0); }); // no death for a query
            paused = nullptr;
            Event_Instruction_PreExecution(replay::handle_of(instruction));
        },
        assertion_report("Event_Instruction_PreExecution", PAUSED_EXISTS));
}

// ---- capture ------------------------------------------------------------------------------------------------

TEST_F(Commit, captures_identity_and_addresses)
{
    replay::Instruction instruction{
        .tid = 3, .seq = 0xFEDCBA9876543210, .pc = 0x8000000012345678, .npc = 0x8000000012345FFC, .op = 0xDEADBEEF};
    m.commit(instruction);
    const Node &node = *last_commit[3];
    EXPECT_EQ(node.proc_index, 3);
    EXPECT_EQ(node.seq, 0xFEDCBA9876543210);
    EXPECT_EQ(node.PC, 0x8000000012345678);
    EXPECT_EQ(node.nextPC, 0x8000000012345FFC);
    EXPECT_EQ(node.info.instbody, 0xDEADBEEF);
    EXPECT_TRUE(node.done);
    EXPECT_TRUE(node.commit);
    EXPECT_EQ(node.terminated_seq, 0u);
}

TEST_F(Commit, captures_registers_of_the_machine_and_state_of_the_thread)
{
    PAGE_SIZES_USED host_pages{}, guest_pages{};
    host_pages.PAGE_64K = host_pages.PAGE_undefined = 1;
    guest_pages.PAGE_4K = guest_pages.PAGE_16G = 1;
    replay::host().set_context(1, {.ptcr = 0x1111111122222222,
                                   .lpid = 0x3333333344444444,
                                   .pid = 0x55555555,
                                   .sdr1 = 0x6666666677777777,
                                   .bit64 = true,
                                   .little_endian = true,
                                   .kernel = true,
                                   .cycle_mode = false,
                                   .pages = host_pages,
                                   .guest_pages = guest_pages});
    const Node &node = capture({.tid = 1});
    EXPECT_EQ(node.ptcr, 0x1111111122222222u);
    EXPECT_EQ(node.lpid, 0x3333333344444444u);
    EXPECT_EQ(node.pid, 0x55555555u);
    EXPECT_EQ(node.sdr1, 0x6666666677777777u);
    EXPECT_TRUE(node.bitmode64);
    EXPECT_TRUE(node.littleendian);
    EXPECT_TRUE(node.info.kernel);
    EXPECT_TRUE(node.simple);
    EXPECT_EQ(node.kelvo_ver, 3u);
    EXPECT_EQ(node.memused, 0x10000000u);
    EXPECT_EQ(std::memcmp(&node.pages_used, &host_pages, sizeof host_pages), 0);
    EXPECT_EQ(std::memcmp(&node.gpages_used, &guest_pages, sizeof guest_pages), 0);
}

TEST_F(Commit, captures_the_other_state_of_the_thread)
{
    replay::host().set_context(1, {.cycle_mode = true});
    const Node &node = capture({.tid = 1});
    EXPECT_FALSE(node.bitmode64);
    EXPECT_FALSE(node.littleendian);
    EXPECT_FALSE(node.info.kernel);
    EXPECT_FALSE(node.simple);
}

TEST_F(Commit, captures_both_translation_descriptors)
{
    const auto answers = [](int from) {
        replay::Address_Answers a;
        a.status = static_cast<MMUStatus>(from);
        a.mode = static_cast<RDX_XLATE_MODE>(from + 1);
        a.guest_mode = static_cast<RDX_MODE>(from % 4 + 1);
        a.host_mode = static_cast<RDX_MODE>(from % 4 + 2);
        a.host_two_level = static_cast<uint8_t>(from + 4);
        a.guest_two_level = static_cast<uint8_t>(from + 5);
        a.host_depth = static_cast<uint8_t>(from + 6);
        a.guest_depth = static_cast<uint8_t>(from + 7);
        return a;
    };
    const Node &node = capture({.fetch = answers(4), .data = answers(7)});
    EXPECT_EQ(node.pc_mmu_status, 4);
    EXPECT_EQ(node.pc_radix_type, 5);
    EXPECT_EQ(node.pc_guest_mode, 1);
    EXPECT_EQ(node.pc_host_mode, 2);
    EXPECT_EQ(node.pc_host_twolevel, 8);
    EXPECT_EQ(node.pc_guest_twolevel, 9);
    EXPECT_EQ(node.pc_host_walkdepth, 10);
    EXPECT_EQ(node.pc_guest_walkdepth, 11);
    EXPECT_EQ(node.pc_xlate_type, RADIX_MODE);
    EXPECT_EQ(node.pc_twolevel, 0);
    EXPECT_EQ(node.data_mmu_status, 7);
    EXPECT_EQ(node.data_radix_type, 8);
    EXPECT_EQ(node.data_guest_mode, 4);
    EXPECT_EQ(node.data_host_mode, 5);
    EXPECT_EQ(node.data_host_twolevel, 11);
    EXPECT_EQ(node.data_guest_twolevel, 12);
    EXPECT_EQ(node.data_host_walkdepth, 13);
    EXPECT_EQ(node.data_guest_walkdepth, 14);
    EXPECT_EQ(node.data_xlate_type, 0);
    EXPECT_EQ(node.data_twolevel, 0);
}

TEST_F(Commit, captures_the_data_address_also_when_it_is_not_valid)
{
    const Node &node = capture({.ea_valid = false, .ea = 0x123456789ABCDEF0});
    EXPECT_EQ(node.info.data_addr, 0x123456789ABCDEF0u);
    EXPECT_FALSE(node.info.data_addr_valid);
}

TEST_F(Commit, captures_each_kind_of_instruction)
{
    EXPECT_TRUE(capture({.load = true}).info.load);
    EXPECT_TRUE(capture({.store = true}).info.store);
    EXPECT_TRUE(capture({.cache = true}).info.cache);
    EXPECT_TRUE(capture({.exception = true}).info.except);
    EXPECT_TRUE(capture({.ea_valid = true}).info.data_addr_valid);
    const First_OP_Info &plain = capture({}).info;
    EXPECT_FALSE(plain.load || plain.store || plain.cache || plain.except || plain.data_addr_valid || plain.string);
}

TEST_F(Commit, captures_kind_and_outcome_of_a_branch)
{
    const auto letters = [this](bool branch, bool unconditional, bool taken) {
        const Node &node = capture({.branch = branch, .unconditional = unconditional, .taken = taken});
        return std::string{node.info.branch, node.info.taken};
    };
    EXPECT_EQ(letters(true, true, true), "UY");
    EXPECT_EQ(letters(true, true, false), "UN");
    EXPECT_EQ(letters(true, false, true), "CY");
    EXPECT_EQ(letters(true, false, false), "CN");
    EXPECT_EQ(letters(false, true, true), "??");
    EXPECT_EQ(letters(false, false, false), "??");
}

TEST_F(Commit, captures_the_length_of_string_instructions_only)
{
    EXPECT_EQ(capture({.string = true, .string_length = 0xFFFF}).info.str_len, 0xFFFF);
    EXPECT_EQ(capture({.string = true, .string_length = 17}).info.str_len, 17);
    EXPECT_EQ(capture({.string = false, .string_length = 17}).info.str_len, 0);
}

TEST_F(Commit, captures_the_fixed_word_of_a_pseudo_instruction)
{
    EXPECT_EQ(capture({.op = 0x12345678, .sim_support = true}).info.instbody, 0x7EB5AB78u);
}

TEST_F(Commit, captures_registers_read_and_written)
{
    replay::Instruction instruction;
    instruction.in.gpr_num = 2;
    instruction.in.gpr_index[1] = 31;
    instruction.in.gpr_value[1] = 0x1122334455667788;
    instruction.in.vmx_num = 1;
    instruction.in.vmx_value[0] = {{1, 2}};
    instruction.out.spr_num = 6;
    instruction.out.spr_index[5] = 1023;
    instruction.out.spr_value[5] = 42;
    instruction.out.vsx_num = 4;
    instruction.out.vsx_value[3] = {{3, 4}};
    instruction.out.fpr_num = 4;
    instruction.out.fpr_value[3] = 5;
    const Plugin_Inst_Registers in = instruction.in, out = instruction.out;
    const Node &node = capture(instruction);
    EXPECT_EQ(std::memcmp(&node.reg_in, &in, sizeof in), 0);
    EXPECT_EQ(std::memcmp(&node.reg_out, &out, sizeof out), 0);
}

TEST_F(Commit, captures_no_name_without_a_text_trace)
{
    EXPECT_STREQ(capture({.text = "add r3,r4,r5"}).info.name, "");
}

TEST(commit_with_a_text_trace, captures_the_name_cut_to_63_characters)
{
    Traced_Machine m;
    m.start_with_text();
    m.commit({.seq = 1, .pc = 0x1000, .text = "add r3,r4,r5"});
    EXPECT_STREQ(last_commit[0]->info.name, "add r3,r4,r5");
    m.commit({.seq = 2, .pc = 0x1004, .text = std::string(100, 'x')});
    EXPECT_EQ(last_commit[0]->info.name, std::string(63, 'x'));
}

TEST_F(Commit, leaves_zero_what_it_does_not_capture)
{
    Node expected{};
    expected.proc_index = 0;
    expected.seq = 1;
    expected.PC = 0x1000;
    expected.nextPC = 0x1004;
    expected.simple = expected.done = expected.commit = 1;
    expected.kelvo_ver = 3;
    expected.memused = 0x10000000;
    expected.pc_xlate_type = UNDEFINED_MODE;
    expected.info.branch = expected.info.taken = '?';
    m.commit({.seq = 1, .pc = 0x1000});
    const auto *got = reinterpret_cast<const unsigned char *>(last_commit[0]);
    const auto *want = reinterpret_cast<const unsigned char *>(&expected);
    for (size_t i = 0; i < sizeof(Node); ++i)
        ASSERT_EQ(got[i], want[i]) << "byte " << i;
}

// Nodes that were written are gone; whoever reuses their memory has to clear it.
TEST_F(Commit, leaves_nothing_of_an_earlier_instruction_in_a_later_one)
{
    const auto full = [](uint8_t tag) {
        auto answers = distinct_answers(tag, Z7_GuestRadixOnHostRadix);
        answers.guest_two_level = 1;
        return answers;
    };
    for (int i = 0; i < 8; ++i) {
        replay::Instruction rich{.branch = true,
                                 .taken = true,
                                 .load = true,
                                 .string = true,
                                 .exception = true,
                                 .ea_valid = true,
                                 .string_length = 99,
                                 .ea = 0x2000,
                                 .fetch = full(0xF),
                                 .data = full(0xD)};
        rich.in.gpr_num = rich.out.gpr_num = 32;
        std::fill(std::begin(rich.in.gpr_value), std::end(rich.in.gpr_value), 7);
        std::fill(std::begin(rich.out.gpr_value), std::end(rich.out.gpr_value), 7);
        capture(rich);
    }
    capture({});
    const Node &node = capture({});
    EXPECT_EQ(describe(fetch_of(node)), "");
    EXPECT_EQ(describe(next_of(node)), "");
    EXPECT_EQ(describe(data_of(node)), "");
    EXPECT_EQ(node.reg_in.gpr_value[31], 0u);
    EXPECT_EQ(node.reg_out.gpr_value[31], 0u);
    EXPECT_EQ(node.info.str_len, 0);
    EXPECT_EQ(node.info.except, 0u);
    EXPECT_EQ(node.left, nullptr);
    EXPECT_EQ(node.right, nullptr);
    EXPECT_EQ(node.I, 0u);
    EXPECT_EQ(node.nn, 0);
}

// ---- partition changes --------------------------------------------------------------------------------------

TEST_F(Commit, first_instruction_of_a_session_carries_no_partition_change)
{
    replay::host().set_context(0, {.lpid = 1});
    replay::host().set_context(0, {.lpid = 2});
    EXPECT_EQ(capture({}).partition_change, 0u);
}

TEST_F(Commit, change_of_lpid_or_pid_is_carried_by_the_next_instruction_only)
{
    replay::host().set_context(0, {.lpid = 1, .pid = 1});
    EXPECT_EQ(capture({}).partition_change, 0u);
    replay::host().set_context(0, {.lpid = 2, .pid = 1});
    EXPECT_EQ(capture({}).partition_change, 1u);
    EXPECT_EQ(capture({}).partition_change, 0u);
    replay::host().set_context(0, {.lpid = 2, .pid = 2});
    EXPECT_EQ(capture({}).partition_change, 1u);
    EXPECT_EQ(capture({}).partition_change, 0u);
}

// The answer about the LPID keeps the PID from being asked: its change is told one instruction later.
TEST_F(Commit, change_of_both_is_carried_by_two_instructions)
{
    replay::host().set_context(0, {.lpid = 1, .pid = 1});
    capture({});
    replay::host().set_context(0, {.lpid = 2, .pid = 2});
    EXPECT_EQ(capture({}).partition_change, 1u);
    EXPECT_EQ(capture({}).partition_change, 1u);
    EXPECT_EQ(capture({}).partition_change, 0u);
}

TEST_F(Commit, change_before_the_first_instruction_is_carried_by_the_second_which_is_the_first_to_ask)
{
    replay::host().set_context(0, {.lpid = 1});
    replay::host().set_context(0, {.lpid = 2});
    EXPECT_EQ(capture({}).partition_change, 0u);
    EXPECT_EQ(capture({}).partition_change, 1u);
}

TEST_F(Commit, whether_a_first_instruction_asks_depends_on_all_threads_together)
{
    replay::host().set_context(1, {.lpid = 1});
    capture({.tid = 0});
    replay::host().set_context(1, {.lpid = 2});
    EXPECT_EQ(capture({.tid = 1}).partition_change, 1u);
}

TEST_F(Commit, partition_change_precedes_the_record_of_its_instruction)
{
    replay::host().set_context(0, {.lpid = 1});
    m.commit_run(1);
    replay::host().set_context(0, {.lpid = 2});
    m.commit_run(3);
    EXPECT_EQ(m.order(), "HRHRR");
    EXPECT_EQ(value_of(m.headers().at(1).header.lpid), 2u);
}

// ---- filtered instructions ----------------------------------------------------------------------------------

TEST_F(Commit, filtered_instruction_is_neither_counted_nor_linked_nor_written)
{
    m.commit({.seq = 1, .pc = 0x1000, .op = 1});
    const Node *before = last_commit[0];
    commit_filtered({.seq = 2, .pc = 0x5000, .op = 2, .vmx = true, .vsx = true});
    EXPECT_EQ(last_commit[0], before);
    EXPECT_EQ(root[0], before);
    EXPECT_EQ(before->left, nullptr);
    EXPECT_EQ(before->nextPC, 0x1004u);
    EXPECT_EQ(instr_commited, 1u);
    EXPECT_EQ(total_instr_commited, 1u);
    EXPECT_EQ(VMX_instr_commited, 0u);
    m.commit({.seq = 3, .pc = 0x1004, .op = 3});
    m.stop();
    EXPECT_EQ(m.instruction_words(), (Words{1, 3}));
}

TEST_F(Commit, filtered_instruction_consumes_the_partition_change)
{
    replay::host().set_context(0, {.lpid = 1});
    capture({});
    replay::host().set_context(0, {.lpid = 2});
    commit_filtered({.seq = ++seq, .pc = 0x5000});
    EXPECT_EQ(capture({}).partition_change, 0u);
}

TEST_F(Commit, filtered_first_instruction_leaves_the_thread_without_a_first_one)
{
    commit_filtered({.seq = 1, .pc = 0x1000});
    EXPECT_EQ(root[0], nullptr);
    EXPECT_EQ(instr_commited, 0u);
}

TEST_F(Commit, filtered_piece_of_a_cracked_instruction_is_not_kept)
{
    replay::host().set_context(0, {.cycle_mode = true});
    commit_filtered({.seq = 1, .pc = 0x1000, .npc = 0x1000});
    EXPECT_EQ(crack_inst[0], nullptr);
}

// ---- counters -----------------------------------------------------------------------------------------------

TEST_F(Commit, counts_all_instructions_and_the_vector_ones)
{
    const uint64_t vsx_before = VSX_instr_commited, total_vsx_before = total_VSX_instr_commited;
    capture({.vmx = true});
    capture({.vsx = true});
    capture({.tid = 3, .vmx = true, .vsx = true});
    capture({});
    EXPECT_EQ(instr_commited, 4u);
    EXPECT_EQ(total_instr_commited, 4u);
    EXPECT_EQ(VMX_instr_commited, 2u);
    EXPECT_EQ(total_VMX_instr_commited, 2u);
    EXPECT_EQ(VSX_instr_commited - vsx_before, 2u);
    EXPECT_EQ(total_VSX_instr_commited - total_vsx_before, 2u);
}

TEST_F(Commit, vsx_counters_are_reset_neither_by_a_report_nor_by_a_new_session)
{
    capture({.vmx = true, .vsx = true});
    const uint64_t vsx = VSX_instr_commited, total_vsx = total_VSX_instr_commited;
    m.stop(); // reports
    EXPECT_EQ(VSX_instr_commited, vsx);
    EXPECT_EQ(VMX_instr_commited, 0u);
    m.start();
    EXPECT_EQ(VSX_instr_commited, vsx);
    EXPECT_EQ(total_VSX_instr_commited, total_vsx);
    EXPECT_EQ(total_VMX_instr_commited, 0u);
}

TEST_F(Commit, pieces_of_a_cracked_instruction_count_one_each)
{
    replay::host().set_context(0, {.cycle_mode = true});
    m.commit({.seq = 1, .pc = 0x1000, .npc = 0x1000});
    m.commit({.seq = 2, .pc = 0x1000, .npc = 0x1004});
    EXPECT_EQ(total_instr_commited, 2u);
}

namespace
{

// A session of many instructions: nothing of them is kept.
struct Long_Session {
    Traced_Machine m;
    size_t reports = 0;

    Long_Session()
    {
        m.start();
        replay::host().set_query_observer({});
        replay::host().set_console([this](const replay::Console_Message &message) {
            reports += message.channel == replay::Channel::print ? 1 : 0;
        });
        recording_writer().fail_record(1, true);
    }
    void commit(uint64_t count)
    {
        for (uint64_t i = 0; i < count; ++i) {
            replay::Instruction instruction{.seq = ++seq, .pc = 0x1000 + 4 * seq, .npc = 0x1004 + 4 * seq};
            Event_Instruction_Commit(replay::handle_of(instruction));
        }
    }
    uint64_t seq = 0;
};

} // namespace

TEST(long_session, after_262144_instructions_the_next_one_carries_no_partition_change_and_the_second_does)
{
    Long_Session session;
    replay::host().set_context(0, {.lpid = 1});
    session.commit(262143);
    EXPECT_EQ(instr_commited, 262143u);
    EXPECT_EQ(session.reports, 0u);
    session.commit(1);
    EXPECT_EQ(session.reports, 1u);
    EXPECT_EQ(instr_commited, 0u);
    EXPECT_EQ(total_instr_commited, 262144u);
    replay::host().set_context(0, {.lpid = 2});
    session.commit(1);
    EXPECT_EQ(last_commit[0]->partition_change, 0u);
    session.commit(1);
    EXPECT_EQ(last_commit[0]->partition_change, 1u);
    session.commit(1);
    EXPECT_EQ(last_commit[0]->partition_change, 0u);
}

TEST(long_session, of_262144_instructions_reports_once_and_not_at_stop)
{
    Long_Session session;
    session.commit(262144);
    EXPECT_EQ(session.reports, 1u);
    session.m.stop();
    EXPECT_EQ(session.reports, 2u) << "the line that says that tracing stops";
}

// ---- cracked instructions -----------------------------------------------------------------------------------

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

std::vector<std::pair<int, uint64_t>> gpr_pairs(const Plugin_Inst_Registers &registers)
{
    std::vector<std::pair<int, uint64_t>> pairs;
    for (int i = 0; i < registers.gpr_num; ++i)
        pairs.emplace_back(registers.gpr_index[i], registers.gpr_value[i]);
    return pairs;
}
using Pairs = std::vector<std::pair<int, uint64_t>>;

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

// ---- instructions captured before execution -----------------------------------------------------------------

namespace
{

Node *captured_before(uint64_t seq, uint64_t value)
{
    Node *node = heap_node(seq);
    node->reg_in.gpr_num = 1;
    node->reg_in.gpr_index[0] = 3;
    node->reg_in.gpr_value[0] = value;
    return node;
}

} // namespace

TEST_F(Commit, input_registers_of_the_same_seq_captured_before_execution_replace_the_own_ones)
{
    pre_execution[0] = insert_left(captured_before(5, 50), captured_before(6, 60));
    replay::Instruction instruction{.seq = 5, .pc = 0x1000};
    instruction.in.gpr_num = 2;
    instruction.in.fpr_num = 1;
    m.commit(instruction);
    EXPECT_EQ(gpr_pairs(last_commit[0]->reg_in), (Pairs{{3, 50}}));
    EXPECT_EQ(last_commit[0]->reg_in.fpr_num, 0) << "the whole set is replaced";
    ASSERT_NE(pre_execution[0], nullptr);
    EXPECT_EQ(pre_execution[0]->seq, 6u);
}

TEST_F(Commit, older_ones_captured_before_execution_are_dropped_and_younger_ones_kept)
{
    pre_execution[0] =
        insert_left(insert_left(captured_before(3, 30), captured_before(4, 40)), captured_before(9, 90));
    m.commit({.seq = 6, .pc = 0x1000});
    EXPECT_EQ(last_commit[0]->reg_in.gpr_num, 0);
    ASSERT_NE(pre_execution[0], nullptr);
    EXPECT_EQ(pre_execution[0]->seq, 9u);
    m.commit({.seq = 10, .pc = 0x1004});
    EXPECT_EQ(pre_execution[0], nullptr);
}

// ---- one commit late ----------------------------------------------------------------------------------------

TEST_F(Commit, first_instruction_of_a_thread_writes_nothing_and_the_second_writes_the_first)
{
    m.commit({.seq = 1, .pc = 0x1000, .op = 1});
    EXPECT_EQ(m.order(), "");
    EXPECT_EQ(root[0], last_commit[0]);
    m.commit({.seq = 2, .pc = 0x1004, .op = 2});
    EXPECT_EQ(m.order(), "HR");
    EXPECT_EQ(m.instruction_words(), Words{1});
    EXPECT_EQ(root[0], last_commit[0]);
    EXPECT_EQ(root[0]->seq, 2u);
    EXPECT_EQ(root[0]->left, nullptr);
}

TEST_F(Commit, each_further_instruction_writes_one_and_stop_writes_the_last)
{
    m.commit_run(5);
    EXPECT_EQ(m.records().size(), 4u);
    m.stop();
    EXPECT_EQ(m.records().size(), 5u);
    EXPECT_EQ(m.order(), "HRRRRR");
}

TEST_F(Commit, threads_are_traced_independently)
{
    m.commit({.tid = 0, .seq = 1, .pc = 0x1000, .op = 1});
    m.commit({.tid = 3, .seq = 1, .pc = 0x2000, .op = 2});
    m.commit({.tid = 0, .seq = 2, .pc = 0x1004, .op = 3});
    EXPECT_EQ(m.instruction_words(0), Words{1});
    EXPECT_EQ(m.instruction_words(3), Words{});
    m.stop();
    EXPECT_EQ(m.instruction_words(0), (Words{1, 3}));
    EXPECT_EQ(m.instruction_words(3), Words{2});
    EXPECT_EQ(m.instruction_words(1), Words{});
}

// ---- next address -------------------------------------------------------------------------------------------

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
