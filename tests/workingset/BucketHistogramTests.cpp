#include "workingset/BucketHistogram.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <list>
#include <random>
#include <utility>

namespace
{

using Buckets = std::vector<std::uint64_t>;
using Chains = std::vector<std::list<std::pair<std::uint64_t, std::uint16_t>>>;

Chains Rebuilt(Chains& old, std::size_t entryCount)
{
    std::size_t size = 13007; // More than any test reaches.
    for (const std::size_t prime : {257U, 211U, 163U, 131U, 103U, 83U, 67U, 53U, 41U, 37U, 29U, 23U, 17U})
    {
        size = prime >= static_cast<std::size_t>(static_cast<float>(entryCount) / 0.75F) ? prime : size;
    }
    Chains chains(size);
    for (auto& chain : old)
    {
        for (const auto& entry : chain)
        {
            chains[static_cast<std::uint32_t>(entry.first) % size].push_front(entry);
        }
    }
    return chains;
}

/// The same answer the long way round: lists, built afresh for every question.
std::optional<std::uint64_t> ModelFirstReaching(const Buckets& buckets, std::uint32_t count)
{
    Chains chains(17);
    std::size_t entryCount = 0;
    for (const std::uint64_t bucket : buckets)
    {
        auto& chain = chains[static_cast<std::uint32_t>(bucket) % chains.size()];
        const auto found = std::find_if(
            chain.begin(), chain.end(), [&](const auto& entry) { return entry.first == bucket; });
        if (found != chain.end())
        {
            ++found->second;
            continue;
        }
        chain.emplace_front(bucket, std::uint16_t{1});
        if (++entryCount > static_cast<std::size_t>(2.25 * static_cast<double>(chains.size())))
        {
            chains = Rebuilt(chains, entryCount);
        }
    }
    for (const auto& chain : chains)
    {
        for (const auto& entry : chain)
        {
            if (entry.second >= count)
            {
                return entry.first;
            }
        }
    }
    return std::nullopt;
}

TEST(BucketHistogram, AgreesWithAModelBuiltAfreshOverManySequences)
{
    std::mt19937_64 random(20240607); // NOLINT(cert-msc51-cpp): the same sequences in every run.
    for (const std::uint64_t spread : {3ULL, 18ULL, 40ULL, 130ULL, 400ULL, 1ULL << 20, ~0ULL})
    {
        for (int sequence = 0; sequence < 6; ++sequence)
        {
            CBucketHistogram histogram;
            Buckets buckets;
            const std::size_t length = 30 + random() % 150;
            while (buckets.size() < length)
            {
                buckets.push_back(random() % spread * (sequence % 3 == 0 ? 17 : 1));
                histogram.Add(buckets.back());
                for (const std::uint32_t count : {0U, 1U, 2U, 3U, 7U})
                {
                    ASSERT_EQ(histogram.FirstReaching(count), ModelFirstReaching(buckets, count))
                        << "spread " << spread << ", size " << buckets.size() << ", count " << count;
                }
            }
        }
    }
}

TEST(BucketHistogram, ThirtyNinthBucketRebuildsTheTable)
{
    CBucketHistogram histogram;
    for (std::uint64_t i = 38; i >= 1; --i)
    {
        histogram.Add(i * 17); // All in chain 0 of 17.
    }

    EXPECT_EQ(histogram.FirstReaching(1), 17U); // First seen last.
    histogram.Add(17 * 39);
    EXPECT_EQ(histogram.FirstReaching(1), 17U * 25); // In chain 1 of 53, the lowest in use.
}

TEST(BucketHistogram, CountersWrapAtSixteenBits)
{
    CBucketHistogram histogram;
    for (int i = 0; i < 65535; ++i)
    {
        histogram.Add(1);
    }
    EXPECT_EQ(histogram.FirstReaching(65535), 1U);
    histogram.Add(1);
    EXPECT_EQ(histogram.FirstReaching(1), std::nullopt);
    EXPECT_EQ(histogram.FirstReaching(0), 1U);
    EXPECT_EQ(histogram.FirstReaching(65536), std::nullopt);

    histogram.Clear();

    EXPECT_EQ(histogram.FirstReaching(0), std::nullopt);
}

} // namespace
