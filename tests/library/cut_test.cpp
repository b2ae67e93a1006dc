// What a cut keeps of traces of few records.
#include "cut_fixture.h"

#include "block_format.h"

#include <initializer_list>
#include <zstd.h>

namespace
{

// Traces of a few blocks, each as long as its test needs it.
class few_items : public cut
{
protected:
    using Change = std::function<void(trace::Block_Header &)>;

    few_items() { setenv("QTRACE_COMPRESSION", "none", 1); }

    // The file of a writer that is given these items: h for a header, r for a record.
    std::string trace_of(const std::string &items)
    {
        Random_Trace chance(items.size());
        const QTRACE_FDESCR file = open();
        for (const char item : items)
            if (item == 'h')
                write(file, chance.plausible_header());
            else
                write(file, chance.plausible_record());
        QTRACE_Fclose(file);
        return bytes();
    }
    // The block of a file of one, with another header.
    static std::string block_of(const std::string &file, const Change &change)
    {
        std::string block = file.substr(trace::FILE_START_SIZE);
        auto *const bytes = reinterpret_cast<uint8_t *>(block.data());
        trace::Block_Header header = trace::load_block_header(bytes).value();
        change(header);
        trace::store_block_header(header, bytes);
        return block;
    }
    // Such a block in the midst of a file, after so many items; it is the last one if it has that flag.
    std::string block_at(uint64_t record, uint64_t header, const std::string &items, uint8_t flags = 0)
    {
        return block_of(trace_of(items), [=](trace::Block_Header &block) {
            block.first_record = record;
            block.first_header = header;
            block.flags = static_cast<uint8_t>((block.flags & trace::ADDRESS_KNOWN) | flags);
        });
    }
    static std::string block_without_items(uint64_t record, uint64_t header, uint8_t flags)
    {
        const std::string payload(trace::COLUMN_SIZES, 0);
        trace::Block_Header block;
        block.flags = flags;
        block.stored_size = block.raw_size = static_cast<uint32_t>(payload.size());
        block.first_record = record;
        block.first_header = header;
        block.payload_crc = trace::crc32c(payload.data(), payload.size());
        std::string bytes(trace::BLOCK_HEADER_SIZE, 0);
        trace::store_block_header(block, reinterpret_cast<uint8_t *>(bytes.data()));
        return bytes + payload;
    }
    static std::string file_of(std::initializer_list<std::string> blocks)
    {
        const auto start = trace::file_start();
        std::string bytes(start.begin(), start.end());
        for (const std::string &block : blocks)
            bytes += block;
        return bytes;
    }
    static QTRACE_Cut range(uint64_t from, uint64_t most)
    {
        QTRACE_Cut choice = all();
        choice.from = from;
        choice.most = most;
        return choice;
    }
    static QTRACE_Cut samples(uint64_t from, uint64_t every, uint64_t window)
    {
        QTRACE_Cut choice = all();
        choice.from = from;
        choice.every = every;
        choice.window = window;
        return choice;
    }
    static std::vector<uint64_t> record_numbers(const Listing &listing)
    {
        std::vector<uint64_t> numbers;
        for (const Numbered_Item &item : listing.items)
            if (!item.item.is_header)
                numbers.push_back(item.record);
        return numbers;
    }
};

using Numbers = std::vector<uint64_t>;

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

TEST_F(cut, copies_blocks_of_which_all_items_turn_out_to_be_of_the_partition)
{
    write_plausible(3'000);
    const uint64_t two = 2;
    QTRACE_Cut choice = all();
    choice.lpids = &two;
    choice.lpid_count = 1;
    EXPECT_TRUE(cut_of(bytes(), choice) == bytes());
}

TEST_F(few_items, after_headers_that_are_left_out_restate_the_last_of_these)
{
    const QTRACE_FDESCR file = open();
    QTRACE_FILE_HDR header = Random_Trace(1).plausible_header();
    write(file, header);
    write(file, QTRACE_RECORD{});
    header.control.iar_is_present = 0;
    for (const uint8_t lpid : {uint8_t{3}, uint8_t{4}}) {
        header.lpid[0] = lpid;
        write(file, header);
    }
    write(file, QTRACE_RECORD{});
    QTRACE_Fclose(file);
    const uint64_t four = 4;
    QTRACE_Cut choice = all();
    choice.lpids = &four;
    choice.lpid_count = 1;
    put_bytes(cut_of(bytes(), choice));
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    const QTRACE_Item *item = nullptr;
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_HEADER);
    EXPECT_EQ(item->header.lpid[0], 2);
    ASSERT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
    ASSERT_NE(item->discontinuity.context, nullptr);
    EXPECT_EQ(item->discontinuity.context->lpid[0], 3);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_HEADER);
    EXPECT_EQ(item->header.lpid[0], 4);
    qtrace_close(reader);
}

TEST_F(few_items, are_kept_in_every_range)
{
    for (const char *name : {"gap-block-1", "gap-block-0", "comment-block-left-out", "comment-block-300",
                             "pauses-in-a-block", "open-end-block-2"}) {
        SCOPED_TRACE(name);
        const std::string source = bytes_of(std::string(QT_SMALL_TRACES) + "/" + name + ".trace");
        for (const uint64_t from : {0, 1, 2, 4, 5})
            for (const uint64_t most : {uint64_t{0}, uint64_t{1}, uint64_t{2}, uint64_t{4}, ALL})
                expect_range(source, from, most);
    }
}

TEST_F(few_items, are_kept_as_a_recovery_keeps_them)
{
    for (const char *name :
         {"cut-in-block-1-boundary", "cut-in-block-1-payload", "gap-block-0", "left-out-block-1", "missing-block-1",
          "missing-block-0", "blocks-swapped", "comment-block-of-another-length", "comment-block-missing",
          "comment-block-last", "damaged-payload-of-block-1", "block-after-last-block",
          "inserted-byte-before-block-2", "malformed-good-then-bad-record", "last-block-in-between"})
        EXPECT_TRUE(expect_recovery(std::string(QT_SMALL_TRACES) + "/" + name + ".trace", true)) << name;
}

TEST_F(few_items, that_are_none_make_an_empty_last_block)
{
    const Listing nothing = list(cut_of(file_of({}), all()));
    EXPECT_TRUE(nothing.items.empty());
    EXPECT_TRUE(nothing.left_out.empty());
    EXPECT_EQ(nothing.info.blocks, 1u);
    EXPECT_EQ(nothing.info.damaged_places, 0u);
    EXPECT_EQ(nothing.info.clean_end, 1);
    EXPECT_EQ(nothing.info.open_end, 1);
    EXPECT_EQ(result_.damaged_places, 1u) << "the source has no last block";
}

TEST_F(few_items, at_the_end_are_kept_with_an_empty_last_block)
{
    const std::string items = block_at(0, 0, "hrrr");
    const std::string source = file_of({items, block_without_items(3, 1, trace::LAST_BLOCK)});
    EXPECT_EQ(expect_range(source, 0, 3).info.blocks, 2u);
    EXPECT_EQ(expect_range(source, 0, 2).info.blocks, 1u);
    EXPECT_EQ(expect_range(source, 1, ALL).info.blocks, 3u);
    const std::string with_comment = file_of(
        {items, block_without_items(3, 1, trace::COMMENT_BLOCK), block_without_items(3, 1, trace::LAST_BLOCK)});
    EXPECT_TRUE(cut_of(with_comment, all()) == with_comment);
    const Listing ended = list(cut_of(with_comment, range(0, 3)));
    EXPECT_EQ(ended.info.blocks, 1u) << "a comment is of the items after it";
    EXPECT_EQ(ended.info.open_end, 1);
}

TEST_F(few_items, of_a_block_that_counts_none_are_damage)
{
    const std::string false_end = block_at(3, 1, "r", trace::LAST_BLOCK);
    const std::string source =
        file_of({block_at(0, 0, "hrrr"), block_of(file_of({false_end}), [](auto &block) { block.records = 0; })});
    const Listing kept = list(cut_of(source, range(0, 3)));
    EXPECT_EQ(result_.damaged_places, 1u);
    EXPECT_EQ(result_.blocks, 1u);
    EXPECT_EQ(result_.open_end, 1);
    EXPECT_EQ(kept.items.size(), 4u);
}

// Its numbers are those of the block after it, which names no comment.
TEST_F(few_items, are_kept_after_a_comment_that_is_not_theirs)
{
    const std::string source =
        file_of({block_without_items(0, 0, trace::COMMENT_BLOCK), block_at(0, 0, "hrr", trace::LAST_BLOCK)});
    EXPECT_EQ(record_numbers(list(cut_of(source, range(0, 1)))), (Numbers{0}));
    EXPECT_EQ(result_.blocks, 2u) << "the comment stays where nothing was left out before it";
}

TEST_F(few_items, of_the_next_file_are_not_kept_when_there_are_enough)
{
    for (const char *second : {"hr", "h", "hrr"}) {
        const Listing kept = list(
            cut_of(file_of({block_at(0, 0, "hr", trace::LAST_BLOCK), block_at(0, 0, second, trace::LAST_BLOCK)}),
                   range(0, 1)));
        EXPECT_EQ(kept.items.size(), 2u) << second;
        EXPECT_EQ(result_.damaged_places, 0u) << "what comes after the last record kept is not looked at";
        EXPECT_EQ(result_.open_end, 1);
    }
}

TEST_F(few_items, of_a_block_that_is_ruled_out_are_not_looked_at)
{
    for (const char *between : {"hr", "r", "hhr"}) {
        const std::string before = block_at(0, 0, "hrr");
        const uint64_t headers = 1 + static_cast<uint64_t>(std::string(between).find('r'));
        std::string damaged = block_at(2, 1, between);
        damaged.back() ^= 1;
        const std::string source = file_of({before, damaged, block_at(3, headers, "rrr", trace::LAST_BLOCK)});
        const Listing kept = list(cut_of(source, samples(0, 4, 2)));
        EXPECT_EQ(record_numbers(kept), (Numbers{0, 1, 4, 5})) << between;
        EXPECT_EQ(result_.damaged_places, 0u) << between;
    }
}

TEST_F(few_items, of_blocks_with_as_many_headers_as_records_are_kept_by_their_numbers)
{
    const std::string source = file_of({block_at(0, 0, "hr"), block_at(1, 1, "hr"), block_at(2, 2, "hr"),
                                        block_at(3, 3, "hr", trace::LAST_BLOCK)});
    for (const uint64_t from : {0, 1, 2, 3, 4})
        for (const uint64_t most : {0, 1, 2, 3, 4})
            expect_range(source, from, most);
}

TEST_F(few_items, end_before_the_only_header_at_the_end_of_a_block)
{
    const std::string source =
        file_of({block_at(0, 0, "hrr"), block_at(2, 1, "rrh"), block_at(4, 2, "rr", trace::LAST_BLOCK)});
    for (const uint64_t most : {3, 4, 5, 6})
        expect_range(source, 0, most);
}

TEST_F(few_items, after_the_last_one_wanted_are_not_decoded)
{
    const std::string source = file_of({block_of(trace_of("hrrr"), [](auto &block) { block.records = 4; })});
    EXPECT_EQ(record_numbers(list(cut_of(source, range(0, 1)))), (Numbers{0}));
    EXPECT_EQ(result_.damaged_places, 0u);
    cut_of(source, range(0, 4));
    EXPECT_EQ(result_.damaged_places, 1u);
    EXPECT_EQ(result_.records, 0u);
}

TEST_F(few_items, without_an_address_end_openly_where_the_source_has_no_last_block)
{
    const Listing kept = list(cut_of(file_of({block_at(0, 0, "rr")}), range(1, ALL)));
    EXPECT_EQ(record_numbers(kept), (Numbers{1}));
    EXPECT_FALSE(kept.items.at(0).item.address_known);
    EXPECT_EQ(kept.info.open_end, 1);
}

TEST_F(few_items, before_a_part_of_a_block_are_left_out_by_the_cut_even_where_the_writer_refused_some)
{
    const std::string source = bytes_of(std::string(QT_SMALL_TRACES) + "/gap-block-1.trace"); // refused: 2 and 3
    const Listing kept = list(cut_of(source, samples(1, 4, 1)));
    EXPECT_EQ(record_numbers(kept), (Numbers{1, 5}));
    EXPECT_EQ(kept.left_out, (std::vector<Place>{{QTRACE_CAUSE_LEFT_OUT, 0, 1}, {QTRACE_CAUSE_LEFT_OUT, 2, 3}}));
}

TEST_F(few_items, are_sampled_by_windows_of_any_size)
{
    const std::string source = file_of({block_at(0, 0, "hrrr"), block_at(3, 1, "rrhr", trace::LAST_BLOCK)});
    for (const auto &[from, every, window, records] :
         {std::tuple<uint64_t, uint64_t, uint64_t, Numbers>{0, 1, 0, {}},
          {0, 1, 1, {0, 1, 2, 3, 4, 5}},
          {0, 0, 0, {0, 1, 2, 3, 4, 5}},
          {0, 2, 3, {0, 1, 2, 3, 4, 5}},
          {1, 2, 1, {1, 3, 5}},
          {2, 3, 2, {2, 3, 5}},
          {5, 7, 3, {5}},
          {6, 7, 3, {}}})
        EXPECT_EQ(record_numbers(list(cut_of(source, samples(from, every, window)))), records)
            << from << " " << every << " " << window;
}

TEST_F(few_items, of_many_blocks_are_tested_by_several_threads)
{
    const std::string block = block_at(0, 0, "hrr", trace::LAST_BLOCK);
    for (const size_t blocks : {15, 16, 17, 24, 33}) {
        std::string source = file_of({});
        for (size_t i = 0; i < blocks; ++i)
            source += block;
        EXPECT_EQ(expect_range(source, 0, ALL).info.records, 2 * blocks);
        EXPECT_EQ(expect_range(source, 1, ALL).info.records, blocks);
    }
}

TEST_F(few_items, of_a_block_that_changes_during_the_cut_are_read_again)
{
    const std::string first = block_at(0, 0, "hrr"), second = block_at(2, 1, "rrr", trace::LAST_BLOCK);
    const std::string nonsense = block_of(file_of({second}), [](auto &block) { block.records = 4; });
    put_bytes(file_of({first, second}));
    struct Changing_File {
        std::string name, after;
        std::string kept;
    } file{name_, file_of({first, nonsense}), {}};
    QTRACE_Cut choice = all();
    choice.user = &file;
    choice.write = [](void *user, const void *from, size_t size) {
        static_cast<Changing_File *>(user)->kept.append(static_cast<const char *>(from), size);
        return 0;
    };
    choice.progress = [](void *user, uint64_t) {
        const auto &changing = *static_cast<Changing_File *>(user);
        std::fstream out(changing.name,
                         std::ios::in | std::ios::out | std::ios::binary); // keeps the file as long as it is
        out.write(changing.after.data(), std::ssize(changing.after));
    };
    ASSERT_EQ(qtrace_cut_by(name_.c_str(), &choice, 3, &result_, nullptr), 0);
    EXPECT_EQ(result_.damaged_places, 1u);
    EXPECT_EQ(record_numbers(list(file.kept)), (Numbers{0, 1}));
}

// Of a block whose numbers fall nobody knows how much is missing before it; but there the trace has ended.
TEST_F(few_items, after_the_writers_last_block_are_none_that_a_recovery_lost)
{
    const std::string nonsense = block_of(file_of({block_at(8, 1, "rr")}), [](auto &block) { block.records = 3; });
    put_bytes(
        file_of({block_at(0, 0, "hrr", trace::LAST_BLOCK), nonsense, "x", block_at(2, 1, "r", trace::LAST_BLOCK)}));
    QTRACE_Recovery recovery;
    ASSERT_EQ(qtrace_recover(name_.c_str(), (folder_ / "saved").c_str(), &recovery, nullptr), 0);
    EXPECT_EQ(recovery.records, 3u);
    EXPECT_EQ(recovery.damaged_places, 3u)
        << "a block after the last one, which makes no sense, and bytes that are none";
    EXPECT_EQ(recovery.lost_records_known, 1);
    put_bytes(file_of({block_at(0, 0, "hrr"), nonsense, "x", block_at(2, 1, "r", trace::LAST_BLOCK)}));
    ASSERT_EQ(qtrace_recover(name_.c_str(), (folder_ / "saved").c_str(), &recovery, nullptr), 0);
    EXPECT_EQ(recovery.lost_records_known, 0);
}

// Each record takes some 1500 bytes: 43 are a block. Blocks begin in a partition that is wanted and leave it, or the other way
// round; one has a single header, one has none.
TEST_F(few_items, of_partitions_and_processes_are_kept_wherever_blocks_change_them)
{
    const QTRACE_FDESCR file = open();
    write(file, Random_Trace(1).plausible_header());
    uint8_t changes = 0;
    for (const int end : {0, 20, 60, 70, 80, 100, 200, 210, 240, 270, 300}) {
        for (int i = static_cast<int>(written_.size()) - 1 - changes; i < end; ++i) {
            QTRACE_RECORD record{};
            std::memset(record.iar_hRTW, i % 255 + 1, sizeof record.iar_hRTW);
            std::memset(record.secondary_data_hRTW, i % 255 + 1, sizeof record.secondary_data_hRTW);
            std::memset(record.regs.spr_out, i % 255 + 1,
                        offsetof(QTRACE_REGISTERS, gpr_in) - offsetof(QTRACE_REGISTERS, spr_out));
            write(file, record);
        }
        QTRACE_FILE_HDR change{};
        change.sec_ext_controlword.control.fld.lpid_is_present = 1;
        change.sec_ext_controlword.control.fld.pid_is_present = 1;
        change.lpid[0] = changes & 1;
        change.pid[0] = static_cast<uint8_t>(7 + changes % 3);
        write(file, change);
        ++changes;
    }
    QTRACE_Fclose(file);
    const std::string source = bytes();
    ASSERT_GT(list(source).info.blocks, 5u);
    const uint64_t wanted_lpid[] = {0, 1}, wanted_pids[] = {8, 7};
    for (const uint64_t &lpid : wanted_lpid) {
        QTRACE_Cut choice = all();
        choice.lpids = &lpid;
        choice.lpid_count = 1;
        expect_cut(source, choice, [=](const Numbered_Item &item) { return item.lpid == lpid; });
        choice.pids = wanted_pids;
        choice.pid_count = 2;
        expect_cut(source, choice, [=](const Numbered_Item &item) { return item.lpid == lpid && item.pid != 9; });
    }
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
