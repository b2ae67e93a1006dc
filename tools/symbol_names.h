// The names that `--symbols` gives to addresses of a trace, by partition and process.
#pragma once

#include "qtrace_t.h"
#include "symbol_table.h"
#include "tool_run.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

// The options --symbols and --load-address as they were given.
struct Symbol_Options {
    struct File {
        std::string name;
        std::optional<uint64_t> lpid, pid; // whose addresses are named; none: those of all
        std::optional<uint64_t> load_address;
    };
    std::vector<File> files;

    // `FILE`, or `lpid=N:FILE`, `pid=N:FILE`, `lpid=N,pid=N:FILE`. Throws std::invalid_argument for a number that is none.
    void add(const std::string &argument);
};

// Whose addresses: partition and process of the header in force.
struct Address_Space {
    bool known = false; // a header is in force
    uint64_t lpid = 0, pid = 0;

    Address_Space() = default;
    // Null: there is no header.
    explicit Address_Space(const QTRACE_FILE_HDR *context);
    bool operator==(const Address_Space &) const = default;
};

// All symbols of a run. Any number of threads may look up names in it at once, each with an own Name_Finder.
class Symbol_Names
{
public:
    // Reads the files; tells the run what is remarkable of them. Throws std::runtime_error, "FILE: REASON".
    Symbol_Names(Tool_Run &run, const Symbol_Options &options);
    bool empty() const { return scopes_.empty(); }

private:
    friend class Name_Finder;
    // Symbols of some partitions and processes.
    struct Scope {
        std::optional<uint64_t> lpid, pid;
        Symbol_Table table;

        bool holds(const Address_Space &space) const;
        unsigned specific() const { return 2u * pid.has_value() + lpid.has_value(); }
    };
    std::vector<Scope> scopes_; // the most specific first
};

// Looks up names for records in file order, and keeps what it found last.
class Name_Finder
{
public:
    // The names must live as long.
    explicit Name_Finder(const Symbol_Names &names) : names_(names) {}

    // Whether there are any; without, nothing need be asked.
    bool any() const { return !names_.empty(); }
    // Whose addresses follow.
    void enter(const Address_Space &space);
    void enter(const QTRACE_FILE_HDR *context) { enter(Address_Space(context)); }
    // The addresses may be anybody's.
    void enter_any();
    // The symbol that the address belongs to; null: none. The names' own.
    const Symbol *find(uint64_t address);
    // `name+0x10`; empty when the address has no name.
    std::string text(uint64_t address);

private:
    struct Place {
        const Symbol_Table *table;
        Named_Range last; // that an address was in
    };
    const Symbol_Names &names_;
    std::vector<Place> places_; // where names of these addresses may be
    std::optional<Address_Space> space_;
};

} // namespace qtrace_tool
