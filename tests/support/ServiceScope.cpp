#include "support/ServiceScope.h"

#include <iterator>
#include <utility>

#include "support/Errors.h"

namespace
{

constexpr DWORD kTimeoutMs = 60000;
constexpr DWORD kPollMs = 5;

SERVICE_STATUS_PROCESS Query(SC_HANDLE service, const std::wstring& name)
{
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    auto* const buffer = reinterpret_cast<BYTE*>(&status);
    if (!::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, buffer, sizeof(status), &needed))
    {
        ThrowError(L"asking for the state of " + name, ::GetLastError());
    }
    return status;
}

void Remove(const std::wstring& name)
{
    ::DeleteService(OpenServiceByName(name, DELETE).Get());
    // The manager keeps a deleted entry until the last handle to it is closed, those of ended processes too.
    const ULONGLONG end = ::GetTickCount64() + kTimeoutMs;
    while (OpenServiceByName(name, SERVICE_QUERY_STATUS) && ::GetTickCount64() < end)
    {
        ::Sleep(kPollMs);
    }
}

} // namespace

CServiceScope::CServiceScope(std::wstring name, const std::wstring& imagePath, DWORD serviceType)
    : m_name(std::move(name))
{
    Remove(m_name); // What a broken run left.
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    m_service.Reset(::CreateServiceW(
        manager.Get(),
        m_name.c_str(),
        m_name.c_str(),
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
    ThrowIfFailed(m_service ? ERROR_SUCCESS : ::GetLastError(), L"creating the service " + m_name);
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
        ::WaitForSingleObject(process.Get(), kTimeoutMs);
    }
    m_service.Reset();
    Remove(m_name);
}

Basalt::CServiceHandle OpenServiceByName(const std::wstring& name, DWORD access)
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return Basalt::CServiceHandle(::OpenServiceW(manager.Get(), name.c_str(), access));
}

SERVICE_STATUS_PROCESS QueryService(const std::wstring& name)
{
    return Query(OpenServiceByName(name, SERVICE_QUERY_STATUS).Get(), name);
}

bool WaitForServiceState(const std::wstring& name, DWORD state, DWORD timeoutMs, HANDLE process)
{
    const Basalt::CServiceHandle service = OpenServiceByName(name, SERVICE_QUERY_STATUS);
    for (const ULONGLONG end = ::GetTickCount64() + timeoutMs;; ::Sleep(kPollMs))
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
