#include "support/ServiceScope.h"

#include <utility>

#include "support/Errors.h"

namespace
{

constexpr DWORD kStopTimeoutMs = 10000;
constexpr DWORD kPollMs = 5;
/// The manager keeps a deleted entry until it has closed the last handle to it, those of ended processes too.
constexpr DWORD kGoneTimeoutMs = 10000;

SERVICE_STATUS_PROCESS Query(SC_HANDLE service, const std::wstring& name)
{
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(
            service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
    {
        ThrowError(L"QueryServiceStatusEx(" + name + L")", ::GetLastError());
    }
    return status;
}

Basalt::CServiceHandle CreateEntry(
    SC_HANDLE manager, const std::wstring& name, const std::wstring& imagePath, DWORD serviceType)
{
    for (const ULONGLONG end = ::GetTickCount64() + kGoneTimeoutMs;;)
    {
        Basalt::CServiceHandle service(::CreateServiceW(
            manager,
            name.c_str(),
            name.c_str(),
            SERVICE_ALL_ACCESS,
            serviceType,
            SERVICE_DEMAND_START,
            SERVICE_ERROR_IGNORE,
            imagePath.c_str(),
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr));
        const DWORD error = ::GetLastError();
        if (service)
        {
            return service;
        }
        const bool isLeftover = error == ERROR_SERVICE_EXISTS || error == ERROR_SERVICE_MARKED_FOR_DELETE ||
                                error == ERROR_DUPLICATE_SERVICE_NAME;
        if (!isLeftover || ::GetTickCount64() >= end)
        {
            ThrowError(L"CreateServiceW(" + name + L")", error);
        }
        if (const Basalt::CServiceHandle leftover = OpenServiceByName(name, DELETE))
        {
            ::DeleteService(leftover.Get());
        }
        ::Sleep(kPollMs);
    }
}

} // namespace

CServiceScope::CServiceScope(std::wstring name, const std::wstring& imagePath, DWORD serviceType)
    : m_name(std::move(name))
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    if (!manager)
    {
        ThrowError(L"OpenSCManagerW", ::GetLastError());
    }
    m_service = CreateEntry(manager.Get(), m_name, imagePath, serviceType);
}

CServiceScope::~CServiceScope()
{
    if (!m_service)
    {
        return; // Moved from.
    }
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    auto* const buffer = reinterpret_cast<BYTE*>(&status);
    ::QueryServiceStatusEx(m_service.Get(), SC_STATUS_PROCESS_INFO, buffer, sizeof(status), &needed);
    const Basalt::CHandle process(::OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
    SERVICE_STATUS answer{};
    if (::ControlService(m_service.Get(), SERVICE_CONTROL_STOP, &answer) && process)
    {
        ::WaitForSingleObject(process.Get(), kStopTimeoutMs);
    }
    ::DeleteService(m_service.Get());
    m_service.Reset();
    const ULONGLONG end = ::GetTickCount64() + kGoneTimeoutMs;
    while (OpenServiceByName(m_name, SERVICE_QUERY_STATUS) && ::GetTickCount64() < end)
    {
        ::Sleep(kPollMs);
    }
}

Basalt::CServiceHandle OpenServiceByName(const std::wstring& name, DWORD access)
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return Basalt::CServiceHandle(manager ? ::OpenServiceW(manager.Get(), name.c_str(), access) : nullptr);
}

SERVICE_STATUS_PROCESS QueryService(const std::wstring& name)
{
    const Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_QUERY_STATUS);
    if (!service)
    {
        ThrowError(L"OpenServiceW(" + name + L")", ::GetLastError());
    }
    return Query(service.Get(), name);
}

bool WaitForServiceState(const std::wstring& name, DWORD state, DWORD timeoutMs, HANDLE process)
{
    const Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_QUERY_STATUS);
    if (!service)
    {
        ThrowError(L"OpenServiceW(" + name + L")", ::GetLastError());
    }
    const ULONGLONG end = ::GetTickCount64() + timeoutMs;
    for (;;)
    {
        // Both are looked at before the state: what was reached at the last moment counts.
        const bool isOver = ::GetTickCount64() >= end ||
                            (process != nullptr && ::WaitForSingleObject(process, 0) == WAIT_OBJECT_0);
        if (Query(service.Get(), name).dwCurrentState == state)
        {
            return true;
        }
        if (isOver)
        {
            return false;
        }
        ::Sleep(kPollMs);
    }
}

const wchar_t* ServiceStateName(DWORD state) noexcept
{
    constexpr const wchar_t* kNames[] = {
        L"unknown",
        L"stopped",
        L"start pending",
        L"stop pending",
        L"running",
        L"continue pending",
        L"pause pending",
        L"paused"};
    return state < std::size(kNames) ? kNames[state] : kNames[0];
}
