// Blocks of a file by an index: readers of adjacent ranges deliver together what one reader of the file delivers.
#include "trace_file_fixture.h"
#include "trace_index.h"

#include <memory>
#include <numeric>
#include <span>

namespace
{

// An item or discontinuity, as text that compares.
std::string described(const QTRACE_Item &item)
{
    std::string text = std::to_string(item.kind) + ' ' + std::to_string(item.header_number) + ' ' +
                       std::to_string(item.record_number) + ' ' + std::to_string(item.block_offset) + ' ' +
                       std::to_string(item.address_known) + ' ';
    if (item.address_known)
        text += std::to_string(item.address) + ' ';
    if (item.kind != QTRACE_ITEM_DISCONTINUITY)
        return text + item_of(item).image + item_of(item).comment.value_or("none");
    const QTRACE_Discontinuity &what = item.discontinuity;
    for (const uint64_t number : {uint64_t{what.cause}, what.offset, what.bytes, what.records,
                                  static_cast<uint64_t>(what.records_known), what.headers})
        text += std::to_string(number) + ' ';
    return text + what.reason + (what.context != nullptr ? image_of(*what.context) : "no context");
}

using Reader = std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)>;

class trace_index : public trace_file
{
protected:
    // Blocks of some hundred records; one in a few begins with a header whose comment has a block of its own.
    void write_small_blocks()
    {
        setenv("QTRACE_COMPRESSION", "none", 1);
        Random_Trace chance(41);
        const QTRACE_FDESCR file = open();
        for (int block = 0; block < 40; ++block) {
            write(file, chance.plausible_header(), chance.comment(block % 3 == 1 ? 17'000 : 16'384));
            for (int i = 0; i < 60; ++i)
                write(file, chance.plausible_record());
        }
        QTRACE_Fclose(file);
        whole_ = bytes();
    }

    static void append_items(QTRACE_Reader *reader, std::vector<std::string> &items)
    {
        const QTRACE_Item *item;
        QTRACE_ITEM kind;
        while ((kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END && kind != QTRACE_ITEM_ERROR)
            items.push_back(described(*item));
        EXPECT_EQ(kind, QTRACE_ITEM_END);
    }
    std::vector<std::string> in_one_go() const
    {
        QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
        std::vector<std::string> items;
        append_items(reader, items);
        qtrace_close(reader);
        return items;
    }
    // In ranges of so many blocks, each by a reader of its own.
    std::vector<std::string> in_ranges(uint64_t size) const
    {
        QTRACE_Index *index = qtrace_index_open(name_.c_str(), nullptr);
        uint64_t count = 0;
        qtrace_index_blocks(index, &count);
        std::vector<std::string> items;
        for (uint64_t first = 0; first < std::max<uint64_t>(count, 1); first += size) {
            QTRACE_Reader *reader = qtrace_open_with_index(index);
            EXPECT_EQ(qtrace_select_blocks(reader, first, std::min(size, count - first)), 0);
            append_items(reader, items);
            qtrace_close(reader);
        }
        qtrace_index_close(index);
        return items;
    }
    void expect_same_in_any_ranges(const std::string &file, const std::string &what) const
    {
        put_bytes(file);
        const std::vector<std::string> expected = in_one_go();
        for (const uint64_t size : {1, 2, 7})
            EXPECT_TRUE(in_ranges(size) == expected) << what << " in ranges of " << size;
        const std::unique_ptr<QTRACE_Index> by_block = index_of(1000), by_steps = index_of(5);
        EXPECT_TRUE(in_ranges(*by_steps, 3) == expected) << what << " in ranges of 3 by steps";
        EXPECT_TRUE(after_seeks(*by_steps) == after_seeks(*by_block)) << what << " after seeks";
        EXPECT_EQ(images_of_blocks(*by_steps), images_of_blocks(*by_block)) << what;
        EXPECT_EQ(image_of(*qtrace_index_info(by_steps.get())), image_of(*qtrace_index_info(by_block.get())))
            << what;
        expect_steps_add_up(*by_steps, what);
    }
    // With no more than so many steps.
    std::unique_ptr<QTRACE_Index> index_of(size_t most_steps) const
    {
        trace::Trace_Source source;
        EXPECT_EQ(trace::open_trace(name_.c_str(), source), "");
        trace::Block_File blocks(source.file);
        auto steps = trace::Trace_Index::build(blocks, source.begin, most_steps);
        return std::unique_ptr<QTRACE_Index>(new QTRACE_Index{source, std::move(steps)});
    }
    static Reader reader_of(const QTRACE_Index &index)
    {
        return Reader(qtrace_open_with_index(&index), &qtrace_close);
    }
    static std::span<const QTRACE_Block> blocks_of(const QTRACE_Index &index)
    {
        uint64_t count = 0;
        const QTRACE_Block *const blocks = qtrace_index_blocks(&index, &count);
        return {blocks, count};
    }
    static std::span<const QTRACE_Step> steps_of(const QTRACE_Index &index)
    {
        uint64_t count = 0;
        const QTRACE_Step *const steps = qtrace_index_steps(&index, &count);
        return {steps, count};
    }
    static std::string images_of_blocks(const QTRACE_Index &index)
    {
        std::string images;
        for (const QTRACE_Block &block : blocks_of(index))
            images += image_of(block);
        return images;
    }
    // By one reader, which is at a range of so many blocks at a time.
    static std::vector<std::string> in_ranges(const QTRACE_Index &index, uint64_t size)
    {
        const Reader reader = reader_of(index);
        const uint64_t count = blocks_of(index).size();
        std::vector<std::string> items;
        for (uint64_t first = 0; first < std::max<uint64_t>(count, 1); first += size) {
            EXPECT_EQ(qtrace_select_blocks(reader.get(), first, std::min(size, count - first)), 0);
            append_items(reader.get(), items);
        }
        return items;
    }
    // The items that come first after a seek to the records at the borders of blocks.
    static std::vector<std::string> after_seeks(const QTRACE_Index &index)
    {
        const Reader reader = reader_of(index);
        std::vector<std::string> items;
        for (const QTRACE_Block &block : blocks_of(index))
            for (const uint64_t record :
                 {block.first_record, block.first_record + 1, block.first_record + block.records}) {
                const QTRACE_Item *item = nullptr;
                items.push_back(std::to_string(qtrace_seek(reader.get(), record)));
                for (int i = 0; i < 3 && qtrace_next(reader.get(), &item) != QTRACE_ITEM_END; ++i)
                    items.push_back(described(*item));
            }
        return items;
    }
    // All steps but the last cover as many blocks as the first, and say of them what each says.
    static void expect_steps_add_up(const QTRACE_Index &index, const std::string &what)
    {
        const std::span<const QTRACE_Block> blocks = blocks_of(index);
        uint64_t first = 0;
        for (const QTRACE_Step &step : steps_of(index)) {
            EXPECT_EQ(step.first_block, first) << what;
            EXPECT_EQ(step.blocks, std::min(steps_of(index)[0].blocks, blocks.size() - first)) << what;
            expect_sum(step, blocks.subspan(first, step.blocks), what);
            first += step.blocks;
        }
        EXPECT_EQ(first, blocks.size()) << what;
    }
    static void expect_sum(const QTRACE_Step &step, std::span<const QTRACE_Block> blocks, const std::string &what)
    {
        QTRACE_Step sum{};
        sum.lowest_record = ~uint64_t{0};
        for (const QTRACE_Block &block : blocks) {
            sum.size += block.size;
            sum.records += block.records;
            sum.headers += block.headers;
            sum.lowest_record = std::min(sum.lowest_record, block.first_record);
            sum.highest_record_after = std::max(sum.highest_record_after, block.first_record + block.records);
        }
        const QTRACE_Block &last = blocks.back();
        EXPECT_EQ(step.offset, blocks.front().offset) << what;
        EXPECT_EQ(step.size, sum.size) << what;
        EXPECT_EQ(step.records, sum.records) << what;
        EXPECT_EQ(step.headers, sum.headers) << what;
        EXPECT_EQ(step.lowest_record, sum.lowest_record) << what;
        EXPECT_EQ(step.highest_record_after, sum.highest_record_after) << what;
        EXPECT_EQ(step.first_record, blocks.front().first_record) << what;
        EXPECT_EQ(step.first_header, blocks.front().first_header) << what;
        EXPECT_EQ(step.record_after, last.first_record + last.records) << what;
        EXPECT_EQ(step.header_after, last.first_header + last.headers) << what;
    }
    std::string spoilt(std::vector<uint64_t> places) const
    {
        std::string file = whole_;
        for (const uint64_t place : places)
            file[place] ^= 0x20;
        return file;
    }

    std::string whole_;
};

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

TEST_F(trace_index, ranges_of_a_damaged_file_deliver_every_item_and_discontinuity_once)
{
    write_small_blocks();
    const std::vector<uint64_t> at = block_offsets();
    constexpr uint64_t PAYLOAD = 56;
    ASSERT_GE(at.size(), 8u);
    for (size_t i = 0; i < at.size(); ++i) {
        expect_same_in_any_ranges(spoilt({at[i]}), "header " + std::to_string(i));
        expect_same_in_any_ranges(spoilt({at[i] + PAYLOAD}), "payload " + std::to_string(i));
    }
    const size_t last = at.size() - 1;
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD, at[4] + PAYLOAD}), "two payloads");
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD, at[4] + PAYLOAD, at[5] + PAYLOAD, at[6] + PAYLOAD}), "four");
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD, at[4]}), "payload, then header");
    expect_same_in_any_ranges(spoilt({at[3], at[4] + PAYLOAD}), "header, then payload");
    expect_same_in_any_ranges(spoilt({at[last - 1] + PAYLOAD, at[last] + PAYLOAD}), "the last two");
    std::vector<uint64_t> all;
    for (const uint64_t offset : at)
        all.push_back(offset + PAYLOAD);
    expect_same_in_any_ranges(spoilt(all), "all payloads");
    expect_same_in_any_ranges(spoilt(at), "all headers");
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD}).insert(at[4], "junk"), "payload, then junk");
    expect_same_in_any_ranges(whole_.substr(0, at[5]) + whole_.substr(at[6]), "a block missing");
    std::string damaged = spoilt({at[4] + PAYLOAD});
    expect_same_in_any_ranges(damaged.substr(0, at[5]) + damaged.substr(at[6]), "payload, then a block missing");
    expect_same_in_any_ranges(whole_ + whole_, "one file after another");
    expect_same_in_any_ranges(whole_ + "junk", "junk at the end");
    expect_same_in_any_ranges("?" + whole_.substr(1), "start");
    for (const uint64_t size : {at[0], at[0] + 10, at[1], at[5], at[5] + 10, at[last] + 100, whole_.size() - 1})
        expect_same_in_any_ranges(whole_.substr(0, size), "cut at " + std::to_string(size));
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
    EXPECT_EQ(qtrace_step_blocks(reader.get(), 2, blocks, 20), 0u);
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
