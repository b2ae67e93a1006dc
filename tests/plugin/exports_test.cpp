// The dynamic symbols of the built plugin: what it shows, what it takes, and from where.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using Names = std::set<std::string>;

const Names FUNCTIONS = {"plugin_init",
                         "plugin_signal",
                         "plugin_quit",
                         "dummy_plugin_qtbin_init",
                         "Event_Instruction_PreExecution",
                         "Event_Instruction_Commit",
                         "Event_PTE_Access",
                         "Event_RTPTE_Access",
                         "debug_print_all",
                         "copycat",
                         "set_NIT_bit"};

const std::map<std::string, size_t> VARIABLES = {
    // name, bytes
    {"EventNames", 32},
    {"init", 4},
    {"processor_num", 4},
    {"thread_num", 4},
    {"instr_commited", 8},
    {"VMX_instr_commited", 8},
    {"total_instr_commited", 8},
    {"total_VMX_instr_commited", 8},
    {"VSX_instr_commited", 8},
    {"total_VSX_instr_commited", 8},
    {"enable_qt_remove_permanent_thread0_id_from_trace_file", 4},
    {"enable_qt_appending_of_thread0_id_to_trace_file", 4},
    {"start_raw_time", 8},
    {"init_t", 8},
    {"handle", 8},
    {"mcm", 8},
    {"M", 8},
    {"ps", 8},
    {"ts", 8},
    {"root", 8},
    {"last_commit", 8},
    {"flush_seq", 8},
    {"flush", 8},
    {"pre_execution", 8},
    {"crack_inst", 8},
    {"flush_list", 8},
    {"s1", 8},
    {"s2", 8},
    {"fname_in_bin", 256},
    {"fname_in_text", 256},
    {"qfile_in_bin", 8},
    {"qfile_in_text", 8},
    {"qfile_in_pte", 8},
    {"hdr_write", 8},
    {"paused", 8},
    {"commit_action", 8},
};

// Everything a plugin may ask of its host and of the writer.
const Names HOST_AND_WRITER = {
    "select_mcm", "select_machine", "select_processor", "DeviceMgr__GetDeviceMajorNum", "DeviceMgr__GetDeviceCount",
    "currentMachine", "SIM_PRINT", "sim_do_warning", "sim_do_error", "StrCaseEqual", "StrNCaseEqual", "GetRawTime",
    "Kelvo_QTrace_Plugin_Start", "Kelvo_QTrace_Plugin_Stop", "warm_dump",
    // the instruction and its thread
    "Get_Inst_ThreadId", "Get_Inst_SeqNumber", "Get_Reg_PTCR", "Get_Reg_LPIDR", "Get_Reg_PIDR",
    "Get_Memory_Total_Size", "Get_Inst_PC", "Get_Inst_NPC", "Get_Inst_SDR1", "Get_Version_Kelvo",
    "Get_Inst_Instbody", "In_Cycle_Mode", "Get_Check_IF_LPID_Change", "Get_Check_IF_PID_Change", "Is_Mode_64bit",
    "Is_LE_Mode", "Is_Mode_Kernel", "Is_Inst_SimSupport", "Is_Inst_Filtered", "Is_Inst_Relocated", "Is_Inst_Branch",
    "Is_Inst_Unconditional_Branch", "Is_Inst_Branch_Taken", "Is_Inst_Load", "Is_Inst_Store", "Is_Inst_Cache",
    "Is_Inst_Data_EA_Valid", "Is_Inst_Exception", "Is_Data_Relocated", "Is_Inst_String", "Is_Inst_VMX",
    "Is_Inst_VSX", "Get_Pages_Used", "Get_gPages_Used", "Get_Inst_Input_Registers", "Get_Inst_Output_Registers",
    "Get_String_Length", "Get_Inst_Name_And_Operand",
    // the address of the instruction
    "Get_Inst_PC_RA", "Get_Inst_PC_VSID", "Get_Inst_PC_RPN", "Get_Inst_Host_PC_RPN", "Get_Inst_Guest_PC_RPN",
    "Get_PC_Host_AXD_Two_Level", "Get_PC_Guest_AXD_Two_Level", "Get_PC_Radix_Host_Walk_Depth",
    "Get_PC_Radix_Guest_Walk_Depth", "Get_Inst_PC_PageSize", "Get_Inst_PC_Host_PageSize",
    "Get_Inst_PC_Guest_PageSize", "Get_PC_MMU_Status", "Get_PC_Xlate_Type", "Get_PC_Radix_Guest_Mode",
    "Get_PC_Radix_Host_Mode", "Get_Inst_PC_HOST_RTPDE_L1_n_RA", "Get_Inst_PC_HOST_RTPDE_L2_n_RA",
    "Get_Inst_PC_HOST_RTPDE_L3_n_RA", "Get_Inst_PC_HOST_RTPTE_n_RA", "Get_Inst_PC_RonR_HOST_RA_Ln",
    "Get_Inst_PC_GUEST_RTPDE_L1_RA", "Get_Inst_PC_GUEST_RTPDE_L2_RA", "Get_Inst_PC_GUEST_RTPDE_L3_RA",
    "Get_Inst_PC_GUEST_RTPTE_RA", "Get_Inst_PC_GUEST_RA",
    // the address of the data
    "Get_Inst_Data_EA", "Get_Inst_Data_RA", "Get_Inst_Data_VSID", "Get_Inst_Data_RPN", "Get_Inst_Data_Host_RPN",
    "Get_Inst_Data_Guest_RPN", "Get_Data_Host_AXD_Two_Level", "Get_Data_Guest_AXD_Two_Level",
    "Get_Data_Radix_Host_Walk_Depth", "Get_Data_Radix_Guest_Walk_Depth", "Get_Inst_Data_PageSize",
    "Get_Inst_Data_Host_PageSize", "Get_Inst_Data_Guest_PageSize", "Get_Data_MMU_Status", "Get_Data_Xlate_Type",
    "Get_Data_Radix_Guest_Mode", "Get_Data_Radix_Host_Mode", "Get_Inst_Data_HOST_RTPDE_L1_n_RA",
    "Get_Inst_Data_HOST_RTPDE_L2_n_RA", "Get_Inst_Data_HOST_RTPDE_L3_n_RA", "Get_Inst_Data_HOST_RTPTE_n_RA",
    "Get_Inst_Data_RonR_HOST_RA_Ln", "Get_Inst_Data_GUEST_RTPDE_L1_RA", "Get_Inst_Data_GUEST_RTPDE_L2_RA",
    "Get_Inst_Data_GUEST_RTPDE_L3_RA", "Get_Inst_Data_GUEST_RTPTE_RA", "Get_Inst_Data_GUEST_RA",
    // the writer
    "QTRACE_Fopen", "QTRACE_Fclose", "QTRACE_FwriteFileHeader", "QTRACE_FwriteRecord"};

const Names RUNTIME_LIBRARIES = {"libc.so.6", "libm.so.6", "libstdc++.so.6", "libgcc_s.so.1",
                                 "ld-linux-x86-64.so.2"};

// The words of each line that a program prints about the plugin's file.
std::vector<std::vector<std::string>> lines_of(const std::string &program_and_options)
{
    const std::string command = program_and_options + " '" PLUGIN_FILE "'";
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen(command.c_str(), "r"), pclose);
    std::vector<std::vector<std::string>> lines;
    std::array<char, 4096> line;
    while (pipe && fgets(line.data(), line.size(), pipe.get())) {
        std::istringstream in(line.data());
        lines.emplace_back();
        for (std::string word; in >> word;)
            lines.back().push_back(word);
    }
    EXPECT_FALSE(lines.empty()) << command;
    return lines;
}

// Name and version: "malloc@GLIBC_2.2.5" has both, a host function only the first.
std::pair<std::string, std::string> split_version(const std::string &symbol)
{
    const size_t at = symbol.find('@');
    return at == std::string::npos ? std::pair{symbol, std::string()}
                                   : std::pair{symbol.substr(0, at), symbol.substr(at + 1)};
}

Names defined_names()
{
    Names names;
    for (const auto &words : lines_of(NM " -D --defined-only"))
        names.insert(words.back());
    return names;
}

TEST(exports, are_exactly_the_entry_points_handlers_helpers_and_variables)
{
    Names expected = FUNCTIONS;
    for (const auto &[name, bytes] : VARIABLES)
        expected.insert(name);
    EXPECT_EQ(defined_names(), expected);
}

TEST(exports, functions_are_code_and_variables_are_data_of_their_size)
{
    size_t seen = 0;
    for (const auto &words : lines_of(NM " -D --defined-only --print-size")) {
        ASSERT_EQ(words.size(), 4u);
        const std::string &name = words[3];
        ++seen;
        if (FUNCTIONS.contains(name)) {
            EXPECT_EQ(words[2], "T") << name;
        } else {
            ASSERT_TRUE(VARIABLES.contains(name)) << name;
            EXPECT_THAT(words[2], testing::AnyOf("B", "D")) << name;
            EXPECT_EQ(std::stoul(words[1], nullptr, 16), VARIABLES.at(name)) << name;
        }
    }
    EXPECT_EQ(seen, FUNCTIONS.size() + VARIABLES.size());
}

#ifndef __SANITIZE_ADDRESS__ // an instrumented build needs the sanitizers, too
TEST(exports, unresolved_names_belong_to_host_writer_or_runtime_library)
{
    const Names weak_hooks = {"_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "__gmon_start__"};
    for (const auto &words : lines_of(NM " -D --undefined-only")) {
        const auto &[name, version] = split_version(words.back());
        const bool from_runtime = version.starts_with("GLIBC_") || version.starts_with("GLIBCXX_") ||
                                  version.starts_with("CXXABI_") || version.starts_with("GCC_");
        EXPECT_TRUE(from_runtime || HOST_AND_WRITER.contains(name) || weak_hooks.contains(name)) << words.back();
    }
}
#endif

TEST(exports, host_and_writer_functions_stay_unresolved)
{
    Names undefined;
    for (const auto &words : lines_of(NM " -D --undefined-only"))
        undefined.insert(split_version(words.back()).first);
    for (const char *name : {"SIM_PRINT", "sim_do_warning", "sim_do_error", "StrCaseEqual", "GetRawTime",
                             "Get_Inst_ThreadId", "QTRACE_Fopen", "QTRACE_Fclose", "QTRACE_FwriteFileHeader",
                             "QTRACE_FwriteRecord", "currentMachine", "warm_dump"})
        EXPECT_TRUE(undefined.contains(name)) << name;
}

#ifndef __SANITIZE_ADDRESS__
TEST(exports, plugin_needs_the_standard_libraries_alone)
{
    for (const auto &words : lines_of(READELF " -dW"))
        if (words.size() > 4 && words[1] == "(NEEDED)") {
            const std::string library = words[4].substr(1, words[4].size() - 2);
            EXPECT_TRUE(RUNTIME_LIBRARIES.contains(library)) << library;
        }
}
#endif

TEST(exports, no_reference_to_an_own_name_is_left_to_the_loader)
{
    for (const auto &words : lines_of(READELF " -rW"))
        for (const std::string &word : words) {
            const std::string name = split_version(word).first;
            EXPECT_FALSE(FUNCTIONS.contains(name) || VARIABLES.contains(name)) << name;
        }
}

} // namespace
