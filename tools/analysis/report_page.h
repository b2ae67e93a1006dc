// The page of a report: one HTML file with its tables, its data as JSON, and the script that draws the pictures.
#pragma once

#include "report_data.h"

#include <memory>
#include <string>
#include <vector>

namespace qtrace_tool
{

// A name for addresses from `first` on, up to the next one.
struct Report_Symbol {
    uint64_t first;
    std::string name;
};
// The symbol that `address` belongs to; empty when there is none. `symbols` ascend by address.
std::string symbol_of(const std::vector<Report_Symbol> &symbols, uint64_t address);

struct Report_Trace {
    std::string name;
    std::vector<std::unique_ptr<Thread_Data>> threads;
};

struct Report {
    std::vector<Report_Trace> traces; // two are compared
    std::vector<Report_Symbol> symbols;
    Page_Sizes sizes;
};

std::string report_page(Report &report);

// Parts of the page that do not depend on the traces.
extern const char *const REPORT_STYLE;
extern const char *const REPORT_SCRIPT;

} // namespace qtrace_tool
