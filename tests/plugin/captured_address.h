// The translation of one address, whoever captured it: what the host answers, what a node holds for its own
// address, the next one or the data, and what each capture rule makes of the answers.
#pragma once

#include "host.h"
#include "plugin_qtbin.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <string>

struct Captured_Address {
    boolean relocation = 0;
    uint64_t RA = 0;
    uint64_t VSID = 0;
    uint32_t RPN = 0;
    uint8_t pagesize = 0;
    uint8_t gpagesize = 0;
    uint8_t host_depth = 0;
    uint8_t guest_depth = 0;
    std::array<HostRadixTree, HOST_WALKS> hRTW{};
    std::array<HostRadixTree_RAs, GUEST_LEVELS> host_RA{};
    GuestRadixTree gRTW{};
};

inline Captured_Address fetch_of(const Node &node)
{
    Captured_Address a{.relocation = node.PC_relocation,
                       .RA = node.PC_RA,
                       .VSID = node.PC_VSID,
                       .RPN = node.PC_RPN,
                       .pagesize = node.PC_pagesize,
                       .gpagesize = node.PC_gpagesize,
                       .host_depth = node.pc_host_walkdepth,
                       .guest_depth = node.pc_guest_walkdepth,
                       .hRTW = {},
                       .host_RA = {},
                       .gRTW = node.PC_gRTW};
    std::copy(std::begin(node.PC_hRTW), std::end(node.PC_hRTW), a.hRTW.begin());
    std::copy(std::begin(node.PC_hRTW_host_RA), std::end(node.PC_hRTW_host_RA), a.host_RA.begin());
    return a;
}

inline Captured_Address next_of(const Node &node)
{
    Captured_Address a{.relocation = node.nextPC_relocation,
                       .RA = node.nextPC_RA,
                       .VSID = node.nextPC_VSID,
                       .RPN = node.nextPC_RPN,
                       .pagesize = node.nextPC_pagesize,
                       .gpagesize = node.nextPC_gpagesize,
                       .host_depth = node.nextPC_host_walkdepth,
                       .guest_depth = node.nextPC_guest_walkdepth,
                       .hRTW = {},
                       .host_RA = {},
                       .gRTW = node.nextPC_gRTW};
    std::copy(std::begin(node.nextPC_hRTW), std::end(node.nextPC_hRTW), a.hRTW.begin());
    std::copy(std::begin(node.nextPC_hRTW_host_RA), std::end(node.nextPC_hRTW_host_RA), a.host_RA.begin());
    return a;
}

inline Captured_Address data_of(const Node &node)
{
    const First_OP_Info &info = node.info;
    Captured_Address a{.relocation = info.data_relocation,
                       .RA = info.data_RA,
                       .VSID = info.data_VSID,
                       .RPN = info.data_RPN,
                       .pagesize = info.data_pagesize,
                       .gpagesize = info.data_gpagesize,
                       .host_depth = node.data_host_walkdepth,
                       .guest_depth = node.data_guest_walkdepth,
                       .hRTW = {},
                       .host_RA = {},
                       .gRTW = info.data_gRTW};
    std::copy(std::begin(info.data_hRTW), std::end(info.data_hRTW), a.hRTW.begin());
    std::copy(std::begin(info.data_hRTW_host_RA), std::end(info.data_hRTW_host_RA), a.host_RA.begin());
    return a;
}

// Every member that is not zero, one a line: what a failing comparison shows.
inline std::string describe(const Captured_Address &a)
{
    std::string text;
    const auto line = [&text](const std::string &name, uint64_t value) {
        char digits[32];
        std::snprintf(digits, sizeof digits, "=%#lx\n", static_cast<unsigned long>(value));
        if (value)
            text += name + digits;
    };
    line("relocation", a.relocation);
    line("RA", a.RA);
    line("VSID", a.VSID);
    line("RPN", a.RPN);
    line("pagesize", a.pagesize);
    line("gpagesize", a.gpagesize);
    line("host_depth", a.host_depth);
    line("guest_depth", a.guest_depth);
    for (size_t n = 0; n < a.hRTW.size(); ++n) {
        const std::string walk = "hRTW[" + std::to_string(n) + "].";
        line(walk + "l1", a.hRTW[n].RTPDE_ra_l1);
        line(walk + "l2", a.hRTW[n].RTPDE_ra_l2);
        line(walk + "l3", a.hRTW[n].RTPDE_ra_l3);
        line(walk + "pte", a.hRTW[n].RTPTE_ra);
    }
    for (size_t n = 0; n < a.host_RA.size(); ++n)
        line("host_RA[" + std::to_string(n) + "]", a.host_RA[n].ra);
    line("gRTW.root", a.gRTW.RTPDE_GUEST_ra_root);
    line("gRTW.l1", a.gRTW.RTPDE_GUEST_ra_l1);
    line("gRTW.l2", a.gRTW.RTPDE_GUEST_ra_l2);
    line("gRTW.l3", a.gRTW.RTPDE_GUEST_ra_l3);
    line("gRTW.pte", a.gRTW.RTPTE_GUEST_ra);
    line("gRTW.ra", a.gRTW.GUEST_ra);
    return text;
}

// Answers that are all different from each other and from those of another tag. None is 0, and the real address
// and the segment id have bits in all eight bytes.
inline replay::Address_Answers distinct_answers(uint8_t tag, int mode = 0, uint8_t host_depth = 4,
                                                uint8_t guest_depth = 5)
{
    const uint64_t top = uint64_t{tag} << 56;
    replay::Address_Answers a;
    a.mode = static_cast<RDX_XLATE_MODE>(mode);
    a.host_depth = host_depth;
    a.guest_depth = guest_depth;
    a.ra = top | 0x11223344'55667788;
    a.vsid = top | 0x00334455'66778899;
    a.rpn = 0x01000000u + tag;
    a.host_rpn = 0x02000000u + tag;
    a.guest_rpn = 0x03000000u + tag;
    a.page_size = static_cast<uint8_t>(0x10 + tag);
    a.host_page_size = static_cast<uint8_t>(0x40 + tag);
    a.guest_page_size = static_cast<uint8_t>(0x80 + tag);
    for (uint64_t n = 0; n < a.host_walk.size(); ++n)
        a.host_walk[n] = {top + 0x1001 + n * 0x100, top + 0x1002 + n * 0x100, top + 0x1003 + n * 0x100,
                          top + 0x1004 + n * 0x100};
    for (uint64_t n = 0; n < a.host_ra.size(); ++n)
        a.host_ra[n] = top + 0x20000 + n;
    a.guest_walk = {top + 0x30000, top + 0x30001, top + 0x30002, top + 0x30003, top + 0x30004, top + 0x30005};
    return a;
}

// What is taken of the answers about one address.
enum class Capture_Rule {
    none,
    host_real,
    real_on_hpt,
    host_hpt,
    guest_hpt,
    host_radix,
    real_on_radix,
    guest_radix
};

// One level of translation, by mode.
inline Capture_Rule one_level_rule(int mode)
{
    static const std::map<int, Capture_Rule> rules{
        {11, Capture_Rule::host_real},     {16, Capture_Rule::real_on_hpt}, {19, Capture_Rule::host_hpt},
        {24, Capture_Rule::real_on_radix}, {25, Capture_Rule::host_radix},  {26, Capture_Rule::host_radix},
        {27, Capture_Rule::host_radix},    {29, Capture_Rule::host_radix},  {30, Capture_Rule::host_radix},
        {31, Capture_Rule::host_radix}};
    const auto found = rules.find(mode);
    return found == rules.end() ? Capture_Rule::none : found->second;
}

// Guest on host, by mode.
inline Capture_Rule two_level_rule(int mode)
{
    return mode == 14 ? Capture_Rule::guest_hpt : mode == 23 ? Capture_Rule::guest_radix : Capture_Rule::none;
}

// Host walk n as a host depth of h has it: h - 1 directory entries, and the page-table entry always.
inline HostRadixTree walk_of_depth(const HostRadixTree &walk, int h)
{
    HostRadixTree taken{};
    if (h == 2 || h == 3 || h == 4)
        taken.RTPDE_ra_l1 = walk.RTPDE_ra_l1;
    if (h == 3 || h == 4)
        taken.RTPDE_ra_l2 = walk.RTPDE_ra_l2;
    if (h == 4)
        taken.RTPDE_ra_l3 = walk.RTPDE_ra_l3;
    taken.RTPTE_ra = walk.RTPTE_ra;
    return taken;
}

// The walks of a guest's address for g of 1 to 5: host walks 0 to g - 1, their g - 1 results, and of the guest
// the directory entries of levels 1 to g - 1 (there are three), the page-table entry and the final address.
template <class Host_Ras>
void take_nested_walk(Captured_Address &to, const std::array<HostRadixTree, HOST_WALKS> &host_walk,
                      const Host_Ras &host_ra, const GuestRadixTree &guest, int h, int g)
{
    for (int n = 0; n < g; ++n)
        to.hRTW[static_cast<size_t>(n)] = walk_of_depth(host_walk[static_cast<size_t>(n)], h);
    for (int n = 0; n < g - 1; ++n)
        to.host_RA[static_cast<size_t>(n)] = {host_ra(n)};
    if (g > 1)
        to.gRTW.RTPDE_GUEST_ra_l1 = guest.RTPDE_GUEST_ra_l1;
    if (g > 2)
        to.gRTW.RTPDE_GUEST_ra_l2 = guest.RTPDE_GUEST_ra_l2;
    if (g > 3)
        to.gRTW.RTPDE_GUEST_ra_l3 = guest.RTPDE_GUEST_ra_l3;
    to.gRTW.RTPTE_GUEST_ra = guest.RTPTE_GUEST_ra;
    to.gRTW.GUEST_ra = guest.GUEST_ra;
}

// What a fresh node holds after the rule has been applied to the answers.
inline Captured_Address captured_by(Capture_Rule rule, const replay::Address_Answers &a)
{
    Captured_Address c{.host_depth = a.host_depth, .guest_depth = a.guest_depth};
    switch (rule) {
    case Capture_Rule::none:
        break;
    case Capture_Rule::host_real:
        c.RA = a.ra & 0xFFFFFFFF;
        break;
    case Capture_Rule::guest_hpt:
        c.gpagesize = a.page_size;
        [[fallthrough]];
    case Capture_Rule::host_hpt:
        c.relocation = 1;
        [[fallthrough]];
    case Capture_Rule::real_on_hpt:
        c.VSID = a.vsid;
        c.RPN = a.rpn;
        c.pagesize = a.page_size;
        break;
    case Capture_Rule::host_radix:
        c.relocation = 1;
        c.hRTW[0] = a.host_walk[0];
        c.host_RA[0] = {a.host_ra[0]};
        c.RPN = a.host_rpn;
        c.pagesize = a.host_page_size;
        break;
    case Capture_Rule::real_on_radix:
        c.hRTW[0] = a.host_walk[0];
        c.host_RA[0] = {a.host_ra[0]};
        c.gRTW.GUEST_ra = a.guest_walk.GUEST_ra;
        c.RPN = a.host_rpn;
        c.pagesize = a.host_page_size;
        break;
    case Capture_Rule::guest_radix:
        c.relocation = 1;
        take_nested_walk(
            c, a.host_walk, [&a](int n) { return a.host_ra[static_cast<size_t>(n)]; }, a.guest_walk, a.host_depth,
            a.guest_depth);
        c.RPN = a.guest_rpn;
        c.pagesize = a.host_page_size;
        c.gpagesize = a.guest_page_size;
        break;
    }
    return c;
}
