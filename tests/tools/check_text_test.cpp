// `qtrace check --text` on a trace and its text written by hand: each thing that can differ is changed in the text, and
// the rule about it alone must be violated.
#include "check_pte.h"
#include "check_text.h"
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <sstream>

using namespace planted;
using nlohmann::json;
using testing::HasSubstr;

namespace
{

Item with_data(uint32_t word, uint64_t address, Case translation)
{
    Item item{false, {}, "", plain_record(word)};
    item.record.header.control.fld.data_address_present = 1;
    std::memcpy(item.record.data_ea, &address, sizeof(address));
    set_case(item, Side::data, translation);
    return item;
}

Item jump(uint64_t next, Case translation, uint8_t node)
{
    Item item{false, {}, "", plain_record(0x48001000)};
    auto &flags = item.record.header.control.fld;
    flags.iar_change_present = flags.node_present = flags.next_instruction_EA_present = 1;
    item.record.node = node;
    std::memcpy(item.record.next_instruction_ea, &next, sizeof(next));
    set_case(item, Side::next, translation);
    return item;
}

Item with_registers()
{
    Item item{false, {}, "", plain_record(0x7c6484aa)};
    item.record.header.control.fld.length_present = 1;
    item.record.length = 16;
    item.record.header.control.fld.register_trace_present = 1;
    QTRACE_REGISTERS &registers = item.record.regs;
    registers.num_gprs_in = 2;
    registers.gpr_in[0] = {4, 0x2000};
    registers.gpr_in[1] = {5, 0x11};
    registers.num_fprs_in = 1;
    registers.fpr_in[0] = {1, 0x3ff0000000000000};
    registers.num_sprs_out = 1;
    registers.spr_out[0] = {8, 0x77};
    registers.num_vmxrs_out = 1;
    registers.vmxr_out[0] = {2, {0x1111111111111111, 0x2222222222222222}};
    registers.num_vsxrs_out = 1;
    registers.vsxr_out[0] = {34, {0x1122334455667788, 0x99aabbccddeeff00}};
    return item;
}

Trace described_trace()
{
    const Trace good = good_trace();
    Item untaken = good[UNTAKEN_BRANCH];
    untaken.record.node = untaken.record.termination_node = 5;
    return {
        good[FIRST_HEADER],                          // single walk
        good[FIRST_RECORD],                          // 0x1000
        jump(0x2000, Case::nested, 1),               // 0x1004
        jump(0x3000, Case::hpt, 2),                  // 0x2000
        jump(0x4000, Case::single, 3),               // 0x3000
        jump(0x5000, Case::single, 4),               // 0x4000
        with_data(0x80640010, 0x6010, Case::nested), // 0x5000
        good[PARTITION],
        with_data(0x90640000, 0x7000, Case::hpt),    // 0x5004
        with_data(0xe8640008, 0x5008, Case::single), // 0x5008
        with_registers(),                            // 0x500c
        untaken,                                     // 0x5010
        good[PLAIN],                                 // 0x5014
        good[SECOND_HEADER],                         // real
        good[RESUMED],                               // 0x4000
    };
}

const std::string COMMENT =
    "KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:\n";

// A record line up to the translation.
std::string line(const char *modes, const char *process, const char *word, const char *flags)
{
    return std::string("(seq:1,tid:0) ") + modes + " (" + process +
           ",ptcr:0x0000000000C0000C) (USER,SIMP) (commit:1)" + "(instbody:" + word + ") {name:any (I:9) name} " +
           flags;
}

const char *const RADIX = "(xlatetype_I:Z7_HostRadixProcessScoped) (xlatetype_D:RADIX_MODE_NOT_YET_SET)";
const char *const FIRST = "pid:7,lpid:1", *const SECOND = "pid:8,lpid:2";

std::string described_text()
{
    return "*** FILE HEADER INSERTED *** \n" + COMMENT +
           line(RADIX, FIRST, "0x38600001", "(I:0) (N:0) (T:0) (PC:0x1000) (nextPC:0x1004) (done) \n") +
           line(RADIX, FIRST, "0x48001000",
                "(I:1) (N:1) (T:0) (PC:0x1004) (nextPC:0x2000) (nn:1) (done) (branch taken) \n") +
           line("(xlatetype_I:Z7_GuestRadixOnHostRadix) (xlatetype_D:RADIX_MODE_NOT_YET_SET)", FIRST, "0x48001000",
                "(I:1) (N:1) (T:0) (PC:0x2000) (nextPC:0x3000) (nn:2) (HostPageSize:1, GuestPageSize:1) "
                "(iar_Guest_RAs: (iar_gRTPDE_L1_RA:0x60000 iar_gRTPDE_L2_RA:0x60008 iar_gRTPTE_RA:0x60010 "
                "iar_gRA:0x70000) ) "
                "(iar_Host_RTWs_Block:1 (iar_hRTPDE_L1_RA:0x10000)(iar_hRTPDE_L2_RA:0x20000)"
                "(iar_hRTPDE_L3_RA:0x30000)(iar_hRTPTE_L4_RA:0x40000)(iar_hRTW_host_Block1_RA:0x50000)) "
                "(iar_Host_RTWs_Block:2 (iar_hRTPDE_L1_RA:0x10008)(iar_hRTPTE_L4_RA:0x40008)"
                "(iar_hRTW_host_Block2_RA:0x50008)) "
                "(iar_Host_RTWs_Block:3 (iar_hRTPDE_L1_RA:0x10010)(iar_hRTPTE_L4_RA:0x40010))"
                "(iar_RPN:0x00000012)(done) (branch taken) \n") +
           line("(xlatetype_I:Z7_HostHptSTEGroup) (xlatetype_D:RADIX_MODE_NOT_YET_SET)", FIRST, "0x48001000",
                "(I:1) (N:1) (T:0) (PC:0x3000) (nextPC:0x4000) (nn:3) (VSID:0x0000000000000100, RPN:0x00000012, "
                "HostPageSize:1) (done) (branch taken) \n") +
           line(RADIX, FIRST, "0x48001000",
                "(I:1) (N:1) (T:0) (PC:0x4000) (nextPC:0x5000) (nn:4) (HostPageSize:1) (iar_Host_RTW_Depth:3 "
                "(iar_hRTPDE_L1_RA:0x100, iar_hRTPDE_L2_RA:0x0, iar_hRTPDE_L3_RA:0x0, iar_hRTPTE_RA:0x200) )"
                "(iar_RPN:0x00000012)(done) (branch taken) \n") +
           line("(xlatetype_I:Z7_HostRadixProcessScoped) (xlatetype_D:Z7_GuestRadixOnHostRadix)", FIRST,
                "0x80640010",
                "(I:0) (N:0) (T:0) (PC:0x5000) (nextPC:0x5004) (done) (DEA:0x6010(HostPageSize:1, GuestPageSize:1) "
                "(data_Guest_RAs: (data_gRTPDE_L1_RA:0x60000 data_gRTPDE_L2_RA:0x60008 data_gRTPTE_RA:0x60010 "
                "data_gRA:0x70000) ) "
                "(data_Host_RTWs_Block:3 (data_hRTPDE_L2_RA:0x20010)(data_hRTPTE_L4_RA:0x40010))"
                "(data_RPN:0x00000012)) \n") +
           "Partition Change: pid:8,lpid:2)\n" +
           line("(xlatetype_I:Z7_HostRadixProcessScoped) (xlatetype_D:Z7_HostHptSTEGroup)", SECOND, "0x90640000",
                "(I:0) (N:0) (T:0) (PC:0x5004) (nextPC:0x5008) (done) (DEA:0x7000, VSID:0x0000000000000100, "
                "RPN:0x00000012, HostPageSize:1) \n") +
           line("(xlatetype_I:Z7_HostRadixProcessScoped) (xlatetype_D:Z7_HostRadixProcessScoped)", SECOND,
                "0xe8640008",
                "(I:0) (N:0) (T:0) (PC:0x5008) (nextPC:0x500c) (done) (DEA:0x5008(HostPageSize:1) "
                "(data_Host_RTW_Depth:3 (data_hRTPDE_L1_RA:0x100, data_hRTPDE_L2_RA:0x0, data_hRTPDE_L3_RA:0x0, "
                "data_hRTPTE_RA:0x200) )(data_RPN:0x00000012)) \n") +
           line(
               RADIX, SECOND, "0x7c6484aa",
               "(I:0) (N:0) (T:0) (PC:0x500c) (nextPC:0x5010) (done) (len:16) (Input Reg 0(r4):0x0000000000002000) "
               "(Input Reg 1(r5):0x0000000000000011) (Input Reg 2(f1):0x3FF0000000000000) "
               "(Output Reg 0(s8):0x0000000000000077) "
               "(Output Reg 1(v2):0x22222222222222221111111111111111) "
               "(Output Reg 2(v34):0x99AABBCCDDEEFF001122334455667788) \n") +
           line(RADIX, SECOND, "0x41820010",
                "(I:0) (N:1) (T:1) (PC:0x5010) (nextPC:0x5014) (nn:5) (done) (branch untaken) \n") +
           line(RADIX, SECOND, "0x60000000", "(I:0) (N:0) (T:0) (PC:0x5014) (nextPC:0x5018) (done) \n") +
           "*** PAUSE collection for thread 0\n*** RESUME collection for thread 0\n"
           "*** FILE HEADER INSERTED *** \n" +
           COMMENT +
           line("(xlatetype_I:HypervisorRealModeHRMOR) (xlatetype_D:RADIX_MODE_NOT_YET_SET)", FIRST, "0x38600001",
                "(I:0) (N:0) (T:0) (PC:0x4000) (nextPC:0x4004) (done) \n");
}

// One piece of the text, what stands there instead, and the rules that are violated then, each once.
struct Text_Change {
    std::string piece, instead;
    json violations;
};

const Text_Change TEXT_CHANGES[] = {
    {"thread 0\n*** FILE HEADER INSERTED",
     "thread 0\n*** FILE HEADER ADDED",
     {{"text-header", 1}, {"text-line", 1}, {"text-end", 1}}},
    {"KelvoVer:3,", "KelvoVer:4,", {{"text-comment", 1}}},
    {"GuestPagesUsed:\n", "GuestPagesUsed: \n", {{"text-comment", 1}}},
    {"Change: pid:8", "Change: pid:9", {{"text-partition", 1}}},
    {"Change: pid:8,lpid:2", "Change: pid:8,lpid:3", {{"text-partition", 1}}},
    {"lpid:2)\n", "lpid:2\n", {{"text-partition", 1}}},
    // lpid and pid are compared where a header tells them
    {"pid:7,lpid:1", "pid:6,lpid:1", {{"text-partition", 1}}},
    {"pid:7,lpid:1", "pid:7,lpid:0", {{"text-partition", 1}}},
    {"(pid:8,lpid:2", "(pid:9,lpid:2", {{"text-partition", 1}}},
    {"(seq:1,tid:0) ", "(sea:1,tid:0) ", {{"text-line", 1}}},
    {"{name:any", "{nome:any", {{"text-line", 1}}},
    {"instbody:0x38600001", "instbody:0x38600003", {{"text-instruction", 1}}},
    {"(PC:0x1000)", "(PC:0x1004)", {{"text-address", 1}}},
    {"(PC:0x5010)", "(PC:0x15010)", {{"text-address", 1}}},
    {"(I:0) (N:0) (T:0) (PC:0x1000)", "(I:1) (N:0) (T:0) (PC:0x1000)", {{"text-change", 1}}},
    {"(I:1) (N:1) (T:0) (PC:0x2000)", "(I:0) (N:1) (T:0) (PC:0x2000)", {{"text-change", 1}}},
    {"(I:0) (N:0) (T:0) (PC:0x1000)", "(I:0) (N:1) (T:0) (PC:0x1000)", {{"text-node", 1}}},
    {"(N:1) (T:1) (PC:0x5010)", "(N:0) (T:1) (PC:0x5010)", {{"text-node", 1}}},
    {"(I:0) (N:0) (T:0) (PC:0x1000)", "(I:0) (N:0) (T:1) (PC:0x1000)", {{"text-termination", 1}}},
    {"(N:1) (T:1) (PC:0x5010)", "(N:1) (T:0) (PC:0x5010)", {{"text-termination", 1}}},
    {"(nn:1)", "(nn:0)", {{"text-node-number", 1}}},
    {"(nn:5)", "(nn:8)", {{"text-node-number", 2}}}, // node and termination node
    {"(nextPC:0x2000)", "(nextPC:0x2004)", {{"text-next-address", 1}}},
    {"(nextPC:0x5000)", "(nextPC:0x1005000)", {{"text-next-address", 1}}},
    {"(branch untaken)", "(branch taken)", {{"text-branch", 1}}},
    {"(DEA:0x6010", "(DEA:0x6014", {{"text-data-address", 1}}},
    {"(DEA:0x7000", "(DEA:0x17000", {{"text-data-address", 1}}},
    {"(PC:0x1000) ", "(PC:0x1000) (DEA:0x0) ", {{"text-data-address", 1}}},
    {"(PC:0x1000) ", "(PC:0x1000) (DEA:0x4) ", {{"text-data-address", 1}}},
    {"(len:16)", "(len:17)", {{"text-length", 1}}},
    {"(len:16) ", "", {{"text-length", 1}}},
    {"(PC:0x1000) ", "(PC:0x1000) (len:0) ", {{"text-length", 1}}},
    {"(PC:0x1000) ", "(PC:0x1000) (len:4) ", {{"text-length", 1}}},
    {"(r4):0x0000000000002000", "(r4):0x0000000000002001", {{"text-registers", 1}}},
    {"(r4):0x00", "(r4):0x10", {{"text-registers", 1}}},
    {"(r5)", "(r6)", {{"text-registers", 1}}},
    {"(f1):0x3FF", "(f1):0x3FE", {{"text-registers", 1}}},
    {"(s8):0x0000000000000077", "(s8):0x0000000000000076", {{"text-registers", 1}}},
    {"(s8)", "(s9)", {{"text-registers", 1}}},
    {"(v2):0x2222222222222222", "(v2):0x2222222222222223", {{"text-registers", 1}}},
    {"1111111111111111)", "1111111111111110)", {{"text-registers", 1}}},
    {"(v2)", "(v3)", {{"text-registers", 1}}},
    {"0x99AABBCCDDEEFF00", "0x99AABBCCDDEEFF01", {{"text-registers", 1}}},
    {"1122334455667788)", "0122334455667788)", {{"text-registers", 1}}},
    {"(v34)", "(v35)", {{"text-registers", 1}}},
    {"(Input Reg 1(r5):0x0000000000000011) ", "", {{"text-registers", 1}}},
    {"(Input Reg 2(f1):0x3FF0000000000000) ", "", {{"text-registers", 1}}},
    {"(Output Reg 2(v34)",
     "(Output Reg 2(v34):0x00000000000000000000000000000000) (Output Reg 3(v35)",
     {{"text-registers", 3}}}, // both words, and the number
    {"(Output Reg 0(s8)", "(Output Reg 0(r9):0x0000000000000001) (Output Reg 0(s8)", {{"text-registers", 1}}},
    {"(PC:0x1000) ", "(PC:0x1000) (Input Reg 0(f0):0x0000000000000000) ", {{"text-registers", 1}}},
    {"(Output Reg 1(v2)", "(Output Reg 1(s9):0x0000000000000001) (Output Reg 1(v2)", {{"text-registers", 1}}},
    // the address of the data
    {"(xlatetype_D:Z7_HostHptSTEGroup)", "(xlatetype_D:Z7_HostRadixProcessScoped)", {{"text-data-mode", 1}}},
    {"(xlatetype_D:Z7_GuestRadixOnHostRadix)", "(xlatetype_D:VirtualRealMode)", {{"text-data-mode", 1}}},
    {"(xlatetype_D:RADIX_MODE_NOT_YET_SET)", "(xlatetype_D:VirtualRealMode)", {{"text-data-mode", 1}}},
    {"(DEA:0x7000, VSID:0x0000000000000100",
     "(DEA:0x7000, VSID:0x0000000000000200",
     {{"text-data-translation", 1}}},
    {"(DEA:0x7000, VSID:0x0000000000000100, RPN:0x00000012",
     "(DEA:0x7000, VSID:0x0000000000000100, RPN:0x00000013",
     {{"text-data-translation", 1}}},
    {"RPN:0x00000012, HostPageSize:1) \n", "RPN:0x00000012, HostPageSize:2) \n", {{"text-data-translation", 1}}},
    {"(DEA:0x6010(HostPageSize:1, GuestPageSize:1)",
     "(DEA:0x6010(HostPageSize:1, GuestPageSize:2)",
     {{"text-data-translation", 1}}},
    {"(DEA:0x5008(HostPageSize:1)", "(DEA:0x5008(HostPageSize:0)", {{"text-data-translation", 1}}},
    {"data_hRTPTE_RA:0x200) )(data_RPN:0x00000012",
     "data_hRTPTE_RA:0x200) )(data_RPN:0x80000012",
     {{"text-data-translation", 1}}},
    {"data_hRTPDE_L1_RA:0x100", "data_hRTPDE_L1_RA:0x101", {{"text-data-walk", 1}}},
    {"data_hRTPDE_L2_RA:0x0,", "data_hRTPDE_L2_RA:0x1,", {{"text-data-walk", 1}}},
    {"data_hRTPDE_L3_RA:0x0,", "data_hRTPDE_L3_RA:0x1,", {{"text-data-walk", 1}}},
    {"data_hRTPTE_RA:0x200", "data_hRTPTE_RA:0x201", {{"text-data-walk", 1}}},
    // what the trace does not tell
    {"(DEA:0x5008(HostPageSize:1)", "(DEA:0x5008(HostPageSize:1, VSID:0x0000000000000100)", json::object()},
    {"data_gRTPDE_L1_RA:0x60000", "data_gRTPDE_L1_RA:0x60001", {{"text-data-walk", 1}}},
    {"data_gRTPTE_RA:0x60010", "data_gRTPTE_RA:0x60011", {{"text-data-walk", 1}}},
    {"data_gRA:0x70000", "data_gRA:0x70001", {{"text-data-walk", 1}}},
    {"data_hRTPDE_L2_RA:0x20010", "data_hRTPDE_L2_RA:0x20008", {{"text-data-walk", 1}}},
    {"data_Host_RTWs_Block:3", "data_Host_RTWs_Block:2", {{"text-data-walk", 2}}},
    // the instruction's own address
    {"(xlatetype_I:Z7_HostRadixProcessScoped)", "(xlatetype_I:VirtualRealMode)", {{"text-instruction-mode", 1}}},
    {"(xlatetype_I:Z7_GuestRadixOnHostRadix)", "(xlatetype_I:VirtualRealMode)", {{"text-instruction-mode", 1}}},
    {"(xlatetype_I:Z7_HostHptSTEGroup)", "(xlatetype_I:VirtualRealMode)", {{"text-instruction-mode", 1}}},
    {"(xlatetype_I:HypervisorRealModeHRMOR)", "(xlatetype_I:VirtualRealMode)", {{"text-instruction-mode", 1}}},
    {"(VSID:0x0000000000000100", "(VSID:0x0000000000000000", {{"text-fetch-translation", 1}}},
    {"100, RPN:0x00000012, HostPageSize:1) (done)",
     "100, RPN:0x00000010, HostPageSize:1) (done)",
     {{"text-fetch-translation", 1}}},
    {"HostPageSize:1) (done)", "HostPageSize:3) (done)", {{"text-fetch-translation", 1}}},
    {"(nn:2) (HostPageSize:1, GuestPageSize:1)",
     "(nn:2) (HostPageSize:1, GuestPageSize:0)",
     {{"text-fetch-translation", 1}}},
    {"(nn:4) (HostPageSize:1)", "(nn:4) (HostPageSize:2)", {{"text-fetch-translation", 1}}},
    {"(iar_RPN:0x00000012)", "(iar_RPN:0x00000013)", {{"text-fetch-translation", 1}}},
    {"iar_gRTPDE_L1_RA:0x60000", "iar_gRTPDE_L1_RA:0x60008", {{"text-fetch-walk", 1}}},
    {"iar_gRTPDE_L2_RA:0x60008", "iar_gRTPDE_L2_RA:0x60000", {{"text-fetch-walk", 1}}},
    {"iar_gRTPTE_RA:0x60010", "iar_gRTPTE_RA:0x60000", {{"text-fetch-walk", 1}}},
    {"iar_gRTPTE_RA:0x60010", "iar_gRTPDE_L3_RA:0x1 iar_gRTPTE_RA:0x60010", {{"text-fetch-walk", 1}}},
    {"iar_gRA:0x70000", "iar_gRA:0x70008", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L1_RA:0x10000", "iar_hRTPDE_L1_RA:0x10008", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L2_RA:0x20000", "iar_hRTPDE_L2_RA:0x20008", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L3_RA:0x30000", "iar_hRTPDE_L3_RA:0x30008", {{"text-fetch-walk", 1}}},
    {"iar_hRTPTE_L4_RA:0x40000", "iar_hRTPTE_L4_RA:0x40008", {{"text-fetch-walk", 1}}},
    {"iar_hRTW_host_Block1_RA:0x50000", "iar_hRTW_host_Block1_RA:0x50008", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L1_RA:0x10008", "iar_hRTPDE_L1_RA:0x10000", {{"text-fetch-walk", 1}}},
    {"iar_hRTPTE_L4_RA:0x40008", "iar_hRTPTE_L4_RA:0x40010", {{"text-fetch-walk", 1}}},
    {"iar_hRTW_host_Block2_RA:0x50008", "iar_hRTW_host_Block2_RA:0x50000", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L1_RA:0x10010", "iar_hRTPDE_L1_RA:0x10018", {{"text-fetch-walk", 1}}},
    {"iar_hRTPTE_L4_RA:0x40010", "iar_hRTPTE_L4_RA:0x40008", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L1_RA:0x100,", "iar_hRTPDE_L1_RA:0x10,", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L2_RA:0x0,", "iar_hRTPDE_L2_RA:0x8,", {{"text-fetch-walk", 1}}},
    {"iar_hRTPDE_L3_RA:0x0,", "iar_hRTPDE_L3_RA:0x8,", {{"text-fetch-walk", 1}}},
    {"iar_hRTPTE_RA:0x200", "iar_hRTPTE_RA:0x20", {{"text-fetch-walk", 1}}},
};

json violations(const Folder &folder, const std::string &text)
{
    const std::string file = folder.write("trace0", described_trace());
    const Outcome outcome = qtrace({"check", "--json", "--text", folder.text("text0", text), file});
    std::istringstream lines(outcome.out);
    std::string last;
    for (std::string next; std::getline(lines, next);)
        last = next;
    const json summary = json::parse(last);
    return summary.contains("violations") ? summary["violations"] : json::object();
}

} // namespace

TEST(check_text, finds_nothing_in_the_text_of_the_trace)
{
    const Folder folder;
    EXPECT_EQ(violations(folder, described_text()), json::object());
}

TEST(check_text, finds_each_change_of_the_text)
{
    const Folder folder;
    const std::string text = described_text();
    for (const Text_Change &change : TEXT_CHANGES) {
        const size_t at = text.find(change.piece);
        ASSERT_NE(at, std::string::npos) << change.piece;
        std::string changed = text;
        changed.replace(at, change.piece.size(), change.instead);
        EXPECT_EQ(violations(folder, changed), change.violations) << change.piece << " -> " << change.instead;
    }
}

TEST(check_text, finds_texts_that_end_early_or_late)
{
    const Folder folder;
    const std::string text = described_text();
    const size_t last = text.rfind("\n", text.size() - 2) + 1;
    EXPECT_EQ(violations(folder, text.substr(0, last)), json({{"text-end", 1}}));
    EXPECT_EQ(violations(folder, text + text.substr(last)), json({{"text-end", 1}}));
    EXPECT_EQ(violations(folder, text + "x"), json({{"text-end", 1}}));
    EXPECT_EQ(violations(folder, text + "*** PAUSE collection for thread 0\n"), json::object());
    EXPECT_EQ(violations(folder, text.substr(0, text.size() - 1)), json::object()); // without the last newline
}

TEST(check_text, shows_both_values_and_the_line)
{
    const Folder folder;
    std::string text = described_text();
    text.replace(text.find("(len:16)"), 8, "(len:17)");
    const std::string file = folder.write("trace0", described_trace());
    EXPECT_THAT(qtrace({"check", "--text", folder.text("text0", text), file}).out,
                HasSubstr("the length is 0x11 in the text, 0x10 in the trace"));
    EXPECT_THAT(
        qtrace({"check", "--text", folder.text("text0", described_text() + "y" + std::string(70, 'x')), file}).out,
        testing::StartsWith(file + ": record 0: text line 20: the text goes on after the trace: `y" +
                            std::string(59, 'x') + "` [text-end]\n"));
    EXPECT_THAT(
        qtrace({"check", "--text", folder.text("text0", "*** FILE HEADER INSERTED *** \n" + COMMENT + "y"), file})
            .out,
        HasSubstr("not a record line: `y`"));
    const std::string end = "y" + std::string(70, 'x');
    EXPECT_THAT(
        qtrace({"check", "--text", folder.text("text0", "*** FILE HEADER INSERTED *** \n" + COMMENT + end), file})
            .out,
        HasSubstr("not a record line: `y" + std::string(59, 'x') + "`"));
    text = described_text();
    text.insert(text.find("(Output Reg 2(v34)"), "(Output Reg 2(v34):0x00000000000000000000000000000000) ");
    EXPECT_THAT(qtrace({"check", "--text", folder.text("text0", text), file}).out,
                HasSubstr("the number of vsxr_out is 0x2 in the text, 0x1 in the trace"));
}

// ---- Registers that a record cannot hold ---------------------------------------------------------------

namespace
{

// An instruction with that many vector registers in the text; a record holds three of a direction.
json violations_with_vectors(const Folder &folder, const std::string &outputs)
{
    Item item{false, {}, "", plain_record(0x10000000)};
    item.record.header.control.fld.register_trace_present = 1;
    QTRACE_REGISTERS &registers = item.record.regs;
    registers.num_vmxrs_out = 3;
    for (uint16_t i = 0; i < 3; i++)
        registers.vmxr_out[i] = {i, {i + 1u, 0}};
    const std::string file = folder.write("trace0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], item});
    const std::string text =
        "*** FILE HEADER INSERTED *** \n" + COMMENT +
        line(RADIX, FIRST, "0x38600001", "(I:0) (N:0) (T:0) (PC:0x1000) (nextPC:0x1004) (done) \n") +
        line(RADIX, FIRST, "0x10000000", "(I:0) (N:0) (T:0) (PC:0x1004) (nextPC:0x1008) (done) ") + outputs + "\n";
    const Outcome outcome = qtrace({"check", "--json", "--text", folder.text("text0", text), file});
    const json summary = json::parse(outcome.out.substr(outcome.out.rfind("{\"file\"")));
    return summary.contains("violations") ? summary["violations"] : json::object();
}

std::string vector_output(unsigned ordinal, unsigned number, unsigned value)
{
    return "(Output Reg " + std::to_string(ordinal) + "(v" + std::to_string(number) +
           "):0x0000000000000000000000000000000" + std::to_string(value) + ") ";
}

} // namespace

TEST(check_text, accepts_a_fourth_vector_register_that_the_record_cannot_hold)
{
    const Folder folder;
    const std::string three = vector_output(0, 0, 1) + vector_output(1, 1, 2) + vector_output(2, 2, 3);
    EXPECT_EQ(violations_with_vectors(folder, three), json::object());
    EXPECT_EQ(violations_with_vectors(folder, three + vector_output(3, 3, 4)), json::object());
    EXPECT_EQ(violations_with_vectors(folder, vector_output(0, 0, 1) + vector_output(1, 1, 2)),
              json({{"text-registers", 1}}));
    EXPECT_EQ(violations_with_vectors(folder, vector_output(0, 0, 1) + vector_output(1, 1, 2) +
                                                  vector_output(2, 2, 4) + vector_output(3, 3, 4)),
              json({{"text-registers", 1}}));
    EXPECT_EQ(violations_with_vectors(folder, three + vector_output(3, 34, 4)), json({{"text-registers", 1}}));
    EXPECT_EQ(violations_with_vectors(folder, three + vector_output(3, 3, 4) + vector_output(4, 4, 4)),
              json({{"text-registers", 1}}));
}

namespace
{

// Of a record with these vector and vector-scalar registers, and a text that lists those; every value is 1.
json violations_with_lists(const Folder &folder, unsigned vectors, const std::vector<uint16_t> &scalars,
                           const std::vector<unsigned> &listed)
{
    Item item{false, {}, "", plain_record(0x10000000)};
    item.record.header.control.fld.register_trace_present = 1;
    QTRACE_REGISTERS &registers = item.record.regs;
    for (uint16_t i = 0; i < vectors; i++)
        registers.vmxr_out[registers.num_vmxrs_out++] = {i, {1, 0}};
    for (const uint16_t index : scalars)
        registers.vsxr_out[registers.num_vsxrs_out++] = {index, {1, 0}};
    const std::string file = folder.write("trace0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], item});
    std::string text = "*** FILE HEADER INSERTED *** \n" + COMMENT +
                       line(RADIX, FIRST, "0x38600001", "(I:0) (N:0) (T:0) (PC:0x1000) (nextPC:0x1004) (done) \n") +
                       line(RADIX, FIRST, "0x10000000", "(I:0) (N:0) (T:0) (PC:0x1004) (nextPC:0x1008) (done) ");
    for (unsigned i = 0; i < listed.size(); i++)
        text += vector_output(i, listed[i], 1);
    const Outcome outcome = qtrace({"check", "--json", "--text", folder.text("text0", text + "\n"), file});
    const json summary = json::parse(outcome.out.substr(outcome.out.rfind("{\"file\"")));
    return summary.contains("violations") ? summary["violations"] : json::object();
}

} // namespace

TEST(check_text, tells_vector_registers_from_vector_scalar_ones_of_the_same_letter)
{
    const Folder folder;
    const json none = json::object();
    const auto wrong = [](int count) { return json({{"text-registers", count}}); };
    EXPECT_EQ(violations_with_lists(folder, 2, {34}, {0, 1, 34}), none);
    EXPECT_EQ(violations_with_lists(folder, 2, {34}, {0, 1, 2, 34}), wrong(2)); // another number, and one too many
    EXPECT_EQ(violations_with_lists(folder, 3, {34}, {0, 1, 2, 34}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {34}, {0, 1, 2, 3, 34}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {}, {0, 1, 2, 31}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {}, {0, 1, 2, 32}), wrong(1));
    EXPECT_EQ(violations_with_lists(folder, 3, {}, {0, 1, 2, 3, 4}), wrong(1));
    EXPECT_EQ(violations_with_lists(folder, 3, {34, 35}, {0, 1, 2, 34, 35}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {34, 35}, {0, 1, 2, 34, 35, 36}),
              wrong(2)); // it is taken for a vector
    EXPECT_EQ(violations_with_lists(folder, 3, {34, 35, 36}, {0, 1, 2, 34, 35, 36}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {34, 35, 36}, {0, 1, 2, 3, 34, 35, 36}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {34, 35, 36}, {0, 1, 2, 34, 35, 36, 37}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {34, 35, 36}, {0, 1, 2, 3, 34, 35, 36, 37}), none);
    EXPECT_EQ(violations_with_lists(folder, 3, {34, 35, 36}, {0, 1, 2, 34, 35}), wrong(1));
    EXPECT_EQ(violations_with_lists(folder, 0, {34}, {34}), none);
    EXPECT_EQ(violations_with_lists(folder, 0, {34}, {}), wrong(1));
}

// ---- A line taken apart ----------------------------------------------------------------------------------

namespace
{

qtrace_tool::Text_Line parsed(const std::string &end)
{
    qtrace_tool::Text_Line line;
    EXPECT_TRUE(
        qtrace_tool::parse_text_line("(seq:1,tid:2) (xlatetype_I:AA) (xlatetype_D:BB) "
                                     "(pid:-2,lpid:-3,ptcr:0x1F) (instbody:0xFEDCBA98) {name:PC:7 (I:5)} (I:1) " +
                                         end,
                                     line));
    return line;
}

std::vector<std::string> entries(const qtrace_tool::Text_Translation &translation)
{
    std::vector<std::string> list;
    for (const auto &entry : translation.entries)
        list.push_back(fmt::format("{} {} {:x}", entry.host_walk, entry.label, entry.address));
    return list;
}

} // namespace

TEST(parse_text_line, takes_every_item)
{
    const qtrace_tool::Text_Line line =
        parsed("(N:0) (T:2) (PC:0xFFFFFFFFFFFFFFFC) (nextPC:0x12) (nn:-1) (done) (branch taken) (len:16) "
               "(VSID:0xABCDEF12, RPN:0x34, HostPageSize:3, GuestPageSize:4) (DEA:0x6010)");
    EXPECT_EQ(line.instruction_mode, "AA");
    EXPECT_EQ(line.data_mode, "BB");
    EXPECT_EQ(line.pid, 0xFFFFFFFEu);
    EXPECT_EQ(line.lpid, 0xFFFFFFFFFFFFFFFDu);
    EXPECT_EQ(line.ptcr, 0x1Fu);
    EXPECT_EQ(line.word, 0xFEDCBA98u);
    EXPECT_TRUE(line.change);
    EXPECT_FALSE(line.node);
    EXPECT_TRUE(line.termination);
    EXPECT_EQ(line.address, 0xFFFFFFFFFFFFFFFCu);
    EXPECT_EQ(line.next, 0x12u);
    EXPECT_EQ(line.nn, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(line.branch, "taken");
    EXPECT_EQ(line.length, 16u);
    EXPECT_EQ(line.data, 0x6010u);
    EXPECT_EQ(line.fetch_translation.vsid, 0xABCDEFu);
    EXPECT_EQ(line.fetch_translation.page_number, 0x34u);
    EXPECT_EQ(line.fetch_translation.page_size, 3u);
    EXPECT_EQ(line.fetch_translation.guest_page_size, 4u);
    EXPECT_FALSE(line.data_translation.vsid || line.data_translation.page_number ||
                 line.data_translation.page_size);
}

TEST(parse_text_line, leaves_absent_what_the_line_does_not_say)
{
    const qtrace_tool::Text_Line line = parsed("(done)");
    EXPECT_FALSE(line.nn || line.branch || line.data || line.length);
    EXPECT_FALSE(line.node || line.termination);
    EXPECT_EQ(line.address, 0u);
    EXPECT_EQ(line.next, 0u);
    EXPECT_TRUE(line.registers.empty());
    qtrace_tool::Text_Line empty;
    for (const char *other : {"(sec:1) {name:x} (I:0)", "(seq:1) (name:x} (I:0)", "(seq:1) {name:x} (N:0)", ""})
        EXPECT_FALSE(qtrace_tool::parse_text_line(other, empty)) << other;
    EXPECT_TRUE(qtrace_tool::parse_text_line("(seq:1) {name:x} (I:0)", empty));
    EXPECT_EQ(empty.pid, 0u);
    EXPECT_EQ(empty.lpid, 0u);
    EXPECT_EQ(empty.ptcr, 0u);
    EXPECT_EQ(empty.word, 0u);
    EXPECT_FALSE(empty.change);
}

TEST(parse_text_line, takes_branches_that_are_not_decided)
{
    EXPECT_EQ(parsed("(branch untaken) (done)").branch, "untaken");
    EXPECT_EQ(parsed("(unknown) (done)").branch, "unknown");
    EXPECT_FALSE(parsed("(taken) (branch:1) (done)").branch.has_value());
}

TEST(parse_text_line, takes_registers_of_one_or_two_words)
{
    const qtrace_tool::Text_Line line =
        parsed("(r9):0x5 (Input Reg 0(r4):0x0000000000002000) (Input Reg 1(r5):0x) (Input Reg 2(r6):0) (Output Reg "
               "0(r4):0x7) "
               "(Output Reg 1(v12):0x000000000000000A000000000000000B) (Output Reg 2(v3):0x10000000000000002)");
    ASSERT_EQ(line.registers.size(), 3u);
    const auto shown = [&](char letter, bool output) {
        std::string text;
        for (const qtrace_tool::Text_Register &entry : line.registers.at({letter, output}))
            text += fmt::format("{}={:x}:{:x} ", entry.index, entry.value[0], entry.value[1]);
        return text;
    };
    EXPECT_EQ(shown('r', false), "4=2000:0 5=0:0 ");
    EXPECT_EQ(shown('r', true), "4=7:0 ");
    EXPECT_EQ(shown('v', true), "12=b:a 3=2:1000000000000000 ");
}

TEST(parse_text_line, takes_registers_that_have_a_number)
{
    EXPECT_TRUE(parsed("(Input Reg 0(r):0x0000000000002000)").registers.empty());
}

TEST(parse_text_line, takes_the_entries_of_walks_by_host_walk_and_side)
{
    const qtrace_tool::Text_Line line = parsed(
        "(gRA:0x1) (iar_gRTPDE_L1_RA:0x2 gRA:0x3) (iar_Host_RTWs_Block:0 (hRTPTE_RA:0x4)) (Host_RTWs_Block:1 "
        "(hRTPTE_RA:0x5)) "
        "(Host_RTWs_Block:3 (vhRTPTE_RA:0x6)) (iar_Host_RTW_Depth:3 (iar_hRTPTE_RA:0x7)) (data_hRTPTE_RA:0x8) "
        "(data_VSID:0x900) (DEA:0x1) (Host_RTWs_Block:2 (hRTPTE_RA:0x9)) (iar_hRTPTE_RA:0xa) (RPN:0xb)");
    EXPECT_THAT(entries(line.fetch_translation),
                testing::ElementsAre("0 gRTPDE_L1_RA 2", "0 gRA 3", "0 hRTPTE_RA 4", "0 hRTPTE_RA 5",
                                     "2 hRTPTE_RA 6", "0 hRTPTE_RA 7"));
    EXPECT_THAT(entries(line.data_translation),
                testing::ElementsAre("0 hRTPTE_RA 8", "1 hRTPTE_RA 9", "1 hRTPTE_RA a"));
    EXPECT_EQ(line.data_translation.vsid, 9u);
    EXPECT_EQ(line.data_translation.page_number, 0xbu);
}

// ---- Other lines -----------------------------------------------------------------------------------------

namespace
{

const std::string BEGINNING =
    "*** FILE HEADER INSERTED *** \n" + COMMENT +
    line(RADIX, FIRST, "0x38600001", "(I:0) (N:0) (T:0) (PC:0x1000) (nextPC:0x1004) (done) \n");

json violations_of(const Folder &folder, const Trace &trace, const std::string &text)
{
    const std::string file = folder.write("trace0", trace);
    const Outcome outcome = qtrace({"check", "--json", "--text", folder.text("text0", text), file});
    const json summary = json::parse(outcome.out.substr(outcome.out.rfind("{\"file\"")));
    return summary.contains("violations") ? summary["violations"] : json::object();
}

} // namespace

TEST(check_text, takes_lines_of_up_to_131071_bytes_and_cuts_longer_ones)
{
    const Folder folder;
    const Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], good_trace()[PLAIN],
                         good_trace()[PLAIN]};
    const auto with_length = [&](size_t length) {
        std::string middle = line(RADIX, FIRST, "0x60000000", "(I:0) (N:0) (T:0) (nextPC:0x1008) (PC:0x1004)");
        middle.insert(middle.find("any"), std::string(length - middle.size(), 'x'));
        return violations_of(
            folder, trace,
            BEGINNING + middle + "\n" +
                line(RADIX, FIRST, "0x60000000", "(I:0) (N:0) (T:0) (PC:0x1008) (nextPC:0x100c)\n"));
    };
    for (const size_t length : {131070, 131071, 131072}) // the last byte says nothing
        EXPECT_EQ(with_length(length), json::object()) << length;
    for (const size_t length : {131073, 400000})
        EXPECT_EQ(with_length(length), json({{length == 131073 ? "text-address" : "text-line", 1}})) << length;
}

TEST(check_text, takes_negative_partitions)
{
    const Folder folder;
    Item partition = good_trace()[PARTITION];
    std::memset(partition.header.pid, 0xFF, sizeof partition.header.pid);
    std::memset(partition.header.lpid, 0xFF, sizeof partition.header.lpid);
    const Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], partition, good_trace()[PLAIN]};
    EXPECT_EQ(violations_of(folder, trace,
                            BEGINNING + "Partition Change: pid:-1,lpid:-1)\n" +
                                line(RADIX, "pid:-1,lpid:-1", "0x60000000",
                                     "(I:0) (N:0) (T:0) (PC:0x1004) (nextPC:0x1008) (done) \n")),
              json::object());
}

TEST(check_text, compares_with_a_header_only_where_there_is_one)
{
    const Folder folder;
    EXPECT_EQ(violations_of(folder, {good_trace()[PLAIN]},
                            line(RADIX, FIRST, "0x60000000", "(I:0) (N:0) (T:0) (PC:0x0) (nextPC:0x4) (done) \n")),
              json({{"record-before-header", 1}}));
}

TEST(check_text, compares_walks_of_translations_that_the_record_tells)
{
    const Folder folder;
    Item load = with_data(0xe8640008, 0x5008, Case::single);
    set_piece(load, Side::data, PAGE_NUMBER, false);
    set_piece(load, Side::data, PAGE_SIZE, false);
    EXPECT_EQ(violations_of(folder, {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], load},
                            BEGINNING + line("(xlatetype_I:Z7_HostRadixProcessScoped) "
                                             "(xlatetype_D:Z7_HostRadixProcessScoped)",
                                             FIRST, "0xe8640008",
                                             "(I:0) (N:0) (T:0) (PC:0x1004) (nextPC:0x1008) (DEA:0x5008 "
                                             "(data_Host_RTW_Depth:3 (data_hRTPTE_RA:0x201) )) \n")),
              json({{"data-walk-without-radix", 1}}));
}

TEST(check_text, compares_branches_that_the_record_decides)
{
    const Folder folder;
    const auto with_branch = [&](const Item &item, uint64_t next, const std::string &outcome) {
        const auto &flags = item.record.header.control.fld;
        return violations_of(
            folder, {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], item},
            BEGINNING + line(RADIX, FIRST, "0x41820010",
                             fmt::format("(I:{}) (N:{}) (T:{}) (PC:0x1004) (nextPC:0x{:x}) (nn:1) (branch {}) \n",
                                         unsigned{flags.iar_change_present}, unsigned{flags.node_present},
                                         unsigned{flags.termination_present}, next, outcome)
                                 .c_str()));
    };
    Item away = jump(0x2000, Case::single, 1); // goes on elsewhere
    away.record.header.instruction = 0x41820010;
    Item stays = good_trace()[UNTAKEN_BRANCH];
    stays.record.node = stays.record.termination_node = 1;
    Item open = good_trace()[PLAIN];
    open.record.header.instruction = 0x41820010;
    const json none = json({{"segment-continued", 1}}),
               wrong = json({{"segment-continued", 1}, {"text-branch", 1}});
    EXPECT_EQ(with_branch(away, 0x2000, "taken"), none);
    EXPECT_EQ(with_branch(away, 0x2000, "untaken"), none); // an interrupt after it
    EXPECT_EQ(with_branch(stays, 0x1008, "untaken"), none);
    EXPECT_EQ(with_branch(stays, 0x1008, "taken"), wrong);
    EXPECT_EQ(with_branch(stays, 0x2000, "taken"), wrong);
    EXPECT_EQ(with_branch(open, 0x1008, "taken"), json::object()); // the record does not tell
    EXPECT_EQ(with_branch(open, 0x1008, "untaken"), json::object());
    away.record.next_instruction_ea[0] = 8;
    away.record.next_instruction_ea[1] = 0x10;
    EXPECT_EQ(with_branch(away, 0x1008, "untaken"),
              json({{"change-to-next", 1}, {"segment-continued", 1}, {"text-branch", 1}}));
}

TEST(check_text, tells_which_outcome_of_a_branch_differs)
{
    const Folder folder;
    const auto told = [&](Item item, uint16_t next, const std::string &rest) {
        item.record.header.instruction = 0x41820010;
        std::memcpy(item.record.next_instruction_ea, &next, sizeof next);
        const std::string file =
            folder.write("trace0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], item});
        return qtrace({"check", "--text",
                       folder.text("text0", BEGINNING + line(RADIX, FIRST, "0x41820010", rest.c_str())), file})
            .out;
    };
    EXPECT_THAT(
        told(good_trace()[UNTAKEN_BRANCH], 0, "(I:0) (N:1) (T:1) (PC:0x1004) (nextPC:0x1008) (branch taken)\n"),
        HasSubstr("the control-flow change after a taken branch is 0x1 in the text, 0x0 in the trace"));
    EXPECT_THAT(told(jump(0x2000, Case::single, 1), 0x1008,
                     "(I:1) (N:1) (T:0) (PC:0x1004) (nextPC:0x1008) (branch untaken)\n"),
                HasSubstr("the control-flow change after an untaken branch is 0x0 in the text, 0x1 in the trace"));
}

TEST(check_text, compares_every_host_walk_that_a_record_has_and_no_other)
{
    const Folder folder;
    const auto with = [&](const std::string &entry) {
        std::string text = described_text();
        const std::string end = "(data_Host_RTWs_Block:3 (data_hRTPDE_L2_RA:0x20010)";
        text.insert(text.find(end), entry + " ");
        return violations(folder, text);
    };
    for (const char *none :
         {"(data_hRTW_host_Block0_RA:0x1)", "(data_hRTW_host_Block5_RA:0x1)", "(data_hRTW_host_Block4_RA:0x0)",
          "(data_Host_RTWs_Block:6 (data_hRTPDE_L1_RA:0x1))", "(data_Host_RTWs_Block:5 (data_hRTPDE_L1_RA:0x0))",
          "(data_Host_RTWs_Block:99 (data_hRTPDE_L1_RA:0x1))", "(data_gRTPDE_L4_RA:0x1)", "(data_hOther_RA:0x1)",
          "(data_gRTPDE_L3_RA:0x0)"})
        EXPECT_EQ(with(none), json::object()) << none;
    for (const char *wrong : {"(data_hRTW_host_Block1_RA:0x1)", "(data_hRTW_host_Block4_RA:0x1)",
                              "(data_Host_RTWs_Block:5 (data_hRTPDE_L1_RA:0x1))", "(data_gRTPDE_L3_RA:0x1)"})
        EXPECT_EQ(with(wrong), json({{"text-data-walk", 1}})) << wrong;
}

// ---- Any bytes beside a trace --------------------------------------------------------------------------

namespace
{

// Some pieces of the text taken out, doubled, exchanged or replaced by other bytes.
std::string spoilt(std::string text, uint64_t seed)
{
    const auto next = [&seed](size_t below) {
        seed = seed * 6364136223846793005u + 1442695040888963407u;
        return static_cast<size_t>(seed >> 33) % std::max<size_t>(below, 1);
    };
    static const std::string MARKS[] = {"(",     ")",      ":",     ",",      "0x",
                                        " ",     "\n",     "(seq:", "{name:", "} (I:",
                                        "Input", "Output", "\x1b[", "\0",     "99999999999999999999",
                                        "-1",    "RTW"};
    for (size_t changes = 1 + next(6); changes > 0; changes--) {
        const size_t at = next(text.size()), length = next(40);
        switch (next(4)) {
        case 0:
            text.erase(at, length);
            break;
        case 1:
            text.insert(at, text.substr(next(text.size()), length));
            break;
        case 2:
            text.insert(at, MARKS[next(std::size(MARKS))]);
            break;
        default:
            text[at] = static_cast<char>(next(256));
        }
    }
    return text;
}

} // namespace

TEST(check_text, ends_in_order_on_any_text)
{
    const Folder folder;
    const std::string file = folder.write("trace0", described_trace()), text = described_text();
    size_t with_findings = 0;
    for (uint64_t seed = 1; seed <= 300; seed++) {
        const std::string beside = folder.text("text0", spoilt(text, seed));
        const Outcome outcome = qtrace({seed % 2 == 0 ? "check" : "dump", "--text", beside, file});
        ASSERT_TRUE(outcome.exit_code == 0 || outcome.exit_code == 1 || outcome.exit_code == 3) << seed;
        EXPECT_EQ((outcome.out + outcome.err).find('\x1b'), std::string::npos) << seed;
        with_findings += outcome.exit_code != 0;
    }
    EXPECT_GT(with_findings, 120u);
}

namespace
{

// Walks of a file of these words that none of them is.
size_t missing_in(const Folder &folder, const QTRACE_RTW &walk, const std::vector<uint64_t> &words)
{
    std::string bytes;
    for (const uint64_t word : words)
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes += static_cast<char>(word >> shift);
    Item item = with_data(0x80640010, 0x6010, Case::single);
    item.record.data_hRTW[0] = walk;
    QTRACE_Item traced{};
    traced.record = item.record;
    qtrace_tool::Pte_Checker checker;
    checker.add(trace::data_address_of(item.record), "data address", traced);
    std::string error;
    EXPECT_TRUE(checker.search(folder.text("pte0", bytes), error)) << error;
    EXPECT_EQ(checker.compared(), 1u);
    return checker.missing().size();
}

QTRACE_RTW walk_of(uint8_t first, uint8_t second, uint8_t third, uint8_t entry)
{
    QTRACE_RTW walk{};
    walk.RTPDE_ra_l1[0] = first;
    walk.RTPDE_ra_l2[0] = second;
    walk.RTPDE_ra_l3[0] = third;
    walk.RTPTE_ra[0] = entry;
    return walk;
}

} // namespace

TEST(check_pte, finds_a_walk_in_any_five_words_of_the_file)
{
    const Folder folder;
    EXPECT_EQ(missing_in(folder, walk_of(1, 2, 3, 4), {1, 2, 3, 4, 5}), 0u);
    EXPECT_EQ(missing_in(folder, walk_of(1, 2, 3, 4), {1, 2, 3, 4, 5, 8, 9, 10, 4, 11}), 0u);
    EXPECT_EQ(missing_in(folder, walk_of(3, 4, 5, 6), {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}), 0u);
    EXPECT_EQ(missing_in(folder, walk_of(1, 2, 3, 4), {1, 2, 7, 4, 5}), 1u);
    EXPECT_EQ(missing_in(folder, walk_of(0, 1, 2, 3), {1, 2, 3, 4, 5}), 1u); // from before the file's first word
}

TEST(check_pte, compares_the_five_walks_of_a_guest_of_five_levels)
{
    Item item = with_data(0x80640010, 0x6010, Case::nested);
    item.record.data_hRTW_depth = 5;
    for (const size_t walk : {3, 4})
        item.record.data_hRTW[walk].RTPTE_ra[0] = 7;
    item.record.data_hRTW[4].RTPTE_ra[0] = 8;
    item.record.data_hRTW_host_RA[3].ra[0] = 9;
    QTRACE_Item traced{};
    traced.record = item.record;
    qtrace_tool::Pte_Checker checker;
    checker.add(trace::data_address_of(item.record), "data address", traced);
    EXPECT_EQ(checker.compared(), 5u);
}

TEST(check_pte, keeps_a_million_walks_and_counts_those_beyond_them)
{
    QTRACE_RTW walks[RDX_MAX_2LEVEL_DEPTH] = {};
    trace::Translated_Address address{};
    address.present = true;
    address.walks = walks;
    qtrace_tool::Pte_Checker checker;
    uint64_t last = 0;
    const auto add = [&](size_t count) { // as many that are all different
        for (size_t i = 0; i < RDX_MAX_2LEVEL_DEPTH; i++) {
            const uint64_t entry = i < count ? ++last : 0;
            std::memcpy(walks[i].RTPTE_ra, &entry, sizeof entry);
        }
        checker.add(address, "data address", {});
    };
    for (size_t times = 0; times < 200000; times++)
        add(5);
    EXPECT_EQ(checker.compared(), 1000000u);
    EXPECT_EQ(checker.beyond_limit(), 0u);
    add(3);
    EXPECT_EQ(checker.compared(), 1000000u);
    EXPECT_EQ(checker.beyond_limit(), 3u);
    last = 0; // known ones need no room
    add(5);
    EXPECT_EQ(checker.beyond_limit(), 3u);
}

TEST(check_pte, of_a_file_that_is_not_there_says_why)
{
    std::string error;
    EXPECT_FALSE(qtrace_tool::Pte_Checker().search("/nowhere/pte0", error));
    EXPECT_THAT(error, HasSubstr("No such file or directory"));
}

TEST(check_pte, ends_in_order_on_any_entries)
{
    const Folder folder;
    const std::string file = folder.write("trace0", described_trace());
    std::string entries;
    for (const uint64_t word : {0x100, 0, 0, 0x200, 0x12008, 0x10000, 0x20000, 0x30000, 0x40000, 0x70000})
        for (int shift = 56; shift >= 0; shift -= 8)
            entries += static_cast<char>(word >> shift);
    for (uint64_t seed = 1; seed <= 200; seed++) {
        const std::string beside = folder.text("pte0", spoilt(entries, seed));
        const std::vector<std::string> commands[] = {{"check", "--pte", beside, file},
                                                     {"dump", "--pte", beside, "--kind", "radix"},
                                                     {"dump", "--pte", beside, "--kind", "hpt"},
                                                     {"dump", "--pte", beside}};
        const int code = qtrace(commands[seed % 4]).exit_code;
        ASSERT_TRUE(code == 0 || code == 1 || code == 3) << seed;
    }
}
