/// @file
/// What an updater does around the exchange of files that hosted services hold open:
///
///     Updater stop                    stops the group of a running host and waits for the end of its process
///     Updater start TxSvHost.exe     starts the services of the core group again
///
/// Between the two the files are free. Exit code: 0, or 1 with the failing step on the standard error output.
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

/// @param control receives the object with one reference.
bool ConnectToHost(ITxSvcSubsystemControlManager*& control)
{
    // Not CoCreateInstance: the host's class object has the product's own creation interface.
    ITxSvcClassObject* classObject = nullptr;
    HRESULT result = ::CoGetClassObject(
        CLSID_TxSvcSubsystemControlManager,
        CLSCTX_LOCAL_SERVER,
        nullptr,
        IID_ITxSvcClassObject,
        reinterpret_cast<void**>(&classObject));
    if (FAILED(result))
    {
        return Fail("No host can be reached", result);
    }
    // E_ACCESSDENIED: the host does not trust TxSvHostPS.dll, which makes the call over there.
    result = classObject->CreateObject(IID_ITxSvcSubsystemControlManager, reinterpret_cast<void**>(&control));
    classObject->Release();
    return SUCCEEDED(result) || Fail("The host refuses its control", result);
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

bool StopGroup()
{
    ITxSvcSubsystemControlManager* control = nullptr;
    if (!ConnectToHost(control))
    {
        return false;
    }
    DWORD processId = 0;
    const HRESULT result = control->TxStopSvcSubsystem(0, &processId);
    control->Release();

    // A failure is the normal answer: it says that the process ends, not that a service runs on.
    std::printf("Stopped, 0x%08lX from process %lu.\n", static_cast<unsigned long>(result), processId);
    if (processId == 0)
    {
        std::printf("The host ended before it could answer.\n");
        return true;
    }
    return result == S_OK || WaitForEnd(processId); // S_OK: the group is empty, and its process goes on.
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
    const bool stopped = StopGroup();
    ::CoUninitialize();
    return stopped ? 0 : kExitFailure;
}
