// The page-table-entry trace: raw big-endian words of both kinds of event.
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <initializer_list>
#include <string>

namespace
{

// Blocks of the plugin's fwrite calls as (size, count).
std::vector<std::pair<size_t, size_t>> blocks_written;

} // namespace

// The plugin's block writes pass here first (linker option --wrap).
extern "C" {
size_t __real_fwrite(const void *data, size_t size, size_t count, FILE *stream);
size_t __wrap_fwrite(const void *data, size_t size, size_t count, FILE *stream)
{
    if (qfile_in_pte) // other code writes too, the coverage run time even after the end of main
        blocks_written.emplace_back(size, count);
    return __real_fwrite(data, size, count, stream);
}
}

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

std::string big_endian(std::initializer_list<uint64_t> words)
{
    std::string bytes;
    for (const uint64_t word : words)
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes += static_cast<char>(word >> shift & 0xFF);
    return bytes;
}

void pte_access(int tid, PTE_Event_Info info)
{
    replay::Instruction instruction;
    instruction.tid = tid;
    Event_PTE_Access(replay::handle_of(instruction), &info);
}

void rtpte_access(int tid, RTPTE_Event_Info info)
{
    replay::Instruction instruction;
    instruction.tid = tid;
    Event_RTPTE_Access(replay::handle_of(instruction), &info);
}

constexpr PTE_Event_Info HPT_ACCESS{0x1122334455667788, {0x8000000000000001, 0x00FF00FF00FF00FE}};
constexpr RTPTE_Event_Info RADIX_ACCESS{0x1, 0x200, 0x30000, 0x4000000, 0xFEDCBA9876543210};
const std::string HPT_BYTES = big_endian({0x1122334455667788, 0x8000000000000001, 0x00FF00FF00FF00FE});
const std::string RADIX_BYTES = big_endian({0x1, 0x200, 0x30000, 0x4000000, 0xFEDCBA9876543210});

TEST(pte, address_comes_first_and_most_significant_byte_first)
{
    Traced_Machine m;
    m.start_with_everything();
    pte_access(0, {0x0000000000001000, {0, 0}});
    m.stop();
    EXPECT_EQ(m.file("pte0").substr(0, 8), std::string("\0\0\0\0\0\0\x10\0", 8));
}

TEST(pte, hashed_table_access_is_address_upper_and_lower)
{
    Traced_Machine m;
    m.start_with_everything();
    pte_access(0, HPT_ACCESS);
    m.stop();
    EXPECT_EQ(m.file("pte0"), HPT_BYTES);
    EXPECT_EQ(m.file("pte0").size(), 24u);
}

TEST(pte, radix_access_is_three_directory_entries_the_table_entry_and_the_address)
{
    Traced_Machine m;
    m.start_with_everything();
    rtpte_access(0, RADIX_ACCESS);
    m.stop();
    EXPECT_EQ(m.file("pte0"), RADIX_BYTES);
    EXPECT_EQ(m.file("pte0").size(), 40u);
}

TEST(pte, both_kinds_interleave_in_event_order)
{
    Traced_Machine m;
    m.start_with_everything();
    pte_access(0, HPT_ACCESS);
    rtpte_access(0, RADIX_ACCESS);
    pte_access(0, {1, {2, 3}});
    m.stop();
    EXPECT_EQ(m.file("pte0"), HPT_BYTES + RADIX_BYTES + big_endian({1, 2, 3}));
}

TEST(pte, every_byte_value_passes_unchanged)
{
    Traced_Machine m;
    m.start_with_everything();
    std::string expected;
    for (uint64_t byte = 0; byte < 256; ++byte) {
        const uint64_t word = byte * 0x0101010101010101;
        pte_access(0, {word, {~word, word << 8}});
        expected += big_endian({word, ~word, word << 8});
    }
    m.stop();
    EXPECT_EQ(m.file("pte0"), expected);
}

TEST(pte, accesses_go_into_the_file_of_their_thread)
{
    Traced_Machine m(2, 2);
    m.start_with_everything();
    for (int tid = 3; tid >= 0; --tid)
        pte_access(tid, {static_cast<uint64_t>(tid), {0, 0}});
    m.stop();
    for (uint64_t tid = 0; tid < 4; ++tid)
        EXPECT_EQ(m.file("pte" + std::to_string(tid)), big_endian({tid, 0, 0}));
}

TEST(pte, accesses_of_a_paused_thread_are_recorded)
{
    Traced_Machine m;
    m.start_with_everything();
    m.signal({"pause"});
    pte_access(0, HPT_ACCESS);
    rtpte_access(0, RADIX_ACCESS);
    m.stop();
    EXPECT_EQ(m.file("pte0"), HPT_BYTES + RADIX_BYTES);
}

TEST(pte, only_the_thread_is_asked_of_the_host)
{
    Traced_Machine m;
    m.start_with_everything();
    m.forget_queries();
    pte_access(0, HPT_ACCESS);
    rtpte_access(0, RADIX_ACCESS);
    EXPECT_THAT(m.queries(), ElementsAre("Get_Inst_ThreadId", "Get_Inst_ThreadId"));
}

TEST(pte, every_word_is_one_write_of_eight_bytes)
{
    Traced_Machine m;
    m.start_with_everything();
    blocks_written.clear();
    pte_access(0, HPT_ACCESS);
    EXPECT_EQ(blocks_written.size(), 3u);
    rtpte_access(0, RADIX_ACCESS);
    EXPECT_EQ(blocks_written.size(), 8u);
    for (const auto &[size, count] : blocks_written)
        EXPECT_EQ(size * count, 8u);
}

TEST(pte, session_without_a_pte_name_writes_nothing_and_asks_nothing)
{
    Traced_Machine m;
    m.start_with_text();
    m.forget_queries();
    pte_access(0, HPT_ACCESS);
    rtpte_access(0, RADIX_ACCESS);
    EXPECT_THAT(m.queries(), IsEmpty());
    m.stop();
    EXPECT_EQ(m.file("text0"), "");
    EXPECT_FALSE(std::filesystem::exists(m.path("pte0")));
}

TEST(pte, events_without_a_session_do_nothing)
{
    Traced_Machine m;
    m.start_with_everything();
    m.stop();
    m.forget_queries();
    pte_access(0, HPT_ACCESS);
    rtpte_access(0, RADIX_ACCESS);
    EXPECT_THAT(m.queries(), IsEmpty());
    EXPECT_EQ(m.file("pte0"), "");
}

TEST(pte, thread_whose_file_could_not_be_created_is_skipped_silently)
{
    Traced_Machine m(1, 3);
    std::filesystem::create_directory(m.path("pte1"));
    m.start_with_everything();
    EXPECT_EQ(qfile_in_pte[1], nullptr);
    for (int tid = 0; tid < 3; ++tid) {
        pte_access(tid, HPT_ACCESS);
        rtpte_access(tid, RADIX_ACCESS);
    }
    EXPECT_THAT(m.warnings(), IsEmpty());
    m.stop();
    EXPECT_EQ(m.file("pte0"), HPT_BYTES + RADIX_BYTES);
    EXPECT_EQ(m.file("pte2"), HPT_BYTES + RADIX_BYTES);
}

TEST(pte, new_session_begins_an_empty_file)
{
    Traced_Machine m;
    m.start_with_everything();
    pte_access(0, HPT_ACCESS);
    m.start_with_everything();
    rtpte_access(0, RADIX_ACCESS);
    m.stop();
    EXPECT_EQ(m.file("pte0"), RADIX_BYTES);
}

TEST(pte, accesses_are_not_counted_as_instructions)
{
    Traced_Machine m;
    m.start_with_everything();
    pte_access(0, HPT_ACCESS);
    m.forget_output();
    m.stop();
    EXPECT_EQ(m.printed(), "QTRACE: Stop generating qtrace. \n");
}

} // namespace
