#pragma once

#include <optional>
#include <string>

#include "contract/LogEntry.h"

/// @file
/// The other direction of LogLine.h, for those who read the text log.

namespace ETWLogging
{

/// Takes a line apart that begins an entry. The "$" that ends a field may stand in texts too, so fields are
/// told by their form and width. Blanks before the message count as fields without a value as long as any
/// may follow; a message's own blanks cannot be told from them.
/// @param line without its end.
/// @return nothing for any other line, such as a further one of a message.
[[nodiscard]] std::optional<LogEntry> ParseLogLine(const std::wstring& line);

/// Whether a line without an end could still become one that begins an entry, or already is one.
[[nodiscard]] bool MayBeginLogEntry(const std::wstring& line);

} // namespace ETWLogging
