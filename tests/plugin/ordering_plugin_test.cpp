// The ordering tree: where nodes go, which flags they get, and the order in which they are written.
#include <gtest/gtest.h> // before the plugin, whose `flush` would hide the stream manipulator

#include "ordering.h"
#include "record.h"
#include "traced_machine.h"

#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace
{

using Words = std::vector<uint32_t>;
using Seqs = std::vector<uint64_t>;

// A node as the plugin makes them, zero and on the heap: whoever takes it frees it.
Node *make_node(uint64_t seq)
{
    auto *node = static_cast<Node *>(std::calloc(1, sizeof(Node)));
    node->seq = seq;
    node->PC = 0x1000 + 4 * seq;
    node->nextPC = node->PC + 4;
    node->info.instbody = static_cast<uint32_t>(seq);
    node->info.branch = '?';
    node->info.taken = '?';
    node->done = 1;
    return node;
}

Node *committed(uint64_t seq)
{
    Node *node = make_node(seq);
    node->commit = 1;
    return node;
}

Node *flushed(uint64_t seq, uint64_t terminated_seq = 0)
{
    Node *node = make_node(seq);
    node->terminated_seq = terminated_seq;
    return node;
}

Node *chain_of(std::initializer_list<Node *> nodes)
{
    Node *previous = nullptr;
    for (Node *node : nodes) {
        if (previous)
            previous->left = node;
        previous = node;
    }
    return *nodes.begin();
}

Seqs chain_seqs(const Node *head)
{
    Seqs seqs;
    for (; head; head = head->left)
        seqs.push_back(head->seq);
    return seqs;
}

// I, N, T and nn of a node.
using Flags = std::tuple<boolean, boolean, boolean, int>;
Flags flags(const Node *node)
{
    return {node->I, node->N, node->T, node->nn};
}

void jump(Node *node, char branch = 'U')
{
    node->nextPC = 0x9000;
    node->info.branch = branch;
    node->info.taken = 'Y';
}

// A session whose only thread holds the tree that the test builds.
struct Ordering : testing::Test {
    Traced_Machine m;
    std::vector<Node *> kept;

    void SetUp() override { m.start(); }
    void TearDown() override
    {
        for (Node *tree : kept)
            del_tree(tree);
    }
    // Freed at the end of the test.
    Node *keep(Node *tree)
    {
        kept.push_back(tree);
        return tree;
    }
    Words words_after_dump(Node *tree)
    {
        dump_tree_right(keep(tree));
        return m.instruction_words();
    }
    Words words_after_flush(Node *tree)
    {
        root[0] = tree; // freed with the session
        flush_thread_tree(0);
        return m.instruction_words();
    }
};

} // namespace

// ---- insert_left --------------------------------------------------------------------------------------------

TEST_F(Ordering, insert_left_of_nothing_returns_the_head)
{
    Node *head = keep(committed(3));
    EXPECT_EQ(insert_left(head, nullptr), head);
    EXPECT_EQ(insert_left(nullptr, nullptr), nullptr);
}

TEST_F(Ordering, insert_left_into_an_empty_chain_returns_the_node)
{
    Node *node = keep(committed(3));
    EXPECT_EQ(insert_left(nullptr, node), node);
}

TEST_F(Ordering, insert_left_puts_a_lower_seq_before_the_head)
{
    Node *seven = committed(7), *three = committed(3);
    Node *head = keep(insert_left(seven, three));
    EXPECT_EQ(head, three);
    EXPECT_EQ(chain_seqs(head), (Seqs{3, 7}));
}

TEST_F(Ordering, insert_left_puts_5_between_3_and_7)
{
    Node *head = keep(chain_of({committed(3), committed(7)}));
    EXPECT_EQ(insert_left(head, committed(5)), head);
    EXPECT_EQ(chain_seqs(head), (Seqs{3, 5, 7}));
}

TEST_F(Ordering, insert_left_appends_the_highest_seq)
{
    Node *head = keep(chain_of({committed(3), committed(7)}));
    EXPECT_EQ(insert_left(head, committed(9)), head);
    EXPECT_EQ(chain_seqs(head), (Seqs{3, 7, 9}));
}

TEST_F(Ordering, insert_left_of_a_seq_that_is_there_warns_and_frees_the_new_node)
{
    for (uint64_t duplicate : {3, 5, 7}) { // first, middle, last
        m.forget_output();
        Node *head = keep(chain_of({committed(3), committed(5), committed(7)}));
        EXPECT_EQ(insert_left(head, committed(duplicate)), head);
        EXPECT_EQ(chain_seqs(head), (Seqs{3, 5, 7}));
        ASSERT_EQ(m.warnings(), std::vector<std::string>{"insert_left(): Duplicated seq found!"});
        EXPECT_EQ(m.messages().back().level, 2);
    }
}

TEST_F(Ordering, insert_left_orders_seqs_as_unsigned_64_bit_numbers)
{
    Node *head = insert_left(committed(0x8000000000000000), committed(1));
    head = keep(insert_left(head, committed(0x100000000)));
    EXPECT_EQ(chain_seqs(head), (Seqs{1, 0x100000000, 0x8000000000000000}));
}

// ---- insert_right -------------------------------------------------------------------------------------------

TEST_F(Ordering, insert_right_of_or_under_nothing_returns_null)
{
    Node *node = keep(flushed(5, 1));
    EXPECT_EQ(insert_right(nullptr, node), nullptr);
    EXPECT_EQ(insert_right(node, nullptr), nullptr);
}

TEST_F(Ordering, insert_right_before_the_start_node_returns_null)
{
    Node *tree = keep(chain_of({committed(5), committed(6)}));
    EXPECT_EQ(insert_right(tree, keep(flushed(9, 4))), nullptr);
    EXPECT_EQ(tree->right, nullptr);
}

TEST_F(Ordering, insert_right_hangs_the_node_under_the_instruction_that_flushed_it)
{
    for (uint64_t t : {1, 2, 3}) {
        Node *tree = keep(chain_of({committed(1), committed(2), committed(3)}));
        Node *node = flushed(9, t);
        Node *place = insert_right(tree, node);
        ASSERT_NE(place, nullptr);
        EXPECT_EQ(place->seq, t);
        EXPECT_EQ(place->right, node);
        EXPECT_EQ(chain_seqs(tree), (Seqs{1, 2, 3}));
    }
}

TEST_F(Ordering, insert_right_without_an_instruction_of_that_seq_returns_null)
{
    Node *tree = keep(chain_of({committed(1), committed(3)}));
    EXPECT_EQ(insert_right(tree, keep(flushed(9, 2))), nullptr);
    EXPECT_EQ(insert_right(tree, keep(flushed(9, 4))), nullptr);
    EXPECT_EQ(tree->right, nullptr);
    EXPECT_EQ(tree->left->right, nullptr);
}

TEST_F(Ordering, insert_right_onto_a_node_that_has_a_side_chain_returns_null)
{
    Node *tree = keep(chain_of({committed(1), committed(2)}));
    Node *first = flushed(8, 1);
    EXPECT_EQ(insert_right(tree, first), tree);
    EXPECT_EQ(insert_right(tree, keep(flushed(9, 1))), nullptr);
    EXPECT_EQ(tree->right, first);
    EXPECT_EQ(first->left, nullptr);
}

TEST_F(Ordering, insert_right_under_the_last_node_of_a_side_chain_continues_that_chain)
{
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    Node *five = flushed(5, 1), *six = flushed(6, 5), *seven = flushed(7, 6);
    EXPECT_EQ(insert_right(tree, five), tree);
    EXPECT_EQ(insert_right(tree, six), tree) << "the main-chain node is the one to go on from";
    EXPECT_EQ(five->left, six);
    EXPECT_EQ(five->right, nullptr);
    EXPECT_EQ(insert_right(tree, seven), tree);
    EXPECT_EQ(chain_seqs(tree->right), (Seqs{5, 6, 7}));
}

TEST_F(Ordering, insert_right_under_a_flushed_node_that_has_a_successor_makes_a_side_chain_of_its_own)
{
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    Node *five = flushed(5, 1), *six = flushed(6, 5), *seven = flushed(7, 5);
    insert_right(tree, five);
    insert_right(tree, six);
    EXPECT_EQ(insert_right(tree, seven), tree);
    EXPECT_EQ(five->left, six);
    EXPECT_EQ(five->right, seven);
    EXPECT_EQ(insert_right(tree, keep(flushed(8, 5))), nullptr) << "both places are taken now";
}

TEST_F(Ordering, insert_right_under_the_newest_commit_makes_a_side_chain_and_does_not_prolong_the_main_chain)
{
    Node *tree = keep(committed(1));
    Node *node = flushed(5, 1);
    EXPECT_EQ(insert_right(tree, node), tree);
    EXPECT_EQ(tree->right, node);
    EXPECT_EQ(tree->left, nullptr);
}

TEST_F(Ordering, insert_right_gives_up_where_the_side_chain_begins_beyond_the_key)
{
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    insert_right(tree, flushed(6, 1));
    EXPECT_EQ(insert_right(tree, keep(flushed(7, 5))), nullptr);
}

TEST_F(Ordering, insert_right_searches_only_the_side_chain_of_the_last_main_node_before_the_key)
{
    Node *tree = keep(chain_of({committed(1), committed(3), committed(9)}));
    insert_right(tree, flushed(5, 1)); // beyond node 3 by its seq, yet not below it
    EXPECT_EQ(insert_right(tree, keep(flushed(6, 5))), nullptr);
}

TEST_F(Ordering, insert_right_prefers_the_successor_to_the_side_chain)
{
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    Node *three = flushed(3, 1), *six = flushed(6, 3), *four = flushed(4, 3);
    insert_right(tree, three);
    insert_right(tree, six);                   // 3 -> 6
    EXPECT_EQ(insert_right(tree, four), tree); // 3 has 4 at its side
    Node *five = flushed(5, 4);                // 6 is beyond 4: the side chain is searched
    EXPECT_EQ(insert_right(tree, five), tree);
    EXPECT_EQ(four->left, five);
    EXPECT_EQ(insert_right(tree, keep(flushed(8, 7))), nullptr); // 6 is not: only that way is searched
}

namespace
{

// A tree of up to `size` nodes with numbers below `range`; chains are ascending, as those of a thread are.
Node *random_tree(std::minstd_rand &dice, size_t size, uint64_t range, bool main_chain)
{
    std::set<uint64_t> seqs;
    for (size_t i = 0; i < size; ++i)
        seqs.insert(dice() % range);
    Node *head = nullptr;
    for (const uint64_t seq : seqs) {
        Node *node = main_chain ? committed(seq) : flushed(seq);
        if (size > 1 && dice() % 2)
            node->right = random_tree(dice, size / 2, range, false);
        head = insert_left(head, node);
    }
    return head;
}

Seqs shape_of(const Node *node)
{
    if (!node)
        return {UINT64_MAX};
    Seqs shape{node->seq};
    for (const Node *branch : {node->right, node->left})
        for (const uint64_t seq : shape_of(branch))
            shape.push_back(seq);
    return shape;
}

// Each lower key tried in turn.
Node *insert_right_one_by_one(Node *start, Node *node)
{
    Node *placed = insert_right(start, node);
    while (!placed && node->terminated_seq > start->seq && --node->terminated_seq > start->seq)
        placed = insert_right(start, node);
    return placed;
}

} // namespace

TEST_F(Ordering, insert_right_or_below_ends_as_if_each_lower_key_had_been_tried)
{
    int placed = 0;
    for (unsigned seed = 1; seed <= 3000; ++seed) {
        struct Outcome {
            bool placed;
            uint64_t start, key;
            Seqs shape;
            bool operator==(const Outcome &) const = default;
        };
        const auto outcome = [seed](Node *(*insert)(Node *, Node *)) {
            std::minstd_rand dice(seed);
            Node *start = random_tree(dice, 1 + dice() % 8, 24, true);
            Node *node = flushed(100, dice() % 32);
            Node *place = insert(start, node);
            const Outcome end{place != nullptr, place ? place->seq : 0, node->terminated_seq, shape_of(start)};
            if (!place)
                free_node(node);
            del_tree(start);
            return end;
        };
        const Outcome expected = outcome(insert_right_one_by_one);
        const Outcome actual = outcome(insert_right_or_below);
        ASSERT_EQ(actual.placed, expected.placed) << "seed " << seed;
        ASSERT_EQ(actual.key, expected.key) << "seed " << seed;
        ASSERT_TRUE(actual == expected) << "seed " << seed;
        placed += expected.placed;
    }
    EXPECT_GT(placed, 150);
}

TEST_F(Ordering, insert_right_starts_in_the_middle_of_the_main_chain_as_well)
{
    Node *tree = keep(chain_of({committed(1), committed(2), committed(3)}));
    Node *node = flushed(9, 3);
    EXPECT_EQ(insert_right(tree->left, node), tree->left->left);
    EXPECT_EQ(insert_right(tree->left, keep(flushed(9, 1))), nullptr);
}

// ---- flags --------------------------------------------------------------------------------------------------

TEST_F(Ordering, sequential_instructions_that_are_no_branches_have_no_flags_but_the_last_which_terminates)
{
    Node *tree = keep(chain_of({committed(1), committed(2), committed(3)}));
    tree->I = tree->N = tree->T = 1;
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(0, 0, 0, 0));
    EXPECT_EQ(flags(tree->left), Flags(0, 0, 0, 0));
    EXPECT_EQ(flags(tree->left->left), Flags(0, 0, 1, 0));
}

TEST_F(Ordering, sequential_instruction_keeps_its_node_number)
{
    Node *tree = keep(chain_of({committed(1), committed(2)}));
    tree->nn = 77;
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(0, 0, 0, 77));
}

TEST_F(Ordering, branch_not_taken_has_a_number_and_terminates_without_a_next_address)
{
    Node *tree = keep(chain_of({committed(1), committed(2)}));
    tree->info.branch = 'C';
    tree->info.taken = 'N';
    tree->nn = 77;
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(0, 1, 1, 0));
}

TEST_F(Ordering, branch_taken_to_the_following_instruction_has_all_three_flags)
{
    Node *tree = keep(chain_of({committed(1), committed(2)}));
    tree->info.branch = 'C';
    tree->info.taken = 'Y';
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(1, 1, 1, 0));
}

TEST_F(Ordering, jump_has_all_three_flags_whether_or_not_it_is_a_branch)
{
    for (char branch : {'U', 'C', '?'}) {
        Node *tree = keep(chain_of({committed(1), committed(2)}));
        jump(tree, branch);
        tree->info.taken = branch == '?' ? '?' : 'Y';
        set_NIT_bit(tree);
        EXPECT_EQ(flags(tree), Flags(1, 1, 1, 0)) << branch;
    }
}

TEST_F(Ordering, untaken_branch_elsewhere_counts_as_a_jump)
{
    Node *tree = keep(chain_of({committed(1), committed(2)}));
    jump(tree, 'C');
    tree->info.taken = 'N';
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(1, 1, 1, 0));
}

TEST_F(Ordering, instruction_with_a_successor_and_a_side_chain_has_a_number_and_does_not_terminate)
{
    for (bool jumps : {false, true}) {
        Node *tree = keep(chain_of({committed(1), committed(2)}));
        tree->right = flushed(5);
        tree->T = 1;
        tree->nn = 77;
        if (jumps)
            jump(tree);
        set_NIT_bit(tree);
        EXPECT_EQ(flags(tree), Flags(jumps, 1, 0, 0));
    }
}

TEST_F(Ordering, instruction_with_a_side_chain_only_keeps_its_flags)
{
    Node *tree = keep(committed(1));
    tree->right = flushed(5);
    tree->I = 1;
    tree->N = 1;
    tree->nn = 77;
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(1, 1, 0, 77));
    EXPECT_EQ(flags(tree->right), Flags(0, 0, 1, 0));
}

TEST_F(Ordering, flushed_instructions_are_numbered_from_1_along_the_walk)
{
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    tree->right = chain_of({flushed(2), flushed(3), flushed(4), flushed(5)});
    Node *two = tree->right, *three = two->left, *four = three->left, *five = four->left;
    jump(two);
    jump(three);
    jump(four);
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(0, 1, 0, 0));
    EXPECT_EQ(flags(two), Flags(1, 1, 1, 1));
    EXPECT_EQ(flags(three), Flags(1, 1, 1, 2));
    EXPECT_EQ(flags(four), Flags(1, 1, 1, 3));
    EXPECT_EQ(flags(five), Flags(0, 0, 1, 0)) << "the number of the instruction that the side chain hangs from";
}

TEST_F(Ordering, numbering_begins_with_1_also_where_the_walk_begins_with_a_flushed_instruction)
{
    Node *tree = keep(chain_of({flushed(2), flushed(3)}));
    jump(tree);
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree), Flags(1, 1, 1, 1));
}

TEST_F(Ordering, committed_instruction_with_a_flag_starts_the_numbering_again)
{
    Node *tree = keep(chain_of({committed(1), committed(7), committed(9)}));
    tree->right = chain_of({flushed(2), flushed(3)});
    jump(tree->right);
    tree->left->right = chain_of({flushed(4), flushed(5)});
    jump(tree->left->right);
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree->right), Flags(1, 1, 1, 1));
    EXPECT_EQ(flags(tree->left->right), Flags(1, 1, 1, 1));
}

TEST_F(Ordering, sequential_flushed_instruction_does_not_advance_the_numbering)
{
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    tree->right = chain_of({flushed(2), flushed(3), flushed(4)});
    jump(tree->right->left);
    set_NIT_bit(tree);
    EXPECT_EQ(flags(tree->right), Flags(0, 0, 0, 0));
    EXPECT_EQ(flags(tree->right->left), Flags(1, 1, 1, 1));
}

TEST_F(Ordering, nested_side_chain_ends_with_the_number_of_the_flushed_instruction_it_hangs_from)
{
    // 1 -> 9; 1 flushed 2 -> 3 -> 4; 3 flushed 5
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    tree->right = chain_of({flushed(2), flushed(3), flushed(4)});
    Node *two = tree->right, *three = two->left, *four = three->left;
    jump(two);
    three->right = flushed(5);
    set_NIT_bit(tree);
    EXPECT_EQ(flags(two), Flags(1, 1, 1, 1));
    EXPECT_EQ(flags(three), Flags(0, 1, 0, 2));
    EXPECT_EQ(flags(three->right), Flags(0, 0, 1, 2)) << "popped: number of 3";
    EXPECT_EQ(flags(four), Flags(0, 0, 1, 0)) << "popped: number of 1";
}

TEST_F(Ordering, number_of_flushed_instructions_wraps_at_256)
{
    Node *tree = keep(chain_of({committed(1), committed(9)}));
    Node *last = tree;
    for (int i = 0; i < 257; ++i) {
        Node *node = flushed(100);
        jump(node);
        (last == tree ? tree->right : last->left) = node;
        last = node;
    }
    last->left = flushed(101);
    set_NIT_bit(tree);
    EXPECT_EQ(flags(last), Flags(1, 1, 1, 1)) << "257th";
}

TEST(flags_of_a_tree, are_left_alone_without_a_session)
{
    Traced_Machine m;
    Node node{};
    node.I = 1;
    set_NIT_bit(&node);
    EXPECT_EQ(flags(&node), Flags(1, 0, 0, 0));
}

// ---- writing ------------------------------------------------------------------------------------------------

TEST_F(Ordering, batch_of_one_instruction_writes_nothing)
{
    EXPECT_EQ(words_after_dump(committed(1)), Words{});
    EXPECT_TRUE(m.headers().empty());
}

TEST_F(Ordering, batch_leaves_the_newest_instruction_out)
{
    EXPECT_EQ(words_after_dump(chain_of({committed(1), committed(2), committed(3)})), (Words{1, 2}));
}

TEST_F(Ordering, batch_writes_flushed_instructions_after_the_one_that_flushed_them)
{
    Node *tree = chain_of({committed(1), committed(8), committed(9)});
    tree->right = chain_of({flushed(2), flushed(3), flushed(4)});
    tree->right->left->right = chain_of({flushed(5), flushed(6)});
    EXPECT_EQ(words_after_dump(tree), (Words{1, 2, 3, 5, 6, 4, 8}));
}

TEST_F(Ordering, batch_whose_walk_ends_in_a_side_chain_leaves_that_last_one_out)
{
    Node *tree = chain_of({committed(1), committed(2)});
    tree->left->right = chain_of({flushed(5), flushed(6)});
    EXPECT_EQ(words_after_dump(tree), (Words{1, 2, 5}));
}

TEST_F(Ordering, batch_clears_the_partition_change_of_its_root_only)
{
    Node *tree = chain_of({committed(1), committed(2), committed(3)});
    tree->partition_change = 1;
    tree->left->partition_change = 1;
    words_after_dump(tree);
    EXPECT_EQ(m.order(), "HHRHR"); // full header, change of 1, 1, change of 2, 2
    EXPECT_EQ(tree->partition_change, 0u);
    EXPECT_EQ(tree->left->partition_change, 1u);
}

TEST_F(Ordering, batch_of_one_instruction_keeps_the_partition_change)
{
    Node *tree = committed(1);
    tree->partition_change = 1;
    words_after_dump(tree);
    EXPECT_EQ(tree->partition_change, 1u);
}

TEST_F(Ordering, batch_goes_on_after_a_record_that_could_not_be_written)
{
    recording_writer().fail_record(2);
    EXPECT_EQ(words_after_dump(chain_of({committed(1), committed(2), committed(3), committed(4)})), (Words{1, 3}));
    EXPECT_EQ(m.warnings(), std::vector<std::string>{"QTRACE_WriteRecord fail"});
}

TEST_F(Ordering, batch_computes_the_flags_it_writes)
{
    Node *tree = chain_of({committed(1), committed(2)});
    jump(tree);
    words_after_dump(tree);
    const QTRACE_RECORD record = m.records().at(0);
    EXPECT_EQ(record.header.control.fld.iar_change_present, 1u);
    EXPECT_EQ(record.header.control.fld.node_present, 1u);
    EXPECT_EQ(record.header.control.fld.termination_present, 1u);
    EXPECT_EQ(record.termination_code, QTRACE_UnconditionalBranchNode);
}

TEST_F(Ordering, flush_of_a_thread_writes_its_only_instruction_without_a_termination)
{
    EXPECT_EQ(words_after_flush(committed(1)), Words{1});
    const control_word control = m.records().at(0).header.control;
    EXPECT_EQ(control.fld.termination_present, 0u);
    EXPECT_EQ(control.fld.node_present, 0u);
    EXPECT_EQ(root[0]->T, 0u);
}

TEST_F(Ordering, flush_of_a_thread_writes_the_whole_tree_and_does_not_free_it)
{
    Node *tree = chain_of({committed(1), committed(8)});
    tree->right = chain_of({flushed(2), flushed(3)});
    EXPECT_EQ(words_after_flush(tree), (Words{1, 2, 3, 8}));
    EXPECT_EQ(root[0], tree);
    EXPECT_EQ(chain_seqs(tree), (Seqs{1, 8}));
    EXPECT_EQ(tree->left->T, 0u);
}

TEST_F(Ordering, flush_of_a_thread_clears_the_termination_of_the_last_one_only)
{
    Node *tree = chain_of({committed(1), committed(2)});
    jump(tree);
    tree->right = nullptr;
    words_after_flush(tree);
    EXPECT_EQ(m.records().at(0).header.control.fld.termination_present, 1u);
    EXPECT_EQ(m.records().at(1).header.control.fld.termination_present, 0u);
}

TEST_F(Ordering, flush_of_a_thread_without_instructions_writes_nothing)
{
    flush_thread_tree(0);
    EXPECT_TRUE(recording_writer().file(100).items.empty());
}

TEST(flush_without_a_session, does_nothing)
{
    Traced_Machine m;
    flush_thread_tree(0);
    flush_tree();
    EXPECT_TRUE(recording_writer().calls().empty());
}

TEST(flush_of_all_threads, goes_through_them_in_ascending_order)
{
    Traced_Machine m(2, 2);
    m.start();
    for (int tid : {3, 1, 0, 2})
        m.commit_run(1, tid);
    flush_tree();
    std::vector<QTRACE_FDESCR> files;
    for (const Writer_Call &call : recording_writer().calls())
        if (call.kind == Writer_Call::Kind::record)
            files.push_back(call.file);
    EXPECT_EQ(files, (std::vector<QTRACE_FDESCR>{100, 101, 102, 103}));
}

// ---- flushed instructions on their way through commits ------------------------------------------------------

namespace
{

// A session with commits at seq 10, 20, 30 ...
struct Flushes : testing::Test {
    Traced_Machine m;
    uint64_t seq = 0;

    void SetUp() override { m.start(); }
    void commit(size_t count = 1)
    {
        for (size_t i = 0; i < count; ++i) {
            seq += 10;
            m.commit({.seq = seq, .pc = 0x1000 + 4 * seq / 10, .op = static_cast<uint32_t>(seq)});
        }
    }
    void waiting(uint64_t node_seq, uint64_t terminated_seq)
    {
        insert_to_list(flush_list[0], flushed(node_seq, terminated_seq));
    }
    Words written() const { return m.instruction_words(); }
};

} // namespace

TEST_F(Flushes, flushed_instruction_is_taken_from_its_slot_and_written_after_its_flusher)
{
    commit(2);
    ::flush[0] = flushed(25, 20);
    commit();
    EXPECT_EQ(::flush[0], nullptr);
    EXPECT_TRUE(is_list_empty(flush_list[0]));
    EXPECT_EQ(written(), (Words{10, 20, 25}));
    commit();
    EXPECT_EQ(written(), (Words{10, 20, 25, 30}));
}

TEST_F(Flushes, slot_is_left_alone_by_the_first_instruction_of_a_thread)
{
    ::flush[0] = flushed(5, 1);
    commit();
    ASSERT_NE(::flush[0], nullptr);
    EXPECT_EQ(::flush[0]->seq, 5u);
}

TEST_F(Flushes, flushed_instruction_ahead_of_the_newest_commit_holds_everything_back_until_it_is_passed)
{
    commit(2);
    waiting(45, 20);
    commit(2); // 30, 40
    EXPECT_EQ(written(), Words{10});
    EXPECT_EQ(chain_seqs(root[0]), (Seqs{20, 30, 40}));
    commit(); // 50
    EXPECT_EQ(written(), (Words{10, 20, 45, 30, 40}));
    EXPECT_EQ(chain_seqs(root[0]), Seqs{50});
}

TEST_F(Flushes, flushed_instruction_of_the_seq_of_the_newest_commit_does_not_hold_back)
{
    commit(2);
    waiting(30, 20);
    commit();
    EXPECT_EQ(written(), (Words{10, 20, 30}));
}

TEST_F(Flushes, only_the_first_of_the_list_is_waited_for)
{
    commit(2);
    waiting(25, 30); // after the next in the list
    waiting(95, 20);
    commit(2);
    EXPECT_EQ(written(), Words{10});
    EXPECT_EQ(flush_list[0]->list_index, 2);
}

TEST_F(Flushes, two_flushed_instructions_go_under_their_own_flushers)
{
    commit(2);
    waiting(37, 30);
    waiting(35, 20);
    commit(2); // 35 and 37 are ahead of 30
    EXPECT_EQ(written(), (Words{10, 20, 35, 30, 37}));
}

TEST_F(Flushes, flushed_instruction_of_a_flushed_one_goes_after_it)
{
    commit(2);
    waiting(26, 25);
    waiting(25, 20);
    commit();
    EXPECT_EQ(written(), (Words{10, 20, 25, 26}));
}

TEST_F(Flushes, key_without_an_instruction_is_lowered_until_one_is_found)
{
    commit(2);
    waiting(35, 33); // 33, 32, 31, 30
    commit(2);
    EXPECT_EQ(written(), (Words{10, 20, 30, 35}));
}

TEST_F(Flushes, key_is_not_lowered_to_the_oldest_instruction)
{
    commit(2);
    waiting(25, 23); // 22 and 21 are tried, 20 is not
    commit();
    EXPECT_EQ(written(), (Words{10, 20}));
    EXPECT_TRUE(is_list_empty(flush_list[0]));
}

TEST_F(Flushes, key_far_above_all_instructions_is_lowered_to_the_newest)
{
    seq = 50;
    commit(2); // 60, 70
    waiting(65, UINT64_MAX - 3);
    commit(); // 80
    ASSERT_NE(root[0]->right, nullptr);
    EXPECT_EQ(root[0]->seq, 80u);
    EXPECT_EQ(root[0]->right->seq, 65u);
    EXPECT_EQ(root[0]->right->terminated_seq, 80u);
}

TEST_F(Flushes, second_key_far_above_all_instructions_finds_the_newest_taken_and_is_lost)
{
    commit(2);
    waiting(25, UINT64_MAX - 3);
    waiting(26, UINT64_MAX - 3);
    commit();
    EXPECT_TRUE(is_list_empty(flush_list[0]));
    ASSERT_NE(root[0]->right, nullptr);
    EXPECT_EQ(root[0]->right->seq, 25u);
    EXPECT_EQ(root[0]->right->left, nullptr);
    EXPECT_EQ(root[0]->right->right, nullptr);
}

TEST_F(Flushes, key_before_the_oldest_instruction_frees_the_flushed_one_and_what_hangs_from_it)
{
    commit(2);
    Node *node = flushed(25, 15);
    node->left = flushed(26);
    node->right = flushed(27);
    insert_to_list(flush_list[0], node);
    commit();
    EXPECT_EQ(written(), (Words{10, 20}));
}

TEST_F(Flushes, key_0_frees_the_flushed_instruction)
{
    commit(2);
    waiting(25, 0);
    commit();
    EXPECT_EQ(written(), (Words{10, 20}));
}

TEST_F(Flushes, second_flushed_instruction_of_the_same_flusher_finds_it_taken_and_is_lost)
{
    commit(2);
    waiting(24, 20);
    waiting(25, 20);
    commit();
    EXPECT_EQ(written(), (Words{10, 20, 24}));
}

TEST_F(Flushes, second_flushed_instruction_of_the_same_flusher_goes_to_an_earlier_free_one)
{
    commit(2);
    waiting(44, 40); // holds back 30
    commit();        // 30
    waiting(45, 40);
    commit(2); // 40: still held back by 44; 50
    // 44 is under 40, and from then on the search starts at 40: 45 finds no earlier place
    EXPECT_EQ(written(), (Words{10, 20, 30, 40, 44}));
}

TEST_F(Flushes, failed_placement_keeps_the_place_where_the_next_search_starts)
{
    commit(2);
    waiting(22, 5);  // cannot be placed
    waiting(24, 20); // can
    commit();
    EXPECT_EQ(written(), (Words{10, 20, 24}));
}

// The walk ends in the side chain, so the newest commit is not the last and goes out with two batches.
TEST_F(Flushes, flushed_instruction_under_the_newest_commit_has_that_one_written_with_this_batch_and_the_next)
{
    commit(2);
    waiting(29, 30);
    commit();
    EXPECT_EQ(written(), (Words{10, 20, 30}));
    EXPECT_EQ(chain_seqs(root[0]), Seqs{30});
    commit();
    EXPECT_EQ(written(), (Words{10, 20, 30, 30, 29}));
    EXPECT_EQ(chain_seqs(root[0]), Seqs{40});
}

TEST_F(Flushes, flushed_instructions_are_numbered_in_the_records)
{
    commit(2);
    Node *first = flushed(22, 20), *second = flushed(23, 22), *third = flushed(24, 23);
    jump(first);
    jump(second);
    for (Node *node : {first, second, third})
        insert_to_list(flush_list[0], node);
    commit();
    const auto records = m.records();
    ASSERT_EQ(written(), (Words{10, 20, 22, 23, 24}));
    EXPECT_EQ(records[1].header.control.fld.node_present, 1u);
    EXPECT_EQ(records[1].header.control.fld.termination_present, 0u);
    EXPECT_EQ(records[1].node, 0);
    EXPECT_EQ(records[2].node, 1);
    EXPECT_EQ(records[3].node, 2);
    EXPECT_EQ(records[4].header.control.fld.node_present, 0u);
    EXPECT_EQ(records[4].header.control.fld.termination_present, 1u);
    EXPECT_EQ(records[4].termination_node, 0);
}

TEST_F(Flushes, waiting_flushed_instructions_are_freed_unwritten_at_stop)
{
    commit(2);
    waiting(95, 20);
    ::flush[0] = flushed(25, 20);
    m.stop();
    EXPECT_EQ(written(), (Words{10, 20}));
}
