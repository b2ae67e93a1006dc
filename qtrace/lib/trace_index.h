// The blocks of a trace file by their headers: built once, then only read, by any number of threads.
#pragma once

#include "block_file.h"
#include "block_sequence.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace trace
{

class Trace_Index
{
public:
    // Reads the headers of all blocks. Null after an I/O error, whose errno is in blocks.error then.
    static std::shared_ptr<const Trace_Index> build(Block_File &blocks, uint64_t begin);

    const QTRACE_Info &info() const { return info_; }
    // Blocks with items, in file order. Comment blocks, empty ones and damaged bytes belong to the one after them.
    const std::vector<QTRACE_Block> &blocks() const { return blocks_; }
    // Offset of the block header of blocks()[number].
    uint64_t header_offset(size_t number) const { return header_offsets_[number]; }
    // What comes before the range of blocks()[number].
    Block_Sequence sequence_before(size_t number) const;
    // Number of the first block that reaches the place before that record: headers there may end a block. The number
    // of blocks when no block from there on has a record with this number or a higher one.
    size_t block_before(uint64_t record) const;

private:
    void add(const Block_Place &place);
    void number_records();

    QTRACE_Info info_{};
    std::vector<QTRACE_Block> blocks_;
    std::vector<uint64_t> header_offsets_;
    std::vector<bool> last_; // the block has the flag of the last one
    // Numbers fall where somebody put blocks in another order: the most records before the end of this block or an
    // earlier one, and of this block or a later one.
    std::vector<uint64_t> records_up_to_, records_from_;
};

// Calls whole(place) for every block of a file for which is_whole(place) holds, and broken(next) for every run of bytes
// that is none, with the block that follows it, if any.
template <class Test, class Whole, class Broken>
void walk_blocks(Block_File &blocks, uint64_t begin, Test is_whole, Whole whole, Broken broken)
{
    for (uint64_t offset = begin; offset < blocks.size() && blocks.error == 0;) {
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
};
