#include "item_scan.h"
#include "record_printer.h"
#include "tlb_feed.h"
#include "tlb_json.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>
#include <iterator>

namespace qtrace_tool
{
namespace
{

// ---- The command line ----------------------------------------------------------------------------------

// "64x4": entries and ways; "64": fully associative.
Tlb_Size parse_level(const std::string &text)
{
    constexpr uint64_t MOST = 1 << 20;
    const size_t x = text.find('x');
    const std::optional<uint64_t> entries = parse_digits(text.substr(0, x), 10);
    const std::optional<uint64_t> ways = x == std::string::npos ? entries : parse_digits(text.substr(x + 1), 10);
    if (!entries || !ways)
        throw Usage_Error(fmt::format("`{}` is not a TLB level: ENTRIESxWAYS or ENTRIES expected", text));
    if (*entries == 0 || *ways == 0 || *entries > MOST || *entries % *ways != 0)
        throw Usage_Error(
            fmt::format("`{}`: a level has 1 to {} entries, a multiple of its ways", text, uint64_t{MOST}));
    return {static_cast<uint32_t>(*entries), static_cast<uint32_t>(*ways)};
}

std::optional<uint8_t> parse_page_size(const std::string &text)
{
    std::vector<std::string> names = {"as-traced"};
    if (text == names[0])
        return std::nullopt;
    for (const uint8_t bits : std::initializer_list<uint8_t>{12, 16, 21, 30}) {
        names.push_back(size_name(uint64_t{1} << bits));
        if (text == names.back())
            return bits;
    }
    throw unknown_word("page size", text, names);
}

std::vector<Tlb_Table> parse_tables(const std::vector<std::string> &words)
{
    const std::vector<std::string> names(std::begin(TLB_TABLES), std::end(TLB_TABLES));
    std::vector<Tlb_Table> tables;
    for (const std::string &word : words) {
        const auto name = std::ranges::find(names, word);
        if (name == names.end())
            throw unknown_word("table", word, names);
        tables.push_back(static_cast<Tlb_Table>(name - names.begin()));
    }
    return tables;
}

// ---- Text ----------------------------------------------------------------------------------------------

class Tlb_Text
{
public:
    Tlb_Text(Output &out, const Tlb_Figures &figures, const Tlb_Options &options, const Tlb_Lists &lists)
        : out_(out), figures_(figures), options_(options), lists_(lists)
    {
    }
    void print(const std::string &name);

private:
    void accesses();
    void levels();
    void walks();
    void walk_row(const char *name, const Walk_Figures &kind, const uint64_t (&reads)[WALK_LEVELS]);
    void switches();
    void interval_row(const char *label, const Tlb_Interval &interval);
    void series();
    void curves();
    void curve(const Distance_Counts &distances, const char *title);
    void table(Tlb_Table table);
    void shortfall(uint64_t walks);
    void advice();
    double rate(uint64_t count) const { return per_thousand(count, figures_.instructions); }

    Output &out_;
    const Tlb_Figures &figures_;
    const Tlb_Options &options_;
    const Tlb_Lists &lists_;
};

void Tlb_Text::print(const std::string &name)
{
    out_.paint(Colour::head);
    out_.put(name);
    out_.paint(Colour::plain);
    out_.put('\n');
    accesses();
    levels();
    walks();
    switches();
    series();
    curves();
    for (const Tlb_Table list : lists_.tables)
        table(list);
    advice();
}

void Tlb_Text::accesses()
{
    out_.print("  instructions  {:>12}\n", figures_.instructions);
    out_.print("  {:<12}  {:>12} {:>12} {:>12} {:>12}\n", "accesses", "translated", "real mode", "not known",
               "walks");
    for (const size_t side : {size_t{0}, size_t{1}})
        out_.print("    {:<10}  {:>12} {:>12} {:>12} {:>12}\n", side == 0 ? "fetches" : "data",
                   figures_.translated[side], figures_.untranslated[side], figures_.not_known[side],
                   figures_.walks_of[side]);
    if (figures_.suspect > 0)
        out_.print("    data accesses whose translation failed, which are left out: {}\n", figures_.suspect);
    if (figures_.remapped > 0)
        out_.print("    accesses to a page that was mapped anew, which miss: {}{}\n",
                   figures_.is_estimate() ? "about " : "", figures_.remapped);
}

void Tlb_Text::levels()
{
    out_.print("  {:<12}  {:>12} {:>12} {:>12} {:>12}\n", "TLB", "lookups", "misses", "per 1000", "reach");
    for (size_t i = 0; i < figures_.levels.size(); i++) {
        const Level_Figures &level = figures_.levels[i];
        const Tlb_Size &size = options_.levels[i];
        out_.print("    {:<10}  {:>12} {:>12} {:>12.3f} {:>12}{}\n", fmt::format("{}x{}", size.entries, size.ways),
                   level.lookups, level.misses, rate(level.misses), size_name(level.most_reach),
                   options_.split && i == 0 ? "  (one for fetches, one for data)" : "");
    }
}

void Tlb_Text::walk_row(const char *name, const Walk_Figures &kind, const uint64_t (&reads)[WALK_LEVELS])
{
    out_.print("      {:<22}", name);
    for (const uint64_t level : reads)
        out_.print(" {:>8.2f}", static_cast<double>(level) / static_cast<double>(kind.walks));
    out_.put('\n');
}

void Tlb_Text::walks()
{
    const uint64_t walks = figures_.walks();
    out_.print("  walks {}, {:.3f} per 1000 instructions\n", walks, rate(walks));
    for (size_t i = 0; i < XLATE_KINDS; i++) {
        const Walk_Figures &kind = figures_.kinds[i];
        if (kind.walks == 0)
            continue;
        out_.print("    {:<11} {:>10} walks, {:.1f} % of all", kind_name(static_cast<Xlate_Kind>(i)), kind.walks,
                   100.0 * static_cast<double>(kind.walks) / static_cast<double>(walks));
        if (kind.entries == 0) {
            out_.put("; the table entries that they read are not in the trace\n");
            continue;
        }
        out_.print("; {:.1f} entries, {:.1f} of them read\n",
                   static_cast<double>(kind.entries) / static_cast<double>(kind.walks),
                   static_cast<double>(kind.read()) / static_cast<double>(kind.walks));
        out_.print("      {:<22} {:>8} {:>8} {:>8} {:>8}\n", "read per walk, by level", 1, 2, 3, "page");
        if (static_cast<Xlate_Kind>(i) == Xlate_Kind::nested)
            walk_row("of the guest's tables", kind, kind.reads[static_cast<size_t>(Walk_Stage::guest)]);
        walk_row("of the host's tables", kind, kind.reads[static_cast<size_t>(Walk_Stage::host)]);
    }
    out_.print("    walk cache of {}: {} hits; nested cache of {}: {} hits\n", options_.walk_cache,
               figures_.walk_cache_hits, options_.nested_cache, figures_.nested_cache_hits);
}

void Tlb_Text::interval_row(const char *label, const Tlb_Interval &interval)
{
    out_.print("    {:<34} {:>12} instructions {:>10} walks {:>10.3f} per 1000\n", label, interval.instructions,
               interval.cost.walks, per_thousand(interval.cost.walks, interval.instructions));
}

void Tlb_Text::switches()
{
    if (figures_.switches == 0)
        return;
    const Tlb_Interval &after = figures_.after_switch;
    out_.print("  switches {}: {} of partition, {} of process alone\n", figures_.switches,
               figures_.partition_switches, figures_.switches - figures_.partition_switches);
    interval_row("the first 1000 instructions after one", after);
    interval_row("the rest",
                 {figures_.instructions - after.instructions, {0, figures_.walks() - after.cost.walks, 0}});
}

void Tlb_Text::series()
{
    if (options_.interval == 0)
        return;
    out_.print("  series        {:>12} {:>12} {:>12} {:>12}\n", "instructions", "accesses", "walks", "per 1000");
    uint64_t first = 0;
    for (const Tlb_Interval &interval : figures_.series) {
        out_.print("  {:>12}  {:>12} {:>12} {:>12} {:>12.3f}\n", first, interval.instructions,
                   interval.cost.accesses, interval.cost.walks,
                   per_thousand(interval.cost.walks, interval.instructions));
        first += interval.instructions;
    }
}

void Tlb_Text::curves()
{
    if (figures_.distances.size() == 1) {
        curve(figures_.distances[0], "misses by size, fully associative");
        return;
    }
    curve(figures_.distances[0], "misses of fetches by size, fully associative");
    curve(figures_.distances[1], "misses of data accesses by size, fully associative");
}

void Tlb_Text::curve(const Distance_Counts &distances, const char *title)
{
    out_.print("  {}{}\n", title, distances.is_estimate() ? "; estimated from a sample of the pages" : "");
    for (const uint64_t size : distances.sizes())
        out_.print("    {:<10}  {:>12} {:>12.3f} per 1000\n", size, distances.misses(size),
                   rate(distances.misses(size)));
}

std::string key_text(const nlohmann::ordered_json &key)
{
    std::string text;
    for (const auto &[name, value] : key.items()) {
        const std::string shown = value.is_string() ? value.get<std::string>() : value.dump();
        const bool bare = name == "address" || name == "size" || name == "kind";
        text += fmt::format("{}{}{}", text.empty() ? "" : " ", bare ? "" : name + " ", shown);
    }
    return text;
}

void Tlb_Text::table(Tlb_Table table)
{
    const bool of_walks = table == Tlb_Table::instruction;
    out_.print("  {:<52} {:>12} {:>10} {:>12}\n", fmt::format("by {}", TLB_TABLES[static_cast<size_t>(table)]),
               of_walks ? "missed" : "accesses", "walks", "entries read");
    for (const Tlb_Row &row : tlb_rows(figures_, table, lists_.top))
        out_.print("    {:<50} {:>12} {:>10} {:>12}\n", key_text(row.key), row.cost.accesses, row.cost.walks,
                   row.cost.read);
    if (table == Tlb_Table::instruction)
        shortfall(figures_.instructions_at.shortfall());
    if (table == Tlb_Table::page)
        shortfall(figures_.pages.shortfall());
}

void Tlb_Text::shortfall(uint64_t walks)
{
    if (walks > 0)
        out_.print("    (counts may be too low, of walks by at most {})\n", walks);
}

void Tlb_Text::advice()
{
    for (const Tlb_Advice &advice : tlb_advice(figures_, lists_.top))
        out_.print(
            "  one page of 2M at 0x{:x} ({}, lpid 0x{:x}): {}{} entries become 1, {:.0f} % of the walks saved\n",
            advice.page.first, kind_name(advice.page.kind), advice.page.lpid,
            figures_.is_estimate() ? "about " : "", advice.region.pages,
            100.0 * static_cast<double>(advice.saved()) / static_cast<double>(figures_.walks()));
    shortfall(figures_.regions.shortfall());
}

constexpr const char *NOT_MODELLED =
    "Not modelled: speculative and prefetched accesses, the walks of entries of the process and partition tables,\n"
    "the time that a walk takes, invalidations (but for pages that come back mapped anew), the accesses while\n"
    "tracing was paused. Each hardware thread has a TLB of its own.\n";

// ---- The command ---------------------------------------------------------------------------------------

class Tlb_Command : public Command
{
public:
    void declare(Options &app) override;
    void run(Tool_Run &run) override;

private:
    void declare_model(Options &app);
    void declare_output(Options &app);
    void read_options();
    std::unique_ptr<Tlb_Figures> replay(Tool_Run &run, Trace_File &file) const;
    void print(Tool_Run &run, const std::string &name, const Tlb_Figures &figures) const;

    std::vector<std::string> files_, entries_, per_{"instruction", "page"};
    std::string page_size_ = "as-traced";
    std::vector<uint32_t> bits_;
    uint64_t walk_cache_ = 16, nested_cache_ = 16, top_ = 10;
    Page_Sizes sizes_;
    Scan_Options scan_;
    Tlb_Options options_;
    Tlb_Lists lists_;
};

void Tlb_Command::declare(Options &app)
{
    declare_files(app, files_);
    declare_scan(app, scan_);
    declare_model(app);
    declare_output(app);
}

void Tlb_Command::declare_model(Options &app)
{
    app.add_list("--entries", entries_, "levels of the TLB, first to last (default 64x4,1536x12)")
        ->type_name("ENTRIESxWAYS,...");
    app.add_flag("--split", options_.split, "the first level is one TLB for fetches and one for data");
    declare_number(app, "--walk-cache", walk_cache_, "table entries that walks find cached")->default_str("16");
    declare_number(app, "--nested-cache", nested_cache_, "guest real pages whose host walk is cached")
        ->default_str("16");
    app.add_option("--page-sizes", page_size_, "what if every page had this size: as-traced, 4K, 64K, 2M, 1G")
        ->type_name("SIZE")
        ->default_str("as-traced");
    app.add_flag("--flush-on-switch", options_.flush_on_switch,
                 "empty everything where the partition or the process changes");
    declare_page_bits(app, bits_);
}

void Tlb_Command::declare_output(Options &app)
{
    app.add_list("--per", per_,
                 "tables to show: partition, process, page-size, instruction, page (default instruction,page)")
        ->type_name("TABLE,...");
    declare_number(app, "--interval", options_.interval,
                   "instructions of each row of a series; without: no series");
    declare_number(app, "--top", top_, "rows of each table")->default_str("10");
}

void Tlb_Command::read_options()
{
    constexpr uint64_t MOST = 1 << 20;
    if (!entries_.empty())
        options_.levels.clear();
    for (const std::string &level : entries_)
        options_.levels.push_back(parse_level(level));
    if (walk_cache_ > MOST || nested_cache_ > MOST)
        throw Usage_Error(fmt::format("a cache has at most {} entries", uint64_t{MOST}));
    options_.walk_cache = walk_cache_;
    options_.nested_cache = nested_cache_;
    options_.page_bits = parse_page_size(page_size_);
    lists_ = {parse_tables(per_), top_};
    sizes_ = page_sizes(bits_);
}

// The accesses of a group of blocks.
class Tlb_Sink : public Item_Sink
{
public:
    explicit Tlb_Sink(const Page_Sizes &sizes) : accesses(sizes) {}
    void begin(const Group_Start &start) override
    {
        if (start.at_start && start.context != nullptr)
            accesses.loss(0, start.context); // the range begins in the middle of the file
    }
    void header(const QTRACE_Item &item) override { accesses.header(item); }
    void record(const QTRACE_Item &item) override
    {
        accesses.record(item);
        set_full(accesses.is_long());
    }
    void loss(const QTRACE_Item &item, const std::string &) override
    {
        accesses.loss(item.record_number, item.discontinuity.context);
    }

    Access_List accesses;
};

// What a TLB holds depends on all accesses before, so that one thread runs the model; others read ahead of it. Null: the
// run has been told why the file cannot be read to its end.
std::unique_ptr<Tlb_Figures> Tlb_Command::replay(Tool_Run &run, Trace_File &file) const
{
    Tlb_Model model(options_);
    Tlb_Feed feed({&model});
    const auto make = [this] { return std::make_unique<Tlb_Sink>(sizes_); };
    const auto merge = [&feed](Tlb_Sink &group) {
        for (const Access_Entry &entry : group.accesses.entries())
            feed.take(entry, group.accesses);
        group.accesses.clear();
        return true;
    };
    if (!file.has_record(scan_.range.first)) {
        run.fail(file.no_record(scan_.range.first));
        return nullptr;
    }
    if (!scan<Tlb_Sink>(run, file, scan_, make, merge))
        return nullptr;
    return std::make_unique<Tlb_Figures>(model.take());
}

void Tlb_Command::print(Tool_Run &run, const std::string &name, const Tlb_Figures &figures) const
{
    run.show([&] { Tlb_Text(run.out, figures, options_, lists_).print(name); },
             [&] {
                 nlohmann::ordered_json json = {{"file", name}};
                 json.update(tlb_json(figures, options_, lists_));
                 run.out.print("{}\n", json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
             });
}

void Tlb_Command::run(Tool_Run &run)
{
    read_options();
    const std::vector<std::unique_ptr<Trace_File>> files = open_traces(run, files_);
    Tlb_Figures total;
    for (const std::unique_ptr<Trace_File> &file : files) {
        const std::unique_ptr<Tlb_Figures> figures = replay(run, *file);
        if (!figures)
            continue;
        print(run, file->name(), *figures);
        if (files.size() > 1)
            total.add(*figures);
    }
    if (files.size() > 1)
        print(run, "total", total);
    if (!files.empty())
        run.show([&] { run.out.put(NOT_MODELLED); }, [] {});
}

} // namespace

std::unique_ptr<Command> make_tlb_command()
{
    return std::make_unique<Tlb_Command>();
}

} // namespace qtrace_tool
