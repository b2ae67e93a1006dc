// Reader of commit streams (docs/commit-stream.md): one line of JSON after the other into one event record that is
// used again and again, every key checked before the event is handed out.
#pragma once

#include "host.h"
#include "stream_input.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace replay
{

enum class Event_Kind { machine, context, commit, pre, pte, rtpte };
constexpr size_t EVENT_KINDS = 6;

// The kind as streams spell it.
std::string_view name_of(Event_Kind kind);

// The sizes that are in use, as a stream lists them: "\"64K\",\"2M\"".
std::string page_words(const PAGE_SIZES_USED &pages);

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

class Stream_Reader
{
public:
    // Opens `file` ("-": standard input). A stream that cannot be opened is an error of the first next(). While
    // the reader waits for input, a signal that sets `stop` makes next() return without an error.
    explicit Stream_Reader(const std::string &file, const std::atomic<bool> *stop = nullptr);
    ~Stream_Reader();

    // The next event, valid until the next call; null at the end or when the line was refused, then error() has
    // something. Nothing is read behind a refused line. The first event is the machine, and the only one.
    const Stream_Event *next();

    const std::optional<Stream_Error> &error() const { return error_; }
    uint64_t line_number() const;               // of the last line looked at
    uint64_t bytes_used() const;                // of the input as it is stored, up to about that line
    std::optional<uint64_t> input_size() const; // unknown for a pipe

private:
    struct Parser;
    const Stream_Event *read_line();
    const Stream_Event *end();
    void refuse_line(const std::string &expected, const std::string &found);

    std::unique_ptr<Line_Source> lines_;
    std::unique_ptr<Parser> parser_;
    std::optional<Stream_Error> error_;
};

} // namespace replay
