#pragma once

#include <windows.h>

#include <string>

namespace ETWLogging
{

/// What the file logger adds to a message's line.
struct LogLineFields
{
    DWORD options = 0;        ///< LogOption bits: the optional fields wanted.
    const wchar_t* tag = L""; ///< application tag; borrowed
    DWORD processId = 0;
};

/// Builds one line of the text log, with its line end; docs/logging.md shows it field by field.
///
/// @param file, function may be null or empty: the field is then a blank.
/// @param message not empty.
/// @param text untouched on failure.
/// @return 0, or ERROR_INVALID_PARAMETER for an empty message or a level without a name.
/// @throws std::bad_alloc
[[nodiscard]] DWORD BuildLogLine(
    const LogLineFields& fields,
    const wchar_t* file,
    const wchar_t* function,
    DWORD line,
    DWORD level,
    const wchar_t* message,
    std::wstring& text);

} // namespace ETWLogging
