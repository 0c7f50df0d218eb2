#pragma once

#include <windows.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "contract/HostSettings.h"
#include "txsvcctl/service/RegistryChange.h"

namespace TxCtl
{

/// A number of the hosts' configuration, as a host would read it.
struct HostSettingReport
{
    Contract::HostSetting setting{};
    DWORD value = 0; ///< What applies.
    bool isDefault = false;
    std::wstring problem; ///< What is there but does not count; empty when there is nothing of the kind.
};

/// Upper and lower edge of the working-set size that a group has been seen to need, in bytes.
struct LearntBand
{
    DWORD from = 0;
    DWORD to = 0;
};

/// The hosts' configuration below the 32-bit key. Names are compared as the registry does.
/// All operations throw CToolError, with ExitCode::Usage for names and values that are wrong in themselves.
class CHostStore
{
public:
    [[nodiscard]] static const std::vector<Contract::HostSetting>& Settings();

    [[nodiscard]] HostSettingReport Get(const std::wstring& name) const;
    void Set(CRegistryChange& change, const std::wstring& name, const std::wstring& value) const;
    void Unset(const std::wstring& name) const;

    /// Nothing until a host of the group has learnt it.
    [[nodiscard]] std::optional<LearntBand> Band(const std::wstring& group) const;
    void ResetBand(const std::wstring& group) const;

    /// The services that first-run gating lets pass, as the registry has them.
    [[nodiscard]] std::vector<std::wstring> Excluded(const std::wstring& group) const;
    /// Those of the services that do not run before the first-run set-up is over; none once it is.
    [[nodiscard]] std::vector<std::wstring> WaitForFirstRun(
        const std::wstring& group, std::vector<std::wstring> services) const;
    void Exclude(CRegistryChange& change, const std::wstring& group, const std::wstring& service) const;
    void Include(CRegistryChange& change, const std::wstring& group, const std::wstring& service) const;

    /// The number that Set would store.
    [[nodiscard]] DWORD Check(const std::wstring& name, const std::wstring& value) const;
};

/// "15.0 MiB"
[[nodiscard]] std::wstring InMiB(double bytes);
/// "15.0 MiB to 20.0 MiB"
[[nodiscard]] std::wstring FormatBand(const LearntBand& band);
/// In bytes; null without a band.
[[nodiscard]] nlohmann::ordered_json BandAsJson(const std::optional<LearntBand>& band);

/// Whether the update manager works on an update: hosts that start meanwhile may end at once.
[[nodiscard]] bool IsUpdateRunning();

} // namespace TxCtl
