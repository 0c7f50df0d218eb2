#pragma once

#include <windows.h>

#include <string>

#include "contract/LogLevels.h"

/// @file
/// The logging settings: what can be set, and what applies when nothing is.
///
/// Each setting by itself is looked for in "log.ini" beside the program, then in the registry, and has its
/// default when neither has it. A value that is damaged, of another type or out of range counts as absent
/// and is reported. In the registry the values are scrambled (Basalt::CObfuscatedRegKey); in the file they
/// stand plain, under the same names, in the section kLogIniSection.

namespace ETWLogging
{

inline constexpr wchar_t kLogIniName[] = L"log.ini";
inline constexpr wchar_t kLogIniSection[] = L"Logging";

/// A setting that is a 32-bit number: a DWORD in the registry, decimal or "0x..." in the file.
struct LogNumberSetting
{
    const wchar_t* name;
    DWORD least;
    DWORD most;
    DWORD bits; ///< The bits that may be set.
    DWORD fallback;

    [[nodiscard]] constexpr bool IsValid(DWORD number) const noexcept
    {
        return number >= least && number <= most && (number & ~bits) == 0;
    }
};

/// A setting that is a text; it has no default here.
struct LogTextSetting
{
    const wchar_t* name;
    bool (*isValid)(const std::wstring& text) noexcept;
};

/// "C:\..." or "\\server\share...": a service's current folder says nothing.
[[nodiscard]] bool IsAbsolutePath(const std::wstring& path) noexcept;
inline constexpr wchar_t kNotInFileNames[] = L"<>:\"/\\|?*";
/// A name with an extension, without a path.
[[nodiscard]] bool IsLogFileName(const std::wstring& name) noexcept;
[[nodiscard]] bool IsLogTag(const std::wstring& tag) noexcept;

/// The mechanism that stands for the text file; any other number is event tracing.
inline constexpr DWORD kFileMechanism = 1;
inline constexpr DWORD kAllOptions = LogOptionProcess | LogOptionSource | LogOptionTag | LogOptionFunction;
inline constexpr DWORD kDefaultThreshold = LogInformation;
inline constexpr DWORD kDefaultOptions = LogOptionTag;
inline constexpr DWORD kDefaultEntries = 10000;
inline constexpr DWORD kDefaultOldFiles = 5;

inline constexpr LogNumberSetting kMechanismSetting = {L"Logging Mechanism", 0, MAXDWORD, MAXDWORD, 0};
inline constexpr LogNumberSetting kLevelSetting = {
    L"Logging Level", LogNormal, LogInformation2, MAXDWORD, kDefaultThreshold};
inline constexpr LogNumberSetting kOptionsSetting = {
    L"Logging Options", 0, kAllOptions, kAllOptions, kDefaultOptions};
/// Entries per file; 0 switches the rotation off.
inline constexpr LogNumberSetting kEntriesSetting = {
    L"Logging Entries", 0, 100'000'000, MAXDWORD, kDefaultEntries};
inline constexpr LogNumberSetting kOldFilesSetting = {
    L"Logging Old Files", 0, 99, MAXDWORD, kDefaultOldFiles};
/// Whether the processes that write one file wait for each other.
inline constexpr LogNumberSetting kMutexSetting = {L"Logging Mutex", 0, 1, MAXDWORD, 1};
inline constexpr LogTextSetting kTagSetting = {L"Logging Tag", &IsLogTag};
inline constexpr LogTextSetting kFolderSetting = {L"Logging Folder", &IsAbsolutePath};
inline constexpr LogTextSetting kFileSetting = {L"Logging File", &IsLogFileName};
/// The name of the setting that holds an application's controller library, with the application's name
/// behind it.
inline constexpr wchar_t kControllerPathPrefix[] = L"Controller Path ";

} // namespace ETWLogging
