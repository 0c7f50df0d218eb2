#pragma once

#include <string>

namespace ETWLogging
{

/// What is configured about logging beside a logger's own settings, in the same places as they
/// (LogSettings.h), read each time.
/// Threads: any.
class LogProperties
{
public:
    /// @param path receives the full path of the log controller library configured for the application.
    /// @return false, and @p path untouched, when none is configured or the value is not usable.
    [[nodiscard]] bool GetControllerPath(const wchar_t* applicationName, std::wstring& path) const noexcept;
};

} // namespace ETWLogging
