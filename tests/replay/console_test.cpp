// Console commands: grammar, failures, scripts, completion. No plugin is involved here.

#include "console.h"
#include "printable.h"
#include "stream_input.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

using namespace replay;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class Scratch_File
{
public:
    explicit Scratch_File(const std::string &text)
        : name_(std::filesystem::temp_directory_path() / ("console_test_" + std::to_string(getpid()) + ".jsonl"))
    {
        std::ofstream(name_) << text;
    }
    ~Scratch_File() { std::filesystem::remove(name_); }
    const std::string &name() const { return name_; }

private:
    std::string name_;
};

constexpr const char *STREAM = R"({"t":"machine","processors":2,"threads":1,"source":"by hand"}
{"t":"commit","tid":0,"seq":1}
{"t":"commit","tid":1,"seq":1}
{"t":"commit","tid":0,"seq":2}
)";

struct Commands : testing::Test {
    explicit Commands(const std::string &stream = STREAM)
        : file(stream), player(file.name()), console(player, out, err)
    {
    }

    bool script(const std::string &lines, bool stop_at_failure = false)
    {
        std::istringstream in(lines);
        return console.run_script(in, "script", stop_at_failure);
    }

    std::vector<std::string> complete(std::string_view line) { return console.completions(line, wants_file); }

    Scratch_File file;
    Player player;
    std::ostringstream out, err;
    Console console;
    bool wants_file = false;
};

struct Refused_Stream : Commands {
    Refused_Stream() : Commands(std::string(STREAM) + "{\"t\":\"commit\",\"tid\":2}\n") {}
};

} // namespace

TEST_F(Commands, blank_lines_and_comments_do_nothing)
{
    EXPECT_TRUE(script("\n   \n# run\n"));
    EXPECT_EQ(out.str() + err.str(), "");
    EXPECT_EQ(player.events(), 0u);
}

TEST_F(Commands, run_delivers_that_many_events_or_all)
{
    EXPECT_TRUE(console.execute("run 2"));
    EXPECT_EQ(player.events(), 2u);
    EXPECT_TRUE(console.execute("run"));
    EXPECT_EQ(player.events(), 3u);
    EXPECT_TRUE(console.execute("run"));
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(err.str(), "note: 1 event delivered to the end of the stream while no session was open\n");
}

TEST_F(Commands, run_of_what_is_no_number_fails)
{
    for (const char *word : {"all", "-1", "2x", "1.5", "''", "99999999999999999999"})
        EXPECT_FALSE(console.execute(std::string("run ") + word)) << word;
    EXPECT_THAT(err.str(), HasSubstr("\"2x\" is not a number of events\n"));
    EXPECT_EQ(player.events(), 0u);
}

TEST_F(Commands, status_shows_stream_position_and_machine)
{
    console.execute("run 2");
    EXPECT_TRUE(console.execute("status"));
    EXPECT_THAT(out.str(), HasSubstr(file.name() + ": by hand\n"));
    EXPECT_THAT(out.str(), HasSubstr("position  line 3, 80 % of the input read\n"));
    EXPECT_THAT(out.str(), HasSubstr("events    2 delivered: 2 commits, 0 pre, 0 pte, 0 rtpte\n"));
    EXPECT_THAT(out.str(), HasSubstr("machine   2 processors of 1 thread, raw time 2\n"));
    EXPECT_THAT(out.str(), HasSubstr("plugin    none\n"));
}

TEST_F(Commands, status_counts_each_kind_of_event)
{
    std::ofstream(file.name()) << R"({"t":"machine","processors":1,"threads":3}
{"t":"context"}
{"t":"pre"}
{"t":"pte"}
{"t":"pte"}
{"t":"commit","time":41}
{"t":"rtpte"}
{"t":"rtpte"}
{"t":"rtpte"}
)";
    Player all(file.name());
    std::ostringstream shown;
    Console of_all(all, shown, err);
    EXPECT_EQ(all.lines_of(Event_Kind::machine), 1u);
    EXPECT_TRUE(of_all.execute("run"));
    EXPECT_TRUE(of_all.execute("status"));
    EXPECT_EQ(shown.str(), "stream    " + file.name() +
                               "\nposition  line 9, 100 % of the input read\n"
                               "events    7 delivered: 1 commit, 1 pre, 2 pte, 3 rtpte\n"
                               "machine   1 processor of 3 threads, raw time 41\n"
                               "plugin    none\n");
}

TEST_F(Commands, help_lists_every_command_and_explains_one)
{
    EXPECT_TRUE(console.execute("help"));
    for (const char *name : {"plugin load FILE", "plugin signal FILE WORD...", "plugin unload", "run [N]", "status",
                             "help [COMMAND]", "quit"})
        EXPECT_THAT("\n" + out.str(), HasSubstr(std::string("\n") + name)) << name;
    out.str("");
    EXPECT_TRUE(console.execute("help plugin signal"));
    EXPECT_THAT(out.str(), testing::StartsWith("plugin signal FILE WORD...\n    pass words"));
    EXPECT_THAT(out.str(), testing::Not(HasSubstr("plugin load")));
    out.str("");
    EXPECT_TRUE(console.execute("help plugin"));
    EXPECT_THAT(out.str(), HasSubstr("plugin unload"));
    EXPECT_FALSE(console.execute("help statsu"));
    EXPECT_THAT(err.str(), HasSubstr("did you mean `status`?"));
}

TEST_F(Commands, help_is_worded_so)
{
    EXPECT_TRUE(console.execute("help"));
    EXPECT_EQ(out.str(), "plugin load FILE            load a plugin and subscribe it to its events\n"
                         "plugin signal FILE WORD...  pass words to the plugin's own command interface\n"
                         "plugin unload               unload the plugin; an open session is closed\n"
                         "run [N]                     deliver N events of the stream, or all\n"
                         "status                      show stream, position, machine and plugin\n"
                         "help [COMMAND]              list the commands, or explain one\n"
                         "quit                        leave; an open session is closed\n"
                         "# begins a comment; quotes hold words with blanks together.\n");
    out.str("");
    EXPECT_TRUE(console.execute("help plugin"));
    EXPECT_EQ(out.str(), "plugin load FILE\n    load a plugin and subscribe it to its events\n"
                         "    FILE is a shared object. One plugin can be loaded at a time.\n"
                         "plugin signal FILE WORD...\n    pass words to the plugin's own command interface\n"
                         "    FILE names the loaded plugin: as it was loaded, or without its folders.\n"
                         "    The words are the plugin's business, for example: start TRACE, pause cpu 0, stop.\n"
                         "plugin unload \n    unload the plugin; an open session is closed\n");
    out.str("");
    EXPECT_TRUE(console.execute("help quit"));
    EXPECT_EQ(out.str(), "quit \n    leave; an open session is closed\n");
    EXPECT_EQ(err.str(), "");
}

TEST_F(Commands, mistyped_command_gets_a_suggestion)
{
    EXPECT_FALSE(console.execute("rnu 5"));
    EXPECT_FALSE(console.execute("plugin laod x.so"));
    EXPECT_FALSE(console.execute("plugni unload"));
    EXPECT_FALSE(console.execute("frobnicate"));
    EXPECT_EQ(err.str(), "unknown command `rnu`; did you mean `run`?\n"
                         "unknown command `plugin laod`; did you mean `plugin load`?\n"
                         "unknown command `plugni unload`; did you mean `plugin unload`?\n"
                         "unknown command `frobnicate`; `help` lists the commands\n");
}

TEST_F(Commands, lone_plugin_is_not_suggested_to_itself)
{
    EXPECT_FALSE(console.execute("plugin"));
    EXPECT_EQ(err.str(), "unknown command `plugin`; `help` lists the commands\n");
}

TEST_F(Commands, wrong_number_of_operands_shows_the_usage)
{
    EXPECT_FALSE(console.execute("plugin load"));
    EXPECT_FALSE(console.execute("plugin signal"));
    EXPECT_FALSE(console.execute("run 1 2"));
    EXPECT_EQ(err.str(), "usage: plugin load FILE\nusage: plugin signal FILE WORD...\nusage: run [N]\n");
}

TEST_F(Commands, every_command_takes_as_many_operands_as_its_usage_says)
{
    const struct {
        const char *line;
        const char *error;
    } rows[] = {
        {"plugin load a b", "usage: plugin load FILE\n"},
        {"plugin signal a", "no plugin is loaded\n"},
        {"plugin signal a b c d e f g h i j", "no plugin is loaded\n"},
        {"plugin unload a", "usage: plugin unload \n"},
        {"run 1 2", "usage: run [N]\n"},
        {"status a", "usage: status \n"},
        {"help plugin load a", "usage: help [COMMAND]\n"},
        {"quit a", "usage: quit \n"},
        {"help plugin load", ""},
        {"run 0", ""},
        {"status", ""},
        {"help", ""},
    };
    for (const auto &[line, error] : rows) {
        err.str("");
        EXPECT_EQ(console.execute(line), *error == 0) << line;
        EXPECT_EQ(err.str(), error) << line;
    }
    EXPECT_FALSE(console.quitting());
}

TEST_F(Commands, plugin_commands_without_a_plugin_fail)
{
    EXPECT_FALSE(console.execute("plugin load /nowhere/p.so"));
    EXPECT_FALSE(console.execute("plugin signal p.so stop"));
    EXPECT_FALSE(console.execute("plugin unload"));
    EXPECT_THAT(err.str(), HasSubstr("cannot load the plugin: /nowhere/p.so: cannot open"));
    EXPECT_THAT(err.str(), EndsWith("no plugin is loaded\nno plugin is loaded\n"));
}

TEST_F(Commands, script_goes_on_after_a_failure_and_remembers_it)
{
    EXPECT_FALSE(script("run x\n\nrun 1\nrun \"2\n"));
    EXPECT_EQ(player.events(), 1u);
    EXPECT_EQ(err.str(), "script:1: \"x\" is not a number of events\nscript:4: the double quote is not closed\n");
}

TEST_F(Commands, script_can_end_at_its_first_failure)
{
    EXPECT_FALSE(script("run x\nrun 1\n", true));
    EXPECT_EQ(player.events(), 0u);
}

TEST_F(Commands, quit_ends_a_script)
{
    EXPECT_TRUE(script("run 1\nquit\nrun\n"));
    EXPECT_EQ(player.events(), 1u);
    EXPECT_TRUE(console.quitting());
}

TEST_F(Commands, last_line_needs_no_line_end)
{
    EXPECT_TRUE(script("run 1"));
    EXPECT_EQ(player.events(), 1u);
}

TEST_F(Commands, interrupted_run_ends_a_script)
{
    console.set_run_display([&] { player.stop(); }, [] {});
    EXPECT_FALSE(script("run\nstatus\n"));
    EXPECT_TRUE(player.stop_requested());
    EXPECT_EQ(err.str(), "script:1: interrupted after event 0\n");
    EXPECT_EQ(out.str(), "");
}

TEST_F(Commands, run_display_is_called_around_a_run)
{
    std::string calls;
    console.set_run_display([&] { calls += "begin " + std::to_string(player.events()) + " "; },
                            [&] { calls += "end " + std::to_string(player.events()); });
    console.execute("run 2");
    EXPECT_EQ(calls, "begin 0 end 2");
}

TEST_F(Commands, progress_makes_room_for_what_the_plugin_says)
{
    std::string calls;
    console.set_run_display([] { SIM_PRINT("said"); }, [] {},
                            [&] { calls += "clear, out has \"" + out.str() + "\""; });
    console.execute("run 1");
    EXPECT_EQ(calls, "clear, out has \"\"");
    EXPECT_EQ(out.str(), "said");
    SIM_PRINT(" later");
    EXPECT_EQ(calls, "clear, out has \"\"");
}

TEST_F(Commands, progress_is_not_cleared_while_nothing_runs)
{
    size_t cleared = 0;
    console.set_run_display([] {}, [] {}, [&] { ++cleared; });
    SIM_PRINT("before");
    console.execute("run 1");
    SIM_PRINT("after");
    EXPECT_EQ(cleared, 0u);
}

TEST_F(Commands, script_whose_lines_cannot_be_read_fails_with_the_next_line)
{
    size_t lines = 0;
    const auto next = [&](std::string &line) {
        if (++lines == 3)
            throw Input_Error("expected readable input: it burns");
        line = "run 1";
        return true;
    };
    EXPECT_FALSE(console.run_script(next, "script"));
    EXPECT_EQ(player.events(), 2u);
    EXPECT_EQ(err.str(), "script:3: expected readable input: it burns\n");
}

TEST_F(Commands, script_goes_on_after_failures_unless_told_otherwise)
{
    std::istringstream lines("run x\nrun 1\n");
    EXPECT_FALSE(console.run_script(lines, "script"));
    EXPECT_EQ(player.events(), 1u);
    size_t line = 0;
    const auto next = [&](std::string &to) {
        to = ++line == 1 ? "run x" : "run 1";
        return line <= 2;
    };
    EXPECT_FALSE(console.run_script(next, "script"));
    EXPECT_EQ(player.events(), 2u);
}

TEST_F(Commands, host_output_goes_to_its_stream_and_its_warnings_fail_the_command)
{
    console.set_run_display([] { SIM_PRINT("to out\n"); }, [] { sim_do_warning(2, "to err"); });
    EXPECT_FALSE(console.execute("run 1", "script:7"));
    EXPECT_EQ(out.str(), "to out\n");
    EXPECT_EQ(err.str(), "warning (2): to err\nscript:7: the plugin reported a problem\n");
}

TEST_F(Refused_Stream, run_fails_with_stream_line_and_reason_again_and_again)
{
    const std::string message =
        file.name() + ": line 5: key \"tid\": expected a hardware thread from 0 to 1, found 2\n";
    EXPECT_TRUE(console.execute("run 3"));
    EXPECT_FALSE(console.execute("run"));
    EXPECT_FALSE(console.execute("run"));
    EXPECT_EQ(err.str(), message + message);
    EXPECT_EQ(player.events(), 3u);
}

TEST_F(Commands, completion_offers_commands_and_says_where_a_file_belongs)
{
    EXPECT_THAT(complete(""), ElementsAre("plugin", "run", "status", "help", "quit"));
    EXPECT_THAT(complete("pl"), ElementsAre("plugin"));
    EXPECT_THAT(complete("plugin "), ElementsAre("load", "signal", "unload"));
    EXPECT_THAT(complete("plugin s"), ElementsAre("signal"));
    EXPECT_THAT(complete("help plugin u"), ElementsAre("unload"));
    EXPECT_FALSE(wants_file);
    EXPECT_THAT(complete("plugin load ./x"), IsEmpty());
    EXPECT_TRUE(wants_file);
    EXPECT_THAT(complete("run "), IsEmpty());
    EXPECT_THAT(complete("help help"), ElementsAre("help"));
    EXPECT_THAT(complete("# ru"), IsEmpty());
    EXPECT_FALSE(wants_file);
}

TEST_F(Commands, completion_of_whole_words_and_of_what_is_no_command)
{
    EXPECT_THAT(complete("help"), ElementsAre("help"));
    EXPECT_THAT(complete("help "), ElementsAre("plugin", "run", "status", "help", "quit"));
    EXPECT_THAT(complete("plugin signal"), ElementsAre("signal"));
    EXPECT_THAT(complete("plugin load"), ElementsAre("load"));
    EXPECT_THAT(complete("pluginx "), IsEmpty());
    EXPECT_FALSE(wants_file);
    for (const char *line :
         {"run x", "plugin unload ", "status ", "quit ", "plugin load x ", "pluginx load ", "help help ",
          "pluginx signal p.so st", "plugin load p.so st", "#", "  # plugin signal p.so "}) {
        EXPECT_THAT(complete(line), IsEmpty()) << line;
        EXPECT_FALSE(wants_file) << line;
    }
    EXPECT_THAT(complete(" "), ElementsAre("plugin", "run", "status", "help", "quit"));
}

TEST_F(Commands, completion_offers_nothing_after_operands_of_any_length)
{
    for (size_t length = 0; length < 200; ++length) {
        EXPECT_THAT(complete("run " + std::string(length, 'x') + " y z"), IsEmpty()) << length;
        EXPECT_THAT(complete("plugin load " + std::string(length, 'x') + " y z"), IsEmpty()) << length;
        EXPECT_FALSE(wants_file) << length;
    }
}

TEST_F(Commands, completion_knows_the_place_of_every_word_of_a_plugin_command)
{
    const std::vector<std::string> nothing, format{"txt", "pte"}, cpu{"cpu"}, thread{"thread"};
    const struct {
        const char *words;
        std::vector<std::string> offered;
        bool file;
    } rows[] = {
        {"start ", nothing, true},
        {"start a ", format, false},
        {"start a txt ", nothing, true},
        {"start a txt b ", format, false},
        {"start a txt b pte ", nothing, true},
        {"start a txt b pte c ", nothing, false},
        {"stop ", nothing, false},
        {"stop a ", nothing, false},
        {"warm ", nothing, true},
        {"warm a ", nothing, false},
        {"pause ", cpu, false},
        {"pause cpu ", nothing, false},
        {"pause cpu 0 ", thread, false},
        {"pause cpu 0 thread ", nothing, false},
        {"resume ", cpu, false},
        {"resume cpu ", nothing, false},
        {"resume cpu 0 ", thread, false},
        {"resume cpu 0 thread ", nothing, false},
    };
    for (const auto &[words, offered, is_file] : rows) {
        EXPECT_EQ(complete(std::string("plugin signal p.so ") + words), offered) << words;
        EXPECT_EQ(wants_file, is_file) << words;
    }
    EXPECT_THAT(complete("plugin signal "), IsEmpty());
    EXPECT_TRUE(wants_file);
}

TEST_F(Commands, completion_offers_the_words_of_plugin_commands)
{
    const std::string signal = "plugin signal p.so ";
    EXPECT_THAT(complete(signal), ElementsAre("start", "stop", "warm", "pause", "resume"));
    EXPECT_THAT(complete(signal + "st"), ElementsAre("start", "stop"));
    EXPECT_FALSE(wants_file);
    EXPECT_THAT(complete(signal + "start "), IsEmpty());
    EXPECT_TRUE(wants_file);
    EXPECT_THAT(complete(signal + "start t "), ElementsAre("txt", "pte"));
    EXPECT_FALSE(wants_file);
    EXPECT_THAT(complete(signal + "start t txt x p"), ElementsAre("pte"));
    EXPECT_THAT(complete(signal + "warm w"), IsEmpty());
    EXPECT_TRUE(wants_file);
    EXPECT_THAT(complete(signal + "pause "), ElementsAre("cpu"));
    EXPECT_THAT(complete(signal + "resume cpu 0 "), ElementsAre("thread"));
    EXPECT_THAT(complete(signal + "stop "), IsEmpty());
    EXPECT_FALSE(wants_file);
}

TEST(shown_text, control_characters_become_question_marks)
{
    EXPECT_EQ(printable("a\x1b[2J\x7f\tb\n"), "a?[2J??b?");
    EXPECT_EQ(printable("a\tb\n\r", "\t\n"), "a\tb\n?");
    EXPECT_EQ(printable("\xc2\x9b"
                        "31m \xc2\xa9 \xc3\xa9"),
              "?31m \xc2\xa9 \xc3\xa9");
}

TEST(shown_text, only_control_characters_are_replaced)
{
    EXPECT_EQ(printable(" ~\x1f"), " ~?");
    EXPECT_EQ(printable("\xc1\x80 \xc3\x80"), "\xc1\x80 \xc3\x80"); // the bytes beside the one of the second set
    EXPECT_EQ(printable("\xc2\x9f"), "?");
    EXPECT_EQ(printable("\xc2\xa0"), "\xc2\xa0");
    EXPECT_EQ(printable("a\xc2"), "a\xc2");
    EXPECT_EQ(printable("\xc2\x80\xc2\x81z"), "??z");
    EXPECT_EQ(printable("\xc3\x9a"), "\xc3\x9a");
}
