// A node into a trace record, with the file headers that belong before it. Asks the host nothing.
#pragma once

#include "plugin_qtbin.h"

// Writes the node's record to its thread's trace, preceded by a file header when the thread needs one, and by a
// partition header when the node carries a partition change. Returns 1, or 0 when a write failed (reported; the
// node has no record then). The session is open, the node complete, and its I implies N.
boolean dump_node(Node *p);
