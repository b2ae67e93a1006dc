// random_accesses FILE SEED COUNT: writes a trace of COUNT records whose accesses go to a few hundred pages of all
// kinds of translation, with switches of partition, pages that are mapped anew, and sequential crossings.
#include "qtrace.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string>

namespace
{

using Random = std::mt19937_64;

// Members of one address in a record or a header.
struct Place {
    uint8_t *address, *vsid, *page_number, *page_size, *guest_page_size, *guest_depth, *host_depth;
    QTRACE_RTW *walks;
    QTRACE_RTW_HOST_RA *host_addresses;
    QTRACE_RTW_GUEST *guest;
};

Place next_of(QTRACE_RECORD &r)
{
    return {r.next_instruction_ea,
            r.next_instruction_vsid,
            r.next_instruction_rpn,
            &r.next_instruction_page_size,
            &r.next_instruction_gpage_size,
            &r.next_instruction_hRTW_depth,
            &r.next_instruction_hRTW_num_level,
            r.next_instruction_hRTW,
            r.next_instruction_hRTW_host_RA,
            &r.next_instruction_gRTW};
}

Place data_of(QTRACE_RECORD &r)
{
    return {r.data_ea,
            r.data_vsid,
            r.data_rpn,
            &r.data_page_size,
            &r.data_gpage_size,
            &r.data_hRTW_depth,
            &r.data_hRTW_num_level,
            r.data_hRTW,
            r.data_hRTW_host_RA,
            &r.data_gRTW};
}

Place first_of(QTRACE_FILE_HDR &h)
{
    return {h.iar,
            h.iar_vsid,
            h.iar_rpn,
            &h.iar_page_size,
            &h.iar_gpage_size,
            &h.iar_hRTW_depth,
            &h.iar_hRTW_num_level,
            h.iar_hRTW,
            h.iar_hRTW_host_RA,
            &h.iar_gRTW};
}

template <class Bytes> void put(Bytes &bytes, uint64_t value)
{
    std::memcpy(bytes, &value, sizeof(bytes));
}

enum class Mode { real, host, guest_real, nested, hash, guest_hash };

class Generator
{
public:
    Generator(const char *file, uint64_t seed) : random_(seed), file_(QTRACE_Fopen(file, QTRACE_WRITE)) {}
    ~Generator() { QTRACE_Fclose(file_); }
    bool is_open() const { return file_ >= 0; }
    void header(bool full);
    void record();

private:
    uint64_t below(uint64_t bound) { return random_() % bound; }
    bool once_in(uint64_t times) { return below(times) == 0; }
    uint64_t some_address();
    void translate(const Place &place, control_word &control, bool data, uint64_t address);
    void radix(const Place &place, uint64_t address);
    void nested(const Place &place, uint64_t address);

    Random random_;
    QTRACE_FDESCR file_;
    uint64_t address_ = 0x10000;
    Mode mode_ = Mode::host;
    uint64_t lpid_ = 0, pid_ = 1, mapping_ = 0;
    bool opened_ = false;
};

// Dense enough that pages come back, spread enough that sets conflict.
uint64_t Generator::some_address()
{
    static constexpr uint64_t BASES[] = {0x10000000, 0x7fff0000, 0xc000000000000000, 0xc000000001f00000};
    const uint64_t page = once_in(4) ? below(600) : below(24);
    return BASES[below(4)] + page * 0x1000 + below(0x400) * 4;
}

void Generator::radix(const Place &place, uint64_t address)
{
    *place.host_depth = 4;
    put(place.walks[0].RTPDE_ra_l1, 0x100000 + pid_ * 8);
    put(place.walks[0].RTPDE_ra_l2, 0x110000 + (address >> 30 & 0xff) * 8);
    put(place.walks[0].RTPDE_ra_l3, once_in(8) ? 0 : 0x120000 + (address >> 21 & 0xff) * 8);
    put(place.walks[0].RTPTE_ra, 0x130000 + (address >> 12 & 0xfff) * 8);
}

void Generator::nested(const Place &place, uint64_t address)
{
    const auto depth = static_cast<uint8_t>(1 + below(5));
    *place.guest_depth = depth;
    *place.host_depth = 4;
    for (unsigned step = 0; step < depth; step++) {
        put(place.walks[step].RTPDE_ra_l1, 0x200000 + lpid_ * 8);
        put(place.walks[step].RTPDE_ra_l2, 0x210000 + step % 2 * 8);
        put(place.walks[step].RTPDE_ra_l3, once_in(4) ? 0 : 0x220000 + below(3) * 8);
        put(place.walks[step].RTPTE_ra, 0x230000 + (address >> 16 & 0xff) * 8);
        if (step + 1u < depth)
            put(place.host_addresses[step].ra, 0x300000 + step * 0x1000 + (address >> 20 & 0xf) * 8);
    }
    put(place.guest->RTPDE_GUEST_ra_l1, 0x40000);
    put(place.guest->RTPDE_GUEST_ra_l2, 0x50000 + (address >> 24 & 7) * 0x1000);
    put(place.guest->RTPDE_GUEST_ra_l3, 0x60000);
    put(place.guest->RTPTE_GUEST_ra, 0x70000 + (address >> 12 & 0xff) * 8);
    put(place.guest->GUEST_ra, 0x1000000 + (address & 0xffffff));
}

void Generator::translate(const Place &place, control_word &control, bool data, uint64_t address)
{
    static constexpr unsigned MODES[][2] = {{3, 2}, {3, 0}, {3, 0}, {0, 0}, {3, 1}, {1, 1}};
    const auto row = static_cast<size_t>(mode_);
    auto &flags = control.fld;
    put(*reinterpret_cast<QTRACE_EA *>(place.address), address);
    (data ? flags.guest_xlate_mode_data : flags.guest_xlate_mode_instruction) = MODES[row][0] & 3;
    (data ? flags.host_xlate_mode_data : flags.host_xlate_mode_instruction) = MODES[row][1] & 3;
    if (mode_ == Mode::real)
        return;
    const uint64_t page = (address >> 12) + (once_in(200) ? ++mapping_ : mapping_ / 16) * 0x100000;
    put(*reinterpret_cast<QTRACE_RPN *>(place.page_number), page);
    *place.page_size = static_cast<uint8_t>(address >> 21 & 1 ? 1 : 0);
    if (mode_ == Mode::nested || mode_ == Mode::guest_hash)
        *place.guest_page_size = static_cast<uint8_t>(address >> 22 & 1 ? 2 : 1);
    if (mode_ == Mode::hash || mode_ == Mode::guest_hash)
        put(*reinterpret_cast<QTRACE_VSID *>(place.vsid), 0x1000 + (address >> 28));
    if (mode_ == Mode::nested) {
        nested(place, address);
    } else if (mode_ == Mode::host || mode_ == Mode::guest_real) {
        radix(place, address);
        *place.guest_depth = mode_ == Mode::guest_real;
        if (mode_ == Mode::guest_real)
            put(place.guest->GUEST_ra, address & 0xffffff);
    }
}

void Generator::header(bool full)
{
    QTRACE_FILE_HDR header;
    std::memset(static_cast<void *>(&header), 0, sizeof(header));
    auto &flags = header.sec_ext_controlword.control.fld;
    if (!once_in(3))
        lpid_ = below(3);
    pid_ = 1 + below(3);
    put(header.lpid, lpid_);
    put(header.pid, pid_);
    flags.lpid_is_present = flags.pid_is_present = 1;
    if (full) {
        address_ = some_address();
        header.control.iar_is_present = header.control.version_number_present = 1;
        const bool named = mode_ != Mode::real;
        header.control.iar_rpn_is_present = header.control.iar_page_size_is_present = named;
        header.control.iar_gpage_size_is_present = mode_ == Mode::nested || mode_ == Mode::guest_hash;
        header.control.iar_vsid_is_present = mode_ == Mode::hash || mode_ == Mode::guest_hash;
        flags.secondary_extender_present = 1;
        translate(first_of(header), header.sec_ext_controlword.control, false, address_);
    }
    QTRACE_FwriteFileHeader(file_, &header);
}

void Generator::record()
{
    QTRACE_RECORD record;
    std::memset(static_cast<void *>(&record), 0, sizeof(record));
    control_word &control = record.header.control;
    auto &flags = control.fld;
    record.header.instruction = 0x60000000;
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = flags.host_xlate_mode_instruction = 3;
    flags.guest_xlate_mode_data = flags.host_xlate_mode_data = 3;
    const bool rpn = mode_ != Mode::real, guest = mode_ == Mode::nested || mode_ == Mode::guest_hash;
    if (once_in(3)) {
        flags.data_address_present = 1;
        flags.data_RPN_present = flags.data_page_size_present = rpn;
        flags.data_gpage_size_present = guest;
        flags.data_VSID_present = mode_ == Mode::hash || mode_ == Mode::guest_hash;
        translate(data_of(record), control, true, some_address());
        if (once_in(50)) {
            flags.trace_error_code_present = 1;
            record.error_code = QTRACE_DataAddressIsSuspect;
        }
    }
    address_ += 4;
    if (once_in(8)) {
        if (once_in(12))
            mode_ = static_cast<Mode>(below(6));
        address_ = some_address();
        const bool named = mode_ != Mode::real, two = mode_ == Mode::nested || mode_ == Mode::guest_hash;
        flags.iar_change_present = flags.node_present = flags.termination_present = 1;
        record.termination_code = QTRACE_ExceededMaximumInstructionDepth;
        flags.next_instruction_EA_present = 1;
        flags.next_instruction_RPN_present = flags.next_instruction_page_size_present = named;
        flags.instruction_gpage_size_present = two;
        flags.next_instruction_VSID_present = mode_ == Mode::hash || mode_ == Mode::guest_hash;
        translate(next_of(record), control, false, address_);
    }
    QTRACE_FwriteRecord(file_, &record);
    if (once_in(400))
        header(false);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::cerr << "usage: random_accesses FILE SEED COUNT\n";
        return 2;
    }
    Generator generator(argv[1], std::strtoull(argv[2], nullptr, 10));
    if (!generator.is_open()) {
        std::cerr << argv[1] << ": cannot be created\n";
        return 1;
    }
    generator.header(true);
    for (uint64_t left = std::strtoull(argv[3], nullptr, 10); left > 0; left--)
        generator.record();
    return 0;
}
