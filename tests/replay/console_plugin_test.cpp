// Console commands with a plugin: what is loaded, whom words are for, and what the plugin says.

#include "console.h"

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

namespace fs = std::filesystem;

struct With_A_Plugin : testing::Test {
    With_A_Plugin()
    {
        fs::create_directories(folder);
        fs::copy_file(PLUGINS "fake_plugin.so", copy, fs::copy_options::overwrite_existing);
        std::ofstream(folder / "s") << "{\"t\":\"machine\",\"processors\":1,\"threads\":1}\n{\"t\":\"commit\"}\n";
        player = std::make_unique<Player>(folder / "s");
        console = std::make_unique<Console>(*player, out, err);
    }
    ~With_A_Plugin() override
    {
        player->unload_plugin();
        fs::remove_all(folder);
    }

    bool execute(const std::string &line)
    {
        out.str("");
        err.str("");
        return console->execute(line);
    }

    const fs::path folder = fs::temp_directory_path() / ("console_plugin_test_" + std::to_string(getpid()));
    const std::string copy = folder / "copy.so";
    std::unique_ptr<Player> player;
    std::ostringstream out, err;
    std::unique_ptr<Console> console;
};

} // namespace

TEST_F(With_A_Plugin, signal_takes_the_plugins_whole_name_its_last_part_or_another_name_of_the_file)
{
    ASSERT_TRUE(execute("plugin load " + copy));
    fs::create_symlink(copy, folder / "link.so");
    for (const std::string &name : {copy, std::string("copy.so"), (folder / "link.so").string()}) {
        EXPECT_TRUE(execute("plugin signal " + name + " a 'b c'")) << err.str();
        EXPECT_EQ(out.str(), "signal [" + name + "] [a] [b c]\n");
    }
    EXPECT_FALSE(execute("plugin signal other.so a"));
    EXPECT_EQ(out.str() + err.str(), "the plugin other.so is not loaded; " + copy + " is\n");
    fs::remove(copy);
    EXPECT_TRUE(execute("plugin signal " + copy + " a"));
}

TEST_F(With_A_Plugin, warnings_fail_the_command_and_are_counted_for_each)
{
    ASSERT_TRUE(execute("plugin load " + copy));
    EXPECT_FALSE(execute("plugin signal copy.so warn"));
    EXPECT_EQ(err.str(), "warning (2): as you wish\nthe plugin reported a problem\n");
    EXPECT_FALSE(execute("plugin signal copy.so warn twice"));
    EXPECT_EQ(err.str(), "warning (2): as you wish\nwarning (2): as you wish\nthe plugin reported 2 problems\n");
    EXPECT_TRUE(execute("plugin signal copy.so peace"));
    EXPECT_EQ(err.str(), "");
}

TEST_F(With_A_Plugin, loading_is_told_to_a_person_only)
{
    EXPECT_TRUE(execute("plugin load " + copy));
    EXPECT_EQ(out.str(), "init 1 " + copy + " 1\n");
    EXPECT_FALSE(execute("plugin load " + copy));
    EXPECT_EQ(err.str(), "cannot load the plugin: " + copy + " is loaded already\n");
    EXPECT_TRUE(execute("plugin unload"));
    EXPECT_EQ(out.str() + err.str(), "quit\n");
    console->set_interactive();
    EXPECT_TRUE(execute("plugin load " + copy));
    EXPECT_THAT(out.str(), EndsWith("\nloaded " + copy +
                                    "\nevents Event_Instruction_PreExecution, Event_Instruction_Commit, "
                                    "Event_PTE_Access, Event_RTPTE_Access\n"));
}

TEST_F(With_A_Plugin, control_characters_of_its_words_are_replaced_for_a_person_only)
{
    ASSERT_TRUE(execute("plugin load " + copy));
    execute("plugin signal copy.so '\x1b[1m\t'");
    EXPECT_EQ(out.str(), "signal [copy.so] [\x1b[1m\t]\n");
    console->set_interactive();
    execute("plugin signal copy.so '\x1b[1m\t'");
    EXPECT_EQ(out.str(), "signal [copy.so] [?[1m\t]\n");
}

TEST_F(With_A_Plugin, loaded_plugin_is_not_written_over)
{
    ASSERT_TRUE(execute("plugin load " + copy));
    EXPECT_FALSE(execute("plugin signal copy.so warm " + copy));
    EXPECT_EQ(out.str() + err.str(), copy + " is the loaded plugin; it is not written over\n");
}

TEST_F(With_A_Plugin, status_names_it_and_has_no_tables_of_a_plugin_without_them)
{
    ASSERT_TRUE(execute("plugin load " + copy));
    EXPECT_TRUE(execute("status"));
    EXPECT_THAT(out.str(), EndsWith("\nplugin    " + copy + ", session closed\n"));
}

TEST_F(With_A_Plugin, status_lists_paused_threads_of_the_machine_alone)
{
    ASSERT_TRUE(execute("plugin load " + copy));
    ASSERT_TRUE(execute("plugin signal copy.so pause"));
    EXPECT_TRUE(execute("status"));
    EXPECT_THAT(out.str(), EndsWith(", session closed\npaused    threads 0\n"));
}

TEST_F(With_A_Plugin, unloading_leaves_no_session)
{
    EXPECT_FALSE(player->session_open());
    ASSERT_TRUE(execute("plugin load " + copy));
    Kelvo_QTrace_Plugin_Start();
    EXPECT_TRUE(player->session_open());
    EXPECT_TRUE(execute("plugin unload"));
    EXPECT_FALSE(player->session_open());
}

TEST_F(With_A_Plugin, completion_offers_its_name_where_the_typed_word_may_become_that)
{
    bool wants_file = false;
    EXPECT_THAT(console->completions("plugin signal ", wants_file), IsEmpty());
    EXPECT_TRUE(wants_file);
    ASSERT_TRUE(execute("plugin load " + copy));
    for (const char *typed : {"plugin signal ", "plugin signal co", "plugin signal copy.so"}) {
        EXPECT_THAT(console->completions(typed, wants_file), ElementsAre("copy.so"));
        EXPECT_FALSE(wants_file);
    }
    EXPECT_THAT(console->completions("plugin signal ./c", wants_file), IsEmpty());
    EXPECT_TRUE(wants_file);
}
