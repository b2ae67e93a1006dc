#include "item_scan.h"
#include "item_view.h"
#include "pte_printer.h"
#include "record_filter.h"
#include "record_printer.h"
#include "text_mnemonics.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace qtrace_tool
{

using namespace trace;
namespace
{

class Dump_Command : public Command
{
public:
    void declare(Options &app) override
    {
        declare_files(app, files_)->required(false);
        options_ = &app;
        app.add_option("--pte", pte_,
                       "a page-table-entry file (or its base name) instead of traces; --kind radix, hpt or "
                       "words (default) says what it holds");
        filter_.declare(app, [this](const std::string &kind) { return take_pte_kind(kind); });
        app.describe("--kind", fmt::format("only these kinds (the last three with --pte): {}, {}",
                                           fmt::join(kind_names(), ", "), fmt::join(pte_kind_names(), ", ")));
        declare_jobs(app, scan_.jobs);
        declare_symbols(app, symbols_);
        app.add_option("--text", text_, "the session's text trace (or its base name): mnemonics beside the words")
            ->type_name("FILE");
        app.add_list("--fields", fields_,
                     "what a line shows: groups or members, separated by commas; `all`; `help` lists")
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
                run.show([&] { run.out.print("{}\n", name); },
                         [&] {
                             Json_Writer json(run.out);
                             json.line([&] { json.member("field", name); });
                         });
            return;
        }
        if (!pte_.empty()) {
            dump_accesses(run);
            return;
        }
        require_files(files_);
        prepare(run);
        if (explain_ && format_ == "text")
            run.out.put(LINE_LEGEND);
        const Symbol_Names names(run, symbols_);
        const std::vector<std::string> files = traces_of(run, files_);
        const std::vector<std::string> texts = texts_for(run, files.size());
        for (size_t i = 0; i < files.size(); i++)
            if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, files[i]))
                dump(run, *file, names, texts[i], files.size() > 1);
    }

private:
    bool take_pte_kind(const std::string &name);
    void refuse_options_of_records() const;
    void dump_accesses(Tool_Run &run) const;
    void prepare(const Tool_Run &run);
    std::vector<std::string> texts_for(Tool_Run &run, size_t count) const;
    void dump(Tool_Run &run, Trace_File &file, const Symbol_Names &names, const std::string &text,
              bool named) const;

    std::vector<std::string> files_, fields_;
    const Options *options_ = nullptr;
    std::string pte_, text_;
    const Pte_Kind *pte_kind_ = &pte_kinds().back();
    Record_Filter filter_;
    Scan_Options scan_;
    Symbol_Options symbols_;
    bool explain_ = false;
    std::string format_;
    Field_Selection shown_;
};

// --pte is declared before --kind, so that it is known here.
bool Dump_Command::take_pte_kind(const std::string &name)
{
    if (pte_.empty())
        return false;
    const auto kind = std::ranges::find(pte_kinds(), name, &Pte_Kind::name);
    if (kind == pte_kinds().end())
        throw unknown_word("kind of page-table-entry access", name, pte_kind_names());
    pte_kind_ = &*kind;
    return true;
}

// Accesses are no records: most options have no meaning for them.
void Dump_Command::refuse_options_of_records() const
{
    static constexpr std::string_view TAKEN[] = {"--pte", "--kind", "--from", "--count", "--json", "--jobs"};
    for (const std::string &name : options_->given())
        if (std::ranges::find(TAKEN, name) == std::end(TAKEN))
            throw Usage_Error(fmt::format("{} cannot be used with --pte", name));
}

void Dump_Command::dump_accesses(Tool_Run &run) const
{
    refuse_options_of_records();
    const std::vector<Named_File> files = files_of(run, pte_);
    for (const Named_File &file : files) {
        if (files.size() > 1)
            run.show([&] { run.out.print("# {}\n", file.name); }, [] {});
        dump_pte(run, file.name, *pte_kind_, filter_.from(), filter_.count());
    }
}

void Dump_Command::prepare(const Tool_Run &run)
{
    if (format_.empty())
        run.show([&] { format_ = "text"; }, [&] { format_ = "json"; });
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

// The text trace of each of so many files; empty names without --text.
std::vector<std::string> Dump_Command::texts_for(Tool_Run &run, size_t count) const
{
    if (text_.empty())
        return std::vector<std::string>(count);
    std::vector<std::string> texts = files_of(run, std::vector<std::string>{text_});
    if (texts.size() != count)
        throw Usage_Error(
            fmt::format("{} for {}", counted(texts.size(), "text trace"), counted(count, "trace file")));
    return texts;
}

constexpr uint64_t EVERY_RECORD = std::numeric_limits<uint64_t>::max();

// Lines of a group of blocks.
class Dump_Sink : public Item_Sink
{
public:
    // Keeps no more than `most` records.
    Dump_Sink(const Item_View &view, const Record_Filter &filter, const Symbol_Names &names, Text_Mnemonics *text,
              uint64_t most, bool colour)
        : view_(view), filter_(filter), names_(names), text_(text), picks_(filter.picks()), most_(most),
          lines_(-1, colour)
    {
        if (names_.any())
            notes_.names = &names_;
        lines_.reserve(MOST_KEPT + LONG_LINE);
    }
    void begin(const Group_Start &start) override
    {
        passed_over_ = start.headers == 0 && filter_.rules_out(start.context);
    }
    void header(const QTRACE_Item &item) override
    {
        if (!picks_)
            view_.header(lines_, item, notes());
        settle();
    }
    void record(const QTRACE_Item &item) override
    {
        if (picks_ && !filter_.matches(item, filter_.asks_for_context() ? context() : nullptr))
            return;
        if (text_ != nullptr)
            notes_.mnemonic = text_->of(item);
        view_.record(lines_, item, notes());
        if (picks_ && most_ != EVERY_RECORD)
            ends_.push_back(lines_.size());
        records_++;
        kept_records_++;
        settle();
    }
    void pause(const QTRACE_Item &item) override
    {
        if (!picks_)
            view_.discontinuity(lines_, item);
    }
    void loss(const QTRACE_Item &item, const std::string &) override { pause(item); }
    bool wants_more() const override { return records_ < most_ && !passed_over_; }

    // Prints the lines of at most so many records of the first part, and drops them. Returns how many were printed.
    uint64_t print(Output &out, uint64_t most)
    {
        const bool cut = most < kept_records_ && !ends_.empty();
        const size_t end = next_part_ < part_ends_.size() ? part_ends_[next_part_++] : lines_.size();
        const size_t last = !cut ? end : most == 0 ? 0 : ends_[most - 1];
        out.put_lines(lines_.text().substr(printed_, last - printed_));
        printed_ = end;
        if (printed_ == lines_.size())
            clear();
        return std::min(most, std::exchange(kept_records_, 0));
    }

private:
    static constexpr size_t PART = 1 << 18; // bytes of lines, which stay in the cache until they are written
    static constexpr size_t MOST_KEPT = 4 * PART;
    static constexpr size_t LONG_LINE = 1 << 12; // what is longer, makes the buffer grow

    void settle()
    {
        if (lines_.size() < part_end_)
            return;
        part_ends_.push_back(lines_.size());
        part_end_ = lines_.size() + PART;
        set_full(true, ends_.empty() && lines_.size() < MOST_KEPT);
    }
    void clear()
    {
        lines_.clear();
        ends_.clear();
        part_ends_.clear();
        printed_ = next_part_ = 0;
        part_end_ = PART;
    }
    const Item_Notes &notes()
    {
        if (notes_.names != nullptr)
            names_.enter(context());
        return notes_;
    }

    const Item_View &view_;
    const Record_Filter &filter_;
    Name_Finder names_;
    Text_Mnemonics *text_; // null: there is none
    Item_Notes notes_;
    bool picks_, passed_over_ = false; // the whole group belongs to others
    uint64_t most_, records_ = 0, kept_records_ = 0;
    Output lines_;
    std::vector<size_t> ends_;      // of the records in lines_, where some may be too many
    std::vector<size_t> part_ends_; // of the complete parts in lines_
    size_t next_part_ = 0, printed_ = 0;
    size_t part_end_ = PART; // a part is complete when it reaches that
};

void Dump_Command::dump(Tool_Run &run, Trace_File &file, const Symbol_Names &names, const std::string &text,
                        bool named) const
{
    if (!file.has_record(filter_.from()))
        return run.fail(file.no_record(filter_.from()));
    const std::unique_ptr<Item_View> view = make_item_view(format_, file.name(), shown_);
    view->begin(run.out, named);
    Scan_Options options = scan_;
    options.steps = 1; // lines of more would be kept
    std::unique_ptr<Text_Mnemonics> mnemonics;
    if (!text.empty()) {
        mnemonics = std::make_unique<Text_Mnemonics>(text);
        options.jobs = 1; // a text trace is read forward
    }
    options.range.first = filter_.from();
    uint64_t left = filter_.count();
    if (!filter_.picks()) // then the range ends before the headers that follow the last record
        options.range.count = std::exchange(left, EVERY_RECORD);
    scan<Dump_Sink>(
        run, file, options,
        [&, most = left] {
            return std::make_unique<Dump_Sink>(*view, filter_, names, mnemonics.get(), most, run.out.coloured());
        },
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
