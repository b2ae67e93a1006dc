#include "report_page.h"

#include "tlb_json.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace qtrace_tool
{
namespace
{

using Json = nlohmann::ordered_json;

constexpr size_t MOST_PICTURED_THREADS = 8; // the tables have all of them
constexpr size_t TOP = 20;                  // rows of a table

std::string escaped(std::string_view text)
{
    std::string out;
    for (const char c : text)
        switch (c) {
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '&':
            out += "&amp;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
        }
    return out;
}

std::string grouped(uint64_t number)
{
    std::string text = fmt::format("{}", number);
    for (auto place = static_cast<std::ptrdiff_t>(text.size()) - 3; place > 0; place -= 3)
        text.insert(static_cast<size_t>(place), ",");
    return text;
}

std::string percent(uint64_t part, uint64_t whole)
{
    return fmt::format("{:.1f} %",
                       whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string plural(uint64_t count, const char *noun)
{
    return fmt::format("{} {}{}", grouped(count), noun, count == 1 ? "" : "s");
}

std::string process_name(const Partition_Key &key)
{
    return fmt::format("lpid 0x{:x} pid {}", key.lpid, key.pid);
}

// ---- Tables --------------------------------------------------------------------------------------------

// A cell: what is shown, and what it is sorted by when that differs.
struct Cell {
    std::string shown, value;
    bool code = false;
};

Cell number_cell(uint64_t number)
{
    return {grouped(number), fmt::format("{}", number)};
}

Cell address_cell(uint64_t address)
{
    return {fmt::format("{:#018x}", address), fmt::format("0x{:x}", address), true};
}

Cell rate_cell(double rate)
{
    return {fmt::format("{:.3f}", rate), fmt::format("{}", rate)};
}

Cell command_cell(std::string command)
{
    return {std::move(command), "", true};
}

// Whether a column says nothing, such as names without symbols.
bool is_empty(const std::vector<std::vector<Cell>> &rows, size_t column)
{
    return column > 0 && std::ranges::all_of(rows, [column](const auto &row) { return row[column].shown.empty(); });
}

std::string cell_html(const Cell &cell, bool first)
{
    const char *const name = first ? "th" : "td";
    return fmt::format("<{}{}{}{}>{}</{}>", name, first ? " scope=\"row\"" : "",
                       cell.code && !first ? " class=\"code\"" : "",
                       cell.value.empty() ? "" : fmt::format(" data-value=\"{}\"", escaped(cell.value)),
                       cell.code ? "<code>" + escaped(cell.shown) + "</code>" : escaped(cell.shown), name);
}

std::string head_html(const std::string &head, bool sorted)
{
    const bool commands = head == "Shown by";
    return fmt::format("<th scope=\"col\"{}{}>{}</th>", commands ? " class=\"shown\"" : "",
                       sorted && !commands ? " data-sort" : "", escaped(head));
}

std::string table(const std::string &caption, const std::vector<std::string> &heads,
                  const std::vector<std::vector<Cell>> &rows, bool sorted = true)
{
    std::string out = fmt::format("<div class=\"scroll\" tabindex=\"0\" role=\"region\" aria-label=\"{0}\">"
                                  "<table{1}><caption>{0}</caption><thead><tr>",
                                  escaped(caption), sorted ? " class=\"sort\"" : "");
    for (size_t i = 0; i < heads.size(); i++)
        out += is_empty(rows, i) ? "" : head_html(heads[i], sorted);
    out += "</tr></thead><tbody>";
    for (const std::vector<Cell> &row : rows) {
        out += "<tr>";
        for (size_t i = 0; i < row.size(); i++)
            out += is_empty(rows, i) ? "" : cell_html(row[i], i == 0);
        out += "</tr>";
    }
    return out + "</tbody></table></div>";
}

// ---- The page ------------------------------------------------------------------------------------------

class Page_Builder
{
public:
    explicit Page_Builder(Report &report) : report_(report)
    {
        for (Report_Trace &trace : report_.traces)
            for (const std::unique_ptr<Thread_Data> &thread : trace.threads)
                threads_.push_back(thread.get());
    }
    std::string build();

private:
    void open(const char *id, const char *title);
    void close() { out_ += "</section>\n"; }
    void picture(size_t thread, const char *plot, const std::string &caption, bool with_legend);
    void toolbar();
    template <class Draw> void each_pictured(Draw draw);

    void found();
    void cards();
    void sentences(const Thread_Data &thread);
    void time();
    void heat();
    void heat_table(const Heat_Map &map, const Thread_Data &thread, const char *what);
    void working_set();
    void translation();
    void translation_tables(const Thread_Data &thread);
    void mix();
    void hot();
    void hot_functions();
    void hot_of(const Thread_Data &thread);
    void side_by_side();
    void comparison();
    std::vector<std::vector<Cell>> metric_rows(const std::vector<const Trace_Counts *> &columns) const;

    Json json();
    Json processes_json(Thread_Data &thread);
    Json thread_json(Thread_Data &thread);
    Json heat_json(Heat_Map &map, const Thread_Data &thread, const char *what, bool pc);
    size_t heat_rows() const { return std::clamp<size_t>(240 / threads_.size(), 24, 96); }
    std::string named(uint64_t address) const { return report_.names->text(address); }

    Report &report_;
    std::vector<Thread_Data *> threads_;
    std::string out_;
};

void Page_Builder::open(const char *id, const char *title)
{
    out_ += fmt::format(
        "<section class=\"part\" id=\"{0}\" aria-labelledby=\"{0}-title\"><h2 id=\"{0}-title\">{1}</h2>\n", id,
        title);
}

void Page_Builder::picture(size_t thread, const char *plot, const std::string &caption, bool with_legend)
{
    out_ += fmt::format("<figure><figcaption>{}</figcaption>{}<div class=\"plot\" role=\"group\" aria-label=\"{}\" "
                        "data-thread=\"{}\" data-plot=\"{}\"></div><output class=\"said\" "
                        "aria-live=\"polite\"></output></figure>\n",
                        escaped(caption), with_legend ? "<ul class=\"legend\"></ul>" : "", escaped(caption), thread,
                        plot);
}

void Page_Builder::toolbar()
{
    out_ += "<div class=\"tools\" role=\"group\" aria-label=\"Range of time shown\">"
            "<button type=\"button\" data-zoom=\"in\">Zoom in</button><button type=\"button\" "
            "data-zoom=\"out\">Zoom out</button>"
            "<button type=\"button\" data-zoom=\"left\">Earlier</button><button type=\"button\" "
            "data-zoom=\"right\">Later</button>"
            "<button type=\"button\" data-zoom=\"all\">Everything</button></div>\n";
}

template <class Draw> void Page_Builder::each_pictured(Draw draw)
{
    for (size_t i = 0; i < std::min(threads_.size(), MOST_PICTURED_THREADS); i++) {
        if (threads_.size() > 1)
            out_ += fmt::format("<h3>{}</h3>\n", escaped(threads_[i]->name));
        draw(i, *threads_[i]);
    }
    if (threads_.size() > MOST_PICTURED_THREADS)
        out_ += fmt::format("<p class=\"note\">Pictures show the first {} threads; the tables have all.</p>\n",
                            MOST_PICTURED_THREADS);
}

// ---- 1. What was found ---------------------------------------------------------------------------------

void Page_Builder::cards()
{
    uint64_t instructions = 0, walks = 0, modelled = 0, gaps = 0, damage = 0;
    for (const Thread_Data *thread : threads_) {
        instructions += thread->counts.instructions;
        walks += thread->figures(0).walks();
        modelled += thread->modelled();
        gaps += thread->gap_count;
        damage += thread->damaged_places;
    }
    const auto card = [this](const std::string &value, const char *what) {
        out_ += fmt::format("<div><b>{}</b><span>{}</span></div>", escaped(value), what);
    };
    out_ += "<div class=\"cards\">";
    card(grouped(instructions), "instructions");
    card(grouped(threads_.size()), "hardware threads");
    card(fmt::format("{:.3g}", per_thousand(walks, modelled)), "page walks per 1000 instructions");
    card(grouped(gaps), "discontinuities");
    card(grouped(damage), "damaged places");
    out_ += "</div>\n";
}

void Page_Builder::sentences(const Thread_Data &thread)
{
    const Trace_Counts &c = thread.counts;
    const Tlb_Figures &tlb = thread.figures(0);
    const bool whole = thread.damaged_places == 0 && thread.clean_end;
    if (thread.is_part)
        out_ +=
            fmt::format("<li>Of <b>{}</b> this page shows the records from {} up to {} alone.</li>",
                        escaped(thread.name), grouped(thread.first()), grouped(std::max(thread.end(), 1ul) - 1));
    out_ += fmt::format("<li><b>{}</b> holds {}; it is <span class=\"{}\">{}</span>.", escaped(thread.name),
                        plural(c.instructions, "instruction"), whole ? "good" : "bad",
                        thread.damaged_places != 0
                            ? "damaged: " + plural(thread.damaged_places, "place") + " cannot be read"
                        : thread.clean_end ? "complete"
                                           : "cut: its end is missing");
    for (const std::string &place : thread.damage)
        out_ += fmt::format(" <code>{}</code>", escaped(place));
    out_ +=
        fmt::format(" Tracing has {} and {}; {} ran.", plural(c.full_headers, "session"),
                    thread.gap_count == 1 ? "1 discontinuity" : grouped(thread.gap_count) + " discontinuities",
                    thread.processes.size() == 1 ? "1 process" : grouped(thread.processes.size()) + " processes");
    out_ += fmt::format(" {} of the instructions are conditional branches, {} of which are taken; {} access data.",
                        percent(c.taken + c.not_taken, c.instructions), percent(c.taken, c.taken + c.not_taken),
                        percent(c.data_addresses, c.instructions));
    out_ += fmt::format(
        " A TLB of 64 and 1536 entries walks {:.3f} times per 1000 instructions, {} of the walks are nested; "
        "a walk reads {:.1f} of its {:.1f} table entries.",
        per_thousand(tlb.walks(), tlb.instructions),
        percent(tlb.kinds[static_cast<size_t>(Xlate_Kind::nested)].walks, tlb.walks()),
        tlb.walks() == 0 ? 0.0 : static_cast<double>(tlb.read_entries) / static_cast<double>(tlb.walks()),
        tlb.walks() == 0 ? 0.0 : static_cast<double>(tlb.entries()) / static_cast<double>(tlb.walks()));
    const auto hottest = thread.addresses.top(1);
    if (!hottest.empty())
        out_ += fmt::format(" The hottest instruction is at <code>{:#018x}</code>{}: {} of all.", hottest[0].first,
                            named(hottest[0].first).empty() ? "" : " in " + escaped(named(hottest[0].first)),
                            percent(hottest[0].second, c.instructions));
    out_ += "</li>\n";
}

void Page_Builder::found()
{
    open("found", "What was found");
    cards();
    out_ += "<ul class=\"found lead\">\n";
    for (const Thread_Data *thread : threads_)
        sentences(*thread);
    out_ += "</ul>\n";
    out_ += "<noscript><p class=\"note\">The pictures are drawn by a script; every figure is in the text and the "
            "tables "
            "too.</p></noscript>\n";
    close();
}

// ---- 2. Time -------------------------------------------------------------------------------------------

void Page_Builder::time()
{
    open("time", "Partitions, processes and gaps over time");
    out_ += "<p class=\"note\">Time is the record number. Dashed lines are discontinuities. Arrow keys move, + and "
            "− zoom; a click "
            "shows the records and the command that prints them.</p>\n";
    toolbar();
    each_pictured([this](size_t i, const Thread_Data &thread) {
        picture(i, "timeline", "Which process ran, " + thread.name, true);
        std::vector<std::vector<Cell>> rows;
        for (const auto &[process, times] : thread.counts.partitions)
            rows.push_back({{process_name({process.lpid, process.pid}), ""},
                            number_cell(times),
                            {percent(times, thread.counts.instructions), fmt::format("{}", times)}});
        out_ += table("Instructions by process, " + thread.name, {"Process", "Instructions", "Share"}, rows);
        rows.clear();
        for (const Report_Gap &gap : thread.gaps)
            rows.push_back(
                {number_cell(gap.record),
                 {gap.text, ""},
                 command_cell(fmt::format("qtrace dump --from {} --count 10 {}", gap.record, thread.name))});
        if (!rows.empty())
            out_ += table("Discontinuities, " + thread.name, {"Before record", "Why", "Shown by"}, rows);
    });
    close();
}

// ---- 3. Heat maps --------------------------------------------------------------------------------------

void Page_Builder::heat_table(const Heat_Map &map, const Thread_Data &thread, const char *what)
{
    struct Sum {
        uint64_t first, times, bin;
    };
    std::vector<Sum> sums;
    for (const auto &[first, row] : map.rows()) {
        Sum sum{first, 0, REPORT_BINS};
        for (size_t bin = 0; bin < REPORT_BINS; bin++) {
            sum.times += row[bin];
            if (row[bin] != 0)
                sum.bin = std::min<uint64_t>(sum.bin, bin);
        }
        sums.push_back(sum);
    }
    std::ranges::sort(sums, [](const Sum &a, const Sum &b) {
        return a.times != b.times ? a.times > b.times : a.first < b.first;
    });
    std::vector<std::vector<Cell>> rows;
    for (size_t i = 0; i < std::min(TOP, sums.size()); i++)
        rows.push_back({address_cell(sums[i].first),
                        {named(sums[i].first), ""},
                        number_cell(sums[i].times),
                        command_cell(fmt::format("qtrace dump --from {} --count {} {}",
                                                 thread.first() + sums[i].bin * thread.bin_records(),
                                                 thread.bin_records(), thread.name))});
    out_ +=
        "<details><summary>As a table</summary>" +
        table(fmt::format("{} by range of {}, {}", what, size_name(uint64_t{1} << map.range_bits()), thread.name),
              {"First address", "Name", "Times", "Shown by"}, rows) +
        "</details>\n";
}

void Page_Builder::heat()
{
    open("heat", "Addresses over time");
    out_ += "<p class=\"note\">Every row is a range of addresses, every column a range of records; yellow is most. "
            "Unused ranges are "
            "folded: a light band. Left and right move in time, up and down in addresses.</p>\n";
    toolbar();
    each_pictured([this](size_t i, Thread_Data &thread) {
        const std::tuple<const char *, const char *, Heat_Map *> maps[] = {
            {"fetches", "Instructions", &thread.fetches},
            {"reads", "Loads and other accesses", &thread.reads},
            {"writes", "Stores", &thread.writes}};
        for (const auto &[plot, what, map] : maps) {
            map->shrink(heat_rows());
            if (map->rows().empty())
                continue;
            picture(i, plot,
                    fmt::format("{}, in ranges of {}, {}", what, size_name(uint64_t{1} << map->range_bits()),
                                thread.name),
                    false);
            heat_table(*map, thread, what);
        }
    });
    close();
}

// ---- 4. Working set ------------------------------------------------------------------------------------

void Page_Builder::working_set()
{
    open("working-set", "Working set over time");
    out_ += fmt::format("<p class=\"note\">Different pages, fetched from or accessed, in each of {} ranges of "
                        "time, if every page had "
                        "4K, 64K or 2M. Exact up to {}; more are shown as that many.</p>\n",
                        REPORT_BINS, grouped(Distinct_Keys::MOST));
    toolbar();
    each_pictured([this](size_t i, const Thread_Data &thread) {
        picture(i, "working-set", "Different pages used, " + thread.name, true);
        std::vector<std::vector<Cell>> rows;
        for (size_t size = 0; size < std::size(WORKING_SET_BITS); size++) {
            uint64_t most = 0, sum = 0;
            for (size_t bin = 0; bin < thread.bins(); bin++) {
                most = std::max<uint64_t>(most, thread.working_set[bin][size]);
                sum += thread.working_set[bin][size];
            }
            rows.push_back(
                {{size_name(uint64_t{1} << WORKING_SET_BITS[size]), fmt::format("{}", WORKING_SET_BITS[size])},
                 {fmt::format("{:.1f}", static_cast<double>(sum) / static_cast<double>(thread.bins())), ""},
                 number_cell(most)});
        }
        out_ +=
            table("Pages used in a range of time, " + thread.name, {"Page size", "On average", "At most"}, rows);
    });
    close();
}

// ---- 5. Translation ------------------------------------------------------------------------------------

void Page_Builder::translation_tables(const Thread_Data &thread)
{
    const Tlb_Figures &tlb = thread.figures(0);
    const Tlb_Options options = Thread_Data::model_options(0);
    std::vector<std::vector<Cell>> rows;
    for (size_t i = 0; i < tlb.levels.size(); i++)
        rows.push_back({{fmt::format("{} entries, {} ways", options.levels[i].entries, options.levels[i].ways), ""},
                        number_cell(tlb.levels[i].lookups),
                        number_cell(tlb.levels[i].misses),
                        rate_cell(per_thousand(tlb.levels[i].misses, tlb.instructions)),
                        {size_name(tlb.levels[i].most_reach), fmt::format("{}", tlb.levels[i].most_reach)}});
    out_ += table("TLB, " + thread.name, {"Level", "Look-ups", "Misses", "Per 1000", "Reach"}, rows, false);
    rows.clear();
    for (size_t i = 0; i < XLATE_KINDS; i++) {
        const Walk_Figures &kind = tlb.kinds[i];
        if (kind.walks == 0)
            continue;
        const auto each = [&kind](uint64_t count) {
            return rate_cell(static_cast<double>(count) / static_cast<double>(kind.walks));
        };
        rows.push_back({{kind_name(static_cast<Xlate_Kind>(i)), ""},
                        number_cell(kind.walks),
                        each(kind.entries),
                        each(kind.read())});
    }
    out_ += table("Page walks, " + thread.name, {"Kind", "Walks", "Entries each", "Read each"}, rows);
    rows.clear();
    for (const Tlb_Advice &advice : tlb_advice(tlb, 5))
        rows.push_back({address_cell(advice.page.first),
                        {kind_name(advice.page.kind), ""},
                        number_cell(advice.region.pages),
                        number_cell(advice.region.walks),
                        {percent(advice.saved(), tlb.walks()), fmt::format("{}", advice.saved())}});
    if (!rows.empty())
        out_ += table("Where one page of 2M would do, " + thread.name,
                      {"Range of 2M", "Kind", "Entries now", "Walks", "Saved"}, rows);
    if (thread.modelled() < thread.counts.instructions)
        out_ += fmt::format("<p class=\"note\">Of the first {}: then the model had as many pages as it may.</p>\n",
                            plural(thread.modelled(), "instruction"));
}

void Page_Builder::translation()
{
    open("translation", "Translation");
    out_ += "<p class=\"note\">Accesses go through a model of a TLB (<code>qtrace tlb</code>). The curve shows the "
            "misses of every size of "
            "a fully associative TLB: as traced, and if all pages had one size.</p>\n";
    each_pictured([this](size_t i, const Thread_Data &thread) {
        picture(i, "curve", "Misses per 1000 instructions over TLB size, " + thread.name, true);
        translation_tables(thread);
    });
    close();
}

// ---- 6. Instruction mix --------------------------------------------------------------------------------

struct Mix_Row {
    const char *name;
    uint64_t times;
};

std::vector<Mix_Row> mix_of(const Trace_Counts &c)
{
    const uint64_t known = c.loads + c.stores + c.cache + c.branches();
    return {{"loads", c.loads},
            {"stores", c.stores},
            {"conditional branches", c.taken + c.not_taken + c.undecided},
            {"unconditional branches", c.unconditional},
            {"cache instructions", c.cache},
            {"everything else", c.instructions - std::min(known, c.instructions)}};
}

constexpr const char *BIAS_NAMES[] = {"never taken", "up to 10 % taken", "10 to 50 %",
                                      "50 to 90 %",  "90 % and more",    "always taken"};

// Executions of conditional branches by the bias of their branch.
std::array<uint64_t, std::size(BIAS_NAMES)> bias_of(const Thread_Data &thread)
{
    std::array<uint64_t, std::size(BIAS_NAMES)> bias{};
    for (const auto &[address, branch] : thread.branches) {
        const double share = static_cast<double>(branch.taken) / static_cast<double>(branch.times);
        const size_t row = branch.taken == 0              ? 0
                           : branch.taken == branch.times ? 5
                           : share < 0.1                  ? 1
                           : share < 0.5                  ? 2
                           : share < 0.9                  ? 3
                                                          : 4;
        bias[row] += branch.times;
    }
    return bias;
}

void Page_Builder::mix()
{
    open("mix", "Instructions and branches");
    each_pictured([this](size_t i, const Thread_Data &thread) {
        picture(i, "mix", "Instructions by kind, " + thread.name, false);
        std::vector<std::vector<Cell>> rows;
        for (const Mix_Row &row : mix_of(thread.counts))
            rows.push_back({{row.name, ""},
                            number_cell(row.times),
                            {percent(row.times, thread.counts.instructions), fmt::format("{}", row.times)}});
        out_ += table("Instructions by kind, " + thread.name, {"Kind", "Instructions", "Share"}, rows);
        picture(i, "bias", "Executions of conditional branches by how often the branch is taken, " + thread.name,
                false);
        rows.clear();
        const auto bias = bias_of(thread);
        for (size_t row = 0; row < bias.size(); row++)
            rows.push_back({{BIAS_NAMES[row], fmt::format("{}", row)}, number_cell(bias[row])});
        out_ += table("Bias of conditional branches, " + thread.name, {"Taken", "Executions"}, rows);
        if (thread.unlisted_branches > 0)
            out_ += fmt::format("<p class=\"note\">Without {} of branches beyond the first 32,768.</p>\n",
                                plural(thread.unlisted_branches, "execution"));
    });
    close();
}

// ---- 7. Hot places -------------------------------------------------------------------------------------

void Page_Builder::hot_functions()
{
    if (!report_.names->any())
        return;
    std::map<std::string, std::pair<uint64_t, uint64_t>> functions; // times, an address
    for (const Thread_Data *thread : threads_)
        for (const auto &[address, times] : thread->addresses.top(SIZE_MAX)) {
            const Symbol *const symbol = report_.names->find(address);
            auto &function = functions[symbol != nullptr ? symbol->name : ""];
            function.first += times;
            function.second = address;
        }
    std::vector<std::pair<std::string, std::pair<uint64_t, uint64_t>>> sorted(functions.begin(), functions.end());
    // stable: those with as many instructions stay in the order of their names
    std::ranges::stable_sort(sorted, [](const auto &a, const auto &b) { return a.second.first > b.second.first; });
    std::vector<std::vector<Cell>> rows;
    for (size_t i = 0; i < std::min(TOP, sorted.size()); i++)
        rows.push_back({{sorted[i].first.empty() ? "(no symbol)" : sorted[i].first, ""},
                        number_cell(sorted[i].second.first),
                        command_cell(fmt::format("qtrace dump --pc 0x{:x} --count 10 {}", sorted[i].second.second,
                                                 report_.traces[0].name))});
    out_ += table("Hot functions", {"Function", "Instructions", "Shown by"}, rows);
}

void Page_Builder::hot_of(const Thread_Data &thread)
{
    const auto pc_rows = [&](const Frequent_Keys &keys) {
        std::vector<std::vector<Cell>> rows;
        for (const auto &[address, times] : keys.top(TOP))
            rows.push_back(
                {address_cell(address),
                 {named(address), ""},
                 number_cell(times),
                 command_cell(fmt::format("qtrace dump --pc 0x{:x} --count 10 {}", address, thread.name))});
        return rows;
    };
    const std::vector<std::string> heads = {"Address", "Name", "Times", "Shown by"};
    out_ += table("Hot instructions, " + thread.name, heads, pc_rows(thread.addresses));
    if (thread.addresses.shortfall() > 0)
        out_ += fmt::format(
            "<p class=\"note\">There are many different addresses: counts may be too low by at most {}.</p>\n",
            grouped(thread.addresses.shortfall()));
    out_ += table("Hot branch targets, " + thread.name, heads, pc_rows(thread.counts.targets));
    std::vector<std::vector<Cell>> rows;
    for (const auto &[address, times] : thread.data_pages.top(TOP)) {
        const auto first = thread.first_record.find(address);
        rows.push_back(
            {address_cell(address),
             {named(address), ""},
             number_cell(times),
             command_cell(first == thread.first_record.end()
                              ? ""
                              : fmt::format("qtrace dump --from {} --count 10 {}", first->second, thread.name))});
    }
    out_ += table("Hot data, by 64K of effective addresses, " + thread.name, heads, rows);
    rows.clear();
    for (const Tlb_Row &row : tlb_rows(thread.figures(0), Tlb_Table::page, TOP))
        rows.push_back({{row.key["address"].get<std::string>(), row.key["address"].get<std::string>(), true},
                        {row.key["size"].get<std::string>(), ""},
                        {row.key["kind"].get<std::string>(), ""},
                        number_cell(row.cost.accesses),
                        number_cell(row.cost.walks),
                        number_cell(row.cost.read)});
    out_ += table("Pages whose translation costs most, " + thread.name,
                  {"Page", "Size", "Kind", "Accesses", "Walks", "Entries read"}, rows);
}

void Page_Builder::hot()
{
    open("hot", "Hot functions, addresses, pages and targets");
    hot_functions();
    each_pictured([this](size_t, const Thread_Data &thread) { hot_of(thread); });
    close();
}

// ---- 8. Threads side by side, and two traces -----------------------------------------------------------

struct Metric_Row {
    const char *name;
    uint64_t Trace_Counts::*value;
};
constexpr Metric_Row METRICS[] = {
    {"instructions", &Trace_Counts::instructions},
    {"file headers", &Trace_Counts::full_headers},
    {"partition headers", &Trace_Counts::partition_headers},
    {"conditional branches taken", &Trace_Counts::taken},
    {"conditional branches not taken", &Trace_Counts::not_taken},
    {"unconditional branches", &Trace_Counts::unconditional},
    {"interrupts and exceptions", &Trace_Counts::other_jumps},
    {"loads", &Trace_Counts::loads},
    {"stores", &Trace_Counts::stores},
    {"cache instructions", &Trace_Counts::cache},
    {"string instructions", &Trace_Counts::strings},
    {"data addresses", &Trace_Counts::data_addresses},
    {"data addresses that are suspect", &Trace_Counts::data_errors},
    {"fetches whose page is not named", &Trace_Counts::unnamed_fetches},
    {"bytes in the file", &Trace_Counts::file_bytes},
};

std::vector<std::vector<Cell>> Page_Builder::metric_rows(const std::vector<const Trace_Counts *> &columns) const
{
    std::vector<std::vector<Cell>> rows;
    for (const Metric_Row &metric : METRICS) {
        std::vector<Cell> row = {{metric.name, ""}};
        for (const Trace_Counts *column : columns)
            row.push_back(number_cell(column->*metric.value));
        rows.push_back(row);
    }
    return rows;
}

void Page_Builder::side_by_side()
{
    open("threads", "Threads side by side");
    std::vector<std::string> heads = {"Figure"};
    std::vector<const Trace_Counts *> columns;
    for (const Thread_Data *thread : threads_) {
        heads.push_back(thread->name);
        columns.push_back(&thread->counts);
    }
    std::vector<std::vector<Cell>> rows = metric_rows(columns);
    std::vector<Cell> walks = {{"page walks per 1000 instructions", ""}};
    for (const Thread_Data *thread : threads_)
        walks.push_back(rate_cell(per_thousand(thread->figures(0).walks(), thread->modelled())));
    rows.push_back(walks);
    out_ += table("Figures of each hardware thread", heads, rows, false);
    close();
}

void Page_Builder::comparison()
{
    if (report_.traces.size() != 2)
        return;
    open("comparison", "What differs between the two traces");
    Trace_Counts totals[] = {Trace_Counts(report_.sizes), Trace_Counts(report_.sizes)};
    Cell walks[2];
    for (size_t i = 0; i < 2; i++) {
        uint64_t count = 0, instructions = 0;
        for (const std::unique_ptr<Thread_Data> &thread : report_.traces[i].threads) {
            totals[i].add(thread->counts);
            count += thread->figures(0).walks();
            instructions += thread->modelled();
        }
        walks[i] = rate_cell(per_thousand(count, instructions));
    }
    std::vector<std::vector<Cell>> rows = metric_rows({&totals[0], &totals[1]});
    size_t differing = 0;
    for (size_t i = 0; i < rows.size(); i++) {
        const uint64_t a = totals[0].*METRICS[i].value, b = totals[1].*METRICS[i].value;
        differing += a != b;
        const double change = a == 0 ? 0.0 : 100.0 * (static_cast<double>(b) / static_cast<double>(a) - 1);
        rows[i].push_back({a == b   ? "same"
                           : a == 0 ? "new"
                                    : fmt::format("{:+.1f} %", change),
                           fmt::format("{}", change)});
    }
    rows.push_back({{"page walks per 1000 instructions", ""},
                    walks[0],
                    walks[1],
                    {walks[0].value == walks[1].value ? "same" : "differs", "0"}});
    out_ += fmt::format("<p>{} of {} counts differ. <code>qtrace diff {} {}</code> shows where.</p>\n", differing,
                        std::size(METRICS), escaped(report_.traces[0].name), escaped(report_.traces[1].name));
    out_ += table("Both traces", {"Figure", report_.traces[0].name, report_.traces[1].name, "Change"}, rows);
    close();
}

// ---- Data for the pictures -----------------------------------------------------------------------------

Json Page_Builder::heat_json(Heat_Map &map, const Thread_Data &thread, const char *what, bool pc)
{
    Json rows = Json::array();
    for (const auto &[first, row] : map.rows()) {
        std::string bins;
        for (size_t bin = 0; bin < thread.bins(); bin++) // two steps for each doubling
            bins += row[bin] == 0 ? '0' : static_cast<char>('1' + std::lround(2 * std::log2(row[bin])));
        Json json = {{"first", fmt::format("0x{:x}", first)}, {"bins", bins}};
        if (const std::string name = named(first); !name.empty())
            json["name"] = name;
        rows.push_back(json);
    }
    return {{"bits", map.range_bits()}, {"what", what}, {"pc", pc}, {"rows", rows}};
}

template <class Bins> Json bins_json(const Bins &bins, size_t count)
{
    return Json(std::vector<uint32_t>(bins.begin(), bins.begin() + static_cast<std::ptrdiff_t>(count)));
}

// Instructions of the processes that ran most, over time; of the others together.
Json Page_Builder::processes_json(Thread_Data &thread)
{
    static constexpr size_t MOST_SHOWN = 7; // processes with a colour of their own
    std::vector<std::pair<uint64_t, Partition_Key>> processes;
    for (const auto &[key, bins] : thread.processes)
        processes.emplace_back(thread.counts.partitions[{key.lpid, key.pid}], key);
    std::ranges::sort(processes, std::greater());
    std::array<uint32_t, REPORT_BINS> others{};
    Json json = Json::array();
    for (size_t i = 0; i < processes.size(); i++) {
        const auto &bins = thread.processes[processes[i].second];
        if (i < MOST_SHOWN)
            json.push_back({{"name", process_name(processes[i].second)}, {"bins", bins_json(bins, thread.bins())}});
        for (size_t bin = 0; i >= MOST_SHOWN && bin < REPORT_BINS; bin++)
            others[bin] += bins[bin];
    }
    if (processes.size() > MOST_SHOWN)
        json.push_back({{"name", "others"}, {"bins", bins_json(others, thread.bins())}});
    return json;
}

Json working_set_json(const Thread_Data &thread)
{
    Json json = Json::array();
    for (size_t size = 0; size < std::size(WORKING_SET_BITS); size++) {
        std::array<uint32_t, REPORT_BINS> bins{};
        for (size_t bin = 0; bin < REPORT_BINS; bin++)
            bins[bin] = thread.working_set[bin][size];
        json.push_back(
            {{"size", size_name(uint64_t{1} << WORKING_SET_BITS[size])}, {"bins", bins_json(bins, thread.bins())}});
    }
    return json;
}

// Misses over the size of a TLB, as traced and for other pages.
Json curves_json(const Thread_Data &thread)
{
    Json json = Json::array();
    for (size_t model = 0; model < Thread_Data::MODELS; model++) {
        const Tlb_Figures &tlb = thread.figures(model);
        const std::optional<uint8_t> bits = Thread_Data::MODEL_PAGES[model];
        Json sizes = Json::array();
        for (const uint64_t size : tlb.distances[0].sizes())
            sizes.push_back({{"entries", size},
                             {"misses", tlb.distances[0].misses(size)},
                             {"per_thousand", per_thousand(tlb.distances[0].misses(size), tlb.instructions)}});
        json.push_back(
            {{"name", bits ? "if all " + size_name(uint64_t{1} << *bits) : "as traced"}, {"sizes", sizes}});
    }
    return json;
}

Json gaps_json(const Thread_Data &thread)
{
    Json json = Json::array();
    for (const Report_Gap &gap : thread.gaps)
        json.push_back({{"record", gap.record}});
    return json;
}

Json mix_json(const Thread_Data &thread)
{
    Json json = Json::array();
    for (const Mix_Row &row : mix_of(thread.counts))
        json.push_back({row.name, row.times});
    return json;
}

Json bias_json(const Thread_Data &thread)
{
    Json json = Json::array();
    const auto bias = bias_of(thread);
    for (size_t row = 0; row < bias.size(); row++)
        json.push_back({BIAS_NAMES[row], bias[row]});
    return json;
}

Json Page_Builder::thread_json(Thread_Data &thread)
{
    return {{"name", thread.name},
            {"records", thread.counts.instructions},
            {"first", thread.first()},
            {"end", thread.end()},
            {"bin_records", thread.bin_records()},
            {"processes", processes_json(thread)},
            {"gaps", gaps_json(thread)},
            {"heat",
             {{"fetches", heat_json(thread.fetches, thread, "instructions", true)},
              {"reads", heat_json(thread.reads, thread, "loads and other accesses", false)},
              {"writes", heat_json(thread.writes, thread, "stores", false)}}},
            {"working_set", working_set_json(thread)},
            {"curves", curves_json(thread)},
            {"mix", mix_json(thread)},
            {"bias", bias_json(thread)},
            {"tlb", tlb_json(thread.figures(0), Thread_Data::model_options(0), {{}, 10})}};
}

Json Page_Builder::json()
{
    Json json = {{"bins", 1}, {"threads", Json::array()}};
    size_t bins = 1;
    for (size_t i = 0; i < std::min(threads_.size(), MOST_PICTURED_THREADS); i++) {
        json["threads"].push_back(thread_json(*threads_[i]));
        bins = std::max(bins, threads_[i]->bins());
    }
    json["bins"] = bins;
    return json;
}

// Text of a script element: `<` could end it.
std::string script_text(std::string text)
{
    for (size_t place = 0; (place = text.find('<', place)) != std::string::npos; place += 6)
        text.replace(place, 1, "\\u003c");
    return text;
}

constexpr std::pair<const char *, const char *> PARTS[] = {
    {"found", "Found"},
    {"time", "Time"},
    {"heat", "Addresses"},
    {"working-set", "Working set"},
    {"translation", "Translation"},
    {"mix", "Instructions"},
    {"hot", "Hot places"},
    {"threads", "Threads"},
};

std::string Page_Builder::build()
{
    std::string names;
    for (const Report_Trace &trace : report_.traces)
        names += (names.empty() ? "" : ", ") + trace.name;
    out_ = fmt::format(
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; style-src "
        "'unsafe-inline'; "
        "script-src 'unsafe-inline'\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<link rel=\"icon\" "
        "href=\"data:,\">\n"
        "<title>Trace report: {0}</title>\n<style>{1}</style></head>\n<body><a class=\"skip\" href=\"#found\">Skip "
        "to the content</a>\n"
        "<header class=\"top\"><h1>Trace report: {0}</h1><p>Made by <code>qtrace report</code>. Figures are "
        "defined in "
        "<code>docs/analysis.md</code>.</p></header>\n<nav class=\"parts\" aria-label=\"Parts of the report\"><ul>",
        escaped(names), REPORT_STYLE);
    for (const auto &[id, title] : PARTS)
        out_ += fmt::format("<li><a href=\"#{}\">{}</a></li>", id, title);
    if (report_.traces.size() == 2)
        out_ += "<li><a href=\"#comparison\">Comparison</a></li>";
    out_ += "</ul></nav>\n<main>\n";
    found();
    comparison();
    time();
    heat();
    working_set();
    translation();
    mix();
    hot();
    side_by_side();
    out_ += "</main>\n<script type=\"application/json\" id=\"data\">" +
            script_text(json().dump(-1, ' ', true, Json::error_handler_t::replace)) + "</script>\n<script>" +
            REPORT_SCRIPT + "</script>\n</body></html>\n";
    return std::move(out_);
}

} // namespace

std::string report_page(Report &report)
{
    return Page_Builder(report).build();
}

} // namespace qtrace_tool
