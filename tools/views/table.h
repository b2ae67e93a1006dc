// A table with a column for each trace.
#pragma once

#include "tool_output.h"

#include <string>
#include <vector>

namespace qtrace_tool
{

struct Table {
    struct Row {
        std::string label;
        std::vector<std::string> cells; // one for each column; none: the row is a heading
    };
    std::vector<std::string> columns; // their names
    std::vector<Row> rows;
};

// Prints lines of at most `width` characters; 0: of any length. A table that is too wide becomes narrower, and then
// several tables, one after another, with some of the columns each.
void print_table(Output &out, const Table &table, size_t width);

} // namespace qtrace_tool
