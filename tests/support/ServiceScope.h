#pragma once

#include <windows.h>

#include <string>

#include "base/Owned.h"
#include "txsvcctl/service/ServiceManager.h"

/// A service entry in the service control manager, removed at the end of the scope.
class CServiceScope
{
public:
    /// Creates the entry, started on demand; one that an earlier, broken run left is replaced.
    /// @param imagePath program in quotes and its arguments.
    /// @throws std::runtime_error
    CServiceScope(
        std::wstring name, const std::wstring& imagePath, DWORD serviceType = SERVICE_WIN32_SHARE_PROCESS);
    /// Stops the service if it runs, and waits for the end of its process, which must not outlive its entry.
    ~CServiceScope();
    CServiceScope(CServiceScope&& other) noexcept = default;
    CServiceScope& operator=(CServiceScope&&) = delete;

private:
    std::wstring m_name;
    Basalt::CServiceHandle m_service;
};

/// Opens a service of the local manager; null on failure.
[[nodiscard]] Basalt::CServiceHandle OpenServiceByName(const std::wstring& name, DWORD access);

/// What the manager says. @throws std::runtime_error, also for a service that does not exist.
[[nodiscard]] SERVICE_STATUS_PROCESS QueryService(const std::wstring& name);

/// Waits until the manager says that the service is in this state.
/// @param process ends the wait as well; null for none.
/// @return whether the state was reached in time. @throws std::runtime_error when it cannot be asked.
[[nodiscard]] bool WaitForServiceState(
    const std::wstring& name, DWORD state, DWORD timeoutMs, HANDLE process = nullptr);

[[nodiscard]] inline std::wstring ServiceStateName(DWORD state)
{
    return TxCtl::StateName({state});
}
