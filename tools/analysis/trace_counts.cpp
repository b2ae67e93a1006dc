#include "trace_counts.h"

#include "instruction_kinds.h"

#include <algorithm>
#include <array>
#include <bit>
#include <fmt/format.h>
#include <functional>
#include <optional>
#include <type_traits>

namespace qtrace_tool
{

using namespace trace;

// ---- Frequent keys -------------------------------------------------------------------------------------

void Frequent_Keys::add(uint64_t key, uint64_t times)
{
    const auto found = counts_.find(key);
    if (found != counts_.end()) {
        found->second += times;
        return;
    }
    while (counts_.size() >= CAPACITY)
        make_room();
    counts_.emplace(key, times);
}

// Every count gives up as much as the smallest has, so that what remains stays the same for all.
void Frequent_Keys::make_room()
{
    const auto smaller = [](const auto &a, const auto &b) { return a.second < b.second; };
    give_up(std::ranges::min_element(counts_, smaller)->second);
}

// Too many keys together: every count gives up as much as the first one beyond the capacity has.
void Frequent_Keys::add(const Frequent_Keys &other)
{
    for (const auto &[key, count] : other.counts_)
        counts_[key] += count;
    shortfall_ += other.shortfall_;
    if (counts_.size() <= CAPACITY)
        return;
    std::vector<uint64_t> counts;
    for (const auto &[key, count] : counts_)
        counts.push_back(count);
    std::ranges::nth_element(counts, counts.begin() + CAPACITY, std::ranges::greater());
    give_up(counts[CAPACITY]);
}

void Frequent_Keys::give_up(uint64_t amount)
{
    shortfall_ += amount;
    for (auto entry = counts_.begin(); entry != counts_.end();) {
        entry->second -= std::min(entry->second, amount);
        entry = entry->second == 0 ? counts_.erase(entry) : std::next(entry);
    }
}

std::vector<std::pair<uint64_t, uint64_t>> Frequent_Keys::top(size_t count) const
{
    std::vector<std::pair<uint64_t, uint64_t>> keys(counts_.begin(), counts_.end());
    std::ranges::sort(keys, [](const auto &a, const auto &b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    });
    keys.resize(std::min(count, keys.size()));
    return keys;
}

// ---- Pages ---------------------------------------------------------------------------------------------

size_t Page_Hash::operator()(const Page &page) const noexcept
{
    return (page.first ^ page.guest << 56 ^ page.size_code) * 0x9E3779B97F4A7C15u >> 7;
}

std::string Page_Sizes::name(uint8_t code) const
{
    static constexpr char UNITS[] = {'K', 'M', 'G', 'T'};
    if (code >= bits_.size() || bits_[code] < 10 || bits_[code] >= 50)
        return fmt::format("code {}", code);
    return fmt::format("{}{}", 1u << bits_[code] % 10, UNITS[bits_[code] / 10 - 1]);
}

Page Trace_Counts::page_of(const Translated_Address &address) const
{
    const unsigned bits = sizes_.bits(address.page_size);
    const uint64_t real = address.real_page();
    const bool nested = address.pair().walk == Walk_Kind::nested;
    return {real >> bits << bits, nested ? partition_.lpid + 1 : 0, address.page_size};
}

Page_Use &Page_Use::operator+=(const Page_Use &other)
{
    fetches += other.fetches;
    fetched |= other.fetched;
    accesses += other.accesses;
    return *this;
}

static Page_Use fetches_of(uint64_t times)
{
    Page_Use use;
    use.fetches = times & UINT64_MAX >> 1;
    use.fetched = 1;
    return use;
}

static Page_Use accesses_of(uint64_t times)
{
    Page_Use use;
    use.accesses = times;
    return use;
}

void Trace_Counts::use_page(const Page &page, const Page_Use &use)
{
    if (!with_pages_)
        return;
    (use.fetched ? fetched_codes_ : data_codes_).set(page.size_code);
    pages_.add(page, use);
}

void Trace_Counts::add_current_pages(const Trace_Counts &from)
{
    if (from.fetch_.named)
        use_page(from.fetch_.page, fetches_of(from.fetches_));
    if (from.data_accesses_ > 0)
        use_page(from.last_data_page_, accesses_of(from.data_accesses_));
}

// `times` of a use is how often the side used the page; nothing when it did not.
template <class Times>
static Side_Pages side_of(const Page_Uses &pages, const Size_Codes &codes, size_t top, Times times)
{
    Side_Pages side;
    for (const auto &[page, use] : pages.sample())
        if (times(use))
            side.counts[page.size_code]++;
    for (size_t code = 0; code < codes.size(); code++)
        if (codes[code]) {
            uint64_t &count = side.counts[static_cast<uint8_t>(code)];
            count = std::max<uint64_t>(1, count << pages.shift()); // the sample may have none of a few pages
        }
    const auto hotter = [](const auto &a, const auto &b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    };
    for (const auto &[page, use] : pages.heaviest())
        if (const auto uses = times(use)) {
            side.hottest.emplace_back(page, *uses);
            std::ranges::push_heap(side.hottest, hotter);
            if (side.hottest.size() > top) {
                std::ranges::pop_heap(side.hottest, hotter); // the coldest of them stands first
                side.hottest.pop_back();
            }
        }
    std::ranges::sort_heap(side.hottest, hotter);
    return side;
}

void Trace_Counts::finish_pages(size_t top)
{
    using Times = std::optional<uint64_t>;
    add_current_pages(*this);
    touched.fetched = side_of(pages_, fetched_codes_, top,
                              [](const Page_Use &use) { return use.fetched ? Times(use.fetches) : Times(); });
    touched.data = side_of(pages_, data_codes_, top,
                           [](const Page_Use &use) { return use.accesses > 0 ? Times(use.accesses) : Times(); });
    touched.estimated = pages_.is_estimate();
    touched.shortfall = pages_.shortfall();
    pages_ = Page_Uses();
}

// ---- Where instructions are fetched from ---------------------------------------------------------------

void Trace_Counts::enter(const Fetch &fetch)
{
    fetch_told_ = true;
    if (fetch_.named && !(fetch.named && fetch.page == fetch_.page)) {
        use_page(fetch_.page, fetches_of(fetches_));
        fetches_ = 0;
    }
    fetch_ = fetch;
}

void Trace_Counts::enter(const Translated_Address &address, uint64_t effective)
{
    Fetch fetch{address.modes.index(), (address.pieces & PIECE_RPN) != 0, {}, 0, 0};
    if (fetch.named) {
        fetch.mask = ~uint64_t{0} << sizes_.bits(address.page_size);
        fetch.first = effective & fetch.mask;
        fetch.page = page_of(address);
    }
    enter(fetch);
}

void Trace_Counts::set_partition(const QTRACE_FILE_HDR *header)
{
    partition_ = header != nullptr ? Partition{number(header->lpid), number(header->pid)} : Partition{0, 0};
    partition_count_ = header != nullptr ? &partitions[partition_] : nullptr;
}

void Trace_Counts::begin(const QTRACE_FILE_HDR *context)
{
    fetch_told_ = false;
    set_partition(context);
}

void Trace_Counts::loss(const QTRACE_FILE_HDR *context)
{
    enter(Fetch{});
    set_partition(context);
}

void Trace_Counts::header(const QTRACE_FILE_HDR &header)
{
    const bool full = header.control.iar_is_present;
    (full ? full_headers : partition_headers)++;
    set_partition(&header);
    if (full)
        enter(first_address_of(header), number(header.iar));
}

void Trace_Counts::count_fetch(uint64_t address)
{
    if (!fetch_told_) {
        if (before_told_.empty() || address != before_told_.back().first + 4 * before_told_.back().count)
            before_told_.push_back({address, 0});
        before_told_.back().count++;
        return;
    }
    fetch_cases[fetch_.mode_case]++;
    if (fetch_.named && (address & fetch_.mask) == fetch_.first)
        fetches_++;
    else
        unnamed_fetches++;
}

void Trace_Counts::count_fetches(const Run &run)
{
    if (!fetch_told_)
        before_told_.push_back(run);
    for (uint64_t i = 0; i < run.count && fetch_told_; i++)
        count_fetch(run.first + 4 * i);
}

void Trace_Counts::append(const Trace_Counts &next)
{
    for (const Run &run : next.before_told_)
        count_fetches(run);
    add(next);
    if (next.fetch_told_)
        enter(next.fetch_);
}

// ---- Items ---------------------------------------------------------------------------------------------

void Trace_Counts::count_branch(const QTRACE_Item &item)
{
    const uint64_t next = number(item.record.next_instruction_ea);
    switch (branch_outcome(item.record, item.address)) {
    case Branch_Outcome::no_branch:
        other_jumps += item.record.header.control.fld.iar_change_present;
        break;
    case Branch_Outcome::undecided:
        undecided++;
        break;
    case Branch_Outcome::not_taken:
        not_taken++;
        break;
    case Branch_Outcome::taken:
        taken++;
        targets.add(next);
        break;
    case Branch_Outcome::unconditional:
        unconditional++;
        targets.add(next);
        break;
    }
}

void Trace_Counts::count_data(const QTRACE_RECORD &record)
{
    const auto &flags = record.header.control.fld;
    data_addresses++;
    data_errors += flags.trace_error_code_present;
    const Translated_Address address = data_address_of(record);
    data_cases[address.modes.index()]++;
    if ((address.pieces & PIECE_RPN) == 0)
        return;
    const Page page = page_of(address);
    if (data_accesses_ > 0 && !(page == last_data_page_)) {
        use_page(last_data_page_, accesses_of(data_accesses_));
        data_accesses_ = 0;
    }
    last_data_page_ = page;
    data_accesses_++;
}

static uint64_t filled_words(const uint8_t *bytes, size_t size)
{
    uint64_t words = 0;
    for (size_t i = 0; i + sizeof(uint64_t) <= size; i += sizeof(uint64_t))
        words += !is_zero(bytes + i, sizeof(uint64_t));
    return words;
}

static uint64_t bytes_of(const Trace_Member &member, const QTRACE_RECORD &record)
{
    switch (member.shape) {
    case Member_Shape::registers: {
        uint64_t bytes = 0;
        for (const Register_Class &kind : REGISTER_CLASSES)
            bytes += kind.entries(record.regs) * (sizeof(uint16_t) + kind.words * sizeof(uint64_t));
        return bytes;
    }
    case Member_Shape::host_walks:
    case Member_Shape::host_addresses:
    case Member_Shape::guest_walk:
        return filled_words(member.at(record), member.size) * sizeof(uint64_t);
    default:
        return member.size;
    }
}

void Trace_Counts::count_members(const QTRACE_RECORD &record, const Flag_Words &flags)
{
    group_bytes[static_cast<size_t>(Field_Group::instruction)] += sizeof(record.header.instruction);
    group_bytes[static_cast<size_t>(Field_Group::flags)] += sizeof(record.header.control);
    gated_by(flags).for_each([&](size_t row) {
        const Trace_Member &member = RECORD_MEMBERS[row];
        group_bytes[static_cast<size_t>(member.group)] += bytes_of(member, record);
    });
    if (record.header.control.fld.register_trace_present)
        for (size_t i = 0; i < REGISTER_CLASSES.size(); i++)
            registers[i] += REGISTER_CLASSES[i].entries(record.regs);
}

void Trace_Counts::record(const QTRACE_Item &item)
{
    const QTRACE_RECORD &record = item.record;
    const auto &flags = record.header.control.fld;
    instructions++;
    if (partition_count_ != nullptr)
        (*partition_count_)++;
    count_fetch(item.address);
    count_branch(item);
    const Instruction_Info info = instruction_info(record.header.instruction);
    loads += info.kind == Instruction_Kind::load;
    stores += info.kind == Instruction_Kind::store;
    cache += info.kind == Instruction_Kind::cache;
    strings += info.string || flags.length_present;
    string_bytes += flags.length_present ? record.length : 0;
    if (flags.data_address_present)
        count_data(record);
    count_members(record, flags_of(record));
    if (flags.next_instruction_EA_present)
        enter(next_address_of(record), number(record.next_instruction_ea));
}

// The sums are nothing but numbers: none can be left out here.
void Trace_Sums::add(const Trace_Sums &other)
{
    static_assert(std::has_unique_object_representations_v<Trace_Sums> && alignof(Trace_Sums) == sizeof(uint64_t));
    using Numbers = std::array<uint64_t, sizeof(Trace_Sums) / sizeof(uint64_t)>;
    auto sums = std::bit_cast<Numbers>(*this);
    const auto others = std::bit_cast<Numbers>(other);
    for (size_t i = 0; i < sums.size(); i++)
        sums[i] += others[i];
    *this = std::bit_cast<Trace_Sums>(sums);
}

void Trace_Counts::add(const Trace_Counts &other)
{
    Trace_Sums::add(other);
    for (const auto &[key, count] : other.partitions)
        partitions[key] += count;
    fetched_codes_ |= other.fetched_codes_;
    data_codes_ |= other.data_codes_;
    pages_.add(other.pages_);
    add_current_pages(other);
    targets.add(other.targets);
}

} // namespace qtrace_tool
