#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "contract/WorkingSetRecord.h"

/// What the registry says about the service group that this process runs. Read once, in Init; the keys and
/// values are listed in docs/configuration.md.
///
/// Threads: no locks. The host's main thread creates, initialises, de-initialises and releases it while no
/// service runs; in between service threads only read. SetGroupOptimalBucketUpperLimit and the first-run pair
/// touch the registry alone.
/// Errors: operations log what failed and return false; out-parameters stay untouched then.
class CTxSvcHostConfig
{
public:
    CTxSvcHostConfig(const CTxSvcHostConfig&) = delete;
    CTxSvcHostConfig& operator=(const CTxSvcHostConfig&) = delete;

    /// The process's one instance, made on the first call.
    [[nodiscard]] static CTxSvcHostConfig& GetInstance();
    static void ReleaseInstance() noexcept;

    /// Reads the group's configuration. Values that are missing or wrong get their defaults.
    /// @return false for an empty name and when the root key cannot be opened.
    [[nodiscard]] bool Init(const std::wstring& groupName);
    bool DeInit() noexcept;

    [[nodiscard]] bool GetGroupName(std::wstring& groupName) const;
    /// Empty while not initialised.
    [[nodiscard]] const wchar_t* GroupName() const noexcept { return m_groupName.c_str(); }
    /// True when the group's services load one after another; false also while not initialised.
    [[nodiscard]] bool IsSerialLoad() const noexcept { return m_bInitialized && m_bSerialLoad; }
    [[nodiscard]] bool GetWorkingSetRecord(WorkingSetRecord& record) const noexcept;

    /// Reads the names of the group's services, in their order.
    [[nodiscard]] bool GetServices(std::vector<std::wstring>& services) const;
    /// Reads the CLSID of a service's subsystem, in the text form of the registry.
    [[nodiscard]] bool GetSvcCLSID(const std::wstring& service, std::wstring& clsid) const;

    [[nodiscard]] bool GetIsOobeCheckRequired(DWORD& required) const noexcept;
    bool SetIsOobeCheckRequired(DWORD required) noexcept;
    /// Lower-cased names of the services that first-run gating lets pass.
    [[nodiscard]] const std::vector<std::wstring>& GetOobeExclusionList() const noexcept
    {
        return m_oobeExclusionList;
    }

    /// Stores the learnt band's upper edge, in bytes; 0 clears it. The record in memory is not changed.
    bool SetGroupOptimalBucketUpperLimit(DWORD upperLimit) noexcept;

private:
    CTxSvcHostConfig() = default;
    ~CTxSvcHostConfig() = default;

    [[nodiscard]] std::wstring groupKeyPath() const;
    [[nodiscard]] bool storeOptimalBucketUpperLimit(DWORD upperLimit) const noexcept;
    void loadWorkingSetValues(HKEY rootKey) noexcept;
    void loadGroupValues();
    bool loadOobeExclusionList();
    void loadSerialLoadFlag(HKEY rootKey) noexcept;
    void dumpWorkingSetValues() const noexcept;

    static CTxSvcHostConfig* s_instance;

    bool m_bInitialized = false;
    std::wstring m_groupName;
    std::wstring m_installDir;
    std::vector<std::wstring> m_oobeExclusionList;
    bool m_bSerialLoad = true;
    WorkingSetRecord m_workingSet;
};
