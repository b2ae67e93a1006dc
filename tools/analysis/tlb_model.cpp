#include "tlb_model.h"

namespace qtrace_tool
{

static Tlb_Page resized(const Tlb_Page &page, uint64_t address, uint8_t bits)
{
    return {address >> bits << bits, page.space, page.lpid, page.kind, bits};
}

Tlb_Model::Hierarchy::Hierarchy(const std::vector<Tlb_Size> &sizes, bool split_first) : split(split_first)
{
    for (size_t i = 0; i < sizes.size(); i++)
        for (int copies = i == 0 && split ? 2 : 1; copies > 0; copies--)
            levels.emplace_back(sizes[i].entries, sizes[i].ways);
}

Tlb_Model::Tlb_Model(const Tlb_Options &options)
    : options_(options), tlb_(options.levels, options.split), large_tlb_(options.levels, options.split),
      distances_(options.split ? 2 : 1), walk_cache_(options.walk_cache), nested_cache_(options.nested_cache)
{
    figures_.levels.resize(options.levels.size());
    figures_.distances.resize(distances_.size());
}

// ---- Instructions and partitions -----------------------------------------------------------------------

void Tlb_Model::instruction(uint64_t address)
{
    if (options_.interval != 0 && interval_.instructions == options_.interval) {
        figures_.series.push_back(interval_);
        interval_ = {};
    }
    address_ = address;
    interval_.instructions++;
    figures_.instructions++;
    after_switch_ = since_switch_ < AFTER_SWITCH;
    since_switch_ += after_switch_;
    figures_.after_switch.instructions += after_switch_;
}

void Tlb_Model::switch_to(const Partition_Key &partition)
{
    if (partition_ == partition)
        return;
    if (partition_) {
        figures_.switches++;
        figures_.partition_switches += partition_->lpid != partition.lpid;
        since_switch_ = 0;
        if (options_.flush_on_switch)
            flush();
    }
    partition_ = partition;
    partition_cost_ = &figures_.partitions[partition.lpid];
    process_cost_ = &figures_.processes[partition];
}

void Tlb_Model::flush()
{
    for (Tlb_Level &level : tlb_.levels)
        level.clear();
    for (Tlb_Level &level : large_tlb_.levels)
        level.clear();
    for (Lru_Distances &distances : distances_)
        distances.clear();
    walk_cache_.clear();
    nested_cache_.clear();
}

const Tlb_Figures &Tlb_Model::finish()
{
    if (options_.interval != 0 && interval_.instructions != 0)
        figures_.series.push_back(interval_);
    for (size_t i = 0; i < tlb_.levels.size(); i++) {
        Level_Figures &level = figures_.levels[tlb_.split && i > 0 ? i - 1 : i];
        level.reach += tlb_.levels[i].reach();
        level.most_reach += tlb_.levels[i].most_reach();
    }
    return figures_;
}

// ---- Pages ---------------------------------------------------------------------------------------------

uint32_t Tlb_Model::page_number(Access_Side side, const Tlb_Page &page, uint64_t real)
{
    auto &[last_page, last_number] = last_[index(side)];
    if (has_last_[index(side)] && last_page == page)
        return last_number;
    last_page = page;
    last_number = figures_.pages.number(page);
    has_last_[index(side)] = true;
    if (last_number == pages_.size())
        new_page(page, real);
    return last_number;
}

void Tlb_Model::new_page(const Tlb_Page &page, uint64_t real)
{
    Page_State state{real, 0, page.bits < REGION_BITS};
    size_costs_[page.bits] = &figures_.page_sizes[page.bits];
    if (!options_.page_bits) {
        state.large = figures_.regions.number(state.is_small ? resized(page, page.first, REGION_BITS) : page);
        figures_.regions.value(state.large).pages += state.is_small;
    }
    pages_.push_back(state);
}

// A page that has another real page than before: its entry was invalidated in between.
void Tlb_Model::drop_remapped(uint32_t page, uint64_t real)
{
    if (options_.page_bits || pages_[page].real == real)
        return;
    pages_[page].real = real;
    figures_.remapped++;
    for (Tlb_Level &level : tlb_.levels)
        level.drop(page);
    for (Lru_Distances &distances : distances_)
        distances.forget(page);
}

// ---- Look-ups ------------------------------------------------------------------------------------------

void Tlb_Model::access(Access_Side side, uint64_t address, const Translation &translation)
{
    const Tlb_Page page =
        options_.page_bits ? resized(translation.page, address, *options_.page_bits) : translation.page;
    const uint32_t number = page_number(side, page, translation.real);
    drop_remapped(number, translation.real);
    figures_.translated[index(side)]++;
    count_distance(side, number);
    const uint64_t read_before = figures_.read_entries;
    const bool missed = !look_up(side, number, page);
    const Page_State &state = pages_[number];
    if (missed) {
        figures_.walks_of[index(side)]++;
        walk(translation, state);
    }
    if (!options_.page_bits)
        look_up_large(side, state, page);
    charge(number, {1, missed, figures_.read_entries - read_before});
}

void Tlb_Model::charge(uint32_t number, const Tlb_Cost &cost)
{
    figures_.pages.value(number) += cost;
    *size_costs_[figures_.pages.key(number).bits] += cost;
    interval_.cost += cost;
    if (after_switch_)
        figures_.after_switch.cost += cost;
    if (partition_) {
        *partition_cost_ += cost;
        *process_cost_ += cost;
    }
    if (cost.walks > 0)
        figures_.instructions_at[address_] += cost;
}

void Tlb_Model::count_distance(Access_Side side, uint32_t page)
{
    const size_t which = options_.split ? index(side) : 0;
    figures_.distances[which].count(distances_[which].use(page));
}

bool Tlb_Model::look_up(Access_Side side, uint32_t number, const Tlb_Page &page)
{
    size_t level = 0;
    for (; level < tlb_.depth(); level++) {
        figures_.levels[level].lookups++;
        if (tlb_.level(level, side).touch(number))
            break;
        figures_.levels[level].misses++;
    }
    const bool hit = level < tlb_.depth();
    while (level-- > 0)
        tlb_.level(level, side).insert(number, page.first >> page.bits, uint64_t{1} << page.bits);
    return hit;
}

// The same accesses where every small page is one of the size of a region.
void Tlb_Model::look_up_large(Access_Side side, const Page_State &state, const Tlb_Page &page)
{
    const uint8_t bits = state.is_small ? REGION_BITS : page.bits;
    size_t level = 0;
    while (level < large_tlb_.depth() && !large_tlb_.level(level, side).touch(state.large))
        level++;
    if (level == large_tlb_.depth() && state.is_small)
        figures_.regions.value(state.large).walks_if_one++;
    while (level-- > 0)
        large_tlb_.level(level, side).insert(state.large, page.first >> bits, uint64_t{1} << bits);
}

// ---- Walks ---------------------------------------------------------------------------------------------

static uint64_t entries_of(const Table_Walk &walk)
{
    uint64_t entries = walk.steps == 0 ? 0 : walk.steps - 1;
    for (size_t step = 0; step < walk.steps; step++)
        for (size_t level = 0; level < WALK_LEVELS; level++)
            entries += walk.host[step][level] != 0 || level == WALK_LEVELS - 1;
    return entries;
}

void Tlb_Model::walk(const Translation &translation, const Page_State &state)
{
    const Table_Walk &walk = translation.walk;
    Walk_Figures &kind = figures_.kinds[static_cast<size_t>(translation.page.kind)];
    kind.walks++;
    kind.entries += entries_of(walk);
    if (state.is_small && !options_.page_bits)
        figures_.regions.value(state.large).walks++;
    for (size_t step = 0; step < walk.steps; step++) {
        const bool cached = translation.page.kind != Xlate_Kind::host &&
                            nested_cache_.use({translation.page.lpid, walk.guest_real[step] >> 12});
        if (cached)
            figures_.nested_cache_hits++;
        else
            read_host_walk(kind, walk, step);
        const size_t guest_level = step + 2 == walk.steps ? WALK_LEVELS - 1 : step;
        if (step + 1 < walk.steps)
            read_entry(kind, walk.guest_entry[step], Walk_Stage::guest, guest_level, step + 2 == walk.steps);
    }
}

void Tlb_Model::read_host_walk(Walk_Figures &kind, const Table_Walk &walk, size_t step)
{
    for (size_t level = 0; level + 1 < WALK_LEVELS; level++)
        if (walk.host[step][level] != 0)
            read_entry(kind, walk.host[step][level], Walk_Stage::host, level, false);
    read_entry(kind, walk.host[step][WALK_LEVELS - 1], Walk_Stage::host, WALK_LEVELS - 1, step + 1u == walk.steps);
}

// `last`: the entry ends its stage's walk of the access itself, and goes into the TLB rather than the walk cache.
void Tlb_Model::read_entry(Walk_Figures &kind, uint64_t address, Walk_Stage stage, size_t level, bool last)
{
    if (!last && walk_cache_.use({0, address})) {
        figures_.walk_cache_hits++;
        return;
    }
    kind.reads[static_cast<size_t>(stage)][level]++;
    figures_.read_entries++;
}

} // namespace qtrace_tool
