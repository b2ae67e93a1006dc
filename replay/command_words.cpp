#include "command_words.h"

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
            } else {
                word += rest.front();
                rest.remove_prefix(1);
            }
        } else {
            word += c;
        }
    }
    if (quote)
        problem = std::string("the ") + (quote == '"' ? "double" : "single") + " quote is not closed";
    return word;
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

} // namespace replay
