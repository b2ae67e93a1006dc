// Reader of commit streams (docs/commit-stream.md): one line of JSON after the other into one event record that is
// used again and again, every key checked before the event is handed out.
#pragma once

#include "event_source.h"
#include "stream_input.h"

#include <memory>
#include <string>

namespace replay
{

class Stream_Reader : public Event_Source
{
public:
    // Opens `file` ("-": standard input). A stream that cannot be opened is an error of the first next(). While
    // the reader waits for input, `stop` (which may be null) makes next() return without an error.
    explicit Stream_Reader(const std::string &file, const Stop_Request *stop = nullptr);
    ~Stream_Reader() override;

    const Stream_Event *next() override;

    // The same into an event of the caller, which no other call touches; false in the place of null. A reader gets all
    // of its events into the same place or each into another.
    bool next(Stream_Event &to);

    // Null was returned because the stream ended.
    bool at_end() const { return at_end_; }

    // The next event may have to wait for input.
    bool may_wait() { return !lines_ || !lines_->line_at_hand(); }

    const std::optional<Stream_Error> &error() const override { return error_; }
    uint64_t line_number() const override;
    uint64_t bytes_used() const override;
    std::optional<uint64_t> input_size() const override;

private:
    struct Parser;
    bool read_line(Stream_Event &to);
    void end();
    void refuse_line(const std::string &expected, const std::string &found);

    const Stop_Request *stop_;
    std::unique_ptr<Line_Source> lines_;
    std::unique_ptr<Parser> parser_;
    std::unique_ptr<Stream_Event> event_; // of next() without a place for it
    std::optional<Stream_Error> error_;
    bool at_end_ = false;
};

} // namespace replay
