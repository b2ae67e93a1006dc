#include "exports/exporter.h"
#include "json_writer.h"
#include "record_filter.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace qtrace_tool
{
namespace
{

constexpr Export_Format EXPORT_FORMATS[] = {
    {"csv", "chosen fields, a line a record", make_csv_exporter, nullptr},
    {"champsim", "input of that simulator", make_champsim_exporter, nullptr},
    {"sqlite", "a database", make_sqlite_exporter, nullptr},
    {"callgrind", "a flat profile for callgrind_annotate", make_callgrind_exporter, nullptr},
    {"ctf", "a folder for babeltrace2 and trace viewers", nullptr, make_ctf_exporter},
};

class Export_Command : public Command
{
public:
    void declare(Options &app) override;
    void run(Tool_Run &run) override;

private:
    const Export_Format &format() const;
    std::vector<std::unique_ptr<Trace_File>> open_files(Tool_Run &run);
    template <class Output, class Make>
    std::unique_ptr<Exporter> export_to(Tool_Run &run, Output &output, Make make);
    void report(Tool_Run &run, const Exporter &exporter) const;
    void export_file(Tool_Run &run, Trace_File &file, Exporter &exporter);
    bool export_parts(Tool_Run &run, Trace_File &file, Exporter &exporter, const Scan_Options &options);
    bool export_items(Tool_Run &run, Trace_File &file, Export_Part &exporter, const Record_Range &range);

    std::vector<std::string> files_;
    std::string format_, output_, address_ = "effective";
    Export_Options options_;
    Record_Filter filter_;
    unsigned jobs_ = 1;
    Symbol_Options symbols_;
    std::vector<std::unique_ptr<Trace_File>> traces_;
    bool force_ = false;
    uint64_t records_ = 0;
};

void Export_Command::declare(Options &app)
{
    declare_files(app, files_);
    app.add_option("--format", format_, "one of: csv, champsim, sqlite, callgrind, ctf")
        ->required()
        ->type_name("FORMAT");
    app.add_option("-o,--output", output_, "the file (ctf: folder) to be written")->required()->type_name("OUT");
    app.add_flag("--force", force_, "replace OUT when it exists");
    app.add_list("--fields", options_.fields, "csv: the columns")->type_name("FIELD,...");
    app.add_flag("--decimal", options_.decimal, "csv: all numbers in decimal");
    app.add_flag("--index", options_.index, "sqlite: with indexes by address, access and record");
    app.add_option("--address", address_, "addresses of champsim: effective, real")->type_name("WHICH");
    declare_jobs(app, jobs_);
    filter_.declare(app);
    declare_symbols(app, symbols_);
}

const Export_Format &Export_Command::format() const
{
    const auto row = std::ranges::find(EXPORT_FORMATS, format_, &Export_Format::name);
    if (row != std::end(EXPORT_FORMATS))
        return *row;
    std::vector<std::string> known;
    for (const Export_Format &one : EXPORT_FORMATS)
        known.emplace_back(one.name);
    throw unknown_word("format", format_, known);
}

std::vector<std::unique_ptr<Trace_File>> Export_Command::open_files(Tool_Run &run)
{
    options_.files = traces_of(run, files_);
    std::vector<std::unique_ptr<Trace_File>> files;
    for (const std::string &name : options_.files)
        if (std::unique_ptr<Trace_File> file = Trace_File::open(run, name))
            files.push_back(std::move(file));
    return files;
}

// What the format refuses is a mistake of the command line.
template <class Output, class Make>
std::unique_ptr<Exporter> Export_Command::export_to(Tool_Run &run, Output &output, Make make)
{
    std::unique_ptr<Exporter> exporter;
    try {
        exporter = make(output, options_);
    } catch (const std::invalid_argument &refusal) {
        throw Usage_Error(refusal.what());
    }
    for (const std::unique_ptr<Trace_File> &file : traces_)
        export_file(run, *file, *exporter);
    exporter->finish();
    output.finish();
    return exporter;
}

void Export_Command::run(Tool_Run &run)
{
    const Export_Format &chosen = format();
    if (address_ != "effective" && address_ != "real")
        throw unknown_word("kind of address", address_, {"effective", "real"});
    options_.real = address_ == "real";
    const Symbol_Names names(run, symbols_);
    options_.names = &names;
    traces_ = open_files(run);
    if (traces_.size() != options_.files.size())
        return;
    if (chosen.make != nullptr) {
        Output_File output(output_, force_);
        report(run, *export_to(run, output, chosen.make));
    } else {
        Output_Folder output(output_, force_);
        report(run, *export_to(run, output, chosen.make_folder));
    }
}

void Export_Command::report(Tool_Run &run, const Exporter &exporter) const
{
    for (const std::string &sentence : exporter.shortcomings())
        run.err.print("qtrace: {}: {}\n", output_, sentence);
    run.show([&] { run.out.print("{}: {}\n", output_, counted(records_, "record")); },
             [&] {
                 Json_Writer json(run.out);
                 json.line([&] {
                     json.member("output", output_);
                     json.member("records", records_);
                 });
             });
}

// What an export gets of a file, or of a group of blocks.
class Export_Sink : public Chosen_Sink
{
public:
    // At most `most` records; the part is the caller's.
    Export_Sink(const Record_Filter &filter, uint64_t most, Export_Part &part)
        : Chosen_Sink(filter, most), part_(&part)
    {
    }
    // A part for a group of blocks.
    Export_Sink(const Record_Filter &filter, uint64_t most, std::unique_ptr<Export_Part> part)
        : Chosen_Sink(filter, most), own_(std::move(part)), part_(own_.get())
    {
    }
    void header(const QTRACE_Item &item) override
    {
        part_->header(item, context());
        set_full(part_->size() > MUCH);
    }
    void loss(const QTRACE_Item &item, const std::string &) override
    {
        const QTRACE_Discontinuity &what = item.discontinuity;
        if (what.records > 0 || !what.records_known)
            part_->lost(item.record_number, std::max<uint64_t>(1, what.records));
    }

    // Gives the part to the exporter, and goes on with another one. Returns how many records the part has.
    uint64_t hand_to(Exporter &exporter)
    {
        exporter.add(*own_);
        if (is_full()) {
            own_ = exporter.make_part();
            part_ = own_.get();
        }
        return taken() - std::exchange(handed_over_, taken());
    }

protected:
    void chosen(const QTRACE_Item &record) override
    {
        part_->record(record, context());
        set_full(part_->size() > MUCH);
    }

private:
    static constexpr size_t MUCH = 2 << 20; // bytes of a part
    std::unique_ptr<Export_Part> own_;
    Export_Part *part_;
    uint64_t handed_over_ = 0; // records
};

constexpr uint64_t EVERY_RECORD = std::numeric_limits<uint64_t>::max();

bool Export_Command::export_parts(Tool_Run &run, Trace_File &file, Exporter &exporter, const Scan_Options &options)
{
    uint64_t left = filter_.count();
    const bool alone = options.jobs == 1; // else nothing but the range is a limit
    return scan<Export_Sink>(
        run, file, options,
        [&] { return std::make_unique<Export_Sink>(filter_, alone ? left : EVERY_RECORD, exporter.make_part()); },
        [&](Export_Sink &group) {
            const uint64_t records = group.hand_to(exporter);
            records_ += records;
            left -= records;
            return left > 0;
        });
}

bool Export_Command::export_items(Tool_Run &run, Trace_File &file, Export_Part &exporter, const Record_Range &range)
{
    Export_Sink sink(filter_, filter_.count(), exporter);
    const bool readable = scan_in_order(run, file, range, sink);
    records_ += sink.taken();
    return readable;
}

// Without a choice the numbers of records make the range, so that parts of a trace by `plan` fit together.
void Export_Command::export_file(Tool_Run &run, Trace_File &file, Exporter &exporter)
{
    exporter.begin_file(file.name());
    if (!file.has_record(filter_.from()))
        throw std::runtime_error(file.no_record(filter_.from()));
    Scan_Options options{{filter_.from(), filter_.picks() ? EVERY_RECORD : filter_.count()}, jobs_};
    if (filter_.picks() && filter_.count() != EVERY_RECORD)
        options.jobs = 1; // how many are left is known when the groups before are done
    Export_Part *const in_order = exporter.in_order();
    const bool readable = in_order != nullptr ? export_items(run, file, *in_order, options.range)
                                              : export_parts(run, file, exporter, options);
    if (!readable)
        throw std::runtime_error(file.name() + ": cannot be read to its end");
}

} // namespace

std::unique_ptr<Command> make_export_command()
{
    return std::make_unique<Export_Command>();
}

} // namespace qtrace_tool
