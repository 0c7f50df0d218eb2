#pragma once

#include <windows.h>

#include <string>
#include <thread>
#include <vector>

#include "TxSvcSubsystem.h"
#include "base/Owned.h"
#include "support/ImportPatch.h"

/// Stands in for the service control manager in this executable: records handlers and reports.
class CFakeManager
{
public:
    CFakeManager();
    ~CFakeManager();
    [[nodiscard]] bool IsActive() const noexcept { return m_register.IsActive() && m_setStatus.IsActive(); }
    /// RegisterServiceCtrlHandlerExW fails with this error from now on.
    void RefuseRegistration(DWORD error) noexcept;

private:
    CImportPatch m_register;
    CImportPatch m_setStatus;
};

/// One service on a thread of its own, as the host runs it. Stopped and joined at the end of the scope.
class CServiceRun
{
public:
    CServiceRun(
        Basalt::CComReference<ITxSvcSubsystem> subsystem,
        std::wstring name,
        std::vector<std::wstring> arguments = {});
    ~CServiceRun();
    CServiceRun(const CServiceRun&) = delete;
    CServiceRun& operator=(const CServiceRun&) = delete;

    /// @return whether the service reported the state within the time.
    [[nodiscard]] bool WaitFor(DWORD state, DWORD timeoutMs = 10000) const;
    /// Calls the control handler, on the caller's thread.
    DWORD Control(DWORD control) const;
    /// Waits until TxServiceMain has returned and releases the object.
    void Join();

    [[nodiscard]] std::vector<SERVICE_STATUS> Reports() const;
    [[nodiscard]] HRESULT Returned() const noexcept { return m_returned; }
    [[nodiscard]] DWORD Result() const noexcept { return m_result; }

private:
    std::wstring m_name;
    Basalt::CComReference<ITxSvcSubsystem> m_subsystem;
    HRESULT m_returned = E_PENDING;
    DWORD m_result = 0;
    std::thread m_thread;
};
