#include "item_scan.h"
#include "json_writer.h"
#include "report_page.h"
#include "symbol_names.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace qtrace_tool
{
namespace
{

class Report_Command : public Command
{
public:
    void declare(Options &app) override
    {
        declare_files(app, files_);
        app.add_option("-o,--output", output_, "the page to write")->required()->type_name("FILE.html");
        declare_symbols(app, symbols_);
        declare_page_bits(app, bits_);
    }
    void run(Tool_Run &run) override;

private:
    std::unique_ptr<Thread_Data> collect(Tool_Run &run, Trace_File &file, const Page_Sizes &sizes) const;
    void write(Tool_Run &run, const std::string &page) const;

    std::vector<std::string> files_;
    std::string output_;
    Symbol_Options symbols_;
    std::vector<uint32_t> bits_;
};

class Report_Sink : public Item_Sink
{
public:
    explicit Report_Sink(Thread_Data &data) : data_(data) {}
    void begin(const Group_Start &) override {}
    void header(const QTRACE_Item &item) override { data_.item(item); }
    void record(const QTRACE_Item &item) override { data_.item(item); }
    void loss(const QTRACE_Item &item, const std::string &text) override
    {
        const QTRACE_Discontinuity &what = item.discontinuity;
        if (!text.empty())
            data_.damage.push_back(text);
        const bool missing = what.records > 0 || what.headers > 0 || !what.records_known;
        if (missing && what.cause != QTRACE_CAUSE_CUT_END)
            data_.loss(item.record_number + what.records, text.empty() ? "records are missing" : text,
                       what.context);
    }

private:
    Thread_Data &data_;
};

// Null: the run has been told why the file cannot be read to its end.
std::unique_ptr<Thread_Data> Report_Command::collect(Tool_Run &run, Trace_File &file, const Page_Sizes &sizes) const
{
    auto data = std::make_unique<Thread_Data>(file.name(), sizes, file.info().records);
    data->counts.file_bytes = file.info().size;
    data->clean_end = file.info().clean_end != 0 && file.info().open_end == 0;
    Report_Sink sink(*data);
    if (!scan_in_order(run, file, {}, sink))
        return nullptr;
    data->finish();
    return data;
}

void Report_Command::write(Tool_Run &run, const std::string &page) const
{
    std::ofstream file(output_, std::ios::binary);
    file << page;
    file.close();
    if (!file)
        run.fail(fmt::format("{}: {}", output_, std::strerror(errno)));
}

void Report_Command::run(Tool_Run &run)
{
    const Symbol_Names names(run, symbols_);
    Name_Finder finder(names);
    finder.enter_any();
    Report report{{}, &finder, page_sizes(bits_)};
    for (const std::string &name : files_) {
        Report_Trace trace{name, {}};
        for (const Named_File &named : traces_of(run, name))
            if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, named.name))
                if (auto data = collect(run, *file, report.sizes))
                    trace.threads.push_back(std::move(data));
        if (!trace.threads.empty())
            report.traces.push_back(std::move(trace));
    }
    if (report.traces.empty())
        return;
    const std::string page = report_page(report);
    write(run, page);
    run.show([] {},
             [&] {
                 Json_Writer json(run.out);
                 json.line([&] {
                     json.member("file", output_);
                     json.member("bytes", page.size());
                 });
             });
}

} // namespace

std::unique_ptr<Command> make_report_command()
{
    return std::make_unique<Report_Command>();
}

} // namespace qtrace_tool
