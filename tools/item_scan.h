// One loop over the items of a trace for all commands: groups of blocks, read by several threads, merged in order; or
// the items one by one, for what reads two traces at once.
#pragma once

#include "trace_files.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>

namespace qtrace_tool
{

// Records of a file by their numbers.
struct Record_Range {
    uint64_t first = 0;
    uint64_t count = std::numeric_limits<uint64_t>::max();

    bool contains(uint64_t record) const { return record >= first && record - first < count; }
    bool ends_before(uint64_t record) const { return record >= first && record - first >= count; }
};

// What a reader delivers of some blocks within a range, discontinuities included.
class Range_Items
{
public:
    Range_Items(Reader reader, const Record_Range &range) : reader_(std::move(reader)), range_(range) {}

    // Goes to the first of so many blocks. False: it cannot, and error() says why. `rises`: record numbers do, so that the
    // first one after the range ends it.
    bool select(uint64_t first_block, uint64_t blocks, bool rises = true);
    // Goes to what directly precedes that record, and no longer ends with the blocks. False: there is no such record.
    bool seek(uint64_t record) { return reader_ != nullptr && qtrace_seek(reader_.get(), record) == 0; }
    // Null at the end.
    const QTRACE_Item *next()
    {
        const QTRACE_Item *item = nullptr;
        const QTRACE_ITEM kind = qtrace_next(reader_.get(), &item);
        const bool plain = kind == QTRACE_ITEM_RECORD || kind == QTRACE_ITEM_HEADER;
        return plain && range_.contains(item->record_number) ? item : next_after(kind, item);
    }

    QTRACE_Reader *reader() const { return reader_.get(); }
    // The header in force at the item delivered last; null before any.
    const QTRACE_FILE_HDR *context() const { return qtrace_open_header(reader_.get()); }
    const std::string &error() const { return error_; } // that ended the reading; empty: none did

private:
    const QTRACE_Item *next_after(QTRACE_ITEM kind, const QTRACE_Item *item);
    bool is_before_range(const QTRACE_Item &item) const;

    Reader reader_;
    Record_Range range_;
    bool rises_ = true;
    std::string error_;
};

// The headers and records of a file within a range, in file order. The run is told of what is lost between them.
class Item_Stream
{
public:
    // The file must live longer. `silent`: another stream of the same file tells the run.
    Item_Stream(Tool_Run &run, const Trace_File &file, const Record_Range &range, bool silent = false);

    // Null at the end.
    const QTRACE_Item *next()
    {
        const QTRACE_Item *item = items_.next();
        return item != nullptr && item->kind != QTRACE_ITEM_DISCONTINUITY ? item : next_after(item);
    }
    // Goes to what directly precedes that record. False: there is no such record.
    bool seek(uint64_t record);
    // Passes over everything before the block of that number, which is the first of a step; there may be none.
    void pass_to_block(uint64_t block);
    const QTRACE_FILE_HDR *context() const { return items_.context(); }
    // False: an error ended the reading, and the run has been told.
    bool is_readable() const { return items_.error().empty(); }

private:
    const QTRACE_Item *next_after(const QTRACE_Item *item);
    void tell(const QTRACE_Discontinuity &what);
    const QTRACE_Item *end();
    void pass_to_step(size_t step);

    Tool_Run &run_;
    const Trace_File &file_;
    Record_Range range_;
    bool silent_, failed_ = false;
    Range_Items items_;
    size_t next_step_ = 0; // the first that was not selected yet
};

struct Group_Start {
    const QTRACE_FILE_HDR *context; // the header in force before the first item; null when there is none
    bool at_start;                  // the items are the first ones that are read of the file
    uint64_t headers;               // that the group has or lost
};

// Takes the items of a group of blocks in file order.
class Item_Sink
{
public:
    virtual ~Item_Sink() = default;
    // Once for a group, first.
    virtual void begin(const Group_Start &start) = 0;
    virtual void header(const QTRACE_Item &item) = 0;
    virtual void record(const QTRACE_Item &item) = 0;
    // Tracing was paused before the header that comes next.
    virtual void pause(const QTRACE_Item &) {}
    // What is before the next item was lost or left out; `text` says what and where when it is damage, and is empty
    // otherwise.
    virtual void loss(const QTRACE_Item &item, const std::string &text) = 0;
    // Whether anything that follows in the group is wanted.
    virtual bool wants_more() const { return true; }
    // Whether nothing is wanted any more, of later groups neither. Only scan_in_order() asks.
    virtual bool has_all() const { return false; }

    void read_by(QTRACE_Reader *reader) { reader_ = reader; }
    // Whether the sink holds so much that it is merged before the group goes on; merging empties it. A sink that can go
    // on holds a complete part, and is not merged now if groups before it are still being read; later it is merged once
    // for each complete part, and once for the rest.
    bool is_full() const { return full_; }
    bool can_go_on() const { return can_go_on_; }
    void set_full(bool full, bool can_go_on = false)
    {
        full_ = full;
        can_go_on_ = can_go_on;
    }

protected:
    // The header in force at the item that is delivered; null before any header.
    const QTRACE_FILE_HDR *context() const { return qtrace_open_header(reader_); }

private:
    QTRACE_Reader *reader_ = nullptr;
    bool full_ = false, can_go_on_ = false;
};

struct Scan_Options {
    Record_Range range;
    unsigned jobs = 1;
    unsigned steps = 2;        // of a group; what comes out must not depend on the number of jobs
    bool headers_only = false; // passes over groups without headers, by what the headers of their blocks say
    bool silent = false;       // damage is not told: another scan of the file does
};

// Reads the file's items within the range group by group: `make` makes a sink for each group, `merge` gets it in file order
// and returns whether more is wanted. Both are called on any thread, `merge` by one at a time while the calling thread
// waits. A sink that is full is merged more than once. Damage is told to the run before the group with it is merged. False: reading ended with an error, and the run
// has been told.
bool scan_groups(Tool_Run &run, Trace_File &file, const Scan_Options &options,
                 const std::function<std::unique_ptr<Item_Sink>()> &make,
                 const std::function<bool(Item_Sink &)> &merge);

// The same with sinks of one type.
template <class Sink, class Make, class Merge>
bool scan(Tool_Run &run, Trace_File &file, const Scan_Options &options, Make make, Merge merge)
{
    return scan_groups(
        run, file, options, [&]() -> std::unique_ptr<Item_Sink> { return make(); },
        [&](Item_Sink &sink) { return merge(static_cast<Sink &>(sink)); });
}

// The same with one sink, which is given all groups in file order on the calling thread; begin() is called for each.
bool scan_in_order(Tool_Run &run, Trace_File &file, const Record_Range &range, Item_Sink &sink);

} // namespace qtrace_tool
