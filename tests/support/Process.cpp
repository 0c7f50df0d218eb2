#include "support/Process.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/Errors.h"
#include "support/TestFolder.h"

namespace
{

Basalt::CFile NewFile(const std::wstring& path)
{
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    return Basalt::CFile(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable, CREATE_ALWAYS, 0, nullptr));
}

std::string ReadBack(const std::wstring& path)
{
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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
    // CreateProcessW writes into the command line.
    const auto create = [&] {
        return ::CreateProcessW(
            nullptr,
            commandLine.data(),
            nullptr,
            nullptr,
            startup.dwFlags != 0,
            DETACHED_PROCESS,
            nullptr,
            nullptr,
            &startup,
            &information);
    };
    // On a busy machine a process of Wine's now and then ends before its program has begun.
    constexpr int kAttempts = 3;
    bool isCreated = create();
    for (int attempt = 1; !isCreated && ::GetLastError() == ERROR_INTERNAL_ERROR && attempt < kAttempts;
         ++attempt)
    {
        isCreated = create();
    }
    if (!isCreated)
    {
        ThrowError(L"starting " + m_commandLine.substr(0, MAX_PATH), ::GetLastError());
    }
    m_mainThread.Reset(information.hThread);
    m_process.Reset(information.hProcess);
}

DWORD CProcess::Wait(DWORD timeoutMs)
{
    if (::WaitForSingleObject(Handle(), timeoutMs) != WAIT_OBJECT_0)
    {
        // A pool thread may die with the lock of Wine's memory management in its hand; the thread that ends
        // the process then waits for it for ever, although it is alone.
        const bool isEnding = ::WaitForSingleObject(m_mainThread.Get(), 0) == WAIT_OBJECT_0;
        ::TerminateProcess(Handle(), ERROR_TIMEOUT);
        ThrowError(
            (isEnding ? L"Wine does not end " : L"waiting for ") + m_commandLine.substr(0, MAX_PATH),
            ERROR_TIMEOUT);
    }
    DWORD exitCode = 0;
    ::GetExitCodeProcess(Handle(), &exitCode);
    return exitCode;
}

ProcessOutput RunForOutput(const std::wstring& commandLine)
{
    const CTestFolder folder;
    const std::wstring out = folder.File(L"out");
    const std::wstring error = folder.File(L"error");
    const DWORD exitCode = CProcess(commandLine, NewFile(out).Get(), NewFile(error).Get()).Wait();
    return {exitCode, ReadBack(out), ReadBack(error)};
}
