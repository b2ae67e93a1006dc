// Work on numbered parts by several threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <future>
#include <vector>

namespace trace
{

// Calls work(tool, part) for each part from 0 to `parts` - 1, on up to `threads` threads of which the calling one is one;
// every thread has made a tool of its own. An exception of any of them comes out when all have ended.
template <class Make_Tool, class Work>
void work_together(unsigned threads, size_t parts, const Make_Tool &make_tool, const Work &work)
{
    std::atomic<size_t> next = 0;
    const auto run = [&] {
        auto tool = make_tool();
        for (size_t part; (part = next.fetch_add(1, std::memory_order_relaxed)) < parts;)
            work(tool, part);
    };
    std::vector<std::future<void>> others;
    for (size_t i = 1; i < threads && i < parts; ++i)
        others.push_back(std::async(std::launch::async, run));
    run();
    for (std::future<void> &other : others)
        other.get();
}

} // namespace trace
