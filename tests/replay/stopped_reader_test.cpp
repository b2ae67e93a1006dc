// A reader of a commit stream that waits for more of it, and is told to stop.

#include "stream_reader.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace replay;

namespace
{

const std::string MACHINE = "{\"t\":\"machine\",\"processors\":2,\"threads\":2}\n";

// A FIFO whose reader is stopped from another thread after a while.
struct Stopped_Reader : testing::Test {
    Stopped_Reader() { EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0); }
    ~Stopped_Reader() override { std::filesystem::remove(fifo); }

    std::thread stop_soon()
    {
        return std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            stop.request();
        });
    }

    const std::string fifo =
        std::filesystem::temp_directory_path() / ("stream_reader_fifo_" + std::to_string(getpid()));
    Stop_Request stop;
};

} // namespace

TEST_F(Stopped_Reader, waits_no_longer_for_the_writer_of_a_fifo)
{
    std::thread other = stop_soon();
    Stream_Reader reader(fifo, &stop);
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_FALSE(reader.error());
    other.join();
}

TEST_F(Stopped_Reader, delivers_nothing_until_the_request_is_forgotten)
{
    const int writer = open(fifo.c_str(), O_RDWR);
    const std::string lines = MACHINE + "{\"t\":\"pre\",\"tid\":3}\n";
    EXPECT_EQ(write(writer, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
    Stream_Reader reader(fifo, &stop);
    ASSERT_NE(reader.next(), nullptr);
    stop.request();
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_FALSE(reader.error());
    EXPECT_EQ(reader.line_number(), 1u);
    stop.forget();
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->instruction.tid, 3);
    close(writer);
}

TEST_F(Stopped_Reader, knows_whether_the_next_event_is_at_hand_however_often_it_is_asked)
{
    const int writer = open(fifo.c_str(), O_RDWR);
    const std::string lines = MACHINE + "{\"t\":\"pre\"}\n{\"t\":\"p";
    EXPECT_EQ(write(writer, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
    Stream_Reader reader(fifo, &stop);
    EXPECT_TRUE(reader.may_wait());
    ASSERT_NE(reader.next(), nullptr);
    EXPECT_FALSE(reader.may_wait());
    EXPECT_FALSE(reader.may_wait());
    ASSERT_NE(reader.next(), nullptr);
    EXPECT_TRUE(reader.may_wait());
    EXPECT_TRUE(reader.may_wait());
    close(writer);
}

TEST_F(Stopped_Reader, tries_no_more_to_read_what_cannot_be_read)
{
    Stream_Reader folder("/", &stop);
    EXPECT_EQ(folder.next(), nullptr);
    ASSERT_TRUE(folder.error());
    EXPECT_EQ(folder.error()->text(), "expected readable input: Is a directory");
}

TEST_F(Stopped_Reader, waits_no_longer_for_a_line_and_loses_none)
{
    std::thread other = stop_soon();
    const int writer = open(fifo.c_str(), O_RDWR);
    const std::string first = MACHINE + "{\"t\":\"pre\"", second = ",\"tid\":3}\n";
    EXPECT_EQ(write(writer, first.data(), first.size()), static_cast<ssize_t>(first.size()));
    Stream_Reader reader(fifo, &stop);
    ASSERT_NE(reader.next(), nullptr);
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_FALSE(reader.error());
    other.join();
    stop.forget();
    EXPECT_EQ(write(writer, second.data(), second.size()), static_cast<ssize_t>(second.size()));
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->instruction.tid, 3);
    close(writer);
}

TEST_F(Stopped_Reader, looks_no_further_through_blank_lines_without_end)
{
    const int writer = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
    std::atomic<bool> done = false;
    EXPECT_EQ(write(writer, MACHINE.data(), MACHINE.size()), static_cast<ssize_t>(MACHINE.size()));
    std::thread blank_lines([&] {
        const std::string lines(4096, '\n');
        while (!done)
            if (write(writer, lines.data(), lines.size()) < 0)
                std::this_thread::yield();
    });
    Stream_Reader reader(fifo, &stop);
    ASSERT_NE(reader.next(), nullptr);
    std::thread other = stop_soon();
    EXPECT_EQ(reader.next(), nullptr);
    EXPECT_FALSE(reader.error());
    EXPECT_GT(reader.line_number(), 1u);
    other.join();
    done = true;
    blank_lines.join();
    close(writer);
}
