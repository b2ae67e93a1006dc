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
    : options_(options), figures_(options.limits), tlb_(options.levels, options.split),
      large_tlb_(options.levels, options.split), distances_(options.split ? 2 : 1), walk_cache_(options.walk_cache),
      nested_cache_(options.nested_cache)
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

const Tlb_Model::Used_Page &Tlb_Model::use_page(Access_Side side, const Tlb_Page &page, uint64_t real)
{
    const std::optional<Used_Page> &last = last_[index(side)];
    if (last && last->name.page == page)
        return *last;
    Used_Page used{Hashed_Page(page), Hashed_Page(page), UNSAMPLED};
    if (used.is_small())
        used.large = Hashed_Page(resized(page, page.first, REGION_BITS));
    if (size_costs_[page.bits] == nullptr)
        size_costs_[page.bits] = &figures_.page_sizes[page.bits];
    used.number = number_of(used, real);
    return last_[index(side)].emplace(used);
}

uint32_t Tlb_Model::number_of(const Used_Page &page, uint64_t real)
{
    if (!figures_.pages.is_sampled(page.name.page))
        return UNSAMPLED;
    const uint32_t number = figures_.pages.number(page.name.page);
    if (number < reals_.size())
        return number;
    reals_.push_back(real);
    if (!options_.page_bits)
        figures_.regions[page.large.page].pages += page.is_small() ? uint64_t{1} << figures_.pages.shift() : 0;
    if (!figures_.pages.is_full())
        return number;
    thin_pages();
    return number_of(page, real);
}

// Beyond the limit only a sample of the pages is gone on with.
void Tlb_Model::thin_pages()
{
    std::vector<uint32_t> kept;
    figures_.pages.thin([&](uint32_t number) {
        reals_[kept.size()] = reals_[number];
        kept.push_back(number);
    });
    reals_.resize(kept.size());
    for (Lru_Distances &distances : distances_)
        distances.keep(kept);
    last_ = {}; // which have other numbers now
}

// Pages beside the sample are known only while a TLB has them; others miss anyway.
bool Tlb_Model::drop_other(const Used_Page &page, uint64_t real)
{
    if (page.number == UNSAMPLED) {
        for (Tlb_Level &level : tlb_.levels)
            level.drop_other(page.name, real);
        return false;
    }
    if (reals_[page.number] == real)
        return false;
    reals_[page.number] = real;
    for (Tlb_Level &level : tlb_.levels)
        level.drop(page.name);
    return true;
}

// A page that has another real page than before: its entry was invalidated in between.
void Tlb_Model::drop_remapped(const Used_Page &page, uint64_t real)
{
    if (options_.page_bits || !drop_other(page, real))
        return;
    figures_.remapped += uint64_t{1} << figures_.pages.shift();
    for (Lru_Distances &distances : distances_)
        distances.forget(page.number);
}

// ---- Look-ups ------------------------------------------------------------------------------------------

void Tlb_Model::access(Access_Side side, uint64_t address, const Translation &translation)
{
    const Used_Page &page = use_page(
        side, options_.page_bits ? resized(translation.page, address, *options_.page_bits) : translation.page,
        translation.real);
    drop_remapped(page, translation.real);
    figures_.translated[index(side)]++;
    count_distance(side, page.number);
    const uint64_t read_before = figures_.read_entries;
    const bool missed = !look_up(side, page, translation.real);
    if (missed) {
        figures_.walks_of[index(side)]++;
        walk(translation, page);
    }
    if (!options_.page_bits)
        look_up_large(side, page);
    charge(page, {1, missed, figures_.read_entries - read_before});
}

void Tlb_Model::charge(const Used_Page &page, const Tlb_Cost &cost)
{
    if (page.number == UNSAMPLED)
        figures_.pages.add(page.name.page, cost);
    else
        figures_.pages.add_to(page.number, cost);
    *size_costs_[page.name.page.bits] += cost;
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
    if (page == UNSAMPLED)
        figures_.distances[which].count_unsampled();
    else
        figures_.distances[which].count(distances_[which].use(page), figures_.pages.shift());
}

bool Tlb_Model::look_up(Access_Side side, const Used_Page &page, uint64_t real)
{
    size_t level = 0;
    for (; level < tlb_.depth(); level++) {
        figures_.levels[level].lookups++;
        if (tlb_.level(level, side).touch(page.name))
            break;
        figures_.levels[level].misses++;
    }
    const bool hit = level < tlb_.depth();
    while (level-- > 0)
        tlb_.level(level, side).insert(page.name, real);
    return hit;
}

// The same accesses where every small page is one of the size of a region.
void Tlb_Model::look_up_large(Access_Side side, const Used_Page &page)
{
    size_t level = 0;
    while (level < large_tlb_.depth() && !large_tlb_.level(level, side).touch(page.large))
        level++;
    if (level == large_tlb_.depth() && page.is_small())
        figures_.regions[page.large.page].walks_if_one++;
    while (level-- > 0)
        large_tlb_.level(level, side).insert(page.large, 0); // real pages are not compared
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

void Tlb_Model::walk(const Translation &translation, const Used_Page &page)
{
    const Table_Walk &walk = translation.walk;
    Walk_Figures &kind = figures_.kinds[static_cast<size_t>(translation.page.kind)];
    kind.walks++;
    kind.entries += entries_of(walk);
    if (page.is_small() && !options_.page_bits)
        figures_.regions[page.large.page].walks++;
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
