// Blocks of a file by an index: readers of adjacent ranges deliver together what one reader of the file delivers.
#include "trace_index_fixture.h"

namespace
{

TEST_F(trace_index, tells_the_blocks_of_a_file_from_their_headers)
{
    write_small_blocks();
    const std::vector<uint64_t> offsets = block_offsets();
    QTRACE_Index *index = qtrace_index_open(name_.c_str(), nullptr);
    ASSERT_NE(index, nullptr);
    uint64_t count = 0;
    const QTRACE_Block *blocks = qtrace_index_blocks(index, &count);
    ASSERT_EQ(count, offsets.size());
    uint64_t records = 0, headers = 0, offset = 16;
    for (uint64_t i = 0; i < count; ++i) {
        EXPECT_EQ(blocks[i].offset, offset);
        EXPECT_EQ(blocks[i].first_record, records);
        EXPECT_EQ(blocks[i].first_header, headers);
        uint32_t header[2]; // counts of records and headers
        std::memcpy(header, &whole_.at(offsets[i] + 16), sizeof header);
        EXPECT_EQ(blocks[i].records, header[0]);
        EXPECT_EQ(blocks[i].headers, header[1]);
        EXPECT_LE(blocks[i].offset, offsets[i]);
        offset += blocks[i].size;
        records += blocks[i].records;
        headers += blocks[i].headers;
    }
    EXPECT_EQ(offset, whole_.size());
    EXPECT_EQ(records, 40u * 60);
    EXPECT_EQ(headers, 40u);
    EXPECT_EQ(qtrace_index_info(index)->records, 40u * 60);
    EXPECT_TRUE(qtrace_index_info(index)->clean_end);
    qtrace_index_close(index);
}

TEST_F(trace_index, ranges_of_a_whole_file_deliver_every_item_once)
{
    write_small_blocks();
    const size_t pauses = 39;
    EXPECT_EQ(in_one_go().size(), written_.size() + pauses);
    expect_same_in_any_ranges(whole_, "whole");
}

TEST_F(trace_index, ranges_end_where_the_next_blocks_are_damaged)
{
    write_small_blocks();
    const std::vector<uint64_t> at = block_offsets();
    expect_same_in_any_ranges(spoilt({at[3] + 60, at[4] + 60, at[5]}), "two payloads and a header");
    expect_same_in_any_ranges(spoilt({at[12] + 60, at[13] + 60}), "the last two");
}

TEST_F(trace_index, ranges_of_a_recovered_file_deliver_every_item_and_discontinuity_once)
{
    write_small_blocks();
    const std::vector<uint64_t> at = block_offsets();
    const std::string saved = name_ + ".saved";
    put_bytes(spoilt({at[2] + 60, at[5], at[6]}));
    QTRACE_Recovery result;
    ASSERT_EQ(qtrace_recover(name_.c_str(), saved.c_str(), &result, nullptr), 0);
    std::filesystem::rename(saved, name_);
    expect_same_in_any_ranges(bytes(), "recovered");
    std::string damaged = bytes();
    damaged[block_offsets()[1] + 60] ^= 1; // before a block that says it is discontinuous
    expect_same_in_any_ranges(damaged, "recovered and damaged");
}

TEST_F(trace_index, covers_more_blocks_with_each_step_where_there_are_more_than_it_keeps)
{
    write_small_blocks();
    struct Row {
        size_t most_steps;
        std::vector<uint64_t> blocks; // of each step
    };
    const std::vector<Row> rows = {{2, {8, 6}},
                                   {3, {8, 6}},
                                   {5, {4, 4, 4, 2}},
                                   {6, {4, 4, 4, 2}},
                                   {7, {2, 2, 2, 2, 2, 2, 2}},
                                   {13, {2, 2, 2, 2, 2, 2, 2}},
                                   {14, std::vector<uint64_t>(14, 1)}};
    for (const Row &row : rows) {
        const std::unique_ptr<QTRACE_Index> index = index_of(row.most_steps);
        std::vector<uint64_t> blocks;
        for (const QTRACE_Step &step : steps_of(*index))
            blocks.push_back(step.blocks);
        EXPECT_EQ(blocks, row.blocks) << row.most_steps;
    }
    QTRACE_Index *const index = qtrace_index_open(name_.c_str(), nullptr);
    EXPECT_EQ(steps_of(*index).size(), 14u);
    qtrace_index_close(index);
}

TEST_F(trace_index, tells_that_files_follow_each_other_whatever_comes_after)
{
    write_small_blocks();
    const std::vector<uint64_t> at = block_offsets();
    const auto clean_and_damaged = [&](const std::string &file) {
        put_bytes(file);
        return std::pair{verified().clean_end, verified().damaged_places};
    };
    EXPECT_EQ(clean_and_damaged(whole_), (std::pair{1, uint64_t{0}}));
    EXPECT_EQ(clean_and_damaged(whole_ + whole_.substr(16)), (std::pair{0, uint64_t{1}}));
    EXPECT_EQ(clean_and_damaged(whole_ + spoilt({at[5] + 60}).substr(16)), (std::pair{0, uint64_t{2}}));
    EXPECT_EQ(clean_and_damaged(whole_.substr(0, at[5])), (std::pair{0, uint64_t{1}})); // cut between blocks
    EXPECT_EQ(clean_and_damaged(whole_.substr(0, at[5] + 60)), (std::pair{0, uint64_t{1}}));
    EXPECT_EQ(clean_and_damaged(spoilt({at[2] + 60}).substr(0, at[5])), (std::pair{0, uint64_t{2}}));
}

TEST_F(trace_index, tells_the_blocks_of_a_step)
{
    write_small_blocks();
    const std::unique_ptr<QTRACE_Index> index = index_of(3); // 8 and 6 blocks
    const Reader reader = reader_of(*index);
    const std::span<const QTRACE_Block> expected = blocks_of(*index);
    QTRACE_Block blocks[20] = {};
    EXPECT_EQ(qtrace_step_blocks(reader.get(), 0, nullptr, 0), 8u);
    EXPECT_EQ(qtrace_step_blocks(reader.get(), 0, blocks, 3), 8u);
    EXPECT_EQ(image_of(blocks[2]), image_of(expected[2]));
    EXPECT_EQ(image_of(blocks[3]), image_of(QTRACE_Block{}));
    EXPECT_EQ(qtrace_step_blocks(reader.get(), 1, blocks, 20), 6u);
    EXPECT_EQ(image_of(blocks[0]), image_of(expected[8]));
    EXPECT_EQ(image_of(blocks[5]), image_of(expected[13]));
    for (const uint64_t beyond : {uint64_t{2}, uint64_t{3}, ~uint64_t{0}})
        EXPECT_EQ(qtrace_step_blocks(reader.get(), beyond, blocks, 20), 0u);
    EXPECT_EQ(qtrace_blocks(reader.get(), blocks, 11), 14u);
    EXPECT_EQ(image_of(blocks[10]), image_of(expected[10]));
    EXPECT_EQ(image_of(blocks[11]), image_of(QTRACE_Block{}));
}

TEST_F(trace_index, keeps_the_position_of_a_reader_that_is_asked_for_blocks)
{
    write_small_blocks();
    std::string damaged = whole_;
    damaged[block_offsets()[6] + 60] ^= 1;
    put_bytes(damaged);
    const std::vector<std::string> expected = in_one_go();
    const std::unique_ptr<QTRACE_Index> index = index_of(3);
    const Reader reader = reader_of(*index);
    std::vector<std::string> items;
    const QTRACE_Item *item = nullptr;
    for (uint64_t step = 0; qtrace_next(reader.get(), &item) != QTRACE_ITEM_END; step = 1 - step) {
        items.push_back(described(*item));
        EXPECT_GT(qtrace_step_blocks(reader.get(), step, nullptr, 0), 0u);
    }
    EXPECT_TRUE(items == expected);
}

TEST_F(trace_index, of_a_file_that_shrinks_gives_no_blocks_of_steps_that_changed)
{
    write_small_blocks();
    const uint64_t tenth = block_offsets()[10];
    const std::unique_ptr<QTRACE_Index> index = index_of(3); // 8 and 6 blocks
    const Reader reader = reader_of(*index);
    std::filesystem::resize_file(name_, tenth);
    EXPECT_EQ(qtrace_step_blocks(reader.get(), 1, nullptr, 0), 0u);
    EXPECT_EQ(qtrace_error(reader.get()), name_ + ": the file changed while it was read");
    EXPECT_EQ(qtrace_select_blocks(reader.get(), 0, 9), -1);
    EXPECT_EQ(qtrace_select_blocks(reader.get(), 9, 5), -1);
    EXPECT_EQ(qtrace_seek(reader.get(), 2'000), -1);
    EXPECT_EQ(qtrace_blocks(reader.get(), nullptr, 0), 14u);
    QTRACE_Block blocks[14];
    EXPECT_EQ(qtrace_blocks(reader.get(), blocks, 14), 0u);
    EXPECT_TRUE(blocks_of(*index).empty());
    EXPECT_EQ(qtrace_step_blocks(reader.get(), 0, nullptr, 0), 8u);
    EXPECT_EQ(qtrace_select_blocks(reader.get(), 3, 5), 0);
}

TEST_F(trace_index, outlives_the_name_of_its_file_and_readers_outlive_the_index)
{
    write_small_blocks();
    const std::vector<std::string> expected = in_one_go();
    QTRACE_Index *index = qtrace_index_open(name_.c_str(), nullptr);
    std::filesystem::rename(name_, name_ + ".old");
    put_bytes("something else");
    QTRACE_Reader *reader = qtrace_open_with_index(index);
    qtrace_index_close(index);
    std::vector<std::string> items;
    append_items(reader, items);
    EXPECT_TRUE(items == expected);
    qtrace_close(reader);
}

TEST_F(trace_index, refuses_ranges_beyond_the_file)
{
    write_small_blocks();
    const uint64_t count = block_offsets().size();
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    EXPECT_EQ(qtrace_select_blocks(reader, count + 1, 0), -1);
    EXPECT_EQ(qtrace_select_blocks(reader, 1, count), -1);
    EXPECT_EQ(qtrace_select_blocks(reader, ~uint64_t{0}, 2), -1);
    EXPECT_EQ(qtrace_select_blocks(reader, 2, 0), 0);
    EXPECT_EQ(qtrace_next(reader, nullptr), QTRACE_ITEM_END);
    EXPECT_EQ(qtrace_select_blocks(reader, 1, 1), 0);
    ASSERT_EQ(qtrace_seek(reader, 2'200), 0); // ends the restriction
    const QTRACE_Item *item;
    uint64_t records = 0;
    for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;)
        records += kind == QTRACE_ITEM_RECORD;
    EXPECT_EQ(records, 200u);
    qtrace_close(reader);
}

TEST_F(trace_index, of_no_trace_says_why)
{
    char *error = nullptr;
    EXPECT_EQ(qtrace_index_open((name_ + ".none").c_str(), &error), nullptr);
    EXPECT_EQ(error, name_ + ".none: No such file or directory");
    free(error);
    qtrace_index_close(nullptr);
    qtrace_close(nullptr);
}

} // namespace
