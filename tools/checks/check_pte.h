// Radix walks of a trace against the page-table-entry file of the same thread.
#pragma once

#include "qtrace_t.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace qtrace_tool
{

// One walk: directory entries of levels 1 to 3, page-table entry. 0: no such level.
struct Radix_Walk {
    uint64_t directory[3];
    uint64_t entry;
    bool operator==(const Radix_Walk &) const = default;
};

// The accesses of a page-table-entry file. Its records carry no tags, so any five words in a row may be a walk: a
// walk that is in the file is always found, and one that is not is found only by a freak.
class Pte_Accesses
{
public:
    // Reads the whole file. On failure returns false and says why.
    bool read(const std::string &name, std::string &error);

    // Whether the file has an access to that page-table entry by way of those directory entries. A level that the
    // trace does not carry (0) may be any.
    bool has(const Radix_Walk &walk) const;

private:
    std::unordered_multimap<uint64_t, Radix_Walk> by_entry_;
};

// Finds the walks of a trace that the file does not have; each one once.
class Pte_Checker
{
public:
    explicit Pte_Checker(const Pte_Accesses &accesses) : accesses_(accesses) {}

    // The walks of these (five, of one address) that have no access in the file and were not missing before.
    std::vector<Radix_Walk> missing(const QTRACE_RTW *walks);

private:
    struct Hash {
        size_t operator()(const Radix_Walk &walk) const;
    };
    const Pte_Accesses &accesses_;
    std::unordered_set<Radix_Walk, Hash> seen_; // found or reported
};

} // namespace qtrace_tool
