// In what two records, or the headers before them, differ.
#pragma once

#include "qtrace_reader.h"
#include "record_alignment.h"
#include "record_schema.h"

#include <bitset>
#include <string>
#include <vector>

namespace qtrace_tool
{

using Difference_Set = std::bitset<trace::DIFFERENCES>;

inline bool has(const Difference_Set &kinds, trace::Difference kind)
{
    return kinds[static_cast<size_t>(kind)];
}

// A member that differs, with both values.
struct Detail {
    std::string name, a, b;
};

// Kinds in `ignored` are left out.
Difference_Set kinds_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored);
std::vector<Detail> details_between(const QTRACE_Item &a, const QTRACE_Item &b, const Difference_Set &ignored);

// Hashes records for their alignment, without what is ignored.
class Record_Hash
{
public:
    explicit Record_Hash(const Difference_Set &ignored);
    Record_Key operator()(const QTRACE_Item &item) const;

private:
    uint64_t content(const QTRACE_RECORD &record) const;

    trace::Member_Set members_;
    uint64_t flags_ = 0;
    bool address_, word_;
};

// Headers between two records: how many, and the first of them.
class Header_List
{
public:
    void add(const QTRACE_FILE_HDR &header);
    void clear() { *this = {}; }
    bool empty() const { return count_ == 0; }

    friend std::vector<Detail> details_between(const Header_List &a, const Header_List &b);

private:
    static constexpr size_t KEPT = 16;
    struct Kept {
        QTRACE_FILE_HDR header; // its comment is not its own
        std::string comment;
    };
    uint64_t count_ = 0, hash_ = 0; // of all
    std::vector<Kept> kept_;
};
std::vector<Detail> details_between(const Header_List &a, const Header_List &b);

} // namespace qtrace_tool
