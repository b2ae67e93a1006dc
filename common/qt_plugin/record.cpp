#include "record.h"

#include "auto_comment.h"
#include "clear_members.h"
#include "inline_body.h"
#include "qtrace.h"
#include "register_classes.h"
#include "xlate_modes.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>

// ---- Flags -----------------------------------------------------------------------------------------------------

// A control word as a number. Flags are collected in a register and stored once: set one after the other in memory,
// each would wait for the store before it. CONTROL gives the lowest bit of a member, a constant to the compiler.
template <class Set> static inline uint64_t control_bits(Set set)
{
    control_word word = {};
    set(word.fld);
    uint64_t bits;
    static_assert(sizeof bits == sizeof word);
    memcpy(&bits, &word, sizeof bits);
    return bits;
}

#define CONTROL(member) control_bits([](auto &fld) { fld.member = 1; })

static void put_control(control_word &to, uint64_t bits)
{
    memcpy(&to, &bits, sizeof to);
}

static uint64_t instruction_modes(RDX_XLATE_MODE mode)
{
    const Xlate_Mode_Info &info = mode_info(mode);
    return CONTROL(secondary_extender_present) | CONTROL(guest_xlate_mode_instruction) * info.guest |
           CONTROL(host_xlate_mode_instruction) * info.host;
}

static uint64_t data_modes(RDX_XLATE_MODE mode)
{
    const Xlate_Mode_Info &info = mode_info(mode);
    return CONTROL(guest_xlate_mode_data) * info.guest | CONTROL(host_xlate_mode_data) * info.host;
}

// ---- Addresses with their translation --------------------------------------------------------------------------

// Where one address and its translation go, in a file header or in a record.
struct Record_Address {
    QTRACE_EA &ea;
    QTRACE_VSID &vsid;
    QTRACE_UINT8 &depth, &num_level;
    QTRACE_RTW (&hRTW)[RDX_MAX_2LEVEL_DEPTH];
    QTRACE_RTW_HOST_RA (&hRTW_host_RA)[RDX_MAX_GUEST_LEVELS];
    QTRACE_RTW_GUEST &gRTW;
    QTRACE_RPN &rpn;
    QTRACE_UINT8 &page_size, &gpage_size;
};

static Record_Address iar_address(QTRACE_FILE_HDR &header)
{
    return {header.iar,           header.iar_vsid,         header.iar_hRTW_depth, header.iar_hRTW_num_level,
            header.iar_hRTW,      header.iar_hRTW_host_RA, header.iar_gRTW,       header.iar_rpn,
            header.iar_page_size, header.iar_gpage_size};
}

INLINE_BODY Record_Address next_instruction_address(QTRACE_RECORD &record)
{
    return {record.next_instruction_ea,         record.next_instruction_vsid,
            record.next_instruction_hRTW_depth, record.next_instruction_hRTW_num_level,
            record.next_instruction_hRTW,       record.next_instruction_hRTW_host_RA,
            record.next_instruction_gRTW,       record.next_instruction_rpn,
            record.next_instruction_page_size,  record.next_instruction_gpage_size};
}

INLINE_BODY Record_Address data_address(QTRACE_RECORD &record)
{
    return {record.data_ea,        record.data_vsid,         record.data_hRTW_depth, record.data_hRTW_num_level,
            record.data_hRTW,      record.data_hRTW_host_RA, record.data_gRTW,       record.data_rpn,
            record.data_page_size, record.data_gpage_size};
}

// A value as it lies in memory, at the start of a byte array of its size.
template <class Value, size_t N> static void put_value(uint8_t (&to)[N], const Value &value)
{
    static_assert(sizeof value == N);
    memcpy(to, &value, N);
}

// Readers expect a VSID without its first byte in memory.
static void put_vsid(QTRACE_VSID &to, const uint64_t &vsid)
{
    memcpy(to, reinterpret_cast<const uint8_t *>(&vsid) + 1, QTRACE_VSID_LENGTH);
}

static void put_host_walk(QTRACE_RTW &to, const HostRadixTree &from)
{
    static_assert(sizeof to == sizeof from);
    memcpy(&to, &from, sizeof to);
}

// The first `levels` directory entries; a count other than 1 to 3 has none. The page-table entry always.
static void put_host_walk_levels(QTRACE_RTW &to, const HostRadixTree &from, uint8_t levels)
{
    if (levels >= 1 && levels <= 3)
        memcpy(&to, &from, levels * sizeof(PA));
    put_value(to.RTPTE_ra, from.RTPTE_ra);
}

// Each access of the guest's walk with the host walk that translates it. Accesses beyond the arrays are left out. Takes
// copies: with references its callers would have to build both views in memory, also for addresses without such a walk.
static void put_nested_walk(const Record_Address to, const Xlate_Fields from)
{
    const auto levels = static_cast<uint8_t>(from.host_walkdepth - 1);
    const auto last = static_cast<uint8_t>(from.guest_walkdepth - 1); // number of the final host walk
    for (int k = 0; k < std::min<int>(last, GUEST_LEVELS); ++k) {
        put_host_walk_levels(to.hRTW[k], from.hRTW[k], levels);
        put_value(to.hRTW_host_RA[k].ra, from.hRTW_host_RA[k].ra);
    }
    static_assert(offsetof(QTRACE_RTW_GUEST, RTPDE_GUEST_ra_l1) == 0);
    memcpy(&to.gRTW, &from.gRTW.RTPDE_GUEST_ra_l1, std::min<size_t>(last, 3) * sizeof(PA));
    put_value(to.gRTW.RTPTE_GUEST_ra, from.gRTW.RTPTE_GUEST_ra);
    put_value(to.gRTW.GUEST_ra, from.gRTW.GUEST_ra);
    if (last < HOST_WALKS)
        put_host_walk_levels(to.hRTW[last], from.hRTW[last], levels);
}

INLINE_BODY void put_walk(XLATE_WALK walk, const Record_Address &to, const Xlate_Fields &from)
{
    switch (walk) {
    case WALK_NONE:
        break;
    case WALK_GUEST_REAL:
        to.depth = static_cast<QTRACE_UINT8>(from.guest_walkdepth + 1);
        put_value(to.gRTW.GUEST_ra, from.gRTW.GUEST_ra);
        [[fallthrough]];
    case WALK_SINGLE:
        put_host_walk(to.hRTW[0], from.hRTW[0]);
        break;
    case WALK_NESTED:
        put_nested_walk(to, from);
        break;
    }
}

// Puts the address and its translation into a cleared place; returns what it put, for the flags. The host's walk
// depth goes into num_level and the guest's into depth: readers expect the crossing.
INLINE_BODY Xlate_Case_Info put_address(const Record_Address &to, uint64_t address, const Xlate_Fields &from)
{
    put_value(to.ea, address);
    to.num_level = from.host_walkdepth;
    to.depth = from.guest_walkdepth;
    const Xlate_Case_Info &carried = XLATE_CASES[dispatched_case(from.radix_type, from.relocation)];
    if (carried.vsid)
        put_vsid(to.vsid, from.VSID);
    if (carried.rpn)
        put_value(to.rpn, from.RPN);
    if (carried.page)
        to.page_size = from.pagesize;
    if (carried.gpage)
        to.gpage_size = from.gpagesize;
    put_walk(carried.walk, to, from);
    return carried;
}

// ---- File headers ----------------------------------------------------------------------------------------------

// The library may go on pointing to the comment, so this copy is never freed. Null when memory runs out.
static char *new_comment(const char *text, size_t length)
{
    auto *comment = static_cast<char *>(malloc(length + 1));
    if (comment)
        memcpy(comment, text, length + 1);
    return comment;
}

static void put_comment(QTRACE_FILE_HDR &header, const Node *p)
{
    char text[AUTO_COMMENT_SIZE];
    const size_t length = auto_comment(p, text);
    header.comment = new_comment(text, length);
    if (!header.comment)
        return;
    header.control.comment_present = 1;
    header.comment_length = static_cast<QTRACE_UINT16>(length);
}

static void put_partition(QTRACE_FILE_HDR &header, const Node *p)
{
    auto &present = header.sec_ext_controlword.control.fld;
    present.lpid_is_present = 1;
    present.pid_is_present = 1;
    put_value(header.lpid, p->lpid);
    put_value(header.pid, p->pid);
}

static void put_first_instruction(QTRACE_FILE_HDR &header, Node *p)
{
    const Xlate_Case_Info carried = put_address(iar_address(header), p->PC, pc_fields(p));
    header.control.iar_is_present = 1;
    header.control.iar_vsid_is_present = carried.vsid;
    header.control.iar_rpn_is_present = carried.rpn;
    header.control.iar_page_size_is_present = carried.page;
    header.control.iar_gpage_size_is_present = carried.gpage;
    if (carried.walk == WALK_GUEST_REAL)
        header.iar_gpage_size = p->PC_gpagesize; // only here, and without its flag
    put_control(header.sec_ext_controlword.control, instruction_modes(p->pc_radix_type));
}

// The header before a trace segment. Returns 1 when it was written.
SELDOM boolean write_file_header(Node *p)
{
    QTRACE_FILE_HDR header;
    memset(&header, 0, sizeof header);
    put_first_instruction(header, p);
    put_partition(header, p);
    header.sec_ext_controlword.control.fld.ptcr_is_present = 1;
    put_value(header.ptcr, p->ptcr);
    header.control.sdr1_is_present = p->sdr1 != 0;
    put_value(header.sdr1, p->sdr1);
    header.control.version_number_present = 1; // with a version of 0: the library's own counts
    put_comment(header, p);
    if (QTRACE_FwriteFileHeader(qfile_in_bin[p->proc_index], &header) == 0)
        return 1;
    sim_do_warning(2, "Cannot write qtrace file hdr");
    return 0;
}

SELDOM boolean write_partition_header(const Node *p)
{
    QTRACE_FILE_HDR header;
    memset(&header, 0, sizeof header);
    put_partition(header, p);
    if (QTRACE_FwriteFileHeader(qfile_in_bin[p->proc_index], &header) == 0)
        return 1;
    sim_do_warning(2, "Attempted to write qtrace file hdr to update lpid and pid.");
    return 0;
}

// ---- The record's parts ----------------------------------------------------------------------------------------

// Each part fills its members of a record and returns the flags that say so.

static uint64_t put_node_and_termination(QTRACE_RECORD &record, const Node *p)
{
    uint64_t flags = 0;
    if (p->I)
        flags |= CONTROL(iar_change_present);
    if (p->N) {
        flags |= CONTROL(node_present);
        record.node = p->nn;
    }
    if (p->T) {
        flags |= CONTROL(termination_present);
        record.termination_node = p->nn;
        record.termination_code =
            p->info.branch == 'U' ? QTRACE_UnconditionalBranchNode : QTRACE_ExceededMaximumInstructionDepth;
    }
    return flags;
}

static uint64_t put_next_instruction(QTRACE_RECORD &record, Node *p)
{
    const uint64_t modes = instruction_modes(p->nextPC_radix_type);
    if (!p->I && (!p->N || p->T))
        return modes;
    const Xlate_Case_Info carried = put_address(next_instruction_address(record), p->nextPC, next_pc_fields(p));
    return modes | CONTROL(next_instruction_EA_present) | CONTROL(next_instruction_VSID_present) * carried.vsid |
           CONTROL(next_instruction_RPN_present) * carried.rpn |
           CONTROL(next_instruction_page_size_present) * carried.page |
           CONTROL(instruction_gpage_size_present) * carried.gpage;
}

static void put_register_value(QTRACE_UINT64 &to, const uint64_t &value)
{
    to = value;
}

static void put_register_value(QTRACE_UINT64 (&to)[2], const QuadWord &value)
{
    memcpy(to, &value, sizeof to);
}

// One class of registers in a record.
template <class Entry, size_t N> struct Record_Class {
    QTRACE_UINT8 &count;
    Entry (&entry)[N];
};
template <class Entry, size_t N> Record_Class(QTRACE_UINT8 &, Entry (&)[N]) -> Record_Class<Entry, N>;

INLINE_BODY auto in_registers(QTRACE_REGISTERS &r)
{
    return Register_Classes{Record_Class{r.num_gprs_in, r.gpr_in}, Record_Class{r.num_fprs_in, r.fpr_in},
                            Record_Class{r.num_sprs_in, r.spr_in}, Record_Class{r.num_vmxrs_in, r.vmxr_in},
                            Record_Class{r.num_vsxrs_in, r.vsxr_in}};
}

INLINE_BODY auto out_registers(QTRACE_REGISTERS &r)
{
    return Register_Classes{Record_Class{r.num_gprs_out, r.gpr_out}, Record_Class{r.num_fprs_out, r.fpr_out},
                            Record_Class{r.num_sprs_out, r.spr_out}, Record_Class{r.num_vmxrs_out, r.vmxr_out},
                            Record_Class{r.num_vsxrs_out, r.vsxr_out}};
}

// A record holds fewer registers of some classes than the host reports: those beyond are left out.
template <class Entry, size_t N, class From> INLINE_BODY void put_class(Record_Class<Entry, N> to, From from)
{
    if (from.num <= 0)
        return;
    const size_t fitting = std::min<size_t>(static_cast<size_t>(from.num), N);
    for (size_t i = 0; i < fitting; ++i) {
        to.entry[i].index = static_cast<QTRACE_UINT16>(from.index[i]);
        put_register_value(to.entry[i].value, from.value[i]);
    }
    to.count = static_cast<QTRACE_UINT8>(fitting);
}

template <class Record_Classes> INLINE_BODY void put_registers(Record_Classes to, const Plugin_Inst_Registers &from)
{
    for_each_class([](auto record, auto host) { put_class(record, host); }, to, register_classes(from));
}

static int64_t count_registers(const Plugin_Inst_Registers &registers)
{
    int64_t total = 0;
    for_each_class([&](auto of_class) { total += of_class.num; }, register_classes(registers));
    return total;
}

// Any registers: a direction has them when its counts add up to more than 0.
__attribute__((noinline)) static uint64_t put_all_classes(QTRACE_REGISTERS &to, const Node *p)
{
    const int64_t in = count_registers(p->reg_in), out = count_registers(p->reg_out);
    if (in > 0)
        put_registers(in_registers(to), p->reg_in);
    if (out > 0)
        put_registers(out_registers(to), p->reg_out);
    return CONTROL(register_trace_present) * (in + out > 0);
}

// Most instructions have general registers only.
INLINE_BODY uint64_t put_register_trace(QTRACE_REGISTERS &to, const Node *p)
{
    if (other_counts(p->reg_in) | other_counts(p->reg_out))
        return put_all_classes(to, p);
    put_class(in_registers(to).gpr, register_classes(p->reg_in).gpr);
    put_class(out_registers(to).gpr, register_classes(p->reg_out).gpr);
    return CONTROL(register_trace_present) * (int64_t{p->reg_in.gpr_num} + p->reg_out.gpr_num > 0);
}

static uint64_t put_data(QTRACE_RECORD &record, Node *p)
{
    const uint64_t modes = data_modes(p->data_radix_type);
    const First_OP_Info &info = p->info;
    if (!(info.load || info.store || info.cache) || !info.data_addr_valid)
        return modes;
    const Xlate_Case_Info carried = put_address(data_address(record), info.data_addr, data_fields(p));
    const bool suspect = p->data_mmu_status != MMU_SUCCESS;
    record.error_code = suspect ? QTRACE_DataAddressIsSuspect : QTRACE_NoError;
    return modes | CONTROL(data_address_present) | CONTROL(data_VSID_present) * carried.vsid |
           CONTROL(data_RPN_present) * carried.rpn | CONTROL(data_page_size_present) * carried.page |
           CONTROL(data_gpage_size_present) * carried.gpage | CONTROL(trace_error_code_present) * suspect;
}

static uint64_t put_string_length(QTRACE_RECORD &record, const First_OP_Info &info)
{
    if (!info.string || info.str_len == UNKNOWN_STRING_LENGTH)
        return 0;
    record.length = info.str_len;
    return CONTROL(length_present);
}

// ---- The record ------------------------------------------------------------------------------------------------

WIDE_STORES static void clear_record(QTRACE_RECORD *to)
{
    clear_bytes<sizeof *to>(to);
}

boolean dump_node(Node *p)
{
    alignas(64) static QTRACE_RECORD record;
    clear_record(&record); // whole for each node, whatever the library did to the one before
    uint64_t flags = 0;
    if (!hdr_write[p->proc_index]) {
        if (!write_file_header(p))
            return 0;
        hdr_write[p->proc_index] = 1;
        flags |= CONTROL(processor_present);
        record.processor = static_cast<QTRACE_PROCESSOR>(p->proc_index);
    }
    record.header.instruction = p->info.instbody;
    QT_ASSERT(!p->I || p->N, "p->N"); // here, for the report names this function
    flags |= put_node_and_termination(record, p);
    if (p->partition_change && !write_partition_header(p))
        return 0;
    flags |= put_next_instruction(record, p);
    flags |= put_register_trace(record.regs, p);
    flags |= put_data(record, p);
    flags |= put_string_length(record, p->info);
    put_control(record.header.control, flags);
    if (QTRACE_FwriteRecord(qfile_in_bin[p->proc_index], &record) == 0)
        return 1;
    sim_do_warning(2, "QTRACE_WriteRecord fail");
    return 0;
}
