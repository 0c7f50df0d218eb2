#include "logging/BasaltLogHandler.h"

#include "logging/LoggerSlot.h"
#include "logging/logger/LoggingIf.h"

namespace ETWLogging
{

namespace
{

constinit CBasaltLogHandler g_handler;

DWORD LevelOf(DWORD basaltLevel) noexcept
{
    switch (basaltLevel)
    {
    case 0:
    case 1:
        return LogNormal;
    case 2:
        return LogError;
    default:
        return LogWarning;
    }
}

} // namespace

void CBasaltLogHandler::Handle(
    DWORD level, const wchar_t* file, const wchar_t* function, DWORD line, const wchar_t* message) noexcept
{
    const CLoggerSlot::CUse use(ProcessLoggerSlot());
    if (use.Get() != nullptr)
    {
        static_cast<void>(use.Get()->WriteFinished(LevelOf(level), file, function, line, message));
    }
}

CBasaltLogHandler& BasaltLogHandler() noexcept
{
    return g_handler;
}

} // namespace ETWLogging
