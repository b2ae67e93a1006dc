#include "trace_diff.h"

#include "record_equality.h"

#include <algorithm>
#include <utility>

namespace qtrace_tool
{

using namespace trace;

Trace_Diff::Trace_Diff(Tool_Run &run, const Diff_Input &input, const Difference_Set &ignored, uint64_t limit,
                       Report report)
    : range_(input.range), a_{run, input.a, input.range, Record_Hash(ignored)}, b_{run, input.b, input.range,
                                                                                   Record_Hash(ignored)},
      ignored_(ignored), limit_(limit), report_(std::move(report))
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
        for (uint64_t i = 0; i < step.pairs && both_are_read(); i++)
            pair();
        if (!both_are_read())
            return;
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
            Address_Space(side.context()),
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
           have_same_members(a_.item->record, b_.item->record);
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

// Compares the current records, and takes the next ones.
void Trace_Diff::pair()
{
    compare(is_equal());
    advance();
}

void Trace_Diff::compare(bool equal)
{
    const bool told_before = std::exchange(addresses_told_, addresses_told_ || (a_.full_header && b_.full_header));
    if (!a_.headers.empty() || !b_.headers.empty())
        compare_headers();
    if (told_before != addresses_told_) // then it was found without the addresses
        equal = is_equal();
    if (!equal)
        compare_records();
    addresses_told_ |= a_.item->record.header.control.fld.next_instruction_EA_present &&
                       b_.item->record.header.control.fld.next_instruction_EA_present;
}

void Trace_Diff::advance()
{
    if ((a_.records & 0xFFF) == 0)
        tell_progress();
    a_.next();
    b_.next();
}

void Trace_Diff::tell_progress()
{
    step_(a_.records - std::exchange(told_records_, a_.records));
}

bool Trace_Diff::stands_before(const Block_Group &group) const
{
    return addresses_told_ && a_.is_at(group.first_record, group.first_header) &&
           b_.is_at(group.first_record, group.first_header);
}

// Called just before the first item of a group, or later. The next item is read here in any case.
void Trace_Diff::pass_over_equal_groups()
{
    constexpr unsigned TOO_MANY = 8; // groups that differ: then it is quicker to look at each record here alone
    const std::vector<Block_Group> &groups = equal_->groups();
    while (group_ < groups.size() && groups[group_].first_record < a_.record_number_after())
        group_++;
    if (group_ < groups.size() && stands_before(groups[group_])) {
        const size_t first = group_;
        uint64_t passed = 0;
        for (; group_ < groups.size() && equal_->is_equal(group_); group_++)
            passed += groups[group_].records;
        if (group_ > first)
            pass_over(groups[group_ - 1].first_block + groups[group_ - 1].blocks, passed);
        different_ = group_ > first ? 1 : different_ + 1;
    }
    if (different_ == TOO_MANY)
        equal_->stop();
    group_++;
    group_begin_ = group_ < groups.size() && different_ < TOO_MANY ? groups[group_].first_record : NONE;
}

void Trace_Diff::pass_over(uint64_t up_to_block, uint64_t records)
{
    a_.pass_over(up_to_block, records);
    b_.pass_over(up_to_block, records);
    tell_progress();
}

// Only here groups are passed over: an alignment has counted the records that follow.
void Trace_Diff::pair_equal()
{
    compare(true);
    if (a_.item->record_number + 1 >= group_begin_)
        pass_over_equal_groups();
    advance();
}

Difference_Counts Trace_Diff::run(unsigned jobs, std::function<void(uint64_t)> step)
{
    step_ = std::move(step);
    equal_ = std::make_unique<Equal_Blocks>(a_.file, b_.file, range_, jobs);
    if (!equal_->groups().empty())
        pass_over_equal_groups();
    a_.next();
    b_.next();
    while (a_.item != nullptr && b_.item != nullptr) {
        if (a_.jump != b_.jump)
            align_by_numbers();
        else if (is_equal())
            pair_equal();
        else
            align_by_hashes();
    }
    if (both_are_read()) {
        leave_out_rest();
        compare_headers();
    }
    tell_progress();
    counts_.records_a = a_.records;
    counts_.records_b = b_.records;
    return counts_;
}

} // namespace qtrace_tool
