// A file that something else changes at any moment of its recovery, or of its reading.
#include "recovery_fixture.h"

namespace
{

// Something else writes to the file at any moment of the recovery.
TEST_F(recovery, of_a_file_that_changes_copies_whole_blocks_or_nothing)
{
    write_damaged();
    ASSERT_EQ(recover(), 0);
    const std::string expected = contents(saved_);
    const std::string longer = damaged_ + damaged_.substr(16);
    std::string other = damaged_;
    for (const uint64_t block : block_offsets())
        other[block + 80] ^= 4;
    std::string renumbered = damaged_; // whole blocks of another trace
    for (const uint64_t block : block_offsets()) {
        auto *const at = reinterpret_cast<uint8_t *>(&renumbered[block]);
        if (std::optional<trace::Block_Header> header = trace::load_block_header(at)) {
            header->first_record += 1'000;
            trace::store_block_header(*header, at);
        }
    }
    const std::string none(damaged_.size(), 0);
    for (const std::string &later : {longer, other, renumbered, none, damaged_.substr(0, damaged_.size() / 2)}) {
        bool reached = true;
        for (unsigned change = 0; reached; ++change) {
            put_bytes(damaged_);
            std::ofstream(saved_) << "precious";
            unsigned reads = 0;
            before_read = [&] {
                if (reads++ == change)
                    put_bytes(later);
                return 0;
            };
            const bool failed = recover() != 0;
            before_read = nullptr;
            reached = reads > change;
            if (failed) {
                ASSERT_TRUE(contents(saved_) == "precious") << change;
                continue;
            }
            ASSERT_TRUE(read(saved_.string()).damages.empty()) << change;
            if (later == longer) {
                ASSERT_TRUE(contents(saved_) == expected) << change;
            }
        }
    }
}

// The same for a reader: at any moment of the reading the file grows, shrinks or changes.
TEST_F(recovery, reading_a_file_that_changes_gives_nothing_that_was_not_written)
{
    setenv("QTRACE_COMPRESSION", "none", 1);
    write_plausible(9'000);
    const std::string whole = bytes();
    std::string other = whole;
    for (const uint64_t block : block_offsets())
        other[block + 80] ^= 4;
    const std::pair<std::string, bool> changes[] = {{whole + whole.substr(16), true},           {whole + "x", true},
                                                    {whole.substr(0, whole.size() / 2), false}, {"", false},
                                                    {std::string(whole.size(), 0), false},      {other, false}};
    for (const auto &[later, grows] : changes) {
        size_t damaged = 0;
        for (unsigned change = 1;; ++change) { // the first read is that of the file's beginning
            put_bytes(whole);
            unsigned reads = 0;
            before_read = [&] {
                if (reads++ == change)
                    put_bytes(later);
                return 0;
            };
            const Contents contents = read();
            before_read = nullptr;
            ASSERT_TRUE(contents.opened);
            expect_subset(contents);
            damaged += !contents.damages.empty();
            if (grows || contents.damages.empty()) {
                EXPECT_TRUE(contents.items == written_) << change;
            }
            if (reads <= change)
                break;
        }
        EXPECT_EQ(damaged > 0, !grows);
    }
}

} // namespace
