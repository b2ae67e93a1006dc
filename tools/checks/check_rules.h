// The trace invariants, and the walk over a file that checks them.
#pragma once

#include "header_comment.h"
#include "qtrace_reader.h"
#include "record_schema.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qtrace_tool
{

// Where a rule looks: at each record, at each header, at the end of a trace segment, at what a record says of those
// before it (only when asked to), or at the text trace or the page-table-entry file beside the trace.
enum class Rule_Scope : uint8_t { record, header, end, deep, text, entries };

// What explains a violation.
enum class Rule_Values : uint8_t {
    members,        // those that the rule names
    flags,          // the set flags that are not for use
    unused_members, // those of them that are filled
};

// A trace invariant, told by its violation.
struct Check_Rule {
    std::string name;
    std::string sentence; // what is wrong where it is violated
    Rule_Scope scope;
    std::vector<const trace::Trace_Member *> shows; // members whose values explain a violation
    Rule_Values values = Rule_Values::members;
};

// Every rule, in the order in which `check --rules` lists them.
const std::vector<Check_Rule> &check_rules();
// The place in it of the rule with this name, which there is.
size_t rule_number(std::string_view name);

// One violation.
struct Violation {
    const Check_Rule &rule;
    uint64_t record;  // of a header: of the record after it
    uint64_t address; // of the record
    bool address_known;
    bool in_header;
    std::string values; // members that explain it, "node 3 termination_node 4"
};

// What has passed in the file, as far as rules ask for it. A checker that begins in the middle of a file does not know
// all of it.
struct Check_State {
    // Place and flags of the last record.
    struct Place {
        uint64_t record, address;
        bool address_known, continued; // continued: it says how the trace goes on
    };
    // What the items so far have told.
    struct Told {
        bool items = true;     // of what kind the last item is
        bool segment = true;   // the last record, and whether a segment was opened since
        bool processor = true; // any record with one
        bool node = true;
        bool machine = true; // any comment
    };

    Told told;
    bool header_seen = false;    // a full one
    bool open_header = false;    // a header whose record has not come yet
    bool open_partition = false; // the same, of a partition header
    bool opened = false;         // the next record is the first after a full header
    bool discontinuous = false;  // something before the next item is missing
    bool address_known = false;
    uint64_t address = 0; // of the next record, by the records so far
    std::optional<uint8_t> processor;
    uint8_t last_node = 0;
    std::optional<trace::Header_Comment> machine;
    std::optional<Place> last;
    uint64_t records = 0; // up to here

    // Takes what is not told from the items before, which have told everything.
    void complete(const Check_State &before);
};
struct Header_View;
struct Record_View;

// An item that cannot be judged before the items that precede it are known.
struct Deferred_Item {
    QTRACE_Item item;
    std::string comment; // of a header
    Check_State state;   // before it
};

// Applies the rules to items of one file, in file order.
class Trace_Checker
{
public:
    using Report = std::function<void(const Violation &)>;
    using Defer = std::function<void(Deferred_Item &&)>;
    explicit Trace_Checker(Report report, Defer defer = nullptr);

    // The items are not the first ones of the file: those that cannot be judged yet are deferred. `context`: the
    // header in force.
    void begin(const QTRACE_FILE_HDR *context);
    void header(const QTRACE_Item &item);
    void record(const QTRACE_Item &item);
    // Something before the next item is missing: what rules expect of neighbours does not hold there.
    void loss();
    // The same, as damage that the file itself does not declare. `record`: the number of records before it.
    void damage(uint64_t record, const std::string &reason);
    // The file ended. After a loss() nothing is expected of its end.
    void end();

    // Judges an item that a checker of the following items deferred, and goes on with that checker's state.
    void judge(const Deferred_Item &deferred);
    void append(const Trace_Checker &next);

private:
    bool must_defer(const Record_View &view) const;
    bool must_defer(const Header_View &view) const;
    void defer(const QTRACE_Item &item);
    void judge(const Record_View &view);
    void judge(const Header_View &view);
    void follow(const Header_View &view);
    void follow(const Record_View &view);
    void end_segment(const std::optional<Check_State::Place> &last);

    Report report_;
    Defer defer_;
    Check_State state_;
};

} // namespace qtrace_tool
