#include "payload_tests.h"

#include "thread_team.h"
#include "trace_index.h"

#include <algorithm>
#include <memory>

namespace trace
{

// Blocks that a thread takes at once.
static constexpr size_t BLOCKS = 16;

Payload_Tests::Payload_Tests(const Trace_Source &source, unsigned threads)
{
    if (threads < 2)
        return;
    Block_File headers(source.file);
    walk_blocks(
        headers, source.begin, [&](const Block_Place &place) { return headers.holds(place); },
        [&](const Block_Place &place) {
            tests_.push_back({place, Test::unknown});
        },
        [](const auto &) {});
    const auto test = [&](const std::unique_ptr<Block_File> &blocks, size_t part) {
        for (size_t i = part * BLOCKS; i < std::min((part + 1) * BLOCKS, tests_.size()); ++i) {
            const bool whole = blocks->read_payload(tests_[i].place);
            if (blocks->error != 0)
                return; // whoever asks reads it again, and learns the error
            tests_[i].result = whole ? Test::whole : Test::broken;
        }
    };
    work_together(
        threads, (tests_.size() + BLOCKS - 1) / BLOCKS, [&] { return std::make_unique<Block_File>(source.file); },
        test);
}

bool Payload_Tests::result(const Block_Place &place, Block_File &blocks) const
{
    const auto test =
        std::ranges::lower_bound(tests_, place.offset, {}, [](const Test &t) { return t.place.offset; });
    const bool tested = test != tests_.end() && test->place.offset == place.offset &&
                        test->place.header == place.header && test->result != Test::unknown;
    return tested ? test->result == Test::whole : blocks.read_payload(place);
}

} // namespace trace
