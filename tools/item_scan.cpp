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

// What was lost, and the part of the result that it is told with.
struct Loss {
    std::string text;
    size_t part;
};

// What came out of a group.
struct Group_Result {
    std::unique_ptr<Item_Sink> sink;
    size_t complete = 0; // parts that the sink holds besides the one that it fills
    std::vector<Loss> losses;
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
    error_ = selected ? "" : reader_ != nullptr ? qtrace_error(reader_.get()) : "out of memory";
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
        result.losses.push_back({describe_loss(items_.reader(), item.discontinuity), result.complete});
        sink.loss(item, result.losses.back().text);
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

    void tell_losses(const Group_Result &result, size_t part);
    bool finish(const Group_Result &result);
    bool merge_parts(Group_Result &result, const Merge &merge);
    bool merge_held(Group_Result &result, const Merge &merge);
    bool merge_one(Group_Result &result, const Merge &merge);
    bool merge_or_keep_exception(Group_Result &result, const Merge &merge);
    void work(unsigned threads, const Make &make, const Merge &merge);
    bool take_group(unsigned threads, size_t &number);
    bool hand_over(size_t number, Group_Result &result, const Merge &merge);
    void leave(size_t number, Group_Result result, const Merge &merge);
    void stop();

    Tool_Run &run_;
    Trace_File &file_;
    const Scan_Options &options_;
    const std::vector<Group> &groups_;
    Progress progress_;
    bool readable_ = true;
    std::exception_ptr exception_; // of a merge

    std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    std::map<size_t, Group_Result> results_;
    // Only the thread that reads or merges the group `merged_` merges anything.
    size_t next_ = 0, merged_ = 0;
    bool stopped_ = false;
};

void Scan::tell_losses(const Group_Result &result, size_t part)
{
    for (const Loss &loss : result.losses)
        if (loss.part == part && !options_.silent)
            run_.warn(loss.text);
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

// False: nothing more is wanted.
bool Scan::merge_parts(Group_Result &result, const Merge &merge)
{
    for (size_t part = 0; part < result.complete; part++) {
        tell_losses(result, part);
        if (!merge(*result.sink) || run_.out.error() != 0)
            return false;
    }
    tell_losses(result, result.complete);
    const bool more = merge(*result.sink);
    return finish(result) && more;
}

// Merges what a group has up to here. False: nothing more is wanted.
bool Scan::merge_held(Group_Result &result, const Merge &merge)
{
    result.unwanted = !merge_parts(result, merge);
    result.losses.clear();
    result.complete = 0;
    result.items = 0;
    result.sink->set_full(false);
    return !result.unwanted;
}

// False: no further group is wanted.
bool Scan::merge_one(Group_Result &result, const Merge &merge)
{
    if (result.exception)
        std::rethrow_exception(result.exception);
    return !result.unwanted && merge_held(result, merge);
}

bool Scan::run_in_order(Item_Sink &sink)
{
    Group_Reader reader(file_.another_reader(), options_.range);
    for (const Group &group : groups_) {
        Group_Result result;
        reader.read(group, sink, result, nullptr);
        tell_losses(result, 0);
        if (!finish(result) || sink.has_all())
            break;
    }
    return readable_;
}

bool Scan::run_alone(const Make &make, const Merge &merge)
{
    Group_Reader reader(file_.another_reader(), options_.range);
    for (const Group &group : groups_) {
        Group_Result result = reader.read(group, make, [&](Group_Result &part) { return merge_held(part, merge); });
        if (!merge_one(result, merge))
            break;
    }
    return readable_;
}

bool Scan::merge_or_keep_exception(Group_Result &result, const Merge &merge)
{
    try {
        return merge_one(result, merge);
    } catch (...) {
        exception_ = std::current_exception();
        return false;
    }
}

void Scan::work(unsigned threads, const Make &make, const Merge &merge)
{
    Group_Reader reader(file_.another_reader(), options_.range);
    for (size_t number = 0; take_group(threads, number);)
        leave(number,
              reader.read(groups_[number], make,
                          [&](Group_Result &result) { return hand_over(number, result, merge); }),
              merge);
}

// False: no group is left, or wanted.
bool Scan::take_group(unsigned threads, size_t &number)
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return stopped_ || next_ < merged_ + AHEAD * threads; });
    number = next_;
    return !stopped_ && next_++ < groups_.size();
}

// Merges what the group's sink holds if it is the group's turn, or waits for that if the sink cannot hold more. False:
// nothing more is wanted.
bool Scan::hand_over(size_t number, Group_Result &result, const Merge &merge)
{
    std::unique_lock lock(mutex_);
    if (result.sink->can_go_on() && merged_ != number && !stopped_) {
        result.complete++;
        result.sink->set_full(false);
        return true;
    }
    changed_.wait(lock, [&] { return stopped_ || merged_ == number; });
    if (stopped_)
        return false;
    lock.unlock();
    return merge_held(result, merge);
}

// Merges the group that was read, and those that follow and were left by other threads; or leaves it to the thread whose
// turn it is.
void Scan::leave(size_t number, Group_Result result, const Merge &merge)
{
    std::unique_lock lock(mutex_);
    results_.emplace(number, std::move(result));
    while (!stopped_ && results_.contains(merged_)) {
        Group_Result first = std::move(results_.extract(merged_).mapped());
        lock.unlock();
        const bool more = merge_or_keep_exception(first, merge);
        first.sink.reset();
        lock.lock();
        merged_++;
        stopped_ |= !more;
        changed_.notify_all();
    }
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
    try {
        for (unsigned i = 0; i < threads; i++)
            workers.emplace_back([this, threads, &make, &merge] { work(threads, make, merge); });
    } catch (...) {
        stop();
        throw;
    }
    workers.clear(); // waits for them
    if (exception_)
        std::rethrow_exception(exception_);
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
