// The rules of a good trace, and the walk over a file that applies them.
#pragma once

#include "qtrace_reader.h"
#include "record_schema.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qtrace_tool
{

using namespace trace;

// Where a rule looks: at each record, at each header, or at the end of a stretch of tracing.
enum class Rule_Scope : uint8_t { record, header, end };

// A rule. A trace is good when no rule is broken.
struct Check_Rule {
    std::string name;
    std::string sentence; // what is wrong where the rule is broken
    Rule_Scope scope;
    std::vector<const Trace_Member *> shows; // members whose values explain a violation
};

// Every rule, in the order in which `check --rules` lists them.
const std::vector<Check_Rule> &check_rules();

// One place where a rule is broken.
struct Violation {
    const Check_Rule &rule;
    uint64_t record;  // of a header: of the record behind it
    uint64_t address; // of the record
    bool address_known;
    bool in_header;
    std::string values; // members that explain it, "node 3 termination_node 4"
};

struct Check_State;
struct Header_View;
struct Record_View;

// Applies the rules to the items of one file, in file order.
class Trace_Checker
{
public:
    using Report = std::function<void(const Violation &)>;
    explicit Trace_Checker(Report report);
    ~Trace_Checker();

    void header(const QTRACE_Item &item);
    void record(const QTRACE_Item &item);
    // Something in front of the next item is missing, as the file itself says: what rules expect of neighbours does
    // not hold there.
    void loss();
    // The same, as damage that the file does not own up to. `record`: the number of records read so far.
    void damage(uint64_t record, const std::string &reason);
    // The file ended. After a loss() nothing is expected of its end.
    void end();

private:
    void follow(const Header_View &view);
    void follow(const Record_View &view);
    void end_stretch();

    Report report_;
    std::unique_ptr<Check_State> state_;
};

} // namespace qtrace_tool
