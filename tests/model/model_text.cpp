#include "plugin_model.h"
#include "shown_mode_names.h"

#include <cstdarg>
#include <cstdio>

namespace model
{

std::string formatted(const char *format, ...)
{
    char buffer[8192];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return {buffer, static_cast<size_t>(length)};
}

std::string page_sizes(const PAGE_SIZES_USED &p)
{
    std::string words;
    const auto add = [&](boolean used, const char *word) { words += used ? word : ""; };
    add(p.PAGE_4K, "4K ");
    add(p.PAGE_16K, "16K ");
    add(p.PAGE_64K, "64K ");
    add(p.PAGE_128K, "128K ");
    add(p.PAGE_256K, "256K ");
    add(p.PAGE_1M, "1M ");
    add(p.PAGE_2M, "2M ");
    add(p.PAGE_16M, "16M ");
    add(p.PAGE_256M, "256M ");
    add(p.PAGE_1G, "1G ");
    add(p.PAGE_16G, "16G ");
    add(p.PAGE_undefined, "undefined ");
    return words;
}

std::string comment_of(const Node &node)
{
    return formatted("KelvoVer:%d,64bitMode:%s,LEMode:%s,MemUsed:%ld,", static_cast<int>(node.version),
                     node.bit64 ? "True" : "False", node.little_endian ? "True" : "False",
                     static_cast<long>(node.memory)) +
           "HostPagesUsed:" + page_sizes(node.pages) + ",GuestPagesUsed:" + page_sizes(node.guest_pages);
}

namespace
{

// One parenthesised address: "(iar_hRTPDE_L1_RA:0x...)".
std::string item(const char *side, const char *name, uint64_t address)
{
    return formatted("(%s_%s:0x%016lX)", side, name, address);
}

std::string rpn_item(const char *side, const Translation &t)
{
    return formatted("(%s_RPN:0x%08X)", side, t.rpn);
}

std::string host_walk_group(const char *side, const Translation &t)
{
    const int hwdepth = static_cast<uint8_t>(t.host_depth - 1);
    const HostRadixTree &w = t.host_walk[0];
    std::string text = formatted("(%s_Host_RTW_Depth:%d ", side, hwdepth);
    if (hwdepth >= 1 && hwdepth <= 3) {
        text += formatted("(%s_hRTPDE_L1_RA:0x%016lX, ", side, w.RTPDE_ra_l1);
        if (hwdepth >= 2)
            text += formatted("%s_hRTPDE_L2_RA:0x%016lX, ", side, w.RTPDE_ra_l2);
        if (hwdepth >= 3)
            text += formatted("%s_hRTPDE_L3_RA:0x%016lX, ", side, w.RTPDE_ra_l3);
        text += formatted("%s_hRTPTE_RA:0x%016lX) ", side, w.RTPTE_ra);
    }
    return text + ")";
}

// The items of one host walk of `directories` + 1 levels.
std::string walk_items(const char *side, const HostRadixTree &w, int directories)
{
    std::string text = item(side, "hRTPDE_L1_RA", w.RTPDE_ra_l1);
    if (directories >= 2)
        text += item(side, "hRTPDE_L2_RA", w.RTPDE_ra_l2);
    if (directories >= 3)
        text += item(side, "hRTPDE_L3_RA", w.RTPDE_ra_l3);
    const char *const leaf[] = {"", "hRTPTE_L2_RA", "hRTPTE_L3_RA", "hRTPTE_L4_RA"};
    return text + item(side, leaf[directories], w.RTPTE_ra);
}

std::string nested_walk(const char *side, const Translation &t)
{
    if (t.open || !possible_walk(t.guest_depth))
        return std::string(1, ANYTHING);
    const int hwdepth = static_cast<uint8_t>(t.host_depth - 1);
    const GuestRadixTree &g = t.guest_walk;
    std::string text = formatted("(HostPageSize:%d, GuestPageSize:%d) ", t.page, t.guest_page);
    text += formatted("(%s_Guest_RAs: ", side);
    text += formatted("(%s_gRTPDE_L1_RA:0x%016lX %s_gRTPDE_L2_RA:0x%016lX %s_gRTPDE_L3_RA:0x%016lX "
                      "%s_gRTPTE_RA:0x%016lX %s_gRA:0x%016lX) ",
                      side, g.RTPDE_GUEST_ra_l1, side, g.RTPDE_GUEST_ra_l2, side, g.RTPDE_GUEST_ra_l3, side,
                      g.RTPTE_GUEST_ra, side, g.GUEST_ra);
    text += ") ";
    for (int level = 1; level <= t.guest_depth - 1; ++level) {
        text += formatted("(%s_Host_RTWs_Block:%d ", side, level);
        std::string items;
        for (int directories = hwdepth; directories >= 1 && directories <= 3; ++directories)
            items += walk_items(side, t.host_walk[level - 1], directories);
        if (level == 4 && hwdepth == 1 && side == std::string("iar"))
            items.replace(items.find("(iar_hRTPTE_L2_RA"), 17, "(vhRTPTE_L2_RA");
        text += items;
        text += formatted("(%s_hRTW_host_Block%d_RA:0x%016lX)", side, level, t.host_ra[level - 1]);
        text += ")";
    }
    text += formatted("(%s_Host_RTWs_Block:%d ", side, t.guest_depth);
    if (hwdepth >= 1 && hwdepth <= 3)
        text += walk_items(side, t.host_walk[t.guest_depth - 1], hwdepth);
    return text + ")" + rpn_item(side, t);
}

std::string instruction_section(const Translation &t)
{
    if (t.relocated) {
        switch (t.mode) {
        case 11:
            return formatted("(RA:0x%016lX) ", t.ra);
        case 14:
            return formatted("(VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d) ", t.vsid, t.rpn,
                             t.page, t.guest_page);
        case 19:
            return formatted("(VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d) ", t.vsid, t.rpn, t.page);
        case 23:
        case 24:
            return nested_walk("iar", t);
        case 25:
        case 26:
        case 27:
        case 29:
        case 30:
        case 31:
            return formatted("(HostPageSize:%d) ", t.page) + host_walk_group("iar", t) + rpn_item("iar", t);
        default:
            return "";
        }
    }
    if (t.mode == 16)
        return formatted("(VSID:0x%016lX, gRA:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d) ", t.vsid,
                         t.guest_walk.GUEST_ra, t.rpn, t.page, t.guest_page);
    if (t.mode == 24)
        return formatted("(HostPageSize:%d, GuestPageSize:%d) ", t.page, t.guest_page) + host_walk_group("iar", t) +
               formatted("(iar_gRA:0x%016lX)", t.guest_walk.GUEST_ra) + rpn_item("iar", t);
    return "";
}

std::string data_section(const Translation &t)
{
    if (t.open)
        return std::string(1, ANYTHING);
    if (t.relocated) {
        switch (t.mode) {
        case 11:
            return formatted("(data_RA:0x%016lX)", t.ra) + rpn_item("data", t);
        case 14:
        case 16:
            return formatted(", VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d", t.vsid, t.rpn,
                             t.page, t.guest_page);
        case 19:
            return formatted(", VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d", t.vsid, t.rpn, t.page);
        case 23:
        case 24:
            return nested_walk("data", t);
        case 25:
        case 26:
        case 27:
        case 29:
        case 30:
        case 31:
            return formatted("(HostPageSize:%d) ", t.page) + host_walk_group("data", t) + rpn_item("data", t);
        default:
            return "";
        }
    }
    if (t.mode == 16)
        return formatted(", VSID:0x%016lX, gRA:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d", t.vsid,
                         t.guest_walk.GUEST_ra, t.rpn, t.page, t.guest_page);
    if (t.mode == 24)
        return formatted("(HostPageSize:%d, GuestPageSize:%d) ", t.page, t.guest_page) +
               host_walk_group("data", t) + formatted("(data_gRA:0x%016lX) ", t.guest_walk.GUEST_ra) +
               rpn_item("data", t);
    return "";
}

std::string registers(const char *direction, const Plugin_Inst_Registers &r)
{
    std::string text;
    int ordinal = 0;
    const auto narrow = [&](char letter, int num, const int32_t *index, const uint64_t *value) {
        for (int k = 0; k < num; ++k)
            text += formatted("(%s Reg %d(%c%d):0x%016lX) ", direction, ordinal++, letter, index[k], value[k]);
    };
    const auto wide = [&](int num, const int32_t *index, const QuadWord *value) {
        for (int k = 0; k < num; ++k)
            text += formatted("(%s Reg %d(v%d):0x%016lX%016lx) ", direction, ordinal++, index[k], value[k].word[1],
                              value[k].word[0]);
    };
    narrow('r', r.gpr_num, r.gpr_index, r.gpr_value);
    narrow('f', r.fpr_num, r.fpr_index, r.fpr_value);
    narrow('s', r.spr_num, r.spr_index, r.spr_value);
    wide(r.vmx_num, r.vmx_index, r.vmx_value);
    wide(r.vsx_num, r.vsx_index, r.vsx_value);
    return text;
}

std::string branch_item(const Node &n)
{
    if (n.branch == '?')
        return "";
    return n.taken == 'Y' ? "(branch taken) " : n.taken == 'N' ? "(branch untaken) " : "(unknown) ";
}

} // namespace

std::string text_line(const Node &n)
{
    std::string line = formatted("(seq:%ld,tid:%d) ", static_cast<long>(n.seq), n.tid);
    line += formatted("(xlatetype_I:%s) ", shown_mode_name(static_cast<unsigned>(n.fetch.mode)));
    line += formatted("(xlatetype_D:%s) ", shown_mode_name(static_cast<unsigned>(n.data.mode)));
    line +=
        formatted("(pid:%d,lpid:%ld,ptcr:0x%016lX) ", static_cast<int>(n.pid), static_cast<long>(n.lpid), n.ptcr);
    line += formatted("(%s,%s) ", n.kernel ? "KERN" : "USER", n.simple ? "SIMP" : "CYCLE");
    line += formatted("(commit:%d)", n.commit);
    line += formatted("(instbody:0x%08x) ", n.op);
    line += formatted("{name:%s} ", n.name.c_str());
    line += formatted("(I:%d) (N:%d) (T:%d) ", n.I, n.N, n.T);
    line += formatted("(PC:0x%016lX) (nextPC:0x%016lX) ", n.fetch.address, n.next.address);
    if (n.N || n.T)
        line += formatted("(nn:%d) ", n.nn);
    if (n.carries_next())
        line += instruction_section(n.fetch);
    line += n.done ? "(done) " : "(undone) ";
    line += branch_item(n);
    if (n.accesses_data())
        line += formatted("(DEA:0x%016lX", n.data.address) + (n.exception ? "" : data_section(n.data)) + ") ";
    if (n.string && n.string_length != 65535)
        line += formatted("(len:%d) ", n.string_length);
    if (n.terminated_seq != 0)
        line += formatted("(terminated by %ld) ", static_cast<long>(n.terminated_seq));
    line += registers("Input", n.in) + registers("Output", n.out);
    if (n.left)
        line += formatted("(left:%ld) ", static_cast<long>(n.left->seq));
    if (n.right)
        line += formatted("(right:%ld)", static_cast<long>(n.right->seq));
    return line + "\n";
}

void Plugin_Model::write_text(const Node &node)
{
    const Thread &thread = threads[node.tid];
    if (!thread.text)
        return;
    std::string &out = thread.text->contents;
    if (!thread.header_written)
        out += "*** FILE HEADER INSERTED *** \n" + comment_of(node) + "\n";
    if (node.partition_change)
        out += formatted("Partition Change: pid:%d,lpid:%ld)\n", static_cast<int>(node.pid),
                         static_cast<long>(node.lpid));
    out += text_line(node);
    thread.text->flushed = out.size();
}

} // namespace model
