#include "random_traces.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace
{

void clear_padding(QTRACE_RECORD &record)
{
    auto *bytes = reinterpret_cast<uint8_t *>(&record);
    const auto clear = [bytes](size_t from, size_t to) { std::memset(bytes + from, 0, to - from); };
    const size_t validity = offsetof(QTRACE_RECORD, is_speculative) + 4;
    bytes[validity + 1] &= 3; // ten bits
    clear(validity + 2, validity + 4);
    bytes[offsetof(QTRACE_RECORD, node) - 1] &= 1;
    clear(offsetof(QTRACE_RECORD, length) + 2, offsetof(QTRACE_RECORD, next_instruction_ea));
    clear(offsetof(QTRACE_RECORD, file_header), offsetof(QTRACE_RECORD, regs));
    clear(offsetof(QTRACE_RECORD, offset), sizeof record);
    QTRACE_REGISTERS &regs = record.regs;
    const size_t lists = offsetof(QTRACE_RECORD, regs);
    clear(lists + 10, lists + 16);
    const auto clear_entries = [](auto &entries) {
        for (auto &entry : entries)
            std::memset(reinterpret_cast<uint8_t *>(&entry) + 2, 0, 6);
    };
    clear_entries(regs.spr_out), clear_entries(regs.vsxr_out), clear_entries(regs.vmxr_out);
    clear_entries(regs.fpr_out), clear_entries(regs.gpr_out), clear_entries(regs.spr_in);
    clear_entries(regs.vsxr_in), clear_entries(regs.vmxr_in), clear_entries(regs.fpr_in);
    clear_entries(regs.gpr_in);
}

void put(uint8_t (&to)[8], uint64_t value)
{
    std::memcpy(to, &value, sizeof to);
}

} // namespace

QTRACE_RECORD Random_Trace::plausible_record()
{
    QTRACE_RECORD record;
    std::memset(&record, 0, sizeof record);
    auto &flags = record.header.control.fld;
    record.header.instruction = static_cast<QTRACE_INSTR>(address_ * 2654435761u >> 7);
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = 3;
    record.regs.num_gprs_in = static_cast<uint8_t>(record.header.instruction % 3);
    record.regs.num_gprs_out = 1;
    flags.register_trace_present = 1;
    for (unsigned i = 0; i < record.regs.num_gprs_in; ++i)
        record.regs.gpr_in[i] = {static_cast<QTRACE_UINT16>(i + 3), 0xc000000000100000 + below(64) * 8};
    record.regs.gpr_out[0] = {9, below(4) ? below(1000) : random_()};
    if (record.header.instruction & 16) {
        flags.data_address_present = flags.data_RPN_present = flags.data_page_size_present = 1;
        put(record.data_ea, 0xc000000000100000 + below(1 << 16) * 8);
        record.data_hRTW_num_level = 4;
        put(record.data_hRTW[0].RTPTE_ra, 0x3ffc0000 + (record.data_ea[2] & 7) * 8u);
        put(record.data_gRTW.GUEST_ra, 0x70000000 + (record.data_ea[1] * 256u) + record.data_ea[0]);
        record.data_rpn[0] = record.data_ea[2];
        record.data_page_size = 1;
    }
    address_ += 4;
    if (below(8) == 0) {
        flags.iar_change_present = flags.node_present = flags.termination_present = 1;
        flags.next_instruction_EA_present = 1;
        record.termination_code = QTRACE_ExceededMaximumInstructionDepth;
        address_ = 0x10001000 + below(600) * 4;
        put(record.next_instruction_ea, address_);
        put(record.next_instruction_hRTW[0].RTPDE_ra_l1, 0x2740000);
    }
    clear_padding(record); // assigned register entries bring their own
    return record;
}

QTRACE_RECORD Random_Trace::wild_record()
{
    QTRACE_RECORD record;
    std::memset(&record, 0, sizeof record);
    auto *bytes = reinterpret_cast<uint8_t *>(&record);
    const uint64_t changes = below(3) == 0 ? sizeof record : 1 + below(40);
    for (uint64_t i = 0; i < changes; ++i)
        bytes[below(sizeof record)] = static_cast<uint8_t>(random_());
    auto *counts = reinterpret_cast<uint8_t *>(&record.regs);
    if (below(2))
        for (unsigned list = 0; list < 10; ++list)
            counts[list] = static_cast<uint8_t>(below(4) ? below(4) : random_());
    clear_padding(record);
    return record;
}

QTRACE_FILE_HDR Random_Trace::plausible_header()
{
    QTRACE_FILE_HDR header;
    std::memset(&header, 0, sizeof header);
    header.control.iar_is_present = 1;
    put(header.iar, address_);
    header.sec_ext_controlword.control.fld.lpid_is_present = 1;
    header.lpid[0] = 2;
    header.iar_gpage_size = 7; // its flag stays clear
    return header;
}

QTRACE_FILE_HDR Random_Trace::wild_header()
{
    QTRACE_FILE_HDR header;
    std::memset(&header, 0, sizeof header);
    auto *bytes = reinterpret_cast<uint8_t *>(&header);
    for (uint64_t i = 0; i < 200; ++i)
        bytes[below(sizeof header)] = static_cast<uint8_t>(random_());
    header.comment = nullptr;
    header.app_spec_data = nullptr;
    return header;
}

std::string Random_Trace::comment(size_t size)
{
    std::string text(size, ' ');
    std::generate(text.begin(), text.end(), [this] { return static_cast<char>(random_()); });
    return text;
}
