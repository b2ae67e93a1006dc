// What no tracer can do without: the host's queries.
#pragma once

extern "C" {

// Asks the host about a committed instruction what the plugin asks without a text trace, in the same order, and
// stores the answers into one static record. Nothing else.
void floor_commit(void *iop);

// Forgets what was counted: the next instruction is the first of a session.
void floor_start(void);
}
