#include "stream_check.h"

#include "printable.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iterator>
#include <map>
#include <optional>
#include <ostream>

namespace replay
{

namespace
{

constexpr uint64_t SHOWN_OF_A_KIND = 10;

// ---- keys that a mode reads -----------------------------------------------------------------------------

struct Mode_Keys {
    uint32_t first, last; // modes
    bool two_level;
    std::vector<std::string_view> keys;
};

const std::vector<Mode_Keys> &mode_keys()
{
    static const std::vector<std::string_view> RADIX = {"host_walk", "host_ra", "host_rpn", "host_page_size"};
    static const std::vector<std::string_view> HASHED = {"vsid", "rpn", "page_size"};
    static const std::vector<Mode_Keys> rows = {
        {11, 11, false, {"ra"}},
        {14, 14, true, HASHED},
        {16, 16, false, HASHED},
        {19, 19, false, HASHED},
        {23, 23, true, {"host_walk", "host_ra", "guest_walk", "guest_rpn", "host_page_size", "guest_page_size"}},
        {24, 24, false, {"host_walk", "host_ra", "guest_walk", "host_rpn", "host_page_size"}},
        {25, 27, false, RADIX},
        {29, 31, false, RADIX},
    };
    return rows;
}

template <class Array> bool any_set(const Array &words)
{
    return std::any_of(std::begin(words), std::end(words), [](auto word) { return word != 0; });
}

bool is_set(const HostRadixTree &walk)
{
    return any_set(std::array{walk.RTPDE_ra_l1, walk.RTPDE_ra_l2, walk.RTPDE_ra_l3, walk.RTPTE_ra});
}

struct Address_Key {
    std::string_view name;
    bool (*given)(const Address_Answers &);
};

#define KEY(key) {#key, [](const Address_Answers &a) { return a.key != 0; }},
const Address_Key ADDRESS_KEYS[] = {
    // clang-format off
    KEY(ra) KEY(vsid) KEY(rpn) KEY(page_size) KEY(host_rpn) KEY(guest_rpn) KEY(host_page_size) KEY(guest_page_size)
    // clang-format on
    {"host_walk",
     [](const Address_Answers &a) { return std::any_of(a.host_walk.begin(), a.host_walk.end(), is_set); }},
    {"host_ra", [](const Address_Answers &a) { return any_set(a.host_ra); }},
    {"guest_walk",
     [](const Address_Answers &a) {
         const GuestRadixTree &g = a.guest_walk;
         return any_set(std::array{g.RTPDE_GUEST_ra_l1, g.RTPDE_GUEST_ra_l2, g.RTPDE_GUEST_ra_l3, g.RTPTE_GUEST_ra,
                                   g.GUEST_ra});
     }},
};
#undef KEY

bool reads(const std::vector<std::string_view> &keys, std::string_view key)
{
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

// ---- rules ----------------------------------------------------------------------------------------------

// Where control goes by an interrupt: below 0x6000 of some 64 KiB.
bool is_interrupt_entry(uint64_t pc)
{
    return (pc & 0xFFFF) >= 0x100 && (pc & 0xFFFF) < 0x6000;
}

struct Thread_State {
    std::optional<Thread_Context> context;
    uint64_t commits = 0;
    uint64_t seq = 0, npc = 0;
    bool exception = false;
};

// One address of a commit.
struct Side {
    const char *name;
    const Address_Answers &address;
    uint32_t mode; // that decides what is read
    bool used;     // somebody asks about it
};

class Checker
{
public:
    Checker(const std::string &name, std::ostream &out) : name_(printable(name)), out_(out) {}

    void take(const Stream_Event &event, uint64_t line);
    uint64_t finish();

    uint64_t findings() const { return findings_; }
    void report(std::string_view kind, const std::string &text);

private:
    void check_commit(const Instruction &instruction);
    void check_order(const Instruction &instruction, Thread_State &thread);
    void check_flags(const Instruction &instruction);
    void check_side(const Side &side, const Thread_State &thread);
    void check_ignored_keys(const Side &side, const std::vector<std::string_view> &keys);
    void check_walks(const Side &side, const std::vector<std::string_view> &keys);
    void check_partition(const Side &side, const Thread_State &thread);
    void summarize() const;

    std::string name_;
    std::ostream &out_;
    uint64_t line_ = 0;
    int tid_ = 0;
    Machine_Shape machine_;
    std::string source_;
    std::map<int, Thread_State> threads_;
    std::array<uint64_t, EVENT_KINDS> counts_{};
    std::map<std::pair<std::string, uint32_t>, uint64_t> modes_;
    uint64_t unannounced_ = 0;
    Cycle time_ = 0;
    std::map<std::string, uint64_t, std::less<>> kinds_; // findings of each
    uint64_t findings_ = 0;
    struct Unread {
        uint64_t first = 0, count = 0;
    };
    std::map<std::string, Unread> unread_; // keys that nobody asks for
};

void Checker::report(std::string_view kind, const std::string &text)
{
    ++findings_;
    if (++kinds_[std::string(kind)] <= SHOWN_OF_A_KIND)
        out_ << fmt::format("{}: line {}: thread {}: {}\n", name_, line_, tid_, text);
}

void Checker::take(const Stream_Event &event, uint64_t line)
{
    line_ = line;
    tid_ = event.instruction.tid;
    ++counts_[static_cast<size_t>(event.kind)];
    if (event.kind == Event_Kind::machine) {
        machine_ = event.machine;
        source_ = event.source;
        tid_ = 0;
        if (machine_.processors == 0 || machine_.threads == 0)
            report("machine", "the machine has no hardware threads");
    } else if (event.kind == Event_Kind::context) {
        threads_[tid_].context = event.context;
    } else if (event.kind == Event_Kind::commit) {
        const Cycle time = event.time.value_or(time_ + 1);
        if (time < time_)
            report("time", fmt::format("the time goes back from {} to {}", time_, time));
        time_ = time;
        check_commit(event.instruction);
    }
}

void Checker::check_commit(const Instruction &instruction)
{
    Thread_State &thread = threads_[instruction.tid];
    if (thread.commits == 0 && !thread.context)
        report("context", "the thread commits before its first context");
    check_order(instruction, thread);
    check_flags(instruction);
    const Side fetch = {"fetch", instruction.fetch, instruction.fetch.mode, true};
    const bool accesses = instruction.load || instruction.store || instruction.cache;
    const bool two_level = instruction.data.guest_two_level != 0;
    const Side data = {"data", instruction.data, two_level ? instruction.fetch.mode : instruction.data.mode,
                       accesses && instruction.ea_valid};
    check_side(fetch, thread);
    check_side(data, thread);
    ++thread.commits;
    thread.seq = instruction.seq;
    thread.npc = instruction.npc;
    thread.exception = instruction.exception;
}

void Checker::check_order(const Instruction &instruction, Thread_State &thread)
{
    if (instruction.pc % 4 != 0)
        report("alignment", fmt::format("pc {:#x} is no multiple of 4", instruction.pc));
    const bool pieces = thread.context && thread.context->cycle_mode; // micro-ops share number and address
    if (thread.commits == 0 || pieces)
        return;
    if (instruction.seq <= thread.seq)
        report("seq", fmt::format("seq {} does not follow {}", instruction.seq, thread.seq));
    if (thread.npc == instruction.pc)
        return;
    ++unannounced_;
    if (!thread.exception && !instruction.exception && !is_interrupt_entry(instruction.pc))
        report("npc", fmt::format("pc {:#x} follows npc {:#x} without an exception or an interrupt", instruction.pc,
                                  thread.npc));
}

void Checker::check_flags(const Instruction &i)
{
    const bool accesses = i.load || i.store || i.cache;
    const struct {
        bool wrong;
        const char *text;
    } rules[] = {
        {(i.taken || i.unconditional) && !i.branch, "\"taken\" or \"unconditional\" without \"branch\""},
        {i.unconditional && !i.taken && !i.exception, "an unconditional branch is not taken"},
        {(i.load || i.store) && !i.ea_valid && !i.exception, "a load or store has no data.ea"},
        {i.ea_valid && !accesses, "data.ea is not read without \"load\", \"store\" or \"cache\""},
        {i.string_length != 0 && !i.string, "string_length is not read without \"string\""},
        {i.vmx && i.vsx, "both \"vmx\" and \"vsx\""},
    };
    for (const auto &rule : rules)
        if (rule.wrong)
            report(rule.text, rule.text);
}

void Checker::check_side(const Side &side, const Thread_State &thread)
{
    const auto keys =
        side.used ? keys_of_mode(side.mode, side.address.guest_two_level != 0) : std::vector<std::string_view>{};
    if (side.used)
        ++modes_[{side.name, side.mode}];
    check_ignored_keys(side, keys);
    check_walks(side, keys);
    if (side.used)
        check_partition(side, thread);
}

// Streams may hold more than is read; an address without anything that is read has the keys of another mode.
void Checker::check_ignored_keys(const Side &side, const std::vector<std::string_view> &keys)
{
    const std::string why = side.used ? fmt::format("in mode {}{}", side.mode,
                                                    side.address.guest_two_level ? " with guest_two_level" : "")
                                      : "without a data access";
    std::string ignored;
    bool any_read = false;
    for (const Address_Key &key : ADDRESS_KEYS) {
        if (!key.given(side.address))
            continue;
        any_read = any_read || reads(keys, key.name);
        if (reads(keys, key.name))
            continue;
        ignored = key.name;
        Unread &unread = unread_[fmt::format("{}.{} is not read {}", side.name, key.name, why)];
        unread.first = unread.count++ == 0 ? line_ : unread.first;
    }
    if (side.used && !any_read && !ignored.empty() && side.address.status == MMU_SUCCESS)
        report(fmt::format("{} keys {}", side.name, why),
               fmt::format("{}.{} is not read {}; {}", side.name, ignored, why,
                           keys.empty() ? "no key is" : fmt::format("\"{}\" would be", fmt::join(keys, "\" \""))));
}

void Checker::check_walks(const Side &side, const std::vector<std::string_view> &keys)
{
    if (!reads(keys, "host_walk") || side.address.status != MMU_SUCCESS)
        return; // a walk that failed ends anywhere
    const Address_Answers &a = side.address;
    const bool nested = reads(keys, "guest_rpn");
    if (nested && (a.guest_depth < 1 || a.guest_depth > a.host_walk.size()))
        report("depth",
               fmt::format("{}.guest_depth is {}, not 1 to {}", side.name, a.guest_depth, a.host_walk.size()));
    const size_t walks = nested ? std::min<size_t>(a.guest_depth, a.host_walk.size()) : 1;
    for (size_t n = 0; n < a.host_walk.size(); ++n) {
        const HostRadixTree &walk = a.host_walk[n];
        if (n < walks && walk.RTPTE_ra == 0)
            report("walk", fmt::format("{}.host_walk[{}] has no page-table entry", side.name, n));
        if (n >= walks && is_set(walk))
            report("walk beyond",
                   fmt::format("{}.host_walk[{}] is beyond the last walk that is read", side.name, n));
        for (const PA entry : {walk.RTPDE_ra_l1, walk.RTPDE_ra_l2, walk.RTPDE_ra_l3, walk.RTPTE_ra})
            if (entry % 8 != 0)
                report("entry", fmt::format("{}.host_walk[{}]: {:#x} is no multiple of 8", side.name, n, entry));
    }
}

void Checker::check_partition(const Side &side, const Thread_State &thread)
{
    constexpr uint32_t GUEST_MODES[] = {14, 16, 23, 24};
    const bool guest =
        std::find(std::begin(GUEST_MODES), std::end(GUEST_MODES), side.mode) != std::end(GUEST_MODES);
    if (guest && (!thread.context || thread.context->lpid == 0))
        report("partition", fmt::format("{}: mode {} is a guest's, but lpid is 0", side.name, side.mode));
    if ((side.mode == 14 || side.mode == 23) && !side.address.guest_two_level)
        report("two levels",
               fmt::format("{}: mode {} without guest_two_level: no translation is read", side.name, side.mode));
}

uint64_t Checker::finish()
{
    for (const auto &[kind, count] : kinds_)
        if (count > SHOWN_OF_A_KIND)
            out_ << fmt::format("{}: {} more like: {}\n", name_, count - SHOWN_OF_A_KIND, printable(kind));
    for (const auto &[text, unread] : unread_)
        out_ << fmt::format("{}: note: {}: {} time{}, first in line {}\n", name_, text, unread.count,
                            unread.count == 1 ? "" : "s", unread.first);
    summarize();
    return findings_;
}

void Checker::summarize() const
{
    const auto count = [this](Event_Kind kind) { return counts_[static_cast<size_t>(kind)]; };
    if (!source_.empty())
        out_ << fmt::format("source     {}\n", printable(source_));
    out_ << fmt::format("machine    processors {}, threads per processor {}\n", machine_.processors,
                        machine_.threads);
    out_ << fmt::format("lines      commit {}, context {}, pre {}, pte {}, rtpte {}\n", count(Event_Kind::commit),
                        count(Event_Kind::context), count(Event_Kind::pre), count(Event_Kind::pte),
                        count(Event_Kind::rtpte));
    for (const auto &[tid, thread] : threads_)
        out_ << fmt::format("thread {:<4}commits {}\n", tid, thread.commits);
    for (const auto &[mode, uses] : modes_)
        out_ << fmt::format("{:<11}mode {}: {}\n", mode.first, mode.second, uses);
    out_ << fmt::format("interrupts and exceptions (pc is not the npc before it): {}\n", unannounced_);
    out_ << fmt::format("findings   {}\n", findings_);
}

} // namespace

std::vector<std::string_view> keys_of_mode(uint32_t mode, bool two_level)
{
    for (const Mode_Keys &row : mode_keys())
        if (mode >= row.first && mode <= row.last && two_level == row.two_level)
            return row.keys;
    return {};
}

Check_Result check_stream(Event_Source &events, const std::string &name, std::ostream &out)
{
    Checker checker(name, out);
    while (const Stream_Event *event = events.next())
        checker.take(*event, events.line_number());
    const bool complete = !events.error();
    if (!complete)
        out << fmt::format("{}: {}\n", printable(name), events.error()->text());
    return {checker.finish(), complete};
}

} // namespace replay
