#include "txsvcctl/service/ServiceManager.h"

#include <span>

#include "txsvcctl/common/ToolError.h"

namespace TxCtl
{

namespace
{

constexpr DWORD kPollMs = 50;

constexpr wchar_t kStartService[] = L"start service";
constexpr wchar_t kStopService[] = L"stop service";

ServiceState QueryState(const Basalt::CServiceHandle& service, const std::wstring& name)
{
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(
            service.Get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
    {
        ThrowFailure(L"query the state of service", name, ::GetLastError());
    }
    return {
        status.dwCurrentState, status.dwProcessId, status.dwWin32ExitCode, status.dwServiceSpecificExitCode};
}

std::optional<DWORD> QuerySidType(const Basalt::CServiceHandle& service)
{
    SERVICE_SID_INFO info{};
    DWORD needed = 0;
    return ::QueryServiceConfig2W(
               service.Get(),
               SERVICE_CONFIG_SERVICE_SID_INFO,
               reinterpret_cast<BYTE*>(&info),
               sizeof(info),
               &needed)
               ? std::optional(info.dwServiceSidType)
               : std::nullopt;
}

bool IsPending(const ServiceState& state)
{
    switch (state.state)
    {
    case SERVICE_START_PENDING:
    case SERVICE_STOP_PENDING:
    case SERVICE_CONTINUE_PENDING:
    case SERVICE_PAUSE_PENDING:
        return true;
    default:
        return false;
    }
}

/// The end of a wait, by the tick count.
class CDeadline
{
public:
    explicit CDeadline(DWORD timeoutMs) noexcept : m_end(::GetTickCount64() + timeoutMs) {}

    /// Sleeps a little. @return false when the time is up.
    [[nodiscard]] bool Wait() const noexcept
    {
        if (::GetTickCount64() >= m_end)
        {
            return false;
        }
        ::Sleep(kPollMs);
        return true;
    }

private:
    ULONGLONG m_end;
};

[[noreturn]] void ThrowTimeout(const wchar_t* operation, const std::wstring& name, const ServiceState& state)
{
    ThrowFailed(
        L"cannot " + (operation + (L" '" + name)) + L"': " + DescribeError(ERROR_TIMEOUT) +
        L" Its state is: " + DescribeState(state));
}

ServiceState WaitWhilePending(
    const Basalt::CServiceHandle& service,
    const std::wstring& name,
    const CDeadline& deadline,
    const wchar_t* operation)
{
    for (;;)
    {
        const ServiceState state = QueryState(service, name);
        if (!IsPending(state))
        {
            return state;
        }
        if (!deadline.Wait())
        {
            ThrowTimeout(operation, name, state);
        }
    }
}

/// A process that ends before it has answered the service manager gives this error instead of an exit code;
/// what the service reported last tells more.
[[noreturn]] void ThrowStartFailure(
    const Basalt::CServiceHandle& service, const std::wstring& name, DWORD error)
{
    std::wstring text = DescribeFailure(kStartService, name, error);
    if (error == ERROR_SERVICE_REQUEST_TIMEOUT)
    {
        const ServiceState state = QueryState(service, name);
        text += L" It is " + DescribeState(state) + L" with " + DescribeExit(state);
    }
    ThrowFailed(std::move(text));
}

const wchar_t* TextOrNull(const std::optional<std::wstring>& text)
{
    return text ? text->c_str() : nullptr;
}

} // namespace

std::wstring StateName(const ServiceState& state)
{
    static constexpr const wchar_t* kNames[] = {
        L"unknown", L"stopped", L"starting", L"stopping", L"running", L"continuing", L"pausing", L"paused"};
    return state.state < std::size(kNames) ? kNames[state.state] : kNames[0];
}

std::wstring DescribeExit(const ServiceState& state)
{
    if (state.exitCode == ERROR_SERVICE_SPECIFIC_ERROR)
    {
        return L"exit code " + std::to_wstring(state.serviceExitCode) + L" of its own";
    }
    const std::wstring number = L"exit code " + std::to_wstring(state.exitCode);
    return state.exitCode == NO_ERROR ? number : number + L" (" + DescribeError(state.exitCode) + L")";
}

std::wstring DescribeState(const ServiceState& state)
{
    const std::wstring name = StateName(state);
    return state.processId == 0 ? name : name + L", process " + std::to_wstring(state.processId);
}

CServiceManager::CServiceManager(DWORD access) : m_manager(::OpenSCManagerW(nullptr, nullptr, access))
{
    if (!m_manager)
    {
        ThrowFailure(L"open", L"the service control manager", ::GetLastError());
    }
}

Basalt::CServiceHandle CServiceManager::open(
    const std::wstring& name, DWORD access, const wchar_t* operation) const
{
    Basalt::CServiceHandle service(::OpenServiceW(m_manager.Get(), name.c_str(), access));
    if (!service)
    {
        ThrowFailure(operation, name, ::GetLastError());
    }
    return service;
}

Basalt::CServiceHandle CServiceManager::find(const std::wstring& name, DWORD access) const
{
    Basalt::CServiceHandle service(::OpenServiceW(m_manager.Get(), name.c_str(), access));
    if (!service)
    {
        const DWORD error = ::GetLastError();
        // An invalid name cannot have an entry either; lists edited by hand hold such names.
        if (error != ERROR_SERVICE_DOES_NOT_EXIST && error != ERROR_INVALID_NAME)
        {
            ThrowFailure(L"open service", name, error);
        }
    }
    return service;
}

std::map<std::wstring, SERVICE_STATUS_PROCESS> CServiceManager::States() const
{
    std::map<std::wstring, SERVICE_STATUS_PROCESS> states;
    DWORD resume = 0;
    for (BOOL isDone = FALSE; !isDone;)
    {
        std::vector<ENUM_SERVICE_STATUS_PROCESSW> buffer(1024);
        DWORD needed = 0;
        DWORD count = 0;
        isDone = ::EnumServicesStatusExW(
            m_manager.Get(),
            SC_ENUM_PROCESS_INFO,
            SERVICE_WIN32,
            SERVICE_STATE_ALL,
            reinterpret_cast<BYTE*>(buffer.data()),
            static_cast<DWORD>(buffer.size() * sizeof(ENUM_SERVICE_STATUS_PROCESSW)),
            &needed,
            &count,
            &resume,
            nullptr);
        const DWORD error = isDone ? ERROR_SUCCESS : ::GetLastError();
        if (!isDone && (error != ERROR_MORE_DATA || count == 0))
        {
            ThrowFailure(L"list the entries of", L"the service control manager", error);
        }
        for (const ENUM_SERVICE_STATUS_PROCESSW& entry : std::span(buffer).first(count))
        {
            states[entry.lpServiceName] = entry.ServiceStatusProcess;
        }
    }
    return states;
}

std::optional<ServiceConfig> CServiceManager::FindConfig(
    const std::wstring& name, std::optional<ServiceState>* state) const
{
    constexpr std::size_t kMostBytes = 8192; // By the call's own rule.
    const Basalt::CServiceHandle service =
        find(name, SERVICE_QUERY_CONFIG | (state != nullptr ? SERVICE_QUERY_STATUS : 0));
    if (!service)
    {
        return std::nullopt;
    }
    if (state != nullptr)
    {
        *state = QueryState(service, name);
    }
    DWORD needed = 0;
    std::vector<QUERY_SERVICE_CONFIGW> buffer(kMostBytes / sizeof(QUERY_SERVICE_CONFIGW));
    const auto size = static_cast<DWORD>(buffer.size() * sizeof(QUERY_SERVICE_CONFIGW));
    if (!::QueryServiceConfigW(service.Get(), buffer.data(), size, &needed))
    {
        ThrowFailure(L"read the entry of service", name, ::GetLastError());
    }
    const QUERY_SERVICE_CONFIGW& config = buffer.front();
    return ServiceConfig{
        config.dwServiceType,
        config.dwStartType,
        config.lpBinaryPathName == nullptr ? L"" : config.lpBinaryPathName,
        config.lpDisplayName == nullptr ? L"" : config.lpDisplayName,
        config.lpServiceStartName == nullptr ? L"" : config.lpServiceStartName,
        QuerySidType(service)};
}

std::optional<ServiceState> CServiceManager::FindState(const std::wstring& name) const
{
    const Basalt::CServiceHandle service = find(name, SERVICE_QUERY_STATUS);
    return service ? std::optional(QueryState(service, name)) : std::nullopt;
}

void CServiceManager::Create(const std::wstring& name, const ServiceSettings& settings) const
{
    const Basalt::CServiceHandle service(::CreateServiceW(
        m_manager.Get(),
        name.c_str(),
        settings.displayName.value_or(name).c_str(),
        SERVICE_QUERY_STATUS,
        SERVICE_WIN32_SHARE_PROCESS,
        settings.startType.value_or(SERVICE_DEMAND_START),
        SERVICE_ERROR_NORMAL,
        settings.imagePath.c_str(),
        nullptr,
        nullptr,
        nullptr,
        nullptr, // LocalSystem
        nullptr));
    if (!service)
    {
        ThrowFailure(L"create service", name, ::GetLastError());
    }
}

void CServiceManager::Change(const std::wstring& name, const ServiceSettings& settings) const
{
    constexpr wchar_t kOperation[] = L"change service";
    const Basalt::CServiceHandle service = open(name, SERVICE_CHANGE_CONFIG, kOperation);
    if (!::ChangeServiceConfigW(
            service.Get(),
            SERVICE_WIN32_SHARE_PROCESS,
            settings.startType.value_or(SERVICE_NO_CHANGE),
            SERVICE_NO_CHANGE,
            settings.imagePath.c_str(),
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            nullptr,
            TextOrNull(settings.displayName)))
    {
        ThrowFailure(kOperation, name, ::GetLastError());
    }
}

void CServiceManager::Delete(const std::wstring& name) const
{
    constexpr wchar_t kOperation[] = L"delete service";
    const Basalt::CServiceHandle service = open(name, DELETE, kOperation);
    if (!::DeleteService(service.Get()))
    {
        ThrowFailure(kOperation, name, ::GetLastError());
    }
}

ServiceState CServiceManager::Start(const std::wstring& name, DWORD timeoutMs) const
{
    const CDeadline deadline(timeoutMs);
    const Basalt::CServiceHandle service = open(name, SERVICE_START | SERVICE_QUERY_STATUS, kStartService);
    // A service on its way down can be started only when it is down.
    ServiceState state = WaitWhilePending(service, name, deadline, kStartService);
    if (state.state == SERVICE_STOPPED)
    {
        if (!::StartServiceW(service.Get(), 0, nullptr))
        {
            const DWORD error = ::GetLastError();
            if (error != ERROR_SERVICE_ALREADY_RUNNING)
            {
                ThrowStartFailure(service, name, error);
            }
        }
        state = WaitWhilePending(service, name, deadline, kStartService);
    }
    if (state.state == SERVICE_STOPPED)
    {
        ThrowFailed(L"cannot start service '" + name + L"': it ended at once with " + DescribeExit(state));
    }
    if (state.state != SERVICE_RUNNING)
    {
        ThrowFailed(L"cannot start service '" + name + L"': its state is " + DescribeState(state));
    }
    return state;
}

ServiceState CServiceManager::Stop(const std::wstring& name, DWORD timeoutMs) const
{
    const CDeadline deadline(timeoutMs);
    const Basalt::CServiceHandle service = open(name, SERVICE_STOP | SERVICE_QUERY_STATUS, kStopService);
    bool isRequested = false;
    for (;;)
    {
        const ServiceState state = QueryState(service, name);
        if (state.state == SERVICE_STOPPED)
        {
            return state;
        }
        // A starting service refuses controls: ask again until it takes the one that is needed.
        if (!isRequested && state.state != SERVICE_STOP_PENDING)
        {
            SERVICE_STATUS ignored{};
            const bool isTaken = ::ControlService(service.Get(), SERVICE_CONTROL_STOP, &ignored);
            const DWORD error = isTaken ? ERROR_SUCCESS : ::GetLastError();
            if (!isTaken && error != ERROR_SERVICE_CANNOT_ACCEPT_CTRL && error != ERROR_SERVICE_NOT_ACTIVE)
            {
                ThrowFailure(kStopService, name, error);
            }
            isRequested = isTaken;
        }
        if (!deadline.Wait())
        {
            ThrowTimeout(kStopService, name, state);
        }
    }
}

} // namespace TxCtl
