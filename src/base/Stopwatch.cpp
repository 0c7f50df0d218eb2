#include "base/Stopwatch.h"

namespace Basalt
{

namespace
{

LONGLONG ReadCounter() noexcept
{
    LARGE_INTEGER counter{};
    return ::QueryPerformanceCounter(&counter) ? counter.QuadPart : 0;
}

} // namespace

CStopwatch::CStopwatch() noexcept
{
    LARGE_INTEGER frequency{};
    if (::QueryPerformanceFrequency(&frequency) == TRUE)
    {
        m_frequency = frequency.QuadPart;
    }
    m_start = ReadCounter();
}

double CStopwatch::Seconds() const noexcept
{
    const LONGLONG now = ReadCounter();
    if (m_start == 0 || now == 0 || m_frequency == 0)
    {
        return kUnknown;
    }
    return static_cast<double>(now - m_start) / static_cast<double>(m_frequency);
}

} // namespace Basalt
