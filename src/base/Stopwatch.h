#pragma once

#include <windows.h>

namespace Basalt
{

/// Elapsed time by the high-resolution performance counter, for the log's "took ...s" texts.
///
/// Threads: constant after construction; any.
/// @see https://learn.microsoft.com/windows/win32/api/profileapi/nf-profileapi-queryperformancecounter
class CStopwatch
{
public:
    /// Stands for a time that could not be measured.
    static constexpr double kUnknown = -1.0;

    CStopwatch() noexcept;

    /// Seconds since construction, or kUnknown when a reading or the frequency is missing.
    [[nodiscard]] double Seconds() const noexcept;

private:
    LONGLONG m_frequency = 0; ///< Counts per second; 0 when unknown.
    LONGLONG m_start = 0;     ///< 0 when unknown.
};

} // namespace Basalt
