// Pausing and resuming threads: what is written, what is dropped, when a switch waits, and the assertions.
#include "assertion_report.h"
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string PAUSE_LINE = "*** PAUSE collection for thread 0";
const std::string RESUME_LINE = "*** RESUME collection for thread 0";

// A flushed instruction as a flush source would make it. A list that is dropped with a pause does not free its
// nodes, so the test keeps them in sight.
Node *flushed_node(uint64_t seq, uint64_t terminated_seq)
{
    static std::vector<Node *> kept;
    auto *node = static_cast<Node *>(calloc(1, sizeof(Node)));
    node->seq = seq;
    node->terminated_seq = terminated_seq;
    node->info.branch = node->info.taken = '?';
    kept.push_back(node);
    return node;
}

// Two committed instructions and, in the flush list, one that waits for the commit of seq 1000.
void commit_two_with_a_waiting_flushed_node(Traced_Machine &m)
{
    m.commit({.seq = 1, .pc = 0x1000, .op = 0x11});
    flush[0] = flushed_node(1000, 1);
    m.commit({.seq = 2, .pc = 0x1004, .op = 0x22});
    ASSERT_EQ(flush_list[0]->list_index, 1);
    ASSERT_EQ(m.order(), "");
}

std::string flushed_text(const Traced_Machine &m)
{
    std::fflush(qfile_in_text[0]);
    return m.file("text0");
}

// All of the thread's tables but its list are as a session makes them.
void expect_nothing_captured(int tid)
{
    EXPECT_EQ(hdr_write[tid], 0u);
    EXPECT_EQ(root[tid], nullptr);
    EXPECT_EQ(last_commit[tid], nullptr);
    EXPECT_EQ(flush_seq[tid], 0u);
    EXPECT_EQ(flush[tid], nullptr);
    EXPECT_EQ(pre_execution[tid], nullptr);
    EXPECT_EQ(crack_inst[tid], nullptr);
}

// For death tests: runs the operation as if the plugin had lost one of the tables that live until unload.
void without_paused_table(const std::function<void()> &operation)
{
    paused = nullptr;
    operation();
}

void without_action_table(const std::function<void()> &operation)
{
    commit_action = nullptr;
    operation();
}

// ---- at once ----------------------------------------------------------------------------------------------

TEST(pause, with_an_empty_flush_list_takes_effect_at_once_and_writes_its_line)
{
    Traced_Machine m;
    m.start_with_text();
    m.signal({"pause", "cpu", "0", "thread", "0"});
    EXPECT_EQ(paused[0], 1u);
    EXPECT_EQ(commit_action[0], nullptr);
    EXPECT_EQ(flushed_text(m), PAUSE_LINE + "\n");
}

TEST(pause, writes_what_was_pending)
{
    Traced_Machine m;
    m.start();
    m.commit_run(2);
    EXPECT_EQ(m.order(), "HR");
    m.signal({"pause"});
    EXPECT_EQ(m.order(), "HRR");
    EXPECT_EQ(m.records()[1].header.control.fld.termination_present, 0u); // nothing follows the last one
}

TEST(pause, line_stands_before_the_pending_records)
{
    Traced_Machine m;
    m.start_with_text();
    m.commit_run(2);
    m.signal({"pause"});
    m.stop();
    const auto lines = m.text_lines();
    ASSERT_EQ(lines.size(), 5u); // two header lines, a record, the pause, the record that was pending
    EXPECT_EQ(lines[3], PAUSE_LINE);
}

TEST(pause, drops_the_threads_capture_state)
{
    Traced_Machine m(1, 2);
    m.start();
    m.commit_run(2, 0);
    m.commit_run(2, 1);
    m.signal({"pause", "cpu", "0", "thread", "0"});
    expect_nothing_captured(0);
    EXPECT_EQ(flush_list[0], nullptr);
    // the other thread is not touched
    EXPECT_EQ(hdr_write[1], 1u);
    EXPECT_NE(root[1], nullptr);
    EXPECT_NE(flush_list[1], nullptr);
    EXPECT_EQ(paused[1], 0u);
}

TEST(pause, frees_waiting_pieces_and_flushed_and_pre_execution_nodes)
{
    Traced_Machine m;
    m.start();
    m.commit_run(1);
    flush[0] = static_cast<Node *>(calloc(1, sizeof(Node)));
    pre_execution[0] = static_cast<Node *>(calloc(1, sizeof(Node)));
    pre_execution[0]->left = static_cast<Node *>(calloc(1, sizeof(Node)));
    crack_inst[0] = static_cast<Node *>(calloc(1, sizeof(Node)));
    mark_paused(0);
    EXPECT_EQ(flush[0], nullptr);
    EXPECT_EQ(pre_execution[0], nullptr);
    EXPECT_EQ(crack_inst[0], nullptr);
    EXPECT_EQ(m.order(), "HR");
}

TEST(pause, instructions_of_a_paused_thread_are_neither_captured_nor_counted)
{
    Traced_Machine m(1, 2);
    m.start();
    m.signal({"pause", "cpu", "0", "thread", "0"});
    m.forget_queries();
    m.commit_run(3, 0);
    EXPECT_EQ(instr_commited, 0u);
    EXPECT_EQ(total_instr_commited, 0u);
    EXPECT_THAT(m.queries(), testing::Each("Get_Inst_ThreadId"));
    m.commit_run(3, 1);
    EXPECT_EQ(instr_commited, 3u);
    m.stop();
    EXPECT_EQ(m.order(0), "");
    EXPECT_EQ(m.order(1), "HRRR");
}

TEST(pause, of_a_paused_thread_only_writes_the_line_again)
{
    Traced_Machine m(1, 2);
    m.start_with_text();
    m.commit_run(2, 0);
    m.signal({"pause", "cpu", "0", "thread", "0"});
    const std::string before = flushed_text(m);
    m.signal({"pause"}); // thread 1 still runs: every thread is paused
    EXPECT_EQ(flushed_text(m), before + PAUSE_LINE + "\n");
    EXPECT_EQ(m.order(0), "HRR");
    EXPECT_EQ(paused[0], 1u);
}

TEST(pause, without_a_text_trace_writes_no_line)
{
    Traced_Machine m;
    m.start();
    m.signal({"pause"});
    EXPECT_EQ(paused[0], 1u);
    EXPECT_TRUE(std::filesystem::is_empty(m.folder()));
    EXPECT_THAT(m.warnings(), IsEmpty());
}

TEST(pause, marking_without_a_session_touches_only_the_mark)
{
    Traced_Machine m;
    mark_paused(0);
    EXPECT_EQ(paused[0], 1u);
    EXPECT_EQ(root, nullptr);
    EXPECT_EQ(flush_list, nullptr);
    EXPECT_THAT(recording_writer().calls(), IsEmpty());
}

TEST(pause, all_collection_switches_every_thread)
{
    Traced_Machine m(2, 2);
    m.start();
    pause_all_collection();
    EXPECT_EQ(are_all_paused(), 1u);
    resume_all_collection();
    EXPECT_EQ(are_any_paused(), 0u);
}

// ---- resume -----------------------------------------------------------------------------------------------

TEST(resume, takes_effect_at_once_and_writes_its_line)
{
    Traced_Machine m;
    m.start_with_text();
    m.signal({"pause"});
    m.signal({"resume"});
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(commit_action[0], nullptr);
    EXPECT_EQ(flushed_text(m), PAUSE_LINE + "\n" + RESUME_LINE + "\n");
}

TEST(resume, gives_the_thread_fresh_capture_state)
{
    Traced_Machine m;
    m.start();
    m.commit_run(2);
    m.signal({"pause"});
    m.signal({"resume"});
    expect_nothing_captured(0);
    ASSERT_NE(flush_list[0], nullptr);
    EXPECT_EQ(flush_list[0]->list_index, 0);
    EXPECT_EQ(flush_list[0]->list_size, DEFAULT_LIST_SIZE);
}

TEST(resume, is_followed_by_a_fresh_header_in_the_binary_trace)
{
    Traced_Machine m;
    m.start();
    m.commit({.seq = 1, .pc = 0x1000, .op = 0x11});
    m.commit({.seq = 2, .pc = 0x1004, .op = 0x22});
    m.signal({"pause"});
    m.commit({.seq = 3, .pc = 0x1008, .op = 0x33}); // the gap
    m.signal({"resume"});
    m.commit({.seq = 4, .pc = 0x2000, .op = 0x44});
    m.commit({.seq = 5, .pc = 0x2004, .op = 0x55});
    m.stop();
    EXPECT_EQ(m.order(), "HRRHRR");
    EXPECT_THAT(m.instruction_words(), ElementsAre(0x11u, 0x22u, 0x44u, 0x55u));
    ASSERT_EQ(m.headers().size(), 2u);
    EXPECT_EQ(value_of(m.headers()[1].header.iar), 0x2000u);
    EXPECT_EQ(m.headers()[1].header.control.comment_present, 1u);
    EXPECT_NE(m.headers()[1].comment, "");
    EXPECT_EQ(m.records()[2].header.control.fld.processor_present, 1u);
    EXPECT_EQ(m.records()[3].header.control.fld.processor_present, 0u);
}

TEST(resume, is_followed_by_the_header_lines_in_the_text_trace)
{
    Traced_Machine m;
    m.start_with_text();
    m.commit_run(1);
    m.signal({"pause"});
    m.signal({"resume"});
    m.commit_run(1);
    m.stop();
    const auto lines = m.text_lines();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], PAUSE_LINE);
    EXPECT_EQ(lines[1], "*** FILE HEADER INSERTED *** ");
    EXPECT_THAT(lines[2], HasSubstr("KelvoVer:"));
    EXPECT_EQ(lines[4], RESUME_LINE);
    EXPECT_EQ(lines[5], "*** FILE HEADER INSERTED *** ");
    EXPECT_EQ(lines[6], lines[2]);
}

TEST(resume, of_a_thread_whose_tables_are_gone_makes_them_again)
{
    Traced_Machine m;
    m.start();
    m.signal({"pause"});
    free(hdr_write);
    hdr_write = nullptr;
    free(flush_seq);
    flush_seq = nullptr;
    m.signal({"resume"});
    EXPECT_NE(hdr_write, nullptr);
    EXPECT_NE(flush_seq, nullptr);
    m.commit_run(2);
    m.stop();
    EXPECT_EQ(m.order(), "HRR");
}

// ---- across sessions --------------------------------------------------------------------------------------

TEST(pause, survives_a_stop_and_the_next_start)
{
    Traced_Machine m;
    m.start();
    m.signal({"pause"});
    m.stop();
    EXPECT_EQ(paused[0], 1u);
    m.start();
    m.commit_run(3);
    EXPECT_EQ(root[0], nullptr);
    m.stop();
    EXPECT_EQ(m.order(), "");
}

TEST(resume, of_a_thread_paused_in_an_earlier_session_captures_again_and_loses_no_memory)
{
    Traced_Machine m(1, 2);
    m.start();
    m.signal({"pause"});
    m.stop();
    m.start(); // gives every thread, the paused ones too, a new list
    m.signal({"resume"});
    m.commit_run(2, 0);
    m.commit_run(2, 1);
    m.stop();
    EXPECT_EQ(m.order(0), "HRR");
    EXPECT_EQ(m.order(1), "HRR");
}

TEST(pause, of_a_thread_paused_in_an_earlier_session_loses_no_memory)
{
    Traced_Machine m(1, 2);
    m.start();
    m.signal({"pause", "cpu", "0", "thread", "0"});
    m.stop();
    m.start();
    m.signal({"pause"});
    EXPECT_EQ(flush_list[0], nullptr);
    m.stop();
    m.start();
    m.stop();
    EXPECT_EQ(paused[0], 1u);
}

// ---- deferred to the next commit --------------------------------------------------------------------------

TEST(pause, waits_while_flushed_instructions_wait)
{
    Traced_Machine m;
    m.start_with_text();
    commit_two_with_a_waiting_flushed_node(m);
    m.signal({"pause", "cpu", "0", "thread", "0"});
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(commit_action[0], mark_paused);
    EXPECT_EQ(flushed_text(m), "");
    EXPECT_EQ(m.order(), "");
}

TEST(pause, that_waited_happens_at_the_next_commit_whose_instruction_is_not_captured)
{
    Traced_Machine m;
    m.start_with_text();
    commit_two_with_a_waiting_flushed_node(m);
    m.signal({"pause", "cpu", "0", "thread", "0"});
    m.commit({.seq = 3, .pc = 0x1008, .op = 0x33});
    EXPECT_EQ(paused[0], 1u);
    EXPECT_EQ(commit_action[0], nullptr);
    EXPECT_EQ(instr_commited, 2u);
    EXPECT_THAT(m.instruction_words(), ElementsAre(0x11u, 0x22u));
    EXPECT_EQ(flush_list[0], nullptr);
    EXPECT_THAT(flushed_text(m), HasSubstr(PAUSE_LINE));
    m.stop();
    EXPECT_EQ(m.order(), "HRR");
}

TEST(pause, waits_only_for_a_commit_of_its_own_thread)
{
    Traced_Machine m(1, 2);
    m.start();
    commit_two_with_a_waiting_flushed_node(m);
    m.signal({"pause"});
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(paused[1], 1u);
    m.commit_run(1, 1);
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(commit_action[0], mark_paused);
    m.commit({.seq = 3, .pc = 0x1008});
    EXPECT_EQ(paused[0], 1u);
}

TEST(pause, that_waits_survives_a_stop_and_happens_at_the_first_commit_of_the_next_session)
{
    Traced_Machine m;
    m.start();
    commit_two_with_a_waiting_flushed_node(m);
    m.signal({"pause"});
    m.stop();
    EXPECT_EQ(commit_action[0], mark_paused);
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(m.order(), "HRR"); // both committed instructions were pending
    m.start();
    EXPECT_EQ(commit_action[0], mark_paused);
    m.commit({.seq = 3, .pc = 0x1008});
    EXPECT_EQ(paused[0], 1u);
    EXPECT_EQ(commit_action[0], nullptr);
    m.stop();
    EXPECT_EQ(m.order(), "HRR");
}

TEST(resume, while_a_pause_waits_does_nothing)
{
    Traced_Machine m;
    m.start();
    commit_two_with_a_waiting_flushed_node(m);
    m.signal({"pause"});
    m.signal({"resume"});
    m.signal({"resume", "cpu", "0"});
    m.signal({"resume", "cpu", "0", "thread", "0"});
    EXPECT_EQ(commit_action[0], mark_paused);
    m.commit({.seq = 3, .pc = 0x1008});
    EXPECT_EQ(paused[0], 1u);
}

TEST(resume, that_waited_already_captures_the_instruction_whose_commit_performs_it)
{
    Traced_Machine m;
    m.start();
    m.signal({"pause"});
    m.stop();
    m.start();
    flush_list[0]->list[0] = flushed_node(1000, 1); // the new session's list of the paused thread
    flush_list[0]->list_index = 1;
    m.signal({"resume"});
    EXPECT_EQ(paused[0], 1u);
    EXPECT_EQ(commit_action[0], mark_resumed);
    m.commit({.seq = 1, .pc = 0x1000, .op = 0x11});
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(commit_action[0], nullptr);
    EXPECT_NE(root[0], nullptr);
    m.stop();
    EXPECT_THAT(m.instruction_words(), ElementsAre(0x11u));
}

TEST(pause, second_request_while_one_waits_is_a_broken_invariant)
{
    Traced_Machine m;
    m.start();
    commit_two_with_a_waiting_flushed_node(m);
    m.signal({"pause"});
    const std::string report = assertion_report("wait_for_commit", NOTHING_DEFERRED);
    EXPECT_DEATH(m.signal({"pause"}), report);
    EXPECT_DEATH(m.signal({"pause", "cpu", "0"}), report);
    EXPECT_DEATH(m.signal({"pause", "cpu", "0", "thread", "0"}), report);
    EXPECT_DEATH(resume_thread_collection(0), report);
}

// ---- questions --------------------------------------------------------------------------------------------

TEST(pause, questions_about_all_and_any_threads)
{
    Traced_Machine m(1, 2);
    EXPECT_EQ(are_all_paused(), 0u);
    EXPECT_EQ(are_any_paused(), 0u);
    paused[1] = 1;
    EXPECT_EQ(is_thread_paused(0), 0u);
    EXPECT_NE(is_thread_paused(1), 0u);
    EXPECT_EQ(are_all_paused(), 0u);
    EXPECT_EQ(are_any_paused(), 1u);
    paused[0] = 1;
    EXPECT_EQ(are_all_paused(), 1u);
    EXPECT_EQ(are_any_paused(), 1u);
}

TEST(pause, machine_with_no_threads_counts_as_all_paused_and_none_paused)
{
    Traced_Machine m(1, 1);
    for (const int count : {0, -1}) {
        thread_num = count;
        EXPECT_EQ(are_all_paused(), 1u);
        EXPECT_EQ(are_any_paused(), 0u);
    }
    thread_num = 1;
}

// ---- broken invariants ------------------------------------------------------------------------------------

TEST(pause, missing_table_of_paused_threads_is_a_broken_invariant)
{
    Traced_Machine m;
    EXPECT_DEATH(without_paused_table([] { is_thread_paused(0); }),
                 assertion_report("is_thread_paused", PAUSED_EXISTS));
    EXPECT_DEATH(without_paused_table(are_all_paused),
                 assertion_report("are_all_paused|is_thread_paused", PAUSED_EXISTS));
    EXPECT_DEATH(without_paused_table(are_any_paused),
                 assertion_report("are_any_paused|is_thread_paused", PAUSED_EXISTS));
}

TEST(pause, commands_and_events_assert_the_table_of_paused_threads)
{
    Traced_Machine m;
    m.start();
    const std::string report = assertion_report("[a-z_]+", PAUSED_EXISTS);
    for (const std::string word : {"pause", "resume"}) {
        EXPECT_DEATH(without_paused_table([&] { m.signal({word}); }), report);
        EXPECT_DEATH(without_paused_table([&] { m.signal({word, "cpu", "0"}); }), report);
        EXPECT_DEATH(without_paused_table([&] { m.signal({word, "cpu", "0", "thread", "0"}); }), report);
    }
    EXPECT_DEATH(without_paused_table([&] { m.commit_run(1); }),
                 assertion_report("is_thread_paused", PAUSED_EXISTS));
    // The host is asked nothing before: a query about no instruction would not come back.
    EXPECT_DEATH(without_paused_table([] { Event_Instruction_PreExecution(nullptr); }),
                 assertion_report("Event_Instruction_PreExecution", PAUSED_EXISTS));
}

TEST(pause, missing_table_of_deferred_actions_is_a_broken_invariant)
{
    Traced_Machine m;
    m.start();
    EXPECT_DEATH(without_action_table([] { wait_for_commit(0, mark_paused); }),
                 assertion_report("wait_for_commit", COMMIT_ACTION_EXISTS));
    EXPECT_DEATH(without_action_table([] { act_on_commit(0); }),
                 assertion_report("act_on_commit", COMMIT_ACTION_EXISTS));
    EXPECT_DEATH(without_action_table([&] { m.commit_run(1); }),
                 assertion_report("act_on_commit", COMMIT_ACTION_EXISTS));
    EXPECT_DEATH(without_action_table([&] { m.signal({"pause"}); }),
                 assertion_report("wait_for_commit", COMMIT_ACTION_EXISTS));
}

TEST(pause, thread_index_at_or_above_the_count_is_a_broken_invariant)
{
    Traced_Machine m(2, 2);
    m.start();
    for (const int tid : {4, 5, 2147483647}) {
        EXPECT_DEATH(pause_thread_collection(tid), assertion_report("pause_thread_collection", TID_IN_RANGE));
        EXPECT_DEATH(resume_thread_collection(tid), assertion_report("resume_thread_collection", TID_IN_RANGE));
        EXPECT_DEATH(wait_for_commit(tid, mark_paused), assertion_report("wait_for_commit", TID_IN_RANGE));
        EXPECT_DEATH(act_on_commit(tid), assertion_report("act_on_commit", TID_IN_RANGE));
        EXPECT_DEATH(mark_paused(tid), assertion_report("mark_paused", TID_IN_RANGE));
        EXPECT_DEATH(mark_resumed(tid), assertion_report("mark_resumed", TID_IN_RANGE));
    }
}

TEST(pause, commit_event_of_a_thread_outside_the_machine_is_a_broken_invariant)
{
    Traced_Machine m(1, 2);
    m.start();
    replay::Instruction instruction;
    instruction.tid = 2;
    EXPECT_DEATH(Event_Instruction_Commit(replay::handle_of(instruction)),
                 assertion_report("act_on_commit", TID_IN_RANGE));
}

TEST(pause, missing_table_is_reported_before_the_thread_index)
{
    Traced_Machine m;
    EXPECT_DEATH(without_action_table([] { act_on_commit(1); }),
                 assertion_report("act_on_commit", COMMIT_ACTION_EXISTS));
    EXPECT_DEATH(without_action_table([] { wait_for_commit(1, mark_paused); }),
                 assertion_report("wait_for_commit", COMMIT_ACTION_EXISTS));
}

TEST(pause, assertion_report_begins_with_the_program_and_the_source_file)
{
    Traced_Machine m;
    EXPECT_DEATH(mark_paused(1), "^pause_plugin_test: .*plugin_qtbin\\.cpp:[0-9]+: mark_paused: Assertion `tid < "
                                 "processor_num \\* thread_num' failed\\.");
}

} // namespace
