#pragma once

#include <memory>
#include <string>

#include "base/RegKey.h"
#include "base/ShlObjAPI.h"
#include "base/TrustedModule.h"
#include "logging/settings/LogProperties.h"

namespace ETWLogging
{

/// Finds a trusted copy of the log controller library and keeps the copy that it found open, so that the file
/// stays the one that was checked until it is loaded.
///
/// Nothing is logged and nothing thrown; false is the only way to fail. The event log is told of a library
/// that is there but not trusted.
/// Threads: one.
class LogControllerHelper
{
public:
    /// Takes the three over; the caller's pointers are empty afterwards. None may be null.
    LogControllerHelper(
        std::unique_ptr<Basalt::ShlObjAPI>&& shell,
        std::unique_ptr<Basalt::CRegKey>&& key,
        std::unique_ptr<LogProperties>&& properties) noexcept;
    LogControllerHelper(const LogControllerHelper&) = delete;
    LogControllerHelper& operator=(const LogControllerHelper&) = delete;
    virtual ~LogControllerHelper() = default;

    /// @param path receives where the product's set-up puts the library; it need not be there.
    [[nodiscard]] virtual bool FindInstalledPath(std::wstring& path) noexcept;

    /// The trusted-module check. A file that passes stays open until the next check, LetGo or the end.
    [[nodiscard]] virtual bool IsTrusted(const std::wstring& path) noexcept;

    /// @param path receives the library's path in the running program's folder; it need not be there.
    [[nodiscard]] virtual bool FindBesideModule(std::wstring& path) noexcept;

    /// @return true when there is an installed library and it is trusted.
    [[nodiscard]] virtual bool FindInstalledTrusted(std::wstring& path) noexcept;

    /// Looks beside the program, then where the application's configuration says, then, where it says
    /// nothing, at the installed library. A configured library that is not trusted ends the search: falling
    /// back would hide that somebody changed it.
    /// @param path receives the full path of a trusted library, held open; empty when the result is false.
    [[nodiscard]] virtual bool FindController(const wchar_t* applicationName, std::wstring& path) noexcept;

    /// Closes the file that was found: it is loaded, and may be renamed again.
    void LetGo() noexcept { m_trusted.Close(); }

private:
    std::unique_ptr<Basalt::ShlObjAPI> m_shell;
    std::unique_ptr<Basalt::CRegKey> m_key;
    std::unique_ptr<LogProperties> m_properties;
    Basalt::CTrustedFile m_trusted;
};

} // namespace ETWLogging
