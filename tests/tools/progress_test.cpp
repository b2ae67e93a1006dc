// The progress line on a terminal that shows data and messages too.
#include "tool_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <poll.h>
#include <pty.h>
#include <thread>
#include <unistd.h>

using namespace qtrace_tool;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

// A terminal, and what was shown on it.
class Terminal
{
public:
    Terminal() { EXPECT_EQ(openpty(&master_, &own, nullptr, nullptr, nullptr), 0); }
    ~Terminal()
    {
        close(master_);
        close(own);
    }
    std::string shown() const
    {
        std::string text;
        for (pollfd ready{master_, POLLIN, 0}; poll(&ready, 1, 0) > 0;) {
            char piece[4096];
            text.append(piece, static_cast<size_t>(std::max<ssize_t>(read(master_, piece, sizeof piece), 0)));
        }
        return text;
    }
    int own = -1;

private:
    int master_ = -1;
};

constexpr uint64_t MANY = 1 << 16;
const std::string ERASED = "\r\x1b[K";

void let_a_second_pass()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1050));
}

} // namespace

TEST(progress, line_is_erased_before_data_and_messages_and_at_the_end)
{
    const Terminal terminal;
    Tool_Run run(terminal.own, terminal.own);
    {
        Progress progress(run, "trace0", 0);
        run.out.put("before\n");
        let_a_second_pass();
        progress.step(MANY);
        EXPECT_THAT(terminal.shown(), StartsWith("before\r\n" + ERASED + "trace0: 65536 records, "));
        run.out.put("data\n");
        run.out.flush();
        EXPECT_EQ(terminal.shown(), ERASED + "data\r\n");
        run.warn("a loss");
        EXPECT_EQ(terminal.shown(), "qtrace: a loss\r\n");
        let_a_second_pass();
        progress.step(MANY);
        EXPECT_THAT(terminal.shown(), StartsWith(ERASED + "trace0: 131072 records, "));
        run.fail("an error");
        EXPECT_EQ(terminal.shown(), ERASED + "qtrace: an error\r\n");
        let_a_second_pass();
        progress.step(MANY);
        EXPECT_THAT(terminal.shown(), HasSubstr("196608"));
    }
    EXPECT_EQ(terminal.shown(), ERASED);
    run.out.put("after\n");
    run.out.flush();
    EXPECT_EQ(terminal.shown(), "after\r\n");
}

TEST(progress, shows_nothing_before_a_second_has_passed_or_without_a_terminal)
{
    const Terminal terminal;
    Tool_Run quick(terminal.own, terminal.own);
    Progress(quick, "trace0", 0).step(MANY);
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    Tool_Run unseen(terminal.own, pipe_ends[1]);
    Progress progress(unseen, "trace0", 0);
    let_a_second_pass();
    progress.step(MANY);
    EXPECT_EQ(terminal.shown(), "");
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}
