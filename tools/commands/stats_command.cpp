#include "function_counts.h"
#include "item_scan.h"
#include "record_filter.h"
#include "record_printer.h"
#include "table.h"
#include "tool_command.h"
#include "trace_counts.h"
#include "trace_files.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <set>

namespace qtrace_tool
{

using namespace trace;

namespace
{

// A line of the table: a number of each trace.
struct Metric {
    std::string key;   // in JSON
    std::string label; // in text; an empty one is a heading's blank line
    std::function<double(const Trace_Counts &)> value;
    int decimals = 0;
    bool of_pages = false; // they may be estimates
};

template <class Getter> Metric count(const char *key, const char *label, Getter getter)
{
    return {key, label, [getter](const Trace_Counts &c) { return static_cast<double>(std::invoke(getter, c)); }};
}

double per_instruction(const Trace_Counts &counts, uint64_t amount)
{
    return counts.instructions == 0 ? 0.0 : static_cast<double>(amount) / static_cast<double>(counts.instructions);
}

std::string case_name(size_t index)
{
    return index >= UNKNOWN_CASE ? "unknown" : pair_name(Mode_Pair::at(static_cast<unsigned>(index)));
}

void add_registers(std::vector<Metric> &metrics)
{
    for (size_t i = 0; i < REGISTER_CLASSES.size(); i++)
        metrics.push_back({std::string(REGISTER_CLASSES[i].name),
                           fmt::format("  registers {}", REGISTER_CLASSES[i].name),
                           [i](const Trace_Counts &c) { return static_cast<double>(c.registers[i]); }});
}

// Cases that occur in no trace are left out.
void add_cases(std::vector<Metric> &metrics, const Trace_Counts &total)
{
    for (size_t i = 0; i <= UNKNOWN_CASE; i++)
        if (total.fetch_cases[i] != 0)
            metrics.push_back({"fetch_" + case_name(i), fmt::format("  fetch {}", case_name(i)),
                               [i](const Trace_Counts &c) { return static_cast<double>(c.fetch_cases[i]); }});
    for (size_t i = 0; i < UNKNOWN_CASE; i++)
        if (total.data_cases[i] != 0)
            metrics.push_back({"data_" + case_name(i), fmt::format("  data {}", case_name(i)),
                               [i](const Trace_Counts &c) { return static_cast<double>(c.data_cases[i]); }});
}

void add_bytes(std::vector<Metric> &metrics, const Trace_Counts &total)
{
    for (size_t i = 0; i < FIELD_GROUPS; i++)
        if (total.group_bytes[i] != 0)
            metrics.push_back({fmt::format("bytes_{}", GROUPS[i].name),
                               fmt::format("  bytes of {}", GROUPS[i].name),
                               [i](const Trace_Counts &c) { return per_instruction(c, c.group_bytes[i]); }, 2});
    metrics.push_back({"bytes_in_file", "  bytes in the file",
                       [](const Trace_Counts &c) { return per_instruction(c, c.file_bytes); }, 2});
}

Metric page_metric(const std::string &side, const std::string &label, uint8_t code, const std::string &name,
                   Side_Pages Touched_Pages::*pages)
{
    const auto value = [code, pages](const Trace_Counts &c) {
        const auto &counts = (c.touched.*pages).counts;
        const auto found = counts.find(code);
        return found == counts.end() ? 0.0 : static_cast<double>(found->second);
    };
    return {side + "_pages_" + name, fmt::format("  {} pages of {}", label, name), value, 0, true};
}

void add_pages(std::vector<Metric> &metrics, const Touched_Pages &total, const Page_Sizes &sizes)
{
    std::set<uint8_t> codes;
    for (const Side_Pages *side : {&total.fetched, &total.data})
        for (const auto &[code, count] : side->counts)
            codes.insert(code);
    for (const uint8_t code : codes) {
        metrics.push_back(page_metric("fetch", "fetched", code, sizes.name(code), &Touched_Pages::fetched));
        metrics.push_back(page_metric("data", "data", code, sizes.name(code), &Touched_Pages::data));
    }
}

Metric heading(const char *text)
{
    return {"", text, nullptr};
}

std::vector<Metric> metrics_of(const Trace_Counts &total, const Page_Sizes &sizes)
{
    using C = Trace_Counts;
    std::vector<Metric> metrics = {
        count("instructions", "instructions", &C::instructions),
        count("full_headers", "  file headers", &C::full_headers),
        count("partition_headers", "  partition headers", &C::partition_headers),
        count("branches", "branches", &C::branches),
        count("taken", "  conditional, taken", &C::taken),
        count("not_taken", "  conditional, not taken", &C::not_taken),
        count("unconditional", "  unconditional", &C::unconditional),
        count("undecided", "  not known (last before a pause or the end)", &C::undecided),
        count("other_jumps", "  exceptions and interrupts", &C::other_jumps),
        heading("memory"),
        count("loads", "  loads", &C::loads),
        count("stores", "  stores", &C::stores),
        count("cache", "  cache instructions", &C::cache),
        count("strings", "  string instructions", &C::strings),
        count("string_bytes", "  bytes moved by them", &C::string_bytes),
        count("data_addresses", "  data addresses", &C::data_addresses),
        count("data_errors", "  of them suspect", &C::data_errors),
        heading("registers in and out"),
    };
    add_registers(metrics);
    metrics.push_back(heading("translation (guest/host mode)"));
    add_cases(metrics, total);
    metrics.push_back(heading("pages touched"));
    add_pages(metrics, total.touched, sizes);
    metrics.push_back(heading("bytes a record"));
    add_bytes(metrics, total);
    return metrics;
}

class Stats_Command : public Command
{
public:
    void declare(Options &app) override
    {
        declare_files(app, files_);
        declare_number(app, "--top", top_, "pages and branch targets to list")->default_str("10");
        declare_page_bits(app, bits_);
        declare_scan(app, scan_);
        scan_.steps = 8; // merging pages and targets costs as much for a small group as for a large one
        filter_.declare_choices(app);
        declare_symbols(app, symbols_);
    }

    void run(Tool_Run &run) override;

private:
    struct Column {
        Column(std::string of, const Page_Sizes &sizes, const Symbol_Names &names)
            : name(std::move(of)), counts(std::make_unique<Trace_Counts>(sizes)),
              functions(std::make_unique<Function_Counts>(names)), targets(names)
        {
            targets.enter_any();
        }
        std::string name;
        std::unique_ptr<Trace_Counts> counts;
        std::unique_ptr<Function_Counts> functions;
        mutable Name_Finder targets; // names of branch targets, which are counted over all processes
        Item_Notes notes() const { return {targets.any() ? &targets : nullptr}; }
    };
    // False: the run has been told why the file cannot be read to its end.
    bool count_file(Tool_Run &run, Trace_File &file, const Symbol_Names &names, Column &to) const;
    bool count_chosen(Tool_Run &run, Trace_File &file, const Symbol_Names &names, Column &to) const;
    void print(Tool_Run &run, const std::vector<Column> &columns) const;
    static std::string cell(const Metric &metric, const Trace_Counts &counts);
    static Table table_of(const std::vector<Column> &columns, const std::vector<Metric> &metrics);
    void print_lists(Output &out, const Column &total) const;
    void print_functions(Output &out, const Column &total) const;
    void print_pages(Output &out, const char *title, const Side_Pages &pages) const;
    void print_json(Output &out, const Column &column, const std::vector<Metric> &metrics) const;
    void list_pages(Json_Writer &json, const char *key, const Side_Pages &pages) const;
    void list_functions(Json_Writer &json, const Function_Counts &functions) const;
    void list_targets(Json_Writer &json, const Column &column) const;

    std::vector<std::string> files_;
    uint64_t top_ = 10;
    std::vector<uint32_t> bits_;
    Page_Sizes sizes_;
    Scan_Options scan_;
    Record_Filter filter_;
    Symbol_Options symbols_;
};

// Counts of a group of blocks.
class Stats_Sink : public Item_Sink
{
public:
    Stats_Sink(const Page_Sizes &sizes, const Symbol_Names &names) : counts(sizes), functions(names) {}
    void begin(const Group_Start &start) override
    {
        start.at_start ? counts.loss(start.context) : counts.begin(start.context);
    }
    void header(const QTRACE_Item &item) override { counts.header(item.header); }
    void record(const QTRACE_Item &item) override
    {
        counts.record(item);
        if (functions.any())
            functions.add(item, context());
    }
    void loss(const QTRACE_Item &item, const std::string &) override { counts.loss(item.discontinuity.context); }

    Trace_Counts counts;
    Function_Counts functions;
};

bool Stats_Command::count_file(Tool_Run &run, Trace_File &file, const Symbol_Names &names, Column &to) const
{
    to.counts->file_bytes = file.info().size;
    if (filter_.picks())
        return count_chosen(run, file, names, to);
    return scan<Stats_Sink>(
        run, file, scan_, [&] { return std::make_unique<Stats_Sink>(sizes_, names); },
        [&](const Stats_Sink &group) {
            to.counts->append(group.counts);
            to.functions->add(group.functions);
            return true;
        });
}

// Counts of the chosen records of a group of blocks. What runs is not known after records that were passed over.
class Chosen_Stats_Sink : public Chosen_Sink
{
public:
    Chosen_Stats_Sink(const Record_Filter &filter, const Page_Sizes &sizes, const Symbol_Names &names)
        : Chosen_Sink(filter), counts_(sizes), functions_(names)
    {
    }
    void header(const QTRACE_Item &item) override
    {
        counts_.header(item.header);
        if (taken() == 0 && item.header.control.iar_is_present)
            opening_ = item.header;
    }

    // Adds the counts to those of the groups before. `following`: the number of the record after the last that was chosen.
    void append_to(Trace_Counts &counts, Function_Counts &functions, uint64_t &following) const
    {
        if (taken() > 0) {
            if (opening_)
                counts.header(*opening_);
            if (first_ != following)
                counts.loss(nullptr);
            following = following_;
        }
        counts.append(counts_);
        functions.add(functions_);
    }

protected:
    void chosen(const QTRACE_Item &record) override
    {
        if (taken() == 1) {
            first_ = record.record_number;
            counts_.begin(context()); // groups before tell what runs
        } else if (record.record_number != following_) {
            counts_.loss(context());
        }
        counts_.record(record);
        if (functions_.any())
            functions_.add(record, context());
        following_ = record.record_number + 1;
    }

private:
    Trace_Counts counts_;
    Function_Counts functions_;
    std::optional<QTRACE_FILE_HDR> opening_; // the last full header before the first record
    uint64_t first_ = 0, following_ = 0;
};

// Headers say what the chosen records run under, and are not counted.
bool Stats_Command::count_chosen(Tool_Run &run, Trace_File &file, const Symbol_Names &names, Column &to) const
{
    if (!file.has_record(scan_.range.first)) {
        run.fail(file.no_record(scan_.range.first));
        return false;
    }
    Trace_Counts &counts = *to.counts;
    uint64_t following = 0;
    const bool readable = scan<Chosen_Stats_Sink>(
        run, file, scan_, [&] { return std::make_unique<Chosen_Stats_Sink>(filter_, sizes_, names); },
        [&](const Chosen_Stats_Sink &group) {
            group.append_to(counts, *to.functions, following);
            return true;
        });
    counts.full_headers = counts.partition_headers = 0;
    std::erase_if(counts.partitions, [](const auto &partition) { return partition.second == 0; });
    return readable;
}

// The pages of one file at a time are in memory, and those of all files together.
void Stats_Command::run(Tool_Run &run)
{
    sizes_ = page_sizes(bits_);
    const Symbol_Names names(run, symbols_);
    const std::vector<std::string> files = traces_of(run, files_);
    std::vector<Column> columns;
    Column total("total", sizes_, names);
    for (const std::string &name : files) {
        const std::unique_ptr<Trace_File> file = Trace_File::open(run, name);
        Column column(name, sizes_, names);
        if (!file || !count_file(run, *file, names, column))
            continue;
        if (files.size() > 1) {
            total.counts->add(*column.counts);
            total.functions->add(*column.functions);
        }
        column.counts->finish_pages(top_);
        columns.push_back(std::move(column));
    }
    if (columns.empty())
        return;
    if (columns.size() > 1) {
        total.counts->finish_pages(top_);
        columns.push_back(std::move(total));
    }
    print(run, columns);
}

void Stats_Command::print(Tool_Run &run, const std::vector<Column> &columns) const
{
    const std::vector<Metric> metrics = metrics_of(*columns.back().counts, sizes_);
    run.show(
        [&] {
            print_table(run.out, table_of(columns, metrics), run.columns);
            print_lists(run.out, columns.back());
        },
        [&] {
            for (const Column &column : columns)
                print_json(run.out, column, metrics);
        });
}

std::string Stats_Command::cell(const Metric &metric, const Trace_Counts &counts)
{
    const bool about = metric.of_pages && counts.touched.estimated;
    return fmt::format("{}{:.{}f}", about ? "about " : "", metric.value(counts), metric.decimals);
}

Table Stats_Command::table_of(const std::vector<Column> &columns, const std::vector<Metric> &metrics)
{
    Table table;
    for (const Column &column : columns)
        table.columns.push_back(column.name);
    for (const Metric &metric : metrics) {
        table.rows.push_back({metric.label, {}});
        if (metric.value)
            for (const Column &column : columns)
                table.rows.back().cells.push_back(cell(metric, *column.counts));
    }
    return table;
}

void Stats_Command::print_pages(Output &out, const char *title, const Side_Pages &pages) const
{
    out.print("{}\n", title);
    for (const auto &[page, times] : pages.hottest)
        out.print("  {:016x}  {:<8} {:>12}{}\n", page.first, sizes_.name(page.size_code), times,
                  page.guest == 0 ? "" : fmt::format("  in partition {}", page.guest - 1));
}

void Stats_Command::print_functions(Output &out, const Column &total) const
{
    if (!total.functions->any())
        return;
    out.put("hot functions (instructions)\n");
    for (const auto &[symbol, times] : total.functions->top(top_)) {
        out.print("  {:>12}  {:5.1f} %  ", times, 100.0 * per_instruction(*total.counts, times));
        print_visible(out, symbol != nullptr ? symbol->name : "(no symbol)");
        out.put('\n');
    }
}

static void print_shortfall(Output &out, uint64_t shortfall)
{
    if (shortfall > 0)
        out.print("  (counts may be too low, by at most {})\n", shortfall);
}

void Stats_Command::print_lists(Output &out, const Column &column) const
{
    const Trace_Counts &total = *column.counts;
    out.put("partitions (instructions)\n");
    for (const auto &[partition, times] : total.partitions)
        out.print("  lpid 0x{:<6x} pid {:<10} {:>12}  {:5.1f} %\n", partition.lpid, partition.pid, times,
                  100.0 * per_instruction(total, times));
    print_functions(out, column);
    print_pages(out, "hot pages, fetched (real address, size, instructions)", total.touched.fetched);
    if (total.unnamed_fetches > 0)
        out.print("  on pages entered in sequence, which records do not name: {}\n", total.unnamed_fetches);
    print_shortfall(out, total.touched.shortfall);
    print_pages(out, "hot pages, data (real address, size, accesses)", total.touched.data);
    print_shortfall(out, total.touched.shortfall);
    out.put("hot branch targets (address, times)\n");
    for (const auto &[target, times] : total.targets.top(top_)) {
        out.print("  {:016x}  {:>21}", target, times);
        print_name(out, column.notes(), target);
        out.put('\n');
    }
    print_shortfall(out, total.targets.shortfall());
}

void Stats_Command::list_pages(Json_Writer &json, const char *key, const Side_Pages &pages) const
{
    json.array(key, [&] {
        for (const auto &hot : pages.hottest)
            json.object([&] {
                const auto &[page, times] = hot;
                json.member("address", Json_Hex{page.first});
                json.member("size", sizes_.name(page.size_code));
                json.member("times", times);
                if (page.guest != 0)
                    json.member("lpid", Json_Hex{page.guest - 1});
            });
    });
}

void Stats_Command::list_functions(Json_Writer &json, const Function_Counts &functions) const
{
    if (!functions.any())
        return;
    json.array("hot_functions", [&] {
        for (const auto &hot : functions.top(top_))
            json.object([&] {
                const auto &[symbol, times] = hot;
                if (symbol == nullptr) {
                    json.member("symbol", nullptr);
                } else {
                    json.member("symbol", symbol->name);
                    json.member("address", Json_Hex{symbol->first});
                }
                json.member("instructions", times);
            });
    });
}

void Stats_Command::list_targets(Json_Writer &json, const Column &column) const
{
    const auto &targets = column.counts->targets;
    json.array("hot_targets", [&] {
        for (const auto &hot : targets.top(top_))
            json.object([&] {
                const auto &[target, times] = hot;
                json.member("address", Json_Hex{target});
                name_member(json, "symbol", column.notes(), target);
                json.member("times", times);
            });
    });
    json.member("target_shortfall", targets.shortfall());
}

static void list_partitions(Json_Writer &json, const Trace_Counts &counts)
{
    json.array("partitions", [&] {
        for (const auto &counted : counts.partitions)
            json.object([&] {
                const auto &[partition, times] = counted;
                json.member("lpid", Json_Hex{partition.lpid});
                json.member("pid", partition.pid);
                json.member("instructions", times);
            });
    });
}

static void list_bytes(Json_Writer &json, const Trace_Counts &counts)
{
    json.object("total_bytes", [&] {
        for (size_t i = 0; i < FIELD_GROUPS; i++)
            if (counts.group_bytes[i] != 0)
                json.member(GROUPS[i].name, counts.group_bytes[i]);
        json.member("in_file", counts.file_bytes);
    });
}

void Stats_Command::print_json(Output &out, const Column &column, const std::vector<Metric> &metrics) const
{
    const Trace_Counts &counts = *column.counts;
    Json_Writer json(out);
    json.line([&] {
        json.member("file", column.name);
        for (const Metric &metric : metrics)
            if (metric.value)
                json.member(metric.key, Json_Fixed{metric.value(counts), metric.decimals == 0 ? 0 : 4});
        list_partitions(json, counts);
        list_bytes(json, counts);
        json.member("unnamed_fetches", counts.unnamed_fetches);
        list_functions(json, *column.functions);
        list_pages(json, "hot_fetch_pages", counts.touched.fetched);
        list_pages(json, "hot_data_pages", counts.touched.data);
        if (counts.touched.estimated) {
            json.member("pages_estimated", true);
            json.member("page_shortfall", counts.touched.shortfall);
        }
        list_targets(json, column);
    });
}

} // namespace

std::unique_ptr<Command> make_stats_command()
{
    return std::make_unique<Stats_Command>();
}

} // namespace qtrace_tool
