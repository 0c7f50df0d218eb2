#include "config/TxSvcHostConfig.h"

#include <windows.h>

#include <utility>

#include "base/RegKey.h"
#include "config/RegistryStore.h"
#include "contract/HostSettings.h"
#include "contract/Keys.h"
#include "contract/ServiceList.h"
#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcHostConfig";

void Load(HKEY key, const Contract::WorkingSetSetting& setting, WorkingSetRecord& record) noexcept
{
    CRegistryStore::QueryRegistryDWORDValue(
        key, setting.name, record.*setting.field, setting.minimum, setting.maximum, setting.fallback);
}

/// Moves the occurrence count to its right name. Its range is checked when it is read there.
void RenameOccurrenceCount(HKEY key) noexcept
{
    DWORD value = 0;
    if (!CRegistryStore::QueryRegistryDWORDValue(key, Contract::kMisspeltOccurrenceCount, value))
    {
        return;
    }
    // A failed write is logged by the store; the misspelt value goes all the same, or each start would try
    // again.
    static_cast<void>(CRegistryStore::SetRegistryDWORDValue(key, Contract::kOccurrenceCount.name, value));
    ::RegDeleteValueW(key, Contract::kMisspeltOccurrenceCount);
    TX_LOG(
        LogNormal,
        L"CTxSvcHostConfig::LoadWorkingSetValues",
        L"Replaced %s with %s",
        Contract::kMisspeltOccurrenceCount,
        Contract::kOccurrenceCount.name);
}

/// The host asks for write access too: what it may not change, it does not serve.
DWORD OpenForReadAndWrite(const std::wstring& path, Basalt::CRegKey& key) noexcept
{
    return key.Open(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ | KEY_WRITE);
}

} // namespace

CTxSvcHostConfig* CTxSvcHostConfig::s_instance = nullptr;

CTxSvcHostConfig& CTxSvcHostConfig::GetInstance()
{
    if (s_instance == nullptr)
    {
        s_instance = new CTxSvcHostConfig;
    }
    return *s_instance;
}

void CTxSvcHostConfig::ReleaseInstance() noexcept
{
    delete std::exchange(s_instance, nullptr);
}

bool CTxSvcHostConfig::Init(const std::wstring& groupName)
{
    if (groupName.empty())
    {
        return false;
    }
    Basalt::CRegKey rootKey;
    if (!CRegistryStore::OpenRegistryKey(HKEY_LOCAL_MACHINE, Contract::kHostKey, rootKey))
    {
        return false;
    }
    static_cast<void>(
        CRegistryStore::QueryRegistryStringValue(rootKey.Get(), Contract::kInstallDirValue, m_installDir));
    loadWorkingSetValues(rootKey.Get());
    m_groupName = groupName;
    loadGroupValues();
    loadSerialLoadFlag(rootKey.Get());
    dumpWorkingSetValues();
    m_bInitialized = true;
    return true;
}

bool CTxSvcHostConfig::DeInit() noexcept
{
    m_groupName.clear();
    m_installDir.clear();
    m_oobeExclusionList.clear();
    m_bInitialized = false;
    return true;
}

bool CTxSvcHostConfig::GetGroupName(std::wstring& groupName) const
{
    if (m_groupName.empty())
    {
        return false;
    }
    groupName = m_groupName;
    return true;
}

bool CTxSvcHostConfig::GetWorkingSetRecord(WorkingSetRecord& record) const noexcept
{
    if (!m_bInitialized)
    {
        return false;
    }
    record = m_workingSet;
    return true;
}

bool CTxSvcHostConfig::GetServices(std::vector<std::wstring>& services) const
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostConfig::GetServices";
    if (m_groupName.empty())
    {
        return false;
    }
    const std::wstring path = groupKeyPath();
    Basalt::CRegKey key;
    if (OpenForReadAndWrite(path, key) != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"Failed to open registry key to look up service list %s", path);
        return false;
    }
    std::wstring list;
    if (key.ReadString(L"", list) != ERROR_SUCCESS)
    {
        TX_LOG(LogCritical, kFunction, L"Unable to read list of services from %s", path);
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"The supported services are: %s", list);
    services = Contract::SplitServiceList(list);
    return true;
}

bool CTxSvcHostConfig::GetSvcCLSID(const std::wstring& service, std::wstring& clsid) const
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostConfig::GetSvcCLSID";
    if (!m_bInitialized)
    {
        return false;
    }
    Basalt::CRegKey key;
    if (OpenForReadAndWrite(groupKeyPath(), key) != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"Failed to open registry key to look up service CLSID");
        return false;
    }
    std::wstring text;
    const DWORD status = key.ReadString(service.c_str(), text);
    TX_LOG(LogNormal, kFunction, L"Mapping %s => %s (0x%08X)", service, text, status);
    if (status != ERROR_SUCCESS)
    {
        return false;
    }
    clsid = std::move(text);
    return true;
}

bool CTxSvcHostConfig::GetIsOobeCheckRequired(DWORD& required) const noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostConfig::GetIsOobeCheckRequired";
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, Contract::kHostKey, KEY_READ | KEY_WRITE) != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"Failed to open registry key IsOobeCheckRequired");
        return false;
    }
    if (key.ReadDword(Contract::kOobeCheckValue, required) != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"Cant read registry key IsOobeCheckRequired");
        return false;
    }
    return true;
}

bool CTxSvcHostConfig::SetIsOobeCheckRequired(DWORD required) noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostConfig::SetIsOobeCheckRequired";
    Basalt::CRegKey key;
    if (key.Open(HKEY_LOCAL_MACHINE, Contract::kHostKey, KEY_READ | KEY_WRITE) != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"Failed to open registry key %s", Contract::kHostKey);
        return false;
    }
    if (key.WriteDword(Contract::kOobeCheckValue, required) != ERROR_SUCCESS)
    {
        TX_LOG(LogError, kFunction, L"Cant set registry key to IsOobeCheckRequired");
        return false;
    }
    return true;
}

bool CTxSvcHostConfig::SetGroupOptimalBucketUpperLimit(DWORD upperLimit) noexcept
{
    if (!m_bInitialized)
    {
        return false;
    }
    if (!storeOptimalBucketUpperLimit(upperLimit))
    {
        TX_LOG(
            LogWarning,
            L"CTxSvcHostConfig::SetGroupOptimalBucketUpperLimit",
            L"Failed to set the optimal bucket upper limit");
        return false;
    }
    return true;
}

bool CTxSvcHostConfig::storeOptimalBucketUpperLimit(DWORD upperLimit) const noexcept
{
    Basalt::CRegKey rootKey;
    Basalt::CRegKey groupKey;
    return CRegistryStore::OpenRegistryKey(HKEY_LOCAL_MACHINE, Contract::kHostKey, rootKey) &&
           CRegistryStore::OpenOrCreateRegistryKey(rootKey.Get(), m_groupName.c_str(), groupKey) &&
           CRegistryStore::SetRegistryDWORDValue(groupKey.Get(), Contract::kBucketLimitValue, upperLimit);
}

std::wstring CTxSvcHostConfig::groupKeyPath() const
{
    return Contract::GroupKey(Contract::kHostKey, m_groupName);
}

void CTxSvcHostConfig::loadWorkingSetValues(HKEY rootKey) noexcept
{
    for (const Contract::WorkingSetSetting& setting : Contract::kWorkingSetSettings)
    {
        Load(rootKey, setting, m_workingSet);
    }
    // No range: a bucket as small or large as the operator likes.
    if (!CRegistryStore::QueryRegistryDWORDValue(
            rootKey, Contract::kBucketRange.name, m_workingSet.dwBucketRange))
    {
        m_workingSet.dwBucketRange = Contract::kBucketRange.fallback;
        TX_LOG(
            LogWarning, L"CTxSvcHostConfig::LoadWorkingSetValues", L"Failed to read Bucket range reg value");
    }
    RenameOccurrenceCount(rootKey);
    Load(rootKey, Contract::kOccurrenceCount, m_workingSet);
    Load(rootKey, Contract::kIdleWaitTime, m_workingSet);
}

void CTxSvcHostConfig::loadGroupValues()
{
    Basalt::CRegKey groupKey;
    if (CRegistryStore::OpenRegistryKey(HKEY_LOCAL_MACHINE, groupKeyPath().c_str(), groupKey) &&
        !CRegistryStore::QueryRegistryDWORDValue(
            groupKey.Get(), Contract::kBucketLimitValue, m_workingSet.stOptimalBucketUpperLimit))
    {
        m_workingSet.stOptimalBucketUpperLimit = 0;
        TX_LOG(
            LogWarning,
            L"CTxSvcHostConfig::Init",
            L"Failed to read REG_WSS_OPTIMAL_BUCKET_UPPER_LIMIT_VALUE_NAME reg value");
    }
    if (!loadOobeExclusionList())
    {
        TX_LOG(
            LogNormal,
            L"CTxSvcHostConfig::Init",
            L"Failed to load the OOBE exclusion list for the group '%s'",
            m_groupName);
    }
}

bool CTxSvcHostConfig::loadOobeExclusionList()
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostConfig::LoadOobeExclusionList";
    const std::wstring path = groupKeyPath() + L"\\" + Contract::kOobeExclusionKey;
    TX_LOG(LogNormal, kFunction, L"Enumerating OOBE exclusion list, reg key path '%s'", path);
    Basalt::CRegKey key;
    if (!CRegistryStore::OpenRegistryKey(HKEY_LOCAL_MACHINE, path.c_str(), key))
    {
        TX_LOG(LogNormal, kFunction, L"Failed to open exclusion list reg key");
        return false;
    }
    if (!CRegistryStore::EnumerateRegistryValuesIntoContainer(key.Get(), m_oobeExclusionList, true))
    {
        TX_LOG(LogWarning, kFunction, L"Failed to enum exclusion list values");
        return false;
    }
    TX_LOG(LogNormal, kFunction, L"Successfully enumerated OOBE exclusion list");
    return true;
}

void CTxSvcHostConfig::loadSerialLoadFlag(HKEY rootKey) noexcept
{
    constexpr Contract::HostSetting kSetting = Contract::kForceSerialLoads;
    DWORD serial = kSetting.fallback;
    if (CRegistryStore::QueryRegistryDWORDValue(
            rootKey, kSetting.name, serial, kSetting.minimum, kSetting.maximum, kSetting.fallback))
    {
        m_bSerialLoad = serial == 1;
    }
    TX_LOG(
        LogNormal,
        L"CTxSvcHostConfig::Init",
        L"Service loading will be %s",
        m_bSerialLoad ? L"serial" : L"parallel");
}

void CTxSvcHostConfig::dumpWorkingSetValues() const noexcept
{
    constexpr wchar_t kFunction[] = L"CTxSvcHostConfig::Init";
    TX_LOG(LogNormal, kFunction, L"Working set configuration values:");
    TX_LOG(LogNormal, kFunction, L" dwEnabled                =%d", m_workingSet.dwEnabled);
    TX_LOG(LogNormal, kFunction, L" dwLoggingEnabled         =%d", m_workingSet.dwLoggingEnabled);
    TX_LOG(LogNormal, kFunction, L" dwTimerIntervalBase      =%d", m_workingSet.dwTimerIntervalBase);
    TX_LOG(LogNormal, kFunction, L" dwCpuUsageLimit          =%d", m_workingSet.dwCpuUsageLimit);
    TX_LOG(LogNormal, kFunction, L" dwCpuUsageDuration       =%d", m_workingSet.dwCpuUsageDuration);
    TX_LOG(LogNormal, kFunction, L" dwRandomizationRange     =%d", m_workingSet.dwRandomizationRange);
    TX_LOG(LogNormal, kFunction, L" dwLimitFactor            =%d", m_workingSet.dwLimitFactor);
    TX_LOG(LogNormal, kFunction, L" stOptimalBucketUpperLimit=%d", m_workingSet.stOptimalBucketUpperLimit);
    TX_LOG(LogNormal, kFunction, L" dwBucketRange            =%d", m_workingSet.dwBucketRange);
    TX_LOG(LogNormal, kFunction, L" dwOptimalOccuranceCount  =%d", m_workingSet.dwOptimalOccuranceCount);
    TX_LOG(LogNormal, kFunction, L" dwProcessIdleWaitTime    =%d", m_workingSet.dwProcessIdleWaitTime);
}
