/// @file
/// A log controller library: records what the hosts log in %ProgramData%\Tarvex\Log\APPLICATION.etl.
/// Sign it with one of the product's names and put it beside the host; docs/trust-and-start.md has the
/// other places where the host looks.
#include <windows.h>

#include <cwchar>
#include <exception>
#include <map>
#include <string>

#include "TraceSession.h"
#include "TxLogController.h"
#include "TxLogSecurity.h"

namespace
{

SRWLOCK g_lock = SRWLOCK_INIT;
std::map<std::wstring, CTraceSession> g_sessions; ///< By the application's name.

class CLockGuard
{
public:
    CLockGuard() noexcept { ::AcquireSRWLockExclusive(&g_lock); }
    ~CLockGuard() { ::ReleaseSRWLockExclusive(&g_lock); }
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;
};

/// The name becomes part of file and object names.
bool IsUsable(const wchar_t* application) noexcept
{
    return application != nullptr && *application != L'\0' &&
           std::wcspbrk(application, L"\\/:*?\"<>|") == nullptr;
}

DWORD StartSession(const wchar_t* application) noexcept
try
{
    if (!IsUsable(application))
    {
        return ERROR_INVALID_PARAMETER;
    }
    const CLockGuard guard;
    return g_sessions.try_emplace(application, TxSdk::DefaultLogFolder(), application).first->second.Start();
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

/// @param absent the result when the application has no session.
DWORD WithSession(const wchar_t* application, DWORD (CTraceSession::*operation)(), DWORD absent) noexcept
try
{
    if (!IsUsable(application))
    {
        return ERROR_INVALID_PARAMETER;
    }
    const CLockGuard guard;
    const auto found = g_sessions.find(application);
    return found == g_sessions.end() ? absent : (found->second.*operation)();
}
catch (const std::exception&)
{
    return ERROR_OUTOFMEMORY;
}

} // namespace

extern "C"
{
    __declspec(dllexport) DWORD WINAPI Start(const wchar_t* applicationName)
    {
        return StartSession(applicationName);
    }

    __declspec(dllexport) DWORD WINAPI Stop(DWORD_PTR /*zero*/, const wchar_t* applicationName)
    {
        return WithSession(applicationName, &CTraceSession::Stop, ERROR_SUCCESS);
    }

    __declspec(dllexport) DWORD WINAPI RestartSession(const wchar_t* applicationName)
    {
        return WithSession(applicationName, &CTraceSession::Restart, ERROR_INVALID_STATE);
    }

    __declspec(dllexport) DWORD WINAPI FlushBuffers(const wchar_t* applicationName)
    {
        return WithSession(applicationName, &CTraceSession::Flush, ERROR_INVALID_STATE);
    }
}
