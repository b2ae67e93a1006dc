// Plays a commit stream into a loaded plugin: the host's state moves with the stream, events reach the plugin.
// Tests and benchmarks use this in-process; the console is a user interface over it.
#pragma once

#include "event_source.h"
#include "plugin_module.h"
#include "stop_request.h"

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
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
    // fails error() says why, and run() delivers nothing. One player at a time: there is one host. `stop`, when it is
    // given, ends runs as stop() does and must outlive the player.
    explicit Player(const std::string &file, Stop_Request *stop = nullptr);
    // The same with events from `events`; `name` stands for it in messages.
    Player(const std::string &name, std::unique_ptr<Event_Source> events, Stop_Request *stop = nullptr);
    ~Player(); // unloads the plugin, which closes an open session

    // Delivers at most `limit` events: commits and the other events, not counting context lines. The raw time is
    // moved before each commit. Without a plugin events go nowhere, but state and time move all the same.
    End run(uint64_t limit = ALL);

    // Makes the present or next run() return before its next event, also when it waits for input; can be called
    // from a signal handler. The next run() continues there.
    void stop() { stop_->request(); }
    bool stop_requested() const { return stop_->requested(); }
    void forget_stop() { stop_->forget(); }

    // Called now and then during run().
    void set_progress(std::function<void()> progress) { progress_ = std::move(progress); }

    Plugin_Module &plugin() { return plugin_; }
    void unload_plugin();                               // closes an open session
    bool session_open() const { return session_open_; } // as far as the plugin has told the host
    const std::string &file() const { return file_; }
    const std::string &source() const { return source_; } // the stream's own word on where it comes from
    const std::optional<Stream_Error> &error() const { return events_->error(); }
    const Event_Source &event_source() const { return *events_; }
    uint64_t events() const;
    uint64_t lines_of(Event_Kind kind) const { return counts_[static_cast<size_t>(kind)]; }

private:
    void take_machine();
    bool deliver(const Stream_Event &event);
    void on_session(std::string_view what);

    std::unique_ptr<Stop_Request> own_stop_; // null: somebody else's
    Stop_Request *stop_;
    std::string file_;
    std::string source_;
    std::unique_ptr<Event_Source> events_;
    Plugin_Module plugin_;
    std::array<uint64_t, EVENT_KINDS> counts_{};
    std::function<void()> progress_;
    bool session_open_ = false;
};

} // namespace replay
