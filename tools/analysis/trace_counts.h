// What `stats` counts over one trace, or over several together.
#pragma once

#include "address_view.h"
#include "bounded_counts.h"
#include "qtrace_reader.h"
#include "record_schema.h"

#include <array>
#include <bitset>
#include <compare>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace qtrace_tool
{

// How often keys occur, in constant memory: exact while there are no more than CAPACITY of them, else each count is
// too low by at most shortfall().
class Frequent_Keys
{
public:
    static constexpr size_t CAPACITY = 8192;

    void add(uint64_t key, uint64_t times = 1);
    void add(const Frequent_Keys &other);
    uint64_t shortfall() const { return shortfall_; }
    // The most frequent, most first.
    std::vector<std::pair<uint64_t, uint64_t>> top(size_t count) const;

private:
    void make_room();
    void give_up(uint64_t amount); // of every count

    std::unordered_map<uint64_t, uint64_t> counts_;
    uint64_t shortfall_ = 0;
};

// A page that accesses went to. Page numbers of nested translations are the guest's, so its partition belongs to
// them.
struct Page {
    uint64_t first = 0; // its real address (nested: guest real address)
    uint64_t guest = 0; // partition + 1; 0: a page of the host
    uint8_t size_code = 0;
    auto operator<=>(const Page &) const = default; // NOLINT(modernize-use-nullptr): compared with 0, not a pointer
};
struct Page_Hash {
    size_t operator()(const Page &page) const noexcept; // then a table does not keep it for each page
};
// How often a page was used.
struct Page_Use {
    uint64_t fetches : 63 = 0; // instructions
    uint64_t fetched : 1 = 0;  // also where none of its instructions was traced
    uint64_t accesses = 0;     // of data
    uint64_t total() const { return fetches + accesses; }
    Page_Use &operator+=(const Page_Use &other);
};
struct Page_Use_Weight {
    uint64_t operator()(const Page_Use &use) const { return use.total(); }
};
using Page_Uses = Bounded_Counts<Page, Page_Use, Page_Hash, Page_Use_Weight>;

using Size_Codes = std::bitset<256>;

// The pages of one side, fetches or data, as they are shown.
struct Side_Pages {
    std::map<uint8_t, uint64_t> counts;             // of pages, by size code
    std::vector<std::pair<Page, uint64_t>> hottest; // with their uses, most first
};
struct Touched_Pages {
    Side_Pages fetched, data;
    bool estimated = false; // the counts of pages
    uint64_t shortfall = 0; // uses of the hottest pages may be too low, by at most so much
};

// Sizes that page-size codes stand for, as powers of two; the codes are the simulator's.
class Page_Sizes
{
public:
    static constexpr std::array<uint8_t, 5> USUAL = {12, 16, 21, 30, 24};

    Page_Sizes() : bits_(USUAL.begin(), USUAL.end()) {}
    explicit Page_Sizes(std::vector<uint8_t> bits) : bits_(std::move(bits)) {}
    bool knows(uint8_t code) const { return code < bits_.size(); }
    unsigned bits(uint8_t code) const { return code < bits_.size() ? bits_[code] : 12u; }
    std::string name(uint8_t code) const; // "64K", "code 9"

private:
    std::vector<uint8_t> bits_;
};

struct Partition {
    uint64_t lpid;
    uint32_t pid;
    auto operator<=>(const Partition &) const = default; // NOLINT(modernize-use-nullptr): there is no 0
};

inline constexpr size_t UNKNOWN_CASE = 16; // after the 16 mode pairs

// Plain sums. All of them are added up when traces are taken together.
struct Trace_Sums {
    uint64_t file_bytes = 0;
    uint64_t instructions = 0;
    uint64_t full_headers = 0, partition_headers = 0;
    uint64_t taken = 0, not_taken = 0, unconditional = 0, undecided = 0; // branches
    uint64_t other_jumps = 0; // control-flow changes that no branch made: interrupts, exceptions
    uint64_t loads = 0, stores = 0, cache = 0, strings = 0, string_bytes = 0;
    uint64_t data_addresses = 0, data_errors = 0;
    uint64_t registers[10] = {};                    // as REGISTER_CLASSES
    uint64_t fetch_cases[UNKNOWN_CASE + 1] = {};    // instructions, by mode pair of their own address
    uint64_t data_cases[UNKNOWN_CASE] = {};         // data addresses
    uint64_t group_bytes[trace::FIELD_GROUPS] = {}; // of filled members, before any encoding
    uint64_t unnamed_fetches = 0; // instructions on a page that was entered in sequence: records name no page then

    void add(const Trace_Sums &other);
    uint64_t branches() const { return taken + not_taken + unconditional + undecided; }
};

class Trace_Counts : public Trace_Sums
{
public:
    enum class Pages : uint8_t { counted, left_out };

    // Beyond `most_pages` different pages counts of pages are estimates.
    explicit Trace_Counts(const Page_Sizes &sizes, Pages pages = Pages::counted,
                          size_t most_pages = Page_Uses::MOST)
        : sizes_(sizes), with_pages_(pages == Pages::counted), pages_(most_pages)
    {
    }

    // Counting begins in the middle of a trace, with this header in force (null: none). What instructions were
    // fetched from is told by what was counted before, or else is not known.
    void begin(const QTRACE_FILE_HDR *context);
    void header(const QTRACE_FILE_HDR &header);
    void record(const QTRACE_Item &item);
    // What is known of the current page, mode and partition does not hold any more; the context tells the partition.
    void loss(const QTRACE_FILE_HDR *context);
    // Adds what follows in the same trace.
    void append(const Trace_Counts &next);
    // Adds what another trace has; afterwards only the counts mean something.
    void add(const Trace_Counts &other);

    std::map<Partition, uint64_t> partitions; // instructions
    Frequent_Keys targets;                    // of taken and unconditional branches

    Touched_Pages touched; // filled by:
    // Sums the pages up, with `top` of the hottest ones of each side, and releases their memory. To be called once, at
    // the end.
    void finish_pages(size_t top);

private:
    // From where instructions are fetched.
    struct Fetch {
        size_t mode_case = UNKNOWN_CASE;
        bool named = false; // the page is known:
        Page page;
        uint64_t first = 0, mask = 0; // its effective addresses
    };
    // Instructions one after another.
    struct Run {
        uint64_t first, count;
    };

    void enter(const trace::Translated_Address &address, uint64_t effective);
    void enter(const Fetch &fetch);
    void set_partition(const QTRACE_FILE_HDR *header);
    void count_fetch(uint64_t address);
    void count_fetches(const Run &run);
    void use_page(const Page &page, const Page_Use &use);
    void add_current_pages(const Trace_Counts &from);
    void count_branch(const QTRACE_Item &item);
    void count_members(const QTRACE_RECORD &record, const trace::Flag_Words &flags);
    void count_data(const QTRACE_RECORD &record);
    Page page_of(const trace::Translated_Address &address) const;

    Page_Sizes sizes_;
    bool fetch_told_ = true; // by this part of the trace
    std::vector<Run> before_told_;
    Fetch fetch_;
    bool with_pages_;
    Page_Uses pages_;
    Size_Codes fetched_codes_, data_codes_;
    // Uses of the current pages that are not in pages_ yet.
    uint64_t fetches_ = 0; // of fetch_.page
    Page last_data_page_;
    uint64_t data_accesses_ = 0; // of last_data_page_
    Partition partition_{0, 0};
    uint64_t *partition_count_ = nullptr;
};

} // namespace qtrace_tool
