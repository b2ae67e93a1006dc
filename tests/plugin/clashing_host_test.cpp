// The built plugin in a host that has symbols of the plugin's names: each keeps to its own.
#include "clashing_names.h"
#include "host.h"
#include "plugin_module.h"
#include "recording_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace
{

constexpr long MARK = 0x5A5A5A5A5A5A5A5A;

class Clashing_Host : public testing::Test
{
protected:
    Clashing_Host()
    {
        for_each_variable([](const Clashing_Variable &own) { std::fill_n(own.words, CLASHING_WORDS, MARK); });
        recording_writer().reset();
        replay::host().reset({.processors = 1, .threads = 2, .version = 3, .memory = 4096, .options = {}});
        replay::host().set_console([this](const replay::Console_Message &message) { said += message.text; });
        std::filesystem::create_directories(folder);
    }
    ~Clashing_Host() override
    {
        plugin.unload();
        replay::host().set_console({});
        std::filesystem::remove_all(folder);
    }
    template <class Visitor> static void for_each_variable(Visitor visitor)
    {
        size_t count = 0;
        const Clashing_Variable *variables = clashing_variables(&count);
        std::for_each_n(variables, count, visitor);
    }
    void commit(int tid, uint64_t seq)
    {
        replay::Instruction instruction;
        instruction.tid = tid;
        instruction.seq = seq;
        instruction.pc = 0x1000 + 4 * seq;
        instruction.npc = instruction.pc + 4;
        instruction.op = static_cast<uint32_t>(seq);
        plugin.commit(instruction);
    }
    // Everything the plugin can do: a session with all three families, a pause, a resume, both kinds of event.
    void run_a_session()
    {
        const std::string base = folder.string() + "/";
        plugin.signal({"start", base + "b", "txt", base + "t", "pte", base + "p"});
        for (uint64_t seq = 0; seq < 4; ++seq)
            commit(0, seq);
        plugin.signal({"pause", "cpu", "0", "thread", "1"});
        plugin.signal({"resume"});
        commit(1, 9);
        replay::Instruction instruction;
        plugin.pre_execution(instruction);
        plugin.pte_access(instruction, {1, {2, 3}});
        plugin.rtpte_access(instruction, {1, 2, 3, 4, 5});
        plugin.signal({"stop"});
    }
    size_t items_in(const std::string &name) const
    {
        const auto *file = recording_writer().file_named((folder / name).string());
        return file ? file->items.size() : 0;
    }
    replay::Plugin_Module plugin;
    std::string said;
    std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("qt_clash_" + std::to_string(getpid()));
};

TEST_F(Clashing_Host, names_are_visible_to_the_loader)
{
    for_each_variable(
        [](const Clashing_Variable &own) { EXPECT_EQ(dlsym(RTLD_DEFAULT, own.name), own.words) << own.name; });
}

TEST_F(Clashing_Host, gets_a_complete_trace)
{
    ASSERT_EQ(plugin.load(PLUGIN_FILE), "");
    run_a_session();
    EXPECT_EQ(items_in("b0"), 5u); // a header and four records
    EXPECT_EQ(items_in("b1"), 2u);
    EXPECT_EQ(std::filesystem::file_size(folder / "p0"), 64u);
    EXPECT_GT(std::filesystem::file_size(folder / "t0"), 0u);
    EXPECT_EQ(recording_writer().open_files(), 0u);
    EXPECT_THAT(said, testing::HasSubstr("Instructions=5 "));
}

TEST_F(Clashing_Host, keeps_its_own_variables_untouched)
{
    ASSERT_EQ(plugin.load(PLUGIN_FILE), "");
    run_a_session();
    plugin.unload();
    for_each_variable([](const Clashing_Variable &own) {
        EXPECT_TRUE(std::all_of(own.words, own.words + CLASHING_WORDS, [](long word) { return word == MARK; }))
            << own.name;
    });
}

TEST_F(Clashing_Host, finds_the_plugins_variables_in_the_plugin)
{
    ASSERT_EQ(plugin.load(PLUGIN_FILE), "");
    for_each_variable([this](const Clashing_Variable &own) {
        EXPECT_NE(plugin.symbol(own.name), nullptr) << own.name;
        EXPECT_NE(plugin.symbol(own.name), own.words) << own.name;
    });
    EXPECT_EQ(*static_cast<int *>(plugin.symbol("thread_num")), 2);
    EXPECT_EQ(*static_cast<void **>(plugin.symbol("handle")), replay::host().client_data());
}

TEST_F(Clashing_Host, can_load_the_plugin_again)
{
    for (int times = 0; times < 2; ++times) {
        ASSERT_EQ(plugin.load(PLUGIN_FILE), "");
        run_a_session();
        plugin.unload();
        EXPECT_EQ(items_in("b0"), 5u);
    }
}

} // namespace
