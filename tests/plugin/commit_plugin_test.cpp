// The commit event: what precedes capture, what is counted and left out, and when records are written.
#include "commit_fixture.h"

#include "assertion_report.h"

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
