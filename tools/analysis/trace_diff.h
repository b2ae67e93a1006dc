// Two traces of one thread against each other: where records differ, and where one has records that the other
// lacks.
#pragma once

#include "diff_side.h"
#include "equal_blocks.h"
#include "record_difference.h"
#include "symbol_names.h"

#include <functional>
#include <limits>
#include <memory>
#include <vector>

namespace qtrace_tool
{

// One place where the traces differ. With `only_a` or `only_b` records that the other does not have begin there; else
// one record or the headers before it differ.
struct Difference_Place {
    uint64_t record_a, record_b; // numbers of the records there
    uint64_t address;            // of the instruction in the first trace, or the second when it is only there
    Address_Space space;         // that it belongs to
    Difference_Set kinds;
    std::vector<Detail> details;
    uint64_t only_a = 0, only_b = 0;
};

struct Difference_Counts {
    uint64_t records_a = 0, records_b = 0;
    uint64_t differing = 0; // records that both have
    uint64_t by_kind[trace::DIFFERENCES] = {};
    uint64_t only_a = 0, only_b = 0; // records that the other does not have

    bool any() const
    {
        return differing + only_a + only_b + by_kind[static_cast<size_t>(trace::Difference::header)] > 0;
    }
};

// What is compared: the records of a range by their numbers, of files that live longer than the comparison.
struct Diff_Input {
    const Trace_File &a, &b;
    Record_Range range;
};

// Compares record by record. Where a record differs, hashes of the records that follow say which belong together;
// where record numbers jump (damage, pieces left out), the numbers do.
class Trace_Diff
{
public:
    using Report = std::function<void(const Difference_Place &)>;

    // The report is called for the first `limit` places.
    Trace_Diff(Tool_Run &run, const Diff_Input &input, const Difference_Set &ignored, uint64_t limit,
               Report report);

    // Compares the records of the range; with several jobs, threads find out which blocks need not be looked at here. `step` is
    // called now and then, with the records since the last call.
    Difference_Counts run(unsigned jobs, std::function<void(uint64_t)> step);
    // So far: what was seen earlier may not be readable any more.
    bool both_are_read() const { return a_.is_readable() && b_.is_readable(); }

private:
    static constexpr uint64_t NONE = std::numeric_limits<uint64_t>::max();

    bool is_equal() const;
    void align_by_numbers();
    void align_by_hashes();
    void pair();
    void pair_equal();
    void compare(bool equal);
    void advance();
    bool stands_before(const Block_Group &group) const;
    void pass_over_equal_groups();
    void pass_over(uint64_t up_to_block, uint64_t records);
    void tell_progress();
    void leave_out(uint64_t only_a, uint64_t only_b);
    void leave_out_rest();
    Difference_Place here() const;
    void report_missing(Difference_Place &&place);
    void compare_headers();
    void compare_records();
    void report(Difference_Place &&place);

    Record_Range range_;
    Diff_Side a_, b_;
    Difference_Set ignored_;
    uint64_t limit_;
    Report report_;
    std::function<void(uint64_t)> step_;
    uint64_t told_records_ = 0; // to step_
    std::unique_ptr<Equal_Blocks> equal_;
    size_t group_ = 0;            // of equal_, whose beginning was not reached yet
    unsigned different_ = 0;      // groups in a row
    uint64_t group_begin_ = NONE; // number of its first record
    Difference_Counts counts_;
    bool addresses_told_ = true; // no record that tells the current addresses is missing on one side alone
};

} // namespace qtrace_tool
