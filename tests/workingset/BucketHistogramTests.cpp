#include "workingset/BucketHistogram.h"

#include <gtest/gtest.h>

TEST(BucketHistogram, GrowsByItsRuleAndStartsAnewWhenCleared)
{
    CBucketHistogram histogram;
    // No other numbers of chains come up in a table that grows entry by entry.
    for (const std::uint64_t chains : {17U, 53U, 163U, 521U, 1627U, 5167U, 16411U, 52021U})
    {
        // Two buckets occur twice. With so many chains this one, by its low 32 bits, is in the first.
        const std::uint64_t first = chains | 1ULL << 32;
        histogram.Add(first);
        histogram.Add(first);
        histogram.Add(1);
        for (std::uint64_t bucket = 1; bucket < chains * 9 / 4; ++bucket)
        {
            histogram.Add(bucket);
        }
        EXPECT_EQ(histogram.FirstReaching(2), first) << chains;
        histogram.Clear();
        EXPECT_EQ(histogram.FirstReaching(0), std::nullopt);
    }
}

TEST(BucketHistogram, ChainsBeginWithTheNewestAreTurnedRoundByGrowthAndCountIn16Bits)
{
    CBucketHistogram histogram;
    for (std::uint64_t i = 38; i >= 1; --i)
    {
        histogram.Add(i * 17); // All in chain 0 of 17.
    }
    EXPECT_EQ(histogram.FirstReaching(1), 17U);
    histogram.Add(17 * 39);
    EXPECT_EQ(histogram.FirstReaching(1), 17U * 25); // In chain 1 of 53, the lowest in use.
    for (int i = 1; i < 65535; ++i)
    {
        histogram.Add(17);
    }
    EXPECT_EQ(histogram.FirstReaching(65535), 17U);
    histogram.Add(17);
    EXPECT_EQ(histogram.FirstReaching(2), std::nullopt);
}
