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

DWORD LogFolder(std::wstring& folder)
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = ::GetEnvironmentVariableW(L"ProgramData", path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
    {
        return ERROR_ENVVAR_NOT_FOUND;
    }
    folder = std::wstring(path) + L"\\Tarvex\\Log";
    return ERROR_SUCCESS;
}

/// Performs an operation on the session of an application, which becomes part of file and object names.
DWORD WithSession(const wchar_t* application, DWORD (CTraceSession::*operation)()) noexcept
try
{
    if (application == nullptr || *application == L'\0' ||
        std::wcspbrk(application, L"\\/:*?\"<>|") != nullptr)
    {
        return ERROR_INVALID_PARAMETER;
    }
    std::wstring folder;
    const DWORD status = LogFolder(folder);
    if (status != ERROR_SUCCESS)
    {
        return status;
    }
    const CLockGuard guard;
    CTraceSession& session = g_sessions.try_emplace(application, folder, application).first->second;
    return (session.*operation)();
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
        return WithSession(applicationName, &CTraceSession::Start);
    }

    __declspec(dllexport) DWORD WINAPI Stop(DWORD_PTR /*zero*/, const wchar_t* applicationName)
    {
        return WithSession(applicationName, &CTraceSession::Stop);
    }

    __declspec(dllexport) DWORD WINAPI RestartSession(const wchar_t* applicationName)
    {
        return WithSession(applicationName, &CTraceSession::Restart);
    }

    __declspec(dllexport) DWORD WINAPI FlushBuffers(const wchar_t* applicationName)
    {
        return WithSession(applicationName, &CTraceSession::Flush);
    }
}
