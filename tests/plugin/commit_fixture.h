// The fixture of the tests of the commit event: a machine of 2 processors with 2 threads each, in a session.
#pragma once

#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "lost_on_purpose.h"
#include "ordering.h"
#include "traced_machine.h"

#include <cstdlib>
#include <string>
#include <vector>

using Words = std::vector<uint32_t>;
using Texts = std::vector<std::string>;
using Pairs = std::vector<std::pair<int, uint64_t>>;

// A zero node on the heap, which the plugin frees.
inline Node *heap_node(uint64_t seq)
{
    auto *node = static_cast<Node *>(std::calloc(1, sizeof(Node)));
    node->seq = seq;
    return node;
}

// Keeps everything that commits from now on in the tree, so that a test can look at it: a flushed instruction
// that no commit passes. Freed with the session.
inline void hold_back(int tid = 0)
{
    insert_to_list(flush_list[tid], heap_node(UINT64_MAX));
}

struct Commit : testing::Test {
    Traced_Machine m{2, 2};
    uint64_t seq = 0;

    void SetUp() override { m.start(); }
    // Sequence number and address follow the thread's last ones.
    // The node of a filtered instruction is lost on purpose.
    void commit_filtered(replay::Instruction instruction)
    {
        const Lost_On_Purpose lost;
        instruction.filtered = true;
        m.commit(std::move(instruction));
    }
    const Node &capture(replay::Instruction instruction)
    {
        instruction.seq = ++seq;
        if (instruction.pc == 0)
            instruction.pc = 0x1000 + 4 * seq;
        const int tid = instruction.tid;
        m.commit(std::move(instruction));
        return *last_commit[tid];
    }
};

// Numbers and values of the general registers, in their order.
inline std::vector<std::pair<int, uint64_t>> gpr_pairs(const Plugin_Inst_Registers &registers)
{
    std::vector<std::pair<int, uint64_t>> pairs;
    for (int i = 0; i < registers.gpr_num; ++i)
        pairs.emplace_back(registers.gpr_index[i], registers.gpr_value[i]);
    return pairs;
}
