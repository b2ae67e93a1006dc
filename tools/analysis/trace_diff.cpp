#include "trace_diff.h"

#include <algorithm>
#include <utility>

namespace qtrace_tool
{

Trace_Diff::Trace_Diff(Tool_Run &run, Trace_File &a, Trace_File &b, const Difference_Set &ignored, uint64_t limit,
                       Report report)
    : a_{run, a, Record_Hash(ignored)}, b_{run, b, Record_Hash(ignored)}, ignored_(ignored), limit_(limit),
      report_(std::move(report))
{
}

// ---- Aligning ------------------------------------------------------------------------------------------

// As many records as are missing on one side are only on the other.
void Trace_Diff::align_by_numbers()
{
    uint64_t missing_a = std::exchange(a_.jump, 0), missing_b = std::exchange(b_.jump, 0);
    Difference_Place place = here();
    while (missing_a != missing_b) {
        const bool only_b = missing_a > missing_b;
        Diff_Side &side = only_b ? b_ : a_;
        if (side.item == nullptr)
            break;
        (only_b ? place.only_b : place.only_a)++;
        side.next();
        (only_b ? missing_b : missing_a) += 1 + std::exchange(side.jump, 0);
    }
    report_missing(std::move(place));
}

void Trace_Diff::align_by_hashes()
{
    const std::vector<Record_Key> a = a_.keys(), b = b_.keys();
    if (a.empty() || b.empty()) {
        pair();
        return;
    }
    for (const Alignment_Step &step : align_records(a, b, a_.keys_at_end() && b_.keys_at_end())) {
        for (uint64_t i = 0; i < step.pairs; i++)
            pair();
        leave_out(step.only_a, step.only_b);
    }
}

void Trace_Diff::leave_out(uint64_t only_a, uint64_t only_b)
{
    Difference_Place place = here();
    place.only_a = only_a;
    place.only_b = only_b;
    for (uint64_t i = 0; i < only_a; i++)
        a_.next();
    for (uint64_t i = 0; i < only_b; i++)
        b_.next();
    report_missing(std::move(place));
}

void Trace_Diff::leave_out_rest()
{
    Difference_Place place = here();
    for (; a_.item != nullptr; a_.next())
        place.only_a++;
    for (; b_.item != nullptr; b_.next())
        place.only_b++;
    report_missing(std::move(place));
}

// ---- Reporting -----------------------------------------------------------------------------------------

Difference_Place Trace_Diff::here() const
{
    const Diff_Side &side = a_.item != nullptr ? a_ : b_;
    return {a_.record_number(),
            b_.record_number(),
            side.item != nullptr ? side.item->address : 0,
            Address_Space(side.file.context()),
            {},
            {}};
}

void Trace_Diff::report_missing(Difference_Place &&place)
{
    if (place.only_a + place.only_b == 0)
        return;
    addresses_told_ = false;
    if (has(ignored_, Difference::missing))
        return;
    place.kinds.set(static_cast<size_t>(Difference::missing));
    counts_.only_a += place.only_a;
    counts_.only_b += place.only_b;
    report(std::move(place));
}

void Trace_Diff::report(Difference_Place &&place)
{
    for (size_t i = 0; i < DIFFERENCES; i++)
        counts_.by_kind[i] += place.kinds[i];
    if (limit_ == 0)
        return;
    limit_--;
    report_(place);
}

// ---- Comparing -----------------------------------------------------------------------------------------

void Trace_Diff::compare_headers()
{
    if (a_.headers.empty() && b_.headers.empty())
        return;
    std::vector<Detail> details = details_between(a_.headers, b_.headers);
    a_.headers.clear();
    b_.headers.clear();
    if (details.empty() || has(ignored_, Difference::header))
        return;
    Difference_Place place = here();
    place.details = std::move(details);
    place.kinds.set(static_cast<size_t>(Difference::header));
    report(std::move(place));
}

// Everything of a record that a writer fills or may fill, the reader's bookkeeping aside.
bool Trace_Diff::is_equal() const
{
    return (!addresses_told_ ||
            (a_.item->address == b_.item->address && a_.item->address_known == b_.item->address_known)) &&
           std::memcmp(&a_.item->record, &b_.item->record, offsetof(QTRACE_RECORD, offset)) == 0;
}

void Trace_Diff::compare_records()
{
    Difference_Set ignored = ignored_;
    if (!addresses_told_)
        ignored.set(static_cast<size_t>(Difference::address));
    const Difference_Set kinds = kinds_between(*a_.item, *b_.item, ignored);
    if (kinds.none())
        return;
    counts_.differing++;
    Difference_Place place = here();
    place.kinds = kinds;
    if (limit_ > 0)
        place.details = details_between(*a_.item, *b_.item, ignored);
    report(std::move(place));
}

// Compares the current records, and goes on to the next ones.
void Trace_Diff::pair()
{
    addresses_told_ |= a_.full_header && b_.full_header;
    compare_headers();
    if (!is_equal())
        compare_records();
    addresses_told_ |= a_.item->record.header.control.fld.next_instruction_EA_present &&
                       b_.item->record.header.control.fld.next_instruction_EA_present;
    a_.next();
    b_.next();
    step_();
}

Difference_Counts Trace_Diff::run(std::function<void()> step)
{
    step_ = std::move(step);
    a_.next();
    b_.next();
    while (a_.item != nullptr && b_.item != nullptr) {
        if (a_.jump != b_.jump)
            align_by_numbers();
        else if (is_equal())
            pair();
        else
            align_by_hashes();
    }
    leave_out_rest();
    compare_headers();
    counts_.records_a = a_.records;
    counts_.records_b = b_.records;
    return counts_;
}

} // namespace qtrace_tool
