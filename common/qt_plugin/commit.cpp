#include "commit.h"

#include "capture.h"
#include "clear_members.h"
#include "inline_body.h"
#include "ordering.h"
#include "register_classes.h"
#include "xlate_modes.h"

#include <algorithm>
#include <string.h>

// ---- A captured node, all zero again ----------------------------------------------------------------------------

// The first host walk and its result; with `nested` all of them.
INLINE_BODY void clear_host_walks(const Xlate_Fields &x, bool nested)
{
    if (nested) {
        clear_bytes<sizeof x.hRTW>(x.hRTW);
        clear_bytes<sizeof x.hRTW_host_RA>(x.hRTW_host_RA);
    } else {
        clear_bytes<sizeof x.hRTW[0]>(x.hRTW);
        clear_bytes<sizeof x.hRTW_host_RA[0]>(x.hRTW_host_RA);
    }
}

INLINE_BODY void clear_registers(Plugin_Inst_Registers &registers)
{
    for_each_used_class(
        [](auto used) {
            const int32_t filled = std::min<int32_t>(used.num, used.capacity);
            for (int32_t i = 0; i < filled; ++i) {
                used.index[i] = 0;
                used.value[i] = {};
            }
            used.num = 0;
        },
        registers, register_classes(registers));
}

// Makes a node all zero again that nothing but capture, this file and the tree's flags have written to. A node has 2.6
// kilobytes, most of them for guest walks and registers that hardly an instruction has: only what can have been
// used is cleared. Whoever makes capture fill another member must clear it here; the unit tests compare.
WIDE_STORES static void clear_captured(Node *p)
{
    First_OP_Info &info = p->info;
    // only a guest's walk of some depth has host walks besides the first
    const bool nested = p->pc_guest_walkdepth | p->nextPC_guest_walkdepth | p->data_guest_walkdepth;
    clear_host_walks(pc_fields(p), nested);
    clear_host_walks(next_pc_fields(p), nested);
    clear_host_walks(data_fields(p), nested);
    CLEAR_MEMBERS(Node, p, proc_index, PC_hRTW);
    CLEAR_MEMBERS(Node, p, PC_gRTW, nextPC_hRTW);
    CLEAR_MEMBERS(Node, p, nextPC_gRTW, reg_in);
    clear_registers(p->reg_in);
    clear_registers(p->reg_out);
    CLEAR_MEMBERS(Node, p, done, info.name);
    if (qfile_in_text)
        clear_bytes<sizeof info.name>(info.name);
    CLEAR_MEMBERS(Node, p, info.branch, info.data_hRTW);
    clear_bytes<sizeof *p - offsetof(Node, info.data_gRTW)>(&info.data_gRTW);
}

INLINE_BODY void count_instruction(void *iop)
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
template <class Class, class Piece> static void merge_class(Class to, Piece piece)
{
    to.num = std::clamp<int32_t>(to.num, 0, to.capacity);
    for (int i = 0; i < std::min<int32_t>(piece.num, piece.capacity); ++i) {
        const auto place = static_cast<int32_t>(std::find(to.index, to.index + to.num, piece.index[i]) - to.index);
        if (place == to.capacity)
            continue;
        to.index[place] = piece.index[i];
        to.value[place] = piece.value[i];
        to.num = std::max(to.num, place + 1);
    }
}

static void merge_registers(Plugin_Inst_Registers &to, const Plugin_Inst_Registers &micro_op)
{
    for_each_class([](auto whole, auto piece) { merge_class(whole, piece); }, register_classes(to),
                   register_classes(micro_op));
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

// What one commit in cycle mode completes: an instruction, or null while a cracked one has more micro-ops to come.
SELDOM Node *join_micro_ops(Node *p)
{
    if (is_cracked_piece(p)) {
        keep_piece(p);
        return nullptr;
    }
    return crack_inst[p->proc_index] ? fix_crack(p) : p;
}

// ---- Into the tree ----------------------------------------------------------------------------------------------

SELDOM void drain_pre_execution(Node *&waiting, Node *current)
{
    while (waiting && waiting->seq <= current->seq) {
        Node *first = waiting;
        if (first->seq == current->seq)
            current->reg_in = first->reg_in;
        waiting = first->left;
        free_node(first);
    }
}

SELDOM void take_flushed(int tid)
{
    if (insert_to_list(flush_list[tid], flush[tid]))
        flush[tid] = nullptr;
}

// What one node knows about its address into what the node before it says about its next address. Walks that the
// case does not use are zero on both sides.
INLINE_BODY void copy_translation(const Xlate_Fields &to, const Xlate_Fields &from)
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

// Hangs one flushed node into the tree from `start` on, or frees it with what hangs from it. Returns where the next
// search starts.
static Node *place_flushed(Node *start, Node *flushed)
{
    if (Node *placed = insert_right_or_below(start, flushed))
        return placed;
    del_tree(flushed);
    return start;
}

// Returns 0 when a flushed instruction is still ahead of `current`: then nothing may be written yet.
SELDOM boolean place_all_flushed(List *list, Node *start, const Node *current)
{
    while (!is_list_empty(list)) {
        if (list->list[0]->seq > current->seq)
            return 0;
        start = place_flushed(start, remove_from_list(list));
    }
    return 1;
}

// Writes and frees the tree from `first` up to `previous`, the node before the newest one. `plain` is the node that can
// be cleared member by member, if there is one.
static void write_all_before(Node *first, Node *previous, const Node *plain)
{
    dump_tree_right(first);
    previous->left = nullptr;
    if (first == previous && first == plain && !first->right) {
        clear_captured(first);
        free_clear_node(first);
    } else {
        del_tree(first);
    }
}

static void link_instruction(int tid, Node *current)
{
    Node *first = root[tid];
    Node *previous = last_commit[tid];
    last_commit[tid] = current;
    if (!first) {
        root[tid] = current;
        return;
    }
    if (flush[tid])
        take_flushed(tid);
    previous->left = current;
    fill_next_address(previous, current);
    if (!is_list_empty(flush_list[tid]) && !place_all_flushed(flush_list[tid], first, current))
        return;
    write_all_before(first, previous, plain_commit[tid]);
    root[tid] = current;
}

// ---- Events -----------------------------------------------------------------------------------------------------

void Event_Instruction_PreExecution(void *iop)
{
    if (!init)
        return;
    ASSERT_PAUSED_TABLE();
    if (!is_thread_paused(Get_Inst_ThreadId(iop)))
        In_Cycle_Mode(iop); // nothing is captured before execution; hosts expect the question all the same
}

// Whether the thread's instructions are captured; a deferred action is carried out first. Nearly always there is none
// and the thread is not paused. The two calls assert what this test does not find.
INLINE_BODY bool is_collected(int tid)
{
    if (commit_action && paused && tid < hardware_threads() && !commit_action[tid] && !paused[tid])
        return true;
    act_on_commit(tid);
    return !is_thread_paused(tid);
}

void Event_Instruction_Commit(void *iop)
{
    if (!init)
        return;
    const int tid = Get_Inst_ThreadId(iop);
    if (!is_collected(tid))
        return;
    Node *current = capture_instruction(tid, iop);
    if (!current)
        return;
    count_instruction(iop);
    if (!current->simple) {
        current = join_micro_ops(current);
        if (!current)
            return;
    }
    const bool plain = current->simple && !pre_execution[tid];
    if (!plain)
        drain_pre_execution(pre_execution[tid], current);
    link_instruction(tid, current);
    plain_commit[tid] = plain ? current : nullptr;
}
