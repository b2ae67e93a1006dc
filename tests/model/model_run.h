// Takes a run's steps on the plugin and on the model side by side.
#pragma once

#include "model_steps.h"

#include <cstdint>
#include <optional>
#include <string>

namespace model
{

struct Figures {
    uint64_t commits = 0;  // delivered while a session was open
    uint64_t commands = 0; // console commands
    uint64_t records = 0;  // that the writer took
    uint64_t headers = 0;
    uint64_t file_bytes = 0; // of finished text and page-table-entry files, compared
};

struct Mismatch {
    size_t step = 0; // index of the step that showed it; the number of steps: plugin_quit at the end
    std::string what;
};

// The first mismatch, if there is any. `figures` are added to.
std::optional<Mismatch> play(const Run &run, Figures &figures);

// A run that still has a mismatch and has been made as small as could be in some seconds.
Run shrunk(Run run);

} // namespace model
