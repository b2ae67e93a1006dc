#include "console.h"

#include "command_words.h"
#include "mistyped_word.h"
#include "printable.h"
#include "stream_input.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <istream>
#include <limits>
#include <ostream>

namespace replay
{

struct Console::Command {
    std::string_view name; // one or two words
    std::string_view operands;
    std::string_view summary;
    std::string_view more; // for `help COMMAND`
    size_t least, most;    // operands
    bool file_first;       // the first operand is a file name
    bool (Console::*execute)(const Words &operands);
    Words name_words = split_words(name).words;
};

namespace
{

constexpr size_t ANY = std::numeric_limits<size_t>::max();

// "1 thread", "2 threads"
std::string counted(uint64_t count, std::string_view thing)
{
    return fmt::format("{} {}{}", count, thing, count == 1 ? "" : "s");
}

std::string problem_count(uint64_t count)
{
    return count == 1 ? "the plugin reported a problem" : fmt::format("the plugin reported {} problems", count);
}

// The numbers of the threads for which `is_one` holds, as "0, 3, 5 to 8"; empty when there are none.
template <class Predicate> std::string thread_list(int threads, Predicate is_one)
{
    std::string list;
    for (int first = 0; first < threads; ++first) {
        if (!is_one(first))
            continue;
        int last = first;
        while (last + 1 < threads && is_one(last + 1))
            ++last;
        list += fmt::format("{}{}", list.empty() ? "" : ", ", first);
        if (last > first)
            list += fmt::format("{}{}", last == first + 1 ? ", " : " to ", last);
        first = last;
    }
    return list;
}

// Commands of the trace plugin, for completion: what may follow the words so far.
struct Plugin_Word {
    std::string_view command; // empty: the command itself
    size_t at;                // place after the plugin's file, from 0
    std::vector<std::string_view> words;
    bool wants_file = false;
};

const Plugin_Word PLUGIN_WORDS[] = {
    {"", 0, {"start", "stop", "warm", "pause", "resume"}},
    {"start", 1, {}, true},
    {"start", 2, {"txt", "pte"}},
    {"start", 3, {}, true},
    {"start", 4, {"txt", "pte"}},
    {"start", 5, {}, true},
    {"warm", 1, {}, true},
    {"pause", 1, {"cpu"}},
    {"pause", 3, {"thread"}},
    {"resume", 1, {"cpu"}},
    {"resume", 3, {"thread"}},
};

} // namespace

const std::vector<Console::Command> &Console::commands()
{
    // clang-format off
    static const std::vector<Command> table = {
        {"plugin load", "FILE", "load a plugin and subscribe it to its events",
         "FILE is a shared object. One plugin can be loaded at a time.", 1, 1, true, &Console::plugin_load},
        {"plugin signal", "FILE WORD...", "pass words to the plugin's own command interface",
         "FILE names the loaded plugin: as it was loaded, or without its folders.\n"
         "    The words are the plugin's business, for example: start TRACE, pause cpu 0, stop.", 1, ANY, true, &Console::plugin_signal},
        {"plugin unload", "", "unload the plugin; an open session is closed",
         "", 0, 0, false, &Console::plugin_unload},
        {"run", "[N]", "deliver N events of the stream, or all",
         "Every commit, pre, pte and rtpte line is an event. Context lines take effect on the way.", 0, 1, false, &Console::run},
        {"status", "", "show stream, position, machine and plugin",
         "", 0, 0, false, &Console::status},
        {"help", "[COMMAND]", "list the commands, or explain one",
         "", 0, 2, false, &Console::help},
        {"quit", "", "leave; an open session is closed",
         "", 0, 0, false, &Console::quit},
    };
    // clang-format on
    return table;
}

Console::Console(Player &player, std::ostream &out, std::ostream &err) : player_(player), out_(out), err_(err)
{
    host().set_console([this](const Console_Message &message) { say(message); });
}

void Console::say(const Console_Message &message)
{
    if (running_ && clear_display_)
        clear_display_();
    const auto shown = [this](const std::string &text) { return interactive_ ? printable(text, "\n\t") : text; };
    if (message.channel == Channel::print) {
        out_ << shown(message.text);
        return;
    }
    ++problems_;
    out_.flush(); // keeps the two in order where both end in one place
    err_ << shown(description_of(message)) << std::flush;
}

Console::~Console()
{
    host().set_console({});
}

void Console::set_run_display(std::function<void()> begin, std::function<void()> finish,
                              std::function<void()> clear)
{
    clear_display_ = std::move(clear);
    run_begins_ = std::move(begin);
    run_ends_ = std::move(finish);
}

bool Console::fail(const std::string &text)
{
    out_.flush();
    err_ << printable(where_) << (where_.empty() ? "" : ": ") << printable(text, "\t\n") << std::endl;
    return false;
}

// What a user may want to know; no failure.
void Console::note(const std::string &text)
{
    fail("note: " + text);
}

bool Console::execute(std::string_view line, const std::string &where)
try {
    where_ = where;
    const Command_Words split = split_words(line);
    if (!split.problem.empty())
        return fail(split.problem);
    if (split.words.empty())
        return true;
    const uint64_t problems_before = problems_;
    const bool done = execute(split.words);
    out_.flush();
    if (done && problems_ > problems_before)
        return fail(problem_count(problems_ - problems_before));
    return done;
} catch (const std::bad_alloc &) {
    where_ = where;
    return fail("out of memory");
}

bool Console::run_script(std::istream &in, const std::string &name, bool stop_at_failure)
{
    return run_script([&in](std::string &line) { return static_cast<bool>(std::getline(in, line)); }, name,
                      stop_at_failure);
}

bool Console::run_script(const Next_Line &next, const std::string &name, bool stop_at_failure)
{
    bool good = true;
    size_t number = 0;
    try {
        for (std::string line; !quitting_ && !player_.stop_requested() && next(line);) {
            good = execute(line, fmt::format("{}:{}", name, ++number)) && good;
            if (!good && stop_at_failure)
                break;
        }
    } catch (const Input_Interrupted &) {
    } catch (const Input_Error &problem) {
        where_.clear();
        good = fail(fmt::format("{}:{}: {}", name, number + 1, problem.what()));
    }
    return good && !player_.stop_requested();
}

const Console::Command *Console::find_command(const Words &words)
{
    for (const Command &command : commands()) {
        const Words &name = command.name_words;
        if (words.size() >= name.size() && std::equal(name.begin(), name.end(), words.begin()))
            return &command;
    }
    std::string typed = words[0];
    std::vector<std::string_view> names;
    const bool two_words =
        words.size() > 1 && !nearest_word(words[0], std::vector<std::string_view>{"plugin"}).empty();
    if (two_words)
        typed += " " + words[1];
    for (const Command &command : commands())
        names.push_back(two_words ? command.name : command.name.substr(0, command.name.find(' ')));
    fail(unknown_word_text("command", typed, names, "`help` lists the commands"));
    return nullptr;
}

bool Console::execute(const Words &words)
{
    const Command *command = find_command(words);
    if (!command)
        return false;
    const Words operands(words.begin() + static_cast<ptrdiff_t>(command->name_words.size()), words.end());
    if (operands.size() < command->least || operands.size() > command->most)
        return fail(fmt::format("usage: {} {}", command->name, command->operands));
    return (this->*command->execute)(operands);
}

// ---- the commands ---------------------------------------------------------------------------------------

bool Console::plugin_load(const Words &operands)
{
    const std::string problem = player_.plugin().load(operands[0]);
    if (!problem.empty())
        return fail(fmt::format("cannot load the plugin: {}", problem));
    files_.protect(operands[0], "the loaded plugin");
    if (interactive_)
        say_what_was_loaded();
    return true;
}

void Console::say_what_was_loaded()
{
    const Plugin_Module &plugin = player_.plugin();
    out_ << fmt::format("loaded {}\nevents {}\n", printable(plugin.file()), fmt::join(plugin.events(), ", "));
}

bool Console::is_loaded_plugin(const std::string &typed) const
{
    const std::filesystem::path loaded = player_.plugin().file();
    std::error_code ignored;
    return typed == loaded || typed == loaded.filename() || std::filesystem::equivalent(typed, loaded, ignored);
}

bool Console::plugin_signal(const Words &operands)
{
    if (!player_.plugin().loaded())
        return fail("no plugin is loaded");
    if (!is_loaded_plugin(operands[0]))
        return fail(fmt::format("the plugin {} is not loaded; {} is", operands[0], player_.plugin().file()));
    const Words words(operands.begin() + 1, operands.end());
    if (const std::string problem = files_.prepare(words); !problem.empty())
        return fail(problem);
    player_.plugin().signal(operands[0], words);
    settle_session_files();
    return true;
}

void Console::settle_session_files()
{
    if (!player_.session_open()) {
        files_.release();
        return;
    }
    files_.opened();
    if (const Words &older = files_.older_files(); !older.empty())
        note(fmt::format("older files that this session does not replace: {}", fmt::join(older, ", ")));
}

bool Console::plugin_unload(const Words &)
{
    if (!player_.plugin().loaded())
        return fail("no plugin is loaded");
    player_.unload_plugin();
    files_.release();
    return true;
}

bool Console::run(const Words &operands)
{
    uint64_t limit = Player::ALL;
    if (!operands.empty()) {
        const std::string &word = operands[0];
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), limit);
        if (error != std::errc{} || end != word.data() + word.size())
            return fail(fmt::format("\"{}\" is not a number of events", word));
    }
    const uint64_t before = player_.events();
    const bool traced = player_.session_open();
    running_ = true;
    if (run_begins_)
        run_begins_();
    const Player::End end = player_.run(limit);
    running_ = false;
    if (run_ends_)
        run_ends_();
    if (end == Player::End::refused_input)
        return fail(fmt::format("{}: {}", player_.file(), player_.error()->text()));
    if (end == Player::End::end_of_stream && !traced && player_.events() > before)
        note(fmt::format("{} delivered to the end of the stream while no session was open",
                         counted(player_.events() - before, "event")));
    return end != Player::End::stopped || fail(fmt::format("interrupted after event {}", player_.events()));
}

bool Console::status(const Words &)
{
    const Event_Source &reader = player_.event_source();
    const Machine_Shape &shape = host().shape();
    out_ << fmt::format("stream    {}", printable(player_.file()));
    if (!player_.source().empty())
        out_ << fmt::format(": {}", printable(player_.source()));
    out_ << fmt::format("\nposition  line {}", reader.line_number());
    if (const auto size = reader.input_size(); size && *size > 0)
        out_ << fmt::format(", {:.0f} % of the input read",
                            100.0 * static_cast<double>(reader.bytes_used()) / static_cast<double>(*size));
    out_ << fmt::format("\nevents    {} delivered: {}, {} pre, {} pte, {} rtpte\n", player_.events(),
                        counted(player_.lines_of(Event_Kind::commit), "commit"), player_.lines_of(Event_Kind::pre),
                        player_.lines_of(Event_Kind::pte), player_.lines_of(Event_Kind::rtpte));
    out_ << fmt::format("machine   {} of {}, raw time {}\n", counted(shape.processors, "processor"),
                        counted(shape.threads, "thread"), host().raw_time());
    if (player_.plugin().loaded())
        out_ << fmt::format("plugin    {}, session {}\n", printable(player_.plugin().file()),
                            player_.session_open() ? "open" : "closed");
    else
        out_ << "plugin    none\n";
    show_threads();
    return true;
}

// The trace plugin exports its per-thread tables: which threads are paused, and each thread's file of a family. A table
// is null when there is none of its kind; a file is null when it could not be created.
void Console::show_threads()
{
    const Plugin_Module &plugin = player_.plugin();
    const int threads = host().thread_count();
    if (const auto *paused = static_cast<const boolean *const *>(plugin.symbol("paused")); paused && *paused) {
        const std::string list = thread_list(threads, [&](int tid) { return (*paused)[tid] != 0; });
        out_ << fmt::format("paused    {}\n", list.empty() ? "no thread" : "threads " + list);
    }
    constexpr std::pair<const char *, const char *> FAMILIES[] = {{"qfile_in_text", "text"},
                                                                  {"qfile_in_pte", "page-table-entry"}};
    for (const auto &[table, name] : FAMILIES) {
        const auto *files = static_cast<const void *const *const *>(plugin.symbol(table));
        if (!files || !*files)
            continue;
        const std::string list = thread_list(threads, [&](int tid) { return !(*files)[tid]; });
        if (!list.empty())
            out_ << fmt::format("skipped   {} trace of threads {}: the file could not be created\n", name, list);
    }
}

bool Console::help(const Words &operands)
{
    if (operands.empty()) {
        for (const Command &command : commands())
            out_ << fmt::format("{:<28}{}\n", fmt::format("{} {}", command.name, command.operands),
                                command.summary);
        out_ << "# begins a comment; quotes hold words with blanks together.\n";
        return true;
    }
    const std::string wanted = fmt::format("{}", fmt::join(operands, " "));
    bool known = false;
    for (const Command &command : commands()) {
        if (command.name != wanted && !command.name.starts_with(wanted + " "))
            continue;
        known = true;
        out_ << fmt::format("{} {}\n    {}\n", command.name, command.operands, command.summary);
        if (!command.more.empty())
            out_ << fmt::format("    {}\n", command.more);
    }
    return known || find_command(operands);
}

bool Console::quit(const Words &)
{
    quitting_ = true;
    return true;
}

// ---- completion -----------------------------------------------------------------------------------------

std::vector<std::string> Console::completions(std::string_view line, bool &wants_file) const
{
    wants_file = false;
    Words words = split_words(line).words;
    if (words.empty() && line.find('#') != std::string_view::npos)
        return {};
    if (words.empty() || line.back() == ' ')
        words.emplace_back();
    if (words.front() == "help" && words.size() > 1)
        words.erase(words.begin());
    const size_t at = words.size() - 1;
    std::vector<std::string> found;
    for (const Command &command : commands()) {
        const Words &name = command.name_words;
        if (at >= name.size()) {
            wants_file = wants_file || (at == name.size() && command.file_first &&
                                        std::equal(name.begin(), name.end(), words.begin()));
            continue;
        }
        if (std::equal(words.begin(), words.end() - 1, name.begin()) && name[at].starts_with(words[at]))
            found.push_back(name[at]);
    }
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return words.size() > 2 && words[0] == "plugin" && words[1] == "signal" ? plugin_words(words, wants_file)
                                                                            : found;
}

// After `plugin signal`: the loaded plugin's name, then its commands and their words.
std::vector<std::string> Console::plugin_words(const Words &words, bool &wants_file) const
{
    constexpr size_t FILE = 2;
    const std::string loaded = std::filesystem::path(player_.plugin().file()).filename();
    if (words.size() == FILE + 1) {
        wants_file = loaded.empty() || !loaded.starts_with(words.back());
        return wants_file ? Words{} : Words{loaded};
    }
    const size_t at = words.size() - FILE - 2;
    Words found;
    for (const Plugin_Word &row : PLUGIN_WORDS) {
        if (row.at != at || (!row.command.empty() && row.command != words[FILE + 1]))
            continue;
        wants_file = row.wants_file;
        for (const std::string_view word : row.words)
            if (word.starts_with(words.back()))
                found.emplace_back(word);
    }
    return found;
}

} // namespace replay
