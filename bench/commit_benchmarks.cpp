// What tracing costs a host: time per committed instruction with and without the plugin, with a text trace, with
// the reference writer; events of page-table accesses; opening and closing sessions; growth.
//
//   commit_benchmarks [Google Benchmark options]
//   commit_benchmarks --start-stop-memory THREADS    kilobytes that a session adds: resident and virtual
//   commit_benchmarks --own-time STREAM              nanoseconds per commit by shared object, as JSON
//   commit_benchmarks --instructions STREAM COMMITS  commits only, collected when run under callgrind
//   commit_benchmarks --text-instructions STREAM COMMITS  the same with a text trace
//   commit_benchmarks --write-trace STREAM COMMITS BASE   a session with the reference writer, collected likewise
#include "query_floor.h"
#include "time_samples.h"
#include "traced_session.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <unistd.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else // nothing to tell a profiler that is not installed
#define CALLGRIND_TOGGLE_COLLECT
#endif

namespace
{

using bench::Decoded_Stream;
using bench::Instruction;
using bench::Plugin;

constexpr const char *STREAMS[] = {"boot-user", "vector", "guest"};
constexpr const char *MAIN_STREAM = STREAMS[0];
constexpr int64_t TEXT_COMMITS = 20'000;    // of each stream; 15 megabytes of text
constexpr int64_t THREAD_REPEATS = 2'000;   // instructions that each of many threads executes again and again
constexpr int64_t THREAD_COMMITS = 256'000; // of all threads together

std::string stream_file(const std::string &name)
{
    return std::string(STREAM_FOLDER "/") + name + ".jsonl.zst";
}

std::string output_file(const std::string &name)
{
    return std::string(OUTPUT_FOLDER "/") + name;
}

const std::unique_ptr<Decoded_Stream> &stream_named(const std::string &name)
{
    static std::map<std::string, std::unique_ptr<Decoded_Stream>> decoded;
    std::unique_ptr<Decoded_Stream> &stream = decoded[name];
    if (!stream)
        stream = std::make_unique<Decoded_Stream>(stream_file(name), SIZE_MAX);
    return stream;
}

Plugin &the_plugin()
{
    static Plugin plugin(PLUGIN_FILE);
    return plugin;
}

const bench::Writer &reference_writer()
{
    static const bench::Writer writer = bench::load_writer(WRITER_FILE);
    return writer;
}

// A session on the machine of a stream, closed at the end of its scope.
class Session
{
public:
    Session(const Decoded_Stream &stream, uint32_t threads, const bench::Writer *writer,
            const std::string &text = {}, const std::string &pte = {})
    {
        bench::set_writer(writer);
        the_plugin().initialize(threads, stream.version, stream.memory);
        the_plugin().start(output_file("trace"), text, pte);
    }
    ~Session()
    {
        the_plugin().stop();
        bench::set_writer(nullptr);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
};

void deliver(bench::Handler commit, std::vector<Instruction> &instructions, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        commit(&instructions[i]);
}

// Any number of commits, the stream over and over.
void deliver_repeatedly(bench::Handler commit, std::vector<Instruction> &instructions, size_t count)
{
    for (; count > instructions.size(); count -= instructions.size())
        deliver(commit, instructions, instructions.size());
    deliver(commit, instructions, count);
}

void set_commits(benchmark::State &state, size_t commits_an_iteration)
{
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(commits_an_iteration));
}

// ---- Time per commit ----------------------------------------------------------------------------------------

void run_floor(benchmark::State &state, const char *name)
{
    static void *const library = bench::load_object(FLOOR_FILE);
    static const auto commit = reinterpret_cast<bench::Handler>(bench::find_function(library, "floor_commit"));
    auto &instructions = stream_named(name)->instructions;
    for ([[maybe_unused]] auto iteration : state)
        deliver(commit, instructions, instructions.size());
    set_commits(state, instructions.size());
}

void run_commit_bin(benchmark::State &state, const char *name)
{
    Decoded_Stream &stream = *stream_named(name);
    const Session session(stream, stream.threads, nullptr);
    for ([[maybe_unused]] auto iteration : state)
        deliver(the_plugin().commit, stream.instructions, stream.instructions.size());
    set_commits(state, stream.instructions.size());
}

// Sessions as a whole: a writer that puts work off until it closes its file does not get it for nothing.
void run_commit_qtrace(benchmark::State &state, const char *name)
{
    Decoded_Stream &stream = *stream_named(name);
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming(); // a new file each time: to replace one costs the file system more
        std::filesystem::remove(output_file("trace0"));
        state.ResumeTiming();
        const Session session(stream, stream.threads, &reference_writer());
        deliver(the_plugin().commit, stream.instructions, stream.instructions.size());
    }
    set_commits(state, stream.instructions.size());
    state.counters["bytes_per_record"] = static_cast<double>(std::filesystem::file_size(output_file("trace0"))) /
                                         static_cast<double>(stream.instructions.size());
}

void run_commit_text(benchmark::State &state, const char *name)
{
    Decoded_Stream &stream = *stream_named(name);
    const Session session(stream, stream.threads, nullptr, output_file("text"));
    for ([[maybe_unused]] auto iteration : state)
        deliver(the_plugin().commit, stream.instructions, TEXT_COMMITS);
    set_commits(state, TEXT_COMMITS);
}

std::string text_of(const char *name)
{
    Decoded_Stream &stream = *stream_named(name);
    {
        const Session session(stream, stream.threads, nullptr, output_file("text"));
        deliver(the_plugin().commit, stream.instructions, TEXT_COMMITS);
    }
    std::ostringstream text;
    text << std::ifstream(output_file("text0")).rdbuf();
    return text.str();
}

void write_lines(int file, const std::string &text)
{
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at) + 1;
        if (write(file, text.data() + at, end - at) < 0)
            throw std::runtime_error("cannot write the lines of a text trace");
        at = end;
    }
}

void run_write(benchmark::State &state, const char *name)
{
    static std::map<std::string, std::string> texts;
    std::string &text = texts[name];
    if (text.empty())
        text = text_of(name);
    const int file = open(output_file("write0").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    for ([[maybe_unused]] auto iteration : state)
        write_lines(file, text);
    close(file);
    set_commits(state, TEXT_COMMITS);
}

// ---- Page-table events --------------------------------------------------------------------------------------

void run_pte(benchmark::State &state)
{
    Decoded_Stream &stream = *stream_named(MAIN_STREAM);
    const Session session(stream, stream.threads, nullptr, {}, output_file("pte"));
    PTE_Event_Info hashed{0x1000, {0x2000, 0x3000}};
    RTPTE_Event_Info radix{0x1000, 0x2000, 0x3000, 0x4000, 0x5000};
    for ([[maybe_unused]] auto iteration : state) {
        the_plugin().pte_access(stream.instructions.data(), &hashed);
        the_plugin().rtpte_access(stream.instructions.data(), &radix);
    }
    set_commits(state, 2);
}

// ---- Sessions -----------------------------------------------------------------------------------------------

struct Memory {
    long resident, virtual_size; // kilobytes
};

Memory memory_of_process()
{
    Memory pages{};
    std::ifstream("/proc/self/statm") >> pages.virtual_size >> pages.resident;
    const long page = sysconf(_SC_PAGESIZE) / 1024;
    return {pages.resident * page, pages.virtual_size * page};
}

// What `start` adds, measured in a process that has done nothing else: one that has would have memory to reuse.
int print_session_memory(uint32_t threads)
{
    bench::set_writer(&reference_writer());
    the_plugin().initialize(threads, 3, 0);
    const Memory before = memory_of_process();
    the_plugin().start(output_file("trace"));
    const Memory after = memory_of_process();
    the_plugin().stop();
    std::printf("%ld %ld\n", after.resident - before.resident, after.virtual_size - before.virtual_size);
    return 0;
}

Memory memory_of_session(int64_t threads)
{
    const std::string command =
        "/proc/" + std::to_string(getpid()) + "/exe --start-stop-memory " + std::to_string(threads);
    const std::unique_ptr<FILE, int (*)(FILE *)> child(popen(command.c_str(), "r"), pclose); // NOLINT(cert-env33-c)
    Memory memory{};
    // NOLINTNEXTLINE(cert-err34-c): two numbers that this program has printed
    if (!child || std::fscanf(child.get(), "%ld %ld", &memory.resident, &memory.virtual_size) != 2)
        throw std::runtime_error("no answer from " + command);
    return memory;
}

void run_start_stop(benchmark::State &state)
{
    const auto threads = static_cast<uint32_t>(state.range(0));
    the_plugin().initialize(threads, 3, 0);
    bench::set_writer(&reference_writer());
    for ([[maybe_unused]] auto iteration : state) {
        the_plugin().start(output_file("trace"));
        the_plugin().stop();
    }
    bench::set_writer(nullptr);
    static std::map<int64_t, Memory> measured;
    if (!measured.contains(threads))
        measured[threads] = memory_of_session(threads);
    state.counters["resident_kilobytes"] = static_cast<double>(measured[threads].resident);
    state.counters["virtual_kilobytes"] = static_cast<double>(measured[threads].virtual_size);
}

// ---- Growth -------------------------------------------------------------------------------------------------

void run_long_session(benchmark::State &state)
{
    const auto commits = static_cast<size_t>(state.range(0));
    Decoded_Stream &stream = *stream_named(MAIN_STREAM);
    // a short session sees the beginning of the stream only, so all repeat just that
    std::vector<Instruction> instructions(stream.instructions.begin(), stream.instructions.begin() + 10'000);
    const Session session(stream, stream.threads, nullptr);
    for ([[maybe_unused]] auto iteration : state)
        deliver_repeatedly(the_plugin().commit, instructions, commits);
    set_commits(state, commits);
}

// Every thread executes the same instructions; after each instruction it is the next thread's turn.
void run_interleaved(benchmark::State &state)
{
    const auto threads = static_cast<uint32_t>(state.range(0));
    Decoded_Stream &stream = *stream_named(MAIN_STREAM);
    std::vector<Instruction> repeated(stream.instructions.begin(), stream.instructions.begin() + THREAD_REPEATS);
    const Session session(stream, threads, nullptr);
    const bench::Handler commit = the_plugin().commit;
    for ([[maybe_unused]] auto iteration : state)
        for (int64_t commits = 0; commits < THREAD_COMMITS; commits += THREAD_REPEATS * threads)
            for (Instruction &instruction : repeated)
                for (uint32_t tid = 0; tid < threads; ++tid) {
                    instruction.tid = static_cast<int32_t>(tid);
                    commit(&instruction);
                }
    set_commits(state, THREAD_COMMITS);
}

// ---- The program --------------------------------------------------------------------------------------------

void register_benchmarks()
{
    using benchmark::RegisterBenchmark;
    for (const char *stream : STREAMS) {
        const auto name = [stream](const char *what) { return std::string(what) + ":" + stream; };
        RegisterBenchmark(name("floor").c_str(), run_floor, stream);
        RegisterBenchmark(name("commit/bin").c_str(), run_commit_bin, stream);
        RegisterBenchmark(name("commit/bin+qtrace").c_str(), run_commit_qtrace, stream)->MeasureProcessCPUTime();
        RegisterBenchmark(name("commit/text").c_str(), run_commit_text, stream)->Iterations(1);
        RegisterBenchmark(name("write").c_str(), run_write, stream)->Iterations(1);
    }
    RegisterBenchmark("pte", run_pte);
    RegisterBenchmark("start+stop", run_start_stop)
        ->Arg(1)
        ->Arg(16)
        ->Arg(128)
        ->Arg(1024)
        ->Iterations(2)
        ->Repetitions(3);
    RegisterBenchmark("growth/commits", run_long_session)
        ->RangeMultiplier(10)
        ->Range(10'000, 10'000'000)
        ->Iterations(1);
    RegisterBenchmark("growth/threads", run_interleaved)->RangeMultiplier(2)->Range(1, 128);
}

// Every hardware thread has a file.
void allow_many_files()
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
}

int run_benchmarks(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    register_benchmarks();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

// The own time of plugin, writer and the libraries under it, while whole sessions are traced.
int print_own_times(const std::string &name)
{
    constexpr double SECONDS = 8;
    Decoded_Stream &stream = *stream_named(name);
    const bench::Time_Samples samples;
    const auto seconds_used = [] { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; };
    const double begin = seconds_used();
    size_t commits = 0;
    while (seconds_used() < begin + SECONDS) {
        std::filesystem::remove(output_file("trace0"));
        const Session session(stream, stream.threads, &reference_writer());
        deliver(the_plugin().commit, stream.instructions, stream.instructions.size());
        commits += stream.instructions.size();
    }
    const double per_commit = 1e9 * (seconds_used() - begin) / static_cast<double>(commits);
    const char *separator = "{";
    for (const auto &[object, share] : samples.shares()) {
        std::printf("%s\"%s\": %.2f", separator, object.c_str(), share * per_commit);
        separator = ", ";
    }
    std::puts("}");
    return 0;
}

int run_commits_only(const std::string &name, size_t commits, const std::string &text)
{
    Decoded_Stream stream(stream_file(name), commits);
    const Session session(stream, stream.threads, nullptr, text);
    CALLGRIND_TOGGLE_COLLECT;
    deliver(the_plugin().commit, stream.instructions, stream.instructions.size());
    CALLGRIND_TOGGLE_COLLECT;
    std::printf("%zu\n", stream.instructions.size());
    return 0;
}

// Instructions of the stream, over and over; what the writer does until its file is closed is collected.
int write_trace(const std::string &name, size_t commits, const std::string &base)
{
    Decoded_Stream stream(stream_file(name), commits);
    bench::set_writer(&reference_writer());
    the_plugin().initialize(stream.threads, stream.version, stream.memory);
    the_plugin().start(base);
    CALLGRIND_TOGGLE_COLLECT;
    deliver_repeatedly(the_plugin().commit, stream.instructions, commits);
    the_plugin().stop();
    CALLGRIND_TOGGLE_COLLECT;
    std::printf("%zu\n", commits);
    return 0;
}

} // namespace

int main(int argc, char **argv)
try {
    allow_many_files();
    std::filesystem::create_directories(OUTPUT_FOLDER);
    if (argc == 3 && std::strcmp(argv[1], "--start-stop-memory") == 0)
        return print_session_memory(static_cast<uint32_t>(std::stoul(argv[2])));
    if (argc == 3 && std::strcmp(argv[1], "--own-time") == 0)
        return print_own_times(argv[2]);
    if (argc == 4 && std::strcmp(argv[1], "--instructions") == 0)
        return run_commits_only(argv[2], std::stoul(argv[3]), {});
    if (argc == 4 && std::strcmp(argv[1], "--text-instructions") == 0)
        return run_commits_only(argv[2], std::stoul(argv[3]), output_file("text"));
    if (argc == 5 && std::strcmp(argv[1], "--write-trace") == 0)
        return write_trace(argv[2], std::stoul(argv[3]), argv[4]);
    return run_benchmarks(argc, argv);
} catch (const std::exception &error) {
    std::fprintf(stderr, "commit_benchmarks: %s\n", error.what());
    return 1;
}
