#pragma once

#include <windows.h>

#include <exception>
#include <string>
#include <utility>

#include "txsvcctl/common/Console.h"

namespace TxCtl
{

/// What the program returns to its caller.
enum class ExitCode : int
{
    Success = 0,
    Findings = 1, ///< All was looked at, and something is wrong with it.
    Usage = 2,    ///< The command line, or a file that it names, is wrong in itself.
    Failed = 3,   ///< Denied, or an error of the system: the work could not be done.
    RestartNeeded =
        3010, ///< Of setup: done, but old files wait for the system's next start. Windows' number.
};

/// Why a command ends early. Thrown anywhere below RunTool, which prints the text and returns the code; no
/// exception leaves RunTool.
class CToolError : public std::exception
{
public:
    /// @param text one line or several; empty when all has been said already.
    CToolError(ExitCode code, std::wstring text) : m_code(code), m_text(std::move(text)) {}

    [[nodiscard]] ExitCode Code() const noexcept { return m_code; }
    [[nodiscard]] const std::wstring& Text() const noexcept { return m_text; }
    [[nodiscard]] const char* what() const noexcept override { return "the command failed"; }

private:
    ExitCode m_code;
    std::wstring m_text;
};

/// "error 5: Access is denied." An error of the service manager also says what to do about it.
[[nodiscard]] std::wstring DescribeError(DWORD error);

/// "cannot create service 'alpha': error 5: Access is denied."
[[nodiscard]] std::wstring DescribeFailure(
    const std::wstring& operation, const std::wstring& object, DWORD error);

/// @param operation verb and kind of object, as in "create service".
/// @throws CToolError with ExitCode::Failed
[[noreturn]] void ThrowFailure(const std::wstring& operation, const std::wstring& object, DWORD error);

/// Throws as ThrowFailure does unless the code is 0.
void CheckStatus(DWORD status, const wchar_t* operation, const std::wstring& object);

/// Prints the error's text, if it has one, behind the program's name.
void ReportError(IConsole& console, const CToolError& error);

[[noreturn]] void ThrowFailed(std::wstring text);
[[noreturn]] void ThrowUsage(std::wstring text);

} // namespace TxCtl
