#pragma once

#include <windows.h>

#include <string>

#include "base/Owned.h"

inline constexpr DWORD kProcessTimeoutMs = 60000;

/// A program that runs without a window.
/// Errors: std::runtime_error.
class CProcess
{
public:
    /// @param out, error its standard output and error: inheritable handles, null for none.
    explicit CProcess(std::wstring commandLine, HANDLE out = nullptr, HANDLE error = nullptr);

    [[nodiscard]] HANDLE Handle() const noexcept { return m_process.Get(); }
    [[nodiscard]] DWORD Id() const noexcept { return ::GetProcessId(Handle()); }
    /// Waits for its end; a program that has not ended in time is ended, which is an error.
    /// @return its exit code.
    DWORD Wait(DWORD timeoutMs = kProcessTimeoutMs);

private:
    std::wstring m_commandLine;
    Basalt::CHandle m_process;
    Basalt::CHandle m_mainThread;
};

/// Runs a program to its end and returns its exit code. @throws std::runtime_error as CProcess does
inline DWORD RunProcess(std::wstring commandLine, DWORD timeoutMs = kProcessTimeoutMs)
{
    return CProcess(std::move(commandLine)).Wait(timeoutMs);
}

struct ProcessOutput
{
    DWORD exitCode;
    std::string out; ///< The bytes as they were written, as the next.
    std::string error;
};

/// The same for one whose output goes to files. @throws std::runtime_error as CProcess does
[[nodiscard]] ProcessOutput RunForOutput(const std::wstring& commandLine);
