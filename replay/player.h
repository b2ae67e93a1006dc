// Plays a commit stream into a loaded plugin: the host's state moves with the stream, events reach the plugin.
// Tests and benchmarks use this in-process; the console is a user interface over it.
#pragma once

#include "plugin_module.h"
#include "stream_reader.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>

namespace replay
{

class Player
{
public:
    static constexpr uint64_t ALL = std::numeric_limits<uint64_t>::max();

    enum class End { limit, end_of_stream, refused_input, stopped };

    // Opens the stream ("-": standard input), reads its first line and makes replay::host() that machine. When that
    // fails error() says why, and run() delivers nothing. One player at a time: there is one host.
    explicit Player(const std::string &file);
    ~Player(); // unloads the plugin, which closes an open session

    // Delivers at most `limit` events: commits and the other events, not counting context lines. The raw time is
    // moved before each commit. Without a plugin events go nowhere, but state and time move all the same.
    End run(uint64_t limit = ALL);

    // Makes the present or next run() return before its next event, also when it waits for input; can be called
    // from a signal handler. A run that it stopped can be gone on with.
    void stop() { stop_ = true; }
    bool stop_requested() const { return stop_; }
    void forget_stop() { stop_ = false; }

    // Called now and then during run().
    void set_progress(std::function<void()> progress) { progress_ = std::move(progress); }

    Plugin_Module &plugin() { return plugin_; }
    bool session_open() const { return session_open_; } // as far as the plugin has told the host
    const std::string &file() const { return file_; }
    const std::string &source() const { return source_; } // the stream's own word on where it comes from
    const std::optional<Stream_Error> &error() const { return reader_.error(); }
    const Stream_Reader &reader() const { return reader_; }
    uint64_t events() const;
    uint64_t lines_of(Event_Kind kind) const { return counts_[static_cast<size_t>(kind)]; }

private:
    bool deliver(const Stream_Event &event);
    void on_session(std::string_view what);

    std::atomic<bool> stop_ = false;
    std::string file_;
    std::string source_;
    Stream_Reader reader_;
    Plugin_Module plugin_;
    std::array<uint64_t, EVENT_KINDS> counts_{};
    std::function<void()> progress_;
    bool session_open_ = false;
};

// What this host has for a warm load: its machine and the state of every hardware thread, as the beginning of a
// commit stream. Returns an empty text or what went wrong.
std::string write_warm_file(const std::string &file);

} // namespace replay
