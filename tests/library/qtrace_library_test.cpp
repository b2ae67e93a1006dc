// The reference trace library: what is written comes back, and nothing else ever does.
#include "trace_file_fixture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using testing::HasSubstr;

// ---- What is written comes back ---------------------------------------------------------------------------------

TEST_F(trace_file, without_items_ends_cleanly)
{
    QTRACE_Fclose(open());
    const Contents contents = read();
    EXPECT_TRUE(contents.items.empty());
    EXPECT_TRUE(contents.damages.empty());
    EXPECT_TRUE(verified().clean_end);
}

TEST_F(trace_file, gives_back_a_hundred_thousand_records_of_a_plausible_program)
{
    write_plausible(100'000);
    const Contents contents = read();
    EXPECT_TRUE(contents.damages.empty());
    EXPECT_TRUE(contents.items == written_);
    const QTRACE_Info info = verified();
    EXPECT_EQ(info.records, 100'000u);
    EXPECT_EQ(info.headers, 1u);
    EXPECT_EQ(info.compression, 1u);
    EXPECT_TRUE(info.clean_end);
    EXPECT_GT(info.blocks, 5u);
}

TEST_F(trace_file, gives_back_every_member_of_wild_records_and_headers_whatever_their_flags)
{
    Random_Trace chance(2);
    const QTRACE_FDESCR file = open();
    for (int i = 0; i < 6'000; ++i) {
        const uint64_t kind = chance.below(20);
        if (kind == 0)
            write(file, chance.wild_header());
        else if (kind == 1)
            write(file, chance.wild_header(), chance.comment(chance.below(300)));
        else if (kind < 10)
            write(file, chance.wild_record());
        else
            write(file, chance.plausible_record());
    }
    QTRACE_Fclose(file);
    const Contents contents = read();
    EXPECT_TRUE(contents.damages.empty());
    EXPECT_TRUE(contents.items == written_);
}

TEST_F(trace_file, gives_back_each_single_bit_of_every_member_of_a_record)
{
    QTRACE_RECORD all;
    std::memset(&all, 0, sizeof all);
    const QTRACE_FDESCR file = open();
    const size_t data_pointer = offsetof(QTRACE_RECORD, length) + 2;
    for (size_t byte = 0; byte < offsetof(QTRACE_RECORD, offset); ++byte) {
        const bool pointer = (byte >= data_pointer && byte < offsetof(QTRACE_RECORD, next_instruction_ea)) ||
                             (byte >= offsetof(QTRACE_RECORD, file_header) && byte < offsetof(QTRACE_RECORD, regs));
        const size_t in_regs = byte - offsetof(QTRACE_RECORD, regs);
        if (pointer || (byte >= offsetof(QTRACE_RECORD, regs) && in_regs >= 10 && in_regs < 16))
            continue;
        reinterpret_cast<uint8_t *>(&all)[byte] = 1;
        write(file, all);
        reinterpret_cast<uint8_t *>(&all)[byte] = 0;
    }
    QTRACE_Fclose(file);
    EXPECT_TRUE(read().items == written_);
}

TEST_F(trace_file, keeps_header_members_whose_flags_are_clear)
{
    QTRACE_FILE_HDR header{};
    header.iar_gpage_size = 5;
    header.sdr1[3] = 9;
    header.version = 0x01020304;
    const QTRACE_FDESCR file = open();
    write(file, header);
    QTRACE_Fclose(file);
    EXPECT_TRUE(read().items == written_);
}

TEST_F(trace_file, leaves_pointers_and_bookkeeping_out)
{
    QTRACE_RECORD record{};
    uint8_t data = 0;
    QTRACE_FILE_HDR header{};
    record.data = &data;
    record.persistent_data = &data;
    record.file_header = &header;
    record.offset = record.record_count = 77;
    const QTRACE_FDESCR file = open();
    ASSERT_EQ(QTRACE_FwriteRecord(file, &record), 0);
    QTRACE_Fclose(file);
    const QTRACE_RECORD none{};
    EXPECT_TRUE(read().items.at(0).image == image_of(none));
}

TEST_F(trace_file, keeps_comments_of_every_length)
{
    Random_Trace chance(3);
    const QTRACE_FDESCR file = open();
    for (const size_t size : {0, 1, 100, 16384, 16385, 40000, 65535, 65535, 12}) {
        write(file, chance.plausible_header(), chance.comment(size));
        write(file, chance.plausible_record());
    }
    QTRACE_Fclose(file);
    const Contents contents = read();
    EXPECT_TRUE(contents.damages.empty());
    EXPECT_TRUE(contents.items == written_);
}

TEST_F(trace_file, copies_the_comment_during_the_call)
{
    std::string comment = "before";
    QTRACE_FILE_HDR header{};
    header.comment = comment.data();
    header.comment_length = 6;
    const QTRACE_FDESCR file = open();
    ASSERT_EQ(QTRACE_FwriteFileHeader(file, &header), 0);
    comment = "after";
    QTRACE_Fclose(file);
    EXPECT_EQ(read().items.at(0).comment, "before");
}

TEST_F(trace_file, is_no_larger_than_its_payload_when_compression_is_off)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    write_plausible(20'000);
    const QTRACE_Info stored = verified();
    EXPECT_EQ(stored.compression, 0u);
    EXPECT_TRUE(read().items == written_);
    setenv("QTRACE_COMPRESSION", "zstd:19", 1);
    write_plausible(20'000);
    EXPECT_LT(verified().size, stored.size);
    EXPECT_EQ(verified().compression, 1u);
}

TEST_F(trace_file, is_refused_with_an_unknown_compression)
{
    for (const char *wish : {"", "gzip", "zstd:", "zstd:x", "zstd:3x", "zstd:99", "zstd:23", "zstd:-131073"}) {
        setenv("QTRACE_COMPRESSION", wish, 1);
        EXPECT_EQ(open(), -1) << wish;
        EXPECT_THAT(qtrace_writer_error(), HasSubstr("QTRACE_COMPRESSION"));
    }
}

TEST_F(trace_file, is_compressed_by_every_level_that_there_is)
{
    for (const char *wish : {"zstd:-131072", "zstd:22"}) {
        setenv("QTRACE_COMPRESSION", wish, 1);
        write_plausible(10);
        EXPECT_EQ(read().records(), 10u) << wish;
    }
}

TEST_F(trace_file, has_the_permissions_that_the_process_gives)
{
    const mode_t before = umask(0027);
    QTRACE_Fclose(open());
    umask(before);
    EXPECT_EQ(std::filesystem::status(name_).permissions(), std::filesystem::perms{0640});
}

TEST_F(trace_file, blocks_hold_at_most_64_KiB_of_encoded_data)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    Random_Trace chance(4);
    const QTRACE_FDESCR file = open();
    for (int i = 0; i < 3'000; ++i)
        write(file, chance.wild_record());
    QTRACE_Fclose(file);
    const std::string all = bytes();
    for (const uint64_t offset : block_offsets()) {
        uint32_t raw_size;
        std::memcpy(&raw_size, &all[offset + 12], 4);
        EXPECT_LE(raw_size, 65536u);
    }
    EXPECT_TRUE(read().items == written_);
}

TEST_F(trace_file, many_files_at_once_do_not_mix)
{
    std::vector<QTRACE_FDESCR> files;
    for (int i = 0; i < 300; ++i)
        files.push_back(QTRACE_Fopen((name_ + std::to_string(i)).c_str(), QTRACE_WRITE));
    for (uint32_t word = 0; word < 50; ++word)
        for (size_t i = 0; i < files.size(); ++i) {
            QTRACE_RECORD record{};
            record.header.instruction = word * 1000 + static_cast<uint32_t>(i);
            ASSERT_EQ(QTRACE_FwriteRecord(files[i], &record), 0);
        }
    for (const QTRACE_FDESCR file : files)
        QTRACE_Fclose(file);
    for (size_t i = 0; i < files.size(); ++i) {
        const Contents contents = read(name_ + std::to_string(i));
        ASSERT_EQ(contents.items.size(), 50u);
        QTRACE_RECORD record{};
        record.header.instruction = 49 * 1000 + static_cast<uint32_t>(i);
        EXPECT_TRUE(contents.items.back().image == image_of(record)) << i;
    }
}

// ---- Addresses --------------------------------------------------------------------------------------------------

TEST_F(trace_file, address_is_unknown_until_a_header_names_one)
{
    QTRACE_RECORD plain{};
    QTRACE_FILE_HDR partition{}, full{};
    partition.sec_ext_controlword.control.fld.lpid_is_present = 1;
    full.control.iar_is_present = 1;
    full.iar[1] = 0x10;
    const QTRACE_FDESCR file = open();
    write(file, plain);
    write(file, full);
    write(file, plain);
    write(file, partition);
    write(file, plain);
    QTRACE_Fclose(file);
    const auto items = read().items;
    EXPECT_FALSE(items.at(0).address_known);
    EXPECT_TRUE(items.at(2).address_known);
    EXPECT_EQ(items.at(2).address, 0x1000u);
    EXPECT_EQ(items.at(4).address, 0x1004u);
}

TEST_F(trace_file, open_header_is_the_full_one_with_later_partitions)
{
    QTRACE_FILE_HDR full{}, partition{};
    full.control.iar_is_present = 1;
    full.sdr1[0] = 4;
    partition.sec_ext_controlword.control.fld.lpid_is_present = 1;
    partition.lpid[0] = 6;
    const QTRACE_FDESCR file = open();
    write(file, full, "text");
    write(file, partition);
    for (int i = 0; i < 100'000; ++i)
        write(file, Random_Trace(static_cast<uint64_t>(i)).plausible_record());
    QTRACE_Fclose(file);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    EXPECT_EQ(qtrace_open_header(reader), nullptr);
    ASSERT_EQ(qtrace_seek(reader, 99'999), 0);
    const QTRACE_FILE_HDR *open_header = qtrace_open_header(reader);
    ASSERT_NE(open_header, nullptr);
    EXPECT_EQ(open_header->lpid[0], 6);
    EXPECT_EQ(open_header->sdr1[0], 4);
    EXPECT_EQ(open_header->comment, nullptr);
    qtrace_close(reader);
}

// ---- Seeking ----------------------------------------------------------------------------------------------------

TEST_F(trace_file, seeking_reaches_every_record_with_its_address)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    Random_Trace chance(5);
    const QTRACE_FDESCR file = open();
    for (int i = 0; i < 2'000; ++i) {
        if (i % 97 == 0)
            write(file, chance.plausible_header(), chance.comment(i % 5 ? 20 : 30'000));
        write(file, i % 3 ? chance.plausible_record() : chance.wild_record());
    }
    QTRACE_Fclose(file);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    ASSERT_GT(verified().blocks, 10u);
    size_t at = 0;
    for (uint64_t record = 0; record < 2'000; ++record) {
        ASSERT_EQ(qtrace_seek(reader, record), 0);
        const QTRACE_Item *item;
        QTRACE_ITEM kind;
        while ((kind = qtrace_next(reader, &item)) != QTRACE_ITEM_RECORD) {
            ASSERT_EQ(item->record_number, record);
            ASSERT_TRUE(kind == QTRACE_ITEM_HEADER || item->discontinuity.cause == QTRACE_CAUSE_PAUSE);
            if (kind == QTRACE_ITEM_HEADER) {
                ASSERT_EQ(item_of(*item), written_.at(at++));
            }
        }
        ASSERT_EQ(item->record_number, record);
        ASSERT_EQ(item_of(*item), written_.at(at++));
    }
    EXPECT_EQ(qtrace_seek(reader, 2'000), -1);
    EXPECT_EQ(qtrace_next(reader, nullptr), QTRACE_ITEM_END);
    EXPECT_EQ(qtrace_seek(reader, 0), 0);
    qtrace_close(reader);
}

TEST_F(trace_file, info_keeps_the_place_of_the_reader)
{
    write_plausible(30'000);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    ASSERT_EQ(qtrace_seek(reader, 20'000), 0);
    QTRACE_Info info;
    EXPECT_EQ(qtrace_info(reader, &info), 0);
    EXPECT_EQ(info.records, 30'000u);
    const QTRACE_Item *item;
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
    EXPECT_EQ(item->record_number, 20'000u);
    qtrace_close(reader);
}

// ---- Damage -----------------------------------------------------------------------------------------------------

TEST_F(trace_file, without_its_comment_block_is_damaged)
{
    Random_Trace chance(11);
    const QTRACE_FDESCR file = open();
    write(file, chance.plausible_header());
    write(file, chance.plausible_record());
    QTRACE_FILE_HDR header = chance.plausible_header();
    header.control.comment_present = 1;
    write(file, header, chance.comment(20'000));
    for (int i = 0; i < 10; ++i)
        write(file, chance.plausible_record());
    QTRACE_Fclose(file);
    const std::vector<uint64_t> blocks = block_offsets();
    ASSERT_EQ(blocks.size(), 2u);
    const std::string whole = bytes();
    uint32_t stored_size;
    std::memcpy(&stored_size, &whole[16 + 8], 4);
    const uint64_t comment_block = 16 + 56 + stored_size;
    put_bytes(whole.substr(0, comment_block) + whole.substr(blocks[1]));
    const Contents contents = read();
    ASSERT_EQ(contents.damages.size(), 1u);
    EXPECT_EQ(contents.damages[0].offset, comment_block);
    EXPECT_EQ(contents.damages[0].bytes, 0u);
    EXPECT_EQ(contents.damages[0].records, 0u);
    EXPECT_TRUE(contents.damages[0].records_known);
    EXPECT_THAT(contents.texts[0], HasSubstr("the comment block before this one is missing"));
    ASSERT_EQ(contents.items.size(), written_.size());
    EXPECT_EQ(contents.items[2].comment, "");
    for (const size_t i : {0, 1, 3, 12})
        EXPECT_EQ(contents.items[i], written_[i]);
    EXPECT_EQ(verified().damaged_places, 1u);
    EXPECT_TRUE(verified().clean_end);
}

TEST_F(trace_file, with_bytes_after_its_last_block_is_damaged)
{
    write_plausible(100);
    const std::string whole = bytes();
    put_bytes(whole + "x");
    Contents contents = read();
    ASSERT_EQ(contents.damages.size(), 1u);
    EXPECT_EQ(contents.damages[0].cause, QTRACE_CAUSE_DAMAGE);
    EXPECT_EQ(contents.damages[0].offset, whole.size());
    EXPECT_FALSE(verified().clean_end);
    put_bytes(whole + whole);
    contents = read();
    EXPECT_FALSE(contents.damages.empty());
    EXPECT_EQ(contents.records(), 200u);
    EXPECT_FALSE(verified().clean_end);
}

TEST_F(trace_file, with_a_damaged_start_is_read_from_its_first_block)
{
    write_plausible(100);
    std::string damaged = bytes();
    damaged[1] = '?';
    put_bytes(damaged);
    const Contents contents = read();
    ASSERT_EQ(contents.damages.size(), 1u);
    EXPECT_EQ(contents.damages[0].offset, 0u);
    EXPECT_EQ(contents.damages[0].bytes, 16u);
    EXPECT_EQ(contents.records(), 100u);
}

TEST_F(trace_file, of_another_kind_or_version_is_refused_with_its_offset)
{
    EXPECT_THAT(read(name_).open_error, HasSubstr("No such file"));
    EXPECT_THAT(read(folder_.string()).open_error, HasSubstr("directory"));
    put_bytes("");
    EXPECT_THAT(read().open_error, HasSubstr("byte 0: the file is empty"));
    put_bytes(std::string(5'000, 'a'));
    EXPECT_THAT(read().open_error, HasSubstr("byte 0: not a trace file"));
    put_bytes("hello");
    EXPECT_THAT(read().open_error, HasSubstr("byte 0: not a trace file"));
    // A start of version 2, its checksum right.
    put_bytes(std::string("\x8aQTRACE\n\x02\x00\x00\x00\xe9"
                          "\x91"
                          "\x02"
                          "\xa5",
                          16));
    EXPECT_THAT(read().open_error, HasSubstr("byte 8: format version 2"));
}

// ---- The writer's failures --------------------------------------------------------------------------------------

TEST_F(trace_file, descriptors_that_are_not_open_are_errors)
{
    QTRACE_RECORD record{};
    QTRACE_FILE_HDR header{};
    const QTRACE_FDESCR file = open();
    QTRACE_Fclose(file);
    for (const QTRACE_FDESCR bad : {-1, -1000, file, 12345, 256 * 1024 - 1, 256 * 1024, 0x7fffffff}) {
        const uint64_t failures = qtrace_writer_failures();
        EXPECT_NE(QTRACE_FwriteRecord(bad, &record), 0);
        EXPECT_NE(QTRACE_FwriteFileHeader(bad, &header), 0);
        QTRACE_Fclose(bad);
        EXPECT_EQ(qtrace_writer_failures(), failures + 3);
        EXPECT_THAT(qtrace_writer_error(), HasSubstr("not open"));
    }
}

TEST_F(trace_file, takes_no_record_and_no_header_that_is_missing)
{
    const QTRACE_FDESCR file = open();
    EXPECT_EQ(QTRACE_FwriteRecord(file, nullptr), -1);
    EXPECT_EQ(QTRACE_FwriteFileHeader(file, nullptr), -1);
    write(file, QTRACE_RECORD{});
    write(file, QTRACE_RECORD{});
    EXPECT_EQ(QTRACE_FwriteRecord(file, nullptr), -1);
    EXPECT_THAT(qtrace_writer_error(), HasSubstr("nothing given"));
    QTRACE_Fclose(file);
    EXPECT_EQ(read().records(), 2u);
}

TEST_F(trace_file, more_than_a_thousand_may_be_open_at_once)
{
    constexpr rlim_t FILES = 1'030;
    rlimit limit{}, before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    limit = before;
    limit.rlim_cur = std::max(before.rlim_cur, std::min(before.rlim_max, FILES + 100));
    if (limit.rlim_cur < FILES + 100 || setrlimit(RLIMIT_NOFILE, &limit) != 0)
        GTEST_SKIP() << "no process may open as many";
    std::vector<QTRACE_FDESCR> files;
    while (files.size() < FILES && (files.empty() || files.back() >= 0))
        files.push_back(QTRACE_Fopen("/dev/null", QTRACE_WRITE));
    EXPECT_GE(files.back(), 0) << qtrace_writer_error();
    for (const QTRACE_FDESCR file : files)
        QTRACE_Fclose(file);
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(trace_file, cannot_be_opened_for_reading_or_without_a_name_or_in_no_folder)
{
    EXPECT_EQ(QTRACE_Fopen(name_.c_str(), QTRACE_READ), -1);
    EXPECT_THAT(qtrace_writer_error(), HasSubstr("qtrace_open"));
    EXPECT_EQ(QTRACE_Fopen(nullptr, QTRACE_WRITE), -1);
    EXPECT_EQ(QTRACE_Fopen((name_ + "/no/such").c_str(), QTRACE_WRITE), -1);
    EXPECT_THAT(qtrace_writer_error(), HasSubstr(name_ + "/no/such: open: "));
}

TEST_F(trace_file, on_a_full_device_is_not_opened)
{
    EXPECT_EQ(QTRACE_Fopen("/dev/full", QTRACE_WRITE), -1);
    EXPECT_THAT(qtrace_writer_error(), HasSubstr("/dev/full: write: No space left"));
}

TEST_F(trace_file, that_cannot_be_opened_is_named_however_long_its_name_is)
{
    const std::string name = name_ + std::string(4000, '/') + "none/trace";
    EXPECT_EQ(QTRACE_Fopen(name.c_str(), QTRACE_WRITE), -1);
    EXPECT_EQ(qtrace_writer_error(), name + ": open: No such file or directory");
}

TEST_F(trace_file, whose_beginning_cannot_be_written_gives_back_its_descriptor)
{
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    ::close(STDIN_FILENO);
    EXPECT_EQ(QTRACE_Fopen("/dev/full", QTRACE_WRITE), -1);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    ASSERT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
}

// The lowest is what a file gets where standard input is closed.
TEST_F(trace_file, is_written_and_read_by_any_descriptor_and_gives_it_back)
{
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    ::close(STDIN_FILENO);
    write_plausible(10);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_EQ(read().records(), 10u);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    ASSERT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
}

TEST_F(trace_file, is_closed_in_programs_that_are_started_meanwhile)
{
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    ::close(STDIN_FILENO);
    const QTRACE_FDESCR file = open();
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), FD_CLOEXEC) << "of the writer";
    QTRACE_Fclose(file);
    QTRACE_Reader *const reader = qtrace_open(name_.c_str(), nullptr);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), FD_CLOEXEC) << "of the reader";
    qtrace_close(reader);
    ASSERT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
}

TEST_F(trace_file, that_no_longer_fits_keeps_its_sealed_blocks_and_refuses_records)
{
    Random_Trace chance(8);
    const QTRACE_FDESCR file = open();
    size_t accepted = 0;
    bool refused = false;
    const uint64_t failures = qtrace_writer_failures();
    {
        const Small_Disk disk(200'000);
        for (int i = 0; i < 100'000 && !refused; ++i) {
            QTRACE_RECORD record = chance.wild_record();
            refused = QTRACE_FwriteRecord(file, &record) != 0;
            written_.push_back({false, image_of(record), {}, 0, false});
            accepted += !refused;
        }
        ASSERT_TRUE(refused);
        EXPECT_THAT(qtrace_writer_error(), HasSubstr(name_ + ": write: File too large"));
        QTRACE_Fclose(file);
    }
    EXPECT_GT(qtrace_writer_failures(), failures + 1);
    const Contents contents = read();
    ASSERT_EQ(contents.damages.size(), 1u);
    EXPECT_EQ(contents.damages[0].cause, QTRACE_CAUSE_CUT_END);
    EXPECT_GT(contents.records(), 0u);
    EXPECT_LE(contents.records(), accepted);
    for (size_t i = 0; i < contents.items.size(); ++i)
        ASSERT_TRUE(contents.items[i].image == written_[i].image) << i;
}

TEST_F(trace_file, misses_only_the_refused_records_when_there_is_room_again)
{
    Random_Trace chance(9);
    const QTRACE_FDESCR file = open();
    size_t refused = 0;
    std::vector<std::string> accepted;
    const auto try_to_write = [&] {
        QTRACE_RECORD record = chance.wild_record();
        if (QTRACE_FwriteRecord(file, &record) == 0)
            accepted.push_back(image_of(record));
        else
            ++refused;
    };
    {
        const Small_Disk disk(100'000);
        while (refused < 3)
            try_to_write();
    }
    for (int i = 0; i < 500; ++i)
        try_to_write();
    QTRACE_Fclose(file);
    EXPECT_EQ(refused, 3u);
    const Contents contents = read();
    EXPECT_TRUE(contents.damages.empty());
    ASSERT_EQ(contents.items.size(), accepted.size());
    for (size_t i = 0; i < accepted.size(); ++i)
        ASSERT_TRUE(contents.items[i].image == accepted[i]) << i;
}

QTRACE_Info info_of(const std::string &name)
{
    QTRACE_Info info{};
    QTRACE_Reader *reader = qtrace_open(name.c_str(), nullptr);
    EXPECT_NE(reader, nullptr);
    EXPECT_EQ(qtrace_info(reader, &info), 0);
    qtrace_close(reader);
    return info;
}

// A session with a full disk twice. No record names where the next one stands, so that they are 4 bytes apart.
TEST_F(trace_file, tells_what_was_refused_and_goes_on_at_the_right_address)
{
    Random_Trace chance(12);
    const QTRACE_FDESCR file = open();
    const auto full_header = [](uint8_t page) {
        QTRACE_FILE_HDR header{};
        header.control.iar_is_present = 1;
        header.iar[1] = page;
        return header;
    };
    const auto write_header = [&](uint8_t page) {
        QTRACE_FILE_HDR header = full_header(page);
        return QTRACE_FwriteFileHeader(file, &header) == 0;
    };
    const auto write_plain = [&] {
        QTRACE_RECORD record = chance.wild_record();
        record.header.control.fld.next_instruction_EA_present = 0;
        return QTRACE_FwriteRecord(file, &record) == 0;
    };
    ASSERT_TRUE(write_header(0x10));
    size_t before = 0;
    {
        const Small_Disk disk(100'000);
        while (write_plain())
            ++before;
        ASSERT_FALSE(write_plain());
    }
    ASSERT_TRUE(write_plain());
    {
        const Small_Disk disk(100'000);
        while (write_plain())
            ;
        ASSERT_FALSE(write_header(0x20));
        ASSERT_FALSE(write_plain());
    }
    ASSERT_TRUE(write_plain());
    QTRACE_Fclose(file);

    const QTRACE_Info info = info_of(name_);
    EXPECT_EQ(info.damaged_places, 0u);
    EXPECT_EQ(info.left_out, 2u);
    EXPECT_TRUE(info.clean_end);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    ASSERT_NE(reader, nullptr);
    const QTRACE_Item *item = nullptr;
    ASSERT_EQ(qtrace_seek(reader, before + 2), 0);
    ASSERT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
    EXPECT_EQ(item->discontinuity.cause, QTRACE_CAUSE_REFUSED);
    EXPECT_EQ(item->discontinuity.records, 2u);
    ASSERT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
    EXPECT_EQ(item->record_number, before + 2);
    EXPECT_TRUE(item->address_known);
    EXPECT_EQ(item->address, 0x1000 + 4 * (before + 2));
    QTRACE_ITEM kind;
    QTRACE_Item last{};
    size_t refusals = 0;
    while ((kind = qtrace_next(reader, &item)) == QTRACE_ITEM_RECORD || kind == QTRACE_ITEM_DISCONTINUITY) {
        last = *item;
        refusals += kind == QTRACE_ITEM_DISCONTINUITY && last.discontinuity.cause == QTRACE_CAUSE_REFUSED;
    }
    EXPECT_EQ(refusals, 1u);
    EXPECT_EQ(kind, QTRACE_ITEM_END);
    EXPECT_EQ(last.header_number, 2u);
    EXPECT_TRUE(last.address_known);
    EXPECT_EQ(last.address, 0x2004u);
    EXPECT_EQ(qtrace_open_header(reader)->iar[1], 0x20);
    qtrace_close(reader);
}

TEST_F(trace_file, misses_as_many_records_as_headers_and_says_so)
{
    Random_Trace chance(14);
    const QTRACE_FDESCR file = open();
    {
        const Small_Disk disk(100'000);
        for (QTRACE_RECORD record = chance.wild_record(); QTRACE_FwriteRecord(file, &record) == 0;)
            record = chance.wild_record();
        QTRACE_FILE_HDR header{};
        ASSERT_NE(QTRACE_FwriteFileHeader(file, &header), 0);
    }
    QTRACE_RECORD record{};
    ASSERT_EQ(QTRACE_FwriteRecord(file, &record), 0);
    QTRACE_Fclose(file);
    const Contents contents = read();
    ASSERT_EQ(contents.wanted.size(), 1u);
    EXPECT_EQ(contents.wanted[0].records, 1u);
    EXPECT_EQ(contents.wanted[0].headers, 1u);
}

TEST_F(trace_file, of_headers_alone_has_no_record_to_go_to)
{
    const QTRACE_FDESCR file = open();
    write(file, QTRACE_FILE_HDR{});
    QTRACE_Fclose(file);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    EXPECT_EQ(qtrace_seek(reader, 0), -1);
    EXPECT_EQ(qtrace_next(reader, nullptr), QTRACE_ITEM_END);
    qtrace_close(reader);
}

TEST_F(trace_file, closed_after_refused_records_counts_them)
{
    Random_Trace chance(13);
    const QTRACE_FDESCR file = open();
    size_t written = 0;
    {
        const Small_Disk disk(100'000);
        for (QTRACE_RECORD record = chance.wild_record(); QTRACE_FwriteRecord(file, &record) == 0; ++written)
            record = chance.wild_record();
    }
    QTRACE_Fclose(file);
    const Contents contents = read();
    EXPECT_TRUE(contents.damages.empty());
    EXPECT_EQ(contents.items.size(), written);
    EXPECT_EQ(info_of(name_).left_out, 1u);
    EXPECT_TRUE(info_of(name_).clean_end);
}

TEST_F(trace_file, whose_descriptor_was_closed_by_others_reports_it)
{
    const int next_free = dup(0);
    ::close(next_free);
    Random_Trace chance(10);
    const QTRACE_FDESCR file = open();
    ::close(next_free);
    bool refused = false;
    for (int i = 0; i < 100'000 && !refused; ++i) {
        QTRACE_RECORD record = chance.wild_record();
        refused = QTRACE_FwriteRecord(file, &record) != 0;
    }
    EXPECT_TRUE(refused);
    EXPECT_THAT(qtrace_writer_error(), HasSubstr("Bad file descriptor"));
    const uint64_t failures = qtrace_writer_failures();
    QTRACE_Fclose(file);
    EXPECT_GT(qtrace_writer_failures(), failures);
}

} // namespace
