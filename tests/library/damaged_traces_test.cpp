// What is left of a trace of many blocks that is cut or damaged: at every byte, in every bit, block by block.
#include "trace_file_fixture.h"

#include <gmock/gmock.h>

namespace
{

using testing::HasSubstr;

// What is left of a trace that ends at each of its bytes: every item of the whole blocks, and one place that says so.
class cut_trace : public trace_file
{
protected:
    void expect_whole_blocks_wherever_it_is_cut() const
    {
        const std::string whole = bytes();
        const std::vector<uint64_t> ends = block_ends(whole);
        for (size_t size = 0; size < whole.size(); ++size) {
            put_bytes(whole.substr(0, size));
            const Contents contents = read();
            if (size < 16) {
                EXPECT_FALSE(contents.opened);
                EXPECT_THAT(contents.open_error, HasSubstr("byte " + std::to_string(size)));
                continue;
            }
            const auto items = std::upper_bound(ends.begin(), ends.end(), size) - ends.begin();
            ASSERT_TRUE(std::equal(contents.items.begin(), contents.items.end(), written_.begin(),
                                   written_.begin() + items))
                << size;
            ASSERT_EQ(contents.damages.size(), 1u) << size;
            ASSERT_EQ(contents.damages[0].cause, QTRACE_CAUSE_CUT_END) << size;
            ASSERT_FALSE(verified().clean_end) << size;
        }
    }

private:
    // Where the block of every item ends.
    std::vector<uint64_t> block_ends(const std::string &whole) const
    {
        constexpr size_t STORED_SIZE = 8, HEADER = 56;
        std::vector<uint64_t> ends;
        QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
        const QTRACE_Item *item;
        for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;) {
            if (kind == QTRACE_ITEM_DISCONTINUITY) // a pause
                continue;
            uint32_t stored;
            std::memcpy(&stored, &whole.at(item->block_offset + STORED_SIZE), sizeof stored);
            ends.push_back(item->block_offset + HEADER + stored);
        }
        qtrace_close(reader);
        return ends;
    }
};

TEST_F(cut_trace, uncompressed_is_said_to_be_cut_at_every_byte)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    Random_Trace chance(6);
    const QTRACE_FDESCR file = open();
    for (const size_t comment : {30, 16'385}) { // the second one is a block of its own
        write(file, chance.plausible_header(), chance.comment(comment));
        for (int i = 0; i < 5; ++i)
            write(file, i == 2 ? chance.wild_record() : chance.plausible_record());
    }
    QTRACE_Fclose(file);
    ASSERT_EQ(verified().blocks, 3u);
    expect_whole_blocks_wherever_it_is_cut();
}

TEST_F(cut_trace, compressed_is_said_to_be_cut_at_every_byte)
{
    Random_Trace chance(6);
    const QTRACE_FDESCR file = open();
    for (int header = 0; header < 12; ++header) {
        write(file, chance.plausible_header(),
              std::string(header == 5 ? 30'000 : 16'000, 'c')); // small when stored
        for (int i = 0; i < 5; ++i)
            write(file, chance.plausible_record());
    }
    QTRACE_Fclose(file);
    ASSERT_GE(verified().blocks, 5u);
    expect_whole_blocks_wherever_it_is_cut();
}

TEST_F(trace_file, cut_in_its_last_block_is_readable_up_to_there)
{
    write_plausible(30'000);
    const std::vector<uint64_t> blocks = block_offsets();
    const std::string whole = bytes();
    put_bytes(whole.substr(0, whole.size() - 1));
    const Contents contents = read();
    EXPECT_EQ(contents.damages.at(0).offset, blocks.back());
    EXPECT_EQ(contents.damages.at(0).bytes, whole.size() - 1 - blocks.back());
    EXPECT_EQ(contents.records() + contents.damages.at(0).records, 30'000u);
    EXPECT_TRUE(std::equal(contents.items.begin(), contents.items.end(), written_.begin()));
}

TEST_F(trace_file, with_any_bit_flipped_is_never_accepted_as_other_content)
{
    Random_Trace chance(7);
    const QTRACE_FDESCR file = open();
    write(file, chance.plausible_header(), "flip");
    for (int i = 0; i < 30; ++i)
        write(file, chance.plausible_record());
    QTRACE_Fclose(file);
    const std::string whole = bytes();
    ASSERT_LT(whole.size(), 3'000u);
    for (size_t bit = 0; bit < 8 * whole.size(); ++bit) {
        std::string flipped = whole;
        flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
        put_bytes(flipped);
        const Contents contents = read();
        EXPECT_TRUE(!contents.opened || !contents.damages.empty()) << "bit " << bit;
        expect_subset(contents);
    }
}

TEST_F(trace_file, with_a_damaged_block_loses_that_block_alone_and_counts_it)
{
    write_plausible(60'000);
    const std::vector<uint64_t> blocks = block_offsets();
    const std::string whole = bytes();
    ASSERT_GT(blocks.size(), 4u);
    for (const uint64_t in_block : {0, 5, 9, 30, 54, 60, 500}) {
        std::string damaged = whole;
        damaged[blocks[2] + in_block] ^= 0x10;
        put_bytes(damaged);
        const Contents contents = read();
        ASSERT_EQ(contents.damages.size(), 1u);
        EXPECT_EQ(contents.damages[0].offset, blocks[2]);
        EXPECT_EQ(contents.damages[0].bytes, blocks[3] - blocks[2]);
        EXPECT_TRUE(contents.damages[0].records_known);
        EXPECT_EQ(contents.damages[0].cause, QTRACE_CAUSE_DAMAGE);
        EXPECT_EQ(contents.records() + contents.damages[0].records, 60'000u);
        EXPECT_THAT(contents.texts[0], HasSubstr("byte " + std::to_string(blocks[2]) + ": "));
        EXPECT_EQ(verified().damaged_places, 1u);
        expect_subset(contents);
        EXPECT_EQ(contents.items.back(), written_.back());
    }
}

TEST_F(trace_file, with_a_block_taken_out_says_how_many_records_are_missing)
{
    write_plausible(60'000);
    const std::vector<uint64_t> blocks = block_offsets();
    const std::string whole = bytes();
    put_bytes(whole.substr(0, blocks[1]) + whole.substr(blocks[2]));
    const Contents contents = read();
    ASSERT_EQ(contents.damages.size(), 1u);
    EXPECT_EQ(contents.damages[0].bytes, 0u);
    EXPECT_TRUE(contents.damages[0].records_known);
    EXPECT_EQ(contents.records() + contents.damages[0].records, 60'000u);
    EXPECT_EQ(verified().damaged_places, 1u);
    expect_subset(contents);
}

TEST_F(trace_file, seeking_to_a_lost_record_comes_to_the_damage)
{
    write_plausible(60'000);
    const std::vector<uint64_t> blocks = block_offsets();
    std::string damaged = bytes();
    damaged[blocks[2] + 3] ^= 1;
    put_bytes(damaged);
    const uint64_t lost = read().damages.at(0).records;
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    const QTRACE_Item *item;
    uint64_t first_lost = 0;
    while (qtrace_next(reader, &item) != QTRACE_ITEM_DISCONTINUITY)
        first_lost = item->record_number + 1;
    ASSERT_EQ(qtrace_seek(reader, first_lost + lost / 2), 0);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
    EXPECT_EQ(item->discontinuity.records, lost);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
    EXPECT_EQ(item->record_number, first_lost + lost);
    qtrace_close(reader);
}

TEST_F(trace_file, seeking_to_a_record_after_damage_comes_to_the_record)
{
    write_plausible(60'000);
    const std::vector<uint64_t> blocks = block_offsets();
    const std::string whole = bytes();
    std::string damaged = whole;
    damaged[blocks[2] + 3] ^= 1; // its header
    for (const std::string &broken : {damaged, whole.substr(0, blocks[2]) + whole.substr(blocks[3])}) {
        put_bytes(broken);
        QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
        const QTRACE_Item *item;
        while (qtrace_next(reader, &item) != QTRACE_ITEM_DISCONTINUITY)
            ;
        ASSERT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
        const uint64_t first = item->record_number;
        // Before the first one there is still the damage; before its neighbour there is the first one.
        ASSERT_EQ(qtrace_seek(reader, first), 0);
        EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
        EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
        EXPECT_EQ(item->record_number, first);
        for (const uint64_t record : {first + 1, first + 500}) {
            ASSERT_EQ(qtrace_seek(reader, record), 0);
            ASSERT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD);
            EXPECT_EQ(item->record_number, record);
            EXPECT_EQ(item_of(*item), written_.at(record + 1)); // a header stands before all
        }
        qtrace_close(reader);
    }
}

} // namespace
