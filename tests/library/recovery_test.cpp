// Recovery under bad conditions: the output is complete or as it was before, whatever the input and the disk do. Opening,
// reading and writing are intercepted at link time.
#include "recovery_fixture.h"

#include <system_error>

namespace
{

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

TEST_F(recovery, makes_a_new_file_with_the_permissions_that_the_process_gives)
{
    write_plausible(10);
    const mode_t previous = umask(0027);
    EXPECT_EQ(recover(), 0) << error_;
    umask(0);
    EXPECT_EQ(recover(name_, saved_.string() + ".2"), 0) << error_;
    umask(previous);
    EXPECT_EQ(std::filesystem::status(saved_).permissions(), std::filesystem::perms{0640});
    EXPECT_EQ(std::filesystem::status(saved_.string() + ".2").permissions(), std::filesystem::perms{0666});
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

TEST_F(recovery, takes_what_comes_of_reads_and_writes_in_pieces)
{
    write_damaged();
    ASSERT_EQ(recover(), 0) << error_;
    const std::string expected = contents(saved_);
    most_at_once = 33;
    ASSERT_EQ(recover(), 0) << error_;
    most_at_once = SIZE_MAX;
    EXPECT_TRUE(contents(saved_) == expected);
}

TEST_F(recovery, onto_itself_is_refused_by_any_name)
{
    write_plausible(10);
    const std::string before = bytes(), other = name_ + ".other";
    std::filesystem::create_hard_link(name_, other);
    for (const std::string &to : {name_, other}) {
        EXPECT_EQ(recover(name_, to), -1);
        EXPECT_EQ(error_, to + ": is the damaged file itself");
    }
    EXPECT_TRUE(bytes() == before);
}

// What a file with another name is left with where the old one cannot be replaced by it.
TEST_F(recovery, whose_file_cannot_be_closed_or_renamed_fails_and_leaves_nothing)
{
    const auto failure_of = [&](const std::function<void()> &spoil) -> std::string {
        trace::Replacement_File file(saved_.c_str());
        file.write("new", 3);
        spoil();
        try {
            file.commit();
        } catch (const std::system_error &failure) {
            return failure.what();
        }
        return "no failure";
    };
    const int next = dup(STDERR_FILENO); // what a file gets that is opened now
    ::close(next);
    EXPECT_EQ(failure_of([next] { ::close(next); }), saved_.string() + ": close: Bad file descriptor");
    EXPECT_EQ(files(), 0u);
    EXPECT_EQ(failure_of([&] { std::filesystem::create_directory(saved_); }),
              saved_.string() + ": rename: Is a directory");
    EXPECT_EQ(files(), 1u);
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

} // namespace
