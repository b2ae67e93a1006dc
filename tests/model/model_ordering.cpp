#include "plugin_model.h"

#include <algorithm>
#include <set>

namespace model
{

std::vector<Node *> in_order(Node *root)
{
    if (!root)
        return {};
    std::vector<Node *> nodes{root};
    for (Node *branch : {root->right.get(), root->left.get()})
        for (Node *node : in_order(branch))
            nodes.push_back(node);
    return nodes;
}

void set_flags(Node *root)
{
    uint8_t flushed = 1;
    std::vector<Node *> forks;
    const auto number = [&](Node &node) {
        node.nn = node.commit ? 0 : flushed;
        flushed = node.commit ? 1 : static_cast<uint8_t>(flushed + 1);
    };
    for (Node *node : in_order(root)) {
        const bool sequential = node->next.address == node->fetch.address + 4;
        if (node->left && node->right) {
            node->N = true;
            node->T = false;
            node->I = !sequential;
            number(*node);
            forks.push_back(node);
        } else if (node->left && sequential && node->branch == '?') {
            node->I = node->N = node->T = false;
        } else if (node->left) {
            node->I = !(sequential && node->taken != 'Y');
            node->N = node->T = true;
            number(*node);
        } else if (!node->right) {
            node->I = node->N = false;
            node->T = true;
            if (!forks.empty()) {
                node->nn = forks.back()->nn;
                forks.pop_back();
            }
        }
    }
}

Node *hang(Node *start, std::unique_ptr<Node> &flushed)
{
    const uint64_t key = flushed->terminated_seq;
    if (!start || start->seq > key)
        return nullptr;
    while (start->left && start->left->seq <= key)
        start = start->left.get();
    Node *at = start;
    while (at && at->seq != key) {
        if (at->seq > key)
            at = nullptr;
        else if (at->left && at->left->seq <= key)
            at = at->left.get();
        else
            at = at->right.get();
    }
    if (!at || at->right)
        return nullptr;
    if (!at->left && !at->commit)
        at->left = std::move(flushed);
    else
        at->right = std::move(flushed);
    return start;
}

void Plugin_Model::put_flushed_into_list(Thread &thread, std::unique_ptr<Node> flushed)
{
    auto &list = thread.flush_list;
    const auto later = [&](const auto &node) { return node->terminated_seq > flushed->terminated_seq; };
    list.insert(std::find_if(list.begin(), list.end(), later), std::move(flushed));
}

// The keys below `key` that a flushed node may end with, highest first: only the number of a node can be one, and that
// of `start` is not tried.
static std::set<uint64_t, std::greater<>> lower_seqs(Node *start, uint64_t key)
{
    std::set<uint64_t, std::greater<>> seqs;
    for (const Node *node : in_order(start))
        if (node->seq < key && node->seq > start->seq)
            seqs.insert(node->seq);
    return seqs;
}

bool Plugin_Model::place_flushed(Thread &thread, const Node &current)
{
    Node *start = thread.root.get();
    auto &list = thread.flush_list;
    while (!list.empty()) {
        if (list.front()->seq > current.seq)
            return false;
        std::unique_ptr<Node> flushed = std::move(list.front());
        list.erase(list.begin());
        const auto keys = lower_seqs(start, flushed->terminated_seq);
        Node *placed = hang(start, flushed);
        for (auto key = keys.begin(); !placed && key != keys.end(); ++key) {
            flushed->terminated_seq = *key;
            placed = hang(start, flushed);
        }
        if (placed)
            start = placed;
    }
    return true;
}

void Plugin_Model::write_batch(Thread &thread, Node *previous)
{
    set_flags(thread.root.get());
    std::vector<Node *> nodes = in_order(thread.root.get());
    nodes.pop_back();
    for (Node *node : nodes) {
        write_text(*node);
        write_binary(*node);
        thread.root->partition_change = false;
    }
    std::unique_ptr<Node> current = std::move(previous->left);
    thread.root = std::move(current);
}

void Plugin_Model::write_all(Thread &thread)
{
    if (!thread.root)
        return;
    set_flags(thread.root.get());
    std::vector<Node *> nodes = in_order(thread.root.get());
    for (Node *node : nodes) {
        if (node == nodes.back())
            node->T = false;
        write_text(*node);
        write_binary(*node);
        thread.root->partition_change = false;
    }
}

void Plugin_Model::put_flushed(const Flushed_Instruction &f)
{
    auto node = std::make_unique<Node>();
    node->tid = f.tid;
    node->seq = f.seq;
    node->terminated_seq = f.terminated_seq;
    node->fetch.address = f.pc;
    node->next.address = f.npc;
    node->op = f.op;
    node->branch = f.branch;
    node->taken = f.taken;
    node->store = node->ea_valid = f.store;
    node->data.address = f.ea;
    node->done = f.done;
    Thread &thread = threads[f.tid];
    if (!thread.flush_slot)
        thread.flush_slot = std::move(node);
    else
        put_flushed_into_list(thread, std::move(node));
}

void Plugin_Model::put_pre_executed(const Pre_Executed_Instruction &seen)
{
    auto &chain = threads[seen.tid].pre_executed;
    const auto at = std::find_if(chain.begin(), chain.end(), [&](const auto &s) { return s.seq >= seen.seq; });
    if (at == chain.end() || at->seq != seen.seq)
        chain.insert(at, seen);
}

} // namespace model
