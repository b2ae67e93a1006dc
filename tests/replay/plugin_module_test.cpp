// Loading plugins, and a stream played into them.

#include "player.h"
#include "recording_writer.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

using namespace replay;
using testing::HasSubstr;

namespace
{

struct Loading : testing::Test {
    Loading()
    {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
        host().reset({.processors = 1, .threads = 2, .version = 0, .memory = 0, .options = {}});
        host().set_console([this](const Console_Message &message) { said += message.text; });
        recording_writer().reset();
    }
    ~Loading() override
    {
        host().set_console({});
        std::filesystem::remove_all(folder);
    }

    std::string write_stream(const std::string &lines) const
    {
        const std::string file = folder / "stream.jsonl";
        std::ofstream(file) << lines;
        return file;
    }

    // What was said since the last call.
    std::string news() { return std::exchange(said, {}); }

    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("plugin_module_test_" + std::to_string(getpid()));
    std::string said;
    const std::string fake = PLUGINS "fake_plugin.so";
    const std::string real = PLUGINS "plugin_qtbin.so";
};

} // namespace

TEST_F(Loading, initialises_signals_and_quits_the_plugin)
{
    Plugin_Module plugin;
    EXPECT_EQ(plugin.load(fake), "");
    EXPECT_TRUE(plugin.loaded());
    EXPECT_EQ(news(), "init 1 " + fake + " 2\n");
    plugin.signal({"start", "a b"});
    EXPECT_EQ(news(), "signal [" + fake + "] [start] [a b]\n");
    plugin.signal("typed.so", {"stop"});
    EXPECT_EQ(news(), "signal [typed.so] [stop]\n");
    plugin.unload();
    EXPECT_EQ(news(), "quit\n");
    EXPECT_FALSE(plugin.loaded());
}

TEST_F(Loading, unloads_at_the_end)
{
    {
        Plugin_Module plugin;
        ASSERT_EQ(plugin.load(fake), "");
    }
    EXPECT_THAT(said, HasSubstr("quit\n"));
}

TEST_F(Loading, delivers_every_event_to_its_handler)
{
    Plugin_Module plugin;
    ASSERT_EQ(plugin.load(fake), "");
    news();
    Instruction instruction;
    instruction.tid = 1;
    instruction.seq = 5;
    plugin.pre_execution(instruction);
    plugin.commit(instruction);
    plugin.pte_access(instruction, {0x1, {0x2, 0x3}});
    plugin.rtpte_access(instruction, {0xa, 0xb, 0xc, 0xd, 0xe});
    EXPECT_EQ(news(), "pre 1\ncommit 1 5 at 0\npte 1 1 2 3\nrtpte 1 a b c d e\n");
}

TEST_F(Loading, without_a_plugin_events_go_nowhere)
{
    Plugin_Module plugin;
    plugin.commit({});
    plugin.signal({"start"});
    plugin.unload();
    EXPECT_EQ(plugin.symbol("plugin_init"), nullptr);
    EXPECT_EQ(said, "");
}

TEST_F(Loading, can_be_repeated_after_unloading)
{
    Plugin_Module plugin;
    ASSERT_EQ(plugin.load(fake), "");
    EXPECT_EQ(plugin.load(fake), fake + " is loaded already");
    plugin.unload();
    EXPECT_EQ(plugin.load(fake), "");
}

TEST_F(Loading, says_why_a_file_cannot_be_a_plugin)
{
    Plugin_Module plugin;
    EXPECT_THAT(plugin.load("no_such_plugin.so"), HasSubstr("./no_such_plugin.so: cannot open shared object file"));
    EXPECT_THAT(plugin.load(write_stream("text")), HasSubstr("stream.jsonl"));
    EXPECT_THAT(plugin.load(PLUGINS "fake_plugin_without_quit.so"), HasSubstr("has no plugin_quit"));
    EXPECT_THAT(plugin.load(PLUGINS "fake_plugin_without_handler.so"),
                HasSubstr("does not export its handler Event_Of_Nobody"));
    EXPECT_FALSE(plugin.loaded());
    EXPECT_EQ(plugin.file(), "");
}

TEST_F(Loading, machine_refused_by_plugin_init_leaves_nothing_loaded)
{
    Plugin_Module plugin;
    EXPECT_THAT(plugin.load(PLUGINS "fake_plugin_refusing.so"), HasSubstr("plugin_init returned no event table"));
    EXPECT_FALSE(plugin.loaded());
    EXPECT_THAT(said, testing::Not(HasSubstr("quit"))); // there is nothing that could quit
}

// ---- streams --------------------------------------------------------------------------------------------

TEST_F(Loading, player_moves_time_and_state_and_delivers_in_order)
{
    Player player(write_stream(R"({"t":"machine","processors":1,"threads":2}
{"t":"commit","tid":0,"seq":1}
{"t":"context","tid":1,"pid":9}
{"t":"pre","tid":1}
{"t":"commit","tid":1,"seq":2,"time":"0x64"}
{"t":"pte","tid":1,"pa":1,"upper":2,"lower":3}
{"t":"rtpte","tid":0,"l1":1,"l2":2,"l3":3,"pte":4,"pa":5}
{"t":"commit","tid":0,"seq":3}
)"));
    ASSERT_EQ(player.plugin().load(fake), "");
    news();
    EXPECT_EQ(player.run(2), Player::End::limit);
    EXPECT_EQ(news(), "commit 0 1 at 1\npre 1\n");
    EXPECT_EQ(host().context(1).pid, 9u);
    EXPECT_EQ(player.run(), Player::End::end_of_stream);
    EXPECT_EQ(news(), "commit 1 2 at 100\npte 1 1 2 3\nrtpte 0 1 2 3 4 5\ncommit 0 3 at 101\n");
    EXPECT_EQ(player.events(), 6u);
    EXPECT_EQ(player.lines_of(Event_Kind::context), 1u);
    EXPECT_EQ(player.run(), Player::End::end_of_stream);
}

TEST_F(Loading, refused_line_is_not_delivered_and_ends_the_run)
{
    Player player(write_stream(R"({"t":"machine","processors":1,"threads":1}
{"t":"commit","tid":0,"seq":1}
{"t":"commit","tid":0,"seq":2,"op":"0x123456789"}
{"t":"commit","tid":0,"seq":3}
)"));
    ASSERT_EQ(player.plugin().load(fake), "");
    news();
    EXPECT_EQ(player.run(), Player::End::refused_input);
    EXPECT_EQ(news(), "commit 0 1 at 1\n");
    EXPECT_EQ(player.error()->line, 3u);
    EXPECT_EQ(player.run(), Player::End::refused_input);
    EXPECT_EQ(host().raw_time(), 1u);
}

TEST_F(Loading, stop_ends_a_run_before_its_next_event)
{
    Player player(
        write_stream("{\"t\":\"machine\",\"processors\":1,\"threads\":1}\n{\"t\":\"commit\",\"seq\":1}\n"));
    player.stop();
    EXPECT_EQ(player.run(), Player::End::stopped);
    EXPECT_EQ(player.events(), 0u);
    player.forget_stop();
    EXPECT_EQ(player.run(), Player::End::end_of_stream);
    EXPECT_EQ(player.events(), 1u);
}

TEST_F(Loading, warm_file_is_the_beginning_of_a_stream_from_here)
{
    const std::string warm = folder / "warm";
    {
        Player player(
            write_stream(R"({"t":"machine","processors":1,"threads":2,"version":3,"memory":"0x1000","options":[450]}
{"t":"context","tid":1,"ptcr":"0xc","lpid":"0x2","pid":7,"sdr1":5,"bit64":true,"kernel":true,"pages":["64K","2M"]}
)"));
        EXPECT_EQ(player.run(), Player::End::end_of_stream);
        warm_dump(warm.c_str(), currentMachine);
    }
    Player again(warm);
    ASSERT_FALSE(again.error()) << again.error()->text();
    EXPECT_EQ(again.run(), Player::End::end_of_stream);
    EXPECT_EQ(host().shape().memory, 0x1000u);
    EXPECT_EQ(host().shape().options, std::vector<unsigned>{450});
    EXPECT_EQ(host().context(1).ptcr, 0xcu);
    EXPECT_EQ(host().context(1).lpid, 2u);
    EXPECT_EQ(host().context(1).pid, 7u);
    EXPECT_EQ(host().context(1).sdr1, 5u);
    EXPECT_TRUE(host().context(1).bit64 && host().context(1).kernel);
    EXPECT_FALSE(host().context(1).little_endian || host().context(1).cycle_mode);
    EXPECT_TRUE(host().context(1).pages.PAGE_64K && host().context(1).pages.PAGE_2M);
    EXPECT_FALSE(host().context(1).pages.PAGE_4K || host().context(1).guest_pages.PAGE_64K);
}

TEST_F(Loading, warm_file_that_cannot_be_written_is_an_error_of_the_host)
{
    Player player(write_stream("{\"t\":\"machine\",\"processors\":1,\"threads\":1}\n"));
    warm_dump((folder / "none" / "warm").c_str(), currentMachine);
    EXPECT_THAT(said, HasSubstr("No such file or directory"));
}

TEST_F(Loading, warm_file_on_a_full_disk_is_an_error_of_the_host)
{
    Player player(write_stream("{\"t\":\"machine\",\"processors\":64,\"threads\":64}\n"));
    int level = -1;
    host().set_console([&](const Console_Message &message) {
        said += description_of(message);
        level = message.level;
    });
    warm_dump("/dev/full", currentMachine);
    EXPECT_EQ(said, "error (replay:0): /dev/full: No space left on device\n");
    EXPECT_EQ(level, 0);
}

TEST_F(Loading, warm_file_has_machine_and_contexts_byte_for_byte)
{
    const std::string warm = folder / "warm";
    Player player(write_stream(
        R"({"t":"machine","processors":1,"threads":2,"version":3,"memory":4096,"options":[450,451],"source":"x"}
{"t":"context","tid":0,"ptcr":"0xc","lpid":2,"pid":7,"sdr1":5,"bit64":1,"cycle_mode":1,"pages":["4K","undefined"]}
{"t":"context","tid":1,"little_endian":true,"kernel":true,"guest_pages":["2M","16G"]}
)"));
    EXPECT_EQ(player.run(), Player::End::end_of_stream);
    warm_dump(warm.c_str(), currentMachine);
    std::ostringstream written;
    written << std::ifstream(warm).rdbuf();
    EXPECT_EQ(written.str(),
              R"({"t":"machine","processors":1,"threads":2,"version":3,"memory":"0x1000","options":[450,451]}
{"t":"context","tid":0,"ptcr":"0xc","lpid":"0x2","pid":"0x7","sdr1":"0x5","bit64":true,"little_endian":false,)"
              R"("kernel":false,"cycle_mode":true,"pages":["4K","undefined"],"guest_pages":[]}
{"t":"context","tid":1,"ptcr":"0x0","lpid":"0x0","pid":"0x0","sdr1":"0x0","bit64":false,"little_endian":true,)"
              R"("kernel":true,"cycle_mode":false,"pages":[],"guest_pages":["2M","16G"]}
)");
}

// ---- other sources of events ------------------------------------------------------------------------------

namespace
{

// A machine of two threads, then a commit for each of `tids`.
class Listed_Commits : public Event_Source
{
public:
    explicit Listed_Commits(std::vector<int> tids) : tids_(std::move(tids)) {}

    const Stream_Event *next() override
    {
        event_.kind = line_ == 0 ? Event_Kind::machine : Event_Kind::commit;
        event_.machine = {.processors = 1, .threads = 2, .version = 0, .memory = 0, .options = {}};
        event_.source = "a list";
        if (line_ > tids_.size())
            return nullptr;
        if (line_ > 0)
            event_.instruction.tid = tids_[line_ - 1];
        ++line_;
        return &event_;
    }
    const std::optional<Stream_Error> &error() const override { return error_; }
    uint64_t line_number() const override { return line_; }
    uint64_t bytes_used() const override { return 0; }
    std::optional<uint64_t> input_size() const override { return {}; }

private:
    std::vector<int> tids_;
    size_t line_ = 0;
    Stream_Event event_{};
    std::optional<Stream_Error> error_;
};

} // namespace

TEST_F(Loading, player_takes_events_from_any_source)
{
    Player player("list", std::make_unique<Listed_Commits>(std::vector<int>{1, 0}));
    EXPECT_EQ(player.source(), "a list");
    EXPECT_EQ(host().thread_count(), 2);
    ASSERT_EQ(player.plugin().load(fake), "");
    news();
    EXPECT_EQ(player.run(), Player::End::end_of_stream);
    EXPECT_EQ(news(), "commit 1 0 at 1\ncommit 0 0 at 2\n");
    EXPECT_EQ(player.file(), "list");
}

TEST_F(Loading, player_tells_its_progress_every_8192_events)
{
    Player player("list", std::make_unique<Listed_Commits>(std::vector<int>(16384)));
    std::vector<uint64_t> told;
    player.set_progress([&] { told.push_back(player.events()); });
    EXPECT_EQ(player.run(), Player::End::end_of_stream);
    EXPECT_THAT(told, testing::ElementsAre(8192u, 16384u));
}

// ---- the trace plugin -----------------------------------------------------------------------------------

TEST_F(Loading, trace_plugin_writes_one_record_per_commit_of_a_recorded_stream)
{
    Player player(STREAMS_FOLDER "/sample.jsonl");
    ASSERT_EQ(player.plugin().load(real), "");
    player.plugin().signal({"start", folder / "trace", "pte", folder / "pte"});
    EXPECT_TRUE(player.session_open());
    EXPECT_EQ(player.run(), Player::End::end_of_stream);
    player.plugin().signal({"stop"});
    EXPECT_FALSE(player.session_open());
    EXPECT_THAT(said, HasSubstr("QTRACE: Stop generating qtrace."));
    size_t records = 0;
    for (const auto &item : recording_writer().file_named(folder / "trace0")->items)
        records += std::holds_alternative<QTRACE_RECORD>(item) ? 1 : 0;
    EXPECT_EQ(records, 2000u);
    const uint64_t walks = player.lines_of(Event_Kind::rtpte);
    EXPECT_GT(walks, 0u);
    EXPECT_EQ(std::filesystem::file_size(folder / "pte0"), walks * sizeof(RTPTE_Event_Info));
}

TEST_F(Loading, unloading_the_trace_plugin_closes_its_session)
{
    Player player(STREAMS_FOLDER "/sample.jsonl");
    ASSERT_EQ(player.plugin().load(real), "");
    player.plugin().signal({"start", folder / "trace"});
    EXPECT_EQ(player.run(10), Player::End::limit);
    EXPECT_EQ(recording_writer().open_files(), 1u);
    player.plugin().unload();
    EXPECT_EQ(recording_writer().open_files(), 0u);
    EXPECT_EQ(recording_writer().file_named(folder / "trace0")->items.size(), 11u); // a header and ten records
}

TEST_F(Loading, trace_plugin_refuses_a_machine_without_processors)
{
    Player player(write_stream("{\"t\":\"machine\",\"processors\":0,\"threads\":1}\n"));
    EXPECT_THAT(player.plugin().load(real), HasSubstr("refused"));
    EXPECT_THAT(said, HasSubstr("Number of processors SHOULD NOT BE 0!"));
}
