#pragma once

#include <windows.h>

/// Measures how much of the machine's processors a process uses. Takes the whole interval.
///
/// Threads: any; blocks its caller.
/// @param process      needs PROCESS_QUERY_LIMITED_INFORMATION.
/// @param intervalMs   how long to measure, in milliseconds.
/// @param stopEvent    borrowed; ends the measuring early when it is signalled. Null: cannot be ended.
/// @param usagePercent user and kernel time in percent of all processors together; 0 on failure.
/// @return false with the thread's last error set: ERROR_OPERATION_ABORTED when stopped, ERROR_INVALID_DATA
///         when the system time ran backwards or no processor is reported, or that of the failed call.
/// @see https://learn.microsoft.com/windows/win32/api/processthreadsapi/nf-processthreadsapi-getprocesstimes
[[nodiscard]] bool GetProcessCpuUsage(
    HANDLE process, DWORD intervalMs, HANDLE stopEvent, float& usagePercent) noexcept;
