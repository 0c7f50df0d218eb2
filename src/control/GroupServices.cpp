#include "control/GroupServices.h"

#include <exception>
#include <string>
#include <vector>

#include "base/Owned.h"
#include "config/TxSvcHostConfig.h"
#include "logging/Log.h"
#include "process/ReduceRestart.h"

using namespace ETWLogging;

namespace
{

constexpr wchar_t kLogSource[] = L"TxSvcSubsystemControlManager";

/// What "/startservices" starts.
constexpr wchar_t kCoreGroup[] = L"TxCoreSvc";

/// Stopped last, in this order: the other services may need them to the end.
constexpr const wchar_t* kStoppedLast[] = {L"txpltsvc", L"txkscsvc"};

constexpr int kStopAttempts = 10;
constexpr DWORD kStopPollMs = 1000;

bool IsStoppedLast(const std::wstring& name) noexcept
{
    for (const wchar_t* last : kStoppedLast)
    {
        if (::CompareStringOrdinal(name.c_str(), -1, last, -1, TRUE) == CSTR_EQUAL)
        {
            return true;
        }
    }
    return false;
}

/// @param status what ControlService answered; kept up to date.
HRESULT WaitUntilStopped(SC_HANDLE service, const wchar_t* serviceName, SERVICE_STATUS& status) noexcept
{
    for (int attempt = 0; attempt < kStopAttempts && status.dwCurrentState != SERVICE_STOPPED; ++attempt)
    {
        ::Sleep(kStopPollMs);
        if (!::QueryServiceStatus(service, &status))
        {
            const DWORD error = ::GetLastError();
            TX_LOG(
                LogError,
                L"StopService",
                L"Failed to QueryServiceStatus %s, error code %ld",
                serviceName,
                error);
            return HRESULT_FROM_WIN32(error);
        }
    }
    if (status.dwCurrentState != SERVICE_STOPPED)
    {
        TX_LOG(
            LogError, L"StopService", L"Failed to QueryServiceStatus %s after maximum attempts", serviceName);
        return E_FAIL;
    }
    return S_OK;
}

HRESULT StopOpenService(SC_HANDLE service, const wchar_t* serviceName) noexcept
{
    SERVICE_STATUS status{};
    if (!::ControlService(service, SERVICE_CONTROL_STOP, &status))
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_SERVICE_NOT_ACTIVE)
        {
            return S_OK;
        }
        TX_LOG(
            LogInformation, L"StopService", L"Failed to stop service:%s, error code %d", serviceName, error);
        return HRESULT_FROM_WIN32(error);
    }
    return WaitUntilStopped(service, serviceName, status);
}

HRESULT StopGroup()
{
    constexpr wchar_t kFunction[] = L"StopServices";
    const CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
    TX_LOG(LogInformation, kFunction, L"Reduce restart: Calling TxSvHost StopServices");
    SetReduceRestartStopping();

    // The group's name is not at hand here; the two texts have always had an empty one.
    std::vector<std::wstring> services;
    if (!config.GetServices(services))
    {
        TX_LOG(LogError, kFunction, L"Failed to get group services %s", L"");
        return E_FAIL;
    }
    if (services.empty())
    {
        TX_LOG(LogError, kFunction, L"There are no services in the group %s", L"");
        return S_OK;
    }

    // From a failure on, and combined by OR: the outcome is a failure whatever the services do, so that the
    // process is always ended.
    HRESULT result = E_FAIL;
    for (const std::wstring& name : services)
    {
        if (!IsStoppedLast(name))
        {
            result |= StopService(name.c_str());
        }
    }
    for (const wchar_t* last : kStoppedLast)
    {
        result |= StopService(last);
    }
    return result;
}

void StartOneService(SC_HANDLE manager, const std::wstring& name) noexcept
{
    const Basalt::CServiceHandle service(::OpenServiceW(manager, name.c_str(), SERVICE_START));
    if (!service)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogInformation, L"StartServices", L"Failed to open service:%s, error code %d", name, error);
        return;
    }
    if (!::StartServiceW(service.Get(), 0, nullptr))
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogInformation, L"StartServices", L"Failed to start service:%s, error code %d", name, error);
    }
}

HRESULT StartCoreGroup()
{
    constexpr wchar_t kFunction[] = L"StartServices";
    CTxSvcHostConfig& config = CTxSvcHostConfig::GetInstance();
    TX_LOG(LogInformation, kFunction, L"Reduce restart: Calling TxSvHost StartServices");
    if (!config.Init(kCoreGroup))
    {
        TX_LOG(LogError, kFunction, L"Failed to initialize CTxSvcHostConfig");
        return E_FAIL;
    }
    std::vector<std::wstring> services;
    if (!config.GetServices(services))
    {
        TX_LOG(LogError, kFunction, L"Failed to get group services");
        return E_FAIL;
    }
    if (services.empty())
    {
        TX_LOG(LogError, kFunction, L"There are no services in the group");
        return S_OK;
    }
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, kFunction, L"Open SCManager failed. Error code:%d", error);
        return HRESULT_FROM_WIN32(error);
    }
    for (const std::wstring& name : services)
    {
        StartOneService(manager.Get(), name);
    }
    return E_FAIL; // Also when every service was started: callers know that this says nothing.
}

/// Runs one of the two above, which may run out of memory, and releases the configuration if asked.
HRESULT RunAndRelease(HRESULT (*work)(), const wchar_t* function, bool releaseConfig) noexcept
{
    HRESULT result = E_OUTOFMEMORY;
    try
    {
        result = work();
    }
    catch (const std::exception&)
    {
        TX_LOG(LogError, function, L"Out of memory");
    }
    if (releaseConfig)
    {
        CTxSvcHostConfig::ReleaseInstance();
    }
    return result;
}

} // namespace

HRESULT StopServices(bool releaseConfig) noexcept
{
    return RunAndRelease(&StopGroup, L"StopServices", releaseConfig);
}

HRESULT StopService(const wchar_t* serviceName) noexcept
{
    const Basalt::CServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
    {
        const DWORD error = ::GetLastError();
        TX_LOG(LogError, L"StopService", L"Open SCManager failed. Error code:%d", error);
        return HRESULT_FROM_WIN32(error);
    }
    const Basalt::CServiceHandle service(
        ::OpenServiceW(manager.Get(), serviceName, SERVICE_STOP | SERVICE_QUERY_STATUS));
    if (!service)
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_SERVICE_DOES_NOT_EXIST)
        {
            return S_OK;
        }
        TX_LOG(
            LogInformation, L"StopService", L"Failed to open service:%s, error code %d", serviceName, error);
        return HRESULT_FROM_WIN32(error);
    }
    return StopOpenService(service.Get(), serviceName);
}

HRESULT StartServices(bool releaseConfig) noexcept
{
    return RunAndRelease(&StartCoreGroup, L"StartServices", releaseConfig);
}
