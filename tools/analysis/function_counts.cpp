#include "function_counts.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace qtrace_tool
{

void Function_Counts::add(const QTRACE_Item &item, const QTRACE_FILE_HDR *context)
{
    finder_.enter(context);
    const Symbol *const symbol = item.address_known ? finder_.find(item.address) : nullptr;
    if (last_count_ == nullptr || symbol != last_) {
        last_ = symbol;
        last_count_ = &counts_[symbol];
    }
    ++*last_count_;
}

void Function_Counts::add(const Function_Counts &other)
{
    for (const auto &[symbol, count] : other.counts_)
        counts_[symbol] += count;
}

std::vector<std::pair<const Symbol *, uint64_t>> Function_Counts::top(size_t count) const
{
    // symbols of several processes may begin at one address
    const auto place = [](const Symbol *symbol) {
        return symbol == nullptr ? std::pair(uint64_t{0}, std::string_view())
                                 : std::pair(symbol->first, std::string_view(symbol->name));
    };
    std::vector<std::pair<const Symbol *, uint64_t>> sorted(counts_.begin(), counts_.end());
    std::ranges::sort(sorted, [place](const auto &a, const auto &b) {
        return a.second != b.second ? a.second > b.second : place(a.first) < place(b.first);
    });
    sorted.resize(std::min(count, sorted.size()));
    return sorted;
}

} // namespace qtrace_tool
