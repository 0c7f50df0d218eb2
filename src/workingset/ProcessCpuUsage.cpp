#include "workingset/ProcessCpuUsage.h"

namespace
{

/// Both in units of 100 nanoseconds.
struct Reading
{
    LONGLONG systemTime = 0;
    LONGLONG processTime = 0; ///< Kernel and user time.
};

LONGLONG ToNumber(const FILETIME& time) noexcept
{
    return static_cast<LONGLONG>(static_cast<ULONGLONG>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

bool Read(HANDLE process, Reading& reading) noexcept
{
    FILETIME now{};
    FILETIME created{};
    FILETIME exited{};
    FILETIME kernel{};
    FILETIME user{};
    ::GetSystemTimeAsFileTime(&now);
    if (!::GetProcessTimes(process, &created, &exited, &kernel, &user))
    {
        return false;
    }
    reading = {ToNumber(now), ToNumber(kernel) + ToNumber(user)};
    return true;
}

/// False when the stop event ended the interval, or when it cannot be waited for.
bool WaitInterval(HANDLE stopEvent, DWORD intervalMs) noexcept
{
    if (stopEvent == nullptr)
    {
        ::Sleep(intervalMs);
        return true;
    }
    const DWORD result = ::WaitForSingleObject(stopEvent, intervalMs);
    if (result != WAIT_TIMEOUT && result != WAIT_FAILED)
    {
        ::SetLastError(ERROR_OPERATION_ABORTED);
    }
    return result == WAIT_TIMEOUT;
}

} // namespace

bool GetProcessCpuUsage(HANDLE process, DWORD intervalMs, HANDLE stopEvent, float& usagePercent) noexcept
{
    usagePercent = 0;
    Reading before;
    Reading after;
    if (!Read(process, before) || !WaitInterval(stopEvent, intervalMs) || !Read(process, after))
    {
        return false;
    }
    SYSTEM_INFO system{};
    ::GetSystemInfo(&system);
    const LONGLONG elapsed = after.systemTime - before.systemTime;
    if (elapsed < 0 || system.dwNumberOfProcessors == 0)
    {
        ::SetLastError(ERROR_INVALID_DATA);
        return false;
    }
    // No time at all passes as well: the result is then "not a number", which is above no limit, or infinite.
    const auto used = static_cast<double>(after.processTime - before.processTime);
    const auto usage = static_cast<float>(used * 100.0 / static_cast<double>(elapsed));
    usagePercent = usage / static_cast<float>(system.dwNumberOfProcessors);
    return true;
}
