#include "exports/exporter.h"
#include "json_writer.h"
#include "record_filter.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>

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

    std::vector<std::string> files_;
    std::string format_, output_, address_ = "effective";
    Export_Options options_;
    Record_Filter filter_;
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

// What an exporter gets of a file.
class Export_Sink : public Chosen_Sink
{
public:
    Export_Sink(const Record_Filter &filter, Exporter &exporter) : Chosen_Sink(filter), exporter_(exporter) {}
    void header(const QTRACE_Item &item) override { exporter_.header(item, context()); }
    void loss(const QTRACE_Item &item, const std::string &) override
    {
        const QTRACE_Discontinuity &what = item.discontinuity;
        if (what.records > 0 || !what.records_known)
            exporter_.lost(item.record_number, std::max<uint64_t>(1, what.records));
    }

protected:
    void chosen(const QTRACE_Item &record) override { exporter_.record(record, context()); }

private:
    Exporter &exporter_;
};

void Export_Command::export_file(Tool_Run &run, Trace_File &file, Exporter &exporter)
{
    exporter.begin_file(file.name());
    if (!file.has_record(filter_.from()))
        throw std::runtime_error(file.no_record(filter_.from()));
    Export_Sink sink(filter_, exporter);
    const bool readable = scan_in_order(run, file, {.first = filter_.from()}, sink);
    records_ += sink.taken();
    if (!readable)
        throw std::runtime_error(file.name() + ": cannot be read to its end");
}

} // namespace

std::unique_ptr<Command> make_export_command()
{
    return std::make_unique<Export_Command>();
}

} // namespace qtrace_tool
