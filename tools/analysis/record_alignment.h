// Which records of two traces belong together, told by hashes of the records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace qtrace_tool
{

// What is known of a record when it is aligned: hashes of three views of it.
struct Record_Key {
    uint64_t whole;   // members and the instruction's address
    uint64_t content; // members alone: the address is worked out from the records before, which may be missing
    uint64_t place;   // the instruction's address and word
};

// So many pairs of records, then records that only one trace has.
struct Alignment_Step {
    uint64_t pairs = 0, only_a = 0, only_b = 0;
    bool operator==(const Alignment_Step &) const = default;
};

// Aligns two sequences that begin at records that belong together or just after such records. With `complete` both
// end together, and the steps cover all of both; else they may end earlier, after the last records that surely
// belong together, but cover at least one record. Runs of whole records that occur once on each side decide, then
// runs of places; between them equal ends are matched, so that one run that is missing is counted exactly.
std::vector<Alignment_Step> align_records(std::span<const Record_Key> a, std::span<const Record_Key> b,
                                          bool complete);

} // namespace qtrace_tool
