#include "header_comment.h"

#include <algorithm>
#include <charconv>

namespace trace
{
namespace
{

constexpr std::string_view PAGE_WORDS[] = {"4K", "16K", "64K",  "128K", "256K", "1M",
                                           "2M", "16M", "256M", "1G",   "16G",  "undefined"};

bool take(std::string_view &text, std::string_view prefix)
{
    if (!text.starts_with(prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

bool take_number(std::string_view &text, int64_t &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{})
        return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

bool take_truth(std::string_view &text, bool &truth)
{
    truth = text.starts_with("True");
    return take(text, truth ? "True" : "False");
}

// Page sizes in the order of the words, each followed by a blank.
bool take_pages(std::string_view &text, std::vector<std::string> &pages)
{
    for (const std::string_view word : PAGE_WORDS)
        if (text.size() > word.size() && text[word.size()] == ' ' && take(text, word)) {
            text.remove_prefix(1);
            pages.emplace_back(word);
        }
    return text.empty() || text.front() == ',';
}

} // namespace

bool parse_comment(std::string_view text, Header_Comment &comment)
{
    comment = {};
    return take(text, "KelvoVer:") && take_number(text, comment.version) && take(text, ",64bitMode:") &&
           take_truth(text, comment.bits64) && take(text, ",LEMode:") && take_truth(text, comment.little_endian) &&
           take(text, ",MemUsed:") && take_number(text, comment.memory) && take(text, ",HostPagesUsed:") &&
           take_pages(text, comment.host_pages) && take(text, ",GuestPagesUsed:") &&
           take_pages(text, comment.guest_pages) && text.empty();
}

} // namespace trace
