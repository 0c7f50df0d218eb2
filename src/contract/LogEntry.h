#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace ETWLogging
{

/// One message, as it is read from the text log or from a trace. What the line or the event does not tell is
/// empty.
struct LogEntry
{
    std::optional<SYSTEMTIME> time; ///< Local. Without it there is only the message, and no level.
    bool hasMilliseconds = false;
    DWORD level = 0; ///< 3 for both levels that are called "Information".
    std::optional<std::wstring> tag;
    std::optional<DWORD> process;
    DWORD thread = 0; ///< Belongs to the process.
    std::optional<std::wstring> source;
    DWORD line = 0; ///< Belongs to the source.
    std::optional<std::wstring> function;
    std::wstring message; ///< Its lines are separated by "\n"; the last line end is dropped.
};

} // namespace ETWLogging
