// What a cut keeps of traces of many blocks, and of all the small traces.
#include "cut_fixture.h"

namespace
{

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

// Each of the small traces, whatever is wrong with it. A cut takes bytes after the last block for something that it left out,
// and damage before the first block, too.
TEST_F(cut, of_everything_of_a_small_trace_is_its_recovery_by_one_thread_or_several)
{
    size_t recovered = 0;
    for (const auto &entry : std::filesystem::directory_iterator(QT_SMALL_TRACES)) {
        if (entry.path().extension() != ".trace")
            continue;
        const std::string trace = entry.path().stem();
        if (!expect_recovery(entry.path(),
                             trace != "garbage-after-last-block" && trace != "gap-block-0-after-damage"))
            continue;
        ++recovered;
        if (result_.damaged_places == 0) {
            SCOPED_TRACE(entry.path());
            expect_range(bytes_of(entry.path()), 1, ALL);
        }
    }
    EXPECT_GE(recovered, 200u);
}

} // namespace
