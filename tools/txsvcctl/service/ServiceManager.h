#pragma once

#include <windows.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/Owned.h"

namespace TxCtl
{

struct ServiceConfig
{
    DWORD type = 0;
    DWORD startType = 0;
    std::wstring imagePath;
    std::wstring displayName;
    std::wstring account;
    std::optional<DWORD> sidType; ///< Nothing where the system does not know of it.
};

/// What an entry is to become. Absent fields stay as they are; a new entry takes its name for the display
/// name and starts on demand.
struct ServiceSettings
{
    std::wstring imagePath;
    std::optional<std::wstring> displayName;
    std::optional<DWORD> startType;
};

struct ServiceState
{
    DWORD state = 0;     ///< SERVICE_RUNNING and the like
    DWORD processId = 0; ///< 0 when no process runs it
    DWORD exitCode = 0;  ///< a Win32 error, or ERROR_SERVICE_SPECIFIC_ERROR
    DWORD serviceExitCode = 0;
};

/// "running"
[[nodiscard]] std::wstring StateName(const ServiceState& state);
/// "exit code 5 (error 5: Access is denied.)"
[[nodiscard]] std::wstring DescribeExit(const ServiceState& state);
/// "running, process 1234"
[[nodiscard]] std::wstring DescribeState(const ServiceState& state);

/// The machine's service control manager. All operations throw CToolError.
/// @see https://learn.microsoft.com/windows/win32/services/service-control-manager
class CServiceManager
{
public:
    /// @param access SC_MANAGER_CONNECT for looking, with SC_MANAGER_CREATE_SERVICE for making entries.
    explicit CServiceManager(DWORD access);

    /// All entries but drivers', by their names. It needs SC_MANAGER_ENUMERATE_SERVICE.
    [[nodiscard]] std::map<std::wstring, SERVICE_STATUS_PROCESS> States() const;

    /// Nothing when there is no such entry.
    /// @param state receives the state too.
    [[nodiscard]] std::optional<ServiceConfig> FindConfig(
        const std::wstring& name, std::optional<ServiceState>* state = nullptr) const;
    [[nodiscard]] std::optional<ServiceState> FindState(const std::wstring& name) const;

    /// Makes or changes the entry of a share-process service.
    void Create(const std::wstring& name, const ServiceSettings& settings) const;
    void Change(const std::wstring& name, const ServiceSettings& settings) const;
    void Delete(const std::wstring& name) const;

    /// Starts the service, unless it runs, and waits until it runs. A service that ends before that has
    /// failed.
    [[nodiscard]] ServiceState Start(const std::wstring& name, DWORD timeoutMs) const;
    /// Stops the service, unless it is stopped, and waits until it is.
    [[nodiscard]] ServiceState Stop(const std::wstring& name, DWORD timeoutMs) const;

private:
    [[nodiscard]] Basalt::CServiceHandle open(
        const std::wstring& name, DWORD access, const wchar_t* operation) const;
    /// Null when there is no such entry.
    [[nodiscard]] Basalt::CServiceHandle find(const std::wstring& name, DWORD access) const;

    Basalt::CServiceHandle m_manager;
};

} // namespace TxCtl
