#pragma once

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TxSvcSubsystem.h"
#include "support/ComReference.h"
#include "support/ImportPatch.h"

/// Stands in for the service control manager in this executable: records handlers and reports.
class CFakeManager
{
public:
    struct Service
    {
        LPHANDLER_FUNCTION_EX handler = nullptr;
        void* context = nullptr;
        std::vector<SERVICE_STATUS> reports;
    };

    ~CFakeManager() { s_services.clear(); }
    [[nodiscard]] bool IsActive() const noexcept { return m_register.IsActive() && m_setStatus.IsActive(); }

    static Service Get(const std::wstring& name)
    {
        const std::lock_guard lock(s_mutex);
        return s_services[name];
    }
    static bool WaitFor(const std::wstring& name, DWORD state, DWORD timeoutMs)
    {
        std::unique_lock lock(s_mutex);
        return s_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            const std::vector<SERVICE_STATUS>& reports = s_services[name].reports;
            return std::any_of(reports.begin(), reports.end(), [state](const SERVICE_STATUS& report) {
                return report.dwCurrentState == state;
            });
        });
    }

private:
    static SERVICE_STATUS_HANDLE WINAPI
    registerHandler(const wchar_t* name, LPHANDLER_FUNCTION_EX handler, void* context)
    {
        const std::lock_guard lock(s_mutex);
        Service& service = s_services[name];
        service = {handler, context, {}};
        return reinterpret_cast<SERVICE_STATUS_HANDLE>(&service); // A map's elements stay where they are.
    }
    static BOOL WINAPI setStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status)
    {
        const std::lock_guard lock(s_mutex);
        reinterpret_cast<Service*>(handle)->reports.push_back(*status);
        s_changed.notify_all();
        return TRUE;
    }

    static inline std::mutex s_mutex;
    static inline std::condition_variable s_changed;
    static inline std::map<std::wstring, Service> s_services;
    CImportPatch m_register{"RegisterServiceCtrlHandlerExW", &registerHandler};
    CImportPatch m_setStatus{"SetServiceStatus", &setStatus};
};

/// One service on a thread of its own, as the host runs it. Stopped and joined at the end of the scope.
class CServiceRun
{
public:
    CServiceRun(CComReference<ITxSvcSubsystem> subsystem, std::wstring name)
        : m_name(std::move(name)), m_subsystem(std::move(subsystem))
    {
        m_thread = std::thread([this] {
            LPWSTR argv[] = {m_name.data(), nullptr};
            m_returned = m_subsystem.Get()->TxServiceMain(1, argv, &m_result);
        });
    }
    ~CServiceRun()
    {
        if (m_thread.joinable())
        {
            if (WaitFor(SERVICE_RUNNING))
            {
                Control(SERVICE_CONTROL_STOP);
            }
            m_thread.join();
        }
    }
    CServiceRun(const CServiceRun&) = delete;
    CServiceRun& operator=(const CServiceRun&) = delete;

    /// @return whether the service reported the state within the time.
    [[nodiscard]] bool WaitFor(DWORD state, DWORD timeoutMs = 10000) const
    {
        return CFakeManager::WaitFor(m_name, state, timeoutMs);
    }
    /// Calls the control handler, on the caller's thread.
    DWORD Control(DWORD control) const
    {
        const CFakeManager::Service service = CFakeManager::Get(m_name);
        return service.handler(control, 0, nullptr, service.context);
    }
    /// Waits until TxServiceMain has returned and releases the object.
    void Join()
    {
        m_thread.join();
        m_subsystem.Reset();
    }
    [[nodiscard]] std::vector<SERVICE_STATUS> Reports() const { return CFakeManager::Get(m_name).reports; }
    [[nodiscard]] HRESULT Returned() const noexcept { return m_returned; }
    [[nodiscard]] DWORD Result() const noexcept { return m_result; }

private:
    std::wstring m_name;
    CComReference<ITxSvcSubsystem> m_subsystem;
    HRESULT m_returned = E_PENDING;
    DWORD m_result = 0;
    std::thread m_thread;
};
