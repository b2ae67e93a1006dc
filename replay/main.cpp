// replay STREAM [SCRIPT]: stands where the simulator stands and plays a recorded commit stream into the plugin.

#include "console.h"
#include "printable.h"
#include "standard_descriptors.h"
#include "stream_check.h"
#include "stream_input.h"
#include "stream_reader.h"
#include "terminal.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <sys/time.h>
#include <unistd.h>

#ifdef REPLAY_WITH_WRITER
#include "qtrace_reader.h"
#endif

namespace
{

constexpr int EXIT_INTERRUPTED = 130; // 128 and the number of SIGINT, as shells have it

replay::Stop_Request *stop_request = nullptr;
std::atomic<bool> leaving = false; // the console is not to go on after the present command

// Calls that wait, as for the reader of a FIFO, are interrupted again and again: libraries repeat interrupted ones for a
// while, and a signal may come just before the call.
void repeat_interruption(bool on)
{
    const timeval interval = {0, on ? 10000 : 0};
    const itimerval timer = {interval, interval};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void stop_running(int signal)
{
    if (signal != SIGINT)
        leaving = true;
    stop_request->request();
    repeat_interruption(true);
}

void end_interruptions_in_time(int)
{
    if (!stop_request->requested())
        repeat_interruption(false);
}

// The traces are closed in order also when somebody stops the run or the reader of our output goes away.
void catch_signals(replay::Stop_Request &stop)
{
    stop_request = &stop;
    struct sigaction action {
    };
    action.sa_handler = stop_running;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
    action.sa_handler = end_interruptions_in_time;
    sigaction(SIGALRM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a file at its size limit is a failed write
}

struct Options {
    std::string stream;
    std::string script;
    bool stop_at_failure = false;
    bool check = false;
};

void describe(CLI::App &app, Options &options)
{
    app.add_option("STREAM", options.stream, "Commit stream: .jsonl or .jsonl.zst; - is standard input")
        ->required();
    app.add_option("SCRIPT", options.script, "Console commands; - or none is standard input");
    app.add_flag("-e,--stop-at-failure", options.stop_at_failure, "End the script at the first failing command");
    app.add_flag("--check", options.check,
                 "Say what in the stream cannot be right and what it holds; load nothing");
    app.set_version_flag("--version", "replay " REPLAY_VERSION, "Print the version and exit");
    app.footer("Exit status: 0 when every command succeeded, 1 when one failed or the stream was refused,\n"
               "130 when interrupted, 2 for a wrong command line.\n"
               "\n"
               "Examples:\n"
               "  replay sample.jsonl                      a console on your terminal\n"
               "  replay boot-user.jsonl.zst trace.console commands from a file\n"
               "  simulator | replay - trace.console       the stream from a pipe\n"
               "  printf '%s\\n' 'plugin load plugin_qtbin.so' 'plugin signal plugin_qtbin.so start trace' \\\n"
               "      run 'plugin signal plugin_qtbin.so stop' | replay sample.jsonl\n"
               "\n"
               "Console: \"help\" lists the commands.");
}

bool report(const std::string &text)
{
    std::cerr << "replay: " << replay::printable(text, "\t\n") << std::endl;
    return false;
}

bool run_script(replay::Console &console, replay::Stop_Request &stop, const Options &options)
try {
    const bool from_stdin = options.script.empty() || options.script == "-";
    const std::string name = from_stdin ? "standard input" : options.script;
    replay::Line_Source lines(from_stdin ? "-" : options.script, &stop);
    const auto next = [&lines](std::string &line) {
        std::string_view text;
        const bool found = lines.next(text);
        line = found ? text : "";
        return found;
    };
    return console.run_script(next, name, options.stop_at_failure);
} catch (const replay::Input_Error &problem) {
    return report(options.script + ": cannot be read: " + problem.what());
}

bool run_commands(replay::Console &console, replay::Player &player, replay::Stop_Request &stop,
                  const Options &options)
{
    const bool from_stdin = options.script.empty() || options.script == "-";
    if (isatty(STDOUT_FILENO) && isatty(STDERR_FILENO))
        replay::show_progress(console, player);
    if (!from_stdin || !isatty(STDIN_FILENO))
        return run_script(console, stop, options);
    console.set_interactive();
    replay::run_terminal(console, stop, leaving);
    return true; // a person has seen what failed
}

// The writer has no way to tell that closing a trace failed but this.
bool writer_is_content()
{
#ifdef REPLAY_WITH_WRITER
    if (const std::string problem = qtrace_writer_error(); !problem.empty())
        return report(problem);
#endif
    return true;
}

bool output_is_written()
{
    return std::cout.flush() ? true : report("standard output cannot be written");
}

int check_stream(const Options &options, replay::Stop_Request &stop)
{
    replay::Stream_Reader reader(options.stream, &stop);
    const replay::Check_Result result = replay::check_stream(reader, options.stream, std::cout);
    const bool written = output_is_written();
    if (stop.requested())
        return EXIT_INTERRUPTED;
    return result.findings == 0 && result.complete && written ? 0 : 1;
}

int replay_stream(const Options &options, replay::Stop_Request &stop)
{
    replay::Player player(options.stream, &stop);
    if (player.error()) {
        report(options.stream + ": " + player.error()->text());
        return 1;
    }
    replay::Console console(player, std::cout, std::cerr);
    console.protect(options.stream, "the commit stream");
    console.protect(options.script, "the script");
    const bool done = !stop.requested() && run_commands(console, player, stop, options);
    player.unload_plugin();
    const bool traced = writer_is_content();
    const bool written = output_is_written();
    if (stop.requested() || leaving)
        return EXIT_INTERRUPTED;
    return done && traced && written ? 0 : 1;
}

} // namespace

#ifdef __SANITIZE_ADDRESS__
// What a trace plugin loses on purpose, by function: the comment of a header belongs to the writer for ever.
extern "C" {
const char *__lsan_default_suppressions();
const char *__lsan_default_suppressions()
{
    return "leak:new_comment\n";
}
const char *__lsan_default_options();
const char *__lsan_default_options()
{
    return "print_suppressions=0";
}
}
#endif

int main(int argc, char **argv)
try {
    occupy_standard_descriptors();
    Options options;
    CLI::App app("Plays a recorded commit stream into a trace plugin, in place of the simulator.", "replay");
    describe(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (options.check && !options.script.empty()) {
        report("--check takes no SCRIPT");
        return 2;
    }
    if (!options.check && options.stream == "-" && (options.script.empty() || options.script == "-")) {
        report("standard input cannot be both the stream and the commands; name a SCRIPT");
        return 2;
    }
    replay::Stop_Request stop;
    catch_signals(stop);
    return options.check ? check_stream(options, stop) : replay_stream(options, stop);
} catch (const std::bad_alloc &) {
    std::fputs("replay: out of memory\n", stderr);
    return 1;
} catch (const std::exception &problem) {
    std::fprintf(stderr, "replay: %s\n", problem.what());
    return 1;
}
