#pragma once

#include <windows.h>

#include <string>

#include "logging/LoggingIf.h"

/// @file
/// The logging settings in the registry. The values are scrambled (Basalt::CObfuscatedRegKey); one that is
/// missing, damaged, of another type or out of range counts as absent and its default applies.

namespace ETWLogging
{

/// Below HKEY_LOCAL_MACHINE.
inline constexpr wchar_t kLogSettingsKey[] = L"SOFTWARE\\Tarvex\\Logging";

inline constexpr wchar_t kMechanismValue[] = L"Logging Mechanism"; ///< 32 bits: kFileMechanism or any other
inline constexpr wchar_t kLevelValue[] = L"Logging Level";         ///< 32 bits: LogNormal to LogInformation2
inline constexpr wchar_t kOptionsValue[] = L"Logging Options";     ///< 32 bits: LogOption bits
inline constexpr wchar_t kFolderValue[] = L"Logging Folder";       ///< string: an absolute path

/// The mechanism that stands for the text file; any other number is event tracing.
inline constexpr DWORD kFileMechanism = 1;

inline constexpr DWORD kDefaultThreshold = LogInformation;
inline constexpr DWORD kDefaultOptions = LogOptionTag;
inline constexpr DWORD kAllOptions = LogOptionProcess | LogOptionSource | LogOptionTag | LogOptionFunction;

struct LogSettings
{
    DWORD threshold = kDefaultThreshold;
    DWORD options = kDefaultOptions;
    std::wstring folder; ///< Empty when none is configured; without a backslash at the end.
};

/// The settings of a logger, with the defaults in place of what is not usable.
/// @throws std::bad_alloc
[[nodiscard]] LogSettings ReadLogSettings();

/// The configured mechanism; 0 when it is absent or unusable.
[[nodiscard]] DWORD ReadLogMechanism() noexcept;

} // namespace ETWLogging
