#include "logging/settings/LogProperties.h"

#include <exception>

#include "logging/settings/LogSettingsReader.h"

namespace ETWLogging
{

bool LogProperties::GetControllerPath(const wchar_t* applicationName, std::wstring& path) const noexcept
try
{
    return applicationName != nullptr &&
           CLogSettingsReader().ReadControllerPath(applicationName, path) != LogSettingOrigin::Default;
}
catch (const std::exception&)
{
    return false;
}

} // namespace ETWLogging
