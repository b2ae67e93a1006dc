// Ranges of blocks of a file that is damaged at each of its blocks.
#include "trace_index_fixture.h"

namespace
{

TEST_F(trace_index, ranges_of_a_damaged_file_deliver_every_item_and_discontinuity_once)
{
    write_small_blocks();
    const std::vector<uint64_t> at = block_offsets();
    constexpr uint64_t PAYLOAD = 56;
    ASSERT_GE(at.size(), 8u);
    for (size_t i = 0; i < at.size(); ++i) {
        expect_same_in_any_ranges(spoilt({at[i]}), "header " + std::to_string(i));
        expect_same_in_any_ranges(spoilt({at[i] + PAYLOAD}), "payload " + std::to_string(i));
    }
    const size_t last = at.size() - 1;
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD, at[4] + PAYLOAD}), "two payloads");
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD, at[4] + PAYLOAD, at[5] + PAYLOAD, at[6] + PAYLOAD}), "four");
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD, at[4]}), "payload, then header");
    expect_same_in_any_ranges(spoilt({at[3], at[4] + PAYLOAD}), "header, then payload");
    expect_same_in_any_ranges(spoilt({at[last - 1] + PAYLOAD, at[last] + PAYLOAD}), "the last two");
    std::vector<uint64_t> all;
    for (const uint64_t offset : at)
        all.push_back(offset + PAYLOAD);
    expect_same_in_any_ranges(spoilt(all), "all payloads");
    expect_same_in_any_ranges(spoilt(at), "all headers");
    expect_same_in_any_ranges(spoilt({at[3] + PAYLOAD}).insert(at[4], "junk"), "payload, then junk");
    expect_same_in_any_ranges(whole_.substr(0, at[5]) + whole_.substr(at[6]), "a block missing");
    std::string damaged = spoilt({at[4] + PAYLOAD});
    expect_same_in_any_ranges(damaged.substr(0, at[5]) + damaged.substr(at[6]), "payload, then a block missing");
    expect_same_in_any_ranges(whole_ + whole_, "one file after another");
    expect_same_in_any_ranges(whole_ + "junk", "junk at the end");
    expect_same_in_any_ranges("?" + whole_.substr(1), "start");
    for (const uint64_t size : {at[0], at[0] + 10, at[1], at[5], at[5] + 10, at[last] + 100, whole_.size() - 1})
        expect_same_in_any_ranges(whole_.substr(0, size), "cut at " + std::to_string(size));
}

} // namespace
