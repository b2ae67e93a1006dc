// A node into a line of the text trace. Asks the host nothing.
#pragma once

#include "plugin_qtbin.h"

// Writes the node's line, preceded by the header lines when the thread's binary header has not been written yet.
// To be called before dump_node for the same node. Returns 1, or 0 when the thread has no text trace.
boolean dump_node_text(Node *p);

// Name of a translation mode; never null, the plugin's.
const char *get_xlate_type_string(RDX_XLATE_MODE mode);
