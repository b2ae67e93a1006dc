// The words of a console line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace replay
{

struct Command_Words {
    std::vector<std::string> words; // empty: a blank line or a comment
    std::string problem;            // why the line cannot be split; empty when it could
};

// Splits at blanks. 'single' and "double" quotes hold words with blanks together and may stand anywhere in a word;
// a backslash takes the next character as it is, except between single quotes. A word that begins with # ends the
// line.
Command_Words split_words(std::string_view line);

} // namespace replay
