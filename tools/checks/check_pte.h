// Radix walks of a trace against the page-table-entry file of the same thread.
#pragma once

#include "address_view.h"
#include "qtrace_reader.h"
#include "symbol_names.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qtrace_tool
{

// What the comparison reports, as a rule that `check` lists.
struct Entry_Rule {
    std::string_view name;
    const char *sentence;
};
inline constexpr Entry_Rule ENTRY_RULES[] = {
    {"pte-walk", "the page-table-entry file has no such walk"},
};

// One walk: directory entries of levels 1 to 3, page-table entry. 0: no such level.
struct Radix_Walk {
    uint64_t directory[3];
    uint64_t entry;
    bool operator==(const Radix_Walk &) const = default;
};

// A walk and the item that had it first.
struct Traced_Walk {
    Radix_Walk walk;
    std::string_view of; // "data address"
    uint64_t record, address;
    Address_Space space; // of the item's address
    bool in_header;
    bool found; // in the file
};

// Collects the walks of a trace, each once, and then looks for all of them in one pass over the file. The file's
// records carry no tags, so any five words in a row may be a walk: a walk that is in the file is always found, and
// one that is not is found only by chance.
class Pte_Checker
{
public:
    static constexpr size_t MAX_WALKS = 1000000; // distinct ones that are kept

    // The items that follow belong to it.
    void enter(const Address_Space &space) { space_ = space; }
    // The translation of an address of the item.
    void add(const trace::Translated_Address &address, std::string_view of, const QTRACE_Item &item);
    // Looks for the walks. On failure, also when the file cannot be such a file, returns false and says why.
    bool search(const std::string &name, std::string &error);

    std::vector<Traced_Walk> missing() const;
    uint64_t compared() const { return walks_.size(); }
    // Addresses translated by a hashed page table: their accesses have the form of three words, which names no walk.
    uint64_t hashed() const { return hashed_; }
    uint64_t beyond_limit() const { return beyond_limit_; } // walks that were not compared

private:
    void add(const Radix_Walk &walk, std::string_view of, const QTRACE_Item &item);
    void look_for(const Radix_Walk &access);

    Address_Space space_;
    std::vector<Traced_Walk> walks_;
    std::unordered_multimap<uint64_t, size_t> by_entry_; // places in walks_
    uint64_t hashed_ = 0, beyond_limit_ = 0;
};

} // namespace qtrace_tool
