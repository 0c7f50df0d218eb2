#include "logging/LogProperties.h"

#include <windows.h>

#include <exception>

#include "base/ObfuscatedRegKey.h"
#include "logging/LogSettings.h"

namespace ETWLogging
{

bool LogProperties::GetControllerPath(const wchar_t* applicationName, std::wstring& path) const noexcept
try
{
    if (applicationName == nullptr)
    {
        return false;
    }
    const std::wstring valueName = std::wstring(kControllerPathPrefix) + applicationName;
    Basalt::CObfuscatedRegKey key;
    return key.Open(HKEY_LOCAL_MACHINE, kLogSettingsKey, KEY_READ) == ERROR_SUCCESS &&
           key.ReadString(valueName.c_str(), path) == ERROR_SUCCESS;
}
catch (const std::exception&)
{
    return false;
}

} // namespace ETWLogging
