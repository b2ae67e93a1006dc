#include "console.h"

#include "command_words.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <istream>
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
    bool (Console::*obey)(const Words &operands);
    Words name_words = split_words(name).words;
};

namespace
{

constexpr size_t ANY = 1000000;

std::string complaint_count(uint64_t count)
{
    return count == 1 ? "the plugin complained" : fmt::format("the plugin complained {} times", count);
}

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
         "Every commit, pre, pte and rtpte line is an event. Context lines are obeyed on the way.", 0, 1, false, &Console::run},
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
    host().set_console([this](const Console_Message &message) {
        if (message.channel == Channel::print) {
            out_ << message.text;
            return;
        }
        ++complaints_;
        out_.flush(); // keeps the two in order where both end in one place
        err_ << description_of(message) << std::flush;
    });
}

Console::~Console()
{
    host().set_console({});
}

void Console::set_run_display(std::function<void()> begin, std::function<void()> finish)
{
    run_begins_ = std::move(begin);
    run_ends_ = std::move(finish);
}

bool Console::fail(const std::string &text)
{
    out_.flush();
    err_ << where_ << (where_.empty() ? "" : ": ") << text << std::endl;
    return false;
}

bool Console::obey(std::string_view line, const std::string &where)
try {
    where_ = where;
    const Command_Words split = split_words(line);
    if (!split.problem.empty())
        return fail(split.problem);
    if (split.words.empty())
        return true;
    const uint64_t complaints_before = complaints_;
    const bool obeyed = execute(split.words);
    out_.flush();
    if (obeyed && complaints_ > complaints_before)
        return fail(complaint_count(complaints_ - complaints_before));
    return obeyed;
} catch (const std::bad_alloc &) {
    err_ << where << (where.empty() ? "" : ": ") << "out of memory" << std::endl;
    return false;
}

bool Console::obey_script(std::istream &in, const std::string &name, bool stop_at_failure)
{
    bool good = true;
    size_t number = 0;
    for (std::string line; !quitting_ && !player_.stop_requested() && std::getline(in, line);) {
        good = obey(line, fmt::format("{}:{}", name, ++number)) && good;
        if (!good && stop_at_failure)
            break;
    }
    if (in.bad()) {
        where_.clear();
        good = fail(fmt::format("{}:{}: cannot be read any further", name, number + 1));
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
    const bool two_words = words.size() > 1 && nearest_word(words[0], {"plugin"}) == "plugin";
    if (two_words)
        typed += " " + words[1];
    for (const Command &command : commands())
        names.push_back(two_words ? command.name : command.name.substr(0, command.name.find(' ')));
    const std::string_view meant = nearest_word(typed, names);
    if (!meant.empty() && meant != typed)
        fail(fmt::format("unknown command \"{}\"; did you mean \"{}\"?", typed, meant));
    else
        fail(fmt::format("unknown command \"{}\"; \"help\" lists the commands", typed));
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
    return (this->*command->obey)(operands);
}

// ---- the commands ---------------------------------------------------------------------------------------

bool Console::plugin_load(const Words &operands)
{
    const std::string problem = player_.plugin().load(operands[0]);
    return problem.empty() || fail(fmt::format("cannot load the plugin: {}", problem));
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
    player_.plugin().signal(operands[0], Words(operands.begin() + 1, operands.end()));
    return true;
}

bool Console::plugin_unload(const Words &)
{
    if (!player_.plugin().loaded())
        return fail("no plugin is loaded");
    player_.plugin().unload();
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
    if (run_begins_)
        run_begins_();
    const Player::End end = player_.run(limit);
    if (run_ends_)
        run_ends_();
    if (end == Player::End::refused_input)
        return fail(fmt::format("{}: {}", player_.file(), player_.error()->text()));
    return end != Player::End::stopped || fail(fmt::format("interrupted after event {}", player_.events()));
}

bool Console::status(const Words &)
{
    const Event_Source &reader = player_.event_source();
    const Machine_Shape &shape = host().shape();
    out_ << fmt::format("stream    {}", player_.file());
    if (!player_.source().empty())
        out_ << fmt::format(": {}", player_.source());
    out_ << fmt::format("\nposition  line {}", reader.line_number());
    if (const auto size = reader.input_size(); size && *size > 0)
        out_ << fmt::format(", {:.0f} % of the input read",
                            100.0 * static_cast<double>(reader.bytes_used()) / static_cast<double>(*size));
    out_ << fmt::format("\nevents    {} delivered: {} commits, {} pre, {} pte, {} rtpte\n", player_.events(),
                        player_.lines_of(Event_Kind::commit), player_.lines_of(Event_Kind::pre),
                        player_.lines_of(Event_Kind::pte), player_.lines_of(Event_Kind::rtpte));
    out_ << fmt::format("machine   {} processors of {} threads, raw time {}\n", shape.processors, shape.threads,
                        host().raw_time());
    if (player_.plugin().loaded())
        out_ << fmt::format("plugin    {}, session {}\n", player_.plugin().file(),
                            player_.session_open() ? "open" : "closed");
    else
        out_ << "plugin    none\n";
    return true;
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
    return found;
}

} // namespace replay
