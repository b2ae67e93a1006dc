// One loop over the items of a trace for all commands: groups of blocks, read by several threads, merged in order.
#pragma once

#include "trace_files.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>

namespace qtrace_tool
{

// Records of a file by their numbers.
struct Record_Range {
    uint64_t first = 0;
    uint64_t count = std::numeric_limits<uint64_t>::max();

    bool contains(uint64_t record) const { return record >= first && record - first < count; }
    bool ends_before(uint64_t record) const { return record >= first && record - first >= count; }
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

protected:
    // The header in force at the item that is delivered; null before any header.
    const QTRACE_FILE_HDR *context() const { return qtrace_open_header(reader_); }

private:
    QTRACE_Reader *reader_ = nullptr;
};

struct Scan_Options {
    Record_Range range;
    unsigned jobs = 1;
    unsigned blocks = 2; // of a group; what comes out must not depend on the number of jobs
};

// Reads the file's items within the range group by group: `make` makes a sink for each group, on any thread; `merge`
// gets it in file order, on the calling one, and returns whether more is wanted. Damage is told to the run before the
// group with it is merged. False: reading ended with an error, and the run has been told.
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
