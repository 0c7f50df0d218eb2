#pragma once

#include <string>

namespace ETWLogging
{

/// The string value that holds an application's controller library is named so, with the application's name
/// behind it. It is in the key of the logging settings and scrambled like they are.
inline constexpr wchar_t kControllerPathPrefix[] = L"Controller Path ";

/// What is configured about logging beside a logger's own settings (LogSettings.h), read each time.
/// Threads: any.
class LogProperties
{
public:
    /// @param path receives the full path of the log controller library configured for the application.
    /// @return false, and @p path untouched, when none is configured or the value is not usable.
    [[nodiscard]] bool GetControllerPath(const wchar_t* applicationName, std::wstring& path) const noexcept;
};

} // namespace ETWLogging
