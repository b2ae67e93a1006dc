// Names of addresses: symbols of a program, and which of them an address belongs to.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qtrace_tool
{

// A name for the addresses from `first` to `last`, both included.
struct Symbol {
    std::string name;
    uint64_t first = 0, last = 0;
    uint8_t rank = 0;                        // the lowest of several with the same addresses names them
    std::shared_ptr<const std::string> file; // that it was read from
};

// Addresses, both ends included, that belong to one symbol, or to none.
struct Named_Range {
    uint64_t first = 1, last = 0; // no address at all
    const Symbol *symbol = nullptr;

    bool contains(uint64_t address) const { return address >= first && address <= last; }
};

// Symbols of one address space. Where several overlap, an address belongs to the one that begins last; of those that
// begin together to the shortest, then to the one of the lowest rank, then to the one that was given first.
class Symbol_Table
{
public:
    explicit Symbol_Table(std::vector<Symbol> symbols);
    Symbol_Table(const Symbol_Table &) = delete;
    Symbol_Table(Symbol_Table &&) = default;
    Symbol_Table &operator=(const Symbol_Table &) = delete;
    Symbol_Table &operator=(Symbol_Table &&) = default;
    ~Symbol_Table() = default;

    // All addresses around `address` that belong to the same symbol, or between two symbols. The symbol is the
    // table's.
    Named_Range range_of(uint64_t address) const;

private:
    void cover(uint64_t first, uint64_t last, const Symbol &symbol);
    void cover_before(uint64_t end, bool ends);

    std::vector<Symbol> symbols_;
    std::vector<Named_Range> ranges_;        // disjoint, ascending
    std::vector<const Symbol *> unfinished_; // while ranges are made: those begun, the innermost last
    uint64_t position_ = 0;                  // all before it is covered
};

} // namespace qtrace_tool
