#include "record_filter.h"

#include "address_view.h"
#include "instruction_kinds.h"
#include "tool_command.h"

#include <algorithm>

namespace qtrace_tool
{

using namespace trace;

// ---- Options -------------------------------------------------------------------------------------------

static uint64_t parse_hexadecimal(std::string_view text)
{
    if (const std::optional<uint64_t> number = parse_digits(text, 16))
        return *number;
    throw Usage_Error(fmt::format("`{}` is not an address: hexadecimal digits expected, with or without 0x", text));
}

static uint64_t parse_number(std::string_view text, const char *option, uint64_t limit)
{
    const std::optional<uint64_t> number = parse_digits(text, text.starts_with("0x") ? 16 : 10);
    if (!number || *number > limit)
        throw Usage_Error(fmt::format("`{}` is not a number for {}", text, option));
    return *number;
}

Record_Filter::Range Record_Filter::parse_range(std::string_view text)
{
    const size_t dash = text.find('-');
    Range range{parse_hexadecimal(text.substr(0, dash)), 0};
    range.last = dash == std::string_view::npos ? range.first : parse_hexadecimal(text.substr(dash + 1));
    if (range.last < range.first)
        throw Usage_Error(fmt::format("`{}` ends before it begins", text));
    return range;
}

Record_Filter::Masked_Word Record_Filter::parse_word(std::string_view text)
{
    const size_t slash = text.find('/');
    const uint64_t value = parse_hexadecimal(text.substr(0, slash));
    const uint64_t mask = slash == std::string_view::npos ? UINT32_MAX : parse_hexadecimal(text.substr(slash + 1));
    if (value > UINT32_MAX || mask > UINT32_MAX)
        throw Usage_Error(fmt::format("`{}` is not an instruction word: 32 bits expected", text));
    return {static_cast<uint32_t>(value & mask), static_cast<uint32_t>(mask)};
}

Record_Filter::Register Record_Filter::parse_register(const std::string &text)
{
    const auto has_letter = [&](const Register_Class &kind) { return text.starts_with(kind.letter); };
    if (text.size() < 2 || std::ranges::none_of(REGISTER_CLASSES, has_letter))
        throw Usage_Error(fmt::format("`{}` is not a register: r, f, s, v or x and a number expected", text));
    return {text[0],
            static_cast<uint16_t>(parse_number(std::string_view(text).substr(1), "--register", UINT16_MAX))};
}

std::vector<std::string> kind_names()
{
    std::vector<std::string> names;
    for (const Kind_Name &row : KINDS)
        names.emplace_back(row.name);
    return names;
}

uint32_t Record_Filter::parse_kind(const std::string &name)
{
    const auto kind = std::ranges::find(KINDS, name, &Kind_Name::name);
    if (kind != KINDS.end())
        return kind->kind;
    throw unknown_word("kind of record", name, kind_names());
}

void Record_Filter::declare(Options &app, const Take_Word &take_kind)
{
    declare_range(app);
    declare_choices(app, take_kind);
}

void Record_Filter::declare_range(Options &app)
{
    declare_number(app, "--from", from_, "number of the first record, from 0 (of each file)");
    declare_number(app, "--count", count_, "most records that are taken (of each file)");
}

void Record_Filter::declare_contexts(Options &app)
{
    app.add_values("--pid", "PID,...", "only these processes",
                   [this](const std::string &text) { pids_.push_back(parse_number(text, "--pid", UINT32_MAX)); });
    app.add_values("--lpid", "LPID,...", "only these partitions",
                   [this](const std::string &text) { lpids_.push_back(parse_number(text, "--lpid", UINT64_MAX)); });
}

void Record_Filter::declare_choices(Options &app, const Take_Word &take_kind)
{
    declare_contexts(app);
    app.add_values("--pc", "ADDR[-ADDR],...", "only instructions at these addresses (both ends included)",
                   [this](const std::string &text) { pcs_.push_back(parse_range(text)); });
    app.add_values("--data", "ADDR[-ADDR],...", "only accesses to these effective addresses",
                   [this](const std::string &text) { datas_.push_back(parse_range(text)); });
    app.add_values("--real", "ADDR[-ADDR],...", "only accesses to these real addresses",
                   [this](const std::string &text) { reals_.push_back(parse_range(text)); });
    app.add_values("--kind", "KIND,...", fmt::format("only these kinds: {}", fmt::join(kind_names(), ", ")),
                   [this, take_kind](const std::string &text) {
                       if (!take_kind || !take_kind(text))
                           kinds_ |= parse_kind(text);
                   });
    app.add_values("--not", "KIND,...", "none of these kinds",
                   [this](const std::string &text) { not_kinds_ |= parse_kind(text); });
    app.add_values("--word", "WORD[/MASK],...", "only these instruction words; bits outside MASK do not count",
                   [this](const std::string &text) { words_.push_back(parse_word(text)); });
    app.add_values("--register", "REGISTER,...", "only with one of these registers (r10, f1, s8, v2, x34)",
                   [this](const std::string &text) { registers_.push_back(parse_register(text)); });
}

// ---- Matching ------------------------------------------------------------------------------------------

bool Record_Filter::picks() const
{
    return asks_for_context() || !pcs_.empty() || !datas_.empty() || !reals_.empty() || kinds_ != 0 ||
           not_kinds_ != 0 || !words_.empty() || !registers_.empty();
}

bool Record_Filter::rules_out(const QTRACE_FILE_HDR *context) const
{
    if (!asks_for_context())
        return false;
    if (context == nullptr)
        return true;
    const auto lacks = [](const std::vector<uint64_t> &wanted, uint64_t value) {
        return !wanted.empty() && std::ranges::find(wanted, value) == wanted.end();
    };
    return lacks(lpids_, number(context->lpid)) || lacks(pids_, number(context->pid));
}

bool Record_Filter::is_in(const Ranges &ranges, uint64_t value)
{
    return std::ranges::any_of(ranges, [&](const Range &r) { return value >= r.first && value <= r.last; });
}

bool Record_Filter::names(const QTRACE_REGISTERS &registers, const Register &wanted)
{
    for (const Register_Class &kind : REGISTER_CLASSES) {
        const unsigned entries = kind.letter[0] == wanted.letter ? kind.entries(registers) : 0;
        for (unsigned i = 0; i < entries; i++)
            if (register_entry(kind, registers, i).index == wanted.number)
                return true;
    }
    return false;
}

bool Record_Filter::matches_access(const QTRACE_RECORD &record) const
{
    if (datas_.empty() && reals_.empty())
        return true;
    const Translated_Address access = data_address_of(record);
    const std::optional<uint64_t> real = access.real();
    return access.present && (datas_.empty() || is_in(datas_, access.address)) &&
           (reals_.empty() || (real && is_in(reals_, *real)));
}

bool Record_Filter::matches(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) const
{
    const QTRACE_RECORD &record = item.record;
    const uint32_t word = record.header.instruction;
    const auto is_word = [word](const Masked_Word &wanted) { return (word & wanted.mask) == wanted.value; };
    const auto is_named = [&record](const Register &wanted) { return names(record.regs, wanted); };
    if (!pcs_.empty() && !(item.address_known && is_in(pcs_, item.address)))
        return false;
    if ((!words_.empty() && std::ranges::none_of(words_, is_word)) || rules_out(context) || !matches_access(record))
        return false;
    if ((kinds_ | not_kinds_) != 0) {
        const uint32_t kinds = kinds_of(record, item.address);
        if ((kinds_ != 0 && (kinds & kinds_) == 0) || (kinds & not_kinds_) != 0)
            return false;
    }
    return registers_.empty() || std::ranges::any_of(registers_, is_named);
}

} // namespace qtrace_tool
