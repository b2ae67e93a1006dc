#include "instruction_kinds.h"
#include "item_scan.h"
#include "item_view.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <functional>
#include <limits>
#include <optional>
#include <utility>

namespace qtrace_tool
{

using namespace trace;
namespace
{

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

std::vector<std::string> kind_names()
{
    std::vector<std::string> names;
    for (const Kind_Name &kind : KINDS)
        names.emplace_back(kind.name);
    return names;
}

class Dump_Command : public Command
{
public:
    void declare(CLI::App &app) override
    {
        declare_files(app, files_)->required(false);
        declare_scan(app, scan_);
        app.add_option_function<std::string>(
               "--pc", [this](const std::string &text) { range_ = parse_range(text); },
               "only instructions at ADDR or in ADDR-ADDR (both included)")
            ->type_name("ADDR[-ADDR]");
        app.add_option("--only", only_, fmt::format("only these kinds: {}", fmt::join(kind_names(), ", ")))
            ->delimiter(',')
            ->allow_extra_args(false)
            ->type_name("KIND,...");
        app.add_option("--fields", fields_,
                       "what a line shows: groups or members, separated by commas; `all`; `help` lists")
            ->delimiter(',')
            ->allow_extra_args(false)
            ->type_name("FIELD,...");
        app.add_flag("--explain", explain_, "a legend first");
        app.add_option(
               "--format", format_,
               fmt::format("what lines look like: {} (text, or json with --json)", fmt::join(item_formats(), ", ")))
            ->type_name("FORMAT");
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
        if (explain_ && format_ == "text")
            run.out.put(LINE_LEGEND);
        const std::vector<std::string> files = traces_of(run, files_);
        for (const std::string &name : files)
            if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, name))
                dump(run, *file, files.size() > 1);
    }

private:
    void prepare(const Tool_Run &run);
    void dump(Tool_Run &run, Trace_File &file, bool named) const;
    bool is_wanted(const QTRACE_Item &item) const;

    std::vector<std::string> files_, only_, fields_;
    Scan_Options scan_; // its count is that of the records that are printed
    bool explain_ = false;
    std::string format_;

    std::optional<Address_Range> range_;
    uint32_t kinds_ = 0; // QTRACE_KIND bits
    Field_Selection shown_;
};

void Dump_Command::prepare(const Tool_Run &run)
{
    for (const std::string &name : only_) {
        const auto kind = std::ranges::find(KINDS, name, &Kind_Name::name);
        if (kind == KINDS.end())
            throw unknown_word("kind of record", name, kind_names());
        kinds_ |= kind->kind;
    }
    if (format_.empty())
        format_ = run.json ? "json" : "text";
    if (const std::vector<std::string> known = item_formats(); std::ranges::find(known, format_) == known.end())
        throw unknown_word("output format", format_, known);
    std::string unknown;
    if (fields_.empty())
        shown_ = format_ != "text" ? Field_Selection::all() : Field_Selection::usual();
    else if (const auto selection = Field_Selection::parse(fields_, unknown))
        shown_ = *selection;
    else
        throw unknown_word("field", unknown, Field_Selection::names());
}

bool Dump_Command::is_wanted(const QTRACE_Item &item) const
{
    if (range_ && (!item.address_known || item.address < range_->first || item.address > range_->last))
        return false;
    return kinds_ == 0 || (kinds_of(item.record, item.address) & kinds_) != 0;
}

constexpr uint64_t EVERY_RECORD = std::numeric_limits<uint64_t>::max();

// Lines of a group of blocks.
class Dump_Sink : public Item_Sink
{
public:
    using Wanted = std::function<bool(const QTRACE_Item &)>; // null: all records, and headers too
    Dump_Sink(const Item_View &view, const Wanted &wanted, uint64_t most, bool colour)
        : view_(view), wanted_(wanted), most_(most), lines_(-1, colour)
    {
    }
    void begin(const QTRACE_FILE_HDR *, bool) override {}
    void header(const QTRACE_Item &item) override
    {
        if (!wanted_)
            view_.header(lines_, item);
    }
    void record(const QTRACE_Item &item) override
    {
        if (wanted_ && !wanted_(item))
            return;
        view_.record(lines_, item);
        if (wanted_ && most_ != EVERY_RECORD)
            ends_.push_back(lines_.size());
        records_++;
    }
    void loss(const QTRACE_Item &, const std::string &) override {}
    bool wants_more() const override { return records_ < most_; }

    // Prints the lines of at most so many records. Returns how many these are.
    uint64_t print(Output &out, uint64_t most)
    {
        const std::string lines = lines_.take();
        const bool cut = most < records_ && !ends_.empty();
        out.put(cut ? std::string_view(lines).substr(0, most == 0 ? 0 : ends_[most - 1]) : lines);
        out.settle();
        return std::min(most, records_);
    }

private:
    const Item_View &view_;
    const Wanted &wanted_;
    uint64_t most_, records_ = 0;
    Output lines_;
    std::vector<size_t> ends_; // of the records in lines_, where some may be too many
};

void Dump_Command::dump(Tool_Run &run, Trace_File &file, bool named) const
{
    if (scan_.range.first > 0 && scan_.range.first >= file.next_record_number()) {
        run.fail(
            fmt::format("{}: no record {}: the file has {}", file.name(), scan_.range.first, file.info().records));
        return;
    }
    const std::unique_ptr<Item_View> view = make_item_view(format_, file.name(), shown_);
    view->begin(run.out, named);
    const bool picked = kinds_ != 0 || range_;
    const Dump_Sink::Wanted wanted =
        picked ? [this](const QTRACE_Item &item) { return is_wanted(item); } : Dump_Sink::Wanted();
    Scan_Options options = scan_;
    uint64_t left = picked ? std::exchange(options.range.count, EVERY_RECORD) : EVERY_RECORD;
    scan<Dump_Sink>(
        run, file, options,
        [&, most = left] { return std::make_unique<Dump_Sink>(*view, wanted, most, run.out.coloured()); },
        [&](Dump_Sink &group) {
            left -= group.print(run.out, left);
            return left > 0;
        });
}

} // namespace

std::unique_ptr<Command> make_dump_command()
{
    return std::make_unique<Dump_Command>();
}

} // namespace qtrace_tool
