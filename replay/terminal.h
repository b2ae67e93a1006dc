// A person at a terminal: line editing with history and completion, and the progress line of a run.
#pragma once

#include "console.h"

namespace replay
{

// Reads and obeys commands until `quit` or the end of input. A Player::stop() ends the present run only.
void obey_terminal(Console &console, Player &player);

// Makes runs show events, percent of the input and rate on standard error.
void show_progress(Console &console, Player &player);

} // namespace replay
