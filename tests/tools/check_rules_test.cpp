// Every rule of `qtrace check` has a trace that breaks it and no other.
#include "address_view.h"
#include "check_rules.h"
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <sstream>

using namespace planted;
using qtrace_tool::Check_Rule;
using qtrace_tool::check_rules;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// Rules that `qtrace check` finds broken in a file.
std::set<std::string> broken_rules(const std::string &file)
{
    std::istringstream lines(qtrace({"check", "--json", file}).out);
    std::set<std::string> rules;
    for (std::string line; std::getline(lines, line);)
        if (const auto object = nlohmann::json::parse(line); object.contains("rule"))
            rules.insert(object["rule"]);
    return rules;
}

std::set<std::string> broken_by(const std::function<void(Trace &)> &change)
{
    const Folder folder;
    Trace trace = good_trace();
    change(trace);
    return broken_rules(folder.write("trace0", trace));
}

auto &flags(Trace &trace, size_t place)
{
    return trace[place].record.header.control.fld;
}
auto &header_flags(Trace &trace, size_t place)
{
    return trace[place].header.sec_ext_controlword.control.fld;
}

using Change = std::function<void(Trace &)>;

const std::map<std::string, Change> RECORD_CHANGES = {
    {"reserved-flags", [](Trace &t) { flags(t, PLAIN)._reserved_13 = 1; }},
    {"unused-flags", [](Trace &t) { flags(t, PLAIN).data_present = 1; }},
    {"header-flags-in-record", [](Trace &t) { flags(t, PLAIN).pid_is_present = 1; }},
    {"extender-missing", [](Trace &t) { flags(t, PLAIN).secondary_extender_present = 0; }},
    {"unused-members", [](Trace &t) { t[PLAIN].record.secondary_data_page_size = 1; }},
    {"change-without-node", [](Trace &t) { flags(t, TAKEN_BRANCH).node_present = 0; }},
    {"change-without-address",
     [](Trace &t) {
         Item &item = t[TAKEN_BRANCH];
         item.record = plain_record(item.record.header.instruction);
         flags(t, TAKEN_BRANCH).iar_change_present = flags(t, TAKEN_BRANCH).node_present = 1;
     }},
    {"node-without-address", [](Trace &t) { flags(t, LOAD).node_present = 1; }},
    {"address-without-reason",
     [](Trace &t) {
         flags(t, LOAD).next_instruction_EA_present = 1;
         t[LOAD].record.next_instruction_ea[0] = 0x08;
         t[LOAD].record.next_instruction_ea[1] = 0x10;
     }},
    {"change-to-next",
     [](Trace &t) {
         flags(t, TAKEN_BRANCH).termination_present = 0;
         t[TAKEN_BRANCH].record.termination_code = 0;
         t[TAKEN_BRANCH].record.next_instruction_ea[0] = 0x0c;
         t[TAKEN_BRANCH].record.next_instruction_ea[1] = 0x10;
     }},
    {"jump-without-change",
     [](Trace &t) {
         flags(t, TAKEN_BRANCH).iar_change_present = flags(t, TAKEN_BRANCH).termination_present = 0;
         t[TAKEN_BRANCH].record.termination_code = 0;
     }},
    {"next-alignment", [](Trace &t) { t[TAKEN_BRANCH].record.next_instruction_ea[0] = 2; }},
    {"node-order", [](Trace &t) { t[TAKEN_BRANCH].record.node = t[TAKEN_BRANCH].record.termination_node = 7; }},
    {"termination-node", [](Trace &t) { t[TAKEN_BRANCH].record.termination_node = 1; }},
    {"termination-code", [](Trace &t) { t[TAKEN_BRANCH].record.termination_code = 3; }},
    {"unconditional-not-taken",
     [](Trace &t) { t[UNTAKEN_BRANCH].record.termination_code = QTRACE_UnconditionalBranchNode; }},
    {"idle-instruction-modes", [](Trace &t) { set_modes(t[LOAD], Side::next, 3, 0); }},
    {"record-before-header",
     [](Trace &t) {
         t.insert(t.begin(), {false, {}, "", plain_record(0x60000000)});
     }},
    {"processor-missing",
     [](Trace &t) {
         flags(t, RESUMED).processor_present = 0;
         t[RESUMED].record.processor = 0;
     }},
    {"processor-repeated",
     [](Trace &t) {
         flags(t, LOAD).processor_present = 1;
         t[LOAD].record.processor = 2;
     }},
    {"processor-changed", [](Trace &t) { t[RESUMED].record.processor = 3; }},
    {"error-without-data",
     [](Trace &t) {
         flags(t, PLAIN).trace_error_code_present = 1;
         t[PLAIN].record.error_code = QTRACE_DataAddressIsSuspect;
     }},
    {"error-code", [](Trace &t) { t[SUSPECT_STORE].record.error_code = 4; }},
    {"length-unknown", [](Trace &t) { t[STRING].record.length = 0xFFFF; }},
    {"registers-empty", [](Trace &t) { flags(t, PLAIN).register_trace_present = 1; }},
    {"register-counts", [](Trace &t) { t[STRING].record.regs.num_fprs_in = 4; }},
    {"registers-beyond-count", [](Trace &t) { t[STRING].record.regs.gpr_in[5].value = 1; }},
    {"register-written-twice",
     [](Trace &t) {
         t[STRING].record.regs.num_vsxrs_out = 2;
         t[STRING].record.regs.vsxr_out[1] = t[STRING].record.regs.vsxr_out[0];
     }},
    {"segment-continued",
     [](Trace &t) {
         const uint32_t word = t[LAST_BEFORE_GAP].record.header.instruction;
         t[LAST_BEFORE_GAP] = t[UNTAKEN_BRANCH];
         t[LAST_BEFORE_GAP].record.header.instruction = word;
     }},
};

const std::map<std::string, Change> HEADER_CHANGES = {
    {"header-reserved-flags", [](Trace &t) { t[SECOND_HEADER].header.control._reserved_12 = 1; }},
    {"header-unused-flags", [](Trace &t) { t[SECOND_HEADER].header.control.asr_is_present = 1; }},
    {"header-unused-members", [](Trace &t) { t[SECOND_HEADER].header.asr[0] = 1; }},
    {"header-address",
     [](Trace &t) {
         t[SECOND_HEADER].header.control.iar_is_present = 0;
         t[SECOND_HEADER].header.iar[1] = 0;
     }},
    {"header-alignment", [](Trace &t) { t[SECOND_HEADER].header.iar[0] = 2; }},
    {"header-version", [](Trace &t) { t[SECOND_HEADER].header.control.version_number_present = 0; }},
    {"header-extender", [](Trace &t) { header_flags(t, SECOND_HEADER).secondary_extender_present = 0; }},
    {"header-registers",
     [](Trace &t) {
         header_flags(t, SECOND_HEADER).ptcr_is_present = 0;
         t[SECOND_HEADER].header.ptcr[0] = t[SECOND_HEADER].header.ptcr[2] = 0;
     }},
    {"header-sdr1", [](Trace &t) { t[SECOND_HEADER].header.control.sdr1_is_present = 1; }},
    {"header-comment-missing",
     [](Trace &t) {
         t[SECOND_HEADER].header.control.comment_present = 0;
         t[SECOND_HEADER].comment.clear();
     }},
    {"header-comment-length", [](Trace &t) { t[SECOND_HEADER].comment += std::string("\0x", 2); }},
    {"header-comment", [](Trace &t) { t[SECOND_HEADER].comment += "4K"; }},
    {"header-machine",
     [](Trace &t) { t[SECOND_HEADER].comment.replace(t[SECOND_HEADER].comment.find(":3"), 2, ":4"); }},
    {"header-without-record", [](Trace &t) { t.insert(t.begin() + SECOND_HEADER, t[SECOND_HEADER]); }},
    {"partition-flags", [](Trace &t) { header_flags(t, PARTITION).secondary_extender_present = 1; }},
    {"partition-before-header", [](Trace &t) { t.insert(t.begin(), t[PARTITION]); }},
    {"partition-repeated", [](Trace &t) { t.insert(t.begin() + PARTITION, t[PARTITION]); }},
};

// Changes of one side of an address that is translated as said.
struct Side_Change {
    Case kind;
    std::function<void(Item &, Side)> change;
};

void fill(uint8_t *bytes)
{
    bytes[1] = 0x77;
}

const std::map<std::string, Side_Change> SIDE_CHANGES = {
    {"mode-pair", {Case::single, [](Item &i, Side s) { set_modes(i, s, 0, 2); }}},
    {"vsid", {Case::single, [](Item &i, Side s) { set_piece(i, s, VSID, true); }}},
    {"page-number", {Case::single, [](Item &i, Side s) { set_piece(i, s, PAGE_NUMBER, false); }}},
    {"page-size", {Case::hpt, [](Item &i, Side s) { set_piece(i, s, PAGE_SIZE, false); }}},
    {"guest-page-size", {Case::nested, [](Item &i, Side s) { set_piece(i, s, GUEST_PAGE_SIZE, false); }}},
    {"host-depth", {Case::single, [](Item &i, Side s) { *address_of(i, s).host_depth = 5; }}},
    {"guest-depth", {Case::single, [](Item &i, Side s) { *address_of(i, s).guest_depth = 6; }}},
    {"walk-without-radix", {Case::hpt, [](Item &i, Side s) { fill(address_of(i, s).walks[0].RTPTE_ra); }}},
    {"single-walk", {Case::single, [](Item &i, Side s) { fill(address_of(i, s).walks[1].RTPTE_ra); }}},
    {"guest-real-depth", {Case::single, [](Item &i, Side s) { fill(address_of(i, s).guest->GUEST_ra); }}},
    {"nested-depth", {Case::nested, [](Item &i, Side s) { *address_of(i, s).guest_depth = 0; }}},
    {"nested-walks", {Case::nested, [](Item &i, Side s) { fill(address_of(i, s).walks[3].RTPTE_ra); }}},
    {"nested-addresses", {Case::nested, [](Item &i, Side s) { fill(address_of(i, s).host_addresses[2].ra); }}},
    {"nested-directories", {Case::nested, [](Item &i, Side s) { *address_of(i, s).host_depth = 3; }}},
    {"guest-directories", {Case::nested, [](Item &i, Side s) { fill(address_of(i, s).guest->RTPDE_GUEST_ra_l3); }}},
};

struct Side_Row {
    const char *name;
    Side side;
    Place place;   // an item with such an address
    Place without; // an item without
};
const Side_Row SIDE_ROWS[] = {
    {"next-", Side::next, TAKEN_BRANCH, PLAIN},
    {"data-", Side::data, LOAD, PLAIN},
    {"header-", Side::header, FIRST_HEADER, SECOND_HEADER},
};

void give_translation_without_address(Trace &trace, const Side_Row &row)
{
    set_modes(trace[row.without], row.side, 3, 3);
    set_piece(trace[row.without], row.side, PAGE_NUMBER, true);
    if (row.side == Side::header)
        HEADER_CHANGES.at("header-address")(trace);
}

// The change that breaks a rule: out of the lists, or made from what the rule says about members.
Change change_for(const Check_Rule &rule)
{
    if (const auto change = RECORD_CHANGES.find(rule.name); change != RECORD_CHANGES.end())
        return change->second;
    if (const auto change = HEADER_CHANGES.find(rule.name); change != HEADER_CHANGES.end())
        return change->second;
    for (const Side_Row &row : SIDE_ROWS) {
        const std::string side = row.name;
        if (rule.name == side + "translation-without-address")
            return [row](Trace &t) { give_translation_without_address(t, row); };
        const auto change = SIDE_CHANGES.find(rule.name.substr(std::min(side.size(), rule.name.size())));
        if (rule.name.starts_with(side) && change != SIDE_CHANGES.end())
            return [row, change](Trace &t) {
                set_case(t[row.place], row.side, change->second.kind);
                change->second.change(t[row.place], row.side);
            };
    }
    if (rule.name.starts_with("gated-"))
        return [&rule](Trace &t) { reinterpret_cast<uint8_t *>(&t[PLAIN].record)[rule.shows.front()->offset] = 1; };
    if (rule.name.starts_with("header-gated-"))
        return [&rule](Trace &t) {
            reinterpret_cast<uint8_t *>(&t[PARTITION].header)[rule.shows.front()->offset] = 4;
        };
    return nullptr;
}

// All rules in the order of `check --rules`.
const std::vector<std::string> RULE_NAMES = {"reserved-flags",
                                             "unused-flags",
                                             "header-flags-in-record",
                                             "extender-missing",
                                             "unused-members",
                                             "change-without-node",
                                             "change-without-address",
                                             "node-without-address",
                                             "address-without-reason",
                                             "change-to-next",
                                             "jump-without-change",
                                             "next-alignment",
                                             "node-order",
                                             "termination-node",
                                             "termination-code",
                                             "unconditional-not-taken",
                                             "address-chain",
                                             "idle-instruction-modes",
                                             "record-before-header",
                                             "processor-missing",
                                             "processor-repeated",
                                             "processor-changed",
                                             "error-without-data",
                                             "error-code",
                                             "length-unknown",
                                             "registers-empty",
                                             "register-counts",
                                             "registers-beyond-count",
                                             "register-written-twice",
                                             "next-mode-pair",
                                             "next-translation-without-address",
                                             "next-vsid",
                                             "next-page-number",
                                             "next-page-size",
                                             "next-guest-page-size",
                                             "next-host-depth",
                                             "next-guest-depth",
                                             "next-walk-without-radix",
                                             "next-single-walk",
                                             "next-guest-real-depth",
                                             "next-nested-depth",
                                             "next-nested-walks",
                                             "next-nested-addresses",
                                             "next-nested-directories",
                                             "next-guest-directories",
                                             "data-mode-pair",
                                             "data-translation-without-address",
                                             "data-vsid",
                                             "data-page-number",
                                             "data-page-size",
                                             "data-guest-page-size",
                                             "data-host-depth",
                                             "data-guest-depth",
                                             "data-walk-without-radix",
                                             "data-single-walk",
                                             "data-guest-real-depth",
                                             "data-nested-depth",
                                             "data-nested-walks",
                                             "data-nested-addresses",
                                             "data-nested-directories",
                                             "data-guest-directories",
                                             "gated-node-present",
                                             "gated-termination-present",
                                             "gated-processor-present",
                                             "gated-next-instruction-EA-present",
                                             "gated-next-instruction-VSID-present",
                                             "gated-next-instruction-RPN-present",
                                             "gated-next-instruction-page-size-present",
                                             "gated-instruction-gpage-size-present",
                                             "gated-data-address-present",
                                             "gated-data-VSID-present",
                                             "gated-data-RPN-present",
                                             "gated-data-page-size-present",
                                             "gated-data-gpage-size-present",
                                             "gated-length-present",
                                             "gated-trace-error-code-present",
                                             "gated-register-trace-present",
                                             "header-reserved-flags",
                                             "header-unused-flags",
                                             "header-unused-members",
                                             "header-address",
                                             "header-alignment",
                                             "header-version",
                                             "header-extender",
                                             "header-registers",
                                             "header-sdr1",
                                             "header-comment-missing",
                                             "header-comment-length",
                                             "header-comment",
                                             "header-machine",
                                             "header-without-record",
                                             "partition-flags",
                                             "partition-before-header",
                                             "partition-repeated",
                                             "header-mode-pair",
                                             "header-translation-without-address",
                                             "header-vsid",
                                             "header-page-number",
                                             "header-page-size",
                                             "header-guest-page-size",
                                             "header-host-depth",
                                             "header-guest-depth",
                                             "header-walk-without-radix",
                                             "header-single-walk",
                                             "header-guest-real-depth",
                                             "header-nested-depth",
                                             "header-nested-walks",
                                             "header-nested-addresses",
                                             "header-nested-directories",
                                             "header-guest-directories",
                                             "header-gated-iar-is-present",
                                             "header-gated-iar-vsid-is-present",
                                             "header-gated-iar-rpn-is-present",
                                             "header-gated-iar-page-size-is-present",
                                             "header-gated-iar-gpage-size-is-present",
                                             "header-gated-ptcr-is-present",
                                             "header-gated-sdr1-is-present",
                                             "header-gated-comment-present",
                                             "header-gated-version-number-present",
                                             "segment-continued",
                                             "file-whole",
                                             "register-flow",
                                             "real-of-effective",
                                             "same-page-same-walk",
                                             "code-unchanged",
                                             "text-header",
                                             "text-comment",
                                             "text-partition",
                                             "text-end",
                                             "text-line",
                                             "text-instruction",
                                             "text-address",
                                             "text-change",
                                             "text-node",
                                             "text-termination",
                                             "text-node-number",
                                             "text-next-address",
                                             "text-branch",
                                             "text-data-address",
                                             "text-length",
                                             "text-registers",
                                             "text-data-mode",
                                             "text-data-translation",
                                             "text-data-walk",
                                             "text-instruction-mode",
                                             "text-fetch-translation",
                                             "text-fetch-walk",
                                             "pte-walk"};

// Rules that no file written by the library can break; tests of their own break them, and the deep ones.
const std::set<std::string> BROKEN_OTHERWISE = {"address-chain",     "file-whole",          "register-flow",
                                                "real-of-effective", "same-page-same-walk", "code-unchanged",
                                                "pte-walk"};

std::vector<std::string> planted_rules()
{
    std::vector<std::string> names;
    for (const std::string &name : RULE_NAMES)
        if (!BROKEN_OTHERWISE.contains(name) && !name.starts_with("text-"))
            names.push_back(name);
    return names;
}

class planted_rule : public testing::TestWithParam<std::string>
{
};

} // namespace

TEST(check, finds_nothing_wrong_with_a_good_trace)
{
    EXPECT_THAT(broken_by([](Trace &) {}), IsEmpty());
}

TEST(check, has_148_rules_with_a_sentence_each)
{
    EXPECT_EQ(RULE_NAMES.size(), 148u);
    std::vector<std::string> names;
    for (const Check_Rule &rule : check_rules()) {
        names.push_back(rule.name);
        EXPECT_GT(rule.sentence.size(), 15u) << rule.name;
    }
    EXPECT_EQ(names, RULE_NAMES);
    std::string listed;
    std::istringstream lines(qtrace({"check", "--rules"}).out);
    for (const std::string &name : RULE_NAMES) {
        std::getline(lines, listed);
        EXPECT_TRUE(listed.starts_with(name + " ")) << listed;
    }
    EXPECT_FALSE(std::getline(lines, listed)) << listed;
    std::vector<std::string> as_objects;
    std::istringstream objects(qtrace({"check", "--rules", "--json"}).out);
    while (std::getline(objects, listed)) {
        const auto rule = nlohmann::json::parse(listed);
        as_objects.push_back(rule["rule"]);
        EXPECT_GT(rule["sentence"].get<std::string>().size(), 15u) << listed;
        EXPECT_EQ(rule.size(), 2u);
    }
    EXPECT_EQ(as_objects, RULE_NAMES);
}

TEST_P(planted_rule, is_broken_alone)
{
    const auto rule = std::ranges::find(check_rules(), GetParam(), &Check_Rule::name);
    ASSERT_NE(rule, check_rules().end());
    const Change change = change_for(*rule);
    ASSERT_TRUE(change) << "nothing breaks this rule";
    EXPECT_THAT(broken_by(change), ElementsAre(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(check, planted_rule, testing::ValuesIn(planted_rules()), [](const auto &parameter) {
    std::string name = parameter.param;
    std::ranges::replace(name, '-', '_');
    return name;
});

// ---- Borders of the rules ------------------------------------------------------------------------------

TEST(check, addresses_are_multiples_of_four)
{
    for (const uint8_t low : std::vector<uint8_t>{1, 2, 3}) {
        EXPECT_THAT(broken_by([low](Trace &t) { t[TAKEN_BRANCH].record.next_instruction_ea[0] = low; }),
                    ElementsAre("next-alignment"));
        EXPECT_THAT(broken_by([low](Trace &t) { t[SECOND_HEADER].header.iar[0] = low; }),
                    ElementsAre("header-alignment"));
    }
}

TEST(check, node_numbers_begin_anew_at_0_or_1_and_count_on)
{
    const auto broken_by_node = [](uint8_t node) {
        return broken_by([node](Trace &t) {
            t[UNTAKEN_BRANCH].record.node = t[UNTAKEN_BRANCH].record.termination_node = 5;
            flags(t, TAKEN_BRANCH).termination_present = 0;
            t[TAKEN_BRANCH].record.termination_code = 0;
            t[TAKEN_BRANCH].record.node = 4;
            t[CALL].record.node = t[CALL].record.termination_node = node;
        });
    };
    // 4 is wrong after nothing, 5 is one more, then
    for (const uint8_t good : std::vector<uint8_t>{0, 1, 6})
        EXPECT_THAT(broken_by_node(good), ElementsAre("node-order"));
    Trace trace = good_trace();
    const Folder folder;
    for (const uint8_t node : std::vector<uint8_t>{0, 1, 2, 3}) {
        trace[CALL].record.node = trace[CALL].record.termination_node = node; // the one before it is 0
        const std::set<std::string> broken = broken_rules(folder.write("trace0", trace));
        EXPECT_EQ(broken.contains("node-order"), node > 1) << int{node};
    }
    trace[UNTAKEN_BRANCH].record.node = trace[UNTAKEN_BRANCH].record.termination_node = 1;
    for (const uint8_t node : std::vector<uint8_t>{0, 1, 2, 3}) {
        trace[CALL].record.node = trace[CALL].record.termination_node = node; // the one before it is 1
        const std::set<std::string> broken = broken_rules(folder.write("trace0", trace));
        EXPECT_EQ(broken.contains("node-order"), node == 3) << int{node};
    }
}

TEST(check, walks_are_looked_at_to_the_last_one)
{
    for (const unsigned walk : {3, 4}) // three are used
        EXPECT_THAT(broken_by([&](Trace &t) { t[NESTED_LOAD].record.data_hRTW[walk].RTPDE_ra_l1[7] = 1; }),
                    ElementsAre("data-nested-walks"))
            << walk;
    for (const unsigned walk : {1, 2, 3, 4})
        EXPECT_THAT(broken_by([&](Trace &t) { t[LOAD].record.data_hRTW[walk].RTPTE_ra[7] = 1; }),
                    ElementsAre("data-single-walk"))
            << walk;
    for (const unsigned address : {2, 3}) // two are used
        EXPECT_THAT(broken_by([&](Trace &t) { t[NESTED_LOAD].record.data_hRTW_host_RA[address].ra[7] = 1; }),
                    ElementsAre("data-nested-addresses"))
            << address;
    for (const unsigned address : {0, 1, 2, 3})
        EXPECT_THAT(broken_by([&](Trace &t) { t[LOAD].record.data_hRTW_host_RA[address].ra[7] = 1; }),
                    ElementsAre("data-single-walk"))
            << address;
}

TEST(check, walks_without_a_translation_that_has_them_are_found_in_each_of_their_members)
{
    using Fill = void (*)(QTRACE_RECORD &);
    const Fill fills[] = {
        [](QTRACE_RECORD &r) { r.data_hRTW[4].RTPTE_ra[7] = 1; },
        [](QTRACE_RECORD &r) { r.data_hRTW_host_RA[0].ra[7] = 1; },
        [](QTRACE_RECORD &r) { r.data_hRTW_host_RA[3].ra[7] = 1; },
        [](QTRACE_RECORD &r) { r.data_gRTW.RTPDE_GUEST_ra_l1[7] = 1; },
        [](QTRACE_RECORD &r) { r.data_gRTW.GUEST_ra[7] = 1; },
    };
    for (const Fill fill : fills) {
        EXPECT_THAT(broken_by([fill](Trace &t) { fill(t[SUSPECT_STORE].record); }), // in a hashed page
                    ElementsAre("data-walk-without-radix"));
        EXPECT_THAT(broken_by([fill](Trace &t) { // translated by one walk, of which nothing else is told
                        set_piece(t[LOAD], Side::data, PAGE_NUMBER, false);
                        set_piece(t[LOAD], Side::data, PAGE_SIZE, false);
                        fill(t[LOAD].record);
                    }),
                    ElementsAre("data-walk-without-radix"));
    }
    for (const auto entry : {&QTRACE_RTW_GUEST::RTPDE_GUEST_ra_l1, &QTRACE_RTW_GUEST::RTPDE_GUEST_ra_l4})
        EXPECT_THAT(broken_by([entry](Trace &t) { (t[LOAD].record.data_gRTW.*entry)[7] = 1; }),
                    ElementsAre("data-single-walk"));
}

TEST(check, an_address_that_is_missing_needs_no_right_pieces)
{
    EXPECT_THAT(broken_by([](Trace &t) {
                    set_modes(t[PLAIN], Side::data, 3, 0);
                    set_piece(t[PLAIN], Side::data, VSID, true);
                }),
                ElementsAre("data-translation-without-address"));
}

TEST(check, directories_below_the_depth_of_their_walk_are_found_in_every_walk)
{
    for (const unsigned walk : {0, 1, 2})
        EXPECT_THAT(broken_by([&](Trace &t) {
                        QTRACE_RECORD &record = t[NESTED_LOAD].record;
                        record.data_hRTW_num_level = 3; // two directories
                        for (unsigned i = 0; i < 3; i++)
                            if (i != walk)
                                std::fill_n(record.data_hRTW[i].RTPDE_ra_l3, 8, uint8_t{0});
                    }),
                    ElementsAre("data-nested-directories"))
            << walk;
    EXPECT_THAT(broken_by([](Trace &t) { t[NESTED_LOAD].record.data_gRTW.RTPDE_GUEST_ra_l4[0] = 1; }),
                ElementsAre("data-guest-directories"));
    EXPECT_THAT(broken_by([](Trace &t) {
                    t[NESTED_LOAD].record.data_hRTW_num_level = 3;
                    for (QTRACE_RTW &walk : t[NESTED_LOAD].record.data_hRTW)
                        std::fill_n(walk.RTPDE_ra_l3, 8, uint8_t{0});
                }),
                IsEmpty());
}

TEST(check, depths_have_limits_of_4_and_5)
{
    EXPECT_THAT(broken_by([](Trace &t) { t[LOAD].record.data_hRTW_num_level = 4; }), IsEmpty());
    EXPECT_THAT(broken_by([](Trace &t) { t[LOAD].record.data_hRTW_num_level = 5; }),
                ElementsAre("data-host-depth"));
    EXPECT_THAT(broken_by([](Trace &t) { t[NESTED_LOAD].record.data_hRTW_depth = 5; }), IsEmpty());
    EXPECT_THAT(broken_by([](Trace &t) { t[NESTED_LOAD].record.data_hRTW_depth = 6; }),
                ElementsAre("data-guest-depth"));
}

namespace
{

// A member that a flag gates, and the rule about that flag.
struct Gated_Member {
    const char *rule;
    std::function<void(Item &)> fill;
};

const Gated_Member GATED_IN_RECORDS[] = {
    {"gated-node-present", [](Item &i) { i.record.node = 1; }},
    {"gated-termination-present", [](Item &i) { i.record.termination_node = 1; }},
    {"gated-termination-present", [](Item &i) { i.record.termination_code = 8; }},
    {"gated-processor-present", [](Item &i) { i.record.processor = 2; }},
    {"gated-next-instruction-EA-present", [](Item &i) { i.record.next_instruction_ea[7] = 1; }},
    {"gated-next-instruction-EA-present", [](Item &i) { i.record.next_instruction_hRTW_depth = 1; }},
    {"gated-next-instruction-EA-present", [](Item &i) { i.record.next_instruction_hRTW_num_level = 1; }},
    {"gated-next-instruction-EA-present", [](Item &i) { i.record.next_instruction_hRTW[4].RTPTE_ra[7] = 1; }},
    {"gated-next-instruction-EA-present", [](Item &i) { i.record.next_instruction_hRTW_host_RA[3].ra[7] = 1; }},
    {"gated-next-instruction-EA-present", [](Item &i) { i.record.next_instruction_gRTW.GUEST_ra[7] = 1; }},
    {"gated-next-instruction-VSID-present", [](Item &i) { i.record.next_instruction_vsid[6] = 1; }},
    {"gated-next-instruction-RPN-present", [](Item &i) { i.record.next_instruction_rpn[3] = 1; }},
    {"gated-next-instruction-page-size-present", [](Item &i) { i.record.next_instruction_page_size = 1; }},
    {"gated-instruction-gpage-size-present", [](Item &i) { i.record.next_instruction_gpage_size = 1; }},
    {"gated-data-address-present", [](Item &i) { i.record.data_ea[7] = 1; }},
    {"gated-data-address-present", [](Item &i) { i.record.data_hRTW_depth = 1; }},
    {"gated-data-address-present", [](Item &i) { i.record.data_hRTW_num_level = 1; }},
    {"gated-data-address-present", [](Item &i) { i.record.data_hRTW[4].RTPTE_ra[7] = 1; }},
    {"gated-data-address-present", [](Item &i) { i.record.data_hRTW_host_RA[3].ra[7] = 1; }},
    {"gated-data-address-present", [](Item &i) { i.record.data_gRTW.GUEST_ra[7] = 1; }},
    {"gated-data-VSID-present", [](Item &i) { i.record.data_vsid[6] = 1; }},
    {"gated-data-RPN-present", [](Item &i) { i.record.data_rpn[3] = 1; }},
    {"gated-data-page-size-present", [](Item &i) { i.record.data_page_size = 1; }},
    {"gated-data-gpage-size-present", [](Item &i) { i.record.data_gpage_size = 1; }},
    {"gated-length-present", [](Item &i) { i.record.length = 0x100; }},
    {"gated-trace-error-code-present", [](Item &i) { i.record.error_code = 8; }},
    {"gated-register-trace-present", [](Item &i) { i.record.regs.num_gprs_in = 1; }},
    {"gated-register-trace-present", [](Item &i) { i.record.regs.vsxr_out[2].value[1] = 1; }},
};

const Gated_Member GATED_IN_HEADERS[] = {
    {"header-gated-iar-is-present", [](Item &i) { i.header.iar[7] = 1; }},
    {"header-gated-iar-is-present", [](Item &i) { i.header.iar_hRTW_depth = 1; }},
    {"header-gated-iar-is-present", [](Item &i) { i.header.iar_hRTW_num_level = 1; }},
    {"header-gated-iar-is-present", [](Item &i) { i.header.iar_hRTW[4].RTPTE_ra[7] = 1; }},
    {"header-gated-iar-is-present", [](Item &i) { i.header.iar_hRTW_host_RA[3].ra[7] = 1; }},
    {"header-gated-iar-is-present", [](Item &i) { i.header.iar_gRTW.GUEST_ra[7] = 1; }},
    {"header-gated-iar-vsid-is-present", [](Item &i) { i.header.iar_vsid[6] = 1; }},
    {"header-gated-iar-rpn-is-present", [](Item &i) { i.header.iar_rpn[3] = 1; }},
    {"header-gated-iar-page-size-is-present", [](Item &i) { i.header.iar_page_size = 1; }},
    {"header-gated-iar-gpage-size-is-present", [](Item &i) { i.header.iar_gpage_size = 1; }},
    {"header-gated-ptcr-is-present", [](Item &i) { i.header.ptcr[7] = 1; }},
    {"header-gated-sdr1-is-present", [](Item &i) { i.header.sdr1[7] = 1; }},
    {"header-gated-comment-present", [](Item &i) { i.header.comment_length = 1; }},
    {"header-gated-version-number-present", [](Item &i) { i.header.version = 1; }},
};

} // namespace

TEST(check, every_member_that_a_clear_flag_gates_is_empty)
{
    for (size_t i = 0; i < std::size(GATED_IN_RECORDS); i++)
        EXPECT_THAT(broken_by([i](Trace &t) { GATED_IN_RECORDS[i].fill(t[PLAIN]); }),
                    ElementsAre(GATED_IN_RECORDS[i].rule))
            << i;
    for (size_t i = 0; i < std::size(GATED_IN_HEADERS); i++)
        EXPECT_THAT(broken_by([i](Trace &t) { GATED_IN_HEADERS[i].fill(t[PARTITION]); }),
                    ElementsAre(GATED_IN_HEADERS[i].rule))
            << i;
}

TEST(check, a_header_at_the_end_has_no_record)
{
    for (const Place place : {SECOND_HEADER, PARTITION})
        EXPECT_THAT(broken_by([&](Trace &t) { t.push_back(t[place]); }), ElementsAre("header-without-record"));
    // also at the end of a trace that has nothing else
    EXPECT_THAT(broken_by([](Trace &t) { t.resize(1); }), ElementsAre("header-without-record"));
}

TEST(check, the_last_record_tells_no_successor)
{
    EXPECT_THAT(broken_by([](Trace &t) { t.resize(UNTAKEN_BRANCH + 1); }), ElementsAre("segment-continued"));
    EXPECT_THAT(broken_by([](Trace &t) { t.resize(TAKEN_BRANCH + 1); }), ElementsAre("segment-continued"));
}

namespace
{

// What a checker tells, whole.
std::vector<std::string> told_by(const std::function<void(qtrace_tool::Trace_Checker &)> &use)
{
    std::vector<std::string> told;
    qtrace_tool::Trace_Checker checker([&](const qtrace_tool::Violation &v) {
        std::ostringstream text;
        text << v.rule.name << (v.in_header ? " header " : " record ") << v.record << " at " << std::hex
             << v.address << (v.address_known ? " known " : " unknown ") << v.values;
        told.push_back(text.str());
    });
    use(checker);
    return told;
}

} // namespace

TEST(check, of_nothing_finds_nothing)
{
    EXPECT_THAT(told_by([](qtrace_tool::Trace_Checker &checker) { checker.end(); }), IsEmpty());
}

TEST(check, a_partition_alone_is_at_no_known_address)
{
    EXPECT_THAT(told_by([](qtrace_tool::Trace_Checker &checker) {
                    QTRACE_Item item{};
                    item.kind = QTRACE_ITEM_HEADER;
                    item.header = good_trace()[PARTITION].header;
                    checker.header(item);
                    checker.end();
                }),
                ElementsAre("partition-before-header header 0 at 0 unknown lpid 0x2, pid 8",
                            "header-without-record header 0 at 0 unknown "));
}

TEST(check, damage_is_at_the_record_after_it_and_at_no_known_address)
{
    EXPECT_THAT(told_by([](qtrace_tool::Trace_Checker &checker) {
                    checker.damage(7, "reason");
                    checker.end();
                }),
                ElementsAre("file-whole record 7 at 0 unknown reason"));
}

TEST(check, each_flag_that_tells_a_successor_is_missing_at_the_end)
{
    using Set = void (*)(decltype(control_word::fld) &flags);
    for (const Set set :
         {Set{[](auto &f) { f.iar_change_present = 1; }}, Set{[](auto &f) { f.node_present = 1; }},
          Set{[](auto &f) { f.termination_present = 1; }}, Set{[](auto &f) { f.next_instruction_EA_present = 1; }}})
        EXPECT_THAT(broken_by([set](Trace &t) { set(flags(t, PLAIN)); }), testing::Contains("segment-continued"));
}

// ---- After losses --------------------------------------------------------------------------------------

namespace
{

// The rules that are broken by these items, where 'L' stands for a loss and other letters for items.
std::vector<std::string> broken_in(std::string_view items, const std::map<char, Item> &by_letter)
{
    std::vector<std::string> broken;
    qtrace_tool::Trace_Checker checker([&](const qtrace_tool::Violation &v) { broken.push_back(v.rule.name); });
    QTRACE_Item item{};
    item.address = 0x1000;
    item.address_known = 1;
    for (const char letter : items) {
        if (letter == 'L') {
            checker.loss();
            item.record_number += 100;
            item.address += 0x8000;
            continue;
        }
        Item planted = by_letter.at(letter);
        if (planted.is_header) {
            item.header = planted.header;
            if (planted.header.control.iar_is_present)
                std::memcpy(&item.address, planted.header.iar, sizeof(item.address));
            item.header.comment = planted.comment.empty() ? nullptr : planted.comment.data();
            item.header.comment_length = static_cast<uint16_t>(planted.comment.size());
            item.kind = QTRACE_ITEM_HEADER;
            checker.header(item);
            continue;
        }
        item.record = planted.record;
        item.kind = QTRACE_ITEM_RECORD;
        checker.record(item);
        item.record_number++;
        item.address += 4;
    }
    checker.end();
    return broken;
}

} // namespace

TEST(check_after_losses, what_the_lost_records_would_explain_is_not_reported)
{
    Trace trace = good_trace();
    const Item first = trace[FIRST_RECORD], partition = trace[PARTITION], plain = trace[PLAIN];
    Item node = plain; // the seventh of a run that falls through, with its address
    node.record.header.control.fld.node_present = node.record.header.control.fld.termination_present = 1;
    node.record.node = node.record.termination_node = 7;
    node.record.termination_code = 64;
    Item zero = node;
    zero.record.node = zero.record.termination_node = 0;
    const std::map<char, Item> items = {
        {'H', trace[FIRST_HEADER]}, {'f', first}, {'P', partition}, {'p', plain}, {'n', node}, {'z', zero}};
    EXPECT_THAT(broken_in("HfPp", items), IsEmpty());
    EXPECT_THAT(broken_in("HfLp", items), IsEmpty());   // another address
    EXPECT_THAT(broken_in("HfLf", items), IsEmpty());   // a processor
    EXPECT_THAT(broken_in("HfLnp", items), IsEmpty());  // a node
    EXPECT_THAT(broken_in("HLp", items), IsEmpty());    // the header's record
    EXPECT_THAT(broken_in("HfPLPp", items), IsEmpty()); // the record between two partitions
    EXPECT_THAT(broken_in("Lp", items), IsEmpty());     // the first header
    EXPECT_THAT(broken_in("LPp", items), IsEmpty());
    EXPECT_THAT(broken_in("HfzL", items), IsEmpty()); // the successor
    EXPECT_THAT(broken_in("HL", items), IsEmpty());
}

TEST(check_after_losses, nothing_is_lost_before_the_first_item_or_at_a_header)
{
    const Trace trace = good_trace();
    Item node = trace[PLAIN];
    node.record.header.control.fld.node_present = node.record.header.control.fld.termination_present = 1;
    node.record.node = node.record.termination_node = 2;
    node.record.termination_code = 64;
    const std::map<char, Item> items = {{'H', trace[FIRST_HEADER]}, {'p', trace[PLAIN]}, {'n', node}};
    EXPECT_THAT(broken_in("np", items), ElementsAre("node-order", "record-before-header", "record-before-header"));
    EXPECT_THAT(broken_in("Hnp", items), ElementsAre("node-order", "processor-missing"));
    EXPECT_THAT(broken_in("LHnp", items), ElementsAre("node-order", "processor-missing"));
}

TEST(check_after_losses, everything_else_is)
{
    Trace trace = good_trace();
    Item other = trace[FIRST_RECORD], node = trace[PLAIN];
    other.record.processor = 5;
    node.record.header.control.fld.node_present = node.record.header.control.fld.termination_present = 1;
    node.record.node = node.record.termination_node = 7;
    node.record.termination_code = 64;
    const std::map<char, Item> items = {{'H', trace[FIRST_HEADER]},
                                        {'f', trace[FIRST_RECORD]},
                                        {'P', trace[PARTITION]},
                                        {'p', trace[PLAIN]},
                                        {'o', other},
                                        {'n', node}};
    EXPECT_THAT(broken_in("HfLo", items), ElementsAre("processor-changed"));
    EXPECT_THAT(broken_in("HfLpf", items), ElementsAre("processor-repeated"));
    EXPECT_THAT(broken_in("HfLpnp", items), ElementsAre("node-order"));
    EXPECT_THAT(broken_in("HfLPP", items), ElementsAre("partition-repeated", "header-without-record"));
    EXPECT_THAT(broken_in("HfLHp", items), ElementsAre("processor-missing"));
    EXPECT_THAT(broken_in("HfLpn", items), ElementsAre("node-order", "segment-continued"));
}

// ---- In pieces -----------------------------------------------------------------------------------------

namespace
{

// The rules that are broken where every `size` items are checked by a checker of their own, and then put together.
std::vector<std::string> broken_in_pieces(const std::string &file, size_t size)
{
    std::vector<std::string> broken;
    const auto report = [&](const qtrace_tool::Violation &v) { broken.push_back(v.rule.name); };
    std::vector<qtrace_tool::Deferred_Item> deferred;
    const auto defer = [&](qtrace_tool::Deferred_Item &&later) { deferred.push_back(std::move(later)); };
    qtrace_tool::Trace_Checker whole(report), piece(report, defer);
    const auto put_together = [&] {
        for (const qtrace_tool::Deferred_Item &later : deferred)
            whole.judge(later);
        deferred.clear();
        whole.append(piece);
    };
    QTRACE_Reader *reader = qtrace_open(file.c_str(), nullptr);
    const QTRACE_FILE_HDR *context = nullptr;
    QTRACE_FILE_HDR last{};
    size_t items = 0;
    for (const QTRACE_Item *item; qtrace_next(reader, &item) != QTRACE_ITEM_END;) {
        if (item->kind != QTRACE_ITEM_HEADER && item->kind != QTRACE_ITEM_RECORD)
            continue;
        if (items++ % size == 0) {
            put_together();
            piece.begin(context);
        }
        item->kind == QTRACE_ITEM_HEADER ? piece.header(*item) : piece.record(*item);
        if (item->kind == QTRACE_ITEM_HEADER) {
            last = item->header;
            context = &last;
        }
    }
    put_together();
    qtrace_close(reader);
    whole.end();
    return broken;
}

std::vector<std::string> broken_in_pieces(const Trace &trace)
{
    const Folder folder;
    return broken_in_pieces(folder.write("trace0", trace), 1);
}

} // namespace

TEST(check_in_pieces, the_same_is_found_as_in_the_whole)
{
    const Folder folder;
    for (const std::string &name : planted_rules()) {
        if (name == "partition-before-header") // then its header is in force in the next piece
            continue;
        Trace trace = good_trace();
        change_for (*std::ranges::find(check_rules(), name, &Check_Rule::name))(trace);
        const std::string file = folder.write("trace0", trace);
        const std::vector<std::string> whole = broken_in_pieces(file, trace.size() + 1);
        EXPECT_THAT(whole, testing::Contains(name));
        for (const size_t size : {1, 2, 3, 5})
            EXPECT_EQ(broken_in_pieces(file, size), whole) << name << size;
    }
}

TEST(check_in_pieces, items_are_judged_by_those_of_earlier_pieces)
{
    EXPECT_THAT(broken_in_pieces(good_trace()), IsEmpty());
    Trace trace = good_trace();
    trace[RESUMED].record.processor = 3;
    EXPECT_THAT(broken_in_pieces(trace), ElementsAre("processor-changed"));
    EXPECT_THAT(broken_in_pieces({trace[PLAIN]}), ElementsAre("record-before-header"));
}

TEST(check_in_pieces, node_numbers_count_on_from_earlier_pieces)
{
    Trace trace = good_trace();
    trace[TAKEN_BRANCH].record.node = trace[TAKEN_BRANCH].record.termination_node = 1;
    trace[UNTAKEN_BRANCH].record.node = trace[UNTAKEN_BRANCH].record.termination_node = 2;
    EXPECT_THAT(broken_in_pieces(trace), IsEmpty());
}

TEST(check_in_pieces, a_header_may_lack_the_comment_that_its_length_announces)
{
    Trace trace = good_trace();
    trace[SECOND_HEADER].header.control.comment_present = 0;
    trace[SECOND_HEADER].header.comment_length = 1;
    trace[SECOND_HEADER].comment.clear();
    EXPECT_THAT(broken_in_pieces(trace), ElementsAre("header-comment-missing", "header-gated-comment-present"));
}

TEST(check, address_chain_is_broken_where_a_record_stands_elsewhere)
{
    const Folder folder;
    std::vector<std::string> broken;
    qtrace_tool::Trace_Checker checker([&](const qtrace_tool::Violation &v) { broken.push_back(v.rule.name); });
    QTRACE_Reader *reader = qtrace_open(folder.write("trace0", good_trace()).c_str(), nullptr);
    ASSERT_NE(reader, nullptr);
    for (const QTRACE_Item *item; qtrace_next(reader, &item) != QTRACE_ITEM_END;) {
        QTRACE_Item changed = *item;
        if (item->kind == QTRACE_ITEM_HEADER)
            checker.header(changed);
        changed.address += item->record_number == 1 ? 0x40 : 0;
        if (item->kind == QTRACE_ITEM_RECORD)
            checker.record(changed);
    }
    checker.end();
    qtrace_close(reader);
    // once where it is wrong, once where it is right again
    EXPECT_THAT(broken, ElementsAre("address-chain", "address-chain"));
}

TEST(check, a_cut_file_breaks_the_rule_that_files_are_whole_and_no_other)
{
    const Folder folder;
    folder.write("trace0", good_trace());
    std::string bytes = folder.contents("trace0");
    bytes.pop_back();
    EXPECT_THAT(broken_rules(folder.text("cut0", bytes)), ElementsAre("file-whole"));
}

TEST(check, says_file_record_address_and_sentence)
{
    const Folder folder;
    Trace trace = good_trace();
    trace[TAKEN_BRANCH].record.termination_code = 3;
    const std::string file = folder.write("trace0", trace);
    const Outcome outcome = qtrace({"check", file});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_THAT(outcome.out,
                testing::HasSubstr(file + ": record 2 at 0000000000001008: the run ends for a reason that "
                                          "is neither 8 (unconditional branch) nor 64 (termination_code 3) "
                                          "[termination-code]\n"));
}

TEST(check, passes_over_rules_that_are_ignored)
{
    const Folder folder;
    Trace trace = good_trace();
    trace[TAKEN_BRANCH].record.termination_code = 3;
    EXPECT_EQ(qtrace({"check", "--ignore", "termination-code", folder.write("trace0", trace)}).exit_code, 0);
}

// ---- What a finding shows --------------------------------------------------------------------------------

namespace
{

// Findings in full: "header before record 9 at 4000: ... (values) [rule]" without the file's name.
std::vector<std::string> findings(const std::function<void(Trace &)> &change)
{
    const Folder folder;
    Trace trace = good_trace();
    change(trace);
    const std::string file = folder.write("trace0", trace);
    std::istringstream lines(qtrace({"check", file}).out);
    std::vector<std::string> found;
    for (std::string line; std::getline(lines, line);)
        if (line.ends_with("]"))
            found.push_back(line.substr(file.size() + 2));
    return found;
}

} // namespace

TEST(check_findings, tell_the_header_or_record_its_address_and_the_values)
{
    EXPECT_THAT(findings([](Trace &t) { t.push_back(t[SECOND_HEADER]); }),
                ElementsAre("header before record 11 at 0000000000004000: no record follows a file header "
                            "[header-without-record]"));
    EXPECT_THAT(findings([](Trace &t) { t.push_back(t[PARTITION]); }),
                ElementsAre("header before record 11 at 0000000000004008: no record follows a file header "
                            "[header-without-record]"));
    EXPECT_THAT(findings([](Trace &t) { t.resize(UNTAKEN_BRANCH + 1); }),
                ElementsAre("record 4 at 0000000000002004: the last record of a trace segment tells its successor "
                            "[segment-continued]"));
    EXPECT_THAT(
        findings([](Trace &t) { t[PARTITION].header.sec_ext_controlword.instruction = 7; }),
        ElementsAre("header before record 5 at 0000000000002008: a member of a file header is filled that no "
                    "producer fills [header-unused-members]"));
    EXPECT_THAT(
        findings([](Trace &t) { t[SECOND_HEADER].header.iar[0] = 2; }),
        ElementsAre("header before record 9 at 0000000000004002: the instruction address of a file header is "
                    "not a multiple of 4 (iar 0000000000004002) [header-alignment]"));
}

TEST(check_findings, show_the_flags_or_members_that_explain_them)
{
    const auto values = [](const std::function<void(Trace &)> &change) {
        const std::vector<std::string> found = findings(change);
        EXPECT_EQ(found.size(), 1u);
        const std::string &line = found.at(0);
        const size_t begin = line.rfind(" (");
        return begin == std::string::npos ? "" : line.substr(begin + 2, line.rfind(") [") - begin - 2);
    };
    EXPECT_EQ(values([](Trace &t) { flags(t, PLAIN)._reserved_13 = flags(t, PLAIN)._reserved_14 = 1; }),
              "_reserved_14 _reserved_13");
    EXPECT_EQ(values([](Trace &t) { t[SECOND_HEADER].header.control._reserved_12 = 1; }), "_reserved_12");
    EXPECT_EQ(values([](Trace &t) { t[TAKEN_BRANCH].record.termination_node = 1; }), "node 0, termination_node 1");
    EXPECT_EQ(values([](Trace &t) { t[TAKEN_BRANCH].record.termination_code = 0; }), "termination_code 0");
    EXPECT_EQ(values([](Trace &t) { t[STRING].record.length = 0xFFFF; }), "length 65535");
    EXPECT_EQ(values([](Trace &t) { t[PLAIN].record.secondary_data_page_size = 3; }), "secondary_data_page_size 3");
    EXPECT_EQ(values([](Trace &t) {
                  t[PLAIN].record.secondary_data_page_size = 3;
                  t[PLAIN].record.is_speculative = 2;
              }),
              "is_speculative 2, secondary_data_page_size 3");
    EXPECT_EQ(values([](Trace &t) { t[LOAD].record.data_hRTW_num_level = 5; }), "data_hRTW_num_level 5");
    EXPECT_EQ(values([](Trace &t) { t[LOAD].record.data_hRTW_host_RA[0].ra[7] = 1; }),
              "data_hRTW 100,0,0,200, data_hRTW_host_RA 100000000000000,0,0,0");
    EXPECT_EQ(values([](Trace &t) { t[FIRST_HEADER].header.iar_hRTW_num_level = 5; }), "iar_hRTW_num_level 5");
}

// ---- Both sides of every condition -----------------------------------------------------------------------

TEST(check, a_next_sequential_address_within_a_run_has_a_reason)
{
    const auto name_next = [](Trace &t, uint8_t low) {
        flags(t, LOAD).next_instruction_EA_present = flags(t, LOAD).node_present = 1;
        t[LOAD].record.next_instruction_ea[0] = low;
        t[LOAD].record.next_instruction_ea[1] = 0x10;
    };
    EXPECT_THAT(broken_by([&](Trace &t) { name_next(t, 8); }), IsEmpty());
    EXPECT_THAT(broken_by([&](Trace &t) {
                    name_next(t, 8);
                    flags(t, LOAD).termination_present = 1;
                    t[LOAD].record.termination_code = 64;
                }),
                ElementsAre("address-without-reason"));
    EXPECT_THAT(broken_by([](Trace &t) { set_modes(t[LOAD], Side::next, 0, 2); }), ElementsAre("next-mode-pair"));
}

TEST(check, registers_beyond_the_count_are_found_in_every_class)
{
    const auto last_filled = [](auto member) {
        return broken_by([member](Trace &t) { std::end(t[STRING].record.regs.*member)[-1].index = 1; });
    };
    const testing::Matcher<const std::set<std::string> &> beyond = ElementsAre("registers-beyond-count");
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::gpr_in), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::gpr_out), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::fpr_in), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::fpr_out), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::spr_in), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::spr_out), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::vmxr_in), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::vmxr_out), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::vsxr_in), beyond);
    EXPECT_THAT(last_filled(&QTRACE_REGISTERS::vsxr_out), beyond);
    EXPECT_THAT(broken_by([](Trace &t) { t[STRING].record.regs.gpr_in[2].index = 1; }), beyond);
    // a full list leaves no room
    EXPECT_THAT(broken_by([](Trace &t) {
                    t[STRING].record.regs.num_fprs_in = 3;
                    t[STRING].record.regs.fpr_in[2].index = 1;
                }),
                IsEmpty());
}

TEST(check, a_register_is_written_once_and_may_be_read_twice)
{
    const auto written = [](std::vector<uint16_t> indexes) {
        return broken_by([&](Trace &t) {
            for (const uint16_t index : indexes)
                t[STRING].record.regs.fpr_out[t[STRING].record.regs.num_fprs_out++].index = index;
        });
    };
    for (const std::vector<uint16_t> &twice :
         std::vector<std::vector<uint16_t>>{{1, 1}, {1, 1, 2}, {1, 2, 1}, {2, 1, 1}})
        EXPECT_THAT(written(twice), ElementsAre("register-written-twice"));
    EXPECT_THAT(written({1, 2, 3}), IsEmpty());
    EXPECT_THAT(written({0, 1}), IsEmpty()); // the entry that is not counted is 0 too
    EXPECT_THAT(broken_by([](Trace &t) { t[STRING].record.regs.gpr_in[1] = t[STRING].record.regs.gpr_in[0]; }),
                IsEmpty());
}

TEST(check, announced_registers_are_listed_whatever_entries_hold)
{
    EXPECT_THAT(broken_by([](Trace &t) {
                    flags(t, PLAIN).register_trace_present = 1;
                    t[PLAIN].record.regs.spr_out[0].index = 0x101;
                }),
                ElementsAre("registers-beyond-count", "registers-empty"));
    for (const auto count : {&QTRACE_REGISTERS::num_sprs_out, &QTRACE_REGISTERS::num_gprs_in})
        EXPECT_THAT(broken_by([&](Trace &t) {
                        flags(t, PLAIN).register_trace_present = 1;
                        t[PLAIN].record.regs.*count = 1;
                    }),
                    IsEmpty());
}

TEST(check, flags_of_a_header_are_looked_at_in_both_words)
{
    EXPECT_THAT(broken_by([](Trace &t) { header_flags(t, SECOND_HEADER)._reserved_13 = 1; }),
                ElementsAre("header-reserved-flags"));
    EXPECT_THAT(broken_by([](Trace &t) { header_flags(t, SECOND_HEADER).length_present = 1; }),
                ElementsAre("header-unused-flags"));
    EXPECT_THAT(broken_by([](Trace &t) { header_flags(t, PARTITION)._reserved_13 = 1; }),
                ElementsAre("partition-flags"));
    EXPECT_THAT(broken_by([](Trace &t) { t[PARTITION].header.sec_ext_controlword.instruction = 1; }),
                ElementsAre("header-unused-members"));
    for (const auto missing : {+[](Trace &t) { header_flags(t, SECOND_HEADER).lpid_is_present = 0; },
                               +[](Trace &t) { header_flags(t, SECOND_HEADER).pid_is_present = 0; }})
        EXPECT_THAT(broken_by(missing), ElementsAre("header-registers"));
    EXPECT_THAT(broken_by([](Trace &t) {
                    t[SECOND_HEADER].header.control.sdr1_is_present = 1;
                    t[SECOND_HEADER].header.sdr1[3] = 1;
                }),
                IsEmpty());
}

namespace
{

// Rules about flags that an item breaks when one more bit of a word is set.
std::string flag_rules(const Item &planted, const std::function<void(Item &)> &set)
{
    Item changed = planted;
    set(changed);
    std::string rules;
    qtrace_tool::Trace_Checker checker([&](const qtrace_tool::Violation &v) {
        if (v.rule.name.ends_with("-flags") || v.rule.name.starts_with("header-flags"))
            rules += v.rule.name + " ";
    });
    QTRACE_Item item{};
    item.header = changed.header;
    item.record = changed.record;
    changed.is_header ? checker.header(item) : checker.record(item);
    return rules;
}

template <class Word> void set_bit(Word &word, unsigned bit)
{
    uint64_t bits = 0;
    std::memcpy(&bits, &word, sizeof word);
    bits |= uint64_t{1} << bit;
    std::memcpy(&word, &bits, sizeof word);
}

bool is_in(unsigned bit, const std::vector<std::pair<unsigned, unsigned>> &ranges)
{
    return std::ranges::any_of(ranges,
                               [&](const auto &range) { return bit >= range.first && bit <= range.second; });
}

} // namespace

TEST(check, every_flag_is_for_use_or_reserved_or_never_set)
{
    const Item plain = good_trace()[PLAIN], header = good_trace()[SECOND_HEADER];
    const std::vector<std::pair<unsigned, unsigned>> reserved = {{0, 4}, {33, 34}, {48, 63}};
    for (unsigned bit = 0; bit < 64; bit++) {
        const std::string in_record = flag_rules(plain, [bit](Item &i) { set_bit(i.record.header.control, bit); });
        EXPECT_EQ(in_record, is_in(bit, reserved)   ? "reserved-flags "
                             : is_in(bit, {{5, 7}}) ? "header-flags-in-record "
                             : is_in(bit, {{17, 17}, {20, 23}, {26, 27}, {29, 32}, {39, 39}}) ? "unused-flags "
                                                                                              : "")
            << bit;
        const std::string in_header =
            flag_rules(header, [bit](Item &i) { set_bit(i.header.sec_ext_controlword.control, bit); });
        EXPECT_EQ(in_header, is_in(bit, reserved)                         ? "header-reserved-flags "
                             : is_in(bit, {{12, 15}, {17, 32}, {35, 47}}) ? "header-unused-flags "
                                                                          : "")
            << bit;
    }
    for (unsigned bit = 0; bit < 32; bit++) {
        const std::string in_header = flag_rules(header, [bit](Item &i) { set_bit(i.header.control, bit); });
        EXPECT_EQ(in_header, is_in(bit, {{3, 3}, {16, 31}})                           ? "header-reserved-flags "
                             : is_in(bit, {{0, 0}, {2, 2}, {5, 5}, {7, 9}, {15, 15}}) ? "header-unused-flags "
                                                                                      : "")
            << bit;
    }
}

TEST(check, the_machine_of_a_header_is_its_version_and_its_memory)
{
    const auto with_comment = [](const std::string &from, const std::string &to) {
        return broken_by([&](Trace &t) {
            std::string &comment = t[SECOND_HEADER].comment;
            comment.replace(comment.find(from), from.size(), to);
        });
    };
    EXPECT_THAT(with_comment("MemUsed:1", "MemUsed:2"), ElementsAre("header-machine"));
    EXPECT_THAT(with_comment("KelvoVer:3", "KelvoVer:5"), ElementsAre("header-machine"));
    EXPECT_THAT(with_comment("HostPagesUsed:4K 64K ", "HostPagesUsed:4K "), IsEmpty());
    EXPECT_THAT(with_comment("KelvoVer:3", "Version:5"), ElementsAre("header-comment"));
}

TEST(check, directories_of_nested_walks_are_as_many_as_their_depth)
{
    const auto broken_with = [](uint8_t depth, unsigned levels) {
        return broken_by([&](Trace &t) {
            t[NESTED_LOAD].record.data_hRTW_num_level = depth;
            for (QTRACE_RTW &walk : t[NESTED_LOAD].record.data_hRTW) {
                if (levels < 3)
                    std::fill_n(walk.RTPDE_ra_l3, 8, uint8_t{0});
                if (levels < 2)
                    std::fill_n(walk.RTPDE_ra_l2, 8, uint8_t{0});
                if (levels < 1)
                    std::fill_n(walk.RTPDE_ra_l1, 8, uint8_t{0});
            }
        });
    };
    for (const uint8_t depth : std::vector<uint8_t>{0, 1, 2, 3, 4})
        for (const unsigned levels : {0u, 1u, 2u, 3u})
            EXPECT_EQ(broken_with(depth, levels).count("data-nested-directories"),
                      levels > (depth == 0 ? 0 : depth - 1u))
                << int{depth} << " " << levels;
    EXPECT_THAT(broken_with(5, 3), ElementsAre("data-host-depth"));
}

TEST(check, directories_of_a_guest_are_as_many_as_its_depth)
{
    const auto broken_with = [](uint8_t depth, unsigned level) {
        return broken_by([&](Trace &t) {
            QTRACE_RTW_GUEST &guest = t[NESTED_LOAD].record.data_gRTW;
            t[NESTED_LOAD].record.data_hRTW_depth = depth;
            for (auto *entry : {guest.RTPDE_GUEST_ra_l1, guest.RTPDE_GUEST_ra_l2, guest.RTPDE_GUEST_ra_l3,
                                guest.RTPDE_GUEST_ra_l4})
                std::fill_n(entry, 8, uint8_t{0});
            QTRACE_UINT8 *const entries[] = {guest.RTPDE_GUEST_ra_l1, guest.RTPDE_GUEST_ra_l2,
                                             guest.RTPDE_GUEST_ra_l3, guest.RTPDE_GUEST_ra_l4};
            entries[level - 1][7] = 1;
        });
    };
    for (const uint8_t depth : std::vector<uint8_t>{1, 2, 3, 4, 5})
        for (const unsigned level : {1u, 2u, 3u, 4u})
            EXPECT_EQ(broken_with(depth, level).count("data-guest-directories"), level == 4 || level >= depth)
                << int{depth} << " " << level;
}

TEST(check, nested_walks_and_addresses_end_with_the_depth_of_the_guest)
{
    const auto broken_with = [](uint8_t depth) {
        return broken_by([depth](Trace &t) { t[NESTED_LOAD].record.data_hRTW_depth = depth; });
    };
    for (const uint8_t depth : std::vector<uint8_t>{1, 2}) // three walks, two addresses
        EXPECT_THAT(broken_with(depth), testing::IsSupersetOf({"data-nested-walks", "data-nested-addresses"}));
    for (const uint8_t depth : std::vector<uint8_t>{3, 4, 5})
        EXPECT_THAT(broken_with(depth), IsEmpty()) << int{depth};
    EXPECT_THAT(broken_by([](Trace &t) {
                    t[NESTED_LOAD].record.data_hRTW_depth = 5;
                    t[NESTED_LOAD].record.data_hRTW[4].RTPTE_ra[7] = 1;
                    t[NESTED_LOAD].record.data_hRTW_host_RA[3].ra[7] = 1;
                }),
                IsEmpty());
}

// ---- Addresses that are not known ------------------------------------------------------------------------

namespace
{

// Rules that are broken by these items, of which those in `unknown` are at no known address.
std::vector<std::string> broken_at_unknown_places(const Trace &trace, const std::set<size_t> &unknown)
{
    const Folder folder;
    std::vector<std::string> broken;
    qtrace_tool::Trace_Checker checker([&](const qtrace_tool::Violation &v) { broken.push_back(v.rule.name); });
    QTRACE_Reader *reader = qtrace_open(folder.write("trace0", trace).c_str(), nullptr);
    for (const QTRACE_Item *item; qtrace_next(reader, &item) != QTRACE_ITEM_END;) {
        QTRACE_Item changed = *item;
        if (item->kind == QTRACE_ITEM_HEADER)
            checker.header(changed);
        if (item->kind == QTRACE_ITEM_RECORD && unknown.contains(item->record_number)) {
            changed.address_known = 0;
            changed.address = 0;
        }
        if (item->kind == QTRACE_ITEM_RECORD)
            checker.record(changed);
    }
    checker.end();
    qtrace_close(reader);
    return broken;
}

} // namespace

TEST(check, nothing_is_expected_of_addresses_that_are_not_known)
{
    const Trace good = good_trace();
    for (size_t record = 0; record < 11; record++)
        EXPECT_THAT(broken_at_unknown_places(good, {record}), IsEmpty()) << record;
    for (const char *rule : {"change-to-next", "jump-without-change"}) {
        Trace trace = good;
        RECORD_CHANGES.at(rule)(trace);
        EXPECT_THAT(broken_at_unknown_places(trace, {}), ElementsAre(rule));
        EXPECT_THAT(broken_at_unknown_places(trace, {2}), IsEmpty()) << rule;
    }
}
