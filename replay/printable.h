// Text from files and users, made safe for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace replay
{

// `text` with a question mark in the place of every control character but those in `kept`: an escape sequence of a
// hostile stream must not reach the terminal.
std::string printable(std::string_view text, std::string_view kept = {});

} // namespace replay
