#include "txsvcrun/ManagerStandIn.h"

#include "base/Lock.h"
#include "base/Text.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcrun/ConsoleLog.h"
#include "txsvcrun/ImportTable.h"

namespace TxRun::ManagerStandIn
{

namespace
{

/// What the service has told. Never destroyed: Ctrl+C may come while the process ends.
struct State
{
    std::wstring service; ///< Set before the service runs.
    Basalt::CLock lock;
    LPHANDLER_FUNCTION handler TX_GUARDED_BY(lock) = nullptr; ///< One of the two.
    LPHANDLER_FUNCTION_EX handlerEx TX_GUARDED_BY(lock) = nullptr;
    void* context TX_GUARDED_BY(lock) = nullptr;
    SERVICE_STATUS status TX_GUARDED_BY(lock){};
    bool isStopSent TX_GUARDED_BY(lock) = false;
};

State& Shared()
{
    static auto* const s_state = new State;
    return *s_state;
}

SERVICE_STATUS_HANDLE Register(
    LPHANDLER_FUNCTION handler, LPHANDLER_FUNCTION_EX handlerEx, void* context) noexcept
{
    State& state = Shared();
    const Basalt::CLockGuard guard(state.lock);
    state.handler = handler;
    state.handlerEx = handlerEx;
    state.context = context;
    return reinterpret_cast<SERVICE_STATUS_HANDLE>(&state); // Only compared with null.
}

SERVICE_STATUS_HANDLE WINAPI RegisterHandlerW(const wchar_t* /*name*/, LPHANDLER_FUNCTION handler) noexcept
{
    return Register(handler, nullptr, nullptr);
}

SERVICE_STATUS_HANDLE WINAPI RegisterHandlerA(const char* /*name*/, LPHANDLER_FUNCTION handler) noexcept
{
    return Register(handler, nullptr, nullptr);
}

SERVICE_STATUS_HANDLE WINAPI
RegisterHandlerExW(const wchar_t* /*name*/, LPHANDLER_FUNCTION_EX handler, void* context) noexcept
{
    return Register(nullptr, handler, context);
}

SERVICE_STATUS_HANDLE WINAPI
RegisterHandlerExA(const char* /*name*/, LPHANDLER_FUNCTION_EX handler, void* context) noexcept
{
    return Register(nullptr, handler, context);
}

std::wstring Describe(const SERVICE_STATUS& status)
{
    switch (status.dwCurrentState)
    {
    case SERVICE_START_PENDING:
    case SERVICE_STOP_PENDING:
        return Basalt::FormatText(
            L"%s, checkpoint %u, the next report within %u ms",
            status.dwCurrentState == SERVICE_START_PENDING ? L"starting" : L"stopping",
            status.dwCheckPoint,
            status.dwWaitHint);
    case SERVICE_RUNNING:
        return (status.dwControlsAccepted & SERVICE_ACCEPT_STOP) != 0 ? L"running; Ctrl+C stops it"
                                                                      : L"running; it does not accept STOP";
    case SERVICE_STOPPED:
        return L"stopped, exit code " + std::to_wstring(status.dwWin32ExitCode) +
               (status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR
                    ? L", its own " + std::to_wstring(status.dwServiceSpecificExitCode)
                    : L"");
    default:
        return L"state " + std::to_wstring(status.dwCurrentState);
    }
}

/// The manager keeps the first report of a stop, too.
BOOL WINAPI TakeStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) noexcept
{
    State& state = Shared();
    if (handle != reinterpret_cast<SERVICE_STATUS_HANDLE>(&state) || status == nullptr)
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    {
        const Basalt::CLockGuard guard(state.lock);
        if (state.status.dwCurrentState == SERVICE_STOPPED)
        {
            return TRUE;
        }
        state.status = *status;
    }
    ConsoleLog::AddState(state.service + L": " + Describe(*status));
    return TRUE;
}

/// Whether the service is stopped is known here: the real manager may have one of the same name.
SC_HANDLE WINAPI RefuseManager(const wchar_t* /*machine*/, const wchar_t* /*database*/, DWORD) noexcept
{
    ::SetLastError(ERROR_DATABASE_DOES_NOT_EXIST);
    return nullptr;
}

/// On a thread of its own for each Ctrl+C; the manager would use the one that serves all services' controls.
void SendStop()
{
    State& state = Shared();
    LPHANDLER_FUNCTION handler = nullptr;
    LPHANDLER_FUNCTION_EX handlerEx = nullptr;
    void* context = nullptr;
    {
        const Basalt::CLockGuard guard(state.lock);
        if ((state.status.dwControlsAccepted & SERVICE_ACCEPT_STOP) != 0)
        {
            handler = state.handler;
            handlerEx = state.handlerEx;
            context = state.context;
        }
    }
    if (handler == nullptr && handlerEx == nullptr)
    {
        ConsoleLog::AddState(
            state.service + L" does not accept STOP at the moment; Ctrl+C once more ends the process");
        return;
    }
    ConsoleLog::AddState(state.service + L": STOP is sent; Ctrl+C once more ends the process");
    if (handlerEx != nullptr)
    {
        handlerEx(SERVICE_CONTROL_STOP, 0, nullptr, context);
        return;
    }
    handler(SERVICE_CONTROL_STOP);
}

BOOL WINAPI OnControl(DWORD type)
{
    State& state = Shared();
    bool isSecond = false;
    {
        const Basalt::CLockGuard guard(state.lock);
        isSecond = state.isStopSent || state.status.dwCurrentState == SERVICE_STOPPED;
        state.isStopSent = true;
    }
    if (isSecond)
    {
        ConsoleLog::AddState(state.service + L": ended by force");
        ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(STATUS_CONTROL_C_EXIT));
    }
    SendStop();
    if (type == CTRL_CLOSE_EVENT)
    {
        ::Sleep(INFINITE); // The system ends the process when this returns, else some seconds later.
    }
    return TRUE;
}

} // namespace

void TakeCallsOf(HMODULE module) noexcept
{
    ReplaceImport(module, "RegisterServiceCtrlHandlerW", reinterpret_cast<void*>(&RegisterHandlerW));
    ReplaceImport(module, "RegisterServiceCtrlHandlerA", reinterpret_cast<void*>(&RegisterHandlerA));
    ReplaceImport(module, "RegisterServiceCtrlHandlerExW", reinterpret_cast<void*>(&RegisterHandlerExW));
    ReplaceImport(module, "RegisterServiceCtrlHandlerExA", reinterpret_cast<void*>(&RegisterHandlerExA));
    ReplaceImport(module, "SetServiceStatus", reinterpret_cast<void*>(&TakeStatus));
}

void Begin(const std::wstring& service)
{
    Shared().service = service;
    const HMODULE program = ::GetModuleHandleW(nullptr);
    TakeCallsOf(program);
    ReplaceImport(program, "OpenSCManagerW", reinterpret_cast<void*>(&RefuseManager));
    ::SetConsoleCtrlHandler(&OnControl, TRUE);
}

SERVICE_STATUS LastStatus() noexcept
{
    State& state = Shared();
    const Basalt::CLockGuard guard(state.lock);
    return state.status;
}

} // namespace TxRun::ManagerStandIn
