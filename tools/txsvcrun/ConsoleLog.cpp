#include "txsvcrun/ConsoleLog.h"

#include <windows.h>

#include <exception>
#include <memory>

#include "base/Lock.h"
#include "base/Stopwatch.h"
#include "base/Text.h"
#include "contract/LogLevels.h"
#include "contract/LogNames.h"
#include "logging/Log.h"
#include "logging/LogBuilder.h"
#include "logging/text/TextLogger.h"

namespace TxRun::ConsoleLog
{

namespace
{

/// @see https://no-color.org
bool CanColour() noexcept
{
    const HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    return ::GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) <= 1 && ::GetConsoleMode(out, &mode) &&
           ::SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

const wchar_t* ColourOf(DWORD level) noexcept
{
    switch (level)
    {
    case ETWLogging::LogWarning:
        return L"\x1b[33m"; // yellow
    case ETWLogging::LogInformation:
    case ETWLogging::LogInformation2:
        return L"\x1b[36m"; // cyan
    case ETWLogging::LogError:
        return L"\x1b[31m"; // red
    case ETWLogging::LogCritical:
        return L"\x1b[1;31m"; // bright red
    default:
        return L"\x1b[90m"; // grey
    }
}

class CWriter
{
public:
    explicit CWriter(TxCtl::IConsole& console) noexcept : m_console(console) {}

    void Write(const wchar_t* colour, const wchar_t* level, const std::wstring& text) TX_EXCLUDES(m_lock)
    {
        std::wstring line = Basalt::FormatText(
            L"%7.3fs %s%-11s%s ",
            m_sinceStart.Seconds(),
            m_canColour ? colour : L"",
            level,
            m_canColour ? L"\x1b[0m" : L"");
        for (const wchar_t character : text)
        {
            line += character;
            line += character == L'\n' ? L"    " : L""; // So that entries can be told apart.
        }
        const Basalt::CLockGuard guard(m_lock);
        m_console.Out(line);
    }

private:
    Basalt::CLock m_lock;
    TxCtl::IConsole& m_console; ///< Guarded for writing.
    const bool m_canColour = CanColour();
    const Basalt::CStopwatch m_sinceStart;
};

CWriter* g_writer = nullptr; ///< Set before other threads log, never deleted.

/// A text logger whose lines go to the console: neither folder nor file is touched.
class CConsoleLogger final : public ETWLogging::CLogging
{
public:
    CConsoleLogger() noexcept : CLogging({}) {}

    void Activate() noexcept override {}
    [[nodiscard]] DWORD IsLevelEnabled(DWORD /*level*/) const noexcept override { return TRUE; }
    DWORD
    Log(const wchar_t* /*file*/,
        const wchar_t* function,
        DWORD /*line*/,
        DWORD level,
        const wchar_t* message) noexcept override
    try
    {
        const wchar_t* const name = ETWLogging::LogLevelName(level);
        g_writer->Write(
            ColourOf(level),
            name != nullptr ? name : L"",
            (function != nullptr ? function + std::wstring(L": ") : L"") + message);
        return ERROR_SUCCESS;
    }
    catch (const std::exception&)
    {
        return ERROR_OUTOFMEMORY;
    }
};

class CBuilder final : public ETWLogging::CLogBuilderIf
{
public:
    [[nodiscard]] bool Build(
        const wchar_t* /*group*/,
        DWORD /*context2*/,
        const wchar_t* /*host*/,
        DWORD /*mechanism*/,
        std::unique_ptr<ETWLogging::CLoggingIf>& logger,
        const ETWLogging::ILogConfigReader* /*config*/) noexcept override
    {
        logger.reset(new (std::nothrow) CConsoleLogger);
        return logger != nullptr;
    }
};

} // namespace

void Begin(TxCtl::IConsole& console)
{
    static CBuilder s_builder;
    g_writer = new CWriter(console);
    ETWLogging::SetLogBuilder(s_builder);
}

void AddState(const std::wstring& text) noexcept
{
    g_writer->Write(L"\x1b[32m", L"State", text); // green
}

} // namespace TxRun::ConsoleLog
