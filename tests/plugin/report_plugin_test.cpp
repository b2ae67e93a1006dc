// The throughput line and the helpers that write free text into text traces. The wall clock is the test's own.
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/time.h>

#include <cstdlib>
#include <string>

namespace
{

uint64_t wall_clock_us = 1'000'000'000;
bool zoned_with_zeroes = true;

} // namespace

extern "C" int gettimeofday(struct timeval *__restrict now, void *__restrict zone) noexcept
{
    now->tv_sec = static_cast<time_t>(wall_clock_us / 1'000'000);
    now->tv_usec = static_cast<suseconds_t>(wall_clock_us % 1'000'000);
    if (zone) {
        const auto *given = static_cast<struct timezone *>(zone);
        zoned_with_zeroes = given->tz_minuteswest == 0 && given->tz_dsttime == 0;
    }
    return 0;
}

namespace
{

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

void pass_milliseconds(int64_t milliseconds)
{
    wall_clock_us += static_cast<uint64_t>(milliseconds * 1000);
}

const std::string STOP_LINE = "QTRACE: Stop generating qtrace. \n";

std::string counts(uint64_t cycles, uint64_t instructions)
{
    return "QTRACE: Cycles=" + std::to_string(cycles) + " Instructions=" + std::to_string(instructions) + " ";
}

TEST(clock, counts_whole_milliseconds)
{
    const uint64_t before = wall_clock_us;
    wall_clock_us = 12'345'999;
    EXPECT_EQ(current_millisecond_time(), 12345u);
    wall_clock_us = 12'346'000;
    EXPECT_EQ(current_millisecond_time(), 12346u);
    wall_clock_us = 5'000'000'000'000'000;
    EXPECT_EQ(current_millisecond_time(), 5'000'000'000'000u);
    EXPECT_TRUE(zoned_with_zeroes);
    wall_clock_us = before;
}

TEST(report, session_of_a_hundred_instructions_prints_one_line_at_stop)
{
    Traced_Machine m;
    m.start();
    m.commit_run(100);
    m.forget_output();
    pass_milliseconds(40);
    m.stop();
    EXPECT_EQ(m.printed(), counts(100, 100) + "Speed=2.50 KIPS (VMX=0.00K)\n" + STOP_LINE);
}

TEST(report, speed_and_vmx_rate_are_rounded_to_hundredths)
{
    Traced_Machine m;
    m.start();
    m.commit({.seq = 1, .pc = 0x1000, .vmx = true});
    m.commit({.seq = 2, .pc = 0x1004});
    m.forget_output();
    pass_milliseconds(3);
    m.stop();
    EXPECT_EQ(m.printed(), counts(2, 2) + "Speed=0.67 KIPS (VMX=0.33K)\n" + STOP_LINE);
}

TEST(report, cycles_count_from_the_start_of_the_session)
{
    Traced_Machine m;
    replay::host().set_raw_time(1'000'000);
    m.start();
    m.commit_run(1);
    replay::host().set_raw_time(1'000'777);
    m.forget_output();
    pass_milliseconds(1);
    qtrace_report_kips();
    EXPECT_EQ(m.printed(), counts(777, 1) + "Speed=1.00 KIPS (VMX=0.00K)\n");
}

TEST(report, cycles_and_instructions_are_totals_while_rates_cover_the_interval)
{
    Traced_Machine m;
    m.start();
    m.commit_run(10);
    pass_milliseconds(10);
    qtrace_report_kips();
    m.commit_run(5);
    pass_milliseconds(1);
    m.forget_output();
    qtrace_report_kips();
    EXPECT_EQ(m.printed(), counts(15, 15) + "Speed=5.00 KIPS (VMX=0.00K)\n");
}

TEST(report, begins_a_new_interval_and_leaves_the_totals_alone)
{
    Traced_Machine m;
    m.start();
    m.commit({.seq = 1, .pc = 0x1000, .vmx = true, .vsx = true});
    const uint64_t vsx = VSX_instr_commited;
    pass_milliseconds(7);
    qtrace_report_kips();
    EXPECT_EQ(instr_commited, 0u);
    EXPECT_EQ(VMX_instr_commited, 0u);
    EXPECT_EQ(total_instr_commited, 1u);
    EXPECT_EQ(total_VMX_instr_commited, 1u);
    EXPECT_EQ(VSX_instr_commited, vsx);
    EXPECT_EQ(init_t, wall_clock_us / 1000);
}

TEST(report, zero_interval_prints_an_infinite_speed)
{
    Traced_Machine m;
    m.start();
    m.commit_run(1);
    m.forget_output();
    qtrace_report_kips();
    EXPECT_THAT(m.printed(), MatchesRegex("QTRACE: Cycles=1 Instructions=1 Speed=inf KIPS \\(VMX=-?nanK\\)\n"));
}

TEST(report, clock_set_back_gives_a_huge_unsigned_interval)
{
    Traced_Machine m;
    m.start();
    m.commit_run(10);
    m.forget_output();
    pass_milliseconds(-1000);
    qtrace_report_kips();
    EXPECT_EQ(m.printed(), counts(10, 10) + "Speed=0.00 KIPS (VMX=0.00K)\n");
}

TEST(report, counters_are_taken_as_unsigned)
{
    Traced_Machine m;
    m.start();
    instr_commited = 1ULL << 63;
    VMX_instr_commited = 1ULL << 63;
    pass_milliseconds(1LL << 20);
    m.forget_output();
    qtrace_report_kips();
    EXPECT_EQ(m.printed(), counts(0, 0) + "Speed=8796093022208.00 KIPS (VMX=8796093022208.00K)\n");
}

TEST(report, fires_when_the_sample_is_exactly_reached)
{
    Traced_Machine m;
    m.start();
    instr_commited = SAMPLE_RATE - 2;
    m.forget_output();
    m.commit_run(1);
    EXPECT_EQ(m.printed(), "");
    EXPECT_EQ(instr_commited, SAMPLE_RATE - 1u);
    m.commit_run(1);
    EXPECT_THAT(m.printed(), HasSubstr(counts(2, 2)));
    EXPECT_EQ(instr_commited, 0u);
    m.forget_output();
    m.commit_run(1);
    EXPECT_EQ(m.printed(), "");
    EXPECT_EQ(instr_commited, 1u);
}

TEST(report, does_not_fire_beyond_the_sample)
{
    Traced_Machine m;
    m.start();
    instr_commited = SAMPLE_RATE;
    m.forget_output();
    m.commit_run(1);
    EXPECT_EQ(m.printed(), "");
    EXPECT_EQ(instr_commited, SAMPLE_RATE + 1u);
}

// A long session in little memory: the writer refuses every record, and of what the plugin says only the printed
// lines are kept.
class Long_Session : public testing::Test
{
protected:
    Long_Session()
    {
        replay::host().set_query_observer({});
        replay::host().set_console([this](const replay::Console_Message &message) {
            if (message.channel == replay::Channel::print)
                printed += message.text;
        });
        recording_writer().fail_record(1, true);
        m.start();
        printed.clear();
    }
    Traced_Machine m;
    std::string printed;
};

TEST_F(Long_Session, of_exactly_one_sample_prints_one_line_from_the_event_and_none_at_stop)
{
    m.commit_run(SAMPLE_RATE - 1);
    EXPECT_EQ(printed, "");
    pass_milliseconds(1000);
    m.commit_run(1);
    EXPECT_EQ(printed, counts(262144, 262144) + "Speed=262.14 KIPS (VMX=0.00K)\n");
    printed.clear();
    m.stop();
    EXPECT_EQ(printed, STOP_LINE);
}

TEST_F(Long_Session, of_two_samples_and_one_instruction_prints_three_lines)
{
    m.commit_run(2 * SAMPLE_RATE + 1);
    pass_milliseconds(1);
    m.stop();
    EXPECT_THAT(printed, HasSubstr(counts(262144, 262144)));
    EXPECT_THAT(printed, HasSubstr(counts(524288, 524288)));
    EXPECT_THAT(printed, testing::EndsWith(counts(524289, 524289) + "Speed=1.00 KIPS (VMX=0.00K)\n" + STOP_LINE));
}

// ---- free text --------------------------------------------------------------------------------------------

TEST(debug_text, goes_formatted_into_one_threads_text_trace)
{
    Traced_Machine m(1, 2);
    m.start_with_text();
    debug_print(1, "%s %d 0x%llx\n", "value", -3, 0x1234ULL);
    m.stop();
    EXPECT_EQ(m.file("text0"), "");
    EXPECT_EQ(m.file("text1"), "value -3 0x1234\n");
}

TEST(debug_text, without_a_text_trace_is_dropped)
{
    Traced_Machine m;
    debug_print(0, "no session %d\n", 1);
    debug_print_all("no session\n");
    m.start();
    debug_print(0, "no text trace %d\n", 1);
    debug_print_all("no text trace\n");
    m.stop();
    EXPECT_TRUE(std::filesystem::is_empty(m.folder()));
    EXPECT_THAT(m.warnings(), IsEmpty());
}

TEST(debug_text, of_a_thread_without_a_text_file_is_dropped)
{
    Traced_Machine m(1, 3);
    std::filesystem::create_directory(m.path("text1"));
    m.start_with_text();
    debug_print(1, "lost\n");
    debug_print_all("kept\n");
    m.stop();
    EXPECT_EQ(m.file("text0"), "kept\n");
    EXPECT_EQ(m.file("text2"), "kept\n");
}

TEST(debug_text, for_all_reaches_every_text_trace)
{
    Traced_Machine m(2, 2);
    m.start_with_text();
    debug_print_all("*** a mark of 100%%\n");
    m.stop();
    for (int tid = 0; tid < 4; ++tid)
        EXPECT_EQ(m.file("text" + std::to_string(tid)), "*** a mark of 100%\n");
}

TEST(debug_text, for_all_formats_its_arguments_on_a_machine_of_one_thread)
{
    Traced_Machine m;
    m.start_with_text();
    debug_print_all("%d %s\n", 7, "seven");
    m.stop();
    EXPECT_EQ(m.file("text0"), "7 seven\n");
}

TEST(copycat, joins_two_strings_into_a_new_one)
{
    char first[] = "trace";
    char second[] = "_0";
    char empty[] = "";
    for (const auto &[left, right, joined] : {std::tuple{first, second, "trace_0"},
                                              {first, empty, "trace"},
                                              {empty, second, "_0"},
                                              {empty, empty, ""}}) {
        char *result = copycat(left, right);
        EXPECT_STREQ(result, joined);
        EXPECT_NE(result, left);
        EXPECT_NE(result, right);
        free(result);
    }
    EXPECT_STREQ(first, "trace");
    EXPECT_STREQ(second, "_0");
}

} // namespace
