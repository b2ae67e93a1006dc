// What a report shows of one hardware thread, collected in one pass and in bounded memory.
#pragma once

#include "tlb_feed.h"
#include "trace_counts.h"

#include <array>
#include <deque>
#include <limits>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace qtrace_tool
{

inline constexpr size_t REPORT_BINS = 240;                                 // of every picture over time
inline constexpr uint64_t NO_PLACE = std::numeric_limits<uint64_t>::max(); // no range, no page

// Accesses by address and time. Addresses are in ranges of 64 KiB; while there are too many, pairs are merged.
class Heat_Map
{
public:
    using Row = std::array<uint32_t, REPORT_BINS>;
    void count(uint64_t address, size_t bin);
    // Halves the number of ranges until there are at most so many, 2 or more.
    void shrink(size_t most);
    unsigned range_bits() const { return bits_; }
    const std::map<uint64_t, Row> &rows() const { return rows_; } // by first address

private:
    static constexpr size_t MOST_ROWS = 512;
    void merge_pairs();

    unsigned bits_ = 16;
    std::map<uint64_t, Row> rows_;
    uint64_t last_first_ = NO_PLACE;
    Row *last_row_ = nullptr;
};

// How many different keys were counted since the last start: exact up to MOST, then at least so many.
class Distinct_Keys
{
public:
    static constexpr uint32_t MOST = 60000;
    explicit Distinct_Keys(size_t slots = 131072) : slots_(slots) {}
    void start();
    void add(uint64_t key);
    uint32_t count() const { return count_; }

private:
    struct Slot {
        uint64_t key = 0;
        uint32_t round = 0;
    };
    std::vector<Slot> slots_;
    uint32_t round_ = 0, count_ = 0;
};

inline constexpr uint8_t WORKING_SET_BITS[] = {12, 16, 21};

struct Branch_Counts {
    uint64_t times = 0, taken = 0;
};

// What a group of blocks has for a report; made by any thread.
struct Report_Part {
    explicit Report_Part(const Page_Sizes &sizes) : counts(sizes, Trace_Counts::Pages::left_out), accesses(sizes) {}
    void start(const QTRACE_FILE_HDR *context); // reading begins here
    void begin(const QTRACE_FILE_HDR *context); // it goes on here
    void header(const QTRACE_Item &item);
    void record(const QTRACE_Item &item);
    // `next`: number of the next record; `context`: the header in force from there on.
    void loss(uint64_t next, const std::string &text, const QTRACE_FILE_HDR *context);

    Trace_Counts counts;
    Access_List accesses;
    std::vector<std::string> losses; // of each loss in `accesses` why; empty where nothing is missing
    std::vector<std::string> damage; // as the reader described it
};

// A place where tracing does not simply go on.
struct Report_Gap {
    uint64_t record; // the next one
    std::string text;
};

class Thread_Data
{
public:
    // `first` and `end`: numbers of the records that are read, for the bins of time. Call finish() before figures are
    // asked for.
    Thread_Data(std::string name, const Page_Sizes &sizes, uint64_t first, uint64_t end);
    Thread_Data(const Thread_Data &) = delete;

    // The parts of a file in their order.
    void add(const Report_Part &part);
    void finish();

    uint64_t bin_records() const { return bin_records_; }
    size_t bins() const { return last_bin_ + 1; }
    uint64_t first() const { return first_; }
    uint64_t end() const { return end_; }

    std::string name;
    std::vector<std::string> damage; // as the reader described it; the first ones
    uint64_t damaged_places = 0;
    bool clean_end = true;
    bool is_part = false; // only some records were to be read
    Trace_Counts counts;
    Heat_Map fetches, reads, writes;
    std::map<Partition_Key, std::array<uint32_t, REPORT_BINS>> processes; // instructions by time
    uint64_t unlisted_processes = 0; // instructions of processes beyond those of the map
    std::vector<Report_Gap> gaps;    // the first ones
    uint64_t gap_count = 0;
    std::array<std::array<uint32_t, std::size(WORKING_SET_BITS)>, REPORT_BINS> working_set{};
    Frequent_Keys addresses, data_pages;                  // instructions; accesses by 64 KiB
    std::unordered_map<uint64_t, uint64_t> first_record;  // of those 64 KiB
    std::unordered_map<uint64_t, Branch_Counts> branches; // by address
    uint64_t unlisted_branches = 0;                       // executions of branches beyond those of the map

    // Address bits that all pages have in a model; none: as traced. They stop together when they would grow too large.
    static constexpr std::optional<uint8_t> MODEL_PAGES[] = {{}, 12, 16, 21};
    static constexpr size_t MODELS = std::size(MODEL_PAGES);
    static Tlb_Options model_options(size_t model);
    const Tlb_Figures &figures(size_t model) const { return figures_[model]; }
    uint64_t modelled() const { return figures_[0].instructions; }

private:
    void header(const Access_Entry &entry);
    void loss(const Access_Entry &entry, const std::string &text);
    void record(const Access_Entry &entry);
    void enter_process(const Access_Entry &entry);
    void add_gap(uint64_t record, const std::string &text);
    void count_branch(const Access_Entry &entry);
    void count_data(const Access_Entry &entry);
    void start_bin(size_t bin);

    bool models_full() const;

    std::deque<Tlb_Model> models_;
    Tlb_Feed feed_;
    std::vector<Tlb_Figures> figures_;
    bool modelling_ = true;
    uint64_t first_, end_, bin_records_;
    size_t last_bin_ = 0;
    std::array<Distinct_Keys, std::size(WORKING_SET_BITS)> distinct_;
    uint64_t last_fetch_page_ = NO_PLACE,
             last_data_page_ = NO_PLACE; // 4 KiB pages, added to the working set already
    std::array<uint32_t, REPORT_BINS> *process_ = nullptr;
    bool header_seen_ = false;
};

} // namespace qtrace_tool
