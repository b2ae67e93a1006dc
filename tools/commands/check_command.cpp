#include "check_pte.h"
#include "check_rules.h"
#include "check_text.h"
#include "deep_rules.h"
#include "item_scan.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

namespace qtrace_tool
{

using namespace trace;

namespace
{

// One finding, from a rule or from a comparison with another file.
struct Finding {
    std::string_view rule;
    std::string text; // what is wrong, as a sentence
    bool in_header = false;
    uint64_t record = 0;
    std::optional<uint64_t> address;
    Address_Space space{}; // that it belongs to
};

// Findings of a group of blocks: kept up to a limit for each rule, counted all. Items that only the items before them
// can judge keep their place between them.
struct Group_Findings {
    struct Entry {
        std::optional<Finding> finding;
        std::unique_ptr<Deferred_Item> deferred; // rare, and large
        Address_Space space{};                   // of that item
    };
    static constexpr size_t MOST_KEPT = 4096;
    std::vector<Entry> entries;
    std::map<std::string_view, uint64_t> counts;
    uint64_t records = 0, headers = 0;

    void add(Finding &&finding, uint64_t limit)
    {
        if (++counts[finding.rule] <= limit)
            entries.push_back({std::move(finding), nullptr, {}});
    }
    bool are_many() const { return entries.size() >= MOST_KEPT; }
};

// Findings of one file: printed up to a limit for each rule, counted all.
class Findings
{
public:
    Findings(Tool_Run &run, std::string file, const std::set<std::string, std::less<>> &ignored, uint64_t limit,
             const Symbol_Names &names)
        : run_(run), file_(std::move(file)), ignored_(ignored), limit_(limit), names_(names)
    {
        if (names_.any())
            notes_.names = &names_;
    }
    Findings(const Findings &) = delete;
    Findings &operator=(const Findings &) = delete;

    void add(const Finding &finding);
    // Those that a group counted and did not keep.
    void add_uncounted(std::string_view rule, uint64_t count);
    // What was compared beside the rules; null: nothing of that kind.
    struct Compared {
        const Pte_Checker *entries = nullptr;
        const Deep_Checker *deep = nullptr;
    };
    void summarise(uint64_t records, uint64_t headers, const Compared &compared) const;

private:
    void print(const Finding &finding) const;
    void print_json(const Finding &finding) const;
    void summarise_text(uint64_t records, uint64_t headers, const Compared &compared) const;
    void summarise_json(uint64_t records, uint64_t headers, const Compared &compared) const;
    void summarise_deep(const Deep_Checker &deep) const;
    void summarise_entries(const Pte_Checker &entries) const;

    Tool_Run &run_;
    std::string file_;
    const std::set<std::string, std::less<>> &ignored_;
    uint64_t limit_;
    Name_Finder names_;
    Item_Notes notes_;
    std::map<std::string, uint64_t, std::less<>> counts_;
};

void Findings::add(const Finding &finding)
{
    if (ignored_.contains(finding.rule))
        return;
    run_.found();
    const auto count = counts_.try_emplace(std::string(finding.rule), 0).first;
    if (++count->second > limit_)
        return;
    names_.enter(finding.space);
    run_.show([&] { print(finding); }, [&] { print_json(finding); });
    run_.out.settle();
}

void Findings::add_uncounted(std::string_view rule, uint64_t count)
{
    if (count == 0 || ignored_.contains(rule))
        return;
    run_.found();
    counts_.try_emplace(std::string(rule), 0).first->second += count;
}

void Findings::print(const Finding &finding) const
{
    Output &out = run_.out;
    out.print("{}: {}record {}", file_, finding.in_header ? "header before " : "", finding.record);
    if (finding.address) {
        out.print(" at {:016x}", *finding.address);
        print_name(out, notes_, *finding.address);
    }
    out.put(": ");
    print_visible(out, finding.text);
    out.put(" [");
    out.paint(Colour::bad);
    out.put(finding.rule);
    out.paint(Colour::plain);
    out.put("]\n");
}

void Findings::print_json(const Finding &finding) const
{
    Json_Writer json(run_.out);
    json.line([&] {
        json.member("file", file_);
        json.member("rule", finding.rule);
        json.member(finding.in_header ? "before_record" : "record", finding.record);
        if (finding.address) {
            json.member("address", Json_Hex{*finding.address});
            name_member(json, "symbol", notes_, *finding.address);
        }
        json.member("sentence", finding.text);
    });
}

static void deep_members(Json_Writer &json, const Deep_Checker &deep)
{
    json.object("checks", [&] {
        for (size_t rule = 0; rule < DEEP_RULE_COUNT; rule++)
            json.member(DEEP_RULES[rule].name, deep.checks(rule));
    });
    json.member("forgotten", deep.forgotten());
    json.member("other_threads_unknown", deep.others_unknown());
}

static void entries_members(Json_Writer &json, const Pte_Checker &entries)
{
    json.member("walks_compared", entries.compared());
    json.member("walks_not_compared", entries.beyond_limit());
    json.member("hashed_translations", entries.hashed());
}

void Findings::summarise_json(uint64_t records, uint64_t headers, const Compared &compared) const
{
    Json_Writer json(run_.out);
    json.line([&] {
        json.member("file", file_);
        json.member("records", records);
        json.member("headers", headers);
        json.object("violations", [&] {
            for (const auto &[rule, count] : counts_)
                json.member(rule, count);
        });
        if (compared.deep != nullptr)
            deep_members(json, *compared.deep);
        if (compared.entries != nullptr)
            entries_members(json, *compared.entries);
    });
}

void Findings::summarise_deep(const Deep_Checker &deep) const
{
    Output &out = run_.out;
    for (size_t rule = 0; rule < DEEP_RULE_COUNT; rule++)
        out.print("  {:<40} {}\n", DEEP_RULES[rule].name, counted(deep.checks(rule), "check"));
    if (deep.others_unknown())
        out.put("  walks and code are not checked: not all stores of the trace's other threads are known\n");
    if (deep.forgotten() > 0)
        out.print("  too many different pages, table entries or instructions: forgotten {}, and learned anew\n",
                  counted(deep.forgotten(), "time"));
}

void Findings::summarise_entries(const Pte_Checker &entries) const
{
    Output &out = run_.out;
    out.print("  {} compared with the page-table entries", counted(entries.compared(), "different walk"));
    if (entries.beyond_limit() > 0)
        out.print("; {} not compared: too many different ones", counted(entries.beyond_limit(), "walk"));
    if (entries.hashed() > 0)
        out.print("; {} by a hashed page table cannot be compared", counted(entries.hashed(), "translation"));
    out.put('\n');
}

void Findings::summarise(uint64_t records, uint64_t headers, const Compared &compared) const
{
    run_.show([&] { summarise_text(records, headers, compared); },
              [&] { summarise_json(records, headers, compared); });
}

void Findings::summarise_text(uint64_t records, uint64_t headers, const Compared &compared) const
{
    Output &out = run_.out;
    out.print("{}: {}, {}: ", file_, counted(records, "record"), counted(headers, "header"));
    out.paint(counts_.empty() ? Colour::good : Colour::bad);
    out.put(counts_.empty() ? "all invariants hold" : "invariants are violated");
    out.paint(Colour::plain);
    out.put('\n');
    for (const auto &[rule, count] : counts_)
        out.print("  {:<40} {}{}\n", rule, count,
                  count > limit_ ? fmt::format(" ({} shown, --limit shows more)", limit_) : "");
    if (compared.deep != nullptr)
        summarise_deep(*compared.deep);
    if (compared.entries != nullptr)
        summarise_entries(*compared.entries);
}

class Check_Command : public Command
{
public:
    void declare(Options &app) override
    {
        declare_files(app, files_)->required(false);
        app.add_repeated("--text", texts_, "the text trace (or its base name) to compare with");
        app.add_repeated("--pte", ptes_, "the page-table-entry file (or its base name) that must have every walk");
        app.add_list("--ignore", ignore_, "rules not to apply, separated by commas")->type_name("RULE,...");
        declare_number(app, "--limit", limit_, "violations to show of each rule (of each file)")->default_str("10");
        app.add_flag("--rules", list_, "list the rules");
        app.add_flag("--deep", deep_, "follow registers, translations and code from record to record too");
        declare_page_bits(app, bits_);
        declare_scan(app, scan_);
        declare_symbols(app, symbols_);
    }

    void run(Tool_Run &run) override;

private:
    // The files beside a trace.
    struct Companions {
        std::string text, pte;
    };
    void check(Tool_Run &run, Trace_File &file, const Companions &beside, const Symbol_Names &names);
    std::set<std::string, std::less<>> ignored() const;

    std::vector<std::string> files_, texts_, ptes_, ignore_;
    uint64_t limit_ = 10;
    bool list_ = false, deep_ = false;
    std::vector<uint32_t> bits_;
    Page_Sizes sizes_;
    Threads_Beside threads_;
    Scan_Options scan_;
    Symbol_Options symbols_;
};

void list_rules(Tool_Run &run)
{
    for (const Check_Rule &rule : check_rules()) {
        run.show([&] { run.out.print("{:<48} {}\n", rule.name, rule.sentence); },
                 [&] {
                     Json_Writer json(run.out);
                     json.line([&] {
                         json.member("rule", rule.name);
                         json.member("sentence", rule.sentence);
                     });
                 });
    }
}

std::set<std::string, std::less<>> Check_Command::ignored() const
{
    std::vector<std::string> known;
    for (const Check_Rule &rule : check_rules())
        known.push_back(rule.name);
    for (const std::string &name : ignore_)
        if (std::ranges::find(known, name) == known.end())
            throw unknown_word("rule", name, known);
    return {ignore_.begin(), ignore_.end()};
}

// One companion for each of `count` files, or none at all.
std::vector<std::string> companions(Tool_Run &run, const std::vector<std::string> &names, size_t count,
                                    const char *what)
{
    std::vector<std::string> files = files_of(run, names);
    if (!names.empty() && files.size() != count)
        throw Usage_Error(fmt::format("{} {} for {} trace files", files.size(), what, count));
    files.resize(count);
    return files;
}

void Check_Command::run(Tool_Run &run)
{
    if (list_) {
        list_rules(run);
        return;
    }
    require_files(files_);
    sizes_ = page_sizes(bits_);
    (void)ignored();
    const Symbol_Names names(run, symbols_);
    const std::vector<std::string> files = traces_of(run, files_);
    const std::vector<std::string> texts = companions(run, texts_, files.size(), "text files");
    const std::vector<std::string> ptes = companions(run, ptes_, files.size(), "page-table-entry files");
    for (size_t i = 0; i < files.size(); i++)
        if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, files[i]))
            check(run, *file, {texts[i], ptes[i]}, names);
}

std::string sentence_of(const Violation &violation)
{
    return violation.values.empty() ? violation.rule.sentence
                                    : fmt::format("{} ({})", violation.rule.sentence, violation.values);
}

Finding finding_of(const Violation &violation, const Address_Space &space)
{
    return {violation.rule.name,
            sentence_of(violation),
            violation.in_header,
            violation.record,
            violation.address_known ? std::optional(violation.address) : std::nullopt,
            space};
}

// The text trace and the page-table entries beside one trace. They are read along with it, by one thread.
class Beside
{
public:
    Beside(Findings &findings) : findings_(findings) {}
    // False: the run has been told why a file cannot be read.
    bool open(Tool_Run &run, const std::string &text, const std::string &pte);
    bool any() const { return text_ || entries_; }
    void item(const QTRACE_Item &item, const Address_Space &space);
    // False: the run has been told which file could not be read to its end.
    bool end(Tool_Run &run);
    const Pte_Checker *entries() const { return entries_.get(); }

private:
    void walks(const QTRACE_Item &item);
    void end_entries(std::string &error);

    Findings &findings_;
    std::unique_ptr<Text_Checker> text_;
    std::unique_ptr<Pte_Checker> entries_;
    std::string text_name_, entries_name_;
    const QTRACE_Item *item_ = nullptr; // being checked
    Address_Space space_;               // that it belongs to
};

bool Beside::open(Tool_Run &run, const std::string &text, const std::string &pte)
{
    text_name_ = text;
    if (!text.empty()) {
        text_ = std::make_unique<Text_Checker>(text, [this](Text_Rule rule, const std::string &what) {
            findings_.add({rule.name, fmt::format("text line {}: {}", text_->line(), what), false,
                           item_ != nullptr ? item_->record_number : 0,
                           item_ != nullptr ? std::optional(item_->address) : std::nullopt, space_});
        });
        if (const int error = text_->open_error(); error != 0) {
            run.fail(fmt::format("{}: {}", text, std::strerror(error)));
            return false;
        }
    }
    if (!pte.empty())
        entries_ = std::make_unique<Pte_Checker>();
    entries_name_ = pte;
    return true;
}

void Beside::walks(const QTRACE_Item &item)
{
    entries_->enter(space_);
    if (item.kind == QTRACE_ITEM_HEADER)
        return entries_->add(first_address_of(item.header), "first address", item);
    entries_->add(next_address_of(item.record), "next address", item);
    entries_->add(data_address_of(item.record), "data address", item);
}

void Beside::item(const QTRACE_Item &item, const Address_Space &space)
{
    item_ = &item;
    space_ = space;
    if (text_)
        item.kind == QTRACE_ITEM_HEADER ? text_->header(item) : text_->record(item);
    if (entries_)
        walks(item);
    item_ = nullptr;
}

bool Beside::end(Tool_Run &run)
{
    std::string error;
    if (text_)
        text_->end();
    if (text_ && text_->read_error() != 0)
        error = fmt::format("{}: {}", text_name_, std::strerror(text_->read_error()));
    else if (entries_)
        end_entries(error);
    if (!error.empty())
        run.fail(error);
    return error.empty();
}

void Beside::end_entries(std::string &error)
{
    if (!entries_->search(entries_name_, error))
        return;
    for (const Traced_Walk &walk : entries_->missing())
        findings_.add(
            {"pte-walk",
             fmt::format("the walk of the {} by {:x}, {:x}, {:x} to the entry {:x} is not in the file", walk.of,
                         walk.walk.directory[0], walk.walk.directory[1], walk.walk.directory[2], walk.walk.entry),
             walk.in_header, walk.record, walk.address, walk.space});
}

// A group of blocks against the rules.
class Check_Sink : public Item_Sink
{
public:
    // `beside` and `deep` are the caller's, or null; they take the items of all groups.
    Check_Sink(Beside *beside, Deep_Checker *deep, uint64_t limit) : beside_(beside), deep_(deep), limit_(limit) {}

    void begin(const Group_Start &start) override
    {
        space = Address_Space(start.context);
        if (!start.at_start)
            checker.begin(start.context);
        else if (start.context != nullptr)
            checker.loss(); // the range begins in the middle of the file
        if (deep_ != nullptr)
            begin_deep(start);
    }
    void header(const QTRACE_Item &item) override
    {
        findings.headers++;
        space = Address_Space(context());
        checker.header(item);
        if (deep_ != nullptr)
            deep_->header(item);
        if (beside_ != nullptr)
            beside_->item(item, space);
        set_full(findings.are_many());
    }
    void record(const QTRACE_Item &item) override
    {
        findings.records++;
        checker.record(item);
        if (deep_ != nullptr)
            deep_->record(item);
        if (beside_ != nullptr)
            beside_->item(item, space);
        set_full(findings.are_many());
    }
    void loss(const QTRACE_Item &item, const std::string &text) override
    {
        space = Address_Space(item.discontinuity.context);
        text.empty() ? checker.loss() : checker.damage(item.record_number, text);
        if (deep_ != nullptr)
            deep_->loss(context());
    }

    Group_Findings findings;
    Address_Space space; // of the item that is checked
    Trace_Checker checker{
        [this](const Violation &violation) { findings.add(finding_of(violation, space), limit_); },
        [this](Deferred_Item &&item) {
            auto deferred = std::make_unique<Deferred_Item>(std::move(item));
            findings.entries.push_back({std::nullopt, std::move(deferred), space});
        }};

private:
    void begin_deep(const Group_Start &start)
    {
        deep_->report_to(
            [this](const Violation &violation) { findings.add(finding_of(violation, space), limit_); });
        if (start.at_start)
            deep_->loss(start.context);
    }

    Beside *beside_;
    Deep_Checker *deep_;
    uint64_t limit_;
};

// Puts the findings of groups together in file order.
class Check_Merge
{
public:
    explicit Check_Merge(Findings &findings) : findings_(findings) {}

    void append(Check_Sink &group)
    {
        std::map<std::string_view, uint64_t> kept;
        for (const Group_Findings::Entry &entry : group.findings.entries) {
            if (entry.deferred) {
                space_ = entry.space;
                checker_.judge(*entry.deferred);
                continue;
            }
            kept[entry.finding->rule]++;
            findings_.add(*entry.finding);
        }
        for (const auto &[rule, count] : group.findings.counts)
            findings_.add_uncounted(rule, count - kept[rule]);
        records += group.findings.records;
        headers += group.findings.headers;
        group.findings = {};
        checker_.append(group.checker);
        space_ = group.space;
    }
    void end(bool open_end)
    {
        if (open_end)
            checker_.loss();
        checker_.end();
    }

    uint64_t records = 0, headers = 0;

private:
    Findings &findings_;
    Address_Space space_; // of the item that is judged
    Trace_Checker checker_{[this](const Violation &violation) { findings_.add(finding_of(violation, space_)); }};
};

void Check_Command::check(Tool_Run &run, Trace_File &file, const Companions &companions, const Symbol_Names &names)
{
    const std::set<std::string, std::less<>> unwanted = ignored();
    Findings findings(run, file.name(), unwanted, limit_, names);
    Beside beside(findings);
    if (!beside.open(run, companions.text, companions.pte))
        return;
    std::optional<Deep_Checker> deep;
    if (deep_)
        deep.emplace(sizes_, threads_.of(file.name(), sizes_));
    Scan_Options options = scan_;
    if (beside.any() || deep) // what follows the trace from its beginning to its end
        options.jobs = 1;
    if (beside.any())
        options.steps = std::numeric_limits<unsigned>::max();
    const auto make = [&] {
        return std::make_unique<Check_Sink>(beside.any() ? &beside : nullptr, deep ? &*deep : nullptr, limit_);
    };
    Check_Merge merge(findings);
    const bool readable = scan<Check_Sink>(run, file, options, make, [&](Check_Sink &group) {
        merge.append(group);
        return true;
    });
    const bool to_the_end = !scan_.range.ends_before(file.next_record_number());
    if (readable && to_the_end)
        merge.end(file.info().open_end);
    if (readable && beside.end(run))
        findings.summarise(merge.records, merge.headers, {beside.entries(), deep ? &*deep : nullptr});
}

} // namespace

std::unique_ptr<Command> make_check_command()
{
    return std::make_unique<Check_Command>();
}

} // namespace qtrace_tool
