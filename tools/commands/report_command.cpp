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
        declare_scan(app, scan_);
        declare_symbols(app, symbols_);
        declare_page_bits(app, bits_);
    }
    void run(Tool_Run &run) override;

private:
    std::unique_ptr<Thread_Data> collect(Tool_Run &run, Trace_File &file, const Page_Sizes &sizes) const;
    void add(Tool_Run &run, Report_Trace &trace, Trace_File &file, const Page_Sizes &sizes) const;
    void write(Tool_Run &run, const std::string &page) const;

    std::vector<std::string> files_;
    std::string output_;
    Scan_Options scan_;
    Symbol_Options symbols_;
    std::vector<uint32_t> bits_;
};

// What a group of blocks has for the page.
class Report_Sink : public Item_Sink
{
public:
    explicit Report_Sink(const Page_Sizes &sizes) : sizes_(sizes), part_(std::make_unique<Report_Part>(sizes)) {}
    void begin(const Group_Start &start) override
    {
        start.at_start ? part_->start(start.context) : part_->begin(start.context);
    }
    void header(const QTRACE_Item &item) override { part_->header(item); }
    void record(const QTRACE_Item &item) override
    {
        part_->record(item);
        set_full(part_->accesses.is_long());
    }
    void loss(const QTRACE_Item &item, const std::string &text) override
    {
        const QTRACE_Discontinuity &what = item.discontinuity;
        if (!text.empty())
            part_->damage.push_back(text);
        const bool missing = what.records > 0 || what.headers > 0 || !what.records_known;
        if (missing && what.cause != QTRACE_CAUSE_CUT_END)
            part_->loss(item.record_number + what.records, text.empty() ? "records are missing" : text,
                        what.context);
    }

    // Gives the data what there is, and goes on with another part.
    void hand_to(Thread_Data &data)
    {
        data.add(*part_);
        if (!is_full())
            return;
        part_ = std::make_unique<Report_Part>(sizes_);
        part_->begin(context());
    }

private:
    const Page_Sizes &sizes_;
    std::unique_ptr<Report_Part> part_;
};

// The numbers of the records that are read: the first one, and the one after the last.
static std::pair<uint64_t, uint64_t> numbers_of(const Trace_File &file, const Record_Range &range)
{
    uint64_t first = range.first;
    file.each_block([&](const QTRACE_Block &block) {
        if (block.records != 0)
            first = std::max(range.first, block.first_record);
        return block.records == 0;
    });
    const uint64_t most = range.first + std::min(range.count, UINT64_MAX - range.first);
    return {first, std::max(first, std::min(most, file.next_record_number()))};
}

// Null: the run has been told why the file cannot be read to its end.
std::unique_ptr<Thread_Data> Report_Command::collect(Tool_Run &run, Trace_File &file, const Page_Sizes &sizes) const
{
    const auto [first, end] = numbers_of(file, scan_.range);
    auto data = std::make_unique<Thread_Data>(file.name(), sizes, first, end);
    data->counts.file_bytes = file.info().size;
    data->clean_end = file.info().clean_end != 0 && file.info().open_end == 0;
    data->is_part = scan_.range.first != 0 || end != file.next_record_number();
    const bool readable = scan<Report_Sink>(
        run, file, scan_, [&] { return std::make_unique<Report_Sink>(sizes); },
        [&](Report_Sink &group) {
            group.hand_to(*data);
            return true;
        });
    if (!readable)
        return nullptr;
    data->finish();
    return data;
}

void Report_Command::add(Tool_Run &run, Report_Trace &trace, Trace_File &file, const Page_Sizes &sizes) const
{
    if (!file.has_record(scan_.range.first))
        return run.fail(file.no_record(scan_.range.first));
    if (auto data = collect(run, file, sizes))
        trace.threads.push_back(std::move(data));
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
                add(run, trace, *file, report.sizes);
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
