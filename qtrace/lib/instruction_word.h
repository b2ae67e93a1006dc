// Parts of an instruction word, by the encoding of the traced machine's instruction set.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace trace
{

// Primary opcodes of branches.
inline constexpr uint32_t BRANCH_CONDITIONAL = 16, BRANCH = 18; // target in the word
inline constexpr uint32_t BRANCH_TO_REGISTER = 19;              // with these extended opcodes:
inline constexpr uint32_t TO_LINK = 16, TO_COUNT = 528, TO_TARGET = 560;
// Returns from interrupts and system calls.
inline constexpr uint32_t RETURN_FROM_INTERRUPT = 18, RETURN_FROM_HYPERVISOR_INTERRUPT = 274;
inline constexpr uint32_t OTHER_RETURNS[] = {82, 146, 306};

constexpr uint32_t primary_opcode(uint32_t word)
{
    return word >> 26;
}

// Divides some primary opcodes further.
constexpr uint32_t extended_opcode(uint32_t word)
{
    return word >> 1 & 0x3FF;
}

// Of the extended opcode of a BRANCH_TO_REGISTER.
constexpr bool is_interrupt_return(uint32_t extended)
{
    return extended == RETURN_FROM_INTERRUPT || extended == RETURN_FROM_HYPERVISOR_INTERRUPT ||
           std::ranges::find(OTHER_RETURNS, extended) != std::end(OTHER_RETURNS);
}

constexpr bool is_direct_branch(uint32_t word)
{
    return primary_opcode(word) == BRANCH_CONDITIONAL || primary_opcode(word) == BRANCH;
}

// Where a direct branch at `address` goes when it is taken.
constexpr uint64_t direct_target(uint32_t word, uint64_t address)
{
    constexpr uint32_t ABSOLUTE = 2, SIGN = 0x02000000;
    const uint64_t base = (word & ABSOLUTE) != 0 ? 0 : address;
    if (primary_opcode(word) == BRANCH_CONDITIONAL)
        return base + static_cast<uint64_t>(int64_t{static_cast<int16_t>(word & 0xFFFC)});
    const uint64_t distance = word & 0x03FFFFFC;
    return base + ((distance ^ SIGN) - SIGN);
}

} // namespace trace
