// What an instruction word does: records name the word and the addresses, not the kind.
#pragma once

#include "qtrace_reader.h"
#include "qtrace_t.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace trace
{

enum class Instruction_Kind : uint8_t { other, load, store, cache, conditional_branch, unconditional_branch };

struct Instruction_Info {
    Instruction_Kind kind = Instruction_Kind::other;
    bool string = false; // moves a number of bytes that it names itself
};

// By the encoding of the traced machine's instruction set.
Instruction_Info instruction_info(uint32_t word);

// How a record's branch went. `undecided`: the last record of a trace segment does not tell.
enum class Branch_Outcome : uint8_t { no_branch, undecided, not_taken, taken, unconditional };
// An interrupt after an untaken branch changes the address too; where the target is in the word it is told apart.
Branch_Outcome branch_outcome(const QTRACE_RECORD &record, uint64_t address);

// ---- Kinds of a record -------------------------------------------------------------------------------------

// QTRACE_KIND bits of the record's word, flags and outcome; `address` is where its instruction is.
uint32_t kinds_of(const QTRACE_RECORD &record, uint64_t address);

struct Kind_Name {
    std::string_view name;
    QTRACE_KIND kind;
};
// In the order of their bits.
extern const std::span<const Kind_Name> KINDS;

} // namespace trace
