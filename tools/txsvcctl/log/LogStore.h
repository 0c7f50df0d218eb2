#pragma once

#include <optional>
#include <string>
#include <vector>

#include "logging/settings/LogSettingsReader.h"

namespace TxCtl
{

/// A logging setting as a host would find it.
struct LogSettingReport
{
    std::wstring name;  ///< as the command line has it
    std::wstring value; ///< what applies, in the form that Set takes
    ETWLogging::LogSettingOrigin origin = ETWLogging::LogSettingOrigin::Default;
    std::wstring unusable; ///< what was passed over on the way there; empty when nothing was
};

/// "log.ini", "registry" or "default".
[[nodiscard]] std::wstring OriginName(ETWLogging::LogSettingOrigin origin);

/// The logging settings of all groups. They are stored scrambled below the 32-bit key and shown in clear.
/// All operations throw CToolError, with ExitCode::Usage for names and values that are wrong in themselves.
class CLogStore
{
public:
    /// @param iniPath the hosts' settings file, which comes before the registry; it need not exist.
    explicit CLogStore(std::wstring iniPath = ETWLogging::LogIniPath()) : m_iniPath(std::move(iniPath)) {}

    /// All but the controllers of other applications than the host.
    [[nodiscard]] static std::vector<std::wstring> Names();

    /// What a logger would be set up with.
    [[nodiscard]] ETWLogging::LogSettings Settings() const;
    [[nodiscard]] LogSettingReport Get(const std::wstring& name) const;

    /// Changes the registry.
    void Set(const std::wstring& name, const std::wstring& value) const;
    /// @return false when the registry does not have it.
    bool Unset(const std::wstring& name) const;

    /// Where they are stored, below HKEY_LOCAL_MACHINE, and under which name.
    [[nodiscard]] static const std::wstring& KeyPath();
    [[nodiscard]] static std::wstring ValueName(const std::wstring& name);

    /// What the registry alone has, in the form that Set takes; nothing when it has none that can be used.
    [[nodiscard]] static std::optional<std::wstring> Stored(const std::wstring& name);

    /// Makes the default folder before any user can, unless another one is configured.
    void TakeDefaultFolder() const;

    /// What Set would refuse, without storing anything.
    void Check(const std::wstring& name, const std::wstring& value) const;

    /// Whether running hosts take a change up, or only those that start after it.
    [[nodiscard]] static bool TakesEffectAtOnce(const std::wstring& name);

private:
    std::wstring m_iniPath;
};

} // namespace TxCtl
