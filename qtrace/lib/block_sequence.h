// The order of blocks in a file: whether one follows another, and what is missing between them.
#pragma once

#include "block_format.h"
#include "qtrace_reader.h"

#include <optional>

namespace trace
{

// A discontinuity without a loss.
QTRACE_Discontinuity discontinuity(QTRACE_CAUSE cause, const char *reason, uint64_t offset);

// The writer and a recovery say themselves what they left out; that is no finding.
inline bool is_damage(const QTRACE_Discontinuity &what)
{
    return what.cause == QTRACE_CAUSE_DAMAGE || what.cause == QTRACE_CAUSE_CUT_END;
}

// What came before the next block of a file, by the headers of its blocks alone. Discontinuities come without
// context, which only payloads tell.
class Block_Sequence
{
public:
    // At the beginning of a file.
    Block_Sequence() = default;
    // After a block with items, whatever came before it.
    explicit Block_Sequence(const Block_Header &before) { take(before); }

    // How the block at `place` fails to follow; nothing when it simply does.
    std::optional<QTRACE_Discontinuity> before(const Block_Place &place) const;
    // The loss where damaged bytes stand from `offset` to `end`. `next` is the whole block that follows them, if any;
    // `broken` the block header with which they begin, if it can be read.
    QTRACE_Discontinuity damage(uint64_t offset, uint64_t end, const std::optional<Block_Place> &next,
                                const std::optional<Block_Header> &broken) const;
    // Where the file ends after a block.
    std::optional<QTRACE_Discontinuity> at_end(uint64_t size) const;

    // What is missing before the next block is known: its numbers are taken as they are.
    void accept_next() { accepted_ = true; }
    // The block is the next one.
    void take(const Block_Header &header);

    uint64_t records() const { return records_; } // before the next block
    uint64_t headers() const { return headers_; }
    bool ended() const { return ended_; } // the last block came last
    // Whether the block taken last is the comment block of this one.
    bool has_comment_of(const Block_Header &header) const;

private:
    void count_lost(QTRACE_Discontinuity &what, const Block_Header &next) const;

    uint64_t records_ = 0, headers_ = 0;
    Block_Header last_; // taken
    bool ended_ = false;
    bool accepted_ = false;
};

} // namespace trace
