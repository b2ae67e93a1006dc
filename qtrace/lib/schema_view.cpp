// The record schema and the instruction kinds as C programs read them.
#include "instruction_kinds.h"
#include "record_rows.h"

using namespace trace;

namespace
{

QTRACE_Member view_of(const Trace_Member &row)
{
    return {row.name.data(),
            GROUPS[static_cast<size_t>(row.group)].name.data(),
            row.offset,
            row.size,
            static_cast<QTRACE_SHAPE>(row.shape),
            row.gate.control,
            row.gate.file};
}

QTRACE_Flag view_of(const Trace_Flag &row)
{
    return {row.name.data(), row.mask(), row.bit, row.width, static_cast<QTRACE_FLAG_ROLE>(row.role)};
}

QTRACE_Register_List view_of(const Register_Class &row)
{
    return {row.name.data(),
            row.letter.data(),
            row.output,
            row.count,
            row.capacity,
            row.array,
            static_cast<uint16_t>(row.entry_size()),
            row.words};
}

// A view of as many rows as the table has; built by the first call.
template <class View, const auto &ROWS> const View *table(size_t *count)
{
    static const auto views = [] {
        std::array<View, std::size(ROWS)> made{};
        std::ranges::transform(ROWS, made.begin(), [](const auto &row) { return view_of(row); });
        return made;
    }();
    *count = views.size();
    return views.data();
}

} // namespace

const QTRACE_Member *qtrace_record_members(size_t *count)
{
    return table<QTRACE_Member, rows::RECORD_ROWS>(count);
}

const QTRACE_Member *qtrace_header_members(size_t *count)
{
    return table<QTRACE_Member, rows::HEADER_ROWS>(count);
}

const QTRACE_Flag *qtrace_control_flags(size_t *count)
{
    return table<QTRACE_Flag, rows::CONTROL_TABLE>(count);
}

const QTRACE_Flag *qtrace_file_flags(size_t *count)
{
    return table<QTRACE_Flag, rows::FILE_TABLE>(count);
}

const QTRACE_Register_List *qtrace_register_lists(size_t *count)
{
    return table<QTRACE_Register_List, rows::REGISTER_ROWS>(count);
}

uint32_t qtrace_kinds(const QTRACE_Item *item)
{
    return item->kind == QTRACE_ITEM_RECORD ? kinds_of(item->record, item->address) : 0;
}

const char *qtrace_kind_name(uint32_t kind)
{
    const auto row = std::ranges::find(KINDS, kind, [](const Kind_Name &name) -> uint32_t { return name.kind; });
    return row == KINDS.end() ? nullptr : row->name.data();
}
