// Which records a command looks at: one set of options, and a sink that gets those records.
#pragma once

#include "command_options.h"
#include "item_scan.h"

#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace qtrace_tool
{

// What --kind takes.
std::vector<std::string> kind_names();

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

// Gets all headers of a file and the records that a filter wants, in file order. Blocks whose context is not wanted
// are passed over without decoding them.
class Chosen_Sink : public Item_Sink
{
public:
    // The filter is the caller's.
    explicit Chosen_Sink(const Record_Filter &filter) : Chosen_Sink(filter, filter.count()) {}
    // With at most so many records.
    Chosen_Sink(const Record_Filter &filter, uint64_t most) : filter_(filter), picks_(filter.picks()), most_(most)
    {
    }
    void begin(const Group_Start &start) override
    {
        passed_over_ = start.headers == 0 && filter_.rules_out(start.context);
    }
    void record(const QTRACE_Item &item) override
    {
        if (picks_ && !filter_.matches(item, filter_.asks_for_context() ? context() : nullptr))
            return;
        taken_++;
        chosen(item);
    }
    void loss(const QTRACE_Item &, const std::string &) override {}
    bool wants_more() const override { return !passed_over_ && !has_all(); }
    bool has_all() const override { return taken_ >= most_; }

    uint64_t taken() const { return taken_; }

protected:
    virtual void chosen(const QTRACE_Item &record) = 0;

private:
    const Record_Filter &filter_;
    bool picks_;
    bool passed_over_ = false; // the whole group belongs to others
    uint64_t most_, taken_ = 0;
};

} // namespace qtrace_tool
