#include "check_pte.h"
#include "check_rules.h"
#include "check_text.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_files.h"

#include <cstring>
#include <map>
#include <set>

namespace qtrace_tool
{
namespace
{

// One finding, from a rule or from a comparison with another file.
struct Finding {
    std::string_view rule;
    std::string text; // what is wrong, as a sentence
    bool in_header = false;
    uint64_t record = 0;
    std::optional<uint64_t> address;
};

// Findings of one file: printed up to a limit for each rule, counted all.
class Findings
{
public:
    Findings(Tool_Run &run, std::string file, const std::set<std::string, std::less<>> &ignored, uint64_t limit)
        : run_(run), file_(std::move(file)), ignored_(ignored), limit_(limit)
    {
    }

    void add(const Finding &finding);
    void summarise(uint64_t records, uint64_t headers) const;

private:
    void print(const Finding &finding) const;
    void print_json(const Finding &finding) const;

    Tool_Run &run_;
    std::string file_;
    const std::set<std::string, std::less<>> &ignored_;
    uint64_t limit_;
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
    run_.json ? print_json(finding) : print(finding);
    run_.out.settle();
}

void Findings::print(const Finding &finding) const
{
    Output &out = run_.out;
    out.print("{}: {}record {}", file_, finding.in_header ? "header before " : "", finding.record);
    if (finding.address)
        out.print(" at {:016x}", *finding.address);
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
    Output &out = run_.out;
    out.put("{\"file\":");
    print_json_text(out, file_);
    out.print(",\"rule\":\"{}\",\"{}\":{}", finding.rule, finding.in_header ? "before_record" : "record",
              finding.record);
    if (finding.address)
        out.print(",\"address\":\"0x{:x}\"", *finding.address);
    out.put(",\"sentence\":");
    print_json_text(out, finding.text);
    out.put("}\n");
}

void Findings::summarise(uint64_t records, uint64_t headers) const
{
    Output &out = run_.out;
    if (run_.json) {
        out.put("{\"file\":");
        print_json_text(out, file_);
        out.print(",\"records\":{},\"headers\":{},\"violations\":{{", records, headers);
        for (bool first = true; const auto &[rule, count] : counts_) {
            out.print("{}\"{}\":{}", first ? "" : ",", rule, count);
            first = false;
        }
        out.put("}}\n");
        return;
    }
    out.print("{}: {} records, {} headers: ", file_, records, headers);
    out.paint(counts_.empty() ? Colour::good : Colour::bad);
    out.put(counts_.empty() ? "no rule is broken" : "rules are broken");
    out.paint(Colour::plain);
    out.put('\n');
    for (const auto &[rule, count] : counts_)
        out.print("  {:<40} {}{}\n", rule, count,
                  count > limit_ ? fmt::format(" ({} shown, --limit shows more)", limit_) : "");
}

class Check_Command : public Command
{
public:
    void declare(CLI::App &app) override
    {
        declare_files(app, files_)->required(false);
        app.add_option("--text", texts_, "the text trace (or its base name) to compare with")
            ->allow_extra_args(false);
        app.add_option("--pte", ptes_, "the page-table-entry file (or its base name) that must have every walk")
            ->allow_extra_args(false);
        app.add_option("--ignore", ignore_, "rules not to apply, separated by commas")
            ->delimiter(',')
            ->allow_extra_args(false)
            ->type_name("RULE,...");
        declare_number(app, "--limit", limit_, "violations to show of each rule (of each file)")->default_str("10");
        app.add_flag("--rules", list_, "list the rules");
    }

    void run(Tool_Run &run) override;

private:
    // The files beside a trace.
    struct Companions {
        std::string text, pte;
    };
    void check(Tool_Run &run, Trace_File &file, const Companions &beside) const;
    std::set<std::string, std::less<>> ignored() const;

    std::vector<std::string> files_, texts_, ptes_, ignore_;
    uint64_t limit_ = 10;
    bool list_ = false;
};

void list_rules(Tool_Run &run)
{
    for (const Check_Rule &rule : check_rules()) {
        if (!run.json) {
            run.out.print("{:<48} {}\n", rule.name, rule.sentence);
            continue;
        }
        run.out.print("{{\"rule\":\"{}\",\"sentence\":", rule.name);
        print_json_text(run.out, rule.sentence);
        run.out.put("}\n");
    }
}

std::set<std::string, std::less<>> Check_Command::ignored() const
{
    std::vector<std::string> known;
    for (const Check_Rule &rule : check_rules())
        known.push_back(rule.name);
    for (const std::string &name : ignore_)
        if (std::ranges::find(known, name) == known.end() && !name.starts_with("text-") && name != "pte-walk")
            throw unknown_word("rule", name, known);
    return {ignore_.begin(), ignore_.end()};
}

// One companion for each of `count` files, or none at all.
std::vector<std::string> companions(const std::vector<std::string> &names, size_t count, const char *what)
{
    std::vector<std::string> files = files_of(names);
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
    (void)ignored();
    const std::vector<std::string> files = files_of(files_);
    const std::vector<std::string> texts = companions(texts_, files.size(), "text files");
    const std::vector<std::string> ptes = companions(ptes_, files.size(), "page-table-entry files");
    for (size_t i = 0; i < files.size(); i++)
        if (const std::unique_ptr<Trace_File> file = Trace_File::open(run, files[i]))
            check(run, *file, {texts[i], ptes[i]});
}

// Everything that one trace is checked against, item by item.
class Item_Checks
{
public:
    Item_Checks(Tool_Run &run, Findings &findings) : run_(run), findings_(findings) {}

    bool open(const std::string &text, const std::string &pte);
    void item(const QTRACE_Item &item);
    void damage(uint64_t record, const std::string &reason) { rules_.damage(record, reason); }
    void loss() { rules_.loss(); }
    void end();

private:
    void report(const Violation &violation);
    void walks(const QTRACE_Item &item, const QTRACE_RTW *walks, const char *of);

    Tool_Run &run_;
    Findings &findings_;
    Trace_Checker rules_{[this](const Violation &violation) { report(violation); }};
    std::unique_ptr<Text_Checker> text_;
    Pte_Accesses accesses_;
    std::unique_ptr<Pte_Checker> pte_;
    const QTRACE_Item *item_ = nullptr; // being checked
};

bool Item_Checks::open(const std::string &text, const std::string &pte)
{
    if (!text.empty()) {
        text_ = std::make_unique<Text_Checker>(text, [this](std::string_view name, const std::string &what) {
            findings_.add({name, fmt::format("text line {}: {}", text_->line(), what), false,
                           item_ != nullptr ? item_->record_number : 0,
                           item_ != nullptr ? std::optional(item_->address) : std::nullopt});
        });
        if (const int error = text_->open_error(); error != 0) {
            run_.fail(fmt::format("{}: {}", text, std::strerror(error)));
            return false;
        }
    }
    std::string error;
    if (!pte.empty() && !accesses_.read(pte, error)) {
        run_.fail(error);
        return false;
    }
    if (!pte.empty())
        pte_ = std::make_unique<Pte_Checker>(accesses_);
    return true;
}

void Item_Checks::report(const Violation &violation)
{
    std::string text = violation.rule.sentence;
    if (!violation.values.empty())
        text += " (" + violation.values + ")";
    findings_.add({violation.rule.name, text, violation.in_header, violation.record,
                   violation.address_known ? std::optional(violation.address) : std::nullopt});
}

void Item_Checks::walks(const QTRACE_Item &item, const QTRACE_RTW *walks, const char *of)
{
    for (const Radix_Walk &walk : pte_->missing(walks))
        findings_.add({"pte-walk",
                       fmt::format("the walk of the {} by {:x}, {:x}, {:x} to the entry {:x} is not in the file",
                                   of, walk.directory[0], walk.directory[1], walk.directory[2], walk.entry),
                       item.kind == QTRACE_ITEM_HEADER, item.record_number, item.address});
}

void Item_Checks::item(const QTRACE_Item &item)
{
    item_ = &item;
    if (item.kind == QTRACE_ITEM_HEADER) {
        rules_.header(item);
        if (text_)
            text_->header(item);
        if (pte_)
            walks(item, item.header.iar_hRTW, "first address");
        return;
    }
    rules_.record(item);
    if (text_)
        text_->record(item);
    if (pte_ && item.record.header.control.fld.next_instruction_EA_present)
        walks(item, item.record.next_instruction_hRTW, "next address");
    if (pte_ && item.record.header.control.fld.data_address_present)
        walks(item, item.record.data_hRTW, "data address");
}

void Item_Checks::end()
{
    item_ = nullptr;
    rules_.end();
    if (text_)
        text_->end();
}

void Check_Command::check(Tool_Run &run, Trace_File &file, const Companions &beside) const
{
    const std::set<std::string, std::less<>> unwanted = ignored();
    Findings findings(run, file.name(), unwanted, limit_);
    Item_Checks checks(run, findings);
    if (!checks.open(beside.text, beside.pte))
        return;
    Progress progress(run, file.name(), file.info().records);
    uint64_t records = 0, headers = 0, losses = 0;
    uint64_t next_record = 0, next_header = 0;
    const auto account_losses = [&](uint64_t at) {
        for (; losses < file.losses().size(); losses++)
            checks.damage(at, file.losses()[losses].text);
    };
    while (const QTRACE_Item *item = file.next()) {
        const bool jump = item->record_number != next_record || item->header_number != next_header;
        if (jump && losses == file.losses().size())
            checks.loss(); // refused by the writer, or left out by a recovery
        account_losses(records);
        checks.item(*item);
        const bool header = item->kind == QTRACE_ITEM_HEADER;
        (header ? headers : records)++;
        next_record = item->record_number + !header;
        next_header = item->header_number + header;
        progress.step();
    }
    account_losses(records);
    if (file.info().open_end)
        checks.loss();
    if (file.readable())
        checks.end();
    findings.summarise(records, headers);
}

} // namespace

std::unique_ptr<Command> make_check_command()
{
    return std::make_unique<Check_Command>();
}

} // namespace qtrace_tool
