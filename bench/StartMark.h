#pragma once

#include <windows.h>

inline constexpr wchar_t kRunningEvent[] = L"Global\\TxBenchRunning";

/// Tells start_latency, and whoever reads the trace of Wine's server, that the service has reported that it
/// runs.
inline void MarkRunning()
{
    const HANDLE event = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, kRunningEvent);
    ::SetEvent(event);
    ::CloseHandle(event);
}
