// What a page-table-entry file holds, on standard output.
#pragma once

#include "tool_run.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

// Which accesses a file holds; it does not say so itself.
struct Pte_Kind {
    std::string_view name;
    std::vector<std::string_view> members; // one 8-byte word each; as JSON has them
    const char *format;                    // of the words in text
    unsigned addresses;                    // a bit for each word that is an address
};

const std::vector<Pte_Kind> &pte_kinds();
std::vector<std::string> pte_kind_names();

// Prints the accesses `first` to `first + count - 1` of the file, one line each. Failures are told to the run; so are
// words that cannot be what the kind says.
void dump_pte(Tool_Run &run, const std::string &name, const Pte_Kind &kind, uint64_t first, uint64_t count);

} // namespace qtrace_tool
