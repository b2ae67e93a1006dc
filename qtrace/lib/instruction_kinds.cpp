#include "instruction_kinds.h"

#include "instruction_word.h"

#include <array>
#include <cstring>

namespace trace
{
namespace
{

using enum Instruction_Kind;

// Bits 26 to 31 of the word: the primary opcode.
constexpr std::array<Instruction_Kind, 64> PRIMARY = [] {
    std::array<Instruction_Kind, 64> kinds{};
    for (const int opcode : {32, 33, 34, 35, 40, 41, 42, 43, 46, 48, 49, 50, 51, 56, 57, 58})
        kinds[opcode] = load;
    for (const int opcode : {36, 37, 38, 39, 44, 45, 47, 52, 53, 54, 55, 62})
        kinds[opcode] = store;
    kinds[BRANCH_CONDITIONAL] = conditional_branch;
    kinds[BRANCH] = unconditional_branch;
    return kinds;
}();

// Opcode 31 is divided further by bits 1 to 10.
constexpr std::array<Instruction_Info, 1024> EXTENDED_31 = [] {
    std::array<Instruction_Info, 1024> infos{};
    for (const int opcode :
         {20,  21,  23,  52,  53,  55,  84,  87,  116, 119, 276, 279, 309, 311, 341, 343, 373, 375, // integer
          532, 534, 790, 789, 821, 853, 885, 533, 597,                               // reversed, string
          535, 567, 599, 631, 855, 887, 791, 823,                                    // floating-point
          7,   39,  71,  103, 359,                                                   // vector
          12,  76,  268, 364, 332, 524, 588, 269, 301, 781, 813, 844, 876, 780, 812, // vector-scalar
          582, 614})                                                                 // atomic
        infos[opcode].kind = load;
    for (const int opcode : {149, 150, 151, 181, 182, 183, 214, 215, 247, 407, 439, 660,  661, 662,  663,
                             694, 695, 725, 726, 727, 759, 917, 918, 919, 949, 951, 981,  983, 1013, //
                             135, 167, 199, 231, 487,                                                //
                             140, 396, 397, 429, 652, 716, 908, 909, 940, 941, 972, 1004, 710, 742})
        infos[opcode].kind = store;
    for (const int opcode : {54, 86, 246, 278, 470, 982, 1014, 22, 262})
        infos[opcode].kind = cache;
    for (const int opcode : {533, 597, 661, 725})
        infos[opcode].string = true;
    return infos;
}();

Instruction_Kind branch_of_19(uint32_t extended)
{
    if (extended == TO_LINK || extended == TO_COUNT || extended == TO_TARGET)
        return conditional_branch;
    return is_interrupt_return(extended) ? unconditional_branch : other;
}

// A branch whose condition field says "always".
bool is_always(uint32_t word)
{
    return (word >> 21 & 0x14) == 0x14;
}

// Whether a conditional branch went to `next`. Only those with their target in the word can tell otherwise.
bool may_go_to(uint32_t word, uint64_t address, uint64_t next)
{
    return primary_opcode(word) != BRANCH_CONDITIONAL || direct_target(word, address) == next;
}

} // namespace

// A branch that leaves the address of the next sequential instruction in the link register. `bcl 20,31,.+4` only
// reads its own address that way.
static bool is_call(uint32_t word)
{
    constexpr uint32_t READ_ADDRESS = 0x429F0005;
    return (word & 1) != 0 && word != READ_ADDRESS;
}

// A branch to the link register whose hint does not deny that it is a return.
static bool is_return(uint32_t word)
{
    constexpr uint32_t OPCODE = 0xFC0007FF, HINT = 3 << 11,
                       TO_LINK_REGISTER = BRANCH_TO_REGISTER << 26 | TO_LINK << 1;
    return (word & (OPCODE | HINT)) == TO_LINK_REGISTER;
}

Instruction_Info instruction_info(uint32_t word)
{
    const uint32_t primary = primary_opcode(word), extended = extended_opcode(word);
    Instruction_Info info{PRIMARY[primary], false};
    if (primary == 31)
        info = EXTENDED_31[extended];
    else if (primary == BRANCH_TO_REGISTER)
        info.kind = branch_of_19(extended);
    else if (primary == 61) // bits 0 to 2: the vector-scalar loads and stores with a displacement
        info.kind = (word & 7) == 1 ? load : store;
    if (info.kind == conditional_branch && is_always(word))
        info.kind = unconditional_branch;
    return info;
}

Branch_Outcome branch_outcome(const QTRACE_RECORD &record, uint64_t address)
{
    const auto &flags = record.header.control.fld;
    if (flags.termination_present && record.termination_code == QTRACE_UnconditionalBranchNode)
        return Branch_Outcome::unconditional;
    const Instruction_Kind kind = instruction_info(record.header.instruction).kind;
    if (kind != conditional_branch && kind != unconditional_branch)
        return Branch_Outcome::no_branch;
    if (flags.iar_change_present && kind == unconditional_branch)
        return Branch_Outcome::unconditional;
    uint64_t next;
    std::memcpy(&next, record.next_instruction_ea, sizeof(next));
    if (flags.iar_change_present)
        return may_go_to(record.header.instruction, address, next) ? Branch_Outcome::taken
                                                                   : Branch_Outcome::not_taken;
    return flags.termination_present ? Branch_Outcome::not_taken : Branch_Outcome::undecided;
}

// ---- Kinds of a record -------------------------------------------------------------------------------------

static constexpr Kind_Name KIND_ROWS[] = {
    {"load", QTRACE_KIND_LOAD},     {"store", QTRACE_KIND_STORE},
    {"branch", QTRACE_KIND_BRANCH}, {"taken", QTRACE_KIND_TAKEN},
    {"string", QTRACE_KIND_STRING}, {"call", QTRACE_KIND_CALL},
    {"return", QTRACE_KIND_RETURN}, {"system_call", QTRACE_KIND_SYSTEM_CALL},
    {"cache", QTRACE_KIND_CACHE},   {"error", QTRACE_KIND_ERROR},
};
const std::span<const Kind_Name> KINDS{KIND_ROWS};

static uint32_t kind_if(bool condition, QTRACE_KIND kind)
{
    return condition ? static_cast<uint32_t>(kind) : 0;
}

static uint32_t kinds_of_branch(uint32_t word, Branch_Outcome outcome)
{
    const bool went = outcome == Branch_Outcome::taken || outcome == Branch_Outcome::unconditional;
    return QTRACE_KIND_BRANCH | kind_if(went, QTRACE_KIND_TAKEN) | kind_if(is_call(word), QTRACE_KIND_CALL) |
           kind_if(is_return(word), QTRACE_KIND_RETURN);
}

static uint32_t kinds_of_other(uint32_t word, Instruction_Kind kind)
{
    constexpr uint32_t SYSTEM_CALL = 17;
    return kind_if(kind == load, QTRACE_KIND_LOAD) | kind_if(kind == store, QTRACE_KIND_STORE) |
           kind_if(kind == cache, QTRACE_KIND_CACHE) |
           kind_if(primary_opcode(word) == SYSTEM_CALL, QTRACE_KIND_SYSTEM_CALL);
}

uint32_t kinds_of(const QTRACE_RECORD &record, uint64_t address)
{
    const auto &flags = record.header.control.fld;
    const uint32_t word = record.header.instruction;
    const Instruction_Info info = instruction_info(word);
    const Branch_Outcome outcome = branch_outcome(record, address);
    return (outcome == Branch_Outcome::no_branch ? kinds_of_other(word, info.kind)
                                                 : kinds_of_branch(word, outcome)) |
           kind_if(flags.length_present || info.string, QTRACE_KIND_STRING) |
           kind_if(flags.trace_error_code_present, QTRACE_KIND_ERROR);
}

} // namespace trace
