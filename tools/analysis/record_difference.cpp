#include "record_difference.h"

#include "record_printer.h"

#include <algorithm>

namespace qtrace_tool
{

using namespace trace;

namespace
{

Difference kind_of(const Trace_Member &member)
{
    return GROUPS[static_cast<size_t>(member.group)].difference;
}

Difference kind_of_flag(const Trace_Flag &flag)
{
    if (flag.role == Flag_Role::mode)
        return Difference::translation;
    const auto member = std::ranges::find_if(
        RECORD_MEMBERS, [&](const Trace_Member &row) { return row.gate.control == flag.mask(); });
    return member == RECORD_MEMBERS.end() ? Difference::flags : kind_of(*member);
}

// Calls visit(kind, name, values) for every difference between two records; values() gives both as text.
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
            visit(kind_of(member), member.name, [&] {
                const bool registers = member.shape == Member_Shape::registers;
                return registers ? std::pair(registers_text(a.record.regs), registers_text(b.record.regs))
                                 : std::pair(value_text(member, a.record), value_text(member, b.record));
            });
}

uint64_t mix(uint64_t hash, uint64_t word)
{
    hash = (hash ^ word) * 0x9E3779B97F4A7C15u;
    return hash ^ hash >> 29;
}

uint64_t mix(uint64_t hash, const uint8_t *bytes, size_t size)
{
    for (; size > 0; bytes += std::min<size_t>(size, 8), size -= std::min<size_t>(size, 8)) {
        uint64_t word = 0;
        std::memcpy(&word, bytes, std::min<size_t>(size, 8));
        hash = mix(hash, word);
    }
    return hash;
}

uint64_t mix(uint64_t hash, const QTRACE_REGISTERS &registers)
{
    for (const Register_Class &kind : REGISTER_CLASSES) {
        hash = mix(hash, kind.held(registers));
        for (unsigned i = 0; i < kind.entries(registers); i++) {
            const Register_Entry entry = register_entry(kind, registers, i);
            hash = mix(mix(mix(hash, entry.index), entry.value[0]), entry.value[1]);
        }
    }
    return hash;
}

} // namespace

Difference_Set kinds_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored)
{
    Difference_Set kinds;
    visit_differences(a, b,
                      [&](Difference kind, std::string_view, auto &&) { kinds.set(static_cast<size_t>(kind)); });
    return kinds & ~ignored;
}

std::vector<Detail> details_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored)
{
    std::vector<Detail> details;
    visit_differences(a, b, [&](Difference kind, std::string_view name, auto &&values) {
        if (has(ignored, kind))
            return;
        auto [value_a, value_b] = values();
        details.push_back({std::string(name), std::move(value_a), std::move(value_b)});
    });
    return details;
}

// ---- Hashes --------------------------------------------------------------------------------------------

Record_Hash::Record_Hash(const Difference_Set &ignored)
    : address_(!has(ignored, Difference::address)), word_(!has(ignored, Difference::instruction))
{
    for (size_t row = 0; row < RECORD_MEMBERS.size(); row++)
        if (!has(ignored, kind_of(RECORD_MEMBERS[row])))
            members_.add(row);
    for (const Trace_Flag &flag : CONTROL_FLAGS)
        if (!has(ignored, kind_of_flag(flag)))
            flags_ |= flag.mask();
}

uint64_t Record_Hash::content(const QTRACE_RECORD &record) const
{
    uint64_t hash = mix(0, flags_of(record).control & flags_);
    Member_Set filled = maybe_filled(record);
    (filled &= members_).for_each([&](size_t row) {
        const Trace_Member &member = RECORD_MEMBERS[row];
        if (member.shape == Member_Shape::registers)
            hash = mix(mix(hash, row), record.regs);
        else if (!is_zero(member.at(record), member.size))
            hash = mix(mix(hash, row), member.at(record), member.size);
    });
    return hash;
}

Record_Key Record_Hash::operator()(const QTRACE_Item &item) const
{
    const uint64_t address = address_ ? item.address : 0;
    const uint64_t word = word_ ? item.record.header.instruction : 0;
    const uint64_t members = content(item.record);
    return {mix(members, address), members, mix(mix(1, address), word)};
}

// ---- Headers -------------------------------------------------------------------------------------------

void Header_List::add(const QTRACE_FILE_HDR &header)
{
    const std::string_view comment(header.comment != nullptr ? header.comment : "",
                                   header.comment != nullptr ? header.comment_length : 0);
    count_++;
    if (kept_.size() < KEPT)
        kept_.push_back({header, std::string(comment)});
    QTRACE_FILE_HDR bytes = header;
    bytes.comment = nullptr;
    hash_ = mix(hash_, reinterpret_cast<const uint8_t *>(&bytes), sizeof(bytes));
    hash_ = mix(hash_, reinterpret_cast<const uint8_t *>(comment.data()), comment.size());
}

namespace
{

void add_hexadecimal(std::vector<Detail> &details, const char *name, uint64_t a, uint64_t b)
{
    if (a != b)
        details.push_back({name, fmt::format("0x{:x}", a), fmt::format("0x{:x}", b)});
}

void add_details(std::vector<Detail> &details, const QTRACE_FILE_HDR &a, const QTRACE_FILE_HDR &b)
{
    const auto words = [](const Flag_Words &flags) {
        return fmt::format("0x{:x}/0x{:x}", flags.file, flags.control);
    };
    if (!(flags_of(a) == flags_of(b)))
        details.push_back({"flags", words(flags_of(a)), words(flags_of(b))});
    add_hexadecimal(details, "instruction", a.sec_ext_controlword.instruction, b.sec_ext_controlword.instruction);
    for (const Trace_Member &member : HEADER_MEMBERS)
        if (member.shape != Member_Shape::text && std::memcmp(member.at(a), member.at(b), member.size) != 0)
            details.push_back({std::string(member.name), value_text(member, a), value_text(member, b)});
}

} // namespace

std::vector<Detail> details_between(const Header_List &a, const Header_List &b)
{
    std::vector<Detail> details;
    if (a.count_ != b.count_)
        details.push_back({"headers", std::to_string(a.count_), std::to_string(b.count_)});
    for (size_t i = 0; i < std::min(a.kept_.size(), b.kept_.size()); i++) {
        add_details(details, a.kept_[i].header, b.kept_[i].header);
        if (a.kept_[i].comment != b.kept_[i].comment)
            details.push_back({"comment", a.kept_[i].comment, b.kept_[i].comment});
    }
    if (details.empty() && a.hash_ != b.hash_)
        details.push_back({fmt::format("header after the first {}", Header_List::KEPT), "one", "another"});
    return details;
}

} // namespace qtrace_tool
