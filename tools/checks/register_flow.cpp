#include "register_flow.h"

#include "instruction_kinds.h"
#include "instruction_word.h"
#include "translation.h"

#include <algorithm>
#include <fmt/format.h>
#include <optional>

namespace qtrace_tool
{

using namespace trace;

namespace
{

// Special registers that only instructions change; counters, timers and what interrupts set are not among them.
constexpr std::array<uint16_t, 12> STABLE_SPECIAL = {1, 8, 9, 256, 272, 273, 274, 275, 304, 305, 808, 815};
constexpr uint16_t LINK = 8, COUNT = 9, TARGET = 815, RETURN_ADDRESS = 26, HYPERVISOR_RETURN_ADDRESS = 314;

std::optional<uint64_t> special_input(const QTRACE_REGISTERS &registers, uint16_t index)
{
    const size_t count = std::min<size_t>(registers.num_sprs_in, std::size(registers.spr_in));
    for (size_t i = 0; i < count; i++)
        if (registers.spr_in[i].index == index)
            return registers.spr_in[i].value;
    return std::nullopt;
}

bool goes_to_register(const QTRACE_RECORD &record, uint16_t index, uint64_t next)
{
    const std::optional<uint64_t> target = special_input(record.regs, index);
    return target && ((*target & ~uint64_t{3}) == next || (*target & 0xFFFFFFFC) == next);
}

// The low or the relocated vectors of interrupts and system calls.
bool is_vector(uint64_t address)
{
    constexpr uint64_t KERNEL = 0xC000000000000000;
    struct Range {
        uint64_t first, end;
    };
    static constexpr Range VECTORS[] = {{0x100, 0x2000}, {0x3000, 0x6000}, {0x17000, 0x1A000}};
    if (address % 0x20 != 0)
        return false;
    const uint64_t offset = is_in_kernel(address) ? address - KERNEL : address;
    return std::ranges::any_of(VECTORS,
                               [&](const Range &range) { return offset >= range.first && offset < range.end; });
}

// Of a branch to an address that a register holds; nothing for another instruction.
std::optional<uint16_t> target_register(uint32_t word)
{
    if (primary_opcode(word) != BRANCH_TO_REGISTER)
        return std::nullopt;
    switch (extended_opcode(word)) {
    case TO_LINK:
        return LINK;
    case TO_COUNT:
        return COUNT;
    case TO_TARGET:
        return TARGET;
    case RETURN_FROM_INTERRUPT:
        return RETURN_ADDRESS;
    case RETURN_FROM_HYPERVISOR_INTERRUPT:
        return HYPERVISOR_RETURN_ADDRESS;
    default:
        return std::nullopt;
    }
}

// Power saving, and the transactional instructions that replace registers.
bool loses_registers(uint32_t word)
{
    const uint32_t low = extended_opcode(word);
    if (primary_opcode(word) == BRANCH_TO_REGISTER)
        return low == 370 || low == 402 || low == 434 || low == 466 || low == 498;
    return primary_opcode(word) == 31 && (low == 942 || low == 1006);
}

constexpr bool changes_privilege(uint32_t word)
{
    constexpr uint32_t SYSTEM_CALL = 17;
    return primary_opcode(word) == SYSTEM_CALL ||
           (primary_opcode(word) == BRANCH_TO_REGISTER && is_interrupt_return(extended_opcode(word)));
}

} // namespace

bool goes_on_visibly(const QTRACE_Item &item)
{
    const QTRACE_RECORD &record = item.record;
    const uint32_t word = record.header.instruction;
    const auto &flags = record.header.control.fld;
    if (loses_registers(word))
        return false;
    if (!flags.iar_change_present || !flags.next_instruction_EA_present)
        return !changes_privilege(word);
    const uint64_t next = number(record.next_instruction_ea);
    if (is_vector(next))
        return true;
    if (is_direct_branch(word))
        return !item.address_known || direct_target(word, item.address) == next;
    const std::optional<uint16_t> target = target_register(word);
    return target && goes_to_register(record, *target, next);
}

// ---- Values --------------------------------------------------------------------------------------------

Register_Flow::File Register_Flow::file_of(size_t register_class)
{
    switch (REGISTER_CLASSES[register_class].name[0]) {
    case 'g':
        return GENERAL;
    case 'f':
        return FLOATING;
    case 's':
        return SPECIAL;
    default:
        return REGISTER_CLASSES[register_class].name.starts_with("vsx") ? VECTOR_SCALAR : VECTOR;
    }
}

// Where a register is kept; MOST when it is not.
size_t Register_Flow::slot_of(File file, unsigned index)
{
    if (file == SPECIAL) {
        const auto *const place = std::ranges::find(STABLE_SPECIAL, index);
        return place == STABLE_SPECIAL.end() ? MOST : static_cast<size_t>(place - STABLE_SPECIAL.begin());
    }
    const size_t count = file == VECTOR_SCALAR ? MOST : 32;
    return index < count ? index : MOST;
}

void Register_Flow::forget(Values &values)
{
    for (Value &value : values)
        value.known = false;
}

void Register_Flow::forget()
{
    std::ranges::for_each(values_, [](Values &values) { forget(values); });
}

// The floating-point registers are halves of the first 32 vector-scalar ones, the vector registers are the others.
void Register_Flow::forget_twin(File file, size_t slot)
{
    if (file == FLOATING)
        values_[VECTOR_SCALAR][slot].known = false;
    else if (file == VECTOR)
        values_[VECTOR_SCALAR][slot + 32].known = false;
    else if (file == VECTOR_SCALAR)
        values_[slot < 32 ? FLOATING : VECTOR][slot % 32].known = false;
}

void Register_Flow::compare(Value &seen, const Register_Class &kind, const Register_Entry &entry, uint64_t record,
                            const Report &report)
{
    if (seen.known) {
        checks_++;
        const auto text = [&](const uint64_t(&words)[2]) {
            return kind.words == 2 ? fmt::format("0x{:x}:{:x}", words[0], words[1])
                                   : fmt::format("0x{:x}", words[0]);
        };
        if (!std::ranges::equal(seen.words, entry.value))
            report(fmt::format("{}{} is {}, {} in record {}", kind.letter, entry.index, text(entry.value),
                               text(seen.words), seen.record));
    }
    seen = {{entry.value[0], entry.value[1]}, record, true};
}

void Register_Flow::read(File file, const Register_Class &kind, const QTRACE_Item &item, const Report &report)
{
    const unsigned count = kind.entries(item.record.regs);
    for (unsigned i = 0; i < count; i++) {
        const Register_Entry entry = register_entry(kind, item.record.regs, i);
        const size_t slot = slot_of(file, entry.index);
        if (slot < MOST)
            compare(values_[file][slot], kind, entry, item.record_number, report);
    }
}

void Register_Flow::write(File file, const Register_Class &kind, const QTRACE_Item &item)
{
    const unsigned count = kind.entries(item.record.regs);
    if (count == kind.capacity && file != GENERAL) // there may have been more than a record holds
        forget(values_[file]);
    for (unsigned i = 0; i < count; i++) {
        const Register_Entry entry = register_entry(kind, item.record.regs, i);
        const size_t slot = slot_of(file, entry.index);
        if (slot < MOST) {
            values_[file][slot] = {{entry.value[0], entry.value[1]}, item.record_number, true};
            forget_twin(file, slot);
        }
    }
}

void Register_Flow::record(const QTRACE_Item &item, const Report &report)
{
    if (item.record.header.control.fld.register_trace_present)
        for (size_t i = 0; i < REGISTER_CLASSES.size(); i++) { // inputs come first
            const Register_Class &kind = REGISTER_CLASSES[i];
            if (kind.held(item.record.regs) == 0)
                continue;
            kind.output ? write(file_of(i), kind, item) : read(file_of(i), kind, item, report);
        }
    if (!goes_on_visibly(item))
        forget();
}

} // namespace qtrace_tool
