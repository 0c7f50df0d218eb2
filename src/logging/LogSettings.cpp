#include "logging/LogSettings.h"

#include "base/ObfuscatedRegKey.h"

namespace ETWLogging
{

namespace
{

bool IsDriveLetter(wchar_t letter) noexcept
{
    return (letter >= L'A' && letter <= L'Z') || (letter >= L'a' && letter <= L'z');
}

/// "C:\..." or "\\server\share...": a service's current folder says nothing.
bool IsAbsolute(const std::wstring& path) noexcept
{
    return (path.size() >= 3 && IsDriveLetter(path[0]) && path[1] == L':' && path[2] == L'\\') ||
           (path.size() >= 3 && path[0] == L'\\' && path[1] == L'\\');
}

} // namespace

LogSettings ReadLogSettings()
{
    LogSettings settings;
    Basalt::CObfuscatedRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, kLogSettingsKey, KEY_READ) != ERROR_SUCCESS)
    {
        return settings;
    }
    DWORD number = 0;
    if (key.ReadDword(kLevelValue, number) == ERROR_SUCCESS && number >= LogNormal &&
        number <= LogInformation2)
    {
        settings.threshold = number;
    }
    if (key.ReadDword(kOptionsValue, number) == ERROR_SUCCESS && (number & ~kAllOptions) == 0)
    {
        settings.options = number;
    }
    std::wstring folder;
    if (key.ReadString(kFolderValue, folder) == ERROR_SUCCESS && IsAbsolute(folder))
    {
        folder.erase(folder.find_last_not_of(L'\\') + 1);
        settings.folder = folder;
    }
    return settings;
}

DWORD ReadLogMechanism() noexcept
{
    DWORD mechanism = 0;
    Basalt::CObfuscatedRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, kLogSettingsKey, KEY_READ) == ERROR_SUCCESS)
    {
        static_cast<void>(key.ReadDword(kMechanismValue, mechanism)); // Absent or damaged: stays 0.
    }
    return mechanism;
}

} // namespace ETWLogging
