// The stream-writing header: its lines byte for byte, what it refuses, and that the reader takes everything it writes.

#define COMMIT_STREAM_WITH_ZSTD
#include "commit_stream_writer.h"
#include "stream_reader.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <sstream>
#include <unistd.h>

using namespace replay;

namespace
{

struct Written_Stream : testing::Test {
    Written_Stream() { std::filesystem::create_directories(folder); }
    ~Written_Stream() override { std::filesystem::remove_all(folder); }

    // The bytes after the line of a machine of two threads, and what closing says.
    std::string lines(const std::function<void(commit_stream *)> &write, std::string *problem = nullptr)
    {
        commit_stream *stream = commit_stream_open(file.c_str());
        commit_stream_machine machine{};
        machine.processors = 1;
        machine.threads = 2;
        commit_stream_write_machine(stream, &machine);
        write(stream);
        const char *said = commit_stream_close(stream);
        if (problem)
            *problem = said ? said : "";
        else
            EXPECT_EQ(said, nullptr) << said;
        std::ostringstream bytes;
        bytes << std::ifstream(file).rdbuf();
        const std::string text = bytes.str();
        return text.substr(std::min(text.find('\n'), text.size() - 1) + 1);
    }

    std::string problem_of(const std::function<void(commit_stream *)> &write)
    {
        std::string problem;
        lines(write, &problem);
        return problem;
    }

    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("stream_writer_test_" + std::to_string(getpid()));
    const std::string file = folder / "stream.jsonl";
};

void write_full_commit(commit_stream *stream)
{
    commit_stream_address fetch{}, data{};
    fetch.status = 1, fetch.mode = 23, fetch.guest_mode = 1, fetch.host_mode = 2;
    fetch.guest_two_level = fetch.host_two_level = 1, fetch.guest_depth = 4, fetch.host_depth = 3;
    fetch.relocated = 1, fetch.ra = 0x10, fetch.vsid = 0x11, fetch.rpn = 0x12, fetch.page_size = 5;
    fetch.host_rpn = 0x13, fetch.guest_rpn = 0x14, fetch.host_page_size = 6, fetch.guest_page_size = 7;
    fetch.host_walk[0][3] = 0xa0, fetch.host_walk[1][0] = 0xb0;
    fetch.host_ra[1] = 0xc0, fetch.guest_walk[4] = 0xd0;
    data.mode = 11;
    const uint64_t ea = 0xffffffffffffffff;
    commit_stream_begin_commit(stream, 1, 18446744073709551615U, 0x1000, 0x1004, 0x60000000);
    commit_stream_text(stream, "ld \"a\\b\"\t\xc3\xa9 \xff");
    commit_stream_is(stream, COMMIT_STREAM_LOAD | COMMIT_STREAM_VSX_INSTRUCTION);
    commit_stream_string_length(stream, 9);
    commit_stream_fetch(stream, &fetch);
    commit_stream_data(stream, &ea, &data);
    commit_stream_out(stream, COMMIT_STREAM_VSX, 3, 1, 2);
    commit_stream_in(stream, COMMIT_STREAM_SPR, -8, 5, 0);
    commit_stream_in(stream, COMMIT_STREAM_GPR, 4, 0x2000, 0);
    commit_stream_in(stream, COMMIT_STREAM_GPR, 5, 0, 0);
    commit_stream_time(stream, 100);
    commit_stream_end(stream);
}

constexpr const char *FULL_COMMIT =
    R"({"t":"commit","tid":1,"seq":18446744073709551615,"pc":"0x1000","npc":"0x1004","op":"0x60000000",)"
    R"("text":"ld \"a\\b\"\u0009é ?","is":["load","vsx"],"string_length":9,)"
    R"("fetch":{"status":1,"mode":23,"guest_mode":1,"host_mode":2,"guest_two_level":1,"host_two_level":1,)"
    R"("guest_depth":4,"host_depth":3,"relocated":true,"ra":"0x10","vsid":"0x11","rpn":"0x12","page_size":5,)"
    R"("host_rpn":"0x13","guest_rpn":"0x14","host_page_size":6,"guest_page_size":7,)"
    R"("host_walk":[["0x0","0x0","0x0","0xa0"],["0xb0","0x0","0x0","0x0"]],"host_ra":["0x0","0xc0"],)"
    R"("guest_walk":["0x0","0x0","0x0","0x0","0xd0"]},"data":{"ea":"0xffffffffffffffff","mode":11},"time":"0x64",)"
    R"("in":{"gpr":[[4,"0x2000"],[5,"0x0"]],"spr":[[-8,"0x5"]]},"out":{"vsx":[[3,"0x1","0x2"]]}})"
    "\n";

} // namespace

TEST_F(Written_Stream, commit_has_every_part_that_was_given)
{
    EXPECT_EQ(lines(write_full_commit), FULL_COMMIT);
}

TEST_F(Written_Stream, what_is_zero_is_left_out_of_a_commit)
{
    EXPECT_EQ(lines([](commit_stream *stream) {
                  const commit_stream_address none{};
                  commit_stream_begin_commit(stream, 0, 0, 0, 0, 0);
                  commit_stream_is(stream, 0);
                  commit_stream_data(stream, nullptr, &none);
                  commit_stream_end(stream);
              }),
              R"({"t":"commit","tid":0,"seq":0,"pc":"0x0","npc":"0x0","op":"0x0","data":{}})"
              "\n");
}

TEST_F(Written_Stream, other_lines_have_their_keys)
{
    EXPECT_EQ(lines([](commit_stream *stream) {
                  commit_stream_context context{};
                  context.pid = 7;
                  context.kernel = 1;
                  context.pages = COMMIT_STREAM_PAGE_64K | COMMIT_STREAM_PAGE_16G;
                  commit_stream_write_context(stream, 1, &context);
                  commit_stream_write_pre(stream, 0);
                  commit_stream_write_pte(stream, 1, 1, 2, 3);
                  commit_stream_write_rtpte(stream, 0, 1, 2, 3, 4, 5);
              }),
              R"({"t":"context","tid":1,"ptcr":"0x0","lpid":"0x0","pid":"0x7","sdr1":"0x0","bit64":false,)"
              R"("little_endian":false,"kernel":true,"cycle_mode":false,"pages":["64K","16G"],"guest_pages":[]}
{"t":"pre","tid":0}
{"t":"pte","tid":1,"pa":"0x1","upper":"0x2","lower":"0x3"}
{"t":"rtpte","tid":0,"l1":"0x1","l2":"0x2","l3":"0x3","pte":"0x4","pa":"0x5"}
)");
}

TEST_F(Written_Stream, is_read_back_with_the_values_that_were_written)
{
    lines(write_full_commit);
    Stream_Reader reader(file);
    ASSERT_NE(reader.next(), nullptr);
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr) << reader.error()->text();
    const Instruction &read = event->instruction;
    EXPECT_EQ(read.seq, 18446744073709551615U);
    EXPECT_EQ(read.text, "ld \"a\\b\"\t\xc3\xa9 ?");
    EXPECT_TRUE(read.load && read.vsx && !read.store);
    EXPECT_EQ(read.fetch.host_walk[1].RTPDE_ra_l1, 0xb0u);
    EXPECT_EQ(read.fetch.guest_walk.GUEST_ra, 0xd0u);
    EXPECT_EQ(read.data.mode, 11u);
    EXPECT_EQ(read.in.spr_index[0], -8);
    EXPECT_EQ(read.out.vsx_value[0].word[1], 2u);
    EXPECT_EQ(event->time, 100u);
}

TEST_F(Written_Stream, of_many_long_lines_is_read_whole_plain_and_compressed)
{
    for (const char *name : {"long.jsonl", "long.jsonl.zst"}) {
        const std::string target = folder / name;
        commit_stream *stream = commit_stream_open(target.c_str());
        commit_stream_machine machine{};
        machine.processors = machine.threads = 1;
        machine.source = "a test";
        commit_stream_write_machine(stream, &machine);
        for (uint64_t seq = 1; seq <= 300; ++seq) {
            commit_stream_begin_commit(stream, 0, seq, 0, 0, 0);
            commit_stream_text(stream, std::string(seq * 11, seq % 2 ? '\x01' : 'x').c_str());
            for (int32_t n = 0; n < 32; ++n)
                commit_stream_in(stream, COMMIT_STREAM_GPR, n, ~uint64_t{0}, 0);
            commit_stream_end(stream);
        }
        EXPECT_EQ(commit_stream_close(stream), nullptr);
        Stream_Reader reader(target);
        EXPECT_EQ(reader.next()->source, "a test");
        uint64_t seq = 0;
        while (const Stream_Event *event = reader.next()) {
            ++seq;
            ASSERT_EQ(event->instruction.seq, seq);
            ASSERT_EQ(event->instruction.text, std::string(seq * 11, seq % 2 ? '\x01' : 'x'));
            ASSERT_EQ(event->instruction.in.gpr_num, 32);
        }
        EXPECT_EQ(seq, 300u) << name << (reader.error() ? reader.error()->text() : "");
    }
}

TEST_F(Written_Stream, text_too_long_for_a_line_is_cut)
{
    lines([](commit_stream *stream) {
        commit_stream_begin_commit(stream, 0, 1, 0, 0, 0);
        commit_stream_text(stream, std::string(3000000, '\x02').c_str());
        commit_stream_end(stream);
    });
    Stream_Reader reader(file);
    reader.next();
    const Stream_Event *event = reader.next();
    ASSERT_NE(event, nullptr) << reader.error()->text();
    EXPECT_EQ(event->instruction.text, std::string(65536 / 6, '\x02'));
}

TEST_F(Written_Stream, bytes_that_are_no_text_become_question_marks)
{
    const char *const wrong[] = {"\x80", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\xf8"};
    const char *const expected[] = {"?", "??", "???", "????", "??", "?"};
    for (size_t n = 0; n < std::size(wrong); ++n) {
        const std::string line = lines([&](commit_stream *stream) {
            commit_stream_begin_commit(stream, 0, 1, 0, 0, 0);
            commit_stream_text(stream, wrong[n]);
            commit_stream_end(stream);
        });
        EXPECT_NE(line.find("\"text\":\"" + std::string(expected[n]) + "\""), std::string::npos) << line;
    }
}

TEST_F(Written_Stream, calls_that_would_make_no_stream_are_refused)
{
    const auto begin = [](commit_stream *stream) { commit_stream_begin_commit(stream, 0, 1, 0, 0, 0); };
    EXPECT_EQ(problem_of([](commit_stream *stream) { commit_stream_write_pre(stream, 2); }),
              "no such hardware thread");
    EXPECT_EQ(problem_of([](commit_stream *stream) { commit_stream_write_pre(stream, -1); }),
              "no such hardware thread");
    EXPECT_EQ(problem_of(begin), "a commit is not ended");
    EXPECT_EQ(problem_of([&](commit_stream *stream) {
                  begin(stream);
                  commit_stream_is(stream, COMMIT_STREAM_LOAD);
                  commit_stream_is(stream, COMMIT_STREAM_STORE);
                  commit_stream_end(stream);
              }),
              "a part of a commit is given twice");
    EXPECT_EQ(problem_of([](commit_stream *stream) { commit_stream_end(stream); }), "no commit is begun");
    EXPECT_EQ(problem_of([&](commit_stream *stream) {
                  begin(stream);
                  for (int n = 0; n < 5; ++n)
                      commit_stream_in(stream, COMMIT_STREAM_VMX, n, 0, 0);
                  commit_stream_end(stream);
              }),
              "too many registers of one class");
    EXPECT_EQ(problem_of([](commit_stream *stream) {
                  const commit_stream_machine machine{};
                  commit_stream_write_machine(stream, &machine);
              }),
              "the machine is written already");
}

TEST_F(Written_Stream, line_before_the_machine_is_refused)
{
    commit_stream *stream = commit_stream_open(file.c_str());
    commit_stream_write_pre(stream, 0);
    EXPECT_STREQ(commit_stream_problem(stream), "the machine is not written yet");
    EXPECT_STREQ(commit_stream_close(stream), "the machine is not written yet");
}

TEST_F(Written_Stream, failing_file_is_told_when_opened_or_closed)
{
    EXPECT_EQ(commit_stream_open((folder / "none" / "stream").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    commit_stream *stream = commit_stream_open("/dev/full");
    commit_stream_machine machine{};
    machine.processors = machine.threads = 1;
    commit_stream_write_machine(stream, &machine);
    EXPECT_STREQ(commit_stream_close(stream), "No space left on device");
}

TEST_F(Written_Stream, flush_hands_on_whole_lines)
{
    for (const char *name : {"live.jsonl", "live.jsonl.zst"}) {
        const std::string target = folder / name;
        commit_stream *stream = commit_stream_open(target.c_str());
        commit_stream_machine machine{};
        machine.processors = machine.threads = 1;
        commit_stream_write_machine(stream, &machine);
        commit_stream_write_pre(stream, 0);
        commit_stream_flush(stream);
        Stream_Reader reader(target);
        ASSERT_NE(reader.next(), nullptr) << name;
        ASSERT_NE(reader.next(), nullptr) << name;
        EXPECT_EQ(commit_stream_close(stream), nullptr);
    }
}

// ---- speed ----------------------------------------------------------------------------------------------------

namespace
{

double seconds_of(const std::function<void()> &work)
{
    timespec begin{}, end{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
    work();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    return static_cast<double>(end.tv_sec - begin.tv_sec) + 1e-9 * static_cast<double>(end.tv_nsec - begin.tv_nsec);
}

} // namespace

TEST_F(Written_Stream, is_written_at_least_as_fast_as_it_is_read)
{
    constexpr int COMMITS = 20000;
    double ratio = 0;
    for (int attempt = 0; attempt < 5 && ratio < 1; ++attempt) { // other programs disturb
        const double writing = seconds_of([this] {
            commit_stream *stream = commit_stream_open(file.c_str());
            commit_stream_machine machine{};
            machine.processors = 1;
            machine.threads = 2;
            commit_stream_write_machine(stream, &machine);
            for (int n = 0; n < COMMITS; ++n)
                write_full_commit(stream);
            EXPECT_EQ(commit_stream_close(stream), nullptr);
        });
        const double reading = seconds_of([this] {
            Stream_Reader reader(file);
            while (reader.next()) {
            }
        });
        ratio = reading / writing;
    }
    std::cout << "reading takes " << ratio << " times as long as writing\n";
    EXPECT_GE(ratio, 1);
}
