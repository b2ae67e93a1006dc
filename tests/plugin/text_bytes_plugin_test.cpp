// Random nodes, formatted here with snprintf from the formats that readers of the text trace know, and by the
// plugin: the bytes must be the same. This writer is plain and slow on purpose and shares nothing with the
// plugin's.
#include "shown_mode_names.h"
#include "text_streams.h"

#include "text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <random>

namespace
{

// ---- the reference -------------------------------------------------------------------------------------------

class Reference
{
public:
    explicit Reference(const Node &node) : p(node) {}

    std::string text(bool header_written)
    {
        if (!header_written)
            header();
        if (p.partition_change)
            put("Partition Change: pid:%d,lpid:%ld)\n", p.pid, p.lpid);
        record();
        return std::move(out);
    }

private:
    const Node &p;
    std::string out;

    void put(const char *format, ...)
    {
        char buffer[512];
        va_list arguments;
        va_start(arguments, format);
        const int length = vsnprintf(buffer, sizeof buffer, format, arguments);
        va_end(arguments);
        ASSERT_LT(static_cast<size_t>(length), sizeof buffer);
        out.append(buffer, static_cast<size_t>(length));
    }

    static std::string page_words(const PAGE_SIZES_USED &pages)
    {
        std::string words;
        words += pages.PAGE_4K ? "4K " : "";
        words += pages.PAGE_16K ? "16K " : "";
        words += pages.PAGE_64K ? "64K " : "";
        words += pages.PAGE_128K ? "128K " : "";
        words += pages.PAGE_256K ? "256K " : "";
        words += pages.PAGE_1M ? "1M " : "";
        words += pages.PAGE_2M ? "2M " : "";
        words += pages.PAGE_16M ? "16M " : "";
        words += pages.PAGE_256M ? "256M " : "";
        words += pages.PAGE_1G ? "1G " : "";
        words += pages.PAGE_16G ? "16G " : "";
        words += pages.PAGE_undefined ? "undefined " : "";
        return words;
    }

    void header()
    {
        put("*** FILE HEADER INSERTED *** \n");
        put("KelvoVer:%d,", p.kelvo_ver);
        put("64bitMode:%s,LEMode:%s,", p.bitmode64 ? "True" : "False", p.littleendian ? "True" : "False");
        put("MemUsed:%ld,", p.memused);
        put("HostPagesUsed:%s,", page_words(p.pages_used).c_str());
        put("GuestPagesUsed:%s\n", page_words(p.gpages_used).c_str());
    }

    void record()
    {
        put("(seq:%ld,tid:%d) ", p.seq, p.proc_index);
        put("(xlatetype_I:%s) ", shown_mode_name(p.pc_radix_type));
        put("(xlatetype_D:%s) ", shown_mode_name(p.data_radix_type));
        put("(pid:%d,lpid:%ld,ptcr:0x%016lX) ", p.pid, p.lpid, p.ptcr);
        put("(%s,%s) ", p.info.kernel ? "KERN" : "USER", p.simple ? "SIMP" : "CYCLE");
        put("(commit:%d)", p.commit);
        put("(instbody:0x%08x) ", p.info.instbody);
        put("{name:%s} ", p.info.name);
        put("(I:%d) ", p.I);
        put("(N:%d) ", p.N);
        put("(T:%d) ", p.T);
        put("(PC:0x%016lX) ", p.PC);
        put("(nextPC:0x%016lX) ", p.nextPC);
        if (p.N || p.T)
            put("(nn:%d) ", p.nn);
        if (p.I || (p.N && !p.T))
            instruction_section();
        put(p.done ? "(done) " : "(undone) ");
        if (p.info.branch != '?')
            put(p.info.taken == 'Y' ? "(branch taken) " : p.info.taken == 'N' ? "(branch untaken) " : "(unknown) ");
        if ((p.info.load || p.info.store || p.info.cache) && p.info.data_addr_valid) {
            put("(DEA:0x%016lX", p.info.data_addr);
            if (!p.info.except)
                data_section();
            put(") ");
        }
        if (p.info.string && p.info.str_len != 65535)
            put("(len:%d) ", p.info.str_len);
        if (p.terminated_seq)
            put("(terminated by %ld) ", p.terminated_seq);
        else if (p.T && p.terminated_by)
            put("(terminated by %ld) ", p.terminated_by->seq);
        registers("Input", p.reg_in);
        registers("Output", p.reg_out);
        if (p.left)
            put("(left:%ld) ", p.left->seq);
        if (p.right)
            put("(right:%ld)\n", p.right->seq);
        else
            put("\n");
    }

    void registers(const char *side, const Plugin_Inst_Registers &r)
    {
        int n = 0;
        for (int i = 0; i < std::min(r.gpr_num, MAX_GPRS); ++i)
            put("(%s Reg %d(r%d):0x%016lX) ", side, n++, r.gpr_index[i], r.gpr_value[i]);
        for (int i = 0; i < std::min(r.fpr_num, MAX_FPRS); ++i)
            put("(%s Reg %d(f%d):0x%016lX) ", side, n++, r.fpr_index[i], r.fpr_value[i]);
        for (int i = 0; i < std::min(r.spr_num, MAX_SPRS); ++i)
            put("(%s Reg %d(s%d):0x%016lX) ", side, n++, r.spr_index[i], r.spr_value[i]);
        for (int i = 0; i < std::min(r.vmx_num, MAX_VMXRS); ++i)
            put("(%s Reg %d(v%d):0x%016lX%016lx) ", side, n++, r.vmx_index[i], r.vmx_value[i].word[1],
                r.vmx_value[i].word[0]);
        for (int i = 0; i < std::min(r.vsx_num, MAX_VSXRS); ++i)
            put("(%s Reg %d(v%d):0x%016lX%016lx) ", side, n++, r.vsx_index[i], r.vsx_value[i].word[1],
                r.vsx_value[i].word[0]);
    }

    void instruction_section()
    {
        const unsigned mode = p.pc_radix_type;
        if (!p.PC_relocation) {
            if (mode == 16)
                put("(VSID:0x%016lX, gRA:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d) ", p.PC_VSID,
                    p.PC_gRTW.GUEST_ra, p.PC_RPN, p.PC_pagesize, p.PC_gpagesize);
            if (mode == 24) {
                put("(HostPageSize:%d, GuestPageSize:%d) ", p.PC_pagesize, p.PC_gpagesize);
                host_walk("iar", p.pc_host_walkdepth, p.PC_hRTW[0]);
                put("(iar_gRA:0x%016lX)", p.PC_gRTW.GUEST_ra);
                put("(iar_RPN:0x%08X)", p.PC_RPN);
            }
            return;
        }
        switch (mode) {
        case 11:
            put("(RA:0x%016lX) ", p.PC_RA);
            break;
        case 14:
            put("(VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d) ", p.PC_VSID, p.PC_RPN,
                p.PC_pagesize, p.PC_gpagesize);
            break;
        case 19:
            put("(VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d) ", p.PC_VSID, p.PC_RPN, p.PC_pagesize);
            break;
        case 23:
        case 24:
            put("(HostPageSize:%d, GuestPageSize:%d) ", p.PC_pagesize, p.PC_gpagesize);
            nested_walk("iar", "vh", p.pc_host_walkdepth, p.pc_guest_walkdepth, p.PC_hRTW, p.PC_hRTW_host_RA,
                        p.PC_gRTW);
            put("(iar_RPN:0x%08X)", p.PC_RPN);
            break;
        case 25:
        case 26:
        case 27:
        case 29:
        case 30:
        case 31:
            put("(HostPageSize:%d) ", p.PC_pagesize);
            host_walk("iar", p.pc_host_walkdepth, p.PC_hRTW[0]);
            put("(iar_RPN:0x%08X)", p.PC_RPN);
            break;
        default:
            break;
        }
    }

    void data_section()
    {
        const unsigned mode = p.data_radix_type;
        const First_OP_Info &d = p.info;
        if (!d.data_relocation) {
            if (mode == 16)
                put(", VSID:0x%016lX, gRA:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d", d.data_VSID,
                    d.data_gRTW.GUEST_ra, d.data_RPN, d.data_pagesize, d.data_gpagesize);
            if (mode == 24) {
                put("(HostPageSize:%d, GuestPageSize:%d) ", d.data_pagesize, d.data_gpagesize);
                host_walk("data", p.data_host_walkdepth, d.data_hRTW[0]);
                put("(data_gRA:0x%016lX) ", d.data_gRTW.GUEST_ra);
                put("(data_RPN:0x%08X)", d.data_RPN);
            }
            return;
        }
        switch (mode) {
        case 11:
            put("(data_RA:0x%016lX)", d.data_RA);
            put("(data_RPN:0x%08X)", d.data_RPN);
            break;
        case 14:
        case 16:
            put(", VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d, GuestPageSize:%d", d.data_VSID, d.data_RPN,
                d.data_pagesize, d.data_gpagesize);
            break;
        case 19:
            put(", VSID:0x%016lX, RPN:0x%08x, HostPageSize:%d", d.data_VSID, d.data_RPN, d.data_pagesize);
            break;
        case 23:
        case 24:
            put("(HostPageSize:%d, GuestPageSize:%d) ", d.data_pagesize, d.data_gpagesize);
            nested_walk("data", "data_h", p.data_host_walkdepth, p.data_guest_walkdepth, d.data_hRTW,
                        d.data_hRTW_host_RA, d.data_gRTW);
            put("(data_RPN:0x%08X)", d.data_RPN);
            break;
        case 25:
        case 26:
        case 27:
        case 29:
        case 30:
        case 31:
            put("(HostPageSize:%d) ", d.data_pagesize);
            host_walk("data", p.data_host_walkdepth, d.data_hRTW[0]);
            put("(data_RPN:0x%08X)", d.data_RPN);
            break;
        default:
            break;
        }
    }

    void host_walk(const char *side, uint8_t depth, const HostRadixTree &walk)
    {
        const uint8_t levels = static_cast<uint8_t>(depth - 1);
        put("(%s_Host_RTW_Depth:%d ", side, levels);
        if (levels == 1)
            put("(%s_hRTPDE_L1_RA:0x%016lX, %s_hRTPTE_RA:0x%016lX) ", side, walk.RTPDE_ra_l1, side, walk.RTPTE_ra);
        if (levels == 2)
            put("(%s_hRTPDE_L1_RA:0x%016lX, %s_hRTPDE_L2_RA:0x%016lX, %s_hRTPTE_RA:0x%016lX) ", side,
                walk.RTPDE_ra_l1, side, walk.RTPDE_ra_l2, side, walk.RTPTE_ra);
        if (levels == 3)
            put("(%s_hRTPDE_L1_RA:0x%016lX, %s_hRTPDE_L2_RA:0x%016lX, %s_hRTPDE_L3_RA:0x%016lX, "
                "%s_hRTPTE_RA:0x%016lX) ",
                side, walk.RTPDE_ra_l1, side, walk.RTPDE_ra_l2, side, walk.RTPDE_ra_l3, side, walk.RTPTE_ra);
        put(")");
    }

    // The entries of one walk of so many directory levels.
    void entries(const char *side, const char *first_leaf, int levels, const HostRadixTree &walk)
    {
        put("(%s_hRTPDE_L1_RA:0x%016lX)", side, walk.RTPDE_ra_l1);
        if (levels >= 2)
            put("(%s_hRTPDE_L2_RA:0x%016lX)", side, walk.RTPDE_ra_l2);
        if (levels >= 3)
            put("(%s_hRTPDE_L3_RA:0x%016lX)", side, walk.RTPDE_ra_l3);
        if (levels == 1)
            put("(%sRTPTE_L2_RA:0x%016lX)", first_leaf, walk.RTPTE_ra);
        else
            put("(%s_hRTPTE_L%d_RA:0x%016lX)", side, levels + 1, walk.RTPTE_ra);
    }

    void nested_walk(const char *side, const char *fourth_leaf, uint8_t host_depth, uint8_t guest_depth,
                     const HostRadixTree (&walks)[5], const HostRadixTree_RAs (&host_ra)[4],
                     const GuestRadixTree &guest)
    {
        const uint8_t hwdepth = static_cast<uint8_t>(host_depth - 1);
        const uint8_t gwdepth = static_cast<uint8_t>(guest_depth - 1);
        const bool listed = hwdepth >= 1 && hwdepth <= 3;
        const std::string leaf = std::string(side) + "_h";
        put("(%s_Guest_RAs: ", side);
        put("(%s_gRTPDE_L1_RA:0x%016lX %s_gRTPDE_L2_RA:0x%016lX %s_gRTPDE_L3_RA:0x%016lX %s_gRTPTE_RA:0x%016lX "
            "%s_gRA:0x%016lX) ",
            side, guest.RTPDE_GUEST_ra_l1, side, guest.RTPDE_GUEST_ra_l2, side, guest.RTPDE_GUEST_ra_l3, side,
            guest.RTPTE_GUEST_ra, side, guest.GUEST_ra);
        put(") ");
        for (int level = 1; level <= gwdepth; ++level) {
            put("(%s_Host_RTWs_Block:%d ", side, level);
            for (int depth = hwdepth; listed && depth <= 3; ++depth)
                entries(side, level == 4 ? fourth_leaf : leaf.c_str(), depth, walks[level - 1]);
            put("(%s_hRTW_host_Block%d_RA:0x%016lX)", side, level, host_ra[level - 1].ra);
            put(")");
        }
        put("(%s_Host_RTWs_Block:%d ", side, guest_depth);
        if (listed)
            entries(side, leaf.c_str(), hwdepth, walks[gwdepth]);
        put(")");
    }
};

// ---- random nodes --------------------------------------------------------------------------------------------

class Random_Nodes
{
public:
    explicit Random_Nodes(uint64_t seed) : random_(seed) {}

    bool one_in(unsigned n) { return below(n) == 0; }

    // Every field random within its type, with odd values among them; neighbours point to nodes of this object.
    Node next()
    {
        Node node;
        fill(&node, sizeof node);
        node.proc_index = 0;
        for (boolean *truth :
             {&node.I, &node.N, &node.T, &node.done, &node.commit, &node.simple, &node.PC_relocation,
              &node.partition_change, &node.bitmode64, &node.littleendian, &node.info.load, &node.info.store,
              &node.info.cache, &node.info.string, &node.info.data_addr_valid, &node.info.data_relocation,
              &node.info.except, &node.info.kernel})
            *truth = truth_value();
        if (!one_in(8))
            node.info.except = 0;
        if (!one_in(4))
            node.partition_change = 0;
        pages(node.pages_used);
        pages(node.gpages_used);
        translations(node);
        registers(node.reg_in);
        registers(node.reg_out);
        operation(node.info);
        neighbours(node);
        return node;
    }

private:
    std::mt19937_64 random_;
    Node others_[3]{};

    unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }

    void fill(void *bytes, size_t size)
    {
        auto *at = static_cast<unsigned char *>(bytes);
        for (size_t i = 0; i < size; i += 8) {
            const uint64_t word = random_();
            memcpy(at + i, &word, std::min<size_t>(8, size - i));
        }
    }

    boolean truth_value()
    {
        if (one_in(16))
            return static_cast<boolean>(random_());
        return below(2);
    }

    void pages(PAGE_SIZES_USED &used)
    {
        for (boolean *flag = &used.PAGE_4K; flag <= &used.PAGE_undefined; ++flag)
            *flag = truth_value();
    }

    RDX_XLATE_MODE mode()
    {
        static const int shown[] = {11, 14, 16, 19, 23, 24, 25, 26, 27, 29, 30, 31};
        return static_cast<RDX_XLATE_MODE>(one_in(3) ? below(41) : static_cast<unsigned>(shown[below(12)]));
    }

    uint8_t host_depth()
    {
        static const uint8_t odd[] = {0, 5, 6, 128, 255};
        return static_cast<uint8_t>(one_in(8) ? odd[below(5)] : 1 + below(4));
    }

    void translations(Node &node)
    {
        node.pc_radix_type = mode();
        node.data_radix_type = mode();
        node.pc_host_walkdepth = host_depth();
        node.data_host_walkdepth = host_depth();
        node.pc_guest_walkdepth = static_cast<uint8_t>(1 + below(5));
        node.data_guest_walkdepth = static_cast<uint8_t>(1 + below(5));
    }

    // From below nothing to above what the class can hold.
    int32_t count(int capacity)
    {
        if (one_in(16))
            return static_cast<int32_t>(random_());
        return static_cast<int32_t>(below(static_cast<unsigned>(capacity) + 4)) - 2;
    }

    void registers(Plugin_Inst_Registers &r)
    {
        if (one_in(16)) {
            r.gpr_num = r.fpr_num = r.spr_num = r.vsx_num = r.vmx_num = INT32_MAX; // all that there is room for
            return;
        }
        const bool few = !one_in(8);
        r.gpr_num = count(few ? 3 : MAX_GPRS);
        r.fpr_num = count(few ? 0 : MAX_FPRS);
        r.spr_num = count(few ? 1 : MAX_SPRS);
        r.vsx_num = count(few ? 0 : MAX_VSXRS);
        r.vmx_num = count(few ? 0 : MAX_VMXRS);
        if (one_in(2))
            for (int32_t &index : r.gpr_index)
                index &= 31;
    }

    void operation(First_OP_Info &info)
    {
        info.name[below(INST_NAME_SIZE)] = 0;
        info.name[INST_NAME_SIZE - 1] = 0;
        info.branch = one_in(8) ? info.branch : "?UC"[below(3)];
        info.taken = one_in(8) ? info.taken : "?YN"[below(3)];
        if (one_in(4))
            info.str_len = UNKNOWN_STRING_LENGTH;
        if (one_in(4))
            info.data_addr &= 0xFFFF;
    }

    void neighbours(Node &node)
    {
        Node **const links[] = {&node.left, &node.right, &node.terminated_by};
        for (size_t i = 0; i < std::size(links); ++i) {
            others_[i].seq = one_in(4) ? 0 : random_() >> below(64);
            *links[i] = one_in(2) ? &others_[i] : nullptr;
        }
        if (one_in(2))
            node.terminated_seq = 0;
        node.seq >>= below(64);
    }
};

std::string first_difference(const std::string &expected, const std::string &written)
{
    const auto [a, b] = std::mismatch(expected.begin(), expected.end(), written.begin(), written.end());
    const size_t at = static_cast<size_t>(a - expected.begin());
    const size_t from = at < 120 ? 0 : at - 120;
    return "expected ..." + expected.substr(from, 240) + "\nwritten  ..." +
           written.substr(std::min(from, written.size()), 240);
}

TEST(text_bytes, are_those_of_the_quoted_formats_for_random_nodes)
{
    const int batches = 120, batch_size = 1000; // lines are compared a batch at a time
    Random_Nodes nodes(20260731);
    size_t bytes = 0;
    for (int batch = 0; batch < batches; ++batch) {
        Text_Streams streams;
        std::string expected;
        for (int i = 0; i < batch_size; ++i) {
            Node node = nodes.next();
            hdr_write[0] = !nodes.one_in(10);
            expected += Reference(node).text(hdr_write[0]);
            ASSERT_EQ(dump_node_text(&node), 1u);
        }
        const std::string written = streams.take();
        ASSERT_TRUE(written == expected) << first_difference(expected, written);
        bytes += written.size();
    }
    RecordProperty("lines", batches * batch_size);
    RecordProperty("bytes", std::to_string(bytes));
}

// What the random nodes are worth: every item of the line occurs among them, and every mode on both sides.
TEST(text_bytes, random_nodes_show_every_item)
{
    Text_Streams streams;
    Random_Nodes nodes(20260731);
    std::string text;
    for (int i = 0; i < 5000; ++i) {
        Node node = nodes.next();
        text += streams.text_of(node);
    }
    for (const char *item : {"Partition Change: ",
                             "(KERN,",
                             "(USER,",
                             ",SIMP) ",
                             ",CYCLE) ",
                             "(nn:",
                             " (RA:0x",
                             "(VSID:0x",
                             ", gRA:0x",
                             "(iar_Host_RTW_Depth:255 )",
                             "(iar_Host_RTW_Depth:3 (",
                             "(iar_gRA:",
                             "(iar_Host_RTWs_Block:5 ",
                             "(vhRTPTE_L2_RA:",
                             "(iar_hRTW_host_Block4_RA:",
                             "(done) ",
                             "(undone) ",
                             "(branch taken) ",
                             "(branch untaken) ",
                             "(unknown) ",
                             "(data_RA:0x",
                             ", VSID:0x",
                             "(data_gRA:",
                             "(data_Host_RTWs_Block:5 ",
                             "(data_hRTW_host_Block4_RA:",
                             "(len:",
                             "(terminated by ",
                             "(Input Reg 49(v",
                             "(Output Reg 49(v",
                             "(left:",
                             "(right:"})
        EXPECT_NE(text.find(item), std::string::npos) << item;
}

// Everything that a line can carry at once: nested walks of both addresses, every register, every neighbour.
TEST(text_bytes, longest_line_with_all_lines_before_it_is_complete)
{
    Text_Streams streams;
    streams.expect_header();
    Node other{};
    other.seq = 0x8000000000000000;
    Node node;
    memset(static_cast<void *>(&node), 0xFF, sizeof node);
    node.proc_index = 0;
    node.seq = node.lpid = node.memused = node.terminated_seq = 0x8000000000000000;
    node.kelvo_ver = node.pid = node.I = node.N = node.T = node.commit = 0x80000000;
    node.pc_radix_type = node.data_radix_type = Z7_GuestRadixOnHostRadix;
    node.pc_host_walkdepth = node.data_host_walkdepth = 2;
    node.pc_guest_walkdepth = node.data_guest_walkdepth = 5;
    node.info.except = 0;
    node.info.str_len = 65534;
    node.info.branch = 'C';
    node.info.taken = 'N';
    node.done = 0;
    memset(node.info.name, '%', sizeof node.info.name - 1);
    node.info.name[INST_NAME_SIZE - 1] = 0;
    for (Plugin_Inst_Registers *r : {&node.reg_in, &node.reg_out}) {
        r->gpr_num = r->fpr_num = r->spr_num = r->vsx_num = r->vmx_num = INT32_MAX;
        for (int32_t &index : r->gpr_index)
            index = INT32_MIN;
        for (int32_t &index : r->fpr_index)
            index = INT32_MIN;
        for (int32_t &index : r->spr_index)
            index = INT32_MIN;
        for (int32_t &index : r->vsx_index)
            index = INT32_MIN;
        for (int32_t &index : r->vmx_index)
            index = INT32_MIN;
    }
    node.left = node.right = &other;
    node.terminated_by = nullptr;
    const std::string expected = Reference(node).text(false);
    const std::string written = streams.text_of(node);
    EXPECT_TRUE(written == expected) << first_difference(expected, written);
    EXPECT_GT(written.size(), 9000u);
}

} // namespace
