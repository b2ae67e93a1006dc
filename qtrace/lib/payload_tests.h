// Checksums of payloads, tested by several threads before somebody asks for them.
#pragma once

#include "trace_index.h"

#include <cstdint>
#include <vector>

namespace trace
{

class Payload_Tests
{
public:
    // With one thread nothing is tested beforehand. The source must live longer.
    Payload_Tests(const Trace_Source &source, unsigned threads) : source_(source), threads_(threads) {}
    // Whether the payload is whole; to be asked in the order of the offsets. What was not tested is read from `blocks`.
    bool result(const Block_Place &place, Block_File &blocks);

private:
    enum class Result : uint8_t { unknown, whole, broken };
    void test_from(uint64_t offset);

    const Trace_Source &source_;
    unsigned threads_;
    Block_Window window_;         // what was tested last
    std::vector<Result> results_; // of its blocks
};

} // namespace trace
