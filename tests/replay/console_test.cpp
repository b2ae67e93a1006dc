// Console commands: grammar, failures, scripts, completion. No plugin is involved here.

#include "console.h"
#include "printable.h"

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
