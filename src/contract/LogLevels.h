#pragma once

#include <windows.h>

namespace ETWLogging
{

/// Severity of a message; a larger number is more severe. Any number may be passed as a level, these have
/// a name.
enum LogLevel : DWORD
{
    LogNormal = 1,
    LogWarning = 2,
    LogInformation = 3, ///< Always passes the event-tracing logger's filter.
    LogError = 4,
    LogCritical = 5,
    LogInformation2 = 6, ///< A second information level; carried in events as LogInformation.
};

/// The fields of a text line that the option word chooses.
enum LogOption : DWORD
{
    LogOptionProcess = 0x04,  ///< process and thread id
    LogOptionSource = 0x08,   ///< source file and line
    LogOptionTag = 0x10,      ///< application tag
    LogOptionFunction = 0x20, ///< function name
};

/// The name of a level in a line; null when it has none.
[[nodiscard]] const wchar_t* LogLevelName(DWORD level) noexcept;

} // namespace ETWLogging
