// A mode that the plugin learns by one row of its table, and that translates like a known mode, is asked about, recorded
// and written as text like that one. The row is added when this program is built (new_mode.cmake).
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "record_comparison.h"
#include "traced_machine.h"

#include <string>
#include <vector>

namespace
{

constexpr auto NEW_MODE = static_cast<RDX_XLATE_MODE>(38);

replay::Instruction instruction(RDX_XLATE_MODE mode, uint64_t seq)
{
    replay::Address_Answers answers;
    answers.mode = mode;
    answers.relocated = true;
    answers.host_depth = 4;
    answers.host_walk.fill({0x11, 0x22, 0x33, 0x44});
    answers.host_ra.fill(0x55);
    answers.rpn = 0x66;
    answers.host_rpn = 0x77;
    answers.page_size = 8;
    answers.host_page_size = 9;
    replay::Instruction load{.seq = seq, .pc = 0x1000 * seq, .npc = 0x1000 * (seq + 1)};
    load.load = load.ea_valid = true;
    load.ea = 0x123456789ABCDEF0;
    load.fetch = load.data = answers;
    return load;
}

struct Session {
    std::vector<QTRACE_RECORD> records;
    std::vector<Written_Header> headers;
    std::vector<std::string> queries, text;
};

Session traced(RDX_XLATE_MODE mode)
{
    Traced_Machine m;
    m.start_with_text();
    m.forget_queries();
    for (uint64_t seq = 1; seq <= 3; ++seq)
        m.commit(instruction(mode, seq));
    Session session;
    session.queries = m.queries();
    m.stop();
    session.records = m.records();
    session.headers = m.headers();
    session.text = m.text_lines();
    return session;
}

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

} // namespace

TEST(new_mode, is_asked_about_like_the_mode_that_has_its_case)
{
    EXPECT_EQ(traced(NEW_MODE).queries, traced(Z7_HostRadixSingleLevel).queries);
}

TEST(new_mode, is_recorded_like_the_mode_that_has_its_case)
{
    const Session with_new = traced(NEW_MODE), with_known = traced(Z7_HostRadixSingleLevel);
    ASSERT_EQ(with_new.records.size(), 3u);
    ASSERT_EQ(with_known.records.size(), 3u);
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(differences(with_new.records[i], with_known.records[i]), "");
    const auto flags = with_new.records[0].header.control.fld;
    EXPECT_EQ(flags.guest_xlate_mode_instruction, 3u);
    EXPECT_EQ(flags.host_xlate_mode_instruction, 0u);
    EXPECT_EQ(flags.data_RPN_present, 1u);
    EXPECT_EQ(flags.next_instruction_RPN_present, 1u);
    ASSERT_EQ(with_new.headers.size(), 1u);
    EXPECT_EQ(with_new.headers[0].header.control.iar_rpn_is_present, 1u);
}

TEST(new_mode, is_written_as_text_under_its_own_name)
{
    const Session with_new = traced(NEW_MODE), with_known = traced(Z7_HostRadixSingleLevel);
    ASSERT_EQ(with_new.text.size(), with_known.text.size());
    for (size_t i = 0; i < with_new.text.size(); ++i)
        EXPECT_EQ(with_new.text[i], replaced(with_known.text[i], "Z7_HostRadixSingleLevel", "Z7_HostRadixNew"));
    EXPECT_NE(with_new.text[2].find("(xlatetype_I:Z7_HostRadixNew) "), std::string::npos);
}

TEST(new_mode, leaves_the_modes_above_it_unknown)
{
    const Session above = traced(static_cast<RDX_XLATE_MODE>(39));
    EXPECT_NE(above.text[2].find("(xlatetype_I:Unknown) "), std::string::npos);
    EXPECT_EQ(above.records[0].header.control.fld.data_RPN_present, 0u);
}
