#include "workingset/BucketHistogram.h"

#include <algorithm>
#include <iterator>

namespace
{

constexpr std::uint32_t kNone = UINT32_MAX;

/// The numbers of chains that a table takes; the first is also the least.
constexpr std::uint32_t kChainCounts[] = {
    17,      23,      29,      37,      41,      53,      67,      83,      103,      131,
    163,     211,     257,     331,     409,     521,     647,     821,     1031,     1291,
    1627,    2053,    2591,    3251,    4099,    5167,    6521,    8209,    10331,    13007,
    16411,   20663,   26017,   32771,   41299,   52021,   65537,   82571,   104033,   131101,
    165161,  208067,  262147,  330287,  416147,  524309,  660563,  832291,  1048583,  1321139,
    1664543, 2097169, 2642257, 3329023, 4194319, 5284493, 6658049, 8388617, 10568993, 13316089};

/// More entries than 2.25 for each chain and the table is rebuilt.
constexpr std::size_t MostEntries(std::size_t chainCount) noexcept
{
    return chainCount * 9 / 4;
}

/// The number of chains for a load of 0.75 entries each.
std::size_t ChainCountFor(std::size_t entryCount) noexcept
{
    // Single precision: above 2^24 entries the rounding takes part in the result.
    const auto wanted = static_cast<std::size_t>(static_cast<float>(entryCount) / 0.75F);
    const auto* found = std::lower_bound(std::begin(kChainCounts), std::end(kChainCounts), wanted);
    return found == std::end(kChainCounts) ? wanted : *found;
}

std::size_t ChainOf(std::uint64_t bucket, std::size_t chainCount) noexcept
{
    return static_cast<std::uint32_t>(bucket) % chainCount;
}

} // namespace

CBucketHistogram::CBucketHistogram() : m_heads(kChainCounts[0], kNone) {}

void CBucketHistogram::Add(std::uint64_t bucket)
{
    std::uint32_t position = find(bucket);
    if (position == kNone)
    {
        position = static_cast<std::uint32_t>(m_entries.size());
        m_entries.push_back({bucket, kNone, 0});
        pushFront(m_heads, position);
        if (m_entries.size() > MostEntries(m_heads.size()))
        {
            rebuild();
        }
    }
    m_highestCount = std::max(m_highestCount, ++m_entries[position].count);
}

std::optional<std::uint64_t> CBucketHistogram::FirstReaching(std::uint32_t count) const noexcept
{
    if (m_highestCount < count)
    {
        return std::nullopt;
    }
    for (std::uint32_t position : m_heads)
    {
        for (; position != kNone; position = m_entries[position].next)
        {
            if (m_entries[position].count >= count)
            {
                return m_entries[position].bucket;
            }
        }
    }
    return std::nullopt;
}

void CBucketHistogram::Clear() noexcept
{
    m_entries.clear();
    m_heads.assign(kChainCounts[0], kNone); // Never more than it held before: allocates nothing.
    m_highestCount = 0;
}

std::uint32_t CBucketHistogram::find(std::uint64_t bucket) const noexcept
{
    std::uint32_t position = m_heads[ChainOf(bucket, m_heads.size())];
    while (position != kNone && m_entries[position].bucket != bucket)
    {
        position = m_entries[position].next;
    }
    return position;
}

void CBucketHistogram::pushFront(std::vector<std::uint32_t>& heads, std::uint32_t position) noexcept
{
    Entry& entry = m_entries[position];
    std::uint32_t& head = heads[ChainOf(entry.bucket, heads.size())];
    entry.next = head;
    head = position;
}

void CBucketHistogram::rebuild()
{
    // Entries that share a chain come out in the opposite order; that is part of the order, too.
    std::vector<std::uint32_t> heads(ChainCountFor(m_entries.size()), kNone);
    for (std::uint32_t position : m_heads)
    {
        while (position != kNone)
        {
            const std::uint32_t next = m_entries[position].next;
            pushFront(heads, position);
            position = next;
        }
    }
    m_heads.swap(heads);
}
