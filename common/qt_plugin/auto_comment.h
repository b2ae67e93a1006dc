// The comment of a file header: what kind of machine the trace comes from. Both writers carry it.
#pragma once

#include "plugin_qtbin.h"

// Longest comment with its terminator: two page lists of 62 bytes, two decimal numbers, the keys.
inline constexpr size_t AUTO_COMMENT_SIZE = 256;

// Writes "key:value" pairs, comma-separated and terminated, into `comment`. Returns the length without the
// terminator.
size_t auto_comment(const Node *p, char (&comment)[AUTO_COMMENT_SIZE]);
