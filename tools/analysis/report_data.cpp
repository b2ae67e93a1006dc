#include "report_data.h"

#include "instruction_kinds.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

namespace qtrace_tool
{

// ---- Heat maps -----------------------------------------------------------------------------------------

void Heat_Map::count(uint64_t address, size_t bin)
{
    const uint64_t first = address >> bits_ << bits_;
    if (first != last_first_) {
        last_row_ = &rows_[first];
        last_first_ = first;
    }
    (*last_row_)[bin]++;
    if (rows_.size() > MOST_ROWS)
        merge_pairs();
}

void Heat_Map::merge_pairs()
{
    bits_++;
    std::map<uint64_t, Row> merged;
    for (const auto &[first, row] : rows_) {
        Row &to = merged[first >> bits_ << bits_];
        for (size_t bin = 0; bin < REPORT_BINS; bin++)
            to[bin] += row[bin];
    }
    rows_ = std::move(merged);
    last_first_ = NO_PLACE;
}

void Heat_Map::shrink(size_t most)
{
    while (rows_.size() > most)
        merge_pairs();
}

// ---- Distinct keys -------------------------------------------------------------------------------------

void Distinct_Keys::start()
{
    round_++;
    count_ = 0;
}

void Distinct_Keys::add(uint64_t key)
{
    if (count_ == MOST)
        return;
    size_t place = (key * 0x9E3779B97F4A7C15u) >> 47; // 17 bits
    while (slots_[place].round == round_ && slots_[place].key != key)
        place = (place + 1) % slots_.size();
    count_ += slots_[place].round != round_;
    slots_[place] = {key, round_};
}

// ---- A group of blocks ---------------------------------------------------------------------------------

void Report_Part::start(const QTRACE_FILE_HDR *context)
{
    counts.loss(context);
    if (context == nullptr)
        return;
    accesses.loss(0, context);
    losses.emplace_back();
}

void Report_Part::begin(const QTRACE_FILE_HDR *context)
{
    counts.begin(context);
}

void Report_Part::header(const QTRACE_Item &item)
{
    counts.header(item.header);
    accesses.header(item);
}

void Report_Part::record(const QTRACE_Item &item)
{
    counts.record(item);
    Access_Entry &entry = accesses.record(item);
    entry.store = trace::instruction_info(item.record.header.instruction).kind == trace::Instruction_Kind::store;
    entry.branch = trace::branch_outcome(item.record, item.address);
}

void Report_Part::loss(uint64_t next, const std::string &text, const QTRACE_FILE_HDR *context)
{
    counts.loss(context);
    accesses.loss(next, context);
    losses.push_back(text);
}

// ---- A thread ------------------------------------------------------------------------------------------

namespace
{

constexpr size_t MOST_GAPS = 100, MOST_PROCESSES = 256, MOST_BRANCHES = 32768, MOST_DATA_PAGES = 65536;
constexpr size_t MOST_MODEL_ENTRIES = 20000;

} // namespace

Tlb_Options Thread_Data::model_options(size_t model)
{
    Tlb_Options options;
    options.page_bits = MODEL_PAGES[model];
    return options;
}

static std::deque<Tlb_Model> make_models()
{
    std::deque<Tlb_Model> models;
    for (size_t model = 0; model < Thread_Data::MODELS; model++)
        models.emplace_back(Thread_Data::model_options(model));
    return models;
}

static std::vector<Tlb_Model *> pointers_to(std::deque<Tlb_Model> &models)
{
    std::vector<Tlb_Model *> pointers;
    pointers.reserve(models.size());
    for (Tlb_Model &model : models)
        pointers.push_back(&model);
    return pointers;
}

Thread_Data::Thread_Data(std::string thread_name, const Page_Sizes &sizes, uint64_t first, uint64_t end)
    : name(std::move(thread_name)), counts(sizes, Trace_Counts::Pages::left_out), models_(make_models()),
      feed_(pointers_to(models_)), first_(first), end_(end),
      bin_records_(std::max<uint64_t>(1, (end - first + REPORT_BINS - 1) / REPORT_BINS))
{
    for (Distinct_Keys &keys : distinct_)
        keys.start();
}

static constexpr size_t DAMAGE_LISTED = 3;

void Thread_Data::add(const Report_Part &part)
{
    counts.append(part.counts);
    damaged_places += part.damage.size();
    const size_t taken = std::min(part.damage.size(), DAMAGE_LISTED - damage.size());
    damage.insert(damage.end(), part.damage.begin(), part.damage.begin() + taken);
    for (auto text = part.losses.begin(); const Access_Entry &entry : part.accesses.entries()) {
        if (modelling_)
            feed_.take(entry, part.accesses);
        if (entry.kind == Access_Entry::Kind::record)
            record(entry);
        else if (entry.kind == Access_Entry::Kind::header)
            header(entry);
        else
            loss(entry, *text++);
    }
}

void Thread_Data::add_gap(uint64_t record, const std::string &text)
{
    gap_count++;
    if (gaps.size() < MOST_GAPS)
        gaps.push_back({record, text});
}

void Thread_Data::loss(const Access_Entry &entry, const std::string &text)
{
    if (!text.empty())
        add_gap(entry.record, text);
    if (entry.known)
        enter_process(entry);
}

void Thread_Data::header(const Access_Entry &entry)
{
    const bool full = entry.next != NO_ADDRESS;
    if (full && header_seen_)
        add_gap(entry.record, "tracing was paused and resumed");
    header_seen_ |= full;
    enter_process(entry);
}

void Thread_Data::enter_process(const Access_Entry &entry)
{
    const Partition_Key key{entry.address, static_cast<uint32_t>(entry.data_address)};
    const bool listed = processes.size() < MOST_PROCESSES || processes.contains(key);
    process_ = listed ? &processes[key] : nullptr;
}

void Thread_Data::start_bin(size_t bin)
{
    last_bin_ = bin;
    last_fetch_page_ = last_data_page_ = NO_PLACE;
    for (Distinct_Keys &keys : distinct_)
        keys.start();
}

bool Thread_Data::models_full() const
{
    const Tlb_Figures &figures = models_.front().figures();
    return figures.pages.sample().size() + figures.instructions_at.table().size() > MOST_MODEL_ENTRIES ||
           models_[1].figures().pages.sample().size() > MOST_MODEL_ENTRIES;
}

void Thread_Data::record(const Access_Entry &entry)
{
    const size_t bin = std::min<uint64_t>((entry.record - first_) / bin_records_, REPORT_BINS - 1);
    if (bin != last_bin_)
        start_bin(bin);
    modelling_ = modelling_ && !models_full();
    process_ != nullptr ? (*process_)[bin]++ : unlisted_processes++;
    if (entry.known) {
        fetches.count(entry.address, bin);
        addresses.add(entry.address);
        count_branch(entry);
        if (entry.address >> 12 != last_fetch_page_)
            for (size_t i = 0; i < distinct_.size(); i++)
                distinct_[i].add(entry.address >> WORKING_SET_BITS[i]);
        last_fetch_page_ = entry.address >> 12;
    }
    if (entry.data != NO_ADDRESS)
        count_data(entry);
    for (size_t i = 0; i < distinct_.size(); i++)
        working_set[bin][i] = distinct_[i].count();
}

void Thread_Data::count_branch(const Access_Entry &entry)
{
    if (entry.branch != trace::Branch_Outcome::taken && entry.branch != trace::Branch_Outcome::not_taken)
        return;
    if (branches.size() >= MOST_BRANCHES && !branches.contains(entry.address)) {
        unlisted_branches++;
        return;
    }
    Branch_Counts &branch = branches[entry.address];
    branch.times++;
    branch.taken += entry.branch == trace::Branch_Outcome::taken;
}

void Thread_Data::count_data(const Access_Entry &entry)
{
    const uint64_t address = entry.data_address;
    (entry.store ? writes : reads).count(address, last_bin_);
    data_pages.add(address >> 16 << 16);
    if (address >> 12 == last_data_page_)
        return;
    last_data_page_ = address >> 12;
    if (first_record.size() < MOST_DATA_PAGES)
        first_record.try_emplace(address >> 16 << 16, entry.record);
    for (size_t i = 0; i < distinct_.size(); i++)
        distinct_[i].add(address >> WORKING_SET_BITS[i]);
}

void Thread_Data::finish()
{
    for (Tlb_Model &model : models_)
        figures_.push_back(model.take());
    models_.clear();
    for (Distinct_Keys &keys : distinct_)
        keys = Distinct_Keys(0);
}

} // namespace qtrace_tool
