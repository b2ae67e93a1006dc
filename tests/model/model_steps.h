// What a random run consists of: a machine and the steps taken on it. A step makes sense in every state of the
// machine (the run skips what cannot happen there), so that steps can be left out when a failing run is shrunk.
#pragma once

#include "host.h"

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace model
{

// Hardware threads are named by any number from 0; a run takes it modulo the threads of the machine.

struct Set_Context {
    int tid = 0;
    replay::Thread_Context context;
};

struct Commit {
    replay::Instruction instruction;
    uint64_t ticks = 1; // raw time that passes before it
};

struct Pre_Execution {
    int tid = 0;
};

struct Pte_Access {
    int tid = 0;
    PTE_Event_Info info{};
};

struct Rtpte_Access {
    int tid = 0;
    RTPTE_Event_Info info{};
};

// The words after the plugin's file name. A leading '@' stands for the run's folder and a slash.
struct Console_Command {
    std::vector<std::string> words;
};

// plugin_init once more.
struct Load_Again {
};

// plugin_quit.
struct Unload {
};

// plugin_init on another machine; skipped while the plugin is loaded.
struct Load_Machine {
    replay::Machine_Shape shape;
};

enum class Writer_Operation { open, header, record };

// The k-th call of that operation from now on fails (0: none).
struct Fail_Writer {
    Writer_Operation operation = Writer_Operation::open;
    uint64_t k = 0;
    bool for_ever = false;
};

// From now on no file of that name can be created in the run's folder.
struct Block_File {
    std::string name;
};

// The throughput line is `left` commits away.
struct Near_Report {
    uint64_t left = 1;
};

// An instruction that was cancelled, as a source of flushed instructions would leave it in the thread's flush slot
// (or, when that is taken, in its list).
struct Flushed_Instruction {
    int tid = 0;
    uint64_t seq = 0;
    uint64_t terminated_seq = 1;
    uint64_t pc = 0;
    uint64_t npc = 0;
    uint32_t op = 0;
    char branch = '?';
    char taken = '?';
    bool store = false;
    uint64_t ea = 0;
    bool done = false;
};

// An instruction seen before its execution, as a source of such would hang it into the thread's chain.
struct Pre_Executed_Instruction {
    int tid = 0;
    uint64_t seq = 0;
    int32_t gpr = 0;
    uint64_t value = 0;
};

// Compares the text traces written so far.
struct Look_At_Text {
};

// The exported helpers: a line into every text trace, the linkage stub, two strings joined.
struct Call_Helpers {
    std::string text;
    int number = 0;
};

using Step = std::variant<Set_Context, Commit, Pre_Execution, Pte_Access, Rtpte_Access, Console_Command, Load_Again,
                          Unload, Load_Machine, Fail_Writer, Block_File, Near_Report, Flushed_Instruction,
                          Pre_Executed_Instruction, Look_At_Text, Call_Helpers>;

struct Run {
    replay::Machine_Shape shape;
    std::vector<Step> steps;
};

// One line for a reader; members that are zero are left out.
std::string to_text(const Step &step);
std::string to_text(const replay::Machine_Shape &shape);

// The random run of that seed, always the same.
Run random_run(uint64_t seed);

} // namespace model
