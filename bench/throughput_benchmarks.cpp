// How fast whole programs get through their files: a replay from the commit stream to the trace, and the reader.
//
//   throughput_benchmarks [Google Benchmark options]
//   throughput_benchmarks --read FILE    counts the records of a trace, collected when run under callgrind
#include "player.h"
#include "qtrace_reader.h"
#include "stream_input.h"
#include "stream_writing.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else // nothing to tell a profiler that is not installed
#define CALLGRIND_TOGGLE_COLLECT
#endif

namespace
{

constexpr const char *COMPRESSED_STREAM = STREAM_FOLDER "/boot-user.jsonl.zst";
constexpr const char *PLAIN_STREAM = OUTPUT_FOLDER "/boot-user.jsonl";
constexpr const char *WRITTEN_STREAM = OUTPUT_FOLDER "/written.jsonl";
constexpr size_t WRITTEN_COMMITS = 20000;
constexpr const char *TRACE = OUTPUT_FOLDER "/replayed";
constexpr const char *FIRST_TRACE_FILE = OUTPUT_FOLDER "/replayed0";

// Plays the whole stream with a binary trace; returns its number of events.
uint64_t replay_stream(const char *stream)
{
    replay::Player player(stream);
    const std::string failure = player.plugin().load(PLUGIN_FILE);
    if (!failure.empty())
        throw std::runtime_error(failure);
    player.plugin().signal({"start", TRACE});
    if (player.run() != replay::Player::End::end_of_stream)
        throw std::runtime_error(std::string(stream) + " cannot be replayed");
    player.plugin().signal({"stop"});
    return player.events();
}

void run_replay(benchmark::State &state, const char *stream)
{
    replay::host().set_console([](const replay::Console_Message &) {});
    uint64_t events = 0;
    for ([[maybe_unused]] auto iteration : state)
        events += replay_stream(stream);
    state.SetItemsProcessed(static_cast<int64_t>(events));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(std::filesystem::file_size(stream)));
}

uint64_t count_records(const char *file)
{
    QTRACE_Reader *reader = qtrace_open(file, nullptr);
    if (!reader)
        throw std::runtime_error(std::string(file) + " is not a trace");
    uint64_t records = 0;
    const QTRACE_Item *item = nullptr;
    for (QTRACE_ITEM kind; (kind = qtrace_next(reader, &item)) != QTRACE_ITEM_END;) {
        const bool paused = kind == QTRACE_ITEM_DISCONTINUITY && item->discontinuity.cause == QTRACE_CAUSE_PAUSE;
        if (kind == QTRACE_ITEM_ERROR || (kind == QTRACE_ITEM_DISCONTINUITY && !paused))
            throw std::runtime_error(qtrace_error(reader));
        records += kind == QTRACE_ITEM_RECORD;
    }
    qtrace_close(reader);
    return records;
}

void run_read(benchmark::State &state)
{
    uint64_t records = 0;
    for ([[maybe_unused]] auto iteration : state)
        records += count_records(FIRST_TRACE_FILE);
    state.SetItemsProcessed(static_cast<int64_t>(records));
    state.counters["bytes_per_record"] = static_cast<double>(std::filesystem::file_size(FIRST_TRACE_FILE)) *
                                         static_cast<double>(state.iterations()) / static_cast<double>(records);
}

// Writes a stream as a simulator does, or reads that stream.
void run_stream(benchmark::State &state, const bench::Stream_Writing &commits, bool reading)
{
    uint64_t lines = 0;
    if (reading)
        commits.write(WRITTEN_STREAM);
    for ([[maybe_unused]] auto iteration : state)
        lines += reading ? bench::read_stream(WRITTEN_STREAM) : commits.write(WRITTEN_STREAM);
    state.SetItemsProcessed(static_cast<int64_t>(lines));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(std::filesystem::file_size(WRITTEN_STREAM)));
}

void write_plain_stream()
{
    std::ofstream plain(PLAIN_STREAM, std::ios::binary);
    replay::Line_Source lines(COMPRESSED_STREAM);
    for (std::string_view line; lines.next(line);)
        plain << line << '\n';
}

int read_only(const char *file)
{
    CALLGRIND_TOGGLE_COLLECT;
    const uint64_t records = count_records(file);
    CALLGRIND_TOGGLE_COLLECT;
    std::printf("%lu\n", records);
    return 0;
}

} // namespace

int main(int argc, char **argv)
try {
    if (argc == 3 && std::string_view(argv[1]) == "--read")
        return read_only(argv[2]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    std::filesystem::create_directories(OUTPUT_FOLDER);
    write_plain_stream();
    replay::host().set_console([](const replay::Console_Message &) {});
    replay_stream(COMPRESSED_STREAM); // leaves the trace that is read
    benchmark::RegisterBenchmark("replay:jsonl", run_replay, PLAIN_STREAM)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("replay:jsonl.zst", run_replay, COMPRESSED_STREAM)->MeasureProcessCPUTime();
    benchmark::RegisterBenchmark("read", run_read)->MeasureProcessCPUTime();
    const bench::Stream_Writing commits(COMPRESSED_STREAM, WRITTEN_COMMITS);
    for (const bool reading : {false, true})
        benchmark::RegisterBenchmark(reading ? "stream:read" : "stream:write", [&commits,
                                                                                reading](benchmark::State &s) {
            run_stream(s, commits, reading);
        })->MeasureProcessCPUTime();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "throughput_benchmarks: %s\n", error.what());
    return 1;
}
