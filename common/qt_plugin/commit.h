// The commit event: from a captured node to the thread's tree, and from there to the writers.
#pragma once

#include "plugin_qtbin.h"

// Per thread: its newest instruction, if nothing but capture and the tree's flags have written to that node, so that
// its members can be cleared one by one; otherwise null. Borrowed: the thread's tree owns the node. A table of the
// session.
inline Node **plain_commit;
