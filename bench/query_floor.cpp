#include "query_floor.h"

#include "address_queries.h"
#include "plugin_qtbin.h"
#include "xlate_modes.h"

namespace
{

// The answers about one address.
struct Address_Record {
    MMUStatus status;
    RDX_XLATE_MODE mode;
    RDX_MODE guest_mode, host_mode;
    uint8_t host_two_level, guest_two_level, host_depth, guest_depth;
    boolean relocated;
    uint64_t ra, vsid;
    uint32_t rpn;
    uint8_t page_size, guest_page_size;
    HostRadixTree host_walk[HOST_WALKS];
    PA host_ra[GUEST_LEVELS];
    PA guest_l1, guest_l2, guest_l3, guest_pte, guest_ra;
};

// All answers about one instruction.
struct Query_Record {
    int tid;
    uint64_t seq, ptcr, lpid, memory, pc, npc, sdr1, data_ea;
    uint32_t pid, version, op;
    boolean cycle_mode, change, bit64, little_endian, filtered, branch, unconditional, taken, load, store, cache,
        ea_valid, exception, string, kernel, vmx, vsx;
    uint16_t string_length;
    PAGE_SIZES_USED pages, guest_pages;
    Plugin_Inst_Registers in, out;
    Address_Record fetch, data;
};

Query_Record record;
uint64_t commits_since_report;

template <ADDRESS_SIDE side> void ask_descriptors(Address_Record &to, void *iop)
{
    to.status = query_mmu_status(side, iop);
    to.mode = query_xlate_type(side, iop);
    to.guest_mode = query_guest_mode(side, iop);
    to.host_mode = query_host_mode(side, iop);
    to.host_two_level = query_host_two_level(side, iop);
    to.guest_two_level = query_guest_two_level(side, iop);
    to.host_depth = query_host_depth(side, iop);
    to.guest_depth = query_guest_depth(side, iop);
}

template <ADDRESS_SIDE side> void ask_hashed_page(Address_Record &to, void *iop)
{
    to.vsid = query_vsid(side, iop);
    to.rpn = query_rpn(side, iop);
    to.page_size = query_page_size(side, iop);
}

template <ADDRESS_SIDE side> void ask_first_walk(Address_Record &to, void *iop)
{
    to.host_walk[0].RTPDE_ra_l1 = query_host_l1(side, iop, 0);
    to.host_walk[0].RTPDE_ra_l2 = query_host_l2(side, iop, 0);
    to.host_walk[0].RTPDE_ra_l3 = query_host_l3(side, iop, 0);
    to.host_walk[0].RTPTE_ra = query_host_pte(side, iop, 0);
    to.host_ra[0] = query_host_ra(side, iop, 0);
}

template <ADDRESS_SIDE side> void ask_host_page(Address_Record &to, void *iop)
{
    to.rpn = query_host_rpn(side, iop);
    to.page_size = query_host_page_size(side, iop);
}

template <ADDRESS_SIDE side> void ask_depths(Address_Record &to, void *iop)
{
    to.host_depth = query_host_depth(side, iop);
    to.guest_depth = query_guest_depth(side, iop);
}

template <ADDRESS_SIDE side> void ask_walk(Address_Record &to, void *iop, int n)
{
    const int levels = to.host_depth >= 2 && to.host_depth <= 4 ? to.host_depth - 1 : 0;
    if (levels >= 1)
        to.host_walk[n].RTPDE_ra_l1 = query_host_l1(side, iop, n);
    if (levels >= 2)
        to.host_walk[n].RTPDE_ra_l2 = query_host_l2(side, iop, n);
    if (levels >= 3)
        to.host_walk[n].RTPDE_ra_l3 = query_host_l3(side, iop, n);
    to.host_walk[n].RTPTE_ra = query_host_pte(side, iop, n);
}

template <ADDRESS_SIDE side> void ask_nested_walk(Address_Record &to, void *iop)
{
    const int last = to.guest_depth - 1;
    for (int n = 0; n < last; ++n) {
        ask_walk<side>(to, iop, n);
        if (n == 0)
            to.guest_l1 = query_guest_l1(side, iop);
        else if (n == 1)
            to.guest_l2 = query_guest_l2(side, iop);
        else if (n == 2)
            to.guest_l3 = query_guest_l3(side, iop);
    }
    to.guest_pte = query_guest_pte(side, iop);
    ask_walk<side>(to, iop, last);
    for (int n = 0; n < last; ++n)
        to.host_ra[n] = query_host_ra(side, iop, n);
}

template <ADDRESS_SIDE side> void ask_two_levels(Address_Record &to, void *iop)
{
    if (!(Is_Mode_Kernel(iop) ? to.relocated : 1))
        return;
    const XLATE_CASE rule = mode_info(record.fetch.mode).rule;
    if (rule == CASE_GUEST_HPT) {
        ask_hashed_page<side>(to, iop);
        to.guest_page_size = query_page_size(side, iop);
    } else if (rule == CASE_GUEST_RADIX) {
        ask_depths<side>(to, iop);
        if (to.guest_depth >= 1 && to.guest_depth <= HOST_WALKS)
            ask_nested_walk<side>(to, iop);
        to.guest_ra = query_guest_ra(side, iop);
        to.rpn = query_guest_rpn(side, iop);
        to.page_size = query_host_page_size(side, iop);
        to.guest_page_size = query_guest_page_size(side, iop);
    }
}

template <ADDRESS_SIDE side> void ask_one_level(Address_Record &to, void *iop)
{
    switch (mode_info(to.mode).rule) {
    case CASE_HOST_REAL:
        to.ra = query_ra(side, iop);
        break;
    case CASE_GUEST_REAL_HPT:
    case CASE_HOST_HPT:
        ask_hashed_page<side>(to, iop);
        break;
    case CASE_GUEST_REAL_RADIX:
        ask_depths<side>(to, iop);
        ask_first_walk<side>(to, iop);
        to.guest_ra = query_guest_ra(side, iop);
        ask_host_page<side>(to, iop);
        break;
    case CASE_HOST_RADIX:
        ask_first_walk<side>(to, iop);
        ask_host_page<side>(to, iop);
        break;
    case CASE_NONE:
    case CASE_GUEST_HPT:
    case CASE_GUEST_RADIX:
        break;
    }
}

template <ADDRESS_SIDE side> void ask_translation(Address_Record &to, void *iop)
{
    if (to.guest_two_level)
        ask_two_levels<side>(to, iop);
    else
        ask_one_level<side>(to, iop);
}

void ask_thread_state(void *iop)
{
    record.seq = Get_Inst_SeqNumber(iop);
    record.cycle_mode = In_Cycle_Mode(iop);
    record.ptcr = Get_Reg_PTCR(iop);
    record.lpid = Get_Reg_LPIDR(iop);
    record.pid = Get_Reg_PIDR(iop);
    record.change = commits_since_report != 0 && (Get_Check_IF_LPID_Change(iop) || Get_Check_IF_PID_Change(iop));
    record.version = Get_Version_Kelvo();
    record.bit64 = Is_Mode_64bit(iop);
    record.little_endian = Is_LE_Mode(iop);
    record.memory = Get_Memory_Total_Size(iop);
    Get_Pages_Used(iop, &record.pages);
    Get_gPages_Used(iop, &record.guest_pages);
}

void ask_operation(void *iop)
{
    if (Is_Inst_Branch(iop)) {
        record.unconditional = Is_Inst_Unconditional_Branch(iop);
        record.taken = Is_Inst_Branch_Taken(iop);
    }
    record.load = Is_Inst_Load(iop);
    record.store = Is_Inst_Store(iop);
    record.cache = Is_Inst_Cache(iop);
    record.ea_valid = Is_Inst_Data_EA_Valid(iop);
    record.exception = Is_Inst_Exception(iop);
}

void ask_data(void *iop)
{
    ask_descriptors<DATA_SIDE>(record.data, iop);
    record.data_ea = Get_Inst_Data_EA(iop);
    record.data.relocated = Is_Data_Relocated(iop);
    if ((record.load || record.store || record.cache) && record.ea_valid)
        ask_translation<DATA_SIDE>(record.data, iop);
}

void ask_registers_and_kind(void *iop)
{
    if (Is_Inst_String(iop))
        record.string_length = Get_String_Length(iop, 1);
    record.kernel = Is_Mode_Kernel(iop);
    Get_Inst_Input_Registers(iop, &record.in);
    Get_Inst_Output_Registers(iop, &record.out);
    record.vmx = Is_Inst_VMX(iop);
    record.vsx = Is_Inst_VSX(iop);
}

} // namespace

void floor_commit(void *iop)
{
    record.tid = Get_Inst_ThreadId(iop);
    ask_thread_state(iop);
    ask_descriptors<FETCH_SIDE>(record.fetch, iop);
    record.op = Is_Inst_SimSupport(iop) ? SIM_SUPPORT_NOP : Get_Inst_Instbody(iop);
    if (Is_Inst_Filtered(iop))
        return;
    record.pc = Get_Inst_PC(iop);
    record.npc = Get_Inst_NPC(iop);
    record.fetch.relocated = Is_Inst_Relocated(iop);
    ask_translation<FETCH_SIDE>(record.fetch, iop);
    record.sdr1 = Get_Inst_SDR1(iop);
    ask_operation(iop);
    ask_data(iop);
    ask_registers_and_kind(iop);
    if (++commits_since_report == SAMPLE_RATE)
        commits_since_report = 0;
}

void floor_start(void)
{
    commits_since_report = 0;
}
