// Loading and unloading: what plugin_init learns, which tables outlive a session, what plugin_quit leaves.
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned REMOVE_THREAD0 = PO_QTRACE_ENABLE_REMOVING_OF_PERMANENT_THREAD0_ID_FROM_TRACE_FILE;
constexpr unsigned APPEND_THREAD0 = PO_QTRACE_ENABLE_APPENDING_OF_THREAD_ID_TO_TRACE_FILE;

replay::Machine_Shape shape(uint32_t processors, uint32_t threads, std::vector<unsigned> options = {})
{
    return {
        .processors = processors, .threads = threads, .version = 3, .memory = 4096, .options = std::move(options)};
}

void *load()
{
    return plugin_init(0, nullptr, replay::host().client_data());
}

void marker_action(int)
{
}

TEST(lifetime, init_returns_the_event_table)
{
    Traced_Machine m(2, 4, false);
    void *table = load();
    EXPECT_EQ(table, static_cast<void *>(EventNames));
    EXPECT_STREQ(EventNames[0], "Event_Instruction_PreExecution");
    EXPECT_STREQ(EventNames[1], "Event_Instruction_Commit");
    EXPECT_STREQ(EventNames[2], "Event_PTE_Access");
    EXPECT_EQ(EventNames[3], nullptr);
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST(lifetime, event_table_does_not_name_the_radix_pte_handler)
{
    Traced_Machine m;
    for (const char *name : {EventNames[0], EventNames[1], EventNames[2]})
        EXPECT_STRNE(name, "Event_RTPTE_Access");
}

TEST(lifetime, init_learns_the_shape_of_the_machine)
{
    Traced_Machine m(3, 4);
    EXPECT_EQ(processor_num, 3);
    EXPECT_EQ(thread_num, 4);
}

TEST(lifetime, init_keeps_the_hosts_objects)
{
    Traced_Machine m;
    void *client = replay::host().client_data();
    EXPECT_EQ(handle, client);
    EXPECT_EQ(mcm, select_mcm(client));
    EXPECT_EQ(M, select_machine(client));
    EXPECT_EQ(ps, select_processor(client));
    EXPECT_EQ(ts, nullptr);
}

TEST(lifetime, init_makes_zeroed_pause_tables)
{
    Traced_Machine m(2, 2);
    ASSERT_NE(paused, nullptr);
    ASSERT_NE(commit_action, nullptr);
    for (int tid = 0; tid < 4; ++tid) {
        EXPECT_EQ(paused[tid], 0u);
        EXPECT_EQ(commit_action[tid], nullptr);
    }
}

TEST(lifetime, init_opens_no_session)
{
    Traced_Machine m;
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(root, nullptr);
    EXPECT_EQ(hdr_write, nullptr);
    EXPECT_EQ(qfile_in_text, nullptr);
    EXPECT_EQ(qfile_in_pte, nullptr);
    EXPECT_THAT(recording_writer().calls(), IsEmpty());
}

TEST(lifetime, unknown_processor_class_is_looked_up_and_cached)
{
    Traced_Machine m(2, 1, false);
    Machine *machine = replay::host().machine();
    machine->processor_major = PROCESSOR_MAJOR_UNKNOWN;
    ASSERT_NE(load(), nullptr);
    EXPECT_EQ(machine->processor_major, DeviceMgr__GetDeviceMajorNum(machine->device_mgr, "Processor"));
    EXPECT_EQ(processor_num, 2);
}

TEST(lifetime, cached_processor_class_is_used_as_it_is)
{
    Traced_Machine m(2, 1, false);
    Machine *machine = replay::host().machine();
    const uint32_t other = DeviceMgr__GetDeviceMajorNum(machine->device_mgr, "Processor") + 1;
    ASSERT_EQ(DeviceMgr__GetDeviceCount(machine->device_mgr, other), 0u);
    machine->processor_major = other;
    EXPECT_EQ(load(), nullptr);
    EXPECT_EQ(machine->processor_major, other);
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Number of processors SHOULD NOT BE 0! Plugin load fails."));
}

TEST(lifetime, machine_without_processors_is_refused)
{
    Traced_Machine m(0, 2, false);
    EXPECT_EQ(load(), nullptr);
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Number of processors SHOULD NOT BE 0! Plugin load fails."));
    ASSERT_EQ(m.messages().size(), 1u);
    EXPECT_EQ(m.messages()[0].level, 2);
    EXPECT_EQ(paused, nullptr);
    EXPECT_EQ(commit_action, nullptr);
}

TEST(lifetime, machine_without_threads_is_refused)
{
    Traced_Machine m(2, 0, false);
    EXPECT_EQ(load(), nullptr);
    EXPECT_THAT(m.warnings(),
                ElementsAre("QTRACE: Number of threads per processor SHOULD NOT BE 0! Plugin load fails."));
    ASSERT_EQ(m.messages().size(), 1u);
    EXPECT_EQ(m.messages()[0].level, 2);
    EXPECT_EQ(paused, nullptr);
    EXPECT_EQ(commit_action, nullptr);
}

TEST(lifetime, processors_are_checked_before_threads)
{
    Traced_Machine m(0, 0, false);
    EXPECT_EQ(load(), nullptr);
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Number of processors SHOULD NOT BE 0! Plugin load fails."));
}

TEST(lifetime, each_thread_id_flag_follows_its_own_processor_option)
{
    for (const bool remove : {false, true})
        for (const bool append : {false, true}) {
            std::vector<unsigned> options;
            if (remove)
                options.push_back(REMOVE_THREAD0);
            if (append)
                options.push_back(APPEND_THREAD0);
            Traced_Machine m(shape(1, 1, options));
            EXPECT_EQ(enable_qt_remove_permanent_thread0_id_from_trace_file, remove ? 1u : 0u);
            EXPECT_EQ(enable_qt_appending_of_thread0_id_to_trace_file, append ? 1u : 0u);
        }
}

TEST(lifetime, any_non_zero_option_sets_its_flag_to_one)
{
    Traced_Machine m(1, 1, false);
    replay::host().processor()->options.processor_options[REMOVE_THREAD0] = 0x80;
    replay::host().processor()->options.processor_options[APPEND_THREAD0] = 0x100;
    ASSERT_NE(load(), nullptr);
    EXPECT_EQ(enable_qt_remove_permanent_thread0_id_from_trace_file, 1u);
    EXPECT_EQ(enable_qt_appending_of_thread0_id_to_trace_file, 1u);
}

TEST(lifetime, second_init_reads_the_options_again)
{
    Traced_Machine m(shape(1, 1, {REMOVE_THREAD0, APPEND_THREAD0}));
    replay::host().processor()->options.processor_options[REMOVE_THREAD0] = 0;
    replay::host().processor()->options.processor_options[APPEND_THREAD0] = 0;
    load();
    EXPECT_EQ(enable_qt_remove_permanent_thread0_id_from_trace_file, 0u);
    EXPECT_EQ(enable_qt_appending_of_thread0_id_to_trace_file, 0u);
}

TEST(lifetime, second_init_returns_the_same_table_and_keeps_the_pause_tables)
{
    Traced_Machine m(1, 2);
    const boolean *paused_before = paused;
    const Commit_Callback *action_before = commit_action;
    paused[1] = 1;
    commit_action[0] = marker_action;
    EXPECT_EQ(load(), static_cast<void *>(EventNames));
    EXPECT_EQ(paused, paused_before);
    EXPECT_EQ(commit_action, action_before);
    EXPECT_EQ(paused[0], 0u);
    EXPECT_EQ(paused[1], 1u);
    EXPECT_EQ(commit_action[0], marker_action);
    EXPECT_EQ(commit_action[1], nullptr);
}

TEST(lifetime, second_init_leaves_an_open_session_alone)
{
    Traced_Machine m;
    m.start();
    m.commit_run(2);
    load();
    EXPECT_EQ(init, 1u);
    m.commit_run(1);
    m.stop();
    EXPECT_EQ(m.order(), "HRRR");
}

TEST(lifetime, quit_in_a_session_writes_what_is_pending_and_closes_quietly)
{
    Traced_Machine m(1, 2);
    m.start_with_everything();
    m.commit_run(3, 0);
    m.commit_run(1, 1);
    m.forget_output();
    plugin_quit();
    EXPECT_EQ(m.order(0), "HRRR");
    EXPECT_EQ(m.order(1), "HR");
    EXPECT_EQ(recording_writer().open_files(), 0u);
    EXPECT_EQ(m.printed(), "");
    EXPECT_THAT(m.messages(), IsEmpty());
    EXPECT_THAT(m.session_calls(), IsEmpty());
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(qfile_in_bin, nullptr);
    EXPECT_EQ(qfile_in_text, nullptr);
    EXPECT_EQ(qfile_in_pte, nullptr);
}

TEST(lifetime, quit_frees_the_pause_tables)
{
    Traced_Machine m;
    plugin_quit();
    EXPECT_EQ(paused, nullptr);
    EXPECT_EQ(commit_action, nullptr);
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST(lifetime, quit_twice_is_harmless)
{
    Traced_Machine m;
    m.start();
    m.commit_run(1);
    plugin_quit();
    const size_t calls = recording_writer().calls().size();
    plugin_quit();
    EXPECT_EQ(paused, nullptr);
    EXPECT_EQ(recording_writer().calls().size(), calls);
}

TEST(lifetime, quit_after_a_refused_load_is_harmless)
{
    Traced_Machine m(0, 1, false);
    ASSERT_EQ(load(), nullptr);
    plugin_quit();
    EXPECT_EQ(paused, nullptr);
}

TEST(lifetime, events_and_pause_commands_after_quit_do_nothing)
{
    Traced_Machine m;
    plugin_quit();
    m.forget_output();
    replay::Instruction instruction;
    PTE_Event_Info pte{};
    RTPTE_Event_Info rtpte{};
    Event_Instruction_PreExecution(replay::handle_of(instruction));
    Event_Instruction_Commit(replay::handle_of(instruction));
    Event_PTE_Access(replay::handle_of(instruction), &pte);
    Event_RTPTE_Access(replay::handle_of(instruction), &rtpte);
    m.signal({"pause"});
    m.signal({"resume"});
    EXPECT_THAT(m.messages(), IsEmpty());
    EXPECT_THAT(m.queries(), IsEmpty());
}

TEST(lifetime, load_after_quit_takes_the_new_machines_shape)
{
    {
        Traced_Machine small(1, 1);
        small.signal({"start", small.path("trace")});
    }
    Traced_Machine big(2, 8);
    for (int tid = 0; tid < 16; ++tid)
        EXPECT_EQ(paused[tid], 0u);
    big.start();
    big.commit_run(2, 15);
    big.stop();
    EXPECT_EQ(big.order(15), "HRR");
}

TEST(lifetime, pre_execution_event_asks_for_the_mode_and_captures_nothing)
{
    Traced_Machine m;
    m.start();
    m.forget_queries();
    replay::Instruction instruction;
    Event_Instruction_PreExecution(replay::handle_of(instruction));
    EXPECT_THAT(m.queries(), testing::Contains("In_Cycle_Mode"));
    EXPECT_EQ(pre_execution[0], nullptr);
    EXPECT_EQ(root[0], nullptr);
    EXPECT_EQ(instr_commited, 0u);
    m.stop();
    EXPECT_EQ(m.order(), "");
}

TEST(lifetime, pre_execution_event_of_a_paused_thread_does_not_ask_for_the_mode)
{
    Traced_Machine m;
    m.start();
    m.signal({"pause"});
    m.forget_queries();
    replay::Instruction instruction;
    Event_Instruction_PreExecution(replay::handle_of(instruction));
    EXPECT_THAT(m.queries(), testing::Not(testing::Contains("In_Cycle_Mode")));
}

TEST(lifetime, linkage_stub_prints_its_argument)
{
    Traced_Machine m;
    dummy_plugin_qtbin_init(42);
    dummy_plugin_qtbin_init(-7);
    EXPECT_EQ(m.printed(), "dummy function to provide linkage symbols for HQX: 42\n"
                           "dummy function to provide linkage symbols for HQX: -7\n");
}

} // namespace
