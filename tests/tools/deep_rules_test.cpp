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
#include <optional>
#include <sstream>
#include <utility>

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

TEST(deep_rules, have_a_line_each_in_the_text)
{
    const Folder folder;
    const std::string file = folder.write("trace0", loop());
    EXPECT_EQ(qtrace({"check", "--deep", file}).out, file +
                                                         ": 16 records, 1 header: all invariants hold\n"
                                                         "  register-flow                            14 checks\n"
                                                         "  real-of-effective                        12 checks\n"
                                                         "  same-page-same-walk                      9 checks\n"
                                                         "  code-unchanged                           12 checks\n");
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

TEST(deep_rules, a_page_whose_entry_another_thread_stores_to_is_not_known)
{
    const Folder folder;
    Trace changed = loop(), other = loop();
    alter_word(changed);
    const std::string file = folder.write("trace0", changed);
    store_to(other, 1, entry_of(CODE));
    folder.write("trace1", other);
    const json told = summary(file);
    EXPECT_THAT(told["violations"], IsEmpty());
    EXPECT_EQ(told["checks"]["code-unchanged"], 0); // the page is known on its first way through the loop alone
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
    EXPECT_THAT(qtrace({"check", "--deep", file}).out,
                testing::HasSubstr(
                    "\n  walks and code are not checked: not all stores of the trace's other threads are known\n"));
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

// ---- Item by item ----------------------------------------------------------------------------------------

namespace
{

// The rules applied to items that are given one by one.
class Deep
{
public:
    Deep()
    {
        checker.report_to([this](const qtrace_tool::Violation &v) {
            told.push_back(v.rule.name + (v.in_header ? " header " : " ") + std::to_string(v.record) + " " +
                           (v.address_known ? hex(v.address) : "-") + ": " + v.values);
        });
    }
    // A header: instructions from `address` on are in a page of 64 KiB that this entry maps.
    void start(uint64_t address, uint64_t entry)
    {
        Item header = good_trace()[FIRST_HEADER];
        put(header.header.iar, address);
        map(header, Side::header, address, entry);
        give_header(header);
    }
    void start(const Item &header, uint64_t address)
    {
        Item changed = header;
        put(changed.header.iar, address);
        give_header(changed);
    }
    void give_header(const Item &header)
    {
        QTRACE_Item item{};
        item.kind = QTRACE_ITEM_HEADER;
        item.header = header.header;
        item.record_number = number;
        checker.header(item);
    }
    void run(uint32_t word, uint64_t address) { give({false, {}, "", plain_record(word)}, address); }
    // The instruction itself is at no known place, unless `address` says one.
    void give(const Item &record, std::optional<uint64_t> address = {})
    {
        QTRACE_Item item{};
        item.kind = QTRACE_ITEM_RECORD;
        item.record = record.record;
        item.record_number = number++;
        item.address_known = address.has_value();
        item.address = address.value_or(0);
        checker.record(item);
    }
    // What was told since the last call.
    std::vector<std::string> news() { return std::exchange(told, {}); }

    qtrace_tool::Threads_Beside threads;
    qtrace_tool::Page_Sizes sizes;
    qtrace_tool::Deep_Checker checker{sizes, threads.of("none", sizes)};
    uint64_t number = 0;
    std::vector<std::string> told;

private:
    static std::string hex(uint64_t value)
    {
        std::ostringstream text;
        text << std::hex << value;
        return text.str();
    }
};

Item real_mode_store(uint64_t address)
{
    Item item = access(STORE_WORD, address);
    set_case(item, Side::data, Case::real);
    return item;
}

// The walks of a guest of three levels to the page of 64 KiB at 0x6000000.
Item nested_load()
{
    Item item = access(LOAD_WORD, 0x6000010);
    set_case(item, Side::data, Case::nested);
    const uint32_t page_number = 0x70000;
    std::memcpy(item.record.data_rpn, &page_number, sizeof page_number);
    put(item.record.data_gRTW.GUEST_ra, 0x70000010);
    return item;
}

} // namespace

TEST(code_unchanged, holds_for_every_word_of_the_page)
{
    Deep deep;
    deep.start(CODE, entry_of(CODE));
    for (const uint64_t address : {CODE, CODE + 0xFFFC}) {
        deep.run(ADD, address);
        deep.run(ADD + 1, address);
        deep.run(ADD + 1, address);
        deep.run(ADD + 2, address);
    }
    EXPECT_THAT(deep.news(), ElementsAre("code-unchanged 1 10000: 38630002, it was 38630001",
                                         "code-unchanged 3 10000: 38630003, it was 38630002",
                                         "code-unchanged 5 1fffc: 38630002, it was 38630001",
                                         "code-unchanged 7 1fffc: 38630003, it was 38630002"));
    EXPECT_EQ(deep.checker.checks(qtrace_tool::CODE_UNCHANGED), 4u);
}

TEST(code_unchanged, is_not_known_outside_the_page_until_the_trace_says_where_it_is)
{
    for (const uint64_t outside : {CODE - 4, CODE + 0x10000}) {
        Deep deep;
        deep.start(CODE, entry_of(CODE));
        deep.run(ADD, CODE);
        for (const uint64_t address : {outside, outside, CODE})
            deep.run(ADD + static_cast<uint32_t>(deep.number), address);
        deep.start(CODE, entry_of(CODE));
        deep.run(ADD + 7, CODE); // after a header everything may have changed
        EXPECT_THAT(deep.news(), IsEmpty()) << std::hex << outside;
        deep.run(ADD, CODE);
        EXPECT_THAT(deep.news(), ElementsAre("code-unchanged 5 10000: 38630001, it was 38630008"));
    }
    Deep deep;
    deep.start(CODE, entry_of(CODE));
    deep.run(ADD, CODE);
    deep.give({false, {}, "", plain_record(ADD)});
    deep.run(ADD + 1, CODE);
    EXPECT_THAT(deep.news(), IsEmpty());
    deep.give(branch(BACK, CODE), CODE + 12);
    deep.run(ADD + 1, CODE);
    EXPECT_THAT(deep.news(), ElementsAre("code-unchanged 4 10000: 38630002, it was 38630001"));
}

TEST(code_unchanged, is_not_known_before_the_trace_says_where_it_is)
{
    Deep deep;
    for (const uint32_t word : {ADD, ADD + 1})
        deep.run(word, 0);
    deep.start(CODE, entry_of(CODE));
    deep.checker.loss(nullptr);
    for (const uint32_t word : {ADD, ADD + 1})
        deep.run(word, CODE);
    EXPECT_THAT(deep.news(), IsEmpty());
    EXPECT_EQ(deep.checker.checks(qtrace_tool::CODE_UNCHANGED), 0u);
}

TEST(code_unchanged, is_silent_after_a_store_of_a_single_byte)
{
    Deep deep;
    deep.start(CODE, entry_of(CODE));
    deep.run(ADD, CODE);
    Item store = access(31u << 26 | 725u << 1, CODE); // a string
    store.record.header.control.fld.length_present = 1;
    store.record.length = 1;
    deep.give(store, CODE + 0x100);
    deep.run(ADD + 1, CODE);
    EXPECT_THAT(deep.news(), IsEmpty());
}

TEST(code_unchanged, holds_in_real_mode_at_every_address)
{
    Item header = good_trace()[FIRST_HEADER];
    set_case(header, Side::header, Case::real);
    for (const uint64_t address : {uint64_t{0}, uint64_t{0x1000}, ~uint64_t{3}}) {
        Deep deep;
        deep.start(header, address);
        for (const uint32_t word : {ADD, ADD + 1})
            deep.run(word, address);
        EXPECT_EQ(deep.news().size(), 1u) << address;
    }
    Deep deep;
    deep.start(header, 0x1000);
    for (const uint64_t address : {0x1000, 0x1040}) {
        deep.run(ADD, address);
        deep.give(real_mode_store(0xFF0), 0x1100); // the line before
        deep.run(ADD + 1, address);
    }
    EXPECT_EQ(deep.news().size(), 2u);
    for (const uint32_t word : {ADD, ADD + 1}) {
        deep.run(word, 0x103C);
        deep.give(real_mode_store(0x1040), 0x1100); // the line after
    }
    EXPECT_EQ(deep.news().size(), 1u);
    deep.give(real_mode_store(0x1070), 0x1100);
    for (const uint32_t word : {ADD + 2, ADD + 3})
        deep.run(word, 0x1040);
    EXPECT_THAT(deep.news(), IsEmpty()); // from now on
    for (const uint32_t word : {ADD + 2, ADD + 3})
        deep.run(word, 0x1000);
    EXPECT_EQ(deep.news().size(), 1u);
}

TEST(code_unchanged, is_silent_where_the_place_of_the_code_is_not_known)
{
    for (const unsigned guest : {0u, 1u, 2u}) { // modes that the trace does not resolve, and a guest's real mode
        Deep deep;
        Item header = good_trace()[FIRST_HEADER];
        set_case(header, Side::header, Case::real);
        set_modes(header, Side::header, guest, guest == 2 ? 2 : 1);
        deep.start(header, 0x1000);
        for (const uint32_t word : {ADD, ADD + 1})
            deep.run(word, 0x1000);
        EXPECT_THAT(deep.news(), IsEmpty()) << guest;
    }
}

TEST(code_unchanged, holds_in_hashed_pages)
{
    Deep deep;
    Item header = good_trace()[FIRST_HEADER];
    set_case(header, Side::header, Case::hpt);
    deep.start(header, 0x12000);
    for (const uint32_t word : {ADD, ADD + 1})
        deep.run(word, 0x12000);
    EXPECT_THAT(deep.news(), ElementsAre("code-unchanged 1 12000: 38630002, it was 38630001"));
}

TEST(code_unchanged, is_silent_after_a_doubtful_store_until_the_word_is_learned_again)
{
    Deep deep;
    deep.start(CODE, entry_of(CODE));
    deep.run(ADD, CODE);
    deep.give(real_mode_store(0x777000));
    deep.start(good_trace()[PARTITION], 0); // tells nothing of the address
    deep.give(branch(BACK, CODE));
    deep.run(ADD + 1, CODE);
    EXPECT_THAT(deep.news(), IsEmpty());
    deep.run(ADD + 2, CODE);
    EXPECT_EQ(deep.news().size(), 1u);
}

TEST(same_page_same_walk, tells_where_the_instruction_or_the_data_was_and_is_now)
{
    Deep deep;
    deep.start(CODE, entry_of(CODE));
    deep.run(ADD, CODE);
    Item other = branch(BACK, CODE + 4);
    put(other.record.next_instruction_hRTW[0].RTPTE_ra, entry_of(CODE) + 8);
    deep.give(other, CODE + 8);
    deep.run(ADD, CODE + 4);
    deep.run(ADD + 1, CODE + 4); // where that is, is not known now
    EXPECT_THAT(deep.news(), ElementsAre("same-page-same-walk 1 10008: the instruction 10004, now at 10004"));
    const Item load = access(LOAD_WORD, DATA + 8);
    Item moved = load;
    moved.record.data_rpn[1] ^= 0x10;
    deep.give(load);
    deep.give(moved);
    deep.give(moved); // learned anew
    deep.give(load);
    EXPECT_THAT(deep.news(), ElementsAre("same-page-same-walk 5 -: the data address 50008, now at 1050008",
                                         "same-page-same-walk 7 -: the data address 50008, now at 50008"));
    EXPECT_EQ(deep.checker.checks(qtrace_tool::SAME_PAGE_SAME_WALK), 3u);
}

TEST(same_page_same_walk, depends_on_every_entry_of_a_walk_and_not_on_the_place_in_the_page)
{
    using Change = std::function<void(QTRACE_RECORD &)>;
    const auto finds = [](const Change &change) {
        Deep deep;
        deep.give(nested_load());
        Item other = nested_load();
        change(other.record);
        deep.give(other);
        return deep.news().size() == 1;
    };
    for (size_t step = 0; step < 3; step++) {
        EXPECT_EQ(finds([&](QTRACE_RECORD &r) { put(r.data_hRTW[step].RTPDE_ra_l1, 0x99990); }), step > 0) << step;
        EXPECT_TRUE(finds([&](QTRACE_RECORD &r) { put(r.data_hRTW[step].RTPDE_ra_l2, 0x99990); })) << step;
        EXPECT_TRUE(finds([&](QTRACE_RECORD &r) { put(r.data_hRTW[step].RTPDE_ra_l3, 0x99990); })) << step;
        EXPECT_TRUE(finds([&](QTRACE_RECORD &r) { put(r.data_hRTW[step].RTPTE_ra, 0x99990); })) << step;
    }
    EXPECT_FALSE(finds([](QTRACE_RECORD &r) { put(r.data_hRTW[3].RTPTE_ra, 0x99990); })); // beyond its last walk
    for (size_t step = 0; step < 2; step++)
        EXPECT_TRUE(finds([&](QTRACE_RECORD &r) { put(r.data_hRTW_host_RA[step].ra, 0x99990); })) << step;
    EXPECT_FALSE(finds([](QTRACE_RECORD &r) { put(r.data_gRTW.RTPDE_GUEST_ra_l1, 0x99990); })); // another tree
    EXPECT_FALSE(finds([](QTRACE_RECORD &r) { put(r.data_gRTW.RTPDE_GUEST_ra_l2, 0x99990); })); // not of this depth
    EXPECT_TRUE(finds([](QTRACE_RECORD &r) { put(r.data_gRTW.RTPTE_GUEST_ra, 0x99990); }));
    EXPECT_FALSE(finds([](QTRACE_RECORD &r) {
        put(r.data_ea, 0x600ABC0);
        r.data_rpn[0] |= 0xA;
        put(r.data_gRTW.GUEST_ra, 0x7000ABC0);
    }));
    EXPECT_TRUE(finds([](QTRACE_RECORD &r) { put(r.data_gRTW.GUEST_ra, 0x70010010); }));
    EXPECT_TRUE(finds([](QTRACE_RECORD &r) { r.data_rpn[1] ^= 1; }));
}

TEST(same_page_same_walk, a_longer_walk_leaves_nothing_behind)
{
    Item longer = nested_load();
    put(longer.record.data_ea, 0x8000010);
    longer.record.data_hRTW_depth = 5;
    for (const size_t step : {3, 4})
        put(longer.record.data_hRTW[step].RTPTE_ra, 0x77770);
    put(longer.record.data_gRTW.RTPDE_GUEST_ra_l3, 0x77770);
    put(longer.record.data_hRTW_host_RA[3].ra, 0x77770);
    Deep deep;
    for (const Item &load :
         {access(LOAD_WORD, DATA), nested_load(), longer, nested_load(), access(LOAD_WORD, DATA)})
        deep.give(load);
    EXPECT_THAT(deep.news(), IsEmpty());
    EXPECT_EQ(deep.checker.checks(qtrace_tool::SAME_PAGE_SAME_WALK), 2u);
}

TEST(same_page_same_walk, is_another_tree_with_other_first_entries)
{
    const auto finds = [](uint64_t first, uint64_t second, uint64_t third, bool first_of_both) {
        Deep deep;
        for (const uint64_t entry : {TABLE, TABLE + 8}) {
            Item load = access(LOAD_WORD, DATA);
            QTRACE_RTW &walk = load.record.data_hRTW[0];
            put(walk.RTPDE_ra_l1, first);
            put(walk.RTPDE_ra_l2, second);
            put(walk.RTPDE_ra_l3, third);
            put(walk.RTPTE_ra, first_of_both ? TABLE : entry);
            if (first_of_both)
                load.record.data_rpn[2] ^= entry != TABLE;
            deep.give(load);
        }
        return deep.news().size() == 1;
    };
    EXPECT_TRUE(finds(0x100, 0x200, 0x300, false));
    EXPECT_TRUE(finds(0, 0x200, 0x300, false));
    EXPECT_TRUE(finds(0, 0, 0x300, false));
    EXPECT_FALSE(finds(0, 0, 0, false)); // then the page-table entry is the first
    EXPECT_TRUE(finds(0, 0, 0, true));
}

TEST(same_page_same_walk, is_the_same_tree_with_other_entries_of_the_second_walk)
{
    Deep deep;
    for (const uint64_t entry : {0x10008, 0x99990}) {
        Item load = nested_load();
        load.record.data_hRTW[0] = {};
        put(load.record.data_hRTW[1].RTPDE_ra_l1, entry);
        deep.give(load);
    }
    EXPECT_EQ(deep.news().size(), 1u);
}

TEST(same_page_same_walk, is_another_tree_with_another_entry_of_the_guest_s_only_level)
{
    Deep deep;
    for (const uint64_t entry : {0x60010, 0x99990}) {
        Item load = nested_load();
        load.record.data_hRTW_depth = 2;
        put(load.record.data_gRTW.RTPTE_GUEST_ra, entry);
        deep.give(load);
    }
    EXPECT_THAT(deep.news(), IsEmpty());
}

TEST(same_page_same_walk, is_the_same_tree_wherever_in_a_guest_real_page_the_access_is)
{
    Deep deep;
    for (const uint64_t entry : {TABLE, TABLE + 8}) {
        Item load = access(LOAD_WORD, 0x6000010 + (entry - TABLE));
        load.record.data_hRTW_depth = 1;
        put(load.record.data_gRTW.GUEST_ra, 0x70000010 + (entry - TABLE));
        put(load.record.data_hRTW[0].RTPTE_ra, entry);
        deep.give(load);
    }
    EXPECT_EQ(deep.news().size(), 1u);
}

TEST(same_page_same_walk, pages_of_different_sizes_and_kinds_are_different_pages)
{
    Deep deep;
    Item load = access(LOAD_WORD, 0);
    deep.give(load);
    load.record.data_page_size = 2;
    put(load.record.data_hRTW[0].RTPTE_ra, TABLE + 0x100);
    deep.give(load);
    load.record.data_page_size = 1;
    load.record.data_hRTW_depth = 1; // a guest's real address
    deep.give(load);
    EXPECT_THAT(deep.news(), IsEmpty());
    EXPECT_EQ(deep.checker.checks(qtrace_tool::SAME_PAGE_SAME_WALK), 0u);
}

TEST(same_page_same_walk, a_store_to_any_entry_of_the_walk_silences_it_from_then_on)
{
    const auto finds = [](const Item &store) {
        Deep deep;
        deep.give(nested_load());
        deep.give(store);
        Item other = nested_load();
        put(other.record.data_hRTW[2].RTPTE_ra, 0x99990);
        deep.give(other);
        deep.give(nested_load());
        return deep.news().size();
    };
    const auto host_store = [](uint64_t real) {
        Item item = access(STORE_WORD, real);
        return item;
    };
    for (const uint64_t entry : {0x10000, 0x20000, 0x30000, 0x40000, 0x10008, 0x20008, 0x30008, 0x40008, 0x10010,
                                 0x40010, 0x50000, 0x50008})
        EXPECT_EQ(finds(host_store(entry)), 0u) << std::hex << entry;
    for (const uint64_t other : {0x10018 + 0x10, 0x50010, 0x40018 + 0x10})
        EXPECT_EQ(finds(host_store(other + 0x20)), 1u) << std::hex << other; // then it is learned anew
    for (const uint64_t entry : {0x60000, 0x60010}) {                        // by the guest, at its own addresses
        Item item = nested_load();
        item.record.header.instruction = STORE_WORD;
        put(item.record.data_ea, entry);
        const uint32_t page_number = 0x60;
        std::memcpy(item.record.data_rpn, &page_number, sizeof page_number);
        put(item.record.data_gRTW.GUEST_ra, entry);
        EXPECT_EQ(finds(item), 0u) << std::hex << entry;
    }
    EXPECT_EQ(finds(real_mode_store(0x7771010)), 0u); // may be that of 0x40010
}

TEST(same_page_same_walk, a_store_before_the_walk_or_to_another_entry_silences_nothing)
{
    Deep deep;
    Item changed = access(LOAD_WORD, DATA);
    put(changed.record.data_hRTW[0].RTPTE_ra, entry_of(DATA) + 0x100);
    deep.give(access(STORE_WORD, entry_of(DATA)));
    deep.give(access(LOAD_WORD, DATA));
    deep.give(access(LOAD_WORD, CODE)); // another page with an entry of its own
    deep.give(access(STORE_WORD, entry_of(CODE)));
    deep.give(access(LOAD_WORD, DATA));
    deep.give(changed);
    EXPECT_THAT(deep.news(), ElementsAre("same-page-same-walk 5 -: the data address 50000, now at 50000"));
}

TEST(real_of_effective, compares_below_the_page_size_and_tells_both_addresses)
{
    const auto told = [](const std::function<void(Item &)> &change) {
        Deep deep;
        Item load = access(LOAD_WORD, DATA + 8);
        change(load);
        deep.give(load, 0x1000);
        EXPECT_LE(deep.checker.checks(qtrace_tool::REAL_OF_EFFECTIVE), 1u);
        return deep.checker.checks(qtrace_tool::REAL_OF_EFFECTIVE) == 1 ? deep.news()
                                                                        : std::vector<std::string>{"no check"};
    };
    EXPECT_THAT(told([](Item &) {}), IsEmpty());
    EXPECT_THAT(told([](Item &i) { i.record.data_rpn[0] ^= 8; }), // bit 15
                ElementsAre("real-of-effective 0 1000: 50008 is at 58008, pages of 64K"));
    EXPECT_THAT(told([](Item &i) { i.record.data_rpn[0] ^= 0x10; }), IsEmpty()); // bit 16
    EXPECT_THAT(told([](Item &i) { i.record.data_page_size = 5; }), ElementsAre("no check"));
    EXPECT_THAT(told([](Item &i) { set_piece(i, Side::data, PAGE_NUMBER, false); }), ElementsAre("no check"));
    EXPECT_THAT(told([](Item &i) { i.record.header.control.fld.data_address_present = 0; }),
                ElementsAre("no check"));
    EXPECT_THAT(told([](Item &i) { i.record.header.control.fld.trace_error_code_present = 1; }),
                ElementsAre("no check"));
    EXPECT_THAT(told([](Item &i) { set_modes(i, Side::data, 0, 1); }), ElementsAre("no check"));
    // hashed pages too
    EXPECT_THAT(told([](Item &i) {
                    set_case(i, Side::data, Case::hpt);
                    put(i.record.data_ea, 0x7010);
                }),
                ElementsAre("real-of-effective 0 1000: 7010 is at 12010, pages of 64K"));
}

TEST(real_of_effective, compares_the_address_of_a_guest_too)
{
    const auto told = [](const std::function<void(QTRACE_RECORD &)> &change, bool nested) {
        Deep deep;
        Item load = nested ? nested_load() : access(LOAD_WORD, 0x6000010);
        if (!nested) {
            load.record.data_hRTW_depth = 1;
            put(load.record.data_gRTW.GUEST_ra, 0x70000010);
        }
        change(load.record);
        deep.give(load);
        return deep.news();
    };
    for (const bool nested : {false, true}) {
        EXPECT_THAT(told([](QTRACE_RECORD &) {}, nested), IsEmpty());
        EXPECT_THAT(told([](QTRACE_RECORD &r) { put(r.data_gRTW.GUEST_ra, 0x70008010); }, nested),
                    ElementsAre("real-of-effective 0 -: 6000010 is at the guest's 70008010, pages of 64K"));
        EXPECT_THAT(told([](QTRACE_RECORD &r) { put(r.data_gRTW.GUEST_ra, 0x70000011); }, nested),
                    ElementsAre("real-of-effective 0 -: 6000010 is at the guest's 70000011, pages of 64K"));
        EXPECT_THAT(told([](QTRACE_RECORD &r) { put(r.data_gRTW.GUEST_ra, 0x12340010); }, nested), IsEmpty());
    }
    // the page of the guest counts, not the one of the host
    EXPECT_THAT(told([](QTRACE_RECORD &r) { r.data_page_size = 2; }, true), IsEmpty());
    EXPECT_THAT(told(
                    [](QTRACE_RECORD &r) {
                        r.data_gpage_size = 2;
                        r.data_rpn[1] ^= 1;
                    },
                    true),
                ElementsAre("real-of-effective 0 -: 6000010 is at 70100010, pages of 2M"));
    // without a guest depth the guest's address means nothing
    EXPECT_THAT(told(
                    [](QTRACE_RECORD &r) {
                        r.data_hRTW_depth = 0;
                        put(r.data_gRTW.GUEST_ra, 0x70008010);
                    },
                    false),
                IsEmpty());
}

TEST(real_of_effective, tells_where_in_a_header_and_in_the_record_that_names_the_next_address)
{
    Deep deep;
    Item header = good_trace()[FIRST_HEADER];
    map(header, Side::header, CODE, entry_of(CODE));
    header.header.iar_rpn[0] ^= 4;
    deep.start(header, CODE);
    Item jump = branch(BACK, CODE);
    jump.record.next_instruction_rpn[0] ^= 2;
    deep.give(jump, CODE + 4);
    EXPECT_THAT(deep.news(), ElementsAre("real-of-effective header 0 10000: 10000 is at 14000, pages of 64K",
                                         "real-of-effective 0 10004: 10000 is at 12000, pages of 64K"));
}

TEST(deep_rules, another_partition_forgets_registers_and_the_same_one_does_not)
{
    const auto checks = [](uint8_t lpid, uint8_t pid) {
        Deep deep;
        deep.start(CODE, entry_of(CODE)); // lpid 1, pid 7
        Item item{false, {}, "", plain_record(ADD)};
        read(item, 3, 5);
        deep.give(item, CODE);
        Item header = good_trace()[PARTITION];
        put(header.header.lpid, lpid);
        put(header.header.pid, pid);
        deep.give_header(header);
        deep.give(item, CODE);
        return std::pair(deep.checker.checks(qtrace_tool::REGISTER_FLOW),
                         deep.checker.checks(qtrace_tool::CODE_UNCHANGED));
    };
    EXPECT_EQ(checks(1, 7), std::pair(uint64_t{1}, uint64_t{1}));
    EXPECT_EQ(checks(1, 8), std::pair(uint64_t{0}, uint64_t{0}));
    EXPECT_EQ(checks(2, 7), std::pair(uint64_t{0}, uint64_t{0}));
}

TEST(deep_rules, after_a_loss_nothing_is_known_but_the_partition_that_is_told)
{
    const auto news = [](const QTRACE_FILE_HDR *context) {
        Deep deep;
        deep.start(CODE, entry_of(CODE));
        deep.run(ADD, CODE);
        deep.give(access(LOAD_WORD, DATA));
        deep.give(branch(BACK, CODE), CODE);
        deep.checker.loss(context);
        deep.run(ADD + 1, CODE);
        Item other = access(LOAD_WORD, DATA);
        put(other.record.data_hRTW[0].RTPTE_ra, TABLE);
        deep.give(other);
        Item header = good_trace()[PARTITION]; // pid 8 of lpid 2
        deep.give_header(header);
        deep.give(access(LOAD_WORD, DATA));
        return deep.news().size();
    };
    EXPECT_EQ(news(nullptr), 0u); // still pid 7
    QTRACE_FILE_HDR context = good_trace()[PARTITION].header;
    EXPECT_EQ(news(&context), 1u); // the same process before and after
}

TEST(deep_rules, another_thread_that_stores_to_one_entry_of_a_walk_silences_its_page)
{
    const Folder folder;
    Trace changed = loop(), other = loop();
    alter_walk(changed);
    const std::string file = folder.write("trace0", changed);
    for (const uint64_t entry : {uint64_t{0x8000000}, uint64_t{0x8010000}, entry_of(DATA)}) {
        store_to(other, 1, entry);
        folder.write("trace1", other);
        EXPECT_THAT(summary(file)["violations"], IsEmpty()) << std::hex << entry;
    }
    store_to(other, 1, entry_of(DATA) + 0x40);
    folder.write("trace1", other);
    EXPECT_EQ(summary(file)["violations"].size(), 1u);
}

TEST(deep_rules, stores_of_a_damaged_file_beside_are_not_known)
{
    const Folder folder;
    const std::string file = folder.write("trace0", loop());
    folder.write("trace1", loop());
    EXPECT_FALSE(summary(file).value("other_threads_unknown", false));
    std::string bytes = folder.contents("trace1");
    bytes.pop_back();
    folder.text("trace1", bytes);
    EXPECT_TRUE(summary(file).value("other_threads_unknown", false));
    folder.text("trace1", "no trace");
    EXPECT_TRUE(summary(file).value("other_threads_unknown", false));
}

// ---- Bounds ----------------------------------------------------------------------------------------------

namespace
{

// How many accesses or instructions are given until something is forgotten.
uint64_t given_until_forgotten(Deep &deep, const std::function<void(QTRACE_Item &, uint64_t)> &next)
{
    QTRACE_Item item{};
    item.kind = QTRACE_ITEM_RECORD;
    item.address_known = 1;
    item.record = access(LOAD_WORD, DATA).record;
    uint64_t given = 0;
    for (; deep.checker.forgotten() == 0; given++) {
        next(item, given);
        deep.checker.record(item);
    }
    EXPECT_THAT(deep.news(), IsEmpty());
    EXPECT_EQ(deep.checker.forgotten(), 1u);
    return given;
}

void next_page(QTRACE_Item &item, uint64_t page)
{
    put(item.record.data_ea, page << 16);
    put(item.record.data_rpn, page << 4);
}

} // namespace

// Tables hold three quarters of their slots, less 64.
TEST(deep_rules, forget_when_there_are_too_many_pages_or_entries_and_say_so)
{
    Deep of_entries;
    EXPECT_EQ(given_until_forgotten(of_entries,
                                    [](QTRACE_Item &item, uint64_t page) {
                                        next_page(item, page);
                                        put(item.record.data_hRTW[0].RTPTE_ra, TABLE + page * 8);
                                    }),
              524288 / 4 * 3 - 64 - 2 + 1u); // two directories are watched once
    Deep of_pages;
    EXPECT_EQ(given_until_forgotten(of_pages,
                                    [](QTRACE_Item &item, uint64_t page) {
                                        next_page(item, page);
                                        item.record.data_hRTW[0] = {};
                                    }),
              524288 / 4 * 3 - 64 + 1u);
}

TEST(deep_rules, forget_when_there_are_too_many_instructions_or_lines_and_say_so)
{
    Item header = good_trace()[FIRST_HEADER];
    set_case(header, Side::header, Case::real);
    const auto given = [&](uint64_t step) {
        Deep deep;
        deep.start(header, 0);
        return given_until_forgotten(deep, [step](QTRACE_Item &item, uint64_t number) {
            item.record.header.control.fld.data_address_present = 0;
            item.address = number * step;
        });
    };
    EXPECT_EQ(given(64), 262144 / 4 * 3 - 64 + 1u);
    EXPECT_EQ(given(4), 1048576 / 4 * 3 - 64 + 1u);
}
