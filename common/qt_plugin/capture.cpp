#include "capture.h"

#include "address_queries.h"
#include "inline_body.h"
#include "ordering.h"
#include "xlate_modes.h"

#include <string.h>

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

// Each table access of the guest with the host walk that translates it, then the final one.
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

#define CAPTURE_WRAPPERS(rule)                                                                                     \
    void iop_helper_pc_##rule(Node *p, void *iop)                                                                  \
    {                                                                                                              \
        capture_##rule(FETCH_SIDE, pc_fields(p), iop);                                                             \
    }                                                                                                              \
    void iop_helper_pcdata_##rule(Node *p, void *iop)                                                              \
    {                                                                                                              \
        capture_##rule(DATA_SIDE, data_fields(p), iop);                                                            \
    }

CAPTURE_WRAPPERS(host_real)
CAPTURE_WRAPPERS(host_hpt)
CAPTURE_WRAPPERS(guest_hpt)
CAPTURE_WRAPPERS(guest_real_host_hpt)
CAPTURE_WRAPPERS(host_radix)
CAPTURE_WRAPPERS(guest_real_host_radix)
CAPTURE_WRAPPERS(guest_radix)

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

// The node of a filtered instruction is neither linked nor freed: it is given up on purpose, and known to leak checks
// by this function's name.
Node *capture_instruction(int tid, void *iop)
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
