// The kinds of records, by instruction words of recorded programs; what each does was told by its mnemonic.
#include "qtrace_reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

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
    {0x4e800021, "blrl", B | C},
    {0x4d820020, "beqlr", B | R},
    {0x4c820021, "bnelrl", B | C},
    {0x4c810020, "blelr", B | R},
    {0x41820008, "beq", B},
    {0x4200ffdc, "bdnz", B},
    {0x4c000024, "rfid", B},
    {0x4c000224, "hrfid", B},
    {0x4c0000a4, "rfscv", B},
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

} // namespace

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
