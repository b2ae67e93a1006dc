// The page of a report: one HTML file with its tables, its data as JSON, and the script that draws the pictures.
#pragma once

#include "report_data.h"
#include "symbol_names.h"

#include <memory>
#include <string>
#include <vector>

namespace qtrace_tool
{

struct Report_Trace {
    std::string name;
    std::vector<std::unique_ptr<Thread_Data>> threads;
};

struct Report {
    std::vector<Report_Trace> traces; // two are compared
    Name_Finder *names;               // of addresses of any process; the caller's
    Page_Sizes sizes;
};

std::string report_page(Report &report);

// Parts of the page that do not depend on the traces.
extern const char *const REPORT_STYLE;
extern const char *const REPORT_SCRIPT;

} // namespace qtrace_tool
