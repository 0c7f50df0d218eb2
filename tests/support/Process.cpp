#include "support/Process.h"

#include "base/RegKey.h"
#include "support/Errors.h"
#include "support/TestFolder.h"

namespace
{

Basalt::CFile NewFile(const std::wstring& path)
{
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    return Basalt::CFile(::CreateFileW(
        path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, &inheritable, CREATE_ALWAYS, 0, nullptr));
}

std::string ReadBack(const Basalt::CFile& file)
{
    std::string bytes(::GetFileSize(file.Get(), nullptr), '\0');
    DWORD read = 0;
    ::SetFilePointer(file.Get(), 0, nullptr, FILE_BEGIN);
    ::ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    return bytes.substr(0, read);
}

} // namespace

CProcess::CProcess(std::wstring commandLine, HANDLE out, HANDLE error) : m_commandLine(commandLine)
{
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = out == nullptr && error == nullptr ? 0 : STARTF_USESTDHANDLES;
    startup.hStdOutput = out;
    startup.hStdError = error;
    PROCESS_INFORMATION information{};
    if (::CreateProcessW(
            nullptr,
            commandLine.data(), // CreateProcessW writes into it.
            nullptr,
            nullptr,
            startup.dwFlags != 0,
            DETACHED_PROCESS,
            nullptr,
            nullptr,
            &startup,
            &information) == FALSE)
    {
        ThrowError(L"starting " + m_commandLine.substr(0, MAX_PATH), ::GetLastError());
    }
    ::CloseHandle(information.hThread);
    m_process.Reset(information.hProcess);
}

DWORD CProcess::Wait(DWORD timeoutMs)
{
    if (::WaitForSingleObject(Handle(), timeoutMs) != WAIT_OBJECT_0)
    {
        ::TerminateProcess(Handle(), ERROR_TIMEOUT);
        ThrowError(L"waiting for " + m_commandLine.substr(0, MAX_PATH), ERROR_TIMEOUT);
    }
    DWORD exitCode = 0;
    ::GetExitCodeProcess(Handle(), &exitCode);
    return exitCode;
}

ProcessOutput RunForOutput(const std::wstring& commandLine)
{
    const CTestFolder folder;
    const Basalt::CFile out = NewFile(folder.File(L"out"));
    const Basalt::CFile error = NewFile(folder.File(L"error"));
    const DWORD exitCode = CProcess(commandLine, out.Get(), error.Get()).Wait();
    return {exitCode, ReadBack(out), ReadBack(error)};
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
