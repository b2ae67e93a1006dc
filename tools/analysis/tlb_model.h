// A model of TLBs and walk caches: it is told of the accesses of one hardware thread in their order, and counts what
// their translation costs.
#pragma once

#include "tlb_figures.h"
#include "tlb_lru.h"
#include "translation.h"

#include <deque>
#include <limits>
#include <optional>

namespace qtrace_tool
{

inline constexpr uint64_t AFTER_SWITCH = 1000; // instructions that count as those after a switch

struct Tlb_Size {
    uint32_t entries, ways;
};

struct Tlb_Options {
    std::vector<Tlb_Size> levels{{64, 4}, {1536, 12}};
    bool split = false; // the first level is one TLB for fetches and one for data, of that size each
    size_t walk_cache = 16, nested_cache = 16; // entries
    std::optional<uint8_t> page_bits;          // every page has this size; without: as the trace says
    bool flush_on_switch = false;
    uint64_t interval = 0; // instructions; 0: no series
    Tlb_Limits limits;
};

enum class Access_Side : uint8_t { fetch, data };

class Tlb_Model
{
public:
    explicit Tlb_Model(const Tlb_Options &options);

    // The next instruction, at `address`; its accesses follow.
    void instruction(uint64_t address);
    void access(Access_Side side, uint64_t address, const Translation &translation);
    void untranslated(Access_Side side) { figures_.untranslated[index(side)]++; }
    void not_known(Access_Side side) { figures_.not_known[index(side)]++; }
    void suspect() { figures_.suspect++; }
    // The following instructions belong to `partition`.
    void switch_to(const Partition_Key &partition);

    // The counts up to here. To be called once, at the end.
    const Tlb_Figures &finish();
    // The same, for the caller to keep; nothing else may be asked for then.
    Tlb_Figures take()
    {
        finish();
        return std::move(figures_);
    }
    // The counts so far.
    const Tlb_Figures &figures() const { return figures_; }

private:
    // Levels with the same pages in them: those of the model, and those with larger pages beside it.
    struct Hierarchy {
        std::vector<Tlb_Level> levels; // with --split the first two are the first level
        bool split;
        Hierarchy(const std::vector<Tlb_Size> &sizes, bool split);
        Tlb_Level &level(size_t i, Access_Side side)
        {
            return levels[split ? i + (i > 0 || side == Access_Side::data) : i];
        }
        size_t depth() const { return levels.size() - split; }
    };
    static constexpr uint32_t UNSAMPLED = std::numeric_limits<uint32_t>::max();
    // A page and the region that it is in, or itself when it is as large.
    struct Used_Page {
        Hashed_Page name, large;
        uint32_t number; // in figures_.pages; or UNSAMPLED
        bool is_small() const { return name.page.bits < REGION_BITS; }
    };
    static size_t index(Access_Side side) { return static_cast<size_t>(side); }

    const Used_Page &use_page(Access_Side side, const Tlb_Page &page, uint64_t real);
    uint32_t number_of(const Used_Page &page, uint64_t real);
    void thin_pages();
    void drop_remapped(const Used_Page &page, uint64_t real);
    bool drop_other(const Used_Page &page, uint64_t real);
    void charge(const Used_Page &page, const Tlb_Cost &cost);
    void count_distance(Access_Side side, uint32_t page);
    bool look_up(Access_Side side, const Used_Page &page, uint64_t real);
    void look_up_large(Access_Side side, const Used_Page &page);
    void walk(const Translation &translation, const Used_Page &page);
    void read_host_walk(Walk_Figures &kind, const Table_Walk &walk, size_t step);
    void read_entry(Walk_Figures &kind, uint64_t address, Walk_Stage stage, size_t level, bool last);
    void flush();

    Tlb_Options options_;
    Tlb_Figures figures_;
    Hierarchy tlb_, large_tlb_;
    std::deque<uint64_t> reals_;                   // real pages, by number in figures_.pages
    std::array<Tlb_Cost *, 64> size_costs_{};      // by power of two, in figures_.page_sizes
    std::array<std::optional<Used_Page>, 2> last_; // page of the last access of each side
    std::vector<Lru_Distances> distances_;
    Lru_Keys walk_cache_, nested_cache_;
    std::optional<Partition_Key> partition_;
    Tlb_Cost *partition_cost_ = nullptr, *process_cost_ = nullptr;
    uint64_t address_ = 0;                 // of the instruction
    uint64_t since_switch_ = AFTER_SWITCH; // instructions, at most AFTER_SWITCH
    bool after_switch_ = false;
    Tlb_Interval interval_;
};

} // namespace qtrace_tool
