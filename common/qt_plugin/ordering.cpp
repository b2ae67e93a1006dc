#include "ordering.h"

#include "inline_body.h"
#include "record.h"
#include "text.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>

static constexpr char SOURCE[] = "common/qt_plugin/ordering";

// ---- Nodes ---------------------------------------------------------------------------------------------------

// A thread's tree holds two nodes at a time, so that nodes come and go one by one: a few kept ones, linked by
// left and otherwise all zero, save the allocator's work. Each is a block of its own, so that any node may end in
// free().
// Under AddressSanitizer nothing is kept, for a use after free to be seen, and nodes said to be clear are looked
// at.
#ifdef __SANITIZE_ADDRESS__
static constexpr int SPARE_NODES = 0;
static constexpr bool CHECKS_CLEAR_NODES = true;
#else
static constexpr int SPARE_NODES = 64;
static constexpr bool CHECKS_CLEAR_NODES = false;
#endif
static Node *spare_nodes;
static int spare_count;

static bool is_all_zero(const Node *node)
{
    const auto *bytes = reinterpret_cast<const char *>(node);
    return bytes[0] == 0 && memcmp(bytes, bytes + 1, sizeof *node - 1) == 0;
}

Node *new_node()
{
    Node *node = spare_nodes;
    if (node) {
        spare_nodes = node->left;
        --spare_count;
        node->left = nullptr;
        return node;
    }
    node = static_cast<Node *>(calloc(1, sizeof *node));
    if (!node)
        sim_do_error(SOURCE, __LINE__, "new_node(): Out of memory in allocating Node\n");
    return node;
}

void free_node(Node *node)
{
    if (node)
        memset(static_cast<void *>(node), 0, sizeof *node);
    free_clear_node(node);
}

void free_clear_node(Node *node)
{
    if (node && CHECKS_CLEAR_NODES)
        QT_ASSERT(is_all_zero(node), "is_all_zero(node)");
    if (!node || spare_count >= SPARE_NODES) {
        free(node);
        return;
    }
    node->left = spare_nodes;
    spare_nodes = node;
    ++spare_count;
}

void drop_spare_nodes()
{
    while (spare_nodes) {
        Node *next = spare_nodes->left;
        free(spare_nodes);
        spare_nodes = next;
    }
    spare_count = 0;
}

// ---- Stacks and lists ----------------------------------------------------------------------------------------

// The entries' memory is claimed at full size but touched only as far as it is used.
static Node **new_entries(int32_t capacity)
{
    return static_cast<Node **>(malloc(static_cast<size_t>(capacity) * sizeof(Node *)));
}

Stack *new_stack()
{
    auto *stack = static_cast<Stack *>(malloc(sizeof(Stack)));
    if (stack)
        *stack = {0, DEFAULT_STACK_SIZE, new_entries(DEFAULT_STACK_SIZE)};
    if (!stack || !stack->stack) {
        free(stack);
        sim_do_error(SOURCE, __LINE__, "new_stack(): Out of memory in allocating Stack\n");
        return nullptr;
    }
    return stack;
}

List *new_list()
{
    auto *list = static_cast<List *>(malloc(sizeof(List)));
    if (list)
        *list = {0, DEFAULT_LIST_SIZE, new_entries(DEFAULT_LIST_SIZE)};
    if (!list || !list->list) {
        free(list);
        sim_do_error(SOURCE, __LINE__, "new_list(): Out of memory in allocating List\n");
        return nullptr;
    }
    return list;
}

void del_stack(Stack *stack)
{
    if (stack)
        free(stack->stack);
    free(stack);
}

void del_list(List *list)
{
    if (list)
        free(list->list);
    free(list);
}

void push(Stack *stack, Node *node)
{
    if (stack->stack_index >= stack->stack_size) {
        sim_do_error(SOURCE, __LINE__, "push(): Stack is full\n");
        return;
    }
    stack->stack[stack->stack_index++] = node;
}

Node *pop(Stack *stack)
{
    return stack->stack[--stack->stack_index];
}

boolean insert_to_list(List *list, Node *node)
{
    if (!list)
        return 0;
    if (list->list_index >= list->list_size) {
        sim_do_error(SOURCE, __LINE__, "insert_to_list(): List is full\n");
        return 0;
    }
    int32_t place = list->list_index;
    while (place > 0 && list->list[place - 1]->terminated_seq > node->terminated_seq) {
        list->list[place] = list->list[place - 1];
        --place;
    }
    list->list[place] = node;
    ++list->list_index;
    return 1;
}

Node *remove_from_list(List *list)
{
    Node *first = list->list[0];
    --list->list_index;
    memmove(list->list, list->list + 1, static_cast<size_t>(list->list_index) * sizeof(Node *));
    return first;
}

// ---- Chains and side chains ----------------------------------------------------------------------------------

Node *insert_left(Node *head, Node *node)
{
    if (!node)
        return head;
    if (!head)
        return node;
    if (head->seq > node->seq) {
        node->left = head;
        return node;
    }
    Node *at = head;
    while (at->seq != node->seq && at->left && at->left->seq <= node->seq)
        at = at->left;
    if (at->seq == node->seq) {
        sim_do_warning(2, "insert_left(): Duplicated seq found!");
        free_node(node);
        return head;
    }
    node->left = at->left;
    at->left = node;
    return head;
}

// A search of the tree for a sequence number.
struct Seq_Search {
    uint64_t seq;
    uint64_t
        lower; // every search for a number below seq and above this one meets the same nodes, and fails like it
};

static bool is_not_above(Seq_Search &search, const Node *node)
{
    if (!node || node->seq > search.seq)
        return false;
    search.lower = std::max(search.lower, std::min(node->seq, search.seq - 1));
    return true;
}

// The last node of the chain from `start` whose seq is not above the one searched.
static Node *last_not_above(Node *start, Seq_Search &search)
{
    while (is_not_above(search, start->left))
        start = start->left;
    return start;
}

// The node of the seq searched, from `at` on: an earlier successor is preferred to the side chain.
static Node *find_flusher(Node *at, Seq_Search &search)
{
    while (is_not_above(search, at) && at->seq != search.seq)
        at = is_not_above(search, at->left) ? at->left : at->right;
    return at && at->seq == search.seq ? at : nullptr;
}

static Node *try_insert_right(Node *start, Node *node, Seq_Search &search)
{
    Node *chain = last_not_above(start, search);
    Node *flusher = find_flusher(chain, search);
    if (!flusher || flusher->right) // a node takes one side chain only; the caller tries a lower key
        return nullptr;
    if (!flusher->left && !flusher->commit)
        flusher->left = node;
    else
        flusher->right = node;
    return chain;
}

Node *insert_right(Node *start, Node *node)
{
    if (!start || !node || start->seq > node->terminated_seq || !s1)
        return nullptr;
    Seq_Search search = {node->terminated_seq, 0};
    return try_insert_right(start, node, search);
}

Node *insert_right_or_below(Node *start, Node *node)
{
    if (start->seq > node->terminated_seq || !s1)
        return nullptr;
    do {
        Seq_Search search = {node->terminated_seq, start->seq};
        if (Node *placed = try_insert_right(start, node, search))
            return placed;
        node->terminated_seq = search.lower;
    } while (node->terminated_seq > start->seq);
    return nullptr;
}

void del_tree(Node *node)
{
    if (s1)
        reset_stack(s1);
    // Needs no stack, so that it works also where none could be made: a side chain is moved before its
    // owner's successor, and what is left is a plain chain.
    while (node) {
        if (node->right) {
            Node *tail = node->right;
            while (tail->left)
                tail = tail->left;
            tail->left = node->left;
            node->left = node->right;
        }
        Node *next = node->left;
        free_node(node);
        node = next;
    }
}

// ---- Flags ---------------------------------------------------------------------------------------------------

// Pushes what follows `node` in the order of writing: its side chain comes first, then its successor.
static void push_followers(Node *node)
{
    if (node->left)
        push(s1, node->left);
    if (node->right)
        push(s1, node->right);
}

static boolean is_next_sequential(const Node *node)
{
    return node->nextPC == node->PC + 4;
}

// The number of `node`: committed instructions have 0 and start the count anew, flushed ones count on.
static void number_node(Node *node, uint8_t &count)
{
    node->nn = node->commit ? 0 : count;
    count = node->commit ? 1 : static_cast<uint8_t>(count + 1);
}

static void set_flags(Node *node, boolean next_address, boolean number, boolean termination)
{
    node->I = next_address;
    node->N = number;
    node->T = termination;
}

// A node with a successor and no side chain.
INLINE_BODY void set_flags_before_successor(Node *node, uint8_t &count)
{
    const bool sequential = is_next_sequential(node);
    if (sequential && node->info.branch == '?') {
        set_flags(node, 0, 0, 0);
        return;
    }
    set_flags(node, !(sequential && node->info.taken != 'Y'), 1, 1);
    number_node(node, count);
}

// `count` numbers flushed nodes; s2 holds the nodes with both a successor and a side chain.
static void set_node_flags(Node *node, uint8_t &count)
{
    if (node->left && node->right) {
        set_flags(node, !is_next_sequential(node), 1, 0);
        number_node(node, count);
        push(s2, node);
    } else if (node->left) {
        set_flags_before_successor(node, count);
    } else if (!node->right) { // the end of a chain; a node with only a side chain keeps what it has
        set_flags(node, 0, 0, 1);
        if (!is_stack_empty(s2))
            node->nn = pop(s2)->nn;
    }
}

void set_NIT_bit(Node *first)
{
    if (!first || !s1 || !s2)
        return;
    uint8_t count = 1;
    reset_stack(s1);
    reset_stack(s2);
    push(s1, first);
    while (!is_stack_empty(s1)) {
        Node *node = pop(s1);
        push_followers(node);
        set_node_flags(node, count);
    }
}

// ---- Writing -------------------------------------------------------------------------------------------------

INLINE_BODY void write_node(Node *node, Node *first)
{
    if (qfile_in_text)
        dump_node_text(node);
    dump_node(node);
    first->partition_change = 0; // the first node's, not this one's: one batch, one change
}

// Nearly always the tree is an instruction and the one after it.
static bool is_pair(const Node *first)
{
    const Node *second = first->left;
    return second && !first->right && !second->left && !second->right;
}

// What the walks below do, for a pair: the second node ends the chain.
INLINE_BODY Node *write_first_of_pair(Node *first)
{
    Node *second = first->left;
    uint8_t count = 1;
    set_flags_before_successor(first, count);
    set_flags(second, 0, 0, 1);
    write_node(first, first);
    return second;
}

static Node *write_any_tree_but_last(Node *first)
{
    set_NIT_bit(first);
    reset_stack(s1);
    push(s1, first);
    for (;;) {
        Node *node = pop(s1);
        push_followers(node);
        if (is_stack_empty(s1))
            return node;
        write_node(node, first);
    }
}

// Writes the tree in order, all but the last node reached, which is returned.
INLINE_BODY Node *write_all_but_last(Node *first)
{
    return is_pair(first) ? write_first_of_pair(first) : write_any_tree_but_last(first);
}

void dump_tree_right(Node *first)
{
    if (first && s1 && s2)
        write_all_but_last(first);
}

void flush_thread_tree(int tid)
{
    if (!root || !s1 || !s2 || !root[tid])
        return;
    Node *last = write_all_but_last(root[tid]);
    last->T = 0;
    write_node(last, root[tid]);
}

void flush_tree()
{
    if (!root || !s1)
        return;
    for (int tid = 0; tid < hardware_threads(); ++tid)
        flush_thread_tree(tid);
}
