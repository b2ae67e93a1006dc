// What is set in a record: searched by the functions that exist for any processor and once more for AVX2. This test is
// built twice, with all of them and with those for any processor alone.
#include "record_equality.h"
#include "record_schema.h"
#include "uncommon_members.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

using namespace trace;

namespace
{

constexpr size_t BOOKKEEPING = 2904, SIZE = 2936; // of a record
constexpr size_t COUNTS = 1352, ENTRIES = 1368;   // of its registers

QTRACE_RECORD record_with(std::initializer_list<size_t> bytes)
{
    QTRACE_RECORD record;
    std::memset(static_cast<void *>(&record), 0, sizeof record);
    for (const size_t byte : bytes)
        reinterpret_cast<uint8_t *>(&record)[byte] = 0x40;
    return record;
}

std::vector<std::string> filled(const QTRACE_RECORD &record)
{
    std::vector<std::string> names;
    maybe_filled(record).for_each([&](size_t row) { names.emplace_back(RECORD_MEMBERS[row].name); });
    return names;
}

bool holds(const std::vector<std::string> &names, std::string_view name)
{
    return std::ranges::find(names, name) != names.end();
}

struct List {
    size_t count, entries, capacity, width; // offsets in the record; bytes of an entry
};
constexpr List LISTS[] = {
    {1352, 1368, 4, 16}, {1353, 1432, 3, 24}, {1354, 1504, 3, 24}, {1355, 1576, 3, 16}, {1356, 1624, 32, 16},
    {1357, 2136, 4, 16}, {1358, 2200, 3, 24}, {1359, 2272, 3, 24}, {1360, 2344, 3, 16}, {1361, 2392, 32, 16},
};

bool is_in(size_t byte, size_t first, size_t size)
{
    return byte >= first && byte < first + size;
}

// Of a record in which nothing else is set: instruction word, flags, small members, counts; pointers and bookkeeping.
bool is_never_rare(size_t byte)
{
    const size_t members[][2] = {{0, 12},
                                 {offsetof(QTRACE_RECORD, node), 1},
                                 {offsetof(QTRACE_RECORD, termination_node), 1},
                                 {offsetof(QTRACE_RECORD, termination_code), 1},
                                 {offsetof(QTRACE_RECORD, processor), 1},
                                 {offsetof(QTRACE_RECORD, error_code), 1},
                                 {offsetof(QTRACE_RECORD, length), 2},
                                 {offsetof(QTRACE_RECORD, data), 8},
                                 {offsetof(QTRACE_RECORD, file_header), 8},
                                 {offsetof(QTRACE_RECORD, persistent_data), 8},
                                 {COUNTS, 10},
                                 {BOOKKEEPING, SIZE - BOOKKEEPING}};
    return std::ranges::any_of(members,
                               [&](const size_t(&member)[2]) { return is_in(byte, member[0], member[1]); });
}

bool is_padding(size_t byte)
{
    const bool of_entry = std::ranges::any_of(LISTS, [&](const List &list) {
        return is_in(byte, list.entries, list.capacity * list.width) &&
               is_in((byte - list.entries) % list.width, 2, 6);
    });
    return of_entry || is_in(byte, 282, 2) || is_in(byte, 802, 6) || is_in(byte, COUNTS + 10, 6);
}

// An address, its translation from the VSID to the page number, and its two page sizes.
bool is_of_data(size_t byte)
{
    return is_in(byte, offsetof(QTRACE_RECORD, data_ea), 261) ||
           is_in(byte, offsetof(QTRACE_RECORD, data_page_size), 2);
}

bool is_of_next(size_t byte)
{
    return is_in(byte, offsetof(QTRACE_RECORD, next_instruction_ea), 261) ||
           is_in(byte, offsetof(QTRACE_RECORD, next_instruction_page_size), 2);
}

} // namespace

TEST(member_search, of_a_record_of_zeros_finds_nothing)
{
    const QTRACE_RECORD zero = record_with({});
    EXPECT_TRUE(filled(zero).empty());
    EXPECT_FALSE(has_uncommon(zero));
    ASSERT_EQ(sizeof zero, SIZE);
}

TEST(member_search, finds_the_member_of_every_byte_and_none_but_its_neighbours)
{
    for (const Trace_Member &member : RECORD_MEMBERS)
        for (size_t byte = member.offset; byte < size_t{member.offset} + member.size; ++byte) {
            const std::vector<std::string> names = filled(record_with({byte}));
            if (byte >= ENTRIES + 8 && byte < BOOKKEEPING) { // register entries, whose counts tell
                ASSERT_TRUE(names.empty()) << byte;
                continue;
            }
            ASSERT_TRUE(holds(names, member.name)) << byte;
            for (const std::string &name : names) { // in the same eight bytes
                const Trace_Member &other = *find_record_member(name);
                ASSERT_LT(other.offset, byte / 8 * 8 + 8) << name;
                ASSERT_GT(other.offset + other.size, byte / 8 * 8) << name;
            }
        }
}

TEST(member_search, finds_members_in_several_places)
{
    for (size_t byte = 16; byte < ENTRIES; byte += 8) {
        const std::vector<std::string> names = filled(record_with({0, byte, SIZE - 1}));
        EXPECT_TRUE(holds(names, "instruction") && holds(names, "exec_instr_count")) << byte;
        EXPECT_GE(names.size(), 3u) << byte;
    }
}

TEST(member_search, finds_members_by_whatever_bit_is_set)
{
    for (const uint8_t bits : {uint8_t{0x01}, uint8_t{0x80}})
        for (const size_t byte : {0, 16, 289, 824, 1320, 1352, 2904, 2928}) {
            QTRACE_RECORD record = record_with({});
            reinterpret_cast<uint8_t *>(&record)[byte] = bits;
            const auto member = std::ranges::find_if(
                RECORD_MEMBERS, [byte](const Trace_Member &row) { return is_in(byte, row.offset, row.size); });
            EXPECT_TRUE(holds(filled(record), member->name)) << byte;
        }
}

TEST(member_search, finds_bookkeeping_after_a_record_of_zeros)
{
    const QTRACE_RECORD records[] = {record_with({}), record_with({2920})};
    EXPECT_EQ(filled(records[1]), std::vector<std::string>{"instr_count"});
}

TEST(member_search, finds_registers_alone_where_counts_and_entries_are_set)
{
    EXPECT_EQ(filled(record_with({COUNTS, ENTRIES, ENTRIES + 8, ENTRIES + 16, ENTRIES + 24})),
              std::vector<std::string>{"regs"});
}

TEST(member_search, tells_every_byte_that_is_not_among_the_common_ones)
{
    const uint64_t data = uint64_t{1} << 43, next = uint64_t{1} << 38;
    for (const uint64_t control : {uint64_t{0}, data, next, data | next})
        for (size_t byte = 12; byte < SIZE; ++byte) {
            QTRACE_RECORD record = record_with({byte});
            std::memcpy(&record.header.control, &control, sizeof control);
            const bool common =
                is_never_rare(byte) || (control & data && is_of_data(byte)) || (control & next && is_of_next(byte));
            if (!is_padding(byte)) {
                ASSERT_EQ(has_uncommon(record), !common) << byte << " with " << control;
            }
        }
}

TEST(member_search, tells_members_that_are_not_common_by_whatever_bit_is_set)
{
    const uint64_t both = uint64_t{1} << 43 | uint64_t{1} << 38;
    for (const uint64_t control : {uint64_t{0}, both})
        for (size_t byte = 12; byte < SIZE; ++byte)
            for (const uint8_t bits : {uint8_t{0x01}, uint8_t{0x80}}) {
                if (is_padding(byte))
                    continue;
                QTRACE_RECORD record = record_with({});
                std::memcpy(&record.header.control, &control, sizeof control);
                reinterpret_cast<uint8_t *>(&record)[byte] = bits;
                const bool common = is_never_rare(byte) || (control != 0 && (is_of_data(byte) || is_of_next(byte)));
                ASSERT_EQ(has_uncommon(record), !common) << byte << " with " << control;
            }
}

TEST(member_search, tells_register_entries_beyond_their_counts)
{
    for (const List &list : LISTS)
        for (const List &other : LISTS)
            for (const size_t count : {0, 1, 2, 3, 4, 5, 31, 32, 33, 255})
                for (size_t entry = 0; entry < list.capacity; ++entry)
                    for (const size_t byte : {size_t{1}, list.width - 1}) {
                        QTRACE_RECORD record = record_with({list.entries + entry * list.width + byte});
                        auto *const bytes = reinterpret_cast<uint8_t *>(&record);
                        bytes[other.count] = 2;
                        bytes[list.count] = static_cast<uint8_t>(count);
                        ASSERT_EQ(has_uncommon(record), entry >= count)
                            << "entry " << entry << " at " << list.entries << " of " << count << " beside "
                            << other.count;
                    }
}

TEST(member_search, tells_register_entries_beyond_their_counts_by_whatever_bit_is_set)
{
    for (const size_t count : {size_t{2}, size_t{5}}) {
        QTRACE_RECORD record = record_with({});
        auto *const bytes = reinterpret_cast<uint8_t *>(&record);
        std::fill_n(bytes + COUNTS, std::size(LISTS), static_cast<uint8_t>(count));
        for (const List &list : LISTS)
            for (size_t byte = 0; byte < list.capacity * list.width; ++byte)
                for (const uint8_t bits : {uint8_t{0x01}, uint8_t{0x80}}) {
                    if (is_padding(list.entries + byte))
                        continue;
                    bytes[list.entries + byte] = bits;
                    ASSERT_EQ(has_uncommon(record), byte >= count * list.width) << byte << " at " << list.entries;
                    bytes[list.entries + byte] = 0;
                }
    }
}

TEST(member_search, tells_rare_members_beside_many_registers)
{
    for (const size_t byte : {12, 554, 1077, 1323, 1325, 1330, 1335}) {
        QTRACE_RECORD record = record_with({byte});
        std::fill_n(reinterpret_cast<uint8_t *>(&record) + COUNTS, std::size(LISTS), uint8_t{5});
        EXPECT_TRUE(has_uncommon(record)) << byte;
    }
}

TEST(member_search, copies_what_is_not_common_and_nothing_else)
{
    const uint64_t data = uint64_t{1} << 43, next = uint64_t{1} << 38;
    for (const uint64_t control : {uint64_t{0}, data, next})
        for (size_t byte = 12; byte < SIZE; ++byte) {
            if (is_padding(byte))
                continue;
            QTRACE_RECORD record = record_with({byte}), copy = record_with({});
            std::memcpy(&record.header.control, &control, sizeof control);
            copy_uncommon(record, copy);
            const bool common = is_never_rare(byte) || (control == data && is_of_data(byte)) ||
                                (control == next && is_of_next(byte));
            ASSERT_EQ(reinterpret_cast<const uint8_t *>(&copy)[byte], common ? 0 : 0x40)
                << byte << " with " << control;
        }
}

TEST(member_search, tells_records_apart_that_differ_in_one_byte_but_for_bookkeeping)
{
    const QTRACE_RECORD zero = record_with({});
    EXPECT_TRUE(have_same_members(zero, zero));
    for (size_t byte = 0; byte < SIZE; ++byte) {
        ASSERT_EQ(have_same_members(zero, record_with({byte})), byte >= BOOKKEEPING) << byte;
        ASSERT_EQ(have_same_members(record_with({byte}), zero), byte >= BOOKKEEPING) << byte;
    }
}
