// The subcommands of `qtrace`. Each declares its options, and does its work with a run.
#pragma once

#include "command_options.h"
#include "tool_run.h"
#include "trace_counts.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qtrace_tool
{

class Command
{
public:
    virtual ~Command() = default;
    virtual void declare(Options &app) = 0;
    virtual void run(Tool_Run &run) = 0;
};

struct Command_Info {
    const char *name;
    const char *summary;
    const char *examples[2]; // "COMMAND    what it does"
    std::unique_ptr<Command> (*make)();
};

// The FILE... argument that most subcommands take. One that can do without it sets required(false), and asks
// require_files() when it cannot.
Option *declare_files(Options &app, std::vector<std::string> &files);
void require_files(const std::vector<std::string> &files);

// An option that takes a number: decimal, or hexadecimal after 0x, and below 2^64.
Option *declare_number(Options &app, const std::string &name, uint64_t &number, const std::string &description);
// Digits alone, all of `text`; nothing when it is anything else. Hexadecimal ones may begin with 0x.
std::optional<uint64_t> parse_digits(std::string_view text, int base);

// --page-bits, the sizes that page-size codes stand for; page_sizes() makes them of what it was given.
void declare_page_bits(Options &app, std::vector<uint32_t> &bits);
Page_Sizes page_sizes(const std::vector<uint32_t> &bits);

struct Symbol_Options;
// --symbols, and --load-address for the file of the --symbols before it.
void declare_symbols(Options &app, Symbol_Options &options);

struct Scan_Options;
struct Record_Range;
// --from and --count.
void declare_range(Options &app, Record_Range &range);
void declare_jobs(Options &app, unsigned &jobs);
// --jobs, --from and --count.
void declare_scan(Options &app, Scan_Options &options);

// A command line that is wrong in a way that only a subcommand sees: exit code 2.
struct Usage_Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// "unknown WHAT `UNKNOWN`", with a suggestion where there is one.
Usage_Error unknown_word(const std::string &what, const std::string &unknown,
                         const std::vector<std::string> &known);

} // namespace qtrace_tool
