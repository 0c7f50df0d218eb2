#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

/// A service table as StartServiceCtrlDispatcherW takes it, together with the names that it points at.
class CServiceTable
{
public:
    void Clear() noexcept;
    /// @param name copied; null for the entry that ends the table.
    void Append(const wchar_t* name, LPSERVICE_MAIN_FUNCTIONW serviceMain);

    [[nodiscard]] std::size_t Size() const noexcept { return m_entries.size(); }
    [[nodiscard]] const SERVICE_TABLE_ENTRYW* Data() const noexcept { return m_entries.data(); }

private:
    std::vector<std::unique_ptr<wchar_t[]>> m_names;
    std::vector<SERVICE_TABLE_ENTRYW> m_entries;
};

/// Collects the services of the group and runs the service control dispatcher for them.
///
/// Threads: the process's main thread; the service control manager runs each service on a thread of its own.
/// @see https://learn.microsoft.com/windows/win32/api/winsvc/nf-winsvc-startservicectrldispatcherw
class CTxSCMInterface
{
public:
    CTxSCMInterface() = default;
    virtual ~CTxSCMInterface() = default;
    CTxSCMInterface(const CTxSCMInterface&) = delete;
    CTxSCMInterface& operator=(const CTxSCMInterface&) = delete;

    /// Hands the table to the dispatcher and blocks until all services of the process have stopped.
    /// @return what StartServiceCtrlDispatcherW returned; the last error is the call's.
    virtual BOOL StartDispatcher(const SERVICE_TABLE_ENTRYW* table) noexcept;

    /// @param name copied; neither null nor empty.
    /// @throws std::bad_alloc: without memory for the table there is no service to run.
    [[nodiscard]] bool AddService(const wchar_t* name, LPSERVICE_MAIN_FUNCTIONW serviceMain);

    /// Builds the table in the order in which the services were added.
    [[nodiscard]] bool LoadServicesIntoArray(CServiceTable& table) const;

    /// Runs the services; returns when all of them have stopped.
    /// @return 0, ERROR_INTERNAL_ERROR (1359) when there is nothing to run, or why the dispatcher did not
    /// start.
    [[nodiscard]] DWORD RegisterServicesToSCM();

private:
    struct Service
    {
        std::wstring name;
        LPSERVICE_MAIN_FUNCTIONW serviceMain;
    };

    std::vector<Service> m_services;
};
