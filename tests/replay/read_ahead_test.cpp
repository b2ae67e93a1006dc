// Reading a stream on a thread of its own: the same events, positions and errors, and no waiting that does not end.

#include "read_ahead.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace replay;

namespace
{

const std::string MACHINE = "{\"t\":\"machine\",\"processors\":1,\"threads\":2}\n";

std::string commit(uint64_t seq)
{
    return R"({"t":"commit","tid":)" + std::to_string(seq % 2) + R"(,"seq":)" + std::to_string(seq) +
           R"(,"text":")" + std::string(seq % 300, 'x') + "\"}\n";
}

struct Reading_Ahead : testing::Test {
    ~Reading_Ahead() override { std::filesystem::remove(file); }

    // Reads on while somebody writes.
    int make_fifo() const
    {
        EXPECT_EQ(mkfifo(file.c_str(), 0600), 0);
        return open(file.c_str(), O_RDWR | O_CLOEXEC);
    }

    static void put(int writer, const std::string &text)
    {
        ASSERT_EQ(write(writer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    // Of this process.
    static size_t threads()
    {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                                 std::filesystem::directory_iterator()));
    }

    std::thread stop_soon()
    {
        return std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            stop.request();
        });
    }

    const std::string file =
        std::filesystem::temp_directory_path() / ("read_ahead_test_" + std::to_string(getpid()));
    Stop_Request stop;
};

} // namespace

TEST_F(Reading_Ahead, gives_every_event_with_its_own_line)
{
    std::ofstream out(file);
    out << MACHINE;
    for (uint64_t seq = 1; seq <= 5000; ++seq)
        out << commit(seq) << (seq % 7 == 0 ? "\n" : "");
    out.close();
    Read_Ahead ahead(file, stop);
    Stream_Reader alone(file);
    size_t events = 0;
    while (const Stream_Event *expected = alone.next()) {
        const Stream_Event *event = ahead.next();
        ASSERT_NE(event, nullptr);
        ASSERT_EQ(event->kind, expected->kind);
        ASSERT_EQ(event->instruction.seq, expected->instruction.seq);
        ASSERT_EQ(event->instruction.tid, expected->instruction.tid);
        ASSERT_EQ(event->instruction.text, expected->instruction.text);
        ASSERT_EQ(ahead.line_number(), alone.line_number());
        ASSERT_EQ(ahead.bytes_used(), alone.bytes_used());
        ++events;
    }
    EXPECT_EQ(events, 5001u);
    EXPECT_EQ(ahead.next(), nullptr);
    EXPECT_FALSE(ahead.error());
    EXPECT_EQ(ahead.next(), nullptr);
    EXPECT_EQ(ahead.input_size(), std::filesystem::file_size(file));
}

TEST_F(Reading_Ahead, refused_line_ends_it_after_all_events_before)
{
    for (const uint64_t good : {0, 1, 15, 16, 17, 100}) {
        std::ofstream out(file);
        out << MACHINE;
        for (uint64_t seq = 1; seq <= good; ++seq)
            out << commit(seq);
        out << "{\"t\":\"pre\",\"tid\":2}\n" << commit(good + 1);
        out.close();
        Read_Ahead ahead(file, stop);
        for (uint64_t event = 0; event <= good; ++event) {
            ASSERT_NE(ahead.next(), nullptr);
            ASSERT_FALSE(ahead.error());
            ASSERT_EQ(ahead.line_number(), event + 1);
        }
        EXPECT_EQ(ahead.next(), nullptr);
        ASSERT_TRUE(ahead.error());
        EXPECT_EQ(ahead.error()->text(), "line " + std::to_string(good + 2) +
                                             ": key \"tid\": expected a hardware thread from 0 to 1, found 2");
        EXPECT_EQ(ahead.line_number(), good + 2);
        EXPECT_EQ(ahead.next(), nullptr);
    }
}

TEST_F(Reading_Ahead, missing_file_is_an_error_at_once)
{
    Read_Ahead ahead("/nowhere/stream", stop);
    ASSERT_TRUE(ahead.error());
    EXPECT_EQ(ahead.error()->text(), "No such file or directory");
    EXPECT_EQ(ahead.next(), nullptr);
}

TEST_F(Reading_Ahead, events_that_are_there_do_not_wait_for_the_next)
{
    const int writer = make_fifo();
    put(writer, MACHINE);
    Read_Ahead ahead(file, stop);
    ASSERT_NE(ahead.next(), nullptr);
    for (uint64_t seq = 1; seq <= 100; ++seq) {
        put(writer, commit(seq));
        const Stream_Event *event = ahead.next();
        ASSERT_NE(event, nullptr);
        ASSERT_EQ(event->instruction.seq, seq);
    }
    close(writer);
}

TEST_F(Reading_Ahead, stopped_waiting_is_continued_without_a_loss)
{
    const int writer = make_fifo();
    put(writer, MACHINE + commit(1));
    Read_Ahead ahead(file, stop);
    ASSERT_NE(ahead.next(), nullptr);
    ASSERT_NE(ahead.next(), nullptr);
    for (uint64_t seq = 2; seq <= 5; ++seq) {
        std::thread other = stop_soon();
        EXPECT_EQ(ahead.next(), nullptr);
        EXPECT_FALSE(ahead.error());
        EXPECT_EQ(ahead.next(), nullptr);
        other.join();
        stop.forget();
        put(writer, commit(seq));
        const Stream_Event *event = ahead.next();
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->instruction.seq, seq);
    }
    close(writer);
}

TEST_F(Reading_Ahead, has_a_thread_of_its_own_as_long_as_there_is_something_to_read)
{
    std::thread([] {}).join(); // a sanitizer has one of its own from the first on
    const size_t before = threads();
    const int writer = make_fifo();
    put(writer, MACHINE);
    Read_Ahead ahead(file, stop);
    ASSERT_NE(ahead.next(), nullptr);
    EXPECT_EQ(threads(), before + 1);
    close(writer);
    EXPECT_EQ(ahead.next(), nullptr);
    for (int tries = 0; threads() > before && tries < 1000; ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(threads(), before);
}

TEST_F(Reading_Ahead, request_while_nobody_asks_is_no_end)
{
    const int writer = make_fifo();
    put(writer, MACHINE);
    Read_Ahead ahead(file, stop);
    ASSERT_NE(ahead.next(), nullptr);
    stop.request();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    stop.forget();
    put(writer, commit(1));
    ASSERT_NE(ahead.next(), nullptr);
    close(writer);
}

TEST_F(Reading_Ahead, is_left_while_it_waits)
{
    const int writer = make_fifo();
    put(writer, MACHINE + commit(1) + commit(2));
    {
        Read_Ahead ahead(file, stop);
        ASSERT_NE(ahead.next(), nullptr);
    }
    EXPECT_FALSE(stop.requested());
    {
        Read_Ahead never_asked(file, stop);
        EXPECT_EQ(never_asked.line_number() + never_asked.bytes_used(), 0u);
    }
    close(writer);
}

TEST_F(Reading_Ahead, request_from_before_it_is_left_is_still_there)
{
    const int writer = make_fifo();
    put(writer, MACHINE);
    {
        Read_Ahead ahead(file, stop);
        ASSERT_NE(ahead.next(), nullptr);
        stop.request();
    }
    EXPECT_TRUE(stop.requested());
    close(writer);
}

TEST_F(Reading_Ahead, reads_by_itself_where_no_thread_can_be_had)
{
    std::ofstream(file) << MACHINE << commit(1) << commit(2) << "{}\n";
    Read_Ahead ahead(file, stop);
    pthread_attr_t before, huge;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    pthread_attr_init(&huge);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << 47), 0); // more than there are addresses
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    const Stream_Event *first = ahead.next();
    pthread_setattr_default_np(&before);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->kind, Event_Kind::machine);
    for (uint64_t seq = 1; seq <= 2; ++seq) {
        const Stream_Event *event = ahead.next();
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->instruction.seq, seq);
        EXPECT_EQ(ahead.line_number(), seq + 1);
    }
    EXPECT_EQ(ahead.next(), nullptr);
    ASSERT_TRUE(ahead.error());
    EXPECT_EQ(ahead.error()->line, 4u);
}

TEST_F(Reading_Ahead, is_left_while_much_is_not_asked_for)
{
    std::ofstream out(file);
    out << MACHINE;
    for (uint64_t seq = 1; seq <= 5000; ++seq)
        out << commit(seq);
    out.close();
    Read_Ahead ahead(file, stop);
    ASSERT_NE(ahead.next(), nullptr);
    ASSERT_NE(ahead.next(), nullptr);
}
