// The console commands: words in, messages and calls of the host out.
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace
{

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

// One letter a thread: 'p' when it is paused.
std::string paused_threads()
{
    std::string letters;
    for (int tid = 0; tid < hardware_threads(); ++tid)
        letters += paused[tid] ? 'p' : '.';
    return letters;
}

std::string start_line(const Traced_Machine &m)
{
    return "QTRACE: Start generating qtrace into file " + m.path("f") + "*";
}

// ---- keywords ---------------------------------------------------------------------------------------------

TEST(command, call_without_keyword_does_nothing)
{
    Traced_Machine m;
    plugin_signal(0, nullptr);
    m.signal({});
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST(command, unknown_keyword_warns_with_the_usage)
{
    Traced_Machine m;
    m.signal({"begin", "f"});
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Arguments error!",
                                          "<sim> plugin signal <so filename> <start|stop|warm|pause|resume> "
                                          "<bin filename> <txt filename>"));
    EXPECT_THAT(m.warning_levels(), Each(2));
}

TEST(command, keywords_are_compared_as_whole_words)
{
    for (const char *word : {"star", "starts", "stopp", "war", "warmup", "pauses", "resum", ""}) {
        Traced_Machine m;
        m.signal({word, m.path("f")});
        EXPECT_EQ(m.warnings().size(), 2u) << word;
        EXPECT_EQ(init, 0u) << word;
    }
}

TEST(command, keywords_are_compared_ignoring_case)
{
    Traced_Machine m;
    m.signal({"StArT", m.path("f")});
    EXPECT_EQ(init, 1u);
    m.signal({"PAUSE"});
    EXPECT_EQ(paused_threads(), "p");
    m.signal({"Resume"});
    EXPECT_EQ(paused_threads(), ".");
    m.signal({"STOP"});
    EXPECT_EQ(init, 0u);
    m.signal({"WARM", "w"});
    EXPECT_THAT(m.session_calls(), ElementsAre("start", "stop", "warm w"));
    EXPECT_THAT(m.warnings(), IsEmpty());
}

// ---- start ------------------------------------------------------------------------------------------------

TEST(command, start_without_a_name_warns_with_the_usage)
{
    Traced_Machine m;
    m.signal({"start"});
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Bin filename can not be empty!",
                                          "<mysim> plugin signal <.so> <start> <bin_filename> {txt txt_filename} "
                                          "{pte pte_filename}"));
    EXPECT_THAT(m.warning_levels(), Each(2));
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(m.printed(), "");
}

TEST(command, start_without_a_name_leaves_an_open_session_alone)
{
    Traced_Machine m;
    m.start();
    m.signal({"start"});
    EXPECT_EQ(init, 1u);
    EXPECT_EQ(recording_writer().open_files(), 1u);
}

TEST(command, start_with_only_a_file_name_opens_only_the_binary_trace)
{
    Traced_Machine m;
    m.signal({"start", m.path("f")});
    EXPECT_EQ(m.printed(), start_line(m) + "\n");
    EXPECT_EQ(init, 1u);
    EXPECT_NE(recording_writer().file_named(m.path("f0")), nullptr);
    EXPECT_EQ(qfile_in_text, nullptr);
    EXPECT_EQ(qfile_in_pte, nullptr);
    EXPECT_TRUE(std::filesystem::is_empty(m.folder()));
}

TEST(command, start_with_a_text_name_says_so)
{
    Traced_Machine m;
    m.signal({"start", m.path("f"), "txt", m.path("t")});
    EXPECT_EQ(m.printed(), start_line(m) + " and text trace " + m.path("t") + "*\n");
    EXPECT_TRUE(std::filesystem::exists(m.path("t0")));
    EXPECT_EQ(qfile_in_pte, nullptr);
}

TEST(command, start_with_a_pte_name_says_so)
{
    Traced_Machine m;
    m.signal({"start", m.path("f"), "pte", m.path("p")});
    EXPECT_EQ(m.printed(), start_line(m) + " with PTE accesses in " + m.path("p") + "*\n");
    EXPECT_TRUE(std::filesystem::exists(m.path("p0")));
    EXPECT_EQ(qfile_in_text, nullptr);
}

TEST(command, pairs_in_either_order_open_the_same_families_and_print_the_same_line)
{
    for (const bool pte_first : {false, true}) {
        Traced_Machine m;
        if (pte_first)
            m.signal({"start", m.path("f"), "pte", m.path("p"), "txt", m.path("t")});
        else
            m.signal({"start", m.path("f"), "txt", m.path("t"), "pte", m.path("p")});
        EXPECT_EQ(m.printed(), start_line(m) + " and text trace " + m.path("t") + "* with PTE accesses in " +
                                   m.path("p") + "*\n");
        EXPECT_NE(recording_writer().file_named(m.path("f0")), nullptr);
        EXPECT_TRUE(std::filesystem::exists(m.path("t0")));
        EXPECT_TRUE(std::filesystem::exists(m.path("p0")));
    }
}

TEST(command, later_pair_overrides_an_earlier_one)
{
    Traced_Machine m;
    m.signal(
        {"start", m.path("f"), "txt", m.path("a"), "pte", m.path("b"), "txt", m.path("c"), "pte", m.path("d")});
    EXPECT_EQ(m.printed(),
              start_line(m) + " and text trace " + m.path("c") + "* with PTE accesses in " + m.path("d") + "*\n");
    EXPECT_FALSE(std::filesystem::exists(m.path("a0")));
    EXPECT_FALSE(std::filesystem::exists(m.path("b0")));
}

TEST(command, three_letters_of_a_pair_word_are_compared_ignoring_case)
{
    for (const auto &[pte_word, txt_word] :
         {std::pair{"PTE", "TXT"}, {"pte_file", "txt_file"}, {"ptex", "txts"}, {"PtE", "tXt"}}) {
        Traced_Machine m;
        m.signal({"start", m.path("f"), pte_word, m.path("p"), txt_word, m.path("t")});
        EXPECT_THAT(m.warnings(), IsEmpty());
        EXPECT_NE(qfile_in_text, nullptr) << txt_word;
        EXPECT_NE(qfile_in_pte, nullptr) << pte_word;
    }
}

TEST(command, missing_text_name_is_an_error_and_the_session_starts_without_text)
{
    Traced_Machine m;
    m.signal({"start", m.path("f"), "txt"});
    EXPECT_THAT(m.errors(), ElementsAre("QTRACE: Expecting TXT file name\n"));
    EXPECT_EQ(m.printed(), start_line(m) + "\n");
    EXPECT_EQ(init, 1u);
    EXPECT_EQ(qfile_in_text, nullptr);
}

TEST(command, missing_pte_name_is_an_error_and_keeps_what_was_gathered)
{
    Traced_Machine m;
    m.signal({"start", m.path("f"), "txt", m.path("t"), "pte"});
    EXPECT_THAT(m.errors(), ElementsAre("QTRACE: Expecting PTE file name\n"));
    EXPECT_EQ(m.printed(), start_line(m) + " and text trace " + m.path("t") + "*\n");
    EXPECT_EQ(init, 1u);
    EXPECT_NE(qfile_in_text, nullptr);
    EXPECT_EQ(qfile_in_pte, nullptr);
}

TEST(command, errors_name_the_plugins_source_and_a_line)
{
    Traced_Machine m;
    m.signal({"start", m.path("f"), "txt"});
    m.signal({"pause", "cpu"});
    int errors = 0;
    for (const auto &message : m.messages())
        if (message.channel == replay::Channel::error) {
            ++errors;
            EXPECT_EQ(message.source, "common/qt_plugin/plugin_qtbin");
            EXPECT_GT(message.line, 0);
        }
    EXPECT_EQ(errors, 2);
}

TEST(command, unknown_word_of_start_is_warned_about_and_skipped)
{
    Traced_Machine m;
    m.signal({"start", m.path("f"), "fast", "txt", m.path("t"), "pt", "tx"});
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Unknown argument 'fast'", "QTRACE: Unknown argument 'pt'",
                                          "QTRACE: Unknown argument 'tx'"));
    EXPECT_THAT(m.warning_levels(), Each(2));
    EXPECT_EQ(m.printed(), start_line(m) + " and text trace " + m.path("t") + "*\n");
    EXPECT_EQ(init, 1u);
}

TEST(command, name_that_looks_like_a_pair_word_is_taken_as_a_name)
{
    Traced_Machine m;
    const auto here = std::filesystem::current_path();
    std::filesystem::current_path(m.folder());
    m.signal({"start", "f", "txt", "pte", "pte", "txt"});
    std::filesystem::current_path(here);
    EXPECT_EQ(m.printed(), "QTRACE: Start generating qtrace into file f* and text trace pte* with PTE accesses in "
                           "txt*\n");
    EXPECT_TRUE(std::filesystem::exists(m.path("pte0")));
    EXPECT_TRUE(std::filesystem::exists(m.path("txt0")));
}

TEST(command, start_in_a_session_closes_the_old_one_without_report_or_stop_notice)
{
    Traced_Machine m;
    m.signal({"start", m.path("old")});
    m.commit_run(3);
    m.forget_output();
    m.signal({"start", m.path("f")});
    EXPECT_EQ(m.printed(), "QTRACE: Stop current session before starting a new one.\n" + start_line(m) + "\n");
    EXPECT_THAT(m.session_calls(), ElementsAre("start"));
    const auto *old_file = recording_writer().file_named(m.path("old0"));
    ASSERT_NE(old_file, nullptr);
    EXPECT_FALSE(old_file->open);
    EXPECT_EQ(old_file->items.size(), 4u); // a header and all three records
    EXPECT_TRUE(recording_writer().file_named(m.path("f0"))->open);
    EXPECT_EQ(instr_commited, 0u);
}

TEST(command, failed_start_in_a_session_leaves_no_session)
{
    Traced_Machine m;
    m.start();
    m.commit_run(2);
    recording_writer().fail_open(1);
    m.forget_output();
    m.signal({"start", m.path("f")});
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(recording_writer().open_files(), 0u);
    EXPECT_THAT(m.session_calls(), IsEmpty());
    EXPECT_EQ(m.printed(), "QTRACE: Stop current session before starting a new one.\n" + start_line(m) + "\n");
}

TEST(command, failed_start_warns_and_prints_no_more_than_the_start_line)
{
    Traced_Machine m;
    recording_writer().fail_open(1);
    m.signal({"start", m.path("f")});
    EXPECT_THAT(m.warnings(), ElementsAre("Can not open QTRACE file to write " + m.path("f0"),
                                          "QTRACE: Error in opening qtrace files!"));
    EXPECT_THAT(m.warning_levels(), Each(2));
    EXPECT_EQ(m.printed(), start_line(m) + "\n");
    EXPECT_EQ(init, 0u);
    EXPECT_THAT(m.session_calls(), IsEmpty());
}

TEST(command, start_resets_the_session_counters_and_leaves_the_vsx_counters_alone)
{
    Traced_Machine m;
    instr_commited = VMX_instr_commited = total_instr_commited = total_VMX_instr_commited = 11;
    VSX_instr_commited = 12;
    total_VSX_instr_commited = 13;
    replay::host().set_raw_time(777);
    const uint64_t before = current_millisecond_time();
    m.start();
    EXPECT_EQ(instr_commited, 0u);
    EXPECT_EQ(VMX_instr_commited, 0u);
    EXPECT_EQ(total_instr_commited, 0u);
    EXPECT_EQ(total_VMX_instr_commited, 0u);
    EXPECT_EQ(VSX_instr_commited, 12u);
    EXPECT_EQ(total_VSX_instr_commited, 13u);
    EXPECT_EQ(start_raw_time, 777u);
    EXPECT_GE(init_t, before);
    EXPECT_LE(init_t, current_millisecond_time());
    VSX_instr_commited = total_VSX_instr_commited = 0;
}

TEST(command, failed_start_leaves_the_counters_alone)
{
    Traced_Machine m;
    recording_writer().fail_open(1);
    instr_commited = total_instr_commited = 5;
    m.start();
    EXPECT_EQ(instr_commited, 5u);
    EXPECT_EQ(total_instr_commited, 5u);
    instr_commited = total_instr_commited = 0;
}

TEST(command, host_is_told_of_the_start_last)
{
    Traced_Machine m;
    boolean open = 0;
    uint64_t counted = 1;
    Cycle since = 0;
    replay::host().set_session_listener([&](std::string_view what) {
        ASSERT_EQ(what, "start");
        open = init;
        counted = instr_commited + total_instr_commited;
        since = start_raw_time;
    });
    instr_commited = total_instr_commited = 9;
    replay::host().set_raw_time(31);
    m.start();
    EXPECT_EQ(open, 1u);
    EXPECT_EQ(counted, 0u);
    EXPECT_EQ(since, 31u);
}

// ---- stop and warm ----------------------------------------------------------------------------------------

TEST(command, stop_without_a_session_warns)
{
    Traced_Machine m;
    m.stop();
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Session is not started. "));
    EXPECT_EQ(m.messages()[0].level, 2);
    EXPECT_EQ(m.printed(), "");
    EXPECT_THAT(m.session_calls(), IsEmpty());
}

TEST(command, second_stop_warns)
{
    Traced_Machine m;
    m.start();
    m.stop();
    m.forget_output();
    m.stop();
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Session is not started. "));
}

TEST(command, stop_right_after_start_prints_no_throughput_line)
{
    Traced_Machine m;
    m.start();
    m.forget_output();
    m.stop();
    EXPECT_EQ(m.printed(), "QTRACE: Stop generating qtrace. \n");
    EXPECT_THAT(m.session_calls(), ElementsAre("stop"));
}

TEST(command, stop_reports_before_it_says_that_it_stops)
{
    Traced_Machine m;
    m.start();
    m.commit_run(7);
    m.forget_output();
    m.stop();
    EXPECT_THAT(m.printed(), MatchesRegex("QTRACE: Cycles=7 Instructions=7 Speed=[^ ]+ KIPS \\(VMX=[^ ]+K\\)\n"
                                          "QTRACE: Stop generating qtrace\\. \n"));
}

TEST(command, host_is_told_of_the_stop_after_everything_is_closed)
{
    Traced_Machine m;
    m.start();
    m.commit_run(2);
    boolean open = 1;
    size_t files = 9;
    replay::host().set_session_listener([&](std::string_view what) {
        ASSERT_EQ(what, "stop");
        open = init;
        files = recording_writer().open_files();
    });
    m.stop();
    EXPECT_EQ(open, 0u);
    EXPECT_EQ(files, 0u);
}

TEST(command, warm_without_a_name_warns_with_the_usage)
{
    Traced_Machine m;
    m.signal({"warm"});
    EXPECT_THAT(m.warnings(), ElementsAre("QTRACE: Warmload filename can not be empty!",
                                          "<mysim> plugin signal <.so> warm <filename>"));
    EXPECT_THAT(m.warning_levels(), Each(2));
    EXPECT_THAT(m.session_calls(), IsEmpty());
}

TEST(command, warm_needs_no_session_and_hands_the_name_to_the_host)
{
    Traced_Machine m;
    m.signal({"warm", "state.warm", "and", "more"});
    EXPECT_EQ(m.printed(), "QTRACE: Writing warmload information to file state.warm\n");
    EXPECT_THAT(m.session_calls(), ElementsAre("warm state.warm"));
    EXPECT_EQ(init, 0u);
}

TEST(command, warm_in_a_session_leaves_it_open)
{
    Traced_Machine m;
    m.start();
    m.signal({"warm", "w"});
    EXPECT_EQ(init, 1u);
    EXPECT_THAT(m.session_calls(), ElementsAre("start", "warm w"));
}

// ---- pause and resume: one grammar, two words --------------------------------------------------------------

// The same command line with either word; everything is paused before a resume.
class Switch_Command : public testing::TestWithParam<std::string>
{
protected:
    Switch_Command() : m(4, 2)
    {
        m.start_with_text();
        if (word() == "resume")
            m.signal({"pause"});
        m.forget_output();
    }
    std::string word() const { return GetParam(); }
    void run(std::vector<std::string> operands)
    {
        operands.insert(operands.begin(), word());
        m.signal(operands);
    }
    // The threads that the commands so far have switched, as letters: "..x.....".
    std::string switched() const
    {
        std::string letters = paused_threads();
        for (char &letter : letters)
            letter = (letter == 'p') == (word() == "pause") ? 'x' : '.';
        return letters;
    }
    void expect_error(const std::vector<std::string> &operands, const std::string &text)
    {
        m.forget_output();
        run(operands);
        EXPECT_THAT(m.errors(), ElementsAre(text));
        EXPECT_EQ(m.messages().size(), 1u);
        EXPECT_EQ(switched(), "........");
    }
    void expect_silence(const std::vector<std::string> &operands)
    {
        m.forget_output();
        run(operands);
        EXPECT_THAT(m.messages(), IsEmpty());
        EXPECT_EQ(switched(), "........");
    }
    Traced_Machine m;
};

INSTANTIATE_TEST_SUITE_P(words, Switch_Command, testing::Values("pause", "resume"),
                         [](const auto &word_info) { return word_info.param; });

TEST_P(Switch_Command, bare_word_switches_every_thread)
{
    run({});
    EXPECT_EQ(switched(), "xxxxxxxx");
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST_P(Switch_Command, without_a_session_is_silent)
{
    m.stop();
    expect_silence({});
    expect_silence({"cpu"});
    expect_silence({"cpu", "0"});
    expect_silence({"cpu", "99", "thread", "0"});
}

TEST_P(Switch_Command, processor_switches_its_threads)
{
    run({"cpu", "2"});
    EXPECT_EQ(switched(), "....xx..");
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST_P(Switch_Command, processor_and_thread_switch_one_thread)
{
    run({"cpu", "3", "thread", "1"});
    EXPECT_EQ(switched(), ".......x");
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST_P(Switch_Command, words_after_the_thread_number_are_ignored)
{
    run({"cpu", "0", "thread", "1", "now", "please"});
    EXPECT_EQ(switched(), ".x......");
    EXPECT_THAT(m.messages(), IsEmpty());
}

TEST_P(Switch_Command, first_letters_of_cpu_and_thread_are_enough)
{
    run({"c", "0", "t", "0"});
    run({"CORE", "1", "Tid", "1"});
    EXPECT_EQ(switched(), "x..x....");
}

TEST_P(Switch_Command, other_word_than_cpu_does_nothing)
{
    expect_silence({"x", "1"});
    expect_silence({"x"});
    expect_silence({""});
    expect_silence({"processor", "1", "thread", "0"});
}

TEST_P(Switch_Command, other_word_than_thread_does_nothing)
{
    expect_silence({"cpu", "0", "x", "1"});
    expect_silence({"cpu", "0", "x"});
    expect_silence({"cpu", "0", ""});
}

TEST_P(Switch_Command, missing_cpu_number_is_an_error)
{
    expect_error({"cpu"}, "QTRACE: cpu number not given for " + word() + " command");
}

TEST_P(Switch_Command, missing_thread_number_is_an_error)
{
    expect_error({"cpu", "3", "thread"}, "QTRACE: thread number not given for " + word() + " command (cpu 3)");
}

TEST_P(Switch_Command, malformed_cpu_number_is_an_error)
{
    for (const std::string id : {"one", "1x", "0x", "08", "1 ", "-", "1.5"})
        expect_error({"cpu", id}, "QTRACE: Invalid cpu id '" + id + "' for " + word());
}

TEST_P(Switch_Command, malformed_thread_number_is_an_error)
{
    for (const std::string id : {"one", "1x", "0xg", "09", "1 "})
        expect_error({"cpu", "2", "thread", id},
                     "QTRACE: Invalid thread id '" + id + "' for " + word() + " (cpu 2)");
}

TEST_P(Switch_Command, cpu_is_checked_before_the_thread_word)
{
    expect_error({"cpu", "zero", "thread", "one"}, "QTRACE: Invalid cpu id 'zero' for " + word());
    expect_error({"cpu", "4", "x"}, "QTRACE: cpu id 4 is outside range [0..4] for " + word());
}

TEST_P(Switch_Command, cpu_number_at_or_above_the_count_is_refused_with_the_count)
{
    expect_error({"cpu", "4"}, "QTRACE: cpu id 4 is outside range [0..4] for " + word());
    expect_error({"cpu", "7"}, "QTRACE: cpu id 7 is outside range [0..4] for " + word());
    expect_error({"cpu", "0x10", "thread", "0"}, "QTRACE: cpu id 16 is outside range [0..4] for " + word());
}

TEST_P(Switch_Command, thread_number_at_or_above_the_count_is_refused_with_the_count)
{
    expect_error({"cpu", "0", "thread", "2"}, "QTRACE: thread id 2 is outside range [0..2] for " + word());
    expect_error({"cpu", "3", "thread", "010"}, "QTRACE: thread id 8 is outside range [0..2] for " + word());
}

TEST_P(Switch_Command, negative_numbers_are_refused_with_the_range_message)
{
    expect_error({"cpu", "-1", "thread", "0"}, "QTRACE: cpu id -1 is outside range [0..4] for " + word());
    expect_error({"cpu", "-1"}, "QTRACE: cpu id -1 is outside range [0..4] for " + word());
    expect_error({"cpu", "1", "thread", "-1"}, "QTRACE: thread id -1 is outside range [0..2] for " + word());
    expect_error({"cpu", "2147483648"}, "QTRACE: cpu id -2147483648 is outside range [0..4] for " + word());
}

TEST_P(Switch_Command, numbers_are_decimal_hexadecimal_or_octal)
{
    run({"cpu", "0x1", "thread", "01"});
    EXPECT_EQ(switched(), "...x....");
    run({"cpu", " 03", "thread", "+0"});
    EXPECT_EQ(switched(), "...x..x.");
}

TEST_P(Switch_Command, empty_number_is_zero)
{
    run({"cpu", "", "thread", ""});
    EXPECT_EQ(switched(), "x.......");
    run({"cpu", ""});
    EXPECT_EQ(switched(), "xx......");
}

TEST_P(Switch_Command, number_wider_than_an_int_is_cut_to_an_int)
{
    run({"cpu", "4294967297", "thread", "4294967296"});
    EXPECT_EQ(switched(), "..x.....");
}

TEST_P(Switch_Command, thread_that_is_already_switched_is_left_alone)
{
    run({"cpu", "1", "thread", "0"});
    run({"cpu", "1", "thread", "0"});
    run({"cpu", "1"});
    EXPECT_EQ(switched(), "..xx....");
    m.stop();
    const std::string line = word() == "pause"
                                 ? "*** PAUSE collection for thread 2\n"
                                 : "*** PAUSE collection for thread 2\n*** RESUME collection for thread 2\n";
    EXPECT_EQ(m.file("text2"), line);
}

TEST(command, bare_pause_with_every_thread_paused_does_nothing)
{
    Traced_Machine m(1, 2);
    m.start_with_text();
    m.signal({"pause"});
    m.signal({"pause"});
    m.stop();
    EXPECT_EQ(m.file("text0"), "*** PAUSE collection for thread 0\n");
    EXPECT_EQ(m.file("text1"), "*** PAUSE collection for thread 1\n");
}

TEST(command, bare_pause_with_one_thread_running_pauses_the_paused_ones_again)
{
    Traced_Machine m(1, 2);
    m.start_with_text();
    m.signal({"pause", "cpu", "0", "thread", "0"});
    m.signal({"pause"});
    m.stop();
    EXPECT_EQ(m.file("text0"), "*** PAUSE collection for thread 0\n*** PAUSE collection for thread 0\n");
    EXPECT_EQ(m.file("text1"), "*** PAUSE collection for thread 1\n");
    EXPECT_EQ(paused_threads(), "pp");
}

TEST(command, resume_with_no_thread_paused_does_nothing)
{
    Traced_Machine m(1, 2);
    m.start_with_text();
    m.forget_output();
    m.signal({"resume"});
    m.signal({"resume", "cpu", "0"});
    m.signal({"resume", "cpu", "0", "thread", "1"});
    EXPECT_THAT(m.messages(), IsEmpty());
    m.stop();
    EXPECT_EQ(m.file("text0"), "");
    EXPECT_EQ(m.file("text1"), "");
}

TEST(command, bare_resume_with_some_paused_resumes_only_those)
{
    Traced_Machine m(2, 2);
    m.start_with_text();
    m.signal({"pause", "cpu", "0", "thread", "0"});
    m.signal({"pause", "cpu", "1", "thread", "1"});
    m.signal({"resume"});
    EXPECT_EQ(paused_threads(), "....");
    m.stop();
    EXPECT_EQ(m.file("text0"), "*** PAUSE collection for thread 0\n*** RESUME collection for thread 0\n");
    EXPECT_EQ(m.file("text1"), "");
    EXPECT_EQ(m.file("text2"), "");
    EXPECT_EQ(m.file("text3"), "*** PAUSE collection for thread 3\n*** RESUME collection for thread 3\n");
}

} // namespace
