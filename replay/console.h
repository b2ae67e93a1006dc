// The console of the stand-in host (docs/console.md): commands from a script or from a person.
#pragma once

#include "player.h"
#include "session_files.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace replay
{

class Console
{
public:
    // Takes over what the plugin says: prints go to `out`, warnings and errors to `err`, and so does what the
    // console itself says. All must outlive the console.
    Console(Player &player, std::ostream &out, std::ostream &err);
    ~Console();

    // Obeys one line. False when it failed: a mistake in the line, something that could not be done, or a warning
    // or error of the plugin while it was done. `where` ("script:12") goes before the console's messages.
    bool execute(std::string_view line, const std::string &where = {});

    // Obeys lines until the end, `quit`, or a Player::stop(). A failing line does not end the script unless
    // `stop_at_failure`. True when nothing failed.
    bool run_script(std::istream &in, const std::string &name, bool stop_at_failure = false);

    // The same with lines from `next`: false at the end, or an exception of Line_Source.
    using Next_Line = std::function<bool(std::string &)>;
    bool run_script(const Next_Line &next, const std::string &name, bool stop_at_failure = false);

    bool quitting() const { return quitting_; } // `quit` was given

    // The ways to go on with the last word of a line that is being typed, whole words. Empty where a file name
    // belongs; `wants_file` says so.
    std::vector<std::string> completions(std::string_view line, bool &wants_file) const;

    // Called before and after a run, for a progress display, and before anything is said while it is on.
    void set_run_display(
        std::function<void()> begin, std::function<void()> finish, std::function<void()> clear = [] {});

    // A person reads along: what commands did is said, and control characters of the plugin's words are replaced.
    void set_interactive() { interactive_ = true; }

    // No command may write into this file; `role` says what it is.
    void protect(const std::string &file, const std::string &role) { files_.protect(file, role); }

private:
    struct Command;
    static const std::vector<Command> &commands();
    using Words = std::vector<std::string>;

    bool execute(const Words &words);
    const Command *find_command(const Words &words);
    bool fail(const std::string &text);
    void note(const std::string &text);
    void say(const Console_Message &message);
    void say_what_was_loaded();
    void settle_session_files();
    void show_threads();
    std::vector<std::string> plugin_words(const Words &words, bool &wants_file) const;
    bool is_loaded_plugin(const std::string &typed) const;

    bool plugin_load(const Words &words);
    bool plugin_signal(const Words &words);
    bool plugin_unload(const Words &words);
    bool run(const Words &words);
    bool status(const Words &words);
    bool help(const Words &words);
    bool quit(const Words &words);

    Player &player_;
    Session_Files files_;
    bool interactive_ = false;
    std::ostream &out_;
    std::ostream &err_;
    std::string where_;
    uint64_t problems_ = 0; // warnings and errors of the plugin so far
    bool quitting_ = false;
    std::function<void()> run_begins_;
    std::function<void()> run_ends_;
    std::function<void()> clear_display_;
    bool running_ = false;
};

} // namespace replay
