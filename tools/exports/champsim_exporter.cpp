// Input records of the ChampSim simulator: 64 bytes an instruction, little-endian, without a header.
#include "exporter.h"

#include "address_view.h"
#include "instruction_kinds.h"
#include "instruction_word.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace qtrace_tool
{
namespace
{

using namespace trace;

struct Simulator_Record {
    uint64_t ip;
    uint8_t is_branch, branch_taken;
    uint8_t destination_registers[2];
    uint8_t source_registers[4];
    uint64_t destination_memory[2];
    uint64_t source_memory[4];
};
static_assert(sizeof(Simulator_Record) == 64);

// Numbers that the simulator takes for these registers; it tells the kinds of branches by them. 0 is no register.
enum : uint8_t { STACK_POINTER = 6, FLAGS = 25, INSTRUCTION_POINTER = 26 };
// Ours keep clear of them. Floating-point registers are the first half of the vector-scalar ones, vector registers the
// second.
enum : uint8_t { FIRST_GENERAL = 64, FIRST_VECTOR_SCALAR = 128, LINK = 192, COUNT = 193, FIRST_SPECIAL = 194 };

uint8_t special_number(unsigned index)
{
    constexpr unsigned LINK_INDEX = 8, COUNT_INDEX = 9;
    if (index == LINK_INDEX || index == COUNT_INDEX)
        return index == LINK_INDEX ? LINK : COUNT;
    return static_cast<uint8_t>(FIRST_SPECIAL + index % (256 - FIRST_SPECIAL));
}

uint8_t simulator_number(char letter, unsigned index)
{
    switch (letter) {
    case 'r':
        return static_cast<uint8_t>(FIRST_GENERAL + index % 32);
    case 's':
        return special_number(index);
    case 'v':
        return static_cast<uint8_t>(FIRST_VECTOR_SCALAR + 32 + index % 32);
    default:
        return static_cast<uint8_t>(FIRST_VECTOR_SCALAR + index % 64);
    }
}

// Some of a record's places, filled from the first on.
template <class Value, size_t SIZE> class Places
{
public:
    explicit Places(Value (&to)[SIZE]) : to_(to) {}
    // False: there is no room.
    bool add(Value value)
    {
        if (std::find(to_, to_ + used_, value) != to_ + used_)
            return true;
        if (used_ == SIZE)
            return false;
        to_[used_++] = value;
        return true;
    }

private:
    Value *to_;
    size_t used_ = 0;
};

class Champsim_Exporter : public Exporter
{
public:
    Champsim_Exporter(Output_File &file, const Export_Options &options);
    void header(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void lost(uint64_t, uint64_t) override { page_known_ = false; }
    void finish() override { write(); }
    std::vector<std::string> shortcomings() const override;

private:
    using Inputs = Places<uint8_t, 4>;
    using Outputs = Places<uint8_t, 2>;
    void mark_branch(uint32_t word, uint32_t kinds, Inputs &inputs, Outputs &outputs);
    void add_registers(const QTRACE_REGISTERS &registers, Inputs &inputs, Outputs &outputs, bool read);
    void add_access(const QTRACE_RECORD &record, uint32_t kinds, Simulator_Record &to);
    void enter(const Translated_Address &address);
    uint64_t fetch_address(const QTRACE_Item &item);
    void write();

    Output_File &file_;
    bool real_;
    std::array<Simulator_Record, 512> records_; // not written yet
    size_t used_ = 0;
    bool page_known_ = false; // of the instructions, with real_
    uint64_t page_ = 0, real_page_ = 0;
    uint64_t inputs_left_out_ = 0, outputs_left_out_ = 0, accesses_left_out_ = 0, not_translated_ = 0, jumps_ = 0;
};

constexpr unsigned PAGE_BITS = Translated_Address::PAGE_NUMBER_BITS;

Champsim_Exporter::Champsim_Exporter(Output_File &file, const Export_Options &options)
    : file_(file), real_(options.real)
{
    if (options.files.size() != 1)
        throw std::invalid_argument("champsim takes one trace file: a simulated core reads one thread");
}

void Champsim_Exporter::enter(const Translated_Address &address)
{
    const std::optional<uint64_t> real = address.real();
    page_known_ = real.has_value();
    page_ = address.address >> PAGE_BITS;
    real_page_ = real.value_or(0) >> PAGE_BITS;
}

void Champsim_Exporter::header(const QTRACE_Item &item, const QTRACE_FILE_HDR *)
{
    if (item.header.control.iar_is_present)
        enter(first_address_of(item.header));
}

uint64_t Champsim_Exporter::fetch_address(const QTRACE_Item &item)
{
    if (!real_)
        return item.address;
    if (!page_known_ || item.address >> PAGE_BITS != page_) {
        not_translated_++;
        return item.address;
    }
    return real_page_ << PAGE_BITS | (item.address & ((1u << PAGE_BITS) - 1));
}

// A branch whose target is in the word and that does not depend on anything: read registers would make it another kind.
static bool is_direct(uint32_t word, uint32_t kinds)
{
    return (kinds & QTRACE_KIND_BRANCH) != 0 && primary_opcode(word) != BRANCH_TO_REGISTER &&
           ((kinds & QTRACE_KIND_CALL) != 0 || instruction_info(word).kind != Instruction_Kind::conditional_branch);
}

// How the simulator tells calls, returns, conditional and indirect branches apart: by which of the three registers
// they read and write, and whether they read any other.
void Champsim_Exporter::mark_branch(uint32_t word, uint32_t kinds, Inputs &inputs, Outputs &outputs)
{
    const bool indirect = primary_opcode(word) == BRANCH_TO_REGISTER;
    outputs.add(INSTRUCTION_POINTER);
    if ((kinds & (QTRACE_KIND_CALL | QTRACE_KIND_RETURN)) != 0) {
        outputs.add(STACK_POINTER);
        inputs.add(STACK_POINTER);
        if ((kinds & QTRACE_KIND_CALL) != 0)
            inputs.add(INSTRUCTION_POINTER);
    } else if (instruction_info(word).kind == Instruction_Kind::conditional_branch) {
        inputs.add(INSTRUCTION_POINTER);
        inputs.add(FLAGS);
    }
    if (indirect && (kinds & QTRACE_KIND_RETURN) == 0)
        inputs.add(extended_opcode(word) == TO_COUNT ? COUNT : LINK);
}

void Champsim_Exporter::add_registers(const QTRACE_REGISTERS &registers, Inputs &inputs, Outputs &outputs,
                                      bool read)
{
    for (const Register_Class &kind : REGISTER_CLASSES) {
        if (kind.held(registers) == 0) // most are
            continue;
        for (unsigned i = 0; i < kind.entries(registers); i++) {
            uint16_t index;
            std::memcpy(&index, kind.entry(registers, i), sizeof index);
            const uint8_t own = simulator_number(kind.letter[0], index);
            if (kind.output)
                outputs_left_out_ += !outputs.add(own);
            else if (read)
                inputs_left_out_ += !inputs.add(own);
        }
    }
}

void Champsim_Exporter::add_access(const QTRACE_RECORD &record, uint32_t kinds, Simulator_Record &to)
{
    if (!record.header.control.fld.data_address_present)
        return;
    const std::optional<uint64_t> real = real_ ? data_address_of(record).real() : std::nullopt;
    not_translated_ += real_ && !real;
    const uint64_t address = real ? *real : number(record.data_ea);
    if ((kinds & QTRACE_KIND_LOAD) != 0)
        to.source_memory[0] = address;
    if ((kinds & QTRACE_KIND_STORE) != 0)
        to.destination_memory[0] = address;
    accesses_left_out_ += address == 0 || (kinds & (QTRACE_KIND_LOAD | QTRACE_KIND_STORE)) == 0;
}

void Champsim_Exporter::record(const QTRACE_Item &item, const QTRACE_FILE_HDR *)
{
    const QTRACE_RECORD &record = item.record;
    const uint32_t kinds = kinds_of(record, item.address);
    const bool branch = (kinds & QTRACE_KIND_BRANCH) != 0;
    Simulator_Record &to = records_[used_++] = {};
    Inputs inputs(to.source_registers);
    Outputs outputs(to.destination_registers);
    to.ip = fetch_address(item);
    to.is_branch = branch;
    to.branch_taken = (kinds & QTRACE_KIND_TAKEN) != 0;
    if (branch)
        mark_branch(record.header.instruction, kinds, inputs, outputs);
    add_registers(record.regs, inputs, outputs, !is_direct(record.header.instruction, kinds));
    add_access(record, kinds, to);
    jumps_ += !branch && record.header.control.fld.iar_change_present;
    if (real_ && record.header.control.fld.next_instruction_EA_present)
        enter(next_address_of(record));
    if (used_ == records_.size())
        write();
}

void Champsim_Exporter::write()
{
    const size_t bytes = std::exchange(used_, 0) * sizeof(Simulator_Record);
    file_.out().put(std::string_view(reinterpret_cast<const char *>(records_.data()), bytes));
    file_.out().settle();
    file_.check();
}

std::vector<std::string> Champsim_Exporter::shortcomings() const
{
    std::vector<std::string> sentences;
    const auto say = [&](uint64_t count, const char *what) {
        if (count != 0)
            sentences.push_back(fmt::format("{}: {}", what, count));
    };
    say(outputs_left_out_, "registers written that have no place (2 an instruction)");
    say(inputs_left_out_, "registers read that have no place (4 an instruction)");
    say(accesses_left_out_, "accesses left out (cache management, or to address 0)");
    say(not_translated_, "addresses without a recorded real one, left effective");
    say(jumps_, "control-flow changes without a branch (interrupts, exceptions)");
    return sentences;
}

} // namespace

std::unique_ptr<Exporter> make_champsim_exporter(Output_File &file, const Export_Options &options)
{
    return std::make_unique<Champsim_Exporter>(file, options);
}

} // namespace qtrace_tool
