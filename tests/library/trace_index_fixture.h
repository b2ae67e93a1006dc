// Ranges of blocks of a trace file, against what one reader of the file delivers.
#pragma once

#include "trace_file_fixture.h"
#include "trace_index.h"

#include <memory>
#include <numeric>
#include <span>

// An item or discontinuity, as text that compares.
inline std::string described(const QTRACE_Item &item)
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
