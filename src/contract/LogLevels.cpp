#include "contract/LogLevels.h"

namespace ETWLogging
{

const wchar_t* LogLevelName(DWORD level) noexcept
{
    switch (level)
    {
    case LogNormal:
        return L"Normal";
    case LogWarning:
        return L"Warning";
    case LogInformation:
    case LogInformation2:
        return L"Information";
    case LogError:
        return L"Error";
    case LogCritical:
        return L"Critical";
    default:
        return nullptr;
    }
}

} // namespace ETWLogging
