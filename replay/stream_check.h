// What about a commit stream cannot be right, and what it holds. No plugin is involved.
#pragma once

#include "event_source.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace replay
{

// Keys of an address that a trace plugin asks for, beside those it always asks for (status, mode, guest_mode, host_mode,
// the two-level flags, depths and relocated). For a two-level access `mode` is the one of the instruction's fetch.
std::vector<std::string_view> keys_of_mode(uint32_t mode, bool two_level);

struct Check_Result {
    uint64_t findings;
    bool complete; // the stream was read to its end
};

// Reads `events` to the end. Every finding is a line "NAME: line N: thread T: ..." on `out`, at most ten of a kind, then
// come a line a kind with more of them and a summary.
Check_Result check_stream(Event_Source &events, const std::string &name, std::ostream &out);

} // namespace replay
