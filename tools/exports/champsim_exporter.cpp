// Input records of the ChampSim simulator: 64 bytes an instruction, little-endian, without a header.
#include "exporter.h"

#include "address_view.h"
#include "instruction_kinds.h"
#include "instruction_word.h"

#include <algorithm>
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

// What the format has no place for.
struct Left_Out {
    uint64_t inputs = 0, outputs = 0, accesses = 0, not_translated = 0, jumps = 0;
    Left_Out &operator+=(const Left_Out &other)
    {
        inputs += other.inputs;
        outputs += other.outputs;
        accesses += other.accesses;
        not_translated += other.not_translated;
        jumps += other.jumps;
        return *this;
    }
};

// The page that instructions are on, and its real one.
struct Code_Page {
    bool known = false;
    uint64_t page = 0, real_page = 0;
    // Makes the address real, if it is on that page.
    bool translate(uint64_t &address) const;
};

// The records of a group of blocks.
class Champsim_Part : public Export_Part
{
public:
    // Room for a usual group at once: a vector that grows gives its memory back to the system each time.
    explicit Champsim_Part(bool real) : real_(real) { records_.reserve(8192); }
    void header(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void record(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) override;
    void lost(uint64_t, uint64_t) override { enter(Code_Page{}); }

    size_t size() const override { return bytes().size(); }
    // `page`: where the instructions before this part were; afterwards, those before the next one.
    void follow(Code_Page &page);
    std::string_view bytes() const
    {
        return {reinterpret_cast<const char *>(records_.data()), records_.size() * sizeof(Simulator_Record)};
    }
    const Left_Out &left_out() const { return left_out_; }

private:
    using Inputs = Places<uint8_t, 4>;
    using Outputs = Places<uint8_t, 2>;
    void mark_branch(uint32_t word, uint32_t kinds, Inputs &inputs, Outputs &outputs);
    void add_registers(const QTRACE_REGISTERS &registers, Inputs &inputs, Outputs &outputs, bool read);
    void add_access(const QTRACE_RECORD &record, uint32_t kinds, Simulator_Record &to);
    void enter(const Code_Page &page);
    void enter(const Translated_Address &address);

    bool real_;
    std::vector<Simulator_Record> records_;
    bool page_told_ = false; // by this part
    size_t before_told_ = 0; // records
    Code_Page page_;         // of the instructions, with real_
    Left_Out left_out_;
};

constexpr unsigned PAGE_BITS = Translated_Address::PAGE_NUMBER_BITS;

bool Code_Page::translate(uint64_t &address) const
{
    if (!known || address >> PAGE_BITS != page)
        return false;
    address = real_page << PAGE_BITS | (address & ((1u << PAGE_BITS) - 1));
    return true;
}

void Champsim_Part::enter(const Code_Page &page)
{
    if (!std::exchange(page_told_, true))
        before_told_ = records_.size();
    page_ = page;
}

void Champsim_Part::enter(const Translated_Address &address)
{
    const std::optional<uint64_t> real = address.real();
    enter(Code_Page{real.has_value(), address.address >> PAGE_BITS, real.value_or(0) >> PAGE_BITS});
}

void Champsim_Part::header(const QTRACE_Item &item, const QTRACE_FILE_HDR *)
{
    if (item.header.control.iar_is_present)
        enter(first_address_of(item.header));
}

void Champsim_Part::follow(Code_Page &page)
{
    const size_t before_told = page_told_ ? before_told_ : records_.size();
    for (size_t i = 0; real_ && i < before_told; i++)
        left_out_.not_translated += !page.translate(records_[i].ip);
    if (page_told_)
        page = page_;
}

// A branch whose target is in the word and that does not depend on anything: read registers would make it another kind.
static bool is_direct(uint32_t word, uint32_t kinds)
{
    return (kinds & QTRACE_KIND_BRANCH) != 0 && primary_opcode(word) != BRANCH_TO_REGISTER &&
           ((kinds & QTRACE_KIND_CALL) != 0 || instruction_info(word).kind != Instruction_Kind::conditional_branch);
}

// How the simulator tells calls, returns, conditional and indirect branches apart: by which of the three registers
// they read and write, and whether they read any other.
void Champsim_Part::mark_branch(uint32_t word, uint32_t kinds, Inputs &inputs, Outputs &outputs)
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

void Champsim_Part::add_registers(const QTRACE_REGISTERS &registers, Inputs &inputs, Outputs &outputs, bool read)
{
    for (const Register_Class &kind : REGISTER_CLASSES) {
        if (kind.held(registers) == 0) // most are
            continue;
        for (unsigned i = 0; i < kind.entries(registers); i++) {
            uint16_t index;
            std::memcpy(&index, kind.entry(registers, i), sizeof index);
            const uint8_t own = simulator_number(kind.letter[0], index);
            if (kind.output)
                left_out_.outputs += !outputs.add(own);
            else if (read)
                left_out_.inputs += !inputs.add(own);
        }
    }
}

void Champsim_Part::add_access(const QTRACE_RECORD &record, uint32_t kinds, Simulator_Record &to)
{
    if (!record.header.control.fld.data_address_present)
        return;
    const std::optional<uint64_t> real = real_ ? data_address_of(record).real() : std::nullopt;
    left_out_.not_translated += real_ && !real;
    const uint64_t address = real ? *real : number(record.data_ea);
    if ((kinds & QTRACE_KIND_LOAD) != 0)
        to.source_memory[0] = address;
    if ((kinds & QTRACE_KIND_STORE) != 0)
        to.destination_memory[0] = address;
    left_out_.accesses += address == 0 || (kinds & (QTRACE_KIND_LOAD | QTRACE_KIND_STORE)) == 0;
}

void Champsim_Part::record(const QTRACE_Item &item, const QTRACE_FILE_HDR *)
{
    const QTRACE_RECORD &record = item.record;
    const uint32_t kinds = kinds_of(record, item.address);
    const bool branch = (kinds & QTRACE_KIND_BRANCH) != 0;
    Simulator_Record &to = records_.emplace_back();
    Inputs inputs(to.source_registers);
    Outputs outputs(to.destination_registers);
    to.ip = item.address;
    if (real_ && page_told_)
        left_out_.not_translated += !page_.translate(to.ip);
    to.is_branch = branch;
    to.branch_taken = (kinds & QTRACE_KIND_TAKEN) != 0;
    if (branch)
        mark_branch(record.header.instruction, kinds, inputs, outputs);
    add_registers(record.regs, inputs, outputs, !is_direct(record.header.instruction, kinds));
    add_access(record, kinds, to);
    left_out_.jumps += !branch && record.header.control.fld.iar_change_present;
    if (real_ && record.header.control.fld.next_instruction_EA_present)
        enter(next_address_of(record));
}

// ---- The exporter --------------------------------------------------------------------------------------

class Champsim_Exporter : public Exporter
{
public:
    Champsim_Exporter(Output_File &file, const Export_Options &options);
    std::unique_ptr<Export_Part> make_part() const override { return std::make_unique<Champsim_Part>(real_); }
    void add(Export_Part &part) override;
    std::vector<std::string> shortcomings() const override;

private:
    Output_File &file_;
    bool real_;
    Code_Page page_; // of the instructions, with real_
    Left_Out left_out_;
};

Champsim_Exporter::Champsim_Exporter(Output_File &file, const Export_Options &options)
    : file_(file), real_(options.real)
{
    if (options.files.size() != 1)
        throw std::invalid_argument("champsim takes one trace file: a simulated core reads one thread");
}

void Champsim_Exporter::add(Export_Part &part)
{
    auto &records = static_cast<Champsim_Part &>(part);
    records.follow(page_);
    left_out_ += records.left_out();
    file_.out().put(records.bytes());
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
    say(left_out_.outputs, "registers written that have no place (2 an instruction)");
    say(left_out_.inputs, "registers read that have no place (4 an instruction)");
    say(left_out_.accesses, "accesses left out (cache management, or to address 0)");
    say(left_out_.not_translated, "addresses without a recorded real one, left effective");
    say(left_out_.jumps, "control-flow changes without a branch (interrupts, exceptions)");
    return sentences;
}

} // namespace

std::unique_ptr<Exporter> make_champsim_exporter(Output_File &file, const Export_Options &options)
{
    return std::make_unique<Champsim_Exporter>(file, options);
}

} // namespace qtrace_tool
