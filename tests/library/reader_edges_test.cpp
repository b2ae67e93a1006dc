// What a reader meets at the edges: of its search window, of blocks, of what a block header may say.
#include "trace_file_fixture.h"

#include "block_format.h"

#include <functional>
#include <zstd.h>

namespace
{

class reader_edge : public trace_file
{
protected:
    static QTRACE_FILE_HDR full_header(uint8_t page)
    {
        QTRACE_FILE_HDR header{};
        header.control.iar_is_present = 1;
        header.iar[1] = page;
        return header;
    }
    // A block as `change` leaves its header, with checksums that are right.
    static std::string block(const std::string &payload, const std::function<void(trace::Block_Header &)> &change)
    {
        trace::Block_Header header;
        header.flags = trace::LAST_BLOCK;
        header.stored_size = header.raw_size = static_cast<uint32_t>(payload.size());
        header.payload_crc = trace::crc32c(payload.data(), payload.size());
        change(header);
        std::string bytes(trace::BLOCK_HEADER_SIZE, 0);
        trace::store_block_header(header, reinterpret_cast<uint8_t *>(bytes.data()));
        return bytes + payload;
    }
    static std::string start()
    {
        const auto bytes = trace::file_start();
        return {bytes.begin(), bytes.end()};
    }
    static std::string payload_of(const std::vector<std::string> &columns)
    {
        std::string payload;
        for (size_t i = 0; i < 10; ++i) {
            const auto size = static_cast<uint32_t>(i < columns.size() ? columns[i].size() : 0);
            payload.append(reinterpret_cast<const char *>(&size), sizeof size);
        }
        for (const std::string &column : columns)
            payload += column;
        return payload;
    }
};

TEST_F(reader_edge, block_is_found_wherever_its_header_crosses_the_search_window)
{
    write_plausible(10);
    const std::string whole = bytes();
    constexpr size_t WINDOW = 65536;
    for (size_t junk = WINDOW - 60; junk <= WINDOW + 4; ++junk)
        for (const char fill : {'\0', '\x8B'}) {
            put_bytes(whole.substr(0, 16) + std::string(junk, fill) + whole.substr(16));
            const Contents contents = read();
            ASSERT_EQ(contents.records(), 10u) << junk;
            ASSERT_EQ(contents.damages.size(), 1u);
            ASSERT_EQ(contents.damages[0].bytes, junk);
        }
}

TEST_F(reader_edge, summaries_asked_for_within_a_block_leave_its_items_alone)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    write_plausible(20'000);
    std::string damaged = bytes();
    damaged[damaged.size() - 10] ^= 1;
    put_bytes(damaged);
    for (const auto ask : {qtrace_info, qtrace_verify}) {
        QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
        ASSERT_NE(reader, nullptr);
        for (size_t i = 0; i < 2000; ++i) {
            const QTRACE_Item *item = nullptr;
            ASSERT_NE(qtrace_next(reader, &item), QTRACE_ITEM_DISCONTINUITY);
            ASSERT_EQ(item_of(*item), written_[i]) << i;
            QTRACE_Info info;
            ASSERT_EQ(i == 1000 ? ask(reader, &info) : 0, 0);
        }
        qtrace_close(reader);
    }
}

TEST_F(reader_edge, seeking_comes_to_a_header_that_ends_a_block)
{
    // The second header's comment needs a block of its own, so that the first one ends the block before.
    const QTRACE_FDESCR file = open();
    write(file, full_header(0x10));
    write(file, QTRACE_RECORD{});
    write(file, full_header(0x20));
    write(file, full_header(0x30), std::string(20'000, 'c'));
    write(file, QTRACE_RECORD{});
    QTRACE_Fclose(file);
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    const QTRACE_Item *item;
    ASSERT_EQ(qtrace_seek(reader, 1), 0);
    std::vector<uint8_t> pages;
    QTRACE_ITEM kind;
    while ((kind = qtrace_next(reader, &item)) != QTRACE_ITEM_RECORD && kind != QTRACE_ITEM_END)
        if (kind == QTRACE_ITEM_HEADER)
            pages.push_back(item->header.iar[1]);
    EXPECT_EQ(pages, (std::vector<uint8_t>{0x20, 0x30}));
    EXPECT_EQ(kind, QTRACE_ITEM_RECORD);
    EXPECT_EQ(item->record_number, 1u);
    qtrace_close(reader);
}

TEST_F(reader_edge, each_refusal_is_marked_once)
{
    Random_Trace chance(51);
    const QTRACE_FDESCR file = open();
    uint64_t refused = 0;
    {
        const Small_Disk disk(60'000);
        while (refused < 2) {
            QTRACE_RECORD record = chance.wild_record();
            refused += QTRACE_FwriteRecord(file, &record) != 0;
        }
    }
    for (int i = 0; i < 200; ++i) { // several blocks more
        QTRACE_RECORD record = chance.wild_record();
        ASSERT_EQ(QTRACE_FwriteRecord(file, &record), 0);
    }
    QTRACE_Fclose(file);
    const Contents contents = read();
    ASSERT_EQ(contents.wanted.size(), 1u);
    EXPECT_EQ(contents.wanted[0].cause, QTRACE_CAUSE_REFUSED);
    EXPECT_EQ(contents.wanted[0].records, 2u);
    EXPECT_EQ(verified().left_out, 1u);
    EXPECT_GT(verified().blocks, 3u);
}

TEST_F(reader_edge, higher_compression_levels_make_smaller_files)
{
    std::vector<uint64_t> sizes;
    for (const char *level : {"none", "zstd:-50", "zstd", "zstd:3", "zstd:19"}) {
        setenv("QTRACE_COMPRESSION", level, 1);
        write_plausible(20'000);
        sizes.push_back(bytes().size());
    }
    for (size_t i = 1; i < sizes.size(); ++i)
        EXPECT_LT(sizes[i], sizes[i - 1]) << i;
}

TEST_F(reader_edge, headers_with_unknown_flags_or_impossible_sizes_are_none_even_with_right_checksums)
{
    const std::string payload = payload_of({});
    const std::vector<std::function<void(trace::Block_Header &)>> changes = {
        [](auto &header) { header.flags |= 128; },
        [](auto &header) { header.flags |= trace::LEFT_OUT; },
        [](auto &header) { header.compression = 2; },
        [](auto &header) { header.version = 2; },
        [](auto &header) { header.version = 0; },
        [](auto &header) { header.raw_size = 65537; },
        [](auto &header) { header.stored_size = 65537; },
        [](auto &header) { header.stored_size = header.raw_size = 65537; },
        [](auto &header) { header.raw_size++; },
        [](auto &header) { header.compression = 1, header.raw_size = 65537; },
        [](auto &header) { header.first_record = ~uint64_t{0}, header.records = 1; },
        [](auto &header) { header.first_header = ~uint64_t{0}, header.headers = 1; },
    };
    put_bytes(start() + block(payload, [](auto &) {}));
    EXPECT_TRUE(read().damages.empty());
    for (size_t i = 0; i < changes.size(); ++i) {
        put_bytes(start() + block(payload, changes[i]));
        const Contents contents = read();
        ASSERT_EQ(contents.damages.size(), 1u) << i;
        EXPECT_EQ(contents.damages[0].cause, QTRACE_CAUSE_CUT_END) << i;
        EXPECT_EQ(contents.damages[0].offset, 16u);
        EXPECT_EQ(contents.damages[0].records, 0u);
    }
}

TEST_F(reader_edge, payloads_are_as_large_as_64_KiB)
{
    const std::string comment(65'536, 'c');
    std::string pressed(ZSTD_compressBound(comment.size()), 0);
    pressed.resize(ZSTD_compress(pressed.data(), pressed.size(), comment.data(), comment.size(), 1));
    const auto is_comment = [](auto &header) { header.flags = trace::COMMENT_BLOCK | trace::LAST_BLOCK; };
    put_bytes(start() + block(comment, is_comment));
    EXPECT_TRUE(read().damages.empty());
    put_bytes(start() + block(pressed, [&](auto &header) {
                  is_comment(header);
                  header.compression = trace::ZSTD;
                  header.raw_size = 65'536;
              }));
    EXPECT_TRUE(read().damages.empty());
    EXPECT_EQ(verified().blocks, 1u);
}

// The block before the one whose comment is missing has the same numbers, but is no comment; or the other way round.
TEST_F(reader_edge, comment_is_that_of_a_comment_block_and_of_a_block_that_has_it_outside)
{
    const std::string items = payload_of({"", "\x80\x01", "", "", "", "", "", "", "", std::string("\0\0\2", 3)});
    const auto header_block = [&](uint8_t flags) {
        return block(items, [=](auto &header) {
            header.headers = 1;
            header.flags = flags;
        });
    };
    const auto front = [](uint8_t flags) {
        return block(payload_of({}), [=](auto &header) { header.flags = flags; });
    };
    const uint8_t last = trace::LAST_BLOCK, with_comment = trace::LAST_BLOCK | trace::COMMENT_BEFORE;
    put_bytes(start() + front(trace::COMMENT_BLOCK) + header_block(with_comment));
    EXPECT_EQ(read().texts, (std::vector<std::string>{name_ + ": byte 112: the block's contents make no sense"}))
        << "the comment is not as long as the header says";
    for (const std::string &before : {front(0), std::string()}) {
        put_bytes(start() + before + header_block(with_comment));
        const Contents contents = read();
        ASSERT_EQ(contents.texts.size(), 1u);
        EXPECT_EQ(contents.texts[0], name_ + ": byte " + std::to_string(16 + before.size()) +
                                         ": the comment block before this one is missing");
        EXPECT_EQ(contents.items.size(), 1u);
    }
    put_bytes(start() + front(trace::COMMENT_BLOCK) + header_block(last));
    EXPECT_EQ(read().items.size(), 0u) << "it names a comment outside and has none";
}

TEST_F(reader_edge, pointers_and_bookkeeping_in_a_file_do_not_reach_the_user)
{
    // Sparse images of all ones: of the open header, of a header, and of a record's rare members.
    const std::string header_image = std::string("\0\xf0\x02", 3) + std::string(368, '\xff') + std::string(2, '\0');
    const std::string record_image =
        std::string("\0\xf8\x16", 3) + std::string(2936, '\xff') + std::string(2, '\0');
    const std::string extra = header_image + std::string(1, '\0') + record_image; // place of the comment: none
    put_bytes(start() + block(payload_of({header_image, "\x80\x01\x80\x02", "", "", "", "", "", "", "", extra}),
                              [](auto &header) { header.records = header.headers = 1; }));
    QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
    const QTRACE_Item *item;
    ASSERT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_HEADER) << qtrace_error(reader);
    EXPECT_EQ(item->header.iar[0], 0xff);
    EXPECT_EQ(item->header.comment, nullptr);
    EXPECT_EQ(item->header.app_spec_data, nullptr);
    ASSERT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_RECORD) << qtrace_error(reader);
    EXPECT_EQ(item->record.iar[0], 0xff);
    EXPECT_EQ(item->record.data, nullptr);
    EXPECT_EQ(item->record.file_header, nullptr);
    EXPECT_EQ(item->record.persistent_data, nullptr);
    EXPECT_EQ(item->record.offset | item->record.record_count | item->record.instr_count |
                  item->record.exec_instr_count,
              0u);
    const QTRACE_FILE_HDR *context = qtrace_open_header(reader);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->comment, nullptr);
    EXPECT_EQ(context->app_spec_data, nullptr);
    EXPECT_EQ(qtrace_next(reader, &item), QTRACE_ITEM_END);
    qtrace_close(reader);
}

TEST_F(reader_edge, images_reach_to_the_end_of_a_header_and_no_further)
{
    // Zero bytes before a run and the size of the run, which is of ones; what a byte cannot hold takes two.
    using Runs = std::vector<std::pair<size_t, size_t>>;
    const auto number = [](size_t value) {
        const char low = static_cast<char>(value | 0x80), high = static_cast<char>(value >> 7);
        return std::string{low, high};
    };
    const std::pair<Runs, bool> images[] = {
        {{{360, 8}}, true},           {{{360, 9}}, false},           {{{369, 1}}, false},
        {{{368, 1}}, false},          {{{0, 200}, {100, 68}}, true}, {{{0, 200}, {100, 69}}, false},
        {{{0, 200}, {169, 1}}, false}};
    for (const auto &[runs, fits] : images) {
        std::string image;
        for (const auto &[gap, size] : runs)
            image += number(gap) + number(size) + std::string(size, '\1');
        const std::string extra = image + std::string(3, '\0'); // ends, and no comment
        put_bytes(start() + block(payload_of({"", "\x80\x01", "", "", "", "", "", "", "", extra}),
                                  [](auto &header) { header.headers = 1; }));
        const Contents contents = read();
        EXPECT_EQ(contents.items.size(), fits ? 1u : 0u) << runs[0].first << " " << runs[0].second;
        EXPECT_EQ(contents.damages.empty(), fits) << runs[0].first << " " << runs[0].second;
    }
}

TEST_F(reader_edge, inputs_are_expected_from_nothing_but_the_address)
{
    // Seven general registers that are read, by each kind of expectation but that of the register and the memory.
    put_bytes(start() + block(payload_of({"", "\x44", "", "\x80\x04\x07\x01\x02\x03\x04\x05\x06\x07", "", "", "",
                                          "\x01\x03\x04\x05\x06\x07\x08"}),
                              [](auto &header) { header.records = 1; }));
    const Contents contents = read();
    EXPECT_TRUE(contents.damages.empty());
    QTRACE_RECORD expected{};
    expected.regs.num_gprs_in = 7;
    for (uint16_t i = 0; i < 7; ++i)
        expected.regs.gpr_in[i].index = static_cast<uint16_t>(i + 1);
    ASSERT_EQ(contents.items.size(), 1u);
    EXPECT_TRUE(contents.items[0].image == image_of(expected));
}

TEST_F(reader_edge, data_address_has_one_of_three_bases)
{
    for (const char base : {'\x02', '\x03', '\x04', '\x7f'}) {
        const std::string shape = std::string("\0\0\0\0\0\0\x08\0\0", 9); // control word 0, new: a data address
        put_bytes(start() + block(payload_of({"", "\x22", "", shape, "", {base, 0}}),
                                  [](auto &header) { header.records = 1; }));
        EXPECT_EQ(read().damages.empty(), base == '\x02') << int{base};
    }
}

TEST_F(reader_edge, headers_are_as_many_as_the_block_counts)
{
    const std::string payload =
        payload_of({"", "\x80\x01\x80\x01", "", "", "", "", "", "", "", std::string(6, '\0')});
    for (const uint32_t counted : {1, 2, 3}) {
        put_bytes(start() + block(payload, [&](auto &header) { header.headers = counted; }));
        const Contents contents = read();
        EXPECT_EQ(contents.items.size(), std::min(counted, 2u)) << counted;
        EXPECT_EQ(contents.damages.empty(), counted == 2) << counted;
        if (counted != 2) {
            EXPECT_EQ(contents.damages.at(0).headers, counted == 3 ? 1u : 0u);
        }
        QTRACE_Cut all{};
        all.most = ~uint64_t{0};
        all.write = [](void *, const void *, size_t) { return 0; };
        QTRACE_Cut_Result result;
        ASSERT_EQ(qtrace_cut(name_.c_str(), &all, &result, nullptr), 0);
        EXPECT_EQ(result.headers, counted == 2 ? 2u : 0u) << counted;
        EXPECT_EQ(result.damaged_places, counted == 2 ? 0u : 1u) << counted;
    }
}

TEST_F(reader_edge, block_that_is_but_a_header_is_found_at_the_end_of_the_file)
{
    for (const size_t junk : {1, 57, 65'479, 65'480, 65'481, 65'536}) {
        put_bytes(start() + std::string(junk, 'x') +
                  block("", [](auto &header) { header.flags = trace::COMMENT_BLOCK | trace::LAST_BLOCK; }));
        const Contents contents = read();
        ASSERT_EQ(contents.damages.size(), 1u) << junk;
        EXPECT_EQ(contents.damages[0].cause, QTRACE_CAUSE_DAMAGE) << junk;
        EXPECT_EQ(contents.damages[0].bytes, junk);
    }
}

TEST_F(reader_edge, header_item_has_no_other_bits)
{
    const std::pair<std::string, bool> operations[] = {
        {"\x80\x01", true}, {"\x81\x01", false}, {"\xc0\x01", false}, {"\x80\x03", false}, {"\x80\x09", false}};
    for (const auto &[operation, right] : operations) {
        put_bytes(start() + block(payload_of({"", operation, "", "", "", "", "", "", "", std::string(3, '\0')}),
                                  [](auto &header) { header.headers = 1; }));
        EXPECT_EQ(read().damages.empty(), right) << testing::PrintToString(operation);
    }
}

TEST_F(reader_edge, image_whose_later_runs_reach_beyond_the_record_is_damage)
{
    // A run of 100 bytes, then one byte at the last place of the record, or after it.
    const std::string first = std::string("\0\x64", 2) + std::string(100, '\x01');
    for (const bool fits : {true, false}) {
        const std::string gap = fits ? "\x93\x16" : "\x94\x16"; // 2835 or 2836 of 2936 - 100
        put_bytes(start() + block(payload_of({"", "\x80\x02", "", "", "", "", "", "", "",
                                              first + gap + std::string("\1\1\0\0", 4)}),
                                  [](auto &header) { header.records = 1; }));
        EXPECT_EQ(read().damages.empty(), fits);
    }
    const std::string long_run = std::string("\0\x95\x16", 3) + std::string(2837, '\1'); // after 100 bytes
    put_bytes(start() + block(payload_of({"", "\x80\x02", "", "", "", "", "", "", "",
                                          first + long_run + std::string(2, '\0')}),
                              [](auto &header) { header.records = 1; }));
    EXPECT_FALSE(read().damages.empty());
}

} // namespace
