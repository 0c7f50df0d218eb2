#pragma once

#include <windows.h>
#include <evntrace.h>

#include <string>

/// The event-tracing session of one application. All processes that use the application's name share it: the
/// first one starts it, the last one stops it, and one that a crash left behind is replaced.
///
/// It records into FOLDER\APPLICATION.etl, at most kFileMegabytes, of which the oldest are overwritten; the
/// file before it is kept as APPLICATION.old.etl.
///
/// Threads: one at a time. Errors: 0 or a Win32 error code. Operations may throw std::bad_alloc.
/// @see https://learn.microsoft.com/windows/win32/etw/configuring-and-starting-an-event-tracing-session
class CTraceSession
{
public:
    static constexpr ULONG kFileMegabytes = 16;

    /// @param folder without a backslash at the end; made when it is missing, refused when users could
    /// change it (TxSdk::TakeLogFolder).
    CTraceSession(const std::wstring& folder, const std::wstring& application);
    /// Without Stop the session stays on until the next Start takes it over.
    ~CTraceSession();
    CTraceSession(const CTraceSession&) = delete;
    CTraceSession& operator=(const CTraceSession&) = delete;

    DWORD Start();
    DWORD Stop();
    DWORD Restart();
    DWORD Flush();

private:
    class CTurn;

    DWORD begin();
    DWORD control(ULONG code);
    [[nodiscard]] HANDLE openUsers(DWORD share) const;
    [[nodiscard]] DWORD findOthers(bool& others) const;

    std::wstring m_folder;
    std::wstring m_name;                   ///< of the session
    std::wstring m_path;                   ///< of its file, without the extension
    HANDLE m_users = INVALID_HANDLE_VALUE; ///< Every process that uses the session keeps this file open.
};
