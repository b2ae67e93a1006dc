// Groups of blocks that two traces have in common, found out by several threads.
#pragma once

#include "item_scan.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace qtrace_tool
{

// Blocks of the same place, records and headers in both files.
struct Block_Group {
    uint64_t first_block, blocks;
    uint64_t first_record, records;
    uint64_t first_header;
};

// Compares the groups that begin both files, up to the first blocks that have not the same numbers of items. Nothing
// is told of groups that differ: whoever compares the traces reads these.
class Equal_Blocks
{
public:
    // Those whose records all belong to the range; with one job none. The files must live longer.
    Equal_Blocks(const Trace_File &a, const Trace_File &b, const Record_Range &range, unsigned jobs);
    ~Equal_Blocks() { stop(); }
    Equal_Blocks(const Equal_Blocks &) = delete;
    Equal_Blocks &operator=(const Equal_Blocks &) = delete;

    const std::vector<Block_Group> &groups() const { return groups_; }
    // Whether every item of the group is the same in both files, nothing is missing, and a record comes last. Waits
    // for the threads.
    bool is_equal(size_t group);
    // No further group is asked for.
    void stop();

private:
    enum class Verdict : uint8_t { open, equal, different };
    void work(const Trace_File &a, const Trace_File &b);

    std::vector<Block_Group> groups_;
    std::mutex mutex_; // guards what follows
    std::condition_variable judged_;
    std::vector<Verdict> verdicts_;
    size_t next_ = 0;
    bool stopped_ = false;
    std::vector<std::jthread> workers_; // last: joined before the others go
};

} // namespace qtrace_tool
