// Rules that follow values, translations and words: each has traces that break it and no other, and changes outside the
// trace that silence it.
#include "check_rules.h"
#include "deep_rules.h"
#include "planted_trace.h"
#include "record_schema.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <functional>
#include <map>
#include <sstream>

using namespace planted;
using nlohmann::json;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace
{

template <class Bytes> void put(Bytes &bytes, uint64_t value)
{
    std::memcpy(bytes, &value, sizeof(bytes));
}

// Pages of 64 KiB by one walk of the host; page n of the real memory holds page n of the effective addresses.
void map(Item &item, Side side, uint64_t effective, uint64_t entry)
{
    set_case(item, side, Case::single);
    const Address address = address_of(item, side);
    const auto page_number = static_cast<uint32_t>(effective >> 12);
    std::memcpy(address.page_number, &page_number, sizeof(page_number));
    put(address.walks[0].RTPDE_ra_l1, 0x8000000);
    put(address.walks[0].RTPDE_ra_l2, 0x8010000);
    put(address.walks[0].RTPTE_ra, entry);
}

constexpr uint64_t CODE = 0x10000, DATA = 0x50000, STACK = 0x60000, TABLE = 0x8020000;
constexpr uint64_t entry_of(uint64_t effective)
{
    return TABLE + (effective >> 16) * 8;
}
constexpr uint32_t ADD = 0x38630001, LOAD_WORD = 0xe8830008, STORE_WORD = 0xf8850000, BACK = 0x4bfffff4;

Item access(uint32_t word, uint64_t effective)
{
    Item item{false, {}, "", plain_record(word)};
    item.record.header.control.fld.data_address_present = 1;
    put(item.record.data_ea, effective);
    map(item, Side::data, effective, entry_of(effective));
    return item;
}

void read(Item &item, uint16_t index, uint64_t value)
{
    item.record.header.control.fld.register_trace_present = 1;
    item.record.regs.gpr_in[item.record.regs.num_gprs_in++] = {index, value};
}

void write(Item &item, uint16_t index, uint64_t value)
{
    item.record.header.control.fld.register_trace_present = 1;
    item.record.regs.gpr_out[item.record.regs.num_gprs_out++] = {index, value};
}

Item branch(uint32_t word, uint64_t next)
{
    Item item{false, {}, "", plain_record(word)};
    auto &flags = item.record.header.control.fld;
    flags.iar_change_present = flags.node_present = flags.termination_present = 1;
    flags.next_instruction_EA_present = 1;
    item.record.termination_code = QTRACE_UnconditionalBranchNode;
    put(item.record.next_instruction_ea, next);
    map(item, Side::next, next, entry_of(next));
    return item;
}

// Four instructions, again and again.
enum In_Loop : size_t { ADDS, LOADS, STORES, BRANCHES, LENGTH };
constexpr size_t TURNS = 4;
constexpr size_t at(size_t turn, In_Loop what)
{
    return 1 + turn * LENGTH + what; // after the header
}

Trace loop()
{
    Trace trace = {good_trace()[FIRST_HEADER]};
    put(trace[0].header.iar, CODE);
    map(trace[0], Side::header, CODE, entry_of(CODE));
    for (size_t turn = 0; turn < TURNS; turn++) {
        trace.push_back({false, {}, "", plain_record(ADD)});
        trace.back().record.header.control.fld.processor_present = turn == 0;
        read(trace.back(), 3, DATA + turn);
        write(trace.back(), 3, DATA + turn + 1);
        trace.push_back(access(LOAD_WORD, DATA + 8 + turn));
        read(trace.back(), 3, DATA + turn + 1);
        write(trace.back(), 4, 0x77);
        trace.push_back(access(STORE_WORD, STACK));
        read(trace.back(), 4, 0x77);
        read(trace.back(), 5, STACK);
        trace.push_back(branch(BACK, CODE));
    }
    trace.back().record = plain_record(BACK);
    return trace;
}

// What `qtrace check --deep` says in its last line, and how often which rule is broken.
json summary(const std::string &file, const std::vector<std::string> &options = {})
{
    std::vector<std::string> arguments = {"check", "--deep", "--json", file};
    arguments.insert(arguments.end(), options.begin(), options.end());
    std::istringstream lines(qtrace(arguments).out);
    json last;
    for (std::string line; std::getline(lines, line);)
        last = json::parse(line);
    return last;
}

std::map<std::string, int> broken(const Trace &trace, const std::vector<std::string> &options = {})
{
    const Folder folder;
    return summary(folder.write("trace0", trace), options)["violations"].get<std::map<std::string, int>>();
}

std::map<std::string, int> broken_by(const std::function<void(Trace &)> &change)
{
    Trace trace = loop();
    change(trace);
    return broken(trace);
}

// Changes that no flag shows.
void alter_register(Trace &trace)
{
    trace[at(2, LOADS)].record.regs.gpr_in[0].value ^= 0x100;
}
void alter_walk(Trace &trace)
{
    put(trace[at(2, LOADS)].record.data_hRTW[0].RTPTE_ra, entry_of(DATA) + 8);
}
void alter_real_page(Trace &trace)
{
    trace[at(2, LOADS)].record.data_rpn[1] ^= 0x10; // another page of 64 KiB
}
void alter_word(Trace &trace)
{
    trace[at(2, ADDS)].record.header.instruction = ADD + 1;
}

// A store to `real` in place of the loop's own one.
void store_to(Trace &trace, size_t turn, uint64_t real)
{
    const Item item = access(STORE_WORD, real);
    QTRACE_RECORD &record = trace[at(turn, STORES)].record;
    const QTRACE_REGISTERS registers = record.regs;
    record = item.record;
    record.header.control.fld.register_trace_present = 1;
    record.regs = registers;
}

// The trace goes on in another way before turn 2: with a header that says where.
void insert_header(Trace &trace, bool full)
{
    Item header = full ? trace[0] : good_trace()[PARTITION];
    trace.insert(trace.begin() + static_cast<ptrdiff_t>(at(2, ADDS)), header);
    if (full) {
        trace[at(1, BRANCHES)] = {false, {}, "", plain_record(BACK)};
        trace[at(2, ADDS) + 1].record.header.control.fld.processor_present = 1;
    }
}

} // namespace

TEST(deep_rules, hold_in_a_loop_and_say_how_much_they_compared)
{
    const Folder folder;
    const json told = summary(folder.write("trace0", loop()));
    EXPECT_THAT(told["violations"], IsEmpty());
    EXPECT_EQ(told["checks"]["register-flow"], 3 + 4 + 4 + 3); // r3 twice, r4, and r5 from the second turn on
    EXPECT_EQ(told["checks"]["real-of-effective"], TURNS * 3); // the last branch names no address
    EXPECT_EQ(told["checks"]["same-page-same-walk"], 3 * (TURNS - 1));
    EXPECT_EQ(told["checks"]["code-unchanged"], LENGTH * (TURNS - 1));
    EXPECT_EQ(told["forgotten"], 0);
}

TEST(deep_rules, are_not_applied_unless_asked_for)
{
    const Folder folder;
    Trace trace = loop();
    alter_word(trace);
    const Outcome outcome = qtrace({"check", folder.write("trace0", trace)});
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_THAT(outcome.out, testing::Not(testing::HasSubstr("code-unchanged")));
}

TEST(deep_rules, are_listed_with_the_others)
{
    const std::string rules = qtrace({"check", "--rules"}).out;
    for (const char *rule : {"register-flow", "real-of-effective", "same-page-same-walk", "code-unchanged"})
        EXPECT_THAT(rules, testing::HasSubstr(rule));
}

// ---- Each rule is broken alone ---------------------------------------------------------------------------

TEST(deep_rules, an_altered_register_breaks_register_flow_alone)
{
    // once where it is altered, once where the next instruction reads the true value again
    EXPECT_THAT(broken_by(alter_register), UnorderedElementsAre(Pair("register-flow", 2)));
}

TEST(deep_rules, an_altered_real_address_breaks_real_of_effective_alone)
{
    EXPECT_THAT(broken_by([](Trace &t) { t[at(2, LOADS)].record.data_rpn[0] ^= 4; }),
                UnorderedElementsAre(Pair("real-of-effective", 1)));
    EXPECT_THAT(broken_by([](Trace &t) { t[at(1, BRANCHES)].record.next_instruction_rpn[0] ^= 8; }),
                UnorderedElementsAre(Pair("real-of-effective", 1)));
    EXPECT_THAT(broken_by([](Trace &t) { t[0].header.iar_rpn[0] ^= 1; }),
                UnorderedElementsAre(Pair("real-of-effective", 1)));
}

TEST(deep_rules, an_altered_walk_breaks_same_page_same_walk_alone)
{
    EXPECT_THAT(broken_by(alter_walk), UnorderedElementsAre(Pair("same-page-same-walk", 1)));
    EXPECT_THAT(broken_by(alter_real_page), UnorderedElementsAre(Pair("same-page-same-walk", 1)));
}

TEST(deep_rules, an_altered_word_breaks_code_unchanged_alone)
{
    EXPECT_THAT(broken_by(alter_word), UnorderedElementsAre(Pair("code-unchanged", 1)));
}

TEST(deep_rules, a_finding_says_what_was_there_before)
{
    const Folder folder;
    Trace trace = loop();
    alter_register(trace);
    alter_word(trace);
    const Outcome outcome = qtrace({"check", "--deep", folder.write("trace0", trace)});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_THAT(outcome.out, testing::HasSubstr("(r3 is 0x50103, 0x50003 in record 8) [register-flow]"));
    EXPECT_THAT(outcome.out, testing::HasSubstr("(38630002, it was 38630001) [code-unchanged]"));
}

TEST(deep_rules, can_be_ignored)
{
    Trace trace = loop();
    alter_word(trace);
    EXPECT_THAT(broken(trace, {"--ignore", "code-unchanged"}), IsEmpty());
}

// ---- Silence ---------------------------------------------------------------------------------------------

TEST(deep_rules, a_store_to_a_table_entry_lets_the_walk_change)
{
    const auto change = [](uint64_t real) {
        return [real](Trace &t) {
            store_to(t, 1, real);
            alter_real_page(t);
        };
    };
    EXPECT_THAT(broken_by(change(entry_of(DATA))), IsEmpty());
    EXPECT_THAT(broken_by(change(0x8010000)), IsEmpty()); // a directory
    EXPECT_THAT(broken_by(change(entry_of(DATA) + 0x100)), UnorderedElementsAre(Pair("same-page-same-walk", 1)));
}

TEST(deep_rules, another_tree_lets_the_walk_change)
{
    EXPECT_THAT(broken_by([](Trace &t) {
                    put(t[at(2, LOADS)].record.data_hRTW[0].RTPDE_ra_l1, 0x9000000);
                    alter_walk(t);
                }),
                IsEmpty());
}

TEST(deep_rules, a_store_to_code_lets_the_word_change)
{
    EXPECT_THAT(broken_by([](Trace &t) {
                    store_to(t, 1, CODE);
                    alter_word(t);
                }),
                IsEmpty());
}

TEST(deep_rules, a_store_in_real_mode_at_the_same_place_of_any_page_lets_the_word_change)
{
    const auto store_in_real_mode = [](Trace &t, uint64_t address) {
        store_to(t, 1, STACK);
        set_case(t[at(1, STORES)], Side::data, Case::real);
        put(t[at(1, STORES)].record.data_ea, address);
        alter_word(t);
    };
    EXPECT_THAT(broken_by([&](Trace &t) { store_in_real_mode(t, 0x777000); }), IsEmpty());
    EXPECT_THAT(broken_by([&](Trace &t) { store_in_real_mode(t, 0x777800); }),
                UnorderedElementsAre(Pair("code-unchanged", 1)));
}

TEST(deep_rules, code_that_runs_in_both_byte_orders_is_the_same)
{
    EXPECT_THAT(broken_by([](Trace &t) { t[at(2, ADDS)].record.header.instruction = __builtin_bswap32(ADD); }),
                IsEmpty());
}

TEST(deep_rules, another_process_has_registers_pages_and_code_of_its_own)
{
    EXPECT_THAT(broken_by([](Trace &t) {
                    insert_header(t, false);
                    for (Item &item : t)
                        if (&item > &t[at(2, ADDS)] && !item.is_header && item.record.regs.num_gprs_in > 0)
                            item.record.regs.gpr_in[0].value += 0x1000000;
                    t[at(2, ADDS) + 1].record.regs.gpr_out[0].value += 0x1000000;
                    t[at(3, ADDS) + 1].record.regs.gpr_out[0].value += 0x1000000;
                    t[at(2, LOADS) + 1].record.regs.gpr_out[0].value += 0x1000000;
                    t[at(3, LOADS) + 1].record.regs.gpr_out[0].value += 0x1000000;
                }),
                IsEmpty());
}

TEST(deep_rules, anything_may_change_during_a_pause)
{
    EXPECT_THAT(broken_by([](Trace &t) {
                    insert_header(t, true);
                    for (size_t turn = 2; turn < TURNS; turn++) {
                        t[at(turn, ADDS) + 1].record.header.instruction = ADD + 1;
                        put(t[at(turn, LOADS) + 1].record.data_hRTW[0].RTPTE_ra, entry_of(DATA) + 8);
                    }
                    t[at(2, ADDS) + 1].record.regs.gpr_in[0].value = 5;
                }),
                IsEmpty());
}

TEST(deep_rules, registers_may_change_where_the_trace_goes_on_elsewhere_by_no_branch)
{
    const auto leave = [](uint64_t next) {
        return [next](Trace &t) {
            t.resize(at(2, STORES));
            t[at(2, LOADS)] = branch(LOAD_WORD, next);
            t[at(2, LOADS)].record.termination_code = QTRACE_ExceededMaximumInstructionDepth;
            t.push_back({false, {}, "", plain_record(0x38840001)});
            read(t.back(), 4, 0x78);
        };
    };
    EXPECT_THAT(broken_by(leave(0x30000)), IsEmpty());
    EXPECT_THAT(broken_by(leave(0x300)), UnorderedElementsAre(Pair("register-flow", 1))); // an interrupt's vector
}

TEST(deep_rules, stores_of_another_thread_let_pages_and_code_change)
{
    const Folder folder;
    Trace changed = loop(), other = loop();
    alter_word(changed);
    alter_real_page(changed);
    const std::string file = folder.write("trace0", changed);
    EXPECT_EQ(summary(file)["violations"].size(), 2u);
    folder.write("trace1", other);
    EXPECT_EQ(summary(file)["violations"].size(), 2u);
    store_to(other, 0, CODE);
    store_to(other, 1, entry_of(DATA));
    store_to(other, 2, CODE + 0x200); // other lines of the page stay known
    folder.write("trace1", other);
    EXPECT_THAT(summary(file)["violations"], IsEmpty());
}

TEST(deep_rules, what_a_paused_thread_stored_is_not_known)
{
    const Folder folder;
    Trace changed = loop(), other = loop();
    alter_word(changed);
    insert_header(other, true);
    const std::string file = folder.write("trace0", changed);
    folder.write("trace1", other);
    const json told = summary(file);
    EXPECT_THAT(told["violations"], IsEmpty());
    EXPECT_EQ(told["other_threads_unknown"], true);
    EXPECT_EQ(told["checks"]["code-unchanged"], 0);
    EXPECT_GT(told["checks"]["register-flow"], 10);
}

TEST(deep_rules, page_bits_say_what_a_page_size_code_means)
{
    Trace trace = loop();
    trace[at(2, LOADS)].record.data_rpn[0] ^= 4;
    EXPECT_THAT(broken(trace, {"--page-bits", "12,14"}), UnorderedElementsAre(Pair("same-page-same-walk", 1)));
    EXPECT_THAT(broken(trace, {"--page-bits", "12"}), UnorderedElementsAre(Pair("same-page-same-walk", 1)));
}

// ---- Bounds ----------------------------------------------------------------------------------------------

TEST(deep_rules, forget_when_there_are_too_many_pages_and_say_so)
{
    qtrace_tool::Threads_Beside threads;
    const qtrace_tool::Page_Sizes sizes;
    qtrace_tool::Deep_Checker checker(sizes, threads.of("none", sizes));
    checker.report_to([](const qtrace_tool::Violation &violation) { ADD_FAILURE() << violation.rule.name; });
    QTRACE_Item item{};
    item.kind = QTRACE_ITEM_RECORD;
    item.record = access(LOAD_WORD, DATA).record;
    constexpr uint64_t PAGES = 500000;
    for (uint64_t page = 0; page < PAGES; page++) {
        put(item.record.data_ea, page << 16);
        put(item.record.data_rpn, page << 4);
        put(item.record.data_hRTW[0].RTPTE_ra, entry_of(page << 16));
        checker.record(item);
        checker.record(item);
    }
    EXPECT_EQ(checker.checks(qtrace_tool::SAME_PAGE_SAME_WALK), PAGES);
    EXPECT_EQ(checker.forgotten(), 1u);
}
