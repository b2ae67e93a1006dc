#include "capture.h"

#include "clear_members.h"
#include "ordering.h"
#include "xlate_modes.h"

#include <algorithm>
#include <string.h>

// ---- The two sides of an instruction ----------------------------------------------------------------------------

// Every question about the instruction's own address (fetch) has a twin about its data address. The routines below
// are written once; the side is a constant wherever they are used, so that they become direct calls.
enum ADDRESS_SIDE { FETCH_SIDE, DATA_SIDE };

#define INLINE_BODY static inline __attribute__((always_inline))

#define SIDE_QUERY(type, name, fetch_query, data_query)                                                            \
    INLINE_BODY type name(ADDRESS_SIDE side, void *iop)                                                            \
    {                                                                                                              \
        return side == FETCH_SIDE ? fetch_query(iop) : data_query(iop);                                            \
    }

#define SIDE_WALK_QUERY(name, fetch_query, data_query)                                                             \
    INLINE_BODY PA name(ADDRESS_SIDE side, void *iop, int n)                                                       \
    {                                                                                                              \
        return side == FETCH_SIDE ? fetch_query(iop, n) : data_query(iop, n);                                      \
    }

SIDE_QUERY(MMUStatus, query_mmu_status, Get_PC_MMU_Status, Get_Data_MMU_Status)
SIDE_QUERY(RDX_XLATE_MODE, query_xlate_type, Get_PC_Xlate_Type, Get_Data_Xlate_Type)
SIDE_QUERY(RDX_MODE, query_guest_mode, Get_PC_Radix_Guest_Mode, Get_Data_Radix_Guest_Mode)
SIDE_QUERY(RDX_MODE, query_host_mode, Get_PC_Radix_Host_Mode, Get_Data_Radix_Host_Mode)
SIDE_QUERY(uint8_t, query_host_two_level, Get_PC_Host_AXD_Two_Level, Get_Data_Host_AXD_Two_Level)
SIDE_QUERY(uint8_t, query_guest_two_level, Get_PC_Guest_AXD_Two_Level, Get_Data_Guest_AXD_Two_Level)
SIDE_QUERY(uint8_t, query_host_depth, Get_PC_Radix_Host_Walk_Depth, Get_Data_Radix_Host_Walk_Depth)
SIDE_QUERY(uint8_t, query_guest_depth, Get_PC_Radix_Guest_Walk_Depth, Get_Data_Radix_Guest_Walk_Depth)
SIDE_QUERY(uint64_t, query_ra, Get_Inst_PC_RA, Get_Inst_Data_RA)
SIDE_QUERY(uint64_t, query_vsid, Get_Inst_PC_VSID, Get_Inst_Data_VSID)
SIDE_QUERY(uint32_t, query_rpn, Get_Inst_PC_RPN, Get_Inst_Data_RPN)
SIDE_QUERY(uint32_t, query_host_rpn, Get_Inst_Host_PC_RPN, Get_Inst_Data_Host_RPN)
SIDE_QUERY(uint32_t, query_guest_rpn, Get_Inst_Guest_PC_RPN, Get_Inst_Data_Guest_RPN)
SIDE_QUERY(uint8_t, query_page_size, Get_Inst_PC_PageSize, Get_Inst_Data_PageSize)
SIDE_QUERY(uint8_t, query_host_page_size, Get_Inst_PC_Host_PageSize, Get_Inst_Data_Host_PageSize)
SIDE_QUERY(uint8_t, query_guest_page_size, Get_Inst_PC_Guest_PageSize, Get_Inst_Data_Guest_PageSize)
SIDE_QUERY(PA, query_guest_l1, Get_Inst_PC_GUEST_RTPDE_L1_RA, Get_Inst_Data_GUEST_RTPDE_L1_RA)
SIDE_QUERY(PA, query_guest_l2, Get_Inst_PC_GUEST_RTPDE_L2_RA, Get_Inst_Data_GUEST_RTPDE_L2_RA)
SIDE_QUERY(PA, query_guest_l3, Get_Inst_PC_GUEST_RTPDE_L3_RA, Get_Inst_Data_GUEST_RTPDE_L3_RA)
SIDE_QUERY(PA, query_guest_pte, Get_Inst_PC_GUEST_RTPTE_RA, Get_Inst_Data_GUEST_RTPTE_RA)
SIDE_QUERY(PA, query_guest_ra, Get_Inst_PC_GUEST_RA, Get_Inst_Data_GUEST_RA)
SIDE_WALK_QUERY(query_host_l1, Get_Inst_PC_HOST_RTPDE_L1_n_RA, Get_Inst_Data_HOST_RTPDE_L1_n_RA)
SIDE_WALK_QUERY(query_host_l2, Get_Inst_PC_HOST_RTPDE_L2_n_RA, Get_Inst_Data_HOST_RTPDE_L2_n_RA)
SIDE_WALK_QUERY(query_host_l3, Get_Inst_PC_HOST_RTPDE_L3_n_RA, Get_Inst_Data_HOST_RTPDE_L3_n_RA)
SIDE_WALK_QUERY(query_host_pte, Get_Inst_PC_HOST_RTPTE_n_RA, Get_Inst_Data_HOST_RTPTE_n_RA)
SIDE_WALK_QUERY(query_host_ra, Get_Inst_PC_RonR_HOST_RA_Ln, Get_Inst_Data_RonR_HOST_RA_Ln)

// ---- One captured case each -------------------------------------------------------------------------------------

XLATE_TYPE get_xlate_mode(RDX_XLATE_MODE mode)
{
    return mode_info(mode).kind;
}

INLINE_BODY void capture_host_real(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    to.RA = static_cast<uint32_t>(query_ra(side, iop)); // readers know real-mode addresses by their low 32 bits
}

INLINE_BODY void capture_host_hpt(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    to.VSID = query_vsid(side, iop);
    to.RPN = query_rpn(side, iop);
    to.pagesize = query_page_size(side, iop);
}

INLINE_BODY void capture_guest_hpt(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    capture_host_hpt(side, to, iop);
    to.gpagesize = query_page_size(side, iop); // the host has one page size for both levels
}

INLINE_BODY void capture_guest_real_host_hpt(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    capture_host_hpt(side, to, iop);
    to.gpagesize = 0;
}

// Host walk 0 with all its levels, whatever its depth, and what it resolved to.
INLINE_BODY void capture_first_walk(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    HostRadixTree &walk = to.hRTW[0];
    walk.RTPDE_ra_l1 = query_host_l1(side, iop, 0);
    walk.RTPDE_ra_l2 = query_host_l2(side, iop, 0);
    walk.RTPDE_ra_l3 = query_host_l3(side, iop, 0);
    walk.RTPTE_ra = query_host_pte(side, iop, 0);
    to.hRTW_host_RA[0].ra = query_host_ra(side, iop, 0);
}

INLINE_BODY void capture_host_page(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    to.RPN = query_host_rpn(side, iop);
    to.pagesize = query_host_page_size(side, iop);
}

INLINE_BODY void capture_host_radix(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    capture_first_walk(side, to, iop);
    capture_host_page(side, to, iop);
}

// The guest walk's root stays as it is.
INLINE_BODY void clear_walks(const Xlate_Fields &to)
{
    GuestRadixTree cleared{};
    cleared.RTPDE_GUEST_ra_root = to.gRTW.RTPDE_GUEST_ra_root;
    to.gRTW = cleared;
    memset(to.hRTW, 0, sizeof to.hRTW);
    memset(to.hRTW_host_RA, 0, sizeof to.hRTW_host_RA);
}

INLINE_BODY void capture_depths(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    to.host_walkdepth = query_host_depth(side, iop);
    to.guest_walkdepth = query_guest_depth(side, iop);
}

INLINE_BODY void capture_guest_real_host_radix(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    clear_walks(to);
    capture_depths(side, to, iop);
    capture_first_walk(side, to, iop);
    to.gRTW.GUEST_ra = query_guest_ra(side, iop);
    to.gpagesize = 0;
    capture_host_page(side, to, iop);
}

// Host walk n of a guest's: the directory levels that a walk of that depth has, and the page-table entry. A depth
// outside 2 to 4 has no directory level.
INLINE_BODY void capture_walk_by_depth(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop, int n)
{
    HostRadixTree &walk = to.hRTW[n];
    const int levels = to.host_walkdepth >= 2 && to.host_walkdepth <= 4 ? to.host_walkdepth - 1 : 0;
    if (levels >= 1)
        walk.RTPDE_ra_l1 = query_host_l1(side, iop, n);
    if (levels >= 2)
        walk.RTPDE_ra_l2 = query_host_l2(side, iop, n);
    if (levels >= 3)
        walk.RTPDE_ra_l3 = query_host_l3(side, iop, n);
    walk.RTPTE_ra = query_host_pte(side, iop, n);
}

INLINE_BODY void capture_guest_level(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop, int level)
{
    if (level == 1)
        to.gRTW.RTPDE_GUEST_ra_l1 = query_guest_l1(side, iop);
    else if (level == 2)
        to.gRTW.RTPDE_GUEST_ra_l2 = query_guest_l2(side, iop);
    else if (level == 3)
        to.gRTW.RTPDE_GUEST_ra_l3 = query_guest_l3(side, iop);
}

// Each table access of the guest with the host walk behind it, then the final one.
INLINE_BODY void capture_nested_walk(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    const int last = to.guest_walkdepth - 1;
    for (int n = 0; n < last; ++n) {
        capture_walk_by_depth(side, to, iop, n);
        capture_guest_level(side, to, iop, n + 1);
    }
    to.gRTW.RTPTE_GUEST_ra = query_guest_pte(side, iop);
    capture_walk_by_depth(side, to, iop, last);
    for (int n = 0; n < last; ++n)
        to.hRTW_host_RA[n].ra = query_host_ra(side, iop, n);
}

INLINE_BODY void capture_guest_radix(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    clear_walks(to);
    capture_depths(side, to, iop);
    if (to.guest_walkdepth >= 1 && to.guest_walkdepth <= HOST_WALKS) // others do not fit the arrays
        capture_nested_walk(side, to, iop);
    to.gRTW.GUEST_ra = query_guest_ra(side, iop);
    to.RPN = query_guest_rpn(side, iop);
    to.pagesize = query_host_page_size(side, iop);
    to.gpagesize = query_guest_page_size(side, iop);
}

#define CAPTURE_DOORS(rule)                                                                                        \
    void iop_helper_pc_##rule(Node *p, void *iop)                                                                  \
    {                                                                                                              \
        capture_##rule(FETCH_SIDE, pc_fields(p), iop);                                                             \
    }                                                                                                              \
    void iop_helper_pcdata_##rule(Node *p, void *iop)                                                              \
    {                                                                                                              \
        capture_##rule(DATA_SIDE, data_fields(p), iop);                                                            \
    }

CAPTURE_DOORS(host_real)
CAPTURE_DOORS(host_hpt)
CAPTURE_DOORS(guest_hpt)
CAPTURE_DOORS(guest_real_host_hpt)
CAPTURE_DOORS(host_radix)
CAPTURE_DOORS(guest_real_host_radix)
CAPTURE_DOORS(guest_radix)

// ---- Which case is captured -------------------------------------------------------------------------------------

// A translation of one level: the mode alone decides, also whether the address counts as translated.
INLINE_BODY void capture_one_level(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop)
{
    switch (mode_info(to.radix_type).rule) {
    case CASE_HOST_REAL:
        to.relocation = 0;
        capture_host_real(side, to, iop);
        break;
    case CASE_GUEST_REAL_HPT:
        to.relocation = 0;
        capture_guest_real_host_hpt(side, to, iop);
        break;
    case CASE_HOST_HPT:
        to.relocation = 1;
        capture_host_hpt(side, to, iop);
        break;
    case CASE_GUEST_REAL_RADIX:
        to.relocation = 0;
        capture_guest_real_host_radix(side, to, iop);
        break;
    case CASE_HOST_RADIX:
        to.relocation = 1;
        capture_host_radix(side, to, iop);
        break;
    case CASE_NONE:
    case CASE_GUEST_HPT:
    case CASE_GUEST_RADIX:
        break;
    }
}

// A guest's translation on top of the host's: always on in user mode. The data of such an instruction is captured
// by the instruction's mode, not by its own.
INLINE_BODY void capture_two_levels(ADDRESS_SIDE side, const Xlate_Fields &to, void *iop, boolean relocated,
                                    RDX_XLATE_MODE pc_mode)
{
    to.relocation = Is_Mode_Kernel(iop) ? relocated : 1;
    if (!to.relocation)
        return;
    const XLATE_CASE rule = mode_info(pc_mode).rule;
    if (rule == CASE_GUEST_HPT)
        capture_guest_hpt(side, to, iop);
    else if (rule == CASE_GUEST_RADIX)
        capture_guest_radix(side, to, iop);
}

INLINE_BODY void capture_translation(ADDRESS_SIDE side, Node *p, void *iop, boolean relocated)
{
    const Xlate_Fields to = side == FETCH_SIDE ? pc_fields(p) : data_fields(p);
    if (side == FETCH_SIDE ? p->pc_guest_twolevel : p->data_guest_twolevel)
        capture_two_levels(side, to, iop, relocated, p->pc_radix_type);
    else
        capture_one_level(side, to, iop);
}

// ---- The instruction --------------------------------------------------------------------------------------------

static void capture_thread_state(Node *p, void *iop)
{
    p->seq = Get_Inst_SeqNumber(iop);
    p->simple = !In_Cycle_Mode(iop);
    p->ptcr = Get_Reg_PTCR(iop);
    p->lpid = Get_Reg_LPIDR(iop);
    p->pid = Get_Reg_PIDR(iop);
    // The first instruction of a session and after each throughput line never carries a change: there is nothing
    // before it in the interval that it could differ from. The process id is asked about only if still needed.
    p->partition_change = instr_commited != 0 && (Get_Check_IF_LPID_Change(iop) || Get_Check_IF_PID_Change(iop));
    p->kelvo_ver = Get_Version_Kelvo();
    p->bitmode64 = Is_Mode_64bit(iop);
    p->littleendian = Is_LE_Mode(iop);
    p->memused = Get_Memory_Total_Size(iop);
    Get_Pages_Used(iop, &p->pages_used);
    Get_gPages_Used(iop, &p->gpages_used);
}

// What the host says about one side's translation before it is selected by mode.
struct Xlate_Descriptors {
    MMUStatus &mmu_status;
    RDX_XLATE_MODE &radix_type;
    RDX_MODE &guest_mode, &host_mode;
    uint8_t &host_twolevel, &guest_twolevel, &host_walkdepth, &guest_walkdepth;
};

INLINE_BODY void capture_descriptors(ADDRESS_SIDE side, const Xlate_Descriptors &to, void *iop)
{
    to.mmu_status = query_mmu_status(side, iop);
    to.radix_type = query_xlate_type(side, iop);
    to.guest_mode = query_guest_mode(side, iop);
    to.host_mode = query_host_mode(side, iop);
    to.host_twolevel = query_host_two_level(side, iop);
    to.guest_twolevel = query_guest_two_level(side, iop);
    to.host_walkdepth = query_host_depth(side, iop);
    to.guest_walkdepth = query_guest_depth(side, iop);
}

static void capture_fetch_descriptors(Node *p, void *iop)
{
    capture_descriptors(FETCH_SIDE,
                        {p->pc_mmu_status, p->pc_radix_type, p->pc_guest_mode, p->pc_host_mode, p->pc_host_twolevel,
                         p->pc_guest_twolevel, p->pc_host_walkdepth, p->pc_guest_walkdepth},
                        iop);
    p->pc_xlate_type = get_xlate_mode(p->pc_radix_type);
}

static void capture_address(Node *p, void *iop)
{
    p->PC = Get_Inst_PC(iop);
    p->nextPC = Get_Inst_NPC(iop);
    const boolean relocated = Is_Inst_Relocated(iop);
    capture_translation(FETCH_SIDE, p, iop, relocated);
    p->sdr1 = Get_Inst_SDR1(iop);
    p->done = 1;
    p->commit = 1;
}

static void capture_operation(First_OP_Info &info, void *iop)
{
    info.branch = '?';
    info.taken = '?';
    if (Is_Inst_Branch(iop)) {
        info.branch = Is_Inst_Unconditional_Branch(iop) ? 'U' : 'C';
        info.taken = Is_Inst_Branch_Taken(iop) ? 'Y' : 'N';
    }
    info.load = Is_Inst_Load(iop);
    info.store = Is_Inst_Store(iop);
    info.cache = Is_Inst_Cache(iop);
    info.data_addr_valid = Is_Inst_Data_EA_Valid(iop);
    info.except = Is_Inst_Exception(iop);
}

static void capture_data(Node *p, void *iop)
{
    capture_descriptors(DATA_SIDE,
                        {p->data_mmu_status, p->data_radix_type, p->data_guest_mode, p->data_host_mode,
                         p->data_host_twolevel, p->data_guest_twolevel, p->data_host_walkdepth,
                         p->data_guest_walkdepth},
                        iop);
    First_OP_Info &info = p->info;
    info.data_addr = Get_Inst_Data_EA(iop);
    const boolean relocated = Is_Data_Relocated(iop);
    if ((info.load || info.store || info.cache) && info.data_addr_valid)
        capture_translation(DATA_SIDE, p, iop, relocated);
}

static void capture_string_and_registers(Node *p, void *iop)
{
    First_OP_Info &info = p->info;
    info.string = Is_Inst_String(iop);
    if (info.string)
        info.str_len = Get_String_Length(iop, p->commit);
    info.kernel = Is_Mode_Kernel(iop);
    Get_Inst_Input_Registers(iop, &p->reg_in);
    Get_Inst_Output_Registers(iop, &p->reg_out);
    if (qfile_in_text)
        Get_Inst_Name_And_Operand(iop, info.name, sizeof info.name);
}

// Returns the captured instruction, or null when it is not to be traced. The node of a filtered instruction is
// neither linked nor freed: it is given up on purpose, and known to leak checks by this function's name.
static Node *capture_instruction(int tid, void *iop)
{
    Node *p = new_node();
    if (!p)
        return nullptr;
    p->proc_index = tid;
    capture_thread_state(p, iop);
    capture_fetch_descriptors(p, iop);
    p->info.instbody = Is_Inst_SimSupport(iop) ? SIM_SUPPORT_NOP : Get_Inst_Instbody(iop);
    if (Is_Inst_Filtered(iop))
        return nullptr;
    capture_address(p, iop);
    capture_operation(p->info, iop);
    capture_data(p, iop);
    capture_string_and_registers(p, iop);
    return p;
}

// ---- A captured node, all zero again ----------------------------------------------------------------------------

// The first host walk and its result, or everything.
INLINE_BODY void clear_walk_storage(const Xlate_Fields &x, bool whole)
{
    if (whole) {
        clear_bytes<sizeof x.hRTW>(x.hRTW);
        clear_bytes<sizeof x.hRTW_host_RA>(x.hRTW_host_RA);
        clear_bytes<sizeof x.gRTW>(&x.gRTW);
    } else {
        clear_bytes<sizeof x.hRTW[0]>(x.hRTW);
        clear_bytes<sizeof x.hRTW_host_RA[0]>(x.hRTW_host_RA);
    }
}

static bool has_guest_walk(RDX_XLATE_MODE mode)
{
    const XLATE_CASE rule = mode_info(mode).rule;
    return rule == CASE_GUEST_RADIX || rule == CASE_GUEST_REAL_RADIX;
}

template <class Value, size_t N> INLINE_BODY void clear_class(int32_t &num, int32_t (&index)[N], Value (&value)[N])
{
    if (num == 0)
        return;
    for (int32_t i = 0; i < num && i < static_cast<int32_t>(N); ++i) {
        index[i] = 0;
        value[i] = {};
    }
    num = 0;
}

INLINE_BODY void clear_registers(Plugin_Inst_Registers &r)
{
    clear_class(r.gpr_num, r.gpr_index, r.gpr_value);
    clear_class(r.fpr_num, r.fpr_index, r.fpr_value);
    clear_class(r.spr_num, r.spr_index, r.spr_value);
    clear_class(r.vsx_num, r.vsx_index, r.vsx_value);
    clear_class(r.vmx_num, r.vmx_index, r.vmx_value);
}

// Makes a node all zero again that nothing but this file and the tree's flags have written to. A node has 2.6
// kilobytes, most of them for guest walks and registers that hardly an instruction has: only what can have been
// used is cleared. Whoever makes capture fill another member must clear it here; the unit tests compare.
WIDE_STORES static void clear_captured(Node *p)
{
    First_OP_Info &info = p->info;
    const bool walks = has_guest_walk(p->pc_radix_type) || has_guest_walk(p->data_radix_type) ||
                       has_guest_walk(p->nextPC_radix_type);
    clear_walk_storage(pc_fields(p), walks);
    clear_walk_storage(next_pc_fields(p), walks);
    clear_walk_storage(data_fields(p), walks);
    CLEAR_MEMBERS(Node, p, proc_index, PC_hRTW);
    CLEAR_MEMBERS(Node, p, ptcr, nextPC_hRTW);
    CLEAR_MEMBERS(Node, p, nextPC_pagesize, reg_in);
    clear_registers(p->reg_in);
    clear_registers(p->reg_out);
    CLEAR_MEMBERS(Node, p, done, info.name);
    if (qfile_in_text)
        clear_bytes<sizeof info.name>(info.name);
    CLEAR_MEMBERS(Node, p, info.branch, info.data_hRTW);
    clear_bytes<sizeof *p - offsetof(Node, info.data_gpagesize)>(&info.data_gpagesize);
}

static void count_instruction(void *iop)
{
    if (Is_Inst_VMX(iop)) {
        ++VMX_instr_commited;
        ++total_VMX_instr_commited;
    }
    if (Is_Inst_VSX(iop)) {
        ++VSX_instr_commited;
        ++total_VSX_instr_commited;
    }
    ++instr_commited;
    ++total_instr_commited;
    if (instr_commited == SAMPLE_RATE)
        qtrace_report_kips();
}

// ---- Cracked instructions ---------------------------------------------------------------------------------------

// Merges one class of registers: a later value of a register replaces the earlier one, a new register is appended
// as long as there is room.
template <class Value, size_t N>
static void merge_class(int32_t &num, int32_t (&index)[N], Value (&value)[N], int32_t piece_num,
                        const int32_t (&piece_index)[N], const Value (&piece_value)[N])
{
    num = std::clamp<int32_t>(num, 0, N);
    for (int i = 0; i < std::min<int32_t>(piece_num, N); ++i) {
        const auto place = static_cast<int32_t>(std::find(index, index + num, piece_index[i]) - index);
        if (place == static_cast<int32_t>(N))
            continue;
        index[place] = piece_index[i];
        value[place] = piece_value[i];
        num = std::max(num, place + 1);
    }
}

static void merge_registers(Plugin_Inst_Registers &to, const Plugin_Inst_Registers &piece)
{
    merge_class(to.gpr_num, to.gpr_index, to.gpr_value, piece.gpr_num, piece.gpr_index, piece.gpr_value);
    merge_class(to.fpr_num, to.fpr_index, to.fpr_value, piece.fpr_num, piece.fpr_index, piece.fpr_value);
    merge_class(to.spr_num, to.spr_index, to.spr_value, piece.spr_num, piece.spr_index, piece.spr_value);
    merge_class(to.vmx_num, to.vmx_index, to.vmx_value, piece.vmx_num, piece.vmx_index, piece.vmx_value);
    merge_class(to.vsx_num, to.vsx_index, to.vsx_value, piece.vsx_num, piece.vsx_index, piece.vsx_value);
}

static bool is_cracked_piece(const Node *p)
{
    return p->info.branch == '?' && p->PC == p->nextPC;
}

static void keep_piece(Node *p)
{
    Node *&pieces = crack_inst[p->proc_index];
    if (p->commit)
        pieces = insert_left(pieces, p);
    else
        free_node(p);
}

// Completes a cracked instruction with its last piece: the first piece stands for the whole, with the outputs of
// all and the last one's next address.
static Node *fix_crack(Node *last)
{
    Node *&pieces = crack_inst[last->proc_index];
    const uint64_t next_address = last->nextPC; // the last piece is gone after this if its seq was there already
    Node *whole = insert_left(pieces, last);
    pieces = whole->left;
    whole->left = nullptr;
    whole->nextPC = next_address;
    while (pieces) {
        Node *piece = pieces;
        merge_registers(whole->reg_out, piece->reg_out);
        pieces = piece->left;
        free_node(piece);
    }
    return whole;
}

// ---- Into the tree ----------------------------------------------------------------------------------------------

static void drain_pre_execution(Node *current)
{
    Node *&waiting = pre_execution[current->proc_index];
    while (waiting && waiting->seq <= current->seq) {
        Node *first = waiting;
        if (first->seq == current->seq)
            current->reg_in = first->reg_in;
        waiting = first->left;
        free_node(first);
    }
}

static void take_flushed(int tid)
{
    if (flush[tid] && insert_to_list(flush_list[tid], flush[tid]))
        flush[tid] = nullptr;
}

// What one node knows about its address into what the node before it says about its next address. Walks that the
// case does not use are zero on both sides.
static void copy_translation(const Xlate_Fields &to, const Xlate_Fields &from)
{
    const XLATE_CASE rule = dispatched_case(from.radix_type, from.relocation);
    const Xlate_Case_Info &carried = XLATE_CASES[rule];
    if (rule == CASE_HOST_REAL)
        to.RA = from.RA;
    if (carried.vsid)
        to.VSID = from.VSID;
    if (carried.rpn)
        to.RPN = from.RPN;
    if (carried.page)
        to.pagesize = from.pagesize;
    if (carried.gpage)
        to.gpagesize = from.gpagesize;
    if (carried.walk == WALK_NONE)
        return;
    const int walks = carried.walk == WALK_NESTED ? HOST_WALKS : 1;
    const int host_ras = carried.walk == WALK_NESTED ? GUEST_LEVELS : 1;
    memcpy(to.hRTW, from.hRTW, static_cast<size_t>(walks) * sizeof to.hRTW[0]);
    memcpy(to.hRTW_host_RA, from.hRTW_host_RA, static_cast<size_t>(host_ras) * sizeof to.hRTW_host_RA[0]);
    if (carried.walk == WALK_NESTED)
        to.gRTW = from.gRTW;
    else if (carried.walk == WALK_GUEST_REAL)
        to.gRTW.GUEST_ra = from.gRTW.GUEST_ra;
}

// Tells the node before `current` what its next address is, unless it is just the following one.
static void fill_next_address(Node *previous, Node *current)
{
    if (current->PC == previous->PC + 4 && previous->info.taken != 'Y')
        return;
    previous->I = 1;
    previous->nextPC = current->PC;
    previous->nextPC_relocation = current->PC_relocation;
    previous->nextPC_radix_type = current->pc_radix_type;
    previous->nextPC_guest_twolevel = current->pc_guest_twolevel;
    previous->nextPC_host_walkdepth = current->pc_host_walkdepth;
    previous->nextPC_guest_walkdepth = current->pc_guest_walkdepth;
    copy_translation(next_pc_fields(previous), pc_fields(current));
}

// Hangs one flushed node into the tree from `start` on; where its key finds no place, a lower one may. Returns
// where the next search starts.
static Node *place_flushed(Node *start, Node *flushed)
{
    Node *placed = insert_right(start, flushed);
    while (!placed && flushed->terminated_seq > start->seq && --flushed->terminated_seq > start->seq)
        placed = insert_right(start, flushed);
    if (placed)
        return placed;
    del_tree(flushed);
    return start;
}

// Returns 0 when a flushed instruction is still ahead of `current`: then nothing may be written yet.
static boolean place_all_flushed(Node *current)
{
    List *list = flush_list[current->proc_index];
    Node *start = root[current->proc_index];
    while (!is_list_empty(list)) {
        if (list->list[0]->seq > current->seq)
            return 0;
        start = place_flushed(start, remove_from_list(list));
    }
    return 1;
}

static void write_all_before(Node *current, Node *previous)
{
    Node *&first = root[current->proc_index];
    dump_tree_right(first);
    previous->left = nullptr;
    if (first == previous && first == plain_commit[current->proc_index] && !first->right) {
        clear_captured(first);
        free_clear_node(first);
    } else {
        del_tree(first);
    }
    first = current;
}

static void link_instruction(Node *current)
{
    const int tid = current->proc_index;
    if (!root[tid]) {
        root[tid] = current;
        last_commit[tid] = current;
        return;
    }
    take_flushed(tid);
    Node *previous = last_commit[tid];
    previous->left = current;
    last_commit[tid] = current;
    fill_next_address(previous, current);
    if (place_all_flushed(current))
        write_all_before(current, previous);
}

// ---- Events -----------------------------------------------------------------------------------------------------

void Event_Instruction_PreExecution(void *iop)
{
    if (!init)
        return;
    if (!is_thread_paused(Get_Inst_ThreadId(iop)))
        In_Cycle_Mode(iop); // nothing is captured before execution; hosts expect the question all the same
}

void Event_Instruction_Commit(void *iop)
{
    if (!init)
        return;
    const int tid = Get_Inst_ThreadId(iop);
    act_on_commit(tid);
    if (is_thread_paused(tid))
        return;
    Node *current = capture_instruction(tid, iop);
    if (!current)
        return;
    count_instruction(iop);
    if (!current->simple) {
        if (is_cracked_piece(current)) {
            keep_piece(current);
            return;
        }
        if (crack_inst[tid])
            current = fix_crack(current);
    }
    const bool plain = current->simple && !pre_execution[tid];
    drain_pre_execution(current);
    link_instruction(current);
    plain_commit[tid] = plain ? current : nullptr;
}
