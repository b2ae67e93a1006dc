// Records and headers by chance, from a seed: plausible ones that a plugin would write, and wild ones that use
// every member. Padding, pointers and the library's bookkeeping are zero, so that records compare as bytes.
#pragma once

#include "qtrace_t.h"

#include <cstdint>
#include <random>
#include <string>

class Random_Trace
{
public:
    explicit Random_Trace(uint64_t seed) : random_(seed) {}

    // A program that loops over a few pages, with walks, registers and branches.
    QTRACE_RECORD plausible_record();
    // Any bytes in any member, whatever the flags; few or many of them.
    QTRACE_RECORD wild_record();
    QTRACE_FILE_HDR plausible_header();
    QTRACE_FILE_HDR wild_header();
    // A comment of that many bytes, any values.
    std::string comment(size_t size);
    uint64_t below(uint64_t bound) { return random_() % bound; }

private:
    std::mt19937_64 random_;
    uint64_t address_ = 0x10001000;
};
