#pragma once

#include <windows.h>

#include <string>

#include "base/ObfuscatedRegKey.h"
#include "contract/Keys.h"
#include "contract/LogSettings.h"

namespace ETWLogging
{

/// Full path of the settings file: beside the running program.
/// @throws std::bad_alloc
[[nodiscard]] std::wstring LogIniPath();

/// Where a setting was found.
enum class LogSettingOrigin
{
    Default,
    Registry,
    IniFile,
};

/// Reads single settings. The key is opened, and the file looked at, once: make a new object for one that
/// comes or goes later.
/// Threads: one. All operations may throw std::bad_alloc.
class CLogSettingsReader
{
public:
    /// Where the hosts' own settings are.
    CLogSettingsReader();
    explicit CLogSettingsReader(const std::wstring& iniPath, const wchar_t* keyPath = Contract::kLoggingKey);

    /// @param value receives the number, or the setting's default.
    LogSettingOrigin ReadNumber(const LogNumberSetting& setting, DWORD& value);

    /// @param value untouched when the setting is found nowhere.
    LogSettingOrigin ReadText(const LogTextSetting& setting, std::wstring& value);

    /// Whatever text is held counts: what is no full path, the trust check refuses.
    /// @param application its name towards the controller.
    LogSettingOrigin ReadControllerPath(const std::wstring& application, std::wstring& path);

    /// What was there but could not be used so far, for a message; empty when there was nothing of the kind.
    [[nodiscard]] const std::wstring& Problems() const noexcept { return m_problems; }

private:
    void dropUnusableIni();
    [[nodiscard]] bool readIni(const wchar_t* name, std::wstring& text);
    [[nodiscard]] bool acceptOrReport(DWORD status, bool isValid, const wchar_t* name);
    void addProblem(const wchar_t* what, const wchar_t* where);

    std::wstring m_iniPath; ///< Empty unless there is a file that can be used.
    Basalt::CObfuscatedRegKey m_key;
    std::wstring m_problems;
};

/// All settings of a logger, with the defaults in place of what is missing or not usable.
struct LogSettings
{
    DWORD mechanism = kMechanismSetting.fallback;
    DWORD threshold = kDefaultThreshold;
    DWORD options = kDefaultOptions;
    DWORD entriesPerFile = kDefaultEntries;
    DWORD oldFiles = kDefaultOldFiles;
    bool useMutex = true;
    std::wstring tag;    ///< Empty when none is set, as with the next two.
    std::wstring folder; ///< Without a backslash at the end.
    std::wstring fileName;
    std::wstring problems; ///< What was there but could not be used.
};

/// @throws std::bad_alloc
[[nodiscard]] LogSettings ReadLogSettings(CLogSettingsReader&& reader = CLogSettingsReader());

/// What a logger is beside CLoggingIf when it follows changes of its settings.
class IFollowsSettings
{
public:
    IFollowsSettings(const IFollowsSettings&) = delete;
    IFollowsSettings& operator=(const IFollowsSettings&) = delete;

    /// The settings that it was made with.
    [[nodiscard]] virtual const LogSettings& GetSettings() const noexcept = 0;

protected:
    IFollowsSettings() noexcept = default;
    ~IFollowsSettings() = default;
};

} // namespace ETWLogging
