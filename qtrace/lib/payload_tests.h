// Checksums of payloads, tested by several threads before somebody asks for them.
#pragma once

#include "block_file.h"

#include <cstdint>
#include <vector>

namespace trace
{

class Payload_Tests
{
public:
    // Tests the blocks that follow each other by their headers; with one thread none.
    Payload_Tests(const Trace_Source &source, unsigned threads);
    // Whether the payload is whole. What was not tested is read from `blocks`.
    bool result(const Block_Place &place, Block_File &blocks) const;

private:
    struct Test {
        Block_Place place;
        enum : uint8_t { unknown, whole, broken } result;
    };
    std::vector<Test> tests_; // in the order of their offsets
};

} // namespace trace
