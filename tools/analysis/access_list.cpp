#include "access_list.h"

#include <algorithm>

namespace qtrace_tool
{
namespace
{

using trace::number;
using trace::Translated_Address;

// What is beyond the steps of a walk means nothing.
bool is_same(const Table_Walk &a, const Table_Walk &b)
{
    const size_t entries = a.steps == 0 ? 0 : a.steps - 1;
    return a.steps == b.steps && std::equal(a.host[0], a.host[a.steps], b.host[0]) &&
           std::equal(a.guest_real, a.guest_real + a.steps, b.guest_real) &&
           std::equal(a.guest_entry, a.guest_entry + entries, b.guest_entry);
}

bool is_same(const Named_Translation &a, const Named_Translation &b)
{
    return a.in_guest == b.in_guest && a.translation.page == b.translation.page &&
           a.translation.real == b.translation.real && is_same(a.translation.walk, b.translation.walk);
}

} // namespace

// A page that is named again in the same way gets the number that it has.
uint32_t Access_List::number_of_read()
{
    const Translation &translation = read_.translation;
    const uint64_t hash = (translation.page.first ^ translation.real << 32) * 0x9E3779B97F4A7C15u >> 54;
    uint32_t &last = numbers_[hash];
    if (last == NOT_TOLD || !is_same(translations_[last], read_)) {
        last = static_cast<uint32_t>(translations_.size());
        translations_.push_back(read_);
    }
    return last;
}

uint32_t Access_List::code_of(const Translated_Address &address, uint64_t effective)
{
    read_.translation.page.space = 0; // set by some kinds alone
    switch (read_translation(address, effective, sizes_, read_)) {
    case Told::page:
        return number_of_read();
    case Told::untranslated:
        return UNTRANSLATED;
    default:
        return NOT_TOLD;
    }
}

Access_Entry &Access_List::record(const QTRACE_Item &item)
{
    const QTRACE_RECORD &record = item.record;
    const auto &flags = record.header.control.fld;
    Access_Entry &entry = entries_.emplace_back(Access_Entry{item.record_number, item.address});
    entry.known = item.address_known;
    if (flags.data_address_present) {
        entry.data_address = number(record.data_ea);
        entry.data = flags.trace_error_code_present ? uint32_t{SUSPECT}
                                                    : code_of(trace::data_address_of(record), entry.data_address);
    }
    if (flags.next_instruction_EA_present)
        entry.next = code_of(trace::next_address_of(record), number(record.next_instruction_ea));
    return entry;
}

void Access_List::header(const QTRACE_Item &item)
{
    const QTRACE_FILE_HDR &header = item.header;
    Access_Entry &entry =
        entries_.emplace_back(Access_Entry{item.record_number, number(header.lpid), number(header.pid)});
    entry.kind = Access_Entry::Kind::header;
    entry.known = true;
    if (header.control.iar_is_present)
        entry.next = code_of(trace::first_address_of(header), number(header.iar));
}

void Access_List::clear()
{
    entries_.clear();
    translations_.clear();
    numbers_.fill(NOT_TOLD);
}

void Access_List::loss(uint64_t next, const QTRACE_FILE_HDR *context)
{
    Access_Entry &entry = entries_.emplace_back(Access_Entry{next});
    entry.kind = Access_Entry::Kind::loss;
    entry.known = context != nullptr;
    if (context == nullptr)
        return;
    entry.address = number(context->lpid);
    entry.data_address = number(context->pid);
}

} // namespace qtrace_tool
