// The records of the headers as other libraries see them: which bit a flag is, where a member lies, how wide it is,
// and that nothing stands between the members.
// first: every other header must be able to follow the plugin's, whose variable `flush` has a namesake in <ostream>
#include "header_sizes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "qtrace.h"

namespace
{

// ---- bits -------------------------------------------------------------------------------------------------

// The 64 bits of the control word; unit 1 is the upper half.
uint64_t bits_of(const control_word &word)
{
    uint64_t bits;
    std::memcpy(&bits, &word, sizeof bits);
    return bits;
}

uint32_t bits_of(const QTRACE_FILE_HDR_CNTRL &control)
{
    uint32_t bits;
    std::memcpy(&bits, &control, sizeof bits);
    return bits;
}

struct Flag {
    const char *name;
    unsigned unit, first, width;
    uint64_t bits; // with every bit of the field set
};

#define FLAG(name, unit, first, width)                                                                             \
    Flag                                                                                                           \
    {                                                                                                              \
#name, unit, first, width, [] {                                                                        \
            control_word word{};                                                                               \
            word.fld.name = (1u << width) - 1;                                                                 \
            return bits_of(word);                                                                              \
        }()           \
    }

std::vector<Flag> control_word_flags()
{
    return {FLAG(_secondary_extended_reserved_11_15, 0, 0, 5),
            FLAG(pid_is_present, 0, 5, 1),
            FLAG(lpid_is_present, 0, 6, 1),
            FLAG(ptcr_is_present, 0, 7, 1),
            FLAG(guest_xlate_mode_instruction, 0, 8, 2),
            FLAG(host_xlate_mode_instruction, 0, 10, 2),
            FLAG(guest_xlate_mode_data, 0, 12, 2),
            FLAG(host_xlate_mode_data, 0, 14, 2),
            FLAG(secondary_extender_present, 0, 16, 1),
            FLAG(file_header_present, 0, 17, 1),
            FLAG(data_gpage_size_present, 0, 18, 1),
            FLAG(instruction_gpage_size_present, 0, 19, 1),
            FLAG(secondary_data_page_size_present, 0, 20, 1),
            FLAG(sequential_instruction_page_size_present, 0, 21, 1),
            FLAG(data_segment_size_present, 0, 22, 1),
            FLAG(next_instruction_segment_size_present, 0, 23, 1),
            FLAG(data_page_size_present, 0, 24, 1),
            FLAG(next_instruction_page_size_present, 0, 25, 1),
            FLAG(_extended_length_bit, 0, 26, 1),
            FLAG(trace_alteration_flag_present, 0, 27, 1),
            FLAG(trace_error_code_present, 0, 28, 1),
            FLAG(exception_code_present, 0, 29, 1),
            FLAG(sequential_instruction_RPN_present, 0, 30, 1),
            FLAG(secondary_data_RPN_present, 0, 31, 1),
            FLAG(_extender_present, 1, 0, 1),
            FLAG(_reserved_14, 1, 1, 1),
            FLAG(_reserved_13, 1, 2, 1),
            FLAG(register_trace_present, 1, 3, 1),
            FLAG(next_instruction_RPN_present, 1, 4, 1),
            FLAG(next_instruction_VSID_present, 1, 5, 1),
            FLAG(next_instruction_EA_present, 1, 6, 1),
            FLAG(data_present, 1, 7, 1),
            FLAG(length_present, 1, 8, 1),
            FLAG(data_RPN_present, 1, 9, 1),
            FLAG(data_VSID_present, 1, 10, 1),
            FLAG(data_address_present, 1, 11, 1),
            FLAG(processor_present, 1, 12, 1),
            FLAG(termination_present, 1, 13, 1),
            FLAG(node_present, 1, 14, 1),
            FLAG(iar_change_present, 1, 15, 1)};
}

TEST(control_word, each_flag_is_exactly_its_bits)
{
    for (const Flag &flag : control_word_flags()) {
        const uint64_t mask = ((1ULL << flag.width) - 1) << flag.first << (flag.unit * 32);
        EXPECT_EQ(flag.bits, mask) << flag.name;
    }
}

TEST(control_word, flags_fill_the_first_unit_and_half_of_the_second)
{
    uint64_t all = 0;
    for (const Flag &flag : control_word_flags()) {
        EXPECT_EQ(all & flag.bits, 0u) << flag.name;
        all |= flag.bits;
    }
    EXPECT_EQ(all, 0x0000FFFFFFFFFFFFu);
}

TEST(control_word, two_bit_fields_hold_a_mode_least_significant_bit_first)
{
    for (const uint32_t mode : {0u, 1u, 2u, 3u}) {
        control_word word{};
        word.fld.host_xlate_mode_instruction = mode & 3;
        EXPECT_EQ(bits_of(word), uint64_t{mode} << 10);
    }
}

TEST(control_word, half_words_show_the_same_bits)
{
    control_word word{};
    word.fld.ptcr_is_present = 1;
    word.fld.secondary_data_RPN_present = 1;
    word.fld.iar_change_present = 1;
    EXPECT_EQ(word.half_word[0], 0x0080u);
    EXPECT_EQ(word.half_word[1], 0x8000u);
    EXPECT_EQ(word.half_word[2], 0x8000u);
    EXPECT_EQ(sizeof word.half_word, 6u);
}

#define CONTROL(name, first)                                                                                       \
    Flag                                                                                                           \
    {                                                                                                              \
#name, 0, first, 1, [] {                                                                               \
            QTRACE_FILE_HDR_CNTRL control{};                                                                   \
            control.name = 1;                                                                                  \
            return uint64_t{bits_of(control)};                                                                 \
        }()           \
    }

TEST(file_header_control, each_flag_is_exactly_its_bit)
{
    const std::vector<Flag> flags = {CONTROL(app_spec_data_present, 0),     CONTROL(comment_present, 1),
                                     CONTROL(persistent_data_present, 2),   CONTROL(_reserved_12, 3),
                                     CONTROL(iar_gpage_size_is_present, 4), CONTROL(processor_id_is_present, 5),
                                     CONTROL(iar_page_size_is_present, 6),  CONTROL(iar_segment_size_is_present, 7),
                                     CONTROL(barrier_synchronization, 8),   CONTROL(asr_is_present, 9),
                                     CONTROL(sdr1_is_present, 10),          CONTROL(iar_rpn_is_present, 11),
                                     CONTROL(iar_vsid_is_present, 12),      CONTROL(iar_is_present, 13),
                                     CONTROL(version_number_present, 14),   CONTROL(magic_number_present, 15)};
    for (const Flag &flag : flags)
        EXPECT_EQ(flag.bits, 1u << flag.first) << flag.name;
}

TEST(record_validity, bits_count_up_from_zero_after_is_speculative)
{
    const auto unit_after = [](auto set) {
        QTRACE_RECORD record;
        std::memset(&record, 0, sizeof record);
        set(record);
        uint32_t unit;
        std::memcpy(&unit, reinterpret_cast<const char *>(&record) + offsetof(QTRACE_RECORD, is_speculative) + 4,
                    4);
        return unit;
    };
    EXPECT_EQ(unit_after([](auto &r) { r.iar_is_valid = 1; }), 1u << 0);
    EXPECT_EQ(unit_after([](auto &r) { r.iar_vsid_is_valid = 1; }), 1u << 1);
    EXPECT_EQ(unit_after([](auto &r) { r.iar_gRTW_is_valid = 1; }), 1u << 2);
    EXPECT_EQ(unit_after([](auto &r) { r.data_gRTW_is_valid = 1; }), 1u << 3);
    EXPECT_EQ(unit_after([](auto &r) { r.secondary_data_gRTW_is_valid = 1; }), 1u << 4);
    EXPECT_EQ(unit_after([](auto &r) { r.next_instruction_gRTW_is_valid = 1; }), 1u << 5);
    EXPECT_EQ(unit_after([](auto &r) { r.sequential_instruction_gRTW_is_valid = 1; }), 1u << 6);
    EXPECT_EQ(unit_after([](auto &r) { r.iar_rpn_is_valid = 1; }), 1u << 7);
    EXPECT_EQ(unit_after([](auto &r) { r.iar_gpage_size_is_valid = 1; }), 1u << 8);
    EXPECT_EQ(unit_after([](auto &r) { r.iar_page_size_is_valid = 1; }), 1u << 9);
}

TEST(record_validity, segment_size_bit_shares_its_unit_with_node_and_termination)
{
    QTRACE_RECORD record;
    std::memset(&record, 0, sizeof record);
    record.iar_segment_size_is_valid = 1;
    record.node = 0x22;
    record.termination_node = 0x33;
    record.termination_code = 0x44;
    uint32_t unit;
    std::memcpy(&unit, reinterpret_cast<const char *>(&record) + offsetof(QTRACE_RECORD, itype) + 4, 4);
    EXPECT_EQ(unit, 0x44332201u);
    EXPECT_EQ(offsetof(QTRACE_RECORD, processor), offsetof(QTRACE_RECORD, itype) + 8);
}

// ---- members ----------------------------------------------------------------------------------------------

struct Member {
    const char *name;
    size_t offset, size, align;
    size_t bytes; // the width it must have
};

#define M(record, member, bytes)                                                                                   \
    Member                                                                                                         \
    {                                                                                                              \
#member, offsetof(record, member), sizeof(record::member), alignof(decltype(record::member)), bytes        \
    }
// Bit-fields have no offset: they take the place that is due, `bytes` of it.
#define BITS(name, alignment, bytes)                                                                               \
    Member                                                                                                         \
    {                                                                                                              \
        name, SIZE_MAX, bytes, alignment, bytes                                                                    \
    }

size_t aligned(size_t offset, size_t align)
{
    return (offset + align - 1) / align * align;
}

// The members come in this order, each as wide as it must be, with nothing but alignment between and after them.
void expect_layout(const std::vector<Member> &members, size_t record_size)
{
    size_t end = 0, widest = 1;
    for (const Member &member : members) {
        const size_t due = aligned(end, member.align);
        if (member.offset != SIZE_MAX) {
            EXPECT_EQ(member.offset, due) << member.name;
        }
        EXPECT_EQ(member.size, member.bytes) << member.name;
        end = due + member.size;
        widest = std::max(widest, member.align);
    }
    EXPECT_EQ(record_size, aligned(end, widest));
}

TEST(layout, of_a_node)
{
    expect_layout({M(Node, proc_index, 4),
                   M(Node, seq, 8),
                   M(Node, PC, 8),
                   M(Node, PC_relocation, 4),
                   M(Node, PC_RPN, 4),
                   M(Node, PC_VSID, 8),
                   M(Node, PC_RA, 8),
                   M(Node, PC_hRTW, 5 * 32),
                   M(Node, PC_hRTW_host_RA, 4 * 8),
                   M(Node, PC_gRTW, 48),
                   M(Node, ptcr, 8),
                   M(Node, lpid, 8),
                   M(Node, pid, 4),
                   M(Node, partition_change, 4),
                   M(Node, pc_mmu_status, 4),
                   M(Node, pc_xlate_type, 4),
                   M(Node, pc_radix_type, 4),
                   M(Node, pc_guest_mode, 4),
                   M(Node, pc_host_mode, 4),
                   M(Node, pc_twolevel, 1),
                   M(Node, pc_host_walkdepth, 1),
                   M(Node, pc_guest_walkdepth, 1),
                   M(Node, data_mmu_status, 4),
                   M(Node, data_xlate_type, 4),
                   M(Node, data_radix_type, 4),
                   M(Node, data_guest_mode, 4),
                   M(Node, data_host_mode, 4),
                   M(Node, data_twolevel, 1),
                   M(Node, data_host_walkdepth, 1),
                   M(Node, data_guest_walkdepth, 1),
                   M(Node, pc_host_twolevel, 1),
                   M(Node, pc_guest_twolevel, 1),
                   M(Node, data_host_twolevel, 1),
                   M(Node, data_guest_twolevel, 1),
                   M(Node, kelvo_ver, 4),
                   M(Node, bitmode64, 4),
                   M(Node, littleendian, 4),
                   M(Node, memused, 8),
                   M(Node, pages_used, 48),
                   M(Node, gpages_used, 48),
                   M(Node, PC_gpagesize, 1),
                   M(Node, data_gpagesize, 1),
                   M(Node, nextPC_radix_type, 4),
                   M(Node, nextPC_gpagesize, 1),
                   M(Node, nextPC_guest_twolevel, 1),
                   M(Node, nextPC_host_walkdepth, 1),
                   M(Node, nextPC_guest_walkdepth, 1),
                   M(Node, PC_pagesize, 1),
                   M(Node, nextPC, 8),
                   M(Node, nextPC_relocation, 4),
                   M(Node, nextPC_RPN, 4),
                   M(Node, nextPC_VSID, 8),
                   M(Node, nextPC_RA, 8),
                   M(Node, nextPC_hRTW, 5 * 32),
                   M(Node, nextPC_hRTW_host_RA, 4 * 8),
                   M(Node, nextPC_gRTW, 48),
                   M(Node, nextPC_pagesize, 1),
                   M(Node, sdr1, 8),
                   M(Node, I, 4),
                   M(Node, N, 4),
                   M(Node, T, 4),
                   M(Node, nn, 1),
                   M(Node, reg_in, 704),
                   M(Node, reg_out, 704),
                   M(Node, done, 4),
                   M(Node, commit, 4),
                   M(Node, simple, 4),
                   M(Node, left, 8),
                   M(Node, right, 8),
                   M(Node, terminated_by, 8),
                   M(Node, terminated_seq, 8),
                   M(Node, info, 392)},
                  sizeof(Node));
}

TEST(layout, of_the_operation_details)
{
    using Info = First_OP_Info;
    expect_layout({M(Info, instbody, 4),
                   M(Info, name, 64),
                   M(Info, branch, 1),
                   M(Info, taken, 1),
                   M(Info, load, 4),
                   M(Info, store, 4),
                   M(Info, cache, 4),
                   M(Info, string, 4),
                   M(Info, str_len, 2),
                   M(Info, data_addr_valid, 4),
                   M(Info, data_addr, 8),
                   M(Info, data_relocation, 4),
                   M(Info, data_VSID, 8),
                   M(Info, data_RPN, 4),
                   M(Info, data_RA, 8),
                   M(Info, data_hRTW, 5 * 32),
                   M(Info, data_hRTW_host_RA, 4 * 8),
                   M(Info, data_gRTW, 48),
                   M(Info, data_gpagesize, 1),
                   M(Info, data_pagesize, 1),
                   M(Info, except, 4),
                   M(Info, kernel, 4)},
                  sizeof(Info));
}

TEST(layout, of_the_containers)
{
    expect_layout({M(Stack, stack_index, 4), M(Stack, stack_size, 4), M(Stack, stack, 8)}, sizeof(Stack));
    expect_layout({M(List, list_index, 4), M(List, list_size, 4), M(List, list, 8)}, sizeof(List));
    EXPECT_EQ(DEFAULT_STACK_SIZE, 1048576);
    EXPECT_EQ(DEFAULT_LIST_SIZE, 1048576);
}

TEST(layout, of_the_hosts_objects_and_events)
{
    expect_layout({M(Machine, device_mgr, 8), M(Machine, processor_major, 4), M(Machine, threads_per_processor, 4)},
                  sizeof(Machine));
    EXPECT_EQ(offsetof(ProcessorState, options.processor_options), 0u);
    EXPECT_EQ(sizeof(ProcessorState::options.processor_options), 452u * 4);
    EXPECT_EQ(PO_QTRACE_ENABLE_REMOVING_OF_PERMANENT_THREAD0_ID_FROM_TRACE_FILE, 450);
    EXPECT_EQ(PO_QTRACE_ENABLE_APPENDING_OF_THREAD_ID_TO_TRACE_FILE, 451);
    expect_layout({M(PTE_Event_Info, pa, 8), M(PTE_Event_Info, pte.upper, 8), M(PTE_Event_Info, pte.lower, 8)},
                  sizeof(PTE_Event_Info));
    expect_layout({M(RTPTE_Event_Info, RTPDE_ra_l1, 8), M(RTPTE_Event_Info, RTPDE_ra_l2, 8),
                   M(RTPTE_Event_Info, RTPDE_ra_l3, 8), M(RTPTE_Event_Info, RTPTE_ra, 8),
                   M(RTPTE_Event_Info, pa, 8)},
                  sizeof(RTPTE_Event_Info));
}

TEST(layout, of_the_hosts_walks_and_page_sizes)
{
    expect_layout({M(HostRadixTree, RTPDE_ra_l1, 8), M(HostRadixTree, RTPDE_ra_l2, 8),
                   M(HostRadixTree, RTPDE_ra_l3, 8), M(HostRadixTree, RTPTE_ra, 8)},
                  sizeof(HostRadixTree));
    using Guest = GuestRadixTree;
    expect_layout({M(Guest, RTPDE_GUEST_ra_root, 8), M(Guest, RTPDE_GUEST_ra_l1, 8), M(Guest, RTPDE_GUEST_ra_l2, 8),
                   M(Guest, RTPDE_GUEST_ra_l3, 8), M(Guest, RTPTE_GUEST_ra, 8), M(Guest, GUEST_ra, 8)},
                  sizeof(Guest));
    using Pages = PAGE_SIZES_USED;
    expect_layout({M(Pages, PAGE_4K, 4), M(Pages, PAGE_16K, 4), M(Pages, PAGE_64K, 4), M(Pages, PAGE_128K, 4),
                   M(Pages, PAGE_256K, 4), M(Pages, PAGE_1M, 4), M(Pages, PAGE_2M, 4), M(Pages, PAGE_16M, 4),
                   M(Pages, PAGE_256M, 4), M(Pages, PAGE_1G, 4), M(Pages, PAGE_16G, 4),
                   M(Pages, PAGE_undefined, 4)},
                  sizeof(Pages));
}

TEST(layout, of_the_hosts_registers)
{
    using Regs = Plugin_Inst_Registers;
    expect_layout({M(Regs, gpr_num, 4), M(Regs, gpr_index, 32 * 4), M(Regs, gpr_value, 32 * 8), M(Regs, fpr_num, 4),
                   M(Regs, fpr_index, 4 * 4), M(Regs, fpr_value, 4 * 8), M(Regs, spr_num, 4),
                   M(Regs, spr_index, 6 * 4), M(Regs, spr_value, 6 * 8), M(Regs, vsx_num, 4),
                   M(Regs, vsx_index, 4 * 4), M(Regs, vsx_value, 4 * 16), M(Regs, vmx_num, 4),
                   M(Regs, vmx_index, 4 * 4), M(Regs, vmx_value, 4 * 16)},
                  sizeof(Regs));
}

// One address with its translation, as every block of a record lays it out.
#define ADDRESS_BLOCK(record, prefix)                                                                              \
    M(record, prefix##_hRTW_depth, 1), M(record, prefix##_hRTW_num_level, 1), M(record, prefix##_hRTW, 5 * 32),    \
        M(record, prefix##_hRTW_host_RA, 4 * 8), M(record, prefix##_gRTW, 48), M(record, prefix##_rpn, 4)

TEST(layout, of_a_record)
{
    using R = QTRACE_RECORD;
    expect_layout({M(R, header, 12),
                   M(R, iar, 8),
                   M(R, iar_vsid, 7),
                   ADDRESS_BLOCK(R, iar),
                   M(R, iar_segment_size, 1),
                   M(R, iar_page_size, 1),
                   M(R, iar_gpage_size, 1),
                   M(R, is_speculative, 4),
                   BITS("validity bits", 4, 4),
                   M(R, itype, 4),
                   BITS("iar_segment_size_is_valid", 4, 1),
                   M(R, node, 1),
                   M(R, termination_node, 1),
                   M(R, termination_code, 1),
                   M(R, processor, 1),
                   M(R, data_ea, 8),
                   M(R, data_vsid, 7),
                   ADDRESS_BLOCK(R, data),
                   ADDRESS_BLOCK(R, secondary_data),
                   M(R, length, 2),
                   M(R, data, 8),
                   M(R, next_instruction_ea, 8),
                   M(R, next_instruction_vsid, 7),
                   ADDRESS_BLOCK(R, next_instruction),
                   ADDRESS_BLOCK(R, sequential_instruction),
                   M(R, exception_code, 1),
                   M(R, error_code, 1),
                   M(R, trace_alteration_code, 1),
                   M(R, next_instruction_page_size, 1),
                   M(R, next_instruction_gpage_size, 1),
                   M(R, data_page_size, 1),
                   M(R, data_gpage_size, 1),
                   M(R, next_instruction_segment_size, 1),
                   M(R, data_segment_size, 1),
                   M(R, sequential_instruction_page_size, 1),
                   M(R, sequential_instruction_gpage_size, 1),
                   M(R, secondary_data_page_size, 1),
                   M(R, secondary_data_gpage_size, 1),
                   M(R, file_header, 8),
                   M(R, persistent_data, 8),
                   M(R, regs, 1552),
                   M(R, offset, 8),
                   M(R, record_count, 8),
                   M(R, instr_count, 8),
                   M(R, exec_instr_count, 8)},
                  sizeof(R));
}

TEST(layout, of_a_file_header)
{
    using H = QTRACE_FILE_HDR;
    expect_layout({M(H, control, 4),
                   M(H, sec_ext_controlword, 12),
                   M(H, magic, 4),
                   M(H, version, 4),
                   M(H, iar, 8),
                   M(H, iar_vsid, 7),
                   ADDRESS_BLOCK(H, iar),
                   M(H, iar_segment_size, 1),
                   M(H, iar_page_size, 1),
                   M(H, iar_gpage_size, 1),
                   M(H, ptcr, 8),
                   M(H, lpid, 8),
                   M(H, pid, 4),
                   M(H, sdr1, 8),
                   M(H, asr, 8),
                   M(H, processor_id, 1),
                   M(H, persistent_data_field, 1),
                   M(H, persistent_data_length, 1),
                   M(H, persistent_data, 8),
                   M(H, comment_length, 2),
                   M(H, comment, 8),
                   M(H, app_spec_data_length, 4),
                   M(H, app_spec_data, 8)},
                  sizeof(H));
}

TEST(layout, of_the_register_trace)
{
    using Regs = QTRACE_REGISTERS;
    expect_layout(
        {M(Regs, num_sprs_out, 1),  M(Regs, num_vsxrs_out, 1), M(Regs, num_vmxrs_out, 1), M(Regs, num_fprs_out, 1),
         M(Regs, num_gprs_out, 1),  M(Regs, num_sprs_in, 1),   M(Regs, num_vsxrs_in, 1),  M(Regs, num_vmxrs_in, 1),
         M(Regs, num_fprs_in, 1),   M(Regs, num_gprs_in, 1),   M(Regs, spr_out, 4 * 16),  M(Regs, vsxr_out, 3 * 24),
         M(Regs, vmxr_out, 3 * 24), M(Regs, fpr_out, 3 * 16),  M(Regs, gpr_out, 32 * 16), M(Regs, spr_in, 4 * 16),
         M(Regs, vsxr_in, 3 * 24),  M(Regs, vmxr_in, 3 * 24),  M(Regs, fpr_in, 3 * 16),   M(Regs, gpr_in, 32 * 16)},
        sizeof(Regs));
    expect_layout({M(QTRACE_REGISTER_INFO, index, 2), M(QTRACE_REGISTER_INFO, value, 8)},
                  sizeof(QTRACE_REGISTER_INFO));
    expect_layout({M(QTRACE_VMX_REGISTER_INFO, index, 2), M(QTRACE_VMX_REGISTER_INFO, value, 16)},
                  sizeof(QTRACE_VMX_REGISTER_INFO));
    expect_layout({M(QTRACE_VSX_REGISTER_INFO, index, 2), M(QTRACE_VSX_REGISTER_INFO, value, 16)},
                  sizeof(QTRACE_VSX_REGISTER_INFO));
}

TEST(layout, of_the_walks_in_records)
{
    expect_layout({M(QTRACE_RTW, RTPDE_ra_l1, 8), M(QTRACE_RTW, RTPDE_ra_l2, 8), M(QTRACE_RTW, RTPDE_ra_l3, 8),
                   M(QTRACE_RTW, RTPTE_ra, 8)},
                  sizeof(QTRACE_RTW));
    using Guest = QTRACE_RTW_GUEST;
    expect_layout({M(Guest, RTPDE_GUEST_ra_l1, 8), M(Guest, RTPDE_GUEST_ra_l2, 8), M(Guest, RTPDE_GUEST_ra_l3, 8),
                   M(Guest, RTPDE_GUEST_ra_l4, 8), M(Guest, RTPTE_GUEST_ra, 8), M(Guest, GUEST_ra, 8)},
                  sizeof(Guest));
    expect_layout({M(QTRACE_HDR, instruction, 4), M(QTRACE_HDR, control, 8)}, sizeof(QTRACE_HDR));
}

// ---- two languages ----------------------------------------------------------------------------------------

#define ROW(type, bytes) {#type, sizeof(type), bytes},

TEST(languages, c_and_cpp_agree_on_every_size)
{
    const struct {
        const char *name;
        size_t in_cpp, bytes;
    } rows[] = {RECORD_SIZES(ROW)};
    size_t count = 0;
    const Record_Size *in_c = record_sizes_in_c(&count);
    ASSERT_EQ(count, std::size(rows));
    for (size_t i = 0; i < count; ++i) {
        EXPECT_EQ(rows[i].in_cpp, rows[i].bytes) << rows[i].name;
        EXPECT_EQ(in_c[i].bytes, rows[i].bytes) << rows[i].name;
    }
}

TEST(languages, c_sets_the_same_bits)
{
    control_word word;
    QTRACE_FILE_HDR_CNTRL control;
    set_bits_in_c(&word, &control);
    EXPECT_EQ(bits_of(word), (2u << 14 | 1u << 31) | uint64_t{1u << 15 | 1u << 3} << 32);
    EXPECT_EQ(bits_of(control), 1u << 15 | 1u << 1);
}

// ---- values -----------------------------------------------------------------------------------------------

TEST(values, of_the_plugins_kinds_and_sizes)
{
    EXPECT_EQ(RADIX_MODE, 0);
    EXPECT_EQ(HPT_MODE, 1);
    EXPECT_EQ(REAL_MODE, 2);
    EXPECT_EQ(UNDEFINED_MODE, 3);
    EXPECT_EQ(HOST, 0);
    EXPECT_EQ(GUEST, 1);
    EXPECT_EQ(SIM_SUPPORT_NOP, 0x7EB5AB78u);
    EXPECT_EQ(SAMPLE_RATE, 262144);
    EXPECT_EQ(sizeof fname_in_bin, 256u);
    EXPECT_EQ(sizeof fname_in_text, 256u);
    EXPECT_EQ(sizeof EventNames, 4 * sizeof(char *));
}

TEST(values, of_the_instruction_events)
{
    EXPECT_EQ(INSTRUCTION_COMMIT, 1);
    EXPECT_EQ(INSTRUCTION_FLUSH, 2);
    EXPECT_EQ(INSTRUCTION_PRE_EXECUTE, 3);
}

TEST(values, of_mmu_outcomes_in_order)
{
    int value = 0;
    for (const MMUStatus status :
         {MMU_SUCCESS, MMU_EXCEPTION, MMU_CROSSES_PAGE, MMU_UNALIGNED_LE, MMU_FAILURE, MMU_RESERVATION_LOST,
          MMU_TRANSLATION_MISS, MMU_L1CACHE_MISS, MMU_CONTINUE_WITH_PART2, MMU_BREAKPOINT_HIT})
        EXPECT_EQ(status, value++);
}

TEST(values, of_radix_modes_in_order)
{
    int value = 0;
    for (const RDX_MODE mode :
         {RADIX_MODE_NOT_SET, GUEST_MODE_RADIX, HOST_MODE_RADIX, GUEST_MODE_HPT, HOST_MODE_HPT, RDX_MODE_LAST})
        EXPECT_EQ(mode, value++);
}

TEST(values, of_translation_modes_in_order)
{
    int value = 0;
    for (const RDX_XLATE_MODE mode : {RADIX_MODE_NOT_YET_SET,
                                      NOT_Radix,
                                      OffsetReal,
                                      UPRTeq0_TI,
                                      UPRTeq0_TA_PLS,
                                      UPRTeq0_TA_SLS,
                                      UPRTeq1_TI,
                                      UPRTeq1_TA_PLS,
                                      UPRTeq1_TA_SLS,
                                      UltravisorRealModeURMOR,
                                      UltravisorRealModeNoURMOR,
                                      HypervisorRealModeHRMOR,
                                      HypervisorRealModeNoHRMOR,
                                      VirtualRealMode,
                                      Z7_GuestHptOnHostHpt,
                                      Z7_GuestRadixOnHostHpt,
                                      Z7_GuestRealOnHostHpt,
                                      Z7_GuestRadixOnHostHpt_HVeq1_LPIDneq0,
                                      Z7_GuestRadixOnHostHpt_HVeq1_LPIDeq0,
                                      Z7_HostHptSTEGroup,
                                      Z7_HostHptShortVA,
                                      Z7_ProcessTableEntryHostHpt_Primary_LLP,
                                      Z7_ProcessTableEntryHostHpt_Secondary_LLP,
                                      Z7_GuestRadixOnHostRadix,
                                      Z7_GuestRealOnHostRadix,
                                      Z7_HostRadixSingleLevel,
                                      Z7_HostRadixProcessScoped,
                                      Z7_HypervisorRadixSingleLevel,
                                      Z7_HypervisorRadixSingleLevel_LPIDReq0,
                                      Z7_HypervisorRadixProcessScoped,
                                      Z7_HostRadixSingleLevel_PR_0,
                                      Z7_HostRadixSingleLevel_MSR_PR,
                                      Z7_ProcessTableEntryRadix,
                                      Z7_HostHptSegmentPteSearch,
                                      POSSIBLE_GUEST_Radix,
                                      POSSIBLE_HOST_Radix,
                                      POSSIBLE_HYPERVISOR_Radix,
                                      RDX_XLATE_MODE_LAST})
        EXPECT_EQ(mode, value++);
    EXPECT_EQ(value, 38);
}

TEST(values, of_the_codes_in_records)
{
    EXPECT_EQ(QTRACE_VERSION, 0x07010000);
    EXPECT_EQ(QTRACE_NotTerminated, 0);
    EXPECT_EQ(QTRACE_ExceededMaximumBranchDepth, 128);
    EXPECT_EQ(QTRACE_ExceededMaximumInstructionDepth, 64);
    EXPECT_EQ(QTRACE_TerminatingOpcode, 32);
    EXPECT_EQ(QTRACE_Exception, 16);
    EXPECT_EQ(QTRACE_UnconditionalBranchNode, 8);
    EXPECT_EQ(QTRACE_ExtendedTermCode, 1);
    EXPECT_EQ(QTRACE_NoExceptions, 0);
    EXPECT_EQ(QTRACE_DataException, 128);
    EXPECT_EQ(QTRACE_InstructionFetchException, 64);
    EXPECT_EQ(QTRACE_InstructionException, 32);
    EXPECT_EQ(QTRACE_ImpreciseInterrupt, 16);
    EXPECT_EQ(QTRACE_OtherException, 8);
    EXPECT_EQ(QTRACE_ReservedException_5, 64);
    EXPECT_EQ(QTRACE_ReservedException_6, 32);
    EXPECT_EQ(QTRACE_ExtendedExceptionField, 1);
    EXPECT_EQ(QTRACE_NoError, 0);
    EXPECT_EQ(QTRACE_DamagedOpcode, 128);
    EXPECT_EQ(QTRACE_MissingDataAddress, 64);
    EXPECT_EQ(QTRACE_MissingInstructionAddress, 32);
    EXPECT_EQ(QTRACE_OpcodeIsSuspect, 16);
    EXPECT_EQ(QTRACE_DataAddressIsSuspect, 8);
    EXPECT_EQ(QTRACE_InstructionAddressIsSuspect, 4);
    EXPECT_EQ(QTRACE_ReservedError_6, 2);
    EXPECT_EQ(QTRACE_ExtendedErrorField, 1);
    EXPECT_EQ(QTRACE_Sequential, 0);
    EXPECT_EQ(QTRACE_ConditionalBranch, 1);
    EXPECT_EQ(QTRACE_UnconditionalBranch, 2);
    EXPECT_EQ(QTRACE_ExceptionTaken, 3);
    EXPECT_EQ(QTRACE_UndefinedInstructionType, 4);
    EXPECT_EQ(QTRACE_READ, 1);
    EXPECT_EQ(QTRACE_WRITE, 2);
}

} // namespace
