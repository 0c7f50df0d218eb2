#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace ETWLogging
{

/// What a line tells about its message beside the text.
struct LogLineFields
{
    DWORD options = 0;        ///< LogOption bits: the optional fields wanted.
    const wchar_t* tag = L""; ///< application tag; borrowed, as all texts here
    DWORD processId = 0;
    DWORD threadId = 0;
    SYSTEMTIME time{};             ///< local
    const wchar_t* file = nullptr; ///< When this or the function is null or empty, the field is a blank.
    DWORD line = 0;
    const wchar_t* function = nullptr;
};

// The widths to which texts are cut and padded.
inline constexpr std::size_t kTagColumns = 15;
inline constexpr std::size_t kSourceColumns = 20;
inline constexpr std::size_t kFunctionColumns = 40;

/// Builds one line of the text log, with its line end; docs/logging.md shows it field by field,
/// LogLineParser.h takes it apart again.
/// @param levelName, message not empty.
/// @throws std::bad_alloc
[[nodiscard]] std::wstring BuildLogLine(
    const LogLineFields& fields, const wchar_t* levelName, const wchar_t* message);

} // namespace ETWLogging
