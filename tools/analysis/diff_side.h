// One of the two traces of a comparison: the record to be compared next, and a look at those that follow.
#pragma once

#include "item_scan.h"
#include "record_difference.h"

#include <deque>
#include <memory>

namespace qtrace_tool
{

// Reads ahead in a file with a reader of its own, and keeps hashes of what follows.
class Lookahead
{
public:
    // Records that are looked at together.
    static constexpr size_t WINDOW = 131072;

    Lookahead(Tool_Run &run, const Trace_File &file, const Record_Range &range, const Record_Hash &hash)
        : run_(run), file_(file), range_(range), hash_(hash), expected_(range.first)
    {
    }
    // Keys of the records from number `place` of the file on (counted as they come), which has the record number
    // `record`: at most WINDOW of them, and none after a jump of the record numbers. `may_seek`: record numbers did
    // not fall up to there.
    std::vector<Record_Key> keys(uint64_t place, uint64_t record, bool may_seek);
    // Whether the records of the last keys() were all up to the end of the file.
    bool at_end() const { return at_end_; }
    bool is_readable() const { return !items_ || items_->is_readable(); }

private:
    struct Entry {
        Record_Key key;
        bool after_jump;
    };
    bool go_to(uint64_t place, uint64_t record, bool may_seek);
    const QTRACE_Item *next_record();
    void read_entry();

    Tool_Run &run_;
    const Trace_File &file_;
    Record_Range range_;
    Record_Hash hash_;
    std::unique_ptr<Item_Stream> items_; // once they are asked for
    std::deque<Entry> entries_;          // those from number first_ on
    uint64_t first_ = 0;
    uint64_t expected_; // record number of the next record
    bool ended_ = false, at_end_ = false;
};

class Diff_Side
{
public:
    Diff_Side(Tool_Run &run, const Trace_File &from, const Record_Range &range, const Record_Hash &hash)
        : file(from), items_(run, from, range), ahead_(run, from, range, hash), expected_(range.first)
    {
    }
    Diff_Side(const Diff_Side &) = delete;
    Diff_Side &operator=(const Diff_Side &) = delete;

    void next();
    // Passes over the items up to the block of that number, with so many records among them; a record comes last.
    void pass_over(uint64_t block, uint64_t passed);
    // Every item up to that place was met, in ascending order.
    bool is_at(uint64_t record, uint64_t header) const;
    std::vector<Record_Key> keys() { return ahead_.keys(records - 1, item->record_number, numbers_rise_); }
    bool keys_at_end() const { return ahead_.at_end(); }
    uint64_t record_number_after() const { return expected_; } // of the item
    uint64_t record_number() const { return item != nullptr ? item->record_number : expected_; }

    const QTRACE_FILE_HDR *context() const { return items_.context(); }
    bool is_readable() const { return items_.is_readable() && ahead_.is_readable(); }

    const Trace_File &file;
    const QTRACE_Item *item = nullptr; // null: at the end
    Header_List headers;               // since they were compared last
    bool full_header = false;          // directly before the item
    uint64_t records = 0;              // so far
    uint64_t jump = 0;                 // records that are missing before the item by their numbers

private:
    Item_Stream items_;
    Lookahead ahead_;
    uint64_t expected_;
    bool numbers_rise_ = true;
};

} // namespace qtrace_tool
