#pragma once

#include <windows.h>

#include <string>

/// @file
/// Names by which the hosts log where no setting gives another.

namespace ETWLogging
{

/// The group under which every host logs: the text log's file and the events' group have its name.
inline constexpr wchar_t kHostLogGroup[] = L"PLATFORM";
/// What the host calls itself to the log controller.
inline constexpr wchar_t kHostApplication[] = L"WSS";
/// The log controller library's file name.
inline constexpr wchar_t kControllerLibrary[] = L"LogCntrl.dll";

/// @throws std::bad_alloc, as the next ones.
[[nodiscard]] std::wstring DefaultLogFileName(const std::wstring& group);

/// @param program its path, or its file name.
[[nodiscard]] std::wstring DefaultLogTag(const std::wstring& program);

/// Where a full log file goes: NAME.log to NAME.1.log, that one before to NAME.2.log and so on.
/// @param path of the file that is written to: number 0.
[[nodiscard]] std::wstring RotatedLogPath(const std::wstring& path, DWORD number);

} // namespace ETWLogging
