// Compares whole records and headers, byte by byte, and says in which member they differ.
#pragma once

#include "qtrace_t.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

namespace comparison
{

struct Member {
    size_t offset;
    const char *name;
};

// The name of the last member that begins at or before the byte.
template <size_t N> const char *member_at(const Member (&members)[N], size_t byte)
{
    const char *name = "";
    for (const Member &member : members)
        if (member.offset <= byte)
            name = member.name;
    return name;
}

template <class Structure, size_t N>
std::string differences(const Structure &got, const Structure &want, const Member (&members)[N])
{
    unsigned char a[sizeof(Structure)], b[sizeof(Structure)];
    std::memcpy(a, &got, sizeof a);
    std::memcpy(b, &want, sizeof b);
    std::string text;
    for (size_t i = 0; i < sizeof a; ++i)
        if (a[i] != b[i]) {
            char line[160];
            std::snprintf(line, sizeof line, "byte %zu (%s): got %02x, expected %02x\n", i, member_at(members, i),
                          a[i], b[i]);
            text += line;
        }
    return text;
}

} // namespace comparison

// Empty when all bytes are equal.
inline std::string differences(const QTRACE_RECORD &got, const QTRACE_RECORD &want)
{
#define MEMBER(m)                                                                                                  \
    {                                                                                                              \
        offsetof(QTRACE_RECORD, m), #m                                                                             \
    }
    static const comparison::Member members[] = {MEMBER(header.instruction),
                                                 MEMBER(header.control),
                                                 MEMBER(iar),
                                                 MEMBER(is_speculative),
                                                 MEMBER(itype),
                                                 MEMBER(node),
                                                 MEMBER(termination_node),
                                                 MEMBER(termination_code),
                                                 MEMBER(processor),
                                                 MEMBER(data_ea),
                                                 MEMBER(data_vsid),
                                                 MEMBER(data_hRTW_depth),
                                                 MEMBER(data_hRTW_num_level),
                                                 MEMBER(data_hRTW),
                                                 MEMBER(data_hRTW_host_RA),
                                                 MEMBER(data_gRTW),
                                                 MEMBER(data_rpn),
                                                 MEMBER(secondary_data_hRTW_depth),
                                                 MEMBER(length),
                                                 MEMBER(data),
                                                 MEMBER(next_instruction_ea),
                                                 MEMBER(next_instruction_vsid),
                                                 MEMBER(next_instruction_hRTW_depth),
                                                 MEMBER(next_instruction_hRTW_num_level),
                                                 MEMBER(next_instruction_hRTW),
                                                 MEMBER(next_instruction_hRTW_host_RA),
                                                 MEMBER(next_instruction_gRTW),
                                                 MEMBER(next_instruction_rpn),
                                                 MEMBER(sequential_instruction_hRTW_depth),
                                                 MEMBER(exception_code),
                                                 MEMBER(error_code),
                                                 MEMBER(trace_alteration_code),
                                                 MEMBER(next_instruction_page_size),
                                                 MEMBER(next_instruction_gpage_size),
                                                 MEMBER(data_page_size),
                                                 MEMBER(data_gpage_size),
                                                 MEMBER(next_instruction_segment_size),
                                                 MEMBER(file_header),
                                                 MEMBER(persistent_data),
                                                 MEMBER(regs),
                                                 MEMBER(regs.spr_out),
                                                 MEMBER(regs.vsxr_out),
                                                 MEMBER(regs.vmxr_out),
                                                 MEMBER(regs.fpr_out),
                                                 MEMBER(regs.gpr_out),
                                                 MEMBER(regs.spr_in),
                                                 MEMBER(regs.vsxr_in),
                                                 MEMBER(regs.vmxr_in),
                                                 MEMBER(regs.fpr_in),
                                                 MEMBER(regs.gpr_in),
                                                 MEMBER(offset)};
#undef MEMBER
    return comparison::differences(got, want, members);
}

inline std::string differences(const QTRACE_FILE_HDR &got, const QTRACE_FILE_HDR &want)
{
#define MEMBER(m)                                                                                                  \
    {                                                                                                              \
        offsetof(QTRACE_FILE_HDR, m), #m                                                                           \
    }
    static const comparison::Member members[] = {MEMBER(control),
                                                 MEMBER(sec_ext_controlword.instruction),
                                                 MEMBER(sec_ext_controlword.control),
                                                 MEMBER(magic),
                                                 MEMBER(version),
                                                 MEMBER(iar),
                                                 MEMBER(iar_vsid),
                                                 MEMBER(iar_hRTW_depth),
                                                 MEMBER(iar_hRTW_num_level),
                                                 MEMBER(iar_hRTW),
                                                 MEMBER(iar_hRTW_host_RA),
                                                 MEMBER(iar_gRTW),
                                                 MEMBER(iar_rpn),
                                                 MEMBER(iar_segment_size),
                                                 MEMBER(iar_page_size),
                                                 MEMBER(iar_gpage_size),
                                                 MEMBER(ptcr),
                                                 MEMBER(lpid),
                                                 MEMBER(pid),
                                                 MEMBER(sdr1),
                                                 MEMBER(asr),
                                                 MEMBER(processor_id),
                                                 MEMBER(persistent_data),
                                                 MEMBER(comment_length),
                                                 MEMBER(comment),
                                                 MEMBER(app_spec_data_length)};
#undef MEMBER
    return comparison::differences(got, want, members);
}

// Zero in every byte, also between the members.
template <class Structure> Structure all_zero()
{
    Structure structure;
    std::memset(static_cast<void *>(&structure), 0, sizeof structure);
    return structure;
}

// Stores a value into a byte-array member in the byte order of this machine.
template <size_t N, class Value> void put(unsigned char (&bytes)[N], Value value)
{
    static_assert(N == sizeof value);
    std::memcpy(bytes, &value, N);
}

// A segment id keeps its upper seven bytes.
inline void put_vsid(QTRACE_VSID &bytes, uint64_t vsid)
{
    for (size_t i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<unsigned char>(vsid >> (8 * (i + 1)));
}
