// What the host answers about machine, time and threads; how it lets the plugin talk.

#include "host.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>

using namespace replay;
using testing::ElementsAre;

namespace
{

struct Host_Services : testing::Test {
    Host_Services()
    {
        host().reset({.processors = 2, .threads = 4, .version = 3, .memory = 0x40000000, .options = {451}});
        host().set_console([this](const Console_Message &message) { said.push_back(message); });
        host().set_session_listener([this](std::string_view what) { session.emplace_back(what); });
        host().set_query_observer([this](std::string_view name) { queries.emplace_back(name); });
    }
    ~Host_Services() override
    {
        host().set_console({});
        host().set_session_listener({});
        host().set_query_observer({});
    }

    static Thread_Context with_ids(uint64_t lpid, uint32_t pid)
    {
        Thread_Context context;
        context.lpid = lpid;
        context.pid = pid;
        return context;
    }

    std::vector<Console_Message> said;
    std::vector<std::string> session;
    std::vector<std::string> queries;
    Instruction instruction;
    void *iop = handle_of(instruction);
};

} // namespace

// Each class by itself: what was there goes, what is new comes.
TEST(Instruction_Registers, are_assigned_whatever_classes_they_have)
{
    const auto held = [](const Plugin_Inst_Registers &registers) {
        return std::vector<int>{registers.gpr_num, registers.fpr_num, registers.spr_num, registers.vsx_num,
                                registers.vmx_num};
    };
    Instruction_Registers before;
    before.gpr_num = before.vmx_num = 1;
    for (int32_t Plugin_Inst_Registers::*const number :
         {&Plugin_Inst_Registers::gpr_num, &Plugin_Inst_Registers::fpr_num, &Plugin_Inst_Registers::spr_num,
          &Plugin_Inst_Registers::vsx_num, &Plugin_Inst_Registers::vmx_num}) {
        Instruction_Registers one, to = before;
        one.*number = 1;
        EXPECT_TRUE(one.any());
        to = one;
        EXPECT_EQ(held(to), held(one));
        EXPECT_EQ(to.*number, 1);
        to = Instruction_Registers();
        EXPECT_EQ(held(to), std::vector<int>(5, 0));
    }
}

TEST_F(Host_Services, finds_the_processors_by_the_class_of_their_name)
{
    Machine *machine = select_machine(host().client_data());
    EXPECT_EQ(machine->processor_major, PROCESSOR_MAJOR_UNKNOWN);
    const uint32_t major = DeviceMgr__GetDeviceMajorNum(machine->device_mgr, "Processor");
    EXPECT_EQ(DeviceMgr__GetDeviceCount(machine->device_mgr, major), 2u);
    EXPECT_EQ(MACHINE_THREADS_PER_PROCESSOR(machine), 4u);
    EXPECT_NE(select_mcm(host().client_data()), nullptr);
    EXPECT_EQ(currentMachine, machine);
}

TEST_F(Host_Services, has_no_devices_of_other_names)
{
    DeviceMgr *manager = select_machine(host().client_data())->device_mgr;
    EXPECT_EQ(DeviceMgr__GetDeviceCount(manager, DeviceMgr__GetDeviceMajorNum(manager, "Disk")), 0u);
}

TEST_F(Host_Services, switches_on_the_listed_processor_options_only)
{
    const ProcessorState *processor = select_processor(host().client_data());
    EXPECT_EQ(processor->options.processor_options[450], 0u);
    EXPECT_NE(processor->options.processor_options[451], 0u);
}

TEST_F(Host_Services, refuses_an_option_out_of_range_and_too_many_threads)
{
    EXPECT_THROW(host().reset({.processors = 1, .threads = 1, .version = 0, .memory = 0, .options = {452}}),
                 std::invalid_argument);
    EXPECT_THROW(host().reset({.processors = 1, .threads = 1, .version = 0, .memory = 0, .options = {453}}),
                 std::invalid_argument);
    EXPECT_THROW(host().reset({.processors = 0x10000, .threads = 2, .version = 0, .memory = 0, .options = {}}),
                 std::invalid_argument);
}

TEST_F(Host_Services, takes_as_many_threads_as_are_allowed_and_no_more)
{
    EXPECT_THROW(host().reset({65537, 1, 0, 0, {}}), std::invalid_argument);
    host().reset({1, 65536, 0, 0, {451}});
    EXPECT_EQ(host().thread_count(), 65536);
    EXPECT_EQ(host().processor()->options.processor_options[451], 1u);
}

TEST_F(Host_Services, machine_has_one_thread_and_nothing_else_unless_it_is_given)
{
    const Machine_Shape shape;
    EXPECT_EQ(shape.processors, 1u);
    EXPECT_EQ(shape.threads, 1u);
    EXPECT_EQ(shape.version, 0u);
    EXPECT_EQ(shape.memory, 0u);
}

TEST(New_Host, has_no_threads_and_no_time)
{
    const Host fresh;
    EXPECT_EQ(fresh.thread_count(), 0);
    EXPECT_EQ(fresh.raw_time(), 0u);
}

TEST_F(Host_Services, reset_forgets_threads_and_time)
{
    host().set_context(7, with_ids(5, 6));
    host().set_raw_time(100);
    host().reset(host().shape());
    EXPECT_EQ(host().context(7).lpid, 0u);
    EXPECT_EQ(GetRawTime(currentMachine), 0u);
    EXPECT_EQ(host().thread_count(), 8);
}

TEST_F(Host_Services, formats_what_the_plugin_says)
{
    SIM_PRINT("QTRACE: %d of %s\n", 3, "four");
    sim_do_warning(2, "QTRACE: '%s'", "pte");
    sim_do_error("common/x", 17, "QTRACE: %lx", 0xabcdul);
    ASSERT_EQ(said.size(), 3u);
    EXPECT_EQ(said[0].channel, Channel::print);
    EXPECT_EQ(said[0].text, "QTRACE: 3 of four\n");
    EXPECT_EQ(said[1].channel, Channel::warning);
    EXPECT_EQ(said[1].level, 2);
    EXPECT_EQ(said[2].channel, Channel::error);
    EXPECT_EQ(said[0].level + said[0].line + said[1].line + said[2].level, 0);
    EXPECT_EQ(said[0].source + said[1].source, "");
    EXPECT_EQ(said[2].source, "common/x");
    EXPECT_EQ(said[2].line, 17);
    EXPECT_EQ(said[2].text, "QTRACE: abcd");
}

TEST_F(Host_Services, keeps_a_long_message_whole)
{
    const std::string name(5000, 'n');
    SIM_PRINT("<%s>", name.c_str());
    EXPECT_EQ(said.at(0).text, "<" + name + ">");
}

TEST_F(Host_Services, keeps_messages_of_every_length_as_they_are)
{
    for (const size_t length : {0, 1, 254, 255, 256, 257}) {
        said.clear();
        SIM_PRINT("%s", std::string(length, 'n').c_str());
        EXPECT_EQ(said.at(0).text, std::string(length, 'n'));
    }
}

TEST_F(Host_Services, lack_of_memory_is_an_error_of_the_host_and_passes_through_no_plugin)
{
    host().set_session_listener([](std::string_view) { throw std::bad_alloc(); });
    Kelvo_QTrace_Plugin_Start();
    ASSERT_EQ(said.size(), 1u);
    EXPECT_EQ(description_of(said[0]), "error (replay:0): out of memory\n");
    EXPECT_EQ(said[0].level, 0);
}

TEST_F(Host_Services, describes_messages_with_their_level_and_one_line_end)
{
    EXPECT_EQ(description_of({Channel::warning, 2, "", 0, "QTRACE: a"}), "warning (2): QTRACE: a\n");
    EXPECT_EQ(description_of({Channel::error, 0, "common/x", 9, "QTRACE: b\n"}), "error (common/x:9): QTRACE: b\n");
    EXPECT_EQ(description_of({Channel::print, 0, "", 0, "no end"}), "no end");
}

TEST_F(Host_Services, prints_to_standard_output_and_reports_on_standard_error)
{
    host().set_console({});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    SIM_PRINT("hello %d\n", 1);
    sim_do_warning(2, "careful");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "hello 1\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "warning (2): careful\n");
}

TEST_F(Host_Services, compares_words_without_regard_to_case)
{
    EXPECT_TRUE(StrCaseEqual("Start", "sTART"));
    EXPECT_FALSE(StrCaseEqual("start", "starts"));
    EXPECT_TRUE(StrNCaseEqual("PTE_file", "pte", 3));
    EXPECT_FALSE(StrNCaseEqual("pt", "pte", 3));
    EXPECT_TRUE(StrNCaseEqual("a", "b", 0));
    EXPECT_TRUE(StrNCaseEqual("a", "b", -1));
}

TEST_F(Host_Services, tells_about_sessions_and_warm_loads)
{
    Kelvo_QTrace_Plugin_Start();
    Kelvo_QTrace_Plugin_Stop();
    warm_dump("some file", currentMachine);
    EXPECT_THAT(session, ElementsAre("start", "stop", "warm some file"));
}

TEST_F(Host_Services, observes_queries_with_their_level_or_flag)
{
    Get_Inst_PC(iop);
    Get_Inst_Data_HOST_RTPTE_n_RA(iop, 2);
    Get_String_Length(iop, 1);
    Get_Version_Kelvo();
    EXPECT_THAT(queries, ElementsAre("Get_Inst_PC", "Get_Inst_Data_HOST_RTPTE_n_RA(2)", "Get_String_Length(1)",
                                     "Get_Version_Kelvo"));
}

// ---- changes of partition and process -------------------------------------------------------------------

TEST_F(Host_Services, first_context_is_no_change)
{
    host().set_context(0, with_ids(4, 5));
    EXPECT_FALSE(Get_Check_IF_LPID_Change(iop));
    EXPECT_FALSE(Get_Check_IF_PID_Change(iop));
}

TEST_F(Host_Services, thread_without_context_has_not_changed)
{
    EXPECT_FALSE(Get_Check_IF_LPID_Change(iop));
    EXPECT_FALSE(Get_Check_IF_PID_Change(iop));
}

TEST_F(Host_Services, first_context_is_a_change_when_the_plugin_has_asked_before)
{
    Get_Check_IF_PID_Change(iop);
    host().set_context(0, with_ids(4, 5));
    EXPECT_TRUE(Get_Check_IF_PID_Change(iop));
    EXPECT_FALSE(Get_Check_IF_LPID_Change(iop)); // of that it has not asked
}

TEST_F(Host_Services, change_is_told_once)
{
    host().set_context(0, with_ids(1, 5));
    host().set_context(0, with_ids(2, 5));
    EXPECT_TRUE(Get_Check_IF_LPID_Change(iop));
    EXPECT_FALSE(Get_Check_IF_LPID_Change(iop));
    EXPECT_FALSE(Get_Check_IF_PID_Change(iop));
}

TEST_F(Host_Services, change_and_back_before_the_question_is_none)
{
    host().set_context(0, with_ids(1, 5));
    host().set_context(0, with_ids(1, 6));
    host().set_context(0, with_ids(1, 5));
    EXPECT_FALSE(Get_Check_IF_PID_Change(iop));
}

TEST_F(Host_Services, changes_are_kept_apart_by_thread)
{
    host().set_context(0, with_ids(1, 5));
    host().set_context(3, with_ids(1, 5));
    host().set_context(3, with_ids(1, 6));
    Instruction other;
    other.tid = 3;
    EXPECT_FALSE(Get_Check_IF_PID_Change(iop));
    EXPECT_TRUE(Get_Check_IF_PID_Change(handle_of(other)));
}

// ---- queries that fill something ------------------------------------------------------------------------

TEST_F(Host_Services, register_query_leaves_entries_beyond_the_count_alone)
{
    instruction.in.gpr_num = 1;
    instruction.in.gpr_index[0] = 4;
    instruction.in.gpr_value[0] = 0x44;
    Plugin_Inst_Registers registers;
    std::memset(&registers, 0xEE, sizeof registers);
    Get_Inst_Input_Registers(iop, &registers);
    EXPECT_EQ(registers.gpr_num, 1);
    EXPECT_EQ(registers.gpr_value[0], 0x44u);
    EXPECT_EQ(registers.gpr_value[1], 0xEEEEEEEEEEEEEEEEu);
    EXPECT_EQ(registers.gpr_index[1], static_cast<int32_t>(0xEEEEEEEE));
    EXPECT_EQ(registers.vmx_num, 0);
    EXPECT_EQ(registers.vmx_value[0].word[0], 0xEEEEEEEEEEEEEEEEu);
}

TEST_F(Host_Services, register_query_hands_out_a_count_beyond_the_capacity_with_the_entries_there_are)
{
    instruction.out.fpr_num = 9;
    instruction.out.fpr_value[3] = 7;
    instruction.out.spr_index[0] = 77;
    Plugin_Inst_Registers registers{};
    Get_Inst_Output_Registers(iop, &registers);
    EXPECT_EQ(registers.fpr_num, 9);
    EXPECT_EQ(registers.fpr_value[3], 7u);
    EXPECT_EQ(registers.spr_index[0], 0);
}

TEST_F(Host_Services, cuts_the_name_to_the_buffer_and_terminates_it)
{
    instruction.text = "addi r1,r1,8";
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    Get_Inst_Name_And_Operand(iop, buffer, 5);
    EXPECT_STREQ(buffer, "addi");
    EXPECT_EQ(buffer[5], 'x');
    for (const int no_room : {0, -1}) {
        Get_Inst_Name_And_Operand(iop, buffer, no_room);
        EXPECT_STREQ(buffer, "addi");
    }
    instruction.text = "ab";
    Get_Inst_Name_And_Operand(iop, buffer, 8);
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(buffer[3], 'i'); // as it was
    Get_Inst_Name_And_Operand(iop, buffer, 1);
    EXPECT_STREQ(buffer, "");
}

TEST_F(Host_Services, assigned_instruction_has_the_registers_of_each_class)
{
    using Registers = Plugin_Inst_Registers;
    for (int32_t Registers::*count : {&Registers::gpr_num, &Registers::fpr_num, &Registers::spr_num,
                                      &Registers::vsx_num, &Registers::vmx_num}) {
        Instruction one, other;
        one.in.*count = 2;
        one.in.gpr_value[1] = one.in.fpr_value[1] = one.in.spr_value[1] = 7;
        one.in.vsx_value[1].word[1] = one.in.vmx_value[1].word[1] = 7;
        other = one;
        EXPECT_EQ(other.in.*count, 2);
        EXPECT_EQ(other.in.gpr_value[1] + other.in.fpr_value[1] + other.in.spr_value[1] +
                      other.in.vsx_value[1].word[1] + other.in.vmx_value[1].word[1],
                  7u);
        other = Instruction{};
        EXPECT_EQ(other.in.gpr_num | other.in.fpr_num | other.in.spr_num | other.in.vsx_num | other.in.vmx_num, 0);
    }
}

TEST_F(Host_Services, walks_and_levels_out_of_range_answer_zero)
{
    instruction.fetch.host_walk.fill({1, 2, 3, 4});
    instruction.fetch.host_ra.fill(5);
    EXPECT_EQ(Get_Inst_PC_HOST_RTPDE_L1_n_RA(iop, 0), 1u);
    EXPECT_EQ(Get_Inst_PC_HOST_RTPTE_n_RA(iop, 4), 4u);
    EXPECT_EQ(Get_Inst_PC_HOST_RTPTE_n_RA(iop, 5), 0u);
    EXPECT_EQ(Get_Inst_PC_HOST_RTPDE_L1_n_RA(iop, -1), 0u);
    EXPECT_EQ(Get_Inst_PC_RonR_HOST_RA_Ln(iop, 3), 5u);
    EXPECT_EQ(Get_Inst_PC_RonR_HOST_RA_Ln(iop, 4), 0u);
    instruction.fetch.guest_walk = {6, 6, 6, 6, 6, 6};
    for (const int beyond : {5, 6, 7})
        EXPECT_EQ(Get_Inst_PC_RonR_HOST_RA_Ln(iop, beyond), 0u) << beyond;
}
