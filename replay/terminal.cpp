#include "terminal.h"

#include "printable.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <fmt/format.h>
#include <histedit.h>
#include <memory>
#include <unistd.h>

namespace replay
{

namespace
{

namespace fs = std::filesystem;

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
        shown_ = true;
    }

    // Makes room for other output on the line.
    void clear()
    {
        if (std::exchange(shown_, false))
            fmt::print(stderr, "\r\x1b[K");
    }

    void finish()
    {
        last_ = Clock::now();
        fmt::print(stderr, "\r{}\x1b[K\n", text());
        shown_ = false;
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
    bool shown_ = false;
};

constexpr int KEPT_LINES = 1000;
constexpr const char *COMPLETE = "replay-complete"; // the editor's name for our function

// Where lines are kept between sessions; empty when the user has no place for it.
fs::path history_file()
{
    const char *state = std::getenv("XDG_STATE_HOME");
    const char *home = std::getenv("HOME");
    if ((!state || !*state) && (!home || !*home))
        return {};
    const fs::path folder = state && *state ? fs::path(state) : fs::path(home) / ".local/state";
    std::error_code ignored;
    fs::create_directories(folder, ignored);
    return folder / "replay_history";
}

// Files and folders that `typed` may become.
std::vector<std::string> files_named(const std::string &typed)
{
    const fs::path path(typed);
    const std::string begin = path.filename();
    std::vector<std::string> names;
    std::error_code unreadable;
    for (const auto &entry :
         fs::directory_iterator(path.has_parent_path() ? path.parent_path() : ".", unreadable)) {
        const std::string name = entry.path().filename();
        if (name.starts_with(begin) && (!begin.empty() || name[0] != '.'))
            names.push_back(typed.substr(0, typed.size() - begin.size()) + name +
                            (entry.is_directory(unreadable) ? "/" : ""));
    }
    std::sort(names.begin(), names.end());
    return names;
}

// What all words begin with.
std::string common_begin(const std::vector<std::string> &words)
{
    std::string begin = words.front();
    for (const std::string &word : words)
        begin.resize(static_cast<size_t>(std::mismatch(begin.begin(), begin.end(), word.begin(), word.end()).first -
                                         begin.begin()));
    return begin;
}

class Line_Editor
{
public:
    Line_Editor(const Console &console, const Stop_Request &stop)
        : console_(console), stop_(stop), history_(history_init()),
          editor_(el_init("replay", stdin, stdout, stderr)), file_(history_file())
    {
        if (!history_ || !editor_)
            throw std::bad_alloc();
        HistEvent event;
        history(history_.get(), &event, H_SETSIZE, KEPT_LINES);
        history(history_.get(), &event, H_SETUNIQUE, 1);
        if (!file_.empty())
            history(history_.get(), &event, H_LOAD, file_.c_str());
        el_set(editor_.get(), EL_CLIENTDATA, this);
        el_set(
            editor_.get(), EL_PROMPT, +[](EditLine *) -> char * {
                static std::array<char, 9> prompt = {'r', 'e', 'p', 'l', 'a', 'y', '>', ' ', 0};
                return prompt.data();
            });
        el_set(editor_.get(), EL_EDITOR, "emacs");
        el_set(editor_.get(), EL_GETCFN, next_character);
        el_set(editor_.get(), EL_HIST, history, history_.get());
        el_set(editor_.get(), EL_ADDFN, COMPLETE, "complete the word", complete);
        el_set(editor_.get(), EL_BIND, "^I", COMPLETE, nullptr);
        el_set(editor_.get(), EL_BIND, "^R", "em-inc-search-prev", nullptr);
    }

    ~Line_Editor()
    {
        HistEvent event;
        if (!file_.empty())
            history(history_.get(), &event, H_SAVE, file_.c_str());
    }

    // The next line without its end; false at the end of input or at a request to stop.
    bool next(std::string &line)
    {
        int length = 0;
        const char *text = el_gets(editor_.get(), &length);
        if (!text || length <= 0)
            return false;
        line.assign(text, static_cast<size_t>(length));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        HistEvent event;
        if (!line.empty())
            history(history_.get(), &event, H_ENTER, line.c_str());
        return true;
    }

private:
    struct Close {
        void operator()(EditLine *editor) const { el_end(editor); }
        void operator()(History *lines) const { history_end(lines); }
    };

    static Line_Editor &of(EditLine *editor)
    {
        Line_Editor *self = nullptr;
        el_get(editor, EL_CLIENTDATA, &self);
        return *self;
    }

    // One character from the terminal: 1, or 0 at the end, or -1 at a request to stop.
    static int next_character(EditLine *editor, wchar_t *character)
    {
        std::mbstate_t state{};
        for (;;) {
            char byte;
            if (!of(editor).stop_.wait_for_input(STDIN_FILENO))
                return -1;
            const ssize_t count = read(STDIN_FILENO, &byte, 1);
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                return static_cast<int>(count);
            const size_t used = std::mbrtowc(character, &byte, 1, &state);
            if (used == static_cast<size_t>(-2)) // more bytes belong to it
                continue;
            if (used == static_cast<size_t>(-1))
                *character = L'?';
            return 1;
        }
    }

    // Inserts what all ways to continue have in common; shows them when there is nothing more in common.
    static unsigned char complete(EditLine *editor, int)
    {
        const LineInfo *info = el_line(editor);
        const std::string line(info->buffer, info->cursor);
        const size_t blank = line.find_last_of(" \t");
        const std::string typed = line.substr(blank == std::string::npos ? 0 : blank + 1);
        bool wants_file = false;
        std::vector<std::string> ways = of(editor).console_.completions(line, wants_file);
        if (wants_file)
            ways = files_named(typed);
        if (ways.empty())
            return CC_REFRESH_BEEP;
        std::string rest = common_begin(ways).substr(std::min(typed.size(), common_begin(ways).size()));
        if (ways.size() == 1 && !ways[0].ends_with('/'))
            rest += ' ';
        if (!rest.empty())
            return el_insertstr(editor, rest.c_str()) == 0 ? CC_REFRESH : CC_REFRESH_BEEP;
        std::fputc('\n', stdout);
        for (const std::string &way : ways)
            fmt::print("{}  ", printable(way));
        std::fputc('\n', stdout);
        return CC_REDISPLAY;
    }

    const Console &console_;
    const Stop_Request &stop_;
    std::unique_ptr<History, Close> history_;
    std::unique_ptr<EditLine, Close> editor_;
    fs::path file_;
};

} // namespace

void show_progress(Console &console, Player &player)
{
    const auto line = std::make_shared<Progress_Line>(player);
    player.set_progress([line] { line->show_sometimes(); });
    console.set_run_display([line] { line->begin(); }, [line] { line->finish(); }, [line] { line->clear(); });
}

void run_terminal(Console &console, Stop_Request &stop, const std::atomic<bool> &leaving)
{
    std::setlocale(LC_CTYPE, "");
    Line_Editor editor(console, stop);
    while (!console.quitting() && !leaving) {
        std::string line;
        if (editor.next(line)) {
            console.execute(line);
        } else {
            std::fputc('\n', stdout);
            if (!stop.requested())
                break;
        }
        if (!leaving)
            stop.forget();
    }
}

} // namespace replay
