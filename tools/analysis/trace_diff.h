// Two traces of one thread against each other: where records differ, and where one has records that the other
// lacks.
#pragma once

#include "record_schema.h"
#include "trace_files.h"

#include <bitset>
#include <functional>
#include <string>
#include <vector>

namespace qtrace_tool
{

using namespace trace;

using Difference_Set = std::bitset<DIFFERENCES>;

// A member that differs, with both values.
struct Detail {
    std::string name, a, b;
};

// Kinds in `ignored` are left out of `kinds`.
Difference_Set kinds_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored);
std::vector<Detail> details_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored);

// One place where the traces differ. With `only_a` or `only_b` a run of records that the other does not have begins
// there; else one record or the headers in front of it differ.
struct Difference_Place {
    uint64_t record_a, record_b; // numbers of the records there
    uint64_t address;            // of the instruction in the first trace, or the second when it is only there
    Difference_Set kinds;
    std::vector<Detail> details;
    uint64_t only_a = 0, only_b = 0;
};

struct Difference_Counts {
    uint64_t records_a = 0, records_b = 0;
    uint64_t differing = 0; // records that both have
    uint64_t by_kind[DIFFERENCES] = {};
    uint64_t only_a = 0, only_b = 0; // records that the other does not have

    bool any() const { return differing + only_a + only_b + by_kind[static_cast<size_t>(Difference::header)] > 0; }
};

class Trace_Diff
{
public:
    using Report = std::function<void(const Difference_Place &)>;

    // The report is called for the first `limit` places.
    Trace_Diff(Trace_File &a, Trace_File &b, const Difference_Set &ignored, uint64_t limit, Report report);

    // Compares the whole files. `step` is called once a record.
    Difference_Counts run(const std::function<void()> &step);

private:
    // One side: the record to be compared next with the headers in front of it.
    struct Side {
        Trace_File &file;
        const QTRACE_Item *item = nullptr; // null: at the end
        std::vector<std::pair<QTRACE_FILE_HDR, std::string>> headers{};
        uint64_t records = 0; // so far

        void next();
        void seek(uint64_t record);
    };
    // How many records to leave out of each side until the traces agree again.
    struct Shift {
        uint64_t a, b;
        bool found;
    };

    bool same_place() const;
    uint64_t signature(const QTRACE_Item &item) const;
    std::vector<uint64_t> window(Side &side) const;
    Shift find_shift();
    void realign();
    void compare_headers();
    void compare_records();
    void leave_out(uint64_t only_a, uint64_t only_b);
    void place(Difference_Place &&place);

    Side a_, b_;
    Difference_Set ignored_;
    uint64_t limit_;
    Report report_;
    Difference_Counts counts_;
    uint64_t pairs_ = 0; // records to be compared although they stand at different places
};

} // namespace qtrace_tool
