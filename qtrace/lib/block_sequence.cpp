#include "block_sequence.h"

namespace trace
{

QTRACE_Discontinuity discontinuity(QTRACE_CAUSE cause, const char *reason, uint64_t offset)
{
    QTRACE_Discontinuity what{};
    what.cause = cause;
    what.reason = reason;
    what.offset = offset;
    return what;
}

std::optional<QTRACE_Discontinuity> Block_Sequence::before(const Block_Place &place) const
{
    const Block_Header &header = place.header;
    if (accepted_)
        return std::nullopt;
    if (ended_) // whatever it counts, it need not count from here
        return discontinuity(QTRACE_CAUSE_DAMAGE, "a block follows the last one", place.offset);
    QTRACE_Discontinuity what = discontinuity(QTRACE_CAUSE_DAMAGE, nullptr, place.offset);
    count_lost(what, header);
    if (header.has(LEFT_OUT)) {
        what.cause = QTRACE_CAUSE_LEFT_OUT;
        what.reason = "a recovery or a cut left out what belongs before this block";
    } else if (header.has(GAP_BEFORE)) {
        what.cause = QTRACE_CAUSE_REFUSED;
        what.reason = "the writer refused what belongs before this block";
    } else if (header.first_record != records_ || header.first_header != headers_) {
        what.reason = "blocks are missing before this one";
    } else if (header.has(COMMENT_BEFORE) && !has_comment_of(header)) {
        what.reason = "the comment block before this one is missing";
    } else {
        return std::nullopt;
    }
    return what;
}

QTRACE_Discontinuity Block_Sequence::damage(uint64_t offset, uint64_t end, const std::optional<Block_Place> &next,
                                            const std::optional<Block_Header> &broken) const
{
    const char *reason = broken ? "the block's checksum does not match" : "no block here";
    QTRACE_Discontinuity what = next || ended_
                                    ? discontinuity(QTRACE_CAUSE_DAMAGE, reason, offset)
                                    : discontinuity(QTRACE_CAUSE_CUT_END, "the file ends inside a block", offset);
    what.bytes = end - offset;
    if (next) {
        count_lost(what, next->header);
    } else if (broken) {
        what.records = broken->records;
        what.headers = broken->headers;
    }
    return what;
}

std::optional<QTRACE_Discontinuity> Block_Sequence::at_end(uint64_t size) const
{
    if (ended_)
        return std::nullopt;
    return discontinuity(QTRACE_CAUSE_CUT_END, "the file ends without its last block", size);
}

// The numbers of the next block tell, unless they fall.
void Block_Sequence::count_lost(QTRACE_Discontinuity &what, const Block_Header &next) const
{
    what.records_known = next.first_record >= records_;
    what.records = what.records_known ? next.first_record - records_ : 0;
    what.headers = next.first_header >= headers_ ? next.first_header - headers_ : 0;
}

void Block_Sequence::take(const Block_Header &header)
{
    records_ = header.records_after();
    headers_ = header.headers_after();
    ended_ = header.has(LAST_BLOCK);
    accepted_ = false;
    last_ = header;
}

bool Block_Sequence::has_comment_of(const Block_Header &header) const
{
    return is_comment_of(last_, header);
}

} // namespace trace
