// A commit stream that is read on a thread of its own, before its events are asked for.
#pragma once

#include "stream_reader.h"

#include <array>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace replay
{

// Behaves as a Stream_Reader does for the one thread that calls it. Position and error are those of the last event that
// was returned, however far reading is ahead.
class Read_Ahead : public Event_Source
{
public:
    Read_Ahead(const std::string &file, Stop_Request &stop);
    ~Read_Ahead() override;

    const Stream_Event *next() override;
    const std::optional<Stream_Error> &error() const override { return error_; }
    uint64_t line_number() const override { return position_.line; }
    uint64_t bytes_used() const override { return position_.bytes; }
    std::optional<uint64_t> input_size() const override { return size_; }

private:
    static constexpr size_t EVENTS = 16; // of a batch
    static constexpr size_t BATCHES = 4;

    struct Position {
        uint64_t line = 0, bytes = 0;
    };
    struct Slot {
        Stream_Event event{};
        Position position;
    };
    enum class Ending { none, interrupted, over }; // what follows the events of a batch
    struct Batch {
        std::vector<Slot> slots = std::vector<Slot>(EVENTS);
        size_t count = 0;
        Ending ending = Ending::none;
        Position end; // where the stream ended or was refused
    };

    void start();
    void read();
    void fill(Batch &batch);
    bool wait_for_room();
    bool wait_for_continuation();
    const Stream_Event *next_alone();
    void wait_for_batch();
    void release_batch();
    Position position_of_reader() const;

    Stop_Request &stop_;
    Stream_Reader reader_; // of the reading thread while that runs
    std::optional<uint64_t> size_;
    std::array<Batch, BATCHES> batches_;

    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t filled_ = 0; // batches so far; guarded by the mutex, as all up to quitting_
    uint64_t released_ = 0;
    bool continuing_ = false; // an interruption is over
    bool quitting_ = false;

    Batch *batch_ = nullptr; // being handed out
    size_t handed_out_ = 0;  // of its events
    Position position_;
    std::optional<Stream_Error> error_;
    std::thread thread_;
    bool alone_ = false; // it could not be started
};

} // namespace replay
