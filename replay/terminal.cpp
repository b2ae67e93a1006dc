#include "terminal.h"

#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <editline/readline.h>
#include <fmt/format.h>
#include <memory>

namespace replay
{

namespace
{

constexpr const char *PROMPT = "replay> ";

// The library's callbacks take no argument of ours.
const Console *completing_console = nullptr;
std::vector<std::string> candidates;

char *next_candidate(const char *, int state)
{
    const auto at = static_cast<size_t>(state);
    return at < candidates.size() ? strdup(candidates[at].c_str()) : nullptr;
}

char **complete(const char *text, int, int end)
{
    bool wants_file = false;
    const std::string_view line(rl_line_buffer, static_cast<size_t>(end));
    candidates = completing_console->completions(line, wants_file);
    rl_attempted_completion_over = wants_file ? 0 : 1; // 0: file names come next
    return candidates.empty() ? nullptr : rl_completion_matches(text, next_candidate);
}

class Progress_Line
{
public:
    explicit Progress_Line(const Player &player) : player_(player) {}

    void begin()
    {
        start_ = last_ = Clock::now();
        events_before_ = player_.events();
    }

    void show_sometimes()
    {
        const auto now = Clock::now();
        if (now - last_ < std::chrono::milliseconds(100))
            return;
        last_ = now;
        fmt::print(stderr, "\r{}\x1b[K", text());
    }

    void finish()
    {
        last_ = Clock::now();
        fmt::print(stderr, "\r{}\x1b[K\n", text());
    }

private:
    using Clock = std::chrono::steady_clock;

    std::string text() const
    {
        const uint64_t events = player_.events() - events_before_;
        const double seconds = std::chrono::duration<double>(last_ - start_).count();
        std::string text = fmt::format("{} events", events);
        if (const auto size = player_.event_source().input_size(); size && *size > 0)
            text += fmt::format(", {:.0f} % of the input",
                                100.0 * static_cast<double>(player_.event_source().bytes_used()) /
                                    static_cast<double>(*size));
        if (seconds > 0)
            text += fmt::format(", {:.0f} thousand/s", static_cast<double>(events) / seconds / 1000);
        return text;
    }

    const Player &player_;
    Clock::time_point start_, last_;
    uint64_t events_before_ = 0;
};

} // namespace

void show_progress(Console &console, Player &player)
{
    const auto line = std::make_shared<Progress_Line>(player);
    player.set_progress([line] { line->show_sometimes(); });
    console.set_run_display([line] { line->begin(); }, [line] { line->finish(); });
}

void obey_terminal(Console &console, Player &player)
{
    std::setlocale(LC_CTYPE, "");
    rl_readline_name = "replay";
    rl_attempted_completion_function = complete;
    completing_console = &console;
    using_history();
    while (!console.quitting()) {
        const std::unique_ptr<char, decltype(&std::free)> line(readline(PROMPT), &std::free);
        if (!line && player.stop_requested()) { // Ctrl-C at the prompt gives up the line
            std::fputc('\n', stdout);
            player.forget_stop();
            continue;
        }
        if (!line) {
            std::fputc('\n', stdout);
            break;
        }
        if (*line)
            add_history(line.get());
        player.forget_stop();
        console.obey(line.get());
    }
    player.forget_stop();
}

} // namespace replay
