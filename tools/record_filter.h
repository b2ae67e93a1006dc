// Which records a command looks at: one set of options, and a walk over a trace that delivers those records.
#pragma once

#include "command_options.h"
#include "trace_files.h"

#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

// Records that satisfy every option given; an option with several values is satisfied by any of them.
class Record_Filter
{
public:
    // `take_kind` gets each word of --kind first, and returns whether it has taken it.
    using Take_Word = std::function<bool(const std::string &)>;
    void declare(Options &app, const Take_Word &take_kind = {});
    // All but the range of numbers, which the command has itself.
    void declare_choices(Options &app, const Take_Word &take_kind = {});
    // Parts of these: the range of numbers; partitions and processes.
    void declare_range(Options &app);
    void declare_contexts(Options &app);
    void begin_at(uint64_t record) { from_ = record; }

    uint64_t from() const { return from_; }
    // Most records that are delivered of each file.
    uint64_t count() const { return count_; }
    const std::vector<uint64_t> &lpids() const { return lpids_; }
    const std::vector<uint64_t> &pids() const { return pids_; }
    // Whether anything but a range of numbers is asked for; headers are not shown then.
    bool picks() const;
    // Whether partition or process of that context is not wanted.
    bool rules_out(const QTRACE_FILE_HDR *context) const;
    bool asks_for_context() const { return !lpids_.empty() || !pids_.empty(); }
    // `context`: the header in force at the record; only read with asks_for_context().
    bool matches(const QTRACE_Item &item, const QTRACE_FILE_HDR *context) const;

private:
    struct Range {
        uint64_t first, last; // both included
    };
    struct Masked_Word {
        uint32_t value, mask;
    };
    struct Register {
        char letter;
        uint16_t number;
    };
    using Ranges = std::vector<Range>;

    static Range parse_range(std::string_view text);
    static Masked_Word parse_word(std::string_view text);
    static Register parse_register(const std::string &text);
    static uint32_t parse_kind(const std::string &name);
    static bool is_in(const Ranges &ranges, uint64_t value);
    static bool names(const QTRACE_REGISTERS &registers, const Register &wanted);
    bool matches_access(const QTRACE_RECORD &record) const;

    uint64_t from_ = 0;
    uint64_t count_ = std::numeric_limits<uint64_t>::max();
    std::vector<uint64_t> pids_, lpids_;
    Ranges pcs_, datas_, reals_;
    uint32_t kinds_ = 0, not_kinds_ = 0; // QTRACE_KIND bits
    std::vector<Masked_Word> words_;
    std::vector<Register> registers_;
};

// The items of a file that a filter wants, in file order: headers and matching records. Blocks whose context is not
// wanted are passed over without decoding them.
class Record_Walk
{
public:
    Record_Walk(Trace_File &file, const Record_Filter &filter);

    // Goes to the first record wanted. False: the file has no such record.
    bool begin();
    // Null at the end, or after as many records as are wanted.
    const QTRACE_Item *next();
    // The header in force at the item delivered last; null before any header.
    const QTRACE_FILE_HDR *context() const { return file_.context(); }
    // Records read or passed over so far.
    uint64_t passed() const { return passed_; }

private:
    const QTRACE_Item *next_in_wanted_block();
    const QTRACE_Item *pass_over_blocks(const QTRACE_Item *item);

    Trace_File &file_;
    const Record_Filter &filter_;
    std::vector<QTRACE_Block> blocks_; // empty unless blocks may be passed over
    size_t block_ = 0;                 // the next one to be entered
    uint64_t delivered_ = 0, passed_ = 0;
};

} // namespace qtrace_tool
