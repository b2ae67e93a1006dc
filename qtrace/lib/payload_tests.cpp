#include "payload_tests.h"

#include "thread_team.h"

#include <algorithm>
#include <memory>

namespace trace
{

// Blocks that a thread takes at once.
static constexpr size_t BLOCKS = 16;

// Tests blocks that follow each other by their headers.
void Payload_Tests::test_from(uint64_t offset)
{
    window_ = window_at(source_, offset);
    const std::vector<Block_Place> &places = window_.blocks;
    results_.assign(places.size(), Result::unknown);
    const auto test = [&](const std::unique_ptr<Block_File> &blocks, size_t part) {
        for (size_t i = part * BLOCKS; i < std::min((part + 1) * BLOCKS, places.size()); ++i) {
            const bool whole = blocks->read_payload(places[i]);
            if (blocks->error != 0)
                return; // whoever asks reads it again, and learns the error
            results_[i] = whole ? Result::whole : Result::broken;
        }
    };
    work_together(
        threads_, (places.size() + BLOCKS - 1) / BLOCKS, [&] { return std::make_unique<Block_File>(source_.file); },
        test);
}

bool Payload_Tests::result(const Block_Place &place, Block_File &blocks)
{
    if (threads_ > 1 && place.offset >= window_.end)
        test_from(place.offset);
    const auto found = std::ranges::lower_bound(window_.blocks, place.offset, {}, &Block_Place::offset);
    const auto number = static_cast<size_t>(found - window_.blocks.begin());
    const bool tested = found != window_.blocks.end() && found->offset == place.offset &&
                        found->header == place.header && results_[number] != Result::unknown;
    return tested ? results_[number] == Result::whole : blocks.read_payload(place);
}

} // namespace trace
