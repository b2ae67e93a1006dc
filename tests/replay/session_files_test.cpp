// Which files the words of a plugin command would create, and when that is refused. No plugin is involved here.

#include "session_files.h"

#include "host.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace replay;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

namespace fs = std::filesystem;

constexpr unsigned SHORT_NAMES =
    450; // the option that takes the last character off names on a machine of one thread

struct Files_Of_A_Session : testing::Test {
    Files_Of_A_Session()
    {
        fs::create_directories(folder);
        machine(1, 2);
    }
    ~Files_Of_A_Session() override { fs::remove_all(folder); }

    static void machine(uint32_t processors, uint32_t threads, std::vector<unsigned> options = {})
    {
        host().reset({processors, threads, 0, 0, std::move(options)});
    }

    std::string in_folder(const std::string &name) const { return folder / name; }
    void create(const std::string &name) const { std::ofstream(in_folder(name)) << "old"; }

    // What stands after `start`: words that begin with / are names in the folder.
    std::string start(std::vector<std::string> words, Session_Files &of) const
    {
        for (std::string &word : words)
            if (word[0] == '/')
                word = in_folder(word.substr(1));
        words.insert(words.begin(), "start");
        return of.prepare(words);
    }
    std::string start(const std::vector<std::string> &words) { return start(words, files); }

    std::string refused(const std::string &name, const std::string &role) const
    {
        return in_folder(name) + " is " + role + "; it is not written over";
    }
    std::string taken(const std::string &name) const
    {
        return in_folder(name) + " is being written by another replay host";
    }

    const fs::path folder = fs::temp_directory_path() / ("session_files_test_" + std::to_string(getpid()));
    Session_Files files;
};

// No file or socket can be opened as long as one lives.
struct No_More_Descriptors {
    rlimit before{};
    No_More_Descriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none{0, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~No_More_Descriptors() { setrlimit(RLIMIT_NOFILE, &before); }
};

size_t open_descriptors()
{
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

} // namespace

TEST_F(Files_Of_A_Session, words_that_write_no_file_are_allowed)
{
    create("warm");
    files.protect(in_folder("warm"), "a role");
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {}, {"start"}, {"warm"}, {"stop"}, {"pause", in_folder("warm")}, {"stop", in_folder("warm")}})
        EXPECT_EQ(files.prepare(words), "");
    EXPECT_EQ(files.prepare({"WARM", in_folder("warm")}), refused("warm", "a role"));
    EXPECT_EQ(files.prepare({"warm", in_folder("other")}), "");
}

TEST_F(Files_Of_A_Session, every_threads_file_is_looked_at)
{
    create("t1");
    files.protect(in_folder("t1"), "a role");
    EXPECT_EQ(start({"/t"}), refused("t1", "a role"));
    machine(1, 1);
    EXPECT_EQ(start({"/t"}), "");
}

TEST_F(Files_Of_A_Session, later_pair_replaces_an_earlier_one)
{
    for (const char *name : {"a0", "b1", "c0", "d1"})
        create(name);
    files.protect(in_folder("a0"), "A");
    files.protect(in_folder("b1"), "B");
    files.protect(in_folder("c0"), "C");
    files.protect(in_folder("d1"), "D");
    EXPECT_EQ(start({"/t", "pte", "/a", "txt", "/b", "pte", "/x", "TXT", "/y"}), "");
    EXPECT_EQ(start({"/t", "pte", "/x", "txt", "/y", "PTEs", "/a"}), refused("a0", "A"));
    EXPECT_EQ(start({"/t", "txt", "/x", "pte", "/y", "txt_file", "/b"}), refused("b1", "B"));
    EXPECT_EQ(start({"/t", "/c", "word", "/d"}), ""); // no pairs
    EXPECT_EQ(start({"/t", "txt"}), "");
    EXPECT_EQ(start({"/t", "pt", "/c"}), "");
    EXPECT_EQ(start({"/t", "tx", "/c"}), "");
    EXPECT_EQ(start({"txt", "/c"}), ""); // the first word is the trace's name, whatever it is
    EXPECT_EQ(start({"/t", "txt", "/x", "/c", "pte"}), "");
}

TEST_F(Files_Of_A_Session, two_families_may_not_share_a_file)
{
    EXPECT_EQ(start({"/t", "txt", "/t"}), refused("t0", "the trace of this session"));
    EXPECT_EQ(start({"/t", "pte", "/t"}), refused("t0", "the trace of this session"));
    EXPECT_EQ(start({"/t", "txt", "/x", "pte", "/x"}), refused("x0", "the text trace of this session"));
    EXPECT_EQ(start({"/t", "txt", "/x", "pte", "/y"}), "");
}

TEST_F(Files_Of_A_Session, devices_and_pipes_may_be_shared_and_are_not_locked)
{
    for (const char *name : {"t0", "t1"})
        ASSERT_EQ(mkfifo(in_folder(name).c_str(), 0600), 0);
    EXPECT_EQ(start({"/t", "txt", "/t"}), "");
    Session_Files others;
    EXPECT_EQ(start({"/t"}, others), "");
    files.protect("/dev/null", "a role");
    EXPECT_EQ(files.prepare({"warm", "/dev/null"}), "");
}

TEST_F(Files_Of_A_Session, open_session_protects_its_files_and_a_closed_one_does_not)
{
    EXPECT_EQ(start({"/t", "txt", "/x"}), "");
    create("t1");
    create("x0");
    files.opened();
    EXPECT_EQ(files.prepare({"warm", in_folder("t1")}), refused("t1", "the trace of this session"));
    EXPECT_EQ(files.prepare({"warm", in_folder("x0")}), refused("x0", "the text trace of this session"));
    files.release();
    EXPECT_EQ(files.prepare({"warm", in_folder("t1")}), "");
    files.opened(); // there is nothing that could have been opened
    EXPECT_EQ(files.prepare({"warm", in_folder("t1")}), "");
}

TEST_F(Files_Of_A_Session, one_host_at_a_time_writes_files_of_a_name)
{
    Session_Files others;
    EXPECT_EQ(start({"/t", "txt", "/x"}), "");
    const size_t descriptors = open_descriptors();
    EXPECT_EQ(start({"/t"}, others), taken("t0"));
    EXPECT_EQ(start({"/other", "pte", "/x"}, others), taken("x0"));
    EXPECT_EQ(open_descriptors(), descriptors); // what was refused is given back
    EXPECT_TRUE(fs::is_empty(folder));
    EXPECT_EQ(start({"/u"}, others), "");
    files.release();
    EXPECT_EQ(start({"/t", "txt", "/x"}, others), "");
    EXPECT_EQ(start({"/t"}), taken("t0"));
}

TEST_F(Files_Of_A_Session, lock_may_have_any_descriptor)
{
    Session_Files others;
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO); // number 0 is the next one
    const std::string first = start({"/t"});
    const int lock = dup2(STDIN_FILENO, STDIN_FILENO);
    const std::string refused_to_others = start({"/t"}, others);
    files.release();
    const int released = dup2(STDIN_FILENO, STDIN_FILENO);
    dup2(kept, STDIN_FILENO);
    close(kept);
    EXPECT_EQ(first, "");
    EXPECT_EQ(lock, STDIN_FILENO);
    EXPECT_EQ(refused_to_others, taken("t0"));
    EXPECT_EQ(released, -1);
}

TEST_F(Files_Of_A_Session, refused_lock_gives_back_any_descriptor)
{
    Session_Files others;
    EXPECT_EQ(start({"/t"}), "");
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    const std::string refusal = start({"/t"}, others);
    const int given_back = dup2(STDIN_FILENO, STDIN_FILENO);
    dup2(kept, STDIN_FILENO);
    close(kept);
    EXPECT_EQ(refusal, taken("t0"));
    EXPECT_EQ(given_back, -1);
}

TEST_F(Files_Of_A_Session, what_cannot_be_locked_is_left_to_the_plugin)
{
    const No_More_Descriptors none;
    EXPECT_EQ(start({"/t"}), "");
}

TEST_F(Files_Of_A_Session, error_of_a_call_before_is_none_of_the_lock)
{
    create("t0");
    errno = EADDRINUSE;
    EXPECT_EQ(start({"/t"}), "");
}

TEST_F(Files_Of_A_Session, same_name_in_another_folder_is_another_file)
{
    fs::create_directories(folder / "below");
    Session_Files others;
    EXPECT_EQ(start({"/t"}), "");
    EXPECT_EQ(start({"/below/t"}, others), "");
    EXPECT_EQ(start({"/none/t"}, others), ""); // the plugin says that the folder is missing
}

TEST_F(Files_Of_A_Session, next_start_keeps_the_locks_that_it_needs_and_gives_back_the_others)
{
    Session_Files others;
    EXPECT_EQ(start({"/t", "txt", "/x"}), "");
    EXPECT_EQ(start({"/y", "txt", "/t"}), "");
    EXPECT_EQ(start({"/t"}, others), taken("t0"));
    EXPECT_EQ(start({"/y"}, others), taken("y0"));
    EXPECT_EQ(start({"/x"}, others), "");
}

TEST_F(Files_Of_A_Session, end_of_the_host_gives_back_its_locks)
{
    {
        Session_Files others;
        EXPECT_EQ(start({"/t"}, others), "");
        EXPECT_EQ(start({"/t"}), taken("t0"));
    }
    EXPECT_EQ(start({"/t"}), "");
}

TEST_F(Files_Of_A_Session, refused_start_leaves_the_session_before_it_alone)
{
    Session_Files others;
    EXPECT_EQ(start({"/x"}, others), "");
    EXPECT_EQ(start({"/t"}), "");
    EXPECT_EQ(start({"/free", "txt", "/x"}), taken("x0"));
    EXPECT_EQ(start({"/free"}, others), "");
    EXPECT_EQ(start({"/t"}, others), taken("t0"));
}

TEST_F(Files_Of_A_Session, names_lose_their_end_on_a_machine_of_one_thread_with_that_option_only)
{
    machine(1, 1, {SHORT_NAMES});
    EXPECT_EQ(start({"/same1", "txt", "/same2"}), refused("same", "the trace of this session"));
    for (const auto &[processors, threads] : {std::pair(1U, 2U), {2U, 1U}}) {
        machine(processors, threads, {SHORT_NAMES});
        EXPECT_EQ(start({"/same1", "txt", "/same2"}), "");
    }
    machine(1, 1, {SHORT_NAMES + 1});
    EXPECT_EQ(start({"/same1", "txt", "/same2"}), "");
    EXPECT_EQ(start({"/same", "txt", "/same"}), refused("same0", "the trace of this session"));
}

TEST_F(Files_Of_A_Session, older_files_of_further_threads_are_listed_in_their_order)
{
    for (const char *name : {"t0", "t1", "t2", "t10", "t02", "t3x", "t", "x2", "y7", "u3"})
        create(name);
    EXPECT_EQ(start({"/t", "pte", "/x"}), "");
    EXPECT_THAT(files.older_files(), ElementsAre(in_folder("t2"), in_folder("t10"), in_folder("x2")));
    EXPECT_EQ(start({"/none/t"}), "");
    EXPECT_THAT(files.older_files(), IsEmpty());
    machine(1, 1, {SHORT_NAMES});
    EXPECT_EQ(start({"/tt"}), "");
    EXPECT_EQ(start({"/t"}), "");
    EXPECT_THAT(files.older_files(), IsEmpty());
}
