#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

/// Random numbers that are the same for the same seed. Threads: one.
class CRandom
{
public:
    explicit CRandom(std::uint64_t seed) : m_engine(seed) {}

    std::uint64_t Next() { return m_engine(); }
    /// From 0 up to one less than the count, which is not 0.
    std::size_t Below(std::size_t count) { return static_cast<std::size_t>(m_engine() % count); }
    /// From 0 to 1.
    double Share() { return static_cast<double>(m_engine() >> 11) * 0x1.0p-53; }
    /// Of the normal distribution around 0 with the deviation 1.
    double Normal() { return m_normal(m_engine); }

private:
    std::mt19937_64 m_engine;
    std::normal_distribution<double> m_normal;
};
