#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "base/RegKey.h"
#include "support/ServiceScope.h"
#include "support/TestFolder.h"

/// Below HKEY_LOCAL_MACHINE, in the 32-bit view. The product reads these keys below Software\Tarvex, which
/// the host makes a link to here at its first start, removing what stands there; so tests write here.
inline constexpr wchar_t kHostKey[] = L"Software\\Wow6432Node\\Tarvex\\Platform\\TxSvcHost";
inline constexpr wchar_t kLogKey[] = L"Software\\Wow6432Node\\Tarvex\\Logging";

/// One hosted service of a CTestGroup.
struct TestSubsystem
{
    std::wstring service;    ///< Name of the service; empty is allowed in the middle of the list.
    std::wstring clsid;      ///< As in the registry, "{...}"; empty leaves the group's value out.
    std::wstring modulePath; ///< The subsystem's DLL; empty leaves the CLSID unregistered.
};

/// A service group as an installation leaves it: the group's key, the CLSIDs of its subsystems, and the
/// services in the service control manager, all of them removed at the end of the scope. With the last group
/// the host's key goes, and what all groups share.
///
///     CTestGroup group(L"Core", {{L"alpha", L"{...}", BesideTest(L"Alpha.dll")}, {L"beta", L"{...}", L""}});
///     group.SetRootValue(L"ForceSerialLoads", 0);
///     CGroupRunner host(group.CommandLine());
///
/// Declare it before the CGroupRunner: the host must be gone before its services are removed.
/// Threads: one at a time. Errors: std::runtime_error.
class CTestGroup
{
public:
    CTestGroup(
        const std::wstring& name,
        const std::vector<TestSubsystem>& subsystems,
        const std::wstring& hostPath = BesideTest(L"TxSvHost.exe"));
    ~CTestGroup();
    CTestGroup(const CTestGroup&) = delete;
    CTestGroup& operator=(const CTestGroup&) = delete;

    /// "<host>" /Group: the services' image path, and what a CGroupRunner starts.
    [[nodiscard]] const std::wstring& CommandLine() const noexcept { return m_commandLine; }

    /// The group's key, open for reading and writing; a further value or key below it is removed with it.
    [[nodiscard]] Basalt::CRegKey& Key() noexcept { return m_key; }

    /// Writes a setting that all groups share ("ForceSerialLoads", "WSSEnable", ...).
    static void SetRootValue(const std::wstring& name, DWORD value);

private:
    void registerSubsystem(const TestSubsystem& subsystem);

    std::wstring m_path; ///< Of the group's key.
    std::wstring m_commandLine;
    std::vector<std::wstring> m_classKeys;
    Basalt::CRegKey m_key;
    std::vector<CServiceScope> m_services;
};
