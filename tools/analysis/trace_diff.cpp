#include "trace_diff.h"

#include "record_printer.h"

#include <algorithm>
#include <unordered_map>

namespace qtrace_tool
{
namespace
{

// Records that must agree in a row before two traces count as aligned again; how far a place for that is looked
// for.
constexpr size_t AGREEMENT = 8;
constexpr size_t WINDOW = 65536;

size_t index_of(Difference kind)
{
    return static_cast<size_t>(kind);
}

Difference kind_of_flag(const Trace_Flag &flag)
{
    if (flag.role == Flag_Role::mode)
        return Difference::translation;
    const auto member = std::ranges::find_if(
        RECORD_MEMBERS, [&](const Trace_Member &row) { return row.gate.control == flag.mask(); });
    return member == RECORD_MEMBERS.end() ? Difference::flags
                                          : GROUPS[static_cast<size_t>(member->group)].difference;
}

// Calls visit(kind, name, a, b) for every difference between two records; a and b say the values.
template <class Visitor> void visit_differences(const QTRACE_Item &a, const QTRACE_Item &b, Visitor &&visit)
{
    if (a.address != b.address || a.address_known != b.address_known)
        visit(Difference::address, "address",
              [&] { return std::pair(fmt::format("{:016x}", a.address), fmt::format("{:016x}", b.address)); });
    const uint64_t flags_a = flags_of(a.record).control, flags_b = flags_of(b.record).control;
    for (const Trace_Flag &flag : CONTROL_FLAGS)
        if (((flags_a ^ flags_b) & flag.mask()) != 0)
            visit(kind_of_flag(flag), flag.name, [&] {
                return std::pair(std::to_string(flag.value(flags_a)), std::to_string(flag.value(flags_b)));
            });
    for (const Trace_Member &member : RECORD_MEMBERS)
        if (std::memcmp(member.at(a.record), member.at(b.record), member.size) != 0)
            visit(GROUPS[static_cast<size_t>(member.group)].difference, member.name, [&] {
                const bool registers = member.shape == Member_Shape::registers;
                return registers ? std::pair(registers_text(a.record.regs), registers_text(b.record.regs))
                                 : std::pair(value_text(member, a.record), value_text(member, b.record));
            });
}

// Everything of a record that a writer fills or may fill, the reader's bookkeeping aside.
bool is_same(const QTRACE_RECORD &a, const QTRACE_RECORD &b)
{
    return std::memcmp(&a, &b, offsetof(QTRACE_RECORD, offset)) == 0;
}

} // namespace

Difference_Set kinds_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored)
{
    Difference_Set kinds;
    visit_differences(a, b, [&](Difference kind, std::string_view, auto &&) { kinds.set(index_of(kind)); });
    return kinds & ~ignored;
}

std::vector<Detail> details_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored)
{
    std::vector<Detail> details;
    visit_differences(a, b, [&](Difference kind, std::string_view name, auto &&values) {
        if (ignored[index_of(kind)])
            return;
        auto [value_a, value_b] = values();
        details.push_back({std::string(name), std::move(value_a), std::move(value_b)});
    });
    return details;
}

// ---- One side ------------------------------------------------------------------------------------------

void Trace_Diff::Side::next()
{
    headers.clear();
    for (item = file.next(); item != nullptr && item->kind == QTRACE_ITEM_HEADER; item = file.next())
        headers.emplace_back(item->header, item->header.comment != nullptr ? item->header.comment : "");
    records += item != nullptr;
}

// Without the headers in front of the record: they have been compared, or belong to what was left out.
void Trace_Diff::Side::seek(uint64_t record)
{
    if (file.seek(record))
        next();
    else
        item = nullptr;
    headers.clear();
}

// ---- Aligning ------------------------------------------------------------------------------------------

Trace_Diff::Trace_Diff(Trace_File &a, Trace_File &b, const Difference_Set &ignored, uint64_t limit, Report report)
    : a_{a}, b_{b}, ignored_(ignored), limit_(limit), report_(std::move(report))
{
}

uint64_t Trace_Diff::signature(const QTRACE_Item &item) const
{
    const uint64_t address = ignored_[index_of(Difference::address)] ? 0 : item.address;
    const uint64_t word = ignored_[index_of(Difference::instruction)] ? 0 : item.record.header.instruction;
    return (address ^ word << 32) * 0x9E3779B97F4A7C15u ^ word;
}

bool Trace_Diff::same_place() const
{
    return signature(*a_.item) == signature(*b_.item);
}

// What the next records are, the current one first. The side is moved.
std::vector<uint64_t> Trace_Diff::window(Side &side) const
{
    std::vector<uint64_t> signatures;
    for (; side.item != nullptr && signatures.size() < WINDOW; side.next())
        signatures.push_back(signature(*side.item));
    return signatures;
}

namespace
{

uint64_t run_hash(const std::vector<uint64_t> &signatures, size_t from)
{
    uint64_t hash = 0;
    for (size_t i = from; i < from + AGREEMENT; i++)
        hash = (hash ^ signatures[i]) * 0x100000001B3u;
    return hash;
}

size_t common_end(const std::vector<uint64_t> &a, const std::vector<uint64_t> &b)
{
    size_t length = 0;
    while (length < std::min(a.size(), b.size()) && a[a.size() - 1 - length] == b[b.size() - 1 - length])
        length++;
    return length;
}

} // namespace

// The fewest records to leave out of both sides together so that AGREEMENT records in a row agree.
Trace_Diff::Shift Trace_Diff::find_shift()
{
    const std::vector<uint64_t> a = window(a_), b = window(b_);
    const bool at_ends = a_.item == nullptr && b_.item == nullptr;
    std::unordered_map<uint64_t, size_t> first_in_a;
    for (size_t i = 0; i + AGREEMENT <= a.size(); i++)
        first_in_a.try_emplace(run_hash(a, i), i);
    Shift best{a.size(), b.size(), false};
    for (size_t i = 0; i + AGREEMENT <= b.size() && (!best.found || i < best.a + best.b); i++) {
        const auto match = first_in_a.find(run_hash(b, i));
        if (match != first_in_a.end() && (!best.found || match->second + i < best.a + best.b))
            best = {match->second, i, true};
    }
    if (best.found || !at_ends)
        return best;
    const size_t end = common_end(a, b);
    return {a.size() - end, b.size() - end, true};
}

// The current records stand at different places: goes on where the traces agree again.
void Trace_Diff::realign()
{
    const uint64_t record_a = a_.item->record_number, record_b = b_.item->record_number;
    const uint64_t records_a = a_.records - 1, records_b = b_.records - 1;
    const Shift shift = find_shift();
    a_.seek(record_a);
    b_.seek(record_b);
    a_.records = records_a + 1;
    b_.records = records_b + 1;
    if (shift.a == shift.b) {
        pairs_ = std::max<uint64_t>(shift.a, 1);
        return;
    }
    leave_out(shift.a, shift.b);
}

void Trace_Diff::leave_out(uint64_t only_a, uint64_t only_b)
{
    const QTRACE_Item *at = only_a > 0 ? a_.item : b_.item;
    Difference_Place missing{a_.item != nullptr ? a_.item->record_number : a_.records,
                             b_.item != nullptr ? b_.item->record_number : b_.records,
                             at != nullptr ? at->address : 0,
                             {},
                             {},
                             only_a,
                             only_b};
    missing.kinds.set(index_of(Difference::missing));
    if (!ignored_[index_of(Difference::missing)]) {
        counts_.only_a += only_a;
        counts_.only_b += only_b;
        place(std::move(missing));
    }
    for (uint64_t i = 0; i < only_a && a_.item != nullptr; i++)
        a_.next();
    for (uint64_t i = 0; i < only_b && b_.item != nullptr; i++)
        b_.next();
}

// ---- Comparing -----------------------------------------------------------------------------------------

void Trace_Diff::place(Difference_Place &&place)
{
    for (size_t i = 0; i < DIFFERENCES; i++)
        counts_.by_kind[i] += place.kinds[i];
    if (limit_ == 0)
        return;
    limit_--;
    report_(place);
}

void Trace_Diff::compare_headers()
{
    if (a_.headers.empty() && b_.headers.empty())
        return;
    std::vector<Detail> details;
    if (a_.headers.size() != b_.headers.size())
        details.push_back({"headers", std::to_string(a_.headers.size()), std::to_string(b_.headers.size())});
    for (size_t i = 0; i < std::min(a_.headers.size(), b_.headers.size()); i++) {
        const auto &[a, comment_a] = a_.headers[i];
        const auto &[b, comment_b] = b_.headers[i];
        if (!(flags_of(a) == flags_of(b)))
            details.push_back({"flags", fmt::format("0x{:x}/0x{:x}", flags_of(a).file, flags_of(a).control),
                               fmt::format("0x{:x}/0x{:x}", flags_of(b).file, flags_of(b).control)});
        for (const Trace_Member &member : HEADER_MEMBERS)
            if (member.shape != Member_Shape::text && std::memcmp(member.at(a), member.at(b), member.size) != 0)
                details.push_back({std::string(member.name), value_text(member, a), value_text(member, b)});
        if (comment_a != comment_b)
            details.push_back({"comment", comment_a, comment_b});
    }
    if (details.empty() || ignored_[index_of(Difference::header)])
        return;
    Difference_Place header{
        a_.item->record_number, b_.item->record_number, a_.item->address, {}, std::move(details)};
    header.kinds.set(index_of(Difference::header));
    place(std::move(header));
}

void Trace_Diff::compare_records()
{
    if (a_.item->address == b_.item->address && is_same(a_.item->record, b_.item->record))
        return;
    const Difference_Set kinds = kinds_between(*a_.item, *b_.item, ignored_);
    if (kinds.none())
        return;
    counts_.differing++;
    Difference_Place here{a_.item->record_number, b_.item->record_number, a_.item->address, kinds, {}};
    if (limit_ > 0)
        here.details = details_between(*a_.item, *b_.item, ignored_);
    place(std::move(here));
}

Difference_Counts Trace_Diff::run(const std::function<void()> &step)
{
    a_.next();
    b_.next();
    while (a_.item != nullptr && b_.item != nullptr) {
        if (pairs_ == 0 && !same_place()) {
            realign();
            continue;
        }
        pairs_ -= pairs_ > 0;
        compare_headers();
        compare_records();
        a_.next();
        b_.next();
        step();
    }
    uint64_t rest_a = 0, rest_b = 0;
    if (a_.item != nullptr || b_.item != nullptr) {
        rest_a = a_.item != nullptr ? a_.file.info().records - (a_.records - 1) : 0;
        rest_b = b_.item != nullptr ? b_.file.info().records - (b_.records - 1) : 0;
        leave_out(rest_a, rest_b);
    }
    counts_.records_a = a_.records;
    counts_.records_b = b_.records;
    return counts_;
}

} // namespace qtrace_tool
