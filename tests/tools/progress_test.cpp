// The progress line on a terminal that shows data and messages too.
#include "tool_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
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
    Terminal()
    {
        const winsize size{50, 80, 0, 0};
        EXPECT_EQ(openpty(&master_, &own, nullptr, nullptr, &size), 0);
    }
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

// A line of its own on a terminal of its own, and what the clocks before and after allow it to say.
class Timed_Line
{
public:
    explicit Timed_Line(uint64_t total) : progress_(run_, "t", total), begun_(Clock::now()) {}
    std::string shown() const { return terminal_.shown(); }
    double shortest() const { return std::chrono::duration<double>(stepped_ - begun_).count(); }
    double longest() const { return std::chrono::duration<double>(Clock::now() - before_).count(); }
    void step(uint64_t records)
    {
        stepped_ = Clock::now();
        progress_.step(records);
    }

private:
    using Clock = std::chrono::steady_clock;
    Terminal terminal_;
    Tool_Run run_{terminal_.own, terminal_.own};
    Clock::time_point before_ = Clock::now();
    Progress progress_;
    Clock::time_point begun_, stepped_;
};

// Of a line that was begun a second ago or more. The rate has a tenth of a million.
void expect_rate_and_rest(Timed_Line &line, uint64_t total)
{
    constexpr uint64_t RECORDS = 200 * MANY;
    line.step(RECORDS);
    const double longest = line.longest();
    const std::string text = line.shown(), percent = total != 0 ? "91 %, " : "";
    const std::string head = ERASED + "t: 13107200 records, " + percent;
    ASSERT_THAT(text, StartsWith(head));
    const double rate = std::stod(text.substr(head.size())) * 1e6;
    EXPECT_GE(rate, RECORDS / longest - 1e5) << text;
    EXPECT_LE(rate, RECORDS / line.shortest() + 1e5) << text;
    EXPECT_EQ(text.ends_with(" M/s, 0 s left"), total != 0) << text; // a tenth of what has passed
}

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

TEST(progress, tells_percent_and_time_left_where_the_end_is_known)
{
    const Terminal terminal;
    Tool_Run run(terminal.own, terminal.own);
    Progress progress(run, "trace0", 4 * MANY);
    Timed_Line with_end(220 * MANY), without_end(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    progress.step(MANY);
    EXPECT_EQ(terminal.shown(), ""); // the first second is not over
    std::this_thread::sleep_for(std::chrono::milliseconds(750));
    progress.step(MANY - 1);
    EXPECT_EQ(terminal.shown(), ""); // the time is not looked at for so few
    progress.step(1);
    // 131072 records in somewhat more than a second: as many are left.
    EXPECT_THAT(terminal.shown(),
                testing::MatchesRegex("\r.\\[Ktrace0: 131072 records, 50 %, 0\\.1 M/s, [1-5] s left"));
    progress.step(MANY);
    EXPECT_EQ(terminal.shown(), ""); // it was shown just now
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    progress.step(MANY);
    EXPECT_THAT(terminal.shown(), testing::MatchesRegex("\r.\\[Ktrace0: 262144 records, 0\\.[0-2] M/s"));
    expect_rate_and_rest(with_end, 220 * MANY);
    expect_rate_and_rest(without_end, 0);
}

namespace
{

// A variable of the environment, or null for none, until the end of the block.
class Variable
{
public:
    Variable(const char *name, const char *value) : name_(name)
    {
        if (const char *before = std::getenv(name))
            before_ = before;
        set(value);
    }
    ~Variable() { set(before_ ? before_->c_str() : nullptr); }
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;

private:
    void set(const char *value) const
    {
        if (value != nullptr)
            setenv(name_, value, 1);
        else
            unsetenv(name_);
    }
    const char *name_;
    std::optional<std::string> before_;
};

struct Pipe {
    int ends[2];
    Pipe() { EXPECT_EQ(pipe(ends), 0); }
    ~Pipe()
    {
        close(ends[0]);
        close(ends[1]);
    }
};

} // namespace

TEST(tool_run, has_colours_on_a_terminal_that_knows_them_unless_the_user_wants_none)
{
    const Terminal terminal;
    const Pipe no_terminal;
    const struct {
        const char *term, *no_color;
        bool coloured;
    } rows[] = {{"vt100", nullptr, true},
                {"dumb", nullptr, false},
                {nullptr, nullptr, false},
                {"vt100", "", false},
                {"vt100", "1", false}};
    for (const auto &[term, no_color, coloured] : rows) {
        const Variable first("TERM", term), second("NO_COLOR", no_color);
        EXPECT_EQ(Tool_Run(terminal.own, no_terminal.ends[1]).out.coloured(), coloured);
        EXPECT_EQ(Tool_Run(no_terminal.ends[1], terminal.own).err.coloured(), coloured);
        EXPECT_FALSE(Tool_Run(no_terminal.ends[1], terminal.own).out.coloured());
    }
}

TEST(tool_run, has_the_columns_that_the_user_or_the_terminal_says)
{
    const Terminal terminal;
    const Pipe no_terminal;
    for (const auto &[wanted, columns] :
         {std::pair<const char *, size_t>(nullptr, 80), {"100", 100}, {"1", 1}, {"0", 80}, {"x", 80}, {"", 80}}) {
        const Variable variable("COLUMNS", wanted);
        EXPECT_EQ(Tool_Run(terminal.own, no_terminal.ends[1]).columns, columns);
        EXPECT_EQ(Tool_Run(no_terminal.ends[1], terminal.own).columns, 0u);
    }
    EXPECT_TRUE(Tool_Run(no_terminal.ends[1], terminal.own).progress);
    EXPECT_FALSE(Tool_Run(terminal.own, no_terminal.ends[1]).progress);
}

TEST(tool_run, ends_with_the_worst_of_what_happened)
{
    const Pipe messages;
    const auto code = [&](const std::function<void(Tool_Run &)> &happens) {
        Tool_Run run(messages.ends[1], messages.ends[1]);
        happens(run);
        return run.exit_code();
    };
    EXPECT_EQ(code([](Tool_Run &) {}), 0);
    EXPECT_EQ(code([](Tool_Run &run) { run.found(); }), 3);
    EXPECT_EQ(code([](Tool_Run &run) { run.warn("w"); }), 3);
    EXPECT_EQ(code([](Tool_Run &run) { run.fail("f"); }), 1);
    EXPECT_EQ(code([](Tool_Run &run) { run.fail("f"), run.warn("w"), run.found(); }), 1);
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
