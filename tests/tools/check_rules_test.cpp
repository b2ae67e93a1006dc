// Every rule of `qtrace check` has a trace that breaks it and no other.
#include "address_view.h"
#include "check_rules.h"
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <set>
#include <sstream>

using namespace planted;
using qtrace_tool::Check_Rule;
using qtrace_tool::check_rules;
using qtrace_tool::Rule_Scope;
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

// Rules that no file written by the library can break; tests of their own break them, and the deep ones.
const std::set<std::string> BROKEN_OTHERWISE = {"address-chain", "file-whole"};

std::vector<std::string> planted_rules()
{
    std::vector<std::string> names;
    for (const Check_Rule &rule : check_rules())
        if (!BROKEN_OTHERWISE.contains(rule.name) && rule.scope != Rule_Scope::text &&
            rule.scope != Rule_Scope::entries && rule.scope != Rule_Scope::deep)
            names.push_back(rule.name);
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

TEST(check, has_at_least_forty_rules_with_a_sentence_each)
{
    EXPECT_GE(check_rules().size(), 40u);
    std::set<std::string> names;
    for (const Check_Rule &rule : check_rules()) {
        EXPECT_TRUE(names.insert(rule.name).second) << rule.name;
        EXPECT_GT(rule.sentence.size(), 15u) << rule.name;
    }
}

TEST_P(planted_rule, is_broken_alone)
{
    const auto rule = std::ranges::find(check_rules(), GetParam(), &Check_Rule::name);
    const Change change = change_for(*rule);
    ASSERT_TRUE(change) << "nothing breaks this rule";
    EXPECT_THAT(broken_by(change), ElementsAre(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(check, planted_rule, testing::ValuesIn(planted_rules()), [](const auto &parameter) {
    std::string name = parameter.param;
    std::ranges::replace(name, '-', '_');
    return name;
});

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
