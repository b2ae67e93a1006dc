// Blocks of a file by an index: readers of adjacent ranges deliver together what one reader of the file delivers.
#include "trace_file_fixture.h"

#include <numeric>

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
