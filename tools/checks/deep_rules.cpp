#include "deep_rules.h"

#include <fmt/format.h>
#include <limits>

namespace qtrace_tool
{

using namespace trace;

namespace
{

// Number that stands for everything that a translation says; two that differ have different ones.
uint64_t walk_number(const Translation &translation)
{
    const Table_Walk &walk = translation.walk;
    uint64_t number = mixed(walk.steps, translation.real);
    for (size_t step = 0; step < walk.steps; step++) {
        for (const uint64_t entry : walk.host[step])
            number = mixed(number, entry);
        if (step + 1u < walk.steps)
            number = mixed(mixed(number, walk.guest_real[step]), walk.guest_entry[step]);
        else // where in the page the access is does not count
            number = mixed(number, walk.guest_real[step] >> translation.page.bits);
    }
    return number;
}

uint32_t root_number(const Table_Walk &walk)
{
    uint64_t first = 0;
    for (size_t level = 0; first == 0 && level < WALK_LEVELS; level++)
        first = walk.host[0][level];
    return static_cast<uint32_t>(mixed(first, walk.steps > 1 ? walk.guest_real[0] : 0) >> 32);
}

uint64_t page_number(const Tlb_Page &page)
{
    const uint64_t kind = static_cast<uint64_t>(page.kind) << 8 | page.bits;
    return mixed(mixed(mixed(page.first, page.space), page.lpid), kind);
}

// Calls `visit` with each table entry that the walk read, in every space in which stores may name it.
template <class Visitor> void for_each_entry(const Named_Translation &named, Visitor visit)
{
    const Table_Walk &walk = named.translation.walk;
    for (size_t step = 0; step < walk.steps; step++) {
        for (const uint64_t entry : walk.host[step])
            if (entry != 0)
                visit(Memory_Place{Memory_Space::host, 0, entry});
        if (step + 1u == walk.steps)
            break;
        visit(Memory_Place{Memory_Space::host, 0, walk.guest_entry[step]});
        visit(Memory_Place{Memory_Space::guest, named.translation.page.lpid, walk.guest_real[step]});
    }
}

bool agree_below(uint64_t a, uint64_t b, unsigned bits)
{
    return ((a ^ b) & ((uint64_t{1} << bits) - 1)) == 0;
}

uint32_t swapped(uint32_t word)
{
    return __builtin_bswap32(word);
}

bool fails(const QTRACE_RECORD &record)
{
    return record.header.control.fld.trace_error_code_present;
}

} // namespace

Deep_Checker::Deep_Checker(const Page_Sizes &sizes, const Threads_Beside::Place &thread)
    : sizes_(sizes), others_(thread.stores), thread_(thread.thread),
      others_unknown_(thread.stores.others_unknown(thread.thread))
{
}

void Deep_Checker::tell(size_t rule, const Where &where, std::string values)
{
    static const size_t first = rule_number(DEEP_RULES[0].name);
    report_({check_rules()[first + rule], where.record, where.address, where.address_known, where.in_header,
             std::move(values)});
}

// ---- Items ---------------------------------------------------------------------------------------------

void Deep_Checker::header(const QTRACE_Item &item)
{
    const QTRACE_FILE_HDR &header = item.header;
    const Partition_Key partition{number(header.lpid), number(header.pid)};
    if (header.control.iar_is_present) {
        loss(&header);
        const Where where{item.record_number, number(header.iar), true, true};
        const Translated_Address address = first_address_of(header);
        check_real(address, where);
        name(address, where);
    } else if (partition != partition_) {
        partition_ = partition;
        registers_.forget();
        fetch_.known = false;
    }
}

void Deep_Checker::loss(const QTRACE_FILE_HDR *context)
{
    if (context != nullptr)
        partition_ = {number(context->lpid), number(context->pid)};
    registers_.forget();
    forget_memory();
    fetch_.known = pending_.present = false;
}

void Deep_Checker::record(const QTRACE_Item &item)
{
    const QTRACE_RECORD &record = item.record;
    const auto &flags = record.header.control.fld;
    const Where where{item.record_number, item.address, item.address_known != 0, false};
    if (stores_.at_end_of_time())
        forget_memory();
    registers_.record(item, [&](const std::string &what) { tell(REGISTER_FLOW, where, what); });
    if (pending_.present)
        enter();
    if (!others_unknown_)
        check_code(item, where);
    if (flags.data_address_present && !fails(record))
        check_data(record, where);
    follow_stores(record);
    if (flags.next_instruction_EA_present) {
        const Translated_Address next = next_address_of(record);
        check_real(next, where);
        name(next, where);
    }
}

void Deep_Checker::forget_pages()
{
    pages_.clear();
    stores_.forget_entries();
}

void Deep_Checker::forget_code()
{
    codes_.clear();
    stores_.forget_lines();
}

void Deep_Checker::forget_memory()
{
    pages_.clear();
    codes_.clear();
    stores_.forget();
}

// ---- Translations --------------------------------------------------------------------------------------

// The page number of a nested translation is the guest's, so it agrees below the guest's page size.
void Deep_Checker::check_real(const Translated_Address &address, const Where &where)
{
    const std::optional<uint64_t> real = address.real();
    const bool nested = (address.pair().pieces & PIECE_GUEST_PAGE) != 0;
    const uint8_t code = nested ? address.guest_page_size : address.page_size;
    if (!real || (address.pair().pieces & PIECE_RPN) == 0 || !sizes_.knows(code))
        return;
    const bool guest_real = address.pair().walk == Walk_Kind::nested ||
                            (address.pair().walk == Walk_Kind::single && address.guest_depth > 0);
    const uint64_t guest = guest_real ? number(address.guest->GUEST_ra) : address.address;
    checks_[REAL_OF_EFFECTIVE]++;
    if (!agree_below(*real, address.address, sizes_.bits(code)))
        tell(REAL_OF_EFFECTIVE, where,
             fmt::format("{:x} is at {:x}, pages of {}", address.address, *real, sizes_.name(code)));
    else if (!agree_below(guest, address.address, sizes_.bits(code)))
        tell(REAL_OF_EFFECTIVE, where,
             fmt::format("{:x} is at the guest's {:x}, pages of {}", address.address, guest, sizes_.name(code)));
}

uint32_t Deep_Checker::last_store_on(const Named_Translation &named) const
{
    uint32_t last = 0;
    for_each_entry(named, [&](const Memory_Place &entry) {
        last = std::max({last, stores_.entry_time(entry), stores_.doubtful_time(entry)});
    });
    return last;
}

void Deep_Checker::learn_walk(Page &page, const Named_Translation &named)
{
    page.walk = walk_number(named.translation);
    page.root = root_number(named.translation.walk);
    page.learned = page.verified = stores_.now();
    page.shared = false;
    for_each_entry(named, [&](const Memory_Place &entry) {
        stores_.watch_entry(entry);
        page.shared |= others_.others_hit(thread_, entry);
    });
}

// Whether the page's translation is surely the one that was learned, or was learned now.
bool Deep_Checker::check_walk(const Named_Translation &named, const char *what, uint64_t effective,
                              const Where &where)
{
    const uint64_t key = page_number(named.translation.page);
    Page *page = pages_.find(key);
    // with other first entries it is another tree; the entry that names the tree is not in the trace
    if (page != nullptr && page->walk != 0 && page->root == root_number(named.translation.walk))
        return compare_walk(*page, named, what, effective, where);
    if (pages_.is_full() || stores_.entries_full()) {
        forget_pages();
        forgotten_++;
        page = nullptr;
    }
    learn_walk(page != nullptr ? *page : pages_.insert(key), named);
    return true;
}

bool Deep_Checker::compare_walk(Page &page, const Named_Translation &named, const char *what, uint64_t effective,
                                const Where &where)
{
    if (page.shared)
        return false;
    if (stores_.last_entry_time() > page.verified) {
        if (last_store_on(named) > page.learned) // from now on, for a TLB may hold the old entry for long
            return false;
        page.verified = stores_.now();
    }
    checks_[SAME_PAGE_SAME_WALK]++;
    if (page.walk == walk_number(named.translation))
        return true;
    page.walk = 0;
    tell(SAME_PAGE_SAME_WALK, where,
         fmt::format("the {} {:x}, now at {:x}", what, effective,
                     named.translation.real + (effective - named.translation.page.first)));
    return false;
}

// ---- Instructions --------------------------------------------------------------------------------------

void Deep_Checker::name(const Translated_Address &address, const Where &where)
{
    pending_.told = read_translation(address, address.address, sizes_, pending_.named);
    pending_.modes = address.modes;
    pending_.effective = address.address;
    pending_.where = where;
    pending_.present = true;
}

// Uses what was named for this instruction, now that its partition is known.
void Deep_Checker::enter()
{
    pending_.present = fetch_.known = false;
    if (others_unknown_)
        return;
    if (pending_.told == Told::page)
        enter_page();
    else if (pending_.told == Told::untranslated) {
        const Memory_Places places = places_of(pending_.told, pending_.modes, pending_.named, 0);
        fetch_ = {places.place[0].space == Memory_Space::real_mode, 0, std::numeric_limits<uint64_t>::max(), 1,
                  places.place[0]};
    }
}

void Deep_Checker::enter_page()
{
    Named_Translation &named = pending_.named;
    Tlb_Page &page = named.translation.page;
    set_space(page, named.in_guest, partition_);
    // hashed page tables: the entries are not in the trace
    if (page.kind != Xlate_Kind::hash && !check_walk(named, "instruction", pending_.effective, pending_.where))
        return;
    const Memory_Places places = places_of(pending_.told, pending_.modes, named, page.first);
    fetch_ = {places.place[0].space != Memory_Space::unknown, page.first,
              page.first + ((uint64_t{1} << page.bits) - 1),
              mixed(page_number(page), walk_number(named.translation)), places.place[0]};
}

void Deep_Checker::check_code(const QTRACE_Item &item, const Where &where)
{
    if (!fetch_.known || !item.address_known || item.address < fetch_.first || item.address > fetch_.last) {
        fetch_.known = false;
        return;
    }
    const Memory_Place place = fetch_.place.at(fetch_.place.address + (item.address - fetch_.first));
    const uint64_t key = mixed(fetch_.key, item.address);
    if (Code *code = codes_.find(key)) {
        compare_code(*code, place, item.record.header.instruction, where);
        return;
    }
    if (others_.others_hit(thread_, place))
        return;
    if (codes_.is_full() || stores_.lines_full()) {
        forget_code();
        forgotten_++;
    }
    codes_.insert(key) = {item.record.header.instruction, stores_.now()};
    stores_.watch_line(place);
}

// The same bytes are read the other way round by code that runs in both byte orders.
void Deep_Checker::compare_code(Code &code, const Memory_Place &place, uint32_t word, const Where &where)
{
    if (code.word == 0 || stores_.doubtful_time(place) > code.learned) {
        code = {word, stores_.now()};
        return;
    }
    if (stores_.line_time(place) != 0) // from now on, for an instruction cache may hold the old line for long
        return;
    checks_[CODE_UNCHANGED]++;
    if (code.word == word || code.word == swapped(word))
        return;
    tell(CODE_UNCHANGED, where, fmt::format("{:08x}, it was {:08x}", word, code.word));
    code.word = 0;
}

// ---- Data ----------------------------------------------------------------------------------------------

void Deep_Checker::check_data(const QTRACE_RECORD &record, const Where &where)
{
    const Translated_Address address = data_address_of(record);
    check_real(address, where);
    if (others_unknown_ || read_translation(address, address.address, sizes_, data_) != Told::page)
        return;
    Tlb_Page &page = data_.translation.page;
    set_space(page, data_.in_guest, partition_);
    if (page.kind != Xlate_Kind::hash)
        check_walk(data_, "data address", address.address, where);
}

void Deep_Checker::follow_stores(const QTRACE_RECORD &record)
{
    if (others_unknown_)
        return;
    if (stores_anywhere(record))
        stores_.store_anywhere();
    if (const Store store = store_of(record, sizes_, partition_); store.size > 0)
        stores_.store(store);
}

} // namespace qtrace_tool
