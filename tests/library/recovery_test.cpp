// Recovery under bad conditions: the output is complete or as it was before, whatever the input and the disk do. Opening,
// reading and writing are intercepted at link time.
#include "block_format.h"
#include "replacement_file.h"
#include "trace_file_fixture.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>

namespace
{

// Called before every read; what it returns becomes the read's errno, 0 lets it through.
std::function<int()> before_read;

} // namespace

extern "C" ssize_t __real_pread(int file, void *to, size_t size, off_t offset);
extern "C" ssize_t __wrap_pread(int file, void *to, size_t size, off_t offset)
{
    const int error = before_read ? before_read() : 0;
    if (error == 0)
        return __real_pread(file, to, size, offset);
    errno = error;
    return -1;
}

// The same of every write, and of every file that is opened.
namespace
{

std::function<int()> before_write, before_open;

} // namespace

extern "C" ssize_t __real_write(int file, const void *from, size_t size);
extern "C" ssize_t __wrap_write(int file, const void *from, size_t size)
{
    const int error = before_write ? before_write() : 0;
    if (error == 0)
        return __real_write(file, from, size);
    errno = error;
    return -1;
}

extern "C" int __real_open(const char *name, int flags, mode_t mode);
extern "C" int __wrap_open(const char *name, int flags, mode_t mode)
{
    const int error = before_open ? before_open() : 0;
    if (error == 0)
        return __real_open(name, flags, mode);
    errno = error;
    return -1;
}

namespace
{

class recovery : public trace_file
{
protected:
    recovery() : saved_(folder_ / "saved") {}
    ~recovery() override { before_read = before_write = before_open = nullptr; }

    // Three damaged places in a file of some blocks.
    void write_damaged()
    {
        setenv("QTRACE_COMPRESSION", "none", 1);
        write_plausible(36'000);
        const std::vector<uint64_t> at = block_offsets();
        ASSERT_GT(at.size(), 5u);
        damaged_ = bytes();
        damaged_[at[1]] ^= 1;
        damaged_[at[3] + 100] ^= 1;
        put_bytes(damaged_);
    }
    int recover() { return recover(name_, saved_); }
    int recover(const std::string &from, const std::string &to)
    {
        char *text = nullptr;
        const int failed = qtrace_recover(from.c_str(), to.c_str(), &result_, &text);
        error_ = text != nullptr ? text : "";
        free(text);
        return failed;
    }
    static std::string contents(const std::filesystem::path &file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    size_t files() const
    {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder_), {}));
    }

    const std::filesystem::path saved_;
    std::string damaged_;
    QTRACE_Recovery result_{};
    std::string error_;
};

TEST_F(recovery, onto_a_full_disk_leaves_what_was_there)
{
    write_damaged();
    std::ofstream(saved_) << "precious";
    {
        const Small_Disk disk(100'000);
        EXPECT_EQ(recover(), -1);
    }
    EXPECT_EQ(error_, saved_.string() + ": write: File too large");
    EXPECT_TRUE(contents(saved_) == "precious");
    EXPECT_EQ(files(), 2u);
}

TEST_F(recovery, replaces_the_file_that_a_link_names_and_keeps_its_permissions)
{
    write_damaged();
    const auto target = folder_ / "target";
    std::ofstream(target) << "old";
    std::filesystem::permissions(target, std::filesystem::perms{0640});
    std::filesystem::create_symlink("target", saved_);
    ASSERT_EQ(recover(), 0) << error_;
    EXPECT_TRUE(std::filesystem::is_symlink(saved_));
    EXPECT_EQ(std::filesystem::status(target).permissions(), std::filesystem::perms{0640});
    EXPECT_TRUE(read(target.string()).damages.empty());
    EXPECT_EQ(files(), 3u);
}

TEST_F(recovery, writes_to_a_device_without_replacing_it)
{
    write_damaged();
    EXPECT_EQ(recover(name_, "/dev/null"), 0) << error_;
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    EXPECT_EQ(recover(name_, "/dev/full"), -1);
    EXPECT_EQ(error_, "/dev/full: write: No space left on device");
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
}

TEST_F(recovery, of_nothing_says_so_without_a_place)
{
    EXPECT_EQ(recover(name_ + ".none", saved_), -1);
    EXPECT_EQ(error_, name_ + ".none: No such file or directory");
    EXPECT_EQ(recover(folder_.string(), saved_), -1);
    EXPECT_EQ(error_, folder_.string() + ": Is a directory");
    write_damaged();
    EXPECT_EQ(recover(name_, name_), -1);
    EXPECT_TRUE(bytes() == damaged_);
    EXPECT_EQ(recover(name_, (folder_ / "none" / "saved").string()), -1);
    EXPECT_EQ(error_, (folder_ / "none" / "saved").string() + ": open: No such file or directory");
    EXPECT_EQ(files(), 1u);
}

TEST_F(recovery, finds_whole_blocks_after_a_destroyed_first_mebibyte)
{
    write_damaged();
    const uint64_t third = block_offsets()[1], junk = (1 << 20) + 12'345;
    put_bytes(std::string(junk, '\x8B') + damaged_.substr(third));
    ASSERT_EQ(recover(), 0) << error_;
    EXPECT_GT(result_.lost_bytes, junk);
    EXPECT_EQ(result_.damaged_places, 2u);
    EXPECT_GT(result_.records, 1'000u);
    EXPECT_TRUE(read(saved_.string()).damages.empty());
}

// The first file ends inside a block and another follows, whose numbers begin anew: nobody knows how much was in it.
TEST_F(recovery, of_a_loss_of_unknown_size_and_a_known_one_is_of_unknown_size)
{
    write_damaged();
    const std::vector<uint64_t> at = block_offsets();
    const std::string whole = bytes();
    std::string broken = whole;
    broken[at[2] + 100] ^= 1;
    put_bytes(broken);
    ASSERT_EQ(recover(), 0) << error_;
    EXPECT_EQ(result_.lost_records_known, 1);
    put_bytes(whole.substr(0, whole.size() - 100) + broken.substr(16));
    ASSERT_EQ(recover(), 0) << error_;
    EXPECT_EQ(result_.lost_records_known, 0);
}

TEST_F(recovery, adds_up_what_was_kept_and_what_was_lost)
{
    write_damaged();
    const Contents damaged = read();
    ASSERT_EQ(damaged.damages.size(), 2u);
    const QTRACE_Discontinuity &first = damaged.damages[0], &second = damaged.damages[1];
    const mode_t before = umask(0027);
    ASSERT_EQ(recover(), 0) << error_;
    umask(before);
    EXPECT_EQ(result_.damaged_places, 2u);
    EXPECT_EQ(result_.lost_bytes, first.bytes + second.bytes);
    EXPECT_EQ(result_.lost_records, first.records + second.records);
    EXPECT_EQ(result_.lost_records_known, 1);
    EXPECT_EQ(result_.open_end, 0);
    std::filesystem::rename(saved_, name_);
    EXPECT_EQ(result_.blocks, verified().blocks);
    EXPECT_EQ(result_.records, read().records());
    EXPECT_EQ(result_.headers, 1u);
    EXPECT_EQ(std::filesystem::status(name_).permissions(), std::filesystem::perms{0640});
}

TEST_F(recovery, of_bytes_after_the_last_block_loses_no_record)
{
    write_plausible(100);
    put_bytes(bytes() + "garbage");
    ASSERT_EQ(recover(), 0) << error_;
    EXPECT_EQ(result_.damaged_places, 1u);
    EXPECT_EQ(result_.lost_bytes, 7u);
    EXPECT_EQ(result_.lost_records, 0u);
    EXPECT_EQ(result_.lost_records_known, 1);
    EXPECT_EQ(result_.open_end, 0);
}

// The lowest descriptor is what a file gets where standard input is closed.
TEST_F(recovery, replaces_a_file_by_any_descriptor_and_gives_it_back)
{
    const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
    ::close(STDIN_FILENO);
    for (const bool complete : {false, true}) {
        trace::Replacement_File file(saved_.c_str());
        EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
        file.write("new", 3);
        if (complete)
            file.commit();
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    {
        trace::Replacement_File device("/dev/null");
        EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    ASSERT_EQ(dup2(input, STDIN_FILENO), STDIN_FILENO);
    ::close(input);
    EXPECT_EQ(contents(saved_), "new");
    EXPECT_EQ(files(), 1u);
}

TEST_F(recovery, leaves_files_alone_whose_names_it_would_have_used)
{
    const std::string taken = saved_.string() + ".new" + std::to_string(getpid()) + "-0";
    std::ofstream(taken) << "mine";
    {
        trace::Replacement_File file(saved_.c_str());
        file.write("new", 3);
        file.commit();
    }
    EXPECT_EQ(contents(saved_), "new");
    EXPECT_EQ(contents(taken), "mine");
    EXPECT_EQ(files(), 2u);
}

TEST_F(recovery, marks_where_one_file_follows_another)
{
    write_plausible(100);
    put_bytes(bytes() + bytes().substr(16));
    ASSERT_EQ(recover(), 0) << error_;
    const Contents contents = read(saved_.string());
    EXPECT_EQ(contents.records(), 200u);
    EXPECT_TRUE(contents.damages.empty());
    ASSERT_EQ(contents.wanted.size(), 1u);
    EXPECT_EQ(contents.wanted[0].cause, QTRACE_CAUSE_LEFT_OUT);
}

TEST_F(recovery, is_not_stopped_by_interrupted_reads)
{
    write_damaged();
    unsigned reads = 0;
    before_read = [&reads] { return ++reads % 3 == 0 ? 0 : EINTR; };
    ASSERT_EQ(recover(), 0) << error_;
    EXPECT_GT(reads, 10u);
    EXPECT_TRUE(read(saved_.string()).damages.empty());
}

TEST_F(recovery, is_not_stopped_by_interrupted_writes_and_openings)
{
    write_damaged();
    unsigned writes = 0, opened = 0;
    before_write = [&writes] { return ++writes % 3 == 0 ? 0 : EINTR; };
    before_open = [&opened] { return ++opened % 3 == 0 ? 0 : EINTR; };
    ASSERT_EQ(recover(), 0) << error_;
    EXPECT_EQ(opened, 6u) << "of both files";
    EXPECT_GT(writes, 10u);
    before_write = before_open = nullptr;
    EXPECT_TRUE(read(saved_.string()).damages.empty());
}

TEST_F(recovery, is_stopped_by_any_other_error_at_once)
{
    write_damaged();
    unsigned calls = 0;
    before_write = [&calls] { return ++calls, EIO; };
    EXPECT_EQ(recover(), -1);
    EXPECT_EQ(error_, saved_.string() + ": write: Input/output error");
    EXPECT_EQ(calls, 1u);
    before_write = nullptr;
    for (const unsigned failing : {1, 2}) {
        calls = 0;
        before_open = [&] { return ++calls == failing ? EMFILE : 0; };
        EXPECT_EQ(recover(), -1);
        EXPECT_EQ(error_, (failing == 1 ? name_ : saved_.string() + ": open") + ": Too many open files");
        EXPECT_EQ(calls, failing);
    }
}

class interrupted_writer : public recovery
{
};

TEST_F(interrupted_writer, makes_a_whole_trace)
{
    unsigned writes = 0, opened = 0;
    before_write = [&writes] { return ++writes % 20 == 0 ? 0 : EINTR; };
    before_open = [&opened] { return ++opened % 20 == 0 ? 0 : EINTR; };
    write_plausible(9'000);
    EXPECT_EQ(opened, 20u);
    before_write = before_open = nullptr;
    EXPECT_TRUE(read().items == written_);
    EXPECT_TRUE(verified().clean_end);
}

TEST_F(interrupted_writer, gives_up_when_it_is_interrupted_for_ever_and_after_any_other_error)
{
    for (const bool opening : {true, false})
        for (const auto &[error, most] : {std::pair{EINTR, 1'000u}, {EIO, 1u}}) {
            unsigned calls = 0;
            (opening ? before_open : before_write) = [&] { return ++calls, error; };
            EXPECT_EQ(open(), -1);
            EXPECT_EQ(qtrace_writer_error(), name_ + (opening ? ": open: " : ": write: ") + std::strerror(error));
            EXPECT_LE(calls, most);
            before_open = before_write = nullptr;
        }
}

TEST_F(recovery, with_a_failing_read_fails_and_leaves_what_was_there)
{
    write_damaged();
    std::ofstream(saved_) << "precious";
    for (unsigned failing = 0;; ++failing) {
        unsigned reads = 0;
        before_read = [&] { return reads++ == failing ? EIO : 0; };
        if (recover() == 0) {
            EXPECT_EQ(reads, failing) << "a failed read went unnoticed";
            break;
        }
        ASSERT_NE(error_.find("Input/output error"), std::string::npos) << error_;
        ASSERT_TRUE(contents(saved_) == "precious") << failing;
        ASSERT_EQ(files(), 2u);
    }
}

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
