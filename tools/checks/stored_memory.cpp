#include "stored_memory.h"

#include "instruction_kinds.h"
#include "instruction_word.h"

#include <limits>

namespace qtrace_tool
{

using namespace trace;

namespace
{

uint64_t within(const Tlb_Page &page, uint64_t effective)
{
    return effective - page.first;
}

// ---- What an instruction stores ------------------------------------------------------------------------

bool clears_block(uint32_t word)
{
    return primary_opcode(word) == 31 && extended_opcode(word) == 1014;
}

// Several registers or a string: up to 128 bytes.
bool stores_many(uint32_t word)
{
    return primary_opcode(word) == 47 ||
           (primary_opcode(word) == 31 && (extended_opcode(word) == 661 || extended_opcode(word) == 725));
}

constexpr uint32_t PAIRED_VECTORS = 6; // primary opcode; bit 0 tells stores from loads

bool is_store(uint32_t word)
{
    return instruction_info(word).kind == Instruction_Kind::store ||
           (primary_opcode(word) == PAIRED_VECTORS && (word & 1) != 0) || clears_block(word);
}

struct Reach {
    uint64_t first, size;
};

// The bytes that the instruction may write; vector stores align their address.
Reach reach_of(const QTRACE_RECORD &record)
{
    constexpr uint64_t BLOCK = 128, WIDEST = 32, ALIGNED = 16;
    const uint32_t word = record.header.instruction;
    const uint64_t effective = number(record.data_ea);
    if (clears_block(word))
        return {effective & ~(BLOCK - 1), BLOCK};
    if (stores_many(word))
        return {effective, record.header.control.fld.length_present ? std::max<uint64_t>(record.length, 1) : BLOCK};
    const uint64_t first = effective & ~(ALIGNED - 1);
    return {first, (primary_opcode(word) == PAIRED_VECTORS ? WIDEST : ALIGNED) + (effective - first)};
}

} // namespace

Memory_Places places_of(Told told, const Mode_Pair &modes, const Named_Translation &named, uint64_t effective)
{
    Memory_Places places;
    const Translation &translation = named.translation;
    const Tlb_Page &page = translation.page;
    if (told == Told::untranslated && modes.guest == MODE_NONE) {
        places.add({Memory_Space::real_mode, 0, effective});
        return places;
    }
    if (told != Told::page || (page.kind == Xlate_Kind::hash && named.in_guest)) {
        places.add({Memory_Space::unknown, 0, effective});
        return places;
    }
    const uint64_t offset = within(page, effective);
    if (page.kind == Xlate_Kind::nested)
        places.add({Memory_Space::guest, page.lpid, translation.real + offset});
    if (page.kind == Xlate_Kind::guest_real)
        places.add(
            {Memory_Space::guest, page.lpid, (translation.walk.guest_real[0] >> page.bits << page.bits) + offset});
    if (page.kind != Xlate_Kind::nested)
        places.add({Memory_Space::host, 0, translation.real + offset});
    return places;
}

static bool has_store(const QTRACE_RECORD &record)
{
    return is_store(record.header.instruction) && !record.header.control.fld.trace_error_code_present;
}

bool stores_anywhere(const QTRACE_RECORD &record)
{
    return !record.header.control.fld.data_address_present && has_store(record);
}

Store store_of(const QTRACE_RECORD &record, const Page_Sizes &sizes, const Partition_Key &partition)
{
    if (!record.header.control.fld.data_address_present || !has_store(record))
        return {};
    const Reach reach = reach_of(record);
    const Translated_Address address = data_address_of(record);
    Named_Translation named;
    const Told told = read_translation(address, number(record.data_ea), sizes, named);
    uint64_t room = std::numeric_limits<uint64_t>::max();
    if (told == Told::page) {
        set_space(named.translation.page, named.in_guest, partition);
        room = (uint64_t{1} << named.translation.page.bits) - within(named.translation.page, reach.first);
    }
    return {places_of(told, address.modes, named, reach.first), reach.size, room};
}

// ---- Of one thread, with times -------------------------------------------------------------------------

uint64_t Stored_Memory::key_of(const Memory_Place &place, uint64_t step)
{
    return mixed(mixed(static_cast<uint64_t>(place.space), place.lpid), place.address & ~(step - 1));
}

size_t Stored_Memory::page_bit(const Memory_Place &place)
{
    return mixed(static_cast<uint64_t>(place.space), place.address >> 12) % FILTER;
}

void Stored_Memory::watch(Table &table, const Memory_Place &place, uint64_t step)
{
    const uint64_t key = key_of(place, step);
    if (table.find(key) != nullptr)
        return;
    table.insert(key);
    watched_[page_bit(place)] = true;
}

uint32_t Stored_Memory::time_in(const Table &table, const Memory_Place &place, uint64_t step)
{
    const uint32_t *time = table.find(key_of(place, step));
    return time != nullptr ? *time : 0;
}

void Stored_Memory::store(const Store &store)
{
    now_++;
    store.for_each(ENTRY, [this](const Memory_Place &place) { store_to(place); });
}

void Stored_Memory::store_to(const Memory_Place &place)
{
    by_offset_[static_cast<size_t>(place.space)][offset_of(place)] = now_;
    if (place.space == Memory_Space::real_mode || place.space == Memory_Space::unknown)
        last_entry_ = now_;
    if (!watched_[page_bit(place)])
        return;
    if (uint32_t *time = entries_.find(key_of(place, ENTRY)))
        *time = last_entry_ = now_;
    if (uint32_t *time = lines_.find(key_of(place, LINE)))
        *time = now_;
}

// A guest's stores go to its own memory, which its table entries and its code are watched in.
uint32_t Stored_Memory::doubtful_time(const Memory_Place &place) const
{
    const size_t offset = offset_of(place);
    const auto time_of = [&](Memory_Space space) { return by_offset_[static_cast<size_t>(space)][offset]; };
    uint32_t time = std::max({anywhere_, time_of(Memory_Space::real_mode), time_of(Memory_Space::unknown)});
    if (place.space != Memory_Space::host)
        time = std::max(time, time_of(Memory_Space::host));
    return time;
}

void Stored_Memory::forget()
{
    entries_.clear();
    lines_.clear();
    watched_.assign(FILTER, false);
    by_offset_ = {};
    now_ = anywhere_ = last_entry_ = 0;
}

// ---- Of several threads --------------------------------------------------------------------------------

size_t Thread_Stores::add_thread()
{
    lost_.push_back(false);
    offsets_.emplace_back();
    partition_ = {};
    return lost_.size() - 1;
}

void Thread_Stores::header(const QTRACE_FILE_HDR &header)
{
    partition_ = {number(header.lpid), number(header.pid)};
}

void Thread_Stores::record(const QTRACE_RECORD &record, const Page_Sizes &sizes)
{
    if (stores_anywhere(record))
        lose();
    store_of(record, sizes, partition_).for_each(Stored_Memory::LINE, [this](const Memory_Place &place) {
        add(place);
    });
}

uint64_t Thread_Stores::key_of(const Memory_Place &place)
{
    return mixed(mixed(static_cast<uint64_t>(place.space), place.lpid), place.address >> 12);
}

void Thread_Stores::add(const Memory_Place &place)
{
    const auto thread = static_cast<uint32_t>(lost_.size() - 1);
    offsets_[thread].lines[static_cast<size_t>(place.space)] |= line_bit(place);
    Page_Lines *page = pages_.find(key_of(place));
    if (page == nullptr) {
        full_ = pages_.is_full();
        if (full_)
            return;
        page = &pages_.insert(key_of(place));
        page->thread = thread;
    }
    page->lines |= line_bit(place);
    if (page->thread != thread)
        page->thread = SEVERAL;
}

bool Thread_Stores::others_unknown(size_t thread) const
{
    bool unknown = full_ && lost_.size() > 1;
    for (size_t other = 0; other < lost_.size(); other++)
        unknown |= other != thread && lost_[other];
    return unknown;
}

bool Thread_Stores::others_hit(size_t thread, const Memory_Place &place) const
{
    if (lost_.size() < 2)
        return false;
    uint64_t doubtful = 0;
    for (size_t other = 0; other < lost_.size(); other++)
        for (const Memory_Space space : {Memory_Space::host, Memory_Space::real_mode, Memory_Space::unknown})
            if (other != thread && space != place.space)
                doubtful |= offsets_[other].lines[static_cast<size_t>(space)];
    if (place.space == Memory_Space::real_mode)
        doubtful = ~uint64_t{0};
    const Page_Lines *page = pages_.find(key_of(place));
    const uint64_t exact = page != nullptr && page->thread != thread ? page->lines : 0;
    return ((exact | doubtful) & line_bit(place)) != 0;
}

} // namespace qtrace_tool
