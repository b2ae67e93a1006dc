// Every subcommand that takes --jobs, in the ways that they work, for tests that compare numbers of threads.
#pragma once

#include "planted_trace.h"

#include <filesystem>
#include <string>
#include <vector>

namespace jobs_commands
{

using namespace planted;
using Words = std::vector<std::string>;

// FILE stands for the trace, OTHER for the one it is compared with, OUT for what is written.
const std::vector<Words> &commands();
const std::vector<Words> &comparisons();

// What a command is run on.
struct Files {
    std::string file, other, out;
};
// Removes what was written before.
Outcome run(const Words &command, const char *jobs, const Files &files);
// Of a file, or of the folder of an export without what is different each time; empty when there is none.
std::string bytes_of(const std::filesystem::path &file);

// Several blocks: jumps over many pages, partition changes, pauses, violations at every distance. The more registers a
// record has, the fewer are in a block: 6000 with 1, 1000 with 8.
Trace mixed_trace(size_t records, uint8_t registers);

} // namespace jobs_commands
