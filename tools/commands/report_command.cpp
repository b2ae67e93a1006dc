#include "report_page.h"
#include "symbol_names.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

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

std::unique_ptr<Thread_Data> Report_Command::collect(Tool_Run &run, Trace_File &file, const Page_Sizes &sizes) const
{
    auto data = std::make_unique<Thread_Data>(file.name(), sizes, file.info().records);
    data->counts.file_bytes = file.info().size;
    data->clean_end = file.info().clean_end != 0 && file.info().open_end == 0;
    Progress progress(run, file.name(), file.info().records);
    uint64_t next_record = 0, next_header = 0;
    while (const QTRACE_Item *item = file.next()) {
        const size_t known = data->damage.size();
        for (size_t i = known; i < file.losses().size(); i++)
            data->damage.push_back(file.losses()[i].text);
        if (item->record_number != next_record || item->header_number != next_header)
            data->loss(*item, known < data->damage.size() ? data->damage.back() : "records are missing",
                       file.context());
        data->item(*item);
        const bool header = item->kind == QTRACE_ITEM_HEADER;
        next_record = item->record_number + !header;
        next_header = item->header_number + header;
        progress.step();
    }
    for (size_t i = data->damage.size(); i < file.losses().size(); i++)
        data->damage.push_back(file.losses()[i].text);
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
                trace.threads.push_back(collect(run, *file, report.sizes));
        if (!trace.threads.empty())
            report.traces.push_back(std::move(trace));
    }
    if (report.traces.empty())
        return;
    const std::string page = report_page(report);
    write(run, page);
    if (run.json)
        run.out.print("{{\"file\":{},\"bytes\":{}}}\n", nlohmann::json(output_).dump(), page.size());
}

} // namespace

std::unique_ptr<Command> make_report_command()
{
    return std::make_unique<Report_Command>();
}

} // namespace qtrace_tool
