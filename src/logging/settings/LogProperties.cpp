#include "logging/settings/LogProperties.h"

#include <exception>

#include "logging/settings/LogSettingsReader.h"

namespace ETWLogging
{

bool LogProperties::GetControllerPath(const wchar_t* applicationName, std::wstring& path) const noexcept
try
{
    if (applicationName == nullptr)
    {
        return false;
    }
    std::wstring name = kControllerPathPrefix;
    name += applicationName;
    // Whatever is held counts: the trust check then refuses what is no full path.
    const LogTextSetting setting = {name.c_str(), [](const std::wstring& /*path*/) noexcept { return true; }};
    return CLogSettingsReader().ReadText(setting, path) != LogSettingOrigin::Default;
}
catch (const std::exception&)
{
    return false;
}

} // namespace ETWLogging
