#include "table.h"

#include <algorithm>

namespace qtrace_tool
{
namespace
{

constexpr size_t LABEL = 46, CELL = 14, SPACE = 2; // characters: usual widths, and the least between columns

struct Widths {
    size_t label;
    std::vector<size_t> cells;
};

size_t longest_name(const Table &table)
{
    size_t longest = 0;
    for (const std::string &name : table.columns)
        longest = std::max(longest, name.size());
    return longest;
}

Widths usual_widths(const Table &table)
{
    return {LABEL, std::vector<size_t>(table.columns.size(), std::max(CELL, longest_name(table) + SPACE))};
}

// As narrow as the contents permit.
Widths least_widths(const Table &table)
{
    Widths widths{0, {}};
    for (const std::string &name : table.columns)
        widths.cells.push_back(name.size() + SPACE);
    for (const Table::Row &row : table.rows) {
        widths.label = std::max(widths.label, row.label.size());
        for (size_t i = 0; i < row.cells.size(); i++)
            widths.cells[i] = std::max(widths.cells[i], row.cells[i].size() + SPACE);
    }
    return widths;
}

size_t sum(const Widths &widths)
{
    size_t all = widths.label;
    for (const size_t width : widths.cells)
        all += width;
    return all;
}

// The end of a name tells threads apart. A column has room for a usual cell at least.
std::string shortened(const std::string &name, size_t width)
{
    constexpr std::string_view MARK = "...";
    if (name.size() + SPACE <= width)
        return name;
    return fmt::format("{}{}", MARK, name.substr(name.size() + MARK.size() + SPACE - width));
}

void print_columns(Output &out, const Table &table, const Widths &widths, size_t first, size_t end)
{
    out.paint(Colour::head);
    out.print("{:<{}}", "", widths.label);
    for (size_t i = first; i < end; i++)
        out.print("{:>{}}", shortened(table.columns[i], widths.cells[i]), widths.cells[i]);
    out.paint(Colour::plain);
    out.put('\n');
    for (const Table::Row &row : table.rows) {
        out.print("{:<{}}", row.label, widths.label);
        for (size_t i = first; i < std::min(end, row.cells.size()); i++)
            out.print("{:>{}}", row.cells[i], widths.cells[i]);
        out.put('\n');
    }
}

// A name that is too long for a line of its own loses its beginning.
Widths cut_to(Widths widths, size_t width)
{
    const size_t room = std::max(width, widths.label + CELL) - widths.label;
    for (size_t &cell : widths.cells)
        cell = std::min(cell, room);
    return widths;
}

} // namespace

void print_table(Output &out, const Table &table, size_t width)
{
    const size_t columns = table.columns.size();
    const Widths usual = usual_widths(table);
    if (width == 0 || sum(usual) <= width) {
        print_columns(out, table, usual, 0, columns);
        return;
    }
    const Widths widths = cut_to(least_widths(table), width);
    for (size_t first = 0, end; first < columns; first = end) {
        size_t used = widths.label + widths.cells[first];
        for (end = first + 1; end < columns && used + widths.cells[end] <= width; end++)
            used += widths.cells[end];
        if (first > 0)
            out.put('\n');
        print_columns(out, table, widths, first, end);
    }
}

} // namespace qtrace_tool
