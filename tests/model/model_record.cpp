#include "plugin_model.h"

#include <algorithm>
#include <cstring>

namespace model
{

namespace
{

template <class Value, size_t N> void store(uint8_t (&to)[N], Value value)
{
    static_assert(sizeof value == N);
    std::memcpy(to, &value, N);
}

void store_vsid(QTRACE_VSID &to, uint64_t vsid)
{
    for (int i = 0; i < 7; ++i)
        to[i] = static_cast<uint8_t>(vsid >> (8 * (i + 1)));
}

struct Mode_Pair {
    unsigned guest, host;
};

Mode_Pair mode_pair(int mode)
{
    switch (mode) {
    case 11:
    case 12:
        return {3, 2};
    case 13:
        return {2, 2};
    case 14:
        return {1, 1};
    case 15:
        return {0, 1};
    case 16:
        return {2, 1};
    case 17:
    case 18:
        return {1, 0};
    case 19:
    case 20:
    case 21:
    case 22:
        return {3, 1};
    case 23:
        return {0, 0};
    case 24:
        return {3, 0};
    case 25:
    case 26:
    case 27:
    case 29:
    case 30:
    case 31:
    case 32:
        return {3, 0};
    case 37:
        return {0, 0};
    default:
        return {3, 3};
    }
}

// What an address block may carry, before it goes into a header or a record.
struct Block {
    uint8_t depth = 0, num_level = 0;
    bool has_vsid = false, has_rpn = false, has_page = false, has_guest_page = false;
    uint64_t vsid = 0;
    uint32_t rpn = 0;
    uint8_t page = 0, guest_page = 0;
    QTRACE_RTW walk[5]{};
    QTRACE_RTW_HOST_RA host_ra[4]{};
    QTRACE_RTW_GUEST guest{};
    bool open = false;
};

void store_walk(QTRACE_RTW &to, const HostRadixTree &walk, int directories)
{
    if (directories >= 1)
        store(to.RTPDE_ra_l1, walk.RTPDE_ra_l1);
    if (directories >= 2)
        store(to.RTPDE_ra_l2, walk.RTPDE_ra_l2);
    if (directories >= 3)
        store(to.RTPDE_ra_l3, walk.RTPDE_ra_l3);
    store(to.RTPTE_ra, walk.RTPTE_ra);
}

void store_nested(Block &block, const Translation &t)
{
    if (!possible_walk(t.guest_depth)) {
        block.open = true;
        return;
    }
    const int directories = t.host_depth >= 2 && t.host_depth <= 4 ? t.host_depth - 1 : 0;
    const int last = t.guest_depth - 1;
    for (int k = 0; k < last; ++k) {
        store_walk(block.walk[k], t.host_walk[k], directories);
        store(block.host_ra[k].ra, t.host_ra[k]);
    }
    if (last >= 1)
        store(block.guest.RTPDE_GUEST_ra_l1, t.guest_walk.RTPDE_GUEST_ra_l1);
    if (last >= 2)
        store(block.guest.RTPDE_GUEST_ra_l2, t.guest_walk.RTPDE_GUEST_ra_l2);
    if (last >= 3)
        store(block.guest.RTPDE_GUEST_ra_l3, t.guest_walk.RTPDE_GUEST_ra_l3);
    store(block.guest.RTPTE_GUEST_ra, t.guest_walk.RTPTE_GUEST_ra);
    store(block.guest.GUEST_ra, t.guest_walk.GUEST_ra);
    store_walk(block.walk[last], t.host_walk[last], directories);
}

Block block_of(const Translation &t)
{
    Block block;
    block.num_level = t.host_depth;
    block.depth = t.guest_depth;
    block.open = t.open;
    const auto page = [&] {
        block.has_rpn = block.has_page = true;
        block.rpn = t.rpn;
        block.page = t.page;
    };
    const auto hashed = [&] {
        page();
        block.has_vsid = true;
        block.vsid = t.vsid;
    };
    const auto guest_page = [&] {
        block.has_guest_page = true;
        block.guest_page = t.guest_page;
    };
    if (t.relocated) {
        switch (t.mode) {
        case 14:
            hashed();
            guest_page();
            break;
        case 19:
            hashed();
            break;
        case 23:
            store_nested(block, t);
            page();
            guest_page();
            break;
        case 25:
        case 26:
        case 27:
        case 29:
        case 30:
        case 31:
            store_walk(block.walk[0], t.host_walk[0], 3);
            page();
            break;
        default:
            break;
        }
    } else if (t.mode == 16) {
        hashed();
    } else if (t.mode == 24) {
        block.depth = static_cast<uint8_t>(t.guest_depth + 1);
        store_walk(block.walk[0], t.host_walk[0], 3);
        store(block.guest.GUEST_ra, t.guest_walk.GUEST_ra);
        page();
    }
    return block;
}

template <class Info>
void copy_registers(uint8_t &num, Info *to, int capacity, int count, const int32_t *index, const uint64_t *value)
{
    num = static_cast<uint8_t>(std::clamp(count, 0, capacity));
    for (int i = 0; i < num; ++i) {
        to[i].index = static_cast<uint16_t>(index[i]);
        to[i].value = value[i];
    }
}

template <class Info>
void copy_wide_registers(uint8_t &num, Info *to, int capacity, int count, const int32_t *index,
                         const QuadWord *value)
{
    num = static_cast<uint8_t>(std::clamp(count, 0, capacity));
    for (int i = 0; i < num; ++i) {
        to[i].index = static_cast<uint16_t>(index[i]);
        to[i].value[0] = value[i].word[0];
        to[i].value[1] = value[i].word[1];
    }
}

int registers_in(const Plugin_Inst_Registers &r)
{
    return r.gpr_num + r.fpr_num + r.spr_num + r.vmx_num + r.vsx_num;
}

void set_in(QTRACE_REGISTERS &r, const Plugin_Inst_Registers &in)
{
    copy_registers(r.num_gprs_in, r.gpr_in, 32, in.gpr_num, in.gpr_index, in.gpr_value);
    copy_registers(r.num_fprs_in, r.fpr_in, 3, in.fpr_num, in.fpr_index, in.fpr_value);
    copy_registers(r.num_sprs_in, r.spr_in, 4, in.spr_num, in.spr_index, in.spr_value);
    copy_wide_registers(r.num_vmxrs_in, r.vmxr_in, 3, in.vmx_num, in.vmx_index, in.vmx_value);
    copy_wide_registers(r.num_vsxrs_in, r.vsxr_in, 3, in.vsx_num, in.vsx_index, in.vsx_value);
}

void set_out(QTRACE_REGISTERS &r, const Plugin_Inst_Registers &out)
{
    copy_registers(r.num_gprs_out, r.gpr_out, 32, out.gpr_num, out.gpr_index, out.gpr_value);
    copy_registers(r.num_fprs_out, r.fpr_out, 3, out.fpr_num, out.fpr_index, out.fpr_value);
    copy_registers(r.num_sprs_out, r.spr_out, 4, out.spr_num, out.spr_index, out.spr_value);
    copy_wide_registers(r.num_vmxrs_out, r.vmxr_out, 3, out.vmx_num, out.vmx_index, out.vmx_value);
    copy_wide_registers(r.num_vsxrs_out, r.vsxr_out, 3, out.vsx_num, out.vsx_index, out.vsx_value);
}

void set_registers(QTRACE_RECORD &record, const Node &node)
{
    record.header.control.fld.register_trace_present = registers_in(node.in) + registers_in(node.out) > 0;
    QTRACE_REGISTERS &r = record.regs;
    const Plugin_Inst_Registers &in = node.in, &out = node.out;
    if (registers_in(in) > 0)
        set_in(r, in);
    if (registers_in(out) > 0)
        set_out(r, out);
}

void set_next(QTRACE_RECORD &record, const Node &node, Open_Parts &open)
{
    auto &flags = record.header.control.fld;
    const Block block = block_of(node.next);
    open.next = block.open;
    flags.next_instruction_EA_present = 1;
    flags.next_instruction_VSID_present = block.has_vsid;
    flags.next_instruction_RPN_present = block.has_rpn;
    flags.next_instruction_page_size_present = block.has_page;
    flags.instruction_gpage_size_present = block.has_guest_page;
    store(record.next_instruction_ea, node.next.address);
    store_vsid(record.next_instruction_vsid, block.vsid);
    store(record.next_instruction_rpn, block.rpn);
    record.next_instruction_hRTW_depth = block.depth;
    record.next_instruction_hRTW_num_level = block.num_level;
    record.next_instruction_page_size = block.page;
    record.next_instruction_gpage_size = block.guest_page;
    std::copy(std::begin(block.walk), std::end(block.walk), record.next_instruction_hRTW);
    std::copy(std::begin(block.host_ra), std::end(block.host_ra), record.next_instruction_hRTW_host_RA);
    record.next_instruction_gRTW = block.guest;
}

void set_data(QTRACE_RECORD &record, const Node &node, Open_Parts &open)
{
    auto &flags = record.header.control.fld;
    const Block block = block_of(node.data);
    open.data = block.open;
    flags.data_address_present = 1;
    flags.data_VSID_present = block.has_vsid;
    flags.data_RPN_present = block.has_rpn;
    flags.data_page_size_present = block.has_page;
    flags.data_gpage_size_present = block.has_guest_page;
    store(record.data_ea, node.data.address);
    store_vsid(record.data_vsid, block.vsid);
    store(record.data_rpn, block.rpn);
    record.data_hRTW_depth = block.depth;
    record.data_hRTW_num_level = block.num_level;
    record.data_page_size = block.page;
    record.data_gpage_size = block.guest_page;
    std::copy(std::begin(block.walk), std::end(block.walk), record.data_hRTW);
    std::copy(std::begin(block.host_ra), std::end(block.host_ra), record.data_hRTW_host_RA);
    record.data_gRTW = block.guest;
    if (node.data_status != MMU_SUCCESS) {
        flags.trace_error_code_present = 1;
        record.error_code = 8;
    }
}

void set_run(QTRACE_RECORD &record, const Node &node)
{
    auto &flags = record.header.control.fld;
    flags.iar_change_present = node.I;
    flags.node_present = node.I || node.N;
    if (node.I || node.N)
        record.node = node.nn;
    flags.termination_present = node.T;
    if (node.T) {
        record.termination_node = node.nn;
        record.termination_code = node.branch == 'U' ? 8 : 64;
    }
}

} // namespace

Written_Header first_header(const Node &node, Open_Parts &open)
{
    Written_Header written;
    QTRACE_FILE_HDR &h = written.header;
    auto &flags = h.sec_ext_controlword.control.fld;
    const Mode_Pair pair = mode_pair(node.fetch.mode);
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = pair.guest & 3;
    flags.host_xlate_mode_instruction = pair.host & 3;
    flags.ptcr_is_present = flags.lpid_is_present = flags.pid_is_present = 1;
    store(h.ptcr, node.ptcr);
    store(h.lpid, node.lpid);
    store(h.pid, node.pid);

    const Block block = block_of(node.fetch);
    open.iar = block.open;
    h.control.iar_is_present = 1;
    h.control.iar_vsid_is_present = block.has_vsid;
    h.control.iar_rpn_is_present = block.has_rpn;
    h.control.iar_page_size_is_present = block.has_page;
    h.control.iar_gpage_size_is_present = block.has_guest_page;
    store(h.iar, node.fetch.address);
    store_vsid(h.iar_vsid, block.vsid);
    store(h.iar_rpn, block.rpn);
    h.iar_hRTW_depth = block.depth;
    h.iar_hRTW_num_level = block.num_level;
    h.iar_page_size = block.page;
    h.iar_gpage_size = block.guest_page;
    std::copy(std::begin(block.walk), std::end(block.walk), h.iar_hRTW);
    std::copy(std::begin(block.host_ra), std::end(block.host_ra), h.iar_hRTW_host_RA);
    h.iar_gRTW = block.guest;

    h.control.sdr1_is_present = node.sdr1 != 0;
    store(h.sdr1, node.sdr1);
    h.control.version_number_present = 1;
    h.control.comment_present = 1;
    written.comment = comment_of(node);
    h.comment_length = static_cast<uint16_t>(written.comment.size());
    return written;
}

Written_Header partition_header(const Node &node)
{
    Written_Header written;
    auto &flags = written.header.sec_ext_controlword.control.fld;
    flags.lpid_is_present = flags.pid_is_present = 1;
    store(written.header.lpid, node.lpid);
    store(written.header.pid, node.pid);
    return written;
}

QTRACE_RECORD record_of(const Node &node, Open_Parts &open)
{
    auto record = blank<QTRACE_RECORD>();
    auto &flags = record.header.control.fld;
    record.header.instruction = node.op;
    set_run(record, node);
    const Mode_Pair next = mode_pair(node.next.mode), data = mode_pair(node.data.mode);
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = next.guest & 3;
    flags.host_xlate_mode_instruction = next.host & 3;
    flags.guest_xlate_mode_data = data.guest & 3;
    flags.host_xlate_mode_data = data.host & 3;
    if (node.carries_next())
        set_next(record, node, open);
    set_registers(record, node);
    if (node.accesses_data())
        set_data(record, node, open);
    if (node.string && node.string_length != 0xFFFF) {
        flags.length_present = 1;
        record.length = node.string_length;
    }
    return record;
}

bool Plugin_Model::write_header(int tid, Written_Header header, Open_Parts open, const char *complaint)
{
    Outcome outcome{.kind = Outcome::Kind::header, .file = threads[tid].file};
    outcome.failed = failures[Writer_Operation::header].due();
    if (!outcome.failed) {
        outcome.header = std::move(header);
        outcome.open = open;
    }
    const bool failed = outcome.failed;
    outcomes.push_back(std::move(outcome));
    if (failed)
        warn(complaint);
    return !failed;
}

void Plugin_Model::write_binary(const Node &node)
{
    Thread &thread = threads[node.tid];
    bool after_header = false;
    if (!thread.header_written) {
        Open_Parts open;
        if (!write_header(node.tid, first_header(node, open), open, "Cannot write qtrace file hdr"))
            return;
        thread.header_written = after_header = true;
    }
    if (node.partition_change && !write_header(node.tid, partition_header(node), {},
                                               "Attempted to write qtrace file hdr to update lpid and pid."))
        return;
    Outcome outcome{.kind = Outcome::Kind::record, .file = thread.file};
    outcome.failed = failures[Writer_Operation::record].due();
    if (!outcome.failed) {
        outcome.record = record_of(node, outcome.open);
        outcome.record.header.control.fld.processor_present = after_header;
        outcome.record.processor = after_header ? static_cast<uint8_t>(node.tid) : 0;
    }
    const bool failed = outcome.failed;
    outcomes.push_back(std::move(outcome));
    if (failed)
        warn("QTRACE_WriteRecord fail");
}

} // namespace model
