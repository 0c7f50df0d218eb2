#pragma once

#include <cstdint>

namespace Basalt
{

/// FNV-1a: short, and spreads single-bit changes well enough for a name or for a check against damage. Number
/// is std::uint32_t or std::uint64_t.
/// @see https://datatracker.ietf.org/doc/html/draft-eastlake-fnv
template <typename Number>
class CFnv
{
public:
    constexpr void Add(Number value) noexcept { m_hash = (m_hash ^ value) * kPrime; }
    [[nodiscard]] constexpr Number Get() const noexcept { return m_hash; }

private:
    static constexpr Number kPrime =
        sizeof(Number) == 4 ? Number{16777619} : static_cast<Number>(1099511628211);
    Number m_hash = sizeof(Number) == 4 ? Number{2166136261} : static_cast<Number>(14695981039346656037ULL);
};

} // namespace Basalt
