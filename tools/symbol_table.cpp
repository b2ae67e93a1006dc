#include "symbol_table.h"

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>

namespace qtrace_tool
{
namespace
{

constexpr uint64_t LAST_ADDRESS = std::numeric_limits<uint64_t>::max();

// The one that names an address comes after those that it hides.
bool comes_before(const Symbol &a, const Symbol &b)
{
    return std::tuple(a.first, LAST_ADDRESS - a.last, 255 - a.rank) <
           std::tuple(b.first, LAST_ADDRESS - b.last, 255 - b.rank);
}

} // namespace

Symbol_Table::Symbol_Table(std::vector<Symbol> symbols) : symbols_(std::move(symbols))
{
    std::ranges::reverse(symbols_); // among equals the first one given shall be the last one here
    std::ranges::stable_sort(symbols_, comes_before);
    for (const Symbol &symbol : symbols_) {
        cover_before(symbol.first, true);
        unfinished_.push_back(&symbol);
        position_ = symbol.first;
    }
    cover_before(0, false);
}

void Symbol_Table::cover(uint64_t first, uint64_t last, const Symbol &symbol)
{
    ranges_.push_back({first, last, &symbol});
}

// Gives what lies before `end` (or everything when nothing ends) to the symbols that were begun.
void Symbol_Table::cover_before(uint64_t end, bool ends)
{
    while (!unfinished_.empty() && (!ends || position_ < end)) {
        const Symbol &innermost = *unfinished_.back();
        if (ends && innermost.last >= end) {
            cover(position_, end - 1, innermost);
            return;
        }
        unfinished_.pop_back();
        if (innermost.last < position_)
            continue;
        cover(position_, innermost.last, innermost);
        if (innermost.last == LAST_ADDRESS)
            return unfinished_.clear();
        position_ = innermost.last + 1;
    }
}

Named_Range Symbol_Table::range_of(uint64_t address) const
{
    const auto after = std::ranges::upper_bound(ranges_, address, {}, &Named_Range::first);
    const uint64_t last = after == ranges_.end() ? LAST_ADDRESS : after->first - 1;
    if (after == ranges_.begin())
        return {0, last, nullptr};
    const Named_Range &before = *std::prev(after);
    return before.contains(address) ? before : Named_Range{before.last + 1, last, nullptr};
}

} // namespace qtrace_tool
