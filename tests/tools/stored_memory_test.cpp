// Where stores go and how long they are remembered, to the byte; and the table that remembers them.
#include "stored_memory.h"

#include "record_schema.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

using namespace qtrace_tool;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr uint64_t FAR = std::numeric_limits<uint64_t>::max();
constexpr Memory_Place HOST{Memory_Space::host, 0, 0}, REAL_MODE{Memory_Space::real_mode, 0, 0},
    UNKNOWN{Memory_Space::unknown, 0, 0}, GUEST{Memory_Space::guest, 5, 0};

std::string text(const Memory_Place &place)
{
    static const char *const NAMES[] = {"host", "real", "guest", "unknown"};
    return fmt::format("{}:{}:{:x}", NAMES[static_cast<size_t>(place.space)], place.lpid, place.address);
}

std::vector<std::string> texts(const Memory_Places &places)
{
    std::vector<std::string> list;
    for (size_t i = 0; i < places.count; i++)
        list.push_back(text(places.place[i]));
    return list;
}

std::vector<std::string> visited(const Store &store, uint64_t step)
{
    std::vector<std::string> list;
    store.for_each(step, [&](const Memory_Place &place) { list.push_back(text(place)); });
    return list;
}

Store store_at(const Memory_Place &first, uint64_t size = 8, uint64_t room = FAR)
{
    Store store{{}, size, room};
    store.places.add(first);
    return store;
}

// Through no translation, unless set_page() follows.
QTRACE_RECORD record_of(uint32_t primary, uint32_t extended, uint64_t address)
{
    QTRACE_RECORD record;
    std::memset(static_cast<void *>(&record), 0, sizeof record);
    record.header.instruction = primary << 26 | extended << 1;
    auto &flags = record.header.control.fld;
    flags.data_address_present = 1;
    flags.guest_xlate_mode_data = trace::MODE_NONE;
    flags.host_xlate_mode_data = trace::MODE_REAL;
    std::memcpy(record.data_ea, &address, sizeof address);
    return record;
}
constexpr uint32_t STORE_DOUBLEWORD = 62;

// A page of 64 KiB by one walk of the host.
void set_page(QTRACE_RECORD &record, uint32_t page_number)
{
    auto &flags = record.header.control.fld;
    flags.host_xlate_mode_data = trace::MODE_RADIX;
    flags.data_RPN_present = flags.data_page_size_present = 1;
    record.data_page_size = 1;
    std::memcpy(record.data_rpn, &page_number, sizeof page_number);
}

Store store_of_record(const QTRACE_RECORD &record)
{
    return store_of(record, Page_Sizes(), {5, 7});
}

} // namespace

// ---- Places ----------------------------------------------------------------------------------------------

TEST(memory_places, are_those_of_the_translation)
{
    Named_Translation named;
    Tlb_Page &page = named.translation.page;
    page = {0x30000, 7, 5, Xlate_Kind::host, 16};
    named.translation.real = 0x870000;
    named.translation.walk.guest_real[0] = 0x4321234;
    const trace::Mode_Pair modes{trace::MODE_NONE, trace::MODE_RADIX};
    const auto places = [&](Told told, const trace::Mode_Pair &pair) {
        return texts(places_of(told, pair, named, 0x31238));
    };
    EXPECT_THAT(places(Told::page, modes), ElementsAre("host:0:871238"));
    page.kind = Xlate_Kind::nested;
    EXPECT_THAT(places(Told::page, modes), ElementsAre("guest:5:871238"));
    page.kind = Xlate_Kind::guest_real;
    EXPECT_THAT(places(Told::page, modes), ElementsAre("guest:5:4321238", "host:0:871238"));
    page.kind = Xlate_Kind::hash;
    EXPECT_THAT(places(Told::page, modes), ElementsAre("host:0:871238"));
    named.in_guest = true;
    EXPECT_THAT(places(Told::page, modes), ElementsAre("unknown:0:31238"));
    page.kind = Xlate_Kind::host;
    EXPECT_THAT(places(Told::page, modes), ElementsAre("host:0:871238"));
    EXPECT_THAT(places(Told::nothing, modes), ElementsAre("unknown:0:31238"));
    EXPECT_THAT(places(Told::untranslated, {trace::MODE_NONE, trace::MODE_REAL}), ElementsAre("real:0:31238"));
    EXPECT_THAT(places(Told::untranslated, {trace::MODE_REAL, trace::MODE_REAL}), ElementsAre("unknown:0:31238"));
}

TEST(store, reaches_every_step_that_it_touches)
{
    EXPECT_THAT(visited(store_at(HOST.at(0x1008), 8), 8), ElementsAre("host:0:1008"));
    EXPECT_THAT(visited(store_at(HOST.at(0x100c), 4), 8), ElementsAre("host:0:1008"));
    EXPECT_THAT(visited(store_at(HOST.at(0x1009), 7), 8), ElementsAre("host:0:1008"));
    EXPECT_THAT(visited(store_at(HOST.at(0x100c), 5), 8), ElementsAre("host:0:1008", "host:0:1010"));
    EXPECT_THAT(visited(store_at(GUEST.at(0x1008), 17), 8),
                ElementsAre("guest:5:1008", "guest:5:1010", "guest:5:1018"));
    EXPECT_THAT(visited(store_at(HOST.at(0x1038), 9), 64), ElementsAre("host:0:1000", "host:0:1040"));
    EXPECT_THAT(visited(store_at(HOST.at(0x1038), 0), 8), IsEmpty());
}

TEST(store, beyond_the_end_of_its_page_goes_to_an_unknown_place)
{
    EXPECT_THAT(visited(store_at(HOST.at(0x1ff8), 8, 8), 8), ElementsAre("host:0:1ff8"));
    EXPECT_THAT(visited(store_at(HOST.at(0x1ff8), 9, 8), 8), ElementsAre("host:0:1ff8", "unknown:0:0"));
    EXPECT_THAT(visited(store_at(HOST.at(0x1ff8), 25, 8), 8),
                ElementsAre("host:0:1ff8", "unknown:0:0", "unknown:0:8", "unknown:0:10"));
    EXPECT_THAT(visited(store_at(HOST.at(0x1ff8), 24, 8), 8),
                ElementsAre("host:0:1ff8", "unknown:0:0", "unknown:0:8"));
}

TEST(store, by_a_guest_in_real_mode_reaches_both_of_its_places)
{
    Store store = store_at(GUEST.at(0x2000), 16, 8);
    store.places.add(HOST.at(0x3000));
    EXPECT_THAT(visited(store, 8), ElementsAre("guest:5:2000", "host:0:3000", "unknown:0:0"));
}

// ---- Records ---------------------------------------------------------------------------------------------

TEST(store_of, instructions_that_store_reach_an_aligned_vector)
{
    const Store store = store_of_record(record_of(STORE_DOUBLEWORD, 0, 0x12349));
    EXPECT_THAT(texts(store.places), ElementsAre("real:0:12340"));
    EXPECT_EQ(store.size, 16u + 9);
    EXPECT_EQ(store.room, FAR);
    EXPECT_EQ(store_of_record(record_of(STORE_DOUBLEWORD, 0, 0x12340)).size, 16u);
    EXPECT_EQ(store_of_record(record_of(STORE_DOUBLEWORD, 0, 0x1234F)).size, 16u + 15);
}

TEST(store_of, paired_vectors_are_stored_by_the_odd_words_of_their_opcode)
{
    QTRACE_RECORD record = record_of(6, 0, 0x12348);
    EXPECT_EQ(store_of_record(record).size, 0u);
    record.header.instruction |= 2;
    EXPECT_EQ(store_of_record(record).size, 0u);
    record.header.instruction ^= 3;
    EXPECT_EQ(store_of_record(record).size, 32u + 8);
    EXPECT_THAT(texts(store_of_record(record).places), ElementsAre("real:0:12340"));
    record.header.instruction = (record.header.instruction & 3) | 7u << 26;
    EXPECT_EQ(store_of_record(record).size, 0u);
}

TEST(store_of, clearing_a_block_reaches_128_bytes)
{
    for (const uint64_t address : {0x12380, 0x12385, 0x123FF}) {
        const Store store = store_of_record(record_of(31, 1014, address));
        EXPECT_THAT(texts(store.places), ElementsAre("real:0:12380"));
        EXPECT_EQ(store.size, 128u);
    }
    for (const uint32_t other : {982u, 1012u, 1015u}) // another cache instruction, or none
        EXPECT_EQ(store_of_record(record_of(31, other, 0x12380)).size, 0u) << other;
    EXPECT_EQ(store_of_record(record_of(30, 1014, 0x12380)).size, 0u);
}

TEST(store_of, several_registers_and_strings_reach_as_far_as_the_record_says)
{
    constexpr uint32_t KINDS[][2] = {{47, 0}, {31, 661}, {31, 725}};
    for (const auto &[primary, extended] : KINDS) {
        QTRACE_RECORD record = record_of(primary, extended, 0x12349);
        EXPECT_EQ(store_of_record(record).size, 128u) << primary;
        EXPECT_THAT(texts(store_of_record(record).places), ElementsAre("real:0:12349"));
        record.length = 5;
        EXPECT_EQ(store_of_record(record).size, 128u) << primary;
        record.header.control.fld.length_present = 1;
        for (const auto &[length, size] :
             std::vector<std::pair<uint16_t, uint64_t>>{{0, 1}, {1, 1}, {2, 2}, {99, 99}}) {
            record.length = length;
            EXPECT_EQ(store_of_record(record).size, size) << primary;
        }
    }
    // neighbours that store one register
    for (const auto &[primary, extended] :
         std::vector<std::pair<uint32_t, uint32_t>>{{45, 0}, {31, 662}, {31, 726}})
        EXPECT_EQ(store_of_record(record_of(primary, extended, 0x12349)).size, 16u + 9)
            << primary << " " << extended;
}

TEST(store_of, has_room_to_the_end_of_the_page)
{
    QTRACE_RECORD record = record_of(STORE_DOUBLEWORD, 0, 0x3FFF5);
    set_page(record, 0x870);
    const Store store = store_of_record(record);
    EXPECT_THAT(texts(store.places), ElementsAre("host:0:87fff0"));
    EXPECT_EQ(store.room, 16u);
    EXPECT_EQ(store.size, 16u + 5);
}

TEST(store_of, is_nothing_for_other_instructions_and_for_suspect_or_absent_addresses)
{
    const auto has_none = [](const QTRACE_RECORD &record) {
        const Store store = store_of_record(record);
        return store.size == 0 && store.room == 0 && store.places.count == 0;
    };
    QTRACE_RECORD record = record_of(58, 0, 0x12340); // a load
    EXPECT_TRUE(has_none(record));
    EXPECT_FALSE(stores_anywhere(record));
    record.header.control.fld.data_address_present = 0;
    EXPECT_FALSE(stores_anywhere(record));
    record = record_of(STORE_DOUBLEWORD, 0, 0x12340);
    EXPECT_FALSE(has_none(record));
    EXPECT_FALSE(stores_anywhere(record));
    record.header.control.fld.trace_error_code_present = 1;
    EXPECT_TRUE(has_none(record));
    EXPECT_FALSE(stores_anywhere(record));
    record.header.control.fld.data_address_present = 0;
    EXPECT_FALSE(stores_anywhere(record));
    record.header.control.fld.trace_error_code_present = 0;
    EXPECT_TRUE(has_none(record));
    EXPECT_TRUE(stores_anywhere(record));
}

// ---- Times -----------------------------------------------------------------------------------------------

TEST(stored_memory, counts_stores_and_knows_nothing_at_first)
{
    Stored_Memory memory;
    EXPECT_EQ(memory.now(), 0u);
    EXPECT_EQ(memory.last_entry_time(), 0u);
    EXPECT_EQ(memory.doubtful_time(GUEST), 0u);
    EXPECT_EQ(memory.entry_time(HOST), 0u);
    memory.store(store_at(HOST.at(0x1000)));
    memory.store(store_at(HOST.at(0x1000)));
    EXPECT_EQ(memory.now(), 2u);
    EXPECT_FALSE(memory.at_end_of_time());
}

TEST(stored_memory, notices_stores_to_the_doubleword_of_a_watched_entry)
{
    Stored_Memory memory;
    for (const uint64_t watched : {0x1008, 0x2008})
        memory.watch_entry(HOST.at(watched));
    memory.watch_entry(GUEST.at(0x1008));
    for (const uint64_t beside : {0x1000, 0x1010, 0x3008})
        memory.store(store_at(HOST.at(beside)));
    EXPECT_EQ(memory.entry_time(HOST.at(0x1008)), 0u);
    EXPECT_EQ(memory.last_entry_time(), 0u);
    memory.store(store_at(HOST.at(0x100F), 1));
    EXPECT_EQ(memory.entry_time(HOST.at(0x1008)), 4u);
    EXPECT_EQ(memory.entry_time(HOST.at(0x100C)), 4u);
    EXPECT_EQ(memory.entry_time(HOST.at(0x2008)), 0u);
    EXPECT_EQ(memory.entry_time(GUEST.at(0x1008)), 0u);
    EXPECT_EQ(memory.last_entry_time(), 4u);
    memory.store(store_at(GUEST.at(0x1008)));
    EXPECT_EQ(memory.entry_time(GUEST.at(0x1008)), 5u);
    memory.store(store_at({Memory_Space::guest, 6, 0x1008})); // another guest
    EXPECT_EQ(memory.entry_time(GUEST.at(0x1008)), 5u);
    EXPECT_EQ(memory.last_entry_time(), 5u);
    memory.watch_entry(HOST.at(0x1008)); // again: what was noticed stays
    EXPECT_EQ(memory.entry_time(HOST.at(0x1008)), 4u);
    memory.forget_entries();
    EXPECT_EQ(memory.entry_time(HOST.at(0x1008)), 0u);
    EXPECT_EQ(memory.now(), 6u);
}

TEST(stored_memory, notices_stores_to_the_64_bytes_of_a_watched_line)
{
    Stored_Memory memory;
    memory.watch_line(HOST.at(0x1044));
    for (const uint64_t beside : {0x1038, 0x1080})
        memory.store(store_at(HOST.at(beside)));
    EXPECT_EQ(memory.line_time(HOST.at(0x1044)), 0u);
    memory.store(store_at(HOST.at(0x107F), 1));
    EXPECT_EQ(memory.line_time(HOST.at(0x1044)), 3u);
    EXPECT_EQ(memory.line_time(HOST.at(0x1040)), 3u);
    EXPECT_EQ(memory.last_entry_time(), 0u); // no entry is there
    memory.store(store_at(HOST.at(0x1040), 1));
    EXPECT_EQ(memory.line_time(HOST.at(0x1044)), 4u);
    memory.forget_lines();
    EXPECT_EQ(memory.line_time(HOST.at(0x1044)), 0u);
}

TEST(stored_memory, doubts_every_doubleword_at_the_offset_of_a_store_whose_page_is_not_known)
{
    for (const Memory_Place &where : {REAL_MODE, UNKNOWN}) {
        Stored_Memory memory;
        memory.store(store_at(where.at(0x7010)));
        for (const Memory_Place &asked : {HOST, GUEST}) {
            for (const uint64_t hit : {0x10, 0x17, 0x9010})
                EXPECT_EQ(memory.doubtful_time(asked.at(hit)), 1u) << text(asked) << hit;
            for (const uint64_t missed : {0x0, 0x8, 0x0C, 0x18, 0x20, 0x30, 0x90, 0x810})
                EXPECT_EQ(memory.doubtful_time(asked.at(missed)), 0u) << text(asked) << missed;
        }
        EXPECT_EQ(memory.last_entry_time(), 1u);
    }
}

TEST(stored_memory, doubts_guest_memory_after_stores_of_the_host_and_not_the_other_way_round)
{
    Stored_Memory memory;
    memory.store(store_at(HOST.at(0x5018)));
    EXPECT_EQ(memory.doubtful_time(GUEST.at(0x18)), 1u);
    EXPECT_EQ(memory.doubtful_time(REAL_MODE.at(0x18)), 1u);
    EXPECT_EQ(memory.doubtful_time(HOST.at(0x18)), 0u);
    memory.store(store_at(GUEST.at(0x5FF8)));
    EXPECT_EQ(memory.doubtful_time(GUEST.at(0xFF8)), 0u);
    EXPECT_EQ(memory.doubtful_time(HOST.at(0xFF8)), 0u);
    memory.store(store_at(REAL_MODE.at(0x18)));
    EXPECT_EQ(memory.doubtful_time(GUEST.at(0x18)), 3u); // the last of several
}

TEST(stored_memory, a_store_anywhere_may_have_hit_everything)
{
    Stored_Memory memory;
    memory.store(store_at(HOST.at(0x5018)));
    memory.store_anywhere();
    EXPECT_EQ(memory.now(), 2u);
    EXPECT_EQ(memory.last_entry_time(), 2u);
    for (const Memory_Place &asked : {HOST, GUEST})
        EXPECT_EQ(memory.doubtful_time(asked.at(0x18)), 2u);
}

TEST(stored_memory, every_byte_of_an_entry_or_a_line_is_a_place_in_it)
{
    Stored_Memory memory;
    memory.watch_entry(HOST.at(0x1009));
    memory.watch_line(HOST.at(0x1041));
    memory.store(store_at(HOST.at(0x1008)));
    memory.store(store_at(HOST.at(0x1078)));
    EXPECT_EQ(memory.entry_time(HOST.at(0x100F)), 1u);
    EXPECT_EQ(memory.line_time(HOST.at(0x107F)), 2u);
    memory.store(store_at(UNKNOWN.at(0x3010)));
    EXPECT_EQ(memory.doubtful_time(HOST.at(0x5010)), 3u);
    for (const uint64_t other : {0x5008, 0x5018})
        EXPECT_EQ(memory.doubtful_time(HOST.at(other)), 0u) << std::hex << other;
}

TEST(stored_memory, forgets_everything)
{
    Stored_Memory memory;
    memory.watch_entry(HOST.at(0x1008));
    memory.watch_line(HOST.at(0x1000));
    memory.store(store_at(HOST.at(0x1008)));
    memory.store(store_at(UNKNOWN.at(0x1008)));
    memory.store_anywhere();
    memory.forget();
    EXPECT_EQ(memory.now(), 0u);
    EXPECT_EQ(memory.last_entry_time(), 0u);
    EXPECT_EQ(memory.entry_time(HOST.at(0x1008)), 0u);
    EXPECT_EQ(memory.line_time(HOST.at(0x1000)), 0u);
    EXPECT_EQ(memory.doubtful_time(GUEST.at(0x1008)), 0u);
    memory.watch_entry(HOST.at(0x1008));
    memory.store(store_at(HOST.at(0x1008)));
    EXPECT_EQ(memory.entry_time(HOST.at(0x1008)), 1u);
}

TEST(stored_memory, is_full_with_three_quarters_of_its_entries_or_lines_but_64)
{
    Stored_Memory memory;
    uint64_t entries = 0, lines = 0;
    for (; !memory.entries_full(); entries++)
        memory.watch_entry(HOST.at(entries * 8));
    for (; !memory.lines_full(); lines++)
        memory.watch_line(HOST.at(lines * 64));
    EXPECT_EQ(entries, 524288 / 4 * 3 - 64u);
    EXPECT_EQ(lines, 262144 / 4 * 3 - 64u);
    memory.forget_lines();
    EXPECT_FALSE(memory.lines_full());
    EXPECT_TRUE(memory.entries_full());
    memory.forget();
    EXPECT_FALSE(memory.entries_full());
}

// ---- Several threads -------------------------------------------------------------------------------------

namespace
{

void store_in(Thread_Stores &threads, const QTRACE_RECORD &record)
{
    threads.record(record, Page_Sizes());
}

QTRACE_RECORD host_store(uint64_t effective, uint32_t page_number)
{
    QTRACE_RECORD record = record_of(STORE_DOUBLEWORD, 0, effective);
    set_page(record, page_number);
    return record;
}

// A store of a guest in real mode, whose page is `guest_page` for the guest and `page` for the host.
QTRACE_RECORD guest_store(uint64_t effective, uint64_t guest_page, uint32_t page)
{
    QTRACE_RECORD record = host_store(effective, page);
    record.data_hRTW_depth = 1;
    std::memcpy(&record.data_gRTW.GUEST_ra, &guest_page, sizeof guest_page);
    return record;
}

} // namespace

TEST(thread_stores, a_single_thread_has_no_others)
{
    Thread_Stores threads;
    EXPECT_EQ(threads.add_thread(), 0u);
    store_in(threads, host_store(0x30000, 0x870));
    store_in(threads, record_of(STORE_DOUBLEWORD, 0, 0x40));
    threads.lose();
    EXPECT_FALSE(threads.others_unknown(0));
    EXPECT_FALSE(threads.others_hit(0, HOST.at(0x870000)));
    EXPECT_FALSE(threads.others_hit(0, REAL_MODE.at(0x40)));
}

TEST(thread_stores, what_others_stored_to_is_known_by_lines_of_64_bytes)
{
    Thread_Stores threads;
    EXPECT_EQ(threads.add_thread(), 0u);
    store_in(threads, host_store(0x30FC0, 0x870)); // the last line of a page of 4 KiB
    EXPECT_EQ(threads.add_thread(), 1u);
    store_in(threads, host_store(0x40040, 0x990));
    EXPECT_EQ(threads.add_thread(), 2u);
    for (const size_t thread : {1, 2}) {
        EXPECT_TRUE(threads.others_hit(thread, HOST.at(0x870FC0)));
        EXPECT_TRUE(threads.others_hit(thread, HOST.at(0x870FFF)));
        for (const uint64_t missed : {0x870F80, 0x870000, 0x871000, 0x871FC0, 0x86FFC0})
            EXPECT_FALSE(threads.others_hit(thread, HOST.at(missed))) << std::hex << missed;
        EXPECT_EQ(threads.others_hit(thread, HOST.at(0x990040)), thread == 2);
    }
    EXPECT_FALSE(threads.others_hit(0, HOST.at(0x870FC0)));
    EXPECT_TRUE(threads.others_hit(0, HOST.at(0x990040)));
    EXPECT_FALSE(threads.others_hit(0, HOST.at(0x990000)));
    for (const size_t thread : {0, 1, 2}) {
        EXPECT_FALSE(threads.others_unknown(thread));
        EXPECT_TRUE(threads.others_hit(thread, REAL_MODE.at(0x123))); // where that is in the host is not known
    }
}

TEST(thread_stores, a_page_that_several_store_to_is_one_of_others_for_each)
{
    Thread_Stores threads;
    for (const uint64_t line : {0x00, 0x40, 0x80}) {
        threads.add_thread();
        store_in(threads, host_store(0x30000 + line, 0x870));
    }
    for (const size_t thread : {0, 1, 2}) {
        for (const uint64_t line : {0x00, 0x40, 0x80})
            EXPECT_TRUE(threads.others_hit(thread, HOST.at(0x870000 + line)));
        EXPECT_FALSE(threads.others_hit(thread, HOST.at(0x8700C0)));
    }
}

TEST(thread_stores, stores_in_real_mode_may_have_hit_that_line_of_every_page)
{
    Thread_Stores threads;
    threads.add_thread();
    threads.add_thread();
    store_in(threads, record_of(STORE_DOUBLEWORD, 0, 0x7C0));
    threads.add_thread();
    for (const size_t thread : {0, 2})
        for (const Memory_Place &asked : {HOST, GUEST, UNKNOWN}) {
            EXPECT_TRUE(threads.others_hit(thread, asked.at(0x3457C0))) << text(asked);
            EXPECT_FALSE(threads.others_hit(thread, asked.at(0x345780))) << text(asked);
        }
    EXPECT_FALSE(threads.others_hit(1, HOST.at(0x3457C0)));
}

TEST(thread_stores, every_store_of_the_first_thread_may_have_hit_places_of_the_second)
{
    Thread_Stores threads;
    threads.add_thread();
    store_in(threads, record_of(STORE_DOUBLEWORD, 0, 0x40));
    store_in(threads, record_of(STORE_DOUBLEWORD, 0, 0x7C0));
    threads.add_thread();
    EXPECT_TRUE(threads.others_hit(1, HOST.at(0x345040)));
    EXPECT_TRUE(threads.others_hit(1, HOST.at(0x3457C0)));
    EXPECT_FALSE(threads.others_hit(1, HOST.at(0x345080)));
    for (uint64_t line = 0; line < 64; line++)
        EXPECT_TRUE(threads.others_hit(1, REAL_MODE.at(line * 64))) << line;
}

TEST(thread_stores, stores_of_the_host_may_have_hit_a_guest_and_not_the_other_way_round)
{
    Thread_Stores threads;
    threads.add_thread();
    threads.add_thread();
    store_in(threads, host_store(0x30140, 0x870));
    EXPECT_TRUE(threads.others_hit(0, GUEST.at(0x1140)));
    EXPECT_FALSE(threads.others_hit(0, GUEST.at(0x1180)));
    EXPECT_FALSE(threads.others_hit(0, HOST.at(0x1140)));
    QTRACE_FILE_HDR header{};
    header.lpid[0] = 5;
    threads.header(header);
    store_in(threads, guest_store(0x200, 0xAB0000, 0x110)); // in the guest 0xab0200, in the host 0x110200
    EXPECT_TRUE(threads.others_hit(0, GUEST.at(0xAB0200)));
    EXPECT_TRUE(threads.others_hit(0, HOST.at(0x110200)));
    EXPECT_FALSE(threads.others_hit(0, HOST.at(0xAB0200)));
    EXPECT_FALSE(threads.others_hit(1, GUEST.at(0xAB0200)));
}

TEST(thread_stores, each_guest_has_memory_of_its_own_and_each_thread_begins_without_a_partition)
{
    QTRACE_FILE_HDR header{};
    header.lpid[0] = 5;
    QTRACE_RECORD record = host_store(0x200, 0xAB0); // of a guest: nested
    record.header.control.fld.guest_xlate_mode_data = trace::MODE_RADIX;
    record.header.control.fld.data_gpage_size_present = 1;
    record.data_gpage_size = 1;
    Thread_Stores threads;
    threads.add_thread();
    threads.header(header);
    store_in(threads, record);
    threads.add_thread();
    EXPECT_TRUE(threads.others_hit(1, GUEST.at(0xAB0200)));
    EXPECT_FALSE(threads.others_hit(1, HOST.at(0xAB0200)));
    for (const uint64_t lpid : {4, 6, 0})
        EXPECT_FALSE(threads.others_hit(1, Memory_Place{Memory_Space::guest, lpid, 0xAB0200})) << lpid;
    store_in(threads, record);
    EXPECT_TRUE(threads.others_hit(0, Memory_Place{Memory_Space::guest, 0, 0xAB0200}));
    EXPECT_FALSE(threads.others_hit(0, GUEST.at(0xAB0200)));
}

TEST(thread_stores, what_another_thread_lost_is_not_known)
{
    Thread_Stores threads;
    threads.add_thread();
    threads.add_thread();
    QTRACE_RECORD anywhere = record_of(STORE_DOUBLEWORD, 0, 0);
    anywhere.header.control.fld.data_address_present = 0;
    store_in(threads, anywhere);
    threads.add_thread();
    EXPECT_TRUE(threads.others_unknown(0));
    EXPECT_FALSE(threads.others_unknown(1));
    EXPECT_TRUE(threads.others_unknown(2));
    threads.lose();
    EXPECT_TRUE(threads.others_unknown(1));
    Thread_Stores first_lost;
    first_lost.add_thread();
    first_lost.lose();
    first_lost.add_thread();
    EXPECT_FALSE(first_lost.others_unknown(0));
    EXPECT_TRUE(first_lost.others_unknown(1));
}

TEST(thread_stores, too_many_pages_make_the_others_unknown)
{
    constexpr uint64_t MOST = 262144 / 4 * 3 - 64;
    Thread_Stores threads;
    threads.add_thread();
    for (uint64_t page = 0; page < MOST; page++)
        store_in(threads, record_of(STORE_DOUBLEWORD, 0, page << 12));
    threads.add_thread();
    EXPECT_FALSE(threads.others_unknown(1));
    store_in(threads, record_of(STORE_DOUBLEWORD, 0, 0)); // a page that is there
    EXPECT_FALSE(threads.others_unknown(1));
    store_in(threads, record_of(STORE_DOUBLEWORD, 0, MOST << 12));
    EXPECT_TRUE(threads.others_unknown(0));
    EXPECT_TRUE(threads.others_unknown(1));
    store_in(threads, record_of(STORE_DOUBLEWORD, 0, 0));
    EXPECT_TRUE(threads.others_unknown(1)); // from then on
}

TEST(thread_stores, too_many_pages_of_a_single_thread_matter_to_nobody)
{
    Thread_Stores threads;
    threads.add_thread();
    for (uint64_t page = 0; page < 262144 / 4 * 3; page++)
        store_in(threads, record_of(STORE_DOUBLEWORD, 0, page << 12));
    EXPECT_FALSE(threads.others_unknown(0));
}

// ---- The table -------------------------------------------------------------------------------------------

TEST(bounded_table, keeps_what_was_inserted_until_it_is_cleared)
{
    Bounded_Table<uint64_t> table(1024);
    uint64_t count = 0;
    for (; !table.is_full(); count++)
        table.insert(mixed(1, count)) = count;
    EXPECT_EQ(count, 1024 / 4 * 3 - 64u);
    for (uint64_t i = 0; i < count; i++)
        ASSERT_EQ(*table.find(mixed(1, i)), i);
    EXPECT_EQ(table.find(mixed(1, count)), nullptr);
    table.clear();
    EXPECT_FALSE(table.is_full());
    EXPECT_EQ(table.find(mixed(1, 5)), nullptr);
}

TEST(bounded_table, keys_that_meet_in_one_slot_keep_values_of_their_own)
{
    Bounded_Table<uint64_t> table(1024);
    const Bounded_Table<uint64_t> &constant = table;
    for (const uint64_t key : {255, 511, 767, 1, 256})
        table.insert(key) = key + 5;
    for (const uint64_t key : {255, 511, 767, 1, 256}) {
        ASSERT_NE(table.find(key), nullptr);
        EXPECT_EQ(*table.find(key), key + 5);
        EXPECT_EQ(*constant.find(key), key + 5);
    }
    for (const uint64_t key : {1023, 2, 512}) {
        EXPECT_EQ(table.find(key), nullptr);
        EXPECT_EQ(constant.find(key), nullptr);
    }
}

TEST(bounded_table, any_number_of_keys_may_meet_in_one_slot)
{
    Bounded_Table<uint64_t> table(1024);
    for (uint64_t key = 1; key <= 150; key++)
        table.insert(key << 16) = key;
    for (uint64_t key = 1; key <= 150; key++)
        ASSERT_EQ(*table.find(key << 16), key);
}

TEST(bounded_table, stays_full_with_every_key_more)
{
    Bounded_Table<uint64_t> table(1024);
    for (uint64_t count = 0; count < 710; count++) {
        EXPECT_EQ(table.is_full(), count >= 704) << count;
        table.insert(mixed(3, count));
    }
}

TEST(bounded_table, counts_anew_after_it_was_cleared)
{
    Bounded_Table<uint64_t> table(1024);
    for (int turn = 0; turn < 2; turn++) {
        uint64_t count = 0;
        for (; !table.is_full(); count++)
            table.insert(mixed(2, count));
        EXPECT_EQ(count, 704u) << turn;
        table.clear();
    }
}

TEST(mixed, is_never_0_and_depends_on_both_numbers_and_their_order)
{
    EXPECT_EQ(mixed(7, 7), 1u); // what would be 0
    EXPECT_NE(mixed(1, 2), mixed(1, 3));
    EXPECT_NE(mixed(mixed(1, 2), 3), mixed(mixed(1, 3), 2));
}
