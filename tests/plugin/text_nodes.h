// Nodes for tests of the text trace, and the text of one alone.
#pragma once

#include "text_streams.h"
#include "traced_machine.h"

#include <cstring>
#include <string>

// The text of one node alone, its thread's header written already.
inline std::string text_of(Node node)
{
    Text_Streams streams;
    return streams.text_of(node);
}

inline Node node_with_access()
{
    Node node = plain_node();
    node.info.load = 1;
    node.info.data_addr_valid = 1;
    node.info.data_addr = 0xABCDEF;
    return node;
}

inline void set_name(Node &node, const char *name)
{
    strncpy(node.info.name, name, sizeof node.info.name - 1);
}
