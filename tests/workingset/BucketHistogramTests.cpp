#include "workingset/BucketHistogram.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <list>
#include <random>
#include <ranges>
#include <utility>

namespace
{

using Buckets = std::vector<std::uint64_t>;
using Entry = std::pair<std::uint64_t, std::uint16_t>;
using Chains = std::vector<std::list<Entry>>;
constexpr std::size_t kChainCounts[] = {17, 23, 29, 37, 41, 53, 67, 83, 103, 131, 163, 211, 257};

/// The same answer the long way round: lists, built afresh for every question.
std::optional<std::uint64_t> ModelFirstReaching(const Buckets& buckets, std::uint32_t count)
{
    Chains chains(17);
    const auto chainOf = [&](auto bucket) {
        return &chains[static_cast<std::uint32_t>(bucket) % chains.size()];
    };
    std::size_t entryCount = 0;
    for (const std::uint64_t bucket : buckets)
    {
        auto& chain = *chainOf(bucket);
        if (const auto found = std::ranges::find(chain, bucket, &Entry::first); found != chain.end())
        {
            ++found->second;
            continue;
        }
        chain.emplace_front(bucket, std::uint16_t{1});
        if (++entryCount * 4 > chains.size() * 9)
        {
            Chains old(*std::ranges::lower_bound(kChainCounts, entryCount * 4 / 3));
            old.swap(chains);
            for (const Entry& entry : old | std::views::join)
            {
                chainOf(entry.first)->push_front(entry);
            }
        }
    }
    auto entries = chains | std::views::join;
    const auto found = std::ranges::find_if(entries, [&](auto& entry) { return entry.second >= count; });
    return found == entries.end() ? std::nullopt : std::optional(found->first);
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
            for (std::size_t left = 30 + random() % 150; left > 0; --left)
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

TEST(BucketHistogram, ThirtyNinthBucketRebuildsTheTableAndCountersWrapAtSixteenBits)
{
    CBucketHistogram histogram;
    for (std::uint64_t i = 38; i >= 1; --i)
    {
        histogram.Add(i * 17); // All in chain 0 of 17.
    }
    EXPECT_EQ(histogram.FirstReaching(1), 17U); // First seen last.
    histogram.Add(17 * 39);
    EXPECT_EQ(histogram.FirstReaching(1), 17U * 25); // In chain 1 of 53, the lowest in use.
    histogram.Clear();
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
