// What a cut keeps of traces of few records.
#include "cut_fixture.h"

#include <zstd.h>

namespace
{

TEST_F(cut, copies_blocks_that_are_kept_whole)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    write_plausible(36'000);
    const std::vector<uint64_t> at = block_offsets();
    ASSERT_GT(at.size(), 5u);
    QTRACE_Cut choice = all();
    choice.from = 1;
    const std::string source = bytes(), tail = source.substr(at[1]);
    EXPECT_TRUE(cut_of(source, choice).ends_with(tail));
}

TEST_F(cut, ends_before_a_header_at_the_end_of_a_block)
{
    // The third header's comment needs a block of its own, so that the second one ends the block before.
    Random_Trace chance(7);
    const QTRACE_FDESCR file = open();
    write(file, chance.plausible_header(), "KelvoVer:3");
    for (int i = 0; i < 10; ++i)
        write(file, chance.plausible_record());
    write(file, chance.plausible_header());
    write(file, chance.plausible_header(), std::string(20'000, 'c'));
    write(file, chance.plausible_record());
    QTRACE_Fclose(file);
    for (const uint64_t most : {9, 10, 11, 12})
        for (const uint64_t from : {0, 1, 2})
            expect_range(bytes(), from, most);
}

TEST_F(cut, keeps_ranges_that_begin_or_end_at_the_borders_of_blocks)
{
    const QTRACE_FDESCR file = open();
    for (int i = 1; i <= 160; ++i) { // each takes some 1500 bytes
        QTRACE_RECORD record{};
        std::memset(record.iar_hRTW, i, sizeof record.iar_hRTW);
        std::memset(record.secondary_data_hRTW, i, sizeof record.secondary_data_hRTW);
        std::memset(record.regs.spr_out, i,
                    offsetof(QTRACE_REGISTERS, gpr_in) - offsetof(QTRACE_REGISTERS, spr_out));
        write(file, record);
    }
    QTRACE_Fclose(file);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    std::vector<QTRACE_Block> blocks(qtrace_blocks(reader, nullptr, 0));
    qtrace_blocks(reader, blocks.data(), blocks.size());
    qtrace_close(reader);
    ASSERT_GE(blocks.size(), 4u);
    const uint64_t first = blocks[1].first_record, size = blocks[1].records, both = size + blocks[2].records;
    for (const uint64_t from : {first - 1, first, first + 1})
        for (const uint64_t end :
             {first + size - 1, first + size, first + size + 1, first + both - 1, first + both}) {
            expect_range(bytes(), from, end - from);
            if (end > first + size + 1)
                continue;
            QTRACE_Cut choice = all();
            choice.from = from;
            choice.every = 1'000'000;
            choice.window = end - from;
            expect_cut(bytes(), choice,
                       [=](const Numbered_Item &item) { return item.record >= from && item.record < end; });
        }
}

TEST_F(cut, of_a_partition_leaves_out_records_before_any_header)
{
    const QTRACE_FDESCR file = open();
    for (int i = 0; i < 3; ++i)
        write(file, QTRACE_RECORD{});
    QTRACE_Fclose(file);
    const uint64_t zero = 0;
    QTRACE_Cut choice = all();
    choice.lpids = &zero;
    choice.lpid_count = 1;
    EXPECT_TRUE(list(cut_of(bytes(), choice)).items.empty());
    choice.lpid_count = 0;
    choice.pids = &zero;
    choice.pid_count = 1;
    EXPECT_TRUE(list(cut_of(bytes(), choice)).items.empty());
}

TEST_F(cut, goes_by_the_numbers_of_each_file_where_one_follows_another)
{
    write_plausible(300);
    const std::string both = bytes() + bytes().substr(16);
    EXPECT_EQ(expect_range(both, 100, ALL).items.size(), 2u + 2 * 200);
    QTRACE_Cut choice = all();
    choice.from = 10;
    choice.every = 100;
    choice.window = 7;
    const Listing sample = expect_cut(
        both, choice, [](const Numbered_Item &item) { return item.record >= 10 && (item.record - 10) % 100 < 7; });
    EXPECT_EQ(sample.items.size(), 2u + 2 * 3 * 7);
}

TEST_F(cut, says_who_left_out_what_belongs_before_a_block_of_which_a_part_is_kept)
{
    for (const auto &[name, cause] :
         {std::pair{"gap-block-1", QTRACE_CAUSE_REFUSED}, {"left-out-block-1", QTRACE_CAUSE_LEFT_OUT}}) {
        std::ifstream in(std::string(QT_SMALL_TRACES) + "/" + name + ".trace", std::ios::binary);
        const std::string source{std::istreambuf_iterator<char>(in), {}};
        QTRACE_Cut choice = all();
        choice.every = 1'000;
        choice.window = 5; // two records before those that are missing, one after
        const Listing listing =
            expect_cut(source, choice, [](const Numbered_Item &item) { return item.record < 5; });
        EXPECT_EQ(listing.left_out, (std::vector<Place>{{cause, 2, 2}})) << name;
        EXPECT_EQ(listing.info.open_end, 1);
    }
}

TEST_F(cut, puts_comments_where_the_writer_puts_them)
{
    for (const size_t size : {16'384, 16'385}) {
        const QTRACE_FDESCR file = open();
        write(file, QTRACE_FILE_HDR{}, std::string(size, 'c'));
        for (int i = 0; i < 3; ++i)
            write(file, QTRACE_RECORD{});
        QTRACE_Fclose(file);
        EXPECT_EQ(expect_range(bytes(), 0, 2).info.blocks, size == 16'384 ? 1u : 2u);
        written_.clear();
    }
}

TEST_F(cut, compresses_parts_by_level_6)
{
    write_plausible(3'000);
    QTRACE_Cut choice = all();
    choice.from = 100;
    const std::string part = cut_of(bytes(), choice);
    constexpr size_t HEADER = 56;
    size_t last = 16;
    uint32_t sizes[2]; // stored and raw
    for (size_t at = last; at < part.size(); at += HEADER + sizes[0]) {
        last = at;
        std::memcpy(sizes, &part.at(at + 8), sizeof sizes);
    }
    std::string raw(sizes[1], 0), pressed(ZSTD_compressBound(sizes[1]), 0);
    ASSERT_EQ(ZSTD_decompress(raw.data(), raw.size(), &part.at(last + HEADER), sizes[0]), raw.size());
    pressed.resize(ZSTD_compress(pressed.data(), pressed.size(), raw.data(), raw.size(), 6));
    EXPECT_TRUE(part.substr(last + HEADER) == pressed);
}

TEST_F(cut, tells_how_many_records_it_has_passed)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    write_plausible(9'000);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    std::vector<QTRACE_Block> blocks(qtrace_blocks(reader, nullptr, 0));
    qtrace_blocks(reader, blocks.data(), blocks.size());
    qtrace_close(reader);
    ASSERT_GT(blocks.size(), 1u);
    std::vector<uint64_t> expected, told;
    for (const QTRACE_Block &block : blocks)
        expected.push_back(block.first_record + block.records);
    QTRACE_Cut choice = all();
    choice.write = [](void *, const void *, size_t) { return 0; };
    choice.progress = [](void *user, uint64_t records) {
        static_cast<std::vector<uint64_t> *>(user)->push_back(records);
    };
    choice.user = &told;
    ASSERT_EQ(qtrace_cut(name_.c_str(), &choice, &result_, nullptr), 0);
    EXPECT_EQ(told, expected);
}

TEST_F(cut, fails_with_the_reason)
{
    write_plausible(10);
    char *error = nullptr;
    QTRACE_Cut choice = all();
    choice.write = [](void *, const void *, size_t) { return ENOSPC; };
    EXPECT_EQ(qtrace_cut(name_.c_str(), &choice, &result_, &error), -1);
    EXPECT_STREQ(error, "No space left on device");
    free(error);
    EXPECT_EQ(qtrace_cut((name_ + ".none").c_str(), &choice, &result_, &error), -1);
    EXPECT_EQ(std::string(error), name_ + ".none: No such file or directory");
    free(error);
}

} // namespace
