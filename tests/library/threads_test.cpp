// Writers on several threads, and readers on several threads over one index. Also built with ThreadSanitizer.
#include "thread_team.h"
#include "trace_file_fixture.h"

#include <atomic>
#include <random>
#include <thread>

namespace
{

constexpr unsigned THREADS = 4;

class threads : public trace_file
{
protected:
    std::string name_of(unsigned thread) const { return name_ + std::to_string(thread); }

    template <class Work> static void run(Work work)
    {
        std::vector<std::thread> running;
        for (unsigned thread = 0; thread < THREADS; ++thread)
            running.emplace_back([work, thread] { work(thread); });
        for (std::thread &thread : running)
            thread.join();
    }

    // What the records of a thread's file are, one after the other.
    static QTRACE_RECORD record_of(Random_Trace &chance, unsigned thread)
    {
        QTRACE_RECORD record = chance.plausible_record();
        record.processor = static_cast<QTRACE_UINT8>(thread + 1);
        return record;
    }
    static void write_file(const std::string &name, unsigned thread, int records)
    {
        Random_Trace chance(thread);
        const QTRACE_FDESCR file = QTRACE_Fopen(name.c_str(), QTRACE_WRITE);
        ASSERT_GE(file, 0) << qtrace_writer_error();
        QTRACE_FILE_HDR header = chance.plausible_header();
        std::string comment(40'000, static_cast<char>('a' + thread)); // a block of its own
        header.comment = comment.data();
        header.comment_length = static_cast<QTRACE_UINT16>(comment.size());
        ASSERT_EQ(QTRACE_FwriteFileHeader(file, &header), 0);
        for (int i = 0; i < records; ++i) {
            QTRACE_RECORD record = record_of(chance, thread);
            ASSERT_EQ(QTRACE_FwriteRecord(file, &record), 0);
        }
        QTRACE_Fclose(file);
    }
    void expect_file_of(unsigned thread, int records) const
    {
        Random_Trace chance(thread);
        (void)chance.plausible_header();
        const Contents contents = read(name_of(thread));
        EXPECT_TRUE(contents.damages.empty());
        ASSERT_EQ(contents.items.size(), static_cast<size_t>(records) + 1);
        EXPECT_TRUE(contents.items[0].comment == std::string(40'000, static_cast<char>('a' + thread)));
        for (int i = 0; i < records; ++i) {
            const bool same =
                contents.items[static_cast<size_t>(i) + 1].image == image_of(record_of(chance, thread));
            ASSERT_TRUE(same) << "record " << i << " of thread " << thread;
        }
    }
};

TEST_F(threads, write_files_of_their_own_at_once)
{
    constexpr int RECORDS = 20'000;
    run([this](unsigned thread) { write_file(name_of(thread), thread, RECORDS); });
    for (unsigned thread = 0; thread < THREADS; ++thread)
        expect_file_of(thread, RECORDS);
}

// Comments that compression takes long for, each a block of its own: most of the time some of the threads compress.
TEST_F(threads, compress_blocks_at_once)
{
    constexpr uint32_t BLOCKS = 50;
    const auto comment_of = [](unsigned thread, uint32_t block) {
        std::minstd_rand chance(thread * BLOCKS + block + 1);
        std::string comment(60'000, ' ');
        for (char &letter : comment)
            letter = static_cast<char>('a' + chance() % 7);
        return comment;
    };
    run([&](unsigned thread) {
        const QTRACE_FDESCR file = QTRACE_Fopen(name_of(thread).c_str(), QTRACE_WRITE);
        ASSERT_GE(file, 0) << qtrace_writer_error();
        QTRACE_FILE_HDR header = Random_Trace(thread).plausible_header();
        for (uint32_t block = 0; block < BLOCKS; ++block) {
            std::string comment = comment_of(thread, block);
            header.comment = comment.data();
            header.comment_length = static_cast<QTRACE_UINT16>(comment.size());
            ASSERT_EQ(QTRACE_FwriteFileHeader(file, &header), 0);
        }
        QTRACE_Fclose(file);
    });
    for (unsigned thread = 0; thread < THREADS; ++thread) {
        const Contents contents = read(name_of(thread));
        EXPECT_TRUE(contents.damages.empty());
        ASSERT_EQ(contents.items.size(), BLOCKS);
        for (uint32_t block = 0; block < BLOCKS; ++block)
            ASSERT_TRUE(contents.items[block].comment == comment_of(thread, block)) << thread << ' ' << block;
    }
}

TEST_F(threads, open_and_close_files_while_others_write)
{
    run([this](unsigned thread) {
        for (int round = 0; round < 20; ++round)
            write_file(name_of(thread), thread, 200);
    });
    for (unsigned thread = 0; thread < THREADS; ++thread)
        expect_file_of(thread, 200);
}

TEST_F(threads, have_errors_of_their_own_and_one_count_of_failures)
{
    constexpr int FAILURES = 500;
    const uint64_t before = qtrace_writer_failures();
    run([this](unsigned thread) {
        const std::string missing = name_of(thread) + "/no/such";
        for (int i = 0; i < FAILURES; ++i) {
            EXPECT_EQ(QTRACE_Fopen(missing.c_str(), QTRACE_WRITE), -1);
            EXPECT_EQ(qtrace_writer_error(), missing + ": open: No such file or directory");
        }
    });
    EXPECT_EQ(qtrace_writer_failures(), before + THREADS * FAILURES);
    std::thread([] { EXPECT_STREQ(qtrace_writer_error(), ""); }).join();
}

TEST_F(threads, read_ranges_of_one_file_by_one_index)
{
    write_plausible(60'000);
    QTRACE_Index *index = qtrace_index_open(name_.c_str(), nullptr);
    uint64_t count = 0;
    qtrace_index_blocks(index, &count);
    ASSERT_GT(count, THREADS);
    std::vector<std::vector<Item>> parts(THREADS);
    run([&](unsigned thread) {
        const uint64_t first = count * thread / THREADS, end = count * (thread + 1) / THREADS;
        QTRACE_Reader *reader = qtrace_open_with_index(index);
        ASSERT_EQ(qtrace_select_blocks(reader, first, end - first), 0);
        const QTRACE_Item *item;
        while (qtrace_next(reader, &item) != QTRACE_ITEM_END)
            parts[thread].push_back(item_of(*item));
        QTRACE_Info info;
        EXPECT_EQ(qtrace_info(reader, &info), 0);
        EXPECT_EQ(info.records, 60'000u);
        qtrace_close(reader);
    });
    qtrace_index_close(index);
    std::vector<Item> all;
    for (const std::vector<Item> &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    EXPECT_TRUE(all == written_);
}

TEST_F(threads, take_parts_of_a_work_one_each_and_are_no_more_than_wanted)
{
    struct Row {
        unsigned threads;
        size_t parts, tools; // one for each thread
    };
    for (const auto &[workers, parts, tools] :
         {Row{1, 5, 1}, Row{2, 5, 2}, Row{3, 5, 3}, Row{5, 5, 5}, Row{6, 5, 5}, Row{3, 1, 1}, Row{3, 0, 1}}) {
        std::atomic<size_t> made = 0;
        std::vector<std::atomic<int>> done(parts);
        trace::work_together(
            workers, parts, [&] { return made.fetch_add(1); }, [&](size_t, size_t part) { ++done.at(part); });
        EXPECT_EQ(made, tools) << workers << " threads, " << parts << " parts";
        for (size_t part = 0; part < parts; ++part)
            EXPECT_EQ(done[part], 1) << part << " of " << parts;
    }
}

} // namespace
