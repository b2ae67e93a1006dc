// How close estimates of counts are, in whatever parts keys are counted.
#include "counted_numbers.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace qtrace_tool;

// 64 estimates of 50,000 keys of which some 800 are kept: their error is 3.5 % on average when keys are chosen at random.
TEST(bounded_counts, estimates_are_close_and_not_biased)
{
    double sum = 0;
    for (uint64_t round = 0; round < 64; round++) {
        const Counts counts = counts_of(round << 32, (round << 32) + 50000, 1000);
        EXPECT_LE(counts.sample().size(), 1000u);
        const double estimate = static_cast<double>(counts.sample().size() << counts.shift()) / 50000;
        EXPECT_NEAR(estimate, 1, 0.15) << round;
        sum += estimate;
    }
    EXPECT_NEAR(sum / 64, 1, 0.02);
}

// Pages are multiples of a large power of two.
TEST(bounded_counts, estimates_of_keys_far_apart_are_close)
{
    for (const unsigned bits : {12, 16, 21, 30, 40}) {
        Counts counts(1000);
        for (uint64_t i = 0; i < 50000; i++)
            counts.add(i << bits, 1);
        EXPECT_NEAR(static_cast<double>(counts.sample().size() << counts.shift()), 50000, 7500) << bits;
    }
}

TEST(bounded_counts, merged_in_every_order_are_the_same)
{
    const uint64_t ends[] = {0, 90, 1500, 1600, 9000};
    const Counts whole = counts_of(0, 9000, 100);
    std::vector<size_t> order = {1, 2, 3, 4};
    do {
        Counts merged(100), pairs[] = {Counts(100), Counts(100)};
        for (size_t i = 0; i < 4; i++) {
            const Counts part = counts_of(ends[order[i] - 1], ends[order[i]], 100);
            merged.add(part);
            pairs[i / 2].add(part);
        }
        pairs[0].add(pairs[1]);
        for (const Counts &counts : {merged, pairs[0]}) {
            EXPECT_EQ(counts.shift(), whole.shift());
            EXPECT_EQ(values_of(counts.sample()), values_of(whole.sample()));
        }
    } while (std::ranges::next_permutation(order).found);
}
