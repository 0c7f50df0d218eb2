#pragma once

#include <windows.h>

/// @file
/// The log controller library, LogCntrl.dll: it owns the event-tracing session that records what the hosts
/// log. A host loads a trusted copy at its very start, calls Start, and at its end Stop. All four entry
/// points below must be exported under their names; "DllAddRef" and "DllRelease", without arguments, may be:
/// they are called after the load and before the unload.
///
/// A library that records in the folder of the logs takes it with TxLogSecurity.h.
///
/// Names are borrowed for the call; the host's is "WSS". Every entry point returns 0 or a Win32 error code;
/// the host goes on whatever it is. Threads: any. Exceptions must not leave an entry point.

namespace TxSdk
{

/// The provider that the session enables; sdk/TxSvHostEvents.mof describes its events. The session's level,
/// when not 0, replaces the configured threshold: 1 critical messages, 2 errors too, 3 or 4 warnings too, 5
/// or more all, as with Windows' own providers. Its flags, when not 0, hold a bit 1 << (level - 1) for each
/// of the log's own levels wanted. Information always passes.
inline constexpr GUID kLogEventProvider = {
    0x3B5C1D0E, 0x7A42, 0x4F86, {0x9D, 0x21, 0x6C, 0x88, 0x15, 0xE0, 0x4B, 0x7F}};

/// "Start": begins the session of an application, or joins the one that is on.
using LogControllerStart = DWORD WINAPI(const wchar_t* applicationName);
/// "Stop": also called when Start has failed or, for lack of another entry point, was never called.
/// @param zero always 0.
using LogControllerStop = DWORD WINAPI(DWORD_PTR zero, const wchar_t* applicationName);
/// "RestartSession": goes on in a new file.
using LogControllerRestartSession = DWORD WINAPI(const wchar_t* applicationName);
/// "FlushBuffers": writes what is still in memory.
using LogControllerFlushBuffers = DWORD WINAPI(const wchar_t* applicationName);

} // namespace TxSdk
