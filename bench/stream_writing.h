// Writing a commit stream as a simulator does, with the commits of a recorded one.
#pragma once

#include "commit_stream_writer.h"
#include "host.h"

#include <cstdint>
#include <string>
#include <vector>

namespace bench
{

// A commit in the form that the writing calls take.
struct Written_Commit {
    struct Register {
        commit_stream_class of;
        int32_t number;
        uint64_t words[2];
    };
    int tid;
    uint64_t seq, pc, npc;
    uint32_t op;
    std::string text;
    unsigned flags; // COMMIT_STREAM_BRANCH and so on
    uint16_t string_length;
    bool has_ea;
    uint64_t ea;
    commit_stream_address fetch, data;
    std::vector<Register> in, out;
};

class Stream_Writing
{
public:
    // Takes the first `most` commits of a recorded stream.
    Stream_Writing(const std::string &recorded, size_t most);

    // Writes them to a file. Returns how many lines that makes; throws when they cannot be written.
    uint64_t write(const std::string &file) const;

private:
    replay::Machine_Shape machine_;
    std::vector<Written_Commit> commits_;
};

// Reads a stream to its end. Returns the number of lines; throws when one is refused.
uint64_t read_stream(const std::string &file);

} // namespace bench
