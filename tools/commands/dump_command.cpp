#include "record_filter.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>

namespace qtrace_tool
{

using namespace trace;
namespace
{

class Dump_Command : public Command
{
public:
    void declare(CLI::App &app) override
    {
        declare_files(app, files_)->required(false);
        filter_.declare(app);
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

    std::vector<std::string> files_, fields_;
    Record_Filter filter_;
    bool explain_ = false;
    Field_Selection shown_;
};

void Dump_Command::prepare(const Tool_Run &run)
{
    std::string unknown;
    if (fields_.empty())
        shown_ = run.json ? Field_Selection::all() : Field_Selection::usual();
    else if (const auto selection = Field_Selection::parse(fields_, unknown))
        shown_ = *selection;
    else
        throw unknown_word("field", unknown, Field_Selection::names());
}

void Dump_Command::dump(Tool_Run &run, Trace_File &file, bool named) const
{
    if (named && !run.json)
        run.out.print("# {}\n", file.name());
    Record_Walk walk(file, filter_);
    if (!walk.begin()) {
        run.fail(
            fmt::format("{}: no record {}: the file has {}", file.name(), filter_.from(), file.info().records));
        return;
    }
    Progress progress(run, file.name(), file.info().records - std::min(filter_.from(), file.info().records));
    while (const QTRACE_Item *item = walk.next()) {
        if (run.out.error() != 0)
            break;
        if (item->kind == QTRACE_ITEM_HEADER) {
            if (!filter_.picks())
                run.json ? print_header_json(run.out, *item, file.name()) : print_header(run.out, *item);
            continue;
        }
        progress.step();
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
