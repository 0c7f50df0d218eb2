#include "workingset/BucketHistogram.h"

#include <gtest/gtest.h>

TEST(BucketHistogram, GrowsByItsRuleAndStartsAnewWhenCleared)
{
    CBucketHistogram histogram;
    // No other numbers of chains come up in a table that grows entry by entry.
    for (const std::uint64_t chains : {17U, 53U, 163U, 521U, 1627U, 5167U})
    {
        for (std::uint64_t bucket = 1; bucket < chains * 9 / 4; ++bucket)
        {
            histogram.Add(bucket);
        }
        const std::uint64_t newest = chains | 1ULL
                                                  << 32; // By its low 32 bits in the first of so many chains.
        histogram.Add(newest);
        EXPECT_EQ(histogram.FirstReaching(1), newest) << chains;
        EXPECT_EQ(histogram.FirstReaching(2), std::nullopt);
        histogram.Clear();
        EXPECT_EQ(histogram.FirstReaching(0), std::nullopt);
    }
}

TEST(BucketHistogram, GrowthTurnsChainsRoundAndCountsHave16Bits)
{
    CBucketHistogram histogram;
    for (std::uint64_t i = 38; i >= 1; --i)
    {
        histogram.Add(i * 17); // All in chain 0 of 17.
    }
    histogram.Add(std::uint64_t{17} * 39);
    EXPECT_EQ(histogram.FirstReaching(1), 17U * 25); // In chain 1 of 53, the lowest in use.
    for (int i = 1; i < 65536; ++i)
    {
        histogram.Add(17);
    }
    EXPECT_EQ(histogram.FirstReaching(2), std::nullopt);
}
