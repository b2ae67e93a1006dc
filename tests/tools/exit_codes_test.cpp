// How `qtrace` ends: 0 fine, 1 failed, 2 wrong usage, 3 findings; the worst counts, in the order 0, 3, 1.
#include "planted_trace.h"
#include "tool_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>

using namespace planted;
using testing::HasSubstr;

namespace
{

// A whole trace, one that violates a rule, one that is cut, and other files.
struct exit_codes : testing::Test {
    exit_codes() : good(folder.write("good0", good_trace()))
    {
        Trace trace = good_trace();
        trace[TAKEN_BRANCH].record.termination_code = 3;
        bad = folder.write("bad0", trace);
        const std::string bytes = folder.contents("good0");
        cut = folder.text("cut0", bytes.substr(0, bytes.size() - 1));
        none = folder.path("none0");
        output = folder.path("output");
    }
    int code(const std::vector<std::string> &arguments) const { return qtrace(arguments).exit_code; }

    Folder folder;
    std::string good, bad, cut, none, output;
};

} // namespace

TEST_F(exit_codes, are_0_when_nothing_is_found)
{
    for (const char *command : {"info", "dump", "check", "stats", "tlb"})
        EXPECT_EQ(code({command, good}), 0) << command;
    EXPECT_EQ(code({"diff", good, good}), 0);
    EXPECT_EQ(code({"recover", good, output}), 0);
    EXPECT_EQ(code({"cut", "-o", folder.path("part"), good}), 0);
    EXPECT_EQ(code({"report", "-o", output, good}), 0);
    EXPECT_EQ(code({"export", "--format", "csv", "-o", folder.path("table"), good}), 0);
    EXPECT_EQ(code({"plan", "--parts", "2", good}), 0);
}

TEST_F(exit_codes, are_3_for_findings)
{
    EXPECT_EQ(code({"check", bad}), 3);
    EXPECT_EQ(code({"diff", good, bad}), 3);
    for (const char *command : {"info", "dump", "check", "stats", "tlb"})
        EXPECT_EQ(code({command, cut}), 3) << command;
    EXPECT_EQ(code({"report", "-o", output, cut}), 3);
    EXPECT_EQ(code({"export", "--format", "csv", "-o", folder.path("table"), cut}), 3);
    EXPECT_EQ(code({"check", good, bad, good}), 3);
}

TEST_F(exit_codes, are_1_for_failures_also_with_findings)
{
    for (const std::string &found : {good, bad, cut}) {
        EXPECT_EQ(code({"check", found, none}), 1);
        EXPECT_EQ(code({"check", none, found}), 1);
    }
    for (const char *command : {"info", "dump", "stats", "tlb"}) {
        EXPECT_EQ(code({command, cut, none}), 1) << command;
        EXPECT_EQ(code({command, none, cut}), 1) << command;
    }
    EXPECT_EQ(code({"diff", bad, none}), 1);
    EXPECT_EQ(code({"diff", none, bad}), 1);
    EXPECT_EQ(code({"report", "-o", output, cut, none}), 1);
    EXPECT_EQ(code({"recover", none, output}), 1);
}

TEST_F(exit_codes, are_1_when_standard_output_is_full)
{
    const std::vector<std::vector<std::string>> commands = {{"info", good},
                                                            {"dump", good},
                                                            {"check", good},
                                                            {"check", bad},
                                                            {"check", "--rules"},
                                                            {"stats", good},
                                                            {"tlb", good},
                                                            {"diff", good, good},
                                                            {"diff", good, bad},
                                                            {"recover", good, output},
                                                            {"dump", cut},
                                                            {"plan", "--parts", "2", good},
                                                            {"--help"},
                                                            {"dump", "--help"},
                                                            {"--version"},
                                                            {"dump", "--fields", "help"},
                                                            {"info", "--json", good}};
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    for (const std::vector<std::string> &arguments : commands) {
        char name[] = "/tmp/exit_codes_XXXXXX";
        const int messages = mkstemp(name);
        unlink(name);
        EXPECT_EQ(qtrace_tool::run_qtrace(arguments, full, messages), 1) << arguments[0];
        char text[4096] = "";
        EXPECT_GT(pread(messages, text, sizeof(text) - 1, 0), 0);
        EXPECT_THAT(text, HasSubstr("qtrace: standard output: No space left on device\n")) << arguments[0];
        close(messages);
    }
    close(full);
}

TEST_F(exit_codes, are_3_when_a_thread_is_missing_on_either_side)
{
    for (const char *name : {"one0", "one1", "two0", "two1", "two2"})
        folder.write(name, good_trace());
    const std::string one = folder.path("one"), two = folder.path("two");
    const Outcome right = qtrace({"diff", one, two}), left = qtrace({"diff", two, one});
    EXPECT_EQ(right.exit_code, 3);
    EXPECT_EQ(left.exit_code, 3);
    EXPECT_EQ(right.err, "qtrace: " + two + "2: there is no such thread in " + one + "\n");
    EXPECT_EQ(left.err, "qtrace: " + two + "2: there is no such thread in " + one + "\n");
    EXPECT_EQ(qtrace({"diff", two, two}).exit_code, 0);
}

TEST_F(exit_codes, are_2_for_wrong_usage_before_anything_is_read)
{
    EXPECT_EQ(code({"check", "--limit", "x", none}), 2);
    EXPECT_EQ(code({"chekc", none}), 2);
    EXPECT_EQ(code({"diff", none}), 2);
    EXPECT_EQ(code({"cut", none}), 2);
    EXPECT_EQ(code({}), 2);
}
