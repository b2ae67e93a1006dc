// Nodes and their containers: creation and disposal, stacks, lists, and each thread's ordering tree, which decides
// when and in which order instructions are written.
//
// Main chain of a thread: root[tid] -> left -> left ... -> last_commit[tid], strictly ascending seq, all committed.
// A node's `right` is the chain (by left) of instructions that it flushed; those may have side chains themselves.
#pragma once

#include "plugin_qtbin.h"

// A node with every byte zero. Null when memory runs out, which is reported.
Node *new_node();
// Takes the node back; its links are not followed. Null is allowed.
void free_node(Node *node);
// The same for a node that the caller has made all zero again.
void free_clear_node(Node *node);
// Gives kept nodes back to the system.
void drop_spare_nodes();

// Null when memory runs out, which is reported. The nodes that entries point to are never freed with them.
Stack *new_stack();
List *new_list();
void del_stack(Stack *stack); // null is allowed
void del_list(List *list);    // null is allowed

void push(Stack *stack, Node *node); // a full stack is reported and stays as it is
Node *pop(Stack *stack);             // not on an empty stack
inline boolean is_stack_empty(const Stack *stack)
{
    return stack->stack_index == 0;
}
inline void reset_stack(Stack *stack)
{
    stack->stack_index = 0;
}

// Keeps ascending order of terminated_seq; equal keys stay in the order of their insertion. Returns 1; 0 when the
// list is missing or full (reported), then `node` stays the caller's.
boolean insert_to_list(List *list, Node *node);
Node *remove_from_list(List *list);            // the first entry; not on an empty list
inline boolean is_list_empty(const List *list) // true also for null
{
    return !list || list->list_index == 0;
}

// Puts `node` into a chain (by left) of ascending seq and returns the chain's head. A node whose seq is there
// already is reported and freed.
Node *insert_left(Node *head, Node *node);

// Hangs `node` under the node whose seq is node->terminated_seq. Returns the main-chain node to start the next
// search from, or null when there is no such node or it has a side chain already; then `node` stays the caller's.
Node *insert_right(Node *start, Node *node);

// The same; as long as it fails and the key node->terminated_seq is above start->seq, the key is lowered by 1 and tried
// again, down to start->seq, which is not tried. Keys that cannot succeed are skipped.
Node *insert_right_or_below(Node *start, Node *node);

// Frees everything reachable from `node`. Null is allowed.
void del_tree(Node *node);

// Writes every node of the tree but the last one reached (the newest commit), side chains right after the node
// that flushed them.
void dump_tree_right(Node *first);

// Writes everything in a thread's tree; the last node without a termination, since nothing follows it. The tree
// stays the caller's to free.
void flush_thread_tree(int tid);
void flush_tree(); // every thread, ascending
