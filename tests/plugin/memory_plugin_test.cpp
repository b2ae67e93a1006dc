// Memory that runs out, and memory that must come back: every allocation of the plugin passes here first (linker
// option --wrap), can be told to fail, and is counted while it lives.
#include "ordering.h"
#include "traced_machine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <string>
#include <unordered_map>

namespace
{

// Which allocation fails: the `countdown`-th of at least `least` and at most `most` bytes; 0: none.
struct Failing_Allocation {
    size_t countdown = 0;
    size_t least = 0;
    size_t most = 0;
} failing;

// Blocks of the plugin and of the test, by size. Never destroyed: the coverage run time allocates after the end of
// main.
std::unordered_map<void *, size_t> &live = *new std::unordered_map<void *, size_t>;

bool fails(size_t bytes)
{
    if (failing.countdown == 0 || bytes < failing.least || bytes > failing.most)
        return false;
    return --failing.countdown == 0;
}

void *counted(void *block, size_t bytes)
{
    if (block)
        live[block] = bytes;
    return block;
}

} // namespace

extern "C" {
void *__real_malloc(size_t bytes);
void *__real_calloc(size_t count, size_t bytes);
void __real_free(void *block);

void *__wrap_malloc(size_t bytes)
{
    return fails(bytes) ? nullptr : counted(__real_malloc(bytes), bytes);
}

void *__wrap_calloc(size_t count, size_t bytes)
{
    return fails(count * bytes) ? nullptr : counted(__real_calloc(count, bytes), count * bytes);
}

void __wrap_free(void *block)
{
    live.erase(block);
    __real_free(block);
}
}

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t ARRAY_BYTES = size_t{DEFAULT_STACK_SIZE} * sizeof(Node *); // of a stack's or list's array
static_assert(sizeof(Stack) == sizeof(List));

const std::string NO_NODE = "new_node(): Out of memory in allocating Node\n";
const std::string NO_STACK = "new_stack(): Out of memory in allocating Stack\n";
const std::string NO_LIST = "new_list(): Out of memory in allocating List\n";

// Fails the k-th allocation of that size from now on.
void fail_allocation(size_t k, size_t bytes)
{
    failing = {k, bytes, bytes};
}

size_t live_blocks(size_t bytes)
{
    size_t count = 0;
    for (const auto &[block, size] : live)
        count += size == bytes ? 1 : 0;
    return count;
}

class Memory : public testing::Test
{
protected:
    Memory() : nodes_before(live_blocks(sizeof(Node))), arrays_before(live_blocks(ARRAY_BYTES)) {}
    ~Memory() override { failing = {}; }
    void expect_everything_freed() const
    {
        EXPECT_EQ(live_blocks(sizeof(Node)), nodes_before);
        EXPECT_EQ(live_blocks(ARRAY_BYTES), arrays_before);
    }
    size_t nodes_before;
    size_t arrays_before;
};

// ---- out of memory ----------------------------------------------------------------------------------------

TEST_F(Memory, short_of_a_node_is_an_error_and_the_instruction_is_lost)
{
    Traced_Machine m;
    m.start();
    m.commit({.seq = 1, .pc = 0x1000, .op = 0x11});
    fail_allocation(1, sizeof(Node));
    m.forget_output();
    m.commit({.seq = 2, .pc = 0x1004, .op = 0xBAD});
    ASSERT_THAT(m.errors(), ElementsAre(NO_NODE));
    EXPECT_GT(m.messages()[0].line, 0);
    m.commit({.seq = 3, .pc = 0x1008, .op = 0x33});
    m.stop();
    EXPECT_EQ(m.order(), "HRR");
    EXPECT_THAT(m.instruction_words(), ElementsAre(0x11u, 0x33u));
    expect_everything_freed();
}

TEST_F(Memory, short_of_the_first_node_the_next_instruction_begins_the_trace)
{
    Traced_Machine m;
    m.start();
    fail_allocation(1, sizeof(Node));
    m.commit_run(3);
    EXPECT_THAT(m.errors(), ElementsAre(NO_NODE));
    m.stop();
    EXPECT_EQ(m.order(), "HRR");
}

TEST_F(Memory, nodes_left_out_are_counted_in_neither_counter)
{
    Traced_Machine m;
    m.start();
    fail_allocation(2, sizeof(Node));
    m.commit_run(3);
    EXPECT_EQ(instr_commited, total_instr_commited);
    EXPECT_EQ(m.errors().size(), 1u);
}

// Allocations at start for one thread, in order: the thread's list, then the two stacks; each a record and an
// array.
struct Shortage {
    size_t nth;
    size_t bytes;
    const char *text;
    const char *name;
    friend std::ostream &operator<<(std::ostream &out, const Shortage &shortage) { return out << shortage.name; }
};

class Start_Short_Of : public Memory, public testing::WithParamInterface<Shortage>
{
};

INSTANTIATE_TEST_SUITE_P(memory, Start_Short_Of,
                         testing::Values(Shortage{1, ARRAY_BYTES, NO_LIST.c_str(), "list_array"},
                                         Shortage{2, ARRAY_BYTES, NO_STACK.c_str(), "first_stack_array"},
                                         Shortage{3, ARRAY_BYTES, NO_STACK.c_str(), "second_stack_array"},
                                         Shortage{1, sizeof(List), NO_LIST.c_str(), "list"},
                                         Shortage{2, sizeof(Stack), NO_STACK.c_str(), "first_stack"},
                                         Shortage{3, sizeof(Stack), NO_STACK.c_str(), "second_stack"}),
                         [](const auto &shortage) { return shortage.param.name; });

TEST_P(Start_Short_Of, reports_the_error)
{
    Traced_Machine m;
    fail_allocation(GetParam().nth, GetParam().bytes);
    m.start();
    EXPECT_THAT(m.errors(), ElementsAre(GetParam().text));
    for (const auto &message : m.messages())
        EXPECT_TRUE(message.channel != replay::Channel::error || message.line > 0);
}

TEST_P(Start_Short_Of, lets_the_host_run_and_stop)
{
    Traced_Machine m;
    fail_allocation(GetParam().nth, GetParam().bytes);
    m.start();
    m.commit_run(5);
    m.signal({"pause"});
    m.commit_run(1);
    m.signal({"resume"});
    m.commit_run(3);
    m.signal({"stop"});
    EXPECT_EQ(init, 0u);
    EXPECT_EQ(recording_writer().open_files(), 0u);
    expect_everything_freed();
}

TEST_P(Start_Short_Of, is_over_with_the_next_start)
{
    Traced_Machine m;
    fail_allocation(GetParam().nth, GetParam().bytes);
    m.start();
    m.stop();
    m.forget_output();
    m.start();
    m.commit_run(3);
    m.stop();
    EXPECT_THAT(m.errors(), IsEmpty());
    EXPECT_EQ(m.order(), "HRRR");
}

TEST_P(Start_Short_Of, frees_the_record_whose_array_is_missing)
{
    Traced_Machine m;
    const size_t records_before = live_blocks(sizeof(List));
    fail_allocation(GetParam().nth, GetParam().bytes);
    m.start();
    EXPECT_EQ(live_blocks(sizeof(List)), records_before + 2);
    EXPECT_EQ(live_blocks(ARRAY_BYTES), arrays_before + 2);
}

TEST_F(Memory, short_of_a_list_at_resume_is_an_error_and_the_thread_is_traced_without_one)
{
    Traced_Machine m;
    m.start();
    m.signal({"pause"});
    fail_allocation(1, ARRAY_BYTES);
    m.signal({"resume"});
    EXPECT_THAT(m.errors(), ElementsAre(NO_LIST));
    EXPECT_EQ(flush_list[0], nullptr);
    EXPECT_EQ(paused[0], 0u);
    m.commit_run(3);
    m.stop();
    EXPECT_EQ(m.order(), "HRRR");
}

// ---- nothing is lost --------------------------------------------------------------------------------------

TEST_F(Memory, of_a_session_comes_back_with_stop)
{
    Traced_Machine m(2, 2);
    m.start_with_everything();
    for (int tid = 0; tid < 4; ++tid)
        m.commit_run(10, tid);
    EXPECT_EQ(live_blocks(ARRAY_BYTES), arrays_before + 6);
    EXPECT_GE(live_blocks(sizeof(Node)), nodes_before + 4); // the newest of each thread
    m.stop();
    expect_everything_freed();
}

TEST_F(Memory, of_a_session_comes_back_with_a_new_start_and_with_quit)
{
    Traced_Machine m;
    m.start();
    m.commit_run(3);
    m.start();
    m.commit_run(3);
    EXPECT_EQ(live_blocks(ARRAY_BYTES), arrays_before + 3);
    plugin_quit();
    expect_everything_freed();
}

TEST_F(Memory, of_a_paused_threads_list_comes_back_at_once)
{
    Traced_Machine m(1, 2);
    m.start();
    m.commit_run(3, 0);
    m.signal({"pause", "cpu", "0", "thread", "0"});
    EXPECT_EQ(live_blocks(ARRAY_BYTES), arrays_before + 3); // a list and two stacks
}

TEST_F(Memory, of_a_thread_resumed_in_a_later_session_is_not_lost)
{
    Traced_Machine m;
    m.start();
    m.signal({"pause"});
    m.stop();
    m.start();
    m.commit_run(2);
    m.signal({"resume"});
    m.commit_run(2);
    EXPECT_EQ(live_blocks(ARRAY_BYTES), arrays_before + 3);
    m.stop();
    expect_everything_freed();
}

TEST_F(Memory, does_not_grow_with_the_number_of_instructions)
{
    Traced_Machine m;
    m.start();
    m.commit_run(10);
    const size_t blocks = live.size();
    m.commit_run(1000);
    EXPECT_EQ(live.size(), blocks);
}

// ---- trees of nodes ----------------------------------------------------------------------------------------

Node *node_before(Node *left, Node *right = nullptr)
{
    Node *node = new_node();
    node->left = left;
    node->right = right;
    return node;
}

TEST_F(Memory, of_nothing_is_freed_without_effect)
{
    const size_t blocks = live.size();
    free_node(nullptr);
    del_tree(nullptr);
    EXPECT_EQ(live.size(), blocks);
    drop_spare_nodes();
    EXPECT_EQ(live.size(), blocks);
}

TEST_F(Memory, of_a_tree_comes_back_with_its_successors_and_side_chains)
{
    Node *side_chain = node_before(node_before(nullptr), node_before(nullptr));
    Node *tree = node_before(node_before(node_before(nullptr), node_before(nullptr)), side_chain);
    ASSERT_EQ(live_blocks(sizeof(Node)), nodes_before + 7);
    del_tree(tree);
    drop_spare_nodes();
    expect_everything_freed();
}

TEST_F(Memory, of_a_long_chain_comes_back)
{
    Node *tree = nullptr;
    for (int i = 0; i < 20000; ++i)
        tree = node_before(tree);
    ASSERT_EQ(live_blocks(sizeof(Node)), nodes_before + 20000);
    del_tree(tree);
    drop_spare_nodes();
    expect_everything_freed();
}

TEST_F(Memory, of_instructions_captured_before_execution_comes_back_at_stop)
{
    Traced_Machine m;
    m.start();
    pre_execution[0] = node_before(node_before(nullptr));
    pre_execution[0]->seq = 30;
    pre_execution[0]->left->seq = 40;
    m.commit({.seq = 6, .pc = 0x1000});
    m.stop();
    expect_everything_freed();
}

TEST_F(Memory, of_failed_starts_is_not_lost)
{
    Traced_Machine m(1, 2);
    recording_writer().fail_open(2);
    m.start();
    recording_writer().fail_open(2);
    const size_t blocks = live.size();
    m.start();
    EXPECT_EQ(live.size(), blocks);
}

} // namespace
