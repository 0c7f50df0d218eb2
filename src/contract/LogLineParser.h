#pragma once

#include <windows.h>

#include <optional>
#include <string>

/// @file
/// The other direction of LogLine.h, for those who read the text log.

namespace ETWLogging
{

/// One message of the text log. What its line does not tell is empty.
struct LogEntry
{
    std::optional<SYSTEMTIME> time; ///< Local. Without it there is only the message, and no level.
    DWORD level = 0;                ///< 3 for both levels that are called "Information".
    std::wstring levelName;
    std::optional<std::wstring> tag;
    std::optional<DWORD> process;
    DWORD thread = 0; ///< Belongs to the process.
    std::optional<std::wstring> source;
    DWORD line = 0; ///< Belongs to the source.
    std::optional<std::wstring> function;
    std::wstring message; ///< Its lines are separated by "\n"; the last line end is dropped.
};

/// Takes a line apart that begins an entry. The "$" that ends a field may stand in texts too, so fields are
/// told by their form and width. Blanks before the message count as fields without a value as long as any
/// may follow; a message's own blanks cannot be told from them.
/// @param line without its end.
/// @return nothing for any other line, such as a further one of a message.
[[nodiscard]] std::optional<LogEntry> ParseLogLine(const std::wstring& line);

/// Whether a line without an end could still become one that begins an entry, or already is one.
[[nodiscard]] bool MayBeginLogEntry(const std::wstring& line);

} // namespace ETWLogging
