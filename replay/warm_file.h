// The answer to `warm`: the host's machine and state as a file.
#pragma once

#include <string>

namespace replay
{

// What this host has for a warm load: its machine and the state of every hardware thread, as the beginning of a commit
// stream. Returns an empty text or what went wrong; a file that could not be completed stays as far as it was written.
std::string write_warm_file(const std::string &file);

} // namespace replay
