#include "json_writer.h"
#include "record_printer.h"
#include "tool_command.h"
#include "trace_diff.h"

#include <algorithm>

namespace qtrace_tool
{

using namespace trace;

namespace
{

std::string names_of(const Difference_Set &kinds)
{
    std::string names;
    for (size_t i = 0; i < DIFFERENCES; i++)
        if (kinds[i])
            names += (names.empty() ? "" : ", ") + std::string(DIFFERENCE_NAMES[i]);
    return names;
}

class Diff_Command : public Command
{
public:
    void declare(Options &app) override
    {
        app.add_option("A", a_, "trace file or base name")->required();
        app.add_option("B", b_, "what it is compared with")->required();
        app.add_list("--ignore", ignore_,
                     fmt::format("kinds of difference to pass over: {}", fmt::join(DIFFERENCE_NAMES, ", ")))
            ->type_name("KIND,...");
        declare_number(app, "--limit", limit_, "differences to show (of each thread)")->default_str("1");
        declare_number(app, "--context", context_, "records to show before and after a difference")
            ->default_str("3");
        declare_symbols(app, symbols_);
        declare_scan(app, scan_);
    }

    void run(Tool_Run &run) override;

private:
    Difference_Set ignored() const;
    void compare(Tool_Run &run, const std::string &name_a, const std::string &name_b, Name_Finder &names) const;
    // Whose places and lines are shown next to each other.
    struct Shown {
        Tool_Run &run;
        const Trace_File &a, &b;
        Name_Finder &names;
        Item_Notes notes() const { return {names.any() ? &names : nullptr}; }
    };
    void show(const Shown &shown, const Difference_Place &place) const;
    static void show_lines(const Shown &shown, const Trace_File &file, uint64_t from, uint64_t count, char mark);
    void summarise(Output &out, const Difference_Counts &counts, bool complete) const;
    static void begin_json(Json_Writer &json, const std::string &name_a, const std::string &name_b);
    static void show_json(const Shown &shown, const Difference_Place &place, Json_Writer &json);
    static void summarise_json(Json_Writer &json, const Difference_Counts &counts);

    std::string a_, b_;
    std::vector<std::string> ignore_;
    Symbol_Options symbols_;
    uint64_t limit_ = 1, context_ = 3;
    Scan_Options scan_;
};

Difference_Set Diff_Command::ignored() const
{
    const std::vector<std::string> known(DIFFERENCE_NAMES.begin(), DIFFERENCE_NAMES.end());
    Difference_Set ignored;
    for (const std::string &name : ignore_) {
        const auto kind = std::ranges::find(known, name);
        if (kind == known.end())
            throw unknown_word("kind of difference", name, known);
        ignored.set(static_cast<size_t>(kind - known.begin()));
    }
    return ignored;
}

void Diff_Command::run(Tool_Run &run)
{
    (void)ignored();
    const Symbol_Names names(run, symbols_);
    Name_Finder finder(names);
    const std::vector<Named_File> a = traces_of(run, a_), b = traces_of(run, b_);
    const bool by_number = a.size() > 1 || b.size() > 1;
    const auto same_thread = [&](const Named_File &one, const Named_File &other) {
        return !by_number || one.number == other.number;
    };
    for (const Named_File &file : a) {
        const auto other = std::ranges::find_if(b, [&](const Named_File &f) { return same_thread(file, f); });
        if (other != b.end())
            compare(run, file.name, other->name, finder);
        else
            run.warn(fmt::format("{}: there is no such thread in {}", file.name, b_));
    }
    for (const Named_File &file : b)
        if (std::ranges::none_of(a, [&](const Named_File &f) { return same_thread(file, f); }))
            run.warn(fmt::format("{}: there is no such thread in {}", file.name, a_));
}

void Diff_Command::compare(Tool_Run &run, const std::string &name_a, const std::string &name_b,
                           Name_Finder &names) const
{
    const std::unique_ptr<Trace_File> a = Trace_File::open(run, name_a), b = Trace_File::open(run, name_b);
    if (!a || !b)
        return;
    if (!a->has_record(scan_.range.first) && !b->has_record(scan_.range.first))
        return run.fail(a->no_record(scan_.range.first));
    Json_Writer json(run.out);
    run.show([&] { run.out.print("{} | {}\n", name_a, name_b); }, [&] { begin_json(json, name_a, name_b); });
    const Shown shown{run, *a, *b, names};
    Progress progress(run, name_a, std::min(a->info().records, b->info().records));
    Trace_Diff diff(run, {*a, *b, scan_.range}, ignored(), limit_, [&](const Difference_Place &place) {
        run.show([&] { show(shown, place); }, [&] { show_json(shown, place, json); });
    });
    const Difference_Counts counts =
        diff.run(scan_.jobs, [&progress](uint64_t records) { progress.step(records); });
    if (counts.any())
        run.found();
    run.show([&] { summarise(run.out, counts, diff.both_are_read()); }, [&] { summarise_json(json, counts); });
}

// Records of a file from a reader of its own, so that the comparison stays where it is.
void Diff_Command::show_lines(const Shown &shown, const Trace_File &file, uint64_t from, uint64_t count, char mark)
{
    Tool_Run &run = shown.run;
    Item_Stream items(run, file, {}, true);
    if (count == 0 || !items.seek(from))
        return;
    static const Field_Selection fields = Field_Selection::usual();
    while (const QTRACE_Item *item = items.next()) {
        run.out.paint(mark == '-' ? Colour::removed : mark == '+' ? Colour::added : Colour::plain);
        run.out.put(mark);
        shown.names.enter(items.context());
        if (item->kind == QTRACE_ITEM_HEADER)
            print_header(run.out, *item, shown.notes());
        else
            print_record(run.out, *item, fields, shown.notes());
        run.out.paint(Colour::plain);
        if (item->kind == QTRACE_ITEM_RECORD && --count == 0)
            return; // headers that follow belong to the next record
    }
}

static void show_detail(Output &out, const Detail &detail)
{
    out.print("    {}: ", detail.name);
    print_visible(out, detail.a);
    out.put(" | ");
    print_visible(out, detail.b);
    out.put('\n');
}

void Diff_Command::show(const Shown &shown, const Difference_Place &place) const
{
    Output &out = shown.run.out;
    const uint64_t before = std::min(context_, place.record_a);
    const bool missing = place.only_a + place.only_b > 0;
    shown.names.enter(place.space);
    out.print("at record {} | {} ({:016x}", place.record_a, place.record_b, place.address);
    print_name(out, shown.notes(), place.address);
    out.print("): {}", names_of(place.kinds));
    if (missing)
        out.print(": {} only in {}, {} only in {}", counted(place.only_a, "record"), shown.a.name(), place.only_b,
                  shown.b.name());
    out.put('\n');
    for (const Detail &detail : place.details)
        show_detail(out, detail);
    show_lines(shown, shown.a, place.record_a - before, before, ' ');
    show_lines(shown, shown.a, place.record_a, missing ? std::min(place.only_a, context_) : 1, '-');
    show_lines(shown, shown.b, place.record_b, missing ? std::min(place.only_b, context_) : 1, '+');
    show_lines(shown, shown.a, place.record_a + (missing ? place.only_a : 1), context_, ' ');
}

void Diff_Command::summarise(Output &out, const Difference_Counts &counts, bool complete) const
{
    out.print("{} | {} records: ", counts.records_a, counts.records_b);
    out.paint(counts.any() || !complete ? Colour::bad : Colour::good);
    out.put(!complete         ? "not compared to their ends"
            : counts.any()    ? "they differ"
            : ignore_.empty() ? "no difference"
                              : "no difference but those ignored");
    out.paint(Colour::plain);
    out.put('\n');
    if (!counts.any())
        return;
    out.print("  {:<16}{:>12}\n", "records differ", counts.differing);
    for (size_t i = 0; i < DIFFERENCES; i++)
        if (counts.by_kind[i] > 0 && i != static_cast<size_t>(Difference::missing))
            out.print("    {:<14}{:>12}\n", DIFFERENCE_NAMES[i], counts.by_kind[i]);
    if (counts.only_a + counts.only_b > 0)
        out.print("  missing in {}: {} only on the left, {} only on the right\n",
                  counted(counts.by_kind[static_cast<size_t>(Difference::missing)], "run"),
                  counted(counts.only_a, "record"), counts.only_b);
}

void Diff_Command::begin_json(Json_Writer &json, const std::string &name_a, const std::string &name_b)
{
    json.begin_object();
    json.member("a", std::string_view(name_a));
    json.member("b", std::string_view(name_b));
    json.key("differences");
    json.begin_array();
}

void Diff_Command::show_json(const Shown &shown, const Difference_Place &place, Json_Writer &json)
{
    shown.names.enter(place.space);
    json.object([&] {
        json.member("record_a", place.record_a);
        json.member("record_b", place.record_b);
        json.member("address", Json_Hex{place.address});
        name_member(json, "symbol", shown.notes(), place.address);
        json.array("kinds", [&] {
            for (size_t i = 0; i < DIFFERENCES; i++)
                if (place.kinds[i])
                    json.value(DIFFERENCE_NAMES[i]);
        });
        json.member("only_a", place.only_a);
        json.member("only_b", place.only_b);
        json.object("members", [&] {
            for (const Detail &detail : place.details)
                json.array(detail.name, [&] {
                    json.value(std::string_view(detail.a));
                    json.value(std::string_view(detail.b));
                });
        });
    });
}

void Diff_Command::summarise_json(Json_Writer &json, const Difference_Counts &counts)
{
    json.end_array();
    json.member("records_a", counts.records_a);
    json.member("records_b", counts.records_b);
    json.member("differing", counts.differing);
    json.member("only_a", counts.only_a);
    json.member("only_b", counts.only_b);
    json.object("kinds", [&] {
        for (size_t i = 0; i < DIFFERENCES; i++)
            if (counts.by_kind[i] > 0)
                json.member(DIFFERENCE_NAMES[i], counts.by_kind[i]);
    });
    json.end_object();
    json.end_line();
}

} // namespace

std::unique_ptr<Command> make_diff_command()
{
    return std::make_unique<Diff_Command>();
}

} // namespace qtrace_tool
