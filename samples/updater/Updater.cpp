/// @file
/// What an updater does around the exchange of files that hosted services hold open:
///
///     Updater stop                   stops one running host after the other, until none is left
///     Updater start TxSvHost.exe     starts the services of the core group again
///
/// Between the two the files are free, and stay so as long as an update client answers (../update_client).
/// Exit code: 0, or 1 with the failing step on the standard error output.
#include <windows.h>
#include <objbase.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "TxSvcGroupControl.h"

namespace
{

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

/// The services have stopped when the call returns; the process follows about a second later.
constexpr DWORD kEndTimeoutMs = 30000;

bool Fail(const char* step, HRESULT code)
{
    std::fprintf(stderr, "%s: 0x%08lX\n", step, static_cast<unsigned long>(code));
    return false;
}

bool FailWithLastError(const char* step)
{
    return Fail(step, HRESULT_FROM_WIN32(::GetLastError()));
}

/// Connects to one of the running hosts; which one is COM's choice.
/// @param control receives the object with one reference.
/// @return REGDB_E_CLASSNOTREG when no host can be found.
HRESULT ConnectToHost(ITxSvcSubsystemControlManager*& control)
{
    // Not CoCreateInstance: the host's class object has the product's own creation interface.
    ITxSvcClassObject* classObject = nullptr;
    HRESULT result = ::CoGetClassObject(
        CLSID_TxSvcSubsystemControlManager,
        CLSCTX_LOCAL_SERVER,
        nullptr,
        IID_ITxSvcClassObject,
        reinterpret_cast<void**>(&classObject));
    if (SUCCEEDED(result))
    {
        // E_ACCESSDENIED: the host does not trust TxSvHostPS.dll, which makes the call over there.
        result =
            classObject->CreateObject(IID_ITxSvcSubsystemControlManager, reinterpret_cast<void**>(&control));
        classObject->Release();
    }
    return result;
}

bool WaitForEnd(DWORD processId)
{
    const HANDLE process = ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId);
    if (process == nullptr)
    {
        return ::GetLastError() == ERROR_INVALID_PARAMETER // No such process: ended already.
               || FailWithLastError("OpenProcess");
    }
    DWORD exitCode = 0;
    const bool ended = ::WaitForSingleObject(process, kEndTimeoutMs) == WAIT_OBJECT_0 &&
                       ::GetExitCodeProcess(process, &exitCode);
    ::CloseHandle(process);
    if (!ended)
    {
        return Fail("The host does not end", HRESULT_FROM_WIN32(ERROR_TIMEOUT));
    }
    std::printf("Process %lu has ended with %lu.\n", processId, exitCode);
    return true;
}

bool StopGroup(ITxSvcSubsystemControlManager* control)
{
    DWORD processId = 0;
    const HRESULT result = control->TxStopSvcSubsystem(0, &processId);
    if (result == S_OK) // And COM would go on to lead here rather than to other hosts.
    {
        return Fail("A host whose group has no services goes on", result);
    }
    // A failure is the normal answer: it says that the process ends, not that a service runs on.
    std::printf("Stopped, 0x%08lX from process %lu.\n", static_cast<unsigned long>(result), processId);
    if (processId == 0)
    {
        std::printf("The host ended before it could answer.\n");
        return true;
    }
    return WaitForEnd(processId);
}

/// "File not found" is Wine's word for a class that is registered while no server of it runs.
bool IsNoHostLeft(HRESULT result)
{
    return result == REGDB_E_CLASSNOTREG || result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
}

/// What a host answers that is just ending, or COM in its place.
bool IsEnding(HRESULT result)
{
    return result == CO_E_SERVER_STOPPING || result == HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE) ||
           result == RPC_E_DISCONNECTED || result == RPC_E_SERVER_DIED || result == RPC_E_SERVER_DIED_DNE;
}

/// All hosts register the same class, so it takes a new connection to reach the next one.
bool StopAllGroups()
{
    int retriesLeft = 50;
    for (bool isFirst = true;; isFirst = false)
    {
        ITxSvcSubsystemControlManager* control = nullptr;
        const HRESULT connected = ConnectToHost(control);
        if (IsNoHostLeft(connected) && !isFirst)
        {
            return true;
        }
        if (IsEnding(connected) && retriesLeft-- > 0)
        {
            ::Sleep(100);
            continue;
        }
        if (FAILED(connected))
        {
            return Fail("No host can be reached, or it refuses", connected);
        }
        const bool isStopped = StopGroup(control);
        control->Release();
        if (!isStopped)
        {
            return false;
        }
    }
}

bool StartCoreGroup(const wchar_t* hostPath)
{
    std::wstring commandLine = L"\"" + std::wstring(hostPath) + L"\" /startservices";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(
            hostPath, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
    {
        return FailWithLastError("CreateProcessW");
    }
    // Always ends with 0: what could not be started is in the host's log.
    ::WaitForSingleObject(process.hProcess, INFINITE);
    ::CloseHandle(process.hThread);
    ::CloseHandle(process.hProcess);
    return true;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc == 3 && std::wcscmp(argv[1], L"start") == 0)
    {
        return StartCoreGroup(argv[2]) ? 0 : kExitFailure;
    }
    if (argc != 2 || std::wcscmp(argv[1], L"stop") != 0)
    {
        std::fputs("usage: Updater stop | Updater start TXSVCHOST.EXE\n", stderr);
        return kExitUsage;
    }
    const HRESULT initialized = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(initialized))
    {
        return Fail("CoInitializeEx", initialized) ? 0 : kExitFailure;
    }
    const bool stopped = StopAllGroups();
    ::CoUninitialize();
    return stopped ? 0 : kExitFailure;
}
