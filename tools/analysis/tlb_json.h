// What the TLB model counted, as JSON.
#pragma once

#include "tlb_model.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace qtrace_tool
{

// Tables that costs are sorted into.
enum class Tlb_Table : uint8_t { partition, process, page_size, instruction, page };
inline constexpr const char *TLB_TABLES[] = {"partition", "process", "page-size", "instruction", "page"};

struct Tlb_Lists {
    std::vector<Tlb_Table> tables;
    size_t top = 10; // rows of each table
};

// A row of a table: its key in words and numbers, and what it cost.
struct Tlb_Row {
    nlohmann::ordered_json key;
    Tlb_Cost cost;
};
// Most walks first.
std::vector<Tlb_Row> tlb_rows(const Tlb_Figures &figures, Tlb_Table table, size_t top);

// Where one page of 2 MiB would do instead of many: most walks saved first.
struct Tlb_Advice {
    Tlb_Page page;
    Tlb_Region region;
    uint64_t saved() const { return region.walks - region.walks_if_one; }
};
std::vector<Tlb_Advice> tlb_advice(const Tlb_Figures &figures, size_t top);

const char *kind_name(Xlate_Kind kind); // "host", "guest-real", "nested", "hash"
std::string size_name(uint64_t bytes);  // "64K", "1.5M"
double per_thousand(uint64_t count, uint64_t instructions);

nlohmann::ordered_json tlb_json(const Tlb_Figures &figures, const Tlb_Options &options, const Tlb_Lists &lists);

} // namespace qtrace_tool
