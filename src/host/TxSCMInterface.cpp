#include "host/TxSCMInterface.h"

#include <cwchar>

#include "logging/Log.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSCMInterface";

} // namespace

void CServiceTable::Clear() noexcept
{
    m_entries.clear();
    m_names.clear();
}

void CServiceTable::Append(const wchar_t* name, LPSERVICE_MAIN_FUNCTIONW serviceMain)
{
    wchar_t* copy = nullptr;
    if (name != nullptr)
    {
        const std::size_t size = std::wcslen(name) + 1;
        m_names.push_back(std::make_unique<wchar_t[]>(size));
        copy = m_names.back().get();
        std::wmemcpy(copy, name, size);
    }
    m_entries.push_back({copy, serviceMain});
}

BOOL CTxSCMInterface::StartDispatcher(const SERVICE_TABLE_ENTRYW* table) noexcept
{
    return ::StartServiceCtrlDispatcherW(table);
}

bool CTxSCMInterface::AddService(const wchar_t* name, LPSERVICE_MAIN_FUNCTIONW serviceMain)
{
    constexpr wchar_t kFunction[] = L"CTxSCMInterface::AddService";
    if (serviceMain == nullptr)
    {
        TX_LOG(LogError, kFunction, L"The service main function pointer is null");
        return false;
    }
    if (name == nullptr || *name == L'\0')
    {
        TX_LOG(LogError, kFunction, L"The service name is empty");
        return false;
    }
    m_services.push_back({name, serviceMain});
    return true;
}

bool CTxSCMInterface::LoadServicesIntoArray(CServiceTable& table) const
{
    if (m_services.empty())
    {
        TX_LOG(
            LogError,
            L"CTxSCMInterface::LoadServicesIntoArray",
            L"There are no services to run - add the services first");
        return false;
    }
    table.Clear();
    for (const Service& service : m_services)
    {
        table.Append(service.name.c_str(), service.serviceMain);
    }
    table.Append(nullptr, nullptr);
    return table.Size() > 1;
}

DWORD CTxSCMInterface::RegisterServicesToSCM()
{
    constexpr wchar_t kFunction[] = L"CTxSCMInterface::RegisterServicesToSCM";
    TX_LOG(LogNormal, kFunction, L"The service process is starting");
    CServiceTable table;
    if (!LoadServicesIntoArray(table))
    {
        // Level 1 on purpose: the cause has just been logged as an error.
        TX_LOG(LogNormal, kFunction, L"Failed to load the services SERVICE_TABLE_ENTRY array");
        return ERROR_INTERNAL_ERROR;
    }

    TX_LOG(LogNormal, kFunction, L"Starting the service control dispatcher");
    const BOOL started = StartDispatcher(table.Data());
    const DWORD error = ::GetLastError();
    TX_LOG(LogNormal, kFunction, L"Service control dispatcher returned 0x%08X", error);
    if (!started)
    {
        TX_LOG(LogError, kFunction, L"StartServiceCtrlDispatcher failed (GLE=0x%08X)", error);
        return error;
    }
    TX_LOG(LogNormal, kFunction, L"The service process is stopping");
    return ERROR_SUCCESS;
}
