// How the translation of an address goes into a file header (the instruction's own address) and into a record (the
// next instruction's and the data address): every mode with relocation on and off, compared over all bytes.
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "captured_address.h"
#include "record.h"
#include "record_comparison.h"
#include "traced_machine.h"

#include <cstring>

namespace
{

// ---- the expectation, by hand -------------------------------------------------------------------------------

enum class Emit_Rule { none, host_real, host_hpt, guest_hpt, real_on_hpt, host_radix, real_on_radix, guest_radix };
constexpr auto NONE = Emit_Rule::none, HOST_REAL = Emit_Rule::host_real, HOST_HPT = Emit_Rule::host_hpt,
               GUEST_HPT = Emit_Rule::guest_hpt, REAL_ON_HPT = Emit_Rule::real_on_hpt,
               HOST_RADIX = Emit_Rule::host_radix, REAL_ON_RADIX = Emit_Rule::real_on_radix,
               GUEST_RADIX = Emit_Rule::guest_radix;

struct Mode_Row {
    int mode;
    unsigned guest, host; // mode pair: 0 radix, 1 hashed, 2 real, 3 none
    Emit_Rule relocated, unrelocated;
};

const Mode_Row mode_rows[] = {
    {0, 3, 3, NONE, NONE},          {1, 3, 3, NONE, NONE},
    {2, 3, 3, NONE, NONE},          {3, 3, 3, NONE, NONE},
    {4, 3, 3, NONE, NONE},          {5, 3, 3, NONE, NONE},
    {6, 3, 3, NONE, NONE},          {7, 3, 3, NONE, NONE},
    {8, 3, 3, NONE, NONE},          {9, 3, 3, NONE, NONE},
    {10, 3, 3, NONE, NONE},         {11, 3, 2, HOST_REAL, NONE},
    {12, 3, 2, NONE, NONE},         {13, 2, 2, NONE, NONE},
    {14, 1, 1, GUEST_HPT, NONE},    {15, 0, 1, NONE, NONE},
    {16, 2, 1, NONE, REAL_ON_HPT},  {17, 1, 0, NONE, NONE}, // the reverse of its name
    {18, 1, 0, NONE, NONE},                                 // likewise
    {19, 3, 1, HOST_HPT, NONE},     {20, 3, 1, NONE, NONE},
    {21, 3, 1, NONE, NONE},         {22, 3, 1, NONE, NONE},
    {23, 0, 0, GUEST_RADIX, NONE},  {24, 3, 0, NONE, REAL_ON_RADIX}, // the guest is not called real
    {25, 3, 0, HOST_RADIX, NONE},   {26, 3, 0, HOST_RADIX, NONE},
    {27, 3, 0, HOST_RADIX, NONE},   {28, 3, 3, NONE, NONE}, // unlike its neighbours
    {29, 3, 0, HOST_RADIX, NONE},   {30, 3, 0, HOST_RADIX, NONE},
    {31, 3, 0, HOST_RADIX, NONE},   {32, 3, 0, NONE, NONE},
    {33, 3, 3, NONE, NONE},         {34, 3, 3, NONE, NONE},
    {35, 3, 3, NONE, NONE},         {36, 3, 3, NONE, NONE},
    {37, 0, 0, NONE, NONE}, // left as it was cleared
    {38, 3, 3, NONE, NONE},         {1000, 3, 3, NONE, NONE},
    {0x7FFFFFFF, 3, 3, NONE, NONE},
};

enum class Side { header, next, data };

// What one address puts into its header or record, apart from the address itself and the mode pair.
struct Emitted {
    bool vsid_present = false, rpn_present = false, page_present = false, gpage_present = false;
    uint8_t depth = 0, num_level = 0;
    uint64_t vsid = 0; // 0: member left alone
    Captured_Address walks{};
    uint32_t rpn = 0;
    uint8_t page = 0, gpage = 0;
};

Emitted emitted(Emit_Rule rule, const Captured_Address &a, Side side)
{
    Emitted e{.depth = a.guest_depth, .num_level = a.host_depth};
    if (rule == NONE || rule == HOST_REAL)
        return e;
    e.rpn_present = e.page_present = true;
    e.rpn = a.RPN;
    e.page = a.pagesize;
    if (rule == HOST_HPT || rule == GUEST_HPT || rule == REAL_ON_HPT) {
        e.vsid_present = true;
        e.vsid = a.VSID;
    }
    if (rule == GUEST_HPT || rule == GUEST_RADIX) {
        e.gpage_present = true;
        e.gpage = a.gpagesize;
    }
    if (rule == HOST_RADIX || rule == REAL_ON_RADIX)
        e.walks.hRTW[0] = a.hRTW[0];
    if (rule == REAL_ON_RADIX) {
        e.depth = static_cast<uint8_t>(a.guest_depth + 1);
        e.walks.gRTW.GUEST_ra = a.gRTW.GUEST_ra;
        e.gpage = side == Side::header ? a.gpagesize : uint8_t{0}; // without its flag
    }
    if (rule == GUEST_RADIX)
        take_nested_walk(
            e.walks, a.hRTW, [&a](int n) { return a.host_RA[static_cast<size_t>(n)].ra; }, a.gRTW, a.host_depth,
            a.guest_depth);
    return e;
}

void put_walks(QTRACE_RTW (&host)[5], QTRACE_RTW_HOST_RA (&host_ra)[4], QTRACE_RTW_GUEST &guest,
               const Captured_Address &walks)
{
    for (size_t n = 0; n < 5; ++n) {
        put(host[n].RTPDE_ra_l1, walks.hRTW[n].RTPDE_ra_l1);
        put(host[n].RTPDE_ra_l2, walks.hRTW[n].RTPDE_ra_l2);
        put(host[n].RTPDE_ra_l3, walks.hRTW[n].RTPDE_ra_l3);
        put(host[n].RTPTE_ra, walks.hRTW[n].RTPTE_ra);
    }
    for (size_t n = 0; n < 4; ++n)
        put(host_ra[n].ra, walks.host_RA[n].ra);
    put(guest.RTPDE_GUEST_ra_l1, walks.gRTW.RTPDE_GUEST_ra_l1);
    put(guest.RTPDE_GUEST_ra_l2, walks.gRTW.RTPDE_GUEST_ra_l2);
    put(guest.RTPDE_GUEST_ra_l3, walks.gRTW.RTPDE_GUEST_ra_l3);
    put(guest.RTPTE_GUEST_ra, walks.gRTW.RTPTE_GUEST_ra);
    put(guest.GUEST_ra, walks.gRTW.GUEST_ra);
}

// The address itself and what belongs to it, put into the three places.
void put_next(QTRACE_RECORD &r, uint64_t address, const Emitted &e)
{
    auto &flags = r.header.control.fld;
    flags.next_instruction_EA_present = 1;
    flags.next_instruction_VSID_present = e.vsid_present;
    flags.next_instruction_RPN_present = e.rpn_present;
    flags.next_instruction_page_size_present = e.page_present;
    flags.instruction_gpage_size_present = e.gpage_present;
    put(r.next_instruction_ea, address);
    put_vsid(r.next_instruction_vsid, e.vsid);
    r.next_instruction_hRTW_depth = e.depth;
    r.next_instruction_hRTW_num_level = e.num_level;
    put_walks(r.next_instruction_hRTW, r.next_instruction_hRTW_host_RA, r.next_instruction_gRTW, e.walks);
    put(r.next_instruction_rpn, e.rpn);
    r.next_instruction_page_size = e.page;
    r.next_instruction_gpage_size = e.gpage;
}

void put_data(QTRACE_RECORD &r, uint64_t address, const Emitted &e)
{
    auto &flags = r.header.control.fld;
    flags.data_address_present = 1;
    flags.data_VSID_present = e.vsid_present;
    flags.data_RPN_present = e.rpn_present;
    flags.data_page_size_present = e.page_present;
    flags.data_gpage_size_present = e.gpage_present;
    put(r.data_ea, address);
    put_vsid(r.data_vsid, e.vsid);
    r.data_hRTW_depth = e.depth;
    r.data_hRTW_num_level = e.num_level;
    put_walks(r.data_hRTW, r.data_hRTW_host_RA, r.data_gRTW, e.walks);
    put(r.data_rpn, e.rpn);
    r.data_page_size = e.page;
    r.data_gpage_size = e.gpage;
}

void put_iar(QTRACE_FILE_HDR &h, uint64_t address, const Emitted &e)
{
    h.control.iar_is_present = 1;
    h.control.iar_vsid_is_present = e.vsid_present;
    h.control.iar_rpn_is_present = e.rpn_present;
    h.control.iar_page_size_is_present = e.page_present;
    h.control.iar_gpage_size_is_present = e.gpage_present;
    put(h.iar, address);
    put_vsid(h.iar_vsid, e.vsid);
    h.iar_hRTW_depth = e.depth;
    h.iar_hRTW_num_level = e.num_level;
    put_walks(h.iar_hRTW, h.iar_hRTW_host_RA, h.iar_gRTW, e.walks);
    put(h.iar_rpn, e.rpn);
    h.iar_page_size = e.page;
    h.iar_gpage_size = e.gpage;
}

// ---- nodes --------------------------------------------------------------------------------------------------

// A translation in which every member holds a value of its own, also those that its mode does not use.
Captured_Address full_address(uint8_t tag, bool relocation, uint8_t host_depth = 4, uint8_t guest_depth = 5)
{
    const replay::Address_Answers answers = distinct_answers(tag);
    Captured_Address a{.relocation = relocation,
                       .RA = answers.ra,
                       .VSID = answers.vsid,
                       .RPN = answers.rpn,
                       .pagesize = answers.page_size,
                       .gpagesize = answers.guest_page_size,
                       .host_depth = host_depth,
                       .guest_depth = guest_depth,
                       .hRTW = answers.host_walk,
                       .host_RA = {},
                       .gRTW = answers.guest_walk};
    for (size_t n = 0; n < a.host_RA.size(); ++n)
        a.host_RA[n] = {answers.host_ra[n]};
    return a;
}

void set_fetch(Node &node, int mode, const Captured_Address &a)
{
    node.PC = 0x0F0F'0000'0000'1000;
    node.pc_radix_type = static_cast<RDX_XLATE_MODE>(mode);
    node.PC_relocation = a.relocation;
    node.PC_RA = a.RA;
    node.PC_VSID = a.VSID;
    node.PC_RPN = a.RPN;
    node.PC_pagesize = a.pagesize;
    node.PC_gpagesize = a.gpagesize;
    node.pc_host_walkdepth = a.host_depth;
    node.pc_guest_walkdepth = a.guest_depth;
    std::copy(a.hRTW.begin(), a.hRTW.end(), node.PC_hRTW);
    std::copy(a.host_RA.begin(), a.host_RA.end(), node.PC_hRTW_host_RA);
    node.PC_gRTW = a.gRTW;
}

void set_next(Node &node, int mode, const Captured_Address &a)
{
    node.I = node.N = 1;
    node.nextPC = 0x0E0E'0000'0000'2000;
    node.nextPC_radix_type = static_cast<RDX_XLATE_MODE>(mode);
    node.nextPC_relocation = a.relocation;
    node.nextPC_RA = a.RA;
    node.nextPC_VSID = a.VSID;
    node.nextPC_RPN = a.RPN;
    node.nextPC_pagesize = a.pagesize;
    node.nextPC_gpagesize = a.gpagesize;
    node.nextPC_host_walkdepth = a.host_depth;
    node.nextPC_guest_walkdepth = a.guest_depth;
    std::copy(a.hRTW.begin(), a.hRTW.end(), node.nextPC_hRTW);
    std::copy(a.host_RA.begin(), a.host_RA.end(), node.nextPC_hRTW_host_RA);
    node.nextPC_gRTW = a.gRTW;
}

void set_data(Node &node, int mode, const Captured_Address &a)
{
    node.info.load = node.info.data_addr_valid = 1;
    node.info.data_addr = 0x0D0D'0000'0000'3000;
    node.data_radix_type = static_cast<RDX_XLATE_MODE>(mode);
    node.info.data_relocation = a.relocation;
    node.info.data_RA = a.RA;
    node.info.data_VSID = a.VSID;
    node.info.data_RPN = a.RPN;
    node.info.data_pagesize = a.pagesize;
    node.info.data_gpagesize = a.gpagesize;
    node.data_host_walkdepth = a.host_depth;
    node.data_guest_walkdepth = a.guest_depth;
    std::copy(a.hRTW.begin(), a.hRTW.end(), node.info.data_hRTW);
    std::copy(a.host_RA.begin(), a.host_RA.end(), node.info.data_hRTW_host_RA);
    node.info.data_gRTW = a.gRTW;
}

struct Xlate_Record : testing::Test {
    Traced_Machine m;

    void SetUp() override { m.start(); }

    static const auto &items() { return recording_writer().file(100).items; }
    QTRACE_RECORD record_of(Node &node)
    {
        hdr_write[0] = 1;
        EXPECT_EQ(dump_node(&node), 1u);
        return std::get<QTRACE_RECORD>(items().back());
    }
    QTRACE_FILE_HDR header_of(Node &node)
    {
        hdr_write[0] = 0;
        EXPECT_EQ(dump_node(&node), 1u);
        return std::get<Written_Header>(*(items().end() - 2)).header;
    }
};

// The parts of a record and a header that do not come from the address under test.
QTRACE_RECORD plain_record(unsigned guest_instruction = 3, unsigned host_instruction = 3, unsigned guest_data = 3,
                           unsigned host_data = 3)
{
    auto record = all_zero<QTRACE_RECORD>();
    auto &flags = record.header.control.fld;
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = guest_instruction & 3;
    flags.host_xlate_mode_instruction = host_instruction & 3;
    flags.guest_xlate_mode_data = guest_data & 3;
    flags.host_xlate_mode_data = host_data & 3;
    return record;
}

QTRACE_RECORD with_node(QTRACE_RECORD record)
{
    record.header.control.fld.iar_change_present = 1;
    record.header.control.fld.node_present = 1;
    return record;
}

QTRACE_FILE_HDR plain_header(unsigned guest, unsigned host, const QTRACE_FILE_HDR &got)
{
    auto header = all_zero<QTRACE_FILE_HDR>();
    auto &flags = header.sec_ext_controlword.control.fld;
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = guest & 3;
    flags.host_xlate_mode_instruction = host & 3;
    flags.ptcr_is_present = flags.lpid_is_present = flags.pid_is_present = 1;
    header.control.version_number_present = 1;
    header.control.comment_present = 1;
    header.comment_length = got.comment_length;
    return header;
}

} // namespace

TEST_F(Xlate_Record, header_carries_the_instruction_address_by_mode_and_relocation)
{
    for (const Mode_Row &row : mode_rows)
        for (bool relocation : {true, false}) {
            Node node{};
            const Captured_Address a = full_address(0x0F, relocation);
            set_fetch(node, row.mode, a);
            const QTRACE_FILE_HDR got = header_of(node);
            QTRACE_FILE_HDR want = plain_header(row.guest, row.host, got);
            put_iar(want, node.PC, emitted(relocation ? row.relocated : row.unrelocated, a, Side::header));
            EXPECT_EQ(differences(got, want), "") << "mode " << row.mode << " relocation " << relocation;
        }
}

TEST_F(Xlate_Record, record_carries_the_next_address_by_mode_and_relocation)
{
    for (const Mode_Row &row : mode_rows)
        for (bool relocation : {true, false}) {
            Node node{};
            const Captured_Address a = full_address(0x0E, relocation);
            set_next(node, row.mode, a);
            QTRACE_RECORD want = with_node(plain_record(row.guest, row.host));
            put_next(want, node.nextPC, emitted(relocation ? row.relocated : row.unrelocated, a, Side::next));
            EXPECT_EQ(differences(record_of(node), want), "")
                << "mode " << row.mode << " relocation " << relocation;
        }
}

TEST_F(Xlate_Record, record_carries_the_data_address_by_mode_and_relocation)
{
    for (const Mode_Row &row : mode_rows)
        for (bool relocation : {true, false}) {
            Node node{};
            const Captured_Address a = full_address(0x0D, relocation);
            set_data(node, row.mode, a);
            QTRACE_RECORD want = plain_record(3, 3, row.guest, row.host);
            put_data(want, node.info.data_addr,
                     emitted(relocation ? row.relocated : row.unrelocated, a, Side::data));
            EXPECT_EQ(differences(record_of(node), want), "")
                << "mode " << row.mode << " relocation " << relocation;
        }
}

TEST_F(Xlate_Record, next_and_data_address_of_one_record_do_not_mix)
{
    for (const Mode_Row &next : mode_rows)
        for (const Mode_Row &data : mode_rows) {
            Node node{};
            const Captured_Address from_next = full_address(0x0E, true),
                                   from_data = full_address(0x0D, false, 3, 4);
            set_next(node, next.mode, from_next);
            set_data(node, data.mode, from_data);
            QTRACE_RECORD want = with_node(plain_record(next.guest, next.host, data.guest, data.host));
            put_next(want, node.nextPC, emitted(next.relocated, from_next, Side::next));
            put_data(want, node.info.data_addr, emitted(data.unrelocated, from_data, Side::data));
            ASSERT_EQ(differences(record_of(node), want), "") << "next " << next.mode << " data " << data.mode;
        }
}

TEST_F(Xlate_Record, mode_pairs_are_in_every_record_also_without_addresses)
{
    for (const Mode_Row &row : mode_rows) {
        Node node{};
        node.nextPC_radix_type = node.data_radix_type = static_cast<RDX_XLATE_MODE>(row.mode);
        node.nextPC = node.info.data_addr = 0x1234;
        EXPECT_EQ(differences(record_of(node), plain_record(row.guest, row.host, row.guest, row.host)), "")
            << "mode " << row.mode;
    }
}

// The pair of the record is that of the address it goes to, not of its own.
TEST_F(Xlate_Record, mode_pair_of_the_instruction_itself_is_in_the_header_only)
{
    Node node{};
    set_fetch(node, Z7_GuestHptOnHostHpt, full_address(0x0F, true));
    EXPECT_EQ(differences(record_of(node), plain_record()), "");
}

TEST_F(Xlate_Record, mode_20_has_its_pair_but_neither_segment_id_nor_page_and_19_has_all_three)
{
    Node node{};
    set_next(node, Z7_HostHptShortVA, full_address(0x0E, true));
    auto flags = record_of(node).header.control.fld;
    EXPECT_EQ(flags.guest_xlate_mode_instruction, 3u);
    EXPECT_EQ(flags.host_xlate_mode_instruction, 1u);
    EXPECT_EQ(flags.next_instruction_VSID_present, 0u);
    EXPECT_EQ(flags.next_instruction_RPN_present, 0u);
    EXPECT_EQ(flags.next_instruction_page_size_present, 0u);
    set_next(node, Z7_HostHptSTEGroup, full_address(0x0E, true));
    flags = record_of(node).header.control.fld;
    EXPECT_EQ(flags.next_instruction_VSID_present, 1u);
    EXPECT_EQ(flags.next_instruction_RPN_present, 1u);
    EXPECT_EQ(flags.next_instruction_page_size_present, 1u);
}

TEST_F(Xlate_Record, nested_walk_is_written_by_its_guest_and_host_depth)
{
    for (int g = 1; g <= 5; ++g)
        for (int h : {0, 1, 2, 3, 4, 5, 6, 255}) {
            const auto host = static_cast<uint8_t>(h), guest = static_cast<uint8_t>(g);
            const Captured_Address from_pc = full_address(0x0F, true, host, guest);
            const Captured_Address from_next = full_address(0x0E, true, host, guest);
            const Captured_Address from_data = full_address(0x0D, true, host, guest);
            Node node{};
            set_fetch(node, Z7_GuestRadixOnHostRadix, from_pc);
            set_next(node, Z7_GuestRadixOnHostRadix, from_next);
            set_data(node, Z7_GuestRadixOnHostRadix, from_data);
            QTRACE_RECORD want = with_node(plain_record(0, 0, 0, 0));
            put_next(want, node.nextPC, emitted(GUEST_RADIX, from_next, Side::next));
            put_data(want, node.info.data_addr, emitted(GUEST_RADIX, from_data, Side::data));
            EXPECT_EQ(differences(record_of(node), want), "") << "guest " << g << " host " << h;
            const QTRACE_FILE_HDR got = header_of(node);
            QTRACE_FILE_HDR header = plain_header(0, 0, got);
            put_iar(header, node.PC, emitted(GUEST_RADIX, from_pc, Side::header));
            EXPECT_EQ(differences(got, header), "") << "guest " << g << " host " << h;
        }
}

// The same by hand for the shallowest trees.
TEST_F(Xlate_Record, nested_walk_of_guest_depth_1_has_no_levels_and_its_only_host_walk_at_0)
{
    Node node{};
    const Captured_Address a = full_address(0x0E, true, 4, 1);
    set_next(node, Z7_GuestRadixOnHostRadix, a);
    const QTRACE_RECORD record = record_of(node);
    EXPECT_EQ(value_of(record.next_instruction_hRTW[0].RTPDE_ra_l3), a.hRTW[0].RTPDE_ra_l3);
    EXPECT_EQ(value_of(record.next_instruction_hRTW[0].RTPTE_ra), a.hRTW[0].RTPTE_ra);
    EXPECT_EQ(value_of(record.next_instruction_hRTW[1].RTPTE_ra), 0u);
    EXPECT_EQ(value_of(record.next_instruction_hRTW_host_RA[0].ra), 0u);
    EXPECT_EQ(value_of(record.next_instruction_gRTW.RTPDE_GUEST_ra_l1), 0u);
    EXPECT_EQ(value_of(record.next_instruction_gRTW.RTPTE_GUEST_ra), a.gRTW.RTPTE_GUEST_ra);
    EXPECT_EQ(value_of(record.next_instruction_gRTW.GUEST_ra), a.gRTW.GUEST_ra);
}

TEST_F(Xlate_Record, nested_walk_of_host_depth_1_has_page_table_entries_only)
{
    Node node{};
    const Captured_Address a = full_address(0x0D, true, 1, 5);
    set_data(node, Z7_GuestRadixOnHostRadix, a);
    const QTRACE_RECORD record = record_of(node);
    for (size_t n = 0; n < 5; ++n) {
        EXPECT_EQ(value_of(record.data_hRTW[n].RTPDE_ra_l1), 0u);
        EXPECT_EQ(value_of(record.data_hRTW[n].RTPTE_ra), a.hRTW[n].RTPTE_ra);
    }
}

TEST_F(Xlate_Record, fourth_directory_level_of_a_guest_and_its_root_are_never_written)
{
    Node node{};
    const Captured_Address a = full_address(0x0D, true);
    set_data(node, Z7_GuestRadixOnHostRadix, a);
    const QTRACE_RECORD record = record_of(node);
    EXPECT_EQ(value_of(record.data_gRTW.RTPDE_GUEST_ra_l4), 0u);
    EXPECT_EQ(value_of(record.data_gRTW.RTPDE_GUEST_ra_l1), a.gRTW.RTPDE_GUEST_ra_l1);
}

TEST_F(Xlate_Record, guest_depths_that_no_tree_has_touch_nothing_but_the_walk)
{
    for (int g : {0, 6, 7, 128, 254, 255}) {
        const auto guest = static_cast<uint8_t>(g);
        Node node{};
        set_fetch(node, Z7_GuestRadixOnHostRadix, full_address(0x0F, true, 4, guest));
        set_next(node, Z7_GuestRadixOnHostRadix, full_address(0x0E, true, 4, guest));
        set_data(node, Z7_GuestRadixOnHostRadix, full_address(0x0D, true, 4, guest));
        const Captured_Address none{};
        QTRACE_RECORD record = record_of(node);
        EXPECT_EQ(record.next_instruction_hRTW_depth, guest);
        EXPECT_EQ(record.data_hRTW_depth, guest);
        put_walks(record.next_instruction_hRTW, record.next_instruction_hRTW_host_RA, record.next_instruction_gRTW,
                  none);
        put_walks(record.data_hRTW, record.data_hRTW_host_RA, record.data_gRTW, none);
        QTRACE_RECORD want = with_node(plain_record(0, 0, 0, 0));
        Emitted next = emitted(GUEST_RADIX, full_address(0x0E, true, 4, 1), Side::next);
        Emitted data = emitted(GUEST_RADIX, full_address(0x0D, true, 4, 1), Side::data);
        next.depth = data.depth = guest;
        next.walks = data.walks = none;
        put_next(want, node.nextPC, next);
        put_data(want, node.info.data_addr, data);
        EXPECT_EQ(differences(record, want), "") << "guest " << g;

        QTRACE_FILE_HDR got = header_of(node);
        put_walks(got.iar_hRTW, got.iar_hRTW_host_RA, got.iar_gRTW, none);
        QTRACE_FILE_HDR header = plain_header(0, 0, got);
        Emitted iar = emitted(GUEST_RADIX, full_address(0x0F, true, 4, 1), Side::header);
        iar.depth = guest;
        iar.walks = none;
        put_iar(header, node.PC, iar);
        EXPECT_EQ(differences(got, header), "") << "guest " << g;
    }
}

TEST_F(Xlate_Record, depth_of_a_guest_real_address_is_one_more_and_wraps_at_8_bits)
{
    for (int g : {0, 1, 4, 5, 6, 254, 255}) {
        const auto guest = static_cast<uint8_t>(g);
        Node node{};
        set_fetch(node, Z7_GuestRealOnHostRadix, full_address(0x0F, false, 9, guest));
        set_next(node, Z7_GuestRealOnHostRadix, full_address(0x0E, false, 9, guest));
        set_data(node, Z7_GuestRealOnHostRadix, full_address(0x0D, false, 9, guest));
        const QTRACE_RECORD record = record_of(node);
        const QTRACE_FILE_HDR header = header_of(node);
        const auto raised = static_cast<uint8_t>(g + 1);
        EXPECT_EQ(record.next_instruction_hRTW_depth, raised);
        EXPECT_EQ(record.data_hRTW_depth, raised);
        EXPECT_EQ(header.iar_hRTW_depth, raised);
        EXPECT_EQ(record.next_instruction_hRTW_num_level, 9);
        EXPECT_EQ(record.data_hRTW_num_level, 9);
        EXPECT_EQ(header.iar_hRTW_num_level, 9);
    }
}

TEST_F(Xlate_Record, any_non_zero_relocation_counts_as_on)
{
    Node node{};
    Captured_Address a = full_address(0x0E, true);
    a.relocation = 0x80000000;
    set_next(node, Z7_HostHptSTEGroup, a);
    EXPECT_EQ(record_of(node).header.control.fld.next_instruction_VSID_present, 1u);
}

TEST_F(Xlate_Record, segment_id_keeps_its_upper_seven_bytes_lowest_first)
{
    const QTRACE_VSID expected = {0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    Captured_Address a = full_address(0x0E, true);
    a.VSID = 0x1122334455667788;
    Node node{};
    set_fetch(node, Z7_HostHptSTEGroup, a);
    set_next(node, Z7_HostHptSTEGroup, a);
    set_data(node, Z7_HostHptSTEGroup, a);
    const QTRACE_RECORD record = record_of(node);
    EXPECT_EQ(std::memcmp(record.next_instruction_vsid, expected, sizeof expected), 0);
    EXPECT_EQ(std::memcmp(record.data_vsid, expected, sizeof expected), 0);
    EXPECT_EQ(std::memcmp(header_of(node).iar_vsid, expected, sizeof expected), 0);
}

TEST_F(Xlate_Record, next_address_is_carried_with_i_or_with_n_without_t)
{
    for (int bits = 0; bits < 8; ++bits) {
        Node node{};
        set_next(node, Z7_HostHptSTEGroup, full_address(0x0E, true));
        node.I = (bits & 4) != 0;
        node.N = (bits & 2) != 0;
        node.T = (bits & 1) != 0;
        if (node.I && !node.N)
            continue; // a broken invariant
        const auto record = record_of(node);
        const auto flags = record.header.control.fld;
        const bool carried = node.I || (node.N && !node.T);
        EXPECT_EQ(flags.next_instruction_EA_present, carried) << bits;
        EXPECT_EQ(flags.next_instruction_VSID_present, carried) << bits;
        EXPECT_EQ(value_of(record.next_instruction_ea), carried ? node.nextPC : 0) << bits;
        EXPECT_EQ(record.next_instruction_hRTW_num_level, carried ? 4 : 0) << bits;
    }
}
