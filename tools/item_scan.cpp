#include "item_scan.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace qtrace_tool
{

using namespace trace;

namespace
{

struct Group {
    uint64_t first_block, blocks;
    bool rises;       // record numbers do
    bool at_start;    // the first one that is read
    uint64_t headers; // in the blocks and between them
};

// What came out of a group.
struct Group_Result {
    std::unique_ptr<Item_Sink> sink;
    std::vector<std::string> losses;
    std::string error; // that ended the reading
    uint64_t items = 0;
    bool unwanted = false; // nothing more of it is
    std::exception_ptr exception;
};

bool overlaps(const QTRACE_Step &step, const Record_Range &range)
{
    return !range.ends_before(step.lowest_record) && step.highest_record_after >= range.first;
}

// Whether record numbers rise in so many steps, and from the one before them. They fall where one file follows another.
bool numbers_rise(std::span<const QTRACE_Step> steps, size_t first, size_t count)
{
    for (size_t i = first; i < first + count; i++)
        if (steps[i].lowest_record < (i > 0 ? steps[i - 1].record_after : 0) ||
            steps[i].lowest_record < steps[i].first_record || steps[i].highest_record_after > steps[i].record_after)
            return false;
    return true;
}

uint64_t blocks_in(std::span<const QTRACE_Step> steps)
{
    return steps.back().first_block + steps.back().blocks - steps.front().first_block;
}

// Groups begin at multiples of their size, wherever the range begins.
std::vector<Group> plan_groups(std::span<const QTRACE_Step> steps, const Scan_Options &options)
{
    const auto is_wanted = [&](const QTRACE_Step &step) {
        return overlaps(step, options.range) && (!options.headers_only || step.headers > 0);
    };
    std::vector<Group> groups;
    for (size_t first = 0; first < steps.size(); first += options.steps) {
        const auto group = steps.subspan(first, std::min<size_t>(options.steps, steps.size() - first));
        const uint64_t headers = group.back().header_after - group.front().first_header;
        if (std::ranges::any_of(group, is_wanted))
            groups.push_back({group.front().first_block, blocks_in(group), numbers_rise(steps, first, group.size()),
                              groups.empty(), headers});
    }
    if (steps.empty())
        groups.push_back({0, 0, true, true, 0});
    return groups;
}

// ---- Items one by one ----------------------------------------------------------------------------------

} // namespace

bool Range_Items::select(uint64_t first_block, uint64_t blocks, bool rises)
{
    rises_ = rises;
    const bool selected = reader_ != nullptr && qtrace_select_blocks(reader_.get(), first_block, blocks) == 0;
    error_ = selected ? "" : "out of memory";
    return selected;
}

// What was lost just before the range belongs to it.
bool Range_Items::is_before_range(const QTRACE_Item &item) const
{
    const uint64_t lost = item.kind == QTRACE_ITEM_DISCONTINUITY ? item.discontinuity.records : 0;
    return item.record_number < range_.first && range_.first - item.record_number > lost;
}

const QTRACE_Item *Range_Items::next_after(QTRACE_ITEM kind, const QTRACE_Item *item)
{
    for (; kind != QTRACE_ITEM_END && kind != QTRACE_ITEM_ERROR; kind = qtrace_next(reader_.get(), &item)) {
        const bool is_after_range = range_.ends_before(item->record_number);
        if (is_after_range && rises_)
            return nullptr;
        if (!is_after_range && !is_before_range(*item))
            return item;
    }
    if (kind == QTRACE_ITEM_ERROR)
        error_ = qtrace_error(reader_.get());
    return nullptr;
}

Item_Stream::Item_Stream(Tool_Run &run, const Trace_File &file, const Record_Range &range, bool silent)
    : run_(run), file_(file), range_(range), silent_(silent), items_(file.another_reader(), range)
{
    if (items_.reader() == nullptr)
        throw std::runtime_error("out of memory");
    pass_to_step(0);
}

// Selects the next steps in a row that overlap the range; none: then reading ends.
void Item_Stream::pass_to_step(size_t step)
{
    const std::span<const QTRACE_Step> steps = file_.steps();
    const auto is_wanted = [this](const QTRACE_Step &place) { return overlaps(place, range_); };
    const auto first = std::find_if(steps.begin() + static_cast<ptrdiff_t>(step), steps.end(), is_wanted);
    const auto end = std::find_if_not(first, steps.end(), is_wanted);
    next_step_ = static_cast<size_t>(end - steps.begin());
    const std::span<const QTRACE_Step> wanted(first, end);
    const bool rises = numbers_rise(steps, static_cast<size_t>(first - steps.begin()), wanted.size());
    (void)(wanted.empty() ? items_.select(0, 0)
                          : items_.select(wanted.front().first_block, blocks_in(wanted), rises));
}

void Item_Stream::pass_to_block(uint64_t block)
{
    const auto step = std::ranges::lower_bound(file_.steps(), block, {}, &QTRACE_Step::first_block);
    pass_to_step(static_cast<size_t>(step - file_.steps().begin()));
}

bool Item_Stream::seek(uint64_t record)
{
    next_step_ = file_.steps().size();
    return items_.seek(record);
}

const QTRACE_Item *Item_Stream::next_after(const QTRACE_Item *item)
{
    for (;; item = items_.next()) {
        if (item != nullptr && item->kind != QTRACE_ITEM_DISCONTINUITY)
            return item;
        if (item != nullptr)
            tell(item->discontinuity);
        else if (!items_.error().empty() || next_step_ == file_.steps().size())
            return end();
        else
            pass_to_step(next_step_);
    }
}

void Item_Stream::tell(const QTRACE_Discontinuity &what)
{
    if (!silent_ && is_damage(what))
        run_.warn(describe_loss(items_.reader(), what));
}

const QTRACE_Item *Item_Stream::end()
{
    if (!items_.error().empty() && !std::exchange(failed_, true))
        run_.fail(items_.error());
    return nullptr;
}

namespace
{

// Hands on what a full sink holds. False: nothing more is wanted of the group.
using Hand_Over = std::function<bool(Group_Result &result)>;

// Reads one group after the other with a reader of its own.
class Group_Reader
{
public:
    Group_Reader(Reader reader, const Record_Range &range) : items_(std::move(reader), range) {}
    Group_Result read(const Group &group, const std::function<std::unique_ptr<Item_Sink>()> &make,
                      const Hand_Over &hand_over);
    void read(const Group &group, Item_Sink &sink, Group_Result &result, const Hand_Over &hand_over);

private:
    void read_items(const Group &group, Item_Sink &sink, Group_Result &result, const Hand_Over &hand_over);
    const QTRACE_FILE_HDR *context_before(const QTRACE_Item &item) const;
    void deliver(const QTRACE_Item &item, Item_Sink &sink, Group_Result &result);
    void deliver_loss(const QTRACE_Item &item, Item_Sink &sink, Group_Result &result);

    Range_Items items_;
};

Group_Result Group_Reader::read(const Group &group, const std::function<std::unique_ptr<Item_Sink>()> &make,
                                const Hand_Over &hand_over)
{
    Group_Result result;
    try {
        result.sink = make();
        read(group, *result.sink, result, hand_over);
    } catch (...) {
        result.exception = std::current_exception();
    }
    return result;
}

void Group_Reader::read(const Group &group, Item_Sink &sink, Group_Result &result, const Hand_Over &hand_over)
{
    if (items_.select(group.first_block, group.blocks, group.rises)) {
        sink.read_by(items_.reader());
        read_items(group, sink, result, hand_over);
    }
    result.error = items_.error();
}

const QTRACE_FILE_HDR *Group_Reader::context_before(const QTRACE_Item &item) const
{
    const bool first = item.kind == QTRACE_ITEM_HEADER && item.header_number == 0;
    return first ? nullptr : items_.context();
}

void Group_Reader::read_items(const Group &group, Item_Sink &sink, Group_Result &result, const Hand_Over &hand_over)
{
    bool begun = false;
    while (const QTRACE_Item *item = items_.next()) {
        if (!begun)
            sink.begin({context_before(*item), group.at_start, group.headers});
        begun = true;
        if (!sink.wants_more())
            return;
        deliver(*item, sink, result);
        if (sink.is_full() && !hand_over(result))
            return;
    }
    if (!begun)
        sink.begin({nullptr, group.at_start, group.headers});
}

void Group_Reader::deliver(const QTRACE_Item &item, Item_Sink &sink, Group_Result &result)
{
    result.items++;
    if (item.kind == QTRACE_ITEM_RECORD)
        sink.record(item);
    else if (item.kind == QTRACE_ITEM_HEADER)
        sink.header(item);
    else if (item.discontinuity.cause == QTRACE_CAUSE_PAUSE)
        sink.pause(item);
    else
        deliver_loss(item, sink, result);
}

void Group_Reader::deliver_loss(const QTRACE_Item &item, Item_Sink &sink, Group_Result &result)
{
    if (is_damage(item.discontinuity)) {
        result.losses.push_back(describe_loss(items_.reader(), item.discontinuity));
        sink.loss(item, result.losses.back());
    } else {
        sink.loss(item, "");
    }
}

// ---- Merging in order ----------------------------------------------------------------------------------

class Scan
{
public:
    Scan(Tool_Run &run, Trace_File &file, const Scan_Options &options, const std::vector<Group> &groups)
        : run_(run), file_(file), options_(options), groups_(groups),
          progress_(run, file.name(), file.info().records)
    {
    }
    using Make = std::function<std::unique_ptr<Item_Sink>()>;
    using Merge = std::function<bool(Item_Sink &)>;
    bool run_alone(const Make &make, const Merge &merge);
    bool run_threads(unsigned threads, const Make &make, const Merge &merge);
    bool run_in_order(Item_Sink &sink);

private:
    // Groups that are read ahead of the merge, for each thread.
    static constexpr size_t AHEAD = 2;

    void tell_losses(const Group_Result &result);
    bool finish(const Group_Result &result);
    bool merge_part(Group_Result &result, const Merge &merge);
    bool merge_one(Group_Result &result, const Merge &merge);
    void work(unsigned threads, const Make &make);
    bool wait_for_merge(size_t number, Group_Result &result);
    bool merge_next(size_t number, const Merge &merge);
    Group_Result take(size_t number);
    void stop();

    Tool_Run &run_;
    Trace_File &file_;
    const Scan_Options &options_;
    const std::vector<Group> &groups_;
    Progress progress_;
    bool readable_ = true;

    std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    std::map<size_t, Group_Result> results_;
    std::map<size_t, Group_Result *> full_; // of groups that are being read; their threads wait
    size_t next_ = 0, merged_ = 0;
    bool stopped_ = false;
};

void Scan::tell_losses(const Group_Result &result)
{
    for (const std::string &loss : result.losses)
        if (!options_.silent)
            run_.warn(loss);
}

// False: no further group can be read or shown.
bool Scan::finish(const Group_Result &result)
{
    if (!result.error.empty())
        run_.fail(result.error);
    readable_ &= result.error.empty();
    progress_.step(result.items);
    return result.error.empty() && run_.out.error() == 0;
}

// Merges what a group has up to here. False: nothing more is wanted.
bool Scan::merge_part(Group_Result &result, const Merge &merge)
{
    tell_losses(result);
    const bool more = merge(*result.sink);
    result.unwanted = !finish(result) || !more;
    result.losses.clear();
    result.items = 0;
    result.sink->set_full(false);
    return !result.unwanted;
}

// False: no further group is wanted.
bool Scan::merge_one(Group_Result &result, const Merge &merge)
{
    if (result.exception)
        std::rethrow_exception(result.exception);
    return !result.unwanted && merge_part(result, merge);
}

bool Scan::run_in_order(Item_Sink &sink)
{
    Group_Reader reader(file_.another_reader(), options_.range);
    for (const Group &group : groups_) {
        Group_Result result;
        reader.read(group, sink, result, nullptr);
        tell_losses(result);
        if (!finish(result) || sink.has_all())
            break;
    }
    return readable_;
}

bool Scan::run_alone(const Make &make, const Merge &merge)
{
    Group_Reader reader(file_.another_reader(), options_.range);
    for (const Group &group : groups_) {
        Group_Result result = reader.read(group, make, [&](Group_Result &part) { return merge_part(part, merge); });
        if (!merge_one(result, merge))
            break;
    }
    return readable_;
}

void Scan::work(unsigned threads, const Make &make)
{
    Group_Reader reader(file_.another_reader(), options_.range);
    for (;;) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return stopped_ || next_ < merged_ + AHEAD * threads; });
        if (stopped_ || next_ == groups_.size())
            return;
        const size_t number = next_++;
        lock.unlock();
        Group_Result result = reader.read(
            groups_[number], make, [this, number](Group_Result &part) { return wait_for_merge(number, part); });
        lock.lock();
        results_.emplace(number, std::move(result));
        changed_.notify_all();
    }
}

// On a thread that reads. False: nothing more is wanted.
bool Scan::wait_for_merge(size_t number, Group_Result &result)
{
    std::unique_lock lock(mutex_);
    full_.emplace(number, &result);
    changed_.notify_all();
    changed_.wait(lock, [&] { return stopped_ || !full_.contains(number); });
    return !stopped_ && !result.unwanted;
}

// Merges the group, in parts when its sink was full. False: no further group is wanted.
bool Scan::merge_next(size_t number, const Merge &merge)
{
    for (std::unique_lock lock(mutex_);; changed_.notify_all()) {
        changed_.wait(lock, [&] { return results_.contains(number) || full_.contains(number); });
        const auto part = full_.find(number);
        if (part == full_.end())
            break;
        lock.unlock();
        const bool more = merge_part(*part->second, merge);
        lock.lock();
        full_.erase(part);
        if (!more)
            return false;
    }
    Group_Result result = take(number);
    return merge_one(result, merge);
}

Group_Result Scan::take(size_t number)
{
    const std::lock_guard lock(mutex_);
    Group_Result result = std::move(results_.extract(number).mapped());
    merged_ = number + 1;
    changed_.notify_all();
    return result;
}

void Scan::stop()
{
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
}

bool Scan::run_threads(unsigned threads, const Make &make, const Merge &merge)
{
    std::vector<std::jthread> workers;
    const std::unique_ptr<Scan, void (*)(Scan *)> stopper(this, [](Scan *scan) { scan->stop(); });
    for (unsigned i = 0; i < threads; i++)
        workers.emplace_back([this, threads, &make] { work(threads, make); });
    for (size_t number = 0; number < groups_.size(); number++)
        if (!merge_next(number, merge))
            break;
    return readable_;
}

} // namespace

bool scan_groups(Tool_Run &run, Trace_File &file, const Scan_Options &options,
                 const std::function<std::unique_ptr<Item_Sink>()> &make,
                 const std::function<bool(Item_Sink &)> &merge)
{
    const std::vector<Group> groups = plan_groups(file.steps(), options);
    const auto threads = static_cast<unsigned>(std::min<size_t>(options.jobs, groups.size()));
    Scan scan(run, file, options, groups);
    return threads <= 1 ? scan.run_alone(make, merge) : scan.run_threads(threads, make, merge);
}

bool scan_in_order(Tool_Run &run, Trace_File &file, const Record_Range &range, Item_Sink &sink)
{
    Scan_Options options;
    options.range = range;
    const std::vector<Group> groups = plan_groups(file.steps(), options);
    return Scan(run, file, options, groups).run_in_order(sink);
}

} // namespace qtrace_tool
