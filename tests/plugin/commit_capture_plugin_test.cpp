// What a node captures of the instruction that commits.
#include "commit_fixture.h"

#include "captured_address.h"

#include <cstring>
#include <unistd.h>

TEST_F(Commit, captures_identity_and_addresses)
{
    replay::Instruction instruction{
        .tid = 3, .seq = 0xFEDCBA9876543210, .pc = 0x8000000012345678, .npc = 0x8000000012345FFC, .op = 0xDEADBEEF};
    m.commit(instruction);
    const Node &node = *last_commit[3];
    EXPECT_EQ(node.proc_index, 3);
    EXPECT_EQ(node.seq, 0xFEDCBA9876543210);
    EXPECT_EQ(node.PC, 0x8000000012345678);
    EXPECT_EQ(node.nextPC, 0x8000000012345FFC);
    EXPECT_EQ(node.info.instbody, 0xDEADBEEF);
    EXPECT_TRUE(node.done);
    EXPECT_TRUE(node.commit);
    EXPECT_EQ(node.terminated_seq, 0u);
}

TEST_F(Commit, captures_registers_of_the_machine_and_state_of_the_thread)
{
    PAGE_SIZES_USED host_pages{}, guest_pages{};
    host_pages.PAGE_64K = host_pages.PAGE_undefined = 1;
    guest_pages.PAGE_4K = guest_pages.PAGE_16G = 1;
    replay::host().set_context(1, {.ptcr = 0x1111111122222222,
                                   .lpid = 0x3333333344444444,
                                   .pid = 0x55555555,
                                   .sdr1 = 0x6666666677777777,
                                   .bit64 = true,
                                   .little_endian = true,
                                   .kernel = true,
                                   .cycle_mode = false,
                                   .pages = host_pages,
                                   .guest_pages = guest_pages});
    const Node &node = capture({.tid = 1});
    EXPECT_EQ(node.ptcr, 0x1111111122222222u);
    EXPECT_EQ(node.lpid, 0x3333333344444444u);
    EXPECT_EQ(node.pid, 0x55555555u);
    EXPECT_EQ(node.sdr1, 0x6666666677777777u);
    EXPECT_TRUE(node.bitmode64);
    EXPECT_TRUE(node.littleendian);
    EXPECT_TRUE(node.info.kernel);
    EXPECT_TRUE(node.simple);
    EXPECT_EQ(node.kelvo_ver, 3u);
    EXPECT_EQ(node.memused, 0x10000000u);
    EXPECT_EQ(std::memcmp(&node.pages_used, &host_pages, sizeof host_pages), 0);
    EXPECT_EQ(std::memcmp(&node.gpages_used, &guest_pages, sizeof guest_pages), 0);
}

TEST_F(Commit, captures_the_other_state_of_the_thread)
{
    replay::host().set_context(1, {.cycle_mode = true});
    const Node &node = capture({.tid = 1});
    EXPECT_FALSE(node.bitmode64);
    EXPECT_FALSE(node.littleendian);
    EXPECT_FALSE(node.info.kernel);
    EXPECT_FALSE(node.simple);
}

TEST_F(Commit, captures_both_translation_descriptors)
{
    const auto answers = [](int from) {
        replay::Address_Answers a;
        a.status = static_cast<MMUStatus>(from);
        a.mode = static_cast<RDX_XLATE_MODE>(from + 1);
        a.guest_mode = static_cast<RDX_MODE>(from % 4 + 1);
        a.host_mode = static_cast<RDX_MODE>(from % 4 + 2);
        a.host_two_level = static_cast<uint8_t>(from + 4);
        a.guest_two_level = static_cast<uint8_t>(from + 5);
        a.host_depth = static_cast<uint8_t>(from + 6);
        a.guest_depth = static_cast<uint8_t>(from + 7);
        return a;
    };
    const Node &node = capture({.fetch = answers(4), .data = answers(7)});
    EXPECT_EQ(node.pc_mmu_status, 4);
    EXPECT_EQ(node.pc_radix_type, 5);
    EXPECT_EQ(node.pc_guest_mode, 1);
    EXPECT_EQ(node.pc_host_mode, 2);
    EXPECT_EQ(node.pc_host_twolevel, 8);
    EXPECT_EQ(node.pc_guest_twolevel, 9);
    EXPECT_EQ(node.pc_host_walkdepth, 10);
    EXPECT_EQ(node.pc_guest_walkdepth, 11);
    EXPECT_EQ(node.pc_xlate_type, RADIX_MODE);
    EXPECT_EQ(node.pc_twolevel, 0);
    EXPECT_EQ(node.data_mmu_status, 7);
    EXPECT_EQ(node.data_radix_type, 8);
    EXPECT_EQ(node.data_guest_mode, 4);
    EXPECT_EQ(node.data_host_mode, 5);
    EXPECT_EQ(node.data_host_twolevel, 11);
    EXPECT_EQ(node.data_guest_twolevel, 12);
    EXPECT_EQ(node.data_host_walkdepth, 13);
    EXPECT_EQ(node.data_guest_walkdepth, 14);
    EXPECT_EQ(node.data_xlate_type, 0);
    EXPECT_EQ(node.data_twolevel, 0);
}

TEST_F(Commit, captures_the_data_address_also_when_it_is_not_valid)
{
    const Node &node = capture({.ea_valid = false, .ea = 0x123456789ABCDEF0});
    EXPECT_EQ(node.info.data_addr, 0x123456789ABCDEF0u);
    EXPECT_FALSE(node.info.data_addr_valid);
}

TEST_F(Commit, captures_each_kind_of_instruction)
{
    EXPECT_TRUE(capture({.load = true}).info.load);
    EXPECT_TRUE(capture({.store = true}).info.store);
    EXPECT_TRUE(capture({.cache = true}).info.cache);
    EXPECT_TRUE(capture({.exception = true}).info.except);
    EXPECT_TRUE(capture({.ea_valid = true}).info.data_addr_valid);
    const First_OP_Info &plain = capture({}).info;
    EXPECT_FALSE(plain.load || plain.store || plain.cache || plain.except || plain.data_addr_valid || plain.string);
}

TEST_F(Commit, captures_kind_and_outcome_of_a_branch)
{
    const auto letters = [this](bool branch, bool unconditional, bool taken) {
        const Node &node = capture({.branch = branch, .unconditional = unconditional, .taken = taken});
        return std::string{node.info.branch, node.info.taken};
    };
    EXPECT_EQ(letters(true, true, true), "UY");
    EXPECT_EQ(letters(true, true, false), "UN");
    EXPECT_EQ(letters(true, false, true), "CY");
    EXPECT_EQ(letters(true, false, false), "CN");
    EXPECT_EQ(letters(false, true, true), "??");
    EXPECT_EQ(letters(false, false, false), "??");
}

TEST_F(Commit, captures_the_length_of_string_instructions_only)
{
    EXPECT_EQ(capture({.string = true, .string_length = 0xFFFF}).info.str_len, 0xFFFF);
    EXPECT_EQ(capture({.string = true, .string_length = 17}).info.str_len, 17);
    EXPECT_EQ(capture({.string = false, .string_length = 17}).info.str_len, 0);
}

TEST_F(Commit, captures_the_fixed_word_of_a_pseudo_instruction)
{
    EXPECT_EQ(capture({.op = 0x12345678, .sim_support = true}).info.instbody, 0x7EB5AB78u);
}

TEST_F(Commit, captures_registers_read_and_written)
{
    replay::Instruction instruction;
    instruction.in.gpr_num = 2;
    instruction.in.gpr_index[1] = 31;
    instruction.in.gpr_value[1] = 0x1122334455667788;
    instruction.in.vmx_num = 1;
    instruction.in.vmx_value[0] = {{1, 2}};
    instruction.out.spr_num = 6;
    instruction.out.spr_index[5] = 1023;
    instruction.out.spr_value[5] = 42;
    instruction.out.vsx_num = 4;
    instruction.out.vsx_value[3] = {{3, 4}};
    instruction.out.fpr_num = 4;
    instruction.out.fpr_value[3] = 5;
    const Plugin_Inst_Registers in = instruction.in, out = instruction.out;
    const Node &node = capture(instruction);
    EXPECT_EQ(std::memcmp(&node.reg_in, &in, sizeof in), 0);
    EXPECT_EQ(std::memcmp(&node.reg_out, &out, sizeof out), 0);
}

TEST_F(Commit, captures_no_name_without_a_text_trace)
{
    EXPECT_STREQ(capture({.text = "add r3,r4,r5"}).info.name, "");
}

TEST(commit_with_a_text_trace, captures_the_name_cut_to_63_characters)
{
    Traced_Machine m;
    m.start_with_text();
    m.commit({.seq = 1, .pc = 0x1000, .text = "add r3,r4,r5"});
    EXPECT_STREQ(last_commit[0]->info.name, "add r3,r4,r5");
    m.commit({.seq = 2, .pc = 0x1004, .text = std::string(100, 'x')});
    EXPECT_EQ(last_commit[0]->info.name, std::string(63, 'x'));
}

TEST_F(Commit, leaves_zero_what_it_does_not_capture)
{
    Node expected{};
    expected.proc_index = 0;
    expected.seq = 1;
    expected.PC = 0x1000;
    expected.nextPC = 0x1004;
    expected.simple = expected.done = expected.commit = 1;
    expected.kelvo_ver = 3;
    expected.memused = 0x10000000;
    expected.pc_xlate_type = UNDEFINED_MODE;
    expected.info.branch = expected.info.taken = '?';
    m.commit({.seq = 1, .pc = 0x1000});
    const auto *got = reinterpret_cast<const unsigned char *>(last_commit[0]);
    const auto *want = reinterpret_cast<const unsigned char *>(&expected);
    for (size_t i = 0; i < sizeof(Node); ++i)
        ASSERT_EQ(got[i], want[i]) << "byte " << i;
}

// Nodes that were written are gone; whoever reuses their memory has to clear it.
TEST_F(Commit, leaves_nothing_of_an_earlier_instruction_in_a_later_one)
{
    const auto full = [](uint8_t tag) {
        auto answers = distinct_answers(tag, Z7_GuestRadixOnHostRadix);
        answers.guest_two_level = 1;
        return answers;
    };
    for (int i = 0; i < 8; ++i) {
        replay::Instruction rich{.branch = true,
                                 .taken = true,
                                 .load = true,
                                 .string = true,
                                 .exception = true,
                                 .ea_valid = true,
                                 .string_length = 99,
                                 .ea = 0x2000,
                                 .fetch = full(0xF),
                                 .data = full(0xD)};
        rich.in.gpr_num = rich.out.gpr_num = 32;
        std::fill(std::begin(rich.in.gpr_value), std::end(rich.in.gpr_value), 7);
        std::fill(std::begin(rich.out.gpr_value), std::end(rich.out.gpr_value), 7);
        capture(rich);
    }
    capture({});
    const Node &node = capture({});
    EXPECT_EQ(describe(fetch_of(node)), "");
    EXPECT_EQ(describe(next_of(node)), "");
    EXPECT_EQ(describe(data_of(node)), "");
    EXPECT_EQ(node.reg_in.gpr_value[31], 0u);
    EXPECT_EQ(node.reg_out.gpr_value[31], 0u);
    EXPECT_EQ(node.info.str_len, 0);
    EXPECT_EQ(node.info.except, 0u);
    EXPECT_EQ(node.left, nullptr);
    EXPECT_EQ(node.right, nullptr);
    EXPECT_EQ(node.I, 0u);
    EXPECT_EQ(node.nn, 0);
}
