#include "command_words.h"

#include <algorithm>
#include <numeric>

namespace replay
{

namespace
{

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Takes one word off the front of `rest`.
std::string take_word(std::string_view &rest, std::string &problem)
{
    std::string word;
    char quote = 0;
    while (!rest.empty() && (quote || !is_blank(rest.front()))) {
        const char c = rest.front(); // cppcheck-suppress containerOutOfBounds ; the loop ends on an empty rest
        rest.remove_prefix(1);
        if (quote ? c == quote : c == '\'' || c == '"') {
            quote = quote ? 0 : c;
        } else if (c == '\\' && quote != '\'') {
            if (rest.empty()) {
                problem = "nothing follows the backslash";
                break;
            }
            word += rest.front();
            rest.remove_prefix(1);
        } else {
            word += c;
        }
    }
    if (quote)
        problem = std::string("the ") + (quote == '"' ? "double" : "single") + " quote is not closed";
    return word;
}

// How many characters have to be inserted, removed or replaced.
size_t distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (const char letter : a) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t replaced = diagonal + (letter == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

} // namespace

Command_Words split_words(std::string_view line)
{
    Command_Words result;
    for (;;) {
        while (!line.empty() && is_blank(line.front()))
            line.remove_prefix(1);
        if (line.empty() || line.front() == '#')
            return result;
        result.words.push_back(take_word(line, result.problem));
    }
}

std::string_view nearest_word(std::string_view word, const std::vector<std::string_view> &candidates)
{
    std::string_view nearest;
    size_t least = 3; // farther than that is another word
    for (std::string_view candidate : candidates) {
        const bool begins = word.size() >= 2 && candidate.starts_with(word);
        if (!begins && std::max(word.size(), candidate.size()) - std::min(word.size(), candidate.size()) >= least)
            continue; // at least so many characters have to come or go
        const size_t far = begins ? 1 : distance(word, candidate);
        if (far < least && far < candidate.size()) {
            least = far;
            nearest = candidate;
        }
    }
    return nearest;
}

} // namespace replay
