#include "support/Process.h"

#include "base/Owned.h"
#include "base/RegKey.h"
#include "support/Errors.h"

DWORD RunProcess(std::wstring commandLine, DWORD timeoutMs)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION information{};
    if (::CreateProcessW(
            nullptr,
            commandLine.data(),
            nullptr,
            nullptr,
            FALSE,
            DETACHED_PROCESS,
            nullptr,
            nullptr,
            &startup,
            &information) == FALSE)
    {
        ThrowError(L"starting " + commandLine.substr(0, MAX_PATH), ::GetLastError());
    }
    const Basalt::CHandle thread(information.hThread);
    const Basalt::CHandle process(information.hProcess);
    if (::WaitForSingleObject(process.Get(), timeoutMs) != WAIT_OBJECT_0)
    {
        ::TerminateProcess(process.Get(), ERROR_TIMEOUT);
        ThrowError(L"waiting for " + commandLine.substr(0, MAX_PATH), ERROR_TIMEOUT);
    }
    DWORD exitCode = 0;
    ::GetExitCodeProcess(process.Get(), &exitCode);
    return exitCode;
}

void SkipControlPipe()
{
    Basalt::CRegKey key;
    DWORD number = 0;
    ThrowIfFailed(
        key.Open(
            HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\ServiceCurrent", KEY_READ | KEY_WRITE),
        L"opening Wine's number of the control pipe");
    ThrowIfFailed(key.ReadDword(L"", number), L"reading Wine's number of the control pipe");
    ThrowIfFailed(key.WriteDword(L"", number + 1), L"raising Wine's number of the control pipe");
}
