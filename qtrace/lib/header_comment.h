// The comment of a full file header, taken apart.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trace
{

struct Header_Comment {
    int64_t version = 0; // of the simulator
    bool bits64 = false; // 64-bit mode
    bool little_endian = false;
    int64_t memory = 0;                               // bytes
    std::vector<std::string> host_pages, guest_pages; // sizes in use: "4K", "64K", ...
};

// Takes `text` apart. False when it is not exactly such a comment: every key once, in order, with a value of its
// kind, page sizes in ascending order, nothing after.
bool parse_comment(std::string_view text, Header_Comment &comment);

} // namespace trace
