// How many instructions ran in each function that has a name.
#pragma once

#include "qtrace_reader.h"
#include "symbol_names.h"

#include <cstdint>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qtrace_tool
{

// Symbols are told apart by their place in the names, so counts of different names must not be added.
class Function_Counts
{
public:
    explicit Function_Counts(const Symbol_Names &names) : finder_(names) {}
    Function_Counts(const Function_Counts &) = delete;
    Function_Counts &operator=(const Function_Counts &) = delete;

    // Whether there is anything to be counted.
    bool any() const { return finder_.any(); }
    // The instruction of a record, under the header in force; null: none is.
    void add(const QTRACE_Item &item, const QTRACE_FILE_HDR *context);
    void add(const Function_Counts &other);

    // Most instructions first, then by address; the symbols are the names'. Null: instructions without a name.
    std::vector<std::pair<const Symbol *, uint64_t>> top(size_t count) const;

private:
    Name_Finder finder_;
    std::unordered_map<const Symbol *, uint64_t> counts_;
    const Symbol *last_ = nullptr;
    uint64_t *last_count_ = nullptr; // of last_; null: there is none
};

} // namespace qtrace_tool
