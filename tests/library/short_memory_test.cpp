// The library where memory is short: each of its allocations fails once, and the call says so.
#include "qtrace_columns.h"
#include "qtrace_jobs.h"
#include "trace_file_fixture.h"

#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <utility>

namespace
{

constexpr uint64_t NEVER = ~uint64_t{0};
uint64_t until_failure = NEVER; // allocations

} // namespace

[[gnu::noinline]] void *operator new(size_t size)
{
    if (until_failure != NEVER && until_failure-- == 0)
        throw std::bad_alloc();
    if (void *const memory = std::malloc(size != 0 ? size : 1); memory != nullptr)
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, size_t) noexcept
{
    std::free(memory);
}

namespace
{

class short_memory : public trace_file
{
protected:
    using Reader = std::unique_ptr<QTRACE_Reader, decltype(&qtrace_close)>;

    // Calls call() with the first allocation failing, then the second, until there are no more, and check() of each result but
    // that of the last.
    template <class Call, class Check> static void each_failure(Call call, Check check)
    {
        for (uint64_t allocation = 0;; ++allocation) {
            until_failure = allocation;
            const auto result = call();
            const bool failed = until_failure == NEVER;
            until_failure = NEVER;
            if (!failed)
                break;
            ASSERT_LT(allocation, 1'000u);
            check(result);
        }
    }
    Reader reader() const { return {qtrace_open(name_.c_str(), nullptr), &qtrace_close}; }
    // The result of `call` of a new reader is `failed`, whichever allocation fails, and the reader says why.
    template <class Call, class Result> void expect_failure(Result failed, Call call) const
    {
        size_t failures = 0;
        Reader last = reader();
        each_failure(
            [&] {
                const uint64_t allocation = std::exchange(until_failure, NEVER);
                last = reader();
                until_failure = allocation;
                return call(last.get());
            },
            [&](Result result) {
                EXPECT_EQ(result, failed);
                EXPECT_STREQ(qtrace_error(last.get()), "out of memory");
                ++failures;
            });
        EXPECT_GT(failures, 0u);
    }
    void write_some()
    {
        const QTRACE_FDESCR file = open();
        write(file, QTRACE_FILE_HDR{}, std::string(20'000, 'c'));
        Random_Trace chance(1);
        for (int i = 0; i < 100; ++i)
            write(file, chance.plausible_record());
        QTRACE_Fclose(file);
    }
};

TEST_F(short_memory, fails_what_a_reader_is_asked_for)
{
    write_some();
    expect_failure(-1, [](QTRACE_Reader *reader) { return qtrace_seek(reader, 5); });
    expect_failure(-1, [](QTRACE_Reader *reader) { return qtrace_select_blocks(reader, 0, 1); });
    expect_failure(uint64_t{0}, [](QTRACE_Reader *reader) { return qtrace_blocks(reader, nullptr, 0); });
    expect_failure(uint64_t{0}, [](QTRACE_Reader *reader) { return qtrace_step_blocks(reader, 0, nullptr, 0); });
    QTRACE_Info info;
    expect_failure(-1, [&](QTRACE_Reader *reader) { return qtrace_info(reader, &info); });
    expect_failure(-1, [&](QTRACE_Reader *reader) { return qtrace_verify(reader, &info); });
    expect_failure(-1, [&](QTRACE_Reader *reader) { return qtrace_verify_by(reader, 1, &info); });
    expect_failure(QTRACE_ITEM_ERROR, [](QTRACE_Reader *reader) { return qtrace_next(reader, nullptr); });
}

TEST_F(short_memory, opens_nothing_and_says_why)
{
    write_some();
    for (const bool with_index : {false, true}) {
        char *error = nullptr;
        size_t failures = 0;
        each_failure(
            [&] {
                error = nullptr;
                QTRACE_Reader *const reader = with_index ? nullptr : qtrace_open(name_.c_str(), &error);
                QTRACE_Index *const index = with_index ? qtrace_index_open(name_.c_str(), &error) : nullptr;
                qtrace_close(reader);
                qtrace_index_close(index);
                return reader != nullptr || index != nullptr;
            },
            [&](bool opened) {
                EXPECT_FALSE(opened);
                EXPECT_EQ(std::string(error != nullptr ? error : ""), name_ + ": out of memory");
                free(error);
                ++failures;
            });
        EXPECT_GT(failures, 0u);
    }
}

TEST_F(short_memory, gives_nothing_of_an_index)
{
    write_some();
    QTRACE_Index *index = nullptr;
    uint64_t count = 7;
    each_failure(
        [&] {
            const uint64_t allocation = std::exchange(until_failure, NEVER);
            qtrace_index_close(index);
            index = qtrace_index_open(name_.c_str(), nullptr);
            count = 7;
            until_failure = allocation;
            return qtrace_index_blocks(index, &count);
        },
        [&](const QTRACE_Block *blocks) {
            EXPECT_EQ(blocks, nullptr);
            EXPECT_EQ(count, 0u);
        });
    EXPECT_EQ(count, 1u);
    each_failure(
        [&] {
            QTRACE_Reader *const reader = qtrace_open_with_index(index);
            qtrace_close(reader);
            return reader;
        },
        [](const QTRACE_Reader *reader) { EXPECT_EQ(reader, nullptr); });
    qtrace_index_close(index);
}

TEST_F(short_memory, fails_recoveries_and_says_why)
{
    write_some();
    const std::string saved = name_ + ".saved";
    char *error = nullptr;
    size_t failures = 0;
    each_failure(
        [&] {
            error = nullptr;
            QTRACE_Recovery recovered;
            return qtrace_recover(name_.c_str(), saved.c_str(), &recovered, &error);
        },
        [&](int failed) {
            EXPECT_EQ(failed, -1);
            EXPECT_TRUE(std::string(error != nullptr ? error : "").ends_with("out of memory"));
            free(error);
            ++failures;
        });
    EXPECT_GT(failures, 0u);
}

TEST_F(short_memory, fails_cuts_and_says_why)
{
    write_some();
    QTRACE_Cut part{};
    part.from = 10;
    part.most = 50;
    part.write = [](void *, const void *, size_t) { return 0; };
    char *error = nullptr;
    size_t failures = 0;
    each_failure(
        [&] {
            error = nullptr;
            QTRACE_Cut_Result kept;
            return qtrace_cut(name_.c_str(), &part, &kept, &error);
        },
        [&](int failed) {
            EXPECT_EQ(failed, -1);
            EXPECT_EQ(std::string(error != nullptr ? error : ""), name_ + ": out of memory");
            free(error);
            ++failures;
        });
    EXPECT_GT(failures, 1u);
}

TEST_F(short_memory, fills_no_columns_and_makes_no_table)
{
    write_some();
    each_failure(
        [] {
            QTRACE_Translations *const table = qtrace_translations_new();
            qtrace_translations_free(table);
            return table != nullptr;
        },
        [](bool made) { EXPECT_FALSE(made); });
    std::vector<uint32_t> translations(100), numbers(1);
    QTRACE_Columns columns{};
    columns.which = QTRACE_COLUMN_DATA_TRANSLATION;
    columns.data_translation = translations.data();
    Reader last = reader();
    QTRACE_Translations *table = nullptr;
    size_t failures = 0;
    each_failure(
        [&] {
            const uint64_t allocation = std::exchange(until_failure, NEVER);
            last = reader();
            qtrace_translations_free(table);
            columns.translations = table = qtrace_translations_new();
            columns.rows = 7;
            until_failure = allocation;
            return qtrace_read_columns(last.get(), 100, &columns, nullptr);
        },
        [&](QTRACE_ITEM kind) {
            EXPECT_EQ(kind, QTRACE_ITEM_ERROR);
            EXPECT_EQ(columns.rows, 0u);
            ++failures;
        });
    EXPECT_GT(failures, 0u);
    numbers.resize(qtrace_translations_count(table));
    ASSERT_GT(numbers.size(), 1u);
    QTRACE_Translations *merged = nullptr;
    failures = 0;
    each_failure(
        [&] {
            const uint64_t allocation = std::exchange(until_failure, NEVER);
            qtrace_translations_free(merged);
            merged = qtrace_translations_new();
            until_failure = allocation;
            return qtrace_translations_merge(merged, table, numbers.data());
        },
        [&](int failed) {
            EXPECT_EQ(failed, -1);
            ++failures;
        });
    EXPECT_GT(failures, 0u);
    qtrace_translations_free(merged);
    qtrace_translations_free(table);
}

} // namespace
