// `check` and `dump` with the files that a session writes beside a trace: page-table entries and text.
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

using namespace planted;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace
{

std::vector<json> json_lines(const std::string &text)
{
    std::istringstream lines(text);
    std::vector<json> objects;
    for (std::string line; std::getline(lines, line);)
        objects.push_back(json::parse(line));
    return objects;
}

// The bytes of a page-table-entry file.
std::string big_endian(std::initializer_list<uint64_t> words)
{
    std::string bytes;
    for (const uint64_t word : words)
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes += static_cast<char>(word >> shift & 0xFF);
    return bytes;
}

} // namespace

TEST(check_pte, reports_each_walk_that_the_file_does_not_have_once)
{
    const Folder folder;
    Trace trace = good_trace();
    for (const size_t place : {TAKEN_BRANCH, NESTED_LOAD}) // walks that are not the subject
        trace[place] = {false, {}, "", plain_record(0x60000000)};
    trace[CALL] = trace[SUSPECT_STORE] = trace[NESTED_LOAD];
    const std::string file = folder.write("trace0", trace);
    // an access of the other kind first, then the walk of the header and the load
    const std::string good = folder.text("pte0", big_endian({1, 2, 3, 0x100, 0, 0, 0x200, 0x12008}));
    EXPECT_EQ(qtrace({"check", "--pte", good, file}).exit_code, 0);
    const std::string bad = folder.text("other0", big_endian({1, 2, 3, 0x108, 0, 0, 0x200, 0x12008}));
    const Outcome outcome = qtrace({"check", "--json", "--pte", bad, file});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_EQ(json_lines(outcome.out).back()["violations"], json({{"pte-walk", 1}}));
}

TEST(check_pte, says_what_was_compared_and_what_cannot_be)
{
    const Folder folder;
    const std::string file =
        folder.write("trace0", good_trace()); // 3 different walks, 2 translations of the short form
    const std::string empty = folder.text("pte0", std::string(24, '\0'));
    const std::string text = qtrace({"check", "--ignore", "pte-walk", "--pte", empty, file}).out;
    EXPECT_THAT(text,
                HasSubstr("\n  4 different walks compared with the page-table entries; 2 translations by a hashed "
                          "page table cannot be compared\n"));
    const json summary = json_lines(qtrace({"check", "--json", "--pte", empty, file}).out).back();
    EXPECT_EQ(summary["walks_compared"], 4);
    EXPECT_EQ(summary["hashed_translations"], 2);
    Trace one_hashed = good_trace();
    one_hashed[SUSPECT_STORE] = {false, {}, "", plain_record(0x60000000)};
    EXPECT_THAT(qtrace({"check", "--ignore", "pte-walk", "--pte", empty, folder.write("other0", one_hashed)}).out,
                HasSubstr("page-table entries; 1 translation by a hashed page table cannot be compared\n"));
}

TEST(check_pte, a_file_that_cannot_hold_accesses_is_an_error)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    const std::string passwords = "root:x:0:0:root:/root:/bin/bash\nbin:x:1:1:b:/bin"; // 48 bytes
    ASSERT_EQ(passwords.size() % 8, 0u);
    for (const std::string &bytes :
         {passwords, std::string(23, '\0'), std::string(8, '\0'), std::string(32, '\0')}) {
        const Outcome outcome = qtrace({"check", "--pte", folder.text("pte0", bytes), file});
        EXPECT_EQ(outcome.exit_code, 1);
        EXPECT_THAT(outcome.err, HasSubstr("pte0: no page-table-entry file"));
    }
    EXPECT_EQ(qtrace({"check", "--pte", "/dev/zero", file}).exit_code, 1);
    EXPECT_EQ(qtrace({"check", "--text", "/dev/zero", file}).exit_code, 1);
}

namespace
{

// A trace whose only walk is that of its header: the entries 100, none, none, 200.
std::string file_with_a_walk(const Folder &folder)
{
    return folder.write("trace0", {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], good_trace()[PLAIN]});
}

std::string words_of(const std::vector<uint64_t> &words)
{
    std::string bytes;
    for (const uint64_t word : words)
        bytes += big_endian({word});
    return bytes;
}

} // namespace

TEST(check_pte, a_file_consists_of_accesses_of_five_addresses_or_of_an_address_and_two_words)
{
    const Folder folder;
    const std::string file = file_with_a_walk(folder);
    const uint64_t any = 1ull << 60; // no address
    const auto is_read = [&](const std::vector<uint64_t> &words) {
        return qtrace({"check", "--pte", folder.text("pte0", words_of(words)), file}).exit_code != 1;
    };
    for (const size_t length : {0, 3, 5, 6, 8, 9, 10, 11, 13})
        EXPECT_TRUE(is_read(std::vector<uint64_t>(length, 7))) << length;
    for (const size_t length : {1, 2, 4, 7})
        EXPECT_FALSE(is_read(std::vector<uint64_t>(length, 7))) << length;
    EXPECT_TRUE(is_read({7, any, any}));
    EXPECT_FALSE(is_read({any, 7, 7}));
    EXPECT_TRUE(is_read({7, any, any, 7, any, any}));
    EXPECT_FALSE(is_read({7, any, any, any, 7, 7}));
    for (size_t place = 0; place < 5; place++) {
        std::vector<uint64_t> words(5, 7);
        words[place] = any;
        EXPECT_FALSE(is_read(words)) << place;
    }
    for (size_t place = 0; place < 8; place++) { // three and five, or five and three
        std::vector<uint64_t> words(8, 7);
        words[place] = any;
        EXPECT_EQ(is_read(words), place == 1 || place == 2 || place == 6 || place == 7) << place;
    }
    for (size_t place = 0; place < 10; place++) {
        std::vector<uint64_t> words(10, 7);
        words[place] = any;
        EXPECT_FALSE(is_read(words)) << place;
    }
}

TEST(check_pte, says_nothing_of_hashed_translations_where_there_are_none)
{
    const Folder folder;
    const std::string file = file_with_a_walk(folder);
    const std::string entries = folder.text("pte0", words_of({0x100, 0, 0, 0x200, 0x12000}));
    EXPECT_EQ(qtrace({"check", "--pte", entries, file}).out,
              file + ": 2 records, 1 header: all invariants hold\n"
                     "  1 different walk compared with the page-table entries\n");
}

TEST(check_pte, finds_a_walk_wherever_it_stands)
{
    const Folder folder;
    const std::string file = file_with_a_walk(folder);
    const auto exit_code = [&](const std::vector<uint64_t> &words) {
        return qtrace({"check", "--pte", folder.text("pte0", words_of(words)), file}).exit_code;
    };
    EXPECT_EQ(exit_code({0x100, 0, 0, 0x200, 0x12000}), 0);
    EXPECT_EQ(exit_code({0x100, 8, 9, 0x200, 0x12000}), 0); // levels that the trace does not tell
    EXPECT_EQ(exit_code({1, 2, 3, 4, 5, 0x100, 0, 0, 0x200, 0x12000}), 0);
    EXPECT_EQ(exit_code({0x100, 0, 0, 0x200, 0x12000, 1, 2, 3, 4, 5}), 0);
    EXPECT_EQ(exit_code({1, 2, 3, 0x100, 0, 0, 0x200, 0x12000, 1, 2, 3}), 0);
    for (const std::vector<uint64_t> &other : std::vector<std::vector<uint64_t>>{{0x108, 0, 0, 0x200, 0x12000},
                                                                                 {0x100, 0, 0, 0x208, 0x12000},
                                                                                 {0, 0x100, 0, 0x200, 0x12000},
                                                                                 {0x100, 0, 0, 0, 0x200},
                                                                                 {}})
        EXPECT_EQ(exit_code(other), 3) << other.size();
}

TEST(check_pte, compares_every_directory_that_a_walk_has_and_tells_whose_walk_is_missing)
{
    const Folder folder;
    Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], good_trace()[LOAD], good_trace()[LOAD],
                   good_trace()[PLAIN]};
    const auto set = [](QTRACE_RTW &walk, uint8_t l1, uint8_t l2, uint8_t l3) {
        walk.RTPDE_ra_l1[0] = l1;
        walk.RTPDE_ra_l2[0] = l2;
        walk.RTPDE_ra_l3[0] = l3;
    };
    set(trace[2].record.data_hRTW[0], 0x10, 0x20, 0x30);
    set(trace[3].record.data_hRTW[0], 0x10, 0x20, 0x38);
    const std::string file = folder.write("trace0", trace);
    const auto found = [&](const std::vector<uint64_t> &words) {
        std::istringstream lines(qtrace({"check", "--pte", folder.text("pte0", words_of(words)), file}).out);
        std::vector<std::string> list;
        for (std::string line; std::getline(lines, line);)
            if (line.ends_with("[pte-walk]"))
                list.push_back(line.substr(file.size() + 2));
        return list;
    };
    const std::string
        in_header = "header before record 0 at 0000000000001000: the walk of the first address by 100, 0, 0 to "
                    "the entry 200 is not in the file [pte-walk]",
        first = "record 1 at 0000000000001004: the walk of the data address by 110, 20, 30 to the entry 200 "
                "is not in the file [pte-walk]",
        second = "record 2 at 0000000000001008: the walk of the data address by 110, 20, 38 to the entry 200 "
                 "is not in the file [pte-walk]";
    EXPECT_THAT(found({}), testing::ElementsAre(in_header, first, second));
    EXPECT_THAT(found({0x100, 0, 0, 0x200, 0x12000}), testing::ElementsAre(first, second));
    // 0x1xx: the byte above the lowest is 1 in the first directory
    EXPECT_THAT(found({0x110, 0x20, 0x30, 0x200, 0x12000}), testing::ElementsAre(in_header, second));
    EXPECT_THAT(found({0x110, 0x20, 0x38, 0x200, 0x12000}), testing::ElementsAre(in_header, first));
    for (const std::vector<uint64_t> &other : std::vector<std::vector<uint64_t>>{
             {0x118, 0x20, 0x30, 0x200, 0}, {0x110, 0x28, 0x30, 0x200, 0}, {0x110, 0x20, 0x30, 0x208, 0}})
        EXPECT_THAT(found(other), testing::ElementsAre(in_header, first, second));
    const json told = json_lines(qtrace({"check", "--json", "--pte", folder.text("pte0", ""), file}).out).back();
    EXPECT_EQ(told["walks_compared"], 3);
    EXPECT_EQ(told["violations"], json({{"pte-walk", 3}}));
    EXPECT_FALSE(told.contains("hashed_translations") && told["hashed_translations"] != 0);
}

TEST(dump_pte, shows_radix_walks_with_their_names)
{
    const Folder folder;
    const std::string file =
        folder.text("pte0", big_endian({0xc10000, 0xc20000, 0, 0xc40010, 0x12008, 1, 2, 3, 4, 0x0fffffffffffffff}));
    const Outcome outcome = qtrace({"dump", "--pte", file, "--kind", "radix"});
    EXPECT_EQ(outcome.out, "         0 directories 0000000000c10000 0000000000c20000 0000000000000000"
                           " entry 0000000000c40010 address 0000000000012008\n"
                           "         1 directories 0000000000000001 0000000000000002 0000000000000003"
                           " entry 0000000000000004 address 0fffffffffffffff\n");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_EQ(json_lines(qtrace({"dump", "--json", "--kind", "radix", "--pte", file}).out)[0],
              json({{"file", file},
                    {"access", 0},
                    {"directory_1", "0xc10000"},
                    {"directory_2", "0xc20000"},
                    {"directory_3", "0x0"},
                    {"entry", "0xc40010"},
                    {"address", "0x12008"}}));
}

TEST(dump_pte, shows_hashed_entries_and_plain_words)
{
    const Folder folder;
    const std::string file = folder.text("pte0", big_endian({0x5000, 0x8000000000000001, 0x1122334455667788}));
    EXPECT_EQ(qtrace({"dump", "--pte", file, "--kind", "hpt"}).out,
              "         0 address 0000000000005000 entry 8000000000000001 1122334455667788\n");
    EXPECT_EQ(json_lines(qtrace({"dump", "--json", "--pte", file, "--kind", "hpt"}).out)[0],
              json({{"file", file},
                    {"access", 0},
                    {"address", "0x5000"},
                    {"upper", "0x8000000000000001"},
                    {"lower", "0x1122334455667788"}}));
    const std::string words =
        "         0 0000000000005000\n         1 8000000000000001\n         2 1122334455667788\n";
    EXPECT_EQ(qtrace({"dump", "--pte", file, "--kind", "words"}).out, words);
    EXPECT_EQ(qtrace({"dump", "--pte", file}).out, words);
}

TEST(dump_pte, takes_base_names_and_a_range_of_accesses)
{
    const Folder folder;
    folder.text("pte0", big_endian({10, 11, 12, 13}));
    folder.text("pte1", big_endian({20, 21}));
    const std::string base = folder.path("pte");
    const Outcome outcome = qtrace({"dump", "--pte", base, "--from", "1", "--count", "2"});
    EXPECT_EQ(outcome.out, "# " + base + "0\n         1 000000000000000b\n         2 000000000000000c\n# " + base +
                               "1\n         1 0000000000000015\n");
    EXPECT_EQ(outcome.exit_code, 0);
    const Outcome beyond = qtrace({"dump", "--pte", base + "1", "--from", "2"});
    EXPECT_EQ(beyond.exit_code, 1);
    EXPECT_EQ(beyond.err, "qtrace: " + base + "1: no access 2: the file has 2\n");
}

TEST(dump_pte, reports_what_is_no_access_of_the_kind)
{
    const Folder folder;
    const std::string file = folder.text("pte0", big_endian({1, 2, 3, 4, 5, 6, 7, 1ull << 60, 9, 10}) + "abc");
    const Outcome walks = qtrace({"dump", "--pte", file, "--kind", "radix"});
    EXPECT_EQ(walks.exit_code, 3);
    EXPECT_EQ(walks.err, "qtrace: " + file +
                             ": access 1: directory_3 is 0x1000000000000000, which is no real address: not all "
                             "accesses are radix\nqtrace: " +
                             file + ": offset 80: 3 bytes left, no whole access of 40 bytes\n");
    EXPECT_EQ(std::ranges::count(walks.out, '\n'), 2);
    EXPECT_EQ(qtrace({"dump", "--pte", file, "--kind", "radix", "--count", "1"}).exit_code, 0);
    EXPECT_EQ(qtrace({"dump", "--pte", "/dev/zero"}).exit_code, 1);
    EXPECT_EQ(qtrace({"dump", "--pte", folder.path("none")}).exit_code, 1);
}

TEST(dump_pte, takes_no_options_of_records)
{
    EXPECT_THAT(qtrace({"dump", "--pte", "pte0", "trace0"}).err, HasSubstr("FILE cannot be used with --pte"));
    const Outcome filtered = qtrace({"dump", "--pte", "pte0", "--pc", "1000"});
    EXPECT_EQ(filtered.exit_code, 2);
    EXPECT_THAT(filtered.err, HasSubstr("--pc cannot be used with --pte"));
    const Outcome mistyped = qtrace({"dump", "--kind", "radx", "--pte", "pte0"});
    EXPECT_EQ(mistyped.exit_code, 2);
    EXPECT_THAT(mistyped.err, HasSubstr("unknown kind of page-table-entry access `radx`; did you mean `radix`?"));
    EXPECT_EQ(qtrace({"dump", "--kind", "radix", "trace0"}).exit_code, 2);
}

TEST(check_rules_list, names_the_rules_of_every_comparison)
{
    const std::string rules = qtrace({"check", "--rules"}).out;
    EXPECT_THAT(rules, HasSubstr("\ntext-fetch-walk "));
    EXPECT_THAT(rules, HasSubstr("\npte-walk "));
    const Outcome outcome = qtrace({"check", "--ignore", "text-adress", "trace0"});
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_THAT(outcome.err, HasSubstr("did you mean `text-address`?"));
}

TEST(check_text, compares_item_by_item)
{
    const Folder folder;
    const Trace trace = {good_trace()[FIRST_HEADER], good_trace()[FIRST_RECORD], good_trace()[LOAD]};
    const std::string file = folder.write("trace0", trace);
    const std::string text =
        "*** FILE HEADER INSERTED *** \n"
        "KelvoVer:3,64bitMode:True,LEMode:True,MemUsed:1073741824,HostPagesUsed:4K 64K ,GuestPagesUsed:\n"
        "(seq:1,tid:2) (xlatetype_I:Z7_HostRadixProcessScoped) (xlatetype_D:RADIX_MODE_NOT_YET_SET) "
        "(pid:7,lpid:1,ptcr:0x0000000000C0000C) (USER,SIMP) (commit:1)(instbody:0x38600001) {name:li r3,1} (I:0) "
        "(N:0) "
        "(T:0) (PC:0x0000000000001000) (nextPC:0x0000000000001004) (done) (left:2) \n"
        "(seq:2,tid:2) (xlatetype_I:Z7_HostRadixProcessScoped) (xlatetype_D:Z7_HostRadixProcessScoped) "
        "(pid:7,lpid:1,ptcr:0x0000000000C0000C) (USER,SIMP) (commit:1)(instbody:0xe8640008) {name:ld r3,8(r4)} "
        "(I:0) "
        "(N:0) (T:0) (PC:0x0000000000001004) (nextPC:0x0000000000001008) (done) "
        "(DEA:0x0000000000005008(HostPageSize:1) (data_Host_RTW_Depth:3 (data_hRTPDE_L1_RA:0x0000000000000100, "
        "data_hRTPDE_L2_RA:0x0000000000000000, data_hRTPDE_L3_RA:0x0000000000000000, "
        "data_hRTPTE_RA:0x0000000000000200) )(data_RPN:0x00000012)) \n";
    EXPECT_EQ(qtrace({"check", "--text", folder.text("text0", text), file}).out,
              file + ": 2 records, 1 header: all invariants hold\n");
    const std::pair<std::string, std::string> changes[] = {
        {"instbody:0xe8640008", "text-instruction"},
        {"PC:0x0000000000001004) (n", "text-address"},
        {"I:0) (N:0) (T:0) (PC:0x0000000000001000", "text-change"},
        {"DEA:0x0000000000005008", "text-data-address"},
        {"data_RPN:0x00000012", "text-data-translation"},
        {"data_hRTPTE_RA:0x0000000000000200", "text-data-walk"},
        {"pid:7,lpid:1", "text-partition"},
        {"KelvoVer:3", "text-comment"},
    };
    for (const auto &[item, rule] : changes) {
        std::string changed = text;
        const size_t digit = changed.find_first_of("0123456789", changed.find(item) + item.find(':') + 1);
        const size_t end = changed.find_first_not_of("0123456789abcdefx", digit);
        changed[end - 1] = changed[end - 1] == '9' ? '1' : '9';
        const Outcome outcome = qtrace({"check", "--json", "--text", folder.text("text0", changed), file});
        EXPECT_EQ(json_lines(outcome.out).back()["violations"], json({{rule, 1}})) << item;
    }
}

TEST(check_text, says_why_a_file_cannot_be_read)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    const Outcome missing = qtrace({"check", "--text", folder.path("none"), file});
    EXPECT_EQ(missing.exit_code, 1);
    EXPECT_THAT(missing.err, HasSubstr("none: No such file or directory"));
    const Outcome directory = qtrace({"check", "--text", folder.path(""), file});
    EXPECT_EQ(directory.exit_code, 1);
    EXPECT_THAT(directory.err, HasSubstr(": Is a directory"));
}

TEST(check_text, takes_any_bytes_and_shows_no_control_characters)
{
    const Folder folder;
    const std::string file = folder.write("trace0", good_trace());
    std::string text = "*** FILE HEADER INSERTED *** \nno comment\n\x1b[31m (seq:1,\x80 \xC3\xA4\n";
    text += "(seq:1,tid:2) {name:x} (I:0) Input r1 : r :12 Output (:) (PC:) \n";
    const Outcome outcome = qtrace({"check", "--text", folder.text("text0", text), file});
    EXPECT_EQ(outcome.exit_code, 3);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, HasSubstr("`\\x1b[31m (seq:1,\\x80 \xC3\xA4`"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("\x1b")));
}

TEST(info, shows_no_control_characters_of_a_comment)
{
    const Folder folder;
    Trace trace = good_trace();
    trace[FIRST_HEADER].comment = "\x1b[2Jgone";
    const Outcome outcome = qtrace({"info", folder.write("trace0", trace)});
    EXPECT_THAT(outcome.out, HasSubstr("comment: \\x1b[2Jgone\n"));
}
