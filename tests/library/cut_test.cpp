// What a cut keeps, by a reader of the source and of the result; the choice is made again here, item by item.
#include "qtrace_jobs.h"
#include "trace_file_fixture.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <limits>
#include <zstd.h>

namespace
{

constexpr uint64_t ALL = std::numeric_limits<uint64_t>::max();

// An item with its numbers and the partition and process in force at it.
struct Numbered_Item {
    Item item;
    uint64_t record, header;
    uint64_t lpid = 0, pid = 0;
    bool operator==(const Numbered_Item &other) const
    {
        return item == other.item && record == other.record && header == other.header;
    }
};

struct Place {
    QTRACE_CAUSE cause;
    uint64_t record, records;
    bool operator==(const Place &) const = default;
};

struct Listing {
    std::vector<Numbered_Item> items;
    std::vector<Place> left_out; // places, without pauses
    QTRACE_Info info{};
};

class cut : public trace_file
{
protected:
    using Wanted = std::function<bool(const Numbered_Item &)>;

    Listing list(const std::string &bytes)
    {
        const std::string name = (folder_ / "listed").string();
        std::ofstream(name, std::ios::binary).write(bytes.data(), std::ssize(bytes));
        Listing listing;
        QTRACE_Reader *reader = qtrace_open(name.c_str(), nullptr);
        const QTRACE_Item *item;
        while (qtrace_next(reader, &item) != QTRACE_ITEM_END)
            add(listing, *item, qtrace_open_header(reader));
        EXPECT_EQ(qtrace_verify(reader, &listing.info), 0);
        qtrace_close(reader);
        return listing;
    }
    static void add(Listing &listing, const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
    {
        if (item.kind == QTRACE_ITEM_DISCONTINUITY) {
            if (item.discontinuity.cause != QTRACE_CAUSE_PAUSE)
                listing.left_out.push_back(
                    {item.discontinuity.cause, item.record_number, item.discontinuity.records});
            return;
        }
        Numbered_Item own{item_of(item), item.record_number, item.header_number};
        if (context != nullptr) {
            std::memcpy(&own.lpid, context->lpid, 8);
            std::memcpy(&own.pid, context->pid, 4);
        }
        listing.items.push_back(own);
    }
    static QTRACE_Cut all()
    {
        QTRACE_Cut choice{};
        choice.most = ALL;
        return choice;
    }
    std::string cut_of(const std::string &source, QTRACE_Cut choice)
    {
        const std::string name = (folder_ / "source").string();
        std::ofstream(name, std::ios::binary).write(source.data(), std::ssize(source));
        std::string bytes, by_threads;
        choice.user = &bytes;
        choice.write = [](void *user, const void *from, size_t size) {
            static_cast<std::string *>(user)->append(static_cast<const char *>(from), size);
            return 0;
        };
        char *error = nullptr;
        EXPECT_EQ(qtrace_cut(name.c_str(), &choice, &result_, &error), 0) << error;
        choice.user = &by_threads;
        QTRACE_Cut_Result same;
        EXPECT_EQ(qtrace_cut_by(name.c_str(), &choice, 3, &same, &error), 0) << error;
        EXPECT_TRUE(by_threads == bytes);
        EXPECT_EQ(std::memcmp(&same, &result_, offsetof(QTRACE_Cut_Result, open_end) + sizeof same.open_end), 0);
        return bytes;
    }
    // The result has the items that are wanted and the first header, reads without damage, and stays what it is.
    Listing expect_cut(const std::string &source, const QTRACE_Cut &choice, const Wanted &wanted)
    {
        std::vector<Numbered_Item> expected;
        for (const Numbered_Item &item : list(source).items)
            if (wanted(item) || (item.item.is_header && item.header == 0))
                expected.push_back(item);
        const std::string once = cut_of(source, choice);
        const QTRACE_Cut_Result result = result_;
        Listing listing = list(once);
        EXPECT_TRUE(listing.items == expected) << listing.items.size() << " items, not " << expected.size();
        EXPECT_EQ(listing.info.damaged_places, 0u);
        EXPECT_EQ(listing.info.clean_end, 1);
        EXPECT_EQ(listing.info.blocks, result.blocks);
        EXPECT_EQ(listing.info.records, result.records);
        EXPECT_EQ(listing.info.headers, result.headers);
        EXPECT_EQ(listing.info.open_end, result.open_end);
        EXPECT_TRUE(cut_of(once, choice) == once);
        return listing;
    }
    Listing expect_range(const std::string &source, uint64_t from, uint64_t most)
    {
        QTRACE_Cut choice = all();
        choice.from = from;
        choice.most = most;
        return expect_cut(source, choice, [=](const Numbered_Item &item) {
            return item.record >= from && item.record - from < most;
        });
    }
    // Records of partitions 0 and 1 and of processes 7 and 8, some hundred at a time.
    void write_partitions(size_t changes)
    {
        Random_Trace chance(5);
        const QTRACE_FDESCR file = open();
        write(file, chance.plausible_header(), "KelvoVer:3");
        for (size_t i = 0; i < changes; ++i) {
            QTRACE_FILE_HDR change{};
            change.sec_ext_controlword.control.fld.lpid_is_present = 1;
            change.sec_ext_controlword.control.fld.pid_is_present = 1;
            change.lpid[0] = i & 1;
            change.pid[0] = static_cast<uint8_t>(7 + (i >> 1 & 1));
            write(file, change);
            for (size_t records = chance.below(900); records > 0; --records)
                write(file, chance.plausible_record());
        }
        QTRACE_Fclose(file);
    }

    QTRACE_Cut_Result result_{};
};

TEST_F(cut, of_everything_is_the_file_itself)
{
    for (const char *compression : {"none", "zstd"}) {
        setenv("QTRACE_COMPRESSION", compression, 1);
        write_plausible(20'000);
        EXPECT_TRUE(cut_of(bytes(), all()) == bytes());
        EXPECT_EQ(result_.records, 20'000u);
        EXPECT_EQ(result_.headers, 1u);
        EXPECT_EQ(result_.open_end, 0);
    }
    QTRACE_Fclose(open());
    EXPECT_TRUE(cut_of(bytes(), all()) == bytes());
    const Listing without_blocks = list(cut_of(bytes().substr(0, 16), all()));
    EXPECT_EQ(without_blocks.info.open_end, 1);
    EXPECT_EQ(without_blocks.left_out.size(), 0u);
    EXPECT_EQ(result_.damaged_places, 1u);
}

TEST_F(cut, keeps_a_range_with_its_numbers_addresses_and_context)
{
    write_plausible(30'000);
    const Listing middle = expect_range(bytes(), 9'000, 12'000);
    EXPECT_EQ(middle.items.size(), 12'001u);
    EXPECT_EQ(middle.left_out, (std::vector<Place>{{QTRACE_CAUSE_LEFT_OUT, 0, 9'000}}));
    EXPECT_EQ(middle.info.open_end, 1);
    EXPECT_EQ(expect_range(bytes(), 1, ALL).left_out, (std::vector<Place>{{QTRACE_CAUSE_LEFT_OUT, 0, 1}}));
    EXPECT_EQ(expect_range(bytes(), 0, 1).left_out.size(), 0u);
    EXPECT_EQ(expect_range(bytes(), 0, 0).items.size(), 1u);
    EXPECT_EQ(expect_range(bytes(), 29'999, 5).info.open_end, 0);
    EXPECT_EQ(expect_range(bytes(), 0, 30'000).info.open_end, 0);
}

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

TEST_F(cut, keeps_samples_that_are_counted_from_the_first_record)
{
    write_plausible(20'000);
    for (const auto &[every, window, from] :
         {std::array<uint64_t, 3>{1'000, 100, 0}, {7, 3, 5}, {6'000, 5'999, 2}, {1, 1, 4}, {19'000, 1, 100}}) {
        QTRACE_Cut choice = all();
        choice.from = from;
        choice.every = every;
        choice.window = window;
        const Listing sample = expect_cut(bytes(), choice, [=](const Numbered_Item &item) {
            return item.record >= from && (item.record - from) % every < window;
        });
        EXPECT_GT(sample.items.size(), 1u);
    }
    QTRACE_Cut choice = all();
    choice.every = 1'000;
    choice.window = 100;
    choice.most = 250;
    const Listing some = list(cut_of(bytes(), choice));
    EXPECT_EQ(some.info.records, 250u);
    EXPECT_EQ(some.items.back().record, 2'049u);
    EXPECT_EQ(some.left_out,
              (std::vector<Place>{{QTRACE_CAUSE_LEFT_OUT, 100, 900}, {QTRACE_CAUSE_LEFT_OUT, 1'100, 900}}));
}

TEST_F(cut, keeps_partitions_and_processes_by_the_context)
{
    write_partitions(60);
    const uint64_t one = 1, both[] = {8, 7}, none = 3;
    QTRACE_Cut choice = all();
    choice.lpids = &one;
    choice.lpid_count = 1;
    const auto in_one = [](const Numbered_Item &item) { return item.lpid == 1; };
    const Listing second = expect_cut(bytes(), choice, in_one);
    EXPECT_GT(second.items.size(), 5'000u);
    EXPECT_GT(second.left_out.size(), 10u);
    choice.pids = both;
    choice.pid_count = 1;
    expect_cut(bytes(), choice, [](const Numbered_Item &item) { return item.lpid == 1 && item.pid == 8; });
    choice.pid_count = 2;
    expect_cut(bytes(), choice, in_one);
    choice.lpids = &none;
    EXPECT_EQ(expect_cut(bytes(), choice, [](const Numbered_Item &) { return false; }).items.size(), 1u);
}

TEST_F(cut, takes_so_many_records_of_a_partition_at_most)
{
    write_partitions(60);
    const uint64_t one = 1;
    QTRACE_Cut choice = all();
    choice.lpids = &one;
    choice.lpid_count = 1;
    choice.most = 3'000;
    uint64_t left = 3'000;
    expect_cut(bytes(), choice, [&](const Numbered_Item &item) {
        const bool wanted = left > 0 && item.lpid == 1;
        left -= wanted && !item.item.is_header;
        return wanted;
    });
}

TEST_F(cut, keeps_items_of_any_kind_and_long_comments)
{
    Random_Trace chance(11);
    const QTRACE_FDESCR file = open();
    for (int i = 0; i < 3'000; ++i) {
        if (i % 40 == 0)
            write(file, chance.wild_header(), chance.comment(i % 80 == 0 ? 20'000 : 300));
        write(file, chance.below(3) == 0 ? chance.wild_record() : chance.plausible_record());
    }
    QTRACE_Fclose(file);
    EXPECT_TRUE(cut_of(bytes(), all()) == bytes());
    for (const uint64_t from : {1u, 39u, 40u, 41u, 79u, 80u, 81u, 1'000u, 2'999u}) {
        expect_range(bytes(), from, 120);
        expect_range(bytes(), from, 1);
        expect_range(bytes(), from, ALL);
    }
}

TEST_F(cut, of_everything_of_a_damaged_file_is_its_recovery)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    write_plausible(36'000);
    const std::vector<uint64_t> at = block_offsets();
    std::string damaged = bytes();
    damaged[at[1]] ^= 1;
    damaged[at[3] + 100] ^= 1;
    for (const std::string &source :
         {damaged, damaged.substr(0, at[5] + 50), damaged.substr(0, at[5]), damaged.substr(at[2]),
          damaged.substr(0, at[4]) + "x" + damaged.substr(at[4])}) {
        put_bytes(source);
        QTRACE_Recovery recovery;
        ASSERT_EQ(qtrace_recover(name_.c_str(), (folder_ / "saved").c_str(), &recovery, nullptr), 0);
        std::ifstream in(folder_ / "saved", std::ios::binary);
        const std::string saved{std::istreambuf_iterator<char>(in), {}};
        EXPECT_TRUE(cut_of(source, all()) == saved);
        EXPECT_EQ(result_.damaged_places, recovery.damaged_places);
        EXPECT_TRUE(cut_of(saved, all()) == saved);
        expect_range(source, 100, ALL);
    }
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

TEST_F(cut, does_not_look_at_what_is_ruled_out)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    write_plausible(36'000);
    const std::vector<uint64_t> at = block_offsets();
    std::string damaged = bytes();
    damaged[at[1] + 100] ^= 1; // payloads
    damaged[at[5] + 100] ^= 1;
    const Listing whole = list(bytes());
    const auto first_of = [&](size_t block) {
        QTRACE_Reader *reader = qtrace_open(name_.c_str(), nullptr);
        std::vector<QTRACE_Block> blocks(qtrace_blocks(reader, nullptr, 0));
        qtrace_blocks(reader, blocks.data(), blocks.size());
        qtrace_close(reader);
        return blocks[block].first_record;
    };
    QTRACE_Cut choice = all();
    choice.from = first_of(2) + 10;
    choice.most = first_of(4) - choice.from;
    EXPECT_TRUE(cut_of(damaged, choice) == cut_of(bytes(), choice));
    EXPECT_EQ(result_.damaged_places, 0u);
    choice.from = first_of(1) + 1;
    cut_of(damaged, choice);
    EXPECT_EQ(result_.damaged_places, 1u);
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

// Each of the small traces, whatever is wrong with it. A cut takes bytes after the last block for something that it left out,
// and damage before the first block, too.
TEST_F(cut, of_everything_of_a_small_trace_is_its_recovery_by_one_thread_or_several)
{
    size_t recovered = 0;
    for (const auto &entry : std::filesystem::directory_iterator(QT_SMALL_TRACES)) {
        if (entry.path().extension() != ".trace")
            continue;
        std::string saved[2];
        QTRACE_Recovery results[2];
        int failed[2];
        for (const unsigned several : {0, 1}) {
            const std::string to = (folder_ / ("saved" + std::to_string(several))).string();
            std::filesystem::remove(to);
            failed[several] =
                qtrace_recover_by(entry.path().c_str(), to.c_str(), several ? 3 : 1, &results[several], nullptr);
            std::ifstream in(to, std::ios::binary);
            saved[several].assign(std::istreambuf_iterator<char>(in), {});
        }
        EXPECT_EQ(failed[0], failed[1]) << entry.path();
        EXPECT_TRUE(saved[0] == saved[1]) << entry.path();
        if (failed[0] != 0)
            continue;
        ++recovered;
        EXPECT_EQ(image_of(results[0]), image_of(results[1])) << entry.path();
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string source{std::istreambuf_iterator<char>(in), {}};
        const bool same = cut_of(source, all()) == saved[0];
        const std::string trace = entry.path().stem();
        EXPECT_EQ(same, trace != "garbage-after-last-block" && trace != "gap-block-0-after-damage") << trace;
        EXPECT_EQ(result_.damaged_places, results[0].damaged_places) << entry.path();
        if (results[0].damaged_places == 0) {
            SCOPED_TRACE(entry.path());
            expect_range(source, 1, ALL);
        }
    }
    EXPECT_GE(recovered, 200u);
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
