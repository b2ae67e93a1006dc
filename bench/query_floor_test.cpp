// The floor of the benchmarks is only a floor as long as it asks what the plugin asks.
#include "query_floor.h"

#include "plugin_module.h"
#include "qtrace.h"
#include "stream_reader.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <map>

// The writer that the plugin finds in this program.
QTRACE_FDESCR QTRACE_Fopen(const char *, QTRACE_FILE_MODE)
{
    return 0;
}

void QTRACE_Fclose(QTRACE_FDESCR)
{
}

int QTRACE_FwriteFileHeader(QTRACE_FDESCR, QTRACE_FILE_HDR *)
{
    return 0;
}

int QTRACE_FwriteRecord(QTRACE_FDESCR, QTRACE_RECORD *)
{
    return 0;
}

namespace
{

using Queries = std::vector<uint8_t>; // numbers of their names
using Commit = void (*)(void *);

class Query_Log
{
public:
    explicit Query_Log(Queries &to) : to_(to)
    {
        replay::host().set_query_observer([this](std::string_view name) {
            to_.push_back(numbers().try_emplace(std::string(name), numbers().size()).first->second);
        });
    }
    ~Query_Log() { replay::host().set_query_observer(nullptr); }

    static std::string names(const Queries &queries)
    {
        std::map<uint8_t, std::string> by_number;
        for (const auto &[name, number] : numbers())
            by_number[static_cast<uint8_t>(number)] = name;
        std::string text;
        for (const uint8_t number : queries)
            text += by_number[number] + " ";
        return text;
    }

private:
    static std::map<std::string, uint8_t, std::less<>> &numbers()
    {
        static std::map<std::string, uint8_t, std::less<>> known;
        return known;
    }
    Queries &to_;
};

// Every commit of the stream to `commit`; what it asks about each.
std::vector<Queries> queries_of_stream(const std::string &stream, Commit commit)
{
    replay::Stream_Reader reader(stream);
    std::vector<Queries> asked;
    Queries current;
    const Query_Log log(current);
    while (const replay::Stream_Event *event = reader.next()) {
        if (event->kind == replay::Event_Kind::context)
            replay::host().set_context(event->instruction.tid, event->context);
        if (event->kind != replay::Event_Kind::commit)
            continue;
        current.clear();
        commit(replay::handle_of(event->instruction));
        asked.push_back(current);
    }
    EXPECT_FALSE(reader.error());
    return asked;
}

void reset_host(const std::string &stream)
{
    replay::Stream_Reader reader(stream);
    replay::host().reset(reader.next()->machine);
    replay::host().set_console([](const replay::Console_Message &) {});
}

std::vector<Queries> queries_of_plugin(const std::string &stream)
{
    reset_host(stream);
    replay::Plugin_Module plugin;
    EXPECT_EQ(plugin.load(PLUGIN_FILE), "");
    plugin.signal({"start", "trace"});
    return queries_of_stream(stream, reinterpret_cast<Commit>(plugin.symbol("Event_Instruction_Commit")));
}

std::vector<Queries> queries_of_floor(const std::string &stream)
{
    reset_host(stream);
    void *floor = dlopen(FLOOR_FILE, RTLD_NOW | RTLD_LOCAL);
    reinterpret_cast<void (*)()>(dlsym(floor, "floor_start"))();
    auto queries = queries_of_stream(stream, reinterpret_cast<Commit>(dlsym(floor, "floor_commit")));
    dlclose(floor);
    return queries;
}

class Query_Floor : public testing::TestWithParam<const char *>
{
};

TEST_P(Query_Floor, asks_what_the_plugin_asks_in_its_order)
{
    const std::string stream = std::string(STREAM_FOLDER "/") + GetParam();
    const auto plugin = queries_of_plugin(stream);
    const auto floor = queries_of_floor(stream);
    ASSERT_EQ(plugin.size(), floor.size());
    ASSERT_FALSE(plugin.empty());
    for (size_t i = 0; i < plugin.size(); ++i)
        ASSERT_EQ(Query_Log::names(plugin[i]), Query_Log::names(floor[i])) << "commit " << i;
}

INSTANTIATE_TEST_SUITE_P(streams, Query_Floor,
                         testing::Values("boot-user.jsonl.zst", "vector.jsonl.zst", "guest.jsonl.zst",
                                         "hash.jsonl.zst", "firmware.jsonl.zst", "two-cpu.jsonl.zst"));

} // namespace
