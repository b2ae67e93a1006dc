// What register flow compares, and where it takes the registers for lost: every register file, every special register,
// every instruction word that matters, written here by hand.
#include "register_flow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using qtrace_tool::goes_on_visibly;
using qtrace_tool::Register_Flow;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr uint32_t word_of(uint32_t primary, uint32_t extended = 0)
{
    return primary << 26 | extended << 1;
}
constexpr uint32_t ADD = word_of(14), SYSTEM_CALL = word_of(17);

QTRACE_Item item_of(uint32_t word)
{
    QTRACE_Item item{};
    item.kind = QTRACE_ITEM_RECORD;
    item.address = 0x1000;
    item.address_known = 1;
    item.record.header.instruction = word;
    return item;
}

// The trace goes on at `next`, which is not the following instruction.
QTRACE_Item jump(uint32_t word, uint64_t next)
{
    QTRACE_Item item = item_of(word);
    auto &flags = item.record.header.control.fld;
    flags.iar_change_present = flags.next_instruction_EA_present = 1;
    std::memcpy(item.record.next_instruction_ea, &next, sizeof next);
    return item;
}

bool arrives(uint32_t word, uint64_t next, uint16_t special, uint64_t value)
{
    QTRACE_Item item = jump(word, next);
    item.record.regs.num_sprs_in = 2;
    item.record.regs.spr_in[0] = {1, 0x7770};
    item.record.regs.spr_in[1] = {special, value};
    return goes_on_visibly(item);
}

} // namespace

// ---- Where instructions may be missing -------------------------------------------------------------------

TEST(goes_on_visibly, is_false_after_power_saving_and_transactions)
{
    for (const uint32_t low : {370u, 402u, 434u, 466u, 498u}) {
        EXPECT_FALSE(goes_on_visibly(item_of(word_of(19, low)))) << low;
        for (const uint32_t other : {low - 1, low + 1})
            EXPECT_TRUE(goes_on_visibly(item_of(word_of(19, other)))) << other;
        EXPECT_TRUE(goes_on_visibly(item_of(word_of(18, low)))) << low;
        EXPECT_TRUE(goes_on_visibly(item_of(word_of(31, low)))) << low;
    }
    for (const uint32_t low : {942u, 1006u}) {
        EXPECT_FALSE(goes_on_visibly(item_of(word_of(31, low)))) << low;
        for (const uint32_t other : {low - 1, low + 1})
            EXPECT_TRUE(goes_on_visibly(item_of(word_of(31, other)))) << other;
        for (const uint32_t primary : {19u, 30u, 32u})
            EXPECT_TRUE(goes_on_visibly(item_of(word_of(primary, low)))) << primary;
    }
}

TEST(goes_on_visibly, is_false_where_the_privilege_changes_and_the_record_does_not_say_where)
{
    for (const uint32_t low : {18u, 82u, 146u, 274u, 306u})
        EXPECT_FALSE(goes_on_visibly(item_of(word_of(19, low)))) << low;
    EXPECT_TRUE(goes_on_visibly(item_of(word_of(19, 16))));
    EXPECT_TRUE(goes_on_visibly(item_of(word_of(20, 18))));
    for (const uint32_t primary : {16u, 18u})
        EXPECT_TRUE(goes_on_visibly(item_of(word_of(primary)))) << primary;
    // both flags are needed: the change and the address
    for (const bool change : {false, true}) {
        QTRACE_Item item = jump(SYSTEM_CALL, 0xC00);
        item.record.header.control.fld.iar_change_present = change;
        item.record.header.control.fld.next_instruction_EA_present = !change;
        EXPECT_FALSE(goes_on_visibly(item)) << change;
        item.record.header.instruction = ADD;
        EXPECT_TRUE(goes_on_visibly(item)) << change;
    }
    EXPECT_FALSE(goes_on_visibly(item_of(SYSTEM_CALL)));
    EXPECT_TRUE(goes_on_visibly(jump(SYSTEM_CALL, 0xC00)));
}

TEST(goes_on_visibly, knows_the_vectors_of_interrupts)
{
    for (const uint64_t base : {uint64_t{0}, uint64_t{0xC000000000000000}}) {
        for (const uint64_t vector : {0x100, 0x120, 0x1FE0, 0x3000, 0x5FE0, 0x17000, 0x19FE0})
            EXPECT_TRUE(goes_on_visibly(jump(ADD, base + vector))) << std::hex << vector;
        for (const uint64_t other : {0x0, 0xE0, 0x2000, 0x2FE0, 0x6000, 0x16FE0, 0x1A000, 0x101, 0x110, 0x308})
            EXPECT_FALSE(goes_on_visibly(jump(ADD, base + other))) << std::hex << other;
    }
    EXPECT_FALSE(goes_on_visibly(jump(ADD, 0x4000000000000300)));
    EXPECT_FALSE(goes_on_visibly(jump(ADD, 0xC000000100000300)));
}

TEST(goes_on_visibly, follows_branches_to_the_register_that_they_name)
{
    constexpr struct {
        uint32_t extended;
        uint16_t special;
    } BRANCHES[] = {{16, 8}, {528, 9}, {560, 815}, {18, 26}, {274, 314}};
    constexpr uint64_t TARGET = 0xC000000012345678;
    for (const auto &[extended, special] : BRANCHES) {
        const uint32_t word = word_of(19, extended);
        EXPECT_TRUE(arrives(word, TARGET, special, TARGET)) << extended;
        EXPECT_FALSE(arrives(word, TARGET, special, TARGET + 4)) << extended;
        for (const int step : {-1, 1})
            EXPECT_FALSE(arrives(word, TARGET, static_cast<uint16_t>(special + step), TARGET)) << extended;
        EXPECT_FALSE(arrives(word_of(20, extended), TARGET, special, TARGET)) << extended;
        EXPECT_FALSE(arrives(word_of(19, extended + 1), TARGET, special, TARGET)) << extended;
        EXPECT_FALSE(goes_on_visibly(jump(word, TARGET))) << extended; // the register is not listed
    }
}

TEST(goes_on_visibly, takes_targets_without_their_lowest_bits_and_in_32_bit_mode_without_the_upper_half)
{
    const uint32_t word = word_of(19, 16);
    EXPECT_TRUE(arrives(word, 0xC000000012345678, 8, 0xC00000001234567B));
    EXPECT_FALSE(arrives(word, 0xC000000012345678, 8, 0xC00000001234567C));
    EXPECT_TRUE(arrives(word, 0x82345678, 8, 0x1234567882345678));
    EXPECT_TRUE(arrives(word, 0x82345678, 8, 0x123456788234567B));
    EXPECT_TRUE(arrives(word, 0x8234567C, 8, 0x123456788234567C));
    EXPECT_FALSE(arrives(word, 0x82345678, 8, 0x123456788234567C));
}

TEST(goes_on_visibly, looks_at_the_listed_registers_alone)
{
    QTRACE_Item item = jump(word_of(19, 16), 0x40000000);
    item.record.regs.num_sprs_in = 3;
    item.record.regs.spr_in[3] = {8, 0x40000000};
    EXPECT_FALSE(goes_on_visibly(item));
    for (const uint8_t count : std::vector<uint8_t>{4, 5, 255}) {
        item.record.regs.num_sprs_in = count;
        EXPECT_TRUE(goes_on_visibly(item)) << int{count};
    }
    std::swap(item.record.regs.spr_in[3], item.record.regs.spr_in[0]);
    item.record.regs.num_sprs_in = 1;
    EXPECT_TRUE(goes_on_visibly(item));
}

TEST(goes_on_visibly, follows_direct_branches_to_their_target)
{
    for (const uint32_t primary : {16u, 18u}) {
        const uint32_t word = word_of(primary, 0x20); // 0x40 bytes on
        EXPECT_TRUE(goes_on_visibly(jump(word, 0x1040))) << primary;
        EXPECT_FALSE(goes_on_visibly(jump(word, 0x1048))) << primary;
        QTRACE_Item unknown = jump(word, 0x1048);
        unknown.address_known = 0;
        EXPECT_TRUE(goes_on_visibly(unknown)) << primary;
    }
}

// ---- Values ----------------------------------------------------------------------------------------------

namespace
{

// Registers of a record, by the letter of their file.
void list(QTRACE_REGISTERS &to, char file, bool output, uint16_t index, uint64_t first, uint64_t second = 0)
{
    const auto narrow = [&](uint8_t &count, QTRACE_REGISTER_INFO *entries) { entries[count++] = {index, first}; };
    const auto wide = [&](uint8_t &count, auto *entries) { entries[count++] = {index, {first, second}}; };
    if (file == 'r')
        output ? narrow(to.num_gprs_out, to.gpr_out) : narrow(to.num_gprs_in, to.gpr_in);
    if (file == 'f')
        output ? narrow(to.num_fprs_out, to.fpr_out) : narrow(to.num_fprs_in, to.fpr_in);
    if (file == 's')
        output ? narrow(to.num_sprs_out, to.spr_out) : narrow(to.num_sprs_in, to.spr_in);
    if (file == 'v')
        output ? wide(to.num_vmxrs_out, to.vmxr_out) : wide(to.num_vmxrs_in, to.vmxr_in);
    if (file == 'x')
        output ? wide(to.num_vsxrs_out, to.vsxr_out) : wide(to.num_vsxrs_in, to.vsxr_in);
}

class Flow
{
public:
    void read(char file, uint16_t index, uint64_t first, uint64_t second = 0)
    {
        take(file, false, {index}, first, second);
    }
    void write(char file, const std::vector<uint16_t> &indexes, uint64_t first, uint64_t second = 0)
    {
        take(file, true, indexes, first, second);
    }
    void give(QTRACE_Item item)
    {
        item.record_number = number_++;
        flow.record(item, [this](const std::string &what) { told.push_back(what); });
    }

    Register_Flow flow;
    std::vector<std::string> told;

private:
    void take(char file, bool output, const std::vector<uint16_t> &indexes, uint64_t first, uint64_t second)
    {
        QTRACE_Item item = item_of(ADD);
        item.record.header.control.fld.register_trace_present = 1;
        for (const uint16_t index : indexes)
            list(item.record.regs, file, output, index, first, second);
        give(item);
    }

    uint64_t number_ = 10;
};

// Whether a value that is read is compared with what this index had before.
bool is_kept(char file, uint16_t index)
{
    Flow flow;
    flow.read(file, index, 1);
    flow.read(file, index, 1);
    EXPECT_THAT(flow.told, IsEmpty());
    return flow.flow.checks() == 1;
}

// Whether the value of one register is still known after another one was written.
bool survives(char file, uint16_t index, char written_file, const std::vector<uint16_t> &written)
{
    Flow flow;
    flow.write(file, {index}, 1);
    flow.write(written_file, written, 2);
    flow.read(file, index, 3);
    EXPECT_EQ(flow.told.size(), flow.flow.checks());
    return flow.flow.checks() == 1;
}

} // namespace

TEST(register_flow, tells_both_values_and_the_record_of_the_first)
{
    Flow flow;
    flow.read('r', 3, 0x50);
    flow.read('r', 3, 0x50);
    EXPECT_THAT(flow.told, IsEmpty());
    flow.read('r', 3, 0x51);
    flow.write('f', {1}, 0xA);
    flow.read('f', 1, 0xB);
    flow.write('s', {8}, 0xC);
    flow.read('s', 8, 0xD);
    flow.write('v', {2}, 0x1, 0x2);
    flow.read('v', 2, 0x1, 0x3);
    flow.read('v', 2, 0x4, 0x3);
    flow.write('x', {33}, 0x5, 0x6);
    flow.read('x', 33, 0x7, 0x6);
    flow.read('x', 33, 0x7, 0x6);
    EXPECT_THAT(flow.told, ElementsAre("r3 is 0x51, 0x50 in record 11", "f1 is 0xb, 0xa in record 13",
                                       "s8 is 0xd, 0xc in record 15", "v2 is 0x1:3, 0x1:2 in record 17",
                                       "v2 is 0x4:3, 0x1:3 in record 18", "x33 is 0x7:6, 0x5:6 in record 20"));
    EXPECT_EQ(flow.flow.checks(), 8u);
}

TEST(register_flow, takes_over_what_is_read_and_what_is_written)
{
    for (const char file : {'r', 'f', 's', 'v', 'x'}) {
        Flow flow;
        flow.read(file, 1, 0x10, 0x20);
        flow.write(file, {1}, 0x11, 0x21);
        flow.read(file, 1, 0x11, 0x21);
        EXPECT_THAT(flow.told, IsEmpty()) << file;
        EXPECT_EQ(flow.flow.checks(), 1u) << file;
    }
}

TEST(register_flow, compares_inputs_before_it_takes_over_outputs_of_the_same_record)
{
    Flow flow;
    flow.write('r', {3}, 1);
    QTRACE_Item item = item_of(ADD);
    item.record.header.control.fld.register_trace_present = 1;
    list(item.record.regs, 'r', false, 3, 1);
    list(item.record.regs, 'r', true, 3, 2);
    flow.give(item);
    flow.read('r', 3, 2);
    EXPECT_THAT(flow.told, IsEmpty());
    EXPECT_EQ(flow.flow.checks(), 2u);
}

TEST(register_flow, looks_at_registers_only_where_the_record_announces_them)
{
    Flow flow;
    flow.write('r', {3}, 1);
    QTRACE_Item item = item_of(ADD);
    list(item.record.regs, 'r', false, 3, 2);
    flow.give(item);
    EXPECT_EQ(flow.flow.checks(), 0u);
}

TEST(register_flow, keeps_every_register_of_a_file_and_no_higher_number)
{
    for (const char file : {'r', 'f', 'v', 'x'}) {
        const uint16_t count = file == 'x' ? 64 : 32;
        for (uint16_t index = 0; index < 80; index++)
            EXPECT_EQ(is_kept(file, index), index < count) << file << index;
    }
}

TEST(register_flow, keeps_the_special_registers_that_only_instructions_change)
{
    for (uint16_t index = 0; index < 1024; index++) {
        const std::vector<uint16_t> stable = {1, 8, 9, 256, 272, 273, 274, 275, 304, 305, 808, 815};
        EXPECT_EQ(is_kept('s', index), std::ranges::find(stable, index) != stable.end()) << index;
    }
    EXPECT_FALSE(survives('s', 26, 's', {8}));
}

TEST(register_flow, registers_of_different_files_and_numbers_are_different_ones)
{
    constexpr uint16_t NUMBERS[] = {1, 8, 9};
    for (const char file : {'r', 'f', 's', 'v', 'x'})
        for (const char other : {'r', 'f', 's', 'v', 'x'})
            for (const uint16_t number : NUMBERS) {
                const bool twins = (file == 'f' && other == 'x') || (file == 'x' && other == 'f');
                if (file == other && number == 8)
                    continue;
                EXPECT_EQ(survives(file, 8, other, {number}), !twins || number != 8) << file << other << number;
            }
}

TEST(register_flow, halves_of_a_vector_scalar_register_are_forgotten_with_it)
{
    for (const uint16_t number : std::vector<uint16_t>{0, 5, 31}) {
        const auto upper = static_cast<uint16_t>(number + 32);
        EXPECT_FALSE(survives('x', number, 'f', {number})) << number;
        EXPECT_FALSE(survives('f', number, 'x', {number})) << number;
        EXPECT_FALSE(survives('x', upper, 'v', {number})) << number;
        EXPECT_FALSE(survives('v', number, 'x', {upper})) << number;
        EXPECT_TRUE(survives('x', upper, 'f', {number})) << number;
        EXPECT_TRUE(survives('x', number, 'v', {number})) << number;
        EXPECT_TRUE(survives('f', number, 'x', {upper})) << number;
        EXPECT_TRUE(survives('v', number, 'x', {number})) << number;
    }
}

// The record may have had no room for others; general registers it has room for all of.
TEST(register_flow, a_full_list_of_outputs_forgets_the_other_registers_of_its_file)
{
    for (const char file : {'f', 'v', 'x'}) {
        EXPECT_TRUE(survives(file, 7, file, {1, 2})) << file;
        EXPECT_FALSE(survives(file, 7, file, {1, 2, 3})) << file;
    }
    EXPECT_TRUE(survives('s', 8, 's', {1, 9, 256}));
    EXPECT_FALSE(survives('s', 8, 's', {1, 9, 256, 272}));
    EXPECT_TRUE(survives('r', 8, 'f', {1, 2, 3}));
    std::vector<uint16_t> all;
    for (uint16_t index = 40; index < 72; index++)
        all.push_back(index);
    EXPECT_TRUE(survives('r', 8, 'r', all));
}

TEST(register_flow, what_a_full_list_holds_is_known)
{
    Flow flow;
    flow.write('f', {1, 2, 3}, 7);
    flow.read('f', 1, 8);
    flow.read('f', 3, 9);
    EXPECT_THAT(flow.told, ElementsAre("f1 is 0x8, 0x7 in record 10", "f3 is 0x9, 0x7 in record 10"));
}

TEST(register_flow, a_register_that_is_not_kept_hides_no_other)
{
    Flow flow;
    flow.write('s', {26, 8}, 1);
    flow.read('s', 8, 2);
    EXPECT_THAT(flow.told, ElementsAre("s8 is 0x2, 0x1 in record 10"));
}

TEST(register_flow, forgets_all_registers_where_instructions_may_be_missing)
{
    for (const char file : {'r', 'f', 's', 'v', 'x'})
        for (const uint16_t index : std::vector<uint16_t>{1, 8, 31, 63, 256}) {
            Flow flow;
            flow.write(file, {index}, 1);
            flow.give(item_of(SYSTEM_CALL));
            flow.read(file, index, 2);
            EXPECT_EQ(flow.flow.checks(), 0u) << file << index;
            flow.flow.forget();
            flow.read(file, index, 3);
            EXPECT_EQ(flow.flow.checks(), 0u) << file << index;
        }
}

TEST(register_flow, knows_what_the_record_read_and_wrote_only_until_it_goes_on_invisibly)
{
    Flow flow;
    QTRACE_Item item = item_of(SYSTEM_CALL);
    item.record.header.control.fld.register_trace_present = 1;
    list(item.record.regs, 'r', true, 3, 2);
    flow.give(item);
    flow.read('r', 3, 4);
    EXPECT_EQ(flow.flow.checks(), 0u);
}
