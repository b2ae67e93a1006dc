// A person at a terminal: line editing with history and completion, and the progress line of a run.
#pragma once

#include "console.h"

#include <atomic>

namespace replay
{

// Reads and executes commands until `quit`, the end of input, or a stop request with `leaving` set. Without that, a
// request gives up the present run, or the line that is being typed. Earlier sessions' lines are kept in a file of the
// user's state folder.
void run_terminal(Console &console, Stop_Request &stop, const std::atomic<bool> &leaving);

// Makes runs show events, percent of the input and rate on standard error.
void show_progress(Console &console, Player &player);

} // namespace replay
