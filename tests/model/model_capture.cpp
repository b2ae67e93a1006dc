#include "plugin_model.h"

#include <algorithm>

namespace model
{

namespace
{

void clear_walks(Translation &t)
{
    t.host_walk = {};
    t.host_ra = {};
    t.guest_walk = {};
}

// The directory entries that a host walk of that depth has, and its page-table entry.
HostRadixTree by_depth(const HostRadixTree &walk, uint8_t host_depth)
{
    HostRadixTree kept{};
    const bool has_directory = host_depth >= 2 && host_depth <= 4;
    if (has_directory)
        kept.RTPDE_ra_l1 = walk.RTPDE_ra_l1;
    if (has_directory && host_depth >= 3)
        kept.RTPDE_ra_l2 = walk.RTPDE_ra_l2;
    if (has_directory && host_depth >= 4)
        kept.RTPDE_ra_l3 = walk.RTPDE_ra_l3;
    kept.RTPTE_ra = walk.RTPTE_ra;
    return kept;
}

// The entries of a guest's walk and of the host walks after it that the depths say are there.
template <class Walks, class Real_Addresses>
void copy_nested_walk(Translation &to, const Walks &host_walk, const Real_Addresses &host_ra,
                      const GuestRadixTree &guest, uint8_t host_depth, uint8_t guest_depth)
{
    clear_walks(to);
    for (int level = 1; level < guest_depth; ++level) {
        to.host_walk[level - 1] = by_depth(host_walk[level - 1], host_depth);
        to.host_ra[level - 1] = host_ra[level - 1];
        if (level == 1)
            to.guest_walk.RTPDE_GUEST_ra_l1 = guest.RTPDE_GUEST_ra_l1;
        if (level == 2)
            to.guest_walk.RTPDE_GUEST_ra_l2 = guest.RTPDE_GUEST_ra_l2;
        if (level == 3)
            to.guest_walk.RTPDE_GUEST_ra_l3 = guest.RTPDE_GUEST_ra_l3;
    }
    to.host_walk[guest_depth - 1] = by_depth(host_walk[guest_depth - 1], host_depth);
    to.guest_walk.RTPTE_GUEST_ra = guest.RTPTE_GUEST_ra;
    to.guest_walk.GUEST_ra = guest.GUEST_ra;
}

void capture_hashed(Translation &to, const replay::Address_Answers &a)
{
    to.vsid = a.vsid;
    to.rpn = a.rpn;
    to.page = a.page_size;
}

void capture_host_walk(Translation &to, const replay::Address_Answers &a)
{
    to.host_walk[0] = a.host_walk[0];
    to.host_ra[0] = a.host_ra[0];
    to.rpn = a.host_rpn;
    to.page = a.host_page_size;
}

void capture_nested(Translation &to, const replay::Address_Answers &a)
{
    if (!possible_walk(a.guest_depth)) {
        to.open = true;
        return;
    }
    copy_nested_walk(to, a.host_walk, a.host_ra, a.guest_walk, a.host_depth, a.guest_depth);
    to.rpn = a.guest_rpn;
    to.page = a.host_page_size;
    to.guest_page = a.guest_page_size;
}

void capture_one_level(Translation &to, const replay::Address_Answers &a)
{
    switch (static_cast<int>(a.mode)) {
    case 11:
        to.ra = a.ra & 0xFFFFFFFF;
        break;
    case 16:
        capture_hashed(to, a);
        break;
    case 19:
        to.relocated = true;
        capture_hashed(to, a);
        break;
    case 24:
        clear_walks(to);
        capture_host_walk(to, a);
        to.guest_walk.GUEST_ra = a.guest_walk.GUEST_ra;
        break;
    case 25:
    case 26:
    case 27:
    case 29:
    case 30:
    case 31:
        to.relocated = true;
        capture_host_walk(to, a);
        break;
    default:
        break;
    }
}

void capture_two_levels(Translation &to, const replay::Address_Answers &a, bool kernel, int guest_mode)
{
    to.relocated = kernel ? a.relocated : true;
    if (!to.relocated)
        return;
    if (guest_mode == 14) {
        capture_hashed(to, a);
        to.guest_page = a.page_size;
    }
    if (guest_mode == 23)
        capture_nested(to, a);
}

} // namespace

void capture_translation(Translation &to, const replay::Address_Answers &answers, bool kernel, int guest_mode)
{
    if (answers.guest_two_level == 0)
        capture_one_level(to, answers);
    else
        capture_two_levels(to, answers, kernel, guest_mode);
}

void fill_next(Translation &next, const Translation &fetch)
{
    next.address = fetch.address;
    next.relocated = fetch.relocated;
    next.mode = fetch.mode;
    next.host_depth = fetch.host_depth;
    next.guest_depth = fetch.guest_depth;
    next.open = fetch.open;
    const auto copy_page = [&] {
        next.rpn = fetch.rpn;
        next.page = fetch.page;
    };
    if (fetch.relocated) {
        switch (fetch.mode) {
        case 11:
            next.ra = fetch.ra;
            break;
        case 14:
            next.vsid = fetch.vsid;
            copy_page();
            next.guest_page = fetch.guest_page;
            break;
        case 19:
            next.vsid = fetch.vsid;
            copy_page();
            break;
        case 23:
            if (!possible_walk(fetch.guest_depth)) {
                next.open = true;
                break;
            }
            copy_nested_walk(next, fetch.host_walk, fetch.host_ra, fetch.guest_walk, fetch.host_depth,
                             fetch.guest_depth);
            copy_page();
            next.guest_page = fetch.guest_page;
            break;
        case 25:
        case 26:
        case 27:
        case 29:
        case 30:
        case 31:
            next.host_walk[0] = fetch.host_walk[0];
            next.host_ra[0] = fetch.host_ra[0];
            copy_page();
            break;
        default:
            break;
        }
        return;
    }
    if (fetch.mode == 16) {
        next.vsid = fetch.vsid;
        copy_page();
        next.guest_page = 0;
    }
    if (fetch.mode == 24) {
        clear_walks(next);
        next.host_walk[0] = fetch.host_walk[0];
        next.host_ra[0] = fetch.host_ra[0];
        next.guest_walk.GUEST_ra = fetch.guest_walk.GUEST_ra;
        copy_page();
        next.guest_page = 0;
    }
}

namespace
{

template <class Value>
void merge_class(int32_t &into_num, int32_t *into_index, Value *into_value, int capacity, int32_t from_num,
                 const int32_t *from_index, const Value *from_value)
{
    into_num = std::max(into_num, 0);
    for (int i = 0; i < from_num; ++i) {
        int32_t *end = into_index + into_num;
        int32_t *at = std::find(into_index, end, from_index[i]);
        if (at == end && into_num == capacity)
            continue;
        if (at == end)
            ++into_num;
        *at = from_index[i];
        into_value[at - into_index] = from_value[i];
    }
}

} // namespace

void merge_registers(Plugin_Inst_Registers &into, const Plugin_Inst_Registers &from)
{
    merge_class(into.gpr_num, into.gpr_index, into.gpr_value, 32, from.gpr_num, from.gpr_index, from.gpr_value);
    merge_class(into.fpr_num, into.fpr_index, into.fpr_value, 4, from.fpr_num, from.fpr_index, from.fpr_value);
    merge_class(into.spr_num, into.spr_index, into.spr_value, 6, from.spr_num, from.spr_index, from.spr_value);
    merge_class(into.vmx_num, into.vmx_index, into.vmx_value, 4, from.vmx_num, from.vmx_index, from.vmx_value);
    merge_class(into.vsx_num, into.vsx_index, into.vsx_value, 4, from.vsx_num, from.vsx_index, from.vsx_value);
}

namespace
{

// What the host hands out of a set of registers: counts, and that many entries.
template <class Value>
void hand_out(int32_t num, const int32_t *index, const Value *value, int32_t &to_num, int32_t *to_index,
              Value *to_value)
{
    to_num = num;
    std::copy_n(index, num, to_index);
    std::copy_n(value, num, to_value);
}

Plugin_Inst_Registers handed_out(const Plugin_Inst_Registers &r)
{
    Plugin_Inst_Registers out{};
    hand_out(r.gpr_num, r.gpr_index, r.gpr_value, out.gpr_num, out.gpr_index, out.gpr_value);
    hand_out(r.fpr_num, r.fpr_index, r.fpr_value, out.fpr_num, out.fpr_index, out.fpr_value);
    hand_out(r.spr_num, r.spr_index, r.spr_value, out.spr_num, out.spr_index, out.spr_value);
    hand_out(r.vmx_num, r.vmx_index, r.vmx_value, out.vmx_num, out.vmx_index, out.vmx_value);
    hand_out(r.vsx_num, r.vsx_index, r.vsx_value, out.vsx_num, out.vsx_index, out.vsx_value);
    return out;
}

} // namespace

bool Plugin_Model::partition_changed(Thread &thread)
{
    if (instructions == 0)
        return false;
    const bool lpid_changed = thread.context.lpid != thread.lpid_told.value_or(thread.first_lpid);
    thread.lpid_told = thread.context.lpid;
    if (lpid_changed)
        return true;
    const bool pid_changed = thread.context.pid != thread.pid_told.value_or(thread.first_pid);
    thread.pid_told = thread.context.pid;
    return pid_changed;
}

std::unique_ptr<Node> Plugin_Model::capture(const replay::Instruction &i)
{
    Thread &thread = threads[i.tid];
    const replay::Thread_Context &c = thread.context;
    auto node = std::make_unique<Node>();
    node->tid = i.tid;
    node->seq = i.seq;
    node->simple = !c.cycle_mode;
    node->ptcr = c.ptcr;
    node->lpid = c.lpid;
    node->pid = c.pid;
    node->partition_change = partition_changed(thread);
    if (i.filtered)
        return nullptr;
    node->version = machine.version;
    node->memory = machine.memory;
    node->bit64 = c.bit64;
    node->little_endian = c.little_endian;
    node->kernel = c.kernel;
    node->pages = c.pages;
    node->guest_pages = c.guest_pages;
    node->sdr1 = c.sdr1;
    node->op = i.sim_support ? 0x7EB5AB78 : i.op;
    node->done = node->commit = true;

    node->fetch.address = i.pc;
    node->fetch.mode = static_cast<int>(i.fetch.mode);
    node->fetch.host_depth = i.fetch.host_depth;
    node->fetch.guest_depth = i.fetch.guest_depth;
    capture_translation(node->fetch, i.fetch, c.kernel, node->fetch.mode);
    node->next.address = i.npc;

    node->branch = !i.branch ? '?' : i.unconditional ? 'U' : 'C';
    node->taken = !i.branch ? '?' : i.taken ? 'Y' : 'N';
    node->load = i.load;
    node->store = i.store;
    node->cache = i.cache;
    node->exception = i.exception;
    node->ea_valid = i.ea_valid;
    node->data.address = i.ea;
    node->data_status = i.data.status;
    node->data.mode = static_cast<int>(i.data.mode);
    node->data.host_depth = i.data.host_depth;
    node->data.guest_depth = i.data.guest_depth;
    if (node->accesses_data())
        capture_translation(node->data, i.data, c.kernel, node->fetch.mode);

    node->string = i.string;
    if (i.string)
        node->string_length = i.string_length;
    node->in = handed_out(i.in);
    node->out = handed_out(i.out);
    if (has_text)
        node->name = i.text.substr(0, 63);
    return node;
}

void Plugin_Model::count(const replay::Instruction &instruction)
{
    if (instruction.vmx) {
        ++vmx;
        ++total_vmx;
    }
    if (instruction.vsx) {
        ++vsx;
        ++total_vsx;
    }
    ++instructions;
    ++total;
    if (instructions == 262144)
        report();
}

// Gives back the instruction to go on with, or null while pieces are still to come.
std::unique_ptr<Node> Plugin_Model::crack(Thread &thread, std::unique_ptr<Node> node)
{
    const bool is_piece = node->branch == '?' && node->fetch.address == node->next.address;
    if (!is_piece && thread.pieces.empty())
        return node;
    const uint64_t next_address = node->next.address;
    auto &pieces = thread.pieces;
    const auto at = std::find_if(pieces.begin(), pieces.end(), [&](const auto &p) { return p->seq >= node->seq; });
    if (at != pieces.end() && (*at)->seq == node->seq)
        warn("insert_left(): Duplicated seq found!");
    else
        pieces.insert(at, std::move(node));
    if (is_piece)
        return nullptr;
    std::unique_ptr<Node> whole = std::move(pieces.front());
    whole->next.address = next_address;
    for (size_t i = 1; i < pieces.size(); ++i)
        merge_registers(whole->out, pieces[i]->out);
    pieces.clear();
    return whole;
}

void Plugin_Model::commit(const replay::Instruction &i, uint64_t ticks)
{
    raw_time += ticks;
    if (!init)
        return;
    Thread &thread = threads[i.tid];
    perform(i.tid, thread.deferred);
    if (thread.paused)
        return;
    std::unique_ptr<Node> node = capture(i);
    if (!node)
        return;
    count(i);
    if (!node->simple)
        node = crack(thread, std::move(node));
    if (!node)
        return;
    auto &seen = thread.pre_executed;
    while (!seen.empty() && seen.front().seq <= node->seq) {
        if (seen.front().seq == node->seq) {
            node->in = {};
            node->in.gpr_num = 1;
            node->in.gpr_index[0] = seen.front().gpr;
            node->in.gpr_value[0] = seen.front().value;
        }
        seen.erase(seen.begin());
    }
    if (!thread.root) {
        thread.last = node.get();
        thread.root = std::move(node);
        return;
    }
    if (thread.flush_slot)
        put_flushed_into_list(thread, std::move(thread.flush_slot));
    Node *previous = thread.last;
    previous->left = std::move(node);
    Node *current = thread.last = previous->left.get();
    if (current->fetch.address != previous->fetch.address + 4 || previous->taken == 'Y') {
        previous->I = true;
        fill_next(previous->next, current->fetch);
    }
    if (place_flushed(thread, *current))
        write_batch(thread, previous);
}

} // namespace model
