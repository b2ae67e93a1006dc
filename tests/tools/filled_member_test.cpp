// A member that no producer fills becomes a filled one by its row in the schema alone: this program is built with
// another row for exception_code, and with nothing else changed.
#include "planted_trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace planted;
using nlohmann::json;
using testing::HasSubstr;

namespace
{

class filled_member : public testing::Test
{
protected:
    std::string write(bool flag, uint8_t value) const
    {
        Trace trace = good_trace();
        trace[LOAD].record.header.control.fld.exception_code_present = flag;
        trace[LOAD].record.exception_code = value;
        return folder_.write("trace0", trace);
    }

    Folder folder_;
};

} // namespace

TEST_F(filled_member, passes_the_checks_and_is_gated_by_its_flag)
{
    const Outcome good = qtrace({"check", write(true, QTRACE_ImpreciseInterrupt)});
    EXPECT_EQ(good.exit_code, 0) << good.out;
    EXPECT_THAT(qtrace({"check", write(false, QTRACE_ImpreciseInterrupt)}).out, HasSubstr("exception_code"));
    EXPECT_THAT(qtrace({"check", "--rules"}).out, HasSubstr("gated-exception-code-present"));
}

TEST_F(filled_member, is_printed_with_its_label_and_name)
{
    const std::string file = write(true, QTRACE_ImpreciseInterrupt);
    EXPECT_THAT(qtrace({"dump", "--from", "1", "--count", "1", file}).out, HasSubstr(" exception 16"));
    const Outcome lines = qtrace({"dump", "--json", "--from", "1", "--count", "1", file});
    EXPECT_EQ(json::parse(lines.out)["exception_code"], 16);
}

TEST_F(filled_member, counts_in_its_group)
{
    const auto total = [](const std::string &file) {
        return json::parse(qtrace({"stats", "--json", file}).out)["total_bytes"]["error"].get<int>();
    };
    EXPECT_EQ(total(write(true, 0)), total(write(false, 0)) + 1);
}

TEST_F(filled_member, is_a_column_of_exports)
{
    const std::string out = folder_.path("out.csv");
    const Outcome outcome = qtrace({"export", "--format", "csv", "--fields", "record,exception_code", "--count",
                                    "2", "-o", out, write(true, QTRACE_ImpreciseInterrupt)});
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    EXPECT_EQ(folder_.contents("out.csv"), "record,exception_code\n0,\n1,16\n");
}
