// generated_trace FILE RECORDS SEED: writes a trace of a program that was never run. It reaches new code, data pages
// and register values from its first record to its last, so that tables that grow with a trace do grow.
#include "qtrace.h"
#include "qtrace_reader.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

class Random
{
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next()
    {
        state_ += 0x9E3779B97F4A7C15u;
        uint64_t word = (state_ ^ state_ >> 30) * 0xBF58476D1CE4E5B9u;
        word = (word ^ word >> 27) * 0x94D049BB133111EBu;
        return word ^ word >> 31;
    }
    bool one_in(uint64_t count) { return next() % count == 0; }

private:
    uint64_t state_;
};

// Places that were reached lately, of which one is chosen mostly; now and then a new one takes the place of another.
class Places
{
public:
    Places(uint64_t first, uint64_t distance, uint64_t new_one_in)
        : newest_(first), distance_(distance), new_one_in_(new_one_in)
    {
        for (uint64_t &place : recent_)
            place = fresh();
    }
    uint64_t choose(Random &random)
    {
        uint64_t &place = recent_[random.next() % RECENT];
        return random.one_in(new_one_in_) ? place = fresh() : place;
    }

private:
    static constexpr size_t RECENT = 64;
    uint64_t fresh() { return newest_ += distance_; }

    uint64_t newest_, distance_, new_one_in_;
    uint64_t recent_[RECENT];
};

template <class Bytes> void put(Bytes &bytes, uint64_t value)
{
    static_assert(sizeof bytes <= sizeof value);
    std::memcpy(bytes, &value, sizeof bytes);
}

constexpr uint64_t page_number_of(uint64_t address)
{
    return (address >> 12) + 0x1000;
}

void put_walk(QTRACE_RTW &walk, uint8_t &depth, uint64_t address)
{
    depth = 4;
    put(walk.RTPDE_ra_l1, 0x10000 + (address >> 39 << 3));
    put(walk.RTPDE_ra_l2, 0x20000 + (address >> 30 << 3));
    put(walk.RTPDE_ra_l3, 0x40000000 + (address >> 21 << 3));
    put(walk.RTPTE_ra, 0x80000000 + (address >> 12 << 3));
}

class Program
{
public:
    explicit Program(uint64_t seed) : random_(seed) { clear(); }

    int write_header(QTRACE_FDESCR file);
    int write_partition(QTRACE_FDESCR file);
    int write_record(QTRACE_FDESCR file);

private:
    void clear();
    void compute();
    void access(uint32_t word);
    void branch();
    void pass_branch();

    Random random_;
    Places code_{0x10000000, 0x340, 200}, data_{0x7f0000000000, 0x1000, 300};
    uint64_t pid_ = 7;
    bool first_ = true;
    QTRACE_RECORD record_;
};

int Program::write_header(QTRACE_FDESCR file)
{
    static char comment[] =
        "KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:";
    const uint64_t start = code_.choose(random_);
    QTRACE_FILE_HDR header;
    std::memset(static_cast<void *>(&header), 0, sizeof header);
    auto &flags = header.sec_ext_controlword.control.fld;
    header.control.iar_is_present = header.control.version_number_present = header.control.comment_present = 1;
    header.control.iar_rpn_is_present = header.control.iar_page_size_is_present = 1;
    flags.secondary_extender_present = flags.ptcr_is_present = flags.lpid_is_present = flags.pid_is_present = 1;
    flags.guest_xlate_mode_instruction = 3;
    put(header.iar, start);
    put(header.iar_rpn, page_number_of(start));
    put_walk(header.iar_hRTW[0], header.iar_hRTW_num_level, start);
    put(header.ptcr, 0xc0000c);
    put(header.lpid, 1);
    put(header.pid, pid_);
    header.comment = comment;
    header.comment_length = sizeof comment - 1;
    return QTRACE_FwriteFileHeader(file, &header);
}

int Program::write_partition(QTRACE_FDESCR file)
{
    QTRACE_FILE_HDR header;
    std::memset(static_cast<void *>(&header), 0, sizeof header);
    auto &flags = header.sec_ext_controlword.control.fld;
    flags.lpid_is_present = flags.pid_is_present = 1;
    pid_ = 7 + random_.next() % 40;
    put(header.lpid, 1);
    put(header.pid, pid_);
    return QTRACE_FwriteFileHeader(file, &header);
}

void Program::clear()
{
    std::memset(static_cast<void *>(&record_), 0, sizeof record_);
    auto &flags = record_.header.control.fld;
    flags.secondary_extender_present = flags.register_trace_present = 1;
    flags.guest_xlate_mode_instruction = flags.host_xlate_mode_instruction = 3;
    flags.guest_xlate_mode_data = flags.host_xlate_mode_data = 3;
    record_.regs.num_gprs_in = 1;
    record_.regs.gpr_in[0].index = static_cast<uint16_t>(random_.next() % 32);
    record_.regs.gpr_in[0].value = random_.next() >> random_.next() % 64;
}

void Program::compute()
{
    record_.header.instruction = 0x38000000 | static_cast<uint32_t>(random_.next() & 0x3ff00ff); // addi
    record_.regs.num_gprs_out = 1;
    record_.regs.gpr_out[0].index = static_cast<uint16_t>(record_.header.instruction >> 21 & 31);
    record_.regs.gpr_out[0].value = record_.regs.gpr_in[0].value + (record_.header.instruction & 0xff);
}

void Program::access(uint32_t word)
{
    const uint64_t address = data_.choose(random_) + (random_.next() & 0xff8);
    auto &flags = record_.header.control.fld;
    record_.header.instruction = word;
    flags.data_address_present = flags.data_RPN_present = flags.data_page_size_present = 1;
    flags.host_xlate_mode_data = 0;
    put(record_.data_ea, address);
    put(record_.data_rpn, page_number_of(address));
    put_walk(record_.data_hRTW[0], record_.data_hRTW_num_level, address);
}

// To an address in a register, which any place may be.
void Program::branch()
{
    const uint64_t target = code_.choose(random_) + (random_.next() & 0x3c);
    auto &flags = record_.header.control.fld;
    record_.header.instruction = 0x4e800420; // bctr
    flags.iar_change_present = flags.node_present = flags.termination_present = 1;
    flags.next_instruction_EA_present = flags.next_instruction_RPN_present = 1;
    flags.next_instruction_page_size_present = 1;
    flags.host_xlate_mode_instruction = 0;
    record_.termination_code = QTRACE_UnconditionalBranchNode;
    put(record_.next_instruction_ea, target);
    put(record_.next_instruction_rpn, page_number_of(target));
    put_walk(record_.next_instruction_hRTW[0], record_.next_instruction_hRTW_num_level, target);
}

void Program::pass_branch()
{
    auto &flags = record_.header.control.fld;
    record_.header.instruction = 0x41820010; // beq
    flags.node_present = flags.termination_present = 1;
    record_.termination_code = QTRACE_ExceededMaximumInstructionDepth;
}

int Program::write_record(QTRACE_FDESCR file)
{
    clear();
    if (first_) {
        record_.header.control.fld.processor_present = 1;
        first_ = false;
    }
    const uint64_t what = random_.next() % 16;
    if (what < 2)
        branch();
    else if (what < 4)
        pass_branch();
    else if (what < 9)
        access(what < 7 ? 0xe8640000 : 0xf8640000); // ld, std
    else
        compute();
    return QTRACE_FwriteRecord(file, &record_);
}

int write(QTRACE_FDESCR file, uint64_t records, uint64_t seed)
{
    constexpr uint64_t RECORDS_OF_A_PROCESS = 100'000;
    Program program(seed);
    int failures = program.write_header(file);
    for (uint64_t record = 0; record < records && failures == 0; record++) {
        if (record % RECORDS_OF_A_PROCESS == RECORDS_OF_A_PROCESS - 1)
            failures |= program.write_partition(file);
        failures |= program.write_record(file);
    }
    return failures;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: generated_trace FILE RECORDS SEED\n");
        return 2;
    }
    const QTRACE_FDESCR file = QTRACE_Fopen(argv[1], QTRACE_WRITE);
    const bool opened = file >= 0;
    if (opened)
        write(file, std::strtoull(argv[2], nullptr, 10), std::strtoull(argv[3], nullptr, 10));
    if (opened)
        QTRACE_Fclose(file);
    if (qtrace_writer_failures() > 0)
        std::fprintf(stderr, "%s\n", qtrace_writer_error());
    return qtrace_writer_failures() > 0;
}
