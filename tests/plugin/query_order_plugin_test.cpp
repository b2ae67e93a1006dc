// The order in which one commit asks the host. An answer may depend on the state the host has reached, so the
// whole sequence counts: every test compares all queries of the commit.
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "captured_address.h"
#include "lost_on_purpose.h"
#include "traced_machine.h"

#include <sstream>
#include <string>
#include <vector>

namespace
{

using Names = std::vector<std::string>;

Names operator+(Names a, const Names &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// ---- the pieces of every commit, in their order -------------------------------------------------------------

const Names thread_and_registers{"Get_Inst_ThreadId", "Get_Inst_SeqNumber", "In_Cycle_Mode",
                                 "Get_Reg_PTCR",      "Get_Reg_LPIDR",      "Get_Reg_PIDR"};
const Names lpid_change{"Get_Check_IF_LPID_Change"};
const Names both_changes{"Get_Check_IF_LPID_Change", "Get_Check_IF_PID_Change"};
const Names machine{"Get_Version_Kelvo",     "Is_Mode_64bit",  "Is_LE_Mode",
                    "Get_Memory_Total_Size", "Get_Pages_Used", "Get_gPages_Used"};
const Names fetch_descriptors{"Get_PC_MMU_Status",
                              "Get_PC_Xlate_Type",
                              "Get_PC_Radix_Guest_Mode",
                              "Get_PC_Radix_Host_Mode",
                              "Get_PC_Host_AXD_Two_Level",
                              "Get_PC_Guest_AXD_Two_Level",
                              "Get_PC_Radix_Host_Walk_Depth",
                              "Get_PC_Radix_Guest_Walk_Depth"};
const Names word{"Is_Inst_SimSupport", "Get_Inst_Instbody"};
const Names pseudo_word{"Is_Inst_SimSupport"};
const Names filter{"Is_Inst_Filtered"};
const Names addresses{"Get_Inst_PC", "Get_Inst_NPC", "Is_Inst_Relocated"};
const Names privilege{"Is_Mode_Kernel"};
const Names sdr1{"Get_Inst_SDR1"};
const Names no_branch{"Is_Inst_Branch"};
const Names branch{"Is_Inst_Branch", "Is_Inst_Unconditional_Branch", "Is_Inst_Branch_Taken"};
const Names kinds{"Is_Inst_Load", "Is_Inst_Store", "Is_Inst_Cache", "Is_Inst_Data_EA_Valid", "Is_Inst_Exception"};
const Names data_descriptors{"Get_Data_MMU_Status",
                             "Get_Data_Xlate_Type",
                             "Get_Data_Radix_Guest_Mode",
                             "Get_Data_Radix_Host_Mode",
                             "Get_Data_Host_AXD_Two_Level",
                             "Get_Data_Guest_AXD_Two_Level",
                             "Get_Data_Radix_Host_Walk_Depth",
                             "Get_Data_Radix_Guest_Walk_Depth",
                             "Get_Inst_Data_EA",
                             "Is_Data_Relocated"};
const Names no_string{"Is_Inst_String"};
const Names string{"Is_Inst_String", "Get_String_Length(1)"};
const Names registers{"Get_Inst_Input_Registers", "Get_Inst_Output_Registers"};
const Names text{"Get_Inst_Name_And_Operand"};
const Names vectors{"Is_Inst_VMX", "Is_Inst_VSX"};

// ---- translations -------------------------------------------------------------------------------------------

// In short: hd gd depths; 1n 2n 3n en directory entries and page-table entry of host walk n; Rn host real
// address n; G1 G2 G3 GE GR guest entries and final address; ra vs rp hr gr real address, segment id and page
// numbers; ps hp gp page sizes.
std::string long_name(const std::string &short_name, bool data)
{
    const std::string side = data ? "Data" : "PC";
    const std::string number = "(" + short_name.substr(1) + ")";
    if (short_name == "hd" || short_name == "gd")
        return "Get_" + side + "_Radix_" + (short_name == "hd" ? "Host" : "Guest") + "_Walk_Depth";
    if (short_name == "ra" || short_name == "vs" || short_name == "rp")
        return "Get_Inst_" + side + (short_name == "ra" ? "_RA" : short_name == "vs" ? "_VSID" : "_RPN");
    if (short_name == "hr")
        return data ? "Get_Inst_Data_Host_RPN" : "Get_Inst_Host_PC_RPN";
    if (short_name == "gr")
        return data ? "Get_Inst_Data_Guest_RPN" : "Get_Inst_Guest_PC_RPN";
    if (short_name == "ps" || short_name == "hp" || short_name == "gp")
        return "Get_Inst_" + side +
               (short_name == "ps"   ? "_PageSize"
                : short_name == "hp" ? "_Host_PageSize"
                                     : "_Guest_PageSize");
    if (short_name == "GE")
        return "Get_Inst_" + side + "_GUEST_RTPTE_RA";
    if (short_name == "GR")
        return "Get_Inst_" + side + "_GUEST_RA";
    if (short_name[0] == 'G')
        return "Get_Inst_" + side + "_GUEST_RTPDE_L" + short_name[1] + "_RA";
    if (short_name[0] == 'e')
        return "Get_Inst_" + side + "_HOST_RTPTE_n_RA" + number;
    if (short_name[0] == 'R')
        return "Get_Inst_" + side + "_RonR_HOST_RA_Ln" + number;
    return "Get_Inst_" + side + "_HOST_RTPDE_L" + short_name[0] + "_n_RA" + number;
}

Names long_names(const std::string &words, bool data)
{
    std::istringstream in(words);
    Names names;
    for (std::string one; in >> one;)
        names.push_back(long_name(one, data));
    return names;
}

const char host_real[] = "ra";
const char real_on_hpt[] = "vs rp ps";
const char host_hpt[] = "vs rp ps";
const char guest_hpt[] = "vs rp ps ps";
const char host_radix[] = "10 20 30 e0 R0 hr hp";
const char real_on_radix[] = "hd gd 10 20 30 e0 R0 GR hr hp";

// Nested walks by guest depth; Dn stands for the directory entries of host walk n.
const char *const nested[] = {"",
                              "hd gd GE D0 e0 GR gr hp gp",
                              "hd gd D0 e0 G1 GE D1 e1 R0 GR gr hp gp",
                              "hd gd D0 e0 G1 D1 e1 G2 GE D2 e2 R0 R1 GR gr hp gp",
                              "hd gd D0 e0 G1 D1 e1 G2 D2 e2 G3 GE D3 e3 R0 R1 R2 GR gr hp gp",
                              "hd gd D0 e0 G1 D1 e1 G2 D2 e2 G3 D3 e3 GE D4 e4 R0 R1 R2 R3 GR gr hp gp"};
const char *const directory[] = {"", "", "1n", "1n 2n", "1n 2n 3n"}; // by host depth

std::string nested_walk(int g, int h)
{
    std::istringstream in(nested[g]);
    std::string words;
    for (std::string one; in >> one;) {
        std::string piece = one[0] == 'D' ? directory[h] : one;
        if (one[0] == 'D')
            for (char &c : piece)
                c = c == 'n' ? one[1] : c;
        words += piece + " ";
    }
    return words;
}

const char *one_level_words(int mode)
{
    switch (mode) {
    case 11:
        return host_real;
    case 16:
        return real_on_hpt;
    case 19:
        return host_hpt;
    case 24:
        return real_on_radix;
    case 25:
    case 26:
    case 27:
    case 29:
    case 30:
    case 31:
        return host_radix;
    default:
        return "";
    }
}

// ---- whole commits ------------------------------------------------------------------------------------------

// The parts of a commit that differ between instructions.
struct Commit_Parts {
    Names change = {};
    Names fetch = {};
    Names branches = no_branch;
    Names data = {};
    Names strings = no_string;
    Names name = {};
};

Names whole_commit(const Commit_Parts &parts)
{
    return thread_and_registers + parts.change + machine + fetch_descriptors + word + filter + addresses +
           parts.fetch + sdr1 + parts.branches + kinds + data_descriptors + parts.data + parts.strings + privilege +
           registers + parts.name + vectors;
}

struct Query_Order : testing::Test {
    Traced_Machine m;
    uint64_t seq = 0;

    Names asked_by(replay::Instruction instruction)
    {
        instruction.seq = ++seq;
        instruction.pc = 0x1000 + 4 * seq;
        m.forget_queries();
        m.commit(std::move(instruction));
        return m.queries();
    }
    // Of the first commit of a new session, which does not ask about partition changes.
    Names asked_by_first(replay::Instruction instruction)
    {
        m.start();
        return asked_by(std::move(instruction));
    }
    static void kernel(bool on) { replay::host().set_context(0, {.kernel = on}); }
};

replay::Address_Answers translated(int mode, bool guest = false, bool relocated = false, int h = 4, int g = 5)
{
    auto answers = distinct_answers(0x0F, mode, static_cast<uint8_t>(h), static_cast<uint8_t>(g));
    answers.guest_two_level = guest;
    answers.relocated = relocated;
    return answers;
}

replay::Instruction load_of(const replay::Address_Answers &data, const replay::Address_Answers &fetch = {})
{
    return {.load = true, .ea_valid = true, .ea = 0x2000, .fetch = fetch, .data = data};
}

} // namespace

TEST_F(Query_Order, plain_instruction)
{
    EXPECT_EQ(asked_by_first({}), whole_commit({}));
}

TEST_F(Query_Order, plain_instruction_name_by_name)
{
    const Names all{"Get_Inst_ThreadId",
                    "Get_Inst_SeqNumber",
                    "In_Cycle_Mode",
                    "Get_Reg_PTCR",
                    "Get_Reg_LPIDR",
                    "Get_Reg_PIDR",
                    "Get_Version_Kelvo",
                    "Is_Mode_64bit",
                    "Is_LE_Mode",
                    "Get_Memory_Total_Size",
                    "Get_Pages_Used",
                    "Get_gPages_Used",
                    "Get_PC_MMU_Status",
                    "Get_PC_Xlate_Type",
                    "Get_PC_Radix_Guest_Mode",
                    "Get_PC_Radix_Host_Mode",
                    "Get_PC_Host_AXD_Two_Level",
                    "Get_PC_Guest_AXD_Two_Level",
                    "Get_PC_Radix_Host_Walk_Depth",
                    "Get_PC_Radix_Guest_Walk_Depth",
                    "Is_Inst_SimSupport",
                    "Get_Inst_Instbody",
                    "Is_Inst_Filtered",
                    "Get_Inst_PC",
                    "Get_Inst_NPC",
                    "Is_Inst_Relocated",
                    "Get_Inst_SDR1",
                    "Is_Inst_Branch",
                    "Is_Inst_Load",
                    "Is_Inst_Store",
                    "Is_Inst_Cache",
                    "Is_Inst_Data_EA_Valid",
                    "Is_Inst_Exception",
                    "Get_Data_MMU_Status",
                    "Get_Data_Xlate_Type",
                    "Get_Data_Radix_Guest_Mode",
                    "Get_Data_Radix_Host_Mode",
                    "Get_Data_Host_AXD_Two_Level",
                    "Get_Data_Guest_AXD_Two_Level",
                    "Get_Data_Radix_Host_Walk_Depth",
                    "Get_Data_Radix_Guest_Walk_Depth",
                    "Get_Inst_Data_EA",
                    "Is_Data_Relocated",
                    "Is_Inst_String",
                    "Is_Mode_Kernel",
                    "Get_Inst_Input_Registers",
                    "Get_Inst_Output_Registers",
                    "Is_Inst_VMX",
                    "Is_Inst_VSX"};
    EXPECT_EQ(asked_by_first({}), all);
}

TEST_F(Query_Order, no_session_asks_nothing)
{
    EXPECT_EQ(asked_by({}), Names{});
}

TEST_F(Query_Order, paused_thread_is_asked_for_its_index_only)
{
    m.start();
    m.signal({"pause"});
    EXPECT_EQ(asked_by({}), Names{"Get_Inst_ThreadId"});
}

TEST_F(Query_Order, writing_the_previous_instructions_asks_nothing_more)
{
    m.start();
    asked_by({});
    asked_by({});
    EXPECT_EQ(asked_by({.branch = true, .taken = true}),
              whole_commit({.change = both_changes, .branches = branch}));
}

TEST_F(Query_Order, second_instruction_asks_for_both_changes)
{
    m.start();
    asked_by({});
    EXPECT_EQ(asked_by({}), whole_commit({.change = both_changes}));
}

TEST_F(Query_Order, changed_lpid_keeps_the_pid_from_being_asked)
{
    replay::host().set_context(0, {.lpid = 1});
    m.start();
    asked_by({});
    replay::host().set_context(0, {.lpid = 2});
    EXPECT_EQ(asked_by({}), whole_commit({.change = lpid_change}));
}

TEST_F(Query_Order, changed_pid_is_asked_after_the_lpid)
{
    replay::host().set_context(0, {.pid = 1});
    m.start();
    asked_by({});
    replay::host().set_context(0, {.pid = 2});
    EXPECT_EQ(asked_by({}), whole_commit({.change = both_changes}));
}

TEST_F(Query_Order, first_instruction_after_a_throughput_line_does_not_ask_for_changes)
{
    m.start();
    asked_by({});
    m.signal({"stop"}); // reports
    m.signal({"start", m.path("trace")});
    EXPECT_EQ(asked_by({}), whole_commit({}));
}

TEST_F(Query_Order, filtered_instruction_stops_at_the_filter)
{
    const Lost_On_Purpose node;
    EXPECT_EQ(asked_by_first({.filtered = true}),
              thread_and_registers + machine + fetch_descriptors + word + filter);
}

TEST_F(Query_Order, filtered_instruction_has_asked_for_the_changes)
{
    m.start();
    asked_by({});
    const Lost_On_Purpose node;
    EXPECT_EQ(asked_by({.filtered = true}),
              thread_and_registers + both_changes + machine + fetch_descriptors + word + filter);
}

TEST_F(Query_Order, pseudo_instruction_is_not_asked_for_its_word)
{
    EXPECT_EQ(asked_by_first({.sim_support = true}),
              thread_and_registers + machine + fetch_descriptors + pseudo_word + filter + addresses + sdr1 +
                  no_branch + kinds + data_descriptors + no_string + privilege + registers + vectors);
}

TEST_F(Query_Order, branch_is_asked_for_its_kind_and_outcome)
{
    EXPECT_EQ(asked_by_first({.branch = true}), whole_commit({.branches = branch}));
}

TEST_F(Query_Order, string_instruction_is_asked_for_its_length_as_committed)
{
    EXPECT_EQ(asked_by_first({.string = true}), whole_commit({.strings = string}));
}

TEST_F(Query_Order, text_trace_asks_for_the_name)
{
    m.start_with_text();
    EXPECT_EQ(asked_by({}), whole_commit({.name = text}));
}

TEST_F(Query_Order, text_trace_whose_file_could_not_be_created_still_asks_for_the_name)
{
    m.signal({"start", m.path("trace"), "txt", m.path("no_such_folder/text")});
    EXPECT_EQ(asked_by({}), whole_commit({.name = text}));
}

TEST_F(Query_Order, fetch_of_one_level_under_each_mode)
{
    for (int mode = 0; mode <= 38; ++mode)
        EXPECT_EQ(asked_by_first({.fetch = translated(mode)}),
                  whole_commit({.fetch = long_names(one_level_words(mode), false)}))
            << "mode " << mode;
}

TEST_F(Query_Order, fetch_of_one_level_asks_neither_privilege_nor_less_when_relocated)
{
    kernel(true);
    for (int mode = 0; mode <= 38; ++mode)
        EXPECT_EQ(asked_by_first({.fetch = translated(mode, false, true)}),
                  whole_commit({.fetch = long_names(one_level_words(mode), false)}))
            << "mode " << mode;
}

TEST_F(Query_Order, fetch_of_two_levels_under_each_mode_privilege_and_relocation)
{
    for (int mode = 0; mode <= 38; ++mode)
        for (bool privileged : {false, true})
            for (bool relocated : {false, true}) {
                kernel(privileged);
                const bool captured = relocated || !privileged;
                const std::string words = !captured    ? ""
                                          : mode == 14 ? guest_hpt
                                          : mode == 23 ? nested_walk(5, 4)
                                                       : "";
                EXPECT_EQ(asked_by_first({.fetch = translated(mode, true, relocated)}),
                          whole_commit({.fetch = privilege + long_names(words, false)}))
                    << "mode " << mode << " kernel " << privileged << " relocated " << relocated;
            }
}

TEST_F(Query_Order, nested_walk_of_a_fetch_by_guest_and_host_depth)
{
    for (int g = 1; g <= 5; ++g)
        for (int h = 1; h <= 4; ++h)
            EXPECT_EQ(asked_by_first({.fetch = translated(23, true, true, h, g)}),
                      whole_commit({.fetch = privilege + long_names(nested_walk(g, h), false)}))
                << "guest " << g << " host " << h;
}

TEST_F(Query_Order, nested_walk_of_host_depths_outside_2_to_4_asks_for_no_directory_entry)
{
    for (int h : {0, 5, 6, 255})
        EXPECT_EQ(asked_by_first({.fetch = translated(23, true, true, h, 3)}),
                  whole_commit({.fetch = privilege + long_names(nested_walk(3, 1), false)}))
            << "host " << h;
}

TEST_F(Query_Order, nested_walk_of_guest_depth_3_and_host_depth_4_name_by_name)
{
    const Names walk{"Is_Mode_Kernel",
                     "Get_PC_Radix_Host_Walk_Depth",
                     "Get_PC_Radix_Guest_Walk_Depth",
                     "Get_Inst_PC_HOST_RTPDE_L1_n_RA(0)",
                     "Get_Inst_PC_HOST_RTPDE_L2_n_RA(0)",
                     "Get_Inst_PC_HOST_RTPDE_L3_n_RA(0)",
                     "Get_Inst_PC_HOST_RTPTE_n_RA(0)",
                     "Get_Inst_PC_GUEST_RTPDE_L1_RA",
                     "Get_Inst_PC_HOST_RTPDE_L1_n_RA(1)",
                     "Get_Inst_PC_HOST_RTPDE_L2_n_RA(1)",
                     "Get_Inst_PC_HOST_RTPDE_L3_n_RA(1)",
                     "Get_Inst_PC_HOST_RTPTE_n_RA(1)",
                     "Get_Inst_PC_GUEST_RTPDE_L2_RA",
                     "Get_Inst_PC_GUEST_RTPTE_RA",
                     "Get_Inst_PC_HOST_RTPDE_L1_n_RA(2)",
                     "Get_Inst_PC_HOST_RTPDE_L2_n_RA(2)",
                     "Get_Inst_PC_HOST_RTPDE_L3_n_RA(2)",
                     "Get_Inst_PC_HOST_RTPTE_n_RA(2)",
                     "Get_Inst_PC_RonR_HOST_RA_Ln(0)",
                     "Get_Inst_PC_RonR_HOST_RA_Ln(1)",
                     "Get_Inst_PC_GUEST_RA",
                     "Get_Inst_Guest_PC_RPN",
                     "Get_Inst_PC_Host_PageSize",
                     "Get_Inst_PC_Guest_PageSize"};
    EXPECT_EQ(asked_by_first({.fetch = translated(23, true, true, 4, 3)}), whole_commit({.fetch = walk}));
}

TEST_F(Query_Order, guest_real_on_host_radix_name_by_name)
{
    const Names walk{"Get_Data_Radix_Host_Walk_Depth",
                     "Get_Data_Radix_Guest_Walk_Depth",
                     "Get_Inst_Data_HOST_RTPDE_L1_n_RA(0)",
                     "Get_Inst_Data_HOST_RTPDE_L2_n_RA(0)",
                     "Get_Inst_Data_HOST_RTPDE_L3_n_RA(0)",
                     "Get_Inst_Data_HOST_RTPTE_n_RA(0)",
                     "Get_Inst_Data_RonR_HOST_RA_Ln(0)",
                     "Get_Inst_Data_GUEST_RA",
                     "Get_Inst_Data_Host_RPN",
                     "Get_Inst_Data_Host_PageSize"};
    EXPECT_EQ(asked_by_first(load_of(translated(24))), whole_commit({.data = walk}));
}

TEST_F(Query_Order, load_of_one_level_under_each_mode)
{
    for (int mode = 0; mode <= 38; ++mode)
        for (bool relocated : {false, true})
            EXPECT_EQ(asked_by_first(load_of(translated(mode, false, relocated))),
                      whole_commit({.data = long_names(one_level_words(mode), true)}))
                << "mode " << mode;
}

TEST_F(Query_Order, load_of_two_levels_under_each_mode_of_the_fetch_privilege_and_relocation)
{
    for (int mode = 0; mode <= 38; ++mode)
        for (bool privileged : {false, true})
            for (bool relocated : {false, true}) {
                kernel(privileged);
                const bool captured = relocated || !privileged;
                const std::string words = !captured    ? ""
                                          : mode == 14 ? guest_hpt
                                          : mode == 23 ? nested_walk(5, 4)
                                                       : "";
                // the fetch itself is of one level: only its mode counts
                EXPECT_EQ(asked_by_first(load_of(translated(25, true, relocated), translated(mode))),
                          whole_commit({.fetch = long_names(one_level_words(mode), false),
                                        .data = privilege + long_names(words, true)}))
                    << "mode " << mode << " kernel " << privileged << " relocated " << relocated;
            }
}

TEST_F(Query_Order, nested_walk_of_a_load_by_guest_and_host_depth)
{
    for (int g = 1; g <= 5; ++g)
        for (int h = 1; h <= 4; ++h)
            EXPECT_EQ(asked_by_first(load_of(translated(23, true, true, h, g), translated(23, true, true, h, g))),
                      whole_commit({.fetch = privilege + long_names(nested_walk(g, h), false),
                                    .data = privilege + long_names(nested_walk(g, h), true)}))
                << "guest " << g << " host " << h;
}

TEST_F(Query_Order, stores_and_cache_instructions_ask_like_loads)
{
    const Names walk = long_names(host_radix, true);
    EXPECT_EQ(asked_by_first({.store = true, .ea_valid = true, .data = translated(25)}),
              whole_commit({.data = walk}));
    EXPECT_EQ(asked_by_first({.cache = true, .ea_valid = true, .data = translated(25)}),
              whole_commit({.data = walk}));
}

TEST_F(Query_Order, access_without_an_address_or_address_without_an_access_asks_for_no_translation)
{
    EXPECT_EQ(asked_by_first({.load = true, .data = translated(25)}), whole_commit({}));
    EXPECT_EQ(asked_by_first({.cache = true, .data = translated(23, true, true)}), whole_commit({}));
    EXPECT_EQ(asked_by_first({.ea_valid = true, .data = translated(25)}), whole_commit({}));
}

TEST_F(Query_Order, everything_at_once)
{
    m.start_with_text();
    asked_by({});
    EXPECT_EQ(asked_by({.branch = true,
                        .load = true,
                        .string = true,
                        .ea_valid = true,
                        .fetch = translated(14, true, false),
                        .data = translated(30)}),
              whole_commit({.change = both_changes,
                            .fetch = privilege + long_names(guest_hpt, false),
                            .branches = branch,
                            .data = long_names(host_radix, true),
                            .strings = string,
                            .name = text}));
}

TEST_F(Query_Order, pre_execution_asks_for_the_thread_and_cycle_mode)
{
    m.start();
    m.forget_queries();
    replay::Instruction instruction;
    Event_Instruction_PreExecution(replay::handle_of(instruction));
    EXPECT_EQ(m.queries(), (Names{"Get_Inst_ThreadId", "In_Cycle_Mode"}));
}
