// Millions of commits over eight threads with pauses, partition changes and cracked instructions: every record and
// header is counted, and memory must not grow.
#include <ostream> // before the plugin's global `flush`, which std::endl would find instead of std::flush

#include "host.h"
#include "plugin_qtbin.h"
#include "qtrace.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int THREADS = 8;

struct Counts {
    uint64_t records = 0;
    uint64_t full_headers = 0;
    uint64_t partition_headers = 0;
    bool operator==(const Counts &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Counts &counts)
{
    return out << counts.records << " records, " << counts.full_headers << " full headers, "
               << counts.partition_headers << " partition headers";
}

std::array<Counts, THREADS> written; // by the writer below, a file a thread

} // namespace

extern "C" {
QTRACE_FDESCR QTRACE_Fopen(const char *name, QTRACE_FILE_MODE)
{
    return name[std::string_view(name).size() - 1] - '0';
}

void QTRACE_Fclose(QTRACE_FDESCR)
{
}

int QTRACE_FwriteFileHeader(QTRACE_FDESCR file, QTRACE_FILE_HDR *header)
{
    Counts &counts = written[static_cast<size_t>(file)];
    ++(header->control.iar_is_present ? counts.full_headers : counts.partition_headers);
    return 0;
}

int QTRACE_FwriteRecord(QTRACE_FDESCR file, QTRACE_RECORD *)
{
    ++written[static_cast<size_t>(file)].records;
    return 0;
}
}

namespace
{

using replay::host;
using replay::Instruction;

bool long_form()
{
    const char *wish = std::getenv("QT_LONG");
    return wish && std::string_view(wish) == "1";
}

uint64_t resident_bytes()
{
    std::ifstream statm("/proc/self/statm");
    uint64_t all = 0, resident = 0;
    statm >> all >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// One hardware thread of the machine, and what it expects of its trace.
class Thread
{
public:
    explicit Thread(int tid) : tid_(tid)
    {
        instruction_.tid = tid;
        context_.cycle_mode = tid % 2 == 1; // half of the threads crack
        context_.pid = told_pid_ = 1;
        instruction_.pc = 0x10000000 * static_cast<uint64_t>(tid + 1);
        host().set_context(tid, context_);
    }

    // Commits one instruction, in pieces when it is a cracked one. Returns the captured commit events.
    uint64_t commit()
    {
        ++number_;
        if (number_ % 1000 == 0) {
            ++context_.pid;
            host().set_context(tid_, context_);
        }
        const bool cracked = context_.cycle_mode && number_ % 16 == 5;
        describe();
        const uint64_t npc = instruction_.npc;
        if (cracked) {
            instruction_.branch = false;
            instruction_.npc = instruction_.pc;
            deliver(true);
            deliver(false);
            instruction_.npc = npc;
        }
        deliver(!cracked);
        instruction_.pc = npc;
        if (paused_)
            return 0;
        ++expected.records;
        expected.full_headers += header_due_ ? 1 : 0;
        header_due_ = false;
        return cracked ? 3 : 1;
    }

    void pause() { paused_ = true; }
    void resume()
    {
        paused_ = false;
        header_due_ = true;
    }
    bool is_paused() const { return paused_; }

    Counts expected;

private:
    void describe()
    {
        instruction_.op = 0x60000000u + static_cast<uint32_t>(number_ % 1000);
        instruction_.branch = number_ % 8 == 0;
        instruction_.taken = number_ % 16 == 0;
        instruction_.npc = instruction_.taken ? instruction_.pc - 60 : instruction_.pc + 4;
        instruction_.load = number_ % 4 == 1;
        instruction_.ea_valid = instruction_.load;
        instruction_.ea = instruction_.load ? number_ * 8 : 0;
        instruction_.out.gpr_num = 1;
        instruction_.out.gpr_index[0] = static_cast<int32_t>(number_ % 32);
        instruction_.out.gpr_value[0] = number_ * 0x9E3779B97F4A7C15;
    }

    // A change is told with the first commit that is asked about it; the first one of a reporting interval is not.
    void deliver(bool first_piece)
    {
        ++instruction_.seq;
        if (!paused_ && instr_commited != 0 && context_.pid != told_pid_) {
            told_pid_ = context_.pid;
            expected.partition_headers += first_piece ? 1 : 0;
        }
        Event_Instruction_Commit(replay::handle_of(instruction_));
    }

    int tid_;
    bool paused_ = false;
    bool header_due_ = true; // before the next record
    uint64_t number_ = 0;
    uint32_t told_pid_ = 0;
    replay::Thread_Context context_;
    Instruction instruction_;
};

void command(std::vector<std::string> words)
{
    words.insert(words.begin(), "plugin_qtbin.so");
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    plugin_signal(static_cast<int>(argv.size()), argv.data());
}

class Long_Run : public testing::Test
{
protected:
    Long_Run()
    {
        written = {};
        host().reset({.processors = 4, .threads = 2, .version = 3, .memory = 1 << 30});
        host().set_console([this](const replay::Console_Message &message) {
            if (message.text.starts_with("QTRACE: Cycles="))
                ++reports;
            else if (message.channel != replay::Channel::print)
                ADD_FAILURE() << message.text;
        });
        plugin_init(0, nullptr, host().client_data());
        for (int tid = 0; tid < THREADS; ++tid)
            threads.emplace_back(tid);
    }
    ~Long_Run() override
    {
        plugin_quit();
        host().set_console({});
    }

    // So many commits that are captured, with a pause or resume of some thread now and then.
    void run(uint64_t commits, uint64_t commits_per_switch)
    {
        const uint64_t end = captured + commits;
        uint64_t next_switch = captured + commits_per_switch;
        while (captured < end) {
            for (Thread &thread : threads)
                captured += thread.commit();
            if (captured < next_switch)
                continue;
            switch_thread(switches++ / 2 % THREADS);
            next_switch += commits_per_switch;
        }
    }

    void switch_thread(size_t tid)
    {
        Thread &thread = threads[tid];
        const char *verb = thread.is_paused() ? "resume" : "pause";
        command({verb, "cpu", std::to_string(tid / 2), "thread", std::to_string(tid % 2)});
        if (thread.is_paused())
            thread.resume();
        else
            thread.pause();
    }

    std::vector<Thread> threads;
    uint64_t captured = 0;
    uint64_t switches = 0;
    uint64_t reports = 0;
};

// Growth per million commits, by least squares.
double slope_of(const std::vector<uint64_t> &bytes, double millions_per_sample)
{
    const auto n = static_cast<double>(bytes.size());
    double sum_x = 0, sum_y = 0, sum_xx = 0, sum_xy = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const double x = static_cast<double>(i) * millions_per_sample;
        const auto y = static_cast<double>(bytes[i]);
        sum_x += x, sum_y += y, sum_xx += x * x, sum_xy += x * y;
    }
    return (n * sum_xy - sum_x * sum_y) / (n * sum_xx - sum_x * sum_x);
}

TEST_F(Long_Run, counts_every_record_and_header_and_keeps_memory_flat)
{
    const uint64_t total = long_form() ? 50'000'000 : 1'000'000;
    const uint64_t sample = total / 50;
    const uint64_t warm_up = long_form() ? 1'000'000 : 200'000;
    command({"start", "trace"});
    std::vector<uint64_t> resident;
    run(warm_up, sample / 2);
    while (captured < total) {
        run(sample, sample / 2);
        resident.push_back(resident_bytes());
    }
    EXPECT_EQ(total_instr_commited, captured);
    EXPECT_EQ(reports, captured / SAMPLE_RATE);
    command({"stop"});
    EXPECT_EQ(reports, (captured + SAMPLE_RATE - 1) / SAMPLE_RATE);

    Counts all;
    for (size_t tid = 0; tid < THREADS; ++tid) {
        EXPECT_EQ(written[tid], threads[tid].expected) << "thread " << tid;
        all.records += written[tid].records;
        all.full_headers += written[tid].full_headers;
        all.partition_headers += written[tid].partition_headers;
    }
    EXPECT_GT(all.partition_headers, captured / 2000);
    EXPECT_GT(all.full_headers, 20u);

    const double slope = slope_of(resident, static_cast<double>(sample) / 1e6);
    std::printf("long run: %lu commits; ", static_cast<unsigned long>(captured));
    std::printf("%lu records, %lu full headers, %lu partition headers; %lu throughput lines; ",
                static_cast<unsigned long>(all.records), static_cast<unsigned long>(all.full_headers),
                static_cast<unsigned long>(all.partition_headers), static_cast<unsigned long>(reports));
    std::printf("resident %lu to %lu KiB, slope %.1f KiB per million commits\n",
                static_cast<unsigned long>(resident.front() >> 10),
                static_cast<unsigned long>(resident.back() >> 10), slope / 1024);
    // The comment of each full header stays the writer's, 256 bytes; the rest is noise.
    const uint64_t comments = all.full_headers * 256;
    EXPECT_LE(resident.back(), resident.front() + comments + (256 << 10));
    EXPECT_LE(slope * static_cast<double>(captured) / 1e6, static_cast<double>(comments + (256 << 10)));
}

} // namespace
