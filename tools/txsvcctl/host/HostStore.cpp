#include "txsvcctl/host/HostStore.h"

#include <algorithm>
#include <cwchar>

#include "TxUpdateClient.h"
#include "base/Owned.h"
#include "base/RegKey.h"
#include "base/Text.h"
#include "contract/Keys.h"
#include "txsvcctl/common/Names.h"
#include "txsvcctl/common/ToolError.h"
#include "txsvcctl/service/RegistryNames.h"

namespace TxCtl
{

namespace
{

std::wstring ExclusionPath(const std::wstring& group)
{
    return GroupPath(group) + L"\\" + Contract::kOobeExclusionKey;
}

const Contract::HostSetting& Find(const std::wstring& name)
{
    const auto& all = CHostStore::Settings();
    const auto found = std::ranges::find_if(
        all, [&name](const Contract::HostSetting& setting) { return IsSameName(setting.name, name); });
    if (found == all.end())
    {
        ThrowUsage(L"'" + name + L"' is no setting of the host: config get shows them all");
    }
    return *found;
}

std::wstring RangeOf(const Contract::HostSetting& setting)
{
    return Basalt::FormatText(L"%u to %u", setting.minimum, setting.maximum);
}

/// @return 0 when there is no such key: nothing is set then.
DWORD ReadNumber(const std::wstring& path, const wchar_t* name, std::optional<DWORD>& value)
{
    Basalt::CRegKey key;
    DWORD status = key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ);
    DWORD number = 0;
    if (status == ERROR_SUCCESS)
    {
        status = key.ReadDword(name, number);
    }
    if (status == ERROR_SUCCESS)
    {
        value = number;
    }
    return status == ERROR_FILE_NOT_FOUND ? DWORD{ERROR_SUCCESS} : status;
}

void DeleteValue(const std::wstring& path, const std::wstring& name)
{
    CRegistryChange change;
    change.DeleteValue(path, name);
    change.Commit();
}

} // namespace

const std::vector<Contract::HostSetting>& CHostStore::Settings()
{
    static const std::vector<Contract::HostSetting> s_all = [] {
        std::vector<Contract::HostSetting> all(
            std::begin(Contract::kWorkingSetSettings), std::end(Contract::kWorkingSetSettings));
        all.insert(
            all.end(),
            {Contract::kBucketRange,
             Contract::kOccurrenceCount,
             Contract::kIdleWaitTime,
             Contract::kForceSerialLoads,
             {Contract::kOobeCheckValue, 0, MAXDWORD, 1}});
        return all;
    }();
    return s_all;
}

HostSettingReport CHostStore::Get(const std::wstring& name) const
{
    const Contract::HostSetting& setting = Find(name);
    HostSettingReport report{setting, setting.fallback, true, {}};
    std::optional<DWORD> value;
    const DWORD status = ReadNumber(HostPath(), setting.name, value);
    if (status == ERROR_DATATYPE_MISMATCH || status == ERROR_INVALID_DATA)
    {
        report.problem = L"no REG_DWORD of 4 bytes";
        return report;
    }
    CheckStatus(status, L"read registry value", HostPath() + L"\\" + setting.name);
    if (value && (*value < setting.minimum || *value > setting.maximum))
    {
        report.problem = Basalt::FormatText(L"%u is not in %s", *value, RangeOf(setting).c_str());
    }
    else if (value)
    {
        report.value = *value;
        report.isDefault = false;
    }
    return report;
}

DWORD CHostStore::Check(const std::wstring& name, const std::wstring& value) const
{
    const Contract::HostSetting& setting = Find(name);
    wchar_t* end = nullptr;
    const unsigned long long number = std::wcstoull(value.c_str(), &end, 0);
    const bool isNumber = !value.empty() && value.front() >= L'0' && value.front() <= L'9' && *end == L'\0';
    if (!isNumber || number < setting.minimum || number > setting.maximum)
    {
        ThrowUsage(
            L"'" + value + L"' is no value for '" + setting.name + L"': give a number, " + RangeOf(setting));
    }
    return static_cast<DWORD>(number);
}

void CHostStore::Set(CRegistryChange& change, const std::wstring& name, const std::wstring& value) const
{
    change.SetNumber(HostPath(), Find(name).name, Check(name, value));
}

void CHostStore::Unset(const std::wstring& name) const
{
    DeleteValue(HostPath(), Find(name).name);
}

std::optional<LearntBand> CHostStore::Band(const std::wstring& group) const
{
    const DWORD width = Get(Contract::kBucketRange.name).value;
    std::optional<DWORD> edge;
    const DWORD status = ReadNumber(GroupPath(group), Contract::kBucketLimitValue, edge);
    if (status != ERROR_SUCCESS || !edge || *edge < width || width == 0)
    {
        return std::nullopt; // Less than one bucket counts as nothing learnt.
    }
    return LearntBand{*edge - width, *edge};
}

void CHostStore::ResetBand(const std::wstring& group) const
{
    DeleteValue(GroupPath(group), Contract::kBucketLimitValue);
}

std::vector<std::wstring> CHostStore::Excluded(const std::wstring& group) const
{
    const std::wstring path = ExclusionPath(group);
    Basalt::CRegKey key;
    const DWORD status = key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ);
    if (status == ERROR_FILE_NOT_FOUND)
    {
        return {};
    }
    CheckStatus(status, L"open registry key", path);
    std::vector<std::wstring> names = ValueNames(key, path);
    std::erase(names, L"");
    return names;
}

std::vector<std::wstring> CHostStore::WaitForFirstRun(
    const std::wstring& group, std::vector<std::wstring> services) const
{
    if (Get(Contract::kOobeCheckValue).value == 0)
    {
        return {};
    }
    for (const std::wstring& excluded : Excluded(group))
    {
        std::erase_if(services, [&excluded](const std::wstring& name) { return IsSameName(name, excluded); });
    }
    return services;
}

void CHostStore::Exclude(
    CRegistryChange& change, const std::wstring& group, const std::wstring& service) const
{
    change.SetNumber(ExclusionPath(group), service, 1);
}

void CHostStore::Include(
    CRegistryChange& change, const std::wstring& group, const std::wstring& service) const
{
    change.DeleteValue(ExclusionPath(group), service);
}

std::wstring InMiB(double bytes)
{
    constexpr double kBytes = 1024.0 * 1024.0;
    return Basalt::FormatText(L"%.1f MiB", bytes / kBytes);
}

std::wstring FormatBand(const LearntBand& band)
{
    return InMiB(band.from) + L" to " + InMiB(band.to);
}

nlohmann::ordered_json BandAsJson(const std::optional<LearntBand>& band)
{
    return band ? nlohmann::ordered_json{{"fromBytes", band->from}, {"toBytes", band->to}} : nullptr;
}

bool IsUpdateRunning()
{
    const std::wstring event = std::wstring(kTxUpdateEventPrefix) + kTxUpdateDefaultInstance;
    return static_cast<bool>(Basalt::CHandle(::OpenEventW(SYNCHRONIZE, FALSE, event.c_str())));
}

} // namespace TxCtl
