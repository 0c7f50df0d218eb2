#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "contract/LogEntry.h"
#include "support/TestFolder.h"

/// Below HKEY_LOCAL_MACHINE, in the 32-bit view. The product reads these keys below Software\Tarvex, which
/// the host makes a link to here at its first start, removing what stands there; so tests write here.
inline constexpr wchar_t kHostKey[] = L"Software\\Wow6432Node\\Tarvex\\Platform\\TxSvcHost";
inline constexpr wchar_t kLogKey[] = L"Software\\Wow6432Node\\Tarvex\\Logging";

/// One hosted service of a group.
struct TestSubsystem
{
    std::wstring service;    ///< Name of the service.
    std::wstring clsid;      ///< As in the registry, "{...}"; empty leaves the group's value out.
    std::wstring modulePath; ///< The subsystem's DLL; empty leaves the CLSID unregistered.
};

/// The product as it is installed here: nothing at first.
/// What goes at first are the product's keys and the link to them, at the end what was added here and the
/// settings of host and log; the link stays.
///
/// Declare it before the CGroupRunner: the host must be gone before its services are removed.
/// Threads: one at a time. Errors: std::runtime_error.
class CInstallation
{
public:
    CInstallation();
    ~CInstallation();
    CInstallation(const CInstallation&) = delete;
    CInstallation& operator=(const CInstallation&) = delete;

    /// @return "<host>" /Group: the services' image path, and what a CGroupRunner starts.
    std::wstring AddGroup(
        const std::wstring& name,
        const std::vector<TestSubsystem>& subsystems,
        const std::wstring& hostPath = BesideTest(L"TxSvHost.exe"));
    void AddClass(const std::wstring& clsid, const std::wstring& modulePath);
    /// An entry of the service manager; one that a broken run left is replaced.
    void AddService(const std::wstring& name, const std::wstring& imagePath);
    /// Has a key removed at the end.
    void AddKey(const std::wstring& path) { m_keys.push_back(path); }

private:
    std::vector<std::wstring> m_services;
    std::vector<std::wstring> m_keys;
};

/// Stops the service if it runs, waits for the end of its process, which must not outlive its entry, and
/// removes the entry.
void RemoveService(const std::wstring& name);

/// Opens a service of the local manager; null on failure.
[[nodiscard]] Basalt::CServiceHandle OpenServiceByName(const std::wstring& name, DWORD access);
/// What the manager says; all 0 for a service that does not exist.
[[nodiscard]] SERVICE_STATUS_PROCESS QueryService(const std::wstring& name);
/// Waits until the manager says that the service is in this state.
/// @param process ends the wait as well; null for none.
/// @return whether the state was reached in time.
[[nodiscard]] bool WaitForServiceState(
    const std::wstring& name, DWORD state, DWORD timeoutMs, HANDLE process = nullptr);
[[nodiscard]] bool WaitForServiceState(
    const Basalt::CServiceHandle& service, DWORD state, DWORD timeoutMs, HANDLE process);

/// As the log shows it; empty for what begins no message.
[[nodiscard]] std::wstring LevelName(const ETWLogging::LogEntry& line);

/// Has every host that starts from now on write its log into a text file, all fields and all levels, and
/// reads it. It needs a CInstallation, which takes the settings away again.
class CHostLog
{
public:
    /// @param folder absolute; the host creates it when it is missing. @throws std::runtime_error
    explicit CHostLog(const std::wstring& folder);

    /// What was written until now, by any process; empty while there is no file.
    [[nodiscard]] std::vector<ETWLogging::LogEntry> Lines() const;
    /// Number of messages of this level whose text contains the part.
    [[nodiscard]] std::size_t Count(const std::wstring& level, const std::wstring& part) const;

private:
    std::wstring m_path;
};
