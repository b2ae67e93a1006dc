// Rules that follow values, translations and words from record to record. They notice what no flag shows: a record
// that is missing, a value that was altered. Where a change may have happened outside the trace they are silent.
#pragma once

#include "check_rules.h"
#include "register_flow.h"
#include "stored_memory.h"
#include "threads_beside.h"

namespace qtrace_tool
{

struct Deep_Rule {
    const char *name;
    const char *sentence;
};
inline constexpr Deep_Rule DEEP_RULES[] = {
    {"register-flow", "a register that is read does not hold what was last seen in it (--deep)"},
    {"real-of-effective", "real and effective address differ below the page size (--deep)"},
    {"same-page-same-walk",
     "a page is translated in another way than before, and no entry on the way was stored to (--deep)"},
    {"code-unchanged", "the instruction is another than before at this address, which nothing stored to (--deep)"},
};
inline constexpr size_t DEEP_RULE_COUNT = std::size(DEEP_RULES);
enum Deep : size_t { REGISTER_FLOW, REAL_OF_EFFECTIVE, SAME_PAGE_SAME_WALK, CODE_UNCHANGED };

// Applies them to the items of one thread's file, in file order and from one thread.
class Deep_Checker
{
public:
    using Report = std::function<void(const Violation &)>;
    // Both are the caller's. report_to() follows before the first item.
    Deep_Checker(const Page_Sizes &sizes, const Threads_Beside::Place &thread);
    void report_to(Report report) { report_ = std::move(report); }

    void header(const QTRACE_Item &item);
    void record(const QTRACE_Item &item);
    // Something before the next item is missing. `context`: the header in force there; null when it is not known.
    void loss(const QTRACE_FILE_HDR *context);

    uint64_t checks(size_t rule) const { return rule == REGISTER_FLOW ? registers_.checks() : checks_[rule]; }
    // How often tables were full, and what was learned before is not checked any more.
    uint64_t forgotten() const { return forgotten_; }
    // Other threads may have stored anywhere: the rules about memory are silent.
    bool others_unknown() const { return others_unknown_; }

private:
    // Where a violation is told.
    struct Where {
        uint64_t record = 0, address = 0;
        bool address_known = false, in_header = false;
    };
    // What is remembered of a page.
    struct Page {
        uint64_t walk = 0; // a number that stands for its real page and the entries of its walk; 0: nothing
        uint32_t root = 0; // the same for the first entries, which tell the tree
        uint32_t learned = 0, verified = 0; // times
        bool shared = false;                // another thread stores to an entry
    };
    struct Code {
        uint32_t word = 0; // 0: to be learned
        uint32_t learned = 0;
    };
    // The page that instructions are fetched from.
    struct Fetch {
        bool known = false;
        uint64_t first = 0, last = 0; // its effective addresses
        uint64_t key = 0;             // of the page with its translation
        Memory_Place place;           // of `first`
    };
    // A translation of the next instruction, to be understood in that one's partition.
    struct Pending {
        Told told = Told::nothing;
        trace::Mode_Pair modes{};
        Named_Translation named;
        uint64_t effective = 0;
        Where where;
        bool present = false;
    };

    void tell(size_t rule, const Where &where, std::string values);
    void check_real(const trace::Translated_Address &address, const Where &where);
    bool check_walk(const Named_Translation &named, const char *what, uint64_t effective, const Where &where);
    bool compare_walk(Page &page, const Named_Translation &named, const char *what, uint64_t effective,
                      const Where &where);
    void learn_walk(Page &page, const Named_Translation &named);
    uint32_t last_store_on(const Named_Translation &named) const;
    void name(const trace::Translated_Address &address, const Where &where);
    void enter();
    void enter_page();
    void check_code(const QTRACE_Item &item, const Where &where);
    void compare_code(Code &code, const Memory_Place &place, uint32_t word, const Where &where);
    void check_data(const QTRACE_RECORD &record, const Where &where);
    void follow_stores(const QTRACE_RECORD &record);
    void forget_pages();
    void forget_code();
    void forget_memory();

    const Page_Sizes &sizes_;
    const Thread_Stores &others_;
    size_t thread_;
    bool others_unknown_;
    Report report_;
    Register_Flow registers_;
    Stored_Memory stores_;
    Bounded_Table<Page> pages_{1 << 19};
    Bounded_Table<Code> codes_{1 << 20};
    Partition_Key partition_;
    Fetch fetch_;
    Pending pending_;
    Named_Translation data_;
    std::array<uint64_t, DEEP_RULE_COUNT> checks_{};
    uint64_t forgotten_ = 0;
};

} // namespace qtrace_tool
