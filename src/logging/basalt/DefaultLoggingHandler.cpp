#include "logging/basalt/DefaultLoggingHandler.h"

#include <exception>

#include "base/Text.h"

namespace Basalt
{

namespace
{

constinit CDefaultLoggingHandler g_handler; // Built at start-up, before any code runs.

const wchar_t* FormatOf(DWORD level) noexcept
{
    switch (level)
    {
    case 1:
        return L"%s(%d): [INFO]: [%s]: %s\n";
    case 2:
        return L"%s(%d): [ERROR]: [%s]: %s\n";
    default:
        return L"%s(%d): [UNKNOWN]: [%s]: %s\n";
    }
}

} // namespace

void CDefaultLoggingHandler::Handle(
    DWORD level, const wchar_t* file, const wchar_t* function, DWORD line, const wchar_t* message) noexcept
{
    if (level == 0)
    {
        return;
    }
    try
    {
        // Built and dropped on purpose: the debugger has always been sent the bare message.
        static_cast<void>(FormatText(FormatOf(level), file, line, function, message));
    }
    catch (const std::exception&) // NOLINT(bugprone-empty-catch): without memory there is nothing to drop.
    {
    }
    ::OutputDebugStringW(message);
}

CDefaultLoggingHandler& DefaultLoggingHandler() noexcept
{
    return g_handler;
}

} // namespace Basalt
