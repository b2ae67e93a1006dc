// Text of unknown origin on the way out: as JSON strings, and so that a terminal interprets nothing of it.
#pragma once

#include "tool_output.h"

namespace qtrace_tool
{

// `text` (UTF-8; a byte that is not becomes the character of its number) as a JSON string, quotes included.
void print_json_text(Output &out, std::string_view text);
// Bytes of any meaning as a JSON string: each one character.
void print_json_bytes(Output &out, std::string_view bytes);
// `text` (UTF-8) as it is, but control characters and other bytes as \xNN: nothing that a terminal interprets.
void print_visible(Output &out, std::string_view text);

} // namespace qtrace_tool
