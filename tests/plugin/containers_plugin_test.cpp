// Nodes, stacks and lists of nodes.
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "ordering.h"
#include "traced_machine.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace
{

struct Free_Node {
    void operator()(Node *node) const { std::free(node); }
};
using Owned_Node = std::unique_ptr<Node, Free_Node>;

struct Free_Stack {
    void operator()(Stack *stack) const { del_stack(stack); }
};
struct Free_List {
    void operator()(List *list) const { del_list(list); }
};

Owned_Node node_of_key(uint64_t terminated_seq, uint64_t seq = 0)
{
    Owned_Node node(new_node());
    node->terminated_seq = terminated_seq;
    node->seq = seq;
    return node;
}

struct Containers : testing::Test {
    std::unique_ptr<Stack, Free_Stack> stack{new_stack()};
    std::unique_ptr<List, Free_List> list{new_list()};
    std::vector<Owned_Node> nodes;

    Node *insert(uint64_t terminated_seq, uint64_t seq = 0)
    {
        nodes.push_back(node_of_key(terminated_seq, seq));
        insert_to_list(list.get(), nodes.back().get());
        return nodes.back().get();
    }
    std::vector<Node *> entries() const { return {list->list, list->list + list->list_index}; }
    std::vector<uint64_t> keys() const
    {
        std::vector<uint64_t> found;
        for (const Node *node : entries())
            found.push_back(node->terminated_seq);
        return found;
    }
};

} // namespace

TEST(new_node, is_zero_in_every_byte)
{
    const Owned_Node node(new_node());
    ASSERT_TRUE(node);
    const auto *bytes = reinterpret_cast<const unsigned char *>(node.get());
    for (size_t i = 0; i < sizeof(Node); ++i)
        ASSERT_EQ(bytes[i], 0) << "byte " << i;
}

TEST(new_node, is_zero_in_memory_that_was_used_before)
{
    for (int round = 0; round < 16; ++round) {
        const Owned_Node node(new_node());
        const auto *bytes = reinterpret_cast<const unsigned char *>(node.get());
        for (size_t i = 0; i < sizeof(Node); ++i)
            ASSERT_EQ(bytes[i], 0) << "byte " << i << " in round " << round;
        std::memset(static_cast<void *>(node.get()), 0xA5, sizeof(Node));
    }
}

TEST(new_node, has_no_links_and_is_neither_done_nor_committed)
{
    const Owned_Node node(new_node());
    EXPECT_EQ(node->left, nullptr);
    EXPECT_EQ(node->right, nullptr);
    EXPECT_EQ(node->terminated_by, nullptr);
    EXPECT_FALSE(node->commit);
    EXPECT_FALSE(node->done);
    EXPECT_EQ(node->terminated_seq, 0u);
}

#ifdef __SANITIZE_ADDRESS__
// Kept nodes would hide reads of freed ones.
TEST(freeing_a_node, shows_every_later_read_to_the_sanitizer)
{
    Node *node = new_node();
    free_node(node);
    EXPECT_DEATH(std::printf("%lu", static_cast<unsigned long>(node->seq)), "AddressSanitizer");
}
#endif

TEST_F(Containers, new_stack_is_empty_and_has_room_for_1048576_nodes)
{
    EXPECT_EQ(stack->stack_index, 0);
    EXPECT_EQ(stack->stack_size, 1048576);
    ASSERT_NE(stack->stack, nullptr);
    EXPECT_TRUE(is_stack_empty(stack.get()));
    stack->stack[1048575] = nullptr; // the last slot belongs to it
}

TEST_F(Containers, new_list_is_empty_and_has_room_for_1048576_nodes)
{
    EXPECT_EQ(list->list_index, 0);
    EXPECT_EQ(list->list_size, 1048576);
    ASSERT_NE(list->list, nullptr);
    EXPECT_TRUE(is_list_empty(list.get()));
    list->list[1048575] = nullptr;
}

TEST_F(Containers, stack_gives_back_the_newest_node_first)
{
    Node a{}, b{}, c{};
    push(stack.get(), &a);
    push(stack.get(), &b);
    EXPECT_EQ(stack->stack_index, 2);
    EXPECT_EQ(pop(stack.get()), &b);
    push(stack.get(), &c);
    EXPECT_EQ(pop(stack.get()), &c);
    EXPECT_FALSE(is_stack_empty(stack.get()));
    EXPECT_EQ(pop(stack.get()), &a);
    EXPECT_TRUE(is_stack_empty(stack.get()));
}

TEST_F(Containers, stack_takes_as_many_nodes_as_it_says)
{
    Node a{};
    for (int i = 0; i < DEFAULT_STACK_SIZE; ++i)
        push(stack.get(), &a);
    EXPECT_EQ(stack->stack_index, DEFAULT_STACK_SIZE);
    EXPECT_EQ(pop(stack.get()), &a);
}

TEST_F(Containers, full_stack_reports_one_node_more_and_stays_as_it_is)
{
    Traced_Machine m; // for its console
    Node a{}, one_more{};
    for (int i = 0; i < DEFAULT_STACK_SIZE; ++i)
        push(stack.get(), &a);
    push(stack.get(), &one_more);
    EXPECT_EQ(m.errors().size(), 1u);
    EXPECT_EQ(stack->stack_index, DEFAULT_STACK_SIZE);
    EXPECT_EQ(pop(stack.get()), &a);
}

TEST_F(Containers, full_list_reports_one_node_more_and_leaves_it_with_the_caller)
{
    Traced_Machine m;
    Node a{}, one_more{};
    a.terminated_seq = 5;
    one_more.terminated_seq = 1;
    for (int i = 0; i < DEFAULT_LIST_SIZE; ++i)
        ASSERT_TRUE(insert_to_list(list.get(), &a));
    EXPECT_FALSE(insert_to_list(list.get(), &one_more));
    EXPECT_EQ(m.errors().size(), 1u);
    EXPECT_EQ(list->list_index, DEFAULT_LIST_SIZE);
    EXPECT_EQ(remove_from_list(list.get()), &a);
}

TEST_F(Containers, no_list_takes_a_node)
{
    Node a{};
    EXPECT_FALSE(insert_to_list(nullptr, &a));
}

TEST_F(Containers, reset_empties_a_stack_without_freeing_its_nodes)
{
    const Owned_Node node = node_of_key(1);
    push(stack.get(), node.get());
    reset_stack(stack.get());
    EXPECT_TRUE(is_stack_empty(stack.get()));
    EXPECT_EQ(node->terminated_seq, 1u);
}

TEST(deleting_a_stack_or_a_list, leaves_the_nodes_alone)
{
    const Owned_Node node = node_of_key(7);
    Stack *stack = new_stack();
    List *list = new_list();
    push(stack, node.get());
    insert_to_list(list, node.get());
    del_stack(stack);
    del_list(list);
    EXPECT_EQ(node->terminated_seq, 7u);
}

TEST_F(Containers, list_keeps_5_3_5_4_as_3_4_5_5_with_equal_keys_in_order_of_insertion)
{
    Node *first_five = insert(5);
    Node *three = insert(3);
    Node *second_five = insert(5);
    Node *four = insert(4);
    EXPECT_EQ(entries(), (std::vector<Node *>{three, four, first_five, second_five}));
}

TEST_F(Containers, list_appends_ascending_keys)
{
    for (uint64_t key : {1, 2, 9})
        insert(key);
    EXPECT_EQ(keys(), (std::vector<uint64_t>{1, 2, 9}));
}

TEST_F(Containers, list_turns_descending_keys_around)
{
    for (uint64_t key : {9, 8, 2, 1})
        insert(key);
    EXPECT_EQ(keys(), (std::vector<uint64_t>{1, 2, 8, 9}));
}

TEST_F(Containers, list_is_ordered_by_terminated_seq_and_not_by_seq)
{
    insert(5, 1);
    insert(3, 9);
    EXPECT_EQ(keys(), (std::vector<uint64_t>{3, 5}));
}

TEST_F(Containers, list_puts_the_third_of_three_equal_keys_last)
{
    Node *a = insert(4), *b = insert(4), *c = insert(4);
    EXPECT_EQ(entries(), (std::vector<Node *>{a, b, c}));
}

TEST_F(Containers, list_orders_keys_as_unsigned_64_bit_numbers)
{
    for (uint64_t key : {uint64_t{0xFFFFFFFFFFFFFFFF}, uint64_t{0}, uint64_t{0x100000000}, uint64_t{1}})
        insert(key);
    EXPECT_EQ(keys(), (std::vector<uint64_t>{0, 1, 0x100000000, 0xFFFFFFFFFFFFFFFF}));
}

TEST_F(Containers, removing_from_a_list_gives_the_smallest_and_moves_the_rest_down)
{
    for (uint64_t key : {7, 3, 5})
        insert(key);
    EXPECT_EQ(remove_from_list(list.get())->terminated_seq, 3u);
    EXPECT_EQ(keys(), (std::vector<uint64_t>{5, 7}));
}

TEST_F(Containers, removing_the_only_entry_returns_it_and_leaves_the_list_empty)
{
    Node *only = insert(3);
    EXPECT_EQ(remove_from_list(list.get()), only);
    EXPECT_EQ(list->list_index, 0);
    EXPECT_TRUE(is_list_empty(list.get()));
}

TEST_F(Containers, list_is_usable_again_after_it_was_emptied)
{
    insert(8);
    remove_from_list(list.get());
    insert(2);
    insert(1);
    EXPECT_EQ(keys(), (std::vector<uint64_t>{1, 2}));
}

TEST(no_list, counts_as_an_empty_list)
{
    EXPECT_TRUE(is_list_empty(nullptr));
}

TEST(the_kinds_of_instruction_event, have_the_values_of_the_host)
{
    EXPECT_EQ(INSTRUCTION_COMMIT, 1);
    EXPECT_EQ(INSTRUCTION_FLUSH, 2);
    EXPECT_EQ(INSTRUCTION_PRE_EXECUTE, 3);
    EXPECT_EQ(SIM_SUPPORT_NOP, 0x7EB5AB78u);
    EXPECT_EQ(DEFAULT_STACK_SIZE, 1048576);
    EXPECT_EQ(DEFAULT_LIST_SIZE, 1048576);
}

// ---- out of memory ------------------------------------------------------------------------------------------

namespace
{

// Makes the k-th allocation of exactly `bytes` bytes fail, from 1; 0: none.
struct Failing_Allocation {
    size_t bytes = 0;
    int countdown = 0;
} failing_allocation;

size_t bytes_moved; // by memmove

bool allocation_fails(size_t bytes)
{
    return failing_allocation.countdown > 0 && bytes == failing_allocation.bytes &&
           --failing_allocation.countdown == 0;
}

struct Allocation_Failure {
    explicit Allocation_Failure(size_t bytes, int k = 1) { failing_allocation = {bytes, k}; }
    ~Allocation_Failure() { failing_allocation = {}; }
    bool happened() const { return failing_allocation.countdown == 0; }
};

} // namespace

// The linker sends the plugin's calls here.
extern "C" {
void *__real_malloc(size_t bytes);
void *__real_calloc(size_t count, size_t bytes);
void *__wrap_malloc(size_t bytes);
void *__wrap_calloc(size_t count, size_t bytes);

void *__real_memmove(void *to, const void *from, size_t bytes);
void *__wrap_memmove(void *to, const void *from, size_t bytes);

void *__wrap_memmove(void *to, const void *from, size_t bytes)
{
    bytes_moved += bytes;
    return __real_memmove(to, from, bytes);
}

void *__wrap_malloc(size_t bytes)
{
    return allocation_fails(bytes) ? nullptr : __real_malloc(bytes);
}

void *__wrap_calloc(size_t count, size_t bytes)
{
    return allocation_fails(count * bytes) ? nullptr : __real_calloc(count, bytes);
}
}

namespace
{

constexpr size_t ENTRIES = size_t{DEFAULT_STACK_SIZE} * sizeof(Node *);
constexpr char NO_NODE[] = "new_node(): Out of memory in allocating Node\n";
constexpr char NO_STACK[] = "new_stack(): Out of memory in allocating Stack\n";
constexpr char NO_LIST[] = "new_list(): Out of memory in allocating List\n";
static_assert(sizeof(Stack) == sizeof(List) && sizeof(Stack) == 16);

using Texts = std::vector<std::string>;

} // namespace

TEST(out_of_memory, gives_no_node_and_an_error_with_its_place)
{
    Traced_Machine m;
    const Allocation_Failure failure(sizeof(Node));
    EXPECT_EQ(new_node(), nullptr);
    ASSERT_EQ(m.errors(), Texts{NO_NODE});
    EXPECT_FALSE(m.messages().back().source.empty());
    EXPECT_GT(m.messages().back().line, 0);
}

TEST(out_of_memory, gives_no_stack_when_the_record_or_its_entries_are_missing)
{
    for (size_t bytes : {sizeof(Stack), ENTRIES}) {
        Traced_Machine m;
        const Allocation_Failure failure(bytes);
        EXPECT_EQ(new_stack(), nullptr);
        EXPECT_TRUE(failure.happened());
        EXPECT_EQ(m.errors(), Texts{NO_STACK});
    }
}

TEST(out_of_memory, gives_no_list_when_the_record_or_its_entries_are_missing)
{
    for (size_t bytes : {sizeof(List), ENTRIES}) {
        Traced_Machine m;
        const Allocation_Failure failure(bytes);
        EXPECT_EQ(new_list(), nullptr);
        EXPECT_TRUE(failure.happened());
        EXPECT_EQ(m.errors(), Texts{NO_LIST});
    }
}

TEST(closing, frees_waiting_flushed_instructions_without_moving_the_others)
{
    Traced_Machine m;
    m.start();
    for (uint64_t key = 1; key <= 5000; ++key) {
        Node *node = new_node();
        node->terminated_seq = key;
        insert_to_list(flush_list[0], node);
    }
    bytes_moved = 0;
    m.stop();
    EXPECT_LT(bytes_moved, 5000 * sizeof(Node *)); // one by one it would be 100 megabytes
}
