// Distinct translations, numbered in the order in which they were added.
#pragma once

#include "qtrace_columns.h"

#include <cstdint>
#include <vector>

namespace trace
{

// Rows are compared as bytes: they have no padding.
static_assert(sizeof(QTRACE_Translation) == 33 * sizeof(uint64_t));

class Translation_Table
{
public:
    Translation_Table(); // with row 0: an address that is absent

    // The number of the row that equals this one; added when there is none.
    uint32_t number_of(const QTRACE_Translation &row);
    const std::vector<QTRACE_Translation> &rows() const { return rows_; }

private:
    size_t place_of(const QTRACE_Translation &row) const;
    void grow();

    std::vector<QTRACE_Translation> rows_;
    std::vector<uint32_t> places_; // row number + 1 by hash, linear probing; 0: free
};

} // namespace trace
