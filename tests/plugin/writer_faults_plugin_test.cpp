// A writer library that fails: each call of a short session in turn, once and for ever. Whatever fails, the rest
// of the trace arrives, the files are closed, and the next session works.
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

namespace
{

using testing::Each;
using testing::IsEmpty;

constexpr uint32_t PROCESSORS = 2;
constexpr uint32_t THREADS = 2;
constexpr int HARDWARE_THREADS = PROCESSORS * THREADS;
constexpr size_t COMMITS = 6; // of each thread
constexpr size_t RECORDS = COMMITS * HARDWARE_THREADS;

// Every thread commits a few instructions; the third of thread 1 follows a change of process.
void run_short_session(Traced_Machine &m)
{
    for (int tid = 0; tid < HARDWARE_THREADS; ++tid)
        m.commit_run(2, tid);
    replay::host().set_context(1, {.pid = 77});
    for (int tid = 0; tid < HARDWARE_THREADS; ++tid)
        m.commit_run(COMMITS - 2, tid);
}

void expect_next_session_works(Traced_Machine &m)
{
    recording_writer().reset(500);
    recording_writer().fail_open(0);
    m.forget_output();
    m.start();
    ASSERT_TRUE(init);
    for (int tid = 0; tid < HARDWARE_THREADS; ++tid)
        m.commit_run(3, tid);
    m.stop();
    for (int tid = 0; tid < HARDWARE_THREADS; ++tid)
        EXPECT_EQ(m.order(tid), "HRRR") << "thread " << tid;
    EXPECT_EQ(recording_writer().open_files(), 0u);
    EXPECT_THAT(m.warnings(), IsEmpty());
}

size_t records_of_all(const Traced_Machine &m)
{
    size_t count = 0;
    for (int tid = 0; tid < HARDWARE_THREADS; ++tid)
        count += m.records(tid).size();
    return count;
}

size_t calls_of(Writer_Call::Kind kind)
{
    const auto &calls = recording_writer().calls();
    return static_cast<size_t>(
        std::count_if(calls.begin(), calls.end(), [&](const Writer_Call &call) { return call.kind == kind; }));
}

bool is_closed(QTRACE_FDESCR file)
{
    return !recording_writer().file(file).open;
}

class Failing_Open : public testing::TestWithParam<size_t>
{
};

TEST_P(Failing_Open, leaves_no_session_and_only_the_file_before_it_open)
{
    const size_t k = GetParam();
    Traced_Machine m(PROCESSORS, THREADS);
    recording_writer().fail_open(k);
    m.start_with_everything();
    EXPECT_FALSE(init);
    EXPECT_EQ(m.warnings().size(), 2u);
    EXPECT_EQ(recording_writer().open_files(), k >= 2 ? 1u : 0u);
    if (k >= 2) {
        EXPECT_FALSE(is_closed(static_cast<QTRACE_FDESCR>(100 + k - 2)));
    }
    EXPECT_EQ(m.file("text0"), "");
    run_short_session(m);
    EXPECT_EQ(calls_of(Writer_Call::Kind::record), 0u);
    expect_next_session_works(m);
}

INSTANTIATE_TEST_SUITE_P(every_call, Failing_Open, testing::Range(size_t{1}, size_t{HARDWARE_THREADS + 1}));

class Failing_Header : public testing::TestWithParam<size_t>
{
};

// Four first headers and one for the change of process: the record after a header that fails is lost, no other.
TEST_P(Failing_Header, costs_one_record_and_nothing_else)
{
    Traced_Machine m(PROCESSORS, THREADS);
    m.start_with_everything();
    recording_writer().fail_header(GetParam());
    run_short_session(m);
    m.stop();
    EXPECT_EQ(records_of_all(m), RECORDS - 1);
    EXPECT_EQ(m.warnings().size(), 1u);
    EXPECT_EQ(recording_writer().open_files(), 0u);
    for (int tid = 0; tid < HARDWARE_THREADS; ++tid)
        EXPECT_EQ(m.order(tid).front(), 'H') << "thread " << tid;
    expect_next_session_works(m);
}

INSTANTIATE_TEST_SUITE_P(every_call, Failing_Header, testing::Range(size_t{1}, size_t{6}));

TEST(Failing_Headers, for_ever_leave_traces_without_records)
{
    Traced_Machine m(PROCESSORS, THREADS);
    m.start_with_everything();
    recording_writer().fail_header(1, true);
    run_short_session(m);
    m.stop();
    EXPECT_EQ(records_of_all(m), 0u);
    EXPECT_EQ(calls_of(Writer_Call::Kind::header), RECORDS); // each node tries anew
    EXPECT_EQ(m.warnings().size(), RECORDS);
    EXPECT_THAT(m.warnings(), Each("Cannot write qtrace file hdr"));
    EXPECT_EQ(recording_writer().open_files(), 0u);
    recording_writer().fail_header(0);
    expect_next_session_works(m);
}

class Failing_Record : public testing::TestWithParam<size_t>
{
};

TEST_P(Failing_Record, costs_itself_and_nothing_else)
{
    Traced_Machine m(PROCESSORS, THREADS);
    m.start_with_everything();
    recording_writer().fail_record(GetParam());
    run_short_session(m);
    m.stop();
    EXPECT_EQ(records_of_all(m), RECORDS - 1);
    EXPECT_EQ(calls_of(Writer_Call::Kind::record), RECORDS);
    EXPECT_THAT(m.warnings(), testing::ElementsAre("QTRACE_WriteRecord fail"));
    EXPECT_EQ(recording_writer().open_files(), 0u);
    size_t text_lines = 0;
    for (int tid = 0; tid < HARDWARE_THREADS; ++tid)
        for (const std::string &line : m.text_lines(tid))
            text_lines += line.starts_with("(seq:") ? 1 : 0;
    EXPECT_EQ(text_lines, RECORDS); // the text trace does not depend on the binary one
    expect_next_session_works(m);
}

INSTANTIATE_TEST_SUITE_P(every_call, Failing_Record, testing::Range(size_t{1}, RECORDS + 1));

TEST(Failing_Records, for_ever_leave_headers_and_a_warning_each)
{
    Traced_Machine m(PROCESSORS, THREADS);
    m.start_with_everything();
    recording_writer().fail_record(1, true);
    run_short_session(m);
    m.stop();
    EXPECT_EQ(records_of_all(m), 0u);
    EXPECT_EQ(m.warnings().size(), RECORDS);
    EXPECT_EQ(calls_of(Writer_Call::Kind::header), size_t{HARDWARE_THREADS + 1});
    EXPECT_EQ(recording_writer().open_files(), 0u);
    recording_writer().fail_record(0);
    expect_next_session_works(m);
}

// A library may use the record it was given as it likes: nothing of that is seen in the next one.
TEST(Scribbling_Writer, leaves_no_mark_on_later_records)
{
    const auto trace = [](std::optional<uint8_t> byte) {
        Traced_Machine m;
        if (byte)
            recording_writer().scribble(*byte);
        m.start();
        replay::Instruction full;
        full.load = full.ea_valid = full.string = true;
        full.ea = 0x1122334455667788;
        full.string_length = 9;
        full.fetch.mode = full.data.mode = Z7_HostRadixProcessScoped;
        full.data.status = MMU_FAILURE;
        full.in.gpr_num = full.out.gpr_num = 3;
        for (uint64_t seq = 1; seq <= 4; ++seq) {
            full.seq = seq;
            full.pc = 0x1000 * seq;
            m.commit(full);
            m.commit_run(2);
        }
        m.stop();
        return m.records();
    };
    const std::vector<QTRACE_RECORD> expected = trace({});
    const std::vector<QTRACE_RECORD> records = trace(0xA5);
    ASSERT_EQ(records.size(), expected.size());
    for (size_t i = 0; i < records.size(); ++i)
        EXPECT_EQ(std::memcmp(&records[i], &expected[i], sizeof records[i]), 0) << "record " << i;
}

} // namespace
