// From a node to what the writer is given: headers, partition headers, and records apart from translations.
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "assertion_report.h"
#include "record.h"
#include "record_comparison.h"
#include "traced_machine.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using Words = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

struct Record : testing::Test {
    Traced_Machine m{2, 2};
    Node node{};

    void SetUp() override
    {
        node.info.instbody = 0x12345678;
        node.info.branch = node.info.taken = '?';
        m.start();
    }
    // The record of `node` on a thread whose header has been written.
    QTRACE_RECORD dumped()
    {
        hdr_write[node.proc_index] = 1;
        EXPECT_EQ(dump_node(&node), 1u);
        return m.records(node.proc_index).back();
    }
    // The full header before `node`.
    Written_Header header()
    {
        hdr_write[node.proc_index] = 0;
        EXPECT_EQ(dump_node(&node), 1u);
        return m.headers(node.proc_index).back();
    }
};

// What a record without optional content holds.
QTRACE_RECORD bare_record(uint32_t word = 0x12345678)
{
    auto record = all_zero<QTRACE_RECORD>();
    record.header.instruction = word;
    auto &flags = record.header.control.fld;
    flags.secondary_extender_present = 1;
    flags.guest_xlate_mode_instruction = flags.host_xlate_mode_instruction = 3;
    flags.guest_xlate_mode_data = flags.host_xlate_mode_data = 3;
    return record;
}

} // namespace

// ---- record -------------------------------------------------------------------------------------------------

TEST_F(Record, without_optional_content_is_the_instruction_word_and_mode_pairs)
{
    EXPECT_EQ(differences(dumped(), bare_record()), "");
}

namespace
{

// Nothing zero, apart from what would lead to other headers, files and translations.
void set_everything(Node &node)
{
    std::memset(static_cast<void *>(&node), 1, sizeof node);
    node.proc_index = 0;
    node.partition_change = 0;
    node.pc_mmu_status = node.data_mmu_status = MMU_FAILURE;
    node.pc_xlate_type = node.data_xlate_type = REAL_MODE;
    node.pc_radix_type = node.nextPC_radix_type = node.data_radix_type = NOT_Radix;
    node.pc_guest_mode = node.pc_host_mode = node.data_guest_mode = node.data_host_mode = HOST_MODE_HPT;
    node.info.branch = 'U';
    node.reg_in = node.reg_out = {};
}

} // namespace

TEST_F(Record, of_a_node_with_everything_set_leaves_zero_what_is_never_set)
{
    set_everything(node);
    QTRACE_RECORD want = bare_record(0x01010101);
    auto &flags = want.header.control.fld;
    flags.iar_change_present = flags.node_present = flags.termination_present = 1;
    want.node = want.termination_node = 1;
    want.termination_code = 8;
    flags.next_instruction_EA_present = 1;
    put(want.next_instruction_ea, uint64_t{0x0101010101010101});
    want.next_instruction_hRTW_depth = want.next_instruction_hRTW_num_level = 1;
    flags.data_address_present = 1;
    put(want.data_ea, uint64_t{0x0101010101010101});
    want.data_hRTW_depth = want.data_hRTW_num_level = 1;
    flags.trace_error_code_present = 1;
    want.error_code = 8;
    flags.length_present = 1;
    want.length = 0x0101;
    EXPECT_EQ(differences(dumped(), want), "");
}

TEST_F(Record, reports_no_exception)
{
    node.info.except = 1;
    node.pc_mmu_status = MMU_EXCEPTION;
    EXPECT_EQ(differences(dumped(), bare_record()), "");
}

TEST_F(Record, of_one_instruction_leaves_nothing_in_the_next)
{
    set_everything(node);
    dumped();
    node = {};
    node.info.instbody = 0x12345678;
    EXPECT_EQ(differences(dumped(), bare_record()), "");
}

TEST_F(Record, leaves_its_node_as_it_was)
{
    node.partition_change = 1;
    node.I = node.N = node.T = 1;
    const Node before = node;
    header();
    dumped();
    EXPECT_EQ(std::memcmp(&before, &node, sizeof node), 0);
}

TEST_F(Record, goes_to_the_file_of_its_thread)
{
    node.proc_index = 2;
    dumped();
    EXPECT_EQ(recording_writer().file(102).items.size(), 1u);
    EXPECT_TRUE(recording_writer().file(100).items.empty());
}

// ---- node and termination -----------------------------------------------------------------------------------

TEST_F(Record, carries_number_and_termination_by_its_flags)
{
    struct {
        int i, n, t;
        unsigned change, number, termination, next;
    } const rows[] = {
        {0, 0, 0, 0, 0, 0, 0}, {0, 0, 1, 0, 0, 1, 0}, {0, 1, 0, 0, 1, 0, 1},
        {0, 1, 1, 0, 1, 1, 0}, {1, 1, 0, 1, 1, 0, 1}, {1, 1, 1, 1, 1, 1, 1},
    };
    for (const auto &row : rows) {
        node.I = static_cast<boolean>(row.i);
        node.N = static_cast<boolean>(row.n);
        node.T = static_cast<boolean>(row.t);
        node.nn = 200;
        const QTRACE_RECORD record = dumped();
        const auto flags = record.header.control.fld;
        EXPECT_EQ(flags.iar_change_present, row.change);
        EXPECT_EQ(flags.node_present, row.number);
        EXPECT_EQ(record.node, row.number ? 200 : 0);
        EXPECT_EQ(flags.termination_present, row.termination);
        EXPECT_EQ(record.termination_node, row.termination ? 200 : 0);
        EXPECT_EQ(record.termination_code, row.termination ? 64 : 0);
        EXPECT_EQ(flags.next_instruction_EA_present, row.next);
    }
}

TEST_F(Record, termination_by_an_unconditional_branch_has_code_8_and_any_other_64)
{
    node.T = 1;
    for (char branch : {'C', '?', 'u', '\0'}) {
        node.info.branch = branch;
        EXPECT_EQ(dumped().termination_code, 64);
    }
    node.info.branch = 'U';
    EXPECT_EQ(dumped().termination_code, 8);
}

TEST_F(Record, with_a_next_address_but_without_a_number_stops_the_program)
{
    node.I = 1;
    EXPECT_DEATH(dumped(), assertion_report("dump_node", "p->N"));
}

// ---- registers ----------------------------------------------------------------------------------------------

namespace
{

// `count` registers of every class, numbers and values told apart by class and position.
Plugin_Inst_Registers registers(int count, uint64_t side)
{
    Plugin_Inst_Registers r{};
    const auto value = [side](uint64_t kind, int i) {
        return (side << 56) | (kind << 32) | static_cast<uint64_t>(i);
    };
    const auto fill = [count](int &num, int *index, int capacity, int base) {
        num = count < capacity ? count : capacity;
        for (int i = 0; i < num; ++i)
            index[i] = base + i;
    };
    fill(r.gpr_num, r.gpr_index, MAX_GPRS, 100);
    fill(r.fpr_num, r.fpr_index, MAX_FPRS, 200);
    fill(r.spr_num, r.spr_index, MAX_SPRS, 300);
    fill(r.vmx_num, r.vmx_index, MAX_VMXRS, 400);
    fill(r.vsx_num, r.vsx_index, MAX_VSXRS, 500);
    for (int i = 0; i < r.gpr_num; ++i)
        r.gpr_value[i] = value(1, i);
    for (int i = 0; i < r.fpr_num; ++i)
        r.fpr_value[i] = value(2, i);
    for (int i = 0; i < r.spr_num; ++i)
        r.spr_value[i] = value(3, i);
    for (int i = 0; i < r.vmx_num; ++i)
        r.vmx_value[i] = {{value(4, i), value(5, i)}};
    for (int i = 0; i < r.vsx_num; ++i)
        r.vsx_value[i] = {{value(6, i), value(7, i)}};
    return r;
}

// The same registers as a record has them, at most as many as it has places for.
template <size_t N>
void put_registers(uint8_t &count, QTRACE_REGISTER_INFO (&to)[N], int num, const int *index, const uint64_t *value)
{
    count = static_cast<uint8_t>(std::min<int>(num, N));
    for (size_t i = 0; i < count; ++i) {
        to[i].index = static_cast<uint16_t>(index[i]);
        to[i].value = value[i];
    }
}

template <class Info, size_t N>
void put_vectors(uint8_t &count, Info (&to)[N], int num, const int *index, const QuadWord *value)
{
    count = static_cast<uint8_t>(std::min<int>(num, N));
    for (size_t i = 0; i < count; ++i) {
        to[i].index = static_cast<uint16_t>(index[i]);
        to[i].value[0] = value[i].word[0];
        to[i].value[1] = value[i].word[1];
    }
}

void put_in(QTRACE_REGISTERS &to, const Plugin_Inst_Registers &r)
{
    put_registers(to.num_gprs_in, to.gpr_in, r.gpr_num, r.gpr_index, r.gpr_value);
    put_registers(to.num_fprs_in, to.fpr_in, r.fpr_num, r.fpr_index, r.fpr_value);
    put_registers(to.num_sprs_in, to.spr_in, r.spr_num, r.spr_index, r.spr_value);
    put_vectors(to.num_vmxrs_in, to.vmxr_in, r.vmx_num, r.vmx_index, r.vmx_value);
    put_vectors(to.num_vsxrs_in, to.vsxr_in, r.vsx_num, r.vsx_index, r.vsx_value);
}

void put_out(QTRACE_REGISTERS &to, const Plugin_Inst_Registers &r)
{
    put_registers(to.num_gprs_out, to.gpr_out, r.gpr_num, r.gpr_index, r.gpr_value);
    put_registers(to.num_fprs_out, to.fpr_out, r.fpr_num, r.fpr_index, r.fpr_value);
    put_registers(to.num_sprs_out, to.spr_out, r.spr_num, r.spr_index, r.spr_value);
    put_vectors(to.num_vmxrs_out, to.vmxr_out, r.vmx_num, r.vmx_index, r.vmx_value);
    put_vectors(to.num_vsxrs_out, to.vsxr_out, r.vsx_num, r.vsx_index, r.vsx_value);
}

QTRACE_RECORD record_with(const Plugin_Inst_Registers &in, const Plugin_Inst_Registers &out)
{
    QTRACE_RECORD record = bare_record();
    record.header.control.fld.register_trace_present = 1;
    put_in(record.regs, in);
    put_out(record.regs, out);
    return record;
}

} // namespace

TEST_F(Record, carries_registers_of_every_class_read_and_written)
{
    for (int in : {0, 1, 2, 3})
        for (int out : {0, 1, 2, 3}) {
            if (in + out == 0)
                continue;
            node.reg_in = registers(in, 0xA);
            node.reg_out = registers(out, 0xB);
            EXPECT_EQ(differences(dumped(), record_with(node.reg_in, node.reg_out)), "")
                << in << " in, " << out << " out";
        }
}

TEST_F(Record, with_no_input_and_five_output_registers)
{
    node.reg_out.gpr_num = 5;
    for (int i = 0; i < 5; ++i) {
        node.reg_out.gpr_index[i] = i + 3;
        node.reg_out.gpr_value[i] = 0x1000 + static_cast<uint64_t>(i);
    }
    const QTRACE_RECORD record = dumped();
    EXPECT_EQ(record.header.control.fld.register_trace_present, 1u);
    EXPECT_EQ(record.regs.num_gprs_out, 5);
    EXPECT_EQ(record.regs.gpr_out[4].index, 7);
    EXPECT_EQ(record.regs.gpr_out[4].value, 0x1004u);
    EXPECT_EQ(differences(record, record_with({}, node.reg_out)), "");
}

TEST_F(Record, carries_one_register_of_one_class_on_one_side)
{
    for (int Plugin_Inst_Registers::*count :
         {&Plugin_Inst_Registers::gpr_num, &Plugin_Inst_Registers::fpr_num, &Plugin_Inst_Registers::spr_num,
          &Plugin_Inst_Registers::vmx_num, &Plugin_Inst_Registers::vsx_num})
        for (bool input : {true, false}) {
            Plugin_Inst_Registers one = registers(1, 0xC);
            const Plugin_Inst_Registers none{};
            one.gpr_num = one.fpr_num = one.spr_num = one.vmx_num = one.vsx_num = 0;
            one.*count = 1;
            node.reg_in = input ? one : none;
            node.reg_out = input ? none : one;
            EXPECT_EQ(differences(dumped(), record_with(node.reg_in, node.reg_out)), "");
        }
}

TEST_F(Record, keeps_entries_beyond_the_count_to_itself)
{
    node.reg_in = registers(3, 0xA);
    node.reg_in.gpr_num = node.reg_in.fpr_num = node.reg_in.spr_num = node.reg_in.vmx_num = node.reg_in.vsx_num = 1;
    EXPECT_EQ(differences(dumped(), record_with(node.reg_in, {})), "");
}

TEST_F(Record, carries_all_32_general_registers)
{
    node.reg_in = registers(32, 0xA);
    node.reg_out = registers(32, 0xB);
    const QTRACE_RECORD record = dumped();
    EXPECT_EQ(record.regs.num_gprs_in, 32);
    EXPECT_EQ(record.regs.gpr_in[31].index, 131);
    EXPECT_EQ(record.regs.gpr_out[31].value, (0xBull << 56) | (1ull << 32) | 31);
}

TEST_F(Record, clamps_counts_to_its_own_capacity)
{
    node.reg_in = registers(32, 0xA); // 4 floating, 6 special, 4 vector and vector-scalar: more than fit
    node.reg_out = registers(32, 0xB);
    const QTRACE_RECORD record = dumped();
    EXPECT_EQ(record.regs.num_fprs_in, 3);
    EXPECT_EQ(record.regs.num_sprs_in, 4);
    EXPECT_EQ(record.regs.num_vmxrs_in, 3);
    EXPECT_EQ(record.regs.num_vsxrs_in, 3);
    EXPECT_EQ(record.regs.num_fprs_out, 3);
    EXPECT_EQ(record.regs.num_sprs_out, 4);
    EXPECT_EQ(record.regs.num_vmxrs_out, 3);
    EXPECT_EQ(record.regs.num_vsxrs_out, 3);
    EXPECT_EQ(differences(record, record_with(node.reg_in, node.reg_out)), "");
}

TEST_F(Record, survives_counts_that_no_host_has)
{
    for (int count : {33, 100, 200, 255, 0x7FFF}) {
        node.reg_in = registers(32, 0xA);
        node.reg_in.gpr_num = node.reg_in.fpr_num = node.reg_in.spr_num = count;
        node.reg_in.vmx_num = node.reg_in.vsx_num = count;
        node.reg_out = node.reg_in;
        const QTRACE_REGISTERS regs = dumped().regs;
        EXPECT_EQ(regs.num_gprs_in, 32) << count;
        EXPECT_EQ(regs.num_sprs_in, 4) << count;
        EXPECT_EQ(regs.num_vsxrs_in, 3) << count;
        EXPECT_EQ(regs.num_gprs_out, 32) << count;
        EXPECT_EQ(regs.gpr_in[31].index, 131) << count;
        EXPECT_EQ(regs.vmxr_out[2].index, 402) << count;
    }
}

TEST_F(Record, has_a_register_trace_when_the_sum_of_all_ten_counts_is_above_0)
{
    struct Counts {
        int in, out;
        bool present;
    };
    for (const Counts counts : {Counts{-1, 2, true}, Counts{2, -1, true}, Counts{-2, 2, false},
                                Counts{2, -2, false}, Counts{-3, 2, false}, Counts{2, -3, false}}) {
        node.reg_in.gpr_num = counts.in;
        node.reg_out.vsx_num = counts.out;
        const QTRACE_RECORD record = dumped();
        EXPECT_EQ(record.header.control.fld.register_trace_present, counts.present)
            << counts.in << " " << counts.out;
        EXPECT_EQ(record.regs.num_gprs_in, std::max(counts.in, 0));
        EXPECT_EQ(record.regs.num_vsxrs_out, std::max(counts.out, 0));
    }
}

TEST_F(Record, carries_the_registers_of_a_direction_when_the_sum_of_its_counts_is_above_0)
{
    node.reg_in.gpr_num = 2;
    node.reg_in.spr_num = -2;
    node.reg_out.gpr_num = 2;
    node.reg_out.fpr_num = -1;
    const QTRACE_RECORD record = dumped();
    EXPECT_EQ(record.regs.num_gprs_in, 0);
    EXPECT_EQ(record.regs.num_gprs_out, 2);
    EXPECT_EQ(record.header.control.fld.register_trace_present, 1u);
}

TEST_F(Record, cuts_register_numbers_to_16_bits)
{
    node.reg_in.spr_num = 1;
    node.reg_in.spr_index[0] = 0x12345;
    EXPECT_EQ(dumped().regs.spr_in[0].index, 0x2345);
}

// ---- data address -------------------------------------------------------------------------------------------

TEST_F(Record, carries_the_data_address_of_a_load_store_or_cache_instruction_when_it_is_valid)
{
    for (int bits = 0; bits < 16; ++bits) {
        node.info.load = (bits & 1) != 0;
        node.info.store = (bits & 2) != 0;
        node.info.cache = (bits & 4) != 0;
        node.info.data_addr_valid = (bits & 8) != 0;
        node.info.data_addr = 0x123456789ABCDEF0;
        node.data_host_walkdepth = 4;
        node.data_guest_walkdepth = 2;
        QTRACE_RECORD want = bare_record();
        if ((bits & 8) && (bits & 7)) {
            want.header.control.fld.data_address_present = 1;
            put(want.data_ea, node.info.data_addr);
            want.data_hRTW_num_level = 4;
            want.data_hRTW_depth = 2;
        }
        EXPECT_EQ(differences(dumped(), want), "") << bits;
    }
}

TEST_F(Record, calls_a_data_address_suspect_unless_its_translation_succeeded)
{
    node.info.store = node.info.data_addr_valid = 1;
    for (int status = 0; status <= 9; ++status) {
        node.data_mmu_status = static_cast<MMUStatus>(status);
        const QTRACE_RECORD record = dumped();
        EXPECT_EQ(record.header.control.fld.trace_error_code_present, status != 0) << status;
        EXPECT_EQ(record.error_code, status != 0 ? 8 : 0) << status;
        EXPECT_EQ(record.header.control.fld.secondary_extender_present, 1u);
    }
}

TEST_F(Record, without_a_data_address_has_no_error_code)
{
    node.info.load = 1;
    node.data_mmu_status = MMU_FAILURE;
    EXPECT_EQ(differences(dumped(), bare_record()), "");
    node.info.load = 0;
    node.info.data_addr_valid = 1;
    EXPECT_EQ(differences(dumped(), bare_record()), "");
}

TEST_F(Record, carries_the_length_of_a_string_instruction_unless_it_is_unknown)
{
    node.info.string = 1;
    for (int length : {0, 1, 0xFFFE}) {
        node.info.str_len = static_cast<uint16_t>(length);
        QTRACE_RECORD want = bare_record();
        want.header.control.fld.length_present = 1;
        want.length = static_cast<uint16_t>(length);
        EXPECT_EQ(differences(dumped(), want), "") << length;
    }
    node.info.str_len = 0xFFFF;
    EXPECT_EQ(differences(dumped(), bare_record()), "");
    node.info.string = 0;
    node.info.str_len = 5;
    EXPECT_EQ(differences(dumped(), bare_record()), "");
}

// ---- processor ----------------------------------------------------------------------------------------------

TEST_F(Record, names_the_processor_only_right_after_a_full_header)
{
    node.proc_index = 3;
    header();
    const QTRACE_RECORD first = m.records(3).back();
    QTRACE_RECORD want = bare_record();
    want.header.control.fld.processor_present = 1;
    want.processor = 3;
    EXPECT_EQ(differences(first, want), "");
    EXPECT_EQ(hdr_write[3], 1u);
    ASSERT_EQ(dump_node(&node), 1u);
    EXPECT_EQ(differences(m.records(3).back(), bare_record()), "");
}

TEST_F(Record, after_a_partition_header_does_not_name_the_processor)
{
    node.partition_change = 1;
    EXPECT_EQ(differences(dumped(), bare_record()), "");
}

TEST(record_of_a_thread_beyond_255, names_the_low_8_bits)
{
    Traced_Machine m;
    std::vector<boolean> written(301);
    std::vector<QTRACE_FDESCR> files(301, QTRACE_Fopen("thread300", QTRACE_WRITE));
    Node node{};
    node.proc_index = 300;
    hdr_write = written.data();
    qfile_in_bin = files.data();
    EXPECT_EQ(dump_node(&node), 1u);
    hdr_write = nullptr;
    qfile_in_bin = nullptr;
    EXPECT_EQ(written[300], 1u);
    const auto &items = recording_writer().file(files[0]).items;
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(std::get<QTRACE_RECORD>(items[1]).processor, 300 - 256);
}

// ---- file header --------------------------------------------------------------------------------------------

namespace
{

std::string comment_of(Record &test)
{
    return test.header().comment;
}

} // namespace

TEST_F(Record, full_header_describes_the_first_instruction_and_its_thread)
{
    node.PC = 0x123456789ABCDEF0;
    node.ptcr = 0x1111111122222222;
    node.lpid = 0x3333333344444444;
    node.pid = 0x55555555;
    node.sdr1 = 0x6666666677777777;
    node.pc_host_walkdepth = 4;
    node.pc_guest_walkdepth = 2;
    const Written_Header written = header();
    auto want = all_zero<QTRACE_FILE_HDR>();
    want.control.iar_is_present = want.control.sdr1_is_present = 1;
    want.control.version_number_present = want.control.comment_present = 1;
    auto &flags = want.sec_ext_controlword.control.fld;
    flags.secondary_extender_present = 1;
    flags.ptcr_is_present = flags.lpid_is_present = flags.pid_is_present = 1;
    flags.guest_xlate_mode_instruction = flags.host_xlate_mode_instruction = 3;
    put(want.iar, node.PC);
    put(want.ptcr, node.ptcr);
    put(want.lpid, node.lpid);
    put(want.pid, node.pid);
    put(want.sdr1, node.sdr1);
    want.iar_hRTW_num_level = 4;
    want.iar_hRTW_depth = 2;
    want.comment_length = static_cast<uint16_t>(written.comment.size());
    EXPECT_EQ(differences(written.header, want), "");
}

TEST_F(Record, full_header_without_an_sdr1_does_not_claim_one)
{
    const QTRACE_FILE_HDR h = header().header;
    EXPECT_EQ(h.control.sdr1_is_present, 0u);
    EXPECT_EQ(value_of(h.sdr1), 0u);
}

TEST_F(Record, full_header_announces_a_version_of_0)
{
    const QTRACE_FILE_HDR h = header().header;
    EXPECT_EQ(h.control.version_number_present, 1u);
    EXPECT_EQ(h.version, 0u);
    EXPECT_EQ(h.magic, 0u);
}

TEST_F(Record, comment_tells_host_machine_and_page_sizes)
{
    node.kelvo_ver = 3;
    node.bitmode64 = 1;
    node.memused = 268435456;
    node.pages_used.PAGE_4K = node.pages_used.PAGE_64K = 1;
    EXPECT_EQ(comment_of(*this), "KelvoVer:3,64bitMode:True,LEMode:False,MemUsed:268435456,HostPagesUsed:4K 64K ,"
                                 "GuestPagesUsed:");
}

TEST_F(Record, comment_without_any_page_size)
{
    node.littleendian = 2;
    EXPECT_EQ(comment_of(*this), "KelvoVer:0,64bitMode:False,LEMode:True,MemUsed:0,HostPagesUsed:,GuestPagesUsed:");
}

TEST_F(Record, comment_with_every_page_size)
{
    const std::string all = "4K 16K 64K 128K 256K 1M 2M 16M 256M 1G 16G undefined ";
    std::memset(static_cast<void *>(&node.pages_used), 1, sizeof node.pages_used);
    EXPECT_EQ(comment_of(*this),
              "KelvoVer:0,64bitMode:False,LEMode:False,MemUsed:0,HostPagesUsed:" + all + ",GuestPagesUsed:");
    std::memset(static_cast<void *>(&node.gpages_used), 1, sizeof node.gpages_used);
    EXPECT_EQ(comment_of(*this),
              "KelvoVer:0,64bitMode:False,LEMode:False,MemUsed:0,HostPagesUsed:" + all + ",GuestPagesUsed:" + all);
}

TEST_F(Record, comment_with_each_page_size_alone)
{
    const char *const words[] = {"4K ", "16K ", "64K ",  "128K ", "256K ", "1M ",
                                 "2M ", "16M ", "256M ", "1G ",   "16G ",  "undefined "};
    for (size_t i = 0; i < 12; ++i) {
        boolean pages[12] = {};
        pages[i] = 1;
        std::memcpy(&node.pages_used, pages, sizeof pages);
        std::memcpy(&node.gpages_used, pages, sizeof pages);
        EXPECT_EQ(comment_of(*this),
                  std::string("KelvoVer:0,64bitMode:False,LEMode:False,MemUsed:0,HostPagesUsed:") + words[i] +
                      ",GuestPagesUsed:" + words[i]);
    }
}

TEST_F(Record, comment_prints_version_and_memory_as_signed_numbers)
{
    node.kelvo_ver = 0xFFFFFFFF;
    node.memused = 0x8000000000000000;
    EXPECT_EQ(comment_of(*this), "KelvoVer:-1,64bitMode:False,LEMode:False,MemUsed:-9223372036854775808,"
                                 "HostPagesUsed:,GuestPagesUsed:");
}

TEST_F(Record, comment_is_terminated_and_its_length_leaves_the_terminator_out)
{
    const Written_Header written = header();
    EXPECT_EQ(written.header.comment_length, written.comment.size());
    EXPECT_EQ(written.comment.find('\0'), std::string::npos);
}

// ---- partition header ---------------------------------------------------------------------------------------

TEST_F(Record, partition_header_tells_lpid_and_pid_only)
{
    node.partition_change = 1;
    node.PC = 0x1000;
    node.ptcr = 0x1111;
    node.lpid = 0x3333333344444444;
    node.pid = 0x55555555;
    node.sdr1 = 0x6666;
    node.pc_radix_type = Z7_GuestRadixOnHostRadix;
    node.pc_host_walkdepth = node.pc_guest_walkdepth = 4;
    node.kelvo_ver = 3;
    dumped();
    const Written_Header written = m.headers().back();
    auto want = all_zero<QTRACE_FILE_HDR>();
    want.sec_ext_controlword.control.fld.lpid_is_present = 1;
    want.sec_ext_controlword.control.fld.pid_is_present = 1;
    put(want.lpid, node.lpid);
    put(want.pid, node.pid);
    EXPECT_EQ(differences(written.header, want), "");
    EXPECT_EQ(written.comment, "");
    EXPECT_EQ(m.order(), "HR");
}

TEST_F(Record, that_opens_a_file_and_changes_the_partition_has_both_headers_in_front)
{
    node.partition_change = 1;
    EXPECT_EQ(dump_node(&node), 1u);
    EXPECT_EQ(m.order(), "HHR");
    EXPECT_EQ(m.headers().at(0).header.control.iar_is_present, 1u);
    EXPECT_EQ(m.headers().at(1).header.control.iar_is_present, 0u);
    EXPECT_EQ(m.records().at(0).header.control.fld.processor_present, 1u);
    EXPECT_EQ(node.partition_change, 1u) << "whoever writes the batch clears it";
}

// ---- failures, through the commit event ---------------------------------------------------------------------

namespace
{

struct Writer_Failure : testing::Test {
    Traced_Machine m;

    void SetUp() override
    {
        replay::host().set_context(0, {.lpid = 1});
        m.start();
    }
    void commit(uint32_t word) { m.commit({.seq = word, .pc = 0x1000 + 4 * uint64_t{word}, .op = word}); }
    void expect_one_warning(const std::string &text)
    {
        ASSERT_EQ(m.warnings(), Texts{text});
        const auto warning = std::find_if(m.messages().begin(), m.messages().end(), [](const auto &message) {
            return message.channel == replay::Channel::warning;
        });
        EXPECT_EQ(warning->level, 2);
    }
};

} // namespace

TEST_F(Writer_Failure, of_the_first_header_loses_that_record_and_the_next_instruction_opens_the_file)
{
    recording_writer().fail_header(1);
    commit(1);
    commit(2);
    expect_one_warning("Cannot write qtrace file hdr");
    EXPECT_EQ(hdr_write[0], 0u);
    EXPECT_EQ(m.order(), "");
    commit(3);
    m.stop();
    EXPECT_EQ(m.order(), "HRR");
    EXPECT_EQ(m.instruction_words(), (Words{2, 3}));
    EXPECT_EQ(value_of(m.headers().at(0).header.iar), 0x1008u) << "the header is that of the second instruction";
    EXPECT_EQ(m.records().at(0).header.control.fld.processor_present, 1u);
    EXPECT_EQ(m.warnings().size(), 1u);
}

TEST_F(Writer_Failure, of_every_header_warns_once_an_instruction)
{
    recording_writer().fail_header(1, true);
    for (uint32_t word : {1, 2, 3, 4})
        commit(word);
    EXPECT_EQ(m.warnings(), Texts(3, "Cannot write qtrace file hdr"));
    EXPECT_EQ(m.order(), "");
}

TEST_F(Writer_Failure, of_the_first_header_makes_no_partition_header)
{
    commit(1);
    replay::host().set_context(0, {.lpid = 2});
    recording_writer().fail_header(1, true);
    commit(2); // carries the change
    commit(3); // tries 2
    EXPECT_EQ(m.warnings(), Texts(2, "Cannot write qtrace file hdr"));
    const auto &calls = recording_writer().calls();
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const Writer_Call &call) { return call.kind == Writer_Call::Kind::header; }),
              2);
}

TEST_F(Writer_Failure, of_a_partition_header_loses_that_record_and_tracing_goes_on)
{
    commit(1);
    replay::host().set_context(0, {.lpid = 2});
    commit(2);
    recording_writer().fail_header(1);
    commit(3);
    expect_one_warning("Attempted to write qtrace file hdr to update lpid and pid.");
    commit(4);
    m.stop();
    EXPECT_EQ(m.order(), "HRRR");
    EXPECT_EQ(m.instruction_words(), (Words{1, 3, 4}));
}

TEST_F(Writer_Failure, of_a_record_loses_it_and_tracing_goes_on)
{
    recording_writer().fail_record(2);
    for (uint32_t word : {1, 2, 3, 4})
        commit(word);
    expect_one_warning("QTRACE_WriteRecord fail");
    m.stop();
    EXPECT_EQ(m.instruction_words(), (Words{1, 3, 4}));
    EXPECT_EQ(m.order(), "HRRR");
}

TEST_F(Writer_Failure, of_the_first_record_leaves_the_header_written_and_no_record_names_the_processor)
{
    recording_writer().fail_record(1);
    for (uint32_t word : {1, 2, 3})
        commit(word);
    EXPECT_EQ(m.order(), "HR");
    EXPECT_EQ(m.records().at(0).header.control.fld.processor_present, 0u);
}

TEST_F(Writer_Failure, is_the_result_of_dump_node)
{
    Node node{};
    recording_writer().fail_header(1);
    EXPECT_EQ(dump_node(&node), 0u);
    EXPECT_EQ(dump_node(&node), 1u);
    recording_writer().fail_record(1);
    EXPECT_EQ(dump_node(&node), 0u);
    node.partition_change = 1;
    recording_writer().fail_header(1);
    EXPECT_EQ(dump_node(&node), 0u);
    EXPECT_EQ(dump_node(&node), 1u);
}

TEST_F(Writer_Failure, at_stop_is_reported_and_the_files_are_closed)
{
    commit(1);
    commit(2);
    recording_writer().fail_record(1);
    m.stop();
    expect_one_warning("QTRACE_WriteRecord fail");
    EXPECT_EQ(recording_writer().open_files(), 0u);
}

TEST_F(Writer_Failure, of_one_thread_does_not_touch_another)
{
    Traced_Machine *machine = &m;
    machine->stop();
    plugin_quit();
    Traced_Machine two(1, 2);
    two.start();
    recording_writer().fail_header(1);
    two.commit_run(2, 0); // header of thread 0 fails
    two.commit_run(2, 1);
    EXPECT_EQ(two.order(0), "");
    EXPECT_EQ(two.order(1), "HR");
}

// ---- headers over a session ---------------------------------------------------------------------------------

TEST(headers_of_a_session, full_one_with_a_comment_at_the_start_and_after_each_resume)
{
    Traced_Machine m;
    m.start();
    m.commit_run(3);
    m.signal({"pause"});
    m.signal({"resume"});
    m.commit_run(2);
    m.signal({"pause"});
    m.signal({"resume"});
    m.commit_run(1);
    m.stop();
    EXPECT_EQ(m.order(), "HRRRHRRHR");
    for (const Written_Header &header : m.headers()) {
        EXPECT_EQ(header.header.control.comment_present, 1u);
        EXPECT_TRUE(header.comment.starts_with("KelvoVer:3,"));
    }
    size_t named = 0;
    for (const QTRACE_RECORD &record : m.records())
        named += record.header.control.fld.processor_present;
    EXPECT_EQ(named, 3u);
}

TEST(headers_of_a_session, header_is_written_with_the_first_record_and_not_at_start)
{
    Traced_Machine m;
    m.start();
    m.commit_run(1);
    EXPECT_EQ(m.order(), "");
    m.commit_run(1);
    EXPECT_EQ(m.order(), "HR");
}
