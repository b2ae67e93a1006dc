// What every subcommand of `qtrace` gets: its streams, its common options, the outcome so far.
#pragma once

#include "tool_output.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qtrace_tool
{

// Exit codes. The worst of everything that happened counts, in the order fine, findings, failed.
enum Exit_Code : int {
    EXIT_FINE = 0,
    EXIT_FAILED = 1,   // something could not be done
    EXIT_USAGE = 2,    // the command line is wrong
    EXIT_FINDINGS = 3, // differences, violations or losses were found
};

class Tool_Run
{
public:
    // Data goes to `out`, messages to `err`; both stay the caller's.
    Tool_Run(int out, int err);
    Tool_Run(const Tool_Run &) = delete;
    Tool_Run &operator=(const Tool_Run &) = delete;

    Output out;
    Output err;
    size_t columns; // of the terminal that data goes to; 0: it goes to none
    bool progress;  // a progress line is wanted: messages go to a terminal

    std::function<void()> before_message; // called before each

    // Calls `as_json` or `as_text`, whichever the user asked for. Nothing else knows about --json.
    template <class Text, class Json> void show(Text as_text, Json as_json) const { json_ ? as_json() : as_text(); }
    bool &json_option() { return json_; } // for the command line to set

    void found() { findings_ = true; }
    // Says "qtrace: TEXT" on the message stream.
    void fail(std::string_view text);
    // Same, for something that was lost or is wrong in a trace.
    void warn(std::string_view text);
    Exit_Code exit_code();

private:
    void message(std::string_view text);

    bool json_ = false;
    bool findings_ = false;
    bool failed_ = false;
};

// A line on a terminal that tells how far a long command is: records, percent, rate, time left. Nothing is shown
// before a second has passed. It makes room for data and messages that the run prints meanwhile.
class Progress
{
public:
    // `total` records are expected; 0: unknown.
    Progress(Tool_Run &run, std::string_view what, uint64_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void step(uint64_t items)
    {
        const uint64_t before = done_;
        done_ += items;
        if (before >> 16 != done_ >> 16 && run_.progress)
            show();
    }

private:
    using Clock = std::chrono::steady_clock;
    void show();
    void erase();

    Tool_Run &run_;
    std::string what_;
    uint64_t total_;
    uint64_t done_ = 0;
    Clock::time_point start_ = Clock::now();
    Clock::time_point shown_ = start_;
    bool visible_ = false;
};

// Runs `qtrace ARGUMENTS...` (without the program's name) and returns its exit code.
int run_qtrace(const std::vector<std::string> &arguments, int out, int err);

} // namespace qtrace_tool
