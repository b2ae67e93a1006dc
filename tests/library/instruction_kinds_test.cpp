// The kinds of records, by instruction words of recorded programs; what each does was told by its mnemonic.
#include "instruction_word.h"
#include "qtrace_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <utility>

namespace
{

constexpr uint32_t L = QTRACE_KIND_LOAD, S = QTRACE_KIND_STORE, B = QTRACE_KIND_BRANCH, C = QTRACE_KIND_CALL,
                   R = QTRACE_KIND_RETURN, STRING = QTRACE_KIND_STRING, TAKEN = QTRACE_KIND_TAKEN;

struct Word {
    uint32_t word;
    const char *text;
    uint32_t kinds;
};

// In a record that ends a trace segment: what only the next address would tell is not known.
constexpr Word WORDS[] = {
    {0x4bfffc10, "b", B},
    {0x4bfff689, "bl", B | C},
    {0x429f0005, "bcl 20,31,.+4: reads its own address", B},
    {0x4e800420, "bctr", B},
    {0x4e800421, "bctrl", B | C},
    {0x4e800020, "blr", B | R},
    {0x4e800820, "blr with the hint that it is no return", B},
    {0x4e801020, "blr with the hint that is reserved", B},
    {0x4e801820, "blr with the hint that its target cannot be foreseen", B},
    {0x4e800021, "blrl", B | C},
    {0x4d820020, "beqlr", B | R},
    {0x4c820021, "bnelrl", B | C},
    {0x4c810020, "blelr", B | R},
    {0x41820008, "beq", B},
    {0x4200ffdc, "bdnz", B},
    {0x4c000024, "rfid", B},
    {0x4c000224, "hrfid", B},
    {0x4c0000a4, "rfscv", B},
    {0x4c000124, "rfebb", B},
    {0x4c000264, "urfid", B},
    {0x4e800460, "bctar", B},
    {0x4c820460, "bnetar", B},
    {0x4c820420, "bnectr", B},
    {0x44000002, "sc", QTRACE_KIND_SYSTEM_CALL},
    {0x44000001, "scv 0", QTRACE_KIND_SYSTEM_CALL},
    {0x4c461382, "cror", 0},
    {0x4c00012c, "isync", 0},
    {0xe96a0110, "ld", L},
    {0x8d070001, "lbzu", L},
    {0xf8010010, "std", S},
    {0x39400004, "li", 0},
    {0x7c0004aa, "lswi", L | STRING},
    {0x7c0005aa, "stswi", S | STRING},
    {0x7c001fec, "dcbz", QTRACE_KIND_CACHE},
    {0x7c00186c, "dcbst", QTRACE_KIND_CACHE},
};

QTRACE_Item item_of(uint32_t word)
{
    QTRACE_Item item{};
    item.kind = QTRACE_ITEM_RECORD;
    item.address = 0x1000;
    item.record.header.instruction = word;
    return item;
}

void go_to(QTRACE_Item &item, uint64_t next)
{
    item.record.header.control.fld.iar_change_present = 1;
    item.record.header.control.fld.next_instruction_EA_present = 1;
    std::memcpy(item.record.next_instruction_ea, &next, sizeof next);
}

// The extended opcodes of primary opcode 31, by the mnemonics of the instruction set's manual.
struct Opcode {
    uint32_t number;
    const char *mnemonic;
};

constexpr Opcode LOADS_31[] = {
    {20, "lwarx"},    {21, "ldx"},     {23, "lwzx"},     {52, "lbarx"},   {53, "ldux"},     {55, "lwzux"},
    {84, "ldarx"},    {87, "lbzx"},    {116, "lharx"},   {119, "lbzux"},  {276, "lqarx"},   {279, "lhzx"},
    {309, "ldmx"},    {311, "lhzux"},  {341, "lwax"},    {343, "lhax"},   {373, "lwaux"},   {375, "lhaux"},
    {532, "ldbrx"},   {534, "lwbrx"},  {790, "lhbrx"},   {789, "lwzcix"}, {821, "lhzcix"},  {853, "lbzcix"},
    {885, "ldcix"},   {533, "lswx"},   {597, "lswi"},    {535, "lfsx"},   {567, "lfsux"},   {599, "lfdx"},
    {631, "lfdux"},   {791, "lfdpx"},  {823, "lfdpux"},  {855, "lfiwax"}, {887, "lfiwzx"},  {7, "lvebx"},
    {39, "lvehx"},    {71, "lvewx"},   {103, "lvx"},     {359, "lvxl"},   {12, "lxsiwzx"},  {76, "lxsiwax"},
    {268, "lxvx"},    {269, "lxvl"},   {301, "lxvll"},   {332, "lxvdsx"}, {364, "lxvwsx"},  {524, "lxsspx"},
    {588, "lxsdx"},   {780, "lxvw4x"}, {781, "lxsibzx"}, {812, "lxvh8x"}, {813, "lxsihzx"}, {844, "lxvd2x"},
    {876, "lxvb16x"}, {582, "lwat"},   {614, "ldat"},
};
constexpr Opcode STORES_31[] = {
    {149, "stdx"},    {150, "stwcx."},  {151, "stwx"},    {181, "stdux"},     {182, "stqcx."},  {183, "stwux"},
    {214, "stdcx."},  {215, "stbx"},    {247, "stbux"},   {407, "sthx"},      {439, "sthux"},   {660, "stdbrx"},
    {661, "stswx"},   {662, "stwbrx"},  {663, "stfsx"},   {694, "stbcx."},    {695, "stfsux"},  {725, "stswi"},
    {726, "sthcx."},  {727, "stfdx"},   {759, "stfdux"},  {917, "stwcix"},    {918, "sthbrx"},  {919, "stfdpx"},
    {949, "sthcix"},  {951, "stfdpux"}, {981, "stbcix"},  {983, "stfiwx"},    {1013, "stdcix"}, {135, "stvebx"},
    {167, "stvehx"},  {199, "stvewx"},  {231, "stvx"},    {487, "stvxl"},     {140, "stxsiwx"}, {396, "stxvx"},
    {397, "stxvl"},   {429, "stxvll"},  {652, "stxsspx"}, {716, "stxsdx"},    {908, "stxvw4x"}, {909, "stxsibx"},
    {940, "stxvh8x"}, {941, "stxsihx"}, {972, "stxvd2x"}, {1004, "stxvb16x"}, {710, "stwat"},   {742, "stdat"},
};
constexpr Opcode CACHES_31[] = {
    {22, "icbt"},  {54, "dcbst"}, {86, "dcbf"},  {246, "dcbtst"}, {262, "icbt of embedded processors"},
    {278, "dcbt"}, {470, "dcbi"}, {982, "icbi"}, {1014, "dcbz"},
};
constexpr uint32_t STRINGS_31[] = {533, 597, 661, 725};

// The number of opcodes that the list has, all with these kinds.
template <size_t N> unsigned expect_all(const Opcode (&opcodes)[N], uint32_t kinds)
{
    for (const Opcode &opcode : opcodes) {
        const bool string = std::ranges::find(STRINGS_31, opcode.number) != std::end(STRINGS_31);
        const QTRACE_Item item = item_of(31u << 26 | opcode.number << 1);
        EXPECT_EQ(qtrace_kinds(&item), kinds | (string ? STRING : 0)) << opcode.mnemonic;
    }
    return N;
}

} // namespace

TEST(instruction_kinds, follow_from_every_extended_opcode_of_31)
{
    const unsigned listed =
        expect_all(LOADS_31, L) + expect_all(STORES_31, S) + expect_all(CACHES_31, QTRACE_KIND_CACHE);
    unsigned others = 0;
    for (uint32_t number = 0; number < 1024; number++) {
        const QTRACE_Item item = item_of(31u << 26 | number << 1);
        others += qtrace_kinds(&item) == 0;
    }
    EXPECT_EQ(listed + others, 1024u);
}

TEST(instruction_kinds, follow_from_every_primary_opcode)
{
    // From 16: conditional branch, system call, branch. From 32: integer and floating-point loads and stores.
    const std::string LETTERS = "................bcb............."
                                "llllssssllllsslsllllsssslll..ss.";
    const std::map<char, uint32_t> kinds = {{'.', 0}, {'l', L}, {'s', S}, {'b', B}, {'c', QTRACE_KIND_SYSTEM_CALL}};
    for (uint32_t opcode = 0; opcode < 64; opcode++) {
        const QTRACE_Item item = item_of(opcode << 26);
        EXPECT_EQ(qtrace_kinds(&item), kinds.at(LETTERS.at(opcode))) << opcode;
    }
}

TEST(instruction_kinds, of_vector_scalar_displacements_follow_from_the_lowest_bits)
{
    const std::pair<uint32_t, const char *> stores[] = {{0, "stfdp"}, {2, "stxsd"}, {3, "stxssp"}, {4, "stfdp"},
                                                        {5, "stxv"},  {6, "stxsd"}, {7, "stxssp"}};
    const QTRACE_Item load = item_of(61u << 26 | 1);
    EXPECT_EQ(qtrace_kinds(&load), L) << "lxv";
    for (const auto &[bits, mnemonic] : stores) {
        const QTRACE_Item store = item_of(61u << 26 | bits);
        EXPECT_EQ(qtrace_kinds(&store), S) << mnemonic;
    }
}

TEST(instruction_kinds, follow_from_the_instruction_word)
{
    for (const Word &word : WORDS) {
        const QTRACE_Item item = item_of(word.word);
        EXPECT_EQ(qtrace_kinds(&item), word.kinds) << word.text;
    }
}

TEST(instruction_kinds, tell_taken_branches_from_those_that_fall_through)
{
    QTRACE_Item taken = item_of(0x41820008), not_taken = item_of(0x41820008), interrupted = item_of(0x41820008);
    go_to(taken, 0x1008);
    not_taken.record.header.control.fld.termination_present = 1;
    not_taken.record.termination_code = QTRACE_ExceededMaximumInstructionDepth;
    go_to(interrupted, 0xc000000000000500); // not the target that the word names
    EXPECT_EQ(qtrace_kinds(&taken), B | TAKEN);
    EXPECT_EQ(qtrace_kinds(&not_taken), B);
    EXPECT_EQ(qtrace_kinds(&interrupted), B);
}

TEST(instruction_kinds, compare_the_next_address_with_the_target_in_the_word)
{
    const std::pair<uint32_t, uint64_t> targets[] = {
        {0x41820008, 0x1008},             // beq .+8
        {0x4200ffdc, 0x0fdc},             // bdnz .-36
        {0x40828000, 0xffffffffffff9000}, // bne .-32768
        {0x41827ffc, 0x8ffc},             // beq .+32764
        {0x41820102, 0x0100},             // beqa 0x100
        {0x4182fffe, 0xfffffffffffffffc}, // beqa -4
    };
    for (const auto &[word, target] : targets) {
        QTRACE_Item taken = item_of(word), other = item_of(word);
        go_to(taken, target);
        go_to(other, target + 4);
        EXPECT_EQ(qtrace_kinds(&taken), B | TAKEN) << std::hex << word;
        EXPECT_EQ(qtrace_kinds(&other), B) << std::hex << word;
    }
}

TEST(instruction_kinds, tell_where_a_direct_branch_goes)
{
    const std::pair<uint32_t, uint64_t> targets[] = {
        {0x4bfffffc, 0x0ffc},             // b .-4
        {0x48000009, 0x1008},             // bl .+8
        {0x49fffffc, 0x2000ffc},          // b .+33554428
        {0x4a000000, 0xfffffffffe001000}, // b .-33554432
        {0x48000102, 0x0100},             // ba 0x100
        {0x4bffffff, 0xfffffffffffffffc}, // bla -4
        {0x4182fffd, 0x0ffc},             // beql .-4
        {0x4182fffe, 0xfffffffffffffffc}, // beqa -4
    };
    for (const auto &[word, target] : targets)
        EXPECT_EQ(trace::direct_target(word, 0x1000), target) << std::hex << word;
}

TEST(instruction_kinds, tell_direct_branches_and_returns_from_others)
{
    for (uint32_t opcode = 0; opcode < 64; opcode++)
        EXPECT_EQ(trace::is_direct_branch(opcode << 26 | 0x3ffffff), opcode == 16 || opcode == 18) << opcode;
    const uint32_t returns[] = {18, 82, 146, 274, 306};
    for (uint32_t extended = 0; extended < 1024; extended++) {
        const bool listed = std::ranges::find(returns, extended) != std::end(returns);
        EXPECT_EQ(trace::is_interrupt_return(extended), listed) << extended;
    }
    EXPECT_EQ(trace::extended_opcode(0xffffffff), 0x3ffu);
    EXPECT_EQ(trace::extended_opcode(0xfffff801), 0u);
}

TEST(instruction_kinds, take_a_branch_whose_condition_says_always_for_taken_wherever_it_went)
{
    for (uint32_t condition = 0; condition < 32; condition++) {
        const bool always = (condition >= 20 && condition < 24) || condition >= 28;
        QTRACE_Item item = item_of(16u << 26 | condition << 21 | 8);
        go_to(item, 0x2000);
        EXPECT_EQ(qtrace_kinds(&item), always ? B | TAKEN : B) << condition;
    }
}

TEST(instruction_kinds, take_an_unconditional_branch_at_the_end_of_a_segment_for_taken)
{
    QTRACE_Item item = item_of(0x4bfff689);
    item.record.header.control.fld.termination_present = 1;
    item.record.termination_code = QTRACE_UnconditionalBranchNode;
    EXPECT_EQ(qtrace_kinds(&item), B | C | TAKEN);
}

TEST(instruction_kinds, include_what_the_flags_of_the_record_say)
{
    QTRACE_Item item = item_of(0xe96a0110);
    item.record.header.control.fld.trace_error_code_present = 1;
    item.record.header.control.fld.length_present = 1;
    EXPECT_EQ(qtrace_kinds(&item), L | STRING | QTRACE_KIND_ERROR);
}

TEST(instruction_kinds, are_none_for_a_header)
{
    QTRACE_Item item = item_of(0xe96a0110);
    item.kind = QTRACE_ITEM_HEADER;
    EXPECT_EQ(qtrace_kinds(&item), 0u);
}

TEST(instruction_kinds, have_names)
{
    const char *const names[] = {"load", "store",  "branch",      "taken", "string",
                                 "call", "return", "system_call", "cache", "error"};
    for (unsigned bit = 0; bit < 10; bit++)
        EXPECT_STREQ(qtrace_kind_name(1u << bit), names[bit]);
    EXPECT_EQ(qtrace_kind_name(0), nullptr);
    EXPECT_EQ(qtrace_kind_name(3), nullptr);
    EXPECT_EQ(qtrace_kind_name(1u << 10), nullptr);
}
