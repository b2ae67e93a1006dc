// The blocks of a trace file by their headers: built once, then only read, by any number of threads.
#pragma once

#include "block_file.h"
#include "block_sequence.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace trace
{

// Where reading begins before a block with items: at the beginning of its range.
struct Range_Start {
    uint64_t offset = 0;
    Block_Sequence sequence;
    std::optional<uint64_t> header_before; // offset of the header of the block with items before it
};

// Blocks with items, in file order; comment blocks, empty ones and damaged bytes belong to the one after them. A step
// is one of them, or several where there are more than `most_steps`: then the steps cover the same number of blocks
// each, but for the last one. So the memory does not grow with the file.
class Trace_Index
{
public:
    static constexpr size_t MOST_STEPS = 65536;

    // Reads the headers of all blocks. Null after an I/O error, whose errno is in blocks.error then. `most_steps`: at
    // least 2.
    static std::shared_ptr<const Trace_Index> build(Block_File &blocks, uint64_t begin,
                                                    size_t most_steps = MOST_STEPS);
    // The same of the blocks of a step, each a step of its own, numbered from 0. There is no summary of them.
    static std::shared_ptr<const Trace_Index> build(Block_File &blocks, const QTRACE_Step &step);

    const QTRACE_Info &info() const { return info_; }
    const std::vector<QTRACE_Step> &steps() const { return steps_; }
    // Number of all blocks with items, and of the step that block `number` of them is in.
    uint64_t blocks() const { return steps_.empty() ? 0 : steps_.back().first_block + steps_.back().blocks; }
    size_t step_of(uint64_t number) const { return static_cast<size_t>(number / width_); }
    // Offset of the header of a step's last block.
    uint64_t header_offset(size_t step) const { return ends_[step].header_offset; }
    // Where the first block of that step begins.
    Range_Start start_of(size_t step) const;
    // Number of the first step that reaches the place before that record: headers there may end a block. The number of
    // steps when none does.
    size_t step_reaching(uint64_t record) const;
    // The same, but the number of steps, too, when none from there on has a record with this number or a higher one.
    size_t step_before(uint64_t record) const;

private:
    // The last block of a step.
    struct Step_End {
        uint64_t header_offset;
        bool last; // has the flag of the last block
    };

    template <class Whole, class Broken>
    bool walk(Block_File &blocks, uint64_t begin, uint64_t end, Whole whole, Broken broken);
    void add(const Block_Place &place, uint64_t range);
    void add(const QTRACE_Step &step, const Step_End &end);
    void merge_pairs();
    void number_records();

    QTRACE_Info info_{};
    size_t most_steps_ = MOST_STEPS;
    uint64_t width_ = 1; // blocks of a step
    std::vector<QTRACE_Step> steps_;
    std::vector<Step_End> ends_;
    // Numbers fall where somebody put blocks in another order: the most records before the end of this step or an
    // earlier one, and of this step or a later one.
    std::vector<uint64_t> records_up_to_, records_from_;
};

// Calls whole(place) for every block of a file for which is_whole(place) holds, and broken(next) for every run of bytes
// that is none, with the block that follows it, if any. Goes on from an offset while more(offset) holds.
template <class More, class Test, class Whole, class Broken>
void walk_blocks(Block_File &blocks, uint64_t begin, More more, Test is_whole, Whole whole, Broken broken)
{
    for (uint64_t offset = begin; more(offset) && blocks.error == 0;) {
        const std::optional<Block_Header> header = blocks.header_at(offset);
        const Block_Place place{offset, header.value_or(Block_Header{})};
        if (header && is_whole(place)) {
            whole(place);
            offset = place.end();
            continue;
        }
        const std::optional<Block_Place> next = blocks.find(offset + 1);
        offset = next ? next->offset : blocks.size();
        broken(next);
    }
}

inline auto up_to(uint64_t end)
{
    return [end](uint64_t offset) { return offset < end; };
}

// Blocks by their headers alone, for threads that look at them before somebody asks: no more than a bounded number.
struct Block_Window {
    uint64_t begin = 0, end = 0; // of the file, damaged bytes included
    std::vector<Block_Place> blocks;
};
Block_Window window_at(const Trace_Source &source, uint64_t begin);

// What the blocks of a file add up to.
class Block_Summary
{
public:
    explicit Block_Summary(uint64_t file_size);
    void whole(const Block_Place &place);
    void broken(bool at_end);
    QTRACE_Info end();

private:
    QTRACE_Info info_{};
    Block_Sequence sequence_;
    bool follows_last_ = false; // something does
    bool damaged_end_ = false;
};

} // namespace trace

struct QTRACE_Index {
    trace::Trace_Source source;
    std::shared_ptr<const trace::Trace_Index> blocks;
    mutable std::mutex mutex{};              // guards what follows
    mutable std::vector<QTRACE_Block> all{}; // blocks, once they are asked for
};
