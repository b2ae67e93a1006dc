// The request to stop, from a signal or another thread, and waiting that it ends.
#pragma once

#include <atomic>

namespace replay
{

class Stop_Request
{
public:
    Stop_Request(); // throws std::system_error
    ~Stop_Request();
    Stop_Request(const Stop_Request &) = delete;
    Stop_Request &operator=(const Stop_Request &) = delete;

    // Can be called from a signal handler and from any thread. Holds until it is forgotten.
    void request() noexcept;
    void forget() noexcept;
    bool requested() const noexcept { return requested_.load(std::memory_order_relaxed); }

    // Waits until `descriptor` can be read without waiting: true; false when a stop is requested.
    bool wait_for_input(int descriptor) const;

private:
    std::atomic<bool> requested_ = false;
    int wakeup_; // readable while a stop is requested
};

} // namespace replay
