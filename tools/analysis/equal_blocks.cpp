#include "equal_blocks.h"

#include "record_difference.h"
#include "record_equality.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace qtrace_tool
{

using namespace trace;

namespace
{

constexpr size_t GROUP = 2; // steps

bool have_same_numbers(const QTRACE_Step &a, const QTRACE_Step &b)
{
    return a.blocks == b.blocks && a.first_record == b.first_record && a.record_after == b.record_after &&
           a.records == b.records && a.first_header == b.first_header && a.header_after == b.header_after &&
           a.headers == b.headers;
}

bool follows(const QTRACE_Step &step, const QTRACE_Step &before)
{
    return step.first_record == before.record_after && step.first_header == before.header_after;
}

// Steps at the beginning of both files that have the same numbers of items, none missing between them.
size_t common_steps(std::span<const QTRACE_Step> a, std::span<const QTRACE_Step> b)
{
    size_t common = 0;
    while (common < std::min(a.size(), b.size()) && have_same_numbers(a[common], b[common]) &&
           (common == 0 ? a[0].first_record + a[0].first_header == 0 : follows(a[common], a[common - 1])))
        common++;
    return common;
}

// Only groups without gaps within their steps are equal, so their records are as many as the numbers say.
std::vector<Block_Group> plan_groups(std::span<const QTRACE_Step> steps, const Record_Range &range)
{
    std::vector<Block_Group> groups;
    for (size_t first = 0; first < steps.size(); first += GROUP) {
        const auto group = steps.subspan(first, std::min(GROUP, steps.size() - first));
        const QTRACE_Step &front = group.front(), &back = group.back();
        const uint64_t end = back.record_after;
        if (range.contains(front.first_record) && (end == 0 || range.contains(end - 1)))
            groups.push_back({front.first_block, back.first_block + back.blocks - front.first_block,
                              front.first_record, end - front.first_record, front.first_header});
    }
    return groups;
}

bool is_same_header(const QTRACE_FILE_HDR &a, const QTRACE_FILE_HDR &b)
{
    Header_List one, other;
    one.add(a);
    other.add(b);
    return details_between(one, other).empty();
}

bool is_same_record(const QTRACE_Item &a, const QTRACE_Item &b)
{
    return a.record_number == b.record_number && a.address == b.address && a.address_known == b.address_known &&
           have_same_members(a.record, b.record);
}

bool is_same(const QTRACE_Item &a, const QTRACE_Item &b)
{
    if (a.kind != b.kind)
        return false;
    switch (a.kind) {
    case QTRACE_ITEM_RECORD:
        return is_same_record(a, b);
    case QTRACE_ITEM_HEADER:
        return is_same_header(a.header, b.header);
    default:
        return a.kind == QTRACE_ITEM_DISCONTINUITY && a.discontinuity.cause == QTRACE_CAUSE_PAUSE &&
               b.discontinuity.cause == QTRACE_CAUSE_PAUSE;
    }
}

// A header that comes last belongs to the record of the next group.
bool compare(Range_Items &a, Range_Items &b, const Block_Group &group)
{
    if (!a.select(group.first_block, group.blocks) || !b.select(group.first_block, group.blocks))
        return false;
    for (bool record_last = false;;) {
        const QTRACE_Item *const one = a.next(), *const other = b.next();
        if (one == nullptr || other == nullptr)
            return one == other && record_last && a.error().empty() && b.error().empty();
        if (!is_same(*one, *other))
            return false;
        record_last = one->kind == QTRACE_ITEM_RECORD;
    }
}

} // namespace

Equal_Blocks::Equal_Blocks(const Trace_File &a, const Trace_File &b, const Record_Range &range, unsigned jobs)
{
    if (jobs > 1)
        groups_ = plan_groups(a.steps().first(common_steps(a.steps(), b.steps())), range);
    verdicts_.resize(groups_.size(), Verdict::open);
    for (size_t i = 0; i < std::min<size_t>(jobs, groups_.size()); i++)
        workers_.emplace_back([this, &a, &b] { work(a, b); });
}

void Equal_Blocks::work(const Trace_File &a, const Trace_File &b)
{
    Range_Items one(a.another_reader(), {}), other(b.another_reader(), {});
    for (std::unique_lock lock(mutex_); !stopped_ && next_ < groups_.size(); judged_.notify_all()) {
        const size_t group = next_++;
        lock.unlock();
        const bool equal = compare(one, other, groups_[group]);
        lock.lock();
        verdicts_[group] = equal ? Verdict::equal : Verdict::different;
    }
}

bool Equal_Blocks::is_equal(size_t group)
{
    std::unique_lock lock(mutex_);
    judged_.wait(lock, [&] { return stopped_ || verdicts_[group] != Verdict::open; });
    return verdicts_[group] == Verdict::equal;
}

void Equal_Blocks::stop()
{
    const std::lock_guard lock(mutex_);
    stopped_ = true;
}

} // namespace qtrace_tool
