// What an instruction word does: records name the word and the addresses, not the kind.
#pragma once

#include "qtrace_t.h"

#include <cstdint>

namespace qtrace_tool
{

enum class Instruction_Kind : uint8_t { other, load, store, cache, conditional_branch, unconditional_branch };

struct Instruction_Info {
    Instruction_Kind kind = Instruction_Kind::other;
    bool string = false; // moves a number of bytes that it names itself
};

// By the encoding of the traced machine's instruction set.
Instruction_Info instruction_info(uint32_t word);

// How a record's branch went. `undecided`: the last record of a stretch of tracing does not tell.
enum class Branch_Outcome : uint8_t { no_branch, undecided, not_taken, taken, unconditional };
Branch_Outcome branch_outcome(const QTRACE_RECORD &record);

} // namespace qtrace_tool
