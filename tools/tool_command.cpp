#include "tool_command.h"

#include "item_scan.h"
#include "mistyped_word.h"
#include "symbol_names.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <numeric>
#include <thread>

namespace qtrace_tool
{

// clang-format off
// The subcommands in the order of the help: name, summary, two examples. Each is a file in commands/.
#define SUBCOMMANDS(ROW) \
    ROW(info, "what files hold: headers, counts, gaps, size, whether they end cleanly", \
        "qtrace info trace                 trace0, trace1, ... one after another", \
        "qtrace info --json trace0 | jq .  the same facts for a program") \
    ROW(dump, "headers and records, one line each", \
        "qtrace dump --count 20 trace0             the first 20 records", \
        "qtrace dump --pc 0x1000-0x1fff --kind load trace  loads in a range of addresses, all threads") \
    ROW(check, "whether all trace invariants hold", \
        "qtrace check trace                all invariants of the trace itself", \
        "qtrace check trace0 --text text0  compared with the text trace, item by item") \
    ROW(stats, "what traces are made of: branches, accesses, registers, pages, partitions", \
        "qtrace stats trace                threads side by side and in total", \
        "qtrace stats --json trace0        the same for a program") \
    ROW(tlb, "what address translation costs: a model of TLBs and walk caches", \
        "qtrace tlb trace                            each thread and in total", \
        "qtrace tlb --entries 64x4,2048x8 --page-sizes 2M trace0   what if") \
    ROW(report, "one page to look at: time, addresses, working set, translation, hot places", \
        "qtrace report -o report.html trace          all threads of a trace", \
        "qtrace report -o report.html old new        and what differs between two") \
    ROW(diff, "where two traces differ, by kind of difference", \
        "qtrace diff old new                        thread by thread", \
        "qtrace diff --ignore registers old0 new0   control flow and addresses alone") \
    ROW(recover, "the whole blocks of a damaged file as a new file", \
        "qtrace recover broken0 saved0     then: qtrace check saved0", \
        "qtrace recover --json broken0 saved0") \
    ROW(cut, "some records of a trace as a trace", \
        "qtrace cut --from 1000000 --count 50000 -o part trace     all threads of a trace", \
        "qtrace cut --every 1000000 --window 20000 -o sample0 trace0   every millionth record and those after it") \
    ROW(export, "traces in the formats of other programs", \
        "qtrace export --format csv -o loads.csv --kind load trace   a table of all loads", \
        "qtrace export --format callgrind -o profile.out trace0      then: callgrind_annotate profile.out") \
    ROW(plan, "ranges of records of equal work, for jobs on many machines", \
        "qtrace plan --parts 4 trace                                  lines: FILE --from A --count B", \
        "qtrace plan --parts 64 trace | xargs -P8 -L1 qtrace stats --json")

// clang-format on
#define ROW(name, summary, first_example, second_example) std::unique_ptr<Command> make_##name##_command();
SUBCOMMANDS(ROW)
#undef ROW

namespace
{

#define ROW(name, summary, first_example, second_example)                                                          \
    {#name, summary, {first_example, second_example}, make_##name##_command},
constexpr Command_Info COMMANDS[] = {SUBCOMMANDS(ROW)};
#undef ROW

const char *const TOOL_EXAMPLES[2] = {
    "qtrace info trace                 is it complete? (trace0, trace1, ...)",
    "qtrace dump --count 20 trace0     the first 20 records",
};

constexpr uint64_t MAX_JOBS = 1024;

const char *const TOOL_FOOTER =
    "A name for which there is no file is a base name: `trace` means trace0, trace1, ...\n"
    "Exit codes: 0 fine, 1 failed, 2 wrong usage, 3 differences, violations or losses found.";

// Help that starts with two examples.
class Examples_First : public CLI::Formatter
{
public:
    std::string make_description(const CLI::App *app) const override
    {
        const auto info = std::ranges::find(COMMANDS, app->get_name(), &Command_Info::name);
        const auto &examples = info == std::end(COMMANDS) ? TOOL_EXAMPLES : info->examples;
        return fmt::format("Examples:\n  {}\n  {}\n\n{}\n", examples[0], examples[1], app->get_description());
    }
};

std::vector<std::string> command_names()
{
    std::vector<std::string> names;
    for (const Command_Info &info : COMMANDS)
        names.emplace_back(info.name);
    return names;
}

std::vector<std::string> option_names(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::Option *option : app.get_options())
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
    return names;
}

// The first word that no option took, with what it may have meant.
std::string describe_extra(const CLI::App &app)
{
    const std::vector<std::string> extras = app.remaining();
    const auto option = std::ranges::find_if(extras, [](const std::string &word) { return word.starts_with("-"); });
    if (option == extras.end())
        return extras.empty() ? "one argument too many" : "one argument too many: " + extras.front();
    return unknown_word("option of qtrace " + app.get_name(), option->substr(0, option->find('=')),
                        option_names(app))
        .what();
}

// The arguments as they are, unless the first word is no subcommand.
void refuse_unknown_command(const std::vector<std::string> &arguments)
{
    const auto word =
        std::ranges::find_if(arguments, [](const std::string &argument) { return !argument.starts_with("-"); });
    const std::vector<std::string> names = command_names();
    if (word != arguments.end() && std::ranges::find(names, *word) == names.end())
        throw unknown_word("subcommand", *word, names);
}

int usage_error(Tool_Run &run, std::string_view command, std::string_view text)
{
    run.err.print("qtrace: {}\nSee `qtrace {}{}--help`.\n", text, command, command.empty() ? "" : " ");
    run.err.flush();
    return EXIT_USAGE;
}

// The program's command line: subcommands with their options.
struct Command_Line {
    explicit Command_Line(Tool_Run &run)
    {
        app.formatter(std::make_shared<Examples_First>());
        app.require_subcommand(1);
        app.set_version_flag("--version", "qtrace 1.0.0");
        app.footer(TOOL_FOOTER);
        for (const Command_Info &info : COMMANDS) {
            CLI::App *subcommand = app.add_subcommand(info.name, info.summary);
            subcommand->add_flag("--json", run.json_option(), "for programs: JSON, on standard output");
            subcommand->footer(TOOL_FOOTER);
            commands.push_back(info.make());
            commands.back()->declare(options.emplace_back(*subcommand));
        }
    }
    size_t chosen() const
    {
        const std::vector<std::string> names = command_names();
        return static_cast<size_t>(std::ranges::find(names, app.get_subcommands().front()->get_name()) -
                                   names.begin());
    }

    CLI::App app{"Inspects, checks, compares and repairs instruction traces.", "qtrace"};
    std::vector<std::unique_ptr<Command>> commands; // in the order of COMMANDS
    std::deque<Options> options;                    // of each
};

std::string chosen_name(const CLI::App &app)
{
    const std::vector<CLI::App *> chosen = app.get_subcommands();
    return chosen.empty() ? "" : chosen.front()->get_name();
}

int show_help(Tool_Run &run, const CLI::App &app)
{
    const std::vector<CLI::App *> chosen = app.get_subcommands();
    run.out.put(chosen.empty() ? app.help() : chosen.front()->help("qtrace"));
    return run.exit_code();
}

} // namespace

Usage_Error unknown_word(const std::string &what, const std::string &unknown, const std::vector<std::string> &known)
{
    return Usage_Error(unknown_word_text(what, unknown, known));
}

Option *declare_files(Options &app, std::vector<std::string> &files)
{
    return app.add_arguments("FILE", files, "trace files, or base names of them");
}

void require_files(const std::vector<std::string> &files)
{
    if (files.empty())
        throw Usage_Error("FILE is required");
}

std::optional<uint64_t> parse_digits(std::string_view text, int base)
{
    if (base == 16 && (text.starts_with("0x") || text.starts_with("0X")))
        text.remove_prefix(2);
    uint64_t value = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    return error == std::errc{} && stop == end ? std::optional(value) : std::nullopt;
}

Option *declare_number(Options &app, const std::string &name, uint64_t &number, const std::string &description)
{
    const auto take = [name, &number](const std::string &text) {
        const std::optional<uint64_t> value = parse_digits(text, text.starts_with("0x") ? 16 : 10);
        if (!value)
            throw Usage_Error(fmt::format("`{}` is not a number for {}: digits expected", text, name));
        number = *value;
    };
    return app.add_value(name, "N", description, take);
}

void declare_page_bits(Options &app, std::vector<uint32_t> &bits)
{
    std::vector<std::string> names;
    for (size_t code = 0; code < Page_Sizes::USUAL.size(); code++)
        names.push_back(Page_Sizes().name(static_cast<uint8_t>(code)));
    app.add_numbers(
           "--page-bits", bits, 12, 63,
           fmt::format("address bits of the pages that page-size codes 0, 1, 2, ... stand for (default {}: {})",
                       fmt::join(Page_Sizes::USUAL, ","), fmt::join(names, ", ")))
        ->type_name("BITS,...");
}

Page_Sizes page_sizes(const std::vector<uint32_t> &bits)
{
    return bits.empty() ? Page_Sizes() : Page_Sizes(std::vector<uint8_t>(bits.begin(), bits.end()));
}

void declare_jobs(Options &app, unsigned &jobs)
{
    jobs = std::max(1u, std::thread::hardware_concurrency());
    const auto take = [&jobs](const std::string &text) {
        const std::optional<uint64_t> number = parse_digits(text, 10);
        if (!number || *number == 0 || *number > MAX_JOBS)
            throw Usage_Error(fmt::format("`{}` is not a number for --jobs: 1 to {} expected", text, MAX_JOBS));
        jobs = static_cast<unsigned>(*number);
    };
    app.add_value("--jobs", "N", "threads that read (default: one for each core)", take);
}

void declare_symbols(Options &app, Symbol_Options &options)
{
    const auto add = [&options](const std::string &argument) {
        try {
            options.add(argument);
        } catch (const std::invalid_argument &refusal) {
            throw Usage_Error(refusal.what());
        }
    };
    const auto move = [&options](const std::string &text) {
        const std::optional<uint64_t> address = parse_digits(text, 16);
        if (!address)
            throw Usage_Error(fmt::format("`{}` is not an address for --load-address: digits expected", text));
        if (options.files.empty() || options.files.back().load_address)
            throw Usage_Error("--load-address stands after the --symbols FILE that was moved");
        options.files.back().load_address = address;
    };
    app.add_value(
           "--symbols", "FILE",
           "names of addresses: an ELF file, or lines `ADDRESS [SIZE] [TYPE] NAME`; of a partition or process "
           "alone: lpid=N,pid=N:FILE",
           add)
        ->in_order();
    app.add_value("--load-address", "ADDR", "where the lowest segment of the ELF file before it was put", move)
        ->in_order();
}

void declare_scan(Options &app, Scan_Options &options)
{
    declare_jobs(app, options.jobs);
    declare_range(app, options.range);
}

void declare_range(Options &app, Record_Range &range)
{
    declare_number(app, "--from", range.first, "number of the first record, from 0 (of each file)");
    declare_number(app, "--count", range.count, "records to read (of each file)");
}

int run_qtrace(const std::vector<std::string> &arguments, int out, int err)
{
    Tool_Run run(out, err);
    Command_Line line(run);
    try {
        refuse_unknown_command(arguments);
        line.app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        line.commands[line.chosen()]->run(run);
    } catch (const CLI::CallForHelp &) {
        return show_help(run, line.app);
    } catch (const CLI::CallForVersion &version) {
        run.out.print("{}\n", version.what());
        return run.exit_code();
    } catch (const CLI::ExtrasError &) {
        const std::vector<CLI::App *> chosen = line.app.get_subcommands();
        return usage_error(run, chosen_name(line.app), describe_extra(chosen.empty() ? line.app : *chosen.front()));
    } catch (const CLI::ParseError &error) {
        return usage_error(run, chosen_name(line.app), error.what());
    } catch (const Usage_Error &error) {
        return usage_error(run, chosen_name(line.app), error.what());
    } catch (const std::exception &error) {
        run.fail(error.what());
    }
    return run.exit_code();
}

} // namespace qtrace_tool
