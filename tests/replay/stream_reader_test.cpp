// Commit streams: every key answered by its query, every kind of bad input refused, recorded streams whole.

#include "stream_reader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iomanip>
#include <limits>
#include <map>
#include <sstream>
#include <string_view>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>
#include <zstd.h>

using namespace replay;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

class Scratch_File
{
public:
    explicit Scratch_File(std::string_view contents)
        : name_(std::filesystem::temp_directory_path() / ("stream_reader_test_" + std::to_string(getpid())))
    {
        std::ofstream(name_, std::ios::binary) << contents;
    }
    ~Scratch_File() { std::filesystem::remove(name_); }
    const std::string &name() const { return name_; }

private:
    std::string name_;
};

const std::string MACHINE = "{\"t\":\"machine\",\"processors\":2,\"threads\":2}\n";

// What became of a stream: how many events before it ended, and why it ended.
struct Outcome {
    size_t events = 0;
    std::string error;
};

Outcome outcome_of(std::string_view contents)
{
    const Scratch_File file(contents);
    Stream_Reader reader(file.name());
    Outcome outcome;
    while (reader.next())
        ++outcome.events;
    if (reader.error())
        outcome.error = reader.error()->text();
    return outcome;
}

// The error of a stream whose second line is `line`; the lines around it are in order.
std::string refusal_of_line(const std::string &line)
{
    const Outcome outcome = outcome_of(MACHINE + line + "\n{\"t\":\"commit\"}\n");
    EXPECT_EQ(outcome.events, outcome.error.empty() ? 3u : 1u) << line;
    return outcome.error;
}

// The event of the one line after the machine line.
class One_Event
{
public:
    explicit One_Event(const std::string &line) : file_(MACHINE + line + "\n"), reader_(file_.name())
    {
        reader_.next();
        event_ = reader_.next();
    }
    const Stream_Event *operator->() const
    {
        if (!event_)
            throw std::runtime_error(reader_.error() ? reader_.error()->text() : "the stream ends");
        return event_;
    }
    void *handle() const { return handle_of((*this)->instruction); }

private:
    Scratch_File file_;
    Stream_Reader reader_;
    const Stream_Event *event_ = nullptr;
};

std::string compressed(std::string_view contents)
{
    std::string bytes(ZSTD_compressBound(contents.size()), '\0');
    bytes.resize(ZSTD_compress(bytes.data(), bytes.size(), contents.data(), contents.size(), 3));
    return bytes;
}

struct Keyed_Query {
    const char *key;
    const char *json;
    std::function<uint64_t(void *)> query;
    uint64_t answer;
};

// Every other query of the table must answer 0 when only one key is there.
void expect_only(const std::vector<Keyed_Query> &table, const Keyed_Query &given, void *iop)
{
    for (const Keyed_Query &row : table)
        if (row.key == given.key)
            EXPECT_EQ(row.query(iop), row.answer) << row.key << " " << row.json;
        else
            EXPECT_EQ(row.query(iop), 0u) << row.key << " when " << given.key << " is given";
}

#define ANSWER(query)       [](void *iop) { return static_cast<uint64_t>(query(iop)); }
#define ANSWER_OF(query, n) [](void *iop) { return static_cast<uint64_t>(query(iop, n)); }

} // namespace

// ---- keys and their queries -----------------------------------------------------------------------------

TEST(stream_keys, machine_line_gives_the_machine)
{
    const Scratch_File file(R"({"t":"machine","processors":4,"threads":"0x8","version":3,"memory":"0x123456789",)"
                            R"("options":[450,451],"source":"by h\u0061nd"})");
    Stream_Reader reader(file.name());
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr) << reader.error()->text();
    EXPECT_EQ(event->kind, Event_Kind::machine);
    EXPECT_EQ(event->machine.processors, 4u);
    EXPECT_EQ(event->machine.threads, 8u);
    EXPECT_EQ(event->machine.version, 3u);
    EXPECT_EQ(event->machine.memory, 0x123456789u);
    EXPECT_THAT(event->machine.options, ElementsAre(450u, 451u));
    EXPECT_EQ(event->source, "by hand");
}

TEST(stream_keys, absent_machine_keys_are_zero)
{
    const Scratch_File file("{\"t\":\"machine\"}\n");
    Stream_Reader reader(file.name());
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->machine.processors, 0u);
    EXPECT_EQ(event->machine.threads, 0u);
    EXPECT_EQ(event->machine.version, 0u);
    EXPECT_EQ(event->machine.memory, 0u);
    EXPECT_TRUE(event->machine.options.empty());
    EXPECT_EQ(event->source, "");
}

TEST(stream_keys, first_context_has_zeros_for_absent_keys)
{
    const One_Event event(R"({"t":"context"})");
    const Thread_Context &context = event->context;
    EXPECT_EQ(event->instruction.tid, 0);
    EXPECT_EQ(context.ptcr | context.lpid | context.pid | context.sdr1, 0u);
    EXPECT_FALSE(context.bit64 || context.little_endian || context.kernel || context.cycle_mode);
    const PAGE_SIZES_USED none{};
    EXPECT_EQ(std::memcmp(&context.pages, &none, sizeof none), 0);
    EXPECT_EQ(std::memcmp(&context.guest_pages, &none, sizeof none), 0);
}

TEST(stream_keys, events_without_keys_have_zeros)
{
    const One_Event pte(R"({"t":"pte"})"), rtpte(R"({"t":"rtpte"})");
    EXPECT_EQ(pte->pte.pa | pte->pte.pte.upper | pte->pte.pte.lower, 0u);
    const RTPTE_Event_Info &walk = rtpte->rtpte;
    EXPECT_EQ(walk.RTPDE_ra_l1 | walk.RTPDE_ra_l2 | walk.RTPDE_ra_l3 | walk.RTPTE_ra | walk.pa, 0u);
    EXPECT_EQ(rtpte->instruction.tid, 0);
}

TEST(stream_keys, register_numbers_are_signed_words)
{
    const One_Event event(
        R"({"t":"commit","in":{"gpr":[[-2147483648,1],[2147483647,2],["0x7fffffff",3],[-1,4]]}})");
    const Instruction_Registers &in = event->instruction.in;
    EXPECT_EQ(in.gpr_index[0], std::numeric_limits<int32_t>::min());
    EXPECT_EQ(in.gpr_index[1], std::numeric_limits<int32_t>::max());
    EXPECT_EQ(in.gpr_index[2], std::numeric_limits<int32_t>::max());
    EXPECT_EQ(in.gpr_index[3], -1);
}

TEST(stream_keys, numbers_of_one_and_two_digits_are_read)
{
    for (unsigned number = 0; number < 100; ++number) {
        const One_Event event(R"({"t":"commit","string_length":)" + std::to_string(number) + "}");
        EXPECT_EQ(event->instruction.string_length, number);
    }
}

TEST(stream_keys, zero_may_have_a_sign_and_stand_for_false)
{
    const One_Event event(R"({"t":"context","tid":-0,"lpid":-0,"kernel":0})");
    EXPECT_EQ(event->instruction.tid, 0);
    EXPECT_EQ(event->context.lpid, 0u);
    EXPECT_FALSE(event->context.kernel);
}

TEST(stream_keys, commit_keys_answer_their_queries)
{
    const std::vector<Keyed_Query> table = {
        {"tid", "3", ANSWER(Get_Inst_ThreadId), 3},
        {"seq", "\"0xfedcba9876543210\"", ANSWER(Get_Inst_SeqNumber), 0xfedcba9876543210},
        {"pc", "\"0xFFFFFFFFFFFFFFFC\"", ANSWER(Get_Inst_PC), 0xFFFFFFFFFFFFFFFC},
        {"npc", "18446744073709551615", ANSWER(Get_Inst_NPC), UINT64_MAX},
        {"op", "\"0xffffffff\"", ANSWER(Get_Inst_Instbody), 0xffffffff},
        {"string_length", "65535", ANSWER_OF(Get_String_Length, 1), 0xFFFF},
    };
    for (const Keyed_Query &row : table) {
        const One_Event event(std::string("{\"t\":\"commit\",\"") + row.key + "\":" + row.json + "}");
        expect_only(table, row, event.handle());
    }
}

TEST(stream_keys, flags_answer_their_queries)
{
    const std::vector<Keyed_Query> table = {
        {"branch", "", ANSWER(Is_Inst_Branch), 1},
        {"unconditional", "", ANSWER(Is_Inst_Unconditional_Branch), 1},
        {"taken", "", ANSWER(Is_Inst_Branch_Taken), 1},
        {"load", "", ANSWER(Is_Inst_Load), 1},
        {"store", "", ANSWER(Is_Inst_Store), 1},
        {"cache", "", ANSWER(Is_Inst_Cache), 1},
        {"string", "", ANSWER(Is_Inst_String), 1},
        {"exception", "", ANSWER(Is_Inst_Exception), 1},
        {"vmx", "", ANSWER(Is_Inst_VMX), 1},
        {"vsx", "", ANSWER(Is_Inst_VSX), 1},
        {"filtered", "", ANSWER(Is_Inst_Filtered), 1},
        {"sim_support", "", ANSWER(Is_Inst_SimSupport), 1},
    };
    for (const Keyed_Query &row : table) {
        const One_Event event(std::string("{\"t\":\"commit\",\"is\":[\"") + row.key + "\"]}");
        expect_only(table, row, event.handle());
    }
}

namespace
{

// Keys that `fetch` and `data` share: the query of each side.
struct Address_Key {
    const char *key;
    const char *json;
    std::function<uint64_t(void *)> fetch, data;
    uint64_t answer;
};

const char *const THREE_WALKS =
    R"([["0x1","0x2","0x3","0x4"],["0x5","0x6","0x7","0x8"],["0x9","0xa","0xb","0xc"]])";
const char *const GUEST_WALK = R"(["0x11","0x12","0x13","0x14","0x15"])";

#define SIDES(pc, data)       ANSWER(pc), ANSWER(data)
#define SIDES_OF(pc, data, n) ANSWER_OF(pc, n), ANSWER_OF(data, n)
const std::vector<Address_Key> ADDRESS_KEYS = {
    {"status", "9", SIDES(Get_PC_MMU_Status, Get_Data_MMU_Status), 9},
    {"mode", "37", SIDES(Get_PC_Xlate_Type, Get_Data_Xlate_Type), 37},
    {"guest_mode", "1", SIDES(Get_PC_Radix_Guest_Mode, Get_Data_Radix_Guest_Mode), 1},
    {"host_mode", "4", SIDES(Get_PC_Radix_Host_Mode, Get_Data_Radix_Host_Mode), 4},
    {"host_two_level", "255", SIDES(Get_PC_Host_AXD_Two_Level, Get_Data_Host_AXD_Two_Level), 255},
    {"guest_two_level", "1", SIDES(Get_PC_Guest_AXD_Two_Level, Get_Data_Guest_AXD_Two_Level), 1},
    {"host_depth", "4", SIDES(Get_PC_Radix_Host_Walk_Depth, Get_Data_Radix_Host_Walk_Depth), 4},
    {"guest_depth", "5", SIDES(Get_PC_Radix_Guest_Walk_Depth, Get_Data_Radix_Guest_Walk_Depth), 5},
    {"relocated", "true", SIDES(Is_Inst_Relocated, Is_Data_Relocated), 1},
    {"ra", "\"0x8000000000000001\"", SIDES(Get_Inst_PC_RA, Get_Inst_Data_RA), 0x8000000000000001},
    {"vsid", "\"0x1122334455667788\"", SIDES(Get_Inst_PC_VSID, Get_Inst_Data_VSID), 0x1122334455667788},
    {"rpn", "\"0xfffffffe\"", SIDES(Get_Inst_PC_RPN, Get_Inst_Data_RPN), 0xfffffffe},
    {"host_rpn", "77", SIDES(Get_Inst_Host_PC_RPN, Get_Inst_Data_Host_RPN), 77},
    {"guest_rpn", "78", SIDES(Get_Inst_Guest_PC_RPN, Get_Inst_Data_Guest_RPN), 78},
    {"page_size", "3", SIDES(Get_Inst_PC_PageSize, Get_Inst_Data_PageSize), 3},
    {"host_page_size", "\"0x4\"", SIDES(Get_Inst_PC_Host_PageSize, Get_Inst_Data_Host_PageSize), 4},
    {"guest_page_size", "5", SIDES(Get_Inst_PC_Guest_PageSize, Get_Inst_Data_Guest_PageSize), 5},
    {"host_walk", THREE_WALKS, SIDES_OF(Get_Inst_PC_HOST_RTPDE_L1_n_RA, Get_Inst_Data_HOST_RTPDE_L1_n_RA, 0), 1},
    {"host_walk", THREE_WALKS, SIDES_OF(Get_Inst_PC_HOST_RTPDE_L2_n_RA, Get_Inst_Data_HOST_RTPDE_L2_n_RA, 1), 6},
    {"host_walk", THREE_WALKS, SIDES_OF(Get_Inst_PC_HOST_RTPDE_L3_n_RA, Get_Inst_Data_HOST_RTPDE_L3_n_RA, 2), 11},
    {"host_walk", THREE_WALKS, SIDES_OF(Get_Inst_PC_HOST_RTPTE_n_RA, Get_Inst_Data_HOST_RTPTE_n_RA, 2), 12},
    {"host_walk", THREE_WALKS, SIDES_OF(Get_Inst_PC_HOST_RTPTE_n_RA, Get_Inst_Data_HOST_RTPTE_n_RA, 3), 0},
    {"host_ra", "[1,2,3,\"0x44\"]", SIDES_OF(Get_Inst_PC_RonR_HOST_RA_Ln, Get_Inst_Data_RonR_HOST_RA_Ln, 3), 0x44},
    {"guest_walk", GUEST_WALK, SIDES(Get_Inst_PC_GUEST_RTPDE_L1_RA, Get_Inst_Data_GUEST_RTPDE_L1_RA), 0x11},
    {"guest_walk", GUEST_WALK, SIDES(Get_Inst_PC_GUEST_RTPDE_L2_RA, Get_Inst_Data_GUEST_RTPDE_L2_RA), 0x12},
    {"guest_walk", GUEST_WALK, SIDES(Get_Inst_PC_GUEST_RTPDE_L3_RA, Get_Inst_Data_GUEST_RTPDE_L3_RA), 0x13},
    {"guest_walk", GUEST_WALK, SIDES(Get_Inst_PC_GUEST_RTPTE_RA, Get_Inst_Data_GUEST_RTPTE_RA), 0x14},
    {"guest_walk", GUEST_WALK, SIDES(Get_Inst_PC_GUEST_RA, Get_Inst_Data_GUEST_RA), 0x15},
};

// The rows of both sides under the names "fetch.mode", "data.mode", ...
std::vector<Keyed_Query> both_sides(std::vector<std::string> &names)
{
    names.reserve(2 * ADDRESS_KEYS.size());
    std::vector<Keyed_Query> table;
    for (const Address_Key &row : ADDRESS_KEYS)
        for (const bool fetch : {true, false}) {
            const std::string name = std::string(fetch ? "fetch" : "data") + "\":{\"" + row.key;
            auto known = std::find(names.begin(), names.end(), name);
            if (known == names.end())
                known = names.insert(names.end(), name);
            table.push_back({known->c_str(), row.json, fetch ? row.fetch : row.data, row.answer});
        }
    return table;
}

} // namespace

TEST(stream_keys, translation_keys_answer_the_queries_of_their_side)
{
    std::vector<std::string> names;
    const std::vector<Keyed_Query> table = both_sides(names);
    for (const Keyed_Query &row : table) {
        const One_Event event(std::string("{\"t\":\"commit\",\"") + row.key + "\":" + row.json + "}}");
        expect_only(table, row, event.handle());
        EXPECT_FALSE(Is_Inst_Data_EA_Valid(event.handle()));
    }
}

TEST(stream_keys, data_address_is_valid_when_it_is_there)
{
    const One_Event with(R"({"t":"commit","data":{"ea":"0x0","mode":26}})");
    EXPECT_TRUE(Is_Inst_Data_EA_Valid(with.handle()));
    const One_Event large(R"({"t":"commit","data":{"ea":"0xc000000000000008"}})");
    EXPECT_EQ(Get_Inst_Data_EA(large.handle()), 0xc000000000000008u);
    const One_Event without(R"({"t":"commit","data":{"mode":26}})");
    EXPECT_FALSE(Is_Inst_Data_EA_Valid(without.handle()));
    EXPECT_EQ(Get_Data_Xlate_Type(without.handle()), Z7_HostRadixProcessScoped);
}

TEST(stream_keys, codes_without_a_name_are_handed_through)
{
    const One_Event event(R"({"t":"commit","fetch":{"mode":38,"status":15,"guest_mode":7}})");
    EXPECT_EQ(static_cast<uint32_t>(Get_PC_Xlate_Type(event.handle())), 38u);
    EXPECT_EQ(static_cast<uint32_t>(Get_PC_MMU_Status(event.handle())), 15u);
    EXPECT_EQ(static_cast<uint32_t>(Get_PC_Radix_Guest_Mode(event.handle())), 7u);
}

TEST(stream_keys, registers_answer_the_query_of_their_side)
{
    const One_Event event(R"({"t":"commit","in":{"gpr":[[4,"0x2000"],[31,5]],"fpr":[[1,"0x3ff0000000000000"]]},)"
                          R"("out":{"spr":[[-8,1]],"vmx":[[2,"0x1","0x2"]],"vsx":[[63,"0x3","0x4"],[1,5,6]]}})");
    Plugin_Inst_Registers in{}, out{};
    Get_Inst_Input_Registers(event.handle(), &in);
    Get_Inst_Output_Registers(event.handle(), &out);
    EXPECT_EQ(in.gpr_num, 2);
    EXPECT_EQ(in.gpr_index[1], 31);
    EXPECT_EQ(in.gpr_value[0], 0x2000u);
    EXPECT_EQ(in.fpr_num, 1);
    EXPECT_EQ(in.fpr_value[0], 0x3ff0000000000000u);
    EXPECT_EQ(in.spr_num + in.vmx_num + in.vsx_num, 0);
    EXPECT_EQ(out.gpr_num + out.fpr_num, 0);
    EXPECT_EQ(out.spr_num, 1);
    EXPECT_EQ(out.spr_index[0], -8);
    EXPECT_EQ(out.vmx_num, 1);
    EXPECT_EQ(out.vmx_value[0].word[0], 1u);
    EXPECT_EQ(out.vmx_value[0].word[1], 2u);
    EXPECT_EQ(out.vsx_num, 2);
    EXPECT_EQ(out.vsx_index[0], 63);
    EXPECT_EQ(out.vsx_value[1].word[1], 6u);
}

TEST(stream_keys, full_register_lists_fit)
{
    const std::map<std::string, size_t> classes = {{"gpr", 32}, {"fpr", 4}, {"spr", 6}, {"vmx", 4}, {"vsx", 4}};
    for (const auto &[name, most] : classes) {
        const std::string entry = name[0] == 'v' ? "[1,2,3]" : "[1,2]";
        std::string list = entry;
        for (size_t i = 1; i < most; ++i)
            list += "," + entry;
        const std::string begin = "{\"t\":\"commit\",\"in\":{\"" + name + "\":[" + list;
        EXPECT_EQ(refusal_of_line(begin + "]}}"), "");
        EXPECT_EQ(refusal_of_line(begin + "," + entry + "]}}"), "line 2: key \"in." + name +
                                                                    "\": expected at most " + std::to_string(most) +
                                                                    " registers, found more");
    }
}

TEST(stream_keys, text_is_unescaped)
{
    const One_Event event(R"({"t":"commit","text":"mr \"r3\",r4\u00e9"})");
    char buffer[64];
    Get_Inst_Name_And_Operand(event.handle(), buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "mr \"r3\",r4\xc3\xa9");
}

TEST(stream_keys, time_is_there_or_not)
{
    EXPECT_EQ(One_Event(R"({"t":"commit","time":"0x64"})")->time, 100u);
    EXPECT_EQ(One_Event(R"({"t":"commit"})")->time, std::nullopt);
}

TEST(stream_keys, nothing_is_left_of_the_line_before)
{
    const std::string address =
        R"({"mode":3,"host_walk":[[1,2,3,4],[5,6,7,8]],"host_ra":[1,2,3,4],"guest_walk":[1,2,3,4,5]})";
    const std::string registers = R"({"gpr":[[1,2]],"fpr":[[1,2]],"spr":[[1,2]],"vmx":[[1,2,3]],"vsx":[[1,2,3]]})";
    const Scratch_File file(MACHINE + R"({"t":"commit","tid":1,"seq":9,"text":"x","is":["load"],"fetch":)" +
                            address + R"(,"data":{"ea":1,)" + address.substr(1) + R"(,"in":)" + registers +
                            R"(,"out":)" + registers + R"(,"time":7})" + "\n{\"t\":\"commit\"}\n");
    Stream_Reader reader(file.name());
    reader.next();
    reader.next();
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr);
    const Instruction &bare = event->instruction;
    EXPECT_EQ(bare.tid, 0);
    EXPECT_EQ(bare.seq, 0u);
    EXPECT_EQ(bare.text, "");
    EXPECT_FALSE(bare.load || bare.ea_valid);
    EXPECT_EQ(bare.ea, 0u);
    for (const Address_Answers &side : {bare.fetch, bare.data}) {
        EXPECT_EQ(side.mode, RADIX_MODE_NOT_YET_SET);
        EXPECT_EQ(side.host_walk[1].RTPTE_ra, 0u);
        EXPECT_EQ(side.host_ra[3], 0u);
        EXPECT_EQ(side.guest_walk.GUEST_ra, 0u);
    }
    for (const Plugin_Inst_Registers &side : {bare.in, bare.out}) {
        EXPECT_EQ(side.gpr_num, 0);
        EXPECT_EQ(side.fpr_num, 0);
        EXPECT_EQ(side.spr_num, 0);
        EXPECT_EQ(side.vmx_num, 0);
        EXPECT_EQ(side.vsx_num, 0);
    }
    EXPECT_EQ(event->time, std::nullopt);
}

TEST(stream_keys, nothing_is_left_of_the_access_before)
{
    const Scratch_File file(MACHINE + R"({"t":"pte","pa":1,"upper":2,"lower":3}
{"t":"pte"}
{"t":"rtpte","l1":1,"l2":2,"l3":3,"pte":4,"pa":5}
{"t":"rtpte"}
)");
    Stream_Reader reader(file.name());
    reader.next();
    reader.next();
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->pte.pa | event->pte.pte.upper | event->pte.pte.lower, 0u);
    reader.next();
    event = reader.next();
    ASSERT_NE(event, nullptr);
    const RTPTE_Event_Info &walk = event->rtpte;
    EXPECT_EQ(walk.RTPDE_ra_l1 | walk.RTPDE_ra_l2 | walk.RTPDE_ra_l3 | walk.RTPTE_ra | walk.pa, 0u);
}

TEST(stream_keys, hexadecimal_digits_of_every_count_are_read)
{
    const std::string digits = "9aBcDeF018273645";
    for (size_t count = 1; count <= digits.size(); ++count) {
        const std::string number = digits.substr(0, count);
        const One_Event event(R"({"t":"commit","pc":"0x)" + number + "\" \t}");
        EXPECT_EQ(event->instruction.pc, std::stoull(number, nullptr, 16));
    }
}

TEST(stream_keys, decimal_digits_of_every_count_are_read)
{
    const std::string digits = "10987654321098765432";
    for (size_t count = 1; count <= digits.size(); ++count) {
        const std::string number = digits.substr(0, count);
        const One_Event event(R"({"t":"commit","pc":)" + number + " \t}");
        EXPECT_EQ(event->instruction.pc, std::stoull(number));
    }
}

TEST(stream_keys, context_keys_reach_the_context)
{
    const One_Event event(R"({"t":"context","tid":3,"ptcr":"0xc","lpid":"0x123456789","pid":"0xffffffff","sdr1":4,)"
                          R"("bit64":true,"little_endian":1,"kernel":true,"cycle_mode":true,"pages":["4K","16G"],)"
                          R"("guest_pages":["undefined"]})");
    EXPECT_EQ(event->instruction.tid, 3);
    EXPECT_EQ(event->context.ptcr, 0xcu);
    EXPECT_EQ(event->context.lpid, 0x123456789u);
    EXPECT_EQ(event->context.pid, 0xffffffffu);
    EXPECT_EQ(event->context.sdr1, 4u);
    EXPECT_TRUE(event->context.bit64);
    EXPECT_TRUE(event->context.little_endian);
    EXPECT_TRUE(event->context.kernel);
    EXPECT_TRUE(event->context.cycle_mode);
    EXPECT_TRUE(event->context.pages.PAGE_4K && event->context.pages.PAGE_16G);
    EXPECT_FALSE(event->context.pages.PAGE_64K || event->context.pages.PAGE_undefined);
    EXPECT_TRUE(event->context.guest_pages.PAGE_undefined);
}

TEST(stream_keys, every_page_size_has_its_member)
{
    const char *const words[] = {"4K", "16K", "64K",  "128K", "256K", "1M",
                                 "2M", "16M", "256M", "1G",   "16G",  "undefined"};
    for (size_t n = 0; n < std::size(words); ++n) {
        const One_Event event(std::string("{\"t\":\"context\",\"pages\":[\"") + words[n] + "\"]}");
        boolean members[12];
        static_assert(sizeof members == sizeof(PAGE_SIZES_USED));
        std::memcpy(members, &event->context.pages, sizeof members);
        for (size_t member = 0; member < std::size(members); ++member)
            EXPECT_EQ(members[member] != 0, member == n) << words[n];
    }
}

TEST(stream_keys, context_keeps_what_it_does_not_mention_thread_by_thread)
{
    const Scratch_File file(MACHINE + R"({"pid":7,"pages":["4K"],"kernel":true,"tid":1,"t":"context"}
{"t":"context","tid":0,"pid":8}
{"t":"context","tid":1,"kernel":false,"pages":["2M"]}
)");
    Stream_Reader reader(file.name());
    for (int line = 0; line < 3; ++line)
        reader.next();
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr) << reader.error()->text();
    EXPECT_EQ(event->context.pid, 7u);
    EXPECT_FALSE(event->context.kernel);
    EXPECT_TRUE(event->context.pages.PAGE_2M);
    EXPECT_FALSE(event->context.pages.PAGE_4K);
}

TEST(stream_keys, other_events_carry_their_payload_and_answer_nothing_else)
{
    const One_Event pre(R"({"t":"pre","tid":2})");
    EXPECT_EQ(pre->kind, Event_Kind::pre);
    EXPECT_EQ(Get_Inst_ThreadId(pre.handle()), 2);
    const One_Event pte(R"({"t":"pte","tid":1,"pa":"0x1000","upper":"0x2","lower":"0x3"})");
    EXPECT_EQ(pte->kind, Event_Kind::pte);
    EXPECT_EQ(pte->pte.pa, 0x1000u);
    EXPECT_EQ(pte->pte.pte.upper, 2u);
    EXPECT_EQ(pte->pte.pte.lower, 3u);
    EXPECT_EQ(Get_Inst_PC(pte.handle()), 0u);
    const One_Event rtpte(R"({"t":"rtpte","l1":1,"l2":2,"l3":3,"pte":4,"pa":5})");
    EXPECT_EQ(rtpte->rtpte.RTPDE_ra_l1, 1u);
    EXPECT_EQ(rtpte->rtpte.RTPDE_ra_l2, 2u);
    EXPECT_EQ(rtpte->rtpte.RTPDE_ra_l3, 3u);
    EXPECT_EQ(rtpte->rtpte.RTPTE_ra, 4u);
    EXPECT_EQ(rtpte->rtpte.pa, 5u);
}

TEST(stream_keys, come_in_any_order_and_with_blanks_and_escapes)
{
    const One_Event event(
        "  { \"\\u0073eq\" : 4 , \"data\" : { \"host_walk\" : [ [ 1 , 2 , 3 , 4 ] ] , \"ea\" : \"0x5\" } ,"
        " \"op\" : \"0x6\"\t, \"t\" : \"commit\" }  \r");
    EXPECT_EQ(event->instruction.seq, 4u);
    EXPECT_EQ(event->instruction.op, 6u);
    EXPECT_EQ(event->instruction.ea, 5u);
    EXPECT_EQ(event->instruction.data.host_walk[0].RTPTE_ra, 4u);
}

// ---- refusals -------------------------------------------------------------------------------------------

struct Refused_Line {
    const char *line;
    const char *error; // after "line 2: "
};

// A name that any terminal shows: bytes that are not ASCII text as \xHH.
void PrintTo(const Refused_Line &row, std::ostream *out)
{
    for (const char byte : std::string_view(row.line))
        if (byte >= ' ' && byte <= '~')
            *out << byte;
        else
            *out << "\\x" << std::hex << std::setw(2) << std::setfill('0') << +static_cast<unsigned char>(byte);
}

class Refusals : public testing::TestWithParam<Refused_Line>
{
};

TEST_P(Refusals, name_line_key_and_expectation)
{
    EXPECT_EQ(refusal_of_line(GetParam().line), std::string("line 2: ") + GetParam().error);
}

constexpr const char *WIDE_32 = "0 to 4294967295, as a number or \"0x...\"";

// clang-format off
INSTANTIATE_TEST_SUITE_P(of_malformed_lines, Refusals, testing::Values(
    Refused_Line{R"(commit)", "expected an object"},
    Refused_Line{R"([1])", "expected an object"},
    Refused_Line{R"("commit")", "expected an object"},
    Refused_Line{R"({"t":"commit")", "expected well-formed JSON, found an object or list without end"},
    Refused_Line{R"({"t":"commit","seq":1]})", "key \"seq\": expected well-formed JSON"},
    Refused_Line{R"({"t":"commit" "seq":1})", "key \"t\": expected well-formed JSON"},
    Refused_Line{R"({"t":"commit","seq":1,})", "key \"seq\": expected well-formed JSON"},
    Refused_Line{R"({"t":"commit","seq" 1})", "key \"t\": expected well-formed JSON"},
    Refused_Line{R"({"t":"commit",seq:1})", "key \"t\": expected well-formed JSON"},
    Refused_Line{R"({"t":"commit","fetch":{"mode":1})", "key \"fetch\": expected well-formed JSON"},
    Refused_Line{R"({"t":"commit","in":{"gpr":[[1,2]})", "key \"in.gpr\": expected well-formed JSON"},
    Refused_Line{R"({"t":"commit","text":"abc})", "expected well-formed JSON, found a string without end"},
    Refused_Line{R"({"t":"commit","text":"a\qc"})", "key \"text\": expected well-formed JSON, found a wrong escape in a string"},
    Refused_Line{"{\"t\":\"commit\",\"text\":\"a\x01\"}", "expected well-formed JSON, found a control character in a string"},
    Refused_Line{"{\"t\":\"commit\",\"text\":\"\xff\"}", "expected valid UTF-8"},
    Refused_Line{"{\"t\":\"commit\",\"text\":\"\xed\xa0\x80\"}", "expected valid UTF-8"},
    Refused_Line{R"({"t":"commit"} {"t":"commit"})", "expected nothing after the object"},
    Refused_Line{R"({"t":"commit"},{"t":"commit"})", "expected nothing after the object"}));

INSTANTIATE_TEST_SUITE_P(of_kinds, Refusals, testing::Values(
    Refused_Line{R"({})", "key \"t\": expected the kind of line, found no such key"},
    Refused_Line{R"({"tid":0})", "key \"t\": expected the kind of line, found no such key"},
    Refused_Line{R"({"t":"flush"})", "key \"t\": expected \"machine\", \"context\", \"commit\", \"pre\", \"pte\" or \"rtpte\", found \"flush\""},
    Refused_Line{R"({"t":"commits"})", "key \"t\": expected \"machine\", \"context\", \"commit\", \"pre\", \"pte\" or \"rtpte\", found \"commits\""},
    Refused_Line{R"({"t":""})", "key \"t\": expected \"machine\", \"context\", \"commit\", \"pre\", \"pte\" or \"rtpte\", found \"\""},
    Refused_Line{R"({"t":1})", "key \"t\": expected \"machine\", \"context\", \"commit\", \"pre\", \"pte\" or \"rtpte\", found 1"},
    Refused_Line{R"({"t":"machine","processors":1,"threads":1})", "key \"t\": expected \"machine\" in the first line only, found a second one"}));

INSTANTIATE_TEST_SUITE_P(of_keys, Refusals, testing::Values(
    Refused_Line{R"({"t":"pre","tid":0,"seq":1})", "key \"seq\": expected a key out of \"t\" \"tid\""},
    Refused_Line{R"({"t":"pte","PA":1})", "key \"PA\": expected a key out of \"t\" \"tid\" \"pa\" \"upper\" \"lower\""},
    Refused_Line{R"({"t":"pte","p":1})", "key \"p\": expected a key out of \"t\" \"tid\" \"pa\" \"upper\" \"lower\""},
    Refused_Line{R"({"t":"commit","in":{"cr":[]}})", "key \"in.cr\": expected a key out of \"gpr\" \"fpr\" \"spr\" \"vmx\" \"vsx\""},
    Refused_Line{R"({"t":"commit","seq":1,"seq":1})", "key \"seq\": expected the key once, found it twice"},
    Refused_Line{R"({"t":"commit","seq":1,"s\u0065q":1})", "key \"seq\": expected the key once, found it twice"},
    Refused_Line{R"({"t":"commit","t":"commit"})", "key \"t\": expected the key once, found it twice"},
    Refused_Line{R"({"t":"commit","data":{"ea":1,"mode":1,"ea":1}})", "key \"data.ea\": expected the key once, found it twice"},
    Refused_Line{R"({"t":"commit","out":{"gpr":[],"gpr":[]}})", "key \"out.gpr\": expected the key once, found it twice"}));

INSTANTIATE_TEST_SUITE_P(of_numbers, Refusals, testing::Values(
    Refused_Line{R"({"t":"commit","op":"0x100000000"})", "key \"op\": expected 0 to 4294967295, as a number or \"0x...\", found \"0x100000000\""},
    Refused_Line{R"({"t":"commit","op":4294967296})", "key \"op\": expected 0 to 4294967295, as a number or \"0x...\", found 4294967296"},
    Refused_Line{R"({"t":"commit","op":-1})", "key \"op\": expected 0 to 4294967295, as a number or \"0x...\", found -1"},
    Refused_Line{R"({"t":"commit","pc":18446744073709551616})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 18446744073709551616"},
    Refused_Line{R"({"t":"commit","pc":"0x00000000000000001"})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found \"0x00000000000000001\""},
    Refused_Line{R"({"t":"commit","pc":"0x"})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found \"0x\""},
    Refused_Line{R"({"t":"commit","pc":"0x12g"})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found \"0x12g\""},
    Refused_Line{R"({"t":"commit","pc":"12"})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found \"12\""},
    Refused_Line{R"({"t":"commit","pc":1.0})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 1.0"},
    Refused_Line{R"({"t":"commit","pc":1e3})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 1e3"},
    Refused_Line{R"({"t":"commit","pc":007})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 007"},
    Refused_Line{R"({"t":"commit","pc":00})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 00"},
    Refused_Line{R"({"t":"commit","pc":07})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 07"},
    Refused_Line{R"({"t":"commit","pc":1.})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 1."},
    Refused_Line{R"({"t":"commit","pc":-})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found -"},
    Refused_Line{R"({"t":"commit","pc":null})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found null"},
    Refused_Line{R"({"t":"commit","pc":true})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found true"},
    Refused_Line{R"({"t":"commit","pc":[1]})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found a list"},
    Refused_Line{R"({"t":"commit","string_length":65536})", "key \"string_length\": expected 0 to 65535, as a number or \"0x...\", found 65536"},
    Refused_Line{R"({"t":"commit","fetch":{"page_size":256}})", "key \"fetch.page_size\": expected 0 to 255, as a number or \"0x...\", found 256"},
    Refused_Line{R"({"t":"commit","data":{"host_depth":-1}})", "key \"data.host_depth\": expected 0 to 255, as a number or \"0x...\", found -1"},
    Refused_Line{R"({"t":"commit","data":{"guest_rpn":"0x1ffffffff"}})", "key \"data.guest_rpn\": expected 0 to 4294967295, as a number or \"0x...\", found \"0x1ffffffff\""},
    Refused_Line{R"({"t":"commit","in":{"gpr":[[2147483648,1]]}})", "key \"in.gpr\": expected -2147483648 to 2147483647, as a number or \"0x...\", found 2147483648"},
    Refused_Line{R"({"t":"commit","in":{"gpr":[[-2147483649,1]]}})", "key \"in.gpr\": expected -2147483648 to 2147483647, as a number or \"0x...\", found -2147483649"},
    Refused_Line{R"({"t":"commit","in":{"gpr":[["0x80000000",1]]}})", "key \"in.gpr\": expected -2147483648 to 2147483647, as a number or \"0x...\", found \"0x80000000\""},
    Refused_Line{"{\"t\":\"commit\",\"pc\":1\x01}", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found 1?"},
    Refused_Line{R"({"t":"commit","pc"::})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found :"},
    Refused_Line{R"({"t":"commit","pc":-01})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found -01"},
    Refused_Line{R"({"t":"commit","pc":""})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found \"\""},
    Refused_Line{R"({"t":"commit","pc":"0X1"})", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found \"0X1\""},
    Refused_Line{"{\"t\":\"commit\",\"pc\":\"0x1\xc3\xa9\"}", "key \"pc\": expected 0 to 18446744073709551615, as a number or \"0x...\", found \"0x1\xc3\xa9\""},
    Refused_Line{R"({"t":"context","pid":"0x100000000"})", "key \"pid\": expected 0 to 4294967295, as a number or \"0x...\", found \"0x100000000\""},
    Refused_Line{R"({"t":"context","kernel":2})", "key \"kernel\": expected true, false, 0 or 1, found 2"},
    Refused_Line{R"({"t":"commit","fetch":{"relocated":"true"}})", "key \"fetch.relocated\": expected true, false, 0 or 1, found \"true\""}));

INSTANTIATE_TEST_SUITE_P(of_threads, Refusals, testing::Values(
    Refused_Line{R"({"t":"commit","tid":4})", "key \"tid\": expected a hardware thread from 0 to 3, found 4"},
    Refused_Line{R"({"t":"pre","tid":-1})", "key \"tid\": expected a hardware thread from 0 to 3, found -1"},
    Refused_Line{R"({"t":"context","tid":9})", "key \"tid\": expected a hardware thread from 0 to 3, found 9"},
    Refused_Line{R"({"t":"pte","tid":2147483648})", "key \"tid\": expected -2147483648 to 2147483647, as a number or \"0x...\", found 2147483648"}));

INSTANTIATE_TEST_SUITE_P(of_lists_and_objects, Refusals, testing::Values(
    Refused_Line{R"({"t":"commit","is":"load"})", "key \"is\": expected a list, found \"load\""},
    Refused_Line{R"({"t":"commit","is":["loads"]})", "key \"is\": expected words out of \"branch\" \"unconditional\" \"taken\" \"load\" \"store\" \"cache\" \"string\" \"exception\" \"vmx\" \"vsx\" \"filtered\" \"sim_support\", found \"loads\""},
    Refused_Line{R"({"t":"commit","is":[1]})", "key \"is\": expected a string, found 1"},
    Refused_Line{R"({"t":"context","guest_pages":["8K"]})", "key \"guest_pages\": expected words out of \"4K\" \"16K\" \"64K\" \"128K\" \"256K\" \"1M\" \"2M\" \"16M\" \"256M\" \"1G\" \"16G\" \"undefined\", found \"8K\""},
    Refused_Line{R"({"t":"commit","text":5})", "key \"text\": expected a string, found 5"},
    Refused_Line{R"({"t":"commit","fetch":[]})", "key \"fetch\": expected an object, found a list"},
    Refused_Line{R"({"t":"commit","in":5})", "key \"in\": expected an object, found 5"},
    Refused_Line{R"({"t":"commit","fetch":{"ea":1}})", "key \"fetch.ea\": expected a key out of \"status\" \"mode\" \"guest_mode\" \"host_mode\" \"guest_two_level\" \"host_two_level\" \"guest_depth\" \"host_depth\" \"relocated\" \"ra\" \"vsid\" \"rpn\" \"page_size\" \"host_rpn\" \"guest_rpn\" \"host_page_size\" \"guest_page_size\" \"host_walk\" \"host_ra\" \"guest_walk\""},
    Refused_Line{R"({"t":"commit","fetch":{"guest_paguest_pa":1}})", "key \"fetch.guest_paguest_pa\": expected a key out of \"status\" \"mode\" \"guest_mode\" \"host_mode\" \"guest_two_level\" \"host_two_level\" \"guest_depth\" \"host_depth\" \"relocated\" \"ra\" \"vsid\" \"rpn\" \"page_size\" \"host_rpn\" \"guest_rpn\" \"host_page_size\" \"guest_page_size\" \"host_walk\" \"host_ra\" \"guest_walk\""},
    Refused_Line{R"({"t":"commit","fetch":{"guest_page_sizx":1}})", "key \"fetch.guest_page_sizx\": expected a key out of \"status\" \"mode\" \"guest_mode\" \"host_mode\" \"guest_two_level\" \"host_two_level\" \"guest_depth\" \"host_depth\" \"relocated\" \"ra\" \"vsid\" \"rpn\" \"page_size\" \"host_rpn\" \"guest_rpn\" \"host_page_size\" \"guest_page_size\" \"host_walk\" \"host_ra\" \"guest_walk\""},
    Refused_Line{R"({"t":"commit","fetch":{"host_walk":[[1,2,3,4],[1,2,3,4],[1,2,3,4],[1,2,3,4],[1,2,3,4],[1,2,3,4]]}})", "key \"fetch.host_walk\": expected at most 5 host walks, found more"},
    Refused_Line{R"({"t":"commit","fetch":{"host_walk":[[1,2,3]]}})", "key \"fetch.host_walk\": expected [\"l1\", \"l2\", \"l3\", \"pte\"], found a list of 3"},
    Refused_Line{R"({"t":"commit","fetch":{"host_walk":[[1,2,3,4,5]]}})", "key \"fetch.host_walk\": expected [\"l1\", \"l2\", \"l3\", \"pte\"], found a longer list"},
    Refused_Line{R"({"t":"commit","fetch":{"host_walk":[1]}})", "key \"fetch.host_walk\": expected [\"l1\", \"l2\", \"l3\", \"pte\"], found 1"},
    Refused_Line{R"({"t":"commit","data":{"host_ra":[1,2,3,4,5]}})", "key \"data.host_ra\": expected at most 4 host real addresses, found more"},
    Refused_Line{R"({"t":"commit","data":{"guest_walk":[1,2,3,4]}})", "key \"data.guest_walk\": expected [\"l1\", \"l2\", \"l3\", \"pte\", \"ra\"], found a list of 4"},
    Refused_Line{R"({"t":"commit","in":{"gpr":[[1]]}})", "key \"in.gpr\": expected [number, \"0xvalue\"], found a list of 1"},
    Refused_Line{R"({"t":"commit","in":{"gpr":[[1,2,3]]}})", "key \"in.gpr\": expected [number, \"0xvalue\"], found a longer list"},
    Refused_Line{R"({"t":"commit","in":{"vsx":[[1,2]]}})", "key \"in.vsx\": expected [number, \"0xword0\", \"0xword1\"], found a list of 2"}));
// clang-format on

TEST(stream_refusals, of_every_byte_that_is_no_hexadecimal_digit)
{
    const std::string no_quote_or_escape = "\"\\";
    for (int byte = ' '; byte < 0x80; ++byte)
        for (size_t place = 0; place < 16; ++place) {
            std::string number(16, '1');
            number[place] = static_cast<char>(byte);
            if (no_quote_or_escape.find(number[place]) != std::string::npos)
                continue;
            const std::string error = refusal_of_line(R"({"t":"commit","pc":"0x)" + number + "\"}");
            EXPECT_EQ(error.empty(), std::isxdigit(byte) != 0) << number;
        }
}

TEST(stream_refusals, of_the_first_line_name_what_must_stand_there)
{
    EXPECT_EQ(outcome_of("{\"t\":\"commit\",\"tid\":0}\n").error,
              "line 1: key \"t\": expected \"machine\" in the first line, found \"commit\"");
    EXPECT_EQ(outcome_of("").error, "line 1: expected \"machine\" in the first line, found the end of the stream");
    EXPECT_EQ(outcome_of("\n\n").error,
              "line 3: expected \"machine\" in the first line, found the end of the stream");
}

TEST(stream_refusals, of_machine_values)
{
    EXPECT_EQ(outcome_of(R"({"t":"machine","processors":1,"threads":1,"options":[452]})").error,
              "line 1: key \"options\": expected 0 to 451, found 452");
    EXPECT_EQ(outcome_of(R"({"t":"machine","processors":1,"threads":1,"options":[453]})").error,
              "line 1: key \"options\": expected 0 to 451, found 453");
    EXPECT_EQ(outcome_of(R"({"t":"machine","processors":"0xffffffff","threads":4294967295})").error,
              "line 1: key \"threads\": expected at most 65536 hardware threads, found 18446744065119617025");
    EXPECT_EQ(outcome_of(R"({"t":"machine","processors":65536,"threads":1,"options":[451]})").error, "");
    EXPECT_EQ(outcome_of(R"({"t":"machine","processors":1,"threads":65537})").error,
              "line 1: key \"threads\": expected at most 65536 hardware threads, found 65537");
    EXPECT_EQ(outcome_of(R"({"t":"machine","processors":4294967296,"threads":1})").error,
              std::string("line 1: key \"processors\": expected ") + WIDE_32 + ", found 4294967296");
}

TEST(stream_refusals, of_events_on_a_machine_without_threads)
{
    EXPECT_EQ(outcome_of("{\"t\":\"machine\"}\n{\"t\":\"commit\"}\n").error,
              "line 2: key \"tid\": expected no event: the machine has no hardware threads, found 0");
}

TEST(stream_refusals, show_a_long_or_unprintable_value_shortened)
{
    const std::string error = refusal_of_line("{\"t\":\"commit\",\"is\":[\"" + std::string(100, 'x') + "\x7f\"]}");
    EXPECT_THAT(error, testing::EndsWith("found \"" + std::string(39, 'x') + "..."));
    for (const size_t length : {40, 41}) {
        const std::string number(length, '1');
        const std::string refused = refusal_of_line(R"({"t":"commit","pc":)" + number + "}");
        EXPECT_THAT(refused, testing::EndsWith(", found " + number.substr(0, 40) + (length == 40 ? "" : "...")));
    }
}

TEST(stream_refusals, are_final)
{
    const Scratch_File file(MACHINE + "{}\n{\"t\":\"commit\"}\n");
    Stream_Reader reader(file.name());
    EXPECT_NE(reader.next(), nullptr);
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_EQ(reader.error()->line, 2u);
    EXPECT_EQ(reader.line_number(), 2u);
}

TEST(stream_refusals, of_lines_beyond_the_longest)
{
    const std::string begin = "{\"t\":\"commit\",\"text\":\"", end = "\"}";
    const std::string fits(Line_Source::MAX_LINE - begin.size() - end.size(), 'x');
    EXPECT_EQ(refusal_of_line(begin + fits + end), "");
    EXPECT_EQ(refusal_of_line(begin + fits + "x" + end), "line 2: expected a line of at most 1048576 bytes");
    EXPECT_EQ(outcome_of(std::string(3 << 20, ' ')).error, "line 1: expected a line of at most 1048576 bytes");
}

// ---- input ----------------------------------------------------------------------------------------------

namespace
{

// Standard input is a pipe into which the pieces come one after the other, the first one at once.
class Piecewise_Input
{
public:
    explicit Piecewise_Input(const std::vector<std::string> &pieces)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        writer_ = fork();
        for (size_t n = 0; writer_ == 0 && n <= pieces.size(); ++n)
            if (n == pieces.size() ||
                write(ends[1], pieces[n].data(), pieces[n].size()) != static_cast<ssize_t>(pieces[n].size()))
                _exit(0);
            else
                usleep(10000);
        close(ends[1]);
    }
    ~Piecewise_Input()
    {
        waitpid(writer_, nullptr, 0);
        dup2(kept_, STDIN_FILENO);
        close(kept_);
    }

private:
    int kept_ = dup(STDIN_FILENO);
    pid_t writer_;
};

} // namespace

TEST(stream_input, blank_lines_are_skipped_and_counted)
{
    const Outcome outcome = outcome_of(MACHINE + "\n  \t\r\n{\"t\":\"commit\"}\n\n{}\n");
    EXPECT_EQ(outcome.events, 2u);
    EXPECT_THAT(outcome.error, testing::StartsWith("line 6: "));
}

TEST(stream_input, lines_of_all_lengths_come_whole_plain_and_compressed)
{
    constexpr size_t LENGTHS[] = {1, 1 << 14, 70'000, 65'535, 1'000'000, 2, 131'072, 262'144, 3};
    std::string stream = MACHINE;
    for (const size_t length : LENGTHS)
        stream += "{\"t\":\"commit\",\"text\":\"" + std::string(length, 'x') + "\"}\n";
    for (const std::string &stored : {stream, compressed(stream)}) {
        const Scratch_File file(stored);
        Stream_Reader reader(file.name());
        reader.next();
        for (const size_t length : LENGTHS) {
            const Stream_Event *event = reader.next();
            ASSERT_NE(event, nullptr) << reader.error()->text();
            EXPECT_EQ(event->instruction.text, std::string(length, 'x'));
        }
        EXPECT_EQ(reader.next(), nullptr);
        EXPECT_FALSE(reader.error());
    }
}

TEST(stream_input, lines_that_fill_the_buffer_to_its_last_byte_come_whole)
{
    const std::string begin = "{\"t\":\"machine\",\"source\":\"";
    const std::string machine = begin + std::string((1 << 19) - begin.size() - 2, 'x') + "\"}";
    const Outcome outcome =
        outcome_of("   \n" + machine + "\n{\"t\":\"machine\"}\n"); // 4 bytes are looked at first
    EXPECT_EQ(outcome.events, 1u);
    EXPECT_THAT(outcome.error, testing::StartsWith("line 3: "));
}

TEST(stream_input, last_line_needs_no_line_end)
{
    const Outcome outcome = outcome_of(MACHINE + "{\"t\":\"commit\"}");
    EXPECT_EQ(outcome.events, 2u);
    EXPECT_EQ(outcome.error, "");
}

TEST(stream_input, file_that_is_not_there_is_an_error_without_line)
{
    Stream_Reader reader("/nowhere/stream.jsonl");
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_EQ(reader.error()->text(), "No such file or directory");
    EXPECT_EQ(reader.line_number() + reader.bytes_used(), 0u);
    EXPECT_EQ(reader.input_size(), std::nullopt);
    Stream_Reader folder("/");
    EXPECT_EQ(folder.next(), nullptr);
    EXPECT_EQ(folder.error()->text(), "expected readable input: Is a directory");
}

TEST(stream_input, compressed_streams_are_told_by_their_first_bytes)
{
    const Outcome outcome =
        outcome_of(compressed(MACHINE + "{\"t\":\"commit\"}\n") + compressed("{\"t\":\"pre\"}\n"));
    EXPECT_EQ(outcome.events, 3u);
    EXPECT_EQ(outcome.error, "");
}

TEST(stream_input, compressed_parts_without_contents_are_passed_over)
{
    const Outcome outcome = outcome_of(compressed(MACHINE) + compressed("") + compressed("{\"t\":\"pre\"}\n") +
                                       compressed("") + compressed(""));
    EXPECT_EQ(outcome.events, 2u);
    EXPECT_EQ(outcome.error, "");
}

TEST(stream_input, compressed_stream_of_any_size_has_an_end)
{
    for (size_t size = 1 << 11; size <= 1 << 17; size *= 2)
        for (const size_t contents : {size - 1, size, size + 1}) {
            const Outcome outcome = outcome_of(compressed(MACHINE + std::string(contents - MACHINE.size(), '\n')));
            EXPECT_EQ(outcome.events, 1u) << contents;
            EXPECT_EQ(outcome.error, "") << contents;
        }
}

TEST(stream_input, cut_compressed_stream_is_refused_wherever_it_is_cut)
{
    std::string lines = MACHINE;
    for (int i = 0; i < 200; ++i)
        lines += "{\"t\":\"commit\",\"seq\":" + std::to_string(i * 7919 % 1009) + "}\n";
    const std::string whole = compressed(lines);
    EXPECT_EQ(outcome_of(whole).events, 201u);
    for (size_t size = 4; size < whole.size(); ++size)
        EXPECT_THAT(outcome_of(whole.substr(0, size)).error,
                    HasSubstr("expected more zstd data: the compressed input is truncated"))
            << size;
}

TEST(stream_input, line_that_is_cut_by_truncation_is_not_delivered)
{
    const std::string whole = compressed(MACHINE + "{\"t\":\"commit\"}\n") + compressed("{\"t\":\"pre\"}  \n");
    const Outcome outcome = outcome_of(whole.substr(0, whole.size() - 1));
    EXPECT_EQ(outcome.events, 2u);
    EXPECT_EQ(outcome.error, "line 3: expected more zstd data: the compressed input is truncated");
}

TEST(stream_input, damaged_compressed_stream_is_refused)
{
    EXPECT_THAT(outcome_of(compressed(MACHINE) + "garbage").error,
                HasSubstr("line 2: expected intact zstd data: "));
}

TEST(stream_input, comes_through_a_pipe_in_small_pieces)
{
    const std::string lines = MACHINE + "{\"t\":\"commit\"}\n";
    for (const std::string &stored : {lines, compressed(lines)})
        for (const size_t beginning : {1, 3}) {
            const Piecewise_Input input({stored.substr(0, beginning), stored.substr(beginning)});
            std::string error;
            size_t events = 0;
            {
                Stream_Reader reader("-");
                while (reader.next())
                    ++events;
                error = reader.error() ? reader.error()->text() : "";
                EXPECT_EQ(reader.input_size(), std::nullopt);
            }
            EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1); // it stays open
            EXPECT_EQ(events, 2u);
            EXPECT_EQ(error, "");
        }
}

TEST(stream_input, signals_while_it_waits_cost_no_line)
{
    struct sigaction passing {
    };
    struct sigaction before {
    };
    passing.sa_handler = [](int) {};
    sigaction(SIGALRM, &passing, &before);
    const itimerval often{{0, 2000}, {0, 2000}}, never{};
    const Piecewise_Input input({MACHINE, "{\"t\":\"commit\"}\n"});
    setitimer(ITIMER_REAL, &often, nullptr);
    Stream_Reader reader("-");
    const bool first = reader.next() != nullptr, second = reader.next() != nullptr;
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_TRUE(first && second);
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_FALSE(reader.error());
}

TEST(stream_input, error_of_a_call_before_is_none_of_the_input)
{
    const Scratch_File file(MACHINE + "{\"t\":\"commit\"}\n");
    Stream_Reader reader(file.name());
    for (int event = 0; event < 2; ++event) {
        errno = EINTR;
        EXPECT_NE(reader.next(), nullptr);
    }
    errno = EINTR;
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_FALSE(reader.error());
}

TEST(stream_input, descriptor_is_closed_at_the_end_and_by_programs_that_are_started)
{
    const Scratch_File file(MACHINE);
    const int next = dup(STDIN_FILENO); // the number that the reader's descriptor gets
    close(next);
    {
        const Stream_Reader reader(file.name());
        EXPECT_EQ(fcntl(next, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(fcntl(next, F_GETFD), -1);
}

TEST(stream_input, progress_of_a_plain_file_ends_with_the_line)
{
    const std::string second = "{\"t\":\"commit\"}\n";
    const Scratch_File file(MACHINE + second + second);
    Stream_Reader reader(file.name());
    EXPECT_EQ(reader.line_number(), 0u);
    reader.next();
    EXPECT_EQ(reader.bytes_used(), MACHINE.size());
    reader.next();
    EXPECT_EQ(reader.bytes_used(), MACHINE.size() + second.size());
    EXPECT_EQ(reader.line_number(), 2u);
}

TEST(stream_input, progress_of_a_compressed_file_never_goes_back_nor_beyond_its_end)
{
    std::string lines = MACHINE;
    for (uint64_t n = 1; n <= 8000; ++n)
        lines += "{\"t\":\"commit\",\"seq\":" + std::to_string(n * 0x9E3779B97F4A7C15) + "}\n";
    const std::string stored = compressed(lines);
    const Scratch_File file(stored);
    Stream_Reader reader(file.name());
    uint64_t before = 0;
    size_t steps = 0;
    while (reader.next()) {
        ASSERT_GE(reader.bytes_used(), before);
        ASSERT_LE(reader.bytes_used(), stored.size());
        steps += reader.bytes_used() > before;
        before = reader.bytes_used();
    }
    EXPECT_FALSE(reader.error());
    EXPECT_GT(steps, 2u);
    EXPECT_EQ(before, stored.size());
}

TEST(stream_input, progress_ends_at_the_size_of_the_input)
{
    for (const std::string &contents :
         {MACHINE + "{\"t\":\"commit\"}\n", compressed(MACHINE + "{\"t\":\"commit\"}\n")}) {
        const Scratch_File file(contents);
        Stream_Reader reader(file.name());
        reader.next();
        while (reader.next())
            continue;
        EXPECT_EQ(reader.input_size(), contents.size());
        EXPECT_EQ(reader.bytes_used(), contents.size());
        EXPECT_EQ(reader.line_number(), 2u);
    }
}

// ---- the recorded streams -------------------------------------------------------------------------------

struct Recorded {
    const char *file;
    size_t commits;
    friend std::ostream &operator<<(std::ostream &out, const Recorded &recorded) { return out << recorded.file; }
};

class Recorded_Stream : public testing::TestWithParam<Recorded>
{
};

TEST_P(Recorded_Stream, reads_to_its_end)
{
    Stream_Reader reader(std::string(STREAMS_FOLDER "/") + GetParam().file);
    size_t commits = 0;
    std::map<int, uint64_t> last_seq;
    while (const Stream_Event *event = reader.next()) {
        if (event->kind != Event_Kind::commit)
            continue;
        ++commits;
        uint64_t &last = last_seq[event->instruction.tid];
        ASSERT_GT(event->instruction.seq, last);
        last = event->instruction.seq;
    }
    EXPECT_FALSE(reader.error()) << reader.error()->text();
    EXPECT_EQ(commits, GetParam().commits);
}

INSTANTIATE_TEST_SUITE_P(streams, Recorded_Stream,
                         testing::Values(Recorded{"sample.jsonl", 2000}, Recorded{"boot-user.jsonl.zst", 110000},
                                         Recorded{"two-cpu.jsonl.zst", 60000}, Recorded{"vector.jsonl.zst", 50000},
                                         Recorded{"firmware.jsonl.zst", 40000}, Recorded{"hash.jsonl.zst", 80000},
                                         Recorded{"guest.jsonl.zst", 100000}),
                         [](const auto &row) {
                             std::string name(row.param.file);
                             name.resize(name.find('.'));
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

// ---- formats --------------------------------------------------------------------------------------------------

TEST(stream_input, other_formats_are_named)
{
    EXPECT_EQ(outcome_of("\x1f\x8b\x08\x00 rest").error, "expected plain UTF-8 or zstd data, found gzip data");
    EXPECT_EQ(outcome_of("\xef\xbb\xbf" + MACHINE).error,
              "expected plain UTF-8 or zstd data, found a byte-order mark");
    EXPECT_EQ(outcome_of("\xff\xfe{").error, "expected plain UTF-8 or zstd data, found UTF-16");
    EXPECT_EQ(outcome_of("\xfe\xff{").error, "expected plain UTF-8 or zstd data, found UTF-16");
    const Scratch_File file("\x1f\x8b\x08\x01 rest");
    Stream_Reader reader(file.name());
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_EQ(reader.bytes_used(), 0u); // nothing of it was handed out
}
