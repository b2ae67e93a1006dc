// Where a player's events come from.
#pragma once

#include "host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace replay
{

enum class Event_Kind { machine, context, commit, pre, pte, rtpte };
constexpr size_t EVENT_KINDS = 6;

// The kind as streams spell it.
std::string_view name_of(Event_Kind kind);

// One line of a stream. Which members hold something depends on the kind; the others are left over from before.
struct Stream_Event {
    Event_Kind kind;
    Machine_Shape machine;     // machine
    std::string source;        // machine: where the stream comes from
    Thread_Context context;    // context: the thread's whole state, keys that were absent from earlier lines
    Instruction instruction;   // commit; of the others (not machine) only `tid` is set, the rest answers 0
    std::optional<Cycle> time; // commit: raw time from here on
    PTE_Event_Info pte;        // pte
    RTPTE_Event_Info rtpte;    // rtpte
};

// Why a line was refused.
struct Stream_Error {
    uint64_t line;        // from 1; 0: the stream could not be opened
    std::string key;      // with the keys around it: "data.host_walk"; empty when no key is to blame
    std::string expected; // "expected ...", or why the input cannot be read
    std::string found;    // what stands there, shortened; empty when there is nothing to show
    std::string text() const;
};

class Event_Source
{
public:
    virtual ~Event_Source() = default;

    // The next event, valid until the next call; null at the end, when reading was stopped while it waited, or when
    // something was refused: then error() has the reason, and every further call returns null. The first event is
    // the machine, and the only one; every other event's thread is one of that machine.
    virtual const Stream_Event *next() = 0;

    virtual const std::optional<Stream_Error> &error() const = 0;
    virtual uint64_t line_number() const = 0;               // of the last event, or of the line that was refused
    virtual uint64_t bytes_used() const = 0;                // of the input as it is stored, up to about that line
    virtual std::optional<uint64_t> input_size() const = 0; // unknown for a pipe
};

} // namespace replay
