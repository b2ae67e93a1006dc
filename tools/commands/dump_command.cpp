#include "instruction_kinds.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <limits>
#include <optional>

namespace qtrace_tool
{

using namespace trace;
namespace
{

// Kinds of records that --only picks.
struct Record_Kind {
    std::string_view name;
    bool (*matches)(const QTRACE_Item &item);
};

Instruction_Info info_of(const QTRACE_Item &item)
{
    return instruction_info(item.record.header.instruction);
}
Branch_Outcome outcome_of(const QTRACE_Item &item)
{
    return branch_outcome(item.record, item.address);
}

constexpr Record_Kind RECORD_KINDS[] = {
    {"load", [](const QTRACE_Item &i) { return info_of(i).kind == Instruction_Kind::load; }},
    {"store", [](const QTRACE_Item &i) { return info_of(i).kind == Instruction_Kind::store; }},
    {"branch", [](const QTRACE_Item &i) { return outcome_of(i) != Branch_Outcome::no_branch; }},
    {"taken",
     [](const QTRACE_Item &i) {
         const Branch_Outcome outcome = outcome_of(i);
         return outcome == Branch_Outcome::taken || outcome == Branch_Outcome::unconditional;
     }},
    {"string",
     [](const QTRACE_Item &i) { return i.record.header.control.fld.length_present || info_of(i).string; }},
    {"error", [](const QTRACE_Item &i) { return i.record.header.control.fld.trace_error_code_present != 0; }},
};

struct Address_Range {
    uint64_t first, last; // both included
};

uint64_t parse_address(std::string_view text)
{
    if (const std::optional<uint64_t> address = parse_digits(text, 16))
        return *address;
    throw Usage_Error(fmt::format("`{}` is no address: hexadecimal digits expected, with or without 0x", text));
}

Address_Range parse_range(std::string_view text)
{
    const size_t dash = text.find('-');
    Address_Range range{parse_address(text.substr(0, dash)), 0};
    range.last = dash == std::string_view::npos ? range.first : parse_address(text.substr(dash + 1));
    if (range.last < range.first)
        throw Usage_Error(fmt::format("`{}` ends before it begins", text));
    return range;
}

class Dump_Command : public Command
{
public:
    void declare(CLI::App &app) override
    {
        declare_files(app, files_)->required(false);
        declare_number(app, "--from", from_, "number of the first record, from 0 (of each file)");
        declare_number(app, "--count", count_, "records to print (of each file)");
        app.add_option_function<std::string>(
               "--pc", [this](const std::string &text) { range_ = parse_range(text); },
               "only instructions at ADDR or in ADDR-ADDR (both included)")
            ->type_name("ADDR[-ADDR]");
        app.add_option("--only", only_, "only these kinds: load, store, branch, taken, string, error")
            ->delimiter(',')
            ->allow_extra_args(false)
            ->type_name("KIND,...");
        app.add_option("--fields", fields_,
                       "what a line shows: groups or members, separated by commas; `all`; `help` lists")
            ->delimiter(',')
            ->allow_extra_args(false)
            ->type_name("FIELD,...");
        app.add_flag("--explain", explain_, "a legend first");
    }

    void run(Tool_Run &run) override
    {
        if (std::ranges::find(fields_, "help") != fields_.end()) {
            for (const std::string &name : Field_Selection::names())
                run.json ? run.out.print("{{\"field\":\"{}\"}}\n", name) : run.out.print("{}\n", name);
            return;
        }
        require_files(files_);
        prepare(run);
        if (explain_ && !run.json)
            run.out.put(LINE_LEGEND);
        const std::vector<std::string> files = files_of(files_);
        for (const std::string &name : files)
            if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, name))
                dump(run, *file, files.size() > 1);
    }

private:
    void prepare(const Tool_Run &run);
    void dump(Tool_Run &run, Trace_File &file, bool named) const;
    bool is_wanted(const QTRACE_Item &item) const;

    std::vector<std::string> files_, only_, fields_;
    uint64_t from_ = 0;
    uint64_t count_ = std::numeric_limits<uint64_t>::max();
    bool explain_ = false;

    std::optional<Address_Range> range_;
    std::vector<const Record_Kind *> kinds_;
    Field_Selection shown_;
};

void Dump_Command::prepare(const Tool_Run &run)
{
    std::vector<std::string> known;
    for (const Record_Kind &kind : RECORD_KINDS)
        known.emplace_back(kind.name);
    for (const std::string &name : only_) {
        const auto kind = std::ranges::find(RECORD_KINDS, name, &Record_Kind::name);
        if (kind == std::end(RECORD_KINDS))
            throw unknown_word("kind of record", name, known);
        kinds_.push_back(&*kind);
    }
    std::string unknown;
    if (fields_.empty())
        shown_ = run.json ? Field_Selection::all() : Field_Selection::usual();
    else if (const auto selection = Field_Selection::parse(fields_, unknown))
        shown_ = *selection;
    else
        throw unknown_word("field", unknown, Field_Selection::names());
}

bool Dump_Command::is_wanted(const QTRACE_Item &item) const
{
    if (range_ && (!item.address_known || item.address < range_->first || item.address > range_->last))
        return false;
    return kinds_.empty() ||
           std::ranges::any_of(kinds_, [&](const Record_Kind *kind) { return kind->matches(item); });
}

void Dump_Command::dump(Tool_Run &run, Trace_File &file, bool named) const
{
    if (named && !run.json)
        run.out.print("# {}\n", file.name());
    if (from_ > 0 && !file.seek(from_)) {
        run.fail(fmt::format("{}: no record {}: the file has {}", file.name(), from_, file.info().records));
        return;
    }
    const bool picked = !kinds_.empty() || range_;
    Progress progress(run, file.name(), file.info().records - std::min(from_, file.info().records));
    for (uint64_t printed = 0; printed < count_;) {
        const QTRACE_Item *item = file.next();
        if (item == nullptr || run.out.error() != 0)
            break;
        if (item->kind == QTRACE_ITEM_HEADER) {
            if (!picked)
                run.json ? print_header_json(run.out, *item, file.name()) : print_header(run.out, *item);
            continue;
        }
        progress.step();
        if (picked && !is_wanted(*item))
            continue;
        printed++;
        if (run.json)
            print_record_json(run.out, *item, file.name(), shown_);
        else
            print_record(run.out, *item, shown_);
    }
}

} // namespace

std::unique_ptr<Command> make_dump_command()
{
    return std::make_unique<Dump_Command>();
}

} // namespace qtrace_tool
