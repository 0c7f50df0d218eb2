#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

/// Counts how often each bucket occurred, in a chained hash table of its own.
///
/// Its own because the order in which it is searched decides between several buckets that occurred often
/// enough, and a learnt band must not depend on which standard library the host was built with: chains in
/// ascending order, each from the newest entry to the oldest. Adding is cheap, and so is the search as long
/// as no bucket can have reached the count.
///
/// Threads: none of its own; the owner guards it.
class CBucketHistogram
{
public:
    /// @throws std::bad_alloc
    CBucketHistogram();

    /// Counts one occurrence. The counters have 16 bits and wrap.
    /// @throws std::bad_alloc; then only Clear makes the histogram usable again.
    void Add(std::uint64_t bucket);

    /// The first bucket in the order of the table that occurred at least @p count times.
    [[nodiscard]] std::optional<std::uint64_t> FirstReaching(std::uint32_t count) const noexcept;

    /// Back to the state after construction.
    void Clear() noexcept;

private:
    struct Entry
    {
        std::uint64_t bucket;
        std::uint32_t next; ///< Position in m_entries, or kNone at the end of the chain.
        std::uint16_t count;
    };

    [[nodiscard]] std::uint32_t find(std::uint64_t bucket) const noexcept;
    void pushFront(std::vector<std::uint32_t>& heads, std::uint32_t position) noexcept;
    void rebuild();

    std::vector<std::uint32_t> m_heads; ///< First entry of each chain.
    std::vector<Entry> m_entries;
    std::uint16_t m_highestCount = 0; ///< No counter was ever higher: spares the search while it must fail.
};
