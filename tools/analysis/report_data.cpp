#include "report_data.h"

#include "instruction_kinds.h"

#include <algorithm>
#include <fmt/format.h>

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
    last_first_ = 1;
}

void Heat_Map::shrink(size_t most)
{
    while (rows_.size() > most && bits_ < 60)
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

Thread_Data::Thread_Data(std::string thread_name, const Page_Sizes &sizes, uint64_t records)
    : name(std::move(thread_name)), counts(sizes),
      bin_records_(std::max<uint64_t>(1, (records + REPORT_BINS - 1) / REPORT_BINS))
{
    for (size_t model = 0; model < MODELS; model++)
        models_.emplace_back(model, sizes);
    for (Distinct_Keys &keys : distinct_)
        keys.start();
}

void Thread_Data::item(const QTRACE_Item &item)
{
    item.kind == QTRACE_ITEM_HEADER ? header(item) : record(item);
}

void Thread_Data::loss(uint64_t next, const std::string &text, const QTRACE_FILE_HDR *context)
{
    counts.loss(context);
    for (Model &model : models_)
        model.feed.loss(context);
    gap_count++;
    if (gaps.size() < MOST_GAPS)
        gaps.push_back({next, text});
}

void Thread_Data::header(const QTRACE_Item &item)
{
    counts.header(item.header);
    for (Model &model : models_)
        if (modelling_)
            model.feed.header(item.header);
    const bool full = item.header.control.iar_is_present;
    if (full && header_seen_) {
        gap_count++;
        if (gaps.size() < MOST_GAPS)
            gaps.push_back({item.record_number, "tracing was paused and resumed"});
    }
    header_seen_ |= full;
    const Partition_Key key{trace::number(item.header.lpid), trace::number(item.header.pid)};
    const bool listed = processes.size() < MOST_PROCESSES || processes.contains(key);
    process_ = listed ? &processes[key] : nullptr;
}

void Thread_Data::start_bin(size_t bin)
{
    last_bin_ = bin;
    last_fetch_page_ = last_data_page_ = 1;
    for (Distinct_Keys &keys : distinct_)
        keys.start();
}

bool Thread_Data::models_full() const
{
    const Tlb_Figures &figures = models_.front().tlb.figures();
    return figures.pages.size() + figures.instructions_at.size() > MOST_MODEL_ENTRIES ||
           models_[1].tlb.figures().pages.size() > MOST_MODEL_ENTRIES;
}

void Thread_Data::record(const QTRACE_Item &item)
{
    const size_t bin = std::min<uint64_t>(item.record_number / bin_records_, REPORT_BINS - 1);
    if (bin != last_bin_)
        start_bin(bin);
    counts.record(item);
    for (Model &model : models_)
        if (modelling_)
            model.feed.record(item);
    modelling_ = modelling_ && !models_full();
    process_ != nullptr ? (*process_)[bin]++ : unlisted_processes++;
    if (item.address_known) {
        fetches.count(item.address, bin);
        addresses.add(item.address);
        count_branch(item);
        if (item.address >> 12 != last_fetch_page_)
            for (size_t i = 0; i < distinct_.size(); i++)
                distinct_[i].add(item.address >> WORKING_SET_BITS[i]);
        last_fetch_page_ = item.address >> 12;
    }
    if (item.record.header.control.fld.data_address_present)
        count_data(item);
    for (size_t i = 0; i < distinct_.size(); i++)
        working_set[bin][i] = distinct_[i].count();
}

void Thread_Data::count_branch(const QTRACE_Item &item)
{
    const trace::Branch_Outcome outcome = trace::branch_outcome(item.record, item.address);
    if (outcome != trace::Branch_Outcome::taken && outcome != trace::Branch_Outcome::not_taken)
        return;
    if (branches.size() >= MOST_BRANCHES && !branches.contains(item.address)) {
        unlisted_branches++;
        return;
    }
    Branch_Counts &branch = branches[item.address];
    branch.times++;
    branch.taken += outcome == trace::Branch_Outcome::taken;
}

void Thread_Data::count_data(const QTRACE_Item &item)
{
    const uint64_t address = trace::number(item.record.data_ea);
    const bool store =
        trace::instruction_info(item.record.header.instruction).kind == trace::Instruction_Kind::store;
    (store ? writes : reads).count(address, last_bin_);
    data_pages.add(address >> 16 << 16);
    if (address >> 12 == last_data_page_)
        return;
    last_data_page_ = address >> 12;
    if (first_record.size() < MOST_DATA_PAGES)
        first_record.try_emplace(address >> 16 << 16, item.record_number);
    for (size_t i = 0; i < distinct_.size(); i++)
        distinct_[i].add(address >> WORKING_SET_BITS[i]);
}

void Thread_Data::finish()
{
    for (Model &model : models_)
        figures_.push_back(model.tlb.take());
    models_.clear();
    for (Distinct_Keys &keys : distinct_)
        keys = Distinct_Keys(0);
}

} // namespace qtrace_tool
